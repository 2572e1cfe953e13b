// What makes triggers happen: dispatch passes, threads with ready lists of their own, the trigger task and the
// timer thread, their start and stop, and dispatch against other threads that change or delete triggers.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kernel/buffer_callback.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

// ---- Thread-specific keys: one creation may be made to return key 0 ---------------------------------------------

namespace {
bool next_key_is_zero = false;
bool zero_key_is_ours = false;

bool take(bool& flag) { return std::atomic_ref<bool>(flag).exchange(false); }
}  // namespace

// Sanitizers create keys before they are ready for code that they have instrumented.
#define OSKERNEL_TEST_UNINSTRUMENTED                                                      \
  __attribute__((visibility("default"), no_sanitize("address"), no_sanitize("undefined"), \
                 no_sanitize("thread")))

extern "C" {
// The C library's own name for pthread_key_create. Looking it up at run time is no choice here: the first
// call comes before the program's own initialisation.
int __pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept;

OSKERNEL_TEST_UNINSTRUMENTED int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept {
  if (__atomic_exchange_n(&next_key_is_zero, false, __ATOMIC_SEQ_CST)) {
    __atomic_store_n(&zero_key_is_ours, true, __ATOMIC_SEQ_CST);
    *key = 0;
    return 0;
  }
  return __pthread_key_create(key, destructor);
}

OSKERNEL_TEST_UNINSTRUMENTED int pthread_key_delete(pthread_key_t key) noexcept {
  if (key == 0 && take(zero_key_is_ours)) return 0;
  static const auto next = reinterpret_cast<int (*)(pthread_key_t)>(dlsym(RTLD_NEXT, "pthread_key_delete"));
  return next(key);
}
}

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

class DispatchTest : public KernelTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
    EXPECT_EQ(OS_POLL_LIST.Size(), 0);
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
    EXPECT_EQ(levels_held(OS_CRITICAL_TRIGGER), 0);
    EXPECT_EQ(console.fatals(), std::vector<std::string>{});
    KernelTest::TearDown();
  }
};

// ---- Start and stop --------------------------------------------------------------------------------------------

class StartAndStop : public DispatchTest {};

TEST_F(StartAndStop, StartMakesTheTriggerTaskAndTheTimerThread) {
  Start();
  ASSERT_NE(OS_TRIG_TASK, nullptr);
  EXPECT_EQ(OS_TRIG_TASK->Priority(), 5);
  EXPECT_EQ(OS_TRIG_TASK->stksize, 8000u);
  EXPECT_EQ(OS_TRIG_TASK->Userdata(), nullptr);
  EXPECT_EQ(OS_TRIG_TASK->start_func, &os_task_startup);
  EXPECT_EQ(OSTask::FindTask(OS_TRIG_TASK->thread_id), OS_TRIG_TASK);
  EXPECT_NE(os_trig_event, 0);
  EXPECT_NE(os_trig_timer_event, 0);
  EXPECT_NE(os_trig_event, os_trig_timer_event);
  EXPECT_TRUE(threads_come_to(2));
}

TEST_F(StartAndStop, TheTimerThreadHasTheStandardStack) {
  Start();
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_getattr_np(os_trig_timer_thread, &attributes), 0);
  std::size_t bytes = 0;
  pthread_attr_getstacksize(&attributes, &bytes);
  pthread_attr_destroy(&attributes);
  EXPECT_GE(bytes, 0x100000u - 0x2000u);
}

