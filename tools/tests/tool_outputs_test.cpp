// What the program writes: every output format against the .npy results, and
// the notes and saved input of --fit, --slice and --rescale (that the labels
// equal those of the Python front end is python/tests/test_interfaces.py).
#include <gtest/gtest.h>

#include <png.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "frame_stream.hpp"
#include "grey_image.hpp"
#include "npy.hpp"
#include "palette.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::bytes_of;
using testing::run_tool;
using testing::scratch_folder;

io::npy_array read_npy(const scratch_folder& dir, const std::string& name) {
  return io::read_npy((dir / name).string());
}

// The picture's pixels as palette colours or grey levels, RGB by RGB.
std::vector<std::uint8_t> palette_rgb(const std::vector<std::int64_t>& labels) {
  std::vector<std::uint8_t> rgb;
  for (const auto label : labels) {
    const io::rgb c = palette_colour(label);
    rgb.insert(rgb.end(), {c.r, c.g, c.b});
  }
  return rgb;
}

TEST(Outputs, EveryFormatShowsTheSameLabelsAndFrames) {
  scratch_folder dir;
  testing::write_noise(dir / "in.npy", {32, 32});
  const auto image = read_npy(dir, "in.npy").values;
  const std::string run = "in.npy --quiet --labels ";
  ASSERT_EQ(run_tool(dir, run + "l.npy --overlay o.png --frames f.npy").status, 0);
  for (const char* labels : {"l.tif --frames f.gif", "l.png"})
    ASSERT_EQ(run_tool(dir, run + labels).status, 0);
  const auto npy = read_npy(dir, "l.npy");
  ASSERT_EQ(npy.shape, (std::vector<std::int64_t>{32, 32}));
  ASSERT_GE(*std::max_element(npy.values.begin(), npy.values.end()), 2);
  EXPECT_EQ(io::read_grey_image((dir / "l.tif").string()).values(),
            std::vector<double>(npy.values.begin(), npy.values.end()));
  int width = 0, height = 0;
  EXPECT_EQ(testing::read_png_rgb(dir / "l.png", width, height), palette_rgb(npy.values));
  EXPECT_EQ(std::make_pair(width, height), std::make_pair(32, 32));
  // The overlay draws yellow where the right or lower neighbour has another label.
  const auto overlay = testing::read_png_rgb(dir / "o.png", width, height);
  for (std::size_t i = 0; i < 32 * 32; ++i) {
    const bool border = (i % 32 < 31 && npy.values[i] != npy.values[i + 1]) ||
                        (i < 31 * 32 && npy.values[i] != npy.values[i + 32]);
    const auto g = static_cast<std::uint8_t>(image[i]);
    const auto expected = border ? std::vector<std::uint8_t>{255, 255, 0} : std::vector{g, g, g};
    EXPECT_EQ(std::vector<std::uint8_t>(overlay.begin() + 3 * i, overlay.begin() + 3 * i + 3),
              expected)
        << "pixel " << i;
  }
  // The animation: the frames through the palette, each change a GIF frame.
  const auto frames = read_npy(dir, "f.npy");
  std::vector<std::vector<std::uint8_t>> expected;
  for (std::int64_t f = 0; f < frames.shape.at(0); ++f) {
    std::vector<std::uint8_t> frame(1024);
    for (std::size_t i = 0; i < 1024; ++i)
      frame[i] = palette_index(frames.values[static_cast<std::size_t>(f) * 1024 + i]);
    if (expected.empty() || expected.back() != frame) expected.push_back(frame);
  }
  const auto gif = testing::read_gif(dir / "f.gif");
  EXPECT_EQ(gif.width, 32);
  EXPECT_EQ(gif.frames, expected);
  EXPECT_TRUE(gif.loops_forever);
  EXPECT_EQ(gif.delays_cs.back(), 300);
  for (std::size_t i = 0; i < 256; ++i) {
    const io::rgb c = indexed_palette()[i];
    EXPECT_EQ(gif.palette[i], (std::array<std::uint8_t, 3>{c.r, c.g, c.b})) << i;
  }
}

