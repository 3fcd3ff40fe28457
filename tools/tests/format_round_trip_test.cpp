// The readers on what other programs write: .npy orders and byte orders,
// plain and 16-bit PGM, NIfTI volumes; and the palette. (The other formats:
// file_handling_test; TIFF pages and compressed NIfTI: python/tests/test_io.py
// and test_interfaces.py against independent readers.)
#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

#include "grey_image.hpp"
#include "npy.hpp"
#include "palette.hpp"
#include "pgm_file.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::bytes_of;
using testing::scratch_folder;

std::vector<double> as_doubles(const std::vector<std::int32_t>& v) { return {v.begin(), v.end()}; }

// 0..n-1 scrambled, so that a transposed or reversed read cannot pass.
std::vector<std::int32_t> pattern(std::size_t n, std::int32_t modulo) {
  std::vector<std::int32_t> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::int32_t>((i * 37 + i / 3) % modulo);
  return v;
}

// The size, and the pixel type the file stores (held as it is, not widened).
void expect_size(const io::grey_image& image, std::int64_t x, std::int64_t y, std::int64_t z,
                 int dimensions, io::pixel_type type) {
  EXPECT_EQ(std::tuple(image.type, image.size_x, image.size_y, image.size_z, image.dimensions),
            std::tuple(type, x, y, z, dimensions));
}

TEST(NpyFormat, ReadsIntegerDtypesInBothOrders) {
  scratch_folder dir;
  const auto values = pattern(2 * 3 * 4, 256);  // (Z, Y, X) = (2, 3, 4)
  io::write_npy_int32((dir / "c.npy").string(), {2, 3, 4}, values.data());
  const auto c = io::read_grey_image((dir / "c.npy").string());
  expect_size(c, 4, 3, 2, 3, io::pixel_type::int32);
  EXPECT_EQ(c.values(), as_doubles(values));

  // The same array in Fortran order: element (z, y, x) stored at z + 2 y + 6 x.
  std::vector<std::uint8_t> fortran(values.size());
  for (int z = 0; z < 2; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 4; ++x)
        fortran[static_cast<std::size_t>(z + 2 * y + 6 * x)] =
            static_cast<std::uint8_t>(values[static_cast<std::size_t>(x + 4 * y + 12 * z)]);
  testing::write_npy_raw(dir / "f.npy", "|u1", {2, 3, 4}, true, bytes_of(fortran));
  EXPECT_EQ(io::read_grey_image((dir / "f.npy").string()).values(), as_doubles(values));

  const std::vector<std::int16_t> big = {static_cast<std::int16_t>(0x0100), 0x0200};  // 1, 2
  testing::write_npy_raw(dir / "b.npy", ">i2", {1, 2}, false, bytes_of(big));
  const auto b = io::read_grey_image((dir / "b.npy").string());
  expect_size(b, 2, 1, 1, 2, io::pixel_type::int16);
  EXPECT_EQ(b.values(), (std::vector<double>{1, 2}));
}

TEST(PgmFormat, BinaryAndPlainMapsOfEightAndSixteenBits) {
  scratch_folder dir;
  const auto values = pattern(4 * 6, 256);
  const std::vector<std::uint8_t> grey(values.begin(), values.end());
  io::write_pgm((dir / "g.pgm").string(), 4, 6, grey.data());
  const auto g = io::read_grey_image((dir / "g.pgm").string());
  expect_size(g, 4, 6, 1, 2, io::pixel_type::uint8);
  EXPECT_EQ(g.values(), as_doubles(values));

  EXPECT_EQ(io::parse_pgm("P2\n# a comment\n3 1\n300\n0 299\n300\n", "plain").values(),
            (std::vector<double>{0, 299, 300}));
  const auto deep = io::parse_pgm(std::string("P5 2 1 1000\n\x03\xE8\x00\x07", 16), "deep");
  expect_size(deep, 2, 1, 1, 2, io::pixel_type::uint16);
  EXPECT_EQ(deep.values(), (std::vector<double>{1000, 7}));
  EXPECT_THROW(io::parse_pgm("P5 4 4 255\n\x01\x02", "short"), io::io_error);
  EXPECT_THROW(io::parse_pgm("P6 1 1 255\n\x01\x02\x03", "colour"), io::io_error);
}

TEST(NiftiFormat, VolumesOfIntegersAndScaledFloatsWithXFastest) {
  scratch_folder dir;
  const auto values = pattern(4 * 3 * 2, 256);
  const std::vector<std::uint8_t> bytes(values.begin(), values.end());
  testing::write_nifti(dir / "u8.nii", 4, 3, 2, testing::nifti_uint8, bytes_of(bytes));
  const auto u8 = io::read_grey_image((dir / "u8.nii").string());
  expect_size(u8, 4, 3, 2, 3, io::pixel_type::uint8);
  EXPECT_EQ(u8.values(), as_doubles(values));

  const std::vector<float> real = {0.0f, 1.5f, 2.0f, 4.0f};
  testing::write_nifti(dir / "f32.NII", 2, 2, 1, testing::nifti_float32, bytes_of(real), 2.0f,
                       10.0f);
  const auto f32 = io::read_grey_image((dir / "f32.NII").string());
  expect_size(f32, 2, 2, 1, 2, io::pixel_type::float32);
  EXPECT_EQ(f32.values(), (std::vector<double>{10, 13, 14, 18}));
}

TEST(Palette, ColoursAreFixedAndDistinct) {
  // Label 0 (often the background) is visible on a black screen, and every
  // value has the colour the animations give it.
  EXPECT_EQ(palette_colour(0), (io::rgb{64, 64, 64}));
  for (std::int64_t v = -3; v < 2000; ++v)
    EXPECT_EQ(palette_colour(v), indexed_palette()[palette_index(v)]) << v;
  // Neighbouring labels must not look alike: at least 60 apart in some channel.
  for (std::int64_t v = 1; v < 1000; ++v) {
    const io::rgb a = palette_colour(v), b = palette_colour(v + 1);
    const int spread = std::max({std::abs(a.r - b.r), std::abs(a.g - b.g), std::abs(a.b - b.b)});
    EXPECT_GE(spread, 60) << "labels " << v << " and " << v + 1;
    EXPECT_NE(a, palette_colour(0)) << "label " << v << " looks like label 0";
    EXPECT_NE(a, (io::rgb{0, 0, 0})) << "label " << v << " is black";
  }
  for (std::size_t i = 0; i < 256; ++i)
    for (std::size_t j = 0; j < i; ++j)
      EXPECT_NE(indexed_palette()[i], indexed_palette()[j]) << i << " and " << j;
  EXPECT_EQ(palette_index(255), 255);
  EXPECT_EQ(palette_index(256), 2);
  EXPECT_EQ(palette_index(509), 1);
}

}  // namespace
}  // namespace splitmerge::tool
