// Deferred deletion of tasks.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

static_assert(!std::is_polymorphic_v<OSAxeTask>);

/// Who was deleted, in order, and by whom.
class Record {
 public:
  void add(int number, OSTask* by) {
    const std::lock_guard<std::mutex> lock(mutex_);
    numbers_.push_back(number);
    deleters_.push_back(by);
  }
  std::vector<int> numbers() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return numbers_;
  }
  std::vector<OSTask*> deleters() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return deleters_;
  }
  int size() { return static_cast<int>(numbers().size()); }

 private:
  std::mutex mutex_;
  std::vector<int> numbers_;
  std::vector<OSTask*> deleters_;
};

/// Runs until it is told to end; detached, so that only the axe deletes it.
class Condemned : public OSTask {
 public:
  Condemned(Record& record, int number, Script at_the_end = nullptr)
      : OSTask(3, 0, nullptr, nullptr), record_(record), number_(number), at_the_end_(std::move(at_the_end)) {
    _LockDelete();
    LeaveCriticalSection(&cs);
  }
  ~Condemned() override {
    if (at_the_end_) at_the_end_();
    record_.add(number_, OSTask::GetCurrentTask());
  }
  void Main() override {
    while (!told_to_end_ && state_of(*this) != OS_ST_KILL) Sleep(1);
    ended_.open();
  }
  /// Main has returned, so that the object may be deleted by anybody; its thread may still be there.
  void end() {
    told_to_end_ = true;
    EXPECT_TRUE(ended_.wait());
  }

 private:
  Record& record_;
  int number_;
  Script at_the_end_;
  std::atomic<bool> told_to_end_{false};
  Gate ended_;
};

/// Ends at once: its last words hand it over.
class Departing : public OSTask {
 public:
  Departing(OSAxeTask& axe, Record& record, int number)
      : OSTask(3, 0, nullptr, nullptr), axe_(axe), record_(record), number_(number) {
    LeaveCriticalSection(&cs);
  }
  ~Departing() override { record_.add(number_, OSTask::GetCurrentTask()); }
  void Main() override {
    _LockDelete();
    axe_.Axe(this);
  }

 private:
  OSAxeTask& axe_;
  Record& record_;
  int number_;
};

class AxeTask : public KernelTest {
 protected:
  void TearDown() override {
    KernelTest::TearDown();
    EXPECT_EQ(console.fatals(), std::vector<std::string>{});
  }
};

TEST_F(AxeTask, ANewAxeTaskWaitsForItsQueue) {
  StartQuiet();
  OSAxeTask axe;
  ASSERT_NE(axe.axeq, nullptr);
  EXPECT_EQ(axe.axeq->Size(), 0);
  EXPECT_EQ(axe.axeq->delete_contents_on_destroy, 0);
  ASSERT_NE(axe.trig, nullptr);
  auto* trigger = dynamic_cast<OSQTrigger*>(axe.trig);
  ASSERT_NE(trigger, nullptr);
  EXPECT_EQ(trigger->q, axe.axeq);
  EXPECT_EQ(trigger->maxqlen, 1);
  EXPECT_EQ(trigger->minqlen, 0);
  EXPECT_EQ(trigger->duration, 0u);
  EXPECT_EQ(trigger->State(), OS_T_WAIT);
  EXPECT_EQ(trigger->action, OS_TA_FUNC);
  EXPECT_EQ(trigger->callback, &OSAxeTask::Trigger);
  EXPECT_EQ(trigger->obj, as_obj(&axe));
  EXPECT_EQ(trigger->addr, nullptr);
  EXPECT_EQ(trigger->value, 0u);
  EXPECT_EQ(triggers_on(*axe.axeq->TriggerList()), Triggers{trigger});
  EXPECT_LT(static_cast<void*>(&axe.axeq), static_cast<void*>(&axe.trig));
}

