// The exact arithmetic of the homogeneity tests and the region statistics:
// single precision where the rules ask for it, 64-bit sums where 32 bits
// would wrap, truncating integer means, and the derived parameters. Every
// expected value is worked out by hand in the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "evaluation/evaluation.hpp"
#include "splitmerge/splitmerge.hpp"
#include "support/random_images.hpp"
#include "support/region_statistics.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::region_predicates;
using testing::region_stats;

segmentation run_quietly(const std::vector<std::int32_t>& image, std::int32_t size_x,
                         std::int32_t size_z, const parameters& p, options o = {}) {
  o.error_sink = [](std::string_view) {};
  return segment(image_view{image.data(), size_x, size_x, size_z}, p, o);
}

// --- the variance test in single precision

// 32 values around 183 with sum 5853 and sum of squares 1070663, sorted into
// groups of four: 180 x4, 181 x8, 182, 183 x2, 184 x8, 185 x9.
std::vector<std::int32_t> block_of_32() {
  std::vector<std::int32_t> v;
  const std::pair<std::int32_t, int> counts[] = {{180, 4}, {181, 8}, {182, 1},
                                                 {183, 2}, {184, 8}, {185, 9}};
  for (const auto& [value, n] : counts) v.insert(v.end(), static_cast<std::size_t>(n), value);
  return v;
}

TEST(VarianceTest, SinglePrecisionFailsABlockWhoseExactVariancePasses) {
  // 8x8x4 volume, lim_oct_level 1: a level-2 block has 4x4x2 = 32 pixels.
  testing::prepared_run run(std::vector<std::int32_t>(256, 0), {8, 4, 3, 1, 2, 4, 10});
  ASSERT_TRUE(run.ok);
  ASSERT_EQ(run.ctx.pixels_perblock[2], 32);
  run.ctx.allocator.release(run.ctx.var_thresh);
  ASSERT_EQ(fill_chi_variance(run.ctx, 3, 1.65 * 1.65), 0);
  // Threshold: column 5 (32 pixels) of row 3, 1.33584 * 2.7225 = 3.6368.
  EXPECT_EQ(run.ctx.var_thresh[2], 1.33584f * static_cast<float>(1.65 * 1.65));
  // Exactly, (1070663 - 5853^2 / 32) / 31 = 112.71875 / 31 = 3.6361 passes.
  // In single precision 5853^2 = 34257609 rounds to 34257608, so the mean
  // square is 1070550.25 and the variance 112.75 / 31 = 3.6371: it fails.
  EXPECT_EQ(evaluation_block(run.ctx, 5853, 1070663, 2), 0);
  // One less in the sum of squares: 111.75 / 31 = 3.6048 passes either way.
  EXPECT_EQ(evaluation_block(run.ctx, 5853, 1070662, 2), 1);
}

TEST(VarianceTest, SinglePrecisionFailureSplitsTheBlockInAWholeRun) {
  // The 32 values fill the first level-2 block of an 8x8x4 volume of 183s,
  // four equal-ish values in each of its eight 2x2x1 sons.
  const std::vector<std::int32_t> values = block_of_32();
  std::vector<std::int32_t> image(256, 183);
  for (int son = 0; son < 8; ++son)
    for (int i = 0; i < 4; ++i) {
      const int x = 2 * (son & 1) + (i & 1);
      const int y = 2 * ((son >> 1) & 1) + (i >> 1);
      const int z = (son >> 2) & 1;
      image[static_cast<std::size_t>((z * 8 + y) * 8 + x)] =
          values[static_cast<std::size_t>(son * 4 + i)];
    }
  parameters p;
  p.pred_choice = 4;
  p.sigma = 1.65;
  p.threshold_row = 3;
  options o;
  o.display = false;
  o.collect_regions = true;
  const segmentation out = run_quietly(image, 8, 4, p, o);
  ASSERT_EQ(out.status, status_ok) << out.error;
  // Every mean is within 10 of 183: one region. The failed block 0x100 is
  // there as its eight sons 0x110..0x180, which pass (variance at most 4).
  ASSERT_EQ(out.regions.size(), 1u);
  const std::vector<std::uint64_t>& codes = out.regions[0].codes;
  EXPECT_EQ(std::count(codes.begin(), codes.end(), 0x100u), 0);
  for (std::uint32_t son = 1; son <= 8; ++son)
    EXPECT_EQ(std::count(codes.begin(), codes.end(), 0x100u + (son << 4)), 1) << son;
  EXPECT_EQ(codes.size(), 15u) << "seven level-2 blocks and eight sons";
}

