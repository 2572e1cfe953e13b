// Tasks: the object and its thread, the start gate, who deletes the object, snoozing and waking, and the stop of
// the task system with tasks of every kind.

#include "kernel/task.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

// ---- Threads may be refused ------------------------------------------------------------------------------------

namespace {
std::atomic<int> thread_refusal{0};  ///< what creating a thread returns; 0 creates it
}

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*entry)(void*),
                                                                     void* argument) noexcept {
  if (const int refusal = thread_refusal; refusal != 0) return refusal;
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return next(thread, attributes, entry, argument);
}

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

static_assert(OS_ST_HOLD == 0 && OS_ST_OK == 1 && OS_ST_KILL == 2);
static_assert(std::is_base_of_v<OSLinkListObj, OSTask>);
static_assert(std::is_same_v<decltype(OSTask::stksize), ULONG>);
static_assert(std::is_same_v<decltype(OSTask::rcode), UWORD>);
static_assert(std::is_same_v<decltype(OSTask::max_time), UWORD>);
static_assert(std::is_same_v<decltype(OSTask::thread_event), HANDLE>);
static_assert(std::is_same_v<decltype(OSTask::thread_id), pthread_t>);
static_assert(std::is_same_v<decltype(OSTask::all_tasks), OSIndirectList*>);

/// The tasks in the registry, in order.
std::vector<OSTask*> registered() {
  EnterCriticalSection(&OS_CRITICAL_TASK);
  std::vector<OSTask*> tasks;
  EXPECT_TRUE(ListIsSound(*OSTask::all_tasks));
  for (OSLink* node : ring_nodes(*OSTask::all_tasks)) tasks.push_back(as<OSTask>(node->object));
  LeaveCriticalSection(&OS_CRITICAL_TASK);
  return tasks;
}

bool is_registered(const OSTask* task) {
  const std::vector<OSTask*> tasks = registered();
  return std::find(tasks.begin(), tasks.end(), task) != tasks.end();
}

/// Stack size of the calling thread.
std::size_t own_stack_bytes() {
  pthread_attr_t attributes;
  std::size_t bytes = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  pthread_attr_getstacksize(&attributes, &bytes);
  pthread_attr_destroy(&attributes);
  return bytes;
}

class TaskTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ASSERT_TRUE(registered().empty());
  }
  void TearDown() override {
    thread_refusal = 0;
    KernelTest::TearDown();
  }
};

// ---- Construction ------------------------------------------------------------------------------------------------

TEST_F(TaskTest, ANewTaskHasTheStatedFields) {
  const int count = os_task_count;
  int data = 0;
  Owned<FunctionTask> other([](FunctionTask& self) {
    while (state_of(self) != OS_ST_KILL) Sleep(1);
  });
  class Plain : public OSTask {
   public:
    explicit Plain(ADDR data) : OSTask(4, 5000, data, nullptr) { LeaveCriticalSection(&cs); }
    void Main() override {
      while (state_of(*this) != OS_ST_KILL) Sleep(1);
    }
  };
  Owned<Plain> task(static_cast<ADDR>(&data));
  EXPECT_EQ(os_task_count, count + 2);
  EXPECT_EQ(task->curstk, nullptr);
  EXPECT_EQ(task->pntcb, nullptr);
  EXPECT_EQ(task->pltcb, nullptr);
  EXPECT_EQ(task->stkbot, nullptr);
  EXPECT_EQ(task->stksize, 5000u);
  EXPECT_EQ(task->proc_time, 0u);
  EXPECT_EQ(task->max_time, 0);
  EXPECT_EQ(task->rcode, 0);
  EXPECT_EQ(task->WakeCode(), 0);
  EXPECT_EQ(task->priority, 4);
  EXPECT_EQ(task->Priority(), 4);
  EXPECT_EQ(state_of(*task), OS_ST_OK);
  EXPECT_EQ(task->userdata, &data);
  EXPECT_EQ(task->Userdata(), &data);
  EXPECT_EQ(task->thread_event, 0);
  EXPECT_EQ(task->start_func, &os_task_startup);
  ASSERT_NE(task->task_record, nullptr);
  EXPECT_EQ(task->task_record->task, task.get());
  EXPECT_EQ(OSTask::FindTask(task->thread_id), task.get());
  EXPECT_EQ(registered(), (std::vector<OSTask*>{other.get(), task.get()})) << "tasks are listed as they come";
  int other_data = 0;
  task->SetUserdata(&other_data);
  EXPECT_EQ(task->Userdata(), &other_data);
}

