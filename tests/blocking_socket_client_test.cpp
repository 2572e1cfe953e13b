// Blocking sockets that connect: by the constructor, to an address or a name, and by Connect.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"
#include "support/fake_resolver.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class BlockingSocketClient : public BlockingTest {
 protected:
  void SetUp() override {
    FakeResolver::reset();
    BlockingTest::SetUp();
  }
  void TearDown() override {
    FakeResolver::release();
    blocking_calls.socket.restore();
    blocking_calls.bind.restore();
    blocking_calls.system.restore();
    calls().restore_all();
    BlockingTest::TearDown();
  }

  static std::unique_ptr<Socket> client(std::string host, UWORD port,
                                        Socket::Type type = Socket::TCP_CLIENT) {
    return std::make_unique<Socket>(type, host.data(), port);
  }
  static std::string connect_line(int error, UWORD port, const Socket& socket) {
    return line("Socket::Socket() connect() error %d to %08x:%u from %08x:%u", error, kLoopback, port,
                ntohl(socket.local_sin.sin_addr.s_addr), ntohs(socket.local_sin.sin_port));
  }
  void expect_no_host(const std::string& host) {
    SCOPED_TRACE(host);
    const int before = open_descriptors();
    const auto socket = client(host, 7);
    EXPECT_EQ(socket->s, -1);
    EXPECT_EQ(socket->state, Socket::INVALID);
    EXPECT_EQ(socket->RemoteHostname(), nullptr);
    EXPECT_EQ(socket->phostent, nullptr);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_THAT(registered_sockets(), ElementsAre(socket.get()));
    EXPECT_THAT(said(), ElementsAre("Socket: couldn't resolve host " + host));
  }
};

TEST_F(BlockingSocketClient, AnAddressIsConnectedTo) {
  PeerListener listener;
  const auto socket = client("127.0.0.1", listener.port());
  ASSERT_EQ(socket->state, Socket::CONNECTED);
  EXPECT_EQ(socket->type, Socket::TCP_CLIENT);
  PeerStream peer = listener.accept();
  EXPECT_EQ(socket->RemoteIP_h(), kLoopback);
  EXPECT_EQ(socket->RemotePort(), listener.port());
  EXPECT_EQ(socket->RemoteHostname(), nullptr);
  EXPECT_EQ(socket->phostent, nullptr);
  EXPECT_EQ(socket->LocalPort(), local_port_of(socket->s));
  EXPECT_EQ(ntohs(socket->local_sin.sin_port), local_port_of(socket->s));
  EXPECT_EQ(ntohl(socket->local_sin.sin_addr.s_addr), kLoopback) << "refreshed behind the connection";
  EXPECT_FALSE(is_nonblocking(socket->s));
  timeval limit = {};
  socklen_t length = sizeof limit;
  getsockopt(socket->s, SOL_SOCKET, SO_SNDTIMEO, &limit, &length);
  EXPECT_EQ(limit.tv_sec, 5);
  int reuse = 0;
  length = sizeof reuse;
  getsockopt(socket->s, SOL_SOCKET, SO_REUSEADDR, &reuse, &length);
  EXPECT_EQ(reuse, 1);
  EXPECT_THAT(FakeResolver::calls(), IsEmpty());
  EXPECT_THAT(said(), IsEmpty());
  peer.close();
}

TEST_F(BlockingSocketClient, TheProtocolIsLeftToTheSystem) {
  for (const Socket::Type type : {Socket::UDP, Socket::TCP_CLIENT, Socket::TCP_SERVER}) {
    PeerListener listener;
    std::vector<int> made;
    blocking_calls.socket.replace([&made](auto real, int family, int kind, int protocol) {
      made = {family, kind & ~(SOCK_CLOEXEC | SOCK_NONBLOCK), protocol};
      return real(family, kind, protocol);
    });
    const auto socket = client("127.0.0.1", listener.port(), type);
    blocking_calls.socket.restore();
    EXPECT_THAT(made, ElementsAre(AF_INET, type == Socket::UDP ? SOCK_DGRAM : SOCK_STREAM, 0));
    PeerStream peer;
    if (type == Socket::TCP_CLIENT) peer = listener.accept();
  }
}

