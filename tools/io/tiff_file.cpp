#include "tiff_file.hpp"

#include <tiffio.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <vector>

#include "colour_to_grey.hpp"
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

// Warnings about where the data lie (libtiff then guesses); others, such as
// unknown tags, are harmless.
thread_local std::string last_tiff_warning;

void remember_placement_warning(const char* module, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  const std::string warning = text;
  for (const char* field : {"StripByteCounts", "StripOffsets", "TileByteCounts", "TileOffsets"})
    if (warning.find(field) != std::string::npos && last_tiff_warning.empty())
      last_tiff_warning = module != nullptr ? std::string(module) + ": " + warning : warning;
}

void install_handlers() {
  TIFFSetErrorHandler(remember_error);
  TIFFSetWarningHandler(remember_placement_warning);
  last_tiff_error.clear();
  last_tiff_warning.clear();
}

struct tiff_closer {
  void operator()(TIFF* t) const { TIFFClose(t); }
};
using tiff_handle = std::unique_ptr<TIFF, tiff_closer>;

std::string problem(const std::string& path, const std::string& what) {
  return path + ": " + what + (last_tiff_error.empty() ? "" : " (" + last_tiff_error + ")");
}

// What a page holds, from its tags.
struct page_layout {
  std::uint32_t width = 0, height = 0, rows_per_strip = 0;
  std::uint16_t bits = 1, samples = 1, format = SAMPLEFORMAT_UINT, photometric = 0;
  std::uint16_t planar = PLANARCONFIG_CONTIG, compression = COMPRESSION_NONE;
  bool colour = false;                  // RGB, read as its luma
  pixel_type type = pixel_type::uint8;  // of the samples, and of the grey pixels
};

page_layout layout_of(TIFF* tif, const std::string& path, const std::string& where) {
  page_layout l;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &l.width);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &l.height);
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &l.bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &l.samples);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &l.format);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PHOTOMETRIC, &l.photometric);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &l.planar);
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &l.compression);
  TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &l.rows_per_strip);
  l.colour = l.photometric == PHOTOMETRIC_RGB;
  const bool integer = l.format == SAMPLEFORMAT_UINT || l.format == SAMPLEFORMAT_INT;
  if (l.colour && (l.samples < 3 || l.format != SAMPLEFORMAT_UINT || (l.bits != 8 && l.bits != 16)))
    throw io_error(path + ": " + where + " is an RGB picture of " + std::to_string(l.samples) +
                   " samples of " + std::to_string(l.bits) +
                   " bits; colour TIFFs are read with 8 or 16-bit unsigned samples");
  if (!l.colour && l.photometric != PHOTOMETRIC_MINISBLACK &&
      l.photometric != PHOTOMETRIC_MINISWHITE)
    throw io_error(path + ": " + where + " has photometric interpretation " +
                   std::to_string(l.photometric) + "; grey and RGB TIFFs are read");
  if (!l.colour && l.samples > 2)
    throw io_error(path + ": " + where + " has " + std::to_string(l.samples) +
                   " samples per pixel; grey TIFFs have one (and at most one alpha)");
  if (!(integer && (l.bits == 8 || l.bits == 16 || l.bits == 32)) &&
      !(l.format == SAMPLEFORMAT_IEEEFP && (l.bits == 32 || l.bits == 64)))
    throw io_error(path + ": " + where + " has " + std::to_string(l.bits) +
                   "-bit samples of an unsupported kind (8, 16, 32-bit integers or 32, " +
                   "64-bit floats)");
  if (TIFFIsTiled(tif)) throw io_error(path + ": tiled TIFFs are not supported");
  if (l.format == SAMPLEFORMAT_IEEEFP) {
    l.type = l.bits == 32 ? pixel_type::float32 : pixel_type::float64;
  } else {
    const bool is_signed = l.format == SAMPLEFORMAT_INT;
    l.type = l.bits == 8    ? (is_signed ? pixel_type::int8 : pixel_type::uint8)
             : l.bits == 16 ? (is_signed ? pixel_type::int16 : pixel_type::uint16)
                            : (is_signed ? pixel_type::int32 : pixel_type::uint32);
  }
  return l;
}

