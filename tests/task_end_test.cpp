// How a task ends, and who deletes the object.

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kernel/task.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

TEST_F(TaskTest, ATaskWhoseMainReturnsDeletesItselfOnItsOwnThread) {
  Report report;
  Gate go;
  auto* task = new ReportingTask(report, [&go](ReportingTask&) { EXPECT_TRUE(go.wait()); });
  const pthread_t thread = task->thread_id;
  EXPECT_EQ(OSTask::FindTask(thread), task);
  const int count = os_task_count;
  go.open();
  ASSERT_TRUE(report.gone.wait());
  EXPECT_TRUE(wait_until([&] { return OSTask::FindTask(thread) == nullptr; }, kPatienceMs));
  EXPECT_EQ(report.destroyed_on_own_thread, 1);
  EXPECT_EQ(report.destroyed_stopped, 1);
  EXPECT_EQ(report.destroyed_after_main, 1);
  EXPECT_EQ(os_task_count, count) << "the count is of threads created, not of threads that run";
  EXPECT_TRUE(threads_come_to(0)) << "the thread is detached";
  EXPECT_TRUE(registered().empty());
}

TEST_F(TaskTest, ASnoozingTaskWhoseMainReturnsDeletesItselfToo) {
  Report report;
  new ReportingTask(report, [](ReportingTask& self) { self.Snooze(); });
  ASSERT_TRUE(report.gone.wait());
  EXPECT_EQ(report.destroyed_stopped, 1);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, KillFromAnotherThreadStopsJoinsAndHandsTheObjectOver) {
  for (const bool snoozing : {false, true}) {
    Report report;
    auto* task = new ReportingTask(report, until_stopped);
    ASSERT_TRUE(report.runs.wait());
    if (snoozing) task->Snooze();
    task->Kill();
    EXPECT_EQ(state_of(*task), OS_ST_KILL);
    EXPECT_EQ(task->task_record, nullptr);
    EXPECT_EQ(report.main_returned, 1) << "Kill returned before the thread had ended";
    EXPECT_EQ(report.destroyed, 0);
    EXPECT_TRUE(is_registered(task)) << "the object is still there for its owner";
    task->Kill();         // and again: nothing
    task->_LockDelete();  // nor this, without a record
    EXPECT_EQ(state_of(*task), OS_ST_KILL);
    delete task;
    EXPECT_EQ(report.destroyed, 1);
    EXPECT_TRUE(registered().empty());
    EXPECT_TRUE(threads_come_to(0));
  }
}

TEST_F(TaskTest, KillFromTheOwnThreadDoesNothing) {
  for (const bool snoozing : {false, true}) {
    Report report;
    OSTState before = OS_ST_KILL;
    OSTState after = OS_ST_KILL;
    bool attached = false;
    new ReportingTask(report, [&](ReportingTask& self) {
      if (snoozing) self.Snooze();
      before = state_of(self);
      self.Kill();
      after = state_of(self);
      attached = self.task_record != nullptr && self.task_record->task == &self;
    });
    ASSERT_TRUE(report.gone.wait()) << "an undetached task deletes itself";
    EXPECT_EQ(before, snoozing ? OS_ST_HOLD : OS_ST_OK);
    EXPECT_EQ(after, before);
    EXPECT_TRUE(attached);
  }
}

TEST_F(TaskTest, StopThreadFromAnotherThreadIsLikeKill) {
  for (const bool snoozing : {false, true}) {
    Report report;
    auto* task = new ReportingTask(report, until_stopped);
    ASSERT_TRUE(report.runs.wait());
    if (snoozing) task->Snooze();
    task->_StopThread();
    EXPECT_EQ(state_of(*task), OS_ST_KILL);
    EXPECT_EQ(task->task_record, nullptr);
    EXPECT_EQ(report.main_returned, 1);
    EXPECT_EQ(report.destroyed, 0);
    task->_StopThread();
    task->Kill();
    delete task;
    EXPECT_EQ(report.destroyed, 1);
    EXPECT_TRUE(threads_come_to(0));
  }
}

