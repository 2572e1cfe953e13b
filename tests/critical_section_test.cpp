// Critical sections: recursion, the owner's rules, misuse, interrupted waits, and use by many threads.

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/buffer.h"
#include "kernel/posixkernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

static_assert(std::is_same_v<decltype(CRITICAL_SECTION::sem), sem_t*>);
static_assert(std::is_same_v<decltype(CRITICAL_SECTION::owner_thread_id), pthread_t>);
static_assert(std::is_same_v<decltype(CRITICAL_SECTION::owner_count), int>);
static_assert(std::is_standard_layout_v<CRITICAL_SECTION>);
static_assert(offsetof(CRITICAL_SECTION, sem) == 0);
static_assert(offsetof(CRITICAL_SECTION, sem) < offsetof(CRITICAL_SECTION, owner_thread_id));
static_assert(offsetof(CRITICAL_SECTION, owner_thread_id) < offsetof(CRITICAL_SECTION, owner_count));

using testing::Test;

constexpr char kNotInitialized[] = "EnterCriticalSection Not Initialized";
constexpr char kNotOwner[] = "LeaveCriticalSection on one we dont own";

std::vector<std::string> fatal(const char* message) { return {message}; }

/// A section that is ready for use and gone at the end of the test.
struct Section : CRITICAL_SECTION {
  Section() { InitializeCriticalSection(this); }
};

int semaphore_value(const CRITICAL_SECTION& section) {
  int value = -1;
  if (section.sem != nullptr) sem_getvalue(section.sem, &value);
  return value;
}

/// What another thread gets from TryEnterCriticalSection. A section that it takes is given back as only the
/// semaphore allows.
BOOL another_thread_can_enter(CRITICAL_SECTION* section) {
  BOOL taken = FALSE;
  std::thread([&] {
    taken = TryEnterCriticalSection(section);
    if (taken) sem_post(section->sem);
  }).join();
  return taken;
}

class CriticalSection : public KernelTest {};

TEST_F(CriticalSection, IsNotInitialisedWhenConstructed) {
  alignas(CRITICAL_SECTION) unsigned char storage[sizeof(CRITICAL_SECTION)];
  for (unsigned char& byte : storage) byte = 0xFF;
  auto* section = new (storage) CRITICAL_SECTION;
  EXPECT_EQ(section->sem, nullptr);
  EXPECT_EQ(section->owner_thread_id, pthread_t{0});
  EXPECT_EQ(section->owner_count, 0);
  section->~CRITICAL_SECTION();
}

TEST_F(CriticalSection, InitializeMakesItFree) {
  Section section;
  EXPECT_EQ(semaphore_value(section), 1);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_EQ(section.owner_count, 0);
}

TEST_F(CriticalSection, InitializeLeavesTheOwnerFieldsAlone) {
  CRITICAL_SECTION section;
  section.owner_thread_id = pthread_self();
  section.owner_count = 7;
  InitializeCriticalSection(&section);
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 7);
  EXPECT_EQ(semaphore_value(section), 1);
}

TEST_F(CriticalSection, DeleteReleasesTheSemaphoreAndLeavesTheOwnerFieldsAlone) {
  Section section;
  EnterCriticalSection(&section);
  EnterCriticalSection(&section);
  DeleteCriticalSection(&section);
  EXPECT_EQ(section.sem, nullptr);
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 2);
}

TEST_F(CriticalSection, DeleteTwiceIsHarmless) {
  Section section;
  DeleteCriticalSection(&section);
  DeleteCriticalSection(&section);
  EXPECT_EQ(section.sem, nullptr);
}

TEST_F(CriticalSection, DeletedSectionCanBeInitialisedAgain) {
  Section section;
  EnterCriticalSection(&section);
  LeaveCriticalSection(&section);
  DeleteCriticalSection(&section);
  InitializeCriticalSection(&section);
  EnterCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 1);
  LeaveCriticalSection(&section);
  EXPECT_TRUE(console.fatals().empty());
}

