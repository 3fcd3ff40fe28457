// Checking the host's call: counts, the image's class and shape, the 14
// scalar parameters and then the library's own parameter rules.
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "gateway/gateway.hpp"

namespace splitmerge::gateway {

void report::fail(const char* identifier, const char* format, ...) noexcept {
  id = identifier;
  std::va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
}

void report::warn(const char* format, ...) noexcept {
  std::va_list args;
  va_start(args, format);
  std::vsnprintf(warning, sizeof warning, format, args);
  va_end(args);
}

namespace {

// Where each host input goes: an integer field (truncated toward zero) or a
// double field (passed unchanged). Flags also take a logical scalar.
struct parameter_slot {
  const char* name;
  std::int32_t parameters::*integer;
  double parameters::*real;
  bool flag = false;
};

constexpr std::array<parameter_slot, input_count - 1> parameter_slots{{
    {"max_level", &parameters::max_level, nullptr},
    {"lim_oct_level", &parameters::lim_oct_level, nullptr},
    {"init_level", &parameters::init_level, nullptr},
    {"group_mode", &parameters::group_mode, nullptr, true},
    {"max_seed", &parameters::max_seed, nullptr},
    {"use_all_seeds", &parameters::use_all_seeds, nullptr, true},
    {"pred_choice", &parameters::pred_choice, nullptr},
    {"interval_length", &parameters::interval_length, nullptr},
    {"rejection", nullptr, &parameters::rejection},
    {"sigma", nullptr, &parameters::sigma},
    {"threshold_row", &parameters::threshold_row, nullptr},
    {"pseudo_factor", nullptr, &parameters::pseudo_factor},
    {"small_size", &parameters::small_size, nullptr},
    {"statistic_update", &parameters::statistic_update, nullptr, true},
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
  c.image.size_x = sizes[0];
  c.image.size_y = sizes[1];
  c.image.size_z = sizes[2];
  c.image.data = static_cast<const std::int32_t*>(mxGetData(image));
  return true;
}

// The first pixel outside 0..255, named by its 1-based (row, column, slice)
// position and linear index as the host shows them.
bool check_pixels(const call& c, report& r) noexcept {
  const image_view& im = c.image;
  const auto rows = static_cast<std::size_t>(im.size_x);
  const std::size_t slice = rows * static_cast<std::size_t>(im.size_y);
  const std::size_t n = slice * static_cast<std::size_t>(im.size_z);
  for (std::size_t i = 0; i < n; ++i) {
    const std::int32_t v = im.data[i];
    if (v >= 0 && v <= 255) continue;
    const std::size_t row = i % rows + 1;
    const std::size_t column = i % slice / rows + 1;
    char position[96];
    if (c.ndims >= 3) {
      std::snprintf(position, sizeof position, "(%zu, %zu, %zu)", row, column, i / slice + 1);
    } else {
      std::snprintf(position, sizeof position, "(%zu, %zu)", row, column);
    }
    r.fail("splitmerge:badParameter",
           "image pixel %s (linear index %zu) is %d: pixels must lie in 0 to 255 (rescale the "
           "image)",
           position, i + 1, v);
    return false;
  }
  return true;
}

// position is the host's 1-based input number, named in the messages.
bool read_parameter(const mxArray* value, int position, const parameter_slot& slot, call& c,
                    report& r) noexcept {
  const bool logical_flag = slot.flag && mxIsLogical(value);
  if ((!mxIsNumeric(value) && !logical_flag) || mxIsComplex(value) ||
      mxGetNumberOfElements(value) != 1) {
    r.fail("splitmerge:notScalar", "%s (input %d) must be a real %sscalar", slot.name, position,
           slot.flag ? "numeric or logical " : "numeric ");
    return false;
  }
  const double v = mxGetScalar(value);
  if (!std::isfinite(v)) {
    r.fail("splitmerge:badParameter", "%s (input %d) is %s: it must be finite", slot.name, position,
           std::isnan(v) ? "NaN" : (v > 0 ? "Inf" : "-Inf"));
    return false;
  }
  if (slot.real != nullptr) {
    c.params.*slot.real = v;
    return true;
  }
  const double whole = std::trunc(v);
  if (!(whole >= -2147483648.0 && whole <= 2147483647.0)) {
    r.fail("splitmerge:badParameter",
           "%s (input %d) is %.17g: it must fit a 32-bit integer (-2147483648 to 2147483647)",
           slot.name, position, v);
    return false;
  }
  c.params.*slot.integer = static_cast<std::int32_t>(whole);
  return true;
}

bool check_library_rules(const call& c, report& r) noexcept {
  try {
    const std::string problem = check_parameters(c.image, c.params);
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
    r.fail("splitmerge:nargout", "returns at most %d outputs (labels, frames, regions), not %d",
           max_outputs, nlhs);
    return false;
  }
  if (!read_image(prhs[0], c, r)) return false;
  for (std::size_t k = 0; k < parameter_slots.size(); ++k) {
    const int position = static_cast<int>(k) + 2;
    if (!read_parameter(prhs[k + 1], position, parameter_slots[k], c, r)) return false;
  }
  return check_pixels(c, r) && check_library_rules(c, r);
}

}  // namespace splitmerge::gateway
