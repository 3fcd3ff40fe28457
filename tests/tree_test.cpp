// The initial block list, the merge and split phases and the display frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "display/display.hpp"
#include "geometry/geometry.hpp"
#include "support/run_setup.hpp"
#include "tree/tree.hpp"

namespace splitmerge {
namespace {

using testing::chain;
using testing::prepared_run;
using testing::setup;

std::vector<std::int32_t> frame(const run_context& ctx, int k) {
  const disp_frame* f = ctx.smg_disp;
  for (int i = 0; i < k; ++i) f = f->next;
  return std::vector<std::int32_t>(f->pixels, f->pixels + ctx.smg_img_size);
}

// An 8x8 image in which only block 0x230 (column 4, row 2) is not homogeneous.
std::vector<std::int32_t> one_rough_block() {
  std::vector<std::int32_t> img(64, 0);
  img[2 * 8 + 5] = 100;
  return img;
}

TEST(Tree, BlockListsAfterEachPhase) {
  std::vector<std::int32_t> quarter(64), stripes(64), octree(256, 0);
  for (int i = 0; i < 64; ++i) {
    // Only the top-left 4x4 quarter is uniform.
    quarter[static_cast<std::size_t>(i)] = i % 8 < 4 && i < 32 ? 5 : (i * 37) % 251;
    stripes[static_cast<std::size_t>(i)] = (i % 2) * 200;
  }
  octree[64 + 8 + 1] = 200;  // slice 1, row 1, column 1
  const auto uniform = [](std::int32_t x, std::int32_t z, std::int32_t init, std::int32_t pred) {
    return setup(std::vector<std::int32_t>(static_cast<std::size_t>(x * x * z), 77), x, z, init,
                 pred);
  };
  struct row {
    const char* name;
    testing::run_setup s;
    int phases;  // 0: the initial list, 1: merged, 2: split
    std::vector<std::uint32_t> first;
    std::size_t blocks;
  };
  const row rows[] = {
      {"initial blocks in z order",
       setup({}, 8),
       0,
       {0x110, 0x120, 0x130, 0x140, 0x210, 0x220, 0x230, 0x240, 0x310, 0x320, 0x330, 0x340, 0x410,
        0x420, 0x430, 0x440},
       16},
      {"one group of initial blocks", setup({}, 4), 0, {0x10, 0x20, 0x30, 0x40}, 4},
      {"single pixels of a volume", setup({}, 4, 2, 0), 0, {0x11, 0x12, 0x13, 0x14, 0x21}, 32},
      {"uniform plane", uniform(8, 1, 0, 1), 1, {0}, 1},
      {"uniform plane, chi-square", uniform(8, 1, 2, 4), 1, {0}, 1},
      {"uniform volume", uniform(4, 4, 1, 5), 1, {0}, 1},
      {"uniform volume, median", uniform(8, 2, 1, 3), 1, {0}, 1},
      {"uniform volume, means", uniform(8, 8, 0, 2), 1, {0}, 1},
      {"uniform volume of two kinds of levels", uniform(16, 4, 2, 4), 1, {0}, 1},
      {"cells merge only when all children are accepted", setup(quarter, 8), 1, {0x100, 0x210}, 13},
      {"one rough block",
       setup(one_rough_block(), 8),
       1,
       {0x100, 0x210, 0x220, 0x230, 0x240, 0x300, 0x400},
       7},
      {"a failed block is replaced by its sons in z order",
       setup(one_rough_block(), 8),
       2,
       {0x100, 0x210, 0x220, 0x231, 0x232, 0x233, 0x234, 0x240, 0x300, 0x400},
       10},
      {"blocks that fail everywhere end as single pixels",
       setup(stripes, 8, 1, 2),
       2,
       {0x111, 0x112, 0x113, 0x114, 0x121},
       64},
      // The first 4x4x2 block splits into eight 2x2x1 sons; son 5 (slice 1,
      // columns 0-1, rows 0-1) fails again and splits into four one-slice pixels.
      {"octree sons halve the depth, quadtree sons keep it",
       setup(octree, 8, 4, 2),
       2,
       {0x110, 0x120, 0x130, 0x140, 0x151, 0x152, 0x153, 0x154, 0x160, 0x170, 0x180, 0x200},
       0}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    prepared_run run(r.s);
    ASSERT_TRUE(run.ok);
    const std::int64_t tables = run.ctx.allocator.live();
    const auto built = init_blocklist(run.ctx);
    ASSERT_EQ(check_pointer(built), 0);
    if (r.phases >= 1) smg_merge(run.ctx, built.value);
    if (r.phases >= 2) {
      ASSERT_EQ(smg_split(run.ctx, built.value), 0);
    }
    const auto codes = chain(run.ctx, built.value[0]);
    EXPECT_EQ(std::vector<std::uint32_t>(codes.begin(),
                                         codes.begin() + std::min(codes.size(), r.first.size())),
              r.first);
    if (r.blocks != 0) {
      EXPECT_EQ(codes.size(), r.blocks);
    }
    EXPECT_TRUE(std::adjacent_find(codes.begin(), codes.end(), std::greater_equal<>()) ==
                codes.end())
        << "in code order";
    // Each block of the merged list keeps one slot; the others are empty.
    const std::int32_t slots = run.ctx.voxels_image / run.ctx.pixels_perblock[r.s.p.init_level];
    if (r.phases == 1) {
      EXPECT_EQ(std::count(built.value, built.value + slots, nullptr) + codes.size(), slots);
    }
    free_blocklist(run.ctx, built.value);
    EXPECT_EQ(run.ctx.allocator.live(), tables) << "the first frame and the tables remain";
  }
  // With an initial level of 0 nothing splits, even single pixels that fail.
  std::vector<std::int32_t> img(16, 0);
  img[3] = 255;
  prepared_run run(setup(img, 4, 1, 0, 4));
  run.ctx.var_thresh[0] = -1.0f;
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  const auto before = chain(run.ctx, built.value[0]);
  EXPECT_EQ(smg_split(run.ctx, built.value), 0);
  EXPECT_EQ(chain(run.ctx, built.value[0]), before);
  free_blocklist(run.ctx, built.value);
}

TEST(Split, DisplayPaintsEachSonWithItsDigitBeforeEvaluating) {
  prepared_run run(setup(one_rough_block(), 8));
  const auto built = init_blocklist(run.ctx);
  init_smg_display(run.ctx);
  smg_merge_disp(run.ctx, built.value);
  const std::int32_t ticks_before = run.ctx.smg_dsp_count_l;
  ASSERT_EQ(smg_split_disp(run.ctx, built.value), 0);
  EXPECT_EQ(run.ctx.smg_dsp_count_l - ticks_before, 4) << "one tick per son";
  const auto f = frame(run.ctx, 1);
  EXPECT_EQ((std::vector<int>{f[20], f[21], f[28], f[29]}), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(f[0], 1) << "the merged top-left quarter shows its digit at level 2";
  free_blocklist(run.ctx, built.value);
}

TEST(Display, InitialCheckerboardOfPlanesAndVolumes) {
  struct shape {
    std::int32_t size_x, size_z, init_level, slices_per_cell;
  };
  for (const auto& [x, z, init, dz] :
       {shape{8, 1, 1, 1}, shape{4, 4, 1, 2}, shape{8, 2, 1, 1}, shape{8, 4, 2, 2}}) {
    prepared_run run(setup({}, x, z, init));
    init_smg_display(run.ctx);
    EXPECT_EQ(run.ctx.smg_dsp_count, 2) << "the first tick freezes the pattern at once";
    const auto f = frame(run.ctx, 0);
    EXPECT_EQ(frame(run.ctx, 1), f);
    const int w = 1 << init;
    for (int i = 0; i < x * x * z; ++i)
      ASSERT_EQ(f[static_cast<std::size_t>(i)],
                1 + (i % x / w) % 2 + 2 * ((i / x % x / w) % 2) + 4 * ((i / (x * x) / dz) % 2));
  }
}

TEST(Display, FramesAreFrozenEveryThousandAndFirstTickAsSnapshots) {
  for (const int ticks : {0, 1000, 1001, 2002, 2003}) {
    prepared_run run(setup({}, 4));
    init_smg_display(run.ctx);
    for (int t = 0; t < ticks; ++t) smg_display_im(run.ctx);
    EXPECT_EQ(run.ctx.smg_dsp_count, 2 + ticks / 1001) << ticks << " ticks";
    int nodes = 0;
    for (const disp_frame* f = run.ctx.smg_disp; f != nullptr; f = f->next) ++nodes;
    EXPECT_EQ(nodes, run.ctx.smg_dsp_count);
    if (ticks != 1000) continue;
    smg_dfill_block(run.ctx, 0, 0, 0, 4, 16, 16, 9);
    smg_display_im(run.ctx);  // the 1001st tick freezes frame 2 with the paint
    ASSERT_EQ(run.ctx.smg_dsp_count, 3);
    EXPECT_EQ(frame(run.ctx, 1), std::vector<std::int32_t>(16, 9));
    EXPECT_EQ(frame(run.ctx, 2), frame(run.ctx, 1));
  }
}

TEST(Display, AMultiSliceBlockIsPaintedInEachOfItsSlicesOnly) {
  prepared_run run(setup({}, 4, 4));
  std::fill(run.ctx.smg_disp_cur->pixels, run.ctx.smg_disp_cur->pixels + 64, 0);
  // Block of level 1 at column 2, row 0, slices 2-3: 2x2x2 pixels.
  smg_dfill_block(run.ctx, 2, 0, 32, 2, 8, 32, 6);
  const auto f = frame(run.ctx, 0);
  for (int i = 0; i < 64; ++i)
    EXPECT_EQ(f[static_cast<std::size_t>(i)], i >= 32 && i % 16 < 8 && i % 4 >= 2 ? 6 : 0) << i;
  smg_dfill_block(run.ctx, 0, 0, 0, 4, 16, 0, 5);
  EXPECT_EQ(frame(run.ctx, 0), f) << "an empty slice span paints nothing";
}

TEST(Display, TheFrameBudgetStopsRecordingButKeepsTheFrames) {
  prepared_run run(setup({}, 4));
  std::string warnings;
  run.ctx.err = [&](std::string_view s) { warnings.append(s); };
  run.ctx.frame_budget = 3 * 16 * sizeof(std::int32_t);
  init_smg_display(run.ctx);
  for (int t = 0; t < 5000; ++t) smg_display_im(run.ctx);
  EXPECT_EQ(run.ctx.smg_dsp_count, 3);
  EXPECT_EQ(warnings,
            "splitmerge: frame recording stopped at 3 frames: the next frame would exceed the "
            "frame budget of 192 bytes\n");
  smg_dfill_block(run.ctx, 0, 0, 0, 1, 4, 16, 7);
  EXPECT_EQ(frame(run.ctx, 2)[0], 7) << "painting goes on in the last frame";
}

TEST(Display, ATickThatCannotAllocateKeepsTheFramesSoFar) {
  prepared_run run(setup({}, 4));
  init_smg_display(run.ctx);
  run.ctx.allocator.fail_at(run.ctx.allocator.requests() + 2);  // the next buffer
  for (int t = 0; t < 3000; ++t) smg_display_im(run.ctx);
  EXPECT_EQ(run.ctx.smg_dsp_count, 2);
  EXPECT_EQ(run.ctx.allocator.live(), 2 + 2 * 2) << "two tables and two complete frames";
}

}  // namespace
}  // namespace splitmerge
