// Timer triggers: arming, expiry, and their order in OS_TIMER_LIST, on a clock that stands still until a test
// moves it.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/trigger_fixtures.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

static_assert(std::is_base_of_v<OSTrigger, OSTimerTrigger>);
static_assert(std::is_same_v<decltype(OSTimerTrigger::start_time), ULONG>);
static_assert(std::is_same_v<decltype(OSTimerTrigger::duration), ULONG>);
static_assert(std::is_same_v<decltype(OSTimerTrigger::single_shot), TBOOL>);

using Timer = Exposed<OSTimerTrigger>;

class TimerTriggers : public StillClockTest {};

// ---- Construction --------------------------------------------------------------------------------------

TEST_F(TimerTriggers, ATimerIsArmedAtOnceUnlessToldNotTo) {
  for (const ULONG duration : {0u, 1u, 100u, 0xFFFFFFFFu}) {
    for (const int inactive : {0, 1, 2, -1}) {
      SCOPED_TRACE(std::to_string(duration) + ", " + std::to_string(inactive));
      OSTimerTrigger timer(duration, inactive);
      EXPECT_EQ(timer.action, OS_TA_WAKE);
      EXPECT_EQ(timer.task, nullptr);
      EXPECT_EQ(timer.duration, duration);
      EXPECT_EQ(timer.start_time, kNow);
      EXPECT_EQ(timer.fired, 0);
      EXPECT_EQ(timer.State(), inactive == 0 ? OS_T_WAIT : OS_T_INACTIVE);
      const bool listed = inactive == 0 && duration != 0;
      EXPECT_EQ(triggers_on(OS_TIMER_LIST), listed ? Triggers{&timer} : Triggers{});
      EXPECT_EQ(drain(os_trig_event), listed ? 1 : 0);
    }
  }
}

TEST_F(TimerTriggers, ByDefaultATimerWakesTheTaskThatMadeIt) {
  Gate made;
  Gate snoozing;
  OSTimerTrigger* timer = nullptr;
  Owned<FunctionTask> task([&](FunctionTask& self) {
    timer = new OSTimerTrigger(100, 0);
    made.open();
    self.Snooze();
    snoozing.open();
    while (state_of(self) != OS_ST_KILL) Sleep(1);
  });
  ASSERT_TRUE(made.wait());
  ASSERT_TRUE(snoozing.wait());
  EXPECT_EQ(timer->task, task.get());
  FakeClock::advance(100);
  os_check_triggers();
  EXPECT_EQ(timer->State(), OS_T_ACTIONED);
  EXPECT_EQ(task->WakeCode(), 4);
  delete timer;
}

TEST_F(TimerTriggers, ATimerWithoutDurationNeverExpiresButCanBeFired) {
  Timer timer(0, 0);
  count(timer);
  EXPECT_EQ(timer.State(), OS_T_WAIT);
  EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
  for (const ULONG ahead : {1u, 1000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    FakeClock::set(kNow + ahead);
    timer.Check();
    os_check_triggers();
    EXPECT_EQ(timer.State(), OS_T_WAIT);
    EXPECT_EQ(timer.start_time, kNow);
  }
  timer.Fire();
  EXPECT_EQ(timer.State(), OS_T_READY);
  EXPECT_EQ(timer.reason, 1);
  EXPECT_EQ(timer.fired, 1);
  os_check_triggers();
  EXPECT_EQ(calls(), 1);
}

TEST_F(TimerTriggers, SingleShotIsNotConsulted) {
  for (const TBOOL single_shot : {'\0', '\1'}) {
    FakeClock::set(kNow);
    Timer timer(100, 0);
    timer.single_shot = single_shot;
    count(timer);
    for (int period = 1; period <= 3; ++period) {
      FakeClock::advance(100);
      os_check_triggers();
      EXPECT_EQ(timer.fired, period);
      EXPECT_EQ(timer.single_shot, single_shot);
      timer.Clear();
      EXPECT_EQ(timer.State(), OS_T_WAIT);
    }
  }
}

// ---- Expiry --------------------------------------------------------------------------------------------

TEST_F(TimerTriggers, ATimerExpiresWhenItsWholeDurationHasPassed) {
  for (const ULONG start : {0u, kNow, 0x7FFFFFF0u, 0xFFFFFFF0u}) {
    for (const ULONG duration : {1u, 32u, 100000u, 0x80000001u}) {
      SCOPED_TRACE(std::to_string(start) + " + " + std::to_string(duration));
      FakeClock::set(start);
      Timer timer(duration, 0);
      count(timer);
      timer.Check();
      EXPECT_EQ(timer.State(), OS_T_WAIT);
      FakeClock::set(start + duration - 1);
      timer.Check();
      EXPECT_EQ(timer.State(), OS_T_WAIT);
      EXPECT_EQ(timer.start_time, start);
      EXPECT_EQ(timer.reason, 0);
      FakeClock::set(start + duration);
      timer.Check();
      EXPECT_EQ(timer.State(), OS_T_READY);
      EXPECT_EQ(timer.reason, 4);
      EXPECT_EQ(timer.fired, 1);
      EXPECT_EQ(timer.start_time, start + duration);
      EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
      EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&timer});
    }
  }
}

