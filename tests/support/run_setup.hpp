// Setting up runs for the tests: random images, one parameter list (the
// library's own), a complete run through the library entry with every output
// it has, a context prepared as the entry prepares it for testing one phase at
// a time, and a temporary folder of the test's own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "context/run_context.hpp"
#include "driver/driver.hpp"

namespace splitmerge::testing {

// Piecewise-constant blobs with noise on noise_percent of the pixels, so that
// the trees have leaves of many sizes and the regions many shapes.
std::vector<std::int32_t> blob_image(std::mt19937& rng, int size_x, int size_z,
                                     int noise_percent = 10);

// A fresh folder under GoogleTest's temporary folder, with a name no other test
// or test run on the machine can take; removed afterwards.
class temp_folder {
 public:
  temp_folder();
  ~temp_folder();
  temp_folder(const temp_folder&) = delete;
  temp_folder& operator=(const temp_folder&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

struct run_setup {
  std::vector<std::int32_t> image;
  std::int32_t size_x = 8;  // and size_y
  std::int32_t size_z = 1;
  // The library's defaults but for these (the levels of an 8 x 8 image).
  parameters p = [] {
    parameters d{.max_level = 3, .lim_oct_level = 3, .init_level = 1, .max_seed = 4};
    d.pred_choice = 1, d.rejection = 0.25, d.sigma = 2.0, d.pseudo_factor = 1.0;
    d.small_size = 0;
    return d;
  }();
  bool display = true;
  std::string region_file;  // written (and read back) when not empty
  std::int32_t threads = 1;
  bool wide_codes = false;  // 64-bit codes even where 32 bits suffice
  // Records per arena request (0: the library's); small ones make allocation
  // failures strike mid-phase.
  std::uint32_t block_chunk = 0, entry_chunk = 0;
  std::uint32_t elimination_walk = 32;
  std::uint64_t interrupt_at = 0;  // the poll that asks to stop (0: none)
  std::uint64_t fail_at = 0;       // the allocation request that fails (0: none)
  std::uint64_t budget = 0;        // bytes the run may hold (0: no limit)
};

// A size_x^2 x size_z image (zeros when `image` is empty) with the levels it
// implies: max_level log2(size_x), lim_oct_level max_level - log2(size_z).
run_setup setup(std::vector<std::int32_t> image, std::int32_t size_x, std::int32_t size_z = 1,
                std::int32_t init_level = 1, std::int32_t pred_choice = 1,
                std::int32_t interval_length = 10);

struct run_result {
  std::int32_t status = 0;
  std::vector<std::int32_t> labels;
  std::vector<std::vector<std::int32_t>> frames;
  std::string printed, errors, region_text;
  std::int64_t live_after = 0;  // allocations not given back
  std::uint64_t requests = 0, polls = 0, peak_bytes = 0;
  std::vector<std::uint64_t> line_polls;  // polls made before each printed line
  bool over_budget = false;
  bool failed_site[alloc_site_count] = {};
};

// The run through the library entry.
run_result run(const run_setup& s);
// Expects the same status, labels, frames, lines and region list file.
void expect_same(const run_result& got, const run_result& expected);
// The promises of every label image: labels 0, 1, ... by non-increasing size,
// each one face-connected piece, none below small_size unless it is the only one.
void expect_label_promises(const std::vector<std::int32_t>& labels, std::int32_t size_x,
                           std::int32_t size_z, std::int32_t small_size);

// A context prepared as the library entry prepares it, over an image it owns.
struct prepared_run {
  run_setup s;
  run_context ctx;
  bool ok = false;

  explicit prepared_run(run_setup setup) : s(std::move(setup)) {
    ok = prepare_run(ctx, arguments_of({s.image.data(), s.size_x, s.size_x, s.size_z}, s.p)) == 0;
  }
  ~prepared_run() { free_variables(ctx); }
  prepared_run(const prepared_run&) = delete;
  prepared_run& operator=(const prepared_run&) = delete;
};

// The 4x4 plane of the worked examples: the top-left 2x2 cell is rough and
// splits into the single pixels 0x11..0x14; the other cells stay 2x2 blocks.
inline run_setup plane_example() {
  std::vector<std::int32_t> img(16, 200);
  img[0] = 0, img[1] = 50, img[4] = 100, img[5] = 150;
  run_setup s = setup(img, 4);
  s.p.max_seed = 2;
  return s;
}

// The codes of a block chain, from b along next_block.
std::vector<std::uint32_t> chain(const run_context& ctx, const block* b);
// A hand-made record in a run's arenas: a head of its own region.
block* make_head(run_context& ctx, std::uint32_t code);
// Links the heads into a region list, in the order given.
void link_regions(run_context& ctx, std::initializer_list<block*> heads);
// Gives owner a neighbour list naming the blocks given, in order; returns its entries.
std::vector<nb_node*> set_entries(run_context& ctx, block* owner,
                                  std::initializer_list<block*> named);

}  // namespace splitmerge::testing
