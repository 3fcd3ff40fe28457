// A fresh folder for one test, under GoogleTest's temporary folder, with a
// name no other test or test run on the machine can take; removed afterwards.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace splitmerge::testing {

class temp_folder {
 public:
  temp_folder() {
    std::string pattern =
        (std::filesystem::path(::testing::TempDir()) / "splitmerge_XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
      throw std::runtime_error("cannot create a temporary folder from " + pattern);
    path_ = pattern;
  }
  ~temp_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  temp_folder(const temp_folder&) = delete;
  temp_folder& operator=(const temp_folder&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  // A path for a file in the folder.
  [[nodiscard]] std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace splitmerge::testing
