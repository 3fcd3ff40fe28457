#include "gif_file.hpp"

#include <gif_lib.h>

#include "npy.hpp"

namespace splitmerge::io {

namespace {

class gif_writer {
 public:
  explicit gif_writer(const std::string& path) : path_(path) {
    int error = 0;
    gif_ = EGifOpenFileName(path.c_str(), false, &error);
    if (gif_ == nullptr) fail(error);
  }
  gif_writer(const gif_writer&) = delete;
  gif_writer& operator=(const gif_writer&) = delete;
  ~gif_writer() {
    int ignored = 0;  // already failing: the first error is the one to report
    if (gif_ != nullptr) EGifCloseFile(gif_, &ignored);
  }

  GifFileType* get() const { return gif_; }

  void check(int result) const {
    if (result == GIF_ERROR) fail(gif_->Error);
  }

  void close() {
    int error = 0;
    GifFileType* gif = gif_;
    gif_ = nullptr;
    if (EGifCloseFile(gif, &error) == GIF_ERROR) fail(error);
  }

 private:
  [[noreturn]] void fail(int error) const {
    const char* text = GifErrorString(error);
    throw io_error(path_ + ": cannot write GIF: " + (text != nullptr ? text : "unknown error"));
  }

  std::string path_;
  GifFileType* gif_ = nullptr;
};

struct colour_map {
  ColorMapObject* map;
  explicit colour_map(const std::array<rgb, 256>& palette) {
    GifColorType colours[256];
    for (std::size_t i = 0; i < 256; ++i) colours[i] = {palette[i].r, palette[i].g, palette[i].b};
    map = GifMakeMapObject(256, colours);
    if (map == nullptr) throw io_error("out of memory for the GIF palette");
  }
  colour_map(const colour_map&) = delete;
  colour_map& operator=(const colour_map&) = delete;
  ~colour_map() { GifFreeMapObject(map); }
};

void put_loop_forever(gif_writer& gif) {
  static const GifByteType application[] = {'N', 'E', 'T', 'S', 'C', 'A', 'P', 'E', '2', '.', '0'};
  static const GifByteType loop_count[] = {1, 0, 0};  // sub-block 1, count 0: forever
  gif.check(EGifPutExtensionLeader(gif.get(), APPLICATION_EXT_FUNC_CODE));
  gif.check(EGifPutExtensionBlock(gif.get(), sizeof application, application));
  gif.check(EGifPutExtensionBlock(gif.get(), sizeof loop_count, loop_count));
  gif.check(EGifPutExtensionTrailer(gif.get()));
}

void put_delay(gif_writer& gif, int delay_cs) {
  GraphicsControlBlock control{};
  control.DisposalMode = DISPOSAL_UNSPECIFIED;
  control.DelayTime = delay_cs;
  control.TransparentColor = NO_TRANSPARENT_COLOR;
  GifByteType bytes[4];
  const size_t length = EGifGCBToExtension(&control, bytes);
  gif.check(EGifPutExtension(gif.get(), GRAPHICS_EXT_FUNC_CODE, static_cast<int>(length), bytes));
}

}  // namespace

void write_gif_animation(const std::string& path, int width, int height,
                         const std::vector<std::vector<std::uint8_t>>& frames,
                         const std::array<rgb, 256>& palette, int delay_cs, int last_delay_cs) {
  if (width < 1 || height < 1 || width > 65535 || height > 65535 || frames.empty())
    throw io_error(path + ": nothing to write as a GIF");
  const colour_map colours(palette);
  gif_writer gif(path);
  EGifSetGifVersion(gif.get(), true);
  gif.check(EGifPutScreenDesc(gif.get(), width, height, 8, 0, colours.map));
  put_loop_forever(gif);
  std::vector<GifPixelType> row(static_cast<std::size_t>(width));
  for (std::size_t f = 0; f < frames.size(); ++f) {
    if (frames[f].size() != static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
      throw io_error(path + ": GIF frame of the wrong size");
    put_delay(gif, f + 1 == frames.size() ? last_delay_cs : delay_cs);
    gif.check(EGifPutImageDesc(gif.get(), 0, 0, width, height, false, nullptr));
    for (int y = 0; y < height; ++y) {
      const auto* src = frames[f].data() + static_cast<std::size_t>(y) * width;
      row.assign(src, src + width);
      gif.check(EGifPutLine(gif.get(), row.data(), width));
    }
  }
  gif.close();
}

}  // namespace splitmerge::io
