#include "test_images.hpp"

#include <gif_lib.h>
#include <nifti1_io.h>
#include <png.h>
#include <tiffio.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

// After <cstdio>: jpeglib.h needs FILE and size_t declared.
#include <jpeglib.h>

namespace splitmerge::tool::testing {

void write_npy_raw(const std::filesystem::path& path, const std::string& dtype,
                   const std::vector<std::int64_t>& shape, bool fortran_order,
                   const std::string& element_bytes) {
  std::string dims;
  for (const auto d : shape) dims += std::to_string(d) + ",";
  std::string header = "{'descr': '" + dtype +
                       "', 'fortran_order': " + (fortran_order ? "True" : "False") +
                       ", 'shape': (" + dims + "), }";
  header.append(63 - (10 + header.size()) % 64, ' ');
  header += '\n';
  std::ofstream out(path, std::ios::binary);
  out.write("\x93NUMPY\x01\x00", 8);
  out.put(static_cast<char>(header.size() & 0xFF));
  out.put(static_cast<char>(header.size() >> 8));
  out << header << element_bytes;
}

void write_noise(const std::filesystem::path& path, const std::vector<std::int64_t>& shape) {
  std::int64_t n = 1;
  for (const auto d : shape) n *= d;
  std::vector<std::int32_t> v(static_cast<std::size_t>(n));
  std::uint32_t state = 5;
  for (auto& x : v) x = static_cast<std::int32_t>((state = state * 1664525u + 1013904223u) >> 24);
  write_npy_raw(path, "<i4", shape, false, bytes_of(v));
}

void write_png_samples(const std::filesystem::path& path, int width, int height, int bit_depth,
                       int colour_type, const std::vector<std::uint16_t>& samples, double gamma,
                       bool srgb) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw std::runtime_error("cannot write " + path.string());
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height),
               bit_depth, colour_type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  if (gamma > 0) png_set_gAMA(png, info, gamma);
  if (srgb) png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  png_write_info(png, info);
  const std::size_t per_row = samples.size() / static_cast<std::size_t>(height);
  std::vector<std::uint8_t> row;
  for (int y = 0; y < height; ++y) {
    row.clear();
    for (std::size_t i = 0; i < per_row; ++i) {
      const std::uint16_t v = samples[static_cast<std::size_t>(y) * per_row + i];
      if (bit_depth == 16) row.push_back(static_cast<std::uint8_t>(v >> 8));
      row.push_back(static_cast<std::uint8_t>(v & 0xFF));
    }
    png_write_row(png, row.data());
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  std::fclose(file);
}

std::vector<std::uint8_t> read_png_rgb(const std::filesystem::path& path, int& width, int& height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0)
    throw std::runtime_error("cannot read " + path.string() + ": " + image.message);
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
  if (png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr) == 0)
    throw std::runtime_error("cannot read " + path.string() + ": " + image.message);
  width = static_cast<int>(image.width);
  height = static_cast<int>(image.height);
  return rgb;
}

void write_tiff_pages(const std::filesystem::path& path, int width, int height, int pages, int bits,
                      int sample_format, const std::string& sample_bytes, bool compressed) {
  TIFF* tif = TIFFOpen(path.c_str(), "w");
  if (tif == nullptr) throw std::runtime_error("cannot write " + path.string());
  const std::size_t row_bytes = static_cast<std::size_t>(width) * (bits / 8);
  for (int page = 0; page < pages; ++page) {
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, sample_format);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, compressed ? COMPRESSION_LZW : COMPRESSION_NONE);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, compressed ? 2 : height);
    for (int y = 0; y < height; ++y) {
      std::string row =
          sample_bytes.substr((static_cast<std::size_t>(page) * height + y) * row_bytes, row_bytes);
      TIFFWriteScanline(tif, row.data(), static_cast<std::uint32_t>(y), 0);
    }
    TIFFWriteDirectory(tif);
  }
  TIFFClose(tif);
}

void write_tiff_rgb(const std::filesystem::path& path, int width, int height, bool separate_planes,
                    const std::vector<std::uint8_t>& rgb) {
  TIFF* tif = TIFFOpen(path.c_str(), "w");
  if (tif == nullptr) throw std::runtime_error("cannot write " + path.string());
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG,
               separate_planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  std::vector<std::uint8_t> row(static_cast<std::size_t>(width) * 3);
  for (int plane = 0; plane < (separate_planes ? 3 : 1); ++plane)
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width * (separate_planes ? 1 : 3); ++x)
        row[static_cast<std::size_t>(x)] =
            separate_planes ? rgb[static_cast<std::size_t>((y * width + x) * 3 + plane)]
                            : rgb[static_cast<std::size_t>(y * width * 3 + x)];
      TIFFWriteScanline(tif, row.data(), static_cast<std::uint32_t>(y),
                        static_cast<std::uint16_t>(plane));
    }
  TIFFClose(tif);
}

