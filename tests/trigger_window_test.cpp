// The moments at which the trigger section has just been left: a dispatcher has taken an action and not yet begun
// it, an event is about to be signalled. Semaphore posts are where those moments can be caught.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "kernel/trigger.h"
#include "support/graveyard.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

/// What this thread does right after its next post of a semaphore.
struct AfterPost {
  const sem_t* sem = nullptr;
  std::function<void()> work;
};
thread_local AfterPost after_post;

/// The semaphore whose waiters are noted, and whether one has come.
std::atomic<const sem_t*> watched{nullptr};
std::atomic<bool> waiter_has_come{false};

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" __attribute__((visibility("default"))) int sem_post(sem_t* sem) noexcept {
  static const auto next = reinterpret_cast<int (*)(sem_t*)>(dlsym(RTLD_NEXT, "sem_post"));
  const int result = next(sem);
  if (after_post.sem == sem) {
    const AfterPost caught = std::exchange(after_post, {});
    caught.work();
  }
  return result;
}

extern "C" __attribute__((visibility("default"))) int sem_wait(sem_t* sem) {
  static const auto next = reinterpret_cast<int (*)(sem_t*)>(dlsym(RTLD_NEXT, "sem_wait"));
  if (watched == sem) waiter_has_come = true;
  return next(sem);
}

namespace {

/// Catches the calling thread's next post of a semaphore. A post that does not come fails the test.
class Catch {
 public:
  Catch(const sem_t* sem, const std::function<void()>& work) { after_post = {sem, work}; }
  ~Catch() { EXPECT_EQ(std::exchange(after_post, {}).sem, nullptr) << "the moment has not come"; }
  Catch(const Catch&) = delete;
  Catch& operator=(const Catch&) = delete;
};

/// The moment at which this thread has left the trigger section.
class AfterLeaving : public Catch {
 public:
  explicit AfterLeaving(const std::function<void()>& work) : Catch(OS_CRITICAL_TRIGGER.sem, work) {}
};

const sem_t* semaphore_of(HANDLE event) { return KernelEvent::Find(event)->sem; }

// ---- Between taking an action and beginning it -------------------------------------------------------------------

class BeforeTheAction : public EitherReadyList {
 protected:
  using MortalTrigger = Mortal<HandTrigger>;

  /// A trigger that is ready on the list.
  static std::unique_ptr<MortalTrigger> ready(std::atomic<int>& calls) {
    auto trigger = std::make_unique<MortalTrigger>();
    trigger->SetCallback(count_call, as_obj(&calls), nullptr, 0);
    trigger->ArmAndFire();
    return trigger;
  }
};

INSTANTIATE_TEST_SUITE_P(Lists, BeforeTheAction, ::testing::Bool(), ready_list_name);

TEST_P(BeforeTheAction, ADestructorOnAnotherThreadWithdrawsTheCallback) {
  with_list([] {
    std::atomic<int> calls{0};
    auto trigger = ready(calls);
    {
      const AfterLeaving moment([&trigger] { on_thread([&trigger] { trigger.reset(); }); });
      pass();
    }
    EXPECT_EQ(trigger, nullptr);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(MortalTrigger::rests_in_peace());
  });
}

TEST_P(BeforeTheAction, ADestructorOfAnotherTriggerWithdrawsNothing) {
  with_list([] {
    std::atomic<int> calls{0};
    std::atomic<int> other_calls{0};
    HandTrigger trigger;
    trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    trigger.ArmAndFire();
    auto other = ready(other_calls);
    {
      const AfterLeaving moment([&other] { on_thread([&other] { other.reset(); }); });
      pass();
    }
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(other_calls, 0);
    EXPECT_TRUE(MortalTrigger::rests_in_peace());
  });
}

TEST_P(BeforeTheAction, TwoDispatchersLoseOnlyTheActionOfTheTriggerThatGoes) {
  with_list([] {
    std::atomic<int> calls{0};
    std::atomic<int> other_calls{0};
    HandTrigger mine;
    mine.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    mine.ArmAndFire();
    on_thread([&calls, &other_calls] {
      // The other dispatcher has a trigger of the global list in hand, taken before.
      auto gone = std::make_unique<MortalTrigger>();
      gone->SetCallback(count_call, as_obj(&other_calls), nullptr, 0);
      gone->ArmAndFire();
      const AfterLeaving moment([&gone, &calls] {
        on_thread([&calls] {
          HandTrigger third;
          third.SetCallback(count_call, as_obj(&calls), nullptr, 0);
          third.ArmAndFire();
          os_check_triggers();
        });
        gone.reset();
      });
      EXPECT_TRUE(gone->Action());
    });
    pass();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(other_calls, 0);
    EXPECT_TRUE(MortalTrigger::rests_in_peace());
  });
}

TEST_P(BeforeTheAction, AWakeThatHasBeenTakenIsDeliveredThoughItsTriggerGoes) {
  with_list([] {
    Owned<> task;
    auto trigger = std::make_unique<MortalTrigger>(OS_TA_WAKE);
    trigger->SetTask(task.get());
    trigger->ArmAndFire();
    task->Snooze();
    {
      const AfterLeaving moment([&trigger] { on_thread([&trigger] { trigger.reset(); }); });
      pass();
    }
    EXPECT_EQ(drain(task->thread_event), 1);
    EXPECT_EQ(task->WakeCode(), 1);
    EXPECT_TRUE(MortalTrigger::rests_in_peace());
  });
}

TEST_P(BeforeTheAction, WhatAnotherThreadMakesOfTheTriggerHolds) {
  struct Row {
    const char* what;
    std::function<void(HandTrigger&)> change;
    OSTrState then;
    int calls;
  };
  const Row rows[] = {
      {"cancelled", [](HandTrigger& trigger) { trigger.Cancel(); }, OS_T_INACTIVE, 1},
      {"armed", [](HandTrigger& trigger) { trigger.Clear(); }, OS_T_WAIT, 1},
      {"armed and fired", [](HandTrigger& trigger) { trigger.ArmAndFire(); }, OS_T_ACTIONED, 2},
      {"fired", [](HandTrigger& trigger) { trigger.Fire(); }, OS_T_ACTIONED, 1},
  };
  with_list([&rows] {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.what);
      std::atomic<int> calls{0};
      HandTrigger trigger;
      trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
      trigger.ArmAndFire();
      {
        const AfterLeaving moment([&] { on_thread([&] { row.change(trigger); }); });
        pass();
      }
      EXPECT_EQ(trigger.State(), row.then);
      EXPECT_EQ(calls, row.calls);
      EXPECT_EQ(list().Size(), 0);
    }
  });
}

