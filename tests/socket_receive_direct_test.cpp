// Direct sockets: a receive thread of their own that connects, reads into a private ring, and hands on what it reads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/buffer_drought.h"
#include "support/interposed_calls.h"
#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::EndsWith;
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
  ASSERT_EQ(socket->DataIndication(buffer_of("never sent")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(3,0)"));
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
  EXPECT_EQ(
      console.count(line("%d AsyncSocket::Main connect() errno=111 to 127.0.0.1:%u from ", s, port.port())),
      2);
  EXPECT_THAT(console.calls(), ElementsAre(EndsWith(" RETRYING"), EndsWith(" FAILED")));
  EXPECT_EQ(socket->ring, nullptr) << "there was nothing to receive";
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

TEST_F(SocketDirect, AnAttemptThatEndsAfterCloseIsNobodysConcern) {
  const struct {
    int closed_in;  // the attempt
    int error;      // of that attempt; the ones before fail
  } rows[] = {{1, ECONNREFUSED}, {2, ECONNREFUSED}, {1, 0}, {2, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.closed_in << " " << row.error);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    std::atomic<int> attempts{0};
    Gate inside, door;
    answer_connects(socket->s, &attempts, [&](int n) {
      if (n < row.closed_in) return ECONNREFUSED;
      inside.open();
      door.wait();
      return row.error;
    });
    ASSERT_EQ(socket->DataIndication(buffer_of("queued")), Success);
    console.clear();
    ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
    ASSERT_TRUE(inside.wait());
    WatchedThread closing([&] { socket->Close(); });
    ASSERT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
    door.open();
    ASSERT_TRUE(closing.finished_within(kPatienceMs));
    EXPECT_EQ(attempts, row.closed_in);
    EXPECT_EQ(console.count("connect() errno="), row.closed_in - 1);
    EXPECT_THAT(layer.story(), IsEmpty());
    EXPECT_EQ(look_at(socket->state), SSInitial);
    EXPECT_EQ(socket->ring, nullptr) << "there was nothing to receive";
    calls().connect.restore();
  }
}

TEST_F(SocketDirect, AFreedSocketsThreadEndsWithoutAWord) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  layer.set_hook([&](const Indication&) { socket.reset(); });
  const int threads = running_threads();
  socket->ConnectAck();
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_TRUE(wait_until([threads] { return running_threads() == threads; }, kPatienceMs));
  EXPECT_EQ(console.count("Stopped receive thead"), 0) << "its number is not the socket's any more";
}

TEST_F(SocketDirect, ABufferThatIsFreedBehindItsSendMayTakeTheSocketWithIt) {
  PeerListener listener;
  RecordingLayer layer;
  struct {
    OwnedSocket socket;
    Gate freed;
  } left;
  left.socket = stream_for(&layer);
  OSBuf* const first = buffer_of(numbered_bytes(1500));
  const auto free_socket = [](OSObj*, ADDR where, ULONG) {
    auto* const given = static_cast<decltype(left)*>(where);
    given->socket.reset();
    given->freed.open();
  };
  first->AddBufferCallback(OSCallback::Alloc(nullptr, free_socket, nullptr, &left, 0));
  ASSERT_EQ(left.socket->DataIndication(first), Success);
  ASSERT_EQ(left.socket->DataIndication(buffer_of("never sent")), Success);
  ASSERT_EQ(left.socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_EQ(peer.receive(1600), numbered_bytes(1500));
  EXPECT_TRUE(peer.ended());
  ASSERT_TRUE(left.freed.wait());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
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
  const FailingSends failing(s, ENOBUFS, 1);
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

TEST_F(SocketDirect, QueuedDataIsSentWholeThoughTheSystemTakesItInPieces) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  std::atomic<int> sends{0};
  calls().send.replace([&, s](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
    if (fd != s) return real(fd, bytes, count, flags);
    if (++sends % 2 == 0) return real(fd, bytes, std::min<size_t>(count, 100), flags);
    errno = EINTR;
    return -1;
  });
  const std::string sent = numbered_bytes(1500, 1) + numbered_bytes(700, 2);
  ASSERT_EQ(socket->DataIndication(buffer_of(sent.substr(0, 1500))), Success);
  ASSERT_EQ(socket->DataIndication(buffer_of(sent.substr(1500))), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
  EXPECT_EQ(console.count("Main send()"), 0);
}

TEST_F(SocketDirect, APeerThatResetsWhileQueuedDataIsSentRaisesNoSignal) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  Gate connected;
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind == Indication::kConnect) connected.wait();
  });
  for (int i = 0; i < 4; ++i) ASSERT_EQ(socket->DataIndication(buffer_of(numbered_bytes(1500))), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  peer.reset();
  ASSERT_TRUE(wait_for_events(socket->s, POLLHUP));
  connected.open();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("connect", "disconnect(5,0)"));
  EXPECT_EQ(console.count("AsyncSocket::Main send() errno="), 4);
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

