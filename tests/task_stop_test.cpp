// The stop of the task system, with tasks of every kind still there.

#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

TEST_F(TaskTest, TheTaskSystemIsThereBetweenStartAndStop) {
  ASSERT_NE(OSTask::all_tasks, nullptr);
  ASSERT_NE(OSTaskTag::all_tags, nullptr);
  EXPECT_NE(OSTask::all_tasks->delete_contents_on_destroy, 0);
  EXPECT_NE(OSTaskTag::all_tags->delete_contents_on_destroy, 0);
  Stop();
  EXPECT_EQ(OSTask::all_tasks, nullptr);
  EXPECT_EQ(OSTaskTag::all_tags, nullptr);
  StartQuiet();
  EXPECT_NE(OSTask::all_tasks, nullptr);
  EXPECT_NE(OSTaskTag::all_tags, nullptr);
}

TEST_F(TaskTest, StopTakesTasksKeyTagsAndAxeDownInThisOrder) {
  // What each of them finds when it is deleted.
  struct Found {
    bool tasks;
    bool key;
    bool tags;
    static Found now() {
      return {OSTask::all_tasks != nullptr, threadTaskKey != 0, OSTaskTag::all_tags != nullptr};
    }
    bool operator==(const Found&) const = default;
  };
  class Task : public OSTask {
   public:
    explicit Task(std::vector<Found>& found) : OSTask(3, 0, nullptr, nullptr), found_(found) {
      LeaveCriticalSection(&cs);
    }
    ~Task() override { found_.push_back(Found::now()); }
    void Main() override { until_stopped(*this); }

   private:
    std::vector<Found>& found_;
  };
  class Tag : public OSTaskTag {
   public:
    explicit Tag(std::vector<Found>& found) : found_(found) {}
    ~Tag() override { found_.push_back(Found::now()); }

   private:
    std::vector<Found>& found_;
  };
  class AxeTrigger : public HandTrigger {
   public:
    explicit AxeTrigger(std::vector<Found>& found) : found_(found) {}
    ~AxeTrigger() override { found_.push_back(Found::now()); }

   private:
    std::vector<Found>& found_;
  };
  std::vector<Found> found;
  new Tag(found);
  new Task(found);
  OS_AXE_TASK = new OSAxeTask;
  delete OS_AXE_TASK->trig;
  OS_AXE_TASK->trig = new AxeTrigger(found);
  Stop();
  OS_AXE_TASK = nullptr;
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0], (Found{true, true, true})) << "the task comes first";
  EXPECT_EQ(found[1], (Found{false, false, true})) << "then the tag";
  EXPECT_EQ(found[2], (Found{false, false, false})) << "then the axe";
}

TEST_F(TaskTest, StopGivesTheThreadsKeyBack) {
  // There are only so many of them.
  cfg.link_qty = 20;
  cfg.callback_qty = 1;
  for (int& quantity : cfg.buf_qty) quantity = 1;
  for (int round = 0; round <= PTHREAD_KEYS_MAX; ++round) {
    Stop();
    EXPECT_EQ(threadTaskKey, pthread_key_t{0});
    StartQuiet();
    ASSERT_NE(threadTaskKey, pthread_key_t{0}) << "round " << round;
  }
}