TEST_P(BeforeTheAction, TheCallbackOfTheMomentOfTakingRuns) {
  with_list([] {
    std::atomic<int> taken{0};
    std::atomic<int> set_later{0};
    HandTrigger trigger;
    trigger.SetCallback(count_call, as_obj(&taken), nullptr, 0);
    trigger.ArmAndFire();
    {
      const AfterLeaving moment(
          [&] { on_thread([&] { trigger.SetCallback(count_call, as_obj(&set_later), nullptr, 0); }); });
      pass();
    }
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(set_later, 0);
  });
}

class TriggerWindows : public QuietTriggerTest {};

TEST_F(TriggerWindows, AnActionByHandIsWithdrawnTooAndCountsAsDone) {
  std::atomic<int> calls{0};
  auto trigger = std::make_unique<Mortal<HandTrigger>>();
  trigger->SetCallback(count_call, as_obj(&calls), nullptr, 0);
  trigger->ArmAndFire();
  HandTrigger* const raw = trigger.get();
  {
    const AfterLeaving moment([&trigger] { on_thread([&trigger] { trigger.reset(); }); });
    EXPECT_TRUE(raw->Action());
  }
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(Mortal<HandTrigger>::rests_in_peace());
}

TEST_F(TriggerWindows, ActionsThatOtherThreadsHaveInHandDoNotHideThisOne) {
  // Three actions at once; the older two end, the middle one first, before the trigger of the newest goes.
  StoppingTrigger others[2];
  for (StoppingTrigger& other : others) {
    other.trigger.ArmAndFire();
    other.stop_inside([&other] { EXPECT_TRUE(other.trigger.Action()); });
  }
  std::atomic<int> calls{0};
  auto trigger = std::make_unique<Mortal<HandTrigger>>();
  trigger->SetCallback(count_call, as_obj(&calls), nullptr, 0);
  trigger->ArmAndFire();
  HandTrigger* const raw = trigger.get();
  {
    const AfterLeaving moment([&others, &trigger] {
      others[1].let_go();
      others[0].let_go();
      on_thread([&trigger] { trigger.reset(); });
    });
    EXPECT_TRUE(raw->Action());
  }
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(Mortal<HandTrigger>::rests_in_peace());
}

TEST_F(TriggerWindows, ATriggerTaskThatEndsBeforeItIsWaitedForIsStillItsDestroyersToDelete) {
  // A post is caught inside the section in which an event is looked up: the task must have looked it up by then.
  watched = semaphore_of(os_trig_event);
  auto* task = new OSTriggerTask;
  ASSERT_TRUE(wait_until([] { return waiter_has_come.load(); }, kPatienceMs));
  {
    // The destructor has told the task to end and has not begun to wait for it.
    const Catch moment(semaphore_of(os_trig_event), [] { EXPECT_TRUE(threads_come_to(0)); });
    delete task;
  }
  EXPECT_EQ(OSTask::all_tasks->Size(), 0);
}

// ---- Events are signalled outside the section ---------------------------------------------------------------------

TEST_F(TriggerWindows, EventsAreSignalledAfterTheSectionHasBeenLeft) {
  const auto expect_outside = [](HANDLE event, const std::function<void()>& act) {
    int levels = -1;
    {
      const Catch moment(semaphore_of(event), [&levels] { levels = levels_held(OS_CRITICAL_TRIGGER); });
      act();
    }
    EXPECT_EQ(levels, 0);
  };

  HandTrigger listed;
  expect_outside(os_trig_event, [&listed] { listed.ReadyAppend(); });
  listed.ReadyRemove();

  Exposed<OSTimerTrigger> timer(1000, 1);
  expect_outside(os_trig_event, [&timer] { timer.Wait(); });

  Exposed<OSPollTrigger> poll(never, nullptr, nullptr, 0);
  poll.Cancel();
  expect_outside(os_trig_event, [&poll] { poll.Wait(); });

  Owned<> task;
  task->Snooze();
  task->Wake(0);  // makes its event
  task->Snooze();
  HandTrigger wake(OS_TA_WAKE);
  wake.SetTask(task.get());
  wake.ArmAndFire();
  expect_outside(task->thread_event, [] { os_check_triggers(); });
  EXPECT_EQ(wake.State(), OS_T_ACTIONED);

  on_thread([&expect_outside] {
    OwnDispatch own;
    HandTrigger own_trigger;
    expect_outside(OSTrigger::TLSGetEvent(), [&own_trigger] { own_trigger.ReadyAppend(); });
    own_trigger.ReadyRemove();
  });
}

}  // namespace
