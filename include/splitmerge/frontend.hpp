// splitmerge front-end layer: everything a user-facing call does around the
// segmentation, in one place for the command line, Python, smsegment and the
// batch runner. It takes a host's array as it lies in memory (any numeric
// pixel type, any strides, grey or colour), converts, rescales and fits it to
// a segmentable size, runs `segment` with the one set of default parameters
// (those of `parameters`), and maps the labels back onto the input's shape,
// numbered from `start_label`. Problems come back as a structured status that
// each front end words in its own terms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "splitmerge/splitmerge.hpp"

namespace splitmerge::frontend {

// The library's version, "MAJOR.MINOR.PATCH".
const char* version() noexcept;

enum class pixel_type : std::uint8_t {
  boolean,
  int8,
  uint8,
  int16,
  uint16,
  int32,
  uint32,
  int64,
  uint64,
  float32,
  float64
};

// Bytes of one sample of a type.
std::size_t pixel_size(pixel_type type);

// Calls f with a value of the C++ type of `type` (bool for boolean).
template <class F>
decltype(auto) with_pixel_type(pixel_type type, F&& f) {
  switch (type) {
    case pixel_type::boolean:
      return f(bool{});
    case pixel_type::int8:
      return f(std::int8_t{});
    case pixel_type::uint8:
      return f(std::uint8_t{});
    case pixel_type::int16:
      return f(std::int16_t{});
    case pixel_type::uint16:
      return f(std::uint16_t{});
    case pixel_type::int32:
      return f(std::int32_t{});
    case pixel_type::uint32:
      return f(std::uint32_t{});
    case pixel_type::int64:
      return f(std::int64_t{});
    case pixel_type::uint64:
      return f(std::uint64_t{});
    case pixel_type::float32:
      return f(float{});
    case pixel_type::float64:
      break;
  }
  return f(double{});
}

// The order in which a host lays out the axes of an image.
enum class host_order : std::uint8_t {
  // numpy's, and the files': (Y, X) or (Z, Y, X), a colour axis last:
  // (Y, X, C) or (Z, Y, X, C).
  numpy,
  // MATLAB's: (Y, X) or (Y, X, Z), rows first; colour (Y, X, C) or (Y, X, C, Z).
  matlab
};

// A host's array: its extents and byte strides in the host's axis order.
// Strides may be anything (a transposed or sliced numpy array, a MATLAB array
// whose rows are its fastest axis).
struct array_view {
  const void* data = nullptr;
  pixel_type type = pixel_type::int32;
  host_order order = host_order::numpy;
  int ndim = 0;
  std::int64_t shape[4] = {};
  std::int64_t strides[4] = {};
};

// A contiguous array in the host's own memory order (C order for numpy,
// column-major for MATLAB).
array_view contiguous_view(const void* data, pixel_type type, host_order order, int ndim,
                           const std::int64_t* shape);

enum class fit_mode : std::uint8_t {
  none,  // the input must have a segmentable size
  pad,   // centred in a zero-filled image of the next segmentable size
  crop   // the centred largest segmentable box
};

// How a 3-D array is read. `automatic`: when its colour axis (the last in
// numpy's order, the third in MATLAB's) has 3 or 4 entries and the x axis
// more than 4, it is a colour image (RGB or RGBA), segmented as its grey
// levels (299 R + 587 G + 114 B) / 1000, rounded when the samples are whole
// numbers, alpha ignored; otherwise a volume. `volume`: always a volume.
enum class colour_mode : std::uint8_t { automatic, volume };

// What a front end asks for around the run.
struct request {
  fit_mode fit = fit_mode::none;
  colour_mode colour = colour_mode::automatic;
  // Map the values linearly onto 0..255 (rounded): the whole range, or the
  // window between the two percentiles of the whole input (clipped outside).
  bool rescale = false;
  double low_percentile = 0.0;
  double high_percentile = 100.0;
  // Segment only this slice (0-based, along z) of a volume.
  std::optional<std::int64_t> slice;
  // Label of the largest region; 0 gives the numbering of `segment`. Pixels
  // that were not segmented (outside a crop) get start_label - 1.
  std::int32_t start_label = 1;
};

// The default start label of every front end: 0 stays free for "not
// segmented", as label viewers and region measurements expect.
inline constexpr std::int32_t default_start_label = 1;

enum class problem_kind : std::uint8_t {
  none,
  invalid_argument,    // a parameter, option or the image cannot be used
  resource_exhausted,  // out of memory, or above the memory limit
  interrupted,         // options::interrupt asked to stop
  input_output         // the region list file cannot be written
};

// One problem or warning. `text` names options as {name} and options with a
// value as {name=value}; `worded` spells them as the front end does.
// `parameter` names the option the problem is about, or the one that helps:
// "fit" for an image size the run does not take, "rescale" for pixel values
// outside 0..255, "image" for an array that cannot be read at all.
struct problem {
  problem_kind kind = problem_kind::none;
  std::string parameter;  // the option it is about, by its library name; may be empty
  std::string text;
};

enum class spelling : std::uint8_t {
  library,       // sigma, fit = pad
  command_line,  // --sigma, --fit pad
  python,        // sigma, fit='pad'
  matlab         // 'Sigma', 'Fit', 'pad'
};

// The text with its options spelled for one front end.
std::string worded(std::string_view text, spelling how);
// One option's name as a front end spells it: "--small-size", "small_size",
// "SmallSize" (without quotes).
std::string option_name(std::string_view parameter, spelling how);

// Where the segmented image lies in the input (after slicing): the input's
// x, y, z of its first pixel (negative after padding) and its size.
struct placement {
  std::int64_t x0 = 0, y0 = 0, z0 = 0;
  std::int32_t size_x = 0, size_y = 0, size_z = 1;
};

// An input converted and fitted, ready to run.
struct prepared {
  problem failure;                 // kind none when the input can be run
  std::vector<problem> warnings;   // parameters outside their meaningful ranges
  std::vector<std::string> notes;  // what was changed on the way (colour, rescale, fit)
  parameters resolved;             // every parameter as the run uses it, levels included
  request asked;
  int dimensions = 2;                 // of the input's grey image: 2 (Y, X) or 3 (Z, Y, X)
  std::int64_t shape[3] = {1, 1, 1};  // Z, Y, X of the input's grey image (the slice)
  placement segmented;
  // The segmentable image: x fastest, values 0..255, 8-bit unless the
  // caller's own 32-bit array could be used as it is.
  [[nodiscard]] image_view image() const;
  [[nodiscard]] std::int64_t input_pixels() const { return shape[0] * shape[1] * shape[2]; }

