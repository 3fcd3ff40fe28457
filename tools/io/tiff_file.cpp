#include "tiff_file.hpp"

#include <tiffio.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

// libtiff reports through process-wide handlers; keep the last error for the
// exception and drop warnings (unknown tags and the like).
thread_local std::string last_tiff_error;

void remember_error(const char* module, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  last_tiff_error = module != nullptr ? std::string(module) + ": " + text : std::string(text);
}

void ignore_warning(const char*, const char*, va_list) {}

void install_handlers() {
  TIFFSetErrorHandler(remember_error);
  TIFFSetWarningHandler(ignore_warning);
  last_tiff_error.clear();
}

struct tiff_closer {
  void operator()(TIFF* t) const { TIFFClose(t); }
};
using tiff_handle = std::unique_ptr<TIFF, tiff_closer>;

std::string problem(const std::string& path, const std::string& what) {
  return path + ": " + what + (last_tiff_error.empty() ? "" : " (" + last_tiff_error + ")");
}

template <class T>
double sample_at(const unsigned char* row, std::uint32_t x) {
  T v;
  std::memcpy(&v, row + x * sizeof(T), sizeof(T));
  return static_cast<double>(v);
}

// One row of samples as doubles, by bit depth and sample format.
double sample(const unsigned char* row, std::uint32_t x, std::uint16_t bits, std::uint16_t format) {
  if (format == SAMPLEFORMAT_IEEEFP)
    return bits == 32 ? sample_at<float>(row, x) : sample_at<double>(row, x);
  const bool is_signed = format == SAMPLEFORMAT_INT;
  switch (bits) {
    case 8:
      return is_signed ? sample_at<std::int8_t>(row, x) : sample_at<std::uint8_t>(row, x);
    case 16:
      return is_signed ? sample_at<std::int16_t>(row, x) : sample_at<std::uint16_t>(row, x);
    default:
      return is_signed ? sample_at<std::int32_t>(row, x) : sample_at<std::uint32_t>(row, x);
  }
}

void read_page(TIFF* tif, const std::string& path, grey_image& out, std::int64_t page) {
  std::uint32_t width = 0, height = 0;
  std::uint16_t bits = 1, samples = 1, format = SAMPLEFORMAT_UINT, photometric = 0;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PHOTOMETRIC, &photometric);
  const std::string where = "page " + std::to_string(page + 1);
  if (samples != 1)
    throw io_error(path + ": " + where + " has " + std::to_string(samples) +
                   " samples per pixel; only grey TIFFs are read");
  const bool integer = format == SAMPLEFORMAT_UINT || format == SAMPLEFORMAT_INT;
  if (!(integer && (bits == 8 || bits == 16 || bits == 32)) &&
      !(format == SAMPLEFORMAT_IEEEFP && (bits == 32 || bits == 64)))
    throw io_error(path + ": " + where + " has " + std::to_string(bits) +
                   "-bit samples of an unsupported kind (8, 16, 32-bit integers or 32, " +
                   "64-bit floats)");
  if (TIFFIsTiled(tif)) throw io_error(path + ": tiled TIFFs are not supported");
  if (page == 0) {
    out.size_x = width;
    out.size_y = height;
  } else if (width != out.size_x || height != out.size_y) {
    throw io_error(path + ": " + where + " is " + std::to_string(width) + " x " +
                   std::to_string(height) + ", unlike page 1");
  }
  if (out.size_x < 1 || out.size_y < 1) throw io_error(path + ": TIFF page without pixels");
  check_pixel_count(path, out.size_x, out.size_y, page + 1);

  std::vector<unsigned char> row(static_cast<std::size_t>(TIFFScanlineSize(tif)));
  if (row.size() < std::size_t{width} * (bits / 8u))
    throw io_error(problem(path, "unexpected TIFF scanline size"));
  const double white = integer && format == SAMPLEFORMAT_UINT ? double((1ull << bits) - 1) : 0;
  const bool inverted = photometric == PHOTOMETRIC_MINISWHITE && format == SAMPLEFORMAT_UINT;
  // Rows are appended as they are decoded, so that a header declaring more
  // rows than the file holds costs no more memory than the rows it has.
  for (std::uint32_t y = 0; y < height; ++y) {
    if (TIFFReadScanline(tif, row.data(), y, 0) < 0)
      throw io_error(problem(path, "cannot read row " + std::to_string(y) + " of " + where));
    for (std::uint32_t x = 0; x < width; ++x) {
      const double v = sample(row.data(), x, bits, format);
      out.values.push_back(inverted ? white - v : v);
    }
  }
}

}  // namespace

grey_image read_tiff(const std::string& path) {
  install_handlers();
  const tiff_handle tif(TIFFOpen(path.c_str(), "r"));
  if (!tif) throw io_error(problem(path, "cannot read TIFF"));
  grey_image out;
  std::int64_t pages = 0;
  do {
    read_page(tif.get(), path, out, pages);
    ++pages;
  } while (TIFFReadDirectory(tif.get()) != 0);
  out.size_z = pages;
  out.dimensions = pages > 1 ? 3 : 2;
  return out;
}

void write_tiff(const std::string& path, std::int64_t width, std::int64_t height,
                std::int64_t size_z, const std::int32_t* values, tiff_pixel pixel) {
  install_handlers();
  const tiff_handle tif(TIFFOpen(path.c_str(), "w"));
  if (!tif) throw io_error(problem(path, "cannot write TIFF"));
  const bool grey8 = pixel == tiff_pixel::grey8;
  const std::size_t bytes = grey8 ? 1 : 4;
  std::vector<unsigned char> row(static_cast<std::size_t>(width) * bytes);
  for (std::int64_t z = 0; z < size_z; ++z) {
    TIFF* t = tif.get();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(height));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<std::uint16_t>(8 * bytes));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, std::uint16_t{1});
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, grey8 ? SAMPLEFORMAT_UINT : SAMPLEFORMAT_INT);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    if (size_z > 1) {
      TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
      TIFFSetField(t, TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(z),
                   static_cast<std::uint16_t>(size_z));
    }
    for (std::int64_t y = 0; y < height; ++y) {
      const std::int32_t* src = values + (z * height + y) * width;
      for (std::int64_t x = 0; x < width; ++x) {
        if (grey8) {
          row[static_cast<std::size_t>(x)] = static_cast<unsigned char>(src[x]);
        } else {
          std::memcpy(row.data() + x * 4, src + x, 4);
        }
      }
      if (TIFFWriteScanline(t, row.data(), static_cast<std::uint32_t>(y), 0) < 0)
        throw io_error(problem(path, "cannot write TIFF row"));
    }
    if (TIFFWriteDirectory(t) == 0) throw io_error(problem(path, "cannot write TIFF page"));
  }
}

}  // namespace splitmerge::io