TEST_F(TaskTest, StopThreadFromTheOwnThreadDetachesAndHandsTheObjectOver) {
  for (const bool snoozing : {false, true}) {
    Report report;
    Gate stopped;
    Gate go_on;
    OSTState state = OS_ST_OK;
    auto* task = new ReportingTask(report, [&](ReportingTask& self) {
      if (snoozing) self.Snooze();
      self._StopThread();
      state = state_of(self);
      stopped.open();
      EXPECT_TRUE(go_on.wait());
    });
    ASSERT_TRUE(stopped.wait());
    EXPECT_EQ(state, OS_ST_KILL);
    EXPECT_EQ(task->task_record, nullptr);
    pthread_attr_t attributes;
    int detached = PTHREAD_CREATE_JOINABLE;
    ASSERT_EQ(pthread_getattr_np(task->thread_id, &attributes), 0);
    EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &detached), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);
    go_on.open();
    EXPECT_TRUE(threads_come_to(0)) << "the thread is detached and ends by itself";
    EXPECT_EQ(report.main_returned, 1);
    EXPECT_EQ(report.destroyed, 0) << "the object belongs to the caller";
    task->Kill();
    delete task;
    EXPECT_EQ(report.destroyed, 1);
  }
}

TEST_F(TaskTest, ATaskWhoseStateSaysThatItIsStoppedIsNotStoppedAgain) {
  // The state is public, and what Kill goes by.
  Report report;
  auto* task = new ReportingTask(report, until_stopped);
  task->_LockDelete();
  ASSERT_TRUE(report.runs.wait());
  std::atomic_ref<OSTState>(task->state) = OS_ST_KILL;
  task->Kill();
  EXPECT_NE(task->task_record, nullptr);
  task->_StopThread();
  EXPECT_NE(task->task_record, nullptr);
  EXPECT_TRUE(wait_until([&] { return report.main_returned == 1; }, kPatienceMs));
  delete task;
  EXPECT_TRUE(threads_come_to(0)) << "the destructor joins all the same";
}

TEST_F(TaskTest, ATaskMayStopAndDeleteItself) {
  Report report;
  class SelfDeleting : public OSTask {
   public:
    explicit SelfDeleting(Report& to) : OSTask(3, 0, nullptr, nullptr), report_(to) {
      LeaveCriticalSection(&cs);
    }
    ~SelfDeleting() override {
      ++report_.destroyed;
      report_.gone.open();
    }
    void Main() override {
      _StopThread();
      delete this;
    }

   private:
    Report& report_;
  };
  new SelfDeleting(report);
  ASSERT_TRUE(report.gone.wait());
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_EQ(report.destroyed, 1);
  EXPECT_TRUE(registered().empty());
}

TEST_F(TaskTest, ATaskMayDeleteItselfWithoutStoppingFirst) {
  Report report;
  Gate go;
  class SelfDeleting : public OSTask {
   public:
    SelfDeleting(Report& to, Gate& go) : OSTask(3, 0, nullptr, nullptr), report_(to), go_(go) {
      LeaveCriticalSection(&cs);
    }
    ~SelfDeleting() override {
      if (state_of(*this) == OS_ST_OK) ++report_.destroyed;
      report_.gone.open();
    }
    void Main() override {
      EXPECT_TRUE(go_.wait());
      delete this;
    }

   private:
    Report& report_;
    Gate& go_;
  };
  new SelfDeleting(report, go);
  go.open();
  ASSERT_TRUE(report.gone.wait());
  EXPECT_TRUE(threads_come_to(0)) << "the thread is detached";
  EXPECT_EQ(report.destroyed, 1) << "once, and by itself";
  EXPECT_TRUE(registered().empty());
}

/// Calls the clean-up of its thread itself, in Main; may have detached its object before.
class CleaningUp : public OSTask {
 public:
  CleaningUp(Report& report, bool detach) : OSTask(3, 0, nullptr, nullptr), report_(report), detach_(detach) {
    LeaveCriticalSection(&cs);
  }
  ~CleaningUp() override {
    if (OSTask::GetCurrentTask() == this) ++report_.destroyed_on_own_thread;
    if (state_of(*this) == OS_ST_KILL) ++report_.destroyed_stopped;
    ++report_.destroyed;
  }
  void Main() override {
    Report& report = report_;
    if (detach_) _LockDelete();
    OSThreadCleanup(task_record);
    // The object may be gone, the thread is still there.
    ++report.main_returned;
    report.gone.open();
  }

 private:
  Report& report_;
  const bool detach_;
};

TEST_F(TaskTest, AMainThatCallsTheCleanUpItselfIsCleanedUpOnce) {
  Report report;
  new CleaningUp(report, false);
  ASSERT_TRUE(report.gone.wait());
  EXPECT_EQ(report.destroyed, 1) << "the clean-up deletes the object, joining nobody";
  EXPECT_EQ(report.destroyed_on_own_thread, 1);
  EXPECT_EQ(report.destroyed_stopped, 1);
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_TRUE(registered().empty());

  auto* task = new CleaningUp(report, true);
  ASSERT_TRUE(report.gone.wait());
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_EQ(report.destroyed, 1) << "a detached object is its owner's";
  EXPECT_EQ(state_of(*task), OS_ST_OK);
  task->Kill();
  delete task;
  EXPECT_EQ(report.destroyed, 2);
}

