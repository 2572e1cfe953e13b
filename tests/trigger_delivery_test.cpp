// Where a ready trigger goes, how that is announced, and what actioning it does. No clock, no trigger task: every
// dispatch is made by the test.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kernel/trigger.h"
#include "support/ring_check.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

class TriggerDelivery : public QuietTriggerTest {};

// ---- Where a ready trigger goes --------------------------------------------------------------------------------

enum class Place { kGlobal, kOwn, kStraightToActioned };

TEST_F(TriggerDelivery, AsyncDecidesTheListAndTheEvent) {
  struct Row {
    UBYTE async;
    bool own_list;
    OSTrAction action;
    bool snoozing;
    Place place;
  };
  std::vector<Row> rows;
  for (const bool own : {false, true}) {
    for (const OSTrAction action : {OS_TA_NONE, OS_TA_WAKE, OS_TA_FUNC}) {
      for (const bool snoozing : {false, true}) {
        const bool at_once = action == OS_TA_WAKE && snoozing;
        rows.push_back({0, own, action, snoozing, at_once ? Place::kStraightToActioned : Place::kGlobal});
        rows.push_back({1, own, action, snoozing, Place::kGlobal});
        rows.push_back({2, own, action, snoozing, own ? Place::kOwn : Place::kGlobal});
        rows.push_back({3, own, action, snoozing, Place::kGlobal});
        rows.push_back({255, own, action, snoozing, Place::kGlobal});
      }
    }
  }

  for (const Row& row : rows) {
    SCOPED_TRACE("async " + std::to_string(row.async) + " own list " + std::to_string(row.own_list) +
                 " action " + std::to_string(row.action) + " snoozing " + std::to_string(row.snoozing));
    on_thread([&row] {
      Owned<> task;
      std::unique_ptr<OwnDispatch> own(row.own_list ? new OwnDispatch : nullptr);
      const HANDLE own_event = OSTrigger::TLSGetEvent();
      std::atomic<int> calls{0};
      HandTrigger trigger(row.action);
      trigger.async = row.async;
      if (row.action == OS_TA_WAKE) trigger.SetTask(task.get());
      if (row.action == OS_TA_FUNC) trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
      if (row.snoozing) task->Snooze();
      trigger.Arm();
      // Fired by another thread than the one whose list it may go to.
      on_thread([&trigger] { trigger.Fire(); });

      EXPECT_EQ(calls, 0);
      EXPECT_EQ(trigger.fired, 1);
      EXPECT_EQ(trigger.State(), row.place == Place::kStraightToActioned ? OS_T_ACTIONED : OS_T_READY);
      EXPECT_EQ(OS_READY_LIST.Size(), row.place == Place::kGlobal ? 1 : 0);
      EXPECT_EQ(is_on(OS_READY_LIST, &trigger), row.place == Place::kGlobal);
      EXPECT_EQ(drain(os_trig_event), row.place == Place::kGlobal ? 1 : 0);
      if (row.own_list) {
        EXPECT_EQ(triggers_on(OwnDispatch::tls().OS_READY_LIST),
                  row.place == Place::kOwn ? Triggers{&trigger} : Triggers{});
        EXPECT_EQ(drain(own_event), row.place == Place::kOwn ? 1 : 0);
      }
      trigger.Cancel();
      EXPECT_EQ(OS_READY_LIST.Size(), 0);
      if (row.own_list) {
        EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
      }
    });
  }
}

