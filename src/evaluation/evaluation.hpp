// Homogeneity evaluation: block statistics, threshold tables, median
// selection and the predicates on region statistics.
#pragma once

#include <cstdint>

#include "geometry/geometry.hpp"
#include "records/records.hpp"

namespace splitmerge {

class run_context;

// --- block statistics and the homogeneity test ---
block* calc_evalvar(run_context& ctx, std::int32_t column, std::int32_t row, std::int32_t slice,
                    std::int32_t side, std::int32_t row_span, std::int32_t slice_span,
                    std::int32_t lvl, block* b) noexcept;
inline block* calc_evalvar(run_context& ctx, const block_position& p, const block_extent& e,
                           std::int32_t lvl, block* b) noexcept {
  return calc_evalvar(ctx, p.column, p.row, p.slice, e.side, e.row_span, e.slice_span, lvl, b);
}
std::int32_t evaluation_block(const run_context& ctx, std::int64_t first, std::int64_t second,
                              std::int32_t lvl) noexcept;

// --- variance threshold tables ---
// Chi-square quantile ratios by threshold row (1..3) and log2 of the pixel count.
inline constexpr int s_th_columns = 28;
// The largest block tested is of level max_level - 1: 4^13 pixels in a 2-D
// image, 8^9 in a volume.
static_assert(s_th_columns > 2 * (max_levels_2d - 1) && s_th_columns > 3 * (max_levels_3d - 1));
extern const float s_th[3][s_th_columns];
std::int32_t fill_chi_variance(run_context& ctx, std::int32_t threshold_row,
                               double variance) noexcept;
std::int32_t fill_pseudo_variance(run_context& ctx, double variance, double pseudo_factor) noexcept;

// --- median selection ---
std::int32_t find_pivot(std::int32_t i, std::int32_t j, const std::int32_t* a) noexcept;
std::int32_t partition(std::int32_t i, std::int32_t j, std::int32_t pivot,
                       std::int32_t* a) noexcept;
std::int32_t select_interval(std::int32_t i, std::int32_t j, std::int32_t k,
                             std::int32_t* a) noexcept;
std::int32_t find_median(run_context& ctx, std::int32_t column_start, std::int32_t row_start,
                         std::int32_t slice_start, std::int32_t column_end, std::int32_t row_end,
                         std::int32_t slice_end, std::int32_t lvl) noexcept;

// --- region statistics and merge predicates ---
std::int32_t update_evalvar(const run_context& ctx, const block* child, std::int64_t& acc0,
                            std::int64_t& acc1, std::int32_t k, std::int32_t lvl) noexcept;
template <class Code = std::uint32_t>
void calc_eval_var_region(const run_context& ctx, block* head) noexcept;
std::int32_t eval_grow(const run_context& ctx, const block* region, block* candidate) noexcept;
// Whether candidate would join region, without marking it.
bool joins_region(const run_context& ctx, const block* region, const block* candidate) noexcept;
void unite_predicates(const run_context& ctx, block* a, const block* b) noexcept;
std::int64_t comp_evalvar(const run_context& ctx, const block* a, const block* b) noexcept;
void make_neutral(const run_context& ctx, block* r) noexcept;

// Region phases use range statistics for pred_choice 1 and 3, sums otherwise.
inline bool uses_range_statistics(std::int32_t pred_choice) noexcept {
  return (pred_choice | 2) == 3;
}

}  // namespace splitmerge
