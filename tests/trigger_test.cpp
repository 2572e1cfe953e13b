// The trigger's fields, its states and what each event does to them. No clock, no trigger task: every dispatch is
// made by the test.

#include "kernel/trigger.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "support/trigger_fixtures.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

static_assert(OS_T_INACTIVE == 0 && OS_T_WAIT == 1 && OS_T_READY == 2 && OS_T_ACTIONED == 3);
static_assert(OS_TA_NONE == 0 && OS_TA_WAKE == 1 && OS_TA_FUNC == 2);
static_assert(std::is_abstract_v<OSTrigger>, "there is no trigger without a kind");
static_assert(std::is_base_of_v<OSLinkListObj, OSTrigger>);
static_assert(std::is_same_v<decltype(OSTrigger::reason), UBYTE>);
static_assert(std::is_same_v<decltype(OSTrigger::async), UBYTE>);
static_assert(std::is_same_v<decltype(OSTrigger::tls), OSTriggerTLS*>);
static_assert(std::is_same_v<decltype(OSTrigger::task), OSTask*>);
static_assert(std::is_same_v<decltype(OSTrigger::callback), OSCallbackFunction>);
static_assert(std::is_same_v<decltype(OSTrigger::obj), OSObj*>);
static_assert(std::is_same_v<decltype(OSTrigger::addr), ADDR>);
static_assert(std::is_same_v<decltype(OSTrigger::value), ULONG>);
static_assert(std::is_same_v<decltype(OSTrigger::fired), int>);

constexpr OSTrState kStates[] = {OS_T_INACTIVE, OS_T_WAIT, OS_T_READY, OS_T_ACTIONED};

std::string name_of(OSTrState state) {
  static const char* const names[] = {"INACTIVE", "WAIT", "READY", "ACTIONED"};
  return names[state];
}

class TriggerCore : public QuietTriggerTest {
 protected:
  /// Brings a trigger that nobody else knows into `state`, with the counts and events as if nothing had been.
  static void put(HandTrigger& trigger, OSTrState state) {
    trigger.Inactive();
    switch (state) {
      case OS_T_INACTIVE:
        break;
      case OS_T_WAIT:
        trigger.Wait();
        break;
      case OS_T_READY:
        trigger.Ready();
        break;
      case OS_T_ACTIONED:
        trigger.Actioned();
        break;
    }
    ASSERT_EQ(trigger.State(), state);
    drain(os_trig_event);
  }
};

// ---- Construction and fields -------------------------------------------------------------------------------

TEST_F(TriggerCore, ANewTriggerIsInactiveAndBoundToNothing) {
  for (const OSTrAction action : {OS_TA_NONE, OS_TA_WAKE, OS_TA_FUNC}) {
    HandTrigger trigger(action);
    EXPECT_EQ(trigger.state, OS_T_INACTIVE);
    EXPECT_EQ(trigger.action, action);
    EXPECT_EQ(trigger.reason, 0);
    EXPECT_EQ(trigger.async, 2);
    EXPECT_EQ(trigger.tls, nullptr);
    EXPECT_EQ(trigger.task, nullptr);
    EXPECT_EQ(trigger.callback, nullptr);
    EXPECT_EQ(trigger.fired, 0);
    EXPECT_FALSE(trigger.IsActive());
    EXPECT_EQ(trigger.OSLink::object, nullptr) << "a new trigger is in no list";
  }
  EXPECT_EQ(drain(os_trig_event), 0);
}

TEST_F(TriggerCore, FieldsStandInTheOrderThatProgramsWereBuiltAgainst) {
  HandTrigger trigger;
  const std::vector<const void*> fields = {&trigger.state, &trigger.action, &trigger.reason,   &trigger.async,
                                           &trigger.tls,   &trigger.task,   &trigger.callback, &trigger.obj,
                                           &trigger.addr,  &trigger.value,  &trigger.fired};
  EXPECT_LT(static_cast<const void*>(&trigger.OSLink::object), fields.front());
  for (std::size_t i = 1; i < fields.size(); ++i) EXPECT_LT(fields[i - 1], fields[i]) << "field " << i;
}

