#include "frame_stream.hpp"

#include <algorithm>

#include "outputs.hpp"
#include "palette.hpp"

namespace splitmerge::tool {

frame_stream::frame_stream(const std::string& file, const std::string& ext,
                           const fitted_image& image)
    : image_(image) {
  if (ext == ".npy") {
    npy_ = std::make_unique<io::npy_int32_stream>(file, image_shape(image));
  } else {
    const auto [width, height] = picture_size(image);
    gif_ = std::make_unique<io::gif_animation_writer>(file, static_cast<int>(width),
                                                      static_cast<int>(height), indexed_palette());
  }
}

void frame_stream::add(const std::int32_t* frame) noexcept {
  if (failed()) return;
  try {
    if (npy_) {
      npy_->append(shown_part(image_, frame).data());
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
