/// Small kinds of trigger and task, and ways for threads to meet, for the tests of triggers, dispatch and tasks.
#ifndef OSKERNEL_TESTS_TRIGGER_PROBES_H
#define OSKERNEL_TESTS_TRIGGER_PROBES_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "kernel/link.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/launcher.h"
#include "support/ring_check.h"

namespace oskernel_test {

inline constexpr int kPatienceMs = 30000;  ///< the longest any test waits for something that must happen
inline constexpr int kHungMs = 90000;  ///< a thread that is not where it should be by then never gets there
inline constexpr unsigned int kForEver = 0xFFFFFFFF;

// ---- Threads meet ------------------------------------------------------------------------------------------

/// Ends the program: a thread that hangs would hang the whole run without a word.
[[noreturn]] inline void give_up(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

/// A counting gate. Its waits follow the real clock, so they end while a test holds the kernel's tick still.
class Gate {
 public:
  Gate() { sem_init(&sem_, 0, 0); }
  ~Gate() { sem_destroy(&sem_); }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void open(int times = 1) {
    while (times-- > 0) sem_post(&sem_);
  }

  /// False when the gate has not been opened in time.
  [[nodiscard]] bool wait(int timeout_ms = kPatienceMs) {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += timeout_ms / 1000;
    until.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
      until.tv_nsec -= 1000000000L;
      ++until.tv_sec;
    }
    while (sem_timedwait(&sem_, &until) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }

 private:
  sem_t sem_;
};

/// Lets `parties` threads leave a point at about the same moment, as often as they like.
class Rendezvous {
 public:
  explicit Rendezvous(int parties) : parties_(parties) {}

  void meet() {
    const int round = round_.load();
    if (arrived_.fetch_add(1) + 1 == parties_) {
      arrived_.store(0);
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        round_.fetch_add(1);
      }
      all_here_.notify_all();
      return;
    }
    // Spinning lets all leave closest together; where processors are scarce the others need this one's.
    for (int spin = 0; spin < kSpins; ++spin) {
      if (round_.load() != round) return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    const auto all_here = [this, round] { return round_.load() != round; };
    if (!all_here_.wait_for(lock, std::chrono::milliseconds(kHungMs), all_here)) {
      give_up("not all threads come to their rendezvous");
    }
  }

 private:
  static constexpr int kSpins = 2000;

  const int parties_;
  std::atomic<int> arrived_{0};
  std::atomic<int> round_{0};
  std::mutex mutex_;
  std::condition_variable all_here_;
};

/// How often a test tries to bring about a rare moment: so many times, fewer on a machine that is busy otherwise.
///   for (Rounds rounds(1000); rounds.next();) ...
class Rounds {
 public:
  explicit Rounds(int most) : most_(most) {}
  bool next() { return done_++ < most_ && std::chrono::steady_clock::now() < end_at_; }

 private:
  static constexpr std::chrono::seconds kBudget{4};

  const int most_;
  int done_ = 0;
  const std::chrono::steady_clock::time_point end_at_ = std::chrono::steady_clock::now() + kBudget;
};

/// Has `threads` threads, the calling one among them, call `act` at about the same moment, at most `most` times.
/// Around each round the calling thread alone calls `before` and, when all have acted, `after`.
inline void all_at_once(int threads, int most, const std::function<void()>& before,
                        const std::function<void()>& act, const std::function<void()>& after) {
  Rendezvous start(threads);
  Rendezvous done(threads);
  std::atomic<bool> enough{false};
  std::vector<std::thread> others;
  for (int i = 1; i < threads; ++i) {
    others.emplace_back([&] {
      for (;;) {
        start.meet();
        if (enough) return;
        act();
        done.meet();
      }
    });
  }
  for (Rounds rounds(most); rounds.next();) {
    before();
    start.meet();
    act();
    done.meet();
    after();
  }
  enough = true;
  start.meet();
  for (std::thread& other : others) other.join();
}

/// Has several threads take so many steps each, all at the same time, each thread with random numbers of its own.
inline void steps_on_threads(int threads, int steps, unsigned seed,
                             const std::function<void(std::mt19937&)>& step) {
  Rendezvous start(threads);
  std::vector<std::thread> walkers;
  for (int n = 0; n < threads; ++n) {
    walkers.emplace_back([&, n] {
      std::mt19937 random(seed + static_cast<unsigned>(n));
      start.meet();
      for (int i = 0; i < steps; ++i) step(random);
    });
  }
  for (std::thread& walker : walkers) walker.join();
}

/// Runs `work` on a thread of its own and waits for it.
inline void on_thread(const std::function<void()>& work) {
  Gate ended;
  std::thread thread([&work, &ended] {
    work();
    ended.open();
  });
  if (!ended.wait(kHungMs)) give_up("a test's thread does not end");
  thread.join();
}

/// The threads of this process. One that has been joined may be counted for a moment longer.
inline int thread_count() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                        std::filesystem::directory_iterator()));
}