TEST_F(TaskTest, AfterAStopNoTaskIsFound) {
  Stop();
  EXPECT_EQ(OSTask::GetCurrentTask(), nullptr);
  EXPECT_EQ(OSTask::FindTask(pthread_self()), nullptr);
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(TaskTest, StopStopsTasksBeforeTheirDerivedPartIsDestroyed) {
  // Main uses members and virtual operations of the derived class up to its last instruction.
  class Working : public OSTask {
   public:
    explicit Working(Report& report) : OSTask(3, 0, nullptr, nullptr), report_(report) {}
    ~Working() override {
      if (returned_) ++report_.destroyed_after_main;
      ++report_.destroyed;
      words_.clear();
    }
    virtual std::size_t Work() = 0;
    void Main() override {
      report_.runs.open();
      std::size_t sum = 0;
      while (state_of(*this) != OS_ST_KILL) {
        sum += Work() + words_.at(1).size();
        words_[1] += 'x';
        Sleep(1);
      }
      // What is left to do after the stop takes its time.
      for (int i = 0; i < 20; ++i) {
        Sleep(1);
        sum += Work() + words_.at(0).size();
      }
      if (sum > 0) ++report_.main_returned;
      returned_ = true;
    }

   private:
    Report& report_;
    std::vector<std::string> words_{"first", "second"};
    std::atomic<bool> returned_{false};
  };
  class Derived final : public Working {
   public:
    explicit Derived(Report& report) : Working(report) { LeaveCriticalSection(&cs); }
    ~Derived() override { numbers_.clear(); }
    std::size_t Work() override { return numbers_.at(3); }

   private:
    std::vector<std::size_t> numbers_{1, 2, 3, 4};
  };
  Report report;
  constexpr int kTasks = 8;
  for (int i = 0; i < kTasks; ++i) new Derived(report);
  for (int i = 0; i < kTasks; ++i) ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.main_returned, kTasks);
  EXPECT_EQ(report.destroyed, kTasks);
  EXPECT_EQ(report.destroyed_after_main, kTasks);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, StopWaitsForAMainThatTakesLongToEnd) {
  // Three seconds are nothing unusual for a Main that finishes its work, say a write to flash, when it is told
  // to stop. It uses its own members all the while.
  class Slow final : public OSTask {
   public:
    explicit Slow(Report& report) : OSTask(3, 0, nullptr, nullptr), report_(report) {
      LeaveCriticalSection(&cs);
    }
    ~Slow() override {
      if (returned_) ++report_.destroyed_after_main;
      ++report_.destroyed;
      numbers_.clear();
    }
    void Main() override {
      report_.runs.open();
      while (state_of(*this) != OS_ST_KILL) Sleep(1);
      for (int i = 0; i < 300; ++i) {
        Sleep(10);
        numbers_.at(1) += numbers_.at(2);
      }
      returned_ = true;
      ++report_.main_returned;
    }

   private:
    Report& report_;
    std::vector<int> numbers_{1, 2, 3};
    std::atomic<bool> returned_{false};
  };
  Report report;
  new Slow(report);
  ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.main_returned, 1);
  EXPECT_EQ(report.destroyed_after_main, 1) << "the derived part went while Main still ran";
}

TEST_F(TaskTest, StopStopsTasksThatSnoozeOnTheirEvent) {
  class Waiting : public OSTask {
   public:
    explicit Waiting(Report& to) : OSTask(3, 0, nullptr, nullptr), report(to) {
      thread_event = CreateEvent(nullptr, false, false, nullptr);
      LeaveCriticalSection(&cs);
    }
    ~Waiting() override {
      if (returned) ++report.destroyed_after_main;
      ++report.destroyed;
    }
    void Main() override {
      report.runs.open();
      while (state_of(*this) != OS_ST_KILL) {
        Snooze();
        const DWORD result = WaitForSingleObject(thread_event, 30);
        EXPECT_TRUE(result == 0 || result == 110) << "the event was closed under its waiter: " << result;
      }
      returned = true;
    }
    Report& report;
    std::atomic<bool> returned{false};
  };
  Report report;
  for (int i = 0; i < 5; ++i) new Waiting(report);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.destroyed, 5);
  EXPECT_EQ(report.destroyed_after_main, 5);
  EXPECT_TRUE(threads_come_to(0));
}

/// Stops its thread in its own destructor, by means of its own: its Main looks at nothing else.
class SelfStopping : public OSTask {
 public:
  enum class Detach { kLockDelete, kByHand };

