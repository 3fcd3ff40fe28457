// Builds a run context for testing one phase at a time.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "context/run_context.hpp"
#include "driver/driver.hpp"

namespace splitmerge::testing {

struct image_spec {
  std::int32_t size_x = 8;
  std::int32_t size_z = 1;
  std::int32_t max_level = 3;
  std::int32_t lim_oct_level = 3;
  std::int32_t init_level = 1;
  std::int32_t pred_choice = 1;
  std::int32_t interval_length = 10;
};

// A context prepared as the library entry prepares it, over an image it owns.
struct prepared_run {
  std::vector<std::int32_t> image;
  run_arguments args;
  run_context ctx;

  prepared_run(std::vector<std::int32_t> pixels, const image_spec& s) : image(std::move(pixels)) {
    args.image = image.data();
    args.size_x = s.size_x;
    args.size_y = s.size_x;
    args.size_z = s.size_z;
    args.max_level = s.max_level;
    args.lim_oct_level = s.lim_oct_level;
    args.init_level = s.init_level;
    args.group_mode = 0;
    args.max_seed = 2;
    args.use_all_seeds = 0;
    args.pred_choice = s.pred_choice;
    args.interval_length = s.interval_length;
    args.threshold_row = 3;
    args.small_size = 0;
    args.statistic_update = 1;
    args.rejection = 0.25;
    args.sigma = 2.0;
    args.pseudo_factor = 1.0;
    ok = prepare_run(ctx, args) == 0;
  }
  ~prepared_run() { free_variables(ctx); }
  prepared_run(const prepared_run&) = delete;
  prepared_run& operator=(const prepared_run&) = delete;

  bool ok = false;
};

// The 4x4 plane of the worked examples: the top-left 2x2 cell is rough and
// splits into the single pixels 0x11..0x14; the other cells stay 2x2 blocks.
inline prepared_run plane_example() {
  std::vector<std::int32_t> img(16, 200);
  img[0] = 0;
  img[1] = 50;
  img[4] = 100;
  img[5] = 150;
  return prepared_run(img, {4, 1, 2, 2, 1, 1, 10});
}

// The codes of a block chain, from b along next_block.
inline std::vector<std::uint32_t> chain(const run_context& ctx, const block* b) {
  std::vector<std::uint32_t> codes;
  for (; b != nullptr; b = ctx.block_at(b->next_block)) codes.push_back(b->code);
  return codes;
}

// Hand-made records in a run's arenas: a head of its own region.
inline block* make_head(run_context& ctx, std::uint32_t code) {
  block* b = new_block(ctx);
  b->code = code;
  b->region_pointer = ctx.id(b);
  return b;
}

// Links the heads into a region list, in the order given.
inline void link_regions(run_context& ctx, std::initializer_list<block*> heads) {
  block* prev = nullptr;
  for (block* h : heads) {
    if (prev != nullptr) prev->next_region = ctx.id(h);
    prev = h;
  }
}

// Gives owner a neighbour list naming the blocks given, in order; returns
// its entries.
inline std::vector<nb_node*> set_entries(run_context& ctx, block* owner,
                                         std::initializer_list<block*> named) {
  std::vector<nb_node*> made;
  for (block* n : named) made.push_back(new_nb_node(ctx, n, nullptr));
  for (std::size_t i = 0; i + 1 < made.size(); ++i) made[i]->next = ctx.id(made[i + 1]);
  owner->nb_pointers[0] = made.empty() ? 0 : ctx.id(made.front());
  owner->nb_pointers[1] = made.empty() ? 0 : ctx.id(made.back());
  return made;
}

}  // namespace splitmerge::testing
