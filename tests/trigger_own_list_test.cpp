// Threads with ready lists of their own.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/trigger.h"
#include "support/failing_new.h"
#include "support/ring_check.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

// ---- Thread-specific keys: one creation may be made to return key 0 ---------------------------------------------

namespace {
bool next_key_is_zero = false;
bool zero_key_is_ours = false;
bool no_key_is_left = false;

bool take(bool& flag) { return std::atomic_ref<bool>(flag).exchange(false); }
}  // namespace

// Sanitizers create keys before they are ready for code that they have instrumented.
#define OSKERNEL_TEST_UNINSTRUMENTED                                                      \
  __attribute__((visibility("default"), no_sanitize("address"), no_sanitize("undefined"), \
                 no_sanitize("thread")))

extern "C" {
// The C library's own name for pthread_key_create. Looking it up at run time is no choice here: the first
// call comes before the program's own initialisation.
int __pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept;

OSKERNEL_TEST_UNINSTRUMENTED int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept {
  if (__atomic_load_n(&no_key_is_left, __ATOMIC_SEQ_CST)) return EAGAIN;
  if (__atomic_exchange_n(&next_key_is_zero, false, __ATOMIC_SEQ_CST)) {
    __atomic_store_n(&zero_key_is_ours, true, __ATOMIC_SEQ_CST);
    *key = 0;
    return 0;
  }
  return __pthread_key_create(key, destructor);
}

OSKERNEL_TEST_UNINSTRUMENTED int pthread_key_delete(pthread_key_t key) noexcept {
  if (key == 0 && take(zero_key_is_ours)) return 0;
  static const auto next = reinterpret_cast<int (*)(pthread_key_t)>(dlsym(RTLD_NEXT, "pthread_key_delete"));
  return next(key);
}
}

namespace {

class OwnLists : public QuietTriggerTest {
 protected:
  /// While it lives there is no key for threads' lists, as in a new process.
  class NoKeyYet {
   public:
    NoKeyYet() : key_(OSTriggerTLS::tls_key) { OSTriggerTLS::tls_key = 0; }
    ~NoKeyYet() {
      if (OSTriggerTLS::tls_key != 0) pthread_key_delete(OSTriggerTLS::tls_key);
      OSTriggerTLS::tls_key = key_;
    }
    NoKeyYet(const NoKeyYet&) = delete;
    NoKeyYet& operator=(const NoKeyYet&) = delete;

   private:
    pthread_key_t key_;
  };
};

static_assert(std::is_same_v<decltype(OSTriggerTLS::event), HANDLE>);
static_assert(std::is_same_v<decltype(OSTriggerTLS::OS_READY_LIST), OSLinkList>);
static_assert(std::is_same_v<decltype(OSTriggerTLS::tls_key), pthread_key_t>);
static_assert(!std::is_polymorphic_v<OSTriggerTLS>);

TEST_F(OwnLists, AThreadWithoutOneHasNoEventAndNothingToPoll) {
  on_thread([] {
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    OSTrigger::TLSPoll();
    OSTrigger::TLSUninitialise();
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
  });
}

TEST_F(OwnLists, TheEventLivesFromInitialiseToUninitialise) {
  on_thread([] {
    for (int round = 0; round < 3; ++round) {
      OSTrigger::TLSInitialise();
      const HANDLE event = OSTrigger::TLSGetEvent();
      EXPECT_NE(event, 0);
      EXPECT_NE(OSTriggerTLS::tls_key, 0u);
      EXPECT_EQ(OwnDispatch::tls().event, event);
      EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
      EXPECT_EQ(WaitForSingleObject(event, 0), 110u);
      on_thread([] { EXPECT_EQ(OSTrigger::TLSGetEvent(), 0); });
      OSTrigger::TLSUninitialise();
      EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
      EXPECT_EQ(pthread_getspecific(OSTriggerTLS::tls_key), nullptr);
      EXPECT_EQ(WaitForSingleObject(event, 0), 128u);
      OSTrigger::TLSPoll();
    }
  });
}

TEST_F(OwnLists, AThreadRunsItsOwnTriggersWhenItsEventIsSignalled) {
  Gate ready;
  Gate ended;
  HandTrigger* trigger = nullptr;
  std::thread owner([&] {
    OwnDispatch own;
    const pthread_t self = pthread_self();
    bool on_own_thread = false;
    Script callback = [&] { on_own_thread = pthread_self() == self; };
    HandTrigger mine;
    set_script(mine, callback);
    mine.Arm();
    trigger = &mine;
    ready.open();
    EXPECT_EQ(WaitForSingleObject(OSTrigger::TLSGetEvent(), kPatienceMs), 0u);
    OSTrigger::TLSPoll();
    EXPECT_TRUE(on_own_thread);
    EXPECT_EQ(mine.State(), OS_T_ACTIONED);
  });
  EXPECT_TRUE(ready.wait());
  os_check_triggers();
  trigger->Fire();
  os_check_triggers();  // not on the global list, so not its business
  owner.join();
}

TEST_F(OwnLists, ListsOfDifferentThreadsAreKeptApart) {
  constexpr int kThreads = 4;
  std::array<HANDLE, kThreads> events{};
  Rendezvous all(kThreads);
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&, n] {
      OwnDispatch own;
      events[static_cast<std::size_t>(n)] = OSTrigger::TLSGetEvent();
      std::atomic<int> calls{0};
      HandTrigger trigger;
      trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
      trigger.ArmAndFire();
      all.meet();
      EXPECT_EQ(triggers_on(OwnDispatch::tls().OS_READY_LIST), Triggers{&trigger});
      all.meet();
      OSTrigger::TLSPoll();
      EXPECT_EQ(calls, 1);
      all.meet();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<HANDLE>(events.begin(), events.end()).size(), static_cast<std::size_t>(kThreads));
}

