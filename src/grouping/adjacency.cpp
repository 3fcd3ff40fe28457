#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

constexpr std::uint32_t axis_step[3] = {1, 2, 4};

using block_result = list_result<block*>;

// Shared walk over the children of a subdivided neighbour of level lvl + 1.
template <class Recurse>
block_result scan_children(run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                           std::int32_t axis, nb_node*& front, block* cur, Recurse&& recurse) {
  const std::int32_t n = ctx.blocks_perlevel[lvl];
  for (std::int32_t k = 1; k <= n && p != nullptr; ++k) {
    if (p_n[axis * 9 + k] == 0) {
      // Child k lies in the lower half and does not touch cur: skip its leaves.
      if (lvl >= ctx.init_level) {
        const std::uint32_t e = entry(ctx, next_code(ctx, p->code, lvl));
        p = e == 0 ? nullptr : list[e];
      } else if (nibble(p->code, lvl) == static_cast<std::uint32_t>(k)) {
        while (p != nullptr && nibble(p->code, lvl) == static_cast<std::uint32_t>(k))
          p = ctx.block_at(p->next_block);
      }
    } else if ((p->code & mask[lvl]) != 0) {
      const block_result r = recurse(p, lvl - 1);
      if (check_pointer(r) != 0) return r;
      p = r.value;
    } else {
      const auto f = add_neighbour(ctx, front, p, cur);
      if (check_pointer(f) != 0) return block_result::failure(f.status);
      front = f.value;
      p = ctx.block_at(p->next_block);
    }
  }
  return block_result{p, 0};
}

}  // namespace

std::uint32_t find_adjacent(const run_context& ctx, std::uint32_t code, std::int32_t lvl,
                            std::int32_t axis) noexcept {
  if (code == 0) return 0;
  const std::uint32_t d = nibble(code, lvl);
  const std::uint32_t step = axis_step[axis];
  if (p_n[axis * 9 + d] == 1) return code - (step << (4 * lvl));
  const std::uint32_t parent = lvl + 1 < 8 ? code & level_mask[lvl + 1] : 0;
  const std::uint32_t r = find_adjacent(ctx, parent, lvl + 1, axis);
  if (r == 0) return 0;
  std::uint32_t mirrored = d + step;
  if (axis == 2 && lvl < ctx.lim_oct_level) mirrored = d;
  return r + (mirrored << (4 * lvl));
}

list_result<nb_node*> add_neighbour(run_context& ctx, nb_node* front, block* b,
                                    block* cur) noexcept {
  front->region = ctx.id(b);
  nb_node* back = new_nb_node(ctx, cur, nullptr);
  if (back == nullptr) return list_result<nb_node*>::failure(free_cur_np(ctx, front));
  const entry_id back_id = ctx.id(back);
  if (b->nb_pointers[1] != 0) {
    ctx.entry_at(b->nb_pointers[1])->next = back_id;
  } else {
    b->nb_pointers[0] = back_id;
  }
  b->nb_pointers[1] = back_id;
  nb_node* fresh = new_nb_node(ctx, nullptr, front);
  if (fresh == nullptr) return list_result<nb_node*>::failure(free_cur_np(ctx, front));
  return list_result<nb_node*>{fresh, 0};
}

list_result<block*> find_smaller_nbxy(run_context& ctx, block* p, blocklist list,
                                      std::int32_t lvl, std::int32_t axis, nb_node*& front,
                                      block* cur) noexcept {
  return scan_children(ctx, p, list, lvl, axis, front, cur, [&](block* q, std::int32_t l) {
    return find_smaller_nbxy(ctx, q, list, l, axis, front, cur);
  });
}

