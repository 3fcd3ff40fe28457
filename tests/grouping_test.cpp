// Region adjacency and the sequential and parallel grouping on worked
// examples, and adjacency against a pixel raster on random tilings, with
// 32-bit and 64-bit codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "support/run_setup.hpp"
#include "tree/tree.hpp"

namespace splitmerge {
namespace {

using testing::chain;
using testing::plane_example;
using testing::prepared_run;
using testing::setup;
using wide = std::uint64_t;

// Runs the tree phases and the adjacency build.
template <class Code = std::uint32_t>
regionlist build_regions(prepared_run& run) {
  const auto built = init_blocklist<Code>(run.ctx);
  if (check_pointer(built) != 0) return nullptr;
  smg_merge<Code>(run.ctx, built.value);
  if (built.value[0]->next_block == 0) {
    // One block is the whole image: the driver ends the run before adjacency.
    free_blocklist(run.ctx, built.value);
    return nullptr;
  }
  if (smg_split<Code>(run.ctx, built.value) != 0) return nullptr;
  const auto regions = group_init<Code>(run.ctx, built.value);
  return check_pointer(regions) != 0 ? nullptr : regions.value;
}

std::vector<std::uint32_t> neighbours(const run_context& ctx, const block* b, bool resolved) {
  std::vector<std::uint32_t> codes;
  for (nb_node* e = ctx.entry_at(b->nb_pointers[0]); e != nullptr; e = ctx.entry_at(e->next))
    codes.push_back(resolved ? resolve(ctx, e)->code : ctx.block_at(e->region)->code);
  return codes;
}

// Each head's neighbour list, in list order, by code.
std::map<std::uint32_t, std::vector<std::uint32_t>> lists(prepared_run& run) {
  std::map<std::uint32_t, std::vector<std::uint32_t>> out;
  block* head = build_regions(run);
  for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region))
    out[h->code] = neighbours(run.ctx, h, false);
  free_regionlist(run.ctx, head);
  return out;
}

TEST(Adjacency, FourByFourPlaneAndFourByFourByTwoVolume) {
  prepared_run plane(plane_example());
  EXPECT_EQ(lists(plane),
            (std::map<std::uint32_t, std::vector<std::uint32_t>>{{0x11, {0x12, 0x13}},
                                                                 {0x12, {0x11, 0x14, 0x20}},
                                                                 {0x13, {0x11, 0x14, 0x30}},
                                                                 {0x14, {0x12, 0x13, 0x20, 0x30}},
                                                                 {0x20, {0x14, 0x12, 0x40}},
                                                                 {0x30, {0x14, 0x13, 0x40}},
                                                                 {0x40, {0x20, 0x30}}}));
  std::vector<std::int32_t> img(32, 200);
  img[0] = 0, img[1] = 50, img[4] = 100, img[5] = 150;
  prepared_run volume(setup(img, 4, 2));
  const auto listed = lists(volume);
  EXPECT_EQ(listed.at(0x50), (std::vector<std::uint32_t>{0x14, 0x13, 0x12, 0x11, 0x60, 0x70}));
  EXPECT_EQ(listed.at(0x60), (std::vector<std::uint32_t>{0x20, 0x50, 0x80}));
}

TEST(Adjacency, FindAdjacentCodes) {
  prepared_run run(setup({}, 8));
  EXPECT_EQ(find_adjacent(run.ctx, 0x420, 1, 0), 0x410u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x420, 1, 1), 0x240u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x410, 1, 0), 0x320u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x110, 1, 0), 0u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x440, 1, 2), 0u) << "a plane has no z neighbours";
  EXPECT_EQ(find_adjacent(run.ctx, 0, 3, 0), 0u);
  // Below lim_oct_level a block keeps its quadtree digit in the slice below.
  prepared_run volume(setup({}, 4, 2, 0));
  EXPECT_EQ(find_adjacent(volume.ctx, 0x51, 0, 2), 0x11u);
  EXPECT_EQ(find_adjacent(volume.ctx, 0x84, 0, 2), 0x44u);
}

