// Timing, memory and result lines for the benchmark programs.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace splitmerge::bench {

using bench_clock = std::chrono::steady_clock;

inline double seconds_between(bench_clock::time_point a, bench_clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// The median of the values (the mean of the middle two for an even count).
double median(std::vector<double> values);

// The largest resident set this process has had so far, in bytes.
std::uint64_t peak_rss_bytes();
// The resident set now, in bytes.
std::uint64_t current_rss_bytes();

// One result as a JSON object on one line, the format bench/run.sh collects.
class json_line {
 public:
  json_line& add(std::string_view key, std::string_view value);
  json_line& add(std::string_view key, const char* value) {
    return add(key, std::string_view(value));
  }
  json_line& add(std::string_view key, double value);
  json_line& add(std::string_view key, std::int64_t value);
  json_line& add(std::string_view key, std::int32_t value) {
    return add(key, static_cast<std::int64_t>(value));
  }
  json_line& add(std::string_view key, std::uint64_t value) {
    return add(key, static_cast<std::int64_t>(value));
  }
  // Writes the object and a newline to standard output.
  void print() const;

 private:
  void key(std::string_view k);
  std::string text_;
};

}  // namespace splitmerge::bench
