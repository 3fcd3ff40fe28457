#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {

namespace {

// The list a region keeps as it grows, built while its old list is walked.
// Kept entries are copied into fresh consecutive entries, so that the later
// phases, which walk the final lists many times, read them in memory order;
// the old entries go. Nothing else takes entries during the grouping, so the
// fresh ones are consecutive. Beyond the entries a run's memory is planned
// for (two per voxel face), entries stay where they are, in the same order.
class kept_list {
 public:
  explicit kept_list(run_context& ctx) noexcept
      : ctx_(ctx),
        planned_(2 * (ctx.im_format_z > 1 ? std::uint64_t{3} : std::uint64_t{2}) *
                     static_cast<std::uint64_t>(ctx.voxels_image) +
                 2) {}

  // Appends e (or its copy) and returns the entry that followed e; false in
  // `ok` when no fresh entry could be had (the lists are then left whole).
  nb_node* keep(nb_node* e, bool& ok) noexcept {
    nb_node* const next = ctx_.entry_at(e->next);
    nb_node* kept = e;
    if (std::uint64_t{ctx_.entries.end()} < planned_) {
      const entry_id fresh = ctx_.entries.obtain_range(1);
      if (fresh == 0) {
        ok = false;
        return e;
      }
      kept = ctx_.entry_at(fresh);
      kept->region = e->region;
      release_entry(ctx_, e);
    }
    append(kept);
    return next;
  }

  // Ends r's list with the entries kept, then `rest` (the part not walked).
  void finish(block* r, nb_node* rest) noexcept {
    if (rest != nullptr) {
      append(rest);
      while (rest->next != 0) rest = ctx_.entry_at(rest->next);
      tail_ = rest;
    }
    if (tail_ != nullptr) tail_->next = 0;
    r->nb_pointers[0] = ctx_.id(first_);
    r->nb_pointers[1] = ctx_.id(tail_);
  }

 private:
  void append(nb_node* e) noexcept {
    if (tail_ != nullptr) {
      tail_->next = ctx_.id(e);
    } else {
      first_ = e;
    }
    tail_ = e;
  }

  run_context& ctx_;
  const std::uint64_t planned_;
  nb_node* first_ = nullptr;
  nb_node* tail_ = nullptr;
};

// Grows r over its list. Each region met is marked with this walk's number,
// so a later entry for it is a repeat and goes. Ends early with
// status_no_memory or status_interrupted (r's list is then whole again).
// Entries ahead of the one being tested whose regions are fetched early: the
// walk waits on one region record after the other otherwise.
constexpr int lookahead = 12;

// The entry `lookahead` places after e (or none).
nb_node* look_ahead_of(const run_context& ctx, nb_node* e) noexcept {
  for (int i = 0; i < lookahead && e != nullptr; ++i) e = ctx.entry_at(e->next);
  return e;
}

template <bool Display>
std::int32_t grow(run_context& ctx, block* r, regionlist heads) noexcept {
  const std::uint32_t visit = next_visit(ctx, heads);
  kept_list kept(ctx);
  bool ok = true;
  std::int32_t status = 0;
  nb_node* e = ctx.entry_at(r->nb_pointers[0]);
  // Always later in the list than e, so never an entry released by the walk.
  nb_node* ahead = look_ahead_of(ctx, e);
  while (e != nullptr) {
    if (ahead != nullptr) {
      __builtin_prefetch(ctx.block_at(ahead->region));
      ahead = ctx.entry_at(ahead->next);
    }
    if (ctx.interrupt_due()) {
      status = status_interrupted;
      break;
    }
    block* n = resolve(ctx, e);
    if (n == r || n->visit == visit) {
      nb_node* const next = ctx.entry_at(e->next);
      release_entry(ctx, e);
      e = next;
    } else if ((n->status & 2u) != 0 || !joins_region(ctx, r, n)) {
      n->visit = visit;
      e = kept.keep(e, ok);
      if (!ok) {
        status = status_no_memory;
        break;
      }
    } else {
      if constexpr (Display) {
        unite_disp(ctx, r, n, e);  // e now names n's first neighbour: try it next
      } else {
        unite(ctx, r, n, e);
      }
      ahead = look_ahead_of(ctx, e);  // n's entries now follow e
    }
  }
  kept.finish(r, e);
  r->status = 2;
  return status;
}

template <bool Display>
list_result<regionlist> sequential_phase(run_context& ctx, regionlist head) noexcept {
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  block* const result = r;
  if constexpr (Display) ctx.cur_color = 0;
  for (;;) {
    if constexpr (Display) smg_dfill_region(ctx, ctx.cur_color, r);
    if ((r->status & 2u) == 0) {
      if (const std::int32_t status = grow<Display>(ctx, r, result); status != 0)
        return list_result<regionlist>::failure(status);
    }
    if (ctx.interrupt_due()) return list_result<regionlist>::failure(status_interrupted);
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
