// Each kind of bad usage or unusable input: its exit status, one line on
// standard error that says what would help, and no files left behind.
#include <gtest/gtest.h>

#include <tiffio.h>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "command_line.hpp"
#include "npy.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::bytes_of;
using testing::scratch_folder;

// A 16 x 16 image of two halves, valid input for every parameter default.
void write_halves(const scratch_folder& dir) {
  std::vector<std::int32_t> v(16 * 16);
  for (std::size_t i = 0; i < v.size(); ++i) v[i] = (i % 16) < 8 ? 40 : 200;
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, v.data());
}

void write_npy_of(const scratch_folder& dir, const std::string& name,
                  const std::vector<std::int64_t>& shape, std::int32_t value) {
  std::int64_t n = 1;
  for (const auto d : shape) n *= d;
  const std::vector<std::int32_t> v(static_cast<std::size_t>(n), value);
  io::write_npy_int32((dir / name).string(), shape, v.data());
}

// A 4 x 4 x 1 x `volumes` NIfTI-1 file of uint8, volume t filled with t.
void write_nifti_4d(const std::filesystem::path& path, int volumes) {
  std::string voxels;
  for (int t = 0; t < volumes; ++t) voxels += std::string(16, static_cast<char>(t));
  testing::write_nifti(path, 4, 4, 1, testing::nifti_uint8, voxels, 0.0f, 0.0f, volumes);
}

struct error_case {
  std::string name;
  std::function<void(const scratch_folder&)> make_files;
  std::string arguments;
  int status;
  std::vector<std::string> message_parts;  // each must appear in the message
};

std::ostream& operator<<(std::ostream& os, const error_case& c) { return os << c.name; }

