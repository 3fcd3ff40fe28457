// Random test images: piecewise-constant blobs with optional noise, so that
// the trees have leaves of many sizes and the regions many shapes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace splitmerge::testing {

inline std::vector<std::int32_t> blob_image(std::mt19937& rng, int size_x, int size_z,
                                            int noise_percent = 10) {
  const int n = size_x * size_x * size_z;
  std::vector<std::int32_t> img(static_cast<std::size_t>(n),
                                static_cast<std::int32_t>(rng() % 256));
  const int blobs = 1 + static_cast<int>(rng() % 6);
  for (int k = 0; k < blobs; ++k) {
    const int x0 = static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int y0 = static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int z0 = static_cast<int>(rng() % static_cast<unsigned>(size_z));
    const int w = 1 + static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int h = 1 + static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int d = 1 + static_cast<int>(rng() % static_cast<unsigned>(size_z));
    const auto v = static_cast<std::int32_t>(rng() % 256);
    for (int z = z0; z < std::min(size_z, z0 + d); ++z)
      for (int y = y0; y < std::min(size_x, y0 + h); ++y)
        for (int x = x0; x < std::min(size_x, x0 + w); ++x)
          img[static_cast<std::size_t>((z * size_x + y) * size_x + x)] = v;
  }
  for (auto& v : img) {
    if (static_cast<int>(rng() % 100) < noise_percent)
      v = std::clamp<std::int32_t>(v + static_cast<std::int32_t>(rng() % 31) - 15, 0, 255);
  }
  return img;
}

}  // namespace splitmerge::testing
