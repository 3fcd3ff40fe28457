// The block tree phases: the initial block list, the bottom-up merge and the
// top-down split.
#pragma once

#include <cstdint>

#include "records/records.hpp"

namespace splitmerge {

class run_context;

// Each phase takes the run's code width (see geometry.hpp).
template <class Code = std::uint32_t>
list_result<blocklist> init_blocklist(run_context& ctx) noexcept;
template <class Code = std::uint32_t>
void smg_merge(run_context& ctx, blocklist list) noexcept;
template <class Code = std::uint32_t>
void smg_merge_disp(run_context& ctx, blocklist list) noexcept;
template <class Code = std::uint32_t>
std::int32_t smg_split(run_context& ctx, blocklist list) noexcept;
template <class Code = std::uint32_t>
std::int32_t smg_split_disp(run_context& ctx, blocklist list) noexcept;
template <class Code = std::uint32_t>
std::int32_t make_sons(run_context& ctx, block* b, std::int32_t lvl, std::int32_t column,
                       std::int32_t row, std::int32_t slice, std::int32_t side,
                       std::int32_t row_span, std::int32_t slice_span) noexcept;
template <class Code = std::uint32_t>
std::int32_t make_sons_disp(run_context& ctx, block* b, std::int32_t lvl, std::int32_t column,
                            std::int32_t row, std::int32_t slice, std::int32_t side,
                            std::int32_t row_span, std::int32_t slice_span) noexcept;

}  // namespace splitmerge
