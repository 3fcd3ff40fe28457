// Complete runs through the library entry: parameter checking, progress
// lines, invariants of the results over many random images, failure
// injection at every allocation, concurrent runs and determinism.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "driver/driver.hpp"
#include "splitmerge/splitmerge.hpp"
#include "support/random_images.hpp"
#include "support/temp_folder.hpp"

namespace splitmerge {
namespace {

struct run_setup {
  std::vector<std::int32_t> image;
  std::int32_t size_x = 8, size_z = 1, max_level = 3, lim_oct_level = 3, init_level = 1;
  std::int32_t group_mode = 0, max_seed = 4, use_all_seeds = 0, pred_choice = 1;
  std::int32_t interval_length = 10, threshold_row = 3, small_size = 0, statistic_update = 1;
  std::int32_t save_flag = 0, display = 1;
  std::string filename = "regions.txt";
  double rejection = 0.2, sigma = 4.0, pseudo_factor = 1.0;
  std::int32_t threads = 1;
  // Records per arena request: small, so that failures strike mid-phase.
  std::uint32_t block_chunk = 3, entry_chunk = 5;
  std::uint32_t elimination_walk = 32;
  std::uint64_t budget = 0;  // bytes the run may hold (0: no limit)
  // The poll of the caller's interrupt that asks to stop (0: none).
  std::uint64_t interrupt_at = 0;
};

struct run_result {
  std::int32_t status = 0;
  std::vector<std::int32_t> labels;
  std::vector<std::vector<std::int32_t>> frames;
  std::string printed;
  std::string errors;
  std::int64_t live_after = 0;
  std::uint64_t requests = 0;
  std::uint64_t polls = 0;
  std::uint64_t peak = 0;
  bool over_budget = false;
  std::vector<std::uint64_t> line_polls;  // polls made before each printed line
  bool failed_site[alloc_site_count] = {};
};

run_result run(const run_setup& s, std::uint64_t fail_at = 0) {
  run_result r;
  run_context ctx;
  // Small arena chunks: every few records is a request that can fail.
  ctx.blocks.set_chunk(s.block_chunk);
  ctx.entries.set_chunk(s.entry_chunk);
  ctx.threads = s.threads;
  ctx.thread_grain = 1;  // split even the smallest images over the threads
  ctx.elimination_walk = s.elimination_walk;
  ctx.poll_interval = 1;  // every poll point asks
  ctx.interrupt = [&r, &s] { return ++r.polls == s.interrupt_at; };
  ctx.out = [&](std::string_view t) {
    r.printed.append(t);
    r.line_polls.push_back(r.polls);
  };
  ctx.err = [&](std::string_view t) { r.errors.append(t); };
  ctx.allocator.fail_at(fail_at);
  ctx.allocator.set_budget(s.budget);
  r.labels.assign(s.image.size(), 0);
  r.status = split_merge_group(
      ctx, s.image.data(), s.size_x, s.size_x, s.size_z, s.max_level, s.lim_oct_level,
      r.labels.data(), s.init_level, s.group_mode, s.max_seed, s.use_all_seeds, s.pred_choice,
      s.interval_length, s.threshold_row, s.small_size, s.statistic_update, s.save_flag, s.display,
      s.filename.c_str(), s.rejection, s.sigma, s.pseudo_factor);
  for (const disp_frame* f = ctx.smg_disp; f != nullptr; f = f->next)
    r.frames.emplace_back(f->pixels, f->pixels + s.image.size());
  ctx.release_frames();
  r.live_after = ctx.allocator.live();
  r.requests = ctx.allocator.requests();
  r.peak = ctx.allocator.peak_bytes();
  r.over_budget = ctx.allocator.over_budget();
  for (std::size_t i = 0; i < alloc_site_count; ++i)
    r.failed_site[i] = ctx.allocator.site_failed(static_cast<alloc_site>(i));
  return r;
}

run_setup plane(std::vector<std::int32_t> image, int size_x, int max_level) {
  run_setup s;
  s.image = std::move(image);
  s.size_x = size_x;
  s.max_level = max_level;
  s.lim_oct_level = max_level;
  return s;
}

// A random 16 x 16 x 4 volume of blobs, chi-square test, small regions absorbed.
run_setup small_volume(std::mt19937& rng) {
  run_setup s;
  s.image = testing::blob_image(rng, 16, 4, 30);
  s.size_x = 16;
  s.size_z = 4;
  s.max_level = 4;
  s.lim_oct_level = 2;
  s.init_level = 2;
  s.pred_choice = 4;
  s.small_size = 5;
  return s;
}

TEST(Parameters, EveryInvalidParameterIsRejectedBeforeAnythingIsBuilt) {
  const run_setup good = plane(std::vector<std::int32_t>(64, 3), 8, 3);
  struct bad_case {
    const char* name;
    void (*change)(run_setup&);
  };
  const bad_case cases[] = {
      {"max_level", [](run_setup& s) { s.max_level = 9; }},
      {"max_level", [](run_setup& s) { s.max_level = 0; }},
      {"lim_oct_level", [](run_setup& s) { s.lim_oct_level = 4; }},
      {"lim_oct_level", [](run_setup& s) { s.lim_oct_level = -1; }},
      {"init_level", [](run_setup& s) { s.init_level = 3; }},
      {"init_level", [](run_setup& s) { s.init_level = -1; }},
      {"size_x", [](run_setup& s) { s.max_level = 2, s.lim_oct_level = 2; }},
      {"size_z", [](run_setup& s) { s.lim_oct_level = 2; }},
      {"pred_choice", [](run_setup& s) { s.pred_choice = 6; }},
      {"threshold_row", [](run_setup& s) { s.pred_choice = 4, s.threshold_row = 4; }},
      {"max_seed", [](run_setup& s) { s.group_mode = 1, s.max_seed = 0; }},
      {"rejection", [](run_setup& s) { s.rejection = std::nan(""); }},
      {"sigma", [](run_setup& s) { s.sigma = 1.0 / 0.0; }},
      {"pseudo_factor", [](run_setup& s) { s.pseudo_factor = -1.0 / 0.0; }},
      {"pixel", [](run_setup& s) { s.image[17] = 256; }},
      {"pixel", [](run_setup& s) { s.image[0] = -1; }},
  };
  for (const auto& c : cases) {
    run_setup s = good;
    c.change(s);
    const run_result r = run(s);
    EXPECT_EQ(r.status, -1) << c.name;
    EXPECT_EQ(r.requests, 0u) << c.name << ": nothing may be allocated";
    EXPECT_TRUE(r.frames.empty());
    EXPECT_TRUE(r.printed.empty());
    EXPECT_NE(r.errors.find(c.name), std::string::npos) << r.errors;
    EXPECT_EQ(std::count(r.errors.begin(), r.errors.end(), '\n'), 1) << r.errors;
  }
  EXPECT_EQ(run(good).status, 0);
  run_setup ok_without_seeds = good;
  ok_without_seeds.max_seed = 0;  // only parallel grouping needs seeds
  EXPECT_EQ(run(ok_without_seeds).status, 0);
}

TEST(Parameters, MessagesNameTheValueAndWhatIsAllowed) {
  run_setup s = plane(std::vector<std::int32_t>(64, 3), 8, 3);
  s.init_level = 5;
  EXPECT_EQ(run(s).errors,
            "splitmerge: invalid parameter init_level = 5: must be 0 to max_level - 1 (2)\n");
  s.init_level = 1;
  s.image[9] = 300;
  EXPECT_EQ(run(s).errors,
            "splitmerge: invalid pixel value 300 at index 9: pixels must lie in 0 to 255 "
            "(rescale the image)\n");
}

TEST(Runs, AUniformImageIsOneRegion) {
  const testing::temp_folder folder;
  for (const int save : {0, 1}) {
    run_setup s = plane(std::vector<std::int32_t>(64, 42), 8, 3);
    s.save_flag = save;
    s.filename = folder.file("uniform.txt");
    const run_result r = run(s);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.labels, std::vector<std::int32_t>(64, 0));
    std::string expected =
        "finished initialisation\nfinished merging\nfinished calculating region\n"
        "finished the split_merge routine\nfinished make_output \n";
    expected += save ? "file = " + s.filename + " \nfinished save_regionlist \n"
                     : "No save_regionlist specified\n";
    EXPECT_EQ(r.printed, expected);
    EXPECT_EQ(r.live_after, 0);
    ASSERT_EQ(r.frames.size(), 2u);
    EXPECT_EQ(r.frames[1], std::vector<std::int32_t>(64, 0)) << "the root is painted 0";
  }
  run_setup volume;
  volume.image.assign(4 * 4 * 4, 7);
  volume.size_x = 4;
  volume.size_z = 4;
  volume.max_level = 2;
  volume.lim_oct_level = 0;
  volume.init_level = 0;
  volume.pred_choice = 4;
  const run_result r = run(volume);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.labels, std::vector<std::int32_t>(64, 0));
  EXPECT_EQ(r.live_after, 0);
}

