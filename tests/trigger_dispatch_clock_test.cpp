// Dispatch passes, the time check of a thread's own list, and the trigger task and timer thread, on a clock that
// stands still until a test moves it. Waits follow the real clock.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "kernel/posixkernel_time.h"
#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

constexpr ULONG kNow = 5000;

using Timer = Exposed<OSTimerTrigger>;
using PollTrigger = Exposed<OSPollTrigger>;

BOOL never(OSTrigger*, OSObj*, ADDR, ULONG) { return FALSE; }

/// A timer that counts its checks. With `deaf` set it never notices that it has expired.
class CheckedTimer : public OSTimerTrigger {
 public:
  explicit CheckedTimer(ULONG duration_ms) : OSTimerTrigger(duration_ms, 1) {}
  ~CheckedTimer() override { OSTimerTrigger::Inactive(); }
  void Check() override {
    ++checks;
    if (!deaf) OSTimerTrigger::Check();
  }
  std::atomic<int> checks{0};
  bool deaf = false;
};

class DispatchPass : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FakeClock::set(kNow);
    StartQuiet();
    ASSERT_EQ(os_clock(), kNow) << "the kernel does not follow the test's clock";
  }
  void TearDown() override {
    EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
    EXPECT_EQ(OS_POLL_LIST.Size(), 0);
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
    EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
    EXPECT_EQ(console.fatals(), std::vector<std::string>{});
    KernelTest::TearDown();
  }

  /// A callback that appends `letter` to `log`.
  void log_as(OSTrigger& trigger, char letter) {
    trigger.SetCallback(
        [](OSObj* obj, ADDR, ULONG value) { from_obj<std::string>(obj) += static_cast<char>(value); },
        as_obj(&log), nullptr, static_cast<ULONG>(letter));
  }
  std::string log;
};

// ---- One pass: timers ------------------------------------------------------------------------------------------

TEST_F(DispatchPass, DueTimersAreActionedInTheSamePassInTheirOrder) {
  Timer c(30, 0);
  Timer a(10, 0);
  Timer d(31, 0);
  Timer b(20, 0);
  log_as(a, 'a');
  log_as(b, 'b');
  log_as(c, 'c');
  log_as(d, 'd');
  FakeClock::set(kNow + 9);
  os_check_triggers();
  EXPECT_EQ(log, "");
  FakeClock::set(kNow + 30);
  os_check_triggers();
  EXPECT_EQ(log, "abc");
  EXPECT_EQ(d.State(), OS_T_WAIT);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&d});
}

TEST_F(DispatchPass, OnlyTheHeadIsTestedWhenItIsNotDue) {
  CheckedTimer first(100);
  CheckedTimer second(200);
  first.Clear();
  second.Clear();
  first.checks = second.checks = 0;
  os_check_triggers();
  EXPECT_EQ(first.checks, 1);
  EXPECT_EQ(second.checks, 0);
}

TEST_F(DispatchPass, AHeadThatDoesNotActivateEndsTheTimersEvenIfOthersAreDue) {
  CheckedTimer deaf(100);
  CheckedTimer due(200);
  log_as(deaf, 'x');
  log_as(due, 'd');
  deaf.Clear();
  due.Clear();
  deaf.deaf = true;
  deaf.checks = due.checks = 0;
  FakeClock::set(kNow + 500);
  os_check_triggers();
  EXPECT_EQ(deaf.checks, 1);
  EXPECT_EQ(due.checks, 0);
  EXPECT_EQ(log, "");
  deaf.deaf = false;
  os_check_triggers();
  EXPECT_EQ(deaf.checks, 2);
  EXPECT_EQ(due.checks, 1);
  EXPECT_EQ(log, "xd");
}

TEST_F(DispatchPass, APeriodicTimerCatchesUpInOnePass) {
  Timer timer(100, 0);
  int calls = 0;
  Script again = [&] {
    ++calls;
    timer.Clear();
  };
  set_script(timer, again);
  FakeClock::set(kNow + 550);
  os_check_triggers();
  EXPECT_EQ(calls, 5);
  EXPECT_EQ(timer.State(), OS_T_WAIT);
  EXPECT_EQ(timer.start_time, kNow + 500);
  FakeClock::set(kNow + 600);
  os_check_triggers();
  EXPECT_EQ(calls, 6);
}

