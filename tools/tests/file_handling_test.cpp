// How the program meets the files people have: inputs of every kind it reads,
// outputs written through links with their modes kept, no temporary file
// outliving its run, and a run without outputs said to be one (a folder that
// cannot be written: the bad-input table).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "colour_to_grey.hpp"
#include "npy.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::read_file;
using testing::run_tool;
using testing::scratch_folder;

// 16 x 16 colour pixels, and the grey levels the one colour rule makes of them.
std::vector<std::uint8_t> colour_pixels() {
  std::vector<std::uint8_t> rgb(16 * 16 * 3);
  for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>((i * 37) % 256);
  return rgb;
}
std::vector<std::int64_t> grey_of(const std::vector<std::uint8_t>& rgb) {
  std::vector<std::int64_t> grey;
  for (std::size_t i = 0; i < rgb.size(); i += 3)
    grey.push_back(io::grey_of_colour(rgb[i], rgb[i + 1], rgb[i + 2]));
  return grey;
}

// Each case writes in.* and gives the grey levels it holds.
struct input_case {
  std::string name;
  std::function<std::vector<std::int64_t>(const scratch_folder&)> make;
  std::string arguments;
};

std::ostream& operator<<(std::ostream& os, const input_case& c) { return os << c.name; }

input_case rgb_tiff(const std::string& name, bool planes) {
  return {name, [planes](const scratch_folder& d) {
            testing::write_tiff_rgb(d / "in.tif", 16, 16, planes, colour_pixels());
            return grey_of(colour_pixels());
          }, "in.tif"};
}

const std::vector<input_case> input_cases = {
    rgb_tiff("RgbTiffInterleaved", false),
    rgb_tiff("RgbTiffInPlanes", true),
    {"ColourJpeg",
     [](const scratch_folder& d) {
       testing::write_jpeg(d / "in.jpg", 16, 16, 3, colour_pixels());
       return grey_of(testing::decode_jpeg(d / "in.jpg"));
     },
     "in.jpg"},
    {"GreyJpeg",
     [](const scratch_folder& d) {
       testing::write_jpeg(d / "in.jpeg", 16, 16, 1, std::vector<std::uint8_t>(256, 77));
       const auto decoded = testing::decode_jpeg(d / "in.jpeg");
       return std::vector<std::int64_t>(decoded.begin(), decoded.end());
     },
     "in.jpeg"},
    {"VolumeOfA4dNifti",
     [](const scratch_folder& d) {
       std::string voxels;
       for (int t = 0; t < 3; ++t) voxels += std::string(16 * 16, static_cast<char>(10 * t));
       testing::write_nifti(d / "in.nii", 16, 16, 1, testing::nifti_uint8, voxels, 0, 0, 3);
       return std::vector<std::int64_t>(256, 20);
     },
     "in.nii --volume 2"},
    {"Nifti2",
     [](const scratch_folder& d) {
       std::vector<std::uint8_t> v(256);
       std::iota(v.begin(), v.end(), 0);
       testing::write_nifti2(d / "in.nii", 16, 16, 1, v);
       return std::vector<std::int64_t>(v.begin(), v.end());
     },
     "in.nii"},
};

class Input : public ::testing::TestWithParam<input_case> {};

TEST_P(Input, IsSegmentedAsTheGreyLevelsItHolds) {
  const input_case& c = GetParam();
  scratch_folder dir;
  const auto expected = c.make(dir);
  const auto run = run_tool(dir, c.arguments + " --quiet --save-input s.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(io::read_npy((dir / "s.npy").string()).values, expected);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, Input, ::testing::ValuesIn(input_cases),
                         [](const auto& info) { return info.param.name; });

void write_halves(const scratch_folder& dir) {
  std::vector<std::int32_t> v(16 * 16);
  for (std::size_t i = 0; i < v.size(); ++i) v[i] = (i % 16) < 8 ? 40 : 200;
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, v.data());
}

TEST(Outputs, WrittenThroughSymbolicLinksKeepingTheirModes) {
  scratch_folder dir;
  write_halves(dir);
  std::filesystem::create_directory(dir / "results");
  std::ofstream(dir / "results" / "kept.npy") << "old";
  std::filesystem::create_symlink("results/kept.npy", dir / "link.npy");
  std::filesystem::create_symlink("results/new.npy", dir / "dangling.npy");
  std::ofstream(dir / "private.npy") << "old";
  ::chmod((dir / "private.npy").c_str(), 0600);
  const auto run = run_tool(dir,
                            "in.npy --quiet --labels link.npy --save-input dangling.npy --regions "
                            "private.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(std::filesystem::is_symlink(dir / "link.npy"));
  EXPECT_TRUE(std::filesystem::is_symlink(dir / "dangling.npy"));
  EXPECT_EQ(io::read_npy((dir / "results" / "kept.npy").string()).shape,
            (std::vector<std::int64_t>{16, 16}));
  EXPECT_TRUE(std::filesystem::is_regular_file(dir / "results" / "new.npy"));
  struct stat info {};
  ASSERT_EQ(::stat((dir / "private.npy").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(dir.file_names(), (std::vector<std::string>{"dangling.npy", "in.npy", "link.npy",
                                                        "private.npy", "results"}));
}

// A run ended by SIGKILL cannot remove its named temporaries; the next run in
// the folder does, and leaves those of live processes alone.
TEST(Interrupted, ALaterRunRemovesTheTemporariesOfEndedRuns) {
  scratch_folder dir;
  write_halves(dir);
  const pid_t ended = ::fork();
  if (ended == 0) ::_exit(0);
  ASSERT_GT(ended, 0);
  ::waitpid(ended, nullptr, 0);
  const std::string stale = ".splitmerge-" + std::to_string(ended) + "-a1b2c3.npy";
  const std::string live = ".splitmerge-" + std::to_string(::getpid()) + "-d4e5f6.npy";
  for (const std::string& name : {stale, stale + ".old", live}) std::ofstream(dir / name) << "x";
  const auto run = run_tool(dir, "in.npy --quiet --labels l.npy");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(dir.file_names(), (std::vector<std::string>{live, "in.npy", "l.npy"}));
}

TEST(Messages, ARunWithoutOutputsSaysSoAndGivesItsSummary) {
  scratch_folder dir;
  write_halves(dir);
  const auto run = run_tool(dir, "in.npy");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err,
            "splitmerge: no output asked for (--labels, --regions, --frames, "
            "--save-input or --overlay): the run only counts the regions\n");
  EXPECT_EQ(run.summary.rfind("splitmerge: 2 regions in ", 0), 0u) << run.summary;
}

}  // namespace
}  // namespace splitmerge::tool
