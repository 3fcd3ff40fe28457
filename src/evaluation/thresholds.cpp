#include <bit>
#include <cmath>

#include "context/run_context.hpp"
#include "evaluation/evaluation.hpp"

namespace splitmerge {

// Row r, column e: the p-quantile (p = 0.50, 0.75, 0.90) of chi-square with
// 2^e - 1 degrees of freedom, divided by 2^e - 1. Columns 2 to 18 are the
// established four-digit values; columns 19 on, for the largest blocks, are the
// single-precision numbers nearest to the ratio (tests/data/chi_square_thresholds.py
// computes it).
const float s_th[3][s_th_columns] = {
    {0.0f,       0.0f,       0.788657f,   0.906544f,  0.955927f, 0.978577f,   0.989438f,
     0.994748f,  0.997384f,  0.998694f,   0.999348f,  0.999674f, 0.999837f,   0.999919f,
     0.999959f,  0.99998f,   0.99999f,    0.999995f,  0.999997f, 0.99999875f, 0.99999934f,
     0.9999997f, 0.9999998f, 0.99999994f, 0.99999994f, 1.0f,
     1.0f,       1.0f},
    {0.0f,       0.0f,       1.36945f,   1.29102f,  1.21634f, 1.15746f,   1.11365f,
     1.08154f,   1.05822f,   1.04146f,   1.02946f,  1.0209f,  1.01482f,   1.01049f,
     1.00743f,   1.00526f,   1.00372f,   1.00263f,  1.00186f, 1.0013167f, 1.0009311f,
     1.0006585f, 1.0004656f, 1.0003293f, 1.0002328f, 1.0001646f,
     1.0001165f, 1.0000824f},
    {0.0f,       0.0f,      2.0838f,    1.71671f,  1.48715f, 1.33584f,   1.2339f,
     1.16382f,   1.11505f,  1.08097f,   1.05707f,  1.04026f, 1.02843f,   1.02008f,
     1.01419f,   1.01003f,  1.00709f,   1.00501f,  1.00354f, 1.0025039f, 1.0017704f,
     1.0012517f, 1.000885f, 1.0006258f, 1.0004425f, 1.0003129f,
     1.0002213f, 1.0001564f},
};

namespace {

float* new_threshold_table(run_context& ctx) noexcept {
  ctx.var_thresh = create_array<float>(ctx, static_cast<std::size_t>(ctx.max_level) + 1,
                                       alloc_site::var_thresh_table);
  return ctx.var_thresh;
}

}  // namespace

std::int32_t fill_chi_variance(run_context& ctx, std::int32_t threshold_row,
                               double variance) noexcept {
  if (new_threshold_table(ctx) == nullptr) return -1;
  if (ctx.max_level < 2) return 0;
  const auto v = static_cast<float>(variance);
  for (std::int32_t l = 1; l < ctx.max_level; ++l) {
    const int e = std::countr_zero(static_cast<std::uint32_t>(ctx.pixels_perblock[l]));
    ctx.var_thresh[l] = s_th[threshold_row - 1][e] * v;
  }
  return 0;
}

std::int32_t fill_pseudo_variance(run_context& ctx, double variance,
                                  double pseudo_factor) noexcept {
  if (new_threshold_table(ctx) == nullptr) return -1;
  if (ctx.max_level < 1) return 0;
  const auto v = static_cast<double>(static_cast<float>(variance));
  const auto f = static_cast<float>(pseudo_factor);
  for (std::int32_t l = 0; l < ctx.max_level; ++l) {
    // Single precision throughout, the square root included.
    const float t = f / std::sqrt(static_cast<float>(ctx.pixels_perblock[l]));
    ctx.var_thresh[l] = static_cast<float>((static_cast<double>(t) + 1.0) * v);
  }
  return 0;
}

}  // namespace splitmerge