TEST_F(TriggerDelivery, AReadyTriggerLeavesTheListItWasPutOnWhateverAsyncSaysNow) {
  on_thread([] {
    OwnDispatch own;
    OSLinkList& own_list = OwnDispatch::tls().OS_READY_LIST;
    constexpr UBYTE kAsync[] = {0, 1, 2, 3};
    for (const UBYTE before : kAsync) {
      for (const UBYTE after : kAsync) {
        for (const char* how : {"Cancel", "Clear", "Actioned", "destroy"}) {
          SCOPED_TRACE(std::to_string(before) + " -> " + std::to_string(after) + ", " + how);
          HandTrigger global_neighbour;
          global_neighbour.async = 1;
          global_neighbour.ArmAndFire();
          HandTrigger own_neighbour;
          own_neighbour.ArmAndFire();
          auto trigger = std::make_unique<HandTrigger>(OS_TA_NONE);
          trigger->async = before;
          trigger->ArmAndFire();
          trigger->async = after;
          const std::string operation = how;
          if (operation == "Cancel") trigger->Cancel();
          if (operation == "Clear") trigger->Clear();
          if (operation == "Actioned") trigger->Actioned();
          if (operation == "destroy") trigger.reset();
          EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&global_neighbour});
          EXPECT_EQ(triggers_on(own_list), Triggers{&own_neighbour});
        }
      }
    }
  });
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
}

TEST_F(TriggerDelivery, ATriggerPutOnTheGlobalListIsDispatchedThereAfterAsyncChanged) {
  on_thread([] {
    OwnDispatch own;
    std::atomic<int> calls{0};
    HandTrigger trigger;
    trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    trigger.async = 1;
    trigger.ArmAndFire();
    trigger.async = 2;
    OSTrigger::TLSPoll();
    EXPECT_EQ(calls, 0);
    os_check_triggers();
    EXPECT_EQ(calls, 1);
    trigger.ArmAndFire();
    trigger.async = 1;
    os_check_triggers();
    EXPECT_EQ(calls, 1);
    OSTrigger::TLSPoll();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
    EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
  });
}

TEST_F(TriggerDelivery, ReadyAppendAndReadyRemoveMoveOnlyTheListEntry) {
  HandTrigger trigger;
  trigger.ReadyAppend();
  EXPECT_EQ(trigger.State(), OS_T_INACTIVE);
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
  EXPECT_EQ(drain(os_trig_event), 1);
  trigger.ReadyRemove();
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
  EXPECT_EQ(drain(os_trig_event), 0);
}

TEST_F(TriggerDelivery, ReadyRemoveOfATriggerThatIsOnNoReadyListChangesNothing) {
  HandTrigger neighbour(OS_TA_NONE);
  neighbour.ArmAndFire();
  HandTrigger trigger(OS_TA_NONE);
  trigger.ReadyRemove();
  trigger.ArmAndFire();
  trigger.ReadyRemove();
  trigger.ReadyRemove();
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&neighbour});
  trigger.Cancel();
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&neighbour});
}

TEST_F(TriggerDelivery, TransitionsTakeOnlyAReadyTriggerOffItsList) {
  // A kind that lists itself without becoming ready takes itself off again.
  const std::function<void(HandTrigger&)> transitions[] = {
      [](HandTrigger& trigger) { trigger.Inactive(); },
      [](HandTrigger& trigger) { trigger.Wait(); },
      [](HandTrigger& trigger) { trigger.Actioned(); },
  };
  for (const auto& transition : transitions) {
    HandTrigger trigger;
    trigger.ReadyAppend();
    transition(trigger);
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
    trigger.ReadyRemove();
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
  }
}

// ---- What a dispatcher could not action ------------------------------------------------------------------------

class PassedOver : public EitherReadyList {};

INSTANTIATE_TEST_SUITE_P(Lists, PassedOver, ::testing::Bool(), ready_list_name);

struct Change {
  const char* name;
  std::function<void(OSTrigger&, OSTask&, std::atomic<int>&)> make;
};

const Change kChanges[] = {
    {"SetTask", [](OSTrigger& trigger, OSTask& task, std::atomic<int>&) { trigger.SetTask(&task); }},
    {"SetCallback",
     [](OSTrigger& trigger, OSTask&, std::atomic<int>& calls) {
       trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
     }},
};

