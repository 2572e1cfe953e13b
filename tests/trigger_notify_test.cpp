// os_notify_now: the callbacks that a program has put on OS_NOTIFY_LIST.

#include <gtest/gtest.h>

#include <string>

#include "kernel/buffer_callback.h"
#include "kernel/trigger.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {
/// Where the hooks around list surgery are noted; null when no test asks.
std::string* hooks = nullptr;

void note_hook(char letter) {
  if (hooks != nullptr) *hooks += OS_NOTIFY_LIST.IsEmpty() ? letter : static_cast<char>(letter - 'a' + 'A');
}
}  // namespace

// The executable's symbols come before the library's.
void os_intdis() { note_hook('d'); }
void os_intenb() { note_hook('e'); }

namespace {

class Notifications : public QuietTriggerTest {
 protected:
  void SetUp() override {
    QuietTriggerTest::SetUp();
    ASSERT_TRUE(OS_NOTIFY_LIST.IsEmpty());
  }

  struct Entry {
    std::string* log = nullptr;
    char letter = '?';
    OSCallback* callback = nullptr;
    OSCallback* to_append = nullptr;
    bool detached = false;
    ADDR addr = nullptr;
    ULONG value = 0;
    ULONG pool_during = 0;

    static void call(OSObj* obj, ADDR address, ULONG number) {
      Entry& entry = from_obj<Entry>(obj);
      *entry.log += entry.letter;
      OSCallback* self = entry.callback;
      entry.detached = self->next == self && self->previous == self && self->OSLink::object == nullptr;
      entry.addr = address;
      entry.value = number;
      entry.pool_during = OSCallback::callback_pool_size;
      if (entry.to_append != nullptr) OS_NOTIFY_LIST.Append(entry.to_append, entry.to_append);
    }
  };

  OSCallback* make(Entry& entry, char letter, ADDR addr = nullptr, ULONG value = 0) {
    entry.log = &log;
    entry.letter = letter;
    entry.callback = OSCallback::Alloc(nullptr, &Entry::call, as_obj(&entry), addr, value);
    return entry.callback;
  }
  static void append(OSCallback* callback) { OS_NOTIFY_LIST.Append(callback, callback); }

  std::string log;
};

TEST_F(Notifications, NothingPendingIsNothingDone) {
  os_notify_now();
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());
}

TEST_F(Notifications, PendingOnesRunInOrderWithTheirArgumentsAndGoBackToThePool) {
  const ULONG pool = OSCallback::callback_pool_size;
  Entry a;
  Entry b;
  Entry c;
  int address = 0;
  append(make(a, 'a', &address, 0xFFFFFFFFu));
  append(make(b, 'b', nullptr, 7));
  append(make(c, 'c'));
  EXPECT_EQ(OSCallback::callback_pool_size, pool - 3);

  os_notify_now();

  EXPECT_EQ(log, "abc");
  EXPECT_EQ(a.addr, &address);
  EXPECT_EQ(a.value, 0xFFFFFFFFu);
  EXPECT_EQ(b.addr, nullptr);
  EXPECT_EQ(b.value, 7u);
  for (const Entry* entry : {&a, &b, &c}) {
    EXPECT_TRUE(entry->detached) << "a notification has left the list before it runs";
  }
  EXPECT_EQ(a.pool_during, pool - 3) << "a notification is freed after it has run";
  EXPECT_EQ(c.pool_during, pool - 1);
  EXPECT_EQ(OSCallback::callback_pool_size, pool);
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());
  os_notify_now();
  EXPECT_EQ(log, "abc");
}

TEST_F(Notifications, EachIsTakenOutBetweenTheHooksForListSurgery) {
  Entry a;
  Entry b;
  append(make(a, 'a'));
  append(make(b, 'b'));
  hooks = &log;
  os_notify_now();
  hooks = nullptr;
  // In capitals while the list is not empty.
  EXPECT_EQ(log, "DEaDeb");
}

TEST_F(Notifications, OneAppendedByANotificationRunsInTheSameCall) {
  const ULONG pool = OSCallback::callback_pool_size;
  Entry a;
  Entry b;
  Entry c;
  append(make(a, 'a'));
  append(make(b, 'b'));
  a.to_append = make(c, 'c');
  os_notify_now();
  EXPECT_EQ(log, "abc");
  EXPECT_EQ(OSCallback::callback_pool_size, pool);
}

TEST_F(Notifications, ANotificationMayCancelTheRecordThatItBelongsTo) {
  const ULONG pool = OSCallback::callback_pool_size;
  OSCallbackRecord record;
  int calls = 0;
  Script cancels = [&record, &calls] {
    ++calls;
    record.CancelCallbacks();
  };
  for (int i = 0; i < 3; ++i) {
    append(OSCallback::Alloc(&record, &run_script, as_obj(&cancels), nullptr, 0));
  }
  os_notify_now();
  EXPECT_EQ(calls, 1) << "the others are cancelled with it";
  EXPECT_EQ(record.Size(), 0);
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());
  EXPECT_EQ(OSCallback::callback_pool_size, pool);
}

TEST_F(Notifications, ANotificationWithoutAFunctionOnlyGoesBackToThePool) {
  const ULONG pool = OSCallback::callback_pool_size;
  append(OSCallback::Alloc(nullptr, nullptr, nullptr, nullptr, 0));
  os_notify_now();
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());
  EXPECT_EQ(OSCallback::callback_pool_size, pool);
}

TEST_F(Notifications, NoSectionIsHeldWhileANotificationRuns) {
  int levels = -1;
  Script looks = [&levels] {
    levels =
        levels_held(OS_CRITICAL_TRIGGER) + levels_held(OS_CRITICAL_CALLBACKS) + levels_held(OS_CRITICAL_LINK);
  };
  append(OSCallback::Alloc(nullptr, &run_script, as_obj(&looks), nullptr, 0));
  os_notify_now();
  EXPECT_EQ(levels, 0);
}

TEST_F(Notifications, ARecordForgetsTheNotificationThatRan) {
  OSCallbackRecord record;
  Entry a;
  a.log = &log;
  a.letter = 'a';
  a.callback = OSCallback::Alloc(&record, &Entry::call, as_obj(&a), nullptr, 0);
  append(a.callback);
  EXPECT_EQ(record.Size(), 1);
  os_notify_now();
  EXPECT_EQ(record.Size(), 0);
}

}  // namespace
