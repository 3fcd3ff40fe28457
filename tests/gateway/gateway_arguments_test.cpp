// How the host's inputs become the library's arguments (integers truncated
// toward zero, reals unchanged, any numeric class read by value), and bad
// calls refused with their identifier before anything is allocated. The
// Octave module's test sends one row per identifier through the real host.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::gateway_testing {
namespace {

const image volume = patchy_image({32, 32, 4});

// The library's parameters as text, in its order.
std::string texts(const parameters& p) {
  std::string out;
  for (const auto name : frontend::parameter_names())
    out += frontend::parameter_text(p, name) + " ";
  return out;
}

parameters read_with(std::size_t slot, mxArray* value) {
  host_inputs in(volume, default_values);
  in.replace(slot, value);
  gateway::call c;
  gateway::report r;
  EXPECT_TRUE(gateway::read_call(2, in.count(), in.data(), c, r)) << r.id << ": " << r.message;
  return c.params;
}

// Each row changes one input (1 is max_level) and reads as that input set to
// the plain double read_as.
TEST(GatewayArguments, EachInputIsReadAsTheLibraryTakesIt) {
  const std::tuple<std::size_t, double, mxClassID, double> rows[] = {
      {1, 5.9, mxDOUBLE_CLASS, 5},      {13, -2.7, mxDOUBLE_CLASS, -2},
      {14, -0.5, mxDOUBLE_CLASS, 0},    {9, 0.256, mxDOUBLE_CLASS, 0.256},
      {12, 1.25, mxDOUBLE_CLASS, 1.25}, {9, 0.25, mxSINGLE_CLASS, 0.25},
      {13, 4, mxUINT32_CLASS, 4},       {10, 3, mxINT32_CLASS, 3}};
  for (const auto& [slot, value, class_id, read_as] : rows) {
    SCOPED_TRACE(std::string(slot_names[slot]) + " = " + std::to_string(value));
    EXPECT_EQ(texts(read_with(slot, fake_mex::scalar(value, class_id))),
              texts(read_with(slot, fake_mex::scalar(read_as))));
  }
}

// Refused before the run: no output, no host array, no library allocation,
// nothing printed.
std::string refused_text(host_inputs& in, int nlhs, const std::string& id) {
  const gateway_result r = call_gateway(in, nlhs);
  EXPECT_EQ(r.error_id, id) << r.error_text;
  EXPECT_TRUE(r.label_dims.empty() && r.frame_dims.empty() && !r.wrote_extra_slot);
  EXPECT_EQ(r.host_arrays_created, 0);
  EXPECT_EQ(r.frame_requests, 0u);
  EXPECT_EQ(r.printed, "");
  return r.error_text;
}

TEST(GatewayArguments, WrongCountsAndImagesAreRefused) {
  for (std::size_t count : {0u, 16u}) {
    std::vector<mxArray*> arrays(count);
    for (mxArray*& a : arrays) a = fake_mex::scalar(1);
    host_inputs in(std::move(arrays));
    refused_text(in, 1, "splitmerge:nargin");
  }
  host_inputs complex_image(volume, default_values);
  const mwSize dims[] = {32, 32, 4};
  complex_image.replace(0, mxCreateNumericArray(3, dims, mxINT32_CLASS, mxCOMPLEX));
  EXPECT_EQ(refused_text(complex_image, 2, "splitmerge:imageClass"),
            "image must be a real int32 array, not complex int32: use int32(img)");
  image plane = patchy_image({16, 16});
  plane.pixels[16 * 3 + 4] = -1;  // row 5, column 4
  host_inputs in_plane(plane, default_values);
  EXPECT_EQ(refused_text(in_plane, 1, "splitmerge:badParameter"),
            "image pixel (5, 4) (linear index 53) is -1: pixels must lie in 0 to 255 (rescale "
            "the image)");
}

// What no parameter takes: arrays that are not real numeric scalars, values
// that are not finite and, for integers, values beyond 32 bits. The message
// names the input.
TEST(GatewayArguments, EveryParameterRefusesWhatItCannotTake) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  for (std::size_t slot = 1; slot <= 14; ++slot) {
    std::vector<std::pair<mxArray*, std::string>> wrong{
        {mxCreateNumericMatrix(0, 0, mxDOUBLE_CLASS, mxREAL), "notScalar"},
        {mxCreateNumericMatrix(1, 1, mxDOUBLE_CLASS, mxCOMPLEX), "notScalar"},
        {fake_mex::scalar('3', mxCHAR_CLASS), "notScalar"}};
    // Flags (group_mode, use_all_seeds, statistic_update) take logicals.
    if (slot != 4 && slot != 6 && slot != 14)
      wrong.emplace_back(fake_mex::scalar(1, mxLOGICAL_CLASS), "notScalar");
    std::vector<double> values{std::nan(""), inf, -inf};
    if (slot != 9 && slot != 10 && slot != 12)  // integers
      values.insert(values.end(), {2147483648.0, -2147483649.0});
    for (double v : values) wrong.emplace_back(fake_mex::scalar(v), "badParameter");
    for (const auto& [value, id] : wrong) {
      SCOPED_TRACE(std::string(slot_names[slot]) + " " + id);
      host_inputs in(volume, default_values);
      in.replace(slot, value);
      const std::string named =
          std::string(slot_names[slot]) + " (input " + std::to_string(slot + 1) + ")";
      EXPECT_EQ(refused_text(in, 2, "splitmerge:" + id).rfind(named, 0), 0u);
    }
  }
}

// Truncation that fits int32 is the library's to judge, with its message.
TEST(GatewayArguments, WhatTheLibraryRejectsCarriesItsMessage) {
  parameters p = read_with(1, fake_mex::scalar(5));
  for (const double v : {2147483647.9, -2147483648.9}) {
    host_inputs in(volume, default_values);
    in.replace(1, fake_mex::scalar(v));
    p.max_level = static_cast<std::int32_t>(v);
    const std::string expected = check_parameters({volume.pixels.data(), 32, 32, 4}, p);
    ASSERT_NE(expected, "");
    EXPECT_EQ(refused_text(in, 2, "splitmerge:badParameter"), expected);
  }
}

}  // namespace
}  // namespace splitmerge::gateway_testing
