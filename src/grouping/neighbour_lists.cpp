// The initial region list: every leaf block becomes a region of its own,
// listed by decreasing level, with the list of the regions it touches.
//
// A block's neighbour list holds, in this order, the neighbours it finds
// itself (those before it in chain order) last found first, then the blocks
// that find it, in chain order. The leaves tile the image, so two leaves
// share a face exactly when two face-neighbouring pixels belong to them: the
// pairs are read from an image of leaf positions (by several threads: it is
// only read), then every list is laid out as one contiguous run of entries,
// so that walking a list reads memory in order.
#include <algorithm>

#include "context/run_context.hpp"
#include "context/workers.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"

namespace splitmerge {

namespace {

// Scratch of the pair search, one allocation besides the found pairs.
struct pair_table {
  std::uint32_t* found_begin = nullptr;  // by leaf position: first of its finds
  std::uint32_t* found_count = nullptr;  // by leaf position: how many it found
  std::uint32_t* slot = nullptr;         // by block index: incoming count, then fill cursor
  block_id* found = nullptr;             // the finds, each part's run from its own start
};

// Orders the leaves into the region list (largest level first, chain order
// within a level) and makes each a region of its own; false when interrupted.
template <class Code>
bool make_initial_regions(run_context& ctx, block* first, block** table, block*& head) {
  loop_poll poll(ctx);
  for (block* cur = first; cur != nullptr; cur = ctx.block_at(cur->next_block)) {
    if (poll.due()) return false;
    calc_eval_var_region<Code>(ctx, cur);
    const std::int32_t lvl = level<Code>(ctx, ctx.code_of<Code>(cur));
    cur->region_pointer = ctx.id(cur);
    cur->pixels = static_cast<std::uint32_t>(ctx.pixels_perblock[lvl]);
    if (cur == first) {
      cur->next_region = 0;
      head = cur;
      table[lvl] = cur;
      continue;
    }
    block* after = table[lvl];
    for (std::int32_t i = lvl + 1; after == nullptr && i < ctx.max_level; ++i) after = table[i];
    if (after != nullptr) {
      cur->next_region = after->next_region;
      after->next_region = ctx.id(cur);
    } else {
      cur->next_region = ctx.id(head);
      head = cur;
    }
    table[lvl] = cur;
  }
  return true;
}

// The leaves in chain order, their block indices and levels, and by cell
// the chain position of the leaf that covers it. The cells are as large as
// the smallest leaf (every leaf is aligned to its size), so an image of few
// large blocks needs a small image of positions.
struct leaf_raster {
  block** leaves = nullptr;
  block_id* ids = nullptr;
  std::uint8_t* levels = nullptr;
  std::uint32_t* position = nullptr;  // by cell
  std::size_t count = 0;
  std::int32_t shift_xy = 0;  // log2 of a cell's side in pixels
  std::int32_t shift_z = 0;   // log2 of a cell's depth in slices
  std::int32_t xy = 0;        // cells along x (and y)
  std::int32_t slice = 0;     // cells in a slice
  std::size_t cells = 0;
};

// A leaf's box in cells: first cell, its coordinates, side and depth.
struct leaf_box {
  std::int32_t at, x, y, z, side, depth;
};

template <class Code>
leaf_box box_of(const run_context& ctx, const leaf_raster& raster, std::size_t p) noexcept {
  const std::int32_t lvl = raster.levels[p];
  const std::int32_t first = ctx.first_pixel<Code>(ctx.code_of<Code>(raster.leaves[p]));
  const std::int32_t x = (first & (ctx.im_format_xy - 1)) >> raster.shift_xy;
  const std::int32_t y = ((first / ctx.im_format_xy) & (ctx.im_format_xy - 1)) >> raster.shift_xy;
  const std::int32_t z = (first / ctx.voxels_slice) >> raster.shift_z;
  const std::int32_t depth = lvl > ctx.lim_oct_level ? 1 << (lvl - ctx.lim_oct_level) : 1;
  return {x + y * raster.xy + z * raster.slice,
          x,
          y,
          z,
          (1 << lvl) >> raster.shift_xy,
          depth >> raster.shift_z};
}

// Cells as large as the smallest leaf.
void shape_cells(const run_context& ctx, leaf_raster& raster) noexcept {
  std::int32_t smallest = ctx.max_level;
  for (std::size_t p = 0; p < raster.count; ++p)
    smallest = std::min<std::int32_t>(smallest, raster.levels[p]);
  raster.shift_xy = smallest;
  raster.shift_z =
      ctx.im_format_z > 1 && smallest > ctx.lim_oct_level ? smallest - ctx.lim_oct_level : 0;
  raster.xy = ctx.im_format_xy >> raster.shift_xy;
  raster.slice = raster.xy * raster.xy;
  raster.cells = static_cast<std::size_t>(raster.slice) *
                 static_cast<std::size_t>(ctx.im_format_z >> raster.shift_z);
}

// Writes each leaf's position where the leaves after it look: its last
// column, last row and (in a volume) last slice, the pixels across the
// lower faces of the leaves that follow it. The rest of the image is never
// read, so large blocks cost their surface, not their volume.
template <class Code>
void paint_positions(run_context& ctx, const leaf_raster& raster, std::size_t parts) {
  const std::int32_t xy = raster.xy;
  const std::int32_t slice = raster.slice;
  const bool volume = ctx.im_format_z > 1;
  run_parts(parts, [&](std::size_t t) {
    const std::size_t end = part_begin(raster.count, parts, t + 1);
    loop_poll poll(ctx, t == 0);
    for (std::size_t p = part_begin(raster.count, parts, t); p < end; ++p) {
      if (poll.due()) return;
      const leaf_box box = box_of<Code>(ctx, raster, p);
      const auto value = static_cast<std::uint32_t>(p);
      std::uint32_t* const first = raster.position + box.at;
      if (box.side == 1 && box.depth == 1) {
        *first = value;
        continue;
      }
      for (std::int32_t z = 0; z < box.depth; ++z) {
        std::uint32_t* const layer = first + z * slice;
        for (std::int32_t y = 0; y < box.side; ++y) layer[y * xy + box.side - 1] = value;
        std::fill_n(layer + (box.side - 1) * xy, box.side, value);
      }
      if (volume) {
        std::uint32_t* const last = first + (box.depth - 1) * slice;
        for (std::int32_t y = 0; y < box.side; ++y) std::fill_n(last + y * xy, box.side, value);
      }
    }
  });
}

// The leaves across one lower face of a box, in chain order. The face is
// `rows` lines of `width` pixels, `row_step` and `pixel_step` apart, the
// pixels across it `across` before. Each leaf covers a rectangle of the
// face: it is met first at its rectangle's corner, where neither the pixel
// before it in the line nor the one above it belongs to it.
std::uint32_t leaves_across(const std::uint32_t* position, std::int32_t first, std::int32_t across,
                            std::int32_t width, std::int32_t pixel_step, std::int32_t rows,
                            std::int32_t row_step, std::uint32_t* found) {
  std::uint32_t n = 0;
  const std::uint32_t* line = position + first - across;
  for (std::int32_t r = 0; r < rows; ++r, line += row_step) {
    for (std::int32_t i = 0; i < width; ++i) {
      const std::uint32_t q = line[i * pixel_step];
      if (i > 0 && line[(i - 1) * pixel_step] == q) continue;
      if (r > 0 && line[i * pixel_step - row_step] == q) continue;
      found[n++] = q;
    }
  }
  if (n > 1) std::sort(found, found + n);
  return n;
}

// Finds the lower neighbours of every leaf: along x, then y, then z, each
// in chain order. A leaf finds at most three times its pixel count (one
// neighbour per pixel face on each lower side), so part t writes from three
// times the pixels of the leaves before it on.
template <class Code>
void find_pairs(run_context& ctx, const leaf_raster& raster, const std::size_t* part_start,
                std::size_t parts, pair_table& pairs) {
  const std::int32_t xy = raster.xy;
  const std::int32_t slice = raster.slice;
  run_parts(parts, [&](std::size_t t) {
    const std::size_t begin = part_begin(raster.count, parts, t);
    const std::size_t end = part_begin(raster.count, parts, t + 1);
    std::size_t at = part_start[t];
    loop_poll poll(ctx, t == 0);
    for (std::size_t p = begin; p < end; ++p) {
      if (poll.due()) return;
      pairs.found_begin[p] = static_cast<std::uint32_t>(at);
      std::uint32_t* found = pairs.found + at;
      std::uint32_t n = 0;
      const leaf_box box = box_of<Code>(ctx, raster, p);
      const std::int32_t x = box.x;
      const std::int32_t y = box.y;
      const std::int32_t z = box.z;
      if (box.side == 1 && box.depth == 1) {
        // Most leaves are single pixels: one neighbour per lower face.
        if (x > 0) found[n++] = raster.position[box.at - 1];
        if (y > 0) found[n++] = raster.position[box.at - xy];
        if (z > 0) found[n++] = raster.position[box.at - slice];
      } else {
        // x: the face is `depth` slices of `side` rows; y: `depth` slices of
        // a line of `side` pixels; z: `side` rows of `side` pixels.
        if (x > 0)
          n += leaves_across(raster.position, box.at, 1, box.side, xy, box.depth, slice, found + n);
        if (y > 0)
          n += leaves_across(raster.position, box.at, xy, box.side, 1, box.depth, slice, found + n);
        if (z > 0)
          n += leaves_across(raster.position, box.at, slice, box.side, 1, box.side, xy, found + n);
      }
      for (std::uint32_t j = 0; j < n; ++j) found[j] = raster.ids[found[j]];
      pairs.found_count[p] = n;
      at += n;
    }
  });
}

// Lays out every list as one run of entries starting at `base`; false when
// interrupted (the lists are then unfinished).
bool place_lists(run_context& ctx, const leaf_raster& index, pair_table& pairs, entry_id base) {
  nb_node* entries = base == 0 ? nullptr : ctx.entry_at(base) - base;
  entry_id at = base;
  loop_poll poll(ctx);
  for (std::size_t p = 0; p < index.count; ++p) {
    if (poll.due()) return false;
    block* b = index.leaves[p];
    const std::uint32_t own = pairs.found_count[p];
    std::uint32_t& slot = pairs.slot[ctx.id(b)];
    const std::uint32_t length = own + slot;
    if (length == 0) {
      b->nb_pointers[0] = b->nb_pointers[1] = 0;
      continue;
    }
    b->nb_pointers[0] = at;
    b->nb_pointers[1] = at + length - 1;
    const block_id* found = pairs.found + pairs.found_begin[p];
    for (std::uint32_t j = 0; j < own; ++j) entries[at + own - 1 - j].region = found[j];
    for (std::uint32_t j = 0; j + 1 < length; ++j) entries[at + j].next = at + j + 1;
    entries[at + length - 1].next = 0;
    slot = at + own;  // where the next block that finds b goes
    at += length;
  }
  for (std::size_t p = 0; p < index.count; ++p) {
    if (poll.due()) return false;
    const block_id cur = ctx.id(index.leaves[p]);
    const block_id* found = pairs.found + pairs.found_begin[p];
    for (std::uint32_t j = 0; j < pairs.found_count[p]; ++j)
      entries[pairs.slot[found[j]]++].region = cur;
  }
  return true;
}

}  // namespace

template <class Code>
list_result<regionlist> group_init(run_context& ctx, blocklist list,
                                   std::int32_t* voxel_scratch) noexcept {
  block* first = list[0];
  auto table =
      create_array<block*>(ctx, static_cast<std::size_t>(ctx.max_level), alloc_site::level_table);
  const auto fail = [&](void* scratch) {
    ctx.allocator.release(scratch);
    free_initregion(ctx, list, table);
    ctx.phase_status = ctx.interrupted ? status_interrupted : status_no_memory;
    return list_result<regionlist>::failure(ctx.phase_status);
  };
  if (table == nullptr) return fail(nullptr);
  block* head = nullptr;
  if (!make_initial_regions<Code>(ctx, first, table, head)) return fail(nullptr);

  leaf_raster index;
  // The leaves are far apart in memory: even a walk along them polls.
  loop_poll poll(ctx);
  for (const block* b = first; b != nullptr; b = ctx.block_at(b->next_block)) {
    if (poll.due()) return fail(nullptr);
    ++index.count;
  }
  const std::size_t ids = ctx.blocks.end();
  auto* scratch = static_cast<std::uint32_t*>(ctx.allocator.allocate_uninitialised(
      index.count * (sizeof(block*) + 3 * sizeof(std::uint32_t) + 1) + ids * sizeof(std::uint32_t) +
          sizeof(block*),
      alloc_site::leaf_index));
  if (scratch == nullptr) return fail(nullptr);
  index.leaves = reinterpret_cast<block**>(scratch);
  index.ids = reinterpret_cast<block_id*>(index.leaves + index.count);
  pair_table pairs;
  pairs.found_begin = index.ids + index.count;
  pairs.found_count = pairs.found_begin + index.count;
  pairs.slot = pairs.found_count + index.count;
  index.levels = reinterpret_cast<std::uint8_t*>(pairs.slot + ids);
  std::fill(pairs.slot, pairs.slot + ids, 0u);
  {
    std::size_t i = 0;
    for (block* b = first; b != nullptr; b = ctx.block_at(b->next_block), ++i) {
      if (poll.due()) return fail(scratch);
      index.leaves[i] = b;
      index.ids[i] = ctx.id(b);
      index.levels[i] = static_cast<std::uint8_t>(level<Code>(ctx, ctx.code_of<Code>(b)));
    }
  }
  shape_cells(ctx, index);
  // The image of positions has at most a cell per voxel: it fits in the
  // caller's scratch, when given, and then takes no memory of its own.
  const auto release_position = [&] {
    if (voxel_scratch == nullptr) ctx.allocator.release(index.position);
  };
  index.position = voxel_scratch != nullptr
                       ? reinterpret_cast<std::uint32_t*>(voxel_scratch)
                       : static_cast<std::uint32_t*>(ctx.allocator.allocate_uninitialised(
                             index.cells * sizeof(std::uint32_t), alloc_site::leaf_index));
  if (index.position == nullptr) return fail(scratch);

  // A leaf finds at most one neighbour per cell of its lower faces; each
  // part writes its finds after the bounds of the leaves before it.
  std::size_t face_cells[run_context::offset_levels + 1] = {};
  for (std::int32_t l = 0; l <= ctx.max_level; ++l) {
    const std::size_t side = static_cast<std::size_t>((1 << l) >> index.shift_xy);
    const std::size_t depth = static_cast<std::size_t>(
        (l > ctx.lim_oct_level ? 1 << (l - ctx.lim_oct_level) : 1) >> index.shift_z);
    face_cells[l] = 2 * side * depth + (ctx.im_format_z > 1 ? side * side : 0);
  }
  const std::size_t parts = parts_for(index.count, thread_count(ctx.threads), ctx.thread_grain);
  std::size_t part_start[max_parts + 1] = {};
  std::size_t bound = 0;
  for (std::size_t p = 0, t = 1; p < index.count; ++p) {
    if (t < parts && p == part_begin(index.count, parts, t)) part_start[t++] = bound;
    bound += face_cells[index.levels[p]];
  }
  pairs.found = static_cast<block_id*>(ctx.allocator.allocate_uninitialised(
      std::max<std::size_t>(bound, 1) * sizeof(block_id), alloc_site::leaf_index));
  if (pairs.found == nullptr) {
    release_position();
    return fail(scratch);
  }
  paint_positions<Code>(ctx, index, parts);
  if (!ctx.interrupted) find_pairs<Code>(ctx, index, part_start, parts, pairs);
  release_position();
  if (ctx.interrupted) {
    ctx.allocator.release(pairs.found);
    return fail(scratch);
  }

  std::size_t total = 0;
  for (std::size_t p = 0; p < index.count; ++p) {
    total += 2 * std::size_t{pairs.found_count[p]};
    for (std::uint32_t j = 0; j < pairs.found_count[p]; ++j)
      ++pairs.slot[pairs.found[pairs.found_begin[p] + j]];
  }
  // Beyond 32-bit entry indices the run fails as out of memory.
  const entry_id base = total == 0 || total > 0xFFFFFFFEu
                            ? 0
                            : ctx.entries.obtain_range(static_cast<std::uint32_t>(total));
  if (total != 0 && base == 0) {
    ctx.allocator.release(pairs.found);
    return fail(scratch);
  }
  if (!place_lists(ctx, index, pairs, base)) {
    ctx.allocator.release(pairs.found);
    return fail(scratch);  // the unfinished lists go with every record (see free_initregion)
  }

  // Every block is now a head of its own; chain order is memory order.
  for (std::size_t i = 0; i < index.count; ++i) index.leaves[i]->next_block = 0;
  ctx.allocator.release(pairs.found);
  ctx.allocator.release(scratch);
  ctx.allocator.release(list);
  ctx.allocator.release(table);
  ctx.phase_status = 0;
  return list_result<regionlist>{head, 0};
}

template list_result<regionlist> group_init<std::uint32_t>(run_context&, blocklist,
                                                           std::int32_t*) noexcept;
template list_result<regionlist> group_init<std::uint64_t>(run_context&, blocklist,
                                                           std::int32_t*) noexcept;

}  // namespace splitmerge
