// One kind of record of a run (blocks or neighbour entries) in one array,
// named by 32-bit indices. Index 0 is never handed out: it is the empty link.
//
// The array's address range is reserved once, at the most records the run
// can hold, so records never move and a pointer stays valid for the whole
// run; pages become memory only when first written. Growth beyond the
// records in use is granted chunk by chunk by the run allocator, so an
// allocation failure can strike at every growth step exactly as a failed
// chunk request would. Released records go on a free list; when the last
// one is released the whole array goes back in one step.
#pragma once

#include <cstddef>
#include <cstdint>

#include "context/allocator.hpp"

// Sanitizer builds mark released records (and the reserved range not yet
// handed out) as unaddressable, so a use after release is still caught.
#if defined(__SANITIZE_ADDRESS__)
#define SPLITMERGE_ARENA_POISON 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SPLITMERGE_ARENA_POISON 1
#endif
#endif
#ifdef SPLITMERGE_ARENA_POISON
#include <sanitizer/asan_interface.h>
#define SPLITMERGE_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define SPLITMERGE_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define SPLITMERGE_POISON(p, n) ((void)(p), (void)(n))
#define SPLITMERGE_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace splitmerge {

// Records granted per allocator request.
inline constexpr std::uint32_t arena_default_chunk = std::uint32_t{1} << 16;
// Contexts built by hand (tests) hold a few records without a bound: an
// arena reserves at least this many.
inline constexpr std::size_t arena_minimum_capacity = 4096;

template <class T, std::uint32_t T::*FreeLink>
class record_arena {
 public:
  record_arena(run_allocator& allocator, alloc_site site) : allocator_(allocator), site_(site) {}
  record_arena(const record_arena&) = delete;
  record_arena& operator=(const record_arena&) = delete;
  ~record_arena() { release_all(); }

  // The most records the run can hold at once; takes effect at the next
  // reservation.
  void set_capacity(std::size_t n) noexcept { capacity_ = n; }
  // Records per growth step; failure sweeps make it small so that a failure
  // can strike in the middle of every phase that makes records.
  void set_chunk(std::uint32_t n) noexcept { chunk_ = n < 1 ? 1 : n; }

  // A zero-filled record, or nullptr when memory (or the capacity) ran out.
  T* obtain() noexcept {
    if (base_ == nullptr && !reserve()) return nullptr;
    std::uint32_t i = free_;
    if (i != 0) {
      SPLITMERGE_UNPOISON(base_ + i, sizeof(T));
      free_ = base_[i].*FreeLink;
    } else {
      if (used_ == granted_) {
        if (granted_ == limit_ || !grow()) {
          if (live_ == 0) release_all();  // nothing holds the range
          return nullptr;
        }
      }
      i = used_++;
      SPLITMERGE_UNPOISON(base_ + i, sizeof(T));
    }
    ++live_;
    base_[i] = T{};
    return base_ + i;
  }

  // n fresh records with consecutive indices, left uninitialised; the index
  // of the first, or 0 when memory (or the capacity) ran out. Nothing is
  // taken when it fails.
  std::uint32_t obtain_range(std::uint32_t n) noexcept {
    if (n == 0) return 0;
    if (base_ == nullptr && !reserve()) return 0;
    if (std::size_t{limit_} - used_ < n) {
      if (live_ == 0) release_all();
      return 0;
    }
    while (granted_ - used_ < n) {
      if (!grow()) {
        if (live_ == 0) release_all();
        return 0;
      }
    }
    const std::uint32_t first = used_;
    SPLITMERGE_UNPOISON(base_ + first, std::size_t{n} * sizeof(T));
    used_ += n;
    live_ += n;
    return first;
  }

  void release(T* p) noexcept {
    if (p == nullptr) return;
    p->*FreeLink = free_;
    free_ = static_cast<std::uint32_t>(p - base_);
    SPLITMERGE_POISON(p, sizeof(T));
    if (--live_ == 0) release_all();
  }

  // Gives back every record at once.
  void release_all() noexcept {
    if (base_ != nullptr) {
      SPLITMERGE_UNPOISON(base_, std::size_t{limit_} * sizeof(T));
      allocator_.ungrant(std::size_t{granted_ - 1} * sizeof(T));
    }
    allocator_.release(base_);
    base_ = nullptr;
    used_ = granted_ = limit_ = free_ = 0;
    live_ = 0;
  }

  // Calls f(i) for every released record i not handed out again.
  template <class F>
  void for_each_released(F&& f) const noexcept {
    for (std::uint32_t i = free_; i != 0;) {
      SPLITMERGE_UNPOISON(base_ + i, sizeof(T));
      const std::uint32_t next = base_[i].*FreeLink;
      SPLITMERGE_POISON(base_ + i, sizeof(T));
      f(i);
      i = next;
    }
  }

  [[nodiscard]] T* at(std::uint32_t i) const noexcept { return i == 0 ? nullptr : base_ + i; }
  // The array itself, for hot loops that index it with links known not to be
  // empty; fixed for the life of the reservation.
  [[nodiscard]] T* data() const noexcept { return base_; }
  [[nodiscard]] std::uint32_t id(const T* p) const noexcept {
    return p == nullptr ? 0 : static_cast<std::uint32_t>(p - base_);
  }
  // Every index handed out so far lies below this bound.
  [[nodiscard]] std::uint32_t end() const noexcept { return used_; }
  [[nodiscard]] std::uint32_t limit() const noexcept { return limit_; }
  [[nodiscard]] std::int64_t live() const noexcept { return live_; }

 private:
  bool reserve() noexcept {
    const std::size_t n =
        (capacity_ < arena_minimum_capacity ? arena_minimum_capacity : capacity_) + 1;
    if (n > std::size_t{0xFFFFFFFFu}) return false;
    base_ = static_cast<T*>(allocator_.reserve(n * sizeof(T), site_));
    if (base_ == nullptr) return false;
    limit_ = static_cast<std::uint32_t>(n);
    used_ = granted_ = 1;  // index 0 is the empty link
    SPLITMERGE_POISON(base_, n * sizeof(T));
    free_ = 0;
    return true;
  }

  // Grants the next chunk of the reserved range; false when the allocator
  // refuses it.
  bool grow() noexcept {
    const std::uint32_t next = limit_ - granted_ > chunk_ ? granted_ + chunk_ : limit_;
    if (!allocator_.grant(site_, std::size_t{next - granted_} * sizeof(T))) return false;
    granted_ = next;
    return true;
  }

  run_allocator& allocator_;
  alloc_site site_;
  T* base_ = nullptr;
  std::size_t capacity_ = 0;
  std::uint32_t chunk_ = arena_default_chunk;
  std::uint32_t used_ = 0;     // next index never handed out
  std::uint32_t granted_ = 0;  // indices below this may be handed out
  std::uint32_t limit_ = 0;    // size of the reserved range
  std::uint32_t free_ = 0;     // first released record, 0 when none
  std::int64_t live_ = 0;
};

}  // namespace splitmerge