// Programs free a section's semaphore, and hand one over, with the C heap's calls.
TEST_F(CriticalSection, SemaphoreComesFromTheCHeap) {
  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  ASSERT_NE(section.sem, nullptr);
  sem_destroy(section.sem);
  std::free(section.sem);
  section.sem = static_cast<sem_t*>(std::malloc(sizeof(sem_t)));
  ASSERT_NE(section.sem, nullptr);
  ASSERT_EQ(sem_init(section.sem, 0, 1), 0);
  EnterCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 1);
  LeaveCriticalSection(&section);
  DeleteCriticalSection(&section);
  EXPECT_EQ(section.sem, nullptr);
}

TEST_F(CriticalSection, EnterRecordsTheOwnerAndLeaveFreesIt) {
  Section section;
  EnterCriticalSection(&section);
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 1);
  EXPECT_EQ(semaphore_value(section), 0);
  LeaveCriticalSection(&section);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_EQ(semaphore_value(section), 1);
}

TEST_F(CriticalSection, TwoEntersNeedTwoLeaves) {
  Section section;
  EnterCriticalSection(&section);
  EnterCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 2);
  EXPECT_FALSE(another_thread_can_enter(&section));
  LeaveCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 1);
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_FALSE(another_thread_can_enter(&section));
  LeaveCriticalSection(&section);
  EXPECT_TRUE(another_thread_can_enter(&section));
}

TEST_F(CriticalSection, EnterWaitsForTheHolderToLeave) {
  Section section;
  EnterCriticalSection(&section);
  std::atomic<bool> entered{false};
  WatchedThread other([&] {
    EnterCriticalSection(&section);
    entered = true;
    EXPECT_EQ(section.owner_thread_id, pthread_self());
    LeaveCriticalSection(&section);
  });
  EXPECT_TRUE(other.blocked());
  EXPECT_FALSE(entered);
  LeaveCriticalSection(&section);
  EXPECT_TRUE(other.finished_within(10000));
  EXPECT_TRUE(entered);
}

TEST_F(CriticalSection, EnterOfAnUninitialisedOneIsFatalAndTakesNothing) {
  CRITICAL_SECTION section;
  EnterCriticalSection(&section);
  EXPECT_EQ(console.fatals(), fatal(kNotInitialized));
  EXPECT_EQ(section.sem, nullptr);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_EQ(section.owner_count, 0);
}

TEST_F(CriticalSection, EnterOfAnUninitialisedOneWithoutConsoleReturnsQuietly) {
  Console = nullptr;
  CRITICAL_SECTION section;
  EnterCriticalSection(&section);
  LeaveCriticalSection(&section);
  EXPECT_EQ(section.sem, nullptr);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(CriticalSection, LeaveOfAnUninitialisedOneDoesNothing) {
  CRITICAL_SECTION section;
  LeaveCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_TRUE(console.fatals().empty());
  EXPECT_EQ(console.text(), "");
}

// The owner is looked at before the semaphore, so a holder who deletes its section still only counts.
TEST_F(CriticalSection, HolderWhoDeletedItOnlyCounts) {
  Section section;
  EnterCriticalSection(&section);
  DeleteCriticalSection(&section);
  EnterCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 2);
  LeaveCriticalSection(&section);
  EXPECT_EQ(section.owner_count, 2);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(CriticalSection, LeaveOfAFreeOneIsFatalAndChangesNothing) {
  Section section;
  LeaveCriticalSection(&section);
  EXPECT_EQ(console.fatals(), fatal(kNotOwner));
  EXPECT_EQ(semaphore_value(section), 1);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_EQ(section.owner_count, 0);
}

TEST_F(CriticalSection, LeaveByAnotherThreadIsFatalAndReleasesNothing) {
  Section section;
  EnterCriticalSection(&section);
  std::thread([&] { LeaveCriticalSection(&section); }).join();
  EXPECT_EQ(console.fatals(), fatal(kNotOwner));
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 1);
  EXPECT_EQ(semaphore_value(section), 0);
  LeaveCriticalSection(&section);
  EXPECT_EQ(semaphore_value(section), 1);
  EXPECT_EQ(console.fatals().size(), 1u);
}

TEST_F(CriticalSection, LeaveMoreOftenThanEnterIsFatalAndDoesNotFreeItTwice) {
  Section section;
  EnterCriticalSection(&section);
  LeaveCriticalSection(&section);
  LeaveCriticalSection(&section);
  EXPECT_EQ(console.fatals(), fatal(kNotOwner));
  EXPECT_EQ(semaphore_value(section), 1);
}