TEST_F(OwnLists, ManyThreadsMayBeTheFirstAtOnce) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 20; ++round) {
    const NoKeyYet as_in_a_new_process;
    Rendezvous all(kThreads);
    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
      threads.emplace_back([&all] {
        all.meet();
        OwnDispatch own;
        all.meet();
        const HANDLE event = OSTrigger::TLSGetEvent();
        EXPECT_NE(event, 0);
        HandTrigger trigger(OS_TA_NONE);
        trigger.ArmAndFire();
        EXPECT_EQ(drain(event), 1);
        EXPECT_EQ(triggers_on(OwnDispatch::tls().OS_READY_LIST), Triggers{&trigger});
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

TEST_F(OwnLists, OneKeyServesAllThreadsFromTheFirstOn) {
  const NoKeyYet as_in_a_new_process;
  EXPECT_EQ(OSTriggerTLS::tls_key, 0u);
  on_thread([] { OwnDispatch own; });
  const pthread_key_t key = OSTriggerTLS::tls_key;
  EXPECT_NE(key, 0u) << "made by the first thread that wants a list";
  on_thread([key] {
    OwnDispatch own;
    EXPECT_EQ(OSTriggerTLS::tls_key, key);
  });
  EXPECT_EQ(OSTriggerTLS::tls_key, key) << "and it stays";
}

TEST_F(OwnLists, WithoutAKeyNoThreadHasAList) {
  // Whatever another library keeps under key 0.
  on_thread([] {
    OwnDispatch own;
    const NoKeyYet as_in_a_new_process;
    HandTrigger trigger(OS_TA_NONE);
    EXPECT_EQ(trigger.tls, nullptr);
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    OSTrigger::TLSPoll();
    OSTrigger::TLSUninitialise();
    trigger.ArmAndFire();
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
  });
}

TEST_F(OwnLists, WhenTheSystemHasNoKeyLeftTriggersGoToTheGlobalList) {
  const NoKeyYet as_in_a_new_process;
  std::atomic_ref<bool>(no_key_is_left).store(true);
  on_thread([] {
    OSTrigger::TLSInitialise();
    EXPECT_EQ(OSTriggerTLS::tls_key, 0u);
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    HandTrigger trigger(OS_TA_NONE);
    EXPECT_EQ(trigger.tls, nullptr);
    trigger.ArmAndFire();
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
    OSTrigger::TLSPoll();
    OSTrigger::TLSUninitialise();
  });
  std::atomic_ref<bool>(no_key_is_left).store(false);
  on_thread([] {
    OwnDispatch own;
    EXPECT_NE(OSTrigger::TLSGetEvent(), 0) << "the next thread that asks finds one";
  });
}

TEST_F(OwnLists, AKeyOfZeroMeansNoKeySoAnotherIsTaken) {
  const NoKeyYet as_in_a_new_process;
  std::atomic_ref<bool>(next_key_is_zero).store(true);
  on_thread([] {
    OwnDispatch own;
    EXPECT_FALSE(take(next_key_is_zero)) << "no key was created";
    EXPECT_NE(OSTriggerTLS::tls_key, 0u);
    EXPECT_NE(OSTrigger::TLSGetEvent(), 0);
    HandTrigger trigger(OS_TA_NONE);
    EXPECT_EQ(trigger.tls, &OwnDispatch::tls());
    EXPECT_FALSE(std::atomic_ref<bool>(zero_key_is_ours).load()) << "the key that is of no use is given back";
  });
  take(next_key_is_zero);
}

TEST_F(OwnLists, WithoutMemoryForAListTriggersGoToTheGlobalList) {
  on_thread([] {
    FailingNew::fail_at_least(sizeof(OSTriggerTLS));
    OSTrigger::TLSInitialise();
    FailingNew::reset();
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    HandTrigger trigger(OS_TA_NONE);
    EXPECT_EQ(trigger.tls, nullptr);
    trigger.ArmAndFire();
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&trigger});
    OwnDispatch own;
    EXPECT_NE(OSTrigger::TLSGetEvent(), 0) << "when there is memory again there is a list";
  });
}

// ---- Made twice, given up, left behind -------------------------------------------------------------------------

TEST_F(OwnLists, InitialisedTwiceAThreadHasANewListAndANewEvent) {
  on_thread([] {
    OSTrigger::TLSInitialise();
    const HANDLE first = OSTrigger::TLSGetEvent();
    std::atomic<int> calls{0};
    const auto count = [&calls](HandTrigger& trigger) {
      trigger.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    };
    auto ready = std::make_unique<HandTrigger>();
    auto armed = std::make_unique<HandTrigger>();
    count(*ready);
    count(*armed);
    ready->ArmAndFire();
    armed->Arm();

    OSTrigger::TLSInitialise();

    const HANDLE second = OSTrigger::TLSGetEvent();
    EXPECT_NE(second, 0);
    EXPECT_NE(second, first);
    EXPECT_EQ(KernelEvent::Find(first), nullptr) << "the old event is closed";
    EXPECT_EQ(WaitForSingleObject(second, 0), 110u);
    EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
    EXPECT_NE(ready->tls, &OwnDispatch::tls()) << "triggers stay with the list that they were made for";
    EXPECT_EQ(ready->tls, armed->tls);

    armed->Fire();
    OSTrigger::TLSPoll();
    os_check_triggers();
    EXPECT_EQ(calls, 0) << "which nobody dispatches any more";
    EXPECT_EQ(ready->State(), OS_T_READY);
    EXPECT_EQ(armed->State(), OS_T_READY);
    EXPECT_EQ(drain(second), 0);
    EXPECT_EQ(drain(os_trig_event), 0);

    HandTrigger made_now;
    count(made_now);
    EXPECT_EQ(made_now.tls, &OwnDispatch::tls());
    made_now.ArmAndFire();
    EXPECT_EQ(drain(second), 1);
    OSTrigger::TLSPoll();
    EXPECT_EQ(calls, 1);

    ready.reset();
    armed->Cancel();
    armed.reset();
    OSTrigger::TLSUninitialise();
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
    EXPECT_EQ(KernelEvent::Find(second), nullptr);
    OSTrigger::TLSUninitialise();  // there is no first one left to return to
    EXPECT_EQ(OSTrigger::TLSGetEvent(), 0);
  });
}

TEST_F(OwnLists, ACallbackMayGiveUpOrReplaceTheListThatIsBeingDispatched) {
  for (const bool replaces : {false, true}) {
    on_thread([replaces] {
      OSTrigger::TLSInitialise();
      HandTrigger acting;
      HandTrigger behind(OS_TA_NONE);
      Script callback = [replaces] {
        if (replaces) {
          OSTrigger::TLSInitialise();
        } else {
          OSTrigger::TLSUninitialise();
        }
      };
      set_script(acting, callback);
      acting.ArmAndFire();
      behind.ArmAndFire();
      OSTrigger::TLSPoll();
      EXPECT_EQ(acting.State(), OS_T_ACTIONED);
      EXPECT_EQ(behind.State(), OS_T_READY);
      EXPECT_EQ(OSTrigger::TLSGetEvent() != 0, replaces);
      behind.Cancel();
      OSTrigger::TLSPoll();
      OSTrigger::TLSUninitialise();
    });
  }
}

TEST_F(OwnLists, AListThatAProgramMakesItselfMayGoBeforeWhatIsOnIt) {
  on_thread([] {
    { const OwnDispatch makes_the_key; }
    auto tls = std::make_unique<OSTriggerTLS>();
    EXPECT_EQ(&OwnDispatch::tls(), tls.get()) << "it stores itself for the thread";
    EXPECT_EQ(OSTrigger::TLSGetEvent(), tls->event);
    const HANDLE event = tls->event;
    EXPECT_NE(event, 0);
    pthread_setspecific(OSTriggerTLS::tls_key, nullptr);  // the triggers below are made for no list
    HandTrigger first(OS_TA_NONE);
    HandTrigger second(OS_TA_NONE);
    std::atomic<int> calls{0};
    HandTrigger third;
    third.SetCallback(count_call, as_obj(&calls), nullptr, 0);
    for (HandTrigger* trigger : {&first, &second, &third}) {
      trigger->tls = tls.get();
      trigger->ArmAndFire();
    }
    EXPECT_EQ(drain(event), 3);
    tls->Poll();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(triggers_on(tls->OS_READY_LIST), (Triggers{&first, &second}));

    tls.reset();

    EXPECT_EQ(KernelEvent::Find(event), nullptr);
    EXPECT_EQ(first.State(), OS_T_READY) << "in no list";
    for (HandTrigger* trigger : {&first, &second, &third}) trigger->tls = nullptr;
    first.Cancel();
    EXPECT_EQ(first.State(), OS_T_INACTIVE);
    second.Clear();
    second.Fire();
    EXPECT_EQ(triggers_on(OS_READY_LIST), Triggers{&second});
  });
}

TEST_F(OwnLists, TriggersOnAListThatIsTornDownStayUsable) {
  struct Four {
    std::unique_ptr<HandTrigger> inactive = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> waiting = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> ready = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> ready_too = std::make_unique<HandTrigger>();
    std::unique_ptr<HandTrigger> actioned = std::make_unique<HandTrigger>();
  };
  std::atomic<int> calls{0};
  for (const bool another_list_follows : {false, true}) {
    for (const char* what : {"delete", "cancel", "fire", "clear and fire"}) {
      const std::string operation = what;
      SCOPED_TRACE(operation + (another_list_follows ? ", after another thread made a list" : ""));
      std::unique_ptr<Four> four;
      on_thread([&] {
        OwnDispatch own;
        four = std::make_unique<Four>();
        four->waiting->Arm();
        four->actioned->ArmAndFire();
        OSTrigger::TLSPoll();
        four->ready->ArmAndFire();
        four->ready_too->ArmAndFire();
      });
      EXPECT_EQ(four->ready->State(), OS_T_READY) << "triggers on the list are left as they are";
      EXPECT_EQ(four->ready_too->State(), OS_T_READY);
      EXPECT_EQ(OS_READY_LIST.Size(), 0) << "and moved nowhere";

      const auto use_them = [&] {
        if (operation == "delete") {
          four->ready.reset();
          four->waiting.reset();
        }
        const Triggers all = {four->inactive.get(), four->waiting.get(), four->ready.get(),
                              four->ready_too.get(), four->actioned.get()};
        for (OSTrigger* trigger : all) {
          if (trigger == nullptr) continue;
          if (operation == "cancel") {
            trigger->Cancel();
            EXPECT_EQ(trigger->State(), OS_T_INACTIVE);
          }
          if (operation == "fire") trigger->Fire();
          if (operation == "clear and fire") {
            trigger->Clear();
            trigger->Fire();
            EXPECT_EQ(trigger->State(), OS_T_READY);
          }
        }
        if (operation == "fire") {
          EXPECT_EQ(four->waiting->State(), OS_T_READY);
        }
        os_check_triggers();
        four.reset();
      };
      if (another_list_follows) {
        // The new list may well stand where the old one stood.
        on_thread([&] {
          OwnDispatch own;
          HandTrigger neighbour(OS_TA_NONE);
          neighbour.ArmAndFire();
          use_them();
          EXPECT_TRUE(is_on(OwnDispatch::tls().OS_READY_LIST, &neighbour));
          EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 1);
        });
      } else {
        use_them();
      }
      EXPECT_EQ(OS_READY_LIST.Size(), 0);
      EXPECT_TRUE(ListIsSound(OS_READY_LIST));
      EXPECT_TRUE(OS_READY_LIST.IsEmpty());
    }
  }
}

TEST_F(OwnLists, AListMayBeTornDownWhileOtherThreadsFireItsTriggers) {
  for (Rounds rounds(200); rounds.next();) {
    std::unique_ptr<HandTrigger> trigger;
    Gate made;
    std::atomic<bool> stop{false};
    std::thread owner([&] {
      OwnDispatch own;
      trigger = std::make_unique<HandTrigger>();
      made.open();
      for (int i = 0; i < 5; ++i) OSTrigger::TLSPoll();
    });
    ASSERT_TRUE(made.wait());
    std::thread other([&] {
      while (!stop) {
        trigger->Clear();
        trigger->Fire();
      }
    });
    owner.join();
    stop = true;
    other.join();
    trigger.reset();
    EXPECT_EQ(OS_READY_LIST.Size(), 0);
  }
  EXPECT_TRUE(ListIsSound(OS_READY_LIST));
}

}  // namespace
