#include "geometry/geometry.hpp"

#include <bit>

#include "context/run_context.hpp"

namespace splitmerge {

template <class Code>
std::int32_t level(const run_context& ctx, std::type_identity_t<Code> code) noexcept {
  if (code == 0) return ctx.max_level;
  // Number of zero nibbles below the lowest non-zero one.
  return std::countr_zero(code) / 4;
}

template <class Code>
std::uint32_t entry(const run_context& ctx, std::type_identity_t<Code> code) noexcept {
  if (ctx.init_level >= code_digits<Code>) return 0;
  Code v = code >> (4 * ctx.init_level);
  std::uint32_t sum = 0;
  std::uint32_t weight = 1;
  for (std::int32_t l = ctx.init_level; v != 0; ++l, v >>= 4) {
    const auto n = static_cast<std::uint32_t>(v & 0xFu);
    if (n != 0) sum += (n - 1) * weight;
    weight *= static_cast<std::uint32_t>(ctx.blocks_perlevel[l]);
  }
  return sum;
}

template <class Code>
Code next_code(const run_context& ctx, std::type_identity_t<Code> code, std::int32_t lvl) noexcept {
  if (lvl >= ctx.max_level) return 0;
  const Code c = code & level_mask<Code>[lvl];
  const std::uint32_t n = nibble(c, lvl);
  const Code one = Code{1} << (4 * lvl);
  if (n != static_cast<std::uint32_t>(ctx.blocks_perlevel[lvl])) return c + one;
  const Code r = next_code<Code>(ctx, c, lvl + 1);
  return r == 0 ? 0 : r + one;
}

block_extent sizes_block(const run_context& ctx, std::int32_t lvl) noexcept {
  block_extent e;
  e.side = 1 << lvl;
  e.row_span = ctx.im_format_xy << lvl;
  e.slice_span =
      ctx.voxels_slice * (ctx.lim_oct_level > lvl ? 1 : (1 << (lvl - ctx.lim_oct_level)));
  return e;
}

template <class Code>
block_position coordinates(const run_context& ctx, std::type_identity_t<Code> code,
                           std::int32_t lvl) noexcept {
  block_position p;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t z = 0;
  for (std::int32_t j = lvl < 0 ? 0 : lvl; j < ctx.max_level; ++j) {
    const std::uint32_t n = nibble(code, j);
    if (n == 0) continue;
    const std::uint32_t d = n - 1;
    if (d & 1u) x += 1 << j;
    if (d & 2u) y += 1 << j;
    if ((d & 4u) && j >= ctx.lim_oct_level) z += 1 << (j - ctx.lim_oct_level);
  }
  p.column = x;
  p.row = ctx.im_format_xy * y;
  p.slice = ctx.voxels_slice * z;
  return p;
}

static_assert(run_context::offset_levels >= max_levels_2d);

void fill_digit_offsets(run_context& ctx) noexcept {
  for (std::int32_t j = 0; j < run_context::offset_levels; ++j)
    for (std::uint32_t n = 0; n < 16; ++n) {
      std::int32_t at = 0;
      if (j < ctx.max_level && n != 0) {
        const std::uint32_t d = n - 1;
        if (d & 1u) at += 1 << j;
        if (d & 2u) at += ctx.im_format_xy << j;
        if ((d & 4u) && j >= ctx.lim_oct_level) at += ctx.voxels_slice << (j - ctx.lim_oct_level);
      }
      ctx.digit_offset[j][n] = at;
    }
}

std::int32_t fill_blocks_per_level(run_context& ctx) noexcept {
  ctx.blocks_perlevel = create_array<std::int32_t>(ctx, static_cast<std::size_t>(ctx.max_level),
                                                   alloc_site::blocks_perlevel_table);
  if (ctx.blocks_perlevel == nullptr) return -1;
  for (std::int32_t l = 0; l < ctx.max_level; ++l)
    ctx.blocks_perlevel[l] = l < ctx.lim_oct_level ? 4 : 8;
  return 0;
}

std::int32_t fill_pixels_per_block(run_context& ctx) noexcept {
  ctx.pixels_perblock = create_array<std::int32_t>(ctx, static_cast<std::size_t>(ctx.max_level) + 1,
                                                   alloc_site::pixels_perblock_table);
  if (ctx.pixels_perblock == nullptr) return -1;
  std::int32_t p = 1;
  std::int32_t l = 0;
  for (; l < ctx.lim_oct_level; ++l, p *= 4) ctx.pixels_perblock[l] = p;
  for (; l <= ctx.max_level; ++l, p *= 8) {
    ctx.pixels_perblock[l] = p;
    if (l == ctx.max_level) break;  // avoid forming a product that is never stored
  }
  return 0;
}

#define SPLITMERGE_GEOMETRY_FOR(Code)                                             \
  template std::int32_t level<Code>(const run_context&, Code) noexcept;           \
  template std::uint32_t entry<Code>(const run_context&, Code) noexcept;          \
  template Code next_code<Code>(const run_context&, Code, std::int32_t) noexcept; \
  template block_position coordinates<Code>(const run_context&, Code, std::int32_t) noexcept;
SPLITMERGE_GEOMETRY_FOR(std::uint32_t)
SPLITMERGE_GEOMETRY_FOR(std::uint64_t)
#undef SPLITMERGE_GEOMETRY_FOR

}  // namespace splitmerge
