// How long names are kept, on a clock that stands still until the test moves it.

#include <gtest/gtest.h>

#include <string>

#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "support/fake_clock.h"
#include "support/name_cache_fixture.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

constexpr ULONG kNow = 1000000;
constexpr ULONG kKeptMs = 300000;

class NameExpiry : public NameCache {
 protected:
  void SetUp() override {
    FakeClock::set(kNow);
    NameCache::SetUp();
    ASSERT_EQ(os_clock(), kNow);
    FakeResolver::know("host", ip(10, 9, 8, 7));
  }
  static void pass(ULONG ms) {
    FakeClock::advance(ms);
    os_check_triggers();
  }
  /// The first attempt has failed and is to be delivered; the resolver is held before the second.
  static bool fails_first() {
    FakeResolver::forget("host");
    FakeResolver::hold();
    DNSEntry::Lookup("host", nullptr);
    FakeResolver::let_go();
    return resolved(1) && wait_until([] { return field("host", &DNSEntry::result) == true; });
  }
  static OSTrState timer_state(const std::string& name) {
    const CacheSection section;
    DNSEntry* found = entry(name);
    return found != nullptr ? found->timer.State() : OS_T_INACTIVE;
  }
};

TEST_F(NameExpiry, ANameIsKeptForFiveMinutesFromItsDelivery) {
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(timer_state("host"), OS_T_INACTIVE);
  FakeClock::advance(1000);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(timer_state("host"), OS_T_WAIT);
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  {
    const CacheSection section;
    EXPECT_EQ(entry("host")->timer.duration, kKeptMs);
    EXPECT_EQ(entry("host")->timer.start_time, kNow + 1000);
  }
  pass(kKeptMs - 1);
  EXPECT_EQ(entries(), Names{"host"});
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  pass(1);
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u) << "asked for again";
  EXPECT_EQ(entries(), Names{"host"});
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  EXPECT_EQ(FakeResolver::calls(), (Names{"host", "host"}));
}

TEST_F(NameExpiry, AnAnswerThatIsNotDeliveredDoesNotExpire) {
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(resolved(1));
  FakeClock::advance(10 * kKeptMs);
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7)) << "its age is not looked at";
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(entries(), Names{"host"});
}

TEST_F(NameExpiry, LookUpsDoNotProlongIt) {
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  for (ULONG passed = 0; passed < kKeptMs; passed += 10000) {
    EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
    pass(10000);
  }
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
}

TEST_F(NameExpiry, EachNameHasItsOwnFiveMinutes) {
  FakeResolver::know("other", ip(10, 9, 8, 6));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  pass(1000);
  DNSEntry::Lookup("other", nullptr);
  ASSERT_TRUE(delivered(2));
  pass(kKeptMs - 1000);
  EXPECT_EQ(entries(), Names{"other"});
  pass(1000);
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameExpiry, IsRightAcrossTheTicksWrap) {
  FakeClock::set(0xFFFFFFFF - 1000);
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  pass(kKeptMs - 1);
  EXPECT_EQ(entries(), Names{"host"});
  pass(1);
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameExpiry, AClearedNameHasNoTimerLeft) {
  set_trace(1);
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  pass(1000);
  DNSEntry::Clear("host");
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(2));
  pass(kKeptMs - 1000);
  EXPECT_EQ(entries(), Names{"host"}) << "the five minutes of the first one are nobody's";
  EXPECT_EQ(console.count("DNSEntry::~DNSEntry"), 1);
  pass(1000);
  EXPECT_EQ(entries(), Names{});
  // The resolver thread may still be letting go of it.
  EXPECT_TRUE(wait_until([&] { return console.count("DNSEntry::~DNSEntry") == 2; }));
}

TEST_F(NameExpiry, ANameFoundAtTheSecondAttemptIsKeptFromThatDelivery) {
  ASSERT_TRUE(fails_first());
  DNSEntry::Lookup("host", nullptr);
  os_check_triggers();
  EXPECT_EQ(timer_state("host"), OS_T_WAIT);
  FakeClock::advance(1000);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  pass(kKeptMs - 1);
  EXPECT_EQ(entries(), Names{"host"});
  pass(1);
  EXPECT_EQ(entries(), Names{});
}

