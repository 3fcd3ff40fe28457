#include <algorithm>
#include <bit>
#include <cstdio>
#include <string>

#include "display/display.hpp"
#include "driver/driver.hpp"
#include "driver/memory_estimate.hpp"
#include "geometry/geometry.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge {

run_arguments arguments_of(const image_view& image, const parameters& p) {
  return run_arguments{image.data,      image.size_x,    image.size_y,       image.size_z,
                       p.max_level,     p.lim_oct_level, p.init_level,       p.group_mode,
                       p.max_seed,      p.use_all_seeds, p.pred_choice,      p.interval_length,
                       p.threshold_row, p.small_size,    p.statistic_update, p.rejection,
                       p.sigma,         p.pseudo_factor, image.data8};
}

namespace {

std::int32_t log2_exact(std::int32_t v) {
  if (v < 1 || !std::has_single_bit(static_cast<std::uint32_t>(v))) return -1;
  return std::countr_zero(static_cast<std::uint32_t>(v));
}

std::vector<region_record> collect(run_context& ctx, regionlist head) {
  std::vector<region_record> out;
  std::vector<std::int64_t> kept;
  loop_poll poll(ctx);  // nothing is collected when the run is interrupted
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) {
    region_record r;
    r.statistics[0] = h->variables[0];
    r.statistics[1] = h->variables[1];
    for (const block* b = h; b != nullptr; b = ctx.block_at(b->next_block)) {
      if (poll.due()) return {};
      r.codes.push_back(ctx.full_code(b));
    }
    out.push_back(std::move(r));
    kept.push_back(h->variables[0]);
  }
  // Number the heads in their first statistic, as the region list file does.
  std::int64_t i = 0;
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) h->variables[0] = i++;
  std::size_t k = 0;
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region), ++k)
    for (const nb_node* e = ctx.entry_at(h->nb_pointers[0]); e != nullptr;
         e = ctx.entry_at(e->next)) {
      if (poll.due()) return {};
      out[k].neighbours.push_back(static_cast<std::int32_t>(ctx.block_at(e->region)->variables[0]));
    }
  k = 0;
  for (block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) h->variables[0] = kept[k++];
  return out;
}

run_shape shape_of(const image_view& image, const parameters& p, const options& opts) {
  run_shape s;
  s.voxels = static_cast<std::uint64_t>(image.size_x) * static_cast<std::uint64_t>(image.size_y) *
             static_cast<std::uint64_t>(image.size_z);
  s.volume = image.size_z > 1;
  s.max_level = p.max_level;
  s.display = opts.display;
  s.frames_to_sink = static_cast<bool>(opts.frame_sink);
  s.frame_budget = opts.frame_budget;
  s.collect_regions = opts.collect_regions;
  return s;
}

std::string budget_text(std::uint64_t budget, bool machine) {
  return "the memory budget of " + format_bytes(budget) +
         (machine ? " (the memory available, less a margin)" : "");
}

void report(const options& opts, const std::string& problem) {
  const std::string line = "splitmerge: " + problem + "\n";
  if (opts.error_sink) {
    opts.error_sink(line);
  } else {
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
}

}  // namespace

std::uint64_t worst_case_memory(const image_view& image, parameters p, const options& opts) {
  if (!resolve_parameters(image, p).empty() || !check_parameters(image, p).empty()) return 0;
  return worst_case_bytes(shape_of(image, p, opts));
}

std::string resolve_parameters(const image_view& image, parameters& p) {
  if (p.max_level == -1) {
    p.max_level = log2_exact(image.size_x);
    if (p.max_level < 0)
      return "the image width " + std::to_string(image.size_x) +
             " is not a power of two (allowed: 2, 4, ..., " +
             std::to_string(std::int32_t{1} << max_levels_2d) + ")";
  }
  if (p.lim_oct_level == -1) {
    const std::int32_t z = log2_exact(image.size_z);
    if (z < 0)
      return "the slice count " + std::to_string(image.size_z) +
             " is not a power of two (allowed: 1, 2, 4, ..., 2^max_level)";
    p.lim_oct_level = p.max_level - z;
  }
  if (p.init_level == -1) p.init_level = std::clamp(p.max_level - 1, 0, 3);
  return {};
}

std::string check_parameters(const image_view& image, const parameters& p) {
  return validate_parameters(arguments_of(image, p));
}

segmentation segment(const image_view& image, parameters p, const options& opts) {
  return segment_run(image, p, opts, false);
}

