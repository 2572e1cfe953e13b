// The cache of host names: look-ups, the resolver thread, delivery, and its start and stop.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/name_cache_fixture.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

static_assert(std::is_base_of_v<OSListObj, DNSEntry>);
static_assert(std::is_same_v<decltype(DNSEntry::dnsname), char*>);
static_assert(std::is_same_v<decltype(DNSEntry::dnsaddr), ULONG>);
static_assert(std::is_same_v<decltype(DNSEntry::result), bool>);
static_assert(std::is_same_v<decltype(DNSEntry::timer), OSTimerTrigger>);
static_assert(std::is_same_v<decltype(DNSEntry::usageCount), int>);
static_assert(std::is_same_v<decltype(DNSEntry::idleCount), int>);
static_assert(std::is_same_v<decltype(DNSEntry::sockets), OSIndirectList>);
static_assert(std::is_same_v<decltype(DNSEntry::csinit), int>);
static_assert(std::is_same_v<decltype(DNSEntry::trace), int>);
static_assert(std::is_same_v<decltype(DNSEntry::event), HANDLE>);
static_assert(std::is_same_v<decltype(DNSEntry::stop), bool>);
static_assert(std::is_same_v<decltype(DNSEntry::stopped), bool>);
static_assert(std::is_same_v<decltype(DNSEntry::thread), pthread_t>);
static_assert(std::has_virtual_destructor_v<DNSEntry>);

// ---- Entries -----------------------------------------------------------------------------------------------------

TEST_F(NameCache, AnEntryBeginsUnresolvedWithACopyOfItsName) {
  char name[] = "Some.Host";
  ProbeEntry entry(name, 0);
  name[0] = 'X';
  EXPECT_STREQ(entry.dnsname, "Some.Host");
  EXPECT_EQ(entry.dnsaddr, 0u);
  EXPECT_FALSE(entry.result);
  EXPECT_EQ(entry.usageCount, 0);
  EXPECT_EQ(entry.idleCount, 0);
  EXPECT_EQ(entry.sockets.Size(), 0);
  EXPECT_EQ(entry.timer.callback, &ProbeEntry::_TimerCallback);
  EXPECT_EQ(static_cast<void*>(entry.timer.obj), static_cast<DNSEntry*>(&entry));
  EXPECT_FALSE(entry.timer.IsActive());

  const ProbeEntry known("other", ip(1, 2, 3, 4));
  EXPECT_EQ(known.dnsaddr, ip(1, 2, 3, 4));
}

TEST_F(NameCache, FieldsStandInTheirOrder) {
  const ProbeEntry entry("host", 0);
  const auto at = [](const void* field) { return reinterpret_cast<std::uintptr_t>(field); };
  EXPECT_EQ(at(&entry.dnsname), at(&entry) + sizeof(OSListObj));
  EXPECT_LT(at(&entry.dnsname), at(&entry.dnsaddr));
  EXPECT_LT(at(&entry.dnsaddr), at(&entry.result));
  EXPECT_LT(at(&entry.result), at(&entry.timer));
  EXPECT_LT(at(&entry.timer), at(&entry.usageCount));
  EXPECT_LT(at(&entry.usageCount), at(&entry.idleCount));
  EXPECT_LT(at(&entry.idleCount), at(&entry.sockets));
}

TEST_F(NameCache, EntriesTellOfThemselvesWhenTheyAreTraced) {
  set_trace(1);
  std::string begin, end;
  {
    const ProbeEntry entry("some.host", ip(1, 2, 3, 4));
    begin = with_pointer("DNSEntry::DNSEntry %p - some.host / 1020304", static_cast<const DNSEntry*>(&entry));
    end = with_pointer("DNSEntry::~DNSEntry %p - some.host / 1020304", static_cast<const DNSEntry*>(&entry));
    EXPECT_EQ(console.count(begin), 1);
    EXPECT_EQ(console.count(end), 0);
  }
  EXPECT_EQ(console.count(end), 1);
  set_trace(0);
  console.clear();
  { const ProbeEntry entry("some.host", 0); }
  EXPECT_EQ(console.text(), "");
}