TEST_F(DispatchPass, TimersSurviveTheWrapOfTheTick) {
  FakeClock::set(0xFFFFFFF0u);
  Timer timer(32, 0);
  log_as(timer, 't');
  FakeClock::set(0xFFFFFFFFu);
  os_check_triggers();
  FakeClock::set(15);
  os_check_triggers();
  EXPECT_EQ(log, "");
  FakeClock::set(16);
  os_check_triggers();
  EXPECT_EQ(log, "t");
  EXPECT_EQ(timer.start_time, 16u);
}

// ---- One pass: polls -------------------------------------------------------------------------------------------

/// A poll trigger whose function does what the test says and counts its calls outside of the trigger.
struct Poll {
  Poll() {
    script = [this](OSTrigger*) -> BOOL {
      ++calls;
      if (work) {
        const Script once = std::move(work);
        work = nullptr;
        once();
      }
      return result;
    };
    trigger = std::make_unique<PollTrigger>(run_poll_script, as_obj(&script), nullptr, 0u);
    trigger->SetCallback([](OSObj* obj, ADDR, ULONG) { ++from_obj<Poll>(obj).actioned; }, as_obj(this),
                         nullptr, 0);
  }

  int calls = 0;
  int actioned = 0;
  BOOL result = FALSE;
  Script work;
  PollScript script;
  std::unique_ptr<PollTrigger> trigger;
};

TEST_F(DispatchPass, EachPollTriggerIsTestedOnceAndTheListKeepsItsOrder) {
  Poll polls[4];
  for (int pass = 1; pass <= 3; ++pass) {
    os_check_triggers();
    for (const Poll& poll : polls) EXPECT_EQ(poll.calls, pass);
    EXPECT_EQ(triggers_on(OS_POLL_LIST), (Triggers{polls[0].trigger.get(), polls[1].trigger.get(),
                                                   polls[2].trigger.get(), polls[3].trigger.get()}));
  }
}

TEST_F(DispatchPass, PollTriggersThatHoldAreActionedInTheSamePassAndLeaveTheOthersInOrder) {
  for (unsigned holding = 0; holding < 16; ++holding) {
    Poll polls[4];
    Triggers left;
    for (unsigned i = 0; i < 4; ++i) {
      polls[i].result = (holding >> i) & 1;
      if (polls[i].result == 0) left.push_back(polls[i].trigger.get());
    }
    os_check_triggers();
    EXPECT_EQ(triggers_on(OS_POLL_LIST), left);
    for (const Poll& poll : polls) {
      EXPECT_EQ(poll.calls, 1);
      EXPECT_EQ(poll.actioned, poll.result);
      EXPECT_EQ(poll.trigger->State(), poll.result != 0 ? OS_T_ACTIONED : OS_T_WAIT);
    }
  }
}

TEST_F(DispatchPass, APollFunctionMayCancelOrDeleteAnyPollTrigger) {
  constexpr int kCount = 4;
  for (int meddling = 0; meddling < kCount; ++meddling) {
    for (int victim = 0; victim < kCount; ++victim) {
      for (const bool deletes : {false, true}) {
        for (const BOOL result : {FALSE, TRUE}) {
          SCOPED_TRACE("poll of " + std::to_string(meddling) + (deletes ? " deletes " : " cancels ") +
                       std::to_string(victim) + " and returns " + std::to_string(result));
          std::array<Poll, kCount> polls;
          Poll& active = polls[static_cast<std::size_t>(meddling)];
          Poll& target = polls[static_cast<std::size_t>(victim)];
          active.result = result;
          active.work = [&target, deletes] {
            if (deletes) {
              target.trigger.reset();
            } else {
              target.trigger->Cancel();
            }
          };
          os_check_triggers();

          Triggers left;
          for (int i = 0; i < kCount; ++i) {
            Poll& poll = polls[static_cast<std::size_t>(i)];
            const bool gone = i == victim;
            const bool holds = i == meddling && result != 0 && !gone;
            EXPECT_EQ(poll.calls, gone && victim > meddling ? 0 : 1) << "trigger " << i;
            EXPECT_EQ(poll.actioned, holds ? 1 : 0) << "trigger " << i;
            if (!gone && !holds) left.push_back(poll.trigger.get());
          }
          EXPECT_EQ(triggers_on(OS_POLL_LIST), left);
          if (!deletes) {
            EXPECT_EQ(target.trigger->State(), OS_T_INACTIVE);
            EXPECT_EQ(target.trigger->fired, 0);
          }
          os_check_triggers();
          EXPECT_EQ(triggers_on(OS_POLL_LIST), left);
        }
      }
    }
  }
}

