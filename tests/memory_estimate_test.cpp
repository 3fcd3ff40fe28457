// The run allocator's failure injection and byte counts, the worst-case memory
// of a run checked against its high-water mark on the images that need the
// most (a checkerboard gives every pixel its own block; noise nearly so), and
// the refusal it drives.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "driver/memory_estimate.hpp"
#include "splitmerge/splitmerge.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::setup;

testing::run_setup worst_case(int size_x, int size_z, bool noise, bool display) {
  std::mt19937 rng(17u + static_cast<unsigned>(size_x));
  testing::run_setup s = setup({}, size_x, size_z, std::min(3, std::countr_zero(size_x / 1u) - 1));
  for (std::size_t i = 0; i < s.image.size(); ++i) {
    const std::size_t x = i % s.size_x, y = i / s.size_x % s.size_x, z = i / s.size_x / s.size_x;
    s.image[i] = noise ? static_cast<std::int32_t>(rng() % 256) : ((x + y + z) & 1) * 255;
  }
  s.p.small_size = 30;
  s.display = display;
  return s;
}

TEST(MemoryEstimate, CoversTheMeasuredPeakOfWorstCaseImagesWithinThreeTimes) {
  struct row {
    int size_x, size_z, group_mode, pred_choice;
  };
  const row rows[] = {{32, 1, 0, 1}, {64, 1, 0, 1}, {8, 8, 0, 1},  {16, 16, 0, 1},
                      {32, 8, 0, 1}, {64, 1, 1, 3}, {16, 16, 1, 3}};
  for (const row& r : rows)
    for (const bool noise : {false, true})
      for (const bool display : {false, true}) {
        SCOPED_TRACE((noise ? "noise " : "checkerboard ") + std::to_string(r.size_x) + " x " +
                     std::to_string(r.size_z) + (display ? " display" : ""));
        testing::run_setup s = worst_case(r.size_x, r.size_z, noise, display);
        s.p.group_mode = r.group_mode;
        s.p.pred_choice = r.pred_choice;
        if (r.pred_choice == 3) s.p.init_level = s.p.max_level - 1;  // the largest median scratch
        options o;
        o.display = display;
        const std::uint64_t estimate =
            worst_case_memory(image_view{s.image.data(), s.size_x, s.size_x, s.size_z}, s.p, o);
        const testing::run_result run = testing::run(s);
        ASSERT_EQ(run.status, 0);
        // The labels are held outside the run's allocator.
        const std::uint64_t peak = run.peak_bytes + s.image.size() * sizeof(std::int32_t);
        EXPECT_GE(estimate, peak);
        EXPECT_LE(estimate, 3 * peak);
      }
}

// The failure injection every sweep builds on.
TEST(Allocator, FailsExactlyTheKthRequestAndCountsLiveMemory) {
  run_allocator a;
  a.fail_at(3);
  void* p1 = a.allocate(8, alloc_site::block_record);
  void* p2 = a.allocate(8, alloc_site::neighbour_entry);
  EXPECT_EQ(a.allocate(8, alloc_site::frame_node), nullptr);
  void* p4 = a.allocate(8, alloc_site::frame_node);
  EXPECT_TRUE(p1 != nullptr && p2 != nullptr && p4 != nullptr);
  EXPECT_TRUE(a.site_failed(alloc_site::frame_node));
  EXPECT_FALSE(a.site_failed(alloc_site::block_record));
  EXPECT_EQ(a.requests(), 4u);
  EXPECT_EQ(a.live(), 3);
  for (void* p : {p1, p2, p4, static_cast<void*>(nullptr)}) a.release(p);
  EXPECT_EQ(a.live(), 0);
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
  const testing::run_setup s = worst_case(64, 1, false, true);
  const image_view view{s.image.data(), 64, 64, 1};
  options collected, streamed, off, tight;
  streamed.frame_sink = [](const std::int32_t*, std::int32_t) {};
  off.display = false;
  EXPECT_EQ(worst_case_memory(view, s.p, streamed), worst_case_memory(view, s.p, off));
  EXPECT_GT(worst_case_memory(view, s.p, collected), worst_case_memory(view, s.p, off));
  // A budget of two frames keeps at most two, plus the one being copied.
  tight.frame_budget = 2 * 64 * 64 * 4;
  EXPECT_EQ(worst_case_memory(view, s.p, tight) - worst_case_memory(view, s.p, off),
            2 * 64 * 64 * 4 / 4 * 5);
  parameters invalid = s.p;
  invalid.init_level = 6;
  EXPECT_EQ(worst_case_memory(view, invalid), 0u) << "invalid parameters have no estimate";
}

TEST(MemoryEstimate, BytesAreWrittenInTheLargestFittingUnit) {
  EXPECT_EQ(format_bytes(512), "512 bytes");
  EXPECT_EQ(format_bytes(1536), "1.5 KiB");
  EXPECT_EQ(format_bytes(std::uint64_t{300} << 20), "300.0 MiB");
  EXPECT_EQ(format_bytes(std::uint64_t{3} << 29), "1.5 GiB");
  EXPECT_GT(available_memory(), std::uint64_t{1} << 20) << "known on this machine";
}

TEST(MemoryLimit, OnlyTheCertainIsRefusedUpFrontTheRestStopsTheRunWhenCrossed) {
  const testing::run_setup image = worst_case(64, 1, true, false);
  const image_view view{image.image.data(), 64, 64, 1};
  const std::uint64_t labels = image.image.size() * sizeof(std::int32_t);
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
