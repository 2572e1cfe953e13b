// Events, sleeps and the empty hooks: counting signals, handles, time-outs, and many threads on one handle.

#include <gtest/gtest.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/seed.h"
#include "support/vtable_slot.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

constexpr unsigned int kForEver = 0xFFFFFFFF;
constexpr DWORD kTaken = 0;
constexpr DWORD kTimedOut = 110;
constexpr DWORD kFailed = 128;
constexpr HANDLE kLastHandle = std::numeric_limits<HANDLE>::max();

static_assert(std::is_base_of_v<OSLink, KernelEvent>);
static_assert(std::is_same_v<decltype(KernelEvent::handle), HANDLE>);
static_assert(std::is_same_v<decltype(KernelEvent::sem), sem_t*>);
static_assert(std::is_same_v<decltype(KernelEvent::nextHandle), HANDLE>);
static_assert(std::is_same_v<decltype(KernelEvent::eventList), OSLinkList>);
static_assert(std::is_same_v<HANDLE, std::int32_t>);

HANDLE new_event() { return CreateEvent(nullptr, false, false, nullptr); }

double now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

class Event : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    next_handle_ = KernelEvent::nextHandle;
  }
  void TearDown() override {
    EXPECT_TRUE(console.fatals().empty() || fatals_expected_);
    if (KernelEvent::nextHandle < next_handle_) KernelEvent::nextHandle = next_handle_;
    KernelTest::TearDown();
  }

  bool fatals_expected_ = false;

 private:
  HANDLE next_handle_ = 0;
};

// ---- One thread --------------------------------------------------------------------------------------------

TEST_F(Event, StartsWithoutASignal) {
  const HANDLE event = new_event();
  EXPECT_GT(event, 0);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  EXPECT_EQ(CloseHandle(event), 1);
}

TEST_F(Event, CountsItsSignals) {
  const HANDLE event = new_event();
  EXPECT_EQ(SetEvent(event), 1);
  EXPECT_EQ(SetEvent(event), 1);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTaken);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTaken);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  CloseHandle(event);
}

TEST_F(Event, LosesNoneOfManySignals) {
  constexpr int kSignals = 10000;
  const HANDLE event = new_event();
  for (int i = 0; i < kSignals; ++i) ASSERT_EQ(SetEvent(event), 1);
  for (int i = 0; i < kSignals; ++i) {
    ASSERT_EQ(WaitForSingleObject(event, i % 3 == 0 ? 0 : i % 3 == 1 ? 1000 : kForEver), kTaken);
  }
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  CloseHandle(event);
}

TEST_F(Event, IgnoresEveryArgumentOfCreateEvent) {
  int security = 0;
  const HANDLE first = CreateEvent(&security, true, true, "name");
  const HANDLE second = CreateEvent(&security, true, true, "name");
  EXPECT_NE(first, second) << "a name does not find an existing event";
  EXPECT_EQ(WaitForSingleObject(first, 0), kTimedOut) << "no initial signal";
  SetEvent(first);
  EXPECT_EQ(WaitForSingleObject(second, 0), kTimedOut);
  EXPECT_EQ(WaitForSingleObject(first, 0), kTaken);
  EXPECT_EQ(WaitForSingleObject(first, 0), kTimedOut) << "no manual reset";
  CloseHandle(first);
  CloseHandle(second);
}

TEST_F(Event, HandlesCountUpward) {
  HANDLE before = new_event();
  for (int i = 0; i < 100; ++i) {
    const HANDLE event = new_event();
    EXPECT_EQ(event, before + 1);
    EXPECT_EQ(KernelEvent::nextHandle, event + 1);
    CloseHandle(before);
    before = event;
  }
  CloseHandle(before);
}

TEST_F(Event, NumbersOfClosedHandlesAreNotHandedOutAgain) {
  const HANDLE first = new_event();
  CloseHandle(first);
  for (int i = 1; i <= 50; ++i) {
    const HANDLE event = new_event();
    EXPECT_EQ(event, first + i);
    CloseHandle(event);
  }
  EXPECT_EQ(WaitForSingleObject(first, 0), kFailed);
}

