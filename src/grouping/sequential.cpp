#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {

namespace {

// Grows r over its list. Each region met is marked with this walk's number,
// so a later entry for it is a repeat and goes.
template <bool Display>
void grow(run_context& ctx, block* r, regionlist heads) noexcept {
  const std::uint32_t visit = next_visit(ctx, heads);
  nb_node* prev = nullptr;
  nb_node* e = ctx.entry_at(r->nb_pointers[0]);
  while (e != nullptr) {
    block* n = resolve(ctx, e);
    if (n == r || n->visit == visit) {
      e = remove_entry(ctx, r, prev, e);
    } else if ((n->status & 2u) != 0 || !joins_region(ctx, r, n)) {
      n->visit = visit;
      prev = e;
      e = ctx.entry_at(e->next);
    } else if constexpr (Display) {
      unite_disp(ctx, r, n, e);  // e now names n's first neighbour: try it next
    } else {
      unite(ctx, r, n, e);
    }
  }
  r->status = 2;
}

template <bool Display>
list_result<regionlist> sequential_phase(run_context& ctx, regionlist head) noexcept {
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  block* const result = r;
  if constexpr (Display) ctx.cur_color = 0;
  std::uint32_t polls = 0;
  for (;;) {
    if constexpr (Display) smg_dfill_region(ctx, ctx.cur_color, r);
    if ((r->status & 2u) == 0) {
      grow<Display>(ctx, r, result);
      // r's list is final now (a grown region is never united into another
      // here); later phases walk it many times.
      if (!compact_list(ctx, r)) return list_result<regionlist>::failure(status_no_memory);
    }
    if (++polls % poll_interval == 0 && ctx.interrupt_requested())
      return list_result<regionlist>::failure(status_interrupted);
    if constexpr (Display) ++ctx.cur_color;
    block* nx = ctx.block_at(r->next_region);
    while (nx != nullptr && nx->region_pointer == 0) nx = ctx.block_at(nx->next_region);
    r->next_region = ctx.id(nx);
    if (nx == nullptr) break;
    r = nx;
  }
  ctx.print("finished sequential grouping\n");
  return list_result<regionlist>{result, 0};
}

}  // namespace

list_result<regionlist> sequential_grouping(run_context& ctx, regionlist head) noexcept {
  return sequential_phase<false>(ctx, head);
}
list_result<regionlist> sequential_grouping_disp(run_context& ctx, regionlist head) noexcept {
  return sequential_phase<true>(ctx, head);
}

}  // namespace splitmerge
