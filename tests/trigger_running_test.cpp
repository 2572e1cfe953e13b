// Triggers in a running kernel: the trigger task and the timer thread do the work.

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <memory>
#include <vector>

#include "kernel/trigger.h"
#include "support/task_watch.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

class RunningDispatch : public TriggerTest {
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
  let_callbacks_end();
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

TEST_F(RunningDispatch, ASnoozingTaskIsWokenWithTheReasonOfEachKind) {
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
  let_callbacks_end();  // the pass that does it kicks, too
  let_callbacks_end();
  EXPECT_EQ(wake.State(), OS_T_READY);
  task->Snooze();
  let_callbacks_end();
  EXPECT_TRUE(wait_until([&] { return wake.State() == OS_T_ACTIONED; }, kPatienceMs));
  EXPECT_EQ(task->WakeCode(), 1);
}

TEST_F(RunningDispatch, ATriggerThatWasActiveBeforeItHadItsCallbackIsNotLost) {
  // A poll trigger is asked as soon as it is constructed, and its condition may hold already. Nothing else wakes
  // the trigger task after that.
  for (int i = 0; i < 20; ++i) {
    OSPollTrigger poll(always, nullptr, nullptr, 0);
    ASSERT_TRUE(wait_until([&poll] { return poll.State() == OS_T_READY; }, kPatienceMs));
    let_callbacks_end();  // the trigger task has come past it
    Gate ran;
    Script callback = [&ran] { ran.open(); };
    set_script(poll, callback);
    EXPECT_TRUE(ran.wait());
  }
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

}  // namespace