/// The threads of this process while no test runs: the main one, and a sanitizer's own. To be asked for the
/// first time from a namespace-scope initialiser.
inline int idle_thread_count() {
  static const int count = [] {
#if defined(__SANITIZE_THREAD__)
    constexpr int kAtRest = 2;  // the sanitizer starts its own thread with the first of the program
#else
    const int kAtRest = emulated() ? 2 : 1;  // an emulator has a thread of its own
#endif
    on_thread([] {});
    wait_until([&] { return thread_count() == kAtRest; }, kPatienceMs);
    return thread_count();
  }();
  return count;
}

/// The process comes to have exactly `more` threads beside the idle ones.
[[nodiscard]] inline bool threads_come_to(int more) {
  return wait_until([more] { return thread_count() == idle_thread_count() + more; }, kPatienceMs);
}

// ---- Sections and events -----------------------------------------------------------------------------------

class TriggerSection {
 public:
  TriggerSection() { EnterCriticalSection(&OS_CRITICAL_TRIGGER); }
  ~TriggerSection() { LeaveCriticalSection(&OS_CRITICAL_TRIGGER); }
  TriggerSection(const TriggerSection&) = delete;
  TriggerSection& operator=(const TriggerSection&) = delete;
};

/// How many levels of the section the calling thread holds.
inline int levels_held(CRITICAL_SECTION& section) {
  std::atomic_ref<pthread_t> owner(section.owner_thread_id);
  return owner.load(std::memory_order_relaxed) == pthread_self() ? section.owner_count : 0;
}

/// Another thread can enter the section now (and leaves it again).
inline bool is_free_for_others(CRITICAL_SECTION& section) {
  // TryEnterCriticalSection records no owner, so it is no good for a section that must be left again.
  return std::atomic_ref<pthread_t>(section.owner_thread_id).load() == 0;
}

/// Takes every signal that an event holds and says how many there were.
inline int drain(HANDLE event) {
  int signals = 0;
  while (WaitForSingleObject(event, 0) == 0) ++signals;
  return signals;
}

/// Takes one signal, waiting for it by the real clock.
[[nodiscard]] inline bool take_signal(HANDLE event) {
  return wait_until([event] { return WaitForSingleObject(event, 0) == 0; }, kPatienceMs);
}

// ---- Lists -------------------------------------------------------------------------------------------------

/// The triggers on a trigger list, in order. Checks every pointer and the count.
inline std::vector<OSTrigger*> triggers_on(const OSLinkList& list) {
  std::vector<OSTrigger*> found;
  EXPECT_TRUE(ListIsSound(list));
  for (OSLink* node : ring_nodes(list)) found.push_back(as<OSTrigger>(node->object));
  return found;
}

inline bool is_on(const OSLinkList& list, const OSTrigger* trigger) {
  const std::vector<OSTrigger*> found = triggers_on(list);
  return std::find(found.begin(), found.end(), trigger) != found.end();
}

using Triggers = std::vector<OSTrigger*>;

/// Something to queue. Its owner keeps it, so flushing a queue only lets it go.
class Item : public OSLinkListObj {
 public:
  void Free() override {}
};

// ---- Callbacks ---------------------------------------------------------------------------------------------

inline OSObj* as_obj(void* pointer) { return static_cast<OSObj*>(pointer); }

template <class T>
T& from_obj(OSObj* obj) {
  return *reinterpret_cast<T*>(obj);
}

/// Callback: adds one to the std::atomic<int> that obj points to.
inline void count_call(OSObj* obj, ADDR, ULONG) { from_obj<std::atomic<int>>(obj).fetch_add(1); }

using Script = std::function<void()>;

/// Callback: runs the Script that obj points to.
inline void run_script(OSObj* obj, ADDR, ULONG) { from_obj<Script>(obj)(); }

inline void set_script(OSTrigger& trigger, Script& script) {
  trigger.SetCallback(run_script, as_obj(&script), nullptr, 0);
}

using PollScript = std::function<BOOL(OSTrigger*)>;

/// Poll functions with one answer.
inline BOOL never(OSTrigger*, OSObj*, ADDR, ULONG) { return FALSE; }
inline BOOL always(OSTrigger*, OSObj*, ADDR, ULONG) { return TRUE; }

/// Poll function: runs the PollScript that obj points to.
inline BOOL run_poll_script(OSTrigger* trigger, OSObj* obj, ADDR, ULONG) {
  return from_obj<PollScript>(obj)(trigger);
}

// ---- Kinds of trigger --------------------------------------------------------------------------------------

