// Region adjacency, sequential and parallel grouping on the worked examples,
// and adjacency against a brute-force neighbour computation.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "support/block_boxes.hpp"
#include "support/random_images.hpp"
#include "support/run_setup.hpp"
#include "tree/tree.hpp"

namespace splitmerge {
namespace {

using testing::chain;
using testing::image_spec;
using testing::plane_example;
using testing::prepared_run;

// Runs the tree phases and the adjacency build.
regionlist build_regions(prepared_run& run) {
  const auto built = init_blocklist(run.ctx);
  if (check_pointer(built) != 0) return nullptr;
  smg_merge(run.ctx, built.value);
  if (built.value[0]->next_block == 0) {
    // One block is the whole image: the driver ends the run before adjacency.
    free_blocklist(run.ctx, built.value);
    return nullptr;
  }
  if (smg_split(run.ctx, built.value) != 0) return nullptr;
  const auto regions = group_init(run.ctx, built.value);
  return check_pointer(regions) != 0 ? nullptr : regions.value;
}

std::vector<std::uint32_t> region_order(const run_context& ctx, const block* head) {
  std::vector<std::uint32_t> codes;
  for (; head != nullptr; head = ctx.block_at(head->next_region)) codes.push_back(head->code);
  return codes;
}

std::vector<std::uint32_t> neighbours(const run_context& ctx, const block* b) {
  std::vector<std::uint32_t> codes;
  for (const nb_node* e = ctx.entry_at(b->nb_pointers[0]); e != nullptr; e = ctx.entry_at(e->next))
    codes.push_back(ctx.block_at(e->region)->code);
  return codes;
}

std::vector<std::uint32_t> resolved_neighbours(const run_context& ctx, const block* b) {
  std::vector<std::uint32_t> codes;
  for (nb_node* e = ctx.entry_at(b->nb_pointers[0]); e != nullptr; e = ctx.entry_at(e->next))
    codes.push_back(resolve(ctx, e)->code);
  return codes;
}

block* find(const run_context& ctx, block* head, std::uint32_t code) {
  for (; head != nullptr; head = ctx.block_at(head->next_region))
    if (head->code == code) return head;
  return nullptr;
}

TEST(Adjacency, FourByFourPlane) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(region_order(run.ctx, head),
            (std::vector<std::uint32_t>{0x20, 0x30, 0x40, 0x11, 0x12, 0x13, 0x14}));
  const std::map<std::uint32_t, std::vector<std::uint32_t>> expected = {
      {0x11, {0x12, 0x13}},       {0x12, {0x11, 0x14, 0x20}},
      {0x13, {0x11, 0x14, 0x30}}, {0x14, {0x12, 0x13, 0x20, 0x30}},
      {0x20, {0x14, 0x12, 0x40}}, {0x30, {0x14, 0x13, 0x40}},
      {0x40, {0x20, 0x30}}};
  for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) {
    EXPECT_EQ(neighbours(run.ctx, h), expected.at(h->code)) << std::hex << h->code;
    EXPECT_EQ(h->region_pointer, run.ctx.id(h));
    EXPECT_EQ(h->next_block, 0u);
    EXPECT_EQ(h->status, 0);
    EXPECT_EQ(run.ctx.entry_at(h->nb_pointers[1])->next, 0u);
    EXPECT_EQ(run.ctx.block_at(run.ctx.entry_at(h->nb_pointers[1])->region)->code,
              expected.at(h->code).back());
  }
  free_regionlist(run.ctx, head);
}

TEST(Adjacency, FourByFourByTwoVolume) {
  std::vector<std::int32_t> img(32, 200);
  img[0] = 0;
  img[1] = 50;
  img[4] = 100;
  img[5] = 150;
  prepared_run run(img, {4, 2, 2, 1, 1, 1, 10});
  block* head = build_regions(run);
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(region_order(run.ctx, head),
            (std::vector<std::uint32_t>{0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x11, 0x12, 0x13,
                                        0x14}));
  EXPECT_EQ(neighbours(run.ctx, find(run.ctx, head, 0x50)),
            (std::vector<std::uint32_t>{0x14, 0x13, 0x12, 0x11, 0x60, 0x70}));
  EXPECT_EQ(neighbours(run.ctx, find(run.ctx, head, 0x60)),
            (std::vector<std::uint32_t>{0x20, 0x50, 0x80}));
  free_regionlist(run.ctx, head);
}

