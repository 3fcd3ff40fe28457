#include "png_file.hpp"

#include <png.h>

#include <bit>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <vector>

#include "colour_to_grey.hpp"
#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

// Frees libpng's state however the read ends.
struct png_image_guard {
  png_image image{};
  png_image_guard() { image.version = PNG_IMAGE_VERSION; }
  ~png_image_guard() { png_image_free(&image); }
  png_image_guard(const png_image_guard&) = delete;
  png_image_guard& operator=(const png_image_guard&) = delete;
};

std::string libpng_problem(const png_image& image) {
  return image.message[0] != '\0' ? std::string(image.message) : std::string("unknown error");
}

void write_png(const std::string& path, std::int64_t width, std::int64_t height,
               std::uint32_t format, const std::uint8_t* pixels) {
  if (width < 1 || height < 1 || width > 0x7FFFFFFF || height > 0x7FFFFFFF)
    throw io_error(path + ": cannot write a PNG of " + std::to_string(width) + " x " +
                   std::to_string(height) + " pixels");
  png_image_guard guard;
  guard.image.width = static_cast<png_uint_32>(width);
  guard.image.height = static_cast<png_uint_32>(height);
  guard.image.format = format;
  // The file is opened here, not by libpng, so that a failed write keeps its
  // reason (errno) for the message.
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw write_failure(path);
  errno = 0;
  const bool encoded = png_image_write_to_stdio(&guard.image, file, 0, pixels, 0, nullptr) != 0;
  const bool flushed = std::fflush(file) == 0 && std::ferror(file) == 0;
  const int problem = errno;
  const bool closed = std::fclose(file) == 0;
  if (!flushed || !closed || (!encoded && problem != 0)) {
    if (!closed && flushed) throw write_failure(path);
    errno = problem;
    throw write_failure(path);
  }
  if (!encoded) throw io_error(path + ": cannot write PNG: " + libpng_problem(guard.image));
}

// The low-level reader, without gamma or colour-space handling, so that the
// stored samples come out as they are. libpng reports errors by longjmp; the
// two functions that call it hold nothing that needs a destructor.
struct png_reader {
  png_structp png = nullptr;
  png_infop info = nullptr;
  std::FILE* file = nullptr;
  char message[256] = "unknown error";
  bool alpha = false;
  int passes = 1;

  explicit png_reader(const std::string& path) : file(std::fopen(path.c_str(), "rb")) {
    png = png_create_read_struct(PNG_LIBPNG_VER_STRING, this, on_error, on_warning);
    if (png != nullptr) info = png_create_info_struct(png);
  }
  png_reader(const png_reader&) = delete;
  png_reader& operator=(const png_reader&) = delete;
  ~png_reader() {
    if (png != nullptr) png_destroy_read_struct(&png, info != nullptr ? &info : nullptr, nullptr);
    if (file != nullptr) std::fclose(file);
  }

  static void on_error(png_structp png, png_const_charp text) {
    auto* self = static_cast<png_reader*>(png_get_error_ptr(png));
    std::snprintf(self->message, sizeof self->message, "%s", text);
    png_longjmp(png, 1);
  }
  static void on_warning(png_structp, png_const_charp) {}
};

bool read_png_header(png_reader& r) {
  if (setjmp(png_jmpbuf(r.png))) return false;
  png_init_io(r.png, r.file);
  png_read_info(r.png, r.info);
  r.alpha = (png_get_color_type(r.png, r.info) & PNG_COLOR_MASK_ALPHA) != 0;
  // Only the expansions that keep values: palette indices to their colours,
  // 1, 2 and 4-bit grey to 8 bits; alpha dropped, 16-bit samples in the
  // machine's byte order.
  png_set_palette_to_rgb(r.png);
  png_set_expand_gray_1_2_4_to_8(r.png);
  png_set_strip_alpha(r.png);
  if constexpr (std::endian::native == std::endian::little) png_set_swap(r.png);
  r.passes = png_set_interlace_handling(r.png);
  png_read_update_info(r.png, r.info);
  return true;
}

bool read_png_rows(png_reader& r, png_bytepp rows) {
  if (setjmp(png_jmpbuf(r.png))) return false;
  png_read_image(r.png, rows);
  return true;
}

