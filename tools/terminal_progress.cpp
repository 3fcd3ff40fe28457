#include "terminal_progress.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace splitmerge::tool {

namespace {

std::string seconds_text(double s) {
  char text[32];
  std::snprintf(text, sizeof text, s < 10 ? "%.2f" : "%.1f", s);
  return text;
}

}  // namespace

bool terminal_progress::standard_error_is_terminal() { return ::isatty(STDERR_FILENO) == 1; }

terminal_progress::terminal_progress(bool status_line, bool summary)
    : enabled_(status_line), summary_(summary), start_(std::chrono::steady_clock::now()) {
  if (enabled_) ticker_ = std::jthread([this](std::stop_token stop) { tick(stop); });
}

terminal_progress::~terminal_progress() { stop(); }

double terminal_progress::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::chrono::milliseconds terminal_progress::quiet_start() {
  // SPLITMERGE_STATUS_AFTER_MS shortens the quiet start, so that tests see a
  // status line however fast the run is.
  if (const char* text = std::getenv("SPLITMERGE_STATUS_AFTER_MS")) {
    char* end = nullptr;
    const long ms = std::strtol(text, &end, 10);
    if (end != text && *end == '\0' && ms >= 0 && ms <= 3'600'000)
      return std::chrono::milliseconds(ms);
  }
  return std::chrono::seconds(1);
}

void terminal_progress::tick(std::stop_token stop) {
  std::unique_lock lock(mutex_);
  // Quiet for the first second: short runs show no status at all.
  if (wake_.wait_for(lock, stop, quiet_start(), [] { return false; })) return;
  while (!stop.stop_requested()) {
    draw_locked();
    wake_.wait_for(lock, stop, std::chrono::milliseconds(250), [] { return false; });
  }
}

void terminal_progress::draw_locked() {
  std::string status = "\rsplitmerge: " + seconds_text(seconds()) + " s";
  if (!phase_.empty()) status += ", " + phase_;
  status += "\033[K";
  std::fputs(status.c_str(), stderr);
  std::fflush(stderr);
  shown_ = true;
}

void terminal_progress::erase_locked() {
  if (!shown_) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  shown_ = false;
}

void terminal_progress::print_line(std::string_view line) {
  const std::lock_guard lock(mutex_);
  const bool redraw = shown_;
  erase_locked();
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
  if (enabled_) {
    phase_.assign(line);
    while (!phase_.empty() && (phase_.back() == '\n' || phase_.back() == ' ')) phase_.pop_back();
  }
  if (redraw) draw_locked();
}

void terminal_progress::stop() {
  if (ticker_.joinable()) {
    ticker_.request_stop();
    wake_.notify_all();
    ticker_.join();
  }
  const std::lock_guard lock(mutex_);
  erase_locked();
}

void terminal_progress::finish(std::int64_t regions, std::int64_t voxels) {
  stop();
  if (!summary_) return;
  const std::lock_guard lock(mutex_);
  const double s = seconds();
  const double per_second = s > 0 ? static_cast<double>(voxels) / s : 0.0;
  char rate[64];
  if (per_second >= 1e6) {
    std::snprintf(rate, sizeof rate, "%.1f million", per_second / 1e6);
  } else {
    std::snprintf(rate, sizeof rate, "%.0f", per_second);
  }
  std::fprintf(stderr, "splitmerge: %lld region%s in %s s (%s voxels per second)\n",
               static_cast<long long>(regions), regions == 1 ? "" : "s", seconds_text(s).c_str(),
               rate);
}

}  // namespace splitmerge::tool
