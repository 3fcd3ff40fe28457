#include "palette.hpp"

#include <cmath>

namespace splitmerge::tool {

namespace {

io::rgb from_hsv(double hue, double saturation, double value) {
  const double h = hue * 6.0;
  const int sector = static_cast<int>(h) % 6;
  const double f = h - std::floor(h);
  const double p = value * (1 - saturation), q = value * (1 - saturation * f),
               t = value * (1 - saturation * (1 - f));
  double r = value, g = t, b = p;
  switch (sector) {
    case 1:
      r = q, g = value, b = p;
      break;
    case 2:
      r = p, g = value, b = t;
      break;
    case 3:
      r = p, g = q, b = value;
      break;
    case 4:
      r = t, g = p, b = value;
      break;
    case 5:
      r = value, g = p, b = q;
      break;
    default:
      break;
  }
  const auto byte = [](double c) { return static_cast<std::uint8_t>(std::lround(c * 255.0)); };
  return {byte(r), byte(g), byte(b)};
}

std::array<io::rgb, 256> make_indexed_palette() {
  std::array<io::rgb, 256> colours;
  // 0 (the largest region, often the background) is a dark grey: visible, and
  // unlike every other colour.
  colours[0] = {64, 64, 64};
  constexpr double golden_turn = 0.6180339887498949;
  static constexpr double saturation[3] = {0.75, 0.55, 0.95};
  static constexpr double brightness[3] = {1.0, 0.8, 0.6};
  for (std::size_t i = 1; i < colours.size(); ++i) {
    const std::size_t n = i - 1;
    const double hue = std::fmod(0.07 + static_cast<double>(n) * golden_turn, 1.0);
    colours[i] = from_hsv(hue, saturation[n % 3], brightness[(n / 3) % 3]);
  }
  return colours;
}

}  // namespace

io::rgb palette_colour(std::int64_t value) { return indexed_palette()[palette_index(value)]; }

const std::array<io::rgb, 256>& indexed_palette() {
  static const std::array<io::rgb, 256> colours = make_indexed_palette();
  return colours;
}

std::uint8_t palette_index(std::int64_t value) {
  if (value <= 0) return 0;
  if (value <= 255) return static_cast<std::uint8_t>(value);
  // Modulo 254, not 255: that keeps 255 and 256 (and every later pair of
  // neighbours) as far apart in colour as the pairs below 256.
  return static_cast<std::uint8_t>(1 + (value - 1) % 254);
}

}  // namespace splitmerge::tool
