// Each kind of bad usage or unusable input: exit status 2 (3 when memory is
// the problem), one line on standard error that says what would help, and no
// files left behind.
#include <gtest/gtest.h>

#include <tiffio.h>

#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <vector>

#include "command_line.hpp"
#include "npy.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::bytes_of;
using testing::scratch_folder;
using maker = std::function<void(const scratch_folder&)>;

// A 16 x 16 image of two halves, valid input for every parameter default.
void halves(const scratch_folder& dir) {
  std::vector<std::int32_t> v(16 * 16);
  for (std::size_t i = 0; i < v.size(); ++i) v[i] = (i % 16) < 8 ? 40 : 200;
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, v.data());
}

// in.npy of the shape, every pixel the value.
maker npy(std::vector<std::int64_t> shape, std::int32_t value) {
  return [shape, value](const scratch_folder& d) {
    std::int64_t n = 1;
    for (const auto s : shape) n *= s;
    const std::vector<std::int32_t> v(static_cast<std::size_t>(n), value);
    io::write_npy_int32((d / "in.npy").string(), shape, v.data());
  };
}

// A file of the name holding .npy bytes of the dtype and shape.
maker raw_npy(std::string name, std::string dtype, std::vector<std::int64_t> shape,
              std::string bytes) {
  return [=](const scratch_folder& d) {
    testing::write_npy_raw(d / name, dtype, shape, false, bytes);
  };
}

// A 4 x 4 x 1 x 3 NIfTI-1 file of uint8, volume t filled with t.
void nifti_4d(const scratch_folder& d) {
  std::string voxels;
  for (int t = 0; t < 3; ++t) voxels += std::string(16, static_cast<char>(t));
  testing::write_nifti(d / "in.nii", 4, 4, 1, testing::nifti_uint8, voxels, 0.0f, 0.0f, 3);
}

void cmyk_tiff(const scratch_folder& d) {
  TIFF* t = TIFFOpen((d / "in.tif").c_str(), "w");
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 2);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, 1);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 4);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_SEPARATED);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  unsigned char row[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  TIFFWriteScanline(t, row, 0, 0);
  TIFFClose(t);
}

// in.npy, with a hard and a symbolic link to it in sub/.
void linked_input(const scratch_folder& d) {
  halves(d);
  std::filesystem::create_directory(d / "sub");
  std::filesystem::create_hard_link(d / "in.npy", d / "sub" / "hard.npy");
  std::filesystem::create_symlink("../in.npy", d / "sub" / "soft.npy");
}

struct error_case {
  std::string name;
  maker make_files;
  std::string arguments;
  std::string message;  // each part between | must appear in it
  int status = 2;       // 3: out of memory
};

std::ostream& operator<<(std::ostream& os, const error_case& c) { return os << c.name; }