TEST_F(DispatchPass, APollFunctionMayDeleteAllPollTriggers) {
  for (std::size_t meddling = 0; meddling < 3; ++meddling) {
    for (const BOOL result : {FALSE, TRUE}) {
      std::array<Poll, 3> polls;
      polls[meddling].result = result;
      polls[meddling].work = [&polls] {
        for (Poll& poll : polls) poll.trigger.reset();
      };
      os_check_triggers();
      EXPECT_EQ(OS_POLL_LIST.Size(), 0);
      for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(polls[i].calls, i <= meddling ? 1 : 0);
    }
  }
}

TEST_F(DispatchPass, APollFunctionMayArmItsOwnTriggerAgainAndThePassStillEnds) {
  for (std::size_t own = 0; own < 3; ++own) {
    std::array<Poll, 3> polls;
    polls[own].work = [&polls, own] {
      polls[own].trigger->Cancel();
      polls[own].trigger->Wait();
    };
    os_check_triggers();
    for (const Poll& poll : polls) {
      EXPECT_EQ(poll.calls, 1);
      EXPECT_EQ(poll.trigger->State(), OS_T_WAIT);
      EXPECT_TRUE(is_on(OS_POLL_LIST, poll.trigger.get()));
    }
    EXPECT_EQ(OS_POLL_LIST.Size(), 3);
    os_check_triggers();
    for (const Poll& poll : polls) EXPECT_EQ(poll.calls, 2);
  }
}

TEST_F(DispatchPass, APollFunctionThatAlwaysArmsItsTriggerAgainIsStillTestedOncePerPass) {
  int calls = 0;
  PollTrigger* self = nullptr;
  PollScript script = [&](OSTrigger*) -> BOOL {
    if (++calls > 1000) {
      self->Cancel();
      return FALSE;
    }
    self->Cancel();
    self->Wait();
    return FALSE;
  };
  PollTrigger trigger(run_poll_script, as_obj(&script), nullptr, 0);
  self = &trigger;
  os_check_triggers();
  EXPECT_EQ(calls, 1);
  os_check_triggers();
  EXPECT_EQ(calls, 2);
}

TEST_F(DispatchPass, APollFunctionMayArmItsNeighboursAgain) {
  for (std::size_t meddling = 0; meddling < 3; ++meddling) {
    for (std::size_t victim = 0; victim < 3; ++victim) {
      if (victim == meddling) continue;
      std::array<Poll, 3> polls;
      polls[meddling].work = [&polls, victim] {
        polls[victim].trigger->Cancel();
        polls[victim].trigger->Wait();
      };
      os_check_triggers();
      EXPECT_EQ(OS_POLL_LIST.Size(), 3);
      EXPECT_TRUE(ListIsSound(OS_POLL_LIST));
      for (const Poll& poll : polls) {
        EXPECT_GE(poll.calls, 1);
        EXPECT_EQ(poll.trigger->State(), OS_T_WAIT);
      }
    }
  }
}

TEST_F(DispatchPass, APollTriggerArmedByAPollFunctionIsTestedInTheSamePassAndStandsLast) {
  Poll first;
  Poll second;
  std::unique_ptr<Poll> made;
  first.work = [&] { made = std::make_unique<Poll>(); };
  os_check_triggers();
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->calls, 1);
  EXPECT_EQ(triggers_on(OS_POLL_LIST),
            (Triggers{first.trigger.get(), second.trigger.get(), made->trigger.get()}));
}

TEST_F(DispatchPass, APollFunctionMayFireItsOwnTrigger) {
  for (const BOOL result : {FALSE, TRUE}) {
    Poll poll;
    poll.result = result;
    poll.work = [&poll] { poll.trigger->Fire(); };
    os_check_triggers();
    EXPECT_EQ(poll.calls, 1);
    EXPECT_EQ(poll.actioned, 1);
    EXPECT_EQ(poll.trigger->fired, 1);
    EXPECT_EQ(OS_POLL_LIST.Size(), 0);
  }
}

// ---- One pass: order of the three steps --------------------------------------------------------------------------