TEST_F(TimerTriggers, ALateExpiryMeasuresTheNextPeriodFromTheScheduledOne) {
  Timer timer(100, 0);
  count(timer);
  FakeClock::set(kNow + 137);
  os_check_triggers();
  EXPECT_EQ(timer.fired, 1);
  EXPECT_EQ(timer.start_time, kNow + 100);
}

TEST_F(TimerTriggers, AnExpiredTimerThatIsNotArmedStillMovesItsPeriodOn) {
  for (const OSTrState state : {OS_T_INACTIVE, OS_T_READY, OS_T_ACTIONED}) {
    FakeClock::set(kNow);
    Timer timer(100, 1);
    count(timer);
    if (state != OS_T_INACTIVE) timer.Ready();
    if (state == OS_T_ACTIONED) timer.Actioned();
    ASSERT_EQ(timer.State(), state);
    FakeClock::set(kNow + 99);
    timer.Check();
    EXPECT_EQ(timer.start_time, kNow);
    FakeClock::set(kNow + 250);
    timer.Check();
    EXPECT_EQ(timer.start_time, kNow + 100);
    EXPECT_EQ(timer.reason, 4);
    timer.Check();
    EXPECT_EQ(timer.start_time, kNow + 200);
    timer.Check();
    EXPECT_EQ(timer.start_time, kNow + 200);
    EXPECT_EQ(timer.State(), state);
    EXPECT_EQ(timer.fired, 0);
  }
}

TEST_F(TimerTriggers, APeriodicTimerClearedLateExpiresAtTheNextScheduledMoment) {
  const ULONG starts[] = {kNow, 0xFFFFFF60u};  // the second one wraps between the periods
  for (const ULONG start : starts) {
    FakeClock::set(start);
    Timer timer(100, 0);
    count(timer);
    FakeClock::set(start + 100);
    os_check_triggers();
    EXPECT_EQ(timer.fired, 1);
    FakeClock::set(start + 137);
    timer.Clear();
    EXPECT_EQ(timer.State(), OS_T_WAIT);
    FakeClock::set(start + 199);
    os_check_triggers();
    EXPECT_EQ(timer.fired, 1);
    FakeClock::set(start + 200);
    os_check_triggers();
    EXPECT_EQ(timer.fired, 2);
    EXPECT_EQ(timer.start_time, start + 200);
  }
  EXPECT_EQ(calls(), 4);
}

TEST_F(TimerTriggers, ClearActivatesATimerThatHasExpiredMeanwhileBeforeItReturns) {
  Timer timer(100, 0);
  count(timer);
  FakeClock::set(kNow + 550);
  for (int missed = 1; missed <= 5; ++missed) {
    timer.Clear();
    EXPECT_EQ(timer.State(), OS_T_READY);
    EXPECT_EQ(timer.fired, missed);
    EXPECT_EQ(timer.reason, 4);
    EXPECT_EQ(timer.start_time, kNow + 100 * static_cast<ULONG>(missed));
    EXPECT_TRUE(timer.Action());
  }
  timer.Clear();
  EXPECT_EQ(timer.State(), OS_T_WAIT);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&timer});
}

// ---- SetTimer ------------------------------------------------------------------------------------------

TEST_F(TimerTriggers, SetTimerStartsAfreshFromEveryState) {
  for (const OSTrState state : {OS_T_INACTIVE, OS_T_WAIT, OS_T_READY, OS_T_ACTIONED}) {
    for (const ULONG before : {0u, 70u}) {
      for (const ULONG after : {0u, 40u, 70u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(std::to_string(state) + ": " + std::to_string(before) + " -> " + std::to_string(after));
        FakeClock::set(kNow);
        Timer timer(before, 1);
        count(timer);
        if (state == OS_T_WAIT) timer.Wait();
        if (state == OS_T_READY || state == OS_T_ACTIONED) {
          timer.Wait();
          timer.Fire();
        }
        if (state == OS_T_ACTIONED) os_check_triggers();
        ASSERT_EQ(timer.State(), state);
        const int fired = timer.fired;
        drain(os_trig_event);
        FakeClock::set(kNow + 60);

        timer.SetTimer(after);

        EXPECT_EQ(timer.State(), OS_T_WAIT);
        EXPECT_EQ(timer.duration, after);
        EXPECT_EQ(timer.start_time, kNow + 60);
        EXPECT_EQ(timer.fired, fired);
        EXPECT_EQ(OS_READY_LIST.Size(), 0);
        EXPECT_EQ(triggers_on(OS_TIMER_LIST), after != 0 ? Triggers{&timer} : Triggers{});
        EXPECT_EQ(drain(os_trig_event), after != 0 ? 1 : 0);
      }
    }
  }
}

TEST_F(TimerTriggers, SetTimerMovesATimerToItsNewPlace) {
  Timer a(100, 0);
  Timer b(200, 0);
  Timer c(300, 0);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&a, &b, &c}));
  a.SetTimer(250);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&b, &a, &c}));
  c.SetTimer(10);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&c, &b, &a}));
  b.SetTimer(250);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&c, &a, &b}));
}

