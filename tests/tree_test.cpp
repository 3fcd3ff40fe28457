// The initial block list, the merge and split phases and the display frames.
#include <gtest/gtest.h>

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

TEST(InitialBlocks, EightByEightInZOrder) {
  prepared_run run(setup({}, 8));
  const auto built = init_blocklist(run.ctx);
  ASSERT_EQ(check_pointer(built), 0);
  const std::vector<std::uint32_t> expected = {0x110, 0x120, 0x130, 0x140, 0x210, 0x220,
                                               0x230, 0x240, 0x310, 0x320, 0x330, 0x340,
                                               0x410, 0x420, 0x430, 0x440};
  EXPECT_EQ(chain(run.ctx, built.value[0]), expected);
  const int columns[] = {0, 2, 0, 2, 4, 6, 4, 6, 0};
  const int rows[] = {0, 0, 2, 2, 0, 0, 2, 2, 4};
  for (std::uint32_t i = 0; i < 16; ++i) {
    EXPECT_EQ(entry(run.ctx, built.value[i]->code), i);
    if (i < 9) {
      const block_position p = coordinates(run.ctx, built.value[i]->code, 1);
      EXPECT_EQ(p.column, columns[i]);
      EXPECT_EQ(p.row, rows[i] * 8);
    }
  }
  free_blocklist(run.ctx, built.value);
  EXPECT_EQ(run.ctx.allocator.live(), 4)
      << "the first frame (node and pixels) and two tables remain";
}

TEST(InitialBlocks, OneGroupAndSinglePixels) {
  prepared_run top(setup({}, 4));
  auto built = init_blocklist(top.ctx);
  EXPECT_EQ(chain(top.ctx, built.value[0]), (std::vector<std::uint32_t>{0x10, 0x20, 0x30, 0x40}));
  free_blocklist(top.ctx, built.value);

  prepared_run pixels(setup({}, 4, 2, 0));
  built = init_blocklist(pixels.ctx);
  const auto codes = chain(pixels.ctx, built.value[0]);
  ASSERT_EQ(codes.size(), 32u);
  EXPECT_EQ(codes.front(), 0x11u);
  EXPECT_EQ(codes[4], 0x21u);
  EXPECT_EQ(codes.back(), 0x84u);
  // Below lim_oct_level blocks are one slice deep; a block's slice comes
  // from the octree digits only.
  EXPECT_EQ(coordinates(pixels.ctx, 0x54, 0).slice, 16);
  EXPECT_EQ(coordinates(pixels.ctx, 0x54, 0).first_pixel(), 16 + 1 + 4);
  free_blocklist(pixels.ctx, built.value);
}

TEST(Merge, UniformImagesOfEveryShapeEndAsTheWholeImage) {
  struct shape {
    std::int32_t size_x, size_z, init_level, pred_choice;
  };
  for (const auto& [x, z, init, pred] :
       {shape{8, 1, 0, 1}, shape{8, 1, 2, 4}, shape{4, 4, 1, 5}, shape{8, 2, 1, 3},
        shape{8, 8, 0, 2}, shape{16, 4, 2, 4}}) {
    prepared_run run(setup(std::vector<std::int32_t>(static_cast<std::size_t>(x * x * z), 77), x, z,
                           init, pred));
    ASSERT_TRUE(run.ok);
    const auto built = init_blocklist(run.ctx);
    smg_merge(run.ctx, built.value);
    EXPECT_EQ(chain(run.ctx, built.value[0]), (std::vector<std::uint32_t>{0u}))
        << "size " << x << "x" << z << " init " << init;
    const std::int32_t cells = run.ctx.voxels_image / run.ctx.pixels_perblock[init];
    for (std::int32_t i = 1; i < cells; ++i) EXPECT_EQ(built.value[i], nullptr);
    free_blocklist(run.ctx, built.value);
  }
}

TEST(Merge, CellsMergeOnlyWhenAllChildrenAreAccepted) {
  // Only the top-left 4x4 quarter is uniform.
  std::vector<std::int32_t> img(64);
  for (int i = 0; i < 64; ++i) img[static_cast<std::size_t>(i)] = (i * 37) % 251;
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) img[static_cast<std::size_t>(y * 8 + x)] = 5;
  prepared_run run(setup(img, 8));
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  const auto codes = chain(run.ctx, built.value[0]);
  EXPECT_EQ(codes.front(), 0x100u);
  EXPECT_EQ(codes.size(), 13u);
  EXPECT_EQ(built.value[0]->code, 0x100u);
  EXPECT_EQ(built.value[1], nullptr);
  EXPECT_EQ(built.value[2], nullptr);
  EXPECT_EQ(built.value[3], nullptr);
  EXPECT_NE(built.value[4], nullptr);
  free_blocklist(run.ctx, built.value);
}

// An 8x8 image in which only block 0x230 (column 4, row 2) is not homogeneous.
std::vector<std::int32_t> one_rough_block() {
  std::vector<std::int32_t> img(64, 0);
  img[2 * 8 + 5] = 100;
  return img;
}

