// Data that is given to send before the stream is connected: kept in order, merged, and sent by the monitor thread.

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

class SocketEarlyData : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  static OwnedSocket stream_for(RecordingLayer* layer) {
    OwnedSocket socket = indirect_socket();
    socket->Bind(layer);
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    return socket;
  }
  /// From now on send of this descriptor goes through `filter`, which gets the count and answers how many bytes may go,
  /// or a negative errno value.
  static void filter_sends(int s, std::function<long(size_t)> filter) {
    calls().send.replace(
        [s, filter](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
          if (fd != s) return real(fd, bytes, count, flags);
          const long allowed = filter(count);
          if (allowed >= 0)
            return real(fd, bytes, static_cast<size_t>(allowed) < count ? allowed : count, flags);
          errno = static_cast<int>(-allowed);
          return -1;
        });
  }
};

TEST_F(SocketEarlyData, IsQueuedBeforeTheSocketIsEvenConnecting) {
  put_into(AsyncSocket::trace, 2);
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  EXPECT_EQ(socket->DataIndication(buffer_of("early")), Success);
  EXPECT_THAT(early_data(socket.get()), ElementsAre("early"));
  EXPECT_EQ(console.count("AsyncSocket::DataIndication - Queuing buffer"), 1);
}

TEST_F(SocketEarlyData, SmallWritesAreMergedUpTo1400Bytes) {
  const struct {
    std::vector<std::size_t> written;
    std::vector<std::size_t> queued;
  } rows[] = {
      {{1000}, {1000}},
      {{1000, 100}, {1100}},
      {{1000, 400}, {1400}},
      {{1000, 401}, {1400, 1}},
      {{1000, 1000}, {1400, 600}},
      {{1000, 1000, 100}, {1400, 700}},
      {{1400, 10}, {1400, 10}},
      {{1500, 10}, {1500, 10}},
      {{1000, 100, 100, 100, 100}, {1400}},
      {{700, 700, 700, 700}, {1400, 1400}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.written));
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    std::string written, queued_bytes;
    std::vector<std::size_t> queued_sizes;
    unsigned seed = 1;
    for (const std::size_t size : row.written) {
      const std::string text = numbered_bytes(size, seed++);
      written += text;
      ASSERT_EQ(socket->DataIndication(buffer_of(text)), Success);
    }
    for (const std::string& text : early_data(socket.get())) {
      queued_sizes.push_back(text.size());
      queued_bytes += text;
    }
    EXPECT_EQ(queued_sizes, row.queued);
    EXPECT_TRUE(queued_bytes == written);
  }
}

TEST_F(SocketEarlyData, IsSentInOrderOnceConnectedAndTheLayerHearsOfTheConnectionFirst) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  std::string sent;
  for (unsigned i = 0; i < 30; ++i) {
    const std::string text = numbered_bytes(37 * i + 1, i);
    sent += text;
    ASSERT_EQ(socket->DataIndication(buffer_of(text)), Success);
  }
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
  ASSERT_TRUE(peer.send_all("thanks"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:thanks"));
  EXPECT_THAT(early_data(socket.get()), IsEmpty());
}

TEST_F(SocketEarlyData, SmallWritesGoOutInFewSends) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const std::string first = numbered_bytes(1000, 1);
  ASSERT_EQ(socket->DataIndication(buffer_of(first)), Success);
  std::string sent = first;
  for (unsigned i = 0; i < 20; ++i) {
    ASSERT_EQ(socket->DataIndication(buffer_of("twenty bytes of text")), Success);
    sent += "twenty bytes of text";
  }
  std::atomic<int> sends{0};
  filter_sends(socket->s, [&sends](size_t count) {
    ++sends;
    return static_cast<long>(count);
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
  EXPECT_EQ(sends, 1);
}

TEST_F(SocketEarlyData, APartialSendKeepsTheRestInFront) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  const std::string sent = numbered_bytes(1500, 1) + numbered_bytes(1500, 2);
  ASSERT_EQ(socket->DataIndication(buffer_of(sent.substr(0, 1500))), Success);
  ASSERT_EQ(socket->DataIndication(buffer_of(sent.substr(1500))), Success);
  std::atomic<int> sends{0};
  filter_sends(s, [&sends](size_t) { return ++sends < 5 ? 100L : 100000L; });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
  for (const int left : {1500, 1400, 1300, 1200}) {
    EXPECT_EQ(
        console.count(line("%d AsyncSocket::MonitorThread - partial send (100/%d) to 127.0.0.1:%u from ", s,
                           left, listener.port())),
        1);
  }
  EXPECT_EQ(console.count("partial send"), 4);
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread)) << "the socket is no more waited for";
}

