// Connecting blocking sockets whose wait is interrupted, and addresses that are not there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "support/blocking_fixture.h"
#include "support/interposed_calls.h"

using namespace oskernel_test;
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
