#include "context/run_context.hpp"

#include <cstdio>

namespace splitmerge {

run_context::run_context() = default;

run_context::~run_context() { release_frames(); }

void run_context::print(std::string_view text) const {
  if (out) {
    out(text);
  } else {
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
}

void run_context::warn(std::string_view text) const {
  if (err) {
    err(text);
  } else {
    std::fwrite(text.data(), 1, text.size(), stderr);
  }
}

void run_context::release_frames() noexcept {
  for (disp_frame* f = smg_disp; f != nullptr;) {
    disp_frame* next = f->next;
    allocator.release(f->pixels);
    allocator.release(f);
    f = next;
  }
  smg_disp = nullptr;
  smg_disp_cur = nullptr;
}

}  // namespace splitmerge
