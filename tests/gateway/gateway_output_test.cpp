// What a successful call hands back: shapes, labels, frames in recording
// order, the region list and the printed lines, all equal to the library's
// own results.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"

namespace splitmerge::gateway_testing {
namespace {

std::vector<mwSize> with_frames(std::vector<mwSize> dims, std::int32_t count) {
  dims.push_back(static_cast<mwSize>(count));
  return dims;
}

std::vector<std::int32_t> frames_of(const std::vector<std::int32_t>& frames, std::size_t pixels,
                                    std::vector<std::int32_t> which) {
  std::vector<std::int32_t> out;
  for (const std::int32_t k : which) {
    const auto start = frames.begin() + static_cast<std::ptrdiff_t>(k * pixels);
    out.insert(out.end(), start, start + static_cast<std::ptrdiff_t>(pixels));
  }
  return out;
}

// Labels with any output count (none: they go to ans), frames with two or
// more, the region list in label order with three; through mexFunction too.
TEST(GatewayOutput, EveryOutputCountMatchesTheLibraryIn2dAnd3d) {
  host_parameters plane;
  plane.max_level = plane.lim_oct_level = 4;
  plane.init_level = 1;
  plane.group_mode = 0;
  plane.pred_choice = 1;
  plane.interval_length = 25;
  for (const auto& [img, p] : {std::pair{patchy_image({32, 32, 4}), host_parameters{}},
                               std::pair{patchy_image({16, 16}, 7), plane}}) {
    SCOPED_TRACE(img.dims.size());
    const library_result expected = run_library(img, p.as_library_parameters());
    const library_result plain = run_library(img, p.as_library_parameters(), false);
    ASSERT_EQ(expected.status, 0);
    ASSERT_GE(expected.regions.size(), 3u);
    const std::size_t n = img.pixels.size();
    // Several distinct frames, so that the order is really checked.
    ASSERT_NE(frames_of(expected.frames, n, {0}),
              frames_of(expected.frames, n, {expected.frame_count - 1}));
    host_inputs in(img, p);
    for (int nlhs : {0, 1, 2, 3}) {
      SCOPED_TRACE(nlhs);
      const gateway_result r = nlhs == 2 ? call_mex_function(in, 2) : call_gateway(in, nlhs);
      const library_result& want = nlhs >= 2 ? expected : plain;
      ASSERT_EQ(r.error_id, "") << r.error_text;
      EXPECT_EQ(r.label_dims, img.dims);
      EXPECT_EQ(r.labels, want.labels);
      EXPECT_EQ(r.frame_dims,
                nlhs >= 2 ? with_frames(img.dims, expected.frame_count) : std::vector<mwSize>{});
      EXPECT_EQ(r.frames, nlhs >= 2 ? expected.frames : std::vector<std::int32_t>{});
      EXPECT_TRUE(nlhs >= 2 || r.frame_requests == 0u);  // nothing recorded without frames
      EXPECT_EQ(r.printed, want.printed);
      ASSERT_EQ(r.regions.size(), nlhs == 3 ? expected.regions.size() : 0u);
      for (std::size_t k = 0; k < r.regions.size(); ++k) {
        const auto& stats = expected.regions[k].statistics;
        EXPECT_TRUE(std::equal(stats, stats + 2, r.regions[k].statistics)) << k;
        EXPECT_EQ(r.regions[k].codes, expected.regions[k].codes) << k;
        EXPECT_EQ(r.regions[k].neighbours, expected.regions[k].neighbours) << k;
      }
      EXPECT_TRUE(r.warnings.empty());
      EXPECT_EQ(r.host_arrays_left, 0);
      EXPECT_FALSE(r.wrote_extra_slot);
    }
  }
}

// Beyond the budget the last frame kept goes on showing the final state.
TEST(GatewayOutput, FrameBudgetKeepsTheFirstFramesAndTheFinalOneWithAWarning) {
  const image img = patchy_image({32, 32, 4});
  const library_result full = run_library(img, host_parameters{}.as_library_parameters());
  ASSERT_GE(full.frame_count, 4);
  const std::size_t n = img.pixels.size();
  for (const std::int32_t kept : {1, 3}) {
    SCOPED_TRACE(kept);
    gateway::call_settings settings;
    settings.frame_budget = kept * n * sizeof(std::int32_t) + 5;
    host_inputs in(img, host_parameters{});
    const gateway_result r = call_gateway(in, 2, settings);
    ASSERT_EQ(r.error_id, "") << r.error_text;
    // X x Y x Z x 1: the host drops the trailing singleton.
    EXPECT_EQ(r.frame_dims, kept == 1 ? img.dims : with_frames(img.dims, kept));
    EXPECT_EQ(r.labels, full.labels);
    std::vector<std::int32_t> which(static_cast<std::size_t>(kept));
    std::iota(which.begin(), which.end(), 0);
    which.back() = full.frame_count - 1;
    EXPECT_EQ(r.frames, frames_of(full.frames, n, which));
    ASSERT_EQ(r.warnings.size(), 1u);
    EXPECT_EQ(r.warnings[0].id, "splitmerge:frameBudget");
    EXPECT_EQ(r.warnings[0].text.rfind(
                  "frame recording stopped at " + std::to_string(kept) + " frames", 0),
              0u)
        << r.warnings[0].text;
    EXPECT_EQ(r.host_arrays_left, 0);
  }
}

}  // namespace
}  // namespace splitmerge::gateway_testing