// --frames-every N keeps frames 0, N, 2N, ... and always the last; the
// file's bound names the smallest N whose frames fit a given room.
TEST(Outputs, FramesEveryKeepsEveryNthFrameAndTheLast) {
  scratch_folder dir;
  testing::write_noise(dir / "in.npy", {64, 64});  // many blocks: a frame every 1001 of them
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --frames all.npy").status, 0);
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --frames f.npy --frames-every 3").status, 0);
  const auto all = read_npy(dir, "all.npy");
  const std::int64_t count = all.shape[0], size = 64 * 64;
  ASSERT_GE(count, 5);
  std::vector<std::int64_t> expected;
  for (std::int64_t f = 0; f < count; ++f)
    if (f % 3 == 0 || f == count - 1)
      expected.insert(expected.end(), all.values.begin() + f * size,
                      all.values.begin() + (f + 1) * size);
  EXPECT_EQ(read_npy(dir, "f.npy").values, expected);

  const frame_file_bound b{100, 1000, 50};  // header, bytes a frame, frames at most
  EXPECT_EQ(b.bytes(1), 51100u);
  EXPECT_EQ(b.bytes(10), 6100u);  // frames 0, 10, ..., 40 and the last
  EXPECT_EQ(b.every_within(6100), 10);
  EXPECT_EQ(b.every_within(6099), 13);
  EXPECT_EQ(b.every_within(2099), 0);  // not even the first and the last
}

TEST(Outputs, PicturesOfAVolumeShowItsMiddleSliceAndCopiesTheWholeInput) {
  scratch_folder dir;
  testing::write_noise(dir / "in.npy", {4, 8, 8});
  const auto image = read_npy(dir, "in.npy").values;
  const auto run =
      run_tool(dir, "in.npy --labels l.png --frames f.gif --save-input s.png --regions sub.txt");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "splitmerge: the frame animation shows slice 2 of 4 (z)\n"
            "splitmerge: the label picture shows slice 2 of 4 (z)\n"
            "splitmerge: the input picture shows slice 2 of 4 (z)\n");
  EXPECT_NE(run.out.find("finished make_output \nfile = sub.txt \nfinished save_regionlist \n"),
            std::string::npos)
      << run.out;
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --labels l.npy --save-input s.tif").status, 0);
  const auto labels = read_npy(dir, "l.npy").values;
  int width = 0, height = 0;
  EXPECT_EQ(testing::read_png_rgb(dir / "l.png", width, height),
            palette_rgb({labels.begin() + 128, labels.begin() + 192}));
  const std::vector<double> middle(image.begin() + 128, image.begin() + 192);
  EXPECT_EQ(io::read_grey_image((dir / "s.png").string()).values(), middle);
  const auto copy = io::read_grey_image((dir / "s.tif").string());
  EXPECT_EQ(copy.values(), std::vector<double>(image.begin(), image.end()));
  EXPECT_EQ(copy.size_z, 4);
}

// Beyond 256 pixels along an edge the block codes of the region list file
// take more than 32 bits: digit d + 1 at each level j from the block's level
// to 8, bit 0 of d adding 2^j to x, bit 1 to y. The codes of each region
// cover its pixels, every pixel once.
TEST(Outputs, RegionCodesOfA512ImageNameTheBlocksOfEachLabel) {
  scratch_folder dir;
  std::vector<std::int32_t> image(512 * 512);
  for (std::size_t i = 0; i < image.size(); ++i)
    image[i] = static_cast<std::int32_t>(40 + 50 * ((i % 512 / 96 + 2 * (i / 512 / 80)) % 4) +
                                         (i * 2654435761u >> 30) % 4);
  io::write_npy_int32((dir / "in.npy").string(), {512, 512}, image.data());
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --labels l.npy --regions r.txt --start-label 0").status,
            0);
  const auto labels = read_npy(dir, "l.npy").values;
  std::istringstream text(testing::read_file(dir / "r.txt"));
  std::string line;
  for (int header = 0; header < 6; ++header) std::getline(text, line);
  std::vector<int> covered(512 * 512, 0);
  std::int64_t label = 0;
  for (; std::getline(text, line); ++label) {  // the statistics, codes, 0, neighbours, -1
    while (std::getline(text, line) && line != "0") {
      ASSERT_EQ(line.size(), 9u) << line;
      const std::uint64_t code = std::stoull(line, nullptr, 16);
      int level = 0;
      while (((code >> (4 * level)) & 0xF) == 0) ++level;
      std::size_t x = 0, y = 0;
      for (int j = level; j < 9; ++j) {
        const auto d = ((code >> (4 * j)) & 0xF) - 1;
        x += (d & 1) << j;
        y += ((d >> 1) & 1) << j;
      }
      for (std::size_t row = y; row < y + (std::size_t{1} << level); ++row)
        for (std::size_t column = x; column < x + (std::size_t{1} << level); ++column) {
          ASSERT_EQ(labels[row * 512 + column], label) << line;
          ++covered[row * 512 + column];
        }
    }
    while (std::getline(text, line) && line != "-1") {
    }
  }
  EXPECT_GT(label, 1);
  EXPECT_EQ(covered, std::vector<int>(512 * 512, 1));
}

