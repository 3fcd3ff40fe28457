#include "tool_runner.hpp"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "test_images.hpp"

namespace splitmerge::tool::testing {

scratch_folder::scratch_folder() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::temp_directory_path() /
          ("splitmerge_tool_test_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
  std::filesystem::remove_all(path_);
  std::filesystem::create_directories(path_);
}

scratch_folder::~scratch_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> scratch_folder::file_names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

tool_result run_tool(const scratch_folder& folder, const std::string& arguments,
                     const std::string& shell_prefix) {
  const auto out_path = folder.path().parent_path() / (folder.path().filename().string() + ".out");
  const auto err_path = folder.path().parent_path() / (folder.path().filename().string() + ".err");
  const std::string command = "cd " + quoted(folder.path().string()) + " && " + shell_prefix +
                              " exec " + quoted(SPLITMERGE_TOOL_PATH) + " " + arguments + " > " +
                              quoted(out_path.string()) + " 2> " + quoted(err_path.string());
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int raw = 0;
  rusage usage{};
  if (pid < 0 || ::wait4(pid, &raw, 0, &usage) != pid) throw std::runtime_error("cannot run");
  tool_result result;
  result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  result.peak_kib = usage.ru_maxrss;
  result.out = read_file(out_path);
  result.err = read_file(err_path);
  // The summary's time varies from run to run: tests look at it on its own.
  std::smatch last;
  if (std::regex_search(result.err, last,
                        std::regex("(^|\n)(splitmerge: [0-9]+ regions? in [0-9.]+ s \\(.*\n)$"))) {
    result.summary = last[2];
    result.err.erase(static_cast<std::size_t>(last.position(2)));
  }
  std::filesystem::remove(out_path);
  std::filesystem::remove(err_path);
  return result;
}

std::int64_t address_space_floor_kib() {
  static const std::int64_t floor = [] {
    scratch_folder dir;
    write_npy_raw(dir / "in.npy", "<i4", {2, 2}, false, std::string(16, '\0'));
    const auto runs_within = [&dir](std::int64_t kib) {
      return run_tool(dir, "in.npy --quiet --threads 1 --labels l.npy",
                      "ulimit -v " + std::to_string(kib) + ";")
                 .status == 0;
    };
    std::int64_t fails = 0, runs = std::int64_t{1} << 22;  // 4 GiB
    if (!runs_within(runs)) throw std::runtime_error("the program does not run in 4 GiB");
    while (runs - fails > 1024) {
      const std::int64_t middle = (fails + runs) / 2;
      (runs_within(middle) ? runs : fails) = middle;
    }
    return runs;
  }();
  return floor;
}

std::string address_space_limit(std::int64_t extra_kib) {
  return "ulimit -v " + std::to_string(address_space_floor_kib() + extra_kib) + ";";
}

}  // namespace splitmerge::tool::testing
