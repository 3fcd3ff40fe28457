// libFuzzer target: bytes become a parameter set and a small 2-D or 3-D image
// for the library, a command line for the program's parser, or a .npy, TIFF,
// NIfTI or JPEG file for its readers. Invalid input must be rejected with a
// message and never run; valid input must run and give a gap-free label
// image; a file must be read whole, to the size its header declares, or refused.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "command_line.hpp"
#include "grey_image.hpp"
#include "jpeg_file.hpp"
#include "nifti_file.hpp"
#include "npy.hpp"
#include "splitmerge/splitmerge.hpp"
#include "tiff_file.hpp"

namespace {

// Reads the input front to back; past its end everything reads as zero.
struct byte_reader {
  const std::uint8_t* data;
  std::size_t size;
  std::size_t at = 0;

  std::uint8_t byte() { return at < size ? data[at++] : 0; }
  std::int32_t small(int lo, int count) { return lo + static_cast<int>(byte() % count); }
  // Mostly small numbers, sometimes NaN, infinities or a huge value.
  double real() {
    static constexpr double special[] = {std::numeric_limits<double>::quiet_NaN(),
                                         std::numeric_limits<double>::infinity(),
                                         -std::numeric_limits<double>::infinity(), 1e300};
    const std::uint8_t b = byte();
    return b >= 250 && b <= 253 ? special[b - 250] : static_cast<std::int8_t>(b) / 8.0;
  }
};

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
  }
}

void fuzz_library(byte_reader& in) {
  using namespace splitmerge;
  parameters p;
  p.max_level = in.small(-1, 11);
  p.lim_oct_level = in.small(-2, 12);
  p.init_level = in.small(-2, 12);
  p.group_mode = in.small(0, 3);
  p.max_seed = in.small(-1, 12);
  p.use_all_seeds = in.small(0, 2);
  p.pred_choice = in.small(-1, 8);
  p.interval_length = static_cast<std::int8_t>(in.byte());
  p.threshold_row = in.small(0, 5);
  p.small_size = static_cast<std::int8_t>(in.byte());
  p.statistic_update = in.small(0, 2);
  p.rejection = in.real();
  p.sigma = in.real();
  p.pseudo_factor = in.real();
  const std::uint8_t shape = in.byte();
  const std::uint8_t pixel_mode = in.byte();

  // Mostly consistent extents, sometimes not.
  const int level = std::clamp(p.max_level, 0, 6);
  const int lim = std::clamp(p.lim_oct_level, 0, level);
  std::int32_t size_x = 1 << level;
  std::int32_t size_y = size_x;
  std::int32_t size_z = 1 << (level - lim);
  if (shape % 7 == 1) size_x += 1;
  if (shape % 7 == 2) size_y = std::max(1, size_y / 2);
  if (shape % 7 == 3) size_z *= 2;
  if (size_x * size_y * size_z > (1 << 14)) return;  // keep each run fast

  std::vector<std::int32_t> pixels(static_cast<std::size_t>(size_x) * size_y * size_z);
  const std::size_t available = in.size - std::min(in.size, in.at);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::uint8_t b = available != 0 ? in.data[in.at + i % available] : 0;
    pixels[i] = pixel_mode == 7 && i == 3 ? 256 : pixel_mode == 9 && i == 0 ? -1 : b;
  }

  const image_view view{pixels.data(), size_x, size_y, size_z};
  parameters resolved = p;
  std::string problem = resolve_parameters(view, resolved);
  if (problem.empty()) problem = check_parameters(view, resolved);

  options o;
  o.display = (pixel_mode & 1) != 0;
  o.frame_budget = 1 << 20;
  o.collect_regions = (pixel_mode & 2) != 0;
  std::string errors;
  o.error_sink = [&](std::string_view s) { errors.append(s); };
  const segmentation out = segment(view, p, o);
  if (!problem.empty()) {
    check(out.status == status_failed, "invalid input was not rejected");
    check(out.error == problem, "the rejection does not name the problem");
    check(out.frames.empty(), "an invalid input was run");
    check(!errors.empty(), "no message for an invalid input");
    return;
  }
  check(out.status == status_ok, "a valid run failed");
  check(out.labels.size() == pixels.size(), "label image of the wrong size");
  std::vector<std::int32_t> used = out.labels;
  std::sort(used.begin(), used.end());
  used.erase(std::unique(used.begin(), used.end()), used.end());
  check(used.front() == 0 && used.back() + 1 == std::ssize(used), "negative labels or a gap");
  if (o.collect_regions && used.size() > 1)
    check(out.regions.size() == used.size(), "region list size");
}

