// The one record for blocks and regions, the neighbour entry, the display
// frame node, and the routines that release lists of them.
#pragma once

#include <cstdint>

namespace splitmerge {

// Records live in the run's arenas and name each other by 32-bit indices
// into them; 0 is the empty link.
using block_id = std::uint32_t;
using entry_id = std::uint32_t;

// A block of the tree; once the regions exist, also a region head.
struct block {
  std::uint32_t code = 0;
  // Region heads: the region's pixel count, kept up to date by every union.
  std::uint32_t pixels = 0;
  // Statistics; signed 64-bit so sums of large bright blocks never wrap.
  std::int64_t variables[2] = {0, 0};
  block_id region_pointer = 0;  // last block of the region's chain; empty: absorbed
  // First and last neighbour entry. Once absorbed, the first is the forwarding
  // entry and the last names the absorbing region, so readers reach it
  // without a visit to the entry.
  entry_id nb_pointers[2] = {0, 0};
  block_id next_block = 0;
  block_id next_region = 0;
  std::uint32_t status : 8 = 0;
  // Grouping and cleaning: the walk of a neighbour list in which this region
  // was last met (see run_context::visit), so that repeats are recognised
  // without a second walk that clears marks.
  std::uint32_t visit : 24 = 0;
};

struct nb_node {
  block_id region = 0;
  entry_id next = 0;
};

// Slot array of initial-level cells; slot 0 holds the head of the block chain.
using blocklist = block**;
// A region list is named by its first head.
using regionlist = block*;

struct disp_frame {
  std::int32_t* pixels = nullptr;
  disp_frame* next = nullptr;
};

class run_context;

// Status values of the failure convention.
inline constexpr std::int32_t status_no_memory = -1;
inline constexpr std::int32_t status_no_file = -2;

// A list, or the failure status that replaces it.
template <class T>
struct list_result {
  T value{};
  std::int64_t status = 0;

  static list_result failure(std::int64_t s) { return list_result{T{}, s}; }
};

// Non-zero (the value itself) when the value is one of the failure statuses.
constexpr std::int64_t check_pointer(std::int64_t value) noexcept {
  const auto low = static_cast<std::uint32_t>(static_cast<std::uint64_t>(value));
  return (low == 0xFFFFFFFEu || low == 0xFFFFFFFFu) ? value : 0;
}
template <class T>
constexpr std::int64_t check_pointer(const list_result<T>& r) noexcept {
  return check_pointer(r.status);
}

block* new_block(run_context& ctx) noexcept;
nb_node* new_nb_node(run_context& ctx, block* region, nb_node* next) noexcept;
void release_block(run_context& ctx, block* b) noexcept;
void release_entry(run_context& ctx, nb_node* e) noexcept;

// The releases of a run's lists. Once the run is interrupted they give back
// every record of the run in one step instead: walking millions of records one
// by one would keep the caller waiting, and nothing outlives the run then.
std::int32_t free_blocklist(run_context& ctx, blocklist list) noexcept;
std::int32_t free_initregion(run_context& ctx, blocklist list, void* further) noexcept;
std::int32_t free_cur_np(run_context& ctx, nb_node* first) noexcept;
void free_regionlist(run_context& ctx, regionlist head) noexcept;
void print_region(run_context& ctx, const block& b);

}  // namespace splitmerge
