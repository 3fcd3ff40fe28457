// What differs between MATLAB, Octave and the tests' fake host: how Ctrl-C
// reaches a running MEX function, and how an output avoids a copy on return.
#include <array>

#include "gateway/gateway.hpp"

#if defined(HAVE_OCTAVE)
#include <octave/quit.h>
#elif defined(MATLAB_MEX_FILE)
// MATLAB's interrupt flag (libut); build_splitmerge links it.
extern "C" bool utIsInterruptPending(void);
extern "C" bool utSetInterruptPending(bool);
#endif

namespace splitmerge::gateway {

bool host_interrupt_pending() noexcept {
#if defined(HAVE_OCTAVE)
  // Octave's handler only raises this flag; the interpreter acts on it at its
  // next check. The call ends with its own error instead, so it is cleared.
  if (octave_signal_caught == 0) return false;
  octave_signal_caught = 0;
  return true;
#elif defined(MATLAB_MEX_FILE)
  if (!utIsInterruptPending()) return false;
  utSetInterruptPending(false);
  return true;
#elif defined(FAKE_MEX_HOST)
  return fakeIsInterruptPending();
#else
  return false;
#endif
}

mxArray* create_int32_output(mwSize ndims, const mwSize* dims) {
#if defined(HAVE_OCTAVE)
  // Octave copies an array made by mxCreateNumericArray when it becomes an
  // output; one made by the interpreter is handed over as it is.
  mxArray* size = mxCreateDoubleMatrix(1, ndims, mxREAL);
  double* d = mxGetPr(size);
  for (mwSize k = 0; k < ndims; ++k) d[k] = static_cast<double>(dims[k]);
  std::array<mxArray*, 2> in{size, mxCreateString("int32")};
  std::array<mxArray*, 1> out{nullptr};
  const int failed = mexCallMATLAB(1, out.data(), 2, in.data(), "zeros");
  mxDestroyArray(in[0]);
  mxDestroyArray(in[1]);
  if (failed != 0 || out[0] == nullptr || mxGetData(out[0]) == nullptr) {
    if (out[0] != nullptr) mxDestroyArray(out[0]);
    return nullptr;
  }
  return out[0];
#else
  return mxCreateNumericArray(ndims, dims, mxINT32_CLASS, mxREAL);
#endif
}

}  // namespace splitmerge::gateway