const std::vector<error_case> error_cases = {
    // Usage.
    {"NoImage", halves, "", "IMAGE is required"},
    {"EmptyImagePath", halves, "''", "the image path is empty"},
    {"UnknownOption", halves, "in.npy --colour", "--colour|--help"},
    {"ParameterNotANumber", halves, "in.npy --sigma abc", "--sigma|abc"},
    {"UnknownFitMode", halves, "in.npy --fit stretch", "expected pad or crop"},
    {"MemoryLimitNotASize", halves, "in.npy --memory-limit 4X",
     "--memory-limit|512M, 4G or 1000000|4X"},
    {"RunBelowItsLabels", halves, "in.npy --memory-limit 4K",
     "the run needs at least |above the memory budget of 4.0 KiB|--memory-limit SIZE", 3},
    {"NpyAboveTheMemoryLimit", raw_npy("in.npy", "<u2", {64, 1024, 1024}, "abc"),
     "in.npy --memory-limit 64M",
     "in.npy: the image needs at least 384.0 MiB of memory (its pixels and their labels), but "
     "--memory-limit allows 64.0 MiB", 3},
    {"RunGrowsAboveTheMemoryLimit",
     [](const scratch_folder& d) { testing::write_noise(d / "in.npy", {128, 128}); },
     "in.npy --memory-limit 256K --quiet",
     "the run stopped at the memory budget of 256.0 KiB|were in use when it asked for|"
     "--memory-limit SIZE", 3},
    {"UnknownPredicateName", halves, "in.npy --pred-choice gauss",
     "--pred-choice|range, mean, median, chi2, pseudo|gauss"},
    {"FramesWithoutDisplay", halves, "in.npy --frames f.npy --no-display", "--frames|--no-display"},
    {"FramesEveryWithoutFrames", halves, "in.npy --frames-every 2 --labels l.npy",
     "--frames-every thins the frames of --frames, which is not given"},
    {"FramesEveryOfZero", halves, "in.npy --frames f.npy --frames-every 0",
     "--frames-every 0: expected a whole number from 1 to"},
    {"LabelFormat", halves, "in.npy --labels l.jpg",
     "--labels l.jpg: unsupported format|.npy, .tif, .tiff, .png, .nii or .nii.gz"},
    {"FrameFormat", halves, "in.npy --frames f.png", "--frames f.png|.gif"},
    {"InputCopyFormat", halves, "in.npy --save-input s.txt", "--save-input s.txt"},
    {"OutputFolderMissing", halves, "in.npy --labels no/l.npy",
     "cannot write no/l.npy|the folder no (No such file or directory)"},
    {"WholeNumberOutOfRange", halves, "in.npy --small-size 99999999999",
     "--small-size 99999999999: expected a whole number from -2147483648 to 2147483647"},
    {"MisspeltOption", halves, "in.npy --sigmaa 3", "--sigmaa; did you mean --sigma?"},
    {"OptionTwice", halves, "in.npy --sigma 3 --sigma 4", "--sigma is given more than once"},
    {"SecondImage", halves, "in.npy in.npy", "unexpected argument 'in.npy'"},
    // Outputs that name the input, through any path, or each other.
    {"LabelsOverTheInput", linked_input, "in.npy --labels in.npy",
     "--labels in.npy would overwrite the input image"},
    {"FramesOverTheInput", linked_input, "in.npy --frames sub/../in.npy",
     "would overwrite the input image"},
    {"LabelsOverAHardLink", linked_input, "in.npy --labels sub/hard.npy",
     "would overwrite the input image"},
    {"LabelsOverASymbolicLink", linked_input, "in.npy --labels sub/soft.npy",
     "would overwrite the input image"},
    {"TwoOutputsOfOneName", halves, "in.npy --labels out.npy --save-input out.npy",
     "--labels and --save-input both name out.npy"},
    {"TwoOutputsOfOneFile", linked_input, "in.npy --labels out.npy --frames sub/../out.npy",
     "both name"},
    // Unreadable or unsupported files.
    {"MissingFile", halves, "absent.npy", "absent.npy: cannot open|No such file or directory"},
    {"AFolder", [](const scratch_folder& d) { std::filesystem::create_directory(d / "scan.npy"); },
     "scan.npy", "scan.npy: is a folder, not an image file"},
    {"UnknownExtension", raw_npy("in.bmp", "<i4", {2, 2}, std::string(16, '\0')), "in.bmp",
     "unsupported image format '.bmp'|.jpg|.nii.gz"},
    {"FractionalNpy", raw_npy("in.npy", "<f8", {2, 2}, bytes_of(std::vector<double>{0.5, 1, 2, 3})),
     "in.npy", "non-integer values such as 0.5|--rescale"},
    {"HalfFloatNpy", raw_npy("in.npy", "<f2", {2, 2}, std::string(8, '\0')), "in.npy",
     "unsupported .npy dtype '<f2'|float32 or float64"},
    {"FourDimensionalNpy", npy({1, 1, 2, 2}, 0), "in.npy", "4 dimensions|(Z, Y, X)"},
    {"CmykTiff", cmyk_tiff, "in.tif", "photometric interpretation 5|grey and RGB"},
    {"FourDimensionalNiftiWithoutVolume", nifti_4d, "in.nii",
     "holds 3 volumes (4-D)|--volume K (0 to 2)"},
    {"VolumeOutsideTheFile", nifti_4d, "in.nii --volume 3",
     "--volume 3 is not among its 3 volumes"},
    {"VolumeOfA2dImage", halves, "in.npy --volume 0", "not one"},
    // Sizes.
    {"NotSquare", npy({8, 16}, 0), "in.npy",
     "16 x 8 pixels|2, 4, 8, ..., 16384|--fit pad or --fit crop"},
    {"TooManySlices", npy({8, 4, 4}, 0), "in.npy", "4 x 4 x 8|no more than the edge|--slice K"},
    {"TooLargeToPad", npy({17000, 2}, 0), "in.npy --fit pad",
     "edge of 32768|2 x 17000 image|above the largest, 16384|--fit crop"},
    {"VolumeTooLargeToPad", npy({3, 1100, 2}, 0), "in.npy --fit pad",
     "edge of 2048|2 x 1100 x 3 image|above the largest for a volume, 1024|--fit crop|--slice K"},
    {"VolumeTooLargeToSegment",
     raw_npy("in.npy", "|u1", {2, 2048, 2048}, std::string(std::size_t{2} * 2048 * 2048, '\0')),
     "in.npy",
     "2048 x 2048 x 2 pixels|..., 16384 pixels (1024 at most with more than one slice)|--fit pad or "
     "--fit crop"},
    {"TooSmallToCrop", npy({1, 1}, 0), "in.npy --fit crop", "at least 2 x 2|--fit pad"},
    {"SliceOfA2dImage", halves, "in.npy --slice 0", "--slice needs a volume"},
    {"SliceOutsideTheVolume", npy({4, 8, 8}, 0), "in.npy --slice 4", "--slice 4|0..3"},
    // Values.
    {"PixelsAbove255", npy({4, 4}, 300), "in.npy", "range from 300 to 300|0..255|--rescale"},
    {"NotANumber",
     raw_npy("in.npy", "<f4", {2, 2},
             bytes_of(std::vector<float>{1, std::numeric_limits<float>::quiet_NaN(), 2, 3})),
     "in.npy --rescale", "the image holds NaN or infinite values"},
    // Parameters the library rejects, named by their option.
    {"ThresholdRow", halves, "in.npy --pred-choice chi2 --threshold-row 0",
     "--threshold-row 0: must be 1, 2 or 3|with --pred-choice 4"},
};