  SelfStopping(Report& report, Detach how) : OSTask(4, 0, nullptr, nullptr), report_(report), how_(how) {
    wake_ = CreateEvent(nullptr, false, false, nullptr);
    LeaveCriticalSection(&cs);
  }
  ~SelfStopping() override {
    if (state_of(*this) == OS_ST_KILL) ++report_.destroyed_stopped;
    if (how_ == Detach::kLockDelete) {
      _LockDelete();
    } else {
      EnterCriticalSection(&OS_CRITICAL_TASK);
      task_record->task = nullptr;
      LeaveCriticalSection(&OS_CRITICAL_TASK);
    }
    done_ = true;
    SetEvent(wake_);
    Kill();
    if (returned_) ++report_.destroyed_after_main;
    ++report_.destroyed;
    CloseHandle(wake_);
  }
  void Main() override {
    report_.runs.open();
    while (!done_) EXPECT_EQ(WaitForSingleObject(wake_, kForEver), 0u);
    returned_ = true;
    ++report_.main_returned;
  }

 private:
  Report& report_;
  Detach how_;
  HANDLE wake_ = 0;
  std::atomic<bool> done_{false};
  std::atomic<bool> returned_{false};
};

TEST_F(TaskTest, ATaskMayStopItsThreadInItsOwnDestructor) {
  for (const auto how : {SelfStopping::Detach::kLockDelete, SelfStopping::Detach::kByHand}) {
    Report report;
    auto* task = new SelfStopping(report, how);
    ASSERT_TRUE(report.runs.wait());
    delete task;
    EXPECT_EQ(report.destroyed_after_main, 1);
    EXPECT_TRUE(threads_come_to(0));
  }
}

TEST_F(TaskTest, StopStopsTasksThatStopTheirThreadInTheirOwnDestructor) {
  // At once, where nobody else is left who could end their waits. A sanitizer's own thread might be somebody.
  for (int round = 0; round < (kIdleThreads > 1 ? 1 : 5); ++round) {
    Report report;
    for (int i = 0; i < 2; ++i) {
      new SelfStopping(report, SelfStopping::Detach::kLockDelete);
      new SelfStopping(report, SelfStopping::Detach::kByHand);
    }
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(report.runs.wait());
    Stop();
    EXPECT_EQ(report.main_returned, 4);
    EXPECT_EQ(report.destroyed, 4);
    EXPECT_EQ(report.destroyed_after_main, 4) << "a derived part went while its Main still ran";
    EXPECT_EQ(report.destroyed_stopped, 0) << "a destructor that is to stop its task finds it as it was";
    EXPECT_TRUE(threads_come_to(0));
    StartQuiet();
  }
}

TEST_F(TaskTest, StopStopsSuchTasksBesideThreadsThatAreNoTasks) {
  Gate end;
  std::thread idle([&end] { EXPECT_TRUE(end.wait()); });
  Report report;
  for (int i = 0; i < 4; ++i) new SelfStopping(report, SelfStopping::Detach::kLockDelete);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.destroyed_after_main, 4);
  end.open();
  idle.join();
}

/// Waits for ever on an event, its own or thread_event, until it is told to stop. Uses its members to the end.
class WaitingForEver final : public OSTask {
 public:
  enum class On { kThreadEvent, kOwnEvent };

  WaitingForEver(Report& report, On on) : OSTask(3, 0, nullptr, nullptr), report_(report) {
    event_ = CreateEvent(nullptr, false, false, nullptr);
    if (on == On::kThreadEvent) thread_event = event_;
    LeaveCriticalSection(&cs);
  }
  ~WaitingForEver() override {
    if (returned_) ++report_.destroyed_after_main;
    ++report_.destroyed;
    words_.clear();
    if (thread_event != event_) CloseHandle(event_);
  }
  void Main() override {
    for (bool first = true; state_of(*this) != OS_ST_KILL; first = false) {
      Snooze();
      if (first)
        report_.runs.open();  // not before the look at the state: from here on only the event ends it
      EXPECT_EQ(WaitForSingleObject(event_, kForEver), 0u);
      words_.at(1) += words_.at(0);
    }
    returned_ = true;
    ++report_.main_returned;
  }
  HANDLE event() const { return event_; }

