// splitmerge: split-and-merge segmentation of 2-D and 3-D grey images.
//
// The image is a cube of 2^max_level pixels along x and y (2 to 4096; 2 to 512
// for a volume) and 2^(max_level - lim_oct_level) slices along z, pixel values
// 0 to 255, pixel index x + y * size_x + z * size_x * size_y. The run covers it
// with blocks of level init_level, merges homogeneous sibling blocks upward,
// splits inhomogeneous ones downward, grows regions from adjacent blocks,
// absorbs regions below small_size pixels and labels the regions 0, 1, ... by
// decreasing size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace splitmerge {

// The fourteen run parameters. A value of -1 for max_level, lim_oct_level or
// init_level means: derive it from the image (see resolve_parameters).
struct parameters {
  // Level of the whole image: the image edge is 2^max_level (1..12; 1..9 for a
  // volume, an image of more than one slice).
  std::int32_t max_level = -1;
  // Lowest level whose blocks are divided in z too: a volume has
  // 2^(max_level - lim_oct_level) slices; equal to max_level for 2-D images.
  std::int32_t lim_oct_level = -1;
  // Level of the initial blocks (0..max_level-1); derived: min(3, max_level-1).
  std::int32_t init_level = -1;
  // 0: sequential region growing; otherwise seeded parallel growing.
  std::int32_t group_mode = 0;
  // Parallel growing: number of seed regions (at least 1).
  std::int32_t max_seed = 8;
  // Parallel growing: non-zero takes seeds of any block size, zero only the largest.
  std::int32_t use_all_seeds = 0;
  // Homogeneity predicate: 1 range, 2 range then region means, 3 median
  // interval with outlier share, 4 variance against chi-square thresholds,
  // 5 variance against pseudo-variance thresholds.
  std::int32_t pred_choice = 4;
  // Largest range (predicates 1-3) or difference of region means (2, 4, 5).
  std::int32_t interval_length = 10;
  // Predicate 3: largest share of outliers, as a fraction (0.1 = 10 %).
  double rejection = 0.1;
  // Predicates 4, 5: expected standard deviation of the noise.
  double sigma = 5.0;
  // Predicate 4: 1, 2 or 3 for the 0.50, 0.75 or 0.90 chi-square quantile.
  std::int32_t threshold_row = 3;
  // Predicate 5: pseudo-variance factor (threshold sigma^2 (1 + f / sqrt(n))).
  double pseudo_factor = 2.0;
  // Regions below this many pixels are absorbed by their most similar
  // neighbour; 0 switches the elimination off.
  std::int32_t small_size = 30;
  // Non-zero: an absorbing region takes in the small region's statistics.
  std::int32_t statistic_update = 1;
};

// A grey image of 32-bit pixels, x fastest, then y, then z; or of 8-bit
// pixels (data8 in place of data), which the run reads as they are.
struct image_view {
  const std::int32_t* data = nullptr;
  std::int32_t size_x = 0;
  std::int32_t size_y = 0;
  std::int32_t size_z = 1;
  const std::uint8_t* data8 = nullptr;
};

// The largest total size, in bytes, of the display frames a run collects in
// memory (options::frame_budget).
inline constexpr std::uint64_t default_frame_budget = std::uint64_t{2} << 30;

