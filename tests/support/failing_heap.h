/// A heap that has run out for one thread. Include it in one source of a test program only: it takes the place of the
/// operators for the whole program, the library included.
#ifndef OSKERNEL_TESTS_FAILING_HEAP_H
#define OSKERNEL_TESTS_FAILING_HEAP_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace oskernel_test {

/// While it lives, allocations of the calling thread of at least `bytes` bytes fail: the first `good` ones do not, the
/// next `bad` ones do.
class FailingHeap {
 public:
  explicit FailingHeap(std::size_t bytes, int good = 0, int bad = INT_MAX) {
    limit_ = bytes;
    good_ = good;
    bad_ = bad;
  }
  ~FailingHeap() { limit_ = SIZE_MAX; }
  FailingHeap(const FailingHeap&) = delete;
  FailingHeap& operator=(const FailingHeap&) = delete;

  /// Null when it fails.
  static void* allocate(std::size_t bytes) {
    if (bytes >= limit_ && good_-- <= 0 && bad_-- > 0) return nullptr;
    return std::malloc(bytes != 0 ? bytes : 1);
  }

 private:
  static inline thread_local std::size_t limit_ = SIZE_MAX;
  static inline thread_local int good_ = 0;
  static inline thread_local int bad_ = 0;
};

}  // namespace oskernel_test

// The nothrow form for single objects is the test support's own, and comes here as well. Not inlined: the compiler would
// see malloc's storage end in delete.
#define OSKERNEL_NOT_INLINED __attribute__((noinline))

OSKERNEL_NOT_INLINED void* operator new(std::size_t size) {
  void* const storage = oskernel_test::FailingHeap::allocate(size);
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}
OSKERNEL_NOT_INLINED void* operator new[](std::size_t size) { return ::operator new(size); }
OSKERNEL_NOT_INLINED void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return oskernel_test::FailingHeap::allocate(size);
}
OSKERNEL_NOT_INLINED void operator delete(void* storage) noexcept { std::free(storage); }
OSKERNEL_NOT_INLINED void operator delete[](void* storage) noexcept { std::free(storage); }
OSKERNEL_NOT_INLINED void operator delete(void* storage, std::size_t) noexcept { std::free(storage); }
OSKERNEL_NOT_INLINED void operator delete[](void* storage, std::size_t) noexcept { std::free(storage); }

#undef OSKERNEL_NOT_INLINED

#endif
