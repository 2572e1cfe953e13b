// How a socket gets its peer: by address, by name, or from a listener; how it learns what became of that; and how a
// connection ends.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "support/launcher.h"
#include "support/socket_watch.h"

// ---- System calls that the tests answer themselves ---------------------------------------------------------------

namespace {

/// The descriptor on which send() fails, and how; -1 for none.
std::atomic<int> failing_send_fd{-1};
std::atomic<int> failing_send_errno{0};

}  // namespace

/// The names of the tests: "known.test" is this machine, all others are not known.
extern "C" hostent* gethostbyname(const char* name) {
  static in_addr address;
  static char* addresses[2] = {reinterpret_cast<char*>(&address), nullptr};
  static char* no_aliases[1] = {nullptr};
  static hostent entry;
  if (std::strcmp(name, "known.test") != 0) {
    h_errno = HOST_NOT_FOUND;
    return nullptr;
  }
  address.s_addr = htonl(INADDR_LOOPBACK);
  entry.h_name = const_cast<char*>("known.test");
  entry.h_aliases = no_aliases;
  entry.h_addrtype = AF_INET;
  entry.h_length = sizeof address;
  entry.h_addr_list = addresses;
  return &entry;
}

extern "C" ssize_t send(int fd, const void* bytes, size_t count, int flags) {
  if (fd >= 0 && fd == failing_send_fd) {
    errno = failing_send_errno;
    return -1;
  }
  static const auto next =
      reinterpret_cast<ssize_t (*)(int, const void*, size_t, int)>(dlsym(RTLD_NEXT, "send"));
  return next(fd, bytes, count, flags);
}

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Story = std::vector<std::string>;

std::string refused() { return text_of("disconnect(4,%d)", ECONNREFUSED); }

class SocketConnect : public NetworkTest {
 protected:
  void TearDown() override {
    failing_send_fd = -1;
    NetworkTest::TearDown();
  }
};

/// The same for a socket of the monitor thread and for one with a thread of its own.
class SocketConnectEitherWay : public SocketConnect, public ::testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  static OwnedSocket new_socket() { return OwnedSocket(new AsyncSocket(indirect())); }
};
INSTANTIATE_TEST_SUITE_P(Served, SocketConnectEitherWay, ::testing::Bool(), way_name);

// ---- Streams -------------------------------------------------------------------------------------------------------

TEST_P(SocketConnectEitherWay, ThePeerIsGivenByAddressByValueOrByText) {
  struct Row {
    const char* form;
    std::function<int(AsyncSocket&, UWORD)> connect;
  };
  const std::vector<Row> rows = {
      {"address and port",
       [](AsyncSocket& socket, UWORD port) { return socket.Connect(INADDR_LOOPBACK, port); }},
      {"address value",
       [](AsyncSocket& socket, UWORD port) {
         SockAddr peer(INADDR_LOOPBACK, port);
         return socket.Connect(peer);
       }},
      {"text", [](AsyncSocket& socket, UWORD port) { return socket.Connect("127.0.0.1", port); }},
      {"name", [](AsyncSocket& socket, UWORD port) { return socket.Connect("known.test", port); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.form);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = new_socket();
    socket->Bind(&layer);
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    EXPECT_EQ(state_of(*socket), SSInitial);
    EXPECT_FALSE(socket->Connected());

    EXPECT_EQ(row.connect(*socket, listener.port()), 0);
    PeerStream peer = listener.accept();
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(layer.wait_for_connect());

    EXPECT_THAT(layer.story(), ElementsAre("connect"));
    EXPECT_TRUE(layer.at(0).null_address);
    EXPECT_EQ(state_of(*socket), SSConnected);
    EXPECT_TRUE(socket->Connected());
    EXPECT_TRUE(now_of(socket->running));
    EXPECT_TRUE(now_of(socket->receive_started));
    EXPECT_FALSE(now_of(socket->listener));
    EXPECT_EQ(socket->rem_sin.Address(), INADDR_LOOPBACK);
    EXPECT_EQ(socket->rem_sin.Port(), listener.port());
    sockaddr_in own = {};
    socklen_t length = sizeof own;
    ASSERT_EQ(getpeername(peer.fd(), reinterpret_cast<sockaddr*>(&own), &length), 0);
    EXPECT_EQ(socket->loc_sin.PortNet(), own.sin_port);
    EXPECT_EQ(socket->loc_sin.AddressNet(), own.sin_addr.s_addr) << "it is read when the connection stands";

    ASSERT_TRUE(peer.send_all("hello"));
    EXPECT_TRUE(layer.wait_for_bytes(5));
    EXPECT_EQ(socket->DataIndication(buffer_of("and back")), Success);
    EXPECT_EQ(peer.receive(8), "and back");
    EXPECT_EQ(layer.story(), (Story{"connect", "data:hello"}));
  }
}

TEST_F(SocketConnect, AnIndirectStreamIsConnectingUntilItsPeerAnswers) {
  FullPort port;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);

  EXPECT_EQ(socket->Connect(INADDR_LOOPBACK, port.port()), 0);
  ASSERT_TRUE(comes_to_state(*socket, SSConnecting));
  // Every look at a connection in progress asks for it again, and is told that it is in progress.
  for (int i = 0; i < 5; ++i) {
    AsyncSocket::WakeMonitorThread();
    ASSERT_TRUE(come_round.pass());
  }
  EXPECT_EQ(state_of(*socket), SSConnecting);
  EXPECT_FALSE(socket->Connected());
  EXPECT_THAT(layer.story(), IsEmpty());

  port.admit();
  PeerStream peer = port.accept_from(socket->LocalPort());
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(state_of(*socket), SSConnected);
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
}