TEST_F(AxeTask, TasksAreDeletedInOrderByTheNextDispatchAndTheTriggerIsArmedAgain) {
  StartQuiet();
  Record record;
  OSAxeTask axe;
  for (int round = 0; round < 3; ++round) {
    std::vector<pthread_t> threads;
    for (int i = 0; i < 3; ++i) {
      auto* task = new Condemned(record, 3 * round + i);
      threads.push_back(task->thread_id);
      axe.Axe(task);
    }
    EXPECT_EQ(axe.axeq->Size(), 3);
    EXPECT_EQ(record.size(), 3 * round) << "Axe itself deletes nothing";
    EXPECT_EQ(axe.trig->State(), OS_T_READY);
    EXPECT_EQ(axe.trig->reason, 3);
    for (const pthread_t thread : threads) EXPECT_NE(OSTask::FindTask(thread), nullptr);
    for (OSLink* node : ring_nodes(*axe.axeq)) as<Condemned>(node->object)->end();

    os_check_triggers();

    std::vector<int> expected;
    for (int i = 0; i < 3 * (round + 1); ++i) expected.push_back(i);
    EXPECT_EQ(record.numbers(), expected);
    EXPECT_EQ(axe.axeq->Size(), 0);
    EXPECT_EQ(axe.trig->State(), OS_T_WAIT);
    EXPECT_EQ(triggers_on(*axe.axeq->TriggerList()), Triggers{axe.trig});
    EXPECT_TRUE(threads_come_to(0)) << "their threads have been joined";
  }
}

TEST_F(AxeTask, TheTriggerTaskDoesTheDeleting) {
  Start();
  Record record;
  {
    OSAxeTask axe;
    for (int i = 0; i < 5; ++i) new Departing(axe, record, i);
    EXPECT_TRUE(wait_until([&] { return record.size() == 5; }, kPatienceMs));
    for (OSTask* deleter : record.deleters()) EXPECT_EQ(deleter, OS_TRIG_TASK);
    let_callbacks_end();
    EXPECT_EQ(axe.trig->State(), OS_T_WAIT);
  }
}

