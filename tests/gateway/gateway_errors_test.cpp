// Bad calls are refused with their identifier before anything is allocated;
// failures during a run leave nothing behind.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
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
  EXPECT_FALSE(r.labels_written);
  EXPECT_FALSE(r.frames_written);
  EXPECT_FALSE(r.wrote_extra_slot);
  EXPECT_EQ(r.host_arrays_created, 0);
  EXPECT_EQ(r.frame_requests, 0u);
  EXPECT_EQ(r.printed, "");
  return r;
}

std::vector<mxArray*> valid_arrays() {
  std::vector<mxArray*> arrays;
  const image img = patchy_image({32, 32, 4});
  arrays.push_back(fake_mex::int32_array(img.dims, img.pixels));
  for (double v : host_parameters{}.in_host_order()) arrays.push_back(fake_mex::scalar(v));
  return arrays;
}

TEST(GatewayErrors, WrongNumberOfInputs) {
  for (std::size_t count : {0u, 1u, 14u, 16u}) {
    SCOPED_TRACE(count);
    std::vector<mxArray*> arrays = valid_arrays();
    while (arrays.size() > count) {
      mxDestroyArray(arrays.back());
      arrays.pop_back();
    }
    while (arrays.size() < count) arrays.push_back(fake_mex::scalar(1));
    host_inputs in(std::move(arrays));
    expect_refused(in, 1, "splitmerge:nargin");
  }
}

TEST(GatewayErrors, MoreThanThreeOutputs) {
  host_inputs in(valid_arrays());
  expect_refused(in, 4, "splitmerge:nargout");
}

TEST(GatewayErrors, ImageThatIsNotRealInt32) {
  const std::vector<mwSize> dims{32, 32, 4};
  const mwSize raw_dims[] = {32, 32, 4};
  std::vector<mxArray*> wrong{
      fake_mex::double_array(dims, std::vector<double>(4096, 1.0)),
      mxCreateNumericArray(3, raw_dims, mxUINT8_CLASS, mxREAL),
      mxCreateNumericArray(3, raw_dims, mxINT32_CLASS, mxCOMPLEX),
      fake_mex::char_array("image"),
  };
  for (mxArray* image : wrong) {
    SCOPED_TRACE(mxGetClassName(image));
    host_inputs in(valid_arrays());
    in.replace(0, image);
    expect_refused(in, 2, "splitmerge:imageClass");
  }
  host_inputs in(valid_arrays());
  in.replace(0, fake_mex::double_array(dims, std::vector<double>(4096, 1.0)));
  EXPECT_NE(call_gateway(in, 1).error_text.find("int32(img)"), std::string::npos);
}

TEST(GatewayErrors, ImageWithFourDimensions) {
  host_inputs in(valid_arrays());
  in.replace(0, fake_mex::int32_array({32, 32, 2, 2}, std::vector<std::int32_t>(4096, 5)));
  expect_refused(in, 2, "splitmerge:imageDims");
}

bool is_flag(std::size_t slot) { return slot == 4 || slot == 6 || slot == 14; }

TEST(GatewayErrors, ParameterThatIsNotARealNumericScalar) {
  for (std::size_t slot = 1; slot <= 14; ++slot) {
    SCOPED_TRACE(slot);
    std::vector<mxArray*> wrong{
        fake_mex::double_array({1, 2}, {3.0, 3.0}),
        fake_mex::double_array({0, 0}, {}),
        fake_mex::complex_scalar(3.0, 1.0),
        fake_mex::char_array("3"),
    };
    // Flags (group_mode, use_all_seeds, statistic_update) take logicals.
    if (!is_flag(slot)) wrong.push_back(fake_mex::logical_scalar(true));
    for (mxArray* value : wrong) {
      host_inputs in(valid_arrays());
      in.replace(slot, value);
      expect_refused(in, 2, "splitmerge:notScalar");
    }
  }
}

const char* const slot_names[] = {
    "image",    "max_level",     "lim_oct_level", "init_level",      "group_mode",
    "max_seed", "use_all_seeds", "pred_choice",   "interval_length", "rejection",
    "sigma",    "threshold_row", "pseudo_factor", "small_size",      "statistic_update"};

TEST(GatewayErrors, NonFiniteOrUnfitValuesAreBadParametersNamingTheInput) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  for (std::size_t slot = 1; slot <= 14; ++slot) {
    std::vector<double> wrong{std::nan(""), inf, -inf};
    const bool real = slot == 9 || slot == 10 || slot == 12;
    if (!real) wrong.insert(wrong.end(), {2147483648.0, -2147483649.0, 1e300});
    for (double v : wrong) {
      SCOPED_TRACE(std::to_string(slot) + " = " + std::to_string(v));
      host_inputs in(valid_arrays());
      in.replace(slot, fake_mex::scalar(v));
      const gateway_result r = expect_refused(in, 2, "splitmerge:badParameter");
      const std::string named =
          std::string(slot_names[slot]) + " (input " + std::to_string(slot + 1) + ")";
      EXPECT_EQ(r.error_text.rfind(named, 0), 0u) << r.error_text;
    }
  }
}