TEST_F(TaskTest, FieldsStandInTheOrderThatProgramsWereBuiltAgainst) {
  Owned<> owned;
  OSTask& t = *owned;
  const std::vector<const void*> fields = {
      &t.OSLink::object, &t.curstk,     &t.pntcb,        &t.pltcb,      &t.stkbot,      &t.stksize,
      &t.proc_time,      &t.max_time,   &t.rcode,        &t.priority,   &t.state,       &t.userdata,
      &t.thread_id,      &t.thread_pid, &t.thread_event, &t.start_func, &t.task_record, &t.cs};
  for (std::size_t i = 1; i < fields.size(); ++i) EXPECT_LT(fields[i - 1], fields[i]) << "field " << i;
}

TEST_F(TaskTest, VirtualOperationsStandInTheOrderThatProgramsCall) {
  EXPECT_EQ(vtable_slot(&OSTask::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSTask::Free), 3);
  EXPECT_EQ(vtable_slot(&OSTask::Main), 4);
  EXPECT_EQ(vtable_slot(&OSTask::Kill), -1);
  EXPECT_EQ(vtable_slot(&OSTask::Wake), -1);
  EXPECT_EQ(vtable_slot(&OSTask::Snooze), -1);
}

/// Any priority and stack size; optionally a start function. Main runs until it is stopped.
class SizedTask : public OSTask {
 public:
  SizedTask(UWORD task_priority, ULONG stack_bytes, OSFunction start = nullptr)
      : OSTask(task_priority, stack_bytes, nullptr, reinterpret_cast<ADDR>(start)) {
    LeaveCriticalSection(&cs);
  }
  void Main() override {
    stack = own_stack_bytes();
    char text[100];
    std::snprintf(text, sizeof text, "%.3f %s", 1.5, "a thread can format a line");
    formatted = text[0] == '1';
    main_runs.open();
    while (state_of(*this) != OS_ST_KILL) Sleep(1);
  }
  std::size_t stack = 0;
  bool formatted = false;
  Gate main_runs;
};

TEST_F(TaskTest, PriorityAndStackSizeAreAdjusted) {
  struct Row {
    UWORD priority;
    ULONG stksize;
    UWORD recorded_priority;
    ULONG recorded_stksize;
  };
  const Row rows[] = {{0, 0, 8, 800},       {1, 1, 1, 800},       {2, 799, 2, 800},
                      {3, 800, 3, 800},     {3, 1001, 3, 1004},   {4, 801, 4, 804},
                      {5, 804, 5, 804},     {6, 8000, 6, 8000},   {7, 100001, 7, 100004},
                      {8, 65536, 8, 65536}, {9, 65537, 8, 65540}, {65535, 802, 8, 804}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.priority) + ", " + std::to_string(row.stksize));
    Owned<SizedTask> task(row.priority, row.stksize);
    EXPECT_EQ(task->Priority(), row.recorded_priority);
    EXPECT_EQ(task->stksize, row.recorded_stksize);
    EXPECT_TRUE(task->main_runs.wait());
  }
  EXPECT_EQ(console.text(), "");
}

TEST_F(TaskTest, AStackSizeTheSystemRefusesMeansTheDefault) {
  std::size_t default_bytes = 0;
  on_thread([&default_bytes] { default_bytes = own_stack_bytes(); });
  ASSERT_NE(default_bytes, 0u);
  for (const ULONG bytes : {0u, 1u, 100u, 800u, 8000u, 16383u}) {
    SCOPED_TRACE(bytes);
    if (bytes != 0 && bytes >= static_cast<ULONG>(PTHREAD_STACK_MIN)) continue;
    Owned<SizedTask> task(UWORD{3}, bytes);
    ASSERT_TRUE(task->main_runs.wait());
    EXPECT_EQ(task->stack, default_bytes);
  }
}

TEST_F(TaskTest, AStackSizeTheSystemAcceptsIsUsableInFull) {
  const auto smallest = static_cast<ULONG>(PTHREAD_STACK_MIN);
  for (const ULONG bytes : {smallest, smallest + 1, 65536u, 100001u, 1048576u, 67108864u}) {
    SCOPED_TRACE(bytes);
    Owned<SizedTask> task(UWORD{3}, bytes);
    ASSERT_TRUE(task->main_runs.wait());
    EXPECT_GE(task->stack, bytes);
    EXPECT_TRUE(task->formatted);
  }
}

// ---- The start gate and the thread ---------------------------------------------------------------------------------

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

