#include "png_file.hpp"

#include <png.h>

#include <vector>

#include "npy.hpp"

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
  if (png_image_write_to_file(&guard.image, path.c_str(), 0, pixels, 0, nullptr) == 0)
    throw io_error(path + ": cannot write PNG: " + libpng_problem(guard.image));
}

}  // namespace

grey_image read_png(const std::string& path) {
  png_image_guard guard;
  png_image& image = guard.image;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0)
    throw io_error(path + ": cannot read PNG: " + libpng_problem(image));
  const bool colour = (image.format & PNG_FORMAT_FLAG_COLOR) != 0;
  const bool sixteen_bit = (image.format & PNG_FORMAT_FLAG_LINEAR) != 0;

  grey_image out;
  out.size_x = image.width;
  out.size_y = image.height;
  out.values.resize(static_cast<std::size_t>(out.pixel_count()));
  const png_color black{0, 0, 0};
  if (colour) {
    image.format = PNG_FORMAT_RGB;
    std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, &black, rgb.data(), 0, nullptr) == 0)
      throw io_error(path + ": cannot read PNG: " + libpng_problem(image));
    // Integer weights keep grey pixels of a colour file exactly grey.
    for (std::size_t i = 0; i < out.values.size(); ++i) {
      const int r = rgb[3 * i], g = rgb[3 * i + 1], b = rgb[3 * i + 2];
      out.values[i] = (299 * r + 587 * g + 114 * b + 500) / 1000;
    }
    out.note = path + " is a colour PNG: segmenting its luma (0.299 R + 0.587 G + 0.114 B)";
  } else if (sixteen_bit) {
    image.format = PNG_FORMAT_LINEAR_Y;
    std::vector<std::uint16_t> grey(out.values.size());
    if (png_image_finish_read(&image, nullptr, grey.data(), 0, nullptr) == 0)
      throw io_error(path + ": cannot read PNG: " + libpng_problem(image));
    out.values.assign(grey.begin(), grey.end());
  } else {
    image.format = PNG_FORMAT_GRAY;
    std::vector<std::uint8_t> grey(out.values.size());
    if (png_image_finish_read(&image, &black, grey.data(), 0, nullptr) == 0)
      throw io_error(path + ": cannot read PNG: " + libpng_problem(image));
    out.values.assign(grey.begin(), grey.end());
  }
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
