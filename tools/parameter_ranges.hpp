// The ranges in which the segmentation parameters mean what the help says.
// Values outside them still define a result (the run takes them as given), so
// they are not refused; the program warns instead.
#pragma once

#include <string>
#include <vector>

#include "splitmerge/splitmerge.hpp"

namespace splitmerge::tool {

// One warning per parameter outside its meaningful range, each naming the
// option, e.g. "--sigma 0 is outside its meaningful range (above 0); running
// with it as given".
std::vector<std::string> parameter_range_warnings(const parameters& p);

// Prints parameter_range_warnings to standard error.
void warn_about_parameter_ranges(const parameters& p);

}  // namespace splitmerge::tool
