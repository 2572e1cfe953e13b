// Sockets that wait for a name: being told, being freed meanwhile, and what may be done inside the indications.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/name_cache_fixture.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

class NameCacheSockets : public NameCache {
 protected:
  int told() const { return console.count("AsyncSocket::DNSResult"); }
};

// ---- Asking ------------------------------------------------------------------------------------------------------

TEST_F(NameCacheSockets, ASocketWaitsForAnUnknownName) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  EXPECT_EQ(socket->Connect("host", 4711), 0);
  EXPECT_EQ(waits_on(socket.get()), entry("host"));
  EXPECT_EQ(waiting_sockets("host"), 1);
  EXPECT_EQ(socket->rem_sin.Port(), 4711) << "kept for the answer";
  EXPECT_EQ(socket->state, SSInitial);
  EXPECT_EQ(told(), 0);
  FakeResolver::release();
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(told(), 0) << "sockets are told where triggers are dispatched";
  EXPECT_EQ(waits_on(socket.get()), entry("host"));
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(console.count(found_line(socket.get(), "host", "10.9.8.7")), 1);
  EXPECT_EQ(waits_on(socket.get()), nullptr);
  EXPECT_EQ(waiting_sockets("host"), 0);
  EXPECT_EQ(socket->state, SSConnected);
  EXPECT_EQ(socket->rem_sin.Address(), ip(10, 9, 8, 7));
  EXPECT_EQ(socket->rem_sin.Port(), 4711);
}

TEST_F(NameCacheSockets, TwoThatAskForOneNameAreToldByOneCallOfTheResolver) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedSocket first = datagram_socket(), second = datagram_socket();
  first->Connect("host", 1);
  second->Connect("HOST", 2);
  EXPECT_EQ(entries(), Names{"host"});
  EXPECT_EQ(waiting_sockets("host"), 2);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
  const std::string text = console.text();
  const std::size_t one = text.find(found_line(first.get(), "host", "10.9.8.7"));
  const std::size_t two = text.find(found_line(second.get(), "host", "10.9.8.7"));
  ASSERT_NE(one, std::string::npos);
  ASSERT_NE(two, std::string::npos);
  EXPECT_LT(one, two) << "in the order in which they asked";
  EXPECT_EQ(told(), 2);
  EXPECT_EQ(first->rem_sin.Port(), 1);
  EXPECT_EQ(second->rem_sin.Port(), 2);
}

TEST_F(NameCacheSockets, AKnownNameConnectsInsideTheCall) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  const OwnedSocket socket = datagram_socket();
  EXPECT_EQ(socket->Connect("Host", 4711), 0);
  EXPECT_EQ(console.count(found_line(socket.get(), "Host", "10.9.8.7")), 1) << "with the caller's spelling";
  EXPECT_EQ(socket->state, SSConnected);
  EXPECT_EQ(socket->rem_sin.Address(), ip(10, 9, 8, 7));
  EXPECT_EQ(socket->rem_sin.Port(), 4711);
  EXPECT_EQ(waits_on(socket.get()), nullptr);
  EXPECT_EQ(waiting_sockets("host"), 0);
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
  os_check_triggers();
  EXPECT_EQ(told(), 1);
}

TEST_F(NameCacheSockets, AnAnswerThatIsNotDeliveredYetConnectsInsideTheCallToo) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  const OwnedSocket first = datagram_socket(), second = datagram_socket();
  first->Connect("host", 1);
  ASSERT_TRUE(resolved(1));
  second->Connect("host", 2);
  EXPECT_EQ(console.count(found_line(second.get(), "host", "10.9.8.7")), 1);
  EXPECT_EQ(told(), 1);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(told(), 2);
}

