// The trigger task and the timer thread, each alone and both together, on a clock that stands still until a test
// moves it. Waits follow the real clock.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/thread_states.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

// ---- The timer thread's sleeps -----------------------------------------------------------------------------------

/// The timed waits of one thread: noted, and ended at once.
class Sleeps {
 public:
  /// What sem_clockwait answers.
  int wait(clockid_t clock, const timespec& until) {
    timespec now{};
    clock_gettime(clock, &now);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ms_.size() >= kMost) give_up("the timer thread does not stop sleeping");
    ms_.push_back(static_cast<double>(until.tv_sec - now.tv_sec) * 1e3 +
                  static_cast<double>(until.tv_nsec - now.tv_nsec) / 1e6);
    valid_ = valid_ && until.tv_nsec >= 0 && until.tv_nsec < 1000000000L;
    if (until.tv_sec * 1000000000LL + until.tv_nsec >= (now.tv_sec + 1) * 1000000000LL) ++into_next_second_;
    same_moment_ = same_moment_ && (ms_.size() == 1 || same(until, until_));
    until_ = until;
    if (std::exchange(stop_, false)) return 0;
    errno = interruptions_ > 0 ? EINTR : ETIMEDOUT;
    if (interruptions_ > 0) --interruptions_;
    return -1;
  }

  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ms_.clear();
    same_moment_ = true;
  }
  void interrupt_next(int times) {
    const std::lock_guard<std::mutex> lock(mutex_);
    interruptions_ = times;
  }
  void stop_next() {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  double longest_ms() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ms_.empty() ? -1 : *std::max_element(ms_.begin(), ms_.end());
  }
  int count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(ms_.size());
  }
  int into_next_second() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return into_next_second_;
  }
  /// Whether the system would have taken every one of them.
  bool all_valid() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return valid_;
  }
  bool all_until_the_same_moment() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return same_moment_;
  }

 private:
  static bool same(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
  }

  static constexpr std::size_t kMost = 100000;

  mutable std::mutex mutex_;
  std::vector<double> ms_;
  timespec until_{};
  int into_next_second_ = 0;
  bool valid_ = true;
  bool same_moment_ = true;
  bool stop_ = false;
  int interruptions_ = 0;
};

/// Where the calling thread's sleeps are noted; null for a thread that sleeps in earnest.
thread_local Sleeps* sleeps = nullptr;

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" __attribute__((visibility("default"))) int sem_clockwait(sem_t* sem, clockid_t clock,
                                                                    const timespec* until) {
  if (sleeps != nullptr) return sleeps->wait(clock, *until);
  using Wait = int (*)(sem_t*, clockid_t, const timespec*);
  static const auto next = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "sem_clockwait"));
  return next(sem, clock, until);
}

namespace {

// ---- The timer thread alone --------------------------------------------------------------------------------------

using SteadyClock = std::chrono::steady_clock;

/// The signals that an event holds.
int signals_of(HANDLE event) {
  int signals = -1;
  sem_getvalue(KernelEvent::Find(event)->sem, &signals);
  return signals;
}

/// Runs the timer thread's function; the test plays the trigger task. The thread's sleeps end at once.
class TimerThreadAlone : public StillClockTest {
 protected:
  void SetUp() override {
    StillClockTest::SetUp();
    std::atomic_ref<bool>(os_trig_timer_done).store(false);
    thread_ = std::thread([this] {
      sleeps = &sleeps_;
      result_ = OSTriggerTimerThread(nullptr);
      ended_.open();
    });
  }
  void TearDown() override {
    end();
    StillClockTest::TearDown();
  }
  void end() {
    if (!thread_.joinable()) return;
    std::atomic_ref<bool>(os_trig_timer_done).store(true);
    SetEvent(os_trig_timer_event);
    join();
  }
  void join() {
    if (!ended_.wait(kHungMs)) give_up("the timer thread does not end");
    thread_.join();
    EXPECT_EQ(result_, nullptr);
  }

