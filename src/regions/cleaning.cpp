#include <algorithm>
#include <utility>

#include "context/run_context.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "regions/regions.hpp"

namespace splitmerge {

regionlist clean_regionlist(run_context& ctx, regionlist head) noexcept {
  ctx.number_regions = 0;
  block* first = head;
  while (first != nullptr && first->region_pointer == 0) first = ctx.block_at(first->next_region);
  loop_poll poll(ctx);
  const bool fetch_ahead = ctx.records_outgrow_cache();
  for (block* r = first; r != nullptr;) {
    ++ctx.number_regions;
    // A region met before in this walk carries its number: a repeat.
    const std::uint32_t visit = next_visit(ctx, first);
    nb_node* prev = nullptr;
    nb_node* e = ctx.entry_at(r->nb_pointers[0]);
    // The region of the entry `lookahead` places on is fetched early; every
    // step keeps that distance (a pulled successor shortens the list between).
    constexpr int lookahead = 12;
    nb_node* ahead = fetch_ahead ? e : nullptr;
    for (int i = 0; i < lookahead && ahead != nullptr; ++i) ahead = ctx.entry_at(ahead->next);
    while (e != nullptr) {
      if (poll.due()) return first;  // the lists whole, partly cleaned
      if (ahead != nullptr) {
        __builtin_prefetch(ctx.block_at(ahead->region));
        ahead = ctx.entry_at(ahead->next);
      }
      block* h = resolve(ctx, e);
      if (h->visit != visit) {
        h->visit = visit;
        h->status = 0;  // the neighbours' statuses are done with
        prev = e;
        e = ctx.entry_at(e->next);
        continue;
      }
      // A repeat: pull the successor into this entry, or cut off the tail.
      if (nb_node* s = ctx.entry_at(e->next); s != nullptr) {
        e->region = s->region;
        e->next = s->next;
        release_entry(ctx, s);
        if (e->next == 0) r->nb_pointers[1] = ctx.id(e);
      } else {
        prev->next = 0;
        r->nb_pointers[1] = ctx.id(prev);
        release_entry(ctx, e);
        e = nullptr;
      }
    }
    block* nx = ctx.block_at(r->next_region);
    while (nx != nullptr && nx->region_pointer == 0) nx = ctx.block_at(nx->next_region);
    r->next_region = ctx.id(nx);
    r = nx;
  }
  --ctx.number_regions;
  return first;
}

namespace {

// Suffix maxima of the sizes in lo..hi: a pivot at least as large as every
// later size leaves its range unchanged, so such steps need no scan.
void suffix_maxima(const sort_entry* entries, std::int32_t lo, std::int32_t hi,
                   std::uint32_t* scratch) noexcept {
  std::uint32_t m = 0;
  for (std::int32_t j = hi; j >= lo; --j) {
    m = std::max(m, entries[j].size);
    scratch[j] = m;
  }
}

std::int32_t partition_step(sort_entry* entries, std::int32_t lo, std::int32_t hi) noexcept {
  const std::uint32_t pivot = entries[lo].size;
  std::int32_t m = lo;
  for (std::int32_t j = lo + 1; j <= hi; ++j) {
    if (entries[j].size > pivot) {
      ++m;
      std::swap(entries[m], entries[j]);
    }
  }
  std::swap(entries[lo], entries[m]);
  return m;
}

// Sorts lo..hi; scratch[lo..hi] holds the suffix maxima of that range.
void sort_range(sort_entry* entries, std::int32_t lo, std::int32_t hi,
                std::uint32_t* scratch) noexcept {
  while (lo < hi) {
    if (entries[lo].size >= scratch[lo + 1]) {
      ++lo;  // no later size is larger: the step would move nothing
      continue;
    }
    const std::int32_t m = partition_step(entries, lo, hi);
    // The two parts are independent; recurse into the smaller one so the
    // stack stays shallow, and go on with the larger one.
    const bool left_smaller = (m - 1 - lo) < (hi - m - 1);
    if (left_smaller) {
      suffix_maxima(entries, lo, m - 1, scratch);
      sort_range(entries, lo, m - 1, scratch);
      lo = m + 1;
    } else {
      suffix_maxima(entries, m + 1, hi, scratch);
      sort_range(entries, m + 1, hi, scratch);
      hi = m - 1;
    }
    if (lo < hi) suffix_maxima(entries, lo, hi, scratch);
  }
}

}  // namespace

void qsort(sort_entry* entries, std::int32_t lo, std::int32_t hi, std::uint32_t* scratch) noexcept {
  if (scratch == nullptr) {
    while (lo < hi) {
      const std::int32_t m = partition_step(entries, lo, hi);
      qsort(entries, lo, m - 1);
      lo = m + 1;
    }
    return;
  }
  if (lo >= hi) return;
  suffix_maxima(entries, lo, hi, scratch);
  sort_range(entries, lo, hi, scratch);
}

list_result<regionlist> sort_regionlist(run_context& ctx, regionlist head) noexcept {
  const auto n = static_cast<std::size_t>(ctx.number_regions) + 1;
  auto entries = create_array<sort_entry>(ctx, n, alloc_site::sort_array);
  if (entries == nullptr) return list_result<regionlist>::failure(status_no_memory);
  auto scratch = create_array<std::uint32_t>(ctx, n, alloc_site::sort_array);
  if (scratch == nullptr) {
    ctx.allocator.release(entries);
    return list_result<regionlist>::failure(status_no_memory);
  }
  std::size_t i = 0;
  // Every head keeps its region's pixel count: no chain walk.
  for (block* h = head; h != nullptr && i < n; h = ctx.block_at(h->next_region), ++i)
    entries[i] = sort_entry{h, h->pixels};
  qsort(entries, 0, ctx.number_regions, scratch);
  for (std::size_t j = 0; j + 1 < n; ++j)
    entries[j].head->next_region = ctx.id(entries[j + 1].head);
  entries[n - 1].head->next_region = 0;
  regionlist first = entries[0].head;
  ctx.allocator.release(scratch);
  ctx.allocator.release(entries);
  return list_result<regionlist>{first, 0};
}

}  // namespace splitmerge
