// Tasks: the object, its thread and the start gate, accessors and the registry.

#include "kernel/task.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/task_watch.h"
#include "support/vtable_slot.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

static_assert(OS_ST_HOLD == 0 && OS_ST_OK == 1 && OS_ST_KILL == 2);
static_assert(std::is_base_of_v<OSLinkListObj, OSTask>);
static_assert(sizeof(OSTaskRecord) == sizeof(OSTask*));
static_assert(std::is_same_v<decltype(OSTaskRecord::task), OSTask*>);
static_assert(std::is_same_v<decltype(OSTask::curstk), UBYTE*>);
static_assert(std::is_same_v<decltype(OSTask::pntcb), OSTask*>);
static_assert(std::is_same_v<decltype(OSTask::pltcb), OSTask*>);
static_assert(std::is_same_v<decltype(OSTask::stkbot), UBYTE*>);
static_assert(std::is_same_v<decltype(OSTask::proc_time), ULONG>);
static_assert(std::is_same_v<decltype(OSTask::priority), UWORD>);
static_assert(std::is_same_v<decltype(OSTask::state), OSTState>);
static_assert(std::is_same_v<decltype(OSTask::userdata), ADDR>);
static_assert(std::is_same_v<decltype(OSTask::thread_pid), int>);
static_assert(std::is_same_v<decltype(OSTask::start_func), OSFunction>);
static_assert(std::is_same_v<decltype(OSTask::task_record), OSTaskRecord*>);
static_assert(std::is_same_v<decltype(OSTask::cs), CRITICAL_SECTION>);
static_assert(std::is_same_v<decltype(OSTask::stksize), ULONG>);
static_assert(std::is_same_v<decltype(OSTask::rcode), UWORD>);
static_assert(std::is_same_v<decltype(OSTask::max_time), UWORD>);
static_assert(std::is_same_v<decltype(OSTask::thread_event), HANDLE>);
static_assert(std::is_same_v<decltype(OSTask::thread_id), pthread_t>);
static_assert(std::is_same_v<decltype(OSTask::all_tasks), OSIndirectList*>);

/// Stack size of the calling thread.
std::size_t own_stack_bytes() {
  pthread_attr_t attributes;
  std::size_t bytes = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  pthread_attr_getstacksize(&attributes, &bytes);
  pthread_attr_destroy(&attributes);
  return bytes;
}

// ---- Construction -----------------------------------------------------------------------------------------

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
                      {8, 65536, 8, 65536}, {9, 65537, 8, 65540}, {65535, 802, 8, 804},
                      {3, 803, 3, 804},     {3, 805, 3, 808}};
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

// ---- The start gate and the thread ------------------------------------------------------------------------

TEST_F(TaskTest, MainDoesNotRunBeforeTheStartGateIsLeft) {
  Owned<GatedTask> task;
  EXPECT_EQ(levels_held(task->cs), 1) << "the constructor returns with the gate closed";
  // The thread is under way when it has announced itself.
  EXPECT_TRUE(
      wait_until([&] { return std::atomic_ref<OSTask*>(OS_TASK).load() == task.get(); }, kPatienceMs));
  EXPECT_TRUE(
      wait_until([&] { return std::atomic_ref<int>(task->thread_pid).load() == getpid(); }, kPatienceMs));
  for (int i = 0; i < 50; ++i) std::this_thread::yield();
  EXPECT_FALSE(task->main_runs);
  EXPECT_EQ(levels_held(OS_CRITICAL_TASK), 0);
  task->let_go();
  EXPECT_TRUE(wait_until([&] { return task->main_runs.load(); }, kPatienceMs));
}

