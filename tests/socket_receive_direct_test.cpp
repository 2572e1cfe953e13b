// Direct sockets: a receive thread of their own that connects, reads into a private ring, and hands on what it reads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/interposed_calls.h"
#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SocketDirect : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  static OwnedSocket stream_for(RecordingLayer* layer) {
    OwnedSocket socket = direct_socket();
    socket->Bind(layer);
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    return socket;
  }
  /// Answers connect of one descriptor: the n-th attempt, from 1, fails with error(n) unless that is 0.
  static void answer_connects(int s, std::atomic<int>* attempts, std::function<int(int)> error) {
    calls().connect.replace([s, attempts, error](auto real, int fd, const sockaddr* to, socklen_t length) {
      if (fd != s) return real(fd, to, length);
      const int answer = error(++*attempts);
      if (answer == 0) return real(fd, to, length);
      errno = answer;
      return -1;
    });
  }
};

TEST_F(SocketDirect, ReadsOnAThreadOfItsOwnAndIndicatesThere) {
  RecordingLayer layer, other_layer;
  PeerStream peer, other_peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  OwnedSocket other = established_stream(&other_layer, &other_peer, false);
  EXPECT_NE(socket->thread, 0U);
  EXPECT_TRUE(look_at(socket->receive_started));
  ASSERT_TRUE(peer.send_all("a"));
  ASSERT_TRUE(other_peer.send_all("b"));
  ASSERT_TRUE(layer.wait_for(1));
  ASSERT_TRUE(other_layer.wait_for(1));
  EXPECT_NE(layer.at(0).thread, other_layer.at(0).thread);
  EXPECT_NE(layer.at(0).thread, gettid());
  EXPECT_EQ(queued(socket.get()), 0);
}

TEST_F(SocketDirect, ReadsIntoItsRing) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  const std::string sent = numbered_bytes(100000);
  ASSERT_TRUE(peer.send_all(sent));
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  EXPECT_TRUE(layer.data() == sent);
  for (const Indication& indication : layer.all()) {
    ASSERT_EQ(indication.size, 1760);
    ASSERT_GE(indication.headroom, 50);
    ASSERT_LE(indication.data.size(), 1600U);
  }
  ASSERT_NE(socket->ring, nullptr);
  EXPECT_EQ(socket->ring->size, 32);
}

TEST_F(SocketDirect, LargeBuffersAreUsedWhereTheyAreAllowed) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  socket->SetBigBuffers(true);
  const std::string sent = numbered_bytes(30000);
  ASSERT_TRUE(peer.send_all(sent));
  ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket->s) == 30000; }, kPatienceMs));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  EXPECT_EQ(layer.count(), 1U);
  EXPECT_TRUE(layer.data() == sent);
}

TEST_F(SocketDirect, ConnectsAndSendsWhatWasQueued) {
  put_into(AsyncSocket::trace, 1);
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  const std::string queued_text = numbered_bytes(5000);
  for (std::size_t at = 0; at < 5000; at += 500) {
    ASSERT_EQ(socket->DataIndication(buffer_of(queued_text.substr(at, 500))), Success);
  }
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.receive(5000) == queued_text);
  ASSERT_TRUE(peer.send_all("thanks"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:thanks"));
  EXPECT_EQ(layer.at(0).thread, layer.at(1).thread);
  EXPECT_EQ(look_at(socket->state), SSConnected);
  EXPECT_EQ(socket->loc_sin.Port(), local_port_of(s));
  EXPECT_EQ(console.count(line("%d AsyncSocket::Main - Started receive thread", s)), 1);
  EXPECT_EQ(console.count("AsyncSocket::Main - Forwarding queued data"), 1);
  EXPECT_EQ(console.count(line("%d AsyncSocket::StartTask - thread ", s)), 1);
  EXPECT_EQ(console.count("Stopped receive thead"), 0);
  socket->Close();
  EXPECT_EQ(console.count(line("%d AsyncSocket::Main - Stopped receive thead", s)), 1);
}

TEST_F(SocketDirect, DataGivenInsideTheConnectIndicationComesBehindWhatWasQueued) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  AsyncSocket* const raw = socket.get();
  layer.set_hook([raw](const Indication& indication) {
    if (indication.kind != Indication::kConnect) return;
    EXPECT_EQ(raw->DataIndication(buffer_of("second")), Success);
  });
  ASSERT_EQ(socket->DataIndication(buffer_of("first,")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_EQ(peer.receive(12), "first,second");
}

TEST_F(SocketDirect, IsRefusedAfterTwoAttempts) {
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  std::atomic<int> attempts{0};
  answer_connects(s, &attempts, [](int) { return 0; });
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(3,0)"));
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
  EXPECT_EQ(
      console.count(line("%d AsyncSocket::Main connect() errno=111 to 127.0.0.1:%u from ", s, port.port())),
      2);
  EXPECT_EQ(console.count(" RETRYING"), 1);
  EXPECT_EQ(console.count(" FAILED"), 1);
  EXPECT_LT(console.text().find(" RETRYING"), console.text().find(" FAILED"));
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
}

TEST_F(SocketDirect, TheSecondAttemptMaySucceed) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  std::atomic<int> attempts{0};
  answer_connects(socket->s, &attempts, [](int n) { return n == 1 ? ETIMEDOUT : 0; });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.send_all("welcome"));
  ASSERT_TRUE(layer.wait_for_bytes(7));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:welcome"));
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(console.count("connect() errno=110 to 127.0.0.1"), 1);
  EXPECT_EQ(console.count(" RETRYING"), 1);
  EXPECT_EQ(console.count(" FAILED"), 0);
}

