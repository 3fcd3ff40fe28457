// Images beyond 256 pixels along an edge: 64-bit locational codes on worked
// examples, adjacency against a pixel raster on 512² tilings, and complete
// runs of 512² and 1024² images whose labels keep the promises of a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "splitmerge/splitmerge.hpp"
#include "support/block_boxes.hpp"
#include "support/random_images.hpp"
#include "support/run_setup.hpp"
#include "tree/tree.hpp"

namespace splitmerge {
namespace {

using wide = std::uint64_t;
using testing::prepared_run;

// A context with the tables of a 2-D image of 2^max_level pixels a side.
struct plane_tables {
  run_context ctx;
  std::vector<std::int32_t> per_level;

  plane_tables(std::int32_t max_level, std::int32_t init_level, std::int32_t lim_oct_level)
      : per_level(static_cast<std::size_t>(max_level)) {
    ctx.max_level = max_level;
    ctx.lim_oct_level = lim_oct_level;
    ctx.init_level = init_level;
    ctx.im_format_xy = 1 << max_level;
    ctx.voxels_slice = ctx.im_format_xy * ctx.im_format_xy;
    for (std::int32_t l = 0; l < max_level; ++l)
      per_level[static_cast<std::size_t>(l)] = l < lim_oct_level ? 4 : 8;
    ctx.blocks_perlevel = per_level.data();
  }
  ~plane_tables() { ctx.blocks_perlevel = nullptr; }
  plane_tables(const plane_tables&) = delete;
  plane_tables& operator=(const plane_tables&) = delete;
};

TEST(WideCodes, LevelsAboveEightAndTheirDigits) {
  const plane_tables t(12, 3, 12);
  EXPECT_EQ(level<wide>(t.ctx, 0x1'0000'0000), 8);
  EXPECT_EQ(level<wide>(t.ctx, 0x10'0000'0000), 9);
  EXPECT_EQ(level<wide>(t.ctx, 0x1000'0000'0000), 11);
  EXPECT_EQ(level<wide>(t.ctx, 0x1234'5678'9ABC), 0);
  EXPECT_EQ(level<wide>(t.ctx, 0), 12);
  EXPECT_EQ(nibble(wide{0x4321'0000'0000}, 11), 4u);
  EXPECT_EQ(nibble(wide{0x4321'0000'0000}, 8), 1u);
  EXPECT_EQ(changed_code<wide>(3, 9, 0x1111'1111'1111), wide{0x1131'1111'1111});
  EXPECT_EQ(
      level_mask<wide>[9], wide { 0xFFFF'FFF0'0000'0000 });
  EXPECT_EQ(
      mask<wide>[9], wide { 0xF'0000'0000 });
}

TEST(WideCodes, CoordinatesOfTheUpperHalvesOfA4096Image) {
  const plane_tables t(12, 3, 12);
  // Digit 2 at level 11 (upper half in x), nothing below: the right half.
  block_position p = coordinates<wide>(t.ctx, 0x2000'0000'0000, 11);
  EXPECT_EQ(p.column, 2048);
  EXPECT_EQ(p.row, 0);
  // Digit 4 at level 8 under digit 1 above: the 256 x 256 block at (256, 256).
  p = coordinates<wide>(t.ctx, 0x1114'0000'0000, 8);
  EXPECT_EQ(p.column, 256);
  EXPECT_EQ(p.row, 256 * 4096);
  // The last pixel: digit 4 at every level.
  p = coordinates<wide>(t.ctx, 0x4444'4444'4444, 0);
  EXPECT_EQ(p.first_pixel(), 4096 * 4096 - 1);
}

TEST(WideCodes, EntryAndNextCodeAtTheLargestLevel) {
  const plane_tables t(12, 3, 12);
  // 512 x 512 initial blocks of 8 x 8 pixels: the last one is slot 2^18 - 1.
  EXPECT_EQ(entry<wide>(t.ctx, 0x4444'4444'4000), (1u << 18) - 1);
  EXPECT_EQ(entry<wide>(t.ctx, 0x1111'1111'1000), 0u);
  // Digit 2 at level 11: the first slot of the second quarter.
  EXPECT_EQ(entry<wide>(t.ctx, 0x2111'1111'1000), 1u << 16);
  EXPECT_EQ(entry<wide>(t.ctx, 0x2000'0000'0000), 1u << 16) << "a larger block: its first cell";
  // Across the 32-bit boundary: the last child at levels 3..7 carries into level 8.
  EXPECT_EQ(next_code<wide>(t.ctx, 0x1111'4444'4000, 3), wide{0x1112'1111'1000});
  EXPECT_EQ(next_code<wide>(t.ctx, 0x4444'4444'4000, 3), wide{0});
  EXPECT_EQ(next_code<wide>(t.ctx, 0x4444'4444'4000, 12), wide{0});
}

TEST(WideCodes, AdjacentCodesAcrossThe256Boundary) {
  {
    // 512 x 512: the pixels at x = 256 and y = 256 border the lower half's last ones.
    const plane_tables t(9, 3, 9);
    EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x2'1111'1111, 0, 0), wide{0x1'2222'2222});
    EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x3'1111'1111, 0, 1), wide{0x1'3333'3333});
    EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x1'1111'1111, 0, 0), wide{0}) << "the image's edge";
    // A level-8 block (a quarter of the image) and its left neighbour.
    EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x2'0000'0000, 8, 0), wide{0x1'0000'0000});
  }
  {
    // 4096 x 4096, at x = 2048.
    const plane_tables t(12, 3, 12);
    EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x2111'1111'1111, 0, 0), wide{0x1222'2222'2222});
  }
  {
    // A 512^3 volume divided in z at every level: the voxel at z = 256.
    const plane_tables t(9, 3, 0);
    EXPECT_EQ(find_adjacent<wide>(t.ctx, 0x5'1111'1111, 0, 2), wide{0x1'5555'5555});
    EXPECT_EQ(coordinates<wide>(t.ctx, 0x5'1111'1111, 0).slice, 256 * 512 * 512);
  }
}