TEST_F(TriggerCore, VirtualOperationsStandInTheOrderThatProgramsCall) {
  struct Slots : OSTrigger {
    static void expect() {
      EXPECT_EQ(vtable_slot(&OSTrigger::Flush), 2);
      EXPECT_EQ(vtable_slot(&OSTrigger::Free), 3);
      EXPECT_EQ(vtable_slot(&OSTrigger::Check), 4);
      EXPECT_EQ(vtable_slot(&Slots::Inactive), 5);
      EXPECT_EQ(vtable_slot(&Slots::Wait), 6);
      EXPECT_EQ(vtable_slot(&Slots::Ready), 7);
      EXPECT_EQ(vtable_slot(&Slots::Actioned), 8);
      EXPECT_EQ(vtable_slot(&Slots::Activate), -1);
      EXPECT_EQ(vtable_slot(&Slots::ReadyAppend), -1);
      EXPECT_EQ(vtable_slot(&Slots::ReadyRemove), -1);
    }
  };
  Slots::expect();
  EXPECT_EQ(vtable_slot(&OSTrigger::Fire), -1);
  EXPECT_EQ(vtable_slot(&OSTrigger::Clear), -1);
  EXPECT_EQ(vtable_slot(&OSTrigger::Cancel), -1);
  EXPECT_EQ(vtable_slot(&OSTrigger::Action), -1);
}

TEST_F(TriggerCore, ATriggerMadeOnATasksThreadIsBoundToThatTask) {
  Gate made;
  OSTask* bound = nullptr;
  OSTask* self = nullptr;
  new FunctionTask([&](FunctionTask& task) {
    HandTrigger trigger(OS_TA_WAKE);
    bound = trigger.task;
    self = &task;
    made.open();
  });
  ASSERT_TRUE(made.wait());
  EXPECT_NE(bound, nullptr);
  EXPECT_EQ(bound, self);
}

TEST_F(TriggerCore, ATriggerMadeOnAThreadWithAListOfItsOwnIsBoundToThatList) {
  on_thread([] {
    HandTrigger before;
    EXPECT_EQ(before.tls, nullptr);
    {
      OwnDispatch own;
      HandTrigger trigger;
      EXPECT_NE(trigger.tls, nullptr);
      EXPECT_EQ(trigger.tls, &OwnDispatch::tls());
      on_thread([] {
        HandTrigger elsewhere;
        EXPECT_EQ(elsewhere.tls, nullptr);
      });
    }
    HandTrigger after;
    EXPECT_EQ(after.tls, nullptr);
  });
}

TEST_F(TriggerCore, SetTaskMakesItAWakeTrigger) {
  Owned<> task;
  for (const OSTrAction action : {OS_TA_NONE, OS_TA_WAKE, OS_TA_FUNC}) {
    for (const OSTrState state : kStates) {
      HandTrigger trigger(action);
      put(trigger, state);
      trigger.SetTask(task.get());
      EXPECT_EQ(trigger.task, task.get());
      EXPECT_EQ(trigger.action, OS_TA_WAKE);
      EXPECT_EQ(trigger.State(), state);
    }
  }
}

TEST_F(TriggerCore, SetCallbackMakesItACallbackTrigger) {
  int object = 0;
  int address = 0;
  for (const OSTrAction action : {OS_TA_NONE, OS_TA_WAKE, OS_TA_FUNC}) {
    for (const OSTrState state : kStates) {
      HandTrigger trigger(action);
      put(trigger, state);
      trigger.SetCallback(count_call, as_obj(&object), &address, 0xFFFFFFFFu);
      EXPECT_EQ(trigger.callback, &count_call);
      EXPECT_EQ(trigger.obj, as_obj(&object));
      EXPECT_EQ(trigger.addr, &address);
      EXPECT_EQ(trigger.value, 0xFFFFFFFFu);
      EXPECT_EQ(trigger.action, OS_TA_FUNC);
      EXPECT_EQ(trigger.State(), state);
    }
  }
}