TEST_F(TaskTest, ACleanUpByAnotherThreadDeletesTheObjectAndLeavesTheThreadRunning) {
  // Main uses nothing of the object once it runs.
  Report report;
  Gate go;
  class Bare : public OSTask {
   public:
    Bare(Report& report, Gate& go) : OSTask(3, 0, nullptr, nullptr), report_(report), go_(go) {
      LeaveCriticalSection(&cs);
    }
    ~Bare() override { ++report_.destroyed; }
    void Main() override {
      Report& report = report_;
      Gate& go = go_;
      report.runs.open();
      EXPECT_TRUE(go.wait());
      ++report.main_returned;
    }

   private:
    Report& report_;
    Gate& go_;
  };
  auto* task = new Bare(report, go);
  ASSERT_TRUE(report.runs.wait());
  OSThreadCleanup(task->task_record);
  EXPECT_EQ(report.destroyed, 1);
  EXPECT_EQ(report.main_returned, 0) << "nobody is waited for";
  EXPECT_TRUE(registered().empty());
  go.open();
  EXPECT_TRUE(threads_come_to(0)) << "the thread is detached";
  EXPECT_EQ(report.main_returned, 1);
  EXPECT_EQ(report.destroyed, 1);
}

/// Opens the start gate when everything derived from it has been destroyed.
class OpeningLate : public OSTask {
 public:
  OpeningLate() : OSTask(3, 0, nullptr, nullptr) {}
  ~OpeningLate() override {
    if (!open_) open_gate();
  }
  void open_gate() {
    open_ = true;
    LeaveCriticalSection(&cs);
  }

 private:
  bool open_ = false;
};

class Counting final : public OpeningLate {
 public:
  explicit Counting(std::atomic<int>& calls) : calls_(calls) {}
  void Main() override { ++calls_; }

 private:
  std::atomic<int>& calls_;
};

TEST_F(TaskTest, ATaskThatIsKilledBeforeItsThreadHasReachedMainStillRunsIt) {
  std::atomic<int> calls{0};
  auto* task = new Counting(calls);
  task->_LockDelete();  // or it might be gone before the Kill
  task->open_gate();
  task->Kill();
  EXPECT_EQ(calls, 1);
  delete task;
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(TaskTest, ATaskThatIsDeletedBeforeItsThreadHasReachedMainHasNoneAnyMore) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "needs a build without thread sanitizer: it objects to the virtual call, and rightly so";
#endif
  std::atomic<int> calls{0};
  auto* task = new Counting(calls);
  task->_LockDelete();
  delete task;
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSTask::Main No Program Main"});
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, LockDeleteLeavesTheObjectToItsOwner) {
  // Detached before or after Main returned, deleted with or without Kill: all writes go to storage that lives.
  for (const bool by_the_task_itself : {false, true}) {
    for (const bool kill_first : {false, true}) {
      for (const bool wait_for_exit : {false, true}) {
        SCOPED_TRACE(std::to_string(by_the_task_itself) + std::to_string(kill_first) +
                     std::to_string(wait_for_exit));
        Report report;
        Gate go;
        Gate locked;
        auto* task = new ReportingTask(report, [&](ReportingTask& self) {
          if (by_the_task_itself) self._LockDelete();
          locked.open();
          EXPECT_TRUE(go.wait());
        });
        ASSERT_TRUE(locked.wait());
        if (!by_the_task_itself) task->_LockDelete();
        ASSERT_NE(task->task_record, nullptr);
        EXPECT_EQ(task->task_record->task, nullptr);
        EXPECT_EQ(state_of(*task), OS_ST_OK);
        go.open();
        if (wait_for_exit) {
          EXPECT_TRUE(threads_come_to(0));
          EXPECT_EQ(report.destroyed, 0);
          EXPECT_EQ(state_of(*task), OS_ST_OK) << "an exit that finds its record detached touches nothing";
          EXPECT_TRUE(is_registered(task));
        }
        if (kill_first) {
          task->Kill();
          EXPECT_EQ(state_of(*task), OS_ST_KILL);
          EXPECT_EQ(report.main_returned, 1);
        } else {
          // Without Kill the derived part may go only when Main has returned.
          EXPECT_TRUE(wait_until([&] { return report.main_returned == 1; }, kPatienceMs));
        }
        delete task;
        EXPECT_EQ(report.destroyed, 1);
        EXPECT_EQ(report.destroyed_on_own_thread, 0);
        EXPECT_EQ(report.main_returned, 1) << "the destructor joins";
        EXPECT_TRUE(threads_come_to(0));
        EXPECT_TRUE(registered().empty());
      }
    }
  }
}

