// Reads that fail, and readiness that is no longer true: recvfrom answers what a test wants.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "support/interposed_calls.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SocketReadFailure : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
};

TEST_F(SocketReadFailure, NothingThereAfterAllIsRecoverableOnAStream) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const FailingReads failing(socket->s, EAGAIN, 3);
  ASSERT_TRUE(peer.send_all("patience"));
  ASSERT_TRUE(layer.wait_for_bytes(8));
  EXPECT_THAT(layer.story(), ElementsAre("data:patience"));
  EXPECT_EQ(
      console.count(line("%d AsyncSocket::Poll recvfrom() errno=11(EAGAIN recoverable) for 127.0.0.1:%u on "
                         "127.0.0.1:%u",
                         socket->s, peer.local_port(), socket->LocalPort())),
      3);
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

TEST_F(SocketReadFailure, ADroppedDatagramIsNoError) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer);
  const FailingReads failing(socket->s, EAGAIN, 2);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "one"));
  ASSERT_TRUE(layer.wait_for_bytes(3));
  EXPECT_EQ(
      console.count(line("%d AsyncSocket::Poll recvfrom() errno=11(EAGAIN UDP cksum err?) for ", socket->s)),
      2);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "two"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:one", "datagram:two"));
}

// A descriptor that is read behind its shutdown may leave the peer waiting for room, and for the end.
TEST_F(SocketReadFailure, CloseLetsAReadOfADirectSocketFinishBeforeItShutsTheDescriptorDown) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  const int s = socket->s;
  Gate reads;
  std::atomic<bool> shut_down{false};
  calls().recvfrom.replace([&, s](auto real, int fd, void* bytes, size_t count, int flags, sockaddr* from,
                                  socklen_t* length) -> ssize_t {
    if (fd != s) return real(fd, bytes, count, flags, from, length);
    reads.open();
    constexpr int kLookMs = 300;
    shut_down = wait_for_events(peer.fd(), POLLRDHUP, kLookMs);
    return real(fd, bytes, count, flags, from, length);
  });
  ASSERT_TRUE(peer.send_all("last words"));
  ASSERT_TRUE(reads.wait());
  socket->Close();
  EXPECT_FALSE(shut_down) << "while the thread reads";
  EXPECT_EQ(layer.data(), "last words");
  EXPECT_TRUE(wait_for_events(peer.fd(), POLLRDHUP));
}

TEST_F(SocketReadFailure, AnInterruptedReadStopsReceptionAndNothingElse) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const int s = socket->s;
  {
    const FailingReads failing(s, EINTR, 1);
    ASSERT_TRUE(peer.send_all("first"));
    ASSERT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
  }
  EXPECT_EQ(console.count(line("%d AsyncSocket::Poll - EINTR", s)), 1) << "printed without trace too";
  ASSERT_TRUE(peer.send_all("second"));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  EXPECT_EQ(layer.count(), 0U);
  EXPECT_EQ(look_at(socket->state), SSConnected);
  EXPECT_EQ(bytes_waiting(s), 11);
  EXPECT_EQ(socket->DataIndication(buffer_of("still sends")), Success);
  EXPECT_EQ(peer.receive(11), "still sends");
  socket->StartTask();
  ASSERT_TRUE(layer.wait_for_bytes(11));
  EXPECT_THAT(layer.story(), ElementsAre("data:firstsecond"));
}

TEST_F(SocketReadFailure, AnInterruptedReadStopsADatagramSocketToo) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer);
  const FailingReads failing(socket->s, EINTR, 1);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "one"));
  ASSERT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(layer.count(), 0U);
  socket->StartTask();
  ASSERT_TRUE(layer.wait_for(1));
}

TEST_F(SocketReadFailure, AnErrorEndsAStreamWithItsCode) {
  // Of the last one every byte travels upward.
  for (const int error : {ECONNRESET, ETIMEDOUT, EHOSTUNREACH, 0x01020304}) {
    SCOPED_TRACE(error);
    put_into(AsyncSocket::trace, 1);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = established_stream(&layer, &peer);
    const FailingReads failing(socket->s, error, 1);
    ASSERT_TRUE(peer.send_all("lost"));
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_THAT(layer.story(), ElementsAre("disconnect(4," + std::to_string(error) + ")"));
    EXPECT_EQ(look_at(socket->state), SSDisconnected);
    EXPECT_FALSE(look_at(socket->running));
    EXPECT_EQ(console.count(line("%d AsyncSocket::Poll recvfrom() errno=%d for 127.0.0.1:%u on 127.0.0.1:%u",
                                 socket->s, error, peer.local_port(), socket->LocalPort())),
              1);
    MonitorBeat monitor;
    ASSERT_TRUE(monitor.passes());
    EXPECT_EQ(layer.count(), 1U);
    console.clear();
  }
}