  /// Kicks the thread and waits until it has slept and kicked back.
  void one_sleep() {
    SetEvent(os_trig_timer_event);
    EXPECT_TRUE(take_signal(os_trig_event));
  }

  Sleeps sleeps_;

 private:
  std::thread thread_;
  Gate ended_;
  void* result_ = this;
};

TEST_F(TimerThreadAlone, SleepsUntilTheHeadIsDueInSlicesOfThirtyMilliseconds) {
  struct Row {
    const char* what;
    ULONG duration;
    ULONG passed;
    bool poll;
    int sleep_ms;
  };
  const Row rows[] = {
      {"a far timer", 100000, 0, false, 30},
      {"31 ms to go", 1000, 969, false, 30},
      {"30 ms to go", 1000, 970, false, 30},
      {"29 ms to go", 1000, 971, false, 29},
      {"5 ms to go", 1000, 995, false, 5},
      {"1 ms to go", 1000, 999, false, 1},
      {"due now", 1000, 1000, false, 1},
      {"overdue", 1000, 5000, false, 1},
      {"as far as half the tick's range", 0x7FFFFFFF, 0, false, 30},
      {"farther than half the tick's range looks overdue", 0x80000000, 0, false, 1},
      {"poll triggers cap the slice", 100000, 0, true, 10},
      {"11 ms to go with poll triggers", 1000, 989, true, 10},
      {"9 ms to go with poll triggers", 1000, 991, true, 9},
      {"poll triggers do not stretch it", 1000, 1000, true, 1},
  };
  for (const ULONG start : {kNow, 0xFFFFFFF0u}) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.what) + " from " + std::to_string(start));
      FakeClock::set(start);
      OSTimerTrigger timer(row.duration, 0);
      timer.action = OS_TA_NONE;
      std::unique_ptr<OSPollTrigger> poll;
      if (row.poll) poll = std::make_unique<OSPollTrigger>(never, nullptr, nullptr, 0u);
      FakeClock::set(start + row.passed);
      drain(os_trig_event);
      // What is left of the sleep when it begins is never more than was meant, and less by as much as the thread
      // was kept from beginning: the longest of several is the one that was meant.
      sleeps_.clear();
      for (int i = 0; i < 3 || (i < 1000 && sleeps_.longest_ms() <= row.sleep_ms - 1); ++i) one_sleep();
      EXPECT_LE(sleeps_.longest_ms(), row.sleep_ms);
      EXPECT_GT(sleeps_.longest_ms(), row.sleep_ms - 1);
    }
  }
}

TEST_F(TimerThreadAlone, ASleepMayReachIntoTheNextSecond) {
  OSTimerTrigger timer(100000, 0);
  timer.action = OS_TA_NONE;
  drain(os_trig_event);
  EXPECT_TRUE(wait_until(
      [this] {
        one_sleep();
        return sleeps_.into_next_second() > 0;
      },
      kPatienceMs));
  EXPECT_TRUE(sleeps_.all_valid());
}

TEST_F(TimerThreadAlone, AnInterruptedSleepGoesOnToItsEnd) {
  OSTimerTrigger timer(100000, 0);
  timer.action = OS_TA_NONE;
  drain(os_trig_event);
  sleeps_.interrupt_next(3);
  one_sleep();
  EXPECT_EQ(sleeps_.count(), 4);
  EXPECT_TRUE(sleeps_.all_until_the_same_moment());
  EXPECT_EQ(drain(os_trig_event), 0) << "one sleep, one kick";
}

TEST_F(TimerThreadAlone, AStopEndsTheSleepAndTheThreadWithoutAKick) {
  OSTimerTrigger timer(100000, 0);
  timer.action = OS_TA_NONE;
  drain(os_trig_event);
  sleeps_.stop_next();
  SetEvent(os_trig_timer_event);
  join();
  EXPECT_EQ(drain(os_trig_event), 0);
}

