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

// The most bytes a frames file can take: its header, and frame_bytes for
// each frame kept of the `most` a run can make (every N-th and the last).
struct frame_file_bound {
  std::uint64_t header = 0, frame_bytes = 0;
  std::int64_t most = 0;

  [[nodiscard]] std::uint64_t bytes(std::int64_t every) const;
  // The smallest N whose file fits in `room` bytes; 0 when not even the
  // first and the last frame fit.
  [[nodiscard]] std::int64_t every_within(std::uint64_t room) const;
};

// The bound of the format `ext` names for frames of `image`, at most `most`.
frame_file_bound frame_file_bound_of(const std::string& ext, const fitted_image& image,
                                     std::int64_t most);

class frame_stream {
 public:
  // Opens `file` (the staged temporary file) for the format `ext` names;
  // keeps every `every`-th frame, and the last. Throws io::io_error.
  frame_stream(const std::string& file, const std::string& ext, const fitted_image& image,
               std::int64_t every = 1);

  // Where the caller puts each frame, at the image's size, before add().
  std::int32_t* frame() { return frame_.data(); }
  // Takes the frame in frame(). Never throws (the run calls it); a failure
  // is kept for finish() and failed() turns true.
  void add() noexcept;
  bool failed() const { return !problem_.empty(); }

  // Completes the file, with the last frame if it was not kept yet. Throws
  // io::io_error with the first failure.
  void finish(std::vector<std::string>& notes);

 private:
  void write(const std::int32_t* frame) noexcept;
  void add_to_gif(const std::int32_t* frame);
  void write_pending_gif_frame();

  const fitted_image& image_;
  std::int64_t every_ = 1;
  std::int64_t seen_ = 0;
  bool last_kept_ = true;  // the frame in frame_ has been written
  std::vector<std::int32_t> frame_;
  std::unique_ptr<io::npy_int32_stream> npy_;
  std::unique_ptr<io::gif_animation_writer> gif_;
  std::vector<std::uint8_t> pending_;  // the latest distinct GIF frame, not yet written
  std::vector<std::uint8_t> current_;
  std::string problem_;
};

}  // namespace splitmerge::tool
