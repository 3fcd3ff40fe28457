// The MEX gateway: checks the host's call, runs the library and hands labels
// and frames back as host arrays. Only standard MEX names and the library's
// public interface are used, so MATLAB's mex and Octave's mkoctfile --mex
// build the same source.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "mex.h"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge::gateway {

inline constexpr int input_count = 15;  // the image and 14 parameters
inline constexpr int max_outputs = 3;   // labels, frames, regions


// mwSize is signed in Octave and unsigned in MATLAB: every conversion between
// it and the library's sizes goes through these two.
template <class Size>
bool size_to_int32(Size size, std::int32_t& out) noexcept {
  if (!std::in_range<std::int32_t>(size)) return false;
  out = static_cast<std::int32_t>(size);
  return true;
}
inline mwSize to_mwsize(std::int32_t count) noexcept { return static_cast<mwSize>(count); }

// A failure or warning for the host, in fixed buffers: the host's error report
// leaves the gateway at once, so it is raised only after every object that
// owns memory is gone.
struct report {
  const char* id = nullptr;  // set once the call has failed
  char message[512] = {};
  char warning[512] = {};

  [[nodiscard]] bool failed() const noexcept { return id != nullptr; }
#if defined(__GNUC__)
  __attribute__((format(printf, 3, 4)))
#endif
  void
  fail(const char* identifier, const char* format, ...) noexcept;
#if defined(__GNUC__)
  __attribute__((format(printf, 2, 3)))
#endif
  void
  warn(const char* format, ...) noexcept;
};

// The checked call, in the library's terms.
struct call {
  image_view image;
  parameters params;
  mwSize ndims = 0;
  const mwSize* dims = nullptr;  // the image's, owned by the host
};

// Checks the whole call before anything is allocated; false when r has failed.
bool read_call(int nlhs, int nrhs, const mxArray* prhs[], call& c, report& r) noexcept;

// What the tests change and watch; mexFunction uses the defaults.
struct call_settings {
  // The largest stack of frames handed back, in bytes; later frames replace
  // the last one, so it still shows the final state.
  std::uint64_t frame_budget = default_frame_budget;
  std::uint64_t fail_frame_request = 0;  // makes this frame store request fail (from 1)
  std::uint64_t frame_requests = 0;      // out: the frame store's allocation requests
  std::uint64_t memory_limit = 0;        // bytes a run may take; 0: what is available
  std::int32_t threads = 0;              // threads of the run; 0: every core
};

// A host array that is destroyed unless it is handed to the host.
class owned_array {
 public:
  explicit owned_array(mxArray* a) : array_(a) {}
  owned_array(const owned_array&) = delete;
  owned_array& operator=(const owned_array&) = delete;
  ~owned_array() {
    if (array_ != nullptr) mxDestroyArray(array_);
  }
  [[nodiscard]] mxArray* get() const { return array_; }
  mxArray* release() { return std::exchange(array_, nullptr); }

 private:
  mxArray* array_;
};

// One struct per region, in label order (statistics, codes, neighbours).
// Codes are uint32 for images of up to 256 pixels along an edge, uint64 above.
mxArray* regions_output(const std::vector<region_record>& regions, bool wide_codes);

// The body of mexFunction.
void run_gateway(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[],
                 call_settings& settings);

// What differs between hosts (host.cpp).
// True once the user asked the host to stop the call (Ctrl-C).
bool host_interrupt_pending() noexcept;
// A zero-filled int32 array that becomes an output without being copied.
mxArray* create_int32_output(mwSize ndims, const mwSize* dims);

}  // namespace splitmerge::gateway