TEST_F(TimerThreadAlone, SleepsOnItsEventWhenNoTimerIsPendingEvenWithPollTriggers) {
  OSPollTrigger poll(never, nullptr, nullptr, 0);
  drain(os_trig_event);
  for (int i = 0; i < 5; ++i) SetEvent(os_trig_timer_event);
  EXPECT_TRUE(wait_until([] { return signals_of(os_trig_timer_event) == 0; }, kPatienceMs));
  end();  // the last of them has been looked at when the thread has ended
  EXPECT_EQ(drain(os_trig_event), 0);
}

TEST_F(TimerThreadAlone, KicksTheTriggerTaskOncePerSignal) {
  OSTimerTrigger timer(3, 0);
  timer.action = OS_TA_NONE;
  drain(os_trig_event);
  for (int i = 0; i < 5; ++i) SetEvent(os_trig_timer_event);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(take_signal(os_trig_event));
  timer.Cancel();
  end();
  EXPECT_EQ(drain(os_trig_event), 0);
}

// ---- The trigger task alone --------------------------------------------------------------------------------------

/// Runs a trigger task; the test plays the timer thread.
class TriggerTaskAlone : public StillClockTest {
 protected:
  void TearDown() override {
    delete task_;
    StillClockTest::TearDown();
  }
  void start_task() { task_ = new OSTriggerTask; }

  OSTriggerTask* task_ = nullptr;
};

TEST_F(TriggerTaskAlone, KicksTheTimerThreadOncePerPassWhileATimerIsPending) {
  CheckedTimer timer(1000);
  log_as(timer, 't');
  timer.Clear();  // a new head: one signal for the task
  timer.checks = 0;
  start_task();
  // One pass when it starts and one for the signal; after the second kick it sleeps.
  ASSERT_TRUE(take_signal(os_trig_timer_event));
  ASSERT_TRUE(take_signal(os_trig_timer_event));
  EXPECT_EQ(timer.checks, 2);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(drain(os_trig_timer_event), 0);
    const int checks = timer.checks;
    SetEvent(os_trig_event);
    ASSERT_TRUE(take_signal(os_trig_timer_event));
    EXPECT_EQ(timer.checks, checks + 1);
  }
  timer.Cancel();
}

TEST_F(TriggerTaskAlone, LeavesTheTimerThreadAsleepWhenNoTimerIsPending) {
  Gate tested;
  PollScript script = [&tested](OSTrigger*) -> BOOL {
    tested.open();
    return FALSE;
  };
  start_task();
  OSPollTrigger poll(run_poll_script, as_obj(&script), nullptr, 0);  // arming kicks the task
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(tested.wait());
    // By the next test the pass before it has ended, its kick included.
    SetEvent(os_trig_event);
  }
  ASSERT_TRUE(tested.wait());
  EXPECT_EQ(drain(os_trig_timer_event), 0) << "poll triggers alone do not keep the timer thread awake";
  poll.Cancel();
}

TEST_F(TriggerTaskAlone, RunsCallbacksAndForgetsTheTimerThatExpired) {
  OSTimerTrigger timer(100, 0);
  Gate ran;
  OSTask* runner = nullptr;
  Script callback = [&] {
    runner = OSTask::GetCurrentTask();
    ran.open();
  };
  set_script(timer, callback);
  start_task();
  ASSERT_TRUE(take_signal(os_trig_timer_event));
  FakeClock::advance(100);
  SetEvent(os_trig_event);  // what the timer thread would do
  ASSERT_TRUE(ran.wait());
  EXPECT_EQ(runner, task_);
  EXPECT_TRUE(wait_until([&] { return timer.State() == OS_T_ACTIONED; }));
  drain(os_trig_timer_event);
  Gate tested;
  PollScript script = [&tested](OSTrigger*) -> BOOL {
    tested.open();
    return FALSE;
  };
  OSPollTrigger poll(run_poll_script, as_obj(&script), nullptr, 0);
  ASSERT_TRUE(tested.wait());
  SetEvent(os_trig_event);
  ASSERT_TRUE(tested.wait());
  EXPECT_EQ(drain(os_trig_timer_event), 0);
  poll.Cancel();
}

