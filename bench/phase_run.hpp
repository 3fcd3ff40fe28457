// A run of the segmentation through the library entry itself (display off),
// each phase timed by the progress line that closes it, so that the phases
// are those the library runs, with the code width the image needs.
#pragma once

#include <array>
#include <cstdint>

#include "context/run_context.hpp"
#include "driver/driver.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge::bench {

enum class phase : std::uint8_t {
  setup,           // prepare_run: tables and the first display frame
  initial_blocks,  // init_blocklist
  merge,           // smg_merge
  split,           // smg_split
  adjacency,       // group_init
  grouping,        // sequential_grouping or parallel_grouping
  elimination,     // region_elimination
  cleaning,        // clean_regionlist
  sorting,         // sort_regionlist
  label_image,     // make_output
  release,         // free_variables and free_regionlist
  count_
};
inline constexpr std::size_t phase_count = static_cast<std::size_t>(phase::count_);
inline constexpr std::array<const char*, phase_count> phase_names = {
    "setup",       "initial_blocks", "merge",   "split",       "adjacency", "grouping",
    "elimination", "cleaning",       "sorting", "label_image", "release"};

struct phase_result {
  std::array<double, phase_count> seconds{};
  std::int64_t leaves = 0;             // blocks after the split
  std::int64_t single_voxels = 0;      // of those, blocks of one pixel (level 0)
  std::int64_t neighbour_entries = 0;  // after the adjacency, when counted
  std::int64_t regions = 0;            // after cleaning
  std::int32_t status = 0;             // 0, or the failure status of a phase
};

// The arguments of a run on the image; derived parameters are resolved.
// Throws std::runtime_error when the run would be invalid.
run_arguments arguments_for(const image_view& image, parameters p);

// A context whose progress lines go nowhere.
void silence(run_context& ctx);

// One complete run, display off, each phase timed. labels holds one value per
// pixel. Counting the neighbour entries walks every list once, untimed.
phase_result time_phases(const run_arguments& args, std::int32_t* labels, bool count_entries,
                         std::int32_t threads = 1);

// Sets up the run and builds the block tree up to the split; null when the
// image merged into one block or a phase failed. The caller frees the list
// (free_blocklist) or hands it on, and calls free_variables.
blocklist build_tree(run_context& ctx, const run_arguments& args);

}  // namespace splitmerge::bench
