// A grey image or volume as a file holds it, before it is fitted to the sizes
// the segmentation accepts: its pixels once, in their own type (8-bit stays
// 8-bit), until the front-end layer reads them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "splitmerge/frontend.hpp"

namespace splitmerge::io {

using frontend::pixel_type;

// The pixels' memory: a buffer of the program's own, or a read-only map of
// the file that holds them.
class pixel_buffer {
 public:
  pixel_buffer() = default;
  // `bytes` bytes of the program's own, not yet written.
  explicit pixel_buffer(std::size_t bytes);
  // Bytes [offset, offset + bytes) of the file, mapped read-only; nullopt
  // when the file cannot be mapped.
  static std::optional<pixel_buffer> map(const std::string& path, std::uint64_t offset,
                                         std::size_t bytes);

  [[nodiscard]] const std::byte* data() const { return data_; }
  [[nodiscard]] std::byte* writable() { return data_; }  // own buffers only
  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool mapped() const { return mapped_; }

 private:
  std::shared_ptr<void> holder_;
  std::byte* data_ = nullptr;
  std::size_t size_ = 0;
  bool mapped_ = false;
};


struct grey_image {
  std::int64_t size_x = 0;
  std::int64_t size_y = 0;
  std::int64_t size_z = 1;
  // 3 when the file holds a volume (even of one slice), else 2.
  int dimensions = 2;
  // Pixel (x, y, z) is element x + y * size_x + z * size_x * size_y (first
  // index fastest in a Fortran-order .npy array: z + y * size_z + ...), in
  // native byte order.
  pixel_type type = pixel_type::uint8;
  bool fortran_order = false;
  pixel_buffer pixels;
  // What the reader converted on the way (e.g. colour to grey), for the user.
  std::string note;
  // A NIfTI input's header (struct nifti_1_header, native byte order), so that
  // NIfTI outputs keep its orientation, voxel size and units; else empty.
  std::string nifti_header;

  [[nodiscard]] std::int64_t pixel_count() const { return size_x * size_y * size_z; }
  // The pixels for the front-end layer, in numpy's axis order, not copied.
  [[nodiscard]] frontend::array_view view() const;
  // Every value as a double, x fastest (for tests and benchmarks, not the run).
  [[nodiscard]] std::vector<double> values() const;
};

// Choices the file itself cannot make, and the memory the program may take.
struct read_options {
  std::optional<std::int64_t> volume;  // which volume of a 4-D NIfTI file (0-based)
  std::uint64_t memory_limit = 0;      // --memory-limit; 0: what the machine has available
  bool one_slice = false;              // --slice: labels for one slice of a volume only
};

// Reads .npy, .png, .pgm, .jpg/.jpeg, .tif/.tiff, .nii and .nii.gz, chosen by
// the file name's extension (any letter case). Throws io_error naming the file
// (also when the image cannot be held within the memory budget).
grey_image read_grey_image(const std::string& path, const read_options& options = {});

// The extensions read_grey_image accepts, for messages: ".npy, .png, ...".
const char* readable_extensions();

// The file's extension in lower case, ".nii.gz" counted as one.
std::string extension_of(const std::string& path);

}  // namespace splitmerge::io