 private:
  Report& report_;
  HANDLE event_ = 0;
  std::vector<std::string> words_{"first", "second"};
  std::atomic<bool> returned_{false};
};

TEST_F(TaskTest, StopEndsAMainThatWaitsForEverOnItsThreadEvent) {
  constexpr int kTasks = 5;
  for (int round = 0; round < 10; ++round) {
    Report report;
    for (int i = 0; i < kTasks; ++i) {
      auto* task = new WaitingForEver(report, WaitingForEver::On::kThreadEvent);
      ASSERT_TRUE(report.runs.wait());
      if (i % 2 == round % 2) task->Wake(1);
    }
    Stop();
    EXPECT_EQ(report.main_returned, kTasks);
    EXPECT_EQ(report.destroyed_after_main, kTasks) << "a derived part went while its Main still waited";
    EXPECT_TRUE(threads_come_to(0));
    StartQuiet();
  }
}

TEST_F(TaskTest, StopWaitsForATaskThatWaitsForASlowOne) {
  // The first one's wait is ended by the second, which takes longer to stop than a wait for ever may last
  // when nothing else goes on.
  Report report;
  auto* waiting = new WaitingForEver(report, WaitingForEver::On::kOwnEvent);
  new ReportingTask(report, [waiting](ReportingTask& self) {
    until_stopped(self);
    for (int i = 0; i < 250; ++i) Sleep(10);
    SetEvent(waiting->event());
  });
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.main_returned, 2);
  EXPECT_EQ(report.destroyed_after_main, 2) << "the derived part went while Main still waited";
}

TEST_F(TaskTest, StopLetsAThreadThatIsNoTaskEndAWait) {
  Report report;
  auto* waiting = new WaitingForEver(report, WaitingForEver::On::kOwnEvent);
  ASSERT_TRUE(report.runs.wait());
  std::thread other([waiting] {
    EXPECT_TRUE(wait_until([waiting] { return state_of(*waiting) == OS_ST_KILL; }, kPatienceMs));
    Sleep(100);  // long enough to be seen doing nothing
    SetEvent(waiting->event());
  });
  Stop();
  other.join();
  EXPECT_EQ(report.destroyed_after_main, 1) << "the derived part went while Main still waited";
}

TEST_F(TaskTest, StopWaitsForATaskThatGoesFromOneWaitForEverToTheNext) {
  // For longer than one wait for ever may last.
  constexpr int kTurns = 140;
  Report report;
  const HANDLE turn = CreateEvent(nullptr, false, false, nullptr);
  auto* task = new ReportingTask(report, [turn](ReportingTask&) {
    for (int i = 0; i < kTurns; ++i) EXPECT_EQ(WaitForSingleObject(turn, kForEver), 0u);
  });
  ASSERT_TRUE(report.runs.wait());
  std::thread other([task, turn] {
    EXPECT_TRUE(wait_until([task] { return state_of(*task) == OS_ST_KILL; }, kPatienceMs));
    for (int i = 0; i < kTurns; ++i) {
      Sleep(20);
      SetEvent(turn);
    }
  });
  Stop();
  other.join();
  EXPECT_EQ(report.destroyed_after_main, 1) << "the derived part went while Main still ran";
}

TEST_F(TaskTest, ADestructorThatStopRunsMayEndAnotherTasksWait) {
  class Ending : public OSTask {
   public:
    Ending(Report& report, const HANDLE& others_event)
        : OSTask(3, 0, nullptr, nullptr), report_(report), others_event_(others_event) {
      wake_ = CreateEvent(nullptr, false, false, nullptr);
      LeaveCriticalSection(&cs);
    }
    ~Ending() override {
      _LockDelete();
      SetEvent(wake_);
      Kill();
      CloseHandle(wake_);
      SetEvent(others_event_);
    }
    void Main() override {
      report_.runs.open();
      EXPECT_EQ(WaitForSingleObject(wake_, kForEver), 0u);
    }

   private:
    Report& report_;
    const HANDLE& others_event_;
    HANDLE wake_ = 0;
  };
  for (int round = 0; round < (kIdleThreads > 1 ? 1 : 20); ++round) {
    Report report;
    HANDLE event = 0;
    new Ending(report, event);
    auto* waiting = new WaitingForEver(report, WaitingForEver::On::kOwnEvent);
    event = waiting->event();
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(report.runs.wait());
    Stop();
    EXPECT_EQ(report.destroyed_after_main, 1) << "the derived part went while Main was about to wake";
    StartQuiet();
  }
}

