// Frames handed to a sink as they are frozen, a run stopped by the caller, and
// the parallel grouping's seed table sized by the regions it can seed.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "driver/driver.hpp"
#include "splitmerge/splitmerge.hpp"
#include "support/conformance_case.hpp"
#include "support/random_images.hpp"

namespace splitmerge {
namespace {

options quiet_options() {
  options o;
  o.line_sink = [](std::string_view) {};
  o.error_sink = [](std::string_view) {};
  return o;
}

// Guards the streaming promise: a sink receives exactly the frames that the
// run would otherwise collect, in order, and the labels are the same.
TEST(FrameSink, StreamedFramesEqualCollectedFramesOnEveryReferenceCase) {
  const auto cases = testing::conformance_cases();
  if (cases.empty()) FAIL() << "no reference cases at " << testing::conformance_root();
  for (const auto& dir : cases) {
    const auto c = testing::load_case(dir);
    if (!c.display) continue;
    SCOPED_TRACE("case " + c.name);
    const image_view view{c.image.data(), c.size_x, c.size_y, c.size_z};
    options collecting = quiet_options();
    const segmentation collected = segment(view, testing::parameters_of(c), collecting);

    options streaming = quiet_options();
    std::vector<std::int32_t> streamed;
    std::int32_t expected_index = 0;
    streaming.frame_sink = [&](const std::int32_t* frame, std::int32_t index) {
      EXPECT_EQ(index, expected_index++);
      streamed.insert(streamed.end(), frame, frame + c.image.size());
    };
    const segmentation s = segment(view, testing::parameters_of(c), streaming);
    EXPECT_EQ(s.status, collected.status);
    EXPECT_EQ(s.labels, collected.labels);
    EXPECT_TRUE(s.frames.empty());
    EXPECT_EQ(s.frame_count, collected.frame_count);
    EXPECT_EQ(streamed, collected.frames);
    if (c.frames) {
      EXPECT_EQ(streamed, *c.frames);
    }
  }
}

TEST(Interrupt, TheEntryReportsTheInterruptionAndNoLabels) {
  std::mt19937 rng(3);
  const auto image = testing::blob_image(rng, 32, 1, 20);
  options o = quiet_options();
  o.interrupt = [] { return true; };
  const segmentation s = segment(image_view{image.data(), 32, 32, 1}, parameters{}, o);
  EXPECT_EQ(s.status, status_interrupted);
  EXPECT_EQ(s.error, "interrupted");
  EXPECT_EQ(s.labels, std::vector<std::int32_t>(image.size(), 0));
}

// The largest max_seed once sized the seed table by itself (16 GB). In a
// child limited to 1 GiB of address space the run must still succeed, with
// the labels of a max_seed equal to the number of regions it can seed.
TEST(SeedTable, AHugeMaxSeedNeedsNoHugeTable) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "address space limits do not mix with the address sanitizer";
#else
  std::mt19937 rng(11);
  const auto image = testing::blob_image(rng, 64, 1, 30);
  const image_view view{image.data(), 64, 64, 1};
  parameters p;
  p.group_mode = 1;
  p.use_all_seeds = 1;
  p.max_seed = 64 * 64;
  const segmentation bounded = segment(view, p, quiet_options());
  ASSERT_EQ(bounded.status, status_ok);
  p.max_seed = std::numeric_limits<std::int32_t>::max();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const rlimit limit{std::size_t{1} << 30, std::size_t{1} << 30};
    setrlimit(RLIMIT_AS, &limit);
    const segmentation huge = segment(view, p, quiet_options());
    _exit(huge.status == status_ok && huge.labels == bounded.labels ? 0 : 1);
  }
  int wstatus = 0;
  ASSERT_EQ(waitpid(child, &wstatus, 0), child);
  ASSERT_TRUE(WIFEXITED(wstatus));
  EXPECT_EQ(WEXITSTATUS(wstatus), 0);
#endif
}

}  // namespace
}  // namespace splitmerge
