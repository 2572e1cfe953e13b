/// The slot that a virtual operation has: programs built against an older library call by slot.
#ifndef OSKERNEL_TESTS_VTABLE_SLOT_H
#define OSKERNEL_TESTS_VTABLE_SLOT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace oskernel_test {

/// Slots count from 0; a virtual destructor takes two (Itanium C++ ABI, 2.3 and 2.5.2). Returns -1 for an
/// operation that is not virtual.
template <class Member>
int vtable_slot(Member member) {
  struct Pointer {
    std::uintptr_t ptr;
    std::uintptr_t adjustment;
  } pointer;
  static_assert(sizeof member == sizeof pointer, "pointers to members are two words");
  std::memcpy(&pointer, &member, sizeof pointer);
#if defined(__arm__) || defined(__aarch64__)
  // On ARM the lowest bit of a code address means something else, so the mark stands in the adjustment.
  if ((pointer.adjustment & 1) == 0) return -1;
  return static_cast<int>(pointer.ptr / sizeof(void*));
#else
  if ((pointer.ptr & 1) == 0) return -1;
  return static_cast<int>((pointer.ptr - 1) / sizeof(void*));
#endif
}

}  // namespace oskernel_test

#endif
