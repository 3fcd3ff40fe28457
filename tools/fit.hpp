// Turning an image as a file holds it into one the segmentation accepts:
// square slices of 2..4096 pixels (a power of two; 2..512 for more than one
// slice), a power-of-two slice count no larger than the edge, integer pixels
// 0..255.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "grey_image.hpp"

namespace splitmerge::tool {

// The input cannot be used as asked; the message says what would help.
struct usage_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class fit_mode { none, pad, crop };

struct fit_request {
  fit_mode mode = fit_mode::none;
  std::optional<std::int64_t> slice;  // take this slice of a volume as a 2-D image
  bool rescale = false;               // map a window of the values linearly onto 0..255
  double low_percentile = 0.0;        // the window: these percentiles of the whole input
  double high_percentile = 100.0;
};

// A box of pixels: its first corner and its size.
struct pixel_box {
  std::int64_t x0 = 0, y0 = 0, z0 = 0;
  std::int64_t size_x = 0, size_y = 0, size_z = 0;
};

struct fitted_image {
  std::int32_t size_x = 0, size_y = 0, size_z = 1;
  int dimensions = 2;                // 3 keeps the (Z, Y, X) shape in the outputs
  std::vector<std::int32_t> pixels;  // x fastest, values 0..255
  std::vector<std::string> notes;    // what was changed, for the user
  // The part of the segmented image the outputs hold: all of it, or without
  // the padding --fit pad added (so that outputs lie over the input).
  pixel_box shown;
  // Where the shown box's first pixel lies in the input file's pixel grid
  // (after --fit crop or --slice it is not the file's first pixel).
  std::int64_t input_x0 = 0, input_y0 = 0, input_z0 = 0;
  std::string nifti_header;  // a NIfTI input's header, for NIfTI outputs
};

// True for a size the segmentation accepts.
bool is_segmentable_size(std::int64_t size_x, std::int64_t size_y, std::int64_t size_z);

// Rescales (the whole input, so that every slice of a volume shares one grey
// mapping), slices, crops and pads in that order, so that padding is 0 after
// rescaling. Throws usage_error.
fitted_image fit_image(const io::grey_image& image, const fit_request& request);

}  // namespace splitmerge::tool