using testing::box;

// The tree phases and the adjacency build at 64 bits.
regionlist build_wide_regions(prepared_run& run) {
  const auto built = init_blocklist<wide>(run.ctx);
  if (check_pointer(built) != 0) return nullptr;
  smg_merge<wide>(run.ctx, built.value);
  if (built.value[0]->next_block == 0) {
    free_blocklist(run.ctx, built.value);
    return nullptr;
  }
  if (smg_split<wide>(run.ctx, built.value) != 0) return nullptr;
  const auto regions = group_init<wide>(run.ctx, built.value);
  return check_pointer(regions) != 0 ? nullptr : regions.value;
}

TEST(WideCodes, AdjacencyMatchesAPixelRasterOn512Tilings) {
  std::mt19937 rng(512);
  struct shape {
    std::int32_t size_z, lim_oct_level;
  };
  const shape shapes[] = {{1, 9}, {2, 8}, {4, 7}};
  int checked = 0;
  for (const auto& s : shapes) {
    for (int round = 0; round < 4; ++round) {
      const std::int32_t init = 1 + static_cast<std::int32_t>(rng() % 5);
      prepared_run run(
          testing::blob_image(rng, 512, s.size_z, static_cast<int>(rng() % 3) * 4),
          {512, s.size_z, 9, s.lim_oct_level, init, 1, static_cast<std::int32_t>(rng() % 40)});
      ASSERT_TRUE(run.ok);
      ASSERT_NE(run.ctx.code_high, nullptr) << "nine levels take 64-bit codes";
      block* head = build_wide_regions(run);
      if (head == nullptr) continue;
      const run_context& ctx = run.ctx;
      // Which leaf covers each pixel, painted from the leaves' codes.
      std::vector<std::int32_t> owner(static_cast<std::size_t>(ctx.voxels_image), -1);
      std::vector<block*> leaves;
      for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) {
        const box b = testing::box_of<wide>(ctx, ctx.code_of<wide>(h));
        const auto id = static_cast<std::int32_t>(leaves.size());
        leaves.push_back(h);
        for (std::int32_t z = b.lo[2]; z < b.hi[2]; ++z)
          for (std::int32_t y = b.lo[1]; y < b.hi[1]; ++y)
            for (std::int32_t x = b.lo[0]; x < b.hi[0]; ++x) {
              auto& o = owner[static_cast<std::size_t>((z * 512 + y) * 512 + x)];
              ASSERT_EQ(o, -1) << "leaves overlap";
              o = id;
            }
      }
      ASSERT_EQ(std::count(owner.begin(), owner.end(), -1), 0) << "the leaves tile the image";
      std::vector<std::set<std::int32_t>> truth(leaves.size());
      const std::int32_t step[3] = {1, 512, 512 * 512};
      for (std::int32_t z = 0; z < s.size_z; ++z)
        for (std::int32_t y = 0; y < 512; ++y)
          for (std::int32_t x = 0; x < 512; ++x) {
            const std::int32_t at = (z * 512 + y) * 512 + x;
            const std::int32_t coordinate[3] = {x, y, z};
            const std::int32_t extent[3] = {512, 512, s.size_z};
            for (int axis = 0; axis < 3; ++axis) {
              if (coordinate[axis] + 1 >= extent[axis]) continue;
              const std::int32_t a = owner[static_cast<std::size_t>(at)];
              const std::int32_t b = owner[static_cast<std::size_t>(at + step[axis])];
              if (a == b) continue;
              truth[static_cast<std::size_t>(a)].insert(b);
              truth[static_cast<std::size_t>(b)].insert(a);
            }
          }
      std::vector<std::int32_t> index_of(ctx.blocks.end(), -1);
      for (std::size_t i = 0; i < leaves.size(); ++i)
        index_of[ctx.id(leaves[i])] = static_cast<std::int32_t>(i);
      for (std::size_t i = 0; i < leaves.size(); ++i) {
        std::multiset<std::int32_t> listed;
        for (const nb_node* e = ctx.entry_at(leaves[i]->nb_pointers[0]); e != nullptr;
             e = ctx.entry_at(e->next))
          listed.insert(index_of[e->region]);
        const std::multiset<std::int32_t> expected(truth[i].begin(), truth[i].end());
        ASSERT_EQ(listed, expected) << "leaf " << std::hex << ctx.code_of<wide>(leaves[i]);
      }
      free_regionlist(run.ctx, head);
      ++checked;
    }
  }
  EXPECT_GE(checked, 10);
}

