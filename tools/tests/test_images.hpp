// Writing inputs in the ways other programs write them, and reading outputs
// back, straight through the format libraries (not through splitmerge_io).
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace splitmerge::tool::testing {

// A .npy file of the given dtype (e.g. "<u1", ">i2", "<f8") from raw element bytes.
void write_npy_raw(const std::filesystem::path& path, const std::string& dtype,
                   const std::vector<std::int64_t>& shape, bool fortran_order,
                   const std::string& element_bytes);

template <class T>
std::string bytes_of(const std::vector<T>& values) {
  std::string out(values.size() * sizeof(T), '\0');
  std::memcpy(out.data(), values.data(), out.size());
  return out;
}

// .npy int32 noise of 0..255, the same every time: it splits into many blocks.
void write_noise(const std::filesystem::path& path, const std::vector<std::int64_t>& shape);

// A PNG of stored samples (8 or 16 bits, any PNG_COLOR_TYPE_*), with a gAMA
// chunk when gamma > 0 and an sRGB chunk when asked.
void write_png_samples(const std::filesystem::path& path, int width, int height, int bit_depth,
                       int colour_type, const std::vector<std::uint16_t>& samples, double gamma,
                       bool srgb);
// Three bytes per pixel.
std::vector<std::uint8_t> read_png_rgb(const std::filesystem::path& path, int& width, int& height);

// Pages of grey samples; sample_format is a TIFF SAMPLEFORMAT_* value. Compressed:
// LZW, two rows a strip; else uncompressed, each page one strip.
void write_tiff_pages(const std::filesystem::path& path, int width, int height, int pages, int bits,
                      int sample_format, const std::string& sample_bytes, bool compressed = true);
// An 8-bit RGB picture, three bytes per pixel, the samples interleaved or
// (separate_planes) stored as three planes.
void write_tiff_rgb(const std::filesystem::path& path, int width, int height, bool separate_planes,
                    const std::vector<std::uint8_t>& rgb);

// A JPEG of 1 (grey) or 3 (RGB) components per pixel, and the pixels libjpeg
// decodes from it again (three bytes per pixel for colour).
void write_jpeg(const std::filesystem::path& path, int width, int height, int components,
                const std::vector<std::uint8_t>& pixels);
std::vector<std::uint8_t> decode_jpeg(const std::filesystem::path& path);

// A single-file NIfTI-2 volume of uint8 voxels, x fastest.
void write_nifti2(const std::filesystem::path& path, int nx, int ny, int nz,
                  const std::vector<std::uint8_t>& voxels);

// A NIfTI-1 volume of the given NIFTI datatype (DT_*), x fastest; 4-D with
// more than one volume.
void write_nifti(const std::filesystem::path& path, int nx, int ny, int nz, int datatype,
                 const std::string& voxel_bytes, float scl_slope = 0.0f, float scl_inter = 0.0f,
                 int volumes = 1);
inline constexpr int nifti_uint8 = 2, nifti_float32 = 16;

struct decoded_gif {
  int width = 0, height = 0;
  std::array<std::array<std::uint8_t, 3>, 256> palette{};
  std::vector<std::vector<std::uint8_t>> frames;
  std::vector<int> delays_cs;
  bool loops_forever = false;
};
decoded_gif read_gif(const std::filesystem::path& path);

}  // namespace splitmerge::tool::testing
