// Results: the label image and the region list file.
#pragma once

#include <cstdint>
#include <cstdio>

#include "records/records.hpp"

namespace splitmerge {

class run_context;

// 0, status_no_memory (the list left as it was) when its table cannot be had,
// or status_interrupted (the image partly painted).
std::int32_t make_output(run_context& ctx, regionlist head, std::int32_t* output) noexcept;
std::int32_t save_regionlist(run_context& ctx, regionlist head, const char* path) noexcept;

}  // namespace splitmerge
