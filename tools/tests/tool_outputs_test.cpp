// What the program writes: every output format against the .npy results, and
// how --fit, --slice and --rescale change the image that is segmented.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "frame_stream.hpp"
#include "grey_image.hpp"
#include "npy.hpp"
#include "palette.hpp"
#include "pgm_file.hpp"
#include "png_file.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::bytes_of;
using testing::run_tool;
using testing::scratch_folder;

// Blobs of different grey on a noisy background: a few regions of every size.
std::vector<std::int32_t> blobs(int size, int slices) {
  std::vector<std::int32_t> v(static_cast<std::size_t>(size) * size * slices);
  std::uint32_t state = 7;
  for (int z = 0; z < slices; ++z)
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x) {
        state = state * 1664525u + 1013904223u;
        const int noise = static_cast<int>(state >> 29);  // 0..7
        int grey = 60;
        if (x < size / 2 && y < size / 2) grey = 150;
        if ((x - 3 * size / 4) * (x - 3 * size / 4) + (y - size / 4) * (y - size / 4) < size)
          grey = 230;
        if (z > slices / 2 && y > size / 2) grey = 20;
        v[static_cast<std::size_t>((z * size + y) * size + x)] = grey + noise;
      }
  return v;
}

std::vector<std::int32_t> as_int32(const std::vector<std::int64_t>& v) {
  return {v.begin(), v.end()};
}

std::vector<double> as_doubles(const std::vector<std::int32_t>& v) { return {v.begin(), v.end()}; }

io::npy_array read_npy(const scratch_folder& dir, const std::string& name) {
  return io::read_npy((dir / name).string());
}

TEST(Outputs, LabelsAreTheSameInEveryFormat) {
  scratch_folder dir;
  const auto image = blobs(32, 1);
  io::write_npy_int32((dir / "in.npy").string(), {32, 32}, image.data());
  for (const char* labels : {"l.npy", "l.tif", "l.png"})
    ASSERT_EQ(run_tool(dir, std::string("in.npy --quiet --labels ") + labels).status, 0);
  const auto npy = read_npy(dir, "l.npy");
  ASSERT_EQ(npy.shape, (std::vector<std::int64_t>{32, 32}));
  ASSERT_GE(*std::max_element(npy.values.begin(), npy.values.end()), 2);

  const auto tif = io::read_grey_image((dir / "l.tif").string());
  EXPECT_EQ(tif.values(), std::vector<double>(npy.values.begin(), npy.values.end()));

  int width = 0, height = 0;
  const auto rgb = testing::read_png_rgb(dir / "l.png", width, height);
  EXPECT_EQ(width, 32);
  EXPECT_EQ(height, 32);
  std::vector<std::uint8_t> expected;
  for (const auto label : npy.values) {
    const io::rgb c = palette_colour(label);
    expected.push_back(c.r);
    expected.push_back(c.g);
    expected.push_back(c.b);
  }
  EXPECT_EQ(rgb, expected);
}

// --frames-every N keeps frames 0, N, 2N, ... and always the last; the
// file's bound names the smallest N whose frames fit a given room.
TEST(Outputs, FramesEveryKeepsEveryNthFrameAndTheLast) {
  scratch_folder dir;
  std::vector<std::int32_t> noise(64 * 64);  // many blocks: a frame every 1001 of them
  std::uint32_t state = 5;
  for (auto& v : noise)
    v = static_cast<std::int32_t>((state = state * 1664525u + 1013904223u) >> 24);
  io::write_npy_int32((dir / "in.npy").string(), {64, 64}, noise.data());
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

TEST(Outputs, GifAnimatesTheFramesThroughThePalette) {
  scratch_folder dir;
  const auto image = blobs(16, 1);
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, image.data());
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --frames f.npy").status, 0);
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --frames f.gif").status, 0);
  const auto frames = read_npy(dir, "f.npy");
  ASSERT_EQ(frames.shape.size(), 3u);
  std::vector<std::vector<std::uint8_t>> expected;
  for (std::int64_t f = 0; f < frames.shape[0]; ++f) {
    std::vector<std::uint8_t> frame(256);
    for (std::size_t i = 0; i < 256; ++i)
      frame[i] = palette_index(frames.values[static_cast<std::size_t>(f) * 256 + i]);
    if (expected.empty() || expected.back() != frame) expected.push_back(frame);
  }
  const auto gif = testing::read_gif(dir / "f.gif");
  EXPECT_EQ(gif.width, 16);
  EXPECT_EQ(gif.frames, expected);
  EXPECT_TRUE(gif.loops_forever);
  ASSERT_FALSE(gif.delays_cs.empty());
  EXPECT_EQ(gif.delays_cs.back(), 300);
}