TEST_F(StartAndStop, WithoutATriggerStackThereAreNoThreads) {
  StartQuiet();
  EXPECT_EQ(OS_TRIG_TASK, nullptr);
  EXPECT_NE(os_trig_event, 0);
  EXPECT_NE(os_trig_timer_event, 0);
  EXPECT_TRUE(threads_come_to(0));
  // The program dispatches for itself.
  std::atomic<int> calls{0};
  {
    HandTrigger trigger;
    trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    trigger.ArmAndFire();
    EXPECT_EQ(calls, 0);
    os_check_triggers();
  }
  EXPECT_EQ(calls, 1);
  Stop();  // joins no thread that does not exist
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(StartAndStop, StopEndsBothThreadsAndClosesBothEvents) {
  for (const bool quiet : {false, true}) {
    if (quiet) {
      StartQuiet();
    } else {
      Start();
    }
    const HANDLE event = os_trig_event;
    const HANDLE timer_event = os_trig_timer_event;
    Stop();
    EXPECT_EQ(OS_TRIG_TASK, nullptr);
    EXPECT_EQ(os_trig_event, 0);
    EXPECT_FALSE(SetEvent(event));
    EXPECT_FALSE(SetEvent(timer_event));
    EXPECT_TRUE(KernelEvent::eventList.IsEmpty());
    EXPECT_TRUE(threads_come_to(0));
  }
}

TEST_F(StartAndStop, StopEndsTheTimerThreadWhileATimerIsPending) {
  Start();
  auto timer = std::make_unique<OSTimerTrigger>(1000000, 0);
  std::atomic<int> calls{0};
  timer->SetCallback(count_call, as_obj(&calls), nullptr, 0);
  Stop();
  EXPECT_TRUE(threads_come_to(0));
  timer.reset();
  EXPECT_EQ(calls, 0);
}

TEST_F(StartAndStop, ATriggerStackOfAnySizeIsEnough) {
  struct Row {
    int bytes;
    ULONG recorded;
  };
  for (const Row& row :
       {Row{1, 800}, Row{799, 800}, Row{801, 804}, Row{16384, 16384}, Row{1000000, 1000000}}) {
    SCOPED_TRACE(row.bytes);
    cfg.trigger_stack = row.bytes;
    Start();
    ASSERT_NE(OS_TRIG_TASK, nullptr);
    EXPECT_EQ(OS_TRIG_TASK->stksize, row.recorded);
    {
      Gate ran;
      Script callback = [&ran] {
        char text[200];
        std::snprintf(text, sizeof text, "%f %s", 3.25, "a callback may format a line");
        if (text[0] == '3') ran.open();
      };
      HandTrigger trigger;
      set_script(trigger, callback);
      trigger.ArmAndFire();
      EXPECT_TRUE(ran.wait());
    }
    Stop();
  }
}

TEST_F(StartAndStop, StartAfterStopDispatchesAgainWithAnyConfiguration) {
  for (int round = 0; round < 10; ++round) {
    if (round % 3 == 2) {
      cfg.trigger_stack = 0;
    } else {
      cfg.trigger_stack = 8000 + 1000 * round;
    }
    Start();
    {
      Gate ran;
      Script callback = [&ran] { ran.open(); };
      HandTrigger fired;
      set_script(fired, callback);
      OSTimerTrigger timer(1, 0);
      set_script(timer, callback);
      fired.ArmAndFire();
      if (cfg.trigger_stack == 0) {
        EXPECT_TRUE(wait_until([&] {
          os_check_triggers();
          return timer.fired == 1;
        }));
      }
      EXPECT_TRUE(ran.wait());
      EXPECT_TRUE(ran.wait());
    }
    Stop();
  }
}

TEST_F(StartAndStop, DeletingTheTriggerTaskWhileItWaitsEndsAndJoinsItsThread) {
  Start();
  const pthread_t thread = OS_TRIG_TASK->thread_id;
  EXPECT_FALSE(OS_TRIG_TASK->done);
  delete OS_TRIG_TASK;
  OS_TRIG_TASK = nullptr;
  EXPECT_TRUE(threads_come_to(1));
  EXPECT_EQ(OSTask::FindTask(thread), nullptr);
  Stop();
}

TEST_F(StartAndStop, ATriggerTaskOfTheProgramsOwnRunsAndEndsToo) {
  StartQuiet();
  auto* task = new OSTriggerTask;
  EXPECT_EQ(task->stksize, 800u);
  EXPECT_FALSE(task->done);
  Gate ran;
  OSTask* runner = nullptr;
  {
    Script callback = [&] {
      runner = OSTask::GetCurrentTask();
      ran.open();
    };
    HandTrigger trigger;
    set_script(trigger, callback);
    trigger.ArmAndFire();
    EXPECT_TRUE(ran.wait());
  }
  EXPECT_EQ(runner, task);
  delete task;
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(StartAndStop, StopWaitsForTheCallbackThatRuns) {
  Start();
  Gate begun;
  std::atomic<bool> ended{false};
  Script callback = [&] {
    begun.open();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ended = true;
  };
  HandTrigger trigger;
  set_script(trigger, callback);
  trigger.ArmAndFire();
  ASSERT_TRUE(begun.wait());
  Stop();
  EXPECT_TRUE(ended);
}

TEST_F(StartAndStop, AReadyTriggerMayOutliveTheKernelAndFireInTheNextOne) {
  StartQuiet();
  std::atomic<int> calls{0};
  HandTrigger trigger;
  trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
  trigger.ArmAndFire();
  Stop();
  EXPECT_EQ(calls, 0);
  trigger.Cancel();
  StartQuiet();
  trigger.ArmAndFire();
  os_check_triggers();
  EXPECT_EQ(calls, 1);
}

TEST_F(StartAndStop, VirtualOperationsOfTheTriggerTaskAreThoseOfATask) {
  EXPECT_EQ(vtable_slot(&OSTriggerTask::Main), 4);
  EXPECT_EQ(vtable_slot(&OSTask::Main), 4);
}

// ---- One pass over a ready list, global or a thread's own ----------------------------------------------------------

class ReadyPass : public DispatchTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
  }

  static bool own_list() { return GetParam(); }

  /// Runs the test on a thread that has its own ready list when the parameter says so.
  static void with_list(const Script& test) {
    on_thread([&test] {
      if (!own_list()) {
        test();
        return;
      }
      OwnDispatch own;
      test();
      EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
    });
  }
  static OSLinkList& list() { return own_list() ? OwnDispatch::tls().OS_READY_LIST : OS_READY_LIST; }
  static void pass() {
    if (own_list()) {
      OSTrigger::TLSPoll();
    } else {
      os_check_triggers();
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Lists, ReadyPass, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& each) {
  return each.param ? std::string("OwnList") : std::string("GlobalList");
});

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

// ---- A thread's own list -------------------------------------------------------------------------------------------

class OwnLists : public DispatchTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
  }
};

