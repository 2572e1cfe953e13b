/// Whether operations are done inside a section: others wait for its holder, and the holder does not.
#ifndef OSKERNEL_TESTS_SECTION_WAIT_H
#define OSKERNEL_TESTS_SECTION_WAIT_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <vector>

#include "kernel/posixkernel.h"
#include "watched_thread.h"

namespace oskernel_test {

/// Whether the calling thread is inside the section.
inline bool is_inside(const CRITICAL_SECTION& section) {
  return section.owner_count > 0 && pthread_equal(section.owner_thread_id, pthread_self()) != 0;
}

struct GuardedOperation {
  const char* name;
  std::function<void()> operation;
};

/// Expects each operation, done by another thread, to wait while this one is inside the section, to end when
/// it has left, and to leave the section free.
inline void ExpectOthersWait(CRITICAL_SECTION& section, const std::vector<GuardedOperation>& operations) {
  for (const GuardedOperation& row : operations) {
    SCOPED_TRACE(row.name);
    EnterCriticalSection(&section);
    {
      WatchedThread other(row.operation);
      EXPECT_TRUE(other.blocked()) << "another thread got in";
      LeaveCriticalSection(&section);
    }
    EXPECT_EQ(section.owner_count, 0);
  }
}

}  // namespace oskernel_test

#endif
