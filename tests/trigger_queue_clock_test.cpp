// Queue triggers: marks, time-outs and the queue's list of triggers, on a clock that stands still until a test
// moves it.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/graveyard.h"
#include "support/ring_check.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

static_assert(std::is_base_of_v<OSTimerTrigger, OSQTrigger>);
static_assert(std::is_same_v<decltype(OSQTrigger::minqlen), int>);
static_assert(std::is_same_v<decltype(OSQTrigger::maxqlen), int>);

using QueueTrigger = Exposed<OSQTrigger>;

class QueueTriggers : public StillClockTest {
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

TEST_F(QueueTriggers, ATriggerThatIsNotArmedLooksAtItsQueueNoMore) {
  using MortalQueue = Mortal<OSQueue>;
  for (const OSTrState state : {OS_T_INACTIVE, OS_T_READY, OS_T_ACTIONED}) {
    for (const ULONG duration : {0u, 100u}) {
      SCOPED_TRACE(std::to_string(state) + ", " + std::to_string(duration));
      auto queue = std::make_unique<MortalQueue>();
      QueueTrigger trigger(queue.get(), 9, 0, duration);
      count(trigger);
      if (state == OS_T_INACTIVE) trigger.Cancel();
      if (state != OS_T_INACTIVE) trigger.Fire();
      if (state == OS_T_ACTIONED) os_check_triggers();
      ASSERT_EQ(trigger.State(), state);
      queue.reset();
      trigger.Cancel();
      trigger.Actioned();
      trigger.Ready();
      os_check_triggers();
      EXPECT_TRUE(MortalQueue::rests_in_peace());
    }
  }
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

}  // namespace
