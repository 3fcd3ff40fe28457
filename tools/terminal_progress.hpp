// What a person sees on standard error: at a terminal, for runs over a
// second, a status line (time so far and the last phase finished), redrawn in
// place; and at the end, on any stream, a one-line summary. Nothing of it is
// printed with --quiet; the progress lines on standard output are never changed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace splitmerge::tool {

class terminal_progress {
 public:
  // The status line shows when `status_line` (standard error is a terminal,
  // not --quiet), the summary when `summary` (not --quiet).
  terminal_progress(bool status_line, bool summary);
  terminal_progress(const terminal_progress&) = delete;
  terminal_progress& operator=(const terminal_progress&) = delete;
  ~terminal_progress();

  // True when standard error is a terminal.
  static bool standard_error_is_terminal();

  // Writes a progress line to standard output, keeping the status line intact.
  void print_line(std::string_view line);

  // Ends and erases the status line, e.g. before an error message.
  void stop();

  // Ends the status line and prints "N regions in S s (V voxels per second)".
  void finish(std::int64_t regions, std::int64_t voxels);

 private:
  static std::chrono::milliseconds quiet_start();
  void tick(std::stop_token stop);
  void draw_locked();
  void erase_locked();
  double seconds() const;

  bool enabled_;
  bool summary_;
  std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::string phase_;
  bool shown_ = false;
  std::jthread ticker_;
};

}  // namespace splitmerge::tool
