// Small region elimination, cleaning, sorting, the label image and the region
// list file.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "grouping/grouping.hpp"
#include "output/output.hpp"
#include "regions/elimination_index.hpp"
#include "regions/regions.hpp"
#include "support/conformance_case.hpp"
#include "support/run_setup.hpp"
#include "tree/tree.hpp"

namespace splitmerge {
namespace {

using testing::chain;
using testing::link_regions;
using testing::make_head;
using testing::plane_example;
using testing::prepared_run;
using testing::set_entries;
using testing::setup;

// The plane example grouped into two classes: 0x20 (0x20, 0x40, 0x30) and
// 0x11 (the four single pixels).
block* two_regions(prepared_run& run) {
  const auto built = init_blocklist(run.ctx);
  smg_merge(run.ctx, built.value);
  smg_split(run.ctx, built.value);
  block* head = group_init(run.ctx, built.value).value;
  for (block* h = head; h != nullptr; h = run.ctx.block_at(h->next_region)) {
    const std::int64_t v = (h->code & 0xF) != 0 ? 0 : 100;
    h->variables[0] = v;
    h->variables[1] = v;
  }
  return sequential_grouping(run.ctx, head).value;
}

TEST(Elimination, ASmallRegionJoinsItsOnlyNeighbour) {
  for (const std::int32_t update : {1, 0}) {
    prepared_run run(plane_example());
    block* head = two_regions(run);
    run.ctx.small_size = 5;
    run.ctx.statistic_update = update;
    block* small = run.ctx.block_at(head->next_region);
    EXPECT_EQ(head->pixels, 12u);
    EXPECT_EQ(small->pixels, 4u);
    region_elimination(run.ctx, head);
    EXPECT_EQ(chain(run.ctx, head),
              (std::vector<std::uint32_t>{0x20, 0x40, 0x30, 0x11, 0x12, 0x14, 0x13}));
    EXPECT_EQ(small->region_pointer, 0u);
    EXPECT_EQ(head->next_region, run.ctx.id(small))
        << "the absorbed head stays linked until cleaning";
    EXPECT_EQ(head->variables[0], update != 0 ? 0 : 100) << "statistics updated or kept";
    EXPECT_EQ(head->pixels, 16u) << "the pixel count follows the union";
    head = clean_regionlist(run.ctx, head);
    EXPECT_EQ(run.ctx.number_regions, 0);
    EXPECT_EQ(head->next_region, 0u);
    free_regionlist(run.ctx, head);
    EXPECT_EQ(run.ctx.allocator.live(), 4);
  }
}

TEST(Elimination, TheMostSimilarNeighbourWinsAndTiesGoToTheFirstEntry) {
  prepared_run run(plane_example());
  run.ctx.pred_choice = 2;  // sum statistics: compare integer means
  // Hand-made regions: r (small) with neighbours a, b, c.
  run_context& ctx = run.ctx;
  block& r = *make_head(ctx, 0x11);
  block& a = *make_head(ctx, 0x20);
  block& b = *make_head(ctx, 0x30);
  block& c = *make_head(ctx, 0x40);
  r.variables[0] = 100, r.variables[1] = 1, r.pixels = 1;
  a.variables[0] = 90 * 16, a.variables[1] = 16, a.pixels = 16;   // distance 10
  b.variables[0] = 104 * 16, b.variables[1] = 16, b.pixels = 16;  // distance 4
  c.variables[0] = 96 * 16, c.variables[1] = 16, c.pixels = 16;   // distance 4, later entry
  set_entries(ctx, &r, {&a, &b, &c});
  set_entries(ctx, &b, {&r});
  link_regions(ctx, {&r, &a, &b, &c});
  run.ctx.small_size = 2;
  region_elimination(run.ctx, &r);
  EXPECT_EQ(r.region_pointer, 0u);
  EXPECT_EQ(b.next_block, ctx.id(&r)) << "r joined b, the first of the two closest";
  EXPECT_EQ(b.variables[0], 104 * 16 + 100);
  EXPECT_EQ(b.pixels, 17u);
  ctx.release_records();
}

// The owner's list names, entry by entry, blocks 0, 1, ... of `names`; the
// region asked about is the chain of the blocks `chain` (head first). Returns
// the position of the entry that the elimination's index gives, or -1.
int indexed_first_entry(const std::vector<int>& names, const std::vector<int>& chain) {
  run_context ctx;
  std::vector<block*> named(
      static_cast<std::size_t>(std::max(*std::max_element(names.begin(), names.end()),
                                        *std::max_element(chain.begin(), chain.end())) +
                               1));
  for (block*& b : named) b = make_head(ctx, 0);
  const auto at = [&named](int i) { return named[static_cast<std::size_t>(i)]; };
  for (std::size_t i = 0; i + 1 < chain.size(); ++i)
    at(chain[i])->next_block = ctx.id(at(chain[i + 1]));
  block* owner = make_head(ctx, 0);
  std::vector<nb_node*> entries;
  for (const int n : names) entries.push_back(new_nb_node(ctx, at(n), nullptr));
  for (std::size_t i = 0; i + 1 < entries.size(); ++i) entries[i]->next = ctx.id(entries[i + 1]);
  owner->nb_pointers[0] = ctx.id(entries.front());
  owner->nb_pointers[1] = ctx.id(entries.back());
  elimination_index index(ctx);
  bool failed = false;
  const nb_node* found = index.first_entry_for(owner, at(chain.front()), failed);
  const auto position = std::find(entries.begin(), entries.end(), found) - entries.begin();
  return failed ? -2 : position == std::ssize(entries) ? -1 : static_cast<int>(position);
}

// The elimination unites a small region r at the first entry of its
// absorber's list that stands for any block of r; long lists find it through
// an index.
TEST(EliminationIndex, GivesTheFirstEntryThatNamesTheRegion) {
  // Forty entries naming blocks 1..40 in turn, then more.
  std::vector<int> names;
  for (int i = 1; i <= 40; ++i) names.push_back(i);
  std::vector<int> first = names, second = names;
  first.insert(first.end(), {0, 7, 8, 9, 0, 3});
  second.insert(second.end(), {5, 6, 7, 8, 0, 31, 30});
  EXPECT_EQ(indexed_first_entry(first, {0}), 40);
  EXPECT_EQ(indexed_first_entry(first, {7}), 6) << "block 7 is named at 6 and 41";
  EXPECT_EQ(indexed_first_entry(first, {50}), -1) << "a region the list never names";
  // The chain 0 -> 30 -> 31 is named at 44 (0), 29 (30) and 30 (31).
  EXPECT_EQ(indexed_first_entry(second, {0, 30, 31}), 29);
  EXPECT_EQ(indexed_first_entry(second, {0, 31}), 30);
  EXPECT_EQ(indexed_first_entry(second, {0}), 44);
}

TEST(Cleaning, RepeatsAreRemovedAndTheLastEntryIsKept) {
  run_context ctx;
  block& r = *make_head(ctx, 0x10);
  block& e = *make_head(ctx, 0x20);
  block& f = *make_head(ctx, 0x30);
  block& g = *make_head(ctx, 0x40);
  set_entries(ctx, &r, {&e, &f, &e, &g, &f});
  // Every head carries the number of an old walk, and the numbers have run
  // out: the walk must unmark them all first.
  link_regions(ctx, {&r, &e, &f, &g});
  for (block* x : {&r, &e, &f, &g}) x->visit = 1;
  ctx.visit = (std::uint32_t{1} << 24) - 1;
  EXPECT_EQ(clean_regionlist(ctx, &r), &r);
  EXPECT_EQ(ctx.visit, 4u) << "a walk per region after the new start";
  std::vector<block*> left;
  for (nb_node* x = ctx.entry_at(r.nb_pointers[0]); x != nullptr; x = ctx.entry_at(x->next))
    left.push_back(ctx.block_at(x->region));
  EXPECT_EQ(left, (std::vector<block*>{&e, &f, &g}));
  EXPECT_EQ(ctx.entry_at(r.nb_pointers[1])->region, ctx.id(&g));
  EXPECT_EQ(ctx.entry_at(r.nb_pointers[1])->next, 0u);
  for (block* x : {&e, &f, &g}) EXPECT_EQ(x->status, 0);
  EXPECT_EQ(ctx.number_regions, 3);
  free_cur_np(ctx, ctx.entry_at(r.nb_pointers[0]));
  EXPECT_EQ(ctx.entries.live(), 0) << "the repeats were released, the rest by the caller";
  for (block* x : {&r, &e, &f, &g}) release_block(ctx, x);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Cleaning, AbsorbedHeadsAreDroppedAndEntriesResolved) {
  run_context ctx;
  // list: x (absorbed into a), a, b, c
  block& x = *make_head(ctx, 0x11);
  block& a = *make_head(ctx, 0x20);
  block& b = *make_head(ctx, 0x30);
  block& c = *make_head(ctx, 0x40);
  x.region_pointer = 0;
  set_entries(ctx, &x, {&a});     // the forwarding entry
  x.nb_pointers[1] = ctx.id(&a);  // an absorbed head names its absorber
  link_regions(ctx, {&x, &a, &b, &c});
  nb_node& to_x = *set_entries(ctx, &b, {&x}).front();  // b names the absorbed x
  EXPECT_EQ(clean_regionlist(ctx, &x), &a);
  EXPECT_EQ(ctx.number_regions, 2) << "three live regions";
  EXPECT_EQ(to_x.region, ctx.id(&a));
  block& empty = *make_head(ctx, 0x50);  // a live region without neighbours is left as it is
  EXPECT_EQ(clean_regionlist(ctx, &empty), &empty);
  EXPECT_EQ(empty.nb_pointers[0], 0u);
}

std::vector<char> sort_names(std::vector<std::pair<char, std::uint32_t>> items, bool fast) {
  std::vector<block> heads(items.size());
  std::vector<sort_entry> entries;
  for (std::size_t i = 0; i < items.size(); ++i) {
    heads[i].code = static_cast<std::uint32_t>(items[i].first);
    entries.push_back({&heads[i], items[i].second});
  }
  std::vector<std::uint32_t> scratch(items.size());
  qsort(entries.data(), 0, static_cast<std::int32_t>(items.size()) - 1,
        fast ? scratch.data() : nullptr);
  std::vector<char> names;
  for (const auto& e : entries) names.push_back(static_cast<char>(e.head->code));
  return names;
}

TEST(Sorting, OptimisationSuffixMaximaFastPathKeepsThePlainQuicksortOrder) {
  for (const bool fast : {false, true}) {
    EXPECT_EQ(sort_names({{'E', 5}, {'F', 9}, {'G', 5}, {'H', 7}}, fast),
              (std::vector<char>{'F', 'H', 'E', 'G'}));
    EXPECT_EQ(sort_names({{'E', 5}, {'F', 5}, {'G', 9}, {'H', 9}}, fast),
              (std::vector<char>{'H', 'G', 'E', 'F'}));
  }
  std::mt19937 rng(99);
  for (int trial = 0; trial < 500; ++trial) {
    const std::size_t n = 1 + rng() % 60;
    const unsigned spread = 1 + rng() % 10;
    std::vector<std::pair<char, std::uint32_t>> items;
    for (std::size_t i = 0; i < n; ++i)
      items.push_back({static_cast<char>('A' + i), static_cast<std::uint32_t>(rng() % spread)});
    if (trial % 5 == 0)
      std::sort(items.begin(), items.end(), [](auto& a, auto& b) { return a.second > b.second; });
    if (trial % 7 == 0)
      std::sort(items.begin(), items.end(), [](auto& a, auto& b) { return a.second < b.second; });
    ASSERT_EQ(sort_names(items, true), sort_names(items, false)) << "trial " << trial;
  }
}

// Blocks reach their heads by forwarding links; a list whose blocks do not
// (built by hand) is painted along its chains, with the same labels.
TEST(LabelImage, TwoRegionsByForwardingLinksAndByChains) {
  prepared_run run(plane_example());
  block* head = two_regions(run);
  std::vector<std::int32_t> forwarded(16, -7), painted(16, -7), expected(16, 0);
  expected[0] = expected[1] = expected[4] = expected[5] = 1;
  ASSERT_EQ(make_output(run.ctx, head, forwarded.data()), 0);
  EXPECT_EQ(forwarded, expected);
  block* absorbed = run.ctx.block_at(head->next_block);
  const block_id absorber = absorbed->nb_pointers[1];
  absorbed->nb_pointers[1] = 0;  // no longer names its absorber
  ASSERT_EQ(make_output(run.ctx, head, painted.data()), 0);
  absorbed->nb_pointers[1] = absorber;
  EXPECT_EQ(painted, expected);
  free_regionlist(run.ctx, head);
}

TEST(LabelImage, AVolumeBlockCoversAllItsSlices) {
  // 8x8x2, lim_oct_level 2: a level-3 block spans both slices.
  std::vector<std::int32_t> img(128, 9);
  prepared_run run(setup(img, 8, 2));
  block& whole = *make_head(run.ctx, 0x0);
  // level 2: 4x4, one slice (level 2 = lim_oct_level)
  block& other = *make_head(run.ctx, 0x100);
  link_regions(run.ctx, {&whole, &other});
  std::vector<std::int32_t> labels(128, -1);
  ASSERT_EQ(make_output(run.ctx, &whole, labels.data()), 0);
  run.ctx.release_records();
  for (int i = 0; i < 128; ++i) {
    const int x = i % 8, y = (i / 8) % 8, z = i / 64;
    EXPECT_EQ(labels[static_cast<std::size_t>(i)], (z == 0 && x < 4 && y < 4) ? 1 : 0) << i;
  }
}

TEST(RegionFile, TwoNeighbouringRegionsTheWholeImageAndFailures) {
  run_context ctx;
  ctx.im_format_xy = 4;
  ctx.im_format_z = 1;
  ctx.pred_choice = 4;
  block& a = *make_head(ctx, 0x20);
  block& b = *make_head(ctx, 0x420);
  a.variables[0] = 800, a.variables[1] = 4, b.variables[0] = 12, b.variables[1] = 1;
  link_regions(ctx, {&a, &b});
  set_entries(ctx, &a, {&b});
  set_entries(ctx, &b, {&a});
  const testing::temp_folder folder;
  const auto path = folder.file("regions.txt");
  ASSERT_EQ(save_regionlist(ctx, &a, path.c_str()), 0);
  EXPECT_EQ(testing::read_text(path),
            "4\n1\n2\n4.0000\n2\n4\n800 4\n20\n0\n1\n-1\n12 1\n420\n0\n0\n-1\n");
  EXPECT_EQ(a.variables[0], 0) << "heads keep their indices";
  EXPECT_EQ(b.variables[0], 1);
  ctx.im_format_xy = 8;
  ctx.im_format_z = 2;
  ctx.pred_choice = 1;
  block& whole = *make_head(ctx, 0);
  whole.variables[0] = 3;
  whole.variables[1] = 9;
  ASSERT_EQ(save_regionlist(ctx, &whole, path.c_str()), 0);
  EXPECT_EQ(testing::read_text(path), "8\n2\n2\n4.0000\n1\n1\n3 9\n0\n0\n-1\n");
  const std::int64_t live = ctx.allocator.live();
  EXPECT_EQ(save_regionlist(ctx, &whole, "/nonexistent-dir/regions.txt"), -2);
  EXPECT_EQ(ctx.allocator.live(), live);
  std::filesystem::remove(path);
  ctx.allocator.fail_at(ctx.allocator.requests() + 1);
  EXPECT_EQ(save_regionlist(ctx, &whole, path.c_str()), -1);
  EXPECT_FALSE(std::filesystem::exists(path)) << "no file without its memory";
  ctx.release_records();
  EXPECT_EQ(ctx.allocator.live(), 0);
}
}  // namespace
}  // namespace splitmerge
