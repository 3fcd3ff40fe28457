// Images beyond 256 pixels along an edge: 2-D images of up to 4096, volumes
// of up to 512, read, fitted and written as the smaller ones are, and region
// list files with codes of more than 32 bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "npy.hpp"
#include "png_file.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::run_tool;
using testing::scratch_folder;

// Rectangles of four greys with a little noise, x fastest.
std::vector<std::uint8_t> squares(std::int64_t size_x, std::int64_t size_y, std::int64_t slices) {
  std::vector<std::uint8_t> v(static_cast<std::size_t>(size_x * size_y * slices));
  std::uint32_t state = 11;
  for (std::int64_t z = 0; z < slices; ++z)
    for (std::int64_t y = 0; y < size_y; ++y)
      for (std::int64_t x = 0; x < size_x; ++x) {
        state = state * 1664525u + 1013904223u;
        const auto square = (x / 96 + 2 * (y / 80) + z) % 4;
        v[static_cast<std::size_t>((z * size_y + y) * size_x + x)] =
            static_cast<std::uint8_t>(40 + 50 * square + (state >> 30));
      }
  return v;
}

void write_npy_u8(const scratch_folder& dir, const std::string& name,
                  const std::vector<std::int64_t>& shape, const std::vector<std::uint8_t>& v) {
  testing::write_npy_raw(dir / name, "|u1", shape, false, testing::bytes_of(v));
}

io::npy_array read_npy(const scratch_folder& dir, const std::string& name) {
  return io::read_npy((dir / name).string());
}

// The block codes of every region in a region list file.
std::vector<std::vector<std::string>> region_codes(const std::string& text) {
  std::istringstream in(text);
  std::string line;
  for (int header = 0; header < 6; ++header) std::getline(in, line);
  std::vector<std::vector<std::string>> out;
  while (std::getline(in, line)) {  // the statistics
    out.emplace_back();
    while (std::getline(in, line) && line != "0") out.back().push_back(line);
    while (std::getline(in, line) && line != "-1") {
    }
  }
  return out;
}

TEST(LargeImages, PngOf512PixelsRunsWithoutFitAndItsCodesNameItsBlocks) {
  scratch_folder dir;
  const auto image = squares(512, 512, 1);
  io::write_png_grey((dir / "in.png").string(), 512, 512, image.data());
  const auto run = run_tool(dir, "in.png --quiet --labels l.png");
  ASSERT_EQ(run.status, 0) << run.err;
  int width = 0, height = 0;
  testing::read_png_rgb(dir / "l.png", width, height);
  EXPECT_EQ(width, 512);
  EXPECT_EQ(height, 512);

  ASSERT_EQ(run_tool(dir, "in.png --quiet --labels l.npy --regions r.txt --start-label 0").status,
            0);
  const auto labels = read_npy(dir, "l.npy");
  ASSERT_EQ(labels.shape, (std::vector<std::int64_t>{512, 512}));
  const auto text = testing::read_file(dir / "r.txt");
  EXPECT_EQ(text.rfind("512\n1\n2\n4.0000\n", 0), 0u);
  const auto regions = region_codes(text);
  ASSERT_GT(regions.size(), 1u);
  // A 2-D code: digit d + 1 at each level j from the block's level to 8,
  // bit 0 of d adding 2^j to x and bit 1 adding 2^j to y. Every block but
  // the whole image has a digit at level 8, beyond 32 bits.
  std::vector<int> covered(512 * 512, 0);
  for (std::size_t label = 0; label < regions.size(); ++label) {
    ASSERT_FALSE(regions[label].empty());
    for (const std::string& hex : regions[label]) {
      ASSERT_EQ(hex.size(), 9u) << hex;
      const std::uint64_t code = std::stoull(hex, nullptr, 16);
      int level = 0;
      while (((code >> (4 * level)) & 0xF) == 0) ++level;
      std::int64_t x = 0, y = 0;
      for (int j = level; j < 9; ++j) {
        const auto d = static_cast<std::int64_t>((code >> (4 * j)) & 0xF) - 1;
        x += (d & 1) << j;
        y += ((d >> 1) & 1) << j;
      }
      const std::int64_t side = std::int64_t{1} << level;
      for (std::int64_t row = y; row < y + side; ++row)
        for (std::int64_t column = x; column < x + side; ++column) {
          const auto i = static_cast<std::size_t>(row * 512 + column);
          ASSERT_EQ(labels.values[i], static_cast<std::int64_t>(label)) << hex;
          ++covered[i];
        }
    }
  }
  EXPECT_EQ(covered, std::vector<int>(512 * 512, 1));
}

