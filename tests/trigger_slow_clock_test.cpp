// The time check around the actions of a thread's own list, on a clock that stands still until a test moves it.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/fake_clock.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

class SlowActions : public StillClockTest {
 protected:
  /// Runs `work` on a thread with a ready list of its own.
  static void with_own_list(const Script& work) {
    on_thread([&work] {
      OwnDispatch own;
      work();
      EXPECT_EQ(OwnDispatch::tls().OS_READY_LIST.Size(), 0);
    });
  }

  std::vector<std::string> lines() {
    std::vector<std::string> calls = console.calls();
    console.clear();
    return calls;
  }

  static std::string pointer(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
  }

  /// The message that the text of the interface states.
  static std::string took(const void* trigger, const std::string& middle, unsigned long ms) {
    return "OSTriggerTLS::Poll - trigger " + pointer(trigger) + middle + " took " + std::to_string(ms) + "ms";
  }

  /// What the dynamic loader knows about a callback: " (name)", or " (callback 0x...)" without a name.
  static std::string named(OSCallbackFunction callback) {
    Dl_info info{};
    void* address = reinterpret_cast<void*>(callback);
    if (dladdr(address, &info) != 0 && info.dli_sname != nullptr)
      return std::string(" (") + info.dli_sname + ")";
    return " (callback " + pointer(address) + ")";
  }

  static void take_value_ms(OSObj*, ADDR, ULONG value) { FakeClock::advance(value); }
};

TEST_F(SlowActions, ACallbackOfSixHundredMillisecondsIsReportedOnce) {
  with_own_list([this] {
    HandTrigger trigger;
    trigger.SetCallback(&take_value_ms, nullptr, nullptr, 600);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, named(&take_value_ms), 600)});
    OSTrigger::TLSPoll();
    EXPECT_TRUE(lines().empty());
  });
}

/// Takes its time to go: deleted through the axe task's callback, whose name the loader knows because the
/// library exports it.
class SlowToGo : public OSTask {
 public:
  SlowToGo() : OSTask(3, 0, nullptr, nullptr) { LeaveCriticalSection(&cs); }
  ~SlowToGo() override { FakeClock::advance(601); }
  void Main() override {
    while (state_of(*this) != OS_ST_KILL) Sleep(1);
  }
};

TEST_F(SlowActions, TheReportNamesTheCallbacksSymbol) {
  const OSCallbackFunction callback = &OSAxeTask::Trigger;
  Dl_info info{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(callback), &info), 0);
  ASSERT_NE(info.dli_sname, nullptr);
  ASSERT_NE(std::string(info.dli_sname).find("OSAxeTask"), std::string::npos);
  with_own_list([&] {
    OSAxeTask axe;  // its trigger belongs to this thread's list
    auto* task = new SlowToGo;
    task->Kill();
    axe.Axe(task);
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(),
              std::vector<std::string>{took(axe.trig, std::string(" (") + info.dli_sname + ")", 601)});
  });
}

TEST_F(SlowActions, ACallbackWithoutASymbolIsReportedByItsAddress) {
  // Code that was made at run time, or whose symbols were stripped, has no name.
  const OSCallbackFunction nameless = [](OSObj*, ADDR, ULONG value) { FakeClock::advance(value); };
  ASSERT_EQ(named(nameless), " (callback " + pointer(reinterpret_cast<void*>(nameless)) + ")");
  with_own_list([&] {
    HandTrigger trigger;
    trigger.SetCallback(nameless, nullptr, nullptr, 4000000000u);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(),
              std::vector<std::string>{took(
                  &trigger, " (callback " + pointer(reinterpret_cast<void*>(nameless)) + ")", 4000000000ul)});
  });
}

TEST_F(SlowActions, FiveHundredMillisecondsAreNotReported) {
  struct Row {
    ULONG start;
    ULONG ms;
    bool reported;
  };
  const Row rows[] = {{kNow, 0, false},       {kNow, 499, false},        {kNow, 500, false},
                      {kNow, 501, true},      {0xFFFFFF00u, 500, false}, {0xFFFFFF00u, 501, true},
                      {0u, 0x90000000u, true}};
  for (const Row& row : rows) {
    with_own_list([&] {
      FakeClock::set(row.start);
      HandTrigger trigger;
      trigger.SetCallback(&take_value_ms, nullptr, nullptr, row.ms);
      trigger.ArmAndFire();
      OSTrigger::TLSPoll();
      EXPECT_EQ(lines(), row.reported
                             ? std::vector<std::string>{took(&trigger, named(&take_value_ms), row.ms)}
                             : std::vector<std::string>{});
    });
  }
}