TEST(Adjacency, FindAdjacentCodes) {
  prepared_run run(std::vector<std::int32_t>(64, 0), {8, 1, 3, 3, 1, 1, 10});
  EXPECT_EQ(find_adjacent(run.ctx, 0x420, 1, 0), 0x410u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x420, 1, 1), 0x240u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x410, 1, 0), 0x320u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x110, 1, 0), 0u);
  EXPECT_EQ(find_adjacent(run.ctx, 0x440, 1, 2), 0u) << "a plane has no z neighbours";
  EXPECT_EQ(find_adjacent(run.ctx, 0, 3, 0), 0u);
}

using testing::box;
using testing::box_of;
using testing::share_face;

TEST(Adjacency, MatchesBruteForceOnRandomTilings) {
  std::mt19937 rng(2024);
  struct shape {
    int size_x, size_z, max_level, lim_oct_level;
  };
  const shape shapes[] = {{8, 1, 3, 3}, {16, 1, 4, 4}, {8, 8, 3, 0}, {8, 2, 3, 2},
                          {8, 4, 3, 1}, {16, 4, 4, 2}, {4, 4, 2, 0}, {16, 2, 4, 3}};
  int trials = 0;
  for (const auto& s : shapes) {
    for (int init = 0; init < s.max_level; ++init) {
      for (int round = 0; round < 12; ++round, ++trials) {
        prepared_run run(
            testing::blob_image(rng, s.size_x, s.size_z, static_cast<int>(rng() % 3) * 6),
            {s.size_x, s.size_z, s.max_level, s.lim_oct_level, init, 1,
             static_cast<std::int32_t>(rng() % 40)});
        ASSERT_TRUE(run.ok);
        block* head = build_regions(run);
        if (head == nullptr) continue;  // uniform image
        std::vector<block*> blocks;
        int pixels = 0;
        for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) {
          blocks.push_back(h);
          pixels += run.ctx.pixels_perblock[level(run.ctx, h->code)];
        }
        ASSERT_EQ(pixels, run.ctx.voxels_image) << "the leaves tile the image";
        for (std::size_t i = 1; i < blocks.size(); ++i) {
          const int a = level(run.ctx, blocks[i - 1]->code);
          const int b = level(run.ctx, blocks[i]->code);
          ASSERT_TRUE(a > b || (a == b && blocks[i - 1]->code < blocks[i]->code))
              << "region list ordered by level, then chain order";
        }
        std::vector<box> boxes;
        for (block* b : blocks) boxes.push_back(box_of(run.ctx, b->code));
        for (std::size_t i = 0; i < blocks.size(); ++i) {
          std::multiset<const block*> listed;
          for (const nb_node* e = run.ctx.entry_at(blocks[i]->nb_pointers[0]); e != nullptr;
               e = run.ctx.entry_at(e->next))
            listed.insert(run.ctx.block_at(e->region));
          std::multiset<const block*> truth;
          for (std::size_t j = 0; j < blocks.size(); ++j)
            if (j != i && share_face(boxes[i], boxes[j])) truth.insert(blocks[j]);
          ASSERT_EQ(listed, truth) << "block " << std::hex << blocks[i]->code;
        }
        free_regionlist(run.ctx, head);
      }
    }
  }
  EXPECT_GT(trials, 200);
}

// Gives every region of one class the same statistics, so that the range
// predicate accepts a candidate exactly when it is of the growing region's class.
void assign_classes(const run_context& ctx, block* head, const std::set<std::uint32_t>& class_p) {
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) {
    const std::int64_t v = class_p.count(h->code) ? 0 : 100;
    h->variables[0] = v;
    h->variables[1] = v;
  }
}

const std::set<std::uint32_t> pixels_class = {0x11, 0x12, 0x13, 0x14};

