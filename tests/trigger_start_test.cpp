// Start and stop of the trigger system: its section, its events, the trigger task and the timer thread.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "kernel/trigger.h"
#include "support/failing_new.h"
#include "support/trigger_fixtures.h"
#include "support/vtable_slot.h"
#include "support/watched_thread.h"
#include "trigger_probes.h"

using namespace oskernel_test;

// ---- Threads may be refused ------------------------------------------------------------------------------------

namespace {
/// Which of the next creations of a thread are refused: bit 0 the first one, and so on.
std::atomic<unsigned> refused_threads{0};
}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*entry)(void*),
                                                                     void* argument) noexcept {
  const unsigned refused = refused_threads;
  refused_threads = refused / 2;
  if (refused % 2 != 0) return EAGAIN;
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return next(thread, attributes, entry, argument);
}

namespace {

static_assert(std::is_same_v<decltype(os_trig_event), HANDLE>);
static_assert(std::is_same_v<decltype(os_trig_timer_event), HANDLE>);
static_assert(std::is_same_v<decltype(os_trig_timer_thread), pthread_t>);
static_assert(std::is_same_v<decltype(os_trig_timer_done), bool>);
static_assert(std::is_same_v<decltype(&OSTriggerTimerThread), void* (*)(void*)>);
static_assert(std::is_base_of_v<OSTask, OSTriggerTask>);
static_assert(std::is_same_v<decltype(OSTriggerTask::done), bool>);

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

class StartAndStop : public TriggerTest {
 protected:
  /// Without a trigger task the program dispatches for itself.
  static void expect_that_a_pass_runs_callbacks() {
    std::atomic<int> calls{0};
    HandTrigger trigger;
    trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    trigger.ArmAndFire();
    EXPECT_EQ(calls, 0);
    os_check_triggers();
    EXPECT_EQ(calls, 1);
  }
};

TEST_F(StartAndStop, BeforeTheFirstStartThereIsNothing) {
  IN_FRESH_PROCESS({
    EXPECT_EQ(os_trig_event, 0);
    EXPECT_EQ(os_trig_timer_event, 0);
    EXPECT_EQ(os_trig_timer_thread, 0u);
    EXPECT_FALSE(os_trig_timer_done);
    EXPECT_EQ(OS_TRIG_TASK, nullptr);
    EXPECT_EQ(OSTriggerTLS::tls_key, 0u);
    EXPECT_EQ(OS_CRITICAL_TRIGGER.sem, nullptr);
    EXPECT_EQ(OS_TIMER_LIST.Size() + OS_POLL_LIST.Size() + OS_READY_LIST.Size(), 0);
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    OSTrigger::TLSPoll();
    OSTrigger::TLSUninitialise();
  });
}

TEST_F(StartAndStop, TheFirstPassOfAProcessIsAPassLikeAnyOther) {
  IN_FRESH_PROCESS({
    StartQuiet();
    OSPollTrigger poll(always, nullptr, nullptr, 0);
    EXPECT_EQ(poll.tls, nullptr) << "no thread has asked for a list of its own yet";
    os_check_triggers();
    EXPECT_EQ(poll.State(), OS_T_READY);
    EXPECT_EQ(poll.fired, 1);
    Stop();  // joins no thread that does not exist
  });
}

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
  EXPECT_FALSE(std::atomic_ref<bool>(os_trig_timer_done).load());
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
  // The C library may hand out the stack of a thread that has ended, up to four times as large as it is asked for.
  EXPECT_LE(bytes, 4 * 0x100000u);
}

