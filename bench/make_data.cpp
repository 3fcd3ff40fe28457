// Writes the benchmark images as int32 .npy files into one folder:
//   brain_slice.npy   axial slice z = 128 of the Colin27 brain, padded with 0 to 256 x 256
//   brain_crop.npy    the centre 128 x 128 x 128 of the volume
//   brain_volume.npy  the volume padded with 0 to 256 x 256 x 256
//   noise.npy         256 x 256 uniform noise 0..255
//   smooth.npy        256 x 256 smooth blob
//   noise_cube.npy    64 x 64 x 64 uniform noise 0..255
// With --large also
//   ct_512x512x64.npy a CT-like stack: the head scaled by 512 / 217 on x and y
//                     (trilinear, centred, 0 around it) to 512 x 512 axial
//                     slices, 64 of them evenly spaced from the first slice
//                     to the last (about 2.8 mm apart at 0.42 mm pixels)
// and with --huge
//   brain_512.npy     512 x 512 x 512: the head scaled by 512 / 217 along
//                     every axis, centred
// Padding of the small images goes after the data along each axis, so voxel
// (x, y, z) of the brain keeps its coordinates.
#include <algorithm>
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

// The volume's voxels as doubles, x fastest, for the interpolation.
struct volume_values {
  std::int64_t size_x = 0, size_y = 0, size_z = 0;
  std::vector<double> values;
};

struct box {
  std::int64_t x0, y0, z0;  // first source voxel
  std::int64_t nx, ny, nz;  // output sizes
};

// Copies the box out of the volume; voxels outside the volume become 0.
std::vector<std::int32_t> cut(const volume_values& v, const box& b) {
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

// The volume at (x, y, z) in its own voxel coordinates, interpolated
// trilinearly; 0 outside it.
double sample(const volume_values& v, double x, double y, double z) {
  if (x < 0 || y < 0 || z < 0 || x > static_cast<double>(v.size_x - 1) ||
      y > static_cast<double>(v.size_y - 1) || z > static_cast<double>(v.size_z - 1))
    return 0.0;
  const auto x0 = std::min(static_cast<std::int64_t>(x), v.size_x - 2);
  const auto y0 = std::min(static_cast<std::int64_t>(y), v.size_y - 2);
  const auto z0 = std::min(static_cast<std::int64_t>(z), std::max<std::int64_t>(v.size_z - 2, 0));
  const double fx = x - static_cast<double>(x0), fy = y - static_cast<double>(y0),
               fz = z - static_cast<double>(z0);
  const auto at = [&](std::int64_t dx, std::int64_t dy, std::int64_t dz) {
    const std::int64_t zz = std::min(z0 + dz, v.size_z - 1);
    return v.values[static_cast<std::size_t>(x0 + dx + (y0 + dy) * v.size_x +
                                             zz * v.size_x * v.size_y)];
  };
  const auto plane = [&](std::int64_t dz) {
    const double near = at(0, 0, dz) * (1 - fx) + at(1, 0, dz) * fx;
    const double far = at(0, 1, dz) * (1 - fx) + at(1, 1, dz) * fx;
    return near * (1 - fy) + far * fy;
  };
  return plane(0) * (1 - fz) + plane(1) * fz;
}

// The volume scaled by the same factor on x and y so that its larger side
// fills `edge` pixels, centred; output slice k samples source slice
// source_z[k].
std::vector<std::int32_t> scaled(const volume_values& v, std::int64_t edge,
                                 const std::vector<double>& source_z) {
  const double scale =
      static_cast<double>(edge) / static_cast<double>(std::max(v.size_x, v.size_y));
  const double centre_out = (static_cast<double>(edge) - 1) / 2;
  const double centre_x = (static_cast<double>(v.size_x) - 1) / 2;
  const double centre_y = (static_cast<double>(v.size_y) - 1) / 2;
  std::vector<std::int32_t> out;
  out.reserve(static_cast<std::size_t>(edge * edge) * source_z.size());
  for (const double sz : source_z)
    for (std::int64_t y = 0; y < edge; ++y)
      for (std::int64_t x = 0; x < edge; ++x) {
        const double sx = (static_cast<double>(x) - centre_out) / scale + centre_x;
        const double sy = (static_cast<double>(y) - centre_out) / scale + centre_y;
        out.push_back(static_cast<std::int32_t>(std::lround(sample(v, sx, sy, sz))));
      }
  return out;
}

// 64 slices evenly spaced from the first source slice to the last.
std::vector<double> ct_slices(const volume_values& v) {
  std::vector<double> z(64);
  for (std::size_t k = 0; k < z.size(); ++k)
    z[k] = static_cast<double>(k) * static_cast<double>(v.size_z - 1) / 63.0;
  return z;
}

// Slices of an `edge`-cube scaled like x and y: 512 / 217 along z too, centred.
std::vector<double> cube_slices(const volume_values& v, std::int64_t edge) {
  const double scale =
      static_cast<double>(edge) / static_cast<double>(std::max(v.size_x, v.size_y));
  std::vector<double> z(static_cast<std::size_t>(edge));
  for (std::size_t k = 0; k < z.size(); ++k)
    z[k] = (static_cast<double>(k) - (static_cast<double>(edge) - 1) / 2) / scale +
           (static_cast<double>(v.size_z) - 1) / 2;
  return z;
}

void write(const std::string& folder, const std::string& name,
           const std::vector<std::int64_t>& shape, const std::vector<std::int32_t>& pixels) {
  splitmerge::io::write_npy_int32(folder + "/" + name, shape, pixels.data());
}

}  // namespace

int main(int argc, char** argv) {
  bool large = false, huge = false;
  for (int i = 3; i < argc; ++i) {
    const std::string flag = argv[i];
    large |= flag == "--large";
    huge |= flag == "--huge";
    if (flag != "--large" && flag != "--huge") argc = 0;  // falls into the usage line
  }
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s BRAIN.nii.gz OUTPUT_FOLDER [--large] [--huge]\n",
                 argc > 0 ? argv[0] : "bench_make_data");
    return 2;
  }
  try {
    const auto file = splitmerge::io::read_grey_image(argv[1]);
    const volume_values brain{file.size_x, file.size_y, file.size_z, file.values()};
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
    if (large)
      write(out, "ct_512x512x64.npy", {64, 512, 512}, scaled(brain, 512, ct_slices(brain)));
    if (huge)
      write(out, "brain_512.npy", {512, 512, 512}, scaled(brain, 512, cube_slices(brain, 512)));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
