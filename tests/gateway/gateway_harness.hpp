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

// The 14 parameters as the host passes them, in the host's order. The
// defaults give a 32 x 32 x 4 run that records several frames.
struct host_parameters {
  double max_level = 5;
  double lim_oct_level = 3;
  double init_level = 0;
  double group_mode = 1;
  double max_seed = 9;
  double use_all_seeds = 0;
  double pred_choice = 5;
  double interval_length = 30;
  double rejection = 0.0;
  double sigma = 2.0;
  double threshold_row = 1;
  double pseudo_factor = 1.0;
  double small_size = 0;
  double statistic_update = 1;

  [[nodiscard]] std::array<double, 14> in_host_order() const;
  // The library's parameters when every value is already what the gateway
  // should pass (whole numbers where the library takes integers).
  [[nodiscard]] splitmerge::parameters as_library_parameters() const;
};

// Each parameter by its position among the inputs less one.
inline constexpr double host_parameters::*host_members[14] = {
    &host_parameters::max_level,     &host_parameters::lim_oct_level,
    &host_parameters::init_level,    &host_parameters::group_mode,
    &host_parameters::max_seed,      &host_parameters::use_all_seeds,
    &host_parameters::pred_choice,   &host_parameters::interval_length,
    &host_parameters::rejection,     &host_parameters::sigma,
    &host_parameters::threshold_row, &host_parameters::pseudo_factor,
    &host_parameters::small_size,    &host_parameters::statistic_update};

// Pixels in host order (x fastest), dims as the host states them.
struct image {
  std::vector<mwSize> dims;
  std::vector<std::int32_t> pixels;
};

// Flat patches with deterministic noise: many blocks to merge and group.
image patchy_image(const std::vector<mwSize>& dims, std::uint32_t seed = 1);

// The names of the inputs, in the host's order.
inline constexpr const char* slot_names[15] = {
    "image",    "max_level",     "lim_oct_level", "init_level",      "group_mode",
    "max_seed", "use_all_seeds", "pred_choice",   "interval_length", "rejection",
    "sigma",    "threshold_row", "pseudo_factor", "small_size",      "statistic_update"};

// The inputs of one call; they belong to the test and die with it.
class host_inputs {
 public:
  host_inputs(const image& img, const host_parameters& p) : host_inputs(img, p.in_host_order()) {}
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
// The same through mexFunction, which makes its own context.
gateway_result call_mex_function(host_inputs& in, int nlhs);

struct library_result {
  std::int32_t status = 0;
  std::vector<std::int32_t> labels;
  std::vector<std::int32_t> frames;  // every frame, in list order
  std::int32_t frame_count = 0;
  std::string printed;
  std::vector<splitmerge::region_record> regions;
};

// What the gateway should do: no region list file, frames when display is on.
library_result run_library(const image& img, const splitmerge::parameters& p, bool display = true);

}  // namespace splitmerge::gateway_testing