TEST(Runs, WithoutDisplayTheFirstFrameStaysZero) {
  run_setup s = plane(std::vector<std::int32_t>(64, 42), 8, 3);
  s.image[5] = 200;
  s.display = 0;
  const run_result r = run(s);
  ASSERT_EQ(r.frames.size(), 1u);
  EXPECT_EQ(r.frames[0], std::vector<std::int32_t>(64, 0));
}

TEST(Runs, ProgressLinesOfAFullRun) {
  std::mt19937 rng(5);
  run_setup s = plane(testing::blob_image(rng, 16, 1), 16, 4);
  s.small_size = 3;
  s.group_mode = 1;
  const run_result r = run(s);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.printed,
            "finished initialisation\nfinished merging\nfinished splitting\n"
            "finished ordering regionlist\nfinished parallell grouping\n"
            "finished sequential grouping\nfinished grouping\n"
            "finished small region elimination\nfinished cleaning of regionlist\n"
            "finished sorting of regionlist\nfinished the split_merge routine\n"
            "finished make_output \nNo save_regionlist specified\n");
  s.small_size = 0;
  const run_result without = run(s);
  EXPECT_EQ(without.printed.find("small region elimination"), std::string::npos);
}

TEST(Runs, AnUnwritableRegionFileReturnsMinusTwo) {
  std::mt19937 rng(6);
  run_setup s = plane(testing::blob_image(rng, 8, 1), 8, 3);
  s.save_flag = 1;
  s.filename = "/nonexistent-dir/regions.txt";
  const run_result r = run(s);
  EXPECT_EQ(r.status, -2);
  EXPECT_NE(r.printed.find("file = /nonexistent-dir/regions.txt \n"), std::string::npos);
  EXPECT_EQ(r.printed.find("finished save_regionlist"), std::string::npos);
  EXPECT_EQ(r.live_after, 0);
}

