// The MEX gateway: checks the host's call, runs the library and hands labels
// and frames back as host arrays. Only standard MEX names are used, so MATLAB's
// mex and Octave's mkoctfile --mex build the same source.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "driver/driver.hpp"
#include "mex.h"

namespace splitmerge::gateway {

inline constexpr int input_count = 15;  // the image and 14 parameters
inline constexpr int max_outputs = 2;   // labels, frames

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
  // Keeps a library warning line, without its "splitmerge: " prefix and newline.
  void add_warning(std::string_view line) noexcept;
};

// The checked call, in the library's terms.
struct call {
  run_arguments args;
  mwSize ndims = 0;
  const mwSize* dims = nullptr;  // the image's, owned by the host
};

// Checks the whole call before anything is allocated; false when r has failed.
bool read_call(int nlhs, int nrhs, const mxArray* prhs[], call& c, report& r) noexcept;

// The body of mexFunction. Tests pass a run context of their own to watch its
// allocations; mexFunction passes nullptr and the run gets a fresh one.
void run_gateway(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[],
                 run_context* ctx_for_tests);

}  // namespace splitmerge::gateway
