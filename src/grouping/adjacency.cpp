#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

constexpr std::uint32_t axis_step[3] = {1, 2, 4};

// Shared walk over the children of a subdivided neighbour of level lvl + 1.
template <class Code, class Recurse>
block* scan_children(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                     std::int32_t axis, pair_sink& sink, Recurse&& recurse) {
  const std::int32_t n = ctx.blocks_perlevel[lvl];
  for (std::int32_t k = 1; k <= n && p != nullptr; ++k) {
    if (p_n[axis * 9 + k] == 0) {
      // Child k lies in the lower half and does not touch cur: skip its leaves.
      if (lvl >= ctx.init_level) {
        const std::uint32_t e = entry<Code>(ctx, next_code<Code>(ctx, ctx.code_of<Code>(p), lvl));
        p = e == 0 ? nullptr : list[e];
      } else if (nibble(ctx.code_of<Code>(p), lvl) == static_cast<std::uint32_t>(k)) {
        while (p != nullptr && nibble(ctx.code_of<Code>(p), lvl) == static_cast<std::uint32_t>(k))
          p = ctx.block_at(p->next_block);
      }
    } else if ((ctx.code_of<Code>(p) & mask<Code>[lvl]) != 0) {
      p = recurse(p, lvl - 1);
    } else {
      sink.add(ctx, p);
      p = ctx.block_at(p->next_block);
    }
  }
  return p;
}

}  // namespace

template <class Code>
Code find_adjacent(const run_context& ctx, std::type_identity_t<Code> code, std::int32_t lvl,
                   std::int32_t axis) noexcept {
  if (code == 0) return 0;
  const std::uint32_t d = nibble(code, lvl);
  const Code step = axis_step[axis];
  if (p_n[axis * 9 + d] == 1) return code - (step << (4 * lvl));
  const Code parent = lvl + 1 < code_digits<Code> ? code & level_mask<Code>[lvl + 1] : 0;
  const Code r = find_adjacent<Code>(ctx, parent, lvl + 1, axis);
  if (r == 0) return 0;
  Code mirrored = d + step;
  if (axis == 2 && lvl < ctx.lim_oct_level) mirrored = d;
  return r + (mirrored << (4 * lvl));
}

template <class Code>
block* find_smaller_nbxy(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                         std::int32_t axis, pair_sink& sink) noexcept {
  return scan_children<Code>(ctx, p, list, lvl, axis, sink, [&](block* q, std::int32_t l) {
    return find_smaller_nbxy<Code>(ctx, q, list, l, axis, sink);
  });
}

template <class Code>
block* find_smaller_nbz(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                        pair_sink& sink) noexcept {
  if (lvl >= ctx.lim_oct_level) {
    return scan_children<Code>(ctx, p, list, lvl, 2, sink, [&](block* q, std::int32_t l) {
      return find_smaller_nbz<Code>(ctx, q, list, l, sink);
    });
  }
  // One slice deep: every leaf of the neighbour touches cur.
  const std::uint32_t digit = nibble(ctx.code_of<Code>(p), lvl + 1);
  while (p != nullptr && nibble(ctx.code_of<Code>(p), lvl + 1) == digit) {
    sink.add(ctx, p);
    p = ctx.block_at(p->next_block);
  }
  return p;
}

template <class Code>
block* make_one_region(run_context& ctx, block* b) noexcept {
  b->region_pointer = ctx.id(b);
  b->nb_pointers[0] = 0;
  b->nb_pointers[1] = 0;
  b->pixels =
      static_cast<std::uint32_t>(ctx.pixels_perblock[level<Code>(ctx, ctx.code_of<Code>(b))]);
  calc_eval_var_region<Code>(ctx, b);
  b->next_region = 0;
  return b;
}

template <class Code>
void pair_along(const run_context& ctx, blocklist list, const leaf_index<Code>& index,
                std::size_t position, std::int32_t lvl, std::int32_t axis,
                pair_sink& sink) noexcept {
  const Code a = find_adjacent<Code>(ctx, index.codes[position], lvl, axis);
  if (a == 0) return;
  const std::uint32_t e = entry<Code>(ctx, a);
  if (list[e] == nullptr) {
    // Inside a larger block that begins in an earlier cell.
    sink.add(ctx, list[index.covering_slot[e]]);
    return;
  }
  // The lower neighbour lies in cell e and precedes the leaf in chain order.
  const std::size_t from = index.cell_start[e];
  const std::size_t at = index.lower_bound(a, from, position + 1);
  block* p = at < index.count ? index.leaves[at] : nullptr;
  block* passed = at > from ? index.leaves[at - 1] : nullptr;
  const Code p_code = at < index.count ? index.codes[at] : 0;
  if (p != nullptr && p_code == a) {
    sink.add(ctx, p);
    return;
  }
  const std::int32_t la = level<Code>(ctx, a);
  if (p != nullptr && ((p_code ^ a) >> (4 * la)) == 0) {
    if (axis == 2) {
      find_smaller_nbz<Code>(ctx, p, list, la - 1, sink);
    } else {
      find_smaller_nbxy<Code>(ctx, p, list, la - 1, axis, sink);
    }
    return;
  }
  if (passed == nullptr) return;  // cannot happen in a tiling
  sink.add(ctx, passed);
}

#define SPLITMERGE_ADJACENCY_FOR(Code)                                                         \
  template Code find_adjacent<Code>(const run_context&, Code, std::int32_t,                    \
                                    std::int32_t) noexcept;                                    \
  template block* find_smaller_nbxy<Code>(const run_context&, block*, blocklist, std::int32_t, \
                                          std::int32_t, pair_sink&) noexcept;                  \
  template block* find_smaller_nbz<Code>(const run_context&, block*, blocklist, std::int32_t,  \
                                         pair_sink&) noexcept;                                 \
  template block* make_one_region<Code>(run_context&, block*) noexcept;                        \
  template void pair_along<Code>(const run_context&, blocklist, const leaf_index<Code>&,       \
                                 std::size_t, std::int32_t, std::int32_t, pair_sink&) noexcept;
SPLITMERGE_ADJACENCY_FOR(std::uint32_t)
SPLITMERGE_ADJACENCY_FOR(std::uint64_t)
#undef SPLITMERGE_ADJACENCY_FOR

}  // namespace splitmerge
