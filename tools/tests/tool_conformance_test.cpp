// The program on the reference cases: its .npy outputs, region list file and
// progress lines equal the expected results byte for byte (thread counts and
// the rest of the harness are the library's own tests).
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

std::vector<std::int32_t> npy_values(const std::filesystem::path& path) {
  const auto a = io::read_npy(path.string());
  return {a.values.begin(), a.values.end()};
}

TEST(Conformance, ProgramOutputsEqualTheReferenceResults) {
  int checked = 0;
  for (const auto& dir : splitmerge::testing::conformance_cases()) {
    const auto c = splitmerge::testing::load_case(dir);
    SCOPED_TRACE(c.name);
    std::string args = "input.npy --labels labels.npy --start-label 0";
    const parameters p = splitmerge::testing::parameters_of(c);
    for (const auto name : frontend::parameter_names()) {
      std::string option(name);
      std::replace(option.begin(), option.end(), '_', '-');
      args += " --" + option + " " + number(c.params.at(std::string(name)));
    }
    if (c.display) args += " --frames frames.npy";
    if (c.save) args += " --regions regions.txt";
    for (const char* threads : {" --threads 1", " --threads 0"}) {  // one thread, every core
      SCOPED_TRACE(threads);
      testing::scratch_folder work;
      std::filesystem::copy_file(dir / "input.npy", work / "input.npy");
      const auto run = testing::run_tool(work, args + threads);
      ASSERT_EQ(run.status, c.status == 0 ? 0 : 1) << run.err;
      EXPECT_EQ(run.out, c.stdout_text);
      // Standard error holds exactly the warnings about parameters outside
      // their meaningful ranges (the cases cover such values on purpose).
      std::string warnings;
      for (const auto& warning : frontend::range_warnings(p))
        warnings += "splitmerge: warning: " +
                    frontend::worded(warning.text, frontend::spelling::command_line) + "\n";
      EXPECT_EQ(run.err, warnings);
      EXPECT_EQ(io::read_npy((work / "labels.npy").string()).shape, c.shape);
      EXPECT_EQ(npy_values(work / "labels.npy"), c.labels);
      if (c.display) {
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

}  // namespace
}  // namespace splitmerge::tool