TEST(Outputs, PicturesOfAVolumeShowItsMiddleSlice) {
  scratch_folder dir;
  const auto image = blobs(8, 4);
  io::write_npy_int32((dir / "in.npy").string(), {4, 8, 8}, image.data());
  const auto run = run_tool(dir, "in.npy --labels l.png --frames f.gif --save-input s.png");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "splitmerge: the frame animation shows slice 2 of 4 (z)\n"
            "splitmerge: the label picture shows slice 2 of 4 (z)\n"
            "splitmerge: the input picture shows slice 2 of 4 (z)\n");
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --labels l.npy").status, 0);
  const auto labels = read_npy(dir, "l.npy");
  ASSERT_EQ(labels.shape, (std::vector<std::int64_t>{4, 8, 8}));
  int width = 0, height = 0;
  const auto rgb = testing::read_png_rgb(dir / "l.png", width, height);
  ASSERT_EQ(rgb.size(), 8u * 8u * 3u);
  for (std::size_t i = 0; i < 64; ++i) {
    const io::rgb c = palette_colour(labels.values[2 * 64 + i]);
    EXPECT_EQ((std::vector<std::uint8_t>{rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]}),
              (std::vector<std::uint8_t>{c.r, c.g, c.b}))
        << "pixel " << i;
  }
  const auto input = io::read_grey_image((dir / "s.png").string());
  EXPECT_EQ(input.values(), as_doubles({image.begin() + 128, image.begin() + 192}));
}

TEST(Outputs, SavedInputInEveryFormat) {
  scratch_folder dir;
  const auto image = blobs(8, 2);
  io::write_npy_int32((dir / "in.npy").string(), {2, 8, 8}, image.data());
  for (const char* copy : {"s.npy", "s.tif"}) {
    ASSERT_EQ(run_tool(dir, std::string("in.npy --quiet --save-input ") + copy).status, 0);
    const auto saved = io::read_grey_image((dir / copy).string());
    EXPECT_EQ(saved.values(), as_doubles(image)) << copy;
    EXPECT_EQ(saved.size_z, 2) << copy;
  }
  const std::vector<std::int32_t> middle(image.begin() + 64, image.end());
  for (const char* copy : {"s.png", "s.pgm"}) {
    ASSERT_EQ(run_tool(dir, std::string("in.npy --quiet --save-input ") + copy).status, 0);
    EXPECT_EQ(io::read_grey_image((dir / copy).string()).values(), as_doubles(middle)) << copy;
  }
}

TEST(Outputs, ProgressLinesAndTheRegionFileName) {
  scratch_folder dir;
  const auto image = blobs(16, 1);
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, image.data());
  std::filesystem::create_directory(dir / "sub");
  const auto loud = run_tool(dir, "in.npy --regions sub/r.txt");
  ASSERT_EQ(loud.status, 0) << loud.err;
  EXPECT_NE(loud.out.find("finished make_output \nfile = sub/r.txt \nfinished save_regionlist \n"),
            std::string::npos)
      << loud.out;
  EXPECT_EQ(loud.err, "");
  EXPECT_FALSE(testing::read_file(dir / "sub/r.txt").empty());
  EXPECT_EQ(dir.file_names(), (std::vector<std::string>{"in.npy", "sub"}));

  const auto quiet = run_tool(dir, "in.npy --quiet --labels l.npy");
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(dir.file_names(), (std::vector<std::string>{"in.npy", "l.npy", "sub"}));
}