TEST_F(OwnLists, AThreadWithoutOneHasNoEventAndNothingToPoll) {
  on_thread([] {
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    OSTrigger::TLSPoll();
    OSTrigger::TLSUninitialise();
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
  });
}

TEST_F(OwnLists, TheEventLivesFromInitialiseToUninitialise) {
  on_thread([] {
    for (int round = 0; round < 3; ++round) {
      OSTrigger::TLSInitialise();
      const HANDLE event = OSTrigger::TLSGetEvent();
      EXPECT_NE(event, 0);
      EXPECT_NE(OSTriggerTLS::tls_key, 0u);
      EXPECT_EQ(OwnDispatch::tls().event, event);
      EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
      EXPECT_EQ(WaitForSingleObject(event, 0), 110u);
      on_thread([] { EXPECT_EQ(OSTrigger::TLSGetEvent(), 0); });
      OSTrigger::TLSUninitialise();
      EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
      EXPECT_EQ(pthread_getspecific(OSTriggerTLS::tls_key), nullptr);
      EXPECT_EQ(WaitForSingleObject(event, 0), 128u);
      OSTrigger::TLSPoll();
    }
  });
}

TEST_F(OwnLists, AThreadRunsItsOwnTriggersWhenItsEventIsSignalled) {
  Gate ready;
  Gate ended;
  HandTrigger* trigger = nullptr;
  std::thread owner([&] {
    OwnDispatch own;
    const pthread_t self = pthread_self();
    bool on_own_thread = false;
    Script callback = [&] { on_own_thread = pthread_self() == self; };
    HandTrigger mine;
    set_script(mine, callback);
    mine.Arm();
    trigger = &mine;
    ready.open();
    EXPECT_EQ(WaitForSingleObject(OSTrigger::TLSGetEvent(), kPatienceMs), 0u);
    OSTrigger::TLSPoll();
    EXPECT_TRUE(on_own_thread);
    EXPECT_EQ(mine.State(), OS_T_ACTIONED);
  });
  EXPECT_TRUE(ready.wait());
  os_check_triggers();
  trigger->Fire();
  os_check_triggers();  // not on the global list, so not its business
  owner.join();
}

TEST_F(OwnLists, ListsOfDifferentThreadsAreKeptApart) {
  constexpr int kThreads = 4;
  std::array<HANDLE, kThreads> events{};
  Rendezvous all(kThreads);
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      OwnDispatch own;
      events[static_cast<std::size_t>(n)] = OSTrigger::TLSGetEvent();
      std::atomic<int> calls{0};
      HandTrigger trigger;
      trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
      trigger.ArmAndFire();
      all.meet();
      EXPECT_EQ(triggers_on(OwnDispatch::tls().OS_READY_LIST), Triggers{&trigger});
      all.meet();
      OSTrigger::TLSPoll();
      EXPECT_EQ(calls, 1);
      all.meet();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<HANDLE>(events.begin(), events.end()).size(), static_cast<std::size_t>(kThreads));
}

