// One pass over a ready list, the global one or a thread's own: what is actioned, in which order, and what
// callbacks may do meanwhile.

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "kernel/trigger.h"
#include "support/ring_check.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

class ReadyPass : public EitherReadyList {};

INSTANTIATE_TEST_SUITE_P(Lists, ReadyPass, ::testing::Bool(), ready_list_name);

TEST_P(ReadyPass, CallbacksRunInOrderOnTheDispatchingThread) {
  with_list([] {
    std::string log;
    const pthread_t self = pthread_self();
    HandTrigger triggers[5];
    std::array<Script, 5> scripts;
    for (std::size_t i = 0; i < 5; ++i) {
      scripts[i] = [&log, i, self] { log += pthread_self() == self ? static_cast<char>('0' + i) : '!'; };
      set_script(triggers[i], scripts[i]);
      triggers[i].Arm();
    }
    on_thread([&triggers] {
      for (const int i : {2, 0, 4, 1, 3}) triggers[i].Fire();
    });
    pass();
    EXPECT_EQ(log, "20413");
    for (HandTrigger& trigger : triggers) EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(list().Size(), 0);
    pass();
    EXPECT_EQ(log, "20413");
  });
}

TEST_P(ReadyPass, ACallbackGetsItsThreeArguments) {
  struct Seen {
    OSObj* obj;
    ADDR addr;
    ULONG value;
  };
  static Seen seen;
  with_list([] {
    seen = {};
    int object = 0;
    int address = 0;
    HandTrigger trigger;
    trigger.SetCallback(
        [](OSObj* obj, ADDR addr, ULONG value) {
          seen = {obj, addr, value};
        },
        as_obj(&object), &address, 0xFEDCBA98u);
    trigger.ArmAndFire();
    pass();
    EXPECT_EQ(seen.obj, as_obj(&object));
    EXPECT_EQ(seen.addr, &address);
    EXPECT_EQ(seen.value, 0xFEDCBA98u);
  });
}

TEST_P(ReadyPass, WhatCannotBeActionedStaysInOrderAndIsTriedOnEveryPass) {
  with_list([] {
    Owned<> task;
    std::atomic<int> calls{0};
    HandTrigger none1(OS_TA_NONE);
    HandTrigger call(OS_TA_FUNC);
    HandTrigger wake1(OS_TA_WAKE);
    HandTrigger wake2(OS_TA_WAKE);
    HandTrigger none2(OS_TA_NONE);
    call.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    wake1.SetTask(task.get());
    wake2.SetTask(task.get());
    for (HandTrigger* trigger : {&none1, &wake1, &call, &wake2, &none2}) trigger->ArmAndFire();

    pass();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(triggers_on(list()), (Triggers{&none1, &wake1, &wake2, &none2}));
    pass();
    EXPECT_EQ(triggers_on(list()), (Triggers{&none1, &wake1, &wake2, &none2}));

    task->Snooze();
    pass();
    EXPECT_EQ(wake1.State(), OS_T_ACTIONED) << "the first in order is actioned";
    EXPECT_EQ(wake2.State(), OS_T_READY) << "and then the task runs again";
    EXPECT_EQ(triggers_on(list()), (Triggers{&none1, &wake2, &none2}));

    task->Snooze();
    pass();
    EXPECT_EQ(triggers_on(list()), (Triggers{&none1, &none2}));
    EXPECT_EQ(drain(task->thread_event), 2);

    none1.Cancel();
    pass();
    EXPECT_EQ(triggers_on(list()), Triggers{&none2});
    none2.Clear();
    EXPECT_EQ(list().Size(), 0);
  });
}

TEST_P(ReadyPass, SnoozingKicksNobody) {
  with_list([] {
    Owned<> task;
    HandTrigger wake(OS_TA_WAKE);
    wake.SetTask(task.get());
    wake.ArmAndFire();
    pass();
    drain(os_trig_event);
    drain(OSTrigger::TLSGetEvent() != 0 ? OSTrigger::TLSGetEvent() : os_trig_event);
    task->Snooze();
    EXPECT_EQ(drain(os_trig_event), 0);
    if (own_list()) {
      EXPECT_EQ(drain(OSTrigger::TLSGetEvent()), 0);
    }
    EXPECT_EQ(wake.State(), OS_T_READY);
    pass();
    EXPECT_EQ(wake.State(), OS_T_ACTIONED);
  });
}

TEST_P(ReadyPass, WhatBecomesReadyDuringThePassIsActionedInIt) {
  with_list([] {
    std::string log;
    HandTrigger first;
    HandTrigger second;
    HandTrigger later;
    Script on_first = [&] {
      log += '1';
      later.ArmAndFire();
    };
    Script on_second = [&] { log += '2'; };
    Script on_later = [&] { log += 'L'; };
    set_script(first, on_first);
    set_script(second, on_second);
    set_script(later, on_later);
    first.ArmAndFire();
    second.ArmAndFire();
    pass();
    EXPECT_EQ(log, "12L");
  });
}

