// How the host's inputs become the library's arguments: integers truncated
// toward zero, reals unchanged, any numeric class read by value.
#include <gtest/gtest.h>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"

namespace splitmerge::gateway_testing {
namespace {

host_parameters fractional_parameters() {
  host_parameters p;
  p.max_level = 5.9;
  p.lim_oct_level = 3.2;
  p.init_level = 1.9;
  p.group_mode = -0.5;
  p.max_seed = 9.99;
  p.use_all_seeds = 0.7;
  p.pred_choice = 5.5;
  p.interval_length = 30.7;
  p.rejection = 0.256;
  p.sigma = 2.5;
  p.threshold_row = 1.5;
  p.pseudo_factor = 1.25;
  p.small_size = 2.9;
  p.statistic_update = 1.1;
  return p;
}

TEST(GatewayArguments, IntegersAreTruncatedTowardZeroAndRealsPassUnchanged) {
  const image img = patchy_image({32, 32, 4});
  host_inputs in(img, fractional_parameters());
  gateway::call c;
  gateway::report r;
  ASSERT_TRUE(gateway::read_call(2, in.count(), in.data(), c, r)) << r.id << ": " << r.message;
  EXPECT_EQ(c.params.max_level, 5);
  EXPECT_EQ(c.params.lim_oct_level, 3);
  EXPECT_EQ(c.params.init_level, 1);
  EXPECT_EQ(c.params.group_mode, 0);
  EXPECT_EQ(c.params.max_seed, 9);
  EXPECT_EQ(c.params.use_all_seeds, 0);
  EXPECT_EQ(c.params.pred_choice, 5);
  EXPECT_EQ(c.params.interval_length, 30);
  EXPECT_EQ(c.params.threshold_row, 1);
  EXPECT_EQ(c.params.small_size, 2);
  EXPECT_EQ(c.params.statistic_update, 1);
  EXPECT_EQ(c.params.rejection, 0.256);
  EXPECT_EQ(c.params.sigma, 2.5);
  EXPECT_EQ(c.params.pseudo_factor, 1.25);
  EXPECT_EQ(c.image.size_x, 32);
  EXPECT_EQ(c.image.size_y, 32);
  EXPECT_EQ(c.image.size_z, 4);
  EXPECT_EQ(c.image.data, mxGetData(in.data()[0]));
  EXPECT_FALSE(r.failed());
}

TEST(GatewayArguments, NegativeFractionsTruncateTowardZero) {
  const image img = patchy_image({32, 32, 4});
  host_parameters p;
  p.small_size = -2.7;
  p.statistic_update = -0.5;
  host_inputs in(img, p);
  gateway::call c;
  gateway::report r;
  ASSERT_TRUE(gateway::read_call(1, in.count(), in.data(), c, r)) << r.message;
  EXPECT_EQ(c.params.small_size, -2);
  EXPECT_EQ(c.params.statistic_update, 0);
}

TEST(GatewayArguments, TwoDimensionalImageHasOneSlice) {
  const image img = patchy_image({16, 16});
  host_parameters p;
  p.max_level = 4;
  p.lim_oct_level = 4;
  host_inputs in(img, p);
  gateway::call c;
  gateway::report r;
  ASSERT_TRUE(gateway::read_call(2, in.count(), in.data(), c, r)) << r.message;
  EXPECT_EQ(c.image.size_x, 16);
  EXPECT_EQ(c.image.size_y, 16);
  EXPECT_EQ(c.image.size_z, 1);
}

TEST(GatewayArguments, AnyNumericClassIsReadByValue) {
  const image img = patchy_image({32, 32, 4});
  host_inputs in(img, host_parameters{});
  in.replace(1, fake_mex::scalar(5, mxINT8_CLASS));        // max_level
  in.replace(2, fake_mex::scalar(3, mxUINT16_CLASS));      // lim_oct_level
  in.replace(4, fake_mex::scalar(1, mxINT64_CLASS));       // group_mode
  in.replace(5, fake_mex::scalar(7, mxUINT8_CLASS));       // max_seed
  in.replace(8, fake_mex::scalar(30.75, mxSINGLE_CLASS));  // interval_length
  in.replace(9, fake_mex::scalar(0.25, mxSINGLE_CLASS));   // rejection
  in.replace(10, fake_mex::scalar(3, mxINT32_CLASS));      // sigma
  in.replace(13, fake_mex::scalar(4, mxUINT32_CLASS));     // small_size
  gateway::call c;
  gateway::report r;
  ASSERT_TRUE(gateway::read_call(2, in.count(), in.data(), c, r)) << r.message;
  EXPECT_EQ(c.params.max_level, 5);
  EXPECT_EQ(c.params.lim_oct_level, 3);
  EXPECT_EQ(c.params.group_mode, 1);
  EXPECT_EQ(c.params.max_seed, 7);
  EXPECT_EQ(c.params.interval_length, 30);
  EXPECT_EQ(c.params.rejection, 0.25);
  EXPECT_EQ(c.params.sigma, 3.0);
  EXPECT_EQ(c.params.small_size, 4);
}

TEST(GatewayArguments, TruncatedCallRunsExactlyAsTheWholeNumbers) {
  const image img = patchy_image({32, 32, 4}, 11);
  const host_parameters fractional = fractional_parameters();
  splitmerge::parameters whole =
      fractional.as_library_parameters();  // truncates, as the gateway must
  ASSERT_EQ(whole.group_mode, 0);
  ASSERT_EQ(whole.rejection, 0.256);
  const library_result expected = run_library(img, whole);
  ASSERT_EQ(expected.status, 0);

  host_inputs in(img, fractional);
  const gateway_result r = call_gateway(in, 2);
  ASSERT_EQ(r.error_id, "") << r.error_text;
  EXPECT_EQ(r.labels, expected.labels);
  EXPECT_EQ(r.frames, expected.frames);
  EXPECT_EQ(r.printed, expected.printed);
  EXPECT_EQ(r.host_arrays_left, 0);
}

TEST(GatewayArguments, FlagsTakeLogicalScalars) {
  const image img = patchy_image({32, 32, 4});
  host_inputs in(img, host_parameters{});
  in.replace(4, fake_mex::logical_scalar(true));    // group_mode
  in.replace(6, fake_mex::logical_scalar(true));    // use_all_seeds
  in.replace(14, fake_mex::logical_scalar(false));  // statistic_update
  gateway::call c;
  gateway::report r;
  ASSERT_TRUE(gateway::read_call(1, in.count(), in.data(), c, r)) << r.message;
  EXPECT_EQ(c.params.group_mode, 1);
  EXPECT_EQ(c.params.use_all_seeds, 1);
  EXPECT_EQ(c.params.statistic_update, 0);
}

}  // namespace
}  // namespace splitmerge::gateway_testing
