// What the kinds of trigger have in common, and poll triggers, on a clock that stands still until a test moves it.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/graveyard.h"
#include "support/trigger_fixtures.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

static_assert(std::is_base_of_v<OSTrigger, OSPollTrigger>);
static_assert(!std::is_base_of_v<OSTimerTrigger, OSPollTrigger>);

using Timer = Exposed<OSTimerTrigger>;
using QueueTrigger = Exposed<OSQTrigger>;
using PollTrigger = Exposed<OSPollTrigger>;

class TriggerKinds : public StillClockTest {};

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

TEST_F(TriggerKinds, ReadyOnAReadyTriggerOfAnyKindKeepsOneLevelOfTheSection) {
  OSQueue queue;
  Timer timer(100, 0);
  QueueTrigger queue_trigger(&queue, 9, 0, 100);
  PollTrigger poll(never, nullptr, nullptr, 0);
  const Script again[] = {[&] { timer.Ready(); }, [&] { queue_trigger.Ready(); }, [&] { poll.Ready(); }};
  timer.Fire();
  queue_trigger.Fire();
  poll.Fire();
  for (const Script& ready : again) {
    ready();
    EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 1);
    LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
    EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
    EXPECT_EQ(triggers_on(OS_READY_LIST), (Triggers{&timer, &queue_trigger, &poll}));
  }
}

TEST_F(TriggerKinds, LeavingTheReadyListDoesNotTakeATriggerOffItsWatchList) {
  OSQueue queue;
  Timer timer(100, 0);
  QueueTrigger queue_trigger(&queue, 9, 0, 0);
  PollTrigger poll(never, nullptr, nullptr, 0);
  for (const bool was_ready : {false, true}) {
    if (was_ready) {
      for (OSTrigger* trigger : Triggers{&timer, &queue_trigger, &poll}) {
        trigger->Fire();
        trigger->Clear();
      }
    }
    timer.ReadyRemove();
    queue_trigger.ReadyRemove();
    poll.ReadyRemove();
    EXPECT_EQ(triggers_on(OS_TIMER_LIST), Triggers{&timer});
    EXPECT_EQ(triggers_on(*queue.TriggerList()), Triggers{&queue_trigger});
    EXPECT_EQ(triggers_on(OS_POLL_LIST), Triggers{&poll});
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
  }
}

TEST_F(TriggerKinds, AnyKindMayHaveAnyActionAndDelivery) {
  OSQueue queue;
  Owned<> task;
  for (const OSTrAction action : {OS_TA_NONE, OS_TA_WAKE, OS_TA_FUNC}) {
    for (const UBYTE async : {UBYTE{0}, UBYTE{1}, UBYTE{2}}) {
      SCOPED_TRACE("action " + std::to_string(action) + " async " + std::to_string(async));
      FakeClock::set(kNow);
      OSTimerTrigger timer(100, 0);
      OSQTrigger queue_trigger(&queue, 1, 0, 0);
      PollScript holds = [](OSTrigger*) { return os_clock() == kNow + 100 ? TRUE : FALSE; };
      OSPollTrigger poll(run_poll_script, as_obj(&holds), nullptr, 0);
      const int calls_before = calls();
      for (OSTrigger* trigger : {static_cast<OSTrigger*>(&timer), static_cast<OSTrigger*>(&queue_trigger),
                                 static_cast<OSTrigger*>(&poll)}) {
        if (action == OS_TA_FUNC) count(*trigger);
        if (action == OS_TA_WAKE) trigger->SetTask(task.get());
        trigger->action = action;
        trigger->async = async;
      }
      task->Snooze();
      FakeClock::set(kNow + 100);
      Item item;
      queue.Append(&item);
      const bool at_once = action == OS_TA_WAKE && async == 0;
      EXPECT_EQ(queue_trigger.State(), at_once ? OS_T_ACTIONED : OS_T_READY);
      if (action == OS_TA_WAKE) {
        os_check_triggers();
        task->Snooze();
        os_check_triggers();
        task->Snooze();
      }
      os_check_triggers();
      for (const OSTrigger* trigger :
           {static_cast<OSTrigger*>(&timer), static_cast<OSTrigger*>(&queue_trigger),
            static_cast<OSTrigger*>(&poll)}) {
        EXPECT_EQ(trigger->state, action == OS_TA_NONE ? OS_T_READY : OS_T_ACTIONED);
        EXPECT_EQ(trigger->fired, 1);
      }
      EXPECT_EQ(timer.reason, 4);
      EXPECT_EQ(queue_trigger.reason, 3);
      EXPECT_EQ(poll.reason, 2);
      EXPECT_EQ(calls() - calls_before, action == OS_TA_FUNC ? 3 : 0);
      EXPECT_EQ(task->thread_event == 0 ? 0 : drain(task->thread_event), action == OS_TA_WAKE ? 3 : 0);
      queue.Flush();
      drain(os_trig_event);
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

// ---- Poll triggers ---------------------------------------------------------------------------------------------

TEST_F(TriggerKinds, APollFunctionMayDeleteItsTriggerWhichIsThenLeftAlone) {
  using MortalPoll = Mortal<OSPollTrigger>;
  for (const int result : {FALSE, TRUE}) {
    for (const bool dispatched : {false, true}) {
      SCOPED_TRACE(std::to_string(result) + (dispatched ? " in a pass" : " in Clear"));
      PollScript deletes = [result](OSTrigger* trigger) {
        delete trigger;
        return result;
      };
      auto* poll = new MortalPoll(run_poll_script, as_obj(&deletes), nullptr, 0u);
      OSPollTrigger behind(never, nullptr, nullptr, 0);
      if (dispatched) {
        os_check_triggers();
      } else {
        poll->Clear();
      }
      EXPECT_TRUE(MortalPoll::rests_in_peace());
      EXPECT_EQ(triggers_on(OS_POLL_LIST), Triggers{&behind});
      EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
    }
  }
}

TEST_F(TriggerKinds, APollFunctionInsideAnotherMayDeleteBothTriggers) {
  using Outer = Mortal<OSPollTrigger>;
  class InnerPoll : public OSPollTrigger {
   public:
    using OSPollTrigger::OSPollTrigger;
  };
  using Inner = Mortal<InnerPoll>;
  for (const int result : {FALSE, TRUE}) {
    for (const bool deletes_outer : {false, true}) {
      for (const bool deletes_inner : {false, true}) {
        SCOPED_TRACE(std::to_string(result) + (deletes_outer ? " outer" : "") +
                     (deletes_inner ? " inner" : ""));
        std::unique_ptr<Outer> outer;
        std::unique_ptr<Inner> inner;
        PollScript inner_script = [&](OSTrigger*) {
          if (deletes_outer) outer.reset();
          if (deletes_inner) inner.reset();
          return result;
        };
        PollScript outer_script = [&](OSTrigger*) {
          inner->Clear();
          return result;
        };
        outer = std::make_unique<Outer>(run_poll_script, as_obj(&outer_script), nullptr, 0u);
        inner = std::make_unique<Inner>(run_poll_script, as_obj(&inner_script), nullptr, 0u);
        outer->Clear();
        if (deletes_outer) {
          EXPECT_TRUE(Outer::rests_in_peace());
        } else {
          EXPECT_EQ(outer->State(), result != 0 ? OS_T_READY : OS_T_WAIT);
        }
        if (deletes_inner) {
          EXPECT_TRUE(Inner::rests_in_peace());
        } else {
          EXPECT_EQ(inner->State(), result != 0 ? OS_T_READY : OS_T_WAIT);
        }
      }
    }
  }
}

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

}  // namespace