TEST_P(ReadyPass, ACallbackWhoseConditionStillHoldsRunsAgainInTheSamePass) {
  with_list([] {
    HandTrigger trigger;
    int left = 5;
    Script callback = [&] {
      trigger.condition = --left > 0;
      trigger.Clear();
    };
    set_script(trigger, callback);
    trigger.ArmAndFire();
    pass();
    EXPECT_EQ(left, 0);
    EXPECT_EQ(trigger.State(), OS_T_WAIT);
    EXPECT_EQ(trigger.fired, 5);
  });
}

TEST_P(ReadyPass, ACallbackMayDoAnythingToAnyTrigger) {
  constexpr int kCount = 4;
  struct Operation {
    const char* name;
    OSTrState leaves;
    int extra_calls;  ///< for a victim that has had its turn
    int later_calls;  ///< for a victim whose turn was still to come
  };
  const Operation operations[] = {{"cancels", OS_T_INACTIVE, 0, 0},
                                  {"deletes", OS_T_INACTIVE, 0, 0},
                                  {"arms", OS_T_WAIT, 0, 0},
                                  {"arms and fires", OS_T_ACTIONED, 1, 1}};
  with_list([&operations] {
    for (const Operation& operation : operations) {
      for (int meddling = 0; meddling < kCount; ++meddling) {
        for (int victim = 0; victim < kCount; ++victim) {
          const std::string what = operation.name;
          SCOPED_TRACE("callback of " + std::to_string(meddling) + " " + what + " " + std::to_string(victim));
          std::array<int, kCount> calls{};
          std::array<std::unique_ptr<HandTrigger>, kCount> triggers;
          std::array<Script, kCount> scripts;
          for (std::size_t i = 0; i < kCount; ++i) {
            triggers[i] = std::make_unique<HandTrigger>();
            scripts[i] = [&, i] {
              if (++calls[i] > 1 || i != static_cast<std::size_t>(meddling)) return;
              std::unique_ptr<HandTrigger>& target = triggers[static_cast<std::size_t>(victim)];
              if (what == "cancels") target->Cancel();
              if (what == "deletes") target.reset();
              if (what == "arms") target->Clear();
              if (what == "arms and fires") {
                target->Clear();
                target->Fire();
              }
            };
            set_script(*triggers[i], scripts[i]);
            triggers[i]->ArmAndFire();
          }
          pass();
          for (int i = 0; i < kCount; ++i) {
            int expected = 1;
            if (i == victim)
              expected = victim <= meddling ? 1 + operation.extra_calls : operation.later_calls;
            EXPECT_EQ(calls[static_cast<std::size_t>(i)], expected) << "trigger " << i;
            const auto& trigger = triggers[static_cast<std::size_t>(i)];
            if (trigger == nullptr) continue;
            EXPECT_EQ(trigger->State(), i == victim ? operation.leaves : OS_T_ACTIONED) << "trigger " << i;
          }
          EXPECT_EQ(list().Size(), 0);
          EXPECT_TRUE(ListIsSound(list()));
        }
      }
    }
  });
}

TEST_P(ReadyPass, ACallbackMayTakeAwayTriggersThatWereSetAsideInThisPass) {
  // Triggers whose action failed are kept aside until the pass ends. What a callback does to them must hold.
  with_list([] {
    for (const char* operation : {"cancel", "delete", "arm", "arm and fire"}) {
      for (std::size_t victim = 0; victim < 4; ++victim) {
        const std::string what = operation;
        SCOPED_TRACE(what + " " + std::to_string(victim));
        std::array<std::unique_ptr<HandTrigger>, 4> waiting;
        for (auto& trigger : waiting) trigger = std::make_unique<HandTrigger>(OS_TA_NONE);
        HandTrigger acting;
        Script callback = [&] {
          if (what == "cancel") waiting[victim]->Cancel();
          if (what == "delete") waiting[victim].reset();
          if (what == "arm") waiting[victim]->Clear();
          if (what == "arm and fire") {
            waiting[victim]->Clear();
            waiting[victim]->Fire();
          }
        };
        set_script(acting, callback);
        waiting[0]->ArmAndFire();
        waiting[1]->ArmAndFire();
        acting.ArmAndFire();
        waiting[2]->ArmAndFire();
        waiting[3]->ArmAndFire();
        pass();
        Triggers left;
        for (std::size_t i = 0; i < 4; ++i) {
          if (i != victim) left.push_back(waiting[i].get());
        }
        if (what == "arm and fire") left.push_back(waiting[victim].get());
        EXPECT_EQ(triggers_on(list()), left);
        pass();
        EXPECT_EQ(triggers_on(list()), left);
        waiting = {};
        EXPECT_EQ(list().Size(), 0);
        EXPECT_TRUE(ListIsSound(list()));
      }
    }
  });
}