TEST_F(BlockingSocketClient, TheDefaultAddressIsWhereItComesFrom) {
  PeerListener listener;
  Socket::Init(0x7F000005);
  const auto socket = client("127.0.0.1", listener.port());
  PeerStream peer = listener.accept();
  ASSERT_EQ(socket->state, Socket::CONNECTED);
  EXPECT_EQ(socket->LocalIP_h(), 0x7F000005U);
  peer.close();
}

TEST_F(BlockingSocketClient, ANameIsLookedUpAndItsEntryKept) {
  FakeResolver::know("gate.works", {kLoopback, 0x0A000001});
  PeerListener listener;
  const auto socket = client("gate.works", listener.port());
  PeerStream peer = listener.accept();
  ASSERT_EQ(socket->state, Socket::CONNECTED);
  EXPECT_THAT(FakeResolver::calls(), ElementsAre("gate.works"));
  EXPECT_EQ(socket->RemoteIP_h(), kLoopback) << "the first address";
  EXPECT_STREQ(socket->RemoteHostname(), "gate.works");
  ASSERT_NE(socket->phostent, nullptr);
  EXPECT_STREQ(socket->phostent->h_name, "gate.works");
  EXPECT_EQ(socket->rmthostent.h_addrtype, AF_INET);
  EXPECT_EQ(socket->rmthostent.h_length, 4);
  ASSERT_NE(socket->rmthostent.h_aliases, nullptr);
  EXPECT_EQ(socket->rmthostent.h_aliases[0], nullptr);
  EXPECT_THAT(addresses_of(socket->rmthostent), ElementsAre(kLoopback, 0x0A000001U));
  peer.close();
}

TEST_F(BlockingSocketClient, TheEntryIsTheSocketsOwn) {
  // The resolver's answer stands in storage that the next call overwrites.
  FakeResolver::know("first.works", kLoopback);
  FakeResolver::know("other.works.and.a.longer.name", {0x0A000002, 0x0A000003, 0x0A000004});
  PeerListener listener;
  const auto first = client("first.works", listener.port());
  PeerStream peer = listener.accept();
  const auto other = client("other.works.and.a.longer.name", 7, Socket::UDP);
  EXPECT_STREQ(first->RemoteHostname(), "first.works");
  EXPECT_STREQ(first->phostent->h_name, "first.works");
  EXPECT_THAT(addresses_of(first->rmthostent), ElementsAre(kLoopback));
  EXPECT_STREQ(other->RemoteHostname(), "other.works.and.a.longer.name");
  EXPECT_THAT(addresses_of(other->rmthostent), ElementsAre(0x0A000002U, 0x0A000003U, 0x0A000004U));
  peer.close();
}

TEST_F(BlockingSocketClient, ATextThatBeginsWithADigitIsNeverLookedUp) {
  const char* const kHosts[] = {"3com.example", "1.2.3.4.5", "300.1.1.1", "127.0.0.1x", "0", "0.0.0.0"};
  for (const char* host : kHosts) {
    FakeResolver::know(host, kLoopback);
    expect_no_host(host);
  }
  EXPECT_THAT(FakeResolver::calls(), IsEmpty());
}

TEST_F(BlockingSocketClient, NumbersInOtherFormsAreAddresses) {
  PeerListener listener;
  for (const char* host : {"0x7f000001", "2130706433", "127.1", "0177.0.0.1"}) {
    const auto socket = client(host, listener.port());
    PeerStream peer = listener.accept();
    EXPECT_EQ(socket->state, Socket::CONNECTED) << host;
    EXPECT_EQ(socket->RemoteIP_h(), kLoopback) << host;
    peer.close();
  }
}

TEST_F(BlockingSocketClient, AnEmptyTextIsNoHostAndIsNotLookedUp) {
  expect_no_host("");
  EXPECT_THAT(FakeResolver::calls(), IsEmpty());
}

TEST_F(BlockingSocketClient, ANameThatNobodyKnowsIsReported) {
  expect_no_host("nobody.works");
  EXPECT_THAT(FakeResolver::calls(), ElementsAre("nobody.works"));
}

