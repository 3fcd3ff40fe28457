#include <limits>

#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "regions/elimination_index.hpp"
#include "regions/regions.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {

namespace {

// Asks for the regions of the first `most` entries from e at once, so that
// the walk that follows does not wait on one after the other.
void fetch_regions(const run_context& ctx, const nb_node* e, std::uint32_t most) noexcept {
  for (std::uint32_t i = 0; e != nullptr && i < most; ++i, e = ctx.entry_at(e->next))
    __builtin_prefetch(ctx.block_at(e->region));
}

// The neighbour most like r (first in list order among equals), or null.
block* most_similar_neighbour(const run_context& ctx, block* r, bool fetch_ahead) {
  if (fetch_ahead)  // the whole list: a small region's is short
    fetch_regions(ctx, ctx.entry_at(r->nb_pointers[0]), std::numeric_limits<std::uint32_t>::max());
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
nb_node* entry_for(const run_context& ctx, elimination_index& index, block* best, block* r,
                   bool fetch_ahead, bool& failed) {
  // A list indexed once stays indexed: its walk would only repeat the index.
  if (index.indexed(best)) return index.first_entry_for(best, r, failed);
  nb_node* e = ctx.entry_at(best->nb_pointers[0]);
  if (fetch_ahead) fetch_regions(ctx, e, ctx.elimination_walk);
  for (std::uint32_t steps = 0; e != nullptr && steps < ctx.elimination_walk;
       ++steps, e = ctx.entry_at(e->next))
    if (resolve(ctx, e) == r) return e;
  if (e == nullptr) return nullptr;
  return index.first_entry_for(best, r, failed);
}

template <bool Display>
std::int32_t elimination_phase(run_context& ctx, regionlist head) noexcept {
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  if (ctx.small_size < 1) return 0;  // no region is small
  // Large regions absorb many small ones; finding the entry to unite at by
  // walking their long lists would cost time quadratic in the image size.
  elimination_index index(ctx);
  const bool fetch_ahead = ctx.records_outgrow_cache();
  for (; r != nullptr; r = ctx.block_at(r->next_region)) {
    if (ctx.interrupt_due()) return status_interrupted;
    if (r->pixels >= static_cast<std::uint32_t>(ctx.small_size)) continue;
    block* best = most_similar_neighbour(ctx, r, fetch_ahead);
    if (best == nullptr) continue;  // r is the only region left
    bool failed = false;
    nb_node* e = entry_for(ctx, index, best, r, fetch_ahead, failed);
    if (failed) return ctx.interrupted ? status_interrupted : status_no_memory;
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
    if (!index.after_union(best, e, spliced_first, spliced_last))
      return ctx.interrupted ? status_interrupted : status_no_memory;
  }
  return 0;
}

}  // namespace

std::int32_t region_elimination(run_context& ctx, regionlist head) noexcept {
  return elimination_phase<false>(ctx, head);
}
std::int32_t region_elimination_disp(run_context& ctx, regionlist head) noexcept {
  return elimination_phase<true>(ctx, head);
}

}  // namespace splitmerge
