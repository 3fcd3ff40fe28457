#include "gateway_harness.hpp"

#include <algorithm>
#include <functional>
#include <string>

#include "gateway/gateway.hpp"

namespace splitmerge::gateway_testing {

std::array<double, 14> host_parameters::in_host_order() const {
  std::array<double, 14> values{};
  for (std::size_t k = 0; k < values.size(); ++k) values[k] = this->*host_members[k];
  return values;
}

splitmerge::parameters host_parameters::as_library_parameters() const {
  const auto whole = [](double v) { return static_cast<std::int32_t>(v); };
  splitmerge::parameters a;
  a.max_level = whole(max_level);
  a.lim_oct_level = whole(lim_oct_level);
  a.init_level = whole(init_level);
  a.group_mode = whole(group_mode);
  a.max_seed = whole(max_seed);
  a.use_all_seeds = whole(use_all_seeds);
  a.pred_choice = whole(pred_choice);
  a.interval_length = whole(interval_length);
  a.threshold_row = whole(threshold_row);
  a.small_size = whole(small_size);
  a.statistic_update = whole(statistic_update);
  a.rejection = rejection;
  a.sigma = sigma;
  a.pseudo_factor = pseudo_factor;
  return a;
}

image patchy_image(const std::vector<mwSize>& dims, std::uint32_t seed) {
  image img{dims, {}};
  std::size_t n = 1;
  for (mwSize d : dims) n *= static_cast<std::size_t>(d);
  const auto x_size = static_cast<std::size_t>(dims[0]);
  const auto y_size = static_cast<std::size_t>(dims[1]);
  img.pixels.resize(n);
  std::uint32_t state = seed;
  for (std::size_t i = 0; i < n; ++i) {
    state = state * 1664525u + 1013904223u;
    const std::size_t x = i % x_size;
    const std::size_t y = (i / x_size) % y_size;
    const std::size_t z = i / (x_size * y_size);
    const auto patch = static_cast<std::int32_t>((x / 4 + 3 * (y / 8) + 5 * z) % 7);
    img.pixels[i] = 20 + 30 * patch + static_cast<std::int32_t>(state >> 29);
  }
  return img;
}

host_inputs::host_inputs(const image& img, const std::array<double, 14>& values) {
  arrays_.push_back(fake_mex::int32_array(img.dims, img.pixels));
  for (double v : values) arrays_.push_back(fake_mex::scalar(v));
}

host_inputs::~host_inputs() {
  for (mxArray* a : arrays_) mxDestroyArray(a);
}

void host_inputs::replace(std::size_t index, mxArray* a) {
  mxDestroyArray(arrays_.at(index));
  arrays_[index] = a;
}

namespace {

gateway_result call_with(int nlhs, const std::function<void(mxArray**)>& call) {
  gateway_result r;
  fake_mex::reset();
  const std::int64_t arrays_before = fake_mex::live_arrays();
  std::array<mxArray*, 4> plhs{};
  try {
    call(plhs.data());
  } catch (const fake_mex::host_error& e) {
    r.error_id = e.id;
    r.error_text = e.what();
  }
  r.host_arrays_created = fake_mex::arrays_created();
  r.interrupt_polls = fake_mex::interrupt_polls();
  r.printed = fake_mex::printed();
  r.warnings = fake_mex::warnings();
  // Empty dimensions: the output was not written.
  if (plhs[0] != nullptr) r.label_dims = fake_mex::dimensions(plhs[0]);
  if (plhs[0] != nullptr) r.labels = fake_mex::int32_values(plhs[0]);
  if (plhs[1] != nullptr) r.frame_dims = fake_mex::dimensions(plhs[1]);
  if (plhs[1] != nullptr) r.frames = fake_mex::int32_values(plhs[1]);
  if (plhs[2] != nullptr) {
    const std::size_t count = mxGetNumberOfElements(plhs[2]);
    for (std::size_t k = 0; k < count; ++k) {
      const auto index = static_cast<mwIndex>(k);
      splitmerge::region_record region;
      const auto stats = fake_mex::integer_values(mxGetField(plhs[2], index, "statistics"));
      region.statistics[0] = stats.at(0);
      region.statistics[1] = stats.at(1);
      for (std::int64_t c : fake_mex::integer_values(mxGetField(plhs[2], index, "codes")))
        region.codes.push_back(static_cast<std::uint64_t>(c));
      for (std::int64_t n : fake_mex::integer_values(mxGetField(plhs[2], index, "neighbours")))
        region.neighbours.push_back(static_cast<std::int32_t>(n));
      r.regions.push_back(std::move(region));
    }
  }
  // The host provides max(nlhs, 1) slots; the others must stay untouched.
  for (std::size_t k = static_cast<std::size_t>(std::max(nlhs, 1)); k < plhs.size(); ++k)
    if (plhs[k] != nullptr) r.wrote_extra_slot = true;
  for (mxArray* a : plhs) mxDestroyArray(a);
  r.host_arrays_left = fake_mex::live_arrays() - arrays_before;
  return r;
}

}  // namespace

gateway_result call_gateway(host_inputs& in, int nlhs, gateway::call_settings settings) {
  gateway_result r = call_with(nlhs, [&](mxArray** plhs) {
    gateway::run_gateway(nlhs, plhs, in.count(), in.data(), settings);
  });
  r.frame_requests = settings.frame_requests;
  return r;
}

gateway_result call_mex_function(host_inputs& in, int nlhs) {
  return call_with(nlhs, [&](mxArray** plhs) { mexFunction(nlhs, plhs, in.count(), in.data()); });
}

library_result run_library(const image& img, const splitmerge::parameters& p, bool display) {
  library_result r;
  const auto size = [&img](std::size_t d) {
    return d < img.dims.size() ? static_cast<std::int32_t>(img.dims[d]) : 1;
  };
  const image_view view{img.pixels.data(), size(0), size(1), size(2)};
  options opts;
  opts.display = display;
  opts.line_sink = [&r](std::string_view s) { r.printed.append(s); };
  opts.collect_regions = true;
  segmentation s = segment(view, p, opts);
  r.regions = std::move(s.regions);
  r.status = s.status;
  r.labels = std::move(s.labels);
  r.frames = std::move(s.frames);
  r.frame_count = s.frame_count;
  return r;
}

}  // namespace splitmerge::gateway_testing