// The neighbour lists of the leaves are exactly the leaves they share a face
// with, as painted on a raster of pixels; the region list runs by level.
template <class Code>
void expect_raster_adjacency(prepared_run& run, block* head) {
  const run_context& ctx = run.ctx;
  const std::int32_t n = ctx.im_format_xy, nz = ctx.im_format_z;
  std::vector<std::int32_t> owner(static_cast<std::size_t>(ctx.voxels_image), -1);
  std::vector<block*> leaves;
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) {
    const Code code = ctx.code_of<Code>(h);
    const std::int32_t lvl = level<Code>(ctx, code);
    if (!leaves.empty()) {
      const Code before = ctx.code_of<Code>(leaves.back());
      const std::int32_t lb = level<Code>(ctx, before);
      ASSERT_TRUE(lb > lvl || (lb == lvl && before < code)) << "by level, then in chain order";
    }
    const block_position p = coordinates<Code>(ctx, code, lvl);
    const block_extent e = sizes_block(ctx, lvl);
    for (std::int32_t z = p.slice; z < p.slice + e.slice_span; z += ctx.voxels_slice)
      for (std::int32_t y = p.row; y < p.row + e.row_span; y += n)
        for (std::int32_t x = p.column; x < p.column + e.side; ++x) {
          auto& o = owner[static_cast<std::size_t>(z + y + x)];
          ASSERT_EQ(o, -1) << "leaves overlap";
          o = static_cast<std::int32_t>(leaves.size());
        }
    leaves.push_back(h);
  }
  ASSERT_EQ(std::count(owner.begin(), owner.end(), -1), 0) << "the leaves tile the image";
  std::vector<std::set<std::int32_t>> truth(leaves.size());
  const std::int32_t step[3] = {1, n, n * n}, extent[3] = {n, n, nz};
  for (std::int32_t at = 0; at < ctx.voxels_image; ++at) {
    const std::int32_t coordinate[3] = {at % n, at / n % n, at / (n * n)};
    for (int axis = 0; axis < 3; ++axis) {
      if (coordinate[axis] + 1 >= extent[axis]) continue;
      const std::int32_t a = owner[static_cast<std::size_t>(at)];
      const std::int32_t b = owner[static_cast<std::size_t>(at + step[axis])];
      if (a == b) continue;
      truth[static_cast<std::size_t>(a)].insert(b);
      truth[static_cast<std::size_t>(b)].insert(a);
    }
  }
  std::map<const block*, std::int32_t> index_of;
  for (std::size_t i = 0; i < leaves.size(); ++i)
    index_of[leaves[i]] = static_cast<std::int32_t>(i);
  for (std::size_t i = 0; i < leaves.size(); ++i) {
    std::multiset<std::int32_t> listed;
    entry_id last = 0;
    for (entry_id e = leaves[i]->nb_pointers[0]; e != 0; last = e, e = ctx.entry_at(e)->next)
      listed.insert(index_of.at(ctx.block_at(ctx.entry_at(e)->region)));
    ASSERT_EQ(leaves[i]->nb_pointers[1], last) << "the list's last entry";
    ASSERT_EQ(listed, std::multiset<std::int32_t>(truth[i].begin(), truth[i].end()))
        << "leaf " << std::hex << ctx.code_of<Code>(leaves[i]);
  }
}

TEST(Adjacency, MatchesAPixelRasterOnRandomTilings) {
  std::mt19937 rng(2024);
  struct shape {
    int size_x, size_z, rounds;
  };
  const shape shapes[] = {{8, 1, 24},  {16, 1, 32}, {8, 8, 24}, {8, 2, 24},
                          {8, 4, 24},  {16, 4, 32}, {4, 4, 16}, {16, 2, 32},
                          {512, 1, 2}, {512, 2, 2}, {512, 4, 2}};
  int trials = 0;
  for (const auto& s : shapes) {
    const int max_level = std::countr_zero(static_cast<unsigned>(s.size_x));
    for (int round = 0; round < s.rounds; ++round) {
      const std::int32_t init = s.size_x > 256 ? 1 + round % 5 : round % max_level;
      prepared_run run(setup(testing::blob_image(rng, s.size_x, s.size_z, rng() % 3 * 6), s.size_x,
                             s.size_z, init, 1, static_cast<std::int32_t>(rng() % 40)));
      ASSERT_TRUE(run.ok);
      SCOPED_TRACE(std::to_string(s.size_x) + " x " + std::to_string(s.size_z));
      if (s.size_x > 256) {
        block* head = build_regions<wide>(run);
        if (head == nullptr) continue;
        ASSERT_NO_FATAL_FAILURE(expect_raster_adjacency<wide>(run, head));
        free_regionlist(run.ctx, head);
      } else {
        block* head = build_regions(run);
        if (head == nullptr) continue;  // uniform image
        ASSERT_NO_FATAL_FAILURE(expect_raster_adjacency<std::uint32_t>(run, head));
        free_regionlist(run.ctx, head);
      }
      ++trials;
    }
  }
  EXPECT_GT(trials, 200);
}

// The plane example with the range predicate accepting a candidate exactly
// when it is of the growing region's class.
block* classed_regions(prepared_run& run, const std::set<std::uint32_t>& class_p) {
  block* head = build_regions(run);
  for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) {
    const std::int64_t v = class_p.count(h->code) ? 0 : 100;
    h->variables[0] = v;
    h->variables[1] = v;
  }
  return head;
}

