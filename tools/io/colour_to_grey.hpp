// Colour pictures are segmented as grey levels: one rule for every reader.
#pragma once

#include <cstdint>
#include <string>

namespace splitmerge::io {

// The luma of integer samples, (299 R + 587 G + 114 B + 500) / 1000: integer
// weights keep grey pixels of a colour file exactly grey. Alpha is ignored.
std::int64_t grey_of_colour(std::int64_t red, std::int64_t green, std::int64_t blue);

// What the user is told when a colour file (`kind`, e.g. "PNG") is read as grey.
std::string colour_note(const std::string& path, const std::string& kind);

}  // namespace splitmerge::io
