// Flow control: with ten received buffers waiting a socket is read no longer, with two left it is read again.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// The dispatcher is the test itself: until it dispatches, nothing leaves a socket's queue.
class SocketFlow : public QuietNetworkTest {
 protected:
  void SetUp() override {
    QuietNetworkTest::SetUp();
    put_into(AsyncSocket::trace, trace_);
  }
  /// Sends so many small messages to a stream socket, each of which becomes one buffer.
  void fill(AsyncSocket* socket, PeerStream* peer, int count) {
    for (int i = 0; i < count; ++i) {
      const int before = queued(socket);
      ASSERT_TRUE(peer->send_all(std::string(1, static_cast<char>('a' + sent_++))));
      ASSERT_TRUE(wait_until([&] { return queued(socket) == before + 1; }, kPatienceMs)) << i;
    }
  }

  int trace_ = 0;
  int sent_ = 0;
};

TEST_F(SocketFlow, AStreamIsReadUntilTenBuffersWait) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  fill(socket.get(), &peer, 9);
  EXPECT_FALSE(look_at(socket->dont_read));
  fill(socket.get(), &peer, 1);
  EXPECT_TRUE(look_at(socket->dont_read));
  ASSERT_TRUE(peer.send_all("later"));
  ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket->s) == 5; }, kPatienceMs));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(queued(socket.get()), 10);
  EXPECT_EQ(bytes_waiting(socket->s), 5) << "the rest stays in the system";
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread)) << "what is not wanted does not keep the thread busy";
  ASSERT_TRUE(dispatch_until([&] { return layer.data().size() == 15; }));
  EXPECT_EQ(layer.data(), "abcdefghijlater");
  EXPECT_FALSE(look_at(socket->dont_read));
}

TEST_F(SocketFlow, ADatagramSocketIsHeldBackToo) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer);
  std::vector<std::string> sent;
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(look_at(socket->dont_read)) << i;
    sent.push_back("datagram:" + std::to_string(i));
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
    ASSERT_TRUE(wait_until([&] { return queued(socket.get()) == i + 1; }, kPatienceMs));
  }
  EXPECT_TRUE(look_at(socket->dont_read));
  for (int i = 10; i < 15; ++i) {
    sent.push_back("datagram:" + std::to_string(i));
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
  }
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(queued(socket.get()), 10);
  EXPECT_EQ(bytes_waiting(socket->s), 2) << "the eleventh waits in the system";
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 15; }));
  EXPECT_EQ(layer.story(), sent);
}

TEST_F(SocketFlow, ReadingGoesOnWithTwoBuffersLeftNotEarlier) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  AsyncSocket* const raw = socket.get();
  std::vector<bool> held_back;
  layer.set_hook([&](const Indication&) { held_back.push_back(look_at(raw->dont_read)); });
  fill(raw, &peer, 10);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 10; }));
  EXPECT_THAT(held_back, ElementsAre(true, true, true, true, true, true, true, false, false, false));
}

TEST_F(SocketFlow, WhatTheSystemHeldIsReadWhileTheLayerIsStillBusy) {
  // With two left the monitor thread reads on, although the dispatcher has not come back.
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  AsyncSocket* const raw = socket.get();
  fill(raw, &peer, 10);
  ASSERT_TRUE(peer.send_all("later"));
  ASSERT_TRUE(wait_until([&] { return bytes_waiting(look_at(raw->s)) == 5; }, kPatienceMs));
  bool read_meanwhile = false;
  layer.set_hook([&](const Indication& indication) {
    if (indication.data == "i") {
      read_meanwhile = wait_until([&] { return bytes_waiting(look_at(raw->s)) == 0; }, kPatienceMs);
    }
  });
  ASSERT_TRUE(dispatch_until([&] { return layer.data().size() == 15; }));
  EXPECT_TRUE(read_meanwhile);
}

