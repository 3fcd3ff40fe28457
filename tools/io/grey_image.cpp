#include "grey_image.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <type_traits>

#include "jpeg_file.hpp"
#include "nifti_file.hpp"
#include "npy.hpp"
#include "pgm_file.hpp"
#include "png_file.hpp"
#include "size_limits.hpp"
#include "tiff_file.hpp"

namespace splitmerge::io {

pixel_buffer::pixel_buffer(std::size_t bytes) : size_(bytes) {
  // Not zeroed: every reader writes each byte, and untouched pages cost nothing.
  std::shared_ptr<std::byte[]> owned(new std::byte[std::max<std::size_t>(bytes, 1)]);
  data_ = owned.get();
  holder_ = std::move(owned);
}

std::optional<pixel_buffer> pixel_buffer::map(const std::string& path, std::uint64_t offset,
                                              std::size_t bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  const std::size_t length = static_cast<std::size_t>(offset) + bytes;
  void* at = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
  ::close(fd);  // the mapping keeps the file
  if (at == MAP_FAILED) return std::nullopt;
  pixel_buffer out;
  out.holder_ = std::shared_ptr<void>(at, [length](void* p) { ::munmap(p, length); });
  out.data_ = static_cast<std::byte*>(at) + offset;
  out.size_ = bytes;
  out.mapped_ = true;
  return out;
}

frontend::array_view grey_image::view() const {
  frontend::array_view a;
  a.data = pixels.data();
  a.type = type;
  a.order = frontend::host_order::numpy;
  a.ndim = dimensions;
  const std::int64_t sizes[3] = {size_z, size_y, size_x};
  const std::int64_t* shape = dimensions == 3 ? sizes : sizes + 1;
  auto stride = static_cast<std::int64_t>(frontend::pixel_size(type));
  for (int k = 0; k < a.ndim; ++k) {
    // C order: the last axis fastest; Fortran order: the first.
    const int d = fortran_order ? k : a.ndim - 1 - k;
    a.shape[d] = shape[d];
    a.strides[d] = stride;
    stride *= shape[d];
  }
  return a;
}

namespace {

pixel_type npy_pixel_type(const npy_header& h) {
  if (h.kind == 'f') return h.item_bytes == 4 ? pixel_type::float32 : pixel_type::float64;
  if (h.kind == 'b') return pixel_type::boolean;
  const bool is_signed = h.kind == 'i';
  switch (h.item_bytes) {
    case 1:
      return is_signed ? pixel_type::int8 : pixel_type::uint8;
    case 2:
      return is_signed ? pixel_type::int16 : pixel_type::uint16;
    case 4:
      return is_signed ? pixel_type::int32 : pixel_type::uint32;
    default:
      return is_signed ? pixel_type::int64 : pixel_type::uint64;
  }
}

// The array mapped from the file where its data lie in the machine's byte
// order at an address its type may be read from; else read (and byte-swapped).
grey_image read_npy_image(const std::string& path, const read_options& options) {
  const npy_header h = read_npy_header(path);
  grey_image out;
  if (h.shape.size() == 2) {
    out.size_y = h.shape[0];
    out.size_x = h.shape[1];
  } else if (h.shape.size() == 3) {
    out.size_z = h.shape[0];
    out.size_y = h.shape[1];
    out.size_x = h.shape[2];
    out.dimensions = 3;
  } else {
    throw io_error(path + ": the array has " + std::to_string(h.shape.size()) +
                   " dimensions; expected (Y, X) or (Z, Y, X)");
  }
  if (out.pixel_count() == 0) throw io_error(path + ": the array is empty");
  out.type = npy_pixel_type(h);
  out.fortran_order = h.fortran_order;
  check_declared_image(path, out.size_x, out.size_y, out.size_z, out.type, options);
  const std::size_t bytes = static_cast<std::size_t>(h.count) * frontend::pixel_size(out.type);
  std::error_code error;
  const std::uint64_t file_size = std::filesystem::file_size(path, error);
  if (error || file_size - h.data_offset < bytes)
    throw io_error(path + ": .npy data is shorter than its shape says");
  const bool swapped =
      h.item_bytes > 1 && h.big_endian != (std::endian::native == std::endian::big);
  if (!swapped && h.data_offset % static_cast<std::size_t>(h.item_bytes) == 0)
    if (auto mapped = pixel_buffer::map(path, h.data_offset, bytes)) {
      out.pixels = std::move(*mapped);
      return out;
    }
  out.pixels = pixel_buffer(bytes);
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(h.data_offset));
  in.read(reinterpret_cast<char*>(out.pixels.writable()), static_cast<std::streamsize>(bytes));
  if (static_cast<std::size_t>(in.gcount()) != bytes)
    throw io_error(path + ": .npy data is shorter than its shape says");
  if (swapped)
    for (std::byte* p = out.pixels.writable(); p < out.pixels.writable() + bytes; p += h.item_bytes)
      std::reverse(p, p + h.item_bytes);
  return out;
}

}  // namespace

std::vector<double> grey_image::values() const {
  const frontend::array_view a = view();
  std::vector<double> out;
  out.reserve(static_cast<std::size_t>(pixel_count()));
  const std::int64_t sz = dimensions == 3 ? a.strides[0] : 0;
  const std::int64_t sy = a.strides[a.ndim - 2], sx = a.strides[a.ndim - 1];
  for (std::int64_t z = 0; z < size_z; ++z)
    for (std::int64_t y = 0; y < size_y; ++y)
      for (std::int64_t x = 0; x < size_x; ++x)
        with_pixel_type(type, [&](auto tag) {
          decltype(tag) v;
          std::memcpy(&v, pixels.data() + z * sz + y * sy + x * sx, sizeof v);
          // A boolean mask is 0 and 255, as the front-end layer reads it.
          if constexpr (std::is_same_v<decltype(tag), bool>) {
            out.push_back(v ? 255.0 : 0.0);
          } else {
            out.push_back(static_cast<double>(v));
          }
        });
  return out;
}

std::string extension_of(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (name.size() > 7 && name.ends_with(".nii.gz")) return ".nii.gz";
  const auto dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? std::string() : name.substr(dot);
}

const char* readable_extensions() {
  return ".npy, .png, .pgm, .jpg, .jpeg, .tif, .tiff, .nii, .nii.gz";
}

grey_image read_grey_image(const std::string& path, const read_options& options) {
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
  const bool nifti = ext == ".nii" || ext == ".nii.gz";
  if (options.volume && !nifti)
    throw io_error(path + ": --volume picks a volume of a 4-D NIfTI file; this is not one");
  if (ext == ".npy") return read_npy_image(path, options);
  if (ext == ".png") return read_png(path, options);
  if (ext == ".pgm") return read_pgm(path, options);
  if (ext == ".tif" || ext == ".tiff") return read_tiff(path, options);
  if (ext == ".jpg" || ext == ".jpeg") return read_jpeg(path, options);
  if (nifti) return read_nifti(path, options);
  throw io_error(path + ": unsupported image format " +
                 (ext.empty() ? std::string("(no extension)") : "'" + ext + "'") +
                 " (readable: " + readable_extensions() + ")");
}

}  // namespace splitmerge::io
