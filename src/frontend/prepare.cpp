// From a host's array to a segmentable image: colour to grey, rescaling, the
// slice, cropping or padding, and the check of the pixel values, each done
// once, in one pass over the pixels that are kept.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

#include "driver/driver.hpp"
#include "geometry/geometry.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::frontend {

namespace {

constexpr std::int64_t largest_edge_2d = std::int64_t{1} << max_levels_2d;
constexpr std::int64_t largest_edge_volume = std::int64_t{1} << max_levels_3d;

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

bool is_segmentable_size(std::int64_t x, std::int64_t y, std::int64_t z) {
  return x == y && x >= 2 && x <= largest_edge(z) &&
         std::has_single_bit(static_cast<std::uint64_t>(x)) && z >= 1 && z <= x &&
         std::has_single_bit(static_cast<std::uint64_t>(z));
}

std::string number_text(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

// The input as a grey image: logical axes z, y, x and the colour channels.
struct grey_input {
  const char* data = nullptr;
  pixel_type type = pixel_type::int32;
  std::int64_t nz = 1, ny = 1, nx = 1, channels = 1;
  std::int64_t sz = 0, sy = 0, sx = 0, sc = 0;  // bytes
  int dimensions = 2;
};

template <class T>
double sample(const char* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::is_same_v<T, bool>) {
    return v ? 255.0 : 0.0;
  } else {
    return static_cast<double>(v);
  }
}

// One grey value: the sample, or the weighted sum of the colour samples,
// rounded half up when they are whole numbers (so a grey pixel of a colour
// image keeps its value exactly).
template <class T>
double grey_at(const grey_input& in, const char* p) {
  if (in.channels == 1) return sample<T>(p);
  const double r = sample<T>(p), g = sample<T>(p + in.sc), b = sample<T>(p + 2 * in.sc);
  const double sum = 299.0 * r + 587.0 * g + 114.0 * b;
  if (r == std::floor(r) && g == std::floor(g) && b == std::floor(b))
    return std::floor((sum + 500.0) / 1000.0);
  return sum / 1000.0;
}

// Calls f(value) for every grey pixel of the box, z, then y, then x.
template <class F>
void for_each_grey(const grey_input& in, std::int64_t x0, std::int64_t y0, std::int64_t z0,
                   std::int64_t nx, std::int64_t ny, std::int64_t nz, F&& f) {
  with_pixel_type(in.type, [&](auto tag) {
    using T = decltype(tag);
    for (std::int64_t z = z0; z < z0 + nz; ++z)
      for (std::int64_t y = y0; y < y0 + ny; ++y) {
        const char* p = in.data + z * in.sz + y * in.sy + x0 * in.sx;
        for (std::int64_t x = 0; x < nx; ++x, p += in.sx) f(grey_at<T>(in, p), x, y - y0, z - z0);
      }
    return 0;
  });
}

std::string size_text(std::int64_t x, std::int64_t y, std::int64_t z, int dimensions) {
  std::string s = std::to_string(x) + " x " + std::to_string(y);
  if (dimensions == 3) s += " x " + std::to_string(z);
  return s;
}

problem invalid(std::string parameter, std::string text) {
  return {problem_kind::invalid_argument, std::move(parameter), std::move(text)};
}

// The array's axes read as a grey image, or the problem.
problem read_axes(const array_view& a, const request& req, grey_input& in) {
  in.data = static_cast<const char*>(a.data);
  in.type = a.type;
  if (a.data == nullptr) return invalid("image", "the image has no pixel data");
  if (a.ndim < 2 || a.ndim > 4)
    return invalid("image", "the image has " + std::to_string(a.ndim) +
                                " dimensions; expected a 2-D image or a 3-D volume, grey or "
                                "colour");
  for (int d = 0; d < a.ndim; ++d)
    if (a.shape[d] < 1) return invalid("image", "the image is empty");
  const bool numpy = a.order == host_order::numpy;
  // The colour axis: numpy's last, MATLAB's third.
  const int colour_axis = numpy ? a.ndim - 1 : 2;
  const int x_axis = numpy ? (a.ndim == 4 || a.ndim == 3 ? a.ndim - 2 : 1) : 1;
  bool colour = a.ndim == 4;
  if (a.ndim == 3)
    colour = req.colour == colour_mode::automatic &&
             (a.shape[colour_axis] == 3 || a.shape[colour_axis] == 4) && a.shape[x_axis] > 4;
  if (colour && a.shape[colour_axis] != 3 && a.shape[colour_axis] != 4)
    return invalid("image", "a 4-D image must have 3 or 4 colour channels, not " +
                                std::to_string(a.shape[colour_axis]));
  const auto axis = [&](int d, std::int64_t& n, std::int64_t& stride) {
    n = a.shape[d];
    stride = a.strides[d];
  };
  if (numpy) {
    const int spatial = colour ? a.ndim - 1 : a.ndim;
    if (spatial == 3) axis(0, in.nz, in.sz);
    axis(spatial - 2, in.ny, in.sy);
    axis(spatial - 1, in.nx, in.sx);
    in.dimensions = spatial;
  } else {
    axis(0, in.ny, in.sy);
    axis(1, in.nx, in.sx);
    const int z_axis = colour ? 3 : 2;
    if (z_axis < a.ndim) axis(z_axis, in.nz, in.sz);
    in.dimensions = z_axis < a.ndim ? 3 : 2;
  }
  if (colour) {
    in.channels = a.shape[colour_axis];
    in.sc = a.strides[colour_axis];
  }
  return {};
}

// The value below which `percent` of the values lie, interpolated linearly
// between neighbouring ranks (numpy.percentile's default definition).
double percentile(std::vector<double>& values, double percent) {
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

struct grey_window {
  double low = 0.0, scale = 0.0;
};

// The window of the whole input (every slice shares one mapping) and its note.
problem find_window(const grey_input& in, const request& req, grey_window& w,
                    std::vector<std::string>& notes) {
  const bool full = req.low_percentile <= 0.0 && req.high_percentile >= 100.0;
  double low = std::numeric_limits<double>::infinity(), high = -low;
  bool finite = true;
  std::vector<double> values;
  if (!full) values.reserve(static_cast<std::size_t>(in.nx * in.ny * in.nz));
  for_each_grey(in, 0, 0, 0, in.nx, in.ny, in.nz, [&](double v, auto, auto, auto) {
    finite = finite && std::isfinite(v);
    low = std::min(low, v);
    high = std::max(high, v);
    if (!full) values.push_back(v);
  });
  if (!finite) return invalid("rescale", "the image holds NaN or infinite values");
  if (!full) {
    low = percentile(values, req.low_percentile);
    high = percentile(values, req.high_percentile);
  }
  w.low = low;
  w.scale = high > low ? 255.0 / (high - low) : 0.0;
  if (full) {
    notes.push_back("rescaled the values " + number_text(low) + ".." + number_text(high) +
                    " to 0..255");
  } else {
    notes.push_back("rescaled the values between the " + ordinal(req.low_percentile) + " and " +
                    ordinal(req.high_percentile) + " percentiles, " + number_text(low) + ".." +
                    number_text(high) + ", to 0..255 (values outside clipped)");
  }
  return {};
}

std::string size_advice(const grey_input& in) {
  std::string s = "the image is " + size_text(in.nx, in.ny, in.nz, in.dimensions) +
                  " pixels, but the segmentation needs square slices of 2, 4, 8, ..., " +
                  std::to_string(largest_edge_2d) + " pixels";
  if (in.dimensions == 3)
    s += " (" + std::to_string(largest_edge_volume) +
         " at most with more than one slice) and 1, 2, 4, ... slices, no more than the edge";
  s += ": use {fit=pad} or {fit=crop}";
  if (in.dimensions == 3) s += " (or {slice=K} for one slice)";
  return s;
}

// The segmented box in input coordinates (negative offsets: padding).
problem fit_box(const grey_input& in, const request& req, placement& box,
                std::vector<std::string>& notes) {
  box = {0,
         0,
         0,
         static_cast<std::int32_t>(in.nx),
         static_cast<std::int32_t>(in.ny),
         static_cast<std::int32_t>(in.nz)};
  if (is_segmentable_size(in.nx, in.ny, in.nz)) return {};
  const std::string before = size_text(in.nx, in.ny, in.nz, in.dimensions);
  if (req.fit == fit_mode::none) return invalid("fit", size_advice(in));
  std::int64_t edge, slices;
  if (req.fit == fit_mode::pad) {
    slices = power_of_two_at_least(in.nz);
    edge = std::max({power_of_two_at_least(std::max(in.nx, in.ny)), slices, std::int64_t{2}});
    if (edge > largest_edge(slices))
      return invalid("fit", "{fit=pad} would need an edge of " + std::to_string(edge) +
                                " pixels for a " + before + " image, above the largest" +
                                (slices > 1 ? " for a volume" : "") + ", " +
                                std::to_string(largest_edge(slices)) + ": use {fit=crop}" +
                                (slices > 1 ? " (or {slice=K} for one slice)" : ""));
  } else {
    // A crop keeps two slices or more of an input that has two or more.
    edge = std::min(power_of_two_at_most(std::min(in.nx, in.ny)), largest_edge(in.nz));
    if (edge < 2)
      return invalid("fit", "{fit=crop} needs at least 2 x 2 pixels; the image is " + before +
                                ": use {fit=pad}");
    slices = std::min(power_of_two_at_most(in.nz), edge);
  }
  box.x0 = (in.nx - edge) / 2;
  box.y0 = (in.ny - edge) / 2;
  box.z0 = (in.nz - slices) / 2;
  if (req.fit == fit_mode::pad) {
    // Centred: the input starts at (edge - n) / 2 of the padded image.
    box.x0 = -((edge - in.nx) / 2);
    box.y0 = -((edge - in.ny) / 2);
    box.z0 = -((slices - in.nz) / 2);
  }
  box.size_x = box.size_y = static_cast<std::int32_t>(edge);
  box.size_z = static_cast<std::int32_t>(slices);
  const std::string after = size_text(edge, edge, slices, in.dimensions);
  if (req.fit == fit_mode::pad) {
    notes.push_back("padded " + before + " to " + after +
                    " (centred) for the segmentation; the outputs are " + before +
                    ", as the input");
  } else {
    std::string kept = "x " + std::to_string(box.x0) + ".." + std::to_string(box.x0 + edge - 1) +
                       ", y " + std::to_string(box.y0) + ".." + std::to_string(box.y0 + edge - 1);
    if (in.dimensions == 3)
      kept += ", z " + std::to_string(box.z0) + ".." + std::to_string(box.z0 + slices - 1);
    notes.push_back("cropped " + before + " to " + after + " (centred), keeping " + kept +
                    "; the outputs are " + before + ", as the input, with label " +
                    std::to_string(req.start_label - 1) + " outside the part kept");
  }
  return {};
}

// Fills the segmentable image: rescaled, or checked to be whole numbers
// 0..255; zero where it pads the input.
problem fill_pixels(const grey_input& in, const request& req, const grey_window& w,
                    const placement& box, std::vector<std::uint8_t>& pixels) {
  const std::int64_t ex = box.size_x, ey = box.size_y, ez = box.size_z;
  pixels.assign(static_cast<std::size_t>(ex * ey * ez), 0);
  // The part of the segmented image that lies over the input.
  const std::int64_t fx = std::max<std::int64_t>(0, -box.x0),
                     fy = std::max<std::int64_t>(0, -box.y0),
                     fz = std::max<std::int64_t>(0, -box.z0);
  const std::int64_t nx = std::min(ex - fx, in.nx), ny = std::min(ey - fy, in.ny),
                     nz = std::min(ez - fz, in.nz);
  double low = std::numeric_limits<double>::infinity(), high = -low;
  double fraction = 0.0;
  bool whole = true, finite = true;
  for_each_grey(in, std::max<std::int64_t>(box.x0, 0), std::max<std::int64_t>(box.y0, 0),
                std::max<std::int64_t>(box.z0, 0), nx, ny, nz,
                [&](double v, std::int64_t x, std::int64_t y, std::int64_t z) {
                  std::uint8_t& out =
                      pixels[static_cast<std::size_t>(((z + fz) * ey + y + fy) * ex + x + fx)];
                  if (req.rescale) {
                    out = static_cast<std::uint8_t>(
                        std::round(std::clamp((v - w.low) * w.scale, 0.0, 255.0)));
                    return;
                  }
                  finite = finite && std::isfinite(v);
                  low = std::min(low, v);
                  high = std::max(high, v);
                  if (v != std::floor(v) && whole && std::isfinite(v)) {
                    whole = false;
                    fraction = v;
                  }
                  out = v >= 0.0 && v <= 255.0 ? static_cast<std::uint8_t>(v) : 0;
                });
  if (req.rescale) return {};
  if (!finite) return invalid("rescale", "the image holds NaN or infinite values");
  if (low < 0.0 || high > 255.0)
    return invalid("rescale", "the pixel values range from " + number_text(low) + " to " +
                                  number_text(high) +
                                  ", but the segmentation needs 0..255: use {rescale=true}");
  if (!whole)
    return invalid("rescale", "the image holds non-integer values such as " +
                                  number_text(fraction) +
                                  ": use {rescale=true} to map them onto 0..255");
  return {};
}

// A caller's own 8- or 32-bit array in C order that needs no change (the
// 32-bit one is checked).
bool usable_as_is(const grey_input& in, const request& req, const placement& box) {
  if (in.type != pixel_type::int32 && in.type != pixel_type::uint8) return false;
  const std::int64_t size = in.type == pixel_type::uint8 ? 1 : 4;
  return in.channels == 1 && !req.rescale && box.x0 == 0 && box.y0 == 0 && box.z0 == 0 &&
         box.size_x == in.nx && box.size_y == in.ny && box.size_z == in.nz && in.sx == size &&
         in.sy == size * in.nx && (in.nz == 1 || in.sz == size * in.nx * in.ny);
}

problem check_int32_pixels(const std::int32_t* p, std::int64_t n) {
  for (std::int64_t i = 0; i < n; ++i)
    if (p[i] < 0 || p[i] > 255) {
      const auto [lo, hi] = std::minmax_element(p, p + n);
      return invalid("rescale", "the pixel values range from " + std::to_string(*lo) + " to " +
                                    std::to_string(*hi) +
                                    ", but the segmentation needs 0..255: use {rescale=true}");
    }
  return {};
}

problem check_request(const request& req, std::int64_t pixels) {
  if (req.rescale && !(req.low_percentile >= 0.0 && req.low_percentile < req.high_percentile &&
                       req.high_percentile <= 100.0))
    return invalid("rescale", "the percentile window " + number_text(req.low_percentile) + ", " +
                                  number_text(req.high_percentile) +
                                  " must have 0 <= low < high <= 100, e.g. 1, 99");
  if (req.start_label < 0 ||
      std::int64_t{req.start_label} + pixels > std::numeric_limits<std::int32_t>::max())
    return invalid("start_label", "{start_label=" + std::to_string(req.start_label) +
                                      "} must be 0 or more, and leave room for a label per "
                                      "pixel below 2^31");
  return {};
}

// The levels derived from the segmented image, and the first parameter
// problem, worded with options.
problem resolve(const image_view& view, const parameters& given, parameters& p) {
  p = given;
  if (const std::string text = resolve_parameters(view, p); !text.empty())
    return invalid("max_level", text);
  const parameter_problem found = find_parameter_problem(arguments_of(view, p));
  if (found.parameter.empty()) return {};
  if (found.parameter.rfind("size_", 0) == 0) {
    const char* level = found.parameter == "size_z" ? "lim_oct_level" : "max_level";
    return invalid(level, "{max_level=" + std::to_string(p.max_level) +
                              "} and {lim_oct_level=" + std::to_string(p.lim_oct_level) +
                              "} do not fit the segmented image of " +
                              size_text(view.size_x, view.size_y, view.size_z, 3) +
                              " pixels: leave them out to take them from the image");
  }
  return invalid(found.parameter,
                 "{" + found.parameter + "=" + found.value + "}: " + found.allowed);
}

}  // namespace

std::size_t pixel_size(pixel_type t) {
  switch (t) {
    case pixel_type::boolean:
    case pixel_type::int8:
    case pixel_type::uint8:
      return 1;
    case pixel_type::int16:
    case pixel_type::uint16:
      return 2;
    case pixel_type::int32:
    case pixel_type::uint32:
    case pixel_type::float32:
      return 4;
    default:
      return 8;
  }
}

std::int64_t largest_edge(bool volume) { return volume ? largest_edge_volume : largest_edge_2d; }

array_view contiguous_view(const void* data, pixel_type type, host_order order, int ndim,
                           const std::int64_t* shape) {
  array_view a;
  a.data = data;
  a.type = type;
  a.order = order;
  a.ndim = ndim;
  std::int64_t stride = static_cast<std::int64_t>(pixel_size(type));
  for (int k = 0; k < ndim; ++k) {
    const int d = order == host_order::numpy ? ndim - 1 - k : k;
    a.shape[d] = shape[d];
    a.strides[d] = stride;
    stride *= shape[d];
  }
  return a;
}

image_view prepared::image() const {
  image_view view;
  view.data = borrowed;
  if (borrowed == nullptr) view.data8 = borrowed8 != nullptr ? borrowed8 : pixels.data();
  view.size_x = segmented.size_x;
  view.size_y = segmented.size_y;
  view.size_z = segmented.size_z;
  return view;
}

prepared prepare(const array_view& image, const parameters& params, const request& req) {
  prepared out;
  out.asked = req;
  grey_input in;
  out.failure = read_axes(image, req, in);
  if (out.failure.kind != problem_kind::none) return out;
  if (in.channels > 1)
    out.notes.push_back("a colour image: segmenting its grey levels (0.299 R + 0.587 G + 0.114 B)" +
                        std::string(in.channels == 4 ? ", alpha ignored" : ""));
  grey_window window;
  if (req.rescale) {
    out.failure = check_request(req, 0);
    if (out.failure.kind == problem_kind::none)
      out.failure = find_window(in, req, window, out.notes);
    if (out.failure.kind != problem_kind::none) return out;
  }
  if (req.slice) {
    const std::int64_t k = *req.slice;
    if (in.dimensions != 3) {
      out.failure = invalid("slice", "{slice} needs a volume, but the image is 2-D");
      return out;
    }
    if (k < 0 || k >= in.nz) {
      out.failure =
          invalid("slice", "{slice=" + std::to_string(k) + "} is outside the volume's slices 0.." +
                               std::to_string(in.nz - 1));
      return out;
    }
    in.data += k * in.sz;
    in.nz = 1;
    in.dimensions = 2;
  }
  out.dimensions = in.dimensions;
  out.shape[0] = in.nz;
  out.shape[1] = in.ny;
  out.shape[2] = in.nx;
  out.failure = check_request(req, in.nx * in.ny * in.nz);
  if (out.failure.kind == problem_kind::none)
    out.failure = fit_box(in, req, out.segmented, out.notes);
  if (out.failure.kind != problem_kind::none) return out;
  if (usable_as_is(in, req, out.segmented) && in.type == pixel_type::uint8) {
    out.borrowed8 = reinterpret_cast<const std::uint8_t*>(in.data);
  } else if (usable_as_is(in, req, out.segmented)) {
    out.borrowed = reinterpret_cast<const std::int32_t*>(in.data);
    out.failure = check_int32_pixels(out.borrowed, in.nx * in.ny * in.nz);
  } else {
    out.failure = fill_pixels(in, req, window, out.segmented, out.pixels);
  }
  if (out.failure.kind != problem_kind::none) return out;
  out.failure = resolve(out.image(), params, out.resolved);
  if (out.failure.kind == problem_kind::none) out.warnings = range_warnings(out.resolved);
  return out;
}

}  // namespace splitmerge::frontend