TEST_F(SocketReadFailure, AnErrorStopsADatagramSocketWithoutAnIndication) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer);
  const FailingReads failing(socket->s, ECONNREFUSED, 1);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "one"));
  ASSERT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(wait_until([&] { return queued(socket.get()) == 0; }, kPatienceMs));
  EXPECT_EQ(layer.count(), 0U) << "a datagram socket has no connection to lose";
}

TEST_F(SocketReadFailure, AReadThatFindsTheEndIsANormalClose) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const int s = socket->s;
  calls().recvfrom.replace(
      [s](auto real, int fd, void* bytes, size_t count, int flags, sockaddr* from, socklen_t* length) {
        return fd == s ? 0 : real(fd, bytes, count, flags, from, length);
      });
  ASSERT_TRUE(peer.send_all("unread"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(5,0)"));
  EXPECT_EQ(console.count("AsyncSocket::Poll - recvfrom returned zero - normal close"), 1);
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_FALSE(look_at(socket->running));
}

TEST_F(SocketReadFailure, AShortReadDeliversWhatThereWas) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const int s = socket->s;
  calls().recvfrom.replace(
      [s](auto real, int fd, void* bytes, size_t count, int flags, sockaddr* from, socklen_t* length) {
        return real(fd, bytes, fd == s && count > 3 ? 3 : count, flags, from, length);
      });
  const std::string sent = numbered_bytes(100);
  ASSERT_TRUE(peer.send_all(sent));
  ASSERT_TRUE(layer.wait_for_bytes(100));
  EXPECT_TRUE(layer.data() == sent);
  EXPECT_GE(layer.count(), 34U);
}

TEST_F(SocketReadFailure, ABufferThatIsBeingFilledBelongsToTheSocket) {
  // While recvfrom runs, alloc_buf names the buffer; afterwards it is nobody's.
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  AsyncSocket* const raw = socket.get();
  const int s = socket->s;
  std::atomic<bool> named{false};
  calls().recvfrom.replace([raw, s, &named](auto real, int fd, void* bytes, size_t count, int flags,
                                            sockaddr* from, socklen_t* length) {
    if (fd == s) named = raw->alloc_buf != nullptr && raw->alloc_buf->data == bytes;
    return real(fd, bytes, count, flags, from, length);
  });
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for_bytes(1));
  EXPECT_TRUE(named);
  socket->Close();
  EXPECT_EQ(socket->alloc_buf, nullptr);
}

TEST_F(SocketReadFailure, AnInterruptedReadEndsTheThreadOfADirectSocket) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  const int s = socket->s;
  const FailingReads failing(s, EINTR, 1);
  ASSERT_TRUE(peer.send_all("x"));
  socket->ConnectAck();
  const std::string stopped = line("%d AsyncSocket::Main - Stopped receive thead", s);
  ASSERT_TRUE(wait_until([&] { return console.count(stopped) == 1; }, kPatienceMs));
  EXPECT_EQ(console.count(line("%d AsyncSocket::Poll - EINTR", s)), 1);
  EXPECT_EQ(layer.count(), 0U);
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

TEST_F(SocketReadFailure, AnErrorOnADirectSocketIsIndicatedByItsThread) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  const FailingReads failing(socket->s, ECONNRESET, 1);
  ASSERT_TRUE(peer.send_all("x"));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,104)"));
  EXPECT_FALSE(look_at(socket->running));
}

// ---- Readiness that is no longer true ----