// An entry that failed, and was asked for again, may expire while the resolver thread is at work on it.
TEST_F(NameExpiry, ANameMayExpireWhileItIsResolved) {
  const OwnedSocket socket = datagram_socket();
  ASSERT_TRUE(fails_first());
  os_check_triggers();
  EXPECT_EQ(entries(), Names{});

  DNSEntry::Lookup("host", nullptr);
  FakeResolver::let_go();
  ASSERT_TRUE(FakeResolver::wait_for_calls(2));
  ASSERT_TRUE(wait_until([] { return field("host", &DNSEntry::result) == true; }));
  socket->Connect("host", 4711);
  os_check_triggers();  // the failure is delivered, the name waits again: five minutes from now
  ASSERT_TRUE(FakeResolver::wait_for_calls(3));
  console.clear();
  pass(kKeptMs);
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(pending(), Names{});
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::release();
  DNSEntry::Lookup("next", nullptr);
  ASSERT_TRUE(delivered(4));
  EXPECT_EQ(entries(), Names{}) << "nothing came of the late answer";
  EXPECT_EQ(console.count("AsyncSocket::DNSResult"), 0);
}

TEST_F(NameExpiry, ASocketCanBeFreedAfterTheNameItWaitsForHasExpired) {
  ASSERT_TRUE(fails_first());
  DNSEntry::Lookup("host", nullptr);
  os_check_triggers();
  ASSERT_TRUE(FakeResolver::wait_for_calls(2));
  OwnedSocket socket = datagram_socket();
  socket->Connect("host", 4711);
  pass(kKeptMs);
  EXPECT_EQ(entries(), Names{});
  socket.reset();
  FakeResolver::release();
  ASSERT_TRUE(resolved(2));
  os_check_triggers();
}

TEST_F(NameExpiry, TheTimerOfAnEntryThatIsNotInTheCacheDeletesNothing) {
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  ProbeEntry stranger("host", 0);
  ProbeEntry::_TimerCallback(reinterpret_cast<OSObj*>(static_cast<DNSEntry*>(&stranger)), nullptr, 0);
  EXPECT_STREQ(stranger.dnsname, "host");
  EXPECT_EQ(entries(), Names{"host"});
  DNSEntry* own = entry("host");
  ProbeEntry::_TimerCallback(reinterpret_cast<OSObj*>(own), nullptr, 0);
  EXPECT_EQ(entries(), Names{});
  // Its timer may have fired on another thread in the moment in which it was deleted.
  ProbeEntry::_TimerCallback(reinterpret_cast<OSObj*>(own), nullptr, 0);
  EXPECT_EQ(entries(), Names{});
}

// A timer that has fired on another thread may come late: its entry is gone, and another stands at its address.
TEST_F(NameExpiry, ATimerOfAnEarlierEntryAtItsAddressDeletesNothing) {
  FakeResolver::know("other", ip(10, 9, 8, 6));
  DNSEntry::Lookup("host", nullptr);
  DNSEntry::Lookup("other", nullptr);
  ASSERT_TRUE(delivered(2));
  DNSEntry* const host = entry("host");
  const ULONG own = host->timer.value;
  const ULONG others = entry("other")->timer.value;
  EXPECT_NE(own, others);
  ProbeEntry::_TimerCallback(reinterpret_cast<OSObj*>(host), nullptr, others);
  EXPECT_EQ(entries(), (Names{"host", "other"}));
  ProbeEntry::_TimerCallback(reinterpret_cast<OSObj*>(host), nullptr, own);
  EXPECT_EQ(entries(), Names{"other"});
}

TEST_F(NameExpiry, NoTimerIsLeftWhenTheLayerStops) {
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  AsyncSocket::Cleanup();
  pass(kKeptMs);
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
}

}  // namespace
