// Threads that the system creates for tasks, and threads that it refuses.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

// ---- Threads may be watched and refused -------------------------------------------------------------------

namespace {

std::atomic<int> thread_refusal{0};                ///< what creating a thread returns; 0 creates it
std::atomic<std::size_t> largest_stack{SIZE_MAX};  ///< a thread with a larger one is refused with EAGAIN
std::atomic<int> attempts{0};

using Watch = std::function<void(const pthread_attr_t*)>;
thread_local const Watch* watch = nullptr;  ///< called for each thread that this thread wants to create

std::size_t stack_bytes(const pthread_attr_t* attributes) {
  std::size_t bytes = 0;
  if (attributes != nullptr) pthread_attr_getstacksize(attributes, &bytes);
  return bytes;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*entry)(void*),
                                                                     void* argument) noexcept {
  ++attempts;
  if (watch != nullptr) (*watch)(attributes);
  if (const int refusal = thread_refusal; refusal != 0) {
    *thread = static_cast<pthread_t>(0x5A5A5A5A);  // means nothing then
    return refusal;
  }
  if (stack_bytes(attributes) > largest_stack) return EAGAIN;
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return next(thread, attributes, entry, argument);
}

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

class TaskCreate : public TaskTest {
 protected:
  void TearDown() override {
    watch = nullptr;
    thread_refusal = 0;
    largest_stack = SIZE_MAX;
    TaskTest::TearDown();
  }
};

// ---- A thread that is created -----------------------------------------------------------------------------

TEST_F(TaskCreate, TheThreadIsCreatedInsideTheTaskSectionWithTheGateClosed) {
  Owned<> other;
  const int count = os_task_count;
  int calls = 0;
  const Watch look = [&](const pthread_attr_t* attributes) {
    ++calls;
    EXPECT_EQ(levels_held(OS_CRITICAL_TASK), 1);
    ASSERT_EQ(registered().size(), 2u);
    OSTask* const task = registered().back();
    EXPECT_EQ(levels_held(task->cs), 1);
    EXPECT_EQ(task->task_record->task, task);
    EXPECT_EQ(task->thread_id, pthread_t{0});
    EXPECT_EQ(task->thread_event, 0);
    EXPECT_EQ(os_task_count, count) << "counted when it has been created";
    int detached = PTHREAD_CREATE_DETACHED;
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(pthread_attr_getdetachstate(attributes, &detached), 0);
    EXPECT_EQ(detached, PTHREAD_CREATE_JOINABLE);
  };
  watch = &look;
  Owned<GatedTask> task;
  watch = nullptr;
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(levels_held(task->cs), 1);
  EXPECT_EQ(levels_held(OS_CRITICAL_TASK), 0);
  EXPECT_EQ(os_task_count, count + 1);
  task->let_go();
}

TEST_F(TaskCreate, TheStackIsAskedForAsTheCallerGaveIt) {
  // Neither rounded nor raised to the recorded minimum; with some more for the C library, and not at all for 0.
  std::size_t default_bytes = 0;
  pthread_attr_t fresh;
  pthread_attr_init(&fresh);
  default_bytes = stack_bytes(&fresh);
  // 64-bit ARM, whose pages may have 64 KiB, wants more than the others.
  ULONG smallest = 1;
  while (pthread_attr_setstacksize(&fresh, smallest) != 0 && smallest < 200000) smallest *= 2;
  pthread_attr_destroy(&fresh);
  for (const ULONG bytes : {0u, 1u, 100001u, 200001u, 1048577u}) {
    SCOPED_TRACE(bytes);
    std::size_t asked = 0;
    const Watch look = [&asked](const pthread_attr_t* attributes) { asked = stack_bytes(attributes); };
    watch = &look;
    Owned<> task_with_default_stack;
    EXPECT_EQ(asked, default_bytes);
    Owned<FunctionTask> task(until_stopped, bytes);
    watch = nullptr;
    if (bytes < smallest) {
      EXPECT_EQ(asked, default_bytes);
    } else {
      EXPECT_EQ(asked, bytes + 65536u);
    }
  }
}

TEST_F(TaskCreate, AStackThatCannotBeHadMeansTheDefault) {
  largest_stack = 32U * 1024 * 1024;
  const int count = os_task_count;
  attempts = 0;
  {
    Owned<FunctionTask> task(until_stopped, 64U * 1024 * 1024);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(os_task_count, count + 1);
    EXPECT_EQ(task->stksize, 64U * 1024 * 1024);
    EXPECT_EQ(OSTask::FindTask(task->thread_id), task.get());
  }
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(threads_come_to(0));
}