TEST_F(OwnLists, ManyThreadsMayBeTheFirstAtOnce) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 20; ++round) {
    OSTriggerTLS::tls_key = 0;  // as in a new process
    Rendezvous all(kThreads);
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
      threads.emplace_back([&all] {
        all.meet();
        OwnDispatch own;
        all.meet();
        const HANDLE event = OSTrigger::TLSGetEvent();
        EXPECT_NE(event, 0);
        HandTrigger trigger(OS_TA_NONE);
        trigger.ArmAndFire();
        EXPECT_EQ(drain(event), 1);
        EXPECT_EQ(triggers_on(OwnDispatch::tls().OS_READY_LIST), Triggers{&trigger});
      });
    }
    for (std::thread& thread : threads) thread.join();
    pthread_key_delete(OSTriggerTLS::tls_key);
  }
  OSTriggerTLS::tls_key = 0;
}

TEST_F(OwnLists, AKeyOfZeroMeansNoKeySoAnotherIsTaken) {
  OSTriggerTLS::tls_key = 0;
  std::atomic_ref<bool>(next_key_is_zero).store(true);
  on_thread([] {
    OwnDispatch own;
    EXPECT_FALSE(take(next_key_is_zero)) << "no key was created";
    EXPECT_NE(OSTriggerTLS::tls_key, 0u);
    EXPECT_NE(OSTrigger::TLSGetEvent(), 0);
    HandTrigger trigger(OS_TA_NONE);
    EXPECT_EQ(trigger.tls, &OwnDispatch::tls());
  });
  take(next_key_is_zero);
}

TEST_F(OwnLists, TriggersOnAListThatIsTornDownStayUsable) {
  struct Four {
    std::unique_ptr<HandTrigger> inactive = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> waiting = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> ready = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> ready_too = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> actioned = std::make_unique<HandTrigger>();
  };
  std::atomic<int> calls{0};
  for (const bool another_list_follows : {false, true}) {
    for (const char* what : {"delete", "cancel", "fire", "clear and fire"}) {
      const std::string operation = what;
      SCOPED_TRACE(operation + (another_list_follows ? ", after another thread made a list" : ""));
      std::unique_ptr<Four> four;
      on_thread([&] {
        OwnDispatch own;
        four = std::make_unique<Four>();
        four->waiting->Arm();
        four->actioned->ArmAndFire();
        OSTrigger::TLSPoll();
        four->ready->ArmAndFire();
        four->ready_too->ArmAndFire();
      });
      EXPECT_EQ(four->ready->State(), OS_T_READY) << "triggers on the list are left as they are";
      EXPECT_EQ(four->ready_too->State(), OS_T_READY);
      EXPECT_EQ(OS_READY_LIST.Size(), 0) << "and moved nowhere";

      const auto use_them = [&] {
        if (operation == "delete") {
          four->ready.reset();
          four->waiting.reset();
        }
        const Triggers all = {four->inactive.get(), four->waiting.get(), four->ready.get(),
                              four->ready_too.get(), four->actioned.get()};
        for (OSTrigger* trigger : all) {
          if (trigger == nullptr) continue;
          if (operation == "cancel") {
            trigger->Cancel();
            EXPECT_EQ(trigger->State(), OS_T_INACTIVE);
          }
          if (operation == "fire") trigger->Fire();
          if (operation == "clear and fire") {
            trigger->Clear();
            trigger->Fire();
            EXPECT_EQ(trigger->State(), OS_T_READY);
          }
        }
        if (operation == "fire") {
          EXPECT_EQ(four->waiting->State(), OS_T_READY);
        }
        os_check_triggers();
        four.reset();
      };
      if (another_list_follows) {
        // The new list may well stand where the old one stood.
        on_thread([&] {
          OwnDispatch own;
          HandTrigger neighbour(OS_TA_NONE);
          neighbour.ArmAndFire();
          use_them();
          EXPECT_TRUE(is_on(OwnDispatch::tls().OS_READY_LIST, &neighbour));
          EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 1);
        });
      } else {
        use_them();
      }
      EXPECT_EQ(OS_READY_LIST.Size(), 0);
      EXPECT_TRUE(ListIsSound(OS_READY_LIST));
      EXPECT_TRUE(OS_READY_LIST.IsEmpty());
    }
  }
}

