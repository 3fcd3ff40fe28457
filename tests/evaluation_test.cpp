// Block statistics, threshold tables, median selection and region predicates
// on their worked examples, bit-exact where floating point is involved.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include "evaluation/evaluation.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::image_spec;
using testing::prepared_run;

// A 4x4 image whose top-left 2x2 block holds the given pixels, visited as
// (0,0), (1,0), (0,1), (1,1).
std::vector<std::int32_t> corner_block(std::int32_t a, std::int32_t b, std::int32_t c,
                                       std::int32_t d) {
  std::vector<std::int32_t> img(16, 0);
  img[0] = a;
  img[1] = b;
  img[4] = c;
  img[5] = d;
  return img;
}

block evaluate_corner(prepared_run& run) {
  block b;
  calc_evalvar(run.ctx, 0, 0, 0, 2, 8, 16, 1, &b);
  return b;
}

image_spec small_plane(std::int32_t pred, std::int32_t interval) {
  return {4, 1, 2, 2, 1, pred, interval};
}

TEST(BlockStatistics, RangeTestPassesAtTheLimitAndFailsBeyond) {
  prepared_run pass(corner_block(10, 12, 15, 20), small_plane(1, 10));
  block b = evaluate_corner(pass);
  EXPECT_EQ(b.variables[0], 10);
  EXPECT_EQ(b.variables[1], 20);
  prepared_run fail(corner_block(10, 12, 15, 20), small_plane(1, 9));
  b = evaluate_corner(fail);
  EXPECT_EQ(b.variables[0], -1);
  EXPECT_EQ(b.variables[1], 20);
}

TEST(BlockStatistics, MedianIntervalCountsOutliersInWholePercent) {
  prepared_run run(corner_block(10, 200, 12, 11), small_plane(3, 10));
  ASSERT_EQ(run.ctx.half_length, 5);
  run.ctx.rejection_ratio = 25;
  block b = evaluate_corner(run);
  EXPECT_EQ(b.variables[0], 10);
  EXPECT_EQ(b.variables[1], 12);
  EXPECT_EQ(std::vector<int>(run.ctx.hulp_array, run.ctx.hulp_array + 5),
            (std::vector<int>{10, 11, 11, 12, 200}))
      << "the scratch holds the block with its last pixel twice, reordered";
  run.ctx.rejection_ratio = 24;
  b = evaluate_corner(run);
  EXPECT_EQ(b.variables[0], -1);
  EXPECT_EQ(b.variables[1], 12);
}

TEST(BlockStatistics, MedianIntervalIsClippedToTheValueRange) {
  // Median 2 with half length 5: the interval starts at 0, so 0 is an inlier.
  prepared_run low(corner_block(0, 2, 2, 9), small_plane(3, 10));
  low.ctx.rejection_ratio = 25;
  block b = evaluate_corner(low);
  EXPECT_EQ(b.variables[0], 0);
  EXPECT_EQ(b.variables[1], 2) << "9 lies above 2 + 5";
  // Median 253: the interval ends at 255, so 256 is an outlier.
  prepared_run high(corner_block(253, 256, 250, 253), small_plane(3, 10));
  high.ctx.rejection_ratio = 25;
  b = evaluate_corner(high);
  EXPECT_EQ(b.variables[0], 250);
  EXPECT_EQ(b.variables[1], 253);
  high.ctx.rejection_ratio = 24;
  EXPECT_EQ(evaluate_corner(high).variables[0], -1);
}

TEST(BlockStatistics, SinglePixelIsItsOwnMedian) {
  prepared_run run(corner_block(77, 0, 0, 0), small_plane(3, 10));
  run.ctx.rejection_ratio = 0;
  block b;
  calc_evalvar(run.ctx, 0, 0, 0, 1, 4, 16, 0, &b);
  EXPECT_EQ(b.variables[0], 77);
  EXPECT_EQ(b.variables[1], 77);
}