TEST_F(Event, HandlesGoOnCountingAfterAnotherStart) {
  const HANDLE before = new_event();
  Stop();
  Start();
  const HANDLE after = new_event();
  EXPECT_GT(after, before);
  EXPECT_EQ(SetEvent(before), 0);
}

TEST_F(Event, UnknownHandlesAreRefusedQuietly) {
  const HANDLE closed = new_event();
  SetEvent(closed);
  EXPECT_EQ(CloseHandle(closed), 1);
  for (const HANDLE unknown :
       {closed, KernelEvent::nextHandle, kLastHandle, HANDLE{-1}, std::numeric_limits<HANDLE>::min()}) {
    SCOPED_TRACE(unknown);
    EXPECT_EQ(SetEvent(unknown), 0);
    EXPECT_EQ(CloseHandle(unknown), 0);
    EXPECT_EQ(WaitForSingleObject(unknown, 0), kFailed);
    EXPECT_EQ(WaitForSingleObject(unknown, 1000), kFailed);
    EXPECT_EQ(WaitForSingleObject(unknown, kForEver), kFailed);
    EXPECT_EQ(KernelEvent::Find(unknown), nullptr);
  }
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(Event, WaitOnHandleZeroIsFatal) {
  fatals_expected_ = true;
  EXPECT_EQ(WaitForSingleObject(0, 0), kFailed);
  EXPECT_EQ(console.fatals(), (std::vector<std::string>{"WaitForSingleObject Bad Handle"}));
  EXPECT_EQ(WaitForSingleObject(0, kForEver), kFailed);
  EXPECT_EQ(console.fatals().size(), 2u);
}

TEST_F(Event, WaitOnHandleZeroWithoutConsoleFails) {
  Console = nullptr;
  EXPECT_EQ(WaitForSingleObject(0, 0), kFailed);
}

TEST_F(Event, SetAndCloseOfHandleZeroAreRefusedQuietly) {
  EXPECT_EQ(SetEvent(0), 0);
  EXPECT_EQ(CloseHandle(0), 0);
  EXPECT_EQ(KernelEvent::Find(0), nullptr);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(Event, CloseForgetsSignalsThatNobodyTook) {
  const HANDLE event = new_event();
  SetEvent(event);
  EXPECT_EQ(CloseHandle(event), 1);
  EXPECT_EQ(CloseHandle(event), 0);
  EXPECT_EQ(WaitForSingleObject(event, 0), kFailed);
}

// ---- The registry ------------------------------------------------------------------------------------------

TEST_F(Event, RegistersItselfWhileItLives) {
  const int live = KernelEvent::eventList.Size();
  auto first = std::make_unique<KernelEvent>();
  auto second = std::make_unique<KernelEvent>();
  EXPECT_EQ(KernelEvent::eventList.Size(), live + 2);
  EXPECT_EQ(second->handle, first->handle + 1);
  EXPECT_EQ(KernelEvent::Find(first->handle), first.get());
  EXPECT_EQ(KernelEvent::Find(second->handle), second.get());
  EXPECT_EQ(KernelEvent::eventList.Last(), second.get())
      << "the event is itself the link, appended at the end";
  EXPECT_NE(second->object, nullptr);
  const HANDLE gone = first->handle;
  first.reset();
  EXPECT_EQ(KernelEvent::Find(gone), nullptr);
  EXPECT_EQ(KernelEvent::eventList.Size(), live + 1);
  second.reset();
  EXPECT_EQ(KernelEvent::eventList.Size(), live);
}

TEST_F(Event, FindReturnsTheEventBehindAHandle) {
  const HANDLE event = new_event();
  KernelEvent* found = KernelEvent::Find(event);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->handle, event);
  ASSERT_NE(found->sem, nullptr);
  int value = -1;
  sem_getvalue(found->sem, &value);
  EXPECT_EQ(value, 0);
  SetEvent(event);
  SetEvent(event);
  sem_getvalue(found->sem, &value);
  EXPECT_EQ(value, 2);
  CloseHandle(event);
}

TEST_F(Event, FieldsStandAfterTheLinkInTheirOrder) {
  KernelEvent event;
  const auto* start = reinterpret_cast<const char*>(&event);
  const auto* handle = reinterpret_cast<const char*>(&event.handle);
  const auto* sem = reinterpret_cast<const char*>(&event.sem);
  EXPECT_EQ(static_cast<OSLink*>(&event), static_cast<void*>(&event));
  EXPECT_GT(handle, start);
  EXPECT_GT(handle, reinterpret_cast<const char*>(&event.isFree));
  EXPECT_GT(sem, handle);
}

TEST_F(Event, AddsNoSlotsToTheLink) {
  EXPECT_EQ(vtable_slot(&KernelEvent::Flush), 2);
  EXPECT_EQ(vtable_slot(&KernelEvent::Free), 3);
}

TEST_F(Event, StopDeletesEveryEventThatIsLeft) {
  std::vector<HANDLE> events;
  for (int i = 0; i < 20; ++i) events.push_back(new_event());
  SetEvent(events.front());
  Stop();
  EXPECT_EQ(KernelEvent::eventList.Size(), 0);
  EXPECT_TRUE(KernelEvent::eventList.IsEmpty());
  Start();
  for (const HANDLE event : events) {
    EXPECT_EQ(KernelEvent::Find(event), nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), kFailed);
    EXPECT_EQ(CloseHandle(event), 0);
  }
}

