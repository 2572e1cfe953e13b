// Timer, queue and poll triggers on a clock that stands still until a test moves it.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/posixkernel_time.h"
#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

constexpr ULONG kNow = 5000;

static_assert(std::is_base_of_v<OSTrigger, OSTimerTrigger>);
static_assert(std::is_base_of_v<OSTimerTrigger, OSQTrigger>);
static_assert(std::is_base_of_v<OSTrigger, OSPollTrigger>);
static_assert(!std::is_base_of_v<OSTimerTrigger, OSPollTrigger>);
static_assert(std::is_same_v<decltype(OSTimerTrigger::start_time), ULONG>);
static_assert(std::is_same_v<decltype(OSTimerTrigger::duration), ULONG>);
static_assert(std::is_same_v<decltype(OSTimerTrigger::single_shot), TBOOL>);
static_assert(std::is_same_v<decltype(OSQTrigger::minqlen), int>);
static_assert(std::is_same_v<decltype(OSQTrigger::maxqlen), int>);

using Timer = Exposed<OSTimerTrigger>;
using QueueTrigger = Exposed<OSQTrigger>;
using PollTrigger = Exposed<OSPollTrigger>;

/// Something to queue. Its owner keeps it, so flushing a queue only lets it go.
class Item : public OSLinkListObj {
 public:
  void Free() override {}
};

BOOL never(OSTrigger*, OSObj*, ADDR, ULONG) { return FALSE; }
BOOL always(OSTrigger*, OSObj*, ADDR, ULONG) { return TRUE; }

class TriggerKinds : public KernelTest {
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
    EXPECT_EQ(console.fatals(), std::vector<std::string>{});
    KernelTest::TearDown();
  }

  /// Gives a trigger a callback that only counts, so that dispatch passes have something harmless to do.
  void count(OSTrigger& trigger) { trigger.SetCallback(count_call, as_obj(&calls_), nullptr, 0); }
  int calls() const { return calls_; }

 private:
  std::atomic<int> calls_{0};
};

// ---- Layout ----------------------------------------------------------------------------------------------------

TEST_F(TriggerKinds, FieldsStandInTheOrderThatProgramsWereBuiltAgainst) {
  OSQueue queue;
  OSQTrigger q(&queue, 5, 0, 0);
  const std::vector<const void*> timer_and_queue = {&q.fired, &q.start_time, &q.duration, &q.single_shot,
                                                    &q.q,     &q.minqlen,    &q.maxqlen};
  for (std::size_t i = 1; i < timer_and_queue.size(); ++i)
    EXPECT_LT(timer_and_queue[i - 1], timer_and_queue[i]);
  OSPollTrigger p(never, nullptr, nullptr, 0);
  const std::vector<const void*> poll = {&p.fired, &p.pollfunc, &p.pobj, &p.paddr, &p.pvalue};
  for (std::size_t i = 1; i < poll.size(); ++i) EXPECT_LT(poll[i - 1], poll[i]);
}

TEST_F(TriggerKinds, KindsAddNoVirtualOperations) {
  EXPECT_EQ(vtable_slot(&OSTimerTrigger::Check), 4);
  EXPECT_EQ(vtable_slot(&OSQTrigger::Check), 4);
  EXPECT_EQ(vtable_slot(&OSPollTrigger::Check), 4);
  EXPECT_EQ(vtable_slot(&Timer::Inactive), 5);
  EXPECT_EQ(vtable_slot(&QueueTrigger::Wait), 6);
  EXPECT_EQ(vtable_slot(&PollTrigger::Wait), 6);
  EXPECT_EQ(vtable_slot(&QueueTrigger::Actioned), 8);
  EXPECT_EQ(vtable_slot(&OSTimerTrigger::SetTimer), -1);
}

// ---- Timers: construction --------------------------------------------------------------------------------------

