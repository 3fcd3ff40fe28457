#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "tree/tree.hpp"

namespace splitmerge {

list_result<blocklist> init_blocklist(run_context& ctx) noexcept {
  const std::int32_t cells = ctx.voxels_image / ctx.pixels_perblock[ctx.init_level];
  const block_extent extent = sizes_block(ctx, ctx.init_level);
  auto list = create_array<block*>(ctx, static_cast<std::size_t>(cells), alloc_site::block_list);
  if (list == nullptr) return list_result<blocklist>::failure(status_no_memory);

  std::uint32_t code = 0;
  for (std::int32_t l = ctx.init_level; l < ctx.max_level; ++l) code |= 1u << (4 * l);
  block* first = new_block(ctx);
  if (first == nullptr) {
    ctx.allocator.release(list);
    return list_result<blocklist>::failure(status_no_memory);
  }
  first->code = code;
  list[0] = first;
  calc_evalvar(ctx, block_position{}, extent, ctx.init_level, first);

  const auto n = static_cast<std::int32_t>(ctx.blocks_perlevel[ctx.init_level]);
  block* prev = first;
  for (std::int32_t i = 1; i < cells; ++i) {
    block* b = new_block(ctx);
    if (b == nullptr) {
      // The chain ends at the last block made; release all of it.
      return list_result<blocklist>::failure(free_blocklist(ctx, list));
    }
    prev->next_block = ctx.id(b);
    const std::int32_t digit = i % n;
    b->code = digit != 0 ? changed_code(static_cast<std::uint32_t>(digit) + 1, ctx.init_level,
                                        prev->code)
                         : next_code(ctx, prev->code, ctx.init_level);
    list[i] = b;
    calc_evalvar(ctx, coordinates(ctx, b->code, ctx.init_level), extent, ctx.init_level, b);
    prev = b;
  }
  prev->next_block = 0;
  return list_result<blocklist>{list, 0};
}

}  // namespace splitmerge