// --- 64-bit block sums

TEST(BlockSums, SumOfSquaresOfALargeBrightBlockDoesNotWrap) {
  // 128x128x32, lim_oct_level 2, init_level 6: initial blocks of 64x64x16 =
  // 65536 pixels. Block 0 is 255 except its first 16 columns (0): S1 =
  // 49152 * 255, S2 = 49152 * 65025 = 3196108800 > 2^31, variance 12192: it
  // fails and splits down to 16x16x4 blocks. Held in 32 bits, S2 wraps to
  // -1098858496, the variance turns negative and the whole image would merge.
  constexpr int sx = 128, sz = 32;
  std::vector<std::int32_t> image(static_cast<std::size_t>(sx * sx * sz), 255);
  for (int z = 0; z < 16; ++z)
    for (int y = 0; y < 64; ++y)
      for (int x = 0; x < 16; ++x) image[static_cast<std::size_t>((z * sx + y) * sx + x)] = 0;
  parameters p;
  p.init_level = 6;
  p.pred_choice = 4;
  options o;
  o.display = false;
  const segmentation out = run_quietly(image, sx, sz, p, o);
  ASSERT_EQ(out.status, status_ok) << out.error;
  std::int64_t dark = 0;
  for (std::size_t i = 0; i < image.size(); ++i) {
    ASSERT_EQ(out.labels[i], image[i] == 0 ? 1 : 0) << "pixel " << i;
    dark += image[i] == 0;
  }
  EXPECT_EQ(dark, 16384);
}

// --- region statistics

TEST(RegionStatistics, UnionKeepsSumsBeyond32Bits) {
  // 8388608 pixels of 255 and 65536 more: the sum 2155806720 exceeds 2^31.
  const region_predicates sums(4, 10);
  EXPECT_EQ(sums.united({2139095040, 8388608}, {16711680, 65536}),
            (region_stats{2155806720, 8454144}));
  // Both beyond 32 bits: 16777216 pixels of 255 (a 256^3 volume) twice.
  EXPECT_EQ(sums.united({4278190080, 16777216}, {4278190080, 16777216}),
            (region_stats{8556380160, 33554432}));
}

TEST(GrowthTest, RegionMeansInSinglePrecision) {
  const region_predicates means(4, 1);
  // 7/3 - 4/3 is 0.99999988 in single precision (<= 1: joins); in double it
  // is 1.0000000000000002 (> 1: would refuse).
  EXPECT_TRUE(means.grows({4, 3}, {7, 3}));
  EXPECT_TRUE(means.grows({7, 3}, {4, 3}));
  // The same means with interval_length 0 refuse.
  EXPECT_FALSE(region_predicates(4, 0).grows({4, 3}, {7, 3}));
}

TEST(GrowthTest, BrightRegionsBeyond32BitsKeepTheirMeans) {
  // Mean 255 over 2^24 pixels against a candidate of mean 250: 5 <= 5 joins.
  const region_predicates means(5, 5);
  EXPECT_TRUE(means.grows({4278190080, 16777216}, {1000, 4}));
  EXPECT_FALSE(region_predicates(5, 4).grows({4278190080, 16777216}, {1000, 4}));
}