// Every region is one 4-connected (6-connected in a volume) piece, labels
// number regions by non-increasing size, and no region is below small_size
// unless it is the only one.
void expect_run_promises(const std::vector<std::int32_t>& labels, std::int32_t edge,
                         std::int32_t slices, std::int32_t small_size) {
  const auto n = labels.size();
  const std::int32_t regions = *std::max_element(labels.begin(), labels.end()) + 1;
  std::vector<std::int64_t> size(static_cast<std::size_t>(regions), 0);
  for (const std::int32_t l : labels) ++size[static_cast<std::size_t>(l)];
  for (std::size_t r = 0; r < size.size(); ++r) {
    ASSERT_GT(size[r], 0) << "label " << r << " is unused";
    if (r > 0) {
      ASSERT_LE(size[r], size[r - 1]) << "labels by decreasing size";
    }
    if (regions > 1) {
      ASSERT_GE(size[r], small_size) << "region " << r << " is small";
    }
  }
  std::vector<char> seen(n, 0);
  std::vector<char> label_met(static_cast<std::size_t>(regions), 0);
  std::vector<std::size_t> stack;
  const std::int64_t plane = std::int64_t{edge} * edge;
  for (std::size_t start = 0; start < n; ++start) {
    if (seen[start] != 0) continue;
    const std::int32_t l = labels[start];
    ASSERT_EQ(label_met[static_cast<std::size_t>(l)], 0) << "region " << l << " is in pieces";
    label_met[static_cast<std::size_t>(l)] = 1;
    seen[start] = 1;
    stack.push_back(start);
    while (!stack.empty()) {
      const std::size_t at = stack.back();
      stack.pop_back();
      const auto x = static_cast<std::int64_t>(at) % edge;
      const auto y = static_cast<std::int64_t>(at) / edge % edge;
      const auto z = static_cast<std::int64_t>(at) / plane;
      const std::pair<bool, std::int64_t> steps[] = {{x > 0, -1},     {x + 1 < edge, 1},
                                                     {y > 0, -edge},  {y + 1 < edge, edge},
                                                     {z > 0, -plane}, {z + 1 < slices, plane}};
      for (const auto& [inside, d] : steps) {
        if (!inside) continue;
        const auto next = static_cast<std::size_t>(static_cast<std::int64_t>(at) + d);
        if (seen[next] != 0 || labels[next] != l) continue;
        seen[next] = 1;
        stack.push_back(next);
      }
    }
  }
}

TEST(WideCodes, RunsOf512And1024ImagesKeepTheirPromises) {
  std::mt19937 rng(1024);
  struct trial {
    std::int32_t edge, slices, pred_choice, group_mode, small_size;
  };
  const trial trials[] = {{512, 1, 4, 0, 30},
                          {512, 1, 1, 1, 20},
                          {1024, 1, 5, 0, 50},
                          {1024, 1, 2, 1, 10},
                          {512, 4, 4, 0, 40}};
  for (const trial& t : trials) {
    SCOPED_TRACE(std::to_string(t.edge) + " x " + std::to_string(t.slices) + ", predicate " +
                 std::to_string(t.pred_choice));
    const std::vector<std::int32_t> image = testing::blob_image(rng, t.edge, t.slices, 20);
    parameters p;
    p.pred_choice = t.pred_choice;
    p.group_mode = t.group_mode;
    p.small_size = t.small_size;
    p.interval_length = 12;
    p.sigma = 6.0;
    options o;
    o.display = false;
    o.collect_regions = true;
    const segmentation out = segment(image_view{image.data(), t.edge, t.edge, t.slices}, p, o);
    ASSERT_EQ(out.status, status_ok) << out.error;
    ASSERT_EQ(out.labels.size(), image.size());
    expect_run_promises(out.labels, t.edge, t.slices, t.small_size);
    // Codes name levels above 8: every block lies below a digit of level 8 or more.
    for (const region_record& r : out.regions)
      for (const std::uint64_t c : r.codes) ASSERT_GT(c, 0xFFFF'FFFFu);
  }
}

}  // namespace
}  // namespace splitmerge
