#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

// Grows r over its list. Each region met is marked with this walk's number,
// so a later entry for it is a repeat and goes.
template <bool Display>
void grow(run_context& ctx, block* r, regionlist heads) {
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
regionlist sequential_phase(run_context& ctx, regionlist head) {
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  block* const result = r;
  if constexpr (Display) ctx.cur_color = 0;
  for (;;) {
    if constexpr (Display) smg_dfill_region(ctx, ctx.cur_color, r);
    if ((r->status & 2u) == 0) grow<Display>(ctx, r, result);
    if constexpr (Display) ++ctx.cur_color;
    block* nx = ctx.block_at(r->next_region);
    while (nx != nullptr && nx->region_pointer == 0) nx = ctx.block_at(nx->next_region);
    r->next_region = ctx.id(nx);
    if (nx == nullptr) break;
    r = nx;
  }
  ctx.print("finished sequential grouping\n");
  return result;
}

}  // namespace

regionlist sequential_grouping(run_context& ctx, regionlist head) {
  return sequential_phase<false>(ctx, head);
}
regionlist sequential_grouping_disp(run_context& ctx, regionlist head) {
  return sequential_phase<true>(ctx, head);
}

}  // namespace splitmerge
