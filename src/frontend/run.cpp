// Running a prepared input and mapping its labels back onto the input.
#include <algorithm>

#include "driver/memory_estimate.hpp"
#include "driver/driver.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::frontend {

namespace {

problem failure_of(const segmentation& run) {
  switch (run.status) {
    case status_ok:
      return {};
    case status_interrupted:
      return {problem_kind::interrupted, "", "the segmentation was interrupted"};
    case status_file_failed:
      return {problem_kind::input_output, "region_file", "cannot write the region list file"};
    default:
      break;
  }
  if (run.memory_needed != 0)
    return {problem_kind::resource_exhausted, "memory_limit",
            run.error + ": allow more with {memory_limit=SIZE}"};
  if (run.error.empty())
    return {problem_kind::resource_exhausted, "", "the segmentation ran out of memory"};
  return {problem_kind::invalid_argument, "", run.error};
}

template <class Pixel>
void map_to_input(const prepared& input, const Pixel* segmented, std::int32_t* out,
                  std::int32_t offset, std::int32_t outside) {
  const placement& box = input.segmented;
  const std::int64_t nz = input.shape[0], ny = input.shape[1], nx = input.shape[2];
  const std::int64_t ex = box.size_x, ey = box.size_y;
  // The input's part that was segmented, and where it lies in the segmented image.
  const std::int64_t x0 = std::max<std::int64_t>(box.x0, 0), y0 = std::max<std::int64_t>(box.y0, 0),
                     z0 = std::max<std::int64_t>(box.z0, 0);
  const std::int64_t kx = std::min<std::int64_t>(nx - x0,
                                                 box.size_x + std::min<std::int64_t>(box.x0, 0)),
                     ky = std::min<std::int64_t>(ny - y0,
                                                 box.size_y + std::min<std::int64_t>(box.y0, 0)),
                     kz = std::min<std::int64_t>(nz - z0,
                                                 box.size_z + std::min<std::int64_t>(box.z0, 0));
  const bool whole = x0 == 0 && y0 == 0 && z0 == 0 && kx == nx && ky == ny && kz == nz;
  if (!whole) std::fill(out, out + nx * ny * nz, outside);
  for (std::int64_t z = 0; z < kz; ++z)
    for (std::int64_t y = 0; y < ky; ++y) {
      const Pixel* from =
          segmented + ((z + z0 - box.z0) * ey + (y + y0 - box.y0)) * ex + (x0 - box.x0);
      std::int32_t* to = out + ((z + z0) * ny + y + y0) * nx + x0;
      if (offset == 0) {
        std::copy(from, from + kx, to);
      } else {
        std::transform(from, from + kx, to, [offset](Pixel v) { return v + offset; });
      }
    }
}

}  // namespace

void to_input(const prepared& input, const std::int32_t* segmented, std::int32_t* out,
              std::int32_t offset, std::int32_t outside) {
  map_to_input(input, segmented, out, offset, outside);
}

void to_input(const prepared& input, const std::uint8_t* segmented, std::int32_t* out,
              std::int32_t offset, std::int32_t outside) {
  map_to_input(input, segmented, out, offset, outside);
}

std::vector<std::int32_t> segmented_on_input(const prepared& input) {
  std::vector<std::int32_t> out(static_cast<std::size_t>(input.input_pixels()));
  const image_view view = input.image();
  if (view.data8 != nullptr) {
    to_input(input, view.data8, out.data(), 0, 0);
  } else {
    to_input(input, view.data, out.data(), 0, 0);
  }
  return out;
}

std::int64_t most_frames(const prepared& input) {
  return static_cast<std::int64_t>(splitmerge::most_frames(
      static_cast<std::uint64_t>(input.segmented.size_x) *
      static_cast<std::uint64_t>(input.segmented.size_y) *
      static_cast<std::uint64_t>(input.segmented.size_z)));
}

result run(const prepared& input, const options& opts) {
  result out;
  if (input.failure.kind != problem_kind::none) {
    out.failure = input.failure;
    return out;
  }
  const placement& box = input.segmented;
  const bool same_shape = box.x0 == 0 && box.y0 == 0 && box.z0 == 0 &&
                          box.size_x == input.shape[2] && box.size_y == input.shape[1] &&
                          box.size_z == input.shape[0];
  options run_opts = opts;
  if (opts.memory_limit != 0) {
    // A limit given covers what this layer holds beside the run: its copy
    // of the pixels, and labels of the input's shape when they differ.
    const std::uint64_t held =
        input.pixels.size() +
        (same_shape ? 0 : static_cast<std::uint64_t>(input.input_pixels()) * sizeof(std::int32_t));
    if (held >= opts.memory_limit) {
      out.failure = {problem_kind::resource_exhausted, "memory_limit",
                     "the input's copy and labels take " + format_bytes(held) +
                         ", above the memory limit of " + format_bytes(opts.memory_limit) +
                         ": allow more with {memory_limit=SIZE}"};
      return out;
    }
    run_opts.memory_limit = opts.memory_limit - held;
  }
  out.run = segment_run(input.image(), input.resolved, run_opts, true);
  out.failure = failure_of(out.run);
  if (out.failure.kind != problem_kind::none) return out;
  const auto largest = std::max_element(out.run.labels.begin(), out.run.labels.end());
  out.region_count = largest == out.run.labels.end() ? 0 : *largest + 1;
  if (same_shape) {
    // Numbered in place: no second copy of the labels.
    if (const std::int32_t offset = input.asked.start_label; offset != 0)
      for (std::int32_t& v : out.run.labels) v += offset;
    out.labels = std::move(out.run.labels);
    return out;
  }
  out.labels.resize(static_cast<std::size_t>(input.input_pixels()));
  to_input(input, out.run.labels.data(), out.labels.data(), input.asked.start_label,
           input.asked.start_label - 1);
  return out;
}

}  // namespace splitmerge::frontend