TEST_F(SocketConnect, AnAttemptThatFailsLateIsReportedOnceWithItsError) {
  FullPort port;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  const UWORD refusing = port.port();
  socket->Connect(INADDR_LOOPBACK, refusing);
  ASSERT_TRUE(comes_to_state(*socket, SSConnecting));

  port.refuse();  // the system's next attempt finds nobody
  ASSERT_TRUE(layer.wait_for_disconnect());
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), ElementsAre(refused()));
  EXPECT_EQ(state_of(*socket), SSDisconnected);
  EXPECT_FALSE(now_of(socket->running));
  EXPECT_THAT(lines_with(console, "connect() errno"),
              ElementsAre(text_of("%d AsyncSocket::MonitorThread - connect() errno=%d to 127.0.0.1:%u",
                                  socket->s, ECONNREFUSED, unsigned{refusing})));
}

TEST_F(SocketConnect, AnIndirectStreamThatIsRefusedIsToldOnceWithTheError) {
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);

  EXPECT_EQ(socket->Connect(INADDR_LOOPBACK, port.port()), 0) << "the outcome is indicated, not returned";
  ASSERT_TRUE(layer.wait_for_disconnect());
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), ElementsAre(refused()));
  EXPECT_EQ(state_of(*socket), SSDisconnected);
  EXPECT_FALSE(socket->Connected());
  EXPECT_FALSE(now_of(socket->running));
  EXPECT_THAT(lines_with(console, "connect() errno"),
              ElementsAre(text_of("%d AsyncSocket::MonitorThread - connect() errno=%d to 127.0.0.1:%u",
                                  socket->s, ECONNREFUSED, unsigned{port.port()})));
}

TEST_F(SocketConnect, ADirectStreamThatIsRefusedTriesTwiceAndTimesOut) {
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = direct_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  const unsigned own_port = socket->LocalPort();

  EXPECT_EQ(socket->Connect(INADDR_LOOPBACK, port.port()), 0);
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_TRUE(wait_until([&] { return !now_of(socket->running); }, kPatienceMs));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(3,0)"));
  EXPECT_EQ(state_of(*socket), SSDisconnected);
  EXPECT_FALSE(socket->Connected());
  const auto line = [&](const char* what) {
    return text_of("%d AsyncSocket::Main connect() errno=%d to 127.0.0.1:%u from 127.0.0.1:%u %s", socket->s,
                   ECONNREFUSED, unsigned{port.port()}, own_port, what);
  };
  EXPECT_THAT(lines_with(console, "connect() errno"), ElementsAre(line("RETRYING"), line("FAILED")));
}

TEST_F(SocketConnect, AnAttemptThatTheSystemRefusesAtOnceIsReportedTheSameWay) {
  constexpr ULONG kElsewhere = 0xC0000201;  // 192.0.2.1: not reached from the loopback address
  constexpr UWORD kPort = 9;
  // What the system answers depends on the routes of the machine: a plain socket learns it.
  const Descriptor twin = bound_socket(SOCK_STREAM);
  fcntl(twin.get(), F_SETFL, O_NONBLOCK);
  const sockaddr_in elsewhere = loopback_address(kPort, "192.0.2.1");
  ASSERT_EQ(connect(twin.get(), reinterpret_cast<const sockaddr*>(&elsewhere), sizeof elsewhere), -1);
  const int error = errno;
  ASSERT_NE(error, EINPROGRESS) << "there is a way from the loopback address to elsewhere";

  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(socket->Connect(kElsewhere, kPort), 0);
  ASSERT_TRUE(layer.wait_for_disconnect());
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), ElementsAre(text_of("disconnect(4,%d)", error)));
  EXPECT_EQ(state_of(*socket), SSDisconnected);
  EXPECT_FALSE(now_of(socket->running));
  EXPECT_THAT(lines_with(console, "connect() errno"),
              ElementsAre(text_of("%d AsyncSocket::MonitorThread - connect() errno=%d to 192.0.2.1:%u",
                                  socket->s, error, unsigned{kPort})));
}