void fuzz_command_line(byte_reader& in) {
  // Tokens separated by zero bytes, at most 16 of them.
  std::vector<std::string> tokens{"splitmerge", ""};
  for (const std::size_t end = std::min(in.size, in.at + 256); in.at < end && tokens.size() <= 16;
       ++in.at) {
    if (in.data[in.at] == 0) tokens.emplace_back();
    if (in.data[in.at] != 0) tokens.back().push_back(static_cast<char>(in.data[in.at]));
  }
  if (tokens.back().empty()) tokens.pop_back();
  std::vector<const char*> argv;
  for (const auto& t : tokens) argv.push_back(t.c_str());
  const auto parsed =
      splitmerge::tool::parse_command_line(static_cast<int>(argv.size()), argv.data());
  if (const auto* settings = std::get_if<splitmerge::tool::tool_settings>(&parsed))
    check(!settings->image.empty(), "settings without an image");
}

void fuzz_npy(byte_reader& in) {
  const std::string bytes(reinterpret_cast<const char*>(in.data) + std::min(in.at, in.size),
                          in.size - std::min(in.at, in.size));
  try {
    const auto a = splitmerge::io::parse_npy(bytes, "fuzz.npy");
    std::int64_t count = 1;
    for (const auto d : a.shape) count *= d;
    check(static_cast<std::int64_t>(a.values.size()) == count, "npy values and shape disagree");
  } catch (const splitmerge::io::io_error&) {
    // Rejected with a message: fine.
  }
}

// The rest of the input as a file, for readers that take a path: one file in
// memory (memfd), rewritten for each input, so that a run leaves nothing.
const std::string& file_of(byte_reader& in) {
  static const int fd = ::memfd_create("splitmerge-fuzz", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const std::size_t from = std::min(in.at, in.size);
  const bool written = ::ftruncate(fd, 0) == 0 && ::pwrite(fd, in.data + from, in.size - from, 0) ==
                                                      static_cast<ssize_t>(in.size - from);
  check(fd >= 0 && written, "cannot write the fuzz file");
  return path;
}

template <class Reader>
void fuzz_file(byte_reader& in, Reader read) {
  try {
    const splitmerge::io::grey_image image = read(file_of(in));
    check(image.size_x > 0 && image.size_y > 0 && image.size_z > 0, "an image without pixels");
    check(image.pixels.size() >= static_cast<std::size_t>(image.pixel_count()) *
                                     splitmerge::frontend::pixel_size(image.type),
          "pixels and sizes disagree");
  } catch (const splitmerge::io::io_error&) {
    // Refused with a message: fine.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  byte_reader in{data, size};
  switch (in.byte() % 6) {
    case 0:
      fuzz_library(in);
      break;
    case 1:
      fuzz_command_line(in);
      break;
    case 2:
      fuzz_npy(in);
      break;
    case 3:
      fuzz_file(in, [](const std::string& path) { return splitmerge::io::read_tiff(path); });
      break;
    case 4: {
      const std::uint8_t volume = in.byte();
      fuzz_file(in, [volume](const std::string& path) {
        splitmerge::io::read_options options;
        if (volume % 4 != 0) options.volume = volume % 4 - 1;
        return splitmerge::io::read_nifti(path, options);
      });
      break;
    }
    default:
      fuzz_file(in, [](const std::string& path) { return splitmerge::io::read_jpeg(path); });
      break;
  }
  return 0;
}
