// Sending on a stream: at once on the caller's thread, waiting for room, and what a failure does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "support/freed_inside.h"
#include "support/interposed_calls.h"
#include "support/link_drought.h"
#include "support/section_wait.h"
#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SocketSend : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  bool indirect() const { return GetParam(); }
  OwnedSocket established(RecordingLayer* layer, PeerStream* peer) {
    return established_stream(layer, peer, indirect());
  }
  /// How often exactly this line has been printed.
  long said(const std::string& text) const {
    const std::vector<std::string> lines = console.calls();
    return std::count(lines.begin(), lines.end(), text);
  }
  /// Connected, and nobody receives: what the peer does is not noticed before the next send.
  OwnedSocket deaf(RecordingLayer* layer, PeerStream* peer) {
    OwnedSocket socket = adopted_stream(layer, peer, indirect());
    put_into(socket->state, static_cast<int>(SSConnected));
    return socket;
  }
  /// Answers send of one descriptor: the n-th call, from 1, may send so many bytes or fails with a negative errno.
  void answer_sends(int s, std::function<long(int n, size_t count)> answer) {
    sends_ = 0;
    calls().send.replace(
        [this, s, answer](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
          if (fd != s) return real(fd, bytes, count, flags);
          const long allowed = answer(++sends_, count);
          if (allowed >= 0)
            return real(fd, bytes, static_cast<size_t>(allowed) < count ? allowed : count, flags);
          errno = static_cast<int>(-allowed);
          return -1;
        });
  }
  /// Says what becomes of waits on this descriptor for room: an errno, 0 for what the system says, or kReady.
  static constexpr int kReady = -1;
  void answer_waits(int s, std::function<int()> answer) {
    calls().poll.replace([s, answer](auto real, pollfd* fds, nfds_t count, int timeout_ms) {
      for (nfds_t i = 0; i < count; ++i) {
        if (fds[i].fd == s && (fds[i].events & POLLOUT) != 0) {
          const int outcome = answer();
          if (outcome == kReady) {
            fds[i].revents = POLLOUT;
            return 1;
          }
          errno = outcome;
          if (errno != 0) return -1;
        }
      }
      return real(fds, count, timeout_ms);
    });
    calls().select.replace(
        [s, answer](auto real, int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
          if (writes != nullptr && s < count && FD_ISSET(s, writes)) {
            const int outcome = answer();
            if (outcome == kReady) return 1;
            errno = outcome;
            if (errno != 0) return -1;
          }
          return real(count, reads, writes, excepts, timeout);
        });
  }

  std::atomic<int> sends_{0};
};

TEST_P(SocketSend, SendsAtOnceOnTheCallersThread) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(PoolState::now().buffers_out, 0) << "the buffer is free when the call returns";
  EXPECT_EQ(peer.receive(5), "hello");
}

TEST_P(SocketSend, ExpeditedDataIsDataLikeAnyOther) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  EXPECT_EQ(socket->DataIndication(buffer_of("first,")), Success);
  EXPECT_EQ(socket->DataExpeditedIndication(buffer_of("second")), Success);
  EXPECT_EQ(peer.receive(12), "first,second");
}

TEST_P(SocketSend, ExpeditedDataGoesThroughTheSubclass) {
  class Doubling : public AsyncSocket {
   public:
    using AsyncSocket::AsyncSocket;
    OSIORetCode DataIndication(OSBuf* buf) override {
      const OSIORetCode answer = AsyncSocket::DataIndication(buf->Duplicate());
      AsyncSocket::DataIndication(buf);
      return answer == Success ? BufferContainsResult : answer;
    }
  };
  RecordingLayer layer;
  PeerStream peer;
  Owned<Doubling> socket(new Doubling(indirect()));
  adopt_stream(socket.get(), &layer, &peer);
  socket->ConnectAck();
  EXPECT_EQ(socket->DataExpeditedIndication(buffer_of("x")), BufferContainsResult);
  EXPECT_EQ(peer.receive(2), "xx");
}

TEST_P(SocketSend, AnEmptyBufferSendsNothing) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  answer_sends(socket->s, [](int, size_t count) { return static_cast<long>(count); });
  EXPECT_EQ(socket->DataIndication(buffer_of("")), Success);
  EXPECT_EQ(sends_, 0);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSend, ALargeBufferGoesOutWhole) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  const std::string sent = numbered_bytes(65535);
  WatchedThread sender([&] { EXPECT_EQ(socket->DataIndication(buffer_of(sent)), Success); });
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
}

