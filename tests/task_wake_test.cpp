// Snoozing and waking.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kernel/task.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {
std::atomic<int> scheduled{0};
}

/// Takes the place of the library's, which does nothing.
void os_schedule() { ++scheduled; }

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

TEST_F(TaskTest, EveryStateTakesSnoozeAndWakeAsTheTableSays) {
  struct Row {
    OSTState from;
    const char* event;
    OSTState to;
    BOOL result;
    UWORD code;
    int signals;
  };
  const Row rows[] = {
      {OS_ST_OK, "Snooze", OS_ST_HOLD, -1, 5, 0},   {OS_ST_OK, "Wake", OS_ST_OK, FALSE, 5, 0},
      {OS_ST_HOLD, "Snooze", OS_ST_HOLD, -1, 5, 0}, {OS_ST_HOLD, "Wake", OS_ST_OK, TRUE, 77, 1},
      {OS_ST_KILL, "Snooze", OS_ST_KILL, -1, 5, 0}, {OS_ST_KILL, "Wake", OS_ST_KILL, FALSE, 5, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.from) + " " + row.event);
    Owned<> task;
    task->Snooze();
    EXPECT_TRUE(task->Wake(5));
    const HANDLE event = task->thread_event;
    EXPECT_EQ(drain(event), 1);
    if (row.from == OS_ST_HOLD) task->Snooze();
    if (row.from == OS_ST_KILL) task->Kill();
    ASSERT_EQ(state_of(*task), row.from);

    BOOL result = -1;
    if (std::string(row.event) == "Snooze") {
      task->Snooze();
    } else {
      result = task->Wake(77);
    }
    EXPECT_EQ(state_of(*task), row.to);
    EXPECT_EQ(result, row.result);
    EXPECT_EQ(task->WakeCode(), row.code);
    EXPECT_EQ(task->rcode, row.code);
    EXPECT_EQ(task->thread_event, event) << "one event serves all wakes";
    EXPECT_EQ(drain(event), row.signals);
  }
}

TEST_F(TaskTest, TheEventIsMadeByTheFirstWakeThatSucceeds) {
  Owned<> task;
  EXPECT_FALSE(task->Wake(1));
  EXPECT_EQ(task->thread_event, 0);
  EXPECT_EQ(task->WakeCode(), 0);
  task->Snooze();
  EXPECT_EQ(task->thread_event, 0);
  EXPECT_TRUE(task->Wake(65535));
  EXPECT_NE(task->thread_event, 0);
  EXPECT_EQ(task->WakeCode(), 65535);
}

TEST_F(TaskTest, WakesAccumulateOnTheEvent) {
  Owned<> task;
  for (UWORD code = 1; code <= 5; ++code) {
    task->Snooze();
    EXPECT_TRUE(task->Wake(code));
    EXPECT_EQ(task->WakeCode(), code);
  }
  EXPECT_EQ(drain(task->thread_event), 5);
}

TEST_F(TaskTest, OfTwoWakersAtOnceExactlyOneWakes) {
  constexpr int kRounds = 400;
  Owned<> task;
  Rendezvous start(2);
  Rendezvous done(2);
  std::atomic<int> other_woke{0};
  std::thread other([&] {
    for (int round = 0; round < kRounds; ++round) {
      start.meet();
      other_woke = task->Wake(2);
      done.meet();
    }
  });
  int wrong = 0;
  for (int round = 0; round < kRounds; ++round) {
    task->Snooze();
    start.meet();
    const BOOL woke = task->Wake(1);
    done.meet();
    const bool right = woke + other_woke == 1 && task->WakeCode() == (woke != 0 ? 1 : 2) &&
                       drain(task->thread_event) == 1 && state_of(*task) == OS_ST_OK;
    if (!right) ++wrong;
  }
  other.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(TaskTest, TwoFirstWakersMakeOneEvent) {
  for (int round = 0; round < 100; ++round) {
    const int events = KernelEvent::eventList.Size();
    Owned<> task;
    Rendezvous start(2);
    task->Snooze();
    std::thread other([&] {
      start.meet();
      task->Wake(2);
    });
    start.meet();
    task->Wake(1);
    other.join();
    EXPECT_EQ(drain(task->thread_event), 1);
    EXPECT_EQ(KernelEvent::eventList.Size(), events + 1) << "the one that came too late is closed";
  }
}

TEST_F(TaskTest, ATaskWaitsOnItsEventAndGetsEveryWake) {
  Owned<Sleeper> task;
  int expected = 0;
  for (UWORD code = 1; code <= 200; ++code) {
    ASSERT_TRUE(task->snoozed.wait());
    EXPECT_TRUE(task->Wake(code));
    expected += code;
  }
  ASSERT_TRUE(task->snoozed.wait());
  EXPECT_EQ(task->sum, expected);
  EXPECT_EQ(task->wakes, 200);
}

TEST_F(TaskTest, OnlyTheSnoozeOfTheLatestTaskSchedules) {
  Owned<GatedTask> earlier;
  earlier->let_go();
  ASSERT_TRUE(wait_until([&] { return earlier->main_runs.load(); }, kPatienceMs));
  Owned<GatedTask> latest;
  latest->let_go();
  ASSERT_TRUE(wait_until([&] { return latest->main_runs.load(); }, kPatienceMs));
  scheduled = 0;
  earlier->Snooze();
  EXPECT_EQ(scheduled, 0);
  latest->Snooze();
  EXPECT_EQ(scheduled, 1);
  latest->Snooze();
  EXPECT_EQ(scheduled, 2) << "whatever its state";
}

}  // namespace
