// The program from parsed settings to written results.
#pragma once

#include "command_line.hpp"

namespace splitmerge::tool {

inline constexpr int exit_success = 0;
inline constexpr int exit_run_failed = 1;
inline constexpr int exit_bad_input = 2;
// The run would take more memory than its budget, or the machine ran out.
inline constexpr int exit_out_of_memory = 3;

// Returns the exit status; messages go to standard error, progress lines to
// standard output.
int run(const tool_settings& settings);

}  // namespace splitmerge::tool
