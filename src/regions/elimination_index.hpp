// Finds, in a long neighbour list, the first entry that stands for a given
// region without walking the list: a table maps (list owner, named block) to
// the first entry of that list naming the block, and the entries of indexed
// lists have order keys (kept beside the entries, by entry index) that compare
// their positions within one list. Most (owner, block) pairs have a slot of
// their own, by named block: a block is rarely named by two indexed lists at
// once, and then the later pair goes to a small hash table. When memory runs
// short the phase fails, like any other. A long list or table walk polls the
// run's interrupt as it goes and, when asked to stop, fails the same way
// (the index is then of no further use).
#pragma once

#include <cstddef>
#include <cstdint>

#include "context/run_context.hpp"
#include "records/records.hpp"

namespace splitmerge {

class run_context;

class elimination_index {
 public:
  explicit elimination_index(run_context& ctx) : ctx_(ctx) {}
  elimination_index(const elimination_index&) = delete;
  elimination_index& operator=(const elimination_index&) = delete;
  ~elimination_index() { release(); }

  // The first entry of owner's list that names a block of r's chain (and so
  // stands for r), or null when there is none. A list is indexed the first
  // time it is asked about; most lists never are. `failed` is set when the
  // index could not get memory.
  [[nodiscard]] nb_node* first_entry_for(block* owner, const block* r, bool& failed) noexcept;

  // Whether owner's list is indexed (it then stays so).
  [[nodiscard]] bool indexed(const block* owner) const noexcept {
    return marks_ != nullptr && (marks_[ctx_.id(owner)] & indexed_list) != 0;
  }

  // Records a union of r into owner at entry e: e now names another block and
  // r's entries from `spliced_first` to `spliced_last` follow e. Only indexed
  // lists need it; false when memory ran short.
  [[nodiscard]] bool after_union(block* owner, nb_node* e, nb_node* spliced_first,
                                 nb_node* spliced_last) noexcept;

 private:
  // Indices, not pointers: the table is touched at random, and small slots
  // halve the memory it moves. An empty slot has no first entry.
  struct slot {
    block_id owner;
    block_id named;
    entry_id first;
  };
  // The slot of a named block, by block index: the pair (owner, that block).
  struct direct_slot {
    block_id owner;
    entry_id first;
  };

  void release() noexcept;
  std::uint64_t& order_of(const nb_node* e) const noexcept { return orders_[ctx_.id(e)]; }
  bool spread(nb_node* first) noexcept;
  bool allocate(std::size_t capacity) noexcept;
  bool prepare() noexcept;
  bool note(block_id owner, nb_node* e) noexcept;
  [[nodiscard]] std::size_t find(block_id owner, block_id named) const noexcept;
  [[nodiscard]] entry_id first_of(block_id owner, block_id named) const noexcept;
  bool grow(std::size_t extra) noexcept;
  bool index_list(block* owner) noexcept;

  run_context& ctx_;
  slot* slots_ = nullptr;  // pairs whose direct slot another list holds
  // Order keys by entry index: they compare positions within one list.
  std::uint64_t* orders_ = nullptr;
  direct_slot* direct_ = nullptr;  // by named block
  // By block: whether its list is indexed, and whether the table holds pairs
  // naming it (else no lookup there is needed).
  static constexpr std::uint8_t indexed_list = 1;
  static constexpr std::uint8_t in_table = 2;
  std::uint8_t* marks_ = nullptr;
  std::size_t capacity_ = 0;  // a power of two
  std::size_t used_ = 0;
};

}  // namespace splitmerge
