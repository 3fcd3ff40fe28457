#include "driver/memory_estimate.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>

#include "context/record_arena.hpp"
#include "display/display.hpp"
#include "geometry/geometry.hpp"
#include "records/records.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {

namespace {

constexpr std::uint64_t arena_minimum = arena_minimum_capacity;
constexpr std::uint64_t arena_chunk = arena_default_chunk;
constexpr std::uint64_t entry_bytes = sizeof(nb_node);
constexpr std::uint64_t frame_pixel_bytes = sizeof(std::int32_t);
// The elimination's index table: slots of 12 bytes, at least 2 x 1024 when
// it grows (old and new table at once). Measured slots per pixel on
// checkerboards and noise: 0.5 in planes, 5.3 in volumes; allowed: 1 and 8.
constexpr std::uint64_t slot_bytes = 12;
constexpr std::uint64_t slots_per_pixel_plane = 1;
constexpr std::uint64_t slots_per_pixel_volume = 8;
constexpr std::uint64_t slots_fixed = 2 * 2048;
// The sum of the parts is raised by a quarter, plus 64 KiB for the small
// tables (levels, thresholds, seeds), for what the measurements did not meet.
constexpr std::uint64_t margin_numerator = 5;
constexpr std::uint64_t margin_denominator = 4;
constexpr std::uint64_t fixed_bytes = 64 * 1024;

std::uint64_t arena_records(std::uint64_t capacity, std::uint64_t used_bound) {
  const std::uint64_t limit = std::max(capacity, arena_minimum) + 1;
  // Granted chunk by chunk up to the records in use: at most a chunk more.
  return std::min(limit, used_bound + arena_chunk);
}

}  // namespace

std::uint64_t most_frames(std::uint64_t voxels) noexcept {
  return 2 + (4 * voxels + 1) / (frame_interval + 1);
}

std::size_t block_record_bytes(std::int32_t max_level) noexcept {
  // Runs of more than 8 levels keep each block's high code digits beside it.
  return max_level > narrow_code_levels ? sizeof(block) + sizeof(std::uint32_t) : sizeof(block);
}

std::uint64_t worst_case_bytes(const run_shape& s) noexcept {
  const std::uint64_t n = s.voxels;
  const std::uint64_t faces_per_pixel = s.volume ? 3 : 2;
  // Blocks tile the image: at most one per pixel, plus one per level while
  // a split is under way (the arena's capacity is n + 64).
  const std::uint64_t blocks = arena_records(n + 64, n + 64) * block_record_bytes(s.max_level);
  // Two entries per adjacent pair, a pair per shared face, plus the open
  // one; the arena's capacity is 7 n + 64.
  const std::uint64_t entry_records = arena_records(7 * n + 64, 2 * faces_per_pixel * n + 2);
  const std::uint64_t entries = entry_records * entry_bytes;
  // The phases after the tree never hold their scratch at once: the pair
  // search (leaves, codes, cell table, found pairs: at most 44 bytes a
  // pixel) ends before the elimination's order keys (one per possible
  // entry) and slot table are made.
  const std::uint64_t pair_search = 44 * n + 1024;
  const std::uint64_t order_keys = (std::max<std::uint64_t>(7 * n + 64, arena_minimum) + 1) * 8;
  const std::uint64_t slots =
      ((s.volume ? slots_per_pixel_volume : slots_per_pixel_plane) * n + slots_fixed) * slot_bytes;
  const std::uint64_t scratch = std::max(pair_search, order_keys + slots);

  const std::uint64_t frame = n * frame_pixel_bytes;
  std::uint64_t frames = frame;  // the frame being painted exists in every run
  if (s.display && !s.frames_to_sink) {
    const std::uint64_t most = most_frames(n);
    const std::uint64_t within =
        frame == 0 ? most : std::max<std::uint64_t>(1, s.frame_budget / frame);
    // One more while the frames are copied into the result.
    frames = (std::min(most, within) + 1) * frame;
  }
  const std::uint64_t labels = n * sizeof(std::int32_t);
  // Region list for the caller: a record per region, a code per block and
  // a neighbour per entry.
  const std::uint64_t regions = s.collect_regions ? n * (64 + 4) + entry_records * 4 : 0;

  const std::uint64_t parts = blocks + entries + scratch + frames + labels + regions;
  return parts / margin_denominator * margin_numerator + fixed_bytes;
}

std::uint64_t available_memory() noexcept {
  try {
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    std::uint64_t value = 0;
    std::string unit;
    while (meminfo >> key >> value) {
      std::getline(meminfo, unit);
      if (key == "MemAvailable:") return value * 1024;
    }
  } catch (...) {  // no /proc: fall back to the physical memory
  }
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long page_size = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || page_size <= 0) return 0;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page_size);
}

std::uint64_t memory_budget(std::uint64_t memory_limit, std::uint64_t needed) noexcept {
  constexpr std::uint64_t small_run_bytes = std::uint64_t{64} << 20;
  if (memory_limit != 0) return memory_limit;
  if (needed <= small_run_bytes) return 0;
  const std::uint64_t available = available_memory();
  // Leaves a sixteenth, and at least 256 MiB, to the host process and the
  // system: a run that takes the last page would push the machine into swap.
  const std::uint64_t margin = std::max<std::uint64_t>(available / 16, std::uint64_t{256} << 20);
  return available > 2 * margin ? available - margin : available / 2;
}

std::string format_bytes(std::uint64_t bytes) {
  const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  double v = static_cast<double>(bytes);
  int u = 0;
  while (v >= 1024.0 && u < 4) {
    v /= 1024.0;
    ++u;
  }
  char text[32];
  if (u == 0) {
    std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", v, units[u]);
  }
  return text;
}

}  // namespace splitmerge
