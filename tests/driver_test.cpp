// Complete runs through the library entry: parameter checking, progress
// lines, invariants of the results over many random images, failure
// injection at every allocation and every poll, and results that do not
// depend on how a run is carried out.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "splitmerge/splitmerge.hpp"
#include "support/conformance_case.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::run;
using testing::run_result;
using testing::run_setup;
using testing::setup;

// A random 16 x 16 x 4 volume of blobs, chi-square test, small regions absorbed.
run_setup small_volume(std::mt19937& rng) {
  run_setup s = setup(testing::blob_image(rng, 16, 4, 30), 16, 4, 2, 4);
  s.p.small_size = 5;
  return s;
}

TEST(Parameters, EveryInvalidParameterIsRejectedBeforeAnythingIsBuilt) {
  const run_setup good = setup(std::vector<std::int32_t>(64, 3), 8);
  struct bad_case {
    const char* text;  // in the one line of the message
    void (*change)(run_setup&);
  };
  const bad_case cases[] = {
      {"max_level", [](run_setup& s) { s.p.max_level = 9; }},
      {"max_level", [](run_setup& s) { s.p.max_level = 0; }},
      {"lim_oct_level", [](run_setup& s) { s.p.lim_oct_level = 4; }},
      {"lim_oct_level", [](run_setup& s) { s.p.lim_oct_level = -1; }},
      {"init_level", [](run_setup& s) { s.p.init_level = 3; }},
      {"splitmerge: invalid parameter init_level = -1: must be 0 to max_level - 1 (2)\n",
       [](run_setup& s) { s.p.init_level = -1; }},
      {"size_x", [](run_setup& s) { s.p.max_level = 2, s.p.lim_oct_level = 2; }},
      {"size_z", [](run_setup& s) { s.p.lim_oct_level = 2; }},
      {"pred_choice", [](run_setup& s) { s.p.pred_choice = 6; }},
      {"threshold_row", [](run_setup& s) { s.p.pred_choice = 4, s.p.threshold_row = 4; }},
      {"max_seed", [](run_setup& s) { s.p.group_mode = 1, s.p.max_seed = 0; }},
      {"rejection", [](run_setup& s) { s.p.rejection = std::nan(""); }},
      {"sigma", [](run_setup& s) { s.p.sigma = 1.0 / 0.0; }},
      {"pseudo_factor", [](run_setup& s) { s.p.pseudo_factor = -1.0 / 0.0; }},
      {"splitmerge: invalid pixel value 300 at index 9: pixels must lie in 0 to 255 "
       "(rescale the image)\n",
       [](run_setup& s) { s.image[9] = 300, s.image[17] = 256; }},
      {"pixel", [](run_setup& s) { s.image[0] = -1; }},
  };
  for (const auto& c : cases) {
    run_setup s = good;
    c.change(s);
    const run_result r = run(s);
    EXPECT_EQ(r.status, -1) << c.text;
    EXPECT_EQ(r.requests, 0u) << c.text << ": nothing may be allocated";
    EXPECT_TRUE(r.frames.empty() && r.printed.empty());
    EXPECT_NE(r.errors.find(c.text), std::string::npos) << r.errors;
    EXPECT_EQ(std::count(r.errors.begin(), r.errors.end(), '\n'), 1) << r.errors;
  }
  run_setup without_seeds = good;
  without_seeds.p.max_seed = 0;  // only parallel grouping needs seeds
  EXPECT_EQ(run(without_seeds).status, 0);
}

// The pixel scan looks at stretches of pixels at a time: the first bad pixel
// is named wherever it lies: at a stretch's edge, in a later stretch, last.
TEST(Parameters, TheFirstBadPixelIsNamedWhereverItLies) {
  for (const std::int64_t at : {4095, 4096, 9000, 128 * 128 - 1}) {
    run_setup s = setup(std::vector<std::int32_t>(128 * 128, 3), 128);
    s.image[static_cast<std::size_t>(at)] = -7;
    if (at + 1 < 128 * 128) s.image[static_cast<std::size_t>(at) + 1] = 999;
    const run_result r = run(s);
    EXPECT_EQ(r.status, -1);
    EXPECT_NE(r.errors.find("invalid pixel value -7 at index " + std::to_string(at) + ":"),
              std::string::npos)
        << r.errors;
  }
}

