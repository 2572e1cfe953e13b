// The end of a process, and of the library, while the kernel runs: no hang, no crash, the program's own exit code.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kernel/io.h"
#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

constexpr int kOwnCode = 7;

/// In a process of its own a failed expectation is not seen; this ends it with another code.
void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "in the ending process: %s\n", what);
  _exit(99);
}

/// Kills a process that hangs instead of ending.
void end_in_time() { alarm(60); }

[[noreturn]] void wait_for_the_end() {
  for (;;) pause();
}

/// Everything that a program may have going when it ends. Nothing of it is ever destroyed.
struct Busy {
  std::atomic<int> calls{0};
  Script again = [this] {
    ++calls;
    timer->Clear();
  };
  PollScript ask = [this](OSTrigger*) -> BOOL {
    ++calls;
    return FALSE;
  };
  std::unique_ptr<OSTimerTrigger> timer;
  std::unique_ptr<OSPollTrigger> poll;
  OSProtectedQueue queue;
  std::unique_ptr<OSQTrigger> on_queue;
  Script drain_queue = [this] {
    ++calls;
    while (OSListObj* first = queue.FirstObject()) queue.Remove(as<Item>(first));
    on_queue->Clear();
  };
  Item item;
  std::vector<OSTask*> tasks;
  Gate waits;

  Busy() {
    {
      TriggerSection section;  // no dispatch before the callbacks are set
      timer = std::make_unique<OSTimerTrigger>(1, 0);
      set_script(*timer, again);
      poll = std::make_unique<OSPollTrigger>(run_poll_script, as_obj(&ask), nullptr, 0u);
      on_queue = std::make_unique<OSQTrigger>(&queue, 1u, 0u, 0u);
      set_script(*on_queue, drain_queue);
    }
    queue.Append(&item);
    tasks = {new IdleTask, new Sleeper, new FunctionTask([this](FunctionTask& self) {
               self.thread_event = CreateEvent(nullptr, false, false, nullptr);
               waits.open();
               while (state_of(self) != OS_ST_KILL) WaitForSingleObject(self.thread_event, kForEver);
             })};
    require(waits.wait(), "a task does not run");
    OSTaskTag::SetName("main", 0);
    require(wait_until([this] { return calls > 10; }, kPatienceMs), "the kernel does not run");
  }
};

/// Found by a leak check through this.
Busy* busy = nullptr;

/// Of the program's own static objects: destroyed while exit() runs and the kernel still dispatches.
void make_static_objects() {
  static Script& nothing = *new Script([] {});  // may be running when the triggers go
  static OSTimerTrigger timer(1, 0);
  static HandTrigger hand;
  static OSIndirectList list;
  static OSIO layer;
  set_script(timer, nothing);
  set_script(hand, nothing);
  hand.ArmAndFire();
  list.Append(&layer);
}

class KernelExit : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
  void make_busy() {
    end_in_time();
    Start();
    busy = new Busy;
    make_static_objects();
  }
  void fire_in_trigger_task(Script script) {
    static HandTrigger* trigger = nullptr;
    trigger = new HandTrigger;
    set_script(*trigger, *new Script(std::move(script)));
    trigger->ArmAndFire();
  }
};

TEST_F(KernelExit, ByExitOfTheMainThread) {
  EXPECT_EXIT(
      {
        make_busy();
        std::exit(kOwnCode);
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(KernelExit, ByExitInATasksMain) {
  EXPECT_EXIT(
      {
        make_busy();
        busy->tasks.push_back(new FunctionTask([](FunctionTask&) { std::exit(kOwnCode); }));
        wait_for_the_end();
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(KernelExit, ByExitInATriggersCallback) {
  EXPECT_EXIT(
      {
        make_busy();
        fire_in_trigger_task([] { std::exit(kOwnCode); });
        wait_for_the_end();
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(KernelExit, ByExitInAThreadWithAListOfItsOwn) {
  EXPECT_EXIT(
      {
        make_busy();
        std::thread([] {
          const OwnDispatch list;
          Script end = [] { std::exit(kOwnCode); };
          HandTrigger trigger;
          set_script(trigger, end);
          trigger.ArmAndFire();
          OSTrigger::TLSPoll();
        }).detach();
        wait_for_the_end();
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(KernelExit, WithoutAnyDestructor) {
  EXPECT_EXIT(
      {
        make_busy();
        _exit(kOwnCode);
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(KernelExit, AfterAStopThatLeftTriggersBehind) {
  EXPECT_EXIT(
      {
        make_busy();
        Stop();
        std::exit(kOwnCode);
      },
      testing::ExitedWithCode(kOwnCode), "");
}

// ---- The library goes ------------------------------------------------------------------------------------------

/// A copy of the library under another name, loaded beside the one that this program is linked with, so that it
/// can be closed.
class LoadedCopy {
 public:
  LoadedCopy() {
    end_in_time();
    Dl_info own{};
    require(dladdr(reinterpret_cast<void*>(&os_startup), &own) != 0, "where is the library");
    std::string path = testing::TempDir() + "oskernel-copy-XXXXXX";
    const int file = mkstemp(path.data());
    require(file >= 0, "no room for a copy");
    close(file);
    std::filesystem::copy_file(own.dli_fname, path, std::filesystem::copy_options::overwrite_existing);
    library_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    unlink(path.c_str());
    require(library_ != nullptr, "the copy cannot be loaded");
    find(startup, "os_startup");
    find(cleanup, "os_cleanup");
    find(trigger_task, "OS_TRIG_TASK");
    require(startup != &os_startup, "the copy is none");
  }
  void unload() { require(dlclose(library_) == 0, "the copy cannot be closed"); }

  decltype(&os_startup) startup = nullptr;
  decltype(&os_cleanup) cleanup = nullptr;
  OSTriggerTask** trigger_task = nullptr;

 private:
  template <class Pointer>
  void find(Pointer& pointer, const char* name) {
    pointer = reinterpret_cast<Pointer>(dlsym(library_, name));
    require(pointer != nullptr, name);
  }

  void* library_ = nullptr;
};

class LibraryClosed : public KernelExit {
 protected:
  void SetUp() override {
    KernelExit::SetUp();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "needs a build without sanitizers: they refuse a library that looks in itself first";
#endif
  }
};

TEST_F(LibraryClosed, BeforeItWasEverStarted) {
  EXPECT_EXIT(
      {
        LoadedCopy copy;
        copy.unload();
        std::exit(kOwnCode);
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(LibraryClosed, WhileItsThreadsRun) {
  EXPECT_EXIT(
      {
        LoadedCopy copy;
        copy.startup(nullptr, 0, nullptr);
        require(*copy.trigger_task != nullptr, "the copy has not started");
        copy.unload();
        copy.cleanup();  // wakes both threads, and joins them
        require(*copy.trigger_task == nullptr, "the copy has not stopped");
        copy.startup(nullptr, 0, nullptr);
        std::exit(kOwnCode);
      },
      testing::ExitedWithCode(kOwnCode), "");
}

TEST_F(LibraryClosed, AfterAStop) {
  EXPECT_EXIT(
      {
        LoadedCopy copy;
        copy.startup(nullptr, 0, nullptr);
        copy.cleanup();
        copy.unload();
        std::exit(kOwnCode);
      },
      testing::ExitedWithCode(kOwnCode), "");
}

}  // namespace