TEST_F(NameCacheSockets, TheTextOfAllOnesGoesThroughTheResolver) {
  FakeResolver::know("255.255.255.255", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  EXPECT_EQ(socket->Connect("255.255.255.255", 4711), 0);
  EXPECT_EQ(socket->state, SSInitial);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(FakeResolver::calls(), Names{"255.255.255.255"});
  EXPECT_EQ(socket->rem_sin.Address(), ip(10, 9, 8, 7));
  EXPECT_EQ(socket->state, SSConnected);
}

TEST_F(NameCacheSockets, DottedTextAsksNobody) {
  const OwnedSocket socket = datagram_socket();
  EXPECT_EQ(socket->Connect("10.9.8.7", 4711), 0);
  EXPECT_EQ(socket->rem_sin.Address(), ip(10, 9, 8, 7));
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(told(), 0);
}

TEST_F(NameCacheSockets, TextsWithoutAnAddressAreRefusedWithoutAsking) {
  for (const char* text : {"", "0.0.0.0"}) {
    const OwnedSocket socket = datagram_socket();
    const std::string line = std::to_string(socket->s) + " AsyncSocket: couldn't resolve host " + text;
    EXPECT_EQ(socket->Connect(text, 4711), -1);
    EXPECT_EQ(console.count(line), 1);
    EXPECT_EQ(socket->s, -1);
    console.clear();
  }
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameCacheSockets, OneThatAsksTwiceIsToldTwice) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 1);
  socket->Connect("host", 2);
  EXPECT_EQ(waiting_sockets("host"), 2);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(told(), 2);
  EXPECT_EQ(waiting_sockets("host"), 0);
  EXPECT_EQ(socket->rem_sin.Port(), 2);
}

TEST_F(NameCacheSockets, OneThatAsksForTwoNamesIsToldOfBoth) {
  FakeResolver::know("one", ip(10, 0, 0, 1));
  FakeResolver::know("two", ip(10, 0, 0, 2));
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  socket->Connect("one", 1);
  socket->Connect("two", 2);
  EXPECT_EQ(waits_on(socket.get()), entry("two"));
  FakeResolver::let_go();
  ASSERT_TRUE(dispatch_until([&] { return told() == 1; }));
  EXPECT_EQ(console.count(found_line(socket.get(), "one", "10.0.0.1")), 1);
  EXPECT_EQ(waits_on(socket.get()), nullptr) << "cleared by any answer";
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(console.count(found_line(socket.get(), "two", "10.0.0.2")), 1);
  EXPECT_EQ(waits_on(socket.get()), nullptr);
}

// ---- Being told --------------------------------------------------------------------------------------------------

/// Keeps what would go up.
class KeepingSocket : public AsyncSocket {
 public:
  KeepingSocket() : AsyncSocket(true) {}
  void ProcessData(OSBuf* buf) override {
    state_then = state;
    length = buf->length;
    bytes.assign(reinterpret_cast<const char*>(buf->data), 6);
    ++calls;
    buf->Free();
  }
  std::atomic<int> calls{0};
  int state_then = -1;
  int length = -1;
  std::string bytes;
};

TEST_F(NameCacheSockets, AFailureBecomesAControlBuffer) {
  const Owned<KeepingSocket> socket(new KeepingSocket);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->DNSResult("nobody", 0);
  EXPECT_EQ(console.count(lost_line(socket.get(), "nobody")), 1);
  EXPECT_EQ(socket->calls, 1);
  EXPECT_EQ(socket->state_then, SSDisconnected);
  EXPECT_EQ(socket->length, 0);
  EXPECT_EQ(socket->bytes, std::string("\x01\x04\0\0\0\0", 6));
}

TEST_F(NameCacheSockets, AnAddressConnectsToTheStoredPort) {
  const OwnedSocket socket = datagram_socket();
  socket->rem_sin.SPort(4711);
  socket->DNSResult("host", ip(1, 2, 3, 4));
  EXPECT_EQ(console.count(found_line(socket.get(), "host", "1.2.3.4")), 1);
  EXPECT_TRUE(socket->rem_sin == SockAddr(ip(1, 2, 3, 4), 4711));
  EXPECT_EQ(socket->state, SSConnected);
}