TEST(BlockStatistics, VarianceTestAgainstTheThreshold) {
  prepared_run run(corner_block(1, 2, 3, 4), small_plane(4, 10));
  run.ctx.var_thresh[1] = 2.0838f;
  block b = evaluate_corner(run);
  EXPECT_EQ(b.variables[0], 10);
  EXPECT_EQ(b.variables[1], 30);
  run.ctx.var_thresh[1] = 1.0419f;
  b = evaluate_corner(run);
  EXPECT_EQ(b.variables[0], -1);
  EXPECT_EQ(b.variables[1], 30);
}

TEST(BlockStatistics, BrightBlocksDoNotWrap) {
  std::vector<std::int32_t> img(16 * 16, 200);
  prepared_run run(img, {16, 1, 4, 4, 3, 4, 10});
  run.ctx.var_thresh[4] = 0.0f;
  block b;
  calc_evalvar(run.ctx, 0, 0, 0, 16, 256, 256, 4, &b);
  EXPECT_EQ(b.variables[0], 51200);
  EXPECT_EQ(b.variables[1], 10240000);
  // A full 256^3 volume of 255s sums far beyond 32 bits and still passes.
  EXPECT_EQ(evaluation_block(run.ctx, std::int64_t{255} * 256, std::int64_t{255} * 255 * 256, 4),
            1);
}

TEST(BlockStatistics, SinglePixelsPassTheChiSquareTable) {
  std::vector<std::int32_t> img(64, 0);
  img[5] = 255;
  prepared_run run(img, {8, 1, 3, 3, 1, 4, 10});
  EXPECT_EQ(run.ctx.var_thresh[0], 0.0f);
  block b;
  calc_evalvar(run.ctx, 5, 0, 0, 1, 8, 64, 0, &b);
  EXPECT_EQ(b.variables[0], 255);
  EXPECT_EQ(b.variables[1], 255 * 255);
}

TEST(Thresholds, ChiSquareTableOfAnEightByEightPlane) {
  prepared_run run(std::vector<std::int32_t>(64, 0), {8, 1, 3, 3, 1, 4, 10});
  run.ctx.allocator.release(run.ctx.var_thresh);
  ASSERT_EQ(fill_chi_variance(run.ctx, 3, 4.0), 0);
  const float* t = run.ctx.var_thresh;
  EXPECT_EQ(t[0], 0.0f);
  EXPECT_EQ(t[1], 8.3352f);
  EXPECT_EQ(t[2], 5.9486f);
  EXPECT_EQ(t[3], 0.0f);
}

TEST(Thresholds, PseudoVarianceTableOfAnEightByEightPlane) {
  prepared_run run(std::vector<std::int32_t>(64, 0), {8, 1, 3, 3, 1, 5, 10});
  run.ctx.allocator.release(run.ctx.var_thresh);
  ASSERT_EQ(fill_pseudo_variance(run.ctx, 4.0, 1.0), 0);
  const float* t = run.ctx.var_thresh;
  EXPECT_EQ(t[0], 8.0f);
  EXPECT_EQ(t[1], 6.0f);
  EXPECT_EQ(t[2], 5.0f);
  EXPECT_EQ(t[3], 0.0f);
}

TEST(Thresholds, PseudoVarianceUsesASinglePrecisionSquareRoot) {
  // Octree levels have 8 and 512 pixels, whose roots are not whole numbers.
  prepared_run run(std::vector<std::int32_t>(512, 0), {8, 8, 3, 0, 1, 5, 10});
  run.ctx.allocator.release(run.ctx.var_thresh);
  ASSERT_EQ(fill_pseudo_variance(run.ctx, 4.0, 1.5), 0);
  EXPECT_EQ(std::bit_cast<std::uint32_t>(run.ctx.var_thresh[1]), 0x40c3e1dcu);
  EXPECT_EQ(std::bit_cast<std::uint32_t>(run.ctx.var_thresh[3]), 0u);
}

