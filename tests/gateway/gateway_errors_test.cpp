// Bad calls are refused with their identifier before anything is allocated;
// failures during a run leave nothing behind.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"

namespace splitmerge::gateway_testing {
namespace {

// Refused before the run: no output, no host array, no library allocation,
// nothing printed.
gateway_result expect_refused(host_inputs& in, int nlhs, const std::string& id) {
  const gateway_result r = call_gateway(in, nlhs);
  EXPECT_EQ(r.error_id, id) << r.error_text;
  EXPECT_TRUE(r.label_dims.empty() && r.frame_dims.empty() && !r.wrote_extra_slot);
  EXPECT_EQ(r.host_arrays_created, 0);
  EXPECT_EQ(r.frame_requests, 0u);
  EXPECT_EQ(r.printed, "");
  return r;
}

const image volume = patchy_image({32, 32, 4});

TEST(GatewayErrors, WrongCountsAndImagesAreRefused) {
  for (std::size_t count : {0u, 1u, 14u, 16u}) {
    SCOPED_TRACE(count);
    std::vector<mxArray*> arrays;
    if (count > 0) arrays.push_back(fake_mex::int32_array(volume.dims, volume.pixels));
    while (arrays.size() < count) arrays.push_back(fake_mex::scalar(1));
    host_inputs in(std::move(arrays));
    expect_refused(in, 1, "splitmerge:nargin");
  }
  host_inputs valid(volume, host_parameters{});
  expect_refused(valid, 4, "splitmerge:nargout");
  const mwSize dims[] = {32, 32, 4};
  const std::vector<std::pair<mxArray*, std::string>> images{
      {fake_mex::double_array({32, 32, 4}, std::vector<double>(4096, 1.0)), "imageClass"},
      {mxCreateNumericArray(3, dims, mxUINT8_CLASS, mxREAL), "imageClass"},
      {mxCreateNumericArray(3, dims, mxINT32_CLASS, mxCOMPLEX), "imageClass"},
      {fake_mex::char_array("image"), "imageClass"},
      {fake_mex::int32_array({32, 32, 2, 2}, std::vector<std::int32_t>(4096, 5)), "imageDims"}};
  for (const auto& [array, id] : images) {
    SCOPED_TRACE(mxGetClassName(array));
    host_inputs in(volume, host_parameters{});
    in.replace(0, array);
    const gateway_result r = expect_refused(in, 2, "splitmerge:" + id);
    if (mxGetClassID(array) == mxDOUBLE_CLASS) {
      EXPECT_NE(r.error_text.find("int32(img)"), std::string::npos);
    }
  }
}

// What no parameter takes: arrays that are not real numeric scalars, values
// that are not finite and, for integers, values beyond 32 bits. The message
// names the input.
TEST(GatewayErrors, EveryParameterRefusesWhatItCannotTake) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  for (std::size_t slot = 1; slot <= 14; ++slot) {
    std::vector<std::pair<mxArray*, std::string>> wrong{
        {fake_mex::double_array({1, 2}, {3.0, 3.0}), "notScalar"},
        {fake_mex::double_array({0, 0}, {}), "notScalar"},
        {fake_mex::complex_scalar(3.0, 1.0), "notScalar"},
        {fake_mex::char_array("3"), "notScalar"}};
    // Flags (group_mode, use_all_seeds, statistic_update) take logicals.
    if (slot != 4 && slot != 6 && slot != 14)
      wrong.emplace_back(fake_mex::logical_scalar(true), "notScalar");
    std::vector<double> values{std::nan(""), inf, -inf};
    if (slot != 9 && slot != 10 && slot != 12)  // integers
      values.insert(values.end(), {2147483648.0, -2147483649.0, 1e300});
    for (double v : values) wrong.emplace_back(fake_mex::scalar(v), "badParameter");
    for (const auto& [value, id] : wrong) {
      SCOPED_TRACE(std::string(slot_names[slot]) + " " + id);
      host_inputs in(volume, host_parameters{});
      in.replace(slot, value);
      const gateway_result r = expect_refused(in, 2, "splitmerge:" + id);
      const std::string named =
          std::string(slot_names[slot]) + " (input " + std::to_string(slot + 1) + ")";
      EXPECT_EQ(r.error_text.rfind(named, 0), 0u) << r.error_text;
    }
  }
}

// (A volume's pixel: the Octave module's test, on the real host.)
TEST(GatewayErrors, BadPixelIsNamedByItsOneBasedPosition) {
  image plane = patchy_image({16, 16});
  plane.pixels[16 * 3 + 4] = -1;  // row 5, column 4
  host_parameters p;
  p.max_level = p.lim_oct_level = 4;
  host_inputs in_plane(plane, p);
  EXPECT_EQ(expect_refused(in_plane, 1, "splitmerge:badParameter").error_text,
            "image pixel (5, 4) (linear index 53) is -1: pixels must lie in 0 to 255 (rescale "
            "the image)");
}

// The library's own message, for the values the gateway should pass.
TEST(GatewayErrors, WhatTheLibraryRejectsCarriesItsMessage) {
  const std::vector<std::vector<std::pair<std::size_t, double>>> changes = {
      // Truncation that fits int32 is the library's to judge.
      {{1, 2147483647.9}},
      {{1, -2147483648.9}},
      {}};
  for (const auto& change : changes) {
    SCOPED_TRACE(change.empty() ? "a rectangular image" : slot_names[change[0].first]);
    host_parameters p;
    for (const auto& [slot, v] : change) p.*host_members[slot - 1] = v;
    const image img = change.empty() ? patchy_image({32, 16, 4}) : volume;
    host_inputs in(img, p);
    const std::string expected = check_parameters(
        {img.pixels.data(), static_cast<std::int32_t>(img.dims[0]),
         static_cast<std::int32_t>(img.dims[1]), static_cast<std::int32_t>(img.dims[2])},
        p.as_library_parameters());
    ASSERT_NE(expected, "");
    EXPECT_EQ(expect_refused(in, 2, "splitmerge:badParameter").error_text, expected);
  }
}

// Nothing is handed back and nothing stays alive when the call fails midway.
void expect_failed_cleanly(const gateway_result& r, const std::string& id) {
  EXPECT_EQ(r.error_id, id) << r.error_text;
  EXPECT_TRUE(r.label_dims.empty() && r.frame_dims.empty());
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayErrors, EveryFailedFrameStoreRequestLeavesNothingBehind) {
  host_inputs in(volume, host_parameters{});
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

TEST(GatewayErrors, InterruptAtAnyPollEndsTheCallWithNothingLeft) {
  host_inputs in(volume, host_parameters{});
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

TEST(GatewayErrors, RunAboveTheMemoryLimitIsRefusedWithItsIdentifier) {
  host_inputs in(volume, host_parameters{});
  for (int nlhs : {1, 2, 3}) {
    SCOPED_TRACE(nlhs);
    gateway::call_settings settings;
    settings.memory_limit = 128 * 1024;
    const gateway_result r = call_gateway(in, nlhs, settings);
    expect_failed_cleanly(r, "splitmerge:memory");
    EXPECT_EQ(r.error_text.rfind("the run stopped at the memory budget of 128.0 KiB", 0), 0u)
        << r.error_text;
  }
  gateway::call_settings generous;
  generous.memory_limit = std::uint64_t{1} << 30;
  EXPECT_EQ(call_gateway(in, 2, generous).error_id, "");
}

}  // namespace
}  // namespace splitmerge::gateway_testing
