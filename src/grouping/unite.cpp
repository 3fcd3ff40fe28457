#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

void join(const run_context& ctx, block* a, block* b, nb_node* e) noexcept {
  const block_id a_id = ctx.id(a);
  join_blocks(ctx, a, b);

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

void join_blocks(const run_context& ctx, block* a, block* b) noexcept {
  ctx.block_at(a->region_pointer)->next_block = ctx.id(b);
  a->region_pointer = b->region_pointer;
  b->region_pointer = 0;
  a->pixels += b->pixels;
}

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
