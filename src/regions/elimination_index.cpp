#include "regions/elimination_index.hpp"

#include <bit>

#include "context/run_context.hpp"

namespace splitmerge {

namespace {

// Order keys of a list are spread evenly over [0, order_end), so that many
// splices fit between two entries before the list must be renumbered.
constexpr std::uint64_t order_end = std::uint64_t{1} << 62;

// Record addresses share their low bits; mix every bit into the low ones.
std::size_t hash_of(block_id owner, block_id named) noexcept {
  std::uint64_t h = (std::uint64_t{owner} << 32 | named) * 0x9E3779B97F4A7C15ull;
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ull;
  h ^= h >> 33;
  return static_cast<std::size_t>(h);
}

}  // namespace

// Gives the entries of a list evenly spread order keys; false when interrupted.
bool elimination_index::spread(nb_node* first) noexcept {
  loop_poll poll(ctx_);
  std::uint64_t n = 0;
  for (const nb_node* e = first; e != nullptr; e = ctx_.entry_at(e->next)) {
    if (poll.due()) return false;
    ++n;
  }
  const std::uint64_t step = order_end / (n + 1);
  std::uint64_t order = 0;
  for (nb_node* e = first; e != nullptr; e = ctx_.entry_at(e->next)) {
    if (poll.due()) return false;
    order += step;
    order_of(e) = order;
  }
  return true;
}

void elimination_index::release() noexcept {
  ctx_.allocator.release(slots_);
  slots_ = nullptr;
  ctx_.allocator.release(orders_);
  orders_ = nullptr;
  ctx_.allocator.release(direct_);
  direct_ = nullptr;
  ctx_.allocator.release(marks_);
  marks_ = nullptr;
  capacity_ = 0;
  used_ = 0;
}

// The tables by entry and by block, made when the first list is indexed.
bool elimination_index::prepare() noexcept {
  if (marks_ != nullptr) return true;
  // One key per entry made so far (the elimination makes none); only the
  // keys of indexed lists are ever written.
  orders_ = static_cast<std::uint64_t*>(ctx_.allocator.allocate_uninitialised(
      std::size_t{ctx_.entries.end()} * sizeof(std::uint64_t), alloc_site::elimination_index));
  if (orders_ == nullptr) return false;
  const std::size_t blocks = ctx_.blocks.end();
  direct_ = create_array<direct_slot>(ctx_, blocks, alloc_site::elimination_index);
  if (direct_ == nullptr) return false;
  marks_ = create_array<std::uint8_t>(ctx_, blocks, alloc_site::elimination_index);
  return marks_ != nullptr;
}

bool elimination_index::allocate(std::size_t capacity) noexcept {
  slots_ = create_array<slot>(ctx_, capacity, alloc_site::elimination_index);
  capacity_ = slots_ != nullptr ? capacity : 0;
  used_ = 0;
  return slots_ != nullptr;
}

std::size_t elimination_index::find(block_id owner, block_id named) const noexcept {
  const std::size_t mask = capacity_ - 1;
  std::size_t i = hash_of(owner, named) & mask;
  while (slots_[i].first != 0 && (slots_[i].owner != owner || slots_[i].named != named))
    i = (i + 1) & mask;
  return i;
}

entry_id elimination_index::first_of(block_id owner, block_id named) const noexcept {
  if (direct_[named].owner == owner) return direct_[named].first;
  return (marks_[named] & in_table) == 0 ? 0 : slots_[find(owner, named)].first;
}

// Each pair (owner, named) has one slot: the direct one, or one in the table.
bool elimination_index::note(block_id owner, nb_node* e) noexcept {
  const block_id named = e->region;
  direct_slot& d = direct_[named];
  if (d.owner == owner) {
    if (order_of(e) < order_of(ctx_.entry_at(d.first))) d.first = ctx_.id(e);
    return true;
  }
  // A direct slot of an absorbed owner is never asked again and may be taken,
  // unless the pair already lives in the table.
  const bool taken = d.first != 0 && ctx_.block_at(d.owner)->region_pointer != 0;
  if (!taken && ((marks_[named] & in_table) == 0 || slots_[find(owner, named)].first == 0)) {
    d = direct_slot{owner, ctx_.id(e)};
    return true;
  }
  if (!grow(1)) return false;
  slot& s = slots_[find(owner, named)];
  if (s.first == 0) {
    s = slot{owner, named, ctx_.id(e)};
    ++used_;
    marks_[named] |= in_table;
  } else if (order_of(e) < order_of(ctx_.entry_at(s.first))) {
    s.first = ctx_.id(e);
  }
  return true;
}

bool elimination_index::index_list(block* owner) noexcept {
  if (!prepare()) return false;
  loop_poll poll(ctx_);
  std::size_t n = 0;
  for (const nb_node* e = ctx_.entry_at(owner->nb_pointers[0]); e != nullptr;
       e = ctx_.entry_at(e->next)) {
    if (poll.due()) return false;
    ++n;
  }
  const std::uint64_t step = order_end / (n + 1);
  std::uint64_t order = 0;
  const block_id id = ctx_.id(owner);
  for (nb_node* e = ctx_.entry_at(owner->nb_pointers[0]); e != nullptr;
       e = ctx_.entry_at(e->next)) {
    order += step;
    order_of(e) = order;
    if (poll.due() || !note(id, e)) return false;
  }
  marks_[id] |= indexed_list;
  return true;
}

nb_node* elimination_index::first_entry_for(block* owner, const block* r, bool& failed) noexcept {
  if (owner->nb_pointers[0] == 0) return nullptr;
  if (!indexed(owner) && !index_list(owner)) {
    failed = true;
    return nullptr;
  }
  const block_id id = ctx_.id(owner);
  nb_node* best = nullptr;
  for (const block* b = r; b != nullptr; b = ctx_.block_at(b->next_block)) {
    nb_node* e = ctx_.entry_at(first_of(id, ctx_.id(b)));
    if (e != nullptr && (best == nullptr || order_of(e) < order_of(best))) best = e;
  }
  return best;
}

bool elimination_index::grow(std::size_t extra) noexcept {
  if (2 * (used_ + extra) <= capacity_) return true;
  // Rebuild without the pairs of absorbed lists, which are never asked again.
  slot* old = slots_;
  const std::size_t old_capacity = capacity_;
  std::size_t live = extra;
  loop_poll poll(ctx_);
  for (std::size_t i = 0; i < old_capacity; ++i) {
    if (poll.due()) return false;
    if (old[i].first != 0 && ctx_.block_at(old[i].owner)->region_pointer != 0) ++live;
  }
  slots_ = nullptr;
  if (!allocate(std::bit_ceil(4 * live + 1024))) {
    ctx_.allocator.release(old);
    return false;
  }
  for (std::size_t i = 0; i < old_capacity; ++i) {
    if (poll.due()) {
      ctx_.allocator.release(old);
      return false;
    }
    if (old[i].first == 0 || ctx_.block_at(old[i].owner)->region_pointer == 0) continue;
    slots_[find(old[i].owner, old[i].named)] = old[i];
    ++used_;
  }
  ctx_.allocator.release(old);
  return true;
}

bool elimination_index::after_union(block* owner, nb_node* e, nb_node* spliced_first,
                                    nb_node* spliced_last) noexcept {
  if (!indexed(owner)) return true;
  if (spliced_first != nullptr) {
    std::size_t count = 1;
    for (nb_node* s = spliced_first; s != spliced_last; s = ctx_.entry_at(s->next)) ++count;
    // Order keys between e and the entry after the spliced ones; where the
    // keys there are too dense, widen the renumbered stretch forward until
    // every entry in it gets room, rather than renumbering the whole list.
    constexpr std::uint64_t room = std::uint64_t{1} << 24;
    const std::uint64_t lo = order_of(e);
    nb_node* end = ctx_.entry_at(spliced_last->next);
    std::uint64_t n = count;
    std::uint64_t hi = end != nullptr ? order_of(end) : order_end;
    while (end != nullptr && (hi - lo) / (n + 1) < room) {
      end = ctx_.entry_at(end->next);
      ++n;
      hi = end != nullptr ? order_of(end) : order_end;
    }
    if (hi - lo > n) {
      const std::uint64_t step = (hi - lo) / (n + 1);
      std::uint64_t order = lo;
      for (nb_node* s = spliced_first; s != end; s = ctx_.entry_at(s->next)) {
        order += step;
        order_of(s) = order;
      }
    } else if (!spread(ctx_.entry_at(owner->nb_pointers[0]))) {
      return false;
    }
  }
  const block_id id = ctx_.id(owner);
  if (!note(id, e)) return false;
  for (nb_node* s = spliced_first; s != nullptr; s = ctx_.entry_at(s->next)) {
    if (!note(id, s)) return false;
    if (s == spliced_last) break;
  }
  return true;
}

}  // namespace splitmerge
