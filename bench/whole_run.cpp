// Whole runs through the public entry segment(), as a caller sees them, and
// in the same process the two costs they are judged against:
//  - the floor: a fresh label image filled in one pass over the input, the
//    least any labelling of the image can cost;
//  - one display frame copy: a fresh frame filled from the previous one, what
//    the recorder pays per frame.
// Prints one JSON line with medians, the peak resident memory of the process,
// its resident memory before the first run (input image loaded) and a checksum
// of the last run's labels.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench_options.hpp"
#include "measure.hpp"
#include "npy_int32.hpp"

using namespace splitmerge::bench;

namespace {

double floor_pass_seconds(const int32_image& image, std::int32_t repetitions) {
  std::vector<double> times;
  std::int64_t keep = 0;  // makes the result observable
  for (std::int32_t rep = 0; rep < repetitions; ++rep) {
    const auto start = bench_clock::now();
    std::unique_ptr<std::int32_t[]> labels(new std::int32_t[image.count()]);
    const std::int32_t* in = image.pixels.data();
    for (std::size_t i = 0; i < image.count(); ++i) labels[i] = in[i] >> 7;
    times.push_back(seconds_between(start, bench_clock::now()));
    keep += labels[image.count() / 2];
  }
  if (keep < 0) std::puts("");
  return median(times);
}

// Frames stay alive together, as in a run, so every one lands on fresh pages.
double frame_copy_seconds(const int32_image& image) {
  constexpr int frames = 8;
  std::vector<std::unique_ptr<std::int32_t[]>> kept;
  std::vector<double> times;
  const std::int32_t* previous = image.pixels.data();
  for (int f = 0; f < frames; ++f) {
    const auto start = bench_clock::now();
    std::unique_ptr<std::int32_t[]> frame(new std::int32_t[image.count()]);
    std::copy(previous, previous + image.count(), frame.get());
    times.push_back(seconds_between(start, bench_clock::now()));
    previous = frame.get();
    kept.push_back(std::move(frame));
  }
  return median(times);
}

// FNV-1a over the labels: equal for equal label images, so runs of two
// versions or thread counts can be checked against each other cheaply.
std::string labels_checksum(const std::vector<std::int32_t>& labels) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const std::int32_t label : labels) {
    auto bits = static_cast<std::uint32_t>(label);
    for (int byte = 0; byte < 4; ++byte, bits >>= 8) {
      hash ^= bits & 0xffu;
      hash *= 1099511628211ull;
    }
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const bench_options o = parse_bench_options(argc, argv);
    const int32_image image = read_npy_int32(o.image);
    splitmerge::options run_options;
    run_options.display = o.display;
    run_options.threads = o.threads;
    run_options.memory_limit = o.memory_limit;

    const std::uint64_t baseline = current_rss_bytes();
    std::vector<double> times;
    std::int32_t regions = 0;
    std::int32_t frames = 0;
    std::string checksum;
    for (std::int32_t rep = 0; rep < o.repetitions; ++rep) {
      const auto start = bench_clock::now();
      const splitmerge::segmentation s = splitmerge::segment(image.view(), o.params, run_options);
      times.push_back(seconds_between(start, bench_clock::now()));
      if (s.status != 0) {
        std::fprintf(stderr, "%s: the run failed with status %d: %s\n", o.name.c_str(), s.status,
                     s.error.c_str());
        return 1;
      }
      regions = s.labels.empty() ? 0 : *std::max_element(s.labels.begin(), s.labels.end()) + 1;
      frames = s.frame_count;
      if (rep + 1 == o.repetitions) checksum = labels_checksum(s.labels);
    }
    const std::uint64_t peak = peak_rss_bytes();

    const double run_s = median(times);
    const double floor_s = floor_pass_seconds(image, std::max(o.repetitions, 5));
    json_line line;
    line.add("kind", "whole")
        .add("name", o.name)
        .add("voxels", static_cast<std::int64_t>(image.count()))
        .add("repetitions", o.repetitions)
        .add("display", o.display ? "on" : "off")
        .add("group_mode", o.params.group_mode)
        .add("threads", o.threads)
        .add("median_s", run_s)
        .add("min_s", *std::min_element(times.begin(), times.end()))
        .add("mvoxels_per_s", static_cast<double>(image.count()) / run_s / 1e6)
        .add("regions", regions)
        .add("labels_checksum", checksum)
        .add("frames", frames)
        .add("peak_rss_bytes", peak)
        .add("baseline_rss_bytes", baseline)
        .add("floor_s", floor_s);
    if (o.display) line.add("frame_copy_s", frame_copy_seconds(image));
    line.print();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 2;
  }
  return 0;
}
