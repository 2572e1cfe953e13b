/// Objects whose storage stays behind when they are destroyed, to see that nobody writes to the dead.
#ifndef OSKERNEL_TESTS_GRAVEYARD_H
#define OSKERNEL_TESTS_GRAVEYARD_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <new>

namespace oskernel_test {

/// A Kind of which one object at a time lives, in storage that outlasts it. The storage is filled with dust when
/// the object goes, so who still reads it finds nonsense, and who writes to it leaves a trace.
template <class Kind>
class Mortal : public Kind {
 public:
  using Kind::Kind;

  static void* operator new(std::size_t bytes) {
    if (bytes > sizeof grave_) throw std::bad_alloc();
    return grave_;
  }
  static void operator delete(void* at) noexcept { std::memset(at, kDust, sizeof grave_); }

  /// An object has lived here, and nobody has written to it since it went.
  static bool rests_in_peace() {
    return std::all_of(std::begin(grave_), std::end(grave_),
                       [](unsigned char byte) { return byte == kDust; });
  }

 private:
  static constexpr unsigned char kDust = 0x5A;
  alignas(std::max_align_t) static inline unsigned char grave_[512];
};

}  // namespace oskernel_test

#endif
