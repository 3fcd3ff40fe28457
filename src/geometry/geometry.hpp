// Locational codes: one 4-bit child digit per level, and the block geometry
// that follows from them.
//
// Images up to 2^8 pixels along an edge name their blocks by 32-bit codes;
// larger ones (up to 12 levels) by 64-bit codes with the same digits. Every
// function that reads a code takes its width as a template argument, 32 bits
// when not given, so that runs of small images keep the narrow arithmetic.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

namespace splitmerge {

class run_context;

// Levels a code of this width can name (one nibble each).
template <class Code>
inline constexpr std::int32_t code_digits = static_cast<std::int32_t>(2 * sizeof(Code));

// Runs with more levels than this use 64-bit codes.
inline constexpr std::int32_t narrow_code_levels = 8;
// The most levels of a 2-D image and of a volume.
inline constexpr std::int32_t max_levels_2d = 14;
inline constexpr std::int32_t max_levels_3d = 10;

namespace detail {
template <class Code>
constexpr std::array<Code, code_digits<Code>> make_level_masks() {
  std::array<Code, code_digits<Code>> t{};
  for (std::int32_t l = 0; l < code_digits<Code>; ++l)
    t[l] = static_cast<Code>(~Code{0} << (4 * l));
  return t;
}
template <class Code>
constexpr std::array<Code, code_digits<Code>> make_masks() {
  std::array<Code, code_digits<Code>> t{};
  for (std::int32_t l = 1; l < code_digits<Code>; ++l)
    t[l] = static_cast<Code>(Code{0xF} << (4 * (l - 1)));
  return t;
}
}  // namespace detail

// Nibbles of level L and above: 0xFFFFFFFF, 0xFFFFFFF0, ... for 32-bit codes.
template <class Code = std::uint32_t>
inline constexpr std::array<Code, code_digits<Code>> level_mask = detail::make_level_masks<Code>();
// The nibble of the level just below L (0 for L = 0): 0x0, 0xF, 0xF0, ...
template <class Code = std::uint32_t>
inline constexpr std::array<Code, code_digits<Code>> mask = detail::make_masks<Code>();
static_assert(level_mask<>[7] == 0xF0000000u && mask<>[7] == 0xF000000u);

// 1 when a child with that digit lies in the upper half of its parent along
// the axis (x, y, z), indexed by axis * 9 + digit.
inline constexpr std::uint32_t p_n[27] = {
    0, 0, 1, 0, 1, 0, 1, 0, 1,  // x
    0, 0, 0, 1, 1, 0, 0, 1, 1,  // y
    0, 0, 0, 0, 0, 1, 1, 1, 1,  // z
};

// The digit of one level (0 for levels beyond the code's width).
template <class Code>
constexpr std::uint32_t nibble(Code code, std::int32_t lvl) noexcept {
  static_assert(std::is_unsigned_v<Code>);
  return lvl >= code_digits<Code> ? 0u : static_cast<std::uint32_t>((code >> (4 * lvl)) & 0xFu);
}

template <class Code = std::uint32_t>
std::int32_t level(const run_context& ctx, std::type_identity_t<Code> code) noexcept;
template <class Code = std::uint32_t>
std::uint32_t entry(const run_context& ctx, std::type_identity_t<Code> code) noexcept;
template <class Code = std::uint32_t>
constexpr Code changed_code(std::uint32_t digit, std::int32_t lvl,
                            std::type_identity_t<Code> code) noexcept {
  return static_cast<Code>((code & ~(Code{0xF} << (4 * lvl))) | (Code{digit} << (4 * lvl)));
}
template <class Code = std::uint32_t>
Code next_code(const run_context& ctx, std::type_identity_t<Code> code, std::int32_t lvl) noexcept;

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
template <class Code = std::uint32_t>
block_position coordinates(const run_context& ctx, std::type_identity_t<Code> code,
                           std::int32_t lvl) noexcept;

std::int32_t fill_blocks_per_level(run_context& ctx) noexcept;
// Fills the context's table of pixel offsets by level and digit.
void fill_digit_offsets(run_context& ctx) noexcept;
std::int32_t fill_pixels_per_block(run_context& ctx) noexcept;

}  // namespace splitmerge