// Every strip of the page lies within the file and, uncompressed, holds all
// its rows; compressed strips can hold no more than deflate's bound. Checked
// before anything is decoded, so that a cut file is refused, not padded.
void check_strips(TIFF* tif, const page_layout& l, const std::string& path,
                  const std::string& where, std::uint64_t file_size) {
  const std::uint32_t strips = TIFFNumberOfStrips(tif);
  const std::uint32_t planes = l.planar == PLANARCONFIG_SEPARATE ? l.samples : 1;
  const std::uint32_t rows_per_strip = std::min(std::max(l.rows_per_strip, 1u), l.height);
  const std::uint64_t per_plane = (std::uint64_t{l.height} + rows_per_strip - 1) / rows_per_strip;
  if (strips != per_plane * planes)
    throw io_error(path + ": " + where + " declares " + std::to_string(strips) + " strips for " +
                   std::to_string(per_plane * planes) + " strips of rows: damaged");
  std::uint64_t stored = 0;
  for (std::uint32_t s = 0; s < strips; ++s) {
    int error = 0;
    const std::uint64_t offset = TIFFGetStrileOffsetWithErr(tif, s, &error);
    const std::uint64_t bytes = TIFFGetStrileByteCountWithErr(tif, s, &error);
    const std::string strip = "strip " + std::to_string(s + 1) + " of " + std::to_string(strips);
    if (error != 0 || offset > file_size || bytes > file_size - offset)
      throw io_error(path + ": truncated TIFF file: " + where + ", " + strip + " declares bytes " +
                     std::to_string(offset) + " to " + std::to_string(offset + bytes) +
                     ", the file has " + std::to_string(file_size));
    const std::uint64_t first_row = (s % per_plane) * rows_per_strip;
    const auto rows =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(rows_per_strip, l.height - first_row));
    const std::uint64_t expected = TIFFVStripSize64(tif, rows);
    if (l.compression == COMPRESSION_NONE && bytes < expected)
      throw io_error(path + ": truncated TIFF file: " + where + ", " + strip + " holds " +
                     std::to_string(bytes) + " bytes of its " + std::to_string(expected));
    stored += bytes;
  }
  check_declared_size(path, TIFFVStripSize64(tif, l.height) * planes, stored);
}

// One row of grey pixels of type T from the channels' samples (`step`
// samples apart): the luma of RGB, or the grey sample, inverted when white
// is 0.
template <class T>
void grey_row(const unsigned char* const* channel, std::size_t step, std::uint32_t width,
              bool colour, bool inverted, std::byte* out) {
  for (std::uint32_t x = 0; x < width; ++x) {
    const auto at = [&](int c) {
      T v;
      std::memcpy(&v, channel[c] + x * step * sizeof(T), sizeof v);
      return v;
    };
    T v = colour ? static_cast<T>(grey_of_colour(static_cast<std::int64_t>(at(0)),
                                                 static_cast<std::int64_t>(at(1)),
                                                 static_cast<std::int64_t>(at(2))))
                 : at(0);
    if (inverted) v = static_cast<T>(std::numeric_limits<T>::max() - v);
    std::memcpy(out + x * sizeof(T), &v, sizeof v);
  }
}

// Makes room for page `page` (0-based) of `page_bytes` in the image's
// buffer: for all `pages` counted at the start, more only if more come.
void room_for_page(grey_image& out, std::int64_t page, std::int64_t pages, std::size_t page_bytes) {
  const auto needed = static_cast<std::size_t>(page + 1) * page_bytes;
  if (out.pixels.size() >= needed) return;
  const auto counted = static_cast<std::size_t>(std::max(page + 1, pages)) * page_bytes;
  pixel_buffer larger(std::max(counted, 2 * out.pixels.size()));
  if (out.pixels.size() != 0) std::memcpy(larger.writable(), out.pixels.data(), out.pixels.size());
  out.pixels = std::move(larger);
}

void read_page(TIFF* tif, const std::string& path, grey_image& out, std::int64_t page,
               std::int64_t pages, std::uint64_t file_size, const read_options& options) {
  const std::string where = "page " + std::to_string(page + 1);
  const page_layout l = layout_of(tif, path, where);
  if (page == 0) {
    out.size_x = l.width;
    out.size_y = l.height;
    out.type = l.type;
    if (l.colour) out.note = colour_note(path, "TIFF");
  } else if (l.width != out.size_x || l.height != out.size_y) {
    throw io_error(path + ": " + where + " is " + std::to_string(l.width) + " x " +
                   std::to_string(l.height) + ", unlike page 1");
  } else if (l.type != out.type) {
    throw io_error(path + ": " + where + " has samples of another type than page 1");
  }
  if (out.size_x < 1 || out.size_y < 1) throw io_error(path + ": TIFF page without pixels");
  check_declared_image(path, out.size_x, out.size_y, std::max(page + 1, pages), out.type, options);
  check_strips(tif, l, path, where, file_size);

  // Interleaved samples are decoded row by row; planes one after another
  // (compressed planes cannot be read in turns), each whole.
  const bool separate = l.planar == PLANARCONFIG_SEPARATE && l.samples > 1;
  const std::uint16_t used = l.colour ? 3 : 1;  // RGB, or grey; alpha is ignored
  const std::uint32_t stride = separate ? 1 : l.samples;
  const auto row_bytes = static_cast<std::size_t>(TIFFScanlineSize64(tif));
  if (row_bytes < std::size_t{l.width} * stride * (l.bits / 8u))
    throw io_error(problem(path, "unexpected TIFF scanline size"));
  const auto read_row = [&](unsigned char* into, std::uint32_t y, std::uint16_t plane) {
    if (TIFFReadScanline(tif, into, y, plane) < 0)
      throw io_error(problem(path, "cannot read row " + std::to_string(y) + " of " + where));
  };
  std::vector<std::vector<unsigned char>> planes(separate ? used : 1);
  if (separate) {
    for (std::uint16_t c = 0; c < used; ++c) {
      planes[c].resize(row_bytes * l.height);
      for (std::uint32_t y = 0; y < l.height; ++y) read_row(planes[c].data() + row_bytes * y, y, c);
    }
  } else {
    planes[0].resize(row_bytes);
  }
  const std::size_t sample = frontend::pixel_size(l.type);
  const std::size_t grey_row_bytes = std::size_t{l.width} * sample;
  const std::size_t page_bytes = grey_row_bytes * l.height;
  room_for_page(out, page, pages, page_bytes);
  const bool inverted = l.photometric == PHOTOMETRIC_MINISWHITE && l.format == SAMPLEFORMAT_UINT;
  for (std::uint32_t y = 0; y < l.height; ++y) {
    if (!separate) read_row(planes[0].data(), y, 0);
    const unsigned char* channel[3];
    for (std::uint16_t c = 0; c < used; ++c)
      channel[c] = separate ? planes[c].data() + row_bytes * y : planes[0].data() + c * sample;
    std::byte* to =
        out.pixels.writable() + page_bytes * static_cast<std::size_t>(page) + grey_row_bytes * y;
    with_pixel_type(l.type, [&](auto tag) {
      grey_row<decltype(tag)>(channel, stride, l.width, l.colour, inverted, to);
    });
  }
}