TEST_F(TaskTest, MainDoesNotRunBeforeTheStartGateIsLeft) {
  Owned<GatedTask> task;
  EXPECT_EQ(levels_held(task->cs), 1) << "the constructor returns with the gate closed";
  // The thread is under way when it has announced itself.
  EXPECT_TRUE(
      wait_until([&] { return std::atomic_ref<OSTask*>(OS_TASK).load() == task.get(); }, kPatienceMs));
  EXPECT_TRUE(
      wait_until([&] { return std::atomic_ref<int>(task->thread_pid).load() == getpid(); }, kPatienceMs));
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(task->main_runs);
  EXPECT_EQ(levels_held(OS_CRITICAL_TASK), 0);
  task->let_go();
  EXPECT_TRUE(wait_until([&] { return task->main_runs.load(); }, kPatienceMs));
}

TEST_F(TaskTest, MainNeverSeesAPartlyConstructedObject) {
  class Slow : public OSTask {
   public:
    explicit Slow(Gate& gate) : OSTask(3, 0, nullptr, nullptr), seen(gate) {
      for (int i = 0; i < 50; ++i) std::this_thread::yield();
      text = "complete";
      LeaveCriticalSection(&cs);
    }
    void Main() override {
      whole = text == "complete";
      seen.open();
      while (state_of(*this) != OS_ST_KILL) Sleep(1);
    }
    Gate& seen;
    std::string text;
    std::atomic<bool> whole{false};
  };
  for (int i = 0; i < 50; ++i) {
    Gate seen;
    Owned<Slow> task(seen);
    ASSERT_TRUE(seen.wait());
    EXPECT_TRUE(task->whole);
  }
}

TEST_F(TaskTest, TheThreadKnowsItsTask) {
  Gate done;
  OSTask* current = nullptr;
  OSTask* stored = nullptr;
  OSTask* global = nullptr;
  int pid = 0;
  HANDLE handle = 0;
  pthread_t thread = 0;
  Owned<FunctionTask> task([&](FunctionTask& self) {
    current = OSTask::GetCurrentTask();
    stored = static_cast<OSTask*>(pthread_getspecific(threadTaskKey));
    global = std::atomic_ref<OSTask*>(OS_TASK).load();
    pid = self.thread_pid;
    handle = OSTask::GetCurrentHandle();
    thread = pthread_self();
    done.open();
    while (state_of(self) != OS_ST_KILL) Sleep(1);
  });
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(current, task.get());
  EXPECT_EQ(stored, task.get());
  EXPECT_EQ(global, task.get());
  EXPECT_EQ(pid, getpid());
  EXPECT_EQ(thread, task->thread_id);
  EXPECT_EQ(handle, static_cast<HANDLE>(task->thread_id));
  EXPECT_EQ(OSTask::GetCurrentTask(), nullptr) << "this thread is no task";
  EXPECT_EQ(OSTask::GetCurrentHandle(), static_cast<HANDLE>(pthread_self()));
}

struct StartFunction {
  static inline Gate* begun = nullptr;
  static inline Gate* go_on = nullptr;
  static inline OSTask* task = nullptr;
  static void run() {
    task = OSTask::GetCurrentTask();
    begun->open();
    EXPECT_TRUE(go_on->wait());
  }
};

