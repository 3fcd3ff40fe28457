#include "context/allocator.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// Sanitizer builds hand every request to the general allocator, so that
// use-after-free and leaks of single records are still caught.
#if defined(__SANITIZE_ADDRESS__)
#define SPLITMERGE_POOL 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SPLITMERGE_POOL 0
#endif
#endif
#ifndef SPLITMERGE_POOL
#define SPLITMERGE_POOL 1
#endif

namespace splitmerge {

namespace {

// Every piece starts with a header: its size class, or, for memory from the
// general allocator, `large` plus the bytes counted for it. Records hold at
// most 8-byte fields, so pieces need only 8-byte alignment; large arrays keep
// the general allocator's.
struct header {
  std::size_t size_class;
};
static_assert(sizeof(header) == 8);
// The header of a reserved range; the header before it holds the length.
constexpr std::size_t reserved_range = ~std::size_t{0};
// The header of a large array mapped on its own (see map_array).
constexpr std::size_t mapped_array = ~std::size_t{0} - 1;

// Bytes counted for a request: small ones by their size class, whether or
// not the pool serves them, so that counts agree in every build.
std::size_t counted_size(std::size_t bytes, std::size_t granule, std::size_t small_limit) {
  if (bytes == 0) bytes = 1;
  return bytes <= small_limit ? (bytes + granule - 1) / granule * granule : bytes;
}

// Record arenas and large tables are read at random all through a run: on
// large pages they miss the address cache far less, and take a page fault
// per 2 MiB instead of per 4 KiB. Only a hint; the system may refuse. Ranges
// below `from` stay on small pages: a small image's arena reserves far more
// than it uses, and zeroing a whole large page for a few hundred records
// costs more than it saves.
void prefer_large_pages(void* p, std::size_t bytes, std::size_t from) noexcept {
  constexpr std::uintptr_t large_page = std::uintptr_t{2} << 20;
  if (!SPLITMERGE_POOL || bytes < from) return;
  const auto begin = (reinterpret_cast<std::uintptr_t>(p) + large_page - 1) & ~(large_page - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(p) + bytes) & ~(large_page - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

// Arrays from this size on (a run's tables of a value per voxel or per block)
// are mapped on their own, aligned to large pages: the general allocator
// would start them just past a page boundary, and no large page would fit.
constexpr std::size_t mapped_from = std::size_t{16} << 20;

// A fresh zero-filled mapping holding `bytes` from a large-page boundary. The
// headers before it hold, nearest first: the mark, the mapping's start, the
// bytes counted and the mapping's length.
void* map_array(std::size_t bytes, std::size_t counted, alloc_site site) noexcept {
  constexpr std::size_t large_page = std::size_t{2} << 20;
  const std::size_t length = bytes + large_page;
  void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  const auto start = reinterpret_cast<std::uintptr_t>(p);
  auto* h =
      reinterpret_cast<header*>((start + 4 * sizeof(header) + large_page - 1) & ~(large_page - 1));
  h[-1].size_class = mapped_array;
  h[-2].size_class = start;
  h[-3].size_class = counted;
  h[-4].size_class = length;
  // The elimination's tables are written here and there: on large pages
  // every scattered write would make 2 MiB resident.
  if (site != alloc_site::elimination_index) prefer_large_pages(h, bytes, 0);
  return h;
}

}  // namespace

run_allocator::~run_allocator() {
  while (slabs_ != nullptr) {
    slab* next = slabs_->next;
    std::free(slabs_);
    slabs_ = next;
  }
}

bool run_allocator::admit(alloc_site site, std::size_t counted) noexcept {
  ++requests_;
  requested_[static_cast<std::size_t>(site)] = true;
  if (requests_ == fail_at_) {
    failed_[static_cast<std::size_t>(site)] = true;
    return false;
  }
  if (budget_ != 0 && counted > budget_ - std::min(budget_, live_bytes_)) {
    if (refused_bytes_ == 0) {
      refused_bytes_ = counted;
      held_at_refusal_ = live_bytes_;
    }
    return false;
  }
  return true;
}

void* run_allocator::obtain(std::size_t bytes, std::size_t counted, alloc_site site) noexcept {
  if (bytes == 0) bytes = 1;
  if (SPLITMERGE_POOL && bytes >= mapped_from) {
    void* p = map_array(bytes, counted, site);
    if (p != nullptr) count(counted);
    return p;
  }
  if (SPLITMERGE_POOL && bytes <= small_limit) {
    const std::size_t c = (bytes - 1) / granule;
    if (free_[c] == nullptr) {
      // A new slab, twice the size of the last one of this class.
      const std::size_t piece = sizeof(header) + (c + 1) * granule;
      const std::size_t pieces = slab_pieces_[c] == 0 ? 256 : 2 * slab_pieces_[c];
      auto* s = static_cast<slab*>(std::malloc(sizeof(header) + pieces * piece));
      if (s == nullptr) return nullptr;
      slab_pieces_[c] = pieces < (std::size_t{1} << 16) ? pieces : (std::size_t{1} << 16);
      s->next = slabs_;
      slabs_ = s;
      auto* base = reinterpret_cast<unsigned char*>(s) + sizeof(header);
      for (std::size_t i = pieces; i-- > 0;) {
        auto* f = reinterpret_cast<free_piece*>(base + i * piece);
        f->next = free_[c];
        free_[c] = f;
      }
    }
    free_piece* f = free_[c];
    free_[c] = f->next;
    auto* h = reinterpret_cast<header*>(f);
    h->size_class = c;
    count((c + 1) * granule);
    return h + 1;
  }
  auto* h = static_cast<header*>(std::malloc(sizeof(header) + bytes));
  if (h == nullptr) return nullptr;
  h->size_class = class_count + counted;
  count(counted);
  return h + 1;
}

void* run_allocator::allocate(std::size_t bytes, alloc_site site) noexcept {
  if (!admit(site, counted_size(bytes, granule, small_limit))) return nullptr;
  if (!SPLITMERGE_POOL || (bytes > small_limit && bytes < mapped_from)) {
    // Large zero-filled memory straight from calloc: fresh pages are zero
    // already, so the parts a run never writes never become memory.
    auto* h = static_cast<header*>(std::calloc(1, sizeof(header) + bytes));
    if (h == nullptr) return nullptr;
    const std::size_t counted = counted_size(bytes, granule, small_limit);
    h->size_class = class_count + counted;
    count(counted);
    ++live_;
    return h + 1;
  }
  // A pool piece, or a fresh mapping (zero already).
  void* p = obtain(bytes, counted_size(bytes, granule, small_limit), site);
  if (p == nullptr) return nullptr;
  if (bytes <= small_limit) std::memset(p, 0, bytes);
  ++live_;
  return p;
}

void* run_allocator::allocate_uninitialised(std::size_t bytes, alloc_site site) noexcept {
  if (!admit(site, counted_size(bytes, granule, small_limit))) return nullptr;
  void* p = obtain(bytes, counted_size(bytes, granule, small_limit), site);
  if (p != nullptr) ++live_;
  return p;
}

void* run_allocator::reserve(std::size_t bytes, alloc_site site) noexcept {
  if (!admit(site, 0)) return nullptr;
  // Address space only: the system commits no memory for it, so a range
  // sized for the largest image is granted even where the system refuses
  // to promise that much memory; pages become memory when first written.
  const std::size_t length = 2 * sizeof(header) + (bytes == 0 ? 1 : bytes);
  void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  auto* h = static_cast<header*>(p);
  h[0].size_class = length;
  h[1].size_class = reserved_range;
  ++live_;
  prefer_large_pages(h + 2, bytes, 32 * (std::size_t{2} << 20));
  return h + 2;
}

void run_allocator::release(void* p) noexcept {
  if (p == nullptr) return;
  --live_;
  header* h = static_cast<header*>(p) - 1;
  if (h->size_class == reserved_range) {
    munmap(h - 1, h[-1].size_class);
    return;
  }
  if (h->size_class == mapped_array) {
    live_bytes_ -= h[-2].size_class;
    munmap(reinterpret_cast<void*>(h[-1].size_class), h[-3].size_class);
    return;
  }
  if (h->size_class >= class_count) {
    live_bytes_ -= h->size_class - class_count;
    std::free(h);
    return;
  }
  live_bytes_ -= (h->size_class + 1) * granule;
  const std::size_t c = h->size_class;  // read before the link overwrites it
  auto* f = reinterpret_cast<free_piece*>(h);
  f->next = free_[c];
  free_[c] = f;
}

}  // namespace splitmerge