TEST_F(BlockingSocketClient, AnAnswerWithoutAnAddressOfThisKindResolvesNothing) {
  const struct {
    const char* name;
    std::function<void(const std::string&)> teach;
  } kRows[] = {
      {"empty.works", [](const std::string& name) { FakeResolver::know(name, std::vector<ULONG>{}); }},
      {"none.works", [](const std::string& name) { FakeResolver::know_without_list(name); }},
      {"six.works", [](const std::string& name) { FakeResolver::know_as_ipv6(name); }},
      {"zero.works", [](const std::string& name) { FakeResolver::know(name, ULONG{0}); }},
  };
  for (const auto& row : kRows) {
    row.teach(row.name);
    SCOPED_TRACE(row.name);
    const auto socket = client(row.name, 7);
    EXPECT_EQ(socket->s, -1);
    EXPECT_EQ(socket->state, Socket::INVALID);
    EXPECT_THAT(said(), ElementsAre(std::string("Socket: couldn't resolve host ") + row.name));
  }
}

TEST_F(BlockingSocketClient, ALongNameIsHandedOnWhole) {
  const std::string name(1000, 'n');
  expect_no_host(name);
  EXPECT_THAT(FakeResolver::calls(), ElementsAre(name));
}

TEST_F(BlockingSocketClient, LookUpsOfTheProcessComeOneAfterTheOther) {
  for (int i = 0; i < 8; ++i)
    FakeResolver::know("host" + std::to_string(i), kLoopback + static_cast<ULONG>(i));
  std::vector<std::thread> threads;
  std::atomic<int> right{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([i, &right] {
      for (int round = 0; round < 10; ++round) {
        const auto socket = client("host" + std::to_string(i), 7, Socket::UDP);
        if (socket->RemoteHostname() != nullptr && socket->RemoteHostname() == "host" + std::to_string(i) &&
            socket->RemoteIP_h() == kLoopback + static_cast<ULONG>(i)) {
          ++right;
        }
      }
    });
  }
  // The name cache asks the same resolver.
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 80);
  EXPECT_EQ(FakeResolver::most_at_once(), 1);
}

TEST_F(BlockingSocketClient, ALookUpWaitsForOneOfTheNameCache) {
  FakeResolver::know("cached.works", kLoopback);
  FakeResolver::know("direct.works", kLoopback);
  FakeResolver::hold();
  RecordingLayer layer;
  OwnedSocket cached = indirect_socket();
  cached->Bind(&layer);
  EXPECT_EQ(cached->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  cached->Connect("cached.works", 7);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  std::unique_ptr<Socket> direct;
  {
    WatchedThread looking([&] { direct = client("direct.works", 7, Socket::UDP); });
    EXPECT_TRUE(looking.blocked());
    EXPECT_EQ(FakeResolver::calls().size(), 1U) << "the system's answer stands in one place for all";
    FakeResolver::release();
    EXPECT_TRUE(looking.finished_within(kPatienceMs));
  }
  EXPECT_EQ(FakeResolver::most_at_once(), 1);
  EXPECT_STREQ(direct->RemoteHostname(), "direct.works");
}

TEST_F(BlockingSocketClient, OnlyAClientConnects) {
  PeerListener listener;
  FakeResolver::know("gate.works", kLoopback);
  for (const Socket::Type type : {Socket::UDP, Socket::TCP_SERVER}) {
    for (const char* host : {"127.0.0.1", "gate.works"}) {
      const auto socket = client(host, listener.port(), type);
      EXPECT_GE(socket->s, 0);
      EXPECT_EQ(socket->state, Socket::INVALID) << "its peer is known, and that is all";
      EXPECT_EQ(socket->RemoteIP_h(), kLoopback);
    }
  }
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_FALSE(wait_readable(listener.fd(), 0)) << "nobody has connected";
}

TEST_F(BlockingSocketClient, ARefusedConnectionIsReportedWithBothAddresses) {
  const RefusingPort port;
  const int before = open_descriptors();
  const auto socket = client("127.0.0.1", port.port());
  EXPECT_EQ(socket->s, -1);
  EXPECT_EQ(socket->state, Socket::INVALID);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_NE(socket->local_sin.sin_port, 0) << "refreshed before the report";
  EXPECT_THAT(said(), ElementsAre(connect_line(ECONNREFUSED, port.port(), *socket)));
  EXPECT_THAT(registered_sockets(), ElementsAre(socket.get()));
}

TEST_F(BlockingSocketClient, APeerThatDoesNotAnswerIsGivenUpAfterTwoSeconds) {
  FullPort port;
  const auto begin = std::chrono::steady_clock::now();
  const auto socket = client("127.0.0.1", port.port());
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, std::chrono::milliseconds(1990));
  EXPECT_LT(took, std::chrono::seconds(20));
  EXPECT_EQ(socket->s, -1);
  EXPECT_EQ(socket->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(connect_line(ETIMEDOUT, port.port(), *socket)));
  port.refuse();
}

