// Neighbour lists built by hand for the elimination index. Only this helper
// builds records, so the tests that use it speak of list positions alone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "context/run_context.hpp"
#include "records/records.hpp"
#include "regions/elimination_index.hpp"

namespace splitmerge::testing {

// The owner's list names, entry by entry, blocks 0, 1, ... of `names`; the
// region asked about is the chain of the blocks `chain` (head first). Returns
// the position of the entry that the index gives for that region, or -1.
inline int indexed_first_entry(const std::vector<int>& names, const std::vector<int>& chain) {
  int blocks = 0;
  for (const int n : names) blocks = std::max(blocks, n + 1);
  for (const int c : chain) blocks = std::max(blocks, c + 1);
  run_context ctx;
  std::vector<block*> named(static_cast<std::size_t>(blocks));
  for (block*& b : named) {
    b = new_block(ctx);
    b->region_pointer = ctx.id(b);
  }
  for (std::size_t i = 0; i + 1 < chain.size(); ++i)
    named[static_cast<std::size_t>(chain[i])]->next_block =
        ctx.id(named[static_cast<std::size_t>(chain[i + 1])]);
  std::vector<nb_node*> entries;
  for (const int n : names)
    entries.push_back(new_nb_node(ctx, named[static_cast<std::size_t>(n)], nullptr));
  for (std::size_t i = 0; i + 1 < entries.size(); ++i) entries[i]->next = ctx.id(entries[i + 1]);
  block* owner = new_block(ctx);
  owner->region_pointer = ctx.id(owner);
  owner->nb_pointers[0] = entries.empty() ? 0 : ctx.id(entries.front());
  owner->nb_pointers[1] = entries.empty() ? 0 : ctx.id(entries.back());
  int position = -1;
  {
    elimination_index index(ctx);
    bool failed = false;
    const nb_node* found =
        index.first_entry_for(owner, named[static_cast<std::size_t>(chain.front())], failed);
    if (failed) position = -2;
    for (std::size_t i = 0; i < entries.size(); ++i)
      if (entries[i] == found) position = static_cast<int>(i);
  }
  ctx.release_records();
  return position;
}

}  // namespace splitmerge::testing