TEST_F(CriticalSection, LeaveByAnotherThreadWithoutConsoleReleasesNothing) {
  Section section;
  EnterCriticalSection(&section);
  Console = nullptr;
  std::thread([&] { LeaveCriticalSection(&section); }).join();
  EXPECT_EQ(section.owner_count, 1);
  EXPECT_EQ(semaphore_value(section), 0);
  LeaveCriticalSection(&section);
}

TEST_F(CriticalSection, TryEnterByTheOwnerCountsOneDeeper) {
  Section section;
  EnterCriticalSection(&section);
  EXPECT_EQ(TryEnterCriticalSection(&section), 1);
  EXPECT_EQ(section.owner_count, 2);
  LeaveCriticalSection(&section);
  EXPECT_FALSE(another_thread_can_enter(&section));
  LeaveCriticalSection(&section);
  EXPECT_TRUE(another_thread_can_enter(&section));
}

TEST_F(CriticalSection, TryEnterOfAHeldOneReturnsZeroAtOnce) {
  Section section;
  EnterCriticalSection(&section);
  BOOL taken = TRUE;
  std::thread([&] { taken = TryEnterCriticalSection(&section); }).join();
  EXPECT_EQ(taken, 0);
  EXPECT_EQ(section.owner_thread_id, pthread_self());
  EXPECT_EQ(section.owner_count, 1);
  LeaveCriticalSection(&section);
}

TEST_F(CriticalSection, TryEnterRecordsNoOwner) {
  Section section;
  BOOL taken = FALSE;
  std::thread([&] { taken = TryEnterCriticalSection(&section); }).join();
  EXPECT_EQ(taken, 1);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_EQ(semaphore_value(section), 0);
}

TEST_F(CriticalSection, LeaveAfterTryEnterIsFatalAndReleasesNothing) {
  Section section;
  ASSERT_EQ(TryEnterCriticalSection(&section), 1);
  LeaveCriticalSection(&section);
  EXPECT_EQ(console.fatals(), fatal(kNotOwner));
  EXPECT_EQ(semaphore_value(section), 0);
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_FALSE(another_thread_can_enter(&section));
}

TEST_F(CriticalSection, TryEnterOfAnUninitialisedOneReturnsZero) {
  CRITICAL_SECTION section;
  EXPECT_EQ(TryEnterCriticalSection(&section), 0);
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(CriticalSection, SecondTryEnterByTheSameThreadFails) {
  Section section;
  ASSERT_EQ(TryEnterCriticalSection(&section), 1);
  EXPECT_EQ(TryEnterCriticalSection(&section), 0);
}

TEST_F(CriticalSection, InterruptedEnterIsPrintedAndTheSectionIsStillTaken) {
  const InterruptingHandler handler(SIGUSR1);
  const std::string line = "EnterCriticalSection - sem_wait error " + std::to_string(EINTR);
  Section section;
  EnterCriticalSection(&section);
  std::atomic<bool> entered{false};
  WatchedThread other([&] {
    EnterCriticalSection(&section);
    entered = section.owner_thread_id == pthread_self() && section.owner_count == 1;
    LeaveCriticalSection(&section);
  });
  EXPECT_TRUE(other.interrupt_until(SIGUSR1, [&] { return console.count(line) >= 3; }));
  EXPECT_FALSE(other.finished());
  EXPECT_EQ(semaphore_value(section), 0);
  LeaveCriticalSection(&section);
  EXPECT_TRUE(other.finished_within(10000));
  EXPECT_TRUE(entered);
  for (const std::string& call : console.calls()) EXPECT_EQ(call, line);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(CriticalSection, InterruptedEnterWithoutConsoleStillTakesTheSection) {
  const InterruptingHandler handler(SIGUSR1);
  Console = nullptr;
  Section section;
  EnterCriticalSection(&section);
  std::atomic<bool> entered{false};
  WatchedThread other([&] {
    EnterCriticalSection(&section);
    entered = true;
    LeaveCriticalSection(&section);
  });
  EXPECT_TRUE(other.blocked());
  int sent = 0;
  EXPECT_TRUE(other.interrupt_until(SIGUSR1, [&] { return ++sent > 20; }));
  EXPECT_FALSE(entered);
  LeaveCriticalSection(&section);
  EXPECT_TRUE(other.finished_within(10000));
  EXPECT_TRUE(entered);
}

TEST_F(CriticalSection, KeepsThreadsApart) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  Section section;
  int counter = 0;  // no atomic: the section is all that protects it
  std::vector<std::unique_ptr<WatchedThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<WatchedThread>([&] {
      for (int i = 0; i < kRounds; ++i) {
        EnterCriticalSection(&section);
        const int before = counter;
        EnterCriticalSection(&section);
        counter = before + 1;
        if (TryEnterCriticalSection(&section)) LeaveCriticalSection(&section);
        LeaveCriticalSection(&section);
        LeaveCriticalSection(&section);
      }
    }));
  }
  threads.clear();
  EXPECT_EQ(counter, kThreads * kRounds);
  EXPECT_EQ(semaphore_value(section), 1);
  EXPECT_EQ(section.owner_count, 0);
  EXPECT_EQ(section.owner_thread_id, pthread_t{0});
  EXPECT_TRUE(console.fatals().empty());
  EXPECT_EQ(console.text(), "");
}