TEST_P(SocketSend, LengthsThatMarkBuffersElsewhereAreOrdinary) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  for (const std::size_t size : {21845U, 43690U}) {
    const std::string sent = numbered_bytes(size);
    WatchedThread sender([&] { EXPECT_EQ(socket->DataIndication(buffer_of(sent)), Success); });
    EXPECT_TRUE(peer.receive(size) == sent);
  }
}

TEST_P(SocketSend, APartialSendGoesOnWithTheRest) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  answer_sends(socket->s, [](int n, size_t) { return n < 20 ? 7L : 100000L; });
  const std::string sent = numbered_bytes(1500);
  EXPECT_EQ(socket->DataIndication(buffer_of(sent)), Success);
  EXPECT_EQ(sends_, 20);
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
}

TEST_P(SocketSend, WaitsWhileThereIsNoRoom) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  const std::string piece = numbered_bytes(60000);
  std::string expected;
  for (int i = 0; i < 150; ++i) expected += piece;
  std::atomic<int> failed{0};
  WatchedThread sender([&] {
    for (int i = 0; i < 150; ++i) failed += socket->DataIndication(buffer_of(piece)) == Success ? 0 : 1;
  });
  EXPECT_TRUE(sender.blocked());
  EXPECT_TRUE(peer.receive(expected.size()) == expected);
  EXPECT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_EQ(failed, 0);
}

TEST_P(SocketSend, NoRoomAfterAllIsWaitedForAgain) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  answer_sends(socket->s,
               [](int n, size_t count) -> long { return n <= 5 ? -EAGAIN : static_cast<long>(count); });
  EXPECT_EQ(socket->DataIndication(buffer_of("patient")), Success);
  EXPECT_EQ(sends_, 6);
  EXPECT_EQ(peer.receive(7), "patient");
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(SocketSend, AnErrorDisconnectsWithItsCode) {
  for (const int error : {EPIPE, ECONNRESET, ENOBUFS}) {
    SCOPED_TRACE(error);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = deaf(&layer, &peer);
    const int s = socket->s;
    answer_sends(s, [error](int n, size_t) -> long { return n == 1 ? 2 : -error; });
    EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_THAT(layer.story(), ElementsAre("disconnect(4," + std::to_string(error) + ")"));
    EXPECT_EQ(look_at(socket->state), SSDisconnected);
    EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: send() errno=%d to 127.0.0.1:%u from 127.0.0.1:%u",
                        s, error, peer.local_port(), socket->LocalPort())),
              1);
    EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
    EXPECT_EQ(layer.count(), 1U);
    console.clear();
  }
}

TEST_P(SocketSend, TheErrorComesBehindWhatWasReceivedBefore) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  const int s = socket->s;
  ASSERT_TRUE(peer.send_all("before"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  answer_sends(s, [](int, size_t) -> long { return -EPIPE; });
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_THAT(layer.story(), ElementsAre("data:before", "disconnect(4,32)"));
}

TEST_P(SocketSend, APeerThatIsGoneRaisesNoSignal) {
  struct sigaction deadly = {}, before = {};
  deadly.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &deadly, &before);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  peer.reset();
  // The first send may still be told of the reset; the next one finds the pipe broken.
  OSIORetCode answer = Success;
  for (int i = 0; i < 1000 && answer == Success; ++i) answer = socket->DataIndication(buffer_of("anybody"));
  EXPECT_EQ(answer, Blocked);
  put_into(socket->state, static_cast<int>(SSConnected));
  EXPECT_EQ(socket->DataIndication(buffer_of("anybody")), Blocked);
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_EQ(layer.all().back().text(), "disconnect(4,32)");
  sigaction(SIGPIPE, &before, nullptr);
}

TEST_P(SocketSend, EarlyDataToAPeerThatIsGoneRaisesNoSignal) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket(new AsyncSocket(indirect()));
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  for (int i = 0; i < 20; ++i) ASSERT_EQ(socket->DataIndication(buffer_of(numbered_bytes(1500))), Success);
  answer_sends(socket->s, [&](int n, size_t) {
    if (n == 1) listener.accept().reset();
    return n < 4 ? 100L : 100000L;
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_connect());
  ASSERT_TRUE(layer.wait_for_disconnect());
}

