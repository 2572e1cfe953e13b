#include "failing_new.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> limit{SIZE_MAX};
}  // namespace

// Replaces the nothrow form for the whole process; the storage is released by the ordinary operator delete,
// so it comes from the ordinary operator new.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (size >= limit) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

namespace oskernel_test {

void FailingNew::fail_at_least(std::size_t bytes) { limit = bytes; }
void FailingNew::reset() { limit = SIZE_MAX; }

}  // namespace oskernel_test
