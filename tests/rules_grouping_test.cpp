// The grouping and elimination rules on small hand-designed images, through
// complete runs of segment(): which regions may still grow when the closing
// sequential pass comes, when a re-opened region is tried, which regions are
// seeds, which regions are small, and the colours of the display.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "splitmerge/splitmerge.hpp"
#include "support/neighbour_lists.hpp"

namespace splitmerge {
namespace {

segmentation run(const std::vector<std::int32_t>& image, std::int32_t size_x, std::int32_t size_z,
                 const parameters& p, bool display = false, bool lines = false) {
  options o;
  o.display = display;
  o.capture_lines = lines;
  o.error_sink = [](std::string_view) {};
  return segment(image_view{image.data(), size_x, size_x, size_z}, p, o);
}

bool has_line(const segmentation& out, const std::string& line) {
  return std::find(out.lines.begin(), out.lines.end(), line) != out.lines.end();
}

// Parameters of the grouping examples: chi-square test, no elimination.
parameters grouping(std::int32_t init_level, std::int32_t max_seed, std::int32_t use_all_seeds,
                    std::int32_t interval_length, double sigma, std::int32_t threshold_row) {
  parameters p;
  p.init_level = init_level;
  p.pred_choice = 4;
  p.group_mode = 1;
  p.max_seed = max_seed;
  p.use_all_seeds = use_all_seeds;
  p.interval_length = interval_length;
  p.sigma = sigma;
  p.threshold_row = threshold_row;
  p.small_size = 0;
  return p;
}

TEST(ClosingSequentialPass, ASeedFinishedInTheParallelPassIsNotRegrown) {
  // Pixels, then 2x2 blocks 0x20 (mean 17.75), 0x30 (15.5), 0x40 (17.25)
  // (threshold 0.788657 * 9 = 7.1; 0x10 has variance 10.9 and stays four
  // pixels: 0x11 = 15, 0x12 = 11, 0x13 = 19, 0x14 = 14). Seeds 0x20, 0x30,
  // 0x40, 0x11. 0x20 takes 0x40; 0x30 takes 0x14, then 0x20; 0x11 refuses
  // 11 and 19 and finishes; 0x30 (216/13) takes 0x13 (235/14 = 16.79); its
  // last turn re-opens the finished 0x11 untried and finishes 0x30. The
  // closing sequential pass passes over the finished 0x30, so 0x11 (15,
  // within 3 of 16.79) stays apart; 0x11 then refuses 0x12 (11).
  const std::vector<std::int32_t> image = {15, 11, 16, 21,  //
                                           19, 14, 16, 18,  //
                                           14, 15, 16, 18,  //
                                           15, 18, 19, 16};
  const segmentation out = run(image, 4, 1, grouping(0, 4, 1, 3, 3.0, 1));
  ASSERT_EQ(out.status, status_ok) << out.error;
  std::vector<std::int32_t> expected(16, 0);
  expected[0] = 1;
  expected[1] = 2;
  EXPECT_EQ(out.labels, expected);
}

TEST(ParallelGrouping, AReopenedFinishedNeighbourWaitsForTheNextTurn) {
  // Four 2x2 blocks: P = 0x10 (mean 40.25), Q = 0x20 (46), R = 0x30 (46.5),
  // S = 0x40 (50.5); seeds P, Q, R (one level, max_seed 3); interval 4.
  // P refuses Q and R and finishes. Q re-opens P, refuses S and finishes.
  // R refuses P, takes S (4 <= 4; mean 48.5). R's next turn meets the
  // finished Q: re-opened, not tried, so R finishes without Q although
  // |46 - 48.5| <= 4; the closing pass grows P (refuses Q) and Q (both
  // neighbours finished).
  const std::vector<std::int32_t> image = {38, 40, 42, 45,  //
                                           40, 43, 49, 48,  //
                                           47, 46, 47, 51,  //
                                           46, 47, 51, 53};
  const segmentation out = run(image, 4, 1, grouping(1, 3, 0, 4, 6.0, 2));
  ASSERT_EQ(out.status, status_ok) << out.error;
  EXPECT_EQ(out.labels, (std::vector<std::int32_t>{1, 1, 2, 2,  //
                                                   1, 1, 2, 2,  //
                                                   0, 0, 0, 0,  //
                                                   0, 0, 0, 0}));
}

TEST(ParallelGrouping, WithoutUseAllSeedsOnlyTheLargestLevelSeeds) {
  // Pseudo-variance test with factor 0 and sigma 1: only the uniform block
  // 0x40 (27s) stays whole; the other cells split into pixels. 0x40 is the
  // only seed: it grows over the middle and right columns down to a mean of
  // 260 / 12 = 21.7 and finishes; the closing pass grows 0x11 (9) over the
  // left column (9, 9, 8, 9), which is more than 12 below 21.7. Were the
  // pixels seeds too, the 9s would grow at once and the regions would mix.
  const std::vector<std::int32_t> image = {9, 19, 18, 14,  //
                                           9, 18, 18, 14,  //
                                           8, 24, 27, 27,  //
                                           9, 27, 27, 27};
  parameters p;
  p.init_level = 1;
  p.pred_choice = 5;
  p.pseudo_factor = 0.0;
  p.sigma = 1.0;
  p.group_mode = 1;
  p.max_seed = 7;
  p.use_all_seeds = 0;
  p.interval_length = 12;
  p.small_size = 0;
  const segmentation out = run(image, 4, 1, p);
  ASSERT_EQ(out.status, status_ok) << out.error;
  EXPECT_EQ(out.labels, (std::vector<std::int32_t>{1, 0, 0, 0,  //
                                                   1, 0, 0, 0,  //
                                                   1, 0, 0, 0,  //
                                                   1, 0, 0, 0}));
}

TEST(Elimination, RegionsOfExactlySmallSizePixelsAreNotUnited) {
  // Two halves of 8 pixels (0 and 100, range test): with small_size 8
  // neither is small; with 9 the first is united into the second.
  const std::vector<std::int32_t> image = {0, 0, 100, 100, 0, 0, 100, 100,
                                           0, 0, 100, 100, 0, 0, 100, 100};
  parameters p;
  p.init_level = 1;
  p.pred_choice = 1;
  p.small_size = 8;
  const segmentation kept = run(image, 4, 1, p);
  ASSERT_EQ(kept.status, status_ok) << kept.error;
  for (std::size_t i = 0; i < 16; ++i)
    EXPECT_EQ(kept.labels[i], (i % 4 < 2) ? 0 : 1) << "pixel " << i;
  p.small_size = 9;
  EXPECT_EQ(run(image, 4, 1, p).labels, std::vector<std::int32_t>(16, 0));
}

TEST(Elimination, ANegativeSmallSizeRunsThePhaseAndUnitesNothing) {
  const std::vector<std::int32_t> image = {0, 0, 100, 100, 0, 0, 100, 100,
                                           0, 0, 100, 100, 0, 0, 100, 100};
  parameters p;
  p.init_level = 1;
  p.pred_choice = 1;
  p.small_size = -1;
  const segmentation out = run(image, 4, 1, p, false, true);
  ASSERT_EQ(out.status, status_ok) << out.error;
  EXPECT_TRUE(has_line(out, "finished small region elimination"));
  EXPECT_EQ(out.labels[0] == out.labels[2], false) << "the halves stay apart";
  p.small_size = 0;
  EXPECT_FALSE(has_line(run(image, 4, 1, p, false, true), "finished small region elimination"));
}

TEST(Elimination, TheDistanceComparesTruncatedMeans) {
  // Sequential grouping with interval 0 unites nothing; every 2x2 block is
  // small (small_size 8). 0x10 (sum 114: mean 28) has neighbours 0x20 (122:
  // 30) and 0x30 (109: 27): distances 2 and 1, so it joins 0x30. (Rounded
  // means 29, 31, 27 would tie and send it to 0x20, the first entry.) Then
  // 0x20 (30) joins 0x40 (125: 31) rather than 0x30 (223 / 8 = 27).
  const std::vector<std::int32_t> image = {31, 26, 31, 31,  //
                                           31, 26, 31, 29,  //
                                           31, 26, 31, 32,  //
                                           26, 26, 31, 31};
  parameters p;
  p.init_level = 0;
  p.pred_choice = 4;
  p.group_mode = 0;
  p.interval_length = 0;
  p.sigma = 6.0;
  p.threshold_row = 3;
  p.small_size = 8;
  const segmentation out = run(image, 4, 1, p);
  ASSERT_EQ(out.status, status_ok) << out.error;
  for (std::size_t i = 0; i < 16; ++i)
    EXPECT_EQ(out.labels[i], (i % 4 < 2) ? 0 : 1) << "pixel " << i;
}

TEST(DisplayColours, AnAbsorberColourIsReadInItsOwnSlice) {
  // 4x4x2, lim_oct_level 1: eight 2x2x1 blocks. Slice 0 is 0s (turn 0 of
  // the sequential pass, colour 0); slice 1 is 100s (0x50 takes 0x60 and
  // 0x70 in turn 1, colour 1) except 0x80 (200s, turn 2). 0x80 is small and
  // closer to the 100s (distance 100, against 200): it is painted with the
  // colour at 0x50's first pixel, (0, 0, 1), which is 1; the pixel (0, 0, 0)
  // below it shows 0.
  std::vector<std::int32_t> image(32, 0);
  for (int i = 16; i < 32; ++i) image[static_cast<std::size_t>(i)] = 100;
  for (const int i : {16 + 10, 16 + 11, 16 + 14, 16 + 15}) image[static_cast<std::size_t>(i)] = 200;
  parameters p;
  p.init_level = 1;
  p.pred_choice = 1;
  p.interval_length = 10;
  p.small_size = 5;
  const segmentation out = run(image, 4, 2, p, true);
  ASSERT_EQ(out.status, status_ok) << out.error;
  ASSERT_GE(out.frame_count, 1);
  const auto last = out.frames.end() - 32;
  for (int i = 0; i < 32; ++i) EXPECT_EQ(last[i], i < 16 ? 0 : 1) << "pixel " << i;
}

// The elimination unites a small region r at the first entry of its
// absorber's list that stands for r; long lists find it through an index.
TEST(EliminationIndex, GivesTheFirstEntryThatNamesTheRegion) {
  // Forty entries naming blocks 1..40 in turn, then block 0 at 41 and 45.
  std::vector<int> names;
  for (int i = 1; i <= 40; ++i) names.push_back(i);
  names.insert(names.end(), {0, 7, 8, 9, 0, 3});
  EXPECT_EQ(testing::indexed_first_entry(names, {0}), 40);
  EXPECT_EQ(testing::indexed_first_entry(names, {7}), 6) << "block 7 is named at 6 and 41";
  EXPECT_EQ(testing::indexed_first_entry(names, {50}), -1) << "a region the list never names";
}

TEST(EliminationIndex, GivesTheFirstEntryAmongAllBlocksOfTheRegion) {
  // The region is the chain 0 -> 30 -> 31: its blocks are named at 44 (0),
  // 29 (30) and 30 (31); the first of them is 29, although the head comes last.
  std::vector<int> names;
  for (int i = 1; i <= 40; ++i) names.push_back(i);
  names.insert(names.end(), {5, 6, 7, 8, 0, 31, 30});
  EXPECT_EQ(testing::indexed_first_entry(names, {0, 30, 31}), 29);
  EXPECT_EQ(testing::indexed_first_entry(names, {0, 31}), 30);
  EXPECT_EQ(testing::indexed_first_entry(names, {0}), 44);
}

}  // namespace
}  // namespace splitmerge