// ---- Look-ups ----------------------------------------------------------------------------------------------------

TEST_F(NameCache, RunsWithTheNetworkingLayer) {
  EXPECT_EQ(DNSEntry::csinit, 1);
  EXPECT_NE(DNSEntry::thread, 0u);
  EXPECT_NE(AsyncSocket::dnstrigger, nullptr);
  EXPECT_EQ(AsyncSocket::dnstrigger->callback, &DNSEntry::Callback);
  EXPECT_EQ(AsyncSocket::dnstrigger->obj, nullptr);
  const auto* timer = dynamic_cast<OSTimerTrigger*>(AsyncSocket::dnstrigger);
  ASSERT_NE(timer, nullptr);
  EXPECT_EQ(timer->duration, 0u);
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(pending(), Names{});
  AsyncSocket::Cleanup();
  EXPECT_EQ(DNSEntry::csinit, 0);
  EXPECT_EQ(DNSEntry::thread, 0u);
}

TEST_F(NameCache, AnUnknownNameIsZeroAndWaitsForTheResolver) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  EXPECT_EQ(entries(), Names{"host"});
  EXPECT_EQ(pending(), Names{"host"}) << "it waits until the resolver has answered";
  EXPECT_EQ(field("host", &DNSEntry::result), false);
  EXPECT_EQ(field("host", &DNSEntry::dnsaddr), 0u);
  EXPECT_EQ(waiting_sockets("host"), 0);
  FakeResolver::let_go();
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
}

TEST_F(NameCache, AddressAndEndOfWaitingComeTogether) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
    for (;;) {
      const CacheSection section;
      const DNSEntry* found = entry("host");
      ASSERT_NE(found, nullptr);
      const bool waits = DNSEntry::pending.Size() != 0;
      ASSERT_EQ(found->dnsaddr == 0, waits);
      if (!waits) break;
    }
    DNSEntry::Clear("host");
  }
}

TEST_F(NameCache, AFoundNameIsKnownBeforeItIsDelivered) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  ASSERT_TRUE(wait_until([] { return field("host", &DNSEntry::result) == true; }));
  os_check_triggers();
  EXPECT_EQ(field("host", &DNSEntry::result), false);
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
}

TEST_F(NameCache, ANameThatWaitsAlreadyIsNotQueuedTwice) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  EXPECT_EQ(pending(), Names{"host"});
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
}

TEST_F(NameCache, NamesAreMatchedIgnoringCaseAndKeepTheFirstSpelling) {
  FakeResolver::know("Some.HOST", ip(10, 9, 8, 7));
  DNSEntry::Lookup("Some.HOST", nullptr);
  DNSEntry::Lookup("some.host", nullptr);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(DNSEntry::Lookup("SOME.host", nullptr), ip(10, 9, 8, 7));
  EXPECT_EQ(entries(), Names{"Some.HOST"});
  EXPECT_EQ(FakeResolver::calls(), Names{"Some.HOST"});
  EXPECT_EQ(DNSEntry::Lookup("some.host.", nullptr), 0u) << "another name";
  ASSERT_TRUE(delivered(2));
}

TEST_F(NameCache, CountsItsLookUps) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  DNSEntry::Lookup("host", nullptr);
  EXPECT_EQ(field("host", &DNSEntry::usageCount), 1);
  DNSEntry::Lookup("HOST", nullptr);
  EXPECT_EQ(field("host", &DNSEntry::usageCount), 2);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  DNSEntry::Lookup("host", nullptr);
  EXPECT_EQ(field("host", &DNSEntry::usageCount), 3);
  EXPECT_EQ(field("host", &DNSEntry::idleCount), 0);
}

TEST_F(NameCache, AddressesAreInHostOrder) {
  FakeResolver::know("host", 0x01020304);
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0x01020304u);
}

TEST_F(NameCache, TheFirstOfSeveralAddressesIsTaken) {
  FakeResolver::know("host", {ip(10, 0, 0, 3), ip(10, 0, 0, 1), ip(10, 0, 0, 2)});
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 0, 0, 3));
}