TEST_F(TriggerKinds, ATimerIsArmedAtOnceUnlessToldNotTo) {
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

TEST_F(TriggerKinds, ByDefaultATimerWakesTheTaskThatMadeIt) {
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

TEST_F(TriggerKinds, ATimerWithoutDurationNeverExpiresButCanBeFired) {
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

TEST_F(TriggerKinds, SingleShotIsNotConsulted) {
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

// ---- Timers: expiry --------------------------------------------------------------------------------------------

TEST_F(TriggerKinds, ATimerExpiresWhenItsWholeDurationHasPassed) {
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

TEST_F(TriggerKinds, ALateExpiryMeasuresTheNextPeriodFromTheScheduledOne) {
  Timer timer(100, 0);
  count(timer);
  FakeClock::set(kNow + 137);
  os_check_triggers();
  EXPECT_EQ(timer.fired, 1);
  EXPECT_EQ(timer.start_time, kNow + 100);
}

TEST_F(TriggerKinds, AnExpiredTimerThatIsNotArmedStillMovesItsPeriodOn) {
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

TEST_F(TriggerKinds, APeriodicTimerClearedLateExpiresAtTheNextScheduledMoment) {
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

TEST_F(TriggerKinds, ClearActivatesATimerThatHasExpiredMeanwhileBeforeItReturns) {
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

// ---- Timers: SetTimer ------------------------------------------------------------------------------------------

TEST_F(TriggerKinds, SetTimerStartsAfreshFromEveryState) {
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

TEST_F(TriggerKinds, SetTimerMovesATimerToItsNewPlace) {
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

// ---- Timers: order ---------------------------------------------------------------------------------------------

TEST_F(TriggerKinds, TheShorterTimerTakesTheHeadAndSignalsTheTriggerTask) {
  Timer longer(100, 0);
  EXPECT_EQ(drain(os_trig_event), 1);
  Timer shorter(50, 0);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&shorter, &longer}));
  EXPECT_EQ(drain(os_trig_event), 1);
  Timer longest(200, 0);
  EXPECT_EQ(drain(os_trig_event), 0) << "only a new head changes the next wake-up";
}

TEST_F(TriggerKinds, ANewTimerIsPutWhereItsWholeDurationBelongs) {
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

TEST_F(TriggerKinds, ARearmedTimerIsPlacedByItsWholeDurationNotByWhatIsLeft) {
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

TEST_F(TriggerKinds, ArmingAnArmedTimerChangesNothing) {
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

// The stated insertion walk, word for word, with the dispatch pass around it. The list of the kernel may have
// any index beside it; what a program sees must be this.
class TimerModel {
 public:
  struct Entry {
    ULONG start = 0;
    ULONG duration = 0;
    OSTrState state = OS_T_INACTIVE;
    int fired = 0;
    bool rearms = false;
    std::uint64_t listed_elapsed = 0;  ///< ms since `start` while it is listed, not reduced to 32 bits
  };

  explicit TimerModel(int count) : entries(static_cast<std::size_t>(count)) {}

  void advance(ULONG ms) {
    now += ms;
    for (const int i : timer_list) at(i).listed_elapsed += ms;
  }
  /// A jump may not carry a listed timer once round the whole range of the tick.
  bool may_advance(std::uint64_t ms) {
    for (const int i : timer_list) {
      if (at(i).listed_elapsed + ms >= 0xFFFFFFFFull) return false;
    }
    return true;
  }

  void inactive(int i) {
    timer_list.remove(i);
    ready_list.remove(i);
    at(i).state = OS_T_INACTIVE;
  }
  void wait(int i) {
    Entry& t = at(i);
    if (t.state == OS_T_WAIT) return;
    ready_list.remove(i);
    t.state = OS_T_WAIT;
    if (t.duration == 0) return;
    auto place = timer_list.begin();
    for (; place != timer_list.end(); ++place) {
      const Entry& listed = at(*place);
      const ULONG elapsed = now - listed.start;
      if (elapsed < listed.duration && t.duration < listed.duration - elapsed) break;
    }
    timer_list.insert(place, i);
    t.listed_elapsed = static_cast<ULONG>(now - t.start);
    if (timer_list.front() == i) ++signals;
  }
  void activate(int i) {
    if (at(i).state != OS_T_WAIT) return;
    inactive(i);
    ++at(i).fired;
    at(i).state = OS_T_READY;
    ready_list.push_back(i);
    ++signals;
  }
  void check(int i) {
    Entry& t = at(i);
    if (t.duration == 0 || static_cast<ULONG>(now - t.start) < t.duration) return;
    t.start += t.duration;
    activate(i);
  }
  void clear(int i) {
    wait(i);
    check(i);
  }
  void set_timer(int i, ULONG duration) {
    inactive(i);
    at(i).duration = duration;
    at(i).start = now;
    wait(i);
  }
  void pass() {
    while (!timer_list.empty()) {
      const int head = timer_list.front();
      const int fired = at(head).fired;
      check(head);
      if (at(head).fired == fired) break;
    }
    while (!ready_list.empty()) {
      const int head = ready_list.front();
      ready_list.pop_front();
      at(head).state = OS_T_ACTIONED;
      actioned.push_back(head);
      if (at(head).rearms && rearm_ends(now, at(head).start, at(head).duration)) clear(head);
    }
  }
  /// A callback arms its timer again only when few periods have been missed, so that a pass ends.
  static bool rearm_ends(ULONG tick, ULONG start, ULONG duration) {
    return duration != 0 && (tick - start) / duration < 20;
  }

  Entry& at(int i) { return entries[static_cast<std::size_t>(i)]; }

  std::vector<Entry> entries;
  std::list<int> timer_list;
  std::list<int> ready_list;
  std::vector<int> actioned;
  int signals = 0;
  ULONG now = 0;
};

class TimerListAgainstModel : public TriggerKinds {
 protected:
  static constexpr int kTimers = 24;

  /// A timer of the kernel that does what the model's entry does.
  struct Real {
    TimerListAgainstModel* test = nullptr;
    int index = 0;
    std::unique_ptr<Timer> timer;
  };

  static void actioned(OSObj* obj, ADDR, ULONG) {
    Real& real = from_obj<Real>(obj);
    TimerListAgainstModel& test = *real.test;
    test.actioned_.push_back(real.index);
    Timer& timer = *real.timer;
    if (test.model_.at(real.index).rearms &&
        TimerModel::rearm_ends(FakeClock::now(), timer.start_time, timer.duration)) {
      timer.Clear();
    }
  }

  void make(int i, ULONG duration, int inactive) {
    Real& real = reals_[static_cast<std::size_t>(i)];
    real.test = this;
    real.index = i;
    real.timer = std::make_unique<Timer>(duration, inactive);
    real.timer->SetCallback(&actioned, as_obj(&real), nullptr, 0);
    TimerModel::Entry& entry = model_.at(i);
    const bool rearms = entry.rearms;
    entry = {};
    entry.rearms = rearms;
    entry.start = model_.now;
    entry.duration = duration;
    if (inactive == 0) model_.wait(i);
  }

  void set_clock(ULONG tick) {
    FakeClock::set(tick);
    model_.now = tick;
  }

  void advance(ULONG ms) {
    if (!model_.may_advance(ms)) return;
    FakeClock::advance(ms);
    model_.advance(ms);
  }

  static ULONG any_duration(std::mt19937& random) {
    switch (pick(random, 0, 9)) {
      case 0:
        return 0;
      case 1:
      case 2:
        return static_cast<ULONG>(pick(random, 1, 10));
      case 3:
      case 4:
        return static_cast<ULONG>(50 * pick(random, 1, 4));  // many equal ones
      case 5:
      case 6:
      case 7:
        return static_cast<ULONG>(pick(random, 1, 1000));
      case 8:
        return static_cast<ULONG>(pick(random, 1000, 1000000));
      default:
        return 0xFFFFFFFFu - static_cast<ULONG>(pick(random, 0, 0x7FFFFFFF));
    }
  }

  static ULONG any_advance(std::mt19937& random) {
    const int kind = pick(random, 0, 199);
    if (kind < 120) return static_cast<ULONG>(pick(random, 0, 5));
    if (kind < 180) return static_cast<ULONG>(pick(random, 5, 120));
    if (kind < 195) return static_cast<ULONG>(pick(random, 100, 5000));
    if (kind < 198) return static_cast<ULONG>(pick(random, 100000, 10000000));
    return static_cast<ULONG>(pick(random, 0x10000000, 0x70000000));
  }

  [[nodiscard]] bool same_as_model() {
    Triggers timers;
    for (const int i : model_.timer_list) timers.push_back(reals_[static_cast<std::size_t>(i)].timer.get());
    Triggers ready;
    for (const int i : model_.ready_list) ready.push_back(reals_[static_cast<std::size_t>(i)].timer.get());
    bool same = triggers_on(OS_TIMER_LIST) == timers && triggers_on(OS_READY_LIST) == ready &&
                actioned_ == model_.actioned && drain(os_trig_event) == model_.signals;
    model_.signals = 0;
    model_.actioned.clear();
    actioned_.clear();
    for (int i = 0; i < kTimers; ++i) {
      const Timer& timer = *reals_[static_cast<std::size_t>(i)].timer;
      const TimerModel::Entry& entry = model_.at(i);
      same = same && timer.state == entry.state && timer.start_time == entry.start &&
             timer.duration == entry.duration && timer.fired == entry.fired;
    }
    return same;
  }

  TimerModel model_{kTimers};
  std::array<Real, kTimers> reals_;
  std::vector<int> actioned_;
};

TEST_F(TimerListAgainstModel, AnySequenceOfOperationsGivesTheOrderOfTheStatedWalk) {
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  constexpr int kSteps = 30000;
  set_clock(0xFFFFF000u);  // soon wraps
  for (int i = 0; i < kTimers; ++i) {
    model_.at(i).rearms = pick(random, 0, 2) == 0;
    make(i, any_duration(random), pick(random, 0, 1));
  }
  ASSERT_TRUE(same_as_model());

  int step = 0;
  for (; step < kSteps; ++step) {
    const int i = pick(random, 0, kTimers - 1);
    Timer& timer = *reals_[static_cast<std::size_t>(i)].timer;
    const int operation = pick(random, 0, 99);
    if (operation < 30) {
      advance(any_advance(random));
    } else if (operation < 50) {
      const ULONG duration = any_duration(random);
      timer.SetTimer(duration);
      model_.set_timer(i, duration);
    } else if (operation < 65) {
      timer.Clear();
      model_.clear(i);
    } else if (operation < 70) {
      timer.Wait();
      model_.wait(i);
    } else if (operation < 78) {
      timer.Cancel();
      model_.inactive(i);
    } else if (operation < 82) {
      timer.Fire();
      model_.activate(i);
    } else if (operation < 87) {
      timer.Check();
      model_.check(i);
    } else if (operation < 90) {
      const ULONG duration = any_duration(random);
      const int inactive = pick(random, 0, 1);
      reals_[static_cast<std::size_t>(i)].timer.reset();
      model_.inactive(i);
      make(i, duration, inactive);
    } else {
      os_check_triggers();
      model_.pass();
    }
    if (!same_as_model()) break;
  }
  EXPECT_EQ(step, kSteps) << "the kernel left the model at this step";
  for (Real& real : reals_) real.timer.reset();
}

TEST_F(TimerListAgainstModel, ManyTimersKeepTheOrderOfTheStatedWalkThroughTimeAndWrap) {
  // As programs use them: a few durations, mostly re-armed, seldom late. Long lists, so that an index shows.
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  constexpr int kMany = 600;
  constexpr int kSteps = 6000;
  TimerModel model(kMany);
  model.now = 0xFFFFFF00u;
  FakeClock::set(model.now);
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < kMany; ++i) {
    const ULONG duration = static_cast<ULONG>(pick(random, 1, 3) == 1 ? 200 : pick(random, 1, 2000));
    timers.push_back(std::make_unique<Timer>(duration, 0));
    count(*timers.back());
    model.at(i).start = model.now;
    model.at(i).duration = duration;
    model.wait(i);
  }
  int step = 0;
  for (; step < kSteps; ++step) {
    const ULONG ms = static_cast<ULONG>(pick(random, 0, 3));
    FakeClock::advance(ms);
    model.advance(ms);
    const int i = pick(random, 0, kMany - 1);
    Timer& timer = *timers[static_cast<std::size_t>(i)];
    switch (pick(random, 0, 3)) {
      case 0:
      case 1:
        timer.Clear();
        model.clear(i);
        break;
      case 2: {
        const ULONG duration = static_cast<ULONG>(pick(random, 1, 2000));
        timer.SetTimer(duration);
        model.set_timer(i, duration);
        break;
      }
      default:
        os_check_triggers();
        model.pass();
        break;
    }
    if (step % 10 == 0 || step + 1 == kSteps) {
      Triggers expected;
      for (const int listed : model.timer_list)
        expected.push_back(timers[static_cast<std::size_t>(listed)].get());
      if (triggers_on(OS_TIMER_LIST) != expected) break;
    }
  }
  EXPECT_EQ(step, kSteps) << "the kernel left the model at or shortly before this step";
  EXPECT_EQ(drain(os_trig_event), model.signals);
}

// ---- Queue triggers --------------------------------------------------------------------------------------------

class QueueTriggers : public TriggerKinds {
 protected:
  void fill(OSQueue& queue, int n) {
    for (int i = 0; i < n; ++i) {
      items_.push_back(std::make_unique<Item>());
      queue.Append(items_.back().get());
    }
  }
  std::vector<std::unique_ptr<Item>> items_;
};

TEST_F(QueueTriggers, MarksDecideOnConstruction) {
  struct Row {
    ULONG max;
    ULONG min;
    int queued;
    bool active;
  };
  const std::vector<Row> rows = {
      {1, 0, 0, false},          {1, 0, 1, true},  {1, 0, 5, true},   // high mark
      {3, 0, 2, false},          {3, 0, 3, true},                     //
      {0, 2, 0, true},           {0, 2, 1, true},  {0, 2, 2, true},   // low mark
      {0, 2, 3, false},          {0, 1, 0, true},                     //
      {5, 2, 2, true},           {5, 2, 3, false}, {5, 2, 4, false},  // both
      {5, 2, 5, true},           {2, 5, 3, true},                     //
      {0, 0, 0, false},          {0, 0, 5, false},                    // none
      {0xFFFFFFFF, 0, 0, true},   // a negative high mark is always reached
      {0, 0xFFFFFFFF, 0, false},  // a negative low mark never is
      {0x7FFFFFFF, 0, 5, false},  //
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("max " + std::to_string(row.max) + " min " + std::to_string(row.min) + " queued " +
                 std::to_string(row.queued));
    OSQueue queue;
    fill(queue, row.queued);
    {
      OSQTrigger trigger(&queue, row.max, row.min, 0);
      EXPECT_EQ(trigger.action, OS_TA_WAKE);
      EXPECT_EQ(trigger.q, &queue);
      EXPECT_EQ(trigger.maxqlen, static_cast<int>(row.max));
      EXPECT_EQ(trigger.minqlen, static_cast<int>(row.min));
      EXPECT_EQ(trigger.duration, 0u);
      EXPECT_EQ(trigger.start_time, kNow);
      EXPECT_EQ(trigger.State(), row.active ? OS_T_READY : OS_T_WAIT);
      EXPECT_EQ(trigger.reason, row.active ? 3 : 0);
      EXPECT_EQ(trigger.fired, row.active ? 1 : 0);
      EXPECT_EQ(queue.TriggerList()->Size(), row.active ? 0 : 1);
      EXPECT_EQ(OS_READY_LIST.Size(), row.active ? 1 : 0);
      EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
    }
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
    EXPECT_EQ(queue.TriggerList()->Size(), 0);
    queue.Flush();
    items_.clear();
  }
}

TEST_F(QueueTriggers, TheHighMarkIsReachedByAppendingAndInserting) {
  OSQueue queue;
  QueueTrigger trigger(&queue, 2, 0, 0);
  count(trigger);
  Item a;
  Item b;
  queue.Append(&a);
  EXPECT_EQ(trigger.State(), OS_T_WAIT);
  queue.Insert(&b);
  EXPECT_EQ(trigger.State(), OS_T_READY);
  EXPECT_EQ(trigger.reason, 3);
  EXPECT_EQ(queue.TriggerList()->Size(), 0) << "a trigger that is not armed is not on its queue's list";
  os_check_triggers();
  EXPECT_EQ(calls(), 1);
  queue.Flush();
}

TEST_F(QueueTriggers, TheLowMarkIsReachedByRemovingAndFlushing) {
  for (const bool flush : {false, true}) {
    OSQueue queue;
    fill(queue, 4);
    QueueTrigger trigger(&queue, 0, 2, 0);
    EXPECT_EQ(trigger.State(), OS_T_WAIT);
    if (flush) {
      queue.Flush();
    } else {
      queue.Remove(items_[0].get());
      EXPECT_EQ(trigger.State(), OS_T_WAIT);
      queue.Remove(items_[1].get());
    }
    EXPECT_EQ(trigger.State(), OS_T_READY);
    EXPECT_EQ(trigger.reason, 3);
    queue.Flush();
    items_.clear();
  }
}

TEST_F(QueueTriggers, ChangesAreIgnoredUntilTheTriggerIsArmedAgain) {
  OSQueue queue;
  QueueTrigger trigger(&queue, 1, 0, 0);
  count(trigger);
  fill(queue, 3);
  EXPECT_EQ(trigger.fired, 1);
  os_check_triggers();
  fill(queue, 1);
  EXPECT_EQ(trigger.fired, 1);
  EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  trigger.Clear();
  EXPECT_EQ(trigger.State(), OS_T_READY) << "the mark still holds, so Clear activates at once";
  EXPECT_EQ(trigger.fired, 2);
  queue.Flush();
  trigger.Clear();
  EXPECT_EQ(trigger.State(), OS_T_WAIT);
  EXPECT_EQ(queue.TriggerList()->Size(), 1);
}

TEST_F(QueueTriggers, ADurationMakesItATimeOutToo) {
  OSQueue queue;
  QueueTrigger trigger(&queue, 2, 0, 100);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&trigger});
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&trigger});
  count(trigger);
  FakeClock::set(kNow + 99);
  os_check_triggers();
  EXPECT_EQ(trigger.State(), OS_T_WAIT);
  FakeClock::set(kNow + 103);
  os_check_triggers();
  EXPECT_EQ(calls(), 1);
  EXPECT_EQ(trigger.reason, 4);
  EXPECT_EQ(trigger.start_time, kNow + 100);
  EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
  EXPECT_EQ(queue.TriggerList()->Size(), 0);
}

TEST_F(QueueTriggers, AMarkComesBeforeTheTimeOut) {
  for (const bool low : {false, true}) {
    FakeClock::set(kNow);
    OSQueue queue;
    fill(queue, low ? 3 : 0);
    QueueTrigger trigger(&queue, low ? 0 : 1, low ? 1 : 0, 100);
    ASSERT_EQ(trigger.State(), OS_T_WAIT);
    FakeClock::set(kNow + 150);
    if (low) {
      queue.Flush();
    } else {
      fill(queue, 1);
    }
    EXPECT_EQ(trigger.State(), OS_T_READY);
    EXPECT_EQ(trigger.reason, 3);
    EXPECT_EQ(trigger.start_time, kNow) << "the timer is not looked at when a mark holds";
    EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
    queue.Flush();
    items_.clear();
  }
}

TEST_F(QueueTriggers, AChangeOfTheQueueNoticesAnExpiredTimeOut) {
  OSQueue queue;
  QueueTrigger trigger(&queue, 5, 0, 100);
  FakeClock::set(kNow + 100);
  fill(queue, 1);
  EXPECT_EQ(trigger.State(), OS_T_READY);
  EXPECT_EQ(trigger.reason, 4);
  queue.Flush();
}

TEST_F(QueueTriggers, WithoutMarksItIsATimerBoundToTheQueuesList) {
  OSQueue queue;
  fill(queue, 3);
  QueueTrigger trigger(&queue, 0, 0, 100);
  count(trigger);
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&trigger});
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&trigger});
  queue.Flush();
  fill(queue, 3);
  EXPECT_EQ(trigger.State(), OS_T_WAIT);
  FakeClock::set(kNow + 100);
  os_check_triggers();
  EXPECT_EQ(calls(), 1);
  FakeClock::set(kNow + 150);
  trigger.Clear();
  EXPECT_EQ(trigger.State(), OS_T_WAIT);
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&trigger});
  FakeClock::set(kNow + 200);
  os_check_triggers();
  EXPECT_EQ(calls(), 2);
  queue.Flush();
}

