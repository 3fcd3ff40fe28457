#include <algorithm>
#include <cmath>

#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"

namespace splitmerge {

std::int32_t update_evalvar(const run_context& ctx, const block* child, std::int64_t& acc0,
                            std::int64_t& acc1, std::int32_t k, std::int32_t lvl) noexcept {
  const std::int64_t v0 = child->variables[0];
  const std::int64_t v1 = child->variables[1];
  if (v0 < 0) return 0;
  if (ctx.pred_choice <= 3) {
    if (k == 1) {
      acc0 = v0;
      acc1 = v1;
      return 1;
    }
    if (acc1 - v0 > ctx.interval_length) return 0;
    if (v1 - acc0 > ctx.interval_length) return 0;
    acc0 = std::min(acc0, v0);
    acc1 = std::max(acc1, v1);
    return 1;
  }
  acc0 += v0;
  acc1 += v1;
  if (k < ctx.blocks_perlevel[lvl]) return 1;
  return evaluation_block(ctx, acc0, acc1, lvl + 1);
}

template <class Code>
void calc_eval_var_region(const run_context& ctx, block* head) noexcept {
  if (ctx.pred_choice == 4 || ctx.pred_choice == 5) {
    head->variables[1] = ctx.pixels_perblock[level<Code>(ctx, ctx.code_of<Code>(head))];
  } else if (ctx.pred_choice == 2) {
    const Code code = ctx.code_of<Code>(head);
    const std::int32_t lvl = level<Code>(ctx, code);
    const block_position p = coordinates<Code>(ctx, code, lvl);
    const block_extent e = sizes_block(ctx, lvl);
    std::int64_t sum = 0;
    const auto add_rows = [&](const auto* image) {
      for (std::int32_t s = p.slice; s < p.slice + e.slice_span; s += ctx.voxels_slice)
        for (std::int32_t r = p.row; r < p.row + e.row_span; r += ctx.im_format_xy) {
          const auto* row = image + s + r + p.column;
          for (std::int32_t c = 0; c < e.side; ++c) sum += row[c];
        }
    };
    if (ctx.my_image8 != nullptr) {
      add_rows(ctx.my_image8);
    } else {
      add_rows(ctx.my_image);
    }
    head->variables[0] = sum;
    head->variables[1] = ctx.pixels_perblock[lvl];
  }
  head->status = 0;
}

template void calc_eval_var_region<std::uint32_t>(const run_context&, block*) noexcept;
template void calc_eval_var_region<std::uint64_t>(const run_context&, block*) noexcept;

bool joins_region(const run_context& ctx, const block* region, const block* candidate) noexcept {
  bool joins;
  if (uses_range_statistics(ctx.pred_choice)) {
    joins = region->variables[1] - candidate->variables[0] <= ctx.interval_length &&
            candidate->variables[1] - region->variables[0] <= ctx.interval_length;
  } else {
    const float mean_r =
        static_cast<float>(region->variables[0]) / static_cast<float>(region->variables[1]);
    const float mean_c =
        static_cast<float>(candidate->variables[0]) / static_cast<float>(candidate->variables[1]);
    joins = !(std::fabs(mean_c - mean_r) > static_cast<float>(ctx.interval_length));
  }
  return joins;
}

std::int32_t eval_grow(const run_context& ctx, const block* region, block* candidate) noexcept {
  if (joins_region(ctx, region, candidate)) return 1;
  candidate->status |= 1u;
  return 0;
}

void unite_predicates(const run_context& ctx, block* a, const block* b) noexcept {
  if (uses_range_statistics(ctx.pred_choice)) {
    a->variables[0] = std::min(a->variables[0], b->variables[0]);
    a->variables[1] = std::max(a->variables[1], b->variables[1]);
  } else {
    a->variables[0] += b->variables[0];
    a->variables[1] += b->variables[1];
  }
}

std::int64_t comp_evalvar(const run_context& ctx, const block* a, const block* b) noexcept {
  if (uses_range_statistics(ctx.pred_choice)) {
    const std::int64_t d1 = b->variables[1] - a->variables[0];
    const std::int64_t d2 = a->variables[1] - b->variables[0];
    return std::max(d1 < 0 ? -d1 : d1, d2 < 0 ? -d2 : d2);
  }
  const std::int64_t d = a->variables[0] / a->variables[1] - b->variables[0] / b->variables[1];
  return d < 0 ? -d : d;
}

void make_neutral(const run_context& ctx, block* r) noexcept {
  if (uses_range_statistics(ctx.pred_choice)) {
    r->variables[0] = 255;
    r->variables[1] = 0;
  } else {
    r->variables[0] = 0;
    r->variables[1] = 0;
  }
}

}  // namespace splitmerge
