#include "outputs.hpp"

#include <algorithm>

#include "gif_file.hpp"
#include "nifti_file.hpp"
#include "npy.hpp"
#include "palette.hpp"
#include "pgm_file.hpp"
#include "png_file.hpp"
#include "tiff_file.hpp"

namespace splitmerge::tool {

namespace {

void note_shown_slice(const std::string& what, const fitted_image& image,
                      std::vector<std::string>& notes) {
  std::string note;
  if (image.shown.size_z > 1)
    note = " shows slice " + std::to_string(shown_slice(image)) + " of " +
           std::to_string(image.shown.size_z) + " (z)";
  const std::string orientation = io::nifti_picture_layout(image.nifti_header).description;
  if (!orientation.empty()) note += (note.empty() ? " is " : ", ") + orientation;
  if (!note.empty()) notes.push_back(what + note);
}

// The values of the box's slices [z_from, z_from + z_count), x fastest.
std::vector<std::int32_t> box_slices(const fitted_image& image, const std::int32_t* volume,
                                     std::int64_t z_from, std::int64_t z_count) {
  const pixel_box& b = image.shown;
  std::vector<std::int32_t> out;
  out.reserve(static_cast<std::size_t>(b.size_x * b.size_y * z_count));
  for (std::int64_t z = b.z0 + z_from; z < b.z0 + z_from + z_count; ++z)
    for (std::int64_t y = b.y0; y < b.y0 + b.size_y; ++y) {
      const std::int32_t* row = volume + (z * image.size_y + y) * image.size_x + b.x0;
      out.insert(out.end(), row, row + b.size_x);
    }
  return out;
}

}  // namespace

bool is_label_extension(const std::string& ext) {
  return ext == ".npy" || ext == ".tif" || ext == ".tiff" || ext == ".png" || ext == ".nii" ||
         ext == ".nii.gz";
}

bool is_frame_extension(const std::string& ext) { return ext == ".npy" || ext == ".gif"; }

bool is_input_copy_extension(const std::string& ext) {
  return ext == ".npy" || ext == ".tif" || ext == ".tiff" || ext == ".png" || ext == ".pgm";
}

std::vector<std::int64_t> image_shape(const fitted_image& image) {
  const pixel_box& b = image.shown;
  if (image.dimensions == 3) return {b.size_z, b.size_y, b.size_x};
  return {b.size_y, b.size_x};
}

std::vector<std::int32_t> shown_part(const fitted_image& image, const std::int32_t* volume) {
  return box_slices(image, volume, 0, image.shown.size_z);
}

const std::int32_t* shown_values(const fitted_image& image, const std::int32_t* volume,
                                 std::vector<std::int32_t>& part) {
  const pixel_box& b = image.shown;
  if (b.x0 == 0 && b.y0 == 0 && b.z0 == 0 && b.size_x == image.size_x && b.size_y == image.size_y &&
      b.size_z == image.size_z)
    return volume;
  part = shown_part(image, volume);
  return part.data();
}

std::int32_t shown_slice(const fitted_image& image) {
  return static_cast<std::int32_t>(image.shown.size_z / 2);
}

picture shown_picture(const fitted_image& image, const std::int32_t* volume) {
  const std::vector<std::int32_t> slice = box_slices(image, volume, shown_slice(image), 1);
  const io::picture_layout layout = io::nifti_picture_layout(image.nifti_header);
  const std::int64_t nx = image.shown.size_x, ny = image.shown.size_y;
  picture out;
  out.width = layout.transpose ? ny : nx;
  out.height = layout.transpose ? nx : ny;
  out.values.resize(slice.size());
  for (std::int64_t row = 0; row < out.height; ++row)
    for (std::int64_t column = 0; column < out.width; ++column) {
      const std::int64_t c = layout.flip_columns ? out.width - 1 - column : column;
      const std::int64_t r = layout.flip_rows ? out.height - 1 - row : row;
      const std::int64_t x = layout.transpose ? r : c, y = layout.transpose ? c : r;
      out.values[static_cast<std::size_t>(row * out.width + column)] =
          slice[static_cast<std::size_t>(y * nx + x)];
    }
  return out;
}

std::string picture_note(const std::string& what, const fitted_image& image) {
  std::vector<std::string> notes;
  note_shown_slice(what, image, notes);
  return notes.empty() ? std::string() : notes.front();
}

std::array<std::int64_t, 2> picture_size(const fitted_image& image) {
  const bool transpose = io::nifti_picture_layout(image.nifti_header).transpose;
  const std::int64_t nx = image.shown.size_x, ny = image.shown.size_y;
  return transpose ? std::array<std::int64_t, 2>{ny, nx} : std::array<std::int64_t, 2>{nx, ny};
}

void write_labels(const std::string& file, const std::string& ext, const fitted_image& image,
                  const std::vector<std::int32_t>& labels, std::vector<std::string>& notes) {
  const pixel_box& box = image.shown;
  if (ext == ".png") {
    note_shown_slice("the label picture", image, notes);
    const picture slice = shown_picture(image, labels.data());
    std::vector<std::uint8_t> rgb;
    rgb.reserve(slice.values.size() * 3);
    for (const std::int32_t label : slice.values) {
      const io::rgb c = palette_colour(label);
      rgb.insert(rgb.end(), {c.r, c.g, c.b});
    }
    io::write_png_rgb(file, slice.width, slice.height, rgb.data());
    return;
  }
  std::vector<std::int32_t> part;
  const std::int32_t* shown = shown_values(image, labels.data(), part);
  if (ext == ".npy") {
    io::write_npy_int32(file, image_shape(image), shown);
  } else if (ext == ".nii" || ext == ".nii.gz") {
    io::write_nifti_labels(file, image.nifti_header, box.size_x, box.size_y, box.size_z,
                           image.input_x0, image.input_y0, image.input_z0, shown, ext == ".nii.gz");
  } else {
    io::write_tiff(file, box.size_x, box.size_y, box.size_z, shown, io::tiff_pixel::int32);
  }
}

void write_overlay(const std::string& file, const fitted_image& image,
                   const std::vector<std::int32_t>& labels, std::vector<std::string>& notes) {
  note_shown_slice("the overlay", image, notes);
  const picture grey_picture = shown_picture(image, image.pixels.data());
  const std::vector<std::int32_t>& grey = grey_picture.values;
  const std::vector<std::int32_t> slice = shown_picture(image, labels.data()).values;
  const std::int64_t width = grey_picture.width, height = grey_picture.height;
  std::vector<std::uint8_t> rgb(grey.size() * 3);
  for (std::int64_t y = 0; y < height; ++y)
    for (std::int64_t x = 0; x < width; ++x) {
      const auto i = static_cast<std::size_t>(y * width + x);
      const bool border =
          (x + 1 < width && slice[i + 1] != slice[i]) ||
          (y + 1 < height && slice[i + static_cast<std::size_t>(width)] != slice[i]);
      const auto g = static_cast<std::uint8_t>(grey[i]);
      const io::rgb c = border ? io::rgb{255, 255, 0} : io::rgb{g, g, g};
      rgb[3 * i] = c.r;
      rgb[3 * i + 1] = c.g;
      rgb[3 * i + 2] = c.b;
    }
  io::write_png_rgb(file, width, height, rgb.data());
}

void write_input_copy(const std::string& file, const std::string& ext, const fitted_image& image,
                      std::vector<std::string>& notes) {
  const pixel_box& box = image.shown;
  if (ext == ".npy" || ext == ".tif" || ext == ".tiff") {
    const std::vector<std::int32_t> part = shown_part(image, image.pixels.data());
    if (ext == ".npy") {
      io::write_npy_int32(file, image_shape(image), part.data());
    } else {
      io::write_tiff(file, box.size_x, box.size_y, box.size_z, part.data(), io::tiff_pixel::grey8);
    }
    return;
  }
  note_shown_slice("the input picture", image, notes);
  const picture slice = shown_picture(image, image.pixels.data());
  const std::vector<std::uint8_t> grey(slice.values.begin(), slice.values.end());
  if (ext == ".png") {
    io::write_png_grey(file, slice.width, slice.height, grey.data());
  } else {
    io::write_pgm(file, slice.width, slice.height, grey.data());
  }
}

}  // namespace splitmerge::tool