TEST_F(OwnLists, AListMayBeTornDownWhileOtherThreadsFireItsTriggers) {
  for (int round = 0; round < 200; ++round) {
    std::unique_ptr<HandTrigger> trigger;
    Gate made;
    std::atomic<bool> stop{false};
    std::thread owner([&] {
      OwnDispatch own;
      trigger = std::make_unique<HandTrigger>();
      made.open();
      for (int i = 0; i < 5; ++i) OSTrigger::TLSPoll();
    });
    ASSERT_TRUE(made.wait());
    std::thread other([&] {
      while (!stop) {
        trigger->Clear();
        trigger->Fire();
      }
    });
    owner.join();
    stop = true;
    other.join();
    trigger.reset();
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
  }
  EXPECT_TRUE(ListIsSound(OS_READY_LIST));
}

// ---- Dispatch against other threads ----------------------------------------------------------------------------------

/// A thread that makes one pass after the other and counts them, over the global list or over its own.
class Dispatcher {
 public:
  /// `on_start` runs on the thread before the first pass, inside its own list if it has one.
  explicit Dispatcher(bool own_list, const Script& on_start = nullptr) {
    Gate started;
    thread_ = std::thread([this, own_list, &on_start, &started] {
      std::unique_ptr<OwnDispatch> own(own_list ? new OwnDispatch : nullptr);
      if (on_start) on_start();
      started.open();
      while (!stop_) {
        if (own_list) {
          OSTrigger::TLSPoll();
        } else {
          os_check_triggers();
        }
        ++passes_;
        std::this_thread::yield();
      }
    });
    EXPECT_TRUE(started.wait());
  }
  ~Dispatcher() {
    stop_ = true;
    thread_.join();
  }

  /// Waits until a pass has ended that began after this call; everything that a pass had begun has then ended.
  [[nodiscard]] bool full_pass() {
    const int target = passes_ + 2;
    return wait_for(target);
  }

 private:
  bool wait_for(int target) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (passes_ < target) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

  std::atomic<bool> stop_{false};
  std::atomic<int> passes_{0};
  std::thread thread_;
};

class DispatchRaces : public ReadyPass {
 protected:
  static constexpr int kRounds = 1500;