TEST_F(DispatchPass, WhatWasReadyComesFirstThenTimersThenPolls) {
  Timer timer(100, 0);
  log_as(timer, 't');
  PollTrigger poll([](OSTrigger*, OSObj*, ADDR, ULONG) -> BOOL { return TRUE; }, nullptr, nullptr, 0);
  log_as(poll, 'p');
  HandTrigger fired;
  log_as(fired, 'f');
  fired.ArmAndFire();
  FakeClock::advance(100);
  os_check_triggers();
  EXPECT_EQ(log, "ftp");
}

TEST_F(DispatchPass, PollsRunAfterTheTimersOfTheSamePass) {
  // A poll function sees a timer that expired in this pass as ready already.
  Timer timer(100, 0);
  log_as(timer, 't');
  OSTrState seen = OS_T_INACTIVE;
  Poll poll;
  poll.work = [&] { seen = timer.State(); };
  FakeClock::advance(100);
  os_check_triggers();
  EXPECT_EQ(seen, OS_T_READY);
}

// ---- The time check of a thread's own list -----------------------------------------------------------------------

class SlowActions : public DispatchPass {
 protected:
  /// Runs `work` on a thread with a ready list of its own.
  static void with_own_list(const Script& work) {
    on_thread([&work] {
      OwnDispatch own;
      work();
      EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
    });
  }

  std::vector<std::string> lines() {
    std::vector<std::string> calls = console.calls();
    console.clear();
    return calls;
  }

  static std::string pointer(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
  }

  /// The message that the text of the interface states.
  static std::string took(const void* trigger, const std::string& middle, unsigned long ms) {
    return "OSTriggerTLS::Poll - trigger " + pointer(trigger) + middle + " took " + std::to_string(ms) + "ms";
  }

  /// What the dynamic loader knows about a callback: " (name)", or " (callback 0x...)" without a name.
  static std::string named(OSCallbackFunction callback) {
    Dl_info info{};
    void* address = reinterpret_cast<void*>(callback);
    if (dladdr(address, &info) != 0 && info.dli_sname != nullptr)
      return std::string(" (") + info.dli_sname + ")";
    return " (callback " + pointer(address) + ")";
  }

  static void take_value_ms(OSObj*, ADDR, ULONG value) { FakeClock::advance(value); }
};

TEST_F(SlowActions, ACallbackOfSixHundredMillisecondsIsReportedOnce) {
  with_own_list([this] {
    HandTrigger trigger;
    trigger.SetCallback(&take_value_ms, nullptr, nullptr, 600);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, named(&take_value_ms), 600)});
    OSTrigger::TLSPoll();
    EXPECT_TRUE(lines().empty());
  });
}

/// Takes its time to go: deleted through the axe task's callback, whose name the loader knows because the
/// library exports it.
class SlowToGo : public OSTask {
 public:
  SlowToGo() : OSTask(3, 0, nullptr, nullptr) { LeaveCriticalSection(&cs); }
  ~SlowToGo() override { FakeClock::advance(601); }
  void Main() override {
    while (state_of(*this) != OS_ST_KILL) Sleep(1);
  }
};

TEST_F(SlowActions, TheReportNamesTheCallbacksSymbol) {
  const OSCallbackFunction callback = &OSAxeTask::Trigger;
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(callback), &info), 0);
  ASSERT_NE(info.dli_sname, nullptr);
  ASSERT_NE(std::string(info.dli_sname).find("OSAxeTask"), std::string::npos);
  with_own_list([&] {
    OSAxeTask axe;  // its trigger belongs to this thread's list
    auto* task = new SlowToGo;
    task->Kill();
    axe.Axe(task);
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(),
              std::vector<std::string>{took(axe.trig, std::string(" (") + info.dli_sname + ")", 601)});
  });
}

TEST_F(SlowActions, ACallbackWithoutASymbolIsReportedByItsAddress) {
  // Code that was made at run time, or whose symbols were stripped, has no name.
  const OSCallbackFunction nameless = [](OSObj*, ADDR, ULONG value) { FakeClock::advance(value); };
  ASSERT_EQ(named(nameless), " (callback " + pointer(reinterpret_cast<void*>(nameless)) + ")");
  with_own_list([&] {
    HandTrigger trigger;
    trigger.SetCallback(nameless, nullptr, nullptr, 4000000000u);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(),
              std::vector<std::string>{took(
                  &trigger, " (callback " + pointer(reinterpret_cast<void*>(nameless)) + ")", 4000000000ul)});
  });
}

