// NIfTI labels as other programs read them: nibabel (Debian's python3-nibabel)
// checks the header, the orientation and the labels; see
// python/nifti_labels_check.py.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tool_runner.hpp"

namespace splitmerge::tool {
namespace {

TEST(NiftiLabels, KeepTheInputsHeaderAndOrientationAsNibabelReadsThem) {
  testing::scratch_folder dir;
  const std::string command =
      "/usr/bin/python3 " +
      testing::quoted(std::string(SPLITMERGE_TOOL_TEST_SCRIPTS) + "/nifti_labels_check.py") + " " +
      testing::quoted(SPLITMERGE_TOOL_PATH) + " " + testing::quoted(dir.path().string()) + " > " +
      testing::quoted((dir / "log.txt").string()) + " 2>&1";
  const int status = std::system(command.c_str());
  EXPECT_EQ(status, 0) << testing::read_file(dir / "log.txt")
                       << "(nibabel comes with scripts/setup.sh test)";
}

}  // namespace
}  // namespace splitmerge::tool
