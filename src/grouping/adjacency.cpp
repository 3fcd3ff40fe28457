#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

constexpr std::uint32_t axis_step[3] = {1, 2, 4};

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

#define SPLITMERGE_ADJACENCY_FOR(Code)                                      \
  template Code find_adjacent<Code>(const run_context&, Code, std::int32_t, \
                                    std::int32_t) noexcept;                 \
  template block* make_one_region<Code>(run_context&, block*) noexcept;
SPLITMERGE_ADJACENCY_FOR(std::uint32_t)
SPLITMERGE_ADJACENCY_FOR(std::uint64_t)
#undef SPLITMERGE_ADJACENCY_FOR

}  // namespace splitmerge
