#include "measure.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace splitmerge::bench {

double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

std::uint64_t peak_rss_bytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;  // Linux counts kilobytes
}

std::uint64_t current_rss_bytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t size = 0;
  std::uint64_t resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

void json_line::key(std::string_view k) {
  text_ += text_.empty() ? "{" : ", ";
  text_ += '"';
  text_ += k;
  text_ += "\": ";
}

json_line& json_line::add(std::string_view k, std::string_view value) {
  key(k);
  text_ += '"';
  for (const char c : value) {
    if (c == '"' || c == '\\') text_ += '\\';
    text_ += c;
  }
  text_ += '"';
  return *this;
}

json_line& json_line::add(std::string_view k, double value) {
  key(k);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.6g", value);
  text_ += buffer;
  return *this;
}

json_line& json_line::add(std::string_view k, std::int64_t value) {
  key(k);
  text_ += std::to_string(value);
  return *this;
}

void json_line::print() const {
  std::printf("%s}\n", text_.c_str());
  std::fflush(stdout);
}

}  // namespace splitmerge::bench
