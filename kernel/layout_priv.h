/// Where the fields stand in 32-bit programs. Programs built long ago reach them by offset, so a field that moves breaks
/// them without a word from compiler or loader; here it stops the build. What programs do not name, the library's own
/// state, stands behind the fields of its class. The 64-bit layouts follow from the same declarations.
#ifndef OSKERNEL_LAYOUT_PRIV_H
#define OSKERNEL_LAYOUT_PRIV_H

#include <cstddef>

// Conditionally supported for classes with virtual operations; GCC and Clang support it (Itanium C++ ABI, 2.4).
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define OSKERNEL_STANDS_AT(type, field, offset) \
  static_assert(sizeof(void*) != 4 || offsetof(type, field) == (offset), #type "::" #field " has moved")

#endif
