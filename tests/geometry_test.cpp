// Locational codes and block geometry on worked 2-D and 3-D examples, with
// 32-bit codes and with the 64-bit codes of images beyond 256 pixels a side.
#include <gtest/gtest.h>

#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::prepared_run;
using testing::setup;
using wide = std::uint64_t;

std::vector<int> where(const block_position& p) {
  return {p.column, p.row, p.slice, p.first_pixel()};
}
std::vector<int> extent(const block_extent& e) { return {e.side, e.row_span, e.slice_span}; }

TEST(Geometry, PlaneOfEightByEight) {
  prepared_run run(setup({}, 8));
  ASSERT_TRUE(run.ok);
  const run_context& ctx = run.ctx;
  EXPECT_EQ(std::vector<int>(ctx.blocks_perlevel, ctx.blocks_perlevel + 3),
            (std::vector<int>{4, 4, 4}));
  EXPECT_EQ(std::vector<int>(ctx.pixels_perblock, ctx.pixels_perblock + 4),
            (std::vector<int>{1, 4, 16, 64}));
  EXPECT_EQ(level(ctx, 0x420), 1);
  EXPECT_EQ(level(ctx, 0x421), 0);
  EXPECT_EQ(level(ctx, 0x400), 2);
  EXPECT_EQ(level(ctx, 0x10000000), 7);
  EXPECT_EQ(level(ctx, 0), 3);
  EXPECT_EQ(where(coordinates(ctx, 0x420, 1)), (std::vector<int>{6, 32, 0, 38}));
  EXPECT_EQ(coordinates(ctx, 0x420, 3).first_pixel(), 0);
  EXPECT_EQ(extent(sizes_block(ctx, 1)), (std::vector<int>{2, 16, 64}));
  EXPECT_EQ(entry(ctx, 0x420), 13u);
  EXPECT_EQ(entry(ctx, 0x00F), 0u);
  EXPECT_EQ(entry(ctx, 0x423), 13u) << "a smaller block gets its initial-level ancestor's slot";
  EXPECT_EQ(entry(ctx, 0x400), 12u) << "a larger block gets its first descendant's slot";
  EXPECT_EQ(next_code(ctx, 0x420, 1), 0x430u);
  EXPECT_EQ(next_code(ctx, 0x340, 1), 0x410u);
  EXPECT_EQ(next_code(ctx, 0x440, 1), 0u);
  EXPECT_EQ(next_code(ctx, 0x423, 1), 0x430u) << "nibbles below the level are cleared";
  EXPECT_EQ(next_code(ctx, 0x420, 3), 0u) << "nothing follows the whole image";
  EXPECT_EQ(changed_code(3, 1, 0x420), 0x430u);
}

TEST(Geometry, TablesAndSlicesOfVolumes) {
  prepared_run run(setup({}, 4, 2, 0));
  ASSERT_TRUE(run.ok);
  const run_context& ctx = run.ctx;
  EXPECT_EQ(std::vector<int>(ctx.blocks_perlevel, ctx.blocks_perlevel + 2),
            (std::vector<int>{4, 8}));
  EXPECT_EQ(std::vector<int>(ctx.pixels_perblock, ctx.pixels_perblock + 3),
            (std::vector<int>{1, 4, 32}));
  EXPECT_EQ(where(coordinates(ctx, 0x50, 1)), (std::vector<int>{0, 0, 16, 16}));
  EXPECT_EQ(extent(sizes_block(ctx, 1)), (std::vector<int>{2, 8, 16}))
      << "at lim_oct_level a block is one slice deep";
  // Below lim_oct_level a z digit does not move the block.
  EXPECT_EQ(coordinates(ctx, 0x15, 0).slice, 0);
  EXPECT_EQ(coordinates(ctx, 0x54, 0).first_pixel(), 16 + 1 + 4);
  prepared_run octree(setup({}, 8, 8));
  EXPECT_EQ(std::vector<int>(octree.ctx.pixels_perblock, octree.ctx.pixels_perblock + 4),
            (std::vector<int>{1, 8, 64, 512}));
  EXPECT_EQ(octree.ctx.blocks_perlevel[2], 8);
}

TEST(Geometry, EntryAtMaxLevelEight) {
  run_context ctx;
  ctx.max_level = 8;
  ctx.lim_oct_level = 8;
  ctx.init_level = 8;
  // The whole image as initial block would shift by 32 bits; every code has slot 0.
  EXPECT_EQ(entry(ctx, 0x12345678), 0u);
  ctx.init_level = 2;
  std::int32_t table[8] = {4, 4, 4, 4, 4, 4, 4, 4};
  ctx.blocks_perlevel = table;
  EXPECT_EQ(entry(ctx, 0x11111200), 1u);
  EXPECT_EQ(entry(ctx, 0x41111100), 3u * 4 * 4 * 4 * 4 * 4);
  EXPECT_EQ(entry(ctx, 0x44444400), 4095u);
  EXPECT_EQ(next_code(ctx, 0x14444400, 2), 0x21111100u);
  EXPECT_EQ(next_code(ctx, 0x44444400, 2), 0u);
  ctx.blocks_perlevel = nullptr;
}

