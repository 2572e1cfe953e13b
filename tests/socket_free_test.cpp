// Giving sockets up: Free waits for everybody who is inside and for nobody else, and what a dead socket had under way
// reaches neither its partner nor a later socket in its place. Free from inside callbacks is
// socket_free_inside_test.cpp's.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "support/seed.h"
#include "support/socket_watch.h"
#include "support/watched_thread.h"

// ---- A resolver that the tests hold back ------------------------------------------------------------------------

namespace {
std::atomic<bool> resolver_asked{false};
std::atomic<bool> resolver_may_answer{true};
}  // namespace

/// Knows no name, and does not say so until it may.
extern "C" hostent* gethostbyname(const char*) {
  resolver_asked = true;
  oskernel_test::wait_until([] { return resolver_may_answer.load(); }, 60000);
  h_errno = HOST_NOT_FOUND;
  return nullptr;
}

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Story = std::vector<std::string>;

class SocketFree : public NetworkTest {
 protected:
  void TearDown() override {
    resolver_may_answer = true;
    NetworkTest::TearDown();
  }
};
class QuietSocketFree : public QuietNetworkTest {};

class SocketFreeEitherWay : public SocketFree, public ::testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(Served, SocketFreeEitherWay, ::testing::Bool(), way_name);

// ---- What it does --------------------------------------------------------------------------------------------------

TEST_P(SocketFreeEitherWay, TheSocketIsGoneWhenFreeReturnsAndThePeerSeesTheEnd) {
  struct Row {
    const char* name;
    std::function<void(AsyncSocket&, RecordingLayer&)> reach;
    Story told;
  };
  PeerListener listener;
  RefusingPort refusing;
  FullPort full;
  PeerStream peer;
  Acceptor acceptor;
  const std::vector<Row> rows = {
      {"new", [](AsyncSocket&, RecordingLayer&) {}, {}},
      {"created",
       [](AsyncSocket& socket, RecordingLayer&) { socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false); },
       {}},
      {"with data for later",
       [](AsyncSocket& socket, RecordingLayer&) {
         socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
         socket.DataIndication(buffer_of("later"));
       },
       {}},
      {"connected",
       [&](AsyncSocket& socket, RecordingLayer& layer) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
       },
       {"connect"}},
      {"refused",
       [&](AsyncSocket& socket, RecordingLayer& layer) {
         socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
         socket.Connect(INADDR_LOOPBACK, refusing.port());
         EXPECT_TRUE(layer.wait_for_disconnect());
       },
       {indirect() ? text_of("disconnect(4,%d)", ECONNREFUSED) : "disconnect(3,0)"}},
      {"listening",
       [&](AsyncSocket& socket, RecordingLayer&) { EXPECT_EQ(acceptor.listen_with(socket), 0); },
       {}},
      {"datagrams",
       [](AsyncSocket& socket, RecordingLayer&) { socket.Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false); },
       {}},
      {"closed",
       [](AsyncSocket& socket, RecordingLayer&) {
         socket.Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false);
         socket.Close();
       },
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    RecordingLayer layer;
    Fate fate;
    AsyncSocket* socket = new FatedSocket(fate, indirect());
    ComeRound come_round;
    EXPECT_TRUE(is_live(socket));
    EXPECT_FALSE(now_of(socket->deleted));
    EXPECT_FALSE(now_of(socket->deletedAck));
    socket->Bind(&layer);
    row.reach(*socket, layer);
    socket->Free();
    EXPECT_EQ(fate.destroyed, 1);
    EXPECT_EQ(fate.let_go, indirect()) << "the monitor thread lets go first of what it watches";
    EXPECT_FALSE(is_live(socket));
    EXPECT_FALSE(layer.IsBound());
    if (peer.is_open()) {
      EXPECT_TRUE(peer.ended());
      peer.close();
    }
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.story(), row.told) << "nothing is indicated";
  }
}

TEST_F(SocketFree, AConnectionInProgressIsGivenUp) {
  FullPort port;
  RecordingLayer layer;
  Fate fate;
  AsyncSocket* socket = new FatedSocket(fate, true);
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, port.port());
  ASSERT_TRUE(comes_to_state(*socket, SSConnecting));
  socket->Free();
  EXPECT_EQ(fate.destroyed, 1);
  port.admit();
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), IsEmpty());
}

