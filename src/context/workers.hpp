// Work split over several threads where the result cannot depend on it: each
// part of a range is done by one thread and writes only its own outputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <thread>

namespace splitmerge {

// The number of threads a run uses: `requested`, or every core for 0.
inline std::int32_t thread_count(std::int32_t requested) noexcept {
  if (requested > 0) return requested;
  const unsigned cores = std::thread::hardware_concurrency();
  return cores == 0 ? 1 : static_cast<std::int32_t>(cores);
}

// The first item of part t when n items are split into `parts` parts.
inline std::size_t part_begin(std::size_t n, std::size_t parts, std::size_t t) noexcept {
  return n * t / parts;
}

// How many parts n items are worth: small ranges stay on one thread, since
// starting a thread costs more than the work.
inline std::size_t parts_for(std::size_t n, std::int32_t threads, std::size_t grain) noexcept {
  std::size_t parts = threads < 1 ? 1 : static_cast<std::size_t>(threads);
  const std::size_t useful = n / grain;
  if (parts > useful) parts = useful;
  if (parts > 64) parts = 64;  // max_parts
  return parts < 1 ? 1 : parts;
}

// Most parts one range is split into.
inline constexpr std::size_t max_parts = 64;

// Calls work(t) for t = 0 .. parts - 1 (at most max_parts), part 0 on the
// calling thread. When a thread cannot be started its part runs on the
// calling thread instead.
template <class Work>
void run_parts(std::size_t parts, Work&& work) noexcept {
  if (parts > max_parts) parts = max_parts;
  std::thread started[max_parts];
  bool on_caller[max_parts] = {};
  for (std::size_t t = 1; t < parts; ++t) {
    try {
      started[t] = std::thread([&work, t] { work(t); });
    } catch (...) {
      on_caller[t] = true;
    }
  }
  work(std::size_t{0});
  for (std::size_t t = 1; t < parts; ++t) {
    if (on_caller[t]) work(t);
    if (started[t].joinable()) started[t].join();
  }
}

}  // namespace splitmerge