// ---- A thread that is refused -----------------------------------------------------------------------------

TEST_F(TaskCreate, ARefusedThreadIsReportedAndLeavesARegisteredTaskWithoutOne) {
  { Owned<> one_that_counts; }
  const int count = os_task_count;
  for (const int error : {EAGAIN, EPERM}) {
    for (const char* end :
         {"delete", "kill and delete", "stop and delete", "detach and delete", "clean up after"}) {
      const std::string how = end;
      SCOPED_TRACE(how);
      console.clear();
      thread_refusal = error;
      attempts = 0;
      auto* task = new GatedTask;
      thread_refusal = 0;
      EXPECT_EQ(attempts, 1) << "without a stack size there is nothing else to try";
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
      EXPECT_EQ(task->thread_id, pthread_t{0});
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
      if (how == "clean up after") {
        OSThreadCleanup(task->task_record);  // deletes it, since its record names it
      } else {
        delete task;  // joins no thread that does not exist
      }
      EXPECT_FALSE(is_registered(task));
    }
  }
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(TaskCreate, ATaskWithAStackSizeIsRefusedOnceWhenTheDefaultIsRefusedToo) {
  thread_refusal = ENOMEM;
  attempts = 0;
  {
    std::atomic<int> destroyed{0};
    auto* task = new FunctionTask(until_stopped, 100000, &destroyed);
    EXPECT_EQ(attempts, 2);
    EXPECT_EQ(console.calls().size(), 1u);
    EXPECT_EQ(console.count("OSTask::OSTask Thread Create Failed " + std::to_string(ENOMEM)), 1);
    delete task;
    EXPECT_EQ(destroyed, 1);
  }
}

TEST_F(TaskCreate, TheLargestStackSizesAreRecordedWithoutPassing32Bits) {
  thread_refusal = EAGAIN;  // no such stack is to be had in earnest
  for (const ULONG bytes : {0xFFFFFFFBu, 0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFFu}) {
    auto* task = new FunctionTask(until_stopped, bytes);
    EXPECT_EQ(task->stksize, 0xFFFFFFFCu) << bytes;
    delete task;
  }
}

TEST_F(TaskCreate, ATaskWithoutAThreadLeavesTagsOfNoThreadAlone) {
  thread_refusal = EAGAIN;
  auto* task = new GatedTask;
  thread_refusal = 0;
  task->let_go();
  {
    OSTaskTag tag;  // for thread 0 until it is given one
    delete task;
    EXPECT_EQ(OSTaskTag::FindTag(pthread_t{0}), &tag);
  }
}

TEST_F(TaskCreate, ARefusedThreadIsReportedOutsideTheTaskSection) {
  class Asking : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      levels += levels_held(OS_CRITICAL_TASK);
      RecordingConsole::vPrint(format, arguments);
    }
    int levels = 0;
  } asking;
  Console = &asking;
  thread_refusal = EAGAIN;
  auto* task = new GatedTask;
  thread_refusal = 0;
  Console = &console;
  EXPECT_EQ(asking.calls().size(), 1u);
  EXPECT_EQ(asking.levels, 0);
  task->let_go();
  delete task;
}

TEST_F(TaskCreate, ARefusedThreadWithoutAConsoleIsNoCrash) {
  Console = nullptr;
  thread_refusal = EAGAIN;
  auto* task = new GatedTask;
  thread_refusal = 0;
  Console = &console;
  task->let_go();
  delete task;
}

TEST_F(TaskCreate, ATaskWithoutAThreadIsStoppedWithTheOthers) {
  Report report;
  thread_refusal = EAGAIN;
  new ReportingTask(report, until_stopped);
  thread_refusal = 0;
  new ReportingTask(report, until_stopped);
  Stop();
  EXPECT_EQ(report.destroyed, 2);
  EXPECT_EQ(report.destroyed_stopped, 2) << "neither had to be left to its destructor";
  EXPECT_EQ(report.destroyed_after_main, 1);
}

TEST_F(TaskCreate, ARefusedTriggerTaskStillLetsTheKernelStopAndStartAgain) {
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

}  // namespace