  static void short_while(std::mt19937& random) {
    for (int spin = pick(random, 0, 3) * 40; spin > 0; --spin) {
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Lists, DispatchRaces, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& each) {
                           return each.param ? std::string("OwnList") : std::string("GlobalList");
                         });

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
  EXPECT_TRUE(wait_until([&] { return trigger->State() == OS_T_ACTIONED; }));
  EXPECT_TRUE(dispatcher.full_pass());
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
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  std::vector<Slot> slots(kRounds);
  Dispatcher dispatcher(own_list(), [&] {
    for (Slot& slot : slots) {
      triggers.push_back(std::make_unique<HandTrigger>());
      triggers.back()->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
    }
  });
  for (std::size_t i = 0; i < slots.size(); ++i) {
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
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  std::unique_ptr<HandTrigger> trigger;
  Slot slot;
  Dispatcher dispatcher(own_list(), [&trigger] { trigger = std::make_unique<HandTrigger>(); });
  trigger->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
  int not_inactive = 0;
  int more_than_once = 0;
  for (int round = 0; round < kRounds; ++round) {
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
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  std::unique_ptr<HandTrigger> trigger;
  Slot slot;
  Dispatcher dispatcher(own_list(), [&trigger] { trigger = std::make_unique<HandTrigger>(); });
  trigger->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
  int wrong = 0;
  for (int round = 0; round < kRounds; ++round) {
    const int calls = slot.calls;
    int fires = 0;
    for (int arming = pick(random, 1, 3); arming > 0; --arming) {
      trigger->Clear();
      trigger->Fire();
      ++fires;
      short_while(random);
    }
    ASSERT_TRUE(wait_until([&] { return trigger->State() == OS_T_ACTIONED; }, kPatienceMs));
    ASSERT_TRUE(dispatcher.full_pass());
    const int ran = slot.calls - calls;
    if (ran < 1 || ran > fires) ++wrong;
  }
  EXPECT_EQ(wrong, 0);
  trigger.reset();
}

TEST_P(DispatchRaces, TriggersThatCannotBeActionedComeAndGoDuringPasses) {
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
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

TEST_F(OwnLists, TwoThreadsMayDispatchTheGlobalListAtOnce) {
  constexpr int kTriggers = 50;
  constexpr int kRounds = 100;
  std::vector<Slot> slots(kTriggers);
  std::vector<std::unique_ptr<HandTrigger>> triggers;
  for (Slot& slot : slots) {
    triggers.push_back(std::make_unique<HandTrigger>());
    triggers.back()->SetCallback(&Slot::call, as_obj(&slot), nullptr, 0);
  }
  {
    Dispatcher one(false);
    Dispatcher two(false);
    for (int round = 1; round <= kRounds; ++round) {
      for (auto& trigger : triggers) trigger->ArmAndFire();
      ASSERT_TRUE(wait_until(
          [&] {
            return std::all_of(slots.begin(), slots.end(),
                               [round](const Slot& s) { return s.calls >= round; });
          },
          kPatienceMs));
    }
  }
  for (const Slot& slot : slots) EXPECT_EQ(slot.calls, kRounds);
}

TEST_F(OwnLists, PollTriggersMayBeDeletedAndMadeDuringPasses) {
  Dispatcher dispatcher(false);
  std::atomic<int> asked{0};
  PollScript script = [&asked](OSTrigger*) -> BOOL {
    ++asked;
    return FALSE;
  };
  OSPollTrigger steady(run_poll_script, as_obj(&script), nullptr, 0);
  for (int i = 0; i < 2000; ++i) {
    OSPollTrigger passing(run_poll_script, as_obj(&script), nullptr, 0);
    OSTimerTrigger timer(1000000, 0);
  }
  const int before = asked;
  EXPECT_TRUE(dispatcher.full_pass());
  EXPECT_GT(asked, before);
}

// ---- With the trigger task -------------------------------------------------------------------------------------------

class RunningDispatch : public DispatchTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    Start();
  }
};

TEST_F(RunningDispatch, CallbacksRunOnTheTriggerTask) {
  Gate ran;
  OSTask* runner = nullptr;
  pthread_t thread = 0;
  Script callback = [&] {
    runner = OSTask::GetCurrentTask();
    thread = pthread_self();
    ran.open();
  };
  HandTrigger trigger;
  set_script(trigger, callback);
  trigger.ArmAndFire();
  ASSERT_TRUE(ran.wait());
  EXPECT_EQ(runner, OS_TRIG_TASK);
  EXPECT_EQ(thread, OS_TRIG_TASK->thread_id);
}

TEST_F(RunningDispatch, ATimerExpiresByItself) {
  Gate ran;
  Script callback = [&ran] { ran.open(); };
  const auto begin = std::chrono::steady_clock::now();
  OSTimerTrigger timer(100, 0);
  set_script(timer, callback);
  ASSERT_TRUE(ran.wait());
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, std::chrono::milliseconds(98));  // the tick and this clock may part by a millisecond
  EXPECT_EQ(timer.fired, 1);
  EXPECT_EQ(timer.reason, 4);
}

TEST_F(RunningDispatch, APeriodicTimerKeepsItsPace) {
  Gate ran;
  bool stopped = false;
  ULONG start = 0;
  std::unique_ptr<OSTimerTrigger> timer;
  Script callback = [&] {
    {
      TriggerSection section;
      if (!stopped) timer->Clear();
    }
    ran.open();
  };
  {
    TriggerSection section;  // the callback must not run before `timer` is set
    timer = std::make_unique<OSTimerTrigger>(20, 0);
    set_script(*timer, callback);
    start = timer->start_time;
  }
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(ran.wait());
  {
    TriggerSection section;
    EXPECT_EQ((timer->start_time - start) % 20, 0u) << "periods are measured from the scheduled expiry";
    stopped = true;
    timer->Cancel();
  }
  // A callback that had begun has ended when a later one runs.
  HandTrigger last;
  Gate passed;
  Script on_last = [&passed] { passed.open(); };
  set_script(last, on_last);
  last.ArmAndFire();
  ASSERT_TRUE(passed.wait());
  timer.reset();
}

TEST_F(RunningDispatch, ManyTimersExpireAllAndInOrder) {
  constexpr int kTimers = 50;
  std::vector<int> order;
  Gate ran;
  struct Each {
    int index = 0;
    std::vector<int>* order = nullptr;
    Gate* ran = nullptr;
    static void call(OSObj* obj, ADDR, ULONG) {
      Each& each = from_obj<Each>(obj);
      each.order->push_back(each.index);
      each.ran->open();
    }
  };
  std::vector<Each> each(kTimers);
  std::vector<std::unique_ptr<OSTimerTrigger>> timers(kTimers);
  std::vector<int> listed;
  {
    TriggerSection section;
    for (int i = kTimers - 1; i >= 0; --i) {
      const auto at = static_cast<std::size_t>(i);
      each[at] = {i, &order, &ran};
      timers[at] = std::make_unique<OSTimerTrigger>(static_cast<ULONG>(20 + 7 * (i / 2)), 0);
      timers[at]->SetCallback(&Each::call, as_obj(&each[at]), nullptr, 0);
    }
    for (OSTrigger* trigger : triggers_on(OS_TIMER_LIST))
      listed.push_back(from_obj<Each>(trigger->obj).index);
  }
  for (int i = 0; i < kTimers; ++i) ASSERT_TRUE(ran.wait());
  EXPECT_EQ(order, listed);
  for (const auto& timer : timers) EXPECT_EQ(timer->fired, 1);
}

