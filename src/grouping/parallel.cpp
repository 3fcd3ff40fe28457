#include "context/run_context.hpp"
#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

struct seed_table {
  block** slots;
  std::int32_t count;  // slot number of the last seed; -1 when none is left

  void remove(block* s) noexcept {
    std::int32_t i = 0;
    while (slots[i] != s) ++i;
    slots[i] = slots[count];
    --count;
  }
};

// One turn of seed s; returns whether it united anything. Ends early, with
// the lists whole, when the caller asks to stop.
template <bool Display>
bool seed_turn(run_context& ctx, seed_table& seeds, block* s) {
  bool unchanged = true;
  nb_node* prev = nullptr;
  nb_node* e = ctx.entry_at(s->nb_pointers[0]);
  while (e != nullptr) {
    if (ctx.interrupt_due()) break;
    block* n = resolve(ctx, e);
    if (n == s || (n->status & 1u) != 0) {
      e = remove_entry(ctx, s, prev, e);
    } else if ((n->status & 2u) != 0) {
      n->status = 0;  // re-opened, but not tried in this turn
      prev = e;
      e = ctx.entry_at(e->next);
    } else if (eval_grow(ctx, s, n) == 0) {
      prev = e;
      e = ctx.entry_at(e->next);
    } else {
      if ((n->status & 4u) != 0) {
        n->status = 0;
        seeds.remove(n);
      }
      nb_node* const next = ctx.entry_at(e->next);
      nb_node* const new_prev = n->nb_pointers[0] != 0 && ctx.entry_at(n->nb_pointers[0])->next != 0
                                    ? ctx.entry_at(n->nb_pointers[1])
                                    : e;
      if constexpr (Display) {
        unite_disp(ctx, s, n, e);
      } else {
        unite(ctx, s, n, e);
      }
      unchanged = false;
      // What n brought waits for s's next turn.
      e = next;
      prev = new_prev;
    }
  }
  for (nb_node* f = ctx.entry_at(s->nb_pointers[0]); f != nullptr; f = ctx.entry_at(f->next))
    ctx.block_at(f->region)->status &= ~1u;
  return !unchanged;
}

template <bool Display>
list_result<regionlist> parallel_phase(run_context& ctx, regionlist head) {
  const auto level_of = [&](const block* x) {
    return with_code_width(
        ctx, [&]<class Code>(Code) { return level<Code>(ctx, ctx.code_of<Code>(x)); });
  };
  const std::int32_t head_level = level_of(head);
  const auto takes_seed = [&](const block* x) {
    return ctx.use_all_seeds != 0 || level_of(x) == head_level;
  };
  // A run never has more seeds than regions: size the table by what it takes.
  std::int32_t wanted = 1;
  for (block* x = ctx.block_at(head->next_region);
       x != nullptr && wanted < ctx.max_seed && takes_seed(x); x = ctx.block_at(x->next_region))
    ++wanted;
  auto slots = create_array<block*>(ctx, static_cast<std::size_t>(wanted), alloc_site::seed_table);
  if (slots == nullptr) return list_result<regionlist>::failure(status_no_memory);
  seed_table seeds{slots, 0};
  slots[0] = head;
  head->status = 4;
  if constexpr (Display) ctx.cur_color = 0;
  for (block* x = ctx.block_at(head->next_region); x != nullptr && seeds.count < wanted - 1;
       x = ctx.block_at(x->next_region)) {
    slots[++seeds.count] = x;
    x->status = 4;
    if constexpr (Display) {
      smg_dfill_region(ctx, ctx.cur_color, x);
      ++ctx.cur_color;
    }
  }

  std::int32_t k = 0;
  while (seeds.count >= 0) {
    block* s = slots[k];
    if constexpr (Display) ctx.cur_color = frame_colour_at(ctx, s);
    const bool united = seed_turn<Display>(ctx, seeds, s);
    if (ctx.interrupted) {
      ctx.allocator.release(slots);
      return list_result<regionlist>::failure(status_interrupted);
    }
    if (!united) {
      s->status = 2;
      seeds.remove(s);
    }
    k = k < seeds.count ? k + 1 : 0;
  }
  ctx.allocator.release(slots);
  ctx.print("finished parallell grouping\n");
  if constexpr (Display) {
    return sequential_grouping_disp(ctx, head);
  } else {
    return sequential_grouping(ctx, head);
  }
}

}  // namespace

list_result<regionlist> parallel_grouping(run_context& ctx, regionlist head) {
  return parallel_phase<false>(ctx, head);
}
list_result<regionlist> parallel_grouping_disp(run_context& ctx, regionlist head) {
  return parallel_phase<true>(ctx, head);
}

}  // namespace splitmerge