TEST_F(TriggerCore, IsActiveMeansReadyOrActioned) {
  HandTrigger trigger;
  const bool active[] = {false, false, true, true};
  for (const OSTrState state : kStates) {
    put(trigger, state);
    EXPECT_EQ(trigger.IsActive() != 0, active[state]) << name_of(state);
    EXPECT_EQ(trigger.State(), state);
    EXPECT_EQ(trigger.state, state);
  }
}

// ---- Every state meets every event ---------------------------------------------------------------------------

constexpr int kNoResult = -1;

/// What an event leaves behind.
struct Cell {
  OSTrState to;
  int fired;    ///< activations counted
  int ready;    ///< entries on the global ready list
  int signals;  ///< signals for the trigger task
  int acted;    ///< callbacks run, or tasks woken
  int result;   ///< of Action()
};

struct Event {
  const char* name;
  std::function<int(HandTrigger&, OSTask&)> act;
  Cell cells[4];  ///< by state: inactive, wait, ready, actioned
};

constexpr Cell kInactive{OS_T_INACTIVE, 0, 0, 0, 0, kNoResult};
constexpr Cell kWaits{OS_T_WAIT, 0, 0, 0, 0, kNoResult};
constexpr Cell kStaysReady{OS_T_READY, 0, 1, 0, 0, kNoResult};
constexpr Cell kActionedAsWas{OS_T_ACTIONED, 0, 0, 0, 0, kNoResult};
constexpr Cell kActivates{OS_T_READY, 1, 1, 1, 0, kNoResult};
constexpr Cell kEntersReady{OS_T_READY, 0, 1, 1, 0, kNoResult};

constexpr Cell refuses(OSTrState state) { return {state, 0, state == OS_T_READY ? 1 : 0, 0, 0, FALSE}; }
constexpr Cell acts(int acted) { return {OS_T_ACTIONED, 0, 0, 0, acted, TRUE}; }

int no_result(const std::function<void()>& act) {
  act();
  return kNoResult;
}