/// Snoozes until it is woken, and notes the codes. Stops within a slice of its wait.
class Sleeper : public OSTask {
 public:
  Sleeper() : OSTask(3, 0, nullptr, nullptr) {
    thread_event = CreateEvent(nullptr, false, false, nullptr);
    LeaveCriticalSection(&cs);
  }
  void Main() override {
    while (state_of(*this) != OS_ST_KILL) {
      Snooze();
      snoozed.open();
      while (WaitForSingleObject(thread_event, 20) != 0) {
        if (state_of(*this) == OS_ST_KILL) return;
      }
      code = WakeCode();
      woken.open();
    }
  }
  Gate snoozed;
  Gate woken;
  std::atomic<int> code{0};
};

TEST_F(RunningDispatch, ASnoozingTaskIsWokenWithTheReasonOfEachKind) {
  class Item : public OSLinkListObj {
   public:
    void Free() override {}
  };
  Owned<Sleeper> task;
  OSQueue queue;
  Item item;

  ASSERT_TRUE(task->snoozed.wait());
  HandTrigger fired(OS_TA_WAKE);
  fired.SetTask(task.get());
  fired.ArmAndFire();
  ASSERT_TRUE(task->woken.wait());
  EXPECT_EQ(task->code, 1);

  ASSERT_TRUE(task->snoozed.wait());
  std::atomic<BOOL> holds{FALSE};
  PollScript script = [&holds](OSTrigger*) -> BOOL { return holds; };
  OSPollTrigger poll(run_poll_script, as_obj(&script), nullptr, 0);
  poll.SetTask(task.get());
  poll.Cancel();  // so that nobody asks it between the next two lines
  holds = TRUE;
  poll.Clear();
  ASSERT_TRUE(task->woken.wait());
  EXPECT_EQ(task->code, 2);

  ASSERT_TRUE(task->snoozed.wait());
  OSQTrigger on_queue(&queue, 1, 0, 0);
  on_queue.SetTask(task.get());
  queue.Append(&item);
  ASSERT_TRUE(task->woken.wait());
  EXPECT_EQ(task->code, 3);

  ASSERT_TRUE(task->snoozed.wait());
  OSTimerTrigger timer(30, 1);
  timer.SetTask(task.get());
  timer.Clear();
  ASSERT_TRUE(task->woken.wait());
  EXPECT_EQ(task->code, 4);
  ASSERT_TRUE(task->snoozed.wait());
  queue.Flush();
}

TEST_F(RunningDispatch, AWakeTriggerWaitsForItsTaskToSnoozeAndTheNextKickDeliversIt) {
  Owned<> task;
  HandTrigger wake(OS_TA_WAKE);
  wake.SetTask(task.get());
  wake.ArmAndFire();
  const auto kick = [] {
    Gate ran;
    Script callback = [&ran] { ran.open(); };
    HandTrigger trigger;
    set_script(trigger, callback);
    trigger.ArmAndFire();
    EXPECT_TRUE(ran.wait());
  };
  kick();
  kick();
  EXPECT_EQ(wake.State(), OS_T_READY);
  task->Snooze();
  kick();
  EXPECT_TRUE(wait_until([&] { return wake.State() == OS_T_ACTIONED; }));
  EXPECT_EQ(task->WakeCode(), 1);
}

TEST_F(RunningDispatch, ArmingAPollTriggerHasItAskedPromptly) {
  for (int i = 0; i < 20; ++i) {
    Gate asked;
    PollScript script = [&asked](OSTrigger*) -> BOOL {
      asked.open();
      return FALSE;
    };
    OSPollTrigger poll(run_poll_script, as_obj(&script), nullptr, 0);
    EXPECT_TRUE(asked.wait());
    poll.Cancel();
  }
}

