// The values of options in the program's own words: numbers converted and
// range-checked with one message form, and the nearest option to a misspelt
// one. Throws usage_error with "OPTION VALUE: expected ...".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace splitmerge::tool {

// A whole number from `low` to `high`, e.g. "--small-size 99999999999:
// expected a whole number from -2147483648 to 2147483647".
std::int64_t whole_number(const std::string& option, const std::string& text, std::int64_t low,
                          std::int64_t high);

// A finite number (no nan or inf).
double finite_number(const std::string& option, const std::string& text);

// The known option closest to `given` (by edit distance), when it is close
// enough to be a slip of the keyboard.
std::optional<std::string> closest_option(const std::string& given,
                                          const std::vector<std::string>& known);

}  // namespace splitmerge::tool
