// The display frames of one call, kept as differences from the frame before.
//
// Consecutive frames differ only where the run painted between them, so the
// differences take a small fraction of the frames' size. The host's output
// array is created only when the count is known, and each frame is written
// into it once: the peak is the frames once plus what the store holds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace splitmerge::gateway {

class frame_store {
 public:
  // pixels: values per frame; max_frames: how many frames are kept (at least
  // 1). Later frames replace the last kept one, so it shows the final state.
  frame_store(std::size_t pixels, std::int32_t max_frames) noexcept;
  frame_store(const frame_store&) = delete;
  frame_store& operator=(const frame_store&) = delete;
  ~frame_store();

  // Keeps a copy of the frame; false when memory ran out (the store is then
  // unusable and only releases what it holds).
  bool append(const std::int32_t* frame) noexcept;
  // Writes the kept frames, in order, into out (frame_count() x pixels,
  // zero-filled by the caller).
  void write_to(std::int32_t* out) const noexcept;

  [[nodiscard]] std::int32_t frame_count() const noexcept { return kept_; }
  // Frames handed to append, kept or not.
  [[nodiscard]] std::int32_t frames_seen() const noexcept { return seen_; }
  [[nodiscard]] bool dropped_frames() const noexcept { return seen_ > kept_; }
  // Makes allocation request k (from 1) fail; for the failure tests.
  void fail_request(std::uint64_t k) noexcept { fail_at_ = k; }
  [[nodiscard]] std::uint64_t requests() const noexcept { return requests_; }
  // Words of encoded frames held; what the store costs beyond one frame.
  [[nodiscard]] std::size_t stored_words() const noexcept { return used_; }

 private:
  void* reallocate(void* p, std::size_t bytes) noexcept;
  bool reserve_words(std::size_t extra) noexcept;
  void encode(const std::int32_t* frame) noexcept;
  // Writes the encoded frame at in over dest (its base); returns its end.
  const std::uint32_t* apply(const std::uint32_t* in, std::int32_t* dest) const noexcept;

  std::size_t pixels_;
  std::int32_t max_frames_;
  std::int32_t kept_ = 0;
  std::int32_t seen_ = 0;
  bool broken_ = false;
  // The frame the next difference is taken against (all 0 at first).
  std::int32_t* base_ = nullptr;
  // Encoded frames, one after another: a raw frame is the word 0 and the
  // pixels; a difference is the word 1 and (skip, count, count values) runs,
  // the last skip reaching the end of the frame.
  std::uint32_t* words_ = nullptr;
  std::size_t used_ = 0;
  std::size_t capacity_ = 0;
  std::size_t last_start_ = 0;  // where the last kept frame begins in words_
  std::uint64_t requests_ = 0;
  std::uint64_t fail_at_ = 0;
};

}  // namespace splitmerge::gateway
