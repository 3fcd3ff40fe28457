#include "frame_stream.hpp"

#include <algorithm>

#include "outputs.hpp"
#include "palette.hpp"

namespace splitmerge::tool {

std::uint64_t frame_file_bound::bytes(std::int64_t every) const {
  const std::int64_t kept = (most + every - 1) / every + 1;
  return header + static_cast<std::uint64_t>(kept) * frame_bytes;
}

std::int64_t frame_file_bound::every_within(std::uint64_t room) const {
  if (room < header || frame_bytes == 0) return 0;
  const auto kept = static_cast<std::int64_t>((room - header) / frame_bytes) - 1;
  if (kept < 1) return 0;
  return (most + kept - 1) / kept;
}

frame_file_bound frame_file_bound_of(const std::string& ext, const fitted_image& image,
                                     std::int64_t most) {
  frame_file_bound b;
  b.most = most;
  if (ext == ".npy") {
    std::vector<std::int64_t> shape = image_shape(image);
    std::int64_t pixels = 1;
    for (const auto d : shape) pixels *= d;
    shape.insert(shape.begin(), std::int64_t{1} << 62);
    b.header = io::npy_int32_header(shape, 0).size();
    b.frame_bytes = 4 * static_cast<std::uint64_t>(pixels);
  } else {
    // LZW codes of up to 12 bits for 8-bit indices, in blocks of 255 bytes,
    // and each frame's control block and descriptor; the palette up front.
    const auto [width, height] = picture_size(image);
    b.header = 1024;
    b.frame_bytes = 2 * static_cast<std::uint64_t>(width * height) + 64;
  }
  return b;
}

frame_stream::frame_stream(const std::string& file, const std::string& ext,
                           const fitted_image& image, std::int64_t every)
    : image_(image),
      every_(every),
      frame_(static_cast<std::size_t>(image.size_x) * image.size_y * image.size_z) {
  if (ext == ".npy") {
    npy_ = std::make_unique<io::npy_int32_stream>(file, image_shape(image));
  } else {
    const auto [width, height] = picture_size(image);
    gif_ = std::make_unique<io::gif_animation_writer>(file, static_cast<int>(width),
                                                      static_cast<int>(height), indexed_palette());
  }
}

void frame_stream::add() noexcept {
  last_kept_ = seen_++ % every_ == 0;
  if (last_kept_) write(frame_.data());
}

void frame_stream::write(const std::int32_t* frame) noexcept {
  if (failed()) return;
  try {
    if (npy_) {
      std::vector<std::int32_t> part;
      npy_->append(shown_values(image_, frame, part));
    } else {
      add_to_gif(frame);
    }
  } catch (const std::exception& e) {
    problem_ = e.what();
    if (problem_.empty()) problem_ = "cannot write the frames";
  }
}

// Frames that repeat the one before on the shown slice are dropped (in a
// volume most steps change other slices); the latest frame is held back so
// that the last one can be given a longer delay.
void frame_stream::add_to_gif(const std::int32_t* frame) {
  const picture slice = shown_picture(image_, frame);
  current_.resize(slice.values.size());
  std::transform(slice.values.begin(), slice.values.end(), current_.begin(), palette_index);
  if (!pending_.empty() && pending_ == current_) return;
  write_pending_gif_frame();
  pending_.swap(current_);
}

void frame_stream::write_pending_gif_frame() {
  if (!pending_.empty()) gif_->add_frame(pending_.data());
}

void frame_stream::finish(std::vector<std::string>& notes) {
  if (!last_kept_) write(frame_.data());
  last_kept_ = true;
  if (failed()) throw io::io_error(problem_);
  if (npy_) {
    npy_->finish();
    return;
  }
  if (const std::string note = picture_note("the frame animation", image_); !note.empty())
    notes.push_back(note);
  write_pending_gif_frame();
  // About ten seconds in all, within what GIF viewers honour (at least 2/100 s).
  const auto frames = static_cast<int>(std::max<std::size_t>(gif_->frame_count(), 1));
  gif_->finish(std::clamp(1000 / frames, 2, 25), 300);
}

}  // namespace splitmerge::tool
