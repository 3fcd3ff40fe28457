#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

constexpr std::uint32_t axis_step[3] = {1, 2, 4};

// Shared walk over the children of a subdivided neighbour of level lvl + 1.
template <class Recurse>
block* scan_children(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                     std::int32_t axis, pair_sink& sink, Recurse&& recurse) {
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
      p = recurse(p, lvl - 1);
    } else {
      sink.add(ctx, p);
      p = ctx.block_at(p->next_block);
    }
  }
  return p;
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

block* find_smaller_nbxy(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                         std::int32_t axis, pair_sink& sink) noexcept {
  return scan_children(ctx, p, list, lvl, axis, sink, [&](block* q, std::int32_t l) {
    return find_smaller_nbxy(ctx, q, list, l, axis, sink);
  });
}

block* find_smaller_nbz(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                        pair_sink& sink) noexcept {
  if (lvl >= ctx.lim_oct_level) {
    return scan_children(ctx, p, list, lvl, 2, sink, [&](block* q, std::int32_t l) {
      return find_smaller_nbz(ctx, q, list, l, sink);
    });
  }
  // One slice deep: every leaf of the neighbour touches cur.
  const std::uint32_t digit = nibble(p->code, lvl + 1);
  while (p != nullptr && nibble(p->code, lvl + 1) == digit) {
    sink.add(ctx, p);
    p = ctx.block_at(p->next_block);
  }
  return p;
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

std::size_t leaf_index::lower_bound(std::uint32_t a, std::size_t from,
                                    std::size_t limit) const noexcept {
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

void pair_along(const run_context& ctx, blocklist list, const leaf_index& index,
                std::size_t position, std::int32_t lvl, std::int32_t axis,
                pair_sink& sink) noexcept {
  block* cur = index.leaves[position];
  const std::uint32_t a = find_adjacent(ctx, cur->code, lvl, axis);
  if (a == 0) return;
  const std::uint32_t e = entry(ctx, a);
  if (list[e] == nullptr) {
    // Inside a larger block that begins in an earlier cell.
    sink.add(ctx, list[index.covering_slot[e]]);
    return;
  }
  // The lower neighbour lies in cell e and precedes cur in chain order.
  const std::size_t from = index.cell_start[e];
  const std::size_t at = index.lower_bound(a, from, position + 1);
  block* p = at < index.count ? index.leaves[at] : nullptr;
  block* passed = at > from ? index.leaves[at - 1] : nullptr;
  if (p != nullptr && p->code == a) {
    sink.add(ctx, p);
    return;
  }
  const std::int32_t la = level(ctx, a);
  if (p != nullptr && ((p->code ^ a) >> (4 * la)) == 0) {
    if (axis == 2) {
      find_smaller_nbz(ctx, p, list, la - 1, sink);
    } else {
      find_smaller_nbxy(ctx, p, list, la - 1, axis, sink);
    }
    return;
  }
  if (passed == nullptr) return;  // cannot happen in a tiling
  sink.add(ctx, passed);
}

}  // namespace splitmerge
