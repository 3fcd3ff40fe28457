// What the program promises about files: a failed or interrupted run leaves
// every existing output as it was and no new or hidden file, every write is
// checked, the input is never overwritten, and the small promises of the
// command line (ranges, names, messages) hold.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "npy.hpp"
#include "splitmerge/splitmerge.hpp"
#include "staging.hpp"
#include "test_images.hpp"
#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

using testing::quoted;
using testing::read_file;
using testing::run_tool;
using testing::scratch_folder;
using testing::write_noise;

// With a zero grey range every pixel of noise is its own region: the region
// list file of a 128 x 128 image takes about 670 KB.
constexpr const char* every_pixel_a_region =
    " --pred-choice range --interval-length 0 --small-size 0";

void write_text(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

TEST(FailedRun, KeepsEveryExistingOutputAndCreatesNone) {
  scratch_folder dir;
  write_noise(dir / "in.npy", {16, 16});
  write_text(dir / "labels.png", "old labels");
  write_text(dir / "regions.txt", "old regions");
  std::filesystem::create_directory(dir / "saved.png");
  const auto run = run_tool(dir,
                            "in.npy --labels labels.png --regions regions.txt --frames frames.gif "
                            "--save-input saved.png");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "splitmerge: cannot write saved.png (--save-input): it is a folder\n");
  EXPECT_EQ(read_file(dir / "labels.png"), "old labels");
  EXPECT_EQ(read_file(dir / "regions.txt"), "old regions");
  EXPECT_EQ(dir.file_names(),
            (std::vector<std::string>{"in.npy", "labels.png", "regions.txt", "saved.png"}));
}

// A set of staged files replaces every file, or, when a rename fails
// halfway, puts back what it replaced.
TEST(FailedRun, StagedFilesAreCommittedAllOrNone) {
  scratch_folder dir;
  for (const bool fail : {true, false}) {
    SCOPED_TRACE(fail);
    write_text(dir / "a.txt", "old a");
    {
      staged_file a((dir / "a.txt").string());
      staged_file b((dir / "b.txt").string());
      write_text(a.temporary_path(), "new a");
      write_text(b.temporary_path(), "new b");
      if (fail) {
        // A folder that appears at b's path after the checks makes its rename fail.
        std::filesystem::create_directories(dir / "b.txt" / "inside");
        EXPECT_THROW(commit_all({&a, &b}), io::io_error);
      } else {
        commit_all({&a, &b});
      }
    }
    EXPECT_EQ(read_file(dir / "a.txt"), fail ? "old a" : "new a");
    EXPECT_EQ(dir.file_names(), (std::vector<std::string>{"a.txt", "b.txt"}));
    std::filesystem::remove_all(dir / "b.txt");
  }
}

// Past a file size limit of 4 KiB every output fails to be written whole
// (the signal the limit raises must not end the program): one line names the
// file, and what was there before stays.
TEST(FailedWrite, EveryOutputFormatReportsAFullFile) {
  for (const char* output : {"--labels l.npy", "--labels l.png", "--labels l.tif", "--labels l.nii",
                             "--labels l.nii.gz", "--overlay o.png", "--frames f.npy",
                             "--frames f.gif", "--save-input s.pgm", "--regions r.txt"}) {
    SCOPED_TRACE(output);
    scratch_folder dir;
    write_noise(dir / "in.npy", {256, 256});
    const std::string file = std::string(output).substr(std::string(output).find(' ') + 1);
    write_text(dir / file, "old");
    // (With every pixel a region the overlay is all border: a tiny file.)
    const bool overlay = std::string(output).starts_with("--overlay");
    const auto run = run_tool(
        dir, std::string("in.npy --quiet ") + output + (overlay ? "" : every_pixel_a_region),
        "ulimit -f 4;");
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(run.err, "splitmerge: " + file + ": write failed (File too large)\n");
    EXPECT_EQ(read_file(dir / file), "old");
    EXPECT_EQ(dir.file_names().size(), 2u);
  }
}

