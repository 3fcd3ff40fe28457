// Times each phase of a run (display off) over several repetitions and
// prints one JSON line: the median seconds of every phase, the number of
// blocks after the split, of neighbour entries after the adjacency, and of
// regions after cleaning, and a checksum of the label image, so that a faster
// version of a phase can be checked to give the same segmentation.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "bench_options.hpp"
#include "measure.hpp"
#include "npy_int32.hpp"
#include "phase_run.hpp"

using namespace splitmerge::bench;

namespace {

// FNV-1a over the labels.
std::uint64_t checksum(const std::vector<std::int32_t>& labels) {
  std::uint64_t h = 14695981039346656037ull;
  for (const std::int32_t v : labels) {
    h ^= static_cast<std::uint32_t>(v);
    h *= 1099511628211ull;
  }
  return h;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const bench_options o = parse_bench_options(argc, argv);
    const int32_image image = read_npy_int32(o.image);
    const splitmerge::run_arguments args = arguments_for(image.view(), o.params);
    std::vector<std::int32_t> labels(image.count());

    std::vector<std::vector<double>> seconds(phase_count);
    std::vector<double> totals;
    phase_result first;
    std::uint64_t labels_checksum = 0;
    for (std::int32_t rep = 0; rep < o.repetitions; ++rep) {
      // The neighbour entries are counted once, in the first run.
      const phase_result r = time_phases(args, labels.data(), rep == 0, o.threads);
      if (r.status != 0) {
        std::fprintf(stderr, "%s: a phase failed with status %d\n", o.name.c_str(), r.status);
        return 1;
      }
      if (rep == 0) {
        first = r;
        labels_checksum = checksum(labels);
      }
      double total = 0.0;
      for (std::size_t p = 0; p < phase_count; ++p) {
        seconds[p].push_back(r.seconds[p]);
        total += r.seconds[p];
      }
      totals.push_back(total);
    }

    json_line line;
    line.add("kind", "phases")
        .add("name", o.name)
        .add("voxels", static_cast<std::int64_t>(image.count()))
        .add("repetitions", o.repetitions)
        .add("group_mode", o.params.group_mode)
        .add("threads", o.threads)
        .add("leaves", first.leaves)
        .add("single_voxel_leaves", first.single_voxels)
        .add("neighbour_entries", first.neighbour_entries)
        .add("regions", first.regions)
        .add("labels_checksum", std::to_string(labels_checksum))
        .add("total_s", median(totals));
    for (std::size_t p = 0; p < phase_count; ++p)
      line.add(std::string(phase_names[p]) + "_s", median(seconds[p]));
    line.print();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 2;
  }
  return 0;
}