TEST_F(TaskTest, AStartFunctionRunsInPlaceOfMainWithoutWaitingForTheGate) {
  class Started : public OSTask {
   public:
    Started(std::atomic<int>& main_calls, std::atomic<int>& destroyed)
        : OSTask(3, 0, nullptr, reinterpret_cast<ADDR>(&StartFunction::run)),
          main_calls_(main_calls),
          destroyed_(destroyed) {}
    ~Started() override { ++destroyed_; }
    void Main() override { ++main_calls_; }

   private:
    std::atomic<int>& main_calls_;
    std::atomic<int>& destroyed_;
  };
  Gate begun;
  Gate go_on;
  StartFunction::begun = &begun;
  StartFunction::go_on = &go_on;
  std::atomic<int> main_calls{0};
  std::atomic<int> destroyed{0};
  auto* task = new Started(main_calls, destroyed);
  EXPECT_EQ(task->start_func, &StartFunction::run);
  EXPECT_TRUE(begun.wait()) << "the start function waits for the gate";
  EXPECT_EQ(StartFunction::task, task);
  EXPECT_EQ(levels_held(task->cs), 1);
  LeaveCriticalSection(&task->cs);
  go_on.open();
  // Nobody detached it, so the thread deletes it when the start function returns.
  EXPECT_TRUE(wait_until([&] { return destroyed == 1; }, kPatienceMs));
  EXPECT_EQ(main_calls, 0);
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(TaskTest, TheStartUpMarkerAsAStartFunctionMeansMain) {
  Owned<SizedTask> task(UWORD{3}, 0u, &os_task_startup);
  EXPECT_EQ(task->start_func, &os_task_startup);
  EXPECT_TRUE(task->main_runs.wait());
}

TEST_F(TaskTest, TheStartUpFunctionRunsMainOfTheLatestTaskAndKillsIt) {
  class Twice : public OSTask {
   public:
    Twice() : OSTask(3, 0, nullptr, nullptr) { LeaveCriticalSection(&cs); }
    void Main() override {
      calls.open();
      if (OSTask::GetCurrentTask() != this) return;
      while (state_of(*this) != OS_ST_KILL) Sleep(1);
    }
    Gate calls;
  };
  auto* task = new Twice;
  ASSERT_TRUE(task->calls.wait());
  os_task_startup();
  EXPECT_TRUE(task->calls.wait());
  EXPECT_EQ(state_of(*task), OS_ST_KILL);
  EXPECT_EQ(task->task_record, nullptr);
  delete task;
}

TEST_F(TaskTest, ATaskWithoutAMainIsAFatalErrorAndEnds) {
  auto* task = new OSTask(3, 0, nullptr, nullptr);
  const pthread_t thread = task->thread_id;
  LeaveCriticalSection(&task->cs);
  EXPECT_TRUE(wait_until([&] { return OSTask::FindTask(thread) == nullptr; }, kPatienceMs));
  EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSTask::Main No Program Main"});
  EXPECT_TRUE(threads_come_to(0));
}

// ---- Who deletes the object ------------------------------------------------------------------------------------------

/// Reports how it went, in counters that outlive it.
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

void until_stopped(ReportingTask& self) {
  while (state_of(self) != OS_ST_KILL) Sleep(1);
}

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
    task->Kill();  // and again: nothing
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
    go_on.open();
    EXPECT_TRUE(threads_come_to(0)) << "the thread is detached and ends by itself";
    EXPECT_EQ(report.main_returned, 1);
    EXPECT_EQ(report.destroyed, 0) << "the object belongs to the caller";
    task->Kill();
    delete task;
    EXPECT_EQ(report.destroyed, 1);
  }
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
  }
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

// ---- Snooze and Wake ---------------------------------------------------------------------------------------------------

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
  constexpr int kRounds = 2000;
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
  }
}

TEST_F(TaskTest, ATaskWaitsOnItsEventAndGetsEveryWake) {
  // The application's side of snoozing: an event made beforehand, since the first Wake would make it too late to
  // wait on.
  class Worker : public OSTask {
   public:
    Worker() : OSTask(3, 0, nullptr, nullptr) {
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
        sum += WakeCode();
      }
    }
    Gate snoozed;
    std::atomic<int> sum{0};
  };
  Owned<Worker> task;
  int expected = 0;
  for (UWORD code = 1; code <= 200; ++code) {
    ASSERT_TRUE(task->snoozed.wait());
    EXPECT_TRUE(task->Wake(code));
    expected += code;
  }
  ASSERT_TRUE(task->snoozed.wait());
  EXPECT_EQ(task->sum, expected);
}

// ---- Accessors and the registry ------------------------------------------------------------------------------------------

TEST_F(TaskTest, SetPriorityLooksAtTheOldValueOnly) {
  // Kept as it has always been: a task may be parked outside the levels, and stays there.
  struct Step {
    UWORD set;
    UWORD is;
  };
  const std::vector<std::vector<Step>> rows = {
      {{1, 1}, {8, 8}, {5, 5}},     {{0, 0}, {3, 0}, {8, 0}},       {{9, 9}, {3, 9}, {0, 9}},
      {{65535, 65535}, {1, 65535}}, {{8, 8}, {100, 100}, {8, 100}},
  };
  for (const std::vector<Step>& steps : rows) {
    Owned<IdleTask> task(UWORD{3});
    for (const Step& step : steps) {
      task->SetPriority(step.set);
      EXPECT_EQ(task->Priority(), step.is);
      EXPECT_EQ(task->priority, step.is);
    }
  }
}

TEST_F(TaskTest, FindTaskKnowsTasksByTheirThread) {
  Owned<> a;
  Owned<> b;
  EXPECT_EQ(OSTask::FindTask(a->thread_id), a.get());
  EXPECT_EQ(OSTask::FindTask(b->thread_id), b.get());
  EXPECT_EQ(OSTask::FindTask(pthread_self()), nullptr);
  a->Kill();
  EXPECT_EQ(OSTask::FindTask(b->thread_id), b.get());
}

