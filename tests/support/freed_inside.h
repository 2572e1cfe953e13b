/// Whether a buffer is freed inside a section.
#ifndef OSKERNEL_TESTS_FREED_INSIDE_H
#define OSKERNEL_TESTS_FREED_INSIDE_H

#include <pthread.h>

#include "kernel/posixkernel.h"
#include "kernel/types.h"

namespace oskernel_test {

/// `note` is given to a buffer as a callback, with this object as its address.
struct FreedInside {
  static void note(OSObj*, ADDR self, ULONG) {
    auto* freed = static_cast<FreedInside*>(self);
    ++freed->calls;
    // Only the holder writes its own number there.
    const pthread_t owner = __atomic_load_n(&freed->section->owner_thread_id, __ATOMIC_RELAXED);
    if (owner == pthread_self()) ++freed->inside;
  }

  CRITICAL_SECTION* section;
  int calls = 0;
  int inside = 0;
};

}  // namespace oskernel_test

#endif