TEST_F(SocketFree, IgnoresANullSocket) {
  // Programs free what they may not have. The pointer is hidden from the compiler, which would know better.
  struct Null {
    __attribute__((no_sanitize("undefined"), noinline)) static void free(AsyncSocket* socket) {
      socket->Free();
    }
  };
  IN_FRESH_PROCESS({
    AsyncSocket* volatile none = nullptr;
    Null::free(none);
    const OwnedSocket first = indirect_socket();
    Null::free(none);
    EXPECT_EQ(live_sockets().size(), 1u);
  });
}

TEST_F(SocketFree, RunsTheDestructorOfASubclass) {
  Fate fates[2];
  AsyncSocket* packets = new Fated<TPKTSocket>(fates[0]);
  AsyncSocket* stream = new FatedSocket(fates[1], false);
  packets->Free();
  stream->Free();
  EXPECT_EQ(fates[0].destroyed, 1);
  EXPECT_EQ(fates[1].destroyed, 1);
}

TEST_F(QuietSocketFree, GivesBackEverythingThatTheSocketHolds) {
  const int out_before = PoolState::now().buffers_out;
  PeerListener listener;
  RecordingLayer layer;
  AsyncSocket* socket = new AsyncSocket(true);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  for (int n = 1; n <= 4; ++n) {
    ASSERT_TRUE(wait_until([&] { return queued(*socket) == n; }, kPatienceMs));
    ASSERT_TRUE(peer.send_all("received"));
  }
  socket->cert = strdup("certificate");
  socket->key = strdup("key");
  socket->ca = strdup("authority");
  OSBuf* being_filled = OSBuf::Alloc(100);
  socket->Free();
  EXPECT_EQ(PoolState::now().buffers_out, out_before + 1);

  // What the monitor thread was filling goes with the socket.
  socket = new AsyncSocket(true);
  socket->alloc_buf = being_filled;
  socket->DataIndication(buffer_of("never sent"));
  socket->Free();
  EXPECT_EQ(PoolState::now().buffers_out, out_before);
  os_check_triggers();
  EXPECT_THAT(layer.story(), IsEmpty());
}

TEST_F(SocketFree, BuffersOfADirectSocketOutliveIt) {
  PeerListener listener;
  RecordingLayer layer;
  layer.hold_buffers(true);
  Fate fate;
  AsyncSocket* socket = new FatedSocket(fate, false);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.send_all("kept upstairs"));
  ASSERT_TRUE(layer.wait_for_bytes(13));
  ASSERT_GE(layer.held(), 1u);
  socket->Free();
  EXPECT_EQ(fate.destroyed, 1);
  const std::vector<OSBuf*> held = layer.held_buffers();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(held[0]->data), 4), "kept");
  layer.release_held();
}

// ---- Whom it waits for ---------------------------------------------------------------------------------------------

TEST_F(SocketFree, WaitsForTheMonitorThreadToLetGo) {
  Fate fate;
  AsyncSocket* socket = new FatedSocket(fate, true);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  EnterCriticalSection(&AsyncSocket::cs);
  WatchedThread freeing([&] { socket->Free(); });
  EXPECT_TRUE(freeing.blocked());
  EXPECT_EQ(fate.destroyed, 0);
  LeaveCriticalSection(&AsyncSocket::cs);
  EXPECT_TRUE(freeing.finished_within(kPatienceMs));
  EXPECT_EQ(fate.destroyed, 1);
}

TEST_P(SocketFreeEitherWay, WaitsForACallbackThatAnotherThreadIsInside) {
  for (const char* where : {"connect", "data", "disconnect"}) {
    SCOPED_TRACE(where);
    PeerListener listener;
    RecordingLayer layer;
    Gate door;
    const std::string stop_at = where;
    layer.set_hook([&](const Indication& indication) {
      const bool passed = indication.text().compare(0, stop_at.size(), stop_at) != 0 || door.wait(60000);
      EXPECT_TRUE(passed);
    });
    Fate fate;
    AsyncSocket* socket = new FatedSocket(fate, indirect());
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    if (stop_at != "connect") {
      ASSERT_TRUE(layer.wait_for_connect());
      ASSERT_TRUE(peer.send_all("first"));
    }
    if (stop_at == "disconnect") {
      ASSERT_TRUE(layer.wait_for_bytes(5));
      peer.close();
    }
    const std::size_t inside = stop_at == "connect" ? 1 : stop_at == "data" ? 2 : 3;
    ASSERT_TRUE(layer.wait_entered(inside));
    if (stop_at == "data") peer.send_all("second");
    {
      WatchedThread freeing([&] { socket->Free(); });
      EXPECT_TRUE(freeing.blocked());
      EXPECT_EQ(fate.destroyed, 0) << "its partner may still use it";
      door.open();
      EXPECT_TRUE(freeing.finished_within(kPatienceMs));
    }
    EXPECT_EQ(fate.destroyed, 1);
    const std::size_t told = layer.count();
    ComeRound come_round;
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.count(), told);
    EXPECT_EQ(told, inside);
  }
}