TEST(Thresholds, VolumeLevelsUseTheColumnsOfTheirPixelCounts) {
  {
    prepared_run run(std::vector<std::int32_t>(128, 0), {8, 2, 3, 2, 1, 4, 10});
    const float* t = run.ctx.var_thresh;  // threshold_row 3, sigma 2
    EXPECT_EQ(t[1], 2.0838f * 4.0f);
    EXPECT_EQ(t[2], 1.48715f * 4.0f);
    EXPECT_EQ(t[3], 0.0f);
  }
  {
    prepared_run run(std::vector<std::int32_t>(512, 0), {8, 8, 3, 0, 1, 4, 10});
    const float* t = run.ctx.var_thresh;
    EXPECT_EQ(t[1], 1.71671f * 4.0f) << "8 pixels: column 3";
    EXPECT_EQ(t[2], 1.2339f * 4.0f) << "64 pixels: column 6";
  }
  {
    prepared_run run(std::vector<std::int32_t>(4, 0), {2, 1, 1, 1, 0, 4, 10});
    EXPECT_EQ(run.ctx.var_thresh[0], 0.0f);
    EXPECT_EQ(run.ctx.var_thresh[1], 0.0f);
  }
  {
    prepared_run run(std::vector<std::int32_t>(4, 0), {2, 1, 1, 1, 0, 5, 10});
    EXPECT_EQ(run.ctx.var_thresh[0], 8.0f);
    EXPECT_EQ(run.ctx.var_thresh[1], 0.0f);
  }
}

TEST(Thresholds, RowsTwoAndThreeDecreaseTowardsOne) {
  // The values themselves are checked against computed ratios in
  // thresholds_table_test.cpp.
  for (int e = 3; e < s_th_columns; ++e) {
    EXPECT_LT(s_th[1][e], s_th[1][e - 1]);
    EXPECT_LT(s_th[2][e], s_th[2][e - 1]);
  }
}

TEST(Driver, RejectionRatioAndHalfLength) {
  const auto ratio = [](double rejection) {
    prepared_run run(std::vector<std::int32_t>(16, 0), small_plane(3, 10));
    run_context ctx;
    run_arguments a = run.args;
    a.rejection = rejection;
    prepare_run(ctx, a);
    const std::int32_t r = ctx.rejection_ratio;
    free_variables(ctx);
    return r;
  };
  EXPECT_EQ(ratio(0.256), 25);
  EXPECT_EQ(ratio(0.999), 99);
  EXPECT_EQ(ratio(0.29), 28) << "0.29 * 100.0 lies just below 29";
  prepared_run odd(std::vector<std::int32_t>(16, 0), small_plane(3, 5));
  EXPECT_EQ(odd.ctx.half_length, 2);
  prepared_run negative(std::vector<std::int32_t>(16, 0), small_plane(3, -5));
  EXPECT_EQ(negative.ctx.half_length, -3);
}

TEST(Selection, WorkedExamples) {
  std::int32_t a[] = {10, 200, 12, 11, 11};
  EXPECT_EQ(select_interval(0, 4, 2, a), 11);
  EXPECT_EQ(std::vector<int>(a, a + 5), (std::vector<int>{10, 11, 11, 12, 200}));

  const std::int32_t p1[] = {5, 5, 3};
  const std::int32_t p2[] = {5, 5, 9};
  const std::int32_t p3[] = {5, 5, 5};
  EXPECT_EQ(find_pivot(0, 2, p1), 0);
  EXPECT_EQ(find_pivot(0, 2, p2), 2);
  EXPECT_EQ(find_pivot(0, 2, p3), -1);

  std::int32_t q1[] = {11, 10, 12, 11};
  EXPECT_EQ(partition(0, 3, 11, q1), 1);
  EXPECT_EQ(std::vector<int>(q1, q1 + 4), (std::vector<int>{10, 11, 12, 11}));
  std::int32_t q2[] = {3, 1, 2};
  EXPECT_EQ(partition(0, 2, 3, q2), 2);
  EXPECT_EQ(std::vector<int>(q2, q2 + 3), (std::vector<int>{2, 1, 3}));

  std::int32_t same[] = {4, 4, 4, 4};
  EXPECT_EQ(select_interval(0, 3, 3, same), 4);
  std::int32_t one[] = {9, 9};
  EXPECT_EQ(select_interval(0, 1, 0, one), 9) << "rank 0 behaves as rank 1";
}

