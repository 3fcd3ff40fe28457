#include <algorithm>

#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"

namespace splitmerge {

namespace {

struct block_box {
  std::int32_t column, row, slice, side, row_span, slice_span;
};

// Visits the block's rows, slices outermost, each row as one contiguous span
// of the image's own pixel type (32- or 8-bit).
template <class Row>
void for_each_row(const run_context& ctx, const block_box& b, Row&& row) {
  const auto rows = [&](const auto* image) {
    for (std::int32_t s = b.slice; s < b.slice + b.slice_span; s += ctx.voxels_slice)
      for (std::int32_t r = b.row; r < b.row + b.row_span; r += ctx.im_format_xy)
        row(image + s + r + b.column, b.side);
  };
  if (ctx.my_image8 != nullptr) {
    rows(ctx.my_image8);
  } else {
    rows(ctx.my_image);
  }
}

void range_statistics(run_context& ctx, const block_box& box, std::int32_t lvl, block* b) {
  std::int32_t lo = 255;
  std::int32_t hi = 0;
  for_each_row(ctx, box, [&](const auto* p, std::int32_t n) {
    for (std::int32_t i = 0; i < n; ++i) {
      lo = std::min<std::int32_t>(lo, p[i]);
      hi = std::max<std::int32_t>(hi, p[i]);
    }
  });
  const bool pass = evaluation_block(ctx, lo, hi, lvl) != 0;
  b->variables[0] = pass ? lo : -1;
  b->variables[1] = hi;
}

void median_statistics(run_context& ctx, const block_box& box, std::int32_t lvl, block* b) {
  std::int32_t* scratch = ctx.hulp_array;
  std::int32_t k = 0;
  for_each_row(ctx, box, [&](const auto* p, std::int32_t n) {
    std::copy(p, p + n, scratch + k);
    k += n;
  });
  scratch[k] = scratch[k - 1];
  const std::int32_t n = ctx.pixels_perblock[lvl];
  const std::int32_t median = select_interval(0, n, n >> 1, scratch);
  std::int32_t lo_bound = median - ctx.half_length;
  if (lo_bound < 0) lo_bound = 0;
  std::int32_t hi_bound = median + ctx.half_length;
  if (hi_bound >= 256) hi_bound = 255;

  std::int32_t lo = 255;
  std::int32_t hi = 0;
  std::int64_t outliers = 0;
  for_each_row(ctx, box, [&](const auto* p, std::int32_t count) {
    for (std::int32_t i = 0; i < count; ++i) {
      const std::int32_t v = p[i];
      if (v >= lo_bound && v <= hi_bound) {
        lo = std::min(lo, v);
        hi = std::max(hi, v);
      } else {
        ++outliers;
      }
    }
  });
  const std::int64_t share = outliers * 100 / n;
  b->variables[0] = share > ctx.rejection_ratio ? -1 : lo;
  b->variables[1] = hi;
}

void sum_statistics(run_context& ctx, const block_box& box, std::int32_t lvl, block* b) {
  std::int64_t s1 = 0;
  std::int64_t s2 = 0;
  for_each_row(ctx, box, [&](const auto* p, std::int32_t n) {
    std::int64_t r1 = 0;
    std::int64_t r2 = 0;
    for (std::int32_t i = 0; i < n; ++i) {
      const std::int64_t v = p[i];
      r1 += v;
      r2 += v * v;
    }
    s1 += r1;
    s2 += r2;
  });
  const bool pass = evaluation_block(ctx, s1, s2, lvl) != 0;
  b->variables[0] = pass ? s1 : -1;
  b->variables[1] = s2;
}

}  // namespace

block* calc_evalvar(run_context& ctx, std::int32_t column, std::int32_t row, std::int32_t slice,
                    std::int32_t side, std::int32_t row_span, std::int32_t slice_span,
                    std::int32_t lvl, block* b) noexcept {
  const block_box box{column, row, slice, side, row_span, slice_span};
  switch (ctx.pred_choice) {
    case 1:
    case 2:
      range_statistics(ctx, box, lvl, b);
      break;
    case 3:
      median_statistics(ctx, box, lvl, b);
      break;
    default:
      sum_statistics(ctx, box, lvl, b);
      break;
  }
  return b;
}

std::int32_t evaluation_block(const run_context& ctx, std::int64_t first, std::int64_t second,
                              std::int32_t lvl) noexcept {
  if (ctx.pred_choice == 1 || ctx.pred_choice == 2)
    return second - first > ctx.interval_length ? 0 : 1;
  // Variance test in single precision; the square is formed from the
  // converted sum, never as an integer product.
  const auto s1 = static_cast<float>(first);
  const auto s2 = static_cast<float>(second);
  float m;
  float d;
  if (lvl != 0) {
    const auto n = static_cast<float>(ctx.pixels_perblock[lvl]);
    m = s1 * s1 / n;
    d = n - 1.0f;
  } else {
    m = s1 * s1;
    d = 1.0f;
  }
  const float v = (s2 - m) / d;
  return v > ctx.var_thresh[lvl] ? 0 : 1;
}

}  // namespace splitmerge
