// The one record for blocks and regions, the neighbour entry, the display
// frame node, and the routines that release lists of them.
#pragma once

#include <cstdint>

namespace splitmerge {

struct nb_node;

// A block of the tree; once the regions exist, also a region head.
struct block {
  std::uint32_t code = 0;
  // Statistics; signed 64-bit so sums of large bright blocks never wrap.
  std::int64_t variables[2] = {0, 0};
  block* region_pointer = nullptr;  // last block of the region's chain; empty: absorbed
  nb_node* nb_pointers[2] = {nullptr, nullptr};  // first and last neighbour entry
  std::uint8_t status = 0;
  block* next_block = nullptr;
  block* next_region = nullptr;
};

struct nb_node {
  block* region = nullptr;
  nb_node* next = nullptr;
  // Position key within its list, kept only while small regions are
  // eliminated (see the elimination index); meaningless elsewhere.
  std::uint64_t order = 0;
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

std::int32_t free_blocklist(run_context& ctx, blocklist list) noexcept;
std::int32_t free_initregion(run_context& ctx, blocklist list, void* further) noexcept;
std::int32_t free_cur_np(run_context& ctx, nb_node* first) noexcept;
void free_regionlist(run_context& ctx, regionlist head) noexcept;
void print_region(run_context& ctx, const block& b);

}  // namespace splitmerge
