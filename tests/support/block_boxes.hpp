// The pixel box a block covers, from its code, and whether two boxes share a
// face: the independent geometry that adjacency tests compare against.
#pragma once

#include <cstdint>
#include <type_traits>

#include "context/run_context.hpp"
#include "geometry/geometry.hpp"

namespace splitmerge::testing {

struct box {
  std::int32_t lo[3];
  std::int32_t hi[3];  // exclusive
};

template <class Code = std::uint32_t>
box box_of(const run_context& ctx, std::type_identity_t<Code> code) {
  const std::int32_t lvl = level<Code>(ctx, code);
  const block_position p = coordinates<Code>(ctx, code, lvl);
  const block_extent e = sizes_block(ctx, lvl);
  box b{};
  b.lo[0] = p.column;
  b.lo[1] = p.row / ctx.im_format_xy;
  b.lo[2] = p.slice / ctx.voxels_slice;
  b.hi[0] = b.lo[0] + e.side;
  b.hi[1] = b.lo[1] + e.side;
  b.hi[2] = b.lo[2] + e.slice_span / ctx.voxels_slice;
  return b;
}

inline bool share_face(const box& a, const box& b) {
  for (int axis = 0; axis < 3; ++axis) {
    if (a.hi[axis] != b.lo[axis] && b.hi[axis] != a.lo[axis]) continue;
    bool overlap = true;
    for (int other = 0; other < 3; ++other)
      if (other != axis)
        overlap = overlap && a.lo[other] < b.hi[other] && b.lo[other] < a.hi[other];
    if (overlap) return true;
  }
  return false;
}

}  // namespace splitmerge::testing
