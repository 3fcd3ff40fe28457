#include "jpeg_file.hpp"

#include <csetjmp>
#include <cstdio>
#include <filesystem>
#include <vector>

// jpeglib.h needs size_t and FILE declared first.
#include <jpeglib.h>

#include "colour_to_grey.hpp"
#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

// libjpeg ends a failed read by longjmp from its error handler; the message
// is kept for the exception. Warnings (a premature end, damaged data) count as
// failures too: libjpeg would carry on with made-up pixels.
struct jpeg_reader {
  jpeg_decompress_struct info{};
  jpeg_error_mgr errors{};
  std::jmp_buf on_error{};
  char message[JMSG_LENGTH_MAX] = "unknown error";
  std::FILE* file = nullptr;

  explicit jpeg_reader(const std::string& path) : file(std::fopen(path.c_str(), "rb")) {
    info.err = jpeg_std_error(&errors);
    errors.error_exit = fail;
    errors.emit_message = warn;
    info.client_data = this;
    jpeg_create_decompress(&info);
  }
  jpeg_reader(const jpeg_reader&) = delete;
  jpeg_reader& operator=(const jpeg_reader&) = delete;
  ~jpeg_reader() {
    jpeg_destroy_decompress(&info);
    if (file != nullptr) std::fclose(file);
  }

  static void fail(j_common_ptr c) {
    auto* self = static_cast<jpeg_reader*>(c->client_data);
    (*c->err->format_message)(c, self->message);
    std::longjmp(self->on_error, 1);
  }
  static void warn(j_common_ptr c, int level) {
    if (level < 0) fail(c);  // level -1 is a warning about the data; others are traces
  }
};

// The decoding steps that may longjmp; they hold nothing with a destructor.
bool read_header(jpeg_reader& r) {
  if (setjmp(r.on_error)) return false;
  jpeg_stdio_src(&r.info, r.file);
  jpeg_read_header(&r.info, TRUE);
  const bool grey = r.info.jpeg_color_space == JCS_GRAYSCALE;
  if (r.info.jpeg_color_space == JCS_CMYK || r.info.jpeg_color_space == JCS_YCCK) {
    std::snprintf(r.message, sizeof r.message, "CMYK JPEGs are not read (grey or colour only)");
    return false;
  }
  r.info.out_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_start_decompress(&r.info);
  return true;
}

// Decodes the rows into `grey`, one byte a pixel: colour rows through one
// row buffer (`colour`, a row of samples), turned into grey levels at once.
bool read_rows(jpeg_reader& r, std::byte* grey, std::vector<JSAMPLE>& colour) {
  if (setjmp(r.on_error)) return false;
  const std::size_t width = r.info.output_width;
  const auto channels = static_cast<std::size_t>(r.info.output_components);
  while (r.info.output_scanline < r.info.output_height) {
    std::byte* out = grey + width * r.info.output_scanline;
    JSAMPROW row = channels == 1 ? reinterpret_cast<JSAMPROW>(out) : colour.data();
    if (jpeg_read_scanlines(&r.info, &row, 1) != 1) {
      std::snprintf(r.message, sizeof r.message, "the file ends early");
      return false;
    }
    for (std::size_t x = 0; channels != 1 && x < width; ++x) {
      const JSAMPLE* p = colour.data() + x * channels;
      out[x] = static_cast<std::byte>(grey_of_colour(p[0], p[1], p[2]));
    }
  }
  jpeg_finish_decompress(&r.info);
  return true;
}

}  // namespace

grey_image read_jpeg(const std::string& path, const read_options& options) {
  jpeg_reader r(path);
  if (r.file == nullptr) throw io_error(path + ": cannot open for reading");
  if (!read_header(r)) throw io_error(path + ": cannot read JPEG: " + r.message);
  const std::int64_t width = r.info.output_width, height = r.info.output_height;
  check_declared_image(path, width, height, 1, pixel_type::uint8, options);
  std::error_code error;
  // JPEG compresses far less than deflate: the same bound holds.
  check_declared_size(path, static_cast<std::uint64_t>(width * height),
                      std::filesystem::file_size(path, error));
  grey_image out;
  out.size_x = width;
  out.size_y = height;
  out.pixels = pixel_buffer(static_cast<std::size_t>(width * height));
  const auto channels = static_cast<std::size_t>(r.info.output_components);
  std::vector<JSAMPLE> colour(channels == 1 ? 0 : static_cast<std::size_t>(width) * channels);
  if (!read_rows(r, out.pixels.writable(), colour))
    throw io_error(path + ": cannot read JPEG: " + r.message);
  if (channels != 1) out.note = colour_note(path, "JPEG");
  return out;
}

}  // namespace splitmerge::io
