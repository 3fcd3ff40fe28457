// The library entry: stores a run's parameters, builds its tables, runs the
// phases in order and writes the results.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "context/run_context.hpp"
#include "records/records.hpp"
#include "splitmerge/splitmerge.hpp"

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
  const std::uint8_t* image8 = nullptr;  // 8-bit pixels in place of image
};

// A parameter that makes no valid run: its name, its value as text and what
// is allowed, where options are written {name} or {name=value} so that each
// front end can spell them its own way. An empty parameter: no problem.
struct parameter_problem {
  std::string parameter;
  std::string value;
  std::string allowed;
  // "invalid parameter NAME = VALUE: ALLOWED", options spelled as in the code.
  [[nodiscard]] std::string library_text() const;
};

// The text with its {name} and {name=value} options spelled as in the code.
std::string library_wording(std::string_view text);

// The first problem of the arguments, pixels left out.
parameter_problem find_parameter_problem(const run_arguments& a);
// Empty when every pixel lies in 0..255, else the first one outside.
std::string find_bad_pixel(const run_arguments& a);

run_arguments arguments_of(const image_view& image, const parameters& p);

// segment(), for a caller that has checked every pixel itself (pixels_checked)
// and so saves the library's own scan.
segmentation segment_run(const image_view& image, parameters p, const options& opts,
                         bool pixels_checked);

// Empty when the arguments describe a valid run; otherwise one line (without
// newline) that names the parameter, its value and what is allowed.
std::string validate_parameters(const run_arguments& a);

// The output's contents are unspecified when the run fails: the phases use
// it as scratch until the label image is written.
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

// The phases up to the sorted region list; `voxel_scratch` (a word per
// voxel, or none) may be overwritten by them.
list_result<regionlist> split_merge(run_context& ctx, std::int32_t display,
                                    std::int32_t* voxel_scratch = nullptr);
void free_variables(run_context& ctx) noexcept;

}  // namespace splitmerge