TEST_F(TaskTest, StopCopesWithTasksThatDeleteThemselvesMeanwhile) {
  constexpr int kTasks = 12;
  for (int round = 0; round < 30; ++round) {
    Report report;
    for (int i = 0; i < kTasks; ++i) {
      new ReportingTask(report, [i](ReportingTask& self) {
        switch (i % 4) {
          case 0:
            break;  // returns at once
          case 1:
            for (int spin = 0; spin < i; ++spin) std::this_thread::yield();
            break;
          case 2:
            Sleep(1);
            break;
          default:
            until_stopped(self);
            break;
        }
      });
    }
    for (int i = 0; i < round % 5; ++i) std::this_thread::yield();
    Stop();
    EXPECT_EQ(report.main_returned, kTasks);
    EXPECT_EQ(report.destroyed, kTasks);
    EXPECT_EQ(report.destroyed_after_main, kTasks);
    EXPECT_TRUE(threads_come_to(0));
    StartQuiet();
  }
}

TEST_F(TaskTest, StopLeavesATaskThatItTellsToStopItsRecordUntilTheDestructor) {
  class DetachingByHand : public OSTask {
   public:
    explicit DetachingByHand(Report& report) : OSTask(3, 0, nullptr, nullptr), report_(report) {
      LeaveCriticalSection(&cs);
    }
    ~DetachingByHand() override {
      EnterCriticalSection(&OS_CRITICAL_TASK);
      task_record->task = nullptr;
      LeaveCriticalSection(&OS_CRITICAL_TASK);
      if (state_of(*this) == OS_ST_KILL) ++report_.destroyed_stopped;
      Kill();
      ++report_.destroyed;
    }
    void Main() override { until_stopped(*this); }

   private:
    Report& report_;
  };
  Report report;
  for (int i = 0; i < 3; ++i) new DetachingByHand(report);
  Stop();
  EXPECT_EQ(report.destroyed, 3);
  EXPECT_EQ(report.destroyed_stopped, 3);
}

TEST_F(TaskTest, StopCopesWithTasksThatDeleteThemselvesInMain) {
  // Told to stop, or at any other moment, with or without stopping first.
  class SelfDeleting : public OSTask {
   public:
    SelfDeleting(Report& report, int way) : OSTask(3, 0, nullptr, nullptr), report_(report), way_(way) {
      LeaveCriticalSection(&cs);
    }
    ~SelfDeleting() override {
      if (OSTask::GetCurrentTask() == this) ++report_.destroyed_on_own_thread;
      ++report_.destroyed;
    }
    void Main() override {
      report_.runs.open();
      if (way_ % 2 == 0) until_stopped(*this);
      if (way_ % 4 >= 2) {
        _StopThread();
        for (int i = 0; i < 5 * (way_ / 4); ++i) std::this_thread::yield();
      }
      delete this;
    }

   private:
    Report& report_;
    const int way_;
  };
  constexpr int kTasks = 16;
  for (int round = 0; round < 20; ++round) {
    Report report;
    for (int i = 0; i < kTasks; ++i) new SelfDeleting(report, i);
    for (int i = 0; i < kTasks; ++i) ASSERT_TRUE(report.runs.wait());
    Stop();
    EXPECT_TRUE(threads_come_to(0));
    EXPECT_EQ(report.destroyed, kTasks);
    EXPECT_EQ(report.destroyed_on_own_thread, kTasks);
    StartQuiet();
  }
}

