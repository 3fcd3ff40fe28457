#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

template <bool Display>
void grow(run_context& ctx, block* r) {
  nb_node* prev = nullptr;
  nb_node* e = ctx.entry_at(r->nb_pointers[0]);
  while (e != nullptr) {
    block* n = resolve(ctx, e);
    if (n == r || (n->status & 1u) != 0) {
      e = remove_entry(ctx, r, prev, e);
    } else if ((n->status & 2u) != 0) {
      n->status |= 1u;
      prev = e;
      e = ctx.entry_at(e->next);
    } else if (eval_grow(ctx, r, n) == 0) {
      prev = e;
      e = ctx.entry_at(e->next);
    } else if constexpr (Display) {
      unite_disp(ctx, r, n, e);  // e now names n's first neighbour: try it next
    } else {
      unite(ctx, r, n, e);
    }
  }
  r->status = 2;
  for (nb_node* f = ctx.entry_at(r->nb_pointers[0]); f != nullptr; f = ctx.entry_at(f->next))
    ctx.block_at(f->region)->status &= ~1u;
}

template <bool Display>
regionlist sequential_phase(run_context& ctx, regionlist head) {
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  block* const result = r;
  if constexpr (Display) ctx.cur_color = 0;
  for (;;) {
    if constexpr (Display) smg_dfill_region(ctx, ctx.cur_color, r);
    if ((r->status & 2u) == 0) grow<Display>(ctx, r);
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
