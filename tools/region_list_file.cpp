#include "region_list_file.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "npy.hpp"

namespace splitmerge::tool {

void write_region_list(const std::string& path, std::int32_t size_x, std::int32_t size_z,
                       std::int32_t pred_choice, const std::vector<region_record>& regions) {
  std::FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) throw io::write_failure(path);
  // fprintf reports a failed write through a negative result or the error
  // flag; buffered data can still fail at the close.
  bool written = std::fprintf(file, "%d\n%d\n%d\n%2.4f\n%d\n%d\n", static_cast<int>(size_x),
                              static_cast<int>(size_z), 2, 4.0, static_cast<int>(regions.size()),
                              static_cast<int>(pred_choice)) >= 0;
  for (const region_record& r : regions) {
    if (!written) break;
    written =
        std::fprintf(file, "%" PRId64 " %" PRId64 "\n", r.statistics[0], r.statistics[1]) >= 0;
    for (const std::uint64_t code : r.codes)
      written = written && std::fprintf(file, "%" PRIx64 "\n", code) >= 0;
    written = written && std::fputs("0\n", file) >= 0;
    for (const std::int32_t n : r.neighbours)
      written = written && std::fprintf(file, "%d\n", static_cast<int>(n)) >= 0;
    written = written && std::fputs("-1\n", file) >= 0;
  }
  written = written && std::ferror(file) == 0 && std::fflush(file) == 0;
  const int problem = errno;
  if (std::fclose(file) != 0 && written) throw io::write_failure(path);
  errno = problem;
  if (!written) throw io::write_failure(path);
}

}  // namespace splitmerge::tool
