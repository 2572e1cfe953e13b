// Packets and lines over TLS.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/line_probe.h"
#include "support/tls_socket.h"
#include "support/tpkt_packets.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

class TlsFrames : public TlsSocketTest, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(, TlsFrames, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& kind) { return version_name(kind.param); });

/// A packet socket as a TLS client, and its server.
struct PacketClient {
  explicit PacketClient(int version) : socket(new TPKTSocket) {
    socket->Bind(&layer);
    socket->secure = true;
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    socket->Connect(INADDR_LOOPBACK, listener.port());
    peer = std::make_unique<TlsEnd>(good_server(version), Descriptor(listener.accept().release()));
    EXPECT_TRUE(peer->handshake());
    EXPECT_TRUE(layer.wait_for_connect());
  }
  RecordingLayer layer;
  PeerListener listener;
  Owned<TPKTSocket> socket;
  std::unique_ptr<TlsEnd> peer;
};

TEST_P(TlsFrames, PacketsAreCutWhateverTheRecordsAre) {
  TpktStream stream;
  for (const std::size_t size : {std::size_t{1}, std::size_t{10}, std::size_t{1399}, std::size_t{1600},
                                 std::size_t{5000}, std::size_t{3}, std::size_t{12000}}) {
    stream.add(numbered_payload(size, static_cast<unsigned>(size)));
  }
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{1000}, stream.bytes.size()}) {
    SCOPED_TRACE(piece);
    PacketClient client(GetParam());
    const std::string bytes = piece == 1 ? stream.bytes.substr(0, 1430) : stream.bytes;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      client.peer->write(std::string_view(bytes).substr(at, piece));
      ASSERT_TRUE(client.peer->written());
    }
    const std::size_t whole = piece == 1 ? 3 : stream.payloads.size();
    ASSERT_TRUE(client.layer.wait_for_kind(Indication::kData, whole));
    const std::vector<Indication> all = client.layer.all();
    ASSERT_EQ(all.size(), 1 + whole);
    for (std::size_t i = 0; i < whole; ++i) EXPECT_TRUE(same_bytes(all[i + 1].data, stream.payloads[i]));
  }
}

TEST_P(TlsFrames, SmallPacketsInAFullQueueAllArrive) {
  PacketClient client(GetParam());
  std::string bytes, expected;
  for (unsigned i = 0; i < 1500; ++i) {
    const std::string payload = std::to_string(i);
    bytes += tpkt(payload);
    expected += payload;
  }
  client.peer->write(bytes);
  ASSERT_TRUE(client.peer->written());
  ASSERT_TRUE(client.layer.wait_for_bytes(expected.size()));
  EXPECT_TRUE(same_bytes(client.layer.data(), expected));
}

TEST_P(TlsFrames, PacketsAreFramedOnTheirWayOut) {
  PacketClient client(GetParam());
  std::string expected, storage;
  for (const std::size_t size : {std::size_t{1}, std::size_t{800}, std::size_t{1500}}) {
    const std::string payload = numbered_payload(size, 3);
    EXPECT_EQ(client.socket->DataIndication(packet_buffer(payload, &storage)), Success);
    expected += tpkt(payload);
  }
  EXPECT_TRUE(same_bytes(client.peer->read(expected.size()), expected));
}

TEST_P(TlsFrames, APacketListenerHandsItsSecurityOn) {
  RecordingLayer layer;
  Acceptor acceptor;
  Owned<TPKTSocket> listener(new TPKTSocket);
  listener->secure = true;
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream stream = PeerStream::connect_to(listener->LocalPort());
  OwnedSocket socket = acceptor.take();
  ASSERT_NE(dynamic_cast<TPKTSocket*>(socket.get()), nullptr);
  EXPECT_TRUE(socket->secure);
  socket->Bind(&layer);
  socket->ConnectAck();
  TlsEnd peer(good_client(GetParam()), Descriptor(stream.release()));
  ASSERT_TRUE(peer.handshake());
  peer.write(tpkt("packet"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:packet"));
}

TEST_P(TlsFrames, LinesGoBothWays) {
  PeerListener listener;
  ProbeLine lines(64);
  lines.socket->secure = true;
  lines.Connect(INADDR_LOOPBACK, listener.port());
  TlsEnd peer(good_server(GetParam()), Descriptor(listener.accept().release()));
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return lines.connects() == 1; }, kPatienceMs));
  for (const char* const piece : {"hel", "lo\r", "\nwor", "ld\r\n"}) peer.write(piece);
  ASSERT_TRUE(wait_until([&] { return lines.lines().size() == 2; }, kPatienceMs));
  EXPECT_THAT(lines.lines(), ElementsAre("hello", "world"));
  char text[] = "answer\r\n";
  lines.Send(text);
  EXPECT_EQ(peer.read(8), "answer\r\n");
  peer.say_goodbye();
  ASSERT_TRUE(wait_until([&] { return lines.disconnects() == 1; }, kPatienceMs));
  EXPECT_EQ(lines.last_reason(), Failed);
  EXPECT_EQ(lines.last_code(), SSL_ERROR_ZERO_RETURN);
  lines.let_socket_go();
}

}  // namespace
