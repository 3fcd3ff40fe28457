// The reference cases that record frames, run through the gateway: labels,
// frames and printed lines must equal the expected files exactly.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gateway_harness.hpp"
#include "support/conformance_case.hpp"

namespace splitmerge::gateway_testing {
namespace {

host_parameters from_case(const testing::reference_case& c) {
  host_parameters p;
  p.max_level = c.params.at("max_level");
  p.lim_oct_level = c.params.at("lim_oct_level");
  p.init_level = c.params.at("init_level");
  p.group_mode = c.params.at("group_mode");
  p.max_seed = c.params.at("max_seed");
  p.use_all_seeds = c.params.at("use_all_seeds");
  p.pred_choice = c.params.at("pred_choice");
  p.interval_length = c.params.at("interval_length");
  p.rejection = c.params.at("rejection");
  p.sigma = c.params.at("sigma");
  p.threshold_row = c.params.at("threshold_row");
  p.pseudo_factor = c.params.at("pseudo_factor");
  p.small_size = c.params.at("small_size");
  p.statistic_update = c.params.at("statistic_update");
  return p;
}

// The gateway never writes a region list file, so where a case saved one the
// run prints the line that says so instead.
std::string without_region_file(std::string text) {
  const std::string saved = "file = regions.txt \nfinished save_regionlist \n";
  if (const auto at = text.find(saved); at != std::string::npos)
    text.replace(at, saved.size(), "No save_regionlist specified\n");
  return text;
}

TEST(GatewayReference, EveryCaseWithFramesMatchesExactly) {
  int checked = 0;
  for (const auto& dir : testing::conformance_cases()) {
    const testing::reference_case c = testing::load_case(dir);
    if (!c.display || !c.frames || c.status != 0) continue;
    SCOPED_TRACE(c.name);
    // C order (Z, Y, X) is the host's column-major X x Y x Z.
    image img{{static_cast<mwSize>(c.size_x), static_cast<mwSize>(c.size_y)}, c.image};
    if (c.shape.size() == 3) img.dims.push_back(static_cast<mwSize>(c.size_z));
    std::vector<mwSize> frame_dims = img.dims;
    frame_dims.push_back(static_cast<mwSize>(c.frame_count));

    host_inputs in(img, from_case(c));
    // One thread, and every core (what mexFunction uses).
    for (const std::int32_t threads : {1, 0}) {
      SCOPED_TRACE(threads == 1 ? "one thread" : "every core");
      gateway::call_settings settings;
      settings.threads = threads;
      const gateway_result r = call_gateway(in, 2, settings);
      ASSERT_EQ(r.error_id, "") << r.error_text;
      EXPECT_EQ(r.label_dims, img.dims);
      EXPECT_EQ(r.labels, c.labels);
      EXPECT_EQ(r.frame_dims, frame_dims);
      EXPECT_EQ(r.frames, *c.frames);
      EXPECT_EQ(r.printed, without_region_file(c.stdout_text));
      EXPECT_EQ(r.host_arrays_left, 0);
      // One output records nothing, and prints and labels the same.
      const gateway_result labels_only = call_gateway(in, 1, settings);
      ASSERT_EQ(labels_only.error_id, "") << labels_only.error_text;
      EXPECT_EQ(labels_only.labels, c.labels);
      EXPECT_EQ(labels_only.printed, r.printed);
      EXPECT_EQ(labels_only.frame_requests, 0u);
    }
    ++checked;
  }
  if (checked == 0) FAIL() << "no reference cases at " << testing::conformance_root();
}

}  // namespace
}  // namespace splitmerge::gateway_testing
