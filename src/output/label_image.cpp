#include <algorithm>

#include "context/run_context.hpp"
#include "geometry/geometry.hpp"
#include "output/output.hpp"

namespace splitmerge {

void make_output(const run_context& ctx, regionlist head, std::int32_t* output) noexcept {
  if (head->next_region == 0) {
    const auto n = static_cast<std::size_t>(ctx.im_format_xy) *
                   static_cast<std::size_t>(ctx.im_format_xy) *
                   static_cast<std::size_t>(ctx.im_format_z);
    std::fill(output, output + n, 0);
    return;
  }
  std::int32_t label = 0;
  for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region), ++label) {
    for (const block* b = h; b != nullptr; b = ctx.block_at(b->next_block)) {
      const std::int32_t lvl = level(ctx, b->code);
      const block_position p = coordinates(ctx, b->code, lvl);
      const std::int32_t side = 1 << lvl;
      const std::int32_t slice_span =
          lvl > ctx.lim_oct_level ? ctx.voxels_slice << (lvl - ctx.lim_oct_level)
                                  : ctx.voxels_slice;
      for (std::int32_t s = p.slice; s < p.slice + slice_span; s += ctx.voxels_slice)
        for (std::int32_t r = p.row; r < p.row + ctx.im_format_xy * side; r += ctx.im_format_xy) {
          std::int32_t* row = output + s + r + p.column;
          std::fill(row, row + side, label);
        }
    }
  }
}

}  // namespace splitmerge