// Every signal that ends the program leaves no file behind: those it can
// catch remove the named temporaries, unnamed ones vanish with the process,
// and the named ones of a killed run go with the next run in the folder.
TEST(Interrupted, SignalsRemoveTheTemporaryFiles) {
  for (const char* signal_name : {"INT", "TERM", "HUP", "USR1", "XCPU", "KILL"}) {
    SCOPED_TRACE(signal_name);
    scratch_folder dir;
    write_noise(dir / "in.npy", {64, 64, 64});
    write_text(dir / "l.npy", "old labels");
    // The signal comes with the first progress line: the outputs are staged by then.
    const std::string lines = quoted(dir.path().string() + ".lines");
    const std::string command = "cd " + quoted(dir.path().string()) + " && ulimit -c 0 && mkfifo " +
                                lines + " && { " + quoted(SPLITMERGE_TOOL_PATH) +
                                " in.npy --labels l.npy --regions r.txt --frames f.npy" +
                                every_pixel_a_region + " > " + lines + " & pid=$!; exec 3< " +
                                lines + "; read -r line <&3; kill -" + signal_name +
                                " $pid; wait $pid; exec 3<&-; rm " + lines + "; } > /dev/null 2>&1";
    std::system(command.c_str());
    if (std::string(signal_name) == "KILL") {
      write_noise(dir / "small.npy", {16, 16});
      ASSERT_EQ(run_tool(dir, "small.npy --quiet --labels next.npy").status, 0);
      for (const char* name : {"small.npy", "next.npy"}) std::filesystem::remove(dir / name);
    }
    EXPECT_EQ(dir.file_names(), (std::vector<std::string>{"in.npy", "l.npy"}));
    EXPECT_EQ(read_file(dir / "l.npy"), "old labels");
  }
}

// Frames go to their file as the run makes them: the run takes far less
// memory than they would.
TEST(Memory, FramesAreStreamedNotCollected) {
  scratch_folder dir;
  write_noise(dir / "in.npy", {64, 64, 64});
  const auto image = io::read_npy((dir / "in.npy").string());
  const std::vector<std::int32_t> pixels(image.values.begin(), image.values.end());
  options counting;
  std::int64_t frames = 0;
  counting.frame_sink = [&frames](const std::int32_t*, std::int32_t) { ++frames; };
  counting.line_sink = [](std::string_view) {};
  parameters p;
  p.small_size = 0;
  ASSERT_EQ(segment({pixels.data(), 64, 64, 64}, p, counting).status, 0);
  const std::string run = "in.npy --quiet --threads 1 --small-size 0";
  const auto plain = run_tool(dir, run);
  const auto streamed = run_tool(dir, run + " --frames f.gif");
  ASSERT_EQ(streamed.status, 0) << streamed.err;
  EXPECT_GT(testing::read_gif(dir / "f.gif").frames.size(), 10u);
  const std::int64_t frames_kib = frames * 64 * 64 * 64 * 4 / 1024;
  EXPECT_LT(streamed.peak_kib - plain.peak_kib, frames_kib / 4) << frames_kib << " KiB of frames";
}

// Parallel grouping never has more seeds than regions: a huge --max-seed
// takes no more address space than twice what a run with a few takes.
TEST(Memory, AHugeSeedCountRunsInNormalMemory) {
#if defined(SPLITMERGE_SANITIZED)
  GTEST_SKIP() << "sanitizers reserve more address space than the limit allows";
#endif
  scratch_folder dir;
  write_noise(dir / "in.npy", {256, 256});
  const std::string run = "in.npy --quiet --threads 1 --group-mode 1 --max-seed ";
  const auto few = run_tool(dir, run + "1000 --labels m.npy");
  ASSERT_EQ(few.status, 0) << few.err;
  const auto huge = run_tool(dir, run + "2000000000 --labels l.npy",
                             testing::address_space_limit(2 * few.peak_kib));
  EXPECT_EQ(huge.status, 0) << huge.err;
  // Seeds beyond the number of regions change nothing.
  EXPECT_EQ(read_file(dir / "l.npy"), read_file(dir / "m.npy"));
}