TEST_P(SocketSend, OnADisconnectedSocketNothingIsSent) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  answer_sends(socket->s, [](int, size_t count) { return static_cast<long>(count); });
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
  EXPECT_EQ(socket->DataExpeditedIndication(buffer_of("too late")), NoConnection);
  EXPECT_EQ(sends_, 0);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSend, WithoutADescriptorFailsWithCodeZero) {
  RecordingLayer layer;
  OwnedSocket socket(new AsyncSocket(indirect()));
  socket->Bind(&layer);
  socket->type = SOCK_STREAM;
  put_into(socket->state, static_cast<int>(SSConnected));
  EXPECT_EQ(socket->DataIndication(buffer_of("where to")), Blocked);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
}

TEST_P(SocketSend, InTheMiddleOfAHandshakeFailsWithCodeZero) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  put_into(socket->secure_state, static_cast<int>(SecHandshake));
  EXPECT_EQ(socket->DataIndication(buffer_of("plain text")), Blocked);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
  EXPECT_EQ(peer.receive_now(), "");
}

TEST_P(SocketSend, AFailedWaitDisconnectsWithItsCode) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  const int s = socket->s;
  answer_sends(s, [](int, size_t) -> long { return -EAGAIN; });
  answer_waits(s, [] { return ENOMEM; });
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,12)"));
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: select() error 12", s)), 1);
}

TEST_P(SocketSend, AnUrgentByteThatWaitsIsAnErrorForOneThatWaitsToSend) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  const int s = socket->s;
  ASSERT_TRUE(peer.send_urgent('!'));
  ASSERT_TRUE(wait_for_events(s, POLLPRI));
  answer_sends(s, [](int, size_t) -> long { return -EAGAIN; });
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: select() error on socket", s)), 1);
}

TEST_P(SocketSend, ASocketThatIsClosedMeanwhileLetsItsSenderGo) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  const std::string piece = numbered_bytes(60000);
  // Between two sends, what comes next would wait for the next connection.
  Gate waits_for_room;
  answer_waits(socket->s, [&waits_for_room] {
    waits_for_room.open();
    return 0;
  });
  std::atomic<OSIORetCode> answer{Success};
  WatchedThread sender([&] {
    while (answer == Success) answer = socket->DataIndication(buffer_of(piece));
  });
  ASSERT_TRUE(waits_for_room.wait());
  ASSERT_TRUE(sender.blocked());
  socket->Close();
  EXPECT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_NE(answer, Success);
}

TEST_P(SocketSend, ASenderThatFindsTheSocketClosedAfterItsWaitSaysSo) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  const int s = socket->s;
  answer_sends(s, [](int, size_t) -> long { return -EAGAIN; });
  answer_waits(s, [&] {
    WatchedThread closing([&] { socket->Close(); });
    EXPECT_TRUE(closing.finished_within(kPatienceMs));
    return kReady;  // the number of the descriptor may be another's by now, which is not ready
  });
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: socket closed while waiting to send", s)), 1);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
}

TEST_P(SocketSend, ASenderThatFindsAnotherConnectionAfterItsWaitLeavesItAlone) {
  RecordingLayer layer;
  PeerStream peer, next_peer;
  OwnedSocket socket = deaf(&layer, &peer);
  const int s = socket->s;
  answer_sends(s, [](int, size_t) -> long { return -EAGAIN; });
  std::atomic<bool> reused{false};
  answer_waits(s, [&] {
    if (reused.exchange(true)) return 0;
    WatchedThread reusing([&] {
      socket->Close();
      adopt_stream(socket.get(), &layer, &next_peer);
      socket->ConnectAck();
      answer_sends(-1, nullptr);
    });
    EXPECT_TRUE(reusing.finished_within(kPatienceMs));
    return 0;
  });
  EXPECT_EQ(socket->DataIndication(buffer_of("for the old one")), Blocked);
  EXPECT_EQ(socket->DataIndication(buffer_of("for the new one")), Success);
  EXPECT_EQ(next_peer.receive(15), "for the new one");
  EXPECT_THAT(layer.story(), IsEmpty());
}

