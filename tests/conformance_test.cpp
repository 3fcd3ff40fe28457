// Runs every reference case through the library entry and compares every
// output exactly: labels, frames, printed lines, status, region list file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "driver/driver.hpp"
#include "support/conformance_case.hpp"
#include "support/temp_folder.hpp"

namespace splitmerge {
namespace {

struct run_output {
  std::int32_t status = 0;
  std::vector<std::int32_t> labels;
  std::vector<std::int32_t> frames;
  std::int64_t frame_count = 0;
  std::string printed;
  std::string regions_text;
  std::int64_t live_after = 0;
};

run_output run_case(const testing::reference_case& c, const std::filesystem::path& workdir,
                    std::int32_t threads, bool wide_codes) {
  run_output out;
  run_context ctx;
  ctx.threads = threads;
  ctx.force_wide_codes = wide_codes;
  ctx.thread_grain = 1;  // split even the smallest images over the threads
  ctx.out = [&](std::string_view s) { out.printed.append(s); };
  out.labels.assign(c.image.size(), 0);
  const auto previous = std::filesystem::current_path();
  std::filesystem::create_directories(workdir);
  std::filesystem::current_path(workdir);
  std::filesystem::remove("regions.txt");
  out.status = split_merge_group(
      ctx, c.image.data(), c.size_x, c.size_y, c.size_z, c.param("max_level"),
      c.param("lim_oct_level"), out.labels.data(), c.param("init_level"), c.param("group_mode"),
      c.param("max_seed"), c.param("use_all_seeds"), c.param("pred_choice"),
      c.param("interval_length"), c.param("threshold_row"), c.param("small_size"),
      c.param("statistic_update"), c.save ? 1 : 0, c.display ? 1 : 0, "regions.txt",
      c.params.at("rejection"), c.params.at("sigma"), c.params.at("pseudo_factor"));
  if (c.save && std::filesystem::exists("regions.txt"))
    out.regions_text = testing::read_text("regions.txt");
  std::filesystem::current_path(previous);
  for (const disp_frame* f = ctx.smg_disp; f != nullptr; f = f->next) {
    ++out.frame_count;
    out.frames.insert(out.frames.end(), f->pixels, f->pixels + c.image.size());
  }
  ctx.release_frames();
  out.live_after = ctx.allocator.live();
  return out;
}

// The first index at which two sequences differ, or -1.
template <class T>
std::int64_t first_difference(const std::vector<T>& a, const std::vector<T>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i)
    if (a[i] != b[i]) return static_cast<std::int64_t>(i);
  return a.size() == b.size() ? -1 : static_cast<std::int64_t>(n);
}

std::int64_t first_line_difference(const std::string& a, const std::string& b) {
  std::int64_t line = 1;
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return line;
    if (a[i] == '\n') ++line;
  }
  return a.size() == b.size() ? -1 : line;
}

TEST(Conformance, EveryReferenceCaseMatchesExactly) {
  const auto cases = testing::conformance_cases();
  if (cases.empty()) FAIL() << "no reference cases at " << testing::conformance_root();
  const testing::temp_folder folder;
  const auto workdir = folder.path();
  int checked = 0;
  for (const auto& dir : cases) {
    const auto c = testing::load_case(dir);
    // The steps that run on several threads give the same results for every
    // count, and 64-bit codes (those of images beyond 256 pixels) the same
    // results as 32-bit ones.
    const std::pair<std::int32_t, bool> runs[] = {
        {1, false}, {2, false}, {7, false}, {1, true}, {2, true}};
    for (const auto& [threads, wide] : runs) {
      SCOPED_TRACE("case " + c.name + ", " + std::to_string(threads) + " threads" +
                   (wide ? ", 64-bit codes" : ""));
      const run_output out = run_case(c, workdir, threads, wide);
      EXPECT_EQ(out.status, c.status) << c.name << ": status";
      EXPECT_EQ(first_line_difference(out.printed, c.stdout_text), -1)
          << c.name << ": printed lines differ at line "
          << first_line_difference(out.printed, c.stdout_text) << "\n--- got\n"
          << out.printed << "--- expected\n"
          << c.stdout_text;
      const auto label_diff = first_difference(out.labels, c.labels);
      EXPECT_EQ(label_diff, -1) << c.name << ": labels differ at pixel index " << label_diff;
      if (c.frames) {
        EXPECT_EQ(out.frame_count, c.frame_count) << c.name << ": frame count";
        const auto frame_diff = first_difference(out.frames, *c.frames);
        EXPECT_EQ(frame_diff, -1) << c.name << ": frames differ at frame "
                                  << (frame_diff < 0 ? -1
                                                     : frame_diff / std::int64_t(c.image.size()))
                                  << ", pixel "
                                  << (frame_diff < 0 ? -1
                                                     : frame_diff % std::int64_t(c.image.size()));
      }
      if (c.regions_text) {
        EXPECT_EQ(first_line_difference(out.regions_text, *c.regions_text), -1)
            << c.name << ": region list file differs at line "
            << first_line_difference(out.regions_text, *c.regions_text);
      }
      EXPECT_EQ(out.live_after, 0) << c.name << ": allocations still live after the run";
    }
    ++checked;
  }
  EXPECT_EQ(checked, static_cast<int>(cases.size()));
}

}  // namespace
}  // namespace splitmerge