class BadInput : public ::testing::TestWithParam<error_case> {};

TEST_P(BadInput, ExitsWithOneLineAndNoFilesLeft) {
  const error_case& c = GetParam();
  scratch_folder dir;
  c.make_files(dir);
  const auto files_before = dir.file_names();
  const auto input = [&dir] {
    return std::filesystem::exists(dir / "in.npy") ? testing::read_file(dir / "in.npy") : "";
  };
  const std::string input_before = input();
  // Ask for every output, to see that none is left behind.
  std::string arguments = c.arguments;
  for (const char* output :
       {"--labels l.npy", "--frames f.npy", "--regions r.txt", "--save-input s.png"})
    if (arguments.find(std::string(output).substr(0, 8)) == std::string::npos)
      arguments.append(" ").append(output);
  const auto result = testing::run_tool(dir, arguments);
  EXPECT_EQ(result.status, c.status) << result.err;
  EXPECT_EQ(result.out, "");
  ASSERT_FALSE(result.err.empty());
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "more than one line:\n" << result.err;
  EXPECT_EQ(result.err.rfind("splitmerge: ", 0), 0u) << result.err;
  std::istringstream parts(c.message);
  for (std::string part; std::getline(parts, part, '|');)
    EXPECT_NE(result.err.find(part), std::string::npos) << "no '" << part << "' in " << result.err;
  EXPECT_EQ(dir.file_names(), files_before);
  EXPECT_EQ(input(), input_before);
}

INSTANTIATE_TEST_SUITE_P(Tool, BadInput, ::testing::ValuesIn(error_cases),
                         [](const auto& info) { return info.param.name; });