TEST(Runs, AFailedRegionFileWriteReturnsMinusTwoAndLeavesNoTruncatedFile) {
  std::mt19937 rng(6);
  run_setup s = plane(testing::blob_image(rng, 32, 1, 60), 32, 5);
  s.save_flag = 1;
  // Every write to /dev/full fails with "no space left", as on a full disk.
  s.filename = "/dev/full";
  const run_result full = run(s);
  EXPECT_EQ(full.status, -2);
  EXPECT_EQ(full.printed.find("finished save_regionlist"), std::string::npos);
  EXPECT_EQ(full.live_after, 0);
  EXPECT_TRUE(std::filesystem::exists("/dev/full")) << "only regular files are removed";

  // A file size limit far below the file: the run reports it and removes the
  // truncated file (checked in a child, which alone gets the limit).
  const testing::temp_folder folder;
  s.filename = folder.file("regions.txt");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{512, 512};
    setrlimit(RLIMIT_FSIZE, &limit);
    const run_result limited = run(s);
    _exit(limited.status == -2 && !std::filesystem::exists(s.filename) ? 0 : 1);
  }
  int wstatus = 0;
  ASSERT_EQ(waitpid(child, &wstatus, 0), child);
  ASSERT_TRUE(WIFEXITED(wstatus));
  EXPECT_EQ(WEXITSTATUS(wstatus), 0);
  const run_result unlimited = run(s);
  EXPECT_EQ(unlimited.status, 0);
  EXPECT_GT(std::filesystem::file_size(s.filename), 512u) << "the limit must cut the file";
}