TEST(Runs, ProgressLinesAndStatusOfWholeRuns) {
  const testing::temp_folder folder;
  std::mt19937 rng(5);
  const std::string tree = "finished initialisation\nfinished merging\n";
  const std::string uniform = tree + "finished calculating region\n";
  const std::string ending = "finished the split_merge routine\nfinished make_output \n";
  const std::string unsaved = "No save_regionlist specified\n";
  struct row {
    const char* name;
    run_setup s;
    std::int32_t status;
    std::string printed;
  };
  std::vector<row> rows = {
      {"uniform", setup(std::vector<std::int32_t>(64, 42), 8), 0, uniform + ending + unsaved},
      {"uniform volume", setup(std::vector<std::int32_t>(64, 7), 4, 4, 0, 4), 0,
       uniform + ending + unsaved},
      {"full", setup(testing::blob_image(rng, 16, 1), 16), 0,
       tree +
           "finished splitting\nfinished ordering regionlist\nfinished parallell grouping\n"
           "finished sequential grouping\nfinished grouping\n"
           "finished small region elimination\nfinished cleaning of regionlist\n"
           "finished sorting of regionlist\n" +
           ending + unsaved},
      {"saved", setup(std::vector<std::int32_t>(64, 42), 8), 0,
       uniform + ending + "file = " + folder.file("r.txt") + " \nfinished save_regionlist \n"},
      {"unwritable", setup(testing::blob_image(rng, 8, 1), 8), -2, ""},
      {"full disk", setup(testing::blob_image(rng, 32, 1, 60), 32), -2, ""}};
  rows[2].s.p.small_size = 3;
  rows[2].s.p.group_mode = 1;
  rows[3].s.region_file = folder.file("r.txt");
  rows[4].s.region_file = "/nonexistent-dir/regions.txt";
  rows[5].s.region_file = "/dev/full";  // every write fails with "no space left"
  for (const auto& [name, s, status, printed] : rows) {
    SCOPED_TRACE(name);
    const run_result r = run(s);
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.live_after, 0);
    if (status == 0) {
      EXPECT_EQ(r.printed, printed);
      testing::expect_label_promises(r.labels, s.size_x, s.size_z, s.p.small_size);
    } else {
      EXPECT_NE(r.printed.find("file = " + s.region_file + " \n"), std::string::npos);
      EXPECT_EQ(r.printed.find("finished save_regionlist"), std::string::npos);
    }
  }
  EXPECT_TRUE(std::filesystem::exists("/dev/full")) << "only regular files are removed";

  // A file size limit far below the file: the run reports it and removes the
  // truncated file (checked in a child, which alone gets the limit).
  run_setup s = rows[5].s;
  s.region_file = folder.file("limited.txt");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{512, 512};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(run(s).status == -2 && !std::filesystem::exists(s.region_file) ? 0 : 1);
  }
  int wstatus = 0;
  ASSERT_EQ(waitpid(child, &wstatus, 0), child);
  EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0);
  EXPECT_GT(run(s).region_text.size(), 512u) << "the limit must cut the file";
}

// Over many random images and parameters, the labels keep their promises,
// and neither threads, the elimination's index (large regions of a noisy
// image collect long neighbour lists, which it looks up after a short walk),
// the code width, repetition nor other runs at the same time change a result.
TEST(Invariants, PromiseLabelsOverManyRandomImagesHoweverTheRunIsCarriedOut) {
  std::mt19937 rng(11);
  const testing::temp_folder folder;
  struct shape {
    int size_x, size_z, trials;
  };
  const shape shapes[] = {{16, 1, 40}, {32, 1, 40}, {8, 8, 40},  {16, 4, 40}, {8, 2, 40},
                          {128, 1, 2}, {512, 1, 2}, {512, 4, 1}, {1024, 1, 1}};
  std::vector<run_setup> setups;
  for (const auto& sh : shapes)
    for (int trial = 0; trial < sh.trials; ++trial) {
      const bool noisy = sh.size_x == 128;
      run_setup s =
          setup(testing::blob_image(rng, sh.size_x, sh.size_z, noisy ? 60 : rng() % 40), sh.size_x,
                sh.size_z, static_cast<std::int32_t>(rng() % std::bit_width(sh.size_x / 2u)),
                1 + static_cast<std::int32_t>(rng() % 5), static_cast<std::int32_t>(rng() % 30));
      s.p.group_mode = static_cast<std::int32_t>(rng() % 2);
      s.p.max_seed = 1 + static_cast<std::int32_t>(rng() % 10);
      s.p.use_all_seeds = static_cast<std::int32_t>(rng() % 2);
      s.p.rejection = 0.05 * static_cast<double>(rng() % 6);
      s.p.sigma = 1.0 + static_cast<double>(rng() % 8);
      s.p.threshold_row = 1 + static_cast<std::int32_t>(rng() % 3);
      s.p.pseudo_factor = static_cast<double>(rng() % 4);
      s.p.small_size = noisy ? 40 : static_cast<std::int32_t>(rng() % 12) - 2;
      s.p.statistic_update = static_cast<std::int32_t>(rng() % 2);
      s.display = rng() % 2 == 0 && sh.size_x < 512;
      s.region_file = folder.file("run_" + std::to_string(setups.size()) + ".txt");
      setups.push_back(s);
    }
  const auto variant = [](run_setup s, std::size_t v) {
    s.threads = v == 0 ? 2 : v == 1 ? 7 : 1;
    s.elimination_walk = v == 2 ? 0 : v == 3 ? 1u << 30 : 32;
    s.wide_codes = v == 4;
    return s;  // v == 5: the same again
  };
  std::vector<run_result> expected(setups.size()), got(setups.size());
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (std::size_t i = t; i < setups.size(); i += 4) {
        expected[i] = run(setups[i]);
        got[i] = run(variant(setups[i], i % 6));
      }
    });
  for (auto& th : threads) th.join();
  for (std::size_t i = 0; i < setups.size(); ++i) {
    const run_setup& s = setups[i];
    SCOPED_TRACE("setup " + std::to_string(i) + ", variant " + std::to_string(i % 6));
    ASSERT_EQ(expected[i].status, 0) << expected[i].errors;
    ASSERT_NO_FATAL_FAILURE(
        testing::expect_label_promises(expected[i].labels, s.size_x, s.size_z, s.p.small_size));
    testing::expect_same(got[i], expected[i]);
  }
}

