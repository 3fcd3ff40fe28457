// The predicates of the region phases on plain statistics. Only this helper
// builds records, so the tests that use it read and write numbers alone.
#pragma once

#include <cstdint>

#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"

namespace splitmerge::testing {

// A region's two statistics: (sum, pixel count) for pred_choice 2, 4 and 5,
// (smallest, largest value) for pred_choice 1 and 3.
struct region_stats {
  std::int64_t first = 0;
  std::int64_t second = 0;
  friend bool operator==(const region_stats&, const region_stats&) = default;
};

class region_predicates {
 public:
  region_predicates(std::int32_t pred_choice, std::int32_t interval_length) {
    ctx_.pred_choice = pred_choice;
    ctx_.interval_length = interval_length;
  }

  // Whether the growth test lets `candidate` join `region`.
  [[nodiscard]] bool grows(region_stats region, region_stats candidate) const {
    block r = record(region);
    block c = record(candidate);
    return eval_grow(ctx_, &r, &c) != 0;
  }
  // The statistics of the union of b into a.
  [[nodiscard]] region_stats united(region_stats a, region_stats b) const {
    block ra = record(a);
    const block rb = record(b);
    unite_predicates(ctx_, &ra, &rb);
    return {ra.variables[0], ra.variables[1]};
  }
  // The elimination's distance of b from a.
  [[nodiscard]] std::int64_t distance(region_stats a, region_stats b) const {
    const block ra = record(a);
    const block rb = record(b);
    return comp_evalvar(ctx_, &ra, &rb);
  }

 private:
  static block record(region_stats s) {
    block b;
    b.variables[0] = s.first;
    b.variables[1] = s.second;
    return b;
  }

  run_context ctx_;
};

}  // namespace splitmerge::testing