TEST(Selection, AgreesWithSortingOnRandomArraysWithRepeats) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 3000; ++trial) {
    const int n = 1 + static_cast<int>(rng() % 40);
    const int spread = 1 + static_cast<int>(rng() % 6);
    std::vector<std::int32_t> a(static_cast<std::size_t>(n));
    for (auto& v : a) v = static_cast<std::int32_t>(rng() % static_cast<unsigned>(spread)) * 7 - 3;
    const int i = static_cast<int>(rng() % static_cast<unsigned>(n));
    const int j = i + static_cast<int>(rng() % static_cast<unsigned>(n - i));
    const int k = 1 + static_cast<int>(rng() % static_cast<unsigned>(j - i + 1));
    std::vector<std::int32_t> sorted(a.begin() + i, a.begin() + j + 1);
    std::sort(sorted.begin(), sorted.end());
    std::vector<std::int32_t> work = a;
    ASSERT_EQ(select_interval(i, j, k, work.data()), sorted[static_cast<std::size_t>(k - 1)]);
    std::vector<std::int32_t> range(work.begin() + i, work.begin() + j + 1);
    std::sort(range.begin(), range.end());
    ASSERT_EQ(range, sorted) << "the range is only reordered";
    ASSERT_TRUE(std::equal(a.begin(), a.begin() + i, work.begin()))
        << "outside the range untouched";
  }
}

TEST(Selection, FindMedianCountsTheLastPixelTwice) {
  prepared_run first(corner_block(10, 200, 12, 11), small_plane(3, 10));
  EXPECT_EQ(find_median(first.ctx, 0, 0, 0, 2, 8, 16, 1), 11);
  prepared_run second(corner_block(12, 11, 200, 10), small_plane(3, 10));
  EXPECT_EQ(find_median(second.ctx, 0, 0, 0, 2, 8, 16, 1), 10);
  EXPECT_EQ(std::vector<int>(second.ctx.hulp_array, second.ctx.hulp_array + 5).size(), 5u);
}

block stats(std::int64_t a, std::int64_t b) {
  block r;
  r.variables[0] = a;
  r.variables[1] = b;
  return r;
}

TEST(RegionPredicates, RangeMergeAccumulatesAndRefusesBeyondTheInterval) {
  prepared_run run(std::vector<std::int32_t>(16, 0), small_plane(1, 10));
  std::int64_t acc0 = 0;
  std::int64_t acc1 = 0;
  const block c1 = stats(10, 12), c2 = stats(11, 15), c3 = stats(9, 14), c4 = stats(12, 20);
  EXPECT_EQ(update_evalvar(run.ctx, &c1, acc0, acc1, 1, 0), 1);
  EXPECT_EQ(std::make_pair(acc0, acc1), std::make_pair(std::int64_t{10}, std::int64_t{12}));
  EXPECT_EQ(update_evalvar(run.ctx, &c2, acc0, acc1, 2, 0), 1);
  EXPECT_EQ(std::make_pair(acc0, acc1), std::make_pair(std::int64_t{10}, std::int64_t{15}));
  EXPECT_EQ(update_evalvar(run.ctx, &c3, acc0, acc1, 3, 0), 1);
  EXPECT_EQ(std::make_pair(acc0, acc1), std::make_pair(std::int64_t{9}, std::int64_t{15}));
  EXPECT_EQ(update_evalvar(run.ctx, &c4, acc0, acc1, 4, 0), 0);
  EXPECT_EQ(std::make_pair(acc0, acc1), std::make_pair(std::int64_t{9}, std::int64_t{15}));
  const block failed = stats(-1, 12);
  EXPECT_EQ(update_evalvar(run.ctx, &failed, acc0, acc1, 1, 0), 0);
}

TEST(RegionPredicates, SumMergeTestsOnlyTheParent) {
  prepared_run run(std::vector<std::int32_t>(16, 0), small_plane(4, 10));
  run.ctx.var_thresh[2] = 1.34f;
  std::int64_t acc0 = 0;
  std::int64_t acc1 = 0;
  const block child = stats(10, 30);
  for (int k = 1; k <= 3; ++k) EXPECT_EQ(update_evalvar(run.ctx, &child, acc0, acc1, k, 1), 1);
  EXPECT_EQ(update_evalvar(run.ctx, &child, acc0, acc1, 4, 1), 1) << "variance 1.333 <= 1.34";
  EXPECT_EQ(acc0, 40);
  EXPECT_EQ(acc1, 120);
  run.ctx.var_thresh[2] = 1.33f;
  acc0 = acc1 = 0;
  for (int k = 1; k <= 3; ++k) update_evalvar(run.ctx, &child, acc0, acc1, k, 1);
  EXPECT_EQ(update_evalvar(run.ctx, &child, acc0, acc1, 4, 1), 0);
}

