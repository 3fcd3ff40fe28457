// The image readers deliver the stored samples bit for bit, refuse files that
// hold less than their header declares, and check declared sizes before they
// allocate anything.
#include <gtest/gtest.h>

#include <png.h>
#include <zlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "grey_image.hpp"
#include "npy.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::bytes_of;
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

TEST(PngSamples, SegmentedInputIsTheStoredSamples) {
  scratch_folder dir;
  std::vector<std::uint16_t> grey(16 * 16);
  for (std::size_t i = 0; i < grey.size(); ++i) grey[i] = static_cast<std::uint16_t>(i % 256);
  testing::write_png_samples(dir / "in.png", 16, 16, 8, PNG_COLOR_TYPE_GRAY, grey, 1.0, false);
  ASSERT_EQ(run_tool(dir, "in.png --quiet --save-input s.npy").status, 0);
  const auto saved = io::read_npy((dir / "s.npy").string());
  EXPECT_EQ(saved.values, std::vector<std::int64_t>(grey.begin(), grey.end()));
}

// A PNG of a signature, a header declaring width x height, a few bytes of
// pixel data and an end: about 100 bytes.
void write_header_only_png(const std::filesystem::path& path, std::uint32_t width,
                           std::uint32_t height) {
  std::string out("\x89PNG\r\n\x1a\n", 8);
  const auto chunk = [&out](const std::string& type, const std::string& data) {
    const auto be32 = [](std::uint32_t v) {
      return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                         static_cast<char>(v >> 8), static_cast<char>(v)};
    };
    out += be32(static_cast<std::uint32_t>(data.size())) + type + data;
    const std::string crc_input = type + data;
    out += be32(static_cast<std::uint32_t>(crc32(
        0, reinterpret_cast<const Bytef*>(crc_input.data()), static_cast<uInt>(crc_input.size()))));
  };
  const auto be32 = [](std::uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 8), static_cast<char>(v)};
  };
  chunk("IHDR", be32(width) + be32(height) + std::string("\x08\x00\x00\x00\x00", 5));
  // The start of the first row, so that the header reads as a whole.
  std::string idat(64, '\0');
  uLongf idat_size = static_cast<uLongf>(idat.size());
  const std::string row(17, '\0');
  compress(reinterpret_cast<Bytef*>(idat.data()), &idat_size,
           reinterpret_cast<const Bytef*>(row.data()), static_cast<uLong>(row.size()));
  chunk("IDAT", idat.substr(0, idat_size));
  chunk("IEND", "");
  std::ofstream(path, std::ios::binary) << out;
}

// Patches the three dimensions of an uncompressed NIfTI-1 header.
void patch_nifti_dims(const std::filesystem::path& path, std::int16_t nx, std::int16_t ny,
                      std::int16_t nz) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(42);  // dim[1] follows sizeof_hdr (4), 36 bytes of unused fields and dim[0]
  const std::int16_t dims[3] = {nx, ny, nz};
  f.write(reinterpret_cast<const char*>(dims), sizeof dims);
}

struct refused_file {
  std::string name;
  std::function<void(const scratch_folder&)> make;
  std::string image;
  std::string message;
};

std::ostream& operator<<(std::ostream& os, const refused_file& c) { return os << c.name; }

const std::vector<refused_file>& refused_files() {
  static const std::vector<refused_file> cases = {
      {"HeaderOnlyPngOfAHugeImage",
       [](const scratch_folder& d) { write_header_only_png(d / "in.png", 12000, 12000); }, "in.png",
       "in.png: truncated or damaged: the header declares 144000000 bytes"},
      {"PngOfTooManyPixels",
       [](const scratch_folder& d) { write_header_only_png(d / "in.png", 100000, 100000); },
       "in.png", "pixels, more than the"},
      {"TruncatedCompressedNifti",
       [](const scratch_folder& d) {
         std::string voxels(64 * 64 * 16, '\0');
         for (std::size_t i = 0; i < voxels.size(); ++i)
           voxels[i] = static_cast<char>((i * 2654435761u) >> 24);
         testing::write_nifti(d / "in.nii.gz", 64, 64, 16, testing::nifti_uint8, voxels);
         const auto size = std::filesystem::file_size(d / "in.nii.gz");
         std::filesystem::resize_file(d / "in.nii.gz", size / 2);
       },
       "in.nii.gz", "in.nii.gz: truncated NIfTI file"},
      {"NiftiDeclaringAHugeVolume",
       [](const scratch_folder& d) {
         testing::write_nifti(d / "in.nii", 2, 2, 1, testing::nifti_uint8, std::string(4, '\0'));
         patch_nifti_dims(d / "in.nii", 30000, 30000, 30000);
       },
       "in.nii", "pixels, more than the"},
      {"NiftiNotANumber",
       [](const scratch_folder& d) {
         const float nan = std::numeric_limits<float>::quiet_NaN();
         testing::write_nifti(d / "in.nii", 2, 2, 1, testing::nifti_float32,
                              bytes_of(std::vector<float>{1, nan, 2, 3}));
       },
       "in.nii --rescale", "NaN or infinite"},
      {"HugeNpyShape",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.npy", "<u1", {100000, 100000, 100}, false, "abc");
       },
       "in.npy", "in.npy: "},
      {"PgmDeclaringMorePixelsThanItHas",
       [](const scratch_folder& d) {
         std::ofstream(d / "in.pgm", std::ios::binary) << "P5\n16000 16000\n255\nabc";
       },
       "in.pgm", "shorter than its size says"},
  };
  return cases;
}

class RefusedFile : public ::testing::TestWithParam<refused_file> {};

// Exit 2 with one line naming the problem, within a memory limit far below
// what the declared sizes would take.
TEST_P(RefusedFile, ExitsTwoWithOneLineInLittleMemory) {
  const refused_file& c = GetParam();
  scratch_folder dir;
  c.make(dir);
#if defined(SPLITMERGE_SANITIZED)
  const std::string limit;
#else
  // Half the smallest size a header here declares, above what the program
  // needs before any image.
  const std::string limit = testing::address_space_limit(144000000 / 2 / 1024);
#endif
  const auto run = run_tool(dir, c.image + " --labels l.npy", limit);
  EXPECT_EQ(run.status, 2) << run.err;
  EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
  ASSERT_FALSE(run.err.empty());
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "more than one line:\n" << run.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "l.npy"));
}

INSTANTIATE_TEST_SUITE_P(Readers, RefusedFile, ::testing::ValuesIn(refused_files()),
                         [](const auto& info) { return info.param.name; });

// (Big-endian files: see python/nifti_labels_check.py.)
TEST(NiftiSamples, CompressedVolumesReadExactly) {
  scratch_folder dir;
  std::vector<std::int16_t> voxels(4 * 4 * 2);
  for (std::size_t i = 0; i < voxels.size(); ++i) voxels[i] = static_cast<std::int16_t>(i * 7);
  testing::write_nifti(dir / "in.nii.gz", 4, 4, 2, testing::nifti_int16, bytes_of(voxels));
  EXPECT_EQ(read_values(dir / "in.nii.gz"), std::vector<double>(voxels.begin(), voxels.end()));
}

}  // namespace
}  // namespace splitmerge::tool

namespace splitmerge::tool {
namespace {

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