// The thread that has left must not look at the section again: the next one to enter may delete it.
TEST_F(CriticalSection, WhoeverEntersNextMayDeleteIt) {
  for (int round = 0; round < 500; ++round) {
    auto section = std::make_unique<Section>();
    EnterCriticalSection(section.get());
    std::thread other([&] {
      EnterCriticalSection(section.get());
      LeaveCriticalSection(section.get());
      section.reset();
    });
    CRITICAL_SECTION* held = section.get();
    LeaveCriticalSection(held);
    other.join();
    EXPECT_EQ(section, nullptr);
  }
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(CriticalSection, ManySectionsAreIndependent) {
  std::vector<Section> sections(100);
  for (Section& section : sections) EnterCriticalSection(&section);
  std::thread([&] {
    Section own;
    EnterCriticalSection(&own);
    LeaveCriticalSection(&own);
  }).join();
  for (Section& section : sections) {
    EXPECT_FALSE(another_thread_can_enter(&section));
    LeaveCriticalSection(&section);
  }
  EXPECT_TRUE(console.fatals().empty());
}

#if defined(OSKERNEL_CHECK_LOCK_ORDER)

class SectionOrder : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    StartQuiet();
  }
};

TEST_F(SectionOrder, KernelSectionsMayBeEnteredInTheirOrderAndAgainWhileHeld) {
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  EnterCriticalSection(&OS_CRITICAL_BUFFERS);
  EnterCriticalSection(&OS_CRITICAL_LINK);
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  LeaveCriticalSection(&OS_CRITICAL_BUFFERS);
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
  // What is left again is no longer in the way.
  EnterCriticalSection(&OS_CRITICAL_LINK);
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
}

TEST_F(SectionOrder, AProgramsOwnSectionsHaveNoPlaceInIt) {
  Section own;
  EnterCriticalSection(&OS_CRITICAL_LINK);
  EnterCriticalSection(&own);
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
  LeaveCriticalSection(&own);
}

TEST_F(SectionOrder, EnteringBackwardsEndsTheProgramThoughNobodyIsInTheWay) {
  const auto backwards = [](CRITICAL_SECTION* held, CRITICAL_SECTION* entered) {
    EnterCriticalSection(held);
    EnterCriticalSection(entered);
  };
  EXPECT_DEATH(backwards(&OS_CRITICAL_LINK, &OS_CRITICAL_TRIGGER),
               "OS_CRITICAL_TRIGGER is entered by a thread that holds OS_CRITICAL_LINK: wrong order");
  EXPECT_DEATH(backwards(&OS_CRITICAL_LINK, &OS_CRITICAL_BUFFERS),
               "OS_CRITICAL_BUFFERS is entered by a thread that holds OS_CRITICAL_LINK: wrong order");
  EXPECT_DEATH(backwards(&OS_CRITICAL_TASK, &OS_CRITICAL_TRIGGER),
               "OS_CRITICAL_TRIGGER is entered by a thread that holds OS_CRITICAL_TASK: wrong order");
}

#endif

}  // namespace
}  // namespace oskernel_test
