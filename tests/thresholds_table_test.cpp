// The chi-square threshold table against ratios computed independently in
// double precision (tests/data/chi_square_thresholds.txt, written by the
// script next to it), and the variance tables of the largest blocks.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include "context/run_context.hpp"
#include "driver/driver.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"

namespace splitmerge {
namespace {

struct reference_ratio {
  double ratio = 0.0;
  std::uint32_t nearest_bits = 0;  // the file's own rounding to single precision
};

// Keyed by (row 1..3, column e).
using reference_table = std::map<std::pair<int, int>, reference_ratio>;

std::filesystem::path reference_file() {
  return std::filesystem::path(SPLITMERGE_SOURCE_DIR) / "tests" / "data" /
         "chi_square_thresholds.txt";
}

reference_table read_reference() {
  reference_table table;
  std::ifstream in(reference_file());
  EXPECT_TRUE(in) << "cannot open " << reference_file();
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line.front() == '#') continue;
    std::istringstream fields(line);
    int e = 0;
    int row = 0;
    std::string ratio_text;
    std::string bits_text;
    fields >> e >> row >> ratio_text >> bits_text;
    EXPECT_TRUE(fields && fields.eof()) << "malformed line: " << line;
    const reference_ratio r{std::stod(ratio_text),
                            static_cast<std::uint32_t>(std::stoul(bits_text, nullptr, 16))};
    EXPECT_TRUE(table.emplace(std::pair{row, e}, r).second) << "repeated line: " << line;
  }
  return table;
}

const reference_table& reference() {
  static const reference_table table = read_reference();
  return table;
}

float nearest_float(int row, int e) { return static_cast<float>(reference().at({row, e}).ratio); }

TEST(ThresholdTable, ReferenceCoversEveryTestedColumnOnce) {
  const reference_table& table = reference();
  EXPECT_EQ(table.size(), std::size_t{3} * (s_th_columns - 2));
  for (int row = 1; row <= 3; ++row)
    for (int e = 2; e < s_th_columns; ++e) EXPECT_EQ(table.count({row, e}), 1u) << row << " " << e;
  // The file rounds as the compiler does: to nearest, ties to even.
  for (const auto& [key, r] : table)
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(r.ratio)), r.nearest_bits)
        << "row " << key.first << ", e " << key.second;
}

TEST(ThresholdTable, LargeBlockColumnsAreTheNearestFloats) {
  for (int row = 1; row <= 3; ++row)
    for (int e = 19; e < s_th_columns; ++e)
      EXPECT_EQ(std::bit_cast<std::uint32_t>(s_th[row - 1][e]),
                std::bit_cast<std::uint32_t>(nearest_float(row, e)))
          << "row " << row << ", e " << e << ": ratio " << std::setprecision(17)
          << reference().at({row, e}).ratio;
}

TEST(ThresholdTable, EstablishedColumnsAgreeToFourDigits) {
  double largest = 0.0;
  for (int row = 1; row <= 3; ++row)
    for (int e = 2; e <= 18; ++e) {
      const double difference = std::fabs(s_th[row - 1][e] - reference().at({row, e}).ratio);
      EXPECT_LE(difference, 0.00036) << "row " << row << ", e " << e;
      largest = std::fmax(largest, difference);
    }
  // The rounding of the established values is visible (row 3, e = 5), so the
  // reference is not a copy of the table.
  EXPECT_GT(largest, 0.0003);
}

TEST(ThresholdTable, ColumnsOfOneAndTwoPixelsAreZero) {
  for (int row = 0; row < 3; ++row) {
    EXPECT_EQ(std::bit_cast<std::uint32_t>(s_th[row][0]), 0u);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(s_th[row][1]), 0u);
  }
}

// The chi-square variance table of a context holding only the geometry that
// fill_chi_variance reads: no image of that size is needed.
struct geometry_only_run {
  run_context ctx;
  geometry_only_run(std::int32_t max_level, std::int32_t lim_oct_level,
                    std::int32_t threshold_row) {
    ctx.max_level = max_level;
    ctx.lim_oct_level = lim_oct_level;
    ok = fill_pixels_per_block(ctx) == 0 && fill_chi_variance(ctx, threshold_row, 4.0) == 0;
  }
  ~geometry_only_run() { free_variables(ctx); }
  geometry_only_run(const geometry_only_run&) = delete;
  geometry_only_run& operator=(const geometry_only_run&) = delete;
  bool ok = false;
};

TEST(ThresholdTable, LargestPlaneLevelUsesColumn22) {
  // A 4096 x 4096 plane: level 11 holds blocks of 2048 x 2048 = 2^22 pixels.
  geometry_only_run run(12, 12, 2);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.ctx.pixels_perblock[11], 1 << 22);
  EXPECT_EQ(run.ctx.var_thresh[11], nearest_float(2, 22) * 4.0f);
  EXPECT_EQ(run.ctx.var_thresh[10], nearest_float(2, 20) * 4.0f);
  EXPECT_EQ(run.ctx.var_thresh[1], 1.36945f * 4.0f) << "4 pixels: column 2";
  EXPECT_EQ(run.ctx.var_thresh[12], 0.0f) << "the whole image gets no threshold";
}

TEST(ThresholdTable, LargestVolumeLevelsUseColumns23And24) {
  // 512^3 volumes: with lim_oct_level 1 level 8 holds 2^(2 + 3 * 7) = 2^23
  // voxels, with lim_oct_level 0 it holds 2^24.
  {
    geometry_only_run run(9, 1, 3);
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(run.ctx.pixels_perblock[8], 1 << 23);
    EXPECT_EQ(run.ctx.var_thresh[8], nearest_float(3, 23) * 4.0f);
    EXPECT_EQ(run.ctx.var_thresh[7], nearest_float(3, 20) * 4.0f);
    EXPECT_EQ(run.ctx.var_thresh[9], 0.0f);
  }
  {
    geometry_only_run run(9, 0, 3);
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(run.ctx.pixels_perblock[8], 1 << 24);
    EXPECT_EQ(run.ctx.var_thresh[8], nearest_float(3, 24) * 4.0f);
    EXPECT_EQ(run.ctx.var_thresh[7], nearest_float(3, 21) * 4.0f);
    EXPECT_EQ(run.ctx.var_thresh[9], 0.0f);
  }
  {
    // Row 1 at column 24 is the largest float below 1: the threshold stays
    // just under the noise variance.
    geometry_only_run run(9, 0, 1);
    ASSERT_TRUE(run.ok);
    EXPECT_EQ(run.ctx.var_thresh[8], std::nextafter(4.0f, 0.0f));
  }
}

}  // namespace
}  // namespace splitmerge
