// The single allocation point of a run: every record, entry, table and frame
// of one segmentation is obtained and released here, so tests can make the
// k-th request fail and can see what is still alive.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace splitmerge {

// Where an allocation comes from; lets failure sweeps check they reached
// every kind of request.
enum class alloc_site : std::uint8_t {
  blocks_perlevel_table,
  code_table,
  pixels_perblock_table,
  var_thresh_table,
  median_scratch,
  block_list,
  block_record,
  neighbour_entry,
  level_table,
  leaf_index,
  seed_table,
  grouping_table,
  sort_array,
  elimination_index,
  label_table,
  save_array,
  frame_node,
  frame_pixels,
  count_
};

inline constexpr std::size_t alloc_site_count = static_cast<std::size_t>(alloc_site::count_);

class run_allocator {
 public:
  run_allocator() = default;
  run_allocator(const run_allocator&) = delete;
  run_allocator& operator=(const run_allocator&) = delete;
  ~run_allocator();

  // Zero-filled memory, or nullptr when the request fails.
  void* allocate(std::size_t bytes, alloc_site site) noexcept;
  // Memory whose contents the caller overwrites at once.
  void* allocate_uninitialised(std::size_t bytes, alloc_site site) noexcept;
  void release(void* p) noexcept;
  // An address range whose pages become memory only as they are granted
  // (a record arena): its bytes are counted by grant, not here.
  void* reserve(std::size_t bytes, alloc_site site) noexcept;
  // Counts one request that obtains no memory of its own (an arena growing
  // by `bytes` into its reserved range); false when that request is the one
  // to fail.
  bool grant(alloc_site site, std::size_t bytes) noexcept {
    if (!admit(site, bytes)) return false;
    count(bytes);
    return true;
  }
  // Gives back bytes counted by grant (the arena released its range).
  void ungrant(std::size_t bytes) noexcept { live_bytes_ -= bytes; }

  // The most bytes the run may hold at once (0: no limit): a request that
  // would cross it fails like any failed request, and is remembered.
  void set_budget(std::uint64_t bytes) noexcept { budget_ = bytes; }
  // Whether a request failed for the budget, and the bytes held and asked
  // for at that moment.
  [[nodiscard]] bool over_budget() const noexcept { return refused_bytes_ != 0; }
  [[nodiscard]] std::uint64_t refused_bytes() const noexcept { return refused_bytes_; }
  [[nodiscard]] std::uint64_t held_at_refusal() const noexcept { return held_at_refusal_; }

  // Makes request number k (counting from 1) fail; 0 disables the hook.
  void fail_at(std::uint64_t k) noexcept { fail_at_ = k; }
  [[nodiscard]] std::uint64_t requests() const noexcept { return requests_; }
  [[nodiscard]] std::int64_t live() const noexcept { return live_; }
  // Bytes held now and the most held at once during the run: every request's
  // size (small ones rounded to their size class, without headers) and the
  // granted part of each reserved range.
  [[nodiscard]] std::uint64_t live_bytes() const noexcept { return live_bytes_; }
  [[nodiscard]] std::uint64_t peak_bytes() const noexcept { return peak_bytes_; }
  [[nodiscard]] bool site_requested(alloc_site s) const noexcept {
    return requested_[static_cast<std::size_t>(s)];
  }
  [[nodiscard]] bool site_failed(alloc_site s) const noexcept {
    return failed_[static_cast<std::size_t>(s)];
  }

 private:
  // Small records (blocks and neighbour entries, millions per run) come from
  // slabs with one free list per size class: far cheaper than the general
  // allocator, and records made together lie together in memory. Each piece
  // carries a header naming its class, so release needs no size.
  static constexpr std::size_t granule = 8;
  static constexpr std::size_t small_limit = 128;
  static constexpr std::size_t class_count = small_limit / granule;
  struct free_piece {
    free_piece* next;
  };
  struct slab {
    slab* next;
  };

  bool admit(alloc_site site, std::size_t counted) noexcept;
  // Memory for a request, counted: a pool piece, a mapping of its own for
  // large arrays, or the general allocator's.
  void* obtain(std::size_t bytes, std::size_t counted, alloc_site site) noexcept;
  void count(std::size_t bytes) noexcept {
    live_bytes_ += bytes;
    if (live_bytes_ > peak_bytes_) peak_bytes_ = live_bytes_;
  }

  std::uint64_t fail_at_ = 0;
  std::uint64_t budget_ = 0;
  std::uint64_t refused_bytes_ = 0;
  std::uint64_t held_at_refusal_ = 0;
  std::uint64_t requests_ = 0;
  std::int64_t live_ = 0;
  std::uint64_t live_bytes_ = 0;
  std::uint64_t peak_bytes_ = 0;
  std::array<bool, alloc_site_count> requested_{};
  std::array<bool, alloc_site_count> failed_{};
  std::array<free_piece*, class_count> free_{};
  std::array<std::size_t, class_count> slab_pieces_{};
  slab* slabs_ = nullptr;
};

}  // namespace splitmerge
