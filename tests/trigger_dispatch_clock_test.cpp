// Dispatch passes over timers and poll triggers, on a clock that stands still until a test moves it.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/graveyard.h"
#include "support/ring_check.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

using Timer = Exposed<OSTimerTrigger>;
using PollTrigger = Exposed<OSPollTrigger>;

class DispatchPass : public StillClockTest {};

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

/// Does something once when it is checked, instead of looking at the time.
class ScriptedTimer : public OSTimerTrigger {
 public:
  explicit ScriptedTimer(ULONG duration_ms) : OSTimerTrigger(duration_ms, 0) {}
  ~ScriptedTimer() override { OSTimerTrigger::Inactive(); }
  void Check() override {
    if (!work) return;
    const Script once = std::move(work);
    work = nullptr;
    once();  // may delete this timer
  }
  Script work;
};

TEST_F(DispatchPass, ATimerWhoseCheckDeletesItIsLeftAloneAndTheNextIsTested) {
  using MortalTimer = Mortal<ScriptedTimer>;
  auto* timer = new MortalTimer(50);
  timer->work = [timer] { delete timer; };
  CheckedTimer due(100);
  log_as(due, 'd');
  due.Clear();
  FakeClock::set(kNow + 100);
  os_check_triggers();
  EXPECT_TRUE(MortalTimer::rests_in_peace());
  EXPECT_EQ(log, "d");
}

TEST_F(DispatchPass, ATimerWhoseCheckTakesItAwayEndsTheTimersOfThePass) {
  // It has not activated, so it counts as one that is not due.
  ScriptedTimer timer(50);
  timer.work = [&timer] { timer.Cancel(); };
  CheckedTimer due(100);
  log_as(due, 'd');
  due.Clear();
  FakeClock::set(kNow + 100);
  os_check_triggers();
  EXPECT_EQ(log, "");
  os_check_triggers();
  EXPECT_EQ(log, "d");
}

TEST_F(DispatchPass, ASynchronousWakeIsMadeWhileTimersAreTested) {
  Owned<> task;
  Timer timer(100, 0);
  timer.SetTask(task.get());
  timer.async = 0;
  Timer behind(100, 0);
  log_as(behind, 'b');
  task->Snooze();
  FakeClock::advance(100);
  os_check_triggers();
  EXPECT_EQ(timer.State(), OS_T_ACTIONED);
  EXPECT_EQ(timer.fired, 1);
  EXPECT_EQ(drain(task->thread_event), 1);
  EXPECT_EQ(task->WakeCode(), 4);
  EXPECT_EQ(log, "b") << "a timer that was actioned at once has activated too";
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

}  // namespace
