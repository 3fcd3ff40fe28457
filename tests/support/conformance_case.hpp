// Loading the reference cases: input image, parameters and expected results.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "splitmerge/splitmerge.hpp"

namespace splitmerge::testing {

struct reference_case {
  std::string name;
  std::vector<std::int64_t> shape;  // (Y, X) or (Z, Y, X)
  std::vector<std::int32_t> image;
  std::int32_t size_x = 0, size_y = 0, size_z = 1;
  std::map<std::string, double> params;
  bool display = false;
  bool save = false;
  std::vector<std::int32_t> labels;
  std::optional<std::vector<std::int32_t>> frames;
  std::int64_t frame_count = 0;
  std::string stdout_text;
  std::int32_t status = 0;
  std::optional<std::string> regions_text;
};

std::filesystem::path conformance_root();
std::vector<std::filesystem::path> conformance_cases();
reference_case load_case(const std::filesystem::path& dir);
std::string read_text(const std::filesystem::path& path);
// The case's run parameters, as the library entry takes them.
parameters parameters_of(const reference_case& c);

}  // namespace splitmerge::testing
