// The worst-case memory of a run, checked against the run allocator's
// high-water mark on the images that need the most (a checkerboard gives
// every pixel its own block; noise nearly so), and the refusal it drives.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "driver/driver.hpp"
#include "driver/memory_estimate.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {
namespace {

std::vector<std::int32_t> checkerboard(int size_x, int size_z) {
  std::vector<std::int32_t> v(static_cast<std::size_t>(size_x) * size_x * size_z);
  for (int z = 0; z < size_z; ++z)
    for (int y = 0; y < size_x; ++y)
      for (int x = 0; x < size_x; ++x)
        v[static_cast<std::size_t>((z * size_x + y) * size_x + x)] = ((x + y + z) & 1) * 255;
  return v;
}

std::vector<std::int32_t> noise(int size_x, int size_z, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<std::int32_t> v(static_cast<std::size_t>(size_x) * size_x * size_z);
  for (auto& p : v) p = static_cast<std::int32_t>(rng() % 256);
  return v;
}

int log2_of(int v) {
  int l = 0;
  while ((1 << l) < v) ++l;
  return l;
}

parameters worst_parameters(int size_x, int size_z) {
  parameters p;
  p.max_level = log2_of(size_x);
  p.lim_oct_level = p.max_level - log2_of(size_z);
  p.init_level = std::min(3, p.max_level - 1);
  p.pred_choice = 1;
  p.interval_length = 10;
  p.small_size = 30;
  return p;
}

// The allocator's high-water mark of a run plus the labels, which segment
// holds outside the run's allocator.
std::uint64_t measured_peak(const std::vector<std::int32_t>& image, int size_x, int size_z,
                            const parameters& p, bool display) {
  run_context ctx;
  ctx.out = [](std::string_view) {};
  ctx.err = [](std::string_view) {};
  std::vector<std::int32_t> labels(image.size());
  const std::int32_t status = split_merge_group(
      ctx, image.data(), size_x, size_x, size_z, p.max_level, p.lim_oct_level, labels.data(),
      p.init_level, p.group_mode, p.max_seed, p.use_all_seeds, p.pred_choice, p.interval_length,
      p.threshold_row, p.small_size, p.statistic_update, 0, display ? 1 : 0, "", p.rejection,
      p.sigma, p.pseudo_factor);
  EXPECT_EQ(status, 0);
  ctx.release_frames();
  EXPECT_EQ(ctx.allocator.live_bytes(), 0u) << "every counted byte is given back";
  return ctx.allocator.peak_bytes() + labels.size() * sizeof(std::int32_t);
}

TEST(MemoryEstimate, CoversTheMeasuredPeakOfWorstCaseImagesWithinThreeTimes) {
  struct size_case {
    int size_x;
    int size_z;
  };
  for (const size_case c :
       {size_case{32, 1}, size_case{64, 1}, size_case{8, 8}, size_case{16, 16}, size_case{32, 8}})
    for (int kind = 0; kind < 2; ++kind)
      for (const bool display : {false, true}) {
        const auto image = kind == 0 ? checkerboard(c.size_x, c.size_z)
                                     : noise(c.size_x, c.size_z, 17u + c.size_x);
        SCOPED_TRACE((kind == 0 ? "checkerboard " : "noise ") + std::to_string(c.size_x) + " x " +
                     std::to_string(c.size_z) + (display ? " display" : ""));
        const parameters p = worst_parameters(c.size_x, c.size_z);
        options o;
        o.display = display;
        const std::uint64_t estimate =
            worst_case_memory(image_view{image.data(), c.size_x, c.size_x, c.size_z}, p, o);
        const std::uint64_t peak = measured_peak(image, c.size_x, c.size_z, p, display);
        EXPECT_GE(estimate, peak);
        EXPECT_LE(estimate, 3 * peak);
      }
}

TEST(MemoryEstimate, CoversTheOtherGroupingAndTheMedianPredicate) {
  for (int kind = 0; kind < 2; ++kind) {
    const auto image = kind == 0 ? checkerboard(64, 1) : noise(16, 16, 9);
    const int size_x = kind == 0 ? 64 : 16;
    const int size_z = kind == 0 ? 1 : 16;
    parameters p = worst_parameters(size_x, size_z);
    p.group_mode = 1;
    p.pred_choice = 3;
    p.init_level = p.max_level - 1;  // the largest median scratch
    const std::uint64_t estimate =
        worst_case_memory(image_view{image.data(), size_x, size_x, size_z}, p, options{});
    const std::uint64_t peak = measured_peak(image, size_x, size_z, p, true);
    EXPECT_GE(estimate, peak);
    EXPECT_LE(estimate, 3 * peak);
  }
}

// The high-water mark the estimate is fitted to: small pieces count their
// size class, large ones their size, reserved ranges only what is granted.
TEST(AllocatorBytes, CountsWhatIsHeldAndTheMostHeldAtOnce) {
  run_allocator a;
  void* small = a.allocate(100, alloc_site::level_table);  // class of 104 bytes
  EXPECT_EQ(a.live_bytes(), 104u);
  void* large = a.allocate_uninitialised(1000, alloc_site::sort_array);
  EXPECT_EQ(a.live_bytes(), 1104u);
  void* range = a.reserve(std::size_t{1} << 20, alloc_site::block_record);
  EXPECT_EQ(a.live_bytes(), 1104u) << "a reservation is not memory yet";
  ASSERT_TRUE(a.grant(alloc_site::block_record, 480));
  EXPECT_EQ(a.live_bytes(), 1584u);
  a.release(large);
  EXPECT_EQ(a.live_bytes(), 584u);
  a.ungrant(480);
  a.release(range);
  a.release(small);
  EXPECT_EQ(a.live_bytes(), 0u);
  EXPECT_EQ(a.peak_bytes(), 1584u);
  a.fail_at(a.requests() + 1);
  EXPECT_FALSE(a.grant(alloc_site::block_record, 480));
  EXPECT_EQ(a.live_bytes(), 0u) << "a refused grant counts nothing";
}

TEST(MemoryEstimate, FramesHandedToASinkAreNotCounted) {
  const auto image = checkerboard(64, 1);
  const image_view view{image.data(), 64, 64, 1};
  options collected;
  options streamed;
  streamed.frame_sink = [](const std::int32_t*, std::int32_t) {};
  options off;
  off.display = false;
  const parameters p = worst_parameters(64, 1);
  EXPECT_EQ(worst_case_memory(view, p, streamed), worst_case_memory(view, p, off));
  EXPECT_GT(worst_case_memory(view, p, collected), worst_case_memory(view, p, off));
  // A budget of two frames keeps at most two, plus the one being copied.
  options tight;
  tight.frame_budget = 2 * 64 * 64 * 4;
  EXPECT_EQ(worst_case_memory(view, p, tight) - worst_case_memory(view, p, off),
            2 * 64 * 64 * 4 / 4 * 5);
}

TEST(MemoryEstimate, InvalidParametersHaveNoEstimate) {
  const auto image = checkerboard(8, 1);
  parameters p;
  p.init_level = 5;
  EXPECT_EQ(worst_case_memory(image_view{image.data(), 8, 8, 1}, p), 0u);
}

TEST(MemoryEstimate, BytesAreWrittenInTheLargestFittingUnit) {
  EXPECT_EQ(format_bytes(512), "512 bytes");
  EXPECT_EQ(format_bytes(1536), "1.5 KiB");
  EXPECT_EQ(format_bytes(std::uint64_t{300} << 20), "300.0 MiB");
  EXPECT_EQ(format_bytes(std::uint64_t{3} << 29), "1.5 GiB");
}

TEST(MemoryEstimate, AvailableMemoryIsKnownOnThisMachine) {
  EXPECT_GT(available_memory(), std::uint64_t{1} << 20);
}

TEST(MemoryLimit, OnlyTheCertainIsRefusedUpFrontTheRestStopsTheRunWhenCrossed) {
  const auto image = noise(64, 1, 3);
  const image_view view{image.data(), 64, 64, 1};
  const std::uint64_t labels = image.size() * sizeof(std::int32_t);
  struct row {
    std::uint64_t limit;
    const char* says;
    bool polled;  // whether the run began
  };
  for (const row& r : {row{labels, "the run needs at least", false},
                       row{labels + (std::uint64_t{96} << 10), "the run stopped at", true},
                       row{std::uint64_t{1} << 30, "", true}}) {
    SCOPED_TRACE(r.limit);
    options o;
    std::string errors;
    o.error_sink = [&](std::string_view t) { errors.append(t); };
    bool polled = false;
    o.interrupt = [&] { return polled = true, false; };
    o.memory_limit = r.limit;
    const segmentation s = segment(view, parameters{}, o);
    EXPECT_EQ(polled, r.polled);
    if (*r.says == '\0') {
      EXPECT_EQ(s.status, status_ok);
      EXPECT_EQ(s.memory_needed, 0u);
      continue;
    }
    EXPECT_EQ(s.status, status_failed);
    EXPECT_EQ(s.memory_limit, r.limit);
    EXPECT_GT(s.memory_needed, r.limit);
    EXPECT_EQ(s.error.rfind(r.says, 0), 0u) << s.error;
    EXPECT_NE(s.error.find(format_bytes(r.limit)), std::string::npos) << s.error;
    EXPECT_EQ(errors, "splitmerge: " + s.error + "\n");
  }
}

}  // namespace
}  // namespace splitmerge