TEST(Split, ReplacesAFailedBlockByItsSonsInZOrder) {
  prepared_run run(setup(one_rough_block(), 8));
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  EXPECT_EQ(chain(run.ctx, built.value[0]),
            (std::vector<std::uint32_t>{0x100, 0x210, 0x220, 0x230, 0x240, 0x300, 0x400}));
  EXPECT_EQ(smg_split(run.ctx, built.value), 0);
  EXPECT_EQ(chain(run.ctx, built.value[0]),
            (std::vector<std::uint32_t>{0x100, 0x210, 0x220, 0x231, 0x232, 0x233, 0x234, 0x240,
                                        0x300, 0x400}));
  const int expected_columns[] = {4, 5, 4, 5};
  const int expected_rows[] = {2, 2, 3, 3};
  const block* b = built.value[6];  // slot of 0x230 keeps its record, now son 1
  for (int k = 0; k < 4; ++k, b = run.ctx.block_at(b->next_block)) {
    const block_position p = coordinates(run.ctx, b->code, 0);
    EXPECT_EQ(p.column, expected_columns[k]);
    EXPECT_EQ(p.row, expected_rows[k] * 8);
    EXPECT_GE(b->variables[0], 0);
  }
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
  EXPECT_EQ(f[2 * 8 + 4], 1);
  EXPECT_EQ(f[2 * 8 + 5], 2);
  EXPECT_EQ(f[3 * 8 + 4], 3);
  EXPECT_EQ(f[3 * 8 + 5], 4);
  EXPECT_EQ(f[0], 1) << "the merged top-left quarter shows its digit at level 2";
  free_blocklist(run.ctx, built.value);
}

TEST(Split, BlocksThatFailEverywhereEndAsSinglePixels) {
  std::vector<std::int32_t> img(64);
  for (int i = 0; i < 64; ++i) img[static_cast<std::size_t>(i)] = (i % 2) * 200;
  prepared_run run(setup(img, 8, 1, 2));
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  ASSERT_EQ(smg_split(run.ctx, built.value), 0);
  const auto codes = chain(run.ctx, built.value[0]);
  ASSERT_EQ(codes.size(), 64u);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    EXPECT_EQ(level(run.ctx, codes[i]), 0);
    EXPECT_NE(codes[i] & 0xF, 0u);
    EXPECT_NE(codes[i] & 0xF0, 0u);
    EXPECT_NE(codes[i] & 0xF00, 0u);
    if (i > 0) {
      EXPECT_GT(codes[i], codes[i - 1]);
    }
  }
  free_blocklist(run.ctx, built.value);
}

TEST(Split, OctreeSonsHalveTheDepthAndQuadtreeSonsKeepIt) {
  // 8x8x4 volume, lim_oct_level 1, init_level 2: blocks of 4x4x2.
  std::vector<std::int32_t> img(256, 0);
  img[64 + 8 + 1] = 200;  // slice 1, row 1, column 1
  prepared_run run(setup(img, 8, 4, 2));
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  ASSERT_EQ(smg_split(run.ctx, built.value), 0);
  const auto codes = chain(run.ctx, built.value[0]);
  // The first 4x4x2 block splits into eight 2x2x1 sons; son 5 (slice 1,
  // columns 0-1, rows 0-1) fails again and splits into four one-slice pixels.
  ASSERT_GE(codes.size(), 12u);
  EXPECT_EQ(std::vector<std::uint32_t>(codes.begin(), codes.begin() + 12),
            (std::vector<std::uint32_t>{0x110, 0x120, 0x130, 0x140, 0x151, 0x152, 0x153, 0x154,
                                        0x160, 0x170, 0x180, 0x200}));
  EXPECT_EQ(coordinates(run.ctx, 0x154, 0).first_pixel(), 64 + 8 + 1);
  free_blocklist(run.ctx, built.value);
}

TEST(Split, InitialLevelZeroSplitsNothing) {
  std::vector<std::int32_t> img(16, 0);
  img[3] = 255;
  prepared_run run(setup(img, 4, 1, 0, 4));
  run.ctx.var_thresh[0] = -1.0f;  // make single pixels fail their test
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  const auto before = chain(run.ctx, built.value[0]);
  EXPECT_EQ(smg_split(run.ctx, built.value), 0);
  EXPECT_EQ(chain(run.ctx, built.value[0]), before);
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

TEST(Display, FramesAreFrozenEveryThousandAndFirstTick) {
  for (const int ticks : {0, 1000, 1001, 2002, 2003}) {
    prepared_run run(setup({}, 4));
    init_smg_display(run.ctx);
    for (int t = 0; t < ticks; ++t) smg_display_im(run.ctx);
    EXPECT_EQ(run.ctx.smg_dsp_count, 2 + ticks / 1001) << ticks << " ticks";
    int nodes = 0;
    for (const disp_frame* f = run.ctx.smg_disp; f != nullptr; f = f->next) ++nodes;
    EXPECT_EQ(nodes, run.ctx.smg_dsp_count);
  }
}

TEST(Display, APaintedFrameIsASnapshotOfEverythingUpToItsTick) {
  prepared_run run(setup({}, 4));
  init_smg_display(run.ctx);
  for (int t = 0; t < 1000; ++t) smg_display_im(run.ctx);
  smg_dfill_block(run.ctx, 0, 0, 0, 4, 16, 16, 9);
  smg_display_im(run.ctx);  // the 1001st tick freezes frame 2 with the paint
  ASSERT_EQ(run.ctx.smg_dsp_count, 3);
  EXPECT_EQ(frame(run.ctx, 1), std::vector<std::int32_t>(16, 9));
  EXPECT_EQ(frame(run.ctx, 2), frame(run.ctx, 1));
}

TEST(Display, AMultiSliceBlockIsPaintedInEachOfItsSlicesOnly) {
  prepared_run run(setup({}, 4, 4));
  std::fill(run.ctx.smg_disp_cur->pixels, run.ctx.smg_disp_cur->pixels + 64, 0);
  // Block of level 1 at column 2, row 0, slices 2-3: 2x2x2 pixels.
  smg_dfill_block(run.ctx, 2, 0, 32, 2, 8, 32, 6);
  const auto f = frame(run.ctx, 0);
  for (int z = 0; z < 4; ++z)
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 4; ++x) {
        const bool inside = z >= 2 && y < 2 && x >= 2;
        EXPECT_EQ(f[static_cast<std::size_t>(z * 16 + y * 4 + x)], inside ? 6 : 0);
      }
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
