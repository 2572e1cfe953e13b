// OS_TIMER_LIST against a plain model of its stated order, under any sequence of operations, through time and wrap
// of the tick, and under several threads.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <random>
#include <vector>

#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/seed.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

using Timer = Exposed<OSTimerTrigger>;

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

class TimerListAgainstModel : public StillClockTest {
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

class TimerThreads : public StillClockTest {};

TEST_F(TimerThreads, TimersOfManyThreadsKeepOneSoundList) {
  constexpr int kTimers = 8;
  std::vector<std::unique_ptr<OSTimerTrigger>> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(std::make_unique<OSTimerTrigger>(100, 1));
    count(*timers.back());
  }
  steps_on_threads(4, 3000, test_seed(), [&timers](std::mt19937& random) {
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
      default:
        FakeClock::advance(static_cast<ULONG>(pick(random, 0, 20)));
        break;
    }
  });
  for (const auto& timer : timers) {
    EXPECT_EQ(is_on(OS_TIMER_LIST, timer.get()), timer->state == OS_T_WAIT && timer->duration != 0);
    EXPECT_EQ(is_on(OS_READY_LIST, timer.get()), timer->state == OS_T_READY);
  }
}

}  // namespace
