// Locational codes: one 4-bit child digit per level, and the block geometry
// that follows from them.
#pragma once

#include <cstdint>

namespace splitmerge {

class run_context;

// Nibbles of level L and above.
inline constexpr std::uint32_t level_mask[8] = {0xFFFFFFFFu, 0xFFFFFFF0u, 0xFFFFFF00u,
                                                0xFFFFF000u, 0xFFFF0000u, 0xFFF00000u,
                                                0xFF000000u, 0xF0000000u};
// The nibble of the level just below L (0 for L = 0).
inline constexpr std::uint32_t mask[8] = {0x0u,     0xFu,     0xF0u,     0xF00u,
                                          0xF000u,  0xF0000u, 0xF00000u, 0xF000000u};
// 1 when a child with that digit lies in the upper half of its parent along
// the axis (x, y, z), indexed by axis * 9 + digit.
inline constexpr std::uint32_t p_n[27] = {
    0, 0, 1, 0, 1, 0, 1, 0, 1,  // x
    0, 0, 0, 1, 1, 0, 0, 1, 1,  // y
    0, 0, 0, 0, 0, 1, 1, 1, 1,  // z
};

// The digit of one level (0 for levels at or above 8).
constexpr std::uint32_t nibble(std::uint32_t code, std::int32_t lvl) noexcept {
  return lvl >= 8 ? 0u : (code >> (4 * lvl)) & 0xFu;
}

std::int32_t level(const run_context& ctx, std::uint32_t code) noexcept;
std::uint32_t entry(const run_context& ctx, std::uint32_t code) noexcept;
constexpr std::uint32_t changed_code(std::uint32_t digit, std::int32_t lvl,
                                     std::uint32_t code) noexcept {
  return (code & ~(0xFu << (4 * lvl))) | (digit << (4 * lvl));
}
std::uint32_t next_code(const run_context& ctx, std::uint32_t code, std::int32_t lvl) noexcept;

struct block_extent {
  std::int32_t side = 0;
  std::int32_t row_span = 0;
  std::int32_t slice_span = 0;
};
struct block_position {
  std::int32_t column = 0;
  std::int32_t row = 0;    // row offset in pixel-index units
  std::int32_t slice = 0;  // slice offset in pixel-index units
  [[nodiscard]] std::int32_t first_pixel() const noexcept { return column + row + slice; }
};

block_extent sizes_block(const run_context& ctx, std::int32_t lvl) noexcept;
block_position coordinates(const run_context& ctx, std::uint32_t code, std::int32_t lvl) noexcept;

std::int32_t fill_blocks_per_level(run_context& ctx) noexcept;
// Fills the context's table of pixel offsets by level and digit.
void fill_digit_offsets(run_context& ctx) noexcept;
std::int32_t fill_pixels_per_block(run_context& ctx) noexcept;

}  // namespace splitmerge
