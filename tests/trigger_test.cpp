// The trigger's states and actions, and how a ready trigger is listed and announced. No clock, no trigger task:
// every dispatch is made by the test.

#include "kernel/trigger.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"
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
static_assert(std::is_same_v<decltype(OSTrigger::value), ULONG>);
static_assert(std::is_same_v<decltype(OSTrigger::fired), int>);

constexpr OSTrState kStates[] = {OS_T_INACTIVE, OS_T_WAIT, OS_T_READY, OS_T_ACTIONED};

std::string name_of(OSTrState state) {
  static const char* const names[] = {"INACTIVE", "WAIT", "READY", "ACTIONED"};
  return names[state];
}

class TriggerCore : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
  }

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
      {"SetTask",
       [](HandTrigger& t, OSTask& task) { return no_result([&] { t.SetTask(&task); }); },
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

// ---- Where a ready trigger goes --------------------------------------------------------------------------------

enum class Place { kGlobal, kOwn, kStraightToActioned };

TEST_F(TriggerCore, AsyncDecidesTheListAndTheEvent) {
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

TEST_F(TriggerCore, AReadyTriggerLeavesTheListItWasPutOnWhateverAsyncSaysNow) {
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

TEST_F(TriggerCore, ATriggerPutOnTheGlobalListIsDispatchedThereAfterAsyncChanged) {
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

TEST_F(TriggerCore, ReadyAppendAndReadyRemoveMoveOnlyTheListEntry) {
  HandTrigger trigger;
  trigger.ReadyAppend();
  EXPECT_EQ(trigger.State(), OS_T_INACTIVE);
  EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
  EXPECT_EQ(drain(os_trig_event), 1);
  trigger.ReadyRemove();
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
  EXPECT_EQ(drain(os_trig_event), 0);
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

// ---- Action --------------------------------------------------------------------------------------------------

TEST_F(TriggerCore, TheCallbackGetsItsThreeArgumentsAndHoldsNoSection) {
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

TEST_F(TriggerCore, ACallbackMayArmItsOwnTriggerAgain) {
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

TEST_F(TriggerCore, ACallbackMayDeleteItsOwnTrigger) {
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

TEST_F(TriggerCore, AWokenTaskLearnsTheReason) {
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

TEST_F(TriggerCore, AStoppedTaskIsNotWoken) {
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

TEST_F(TriggerCore, AFiredTriggerSurvivesTheEndOfTheKernel) {
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

// ---- Several threads -----------------------------------------------------------------------------------------

TEST_F(TriggerCore, TwoFiresAtOnceActivateOnce) {
  constexpr int kRounds = 2000;
  constexpr int kThreads = 3;
  HandTrigger trigger(OS_TA_NONE);
  Rendezvous start(kThreads);
  Rendezvous done(kThreads);
  std::vector<std::thread> threads;
  for (int i = 1; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        start.meet();
        trigger.Fire();
        done.meet();
      }
    });
  }
  int wrong = 0;
  for (int round = 0; round < kRounds; ++round) {
    trigger.Clear();
    const int fired_before = trigger.fired;
    start.meet();
    trigger.Fire();
    done.meet();
    const bool right = trigger.fired == fired_before + 1 && trigger.State() == OS_T_READY &&
                       OS_READY_LIST.Size() == 1 && ring_length(OS_READY_LIST) == 1 &&
                       drain(os_trig_event) == 1;
    if (!right) ++wrong;
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(TriggerCore, TwoFiresAtOnceWakeASnoozingTaskOnce) {
  constexpr int kRounds = 1000;
  Owned<> task;
  HandTrigger trigger(OS_TA_WAKE);
  trigger.SetTask(task.get());
  trigger.async = 0;
  Rendezvous start(2);
  Rendezvous done(2);
  std::thread other([&] {
    for (int round = 0; round < kRounds; ++round) {
      start.meet();
      trigger.Fire();
      done.meet();
    }
  });
  int wrong = 0;
  for (int round = 0; round < kRounds; ++round) {
    trigger.Clear();
    task->Snooze();
    start.meet();
    trigger.Fire();
    done.meet();
    const bool right = trigger.fired == round + 1 && trigger.State() == OS_T_ACTIONED &&
                       OS_READY_LIST.Size() == 0 && drain(task->thread_event) == 1;
    if (!right) ++wrong;
  }
  other.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(TriggerCore, AnyMixOfOperationsOnAnyThreadsKeepsStateAndListsInStep) {
  const unsigned seed = test_seed();
  constexpr int kThreads = 4;
  constexpr int kTriggers = 5;
  constexpr int kSteps = 4000;
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  for (int i = 0; i < kTriggers; ++i) triggers.push_back(std::make_unique<HandTrigger>(OS_TA_NONE));
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      std::mt19937 random(seed + static_cast<unsigned>(n));
      for (int step = 0; step < kSteps; ++step) {
        HandTrigger& trigger = *triggers[static_cast<std::size_t>(pick(random, 0, kTriggers - 1))];
        switch (pick(random, 0, 5)) {
          case 0:
            trigger.Clear();
            break;
          case 1:
            trigger.Cancel();
            break;
          case 2:
            trigger.Fire();
            break;
          case 3:
            trigger.Fire();
            break;
          case 4:
            os_check_triggers();
            break;
          case 5:
            trigger.Arm();
            break;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& trigger : triggers) {
    EXPECT_NE(trigger->State(), OS_T_ACTIONED) << "these triggers have nothing to do";
    EXPECT_EQ(is_on(OS_READY_LIST, trigger.get()), trigger->State() == OS_T_READY);
  }
  drain(os_trig_event);
  triggers.clear();
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
  EXPECT_TRUE(ListIsSound(OS_READY_LIST));
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

}  // namespace
