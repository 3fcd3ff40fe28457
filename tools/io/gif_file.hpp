// Animated GIFs through giflib.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace splitmerge::io {

struct rgb {
  std::uint8_t r = 0, g = 0, b = 0;
  friend bool operator==(const rgb&, const rgb&) = default;
};

// Writes a looping animation of colour-indexed frames (width * height indices
// each) with the given 256-colour palette. Every frame shows for delay_cs
// hundredths of a second, the last one for last_delay_cs.
void write_gif_animation(const std::string& path, int width, int height,
                         const std::vector<std::vector<std::uint8_t>>& frames,
                         const std::array<rgb, 256>& palette, int delay_cs, int last_delay_cs);

}  // namespace splitmerge::io
