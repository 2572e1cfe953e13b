// Blocking sockets as they are made: bound, listening, wrapped; and what a failing call leaves behind.

#include <netinet/tcp.h>
#include <sys/time.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"
#include "support/launcher.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BlockingSocketCreate : public BlockingTest {
 protected:
  void TearDown() override {
    blocking_calls.socket.restore();
    blocking_calls.bind.restore();
    blocking_calls.listen.restore();
    blocking_calls.setsockopt.restore();
    calls().restore_all();
    BlockingTest::TearDown();
  }

  static timeval send_timeout(int fd) {
    timeval value = {-1, -1};
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, &length), 0);
    return value;
  }
  static int int_option(int fd, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &value, &length), 0);
    return value;
  }
  static sockaddr_in name_of(int fd) {
    sockaddr_in name = {};
    socklen_t length = sizeof name;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length), 0);
    return name;
  }
};

struct Kind {
  const char* name;
  Socket::Type type;
  int socket_type;
  int protocol;
};
const Kind kKinds[] = {
    {"UDP", Socket::UDP, SOCK_DGRAM, IPPROTO_UDP},
    {"TCP_CLIENT", Socket::TCP_CLIENT, SOCK_STREAM, IPPROTO_TCP},
    {"TCP_SERVER", Socket::TCP_SERVER, SOCK_STREAM, IPPROTO_TCP},
    {"an unknown kind", static_cast<Socket::Type>(3), SOCK_STREAM, IPPROTO_TCP},
};

TEST_F(BlockingSocketCreate, EveryKindIsBoundWithItsProtocolAndOptions) {
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    std::vector<int> made;
    blocking_calls.socket.replace([&made](auto real, int family, int type, int protocol) {
      made = {family, type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK), protocol};
      return real(family, type, protocol);
    });
    Socket socket(kind.type, 0, false, kLoopback);
    blocking_calls.socket.restore();
    EXPECT_THAT(made, ElementsAre(AF_INET, kind.socket_type, kind.protocol));
    EXPECT_EQ(socket.type, kind.type);
    ASSERT_GE(socket.s, 0);
    EXPECT_EQ(socket.state, Socket::READY);
    EXPECT_EQ(int_option(socket.s, SO_TYPE), kind.socket_type);
    EXPECT_EQ(int_option(socket.s, SO_PROTOCOL), kind.protocol);
    EXPECT_EQ(int_option(socket.s, SO_REUSEADDR), 1);
    EXPECT_EQ(send_timeout(socket.s).tv_sec, 5);
    EXPECT_EQ(send_timeout(socket.s).tv_usec, 0);
    EXPECT_FALSE(is_nonblocking(socket.s));
    EXPECT_FALSE(int_option(socket.s, SO_ACCEPTCONN));
    const sockaddr_in name = name_of(socket.s);
    EXPECT_EQ(ntohl(name.sin_addr.s_addr), kLoopback);
    EXPECT_EQ(socket.local_sin.sin_port, name.sin_port) << "local_sin is asked from the system";
    EXPECT_EQ(socket.local_sin.sin_addr.s_addr, name.sin_addr.s_addr);
    EXPECT_EQ(socket.LocalPort(), ntohs(name.sin_port));
    EXPECT_EQ(socket.LocalIP_h(), kLoopback);
    EXPECT_EQ(socket.LocalIP_n(), htonl(kLoopback));
    EXPECT_FALSE(socket.Secure());
    EXPECT_EQ(socket.RemoteHostname(), nullptr);
    EXPECT_EQ(socket.phostent, nullptr);
    EXPECT_EQ(socket.queue.Size(), 0);
  }
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketCreate, OptionsStandBeforeTheSocketIsBoundAndItListensBehindThat) {
  std::vector<std::string> order;
  blocking_calls.setsockopt.replace(
      [&order](auto real, int fd, int level, int option, const void* value, socklen_t length) {
        if (level == SOL_SOCKET && option == SO_SNDTIMEO) order.emplace_back("send time-out");
        if (level == SOL_SOCKET && option == SO_REUSEADDR) order.emplace_back("reuse");
        return real(fd, level, option, value, length);
      });
  blocking_calls.bind.replace([&order](auto real, int fd, const sockaddr* address, socklen_t length) {
    order.emplace_back("bind");
    return real(fd, address, length);
  });
  calls().getsockname.replace([&order](auto real, int fd, sockaddr* name, socklen_t* length) {
    order.emplace_back("name");
    return real(fd, name, length);
  });
  blocking_calls.listen.replace([&order](auto real, int fd, int backlog) {
    order.push_back("listen " + std::to_string(backlog));
    return real(fd, backlog);
  });
  const Socket socket(Socket::TCP_SERVER, 0, true, kLoopback);
  EXPECT_THAT(order, ElementsAre("send time-out", "reuse", "bind", "name", "listen 4"));
}