TEST_F(SocketDirect, AReportOfReadinessThatIsOutOfDateEndsNothing) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  const int s = socket->s;
  std::atomic<int> reports{0};
  calls().poll.replace([s, &reports](auto real, pollfd* fds, nfds_t count, int timeout_ms) {
    if (count != 1 || fds->fd != s || ++reports > 3) return real(fds, count, timeout_ms);
    fds->revents = POLLIN;
    return 1;
  });
  // The wait that has begun before is over with this.
  ASSERT_TRUE(peer.send_all("a"));
  ASSERT_TRUE(wait_until([&] { return reports > 3; }, kPatienceMs));
  ASSERT_TRUE(peer.send_all("b"));
  ASSERT_TRUE(layer.wait_for_bytes(2));
  EXPECT_EQ(layer.data(), "ab");
  EXPECT_TRUE(socket->Connected());
}

TEST_F(SocketDirect, AnAcceptedConnectionSendsWhatItWasGivenBeforeItWasAcknowledged) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  EXPECT_EQ(socket->DataIndication(buffer_of("early,")), Success);
  socket->ConnectAck();
  EXPECT_EQ(socket->DataIndication(buffer_of("late")), Success);
  EXPECT_EQ(peer.receive(10), "early,late");
  EXPECT_EQ(layer.count(), 0U);
}

// The ring's buffers are at home then: what is missing is one of the pools.
TEST_F(SocketDirect, WithoutAPoolBufferItWaitsToo) {
  for (const bool end_of_stream : {false, true}) {
    SCOPED_TRACE(end_of_stream);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = established_stream(&layer, &peer, false);
    socket->SetBigBuffers(!end_of_stream);
    console.clear();
    BufferDrought drought(cfg);
    if (end_of_stream) {
      peer.close();
    } else {
      ASSERT_TRUE(peer.send_all("small"));
    }
    ASSERT_TRUE(wait_until([this] { return !console.fatals().empty(); }, kPatienceMs));
    EXPECT_TRUE(is_calm(socket->thread));
    EXPECT_EQ(layer.count(), 0U);
    drought.end();
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_THAT(layer.story(), ElementsAre(end_of_stream ? "disconnect(5,0)" : "data:small"));
    socket.reset();
    console.clear();
  }
}

TEST_F(SocketDirect, LooksOnceASecondWhetherItIsToStop) {
  RecordingLayer layer;
  std::atomic<int> waited_ms{0};
  calls().poll.replace([&waited_ms](auto real, pollfd* fds, nfds_t count, int timeout_ms) {
    if (count == 1 && (fds->events & POLLPRI) != 0) waited_ms = timeout_ms;
    return real(fds, count, timeout_ms);
  });
  OwnedSocket socket = datagram_socket(&layer, false);
  EXPECT_TRUE(wait_until([&] { return waited_ms == 1000; }, kPatienceMs));
}

