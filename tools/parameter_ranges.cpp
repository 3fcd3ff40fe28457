#include "parameter_ranges.hpp"

#include <iostream>
#include <sstream>

namespace splitmerge::tool {

namespace {

template <class T>
std::string warning(const char* option, T value, const char* range) {
  std::ostringstream s;
  s << option << ' ' << value << " is outside its meaningful range (" << range
    << "); running with it as given";
  return s.str();
}

}  // namespace

std::vector<std::string> parameter_range_warnings(const parameters& p) {
  std::vector<std::string> out;
  const auto flag = [&out](const char* option, std::int32_t v) {
    if (v != 0 && v != 1) out.push_back(warning(option, v, "0 or 1; other values act as 1"));
  };
  flag("--group-mode", p.group_mode);
  flag("--use-all-seeds", p.use_all_seeds);
  flag("--statistic-update", p.statistic_update);
  if (p.interval_length < 0)
    out.push_back(warning("--interval-length", p.interval_length, "0 or more"));
  if (!(p.rejection >= 0.0 && p.rejection <= 1.0))
    out.push_back(warning("--rejection", p.rejection, "0 to 1"));
  if (!(p.sigma > 0.0)) out.push_back(warning("--sigma", p.sigma, "above 0"));
  if (!(p.pseudo_factor >= 0.0))
    out.push_back(warning("--pseudo-factor", p.pseudo_factor, "0 or more"));
  if (p.small_size < 0) out.push_back(warning("--small-size", p.small_size, "0 or more"));
  return out;
}

void warn_about_parameter_ranges(const parameters& p) {
  for (const auto& w : parameter_range_warnings(p))
    std::cerr << "splitmerge: warning: " << w << '\n';
}

}  // namespace splitmerge::tool
