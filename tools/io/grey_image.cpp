#include "grey_image.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "nifti_file.hpp"
#include "npy.hpp"
#include "pgm_file.hpp"
#include "png_file.hpp"
#include "size_limits.hpp"
#include "tiff_file.hpp"

namespace splitmerge::io {

namespace {

grey_image read_npy_image(const std::string& path) {
  npy_array a = read_npy(path);
  grey_image out;
  if (a.shape.size() == 2) {
    out.size_y = a.shape[0];
    out.size_x = a.shape[1];
  } else if (a.shape.size() == 3) {
    out.size_z = a.shape[0];
    out.size_y = a.shape[1];
    out.size_x = a.shape[2];
    out.dimensions = 3;
  } else {
    throw io_error(path + ": the array has " + std::to_string(a.shape.size()) +
                   " dimensions; expected (Y, X) or (Z, Y, X)");
  }
  if (out.pixel_count() == 0) throw io_error(path + ": the array is empty");
  check_pixel_count(path, out.size_x, out.size_y, out.size_z);
  // A boolean mask is 0 and 255, as every front end reads one.
  const std::int64_t scale = a.dtype.size() > 1 && a.dtype[1] == 'b' ? 255 : 1;
  out.values.resize(a.values.size());
  std::transform(a.values.begin(), a.values.end(), out.values.begin(),
                 [scale](std::int64_t v) { return static_cast<double>(v * scale); });
  return out;
}

}  // namespace

std::string extension_of(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (name.size() > 7 && name.ends_with(".nii.gz")) return ".nii.gz";
  const auto dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? std::string() : name.substr(dot);
}

const char* readable_extensions() { return ".npy, .png, .pgm, .tif, .tiff, .nii, .nii.gz"; }

grey_image read_grey_image(const std::string& path) {
  // Each library words a missing file its own way; say it once, plainly.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    throw io_error(path + ": is a folder, not an image file");
  if (std::FILE* f = std::fopen(path.c_str(), "rb"); f != nullptr) {
    std::fclose(f);
  } else {
    throw io_error(path + ": cannot open (" + std::strerror(errno) + ")");
  }
  const std::string ext = extension_of(path);
  if (ext == ".npy") return read_npy_image(path);
  if (ext == ".png") return read_png(path);
  if (ext == ".pgm") return read_pgm(path);
  if (ext == ".tif" || ext == ".tiff") return read_tiff(path);
  if (ext == ".nii" || ext == ".nii.gz") return read_nifti(path);
  throw io_error(path + ": unsupported image format " +
                 (ext.empty() ? std::string("(no extension)") : "'" + ext + "'") +
                 " (readable: " + readable_extensions() + ")");
}

}  // namespace splitmerge::io