TEST_P(SocketSend, ASenderThatFindsAConnectionInTheMakingAfterItsWaitQueuesNothingForIt) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  const int s = socket->s;
  answer_sends(s, [](int, size_t) -> long { return -EAGAIN; });
  std::atomic<bool> reused{false};
  answer_waits(s, [&] {
    if (reused.exchange(true)) return 0;
    WatchedThread reusing([&] {
      socket->Close();
      EXPECT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
      EXPECT_EQ(socket->DataIndication(buffer_of("for the new one")), Success);
    });
    EXPECT_TRUE(reusing.finished_within(kPatienceMs));
    return 0;
  });
  EXPECT_EQ(socket->DataIndication(buffer_of("for the old one")), Blocked);
  calls().restore_all();
  PeerListener listener;
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream next_peer = listener.accept();
  EXPECT_EQ(next_peer.receive(15), "for the new one");
  socket->Shutdown();
  EXPECT_TRUE(next_peer.ended()) << "and nothing more";
}

TEST_P(SocketSend, NothingClosesTheDescriptorThatASenderIsWritingTo) {
  // Its number could be another socket's before the bytes are on their way.
  const struct {
    const char* name;
    std::function<void(AsyncSocket&)> operation;
  } rows[] = {
      {"Close", [](AsyncSocket& socket) { socket.Close(); }},
      {"Shutdown", [](AsyncSocket& socket) { socket.Shutdown(); }},
      {"DisconnectIndication", [](AsyncSocket& socket) { socket.DisconnectIndication(Normal, 0); }},
      {"Connect", [](AsyncSocket& socket) { socket.Connect("", 1); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = deaf(&layer, &peer);
    Gate inside, door;
    answer_sends(socket->s, [&](int, size_t count) {
      inside.open();
      door.wait();
      return static_cast<long>(count);
    });
    WatchedThread sender([&] { EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success); });
    ASSERT_TRUE(inside.wait());
    WatchedThread other([&] { row.operation(*socket); });
    EXPECT_TRUE(other.blocked());
    door.open();
    EXPECT_TRUE(other.finished_within(kPatienceMs));
    EXPECT_EQ(peer.receive(5), "hello");
  }
}

TEST_P(SocketSend, ASenderThatHadToWaitForTheSectionLooksAtTheStateAgain) {
  const struct {
    SocketState state;
    OSIORetCode answer;
    const char* sent;
    std::vector<std::string> queued;
  } rows[] = {
      {SSInitial, Success, "", {"hello"}},
      {SSConnecting, Success, "", {"hello"}},
      {SSConnected, Success, "hello", {}},
      {SSDisconnected, NoConnection, "", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.state);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
    std::atomic<OSIORetCode> answer{Blocked};
    EnterCriticalSection(&socket->local_cs);
    WatchedThread sender([&] { answer = socket->DataIndication(buffer_of("hello")); });
    EXPECT_TRUE(sender.blocked());
    put_into(socket->state, static_cast<int>(row.state));
    LeaveCriticalSection(&socket->local_cs);
    ASSERT_TRUE(sender.finished_within(kPatienceMs));
    EXPECT_EQ(answer, row.answer);
    EXPECT_EQ(early_data(socket.get()), row.queued);
    EXPECT_EQ(peer.receive_now(), row.sent);
    EXPECT_EQ(PoolState::now().buffers_out, static_cast<int>(row.queued.size()));
    EXPECT_EQ(layer.count(), 0U);
  }
}

TEST_P(SocketSend, BeforeThereIsADescriptorDataWaitsToo) {
  OwnedSocket socket(new AsyncSocket(indirect()));
  put_into(AsyncSocket::trace, 1);
  console.clear();
  EXPECT_EQ(socket->DataIndication(buffer_of("early")), Success);
  EXPECT_THAT(early_data(socket.get()), ElementsAre("early"));
  EXPECT_EQ(console.count("DataIndication"), 0) << "that it waits is said at level 2";
  put_into(AsyncSocket::trace, 2);
  EXPECT_EQ(socket->DataIndication(buffer_of(",more")), Success);
  EXPECT_EQ(said("AsyncSocket::DataIndication - Queuing buffer"), 1);
  EXPECT_THAT(early_data(socket.get()), ElementsAre("early,more"));
}

TEST_P(SocketSend, WhatCannotBeQueuedIsRefused) {
  OwnedSocket socket(new AsyncSocket(indirect()));
  OSBuf* const buf = buffer_of("early");
  {
    const LinkDrought drought;
    EXPECT_EQ(socket->DataIndication(buf), NoConnection);
  }
  expected_fatals = {kOutOfLinks};
  EXPECT_THAT(early_data(socket.get()), IsEmpty());
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSend, AConnectedStreamNeedsNoSectionToSend) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = deaf(&layer, &peer);
  EnterCriticalSection(&AsyncSocket::cs);
  EnterCriticalSection(&socket->local_cs);
  {
    WatchedThread sender([&] { EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success); });
    EXPECT_TRUE(sender.finished_within(kPatienceMs));
  }
  LeaveCriticalSection(&socket->local_cs);
  LeaveCriticalSection(&AsyncSocket::cs);
  EXPECT_EQ(peer.receive(5), "hello");
}