TEST_F(StartAndStop, WithoutATriggerStackThereAreNoThreads) {
  StartQuiet();
  EXPECT_EQ(OS_TRIG_TASK, nullptr);
  EXPECT_NE(os_trig_event, 0);
  EXPECT_NE(os_trig_timer_event, 0);
  EXPECT_TRUE(threads_come_to(0));
  expect_that_a_pass_runs_callbacks();
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
    EXPECT_TRUE(os_trig_timer_done);
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

TEST_F(StartAndStop, ATriggerTaskThatIsToldToBeDoneEndsAndGoesByItself) {
  StartQuiet();
  auto* task = new OSTriggerTask;
  const pthread_t thread = task->thread_id;
  EXPECT_EQ(OSTask::FindTask(thread), task);
  std::atomic_ref<bool>(task->done).store(true);
  SetEvent(os_trig_event);
  EXPECT_TRUE(wait_until([thread] { return OSTask::FindTask(thread) == nullptr; }, kPatienceMs));
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(StartAndStop, WithoutATimerThreadTheKernelStillStartsAndStops) {
  refused_threads = 0b10;
  Start();
  EXPECT_EQ(refused_threads, 0u) << "there was no second thread";
  EXPECT_NE(OS_TRIG_TASK, nullptr);
  EXPECT_TRUE(threads_come_to(1));
  EXPECT_EQ(console.text(), "") << "the trigger system reports no error";
  {
    Gate ran;
    Script callback = [&ran] { ran.open(); };
    HandTrigger trigger;
    set_script(trigger, callback);
    trigger.ArmAndFire();
    EXPECT_TRUE(ran.wait());
  }
  Stop();
  EXPECT_TRUE(threads_come_to(0));
  Start();
  EXPECT_TRUE(threads_come_to(2));
}

TEST_F(StartAndStop, WithoutAThreadForTheTriggerTaskTheKernelStillStartsAndStops) {
  refused_threads = 0b11;  // it is tried again with the default stack
  Start();
  EXPECT_EQ(refused_threads, 0u);
  EXPECT_TRUE(threads_come_to(1));
  EXPECT_EQ(console.count("OSTask::OSTask Thread Create Failed"), 1) << "tasks do";
  expect_that_a_pass_runs_callbacks();
  Stop();
  EXPECT_EQ(OS_TRIG_TASK, nullptr);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(StartAndStop, WithoutMemoryForTheTriggerTaskTheKernelStillStartsAndStops) {
  StartQuiet();
  OSTrigger::UnInitialise();
  cfg.trigger_stack = 8000;
  FailingNew::fail_at_least(sizeof(OSTriggerTask));
  OSTrigger::Initialise();
  FailingNew::reset();
  EXPECT_EQ(OS_TRIG_TASK, nullptr);
  EXPECT_TRUE(threads_come_to(1)) << "the timer thread";
  expect_that_a_pass_runs_callbacks();
  Stop();
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(StartAndStop, StopWithoutAnotherStartFindsNothingToEnd) {
  for (const bool quiet : {false, true}) {
    if (quiet) cfg.trigger_stack = 0;
    Start();
    const HANDLE event = os_trig_event;
    const HANDLE timer_event = os_trig_timer_event;
    OSTrigger::UnInitialise();
    EXPECT_EQ(KernelEvent::Find(event), nullptr);
    EXPECT_EQ(KernelEvent::Find(timer_event), nullptr);
    OSTrigger::UnInitialise();
    EXPECT_EQ(OS_TRIG_TASK, nullptr);
    EXPECT_EQ(os_trig_event, 0);
    Stop();
  }
}

TEST_F(StartAndStop, AThreadThatWaitsForTriggersIsSignalledBeforeTheEventGoes) {
  StartQuiet();
  std::atomic<DWORD> result{99};
  {
    WatchedThread waiter([&result] { result = WaitForSingleObject(os_trig_event, kForEver); });
    ASSERT_TRUE(waiter.blocked());
    OSTrigger::UnInitialise();
  }
  EXPECT_EQ(result, 0u);
}

TEST_F(StartAndStop, StopWaitsForTheCallbackThatRuns) {
  Start();
  Gate begun;
  std::atomic<bool> ended{false};
  Script callback = [&] {
    bool& stopping = OS_TRIG_TASK->done;
    begun.open();
    EXPECT_TRUE(wait_until([&] { return std::atomic_ref<bool>(stopping).load(); }, kPatienceMs));
    for (int i = 0; i < 20; ++i) std::this_thread::yield();  // time for a stop that does not wait
    ended = true;
  };
  HandTrigger trigger;
  set_script(trigger, callback);
  trigger.ArmAndFire();
  ASSERT_TRUE(begun.wait());
  Stop();
  EXPECT_TRUE(ended);
}

TEST_F(StartAndStop, StopWaitsForWhatIsReadyOnceHoweverOftenItBecomesReadyAgain) {
  Start();
  Gate begun;
  HandTrigger endless, behind;
  endless.condition = true;
  int turns = 0;
  Script again = [&] {
    if (++turns == 1) {
      bool& stopping = OS_TRIG_TASK->done;
      begun.open();
      EXPECT_TRUE(wait_until([&] { return std::atomic_ref<bool>(stopping).load(); }, kPatienceMs));
    }
    if (turns < 1000) endless.Clear();  // its condition holds: ready at once
  };
  set_script(endless, again);
  std::atomic<int> calls{0};
  behind.SetCallback(count_call, as_obj(&calls), nullptr, 0);
  endless.ArmAndFire();
  ASSERT_TRUE(begun.wait());
  behind.ArmAndFire();
  Stop();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(turns, 2);
  endless.Cancel();
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

}  // namespace
