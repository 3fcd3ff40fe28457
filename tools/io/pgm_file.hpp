// Netpbm grey maps: binary (P5) and plain (P2), 8 or 16 bits.
#pragma once

#include <cstdint>
#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// 8-bit pixels for a maximum value up to 255, else 16-bit.
grey_image read_pgm(const std::string& path, const read_options& options = {});
grey_image parse_pgm(const std::string& bytes, const std::string& name);

// Writes a binary 8-bit grey map (P5, maxval 255).
void write_pgm(const std::string& path, std::int64_t width, std::int64_t height,
               const std::uint8_t* pixels);

}  // namespace splitmerge::io
