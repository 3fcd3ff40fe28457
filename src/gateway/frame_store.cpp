#include "gateway/frame_store.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace splitmerge::gateway {

namespace {

constexpr std::uint32_t raw_frame = 0;
constexpr std::uint32_t difference_frame = 1;

// First index from pos on where a and b differ, or n. Equal stretches are
// long, so they are compared in blocks first.
std::size_t next_difference(const std::int32_t* a, const std::int32_t* b, std::size_t pos,
                            std::size_t n) noexcept {
  constexpr std::size_t block = 64;
  while (pos + block <= n && std::memcmp(a + pos, b + pos, block * sizeof *a) == 0) pos += block;
  while (pos < n && a[pos] == b[pos]) ++pos;
  return pos;
}

std::size_t next_equal(const std::int32_t* a, const std::int32_t* b, std::size_t pos,
                       std::size_t n) noexcept {
  while (pos < n && a[pos] != b[pos]) ++pos;
  return pos;
}

}  // namespace

frame_store::frame_store(std::size_t pixels, std::int32_t max_frames) noexcept
    : pixels_(pixels), max_frames_(std::max(max_frames, std::int32_t{1})) {}

frame_store::~frame_store() {
  std::free(base_);
  std::free(words_);
}

void* frame_store::reallocate(void* p, std::size_t bytes) noexcept {
  ++requests_;
  if (requests_ == fail_at_) return nullptr;
  return std::realloc(p, bytes);
}

bool frame_store::reserve_words(std::size_t extra) noexcept {
  const std::size_t needed = used_ + extra;
  if (needed <= capacity_) return true;
  // Geometric growth; large blocks grow by remapping, without a copy.
  const std::size_t grown = std::max(needed, capacity_ + capacity_ / 2);
  void* q = reallocate(words_, grown * sizeof(std::uint32_t));
  if (q == nullptr) return false;
  words_ = static_cast<std::uint32_t*>(q);
  capacity_ = grown;
  return true;
}

bool frame_store::append(const std::int32_t* frame) noexcept {
  if (broken_) return false;
  if (base_ == nullptr) {
    void* zeros = reallocate(nullptr, std::max<std::size_t>(pixels_, 1) * sizeof(std::int32_t));
    if (zeros == nullptr) {
      broken_ = true;
      return false;
    }
    std::memset(zeros, 0, pixels_ * sizeof(std::int32_t));
    base_ = static_cast<std::int32_t*>(zeros);
  }
  const std::int32_t index = seen_;
  // Beyond the limit the frame takes the last slot: drop what was there.
  if (index >= max_frames_) used_ = last_start_;
  if (!reserve_words(pixels_ + 2)) {
    broken_ = true;
    return false;
  }
  last_start_ = used_;
  encode(frame);
  ++seen_;
  kept_ = std::min(seen_, max_frames_);
  // The frame before the last slot stays the base of whatever fills it.
  if (index < max_frames_ - 1) apply(words_ + last_start_, base_);
  return true;
}

const std::uint32_t* frame_store::apply(const std::uint32_t* in,
                                        std::int32_t* dest) const noexcept {
  const std::size_t n = pixels_;
  if (*in++ == raw_frame) {
    std::memcpy(dest, in, n * sizeof(std::int32_t));
    return in + n;
  }
  for (std::size_t pos = 0;;) {
    pos += *in++;
    if (pos >= n) break;
    const std::size_t count = *in++;
    std::memcpy(dest + pos, in, count * sizeof(std::int32_t));
    in += count;
    pos += count;
  }
  return in;
}

void frame_store::encode(const std::int32_t* frame) noexcept {
  std::uint32_t* out = words_ + used_;
  const std::size_t n = pixels_;
  const std::size_t limit = n + 1;  // a raw frame's size: never exceeded
  std::size_t w = 0;
  out[w++] = difference_frame;
  std::size_t written_to = 0;  // end of the last run
  for (std::size_t pos = 0;;) {
    const std::size_t start = next_difference(frame, base_, pos, n);
    if (start == n) break;
    const std::size_t end = next_equal(frame, base_, start, n);
    if (w + 2 + (end - start) + 1 > limit) {
      out[0] = raw_frame;
      std::memcpy(out + 1, frame, n * sizeof(std::int32_t));
      used_ += limit;
      return;
    }
    out[w++] = static_cast<std::uint32_t>(start - written_to);
    out[w++] = static_cast<std::uint32_t>(end - start);
    std::memcpy(out + w, frame + start, (end - start) * sizeof(std::int32_t));
    w += end - start;
    written_to = end;
    pos = end;
  }
  out[w++] = static_cast<std::uint32_t>(n - written_to);
  used_ += w;
}

void frame_store::write_to(std::int32_t* out) const noexcept {
  const std::size_t n = pixels_;
  const std::uint32_t* in = words_;
  for (std::int32_t k = 0; k < kept_; ++k) {
    std::int32_t* dest = out + static_cast<std::size_t>(k) * n;
    // A difference applies to the previous frame (to zeros for the first).
    if (k > 0 && *in == difference_frame) std::memcpy(dest, dest - n, n * sizeof(std::int32_t));
    in = apply(in, dest);
  }
}

}  // namespace splitmerge::gateway