const std::vector<error_case>& error_cases() {
  static const std::vector<error_case> cases = {
      // Usage.
      {"NoImage", write_halves, "", 2, {"IMAGE is required"}},
      {"EmptyImagePath", write_halves, "''", 2, {"the image path is empty"}},
      {"UnknownOption", write_halves, "in.npy --colour", 2, {"--colour", "--help"}},
      {"ParameterNotANumber", write_halves, "in.npy --sigma abc", 2, {"--sigma", "abc"}},
      {"UnknownFitMode", write_halves, "in.npy --fit stretch", 2, {"expected pad or crop"}},
      {"MemoryLimitNotASize",
       write_halves,
       "in.npy --memory-limit 4X",
       2,
       {"--memory-limit", "512M, 4G or 1000000", "4X"}},
      {"MemoryLimitNegative", write_halves, "in.npy --memory-limit -5", 2, {"--memory-limit"}},
      {"RunBelowItsLabels",
       write_halves,
       "in.npy --memory-limit 4K",
       3,
       {"the run needs at least ", "above the memory budget of 4.0 KiB", "--memory-limit SIZE"}},
      {"NpyAboveTheMemoryLimit",  // refused before its (missing) pixels are read
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.npy", "<u2", {64, 1024, 1024}, false, "abc");
       },
       "in.npy --memory-limit 64M",
       3,
       {"in.npy: the image needs at least 384.0 MiB of memory (its pixels and their labels), but "
        "--memory-limit allows 64.0 MiB"}},
      {"RunGrowsAboveTheMemoryLimit",
       [](const scratch_folder& d) {
         std::vector<std::int32_t> v(128 * 128);
         for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<std::int32_t>(i * 7919 % 256);
         io::write_npy_int32((d / "in.npy").string(), {128, 128}, v.data());
       },
       "in.npy --memory-limit 256K --quiet",
       3,
       {"the run stopped at the memory budget of 256.0 KiB", "were in use when it asked for",
        "--memory-limit SIZE"}},
      {"UnknownPredicateName",
       write_halves,
       "in.npy --pred-choice gauss",
       2,
       {"--pred-choice", "range, mean, median, chi2, pseudo", "gauss"}},
      {"FramesWithoutDisplay",
       write_halves,
       "in.npy --frames f.npy --no-display",
       2,
       {"--frames", "--no-display"}},
      {"FramesEveryWithoutFrames",
       write_halves,
       "in.npy --frames-every 2 --labels l.npy",
       2,
       {"--frames-every thins the frames of --frames, which is not given"}},
      {"FramesEveryOfZero",
       write_halves,
       "in.npy --frames f.npy --frames-every 0",
       2,
       {"--frames-every 0: expected a whole number from 1 to"}},
      {"FramesEveryMisspelt",
       write_halves,
       "in.npy --frame-every 2",
       2,
       {"did you mean --frames-every?"}},
      {"LabelFormat",
       write_halves,
       "in.npy --labels l.jpg",
       2,
       {"--labels l.jpg: unsupported format", ".npy, .tif, .tiff, .png, .nii or .nii.gz"}},
      {"FrameFormat", write_halves, "in.npy --frames f.png", 2, {"--frames f.png", ".gif"}},
      {"InputCopyFormat", write_halves, "in.npy --save-input s.txt", 2, {"--save-input s.txt"}},
      {"OutputFolderMissing",
       write_halves,
       "in.npy --labels no/l.npy",
       2,
       {"cannot write no/l.npy", "No such file or directory"}},
      // Unreadable or unsupported files.
      {"MissingFile",
       write_halves,
       "absent.npy",
       2,
       {"absent.npy: cannot open", "No such file or directory"}},
      {"UnknownExtension",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.bmp", "<i4", {2, 2}, false, std::string(16, '\0'));
       },
       "in.bmp",
       2,
       {"unsupported image format '.bmp'", ".jpg", ".nii.gz"}},
      {"CorruptPng",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.png", "<i4", {2, 2}, false, "");
       },
       "in.png",
       2,
       {"in.png: cannot read PNG"}},
      {"TruncatedNpy",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.npy", "<i4", {4, 4}, false, "abc");
       },
       "in.npy",
       2,
       {"shorter than its shape"}},
      {"FractionalNpy",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.npy", "<f8", {2, 2}, false,
                                bytes_of(std::vector<double>{0.5, 1, 2, 3}));
       },
       "in.npy",
       2,
       {"non-integer values such as 0.5", "--rescale"}},
      {"HalfFloatNpy",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.npy", "<f2", {2, 2}, false, std::string(8, '\0'));
       },
       "in.npy",
       2,
       {"unsupported .npy dtype '<f2'", "float32 or float64"}},
      {"FourDimensionalNpy",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {1, 1, 2, 2}, 0);
       },
       "in.npy",
       2,
       {"4 dimensions", "(Z, Y, X)"}},
      {"CmykTiff",
       [](const scratch_folder& d) {
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
       },
       "in.tif",
       2,
       {"photometric interpretation 5", "grey and RGB"}},
      // Sizes.
      {"NotSquare",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {8, 16}, 0);
       },
       "in.npy",
       2,
       {"16 x 8 pixels", "2, 4, 8, ..., 16384", "--fit pad or --fit crop"}},
      {"TooManySlices",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {8, 4, 4}, 0);
       },
       "in.npy",
       2,
       {"4 x 4 x 8", "no more than the edge", "--slice K"}},
      {"TooLargeToPad",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {17000, 2}, 0);
       },
       "in.npy --fit pad",
       2,
       {"edge of 32768", "2 x 17000 image", "above the largest, 16384", "--fit crop"}},
      {"VolumeTooLargeToPad",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {3, 1100, 2}, 0);
       },
       "in.npy --fit pad",
       2,
       {"edge of 2048", "2 x 1100 x 3 image", "above the largest for a volume, 1024", "--fit crop",
        "--slice K"}},
      {"VolumeTooLargeToSegment",
       [](const scratch_folder& d) {
         testing::write_npy_raw(d / "in.npy", "|u1", {2, 2048, 2048}, false,
                                std::string(std::size_t{2} * 2048 * 2048, '\0'));
       },
       "in.npy",
       2,
       {"2048 x 2048 x 2 pixels", "..., 16384 pixels (1024 at most with more than one slice)",
        "--fit pad or --fit crop"}},
      {"TooSmallToCrop",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {1, 1}, 0);
       },
       "in.npy --fit crop",
       2,
       {"at least 2 x 2", "--fit pad"}},
      {"SliceOfA2dImage", write_halves, "in.npy --slice 0", 2, {"--slice needs a volume"}},
      {"SliceOutsideTheVolume",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {4, 8, 8}, 0);
       },
       "in.npy --slice 4",
       2,
       {"--slice 4", "0..3"}},
      // Values.
      {"PixelsAbove255",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {4, 4}, 300);
       },
       "in.npy",
       2,
       {"range from 300 to 300", "0..255", "--rescale"}},
      {"NegativePixels",
       [](const scratch_folder& d) {
         write_npy_of(d, "in.npy", {4, 4}, -1);
       },
       "in.npy --fit pad",
       2,
       {"range from -1 to -1", "--rescale"}},
      {"FractionalNifti",
       [](const scratch_folder& d) {
         testing::write_nifti(d / "in.nii", 2, 2, 1, testing::nifti_float32,
                              bytes_of(std::vector<float>{0.5f, 1, 2, 3}));
       },
       "in.nii",
       2,
       {"non-integer values such as 0.5", "--rescale"}},
      {"NotANumberInTiff",
       [](const scratch_folder& d) {
         const float nan = std::numeric_limits<float>::quiet_NaN();
         testing::write_tiff_pages(d / "in.tif", 2, 2, 1, 32, SAMPLEFORMAT_IEEEFP,
                                   bytes_of(std::vector<float>{1, nan, 2, 3}));
       },
       "in.tif --rescale",
       2,
       {"NaN or infinite"}},
      // Parameters the library rejects, named by their option.
      {"PredicateOutOfRange",
       write_halves,
       "in.npy --pred-choice 7",
       2,
       {"--pred-choice 7: must be 1 (range)"}},
      {"InitLevelTooHigh",
       write_halves,
       "in.npy --init-level 4",
       2,
       {"--init-level 4: must be 0 to --max-level - 1 (3)"}},
      {"MaxLevelAgainstTheImage",
       write_halves,
       "in.npy --max-level 3",
       2,
       {"--max-level 3 and --lim-oct-level 3 do not fit", "16 x 16 x 1", "leave them out"}},
      {"SlicesAgainstLimOctLevel",
       write_halves,
       "in.npy --lim-oct-level 3",
       2,
       {"--lim-oct-level 3 do not fit", "leave them out"}},
      {"ThresholdRow",
       write_halves,
       "in.npy --pred-choice chi2 --threshold-row 0",
       2,
       {"--threshold-row 0: must be 1, 2 or 3", "with --pred-choice 4"}},
      {"NoSeeds",
       write_halves,
       "in.npy --group-mode 1 --max-seed 0",
       2,
       {"--max-seed 0: must be at least 1"}},
      // Numbers in the program's own words, one line each.
      {"InfiniteSigma", write_halves, "in.npy --sigma inf", 2, {"--sigma inf: expected a finite"}},
      {"NotANumberSigma",
       write_halves,
       "in.npy --sigma nan",
       2,
       {"--sigma nan: expected a finite number"}},
      {"WholeNumberOutOfRange",
       write_halves,
       "in.npy --small-size 99999999999",
       2,
       {"--small-size 99999999999: expected a whole number from -2147483648 to 2147483647"}},
      {"MisspeltOption", write_halves, "in.npy --sigmaa 3", 2, {"--sigmaa; did you mean --sigma?"}},
      {"OptionTwice",
       write_halves,
       "in.npy --sigma 3 --sigma 4",
       2,
       {"--sigma is given more than once"}},
      {"SecondImage", write_halves, "in.npy in.npy", 2, {"unexpected argument 'in.npy'"}},
      {"FourDimensionalNiftiWithoutVolume",
       [](const scratch_folder& d) { write_nifti_4d(d / "in.nii", 3); },
       "in.nii",
       2,
       {"holds 3 volumes (4-D)", "--volume K (0 to 2)"}},
      {"VolumeOutsideTheFile",
       [](const scratch_folder& d) { write_nifti_4d(d / "in.nii", 3); },
       "in.nii --volume 3",
       2,
       {"--volume 3 is not among its 3 volumes"}},
      {"VolumeOfA2dImage", write_halves, "in.npy --volume 0", 2, {"not one"}},
  };
  return cases;
}

