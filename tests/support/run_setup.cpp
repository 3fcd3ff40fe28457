#include "support/run_setup.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <numeric>
#include <stdexcept>
#include <system_error>

#include "support/conformance_case.hpp"

namespace splitmerge::testing {

std::vector<std::int32_t> blob_image(std::mt19937& rng, int size_x, int size_z, int noise_percent) {
  const int n = size_x * size_x * size_z;
  std::vector<std::int32_t> img(static_cast<std::size_t>(n),
                                static_cast<std::int32_t>(rng() % 256));
  const int blobs = 1 + static_cast<int>(rng() % 6);
  for (int k = 0; k < blobs; ++k) {
    const int x0 = static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int y0 = static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int z0 = static_cast<int>(rng() % static_cast<unsigned>(size_z));
    const int w = 1 + static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int h = 1 + static_cast<int>(rng() % static_cast<unsigned>(size_x));
    const int d = 1 + static_cast<int>(rng() % static_cast<unsigned>(size_z));
    const auto v = static_cast<std::int32_t>(rng() % 256);
    for (int z = z0; z < std::min(size_z, z0 + d); ++z)
      for (int y = y0; y < std::min(size_x, y0 + h); ++y)
        for (int x = x0; x < std::min(size_x, x0 + w); ++x)
          img[static_cast<std::size_t>((z * size_x + y) * size_x + x)] = v;
  }
  for (auto& v : img) {
    if (static_cast<int>(rng() % 100) < noise_percent)
      v = std::clamp<std::int32_t>(v + static_cast<std::int32_t>(rng() % 31) - 15, 0, 255);
  }
  return img;
}

temp_folder::temp_folder() {
  std::string pattern =
      (std::filesystem::path(::testing::TempDir()) / "splitmerge_XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("cannot create a temporary folder from " + pattern);
  path_ = pattern;
}

temp_folder::~temp_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

run_setup setup(std::vector<std::int32_t> image, std::int32_t size_x, std::int32_t size_z,
                std::int32_t init_level, std::int32_t pred_choice, std::int32_t interval_length) {
  run_setup s;
  if (image.empty()) image.assign(static_cast<std::size_t>(size_x * size_x * size_z), 0);
  s.image = std::move(image);
  s.size_x = size_x;
  s.size_z = size_z;
  s.p.max_level = std::countr_zero(static_cast<std::uint32_t>(size_x));
  s.p.lim_oct_level = s.p.max_level - std::countr_zero(static_cast<std::uint32_t>(size_z));
  s.p.init_level = init_level;
  s.p.pred_choice = pred_choice;
  s.p.interval_length = interval_length;
  return s;
}

run_result run(const run_setup& s) {
  run_result r;
  run_context ctx;
  if (s.block_chunk != 0) ctx.blocks.set_chunk(s.block_chunk);
  if (s.entry_chunk != 0) ctx.entries.set_chunk(s.entry_chunk);
  ctx.threads = s.threads;
  ctx.thread_grain = 1;  // split even the smallest images over the threads
  ctx.force_wide_codes = s.wide_codes;
  ctx.elimination_walk = s.elimination_walk;
  ctx.poll_interval = 1;  // every poll point asks
  ctx.interrupt = [&r, &s] { return ++r.polls == s.interrupt_at; };
  ctx.out = [&](std::string_view t) {
    r.printed.append(t);
    r.line_polls.push_back(r.polls);
  };
  ctx.err = [&](std::string_view t) { r.errors.append(t); };
  ctx.allocator.fail_at(s.fail_at);
  ctx.allocator.set_budget(s.budget);
  r.labels.assign(s.image.size(), 0);
  // A file of an earlier run is not taken for this one's (devices stay).
  if (std::filesystem::is_regular_file(s.region_file)) std::filesystem::remove(s.region_file);
  const parameters& p = s.p;
  r.status = split_merge_group(ctx, s.image.data(), s.size_x, s.size_x, s.size_z, p.max_level,
                               p.lim_oct_level, r.labels.data(), p.init_level, p.group_mode,
                               p.max_seed, p.use_all_seeds, p.pred_choice, p.interval_length,
                               p.threshold_row, p.small_size, p.statistic_update,
                               s.region_file.empty() ? 0 : 1, s.display ? 1 : 0,
                               s.region_file.c_str(), p.rejection, p.sigma, p.pseudo_factor);
  if (!s.region_file.empty() && std::filesystem::is_regular_file(s.region_file))
    r.region_text = read_text(s.region_file);
  for (const disp_frame* f = ctx.smg_disp; f != nullptr; f = f->next)
    r.frames.emplace_back(f->pixels, f->pixels + s.image.size());
  ctx.release_frames();
  r.live_after = ctx.allocator.live();
  r.requests = ctx.allocator.requests();
  r.peak_bytes = ctx.allocator.peak_bytes();
  r.over_budget = ctx.allocator.over_budget();
  for (std::size_t i = 0; i < alloc_site_count; ++i)
    r.failed_site[i] = ctx.allocator.site_failed(static_cast<alloc_site>(i));
  return r;
}

void expect_same(const run_result& got, const run_result& expected) {
  EXPECT_EQ(got.status, expected.status);
  EXPECT_EQ(got.labels, expected.labels);
  EXPECT_EQ(got.frames, expected.frames);
  EXPECT_EQ(got.printed, expected.printed);
  EXPECT_EQ(got.region_text, expected.region_text);
  EXPECT_EQ(got.live_after, 0);
}

void expect_label_promises(const std::vector<std::int32_t>& labels, std::int32_t size_x,
                           std::int32_t size_z, std::int32_t small_size) {
  ASSERT_GE(*std::min_element(labels.begin(), labels.end()), 0);
  const std::int32_t regions = *std::max_element(labels.begin(), labels.end()) + 1;
  std::vector<std::int64_t> size(static_cast<std::size_t>(regions), 0);
  for (const std::int32_t l : labels) ++size[static_cast<std::size_t>(l)];
  for (std::size_t r = 0; r < size.size(); ++r) {
    ASSERT_GT(size[r], 0) << "label " << r << " is unused";
    if (r > 0) {
      ASSERT_LE(size[r], size[r - 1]) << "labels by decreasing size";
    }
    if (regions > 1) {
      ASSERT_GE(size[r], small_size) << "region " << r << " is small";
    }
  }
  // Each label is one piece: unite face neighbours of a label, count the roots.
  std::vector<std::size_t> root(labels.size());
  std::iota(root.begin(), root.end(), std::size_t{0});
  const auto find = [&root](std::size_t i) {
    while (root[i] != i) i = root[i] = root[root[i]];
    return i;
  };
  const std::size_t x = static_cast<std::size_t>(size_x), z = static_cast<std::size_t>(size_z);
  const std::size_t step[3] = {1, x, x * x}, extent[3] = {x, x, z};
  for (std::size_t i = 0; i < labels.size(); ++i)
    for (int axis = 0; axis < 3; ++axis) {
      const std::size_t j = i + step[axis];
      if (i / step[axis] % extent[axis] + 1 < extent[axis] && labels[j] == labels[i])
        root[find(j)] = find(i);
    }
  std::vector<std::int32_t> pieces(static_cast<std::size_t>(regions), 0);
  for (std::size_t i = 0; i < labels.size(); ++i)
    if (find(i) == i) ++pieces[static_cast<std::size_t>(labels[i])];
  for (std::size_t r = 0; r < pieces.size(); ++r) ASSERT_EQ(pieces[r], 1) << "region " << r;
}

std::vector<std::uint32_t> chain(const run_context& ctx, const block* b) {
  std::vector<std::uint32_t> codes;
  for (; b != nullptr; b = ctx.block_at(b->next_block)) codes.push_back(b->code);
  return codes;
}

block* make_head(run_context& ctx, std::uint32_t code) {
  block* b = new_block(ctx);
  b->code = code;
  b->region_pointer = ctx.id(b);
  return b;
}

void link_regions(run_context& ctx, std::initializer_list<block*> heads) {
  block* prev = nullptr;
  for (block* h : heads) {
    if (prev != nullptr) prev->next_region = ctx.id(h);
    prev = h;
  }
}

std::vector<nb_node*> set_entries(run_context& ctx, block* owner,
                                  std::initializer_list<block*> named) {
  std::vector<nb_node*> made;
  for (block* n : named) made.push_back(new_nb_node(ctx, n, nullptr));
  for (std::size_t i = 0; i + 1 < made.size(); ++i) made[i]->next = ctx.id(made[i + 1]);
  owner->nb_pointers[0] = made.empty() ? 0 : ctx.id(made.front());
  owner->nb_pointers[1] = made.empty() ? 0 : ctx.id(made.back());
  return made;
}

}  // namespace splitmerge::testing