TEST_F(SocketConnect, TracesTheWayOfAConnection) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  const Tracing tracing;
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_TRUE(printed(console, "AsyncSocket::StartTask - waking monitor thread"));
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::MonitorThread - connected to 127.0.0.1:%u", socket->s,
                                       unsigned{listener.port()})));
  socket->Close();
}

// ---- Datagrams -----------------------------------------------------------------------------------------------------

TEST_P(SocketConnectEitherWay, ADatagramSocketIsConnectedAtOnceAndToAnyPeerInTurn) {
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(state_of(*socket), SSInitial);
  PeerUdp peers[3];
  for (PeerUdp& peer : peers) {
    EXPECT_EQ(socket->Connect(INADDR_LOOPBACK, peer.port()), 0);
    EXPECT_EQ(state_of(*socket), SSConnected);
    EXPECT_TRUE(socket->Connected());
    EXPECT_EQ(socket->DataIndication(buffer_of("to you")), Success);
    EXPECT_EQ(peer.receive_text(), "to you");
  }
  sockaddr_in peer = {};
  socklen_t length = sizeof peer;
  EXPECT_EQ(getpeername(socket->s, reinterpret_cast<sockaddr*>(&peer), &length), -1)
      << "the system is not told: datagrams of others are received too";
  ASSERT_TRUE(peers[0].send_to(socket->LocalPort(), "from another"));
  EXPECT_TRUE(layer.wait_for_kind(Indication::kDatagram));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:from another")) << "no connection is indicated";
  EXPECT_EQ(socket->rem_sin.Port(), peers[2].port()) << "a sender does not become the peer";
}

int int_option(int fd, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  return getsockopt(fd, IPPROTO_IP, option, &value, &length) == 0 ? value : -1;
}
ULONG multicast_interface(int fd) {
  in_addr address = {};
  socklen_t length = sizeof address;
  return getsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address, &length) == 0 ? ntohl(address.s_addr) : 99;
}
constexpr ULONG kGroup = 0xEF010203;  // 239.1.2.3

TEST_P(SocketConnectEitherWay, AMulticastPeerSetsTheInterfaceAndATimeToLiveOf64) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  AsyncSocket::SetPrimaryAddress(INADDR_LOOPBACK);
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, 0, false), 0);
  PeerUdp peer;
  EXPECT_EQ(socket->Connect(INADDR_LOOPBACK, peer.port()), 0);
  EXPECT_EQ(int_option(socket->s, IP_MULTICAST_TTL), 1) << "a peer of its own needs none of it";
  EXPECT_EQ(multicast_interface(socket->s), 0u);

  EXPECT_EQ(socket->Connect(kGroup, 5000), 0);
  EXPECT_EQ(int_option(socket->s, IP_MULTICAST_TTL), 64);
  EXPECT_EQ(multicast_interface(socket->s), INADDR_LOOPBACK);
  EXPECT_EQ(state_of(*socket), SSConnected);
  EXPECT_EQ(console.count("AsyncSocket::Connect MULTICAST"), 0);
  EXPECT_THAT(layer.story(), IsEmpty());
}

TEST_F(SocketConnect, MulticastOptionsThatFailAreOnlyReported) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  AsyncSocket::SetPrimaryAddress(0xC000024D);  // 192.0.2.77 is not ours
  EXPECT_EQ(socket->Connect(kGroup, 5000), 0);
  EXPECT_THAT(lines_with(console, "AsyncSocket::Connect MULTICAST"),
              ElementsAre(text_of("%d AsyncSocket::Connect MULTICAST_IF failed with error %d", socket->s,
                                  EADDRNOTAVAIL)));
  EXPECT_EQ(int_option(socket->s, IP_MULTICAST_TTL), 64) << "the other one is set all the same";
  EXPECT_EQ(state_of(*socket), SSConnected);

  console.clear();
  socket->Close();  // it stays a datagram socket
  EXPECT_EQ(socket->Connect(kGroup, 5000), 0);
  EXPECT_THAT(lines_with(console, "AsyncSocket::Connect MULTICAST"),
              ElementsAre(text_of("-1 AsyncSocket::Connect MULTICAST_IF failed with error %d", EBADF),
                          text_of("-1 AsyncSocket::Connect MULTICAST_TTL failed with error %d", EBADF)));
  EXPECT_EQ(state_of(*socket), SSConnected);
}

