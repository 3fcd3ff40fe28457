// Animated GIFs through giflib.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

struct GifFileType;

namespace splitmerge::io {

struct rgb {
  std::uint8_t r = 0, g = 0, b = 0;
  friend bool operator==(const rgb&, const rgb&) = default;
};

// Writes a looping animation frame by frame, so that only the frame being
// added is held. The frame delays are written once the frame count is known
// (finish), so they can depend on it. Throws io_error on any failed write.
class gif_animation_writer {
 public:
  gif_animation_writer(const std::string& path, int width, int height,
                       const std::array<rgb, 256>& palette);
  gif_animation_writer(const gif_animation_writer&) = delete;
  gif_animation_writer& operator=(const gif_animation_writer&) = delete;
  ~gif_animation_writer();

  // width * height palette indices.
  void add_frame(const std::uint8_t* indices);
  std::size_t frame_count() const { return delay_offsets_.size(); }
  // Every frame shows for delay_cs hundredths of a second, the last one for
  // last_delay_cs; closes the file.
  void finish(int delay_cs, int last_delay_cs);

 private:
  static int write_bytes(GifFileType* gif, const unsigned char* bytes, int length);
  [[noreturn]] void fail(const std::string& what) const;
  void check(int result) const;

  std::string path_;
  int width_, height_;
  std::FILE* file_ = nullptr;
  GifFileType* gif_ = nullptr;
  long written_ = 0;
  bool write_failed_ = false;
  std::vector<long> delay_offsets_;  // where each frame's delay is in the file
};

// Writes a whole animation of colour-indexed frames (width * height indices
// each) with the given 256-colour palette.
void write_gif_animation(const std::string& path, int width, int height,
                         const std::vector<std::vector<std::uint8_t>>& frames,
                         const std::array<rgb, 256>& palette, int delay_cs, int last_delay_cs);

}  // namespace splitmerge::io
