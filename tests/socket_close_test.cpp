// Closing: what it stops, closes and drops, what it says, and that a closed socket starts over.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "network/asocket.h"
#include "support/seed.h"
#include "support/socket_watch.h"
#include "support/tpkt_packets.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Story = std::vector<std::string>;

class SocketClose : public NetworkTest {};
class QuietSocketClose : public QuietNetworkTest {};

class SocketCloseEitherWay : public SocketClose, public ::testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  static OwnedSocket new_socket() { return OwnedSocket(new AsyncSocket(indirect())); }
};
INSTANTIATE_TEST_SUITE_P(Served, SocketCloseEitherWay, ::testing::Bool(), way_name);

/// What Close leaves, whatever it found.
void expect_closed(AsyncSocket& socket) {
  EXPECT_EQ(now_of(socket.s), -1);
  EXPECT_EQ(socket.rtps, -1);
  EXPECT_EQ(state_of(socket), SSInitial);
  EXPECT_FALSE(socket.Connected());
  EXPECT_FALSE(now_of(socket.running));
  EXPECT_FALSE(now_of(socket.listener));
  EXPECT_EQ(now_of(socket.secure_state), SecClear);
  EXPECT_EQ(socket.ssl_info, nullptr);
  EXPECT_EQ(socket.thread, 0u) << "a thread that has been joined is forgotten";
  EXPECT_EQ(queued(socket), 0);
  EXPECT_EQ(early(socket), 0);
}

// ---- What it leaves ------------------------------------------------------------------------------------------------

TEST_P(SocketCloseEitherWay, ASocketWithoutADescriptorStaysInitial) {
  OwnedSocket socket = new_socket();
  for (int i = 0; i < 3; ++i) {
    socket->Close();
    expect_closed(*socket);
  }
}

TEST_P(SocketCloseEitherWay, FromEveryStateASocketBecomesInitialAndNothingIsIndicated) {
  struct Row {
    const char* name;
    std::function<void(AsyncSocket&, RecordingLayer&)> reach;
    int state;
    Story told;
  };
  PeerListener listener;
  FullPort full;
  RefusingPort refusing;
  PeerStream peer;
  Acceptor acceptor;
  const std::vector<Row> rows = {
      {"created",
       [](AsyncSocket& socket, RecordingLayer&) { socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false); },
       SSInitial,
       {}},
      {"connected",
       [&](AsyncSocket& socket, RecordingLayer& layer) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
       },
       SSConnected,
       {"connect"}},
      {"disconnected by the peer",
       [&](AsyncSocket& socket, RecordingLayer& layer) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
         peer.close();
         EXPECT_TRUE(layer.wait_for_disconnect());
       },
       SSDisconnected,
       {"connect", "disconnect(5,0)"}},
      {"refused",
       [&](AsyncSocket& socket, RecordingLayer& layer) {
         socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
         socket.Connect(INADDR_LOOPBACK, refusing.port());
         EXPECT_TRUE(layer.wait_for_disconnect());
       },
       SSDisconnected,
       {indirect() ? text_of("disconnect(4,%d)", ECONNREFUSED) : "disconnect(3,0)"}},
      {"listening",
       [&](AsyncSocket& socket, RecordingLayer&) { EXPECT_EQ(acceptor.listen_with(socket), 0); },
       SSInitial,
       {}},
      {"datagrams",
       [](AsyncSocket& socket, RecordingLayer&) { socket.Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false); },
       SSInitial,
       {}},
      {"datagrams to a peer",
       [&](AsyncSocket& socket, RecordingLayer&) {
         socket.Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false);
         socket.Connect(INADDR_LOOPBACK, refusing.port());
       },
       SSConnected,
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    RecordingLayer layer;
    OwnedSocket socket = new_socket();
    ComeRound come_round;
    socket->Bind(&layer);
    row.reach(*socket, layer);
    EXPECT_EQ(state_of(*socket), row.state);
    EXPECT_EQ(layer.story(), row.told);
    socket->Close();
    expect_closed(*socket);
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.story(), row.told);
    EXPECT_TRUE(socket->IsBound()) << "the layers stay bound";
    EXPECT_TRUE(is_live(socket.get()));
    socket->Close();
    expect_closed(*socket);
  }
}