TEST_F(NameCache, AHostWithoutAnAddressIsNotFound) {
  FakeResolver::know("empty", std::vector<ULONG>{});
  FakeResolver::know_without_list("no.list");
  FakeResolver::know_as_ipv6("other.family");
  DNSEntry::Lookup("empty", nullptr);
  DNSEntry::Lookup("no.list", nullptr);
  DNSEntry::Lookup("other.family", nullptr);
  ASSERT_TRUE(delivered(3));
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameCache, NamesAreResolvedInTheOrderInWhichTheyWereAskedFor) {
  const Names names = {"one", "two", "three", "four", "five"};
  FakeResolver::hold();
  for (std::size_t i = 0; i < names.size(); ++i) {
    FakeResolver::know(names[i], ip(10, 0, 0, static_cast<ULONG>(i) + 1));
    DNSEntry::Lookup(names[i].c_str(), nullptr);
  }
  EXPECT_EQ(pending(), names);
  EXPECT_EQ(entries(), names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    ASSERT_TRUE(FakeResolver::wait_for_calls(i + 1));
    EXPECT_EQ(pending(), Names(names.begin() + static_cast<long>(i), names.end()));
    FakeResolver::let_go();
  }
  ASSERT_TRUE(delivered(names.size()));
  EXPECT_EQ(FakeResolver::calls(), names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(DNSEntry::Lookup(names[i].c_str(), nullptr), ip(10, 0, 0, static_cast<ULONG>(i) + 1));
  }
}

TEST_F(NameCache, AVeryLongNameIsANameLikeAnyOther) {
  const std::string name(5000, 'x');
  set_trace(2);
  FakeResolver::know(name, ip(10, 9, 8, 7));
  DNSEntry::Lookup(name.c_str(), nullptr);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(DNSEntry::Lookup(name.c_str(), nullptr), ip(10, 9, 8, 7));
  EXPECT_EQ(FakeResolver::calls(), Names{name});
}

TEST_F(NameCache, AFailedNameIsForgottenAndAskedForAgain) {
  for (std::size_t attempt = 1; attempt <= 3; ++attempt) {
    EXPECT_EQ(DNSEntry::Lookup("nobody", nullptr), 0u);
    ASSERT_TRUE(delivered(attempt));
    EXPECT_EQ(entries(), Names{}) << "failures are not kept";
  }
  FakeResolver::know("nobody", ip(10, 9, 8, 7));
  EXPECT_EQ(DNSEntry::Lookup("nobody", nullptr), 0u);
  ASSERT_TRUE(delivered(4));
  EXPECT_EQ(DNSEntry::Lookup("nobody", nullptr), ip(10, 9, 8, 7));
}

TEST_F(NameCache, AFailureAskedForAgainBeforeDeliveryLivesOn) {
  FakeResolver::hold();
  DNSEntry::Lookup("host", nullptr);
  FakeResolver::let_go();
  ASSERT_TRUE(resolved(1));
  ASSERT_TRUE(wait_until([] { return field("host", &DNSEntry::result) == true; }));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u) << "simply queued again";
  EXPECT_EQ(pending(), Names{"host"});
  const DNSEntry* const first = entry("host");
  os_check_triggers();
  EXPECT_EQ(entry("host"), first) << "not deleted, because it waits again";
  EXPECT_EQ(field("host", &DNSEntry::result), false);
  {
    const CacheSection section;
    EXPECT_EQ(entry("host")->timer.State(), OS_T_WAIT);
    EXPECT_EQ(entry("host")->timer.duration, 300000u);
  }
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
  EXPECT_EQ(entry("host"), first);
}

