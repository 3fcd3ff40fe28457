#include "size_limits.hpp"

#include <algorithm>
#include <limits>

#include "npy.hpp"

namespace splitmerge::io {

std::int64_t largest_pixel_count() {
  const std::int64_t edge_2d = frontend::largest_edge(false),
                     edge_3d = frontend::largest_edge(true);
  const std::int64_t segmentable = std::max(edge_2d * edge_2d, edge_3d * edge_3d * edge_3d);
  return std::min<std::int64_t>(2 * segmentable, std::numeric_limits<std::int32_t>::max() - 1);
}

void check_declared_image(const std::string& path, std::int64_t size_x, std::int64_t size_y,
                          std::int64_t size_z, pixel_type type, const read_options& options) {
  const std::int64_t most = largest_pixel_count();
  const bool too_many = size_x > most || size_y > most || size_z > most || size_x * size_y > most ||
                        size_x * size_y * size_z > most;
  if (too_many)
    throw io_error(path + ": the header declares " + std::to_string(size_x) + " x " +
                   std::to_string(size_y) + " x " + std::to_string(size_z) +
                   " pixels, more than the " + std::to_string(most) + " this program reads");
  // The least the run is sure to hold: the pixels, and a label per pixel
  // segmented (one slice after --slice; an X of 3 or 4 may be colour channels).
  const auto pixels = static_cast<std::uint64_t>(size_x * size_y * size_z);
  std::uint64_t labelled = options.one_slice ? static_cast<std::uint64_t>(size_x * size_y) : pixels;
  if (size_x == 3 || size_x == 4) labelled = std::min(labelled, pixels / size_x);
  const std::uint64_t needed = pixels * frontend::pixel_size(type) + 4 * labelled;
  const std::uint64_t budget = memory_budget(options.memory_limit, needed);
  if (budget == 0 || needed <= budget) return;
  const std::string what = path + ": the image needs at least " + format_bytes(needed) +
                           " of memory (its pixels and their labels), but ";
  if (options.memory_limit != 0)
    throw memory_error(what + "--memory-limit allows " + format_bytes(budget));
  throw memory_error(what + format_bytes(budget) +
                     " is available: allow more with --memory-limit SIZE");
}

void check_declared_size(const std::string& path, std::uint64_t declared_bytes,
                         std::uint64_t file_bytes) {
  constexpr std::uint64_t largest_ratio = 1100;  // deflate's bound, rounded up
  if (declared_bytes > file_bytes * largest_ratio + 4096)
    throw io_error(path + ": truncated or damaged: the header declares " +
                   std::to_string(declared_bytes) + " bytes of pixels, more than a " +
                   std::to_string(file_bytes) + "-byte file can hold");
}

}  // namespace splitmerge::io