/// Stops the monitor thread between its wait and what it does with the answer, once it has been told of something.
class HeldMonitor {
 public:
  HeldMonitor() {
    calls().select.replace(
        [this](auto real, int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
          const int ready = real(count, reads, writes, excepts, timeout);
          if (ready > 0) hold();
          return ready;
        });
    calls().epoll_wait.replace([this](auto real, int fd, epoll_event* events, int count, int timeout_ms) {
      const int ready = real(fd, events, count, timeout_ms);
      if (ready > 0) hold();
      return ready;
    });
  }
  ~HeldMonitor() {
    release();
    calls().select.restore();
    calls().epoll_wait.restore();
  }
  /// From now on the monitor thread stands still where its next answer comes.
  void arm() { armed_ = true; }
  bool is_held() { return held_.wait(); }
  void release() {
    armed_ = false;
    door_.open();
  }
  bool stood_still() { return held_.is_open(); }

 private:
  void hold() {
    const int error = errno;
    // Inside its section nobody can change a socket meanwhile: there is nothing to be late for.
    const pthread_t owner = std::atomic_ref<pthread_t>(AsyncSocket::cs.owner_thread_id).load();
    const pthread_t monitor = std::atomic_ref<pthread_t>(AsyncSocket::monitor_thread).load();
    if (armed_ && pthread_equal(pthread_self(), monitor) && !pthread_equal(owner, pthread_self())) {
      held_.open();
      door_.wait();
    }
    errno = error;
  }

  std::atomic<bool> armed_{false};
  Gate held_, door_;
};

TEST_F(SocketReadFailure, AReportForADescriptorThatIsAnotherSocketsByNowDoesNothing) {
  RecordingLayer first_layer, second_layer;
  PeerStream first_peer, second_peer;
  OwnedSocket first = established_stream(&first_layer, &first_peer);
  ASSERT_TRUE(first_peer.send_all("x"));
  ASSERT_TRUE(first_layer.wait_for_bytes(1));
  PeerListener listener;
  PeerStream spare = PeerStream::connect_to(listener.port());
  second_peer = listener.accept();
  ASSERT_TRUE(spare.is_open() && second_peer.is_open());
  HeldMonitor monitor;
  const int number = first->s;
  monitor.arm();
  ASSERT_TRUE(first_peer.send_all("never read"));
  ASSERT_TRUE(monitor.is_held());
  first->Close();
  Descriptor reused(dup2(spare.fd(), number));
  ASSERT_EQ(reused.get(), number);
  spare.close();
  OwnedSocket second = indirect_socket();
  second->Bind(&second_layer);
  second->Create(SOCK_STREAM, reused.release());
  second->ConnectAck();
  monitor.release();
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  EXPECT_THAT(second_layer.story(), IsEmpty()) << "nothing has come for this one";
  ASSERT_TRUE(second_peer.send_all("mine"));
  ASSERT_TRUE(second_layer.wait_for_bytes(4));
  EXPECT_THAT(second_layer.story(), ElementsAre("data:mine"));
  EXPECT_THAT(first_layer.story(), ElementsAre("data:x"));
}

TEST_F(SocketReadFailure, AReportForAnEarlierLifeOfTheSameSocketDoesNothing) {
  RecordingLayer layer;
  PeerStream peer, later_peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for_bytes(1));
  PeerListener listener;
  PeerStream spare = PeerStream::connect_to(listener.port());
  later_peer = listener.accept();
  HeldMonitor monitor;
  const int number = socket->s;
  monitor.arm();
  ASSERT_TRUE(peer.send_all("never read"));
  ASSERT_TRUE(monitor.is_held());
  socket->Close();
  Descriptor reused(dup2(spare.fd(), number));
  ASSERT_EQ(reused.get(), number);
  spare.close();
  socket->Create(SOCK_STREAM, reused.release());
  socket->ConnectAck();
  monitor.release();
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  EXPECT_THAT(layer.story(), ElementsAre("data:x"));
  ASSERT_TRUE(later_peer.send_all("again"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  EXPECT_THAT(layer.story(), ElementsAre("data:xagain"));
}

TEST_F(SocketReadFailure, AReportForASocketThatIsClosedByNowDoesNothing) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for_bytes(1));
  HeldMonitor monitor;
  monitor.arm();
  ASSERT_TRUE(peer.send_all("never read"));
  ASSERT_TRUE(monitor.is_held());
  socket->Close();
  monitor.release();
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  EXPECT_THAT(layer.story(), ElementsAre("data:x"));
  EXPECT_EQ(look_at(socket->state), SSInitial);
}

}  // namespace
