// Calling the gateway as a host would, and the library directly for the
// results the gateway must hand back unchanged.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "gateway/gateway.hpp"
#include "mex.h"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge::gateway_testing {

// The 14 parameters in the host's order: a 32 x 32 x 4 run that records
// several frames.
inline constexpr std::array<double, 14> default_values{5, 3, 0, 1, 9, 0, 5, 30, 0, 2, 1, 1, 0, 1};

// The names of the inputs, in the host's order.
inline constexpr const char* slot_names[15] = {
    "image",    "max_level",     "lim_oct_level", "init_level",      "group_mode",
    "max_seed", "use_all_seeds", "pred_choice",   "interval_length", "rejection",
    "sigma",    "threshold_row", "pseudo_factor", "small_size",      "statistic_update"};

// Pixels in host order (x fastest), dims as the host states them.
struct image {
  std::vector<mwSize> dims;
  std::vector<std::int32_t> pixels;
};

// Flat patches with deterministic noise: many blocks to merge and group.
image patchy_image(const std::vector<mwSize>& dims);

// The inputs of one call; they belong to the test and die with it.
class host_inputs {
 public:
  host_inputs(const image& img, const std::array<double, 14>& values);
  explicit host_inputs(std::vector<mxArray*> arrays) : arrays_(std::move(arrays)) {}
  host_inputs(const host_inputs&) = delete;
  host_inputs& operator=(const host_inputs&) = delete;
  ~host_inputs();

  // Puts a at position index (0 is the image), destroying what was there.
  void replace(std::size_t index, mxArray* a);
  [[nodiscard]] const mxArray** data() { return const_cast<const mxArray**>(arrays_.data()); }
  [[nodiscard]] int count() const { return static_cast<int>(arrays_.size()); }

 private:
  std::vector<mxArray*> arrays_;
};

struct gateway_result {
  std::string error_id;  // empty when the call succeeded
  std::string error_text;
  bool wrote_extra_slot = false;  // beyond the max(nlhs, 1) slots the host provides
  std::vector<mwSize> label_dims;
  std::vector<mwSize> frame_dims;
  std::vector<std::int32_t> labels;
  std::vector<std::int32_t> frames;
  std::vector<splitmerge::region_record> regions;
  std::string printed;
  std::vector<fake_mex::host_warning> warnings;
  std::int64_t host_arrays_left = 0;  // created by the call and owned by no one
  std::int64_t host_arrays_created = 0;
  std::uint64_t frame_requests = 0;  // allocations of the gateway's frame store
  std::int64_t interrupt_polls = 0;
};

// One call with nlhs outputs; settings lets a test set the frame budget or a
// failing frame store request.
gateway_result call_gateway(host_inputs& in, int nlhs,
                            gateway::call_settings settings = gateway::call_settings{});

// What the gateway should do with the call it read: no region list file,
// frames when display is on.
segmentation run_library(host_inputs& in, bool display, std::string& printed);

}  // namespace splitmerge::gateway_testing