// ---- Order ---------------------------------------------------------------------------------------------

TEST_F(TimerTriggers, TheShorterTimerTakesTheHeadAndSignalsTheTriggerTask) {
  Timer longer(100, 0);
  EXPECT_EQ(drain(os_trig_event), 1);
  Timer shorter(50, 0);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&shorter, &longer}));
  EXPECT_EQ(drain(os_trig_event), 1);
  Timer longest(200, 0);
  EXPECT_EQ(drain(os_trig_event), 0) << "only a new head changes the next wake-up";
}

TEST_F(TimerTriggers, ANewTimerIsPutWhereItsWholeDurationBelongs) {
  struct Arming {
    ULONG after;  ///< ms since the one before
    ULONG duration;
  };
  struct Row {
    const char* what;
    std::vector<Arming> armings;
    std::vector<int> order;
    int new_heads;
  };
  const std::vector<Row> rows = {
      {"shorter before longer", {{0, 100}, {0, 50}}, {1, 0}, 2},
      {"longer behind shorter", {{0, 50}, {0, 100}}, {0, 1}, 1},
      {"equal durations keep arrival order", {{0, 100}, {0, 100}, {0, 100}}, {0, 1, 2}, 1},
      {"less than what is left of the other", {{0, 100}, {60, 39}}, {1, 0}, 2},
      {"as much as what is left of the other", {{0, 100}, {60, 40}}, {0, 1}, 1},
      {"more than what is left of the other", {{0, 100}, {60, 41}}, {0, 1}, 1},
      {"the last millisecond of the other", {{0, 100}, {99, 1}}, {0, 1}, 1},
      {"the other has just expired", {{0, 100}, {100, 1}}, {0, 1}, 1},
      {"expired ones sort before any new one", {{0, 10}, {50, 1}}, {0, 1}, 1},
      {"behind the expired, before the waiting", {{0, 10}, {0, 100}, {50, 20}}, {0, 2, 1}, 1},
      {"behind two expired", {{0, 10}, {0, 20}, {0, 100}, {50, 20}}, {0, 1, 3, 2}, 1},
      {"in the middle", {{0, 100}, {0, 300}, {0, 500}, {150, 100}}, {0, 3, 1, 2}, 1},
      {"at the tail", {{0, 100}, {0, 300}, {0, 500}, {150, 400}}, {0, 1, 2, 3}, 1},
      {"durations beyond half the range", {{0, 0xFFFFFFFF}, {0, 0x80000000}, {0, 1}}, {2, 1, 0}, 3},
      {"no duration, no place", {{0, 100}, {0, 0}, {0, 50}}, {2, 0}, 2},
  };
  for (const ULONG start : {kNow, 0xFFFFFFB0u}) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.what) + " from " + std::to_string(start));
      FakeClock::set(start);
      std::vector<std::unique_ptr<Timer>> timers;
      for (const Arming& arming : row.armings) {
        FakeClock::advance(arming.after);
        timers.push_back(std::make_unique<Timer>(arming.duration, 0));
      }
      Triggers expected;
      for (const int i : row.order) expected.push_back(timers[static_cast<std::size_t>(i)].get());
      EXPECT_EQ(triggers_on(OS_TIMER_LIST), expected);
      EXPECT_EQ(drain(os_trig_event), row.new_heads);
    }
  }
}

TEST_F(TimerTriggers, ARearmedTimerIsPlacedByItsWholeDurationNotByWhatIsLeft) {
  Timer periodic(100, 0);
  count(periodic);
  FakeClock::set(kNow + 100);
  os_check_triggers();
  FakeClock::set(kNow + 150);
  Timer other(100, 0);
  count(other);
  drain(os_trig_event);
  FakeClock::set(kNow + 190);
  periodic.Clear();
  // 10 ms are left of it and 60 of the other, but 100 is not less than 60.
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&other, &periodic}));
  EXPECT_EQ(drain(os_trig_event), 0);

  FakeClock::set(kNow + 210);
  os_check_triggers();
  EXPECT_EQ(periodic.State(), OS_T_WAIT) << "an overdue timer waits behind a head that is not due";
  FakeClock::set(kNow + 250);
  os_check_triggers();
  EXPECT_EQ(other.fired, 1);
  EXPECT_EQ(periodic.fired, 2);
  EXPECT_EQ(periodic.start_time, kNow + 200);
}

TEST_F(TimerTriggers, ArmingAnArmedTimerChangesNothing) {
  Timer a(100, 0);
  Timer b(100, 0);
  drain(os_trig_event);
  const ULONG signature = OS_TIMER_LIST.Signature();
  FakeClock::advance(30);
  a.Wait();
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&a, &b}));
  EXPECT_EQ(OS_TIMER_LIST.Signature(), signature);
  EXPECT_EQ(a.start_time, kNow);
  EXPECT_EQ(drain(os_trig_event), 0);
}

}  // namespace