// The system's call keeps its answer in storage that the next call overwrites.
TEST_F(NameCache, NoTwoThreadsAreInTheSystemsCallAtOnce) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  WatchedThread second([] { ProbeEntry::Thread(nullptr); });  // the body that the resolver thread runs
  EXPECT_TRUE(second.blocked());
  EXPECT_EQ(FakeResolver::calls(), Names{"host"}) << "the second call waits for the first";
  FakeResolver::release();
  ASSERT_TRUE(FakeResolver::wait_for_calls(2));
  std::atomic_ref<bool>(DNSEntry::stop).store(true);
  for (int i = 0; i < 2; ++i) SetEvent(DNSEntry::event);
  EXPECT_TRUE(second.finished_within(kPatienceMs));
  DNSEntry::StopThread();
}

// The lists are the program's to look at, and some have put entries of their own there.
TEST_F(NameCache, ListsThatAProgramHasChangedAreTakenAsTheyAre) {
  FakeResolver::know("own", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  socket->rem_sin.SPort(4711);
  {
    const CacheSection section;
    auto* const known = new ProbeEntry("known", ip(1, 2, 3, 4));
    DNSEntry::entries.Append(known);
    EXPECT_EQ(DNSEntry::Lookup("Known", nullptr), ip(1, 2, 3, 4));
    DNSEntry::Clear("known");
    EXPECT_EQ(entries(), Names{});

    auto* const kept = new ProbeEntry("kept", ip(1, 2, 3, 5));
    DNSEntry::entries.Append(kept);
    DNSEntry::pending.Append(kept);
    auto* const own = new ProbeEntry("own", 0);
    DNSEntry::entries.Append(own);
    DNSEntry::pending.Append(own);
    own->sockets.Append(socket.get());
    EXPECT_EQ(DNSEntry::Lookup("own", nullptr), 0u);
    EXPECT_EQ(pending(), (Names{"kept", "own"})) << "it waits already";
    DNSEntry::Lookup("other", nullptr);
    DNSEntry::Lookup("third", nullptr);
    DNSEntry::pending.Remove(entry("other"));
    EXPECT_EQ(pending(), (Names{"kept", "own", "third"}));
    DNSEntry::Lookup("other", nullptr);
    EXPECT_EQ(pending(), (Names{"kept", "own", "third", "other"})) << "queued again";
    SetEvent(DNSEntry::event);
  }
  ASSERT_TRUE(delivered(4));
  EXPECT_EQ(console.count(found_line(socket.get(), "own", "10.9.8.7")), 1);
  EXPECT_EQ(DNSEntry::Lookup("kept", nullptr), ip(1, 2, 3, 5)) << "an address outlives a failure";
  EXPECT_EQ(FakeResolver::calls(), (Names{"kept", "own", "third", "other"}));
}

TEST_F(NameCache, SocketsThatAProgramHasPutOrTakenOutItselfAreToldWhatIsTheirs) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedSocket put = datagram_socket(), taken = datagram_socket(), asks = datagram_socket(),
                    comes_after = datagram_socket();
  DNSEntry::Lookup("host", nullptr);
  {
    const CacheSection section;
    entry("host")->sockets.Append(put.get());
  }
  asks->Connect("host", 1);
  taken->Connect("host", 2);
  {
    const CacheSection section;
    entry("host")->sockets.Remove(taken.get());
  }
  comes_after->Connect("host", 3);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(console.count("AsyncSocket::DNSResult"), 3);
  EXPECT_EQ(console.count(found_line(comes_after.get(), "host", "10.9.8.7")), 1);
  EXPECT_EQ(console.count(found_line(put.get(), "host", "10.9.8.7")), 1);
  EXPECT_EQ(console.count(found_line(asks.get(), "host", "10.9.8.7")), 1);
  const CacheSection section;
  taken->dnsentry = nullptr;  // as who took it out must do
}

// ---- Clear -------------------------------------------------------------------------------------------------------

TEST_F(NameCache, ClearForgetsANameIgnoringCase) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::know("other", ip(10, 9, 8, 6));
  DNSEntry::Lookup("host", nullptr);
  DNSEntry::Lookup("other", nullptr);
  ASSERT_TRUE(delivered(2));
  DNSEntry::Clear("nobody");
  DNSEntry::Clear("HOST");
  EXPECT_EQ(entries(), Names{"other"});
  DNSEntry::Clear("host");
  EXPECT_EQ(entries(), Names{"other"});
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  ASSERT_TRUE(delivered(3));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
}

