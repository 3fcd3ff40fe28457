// The colours of labels and frame values in pictures: fixed, so that the same
// label always has the same colour, and far apart for neighbouring numbers.
#pragma once

#include <array>
#include <cstdint>

#include "gif_file.hpp"

namespace splitmerge::tool {

// The colour of a value: indexed_palette()[palette_index(value)], so that
// pictures and animations colour the same value alike. 0 (the largest region,
// often the background) is dark grey; the others step round the hue circle by
// the golden angle, cycling through three brightness levels.
io::rgb palette_colour(std::int64_t value);

// The first 256 palette colours, for indexed pictures.
const std::array<io::rgb, 256>& indexed_palette();

// The index of a value in indexed_palette(): values below 1 are 0, values
// above 255 wrap onto 1..254.
std::uint8_t palette_index(std::int64_t value);

}  // namespace splitmerge::tool
