#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "tree/tree.hpp"

namespace splitmerge {

namespace {

// Replaces the group g..last (n blocks of level lvl) by their parent, kept in
// g's record.
template <class Code>
void merge_group(run_context& ctx, blocklist list, block* g, block* last, std::int32_t lvl,
                 std::int32_t n, std::uint32_t stride, std::int64_t acc0, std::int64_t acc1) {
  ctx.set_code<Code>(g, changed_code<Code>(0, lvl, ctx.code_of<Code>(g)));
  g->variables[0] = acc0;
  g->variables[1] = acc1;
  block* child = ctx.block_at(g->next_block);
  g->next_block = last->next_block;
  for (std::int32_t j = 1; j < n; ++j) {
    block* next = ctx.block_at(child->next_block);
    release_block(ctx, child);
    child = next;
  }
  const std::uint32_t e = entry<Code>(ctx, ctx.code_of<Code>(g));
  for (std::int32_t j = 1; j < n; ++j) list[e + static_cast<std::uint32_t>(j) * stride] = nullptr;
}

template <class Code, bool Display>
void merge_phase(run_context& ctx, blocklist list) noexcept {
  std::uint32_t stride = 1;
  loop_poll poll(ctx);
  for (std::int32_t lvl = ctx.init_level;; ++lvl) {
    const std::int32_t n = ctx.blocks_perlevel[lvl];
    bool merged = false;
    block* g = list[0];
    block* b = g;
    std::int32_t k = 0;
    std::int64_t acc0 = 0;
    std::int64_t acc1 = 0;
    while (b != nullptr) {
      // Between groups the list is whole: the caller releases it.
      if (poll.due()) return;
      if (level<Code>(ctx, ctx.code_of<Code>(b)) == lvl) {
        ++k;
        if (update_evalvar(ctx, b, acc0, acc1, k, lvl) != 0) {
          if (k < n) {
            b = ctx.block_at(b->next_block);
            continue;
          }
          merge_group<Code>(ctx, list, g, b, lvl, n, stride, acc0, acc1);
          if constexpr (Display) {
            const Code code = ctx.code_of<Code>(g);
            smg_dfill_block(ctx, coordinates<Code>(ctx, code, lvl + 1), sizes_block(ctx, lvl + 1),
                            nibble(code, lvl + 1));
            smg_display_im(ctx);
          }
          merged = true;
          g = ctx.block_at(g->next_block);
          b = g;
          k = 0;
          acc0 = acc1 = 0;
          continue;
        }
      }
      // Give up the group: jump to the first block of the next cell.
      const Code c = next_code<Code>(ctx, ctx.code_of<Code>(b), lvl + 1);
      if (c == 0) break;
      g = list[entry<Code>(ctx, c)];
      b = g;
      k = 0;
      acc0 = acc1 = 0;
    }
    stride *= lvl >= ctx.lim_oct_level ? 8u : 4u;
    if (!merged || lvl + 1 == ctx.max_level) return;
  }
}

}  // namespace

template <class Code>
void smg_merge(run_context& ctx, blocklist list) noexcept {
  merge_phase<Code, false>(ctx, list);
}
template <class Code>
void smg_merge_disp(run_context& ctx, blocklist list) noexcept {
  merge_phase<Code, true>(ctx, list);
}

template void smg_merge<std::uint32_t>(run_context&, blocklist) noexcept;
template void smg_merge<std::uint64_t>(run_context&, blocklist) noexcept;
template void smg_merge_disp<std::uint32_t>(run_context&, blocklist) noexcept;
template void smg_merge_disp<std::uint64_t>(run_context&, blocklist) noexcept;

}  // namespace splitmerge
