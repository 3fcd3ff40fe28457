#include <limits>

#include "display/display.hpp"
#include "driver/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "regions/regions.hpp"

namespace splitmerge {

std::int64_t region_size(const run_context& ctx, const block* head, std::int64_t limit) noexcept {
  std::int64_t sum = 0;
  for (const block* b = head; b != nullptr && sum < limit; b = b->next_block)
    sum += ctx.pixels_perblock[level(ctx, b->code)];
  return sum;
}

namespace {

// The neighbour most like r (first in list order among equals), or null.
block* most_similar_neighbour(const run_context& ctx, block* r) {
  block* best = nullptr;
  std::int64_t best_d = 0;
  for (nb_node* e = r->nb_pointers[0]; e != nullptr; e = e->next) {
    block* n = resolve(e);
    if (n == r) continue;
    const std::int64_t d = comp_evalvar(ctx, r, n);
    if (best == nullptr || d < best_d) {
      best = n;
      best_d = d;
    }
  }
  return best;
}

template <bool Display>
void elimination_phase(run_context& ctx, regionlist head) noexcept {
  block* r = head;
  while (r->region_pointer == nullptr) r = r->next_region;
  for (; r != nullptr; r = r->next_region) {
    if (ctx.small_size < 1 || region_size(ctx, r, ctx.small_size) >= ctx.small_size) continue;
    block* best = most_similar_neighbour(ctx, r);
    if (best == nullptr) continue;  // r is the only region left
    nb_node* e = best->nb_pointers[0];
    while (e != nullptr && resolve(e) != r) e = e->next;
    if (e == nullptr) continue;  // not reachable in a consistent list
    if (ctx.statistic_update == 0) make_neutral(ctx, r);
    if constexpr (Display) {
      ctx.cur_color = frame_colour_at(ctx, best);
      unite_disp(ctx, best, r, e);
    } else {
      unite(ctx, best, r, e);
    }
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
