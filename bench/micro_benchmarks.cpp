// Micro-benchmarks (Google Benchmark):
//  - calc_evalvar: block evaluations per second for predicates 1..5 at levels
//    2, 4 and 6, over all blocks of that level of the brain slice (2-D) and
//    of the brain crop (3-D), so caches see a run's access pattern;
//  - group_init: adjacency, leaf blocks per second, for a 256 x 256 noise
//    image and a 64 x 64 x 64 noise volume with predicate 1 and interval 0,
//    where every pixel stays a block of its own.
// Usage: bench_micro [benchmark flags] --data FOLDER (the bench_make_data output).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench_options.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "npy_int32.hpp"
#include "phase_run.hpp"

using namespace splitmerge;
using namespace splitmerge::bench;

namespace {

// Every block of one level, in the order the tree visits them.
std::vector<block_position> block_positions(const run_context& ctx, std::int32_t lvl) {
  const block_extent e = sizes_block(ctx, lvl);
  std::vector<block_position> out;
  for (std::int32_t s = 0; s < ctx.voxels_image; s += e.slice_span)
    for (std::int32_t r = 0; r < ctx.voxels_slice; r += e.row_span)
      for (std::int32_t c = 0; c < ctx.im_format_xy; c += e.side) out.push_back({c, r, s});
  return out;
}

void evaluate_blocks(benchmark::State& state, const int32_image& image, std::int32_t pred,
                     std::int32_t lvl) {
  parameters p = standard_parameters();
  p.pred_choice = pred;
  p.init_level = lvl;  // predicate 3 keeps a scratch array of one initial block
  run_context ctx;
  silence(ctx);
  if (prepare_run(ctx, arguments_for(image.view(), p)) != 0) {
    state.SkipWithError("no memory for the run tables");
    return;
  }
  const std::vector<block_position> blocks = block_positions(ctx, lvl);
  const block_extent extent = sizes_block(ctx, lvl);
  block b;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(calc_evalvar(ctx, blocks[i], extent, lvl, &b));
    if (++i == blocks.size()) i = 0;
  }
  const auto evaluations = static_cast<double>(state.iterations());
  state.counters["evaluations/s"] = benchmark::Counter(evaluations, benchmark::Counter::kIsRate);
  state.counters["voxels/s"] =
      benchmark::Counter(evaluations * ctx.pixels_perblock[lvl], benchmark::Counter::kIsRate);
  free_variables(ctx);
}

void adjacency(benchmark::State& state, const int32_image& image) {
  parameters p = standard_parameters();
  p.pred_choice = 1;
  p.interval_length = 0;
  const run_arguments args = arguments_for(image.view(), p);
  std::int64_t leaves = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto ctx = std::make_unique<run_context>();
    silence(*ctx);
    blocklist list = build_tree(*ctx, args);
    if (list == nullptr) {
      state.SkipWithError("the tree could not be built");
      return;
    }
    leaves = 0;
    for (const block* b = list[0]; b != nullptr; b = ctx->block_at(b->next_block)) ++leaves;
    state.ResumeTiming();
    const auto regions = group_init(*ctx, list);
    state.PauseTiming();
    if (check_pointer(regions) != 0) {
      state.SkipWithError("group_init failed");
      return;
    }
    free_regionlist(*ctx, regions.value);
    free_variables(*ctx);
    ctx.reset();
    state.ResumeTiming();
  }
  state.counters["leaves"] = static_cast<double>(leaves);
  state.counters["blocks/s"] =
      benchmark::Counter(static_cast<double>(leaves) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::string folder;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::string_view(argv[i]) == "--data") folder = argv[i + 1];
  if (folder.empty()) {
    std::fprintf(stderr, "usage: %s [benchmark flags] --data FOLDER\n", argv[0]);
    return 2;
  }
  // Static: the registered benchmarks refer to the images until the end.
  static const int32_image slice = read_npy_int32(folder + "/brain_slice.npy");
  static const int32_image crop = read_npy_int32(folder + "/brain_crop.npy");
  static const int32_image noise = read_npy_int32(folder + "/noise.npy");
  static const int32_image noise_cube = read_npy_int32(folder + "/noise_cube.npy");

  for (const std::int32_t pred : {1, 2, 3, 4, 5})
    for (const std::int32_t lvl : {2, 4, 6}) {
      const std::string suffix = "/pred" + std::to_string(pred) + "/level" + std::to_string(lvl);
      benchmark::RegisterBenchmark(("calc_evalvar/2d" + suffix).c_str(), evaluate_blocks, slice,
                                   pred, lvl);
      benchmark::RegisterBenchmark(("calc_evalvar/3d" + suffix).c_str(), evaluate_blocks, crop,
                                   pred, lvl);
    }
  benchmark::RegisterBenchmark("group_init/noise_256x256", adjacency, noise)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("group_init/noise_64x64x64", adjacency, noise_cube)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
