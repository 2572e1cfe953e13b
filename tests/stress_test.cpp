// Everything at once for a few seconds, and start and stop a thousand times: no signal is lost, no trigger is
// actioned twice for one arming, nothing is used after it was freed, and nothing grows.

#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/task_watch.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

/// How long the mixed stress runs; OSKERNEL_STRESS_MS lets it run longer.
std::chrono::milliseconds stress_time() {
  const char* given = std::getenv("OSKERNEL_STRESS_MS");
  return std::chrono::milliseconds(given != nullptr ? std::strtol(given, nullptr, 10) : 5000);
}

class Stress : public KernelTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(console.fatals(), std::vector<std::string>{});
    EXPECT_EQ(console.count("Thread Create Failed"), 0);
    KernelTest::TearDown();
  }
};

/// Threads that work until they are told to end.
class Crew {
 public:
  explicit Crew(unsigned seed) : seed_(seed) {}
  ~Crew() { end(); }

  /// `shift` runs again and again on a thread of its own.
  void add(const std::function<void(std::mt19937&)>& shift) {
    const unsigned seed = seed_ + static_cast<unsigned>(threads_.size());
    threads_.emplace_back([this, shift, seed] {
      std::mt19937 random(seed);
      while (!done_) shift(random);
    });
  }
  void end() {
    done_ = true;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

 private:
  const unsigned seed_;
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

// ---- Events ------------------------------------------------------------------------------------------------------

struct EventStress {
  static constexpr int kEvents = 8;
  struct Counted {
    HANDLE handle = 0;
    std::atomic<long> set{0};
    std::atomic<long> taken{0};
  };
  std::array<Counted, kEvents> events;

  EventStress() {
    for (Counted& event : events) event.handle = CreateEvent(nullptr, false, false, nullptr);
  }
  void join(Crew& crew) {
    crew.add([this](std::mt19937& random) {
      Counted& event = events[static_cast<std::size_t>(pick(random, 0, kEvents - 1))];
      if (SetEvent(event.handle)) ++event.set;
      if (pick(random, 0, 20) == 0) std::this_thread::yield();
    });
    for (int i = 0; i < 2; ++i) {
      crew.add([this](std::mt19937& random) {
        Counted& event = events[static_cast<std::size_t>(pick(random, 0, kEvents - 1))];
        if (WaitForSingleObject(event.handle, static_cast<unsigned>(pick(random, 0, 2))) == 0) ++event.taken;
      });
    }
    // Events that come and go beside them, waited for while they are closed.
    crew.add([](std::mt19937&) {
      const HANDLE handle = CreateEvent(nullptr, false, false, nullptr);
      std::thread waiter([handle] {
        const DWORD result = WaitForSingleObject(handle, 1);
        EXPECT_TRUE(result == 0 || result == 110 || result == 128) << result;
      });
      SetEvent(handle);
      CloseHandle(handle);
      waiter.join();
    });
  }
  void check() {
    for (Counted& event : events) {
      EXPECT_EQ(event.set, event.taken + drain(event.handle)) << "signals were lost or made up";
      EXPECT_GT(event.set, 0);
      CloseHandle(event.handle);
    }
  }
};

// ---- Sections ----------------------------------------------------------------------------------------------------

struct SectionStress {
  static constexpr int kSections = 3;
  struct Guarded {
    CRITICAL_SECTION section;
    long value = 0;  ///< under `section`
    std::atomic<long> expected{0};
  };
  std::array<Guarded, kSections> guarded;

  SectionStress() {
    for (Guarded& each : guarded) InitializeCriticalSection(&each.section);
  }
  void join(Crew& crew) {
    for (int i = 0; i < 2; ++i) {
      crew.add([this](std::mt19937& random) {
        // Always entered in the same order, some of them twice.
        const int first = pick(random, 0, kSections - 1);
        std::vector<Guarded*> entered;
        for (int n = first; n < kSections; ++n) {
          Guarded& each = guarded[static_cast<std::size_t>(n)];
          for (int level = pick(random, 1, 2); level > 0; --level) {
            EnterCriticalSection(&each.section);
            entered.push_back(&each);
          }
        }
        for (auto each = entered.rbegin(); each != entered.rend(); ++each) {
          ++(*each)->value;
          ++(*each)->expected;
          LeaveCriticalSection(&(*each)->section);
        }
      });
    }
  }
  void check() {
    for (Guarded& each : guarded) {
      EXPECT_EQ(each.value, each.expected);
      EXPECT_GT(each.value, 0);
    }
  }
};

// ---- Triggers ----------------------------------------------------------------------------------------------------

/// Armed by one thread, fired by many, dispatched by the trigger task or by a thread with its own list.
struct ArmingStress {
  static constexpr int kTriggers = 6;
  struct Slot {
    std::unique_ptr<HandTrigger> trigger;
    std::atomic<long> armings{0};
    std::atomic<long> calls{0};
    Gate called;

    static void call(OSObj* obj, ADDR, ULONG) {
      Slot& slot = from_obj<Slot>(obj);
      ++slot.calls;
      slot.called.open();
    }
    void make() {
      trigger = std::make_unique<HandTrigger>();
      trigger->SetCallback(&call, as_obj(this), nullptr, 0);
    }
  };
  std::array<Slot, kTriggers> global;
  std::array<Slot, kTriggers> own;
  std::thread owner;  ///< of the other list
  std::atomic<bool> owner_done{false};
  std::atomic<long> lost{0};

  void join(Crew& crew) {
    for (Slot& slot : global) slot.make();
    Gate made;
    owner = std::thread([this, &made] {
      OwnDispatch list;
      for (Slot& slot : own) slot.make();
      made.open();
      while (!owner_done) {
        WaitForSingleObject(OSTrigger::TLSGetEvent(), 5);
        OSTrigger::TLSPoll();
      }
      for (Slot& slot : own) slot.trigger.reset();
    });
    EXPECT_TRUE(made.wait());
    // One thread arms. It fires too, so that the last arming has been fired by somebody.
    crew.add([this](std::mt19937& random) {
      Slot& slot = any(random);
      ++slot.armings;
      slot.trigger->Clear();
      if (pick(random, 0, 1) == 0) std::this_thread::yield();
      slot.trigger->Fire();
      if (!slot.called.wait()) ++lost;
    });
    for (int i = 0; i < 2; ++i) {
      crew.add([this](std::mt19937& random) {
        any(random).trigger->Fire();
        if (pick(random, 0, 30) == 0) std::this_thread::yield();
      });
    }
  }
  Slot& any(std::mt19937& random) {
    auto& slots = pick(random, 0, 1) == 0 ? global : own;
    return slots[static_cast<std::size_t>(pick(random, 0, kTriggers - 1))];
  }
  void check() {
    EXPECT_EQ(lost, 0) << "a trigger that was armed and fired was never actioned";
    owner_done = true;
    owner.join();
    for (auto* slots : {&global, &own}) {
      for (Slot& slot : *slots) {
        slot.trigger.reset();
        EXPECT_EQ(slot.calls, slot.armings) << "a trigger was actioned twice for one arming, or not at all";
        EXPECT_GT(slot.calls, 0);
      }
    }
  }
};

/// Triggers of every kind that live for a moment in any state. Their counters outlive them.
struct ChurnStress {
  std::atomic<long> calls{0};
  std::atomic<long> polls{0};
  std::atomic<long> made{0};

  static void call(OSObj* obj, ADDR, ULONG) { ++from_obj<ChurnStress>(obj).calls; }
  static BOOL poll(OSTrigger*, OSObj* obj, ADDR, ULONG value) {
    const long n = ++from_obj<ChurnStress>(obj).polls;
    return value != 0 && n % static_cast<long>(value) == 0;
  }

  void join(Crew& crew) {
    for (int i = 0; i < 2; ++i) {
      crew.add([this](std::mt19937& random) {
        OSProtectedQueue queue;
        std::unique_ptr<OSTrigger> trigger;
        {
          TriggerSection section;  // no dispatch before the callback is set
          switch (pick(random, 0, 4)) {
            case 0:
              trigger = std::make_unique<OSTimerTrigger>(static_cast<ULONG>(pick(random, 0, 5)), 0);
              break;
            case 1:
              trigger = std::make_unique<OSQTrigger>(&queue, 1u, 0u, static_cast<ULONG>(pick(random, 0, 2)));
              break;
            case 2:
              trigger = std::make_unique<OSPollTrigger>(&poll, as_obj(this), nullptr, 3u);
              break;
            case 3:
              trigger = std::make_unique<HandTrigger>(OS_TA_NONE);
              break;
            default:
              trigger = std::make_unique<HandTrigger>();
              break;
          }
          if (trigger->action != OS_TA_NONE) trigger->SetCallback(&call, as_obj(this), nullptr, 0);
        }
        ++made;
        struct Item : OSLinkListObj {
          void Free() override {}
        } item;
        for (int step = pick(random, 0, 6); step > 0; --step) {
          switch (pick(random, 0, 5)) {
            case 0:
              trigger->Fire();
              break;
            case 1:
              trigger->Clear();
              break;
            case 2:
              trigger->Cancel();
              break;
            case 3:
              queue.Append(&item);
              queue.Remove(&item);
              break;
            case 4:
              std::this_thread::yield();
              break;
            default:
              trigger->IsActive();
              break;
          }
        }
        trigger.reset();
      });
    }
  }
  void check() {
    EXPECT_GT(made, 0);
    EXPECT_GT(calls, 0);
  }
};

/// Timers that arm themselves again in their callbacks.
struct TimerStress {
  static constexpr int kTimers = 10;
  struct Slot {
    std::unique_ptr<OSTimerTrigger> timer;
    std::atomic<long> calls{0};
    bool stopped = false;  ///< under the trigger section

    static void call(OSObj* obj, ADDR, ULONG) {
      Slot& slot = from_obj<Slot>(obj);
      ++slot.calls;
      TriggerSection section;
      if (!slot.stopped) slot.timer->Clear();
    }
  };
  std::array<Slot, kTimers> slots;

  void join(Crew& crew) {
    for (std::size_t i = 0; i < kTimers; ++i) {
      TriggerSection section;
      slots[i].timer = std::make_unique<OSTimerTrigger>(static_cast<ULONG>(5 + 7 * i), 0);
      slots[i].timer->SetCallback(&Slot::call, as_obj(&slots[i]), nullptr, 0);
    }
    crew.add([this](std::mt19937& random) {
      Slot& slot = slots[static_cast<std::size_t>(pick(random, 0, kTimers - 1))];
      slot.timer->SetTimer(static_cast<ULONG>(pick(random, 1, 40)));
      Sleep(pick(random, 0, 3));
    });
  }
  void check() {
    for (Slot& slot : slots) {
      {
        TriggerSection section;
        slot.stopped = true;
        slot.timer->Cancel();
        EXPECT_LE(slot.calls, slot.timer->fired) << "more callbacks than activations";
      }
      EXPECT_GT(slot.calls, 0);
    }
  }
  void destroy() {
    for (Slot& slot : slots) slot.timer.reset();
  }
};

/// A queue filled by several threads and drained by the callback of its trigger.
struct QueueStress {
  struct Item : OSLinkListObj {
    ~Item() override = default;
    void Free() override {}
  };
  OSProtectedQueue queue;
  std::unique_ptr<OSQTrigger> trigger;
  std::atomic<long> appended{0};
  std::atomic<long> drained{0};

  static void call(OSObj* obj, ADDR, ULONG) {
    QueueStress& self = from_obj<QueueStress>(obj);
    for (int i = 0; i < 10; ++i) {
      OSListObj* first = self.queue.FirstObject();
      if (first == nullptr) break;
      auto* item = static_cast<Item*>(static_cast<OSLinkListObj*>(first));
      self.queue.Remove(item);
      delete item;
      ++self.drained;
    }
    self.trigger->Clear();  // what is left, or has come meanwhile, activates it at once
  }
  void join(Crew& crew) {
    {
      TriggerSection section;
      trigger = std::make_unique<OSQTrigger>(&queue, 1u, 0u, 0u);
      trigger->SetCallback(&call, as_obj(this), nullptr, 0);
    }
    for (int i = 0; i < 2; ++i) {
      crew.add([this](std::mt19937& random) {
        if (appended - drained > 1000) {
          std::this_thread::yield();
          return;
        }
        queue.Append(new Item);
        ++appended;
        if (pick(random, 0, 9) == 0) std::this_thread::yield();
      });
    }
  }
  void check() {
    EXPECT_TRUE(wait_until([this] { return drained == appended; }, kPatienceMs))
        << "a queue was left with " << appended - drained << " entries and nobody was told";
    EXPECT_GT(appended, 0);
  }
};

// ---- Tasks -------------------------------------------------------------------------------------------------------

/// Tasks that snooze on their event; triggers and threads wake them.
struct WakeStress {
  static constexpr int kTasks = 3;

  struct Slot {
    Sleeper* task = nullptr;
    std::unique_ptr<HandTrigger> trigger;
    std::atomic<long> direct_wakes{0};
    std::atomic<long> actioned{0};
  };
  std::array<Slot, kTasks> slots;

  void join(Crew& crew) {
    for (Slot& slot : slots) {
      slot.task = new Sleeper;
      slot.trigger = std::make_unique<HandTrigger>(OS_TA_WAKE);
      slot.trigger->SetTask(slot.task);
    }
    // One thread arms and fires, and counts the armings that were actioned.
    crew.add([this](std::mt19937& random) {
      Slot& slot = slots[static_cast<std::size_t>(pick(random, 0, kTasks - 1))];
      if (slot.trigger->State() == OS_T_ACTIONED) {
        ++slot.actioned;
        slot.trigger->Clear();
      }
      if (slot.trigger->State() == OS_T_INACTIVE) slot.trigger->Clear();
      slot.trigger->Fire();
      if (pick(random, 0, 9) == 0) std::this_thread::yield();
    });
    crew.add([this](std::mt19937& random) {
      Slot& slot = slots[static_cast<std::size_t>(pick(random, 0, kTasks - 1))];
      if (slot.task->Wake(static_cast<UWORD>(pick(random, 5, 9)))) ++slot.direct_wakes;
      Sleep(1);
    });
  }
  void check() {
    for (Slot& slot : slots) {
      if (slot.trigger->State() == OS_T_ACTIONED) ++slot.actioned;
      slot.trigger->Cancel();
      const auto expected = [&slot] { return slot.direct_wakes + slot.actioned; };
      // A wake trigger may have been actioned between the look at its state and the Cancel, so one more is right.
      EXPECT_TRUE(wait_until(
          [&] {
            const long more = slot.task->wakes - expected();
            return more == 0 || more == 1;
          },
          kPatienceMs))
          << slot.task->wakes << " signals for " << expected() << " wakes";
      EXPECT_GT(slot.task->wakes, 0);
    }
    for (Slot& slot : slots) slot.trigger.reset();
    for (Slot& slot : slots) {
      slot.task->Kill();
      delete slot.task;
    }
  }
};

/// Tasks that begin and end in every way there is.
struct TaskChurn {
  static inline std::atomic<long> alive{0};
  static inline std::atomic<long> made{0};

  class Passing : public OSTask {
   public:
    explicit Passing(int way, OSAxeTask* axe) : OSTask(3, 0, nullptr, nullptr), way_(way), axe_(axe) {
      ++alive;
      ++made;
      LeaveCriticalSection(&cs);
    }
    ~Passing() override { --alive; }
    void Main() override {
      OSTaskTag::SetName("passing", 0);
      switch (way_) {
        case 0:
          return;  // deletes itself
        case 1:
          throw 1;
        case 2:
          _LockDelete();
          axe_->Axe(this);
          return;
        case 3:
          _StopThread();
          delete this;
          return;
        default:
          while (state_of(*this) != OS_ST_KILL) Sleep(1);
      }
    }

   private:
    const int way_;
    OSAxeTask* const axe_;
  };
  std::unique_ptr<OSAxeTask> axe = std::make_unique<OSAxeTask>();

  void join(Crew& crew) {
    for (int i = 0; i < 2; ++i) {
      crew.add([this](std::mt19937& random) {
        if (alive > 30) {
          std::this_thread::yield();
          return;
        }
        const int way = pick(random, 0, 6);
        auto* task = new Passing(way, axe.get());
        if (way == 4) {
          task->Kill();
          delete task;
        }
        if (way == 5) {
          task->_StopThread();
          delete task;
        }
        if (way == 6) {
          task->_LockDelete();
          task->Snooze();
          task->Kill();
          axe->Axe(task);
        }
      });
    }
  }
  void check() {
    EXPECT_TRUE(wait_until([] { return alive == 0; }, kPatienceMs)) << alive << " tasks were never deleted";
    EXPECT_GT(made, 0);
  }
};

TEST_F(Stress, ThreadsEventsSectionsTriggersAndTasksAllAtOnce) {
  cfg.link_qty = 100;
  Start();
  const unsigned seed = test_seed();
  auto events = std::make_unique<EventStress>();
  auto sections = std::make_unique<SectionStress>();
  auto armings = std::make_unique<ArmingStress>();
  auto churn = std::make_unique<ChurnStress>();
  auto timers = std::make_unique<TimerStress>();
  auto queues = std::make_unique<QueueStress>();
  auto wakes = std::make_unique<WakeStress>();
  auto tasks = std::make_unique<TaskChurn>();
  {
    Crew crew(seed);
    events->join(crew);
    sections->join(crew);
    armings->join(crew);
    churn->join(crew);
    timers->join(crew);
    queues->join(crew);
    wakes->join(crew);
    tasks->join(crew);
    std::this_thread::sleep_for(stress_time());
    crew.end();
  }
  events->check();
  sections->check();
  armings->check();
  churn->check();
  queues->check();
  wakes->check();
  tasks->check();
  timers->check();
  let_callbacks_end();
  timers->destroy();
  queues->trigger.reset();
  tasks->axe.reset();
  {
    TriggerSection section;
    EXPECT_TRUE(triggers_on(OS_TIMER_LIST).empty());
    EXPECT_TRUE(triggers_on(OS_POLL_LIST).empty());
    EXPECT_TRUE(triggers_on(OS_READY_LIST).empty());
  }
  Stop();
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_TRUE(LinkPoolIsSound());
}

// ---- Start and stop ------------------------------------------------------------------------------------------------

/// Looks at nothing but its own flag and stops its thread in its destructor.
class SelfStopping : public OSTask {
 public:
  explicit SelfStopping(std::atomic<long>& ended)
      : OSTask(4, 0, nullptr, nullptr), ended_(ended), wake_(CreateEvent(nullptr, false, false, nullptr)) {
    LeaveCriticalSection(&cs);
  }
  ~SelfStopping() override {
    _LockDelete();
    done_ = true;
    SetEvent(wake_);
    Kill();
    CloseHandle(wake_);
    ++ended_;
  }
  void Main() override {
    while (!done_) WaitForSingleObject(wake_, kForEver);
  }

 private:
  std::atomic<long>& ended_;
  HANDLE wake_;
  std::atomic<bool> done_{false};
};

int open_descriptors() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                        std::filesystem::directory_iterator()));
}