  std::vector<std::uint8_t> pixels;         // when converted
  const std::int32_t* borrowed = nullptr;   // the caller's own array, usable as it is
  const std::uint8_t* borrowed8 = nullptr;  // the same for an 8-bit array
};

struct result {
  problem failure;  // kind none when the run succeeded
  // One label per input pixel, in C order of the input's grey shape (X
  // fastest); start_label for the largest region, start_label - 1 outside a
  // crop. Empty after a failure.
  std::vector<std::int32_t> labels;
  std::int32_t region_count = 0;  // regions of the run (those of padding included)
  // The library's own results: frames of the segmented image (none when they
  // went to a sink), progress lines and the region list.
  segmentation run;
};

// Converts and fits an array; `failure` says why it cannot be run.
prepared prepare(const array_view& image, const parameters& params, const request& req);

// The largest edge of an image the segmentation takes: of a 2-D image, or of
// a volume of more than one slice.
std::int64_t largest_edge(bool volume);

// The most display frames a run of this input can hand to options::frame_sink
// (a bound for sizing their file; smooth images make far fewer).
std::int64_t most_frames(const prepared& input);

// Runs a prepared input with the given options (progress, frames, regions,
// threads, memory limit, interrupt).
result run(const prepared& input, const options& opts = {});

// Copies an image of the segmented size (a frame) onto the input's grey
// shape: pixel values plus `offset`, and `outside` where the input was not
// segmented. `out` holds input_pixels() values.
void to_input(const prepared& input, const std::int32_t* segmented, std::int32_t* out,
              std::int32_t offset, std::int32_t outside);
void to_input(const prepared& input, const std::uint8_t* segmented, std::int32_t* out,
              std::int32_t offset, std::int32_t outside);
// The segmented image itself mapped onto the input's shape (0 outside).
std::vector<std::int32_t> segmented_on_input(const prepared& input);

// Warnings for parameters outside their meaningful ranges (they still run as
// given); empty when every value means what the help says.
std::vector<problem> range_warnings(const parameters& p);

// The fourteen parameter names in their library order, and one value as text.
const std::vector<std::string_view>& parameter_names();
std::string parameter_text(const parameters& p, std::string_view name);

}  // namespace splitmerge::frontend
