// Triggers that several threads change at once, and dispatch against threads that change or delete what is being
// dispatched.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kernel/trigger.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

// ---- Activation by several threads -----------------------------------------------------------------------------

class TriggerThreads : public QuietTriggerTest {};

TEST_F(TriggerThreads, TwoFiresAtOnceActivateOnce) {
  HandTrigger trigger(OS_TA_NONE);
  int fired_before = 0;
  int wrong = 0;
  all_at_once(
      3, 2000,
      [&] {
        trigger.Clear();
        fired_before = trigger.fired;
      },
      [&] { trigger.Fire(); },
      [&] {
        const bool right = trigger.fired == fired_before + 1 && trigger.State() == OS_T_READY &&
                           OS_READY_LIST.Size() == 1 && ring_length(OS_READY_LIST) == 1 &&
                           drain(os_trig_event) == 1;
        if (!right) ++wrong;
      });
  EXPECT_EQ(wrong, 0);
}

TEST_F(TriggerThreads, TwoFiresAtOnceWakeASnoozingTaskOnce) {
  Owned<> task;
  HandTrigger trigger(OS_TA_WAKE);
  trigger.SetTask(task.get());
  trigger.async = 0;
  int fired_before = 0;
  int wrong = 0;
  all_at_once(
      2, 1000,
      [&] {
        trigger.Clear();
        task->Snooze();
        fired_before = trigger.fired;
      },
      [&] { trigger.Fire(); },
      [&] {
        const bool right = trigger.fired == fired_before + 1 && trigger.State() == OS_T_ACTIONED &&
                           OS_READY_LIST.Size() == 0 && drain(task->thread_event) == 1;
        if (!right) ++wrong;
      });
  EXPECT_EQ(wrong, 0);
}

TEST_F(TriggerThreads, TwoTriggersAtOnceWakeASnoozingTaskOnce) {
  Owned<> task;
  HandTrigger triggers[2] = {HandTrigger(OS_TA_WAKE), HandTrigger(OS_TA_WAKE)};
  for (HandTrigger& trigger : triggers) {
    trigger.SetTask(task.get());
    trigger.async = 0;
  }
  std::atomic<int> next{0};
  int wrong = 0;
  all_at_once(
      2, 1000,
      [&] {
        for (HandTrigger& trigger : triggers) trigger.Clear();
        next = 0;
        task->Snooze();
      },
      [&] { triggers[next.fetch_add(1)].Fire(); },
      [&] {
        const bool first = triggers[0].State() == OS_T_ACTIONED;
        const bool right = triggers[first ? 0 : 1].State() == OS_T_ACTIONED &&
                           triggers[first ? 1 : 0].State() == OS_T_READY && OS_READY_LIST.Size() == 1 &&
                           drain(task->thread_event) == 1;
        if (!right) ++wrong;
      });
  EXPECT_EQ(wrong, 0) << "one of them takes the wake, the other stays ready";
}

TEST_F(TriggerThreads, AnyMixOfOperationsOnAnyThreadsKeepsStateAndListsInStep) {
  constexpr int kTriggers = 5;
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  for (int i = 0; i < kTriggers; ++i) triggers.push_back(std::make_unique<HandTrigger>(OS_TA_NONE));
  steps_on_threads(4, 4000, test_seed(), [&triggers](std::mt19937& random) {
    HandTrigger& trigger = *triggers[static_cast<std::size_t>(pick(random, 0, kTriggers - 1))];
    switch (pick(random, 0, 5)) {
      case 0:
        trigger.Clear();
        break;
      case 1:
        trigger.Cancel();
        break;
      case 2:
      case 3:
        trigger.Fire();
        break;
      case 4:
        os_check_triggers();
        break;
      default:
        trigger.Arm();
        break;
    }
  });
  for (const auto& trigger : triggers) {
    EXPECT_NE(trigger->State(), OS_T_ACTIONED) << "these triggers have nothing to do";
    EXPECT_EQ(is_on(OS_READY_LIST, trigger.get()), trigger->State() == OS_T_READY);
  }
  triggers.clear();
  EXPECT_TRUE(ListIsSound(OS_READY_LIST));
}

// ---- Dispatch against other threads ----------------------------------------------------------------------------------

class DispatchRaces : public EitherReadyList {
 protected:
  static constexpr int kRounds = 3000;

