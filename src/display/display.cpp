#include "display/display.hpp"

#include <algorithm>
#include <string>

#include "context/run_context.hpp"

namespace splitmerge {

namespace {

disp_frame* new_frame(run_context& ctx, bool zeroed) noexcept {
  auto* node =
      static_cast<disp_frame*>(ctx.allocator.allocate(sizeof(disp_frame), alloc_site::frame_node));
  if (node == nullptr) return nullptr;
  const auto bytes = static_cast<std::size_t>(ctx.smg_img_size) * sizeof(std::int32_t);
  node->pixels = static_cast<std::int32_t*>(
      zeroed ? ctx.allocator.allocate(bytes, alloc_site::frame_pixels)
             : ctx.allocator.allocate_uninitialised(bytes, alloc_site::frame_pixels));
  if (node->pixels == nullptr) {
    ctx.allocator.release(node);
    return nullptr;
  }
  return node;
}

bool within_budget(run_context& ctx) noexcept {
  const auto frame_bytes = static_cast<std::uint64_t>(ctx.smg_img_size) * sizeof(std::int32_t);
  const auto needed = (static_cast<std::uint64_t>(ctx.smg_dsp_count) + 1) * frame_bytes;
  if (needed <= ctx.frame_budget) return true;
  try {
    ctx.warn("splitmerge: frame recording stopped at " + std::to_string(ctx.smg_dsp_count) +
             " frames: the next frame would exceed the frame budget of " +
             std::to_string(ctx.frame_budget) + " bytes\n");
  } catch (...) {  // a lost warning must not stop the run
  }
  return false;
}

void paint_rows(run_context& ctx, std::int32_t start, std::int32_t side, std::int32_t rows,
                std::int32_t slices, std::uint32_t value) noexcept {
  std::int32_t* frame = ctx.smg_disp_cur->pixels;
  const auto v = static_cast<std::int32_t>(value);
  for (std::int32_t s = 0; s < slices; ++s)
    for (std::int32_t r = 0; r < rows; ++r) {
      std::int32_t* p = frame + start + s * ctx.voxels_slice + r * ctx.im_format_xy;
      std::fill(p, p + side, v);
    }
}

}  // namespace

std::int32_t create_first_frame(run_context& ctx) noexcept {
  disp_frame* node = new_frame(ctx, true);
  if (node == nullptr) return -1;
  ctx.smg_disp = node;
  ctx.smg_disp_cur = node;
  ctx.smg_dsp_count = 1;
  ctx.smg_dsp_count_l = frame_interval;
  return 0;
}

void smg_display_im(run_context& ctx) noexcept {
  const std::int32_t c = ctx.smg_dsp_count_l;
  ctx.smg_dsp_count_l = c + 1;
  if (c < frame_interval || ctx.frames_stopped || ctx.smg_disp_cur == nullptr) return;
  if (ctx.frame_sink) {
    // The frame is final now; painting goes on in the same pixels.
    ctx.frame_sink(ctx.smg_disp_cur->pixels, ctx.smg_dsp_count - 1);
    ++ctx.smg_dsp_count;
    ctx.smg_dsp_count_l = 0;
    return;
  }
  disp_frame* node = within_budget(ctx) ? new_frame(ctx, false) : nullptr;
  if (node == nullptr) {
    // Keep every frame so far and go on painting into the current one.
    ctx.frames_stopped = true;
    return;
  }
  std::copy(ctx.smg_disp_cur->pixels, ctx.smg_disp_cur->pixels + ctx.smg_img_size, node->pixels);
  ctx.smg_disp_cur->next = node;
  ctx.smg_disp_cur = node;
  ++ctx.smg_dsp_count;
  ctx.smg_dsp_count_l = 0;
}

void init_smg_display(run_context& ctx) noexcept {
  std::int32_t* p = ctx.smg_disp_cur->pixels;
  const std::int32_t w = 1 << ctx.init_level;
  const std::int32_t dz =
      ctx.init_level >= ctx.lim_oct_level ? 1 << (ctx.init_level - ctx.lim_oct_level) : 1;
  const std::int32_t runs = ctx.im_format_xy / w;
  std::int32_t v = 1;
  const auto flip = [&v](std::int32_t bit) { v = ((v - 1) ^ bit) + 1; };
  for (std::int32_t z = 1; z <= ctx.im_format_z; ++z) {
    for (std::int32_t y = 1; y <= ctx.im_format_xy; ++y) {
      for (std::int32_t r = 0; r < runs; ++r) {
        std::fill(p, p + w, v);
        p += w;
        flip(1);
      }
      if (y % w == 0) flip(2);
    }
    if (z % dz == 0) flip(4);
  }
  smg_display_im(ctx);
}

void smg_dfill_block(run_context& ctx, std::int32_t column, std::int32_t row, std::int32_t slice,
                     std::int32_t side, std::int32_t row_span, std::int32_t slice_span,
                     std::uint32_t value) noexcept {
  if (slice_span < 1 || side < 1) return;
  const std::int32_t slices = (slice_span + ctx.voxels_slice - 1) / ctx.voxels_slice;
  const std::int32_t rows = (row_span + ctx.im_format_xy - 1) / ctx.im_format_xy;
  paint_rows(ctx, column + row + slice, side, rows, slices, value);
}

void smg_dfill_region(run_context& ctx, std::int32_t value, const block* head) noexcept {
  with_code_width(ctx, [&]<class Code>(Code) {
    for (const block* b = head; b != nullptr; b = ctx.block_at(b->next_block)) {
      const Code code = ctx.code_of<Code>(b);
      const std::int32_t lvl = level<Code>(ctx, code);
      smg_dfill_block(ctx, coordinates<Code>(ctx, code, lvl), sizes_block(ctx, lvl),
                      static_cast<std::uint32_t>(value));
    }
  });
  smg_display_im(ctx);
}

void hand_over_last_frame(run_context& ctx) noexcept {
  if (ctx.frame_sink && ctx.smg_disp_cur != nullptr)
    ctx.frame_sink(ctx.smg_disp_cur->pixels, ctx.smg_dsp_count - 1);
}

std::int32_t frame_colour_at(const run_context& ctx, const block* head) noexcept {
  const std::int32_t at = with_code_width(ctx, [&]<class Code>(Code) {
    const Code code = ctx.code_of<Code>(head);
    return coordinates<Code>(ctx, code, level<Code>(ctx, code)).first_pixel();
  });
  return ctx.smg_disp_cur->pixels[at];
}

}  // namespace splitmerge
