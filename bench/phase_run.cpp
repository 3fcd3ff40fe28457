#include "phase_run.hpp"

#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "geometry/geometry.hpp"
#include "grouping/grouping.hpp"
#include "measure.hpp"
#include "output/output.hpp"
#include "regions/regions.hpp"
#include "tree/tree.hpp"

namespace splitmerge::bench {

namespace {

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

// The library's own sequencer runs the phases (split_merge_group, with the
// code width the image needs); each progress line closes the phase it names.
phase_result time_phases(const run_arguments& args, std::int32_t* labels, bool count,
                         std::int32_t threads) {
  phase_result r;
  lap_timer timer(r);
  // On the heap so that its end (the record slabs and the first frame go
  // back) is timed with the release.
  auto owner = std::make_unique<run_context>();
  run_context& ctx = *owner;
  ctx.threads = threads;
  static const std::pair<std::string_view, phase> closes[] = {
      {"finished initialisation\n", phase::initial_blocks},
      {"finished merging\n", phase::merge},
      {"finished splitting\n", phase::split},
      {"finished ordering regionlist\n", phase::adjacency},
      {"finished grouping\n", phase::grouping},
      {"finished small region elimination\n", phase::elimination},
      {"finished cleaning of regionlist\n", phase::cleaning},
      {"finished sorting of regionlist\n", phase::sorting},
      {"finished the split_merge routine\n", phase::sorting},
      {"finished make_output \n", phase::label_image}};
  ctx.out = [&timer](std::string_view line) {
    for (const auto& [text, p] : closes)
      if (line == text) timer.lap(p);
  };
  // Counted untimed, once the regions are final: every leaf of the split is
  // a block of one of them.
  ctx.inspect_regions = [&](regionlist head) {
    for (const block* h = head; h != nullptr; h = ctx.block_at(h->next_region)) {
      ++r.regions;
      for (const block* b = h; b != nullptr; b = ctx.block_at(b->next_block)) {
        ++r.leaves;
        const bool single = ctx.code_high != nullptr
                                ? level<std::uint64_t>(ctx, ctx.full_code(b)) == 0
                                : level(ctx, b->code) == 0;
        if (single) ++r.single_voxels;
        if (count)
          for (const nb_node* e = ctx.entry_at(b == h ? h->nb_pointers[0] : 0); e != nullptr;
               e = ctx.entry_at(e->next))
            ++r.neighbour_entries;
      }
    }
    timer.resume();
  };
  timer.resume();
  r.status = split_merge_group(
      ctx, args.image, args.size_x, args.size_y, args.size_z, args.max_level, args.lim_oct_level,
      labels, args.init_level, args.group_mode, args.max_seed, args.use_all_seeds, args.pred_choice,
      args.interval_length, args.threshold_row, args.small_size, args.statistic_update, 0, 0, "",
      args.rejection, args.sigma, args.pseudo_factor);
  owner.reset();
  timer.lap(phase::release);
  return r;
}

}  // namespace splitmerge::bench