TEST_P(PassedOver, ANewActionHasTheDispatcherLookAgain) {
  // A trigger may become active while it is constructed, and its dispatcher may pass before it has its callback.
  // Without another signal nobody would run it.
  with_list([] {
    for (const Change& change : kChanges) {
      SCOPED_TRACE(change.name);
      Owned<> task;
      std::atomic<int> calls{0};
      HandTrigger trigger(OS_TA_WAKE);
      trigger.ArmAndFire();
      pass();
      ASSERT_EQ(trigger.State(), OS_T_READY) << "there is no task to wake";
      EXPECT_EQ(drain(event()), 1);
      task->Snooze();

      change.make(trigger, *task, calls);

      EXPECT_EQ(drain(event()), 1);
      if (own_list()) {
        EXPECT_EQ(drain(os_trig_event), 0);
      }
      change.make(trigger, *task, calls);
      EXPECT_EQ(drain(event()), 0) << "it has been announced";
      pass();
      EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
      EXPECT_EQ(calls + (task->thread_event == 0 ? 0 : drain(task->thread_event)), 1);
      change.make(trigger, *task, calls);
      EXPECT_EQ(drain(event()), 0) << "there is nothing to look at";
    }
  });
}

TEST_P(PassedOver, ATriggerThatIsStillToBeLookedAtIsNotAnnouncedAgain) {
  with_list([] {
    for (const Change& change : kChanges) {
      SCOPED_TRACE(change.name);
      Owned<> task;
      std::atomic<int> calls{0};
      HandTrigger trigger(OS_TA_NONE);
      for (const OSTrState state : {OS_T_INACTIVE, OS_T_WAIT}) {
        if (state == OS_T_WAIT) trigger.Arm();
        change.make(trigger, *task, calls);
        EXPECT_EQ(drain(event()), 0);
      }
      trigger.Fire();
      EXPECT_EQ(drain(event()), 1);
      change.make(trigger, *task, calls);
      EXPECT_EQ(drain(event()), 0) << "the signal of its activation is still to be answered";

      trigger.action = OS_TA_NONE;
      pass();
      trigger.Clear();
      change.make(trigger, *task, calls);
      EXPECT_EQ(drain(event()), 0) << "it is not ready any more";
      trigger.Fire();
      EXPECT_EQ(drain(event()), 1);
      change.make(trigger, *task, calls);
      EXPECT_EQ(drain(event()), 0) << "it has not been passed over since it became ready again";
    }
  });
}

TEST_F(TriggerDelivery, ATriggerWithoutATaskStaysReadyUntilItHasOne) {
  Owned<> task;
  HandTrigger trigger(OS_TA_WAKE);
  ASSERT_EQ(trigger.task, nullptr) << "this thread is no task";
  for (const UBYTE async : {UBYTE{0}, UBYTE{1}, UBYTE{2}}) {
    trigger.async = async;
    trigger.SetTask(nullptr);
    trigger.ArmAndFire();
    EXPECT_EQ(trigger.State(), OS_T_READY);
    EXPECT_FALSE(trigger.Action());
    os_check_triggers();
    os_check_triggers();
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
    task->Snooze();
    trigger.SetTask(task.get());
    os_check_triggers();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(drain(task->thread_event), 1);
  }
}

// ---- Action --------------------------------------------------------------------------------------------------