TEST(RegionPredicates, GrowWithMeansAndWithRanges) {
  prepared_run means(std::vector<std::int32_t>(16, 0), small_plane(4, 5));
  block region = stats(400, 4);
  block candidate = stats(1050, 10);
  EXPECT_EQ(eval_grow(means.ctx, &region, &candidate), 1);
  EXPECT_EQ(candidate.status, 0);
  means.ctx.interval_length = 4;
  candidate.status = 2;
  EXPECT_EQ(eval_grow(means.ctx, &region, &candidate), 0);
  EXPECT_EQ(candidate.status, 3) << "the seen bit is added to what was there";

  prepared_run ranges(std::vector<std::int32_t>(16, 0), small_plane(1, 18));
  region = stats(10, 20);
  candidate = stats(25, 28);
  EXPECT_EQ(eval_grow(ranges.ctx, &region, &candidate), 1);
  ranges.ctx.interval_length = 17;
  EXPECT_EQ(eval_grow(ranges.ctx, &region, &candidate), 0);
  EXPECT_EQ(candidate.status, 1);
}

TEST(RegionPredicates, DissimilarityUnionAndNeutralStatistics) {
  prepared_run ranges(std::vector<std::int32_t>(16, 0), small_plane(3, 10));
  block a = stats(10, 20), b = stats(30, 40);
  EXPECT_EQ(comp_evalvar(ranges.ctx, &a, &b), 30);
  a = stats(10, 40);
  b = stats(20, 30);
  EXPECT_EQ(comp_evalvar(ranges.ctx, &a, &b), 20);
  block n;
  make_neutral(ranges.ctx, &n);
  unite_predicates(ranges.ctx, &a, &n);
  EXPECT_EQ(a.variables[0], 10);
  EXPECT_EQ(a.variables[1], 40);

  prepared_run sums(std::vector<std::int32_t>(16, 0), small_plane(2, 10));
  a = stats(403, 4);
  b = stats(197, 2);
  EXPECT_EQ(comp_evalvar(sums.ctx, &a, &b), 2) << "integer means 100 and 98";
  make_neutral(sums.ctx, &n);
  unite_predicates(sums.ctx, &a, &n);
  EXPECT_EQ(a.variables[0], 403);
  EXPECT_EQ(a.variables[1], 4);
  unite_predicates(sums.ctx, &a, &b);
  EXPECT_EQ(a.variables[0], 600);
  EXPECT_EQ(a.variables[1], 6);
}

TEST(RegionPredicates, RegionOfOneBlockFromTreeStatistics) {
  prepared_run run(corner_block(10, 12, 15, 20), small_plane(2, 10));
  block b = stats(10, 20);
  b.code = 0x10;
  b.status = 7;
  calc_eval_var_region(run.ctx, &b);
  EXPECT_EQ(b.variables[0], 57);
  EXPECT_EQ(b.variables[1], 4);
  EXPECT_EQ(b.status, 0);

  prepared_run sums(corner_block(10, 12, 15, 20), small_plane(4, 10));
  b = stats(57, 999);
  b.code = 0x10;
  calc_eval_var_region(sums.ctx, &b);
  EXPECT_EQ(b.variables[0], 57);
  EXPECT_EQ(b.variables[1], 4);

  prepared_run ranges(corner_block(10, 12, 15, 20), small_plane(1, 10));
  b = stats(10, 20);
  b.code = 0x10;
  calc_eval_var_region(ranges.ctx, &b);
  EXPECT_EQ(b.variables[0], 10);
  EXPECT_EQ(b.variables[1], 20);
}

}  // namespace
}  // namespace splitmerge
