#include "option_values.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "fit.hpp"

namespace splitmerge::tool {

namespace {

std::size_t edit_distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

std::int64_t whole_number(const std::string& option, const std::string& text, std::int64_t low,
                          std::int64_t high) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  const bool whole = !text.empty() && end == text.c_str() + text.size() && errno == 0 &&
                     text.find_first_of(" \t\n") == std::string::npos;
  if (!whole || value < low || value > high)
    throw usage_error(option + " " + text + ": expected a whole number from " +
                      std::to_string(low) + " to " + std::to_string(high));
  return value;
}

double finite_number(const std::string& option, const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value) ||
      text.find_first_of(" \t\n") != std::string::npos)
    throw usage_error(option + " " + text + ": expected a finite number, e.g. 0.5 or 3");
  return value;
}

std::optional<std::string> closest_option(const std::string& given,
                                          const std::vector<std::string>& known) {
  std::optional<std::string> best;
  std::size_t best_distance = 0;
  for (const std::string& name : known) {
    const std::size_t d = edit_distance(given, name);
    if (!best || d < best_distance) {
      best = name;
      best_distance = d;
    }
  }
  // Two slips at most, and fewer than a third of the name's letters.
  if (!best || best_distance > 2 || best_distance * 3 > best->size()) return std::nullopt;
  return best;
}

}  // namespace splitmerge::tool