TEST(Grouping, WorkedExamplesOfBothModes) {
  const std::set<std::uint32_t> all = {0x11, 0x12, 0x13, 0x14, 0x20, 0x30, 0x40};
  const std::set<std::uint32_t> pixels = {0x11, 0x12, 0x13, 0x14};
  const std::vector<std::uint32_t> big = {0x20, 0x40, 0x30}, small = {0x11, 0x12, 0x14, 0x13};
  using chains = std::vector<std::vector<std::uint32_t>>;
  struct row {
    const char* name;
    std::set<std::uint32_t> classes;
    std::int32_t seeds;  // 0: sequential grouping
    std::int32_t use_all_seeds;
    chains regions;
    chains resolved;  // neighbours by their heads
  };
  const chains depth_first = {{0x20, 0x14, 0x12, 0x11, 0x13, 0x30, 0x40}};
  const chains by_class = {{0x11, 0x11, 0x11}, {0x20}};
  const std::vector<std::uint32_t> seeded = {0x30, 0x20, 0x40};
  const row rows[] = {
      {"sequential, one class: depth first", all, 0, 0, depth_first, {{}}},
      {"sequential, two classes", pixels, 0, 0, {big, small}, by_class},
      {"walks of another phase left their marks", pixels, 0, 0, {big, small}, by_class},
      {"parallel, two seeds of the largest level", pixels, 2, 0, {seeded, small}, {}},
      {"parallel, five seeds of any level", pixels, 5, 1, {seeded, {0x12, 0x11, 0x14, 0x13}}, {}},
      {"parallel, one seed", pixels, 1, 1, {big, small}, {}},
      {"parallel, seeds to spare", pixels, 50, 1, {seeded, {0x11, 0x14, 0x12, 0x13}}, {}}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    prepared_run run(plane_example());
    block* head = classed_regions(run, r.classes);
    std::string printed;
    run.ctx.out = [&](std::string_view s) { printed.append(s); };
    run.ctx.max_seed = r.seeds;
    run.ctx.use_all_seeds = r.use_all_seeds;
    if (r.name[0] == 'w') {
      // The grouping counts its walks itself: marks left on the heads change nothing.
      for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) h->visit = 1;
      run.ctx.visit = 1;
    }
    const auto grouped =
        r.seeds == 0 ? sequential_grouping(run.ctx, head) : parallel_grouping(run.ctx, head);
    ASSERT_EQ(check_pointer(grouped), 0);
    EXPECT_EQ(printed, std::string(r.seeds == 0 ? "" : "finished parallell grouping\n") +
                           "finished sequential grouping\n");
    chains regions, resolved;
    for (block* h = grouped.value; h != nullptr; h = run.ctx.block_at(h->next_region)) {
      regions.push_back(chain(run.ctx, h));
      resolved.push_back(neighbours(run.ctx, h, true));
      EXPECT_EQ(h->status, 2);
    }
    EXPECT_EQ(regions, r.regions) << r.seeds;
    if (!r.resolved.empty()) {
      EXPECT_EQ(resolved, r.resolved);
    }
    free_regionlist(run.ctx, grouped.value);
    EXPECT_EQ(run.ctx.allocator.live(), 4) << "only the frame and the tables remain";
  }
}

TEST(Grouping, DisplayPaintsEachTurnInItsColourAndAFailedSeedTableChangesNothing) {
  prepared_run run(plane_example());
  block* head = classed_regions(run, {0x11, 0x12, 0x13, 0x14});
  block* result = sequential_grouping_disp(run.ctx, head).value;
  EXPECT_EQ(run.ctx.cur_color, 2) << "two turns: 0x20 and 0x11";
  const std::int32_t* f = run.ctx.smg_disp_cur->pixels;
  for (int i = 0; i < 16; ++i) EXPECT_EQ(f[i], (i % 4 < 2 && i < 8) ? 1 : 0);
  free_regionlist(run.ctx, result);

  prepared_run failing(plane_example());
  head = classed_regions(failing, {0x11, 0x12, 0x13, 0x14});
  failing.ctx.max_seed = 3;
  failing.ctx.allocator.fail_at(failing.ctx.allocator.requests() + 1);
  EXPECT_EQ(check_pointer(parallel_grouping(failing.ctx, head)), -1);
  for (block* h = head; h != nullptr; h = failing.ctx.block_at(h->next_region))
    EXPECT_EQ(h->status, 0);
  free_regionlist(failing.ctx, head);
  EXPECT_EQ(failing.ctx.allocator.live(), 4);
}

}  // namespace
}  // namespace splitmerge
