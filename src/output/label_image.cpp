#include <algorithm>

#include "context/run_context.hpp"
#include "context/workers.hpp"
#include "geometry/geometry.hpp"
#include "output/output.hpp"

namespace splitmerge {

namespace {

template <class Code>
void fill_block(const run_context& ctx, const block& b, std::int32_t label,
                std::int32_t* output) noexcept {
  const Code code = ctx.code_of<Code>(&b);
  const std::int32_t lvl = level<Code>(ctx, code);
  const std::int32_t side = 1 << lvl;
  const std::int32_t slices = lvl > ctx.lim_oct_level ? 1 << (lvl - ctx.lim_oct_level) : 1;
  std::int32_t* slice = output + ctx.first_pixel<Code>(code);
  for (std::int32_t s = 0; s < slices; ++s, slice += ctx.voxels_slice) {
    std::int32_t* row = slice;
    for (std::int32_t r = 0; r < side; ++r, row += ctx.im_format_xy)
      std::fill(row, row + side, label);
  }
}

template <class Code>
void label_regions(const run_context& ctx, regionlist head, std::int32_t* output) noexcept {
  if (head->next_region == 0) {
    const auto n = static_cast<std::size_t>(ctx.im_format_xy) *
                   static_cast<std::size_t>(ctx.im_format_xy) *
                   static_cast<std::size_t>(ctx.im_format_z);
    std::fill(output, output + n, 0);
    return;
  }
  // Regions cover disjoint pixels, so parts of the region list can be
  // labelled at once; the parts hold about equal pixel counts.
  const auto voxels = static_cast<std::size_t>(ctx.voxels_image);
  const std::size_t parts = parts_for(voxels, thread_count(ctx.threads), 64 * ctx.thread_grain);
  const block* part_head[max_parts + 1] = {};
  std::int32_t part_label[max_parts + 1] = {};
  {
    std::size_t t = 0;
    std::size_t pixels = 0;
    std::int32_t label = 0;
    for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region), ++label) {
      while (t < parts && pixels >= part_begin(voxels, parts, t)) {
        part_head[t] = h;
        part_label[t++] = label;
      }
      pixels += h->pixels;
    }
    for (; t <= parts; ++t) part_head[t] = nullptr;  // the remaining parts are empty
  }
  run_parts(parts, [&](std::size_t t) {
    std::int32_t label = part_label[t];
    for (const block* h = part_head[t]; h != part_head[t + 1];
         h = ctx.block_at(h->next_region), ++label)
      for (const block* b = h; b != nullptr; b = ctx.block_at(b->next_block))
        fill_block<Code>(ctx, *b, label, output);
  });
}

}  // namespace

void make_output(const run_context& ctx, regionlist head, std::int32_t* output) noexcept {
  with_code_width(ctx, [&]<class Code>(Code) { label_regions<Code>(ctx, head, output); });
}

}  // namespace splitmerge
