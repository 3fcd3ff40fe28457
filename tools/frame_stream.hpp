// Display frames written to their file as the run makes them, so that the
// program holds at most the frame just made and the one before it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fit.hpp"
#include "gif_file.hpp"
#include "npy.hpp"

namespace splitmerge::tool {

class frame_stream {
 public:
  // Opens `file` (the staged temporary file) for the format `ext` names.
  // Throws io::io_error.
  frame_stream(const std::string& file, const std::string& ext, const fitted_image& image);

  // Takes one frame of the segmented image's size. Never throws (the run
  // calls it); a failure is kept for finish() and failed() turns true.
  void add(const std::int32_t* frame) noexcept;
  bool failed() const { return !problem_.empty(); }

  // Completes the file. Throws io::io_error with the first failure.
  void finish(std::vector<std::string>& notes);

 private:
  void add_to_gif(const std::int32_t* frame);
  void write_pending_gif_frame();

  const fitted_image& image_;
  std::unique_ptr<io::npy_int32_stream> npy_;
  std::unique_ptr<io::gif_animation_writer> gif_;
  std::vector<std::uint8_t> pending_;  // the latest distinct GIF frame, not yet written
  std::vector<std::uint8_t> current_;
  std::string problem_;
};

}  // namespace splitmerge::tool