TEST_F(NameCacheSockets, StreamsConnectWhenTheNameIsFound) {
  FakeResolver::know("host", INADDR_LOOPBACK);
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    PeerListener listener;
    RecordingLayer layer;
    const OwnedSocket socket = stream_socket(indirect);
    socket->Bind(&layer);
    EXPECT_EQ(socket->Connect("host", listener.port()), 0);
    ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kConnect) == 1; }));
    const PeerStream peer = listener.accept();
    EXPECT_TRUE(peer.is_open());
    EXPECT_TRUE(socket->Connected());
  }
}

TEST_F(NameCacheSockets, EveryWaitingStreamIsToldOfAFailure) {
  RecordingLayer layers[3];
  std::vector<OwnedSocket> sockets;
  FakeResolver::hold();
  for (RecordingLayer& layer : layers) {
    sockets.push_back(stream_socket(sockets.size() != 1));
    sockets.back()->Bind(&layer);
    sockets.back()->Connect("nobody", 80);
  }
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(console.count(lost_line(sockets[i].get(), "nobody")), 1);
    EXPECT_EQ(sockets[i]->state, SSDisconnected);
    EXPECT_EQ(waits_on(sockets[i].get()), nullptr);
    ASSERT_TRUE(dispatch_until([&] { return layers[i].count() == 1; }));
    EXPECT_EQ(layers[i].story(), std::vector<std::string>{"disconnect(4,0)"});
  }
  EXPECT_EQ(entries(), Names{});
  EXPECT_EQ(FakeResolver::calls(), Names{"nobody"});
}

TEST_F(NameCacheSockets, NamesAreDeliveredInTheOrderOfTheCache) {
  FakeResolver::know("one", ip(10, 0, 0, 1));
  FakeResolver::know("three", ip(10, 0, 0, 3));
  FakeResolver::hold();
  const OwnedSocket a = datagram_socket(), b = stream_socket(true), c = datagram_socket();
  a->Connect("one", 1);
  b->Connect("two", 2);
  c->Connect("three", 3);
  FakeResolver::release();
  ASSERT_TRUE(delivered(3));
  const std::string text = console.text();
  const std::size_t one = text.find(found_line(a.get(), "one", "10.0.0.1"));
  const std::size_t two = text.find(lost_line(b.get(), "two"));
  const std::size_t three = text.find(found_line(c.get(), "three", "10.0.0.3"));
  ASSERT_NE(one, std::string::npos);
  ASSERT_NE(two, std::string::npos);
  ASSERT_NE(three, std::string::npos);
  EXPECT_LT(one, two);
  EXPECT_LT(two, three);
  EXPECT_EQ(entries(), (Names{"one", "three"}));
}

TEST_F(NameCacheSockets, OnlyFinishedNamesAreDelivered) {
  FakeResolver::know("one", ip(10, 0, 0, 1));
  FakeResolver::know("two", ip(10, 0, 0, 2));
  FakeResolver::hold();
  const OwnedSocket a = datagram_socket(), b = datagram_socket();
  a->Connect("one", 1);
  b->Connect("two", 2);
  FakeResolver::let_go();
  ASSERT_TRUE(FakeResolver::wait_for_calls(2));
  ASSERT_TRUE(dispatch_until([&] { return told() == 1; }));
  EXPECT_EQ(waits_on(a.get()), nullptr);
  EXPECT_EQ(waits_on(b.get()), entry("two"));
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(told(), 2);
}

TEST_F(NameCacheSockets, DeliveringTwiceTellsNobodyTwice) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 1);
  ASSERT_TRUE(delivered(1));
  DNSEntry::Callback(nullptr, nullptr, 0);
  DNSEntry::Callback(nullptr, nullptr, 0);
  EXPECT_EQ(told(), 1);
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
}