TEST(GatewayErrors, BadPixelIsNamedByItsOneBasedPosition) {
  image img = patchy_image({32, 32, 4});
  // Linear index 1000 (1-based) is row 8, column 32, slice 1.
  img.pixels[999] = 300;
  host_inputs in(img, host_parameters{});
  const gateway_result r = expect_refused(in, 1, "splitmerge:badParameter");
  EXPECT_EQ(r.error_text,
            "image pixel (8, 32, 1) (linear index 1000) is 300: pixels must lie in 0 to 255 "
            "(rescale the image)");
  image plane = patchy_image({16, 16});
  plane.pixels[16 * 3 + 4] = -1;  // row 5, column 4
  host_parameters p;
  p.max_level = 4;
  p.lim_oct_level = 4;
  host_inputs in_plane(plane, p);
  const gateway_result r2 = expect_refused(in_plane, 1, "splitmerge:badParameter");
  EXPECT_EQ(r2.error_text.rfind("image pixel (5, 4) (linear index 53) is -1:", 0), 0u)
      << r2.error_text;
}

// The library's own message, for the parameters the gateway should pass.
std::string library_message(const image& img, const splitmerge::parameters& p) {
  const image_view view{img.pixels.data(), static_cast<std::int32_t>(img.dims[0]),
                        static_cast<std::int32_t>(img.dims[1]),
                        img.dims.size() > 2 ? static_cast<std::int32_t>(img.dims[2]) : 1};
  return check_parameters(view, p);
}

void expect_bad_parameter(const image& img, const host_parameters& p) {
  host_inputs in(img, p);
  expect_refused(in, 2, "splitmerge:badParameter");
  const std::string expected = library_message(img, p.as_library_parameters());
  ASSERT_NE(expected, "");
  EXPECT_EQ(call_gateway(in, 2).error_text, expected);
}

TEST(GatewayErrors, ParametersTheLibraryRejectsCarryItsMessage) {
  const image img = patchy_image({32, 32, 4});
  const auto with = [](auto change) {
    host_parameters p;
    change(p);
    return p;
  };
  expect_bad_parameter(img, with([](host_parameters& p) { p.max_level = 9; }));
  expect_bad_parameter(img, with([](host_parameters& p) { p.max_level = 4; }));  // image too big
  expect_bad_parameter(img, with([](host_parameters& p) { p.lim_oct_level = 2; }));  // wrong Z
  expect_bad_parameter(img, with([](host_parameters& p) { p.init_level = 5; }));
  expect_bad_parameter(img, with([](host_parameters& p) { p.pred_choice = 6; }));
  expect_bad_parameter(img, with([](host_parameters& p) {
                         p.pred_choice = 4;
                         p.threshold_row = 0;
                       }));
  expect_bad_parameter(img, with([](host_parameters& p) { p.max_seed = 0; }));
  expect_bad_parameter(img, with([](host_parameters& p) { p.rejection = 3e7; }));
  // Truncation that fits int32 is the library's to judge.
  expect_bad_parameter(img, with([](host_parameters& p) { p.max_level = 2147483647.9; }));
  expect_bad_parameter(img, with([](host_parameters& p) { p.max_level = -2147483648.9; }));
}

TEST(GatewayErrors, ImageThatTheLibraryRejects) {
  image rectangular = patchy_image({32, 16, 4});
  expect_bad_parameter(rectangular, host_parameters{});
}

// Nothing is handed back and nothing stays alive when the call fails midway.
void expect_failed_cleanly(const gateway_result& r, const std::string& id) {
  EXPECT_EQ(r.error_id, id) << r.error_text;
  EXPECT_FALSE(r.labels_written);
  EXPECT_FALSE(r.frames_written);
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayErrors, EveryFailedFrameStoreRequestLeavesNothingBehind) {
  const image img = patchy_image({32, 32, 4});
  host_inputs in(img, host_parameters{});
  const gateway_result clean = call_gateway(in, 2);
  ASSERT_EQ(clean.error_id, "") << clean.error_text;
  ASSERT_GE(clean.frame_requests, 2u);
  for (std::uint64_t k = 1; k <= clean.frame_requests; ++k) {
    SCOPED_TRACE(k);
    gateway::call_settings settings;
    settings.fail_frame_request = k;
    expect_failed_cleanly(call_gateway(in, 2, settings), "splitmerge:outOfMemory");
  }
}

TEST(GatewayErrors, InterruptAtAnyPollEndsTheCallWithNothingLeft) {
  const image img = patchy_image({32, 32, 4});
  host_inputs in(img, host_parameters{});
  const gateway_result clean = call_gateway(in, 2);
  ASSERT_EQ(clean.error_id, "") << clean.error_text;
  ASSERT_GE(clean.interrupt_polls, 3);
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
  const image img = patchy_image({32, 32, 4});
  host_inputs in(img, host_parameters{});
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

TEST(GatewayErrors, HostArrayThatCannotBeCreated) {
  const image img = patchy_image({32, 32, 4});
  for (int k : {1, 2}) {  // the labels, then the frames
    SCOPED_TRACE(k);
    host_inputs in(img, host_parameters{});
    fake_mex::fail_create_at(k);
    const gateway_result r = call_gateway(in, 2);
    fake_mex::fail_create_at(0);
    expect_failed_cleanly(r, "splitmerge:outOfMemory");
  }
}

}  // namespace
}  // namespace splitmerge::gateway_testing
