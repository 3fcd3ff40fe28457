// The display frame recorder: phases paint into the current frame, and every
// 1001st tick freezes it and continues in a copy.
#pragma once

#include <cstdint>

#include "geometry/geometry.hpp"
#include "records/records.hpp"

namespace splitmerge {

class run_context;

inline constexpr std::int32_t frame_interval = 1000;

// Creates the first, zero-filled frame of a run. Returns 0 or -1.
std::int32_t create_first_frame(run_context& ctx) noexcept;
void init_smg_display(run_context& ctx) noexcept;
void smg_dfill_block(run_context& ctx, std::int32_t column, std::int32_t row, std::int32_t slice,
                     std::int32_t side, std::int32_t row_span, std::int32_t slice_span,
                     std::uint32_t value) noexcept;
inline void smg_dfill_block(run_context& ctx, const block_position& p, const block_extent& e,
                            std::uint32_t value) noexcept {
  smg_dfill_block(ctx, p.column, p.row, p.slice, e.side, e.row_span, e.slice_span, value);
}
void smg_dfill_region(run_context& ctx, std::int32_t value, const block* head) noexcept;
void smg_display_im(run_context& ctx) noexcept;
// With a frame sink: hands the frame being painted, the run's last, to it.
void hand_over_last_frame(run_context& ctx) noexcept;
// The value the current frame shows at the first pixel of a head block.
std::int32_t frame_colour_at(const run_context& ctx, const block* head) noexcept;

}  // namespace splitmerge