segmentation segment_run(const image_view& image, parameters p, const options& opts,
                         bool pixels_checked) {
  segmentation result;
  std::string problem = resolve_parameters(image, p);
  if (problem.empty()) {
    const run_arguments args = arguments_of(image, p);
    problem =
        pixels_checked ? find_parameter_problem(args).library_text() : validate_parameters(args);
  }
  const auto pixels = static_cast<std::size_t>(image.size_x) *
                      static_cast<std::size_t>(image.size_y) *
                      static_cast<std::size_t>(image.size_z);
  // Only what is certain is refused up front: the labels and the smallest
  // run. The rest of the budget is enforced by the run's allocator as the
  // run grows, so smooth images take what they need, not the worst case.
  const std::uint64_t labels_bytes = pixels * sizeof(std::int32_t);
  constexpr std::uint64_t smallest_run_bytes = std::uint64_t{64} << 10;
  std::uint64_t budget = 0;
  if (problem.empty()) {
    budget = memory_budget(opts.memory_limit, worst_case_bytes(shape_of(image, p, opts)));
    if (budget != 0 && labels_bytes + smallest_run_bytes > budget) {
      problem = "the run needs at least " + format_bytes(labels_bytes + smallest_run_bytes) +
                " of memory (the labels alone take " + format_bytes(labels_bytes) + "), above " +
                budget_text(budget, opts.memory_limit == 0);
      result.memory_needed = labels_bytes + smallest_run_bytes;
      result.memory_limit = budget;
    }
  }
  if (!problem.empty()) {
    // Rejected before anything is built, with the one message the entry gives.
    result.status = status_failed;
    result.error = std::move(problem);
    report(opts, result.error);
    return result;
  }

  run_context ctx;
  ctx.pixels_checked = true;  // checked above, or by the caller
  ctx.my_image8 = image.data8;
  ctx.frame_budget = opts.frame_budget;
  ctx.threads = opts.threads;
  ctx.err = opts.error_sink;
  std::string pending;
  ctx.out = [&](std::string_view text) {
    if (opts.echo_lines) std::fwrite(text.data(), 1, text.size(), stdout);
    if (opts.line_sink) opts.line_sink(text);
    if (!opts.capture_lines) return;
    pending.append(text);
    for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
      result.lines.push_back(pending.substr(0, nl));
      pending.erase(0, nl + 1);
    }
  };
  if (opts.frame_sink) {
    ctx.frame_sink = [&](const std::int32_t* frame, std::int32_t index) {
      ++result.frame_count;
      opts.frame_sink(frame, index);
    };
  }
  ctx.interrupt = opts.interrupt;
  if (budget != 0) ctx.allocator.set_budget(budget - labels_bytes);
  if (opts.collect_regions)
    ctx.inspect_regions = [&](regionlist head) { result.regions = collect(ctx, head); };

  result.labels.assign(pixels, 0);
  const std::string path = opts.region_file.value_or(std::string{});
  result.status = split_merge_group(
      ctx, image.data, image.size_x, image.size_y, image.size_z, p.max_level, p.lim_oct_level,
      result.labels.data(), p.init_level, p.group_mode, p.max_seed, p.use_all_seeds, p.pred_choice,
      p.interval_length, p.threshold_row, p.small_size, p.statistic_update,
      opts.region_file.has_value() ? 1 : 0, opts.display ? 1 : 0, path.c_str(), p.rejection,
      p.sigma, p.pseudo_factor);

  if (result.status == status_interrupted) result.error = "interrupted";
  if (result.status == status_failed && ctx.allocator.over_budget()) {
    // Everything the run built is released by now.
    const std::uint64_t held = labels_bytes + ctx.allocator.held_at_refusal();
    result.memory_needed = held + ctx.allocator.refused_bytes();
    result.memory_limit = budget;
    result.error = "the run stopped at " + budget_text(budget, opts.memory_limit == 0) + ": " +
                   format_bytes(held) + " were in use when it asked for " +
                   format_bytes(ctx.allocator.refused_bytes()) + " more";
    report(opts, result.error);
  }
  // A run stopped while it painted leaves part of an image: none is given.
  if (result.status != status_ok) std::fill(result.labels.begin(), result.labels.end(), 0);
  if (ctx.frame_sink) {
    hand_over_last_frame(ctx);
    ctx.release_frames();
    return result;
  }
  if (!opts.display) {
    // The run's first frame stays blank without the display: not worth a
    // copy of the image's size.
    ctx.release_frames();
    return result;
  }
  for (const disp_frame* f = ctx.smg_disp; f != nullptr; f = f->next) ++result.frame_count;
  result.frames.reserve(static_cast<std::size_t>(result.frame_count) * pixels);
  // Release each frame as soon as it is copied, so that the peak stays near
  // one copy of the frames.
  for (disp_frame* f = ctx.smg_disp; f != nullptr;) {
    result.frames.insert(result.frames.end(), f->pixels, f->pixels + pixels);
    disp_frame* next = f->next;
    ctx.allocator.release(f->pixels);
    ctx.allocator.release(f);
    f = next;
  }
  ctx.smg_disp = ctx.smg_disp_cur = nullptr;
  return result;
}

}  // namespace splitmerge