TEST(LargeImages, PadOf300PixelsRunsAt512AndTheOutputsHaveTheInputsSize) {
  scratch_folder dir;
  const auto image = squares(300, 300, 1);
  write_npy_u8(dir, "in.npy", {300, 300}, image);
  const auto padded = run_tool(dir, "in.npy --fit pad --labels l.npy");
  ASSERT_EQ(padded.status, 0) << padded.err;
  EXPECT_EQ(padded.err,
            "splitmerge: padded 300 x 300 to 512 x 512 (centred) for the segmentation; the "
            "outputs are 300 x 300, as the input\n");
  const auto labels = read_npy(dir, "l.npy");
  ASSERT_EQ(labels.shape, (std::vector<std::int64_t>{300, 300}));

  // The labels are those of the padded run at the input's place (106..405).
  std::vector<std::uint8_t> whole_image(512 * 512, 0);
  for (int y = 0; y < 300; ++y)
    for (int x = 0; x < 300; ++x)
      whole_image[static_cast<std::size_t>((y + 106) * 512 + x + 106)] =
          image[static_cast<std::size_t>(y * 300 + x)];
  write_npy_u8(dir, "padded.npy", {512, 512}, whole_image);
  ASSERT_EQ(run_tool(dir, "padded.npy --quiet --labels pl.npy").status, 0);
  const auto whole = read_npy(dir, "pl.npy");
  std::vector<std::int64_t> cut;
  for (int y = 106; y < 406; ++y)
    for (int x = 106; x < 406; ++x)
      cut.push_back(whole.values[static_cast<std::size_t>(y * 512 + x)]);
  EXPECT_EQ(labels.values, cut);
}

TEST(LargeImages, CropKeepsTheLargestPowerOfTwoAbove256) {
  scratch_folder dir;
  write_npy_u8(dir, "small.npy", {520, 600}, squares(600, 520, 1));
  const auto small = run_tool(dir, "small.npy --fit crop --labels s.npy");
  ASSERT_EQ(small.status, 0) << small.err;
  EXPECT_EQ(small.err,
            "splitmerge: cropped 600 x 520 to 512 x 512 (centred), keeping x 44..555, y 4..515; "
            "the outputs are 600 x 520, as the input, with label 0 outside the part kept\n");
  EXPECT_EQ(read_npy(dir, "s.npy").shape, (std::vector<std::int64_t>{520, 600}));
}

// About 4 s in a release build: 20 million pixels read, 16 million segmented.
TEST(LargeImages, CropKeepsAt4096PixelsAlongAnEdge) {
#if defined(SPLITMERGE_SANITIZED)
  GTEST_SKIP() << "too slow under the sanitizers; the 512-pixel crop covers the rule";
#endif
  scratch_folder dir;
  write_npy_u8(dir, "in.npy", {4100, 5000}, squares(5000, 4100, 1));
  const auto run = run_tool(dir, "in.npy --fit crop --labels l.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "splitmerge: cropped 5000 x 4100 to 4096 x 4096 (centred), keeping x 452..4547, "
            "y 2..4097; the outputs are 5000 x 4100, as the input, with label 0 outside the part "
            "kept\n");
  EXPECT_EQ(read_npy(dir, "l.npy").shape, (std::vector<std::int64_t>{4100, 5000}));
}

TEST(LargeImages, VolumesPadAndCropToAt512PixelsAlongAnEdge) {
  scratch_folder dir;
  write_npy_u8(dir, "in.npy", {3, 300, 300}, squares(300, 300, 3));
  const auto padded = run_tool(dir, "in.npy --fit pad --labels l.npy");
  ASSERT_EQ(padded.status, 0) << padded.err;
  EXPECT_EQ(padded.err,
            "splitmerge: padded 300 x 300 x 3 to 512 x 512 x 4 (centred) for the segmentation; "
            "the outputs are 300 x 300 x 3, as the input\n");
  EXPECT_EQ(read_npy(dir, "l.npy").shape, (std::vector<std::int64_t>{3, 300, 300}));

  // A crop of a volume stops at 512; one slice of it is a 2-D image, which may
  // be padded beyond.
  write_npy_u8(dir, "wide.npy", {2, 600, 600}, squares(600, 600, 2));
  const auto cropped = run_tool(dir, "wide.npy --fit crop --labels c.npy");
  ASSERT_EQ(cropped.status, 0) << cropped.err;
  EXPECT_EQ(read_npy(dir, "c.npy").shape, (std::vector<std::int64_t>{2, 600, 600}));
  const auto slice = run_tool(dir, "wide.npy --slice 1 --fit pad --labels s.npy --frames f.gif");
  ASSERT_EQ(slice.status, 0) << slice.err;
  EXPECT_EQ(slice.err,
            "splitmerge: padded 600 x 600 to 1024 x 1024 (centred) for the segmentation; the "
            "outputs are 600 x 600, as the input\n");
  EXPECT_EQ(read_npy(dir, "s.npy").shape, (std::vector<std::int64_t>{600, 600}));
  EXPECT_EQ(testing::read_gif(dir / "f.gif").width, 600);
}

// A frames file that may outgrow its file system is refused before the run,
// with the --frames-every that fits. The 4096 x 4096 input is a sparse file:
// mapped, never read.
TEST(LargeImages, FramesThatMayNotFitTheirDiskAreRefusedBeforeTheRun) {
  scratch_folder dir;
  if (std::filesystem::space(dir.path()).available > (std::uint64_t{1} << 42))
    GTEST_SKIP() << "more than the 4.4 TiB the frames may take is free";
  testing::write_npy_raw(dir / "in.npy", "|u1", {4096, 4096}, false, "");
  std::filesystem::resize_file(dir / "in.npy",
                               std::filesystem::file_size(dir / "in.npy") + 4096 * 4096);
  const auto run = run_tool(dir, "in.npy --frames f.npy");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("splitmerge: --frames f.npy may take up to "), std::string::npos);
  EXPECT_NE(run.err.find("free: keep fewer frames with --frames-every "), std::string::npos)
      << run.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "f.npy"));
}

}  // namespace
}  // namespace splitmerge::tool
