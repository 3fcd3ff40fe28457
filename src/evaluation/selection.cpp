#include <utility>

#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"

namespace splitmerge {

std::int32_t find_pivot(std::int32_t i, std::int32_t j, const std::int32_t* a) noexcept {
  const std::int32_t first = a[i];
  for (std::int32_t t = i + 1; t <= j; ++t) {
    if (a[t] > first) return t;
    if (a[t] < first) return i;
  }
  return -1;
}

std::int32_t partition(std::int32_t i, std::int32_t j, std::int32_t pivot,
                       std::int32_t* a) noexcept {
  std::int32_t l = i;
  std::int32_t r = j;
  do {
    std::swap(a[l], a[r]);
    while (a[l] < pivot) ++l;
    while (a[r] >= pivot) --r;
  } while (l < r);
  return l;
}

std::int32_t select_interval(std::int32_t i, std::int32_t j, std::int32_t k,
                             std::int32_t* a) noexcept {
  for (;;) {
    const std::int32_t p = find_pivot(i, j, a);
    if (p == -1) return a[i];
    const std::int32_t m = partition(i, j, a[p], a);
    if (k <= m - i) {
      j = m - 1;
    } else {
      k -= m - i;
      i = m;
    }
  }
}

std::int32_t find_median(run_context& ctx, std::int32_t column_start, std::int32_t row_start,
                         std::int32_t slice_start, std::int32_t column_end, std::int32_t row_end,
                         std::int32_t slice_end, std::int32_t lvl) noexcept {
  std::int32_t* scratch = ctx.hulp_array;
  std::int32_t count = 0;
  const auto gather = [&](const auto* image) {
    for (std::int32_t s = slice_start; s < slice_end; s += ctx.voxels_slice)
      for (std::int32_t r = row_start; r < row_end; r += ctx.im_format_xy)
        for (std::int32_t c = column_start; c < column_end; ++c)
          scratch[count++] = image[s + r + c];
  };
  if (ctx.my_image8 != nullptr) {
    gather(ctx.my_image8);
  } else {
    gather(ctx.my_image);
  }
  scratch[count] = scratch[count - 1];
  const std::int32_t n = ctx.pixels_perblock[lvl];
  return select_interval(0, n, n >> 1, scratch);
}

}  // namespace splitmerge
