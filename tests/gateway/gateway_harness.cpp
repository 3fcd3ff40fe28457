#include "gateway_harness.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "gateway/gateway.hpp"

namespace splitmerge::gateway_testing {

image patchy_image(const std::vector<mwSize>& dims) {
  image img{dims, {}};
  const auto x_size = static_cast<std::size_t>(dims[0]);
  const auto y_size = static_cast<std::size_t>(dims[1]);
  img.pixels.resize(x_size * y_size * (dims.size() > 2 ? static_cast<std::size_t>(dims[2]) : 1));
  std::uint32_t state = 1;
  for (std::size_t i = 0; i < img.pixels.size(); ++i) {
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

gateway_result call_gateway(host_inputs& in, int nlhs, gateway::call_settings settings) {
  gateway_result r;
  fake_mex::reset();
  const std::int64_t arrays_before = fake_mex::live_arrays();
  std::array<mxArray*, 4> plhs{};
  try {
    gateway::run_gateway(nlhs, plhs.data(), in.count(), in.data(), settings);
  } catch (const fake_mex::host_error& e) {
    r.error_id = e.id;
    r.error_text = e.what();
  }
  r.frame_requests = settings.frame_requests;
  r.host_arrays_created = fake_mex::arrays_created();
  r.interrupt_polls = fake_mex::interrupt_polls();
  r.printed = fake_mex::printed();
  r.warnings = fake_mex::warnings();
  // Empty dimensions: the output was not written.
  if (plhs[0] != nullptr) r.label_dims = fake_mex::dimensions(plhs[0]);
  if (plhs[0] != nullptr) r.labels = fake_mex::int32_values(plhs[0]);
  if (plhs[1] != nullptr) r.frame_dims = fake_mex::dimensions(plhs[1]);
  if (plhs[1] != nullptr) r.frames = fake_mex::int32_values(plhs[1]);
  for (std::size_t k = 0; plhs[2] != nullptr && k < mxGetNumberOfElements(plhs[2]); ++k) {
    const auto field = [&](const char* name) {
      return fake_mex::integer_values(mxGetField(plhs[2], static_cast<mwIndex>(k), name));
    };
    splitmerge::region_record& region = r.regions.emplace_back();
    std::copy_n(field("statistics").begin(), 2, region.statistics);
    for (std::int64_t c : field("codes")) region.codes.push_back(static_cast<std::uint64_t>(c));
    for (std::int64_t n : field("neighbours")) region.neighbours.push_back(static_cast<int>(n));
  }
  // The host provides max(nlhs, 1) slots; the others must stay untouched.
  for (std::size_t k = static_cast<std::size_t>(std::max(nlhs, 1)); k < plhs.size(); ++k)
    if (plhs[k] != nullptr) r.wrote_extra_slot = true;
  for (mxArray* a : plhs) mxDestroyArray(a);
  r.host_arrays_left = fake_mex::live_arrays() - arrays_before;
  return r;
}

segmentation run_library(host_inputs& in, bool display, std::string& printed) {
  gateway::call c;
  gateway::report r;
  if (!gateway::read_call(3, in.count(), in.data(), c, r)) throw std::runtime_error(r.message);
  options opts;
  opts.display = display;
  opts.line_sink = [&printed](std::string_view s) { printed.append(s); };
  opts.collect_regions = true;
  return segment(c.image, c.params, opts);
}

}  // namespace splitmerge::gateway_testing