const std::vector<Event>& events() {
  static const std::vector<Event> table = {
      {"Wait",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Wait(); }); },
       {kWaits, kWaits, kWaits, kWaits}},
      {"Fire",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Fire(); }); },
       {kInactive, kActivates, kStaysReady, kActionedAsWas}},
      {"Activate",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Activate(); }); },
       {kInactive, kActivates, kStaysReady, kActionedAsWas}},
      {"Check, condition holds",
       [](HandTrigger& t, OSTask&) {
         t.condition = true;
         return no_result([&] { t.Check(); });
       },
       {kInactive, kActivates, kStaysReady, kActionedAsWas}},
      {"Check, condition does not hold",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Check(); }); },
       {kInactive, kWaits, kStaysReady, kActionedAsWas}},
      {"Cancel",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Cancel(); }); },
       {kInactive, kInactive, kInactive, kInactive}},
      {"Clear, condition does not hold",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Clear(); }); },
       {kWaits, kWaits, kWaits, kWaits}},
      {"Clear, condition holds",
       [](HandTrigger& t, OSTask&) {
         t.condition = true;
         return no_result([&] { t.Clear(); });
       },
       {kActivates, kActivates, kActivates, kActivates}},
      {"Inactive",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Inactive(); }); },
       {kInactive, kInactive, kInactive, kInactive}},
      {"Actioned",
       [](HandTrigger& t, OSTask&) { return no_result([&] { t.Actioned(); }); },
       {kActionedAsWas, kActionedAsWas, kActionedAsWas, kActionedAsWas}},
      // Ready on a ready trigger has a test of its own: ReadyOnAReadyTriggerKeepsOneLevelOfTheSection.
      {"Ready",
       [](HandTrigger& t, OSTask&) {
         return no_result([&] {
           if (t.State() != OS_T_READY) t.Ready();
         });
       },
       {kEntersReady, kEntersReady, kStaysReady, kEntersReady}},
      {"Action, nothing to do",
       [](HandTrigger& t, OSTask&) {
         t.action = OS_TA_NONE;
         return t.Action();
       },
       {refuses(OS_T_INACTIVE), refuses(OS_T_WAIT), refuses(OS_T_READY), refuses(OS_T_ACTIONED)}},
      {"Action, callback",
       [](HandTrigger& t, OSTask&) {
         t.action = OS_TA_FUNC;
         return t.Action();
       },
       {acts(1), refuses(OS_T_WAIT), acts(1), refuses(OS_T_ACTIONED)}},
      {"Action, null callback",
       [](HandTrigger& t, OSTask&) {
         t.SetCallback(nullptr, nullptr, nullptr, 0);
         return t.Action();
       },
       {acts(0), refuses(OS_T_WAIT), acts(0), refuses(OS_T_ACTIONED)}},
      {"Action, snoozing task",
       [](HandTrigger& t, OSTask& task) {
         t.SetTask(&task);
         task.Snooze();
         return t.Action();
       },
       {acts(1), refuses(OS_T_WAIT), acts(1), refuses(OS_T_ACTIONED)}},
      {"Action, running task",
       [](HandTrigger& t, OSTask& task) {
         t.SetTask(&task);
         return t.Action();
       },
       {refuses(OS_T_INACTIVE), refuses(OS_T_WAIT), refuses(OS_T_READY), refuses(OS_T_ACTIONED)}},
      {"Action, no task",
       [](HandTrigger& t, OSTask&) {
         t.SetTask(nullptr);
         return t.Action();
       },
       {refuses(OS_T_INACTIVE), refuses(OS_T_WAIT), refuses(OS_T_READY), refuses(OS_T_ACTIONED)}},
      {"Action, no action of this library",
       [](HandTrigger& t, OSTask&) {
         t.action = static_cast<OSTrAction>(3);
         return t.Action();
       },
       {refuses(OS_T_INACTIVE), refuses(OS_T_WAIT), refuses(OS_T_READY), refuses(OS_T_ACTIONED)}},
      {"SetTask",
       [](HandTrigger& t, OSTask& task) { return no_result([&] { t.SetTask(&task); }); },
       {kInactive, kWaits, kStaysReady, kActionedAsWas}},
      {"SetCallback",
       [](HandTrigger& t, OSTask&) {
         return no_result([&] { t.SetCallback(count_call, t.obj, nullptr, 0); });
       },
       {kInactive, kWaits, kStaysReady, kActionedAsWas}},
      {"ReadyRemove",
       [](HandTrigger& t, OSTask&) {
         return no_result([&] {
           if (t.State() != OS_T_READY) t.ReadyRemove();
         });
       },
       {kInactive, kWaits, kStaysReady, kActionedAsWas}},
  };
  return table;
}

TEST_F(TriggerCore, EveryStateTakesEveryEventAsTheTableSays) {
  for (const Event& event : events()) {
    for (const OSTrState from : kStates) {
      SCOPED_TRACE(name_of(from) + " + " + event.name);
      Owned<> task;
      HandTrigger trigger;
      std::atomic<int> calls{0};
      trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
      put(trigger, from);
      const int levels = levels_held(OS_CRITICAL_TRIGGER);

      const int result = event.act(trigger, *task);

      const Cell& expected = event.cells[from];
      EXPECT_EQ(trigger.State(), expected.to);
      EXPECT_EQ(trigger.fired, expected.fired);
      EXPECT_EQ(OS_READY_LIST.Size(), expected.ready);
      EXPECT_EQ(is_on(OS_READY_LIST, &trigger), expected.ready == 1);
      EXPECT_EQ(drain(os_trig_event), expected.signals);
      EXPECT_EQ(result, expected.result);
      const int wakes = task->thread_event == 0 ? 0 : drain(task->thread_event);
      EXPECT_EQ(calls.load() + wakes, expected.acted);
      EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), levels);
    }
  }
}

TEST_F(TriggerCore, DestroyingATriggerInAnyStateLeavesNoTrace) {
  for (const OSTrState state : kStates) {
    SCOPED_TRACE(name_of(state));
    HandTrigger neighbour;
    put(neighbour, OS_T_READY);
    auto trigger = std::make_unique<HandTrigger>();
    put(*trigger, state);
    trigger.reset();
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&neighbour});
  }
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
}