// ---- Texts ---------------------------------------------------------------------------------------------------------

TEST_P(SocketConnectEitherWay, AnEmptyTextAndTheAddressZeroAreRefusedAtOnce) {
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    for (const char* given : {"", "0.0.0.0", "0", static_cast<const char*>(nullptr)}) {
      const char* const text = given != nullptr ? given : "";
      SCOPED_TRACE(text_of("type %d '%s'", type, text));
      RecordingLayer layer;
      OwnedSocket socket = new_socket();
      socket->Bind(&layer);
      ASSERT_EQ(socket->Create(type, 0, INADDR_LOOPBACK, false), 0);
      const int fd = socket->s;
      console.clear();
      EXPECT_EQ(socket->Connect(given, 80), -1);
      EXPECT_THAT(lines_with(console, "couldn't resolve host"),
                  ElementsAre(text_of("%d AsyncSocket: couldn't resolve host %s", fd, text)));
      EXPECT_EQ(now_of(socket->s), -1);
      EXPECT_FALSE(socket->Connected());
      EXPECT_THAT(layer.story(), IsEmpty());

      console.clear();
      EXPECT_EQ(socket->Connect(given, 80), -1) << "without a descriptor there is nothing to close";
      EXPECT_THAT(lines_with(console, "couldn't resolve host"),
                  ElementsAre(text_of("-1 AsyncSocket: couldn't resolve host %s", text)));
    }
  }
}

TEST_F(SocketConnect, ATextThatIsRefusedClosesTheDescriptor) {
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  ASSERT_TRUE(come_round.pass()) << "the monitor thread has opened what it needs";
  const int before = open_descriptors();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(socket->Connect("", 80), -1);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SocketConnect, ASocketWhoseTextWasRefusedCanBeCreatedAnew) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(socket->Connect("0.0.0.0", 80), -1);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  EXPECT_TRUE(layer.wait_for_connect());
}

TEST_F(SocketConnect, ADatagramSocketWhoseTextWasRefusedReceivesAgainInADescriptorOfTheSameNumber) {
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  ComeRound come_round;
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  ASSERT_TRUE(come_round.pass()) << "it is watched";
  EXPECT_EQ(socket->Connect("", 80), -1);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  PeerUdp peer;
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "hello"));
  EXPECT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:hello"));
}

TEST_P(SocketConnectEitherWay, ANameIsResolvedInTheBackground) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  StalledDispatcher stalled;
  ASSERT_TRUE(stalled.stalled());
  EXPECT_EQ(socket->Connect("known.test", listener.port()), 0);
  EXPECT_EQ(socket->rem_sin.Port(), listener.port()) << "kept until the address is known";
  EXPECT_EQ(state_of(*socket), SSInitial);
  EXPECT_NE(socket->dnsentry, nullptr);
  EXPECT_EQ(console.count("DNSResult"), 0);
  stalled.release();

  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(socket->rem_sin.Address(), INADDR_LOOPBACK);
  EXPECT_THAT(
      lines_with(console, "DNSResult"),
      ElementsAre(text_of("%d AsyncSocket::DNSResult - address for known.test is 127.0.0.1", socket->s)));
  EXPECT_TRUE(wait_until(
      [&] {
        EnterCriticalSection(&DNSEntry::cs);
        const bool waits = socket->dnsentry != nullptr;
        LeaveCriticalSection(&DNSEntry::cs);
        return !waits;
      },
      kPatienceMs));
}

TEST_P(SocketConnectEitherWay, ANameThatIsKnownConnectsInsideTheCall) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  ASSERT_TRUE(wait_until([] { return DNSEntry::Lookup("known.test", nullptr) != 0; }, kPatienceMs));
  StalledDispatcher stalled;
  ASSERT_TRUE(stalled.stalled());
  console.clear();
  EXPECT_EQ(socket->Connect("KNOWN.test", listener.port()), 0);
  EXPECT_THAT(
      lines_with(console, "DNSResult"),
      ElementsAre(text_of("%d AsyncSocket::DNSResult - address for KNOWN.test is 127.0.0.1", socket->s)));
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.is_open()) << "no dispatcher is needed to connect";
  stalled.release();
  EXPECT_TRUE(layer.wait_for_connect());
}