TEST_F(SocketClose, AConnectionInProgressIsGivenUp) {
  FullPort port;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, port.port());
  ASSERT_TRUE(comes_to_state(*socket, SSConnecting));
  EXPECT_EQ(socket->DataIndication(buffer_of("for later")), Success);
  EXPECT_EQ(early(*socket), 1);
  socket->Close();
  expect_closed(*socket);
  port.admit();
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), IsEmpty());
}

TEST_F(SocketClose, AnAttemptThatTheOwnThreadWaitsForIsGivenUp) {
  for (const bool free : {false, true}) {
    SCOPED_TRACE(free ? "Free" : "Close");
    FullPort port;
    RecordingLayer layer;
    AsyncSocket* socket = new AsyncSocket(false);
    socket->Bind(&layer);
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    const int fd = socket->s;
    socket->Connect(INADDR_LOOPBACK, port.port());
    ASSERT_TRUE(wait_until(
        [fd] {
          tcp_info info = {};
          socklen_t length = sizeof info;
          return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
                 info.tcpi_state == TCP_SYN_SENT;
        },
        kPatienceMs));
    {
      WatchedThread ending([&] {
        if (free) {
          socket->Free();
        } else {
          socket->Close();
        }
      });
      EXPECT_TRUE(ending.finished_within(kPatienceMs)) << "it does not wait until the system gives up";
    }
    EXPECT_THAT(layer.story(), IsEmpty());
    if (free) continue;
    expect_closed(*socket);
    socket->Free();
  }
}

TEST_P(SocketCloseEitherWay, ClosesBothDescriptors) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  PeerStream second = PeerStream::connect_to(listener.port());
  PeerStream second_peer = listener.accept();
  socket->rtps = second.release();
  ComeRound come_round;
  ASSERT_TRUE(come_round.pass()) << "the monitor thread has opened what it needs";
  const int open = open_descriptors();
  socket->Close();
  expect_closed(*socket);
  EXPECT_TRUE(peer.ended());
  EXPECT_TRUE(second_peer.ended());
  EXPECT_EQ(open_descriptors(), open - 2);
}

TEST_F(SocketClose, TheSecondDescriptorIsClosedThoughThereIsNoFirst) {
  PeerListener listener;
  OwnedSocket socket = indirect_socket();
  PeerStream own = PeerStream::connect_to(listener.port());
  PeerStream peer = listener.accept();
  socket->rtps = own.release();
  socket->Close();
  expect_closed(*socket);
  EXPECT_TRUE(peer.ended());
}

TEST_P(SocketCloseEitherWay, AStateOfTheSecureTransportIsForgotten) {
  OwnedSocket socket = new_socket();
  std::atomic_ref<int>(socket->secure_state).store(SecHandshake);
  socket->secure = true;
  socket->Close();
  expect_closed(*socket);
  EXPECT_TRUE(socket->secure) << "what the program wants stays";
}

TEST_F(SocketClose, IgnoresANullSocket) {
  // Programs close and free what they may not have. The pointer is hidden from the compiler, which would know better.
  struct Null {
    __attribute__((no_sanitize("undefined"), noinline)) static void close(AsyncSocket* socket) {
      socket->Close();
    }
  };
  IN_FRESH_PROCESS({
    AsyncSocket* volatile none = nullptr;
    Null::close(none);
    const OwnedSocket first = indirect_socket();
    Null::close(none);
    EXPECT_EQ(live_sockets().size(), 1u);
  });
}

// ---- What it drops -------------------------------------------------------------------------------------------------

TEST_F(QuietSocketClose, DropsWhatIsQueuedBothWays) {
  const int out_before = PoolState::now().buffers_out;
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  for (int n = 1; n <= 5; ++n) {
    ASSERT_TRUE(peer.send_all("received"));
    ASSERT_TRUE(wait_until([&] { return queued(*socket) == n; }, kPatienceMs));
  }
  socket->Close();
  expect_closed(*socket);
  EXPECT_EQ(PoolState::now().buffers_out, out_before);
  os_check_triggers();
  EXPECT_THAT(layer.story(), ElementsAre("connect"));

  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(socket->DataIndication(buffer_of(std::string(900, 'x'))), Success) << "not connected: it waits";
  }
  EXPECT_GT(early(*socket), 0);
  socket->Close();
  expect_closed(*socket);
  EXPECT_EQ(PoolState::now().buffers_out, out_before);
}

