#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "tree/tree.hpp"

namespace splitmerge {

namespace {

template <class Code, bool Display>
std::int32_t sons_of(run_context& ctx, block* b, std::int32_t lvl, block_position at,
                     block_extent extent) noexcept {
  const block_extent son_extent{
      extent.side / 2, extent.row_span / 2,
      lvl >= ctx.lim_oct_level ? extent.slice_span / 2 : extent.slice_span};
  const std::int32_t n = ctx.blocks_perlevel[lvl];
  const Code parent_code = ctx.code_of<Code>(b);
  const block_id successor = b->next_block;
  ctx.set_code<Code>(b, changed_code<Code>(1, lvl, parent_code));

  const auto position_of = [&](std::int32_t k) {
    const std::int32_t d = k - 1;
    block_position p = at;
    if (d & 1) p.column += son_extent.side;
    if (d & 2) p.row += son_extent.row_span;
    if (d & 4) p.slice += son_extent.slice_span;
    return p;
  };
  const auto evaluate = [&](block* son, std::int32_t k, const block_position& p) {
    if constexpr (Display) {
      smg_dfill_block(ctx, p, son_extent, static_cast<std::uint32_t>(k));
      smg_display_im(ctx);
    }
    calc_evalvar(ctx, p, son_extent, lvl, son);
  };

  block* son = b;
  for (std::int32_t k = 1; k < n; ++k) {
    if (ctx.interrupt_due()) {
      son->next_block = successor;  // the chain whole again for the release
      return status_interrupted;
    }
    const block_position p = position_of(k);
    evaluate(son, k, p);
    block* next = new_block(ctx);
    if (next == nullptr) {
      son->next_block = successor;
      return -1;
    }
    son->next_block = ctx.id(next);
    if (son->variables[0] < 0 && lvl > 0) {
      const std::int32_t r = sons_of<Code, Display>(ctx, son, lvl - 1, p, son_extent);
      ctx.phase_status = r;
      if (r != 0) {
        // Keep the chain whole so that the release reaches every record.
        next->next_block = successor;
        return r;
      }
    }
    ctx.set_code<Code>(next,
                       changed_code<Code>(static_cast<std::uint32_t>(k) + 1, lvl, parent_code));
    son = next;
  }
  const block_position p = position_of(n);
  evaluate(son, n, p);
  son->next_block = successor;
  if (son->variables[0] < 0 && lvl > 0) {
    const std::int32_t r = sons_of<Code, Display>(ctx, son, lvl - 1, p, son_extent);
    ctx.phase_status = r;
    return r;
  }
  return 0;
}

template <class Code, bool Display>
std::int32_t split_phase(run_context& ctx, blocklist list) noexcept {
  if (ctx.init_level == 0) return 0;  // single pixels have no sons
  const block_extent extent = sizes_block(ctx, ctx.init_level);
  for (block* b = list[0]; b != nullptr;) {
    block* next = ctx.block_at(b->next_block);
    if (b->variables[0] < 0) {
      const block_position at = coordinates<Code>(ctx, ctx.code_of<Code>(b), ctx.init_level);
      const std::int32_t r = sons_of<Code, Display>(ctx, b, ctx.init_level - 1, at, extent);
      ctx.phase_status = r;
      if (r != 0) {
        free_blocklist(ctx, list);
        return r;
      }
    }
    b = next;
  }
  return 0;
}

}  // namespace

template <class Code>
std::int32_t smg_split(run_context& ctx, blocklist list) noexcept {
  return split_phase<Code, false>(ctx, list);
}
template <class Code>
std::int32_t smg_split_disp(run_context& ctx, blocklist list) noexcept {
  return split_phase<Code, true>(ctx, list);
}
template <class Code>
std::int32_t make_sons(run_context& ctx, block* b, std::int32_t lvl, std::int32_t column,
                       std::int32_t row, std::int32_t slice, std::int32_t side,
                       std::int32_t row_span, std::int32_t slice_span) noexcept {
  return sons_of<Code, false>(ctx, b, lvl, {column, row, slice}, {side, row_span, slice_span});
}
template <class Code>
std::int32_t make_sons_disp(run_context& ctx, block* b, std::int32_t lvl, std::int32_t column,
                            std::int32_t row, std::int32_t slice, std::int32_t side,
                            std::int32_t row_span, std::int32_t slice_span) noexcept {
  return sons_of<Code, true>(ctx, b, lvl, {column, row, slice}, {side, row_span, slice_span});
}

#define SPLITMERGE_SPLIT_FOR(Code)                                                              \
  template std::int32_t smg_split<Code>(run_context&, blocklist) noexcept;                      \
  template std::int32_t smg_split_disp<Code>(run_context&, blocklist) noexcept;                 \
  template std::int32_t make_sons<Code>(run_context&, block*, std::int32_t, std::int32_t,       \
                                        std::int32_t, std::int32_t, std::int32_t, std::int32_t, \
                                        std::int32_t) noexcept;                                 \
  template std::int32_t make_sons_disp<Code>(run_context&, block*, std::int32_t, std::int32_t,  \
                                             std::int32_t, std::int32_t, std::int32_t,          \
                                             std::int32_t, std::int32_t) noexcept;
SPLITMERGE_SPLIT_FOR(std::uint32_t)
SPLITMERGE_SPLIT_FOR(std::uint64_t)
#undef SPLITMERGE_SPLIT_FOR

}  // namespace splitmerge
