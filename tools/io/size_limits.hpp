// Bounds that keep a file's header from making the program allocate more
// than the file can hold or the machine can give: checked before anything is
// allocated.
#pragma once

#include <cstdint>
#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// The most pixels an image read may have: twice the largest image the
// segmentation takes (room for --fit crop), and few enough to label each
// pixel with a 32-bit number.
std::int64_t largest_pixel_count();

// Throws io_error when the image has more than largest_pixel_count() pixels,
// or when its pixels in their type plus a 4-byte label per pixel exceed the
// run's memory budget (memory_budget of the limit the options give).
void check_declared_image(const std::string& path, std::int64_t size_x, std::int64_t size_y,
                          std::int64_t size_z, pixel_type type, const read_options& options);

// Throws io_error when `declared_bytes` of decoded data cannot come out of a
// compressed file of `file_bytes` (deflate expands at most about 1032 times).
void check_declared_size(const std::string& path, std::uint64_t declared_bytes,
                         std::uint64_t file_bytes);

}  // namespace splitmerge::io
