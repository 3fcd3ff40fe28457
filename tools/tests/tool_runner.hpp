// Running the built program from tests, and files for it in a scratch folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace splitmerge::tool::testing {

struct tool_result {
  int status = -1;  // the exit status
  std::string out;  // standard output
  std::string err;  // standard error, without the summary line
  // The last line of a run that succeeded: "splitmerge: N regions in S s (...)".
  std::string summary;
  std::int64_t peak_kib = 0;  // the most resident memory the run took
};

// A fresh folder under the system's temporary folder, removed afterwards.
class scratch_folder {
 public:
  scratch_folder();
  scratch_folder(const scratch_folder&) = delete;
  scratch_folder& operator=(const scratch_folder&) = delete;
  ~scratch_folder();

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  // The names of the files in the folder, sorted.
  std::vector<std::string> file_names() const;

 private:
  std::filesystem::path path_;
};

// Runs the program with the arguments (already quoted for the shell) in the folder.
// `shell_prefix` runs first in the same shell, e.g. to set limits.
tool_result run_tool(const scratch_folder& folder, const std::string& arguments,
                     const std::string& shell_prefix = "");

// The least address space, in KiB, in which the program runs on a 2 x 2
// image with one thread (found by bisection): what it needs before any image.
std::int64_t address_space_floor_kib();
// The shell prefix that limits a run to the floor plus `extra_kib`.
std::string address_space_limit(std::int64_t extra_kib);

std::string quoted(const std::string& text);
std::string read_file(const std::filesystem::path& path);

}  // namespace splitmerge::tool::testing
