// Every reference case through the library entry at one thread, at several,
// and with 64-bit codes forced: labels, frames, printed lines, status and
// region list file exactly as expected. Frames handed to a sink are the same.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/conformance_case.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

TEST(Conformance, EveryReferenceCaseMatchesExactly) {
  const auto cases = testing::conformance_cases();
  ASSERT_FALSE(cases.empty()) << "no reference cases at " << testing::conformance_root();
  const testing::temp_folder folder;
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());  // the file name is printed as given
  for (const auto& dir : cases) {
    const auto c = testing::load_case(dir);
    testing::run_setup s;
    s.image = c.image;
    s.size_x = c.size_x;
    s.size_z = c.size_z;
    s.p = testing::parameters_of(c);
    s.display = c.display;
    s.region_file = c.save ? "regions.txt" : "";
    testing::run_result expected;
    expected.status = c.status;
    expected.labels = c.labels;
    expected.printed = c.stdout_text;
    expected.region_text = c.regions_text.value_or("");
    const std::size_t n = c.image.size();
    for (std::int64_t f = 0; c.frames && f < c.frame_count; ++f)
      expected.frames.emplace_back(c.frames->begin() + f * n, c.frames->begin() + (f + 1) * n);
    if (!c.display) expected.frames.assign(1, std::vector<std::int32_t>(n, 0));  // never painted
    // Threads and the code width never change a result; 0 threads is every core.
    const std::pair<std::int32_t, bool> runs[] = {{1, false}, {0, false}, {1, true}, {7, true}};
    for (const auto& [threads, wide] : runs) {
      SCOPED_TRACE(c.name + ", " + std::to_string(threads) + " threads" + (wide ? ", wide" : ""));
      s.threads = threads;
      s.wide_codes = wide;
      testing::expect_same(testing::run(s), expected);
    }
    if (!c.display) continue;
    SCOPED_TRACE(c.name + ", frames to a sink");
    options o;
    o.line_sink = [](std::string_view) {};
    std::vector<std::vector<std::int32_t>> streamed;
    o.frame_sink = [&](const std::int32_t* frame, std::int32_t index) {
      EXPECT_EQ(index, static_cast<std::int32_t>(streamed.size()));
      streamed.emplace_back(frame, frame + n);
    };
    const segmentation out = segment({c.image.data(), c.size_x, c.size_y, c.size_z}, s.p, o);
    EXPECT_EQ(out.labels, c.labels);
    EXPECT_EQ(streamed, expected.frames);
    EXPECT_TRUE(out.frames.empty());
  }
  std::filesystem::current_path(previous);
}

}  // namespace
}  // namespace splitmerge
