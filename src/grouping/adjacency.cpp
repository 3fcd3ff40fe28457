#include "driver/run_context.hpp"
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
          p = p->next_block;
      }
    } else if ((p->code & mask[lvl]) != 0) {
      const block_result r = recurse(p, lvl - 1);
      if (check_pointer(r) != 0) return r;
      p = r.value;
    } else {
      const auto f = add_neighbour(ctx, front, p, cur);
      if (check_pointer(f) != 0) return block_result::failure(f.status);
      front = f.value;
      p = p->next_block;
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
  front->region = b;
  nb_node* back = new_nb_node(ctx, cur, nullptr);
  if (back == nullptr) return list_result<nb_node*>::failure(free_cur_np(ctx, front));
  if (b->nb_pointers[1] != nullptr) {
    b->nb_pointers[1]->next = back;
  } else {
    b->nb_pointers[0] = back;
  }
  b->nb_pointers[1] = back;
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
    p = p->next_block;
  }
  return block_result{p, 0};
}

block* make_one_region(run_context& ctx, block* b) noexcept {
  b->region_pointer = b;
  b->nb_pointers[0] = nullptr;
  b->nb_pointers[1] = nullptr;
  calc_eval_var_region(ctx, b);
  b->next_region = nullptr;
  return b;
}

namespace {

// Finds and pairs the neighbours of cur along one axis.
list_result<nb_node*> pair_along(run_context& ctx, blocklist list, block* cur, std::int32_t lvl,
                                 std::int32_t axis, nb_node* front) {
  using front_result = list_result<nb_node*>;
  const std::uint32_t a = find_adjacent(ctx, cur->code, lvl, axis);
  if (a == 0) return front_result{front, 0};
  std::uint32_t e = entry(ctx, a);
  if (list[e] == nullptr) {
    // Inside a larger block that begins in an earlier cell.
    while (list[e] == nullptr) --e;
    return add_neighbour(ctx, front, list[e], cur);
  }
  block* p = list[e];
  block* passed = nullptr;
  while (p != nullptr && p->code < a) {
    passed = p;
    p = p->next_block;
  }
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
  if (front->next == nullptr) b->nb_pointers[1] = nullptr;
  ctx.allocator.release(front);
}

}  // namespace

list_result<regionlist> group_init(run_context& ctx, blocklist list) noexcept {
  const auto fail = [&](block** table) {
    ctx.phase_status = free_initregion(ctx, list, table);
    return list_result<regionlist>::failure(ctx.phase_status);
  };
  block* first = list[0];
  calc_eval_var_region(ctx, first);
  first->region_pointer = first;
  nb_node* first_front = new_nb_node(ctx, nullptr, nullptr);
  if (first_front == nullptr) return fail(nullptr);
  first->nb_pointers[0] = first->nb_pointers[1] = first_front;
  first->next_region = nullptr;

  auto table = create_array<block*>(ctx, static_cast<std::size_t>(ctx.max_level),
                                    alloc_site::level_table);
  if (table == nullptr) return fail(nullptr);
  table[level(ctx, first->code)] = first;
  block* head = first;

  for (block* cur = first->next_block; cur != nullptr; cur = cur->next_block) {
    calc_eval_var_region(ctx, cur);
    const std::int32_t lvl = level(ctx, cur->code);
    block* after = table[lvl];
    for (std::int32_t i = lvl + 1; after == nullptr && i < ctx.max_level; ++i) after = table[i];
    if (after != nullptr) {
      cur->next_region = after->next_region;
      after->next_region = cur;
    } else {
      cur->next_region = head;
      head = cur;
    }
    table[lvl] = cur;

    cur->region_pointer = cur;
    nb_node* front = new_nb_node(ctx, nullptr, nullptr);
    if (front == nullptr) return fail(table);
    cur->nb_pointers[1] = front;
    for (std::int32_t axis = 0; axis < 3; ++axis) {
      const auto f = pair_along(ctx, list, cur, lvl, axis, front);
      if (check_pointer(f) != 0) return fail(table);
      front = f.value;
    }
    close_list(ctx, cur, front);
  }
  close_list(ctx, first, first_front);
  for (block* h = head; h != nullptr; h = h->next_region) h->next_block = nullptr;
  ctx.allocator.release(list);
  ctx.allocator.release(table);
  ctx.phase_status = 0;
  return list_result<regionlist>{head, 0};
}

}  // namespace splitmerge
