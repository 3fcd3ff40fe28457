// A grey image or volume as a file holds it, before it is fitted to the sizes
// the segmentation accepts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace splitmerge::io {

struct grey_image {
  std::int64_t size_x = 0;
  std::int64_t size_y = 0;
  std::int64_t size_z = 1;
  // 3 when the file holds a volume (even of one slice), else 2.
  int dimensions = 2;
  // Pixel (x, y, z) is values[x + y * size_x + z * size_x * size_y]. Doubles hold
  // every integer type exactly up to 2^53 and the floating-point NIfTI and TIFF data.
  std::vector<double> values;
  // What the reader converted on the way (e.g. colour to grey), for the user.
  std::string note;
  // A NIfTI input's header (struct nifti_1_header, native byte order), so that
  // NIfTI outputs keep its orientation, voxel size and units; else empty.
  std::string nifti_header;

  [[nodiscard]] std::int64_t pixel_count() const { return size_x * size_y * size_z; }
};

// Choices the file itself cannot make.
struct read_options {
  std::optional<std::int64_t> volume;  // which volume of a 4-D NIfTI file (0-based)
};

// Reads .npy, .png, .pgm, .jpg/.jpeg, .tif/.tiff, .nii and .nii.gz, chosen by
// the file name's extension (any letter case). Throws io_error naming the file.
grey_image read_grey_image(const std::string& path, const read_options& options = {});

// The extensions read_grey_image accepts, for messages: ".npy, .png, ...".
const char* readable_extensions();

// The file's extension in lower case, ".nii.gz" counted as one.
std::string extension_of(const std::string& path);

}  // namespace splitmerge::io