class BadInput : public ::testing::TestWithParam<error_case> {};

TEST_P(BadInput, ExitsWithOneLineAndNoFilesLeft) {
  const error_case& c = GetParam();
  scratch_folder dir;
  c.make_files(dir);
  const auto files_before = dir.file_names();
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
  for (const auto& part : c.message_parts)
    EXPECT_NE(result.err.find(part), std::string::npos) << "no '" << part << "' in " << result.err;
  EXPECT_EQ(dir.file_names(), files_before);
}

INSTANTIATE_TEST_SUITE_P(Tool, BadInput, ::testing::ValuesIn(error_cases()),
                         [](const auto& info) { return info.param.name; });

// The run itself failing, or writing its results, is status 1.
TEST(RunFailure, WritingTheResultsFailsAfterTheRun) {
  scratch_folder dir;
  write_halves(dir);
  // Past the file size limit writes fail (the program ignores the signal the
  // limit raises, which would kill it).
  const auto result = testing::run_tool(dir, "in.npy --labels l.npy --quiet", "ulimit -f 1;");
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_NE(result.err.find("splitmerge: "), std::string::npos);
  EXPECT_EQ(result.err, "splitmerge: l.npy: write failed (File too large)\n");
  EXPECT_EQ(dir.file_names(), std::vector<std::string>{"in.npy"});
}