struct options {
  // Record display frames (the segmentation as it progresses).
  bool display = true;
  // Keep the progress lines in the result.
  bool capture_lines = false;
  // Also write the progress lines to standard output.
  bool echo_lines = false;
  // Receives each progress line (newline included) as the run prints it.
  std::function<void(std::string_view)> line_sink;
  // Where warnings and parameter errors go; standard error when empty.
  std::function<void(std::string_view)> error_sink;
  // Collect the final region list (statistics, block codes, neighbours).
  bool collect_regions = false;
  // Write the region list file to this path.
  std::optional<std::string> region_file;
  // Largest total size of the frames collected in `segmentation::frames`, in
  // bytes; frames handed to `frame_sink` are not counted.
  std::uint64_t frame_budget = default_frame_budget;
  // Receives each display frame (the image's pixel count of values) as soon as
  // it is final, in order, with its index from 0. When set, the frames are not
  // collected in `segmentation::frames`: the run holds only the frame being
  // painted, so frames can be streamed to a file or a host buffer. It must not
  // throw; a caller that fails to take a frame records that and carries on.
  std::function<void(const std::int32_t* frame, std::int32_t index)> frame_sink;
  // Polled as the run goes, every few thousand blocks, regions or entries of
  // every phase, and only on the thread that called segment (the run's other
  // threads stop on its answer); returning true ends the run with
  // status_interrupted after releasing everything it built. Must not throw.
  std::function<bool()> interrupt;
  // Threads for the steps whose results cannot depend on them (the search
  // for adjacent blocks, the label image); 0 uses every core, 1 runs
  // single-threaded. Results are identical for every count.
  std::int32_t threads = 0;
  // Bytes the run may take at most (see worst_case_memory); a run whose
  // worst case is larger is refused before it takes any memory. 0: the
  // memory available on this machine now (no limit when that is unknown).
  std::uint64_t memory_limit = 0;
};

struct region_record {
  std::int64_t statistics[2] = {0, 0};
  // Locational codes of the region's blocks (64 bits wide for images of more
  // than 2^8 pixels along an edge; below that every code fits 32 bits).
  std::vector<std::uint64_t> codes;
  std::vector<std::int32_t> neighbours;  // labels of adjacent regions
};

// Statuses of a run.
inline constexpr std::int32_t status_ok = 0;
inline constexpr std::int32_t status_failed = -1;       // invalid parameters or no memory
inline constexpr std::int32_t status_file_failed = -2;  // the region list file cannot be written
inline constexpr std::int32_t status_interrupted = -3;  // options::interrupt asked to stop

struct segmentation {
  // status_ok, status_failed, status_file_failed or status_interrupted. After
  // status_failed, `error` holds the parameter problem, or is empty when memory
  // ran out.
  std::int32_t status = status_ok;
  // One label per pixel, 0 for the largest region; all 0 when the run failed
  // before labelling.
  std::vector<std::int32_t> labels;
  // The display frames, frame_count images of the input's size, in order
  // (empty when they went to options::frame_sink).
  std::vector<std::int32_t> frames;
  // Frames recorded, collected or handed to the sink (none without options::display).
  std::int32_t frame_count = 0;
  std::vector<std::string> lines;
  std::vector<region_record> regions;
  std::string error;  // the parameter problem when status is -1 before the run
  // Set when the run was refused because its worst case exceeds the memory
  // limit (status_failed, `error` says so): the worst case and the limit.
  std::uint64_t memory_needed = 0;
  std::uint64_t memory_limit = 0;
};

// Fills in the derived parameters for an image; an error message when the
// image cannot be segmented with them.
std::string resolve_parameters(const image_view& image, parameters& p);
// Empty when image and parameters make a valid run, else the problem.
std::string check_parameters(const image_view& image, const parameters& p);

// The most memory, in bytes, a run of this image with these parameters and
// options can hold at once, output labels included; 0 when the parameters
// are invalid.
std::uint64_t worst_case_memory(const image_view& image, parameters p, const options& opts = {});
// Bytes this machine can give a run now: MemAvailable of /proc/meminfo, else
// the physical memory, else 0 (unknown: no limit).
std::uint64_t available_memory() noexcept;
// The memory budget of a run asked to stay within `memory_limit` bytes that
// may need up to `needed` bytes: the limit itself, or for 0 the memory
// available now less a margin for the rest of the process. 0 (no budget) when
// that is unknown, or when the limit is 0 and `needed` is too small to
// exhaust any machine: reading the free memory costs more than such a run.
std::uint64_t memory_budget(std::uint64_t memory_limit,
                            std::uint64_t needed = ~std::uint64_t{0}) noexcept;
// A size for people: "512 bytes", "1.5 KiB", "300.0 MiB", "1.5 GiB".
std::string format_bytes(std::uint64_t bytes);

segmentation segment(const image_view& image, parameters p, const options& opts = {});

}  // namespace splitmerge