struct fitting_case {
  std::string name;
  std::function<void(const scratch_folder&)> make;
  std::string arguments;
  std::string notes;                    // standard error
  std::vector<std::int64_t> shape;      // of the labels
  std::vector<std::int64_t> segmented;  // the saved input
};

std::ostream& operator<<(std::ostream& os, const fitting_case& c) { return os << c.name; }

// X = 3, Y = 5 of 1..15; X = 7, Y = 6, Z = 3 of i % 251.
std::vector<std::int32_t> counting(std::size_t n, std::int32_t from, std::int32_t modulo) {
  std::vector<std::int32_t> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = (static_cast<std::int32_t>(i) + from) % modulo;
  return v;
}

const std::vector<fitting_case> fitting_cases = {
    {"Pad",
     [](const scratch_folder& d) {
       io::write_npy_int32((d / "in.npy").string(), {5, 3}, counting(15, 1, 256).data());
     },
     "in.npy --fit pad",
     "splitmerge: padded 3 x 5 to 8 x 8 (centred) for the segmentation; the outputs are 3 x 5, "
     "as the input\n",
     {5, 3},
     {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
    // The image as segmented lies where it was, 0 outside the box.
    {"Crop",
     [](const scratch_folder& d) {
       io::write_npy_int32((d / "in.npy").string(), {3, 6, 7}, counting(126, 0, 251).data());
     },
     "in.npy --fit crop",
     "splitmerge: cropped 7 x 6 x 3 to 4 x 4 x 2 (centred), keeping x 1..4, y 1..4, z 0..1; the "
     "outputs are 7 x 6 x 3, as the input, with label 0 outside the part kept\n",
     {3, 6, 7},
     [] {
       std::vector<std::int64_t> v(126, 0);
       for (int z = 0; z < 2; ++z)
         for (int y = 1; y < 5; ++y)
           for (int x = 1; x < 5; ++x)
             v[static_cast<std::size_t>((z * 6 + y) * 7 + x)] = (z * 6 + y) * 7 + x;
       return v;
     }()},
    // (v + 1) * 255 / 4, rounded: 0, 63.75, 95.625, 255.
    {"Rescale",
     [](const scratch_folder& d) {
       testing::write_nifti(d / "in.nii", 2, 2, 1, testing::nifti_float32,
                            bytes_of(std::vector<float>{-1.0f, 0.0f, 0.5f, 3.0f}));
     },
     "in.nii --rescale",
     "splitmerge: rescaled the values -1..3 to 0..255\n",
     {2, 2},
     {0, 64, 96, 255}},
    {"ColourPng",
     [](const scratch_folder& d) {
       const std::vector<std::uint16_t> rgba = {255, 0, 0, 255, 255, 0, 0, 255,
                                                255, 0, 0, 255, 255, 0, 0, 255};
       testing::write_png_samples(d / "in.png", 2, 2, 8, PNG_COLOR_TYPE_RGB_ALPHA, rgba, 0, false);
     },
     "in.png",
     "splitmerge: in.png is a colour PNG: segmenting its luma (0.299 R + 0.587 G + 0.114 B); "
     "in.png has an alpha channel, which is ignored\n",
     {2, 2},
     {76, 76, 76, 76}},
};

class Fitting : public ::testing::TestWithParam<fitting_case> {};

// The note on standard error, and what was segmented (--save-input).
TEST_P(Fitting, SaysWhatItDidAndKeepsTheInputsShape) {
  const fitting_case& c = GetParam();
  scratch_folder dir;
  c.make(dir);
  const auto run = run_tool(dir, c.arguments + " --save-input s.npy --labels l.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, c.notes);
  EXPECT_EQ(read_npy(dir, "s.npy").values, c.segmented);
  EXPECT_EQ(read_npy(dir, "l.npy").shape, c.shape);
  const auto quiet = run_tool(dir, c.arguments + " --quiet --labels q.npy");
  EXPECT_EQ(quiet.out + quiet.err, "");
  EXPECT_EQ(testing::read_file(dir / "q.npy"), testing::read_file(dir / "l.npy"));
}

INSTANTIATE_TEST_SUITE_P(Tool, Fitting, ::testing::ValuesIn(fitting_cases),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace splitmerge::tool