// Checks the invariants of a label image.
void check_labels(const run_setup& s, const segmentation& out) {
  const auto& labels = out.labels;
  const int n = static_cast<int>(labels.size());
  const int regions = *std::max_element(labels.begin(), labels.end()) + 1;
  std::vector<int> sizes(static_cast<std::size_t>(regions), 0);
  for (const int v : labels) {
    ASSERT_GE(v, 0);
    ++sizes[static_cast<std::size_t>(v)];
  }
  for (int i = 0; i < regions; ++i)
    ASSERT_GT(sizes[static_cast<std::size_t>(i)], 0) << "gap at " << i;
  for (int i = 1; i < regions; ++i)
    ASSERT_GE(sizes[static_cast<std::size_t>(i - 1)], sizes[static_cast<std::size_t>(i)]);
  if (s.small_size > 0 && regions > 1) {
    for (const int size : sizes) ASSERT_GE(size, s.small_size);
  }
  // Every label is one face-connected set of pixels.
  std::vector<int> seen(static_cast<std::size_t>(n), 0);
  std::vector<int> components(static_cast<std::size_t>(regions), 0);
  const int sx = s.size_x, sz = s.size_z;
  for (int start = 0; start < n; ++start) {
    if (seen[static_cast<std::size_t>(start)]) continue;
    const int label = labels[static_cast<std::size_t>(start)];
    ++components[static_cast<std::size_t>(label)];
    std::vector<int> stack{start};
    seen[static_cast<std::size_t>(start)] = 1;
    while (!stack.empty()) {
      const int p = stack.back();
      stack.pop_back();
      const int x = p % sx, y = (p / sx) % sx, z = p / (sx * sx);
      const int nx[6] = {x - 1, x + 1, x, x, x, x};
      const int ny[6] = {y, y, y - 1, y + 1, y, y};
      const int nz[6] = {z, z, z, z, z - 1, z + 1};
      for (int k = 0; k < 6; ++k) {
        if (nx[k] < 0 || nx[k] >= sx || ny[k] < 0 || ny[k] >= sx || nz[k] < 0 || nz[k] >= sz)
          continue;
        const int q = (nz[k] * sx + ny[k]) * sx + nx[k];
        if (seen[static_cast<std::size_t>(q)] || labels[static_cast<std::size_t>(q)] != label)
          continue;
        seen[static_cast<std::size_t>(q)] = 1;
        stack.push_back(q);
      }
    }
  }
  for (int i = 0; i < regions; ++i)
    ASSERT_EQ(components[static_cast<std::size_t>(i)], 1) << "label " << i << " is not connected";
}

TEST(Invariants, LabelsOverManyRandomImages) {
  std::mt19937 rng(11);
  struct shape {
    int size_x, size_z, max_level, lim_oct_level;
  };
  const shape shapes[] = {{16, 1, 4, 4}, {32, 1, 5, 5}, {8, 8, 3, 0}, {16, 4, 4, 2}, {8, 2, 3, 2}};
  int runs = 0;
  for (const auto& sh : shapes) {
    for (int trial = 0; trial < 40; ++trial, ++runs) {
      run_setup s;
      s.image = testing::blob_image(rng, sh.size_x, sh.size_z, static_cast<int>(rng() % 40));
      s.size_x = sh.size_x;
      s.size_z = sh.size_z;
      s.max_level = sh.max_level;
      s.lim_oct_level = sh.lim_oct_level;
      parameters p;
      p.max_level = sh.max_level;
      p.lim_oct_level = sh.lim_oct_level;
      p.init_level = static_cast<std::int32_t>(rng() % static_cast<unsigned>(sh.max_level));
      p.pred_choice = 1 + static_cast<std::int32_t>(rng() % 5);
      p.group_mode = static_cast<std::int32_t>(rng() % 2);
      p.max_seed = 1 + static_cast<std::int32_t>(rng() % 10);
      p.use_all_seeds = static_cast<std::int32_t>(rng() % 2);
      p.interval_length = static_cast<std::int32_t>(rng() % 30);
      p.rejection = 0.05 * static_cast<double>(rng() % 6);
      p.sigma = 1.0 + static_cast<double>(rng() % 8);
      p.threshold_row = 1 + static_cast<std::int32_t>(rng() % 3);
      p.pseudo_factor = static_cast<double>(rng() % 4);
      p.small_size = static_cast<std::int32_t>(rng() % 12) - 2;
      p.statistic_update = static_cast<std::int32_t>(rng() % 2);
      s.small_size = p.small_size;
      options o;
      o.display = rng() % 2 == 0;
      const segmentation out =
          segment(image_view{s.image.data(), s.size_x, s.size_x, s.size_z}, p, o);
      ASSERT_EQ(out.status, 0) << out.error;
      ASSERT_NO_FATAL_FAILURE(check_labels(s, out)) << "run " << runs;
    }
  }
}