TEST_F(QuietSocketClose, AConnectionWhoseReadingWasHeldBackIsReadAgainWhenTheSocketIsUsedAnew) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    layer.clear();
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
    // One buffer after the other, until the socket reads no more.
    for (int n = 1; n <= 10; ++n) {
      ASSERT_TRUE(peer.send_all("x"));
      ASSERT_TRUE(wait_until([&] { return queued(*socket) == n; }, kPatienceMs));
    }
    EXPECT_TRUE(now_of(socket->dont_read));
    socket->Close();
    expect_closed(*socket);
    os_check_triggers();
    EXPECT_THAT(layer.story(), ElementsAre("connect"));
  }
  layer.clear();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.send_all("still there?"));
  EXPECT_TRUE(dispatch_until([&] { return layer.data() == "still there?"; }));
}

TEST_P(SocketCloseEitherWay, ASocketThatHadDataForLaterSendsAtOnceWhenItIsUsedAnew) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(socket->DataIndication(buffer_of("dropped")), Success);
  EXPECT_EQ(early(*socket), 1);
  socket->Close();
  expect_closed(*socket);
  PeerStream peer = adopt_connection(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  socket->ConnectAck();
  EXPECT_EQ(socket->DataIndication(buffer_of("sent")), Success);
  EXPECT_EQ(peer.receive(4), "sent");
}

/// Does not look at its descriptor while it is asleep.
class Sleeper : public AsyncSocket {
 public:
  Sleeper() : AsyncSocket(true) {}
  void Poll() override {
    ++polls;
    if (!asleep) AsyncSocket::Poll();
  }
  std::atomic<bool> asleep{false};
  std::atomic<int> polls{0};
};

TEST_F(SocketClose, AFailureThatHasNotBeenReportedYetIsForgotten) {
  RefusingPort refusing;
  PeerListener listener;
  RecordingLayer layer;
  Owned<Sleeper> socket(new Sleeper);
  socket->Bind(&layer);
  socket->asleep = true;
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, refusing.port());
  ASSERT_TRUE(wait_until([&] { return socket->polls > 0; }, kPatienceMs));
  socket->Close();
  expect_closed(*socket);
  socket->asleep = false;
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.send_all("hello"));
  ASSERT_TRUE(layer.wait_for_bytes(5));
  EXPECT_EQ(layer.story(), (Story{"connect", "data:hello"}));
}

TEST_F(QuietSocketClose, PacketsThatAreHeldBackAreNotLookedForInTheNextConnection) {
  PeerListener listener;
  RecordingLayer layer;
  Owned<TPKTSocket> socket(new TPKTSocket);
  {
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
    std::string packets;
    for (int i = 0; i < 40; ++i) packets += tpkt("x");
    ASSERT_TRUE(peer.send_all(packets));
    ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
    socket->Close();
    expect_closed(*socket);
  }
  layer.clear();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(peer.send_all(tpkt("new")));
  EXPECT_TRUE(dispatch_until([&] { return layer.count() >= 2; }));
  EXPECT_EQ(layer.story(), (Story{"connect", "data:new"}));
}

// ---- While it closes -----------------------------------------------------------------------------------------------

TEST_F(SocketClose, WhileItWaitsForTheOwnThreadTheSocketIsDisconnected) {
  PeerListener listener;
  RecordingLayer layer;
  Gate door;
  layer.set_hook([&](const Indication&) { EXPECT_TRUE(door.wait(60000)); });
  OwnedSocket socket = direct_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_entered(1));
  {
    WatchedThread closing([&] { socket->Close(); });
    ASSERT_TRUE(closing.blocked());
    EXPECT_EQ(state_of(*socket), SSDisconnected);
    EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
    door.open();
    EXPECT_TRUE(closing.finished_within(kPatienceMs));
  }
  expect_closed(*socket);
}

TEST_P(SocketCloseEitherWay, WaitsForWhoIsInsideTheSectionsBeforeItChangesAnything) {
  PeerListener listener;
  for (const bool of_all : {false, true}) {
    SCOPED_TRACE(of_all ? "the section of all sockets" : "the socket's own");
    RecordingLayer layer;
    OwnedSocket socket = new_socket();
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    CRITICAL_SECTION* const section = of_all ? &AsyncSocket::cs : &socket->local_cs;
    EnterCriticalSection(section);
    {
      WatchedThread closing([&] { socket->Close(); });
      EXPECT_TRUE(closing.blocked());
      EXPECT_EQ(state_of(*socket), SSConnected);
      EXPECT_GE(now_of(socket->s), 0);
      LeaveCriticalSection(section);
      EXPECT_TRUE(closing.finished_within(kPatienceMs));
    }
    expect_closed(*socket);
  }
}