TEST_F(NameCacheSockets, TheKernelsOwnDispatcherTellsThem) {
  // The same with the trigger task: nobody dispatches by hand.
  QuietNetworkTest::StopNetwork();
  cfg.trigger_stack = 100000;
  StartNetwork();
  FakeResolver::know("host", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 4711);
  EXPECT_TRUE(wait_until([&] { return told() == 1; }));
  EXPECT_EQ(console.count(found_line(socket.get(), "host", "10.9.8.7")), 1);
}

// ---- Freed meanwhile ---------------------------------------------------------------------------------------------

TEST_F(NameCacheSockets, AFreedOneIsNotTold) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  OwnedSocket first = datagram_socket(), second = datagram_socket();
  first->Connect("host", 1);
  second->Connect("host", 2);
  first.reset();
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(told(), 1);
  EXPECT_EQ(console.count(found_line(second.get(), "host", "10.9.8.7")), 1);
  EXPECT_EQ(waiting_sockets("host"), 0);
}

TEST_F(NameCacheSockets, OneFreedBetweenAnswerAndDeliveryIsNotTold) {
  for (const bool found : {true, false}) {
    if (found) FakeResolver::know("host", ip(10, 9, 8, 7));
    for (const bool indirect : {true, false}) {
      const std::size_t calls = FakeResolver::calls().size();
      OwnedSocket socket = stream_socket(indirect);
      socket->Connect("host", 1);
      ASSERT_TRUE(resolved(calls + 1));
      socket.reset();
      ASSERT_TRUE(delivered(calls + 1));
      EXPECT_EQ(told(), 0);
      DNSEntry::Clear("host");
    }
    FakeResolver::forget("host");
  }
}

// Deliberate: Cancel takes the entry, not the socket, off the list of those that wait.
TEST_F(NameCacheSockets, AFreedOneStaysListedUntilTheDelivery) {
  set_trace(1);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  OwnedSocket socket = datagram_socket();
  const std::string pointer = with_pointer("from socket %p", socket.get());
  socket->Connect("host", 1);
  socket.reset();
  EXPECT_EQ(waiting_sockets("host"), 1);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(told(), 0);
  EXPECT_EQ(console.count(pointer), 1) << "it is taken off like a live one";
  EXPECT_EQ(waiting_sockets("host"), 0);
}

TEST_F(NameCacheSockets, AFreedOneThatIsStillListedIsNotLookedAtWhenItsNameGoes) {
  const std::pair<const char*, std::function<void()>> ways[] = {
      {"cleared", [] { DNSEntry::Clear("host"); }},
      {"stopped", [] { DNSEntry::StopThread(); }},
  };
  for (const auto& [name, go] : ways) {
    SCOPED_TRACE(name);
    FakeResolver::hold();
    OwnedSocket freed = datagram_socket();
    const OwnedSocket alive = datagram_socket();
    freed->Connect("host", 1);
    alive->Connect("host", 2);
    freed.reset();
    EXPECT_EQ(waiting_sockets("host"), 2);
    FakeResolver::release();
    go();
    EXPECT_EQ(entries(), Names{});
    EXPECT_EQ(waits_on(alive.get()), nullptr);
  }
  DNSEntry::StartThread();
  EXPECT_EQ(told(), 0);
}

TEST_F(NameCacheSockets, CancelTakesTheEntryOffItsOwnList) {
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 1);
  {
    const CacheSection section;
    DNSEntry* own = entry("host");
    own->Cancel(socket.get());
    EXPECT_EQ(own->sockets.Size(), 1);
    EXPECT_EQ(socket->dnsentry, own) << "Free clears it";
    own->sockets.Append(own);
    EXPECT_EQ(own->sockets.Size(), 2);
    own->Cancel(nullptr);
    EXPECT_EQ(own->sockets.Size(), 1);
    EXPECT_EQ(own->sockets.FirstObject(), static_cast<OSListObj*>(socket.get()));
  }
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
}