TEST_F(RunningDispatch, CallbacksMayDeleteTheirTriggersOnTheTriggerTask) {
  constexpr int kTriggers = 200;
  Gate ran;
  struct Each {
    HandTrigger* trigger;
    Gate* ran;
    static void call(OSObj* obj, ADDR, ULONG) {
      Each& each = from_obj<Each>(obj);
      delete each.trigger;
      each.ran->open();
    }
  };
  std::vector<Each> each(kTriggers);
  for (Each& one : each) {
    one.trigger = new HandTrigger;
    one.ran = &ran;
    one.trigger->SetCallback(&Each::call, as_obj(&one), nullptr, 0);
    one.trigger->ArmAndFire();
  }
  for (int i = 0; i < kTriggers; ++i) ASSERT_TRUE(ran.wait());
  EXPECT_TRUE(wait_until([] {
    TriggerSection section;
    return OS_READY_LIST.Size() == 0;
  }));
}

// ---- Notifications -----------------------------------------------------------------------------------------------------

class Notifications : public DispatchTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ASSERT_TRUE(OS_NOTIFY_LIST.IsEmpty());
  }

  struct Entry {
    std::string* log = nullptr;
    char letter = '?';
    OSCallback* callback = nullptr;
    OSCallback* to_append = nullptr;
    bool detached = false;
    ADDR addr = nullptr;
    ULONG value = 0;
    ULONG pool_during = 0;

    static void call(OSObj* obj, ADDR address, ULONG number) {
      Entry& entry = from_obj<Entry>(obj);
      *entry.log += entry.letter;
      OSCallback* self = entry.callback;
      entry.detached = self->next == self && self->previous == self && self->OSLink::object == nullptr;
      entry.addr = address;
      entry.value = number;
      entry.pool_during = OSCallback::callback_pool_size;
      if (entry.to_append != nullptr) OS_NOTIFY_LIST.Append(entry.to_append, entry.to_append);
    }
  };

  OSCallback* make(Entry& entry, char letter, ADDR addr = nullptr, ULONG value = 0) {
    entry.log = &log;
    entry.letter = letter;
    entry.callback = OSCallback::Alloc(nullptr, &Entry::call, as_obj(&entry), addr, value);
    return entry.callback;
  }
  static void append(OSCallback* callback) { OS_NOTIFY_LIST.Append(callback, callback); }

  std::string log;
};

TEST_F(Notifications, NothingPendingIsNothingDone) {
  os_notify_now();
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());
}

TEST_F(Notifications, PendingOnesRunInOrderWithTheirArgumentsAndGoBackToThePool) {
  const ULONG pool = OSCallback::callback_pool_size;
  Entry a;
  Entry b;
  Entry c;
  int address = 0;
  append(make(a, 'a', &address, 0xFFFFFFFFu));
  append(make(b, 'b', nullptr, 7));
  append(make(c, 'c'));
  EXPECT_EQ(OSCallback::callback_pool_size, pool - 3);

  os_notify_now();

  EXPECT_EQ(log, "abc");
  EXPECT_EQ(a.addr, &address);
  EXPECT_EQ(a.value, 0xFFFFFFFFu);
  EXPECT_EQ(b.addr, nullptr);
  EXPECT_EQ(b.value, 7u);
  for (const Entry* entry : {&a, &b, &c}) {
    EXPECT_TRUE(entry->detached) << "a notification has left the list before it runs";
  }
  EXPECT_EQ(a.pool_during, pool - 3) << "a notification is freed after it has run";
  EXPECT_EQ(c.pool_during, pool - 1);
  EXPECT_EQ(OSCallback::callback_pool_size, pool);
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());
  os_notify_now();
  EXPECT_EQ(log, "abc");
}

TEST_F(Notifications, OneAppendedByANotificationRunsInTheSameCall) {
  const ULONG pool = OSCallback::callback_pool_size;
  Entry a;
  Entry b;
  Entry c;
  append(make(a, 'a'));
  append(make(b, 'b'));
  a.to_append = make(c, 'c');
  os_notify_now();
  EXPECT_EQ(log, "abc");
  EXPECT_EQ(OSCallback::callback_pool_size, pool);
}

TEST_F(Notifications, ARecordForgetsTheNotificationThatRan) {
  OSCallbackRecord record;
  Entry a;
  a.log = &log;
  a.letter = 'a';
  a.callback = OSCallback::Alloc(&record, &Entry::call, as_obj(&a), nullptr, 0);
  append(a.callback);
  EXPECT_EQ(record.Size(), 1);
  os_notify_now();
  EXPECT_EQ(record.Size(), 0);
}

}  // namespace
