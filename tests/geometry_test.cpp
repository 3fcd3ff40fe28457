// Locational codes and block geometry on the worked 2-D and 3-D examples.
#include <gtest/gtest.h>

#include "geometry/geometry.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::image_spec;
using testing::prepared_run;

prepared_run make_run(const image_spec& s) {
  const std::size_t n = static_cast<std::size_t>(s.size_x) * s.size_x * s.size_z;
  return prepared_run(std::vector<std::int32_t>(n, 0), s);
}

TEST(Geometry, PlaneOfEightByEight) {
  prepared_run run = make_run({8, 1, 3, 3, 1, 1, 10});
  ASSERT_TRUE(run.ok);
  const run_context& ctx = run.ctx;
  EXPECT_EQ(std::vector<int>(ctx.blocks_perlevel, ctx.blocks_perlevel + 3),
            (std::vector<int>{4, 4, 4}));
  EXPECT_EQ(std::vector<int>(ctx.pixels_perblock, ctx.pixels_perblock + 4),
            (std::vector<int>{1, 4, 16, 64}));

  EXPECT_EQ(level(ctx, 0x420), 1);
  const block_position p = coordinates(ctx, 0x420, 1);
  EXPECT_EQ(p.column, 6);
  EXPECT_EQ(p.row, 32);
  EXPECT_EQ(p.slice, 0);
  EXPECT_EQ(p.first_pixel(), 38);
  const block_extent e = sizes_block(ctx, 1);
  EXPECT_EQ(e.side, 2);
  EXPECT_EQ(e.row_span, 16);
  EXPECT_EQ(e.slice_span, 64);
  EXPECT_EQ(entry(ctx, 0x420), 13u);

  EXPECT_EQ(next_code(ctx, 0x420, 1), 0x430u);
  EXPECT_EQ(next_code(ctx, 0x340, 1), 0x410u);
  EXPECT_EQ(next_code(ctx, 0x440, 1), 0u);
  EXPECT_EQ(next_code(ctx, 0x423, 1), 0x430u) << "nibbles below the level are cleared";
  EXPECT_EQ(next_code(ctx, 0x420, 3), 0u) << "nothing follows the whole image";
  EXPECT_EQ(changed_code(3, 1, 0x420), 0x430u);
  EXPECT_EQ(level(ctx, 0), 3);
  EXPECT_EQ(coordinates(ctx, 0x420, 3).first_pixel(), 0);
}

TEST(Geometry, VolumeOfFourByFourByTwo) {
  prepared_run run = make_run({4, 2, 2, 1, 0, 1, 10});
  ASSERT_TRUE(run.ok);
  const run_context& ctx = run.ctx;
  EXPECT_EQ(std::vector<int>(ctx.blocks_perlevel, ctx.blocks_perlevel + 2),
            (std::vector<int>{4, 8}));
  EXPECT_EQ(std::vector<int>(ctx.pixels_perblock, ctx.pixels_perblock + 3),
            (std::vector<int>{1, 4, 32}));
  const block_position p = coordinates(ctx, 0x50, 1);
  EXPECT_EQ(p.column, 0);
  EXPECT_EQ(p.row, 0);
  EXPECT_EQ(p.slice, 16);
  const block_extent e = sizes_block(ctx, 1);
  EXPECT_EQ(e.side, 2);
  EXPECT_EQ(e.row_span, 8);
  EXPECT_EQ(e.slice_span, 16) << "at lim_oct_level a block is one slice deep";
  // A z digit below lim_oct_level does not move the block.
  EXPECT_EQ(coordinates(ctx, 0x15, 0).slice, 0);
}

TEST(Geometry, LevelOfCodes) {
  prepared_run run = make_run({8, 1, 3, 3, 1, 1, 10});
  const run_context& ctx = run.ctx;
  EXPECT_EQ(level(ctx, 0x421), 0);
  EXPECT_EQ(level(ctx, 0x10000000), 7);
  EXPECT_EQ(level(ctx, 0x400), 2);
}