TEST_P(SocketSend, AcknowledgingWaitsForASenderThatIsAboutToQueue) {
  // Otherwise what it queues behind the look for it would stay, and hold up everything that is sent after it.
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  ExpectOthersWait(socket->local_cs, {{"ConnectAck", [&] {
                                         EXPECT_EQ(look_at(socket->state), SSInitial);
                                         EXPECT_EQ(socket->ConnectAck(), 0);
                                       }}});
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

TEST_P(SocketSend, SaysWhatItSends) {
  put_into(AsyncSocket::trace, 2);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(console.count("68 65 6c 6c 6f"), 1) << "the bytes follow";
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication - Sending 5 bytes to 127.0.0.1:%u from 127.0.0.1:%u",
                      socket->s, peer.local_port(), socket->LocalPort())),
            1);
  put_into(AsyncSocket::trace, 1);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(console.count("Sending 5 bytes"), 1) << "only at level 2";
}

TEST_P(SocketSend, ManyThreadsSendWithoutLosingAByte) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  constexpr int kThreads = 4, kMessages = 300;
  std::vector<std::thread> senders;
  for (int i = 0; i < kThreads; ++i) {
    senders.emplace_back([&socket, i] {
      for (int n = 0; n < kMessages; ++n) {
        EXPECT_EQ(socket->DataIndication(buffer_of(std::string(10, static_cast<char>('a' + i)))), Success);
      }
    });
  }
  const std::string got = peer.receive(kThreads * kMessages * 10);
  for (std::thread& sender : senders) sender.join();
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(std::count(got.begin(), got.end(), static_cast<char>('a' + i)), kMessages * 10);
  }
}

TEST_P(SocketSend, BothWaysAtOnce) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established(&layer, &peer);
  const std::string there = numbered_bytes(400000, 1), back = numbered_bytes(400000, 2);
  std::thread sender([&] {
    for (std::size_t at = 0; at < there.size(); at += 1000) {
      EXPECT_EQ(socket->DataIndication(buffer_of(there.substr(at, 1000))), Success);
    }
  });
  std::thread answering([&] { EXPECT_TRUE(peer.send_all(back)); });
  EXPECT_TRUE(peer.receive(there.size()) == there);
  EXPECT_TRUE(layer.wait_for_bytes(back.size()));
  sender.join();
  answering.join();
  EXPECT_TRUE(layer.data() == back);
}

/// Sends what it is told to when a buffer of its is freed: on the thread that has sent it.
struct SentNext {
  AsyncSocket* socket = nullptr;
  std::string text;
  std::atomic<OSIORetCode> answer{NoConnection};
  std::atomic<bool> done{false};

  static void freed(OSObj* obj, ADDR, ULONG) {
    auto* self = reinterpret_cast<SentNext*>(obj);
    self->answer = self->socket->DataIndication(buffer_of(self->text));
    self->done = true;
  }
};

using SocketSendIndirect = SocketSend;

TEST_P(SocketSendIndirect, ABufferThatIsMergedIsFreedOutsideTheSocketsSection) {
  OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  ASSERT_EQ(socket->DataIndication(buffer_of("first")), Success);
  OSBuf* const second = buffer_of("second");
  FreedInside freed{&socket->local_cs};
  second->AddBufferCallback(OSCallback::Alloc(nullptr, FreedInside::note, nullptr, &freed, 0));
  ASSERT_EQ(socket->DataIndication(second), Success);
  EXPECT_EQ(freed.calls, 1);
  EXPECT_EQ(freed.inside, 0)
      << "its callbacks are the program's, and may enter what comes before the section";
}