TEST_F(QueueTriggers, ArmingAnArmedTriggerDoesNotListItTwice) {
  OSQueue queue;
  QueueTrigger trigger(&queue, 9, 0, 100);
  trigger.Wait();
  trigger.Clear();
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&trigger});
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&trigger});
  trigger.SetTimer(50);
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&trigger});
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&trigger});
}

TEST_F(QueueTriggers, AllTriggersOfAQueueThatHoldBecomeReadyInTheOrderOfTheirArming) {
  // Each activation takes its trigger out of the very list that is being walked.
  OSQueue queue;
  QueueTrigger first(&queue, 1, 0, 0);
  QueueTrigger not_yet(&queue, 2, 0, 0);
  QueueTrigger second(&queue, 1, 0, 0);
  QueueTrigger third(&queue, 1, 0, 0);
  fill(queue, 1);
  EXPECT_EQ(triggers_on(OS_READY_LIST), (Triggers{&first, &second, &third}));
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&not_yet});
  queue.Flush();
}

TEST_F(QueueTriggers, TriggersReturnTheLinksThatTheyTook) {
  OSQueue queue;
  const ULONG links = OSLink::link_pool_size;
  {
    QueueTrigger a(&queue, 9, 0, 0);
    QueueTrigger b(&queue, 9, 0, 10);
    EXPECT_EQ(OSLink::link_pool_size, links - 2);
    a.Cancel();
    EXPECT_EQ(OSLink::link_pool_size, links - 1);
  }
  EXPECT_EQ(OSLink::link_pool_size, links);
  EXPECT_TRUE(LinkPoolIsSound());
}