TEST_F(TaskTest, MainNeverSeesAPartlyConstructedObject) {
  class Slow : public OSTask {
   public:
    explicit Slow(Gate& gate) : OSTask(3, 0, nullptr, nullptr), seen(gate) {
      for (int i = 0; i < 5; ++i) std::this_thread::yield();
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
  for (int i = 0; i < 20; ++i) {
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
  int gate_levels = -1;
  Owned<FunctionTask> task([&](FunctionTask& self) {
    gate_levels = levels_held(self.cs);
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
  EXPECT_EQ(gate_levels, 0) << "the gate is entered and left again";
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

TEST_F(TaskTest, TheBaseMainKillsWhatAnotherThreadCallsItFor) {
  auto* task = new GatedTask;
  task->let_go();
  task->OSTask::Main();
  EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSTask::Main No Program Main"});
  EXPECT_EQ(state_of(*task), OS_ST_KILL);
  EXPECT_EQ(task->task_record, nullptr);
  delete task;
}

TEST_F(TaskTest, ATaskWithoutAMainEndsWithoutAConsoleToo) {
  Console = nullptr;
  auto* task = new OSTask(3, 0, nullptr, nullptr);
  const pthread_t thread = task->thread_id;
  LeaveCriticalSection(&task->cs);
  EXPECT_TRUE(wait_until([&] { return OSTask::FindTask(thread) == nullptr; }, kPatienceMs));
  EXPECT_TRUE(threads_come_to(0));
  Console = &console;
}

TEST_F(TaskTest, ATaskWithoutAMainIsAFatalErrorAndEnds) {
  auto* task = new OSTask(3, 0, nullptr, nullptr);
  const pthread_t thread = task->thread_id;
  LeaveCriticalSection(&task->cs);
  EXPECT_TRUE(wait_until([&] { return OSTask::FindTask(thread) == nullptr; }, kPatienceMs));
  EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSTask::Main No Program Main"});
  EXPECT_TRUE(threads_come_to(0));
}

// ---- Accessors and the registry ---------------------------------------------------------------------------

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
    // The space is counted from a stack bottom of null, so it is an address in this thread's stack, cut to 32
    // bits.
    const auto here =
        static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)));
    EXPECT_LT(std::abs(static_cast<std::int32_t>(here - static_cast<std::uint32_t>(space))), 0x100000);
  }
}

TEST_F(TaskTest, CheckStackMeasuresFromTheBottomOfAStackThatTheTaskHas) {
  alignas(8) static UBYTE block[1000];
  auto* pool = new (block) OSMemPool(sizeof block, 0);
  Owned<SizedTask> task(UWORD{3}, 2000u);
  ASSERT_TRUE(task->main_runs.wait());
  task->stkbot = static_cast<UBYTE*>(pool->Allocate(100));
  ASSERT_NE(task->stkbot, nullptr);
  console.clear();
  OSCheckStack();
  int space = 0;
  ASSERT_EQ(std::sscanf(console.text().c_str(), "Stack space = %d", &space), 1) << console.text();
  const auto expected =
      static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) -
                                 reinterpret_cast<std::uintptr_t>(task->stkbot));
  EXPECT_LT(std::abs(static_cast<std::int32_t>(expected - static_cast<std::uint32_t>(space))), 0x100000);
}

TEST_F(TaskTest, CheckStackWithoutATaskOrAConsolePrintsNothing) {
  ASSERT_EQ(OS_TASK, nullptr);
  OSCheckStack();
  EXPECT_EQ(console.text(), "");
  Owned<SizedTask> task(UWORD{3}, 0u);
  ASSERT_TRUE(task->main_runs.wait());
  Console = nullptr;
  OSCheckStack();
  Console = &console;
  EXPECT_EQ(console.text(), "");
}

TEST_F(TaskTest, ATasksStackFromAPoolGoesBackWithIt) {
  alignas(8) static UBYTE block[1000];
  auto* pool = new (block) OSMemPool(sizeof block, 0);
  const ULONG free_before = pool->FreeSpace();
  {
    Owned<> task;
    task->stkbot = static_cast<UBYTE*>(pool->Allocate(100));
    ASSERT_NE(task->stkbot, nullptr);
    EXPECT_LT(pool->FreeSpace(), free_before);
  }
  EXPECT_EQ(pool->FreeSpace(), free_before);
}

TEST_F(TaskTest, TheLatestTaskIsForgottenWhenItGoes) {
  auto* first = new GatedTask;
  first->let_go();
  ASSERT_TRUE(wait_until([&] { return first->main_runs.load(); }, kPatienceMs));
  EXPECT_EQ(OS_TASK, first);
  auto* second = new GatedTask;
  second->let_go();
  ASSERT_TRUE(wait_until([&] { return second->main_runs.load(); }, kPatienceMs));
  EXPECT_EQ(OS_TASK, second);
  first->Kill();
  delete first;
  EXPECT_EQ(OS_TASK, second) << "another task's end is nothing to it";
  second->Kill();
  EXPECT_EQ(OS_TASK, second);
  delete second;
  EXPECT_EQ(OS_TASK, nullptr);
  os_task_startup();  // nobody's Main to run
}

TEST_F(TaskTest, OfTwoTasksWithOneThreadIdTheFirstIsFound) {
  // A task that has been stopped keeps an id that the system gives out again.
  Owned<> first;
  Owned<> second;
  const pthread_t thread = second->thread_id;
  EnterCriticalSection(&OS_CRITICAL_TASK);
  const pthread_t own = first->thread_id;
  first->thread_id = thread;
  EXPECT_EQ(OSTask::FindTask(thread), first.get());
  first->thread_id = own;
  LeaveCriticalSection(&OS_CRITICAL_TASK);
  EXPECT_EQ(OSTask::FindTask(thread), second.get());
}

}  // namespace
