// The most memory a run can take, known before it starts, so that a run too
// large for the machine is refused instead of thrashing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace splitmerge {

// Bytes of one block record for runs of this image level.
std::size_t block_record_bytes(std::int32_t max_level) noexcept;

struct run_shape {
  std::uint64_t voxels = 0;
  bool volume = false;  // more than one slice
  std::int32_t max_level = 1;
  bool display = false;
  bool frames_to_sink = false;  // frames leave the run as they are frozen
  std::uint64_t frame_budget = 0;
  bool collect_regions = false;
};

// The most display frames a run of this many voxels records: a tick per
// block made or merged in the tree (under 4/3 n), per region started and per
// union (each under n), so under 4 n + 1 ticks; a frame at the first tick and
// every frame_interval + 1 after it, and the last one.
std::uint64_t most_frames(std::uint64_t voxels) noexcept;

// Upper bound of the bytes a run of this shape holds at once, the output
// labels included, the caller's image not.
std::uint64_t worst_case_bytes(const run_shape& s) noexcept;

// available_memory and format_bytes are declared in the public header.

}  // namespace splitmerge