// ---- The own thread ------------------------------------------------------------------------------------------------

TEST_F(SocketClose, ADirectSocketsThreadIsJoinedAndForgotten) {
  OwnedSocket first = indirect_socket();  // starts the layer's own threads
  const int threads = running_threads();
  struct Row {
    const char* name;
    std::function<void(AsyncSocket&, RecordingLayer&, PeerListener&)> start;
  };
  PeerStream peer;
  Acceptor acceptor;
  const std::vector<Row> rows = {
      {"waits for data",
       [&](AsyncSocket& socket, RecordingLayer& layer, PeerListener& listener) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
       }},
      {"waits for connections", [&](AsyncSocket& socket, RecordingLayer&,
                                    PeerListener&) { EXPECT_EQ(acceptor.listen_with(socket), 0); }},
      {"waits for datagrams",
       [&](AsyncSocket& socket, RecordingLayer&, PeerListener&) {
         EXPECT_EQ(socket.Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
       }},
      {"has ended with its connection",
       [&](AsyncSocket& socket, RecordingLayer& layer, PeerListener& listener) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
         peer.close();
         EXPECT_TRUE(layer.wait_for_disconnect());
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = direct_socket();
    row.start(*socket, layer, listener);
    EXPECT_NE(socket->thread, 0u);
    socket->Close();
    expect_closed(*socket);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads; }, kPatienceMs));
    socket->Close();
    expect_closed(*socket);
  }
}

// ---- Texts ---------------------------------------------------------------------------------------------------------

TEST_F(SocketClose, TracesItsStepsOnAnIndirectSocket) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  const int fd = socket->s;
  {
    const Tracing tracing;
    socket->Close();
  }
  EXPECT_THAT(lines_with(console, "AsyncSocket::Close"),
              ElementsAre(text_of("%d AsyncSocket::Close - thread %p, running 1", fd, as_pointer(0)),
                          text_of("%d AsyncSocket::Close - closing socket", fd)));
  console.clear();
  {
    const Tracing tracing;
    socket->Close();
  }
  EXPECT_THAT(lines_with(console, "AsyncSocket::Close"),
              ElementsAre(text_of("-1 AsyncSocket::Close - thread %p, running 0", as_pointer(0))));
}

TEST_F(SocketClose, TracesAShutdownThatTheSystemRefuses) {
  OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  const int fd = socket->s;
  {
    const Tracing tracing;
    socket->Close();
  }
  EXPECT_THAT(lines_with(console, "AsyncSocket::Close"),
              ElementsAre(text_of("%d AsyncSocket::Close - thread %p, running 0", fd, as_pointer(0)),
                          text_of("%d AsyncSocket::Close - shutdown returned %d", fd, ENOTCONN),
                          text_of("%d AsyncSocket::Close - closing socket", fd)));
  console.clear();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Close();
  EXPECT_EQ(console.count("Close"), 0) << "nothing is said without trace";
}

TEST_F(SocketClose, TracesTheEndOfTheOwnThread) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = direct_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  const int fd = socket->s;
  void* const thread = as_pointer(socket->thread);
  {
    const Tracing tracing;
    socket->Close();
  }
  EXPECT_THAT(lines_with(console, "AsyncSocket::Close"),
              ElementsAre(text_of("%d AsyncSocket::Close - thread %p, running 1", fd, thread),
                          text_of("%d AsyncSocket::Close - Waiting for thread %p to join...", fd, thread),
                          text_of("%d AsyncSocket::Close - thread %p terminated", fd, thread),
                          text_of("%d AsyncSocket::Close - closing socket", fd)));
}

// ---- Starting over -------------------------------------------------------------------------------------------------