TEST(EliminationDistance, TruncatesTheMeansBeforeSubtracting) {
  const region_predicates sums(2, 10);
  // Means 7/2 = 3.5 -> 3 and 9/2 = 4.5 -> 4: distance 1 (rounded: 4 and 5, also 1).
  EXPECT_EQ(sums.distance({7, 2}, {9, 2}), 1);
  // Means 7/2 -> 3 and 8/2 = 4: distance 1; rounding 3.5 up would give 0.
  EXPECT_EQ(sums.distance({7, 2}, {8, 2}), 1);
  // 299/3 = 99.67 -> 99 against 100: 1 (rounded means would be equal).
  EXPECT_EQ(sums.distance({299, 3}, {400, 4}), 1);
  EXPECT_EQ(sums.distance({400, 4}, {299, 3}), 1) << "the distance is symmetric";
  // Range statistics: the larger of |max_b - min_a| and |max_a - min_b|.
  EXPECT_EQ(region_predicates(1, 10).distance({10, 20}, {30, 40}), 30);
}

// --- thresholds

TEST(Thresholds, PseudoVarianceFactorIsAddedInDoublePrecision) {
  // Octree level 1 (8 pixels), factor 1.5, variance 25: t = 1.5 / sqrt(8) =
  // 0.53033006 in single precision; (t + 1) * 25 in double is 38.2582515...,
  // which rounds to 0x42190873. Adding 1 in single precision first gives
  // 1.5303301 and 0x42190874.
  testing::prepared_run run(std::vector<std::int32_t>(512, 0), {8, 8, 3, 0, 1, 5, 10});
  ASSERT_TRUE(run.ok);
  run.ctx.allocator.release(run.ctx.var_thresh);
  ASSERT_EQ(fill_pseudo_variance(run.ctx, 25.0, 1.5), 0);
  EXPECT_EQ(std::bit_cast<std::uint32_t>(run.ctx.var_thresh[1]), 0x42190873u);
}

// --- the merge of range statistics

TEST(MergeRange, ASpanEqualToTheIntervalMerges) {
  // A 2x2 image 20, 10, 20, 10 with init_level 0 and interval_length 10: the
  // first son sets the range to 20..20, the second (10) spans 20 - 10 = 10,
  // which is allowed, so the four pixels merge into the whole image.
  const std::vector<std::int32_t> image = {20, 10, 20, 10};
  parameters p;
  p.init_level = 0;
  p.pred_choice = 1;
  p.interval_length = 10;
  options o;
  o.display = false;
  o.capture_lines = true;
  const segmentation out = run_quietly(image, 2, 1, p, o);
  ASSERT_EQ(out.status, status_ok) << out.error;
  ASSERT_GE(out.lines.size(), 3u);
  EXPECT_EQ(out.lines[2], "finished calculating region");
  p.interval_length = 9;
  const segmentation split = run_quietly(image, 2, 1, p, o);
  EXPECT_EQ(split.lines[2], "finished splitting") << "a span of 10 exceeds 9";
}

// --- derived parameters

TEST(DerivedParameters, InitLevelIsMaxLevelMinusOneButAtMostThree) {
  const std::pair<std::int32_t, std::int32_t> expected[] = {{2, 0},  {4, 1},  {8, 2},   {16, 3},
                                                            {32, 3}, {64, 3}, {128, 3}, {256, 3}};
  for (const auto& [size, init] : expected) {
    parameters p;
    EXPECT_EQ(resolve_parameters(image_view{nullptr, size, size, 1}, p), "");
    EXPECT_EQ(p.init_level, init) << size << "x" << size;
  }
}

TEST(DerivedParameters, ADefaultRunOfA32By32ImageStartsFromLevel3) {
  std::mt19937 rng(32);
  const std::vector<std::int32_t> image = testing::blob_image(rng, 32, 1, 20);
  const auto frames_with = [&](std::int32_t init_level) {
    parameters p;
    p.init_level = init_level;
    return run_quietly(image, 32, 1, p);
  };
  const segmentation derived = frames_with(-1);
  const segmentation three = frames_with(3);
  ASSERT_EQ(derived.status, status_ok) << derived.error;
  EXPECT_EQ(derived.frames, three.frames);
  EXPECT_EQ(derived.labels, three.labels);
  // The first frame shows the initial blocks: 8 pixels wide from level 3.
  ASSERT_GE(derived.frame_count, 1);
  EXPECT_NE(derived.frames[7], derived.frames[8]);
  EXPECT_NE(frames_with(4).frames, three.frames) << "the frames tell level 3 from level 4";
}

}  // namespace
}  // namespace splitmerge
