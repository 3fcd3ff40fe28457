// Every reader refuses a file that holds less than its header declares: real
// files cut at several points, each header field that sizes or places the data
// corrupted, and headers declaring more than memory allows, refused before
// anything is allocated. One table of every format's damaged variants.
#include <gtest/gtest.h>
#include <png.h>
#include <tiffio.h>
#include <zlib.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "grey_image.hpp"
#include "npy.hpp"
#include "pgm_file.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::read_file;
using testing::scratch_folder;

struct damaged_file {
  std::string name;
  std::string extension;
  std::string bytes;
  std::string message = "";  // a part of it, where the kind of damage has its own
  std::optional<std::int64_t> volume = {};
};

std::string cut(const std::string& bytes, double fraction) {
  return bytes.substr(0, static_cast<std::size_t>(static_cast<double>(bytes.size()) * fraction));
}

template <class T>
std::string patched(std::string bytes, std::size_t offset, T value) {
  char raw[sizeof value];
  std::memcpy(raw, &value, sizeof value);
  bytes.replace(offset, sizeof value, raw, sizeof value);
  return bytes;
}

// Where the value of a tag of a little-endian TIFF's first page lies, and its
// type (3 short, 4 long); of tag 0, where its link to the next page lies.
std::pair<std::size_t, std::uint16_t> tiff_value(const std::string& tiff, std::uint16_t tag) {
  std::uint32_t ifd = 0;
  std::memcpy(&ifd, tiff.data() + 4, 4);
  std::uint16_t entries = 0;
  std::memcpy(&entries, tiff.data() + ifd, 2);
  for (std::uint16_t i = 0; i < entries; ++i) {
    const std::size_t entry = ifd + 2 + 12u * i;
    std::uint16_t found = 0, type = 0;
    std::memcpy(&found, tiff.data() + entry, 2);
    std::memcpy(&type, tiff.data() + entry + 2, 2);
    if (found == tag) return {entry + 8, type};
  }
  if (tag == 0) return {ifd + 2 + 12u * entries, 4};
  throw std::runtime_error("no TIFF tag " + std::to_string(tag));
}

std::string tiff_patched(const std::string& tiff, std::uint16_t tag, std::uint32_t value) {
  const auto [offset, type] = tiff_value(tiff, tag);
  return type == 3 ? patched(tiff, offset, static_cast<std::uint16_t>(value))
                   : patched(tiff, offset, value);
}

// The PNG with its header (and the header's checksum) declaring side x side.
std::string png_declaring(std::string png, std::uint32_t side) {
  const auto put_be32 = [&png](std::size_t at, std::uint32_t v) {
    for (int k = 0; k < 4; ++k) png[at + k] = static_cast<char>(v >> (24 - 8 * k));
  };
  put_be32(16, side);
  put_be32(20, side);
  put_be32(29, static_cast<std::uint32_t>(
                   crc32(0, reinterpret_cast<const Bytef*>(png.data() + 12), 17)));
  return png;
}