TEST_F(TaskTest, KillAfterTheThreadHasEndedWritesToNothingFreed) {
  for (int round = 0; round < 100; ++round) {
    Report report;
    auto* task = new ReportingTask(report, [](ReportingTask& self) { self._LockDelete(); });
    ASSERT_TRUE(report.runs.wait());
    if (round % 2 == 0) {
      EXPECT_TRUE(threads_come_to(0));
    } else {
      EXPECT_TRUE(wait_until([&] { return report.main_returned == 1; }, kPatienceMs));
    }
    if (round % 3 == 0) task->_StopThread();
    if (round % 3 == 1) task->Kill();
    delete task;
    EXPECT_EQ(report.destroyed, 1);
  }
}

TEST_F(TaskTest, TheDestructorStopsAndJoinsARunningTask) {
  // Main uses nothing of the derived part here, which is gone when the base destructor joins.
  Gate runs;
  std::atomic<bool> ended{false};
  struct Shared {
    Gate* runs;
    std::atomic<bool>* ended;
  } shared{&runs, &ended};
  class Bare : public OSTask {
   public:
    explicit Bare(Shared* to) : OSTask(3, 0, to, nullptr) { LeaveCriticalSection(&cs); }
    void Main() override {
      auto* to = static_cast<Shared*>(Userdata());
      to->runs->open();
      while (state_of(*this) != OS_ST_KILL) Sleep(1);
      *to->ended = true;
    }
  };
  for (const bool snoozing : {false, true}) {
    ended = false;
    auto* task = new Bare(&shared);
    const pthread_t thread = task->thread_id;
    ASSERT_TRUE(runs.wait());
    if (snoozing) task->Snooze();
    delete task;
    EXPECT_TRUE(ended);
    EXPECT_EQ(OSTask::FindTask(thread), nullptr);
    EXPECT_TRUE(threads_come_to(0));
  }
}

TEST_F(TaskTest, TheDestructorClosesTheTasksEvent) {
  auto* task = new IdleTask;
  task->Snooze();
  EXPECT_TRUE(task->Wake(9));
  const HANDLE event = task->thread_event;
  EXPECT_NE(event, 0);
  task->Kill();
  EXPECT_TRUE(SetEvent(event)) << "Kill leaves the event alone";
  delete task;
  EXPECT_FALSE(SetEvent(event));
}

TEST_F(TaskTest, AnExceptionThatLeavesMainEndsTheTaskWithItsCleanUp) {
  for (int kind = 0; kind < 3; ++kind) {
    Report report;
    new ReportingTask(report, [kind](ReportingTask&) {
      if (kind == 0) throw std::runtime_error("out of Main");
      if (kind == 1) throw 7;
      throw std::string("anything");
    });
    ASSERT_TRUE(report.gone.wait());
    EXPECT_EQ(report.main_returned, 0);
    EXPECT_EQ(report.destroyed_on_own_thread, 1);
    EXPECT_EQ(report.destroyed_stopped, 1);
    EXPECT_TRUE(threads_come_to(0));
    EXPECT_TRUE(registered().empty());
    EXPECT_EQ(console.count("ended by an exception"), kind + 1) << "nobody else tells";
  }
}

TEST_F(TaskTest, AnExceptionWithoutAConsoleEndsTheTaskToo) {
  Console = nullptr;
  Report report;
  new ReportingTask(report, [](ReportingTask&) { throw 7; });
  ASSERT_TRUE(report.gone.wait());
  EXPECT_TRUE(threads_come_to(0));
  Console = &console;
  EXPECT_EQ(console.text(), "");
}

TEST_F(TaskTest, AnExceptionThatLeavesAStartFunctionEndsTheTaskToo) {
  static std::atomic<int> destroyed{0};
  destroyed = 0;
  static Gate go;
  class Started : public OSTask {
   public:
    Started() : OSTask(3, 0, nullptr, reinterpret_cast<ADDR>(&run)) { LeaveCriticalSection(&cs); }
    ~Started() override { ++destroyed; }
    static void run() {
      EXPECT_TRUE(go.wait());
      throw 7;
    }
  };
  auto* task = new Started;
  const pthread_t thread = task->thread_id;
  EXPECT_EQ(OSTask::FindTask(thread), task);
  go.open();
  EXPECT_TRUE(wait_until([] { return destroyed == 1; }, kPatienceMs));
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_TRUE(registered().empty());
}