/// What the connecting constructor does with its descriptor, in order.
class ConnectCalls {
 public:
  /// `answers` are those of connect(2), one after the other: 0, or an errno value; -1 lets the system answer.
  explicit ConnectCalls(std::vector<int> answers, int wait_answer = -1)
      : answers_(std::move(answers)), wait_answer_(wait_answer) {
    calls().connect.replace([this](auto real, int fd, const sockaddr* to, socklen_t length) -> int {
      story.push_back("connect");
      const std::size_t number = connects_++;
      const int answer = number < answers_.size() ? answers_[number] : -1;
      if (answer < 0) return real(fd, to, length);
      errno = answer;
      return answer == 0 ? 0 : -1;
    });
    blocking_calls.system.replace(
        [this](auto real, long number, long fd, long request, long argument, long d, long e, long f) -> long {
          if (number == SYS_ioctl && request == FIONBIO) {
            story.push_back(line("FIONBIO %d", *reinterpret_cast<int*>(argument)));
          }
          return real(number, fd, request, argument, d, e, f);
        });
    calls().select.replace([this](auto real, int count, fd_set* reads, fd_set* writes, fd_set* excepts,
                                  timeval* timeout) -> int {
      story.push_back(line("wait %ld", static_cast<long>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000)));
      return wait_answer_ < 0 ? real(count, reads, writes, excepts, timeout) : wait_answer_;
    });
    calls().poll.replace([this](auto real, pollfd* fds, nfds_t count, int timeout_ms) -> int {
      story.push_back(line("wait %d", timeout_ms));
      return wait_answer_ < 0 ? real(fds, count, timeout_ms) : wait_answer_;
    });
  }
  ~ConnectCalls() {
    calls().restore_all();
    blocking_calls.system.restore();
  }

  std::vector<std::string> story;

 private:
  const std::vector<int> answers_;
  const int wait_answer_;
  std::size_t connects_ = 0;
};

TEST_F(BlockingSocketClient, TheOutcomeIsAskedForWithASecondConnect) {
  PeerListener listener;
  {
    ConnectCalls watched({});
    const auto socket = client("127.0.0.1", listener.port());
    EXPECT_EQ(socket->state, Socket::CONNECTED);
    EXPECT_THAT(watched.story, ElementsAre("FIONBIO 1", "connect", "wait 2000", "connect", "FIONBIO 0"));
  }
}

TEST_F(BlockingSocketClient, SilenceForTwoSecondsIsATimeOut) {
  PeerListener listener;
  ConnectCalls watched({}, 0);
  const auto socket = client("127.0.0.1", listener.port());
  EXPECT_EQ(socket->s, -1);
  EXPECT_THAT(watched.story, ElementsAre("FIONBIO 1", "connect", "wait 2000", "FIONBIO 0"));
  EXPECT_THAT(said(), ElementsAre(connect_line(ETIMEDOUT, listener.port(), *socket)));
}

TEST_F(BlockingSocketClient, BeingConnectedAlreadyIsNoFailure) {
  PeerListener listener;
  for (const int outcome : {EISCONN, 0}) {
    ConnectCalls watched({-1, outcome});
    const auto socket = client("127.0.0.1", listener.port());
    EXPECT_EQ(socket->state, Socket::CONNECTED);
    EXPECT_THAT(said(), IsEmpty());
  }
}

