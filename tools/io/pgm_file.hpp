// Netpbm grey maps: binary (P5) and plain (P2), 8 or 16 bits.
#pragma once

#include <cstdint>
#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

grey_image read_pgm(const std::string& path);
grey_image parse_pgm(const std::string& bytes, const std::string& name);

// Writes a binary 8-bit grey map (P5, maxval 255).
void write_pgm(const std::string& path, std::int64_t width, std::int64_t height,
               const std::uint8_t* pixels);

}  // namespace splitmerge::io
