// TIFF through libtiff: every page is one slice of a volume.
#pragma once

#include <cstdint>
#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// Reads grey TIFFs of 8, 16 or 32-bit integers or 32/64-bit floats, stored in
// strips, in their own sample type (colour ones as their luma, of the same
// type). A file of several pages is a volume; all pages must be the same size
// and type.
grey_image read_tiff(const std::string& path, const read_options& options = {});

enum class tiff_pixel { grey8, int32 };

// Writes size_z pages of width x height pixels; values are taken modulo the
// pixel type, so the caller keeps grey8 values within 0..255.
void write_tiff(const std::string& path, std::int64_t width, std::int64_t height,
                std::int64_t size_z, const std::int32_t* values, tiff_pixel pixel);

}  // namespace splitmerge::io