// libtiff mends some damage with a warning: strip sizes it does not believe
// are replaced by estimates, and a page directory cut short ends the file.
// Both would deliver wrong pixels silently, so both are refused here.
void check_directory(TIFF* tif, const std::string& path, std::int64_t page,
                     std::uint64_t file_size) {
  const std::string where = "page " + std::to_string(page + 1);
  if (!last_tiff_warning.empty())
    throw io_error(path + ": damaged TIFF file: " + where + ": " + last_tiff_warning);
  const std::uint64_t at = TIFFCurrentDirOffset(tif);
  const bool big = TIFFIsBigTIFF(tif) != 0;
  std::ifstream file(path, std::ios::binary);
  unsigned char count_bytes[8] = {};
  file.seekg(static_cast<std::streamoff>(at));
  file.read(reinterpret_cast<char*>(count_bytes), big ? 8 : 2);
  std::uint64_t entries = 0;
  const bool swapped = TIFFIsByteSwapped(tif) != 0;
  const bool little = (std::endian::native == std::endian::little) != swapped;
  const int width = big ? 8 : 2;
  for (int i = 0; i < width; ++i)
    entries |= std::uint64_t{count_bytes[i]} << (8 * (little ? i : width - 1 - i));
  const std::uint64_t end = big ? at + 8 + 20 * entries + 8 : at + 2 + 12 * entries + 4;
  if (!file || end > file_size)
    throw io_error(path + ": truncated TIFF file: the directory of " + where + " ends at byte " +
                   std::to_string(end) + ", the file has " + std::to_string(file_size));
}

}  // namespace

grey_image read_tiff(const std::string& path, const read_options& options) {
  install_handlers();
  std::error_code error;
  const std::uint64_t file_size = std::filesystem::file_size(path, error);
  if (error) throw io_error(path + ": cannot read TIFF (" + error.message() + ")");
  const tiff_handle tif(TIFFOpen(path.c_str(), "r"));
  if (!tif) throw io_error(problem(path, "cannot read TIFF"));
  // The page count sizes the buffer and the memory check before any pixels
  // are read; counting only follows the page links (the pages are checked as
  // they are read), so what it reports is not the first page's problem.
  const std::string first_page_warning = last_tiff_warning;
  const auto counted = static_cast<std::int64_t>(TIFFNumberOfDirectories(tif.get()));
  last_tiff_error.clear();
  last_tiff_warning = first_page_warning;
  grey_image out;
  std::int64_t pages = 0;
  for (;;) {
    check_directory(tif.get(), path, pages, file_size);
    read_page(tif.get(), path, out, pages, counted, file_size, options);
    ++pages;
    // A page that the one before points to must be there: a cut file would
    // otherwise end early, silently.
    if (TIFFLastDirectory(tif.get()) != 0) break;
    if (TIFFReadDirectory(tif.get()) == 0)
      throw io_error(problem(path, "truncated or damaged TIFF file: page " +
                                       std::to_string(pages + 1) + " cannot be read"));
  }
  out.size_z = pages;
  out.dimensions = pages > 1 ? 3 : 2;
  return out;
}

void write_tiff(const std::string& path, std::int64_t width, std::int64_t height,
                std::int64_t size_z, const std::int32_t* values, tiff_pixel pixel) {
  install_handlers();
  const tiff_handle tif(TIFFOpen(path.c_str(), "w"));
  if (!tif) throw write_failure(path);
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
        throw write_failure(path);
    }
    if (TIFFWriteDirectory(t) == 0) throw write_failure(path);
  }
  // libtiff writes straight to the file descriptor: errno holds the reason.
  if (TIFFFlush(tif.get()) == 0) throw write_failure(path);
}

}  // namespace splitmerge::io
