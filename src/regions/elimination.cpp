#include <limits>

#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "regions/elimination_index.hpp"
#include "regions/regions.hpp"

namespace splitmerge {

namespace {

// The neighbour most like r (first in list order among equals), or null.
block* most_similar_neighbour(const run_context& ctx, block* r) {
  block* best = nullptr;
  std::int64_t best_d = 0;
  for (nb_node* e = ctx.entry_at(r->nb_pointers[0]); e != nullptr; e = ctx.entry_at(e->next)) {
    block* n = resolve(ctx, e);
    if (n == r) continue;
    const std::int64_t d = comp_evalvar(ctx, r, n);
    if (best == nullptr || d < best_d) {
      best = n;
      best_d = d;
    }
  }
  return best;
}

// The first entry of best's list that stands for r. Short walks are cheaper
// than the index; long ones go through it.
nb_node* entry_for(const run_context& ctx, elimination_index& index, block* best, block* r) {
  constexpr int short_walk = 32;
  nb_node* e = ctx.entry_at(best->nb_pointers[0]);
  for (int steps = 0; e != nullptr && steps < short_walk; ++steps, e = ctx.entry_at(e->next))
    if (resolve(ctx, e) == r) return e;
  if (e == nullptr) return nullptr;
  if (nb_node* found = index.first_entry_for(best, r)) return found;
  for (e = ctx.entry_at(best->nb_pointers[0]); e != nullptr && resolve(ctx, e) != r;)
    e = ctx.entry_at(e->next);
  return e;
}

template <bool Display>
void elimination_phase(run_context& ctx, regionlist head) noexcept {
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  if (ctx.small_size < 1) return;  // no region is small
  // Large regions absorb many small ones; finding the entry to unite at by
  // walking their long lists would cost time quadratic in the image size.
  elimination_index index(ctx);
  for (; r != nullptr; r = ctx.block_at(r->next_region)) {
    if (r->pixels >= static_cast<std::uint32_t>(ctx.small_size)) continue;
    block* best = most_similar_neighbour(ctx, r);
    if (best == nullptr) continue;  // r is the only region left
    nb_node* e = entry_for(ctx, index, best, r);
    if (e == nullptr) continue;  // not reachable in a consistent list
    if (ctx.statistic_update == 0) make_neutral(ctx, r);
    nb_node* const forwarding = ctx.entry_at(r->nb_pointers[0]);
    nb_node* const spliced_first = ctx.entry_at(forwarding->next);
    nb_node* const spliced_last =
        spliced_first != nullptr ? ctx.entry_at(r->nb_pointers[1]) : nullptr;
    if constexpr (Display) {
      ctx.cur_color = frame_colour_at(ctx, best);
      unite_disp(ctx, best, r, e);
    } else {
      unite(ctx, best, r, e);
    }
    index.after_union(best, e, spliced_first, spliced_last);
  }
}

}  // namespace

void region_elimination(run_context& ctx, regionlist head) noexcept {
  elimination_phase<false>(ctx, head);
}
void region_elimination_disp(run_context& ctx, regionlist head) noexcept {
  elimination_phase<true>(ctx, head);
}

}  // namespace splitmerge
