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

bool read_rows(jpeg_reader& r, std::vector<JSAMPLE>& pixels) {
  if (setjmp(r.on_error)) return false;
  const std::size_t row_size = std::size_t{r.info.output_width} * r.info.output_components;
  while (r.info.output_scanline < r.info.output_height) {
    JSAMPROW row = pixels.data() + row_size * r.info.output_scanline;
    if (jpeg_read_scanlines(&r.info, &row, 1) != 1) {
      std::snprintf(r.message, sizeof r.message, "the file ends early");
      return false;
    }
  }
  jpeg_finish_decompress(&r.info);
  return true;
}

}  // namespace

grey_image read_jpeg(const std::string& path) {
  jpeg_reader r(path);
  if (r.file == nullptr) throw io_error(path + ": cannot open for reading");
  if (!read_header(r)) throw io_error(path + ": cannot read JPEG: " + r.message);
  const std::int64_t width = r.info.output_width, height = r.info.output_height;
  check_pixel_count(path, width, height, 1);
  std::error_code error;
  // JPEG compresses far less than deflate: the same bound holds.
  check_declared_size(path, static_cast<std::uint64_t>(width * height),
                      std::filesystem::file_size(path, error));
  const int channels = r.info.output_components;
  std::vector<JSAMPLE> pixels(static_cast<std::size_t>(width * height * channels));
  if (!read_rows(r, pixels)) throw io_error(path + ": cannot read JPEG: " + r.message);

  grey_image out;
  out.size_x = width;
  out.size_y = height;
  out.values.resize(static_cast<std::size_t>(width * height));
  for (std::size_t i = 0; i < out.values.size(); ++i) {
    const JSAMPLE* p = pixels.data() + i * static_cast<std::size_t>(channels);
    out.values[i] = static_cast<double>(channels == 1 ? p[0] : grey_of_colour(p[0], p[1], p[2]));
  }
  if (channels != 1) out.note = colour_note(path, "JPEG");
  return out;
}

}  // namespace splitmerge::io