struct sweep_config {
  const char* name;
  run_setup setup;
};

std::vector<sweep_config> sweep_configs(const testing::temp_folder& folder) {
  std::mt19937 rng(77);
  std::vector<sweep_config> configs;
  const auto add = [&](const char* name, int size_x, int size_z, int max_level, int lim, int init,
                       int pred, int group_mode, int small, int save, int display, int noise) {
    run_setup s;
    s.image = testing::blob_image(rng, size_x, size_z, noise);
    s.size_x = size_x;
    s.size_z = size_z;
    s.max_level = max_level;
    s.lim_oct_level = lim;
    s.init_level = init;
    s.pred_choice = pred;
    s.group_mode = group_mode;
    s.max_seed = 4;
    s.small_size = small;
    s.save_flag = save;
    s.display = display;
    s.filename = folder.file("sweep.txt");
    configs.push_back({name, s});
  };
  add("plane range sequential", 16, 1, 4, 4, 2, 1, 0, 0, 0, 1, 20);
  add("plane mean parallel with elimination", 16, 1, 4, 4, 2, 2, 1, 6, 1, 1, 20);
  add("plane median sequential with save", 16, 1, 4, 4, 2, 3, 0, 4, 1, 0, 30);
  add("volume chi-square parallel", 8, 4, 3, 1, 2, 4, 1, 5, 1, 1, 20);
  add("volume pseudo-variance sequential", 8, 8, 3, 0, 1, 5, 0, 3, 0, 1, 25);
  add("noisy plane with many frames", 32, 1, 5, 5, 3, 1, 0, 3, 1, 1, 100);
  // Wide codes (more than 8 levels): larger chunks keep the request count low.
  add("wide plane with 64-bit codes", 512, 1, 9, 9, 3, 4, 1, 4, 1, 0, 30);
  configs.back().setup.block_chunk = 1 << 14;
  configs.back().setup.entry_chunk = 1 << 16;
  return configs;
}

TEST(FailureSweep, EveryAllocationFailureEndsCleanly) {
  bool site_reached[alloc_site_count] = {};
  std::uint64_t total_runs = 0;
  const testing::temp_folder folder;
  for (const auto& config : sweep_configs(folder)) {
    SCOPED_TRACE(config.name);
    const run_result reference = run(config.setup);
    ASSERT_EQ(reference.status, 0);
    ASSERT_EQ(reference.live_after, 0);
    for (std::uint64_t k = 1; k <= reference.requests; ++k) {
      const run_result r = run(config.setup, k);
      ++total_runs;
      ASSERT_EQ(r.live_after, 0) << "allocation " << k << " leaked";
      const bool frame_tick = (r.failed_site[static_cast<int>(alloc_site::frame_node)] ||
                               r.failed_site[static_cast<int>(alloc_site::frame_pixels)]) &&
                              k > 2;
      if (frame_tick) {
        // Recording stops; the run itself goes on unchanged.
        ASSERT_EQ(r.status, 0) << "allocation " << k;
        ASSERT_EQ(r.labels, reference.labels);
      } else {
        ASSERT_EQ(r.status, -1) << "allocation " << k;
      }
      // Every frame recorded before the failure is intact.
      ASSERT_LE(r.frames.size(), reference.frames.size());
      for (std::size_t f = 0; f + 1 < r.frames.size(); ++f)
        ASSERT_EQ(r.frames[f], reference.frames[f]) << "allocation " << k << ", frame " << f;
      for (std::size_t i = 0; i < alloc_site_count; ++i)
        site_reached[i] = site_reached[i] || r.failed_site[i];
    }
  }
  for (std::size_t i = 0; i < alloc_site_count; ++i)
    EXPECT_TRUE(site_reached[i]) << "allocation site " << i << " was never failed";
  EXPECT_GT(total_runs, 1000u);
}

