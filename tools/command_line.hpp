// The program's options, as the user gives them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "fit.hpp"
#include "splitmerge/splitmerge.hpp"

namespace splitmerge::tool {

struct tool_settings {
  std::string image;
  std::optional<std::string> labels;
  std::optional<std::string> frames;
  std::optional<std::int64_t> frames_every;  // keep every N-th frame (and the last)
  std::optional<std::string> regions;
  std::optional<std::string> input_copy;
  std::optional<std::string> overlay;
  bool no_display = false;
  bool quiet = false;
  frontend::request request;           // fitting, rescaling, the slice and the first label
  std::optional<std::int64_t> volume;  // which volume of a 4-D NIfTI input
  parameters params;                   // the library's defaults, -1 where derived from the image
  std::uint64_t frame_budget = default_frame_budget;  // accepted, no longer used
  std::int32_t threads = 0;                           // 0: every core
  std::uint64_t memory_limit = 0;                     // bytes; 0: what is available
};

// Bytes from "4096", "512K", "512M", "4G", "1T" (powers of 1024; "MiB" and
// "MB" spell the same); nullopt when the text is none of these.
std::optional<std::uint64_t> parse_byte_size(const std::string& text);

// What the command line asks for: settings to run with, or an exit right away
// (after --help, or on a usage error whose message is already printed).
using parse_result = std::variant<tool_settings, int>;

parse_result parse_command_line(int argc, const char* const* argv);

}  // namespace splitmerge::tool
