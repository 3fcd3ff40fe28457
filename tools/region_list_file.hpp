// The region list file, written by the program itself so that every write
// and the close are checked (a full disk or a file size limit is an error,
// not a shorter file).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "splitmerge/splitmerge.hpp"

namespace splitmerge::tool {

// Writes the collected regions in the region list file's layout: the image
// edge, the slice count, 2, 4.0000, the region count and the homogeneity test,
// then per region its two statistics, its block codes (hexadecimal), 0, the
// indices of its neighbours and -1. Throws io::io_error.
void write_region_list(const std::string& path, std::int32_t size_x, std::int32_t size_z,
                       std::int32_t pred_choice, const std::vector<region_record>& regions);

}  // namespace splitmerge::tool
