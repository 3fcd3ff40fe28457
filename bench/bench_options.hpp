// Command-line options shared by the whole-run and phase programs: the image,
// the case name for the table, the repetitions, and the run parameters, which
// start from the benchmark's standard set.
#pragma once

#include <cstdint>
#include <string>

#include "splitmerge/splitmerge.hpp"

namespace splitmerge::bench {

struct bench_options {
  std::string image;  // an int32 .npy file
  std::string name;   // the case, as the table names it
  std::int32_t repetitions = 5;
  bool display = false;
  std::int32_t threads = 1;  // --threads: 1 single-threaded, 0 every core
  // --memory-limit: bytes a run may need at worst; 0 the memory available.
  std::uint64_t memory_limit = 0;
  parameters params;
};

// The standard parameters of the benchmark table.
parameters standard_parameters();

// Parses --image, --name, --reps, --display and one option per parameter
// (--pred, --sigma, --threshold-row, --interval, --init-level, --small-size,
// --statistic-update, --group-mode, --max-seed) and --threads. Throws std::runtime_error
// with a usage line on anything else.
bench_options parse_bench_options(int argc, char** argv);

}  // namespace splitmerge::bench