/// A kind without a watch list: armed, fired and moved by hand.
class HandTrigger : public OSTrigger {
 public:
  explicit HandTrigger(OSTrAction action_to_do = OS_TA_FUNC) : OSTrigger(action_to_do) {}
  ~HandTrigger() override { OSTrigger::Inactive(); }
  void Check() override {
    if (!condition) return;
    reason = 3;
    Activate();
  }

  void Arm() { Wait(); }
  /// Armed and fired: on a ready list, or actioned at once where `async` and `action` say so.
  void ArmAndFire() {
    Wait();
    Fire();
  }

  using OSTrigger::Actioned;
  using OSTrigger::Activate;
  using OSTrigger::Inactive;
  using OSTrigger::Ready;
  using OSTrigger::ReadyAppend;
  using OSTrigger::ReadyRemove;
  using OSTrigger::Wait;

  bool condition = false;  ///< what Check tests
};

/// A trigger whose callback stops inside until it is let go on.
struct StoppingTrigger {
  Gate begun;
  Gate go_on;
  Script callback = [this] {
    begun.open();
    EXPECT_TRUE(go_on.wait());
  };
  HandTrigger trigger;
  std::thread dispatcher;

  StoppingTrigger() { set_script(trigger, callback); }
  /// Has another thread dispatch the trigger, and returns when that is inside the callback.
  void stop_inside(const std::function<void()>& dispatch) {
    dispatcher = std::thread(dispatch);
    EXPECT_TRUE(begun.wait());
  }
  /// Lets the callback end, and waits for what its dispatcher does after it.
  void let_go() {
    go_on.open();
    dispatcher.join();
  }
};

/// A kind of the library whose protected operations a test may call.
template <class Kind>
class Exposed : public Kind {
 public:
  using Kind::Kind;
  ~Exposed() override { Kind::Inactive(); }

  using Kind::Actioned;
  using Kind::Inactive;
  using Kind::Ready;
  using Kind::ReadyRemove;
  using Kind::Wait;
};

/// A timer that counts its checks. With `deaf` set it never notices that it has expired.
class CheckedTimer : public OSTimerTrigger {
 public:
  explicit CheckedTimer(ULONG duration_ms) : OSTimerTrigger(duration_ms, 1) {}
  ~CheckedTimer() override { OSTimerTrigger::Inactive(); }
  void Check() override {
    ++checks;
    if (!deaf) OSTimerTrigger::Check();
  }
  std::atomic<int> checks{0};
  bool deaf = false;
};

/// Gives the calling thread a ready list of its own for as long as this object lives.
class OwnDispatch {
 public:
  OwnDispatch() { OSTrigger::TLSInitialise(); }
  ~OwnDispatch() { OSTrigger::TLSUninitialise(); }
  OwnDispatch(const OwnDispatch&) = delete;
  OwnDispatch& operator=(const OwnDispatch&) = delete;

  static OSTriggerTLS& tls() {
    return *static_cast<OSTriggerTLS*>(pthread_getspecific(OSTriggerTLS::tls_key));
  }
};

// ---- Tasks -------------------------------------------------------------------------------------------------

/// The state as a task's own loop must read it: other threads change it while the loop runs.
inline OSTState state_of(OSTask& task) {
  return std::atomic_ref<OSTState>(task.state).load(std::memory_order_acquire);
}

/// A task that runs a function. Deletes itself when the function returns, unless it has been detached.
class FunctionTask : public OSTask {
 public:
  using Body = std::function<void(FunctionTask&)>;

  explicit FunctionTask(Body body, ULONG stack_bytes = 0, std::atomic<int>* destroyed = nullptr)
      : OSTask(3, stack_bytes, nullptr, nullptr), body_(std::move(body)), destroyed_(destroyed) {
    LeaveCriticalSection(&cs);
  }
  ~FunctionTask() override {
    if (destroyed_ != nullptr) destroyed_->fetch_add(1);
  }
  void Main() override { body_(*this); }

 private:
  Body body_;
  std::atomic<int>* destroyed_;
};

/// A task that does nothing until it is stopped.
class IdleTask : public OSTask {
 public:
  explicit IdleTask(UWORD task_priority = 3) : OSTask(task_priority, 0, nullptr, nullptr) {
    LeaveCriticalSection(&cs);
  }
  void Main() override {
    while (state_of(*this) != OS_ST_KILL) Sleep(1);
  }
};

/// Kills and deletes a task when the scope ends.
template <class Task = IdleTask>
class Owned {
 public:
  template <class... Arguments>
  explicit Owned(Arguments&&... arguments) : task_(new Task(std::forward<Arguments>(arguments)...)) {}
  ~Owned() {
    task_->Kill();
    delete task_;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  Task* operator->() { return task_; }
  Task& operator*() { return *task_; }
  Task* get() { return task_; }

 private:
  Task* task_;
};

}  // namespace oskernel_test

#endif
