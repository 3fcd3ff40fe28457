// What a call hands back: labels, frames in recording order, the region list
// and the printed lines, all equal to the library's own results; and what a
// call that fails midway leaves behind: nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"

namespace splitmerge::gateway_testing {
namespace {

const image volume = patchy_image({32, 32, 4});
constexpr std::size_t pixels = 32 * 32 * 4;

std::vector<mwSize> with_frames(std::int32_t count) {
  return {32, 32, 4, static_cast<mwSize>(count)};
}

// No output: the labels go to ans, the one slot the host provides, and
// nothing is recorded. Three: frames and the region list in label order.
// (Two outputs: the reference cases through the Octave module.)
TEST(GatewayOutput, NoOutputAndThreeMatchTheLibrary) {
  host_inputs in(volume, default_values);
  for (int nlhs : {0, 3}) {
    SCOPED_TRACE(nlhs);
    std::string printed;
    const segmentation want = run_library(in, nlhs == 3, printed);
    ASSERT_EQ(want.status, 0);
    ASSERT_GE(want.regions.size(), 3u);
    const gateway_result r = call_gateway(in, nlhs);
    ASSERT_EQ(r.error_id, "") << r.error_text;
    EXPECT_EQ(r.label_dims, volume.dims);
    EXPECT_EQ(r.labels, want.labels);
    EXPECT_EQ(r.frame_dims, nlhs == 3 ? with_frames(want.frame_count) : std::vector<mwSize>{});
    EXPECT_EQ(r.frames, nlhs == 3 ? want.frames : std::vector<std::int32_t>{});
    EXPECT_TRUE(nlhs == 3 || r.frame_requests == 0u);
    EXPECT_EQ(r.printed, printed);
    ASSERT_EQ(r.regions.size(), nlhs == 3 ? want.regions.size() : 0u);
    for (std::size_t k = 0; k < r.regions.size(); ++k) {
      const auto& stats = want.regions[k].statistics;
      EXPECT_TRUE(std::equal(stats, stats + 2, r.regions[k].statistics)) << k;
      EXPECT_EQ(r.regions[k].codes, want.regions[k].codes) << k;
      EXPECT_EQ(r.regions[k].neighbours, want.regions[k].neighbours) << k;
    }
    EXPECT_TRUE(r.warnings.empty());
    EXPECT_EQ(r.host_arrays_left, 0);
    EXPECT_FALSE(r.wrote_extra_slot);
  }
}

// Beyond the budget the last frame kept goes on showing the final state.
TEST(GatewayOutput, FrameBudgetKeepsTheFirstFramesAndTheFinalOneWithAWarning) {
  host_inputs in(volume, default_values);
  std::string printed;
  const segmentation full = run_library(in, true, printed);
  ASSERT_GE(full.frame_count, 4);
  for (const std::int32_t kept : {1, 3}) {
    SCOPED_TRACE(kept);
    gateway::call_settings settings;
    settings.frame_budget = kept * pixels * sizeof(std::int32_t) + 5;
    const gateway_result r = call_gateway(in, 2, settings);
    ASSERT_EQ(r.error_id, "") << r.error_text;
    // X x Y x Z x 1: the host drops the trailing singleton.
    EXPECT_EQ(r.frame_dims, kept == 1 ? volume.dims : with_frames(kept));
    EXPECT_EQ(r.labels, full.labels);
    const auto frame = [&](std::int32_t k) {
      return full.frames.begin() + k * std::ptrdiff_t{pixels};
    };
    std::vector<std::int32_t> frames(frame(0), frame(kept - 1));
    frames.insert(frames.end(), frame(full.frame_count - 1), full.frames.end());
    EXPECT_EQ(r.frames, frames);
    ASSERT_EQ(r.warnings.size(), 1u);
    EXPECT_EQ(r.warnings[0].id, "splitmerge:frameBudget");
    EXPECT_EQ(r.warnings[0].text.rfind(
                  "frame recording stopped at " + std::to_string(kept) + " frames", 0),
              0u)
        << r.warnings[0].text;
    EXPECT_EQ(r.host_arrays_left, 0);
  }
}

// Nothing is handed back and nothing stays alive when the call fails midway.
void expect_failed_cleanly(const gateway_result& r, const std::string& id) {
  EXPECT_EQ(r.error_id, id) << r.error_text;
  EXPECT_TRUE(r.label_dims.empty() && r.frame_dims.empty());
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayOutput, EveryFailedFrameStoreRequestLeavesNothingBehind) {
  host_inputs in(volume, default_values);
  const gateway_result clean = call_gateway(in, 2);
  ASSERT_GE(clean.frame_requests, 2u) << clean.error_text;
  for (std::uint64_t k = 1; k <= clean.frame_requests; ++k) {
    SCOPED_TRACE(k);
    gateway::call_settings settings;
    settings.fail_frame_request = k;
    expect_failed_cleanly(call_gateway(in, 2, settings), "splitmerge:outOfMemory");
  }
  for (int k : {1, 2}) {  // the host's labels, then its frames
    SCOPED_TRACE(k);
    fake_mex::fail_create_at(k);
    const gateway_result r = call_gateway(in, 2);
    fake_mex::fail_create_at(0);
    expect_failed_cleanly(r, "splitmerge:outOfMemory");
  }
}

TEST(GatewayOutput, InterruptAtAnyPollEndsTheCallWithNothingLeft) {
  host_inputs in(volume, default_values);
  const gateway_result clean = call_gateway(in, 2);
  ASSERT_GE(clean.interrupt_polls, 3) << clean.error_text;
  for (int nlhs : {1, 2}) {
    for (std::int64_t k = 1; k <= clean.interrupt_polls; ++k) {
      SCOPED_TRACE(std::to_string(nlhs) + " outputs, poll " + std::to_string(k));
      fake_mex::interrupt_at_poll(k);
      const gateway_result r = call_gateway(in, nlhs);
      fake_mex::interrupt_at_poll(0);
      expect_failed_cleanly(r, "splitmerge:interrupted");
    }
  }
  // The flag was taken: the next call runs to the end.
  const gateway_result after = call_gateway(in, 2);
  EXPECT_EQ(after.error_id, "");
  EXPECT_EQ(after.frames, clean.frames);
}

TEST(GatewayOutput, RunAboveTheMemoryLimitIsRefusedWithItsIdentifier) {
  host_inputs in(volume, default_values);
  for (int nlhs : {1, 2, 3}) {
    SCOPED_TRACE(nlhs);
    gateway::call_settings settings;
    settings.memory_limit = 128 * 1024;
    const gateway_result r = call_gateway(in, nlhs, settings);
    expect_failed_cleanly(r, "splitmerge:memory");
    EXPECT_EQ(r.error_text.rfind("the run stopped at the memory budget of 128.0 KiB", 0), 0u)
        << r.error_text;
  }
}

}  // namespace
}  // namespace splitmerge::gateway_testing