TEST_F(Event, StopEndsAtAFirstLinkThatHoldsNoObject) {
  while (OSLink* const left = KernelEvent::eventList.First()) delete static_cast<KernelEvent*>(left);
  KernelEvent first;
  KernelEvent second;
  void* const object = first.object;
  first.object = nullptr;
  Stop();
  EXPECT_EQ(KernelEvent::eventList.First(), &first);
  EXPECT_EQ(KernelEvent::eventList.Last(), &second);
  first.object = object;
}

TEST_F(Event, HandlesStartAgainAtOneAfterTheLargest) {
  KernelEvent::nextHandle = kLastHandle;
  const HANDLE last = new_event();
  EXPECT_EQ(last, kLastHandle);
  HANDLE lowest = 1;
  while (KernelEvent::Find(lowest) != nullptr) ++lowest;
  const HANDLE first = new_event();
  EXPECT_EQ(first, lowest);
  SetEvent(last);
  EXPECT_EQ(WaitForSingleObject(first, 0), kTimedOut);
  EXPECT_EQ(WaitForSingleObject(last, 0), kTaken);
  EXPECT_EQ(CloseHandle(first), 1);
  EXPECT_EQ(CloseHandle(last), 1);
}

TEST_F(Event, HandlesSkipLiveOnesAfterTheLargest) {
  // Live: five in a row, then one that is free, then one live.
  std::vector<HANDLE> live;
  for (int i = 0; i < 7; ++i) live.push_back(new_event());
  CloseHandle(live[5]);
  KernelEvent::nextHandle = live[0];
  EXPECT_EQ(new_event(), live[5]);
  const HANDLE behind = new_event();
  EXPECT_EQ(behind, live[6] + 1);
  for (const HANDLE event : live) EXPECT_NE(KernelEvent::Find(event), nullptr);
}

TEST_F(Event, LargestHandleIsSkippedWhileItLives) {
  KernelEvent::nextHandle = kLastHandle;
  EXPECT_EQ(new_event(), kLastHandle);
  KernelEvent::nextHandle = kLastHandle;
  HANDLE lowest = 1;
  while (KernelEvent::Find(lowest) != nullptr) ++lowest;
  EXPECT_EQ(new_event(), lowest);
  EXPECT_EQ(CloseHandle(kLastHandle), 1);
}

TEST_F(Event, NoHandleIsLiveTwiceThroughTheWrap) {
  std::vector<HANDLE> live;
  KernelEvent::nextHandle = kLastHandle - 20;
  for (int i = 0; i < 60; ++i) live.push_back(new_event());
  for (const HANDLE event : live) EXPECT_GT(event, 0);
  std::sort(live.begin(), live.end());
  EXPECT_EQ(std::adjacent_find(live.begin(), live.end()), live.end());
}

