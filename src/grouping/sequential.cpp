#include <algorithm>

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

  // Appends e (or its copy), which names `head`; false when no fresh entry
  // could be had (e is then left as it was).
  bool keep(nb_node* e, block_id head) noexcept {
    nb_node* kept = e;
    if (std::uint64_t{ctx_.entries.end()} < planned_) {
      const entry_id fresh = ctx_.entries.obtain_range(1);
      if (fresh == 0) return false;
      kept = ctx_.entry_at(fresh);
      ctx_.entries.release(e);
    }
    kept->region = head;
    append(kept);
    return true;
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

// The grouping's working tables, one allocation:
//  - what a walk asks of the region an entry names, in a slot per block, so
//    that it is answered from a table a sixth the size of the block records
//    (which then mostly stays in cache): an absorbed block holds the block
//    that absorbed it; a head holds `head_mark` and the number of the walk
//    that last met it (walks are counted by the grouping alone), and the
//    region its first entry named when the grouping started (until the head
//    is absorbed nothing changes its list);
//  - the entries still to walk, the next one on top. A region's list is
//    walked in order, and an absorbed region's list goes in right after the
//    entry that named it; on a stack the entries coming next are known ahead
//    of time, so their records are fetched early instead of one after the
//    other along the links. Every entry is on the stack at most once.
// The walk indexes the record arrays directly: it runs some fifteen million
// steps on a large volume, and every instruction in them counts.
// Block indices stay below 2^31: the largest images make about 1.2 billion
// blocks.
class walk_tables {
 public:
  static constexpr std::uint32_t head_mark = std::uint32_t{1} << 31;

  explicit walk_tables(run_context& ctx) noexcept
      : ctx_(ctx), entries_(ctx.entries.data()), blocks_(ctx.blocks.data()) {
    const std::size_t blocks = ctx.blocks.end();
    if (blocks >= head_mark) return;
    slots_ = static_cast<slot*>(ctx.allocator.allocate_uninitialised(
        blocks * sizeof(slot) + std::size_t{ctx.entries.end()} * sizeof(entry_id),
        alloc_site::grouping_table));
    if (slots_ == nullptr) return;
    std::fill_n(slots_, blocks, slot{head_mark, 0});
    stack_ = reinterpret_cast<entry_id*>(slots_ + blocks);
    fetch_ahead_ = ctx.records_outgrow_cache();
  }
  walk_tables(const walk_tables&) = delete;
  walk_tables& operator=(const walk_tables&) = delete;
  ~walk_tables() { ctx_.allocator.release(slots_); }

  [[nodiscard]] bool ready() const noexcept { return slots_ != nullptr; }

  // Notes the regions on the region list from `heads`: the first entries of
  // the heads still to grow, and the blocks of regions grown from seeds
  // before; false when interrupted.
  bool note_regions(regionlist heads) noexcept {
    loop_poll poll(ctx_);
    for (const block* h = heads; h != nullptr; h = ctx_.block_at(h->next_region)) {
      if (poll.due()) return false;
      const block_id id = ctx_.id(h);
      if (h->region_pointer == 0) continue;
      if ((h->status & 2u) == 0 && h->nb_pointers[0] != 0)
        slots_[id].first = entries_[h->nb_pointers[0]].region;
      if (h->region_pointer == id) continue;
      for (const block* b = ctx_.block_at(h->next_block); b != nullptr;
           b = ctx_.block_at(b->next_block))
        slots_[ctx_.id(b)].state = id;
    }
    return true;
  }
  [[nodiscard]] std::uint32_t next_walk() noexcept { return ++walk_; }

  // The head of the region block b belongs to; `met` gets the number of the
  // walk that last met it.
  block_id head(block_id b, std::uint32_t& met) const noexcept {
    std::uint32_t s = slots_[b].state;
    while ((s & head_mark) == 0) {
      b = s;
      s = slots_[b].state;
    }
    met = s & ~head_mark;
    return b;
  }
  void meet(block_id head, std::uint32_t walk) noexcept { slots_[head].state = head_mark | walk; }
  [[nodiscard]] block_id first_named(block_id n) const noexcept { return slots_[n].first; }
  void absorb(block_id b, block_id by) noexcept { slots_[b].state = by; }

  // Pushes the list from entry `first` on (none: 0), so that it is walked in
  // order; the regions of its entries are fetched as they go on.
  void push_list(entry_id first) noexcept {
    const std::size_t bottom = top_;
    for (entry_id e = first; e != 0; e = entries_[e].next) {
      if (fetch_ahead_) fetch(entries_[e].region);
      stack_[top_++] = e;
    }
    std::reverse(stack_ + bottom, stack_ + top_);
  }
  void push(entry_id e) noexcept { stack_[top_++] = e; }
  [[nodiscard]] bool empty() const noexcept { return top_ == 0; }
  [[nodiscard]] bool fetch_ahead() const noexcept { return fetch_ahead_; }

  // The next entry to walk. Entries further down are fetched on the way: the
  // entry record `far` places down, the region of the one `near` places down
  // (its entry has had time to arrive), and the first entry of the head
  // `nearer` places down (its record has had time to arrive).
  entry_id pop() noexcept {
    const std::size_t t = --top_;
    if (fetch_ahead_) {
      if (t >= far) __builtin_prefetch(entries_ + stack_[t - far]);
      if (t >= near) fetch(entries_[stack_[t - near]].region);
      if (t >= nearer) {
        const block_id b = entries_[stack_[t - nearer]].region;
        if ((slots_[b].state & head_mark) != 0)
          __builtin_prefetch(entries_ + blocks_[b].nb_pointers[0]);
      }
    }
    return stack_[t];
  }

  void fetch(block_id b) const noexcept {
    __builtin_prefetch(slots_ + b);
    // A record may straddle two cache lines.
    __builtin_prefetch(blocks_ + b);
    __builtin_prefetch(reinterpret_cast<const char*>(blocks_ + b) + sizeof(block) - 1);
  }

  // Links the entries not walked in walk order, emptying the stack; their
  // first, or none.
  nb_node* unwalked() noexcept {
    entry_id first = 0;
    for (std::size_t i = 0; i < top_; ++i) {
      entries_[stack_[i]].next = first;
      first = stack_[i];
    }
    top_ = 0;
    return ctx_.entry_at(first);
  }

 private:
  static constexpr std::size_t far = 16;
  static constexpr std::size_t near = 8;
  static constexpr std::size_t nearer = 3;

  struct slot {
    std::uint32_t state;
    block_id first;
  };

  run_context& ctx_;
  nb_node* const entries_;
  block* const blocks_;
  slot* slots_ = nullptr;
  entry_id* stack_ = nullptr;
  std::size_t top_ = 0;
  std::uint32_t walk_ = 0;
  bool fetch_ahead_ = false;
};

// r absorbs n, met through entry e: e takes the place of n's first entry,
// which is left to forward readers to r, and n's other entries follow e. The
// region e now names is known from the table, so it is asked for before n's
// list arrives.
template <bool Display>
void absorb(run_context& ctx, walk_tables& tables, block* r, block* n, nb_node& e) noexcept {
  const block_id r_id = ctx.id(r);
  const block_id n_id = ctx.id(n);
  e.region = tables.first_named(n_id);
  if (tables.fetch_ahead()) tables.fetch(e.region);
  unite_predicates(ctx, r, n);
  if constexpr (Display) smg_dfill_region(ctx, ctx.cur_color, n);
  join_blocks(ctx, r, n);
  tables.absorb(n_id, r_id);
  nb_node* f = ctx.entry_at(n->nb_pointers[0]);
  tables.push_list(f->next);
  f->region = r_id;
  n->nb_pointers[1] = r_id;
}

// Grows r over its list. Each region met is marked with this walk's number,
// so a later entry for it is a repeat and goes. Ends early with
// status_no_memory or status_interrupted (r's list is then whole again).
template <bool Display>
std::int32_t grow(run_context& ctx, walk_tables& tables, loop_poll& poll, block* r) noexcept {
  const std::uint32_t walk = tables.next_walk();
  const block_id r_id = ctx.id(r);
  nb_node* const entries = ctx.entries.data();
  block* const blocks = ctx.blocks.data();
  kept_list kept(ctx);
  std::int32_t status = 0;
  tables.push_list(r->nb_pointers[0]);
  // After a union the entry that named the absorbed region is tried again
  // at once, without a turn on the stack.
  entry_id again = 0;
  while (again != 0 || !tables.empty()) {
    if (poll.due()) {
      if (again != 0) tables.push(again);
      status = status_interrupted;
      break;
    }
    const entry_id e = again != 0 ? again : tables.pop();
    again = 0;
    std::uint32_t met = 0;
    const block_id id = tables.head(entries[e].region, met);
    if (id == r_id || met == walk) {
      ctx.entries.release(entries + e);
      continue;
    }
    block* n = blocks + id;
    if ((n->status & 2u) != 0 || !joins_region(ctx, r, n)) {
      tables.meet(id, walk);
      if (!kept.keep(entries + e, id)) {
        tables.push(e);
        status = status_no_memory;
        break;
      }
    } else {
      absorb<Display>(ctx, tables, r, n, entries[e]);  // e now names n's first neighbour
      again = e;
    }
  }
  kept.finish(r, tables.unwalked());
  r->status = 2;
  return status;
}

template <bool Display>
list_result<regionlist> sequential_phase(run_context& ctx, regionlist head) noexcept {
  walk_tables tables(ctx);
  if (!tables.ready()) return list_result<regionlist>::failure(status_no_memory);
  loop_poll poll(ctx);
  if (!tables.note_regions(head)) return list_result<regionlist>::failure(status_interrupted);
  block* r = head;
  while (r->region_pointer == 0) r = ctx.block_at(r->next_region);
  block* const result = r;
  if constexpr (Display) ctx.cur_color = 0;
  for (;;) {
    if constexpr (Display) smg_dfill_region(ctx, ctx.cur_color, r);
    if ((r->status & 2u) == 0) {
      if (const std::int32_t status = grow<Display>(ctx, tables, poll, r); status != 0)
        return list_result<regionlist>::failure(status);
    }
    if (poll.due()) return list_result<regionlist>::failure(status_interrupted);
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
