// Region grouping: adjacency of the leaf blocks, sequential and parallel
// growing, and the union of two regions.
#pragma once

#include <cstdint>

#include "context/run_context.hpp"
#include "records/records.hpp"

namespace splitmerge {

class run_context;

list_result<regionlist> group_init(run_context& ctx, blocklist list) noexcept;
std::uint32_t find_adjacent(const run_context& ctx, std::uint32_t code, std::int32_t lvl,
                            std::int32_t axis) noexcept;
list_result<block*> find_smaller_nbxy(run_context& ctx, block* p, blocklist list,
                                      std::int32_t lvl, std::int32_t axis, nb_node*& front,
                                      block* cur) noexcept;
list_result<block*> find_smaller_nbz(run_context& ctx, block* p, blocklist list,
                                     std::int32_t lvl, nb_node*& front, block* cur) noexcept;
list_result<nb_node*> add_neighbour(run_context& ctx, nb_node* front, block* b,
                                    block* cur) noexcept;
block* make_one_region(run_context& ctx, block* b) noexcept;

// Follows forwarding entries until the entry names a live region.
inline block* resolve(const run_context& ctx, nb_node* e) noexcept {
  block* r = ctx.block_at(e->region);
  while (r->region_pointer == 0) {
    e->region = ctx.entry_at(r->nb_pointers[0])->region;
    r = ctx.block_at(e->region);
  }
  return r;
}

void unite(run_context& ctx, block* a, block* b, nb_node* e) noexcept;
void unite_disp(run_context& ctx, block* a, block* b, nb_node* e) noexcept;

regionlist sequential_grouping(run_context& ctx, regionlist head);
regionlist sequential_grouping_disp(run_context& ctx, regionlist head);
list_result<regionlist> parallel_grouping(run_context& ctx, regionlist head);
list_result<regionlist> parallel_grouping_disp(run_context& ctx, regionlist head);

// Removes entry e (whose predecessor is prev, or none) from r's list and
// releases it; returns the entry that followed it.
nb_node* remove_entry(run_context& ctx, block* r, nb_node* prev, nb_node* e) noexcept;

}  // namespace splitmerge