TEST_F(SocketDirect, ConnectsAgainAfterARefusal) {
  PeerListener listener;
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for(1));
  socket->Close();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(3,0)", "connect"));
}

TEST_F(SocketDirect, AnUnknownOwnAddressIsPrintedAndTheConnectionStands) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  calls().getsockname.replace([s](auto real, int fd, sockaddr* name, socklen_t* length) {
    if (fd != s) return real(fd, name, length);
    errno = ENOBUFS;
    return -1;
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(console.count(line("%d AsyncSocket::Main getsockname() errno=%d to 127.0.0.1:%u", s, ENOBUFS,
                               listener.port())),
            1);
}

TEST_F(SocketDirect, QueuedDataThatCannotBeSentIsPrintedAndFreed) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  std::atomic<int> failures{1};
  calls().send.replace(
      [s, &failures](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
        if (fd != s || failures-- <= 0) return real(fd, bytes, count, flags);
        errno = ENOBUFS;
        return -1;
      });
  ASSERT_EQ(socket->DataIndication(buffer_of(numbered_bytes(1500, 1))), Success);
  ASSERT_EQ(socket->DataIndication(buffer_of(numbered_bytes(1500, 2))), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(layer.wait_for_connect());
  ASSERT_TRUE(wait_until(
      [&] {
        return console.count(line("%d AsyncSocket::Main send() errno=%d to 127.0.0.1:%u from 127.0.0.1:", s,
                                  ENOBUFS, listener.port())) == 1;
      },
      kPatienceMs));
  ASSERT_TRUE(wait_until([&] { return early_data(socket.get()).empty(); }, kPatienceMs));
}

TEST_F(SocketDirect, APeerThatClosesEndsTheThread) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  const int s = socket->s;
  ASSERT_TRUE(peer.send_all("last words"));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("data:last words", "disconnect(5,0)"));
  EXPECT_FALSE(look_at(socket->running));
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_TRUE(
      wait_until([&] { return console.count(line("%d AsyncSocket::Main - Stopped receive thead", s)) == 1; },
                 kPatienceMs));
}

TEST_F(SocketDirect, CloseEndsAThreadThatWaits) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for(1));
  const int threads = running_threads();
  socket->Close();
  EXPECT_TRUE(wait_until([threads] { return running_threads() == threads - 1; }));
  EXPECT_EQ(socket->thread, 0U) << "a joined thread is forgotten";
  EXPECT_EQ(look_at(socket->state), SSInitial);
  socket->Close();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(layer.count(), 1U) << "closing indicates nothing";
}

TEST_F(SocketDirect, AnEmptyRingLeavesTheDataInTheSystemAndWaits) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer, false);
  layer.hold_buffers(true);
  std::vector<std::string> sent;
  for (int i = 0; i < 40; ++i) {
    sent.push_back("datagram:" + std::to_string(i));
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
  }
  ASSERT_TRUE(layer.wait_for(31)) << "a ring of 32 lends 31";
  ASSERT_TRUE(wait_until([&] { return look_at(socket->oob_count) > 0; }, kPatienceMs));
  EXPECT_TRUE(is_calm(socket->thread)) << "it waits for a buffer";
  EXPECT_EQ(layer.count(), 31U);
  EXPECT_EQ(bytes_waiting(socket->s), 2) << "the next one waits in the system";
  const ULONG misses = look_at(socket->oob_count);
  EXPECT_GE(misses, 1U);
  layer.hold_buffers(false);
  layer.release_held();
  ASSERT_TRUE(layer.wait_for(40));
  EXPECT_EQ(layer.story(), sent);
}

