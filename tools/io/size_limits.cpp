#include "size_limits.hpp"

#include "npy.hpp"

namespace splitmerge::io {

void check_pixel_count(const std::string& path, std::int64_t size_x, std::int64_t size_y,
                       std::int64_t size_z) {
  const bool too_many = size_x > largest_pixel_count || size_y > largest_pixel_count ||
                        size_z > largest_pixel_count || size_x * size_y > largest_pixel_count ||
                        size_x * size_y * size_z > largest_pixel_count;
  if (too_many)
    throw io_error(path + ": the header declares " + std::to_string(size_x) + " x " +
                   std::to_string(size_y) + " x " + std::to_string(size_z) +
                   " pixels, more than the " + std::to_string(largest_pixel_count) +
                   " this program reads");
}

void check_declared_size(const std::string& path, std::uint64_t declared_bytes,
                         std::uint64_t file_bytes) {
  constexpr std::uint64_t largest_ratio = 1100;  // deflate's bound, rounded up
  if (declared_bytes > file_bytes * largest_ratio + 4096)
    throw io_error(path + ": truncated or damaged: the header declares " +
                   std::to_string(declared_bytes) + " bytes of pixels, more than a " +
                   std::to_string(file_bytes) + "-byte file can hold");
}

}  // namespace splitmerge::io