  static void short_while(std::mt19937& random) {
    for (int spin = pick(random, 0, 3) * 40; spin > 0; --spin) {
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Lists, DispatchRaces, ::testing::Bool(), ready_list_name);

TEST_P(DispatchRaces, ADestructorDoesNotWaitForACallbackThatHasBegunElsewhere) {
  std::unique_ptr<HandTrigger> trigger;
  Gate begun;
  Gate go_on;
  std::atomic<bool> ended{false};
  Script callback = [&] {
    begun.open();
    EXPECT_TRUE(go_on.wait());
    ended = true;
  };
  Dispatcher dispatcher(own_list(), [&trigger] { trigger = std::make_unique<HandTrigger>(); });
  set_script(*trigger, callback);
  trigger->ArmAndFire();
  ASSERT_TRUE(begun.wait());
  Gate deleted;
  std::thread deleter([&] {
    trigger.reset();
    deleted.open();
  });
  const bool in_time = deleted.wait();
  EXPECT_TRUE(in_time) << "the destructor waits for the callback";
  EXPECT_FALSE(ended);
  go_on.open();
  deleter.join();
}

TEST_P(DispatchRaces, CancelAndClearDoNotWaitForACallbackThatHasBegunElsewhere) {
  std::unique_ptr<HandTrigger> trigger;
  Gate begun;
  Gate go_on;
  std::atomic<int> calls{0};
  Script callback = [&] {
    ++calls;
    begun.open();
    EXPECT_TRUE(go_on.wait());
  };
  Dispatcher dispatcher(own_list(), [&trigger] { trigger = std::make_unique<HandTrigger>(); });
  set_script(*trigger, callback);
  trigger->ArmAndFire();
  ASSERT_TRUE(begun.wait());
  Gate changed;
  std::thread other([&] {
    trigger->Cancel();
    trigger->Clear();
    trigger->Fire();
    changed.open();
  });
  EXPECT_TRUE(changed.wait()) << "Cancel or Clear waits for the callback";
  go_on.open(2);
  other.join();
  EXPECT_TRUE(dispatcher.full_pass());
  EXPECT_EQ(trigger->State(), OS_T_ACTIONED);
  EXPECT_EQ(calls, 2);
  trigger.reset();
}

/// What a callback reports into; outlives the trigger.
struct Slot {
  std::atomic<int> calls{0};
  std::atomic<int> late_calls{0};
  std::atomic<bool> closed{false};

  static void call(OSObj* obj, ADDR, ULONG) {
    Slot& slot = from_obj<Slot>(obj);
    ++slot.calls;
    if (slot.closed) ++slot.late_calls;
  }
};

TEST_P(DispatchRaces, AfterADestructorReturnsNoPassBeginsItsCallback) {
  std::mt19937 random(test_seed());
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  std::vector<Slot> slots(kRounds);
  Dispatcher dispatcher(own_list(), [&] {
    for (Slot& slot : slots) {
      triggers.push_back(std::make_unique<HandTrigger>());
      triggers.back()->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
    }
  });
  Rounds rounds(kRounds);
  for (std::size_t i = 0; rounds.next(); ++i) {
    triggers[i]->ArmAndFire();
    short_while(random);
    triggers[i].reset();
    ASSERT_TRUE(dispatcher.full_pass());
    slots[i].closed = true;
  }
  int late = 0;
  int twice = 0;
  for (const Slot& slot : slots) {
    late += slot.late_calls;
    if (slot.calls > 1) ++twice;
  }
  EXPECT_EQ(late, 0);
  EXPECT_EQ(twice, 0);
}

TEST_P(DispatchRaces, ACancelledTriggerStaysInactive) {
  std::mt19937 random(test_seed());
  std::unique_ptr<HandTrigger> trigger;
  Slot slot;
  Dispatcher dispatcher(own_list(), [&trigger] { trigger = std::make_unique<HandTrigger>(); });
  trigger->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
  int not_inactive = 0;
  int more_than_once = 0;
  for (Rounds rounds(kRounds); rounds.next();) {
    const int calls = slot.calls;
    trigger->ArmAndFire();
    short_while(random);
    trigger->Cancel();
    if (trigger->State() != OS_T_INACTIVE) ++not_inactive;
    ASSERT_TRUE(dispatcher.full_pass());
    if (trigger->State() != OS_T_INACTIVE) ++not_inactive;
    if (slot.calls - calls > 1) ++more_than_once;
  }
  EXPECT_EQ(not_inactive, 0) << "a dispatch acted on a trigger after Cancel had returned";
  EXPECT_EQ(more_than_once, 0);
  trigger.reset();
}

TEST_P(DispatchRaces, EveryArmingThatIsFiredIsActionedOnceAndNoneIsLost) {
  std::mt19937 random(test_seed());
  std::unique_ptr<HandTrigger> trigger;
  Slot slot;
  Dispatcher dispatcher(own_list(), [&trigger] { trigger = std::make_unique<HandTrigger>(); });
  trigger->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
  int wrong = 0;
  for (Rounds rounds(kRounds); rounds.next();) {
    const int calls = slot.calls;
    int fires = 0;
    for (int arming = pick(random, 1, 3); arming > 0; --arming) {
      trigger->Clear();
      trigger->Fire();
      ++fires;
      short_while(random);
    }
    ASSERT_TRUE(dispatcher.full_pass());
    const int ran = slot.calls - calls;
    if (trigger->State() != OS_T_ACTIONED || ran < 1 || ran > fires) ++wrong;
  }
  EXPECT_EQ(wrong, 0);
  trigger.reset();
}

TEST_P(DispatchRaces, TriggersThatCannotBeActionedComeAndGoDuringPasses) {
  std::mt19937 random(test_seed());
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  Dispatcher dispatcher(own_list(), [&] {
    for (int i = 0; i < kRounds; ++i) triggers.push_back(std::make_unique<HandTrigger>(OS_TA_NONE));
  });
  for (std::size_t i = 0; i < triggers.size(); ++i) {
    triggers[i]->ArmAndFire();
    short_while(random);
    HandTrigger& earlier =
        *triggers[i - i % 10 + static_cast<std::size_t>(pick(random, 0, 9)) % (i % 10 + 1)];
    switch (pick(random, 0, 2)) {
      case 0:
        earlier.Cancel();
        break;
      case 1:
        earlier.Clear();
        earlier.Fire();
        break;
      default:
        break;
    }
    if (i % 10 == 9) {
      for (std::size_t k = i - 9; k < i; ++k) triggers[k]->Cancel();
    }
  }
  for (const auto& trigger : triggers) EXPECT_NE(trigger->State(), OS_T_ACTIONED);
  while (!triggers.empty()) triggers.pop_back();
  EXPECT_TRUE(dispatcher.full_pass());
}

TEST_F(TriggerThreads, APassGoesOnAfterAnotherHasOvertakenIt) {
  // Both stand somewhere in the list when the first ends; what the second stands on is then taken away.
  std::atomic<int> calls{0};
  HandTrigger none1(OS_TA_NONE);
  StoppingTrigger first;
  HandTrigger none2(OS_TA_NONE);
  StoppingTrigger second;
  HandTrigger last;
  last.SetCallback(count_call, as_obj(&calls), nullptr, 0);
  for (HandTrigger* trigger : {&none1, &first.trigger, &none2, &second.trigger, &last}) trigger->ArmAndFire();

  first.stop_inside(os_check_triggers);
  second.stop_inside(os_check_triggers);
  first.let_go();
  EXPECT_EQ(calls, 1) << "the first pass has gone on to the end";
  EXPECT_EQ(triggers_on(OS_READY_LIST), (Triggers{&none1, &none2}));
  none2.Cancel();
  last.ArmAndFire();
  second.let_go();
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&none1});
  none1.Cancel();
}

