// All state of one segmentation run. Each call of the library entry works on
// its own context, so runs in different threads never meet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "driver/allocator.hpp"
#include "records/records.hpp"

namespace splitmerge {

using line_sink = std::function<void(std::string_view)>;

inline constexpr std::uint64_t default_frame_budget = std::uint64_t{2} << 30;

class run_context {
 public:
  run_context();
  run_context(const run_context&) = delete;
  run_context& operator=(const run_context&) = delete;
  ~run_context();

  // Progress lines and debugging dumps (one call per line, newline included).
  void print(std::string_view text) const;
  // Error and warning lines (newline included).
  void warn(std::string_view text) const;

  // Releases the frame list; frames outlive the run and belong to the caller.
  void release_frames() noexcept;

  run_allocator allocator;
  line_sink out;  // standard output when empty
  line_sink err;  // standard error when empty
  std::uint64_t frame_budget = default_frame_budget;

  // --- the run's image and parameters ---
  const std::int32_t* my_image = nullptr;
  std::int32_t im_format_xy = 0;
  std::int32_t im_format_z = 0;
  std::int32_t voxels_slice = 0;
  std::int32_t voxels_image = 0;
  std::int32_t max_level = 0;
  std::int32_t lim_oct_level = 0;
  std::int32_t init_level = 0;
  std::int32_t group_mode = 0;
  std::int32_t max_seed = 0;
  std::int32_t use_all_seeds = 0;
  std::int32_t pred_choice = 0;
  std::int32_t interval_length = 0;
  std::int32_t half_length = 0;
  std::int32_t small_size = 0;
  std::int32_t statistic_update = 0;
  std::int32_t rejection_ratio = 0;

  // --- per-run tables ---
  std::int32_t* blocks_perlevel = nullptr;
  std::int32_t* pixels_perblock = nullptr;
  float* var_thresh = nullptr;
  std::int32_t* hulp_array = nullptr;

  // --- region list finishing ---
  std::int32_t number_regions = 0;

  // --- display frame recorder ---
  disp_frame* smg_disp = nullptr;
  disp_frame* smg_disp_cur = nullptr;
  std::int32_t smg_img_size = 0;
  std::int32_t smg_dsp_count = 0;
  std::int32_t smg_dsp_count_l = 0;
  std::int32_t cur_color = 0;
  bool frames_stopped = false;  // a tick could not get a frame; no more appends
  // When set, frozen frames go here and the run keeps only the current one.
  std::function<void(const std::int32_t*, std::int32_t)> frame_sink;

  // --- interruption by the caller ---
  std::function<bool()> interrupt;
  bool interrupted = false;
  // Polls the caller once; stays true once the caller asked to stop.
  bool interrupt_requested() {
    if (!interrupted && interrupt) interrupted = interrupt();
    return interrupted;
  }

  // --- status of the last checked step ---
  std::int64_t phase_status = 0;

  // --- results that callers of the C++ interface may ask for ---
  std::function<void(regionlist)> inspect_regions;  // called before the region list file
};

template <class T>
T* create_array(run_context& ctx, std::size_t n, alloc_site site) noexcept {
  return static_cast<T*>(ctx.allocator.allocate(n * sizeof(T), site));
}

}  // namespace splitmerge