TEST_P(SocketConnectEitherWay, ANameThatIsNotKnownEndsInADisconnection) {
  for (const char* name : {"nowhere.test", "255.255.255.255"}) {
    SCOPED_TRACE(name);
    RecordingLayer layer;
    OwnedSocket socket = new_socket();
    socket->Bind(&layer);
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    EXPECT_EQ(socket->Connect(name, 80), 0);
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
    EXPECT_EQ(state_of(*socket), SSDisconnected);
    EXPECT_TRUE(
        printed(console, text_of("%d AsyncSocket::DNSResult - couldn't resolve host %s", socket->s, name)));
  }
}

// ---- Acknowledging an accepted connection ----------------------------------------------------------------------------

TEST_P(SocketConnectEitherWay, AnAcceptedConnectionIsConnectedFromAnyStateAndReceivesFromThenOn) {
  for (const int state : {SSInitial, SSConnecting, SSConnected, SSDisconnected}) {
    SCOPED_TRACE(state);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = new_socket();
    PeerStream peer = adopt_connection(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    EXPECT_EQ(state_of(*socket), SSInitial);
    EXPECT_FALSE(now_of(socket->running));
    EXPECT_FALSE(now_of(socket->receive_started));
    std::atomic_ref<int>(socket->state).store(state);

    EXPECT_EQ(socket->ConnectAck(), 0);
    EXPECT_EQ(state_of(*socket), SSConnected);
    EXPECT_TRUE(socket->Connected());
    EXPECT_TRUE(now_of(socket->running));
    EXPECT_TRUE(now_of(socket->receive_started));
    ASSERT_TRUE(peer.send_all("welcome"));
    EXPECT_TRUE(layer.wait_for_bytes(7));
    EXPECT_EQ(socket->DataIndication(buffer_of("thanks")), Success);
    EXPECT_EQ(peer.receive(6), "thanks");
    EXPECT_THAT(layer.story(), ElementsAre("data:welcome")) << "who acknowledges knows that it is connected";
    EXPECT_EQ(console.count("ConnectAck"), 0) << "a clear connection says nothing";
  }
}

// ---- The end of a connection -----------------------------------------------------------------------------------------

TEST_P(SocketConnectEitherWay, EveryEndOfAConnectionDisconnectsItOnce) {
  struct Row {
    const char* name;
    std::function<void(AsyncSocket&, PeerStream&)> end;
    std::string told;
  };
  const std::vector<Row> rows = {
      {"the peer closes", [](AsyncSocket&, PeerStream& peer) { peer.close(); }, "disconnect(5,0)"},
      {"the peer half closes", [](AsyncSocket&, PeerStream& peer) { peer.half_close(); }, "disconnect(5,0)"},
      {"the peer resets while nothing waits", [](AsyncSocket&, PeerStream& peer) { peer.reset(); },
       "disconnect(5,0)"},
      {"the own side shuts down", [](AsyncSocket& socket, PeerStream&) { socket.Shutdown(); },
       "disconnect(5,0)"},
      {"the layer above disconnects",
       [](AsyncSocket& socket, PeerStream&) { EXPECT_EQ(socket.DisconnectIndication(Normal, 0), Success); },
       "disconnect(5,0)"},
      {"a send fails",
       [](AsyncSocket& socket, PeerStream&) {
         failing_send_errno = ENOBUFS;
         failing_send_fd = socket.s;
         EXPECT_EQ(socket.DataIndication(buffer_of("lost")), Blocked);
         failing_send_fd = -1;
       },
       text_of("disconnect(4,%d)", ENOBUFS)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = new_socket();
    ComeRound come_round;
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(layer.wait_for_connect());

    row.end(*socket, peer);
    ASSERT_TRUE(layer.wait_for_disconnect());
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.story(), (Story{"connect", row.told}));
    EXPECT_EQ(state_of(*socket), SSDisconnected);
    EXPECT_FALSE(socket->Connected());
    EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.story(), (Story{"connect", row.told}));
  }
}

TEST_P(SocketConnectEitherWay, WhatThePeerSentBeforeItClosedComesBeforeTheDisconnection) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = new_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(layer.wait_for_connect());
  const std::string last_words = numbered_bytes(100000);
  ASSERT_TRUE(peer.send_all(last_words));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.story(), (Story{"connect", "data:" + last_words, "disconnect(5,0)"}));
}

TEST_F(SocketConnect, ShuttingDownWithoutADescriptorDoesNothing) {
  RecordingLayer layer;
  for (const bool indirect : {false, true}) {
    OwnedSocket socket(new AsyncSocket(indirect));
    socket->Bind(&layer);
    socket->Shutdown();
    EXPECT_EQ(state_of(*socket), SSInitial);
  }
  EXPECT_THAT(layer.story(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