TEST_F(SocketDirect, SaysWhatItsWaitFoundWhenThatIsNothingToRead) {
  put_into(AsyncSocket::trace, 1);
  const struct {
    short found;
    const char* text;
  } rows[] = {{POLLPRI, "exception"}, {POLLIN | POLLPRI, "exception"}, {POLLOUT, "not ready"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = adopted_stream(&layer, &peer, false);
    const int s = socket->s;
    std::atomic<int> left{1};
    calls().poll.replace([&, s](auto real, pollfd* fds, nfds_t count, int timeout_ms) {
      if (count != 1 || fds->fd != s || left.fetch_sub(1) <= 0) return real(fds, count, timeout_ms);
      fds->revents = row.found;
      errno = 0;
      return 1;
    });
    const UWORD local = socket->LocalPort();
    socket->ConnectAck();
    ASSERT_TRUE(peer.send_all("data"));
    ASSERT_TRUE(layer.wait_for_bytes(4));
    EXPECT_THAT(layer.story(), ElementsAre("data:data"));
    EXPECT_EQ(console.count(line("%d AsyncSocket::Poll select() errno=0(%s) for 127.0.0.1:%u on 127.0.0.1:%u",
                                 s, row.text, peer.local_port(), local)),
              1);
    socket.reset();
    calls().poll.restore();
    console.clear();
  }
}

TEST_F(SocketDirect, AThreadThatHasEndedIsStartedAgain) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  const FailingReads interrupted(socket->s, EINTR, 1);
  ASSERT_TRUE(peer.send_all("patience"));
  const int threads = running_threads();
  socket->ConnectAck();
  ASSERT_TRUE(wait_until([&] { return !look_at(socket->running); }, kPatienceMs));
  RingBuffer* const ring = socket->ring;
  socket->StartTask();
  ASSERT_TRUE(layer.wait_for_bytes(8));
  EXPECT_EQ(socket->ring, ring) << "with the buffers that it has";
  EXPECT_TRUE(wait_until([threads] { return running_threads() == threads + 1; }))
      << "instead of the one before";
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
  const FailingSends failing(socket->s, EPIPE);
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
  OSTimerTrigger* const timer = socket->startRetry;
  EXPECT_NE(timer, nullptr);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "patience"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(socket->startRetry, timer) << "made once";
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

TEST_F(SocketDirect, TheRetryIsMeantForOneSocketAndRunsInsideTheSectionOfAllSockets) {
  OwnedSocket bare = direct_socket();
  StalledDispatcher dispatcher;  // the timer's own calls would come in between
  ASSERT_TRUE(dispatcher.stalled());
  std::atomic<int> attempts{0};
  calls().pthread_create.replace([&](auto, auto...) {
    ++attempts;
    return EAGAIN;
  });
  RecordingLayer layer;
  OwnedSocket socket = datagram_socket(&layer, false);
  EXPECT_EQ(attempts, 1);
  const auto retry = [&](ULONG generation) {
    AsyncSocket::StartRetry(reinterpret_cast<OSObj*>(socket.get()), nullptr, generation);
  };
  const ULONG own = socket->startRetry->value;
  EXPECT_NE(own, 0U) << "0 would mean any socket at that address";
  retry(own + 1);
  EXPECT_EQ(attempts, 1) << "a later socket at the address of a dead one";
  calls().pthread_create.restore();
  EnterCriticalSection(&AsyncSocket::cs);
  {
    WatchedThread other([&] { retry(own); });
    EXPECT_TRUE(other.blocked());
    EXPECT_EQ(socket->thread, 0U);
    LeaveCriticalSection(&AsyncSocket::cs);
    EXPECT_TRUE(other.finished_within(kPatienceMs));
  }
  EXPECT_NE(socket->thread, 0U);
}

TEST_F(SocketDirect, AThreadThatRunsIsNotStartedTwice) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer, false);
  const int threads = running_threads();
  const pthread_t thread = socket->thread;
  socket->StartTask();
  socket->StartTask();
  EXPECT_EQ(running_threads(), threads);
  EXPECT_EQ(socket->thread, thread);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "once"));
  ASSERT_TRUE(layer.wait_for(1));
}

TEST_F(SocketDirect, ItsThreadHasTheKernelsAttributes) {
  OwnedSocket bare = direct_socket();
  std::atomic<const pthread_attr_t*> given{nullptr};
  calls().pthread_create.replace([&given](auto real, pthread_t* thread, const pthread_attr_t* attributes,
                                          void* (*start)(void*), void* argument) {
    given = attributes;
    return real(thread, attributes, start, argument);
  });
  RecordingLayer layer;
  OwnedSocket socket = datagram_socket(&layer, false);
  EXPECT_EQ(given, &std_thread_attr);
}

TEST_F(SocketDirect, ADatagramSocketConnectsToNobodyByItself) {
  RecordingLayer layer;
  PeerUdp peer;
  std::atomic<int> connects{0};
  calls().connect.replace([&connects](auto real, int fd, const sockaddr* to, socklen_t length) {
    ++connects;
    return real(fd, to, length);
  });
  OwnedSocket socket = datagram_socket(&layer, false);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "hello"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(connects, 0);
  EXPECT_EQ(look_at(socket->state), SSInitial);
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