list_result<block*> find_smaller_nbz(run_context& ctx, block* p, blocklist list,
                                     std::int32_t lvl, nb_node*& front, block* cur) noexcept {
  if (lvl >= ctx.lim_oct_level) {
    return scan_children(ctx, p, list, lvl, 2, front, cur, [&](block* q, std::int32_t l) {
      return find_smaller_nbz(ctx, q, list, l, front, cur);
    });
  }
  // One slice deep: every leaf of the neighbour touches cur.
  const std::uint32_t digit = nibble(p->code, lvl + 1);
  while (p != nullptr && nibble(p->code, lvl + 1) == digit) {
    const auto f = add_neighbour(ctx, front, p, cur);
    if (check_pointer(f) != 0) return block_result::failure(f.status);
    front = f.value;
    p = ctx.block_at(p->next_block);
  }
  return block_result{p, 0};
}

block* make_one_region(run_context& ctx, block* b) noexcept {
  b->region_pointer = ctx.id(b);
  b->nb_pointers[0] = 0;
  b->nb_pointers[1] = 0;
  b->pixels = static_cast<std::uint32_t>(ctx.pixels_perblock[level(ctx, b->code)]);
  calc_eval_var_region(ctx, b);
  b->next_region = 0;
  return b;
}

namespace {

// The leaves in chain order with their codes side by side, and the position
// of each initial-level cell's first leaf. Codes increase strictly along the
// chain, so the leaf that holds or starts a code is found by a binary search
// within its cell instead of a walk along the chain.
struct leaf_index {
  block** leaves = nullptr;
  std::uint32_t* codes = nullptr;
  std::uint32_t* cell_start = nullptr;
  // For every cell, the nearest slot at or below it that holds a block: the
  // cell's own slot, or that of the larger block covering it.
  std::uint32_t* covering_slot = nullptr;
  std::size_t count = 0;