bool read_png_row(png_reader& r, png_bytep row) {
  if (setjmp(png_jmpbuf(r.png))) return false;
  png_read_row(r.png, row, nullptr);
  return true;
}

bool finish_png(png_reader& r) {
  if (setjmp(png_jmpbuf(r.png))) return false;
  png_read_end(r.png, nullptr);
  return true;
}

// The luma of a row of RGB samples of type T into a row of grey T.
template <class T>
void grey_row(const unsigned char* rgb, std::size_t width, std::byte* out) {
  for (std::size_t x = 0; x < width; ++x) {
    T c[3];
    std::memcpy(c, rgb + 3 * sizeof(T) * x, sizeof c);
    const auto v = static_cast<T>(grey_of_colour(c[0], c[1], c[2]));
    std::memcpy(out + sizeof(T) * x, &v, sizeof v);
  }
}

}  // namespace

grey_image read_png(const std::string& path, const read_options& options) {
  png_reader r(path);
  if (r.file == nullptr) throw io_error(path + ": cannot open for reading");
  if (r.png == nullptr || r.info == nullptr) throw std::bad_alloc();
  if (!read_png_header(r)) throw io_error(path + ": cannot read PNG: " + r.message);
  const png_uint_32 width = png_get_image_width(r.png, r.info);
  const png_uint_32 height = png_get_image_height(r.png, r.info);
  const int channels = png_get_channels(r.png, r.info);
  const int depth = png_get_bit_depth(r.png, r.info);
  const std::size_t row_bytes = png_get_rowbytes(r.png, r.info);
  if ((depth != 8 && depth != 16) || (channels != 1 && channels != 3))
    throw io_error(path + ": unsupported PNG layout");
  grey_image out;
  out.size_x = width;
  out.size_y = height;
  out.type = depth == 16 ? pixel_type::uint16 : pixel_type::uint8;
  check_declared_image(path, width, height, 1, out.type, options);
  std::error_code error;
  check_declared_size(path, std::uint64_t{row_bytes} * height,
                      std::filesystem::file_size(path, error));

  // Grey rows are decoded in place; colour ones a row at a time (all of
  // them when interlaced), each turned into its grey row at once.
  const std::size_t grey_bytes = std::size_t{width} * (depth / 8);
  out.pixels = pixel_buffer(grey_bytes * height);
  std::byte* grey = out.pixels.writable();
  const bool colour = channels == 3;
  const bool whole = !colour || r.passes > 1;
  std::vector<unsigned char> colour_rows(colour ? row_bytes * (whole ? height : 1) : 0);
  const auto row_at = [&](png_uint_32 y) {
    return colour ? colour_rows.data() + (whole ? row_bytes * y : 0)
                  : reinterpret_cast<png_bytep>(grey + grey_bytes * y);
  };
  const auto to_grey = [&](png_uint_32 y) {
    if (depth == 8) grey_row<std::uint8_t>(row_at(y), width, grey + grey_bytes * y);
    if (depth == 16) grey_row<std::uint16_t>(row_at(y), width, grey + grey_bytes * y);
  };
  bool read = true;
  if (whole) {
    std::vector<png_bytep> rows(height);
    for (png_uint_32 y = 0; y < height; ++y) rows[y] = row_at(y);
    read = read_png_rows(r, rows.data());
    if (colour)
      for (png_uint_32 y = 0; y < height && read; ++y) to_grey(y);
  } else {
    for (png_uint_32 y = 0; y < height && read; ++y) {
      read = read_png_row(r, row_at(y));
      if (read) to_grey(y);
    }
  }
  if (!read || !finish_png(r)) throw io_error(path + ": cannot read PNG: " + r.message);
  if (colour) out.note = colour_note(path, "PNG");
  if (r.alpha)
    out.note += std::string(out.note.empty() ? "" : "; ") + path +
                " has an alpha channel, which is ignored";
  return out;
}

void write_png_grey(const std::string& path, std::int64_t width, std::int64_t height,
                    const std::uint8_t* pixels) {
  write_png(path, width, height, PNG_FORMAT_GRAY, pixels);
}

void write_png_rgb(const std::string& path, std::int64_t width, std::int64_t height,
                   const std::uint8_t* rgb) {
  write_png(path, width, height, PNG_FORMAT_RGB, rgb);
}

}  // namespace splitmerge::io