TEST_F(Stress, AThousandStartsAndStopsWithTasksAndTriggersLeaveNothingBehind) {
  constexpr int kRounds = 1000;
  constexpr int kWarmUp = 50;
  std::size_t heap_after_warm_up = 0;
  int descriptors = 0;
  std::atomic<int> idle_ended{0};
  std::atomic<int> passing_ended{0};
  std::atomic<long> stopping_ended{0};
  std::atomic<long> calls{0};
  long stopping = 0;
  long fired = 0;
  for (int round = 0; round < kRounds; ++round) {
    cfg.link_qty = 50 + round % 7;
    cfg.callback_qty = 20;
    for (int& quantity : cfg.buf_qty) quantity = 3 + round % 3;
    cfg.trigger_stack = round % 4 == 3 ? 0 : 8000;
    const bool quiet = cfg.trigger_stack == 0;
    Start();
    new FunctionTask(
        [](FunctionTask& self) {
          while (state_of(self) != OS_ST_KILL) Sleep(1);
        },
        0, &idle_ended);
    new FunctionTask([](FunctionTask&) { OSTaskTag::SetName("passing", 0); }, 0, &passing_ended);
    // A sanitizer's own thread might be somebody who ends such a task's wait, so that the stop waits for that.
    if (kIdleThreads == 1 || round % 250 == 0) {
      new SelfStopping(stopping_ended);
      ++stopping;
    }
    {
      struct Count {
        static void call(OSObj* obj, ADDR, ULONG) { ++from_obj<std::atomic<long>>(obj); }
      };
      HandTrigger hand;
      hand.SetCallback(&Count::call, as_obj(&calls), nullptr, 0);
      OSPollTrigger poll([](OSTrigger*, OSObj*, ADDR, ULONG) -> BOOL { return FALSE; }, nullptr, nullptr, 0);
      // A pending timer keeps the stop waiting for up to a slice of 30 ms, so not in every round.
      OSTimerTrigger timer(round % 50 == 0 ? 100000 : 0, 0);
      for (int i = 0; i < 3; ++i) {
        const long before = calls;
        hand.ArmAndFire();
        ++fired;
        if (quiet) os_check_triggers();
        ASSERT_TRUE(wait_until([&] { return calls == before + 1; }, kPatienceMs)) << "round " << round;
      }
    }
    if (round % 5 == 0) OS_PROGRAM = new OSProgram(os_stdscan);
    if (round % 5 == 1) OS_AXE_TASK = new OSAxeTask;
    Stop();
    OS_PROGRAM = nullptr;
    OS_AXE_TASK = nullptr;
    EXPECT_TRUE(KernelEvent::eventList.IsEmpty()) << "round " << round;
    if (round == kWarmUp) {
      EXPECT_TRUE(threads_come_to(0));
      heap_after_warm_up = mallinfo2().uordblks;
      descriptors = open_descriptors();
    }
  }
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_EQ(calls, fired);
  EXPECT_EQ(idle_ended, kRounds);
  EXPECT_EQ(passing_ended, kRounds);
  EXPECT_EQ(stopping_ended, stopping);
  EXPECT_EQ(open_descriptors(), descriptors);
  // A leak of a few bytes per round would be seen: 64 bytes in each of 950 rounds are 60 KB.
  EXPECT_LT(mallinfo2().uordblks, heap_after_warm_up + 32768);
  EXPECT_EQ(OS_READY_LIST.Size() + OS_TIMER_LIST.Size() + OS_POLL_LIST.Size(), 0);
}

}  // namespace