std::vector<damaged_file> damaged_variants(const scratch_folder& dir) {
  std::vector<damaged_file> out;
  const auto add_cuts = [&out](const std::string& kind, const std::string& ext,
                               const std::string& bytes, std::vector<double> fractions) {
    for (const double f : fractions)
      out.push_back({kind + " cut at " + std::to_string(f), ext, cut(bytes, f)});
  };

  // TIFF: 8 pages of 32 x 32 uint16, uncompressed, one strip a page.
  std::vector<std::uint16_t> samples(8 * 32 * 32);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::uint16_t>(i * 7);
  testing::write_tiff_pages(dir / "plain.tif", 32, 32, 8, 16, SAMPLEFORMAT_UINT,
                            testing::bytes_of(samples), false);
  const std::string tiff = read_file(dir / "plain.tif");
  add_cuts("tiff", ".tif", tiff, {0.05, 0.25, 0.5, 0.75, 0.99});
  const std::uint32_t tiff_size = static_cast<std::uint32_t>(tiff.size());
  const std::vector<std::pair<std::string, std::pair<std::uint16_t, std::uint32_t>>> tags = {
      {"width", {TIFFTAG_IMAGEWIDTH, 64}},   {"height", {TIFFTAG_IMAGELENGTH, 64}},
      {"bits", {TIFFTAG_BITSPERSAMPLE, 32}}, {"samples", {TIFFTAG_SAMPLESPERPIXEL, 2}},
      {"rows per strip", {TIFFTAG_ROWSPERSTRIP, 1}},
      {"strip offset past the end", {TIFFTAG_STRIPOFFSETS, tiff_size - 100}},
      {"strip offset far away", {TIFFTAG_STRIPOFFSETS, 0xFFFFFF00u}},
      {"strip bytes half", {TIFFTAG_STRIPBYTECOUNTS, 1024}},
      {"strip bytes huge", {TIFFTAG_STRIPBYTECOUNTS, 0x7FFFFFFFu}},
      {"next page past the end", {0, tiff_size + 1000}},
  };
  for (const auto& [what, change] : tags)
    out.push_back({"tiff " + what, ".tif", tiff_patched(tiff, change.first, change.second)});
  // Compressed pages, two rows a strip.
  testing::write_tiff_pages(dir / "lzw.tif", 32, 32, 8, 8, 1, std::string(8 * 32 * 32, '\x21'));
  add_cuts("lzw tiff", ".tif", read_file(dir / "lzw.tif"), {0.25, 0.5, 0.9});

  // NIfTI-1: 8 x 8 x 4 uint8, 608 bytes.
  std::string voxels(256, '\0');
  for (std::size_t i = 0; i < voxels.size(); ++i) voxels[i] = static_cast<char>(i);
  testing::write_nifti(dir / "one.nii", 8, 8, 4, testing::nifti_uint8, voxels);
  const std::string nifti = read_file(dir / "one.nii");
  add_cuts("nifti-1", ".nii", nifti, {0.3, 348.0 / 608, 352.0 / 608, 0.8, 0.999});
  for (const float offset : {3e9f, 1e12f, -100.0f, 0.0f, 348.0f, 352.5f, 400.0f, 1e20f,
                             std::numeric_limits<float>::quiet_NaN()})
    out.push_back(
        {"nifti-1 vox_offset " + std::to_string(offset), ".nii", patched(nifti, 108, offset)});
  const std::vector<std::pair<std::string, std::pair<std::size_t, std::int16_t>>> fields = {
      {"dim[0] 0", {40, 0}},   {"dim[0] 8", {40, 8}},       {"dim[1] 0", {42, 0}},
      {"dim[1] -1", {42, -1}}, {"dim[1] 16", {42, 16}},     {"dim[3] 8", {46, 8}},
      {"4-D", {40, 4}},        {"datatype rgb", {70, 128}}, {"bitpix 16", {72, 16}},
  };
  for (const auto& [what, change] : fields) {
    std::string bytes = patched(nifti, change.first, change.second);
    if (what == "4-D") bytes = patched(bytes, 48, std::int16_t{2});
    out.push_back({"nifti-1 " + what, ".nii", bytes});
  }
  out.push_back({"nifti-1 4-D, second volume", ".nii",
                 patched(patched(nifti, 40, std::int16_t{4}), 48, std::int16_t{2}), "", 1});
  out.push_back({"nifti-1 header size", ".nii", patched(nifti, 0, std::int32_t{349})});
  out.push_back({"nifti-1 magic of a pair", ".nii", patched(nifti, 344, 0x0031696Eu)});

  // NIfTI-2: 4 x 4 x 2 uint8, 576 bytes.
  testing::write_nifti2(dir / "two.nii", 4, 4, 2, std::vector<std::uint8_t>(32, 9));
  const std::string nifti2 = read_file(dir / "two.nii");
  add_cuts("nifti-2", ".nii", nifti2, {0.5, 540.0 / 576, 560.0 / 576, 0.999});
  for (const std::int64_t offset : {std::int64_t{1} << 40, std::int64_t{-1}, std::int64_t{0},
                                    std::int64_t{543}, std::int64_t{560}})
    out.push_back(
        {"nifti-2 vox_offset " + std::to_string(offset), ".nii", patched(nifti2, 168, offset)});
  out.push_back({"nifti-2 dim[1] huge", ".nii", patched(nifti2, 24, std::int64_t{1} << 40)});
  out.push_back({"nifti-2 dim[1] 0", ".nii", patched(nifti2, 24, std::int64_t{0})});
  out.push_back({"nifti-2 bitpix", ".nii", patched(nifti2, 14, std::int16_t{16})});

  // The other formats, cut.
  std::vector<std::uint8_t> rgb(32 * 32 * 3);
  for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>(i * 31);
  testing::write_jpeg(dir / "colour.jpg", 32, 32, 3, rgb);
  add_cuts("jpeg", ".jpg", read_file(dir / "colour.jpg"), {0.3, 0.6, 0.95});
  std::vector<std::uint16_t> rgba(32 * 32 * 4);
  for (std::size_t i = 0; i < rgba.size(); ++i) rgba[i] = static_cast<std::uint8_t>(i * 13);
  testing::write_png_samples(dir / "colour.png", 32, 32, 8, PNG_COLOR_TYPE_RGB_ALPHA, rgba, 0,
                             false);
  add_cuts("png", ".png", read_file(dir / "colour.png"), {0.5, 0.9});
  const std::vector<std::int32_t> labels(16 * 16, 3);
  io::write_npy_int32((dir / "in.npy").string(), {16, 16}, labels.data());
  add_cuts("npy", ".npy", read_file(dir / "in.npy"), {0.5, 0.99});
  const std::vector<std::uint8_t> grey(16 * 16, 5);
  io::write_pgm((dir / "in.pgm").string(), 16, 16, grey.data());
  add_cuts("pgm", ".pgm", read_file(dir / "in.pgm"), {0.99});

  // Headers that declare more than memory allows: refused before allocating.
  const std::string png = read_file(dir / "colour.png");
  out.push_back({"png header only", ".png", png_declaring(png, 12000),
                 "truncated or damaged: the header declares "});
  out.push_back({"png of too many pixels", ".png", png_declaring(png, 100000),
                 "pixels, more than the"});
  const auto huge = [](std::string bytes) {
    for (const std::size_t at : {42u, 44u, 46u}) bytes = patched(bytes, at, std::int16_t{30000});
    return bytes;
  };
  out.push_back({"nifti-1 of a huge volume", ".nii", huge(nifti), "pixels, more than the"});
  std::string noise(64 * 64 * 16, '\0');
  for (std::size_t i = 0; i < noise.size(); ++i)
    noise[i] = static_cast<char>((i * 2654435761u) >> 24);
  testing::write_nifti(dir / "noise.nii.gz", 64, 64, 16, testing::nifti_uint8, noise);
  out.push_back({"compressed nifti-1 cut", ".nii.gz", cut(read_file(dir / "noise.nii.gz"), 0.5),
                 "truncated NIfTI file"});
  testing::write_npy_raw(dir / "huge.npy", "<u1", {100000, 100000, 100}, false, "abc");
  out.push_back({"npy of a huge shape", ".npy", read_file(dir / "huge.npy")});
  out.push_back(
      {"pgm of a huge size", ".pgm", "P5\n16000 16000\n255\nabc", "shorter than its size says"});
  return out;
}