TEST_F(TriggerDelivery, TheCallbackGetsItsThreeArgumentsAndHoldsNoSection) {
  struct Seen {
    HandTrigger* trigger;
    OSObj* obj = nullptr;
    ADDR addr = nullptr;
    ULONG value = 0;
    OSTrState state = OS_T_INACTIVE;
    int listed = -1;
    int levels = -1;
  };
  HandTrigger trigger;
  Seen seen{&trigger};
  int address = 0;
  trigger.SetCallback(
      [](OSObj* obj, ADDR addr, ULONG value) {
        Seen& s = from_obj<Seen>(obj);
        s.obj = obj;
        s.addr = addr;
        s.value = value;
        s.state = s.trigger->State();
        s.listed = OS_READY_LIST.Size();
        s.levels = levels_held(OS_CRITICAL_TRIGGER);
      },
      as_obj(&seen), &address, 0x89ABCDEFu);
  for (const bool dispatched : {false, true}) {
    seen = Seen{&trigger};
    trigger.ArmAndFire();
    if (dispatched) {
      os_check_triggers();
    } else {
      EXPECT_TRUE(trigger.Action());
    }
    EXPECT_EQ(seen.obj, as_obj(&seen));
    EXPECT_EQ(seen.addr, &address);
    EXPECT_EQ(seen.value, 0x89ABCDEFu);
    EXPECT_EQ(seen.state, OS_T_ACTIONED) << "the state is set before the callback runs";
    EXPECT_EQ(seen.listed, 0) << "the trigger has left the ready list before the callback runs";
    EXPECT_EQ(seen.levels, 0);
  }
}

TEST_F(TriggerDelivery, ACallbackMayArmItsOwnTriggerAgain) {
  HandTrigger trigger;
  int calls = 0;
  Script callback = [&] {
    ++calls;
    trigger.Clear();
  };
  set_script(trigger, callback);
  trigger.ArmAndFire();
  EXPECT_TRUE(trigger.Action());
  EXPECT_EQ(trigger.State(), OS_T_WAIT) << "nothing is written to the trigger after its callback";
  trigger.Fire();
  EXPECT_TRUE(trigger.Action());
  EXPECT_EQ(calls, 2);
}

TEST_F(TriggerDelivery, ACallbackMayDeleteItsOwnTrigger) {
  auto* trigger = new HandTrigger;
  bool ran = false;
  Script callback = [&] {
    ran = true;
    delete trigger;
  };
  set_script(*trigger, callback);
  trigger->ArmAndFire();
  EXPECT_TRUE(trigger->Action());
  EXPECT_TRUE(ran);
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
}

TEST_F(TriggerDelivery, AWokenTaskLearnsTheReason) {
  Owned<> task;
  constexpr UBYTE kReasons[] = {1, 2, 3, 4, 200};
  for (const UBYTE reason : kReasons) {
    HandTrigger trigger(OS_TA_WAKE);
    trigger.SetTask(task.get());
    trigger.Arm();
    trigger.reason = reason;
    trigger.Activate();
    EXPECT_FALSE(trigger.Action()) << "the task does not snooze";
    EXPECT_EQ(trigger.State(), OS_T_READY);
    task->Snooze();
    EXPECT_TRUE(trigger.Action());
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(task->WakeCode(), reason);
    EXPECT_EQ(state_of(*task), OS_ST_OK);
    EXPECT_EQ(drain(task->thread_event), 1);
  }
}

TEST_F(TriggerDelivery, AStoppedTaskIsNotWoken) {
  Owned<> task;
  HandTrigger trigger(OS_TA_WAKE);
  trigger.SetTask(task.get());
  trigger.ArmAndFire();
  task->Snooze();
  task->Kill();
  EXPECT_FALSE(trigger.Action());
  EXPECT_EQ(trigger.State(), OS_T_READY);
  EXPECT_EQ(task->thread_event, 0);
}

TEST_F(TriggerDelivery, AFiredTriggerSurvivesTheEndOfTheKernel) {
  auto trigger = std::make_unique<HandTrigger>(OS_TA_NONE);
  trigger->ArmAndFire();
  auto armed = std::make_unique<HandTrigger>(OS_TA_NONE);
  armed->Arm();
  Stop();
  armed->Fire();
  EXPECT_EQ(armed->State(), OS_T_READY);
  trigger.reset();
  armed.reset();
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
  EXPECT_TRUE(ListIsSound(OS_READY_LIST));
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

}  // namespace
