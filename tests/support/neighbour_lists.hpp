// Neighbour lists built by hand for the elimination index. Only this helper
// builds records, so the tests that use it speak of list positions alone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "driver/run_context.hpp"
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
  std::vector<block> named(static_cast<std::size_t>(blocks));
  for (block& b : named) b.region_pointer = &b;
  for (std::size_t i = 0; i + 1 < chain.size(); ++i)
    named[static_cast<std::size_t>(chain[i])].next_block =
        &named[static_cast<std::size_t>(chain[i + 1])];
  std::vector<nb_node> entries(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    entries[i].region = &named[static_cast<std::size_t>(names[i])];
    entries[i].next = i + 1 < names.size() ? &entries[i + 1] : nullptr;
  }
  block owner;
  owner.region_pointer = &owner;
  owner.nb_pointers[0] = entries.empty() ? nullptr : &entries.front();
  owner.nb_pointers[1] = entries.empty() ? nullptr : &entries.back();
  run_context ctx;
  elimination_index index(ctx);
  const nb_node* found =
      index.first_entry_for(&owner, &named[static_cast<std::size_t>(chain.front())]);
  return found == nullptr ? -1 : static_cast<int>(found - entries.data());
}

}  // namespace splitmerge::testing
