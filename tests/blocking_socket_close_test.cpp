// How a blocking socket closes: the end is told, what the peer still sends is taken in, and it always ends.

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Le;

class BlockingSocketClose : public BlockingTest {
 protected:
  void TearDown() override {
    blocking_calls.shutdown.restore();
    blocking_calls.recv.restore();
    calls().restore_all();
    BlockingTest::TearDown();
  }
};

TEST_F(BlockingSocketClose, ThePeerSeesTheEndAndTheDescriptorIsGone) {
  Wrapped<> wrapped;
  const int before = open_descriptors();
  wrapped->DataIndication(buffer_of("last"));
  std::thread closing([&] { wrapped->Close(); });
  EXPECT_EQ(wrapped.peer.receive_to_end(), "last");
  wrapped.peer.close();
  closing.join();
  EXPECT_EQ(wrapped->s, -1);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_EQ(open_descriptors(), before - 2) << "this end and the peer's";
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketClose, BothDirectionsAreShutBeforeTheDrain) {
  Wrapped<> wrapped;
  wrapped.peer.close();
  std::vector<std::string> story;
  blocking_calls.shutdown.replace([&](auto real, int fd, int how) {
    if (fd == wrapped->s) story.push_back(line("shutdown %d", how));
    return real(fd, how);
  });
  const ScriptedReads reads(wrapped->s, [&](int, void*, size_t count) {
    story.push_back(line("recv %zu", count));
    return ScriptedReads::kReal;
  });
  wrapped->Close();
  ASSERT_GE(story.size(), 2U);
  EXPECT_EQ(story[0], line("shutdown %d", SHUT_RDWR));
  story.erase(story.begin());
  EXPECT_THAT(story, Each("recv 256"));
}

TEST_F(BlockingSocketClose, WhatWaitsIsDrainedToTheEnd) {
  Wrapped<> wrapped;
  wrapped.peer.send_all(numbered_bytes(20000));
  wrapped.peer.half_close();
  ASSERT_TRUE(wait_until([&] { return bytes_waiting(wrapped->s) == 20000; }, kPatienceMs));
  std::vector<ssize_t> results;
  const int fd = wrapped->s;
  const ScriptedReads reads(fd, [&results, fd](int, void* bytes, size_t count) {
    results.push_back(read(fd, bytes, count));
    return results.back();
  });
  wrapped->Close();
  ASSERT_FALSE(results.empty());
  EXPECT_EQ(results.back(), 0);
  ssize_t total = 0;
  for (const ssize_t result : results) total += result;
  EXPECT_EQ(total, 20000);
  EXPECT_TRUE(wrapped.peer.ended());
  EXPECT_EQ(wrapped.peer.receive_now(), "");
}

TEST_F(BlockingSocketClose, WithoutADescriptorOnlyTheStateChanges) {
  Wrapped<> wrapped;
  wrapped.peer.close();
  wrapped->Close();
  wrapped->state = Socket::READY;
  int shutdowns = 0;
  blocking_calls.shutdown.replace([&](auto real, int fd, int how) {
    ++shutdowns;
    return real(fd, how);
  });
  wrapped->Close();
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_EQ(wrapped->s, -1);
  EXPECT_EQ(shutdowns, 0);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketClose, ADrainThatFailsEnds) {
  for (const int error : {ECONNRESET, ENOTCONN, EIO, ENOMEM}) {
    SCOPED_TRACE(error);
    Wrapped<> wrapped;
    wrapped.peer.close();
    const ScriptedReads reads(wrapped->s, [error](int, void*, size_t) -> ssize_t {
      errno = error;
      return -1;
    });
    wrapped->Close();
    EXPECT_EQ(wrapped->s, -1);
    EXPECT_EQ(reads.count(), 1);
  }
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketClose, AnInterruptedDrainGoesOnToTheEnd) {
  for (const int error : {EINTR, EAGAIN}) {
    SCOPED_TRACE(error);
    Wrapped<> wrapped;
    wrapped.peer.send_all("rest");
    wrapped.peer.half_close();
    const ScriptedReads reads(wrapped->s, [error](int call, void*, size_t) -> ssize_t {
      if (call >= 3) return ScriptedReads::kReal;
      errno = error;
      return -1;
    });
    wrapped->Close();
    EXPECT_EQ(wrapped->s, -1);
    EXPECT_GT(reads.count(), 3);
  }
}

TEST_F(BlockingSocketClose, AListenerClosesAtOnce) {
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  PeerStream waiting = PeerStream::connect_to(listener.LocalPort());
  const auto begin = std::chrono::steady_clock::now();
  listener.Close();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(listener.s, -1);
  EXPECT_EQ(listener.state, Socket::INVALID);
}

TEST_F(BlockingSocketClose, ABoundStreamClosesAtOnce) {
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  const auto begin = std::chrono::steady_clock::now();
  socket.Close();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(socket.s, -1);
}

TEST_F(BlockingSocketClose, DatagramSocketsCloseAtOnce) {
  PeerUdp peer;
  Socket bound(Socket::UDP, 0, false, kLoopback), with_data(Socket::UDP, 0, false, kLoopback),
      connected(Socket::UDP, 0, false, kLoopback);
  peer.send_to(with_data.LocalPort(), "unread");
  peer.send_to(with_data.LocalPort(), "");
  connected.Connect(kLoopback, peer.port());
  const auto begin = std::chrono::steady_clock::now();
  for (Socket* socket : {&bound, &with_data, &connected}) {
    socket->Close();
    EXPECT_EQ(socket->s, -1);
    EXPECT_EQ(socket->state, Socket::INVALID);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(BlockingSocketClose, AWrappedDatagramDescriptorClosesAtOnce) {
  Descriptor fd = bound_socket(SOCK_DGRAM);
  sockaddr_in remote = loopback_address(7);
  Socket socket(Socket::UDP, fd.release(), &remote, static_cast<int>(sizeof remote));
  const auto begin = std::chrono::steady_clock::now();
  socket.Close();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(socket.s, -1);
}

TEST_F(BlockingSocketClose, APeerThatStaysQuietAndOpenDoesNotHoldItUp) {
  Wrapped<> wrapped;
  const auto begin = std::chrono::steady_clock::now();
  wrapped->Close();  // shut for reading, so its end is there
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(wrapped->s, -1);
  EXPECT_TRUE(wrapped.peer.ended());
}

TEST_F(BlockingSocketClose, TheDestructorCloses) {
  Wrapped<> wrapped;
  const int fd = wrapped->s;
  std::thread ending([&] {
    EXPECT_TRUE(wrapped.peer.ended());
    wrapped.peer.close();
  });
  wrapped.socket.reset();
  ending.join();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_THAT(registered_sockets(), IsEmpty());
}

TEST_F(BlockingSocketClose, AClosedSocketsPortIsFreeAgain) {
  UWORD port = 0;
  {
    Socket first(Socket::TCP_SERVER, 0, true, kLoopback);
    port = first.LocalPort();
    PeerStream peer = PeerStream::connect_to(port);
    const std::unique_ptr<Socket> accepted(first.Accept());
    peer.close();
  }
  Socket second(Socket::TCP_SERVER, port, true, kLoopback);
  EXPECT_EQ(second.state, Socket::READY) << "also while the old connection's end is remembered";
}

}  // namespace
}  // namespace oskernel_test
