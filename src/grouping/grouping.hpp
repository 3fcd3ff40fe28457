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

// The adjacency: every leaf a region with its list of neighbours.
// `voxel_scratch`, when given, is a word per voxel the phase may overwrite
// (the label image, before it is written).
template <class Code = std::uint32_t>
list_result<regionlist> group_init(run_context& ctx, blocklist list,
                                   std::int32_t* voxel_scratch = nullptr) noexcept;
template <class Code = std::uint32_t>
Code find_adjacent(const run_context& ctx, std::type_identity_t<Code> code, std::int32_t lvl,
                   std::int32_t axis) noexcept;

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
// The block half of a union: a's chain takes b's blocks and pixels, and b is
// absorbed (its list is left to the caller).
void join_blocks(const run_context& ctx, block* a, block* b) noexcept;
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