TEST_F(NameCache, ClearTakesANameOutOfTheWaitingOnes) {
  FakeResolver::hold();
  DNSEntry::Lookup("one", nullptr);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  DNSEntry::Lookup("two", nullptr);
  DNSEntry::Lookup("three", nullptr);
  DNSEntry::Clear("two");
  EXPECT_EQ(entries(), (Names{"one", "three"}));
  EXPECT_EQ(pending(), (Names{"one", "three"}));
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(FakeResolver::calls(), (Names{"one", "three"}));
}

TEST_F(NameCache, ClearBetweenAnswerAndDeliveryDropsTheResult) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 4711);
  ASSERT_TRUE(resolved(1));
  DNSEntry::Clear("host");
  os_check_triggers();
  EXPECT_EQ(console.count("AsyncSocket::DNSResult"), 0) << "sockets that waited are not told";
  EXPECT_EQ(waits_on(socket.get()), nullptr);
  EXPECT_EQ(socket->state, SSInitial);
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameCache, ClearLeavesASocketThatWaitsForAnotherNameByNow) {
  FakeResolver::know("other", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 1);
  socket->Connect("other", 2);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  DNSEntry::Clear("host");
  EXPECT_EQ(waits_on(socket.get()), entry("other"));
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(console.count(found_line(socket.get(), "other", "10.9.8.7")), 1);
}

TEST_F(NameCache, ClearOfTheNameThatIsBeingResolvedDropsItsResult) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 4711);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  DNSEntry::Clear("host");
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(pending(), Names{});
  FakeResolver::know("next", ip(1, 1, 1, 1));
  DNSEntry::Lookup("next", nullptr);
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(console.count("AsyncSocket::DNSResult"), 0);
  EXPECT_EQ(entries(), Names{"next"});
}

TEST_F(NameCache, ANameClearedWhileItIsResolvedCanBeAskedForAgain) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  DNSEntry::Clear("host");
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 4711);
  EXPECT_EQ(entries(), Names{"host"});
  EXPECT_EQ(pending(), Names{"host"});
  FakeResolver::let_go();
  ASSERT_TRUE(FakeResolver::wait_for_calls(2)) << "the first answer belongs to an entry that is gone";
  EXPECT_EQ(pending(), Names{"host"});
  os_check_triggers();
  EXPECT_EQ(console.count("AsyncSocket::DNSResult"), 0);
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(console.count(found_line(socket.get(), "host", "10.9.8.7")), 1);
}

TEST_F(NameCache, SocketsOfAClearedNameCanBeFreed) {
  FakeResolver::hold();
  OwnedSocket waiting = datagram_socket();
  OwnedSocket also = stream_socket(false);
  waiting->Connect("host", 4711);
  also->Connect("host", 4711);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  OwnedSocket of_another = datagram_socket();
  of_another->Connect("another", 4711);
  DNSEntry::Clear("host");
  DNSEntry::Clear("another");
  waiting.reset();
  also.reset();
  of_another.reset();
  FakeResolver::release();
  ASSERT_TRUE(resolved(1));
  os_check_triggers();
}

// ---- Trace -------------------------------------------------------------------------------------------------------

TEST_F(NameCache, IsSilentUnlessItIsTraced) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  const OwnedSocket socket = datagram_socket();
  socket->Connect("nobody", 4711);
  ASSERT_TRUE(delivered(2));
  DNSEntry::Clear("host");
  EXPECT_EQ(console.count("DNSEntry"), 0) << console.text();
}