// ---- Both together -----------------------------------------------------------------------------------------------

class RunningKernel : public TriggerTest {
 protected:
  /// Trigger task and timer thread wait, and have no signal left to answer. The timer thread may be inside a slice.
  static bool nobody_will_ask() {
    return other_threads_sleep() && signals_of(os_trig_event) == 0 && signals_of(os_trig_timer_event) == 0;
  }

  void SetUp() override {
    KernelTest::SetUp();
    FakeClock::set(5000);
    Start();
  }
};

TEST_F(RunningKernel, APendingTimerWakesTheTriggerTaskAboutEveryThirtyMillisecondsUntilItExpires) {
  Gate ran;
  Script callback = [&ran] { ran.open(); };
  auto timer = std::make_unique<CheckedTimer>(100);
  set_script(*timer, callback);
  timer->Clear();
  ASSERT_TRUE(wait_until([&] { return timer->checks >= 2; }, kPatienceMs));
  const auto begin =
      SteadyClock::now();  // before the count is read: what comes in between only adds to the time
  const int checks = timer->checks;
  ASSERT_TRUE(wait_until([&] { return timer->checks >= checks + 10; }, kPatienceMs));
  const std::chrono::duration<double, std::milli> taken = SteadyClock::now() - begin;
  EXPECT_GE(taken.count(), 9 * 30.0 - 5) << "slices are shorter than 30 ms";
  EXPECT_EQ(timer->State(), OS_T_WAIT) << "the clock stands still";

  FakeClock::advance(100);
  ASSERT_TRUE(ran.wait());
  EXPECT_EQ(timer->fired, 1);
}

TEST_F(RunningKernel, PollTriggersAreAskedOftenWhileATimerIsPendingAndThenNotAtAll) {
  std::atomic<int> asked{0};
  std::atomic<BOOL> answer{FALSE};
  PollScript script = [&](OSTrigger*) -> BOOL {
    ++asked;
    return answer;
  };
  Gate polled;
  Script on_poll = [&polled] { polled.open(); };
  auto poll = std::make_unique<OSPollTrigger>(run_poll_script, as_obj(&script), nullptr, 0u);
  set_script(*poll, on_poll);

  // A timer pending: the slices keep coming by themselves.
  Gate expired;
  Script on_expiry = [&expired] { expired.open(); };
  auto timer = std::make_unique<OSTimerTrigger>(100, 0);
  set_script(*timer, on_expiry);
  const int before = asked;
  ASSERT_TRUE(wait_until([&] { return asked >= before + 10; }, kPatienceMs));
  FakeClock::advance(100);
  ASSERT_TRUE(expired.wait());

  // Nothing pending: when the last kicks have been used up nobody asks any more.
  ASSERT_TRUE(wait_until(
      [&asked] {
        const int asked_before = asked;
        if (!nobody_will_ask()) return false;
        std::this_thread::sleep_for(
            std::chrono::milliseconds(100));  // longer than the timer thread ever sleeps
        return nobody_will_ask() && asked == asked_before;
      },
      kPatienceMs));
  answer = TRUE;
  EXPECT_FALSE(polled.wait(200)) << "a condition that became true is not noticed by itself";
  EXPECT_EQ(poll->State(), OS_T_WAIT);

  // Any kick will do.
  HandTrigger kick;
  kick.ArmAndFire();
  EXPECT_TRUE(polled.wait());
}

TEST_F(RunningKernel, ANewShorterTimerIsNotSleptPast) {
  Gate ran;
  Script callback = [&ran] { ran.open(); };
  OSTimerTrigger far(0x7FFFFFFF, 0);
  far.action = OS_TA_NONE;
  OSTimerTrigger near(20, 0);
  set_script(near, callback);
  FakeClock::advance(20);
  EXPECT_TRUE(ran.wait());
}

}  // namespace
