// The initial region list: every leaf block becomes a region of its own,
// listed by decreasing level, with the list of the regions it touches.
//
// A block's neighbour list holds, in this order, the neighbours it finds
// itself (those before it in chain order) last found first, then the blocks
// that find it, in chain order. The pairs are found first (by several
// threads: finding reads only the tree), then every list is laid out as one
// contiguous run of entries, so that walking a list reads memory in order.
#include <algorithm>

#include "context/run_context.hpp"
#include "context/workers.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

// Scratch of the pair search, one allocation besides the found pairs.
struct pair_table {
  std::uint32_t* found_begin = nullptr;  // by leaf position: first of its finds
  std::uint32_t* found_count = nullptr;  // by leaf position: how many it found
  std::uint32_t* slot = nullptr;         // by block index: incoming count, then fill cursor
  block_id* found = nullptr;             // the finds, each part's run from its own start
};

// Orders the leaves into the region list (largest level first, chain order
// within a level) and makes each a region of its own.
template <class Code>
void make_initial_regions(run_context& ctx, block* first, block** table, block*& head) {
  for (block* cur = first; cur != nullptr; cur = ctx.block_at(cur->next_block)) {
    calc_eval_var_region<Code>(ctx, cur);
    const std::int32_t lvl = level<Code>(ctx, ctx.code_of<Code>(cur));
    cur->region_pointer = ctx.id(cur);
    cur->pixels = static_cast<std::uint32_t>(ctx.pixels_perblock[lvl]);
    if (cur == first) {
      cur->next_region = 0;
      head = cur;
      table[lvl] = cur;
      continue;
    }
    block* after = table[lvl];
    for (std::int32_t i = lvl + 1; after == nullptr && i < ctx.max_level; ++i) after = table[i];
    if (after != nullptr) {
      cur->next_region = after->next_region;
      after->next_region = ctx.id(cur);
    } else {
      cur->next_region = ctx.id(head);
      head = cur;
    }
    table[lvl] = cur;
  }
}

template <class Code>
void fill_leaf_index(const run_context& ctx, blocklist list, block* first, std::size_t cells,
                     leaf_index<Code>& index) {
  std::size_t i = 0;
  for (block* b = first; b != nullptr; b = ctx.block_at(b->next_block), ++i) {
    index.leaves[i] = b;
    index.codes[i] = ctx.code_of<Code>(b);
  }
  // Empty slots lie inside a block that starts earlier; they are never searched.
  i = 0;
  std::uint32_t covering = 0;
  for (std::size_t s = 0; s < cells; ++s) {
    if (list[s] != nullptr) covering = static_cast<std::uint32_t>(s);
    index.covering_slot[s] = covering;
    if (list[s] == nullptr) continue;
    while (index.leaves[i] != list[s]) ++i;
    index.cell_start[s] = static_cast<std::uint32_t>(i);
  }
}

// Finds the lower neighbours of every leaf. A leaf finds at most three times
// its pixel count (one neighbour per pixel face on each lower side), so part
// t writes from three times the pixels of the leaves before it on.
template <class Code>
void find_pairs(const run_context& ctx, blocklist list, const leaf_index<Code>& index,
                const std::size_t* part_start, std::size_t parts, pair_table& pairs) {
  run_parts(parts, [&](std::size_t t) {
    const std::size_t begin = part_begin(index.count, parts, t);
    const std::size_t end = part_begin(index.count, parts, t + 1);
    std::size_t at = part_start[t];
    for (std::size_t p = begin; p < end; ++p) {
      pairs.found_begin[p] = static_cast<std::uint32_t>(at);
      pair_sink sink{pairs.found + at, 0};
      if (p != 0) {
        const std::int32_t lvl = level<Code>(ctx, index.codes[p]);
        for (std::int32_t axis = 0; axis < 3; ++axis)
          pair_along<Code>(ctx, list, index, p, lvl, axis, sink);
      }
      pairs.found_count[p] = sink.count;
      at += sink.count;
    }
  });
}

// Lays out every list as one run of entries starting at `base`.
template <class Code>
void place_lists(run_context& ctx, const leaf_index<Code>& index, pair_table& pairs,
                 entry_id base) {
  nb_node* entries = base == 0 ? nullptr : ctx.entry_at(base) - base;
  entry_id at = base;
  for (std::size_t p = 0; p < index.count; ++p) {
    block* b = index.leaves[p];
    const std::uint32_t own = pairs.found_count[p];
    std::uint32_t& slot = pairs.slot[ctx.id(b)];
    const std::uint32_t length = own + slot;
    if (length == 0) {
      b->nb_pointers[0] = b->nb_pointers[1] = 0;
      continue;
    }
    b->nb_pointers[0] = at;
    b->nb_pointers[1] = at + length - 1;
    const block_id* found = pairs.found + pairs.found_begin[p];
    for (std::uint32_t j = 0; j < own; ++j) entries[at + own - 1 - j].region = found[j];
    for (std::uint32_t j = 0; j + 1 < length; ++j) entries[at + j].next = at + j + 1;
    entries[at + length - 1].next = 0;
    slot = at + own;  // where the next block that finds b goes
    at += length;
  }
  for (std::size_t p = 0; p < index.count; ++p) {
    const block_id cur = ctx.id(index.leaves[p]);
    const block_id* found = pairs.found + pairs.found_begin[p];
    for (std::uint32_t j = 0; j < pairs.found_count[p]; ++j)
      entries[pairs.slot[found[j]]++].region = cur;
  }
}

}  // namespace

