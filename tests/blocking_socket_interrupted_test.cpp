// Connecting blocking sockets whose wait is interrupted, and addresses that are not there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "support/blocking_fixture.h"
#include "support/interposed_calls.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class BlockingSocketInterrupted : public BlockingTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    BlockingTest::TearDown();
  }
};

TEST_F(BlockingSocketInterrupted, ASignalDoesNotEndTheWaitForAConnection) {
  PeerListener listener;
  int waits = 0;
  calls().poll.replace([&waits](auto real, pollfd* fds, nfds_t count, int timeout_ms) -> int {
    if (++waits > 2) return real(fds, count, timeout_ms);
    errno = EINTR;
    return -1;
  });
  char host[] = "127.0.0.1";
  Socket socket(Socket::TCP_CLIENT, host, listener.port());
  EXPECT_EQ(waits, 3);
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketInterrupted, AConnectThatWentOnInTheBackgroundMayBeThereAlready) {
  PeerListener listener;
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  int connects = 0;
  calls().connect.replace([&connects](auto real, int fd, const sockaddr* to, socklen_t length) -> int {
    if (++connects == 1) {
      EXPECT_EQ(real(fd, to, length), 0);
      errno = EINPROGRESS;
      return -1;
    }
    errno = EISCONN;
    return -1;
  });
  socket.Connect(kLoopback, listener.port());
  EXPECT_EQ(connects, 2);
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketInterrupted, ConnectWaitsWithoutLimitForWhatWentOnInTheBackground) {
  PeerListener listener;
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  const int fd = socket.s;
  int connects = 0;
  calls().connect.replace([&connects](auto real, int s, const sockaddr* to, socklen_t length) -> int {
    if (++connects > 2) return real(s, to, length);
    errno = connects == 1 ? EINPROGRESS : EALREADY;
    return -1;
  });
  std::vector<int> waits_ms;
  calls().poll.replace([&waits_ms, fd](auto real, pollfd* fds, nfds_t count, int timeout_ms) -> int {
    if (count != 1 || fds[0].fd != fd) return real(fds, count, timeout_ms);
    EXPECT_EQ(fds[0].events, POLLOUT);
    waits_ms.push_back(timeout_ms);
    fds[0].revents = POLLOUT;
    return 1;
  });
  socket.Connect(kLoopback, listener.port());
  EXPECT_THAT(waits_ms, ElementsAre(-1, -1));
  EXPECT_EQ(connects, 3);
  EXPECT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketInterrupted, ASignalEndsTheWaitOfConnectWithItsError) {
  PeerListener listener;
  const UWORD port = listener.port();
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  const int fd = socket.s;
  calls().connect.replace([](auto, int, const sockaddr*, socklen_t) -> int {
    errno = EINPROGRESS;
    return -1;
  });
  calls().poll.replace([fd](auto real, pollfd* fds, nfds_t count, int timeout_ms) -> int {
    if (count != 1 || fds[0].fd != fd) return real(fds, count, timeout_ms);
    errno = EINTR;
    return -1;
  });
  socket.Connect(kLoopback, port);
  EXPECT_EQ(socket.state, Socket::READY) << "as it was";
  EXPECT_EQ(socket.s, fd);
  EXPECT_THAT(said(),
              ElementsAre(line("Socket::Connect(addr,port) connect() error %d to %08x:%u from %08x:%u", EINTR,
                               kLoopback, port, kLoopback, local_port_of(fd))));
}

TEST_F(BlockingSocketInterrupted, AnAddressWithoutALengthIsNotTaken) {
  for (const int length : {0, -1}) {
    WirePair wire;
    sockaddr_in remote = loopback_address(4711);
    Socket socket(Socket::TCP_SERVER, wire.fd, &remote, length);
    EXPECT_EQ(socket.RemotePort(), 0);
    EXPECT_EQ(socket.RemoteIP_n(), 0U);
    wire.peer.close();
  }
}

}  // namespace