TEST_F(AxeTask, AThreadWithAListOfItsOwnDeletesForTheAxeThatItMade) {
  Start();
  Record record;
  on_thread([&record] {
    const OwnDispatch list;
    OSAxeTask axe;
    for (int i = 0; i < 3; ++i) {
      auto* task = new Condemned(record, i);
      task->end();
      axe.Axe(task);
    }
    on_thread(let_callbacks_end);  // those of the trigger task
    EXPECT_EQ(record.size(), 0);
    OSTrigger::TLSPoll();
    EXPECT_EQ(record.numbers(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(axe.trig->State(), OS_T_WAIT);
  });
  for (OSTask* deleter : record.deleters()) EXPECT_EQ(deleter, nullptr) << "a thread that is no task";
}

TEST_F(AxeTask, ATaskThatWasKilledIsOnlyDeleted) {
  StartQuiet();
  Record record;
  OSAxeTask axe;
  auto* task = new Condemned(record, 1);
  task->Kill();
  axe.Axe(task);
  os_check_triggers();
  EXPECT_EQ(record.numbers(), std::vector<int>{1});
}

TEST_F(AxeTask, TheTriggerFunctionEmptiesTheQueueWhenItIsCalledByHand) {
  StartQuiet();
  Record record;
  OSAxeTask axe;
  OSAxeTask::Trigger(as_obj(&axe), &axe, 99);
  EXPECT_EQ(axe.trig->State(), OS_T_WAIT);
  auto* task = new Condemned(record, 1);
  task->end();
  axe.Axe(task);
  OSAxeTask::Trigger(as_obj(&axe), nullptr, 0);
  EXPECT_EQ(record.size(), 1);
  EXPECT_EQ(axe.trig->State(), OS_T_WAIT) << "cleared and found empty";
}

TEST_F(AxeTask, ATaskMayHandOverAnotherWhileItIsDeleted) {
  StartQuiet();
  Record record;
  OSAxeTask axe;
  auto* second = new Condemned(record, 2);
  second->end();
  auto* first = new Condemned(record, 1, [&] { axe.Axe(second); });
  first->end();
  axe.Axe(first);
  os_check_triggers();
  EXPECT_EQ(record.numbers(), (std::vector<int>{1, 2}));
  EXPECT_EQ(axe.trig->State(), OS_T_WAIT);
}

TEST_F(AxeTask, AnyThreadsMayHandTasksOverAtOnce) {
  Start();
  constexpr int kThreads = 4;
  constexpr int kTasks = 40;
  Record record;
  {
    OSAxeTask axe;
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
      threads.emplace_back([&, n] {
        for (int i = 0; i < kTasks; ++i) {
          if (i % 2 == 0) {
            new Departing(axe, record, n * kTasks + i);
          } else {
            auto* task = new Condemned(record, n * kTasks + i);
            task->end();
            axe.Axe(task);
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(wait_until([&] { return record.size() == kThreads * kTasks; }, kPatienceMs));
    let_callbacks_end();
    EXPECT_EQ(axe.trig->State(), OS_T_WAIT);
    TriggerSection section;
    EXPECT_EQ(axe.axeq->Size(), 0);
  }
  std::vector<int> numbers = record.numbers();
  std::sort(numbers.begin(), numbers.end());
  for (int i = 0; i < kThreads * kTasks; ++i) EXPECT_EQ(numbers[static_cast<std::size_t>(i)], i);
}

TEST_F(AxeTask, AnAxeTaskWithoutTriggerOrQueueCanBeDestroyed) {
  StartQuiet();
  {
    OSAxeTask axe;
    delete axe.trig;
    axe.trig = nullptr;
  }
  {
    OSAxeTask axe;
    delete axe.trig;
    axe.trig = nullptr;
    delete axe.axeq;
    axe.axeq = nullptr;
  }
}

TEST_F(AxeTask, DestroyingAnAxeTaskLeavesTheTasksOfItsQueueToTheirOwner) {
  StartQuiet();
  Record record;
  std::vector<Condemned*> tasks;
  {
    OSAxeTask axe;
    for (int i = 0; i < 3; ++i) {
      tasks.push_back(new Condemned(record, i));
      axe.Axe(tasks.back());
    }
  }
  EXPECT_EQ(record.size(), 0);
  os_check_triggers();
  EXPECT_EQ(record.size(), 0);
  for (Condemned* task : tasks) {
    task->Kill();
    delete task;
  }
  EXPECT_EQ(record.numbers(), (std::vector<int>{0, 1, 2}));
}

TEST_F(AxeTask, StopDeletesTheAxeTaskOfTheProgramAndLeavesThePointer) {
  for (const bool quiet : {true, false}) {
    cfg.trigger_stack = quiet ? 0 : 8000;
    Start();
    Record record;
    OS_AXE_TASK = new OSAxeTask;
    OSAxeTask* const axe = OS_AXE_TASK;
    Stop();
    EXPECT_EQ(OS_AXE_TASK, axe) << "the pointer is not reset";
    OS_AXE_TASK = nullptr;
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
  }
}

TEST_F(AxeTask, StopDeletesTasksThatStillWaitForTheAxeOnce) {
  for (int round = 0; round < 10; ++round) {
    cfg.trigger_stack = round % 2 == 0 ? 0 : 8000;
    Start();
    Record record;
    OS_AXE_TASK = new OSAxeTask;
    for (int i = 0; i < 4; ++i) {
      auto* task = new Condemned(record, i);
      task->end();
      OS_AXE_TASK->Axe(task);
    }
    Stop();
    OS_AXE_TASK = nullptr;
    std::vector<int> numbers = record.numbers();
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(numbers, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_TRUE(threads_come_to(0));
  }
}

}  // namespace