TEST_F(SocketEarlyData, AFullSystemIsWaitedFor) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  std::atomic<int> refusals{4};
  filter_sends(socket->s, [&refusals](size_t count) -> long {
    const int left = refusals--;
    if (left <= 0) return static_cast<long>(count);
    return left % 2 == 0 ? -EAGAIN : -EINTR;
  });
  ASSERT_EQ(socket->DataIndication(buffer_of("patient")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_EQ(peer.receive(7), "patient");
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(layer.count(), 1U);
  EXPECT_EQ(console.count("MonitorThread - send()"), 0);
}

TEST_F(SocketEarlyData, MuchOfItGoesOutWhileThePeerReadsSlowly) {
  PeerListener listener;
  listener.set_receive_buffer(4096);
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const std::string sent = numbered_bytes(60000);
  ASSERT_EQ(socket->DataIndication(buffer_of(sent)), Success);
  ASSERT_EQ(socket->DataIndication(buffer_of("behind")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_TRUE(peer.receive(sent.size()) == sent);
  EXPECT_EQ(peer.receive(6), "behind");
}

TEST_F(SocketEarlyData, AFailedSendEndsTheStream) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  std::atomic<int> attempts{0};
  filter_sends(s, [&attempts](size_t) -> long {
    ++attempts;
    return -ECONNRESET;
  });
  ASSERT_EQ(socket->DataIndication(buffer_of("never arrives")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(wait_until([&] { return look_at(socket->state) == SSDisconnected; }, kPatienceMs));
  const UWORD own = local_port_of(s);
  EXPECT_TRUE(wait_until(
      [&] {
        return console.count(
                   line("%d AsyncSocket::MonitorThread - send() errno=104 to 127.0.0.1:%u from 127.0.0.1:%u",
                        s, listener.port(), own)) == 1;
      },
      kPatienceMs));
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread)) << "what is left is not waited to be sent";
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(attempts, 1);
  EXPECT_EQ(layer.count(Indication::kDisconnect), 1U);
  EXPECT_EQ(layer.at(0).text(), "connect");
}

TEST_F(SocketEarlyData, IsFreedWhenTheConnectionIsRefused) {
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->DataIndication(buffer_of("nobody")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,111)"));
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
  socket->Close();
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_F(SocketEarlyData, LaterDataWaitsForItsTurn) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  std::atomic<bool> full{true};
  std::atomic<int> refused{0};
  filter_sends(socket->s, [&](size_t count) -> long {
    if (!full) return static_cast<long>(count);
    ++refused;
    return -EAGAIN;
  });
  ASSERT_EQ(socket->DataIndication(buffer_of("first,")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(layer.wait_for_connect());
  ASSERT_TRUE(wait_until([&] { return refused > 0; }, kPatienceMs));
  std::atomic<OSIORetCode> answer{Blocked};
  WatchedThread sender([&] { answer = socket->DataIndication(buffer_of("second,")); });
  EXPECT_TRUE(sender.blocked());
  EXPECT_EQ(peer.receive_now(), "");
  full = false;
  EXPECT_EQ(peer.receive(13), "first,second,");
  ASSERT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_EQ(answer, Success);
}

TEST_F(SocketEarlyData, NoOrderIsLostWhereQueuedAndDirectSendingMeet) {
  for (unsigned round = 0; round < 30; ++round) {
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
    std::string sent;
    // Somewhere among these the connection comes up.
    for (unsigned i = 0; i < 60; ++i) {
      const std::string text = numbered_bytes(50 + i, round * 100 + i);
      sent += text;
      ASSERT_EQ(socket->DataIndication(buffer_of(text)), Success);
    }
    PeerStream peer = listener.accept();
    ASSERT_TRUE(peer.receive(sent.size()) == sent) << round;
  }
}

TEST_F(SocketEarlyData, GivenInsideTheConnectIndicationItKeepsItsPlaceToo) {
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

}  // namespace