TEST_F(SlowActions, FiveHundredMillisecondsAreNotReported) {
  struct Row {
    ULONG start;
    ULONG ms;
    bool reported;
  };
  const Row rows[] = {{kNow, 0, false},       {kNow, 499, false},        {kNow, 500, false},
                      {kNow, 501, true},      {0xFFFFFF00u, 500, false}, {0xFFFFFF00u, 501, true},
                      {0u, 0x90000000u, true}};
  for (const Row& row : rows) {
    with_own_list([&] {
      FakeClock::set(row.start);
      HandTrigger trigger;
      trigger.SetCallback(&take_value_ms, nullptr, nullptr, row.ms);
      trigger.ArmAndFire();
      OSTrigger::TLSPoll();
      EXPECT_EQ(lines(), row.reported
                             ? std::vector<std::string>{took(&trigger, named(&take_value_ms), row.ms)}
                             : std::vector<std::string>{});
    });
  }
}

/// Takes its time over becoming actioned.
class SlowToAct : public HandTrigger {
 public:
  SlowToAct(OSTrAction action_to_do, ULONG ms) : HandTrigger(action_to_do), ms_(ms) {}
  ~SlowToAct() override { OSTrigger::Inactive(); }

 protected:
  void Actioned() override {
    HandTrigger::Actioned();
    FakeClock::advance(ms_);
  }

 private:
  ULONG ms_;
};

TEST_F(SlowActions, AWakeTriggerIsReportedWithoutACallback) {
  with_own_list([this] {
    Owned<> task;
    SlowToAct trigger(OS_TA_WAKE, 700);
    trigger.SetTask(task.get());
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_TRUE(lines().empty()) << "an action that fails is not measured";
    EXPECT_EQ(trigger.State(), OS_T_READY);
    task->Snooze();
    OSTrigger::TLSPoll();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, "", 700)});
  });
}

TEST_F(SlowActions, ANullCallbackIsReportedWithoutACallback) {
  with_own_list([this] {
    SlowToAct trigger(OS_TA_FUNC, 501);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, "", 501)});
  });
}

TEST_F(SlowActions, TheCallbackNotedBeforeTheActionIsNamed) {
  with_own_list([this] {
    HandTrigger trigger;
    Script changes = [&trigger] {
      FakeClock::advance(600);
      trigger.SetCallback(&take_value_ms, nullptr, nullptr, 0);
    };
    set_script(trigger, changes);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, named(&run_script), 600)});
  });
}

TEST_F(SlowActions, ASlowCallbackMayDeleteItsTrigger) {
  with_own_list([this] {
    auto* trigger = new HandTrigger;
    const void* address = trigger;
    Script deletes = [trigger] {
      FakeClock::advance(600);
      delete trigger;
    };
    set_script(*trigger, deletes);
    trigger->ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), std::vector<std::string>{took(address, named(&run_script), 600)});
  });
}

TEST_F(SlowActions, EverySlowActionIsReportedAndQuickOnesAreNot) {
  with_own_list([this] {
    HandTrigger triggers[4];
    const ULONG ms[] = {600, 10, 700, 500};
    for (std::size_t i = 0; i < 4; ++i) {
      triggers[i].SetCallback(&take_value_ms, nullptr, nullptr, ms[i]);
      triggers[i].ArmAndFire();
    }
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), (std::vector<std::string>{took(&triggers[0], named(&take_value_ms), 600),
                                                 took(&triggers[2], named(&take_value_ms), 700)}));
  });
}

TEST_F(SlowActions, TheGlobalListIsNotMeasured) {
  HandTrigger trigger;
  trigger.SetCallback(&take_value_ms, nullptr, nullptr, 10000);
  trigger.ArmAndFire();
  os_check_triggers();
  EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  EXPECT_TRUE(lines().empty());
}

TEST_F(SlowActions, NoConsoleIsNoCrash) {
  with_own_list([] {
    Console = nullptr;
    HandTrigger trigger;
    trigger.SetCallback(&take_value_ms, nullptr, nullptr, 600);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  });
  Console = &console;
}

// ---- The timer thread alone --------------------------------------------------------------------------------------

using SteadyClock = std::chrono::steady_clock;

