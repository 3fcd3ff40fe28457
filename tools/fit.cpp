#include "fit.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <sstream>

namespace splitmerge::tool {

namespace {

constexpr std::int64_t largest_edge = 256;

std::int64_t power_of_two_at_least(std::int64_t v) {
  return static_cast<std::int64_t>(
      std::bit_ceil(static_cast<std::uint64_t>(std::max<std::int64_t>(v, 1))));
}

std::int64_t power_of_two_at_most(std::int64_t v) {
  return static_cast<std::int64_t>(
      std::bit_floor(static_cast<std::uint64_t>(std::max<std::int64_t>(v, 1))));
}

std::string size_text(std::int64_t x, std::int64_t y, std::int64_t z, int dimensions) {
  std::string s = std::to_string(x) + " x " + std::to_string(y);
  if (dimensions == 3) s += " x " + std::to_string(z);
  return s;
}

std::string number_text(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

// The part [x0, x0 + nx) x [y0, y0 + ny) x [z0, z0 + nz) of an image.
io::grey_image window(const io::grey_image& in, std::int64_t x0, std::int64_t y0, std::int64_t z0,
                      std::int64_t nx, std::int64_t ny, std::int64_t nz) {
  io::grey_image out;
  out.size_x = nx;
  out.size_y = ny;
  out.size_z = nz;
  out.dimensions = in.dimensions;
  out.values.reserve(static_cast<std::size_t>(nx * ny * nz));
  for (std::int64_t z = z0; z < z0 + nz; ++z)
    for (std::int64_t y = y0; y < y0 + ny; ++y) {
      const auto row = in.values.begin() + (z * in.size_y + y) * in.size_x + x0;
      out.values.insert(out.values.end(), row, row + nx);
    }
  return out;
}

// The image centred in a zero-filled one of the given size.
io::grey_image padded(const io::grey_image& in, std::int64_t nx, std::int64_t ny, std::int64_t nz) {
  io::grey_image out;
  out.size_x = nx;
  out.size_y = ny;
  out.size_z = nz;
  out.dimensions = in.dimensions;
  out.values.assign(static_cast<std::size_t>(nx * ny * nz), 0.0);
  const std::int64_t x0 = (nx - in.size_x) / 2, y0 = (ny - in.size_y) / 2,
                     z0 = (nz - in.size_z) / 2;
  for (std::int64_t z = 0; z < in.size_z; ++z)
    for (std::int64_t y = 0; y < in.size_y; ++y) {
      const auto row = in.values.begin() + (z * in.size_y + y) * in.size_x;
      std::copy(row, row + in.size_x, out.values.begin() + ((z + z0) * ny + y + y0) * nx + x0);
    }
  return out;
}

std::string size_advice(const io::grey_image& image) {
  std::string s =
      "the image is " + size_text(image.size_x, image.size_y, image.size_z, image.dimensions) +
      " pixels, but the segmentation needs square slices of 2, 4, 8, ..., 256 "
      "pixels" +
      (image.dimensions == 3 ? " and 1, 2, 4, ... slices, no more than the edge" : std::string()) +
      ": use --fit pad or --fit crop";
  if (image.dimensions == 3) s += " (or --slice K for one slice)";
  return s;
}

struct target_size {
  std::int64_t edge, slices;
};

target_size fitted_size(const io::grey_image& image, fit_mode mode) {
  if (mode == fit_mode::pad) {
    const std::int64_t slices = power_of_two_at_least(image.size_z);
    const std::int64_t edge = std::max(
        {power_of_two_at_least(std::max(image.size_x, image.size_y)), slices, std::int64_t{2}});
    if (edge > largest_edge)
      throw usage_error("--fit pad would need an edge of " + std::to_string(edge) +
                        " pixels for a " +
                        size_text(image.size_x, image.size_y, image.size_z, image.dimensions) +
                        " image, above the largest, 256: use --fit crop");
    return {edge, slices};
  }
  const std::int64_t edge =
      std::min(power_of_two_at_most(std::min(image.size_x, image.size_y)), largest_edge);
  if (edge < 2)
    throw usage_error("--fit crop needs at least 2 x 2 pixels; the image is " +
                      size_text(image.size_x, image.size_y, image.size_z, image.dimensions) +
                      ": use --fit pad");
  return {edge, std::min(power_of_two_at_most(image.size_z), edge)};
}

void check_finite(const io::grey_image& image) {
  for (const double v : image.values)
    if (!std::isfinite(v)) throw usage_error("the image holds NaN or infinite values");
}

// Maps [min, max] linearly onto 0..255 (a constant image becomes 0).
void rescale(io::grey_image& image, std::vector<std::string>& notes) {
  const auto [lo, hi] = std::minmax_element(image.values.begin(), image.values.end());
  const double low = *lo, high = *hi;
  const double scale = high > low ? 255.0 / (high - low) : 0.0;
  for (double& v : image.values) v = std::round((v - low) * scale);
  notes.push_back("rescaled the values " + number_text(low) + ".." + number_text(high) +
                  " to 0..255");
}

void check_pixel_values(const io::grey_image& image) {
  const auto [lo, hi] = std::minmax_element(image.values.begin(), image.values.end());
  if (*lo < 0 || *hi > 255)
    throw usage_error("the pixel values range from " + number_text(*lo) + " to " +
                      number_text(*hi) + ", but the segmentation needs 0..255: use --rescale");
  for (const double v : image.values)
    if (v != std::floor(v))
      throw usage_error("the image holds non-integer values such as " + number_text(v) +
                        ": use --rescale to map them onto 0..255");
}

}  // namespace

bool is_segmentable_size(std::int64_t size_x, std::int64_t size_y, std::int64_t size_z) {
  return size_x == size_y && size_x >= 2 && size_x <= largest_edge &&
         std::has_single_bit(static_cast<std::uint64_t>(size_x)) && size_z >= 1 &&
         size_z <= size_x && std::has_single_bit(static_cast<std::uint64_t>(size_z));
}

fitted_image fit_image(const io::grey_image& input, const fit_request& request) {
  fitted_image out;
  if (!input.note.empty()) out.notes.push_back(input.note);
  io::grey_image image;
  if (request.slice) {
    const std::int64_t k = *request.slice;
    if (input.dimensions != 3) throw usage_error("--slice needs a volume, but the image is 2-D");
    if (k < 0 || k >= input.size_z)
      throw usage_error("--slice " + std::to_string(k) + " is outside the volume's slices 0.." +
                        std::to_string(input.size_z - 1));
    image = window(input, 0, 0, k, input.size_x, input.size_y, 1);
    image.dimensions = 2;
  } else {
    image = input;
  }
  check_finite(image);

  const bool fits = is_segmentable_size(image.size_x, image.size_y, image.size_z);
  if (!fits && request.mode == fit_mode::none) throw usage_error(size_advice(image));
  const std::string before = size_text(image.size_x, image.size_y, image.size_z, image.dimensions);
  const target_size target =
      fits ? target_size{image.size_x, image.size_z} : fitted_size(image, request.mode);
  if (!fits && request.mode == fit_mode::crop)
    image = window(image, (image.size_x - target.edge) / 2, (image.size_y - target.edge) / 2,
                   (image.size_z - target.slices) / 2, target.edge, target.edge, target.slices);
  if (request.rescale) {
    rescale(image, out.notes);
  } else {
    check_pixel_values(image);
  }
  if (!fits && request.mode == fit_mode::pad)
    image = padded(image, target.edge, target.edge, target.slices);
  if (!fits) {
    const std::string after = size_text(image.size_x, image.size_y, image.size_z, image.dimensions);
    out.notes.push_back(std::string(request.mode == fit_mode::pad ? "padded " : "cropped ") +
                        before + " to " + after + " (centred); labels and frames are " + after);
  }

  out.size_x = static_cast<std::int32_t>(image.size_x);
  out.size_y = static_cast<std::int32_t>(image.size_y);
  out.size_z = static_cast<std::int32_t>(image.size_z);
  out.dimensions = image.dimensions;
  out.pixels.resize(image.values.size());
  std::transform(image.values.begin(), image.values.end(), out.pixels.begin(),
                 [](double v) { return static_cast<std::int32_t>(v); });
  return out;
}

}  // namespace splitmerge::tool
