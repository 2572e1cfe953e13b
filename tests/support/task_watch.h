/// Tasks whose life a test follows from outside, the registry as it stands, and the trigger task's callbacks.
#ifndef OSKERNEL_TESTS_TASK_WATCH_H
#define OSKERNEL_TESTS_TASK_WATCH_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <utility>
#include <vector>

#include "kernel/task.h"
#include "kernel_fixture.h"
#include "ring_check.h"
#include "tests/trigger_probes.h"

namespace oskernel_test {

// ---- The registry -----------------------------------------------------------------------------------------

/// The tasks in the registry, in order. Checks every pointer and the count.
inline std::vector<OSTask*> registered() {
  EnterCriticalSection(&OS_CRITICAL_TASK);
  std::vector<OSTask*> tasks;
  EXPECT_TRUE(ListIsSound(*OSTask::all_tasks));
  for (OSLink* node : ring_nodes(*OSTask::all_tasks)) tasks.push_back(as<OSTask>(node->object));
  LeaveCriticalSection(&OS_CRITICAL_TASK);
  return tasks;
}

inline bool is_registered(const OSTask* task) {
  const std::vector<OSTask*> tasks = registered();
  return std::find(tasks.begin(), tasks.end(), task) != tasks.end();
}

/// A started kernel without trigger task and timer thread: every thread beside the test's own is one of its
/// tasks.
class TaskTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ASSERT_TRUE(registered().empty());
  }
};

// ---- Tasks that report ------------------------------------------------------------------------------------

/// How a task, or several of them, went: counters that outlive it.
struct Report {
  std::atomic<int> main_returned{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> destroyed_after_main{0};
  std::atomic<int> destroyed_on_own_thread{0};
  std::atomic<int> destroyed_stopped{0};  ///< in state KILL
  Gate runs;
  Gate gone;
};

/// Runs `body`, then returns from Main.
class ReportingTask : public OSTask {
 public:
  using Body = std::function<void(ReportingTask&)>;
  ReportingTask(Report& report, Body body)
      : OSTask(3, 0, nullptr, nullptr), report_(report), body_(std::move(body)) {
    LeaveCriticalSection(&cs);
  }
  ~ReportingTask() override {
    if (returned_) ++report_.destroyed_after_main;
    if (OSTask::GetCurrentTask() == this) ++report_.destroyed_on_own_thread;
    if (state_of(*this) == OS_ST_KILL) ++report_.destroyed_stopped;
    ++report_.destroyed;
    report_.gone.open();
  }
  void Main() override {
    report_.runs.open();
    body_(*this);
    returned_ = true;
    ++report_.main_returned;
  }

 private:
  Report& report_;
  Body body_;
  std::atomic<bool> returned_{false};
};

/// A body: nothing, until the task is stopped.
inline void until_stopped(OSTask& self) {
  while (state_of(self) != OS_ST_KILL) Sleep(1);
}

/// Leaves the start gate only when the test says so.
class GatedTask : public OSTask {
 public:
  GatedTask() : OSTask(3, 0, nullptr, nullptr) {}
  void let_go() { LeaveCriticalSection(&cs); }
  void Main() override {
    main_runs = true;
    while (state_of(*this) != OS_ST_KILL) Sleep(1);
  }
  std::atomic<bool> main_runs{false};
};

/// Snoozes until it is woken, again and again, and notes the codes. Stops within a slice of its wait.
class Sleeper : public OSTask {
 public:
  Sleeper() : OSTask(3, 0, nullptr, nullptr) {
    // Made beforehand: the first wake would make it too late to wait on.
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
      sum += code;
      ++wakes;
      woken.open();
    }
  }

  Gate snoozed;  ///< opened by each snooze
  Gate woken;    ///< opened by each wake, when its code has been noted
  std::atomic<int> code{0};
  std::atomic<int> sum{0};  ///< of all codes
  std::atomic<long> wakes{0};
};

// ---- The trigger task -------------------------------------------------------------------------------------

/// Returns when the trigger task has ended every callback that had begun before.
inline void let_callbacks_end() {
  Gate passed;
  Script callback = [&passed] { passed.open(); };
  HandTrigger marker;
  set_script(marker, callback);
  marker.ArmAndFire();
  EXPECT_TRUE(passed.wait());
}

}  // namespace oskernel_test

#endif
