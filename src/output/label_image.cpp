// The label image. Every block was a region head once, and a head that is
// absorbed names its absorber (see block), so each block reaches its live
// head by forwarding links without a walk along the region's chain. The
// blocks are then painted in record order, which is close to image order:
// the writes stream instead of jumping between regions.
#include <algorithm>

#include "context/run_context.hpp"
#include "context/workers.hpp"
#include "geometry/geometry.hpp"
#include "output/output.hpp"

namespace splitmerge {

namespace {

constexpr std::int32_t unlabelled = -1;
constexpr std::int32_t released = -2;

template <class Code>
void fill_block(const run_context& ctx, const block& b, std::int32_t label,
                std::int32_t* output) noexcept {
  const Code code = ctx.code_of<Code>(&b);
  const std::int32_t lvl = level<Code>(ctx, code);
  std::int32_t* slice = output + ctx.first_pixel<Code>(code);
  if (lvl == 0) {
    *slice = label;
    return;
  }
  const std::int32_t side = 1 << lvl;
  const std::int32_t slices = lvl > ctx.lim_oct_level ? 1 << (lvl - ctx.lim_oct_level) : 1;
  for (std::int32_t s = 0; s < slices; ++s, slice += ctx.voxels_slice) {
    std::int32_t* row = slice;
    for (std::int32_t r = 0; r < side; ++r, row += ctx.im_format_xy)
      std::fill(row, row + side, label);
  }
}

// The label of block i, following absorbed heads to the live head; every
// block met on the way gets the label too. unlabelled when the links end
// before a listed head (a head outside the list, or a chain built by hand).
std::int32_t resolve_label(const run_context& ctx, std::int32_t* labels, block_id i) noexcept {
  block_id at = i;
  while (labels[at] == unlabelled) {
    const block* b = ctx.block_at(at);
    if (b->region_pointer != 0 || b->nb_pointers[1] == 0) break;
    at = b->nb_pointers[1];
  }
  const std::int32_t label = labels[at];
  if (label < 0) return unlabelled;
  for (block_id j = i; labels[j] == unlabelled; j = ctx.block_at(j)->nb_pointers[1])
    labels[j] = label;
  return label;
}

// The list's chains painted one region after the other: for region lists
// whose blocks do not all reach their heads by forwarding links.
template <class Code>
void paint_chains(const run_context& ctx, regionlist head, std::int32_t* output) noexcept {
  std::int32_t label = 0;
  for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region), ++label)
    for (const block* b = h; b != nullptr; b = ctx.block_at(b->next_block))
      fill_block<Code>(ctx, *b, label, output);
}

template <class Code>
std::int32_t label_regions(run_context& ctx, regionlist head, std::int32_t* output) noexcept {
  if (head->next_region == 0) {
    const auto n = static_cast<std::size_t>(ctx.im_format_xy) *
                   static_cast<std::size_t>(ctx.im_format_xy) *
                   static_cast<std::size_t>(ctx.im_format_z);
    std::fill(output, output + n, 0);
    return 0;
  }
  const std::size_t ids = ctx.blocks.end();
  auto* labels = static_cast<std::int32_t*>(
      ctx.allocator.allocate_uninitialised(ids * sizeof(std::int32_t), alloc_site::label_table));
  if (labels == nullptr) return status_no_memory;
  std::fill(labels, labels + ids, unlabelled);
  ctx.blocks.for_each_released([&](block_id i) { labels[i] = released; });
  labels[0] = released;
  std::int32_t label = 0;
  for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region), ++label)
    labels[ctx.id(h)] = label;
  bool forwarded = true;
  loop_poll poll(ctx);
  for (block_id i = 1; i < ids; ++i) {
    if (poll.due()) break;
    if (labels[i] == unlabelled && resolve_label(ctx, labels, i) == unlabelled) forwarded = false;
  }
  if (ctx.interrupted) {
    ctx.allocator.release(labels);
    return status_interrupted;
  }
  if (!forwarded) {
    paint_chains<Code>(ctx, head, output);
    ctx.allocator.release(labels);
    return 0;
  }
  // Blocks cover disjoint pixels, so ranges of records can be painted at once.
  const std::size_t parts = parts_for(ids, thread_count(ctx.threads), 16 * ctx.thread_grain);
  run_parts(parts, [&](std::size_t t) {
    const std::size_t end = part_begin(ids, parts, t + 1);
    loop_poll part_poll(ctx, t == 0);
    for (std::size_t i = part_begin(ids, parts, t); i < end; ++i) {
      if (part_poll.due()) return;
      if (labels[i] >= 0)
        fill_block<Code>(ctx, *ctx.block_at(static_cast<block_id>(i)), labels[i], output);
    }
  });
  ctx.allocator.release(labels);
  return ctx.interrupted ? status_interrupted : 0;
}

}  // namespace

std::int32_t make_output(run_context& ctx, regionlist head, std::int32_t* output) noexcept {
  return with_code_width(ctx,
                         [&]<class Code>(Code) { return label_regions<Code>(ctx, head, output); });
}

}  // namespace splitmerge
