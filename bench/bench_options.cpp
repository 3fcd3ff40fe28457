#include "bench_options.hpp"

#include <stdexcept>
#include <string_view>

namespace splitmerge::bench {

parameters standard_parameters() {
  parameters p;
  p.pred_choice = 4;
  p.sigma = 5.0;
  p.threshold_row = 3;
  p.interval_length = 10;
  p.init_level = 3;
  p.small_size = 30;
  p.statistic_update = 1;
  p.group_mode = 0;
  p.max_seed = 8;
  return p;
}

bench_options parse_bench_options(int argc, char** argv) {
  bench_options o;
  o.params = standard_parameters();
  const std::string usage =
      "usage: " + std::string(argc > 0 ? argv[0] : "bench") +
      " --image FILE.npy [--name NAME] [--reps N] [--display] [--pred P] [--sigma S]"
      " [--threshold-row T] [--interval I] [--init-level L] [--small-size N]"
      " [--statistic-update U] [--group-mode G] [--max-seed M] [--threads N]"
      " [--memory-limit BYTES]";
  for (int i = 1; i < argc; ++i) {
    const std::string_view key = argv[i];
    if (key == "--display") {
      o.display = true;
      continue;
    }
    if (i + 1 >= argc) throw std::runtime_error(usage);
    const std::string value = argv[++i];
    const auto number = [&] { return static_cast<std::int32_t>(std::stol(value)); };
    if (key == "--image") {
      o.image = value;
    } else if (key == "--name") {
      o.name = value;
    } else if (key == "--reps") {
      o.repetitions = number();
    } else if (key == "--pred") {
      o.params.pred_choice = number();
    } else if (key == "--sigma") {
      o.params.sigma = std::stod(value);
    } else if (key == "--threshold-row") {
      o.params.threshold_row = number();
    } else if (key == "--interval") {
      o.params.interval_length = number();
    } else if (key == "--init-level") {
      o.params.init_level = number();
    } else if (key == "--small-size") {
      o.params.small_size = number();
    } else if (key == "--statistic-update") {
      o.params.statistic_update = number();
    } else if (key == "--group-mode") {
      o.params.group_mode = number();
    } else if (key == "--max-seed") {
      o.params.max_seed = number();
    } else if (key == "--threads") {
      o.threads = number();
    } else if (key == "--memory-limit") {
      o.memory_limit = std::stoull(value);
    } else {
      throw std::runtime_error(usage);
    }
  }
  if (o.image.empty() || o.repetitions < 1) throw std::runtime_error(usage);
  if (o.name.empty()) o.name = o.image;
  return o;
}

}  // namespace splitmerge::bench