/// Counts its checks outside of itself and, once, does something to its neighbours.
class Meddler : public OSQTrigger {
 public:
  Meddler(OSQueue* queue, int* checks) : OSQTrigger(queue, 1000, 0, 0), checks_(checks) {}
  ~Meddler() override { OSQTrigger::Inactive(); }
  void Check() override {
    ++*checks_;
    if (!meddle) return;
    const Script work = std::move(meddle);
    meddle = nullptr;
    work();  // may delete this trigger
  }
  Script meddle;

 private:
  int* checks_;
};

TEST_F(QueueTriggers, AChangeChecksEveryTriggerOnceWhateverACheckRemovesOrDeletes) {
  constexpr int kCount = 4;
  for (int meddling = 0; meddling < kCount; ++meddling) {
    for (int victim = 0; victim < kCount; ++victim) {
      for (const bool deletes : {false, true}) {
        for (const char* change : {"Append", "Insert", "Remove", "Flush"}) {
          SCOPED_TRACE(std::string(change) + ": check of " + std::to_string(meddling) +
                       (deletes ? " deletes " : " cancels ") + std::to_string(victim));
          OSQueue queue;
          Item queued;
          Item item;
          queue.Append(&queued);
          std::array<int, kCount> checks{};
          std::array<std::unique_ptr<Meddler>, kCount> triggers;
          for (std::size_t i = 0; i < kCount; ++i)
            triggers[i] = std::make_unique<Meddler>(&queue, &checks[i]);
          auto& target = triggers[static_cast<std::size_t>(victim)];
          triggers[static_cast<std::size_t>(meddling)]->meddle = [&target, deletes] {
            if (deletes) {
              target.reset();
            } else {
              target->Cancel();
            }
          };

          const std::string operation = change;
          if (operation == "Append") queue.Append(&item);
          if (operation == "Insert") queue.Insert(&item);
          if (operation == "Remove") queue.Remove(&queued);
          if (operation == "Flush") queue.Flush();

          for (int i = 0; i < kCount; ++i) {
            const bool gone_before_its_turn = i == victim && victim > meddling;
            EXPECT_EQ(checks[static_cast<std::size_t>(i)], gone_before_its_turn ? 0 : 1) << "trigger " << i;
          }
          EXPECT_EQ(queue.TriggerList()->Size(), kCount - 1);
          EXPECT_TRUE(ListIsSound(*queue.TriggerList()));
          queue.Flush();
        }
      }
    }
  }
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(QueueTriggers, ACheckMayDeleteAllTriggersOfItsQueue) {
  constexpr int kCount = 4;
  for (std::size_t meddling = 0; meddling < kCount; ++meddling) {
    OSQueue queue;
    Item item;
    std::array<int, kCount> checks{};
    std::array<std::unique_ptr<Meddler>, kCount> triggers;
    for (std::size_t i = 0; i < kCount; ++i) triggers[i] = std::make_unique<Meddler>(&queue, &checks[i]);
    triggers[meddling]->meddle = [&triggers] {
      for (auto& trigger : triggers) trigger.reset();
    };
    queue.Append(&item);
    for (std::size_t i = 0; i < kCount; ++i) EXPECT_EQ(checks[i], i <= meddling ? 1 : 0);
    EXPECT_EQ(queue.TriggerList()->Size(), 0);
    queue.Flush();
  }
}

TEST_F(QueueTriggers, ACheckMayArmItsNeighbourAgain) {
  OSQueue queue;
  Item item;
  for (std::size_t meddling = 0; meddling < 3; ++meddling) {
    for (std::size_t victim = 0; victim < 3; ++victim) {
      std::array<int, 3> checks{};
      std::array<std::unique_ptr<Meddler>, 3> triggers;
      for (std::size_t i = 0; i < 3; ++i) triggers[i] = std::make_unique<Meddler>(&queue, &checks[i]);
      Meddler& target = *triggers[victim];
      triggers[meddling]->meddle = [&target] {
        target.Cancel();
        target.Clear();
      };
      queue.Append(&item);
      for (const int n : checks) EXPECT_GE(n, 1);
      EXPECT_EQ(queue.TriggerList()->Size(), 3);
      EXPECT_TRUE(ListIsSound(*queue.TriggerList()));
      triggers = {};
      queue.Flush();
    }
  }
}

TEST_F(QueueTriggers, ChecksRunInsideTheTriggerSection) {
  OSQueue queue;
  Item item;
  int checks = 0;
  Meddler trigger(&queue, &checks);
  int levels = -1;
  trigger.meddle = [&levels] { levels = levels_held(OS_CRITICAL_TRIGGER); };
  queue.Append(&item);
  EXPECT_GE(levels, 1);
  EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
  queue.Flush();
}

TEST_F(QueueTriggers, AProtectedQueueFilledByAnotherThreadWakesTheWaitingTask) {
  OSProtectedQueue queue;
  Owned<> task;
  OSQTrigger trigger(&queue, 3, 0, 0);
  trigger.SetTask(task.get());
  trigger.async = 0;
  task->Snooze();
  Item items[3];
  on_thread([&] {
    for (Item& item : items) queue.Append(&item);
  });
  EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  EXPECT_EQ(task->WakeCode(), 3);
  queue.Flush();
}

// ---- Poll triggers ---------------------------------------------------------------------------------------------

TEST_F(TriggerKinds, APollTriggerIsArmedAtOnceAndAnnounced) {
  int object = 0;
  int address = 0;
  OSPollTrigger first(never, as_obj(&object), &address, 0xCAFEBABEu);
  EXPECT_EQ(first.action, OS_TA_WAKE);
  EXPECT_EQ(first.pollfunc, &never);
  EXPECT_EQ(first.pobj, as_obj(&object));
  EXPECT_EQ(first.paddr, &address);
  EXPECT_EQ(first.pvalue, 0xCAFEBABEu);
  EXPECT_EQ(first.State(), OS_T_WAIT);
  EXPECT_EQ(drain(os_trig_event), 1);
  OSPollTrigger second(never, nullptr, nullptr, 0);
  EXPECT_EQ(drain(os_trig_event), 1);
  EXPECT_EQ(triggers_on(OS_POLL_LIST), (Triggers{&first, &second}));
}

TEST_F(TriggerKinds, APollFunctionGetsItsTriggerAndArgumentsInsideTheSection) {
  struct Seen {
    OSTrigger* trigger = nullptr;
    OSObj* obj = nullptr;
    ADDR addr = nullptr;
    ULONG value = 0;
    int levels = -1;
  } seen;
  const OSPollFunction look = [](OSTrigger* trigger, OSObj* obj, ADDR addr, ULONG value) -> BOOL {
    from_obj<Seen>(obj) = {trigger, obj, addr, value, levels_held(OS_CRITICAL_TRIGGER)};
    return FALSE;
  };
  PollTrigger poll(look, as_obj(&seen), &seen, 0x80000001u);
  const Script ways[] = {[&] { poll.Check(); }, [&] { poll.Clear(); }, [] { os_check_triggers(); }};
  for (const Script& way : ways) {
    seen = {};
    way();
    EXPECT_EQ(seen.trigger, &poll);
    EXPECT_EQ(seen.obj, as_obj(&seen));
    EXPECT_EQ(seen.addr, &seen);
    EXPECT_EQ(seen.value, 0x80000001u);
    EXPECT_GE(seen.levels, 1);
    EXPECT_EQ(poll.State(), OS_T_WAIT);
    EXPECT_EQ(poll.reason, 0);
  }
}

TEST_F(TriggerKinds, AnyResultButZeroOfAPollFunctionIsTrue) {
  for (const int result : {0, 1, 2, -1, 256}) {
    PollScript poll_script = [result](OSTrigger*) { return result; };
    PollTrigger poll(run_poll_script, as_obj(&poll_script), nullptr, 0);
    drain(os_trig_event);
    poll.Check();
    EXPECT_EQ(poll.State(), result != 0 ? OS_T_READY : OS_T_WAIT) << result;
    EXPECT_EQ(poll.reason, result != 0 ? 2 : 0);
    EXPECT_EQ(poll.fired, result != 0 ? 1 : 0);
    EXPECT_EQ(OS_POLL_LIST.Size(), result != 0 ? 0 : 1);
    EXPECT_EQ(drain(os_trig_event), result != 0 ? 1 : 0);
  }
}

TEST_F(TriggerKinds, ClearArmsAPollTriggerAndAsksItsFunctionAtOnce) {
  PollTrigger poll(always, nullptr, nullptr, 0);
  poll.Cancel();
  drain(os_trig_event);
  poll.Clear();
  EXPECT_EQ(poll.State(), OS_T_READY);
  EXPECT_EQ(poll.reason, 2);
  EXPECT_EQ(drain(os_trig_event), 2) << "one for arming, one for becoming ready";
}

TEST_F(TriggerKinds, ArmingAnArmedPollTriggerChangesNothing) {
  PollTrigger a(never, nullptr, nullptr, 0);
  PollTrigger b(never, nullptr, nullptr, 0);
  drain(os_trig_event);
  a.Wait();
  EXPECT_EQ(triggers_on(OS_POLL_LIST), (Triggers{&a, &b}));
  EXPECT_EQ(drain(os_trig_event), 0);
}

TEST_F(TriggerKinds, ACheckOfAPollTriggerThatIsNotArmedAsksButDoesNotActivate) {
  for (const OSTrState state : {OS_T_INACTIVE, OS_T_READY, OS_T_ACTIONED}) {
    int asked = 0;
    PollScript poll_script = [&asked](OSTrigger*) {
      ++asked;
      return TRUE;
    };
    PollTrigger poll(run_poll_script, as_obj(&poll_script), nullptr, 0);
    count(poll);
    poll.Cancel();
    if (state != OS_T_INACTIVE) poll.Ready();
    if (state == OS_T_ACTIONED) poll.Actioned();
    ASSERT_EQ(poll.State(), state);
    poll.Check();
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(poll.State(), state);
    EXPECT_EQ(poll.fired, 0);
    EXPECT_EQ(poll.reason, 2);
  }
}

TEST_F(TriggerKinds, APollFunctionMayCancelArmOrDeleteItsTriggerInsideClear) {
  for (const int result : {FALSE, TRUE}) {
    {
      PollScript cancels = [result](OSTrigger* trigger) {
        trigger->Cancel();
        return result;
      };
      PollTrigger poll(run_poll_script, as_obj(&cancels), nullptr, 0);
      poll.Clear();
      EXPECT_EQ(poll.State(), OS_T_INACTIVE) << "a cancelled trigger ignores its condition";
      EXPECT_EQ(poll.fired, 0);
      EXPECT_EQ(OS_POLL_LIST.Size(), 0);
    }
    {
      PollScript deletes = [result](OSTrigger* trigger) {
        delete trigger;
        return result;
      };
      auto* poll = new PollTrigger(run_poll_script, as_obj(&deletes), nullptr, 0);
      poll->Clear();
      EXPECT_EQ(OS_POLL_LIST.Size(), 0);
      EXPECT_EQ(OS_READY_LIST.Size(), 0);
      EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
    }
  }
}

// ---- All kinds: watch lists ------------------------------------------------------------------------------------

struct Kind {
  const char* name;
  bool timed;
  bool queued;
  bool polled;
};

const Kind kKinds[] = {
    {"timer", true, false, false}, {"timer without duration", false, false, false},
    {"queue", false, true, false}, {"queue with duration", true, true, false},
    {"poll", false, false, true},
};

TEST_F(TriggerKinds, ATriggerIsOnItsWatchListsExactlyWhileItWaits) {
  OSQueue queue;
  for (const Kind& kind : kKinds) {
    for (const OSTrState state : {OS_T_INACTIVE, OS_T_WAIT, OS_T_READY, OS_T_ACTIONED}) {
      for (const char* next : {"stay", "Wait", "Cancel", "Clear", "Fire", "dispatch", "SetTimer", "Inactive",
                               "Ready", "Actioned"}) {
        const std::string operation = next;
        SCOPED_TRACE(std::string(kind.name) + " in " + std::to_string(state) + ", " + next);
        std::unique_ptr<Timer> timer;
        std::unique_ptr<QueueTrigger> queue_trigger;
        std::unique_ptr<PollTrigger> poll;
        OSTrigger* trigger = nullptr;
        Script wait;
        Script inactive;
        Script ready;
        Script actioned;
        const auto expose = [&](auto& exposed) {
          trigger = &exposed;
          wait = [&exposed] { exposed.Wait(); };
          inactive = [&exposed] { exposed.Inactive(); };
          ready = [&exposed] { exposed.Ready(); };
          actioned = [&exposed] { exposed.Actioned(); };
        };
        const ULONG duration = kind.timed ? 100 : 0;
        if (kind.queued) {
          queue_trigger = std::make_unique<QueueTrigger>(&queue, 9u, 0u, duration);
          expose(*queue_trigger);
        } else if (kind.polled) {
          poll = std::make_unique<PollTrigger>(never, nullptr, nullptr, 0u);
          expose(*poll);
        } else {
          timer = std::make_unique<Timer>(duration, 0);
          expose(*timer);
        }
        count(*trigger);
        if (state == OS_T_INACTIVE) trigger->Cancel();
        if (state == OS_T_READY || state == OS_T_ACTIONED) trigger->Fire();
        if (state == OS_T_ACTIONED) os_check_triggers();
        ASSERT_EQ(trigger->State(), state);

        // From WAIT a poll trigger becomes ready only through Activate, which leaves the poll list first, and
        // Ready on a ready trigger keeps the section; neither belongs here.
        const bool direct = operation == "Ready" || operation == "Actioned";
        if (direct && kind.polled && state == OS_T_WAIT) continue;
        if (operation == "Ready" && state == OS_T_READY) continue;
        if (operation == "SetTimer" && kind.polled) continue;

        if (operation == "Wait") wait();
        if (operation == "Cancel") trigger->Cancel();
        if (operation == "Clear") trigger->Clear();
        if (operation == "Fire") trigger->Fire();
        if (operation == "dispatch") os_check_triggers();
        if (operation == "SetTimer") {
          (kind.queued ? static_cast<OSTimerTrigger*>(queue_trigger.get()) : timer.get())->SetTimer(duration);
        }
        if (operation == "Inactive") inactive();
        if (operation == "Ready") ready();
        if (operation == "Actioned") actioned();

        OSTrState expected = state;
        if (operation == "Wait" || operation == "Clear" || operation == "SetTimer") expected = OS_T_WAIT;
        if (operation == "Cancel" || operation == "Inactive") expected = OS_T_INACTIVE;
        if (operation == "Fire" && state == OS_T_WAIT) expected = OS_T_READY;
        if (operation == "dispatch" && state == OS_T_READY) expected = OS_T_ACTIONED;
        if (operation == "Ready") expected = OS_T_READY;
        if (operation == "Actioned") expected = OS_T_ACTIONED;
        EXPECT_EQ(trigger->State(), expected);
        const bool waits = expected == OS_T_WAIT;
        EXPECT_EQ(triggers_on(OS_TIMER_LIST), waits && kind.timed ? Triggers{trigger} : Triggers{});
        EXPECT_EQ(triggers_on(*queue.TriggerList()), waits && kind.queued ? Triggers{trigger} : Triggers{});
        EXPECT_EQ(triggers_on(OS_POLL_LIST), waits && kind.polled ? Triggers{trigger} : Triggers{});
        EXPECT_EQ(triggers_on(OS_READY_LIST), expected == OS_T_READY ? Triggers{trigger} : Triggers{});

        // And destroying it in this state takes it off all of them.
        timer.reset();
        queue_trigger.reset();
        poll.reset();
        EXPECT_EQ(OS_TIMER_LIST.Size() + OS_POLL_LIST.Size() + OS_READY_LIST.Size(), 0);
        EXPECT_EQ(queue.TriggerList()->Size(), 0);
        EXPECT_TRUE(OS_TIMER_LIST.IsEmpty());
        EXPECT_TRUE(OS_POLL_LIST.IsEmpty());
        EXPECT_TRUE(OS_READY_LIST.IsEmpty());
        EXPECT_TRUE(queue.TriggerList()->IsEmpty());
      }
    }
  }
}

TEST_F(TriggerKinds, DestroyingATriggerLeavesItsNeighboursInOrder) {
  OSQueue queue;
  Timer t1(100, 0);
  Timer t3(300, 0);
  QueueTrigger q1(&queue, 9, 0, 0);
  PollTrigger p1(never, nullptr, nullptr, 0);
  {
    OSTimerTrigger t2(200, 0);
    OSQTrigger q2(&queue, 9, 0, 200);
    OSPollTrigger p2(never, nullptr, nullptr, 0);
    Timer t4(400, 0);
    EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&t1, &t2, &q2, &t3, &t4}));
  }
  PollTrigger p3(never, nullptr, nullptr, 0);
  EXPECT_EQ(triggers_on(OS_TIMER_LIST), (Triggers{&t1, &t3}));
  EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&q1});
  EXPECT_EQ(triggers_on(OS_POLL_LIST), (Triggers{&p1, &p3}));
}