TEST(FailureSweep, ARunStoppedByItsBudgetAnywhereLeavesNothing) {
  const testing::temp_folder folder;
  for (const auto& config : sweep_configs(folder)) {
    SCOPED_TRACE(config.name);
    const run_result reference = run(config.setup);
    for (std::uint64_t step = 1; step <= 64; ++step) {
      run_setup s = config.setup;
      s.budget = reference.peak * step / 64;
      const run_result r = run(s);
      ASSERT_EQ(r.live_after, 0) << "budget " << s.budget;
      ASSERT_LE(r.peak, s.budget);
      if (r.status == 0) {
        ASSERT_EQ(r.labels, reference.labels) << "budget " << s.budget;
      } else {
        ASSERT_EQ(r.status, -1);
        ASSERT_TRUE(r.over_budget);
      }
    }
    run_setup enough = config.setup;
    enough.budget = reference.peak;
    EXPECT_EQ(run(enough).status, 0) << "the measured peak is enough";
  }
}

TEST(Concurrency, PromiseOneContextPerRunThreadedRunsMatchSingleThreadedOnes) {
  std::mt19937 rng(123);
  std::vector<run_setup> setups;
  for (int i = 0; i < 8; ++i) {
    run_setup s = plane(testing::blob_image(rng, 32, 1, 30), 32, 5);
    s.pred_choice = 1 + i % 5;
    s.group_mode = i % 2;
    s.small_size = 4;
    s.save_flag = 0;
    setups.push_back(s);
  }
  std::vector<run_result> expected;
  for (const auto& s : setups) expected.push_back(run(s));
  std::vector<run_result> got(setups.size());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (std::size_t i = static_cast<std::size_t>(t); i < setups.size(); i += 4) {
        for (int repeat = 0; repeat < 3; ++repeat) got[i] = run(setups[i]);
      }
    });
  for (auto& th : threads) th.join();
  for (std::size_t i = 0; i < setups.size(); ++i) {
    EXPECT_EQ(got[i].status, expected[i].status);
    EXPECT_EQ(got[i].labels, expected[i].labels);
    EXPECT_EQ(got[i].frames, expected[i].frames);
    EXPECT_EQ(got[i].printed, expected[i].printed);
  }
}

