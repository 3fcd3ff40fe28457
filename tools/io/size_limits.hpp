// Bounds that keep a file's header from making the program allocate more
// than the file can hold: checked before anything is allocated.
#pragma once

#include <cstdint>
#include <string>

namespace splitmerge::io {

// The largest image read: 2^28 pixels (e.g. 512 x 512 x 1024), far above
// what the segmentation takes even before --fit crop.
inline constexpr std::int64_t largest_pixel_count = std::int64_t{1} << 28;

// Throws io_error when the image has more than largest_pixel_count pixels.
void check_pixel_count(const std::string& path, std::int64_t size_x, std::int64_t size_y,
                       std::int64_t size_z);

// Throws io_error when `declared_bytes` of decoded data cannot come out of a
// compressed file of `file_bytes` (deflate expands at most about 1032 times).
void check_declared_size(const std::string& path, std::uint64_t declared_bytes,
                         std::uint64_t file_bytes);

}  // namespace splitmerge::io