TEST_F(BlockingSocketClient, EveryOtherOutcomeOfTheSecondConnectIsReported) {
  PeerListener listener;
  for (const int outcome : {ECONNREFUSED, ENETUNREACH, EALREADY, EINPROGRESS}) {
    std::unique_ptr<Socket> socket;
    {
      ConnectCalls watched({-1, outcome});
      socket = client("127.0.0.1", listener.port());
    }
    EXPECT_EQ(socket->s, -1);
    EXPECT_EQ(socket->state, Socket::INVALID);
    EXPECT_THAT(said(), ElementsAre(connect_line(outcome, listener.port(), *socket)));
  }
}

TEST_F(BlockingSocketClient, ANameThatTheSystemDoesNotTellIsReported) {
  PeerListener listener;
  const RefusingPort refusing;
  const UWORD port = listener.port(), refusing_port = refusing.port();
  calls().getsockname.replace([](auto, int, sockaddr*, socklen_t*) {
    errno = ENOBUFS;
    return -1;
  });
  const auto socket = client("127.0.0.1", port);
  EXPECT_EQ(socket->state, Socket::CONNECTED) << "the connection is good";
  EXPECT_THAT(said(), ElementsAre(line("Socket: getsockname() error %d", ENOBUFS)));
  const auto refused = client("127.0.0.1", refusing_port);
  EXPECT_EQ(refused->s, -1);
  const Lines lines = said();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], line("Socket: getsockname() error %d", ENOBUFS));
  EXPECT_THAT(lines[1], StartsWith(line("Socket::Socket() connect() error %d to %08x:%u from ", ECONNREFUSED,
                                        kLoopback, refusing_port)))
      << "the error of the connection, not that of the name";
}

TEST_F(BlockingSocketClient, FailuresBeforeTheLookUpAreReported) {
  blocking_calls.socket.replace([](auto, int, int, int) {
    errno = ENFILE;
    return -1;
  });
  EXPECT_EQ(client("127.0.0.1", 7)->s, -1);
  blocking_calls.socket.restore();
  EXPECT_THAT(said(), ElementsAre(line("Socket: socket() error %d", ENFILE)));
  const int before = open_descriptors();
  Socket::Init(0xC0000201);
  const auto socket = client("gate.works", 7);
  EXPECT_EQ(socket->s, -1);
  EXPECT_EQ(socket->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket: bind() error %d for %08x", EADDRNOTAVAIL, 0xC0000201U)));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_THAT(FakeResolver::calls(), IsEmpty());
}

// ---- Connect ---------------------------------------------------------------------------------------------------

TEST_F(BlockingSocketClient, ConnectReachesAnAddress) {
  PeerListener listener;
  Socket socket(Socket::TCP_CLIENT, 0, false, 0);
  EXPECT_EQ(socket.state, Socket::READY);
  socket.Connect(kLoopback, listener.port());
  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.is_open());
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_EQ(socket.RemoteIP_h(), kLoopback);
  EXPECT_EQ(socket.RemotePort(), listener.port());
  EXPECT_EQ(socket.remote_sin.sin_family, AF_INET);
  EXPECT_EQ(ntohl(socket.local_sin.sin_addr.s_addr), kLoopback) << "the address is known now";
  EXPECT_EQ(ntohs(socket.local_sin.sin_port), local_port_of(socket.s));
  EXPECT_THAT(said(), IsEmpty());
  socket.DataIndication(buffer_of("ping"));
  EXPECT_EQ(peer.receive(4), "ping");
  peer.close();
}

TEST_F(BlockingSocketClient, ConnectBlocks) {
  PeerListener listener;
  Socket socket(Socket::TCP_CLIENT, 0, false, 0);
  ConnectCalls watched({});
  socket.Connect(kLoopback, listener.port());
  EXPECT_THAT(watched.story, ElementsAre("connect"));
  EXPECT_FALSE(is_nonblocking(socket.s));
}