// Runs the program in a pseudo-terminal (util-linux script), so that both
// standard output and standard error are a terminal; returns what it shows,
// with the terminal's line ends turned back into newlines.
std::string run_on_terminal(const scratch_folder& dir, const std::string& arguments,
                            const std::string& environment = "") {
  const std::string inner = "cd " + quoted(dir.path().string()) + " && " + environment +
                            quoted(SPLITMERGE_TOOL_PATH) + " " + arguments;
  const std::string command = "script -qec " + quoted(inner) + " /dev/null > " +
                              quoted((dir / "screen.txt").string()) + " 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0);
  const std::string raw = read_file(dir / "screen.txt");
  std::filesystem::remove(dir / "screen.txt");
  std::string text;
  for (std::size_t i = 0; i < raw.size(); ++i)
    if (!(raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n')) text += raw[i];
  return text;
}

// Removes the status lines ("\rsplitmerge: ... \033[K") and their erasures.
std::string without_status_lines(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      out += text[i];
      continue;
    }
    const std::size_t end = text.find("\033[K", i);
    if (end != std::string::npos) i = end + 2;
  }
  return out;
}

// On a terminal, status lines come and go during the run (from the start
// here, so that the test does not depend on how fast the run is); what stays
// is the progress lines, unchanged, and a one-line summary.
TEST(Terminal, StatusLinesAndASummaryLeaveTheProgressLinesIntact) {
  scratch_folder dir;
  write_noise(dir / "in.npy", {32, 64, 64});
  const std::string arguments = std::string("in.npy --labels l.npy") + every_pixel_a_region;
  const auto plain = run_tool(dir, arguments);
  ASSERT_EQ(plain.status, 0);
  EXPECT_EQ(plain.err, "");
  // The summary shows on any stream, not only on a terminal.
  EXPECT_EQ(plain.summary.rfind("splitmerge: ", 0), 0u) << plain.summary;
  const std::string screen = run_on_terminal(dir, arguments, "SPLITMERGE_STATUS_AFTER_MS=0 ");
  EXPECT_NE(screen.find("\rsplitmerge: "), std::string::npos) << "no status line:\n" << screen;
  const std::string lines = without_status_lines(screen);
  ASSERT_EQ(lines.rfind(plain.out, 0), 0u) << lines;
  const std::string summary = lines.substr(plain.out.size());
  const auto labels = io::read_npy((dir / "l.npy").string()).values;
  const auto regions = *std::max_element(labels.begin(), labels.end());  // labels from 1
  EXPECT_EQ(summary.rfind("splitmerge: " + std::to_string(regions) + " regions in ", 0), 0u)
      << summary;
  EXPECT_NE(summary.find(" voxels per second)\n"), std::string::npos) << summary;
  EXPECT_EQ(std::count(summary.begin(), summary.end(), '\n'), 1);
  // --quiet shows nothing at all.
  EXPECT_EQ(run_on_terminal(dir, "in.npy --quiet --labels l.npy"), "");
}

TEST(CommandLine, ValuesOutsideTheMeaningfulRangesRunWithAWarning) {
  scratch_folder dir;
  write_noise(dir / "in.npy", {16, 16});
  const auto run = run_tool(dir, "in.npy --quiet --labels l.npy --group-mode 2 --sigma 0");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "splitmerge: warning: --group-mode 2 is outside its meaningful range (0 or 1; other "
            "values act as 1); running with it as given\nsplitmerge: warning: --sigma 0 is "
            "outside its meaningful range (above 0); running with it as given\n");
  EXPECT_TRUE(std::filesystem::exists(dir / "l.npy"));
  // Output names as long as the file system allows.
  for (const std::size_t length : {250u, 255u}) {
    const std::string name = std::string(length - 4, 'n') + ".npy";
    const auto run = run_tool(dir, "in.npy --quiet --labels " + name);
    EXPECT_EQ(run.status, 0) << length << ": " << run.err;
    EXPECT_TRUE(std::filesystem::exists(dir / name)) << length;
    std::filesystem::remove(dir / name);
  }
}

}  // namespace
}  // namespace splitmerge::tool