// ---- Time-outs ---------------------------------------------------------------------------------------------

TEST_F(Event, TimeOutIsNotShorterThanAsked) {
  const HANDLE event = new_event();
  for (const unsigned int timeout : {1u, 9u, 10u, 11u, 55u}) {
    SCOPED_TRACE(timeout);
    const ULONG start = os_clock();
    EXPECT_EQ(WaitForSingleObject(event, timeout), kTimedOut);
    const ULONG lasted = os_clock() - start;
    EXPECT_GE(lasted, timeout);
    EXPECT_LT(lasted, timeout + 10000);
  }
  CloseHandle(event);
}

TEST_F(Event, TimeOutOfZeroTestsOnce) {
  const HANDLE event = new_event();
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTaken);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  CloseHandle(event);
}

TEST_F(Event, LargestFiniteTimeOutTakesASignal) {
  const HANDLE event = new_event();
  for (const unsigned int timeout : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu}) {
    SCOPED_TRACE(timeout);
    DWORD result = kFailed;
    WatchedThread waiter([&] { result = WaitForSingleObject(event, timeout); });
    EXPECT_TRUE(waiter.blocked());
    SetEvent(event);
    ASSERT_TRUE(waiter.finished_within(10000));
    EXPECT_EQ(result, kTaken);
  }
  CloseHandle(event);
}

// A wait that polled every 10 ms would be late by 5 ms on average. Half of the waits must be clearly faster;
// a machine that is busy with other things gets several chances to show it.
TEST_F(Event, FiniteWaitTakesASignalAsSoonAsItComes) {
  constexpr int kTries = 15;
  const HANDLE event = new_event();
  double best_median = 1e9;
  for (int attempt = 0; attempt < 8 && best_median >= 2.5; ++attempt) {
    std::vector<double> late;
    for (int i = 0; i < kTries; ++i) {
      double woken_at = 0;
      double set_at = 0;
      {
        WatchedThread waiter([&] {
          EXPECT_EQ(WaitForSingleObject(event, 30000), kTaken);
          woken_at = now_ms();
        });
        ASSERT_TRUE(waiter.blocked());
        set_at = now_ms();
        SetEvent(event);
        ASSERT_TRUE(waiter.finished_within(10000));
      }
      late.push_back(woken_at - set_at);
      EXPECT_LT(late.back(), 1000.0);
    }
    std::sort(late.begin(), late.end());
    best_median = std::min(best_median, late[kTries / 2]);
  }
  EXPECT_LT(best_median, 2.5);
  CloseHandle(event);
}

// ---- Interrupted waits -------------------------------------------------------------------------------------

TEST_F(Event, WaitForEverThatASignalHandlerInterruptsFails) {
  const InterruptingHandler handler(SIGUSR1);
  const HANDLE event = new_event();
  std::atomic<DWORD> result{kTaken};
  WatchedThread waiter([&] { result = WaitForSingleObject(event, kForEver); });
  EXPECT_TRUE(waiter.interrupt_until(SIGUSR1, [&] { return waiter.finished(); }));
  EXPECT_EQ(result, kFailed);
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTaken) << "the event is as it was";
  CloseHandle(event);
}

TEST_F(Event, FiniteWaitGoesOnAfterASignalHandler) {
  const InterruptingHandler handler(SIGUSR1);
  const HANDLE event = new_event();
  std::atomic<DWORD> result{kFailed};
  WatchedThread waiter([&] { result = WaitForSingleObject(event, 60000); });
  EXPECT_TRUE(waiter.blocked());
  int sent = 0;
  EXPECT_TRUE(waiter.interrupt_until(SIGUSR1, [&] { return ++sent > 30; }));
  EXPECT_FALSE(waiter.finished());
  SetEvent(event);
  EXPECT_TRUE(waiter.finished_within(10000));
  EXPECT_EQ(result, kTaken);
  CloseHandle(event);
}