TEST_F(SocketFree, WaitsForTheListenersCallback) {
  Gate inside;
  Gate door;
  Fate fate;
  Acceptor acceptor([&](AsyncSocket* socket) {
    inside.open();
    EXPECT_TRUE(door.wait(60000));
    socket->Free();
  });
  AsyncSocket* listener = new FatedSocket(fate, true);
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  const UWORD port = listener->LocalPort();
  PeerStream first = PeerStream::connect_to(port);
  PeerStream second = PeerStream::connect_to(port);
  ASSERT_TRUE(inside.wait());
  {
    WatchedThread freeing([&] { listener->Free(); });
    EXPECT_TRUE(freeing.blocked());
    EXPECT_EQ(fate.destroyed, 0);
    door.open();
    EXPECT_TRUE(freeing.finished_within(kPatienceMs));
  }
  EXPECT_EQ(fate.destroyed, 1);
  EXPECT_TRUE(first.ended());
  EXPECT_TRUE(second.ended());
  ComeRound come_round;
  EXPECT_TRUE(come_round.pass()) << "nobody was left inside the class section";
}

TEST_P(SocketFreeEitherWay, DoesNotWaitForCallbacksOfOtherSockets) {
  PeerListener listener;
  RecordingLayer layer;
  RecordingLayer other_layer;
  Gate door;
  layer.set_hook([&](const Indication&) { EXPECT_TRUE(door.wait(60000)); });
  OwnedSocket busy(new AsyncSocket(indirect()));
  Fate fate;
  AsyncSocket* idle = new FatedSocket(fate, indirect());
  idle->Bind(&other_layer);
  ASSERT_EQ(idle->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  PeerStream peer = connect_to_peer(*busy, layer, listener);
  ASSERT_TRUE(layer.wait_entered(1));
  idle->Free();
  EXPECT_EQ(fate.destroyed, 1);
  door.open();
  EXPECT_TRUE(layer.wait_for_connect());
}

// ---- Afterwards ----------------------------------------------------------------------------------------------------

TEST_P(SocketFreeEitherWay, ThePartnerMayGoAsSoonAsFreeReturns) {
  PeerListener listener;
  for (int round = 0; round < 10; ++round) {
    auto layer = std::make_unique<RecordingLayer>();
    Fate fate;
    AsyncSocket* socket = new FatedSocket(fate, indirect());
    PeerStream peer = connect_to_peer(*socket, *layer, listener);
    ASSERT_TRUE(peer.is_open());
    WatchedThread flood([&] {
      const std::string bytes(1000, 'f');
      while (peer.send_all(bytes)) {
      }
    });
    ASSERT_TRUE(layer->wait_for_bytes(5000));
    socket->Free();
    layer.reset();
    EXPECT_EQ(fate.destroyed, 1);
    EXPECT_TRUE(flood.finished_within(kPatienceMs));
  }
}

/// A socket of which all have the same address, one after the other.
class InOnePlace : public AsyncSocket {
 public:
  InOnePlace() : AsyncSocket(true) {}
  static void* operator new(std::size_t bytes) {
    if (bytes > sizeof place_ || taken_.exchange(true)) throw std::bad_alloc();
    return place_;
  }
  static void operator delete(void*) noexcept { taken_ = false; }

 private:
  alignas(std::max_align_t) static inline unsigned char place_[8192];
  static inline std::atomic<bool> taken_{false};
};

TEST_F(QuietSocketFree, ALaterSocketInTheSamePlaceGetsNoCallbackOfTheDeadOne) {
  static_assert(sizeof(InOnePlace) <= 8192);
  PeerListener listener;
  RecordingLayer dead_layer;
  RecordingLayer layer;
  AsyncSocket* dead = new InOnePlace;
  PeerStream dead_peer = connect_to_peer(*dead, dead_layer, listener);
  ASSERT_TRUE(wait_until([&] { return queued(*dead) == 1; }, kPatienceMs));
  // What a dispatcher holds in its hands when it has taken a trigger and has not called yet.
  struct Call {
    OSCallbackFunction callback;
    OSObj* obj;
    ADDR addr;
    ULONG value;
    explicit Call(const OSTrigger& trigger)
        : callback(trigger.callback), obj(trigger.obj), addr(trigger.addr), value(trigger.value) {}
    void make() const { callback(obj, addr, value); }
  };
  const Call receive(dead->qtrigger);
  EXPECT_EQ(receive.callback, &AsyncSocket::_QCallback);
  dead->Free();
  receive.make();
  EXPECT_THAT(dead_layer.story(), IsEmpty());

  AsyncSocket* later = new InOnePlace;
  ASSERT_EQ(later, dead);
  PeerStream peer = connect_to_peer(*later, layer, listener);
  ASSERT_TRUE(wait_until([&] { return queued(*later) == 1; }, kPatienceMs));
  receive.make();
  EXPECT_THAT(layer.story(), IsEmpty()) << "the call was for the dead one";
  EXPECT_EQ(queued(*later), 1);
  os_check_triggers();
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
  later->Free();

  Acceptor acceptor;
  AsyncSocket* listening = new InOnePlace;
  ASSERT_EQ(acceptor.listen_with(*listening), 0);
  const Call accept(listening->listenqtrigger);
  listening->Free();
  listening = new InOnePlace;
  ASSERT_EQ(listening, dead);
  ASSERT_EQ(acceptor.listen_with(*listening), 0);
  PeerStream caller = PeerStream::connect_to(listening->LocalPort());
  ASSERT_TRUE(wait_until([&] { return accepted_waiting(*listening) == 1; }, kPatienceMs));
  accept.make();
  EXPECT_EQ(acceptor.calls(), 0);
  os_check_triggers();
  EXPECT_EQ(acceptor.calls(), 1);
  EXPECT_EQ(levels_inside(AsyncSocket::cs), 0);
  listening->Free();
}

TEST_F(QuietSocketFree, ASocketThatWasDeletedWithoutFreeIsFoundGoneToo) {
  AsyncSocket* dead = new InOnePlace;
  expected_fatals.push_back(
      text_of("-1 AsyncSocket::~AsyncSocket - %p, socket not Free'd first!", static_cast<void*>(dead)));
  delete dead;
  console.clear();
  AsyncSocket::_QCallback(as_obj(dead), nullptr, 0);
  AsyncSocket::_ListenQCallback(as_obj(dead), nullptr, 0);
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_EQ(levels_inside(AsyncSocket::cs), 0);
  expected_fatals.clear();  // the console has been cleared
}

TEST_F(SocketFree, ALaterSocketInTheSamePlaceGetsNoAnswerOfTheResolverForTheDeadOne) {
  RecordingLayer dead_layer;
  RecordingLayer layer;
  resolver_may_answer = false;
  resolver_asked = false;
  AsyncSocket* dead = new InOnePlace;
  dead->Bind(&dead_layer);
  ASSERT_EQ(dead->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(dead->Connect("slow.test", 80), 0);
  ASSERT_TRUE(wait_until([] { return resolver_asked.load(); }, kPatienceMs));
  dead->Free();  // does not wait for the resolver
  AsyncSocket* later = new InOnePlace;
  ASSERT_EQ(later, dead);
  later->Bind(&layer);
  ASSERT_EQ(later->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(later->dnsentry, nullptr);
  resolver_may_answer = true;
  ASSERT_TRUE(wait_until(
      [] {
        EnterCriticalSection(&DNSEntry::cs);
        const bool delivered = DNSEntry::entries.Size() == 0;
        LeaveCriticalSection(&DNSEntry::cs);
        return delivered;
      },
      kPatienceMs));
  ComeRound come_round;
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(dead_layer.story(), IsEmpty());
  EXPECT_THAT(layer.story(), IsEmpty());
  EXPECT_EQ(console.count("DNSResult"), 0);
  EXPECT_EQ(state_of(*later), SSInitial);
  later->Free();
}

// ---- Texts ---------------------------------------------------------------------------------------------------------

TEST_F(SocketFree, TracesTheEndOfAnIndirectSocket) {
  PeerListener listener;
  RecordingLayer layer;
  AsyncSocket* socket = new AsyncSocket(true);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  const int fd = socket->s;
  void* const address = socket;
  console.clear();
  {
    const Tracing tracing;
    socket->Free();
  }
  std::vector<std::string> ending;
  for (const std::string& line : console.calls()) {
    for (const char* of_free : {"::Free - ", "~AsyncSocket", "closing socket"}) {
      if (line.find(of_free) != std::string::npos) ending.push_back(line);
    }
  }
  EXPECT_THAT(ending,
              ElementsAre(text_of("AsyncSocket::Free - delete of %p delayed...", address),
                          text_of("%d AsyncSocket::Close - closing socket", fd),
                          "AsyncSocket::Free - waking monitor thread",
                          text_of("AsyncSocket::Free - deleting %p", address),
                          text_of("-1 AsyncSocket::~AsyncSocket - %p, thread %p", address, as_pointer(0)),
                          "-1 AsyncSocket::~AsyncSocket Done"));
  EXPECT_THAT(lines_with(console, "delayed deletion"),
              ElementsAre(text_of("AsyncSocket::MonitorThread - delayed deletion of %p", address)));
}

TEST_F(SocketFree, TracesTheEndOfADirectSocket) {
  PeerListener listener;
  RecordingLayer layer;
  AsyncSocket* socket = new AsyncSocket(false);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  const int fd = socket->s;
  void* const address = socket;
  void* const thread = as_pointer(socket->thread);
  console.clear();
  {
    const Tracing tracing;
    socket->Free();
  }
  std::vector<std::string> ending;
  for (const std::string& line : console.calls()) {
    for (const char* of_free : {"::Free - ", "~AsyncSocket", "terminated", "closing socket"}) {
      if (line.find(of_free) != std::string::npos && line.find("RingBuffer") == std::string::npos) {
        ending.push_back(line);
      }
    }
  }
  EXPECT_THAT(ending,
              ElementsAre(text_of("AsyncSocket::Free - deleting %p", address),
                          text_of("%d AsyncSocket::~AsyncSocket - %p, thread %p", fd, address, thread),
                          text_of("%d AsyncSocket::Close - thread %p terminated", fd, thread),
                          text_of("%d AsyncSocket::Close - closing socket", fd),
                          "-1 AsyncSocket::~AsyncSocket Done"));
}

TEST_F(SocketFree, SaysNothingWithoutTrace) {
  AsyncSocket* socket = new AsyncSocket(true);
  socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false);
  console.clear();
  socket->Free();
  EXPECT_THAT(console.calls(), IsEmpty());
}

// ---- Deleting without Free -----------------------------------------------------------------------------------------

TEST_F(SocketFree, DeletingAnIndirectSocketWithoutItIsFatal) {
  PeerListener listener;
  RecordingLayer layer;
  AsyncSocket* unused = new AsyncSocket(true);
  expected_fatals.push_back(
      text_of("-1 AsyncSocket::~AsyncSocket - %p, socket not Free'd first!", static_cast<void*>(unused)));
  delete unused;

  // With a console whose Fatal returns, what follows is safe although the monitor thread was watching.
  AsyncSocket* socket = new TPKTSocket;
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  expected_fatals.push_back(text_of("%d AsyncSocket::~AsyncSocket - %p, socket not Free'd first!", socket->s,
                                    static_cast<void*>(socket)));
  delete socket;
  EXPECT_EQ(console.fatals(), expected_fatals);
  EXPECT_THAT(live_sockets(), IsEmpty());
  EXPECT_TRUE(peer.ended());
  ComeRound come_round;
  EXPECT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
}

TEST_F(SocketFree, DeletingADirectSocketWithoutItIsNoMistake) {
  PeerListener listener;
  RecordingLayer layer;
  AsyncSocket* socket = new AsyncSocket(false);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  delete socket;
  EXPECT_TRUE(peer.ended());
  EXPECT_THAT(live_sockets(), IsEmpty());
}

TEST_F(SocketFree, WithoutAConsoleNothingIsSaidAndNothingIsFatal) {
  IN_FRESH_PROCESS({
    Console = nullptr;
    AsyncSocket* socket = new AsyncSocket(true);
    socket->SetDiffServ(1);  // has no descriptor to set it on
    delete socket;
    const OwnedSocket later = indirect_socket();
    EXPECT_EQ(live_sockets().size(), 1u);
  });
}

// ---- Without the networking layer ----------------------------------------------------------------------------------

TEST_F(QuietSocketFree, WaitsForNobodyOnceTheNetworkingLayerHasStopped) {
  PeerListener listener;
  RecordingLayer layer;
  Acceptor acceptor;
  Fate fates[5];
  AsyncSocket* fresh = new FatedSocket(fates[0], true);
  AsyncSocket* connected = new FatedSocket(fates[1], true);
  AsyncSocket* listening = new FatedSocket(fates[2], true);
  AsyncSocket* packets = new Fated<TPKTSocket>(fates[3]);
  AsyncSocket* direct = new FatedSocket(fates[4], false);
  PeerStream peer = connect_to_peer(*connected, layer, listener);
  ASSERT_TRUE(wait_until([&] { return queued(*connected) == 1; }, kPatienceMs));
  ASSERT_EQ(acceptor.listen_with(*listening), 0);
  PeerStream caller = PeerStream::connect_to(listening->LocalPort());
  ASSERT_TRUE(wait_until([&] { return accepted_waiting(*listening) == 1; }, kPatienceMs));
  AsyncSocket::Cleanup();
  for (const Fate& fate : fates) EXPECT_EQ(fate.destroyed, 0) << "the sockets stay their programs'";
  for (AsyncSocket* socket : {fresh, connected, listening, packets, direct}) socket->Free();
  for (const Fate& fate : fates) EXPECT_EQ(fate.destroyed, 1);
  EXPECT_TRUE(peer.ended());
  EXPECT_TRUE(caller.ended());
  os_check_triggers();
  EXPECT_THAT(layer.story(), IsEmpty());
  EXPECT_EQ(acceptor.calls(), 0);
}

// ---- Many at once --------------------------------------------------------------------------------------------------

TEST_F(SocketFree, SocketsComeAndGoOnManyThreadsWhileTheirPeersTalk) {
  constexpr int kThreads = 4;
  constexpr int kSockets = 25;
  const unsigned seed = test_seed();
  PeerListener listener;
  std::atomic<bool> stop{false};
  std::atomic<int> destroyed{0};
  WatchedThread talking([&] {
    std::vector<PeerStream> peers;
    while (!stop) {
      PeerStream peer = listener.accept(20);
      if (peer.is_open()) peers.push_back(std::move(peer));
      for (PeerStream& each : peers) {
        if (::send(each.fd(), "talk", 4, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 && errno != EAGAIN) each.close();
      }
      std::erase_if(peers, [](const PeerStream& each) { return !each.is_open(); });
    }
  });
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<WatchedThread>([&, t] {
        std::mt19937 random(seed + static_cast<unsigned>(t));
        for (int n = 0; n < kSockets; ++n) {
          RecordingLayer layer;
          Fate fate;
          AsyncSocket* socket = new FatedSocket(fate, pick(random, 0, 3) != 0);
          const int how = pick(random, 0, 3);
          Gate connecting;
          layer.set_hook([&](const Indication& indication) {
            if (how != 3 || indication.kind != Indication::kData) return;
            EXPECT_TRUE(connecting.wait());
            socket->Free();
          });
          socket->Bind(&layer);
          EXPECT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
          socket->Connect(INADDR_LOOPBACK, listener.port());
          connecting.open();  // from here on the hook may free the socket
          bool in_time = true;
          if (how == 1) in_time = layer.wait_for_connect();
          if (how == 2) in_time = layer.wait_for_bytes(4);
          if (how != 3) socket->Free();
          in_time = fate.comes() && in_time;
          // The hook that freed it is on its way out.
          if (how == 3) in_time = layer.wait_for_kind(Indication::kData) && in_time;
          EXPECT_TRUE(in_time);
          destroyed += fate.destroyed;
        }
      }));
    }
  }
  stop = true;
  EXPECT_EQ(destroyed, kThreads * kSockets);
  EXPECT_THAT(live_sockets(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