TEST_F(NameCacheSockets, EveryOperationIsDoneInsideTheCachesSection) {
  FakeResolver::hold();
  const OwnedSocket socket = datagram_socket();
  socket->Connect("host", 1);
  DNSEntry* own = entry("host");
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"Cancel", [&] { own->Cancel(socket.get()); }},
      {"Lookup", [] { DNSEntry::Lookup("other", nullptr); }},
      {"Clear", [] { DNSEntry::Clear("other"); }},
      {"Callback", [] { DNSEntry::Callback(nullptr, nullptr, 0); }},
      {"_TimerCallback", [] { ProbeEntry::_TimerCallback(nullptr, nullptr, 0); }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    EnterCriticalSection(&DNSEntry::cs);
    WatchedThread other(operation);
    EXPECT_TRUE(other.blocked()) << "another thread got in";
    LeaveCriticalSection(&DNSEntry::cs);
    EXPECT_TRUE(other.finished_within(kPatienceMs));
  }
  FakeResolver::release();
  ASSERT_TRUE(resolved(1));
  os_check_triggers();
}

TEST_F(NameCacheSockets, ANewOneAtAFreedOnesAddressIsNotTold) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  OwnedSlot socket(new SlotSocket);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect("host", 4711);
  socket.reset();
  socket.reset(new SlotSocket);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(told(), 0);
  EXPECT_EQ(socket->state, SSInitial);
  EXPECT_EQ(socket->rem_sin.Address(), 0u);
}

TEST_F(NameCacheSockets, ANewOneAtAFreedOnesAddressIsToldWhatItAskedFor) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::hold();
  OwnedSlot socket(new SlotSocket);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect("host", 1);
  for (UWORD port = 2; port < 6; ++port) {
    socket.reset();
    socket.reset(new SlotSocket);
    ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
    socket->Connect("host", port);
  }
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(told(), 1);
  EXPECT_TRUE(socket->rem_sin == SockAddr(ip(10, 9, 8, 7), 5));
}

TEST_F(NameCacheSockets, ANewOneAtAFreedOnesAddressGoesOnWaitingForItsOwnName) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  FakeResolver::know("other", ip(10, 9, 8, 6));
  FakeResolver::hold();
  OwnedSlot socket(new SlotSocket);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect("host", 1);
  socket.reset();
  socket.reset(new SlotSocket);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect("other", 2);
  FakeResolver::let_go();
  ASSERT_TRUE(FakeResolver::wait_for_calls(2));
  ASSERT_TRUE(wait_until([] { return field("host", &DNSEntry::result) == true; }));
  os_check_triggers();
  EXPECT_EQ(told(), 0);
  EXPECT_EQ(waits_on(socket.get()), entry("other"));
  FakeResolver::release();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(console.count(found_line(socket.get(), "other", "10.9.8.6")), 1);
  EXPECT_EQ(told(), 1);
}

TEST_F(NameCacheSockets, FreeWaitsForADeliveryThatIsUnderWay) {
  // A direct socket's failure is indicated inside the delivery; the layer stops it there.
  RecordingLayer layer;
  Gate inside, go_on;
  layer.set_hook([&](const Indication&) {
    inside.open();
    go_on.wait();
  });
  const OwnedSocket direct = stream_socket(false);
  direct->Bind(&layer);
  OwnedSocket next = datagram_socket();
  FakeResolver::hold();
  direct->Connect("nobody", 1);
  next->Connect("nobody", 2);
  FakeResolver::release();
  ASSERT_TRUE(resolved(1));
  {
    WatchedThread dispatcher([] { os_check_triggers(); });
    ASSERT_TRUE(inside.wait());
    WatchedThread freer([&] { next.reset(); });
    EXPECT_TRUE(freer.blocked()) << "its entry is being delivered";
    go_on.open();
    EXPECT_TRUE(freer.finished_within(kPatienceMs));
    EXPECT_TRUE(dispatcher.finished_within(kPatienceMs));
  }
  EXPECT_EQ(told(), 2);
}

}  // namespace