TEST_F(Event, SignalHandlersDoNotShortenATimeOut) {
  const InterruptingHandler handler(SIGUSR1);
  const HANDLE event = new_event();
  std::atomic<ULONG> lasted{0};
  std::atomic<DWORD> result{kFailed};
  WatchedThread waiter([&] {
    const ULONG start = os_clock();
    result = WaitForSingleObject(event, 80);
    lasted = os_clock() - start;
  });
  EXPECT_TRUE(waiter.interrupt_until(SIGUSR1, [&] { return waiter.finished(); }));
  EXPECT_EQ(result, kTimedOut);
  EXPECT_GE(lasted, 80u);
  CloseHandle(event);
}

// ---- Several threads ---------------------------------------------------------------------------------------

TEST_F(Event, EachSignalReleasesOneWaiter) {
  constexpr int kWaiters = 6;
  const HANDLE event = new_event();
  std::atomic<int> released{0};
  {
    std::vector<std::unique_ptr<WatchedThread>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
      const unsigned int timeout = i % 2 == 0 ? kForEver : 60000;
      waiters.push_back(std::make_unique<WatchedThread>([&, timeout] {
        EXPECT_EQ(WaitForSingleObject(event, timeout), kTaken);
        ++released;
      }));
    }
    for (auto& waiter : waiters) EXPECT_TRUE(waiter->blocked());
    for (int i = 1; i <= kWaiters; ++i) {
      SetEvent(event);
      EXPECT_TRUE(wait_until([&] { return released >= i; }));
      EXPECT_EQ(released, i);
    }
  }
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  CloseHandle(event);
}

TEST_F(Event, NoSignalIsLostBetweenManyThreads) {
  constexpr int kThreads = 3;
  constexpr int kSignals = 4000;
  const HANDLE event = new_event();
  std::atomic<int> taken{0};
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<WatchedThread>([&] {
        for (int i = 0; i < kSignals; ++i) EXPECT_EQ(SetEvent(event), 1);
      }));
      threads.push_back(std::make_unique<WatchedThread>([&] {
        for (int i = 0; i < kSignals;) {
          const DWORD result = WaitForSingleObject(event, i % 4 == 0 ? 0 : i % 4 == 1 ? 1 : kForEver);
          if (result == kTaken) {
            ++taken;
            ++i;
          } else if (result == kTimedOut) {
            // Only the finite waits may time out, then this one takes its signal for certain.
            EXPECT_LT(i % 4, 2);
            EXPECT_EQ(WaitForSingleObject(event, kForEver), kTaken);
            ++taken;
            ++i;
          } else {
            ADD_FAILURE() << "result " << result;
            return;
          }
        }
      }));
    }
  }
  EXPECT_EQ(taken, kThreads * kSignals);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  CloseHandle(event);
}

TEST_F(Event, CloseEndsEveryWaitOnIt) {
  const HANDLE event = new_event();
  std::vector<std::atomic<DWORD>> results(6);
  {
    std::vector<std::unique_ptr<WatchedThread>> waiters;
    for (std::size_t i = 0; i < results.size(); ++i) {
      results[i] = kTaken;
      const unsigned int timeout = i % 2 == 0 ? kForEver : 600000;
      waiters.push_back(std::make_unique<WatchedThread>(
          [&, i, timeout] { results[i] = WaitForSingleObject(event, timeout); }));
    }
    for (auto& waiter : waiters) EXPECT_TRUE(waiter->blocked());
    EXPECT_EQ(CloseHandle(event), 1);
    for (auto& waiter : waiters) EXPECT_TRUE(waiter->finished_within(10000));
  }
  for (auto& result : results) EXPECT_EQ(result, kFailed);
}

