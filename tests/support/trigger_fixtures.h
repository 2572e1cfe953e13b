/// Fixtures for the tests of triggers and their dispatch, and a thread that dispatches.
#ifndef OSKERNEL_TESTS_TRIGGER_FIXTURES_H
#define OSKERNEL_TESTS_TRIGGER_FIXTURES_H

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fake_clock.h"
#include "kernel/posixkernel_time.h"
#include "kernel/trigger.h"
#include "kernel_fixture.h"
#include "tests/trigger_probes.h"

namespace oskernel_test {

/// Checks at the end that no trigger, no level of the section and no fatal report is left.
class TriggerTest : public KernelTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
    if (OS_CRITICAL_TRIGGER.sem != nullptr) {
      const TriggerSection section;
      EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
      EXPECT_EQ(OS_POLL_LIST.Size(), 0);
      EXPECT_EQ(OS_READY_LIST.Size(), 0);
    }
    EXPECT_EQ(console.fatals(), std::vector<std::string>{});
    KernelTest::TearDown();
  }
};

/// Without trigger task and timer thread: every dispatch is made by the test.
class QuietTriggerTest : public TriggerTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
  }
};

/// The same on a clock that stands still until the test moves it. Only in files whose namespace-scope
/// initialisers call FakeClock::use().
class StillClockTest : public TriggerTest {
 protected:
  static constexpr ULONG kNow = 5000;  ///< the tick at which a test begins

  void SetUp() override {
    KernelTest::SetUp();
    FakeClock::set(kNow);
    StartQuiet();
    ASSERT_EQ(os_clock(), kNow) << "the kernel does not follow the test's clock";
  }

  /// Gives a trigger a callback that only counts, so that dispatch passes have something harmless to do.
  void count(OSTrigger& trigger) { trigger.SetCallback(count_call, as_obj(&calls_), nullptr, 0); }
  int calls() const { return calls_; }

  /// A callback that appends `letter` to `log`.
  void log_as(OSTrigger& trigger, char letter) {
    trigger.SetCallback(
        [](OSObj* obj, ADDR, ULONG value) { from_obj<std::string>(obj) += static_cast<char>(value); },
        as_obj(&log), nullptr, static_cast<ULONG>(letter));
  }
  std::string log;

 private:
  std::atomic<int> calls_{0};
};

/// Each test runs twice: with the global ready list and with a thread's own.
class EitherReadyList : public QuietTriggerTest, public ::testing::WithParamInterface<bool> {
 protected:
  static bool own_list() { return GetParam(); }

  /// Runs the test on a thread that has its own ready list when the parameter says so.
  static void with_list(const Script& test) {
    on_thread([&test] {
      if (!own_list()) {
        test();
        return;
      }
      OwnDispatch own;
      test();
      EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
    });
  }
  static OSLinkList& list() { return own_list() ? OwnDispatch::tls().OS_READY_LIST : OS_READY_LIST; }
  /// The event that announces what comes onto list().
  static HANDLE event() { return own_list() ? OSTrigger::TLSGetEvent() : os_trig_event; }
  static void pass() {
    if (own_list()) {
      OSTrigger::TLSPoll();
    } else {
      os_check_triggers();
    }
  }
};

inline std::string ready_list_name(const ::testing::TestParamInfo<bool>& each) {
  return each.param ? "OwnList" : "GlobalList";
}

/// A thread that makes one pass after the other and counts them, over the global list or over its own.
class Dispatcher {
 public:
  /// `on_start` runs on the thread before the first pass, inside its own list if it has one.
  explicit Dispatcher(bool own_list, const Script& on_start = nullptr) {
    Gate started;
    thread_ = std::thread([this, own_list, &on_start, &started] {
      std::unique_ptr<OwnDispatch> own(own_list ? new OwnDispatch : nullptr);
      if (on_start) on_start();
      started.open();
      while (!stop_) {
        if (own_list) {
          OSTrigger::TLSPoll();
        } else {
          os_check_triggers();
        }
        int now = ++passes_;
        if (awaited_.compare_exchange_strong(now, 0)) awaited_pass_.open();
        std::this_thread::yield();
      }
      ended_.open();
    });
    if (!started.wait(kHungMs)) give_up("a dispatcher does not start");
  }
  ~Dispatcher() {
    stop_ = true;
    if (!ended_.wait(kHungMs)) give_up("a dispatcher does not end");
    thread_.join();
  }
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Waits until a pass has ended that began after this call; everything that a pass had begun has then ended.
  [[nodiscard]] bool full_pass() {
    int target = passes_ + 2;
    awaited_ = target;
    // The dispatcher may have come past it before it was told; who takes the number back decides.
    if (passes_ >= target && awaited_.compare_exchange_strong(target, 0)) return true;
    return awaited_pass_.wait();
  }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<int> passes_{0};
  std::atomic<int> awaited_{0};
  Gate awaited_pass_;
  Gate ended_;
  std::thread thread_;
};

}  // namespace oskernel_test

#endif
