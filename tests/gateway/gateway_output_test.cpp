// What a successful call hands back: shapes, labels, frames in recording
// order and the printed lines, all equal to the library's own results.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"

namespace splitmerge::gateway_testing {
namespace {

std::vector<mwSize> with_frames(std::vector<mwSize> dims, std::int32_t count) {
  dims.push_back(static_cast<mwSize>(count));
  return dims;
}

std::vector<std::int32_t> frame(const std::vector<std::int32_t>& frames, std::size_t pixels,
                                std::size_t k) {
  const auto start = frames.begin() + static_cast<std::ptrdiff_t>(k * pixels);
  return {start, start + static_cast<std::ptrdiff_t>(pixels)};
}

TEST(GatewayOutput, ThreeDimensionalRunMatchesTheLibrary) {
  const image img = patchy_image({32, 32, 4});
  const host_parameters p;
  const library_result expected = run_library(img, p.as_library_parameters());
  ASSERT_EQ(expected.status, 0);
  // Several distinct frames, so that the order is really checked.
  ASSERT_GE(expected.frame_count, 3);
  const std::size_t n = img.pixels.size();
  ASSERT_NE(frame(expected.frames, n, 1), frame(expected.frames, n, expected.frame_count - 1));

  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.label_dims, img.dims);
  EXPECT_EQ(r.labels, expected.labels);
  EXPECT_EQ(r.frame_dims, with_frames(img.dims, expected.frame_count));
  EXPECT_EQ(r.frames, expected.frames);
  EXPECT_EQ(r.printed, expected.printed);
  EXPECT_TRUE(r.warnings.empty());
  EXPECT_EQ(r.host_arrays_left, 0);
  EXPECT_FALSE(r.wrote_extra_slot);
}

TEST(GatewayOutput, TwoDimensionalRunMatchesTheLibrary) {
  const image img = patchy_image({16, 16}, 7);
  host_parameters p;
  p.max_level = 4;
  p.lim_oct_level = 4;
  p.init_level = 1;
  p.group_mode = 0;
  p.pred_choice = 1;
  p.interval_length = 25;
  const library_result expected = run_library(img, p.as_library_parameters());
  ASSERT_EQ(expected.status, 0);

  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.label_dims, img.dims);
  EXPECT_EQ(r.labels, expected.labels);
  EXPECT_EQ(r.frame_dims, with_frames(img.dims, expected.frame_count));
  EXPECT_EQ(r.frames, expected.frames);
  EXPECT_EQ(r.printed, expected.printed);
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayOutput, MexFunctionGivesTheSameResults) {
  const image img = patchy_image({32, 32, 4}, 3);
  const host_parameters p;
  host_inputs in(img, p);
  const gateway_result through_hook = call_gateway(in, 2);
  const gateway_result direct = call_mex_function(in, 2);
  ASSERT_EQ(direct.error_id, "") << direct.error_text;
  EXPECT_EQ(direct.labels, through_hook.labels);
  EXPECT_EQ(direct.frame_dims, through_hook.frame_dims);
  EXPECT_EQ(direct.frames, through_hook.frames);
  EXPECT_EQ(direct.printed, through_hook.printed);
  EXPECT_EQ(direct.host_arrays_left, 0);
}

TEST(GatewayOutput, OneOutputOrNoneRunsWithoutRecordingFrames) {
  const image img = patchy_image({32, 32, 4});
  const host_parameters p;
  const library_result recorded = run_library(img, p.as_library_parameters(), true);
  const library_result plain = run_library(img, p.as_library_parameters(), false);
  ASSERT_EQ(plain.labels, recorded.labels);
  ASSERT_EQ(plain.printed, recorded.printed);
  for (int nlhs : {0, 1}) {
    SCOPED_TRACE(nlhs);
    host_inputs in(img, p);
    const gateway_result r = call_gateway(in, nlhs);
    ASSERT_EQ(r.error_id, "") << r.error_text;
    EXPECT_TRUE(r.labels_written);
    EXPECT_EQ(r.labels, plain.labels);
    EXPECT_FALSE(r.frames_written);
    EXPECT_FALSE(r.wrote_extra_slot);
    EXPECT_EQ(r.printed, plain.printed);
    EXPECT_EQ(r.frame_requests, 0u);  // nothing was recorded
    EXPECT_EQ(r.host_arrays_left, 0);
  }
}

