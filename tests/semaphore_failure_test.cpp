// Semaphores whose calls fail, as they do when a section or an event has been overwritten: what is printed, and
// what the caller gets.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <cerrno>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "support/kernel_fixture.h"

namespace {

/// The errors that this thread's next calls for one semaphore fail with, and how many have done so.
struct Failures {
  const sem_t* sem = nullptr;
  std::vector<int> next;
  int delivered = 0;

  bool deliver(const sem_t* called_for) {
    if (called_for != sem || next.empty()) return false;
    errno = next.front();
    next.erase(next.begin());
    ++delivered;
    return true;
  }
};

/// How often this thread has looked at one semaphore without blocking.
struct Looks {
  const sem_t* sem = nullptr;
  int count = 0;
};

thread_local Looks looks;
thread_local Failures wait_failures;
thread_local Failures try_failures;

int call_next(const char* name, sem_t* sem) {
  using Call = int (*)(sem_t*);
  return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name))(sem);
}

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" {

__attribute__((visibility("default"))) int sem_wait(sem_t* sem) {
  return wait_failures.deliver(sem) ? -1 : call_next("sem_wait", sem);
}

__attribute__((visibility("default"))) int sem_trywait(sem_t* sem) {
  if (sem == looks.sem) ++looks.count;
  return try_failures.deliver(sem) ? -1 : call_next("sem_trywait", sem);
}

}  // extern "C"

namespace oskernel_test {
namespace {

constexpr unsigned int kForEver = 0xFFFFFFFF;

class SemaphoreFailure : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    InitializeCriticalSection(&section);
    event = CreateEvent(nullptr, false, false, nullptr);
    event_sem = KernelEvent::Find(event)->sem;
  }
  void TearDown() override {
    wait_failures = {};
    try_failures = {};
    looks = {};
    CloseHandle(event);
    KernelTest::TearDown();
  }

  CRITICAL_SECTION section;
  HANDLE event = 0;
  const sem_t* event_sem = nullptr;
};

TEST_F(SemaphoreFailure, EnterRetriesAfterEachInterruption) {
  wait_failures = {section.sem, {EINTR, EINTR, EINTR}};
  EnterCriticalSection(&section);
  EXPECT_EQ(wait_failures.delivered, 3);
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 1);
  int value = -1;
  sem_getvalue(section.sem, &value);
  EXPECT_EQ(value, 0);
  const std::string line = "EnterCriticalSection - sem_wait error 4";
  EXPECT_EQ(console.calls(), (std::vector<std::string>{line, line, line}));
  LeaveCriticalSection(&section);
  sem_getvalue(section.sem, &value);
  EXPECT_EQ(value, 1);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(SemaphoreFailure, EnterTakesTheSectionAnywayAfterAnyOtherError) {
  wait_failures = {section.sem, {EINVAL}};
  EnterCriticalSection(&section);
  EXPECT_EQ(wait_failures.delivered, 1);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{"EnterCriticalSection - sem_wait error 22"}));
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 1);
  int value = -1;
  sem_getvalue(section.sem, &value);
  EXPECT_EQ(value, 1);  // it was not waited for
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(SemaphoreFailure, EnterPrintsEveryErrorUntilOneEndsTheWait) {
  wait_failures = {section.sem, {EINTR, EINVAL}};
  EnterCriticalSection(&section);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{"EnterCriticalSection - sem_wait error 4",
                                                       "EnterCriticalSection - sem_wait error 22"}));
  EXPECT_EQ(section.owner_count, 1);
}

TEST_F(SemaphoreFailure, EnterWithoutConsoleKeepsTheSameRules) {
  Console = nullptr;
  wait_failures = {section.sem, {EINTR, EINVAL}};
  EnterCriticalSection(&section);
  EXPECT_EQ(wait_failures.delivered, 2);
  EXPECT_EQ(section.owner_count, 1);
}

TEST_F(SemaphoreFailure, TryEnterThatFailsTakesNothing) {
  try_failures = {section.sem, {EINVAL}};
  EXPECT_EQ(TryEnterCriticalSection(&section), 0);
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_EQ(console.text(), "");
}

struct Row {
  int error;
  DWORD result;
};

constexpr Row kWaitResults[] = {{0, 0}, {ETIMEDOUT, 110}, {EINTR, 128}, {EINVAL, 128}, {EOVERFLOW, 128}};

TEST_F(SemaphoreFailure, WaitForEverTurnsTheErrorIntoItsResult) {
  for (const Row& row : kWaitResults) {
    SCOPED_TRACE(row.error);
    SetEvent(event);  // so that a wait that does not fail ends too
    wait_failures = {event_sem, {row.error}};
    EXPECT_EQ(WaitForSingleObject(event, kForEver), row.result);
    EXPECT_EQ(wait_failures.delivered, 1);
    EXPECT_EQ(WaitForSingleObject(event, 0), 0u) << "a failed wait takes no signal";
  }
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(SemaphoreFailure, FiniteWaitTurnsTheErrorIntoItsResult) {
  for (const Row& row : kWaitResults) {
    SCOPED_TRACE(row.error);
    SetEvent(event);
    try_failures = {event_sem, {row.error}};
    EXPECT_EQ(WaitForSingleObject(event, 1000), row.result);
    EXPECT_EQ(try_failures.delivered, 1);
    EXPECT_EQ(WaitForSingleObject(event, 0), 0u) << "a failed try takes no signal";
  }
}

TEST_F(SemaphoreFailure, FiniteWaitGoesOnWhileTheEventIsNotSignalled) {
  try_failures = {event_sem, {EAGAIN}};
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 5000), 0u);
  EXPECT_EQ(WaitForSingleObject(event, 0), 110u);
}

// Long enough to cross the end of a second, where the fraction of the next deadline carries over.
TEST_F(SemaphoreFailure, FiniteWaitLooksOnceASliceAndDoesNotSpin) {
  constexpr int kWaited_ms = 1200;
  looks = {event_sem, 0};
  EXPECT_EQ(WaitForSingleObject(event, kWaited_ms), 110u);
  EXPECT_GE(looks.count, 2);
  EXPECT_LE(looks.count, 2 * kWaited_ms / 10);
}

}  // namespace
}  // namespace oskernel_test