TEST(Threads, PromiseEveryThreadCountGivesTheSameResults) {
  std::mt19937 rng(2024);
  const testing::temp_folder folder;
  int runs = 0;
  for (int trial = 0; trial < 40; ++trial) {
    run_setup s;
    const bool volume = trial % 2 == 1;
    s.size_x = volume ? 16 : 32;
    s.size_z = volume ? 8 : 1;
    s.max_level = volume ? 4 : 5;
    s.lim_oct_level = volume ? 1 : 5;
    s.init_level = 1 + static_cast<std::int32_t>(rng() % 3);
    s.image = testing::blob_image(rng, s.size_x, s.size_z, static_cast<int>(rng() % 40));
    s.pred_choice = 1 + trial % 5;
    s.interval_length = 5 + static_cast<std::int32_t>(rng() % 20);
    s.group_mode = static_cast<std::int32_t>(rng() % 2);
    s.use_all_seeds = static_cast<std::int32_t>(rng() % 2);
    s.small_size = static_cast<std::int32_t>(rng() % 12);
    s.display = trial % 3 == 0 ? 1 : 0;
    s.save_flag = 1;
    std::vector<std::string> files;
    std::vector<run_result> results;
    for (const std::int32_t threads : {1, 2, 7}) {
      s.threads = threads;
      s.filename = folder.file("threads_" + std::to_string(threads) + ".txt");
      run_result r = run(s);
      std::ifstream in(s.filename);
      files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      std::filesystem::remove(s.filename);
      r.printed.replace(r.printed.find(s.filename), s.filename.size(), "F");
      results.push_back(std::move(r));
      ++runs;
    }
    ASSERT_EQ(results[0].status, 0) << "trial " << trial;
    for (std::size_t i = 1; i < results.size(); ++i) {
      SCOPED_TRACE("trial " + std::to_string(trial) + ", run " + std::to_string(i));
      EXPECT_EQ(results[i].status, results[0].status);
      EXPECT_EQ(results[i].labels, results[0].labels);
      EXPECT_EQ(results[i].frames, results[0].frames);
      EXPECT_EQ(results[i].printed, results[0].printed);
      EXPECT_EQ(files[i], files[0]);
      EXPECT_EQ(results[i].live_after, 0);
    }
  }
  EXPECT_EQ(runs, 120);
}

TEST(Elimination, OptimisationIndexOfLongListsChangesNothing) {
  // Large regions of a noisy image collect long neighbour lists, which the
  // elimination looks up through its index after a short walk; asking the
  // index at once, or never, must give the same results.
  std::mt19937 rng(77);
  const testing::temp_folder folder;
  for (int trial = 0; trial < 3; ++trial) {
    run_setup s = plane(testing::blob_image(rng, 128, 1, 60), 128, 7);
    s.init_level = 2;
    s.interval_length = 12;
    s.small_size = 40;
    s.display = trial == 2 ? 1 : 0;
    s.save_flag = 1;
    s.filename = folder.file("index.txt");
    std::vector<std::pair<run_result, std::string>> runs;
    for (const std::uint32_t walk : {0u, 32u, 1u << 30}) {
      s.elimination_walk = walk;
      run_result r = run(s);
      std::ifstream in(s.filename);
      std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      std::filesystem::remove(s.filename);
      runs.emplace_back(std::move(r), std::move(file));
    }
    for (const auto& [r, file] : runs) {
      EXPECT_EQ(r.status, 0);
      EXPECT_EQ(r.labels, runs.back().first.labels);
      EXPECT_EQ(r.frames, runs.back().first.frames);
      EXPECT_EQ(file, runs.back().second);
      EXPECT_EQ(r.live_after, 0);
    }
  }
}

TEST(Interrupt, EveryPollThatAsksEndsTheRunWithNothingLeft) {
  std::mt19937 rng(91);
  const testing::temp_folder folder;
  struct variant {
    std::int32_t group_mode, display, threads, pred_choice;
    std::uint32_t elimination_walk;  // 0: every list the elimination asks about is indexed
  };
  for (const variant v : {variant{1, 0, 1, 1, 32}, variant{0, 1, 2, 4, 0}}) {
    run_setup s = small_volume(rng);
    s.group_mode = v.group_mode;
    s.display = v.display;
    s.threads = v.threads;
    s.pred_choice = v.pred_choice;
    s.elimination_walk = v.elimination_walk;
    s.save_flag = 1;
    s.filename = folder.file("interrupt.txt");
    const run_result reference = run(s);
    ASSERT_EQ(reference.status, 0);
    std::filesystem::remove(s.filename);
    // Each phase polls as it goes, not only before it starts (the lines that
    // end no phase of their own, and the short sort, aside).
    std::istringstream lines(reference.printed);
    std::string line;
    for (std::size_t i = 0; std::getline(lines, line); ++i) {
      if (!line.starts_with("finished ") || line.starts_with("finished grouping") ||
          line.starts_with("finished sorting") || line.starts_with("finished the"))
        continue;
      EXPECT_GE(reference.line_polls[i] - (i == 0 ? 0 : reference.line_polls[i - 1]), 2u) << line;
    }
    for (std::uint64_t k = 1; k <= reference.polls; ++k) {
      s.interrupt_at = k;
      const run_result r = run(s);
      ASSERT_EQ(r.status, status_interrupted) << "poll " << k;
      ASSERT_EQ(r.live_after, 0) << "poll " << k;
      ASSERT_EQ(r.polls, k) << "no poll after the request";
      ASSERT_FALSE(std::filesystem::exists(s.filename)) << "poll " << k;
    }
  }
}