TEST_F(Event, SignalsPostedBeforeACloseStillReachTheWaiters) {
  for (int round = 0; round < 20; ++round) {
    const HANDLE event = new_event();
    std::atomic<int> taken{0};
    std::atomic<int> failed{0};
    {
      std::vector<std::unique_ptr<WatchedThread>> waiters;
      for (int i = 0; i < 5; ++i) {
        const unsigned int timeout = i % 2 == 0 ? kForEver : 600000;
        waiters.push_back(std::make_unique<WatchedThread>([&, timeout] {
          const DWORD result = WaitForSingleObject(event, timeout);
          if (result == kTaken) ++taken;
          if (result == kFailed) ++failed;
        }));
      }
      for (auto& waiter : waiters) ASSERT_TRUE(waiter->blocked());
      for (int i = 0; i < 3; ++i) EXPECT_EQ(SetEvent(event), 1);
      EXPECT_EQ(CloseHandle(event), 1);
      EXPECT_EQ(SetEvent(event), 0);
      for (auto& waiter : waiters) EXPECT_TRUE(waiter->finished_within(10000));
    }
    EXPECT_EQ(taken, 3);
    EXPECT_EQ(failed, 2);
  }
}

TEST_F(Event, DeletingTheObjectEndsTheWaitsToo) {
  auto event = std::make_unique<KernelEvent>();
  const HANDLE handle = event->handle;
  std::atomic<DWORD> result{kTaken};
  WatchedThread waiter([&] { result = WaitForSingleObject(handle, kForEver); });
  EXPECT_TRUE(waiter.blocked());
  event.reset();
  EXPECT_TRUE(waiter.finished_within(10000));
  EXPECT_EQ(result, kFailed);
}

// Whatever the order in which signals, waits and two closes meet: every wait ends, no signal is taken twice,
// and one close wins.
TEST_F(Event, SetWaitAndCloseOfOneHandleMeetSafely) {
  constexpr int kRounds = 100;
  for (int round = 0; round < kRounds; ++round) {
    const HANDLE event = new_event();
    std::atomic<bool> go{false};
    std::atomic<int> set{0};
    std::atomic<int> taken{0};
    std::atomic<int> closed{0};
    const auto waiting = [&](unsigned int timeout) {
      while (!go) std::this_thread::yield();
      for (;;) {
        const DWORD result = WaitForSingleObject(event, timeout);
        if (result == kFailed) return;
        if (result == kTaken) ++taken;
        if (result != kTaken && result != kTimedOut) ADD_FAILURE() << "result " << result;
        std::this_thread::yield();
      }
    };
    {
      WatchedThread ever([&] { waiting(kForEver); });
      WatchedThread slowly([&] { waiting(50); });
      WatchedThread at_once([&] { waiting(0); });
      WatchedThread setter([&] {
        while (!go) std::this_thread::yield();
        for (int i = 0; i < 1000 && SetEvent(event) == 1; ++i) ++set;
      });
      WatchedThread closer([&] {
        while (!go) std::this_thread::yield();
        for (int i = 0; i < round % 40; ++i) std::this_thread::yield();
        closed += CloseHandle(event);
      });
      go = true;
      for (int i = 0; i < round % 40; ++i) std::this_thread::yield();
      closed += CloseHandle(event);
    }
    EXPECT_EQ(closed, 1);
    EXPECT_LE(taken, set);
  }
}

TEST_F(Event, EventsComeAndGoOnManyThreadsAtOnce) {
  const unsigned seed = test_seed();
  constexpr int kThreads = 4;
  const int live = KernelEvent::eventList.Size();
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<WatchedThread>([seed, t] {
        std::mt19937 random(seed + t);
        std::vector<HANDLE> own;
        for (int i = 0; i < 2000; ++i) {
          if (own.size() < 20 && pick(random, 0, 1) == 0) {
            own.push_back(new_event());
            EXPECT_GT(own.back(), 0);
          } else if (!own.empty()) {
            const auto at = static_cast<std::size_t>(pick(random, 0, static_cast<int>(own.size()) - 1));
            EXPECT_EQ(SetEvent(own[at]), 1);
            EXPECT_EQ(WaitForSingleObject(own[at], 0), kTaken);
            EXPECT_EQ(CloseHandle(own[at]), 1);
            own.erase(own.begin() + static_cast<std::ptrdiff_t>(at));
          }
        }
        for (const HANDLE event : own) EXPECT_EQ(CloseHandle(event), 1);
      }));
    }
  }
  EXPECT_EQ(KernelEvent::eventList.Size(), live);
}