TEST_F(SocketDirect, OneBufferThatComesHomeIsEnoughToGoOn) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer, false);
  layer.hold_buffers(true);
  for (int i = 0; i < 33; ++i) ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
  ASSERT_TRUE(layer.wait_for(31));
  ASSERT_TRUE(wait_until([&] { return look_at(socket->oob_count) > 0; }, kPatienceMs));
  std::vector<OSBuf*> held = layer.held_buffers();
  ASSERT_EQ(held.size(), 31U);
  layer.hold_buffers(false);
  layer.release_held();
  ASSERT_TRUE(layer.wait_for(33));
}

TEST_F(SocketDirect, WithAnEmptyRingItIsClosedAndFreedAllTheSame) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer, false);
  layer.hold_buffers(true);
  for (int i = 0; i < 33; ++i) ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
  ASSERT_TRUE(wait_until([&] { return look_at(socket->oob_count) > 0; }, kPatienceMs));
  socket.reset();
  EXPECT_EQ(console.count("waiting for buffers to come home..."), 1);
  layer.release_held();
  EXPECT_TRUE(wait_until([this] { return console.count("...all buffers are home") == 1; }, kPatienceMs));
}

TEST_F(SocketDirect, AnUrgentByteDoesNotKeepItsThreadBusy) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  ASSERT_TRUE(peer.send_all("before"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  ASSERT_TRUE(peer.send_urgent('!'));
  EXPECT_TRUE(is_calm(socket->thread));
  ASSERT_TRUE(peer.send_all("after"));
  ASSERT_TRUE(layer.wait_for_bytes(11));
  EXPECT_THAT(layer.story(), ElementsAre("data:beforeafter"));
}

TEST_F(SocketDirect, AnIdleOneIsCalm) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket stream = established_stream(&layer, &peer, false);
  OwnedSocket datagram = datagram_socket(&layer, false);
  EXPECT_TRUE(is_calm(stream->thread));
  EXPECT_TRUE(is_calm(datagram->thread));
}

TEST_F(SocketDirect, ASendThatFailsIsIndicatedWithinTheCall) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  const int s = socket->s;
  calls().send.replace([s](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
    if (fd != s) return real(fd, bytes, count, flags);
    errno = EPIPE;
    return -1;
  });
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,32)"));
  EXPECT_EQ(layer.at(0).thread, gettid());
}

// ---- A thread that cannot be started ----

TEST_F(SocketDirect, AThreadThatCannotBeStartedIsTriedAgain) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket bare = direct_socket();  // the networking layer's own threads run by now
  std::atomic<int> failures{2};
  calls().pthread_create.replace([&failures](auto real, pthread_t* thread, const pthread_attr_t* attributes,
                                             void* (*start)(void*), void* argument) {
    if (failures-- <= 0) return real(thread, attributes, start, argument);
    errno = EPERM;  // what it returns counts
    return EAGAIN;
  });
  OwnedSocket socket = datagram_socket(&layer, false);
  const std::string text =
      line("%d AsyncSocket::StartTask failed, errno 11 - retrying in 500ms...", socket->s);
  EXPECT_EQ(console.count(text), 1);
  EXPECT_TRUE(look_at(socket->running));
  EXPECT_NE(socket->startRetry, nullptr);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "patience"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:patience"));
  EXPECT_EQ(console.count(text), 2) << "the interval stays as it is";
  EXPECT_EQ(socket->retryTimeout, 500U);
}

TEST_F(SocketDirect, OnlyAShortRetryIntervalIsDoubled) {
  OwnedSocket bare = direct_socket();
  StalledDispatcher dispatcher;  // no retry meanwhile
  ASSERT_TRUE(dispatcher.stalled());
  calls().pthread_create.replace([](auto, auto...) { return EAGAIN; });
  const struct { ULONG before, after; } rows[] = {{500, 500}, {16, 16}, {15, 30}, {8, 16}, {1, 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.before);
    OwnedSocket socket = direct_socket();
    socket->retryTimeout = row.before;
    ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
    EXPECT_EQ(socket->retryTimeout, row.after);
    EXPECT_EQ(console.count(line("%d AsyncSocket::StartTask failed, errno 11 - retrying in %ums...",
                                 socket->s, row.before)),
              1);
    console.clear();
  }
  calls().pthread_create.restore();
}

TEST_F(SocketDirect, ASocketThatWaitsForItsThreadCanBeClosedAndFreed) {
  OwnedSocket bare = direct_socket();
  calls().pthread_create.replace([](auto, auto...) { return EAGAIN; });
  RecordingLayer layer;
  OwnedSocket socket = datagram_socket(&layer, false);
  socket->Close();
  EXPECT_EQ(look_at(socket->state), SSInitial);
  OwnedSocket other = datagram_socket(&layer, false);
  other.reset();
  calls().pthread_create.restore();
}

}  // namespace