TEST(FailureSweep, EveryAllocationFailureEndsCleanly) {
  bool site_reached[alloc_site_count] = {};
  std::uint64_t total_runs = 0;
  const testing::temp_folder folder;
  std::mt19937 rng(77);
  struct row {
    const char* name;
    int size_x, size_z, init, pred, group_mode, small, save, display, noise;
  };
  const row rows[] = {{"plane range sequential", 16, 1, 2, 1, 0, 0, 0, 1, 20},
                      {"plane mean parallel with elimination", 16, 1, 2, 2, 1, 6, 1, 1, 20},
                      {"plane median sequential with save", 16, 1, 2, 3, 0, 4, 1, 0, 30},
                      {"volume chi-square parallel", 8, 4, 2, 4, 1, 5, 1, 1, 20},
                      {"volume pseudo-variance sequential", 8, 8, 1, 5, 0, 3, 0, 1, 25},
                      {"noisy plane with many frames", 32, 1, 3, 1, 0, 3, 1, 1, 100},
                      {"wide plane with 64-bit codes", 512, 1, 3, 4, 1, 4, 1, 0, 30}};
  for (const row& c : rows) {
    SCOPED_TRACE(c.name);
    run_setup s = setup(testing::blob_image(rng, c.size_x, c.size_z, c.noise), c.size_x, c.size_z,
                        c.init, c.pred);
    s.p.group_mode = c.group_mode;
    s.p.small_size = c.small;
    s.display = c.display != 0;
    s.region_file = c.save != 0 ? folder.file("sweep.txt") : "";
    // Small arena chunks: every few records is a request that can fail (but
    // not too many requests for the wide image).
    s.block_chunk = c.size_x > 256 ? 1 << 14 : 3;
    s.entry_chunk = c.size_x > 256 ? 1 << 16 : 5;
    const run_result reference = run(s);
    ASSERT_EQ(reference.status, 0);
    ASSERT_EQ(reference.live_after, 0);
    for (s.fail_at = 1; s.fail_at <= reference.requests; ++s.fail_at, ++total_runs) {
      const run_result r = run(s);
      const std::uint64_t k = s.fail_at;
      ASSERT_EQ(r.live_after, 0) << "allocation " << k << " leaked";
      if ((r.failed_site[static_cast<int>(alloc_site::frame_node)] ||
           r.failed_site[static_cast<int>(alloc_site::frame_pixels)]) &&
          k > 2) {
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
    // A budget stops the run at the request that would cross it, in the
    // same clean way; the measured peak is enough.
    s.fail_at = 0;
    for (std::uint64_t step = 1; step <= 64; ++step) {
      s.budget = reference.peak_bytes * step / 64;
      const run_result r = run(s);
      ASSERT_EQ(r.live_after, 0) << "budget " << s.budget;
      ASSERT_LE(r.peak_bytes, s.budget);
      if (r.status == 0) {
        ASSERT_EQ(r.labels, reference.labels) << "budget " << s.budget;
      } else {
        ASSERT_TRUE(r.status == -1 && r.over_budget && step < 64) << "budget " << s.budget;
      }
    }
    s.budget = 0;
  }
  for (std::size_t i = 0; i < alloc_site_count; ++i)
    EXPECT_TRUE(site_reached[i]) << "allocation site " << i << " was never failed";
  EXPECT_GT(total_runs, 1000u);
}

// The largest max_seed once sized the seed table by itself (16 GB).
TEST(SeedTable, AHugeMaxSeedNeedsNoHugeTable) {
  std::mt19937 rng(11);
  run_setup s = setup(testing::blob_image(rng, 64, 1, 30), 64, 1, 3, 4);
  s.p.group_mode = 1;
  s.p.use_all_seeds = 1;
  s.p.max_seed = 64 * 64;
  const run_result bounded = run(s);
  s.p.max_seed = std::numeric_limits<std::int32_t>::max();
  const run_result huge = run(s);
  testing::expect_same(huge, bounded);
  EXPECT_EQ(huge.peak_bytes, bounded.peak_bytes);
}

TEST(Interrupt, EveryPollThatAsksEndsTheRunWithNothingLeft) {
  std::mt19937 rng(91);
  const testing::temp_folder folder;
  struct variant {
    std::int32_t group_mode, threads, pred_choice;
    bool display;
    std::uint32_t elimination_walk;  // 0: every list the elimination asks about is indexed
  };
  for (const variant v : {variant{1, 1, 1, false, 32}, variant{0, 2, 4, true, 0}}) {
    run_setup s = small_volume(rng);
    s.p.group_mode = v.group_mode;
    s.threads = v.threads;
    s.p.pred_choice = v.pred_choice;
    s.display = v.display;
    s.elimination_walk = v.elimination_walk;
    s.region_file = folder.file("interrupt.txt");
    const run_result reference = run(s);
    ASSERT_EQ(reference.status, 0);
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
    for (s.interrupt_at = 1; s.interrupt_at <= reference.polls; ++s.interrupt_at) {
      const run_result r = run(s);
      ASSERT_EQ(r.status, status_interrupted) << "poll " << s.interrupt_at;
      ASSERT_EQ(r.live_after, 0) << "poll " << s.interrupt_at;
      ASSERT_EQ(r.polls, s.interrupt_at) << "no poll after the request";
      ASSERT_FALSE(std::filesystem::exists(s.region_file)) << "poll " << s.interrupt_at;
    }
  }
  const run_setup s = small_volume(rng);
  options o;
  o.interrupt = [] { return true; };
  const segmentation out = segment({s.image.data(), 16, 16, 4}, parameters{}, o);
  EXPECT_EQ(out.status, status_interrupted);
  EXPECT_EQ(out.error, "interrupted");
  EXPECT_EQ(out.labels, std::vector<std::int32_t>(s.image.size(), 0));
}

// The region list collected through the C++ interface is the region list
// file, with 32-bit codes and (beyond 256 pixels along an edge) 64-bit ones.
TEST(Interface, PromiseCollectedRegionsEqualTheRegionListFile) {
  std::mt19937 rng(8);
  const testing::temp_folder folder;
  for (const auto& [edge, slices] : {std::pair{16, 2}, std::pair{512, 1}}) {
    const std::vector<std::int32_t> img = testing::blob_image(rng, edge, slices, 20);
    parameters p;
    p.pred_choice = 2;
    p.small_size = 4;
    options o;
    o.display = false;
    o.collect_regions = true;
    o.region_file = folder.file("collect.txt");
    const segmentation out = segment(image_view{img.data(), edge, edge, slices}, p, o);
    ASSERT_EQ(out.status, status_ok) << out.error;
    std::string expected = std::to_string(edge) + "\n" + std::to_string(slices) + "\n2\n4.0000\n" +
                           std::to_string(out.regions.size()) + "\n2\n";
    for (const region_record& r : out.regions) {
      expected += std::to_string(r.statistics[0]) + " " + std::to_string(r.statistics[1]) + "\n";
      for (const std::uint64_t code : r.codes) {
        EXPECT_EQ(code > 0xFFFF'FFFFu, edge > 256) << "64-bit codes beyond 256 pixels";
        char hex[20];
        std::snprintf(hex, sizeof hex, "%llx\n", static_cast<unsigned long long>(code));
        expected += hex;
      }
      expected += "0\n";
      for (const std::int32_t n : r.neighbours) expected += std::to_string(n) + "\n";
      expected += "-1\n";
    }
    EXPECT_EQ(testing::read_text(*o.region_file), expected);
  }
}

}  // namespace
}  // namespace splitmerge
