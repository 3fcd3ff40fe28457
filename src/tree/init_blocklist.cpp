#include "context/run_context.hpp"
#include "context/workers.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "tree/tree.hpp"

namespace splitmerge {

template <class Code>
list_result<blocklist> init_blocklist(run_context& ctx) noexcept {
  const std::int32_t cells = ctx.voxels_image / ctx.pixels_perblock[ctx.init_level];
  const block_extent extent = sizes_block(ctx, ctx.init_level);
  auto list = create_array<block*>(ctx, static_cast<std::size_t>(cells), alloc_site::block_list);
  if (list == nullptr) return list_result<blocklist>::failure(status_no_memory);

  Code code = 0;
  for (std::int32_t l = ctx.init_level; l < ctx.max_level; ++l) code |= Code{1} << (4 * l);
  block* first = new_block(ctx);
  if (first == nullptr) {
    ctx.allocator.release(list);
    return list_result<blocklist>::failure(status_no_memory);
  }
  ctx.set_code<Code>(first, code);
  list[0] = first;

  const auto n = static_cast<std::int32_t>(ctx.blocks_perlevel[ctx.init_level]);
  block* prev = first;
  loop_poll poll(ctx);
  for (std::int32_t i = 1; i < cells; ++i) {
    if (poll.due()) {
      free_blocklist(ctx, list);  // the chain ends at the last block made
      return list_result<blocklist>::failure(status_interrupted);
    }
    block* b = new_block(ctx);
    if (b == nullptr) {
      // The chain ends at the last block made; release all of it.
      return list_result<blocklist>::failure(free_blocklist(ctx, list));
    }
    prev->next_block = ctx.id(b);
    const std::int32_t digit = i % n;
    const Code prev_code = ctx.code_of<Code>(prev);
    ctx.set_code<Code>(b, digit != 0 ? changed_code<Code>(static_cast<std::uint32_t>(digit) + 1,
                                                          ctx.init_level, prev_code)
                                     : next_code<Code>(ctx, prev_code, ctx.init_level));
    list[i] = b;
    prev = b;
  }
  prev->next_block = 0;

  // Each block's statistics read only the image, so parts of the list can be
  // evaluated at once; the median test shares one scratch array and stays on
  // one thread.
  const auto count = static_cast<std::size_t>(cells);
  const std::size_t parts =
      ctx.pred_choice == 3
          ? 1
          : parts_for(count * static_cast<std::size_t>(ctx.pixels_perblock[ctx.init_level]),
                      thread_count(ctx.threads), 64 * ctx.thread_grain);
  run_parts(parts, [&](std::size_t t) {
    loop_poll part_poll(ctx, t == 0);
    for (std::size_t i = part_begin(count, parts, t); i < part_begin(count, parts, t + 1); ++i) {
      if (part_poll.due()) return;
      calc_evalvar(ctx, coordinates<Code>(ctx, ctx.code_of<Code>(list[i]), ctx.init_level), extent,
                   ctx.init_level, list[i]);
    }
  });
  if (ctx.interrupted) {
    free_blocklist(ctx, list);
    return list_result<blocklist>::failure(status_interrupted);
  }
  return list_result<blocklist>{list, 0};
}

template list_result<blocklist> init_blocklist<std::uint32_t>(run_context&) noexcept;
template list_result<blocklist> init_blocklist<std::uint64_t>(run_context&) noexcept;

}  // namespace splitmerge
