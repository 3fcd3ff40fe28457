#include "driver/driver.hpp"

#include <algorithm>
#include <string>

#include "display/display.hpp"
#include "evaluation/evaluation.hpp"
#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "output/output.hpp"
#include "regions/regions.hpp"
#include "splitmerge/splitmerge.hpp"
#include "tree/tree.hpp"

namespace splitmerge {

void free_variables(run_context& ctx) noexcept {
  ctx.allocator.release(ctx.blocks_perlevel);
  ctx.blocks_perlevel = nullptr;
  ctx.allocator.release(ctx.pixels_perblock);
  ctx.pixels_perblock = nullptr;
  ctx.allocator.release(ctx.var_thresh);
  ctx.var_thresh = nullptr;
  ctx.allocator.release(ctx.hulp_array);
  ctx.hulp_array = nullptr;
  ctx.allocator.release(ctx.code_high);
  ctx.code_high = nullptr;
}

namespace {

template <class Code>
list_result<regionlist> split_merge_at(run_context& ctx, std::int32_t display,
                                       std::int32_t* voxel_scratch) {
  using result = list_result<regionlist>;
  const auto built = init_blocklist<Code>(ctx);
  if (display != 0) init_smg_display(ctx);
  ctx.phase_status = built.status;
  if (ctx.phase_status != 0) return result::failure(ctx.phase_status);
  blocklist list = built.value;
  ctx.print("finished initialisation\n");

  if (display != 0) {
    smg_merge_disp<Code>(ctx, list);
  } else {
    smg_merge<Code>(ctx, list);
  }
  ctx.print("finished merging\n");
  if (ctx.interrupt_requested()) {
    free_blocklist(ctx, list);
    return result::failure(status_interrupted);
  }

  block* first = list[0];
  if (first->next_block == 0) {
    // The whole image is one homogeneous block.
    make_one_region<Code>(ctx, first);
    ctx.allocator.release(list);
    ctx.print("finished calculating region\n");
    return result{first, 0};
  }

  ctx.phase_status = display != 0 ? smg_split_disp<Code>(ctx, list) : smg_split<Code>(ctx, list);
  if (ctx.phase_status != 0) return result::failure(ctx.phase_status);
  ctx.print("finished splitting\n");
  if (ctx.interrupt_requested()) {
    free_blocklist(ctx, list);
    return result::failure(status_interrupted);
  }

  const auto regions = group_init<Code>(ctx, list, voxel_scratch);
  ctx.phase_status = regions.status;
  if (ctx.phase_status != 0) return result::failure(ctx.phase_status);
  regionlist head = regions.value;
  ctx.print("finished ordering regionlist\n");
  const auto stop = [&ctx](regionlist built) {
    if (!ctx.interrupt_requested()) return false;
    free_regionlist(ctx, built);
    return true;
  };
  if (stop(head)) return result::failure(status_interrupted);

  {
    list_result<regionlist> grouped;
    if (ctx.group_mode != 0) {
      grouped = display != 0 ? parallel_grouping_disp(ctx, head) : parallel_grouping(ctx, head);
    } else {
      grouped = display != 0 ? sequential_grouping_disp(ctx, head) : sequential_grouping(ctx, head);
    }
    if (grouped.status != 0) {
      free_regionlist(ctx, head);
      return result::failure(grouped.status);
    }
    head = grouped.value;
  }
  ctx.print("finished grouping\n");
  if (stop(head)) return result::failure(status_interrupted);

  if (head->nb_pointers[0] == 0) return result{head, 0};

  if (ctx.small_size != 0) {
    const std::int32_t eliminated =
        display != 0 ? region_elimination_disp(ctx, head) : region_elimination(ctx, head);
    if (eliminated != 0) {
      free_regionlist(ctx, head);
      return result::failure(eliminated);
    }
    ctx.print("finished small region elimination\n");
    if (stop(head)) return result::failure(status_interrupted);
  }
  head = clean_regionlist(ctx, head);
  ctx.print("finished cleaning of regionlist\n");
  if (stop(head)) return result::failure(status_interrupted);
  const auto sorted = sort_regionlist(ctx, head);
  if (check_pointer(sorted) != 0) {
    free_regionlist(ctx, head);
    return sorted;
  }
  ctx.print("finished sorting of regionlist\n");
  if (stop(sorted.value)) return result::failure(status_interrupted);
  return sorted;
}

}  // namespace

list_result<regionlist> split_merge(run_context& ctx, std::int32_t display,
                                    std::int32_t* voxel_scratch) {
  return with_code_width(
      ctx, [&]<class Code>(Code) { return split_merge_at<Code>(ctx, display, voxel_scratch); });
}

std::int32_t prepare_run(run_context& ctx, const run_arguments& a) {
  ctx.my_image = a.image;
  ctx.smg_img_size = a.size_y * a.size_x * a.size_z;
  if (create_first_frame(ctx) != 0) return status_no_memory;
  ctx.max_level = a.max_level;
  ctx.lim_oct_level = a.lim_oct_level;
  ctx.group_mode = a.group_mode;
  ctx.max_seed = a.max_seed;
  ctx.use_all_seeds = a.use_all_seeds;
  ctx.small_size = a.small_size;
  ctx.statistic_update = a.statistic_update;
  ctx.rejection_ratio = static_cast<std::int32_t>(a.rejection * 100.0);
  ctx.im_format_xy = a.size_x;
  ctx.im_format_z = a.size_z;
  ctx.voxels_slice = a.size_x * a.size_x;
  ctx.voxels_image = ctx.voxels_slice * a.size_z;
  ctx.smg_disp_cur = ctx.smg_disp;
  ctx.init_level = a.init_level;
  ctx.pred_choice = a.pred_choice;
  ctx.interval_length = a.interval_length;
  ctx.smg_dsp_count = 1;
  ctx.smg_dsp_count_l = frame_interval;
  // The blocks always tile the image, so there are never more blocks than
  // voxels (a split in progress holds one more per level). Every adjacent
  // pair shares a voxel face, so a list entry per face and side, plus the
  // one open entry of the block being paired, bound the entries.
  const auto voxels = static_cast<std::size_t>(ctx.voxels_image);
  const std::size_t block_capacity = voxels + 64;
  ctx.blocks.set_capacity(block_capacity);
  fill_digit_offsets(ctx);
  // Entries are named by 32-bit indices: beyond that a run fails as out of
  // memory (no machine of today holds that many at 16 bytes each anyway).
  ctx.entries.set_capacity(std::min<std::size_t>(7 * voxels + 64, 0xFFFFFFFEu));

  if (fill_blocks_per_level(ctx) != 0) return status_no_memory;
  if (ctx.max_level > narrow_code_levels || ctx.force_wide_codes) {
    // The high digits of every block index the arena can hand out (its
    // reserved range); pages become memory only as blocks are made.
    const std::size_t indices = std::max(block_capacity, arena_minimum_capacity) + 1;
    ctx.code_high = static_cast<std::uint32_t*>(ctx.allocator.allocate_uninitialised(
        indices * sizeof(std::uint32_t), alloc_site::code_table));
    if (ctx.code_high == nullptr) {
      free_variables(ctx);
      return status_no_memory;
    }
  }
  if (fill_pixels_per_block(ctx) != 0) {
    free_variables(ctx);
    return status_no_memory;
  }
  std::int32_t table_status = 0;
  if (a.pred_choice == 5) {
    table_status = fill_pseudo_variance(ctx, a.sigma * a.sigma, a.pseudo_factor);
  } else if (a.pred_choice == 4) {
    table_status = fill_chi_variance(ctx, a.threshold_row, a.sigma * a.sigma);
  } else if (a.pred_choice == 3) {
    ctx.half_length = a.interval_length >> 1;
    ctx.hulp_array = create_array<std::int32_t>(
        ctx, static_cast<std::size_t>(ctx.pixels_perblock[a.init_level]) + 1,
        alloc_site::median_scratch);
    if (ctx.hulp_array == nullptr) table_status = -1;
  }
  if (table_status != 0) {
    free_variables(ctx);
    return status_no_memory;
  }
  return 0;
}

std::int32_t split_merge_group(run_context& ctx, const std::int32_t* image, std::int32_t size_x,
                               std::int32_t size_y, std::int32_t size_z, std::int32_t max_level,
                               std::int32_t lim_oct_level, std::int32_t* output,
                               std::int32_t init_level, std::int32_t group_mode,
                               std::int32_t max_seed, std::int32_t use_all_seeds,
                               std::int32_t pred_choice, std::int32_t interval_length,
                               std::int32_t threshold_row, std::int32_t small_size,
                               std::int32_t statistic_update, std::int32_t save_flag,
                               std::int32_t display, const char* filename, double rejection,
                               double sigma, double pseudo_factor) {
  const run_arguments args{
      image,         size_x,          size_y,        size_z,       max_level,
      lim_oct_level, init_level,      group_mode,    max_seed,     use_all_seeds,
      pred_choice,   interval_length, threshold_row, small_size,   statistic_update,
      rejection,     sigma,           pseudo_factor, ctx.my_image8};  // 8-bit pixels are set on the
                                                                      // context by segment()
  const std::string problem =
      ctx.pixels_checked ? find_parameter_problem(args).library_text() : validate_parameters(args);
  if (!problem.empty()) {
    ctx.warn("splitmerge: " + problem + "\n");
    return status_no_memory;
  }
  if (save_flag != 0 && filename == nullptr) {
    ctx.warn("splitmerge: invalid parameter filename: a region list file needs a path\n");
    return status_no_memory;
  }

  if (prepare_run(ctx, args) != 0) return status_no_memory;
  if (ctx.interrupt_requested()) {
    free_variables(ctx);
    return status_interrupted;
  }

  // The label image is written last: until then the phases may use it.
  const auto regions = split_merge(ctx, display, output);
  ctx.print("finished the split_merge routine\n");
  if (regions.status != 0) {
    free_variables(ctx);
    return static_cast<std::int32_t>(regions.status);
  }
  regionlist head = regions.value;

  if (const std::int32_t painted = make_output(ctx, head, output); painted != 0) {
    free_variables(ctx);
    free_regionlist(ctx, head);
    return painted;
  }
  ctx.print("finished make_output \n");
  if (ctx.inspect_regions) ctx.inspect_regions(head);
  if (ctx.interrupted) {  // while the regions were inspected
    free_variables(ctx);
    free_regionlist(ctx, head);
    return status_interrupted;
  }

  if (save_flag != 0) {
    ctx.print("file = " + std::string(filename) + " \n");
    const std::int32_t saved = save_regionlist(ctx, head, filename);
    if (saved != 0) {
      free_variables(ctx);
      free_regionlist(ctx, head);
      return saved;
    }
    ctx.print("finished save_regionlist \n");
  } else {
    ctx.print("No save_regionlist specified\n");
  }
  free_variables(ctx);
  ctx.release_records();  // every block and entry in one step
  return 0;
}

}  // namespace splitmerge
