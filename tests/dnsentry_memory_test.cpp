// The name cache when memory or links run out: nothing is half done, and the next look-up finds its way.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/failing_heap.h"
#include "support/link_drought.h"
#include "support/name_cache_fixture.h"

using namespace oskernel_test;

namespace {

class NameCacheMemory : public NameCache {
 protected:
  void SetUp() override {
    NameCache::SetUp();
    FakeResolver::know("host", ip(10, 9, 8, 7));
  }
  /// The name can be asked for, and the socket is told.
  static void expect_works(AsyncSocket& socket, std::size_t calls) {
    FakeResolver::hold();
    EXPECT_EQ(DNSEntry::Lookup("host", &socket), 0u);
    EXPECT_EQ(waiting_sockets("host"), 1);
    FakeResolver::release();
    ASSERT_TRUE(delivered(calls));
    EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
    EXPECT_EQ(socket.rem_sin.Address(), ip(10, 9, 8, 7));
    EXPECT_EQ(FakeResolver::calls().size(), calls);
  }
};

TEST_F(NameCacheMemory, ANewNameWithoutMemoryLeavesNothingBehind) {
  // The entry itself, and the copy of its name.
  for (const int good : {0, 1}) {
    SCOPED_TRACE(good);
    const OwnedSocket socket = datagram_socket();
    console.clear();
    set_trace(1);
    {
      const FailingHeap failing(1, good, 1);
      EXPECT_EQ(DNSEntry::Lookup("host", socket.get()), 0u);
    }
    set_trace(0);
    EXPECT_EQ(console.count("DNSEntry::DNSEntry"), 0) << console.text();
    EXPECT_EQ(console.count("DNSEntry::~DNSEntry"), good) << console.text();
    EXPECT_EQ(entries(), Names{});
    EXPECT_EQ(pending(), Names{});
    EXPECT_EQ(waits_on(socket.get()), nullptr);
    expect_works(*socket, static_cast<std::size_t>(good) + 1);
    DNSEntry::Clear("host");
  }
}

TEST_F(NameCacheMemory, ANewNameWithoutALinkLeavesNothingBehind) {
  const OwnedSocket socket = datagram_socket();
  set_trace(1);
  {
    const LinkDrought drought;
    FailingNew::fail_at_least(sizeof(DNSEntry) + 1);  // the pool takes more than an entry
    EXPECT_EQ(DNSEntry::Lookup("host", socket.get()), 0u);
  }
  set_trace(0);
  EXPECT_EQ(console.count("DNSEntry::DNSEntry"), 1);
  EXPECT_EQ(console.count("DNSEntry::~DNSEntry"), 1);
  EXPECT_FALSE(console.fatals().empty());
  console.clear();
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(waits_on(socket.get()), nullptr);
  expect_works(*socket, 1);
}

TEST_F(NameCacheMemory, ASocketThatCannotBeListedIsNotTold) {
  FakeResolver::hold();
  DNSEntry::Lookup("host", nullptr);
  const OwnedSocket socket = datagram_socket();
  {
    const FailingHeap failing(1);
    EXPECT_EQ(DNSEntry::Lookup("host", socket.get()), 0u);
  }
  EXPECT_EQ(waiting_sockets("host"), 0);
  EXPECT_EQ(waits_on(socket.get()), nullptr);
  {
    const LinkDrought drought;
    EXPECT_EQ(DNSEntry::Lookup("host", socket.get()), 0u);
  }
  EXPECT_FALSE(console.fatals().empty());
  console.clear();
  EXPECT_EQ(waiting_sockets("host"), 0);
  EXPECT_EQ(waits_on(socket.get()), nullptr);
  EXPECT_EQ(pending(), Names{"host"});
  expect_works(*socket, 1);
}

TEST_F(NameCacheMemory, AThreadWithoutAnEventDoesNotStart) {
  DNSEntry::StopThread();
  console.clear();
  {
    const FailingHeap failing(1, 0, 1);
    DNSEntry::StartThread();
  }
  EXPECT_EQ(console.calls(), Names{"DNSEntry::StartThread failed " + std::to_string(ENOMEM)});
  EXPECT_EQ(DNSEntry::thread, 0u);
  EXPECT_EQ(DNSEntry::event, 0);
  DNSEntry::StartThread();
  const OwnedSocket socket = datagram_socket();
  expect_works(*socket, 1);
}

}  // namespace