TEST_P(SocketCloseEitherWay, AClosedSocketIsUsedAgainForWhateverItIsGood) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  socket->Bind(&layer);
  Acceptor acceptor;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(acceptor.listen_with(*socket), 0);
    socket->Close();
    expect_closed(*socket);

    layer.clear();
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(layer.wait_for_connect());
    ASSERT_TRUE(peer.send_all("stream"));
    ASSERT_TRUE(layer.wait_for_bytes(6));
    EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
    EXPECT_EQ(peer.receive(6), "answer");
    EXPECT_EQ(layer.story(), (Story{"connect", "data:stream"}));
    socket->Close();
    expect_closed(*socket);
    EXPECT_TRUE(peer.ended());

    layer.clear();
    ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
    PeerUdp udp;
    socket->Connect(INADDR_LOOPBACK, udp.port());
    ASSERT_TRUE(udp.send_to(socket->LocalPort(), "datagram"));
    ASSERT_TRUE(layer.wait_for_kind(Indication::kDatagram));
    EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
    EXPECT_EQ(udp.receive_text(), "answer");
    EXPECT_EQ(layer.story(), (Story{"datagram:datagram"}));
    socket->Close();
    expect_closed(*socket);

    layer.clear();
    RefusingPort refusing;
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    socket->Connect(INADDR_LOOPBACK, refusing.port());
    ASSERT_TRUE(layer.wait_for_disconnect());
    socket->Close();
    expect_closed(*socket);

    layer.clear();
    PeerStream adopted = adopt_connection(*socket, layer, listener);
    ASSERT_TRUE(adopted.is_open());
    EXPECT_EQ(socket->ConnectAck(), 0);
    ASSERT_TRUE(adopted.send_all("adopted"));
    ASSERT_TRUE(layer.wait_for_bytes(7));
    EXPECT_EQ(layer.story(), (Story{"data:adopted"}));
    socket->Close();
    expect_closed(*socket);
  }
}

TEST_P(SocketCloseEitherWay, AClosedListenerListensAgain) {
  Acceptor acceptor;
  OwnedSocket listener = new_socket();
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    const UWORD port = listener->LocalPort();
    PeerStream peer = PeerStream::connect_to(port);
    ASSERT_TRUE(peer.is_open());
    OwnedSocket socket = acceptor.take();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->RemotePort(), peer.local_port());
    listener->Close();
    expect_closed(*listener);
    EXPECT_FALSE(PeerStream::connect_to(port).is_open());
    RecordingLayer layer;
    socket->Bind(&layer);
    socket->ConnectAck();
    ASSERT_TRUE(peer.send_all("on my own"));
    EXPECT_TRUE(layer.wait_for_bytes(9)) << "accepted connections outlive their listener's descriptor";
    socket.reset();
  }
}

// ---- Beside others -------------------------------------------------------------------------------------------------

TEST_P(SocketCloseEitherWay, ClosesWhileDataFloodsInAndAfterItNothingMoreComes) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  ComeRound come_round;
  for (int round = 0; round < 10; ++round) {
    layer.clear();
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    WatchedThread flood([&] {
      const std::string bytes(1000, 'f');
      while (peer.send_all(bytes)) {
      }
    });
    ASSERT_TRUE(layer.wait_for_bytes(20000));
    socket->Close();
    EXPECT_TRUE(flood.finished_within(kPatienceMs)) << "the peer sees the end";
    expect_closed(*socket);
    ASSERT_TRUE(come_round.pass());
    const std::size_t told = layer.count();
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.count(), told);
    EXPECT_EQ(layer.count(Indication::kDisconnect), 0u);
  }
}

TEST_F(SocketClose, SocketsOfManyThreadsOpenAndCloseBesideEachOther) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 15;
  PeerListener listener;
  // A layer for each round: what is under way to the last one when its socket is closed is not taken for the next.
  RecordingLayer layers[kThreads][kRounds];
  OwnedSocket sockets[kThreads];
  for (int i = 0; i < kThreads; ++i) sockets[i].reset(new AsyncSocket(i % 2 == 0));
  std::atomic<bool> stop{false};
  WatchedThread accepting([&] {
    while (!stop) {
      PeerStream peer = listener.accept(100);
      if (peer.is_open()) peer.send_all("hello");
    }
  });
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.push_back(std::make_unique<WatchedThread>([&, i] {
        for (int round = 0; round < kRounds; ++round) {
          RecordingLayer& layer = layers[i][round];
          sockets[i]->UnBind();
          sockets[i]->Bind(&layer);
          EXPECT_EQ(sockets[i]->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
          sockets[i]->Connect(INADDR_LOOPBACK, listener.port());
          // Some are closed before they are connected, some after, some when they have received.
          const bool connected = round % 3 == 0 || layer.wait_for_connect();
          EXPECT_TRUE(connected);
          const bool received = round % 3 != 2 || layer.wait_for_bytes(5);
          EXPECT_TRUE(received);
          sockets[i]->Close();
        }
      }));
    }
  }
  stop = true;
  for (OwnedSocket& socket : sockets) {
    expect_closed(*socket);
    socket.reset();
  }
}

}  // namespace
}  // namespace oskernel_test