TEST(SequentialGrouping, AcceptingEveryCandidateGrowsDepthFirst) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, {0x11, 0x12, 0x13, 0x14, 0x20, 0x30, 0x40});
  std::string printed;
  run.ctx.out = [&](std::string_view s) { printed.append(s); };
  block* result = sequential_grouping(run.ctx, head).value;
  EXPECT_EQ(printed, "finished sequential grouping\n");
  EXPECT_EQ(result->code, 0x20u);
  EXPECT_EQ(chain(run.ctx, result),
            (std::vector<std::uint32_t>{0x20, 0x14, 0x12, 0x11, 0x13, 0x30, 0x40}));
  EXPECT_EQ(result->nb_pointers[0], 0u);
  EXPECT_EQ(result->nb_pointers[1], 0u);
  EXPECT_EQ(result->next_region, 0u);
  free_regionlist(run.ctx, result);
  EXPECT_EQ(run.ctx.allocator.live(), 4) << "only the frame and the tables remain";
}

TEST(SequentialGrouping, TwoClasses) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, pixels_class);
  block* result = sequential_grouping(run.ctx, head).value;
  EXPECT_EQ(result->code, 0x20u);
  EXPECT_EQ(chain(run.ctx, result), (std::vector<std::uint32_t>{0x20, 0x40, 0x30}));
  EXPECT_EQ(neighbours(run.ctx, result).size(), 3u);
  EXPECT_EQ(resolved_neighbours(run.ctx, result), (std::vector<std::uint32_t>{0x11, 0x11, 0x11}));
  block* second = run.ctx.block_at(result->next_region);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->code, 0x11u);
  EXPECT_EQ(chain(run.ctx, second), (std::vector<std::uint32_t>{0x11, 0x12, 0x14, 0x13}));
  EXPECT_EQ(resolved_neighbours(run.ctx, second), (std::vector<std::uint32_t>{0x20}));
  EXPECT_EQ(second->next_region, 0u);
  EXPECT_EQ(result->status, 2);
  EXPECT_EQ(second->status, 2);
  free_regionlist(run.ctx, result);
  EXPECT_EQ(run.ctx.allocator.live(), 4);
}

// Every head carries the number of an old walk, and the walk numbers have run
// out: the next walk must unmark them all first, or every neighbour would look
// like a repeat and the grouping would change.
TEST(SequentialGrouping, WalkNumbersStartAgainWhenTheyRunOut) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, pixels_class);
  for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) h->visit = 1;
  run.ctx.visit = (std::uint32_t{1} << 24) - 1;
  block* result = sequential_grouping(run.ctx, head).value;
  EXPECT_EQ(run.ctx.visit, 2u) << "two walks after the new start";
  EXPECT_EQ(chain(run.ctx, result), (std::vector<std::uint32_t>{0x20, 0x40, 0x30}));
  EXPECT_EQ(resolved_neighbours(run.ctx, result), (std::vector<std::uint32_t>{0x11, 0x11, 0x11}));
  block* second = run.ctx.block_at(result->next_region);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(chain(run.ctx, second), (std::vector<std::uint32_t>{0x11, 0x12, 0x14, 0x13}));
  EXPECT_EQ(resolved_neighbours(run.ctx, second), (std::vector<std::uint32_t>{0x20}));
  free_regionlist(run.ctx, result);
  EXPECT_EQ(run.ctx.allocator.live(), 4);
}

TEST(SequentialGrouping, DisplayPaintsEachTurnInItsColour) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, pixels_class);
  block* result = sequential_grouping_disp(run.ctx, head).value;
  EXPECT_EQ(run.ctx.cur_color, 2) << "two turns: 0x20 and 0x11";
  const std::int32_t* f = run.ctx.smg_disp_cur->pixels;
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) EXPECT_EQ(f[y * 4 + x], (x < 2 && y < 2) ? 1 : 0);
  free_regionlist(run.ctx, result);
}

TEST(ParallelGrouping, TwoSeedsOfTheLargestLevel) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, pixels_class);
  run.ctx.max_seed = 2;
  run.ctx.use_all_seeds = 0;
  std::string printed;
  run.ctx.out = [&](std::string_view s) { printed.append(s); };
  const auto result = parallel_grouping(run.ctx, head);
  ASSERT_EQ(check_pointer(result), 0);
  EXPECT_EQ(printed, "finished parallell grouping\nfinished sequential grouping\n");
  block* first = result.value;
  EXPECT_EQ(first->code, 0x30u);
  EXPECT_EQ(chain(run.ctx, first), (std::vector<std::uint32_t>{0x30, 0x20, 0x40}));
  ASSERT_NE(first->next_region, 0u);
  EXPECT_EQ(chain(run.ctx, run.ctx.block_at(first->next_region)),
            (std::vector<std::uint32_t>{0x11, 0x12, 0x14, 0x13}));
  EXPECT_EQ(run.ctx.block_at(first->next_region)->next_region, 0u);
  free_regionlist(run.ctx, first);
  EXPECT_EQ(run.ctx.allocator.live(), 4);
}