// Noise splits into single pixels: far more blocks than the limit leaves room for.
TEST(RunFailure, OutOfMemory) {
#if defined(SPLITMERGE_SANITIZED)
  GTEST_SKIP() << "sanitizers reserve more address space than the limit allows";
#endif
  scratch_folder dir;
  testing::write_noise(dir / "in.npy", {64, 64, 64});
  const std::string arguments = "in.npy --labels l.npy --quiet --threads 1";
  const auto whole = testing::run_tool(dir, arguments);
  ASSERT_EQ(whole.status, 0) << whole.err;
  std::filesystem::remove(dir / "l.npy");
  // Half of what the run took, above what the program needs before any image.
  const auto result =
      testing::run_tool(dir, arguments, testing::address_space_limit(whole.peak_kib / 2));
  EXPECT_EQ(result.status, 3) << result.err;
  EXPECT_NE(result.err.find("out of memory"), std::string::npos) << result.err;
  EXPECT_EQ(dir.file_names(), std::vector<std::string>{"in.npy"});
}

// A frames file that may outgrow its file system is refused before the run.
// The 4096 x 4096 input is a sparse file: mapped, never read.
TEST(RunFailure, FramesThatMayNotFitTheirDisk) {
  scratch_folder dir;
  if (std::filesystem::space(dir.path()).available > (std::uint64_t{1} << 42))
    GTEST_SKIP() << "more than the 4.4 TiB the frames may take is free";
  testing::write_npy_raw(dir / "in.npy", "|u1", {4096, 4096}, false, "");
  std::filesystem::resize_file(dir / "in.npy",
                               std::filesystem::file_size(dir / "in.npy") + 4096 * 4096);
  const auto run = testing::run_tool(dir, "in.npy --frames f.npy");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("splitmerge: --frames f.npy may take up to "), std::string::npos);
  EXPECT_NE(run.err.find("free: keep fewer frames with --frames-every "), std::string::npos)
      << run.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "f.npy"));
}

TEST(MemoryLimit, SizesAreBytesOrPowersOf1024) {
  const std::vector<std::pair<const char*, std::uint64_t>> sizes = {
      {"1000000", 1000000u}, {"0", 0u},          {"512K", 512u << 10}, {"512M", 512u << 20},
      {"512m", 512u << 20},  {"4G", 4ull << 30}, {"4GiB", 4ull << 30}, {"4GB", 4ull << 30},
      {"2T", 2ull << 40}};
  for (const auto& [text, bytes] : sizes) EXPECT_EQ(parse_byte_size(text), bytes) << text;
  for (const char* bad : {"", "G", "4X", "4GX", "-1", "1.5G", "4 G", "16777216T"})
    EXPECT_EQ(parse_byte_size(bad), std::nullopt) << bad;
  scratch_folder dir;
  halves(dir);
  const auto within = testing::run_tool(dir, "in.npy --memory-limit 1G --labels l.npy --quiet");
  EXPECT_EQ(within.status, 0) << within.err;
  EXPECT_EQ(within.err, "");
}

TEST(Help, ExplainsEveryOptionAndExitsZero) {
  scratch_folder dir;
  const auto result = testing::run_tool(dir, "--help");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  std::istringstream expected(
      "--labels --frames --regions --save-input --no-display --quiet --frame-budget --fit "
      "--slice --rescale --max-level --lim-oct-level --init-level --group-mode --max-seed "
      "--use-all-seeds --pred-choice --interval-length --rejection --sigma --threshold-row "
      "--pseudo-factor --small-size --statistic-update .nii.gz .gif Exit_status --overlay "
      "--version percentiles --threads with_a_warning --memory-limit --volume .jpg");
  for (std::string word; expected >> word;) {
    std::replace(word.begin(), word.end(), '_', ' ');
    EXPECT_NE(result.out.find(word), std::string::npos) << word;
  }
  const auto version = testing::run_tool(dir, "--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("splitmerge ", 0), 0u) << version.out;
  EXPECT_EQ(version.out.back(), '\n');
  EXPECT_EQ(version.err, "");
}

}  // namespace
}  // namespace splitmerge::tool
