#include "support/conformance_case.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "npy.hpp"

namespace splitmerge::testing {

std::filesystem::path conformance_root() {
  if (const char* env = std::getenv("SPLITMERGE_CONFORMANCE")) return env;
  return SPLITMERGE_REFERENCE_DIR;
}

std::vector<std::filesystem::path> conformance_cases() {
  std::vector<std::filesystem::path> out;
  const auto root = conformance_root();
  if (!std::filesystem::exists(root)) return out;
  for (const auto& e : std::filesystem::directory_iterator(root))
    if (e.is_directory() && std::filesystem::exists(e.path() / "params.json"))
      out.push_back(e.path());
  std::sort(out.begin(), out.end());
  return out;
}

std::string read_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

namespace {

std::vector<std::int32_t> as_int32(const io::npy_array& a) {
  std::vector<std::int32_t> v(a.values.size());
  std::transform(a.values.begin(), a.values.end(), v.begin(),
                 [](std::int64_t x) { return static_cast<std::int32_t>(x); });
  return v;
}

}  // namespace

reference_case load_case(const std::filesystem::path& dir) {
  reference_case c;
  c.name = dir.filename().string();
  const auto input = io::read_npy((dir / "input.npy").string());
  c.shape = input.shape;
  c.image = as_int32(input);
  const std::size_t d = c.shape.size();  // (Y, X) or (Z, Y, X)
  c.size_x = static_cast<std::int32_t>(c.shape[d - 1]);
  c.size_y = static_cast<std::int32_t>(c.shape[d - 2]);
  if (d == 3) c.size_z = static_cast<std::int32_t>(c.shape[0]);
  // params.json is a flat object of numbers and booleans.
  const std::string json = read_text(dir / "params.json");
  const std::regex pair("\"([a-z_]+)\"\\s*:\\s*([-+0-9.eE]+|true|false)");
  for (std::sregex_iterator it(json.begin(), json.end(), pair), end; it != end; ++it) {
    const std::string value = (*it)[2];
    c.params[(*it)[1]] = value == "true" ? 1.0 : value == "false" ? 0.0 : std::stod(value);
  }
  c.display = c.params.count("display") && c.params.at("display") != 0.0;
  c.save = c.params.count("save") && c.params.at("save") != 0.0;
  const auto expected = dir / "expected";
  c.labels = as_int32(io::read_npy((expected / "labels.npy").string()));
  if (std::filesystem::exists(expected / "frames.npy")) {
    const auto frames = io::read_npy((expected / "frames.npy").string());
    c.frame_count = frames.shape.empty() ? 0 : frames.shape[0];
    c.frames = as_int32(frames);
  }
  c.stdout_text = read_text(expected / "stdout.txt");
  c.status = std::stoi(read_text(expected / "status.txt"));
  if (std::filesystem::exists(expected / "regions.txt"))
    c.regions_text = read_text(expected / "regions.txt");
  return c;
}

parameters parameters_of(const reference_case& c) {
  const auto whole = [&c](const char* key) { return static_cast<std::int32_t>(c.params.at(key)); };
  return {whole("max_level"),   whole("lim_oct_level"),   whole("init_level"),
          whole("group_mode"),  whole("max_seed"),        whole("use_all_seeds"),
          whole("pred_choice"), whole("interval_length"), c.params.at("rejection"),
          c.params.at("sigma"), whole("threshold_row"),   c.params.at("pseudo_factor"),
          whole("small_size"),  whole("statistic_update")};
}

}  // namespace splitmerge::testing