bool same_regions(const std::vector<region_record>& a, const std::vector<region_record>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t k = 0; k < a.size(); ++k)
    if (a[k].statistics[0] != b[k].statistics[0] || a[k].statistics[1] != b[k].statistics[1] ||
        a[k].codes != b[k].codes || a[k].neighbours != b[k].neighbours)
      return false;
  return true;
}

TEST(GatewayOutput, ThirdOutputIsTheRegionListInLabelOrder) {
  const image img = patchy_image({32, 32, 4});
  host_parameters p;
  p.small_size = 20;
  const library_result expected = run_library(img, p.as_library_parameters());
  ASSERT_GE(expected.regions.size(), 3u);
  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 3);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  ASSERT_TRUE(r.regions_written);
  EXPECT_TRUE(same_regions(r.regions, expected.regions));
  EXPECT_EQ(r.labels, expected.labels);
  EXPECT_EQ(r.frames, expected.frames);
  // One region per label; neighbours are labels and mutual (the list may name
  // a region itself, as the region list file does).
  const auto regions = static_cast<std::int32_t>(r.regions.size());
  EXPECT_EQ(*std::max_element(r.labels.begin(), r.labels.end()) + 1, regions);
  for (std::int32_t k = 0; k < regions; ++k)
    for (std::int32_t n : r.regions[static_cast<std::size_t>(k)].neighbours) {
      ASSERT_TRUE(n >= 0 && n < regions) << k << " lists " << n << " of " << regions;
      if (n == k) continue;
      const auto& back = r.regions[static_cast<std::size_t>(n)].neighbours;
      EXPECT_NE(std::find(back.begin(), back.end(), k), back.end()) << k << " " << n;
    }
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayOutput, SingleFrameBudgetKeepsTheFinalState) {
  const image img = patchy_image({32, 32, 4});
  const host_parameters p;
  const library_result full = run_library(img, p.as_library_parameters());
  gateway::call_settings settings;
  settings.frame_budget = img.pixels.size() * sizeof(std::int32_t);
  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2, settings);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  // X x Y x Z x 1: the host drops the trailing singleton.
  EXPECT_EQ(r.frame_dims, img.dims);
  EXPECT_EQ(r.frames, frame(full.frames, img.pixels.size(), full.frame_count - 1));
  ASSERT_EQ(r.warnings.size(), 1u);
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayOutput, FrameBudgetWarningReachesTheHostAndKeepsFirstAndFinalFrames) {
  const image img = patchy_image({32, 32, 4});
  const host_parameters p;
  const library_result full = run_library(img, p.as_library_parameters());
  ASSERT_GE(full.frame_count, 4);
  const std::size_t n = img.pixels.size();
  gateway::call_settings settings;
  settings.frame_budget = 3 * n * sizeof(std::int32_t) + 5;  // room for three frames
  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2, settings);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.frame_dims, with_frames(img.dims, 3));
  EXPECT_EQ(r.labels, full.labels);
  EXPECT_EQ(frame(r.frames, n, 0), frame(full.frames, n, 0));
  EXPECT_EQ(frame(r.frames, n, 1), frame(full.frames, n, 1));
  EXPECT_EQ(frame(r.frames, n, 2), frame(full.frames, n, full.frame_count - 1));
  ASSERT_EQ(r.warnings.size(), 1u);
  EXPECT_EQ(r.warnings[0].id, "splitmerge:frameBudget");
  EXPECT_EQ(r.warnings[0].text.rfind("frame recording stopped at 3 frames", 0), 0u)
      << r.warnings[0].text;
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayOutput, LargestSeedCountNeedsNoLargerTable) {
  // A seed table of 2^31 - 1 slots would need 8 GB; the run never has more
  // seeds than regions.
  const image img = patchy_image({256, 256}, 5);
  host_parameters p;
  p.max_level = 8;
  p.lim_oct_level = 8;
  p.init_level = 3;
  p.max_seed = 2147483647;
  host_parameters few = p;
  few.max_seed = 1e6;
  host_inputs in(img, p);
  host_inputs in_few(img, few);
  const gateway_result r = call_gateway(in, 1);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.labels, call_gateway(in_few, 1).labels);
}

}  // namespace
}  // namespace splitmerge::gateway_testing