TEST_F(TriggerThreads, ThreePassesAtOnceEndInAnyOrder) {
  constexpr std::size_t kPasses = 3;
  struct Pass {
    HandTrigger stands_on{OS_TA_NONE};
    StoppingTrigger inside;
  };
  const std::array<std::size_t, kPasses> orders[] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2},
                                                     {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
  for (const auto& order : orders) {
    std::array<Pass, kPasses> passes;
    for (Pass& each : passes) {
      each.stands_on.ArmAndFire();
      each.inside.trigger.ArmAndFire();
      each.inside.stop_inside(os_check_triggers);
    }
    for (const std::size_t i : order) {
      passes[i].stands_on.Cancel();
      passes[i].inside.let_go();
    }
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
    EXPECT_TRUE(ListIsSound(OS_READY_LIST));
  }
}

TEST_F(TriggerThreads, TwoThreadsMayDispatchTheGlobalListAtOnce) {
  constexpr int kTriggers = 50;
  std::vector<Slot> slots(kTriggers);
  int armings = 0;
  int wrong = 0;
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  for (Slot& slot : slots) {
    triggers.push_back(std::make_unique<HandTrigger>());
    triggers.back()->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
  }
  {
    Dispatcher one(false);
    Dispatcher two(false);
    for (Rounds rounds(300); rounds.next();) {
      for (auto& trigger : triggers) trigger->ArmAndFire();
      ++armings;
      // What one of them has taken it has run by the end of its pass.
      ASSERT_TRUE(one.full_pass() && two.full_pass());
      for (const Slot& slot : slots) {
        if (slot.calls != armings) ++wrong;
      }
    }
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(TriggerThreads, PollTriggersMayBeDeletedAndMadeDuringPasses) {
  Dispatcher dispatcher(false);
  std::atomic<int> asked{0};
  PollScript script = [&asked](OSTrigger*) -> BOOL {
    ++asked;
    return FALSE;
  };
  OSPollTrigger steady(run_poll_script, as_obj(&script), nullptr, 0);
  for (Rounds rounds(2000); rounds.next();) {
    OSPollTrigger passing(run_poll_script, as_obj(&script), nullptr, 0);
    OSTimerTrigger timer(1000000, 0);
  }
  const int before = asked;
  EXPECT_TRUE(dispatcher.full_pass());
  EXPECT_GT(asked, before);
}

}  // namespace