void write_jpeg(const std::filesystem::path& path, int width, int height, int components,
                const std::vector<std::uint8_t>& pixels) {
  jpeg_compress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw std::runtime_error("cannot write " + path.string());
  jpeg_stdio_dest(&info, file);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = components;
  info.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 90, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPLE*>(pixels.data()) +
                   static_cast<std::size_t>(info.next_scanline) * width * components;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::fclose(file);
}

std::vector<std::uint8_t> decode_jpeg(const std::filesystem::path& path) {
  jpeg_decompress_struct info{};
  jpeg_error_mgr errors{};
  info.err = jpeg_std_error(&errors);
  jpeg_create_decompress(&info);
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) throw std::runtime_error("cannot read " + path.string());
  jpeg_stdio_src(&info, file);
  jpeg_read_header(&info, TRUE);
  if (info.jpeg_color_space != JCS_GRAYSCALE) info.out_color_space = JCS_RGB;
  jpeg_start_decompress(&info);
  const std::size_t row_size = std::size_t{info.output_width} * info.output_components;
  std::vector<std::uint8_t> out(row_size * info.output_height);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = out.data() + row_size * info.output_scanline;
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  std::fclose(file);
  return out;
}

void write_nifti2(const std::filesystem::path& path, int nx, int ny, int nz,
                  const std::vector<std::uint8_t>& voxels) {
  std::string header(544, '\0');  // the header and four bytes saying "no extensions"
  const auto put = [&header](std::size_t offset, const auto value) {
    std::memcpy(header.data() + offset, &value, sizeof value);
  };
  put(0, std::int32_t{540});
  std::memcpy(header.data() + 4, "n+2\0\r\n\032\n", 8);
  put(12, std::int16_t{2});  // DT_UINT8
  put(14, std::int16_t{8});
  const std::int64_t dims[8] = {3, nx, ny, nz, 1, 1, 1, 1};
  for (int d = 0; d < 8; ++d) put(16 + 8 * d, dims[d]);
  for (int d = 0; d < 8; ++d) put(104 + 8 * d, 1.0);
  put(168, std::int64_t{544});
  std::ofstream(path, std::ios::binary) << header << std::string(voxels.begin(), voxels.end());
}

void write_nifti(const std::filesystem::path& path, int nx, int ny, int nz, int datatype,
                 const std::string& voxel_bytes, float scl_slope, float scl_inter, int volumes) {
  const int dims[8] = {volumes > 1 ? 4 : 3, nx, ny, nz, volumes, 1, 1, 1};
  nifti_image* nim = nifti_make_new_nim(dims, datatype, 1);  // 1: allocate the data
  if (nim == nullptr) throw std::runtime_error("cannot make a NIfTI image");
  std::memcpy(nim->data, voxel_bytes.data(), voxel_bytes.size());
  nim->scl_slope = scl_slope;
  nim->scl_inter = scl_inter;
  if (nifti_set_filenames(nim, path.c_str(), 0, 1) != 0)
    throw std::runtime_error("bad NIfTI file name " + path.string());
  nifti_image_write(nim);
  nifti_image_free(nim);
  if (!std::filesystem::exists(path)) throw std::runtime_error("no " + path.string());
}

decoded_gif read_gif(const std::filesystem::path& path) {
  int error = 0;
  GifFileType* gif = DGifOpenFileName(path.c_str(), &error);
  if (gif == nullptr) throw std::runtime_error("cannot open " + path.string());
  if (DGifSlurp(gif) != GIF_OK) {
    DGifCloseFile(gif, &error);
    throw std::runtime_error("cannot decode " + path.string());
  }
  decoded_gif out;
  out.width = gif->SWidth;
  out.height = gif->SHeight;
  if (gif->SColorMap != nullptr)
    for (int i = 0; i < gif->SColorMap->ColorCount && i < 256; ++i) {
      const GifColorType c = gif->SColorMap->Colors[i];
      out.palette[static_cast<std::size_t>(i)] = {c.Red, c.Green, c.Blue};
    }
  for (int i = 0; i < gif->ImageCount; ++i) {
    const SavedImage& image = gif->SavedImages[i];
    const std::size_t n = static_cast<std::size_t>(image.ImageDesc.Width) * image.ImageDesc.Height;
    out.frames.emplace_back(image.RasterBits, image.RasterBits + n);
    GraphicsControlBlock control{};
    DGifSavedExtensionToGCB(gif, i, &control);
    out.delays_cs.push_back(control.DelayTime);
    for (int e = 0; e + 1 < image.ExtensionBlockCount; ++e) {
      const ExtensionBlock& block = image.ExtensionBlocks[e];
      if (block.Function == APPLICATION_EXT_FUNC_CODE && block.ByteCount == 11 &&
          std::memcmp(block.Bytes, "NETSCAPE2.0", 11) == 0) {
        const ExtensionBlock& next = image.ExtensionBlocks[e + 1];
        out.loops_forever =
            next.ByteCount == 3 && next.Bytes[0] == 1 && next.Bytes[1] == 0 && next.Bytes[2] == 0;
      }
    }
  }
  DGifCloseFile(gif, &error);
  return out;
}

}  // namespace splitmerge::tool::testing