TEST_F(Event, TwoThreadsHandTheBallBackAndForth) {
  constexpr int kRounds = 3000;
  const HANDLE ping = new_event();
  const HANDLE pong = new_event();
  int ball = 0;  // no atomic: the events order the accesses
  {
    WatchedThread other([&] {
      for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ(WaitForSingleObject(ping, kForEver), kTaken);
        EXPECT_EQ(ball, 2 * i + 1);
        ++ball;
        SetEvent(pong);
      }
    });
    for (int i = 0; i < kRounds; ++i) {
      ++ball;
      SetEvent(ping);
      EXPECT_EQ(WaitForSingleObject(pong, 60000), kTaken);
      EXPECT_EQ(ball, 2 * i + 2);
    }
  }
  CloseHandle(ping);
  CloseHandle(pong);
}

// ---- Sleeps, hooks, strings --------------------------------------------------------------------------------

TEST(KernelSleep, SleepsAtLeastAsLongAsAsked) {
  for (const int ms : {1, 20, 1100}) {
    const double start = now_ms();
    Sleep(ms);
    const double lasted = now_ms() - start;
    EXPECT_GE(lasted, ms);
    EXPECT_LT(lasted, ms + 10000);
  }
}

// More than a second of them, so that one ends in another second than it began in.
TEST(KernelSleep, ShortSleepsLastLongEnoughAcrossTheEndOfASecond) {
  for (int i = 0; i < 24; ++i) {
    const double start = now_ms();
    Sleep(45);
    EXPECT_GE(now_ms() - start, 45.0);
  }
}

TEST(KernelSleep, ZeroReturnsAtOnce) {
  const double start = now_ms();
  Sleep(0);
  EXPECT_LT(now_ms() - start, 5000);
}

using KernelHooks = KernelTest;

/// The address of the function that handles each signal, as far as it can be had.
std::vector<const void*> signal_handlers() {
  std::vector<const void*> handlers;
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    handlers.push_back(reinterpret_cast<const void*>(action.sa_handler));
  }
  return handlers;
}

TEST_F(KernelHooks, DoNothing) {
  StartQuiet();
  while (WaitForSingleObject(os_trig_event, 0) == kTaken) {
  }
  const std::vector<const void*> handlers = signal_handlers();
  const int events = KernelEvent::eventList.ListLength();
  // Not in pairs: they count nothing either.
  for (const OSFunction hook :
       {os_schedule, os_intdis, os_intdis, os_intenb, os_init_vectors, SysStrokeDog}) {
    hook();
    EXPECT_EQ(console.text(), "");
    EXPECT_EQ(WaitForSingleObject(os_trig_event, 0), kTimedOut) << "nobody is told to dispatch";
    EXPECT_EQ(KernelEvent::eventList.ListLength(), events);
    EXPECT_EQ(signal_handlers(), handlers) << "no vector is installed";
    for (const CRITICAL_SECTION* section : {&OS_CRITICAL_LINK, &OS_CRITICAL_TASK, &OS_CRITICAL_TRIGGER,
                                            &OS_CRITICAL_CALLBACKS, &OS_CRITICAL_BUFFERS}) {
      EXPECT_EQ(section->owner_count, 0);
    }
  }
}

TEST_F(KernelHooks, DisablingInterruptsExcludesNobody) {
  os_intdis();
  std::thread([] {
    os_intdis();
    os_intenb();
  }).join();
  os_intenb();
}

TEST(KernelStrdup, ReturnsACopyFromTheCHeap) {
  const std::string long_text(100000, 'x');
  for (const char* text : {"", "a", "caf\xE9", long_text.c_str()}) {
    char* copy = sp_strdup(text);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, text);
    copy[std::strlen(copy)] = '\0';  // the copy is the caller's, its terminator included
    std::free(copy);
  }
}

}  // namespace
}  // namespace oskernel_test