TEST_F(TaskTest, StopWaitsForATaskThatHasStoppedItselfAndStillRuns) {
  Report report;
  Gate stopped;
  new ReportingTask(report, [&stopped](ReportingTask& self) {
    self._StopThread();
    stopped.open();
    for (int i = 0; i < 20; ++i) Sleep(5);
  });
  ASSERT_TRUE(stopped.wait());
  Stop();
  EXPECT_EQ(report.destroyed_after_main, 1) << "the derived part went while its Main still ran";
}

TEST_F(TaskTest, StopStopsTasksThatAreMadeWhileItRuns) {
  Report report;
  new ReportingTask(report, [&report](ReportingTask& self) {
    until_stopped(self);
    new WaitingForEver(report, WaitingForEver::On::kThreadEvent);
    new ReportingTask(report, until_stopped);
  });
  ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.destroyed, 3);
  EXPECT_EQ(report.destroyed_after_main, 3);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, StopByATaskDeletesItAndLetsItsThreadEnd) {
  class Stopping : public OSTask {
   public:
    explicit Stopping(Report& report) : OSTask(3, 0, nullptr, nullptr), report_(report) {
      LeaveCriticalSection(&cs);
    }
    ~Stopping() override { ++report_.destroyed; }
    void Main() override {
      Report& report = report_;
      os_cleanup();
      // The object is gone, the thread is still there.
      ++report.main_returned;
      report.gone.open();
    }

   private:
    Report& report_;
  };
  Report report;
  new ReportingTask(report, until_stopped);
  ASSERT_TRUE(report.runs.wait());
  new Stopping(report);
  ASSERT_TRUE(report.gone.wait());
  ASSERT_TRUE(report.gone.wait());
  EXPECT_EQ(report.destroyed, 2);
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_EQ(OSTask::all_tasks, nullptr);
  StartQuiet();
}

TEST_F(TaskTest, ASecondStopFindsNothingToDo) {
  Stop();
  Stop();
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
  StartQuiet();
}

TEST_F(TaskTest, StopWaitsForATaskThatIsDeletingItself) {
  // The last thing that the stop itself does to a task lets the other's destructor go on, which takes its time.
  class Deleting : public OSTask {
   public:
    Deleting(Report& report, Gate& go_on) : OSTask(3, 0, nullptr, nullptr), report_(report), go_on_(go_on) {
      LeaveCriticalSection(&cs);
    }
    ~Deleting() override {
      report_.gone.open();
      EXPECT_TRUE(go_on_.wait());
      Sleep(50);
      ++report_.destroyed;
    }
    void Main() override {}

   private:
    Report& report_;
    Gate& go_on_;
  };
  class Last : public OSTask {
   public:
    explicit Last(Gate& go_on) : OSTask(3, 0, nullptr, nullptr), go_on_(go_on) { LeaveCriticalSection(&cs); }
    ~Last() override { go_on_.open(); }
    void Main() override { until_stopped(*this); }

   private:
    Gate& go_on_;
  };
  Report report;
  Gate go_on;
  new Last(go_on);
  new Deleting(report, go_on);
  ASSERT_TRUE(report.gone.wait());
  Stop();
  EXPECT_EQ(report.destroyed, 1) << "the stop ended while a task was still being deleted";
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, StopHoldsNoSectionOverTheJoins) {
  // On their way out these tasks need every section of tasks, triggers and links, and new objects of each kind.
  Report report;
  for (int i = 0; i < 4; ++i) {
    new ReportingTask(report, [](ReportingTask& self) {
      until_stopped(self);
      OSTaskTag::SetName("leaving", 0);
      EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "leaving");
      EXPECT_EQ(OSTask::GetCurrentTask(), &self);
      EXPECT_EQ(OSTask::FindTask(pthread_self()), &self);
      HandTrigger trigger;
      trigger.ArmAndFire();
      trigger.Cancel();
      const HANDLE event = CreateEvent(nullptr, false, false, nullptr);
      SetEvent(event);
      EXPECT_EQ(WaitForSingleObject(event, 0), 0u);
      CloseHandle(event);
      OSLink::Alloc()->Free();
    });
  }
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(report.runs.wait());
  Stop();
  EXPECT_EQ(report.destroyed, 4);
}

