// A program of another project that uses the installed package: segments a
// 16 x 16 image of two halves and prints the number of regions.
#include <splitmerge/splitmerge.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

int main() {
  std::vector<std::int32_t> pixels(16 * 16);
  for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = (i % 16) < 8 ? 40 : 200;
  splitmerge::image_view image{pixels.data(), 16, 16, 1};
  splitmerge::parameters p;
  p.small_size = 0;
  splitmerge::options o;
  o.display = false;
  const auto result = splitmerge::segment(image, p, o);
  if (result.status != splitmerge::status_ok) return 1;
  const auto regions = *std::max_element(result.labels.begin(), result.labels.end()) + 1;
  std::printf("%d regions\n", regions);
  return regions == 2 ? 0 : 1;
}
