// The chi-square threshold table against ratios computed independently in
// double precision (tests/data/chi_square_thresholds.txt, written by the
// script next to it), and the variance tables of the largest blocks.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include "driver/driver.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"

namespace splitmerge {
namespace {

// Ratios keyed by (row 1..3, column e); the file also gives each one's own
// rounding to single precision, to nearest, ties to even.
std::map<std::pair<int, int>, double> read_reference() {
  std::map<std::pair<int, int>, double> table;
  std::ifstream in(std::string(SPLITMERGE_SOURCE_DIR) + "/tests/data/chi_square_thresholds.txt");
  EXPECT_TRUE(in) << "cannot open the reference ratios";
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line.front() == '#') continue;
    std::istringstream fields(line);
    int e = 0, row = 0;
    std::string ratio, bits;
    fields >> e >> row >> ratio >> bits;
    EXPECT_TRUE(fields && fields.eof()) << "malformed line: " << line;
    const double r = std::stod(ratio);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(r)), std::stoul(bits, nullptr, 16));
    EXPECT_TRUE(table.emplace(std::pair{row, e}, r).second) << "repeated line: " << line;
  }
  return table;
}

const std::map<std::pair<int, int>, double> reference = read_reference();

float nearest(int row, int e) { return static_cast<float>(reference.at({row, e})); }

TEST(ThresholdTable, AgreesWithTheReferenceRatios) {
  ASSERT_EQ(reference.size(), std::size_t{3} * (s_th_columns - 2)) << "every column tested once";
  double largest = 0.0;
  for (int row = 1; row <= 3; ++row) {
    EXPECT_EQ(std::bit_cast<std::uint32_t>(s_th[row - 1][0]) |
                  std::bit_cast<std::uint32_t>(s_th[row - 1][1]),
              0u)
        << "blocks of one and two pixels";
    for (int e = 2; e < s_th_columns; ++e) {
      if (e >= 19) {
        // The columns of the largest blocks are the nearest floats.
        EXPECT_EQ(std::bit_cast<std::uint32_t>(s_th[row - 1][e]),
                  std::bit_cast<std::uint32_t>(nearest(row, e)))
            << "row " << row << ", e " << e;
        continue;
      }
      const double difference = std::fabs(s_th[row - 1][e] - reference.at({row, e}));
      EXPECT_LE(difference, 0.00036) << "row " << row << ", e " << e;
      largest = std::fmax(largest, difference);
    }
  }
  // The rounding of the established values is visible (row 3, e = 5), so the
  // reference is not a copy of the table.
  EXPECT_GT(largest, 0.0003);
}

TEST(ThresholdTable, TheLargestBlocksOfPlanesAndVolumes) {
  struct row {
    std::int32_t max_level, lim_oct_level, threshold_row, level, e;
  };
  // A 4096 x 4096 plane: level 11 holds 2^22 pixels. 512^3 volumes: with
  // lim_oct_level 1 level 8 holds 2^(2 + 3 * 7) = 2^23 voxels, with 0 2^24.
  for (const auto& [max_level, lim, threshold_row, level, e] :
       {row{12, 12, 2, 11, 22}, row{12, 12, 2, 10, 20}, row{12, 12, 2, 1, 2}, row{9, 1, 3, 8, 23},
        row{9, 1, 3, 7, 20}, row{9, 0, 3, 8, 24}, row{9, 0, 3, 7, 21}}) {
    // Only the geometry that fill_chi_variance reads: no image of that size.
    run_context ctx;
    ctx.max_level = max_level;
    ctx.lim_oct_level = lim;
    ASSERT_EQ(fill_pixels_per_block(ctx), 0);
    ASSERT_EQ(fill_chi_variance(ctx, threshold_row, 4.0), 0);
    EXPECT_EQ(ctx.pixels_perblock[level], 1 << e);
    EXPECT_EQ(ctx.var_thresh[level], s_th[threshold_row - 1][e] * 4.0f) << max_level << " " << e;
    EXPECT_EQ(ctx.var_thresh[max_level], 0.0f) << "the whole image gets no threshold";
    if (e == 24) {
      // Row 1 at column 24 is the largest float below 1: the threshold stays
      // just under the noise variance.
      ctx.allocator.release(ctx.var_thresh);
      ASSERT_EQ(fill_chi_variance(ctx, 1, 4.0), 0);
      EXPECT_EQ(ctx.var_thresh[level], std::nextafter(4.0f, 0.0f));
    }
    free_variables(ctx);
  }
}

}  // namespace
}  // namespace splitmerge
