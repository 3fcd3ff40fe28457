// The image readers deliver the stored samples bit for bit, and pictures of a
// scan follow its orientation (refused files: damaged_files_test).
#include <gtest/gtest.h>

#include <png.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "grey_image.hpp"
#include "npy.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::run_tool;
using testing::scratch_folder;

std::vector<double> read_values(const std::filesystem::path& path) {
  return io::read_grey_image(path.string()).values();
}

TEST(PngSamples, GammaAndColourSpaceChunksChangeNoSample) {
  scratch_folder dir;
  const std::vector<std::uint16_t> deep = {0, 64, 1000, 32768, 65535, 12345};
  const std::vector<double> deep_values(deep.begin(), deep.end());
  testing::write_png_samples(dir / "srgb16.png", 3, 2, 16, PNG_COLOR_TYPE_GRAY, deep, 0, true);
  testing::write_png_samples(dir / "gama16.png", 3, 2, 16, PNG_COLOR_TYPE_GRAY, deep, 0.45455,
                             false);
  EXPECT_EQ(read_values(dir / "srgb16.png"), deep_values);
  EXPECT_EQ(read_values(dir / "gama16.png"), deep_values);

  const std::vector<std::uint16_t> grey8 = {0, 64, 128, 200, 255, 1};
  testing::write_png_samples(dir / "linear8.png", 3, 2, 8, PNG_COLOR_TYPE_GRAY, grey8, 1.0, false);
  testing::write_png_samples(dir / "dark8.png", 3, 2, 8, PNG_COLOR_TYPE_GRAY, grey8, 2.2, false);
  EXPECT_EQ(read_values(dir / "linear8.png"), std::vector<double>(grey8.begin(), grey8.end()));
  EXPECT_EQ(read_values(dir / "dark8.png"), std::vector<double>(grey8.begin(), grey8.end()));

  // 16-bit colour: the luma of the stored samples, in the 16-bit range.
  const std::vector<std::uint16_t> rgb16 = {64, 64, 64, 60000, 0, 0, 0, 0, 1000};
  testing::write_png_samples(dir / "rgb16.png", 3, 1, 16, PNG_COLOR_TYPE_RGB, rgb16, 1.0, false);
  EXPECT_EQ(read_values(dir / "rgb16.png"), (std::vector<double>{64, 17940, 114}));
}

// Sets the matrix orientation (sform) of an uncompressed NIfTI-1 file, with
// the quaternion one (qform) switched off.
void set_sform(const std::filesystem::path& path, const float (&rows)[3][4]) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  const std::int16_t qform_code = 0, sform_code = 2;
  f.seekp(252);
  f.write(reinterpret_cast<const char*>(&qform_code), 2);
  f.write(reinterpret_cast<const char*>(&sform_code), 2);
  f.seekp(280);
  f.write(reinterpret_cast<const char*>(rows), sizeof rows);
}

// Where the marked voxel (x 0, y 0) appears in the saved picture.
std::pair<int, int> marker_place(const scratch_folder& dir, const std::string& name) {
  const auto run = run_tool(dir, name + " --quiet --save-input s.pgm");
  EXPECT_EQ(run.status, 0) << run.err;
  const auto picture = io::read_grey_image((dir / "s.pgm").string()).values();
  for (std::size_t i = 0; i < picture.size(); ++i)
    if (picture[i] == 255)
      return {static_cast<int>(i / 16), static_cast<int>(i % 16)};  // row, column
  return {-1, -1};
}

TEST(NiftiPictures, FollowTheScansOrientationInTheRadiologicalConvention) {
  scratch_folder dir;
  std::string voxels(16 * 16, '\0');
  voxels[0] = '\xff';  // x 0, y 0
  for (const char* name : {"stored.nii", "ras.nii", "las.nii", "coronal.nii"})
    testing::write_nifti(dir / name, 16, 16, 1, testing::nifti_uint8, voxels);
  // x grows towards the patient's right, y towards anterior: voxel (0, 0) is
  // left-posterior, so the picture (right on the left, anterior at the top)
  // shows it at the bottom right.
  set_sform(dir / "ras.nii", {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}});
  // x grows towards the left: voxel (0, 0) is right-posterior, bottom left.
  set_sform(dir / "las.nii", {{-1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}});
  // A coronal slice: x to the right, y towards superior; (0, 0) is
  // left-inferior: bottom right with superior at the top.
  set_sform(dir / "coronal.nii", {{1, 0, 0, 0}, {0, 0, 1, 0}, {0, 1, 0, 0}});
  EXPECT_EQ(marker_place(dir, "stored.nii"), std::make_pair(0, 0));  // qform from the writer
  EXPECT_EQ(marker_place(dir, "ras.nii"), std::make_pair(15, 15));
  EXPECT_EQ(marker_place(dir, "las.nii"), std::make_pair(15, 0));
  EXPECT_EQ(marker_place(dir, "coronal.nii"), std::make_pair(15, 15));
  const auto run = run_tool(dir, "ras.nii --save-input s.png");
  EXPECT_NE(run.err.find("the input picture is in the scan's orientation (radiological: right on "
                         "the left, anterior at the top)"),
            std::string::npos)
      << run.err;
}

}  // namespace
}  // namespace splitmerge::tool