TEST_F(TriggerKinds, TimersOfManyThreadsKeepOneSoundList) {
  const unsigned seed = test_seed();
  constexpr int kThreads = 4;
  constexpr int kTimers = 8;
  constexpr int kSteps = 3000;
  std::vector<std::unique_ptr<OSTimerTrigger>> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(std::make_unique<OSTimerTrigger>(100, 1));
    count(*timers.back());
  }
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      std::mt19937 random(seed + static_cast<unsigned>(n));
      for (int step = 0; step < kSteps; ++step) {
        OSTimerTrigger& timer = *timers[static_cast<std::size_t>(pick(random, 0, kTimers - 1))];
        switch (pick(random, 0, 5)) {
          case 0:
            timer.SetTimer(static_cast<ULONG>(pick(random, 0, 200)));
            break;
          case 1:
            timer.Clear();
            break;
          case 2:
            timer.Cancel();
            break;
          case 3:
            timer.Fire();
            break;
          case 4:
            os_check_triggers();
            break;
          case 5:
            FakeClock::advance(static_cast<ULONG>(pick(random, 0, 20)));
            break;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& timer : timers) {
    EXPECT_EQ(is_on(OS_TIMER_LIST, timer.get()), timer->state == OS_T_WAIT && timer->duration != 0);
    EXPECT_EQ(is_on(OS_READY_LIST, timer.get()), timer->state == OS_T_READY);
  }
}

}  // namespace
