// The fake host behind mex.h: arrays are plain vectors, errors are exceptions
// and printed text is kept for the tests to compare.
#include "mex.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

struct mxArray {
  mxClassID class_id = mxDOUBLE_CLASS;
  bool complex = false;
  std::vector<mwSize> dims;
  std::vector<unsigned char> real;
  std::vector<std::string> field_names;  // structs: the fields of each element
  std::vector<mxArray*> fields;          // element-major, owned
};

namespace {

struct host_state {
  std::string printed;
  std::vector<fake_mex::host_warning> warnings;
  std::int64_t live = 0;
  std::int64_t created = 0;
  int creates_until_failure = 0;
  std::int64_t polls_until_interrupt = 0;
  std::int64_t polls = 0;
};

host_state& state() {
  static host_state s;
  return s;
}

std::string format_text(const char* format, std::va_list args) {
  std::va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

// Calls f with a value of the C++ type that holds one element of the class.
template <class F>
auto with_element_type(mxClassID c, F f) {
  switch (c) {
    case mxLOGICAL_CLASS:
      return f(std::uint8_t{});
    case mxCHAR_CLASS:
      return f(std::uint16_t{});
    case mxINT32_CLASS:
      return f(std::int32_t{});
    case mxUINT32_CLASS:
      return f(std::uint32_t{});
    case mxINT64_CLASS:
      return f(std::int64_t{});
    case mxUINT64_CLASS:
      return f(std::uint64_t{});
    case mxSINGLE_CLASS:
      return f(float{});
    default:
      return f(double{});
  }
}

std::size_t element_size(mxClassID c) {
  return with_element_type(c, [](auto v) { return sizeof v; });
}

// The host keeps at least two dimensions and drops trailing singletons.
std::vector<mwSize> host_dims(mwSize ndim, const mwSize* dims) {
  std::vector<mwSize> d(dims, dims + ndim);
  while (d.size() > 2 && d.back() == 1) d.pop_back();
  while (d.size() < 2) d.push_back(d.empty() ? 0 : 1);
  return d;
}

mxArray* new_array(const std::vector<mwSize>& dims, mxClassID c, bool complex) {
  auto* a = new mxArray;
  a->class_id = c;
  a->complex = complex;
  a->dims = host_dims(static_cast<mwSize>(dims.size()), dims.data());
  std::size_t n = 1;
  for (mwSize d : a->dims) n *= static_cast<std::size_t>(d);
  a->real.assign(n * element_size(c), 0);
  ++state().live;
  ++state().created;
  return a;
}

}  // namespace

extern "C" {

void mexErrMsgIdAndTxt(const char* id, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::string text = format_text(format, args);
  va_end(args);
  throw fake_mex::host_error(id, text);
}

void mexWarnMsgIdAndTxt(const char* id, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  state().warnings.push_back({id, format_text(format, args)});
  va_end(args);
}

int mexPrintf(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::string text = format_text(format, args);
  va_end(args);
  state().printed += text;
  return static_cast<int>(text.size());
}

mwSize mxGetNumberOfDimensions(const mxArray* a) { return static_cast<mwSize>(a->dims.size()); }
const mwSize* mxGetDimensions(const mxArray* a) { return a->dims.data(); }
std::size_t mxGetNumberOfElements(const mxArray* a) {
  return a->real.size() / element_size(a->class_id);
}

const char* mxGetClassName(const mxArray* a) {
  static const char* const names[] = {"struct", "logical", "char",  "double", "single",
                                      "int32",  "uint32",  "int64", "uint64"};
  return names[a->class_id];
}

bool mxIsInt32(const mxArray* a) { return a->class_id == mxINT32_CLASS; }
bool mxIsLogical(const mxArray* a) { return a->class_id == mxLOGICAL_CLASS; }
bool mxIsNumeric(const mxArray* a) {
  return a->class_id >= mxDOUBLE_CLASS && a->class_id <= mxUINT64_CLASS;
}
bool mxIsComplex(const mxArray* a) { return a->complex; }

double mxGetScalar(const mxArray* a) {
  if (a->real.empty()) return 0.0;
  return with_element_type(a->class_id, [a](auto v) {
    std::memcpy(&v, a->real.data(), sizeof v);
    return static_cast<double>(v);
  });
}

void* mxGetData(const mxArray* a) {
  return a->real.empty() ? nullptr : const_cast<unsigned char*>(a->real.data());
}

mxArray* mxCreateNumericArray(mwSize ndim, const mwSize* dims, mxClassID class_id,
                              mxComplexity complexity) {
  int& countdown = state().creates_until_failure;
  if (countdown > 0 && --countdown == 0) throw std::bad_alloc();
  return new_array(std::vector<mwSize>(dims, dims + ndim), class_id, complexity == mxCOMPLEX);
}

void mxDestroyArray(mxArray* a) {
  if (a == nullptr) return;
  for (mxArray* field : a->fields) mxDestroyArray(field);
  --state().live;
  delete a;
}

mxArray* mxCreateNumericMatrix(mwSize m, mwSize n, mxClassID class_id, mxComplexity complexity) {
  const mwSize dims[] = {m, n};
  return mxCreateNumericArray(2, dims, class_id, complexity);
}

mxArray* mxCreateStructMatrix(mwSize m, mwSize n, int nfields, const char** fieldnames) {
  mxArray* a = new_array({m, n}, mxSTRUCT_CLASS, false);
  a->field_names.assign(fieldnames, fieldnames + nfields);
  a->fields.assign(static_cast<std::size_t>(m * n) * a->field_names.size(), nullptr);
  return a;
}

namespace {
std::size_t field_slot(const mxArray* a, mwIndex index, const char* name) {
  for (std::size_t f = 0; f < a->field_names.size(); ++f)
    if (a->field_names[f] == name)
      return static_cast<std::size_t>(index) * a->field_names.size() + f;
  throw std::invalid_argument(std::string("no field ") + name);
}
}  // namespace

void mxSetField(mxArray* a, mwIndex index, const char* name, mxArray* value) {
  mxArray*& slot = a->fields.at(field_slot(a, index, name));
  mxDestroyArray(slot);
  slot = value;
}

mxArray* mxGetField(const mxArray* a, mwIndex index, const char* name) {
  return a->fields.at(field_slot(a, index, name));
}

bool fakeIsInterruptPending(void) {
  ++state().polls;
  std::int64_t& countdown = state().polls_until_interrupt;
  return countdown > 0 && --countdown == 0;
}

}  // extern "C"

namespace fake_mex {

void reset() {
  state().printed.clear();
  state().warnings.clear();
  state().created = 0;
  state().polls = 0;
}

const std::string& printed() { return state().printed; }
const std::vector<host_warning>& warnings() { return state().warnings; }
std::int64_t live_arrays() { return state().live; }
std::int64_t arrays_created() { return state().created; }
void fail_create_at(int k) { state().creates_until_failure = k; }
void interrupt_at_poll(std::int64_t k) { state().polls_until_interrupt = k; }
std::int64_t interrupt_polls() { return state().polls; }

mxArray* int32_array(const std::vector<mwSize>& dims, const std::vector<std::int32_t>& values) {
  mxArray* a = new_array(dims, mxINT32_CLASS, false);
  if (values.size() * sizeof values[0] != a->real.size())
    throw std::invalid_argument("the values do not match the dimensions");
  if (!a->real.empty()) std::memcpy(a->real.data(), values.data(), a->real.size());
  return a;
}

mxArray* scalar(double value, mxClassID class_id) {
  mxArray* a = new_array({1, 1}, class_id, false);
  with_element_type(class_id, [a, value](auto v) {
    v = static_cast<decltype(v)>(value);
    std::memcpy(a->real.data(), &v, sizeof v);
    return 0;
  });
  return a;
}

std::vector<mwSize> dimensions(const mxArray* a) { return a->dims; }

std::vector<std::int32_t> int32_values(const mxArray* a) {
  if (a->class_id != mxINT32_CLASS) throw std::invalid_argument("int32_values: not int32");
  std::vector<std::int32_t> v(a->real.size() / sizeof(std::int32_t));
  if (!v.empty()) std::memcpy(v.data(), a->real.data(), a->real.size());
  return v;
}

std::vector<std::int64_t> integer_values(const mxArray* a) {
  std::vector<std::int64_t> v;
  const std::size_t size = element_size(a->class_id);
  for (std::size_t at = 0; at < a->real.size(); at += size) {
    mxArray one;
    one.class_id = a->class_id;
    one.real.assign(a->real.begin() + static_cast<std::ptrdiff_t>(at),
                    a->real.begin() + static_cast<std::ptrdiff_t>(at + size));
    v.push_back(static_cast<std::int64_t>(mxGetScalar(&one)));
  }
  return v;
}

}  // namespace fake_mex