TEST(Fitting, PadSegmentsInZerosAndTheOutputsHaveTheInputsSize) {
  scratch_folder dir;
  std::vector<std::int32_t> image(3 * 5);  // X = 3, Y = 5
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::int32_t>(i + 1);
  io::write_npy_int32((dir / "in.npy").string(), {5, 3}, image.data());
  const auto padded =
      run_tool(dir, "in.npy --fit pad --save-input s.npy --labels l.npy --frames f.npy");
  ASSERT_EQ(padded.status, 0) << padded.err;
  EXPECT_EQ(padded.err,
            "splitmerge: padded 3 x 5 to 8 x 8 (centred) for the segmentation; the outputs are 3 "
            "x 5, as the input\n");
  const auto saved = read_npy(dir, "s.npy");
  ASSERT_EQ(saved.shape, (std::vector<std::int64_t>{5, 3}));
  EXPECT_EQ(as_int32(saved.values), image);
  EXPECT_EQ(read_npy(dir, "l.npy").shape, (std::vector<std::int64_t>{5, 3}));
  EXPECT_EQ(read_npy(dir, "f.npy").shape[1], 5);
  EXPECT_EQ(read_npy(dir, "f.npy").shape[2], 3);

  // The labels are those of the padded run, cut at the input's place (x 2..4, y 1..5).
  std::vector<std::int32_t> padded_image(64, 0);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 3; ++x)
      padded_image[static_cast<std::size_t>((y + 1) * 8 + x + 2)] =
          image[static_cast<std::size_t>(y * 3 + x)];
  io::write_npy_int32((dir / "padded.npy").string(), {8, 8}, padded_image.data());
  ASSERT_EQ(run_tool(dir, "padded.npy --quiet --labels pl.npy").status, 0);
  const auto whole = read_npy(dir, "pl.npy");
  std::vector<std::int64_t> cut;
  for (int y = 1; y < 6; ++y)
    for (int x = 2; x < 5; ++x) cut.push_back(whole.values[static_cast<std::size_t>(y * 8 + x)]);
  EXPECT_EQ(read_npy(dir, "l.npy").values, cut);
}

TEST(Fitting, PadRaisesTheSlicesToAPowerOfTwo) {
  scratch_folder dir;
  const std::vector<std::int32_t> image(4 * 4 * 3, 9);
  io::write_npy_int32((dir / "in.npy").string(), {3, 4, 4}, image.data());
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --fit pad --save-input s.npy --labels l.npy").status, 0);
  EXPECT_EQ(read_npy(dir, "s.npy").shape, (std::vector<std::int64_t>{3, 4, 4}));
  EXPECT_EQ(as_int32(read_npy(dir, "s.npy").values), image);
  EXPECT_EQ(read_npy(dir, "l.npy").shape, (std::vector<std::int64_t>{3, 4, 4}));
}

TEST(Fitting, CropKeepsTheCentreAndTheInputsShape) {
  scratch_folder dir;
  std::vector<std::int32_t> image(7 * 6 * 3);  // X = 7, Y = 6, Z = 3
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::int32_t>(i % 251);
  io::write_npy_int32((dir / "in.npy").string(), {3, 6, 7}, image.data());
  const auto run = run_tool(dir, "in.npy --fit crop --save-input s.npy --labels l.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "splitmerge: cropped 7 x 6 x 3 to 4 x 4 x 2 (centred), keeping x 1..4, y 1..4, z 0..1; "
            "the outputs are 7 x 6 x 3, as the input, with label 0 outside the part kept\n");
  // The image as segmented lies where it was; outside the box it is 0, and so
  // is every label there.
  std::vector<std::int32_t> expected(image.size(), 0);
  for (int z = 0; z < 2; ++z)
    for (int y = 1; y < 5; ++y)
      for (int x = 1; x < 5; ++x) {
        const auto i = static_cast<std::size_t>((z * 6 + y) * 7 + x);
        expected[i] = image[i];
      }
  EXPECT_EQ(as_int32(read_npy(dir, "s.npy").values), expected);
  const auto labels = as_int32(read_npy(dir, "l.npy").values);
  for (std::size_t i = 0; i < labels.size(); ++i)
    EXPECT_EQ(labels[i] == 0,
              expected[i] == 0 && (i / 42 == 2 || i % 7 == 0 || i % 7 == 5 || i % 7 == 6 ||
                                   (i / 7) % 6 == 0 || (i / 7) % 6 == 5))
        << i;
}

TEST(Fitting, SliceOfAVolume) {
  scratch_folder dir;
  std::vector<std::uint8_t> volume(4 * 4 * 3);
  for (std::size_t i = 0; i < volume.size(); ++i) volume[i] = static_cast<std::uint8_t>(i);
  testing::write_nifti(dir / "in.nii.gz", 4, 4, 3, testing::nifti_uint8, bytes_of(volume));
  ASSERT_EQ(run_tool(dir, "in.nii.gz --quiet --slice 1 --save-input s.npy --labels l.npy").status,
            0);
  const auto saved = read_npy(dir, "s.npy");
  EXPECT_EQ(saved.shape, (std::vector<std::int64_t>{4, 4}));
  EXPECT_EQ(as_int32(saved.values),
            std::vector<std::int32_t>(volume.begin() + 16, volume.begin() + 32));
  EXPECT_EQ(read_npy(dir, "l.npy").shape, (std::vector<std::int64_t>{4, 4}));
}

