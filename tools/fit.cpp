#include "fit.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <sstream>

namespace splitmerge::tool {

namespace {

// The segmentation takes 2-D images of up to 4096 pixels along an edge and
// volumes (more than one slice) of up to 512.
constexpr std::int64_t largest_edge_2d = 4096;
constexpr std::int64_t largest_edge_volume = 512;

std::int64_t largest_edge(std::int64_t slices) {
  return slices > 1 ? largest_edge_volume : largest_edge_2d;
}

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
      " pixels, but the segmentation needs square slices of 2, 4, 8, ..., " +
      std::to_string(largest_edge_2d) + " pixels" +
      (image.dimensions == 3 ? " (" + std::to_string(largest_edge_volume) +
                                   " at most with more than one slice) and 1, 2, 4, ... "
                                   "slices, no more than the edge"
                             : std::string()) +
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
    if (edge > largest_edge(slices))
      throw usage_error("--fit pad would need an edge of " + std::to_string(edge) +
                        " pixels for a " +
                        size_text(image.size_x, image.size_y, image.size_z, image.dimensions) +
                        " image, above the largest" + (slices > 1 ? " for a volume" : "") + ", " +
                        std::to_string(largest_edge(slices)) + ": use --fit crop" +
                        (slices > 1 ? " (or --slice K for one slice)" : ""));
    return {edge, slices};
  }
  // A crop keeps two slices or more of an input that has two or more, so the
  // input's slice count decides the largest edge.
  const std::int64_t edge = std::min(power_of_two_at_most(std::min(image.size_x, image.size_y)),
                                     largest_edge(image.size_z));
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

// The value below which `percent` of the values lie, interpolated linearly
// between neighbouring ranks: the definition numpy.percentile uses by default,
// computed as low + t * (high - low), which can differ from numpy in the last bit.
double percentile(std::vector<double> values, double percent) {
  const double position = percent / 100.0 * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(std::floor(position));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(below),
                   values.end());
  const double low = values[below];
  if (below + 1 >= values.size()) return low;
  const double high =
      *std::min_element(values.begin() + static_cast<std::ptrdiff_t>(below) + 1, values.end());
  return low + (position - static_cast<double>(below)) * (high - low);
}

std::string ordinal(double percent) {
  const std::string n = number_text(percent);
  const long whole = std::lround(percent);
  if (static_cast<double>(whole) != percent) return n + "th";
  const long last_two = whole % 100, last = whole % 10;
  if (last_two >= 11 && last_two <= 13) return n + "th";
  return n + (last == 1 ? "st" : last == 2 ? "nd" : last == 3 ? "rd" : "th");
}

// Maps the window [low, high] of the values linearly onto 0..255, clipping
// values outside it (a constant image becomes 0). The full window is the
// range from the smallest value to the largest.
void rescale(io::grey_image& image, const fit_request& request, std::vector<std::string>& notes) {
  const bool full = request.low_percentile <= 0.0 && request.high_percentile >= 100.0;
  double low, high;
  if (full) {
    const auto [lo, hi] = std::minmax_element(image.values.begin(), image.values.end());
    low = *lo;
    high = *hi;
  } else {
    low = percentile(image.values, request.low_percentile);
    high = percentile(image.values, request.high_percentile);
  }
  const double scale = high > low ? 255.0 / (high - low) : 0.0;
  for (double& v : image.values) v = std::round(std::clamp((v - low) * scale, 0.0, 255.0));
  if (full) {
    notes.push_back("rescaled the values " + number_text(low) + ".." + number_text(high) +
                    " to 0..255");
  } else {
    notes.push_back("rescaled the values between the " + ordinal(request.low_percentile) + " and " +
                    ordinal(request.high_percentile) + " percentiles, " + number_text(low) + ".." +
                    number_text(high) + ", to 0..255 (values outside clipped)");
  }
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
  return size_x == size_y && size_x >= 2 && size_x <= largest_edge(size_z) &&
         std::has_single_bit(static_cast<std::uint64_t>(size_x)) && size_z >= 1 &&
         size_z <= size_x && std::has_single_bit(static_cast<std::uint64_t>(size_z));
}

fitted_image fit_image(const io::grey_image& input, const fit_request& request) {
  fitted_image out;
  if (!input.note.empty()) out.notes.push_back(input.note);
  out.nifti_header = input.nifti_header;
  check_finite(input);
  io::grey_image rescaled;
  if (request.rescale) {
    rescaled = input;
    rescale(rescaled, request, out.notes);
  }
  const io::grey_image& source = request.rescale ? rescaled : input;
  io::grey_image image;
  if (request.slice) {
    const std::int64_t k = *request.slice;
    if (input.dimensions != 3) throw usage_error("--slice needs a volume, but the image is 2-D");
    if (k < 0 || k >= input.size_z)
      throw usage_error("--slice " + std::to_string(k) + " is outside the volume's slices 0.." +
                        std::to_string(input.size_z - 1));
    image = window(source, 0, 0, k, input.size_x, input.size_y, 1);
    image.dimensions = 2;
    out.input_z0 = k;
  } else {
    image = source;
  }

  const bool fits = is_segmentable_size(image.size_x, image.size_y, image.size_z);
  if (!fits && request.mode == fit_mode::none) throw usage_error(size_advice(image));
  const std::string before = size_text(image.size_x, image.size_y, image.size_z, image.dimensions);
  const target_size target =
      fits ? target_size{image.size_x, image.size_z} : fitted_size(image, request.mode);
  if (!fits && request.mode == fit_mode::crop) {
    const std::int64_t x0 = (image.size_x - target.edge) / 2, y0 = (image.size_y - target.edge) / 2,
                       z0 = (image.size_z - target.slices) / 2;
    image = window(image, x0, y0, z0, target.edge, target.edge, target.slices);
    out.input_x0 = x0;
    out.input_y0 = y0;
    out.input_z0 += z0;
    std::string kept = "x " + std::to_string(x0) + ".." + std::to_string(x0 + target.edge - 1) +
                       ", y " + std::to_string(y0) + ".." + std::to_string(y0 + target.edge - 1);
    if (image.dimensions == 3)
      kept += ", z " + std::to_string(z0) + ".." + std::to_string(z0 + target.slices - 1);
    const std::string after = size_text(image.size_x, image.size_y, image.size_z, image.dimensions);
    out.notes.push_back("cropped " + before + " to " + after + " (centred), keeping " + kept +
                        "; the outputs are " + after);
  }
  if (!request.rescale) check_pixel_values(image);
  out.shown = {0, 0, 0, image.size_x, image.size_y, image.size_z};
  if (!fits && request.mode == fit_mode::pad) {
    const std::int64_t nx = image.size_x, ny = image.size_y, nz = image.size_z;
    image = padded(image, target.edge, target.edge, target.slices);
    out.shown = {
        (target.edge - nx) / 2, (target.edge - ny) / 2, (target.slices - nz) / 2, nx, ny, nz};
    out.notes.push_back("padded " + before + " to " +
                        size_text(image.size_x, image.size_y, image.size_z, image.dimensions) +
                        " (centred) for the segmentation; the outputs are " + before +
                        ", as the input");
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