template <class Code>
list_result<regionlist> group_init(run_context& ctx, blocklist list) noexcept {
  block* first = list[0];
  auto table =
      create_array<block*>(ctx, static_cast<std::size_t>(ctx.max_level), alloc_site::level_table);
  const auto fail = [&](void* scratch) {
    ctx.allocator.release(scratch);
    ctx.phase_status = free_initregion(ctx, list, table);
    return list_result<regionlist>::failure(ctx.phase_status);
  };
  if (table == nullptr) return fail(nullptr);
  block* head = nullptr;
  make_initial_regions<Code>(ctx, first, table, head);

  leaf_index<Code> index;
  for (const block* b = first; b != nullptr; b = ctx.block_at(b->next_block)) ++index.count;
  const auto cells =
      static_cast<std::size_t>(ctx.voxels_image / ctx.pixels_perblock[ctx.init_level]);
  const std::size_t ids = ctx.blocks.end();
  auto* scratch = static_cast<std::uint32_t*>(ctx.allocator.allocate_uninitialised(
      index.count * (sizeof(block*) + sizeof(Code) + 2 * sizeof(std::uint32_t)) +
          (2 * cells + ids) * sizeof(std::uint32_t),
      alloc_site::leaf_index));
  if (scratch == nullptr) return fail(nullptr);
  index.leaves = reinterpret_cast<block**>(scratch);
  index.codes = reinterpret_cast<Code*>(index.leaves + index.count);
  index.cell_start = reinterpret_cast<std::uint32_t*>(index.codes + index.count);
  index.covering_slot = index.cell_start + cells;
  pair_table pairs;
  pairs.found_begin = index.covering_slot + cells;
  pairs.found_count = pairs.found_begin + index.count;
  pairs.slot = pairs.found_count + index.count;
  std::fill(pairs.slot, pairs.slot + ids, 0u);
  fill_leaf_index(ctx, list, first, cells, index);

  // Where each part writes its finds: three per pixel of the leaves before it.
  const std::size_t parts = parts_for(index.count, thread_count(ctx.threads), ctx.thread_grain);
  std::size_t part_start[max_parts + 1] = {};
  {
    std::size_t pixels = 0;
    std::size_t t = 1;
    for (std::size_t p = 0; p < index.count && t < parts; ++p) {
      if (p == part_begin(index.count, parts, t)) part_start[t++] = 3 * pixels;
      pixels += static_cast<std::size_t>(ctx.pixels_perblock[level<Code>(ctx, index.codes[p])]);
    }
  }
  // Only what is written becomes memory: the bound is rarely reached.
  pairs.found = static_cast<block_id*>(ctx.allocator.allocate_uninitialised(
      3 * static_cast<std::size_t>(ctx.voxels_image) * sizeof(block_id), alloc_site::leaf_index));
  if (pairs.found == nullptr) return fail(scratch);
  find_pairs(ctx, list, index, part_start, parts, pairs);

  std::size_t total = 0;
  for (std::size_t p = 0; p < index.count; ++p) {
    total += 2 * std::size_t{pairs.found_count[p]};
    for (std::uint32_t j = 0; j < pairs.found_count[p]; ++j)
      ++pairs.slot[pairs.found[pairs.found_begin[p] + j]];
  }
  const entry_id base =
      total == 0 ? 0 : ctx.entries.obtain_range(static_cast<std::uint32_t>(total));
  if (total != 0 && base == 0) {
    ctx.allocator.release(pairs.found);
    return fail(scratch);
  }
  place_lists(ctx, index, pairs, base);

  // Every block is now a head of its own; chain order is memory order.
  for (std::size_t i = 0; i < index.count; ++i) index.leaves[i]->next_block = 0;
  ctx.allocator.release(pairs.found);
  ctx.allocator.release(scratch);
  ctx.allocator.release(list);
  ctx.allocator.release(table);
  ctx.phase_status = 0;
  return list_result<regionlist>{head, 0};
}

template list_result<regionlist> group_init<std::uint32_t>(run_context&, blocklist) noexcept;
template list_result<regionlist> group_init<std::uint64_t>(run_context&, blocklist) noexcept;

}  // namespace splitmerge