TEST(Geometry, EntryIgnoresLevelsBelowTheInitialOne) {
  prepared_run run = make_run({8, 1, 3, 3, 1, 1, 10});
  const run_context& ctx = run.ctx;
  EXPECT_EQ(entry(ctx, 0), 0u);
  EXPECT_EQ(entry(ctx, 0x00F), 0u);
  EXPECT_EQ(entry(ctx, 0x423), 13u) << "a smaller block gets its initial-level ancestor's slot";
  EXPECT_EQ(entry(ctx, 0x400), 12u) << "a larger block gets its first descendant's slot";
}

TEST(Geometry, EntryWithTheWholeImageAsInitialBlock) {
  // init_level == max_level == 8 would shift by 32 bits; every code has slot 0.
  run_context ctx;
  ctx.max_level = 8;
  ctx.init_level = 8;
  ctx.lim_oct_level = 8;
  EXPECT_EQ(entry(ctx, 0x12345678), 0u);
  EXPECT_EQ(entry(ctx, 0), 0u);
}

TEST(Geometry, EntryAtMaxLevelEight) {
  run_context ctx;
  ctx.max_level = 8;
  ctx.lim_oct_level = 8;
  ctx.init_level = 2;
  std::int32_t table[8] = {4, 4, 4, 4, 4, 4, 4, 4};
  ctx.blocks_perlevel = table;
  EXPECT_EQ(entry(ctx, 0x11111100), 0u);
  EXPECT_EQ(entry(ctx, 0x11111200), 1u);
  EXPECT_EQ(entry(ctx, 0x41111100), 3u * 4 * 4 * 4 * 4 * 4);
  EXPECT_EQ(entry(ctx, 0x44444400), 4095u);
  EXPECT_EQ(next_code(ctx, 0x14444400, 2), 0x21111100u);
  EXPECT_EQ(next_code(ctx, 0x44444400, 2), 0u);
  ctx.blocks_perlevel = nullptr;
}

TEST(Geometry, TablesOfAllOctreeAndAllQuadtreeImages) {
  {
    prepared_run run = make_run({8, 8, 3, 0, 1, 1, 10});
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(std::vector<int>(run.ctx.blocks_perlevel, run.ctx.blocks_perlevel + 3),
              (std::vector<int>{8, 8, 8}));
    EXPECT_EQ(std::vector<int>(run.ctx.pixels_perblock, run.ctx.pixels_perblock + 4),
              (std::vector<int>{1, 8, 64, 512}));
  }
  {
    prepared_run run = make_run({16, 1, 4, 4, 1, 1, 10});
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(run.ctx.pixels_perblock[4], 256);
    for (int l = 0; l < 4; ++l) EXPECT_EQ(run.ctx.blocks_perlevel[l], 4);
  }
}

TEST(Geometry, CoordinatesAgreeWithDigitsEverywhere) {
  // Every level-0 code of an 8x8x4 volume (lim_oct_level 1) names a distinct
  // pixel, and walking next_code visits them in increasing code order.
  prepared_run run = make_run({8, 4, 3, 1, 0, 1, 10});
  ASSERT_TRUE(run.ok);
  const run_context& ctx = run.ctx;
  std::vector<int> seen(256, 0);
  std::uint32_t code = 0x111;
  std::uint32_t previous = 0;
  int count = 0;
  while (code != 0) {
    EXPECT_GT(code, previous);
    const int pixel = coordinates(ctx, code, 0).first_pixel();
    ASSERT_GE(pixel, 0);
    ASSERT_LT(pixel, 256);
    ++seen[static_cast<std::size_t>(pixel)];
    EXPECT_EQ(entry(ctx, code), static_cast<std::uint32_t>(count));
    previous = code;
    code = next_code(ctx, code, 0);
    ++count;
  }
  EXPECT_EQ(count, 256);
  for (int v : seen) EXPECT_EQ(v, 1);
}

}  // namespace
}  // namespace splitmerge
