// The program on the reference cases: its .npy outputs, region list file and
// progress lines must equal the library's expected results byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

#include "npy.hpp"
#include "splitmerge/frontend.hpp"
#include "support/conformance_case.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

std::string number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

std::string arguments_for(const splitmerge::testing::reference_case& c) {
  std::string args = "input.npy --labels labels.npy --start-label 0";
  for (const char* name : {"max_level", "lim_oct_level", "init_level", "group_mode", "max_seed",
                           "use_all_seeds", "pred_choice", "interval_length", "rejection", "sigma",
                           "threshold_row", "pseudo_factor", "small_size", "statistic_update"}) {
    std::string option = name;
    std::replace(option.begin(), option.end(), '_', '-');
    args += " --" + option + " " + number(c.params.at(name));
  }
  if (c.display) args += " --frames frames.npy";
  if (c.save) args += " --regions regions.txt";
  return args;
}

// Standard error holds exactly the warnings about parameters outside their
// meaningful ranges (the reference cases cover such values on purpose).
std::string expected_warnings(const splitmerge::testing::reference_case& c) {
  parameters p;
  const auto integer = [&c](const char* name) {
    return static_cast<std::int32_t>(c.params.at(name));
  };
  p.group_mode = integer("group_mode");
  p.use_all_seeds = integer("use_all_seeds");
  p.statistic_update = integer("statistic_update");
  p.interval_length = integer("interval_length");
  p.small_size = integer("small_size");
  p.rejection = c.params.at("rejection");
  p.sigma = c.params.at("sigma");
  p.pseudo_factor = c.params.at("pseudo_factor");
  std::string text;
  for (const auto& warning : frontend::range_warnings(p))
    text +=
        "splitmerge: warning: " + frontend::worded(warning.text, frontend::spelling::command_line) +
        "\n";
  return text;
}

std::vector<std::int32_t> npy_values(const std::filesystem::path& path) {
  const auto a = io::read_npy(path.string());
  return {a.values.begin(), a.values.end()};
}

TEST(Conformance, ProgramOutputsEqualTheReferenceResults) {
  const auto cases = splitmerge::testing::conformance_cases();
  if (cases.empty()) FAIL() << "no reference cases";
  int checked = 0;
  for (const auto& dir : cases) {
    const auto c = splitmerge::testing::load_case(dir);
    // One thread, and every core (the program's default).
    for (const char* threads : {" --threads 1", ""}) {
      SCOPED_TRACE(c.name + threads);
      testing::scratch_folder work;
      std::filesystem::copy_file(dir / "input.npy", work / "input.npy");
      const auto run = testing::run_tool(work, arguments_for(c) + threads);
      ASSERT_EQ(run.status, c.status == 0 ? 0 : 1) << run.err;
      EXPECT_EQ(run.out, c.stdout_text);
      EXPECT_EQ(run.err, expected_warnings(c));
      EXPECT_EQ(io::read_npy((work / "labels.npy").string()).shape, c.shape);
      EXPECT_EQ(npy_values(work / "labels.npy"), c.labels);
      if (c.display) {
        const auto frames = io::read_npy((work / "frames.npy").string());
        EXPECT_EQ(frames.shape.front(), c.frame_count);
        EXPECT_EQ(npy_values(work / "frames.npy"), *c.frames);
      }
      if (c.save) {
        EXPECT_EQ(testing::read_file(work / "regions.txt"), *c.regions_text);
      }
    }
    ++checked;
  }
  EXPECT_GE(checked, 10);
}

// The program streams frames to its file as the run makes them; the file must
// hold, frame for frame, what the library collects in memory without a sink.
TEST(Conformance, StreamedFramesEqualTheFramesTheLibraryCollects) {
  int checked = 0;
  for (const auto& dir : splitmerge::testing::conformance_cases()) {
    const auto c = splitmerge::testing::load_case(dir);
    if (!c.display || c.status != 0 || c.image.size() > 64 * 64 * 4) continue;
    SCOPED_TRACE(c.name);
    const image_view view{c.image.data(), c.size_x, c.size_y, c.size_z};
    options collected;
    collected.line_sink = [](std::string_view) {};
    const segmentation in_memory = segment(view, splitmerge::testing::parameters_of(c), collected);
    ASSERT_EQ(in_memory.status, 0);
    testing::scratch_folder work;
    std::filesystem::copy_file(dir / "input.npy", work / "input.npy");
    const auto run = testing::run_tool(work, arguments_for(c) + " --quiet");
    ASSERT_EQ(run.status, 0) << run.err;
    const auto streamed = io::read_npy((work / "frames.npy").string());
    ASSERT_EQ(streamed.shape.front(), in_memory.frame_count);
    const std::size_t frame_size = c.image.size();
    for (std::int32_t f = 0; f < in_memory.frame_count; ++f) {
      const auto from = static_cast<std::size_t>(f) * frame_size;
      ASSERT_TRUE(
          std::equal(in_memory.frames.begin() + static_cast<std::ptrdiff_t>(from),
                     in_memory.frames.begin() + static_cast<std::ptrdiff_t>(from + frame_size),
                     streamed.values.begin() + static_cast<std::ptrdiff_t>(from)))
          << "frame " << f;
    }
    ++checked;
  }
  if (checked == 0) FAIL() << "no reference cases with frames";
}

}  // namespace
}  // namespace splitmerge::tool
