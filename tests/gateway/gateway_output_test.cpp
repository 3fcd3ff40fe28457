// What a successful call hands back: shapes, labels, frames in recording
// order and the printed lines, all equal to the library's own results.
#include <gtest/gtest.h>

#include <vector>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"

namespace splitmerge::gateway_testing {
namespace {

std::vector<mwSize> with_frames(std::vector<mwSize> dims, std::int32_t count) {
  dims.push_back(static_cast<mwSize>(count));
  return dims;
}

TEST(GatewayOutput, ThreeDimensionalRunMatchesTheLibrary) {
  const image img = patchy_image({32, 32, 4});
  const parameters p;
  const library_result expected = run_library(img, p.as_library_arguments());
  ASSERT_EQ(expected.status, 0);
  // Several distinct frames, so that the order is really checked.
  ASSERT_GE(expected.frame_count, 3);
  const std::size_t n = img.pixels.size();
  ASSERT_NE(std::vector<std::int32_t>(expected.frames.begin() + n, expected.frames.begin() + 2 * n),
            std::vector<std::int32_t>(expected.frames.end() - n, expected.frames.end()));

  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.label_dims, img.dims);
  EXPECT_EQ(r.labels, expected.labels);
  EXPECT_EQ(r.frame_dims, with_frames(img.dims, expected.frame_count));
  EXPECT_EQ(r.frames, expected.frames);
  EXPECT_EQ(r.printed, expected.printed);
  EXPECT_TRUE(r.warnings.empty());
  EXPECT_EQ(r.library_allocations_left, 0);
  EXPECT_EQ(r.host_arrays_left, 0);
  EXPECT_FALSE(r.wrote_extra_slot);
}

TEST(GatewayOutput, TwoDimensionalRunMatchesTheLibrary) {
  const image img = patchy_image({16, 16}, 7);
  parameters p;
  p.max_level = 4;
  p.lim_oct_level = 4;
  p.init_level = 1;
  p.group_mode = 0;
  p.pred_choice = 1;
  p.interval_length = 25;
  const library_result expected = run_library(img, p.as_library_arguments());
  ASSERT_EQ(expected.status, 0);

  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.label_dims, img.dims);
  EXPECT_EQ(r.labels, expected.labels);
  EXPECT_EQ(r.frame_dims, with_frames(img.dims, expected.frame_count));
  EXPECT_EQ(r.frames, expected.frames);
  EXPECT_EQ(r.printed, expected.printed);
  EXPECT_EQ(r.library_allocations_left, 0);
}

TEST(GatewayOutput, MexFunctionGivesTheSameResults) {
  const image img = patchy_image({32, 32, 4}, 3);
  const parameters p;
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

TEST(GatewayOutput, OneOutputWritesOnlyTheLabelsAndStillReleasesTheFrames) {
  const image img = patchy_image({32, 32, 4});
  const parameters p;
  const library_result expected = run_library(img, p.as_library_arguments());
  for (int nlhs : {0, 1}) {
    SCOPED_TRACE(nlhs);
    host_inputs in(img, p);
    const gateway_result r = call_gateway(in, nlhs);
    ASSERT_EQ(r.error_id, "") << r.error_text;
    EXPECT_TRUE(r.labels_written);
    EXPECT_EQ(r.labels, expected.labels);
    EXPECT_FALSE(r.frames_written);
    EXPECT_FALSE(r.wrote_extra_slot);
    EXPECT_EQ(r.printed, expected.printed);
    EXPECT_EQ(r.library_allocations_left, 0);
    EXPECT_EQ(r.host_arrays_left, 0);
  }
}

TEST(GatewayOutput, SingleFrameIsShapedAsTheHostShapesAnyArray) {
  // A budget of one frame stops the recording after the first.
  const image img = patchy_image({32, 32, 4});
  const parameters p;
  run_context ctx;
  ctx.frame_budget = img.pixels.size() * sizeof(std::int32_t);
  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2, &ctx);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  // X x Y x Z x 1: the host drops the trailing singleton.
  EXPECT_EQ(r.frame_dims, img.dims);
  EXPECT_EQ(r.frames.size(), img.pixels.size());
  EXPECT_EQ(r.library_allocations_left, 0);
}

TEST(GatewayOutput, FrameBudgetWarningReachesTheHostAndKeepsTheRecordedFrames) {
  const image img = patchy_image({32, 32, 4});
  const parameters p;
  const library_result full = run_library(img, p.as_library_arguments());
  ASSERT_GE(full.frame_count, 3);
  run_context ctx;
  ctx.frame_budget = 2 * img.pixels.size() * sizeof(std::int32_t);
  host_inputs in(img, p);
  const gateway_result r = call_gateway(in, 2, &ctx);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.frame_dims, with_frames(img.dims, 2));
  EXPECT_EQ(r.labels, full.labels);
  ASSERT_EQ(r.warnings.size(), 1u);
  EXPECT_EQ(r.warnings[0].id, "splitmerge:frameBudget");
  EXPECT_EQ(r.warnings[0].text.rfind("frame recording stopped at 2 frames", 0), 0u)
      << r.warnings[0].text;
  EXPECT_EQ(r.library_allocations_left, 0);
}

}  // namespace
}  // namespace splitmerge::gateway_testing
