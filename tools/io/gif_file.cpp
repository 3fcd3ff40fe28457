#include "gif_file.hpp"

#include <gif_lib.h>

#include <cerrno>
#include <cstring>

#include "npy.hpp"

namespace splitmerge::io {

namespace {

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

// A graphic control block is '!', 0xF9, its length 4, a flags byte, then the
// delay (two bytes, little-endian).
constexpr long delay_position_in_block = 4;

}  // namespace

int gif_animation_writer::write_bytes(GifFileType* gif, const unsigned char* bytes, int length) {
  auto* self = static_cast<gif_animation_writer*>(gif->UserData);
  const std::size_t n = std::fwrite(bytes, 1, static_cast<std::size_t>(length), self->file_);
  self->written_ += static_cast<long>(n);
  if (n != static_cast<std::size_t>(length)) self->write_failed_ = true;
  return static_cast<int>(n);
}

void gif_animation_writer::fail(const std::string& what) const {
  throw io_error(path_ + ": write failed (" + what + ")");
}

void gif_animation_writer::check(int result) const {
  if (write_failed_) fail(std::strerror(errno));
  if (result == GIF_ERROR) {
    const char* text = GifErrorString(gif_->Error);
    fail(text != nullptr ? text : "unknown error");
  }
}

gif_animation_writer::gif_animation_writer(const std::string& path, int width, int height,
                                           const std::array<rgb, 256>& palette)
    : path_(path), width_(width), height_(height) {
  if (width < 1 || height < 1 || width > 65535 || height > 65535)
    throw io_error(path + ": cannot write a GIF of " + std::to_string(width) + " x " +
                   std::to_string(height) + " pixels");
  const colour_map colours(palette);
  file_ = std::fopen(path.c_str(), "wb");
  if (file_ == nullptr) fail(std::strerror(errno));
  int error = 0;
  gif_ = EGifOpen(this, write_bytes, &error);
  if (gif_ == nullptr) {
    std::fclose(file_);
    const char* text = GifErrorString(error);
    fail(text != nullptr ? text : "unknown error");
  }
  EGifSetGifVersion(gif_, true);
  check(EGifPutScreenDesc(gif_, width, height, 8, 0, colours.map));
  // Loop forever: the NETSCAPE2.0 application block, sub-block 1, count 0.
  static const GifByteType application[] = {'N', 'E', 'T', 'S', 'C', 'A', 'P', 'E', '2', '.', '0'};
  static const GifByteType loop_count[] = {1, 0, 0};
  check(EGifPutExtensionLeader(gif_, APPLICATION_EXT_FUNC_CODE));
  check(EGifPutExtensionBlock(gif_, sizeof application, application));
  check(EGifPutExtensionBlock(gif_, sizeof loop_count, loop_count));
  check(EGifPutExtensionTrailer(gif_));
}

gif_animation_writer::~gif_animation_writer() {
  int ignored = 0;  // already failing: the first error is the one to report
  if (gif_ != nullptr) EGifCloseFile(gif_, &ignored);
  if (file_ != nullptr) std::fclose(file_);
}

void gif_animation_writer::add_frame(const std::uint8_t* indices) {
  GraphicsControlBlock control{};
  control.DisposalMode = DISPOSAL_UNSPECIFIED;
  control.DelayTime = 0;  // written by finish()
  control.TransparentColor = NO_TRANSPARENT_COLOR;
  GifByteType bytes[4];
  const size_t length = EGifGCBToExtension(&control, bytes);
  delay_offsets_.push_back(written_ + delay_position_in_block);
  check(EGifPutExtension(gif_, GRAPHICS_EXT_FUNC_CODE, static_cast<int>(length), bytes));
  check(EGifPutImageDesc(gif_, 0, 0, width_, height_, false, nullptr));
  std::vector<GifPixelType> row(static_cast<std::size_t>(width_));
  for (int y = 0; y < height_; ++y) {
    const auto* src = indices + static_cast<std::size_t>(y) * static_cast<std::size_t>(width_);
    row.assign(src, src + width_);
    check(EGifPutLine(gif_, row.data(), width_));
  }
}

void gif_animation_writer::finish(int delay_cs, int last_delay_cs) {
  if (delay_offsets_.empty()) fail("no frames");
  int error = 0;
  GifFileType* gif = gif_;
  gif_ = nullptr;
  if (EGifCloseFile(gif, &error) == GIF_ERROR || write_failed_) {
    const char* text = write_failed_ ? std::strerror(errno) : GifErrorString(error);
    fail(text != nullptr ? text : "unknown error");
  }
  for (std::size_t f = 0; f < delay_offsets_.size(); ++f) {
    const int delay = f + 1 == delay_offsets_.size() ? last_delay_cs : delay_cs;
    const unsigned char bytes[2] = {static_cast<unsigned char>(delay & 0xFF),
                                    static_cast<unsigned char>((delay >> 8) & 0xFF)};
    if (std::fseek(file_, delay_offsets_[f], SEEK_SET) != 0 || std::fwrite(bytes, 1, 2, file_) != 2)
      fail(std::strerror(errno));
  }
  std::FILE* file = file_;
  file_ = nullptr;
  const bool flushed = std::fflush(file) == 0 && std::ferror(file) == 0;
  const int problem = errno;
  if (std::fclose(file) != 0 || !flushed) fail(std::strerror(flushed ? errno : problem));
}

void write_gif_animation(const std::string& path, int width, int height,
                         const std::vector<std::vector<std::uint8_t>>& frames,
                         const std::array<rgb, 256>& palette, int delay_cs, int last_delay_cs) {
  if (frames.empty()) throw io_error(path + ": nothing to write as a GIF");
  gif_animation_writer gif(path, width, height, palette);
  for (const auto& frame : frames) {
    if (frame.size() != static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
      throw io_error(path + ": GIF frame of the wrong size");
    gif.add_frame(frame.data());
  }
  gif.finish(delay_cs, last_delay_cs);
}

}  // namespace splitmerge::io