TEST_F(BlockingSocketClient, ConnectWaitsLongerThanTheSendTimeOut) {
  FullPort port;
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  const timeval short_time = {0, 20000};  // of five seconds, which end a connect(2) as well
  setsockopt(socket.s, SOL_SOCKET, SO_SNDTIMEO, &short_time, sizeof short_time);
  const int fd = socket.s;
  std::atomic<int> connects{0};
  calls().connect.replace([&connects, fd](auto real, int s, const sockaddr* to, socklen_t length) {
    const int result = real(s, to, length);
    const int error = errno;
    if (s == fd) ++connects;
    errno = error;
    return result;
  });
  WatchedThread connecting([&] { socket.Connect(kLoopback, port.port()); });
  ASSERT_TRUE(wait_until([&] { return connects >= 1; }, kPatienceMs)) << "the first connect(2) has given up";
  EXPECT_FALSE(connecting.finished());
  port.admit();
  ASSERT_TRUE(connecting.finished_within(kPatienceMs));
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  PeerStream peer = port.accept_from(socket.LocalPort());
  peer.close();
}

TEST_F(BlockingSocketClient, AConnectThatFailsLeavesTheStateAsItWas) {
  const RefusingPort port;
  Socket socket(Socket::TCP_CLIENT, 0, false, 0);
  const int fd = socket.s;
  socket.Connect(kLoopback, port.port());
  EXPECT_EQ(socket.state, Socket::READY);
  EXPECT_EQ(socket.s, fd);
  EXPECT_EQ(socket.RemotePort(), port.port());
  EXPECT_THAT(said(),
              ElementsAre(line("Socket::Connect(addr,port) connect() error %d to %08x:%u from %08x:%u",
                               ECONNREFUSED, kLoopback, port.port(), ntohl(socket.local_sin.sin_addr.s_addr),
                               ntohs(socket.local_sin.sin_port))));
  EXPECT_NE(socket.local_sin.sin_port, 0);
}

TEST_F(BlockingSocketClient, AConnectWhoseNameIsNotToldSaysSo) {
  PeerListener listener;
  const RefusingPort refusing;
  const UWORD port = listener.port(), refusing_port = refusing.port();
  Socket socket(Socket::TCP_CLIENT, 0, false, 0);
  Socket refused(Socket::TCP_CLIENT, 0, false, 0);
  calls().getsockname.replace([](auto, int, sockaddr*, socklen_t*) {
    errno = ENOBUFS;
    return -1;
  });
  socket.Connect(kLoopback, port);
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_THAT(said(), ElementsAre(line("Socket::Connect: getsockname() error %d", ENOBUFS)));
  refused.Connect(kLoopback, refusing_port);
  EXPECT_EQ(refused.state, Socket::READY);
  const Lines lines = said();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], line("Socket: getsockname() error %d", ENOBUFS));
  EXPECT_THAT(lines[1], StartsWith(line("Socket::Connect(addr,port) connect() error %d to %08x:%u from ",
                                        ECONNREFUSED, kLoopback, refusing_port)))
      << "the error of the connection, kept";
}

TEST_F(BlockingSocketClient, AConnectedSocketStaysSoWhenItConnectsAgain) {
  PeerListener listener;
  const auto socket = client("127.0.0.1", listener.port());
  PeerStream peer = listener.accept();
  socket->Connect(kLoopback, listener.port());
  EXPECT_EQ(socket->state, Socket::CONNECTED);
  const Lines lines = said();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0], StartsWith(line("Socket::Connect(addr,port) connect() error %d to ", EISCONN)));
  peer.close();
}

TEST_F(BlockingSocketClient, ADatagramSocketConnectsToItsPeer) {
  PeerUdp peer;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  socket.Connect(kLoopback, peer.port());
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  socket.DataIndication(buffer_of("datagram"));
  EXPECT_EQ(peer.receive_text(), "datagram");
}

TEST_F(BlockingSocketClient, ConnectOfAClosedSocketIsReported) {
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  socket.Close();
  socket.Connect(kLoopback, 7);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_EQ(socket.s, -1);
  const Lines lines = said();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], line("Socket: getsockname() error %d", EBADF));
  EXPECT_THAT(lines[1], StartsWith(line("Socket::Connect(addr,port) connect() error %d to %08x:%u from ",
                                        EBADF, kLoopback, 7)));
}

TEST_F(BlockingSocketClient, ConnectAckDoesNothing) {
  Wrapped<> wrapped;
  wrapped->ConnectAck();
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_FALSE(wrapped->Secure());
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

}  // namespace
}  // namespace oskernel_test