TEST_F(TaskTest, CheckStackPrintsSpaceAndUsageOfTheLatestTask) {
  for (const ULONG stksize : {0u, 1001u, 70000u}) {
    Owned<SizedTask> task(UWORD{3}, stksize);
    ASSERT_TRUE(task->main_runs.wait());
    ASSERT_EQ(OS_TASK, task.get());
    console.clear();
    OSCheckStack();
    const std::string line = console.text();
    int space = 0;
    int usage = 0;
    int end = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "Stack space = %d usage = %d\r\n%n", &space, &usage, &end), 2)
        << line;
    EXPECT_EQ(line, "Stack space = " + std::to_string(space) + " usage = " + std::to_string(usage) + "\r\n");
    // Both are measured from the same address, so it cancels.
    EXPECT_EQ(static_cast<ULONG>(space) + static_cast<ULONG>(usage), task->stksize);
  }
}

// ---- A thread that cannot be created ---------------------------------------------------------------------------------------

TEST_F(TaskTest, ARefusedThreadIsReportedAndLeavesARegisteredTaskWithoutOne) {
  { Owned<> one_that_counts; }
  const int count = os_task_count;
  for (const int error : {EAGAIN, EPERM}) {
    for (const char* end : {"delete", "kill and delete", "stop and delete", "detach and delete"}) {
      const std::string how = end;
      SCOPED_TRACE(how);
      console.clear();
      thread_refusal = error;
      auto* task = new GatedTask;
      thread_refusal = 0;
      EXPECT_EQ(console.text(), "OSTask::OSTask Thread Create Failed " + std::to_string(error) +
                                    " (total so far " + std::to_string(count) + ")");
      EXPECT_EQ(os_task_count, count);
      EXPECT_EQ(levels_held(task->cs), 1);
      EXPECT_EQ(levels_held(OS_CRITICAL_TASK), 0);
      task->let_go();
      EXPECT_EQ(state_of(*task), OS_ST_OK);
      EXPECT_TRUE(is_registered(task));
      EXPECT_EQ(task->curstk, nullptr);
      EXPECT_FALSE(task->main_runs);
      EXPECT_EQ(OSTask::FindTask(pthread_self()), nullptr);
      if (how == "kill and delete") {
        task->Kill();
        EXPECT_EQ(state_of(*task), OS_ST_KILL);
      }
      if (how == "stop and delete") {
        task->_StopThread();
        EXPECT_EQ(state_of(*task), OS_ST_KILL);
      }
      if (how == "detach and delete") task->_LockDelete();
      delete task;  // joins no thread that does not exist
      EXPECT_FALSE(is_registered(task));
    }
  }
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(TaskTest, ARefusedThreadWithoutAConsoleIsNoCrash) {
  Console = nullptr;
  thread_refusal = EAGAIN;
  auto* task = new GatedTask;
  thread_refusal = 0;
  Console = &console;
  task->let_go();
  delete task;
}

TEST_F(TaskTest, ATaskWithoutAThreadIsStoppedWithTheOthers) {
  thread_refusal = EAGAIN;
  std::atomic<int> destroyed{0};
  new FunctionTask([](FunctionTask&) {}, 0, &destroyed);
  thread_refusal = 0;
  new FunctionTask(
      [](FunctionTask& self) {
        while (state_of(self) != OS_ST_KILL) Sleep(1);
      },
      0, &destroyed);
  Stop();
  EXPECT_EQ(destroyed, 2);
}

TEST_F(TaskTest, ARefusedTriggerTaskStillLetsTheKernelStopAndStartAgain) {
  Stop();
  cfg.trigger_stack = 8000;
  thread_refusal = EAGAIN;
  Start();
  thread_refusal = 0;
  EXPECT_EQ(console.count("OSTask::OSTask Thread Create Failed"), 1);
  Stop();
  Start();
  Gate ran;
  Script callback = [&ran] { ran.open(); };
  HandTrigger trigger;
  set_script(trigger, callback);
  trigger.ArmAndFire();
  EXPECT_TRUE(ran.wait());
}

// ---- The end of the task system ----------------------------------------------------------------------------------------------

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
  EXPECT_TRUE(threads_come_to(0));
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
            for (int spin = 0; spin < i * 20; ++spin) std::this_thread::yield();
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

TEST_F(TaskTest, StopHoldsNoSectionOverTheJoins) {
  // On their way out these tasks need every section of tasks, triggers and links, and new objects of each kind.
  Report report;
  for (int i = 0; i < 4; ++i) {
    new ReportingTask(report, [](ReportingTask& self) {
      until_stopped(self);
      OSTaskTag::SetName("leaving", 0);
      EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "leaving");
      EXPECT_EQ(OSTask::GetCurrentTask(), &self);
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
      for (ReportingTask*& child : children_) child = new ReportingTask(report, until_stopped);
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
