// A stand-in for the host's MEX interface: the gateway source compiles against
// this header in the unit tests, so its argument checks, output shapes and
// frame copying run under ctest without MATLAB or Octave.
#pragma once

// Lets the gateway pick the fake host's interrupt flag.
#define FAKE_MEX_HOST 1

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// Octave's mwSize is signed, MATLAB's unsigned; the tests build both ways.
#if defined(FAKE_MEX_UNSIGNED_MWSIZE)
using mwSize = std::size_t;
using mwIndex = std::size_t;
#else
using mwSize = std::int64_t;
using mwIndex = std::int64_t;
#endif

struct mxArray;

// The classes the gateway and its tests use, numeric ones last.
enum mxClassID {
  mxSTRUCT_CLASS,
  mxLOGICAL_CLASS,
  mxCHAR_CLASS,
  mxDOUBLE_CLASS,
  mxSINGLE_CLASS,
  mxINT32_CLASS,
  mxUINT32_CLASS,
  mxINT64_CLASS,
  mxUINT64_CLASS
};

enum mxComplexity { mxREAL, mxCOMPLEX };

extern "C" {
void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

// Like the real hosts, these three format their text printf-style.
void mexErrMsgIdAndTxt(const char* id, const char* format, ...);
void mexWarnMsgIdAndTxt(const char* id, const char* format, ...);
int mexPrintf(const char* format, ...);

mwSize mxGetNumberOfDimensions(const mxArray* a);
const mwSize* mxGetDimensions(const mxArray* a);
std::size_t mxGetNumberOfElements(const mxArray* a);
const char* mxGetClassName(const mxArray* a);
bool mxIsInt32(const mxArray* a);
bool mxIsLogical(const mxArray* a);
bool mxIsNumeric(const mxArray* a);
bool mxIsComplex(const mxArray* a);
double mxGetScalar(const mxArray* a);
void* mxGetData(const mxArray* a);
mxArray* mxCreateNumericArray(mwSize ndim, const mwSize* dims, mxClassID class_id,
                              mxComplexity complexity);
mxArray* mxCreateNumericMatrix(mwSize m, mwSize n, mxClassID class_id, mxComplexity complexity);
mxArray* mxCreateStructMatrix(mwSize m, mwSize n, int nfields, const char** fieldnames);
// Takes ownership of value; a struct destroys its fields with it.
void mxSetField(mxArray* a, mwIndex index, const char* name, mxArray* value);
mxArray* mxGetField(const mxArray* a, mwIndex index, const char* name);
void mxDestroyArray(mxArray* a);

// The fake host's Ctrl-C: true on the poll that fake_mex::interrupt_at_poll
// chose.
bool fakeIsInterruptPending(void);
}

// What the tests use to build inputs, read outputs and watch the host.
namespace fake_mex {

// What mexErrMsgIdAndTxt throws: the real hosts leave the gateway at once too.
struct host_error : std::runtime_error {
  host_error(std::string identifier, const std::string& text)
      : std::runtime_error(text), id(std::move(identifier)) {}
  std::string id;
};

struct host_warning {
  std::string id;
  std::string text;
};

// Clears the printed text, the warnings and the creation count.
void reset();
// Everything mexPrintf printed since the last reset.
const std::string& printed();
const std::vector<host_warning>& warnings();
// Arrays created and not yet destroyed.
std::int64_t live_arrays();
// Arrays created since the last reset.
std::int64_t arrays_created();
// Makes the k-th mxCreateNumericArray from now on fail once, the way Octave's
// does (std::bad_alloc); 0 disarms the hook.
void fail_create_at(int k);
// Makes the k-th interrupt poll from now on report Ctrl-C once; 0 disarms.
void interrupt_at_poll(std::int64_t k);
// Interrupt polls since the last reset.
std::int64_t interrupt_polls();

mxArray* int32_array(const std::vector<mwSize>& dims, const std::vector<std::int32_t>& values);
mxArray* scalar(double value, mxClassID class_id = mxDOUBLE_CLASS);

std::vector<mwSize> dimensions(const mxArray* a);
std::vector<std::int32_t> int32_values(const mxArray* a);
// Elements of a numeric array of any class, as 64-bit integers.
std::vector<std::int64_t> integer_values(const mxArray* a);

}  // namespace fake_mex