TEST_F(SocketFlow, AFastPeerAndNoConsumerDoNotEmptyThePools) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const std::string sent = numbered_bytes(100000);
  std::size_t at = 0;
  while (at < sent.size() && !look_at(socket->dont_read)) {
    ASSERT_TRUE(peer.send_all(std::string_view(sent).substr(at, 1000)));
    at += 1000;
  }
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_LE(queued(socket.get()), 10);
  EXPECT_LE(PoolState::now().buffers_out, 10 + 1) << "one more while the monitor thread counts its beat";
  ASSERT_TRUE(peer.send_all(std::string_view(sent).substr(at)));
  ASSERT_TRUE(dispatch_until([&] { return layer.data().size() == sent.size(); }));
  EXPECT_TRUE(layer.data() == sent);
}

TEST_F(SocketFlow, TheEndOfTheStreamWaitsBehindTheData) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  fill(socket.get(), &peer, 10);
  ASSERT_TRUE(peer.send_all("rest"));
  peer.close();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(look_at(socket->state), SSConnected) << "nobody has looked";
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kDisconnect) == 1; }));
  EXPECT_THAT(layer.story(), ElementsAre("data:abcdefghijrest", "disconnect(5,0)"));
}

TEST_F(SocketFlow, AResetPeerDoesNotKeepTheMonitorBusyWhileReadingIsHeldBack) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  fill(socket.get(), &peer, 10);
  peer.reset();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kDisconnect) == 1; }));
  EXPECT_THAT(layer.story(), ElementsAre("data:abcdefghij", "disconnect(5,0)"));
}

TEST_F(SocketFlow, OthersAreServedMeanwhile) {
  RecordingLayer layer, other_layer;
  PeerStream peer, other_peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  OwnedSocket other = established_stream(&other_layer, &other_peer);
  fill(socket.get(), &peer, 10);
  ASSERT_TRUE(peer.send_all("held back"));
  fill(other.get(), &other_peer, 5);
  EXPECT_FALSE(look_at(other->dont_read));
  ASSERT_TRUE(dispatch_until([&] { return other_layer.count() == 5 && layer.data().size() == 19; }));
}

TEST_F(SocketFlow, SendingGoesOnWhileReadingIsHeldBack) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  fill(socket.get(), &peer, 10);
  EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
  EXPECT_EQ(peer.receive(6), "answer");
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 10; }));
}

TEST_F(SocketFlow, AHeldBackSocketCanBeFreed) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  fill(socket.get(), &peer, 10);
  ASSERT_TRUE(peer.send_all("never read"));
  socket.reset();
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(layer.count(), 0U);
}

TEST_F(SocketFlow, FlowControlIsSetAndTakenBackAgainAndAgain) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  std::string expected;
  for (int round = 0; round < 20; ++round) {
    sent_ = 0;
    fill(socket.get(), &peer, 10);
    ASSERT_TRUE(look_at(socket->dont_read));
    expected += "abcdefghij";
    ASSERT_TRUE(dispatch_until([&] { return layer.data().size() == expected.size(); }));
  }
  EXPECT_EQ(layer.data(), expected);
}

class SocketFlowTraced : public SocketFlow {
 protected:
  SocketFlowTraced() { trace_ = 1; }
};

TEST_F(SocketFlowTraced, SaysWhenItHoldsBackAndWhenItGoesOn) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const std::string held = line("%d AsyncSocket::MonitorThread - dont_read set", socket->s);
  const std::string going_on = "AsyncSocket::_QCallback - waking monitor thread";
  fill(socket.get(), &peer, 9);
  EXPECT_EQ(console.count(held), 0);
  fill(socket.get(), &peer, 1);
  EXPECT_TRUE(wait_until([&] { return console.count(held) > 0; }, kPatienceMs));
  EXPECT_EQ(console.count(going_on), 0);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 10; }));
  EXPECT_EQ(console.count(going_on), 1);
}

using SocketFlowRunning = NetworkTest;

TEST_F(SocketFlowRunning, ASlowLayerKeepsTheSenderBack) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  Gate door;
  layer.set_hook([&](const Indication&) { door.wait(); });
  const std::string sent = numbered_bytes(200000);
  std::thread sender([&] { EXPECT_TRUE(peer.send_all(sent)); });
  EXPECT_TRUE(wait_until([&] { return look_at(socket->dont_read); }, kPatienceMs));
  EXPECT_LE(queued(socket.get()), 10);
  door.open();
  EXPECT_TRUE(layer.wait_for_bytes(sent.size()));
  sender.join();
  EXPECT_TRUE(layer.data() == sent);
}

}  // namespace