TEST_F(BlockingSocketCreate, AListenerIsReadyAndTakesConnections) {
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  EXPECT_EQ(listener.state, Socket::READY);
  EXPECT_EQ(int_option(listener.s, SO_ACCEPTCONN), 1);
  PeerStream peer = PeerStream::connect_to(listener.LocalPort());
  EXPECT_TRUE(peer.is_open());
  const std::unique_ptr<Socket> accepted(listener.Accept());
  ASSERT_NE(accepted, nullptr);
  EXPECT_EQ(accepted->RemotePort(), peer.local_port());
}

TEST_F(BlockingSocketCreate, TheBacklogIsFour) {
  SKIP_WHERE_EMULATED("getsockopt(TCP_INFO)");
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  tcp_info info = {};
  socklen_t length = sizeof info;
  ASSERT_EQ(getsockopt(listener.s, IPPROTO_TCP, TCP_INFO, &info, &length), 0);
  EXPECT_EQ(info.tcpi_sacked, 4U) << "of a listener, this is the length of its queue";
}

TEST_F(BlockingSocketCreate, ThePortThatIsAskedForIsTaken) {
  UWORD port = 0;
  {
    const Descriptor held = bound_socket(SOCK_STREAM);
    port = local_port_of(held.get());
    Socket socket(Socket::TCP_CLIENT, port, false, kLoopback);  // both reuse addresses, neither listens
    EXPECT_EQ(socket.state, Socket::READY);
    EXPECT_EQ(socket.LocalPort(), port);
    EXPECT_EQ(ntohs(socket.local_sin.sin_port), port);
  }
}

TEST_F(BlockingSocketCreate, WithoutAnAddressTheDefaultOneIsBoundTo) {
  EXPECT_EQ(Socket::Init(0x7F000009), TRUE);
  EXPECT_EQ(Socket::local_ipaddr, 0x7F000009U);
  EXPECT_EQ(Socket::Init(0), TRUE) << "no address leaves the default as it is";
  EXPECT_EQ(Socket::local_ipaddr, 0x7F000009U);
  Socket by_default(Socket::UDP, 0, false, 0);
  Socket by_name(Socket::UDP, 0, false, kLoopback);
  EXPECT_EQ(by_default.LocalIP_h(), 0x7F000009U);
  EXPECT_EQ(by_name.LocalIP_h(), kLoopback);
  EXPECT_EQ(Socket::local_ipaddr, 0x7F000009U);
  Socket::local_ipaddr = 0;
  Socket anywhere(Socket::UDP, 0, false, 0);
  EXPECT_EQ(name_of(anywhere.s).sin_addr.s_addr, INADDR_ANY);
  EXPECT_EQ(anywhere.state, Socket::READY);
}

TEST_F(BlockingSocketCreate, TheDefaultAddressIsNotTheAsynchronousSockets) {
  AsyncSocket::local_ipaddr = 0x7F000003;
  Socket socket(Socket::UDP, 0, false, 0);
  EXPECT_EQ(name_of(socket.s).sin_addr.s_addr, INADDR_ANY);
  Socket::Init(0x7F000004);
  EXPECT_EQ(AsyncSocket::local_ipaddr, 0x7F000003U);
}

