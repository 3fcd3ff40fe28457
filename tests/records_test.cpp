// Release routines on hand-built lists, checked by the live-allocation count.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "context/run_context.hpp"
#include "records/records.hpp"

namespace splitmerge {
namespace {

// Builds regions by hand: heads with chains of member blocks and neighbour lists.
struct list_builder {
  run_context& ctx;

  block* head(std::uint32_t code) {
    block* b = new_block(ctx);
    b->code = code;
    b->region_pointer = ctx.id(b);
    return b;
  }
  void add_member(block* h, block* member) {
    ctx.block_at(h->region_pointer)->next_block = ctx.id(member);
    h->region_pointer = ctx.id(member);
  }
  void add_entry(block* h, block* neighbour) {
    nb_node* e = new_nb_node(ctx, neighbour, nullptr);
    if (h->nb_pointers[1] != 0) {
      ctx.entry_at(h->nb_pointers[1])->next = ctx.id(e);
    } else {
      h->nb_pointers[0] = ctx.id(e);
    }
    h->nb_pointers[1] = ctx.id(e);
  }
};

TEST(Records, NewBlocksHaveEmptyRegionFields) {
  run_context ctx;
  block* b = new_block(ctx);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->region_pointer, 0u);
  EXPECT_EQ(b->nb_pointers[0], 0u);
  EXPECT_EQ(b->nb_pointers[1], 0u);
  EXPECT_EQ(b->next_region, 0u);
  EXPECT_EQ(b->status, 0);
  release_block(ctx, b);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Records, FreeCurNpReleasesAChainAndReturnsMinusOne) {
  run_context ctx;
  EXPECT_EQ(free_cur_np(ctx, nullptr), -1);
  nb_node* c = new_nb_node(ctx, nullptr, nullptr);
  nb_node* b = new_nb_node(ctx, nullptr, c);
  nb_node* a = new_nb_node(ctx, nullptr, b);
  EXPECT_EQ(ctx.entries.live(), 3);
  EXPECT_EQ(ctx.allocator.live(), 1) << "one array holds every entry";
  EXPECT_EQ(free_cur_np(ctx, a), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Records, FreeBlocklistAndInitregionReleaseChainArrayAndEntries) {
  run_context ctx;
  auto list = static_cast<blocklist>(ctx.allocator.allocate(2 * sizeof(block*), alloc_site::block_list));
  list[0] = new_block(ctx);
  list[1] = new_block(ctx);
  list[0]->next_block = ctx.id(list[1]);
  EXPECT_EQ(free_blocklist(ctx, list), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);

  list = static_cast<blocklist>(ctx.allocator.allocate(2 * sizeof(block*), alloc_site::block_list));
  list_builder make{ctx};
  block* a = make.head(0x10);
  block* b = make.head(0x20);
  a->next_block = ctx.id(b);
  list[0] = a;
  make.add_entry(a, b);
  make.add_entry(b, a);
  make.add_entry(b, a);
  void* further = ctx.allocator.allocate(16, alloc_site::level_table);
  EXPECT_EQ(free_initregion(ctx, list, further), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);

  list = static_cast<blocklist>(ctx.allocator.allocate(sizeof(block*), alloc_site::block_list));
  list[0] = new_block(ctx);
  EXPECT_EQ(free_initregion(ctx, list, nullptr), -1);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Records, FreeRegionlistOfTheWholeImage) {
  run_context ctx;
  block* whole = new_block(ctx);
  whole->region_pointer = ctx.id(whole);
  free_regionlist(ctx, whole);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Records, FreeRegionlistStartsAtTheFirstLiveHeadAndReachesAbsorbedOnes) {
  run_context ctx;
  list_builder make{ctx};
  // Heads in list order: x (absorbed into b), y (absorbed into c), a, b, c.
  block* x = make.head(0x11);
  block* y = make.head(0x12);
  block* a = make.head(0x20);
  block* b = make.head(0x30);
  block* c = make.head(0x40);
  x->next_region = ctx.id(y);
  y->next_region = ctx.id(a);
  a->next_region = ctx.id(b);
  b->next_region = ctx.id(c);
  make.add_entry(a, b);
  make.add_entry(b, a);
  make.add_entry(b, c);
  make.add_entry(c, b);
  make.add_entry(c, c);
  // Absorbed heads keep a forwarding entry and join their absorber's chain.
  make.add_entry(x, b);
  x->region_pointer = 0;
  make.add_member(b, x);
  make.add_entry(y, c);
  y->region_pointer = 0;
  make.add_member(c, y);
  block* extra = new_block(ctx);  // a plain member block without entries
  make.add_member(a, extra);
  extra->region_pointer = ctx.id(extra);
  free_regionlist(ctx, x);
  EXPECT_EQ(ctx.allocator.live(), 0);
}

TEST(Records, PrintRegionWritesOneLinePerField) {
  run_context ctx;
  std::vector<std::string> lines;
  ctx.out = [&](std::string_view s) { lines.emplace_back(s); };
  block b;
  b.code = 0x420;
  b.variables[0] = -1;
  b.variables[1] = 51200;
  b.status = 2;
  print_region(ctx, b);
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "code = 420\n");
  EXPECT_EQ(lines[1], "variables = -1, 51200\n");
  EXPECT_EQ(lines[2], "region_pointer = 0\n");
  EXPECT_EQ(lines[3], "nb_pointers = 0, 0\n");
  EXPECT_EQ(lines[4], "status = 2\n");
  EXPECT_EQ(lines[5], "next_block = 0\n");
  EXPECT_EQ(lines[6], "next_region = 0\n");
}

TEST(Records, CheckPointerRecognisesTheFailureStatuses) {
  EXPECT_EQ(check_pointer(-1), -1);
  EXPECT_EQ(check_pointer(-2), -2);
  EXPECT_EQ(check_pointer(0), 0);
  EXPECT_EQ(check_pointer(0x7fff0000), 0);
  EXPECT_EQ(check_pointer(0xFFFFFFFFLL), 0xFFFFFFFFLL) << "low 32 bits all set";
  EXPECT_EQ(check_pointer(-3), 0);
}

TEST(Allocator, FailsExactlyTheKthRequestAndCountsLiveMemory) {
  run_allocator a;
  a.fail_at(3);
  void* p1 = a.allocate(8, alloc_site::block_record);
  void* p2 = a.allocate(8, alloc_site::neighbour_entry);
  void* p3 = a.allocate(8, alloc_site::frame_node);
  void* p4 = a.allocate(8, alloc_site::frame_node);
  EXPECT_NE(p1, nullptr);
  EXPECT_NE(p2, nullptr);
  EXPECT_EQ(p3, nullptr);
  EXPECT_NE(p4, nullptr);
  EXPECT_TRUE(a.site_failed(alloc_site::frame_node));
  EXPECT_FALSE(a.site_failed(alloc_site::block_record));
  EXPECT_EQ(a.requests(), 4u);
  EXPECT_EQ(a.live(), 3);
  a.release(p1);
  a.release(p2);
  a.release(p4);
  a.release(nullptr);
  EXPECT_EQ(a.live(), 0);
}

}  // namespace
}  // namespace splitmerge
