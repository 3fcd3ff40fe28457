// All state of one segmentation run. Each call of the library entry works on
// its own context, so runs in different threads never meet.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <type_traits>

#include "context/allocator.hpp"
#include "context/record_arena.hpp"
#include "records/records.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {

using line_sink = std::function<void(std::string_view)>;

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
  record_arena<block, &block::next_block> blocks{allocator, alloc_site::block_record};
  record_arena<nb_node, &nb_node::next> entries{allocator, alloc_site::neighbour_entry};

  // Links to records and back; the empty link is nullptr.
  [[nodiscard]] block* block_at(block_id i) const noexcept { return blocks.at(i); }
  [[nodiscard]] nb_node* entry_at(entry_id i) const noexcept { return entries.at(i); }
  [[nodiscard]] block_id id(const block* b) const noexcept { return blocks.id(b); }
  [[nodiscard]] entry_id id(const nb_node* e) const noexcept { return entries.id(e); }
  // Whether the records outgrow the caches, so that walks over them gain by
  // asking for records ahead; below that, asking costs more than it saves.
  [[nodiscard]] bool records_outgrow_cache() const noexcept {
    constexpr std::size_t cache_bytes = std::size_t{16} << 20;
    return std::size_t{blocks.end()} * sizeof(block) +
               std::size_t{entries.end()} * sizeof(nb_node) >
           cache_bytes;
  }
  // Gives back every block and entry of the run in one step.
  void release_records() noexcept {
    blocks.release_all();
    entries.release_all();
  }
  line_sink out;  // standard output when empty
  line_sink err;  // standard error when empty
  std::uint64_t frame_budget = default_frame_budget;
  // Threads for the phases whose results cannot depend on them; 0: all cores.
  std::int32_t threads = 1;
  // Fewest items per thread; below it a step stays on one thread (tests make
  // it small so that tiny images are split too).
  std::size_t thread_grain = 4096;

  // --- the run's image and parameters ---
  const std::int32_t* my_image = nullptr;
  const std::uint8_t* my_image8 = nullptr;  // instead of my_image for 8-bit images
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
  // Pixel offset of each digit at each level: a block's first pixel is the
  // sum over its code's digits, with no decoding of coordinates.
  static constexpr std::int32_t offset_levels = 14;
  std::int32_t digit_offset[offset_levels][16] = {};
  template <class Code = std::uint32_t>
  [[nodiscard]] std::int32_t first_pixel(std::type_identity_t<Code> code) const noexcept {
    constexpr std::int32_t levels =
        2 * sizeof(Code) < offset_levels ? 2 * sizeof(Code) : offset_levels;
    std::int32_t at = 0;
    for (std::int32_t l = 0; l < levels; ++l, code >>= 4) at += digit_offset[l][code & 0xFu];
    return at;
  }
  // Runs of more than 8 levels: the digits of levels 8 and up of every block,
  // by block index (a block's `code` holds those of levels 0 to 7).
  std::uint32_t* code_high = nullptr;
  // A block's code at the run's width.
  template <class Code>
  [[nodiscard]] Code code_of(const block* b) const noexcept {
    if constexpr (sizeof(Code) == sizeof(std::uint32_t)) {
      return b->code;
    } else {
      return Code{b->code} | (Code{code_high[id(b)]} << 32);
    }
  }
  template <class Code>
  void set_code(block* b, std::type_identity_t<Code> code) noexcept {
    b->code = static_cast<std::uint32_t>(code);
    if constexpr (sizeof(Code) > sizeof(std::uint32_t))
      code_high[id(b)] = static_cast<std::uint32_t>(code >> 32);
  }
  // Tests: 64-bit codes even for images of up to 8 levels, so that both
  // widths can be compared on the same runs.
  bool force_wide_codes = false;
  // The caller has checked that every pixel lies in 0..255: no second scan.
  bool pixels_checked = false;
  // A block's code whatever the run's width.
  [[nodiscard]] std::uint64_t full_code(const block* b) const noexcept {
    return code_high == nullptr ? std::uint64_t{b->code} : code_of<std::uint64_t>(b);
  }
  std::int32_t* blocks_perlevel = nullptr;
  std::int32_t* pixels_perblock = nullptr;
  float* var_thresh = nullptr;
  std::int32_t* hulp_array = nullptr;

  // --- region list finishing ---
  // Entries the elimination walks in a list before it asks its index (tests
  // vary it: the results never depend on it).
  std::uint32_t elimination_walk = 32;
  std::int32_t number_regions = 0;
  // Number of the latest neighbour list walk that marks the regions it meets.
  std::uint32_t visit = 0;

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
  // Called on the thread that started the run only: a host's callback may
  // need a lock that thread holds (Python's GIL).
  std::function<bool()> interrupt;
  // Set by that thread once the caller asked to stop; the other threads of a
  // step read it (see loop_poll).
  std::atomic<bool> interrupted{false};
  // Items (blocks, regions, entries, rows) a phase works through between two
  // polls; tests make it 1 so that every poll point is reached.
  std::uint32_t poll_interval = 4096;
  std::uint32_t polls_due = 0;
  // Polls the caller every poll_interval calls: cheap enough for inner loops.
  bool interrupt_due() {
    if (++polls_due < poll_interval) return false;
    polls_due = 0;
    return interrupt_requested();
  }
  // Polls the caller once; stays true once the caller asked to stop.
  bool interrupt_requested() {
    if (!interrupted.load(std::memory_order_relaxed) && interrupt && interrupt())
      interrupted.store(true, std::memory_order_relaxed);
    return interrupted.load(std::memory_order_relaxed);
  }

  // --- status of the last checked step ---
  std::int64_t phase_status = 0;

  // --- results that callers of the C++ interface may ask for ---
  // Called before the region list file; the run ends interrupted when it
  // was interrupted meanwhile.
  std::function<void(regionlist)> inspect_regions;
};

// interrupt_due for a loop whose items take a few instructions: the count
// lives in the loop's registers, not in the context. One poller serves one
// loop (with the loops nested in it). In a step split by run_parts, part 0
// runs on the starting thread and asks the caller; the other parts read what
// it found.
class loop_poll {
 public:
  explicit loop_poll(run_context& ctx, bool asks_caller = true) noexcept
      : ctx_(ctx), left_(ctx.poll_interval), asks_caller_(asks_caller) {}
  bool due() {
    if (--left_ != 0) return false;
    left_ = ctx_.poll_interval;
    return asks_caller_ ? ctx_.interrupt_requested()
                        : ctx_.interrupted.load(std::memory_order_relaxed);
  }

 private:
  run_context& ctx_;
  std::uint32_t left_;
  bool asks_caller_;
};

// Calls f with the run's code width: f(std::uint32_t{}) for runs of up to 8
// levels, f(std::uint64_t{}) for wider ones.
template <class F>
decltype(auto) with_code_width(const run_context& ctx, F&& f) {
  if (ctx.code_high != nullptr) return f(std::uint64_t{});
  return f(std::uint32_t{});
}

template <class T>
T* create_array(run_context& ctx, std::size_t n, alloc_site site) noexcept {
  return static_cast<T*>(ctx.allocator.allocate(n * sizeof(T), site));
}

}  // namespace splitmerge