TEST_F(BlockingSocketCreate, EverySocketStandsOnTheRegistryUntilItGoes) {
  EXPECT_THAT(registered_sockets(), IsEmpty());
  auto first = std::make_unique<Socket>(Socket::UDP, UWORD{0}, false, kLoopback);
  auto second = std::make_unique<Socket>(Socket::TCP_SERVER, UWORD{0}, true, kLoopback);
  PeerStream peer = PeerStream::connect_to(second->LocalPort());
  std::unique_ptr<Socket> third(second->Accept());
  std::string host = "127.0.0.1";
  auto fourth = std::make_unique<Socket>(Socket::TCP_CLIENT, host.data(), second->LocalPort());
  EXPECT_THAT(registered_sockets(), ElementsAre(first.get(), second.get(), third.get(), fourth.get()));
  second->Close();
  EXPECT_EQ(registered_sockets().size(), 4U) << "a closed socket is still there";
  peer.close();
  second.reset();
  EXPECT_THAT(registered_sockets(), ElementsAre(first.get(), third.get(), fourth.get()));
  first.reset();
  third.reset();
  fourth.reset();
  EXPECT_THAT(registered_sockets(), IsEmpty());
}

TEST_F(BlockingSocketCreate, ASocketWithoutDescriptorIsReportedAndStaysRegistered) {
  for (const Kind& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    blocking_calls.socket.replace([](auto, int, int, int) {
      errno = EMFILE;
      return -1;
    });
    Socket socket(kind.type, 0, true, kLoopback);
    blocking_calls.socket.restore();
    EXPECT_EQ(socket.s, -1);
    EXPECT_EQ(socket.state, Socket::INVALID);
    EXPECT_EQ(socket.type, kind.type);
    EXPECT_THAT(registered_sockets(), ElementsAre(&socket));
    EXPECT_THAT(said(), ElementsAre(line("Socket: socket() error %d", EMFILE)));
  }
}

TEST_F(BlockingSocketCreate, APortThatIsTakenIsReportedAndTheDescriptorClosed) {
  const PeerListener listener;
  const int before = open_descriptors();
  Socket socket(Socket::TCP_SERVER, listener.port(), true, kLoopback);
  EXPECT_EQ(socket.s, -1);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_THAT(registered_sockets(), ElementsAre(&socket));
  EXPECT_THAT(said(), ElementsAre(line("Socket: bind() error %d for port %d", EADDRINUSE, listener.port())));
}

TEST_F(BlockingSocketCreate, AnAddressOfSomebodyElseCannotBeBoundTo) {
  Socket socket(Socket::UDP, 0, false, 0xC0000201);  // 192.0.2.1, for documents
  EXPECT_EQ(socket.s, -1);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket: bind() error %d for port %d", EADDRNOTAVAIL, 0)));
}

TEST_F(BlockingSocketCreate, AHighPortIsPrintedWhole) {
  blocking_calls.bind.replace([](auto, int, const sockaddr*, socklen_t) {
    errno = EACCES;
    return -1;
  });
  const Socket socket(Socket::TCP_SERVER, 65535, true, kLoopback);
  EXPECT_THAT(said(), ElementsAre(line("Socket: bind() error %d for port 65535", EACCES)));
}

TEST_F(BlockingSocketCreate, ANameThatTheSystemDoesNotTellIsReportedAndTheSocketIsGood) {
  for (const bool listen : {false, true}) {
    calls().getsockname.replace([](auto, int, sockaddr*, socklen_t*) {
      errno = ENOBUFS;
      return -1;
    });
    Socket socket(Socket::TCP_SERVER, 0, listen, kLoopback);
    calls().getsockname.restore();
    EXPECT_GE(socket.s, 0);
    EXPECT_EQ(socket.state, Socket::READY);
    EXPECT_THAT(said(), ElementsAre(line("Socket: getsockname() error %d", ENOBUFS)));
  }
}

TEST_F(BlockingSocketCreate, AListenThatFailsIsReportedAndTheDescriptorClosed) {
  const int before = open_descriptors();
  blocking_calls.listen.replace([](auto, int, int) {
    errno = EADDRINUSE;
    return -1;
  });
  Socket socket(Socket::TCP_SERVER, 0, true, kLoopback);
  EXPECT_EQ(socket.s, -1);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_THAT(said(), ElementsAre(line("Socket: listen() error %d", EADDRINUSE)));
}

