#include "outputs.hpp"

#include <algorithm>

#include "gif_file.hpp"
#include "npy.hpp"
#include "palette.hpp"
#include "pgm_file.hpp"
#include "png_file.hpp"
#include "tiff_file.hpp"

namespace splitmerge::tool {

namespace {

std::int64_t slice_pixels(const fitted_image& image) {
  return std::int64_t{image.size_x} * image.size_y;
}

const std::int32_t* slice_start(const fitted_image& image, const std::int32_t* volume) {
  return volume + shown_slice(image) * slice_pixels(image);
}

void note_shown_slice(const std::string& what, const fitted_image& image,
                      std::vector<std::string>& notes) {
  if (image.size_z > 1)
    notes.push_back(what + " shows slice " + std::to_string(shown_slice(image)) + " of " +
                    std::to_string(image.size_z) + " (z)");
}

}  // namespace

bool is_label_extension(const std::string& ext) {
  return ext == ".npy" || ext == ".tif" || ext == ".tiff" || ext == ".png";
}

bool is_frame_extension(const std::string& ext) { return ext == ".npy" || ext == ".gif"; }

bool is_input_copy_extension(const std::string& ext) {
  return ext == ".npy" || ext == ".tif" || ext == ".tiff" || ext == ".png" || ext == ".pgm";
}

std::vector<std::int64_t> image_shape(const fitted_image& image) {
  if (image.dimensions == 3) return {image.size_z, image.size_y, image.size_x};
  return {image.size_y, image.size_x};
}

std::int32_t shown_slice(const fitted_image& image) { return image.size_z / 2; }

void write_labels(const std::string& file, const std::string& ext, const fitted_image& image,
                  const std::vector<std::int32_t>& labels, std::vector<std::string>& notes) {
  if (ext == ".npy") {
    io::write_npy_int32(file, image_shape(image), labels.data());
  } else if (ext == ".png") {
    note_shown_slice("the label picture", image, notes);
    const std::int32_t* slice = slice_start(image, labels.data());
    std::vector<std::uint8_t> rgb;
    rgb.reserve(static_cast<std::size_t>(slice_pixels(image)) * 3);
    for (std::int64_t i = 0; i < slice_pixels(image); ++i) {
      const io::rgb c = palette_colour(slice[i]);
      rgb.insert(rgb.end(), {c.r, c.g, c.b});
    }
    io::write_png_rgb(file, image.size_x, image.size_y, rgb.data());
  } else {
    io::write_tiff(file, image.size_x, image.size_y, image.size_z, labels.data(),
                   io::tiff_pixel::int32);
  }
}

void write_input_copy(const std::string& file, const std::string& ext, const fitted_image& image,
                      std::vector<std::string>& notes) {
  if (ext == ".npy") {
    io::write_npy_int32(file, image_shape(image), image.pixels.data());
  } else if (ext == ".tif" || ext == ".tiff") {
    io::write_tiff(file, image.size_x, image.size_y, image.size_z, image.pixels.data(),
                   io::tiff_pixel::grey8);
  } else {
    note_shown_slice("the input picture", image, notes);
    const std::int32_t* slice = slice_start(image, image.pixels.data());
    const std::vector<std::uint8_t> grey(slice, slice + slice_pixels(image));
    if (ext == ".png") {
      io::write_png_grey(file, image.size_x, image.size_y, grey.data());
    } else {
      io::write_pgm(file, image.size_x, image.size_y, grey.data());
    }
  }
}

}  // namespace splitmerge::tool