/// A kind that leaves the end of its life to the base.
class PlainTrigger : public OSTrigger {
 public:
  PlainTrigger() : OSTrigger(OS_TA_NONE) {}
  void Check() override {}
  void ArmAndFire() {
    Wait();
    Fire();
  }
};

TEST_F(TriggerCore, TheBaseTakesAReadyTriggerOffItsListWhenItsKindDoesNot) {
  HandTrigger neighbour(OS_TA_NONE);
  neighbour.ArmAndFire();
  {
    PlainTrigger trigger;
    trigger.ArmAndFire();
    EXPECT_EQ(triggers_on(OS_READY_LIST), (Triggers{&neighbour, &trigger}));
  }
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&neighbour});
}

// ---- Fire and Activate ---------------------------------------------------------------------------------------

TEST_F(TriggerCore, FireOnANeverArmedTriggerDoesNothing) {
  HandTrigger trigger;
  std::atomic<int> calls{0};
  trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
  trigger.Fire();
  EXPECT_EQ(trigger.fired, 0);
  EXPECT_EQ(trigger.State(), OS_T_INACTIVE);
  os_check_triggers();
  EXPECT_EQ(calls, 0);
}

TEST_F(TriggerCore, FireGivesReasonOneEvenWhereItIsIgnored) {
  // Fire writes the reason before it looks at the state: a wake trigger that is ready for another reason and
  // still waits for its task then tells the task that it was fired.
  for (const OSTrState state : kStates) {
    HandTrigger trigger;
    put(trigger, state);
    trigger.reason = 4;
    trigger.Fire();
    EXPECT_EQ(trigger.reason, 1) << name_of(state);
  }
}

TEST_F(TriggerCore, ActivateLeavesTheReasonToItsCaller) {
  HandTrigger trigger;
  trigger.Wait();
  trigger.reason = 77;
  trigger.Activate();
  EXPECT_EQ(trigger.reason, 77);
  EXPECT_EQ(trigger.State(), OS_T_READY);
}

TEST_F(TriggerCore, FiredCountsEveryActivation) {
  HandTrigger trigger;
  for (int i = 1; i <= 5; ++i) {
    trigger.Clear();
    trigger.Fire();
    trigger.Fire();
    EXPECT_EQ(trigger.fired, i);
  }
}

TEST_F(TriggerCore, ATriggerIsActionedAtMostOncePerArming) {
  HandTrigger trigger;
  std::atomic<int> calls{0};
  trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
  for (int round = 1; round <= 3; ++round) {
    trigger.Arm();
    for (int i = 0; i < 3; ++i) {
      trigger.Fire();
      os_check_triggers();
      os_check_triggers();
    }
    EXPECT_EQ(calls, round);
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  }
}

TEST_F(TriggerCore, ReadyTriggersQueueInTheOrderOfTheirActivationWithOneSignalEach) {
  HandTrigger triggers[5];
  Triggers expected;
  for (const int i : {3, 0, 4, 1, 2}) {
    triggers[i].Arm();
    triggers[i].Fire();
    expected.push_back(&triggers[i]);
  }
  EXPECT_EQ(triggers_on(OS_READY_LIST), expected);
  EXPECT_EQ(drain(os_trig_event), 5);
}

/// Writes down which virtual operations are called, and what they find.
class LoggingTrigger : public HandTrigger {
 public:
  using HandTrigger::HandTrigger;
  ~LoggingTrigger() override { OSTrigger::Inactive(); }
  void Check() override {
    note("Check");
    HandTrigger::Check();
  }
  std::string log;

 protected:
  void Inactive() override {
    note("Inactive");
    HandTrigger::Inactive();
  }
  void Wait() override {
    note("Wait");
    HandTrigger::Wait();
  }
  void Ready() override {
    note("Ready");
    HandTrigger::Ready();
  }
  void Actioned() override {
    note("Actioned");
    HandTrigger::Actioned();
  }

