#include "display/display.hpp"
#include "driver/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

void join(block* a, block* b, nb_node* e) noexcept {
  a->region_pointer->next_block = b;
  a->region_pointer = b->region_pointer;
  b->region_pointer = nullptr;

  nb_node* f = b->nb_pointers[0];
  e->region = f->region;
  if (f->next != nullptr) {
    // b's entries from the second on go right behind e.
    if (e->next != nullptr) {
      b->nb_pointers[1]->next = e->next;
    } else {
      a->nb_pointers[1] = b->nb_pointers[1];
    }
    e->next = f->next;
  }
  f->region = a;  // f now forwards readers to a
}

}  // namespace

void unite(run_context& ctx, block* a, block* b, nb_node* e) noexcept {
  unite_predicates(ctx, a, b);
  join(a, b, e);
}

void unite_disp(run_context& ctx, block* a, block* b, nb_node* e) noexcept {
  unite_predicates(ctx, a, b);
  smg_dfill_region(ctx, ctx.cur_color, b);
  join(a, b, e);
}

nb_node* remove_entry(run_context& ctx, block* r, nb_node* prev, nb_node* e) noexcept {
  nb_node* next = e->next;
  if (prev != nullptr) {
    prev->next = next;
  } else {
    r->nb_pointers[0] = next;
  }
  if (r->nb_pointers[1] == e) r->nb_pointers[1] = prev;
  ctx.allocator.release(e);
  return next;
}

}  // namespace splitmerge