/// Takes its time over becoming actioned.
class SlowToAct : public HandTrigger {
 public:
  SlowToAct(OSTrAction action_to_do, ULONG ms) : HandTrigger(action_to_do), ms_(ms) {}
  ~SlowToAct() override { OSTrigger::Inactive(); }

 protected:
  void Actioned() override {
    HandTrigger::Actioned();
    FakeClock::advance(ms_);
  }

 private:
  ULONG ms_;
};

TEST_F(SlowActions, AWakeTriggerIsReportedWithoutACallback) {
  with_own_list([this] {
    Owned<> task;
    SlowToAct trigger(OS_TA_WAKE, 700);
    trigger.SetTask(task.get());
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_TRUE(lines().empty()) << "an action that fails is not measured";
    EXPECT_EQ(trigger.State(), OS_T_READY);
    task->Snooze();
    OSTrigger::TLSPoll();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, "", 700)});
  });
}

TEST_F(SlowActions, ANullCallbackIsReportedWithoutACallback) {
  with_own_list([this] {
    SlowToAct trigger(OS_TA_FUNC, 501);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, "", 501)});
  });
}

TEST_F(SlowActions, TheCallbackNotedBeforeTheActionIsNamed) {
  with_own_list([this] {
    HandTrigger trigger;
    Script changes = [&trigger] {
      FakeClock::advance(600);
      trigger.SetCallback(&take_value_ms, nullptr, nullptr, 0);
    };
    set_script(trigger, changes);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), std::vector<std::string>{took(&trigger, named(&run_script), 600)});
  });
}

TEST_F(SlowActions, ASlowCallbackMayDeleteItsTrigger) {
  with_own_list([this] {
    auto* trigger = new HandTrigger;
    const void* address = trigger;
    Script deletes = [trigger] {
      FakeClock::advance(600);
      delete trigger;
    };
    set_script(*trigger, deletes);
    trigger->ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), std::vector<std::string>{took(address, named(&run_script), 600)});
  });
}

TEST_F(SlowActions, EverySlowActionIsReportedAndQuickOnesAreNot) {
  with_own_list([this] {
    HandTrigger triggers[4];
    const ULONG ms[] = {600, 10, 700, 500};
    for (std::size_t i = 0; i < 4; ++i) {
      triggers[i].SetCallback(&take_value_ms, nullptr, nullptr, ms[i]);
      triggers[i].ArmAndFire();
    }
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines(), (std::vector<std::string>{took(&triggers[0], named(&take_value_ms), 600),
                                                 took(&triggers[2], named(&take_value_ms), 700)}));
  });
}

TEST_F(SlowActions, TheLoadersErrorStateIsClearedBeforeItIsAskedForAName) {
  with_own_list([this] {
    ASSERT_EQ(dlopen("/a library that does not exist", RTLD_NOW), nullptr);
    HandTrigger trigger;
    trigger.SetCallback(&take_value_ms, nullptr, nullptr, 600);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_EQ(dlerror(), nullptr);
  });
}

TEST_F(SlowActions, TheGlobalListIsNotMeasured) {
  HandTrigger trigger;
  trigger.SetCallback(&take_value_ms, nullptr, nullptr, 10000);
  trigger.ArmAndFire();
  os_check_triggers();
  EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  EXPECT_TRUE(lines().empty());
}

TEST_F(SlowActions, NoConsoleIsNoCrash) {
  with_own_list([] {
    Console = nullptr;
    HandTrigger trigger;
    trigger.SetCallback(&take_value_ms, nullptr, nullptr, 600);
    trigger.ArmAndFire();
    OSTrigger::TLSPoll();
    EXPECT_EQ(trigger.State(), OS_T_ACTIONED);
  });
  Console = &console;
}

}  // namespace