TEST_P(ReadyPass, ACallbackMayDeleteEveryTrigger) {
  with_list([] {
    for (std::size_t meddling = 0; meddling < 3; ++meddling) {
      std::array<int, 3> calls{};
      std::array<std::unique_ptr<HandTrigger>, 3> triggers;
      std::array<Script, 3> scripts;
      for (std::size_t i = 0; i < 3; ++i) {
        triggers[i] = std::make_unique<HandTrigger>();
        scripts[i] = [&, i] {
          ++calls[i];
          if (i == meddling) triggers = {};
        };
        set_script(*triggers[i], scripts[i]);
        triggers[i]->ArmAndFire();
      }
      pass();
      for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(calls[i], i <= meddling ? 1 : 0);
      EXPECT_TRUE(ListIsSound(list()));
    }
  });
}

TEST_P(ReadyPass, ACallbackMayChangeWhatItsTriggerCalls) {
  with_list([] {
    HandTrigger trigger;
    int second_calls = 0;
    Script second = [&second_calls] { ++second_calls; };
    Script first = [&] {
      set_script(trigger, second);
      trigger.Clear();
      trigger.Fire();
    };
    set_script(trigger, first);
    trigger.ArmAndFire();
    pass();
    EXPECT_EQ(second_calls, 1);
  });
}

TEST_P(ReadyPass, ACallbackMayMakeAPassOfItsOwn) {
  // The pass within stands on other triggers than the one around it; both go on when those are taken away.
  with_list([] {
    std::string log;
    HandTrigger none1(OS_TA_NONE);
    HandTrigger outer;
    HandTrigger none2(OS_TA_NONE);
    HandTrigger inner;
    HandTrigger none3(OS_TA_NONE);
    HandTrigger last;
    Script on_outer = [&] {
      log += 'o';
      pass();
      none1.Cancel();  // where the outer pass stands
      last.ArmAndFire();
      log += 'O';
    };
    Script on_inner = [&] {
      log += 'i';
      none2.Cancel();  // where the inner pass stands
    };
    Script on_last = [&log] { log += 'l'; };
    set_script(outer, on_outer);
    set_script(inner, on_inner);
    set_script(last, on_last);
    for (HandTrigger* trigger : {&none1, &outer, &none2, &inner, &none3, &last}) trigger->ArmAndFire();
    pass();
    EXPECT_EQ(log, "oilOl");
    EXPECT_EQ(triggers_on(list()), Triggers{&none3});
    none3.Cancel();
  });
}

/// A kind that keeps its being actioned to itself.
class ReadyForEver : public HandTrigger {
 public:
  ~ReadyForEver() override { OSTrigger::Inactive(); }

 protected:
  void Actioned() override {}
};

TEST_P(ReadyPass, AKindThatStaysReadyIsActionedOncePerPass) {
  with_list([] {
    std::atomic<int> calls{0};
    ReadyForEver trigger;
    HandTrigger behind;
    for (HandTrigger* each : {static_cast<HandTrigger*>(&trigger), &behind}) {
      each->SetCallback(count_call, as_obj(&calls), nullptr, 0);
      each->ArmAndFire();
    }
    pass();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(triggers_on(list()), Triggers{&trigger});
    pass();
    EXPECT_EQ(calls, 3);
    trigger.Cancel();
  });
}

TEST_P(ReadyPass, TheSectionIsFreeWhileACallbackRuns) {
  with_list([] {
    HandTrigger trigger;
    bool free_for_others = false;
    bool other_thread_could_work = false;
    Script callback = [&] {
      on_thread([&] {
        free_for_others = is_free_for_others(OS_CRITICAL_TRIGGER);
        HandTrigger other;
        other.async = 1;
        other.ArmAndFire();
        other_thread_could_work = other.State() == OS_T_READY;
      });
    };
    set_script(trigger, callback);
    trigger.ArmAndFire();
    pass();
    EXPECT_TRUE(free_for_others);
    EXPECT_TRUE(other_thread_could_work);
  });
}

TEST_P(ReadyPass, ADeletedTriggerIsNotDispatched) {
  with_list([] {
    std::atomic<int> calls{0};
    auto trigger = std::make_unique<HandTrigger>();
    trigger->SetCallback(count_call, as_obj(&calls), nullptr, 0);
    trigger->ArmAndFire();
    trigger.reset();
    pass();
    EXPECT_EQ(calls, 0);
  });
}

}  // namespace
