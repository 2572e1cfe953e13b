// The layer frees the socket inside every kind of indication.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/interposed_calls.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

class SocketFreedInside : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  bool indirect() const { return GetParam(); }

  /// Frees the socket inside the first indication of the kind.
  void free_inside(OwnedSocket* socket, RecordingLayer* layer, Indication::Kind kind) {
    layer->set_hook([socket, kind](const Indication& indication) {
      if (indication.kind == kind && *socket != nullptr) socket->reset();
    });
  }
  OwnedSocket stream_for(RecordingLayer* layer) {
    OwnedSocket socket(new AsyncSocket(indirect()));
    socket->Bind(layer);
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    return socket;
  }
};

TEST_P(SocketFreedInside, TheConnectIndication) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  free_inside(&socket, &layer, Indication::kConnect);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  peer.send_all("never read");
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_TRUE(peer.ended());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
}

TEST_P(SocketFreedInside, TheConnectIndicationWithDataStillQueued) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(socket->DataIndication(buffer_of(numbered_bytes(1500))), Success);
  free_inside(&socket, &layer, Indication::kConnect);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_TRUE(peer.ended());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
}

TEST_P(SocketFreedInside, TheFirstOfManyDataIndications) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  free_inside(&socket, &layer, Indication::kData);
  ASSERT_TRUE(peer.send_all(numbered_bytes(20000)));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(layer.count(), 1U);
}

TEST_P(SocketFreedInside, ADatagramIndication) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer, indirect());
  const UWORD port = socket->LocalPort();
  free_inside(&socket, &layer, Indication::kDatagram);
  for (int i = 0; i < 20; ++i) peer.send_to(port, "datagram");
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(layer.count(), 1U);
}

TEST_P(SocketFreedInside, ANormalDisconnectIndication) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, indirect());
  free_inside(&socket, &layer, Indication::kDisconnect);
  peer.close();
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(5,0)"));
}

TEST_P(SocketFreedInside, TheDisconnectIndicationOfARefusedConnection) {
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->DataIndication(buffer_of("nobody")), Success);
  free_inside(&socket, &layer, Indication::kDisconnect);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre(indirect() ? "disconnect(4,111)" : "disconnect(3,0)"));
}

TEST_P(SocketFreedInside, TheDisconnectIndicationOfAFailedRead) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  free_inside(&socket, &layer, Indication::kDisconnect);
  const FailingReads failing(socket->s, ECONNRESET);
  ASSERT_TRUE(peer.send_all("x"));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,104)"));
}

TEST_P(SocketFreedInside, TheDisconnectIndicationOfAFailedSend) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, indirect());
  AsyncSocket* const raw = socket.get();
  free_inside(&socket, &layer, Indication::kDisconnect);
  const FailingSends failing(raw->s, EPIPE);
  EXPECT_EQ(raw->DataIndication(buffer_of("lost")), Blocked) << "on a direct socket it is gone by now";
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,32)"));
}

TEST_P(SocketFreedInside, AFailedSendWithinAnIndication) {
  // The answer to the first data fails; its failure indication, nested on a direct socket, frees the socket.
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  AsyncSocket* const raw = socket.get();
  const FailingSends failing(raw->s, EPIPE);
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind == Indication::kDisconnect) {
      socket.reset();
    } else {
      EXPECT_EQ(raw->DataIndication(buffer_of("answer")), Blocked);
    }
  });
  ASSERT_TRUE(peer.send_all("question"));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_THAT(layer.story(), ElementsAre("data:question", "disconnect(4,32)"));
  EXPECT_TRUE(peer.ended());
}

TEST_P(SocketFreedInside, AnAcceptCallbackRefusesBySoDoing) {
  OwnedSocket listener(new AsyncSocket(indirect()));
  ASSERT_EQ(listener->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  std::atomic<int> refused{0};
  ASSERT_EQ(listener->Listen(
                [](OSObj* count, ADDR socket, ULONG) {
                  static_cast<AsyncSocket*>(socket)->Free();
                  ++*reinterpret_cast<std::atomic<int>*>(count);
                },
                &refused),
            0);
  for (int i = 0; i < 5; ++i) {
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    EXPECT_TRUE(peer.ended());
  }
  EXPECT_TRUE(wait_until([&] { return refused == 5; }, kPatienceMs));
}

TEST_P(SocketFreedInside, ALayerThatBuildsTheNextConnectionThere) {
  // The usual reconnect: the old socket goes and a new one, perhaps at the same address, takes its place.
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  std::atomic<int> rounds{0};
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind != Indication::kDisconnect || ++rounds > 5) return;
    socket.reset();
    socket = stream_for(&layer);
    socket->Connect(kLoopback, listener.port());
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  for (std::size_t i = 0; i < 6; ++i) {
    PeerStream peer = listener.accept();
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(layer.wait_for_kind(Indication::kConnect, i + 1));
    peer.close();
    ASSERT_TRUE(layer.wait_for_kind(Indication::kDisconnect, i + 1));
  }
  EXPECT_EQ(layer.count(), 12U);
}

INSTANTIATE_TEST_SUITE_P(, SocketFreedInside, testing::Values(true, false),
                         [](const auto& kind) { return std::string(kind.param ? "Indirect" : "Direct"); });

}  // namespace
