#include "phase_run.hpp"

#include <memory>
#include <stdexcept>
#include <string_view>

#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "measure.hpp"
#include "output/output.hpp"
#include "regions/regions.hpp"
#include "tree/tree.hpp"

namespace splitmerge::bench {

namespace {

void count_leaves(const run_context& ctx, blocklist list, phase_result& r) {
  for (const block* b = list[0]; b != nullptr; b = ctx.block_at(b->next_block)) {
    ++r.leaves;
    if (level(ctx, b->code) == 0) ++r.single_voxels;
  }
}

std::int64_t count_entries(const run_context& ctx, regionlist head) {
  std::int64_t n = 0;
  for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region))
    for (const nb_node* e = ctx.entry_at(h->nb_pointers[0]); e != nullptr;
         e = ctx.entry_at(e->next))
      ++n;
  return n;
}

// Times the phases in order: each lap closes the phase it names.
class lap_timer {
 public:
  explicit lap_timer(phase_result& r) : result_(r), last_(bench_clock::now()) {}
  void lap(phase p) {
    const auto now = bench_clock::now();
    result_.seconds[static_cast<std::size_t>(p)] += seconds_between(last_, now);
    last_ = now;
  }
  // Restarts after untimed work.
  void resume() { last_ = bench_clock::now(); }

 private:
  phase_result& result_;
  bench_clock::time_point last_;
};

}  // namespace

run_arguments arguments_for(const image_view& image, parameters p) {
  if (std::string problem = resolve_parameters(image, p); !problem.empty())
    throw std::runtime_error(problem);
  if (std::string problem = check_parameters(image, p); !problem.empty())
    throw std::runtime_error(problem);
  return run_arguments{image.data,      image.size_x,    image.size_y,       image.size_z,
                       p.max_level,     p.lim_oct_level, p.init_level,       p.group_mode,
                       p.max_seed,      p.use_all_seeds, p.pred_choice,      p.interval_length,
                       p.threshold_row, p.small_size,    p.statistic_update, p.rejection,
                       p.sigma,         p.pseudo_factor};
}

void silence(run_context& ctx) {
  ctx.out = [](std::string_view) {};
}

blocklist build_tree(run_context& ctx, const run_arguments& args) {
  if (prepare_run(ctx, args) != 0) return nullptr;
  const auto built = init_blocklist(ctx);
  if (check_pointer(built) != 0) return nullptr;
  blocklist list = built.value;
  smg_merge(ctx, list);
  if (list[0]->next_block == 0) {
    free_blocklist(ctx, list);
    return nullptr;
  }
  if (check_pointer(smg_split(ctx, list)) != 0) return nullptr;  // the split freed the list
  return list;
}

phase_result time_phases(const run_arguments& args, std::int32_t* labels, bool count,
                         std::int32_t threads) {
  phase_result r;
  lap_timer timer(r);
  // On the heap so that its end (the record slabs and the first frame go
  // back) is timed with the release.
  auto owner = std::make_unique<run_context>();
  run_context& ctx = *owner;
  ctx.threads = threads;
  silence(ctx);
  timer.resume();
  const auto fail = [&](std::int64_t status) {
    free_variables(ctx);
    r.status = static_cast<std::int32_t>(status);
    return r;
  };

  if (prepare_run(ctx, args) != 0) return fail(status_no_memory);
  timer.lap(phase::setup);
  const auto built = init_blocklist(ctx);
  if (check_pointer(built) != 0) return fail(built.status);
  blocklist list = built.value;
  timer.lap(phase::initial_blocks);
  smg_merge(ctx, list);
  timer.lap(phase::merge);

  regionlist head = nullptr;
  if (list[0]->next_block == 0) {
    // The whole image is one homogeneous block.
    head = make_one_region(ctx, list[0]);
    ctx.allocator.release(list);
    r.leaves = 1;
    r.regions = 1;
  } else {
    if (const std::int32_t s = smg_split(ctx, list); check_pointer(s) != 0) return fail(s);
    timer.lap(phase::split);
    count_leaves(ctx, list, r);
    timer.resume();
    const auto regions = group_init(ctx, list);
    if (check_pointer(regions) != 0) return fail(regions.status);
    head = regions.value;
    timer.lap(phase::adjacency);
    if (count) {
      r.neighbour_entries = count_entries(ctx, head);
      timer.resume();
    }
    const auto grouped =
        args.group_mode != 0 ? parallel_grouping(ctx, head) : sequential_grouping(ctx, head);
    if (grouped.status != 0) {
      free_regionlist(ctx, head);
      return fail(grouped.status);
    }
    head = grouped.value;
    timer.lap(phase::grouping);
    if (head->nb_pointers[0] == 0) {
      r.regions = 1;
    } else {
      if (args.small_size != 0) {
        if (const std::int32_t status = region_elimination(ctx, head); status != 0) {
          free_regionlist(ctx, head);
          return fail(status);
        }
      }
      timer.lap(phase::elimination);
      head = clean_regionlist(ctx, head);
      timer.lap(phase::cleaning);
      const auto sorted = sort_regionlist(ctx, head);
      if (check_pointer(sorted) != 0) {
        free_regionlist(ctx, head);
        return fail(sorted.status);
      }
      head = sorted.value;
      timer.lap(phase::sorting);
      r.regions = ctx.number_regions + 1;
    }
  }
  timer.resume();
  if (make_output(ctx, head, labels) != 0) {
    free_regionlist(ctx, head);
    return fail(status_no_memory);
  }
  timer.lap(phase::label_image);
  free_variables(ctx);
  ctx.release_records();
  owner.reset();
  timer.lap(phase::release);
  return r;
}

}  // namespace splitmerge::bench
