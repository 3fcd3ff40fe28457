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
  for (std::size_t i = 0; i < colours.size(); ++i)
    colours[i] = palette_colour(static_cast<std::int64_t>(i));
  return colours;
}

}  // namespace

io::rgb palette_colour(std::int64_t value) {
  if (value <= 0) return {0, 0, 0};
  constexpr double golden_turn = 0.6180339887498949;
  static constexpr double saturation[3] = {0.75, 0.55, 0.95};
  static constexpr double brightness[3] = {1.0, 0.8, 0.6};
  const auto n = static_cast<std::uint64_t>(value - 1);
  const double hue = std::fmod(0.07 + static_cast<double>(n) * golden_turn, 1.0);
  return from_hsv(hue, saturation[n % 3], brightness[(n / 3) % 3]);
}

const std::array<io::rgb, 256>& indexed_palette() {
  static const std::array<io::rgb, 256> colours = make_indexed_palette();
  return colours;
}

std::uint8_t palette_index(std::int64_t value) {
  if (value <= 0) return 0;
  if (value <= 255) return static_cast<std::uint8_t>(value);
  return static_cast<std::uint8_t>(1 + (value - 1) % 255);
}

}  // namespace splitmerge::tool
