#include "driver/allocator.hpp"

#include <cstdlib>

namespace splitmerge {

bool run_allocator::admit(alloc_site site) noexcept {
  ++requests_;
  requested_[static_cast<std::size_t>(site)] = true;
  if (requests_ == fail_at_) {
    failed_[static_cast<std::size_t>(site)] = true;
    return false;
  }
  return true;
}

void* run_allocator::allocate(std::size_t bytes, alloc_site site) noexcept {
  if (!admit(site)) return nullptr;
  void* p = std::calloc(bytes == 0 ? 1 : bytes, 1);
  if (p != nullptr) ++live_;
  return p;
}

void* run_allocator::allocate_uninitialised(std::size_t bytes, alloc_site site) noexcept {
  if (!admit(site)) return nullptr;
  void* p = std::malloc(bytes == 0 ? 1 : bytes);
  if (p != nullptr) ++live_;
  return p;
}

void run_allocator::release(void* p) noexcept {
  if (p == nullptr) return;
  --live_;
  std::free(p);
}

}  // namespace splitmerge
