// The image the program's outputs describe: the input's own shape (after
// --slice), whatever fitting the segmentation needed.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "grey_image.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::tool {

// The input cannot be used as asked; the message says what would help.
struct usage_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A box of pixels: its first corner and its size.
struct pixel_box {
  std::int64_t x0 = 0, y0 = 0, z0 = 0;
  std::int64_t size_x = 0, size_y = 0, size_z = 0;
};

struct fitted_image {
  std::int32_t size_x = 0, size_y = 0, size_z = 1;
  int dimensions = 2;  // 3 keeps the (Z, Y, X) shape in the outputs
  // The segmented pixels (0..255, x fastest) at the input's shape, 0 where
  // nothing was segmented; empty unless asked for.
  std::vector<std::int32_t> pixels;
  pixel_box shown;  // the part the outputs hold: all of it
  // Where the first pixel lies in the input file's pixel grid (after --slice
  // it is not the file's first pixel).
  std::int64_t input_x0 = 0, input_y0 = 0, input_z0 = 0;
  std::string nifti_header;  // a NIfTI input's header, for NIfTI outputs
};

// The outputs' image for an input prepared for the run; with_pixels maps
// the segmented pixels onto it (for --save-input and --overlay).
fitted_image output_image(const io::grey_image& input, const frontend::prepared& run,
                          bool with_pixels);

}  // namespace splitmerge::tool