TEST_F(NameCache, TraceLinesTellTheRoadOfAName) {
  set_trace(1);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  FakeResolver::hold();
  socket->Connect("host", 4711);
  const void* const entry_address = entry("host");
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  DNSEntry::Lookup("nobody", nullptr);
  const void* const nobody = entry("nobody");
  ASSERT_TRUE(delivered(2));
  // The resolver thread may still be letting go of it.
  const std::string gone = with_pointer("DNSEntry::~DNSEntry %p - nobody / 0", nobody);
  ASSERT_TRUE(wait_until([&] { return console.count(gone) == 1; }));
  DNSEntry::Clear("host");

  char added[120], cleared[120];
  snprintf(added, sizeof added, "DNSEntry::Lookup - added socket %p to dent %p",
           static_cast<const void*>(socket.get()), entry_address);
  snprintf(cleared, sizeof cleared, "DNSEntry::Callback - clearing dnsentry %p from socket %p", entry_address,
           static_cast<const void*>(socket.get()));
  const std::string lines[] = {
      with_pointer("DNSEntry::DNSEntry %p - host / 0", entry_address),
      added,
      "DNSEntry::Lookup - 'host' adding to pending list...",
      "DNSEntry::Thread - 'host' requesting...",
      "DNSEntry::Thread - 'host' address 10.9.8.7 found",
      cleared,
      "DNSEntry::Lookup - 'nobody' adding to pending list...",
      "DNSEntry::Thread - 'nobody' requesting...",
      "DNSEntry::Callback - 'nobody' address not found, deleting entry",
      gone,
      with_pointer("DNSEntry::~DNSEntry %p - host / a090807", entry_address),
  };
  const std::string text = console.text();
  std::size_t at = 0;
  for (const std::string& line : lines) {
    const std::size_t found = text.find(line, at);
    ASSERT_NE(found, std::string::npos) << "\"" << line << "\" in its place in\n" << text;
    EXPECT_EQ(console.count(line), 1) << line;
    at = found + line.size();
  }
  EXPECT_EQ(console.count("DNSEntry::Lookup - 'host'"), 1) << "a line for each look-up is for level 2";
  EXPECT_EQ(console.count("returning"), 0);
  EXPECT_EQ(console.count("'nobody' address 0"), 0);
}

TEST_F(NameCache, TheSecondTraceLevelTellsOfEachLookUp) {
  using ::testing::ElementsAre;
  set_trace(2);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  {
    const CacheSection section;  // the resolver thread's line comes behind these
    DNSEntry::Lookup("host", nullptr);
    EXPECT_THAT(console.calls(), ElementsAre("DNSEntry::Lookup - 'host'",
                                             with_pointer("DNSEntry::DNSEntry %p - host / 0", entry("host")),
                                             "DNSEntry::Lookup - 'host' adding to pending list...",
                                             "DNSEntry::Lookup - 'host' returning 0.0.0.0"));
  }
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  console.clear();
  DNSEntry::Lookup("HOST", nullptr);
  EXPECT_THAT(console.calls(),
              ElementsAre("DNSEntry::Lookup - 'HOST'", "DNSEntry::Lookup - 'HOST' returning 10.9.8.7"));
}

// ---- Stop and start ----------------------------------------------------------------------------------------------

TEST_F(NameCache, StartingTheThreadAgainDoesNothing) {
  const pthread_t thread = DNSEntry::thread;
  const HANDLE event = DNSEntry::event;
  DNSEntry::StartThread();
  EXPECT_EQ(DNSEntry::thread, thread);
  EXPECT_EQ(DNSEntry::event, event);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
}

TEST_F(NameCache, StoppingTheThreadEmptiesTheCache) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  DNSEntry::Lookup("nobody", nullptr);
  ASSERT_TRUE(resolved(2));
  const HANDLE event = DNSEntry::event;
  DNSEntry::StopThread();
  EXPECT_EQ(DNSEntry::thread, 0u);
  EXPECT_TRUE(DNSEntry::stop);
  EXPECT_TRUE(DNSEntry::stopped);
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(pending(), Names{});
  EXPECT_EQ(SetEvent(event), 1) << "the event stays open";
  DNSEntry::StopThread();  // and again: nothing
  os_check_triggers();

  DNSEntry::StartThread();
  EXPECT_NE(DNSEntry::thread, 0u);
  EXPECT_NE(DNSEntry::event, event);
  EXPECT_EQ(SetEvent(event), 0) << "until there is a new one";
  EXPECT_FALSE(DNSEntry::stop);
  EXPECT_FALSE(DNSEntry::stopped);
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  ASSERT_TRUE(delivered(3));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
}

