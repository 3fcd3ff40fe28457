#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <string>

#include "driver/driver.hpp"
#include "geometry/geometry.hpp"

namespace splitmerge {

namespace {

parameter_problem describe(const char* name, double value, std::string allowed) {
  std::ostringstream s;
  s << value;
  return {name, s.str(), std::move(allowed)};
}

}  // namespace

std::string library_wording(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool in_option = false;
  for (const char c : text) {
    if (c == '{' || c == '}') {
      in_option = c == '{';
    } else if (in_option && c == '=') {
      out += " = ";
    } else {
      out += c;
    }
  }
  return out;
}

std::string parameter_problem::library_text() const {
  if (parameter.empty()) return {};
  if (value.empty()) return "invalid parameter " + parameter + ": " + library_wording(allowed);
  return "invalid parameter " + parameter + " = " + value + ": " + library_wording(allowed);
}

parameter_problem find_parameter_problem(const run_arguments& a) {
  if (a.max_level < 1 || a.max_level > max_levels_2d)
    return describe("max_level", a.max_level,
                    "must be 1 to " + std::to_string(max_levels_2d) + " (1 to " +
                        std::to_string(max_levels_3d) + " for a volume)");
  if (a.lim_oct_level < 0 || a.lim_oct_level > a.max_level)
    return describe("lim_oct_level", a.lim_oct_level,
                    "must be 0 to {max_level} (" + std::to_string(a.max_level) + ")");
  if (a.lim_oct_level < a.max_level && a.max_level > max_levels_3d)
    return describe("max_level", a.max_level,
                    "must be at most " + std::to_string(max_levels_3d) +
                        " for a volume (an edge of " + std::to_string(1 << max_levels_3d) +
                        " voxels); only 2-D images go up to " + std::to_string(max_levels_2d));
  if (a.init_level < 0 || a.init_level > a.max_level - 1)
    return describe("init_level", a.init_level,
                    "must be 0 to {max_level} - 1 (" + std::to_string(a.max_level - 1) + ")");
  const std::int32_t edge = std::int32_t{1} << a.max_level;
  if (a.size_x != edge)
    return describe("size_x", a.size_x,
                    "must be 2^{max_level} = " + std::to_string(edge) + " (the image edge)");
  if (a.size_y != a.size_x)
    return describe("size_y", a.size_y,
                    "must equal size_x = " + std::to_string(a.size_x) + " (square slices)");
  const std::int32_t slices = std::int32_t{1} << (a.max_level - a.lim_oct_level);
  if (a.size_z != slices)
    return describe("size_z", a.size_z,
                    "must be 2^({max_level} - {lim_oct_level}) = " + std::to_string(slices));
  if (a.pred_choice < 1 || a.pred_choice > 5)
    return describe("pred_choice", a.pred_choice,
                    "must be 1 (range), 2 (mean), 3 (median), 4 (chi-square) or 5 (pseudo "
                    "variance)");
  if (a.pred_choice == 4 && (a.threshold_row < 1 || a.threshold_row > 3))
    return describe("threshold_row", a.threshold_row,
                    "must be 1, 2 or 3 (probability 0.50, 0.75 or 0.90) with {pred_choice} 4");
  if (a.group_mode != 0 && a.max_seed < 1)
    return describe("max_seed", a.max_seed, "must be at least 1 with parallel grouping");
  if (!std::isfinite(a.rejection) || std::fabs(a.rejection * 100.0) >= 2147483647.0)
    return describe("rejection", a.rejection,
                    "must be a finite fraction (the outlier share, e.g. 0.1)");
  if (!std::isfinite(a.sigma)) return describe("sigma", a.sigma, "must be finite");
  if (!std::isfinite(a.pseudo_factor))
    return describe("pseudo_factor", a.pseudo_factor, "must be finite");
  if (a.image == nullptr && a.image8 == nullptr) return {"image", "", "no pixel data"};
  return {};
}

std::string find_bad_pixel(const run_arguments& a) {
  if (a.image == nullptr) return {};  // 8-bit pixels are always 0..255
  const auto n = static_cast<std::int64_t>(a.size_x) * a.size_x * a.size_z;
  // Stretches without an early exit, which the compiler turns into vector
  // code; only a stretch that holds a bad pixel is searched for it.
  constexpr std::int64_t stretch = 4096;
  std::int64_t i = 0;
  for (; i < n; i += stretch) {
    const std::int64_t end = std::min(n, i + stretch);
    std::uint32_t outside = 0;
    for (std::int64_t j = i; j < end; ++j)
      outside |= static_cast<std::uint32_t>(static_cast<std::uint32_t>(a.image[j]) > 255u);
    if (outside != 0) break;
  }
  for (; i < n; ++i) {
    const std::int32_t v = a.image[i];
    if (v < 0 || v > 255) {
      std::ostringstream s;
      s << "invalid pixel value " << v << " at index " << i
        << ": pixels must lie in 0 to 255 (rescale the image)";
      return s.str();
    }
  }
  return {};
}

std::string validate_parameters(const run_arguments& a) {
  const parameter_problem problem = find_parameter_problem(a);
  if (!problem.parameter.empty()) return problem.library_text();
  return find_bad_pixel(a);
}

}  // namespace splitmerge
