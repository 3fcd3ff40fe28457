// The most memory a run can take, known before it starts, so that a run too
// large for the machine is refused instead of thrashing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace splitmerge {

// Bytes of one block record for runs of this image level.
std::size_t block_record_bytes(std::int32_t max_level) noexcept;

struct run_shape {
  std::uint64_t voxels = 0;
  bool volume = false;  // more than one slice
  std::int32_t max_level = 1;
  std::int32_t init_level = 0;
  bool display = false;
  bool frames_to_sink = false;  // frames leave the run as they are frozen
  std::uint64_t frame_budget = 0;
  bool collect_regions = false;
};

// Upper bound of the bytes a run of this shape holds at once, the output
// labels included, the caller's image not.
std::uint64_t worst_case_bytes(const run_shape& s) noexcept;

// Bytes this machine can give a run now: MemAvailable of /proc/meminfo,
// else the physical memory, else 0 (unknown: no limit).
std::uint64_t available_memory() noexcept;

// "1.5 GiB", "300.0 MiB", "12.0 KiB".
std::string format_bytes(std::uint64_t bytes);

}  // namespace splitmerge
