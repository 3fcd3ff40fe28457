// Region list finishing: small region elimination, cleaning and sorting.
#pragma once

#include <cstdint>

#include "records/records.hpp"

namespace splitmerge {

class run_context;

// 0, status_no_memory (its index could not get memory) or status_interrupted;
// the lists stay consistent either way.
std::int32_t region_elimination(run_context& ctx, regionlist head) noexcept;
std::int32_t region_elimination_disp(run_context& ctx, regionlist head) noexcept;
// Stops early, leaving the lists whole, when the caller asks to (see
// run_context::interrupted).
regionlist clean_regionlist(run_context& ctx, regionlist head) noexcept;
list_result<regionlist> sort_regionlist(run_context& ctx, regionlist head) noexcept;

struct sort_entry {
  block* head;
  std::uint32_t size;
};
// Quicksort with the first entry as pivot, larger sizes first; the order of
// equal sizes is the one this exact procedure gives. `scratch` holds
// hi - lo + 1 values or is null (then the plain recursion runs).
void qsort(sort_entry* entries, std::int32_t lo, std::int32_t hi,
           std::uint32_t* scratch = nullptr) noexcept;

}  // namespace splitmerge
