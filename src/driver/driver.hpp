// The library entry: stores a run's parameters, builds its tables, runs the
// phases in order and writes the results.
#pragma once

#include <cstdint>
#include <string>

#include "context/run_context.hpp"
#include "records/records.hpp"

namespace splitmerge {

// Everything the library entry is given, checked by validate_parameters.
struct run_arguments {
  const std::int32_t* image = nullptr;
  std::int32_t size_x = 0;
  std::int32_t size_y = 0;
  std::int32_t size_z = 0;
  std::int32_t max_level = 0;
  std::int32_t lim_oct_level = 0;
  std::int32_t init_level = 0;
  std::int32_t group_mode = 0;
  std::int32_t max_seed = 0;
  std::int32_t use_all_seeds = 0;
  std::int32_t pred_choice = 0;
  std::int32_t interval_length = 0;
  std::int32_t threshold_row = 0;
  std::int32_t small_size = 0;
  std::int32_t statistic_update = 0;
  double rejection = 0.0;
  double sigma = 0.0;
  double pseudo_factor = 0.0;
};

// Empty when the arguments describe a valid run; otherwise one line (without
// newline) that names the parameter, its value and what is allowed.
std::string validate_parameters(const run_arguments& a);

std::int32_t split_merge_group(run_context& ctx, const std::int32_t* image, std::int32_t size_x,
                               std::int32_t size_y, std::int32_t size_z, std::int32_t max_level,
                               std::int32_t lim_oct_level, std::int32_t* output,
                               std::int32_t init_level, std::int32_t group_mode,
                               std::int32_t max_seed, std::int32_t use_all_seeds,
                               std::int32_t pred_choice, std::int32_t interval_length,
                               std::int32_t threshold_row, std::int32_t small_size,
                               std::int32_t statistic_update, std::int32_t save_flag,
                               std::int32_t display, const char* filename, double rejection,
                               double sigma, double pseudo_factor);

// Stores the run's image and parameters in the context and builds the
// per-run tables and the first display frame (the set-up of a run, without
// validation). Returns 0 or -1.
std::int32_t prepare_run(run_context& ctx, const run_arguments& a);

list_result<regionlist> split_merge(run_context& ctx, std::int32_t display);
void free_variables(run_context& ctx) noexcept;

}  // namespace splitmerge