// They may be under way on another thread, and the section goes when the layer has stopped.
TEST_F(NameCache, CallbacksThatComeWhileItIsStoppedStayOutOfTheSection) {
  DNSEntry::StopThread();
  EnterCriticalSection(&DNSEntry::cs);
  {
    WatchedThread late([] {
      DNSEntry::Callback(nullptr, nullptr, 0);
      ProbeEntry::_TimerCallback(nullptr, nullptr, 0);
    });
    EXPECT_TRUE(late.finished_within(kPatienceMs));
  }
  LeaveCriticalSection(&DNSEntry::cs);
  // The one that stopped it has not waited for a delivery that came behind, and the next start delivers again.
  AsyncSocket::dnstrigger->Fire();
  os_check_triggers();
  DNSEntry::StartThread();
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
}

TEST_F(NameCache, StoppingWaitsForACallOfTheResolver) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  DNSEntry::Lookup("host", nullptr);
  DNSEntry::Lookup("next", nullptr);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  {
    WatchedThread stopper([] { DNSEntry::StopThread(); });
    EXPECT_TRUE(stopper.blocked());
    EXPECT_FALSE(stopper.finished());
    FakeResolver::release();
    EXPECT_TRUE(stopper.finished_within(kPatienceMs));
  }
  EXPECT_EQ(FakeResolver::calls(), Names{"host"}) << "no further name is begun";
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(pending(), Names{});
  os_check_triggers();
}

TEST_F(NameCache, SocketsThatWaitWhenTheThreadStopsCanBeFreed) {
  FakeResolver::hold();
  OwnedSocket waiting = datagram_socket();
  OwnedSocket resolved_one = datagram_socket();
  FakeResolver::know("host", ip(10, 9, 8, 7));
  resolved_one->Connect("host", 1);
  FakeResolver::let_go();
  ASSERT_TRUE(resolved(1));
  waiting->Connect("other", 1);
  ASSERT_TRUE(FakeResolver::wait_for_calls(2));
  FakeResolver::release();
  DNSEntry::StopThread();
  os_check_triggers();
  EXPECT_EQ(console.count("AsyncSocket::DNSResult"), 0);
  waiting.reset();
  resolved_one.reset();
  DNSEntry::StartThread();
}

TEST_F(NameCache, TheLayerStopsAndStartsWhileNamesWait) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  for (int i = 0; i < 20; ++i) {
    DNSEntry::Lookup("host", nullptr);
    DNSEntry::Lookup("nobody", nullptr);
    if (i % 2 == 0) os_check_triggers();
    AsyncSocket::Cleanup();
    EXPECT_EQ(DNSEntry::entries.Size(), 0);
    os_check_triggers();
    AsyncSocket::Init();
  }
  const std::size_t before = FakeResolver::calls().size();
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  ASSERT_TRUE(delivered(before + 1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
}

TEST_F(NameCache, ALookUpStartsTheLayerWhenItDoesNotRun) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  AsyncSocket::Cleanup();
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  EXPECT_TRUE(wait_until([] { return DNSEntry::Lookup("host", nullptr) == ip(10, 9, 8, 7); }));
}

TEST_F(NameCache, ALookUpWorksBeforeAnySocketExisted) {
  IN_FRESH_PROCESS({
    AsyncSocket::Cleanup();
    DNSEntry::Clear("host");
    EXPECT_EQ(console.fatals(), Names{}) << "there is no section to enter";
    FakeResolver::know("host", ip(10, 9, 8, 7));
    EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
    EXPECT_TRUE(wait_until([] { return DNSEntry::Lookup("host", nullptr) == ip(10, 9, 8, 7); }));
    AsyncSocket::Cleanup();
  });
}

}  // namespace