TEST(Geometry, CoordinatesAgreeWithDigitsEverywhere) {
  // Every level-0 code of an 8x8x4 volume (lim_oct_level 1) names a distinct
  // pixel, and walking next_code visits them in increasing code order.
  prepared_run run(setup({}, 8, 4, 0));
  ASSERT_TRUE(run.ok);
  std::vector<int> seen(256, 0);
  std::uint32_t previous = 0;
  std::uint32_t count = 0;
  for (std::uint32_t code = 0x111; code != 0; code = next_code(run.ctx, code, 0), ++count) {
    ASSERT_GT(code, previous);
    const int pixel = coordinates(run.ctx, code, 0).first_pixel();
    ASSERT_TRUE(pixel >= 0 && pixel < 256);
    ++seen[static_cast<std::size_t>(pixel)];
    EXPECT_EQ(entry(run.ctx, code), count);
    previous = code;
  }
  EXPECT_EQ(seen, std::vector<int>(256, 1));
}

// A context with the tables of an image of 2^max_level pixels a side.
struct wide_tables {
  run_context ctx;
  std::vector<std::int32_t> per_level;

  wide_tables(std::int32_t max_level, std::int32_t lim_oct_level)
      : per_level(static_cast<std::size_t>(max_level)) {
    ctx.max_level = max_level;
    ctx.lim_oct_level = lim_oct_level;
    ctx.init_level = 3;
    ctx.im_format_xy = 1 << max_level;
    ctx.voxels_slice = ctx.im_format_xy * ctx.im_format_xy;
    for (std::int32_t l = 0; l < max_level; ++l)
      per_level[static_cast<std::size_t>(l)] = l < lim_oct_level ? 4 : 8;
    ctx.blocks_perlevel = per_level.data();
  }
  ~wide_tables() { ctx.blocks_perlevel = nullptr; }
};

TEST(WideCodes, LevelsDigitsCoordinatesAndEntriesOfA4096Image) {
  const wide_tables t(12, 12);
  EXPECT_EQ(level<wide>(t.ctx, 0x1'0000'0000), 8);
  EXPECT_EQ(level<wide>(t.ctx, 0x1000'0000'0000), 11);
  EXPECT_EQ(level<wide>(t.ctx, 0x1234'5678'9ABC), 0);
  EXPECT_EQ(level<wide>(t.ctx, 0), 12);
  EXPECT_EQ(nibble(wide{0x4321'0000'0000}, 11), 4u);
  EXPECT_EQ(nibble(wide{0x4321'0000'0000}, 8), 1u);
  EXPECT_EQ(changed_code<wide>(3, 9, 0x1111'1111'1111), wide{0x1131'1111'1111});
  EXPECT_EQ(
      level_mask<wide>[9], wide { 0xFFFF'FFF0'0000'0000 });
  EXPECT_EQ(
      mask<wide>[9], wide { 0xF'0000'0000 });
  // Digit 2 at level 11 (upper half in x), nothing below: the right half.
  EXPECT_EQ(coordinates<wide>(t.ctx, 0x2000'0000'0000, 11).column, 2048);
  // Digit 4 at level 8 under digit 1 above: the 256 x 256 block at (256, 256).
  EXPECT_EQ(where(coordinates<wide>(t.ctx, 0x1114'0000'0000, 8)),
            (std::vector<int>{256, 256 * 4096, 0, 256 * 4097}));
  EXPECT_EQ(coordinates<wide>(t.ctx, 0x4444'4444'4444, 0).first_pixel(), 4096 * 4096 - 1);
  // 512 x 512 initial blocks of 8 x 8 pixels: the last one is slot 2^18 - 1.
  EXPECT_EQ(entry<wide>(t.ctx, 0x4444'4444'4000), (1u << 18) - 1);
  EXPECT_EQ(entry<wide>(t.ctx, 0x1111'1111'1000), 0u);
  EXPECT_EQ(entry<wide>(t.ctx, 0x2111'1111'1000), 1u << 16);
  EXPECT_EQ(entry<wide>(t.ctx, 0x2000'0000'0000), 1u << 16) << "a larger block: its first cell";
  // Across the 32-bit boundary: the last child at levels 3..7 carries into level 8.
  EXPECT_EQ(next_code<wide>(t.ctx, 0x1111'4444'4000, 3), wide{0x1112'1111'1000});
  EXPECT_EQ(next_code<wide>(t.ctx, 0x4444'4444'4000, 3), wide{0});
  EXPECT_EQ(next_code<wide>(t.ctx, 0x4444'4444'4000, 12), wide{0});
  // Neighbours across x = 2048, and across x, y = 256 of a 512 x 512 image.
  EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x2111'1111'1111, 0, 0), wide{0x1222'2222'2222});
  const wide_tables plane(9, 9);
  EXPECT_EQ(find_adjacent<wide>(plane.ctx, 0x2'1111'1111, 0, 0), wide{0x1'2222'2222});
  EXPECT_EQ(find_adjacent<wide>(plane.ctx, 0x3'1111'1111, 0, 1), wide{0x1'3333'3333});
  EXPECT_EQ(find_adjacent<wide>(plane.ctx, 0x1'1111'1111, 0, 0), wide{0}) << "the image's edge";
  EXPECT_EQ(find_adjacent<wide>(plane.ctx, 0x2'0000'0000, 8, 0), wide{0x1'0000'0000});
  // A 512^3 volume divided in z at every level: the voxel at z = 256.
  const wide_tables volume(9, 0);
  EXPECT_EQ(find_adjacent<wide>(volume.ctx, 0x5'1111'1111, 0, 2), wide{0x1'5555'5555});
  EXPECT_EQ(coordinates<wide>(volume.ctx, 0x5'1111'1111, 0).slice, 256 * 512 * 512);
}

}  // namespace
}  // namespace splitmerge