TEST_F(BlockingSocketCreate, ADatagramSocketCannotListen) {
  Socket socket(Socket::UDP, 0, true, kLoopback);
  EXPECT_EQ(socket.s, -1);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket: listen() error %d", EOPNOTSUPP)));
}

TEST_F(BlockingSocketCreate, WithoutAConsoleFailuresAreSilent) {
  Console = nullptr;
  {
    const PeerListener listener;
    Socket taken_port(Socket::TCP_SERVER, listener.port(), true, kLoopback);
    EXPECT_EQ(taken_port.s, -1);
    std::string refused = "127.0.0.1", nobody;
    const RefusingPort port;
    Socket client(Socket::TCP_CLIENT, refused.data(), port.port());
    EXPECT_EQ(client.s, -1);
    Socket nowhere(Socket::TCP_CLIENT, nobody.data(), 1);
    EXPECT_EQ(nowhere.s, -1);
    EXPECT_EQ(nowhere.RecWait(0), nullptr);
    nowhere.FlushQueue(true);
  }
  Console = &console;
}

// ---- A descriptor that is there already ------------------------------------------------------------------------

TEST_F(BlockingSocketCreate, AWrappedDescriptorIsConnectedToTheGivenPeer) {
  WirePair wire;
  sockaddr_in remote = loopback_address(wire.peer.local_port());
  Socket socket(Socket::TCP_CLIENT, wire.fd, &remote, static_cast<int>(sizeof remote));
  EXPECT_EQ(socket.s, wire.fd);
  EXPECT_EQ(socket.type, Socket::TCP_CLIENT);
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_EQ(socket.RemotePort(), wire.peer.local_port());
  EXPECT_EQ(socket.RemoteIP_h(), kLoopback);
  EXPECT_EQ(socket.RemoteIP_n(), htonl(kLoopback));
  EXPECT_STREQ(socket.RemoteIPText(), "127.0.0.1");
  EXPECT_EQ(socket.RemoteHostname(), nullptr);
  EXPECT_EQ(socket.LocalIP_h(), kLoopback) << "asked from the system, if it was not yet";
  EXPECT_EQ(socket.LocalPort(), local_port_of(wire.fd));
  EXPECT_THAT(registered_sockets(), ElementsAre(&socket));
  EXPECT_THAT(said(), IsEmpty());
  wire.peer.close();
}

TEST_F(BlockingSocketCreate, ALongerAddressThanASocketHasIsCut) {
  WirePair wire;
  struct {
    sockaddr_in remote;
    unsigned char behind[64];
  } given = {};
  given.remote = loopback_address(4711);
  std::fill(std::begin(given.behind), std::end(given.behind), static_cast<unsigned char>(0xEE));
  Socket socket(Socket::TCP_SERVER, wire.fd, &given.remote, static_cast<int>(sizeof given));
  EXPECT_EQ(socket.RemotePort(), 4711);
  EXPECT_EQ(socket.s, wire.fd) << "the field behind the address";
  wire.peer.close();
}