TEST_P(SocketSendIndirect, TheMonitorThreadNeitherWaitsForRoomNorForItsOwnTurn) {
  for (const bool more_queued : {false, true}) {
    SCOPED_TRACE(more_queued ? "behind what is queued" : "without room");
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = indirect_socket();
    MonitorBeat beat;
    socket->Bind(&layer);
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    SentNext next;
    next.socket = socket.get();
    next.text = "last";
    std::atomic<bool> full{true};
    answer_sends(socket->s, [&full](int n, size_t count) -> long {
      return n == 1 || !full ? static_cast<long>(count) : -EAGAIN;
    });
    const std::string piece = numbered_bytes(1400);  // two of them are not merged
    OSBuf* const first = buffer_of(piece);
    first->AddBufferCallback(
        OSCallback::Alloc(nullptr, SentNext::freed, reinterpret_cast<OSObj*>(&next), nullptr, 0));
    ASSERT_EQ(socket->DataIndication(first), Success);
    if (more_queued) {
      ASSERT_EQ(socket->DataIndication(buffer_of(piece)), Success);
    }
    ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
    PeerStream peer = listener.accept();
    ASSERT_TRUE(wait_until([&] { return next.done.load(); }, kPatienceMs));
    EXPECT_EQ(next.answer, Success);
    EXPECT_TRUE(beat.passes()) << "the others are served";
    full = false;
    const std::string expected = piece + (more_queued ? piece : "") + "last";
    EXPECT_TRUE(peer.receive(expected.size()) == expected);
  }
}

/// Sends back what it receives, on the monitor thread itself.
class Answering : public AsyncSocket {
 public:
  Answering() : AsyncSocket(true) {}
  void ProcessData(OSBuf* buf) override {
    const bool data = buf->length != 0;
    answer = DataIndication(buf);
    if (data) ++answered;
  }
  std::atomic<OSIORetCode> answer{NoConnection};
  std::atomic<int> answered{0};
};

TEST_P(SocketSendIndirect, WhatTheMonitorThreadCouldNotSendGoesOutWhenThereIsRoom) {
  RecordingLayer layer;
  PeerStream peer;
  MonitorBeat beat;
  Owned<Answering> socket(new Answering);
  adopt_stream(socket.get(), &layer, &peer);
  std::atomic<bool> full{true};
  answer_sends(socket->s,
               [&full](int, size_t count) -> long { return full ? -EAGAIN : static_cast<long>(count); });
  socket->ConnectAck();
  ASSERT_TRUE(peer.send_all("hello"));
  ASSERT_TRUE(wait_until([&] { return socket->answered == 1; }, kPatienceMs));
  EXPECT_EQ(socket->answer, Success);
  EXPECT_TRUE(beat.passes()) << "the others are served";
  full = false;
  EXPECT_EQ(peer.receive(5), "hello");
}

TEST_P(SocketSendIndirect, LaterDataWaitsBehindEveryBufferThatIsQueued) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  // The first buffer goes out, then there is room for nobody but the thread that comes late.
  std::atomic<bool> full{true};
  std::atomic<pid_t> late{0};
  answer_sends(socket->s, [&](int n, size_t count) -> long {
    return n == 1 || !full || gettid() == late ? static_cast<long>(count) : -EAGAIN;
  });
  const std::string piece = numbered_bytes(1400);  // two of them are not merged
  ASSERT_EQ(socket->DataIndication(buffer_of(piece)), Success);
  ASSERT_EQ(socket->DataIndication(buffer_of(piece)), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.receive(piece.size()) == piece);
  ASSERT_TRUE(wait_until([&] { return early_data(socket.get()).size() == 1; }, kPatienceMs));
  WatchedThread sender([&] {
    late = gettid();
    EXPECT_EQ(socket->DataIndication(buffer_of("late")), Success);
  });
  EXPECT_TRUE(sender.blocked());
  EXPECT_EQ(peer.receive_now(), "");
  full = false;
  EXPECT_TRUE(peer.receive(piece.size() + 4) == piece + "late");
  EXPECT_TRUE(sender.finished_within(kPatienceMs));
}

INSTANTIATE_TEST_SUITE_P(, SocketSendIndirect, testing::Values(true));

INSTANTIATE_TEST_SUITE_P(, SocketSend, testing::Values(true, false),
                         [](const auto& kind) { return std::string(kind.param ? "Indirect" : "Direct"); });

}  // namespace
