// Release routines on hand-built lists, checked by the live-allocation count,
// and the allocator's failure injection they are swept with.
#include <gtest/gtest.h>

#include <vector>

#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

using testing::make_head;
using testing::set_entries;

TEST(Records, ReleasingChainsListsAndArrays) {
  run_context ctx;
  EXPECT_EQ(free_cur_np(ctx, nullptr), -1);
  nb_node* c = new_nb_node(ctx, nullptr, nullptr);
  nb_node* b = new_nb_node(ctx, nullptr, c);
  EXPECT_EQ(ctx.allocator.live(), 1) << "one array holds every entry";
  EXPECT_EQ(free_cur_np(ctx, new_nb_node(ctx, nullptr, b)), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);

  const auto list_of = [&ctx](std::size_t n) {
    return static_cast<blocklist>(
        ctx.allocator.allocate(n * sizeof(block*), alloc_site::block_list));
  };
  blocklist list = list_of(2);
  list[0] = new_block(ctx);
  list[1] = new_block(ctx);
  list[0]->next_block = ctx.id(list[1]);
  EXPECT_EQ(free_blocklist(ctx, list), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);

  list = list_of(2);
  block* x = make_head(ctx, 0x10);
  block* y = make_head(ctx, 0x20);
  x->next_block = ctx.id(y);
  list[0] = x;
  set_entries(ctx, x, {y});
  set_entries(ctx, y, {x, x});
  EXPECT_EQ(free_initregion(ctx, list, ctx.allocator.allocate(16, alloc_site::level_table)), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);
  list = list_of(1);
  list[0] = new_block(ctx);
  EXPECT_EQ(free_initregion(ctx, list, nullptr), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);
  free_regionlist(ctx, make_head(ctx, 0));  // the whole image
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Records, FreeRegionlistStartsAtTheFirstLiveHeadAndReachesAbsorbedOnes) {
  run_context ctx;
  // Heads in list order: x (absorbed into b), y (absorbed into c), a, b, c.
  block* x = make_head(ctx, 0x11);
  block* y = make_head(ctx, 0x12);
  block* a = make_head(ctx, 0x20);
  block* b = make_head(ctx, 0x30);
  block* c = make_head(ctx, 0x40);
  testing::link_regions(ctx, {x, y, a, b, c});
  set_entries(ctx, a, {b});
  set_entries(ctx, b, {a, c});
  set_entries(ctx, c, {b, c});
  // Absorbed heads keep a forwarding entry and join their absorber's chain,
  // whose last block the absorber's region_pointer names.
  const auto add_member = [&ctx](block* h, block* member) {
    ctx.block_at(h->region_pointer)->next_block = ctx.id(member);
    h->region_pointer = ctx.id(member);
  };
  set_entries(ctx, x, {b});
  x->region_pointer = 0;
  add_member(b, x);
  set_entries(ctx, y, {c});
  y->region_pointer = 0;
  add_member(c, y);
  block* extra = new_block(ctx);  // a plain member block without entries
  add_member(a, extra);
  extra->region_pointer = ctx.id(extra);
  free_regionlist(ctx, x);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

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

}  // namespace
}  // namespace splitmerge