TEST(Fitting, RescaleMapsTheRangeOntoGreyValues) {
  scratch_folder dir;
  testing::write_nifti(dir / "in.nii", 2, 2, 1, testing::nifti_float32,
                       bytes_of(std::vector<float>{-1.0f, 0.0f, 0.5f, 3.0f}));
  const auto run = run_tool(dir, "in.nii --rescale --save-input s.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "splitmerge: rescaled the values -1..3 to 0..255\n");
  // (v + 1) * 255 / 4, rounded: 0, 63.75, 95.625, 255.
  EXPECT_EQ(as_int32(read_npy(dir, "s.npy").values), (std::vector<std::int32_t>{0, 64, 96, 255}));

  // Whole numbers in 0..255 need no rescaling, whatever their type.
  testing::write_nifti(dir / "whole.nii", 2, 2, 1, testing::nifti_float32,
                       bytes_of(std::vector<float>{0.0f, 17.0f, 200.0f, 255.0f}));
  ASSERT_EQ(run_tool(dir, "whole.nii --quiet --save-input w.npy").status, 0);
  EXPECT_EQ(as_int32(read_npy(dir, "w.npy").values), (std::vector<std::int32_t>{0, 17, 200, 255}));
}

TEST(Fitting, ColourPngIsSegmentedAsItsLuma) {
  scratch_folder dir;
  std::vector<std::uint8_t> rgba(16, 0);
  for (std::size_t i = 0; i < 16; i += 4) rgba[i] = rgba[i + 3] = 255;
  testing::write_png_rgba(dir / "in.png", 2, 2, rgba);
  const auto run = run_tool(dir, "in.png --save-input s.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "splitmerge: in.png is a colour PNG: segmenting its luma (0.299 R + 0.587 G + "
            "0.114 B); in.png has an alpha channel, which is ignored\n");
  EXPECT_EQ(as_int32(read_npy(dir, "s.npy").values), std::vector<std::int32_t>(4, 76));
}

TEST(Outputs, OverlayDrawsTheRegionBordersOverTheInput) {
  scratch_folder dir;
  std::vector<std::int32_t> image(16 * 16);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = (i % 16) < 8 ? 40 : 200;
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, image.data());
  ASSERT_EQ(run_tool(dir, "in.npy --quiet --labels l.npy --overlay o.png").status, 0);
  const auto labels = read_npy(dir, "l.npy");
  ASSERT_NE(labels.values[7], labels.values[8]);
  int width = 0, height = 0;
  const auto rgb = testing::read_png_rgb(dir / "o.png", width, height);
  ASSERT_EQ(rgb.size(), 16u * 16u * 3u);
  for (std::size_t i = 0; i < 256; ++i) {
    const std::vector<std::uint8_t> pixel(rgb.begin() + 3 * i, rgb.begin() + 3 * i + 3);
    const auto g = static_cast<std::uint8_t>(image[i]);
    // Column 7 is the last of the left region: its right neighbour has another label.
    const auto expected =
        (i % 16) == 7 ? std::vector<std::uint8_t>{255, 255, 0} : std::vector<std::uint8_t>{g, g, g};
    EXPECT_EQ(pixel, expected) << "pixel " << i;
  }
}

TEST(Fitting, PercentileRescaleOfTheWholeVolumeBeforeTheSlice) {
  scratch_folder dir;
  // Slice 0 holds 0..99, slice 1 holds 1000..1099: one mapping for both.
  std::vector<std::int32_t> volume(2 * 10 * 10);
  for (std::size_t i = 0; i < volume.size(); ++i)
    volume[i] = static_cast<std::int32_t>(i < 100 ? i : 900 + i);
  io::write_npy_int32((dir / "in.npy").string(), {2, 10, 10}, volume.data());
  const auto run = run_tool(dir, "in.npy --rescale 1,99 --slice 0 --fit pad --save-input s.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  // numpy.percentile of the 200 values: 1.99 and 1097.01.
  EXPECT_NE(run.err.find("rescaled the values between the 1st and 99th percentiles, "
                         "1.99..1097.01, to 0..255 (values outside clipped)"),
            std::string::npos)
      << run.err;
  const auto saved = read_npy(dir, "s.npy");
  ASSERT_EQ(saved.values.size(), 100u);
  for (std::size_t i = 0; i < 100; ++i) {
    const double expected = std::round(
        std::clamp((static_cast<double>(i) - 1.99) * 255.0 / (1097.01 - 1.99), 0.0, 255.0));
    EXPECT_EQ(saved.values[i], static_cast<std::int64_t>(expected)) << i;
  }
  // The same slice rescaled on its own would span 0..255; on the whole volume it is dark.
  EXPECT_LE(*std::max_element(saved.values.begin(), saved.values.end()), 24);
}

}  // namespace
}  // namespace splitmerge::tool
