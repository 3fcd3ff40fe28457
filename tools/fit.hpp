// Turning an image as a file holds it into one the segmentation accepts:
// square slices of 2..256 pixels (a power of two), a power-of-two slice count
// no larger than the edge, integer pixels 0..255.
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
  bool rescale = false;               // map the value range linearly onto 0..255
};

struct fitted_image {
  std::int32_t size_x = 0, size_y = 0, size_z = 1;
  int dimensions = 2;                // 3 keeps the (Z, Y, X) shape in the outputs
  std::vector<std::int32_t> pixels;  // x fastest, values 0..255
  std::vector<std::string> notes;    // what was changed, for the user
};

// True for a size the segmentation accepts.
bool is_segmentable_size(std::int64_t size_x, std::int64_t size_y, std::int64_t size_z);

// Slices, crops, rescales and pads in that order, so that padding is 0 after
// rescaling. Throws usage_error.
fitted_image fit_image(const io::grey_image& image, const fit_request& request);

}  // namespace splitmerge::tool
