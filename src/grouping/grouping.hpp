// Region grouping: adjacency of the leaf blocks, sequential and parallel
// growing, and the union of two regions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "context/run_context.hpp"
#include "records/records.hpp"

namespace splitmerge {

class run_context;

// The phases and helpers that read codes take the run's code width (see
// geometry.hpp).
template <class Code = std::uint32_t>
list_result<regionlist> group_init(run_context& ctx, blocklist list) noexcept;
template <class Code = std::uint32_t>
Code find_adjacent(const run_context& ctx, std::type_identity_t<Code> code, std::int32_t lvl,
                   std::int32_t axis) noexcept;

// Where the neighbours found for one block go: consecutive block indices.
struct pair_sink {
  block_id* out = nullptr;
  std::uint32_t count = 0;
  void add(const run_context& ctx, const block* b) noexcept { out[count++] = ctx.id(b); }
};

// The leaves in chain order with their codes side by side, and the position
// of each initial-level cell's first leaf. Codes increase strictly along the
// chain, so the leaf that holds or starts a code is found by a binary search
// within its cell instead of a walk along the chain.
template <class Code = std::uint32_t>
struct leaf_index {
  block** leaves = nullptr;
  Code* codes = nullptr;
  std::uint32_t* cell_start = nullptr;
  // For every cell, the nearest slot at or below it that holds a block: the
  // cell's own slot, or that of the larger block covering it.
  std::uint32_t* covering_slot = nullptr;
  std::size_t count = 0;

  // The first leaf from `from` on whose code is not below a, before `limit`.
  [[nodiscard]] std::size_t lower_bound(Code a, std::size_t from,
                                        std::size_t limit) const noexcept {
    std::size_t lo = from;
    std::size_t hi = limit;
    while (lo < hi) {
      const std::size_t mid = lo + (hi - lo) / 2;
      if (codes[mid] < a) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    return lo;
  }
};

// The neighbours of leaf number `position` (of level lvl) that precede it
// along one axis, in the order they touch it. Reads only the tree, so
// several threads may look for the neighbours of different leaves at once.
template <class Code = std::uint32_t>
void pair_along(const run_context& ctx, blocklist list, const leaf_index<Code>& index,
                std::size_t position, std::int32_t lvl, std::int32_t axis,
                pair_sink& sink) noexcept;
template <class Code = std::uint32_t>
block* find_smaller_nbxy(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                         std::int32_t axis, pair_sink& sink) noexcept;
template <class Code = std::uint32_t>
block* find_smaller_nbz(const run_context& ctx, block* p, blocklist list, std::int32_t lvl,
                        pair_sink& sink) noexcept;
template <class Code = std::uint32_t>
block* make_one_region(run_context& ctx, block* b) noexcept;

// Follows absorbed regions to their absorbers until the entry names a live
// region. An absorbed head names its absorber itself (see block), so no
// forwarding entry is visited.
inline block* resolve(const run_context& ctx, nb_node* e) noexcept {
  block* r = ctx.block_at(e->region);
  while (r->region_pointer == 0) {
    e->region = r->nb_pointers[1];
    r = ctx.block_at(e->region);
  }
  return r;
}

// The number of a new walk over neighbour lists. When the numbers run out,
// every head from `heads` on (along next_region) is unmarked and they start
// again; the regions met in walks hold live heads only, and those are all there.
std::uint32_t next_visit(run_context& ctx, regionlist heads) noexcept;

void unite(run_context& ctx, block* a, block* b, nb_node* e) noexcept;
void unite_disp(run_context& ctx, block* a, block* b, nb_node* e) noexcept;

// Both fail with status_no_memory (fresh entries for a list could not be had) or
// status_interrupted; the caller then releases the list it passed in.
list_result<regionlist> sequential_grouping(run_context& ctx, regionlist head) noexcept;
list_result<regionlist> sequential_grouping_disp(run_context& ctx, regionlist head) noexcept;

list_result<regionlist> parallel_grouping(run_context& ctx, regionlist head);
list_result<regionlist> parallel_grouping_disp(run_context& ctx, regionlist head);

// Removes entry e (whose predecessor is prev, or none) from r's list and
// releases it; returns the entry that followed it.
nb_node* remove_entry(run_context& ctx, block* r, nb_node* prev, nb_node* e) noexcept;

}  // namespace splitmerge
