// PNG pictures through libpng's simplified interface.
#pragma once

#include <cstdint>
#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// Delivers the stored samples, whatever gamma or colour-space chunks the file
// has: grey PNGs keep their values (1 to 16 bits), colour ones become the luma
// of their stored samples (0.299 R + 0.587 G + 0.114 B, rounded) and say so
// in the note. An alpha channel is ignored (and noted).
grey_image read_png(const std::string& path, const read_options& options = {});

void write_png_grey(const std::string& path, std::int64_t width, std::int64_t height,
                    const std::uint8_t* pixels);
// rgb holds three bytes per pixel.
void write_png_rgb(const std::string& path, std::int64_t width, std::int64_t height,
                   const std::uint8_t* rgb);

}  // namespace splitmerge::io