TEST_F(TaskTest, AnExceptionThatLeavesADetachedMainLeavesTheObjectToItsOwner) {
  Report report;
  auto* task = new ReportingTask(report, [](ReportingTask& self) {
    self._LockDelete();
    throw std::runtime_error("out of Main");
  });
  ASSERT_TRUE(report.runs.wait());
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_EQ(report.destroyed, 0);
  delete task;
  EXPECT_EQ(report.destroyed, 1);
}

TEST_F(TaskTest, AThreadThatExitsInsideMainUnwindsAndEndsWithTheCleanUp) {
  Report report;
  static std::atomic<int> unwound{0};
  unwound = 0;
  struct Local {
    ~Local() { ++unwound; }
  };
  new ReportingTask(report, [](ReportingTask&) {
    const Local local;
    pthread_exit(nullptr);
  });
  ASSERT_TRUE(report.gone.wait());
  EXPECT_EQ(unwound, 1);
  EXPECT_EQ(report.main_returned, 0);
  EXPECT_EQ(report.destroyed_stopped, 1);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, ACancelledThreadUnwindsAndEndsWithTheCleanUp) {
  Report report;
  Gate named;
  pthread_t thread{};
  new ReportingTask(report, [&](ReportingTask&) {
    thread = pthread_self();
    named.open();
    for (;;) {
      pthread_testcancel();
      std::this_thread::yield();
    }
  });
  ASSERT_TRUE(named.wait());
  EXPECT_EQ(pthread_cancel(thread), 0);
  ASSERT_TRUE(report.gone.wait());
  EXPECT_EQ(report.destroyed, 1);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, ThreadsThatNobodyJoinsLeaveNoStacksBehind) {
  // A thread that has ended without being joined or detached keeps its stack: a mapping or two each.
  class Passing : public OSTask {
   public:
    Passing(Report& report, int way) : OSTask(3, 0, nullptr, nullptr), report_(report), way_(way) {
      LeaveCriticalSection(&cs);
    }
    ~Passing() override { report_.gone.open(); }
    void Main() override {
      switch (way_) {
        case 0:
          break;
        case 1:
          throw 1;
        case 2:
          delete this;
          break;
        case 3:
          _StopThread();
          delete this;
          break;
        default:
          OSThreadCleanup(task_record);
          break;
      }
    }

   private:
    Report& report_;
    const int way_;
  };
  const auto mappings = [] {
    std::ifstream file("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n');
  };
  constexpr int kTasks = 300;
  for (int way = 0; way < 5; ++way) {
    SCOPED_TRACE(way);
    Report report;
    const auto before = mappings();
    for (int i = 0; i < kTasks; ++i) {
      new Passing(report, way);
      ASSERT_TRUE(report.gone.wait());
    }
    EXPECT_TRUE(threads_come_to(0));
    EXPECT_LT(mappings(), before + kTasks / 2);
  }
}

TEST_F(TaskTest, ATaskOutsideTheKernelsLifeIsNotRegisteredButRunsAndEnds) {
  Stop();
  Report report;
  auto* killed = new ReportingTask(report, until_stopped);
  ASSERT_TRUE(report.runs.wait());
  EXPECT_EQ(OSTask::FindTask(killed->thread_id), nullptr);
  killed->Kill();
  delete killed;
  ASSERT_TRUE(report.gone.wait());
  new ReportingTask(report, [](ReportingTask&) {});
  ASSERT_TRUE(report.gone.wait());
  EXPECT_EQ(report.destroyed_after_main, 2);
  EXPECT_EQ(report.destroyed_on_own_thread, 0) << "no key, so no task of the own thread either";
  EXPECT_TRUE(threads_come_to(0));
  StartQuiet();
}

TEST_F(TaskTest, AJoinIsNotHeldUpByTheTaskSection) {
  // The thread that is being joined enters the section once more on its way out, and so do others meanwhile.
  Report report;
  auto* task = new ReportingTask(report, [](ReportingTask& self) {
    until_stopped(self);
    EXPECT_EQ(OSTask::FindTask(pthread_self()), &self);
    OSTaskTag::SetName("on its way out", 0);
  });
  ASSERT_TRUE(report.runs.wait());
  task->Kill();
  EXPECT_EQ(report.main_returned, 1);
  delete task;
}

}  // namespace
