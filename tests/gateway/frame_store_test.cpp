// The frame store gives back exactly the frames it was handed, whether they
// are kept as differences or, when those would not be smaller, raw. With 1
// and 7 pixels most changes touch an edge and many frames repeat the last.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "gateway/frame_store.hpp"

namespace splitmerge::gateway {
namespace {

using frames = std::vector<std::vector<std::int32_t>>;

std::vector<std::int32_t> stored(const frame_store& store, std::size_t pixels) {
  std::vector<std::int32_t> out(static_cast<std::size_t>(store.frame_count()) * pixels, 0);
  store.write_to(out.data());
  return out;
}

std::vector<std::int32_t> joined(const frames& f) {
  std::vector<std::int32_t> all;
  for (const auto& one : f) all.insert(all.end(), one.begin(), one.end());
  return all;
}

// Frames as the run makes them: each one paints a few boxes over the last,
// now and then a frame full of noise.
frames painted_frames(std::size_t pixels, int count, std::uint32_t seed) {
  frames f;
  std::vector<std::int32_t> current(pixels, 0);
  std::uint32_t state = seed;
  const auto next = [&state] {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
  };
  for (int k = 0; k < count; ++k) {
    if (k % 7 == 3) {
      for (auto& v : current) v = static_cast<std::int32_t>(next() % 9);  // no long runs
    } else {
      for (int box = 0; box < 3; ++box) {
        const std::size_t start = next() % pixels;
        const std::size_t length = 1 + next() % 40;
        const auto value = static_cast<std::int32_t>(next() % 5);
        for (std::size_t i = start; i < std::min(pixels, start + length); ++i) current[i] = value;
      }
    }
    f.push_back(current);
  }
  return f;
}

TEST(FrameStore, GivesBackEveryFrameExactly) {
  for (std::size_t pixels : {1u, 7u, 64u, 1000u, 4096u}) {
    SCOPED_TRACE(pixels);
    const frames f = painted_frames(pixels, 30, static_cast<std::uint32_t>(pixels));
    frame_store store(pixels, 1000);
    for (const auto& one : f) ASSERT_TRUE(store.append(one.data()));
    EXPECT_EQ(store.frame_count(), 30);
    EXPECT_FALSE(store.dropped_frames());
    EXPECT_EQ(stored(store, pixels), joined(f));
  }
}

TEST(FrameStore, BeyondTheLimitTheLastSlotHoldsTheNewestFrame) {
  const std::size_t n = 500;
  const frames f = painted_frames(n, 20, 3);
  for (std::int32_t limit : {1, 2, 5}) {
    SCOPED_TRACE(limit);
    frame_store store(n, limit);
    for (const auto& one : f) ASSERT_TRUE(store.append(one.data()));
    EXPECT_EQ(store.frame_count(), limit);
    EXPECT_EQ(store.frames_seen(), 20);
    EXPECT_TRUE(store.dropped_frames());
    frames expected(f.begin(), f.begin() + (limit - 1));
    expected.push_back(f.back());
    EXPECT_EQ(stored(store, n), joined(expected));
  }
}

TEST(FrameStore, SlowlyChangingFramesTakeLittleRoom) {
  // 200 frames of 64 Ki pixels that each change 100 pixels: far below the
  // 200 raw frames (13 M words).
  const std::size_t n = 65536;
  frame_store store(n, 1000);
  std::vector<std::int32_t> current(n, 1);
  for (int k = 0; k < 200; ++k) {
    for (std::size_t i = 0; i < 100; ++i) current[(k * 317 + i) % n] = k;
    ASSERT_TRUE(store.append(current.data()));
  }
  EXPECT_LE(store.requests(), 30u);  // geometric growth, few requests
  EXPECT_LT(store.stored_words(), 2 * n + 200 * 110);
}

}  // namespace
}  // namespace splitmerge::gateway
