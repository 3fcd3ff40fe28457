// Writes the benchmark images as int32 .npy files into one folder:
//   brain_slice.npy   axial slice z = 128 of the Colin27 brain, padded with 0 to 256 x 256
//   brain_crop.npy    the centre 128 x 128 x 128 of the volume
//   brain_volume.npy  the volume padded with 0 to 256 x 256 x 256
//   noise.npy         256 x 256 uniform noise 0..255
//   smooth.npy        256 x 256 smooth blob
//   noise_cube.npy    64 x 64 x 64 uniform noise 0..255
// Padding goes after the data along each axis, so voxel (x, y, z) of the
// brain keeps its coordinates.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include "grey_image.hpp"
#include "npy.hpp"

namespace {

using splitmerge::io::grey_image;

struct box {
  std::int64_t x0, y0, z0;  // first source voxel
  std::int64_t nx, ny, nz;  // output sizes
};

// Copies the box out of the volume; voxels outside the volume become 0.
std::vector<std::int32_t> cut(const grey_image& v, const box& b) {
  std::vector<std::int32_t> out(static_cast<std::size_t>(b.nx * b.ny * b.nz), 0);
  for (std::int64_t z = 0; z < b.nz; ++z)
    for (std::int64_t y = 0; y < b.ny; ++y)
      for (std::int64_t x = 0; x < b.nx; ++x) {
        const std::int64_t sx = b.x0 + x, sy = b.y0 + y, sz = b.z0 + z;
        if (sx < 0 || sy < 0 || sz < 0 || sx >= v.size_x || sy >= v.size_y || sz >= v.size_z)
          continue;
        const double value =
            v.values[static_cast<std::size_t>(sx + sy * v.size_x + sz * v.size_x * v.size_y)];
        out[static_cast<std::size_t>(x + y * b.nx + z * b.nx * b.ny)] =
            static_cast<std::int32_t>(std::lround(value));
      }
  return out;
}

// Uniform 0..255 from the top byte of a fixed Mersenne twister, the same on
// every platform (std::uniform_int_distribution is not).
std::vector<std::int32_t> noise(std::size_t count) {
  std::mt19937 generator(20240601u);
  std::vector<std::int32_t> out(count);
  for (auto& v : out) v = static_cast<std::int32_t>(generator() >> 24);
  return out;
}

// A wide Gaussian blob: grey values change by at most about one level per
// pixel, so most of the image passes the block test in large blocks.
std::vector<std::int32_t> smooth(std::int64_t n) {
  std::vector<std::int32_t> out(static_cast<std::size_t>(n * n));
  const double centre = static_cast<double>(n) / 2.0;
  const double width = 0.4 * static_cast<double>(n);
  for (std::int64_t y = 0; y < n; ++y)
    for (std::int64_t x = 0; x < n; ++x) {
      const double dx = static_cast<double>(x) - centre;
      const double dy = static_cast<double>(y) - centre;
      const double v = 40.0 + 120.0 * std::exp(-(dx * dx + dy * dy) / (2.0 * width * width));
      out[static_cast<std::size_t>(x + y * n)] = static_cast<std::int32_t>(std::lround(v));
    }
  return out;
}

void write(const std::string& folder, const std::string& name,
           const std::vector<std::int64_t>& shape, const std::vector<std::int32_t>& pixels) {
  splitmerge::io::write_npy_int32(folder + "/" + name, shape, pixels.data());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s BRAIN.nii.gz OUTPUT_FOLDER\n", argv[0]);
    return 2;
  }
  try {
    const grey_image brain = splitmerge::io::read_grey_image(argv[1]);
    const std::string out = argv[2];
    write(out, "brain_slice.npy", {256, 256}, cut(brain, {0, 0, 128, 256, 256, 1}));
    const box crop{(brain.size_x - 128) / 2,
                   (brain.size_y - 128) / 2,
                   (brain.size_z - 128) / 2,
                   128,
                   128,
                   128};
    write(out, "brain_crop.npy", {128, 128, 128}, cut(brain, crop));
    write(out, "brain_volume.npy", {256, 256, 256}, cut(brain, {0, 0, 0, 256, 256, 256}));
    write(out, "noise.npy", {256, 256}, noise(256 * 256));
    write(out, "smooth.npy", {256, 256}, smooth(256));
    write(out, "noise_cube.npy", {64, 64, 64}, noise(64 * 64 * 64));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