  // The first leaf from `from` on whose code is not below a, before `limit`.
  [[nodiscard]] std::size_t lower_bound(std::uint32_t a, std::size_t from,
                                        std::size_t limit) const {
    std::size_t lo = from;
    std::size_t hi = limit;
    while (lo < hi) {
      const std::size_t mid = lo + (hi - lo) / 2;
      if (codes[mid] < a) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    return lo;
  }
};

// Finds and pairs the neighbours of cur (leaf number `position`) along one axis.
list_result<nb_node*> pair_along(run_context& ctx, blocklist list, const leaf_index& index,
                                 std::size_t position, std::int32_t lvl, std::int32_t axis,
                                 nb_node* front) {
  using front_result = list_result<nb_node*>;
  block* cur = index.leaves[position];
  const std::uint32_t a = find_adjacent(ctx, cur->code, lvl, axis);
  if (a == 0) return front_result{front, 0};
  const std::uint32_t e = entry(ctx, a);
  if (list[e] == nullptr) {
    // Inside a larger block that begins in an earlier cell.
    return add_neighbour(ctx, front, list[index.covering_slot[e]], cur);
  }
  // The lower neighbour lies in cell e and precedes cur in chain order.
  const std::size_t from = index.cell_start[e];
  const std::size_t at = index.lower_bound(a, from, position + 1);
  block* p = at < index.count ? index.leaves[at] : nullptr;
  block* passed = at > from ? index.leaves[at - 1] : nullptr;
  if (p != nullptr && p->code == a) return add_neighbour(ctx, front, p, cur);
  const std::int32_t la = level(ctx, a);
  if (p != nullptr && ((p->code ^ a) >> (4 * la)) == 0) {
    const block_result r = axis == 2
                               ? find_smaller_nbz(ctx, p, list, la - 1, front, cur)
                               : find_smaller_nbxy(ctx, p, list, la - 1, axis, front, cur);
    if (check_pointer(r) != 0) return front_result::failure(r.status);
    return front_result{front, 0};
  }
  if (passed == nullptr) return front_result{front, 0};  // cannot happen in a tiling
  return add_neighbour(ctx, front, passed, cur);
}

// Releases the front entry of a finished list.
void close_list(run_context& ctx, block* b, nb_node* front) {
  b->nb_pointers[0] = front->next;
  if (front->next == 0) b->nb_pointers[1] = 0;
  release_entry(ctx, front);
}

}  // namespace

list_result<regionlist> group_init(run_context& ctx, blocklist list) noexcept {
  const auto fail = [&](block** table) {
    ctx.phase_status = free_initregion(ctx, list, table);
    return list_result<regionlist>::failure(ctx.phase_status);
  };
  block* first = list[0];
  calc_eval_var_region(ctx, first);
  first->region_pointer = ctx.id(first);
  first->pixels = static_cast<std::uint32_t>(ctx.pixels_perblock[level(ctx, first->code)]);
  nb_node* first_front = new_nb_node(ctx, nullptr, nullptr);
  if (first_front == nullptr) return fail(nullptr);
  first->nb_pointers[0] = first->nb_pointers[1] = ctx.id(first_front);
  first->next_region = 0;

  auto table = create_array<block*>(ctx, static_cast<std::size_t>(ctx.max_level),
                                    alloc_site::level_table);
  if (table == nullptr) return fail(nullptr);
  table[level(ctx, first->code)] = first;
  block* head = first;

  leaf_index index;
  for (const block* b = first; b != nullptr; b = ctx.block_at(b->next_block)) ++index.count;
  const auto cells = static_cast<std::size_t>(ctx.voxels_image / ctx.pixels_perblock[ctx.init_level]);
  index.leaves = static_cast<block**>(ctx.allocator.allocate_uninitialised(
      index.count * (sizeof(block*) + sizeof(std::uint32_t)) + 2 * cells * sizeof(std::uint32_t),
      alloc_site::leaf_index));
  if (index.leaves == nullptr) return fail(table);
  index.codes = reinterpret_cast<std::uint32_t*>(index.leaves + index.count);
  index.cell_start = index.codes + index.count;
  index.covering_slot = index.cell_start + cells;
  {
    std::size_t i = 0;
    for (block* b = first; b != nullptr; b = ctx.block_at(b->next_block), ++i) {
      index.leaves[i] = b;
      index.codes[i] = b->code;
    }
    // Empty slots lie inside a block that starts earlier; they are never searched.
    i = 0;
    std::uint32_t covering = 0;
    for (std::size_t slot = 0; slot < cells; ++slot) {
      if (list[slot] != nullptr) covering = static_cast<std::uint32_t>(slot);
      index.covering_slot[slot] = covering;
      if (list[slot] == nullptr) continue;
      while (index.leaves[i] != list[slot]) ++i;
      index.cell_start[slot] = static_cast<std::uint32_t>(i);
    }
  }
  const auto fail_indexed = [&] {
    ctx.allocator.release(index.leaves);
    return fail(table);
  };

  std::size_t position = 0;
  for (block* cur = ctx.block_at(first->next_block); cur != nullptr;
       cur = ctx.block_at(cur->next_block)) {
    ++position;
    calc_eval_var_region(ctx, cur);
    const std::int32_t lvl = level(ctx, cur->code);
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

    cur->region_pointer = ctx.id(cur);
    cur->pixels = static_cast<std::uint32_t>(ctx.pixels_perblock[lvl]);
    nb_node* front = new_nb_node(ctx, nullptr, nullptr);
    if (front == nullptr) return fail_indexed();
    cur->nb_pointers[1] = ctx.id(front);
    for (std::int32_t axis = 0; axis < 3; ++axis) {
      const auto f = pair_along(ctx, list, index, position, lvl, axis, front);
      if (check_pointer(f) != 0) return fail_indexed();
      front = f.value;
    }
    close_list(ctx, cur, front);
  }
  close_list(ctx, first, first_front);
  // Every block is now a head of its own; chain order is memory order.
  for (std::size_t i = 0; i < index.count; ++i) index.leaves[i]->next_block = 0;
  ctx.allocator.release(list);
  ctx.allocator.release(table);
  ctx.allocator.release(index.leaves);
  ctx.phase_status = 0;
  return list_result<regionlist>{head, 0};
}

}  // namespace splitmerge