TEST(RunFailure, OutOfMemory) {
#if defined(SPLITMERGE_SANITIZED)
  GTEST_SKIP() << "sanitizers reserve more address space than the limit allows";
#endif
  scratch_folder dir;
  // Noise splits into single pixels: far more blocks than the limit leaves room for.
  std::vector<std::int32_t> noise(128 * 128 * 128);
  std::uint32_t state = 1;
  for (auto& v : noise)
    v = static_cast<std::int32_t>((state = state * 1664525u + 1013904223u) >> 24);
  io::write_npy_int32((dir / "in.npy").string(), {128, 128, 128}, noise.data());
  const auto result = testing::run_tool(dir, "in.npy --labels l.npy --quiet", "ulimit -v 150000;");
  EXPECT_EQ(result.status, 3) << result.err;
  EXPECT_NE(result.err.find("out of memory"), std::string::npos) << result.err;
  EXPECT_EQ(dir.file_names(), std::vector<std::string>{"in.npy"});
}

TEST(MemoryLimit, SizesAreBytesOrPowersOf1024) {
  EXPECT_EQ(parse_byte_size("1000000"), 1000000u);
  EXPECT_EQ(parse_byte_size("0"), 0u);
  EXPECT_EQ(parse_byte_size("512K"), 512u << 10);
  EXPECT_EQ(parse_byte_size("512M"), 512u << 20);
  EXPECT_EQ(parse_byte_size("512m"), 512u << 20);
  EXPECT_EQ(parse_byte_size("4G"), std::uint64_t{4} << 30);
  EXPECT_EQ(parse_byte_size("4GiB"), std::uint64_t{4} << 30);
  EXPECT_EQ(parse_byte_size("4GB"), std::uint64_t{4} << 30);
  EXPECT_EQ(parse_byte_size("2T"), std::uint64_t{2} << 40);
  for (const char* bad : {"", "G", "4X", "4GX", "-1", "1.5G", "4 G", "16777216T"})
    EXPECT_EQ(parse_byte_size(bad), std::nullopt) << bad;
}

TEST(MemoryLimit, ARunWithinTheLimitRuns) {
  scratch_folder dir;
  write_halves(dir);
  const auto result = testing::run_tool(dir, "in.npy --memory-limit 1G --labels l.npy --quiet");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
}

TEST(Help, ExplainsEveryOptionAndExitsZero) {
  scratch_folder dir;
  const auto result = testing::run_tool(dir, "--help");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  for (const char* option : {"--labels",
                             "--frames",
                             "--regions",
                             "--save-input",
                             "--no-display",
                             "--quiet",
                             "--frame-budget",
                             "--fit",
                             "--slice",
                             "--rescale",
                             "--max-level",
                             "--lim-oct-level",
                             "--init-level",
                             "--group-mode",
                             "--max-seed",
                             "--use-all-seeds",
                             "--pred-choice",
                             "--interval-length",
                             "--rejection",
                             "--sigma",
                             "--threshold-row",
                             "--pseudo-factor",
                             "--small-size",
                             "--statistic-update",
                             ".nii.gz",
                             ".gif",
                             "Exit status",
                             "--overlay",
                             "--version",
                             "percentiles",
                             "--threads",
                             "with a warning",
                             "--memory-limit",
                             "--volume",
                             ".jpg"})
    EXPECT_NE(result.out.find(option), std::string::npos) << option;
}

}  // namespace
}  // namespace splitmerge::tool