/// Runs the timer thread's function; the test plays the trigger task.
class TimerThreadAlone : public DispatchPass {
 protected:
  void SetUp() override {
    DispatchPass::SetUp();
    // Real-time, and so the thread made here: what is measured is how long the thread means to sleep, not how long
    // other programs keep it from waking. Without the right to it the measurement only takes more tries.
    const sched_param first{.sched_priority = 1};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &first);
    std::atomic_ref<bool>(os_trig_timer_done).store(false);
    thread_ = std::thread([this] { result_ = OSTriggerTimerThread(nullptr); });
  }
  void TearDown() override {
    end();
    const sched_param ordinary{.sched_priority = 0};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &ordinary);
    DispatchPass::TearDown();
  }
  void end() {
    if (!thread_.joinable()) return;
    std::atomic_ref<bool>(os_trig_timer_done).store(true);
    SetEvent(os_trig_timer_event);
    thread_.join();
    EXPECT_EQ(result_, nullptr);
  }

  /// The shortest of several sleeps in ms: what the thread means to sleep, whatever else the machine does. On a
  /// busy machine every one of a few may be stretched, so it goes on, for 20 s at most, until one is short enough.
  double shortest_sleep(double short_enough) {
    constexpr int kRounds = 8;
    const auto give_up_at = SteadyClock::now() + std::chrono::seconds(20);
    double shortest = 1e9;
    for (int i = 0; i < kRounds || (shortest > short_enough && SteadyClock::now() < give_up_at); ++i) {
      drain(os_trig_event);
      const auto begin = SteadyClock::now();
      SetEvent(os_trig_timer_event);
      EXPECT_TRUE(take_signal(os_trig_event));
      const std::chrono::duration<double, std::milli> taken = SteadyClock::now() - begin;
      shortest = std::min(shortest, taken.count());
    }
    return shortest;
  }

 private:
  std::thread thread_;
  void* result_ = this;
};

TEST_F(TimerThreadAlone, SleepsUntilTheHeadIsDueInSlicesOfThirtyMilliseconds) {
  struct Row {
    const char* what;
    ULONG duration;
    ULONG passed;
    bool poll;
    double least;
    double most;  ///< of the shortest of several sleeps; the next longer slice would exceed it
  };
  const Row rows[] = {
      {"a far timer", 100000, 0, false, 30, 60},
      {"31 ms to go", 1000, 969, false, 30, 60},
      {"a near timer", 1000, 980, false, 20, 29},
      {"5 ms to go", 1000, 995, false, 5, 19},
      {"due now", 1000, 1000, false, 1, 9},
      {"overdue", 1000, 5000, false, 1, 9},
      {"farther than half the tick's range looks overdue", 0x90000000, 0, false, 1, 9},
      {"poll triggers cap the slice", 100000, 0, true, 10, 19},
      {"poll triggers do not stretch it", 1000, 996, true, 4, 9},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    FakeClock::set(kNow);
    OSTimerTrigger timer(row.duration, 0);
    timer.action = OS_TA_NONE;
    std::unique_ptr<OSPollTrigger> poll;
    if (row.poll) poll = std::make_unique<OSPollTrigger>(never, nullptr, nullptr, 0u);
    FakeClock::set(kNow + row.passed);
    const double sleep = shortest_sleep(row.most);
    EXPECT_GE(sleep, row.least - 0.5);
    EXPECT_LE(sleep, row.most);
  }
}

TEST_F(TimerThreadAlone, SleepsOnItsEventWhenNoTimerIsPendingEvenWithPollTriggers) {
  OSPollTrigger poll(never, nullptr, nullptr, 0);
  drain(os_trig_event);
  for (int i = 0; i < 5; ++i) SetEvent(os_trig_timer_event);
  sem_t* signals = KernelEvent::Find(os_trig_timer_event)->sem;
  EXPECT_TRUE(wait_until(
      [signals] {
        int left = -1;
        sem_getvalue(signals, &left);
        return left == 0;
      },
      kPatienceMs));
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
class TriggerTaskAlone : public DispatchPass {
 protected:
  void TearDown() override {
    delete task_;
    DispatchPass::TearDown();
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

class RunningKernel : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FakeClock::set(kNow);
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
  const int checks = timer->checks;
  const auto begin = SteadyClock::now();
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

  // Nothing pending: after the last kicks have been used up nobody asks any more.
  int last = -1;
  ASSERT_TRUE(wait_until(
      [&] {
        const int now = asked;
        const bool quiet = now == last;
        last = now;
        if (!quiet) std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return quiet;
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
