// Checking the host's call: counts, the image's class and shape, the 14
// scalar parameters and then the library's own parameter rules.
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "gateway/gateway.hpp"

namespace splitmerge::gateway {

void report::fail(const char* identifier, const char* format, ...) noexcept {
  id = identifier;
  std::va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
}

void report::add_warning(std::string_view line) noexcept {
  constexpr std::string_view prefix = "splitmerge: ";
  if (line.starts_with(prefix)) line.remove_prefix(prefix.size());
  while (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  std::size_t used = std::strlen(warning);
  if (used != 0 && used + 1 < sizeof warning) warning[used++] = '\n';
  const std::size_t room = sizeof warning - 1 - used;
  const std::size_t n = line.size() < room ? line.size() : room;
  std::memcpy(warning + used, line.data(), n);
  warning[used + n] = '\0';
}

namespace {

// Where each host input goes: an integer field (truncated toward zero) or a
// double field (passed unchanged).
struct parameter_slot {
  const char* name;
  std::int32_t run_arguments::*integer;
  double run_arguments::*real;
};

constexpr std::array<parameter_slot, input_count - 1> parameter_slots{{
    {"max_level", &run_arguments::max_level, nullptr},
    {"lim_oct_level", &run_arguments::lim_oct_level, nullptr},
    {"init_level", &run_arguments::init_level, nullptr},
    {"group_mode", &run_arguments::group_mode, nullptr},
    {"max_seed", &run_arguments::max_seed, nullptr},
    {"use_all_seeds", &run_arguments::use_all_seeds, nullptr},
    {"pred_choice", &run_arguments::pred_choice, nullptr},
    {"interval_length", &run_arguments::interval_length, nullptr},
    {"rejection", nullptr, &run_arguments::rejection},
    {"sigma", nullptr, &run_arguments::sigma},
    {"threshold_row", &run_arguments::threshold_row, nullptr},
    {"pseudo_factor", nullptr, &run_arguments::pseudo_factor},
    {"small_size", &run_arguments::small_size, nullptr},
    {"statistic_update", &run_arguments::statistic_update, nullptr},
}};

bool read_image(const mxArray* image, call& c, report& r) noexcept {
  if (!mxIsInt32(image) || mxIsComplex(image)) {
    r.fail("splitmerge:imageClass", "image must be a real int32 array, not %s%s: use int32(img)",
           mxIsComplex(image) ? "complex " : "", mxGetClassName(image));
    return false;
  }
  c.ndims = mxGetNumberOfDimensions(image);
  c.dims = mxGetDimensions(image);
  if (c.ndims != 2 && c.ndims != 3) {
    r.fail("splitmerge:imageDims", "image must be 2-D (X by Y) or 3-D (X by Y by Z), not %llu-D",
           static_cast<unsigned long long>(c.ndims));
    return false;
  }
  std::array<std::int32_t, 3> sizes{0, 0, 1};
  for (int d = 0; d < static_cast<int>(c.ndims); ++d) {
    if (!size_to_int32(c.dims[d], sizes[static_cast<std::size_t>(d)])) {
      r.fail("splitmerge:imageDims", "image dimension %d is too large for a 32-bit size", d + 1);
      return false;
    }
  }
  c.args.size_x = sizes[0];
  c.args.size_y = sizes[1];
  c.args.size_z = sizes[2];
  c.args.image = static_cast<const std::int32_t*>(mxGetData(image));
  return true;
}

// position is the host's 1-based input number, named in the messages.
bool read_parameter(const mxArray* value, int position, const parameter_slot& slot, call& c,
                    report& r) noexcept {
  if (!mxIsNumeric(value) || mxIsComplex(value) || mxGetNumberOfElements(value) != 1) {
    r.fail("splitmerge:notScalar", "%s (input %d) must be a real numeric scalar", slot.name,
           position);
    return false;
  }
  const double v = mxGetScalar(value);
  if (slot.real != nullptr) {
    c.args.*slot.real = v;  // the library checks that it is finite
    return true;
  }
  if (std::isnan(v)) {
    r.fail("splitmerge:notScalar", "%s (input %d) is NaN; it must be a whole number", slot.name,
           position);
    return false;
  }
  const double whole = std::trunc(v);
  if (!(whole >= -2147483648.0 && whole <= 2147483647.0)) {
    r.fail("splitmerge:notScalar", "%s (input %d) = %g does not fit a 32-bit integer", slot.name,
           position, v);
    return false;
  }
  c.args.*slot.integer = static_cast<std::int32_t>(whole);
  return true;
}

bool check_library_rules(const call& c, report& r) noexcept {
  try {
    const std::string problem = validate_parameters(c.args);
    if (problem.empty()) return true;
    r.fail("splitmerge:badParameter", "%s", problem.c_str());
  } catch (const std::bad_alloc&) {
    r.fail("splitmerge:outOfMemory", "out of memory while checking the parameters");
  } catch (...) {
    r.fail("splitmerge:internal", "the parameter check failed unexpectedly");
  }
  return false;
}

}  // namespace

bool read_call(int nlhs, int nrhs, const mxArray* prhs[], call& c, report& r) noexcept {
  if (nrhs != input_count) {
    r.fail("splitmerge:nargin", "takes %d inputs (the image and 14 parameters), not %d",
           input_count, nrhs);
    return false;
  }
  if (nlhs > max_outputs) {
    r.fail("splitmerge:nargout", "returns at most %d outputs (labels, frames), not %d", max_outputs,
           nlhs);
    return false;
  }
  if (!read_image(prhs[0], c, r)) return false;
  for (std::size_t k = 0; k < parameter_slots.size(); ++k) {
    const int position = static_cast<int>(k) + 2;
    if (!read_parameter(prhs[k + 1], position, parameter_slots[k], c, r)) return false;
  }
  return check_library_rules(c, r);
}

}  // namespace splitmerge::gateway
