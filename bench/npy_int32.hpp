// The benchmark images: little-endian int32 .npy arrays of shape (Y, X) or
// (Z, Y, X), read straight into 32-bit pixels so that the reading adds no
// wider copy to the peak memory a run is measured with.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "splitmerge/splitmerge.hpp"

namespace splitmerge::bench {

struct int32_image {
  std::vector<std::int32_t> pixels;  // x fastest, then y, then z
  std::int32_t size_x = 0;
  std::int32_t size_y = 0;
  std::int32_t size_z = 1;

  [[nodiscard]] std::size_t count() const { return pixels.size(); }
  [[nodiscard]] image_view view() const { return {pixels.data(), size_x, size_y, size_z}; }
};

// Throws std::runtime_error when the file is not such an array.
int32_image read_npy_int32(const std::string& path);

}  // namespace splitmerge::bench
