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
void expect_refused(host_inputs& in, int nlhs, const std::string& id) {
  run_context ctx;
  const gateway_result r = call_gateway(in, nlhs, &ctx);
  EXPECT_EQ(r.error_id, id) << r.error_text;
  EXPECT_FALSE(r.labels_written);
  EXPECT_FALSE(r.frames_written);
  EXPECT_FALSE(r.wrote_extra_slot);
  EXPECT_EQ(r.host_arrays_created, 0);
  EXPECT_EQ(r.library_requests, 0u);
  EXPECT_EQ(r.printed, "");
}

std::vector<mxArray*> valid_arrays() {
  std::vector<mxArray*> arrays;
  const image img = patchy_image({32, 32, 4});
  arrays.push_back(fake_mex::int32_array(img.dims, img.pixels));
  for (double v : parameters{}.in_host_order()) arrays.push_back(fake_mex::scalar(v));
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

TEST(GatewayErrors, MoreThanTwoOutputs) {
  host_inputs in(valid_arrays());
  expect_refused(in, 3, "splitmerge:nargout");
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

TEST(GatewayErrors, ParameterThatIsNotARealNumericScalar) {
  for (std::size_t slot = 1; slot <= 14; ++slot) {
    SCOPED_TRACE(slot);
    std::vector<mxArray*> wrong{
        fake_mex::double_array({1, 2}, {3.0, 3.0}),
        fake_mex::double_array({0, 0}, {}),
        fake_mex::complex_scalar(3.0, 1.0),
        fake_mex::char_array("3"),
        fake_mex::logical_scalar(true),
    };
    for (mxArray* value : wrong) {
      host_inputs in(valid_arrays());
      in.replace(slot, value);
      expect_refused(in, 2, "splitmerge:notScalar");
    }
  }
}

TEST(GatewayErrors, IntegerParameterThatIsNaNOrDoesNotFitInt32) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  const std::vector<double> unfit{std::nan(""), inf, -inf, 2147483648.0, -2147483649.0, 1e300};
  for (std::size_t slot : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 11u, 13u, 14u}) {
    for (double v : unfit) {
      SCOPED_TRACE(std::to_string(slot) + " = " + std::to_string(v));
      host_inputs in(valid_arrays());
      in.replace(slot, fake_mex::scalar(v));
      expect_refused(in, 2, "splitmerge:notScalar");
    }
  }
}

// The library's own message, for the arguments the gateway should pass.
std::string library_message(const image& img, const run_arguments& given) {
  run_arguments a = given;
  a.image = img.pixels.data();
  a.size_x = static_cast<std::int32_t>(img.dims[0]);
  a.size_y = static_cast<std::int32_t>(img.dims[1]);
  a.size_z = img.dims.size() > 2 ? static_cast<std::int32_t>(img.dims[2]) : 1;
  return validate_parameters(a);
}

void expect_bad_parameter(const image& img, const parameters& p) {
  host_inputs in(img, p);
  expect_refused(in, 2, "splitmerge:badParameter");
  const std::string expected = library_message(img, p.as_library_arguments());
  ASSERT_NE(expected, "");
  EXPECT_EQ(call_gateway(in, 2).error_text, expected);
}

TEST(GatewayErrors, ParametersTheLibraryRejectsCarryItsMessage) {
  const image img = patchy_image({32, 32, 4});
  const auto with = [](auto change) {
    parameters p;
    change(p);
    return p;
  };
  expect_bad_parameter(img, with([](parameters& p) { p.max_level = 9; }));
  expect_bad_parameter(img, with([](parameters& p) { p.max_level = 4; }));      // image too big
  expect_bad_parameter(img, with([](parameters& p) { p.lim_oct_level = 2; }));  // wrong Z
  expect_bad_parameter(img, with([](parameters& p) { p.init_level = 5; }));
  expect_bad_parameter(img, with([](parameters& p) { p.pred_choice = 6; }));
  expect_bad_parameter(img, with([](parameters& p) {
                         p.pred_choice = 4;
                         p.threshold_row = 0;
                       }));
  expect_bad_parameter(img, with([](parameters& p) { p.max_seed = 0; }));
  expect_bad_parameter(img, with([](parameters& p) { p.sigma = std::nan(""); }));
  expect_bad_parameter(img, with([](parameters& p) { p.rejection = INFINITY; }));
  expect_bad_parameter(img, with([](parameters& p) { p.pseudo_factor = -INFINITY; }));
  // Truncation that fits int32 is the library's to judge.
  expect_bad_parameter(img, with([](parameters& p) { p.max_level = 2147483647.9; }));
  expect_bad_parameter(img, with([](parameters& p) { p.max_level = -2147483648.9; }));
}

TEST(GatewayErrors, ImageThatTheLibraryRejects) {
  image rectangular = patchy_image({32, 16, 4});
  expect_bad_parameter(rectangular, parameters{});
  for (std::int32_t pixel : {256, -1}) {
    image img = patchy_image({32, 32, 4});
    img.pixels[1234] = pixel;
    expect_bad_parameter(img, parameters{});
  }
}

TEST(GatewayErrors, EveryFailedAllocationLeavesNothingBehind) {
  // A small run keeps the sweep short; its first run counts the requests.
  const image img = patchy_image({8, 8, 2});
  parameters p;
  p.max_level = 3;
  p.lim_oct_level = 2;
  host_inputs in(img, p);
  const gateway_result clean = call_gateway(in, 2);
  ASSERT_EQ(clean.error_id, "") << clean.error_text;
  ASSERT_GT(clean.library_requests, 10u);
  int failures = 0;
  for (std::uint64_t k = 1; k <= clean.library_requests; ++k) {
    SCOPED_TRACE(k);
    run_context ctx;
    ctx.allocator.fail_at(k);
    const gateway_result r = call_gateway(in, 2, &ctx);
    EXPECT_EQ(r.library_allocations_left, 0);
    EXPECT_EQ(r.host_arrays_left, 0);
    if (r.error_id.empty()) continue;
    ++failures;
    EXPECT_EQ(r.error_id, "splitmerge:outOfMemory") << r.error_text;
    EXPECT_FALSE(r.labels_written);
    EXPECT_FALSE(r.frames_written);
  }
  EXPECT_GT(failures, 0);
}

TEST(GatewayErrors, HostArrayThatCannotBeCreated) {
  const image img = patchy_image({32, 32, 4});
  for (int k : {1, 2}) {  // the labels, then the frames
    SCOPED_TRACE(k);
    host_inputs in(img, parameters{});
    fake_mex::fail_create_at(k);
    const gateway_result r = call_gateway(in, 2);
    fake_mex::fail_create_at(0);
    EXPECT_EQ(r.error_id, "splitmerge:outOfMemory");
    EXPECT_FALSE(r.labels_written);
    EXPECT_FALSE(r.frames_written);
    EXPECT_EQ(r.host_arrays_left, 0);
    EXPECT_EQ(r.library_allocations_left, 0);
  }
}

}  // namespace
}  // namespace splitmerge::gateway_testing