TEST_F(TaskTest, StopCopesWithTasksThatDeleteOtherTasksInTheirDestructors) {
  // A parent owns two children that stand behind it in the registry, and deletes them when it goes.
  class Parent : public OSTask {
   public:
    explicit Parent(Report& report) : OSTask(3, 0, nullptr, nullptr), report_(report) {
      LeaveCriticalSection(&cs);
      for (ReportingTask*& child : children_) {
        child = new ReportingTask(report, [](ReportingTask& self) {
          until_stopped(self);
          Sleep(50);  // still at it when the parent goes
        });
      }
    }
    ~Parent() override {
      for (ReportingTask* child : children_) {
        child->Kill();
        delete child;
      }
      ++report_.destroyed;
    }
    void Main() override {
      report_.runs.open();
      while (state_of(*this) != OS_ST_KILL) Sleep(1);
    }

   private:
    Report& report_;
    std::array<ReportingTask*, 2> children_{};
  };
  Report report;
  ReportingTask* unrelated = new ReportingTask(report, until_stopped);
  new Parent(report);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(report.runs.wait());
  EXPECT_EQ(registered().front(), unrelated);
  Stop();
  EXPECT_EQ(report.destroyed, 4);
  EXPECT_EQ(report.destroyed_after_main, 3);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, StopDeletesTasksThatWereStoppedOrDetachedButNotDeleted) {
  Report report;
  auto* killed = new ReportingTask(report, until_stopped);
  auto* detached = new ReportingTask(report, until_stopped);
  new ReportingTask(report, [](ReportingTask& self) { self._StopThread(); });
  new ReportingTask(report, [](ReportingTask& self) { self._LockDelete(); });
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(report.runs.wait());
  EXPECT_TRUE(wait_until([&] { return report.main_returned == 2; }, kPatienceMs));
  killed->Kill();
  detached->_LockDelete();
  Stop();
  EXPECT_EQ(report.destroyed, 4);
  EXPECT_EQ(report.destroyed_after_main, 4);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, StopRunsMainOfATaskThatHasHardlyStarted) {
  for (int round = 0; round < 20; ++round) {
    Report report;
    for (int i = 0; i < 4; ++i) new ReportingTask(report, until_stopped);
    Stop();
    EXPECT_EQ(report.main_returned, 4);
    EXPECT_EQ(report.destroyed_after_main, 4);
    StartQuiet();
  }
}

TEST_F(TaskTest, StopFreesTheProgramTable) {
  OS_PROGRAM = new OSProgram(os_stdscan);
  OSProgram* const program = OS_PROGRAM;
  Stop();
  EXPECT_EQ(OS_PROGRAM, program) << "the pointer is not reset";
  OS_PROGRAM = nullptr;
}

TEST_F(TaskTest, TasksMayBeStartedFromTasks) {
  Report report;
  new ReportingTask(report, [&report](ReportingTask& self) {
    new ReportingTask(report, [](ReportingTask&) {});
    until_stopped(self);
  });
  ASSERT_TRUE(report.runs.wait());
  ASSERT_TRUE(report.runs.wait());
  ASSERT_TRUE(report.gone.wait());
  Stop();
  EXPECT_EQ(report.destroyed, 2);
}

TEST_F(TaskTest, ManyThreadsMakeFindAndEndTasksAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  Report report;
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&report, n] {
      for (int round = 0; round < kRounds; ++round) {
        if ((n + round) % 2 == 0) {
          new ReportingTask(report, [](ReportingTask&) {});
        } else {
          auto* task = new ReportingTask(report, until_stopped);
          // Perhaps not this one: the id of a thread that has been joined serves again at once.
          EXPECT_NE(OSTask::FindTask(task->thread_id), nullptr);
          task->Kill();
          delete task;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(wait_until([&] { return report.destroyed == kThreads * kRounds; }, kPatienceMs));
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_TRUE(registered().empty());
}

}  // namespace