 private:
  void note(const char* operation) {
    if (!log.empty()) log += ' ';
    log += std::string(operation) + '(' + name_of(state) + ',' + std::to_string(fired) + ')';
  }
};

TEST_F(TriggerCore, KindsSeeTheirTransitionsInOrder) {
  LoggingTrigger trigger;
  Script callback = [&] { trigger.log += " callback"; };
  set_script(trigger, callback);

  trigger.Clear();
  EXPECT_EQ(trigger.log, "Wait(INACTIVE,0) Check(WAIT,0)");

  trigger.log.clear();
  trigger.Fire();
  // The activation is counted between leaving the watch list and becoming ready.
  EXPECT_EQ(trigger.log, "Inactive(WAIT,0) Ready(INACTIVE,1)");

  trigger.log.clear();
  EXPECT_TRUE(trigger.Action());
  EXPECT_EQ(trigger.log, "Actioned(READY,1) callback");

  trigger.log.clear();
  trigger.Cancel();
  EXPECT_EQ(trigger.log, "Inactive(ACTIONED,1)");

  trigger.log.clear();
  trigger.condition = true;
  trigger.Clear();
  EXPECT_EQ(trigger.log, "Wait(INACTIVE,1) Check(WAIT,1) Inactive(WAIT,1) Ready(INACTIVE,2)");
}

TEST_F(TriggerCore, ASynchronousWakeGoesStraightToActioned) {
  Owned<> task;
  LoggingTrigger trigger(OS_TA_WAKE);
  trigger.SetTask(task.get());
  trigger.async = 0;
  trigger.Arm();
  task->Snooze();
  const ULONG signature = OS_READY_LIST.Signature();
  trigger.log.clear();
  trigger.Fire();
  EXPECT_EQ(trigger.log, "Inactive(WAIT,0) Actioned(INACTIVE,1)");
  EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  EXPECT_EQ(OS_READY_LIST.Signature(), signature) << "the ready list was touched";
  EXPECT_EQ(drain(os_trig_event), 0);
  EXPECT_EQ(state_of(*task), OS_ST_OK);
  EXPECT_EQ(task->WakeCode(), 1);
}

TEST_F(TriggerCore, ASynchronousWakeOfARunningTaskBecomesReady) {
  Owned<> task;
  LoggingTrigger trigger(OS_TA_WAKE);
  trigger.SetTask(task.get());
  trigger.async = 0;
  trigger.Arm();
  trigger.log.clear();
  trigger.Fire();
  EXPECT_EQ(trigger.log, "Inactive(WAIT,0) Ready(INACTIVE,1)");
  EXPECT_EQ(trigger.State(), OS_T_READY);
  EXPECT_EQ(drain(os_trig_event), 1);
}

TEST_F(TriggerCore, ASynchronousCallbackIsNeverRunInsideFire) {
  HandTrigger trigger;
  std::atomic<int> calls{0};
  trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
  trigger.async = 0;
  trigger.ArmAndFire();
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(trigger.State(), OS_T_READY);
  os_check_triggers();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
}

TEST_F(TriggerCore, ReadyOnAReadyTriggerKeepsOneLevelOfTheSection) {
  // Kept as it has always been: programs never call Ready on a ready trigger, and one that did would find the
  // section still entered. Nothing else may change.
  HandTrigger trigger;
  trigger.ArmAndFire();
  EXPECT_EQ(drain(os_trig_event), 1);
  const ULONG signature = OS_READY_LIST.Signature();
  ASSERT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);

  trigger.Ready();

  EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 1);
  EXPECT_EQ(trigger.State(), OS_T_READY);
  EXPECT_EQ(trigger.fired, 1);
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
  EXPECT_EQ(OS_READY_LIST.Signature(), signature);
  EXPECT_EQ(drain(os_trig_event), 0);
  BOOL entered = TRUE;
  on_thread([&entered] { entered = TryEnterCriticalSection(&OS_CRITICAL_TRIGGER); });
  EXPECT_FALSE(entered);

  trigger.Ready();
  EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 2);

  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
  EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
  EXPECT_TRUE(is_free_for_others(OS_CRITICAL_TRIGGER));
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

}  // namespace
