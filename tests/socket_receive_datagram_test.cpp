// What a datagram socket receives: senders, sizes, empty datagrams, and that nothing a sender does changes the socket.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// Indirect and direct sockets behave alike here.
class SocketDatagram : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  bool indirect() const { return GetParam(); }
  OwnedSocket make(RecordingLayer* layer) { return datagram_socket(layer, indirect()); }
};

TEST_P(SocketDatagram, ReceivesFromTheMomentItIsCreated) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  EXPECT_TRUE(look_at(socket->running));
  EXPECT_TRUE(look_at(socket->receive_started));
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "hello"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:hello"));
}

TEST_P(SocketDatagram, EachDatagramIsOneIndicationInOrder) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  std::vector<std::string> sent;
  for (int i = 0; i < 200; ++i) {
    const std::string text = "number " + std::to_string(i);
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), text));
    ASSERT_TRUE(layer.wait_for(static_cast<std::size_t>(i) / 8 * 8))
        << "the system's queue does not run over";
    sent.push_back("datagram:" + text);
  }
  ASSERT_TRUE(layer.wait_for(200));
  EXPECT_EQ(layer.story(), sent);
}

TEST_P(SocketDatagram, TellsSenderAndOwnAddress) {
  RecordingLayer layer;
  PeerUdp peers[2];
  OwnedSocket socket = make(&layer);
  for (PeerUdp& peer : peers) {
    layer.clear();
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), "who"));
    ASSERT_TRUE(layer.wait_for(1));
    const Indication got = layer.at(0);
    EXPECT_EQ(got.remote.Address(), kLoopback);
    EXPECT_EQ(got.remote.Port(), peer.port());
    EXPECT_EQ(got.local.Address(), kLoopback);
    EXPECT_EQ(got.local.Port(), socket->LocalPort());
    EXPECT_EQ(got.remote_ipaddr, htonl(kLoopback));
    EXPECT_EQ(got.remote_port, htons(peer.port()));
    EXPECT_EQ(got.local_ipaddr, htonl(kLoopback));
    EXPECT_EQ(got.local_port, htons(socket->LocalPort()));
    EXPECT_GE(got.headroom, 50);
  }
}

TEST_P(SocketDatagram, TheSenderStandsInFrontOfTheData) {
  for (const std::size_t size : {10U, 1600U, 5000U}) {
    SCOPED_TRACE(size);
    RecordingLayer layer;
    PeerUdp peer;
    OwnedSocket socket = make(&layer);
    socket->SetBigBuffers(true);
    layer.hold_buffers(true);
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), numbered_bytes(size)));
    ASSERT_TRUE(layer.wait_for(1));
    ASSERT_EQ(layer.held(), 1U);
    sockaddr_in sender = {};
    std::memcpy(&sender, layer.held_buffers()[0]->data - 16, sizeof sender);
    EXPECT_EQ(sender.sin_family, AF_INET);
    EXPECT_EQ(sender.sin_port, htons(peer.port()));
    EXPECT_EQ(sender.sin_addr.s_addr, htonl(kLoopback));
    layer.release_held();
  }
}

TEST_P(SocketDatagram, NoSenderChangesTheDestination) {
  RecordingLayer layer;
  PeerUdp destination, stranger;
  OwnedSocket socket = make(&layer);
  ASSERT_EQ(socket->Connect(kLoopback, destination.port()), 0);
  ASSERT_TRUE(stranger.send_to(socket->LocalPort(), "stranger"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(socket->rem_sin.Address(), kLoopback);
  EXPECT_EQ(socket->rem_sin.Port(), destination.port());
  EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
  EXPECT_EQ(destination.receive_text(), "answer");
}

TEST_P(SocketDatagram, WithoutLargeBuffersIsCutTo1600) {
  const struct {
    std::size_t sent, received;
  } rows[] = {{1, 1}, {1599, 1599}, {1600, 1600}, {1601, 1600}, {1680, 1600}, {5000, 1600}, {60000, 1600}};
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sent);
    layer.clear();
    const std::string sent = numbered_bytes(row.sent);
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), sent));
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_EQ(layer.data().size(), row.received);
    EXPECT_TRUE(layer.data() == sent.substr(0, row.received));
  }
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "behind"));
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_EQ(layer.at(1).data, "behind") << "what was cut off is gone";
}

TEST_P(SocketDatagram, WithLargeBuffersComesWhole) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  socket->SetBigBuffers(true);
  for (const std::size_t size :
       {1U, 1600U, 1679U, 1680U, 1681U, 21844U, 21845U, 21846U, 43689U, 43690U, 43691U, 60000U, 65507U}) {
    SCOPED_TRACE(size);
    layer.clear();
    const std::string sent = numbered_bytes(size);
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), sent));
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_TRUE(layer.data() == sent);
    EXPECT_GE(layer.at(0).size, static_cast<int>(size)) << "the storage says how large it is";
  }
}

TEST_P(SocketDatagram, AnEmptyDatagramIsNothing) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(peer.send_to(socket->LocalPort(), ""));
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "something"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:something"));
  EXPECT_EQ(bytes_waiting(look_at(socket->s)), 0);
  EXPECT_TRUE(look_at(socket->running));
}

TEST_P(SocketDatagram, AnEmptyDatagramIsNothingWithLargeBuffersEither) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  socket->SetBigBuffers(true);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), ""));
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "something"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:something"));
}

TEST_P(SocketDatagram, TheLayersThreadIsTheDispatchersOrTheSocketsOwn) {
  RecordingLayer layers[2];
  PeerUdp peer;
  OwnedSocket first = make(&layers[0]);
  OwnedSocket second = make(&layers[1]);
  ASSERT_TRUE(peer.send_to(first->LocalPort(), "x"));
  ASSERT_TRUE(peer.send_to(second->LocalPort(), "x"));
  ASSERT_TRUE(layers[0].wait_for(1));
  ASSERT_TRUE(layers[1].wait_for(1));
  EXPECT_EQ(layers[0].at(0).thread == layers[1].at(0).thread, indirect());
}

TEST_P(SocketDatagram, SaysWhatItReads) {
  put_into(AsyncSocket::trace, 2);
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  socket->SetBigBuffers(true);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), numbered_bytes(2000)));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(console.count(
                line("%d AsyncSocket::Poll - Received 2000 bytes from 127.0.0.1:%u", socket->s, peer.port())),
            1)
      << "the sender is named";
  EXPECT_EQ(console.count(line("%d AsyncSocket::Poll recvfrom() LargeBuffer Used 2000 for ", socket->s)), 1);
}

TEST_P(SocketDatagram, ClosingStopsReception) {
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = make(&layer);
  const UWORD port = socket->LocalPort();
  socket->Close();
  EXPECT_EQ(socket->s, -1);
  EXPECT_FALSE(look_at(socket->running));
  peer.send_to(port, "nobody");
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "again"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:again"));
}

INSTANTIATE_TEST_SUITE_P(, SocketDatagram, testing::Values(true, false),
                         [](const auto& kind) { return std::string(kind.param ? "Indirect" : "Direct"); });

}  // namespace