TEST_F(BlockingSocketCreate, TheAddressIsAskedWhenItIsNotThere) {
  WirePair wire;
  sockaddr_in remote = loopback_address(wire.peer.local_port());
  Socket socket(Socket::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  socket.local_sin = {};
  calls().getsockname.replace([](auto, int, sockaddr*, socklen_t*) {
    errno = EIO;
    return -1;
  });
  EXPECT_EQ(socket.LocalIP_n(), 0U);
  EXPECT_THAT(said(), ElementsAre(line("Socket::LocalIP_n: getsockname() error %d", EIO)));
  EXPECT_EQ(socket.LocalIP_h(), 0U);
  EXPECT_THAT(said(), ElementsAre(line("Socket::LocalIP_n: getsockname() error %d", EIO)));
  int asked = 0;
  calls().getsockname.replace([&asked](auto real, int fd, sockaddr* name, socklen_t* length) {
    ++asked;
    return real(fd, name, length);
  });
  EXPECT_EQ(socket.LocalIP_n(), htonl(kLoopback));
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(socket.LocalIP_h(), kLoopback);
  EXPECT_EQ(asked, 1) << "once it is known, nobody is asked";
  EXPECT_THAT(said(), IsEmpty());
  wire.peer.close();
}

TEST_F(BlockingSocketCreate, APortThatTheSystemDoesNotTellIsZeroWithoutALine) {
  WirePair wire;
  sockaddr_in remote = loopback_address(wire.peer.local_port());
  Socket socket(Socket::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  socket.local_sin = {};
  calls().getsockname.replace([](auto, int, sockaddr*, socklen_t*) {
    errno = EIO;
    return -1;
  });
  EXPECT_EQ(socket.LocalPort(), 0);
  EXPECT_THAT(said(), IsEmpty());
  calls().getsockname.restore();
  const UWORD port = socket.LocalPort();
  EXPECT_EQ(port, local_port_of(wire.fd)) << "asked again";
  calls().getsockname.replace([](auto, int, sockaddr*, socklen_t*) {
    ADD_FAILURE() << "once it is known, nobody is asked";
    return -1;
  });
  EXPECT_EQ(socket.LocalPort(), port);
  wire.peer.close();
}

TEST_F(BlockingSocketCreate, AnAddressPrintsAsItsFourNumbers) {
  WirePair wire;
  sockaddr_in remote = loopback_address(7, "203.0.113.254");
  Socket socket(Socket::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  EXPECT_STREQ(socket.RemoteIPText(), "203.0.113.254");
  EXPECT_EQ(socket.RemoteIP_h(), 0xCB0071FEU);
  EXPECT_EQ(socket.RemotePort(), 7);
  wire.peer.close();
}

// ---- Accept ----------------------------------------------------------------------------------------------------

TEST_F(BlockingSocketCreate, AcceptWrapsTheNextConnection) {
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  PeerStream first = PeerStream::connect_to(listener.LocalPort());
  PeerStream second = PeerStream::connect_to(listener.LocalPort());
  for (PeerStream* peer : {&first, &second}) {
    const std::unique_ptr<Socket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->type, Socket::TCP_SERVER);
    EXPECT_EQ(accepted->state, Socket::CONNECTED);
    EXPECT_EQ(accepted->RemotePort(), peer->local_port());
    EXPECT_EQ(accepted->RemoteIP_h(), kLoopback);
    EXPECT_EQ(accepted->LocalPort(), listener.LocalPort());
    EXPECT_FALSE(is_nonblocking(accepted->s));
    peer->send_all("hi");
    EXPECT_EQ(taken(accepted->RecWait(kPatienceMs)), "hi");
    peer->close();
  }
  EXPECT_EQ(listener.state, Socket::READY);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketCreate, AcceptWaitsForAConnection) {
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  std::unique_ptr<Socket> accepted;
  WatchedThread waiting([&] { accepted.reset(listener.Accept()); });
  EXPECT_TRUE(waiting.blocked());
  PeerStream peer = PeerStream::connect_to(local_port_of(listener.s));
  ASSERT_TRUE(waiting.finished_within(kPatienceMs));
  ASSERT_NE(accepted, nullptr);
  EXPECT_EQ(accepted->RemotePort(), peer.local_port());
  peer.close();
}

TEST_F(BlockingSocketCreate, AnAcceptThatFailsIsReported) {
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  replace_accept([](int) { return ECONNABORTED; });
  EXPECT_EQ(listener.Accept(), nullptr);
  EXPECT_THAT(said(), ElementsAre(line("Socket::Accept: accept() %d", ECONNABORTED)));
  calls().restore_all();
  EXPECT_EQ(listener.state, Socket::READY);
  Socket bound(Socket::TCP_SERVER, 0, false, kLoopback);
  EXPECT_EQ(bound.Accept(), nullptr) << "it does not listen";
  EXPECT_THAT(said(), ElementsAre(line("Socket::Accept: accept() %d", EINVAL)));
  listener.Close();
  EXPECT_EQ(listener.Accept(), nullptr);
  EXPECT_THAT(said(), ElementsAre(line("Socket::Accept: accept() %d", EBADF)));
}

}  // namespace
}  // namespace oskernel_test
