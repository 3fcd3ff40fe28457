#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

void join(const run_context& ctx, block* a, block* b, nb_node* e) noexcept {
  const block_id a_id = ctx.id(a);
  ctx.block_at(a->region_pointer)->next_block = ctx.id(b);
  a->region_pointer = b->region_pointer;
  b->region_pointer = 0;
  a->pixels += b->pixels;

  nb_node* f = ctx.entry_at(b->nb_pointers[0]);
  e->region = f->region;
  if (f->next != 0) {
    // b's entries from the second on go right behind e.
    if (e->next != 0) {
      ctx.entry_at(b->nb_pointers[1])->next = e->next;
    } else {
      a->nb_pointers[1] = b->nb_pointers[1];
    }
    e->next = f->next;
  }
  f->region = a_id;          // f now forwards readers to a
  b->nb_pointers[1] = a_id;  // and so does b itself, one visit fewer
}

}  // namespace

void unite(run_context& ctx, block* a, block* b, nb_node* e) noexcept {
  unite_predicates(ctx, a, b);
  join(ctx, a, b, e);
}

void unite_disp(run_context& ctx, block* a, block* b, nb_node* e) noexcept {
  unite_predicates(ctx, a, b);
  smg_dfill_region(ctx, ctx.cur_color, b);
  join(ctx, a, b, e);
}

std::uint32_t next_visit(run_context& ctx, regionlist heads) noexcept {
  constexpr std::uint32_t last_visit = (std::uint32_t{1} << 24) - 1;  // block::visit's width
  if (ctx.visit >= last_visit) {
    for (block* h = heads; h != nullptr; h = ctx.block_at(h->next_region)) h->visit = 0;
    ctx.visit = 0;
  }
  return ++ctx.visit;
}

bool compact_list(run_context& ctx, block* r) noexcept {
  std::uint32_t n = 0;
  for (entry_id i = r->nb_pointers[0]; i != 0; i = ctx.entry_at(i)->next) ++n;
  if (n == 0) return true;
  // Entries beyond two per voxel face (what a run's memory is planned for)
  // are never taken: the list then stays where it is, with the same order.
  const std::uint64_t faces = ctx.im_format_z > 1 ? 3 : 2;
  const std::uint64_t planned = 2 * faces * static_cast<std::uint64_t>(ctx.voxels_image) + 2;
  if (std::uint64_t{ctx.entries.end()} + n > planned) return true;
  const entry_id base = ctx.entries.obtain_range(n);
  if (base == 0) return false;
  nb_node* const fresh = ctx.entry_at(base);
  entry_id old = r->nb_pointers[0];
  for (std::uint32_t j = 0; j < n; ++j) {
    nb_node* e = ctx.entry_at(old);
    old = e->next;
    fresh[j] = nb_node{e->region, j + 1 < n ? base + j + 1 : 0};
    release_entry(ctx, e);
  }
  r->nb_pointers[0] = base;
  r->nb_pointers[1] = base + n - 1;
  return true;
}

nb_node* remove_entry(run_context& ctx, block* r, nb_node* prev, nb_node* e) noexcept {
  const entry_id next = e->next;
  if (prev != nullptr) {
    prev->next = next;
  } else {
    r->nb_pointers[0] = next;
  }
  if (r->nb_pointers[1] == ctx.id(e)) r->nb_pointers[1] = ctx.id(prev);
  release_entry(ctx, e);
  return ctx.entry_at(next);
}

}  // namespace splitmerge