// Each is refused with exit 2 and one line, and nothing is written, within a
// memory limit far below what the declared sizes would take.
TEST(DamagedFiles, EveryCutAndEveryCorruptedSizeFieldIsRefused) {
  scratch_folder dir;
  const std::vector<damaged_file> variants = damaged_variants(dir);
  // The undamaged files read.
  for (const char* name : {"plain.tif", "lzw.tif", "one.nii", "two.nii", "colour.jpg", "colour.png",
                           "in.npy", "in.pgm"})
    EXPECT_NO_THROW(io::read_grey_image((dir / name).string())) << name;
  EXPECT_EQ(io::read_grey_image((dir / "plain.tif").string()).size_z, 8);
#if defined(SPLITMERGE_SANITIZED)
  const std::string limit;
#else
  // Below half of any size a header here declares, above what the program
  // needs before any image.
  const std::string limit = testing::address_space_limit(144000000 / 2 / 1024);
#endif
  for (const damaged_file& file : variants) {
    SCOPED_TRACE(file.name);
    const std::string name = "damaged" + file.extension;
    std::ofstream(dir / name, std::ios::binary | std::ios::trunc) << file.bytes;
    const std::string volume = file.volume ? " --volume " + std::to_string(*file.volume) : "";
    const auto run = testing::run_tool(dir, name + volume + " --labels l.npy", limit);
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_EQ(run.err.rfind("splitmerge: " + name + ": ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(file.message), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    EXPECT_FALSE(std::filesystem::exists(dir / "l.npy"));
  }
}

}  // namespace
}  // namespace splitmerge::tool
