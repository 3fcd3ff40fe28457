// How the host's inputs become the library's arguments: integers truncated
// toward zero, reals unchanged, any numeric class read by value, flags as
// logicals.
#include <gtest/gtest.h>

#include "gateway/gateway.hpp"
#include "gateway_harness.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::gateway_testing {
namespace {

// The library's parameters as text, in its order.
std::string texts(const parameters& p) {
  std::string out;
  for (const auto name : frontend::parameter_names())
    out += frontend::parameter_text(p, name) + " ";
  return out;
}

struct argument_row {
  std::size_t slot;  // 1 is max_level
  double value;
  mxClassID class_id;
  double read_as;
};

// Each row changes one input of the default call.
constexpr argument_row rows[] = {
    {1, 5.9, mxDOUBLE_CLASS, 5},       {2, 3.2, mxDOUBLE_CLASS, 3},
    {3, 1.9, mxDOUBLE_CLASS, 1},       {4, -0.5, mxDOUBLE_CLASS, 0},
    {5, 9.99, mxDOUBLE_CLASS, 9},      {6, 0.7, mxDOUBLE_CLASS, 0},
    {7, 5.5, mxDOUBLE_CLASS, 5},       {8, 30.7, mxDOUBLE_CLASS, 30},
    {9, 0.256, mxDOUBLE_CLASS, 0.256}, {10, 2.5, mxDOUBLE_CLASS, 2.5},
    {11, 1.5, mxDOUBLE_CLASS, 1},      {12, 1.25, mxDOUBLE_CLASS, 1.25},
    {13, 2.9, mxDOUBLE_CLASS, 2},      {14, 1.1, mxDOUBLE_CLASS, 1},
    {13, -2.7, mxDOUBLE_CLASS, -2},    {14, -0.5, mxDOUBLE_CLASS, 0},
    {1, 5, mxINT8_CLASS, 5},           {2, 3, mxUINT16_CLASS, 3},
    {4, 1, mxINT64_CLASS, 1},          {5, 7, mxUINT8_CLASS, 7},
    {8, 30.75, mxSINGLE_CLASS, 30},    {9, 0.25, mxSINGLE_CLASS, 0.25},
    {10, 3, mxINT32_CLASS, 3},         {13, 4, mxUINT32_CLASS, 4},
    {4, 1, mxLOGICAL_CLASS, 1},        {6, 1, mxLOGICAL_CLASS, 1},
    {14, 0, mxLOGICAL_CLASS, 0},
};

TEST(GatewayArguments, EachInputIsReadAsTheLibraryTakesIt) {
  const image img = patchy_image({32, 32, 4});
  const host_parameters defaults;
  for (const argument_row& row : rows) {
    SCOPED_TRACE(std::string(slot_names[row.slot]) + " = " + std::to_string(row.value));
    host_inputs in(img, defaults);
    in.replace(row.slot, fake_mex::scalar(row.value, row.class_id));
    gateway::call c;
    gateway::report r;
    ASSERT_TRUE(gateway::read_call(2, in.count(), in.data(), c, r)) << r.id << ": " << r.message;
    host_parameters expected;
    expected.*host_members[row.slot - 1] = row.read_as;
    EXPECT_EQ(texts(c.params), texts(expected.as_library_parameters()));
    EXPECT_EQ(c.image.data, mxGetData(in.data()[0]));
  }
  host_parameters plane;
  plane.max_level = plane.lim_oct_level = 4;
  host_inputs in(patchy_image({16, 16}), plane);  // a 2-D image has one slice
  gateway::call c;
  gateway::report r;
  ASSERT_TRUE(gateway::read_call(1, in.count(), in.data(), c, r)) << r.message;
  EXPECT_EQ(std::vector<int>({c.image.size_x, c.image.size_y, c.image.size_z}),
            std::vector<int>({16, 16, 1}));
}

}  // namespace
}  // namespace splitmerge::gateway_testing