TEST(Determinism, PromiseRepeatedRunsAreBitIdentical) {
  std::mt19937 rng(321);
  run_setup s = small_volume(rng);
  s.save_flag = 1;
  const testing::temp_folder folder;
  std::string first_file;
  run_result first;
  for (int i = 0; i < 4; ++i) {
    s.filename = folder.file("determinism_" + std::to_string(i) + ".txt");
    run_result r = run(s);
    std::ifstream in(s.filename);
    std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::filesystem::remove(s.filename);
    // The printed file name differs by design; compare the rest.
    r.printed.replace(r.printed.find(s.filename), s.filename.size(), "F");
    if (i == 0) {
      first = r;
      first_file = file;
      continue;
    }
    EXPECT_EQ(r.labels, first.labels);
    EXPECT_EQ(r.frames, first.frames);
    EXPECT_EQ(r.printed, first.printed);
    EXPECT_EQ(file, first_file);
  }
  EXPECT_FALSE(first_file.empty());
}

}  // namespace
}  // namespace splitmerge

namespace splitmerge {
namespace {

// The region list collected through the C++ interface is the region list
// file, with 32-bit codes and (beyond 256 pixels along an edge) 64-bit ones.
class CollectedRegions : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(CollectedRegions, PromiseCollectedRegionsEqualTheRegionListFile) {
  const auto [edge, slices] = GetParam();
  std::mt19937 rng(8);
  const std::vector<std::int32_t> img = testing::blob_image(rng, edge, slices, 20);
  parameters p;
  p.pred_choice = 2;
  p.small_size = 4;
  options o;
  o.display = false;
  o.collect_regions = true;
  const testing::temp_folder folder;
  const auto path = folder.file("collect.txt");
  o.region_file = path;
  const segmentation out = segment(image_view{img.data(), edge, edge, slices}, p, o);
  ASSERT_EQ(out.status, status_ok) << out.error;
  std::ifstream in(path);
  std::string line;
  for (int i = 0; i < 4; ++i) std::getline(in, line);  // format, slices, 2, 4.0000
  std::getline(in, line);
  ASSERT_EQ(std::stoul(line), out.regions.size());
  std::getline(in, line);
  EXPECT_EQ(std::stoi(line), 2);
  const bool wide = edge > 256;
  for (const region_record& r : out.regions) {
    std::getline(in, line);
    EXPECT_EQ(line, std::to_string(r.statistics[0]) + " " + std::to_string(r.statistics[1]));
    for (const std::uint64_t code : r.codes) {
      std::getline(in, line);
      EXPECT_EQ(std::stoull(line, nullptr, 16), code);
      EXPECT_EQ(code > 0xFFFF'FFFFu, wide) << line;
    }
    std::getline(in, line);
    EXPECT_EQ(line, "0");
    for (const std::int32_t n : r.neighbours) {
      std::getline(in, line);
      EXPECT_EQ(std::stoi(line), n);
    }
    std::getline(in, line);
    EXPECT_EQ(line, "-1");
  }
  EXPECT_FALSE(std::getline(in, line));
  std::filesystem::remove(path);
  // Labels name regions in the same order: region 0 is the largest.
  std::vector<std::int64_t> sizes(out.regions.size(), 0);
  for (const std::int32_t l : out.labels) ++sizes[static_cast<std::size_t>(l)];
  EXPECT_TRUE(std::is_sorted(sizes.rbegin(), sizes.rend()));
}

INSTANTIATE_TEST_SUITE_P(Interface, CollectedRegions,
                         ::testing::Values(std::pair{16, 2}, std::pair{512, 1}));

}  // namespace
}  // namespace splitmerge