TEST(ParallelGrouping, FiveSeedsOfAnyLevel) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, pixels_class);
  run.ctx.max_seed = 5;
  run.ctx.use_all_seeds = 1;
  const auto result = parallel_grouping(run.ctx, head);
  ASSERT_EQ(check_pointer(result), 0);
  block* first = result.value;
  EXPECT_EQ(chain(run.ctx, first), (std::vector<std::uint32_t>{0x30, 0x20, 0x40}));
  ASSERT_NE(first->next_region, 0u);
  EXPECT_EQ(chain(run.ctx, run.ctx.block_at(first->next_region)),
            (std::vector<std::uint32_t>{0x12, 0x11, 0x14, 0x13}));
  EXPECT_EQ(run.ctx.block_at(first->next_region)->status, 2);
  free_regionlist(run.ctx, first);
}

// The grouping copies the entries each region keeps into consecutive fresh
// ones; nothing is lost or left behind: the entries alive afterwards are the
// lists and one forwarding entry per absorbed head.
TEST(SequentialGrouping, EveryKeptListIsOneRunOfConsecutiveEntries) {
  std::mt19937 rng(5);
  for (int trial = 0; trial < 20; ++trial) {
    prepared_run run(testing::blob_image(rng, 16, 4, 20),
                     {16, 4, 4, 2, 1, 1, static_cast<std::int32_t>(5 + rng() % 20)});
    ASSERT_TRUE(run.ok);
    block* head = build_regions(run);
    if (head == nullptr) continue;
    std::int64_t leaves = 0;
    for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) ++leaves;
    const auto grouped = sequential_grouping(run.ctx, head);
    ASSERT_EQ(grouped.status, 0);
    std::int64_t regions = 0;
    std::int64_t listed = 0;
    for (block* h = grouped.value; h != nullptr; h = run.ctx.block_at(h->next_region)) {
      ++regions;
      entry_id last = 0;
      for (entry_id e = h->nb_pointers[0]; e != 0; e = run.ctx.entry_at(e)->next, ++listed) {
        if (last != 0) {
          ASSERT_EQ(e, last + 1) << "trial " << trial;
        }
        last = e;
      }
      ASSERT_EQ(h->nb_pointers[1], last);
    }
    EXPECT_EQ(run.ctx.entries.live(), listed + (leaves - regions)) << "trial " << trial;
    free_regionlist(run.ctx, grouped.value);
  }
}

TEST(ParallelGrouping, OneSeedAndMoreSlotsThanRegions) {
  for (const int seeds : {1, 50}) {
    prepared_run run = plane_example();
    block* head = build_regions(run);
    assign_classes(run.ctx, head, pixels_class);
    run.ctx.max_seed = seeds;
    run.ctx.use_all_seeds = 1;
    const auto result = parallel_grouping(run.ctx, head);
    ASSERT_EQ(check_pointer(result), 0);
    int regions = 0;
    for (block* h = result.value; h != nullptr; h = run.ctx.block_at(h->next_region)) {
      ++regions;
      EXPECT_EQ(h->status, 2);
    }
    EXPECT_EQ(regions, 2) << seeds << " seeds";
    free_regionlist(run.ctx, result.value);
    EXPECT_EQ(run.ctx.allocator.live(), 4);
  }
}

TEST(ParallelGrouping, AFailedSeedTableChangesNothing) {
  prepared_run run = plane_example();
  block* head = build_regions(run);
  assign_classes(run.ctx, head, pixels_class);
  run.ctx.max_seed = 3;
  run.ctx.allocator.fail_at(run.ctx.allocator.requests() + 1);
  const auto result = parallel_grouping(run.ctx, head);
  EXPECT_EQ(check_pointer(result), -1);
  for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) EXPECT_EQ(h->status, 0);
  free_regionlist(run.ctx, head);
  EXPECT_EQ(run.ctx.allocator.live(), 4);
}

}  // namespace
}  // namespace splitmerge
