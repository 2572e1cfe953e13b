// What only direct, or only indirect, secure sockets do.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

using TlsSocketDirect = TlsSocketTest;
using TlsSocketIndirect = TlsSocketTest;

/// Servers that a client refuses.
const TlsFiles::Kind kRefused[] = {TlsFiles::kExpired, TlsFiles::kNotYetValid, TlsFiles::kOtherCa};

TEST_F(TlsSocketDirect, AClientWhoseHandshakeFailsIsIndicatedConnectedFirst) {
  for (const TlsFiles::Kind kind : kRefused) {
    SecureClient client(false, server_with(kind));
    client.peer->handshake();
    ASSERT_TRUE(client.layer.wait_for_disconnect());
    EXPECT_THAT(client.layer.story(), ElementsAre("connect", "disconnect(4,1)"));
    EXPECT_EQ(now_of(client.socket->state), SSDisconnected);
    EXPECT_FALSE(now_of(client.socket->running));
  }
}

TEST_F(TlsSocketIndirect, AClientWhoseHandshakeFailsIsNeverConnected) {
  for (const TlsFiles::Kind kind : kRefused) {
    SecureClient client(true, server_with(kind));
    client.peer->handshake();
    ASSERT_TRUE(client.layer.wait_for_disconnect());
    EXPECT_THAT(client.layer.story(), ElementsAre("disconnect(4,1)"));
    EXPECT_EQ(now_of(client.socket->state), SSDisconnected);
    EXPECT_FALSE(now_of(client.socket->running));
  }
}

TEST_F(TlsSocketDirect, ARefusedServerSeesNothingOfWhatWasToBeSent) {
  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket = secure_socket(layer, false);
  EXPECT_EQ(socket->DataIndication(buffer_of("secret")), Success);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  TlsEnd peer(server_with(TlsFiles::kExpired), Descriptor(listener.accept().release()));
  peer.handshake();
  ASSERT_TRUE(layer.wait_for_disconnect());
  socket->Close();
  EXPECT_EQ(peer.read_to_end(), "");
}

TEST_F(TlsSocketDirect, TheConnectedIndicationComesOnTheSocketsThreadBeforeTheData) {
  SecureClient client(false);
  ASSERT_TRUE(client.peer->handshake());
  client.peer->write("early bird");
  ASSERT_TRUE(client.layer.wait_for_bytes(10));
  const std::vector<Indication> all = client.layer.all();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].kind, Indication::kConnect);
  EXPECT_EQ(all[0].thread, all[1].thread);
}

TEST_F(TlsSocketDirect, AReaderThatWaitsDoesNotHoldSendersUp) {
  SecureClient client(false);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  // The receive thread waits for as long as a second now; twenty sends of nothing much take none.
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(client.socket->DataIndication(buffer_of("tick")), Success);
    ASSERT_EQ(client.peer->read(4), "tick");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
}

TEST_F(TlsSocketDirect, ABigRecordIsDeliveredWithoutMoreOfTheWire) {
  SecureClient client(false);
  ASSERT_TRUE(client.comes_up());
  const std::string bytes = numbered_bytes(16384);
  client.peer->write(bytes);
  ASSERT_TRUE(client.layer.wait_for_bytes(bytes.size()));
  EXPECT_TRUE(same_bytes(client.layer.data(), bytes));
}

TEST_F(TlsSocketDirect, CloseEndsAHandshakeThatWaits) {
  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket = secure_socket(layer, false);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  PeerStream silent = listener.accept();
  ASSERT_TRUE(wait_until([&] { return now_of(socket->secure_state) == SecHandshake; }, kPatienceMs));
  socket->Close();
  EXPECT_EQ(now_of(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
  EXPECT_EQ(layer.count(Indication::kData), 0U);
}

TEST_F(TlsSocketDirect, ASenderThatFailsIndicatesItBeforeItReturns) {
  SecureClient client(false);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  int small = 4096;
  ::setsockopt(client.socket->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  ::setsockopt(client.peer->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  OSIORetCode result = Success;
  for (int i = 0; i < 5000 && result == Success; ++i)
    result = client.socket->DataIndication(buffer_of(std::string(1500, 'x')));
  EXPECT_EQ(result, Blocked);
  EXPECT_EQ(client.layer.count(Indication::kDisconnect), 1U);
  EXPECT_EQ(client.layer.all().back().text(), "disconnect(4,0)");
  EXPECT_EQ(now_of(client.socket->state), SSDisconnected);
  EXPECT_EQ(client.socket->DataIndication(buffer_of("more")), NoConnection);
}

TEST_F(TlsSocketIndirect, ASenderThatFailsDisconnectsTheSocket) {
  SecureClient client(true);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  int small = 4096;
  ::setsockopt(client.socket->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  ::setsockopt(client.peer->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  OSIORetCode result = Success;
  for (int i = 0; i < 5000 && result == Success; ++i)
    result = client.socket->DataIndication(buffer_of(std::string(1500, 'x')));
  EXPECT_EQ(result, Blocked);
  ASSERT_TRUE(client.layer.wait_for_disconnect());
  EXPECT_THAT(client.layer.story(), ElementsAre("connect", "disconnect(4,0)"));
  EXPECT_EQ(now_of(client.socket->state), SSDisconnected);
  EXPECT_EQ(client.socket->DataIndication(buffer_of("more")), NoConnection);
}

TEST_F(TlsSocketIndirect, TheMonitorThreadTracesTheHandshake) {
  const Tracing tracing(1);
  SecureClient client(true);
  const std::string expected = text_of("%d AsyncSocket::MonitorThread - SSL Handshake", client.socket->s);
  EXPECT_TRUE(wait_until([&] { return printed(console, expected); }, kPatienceMs));
  ASSERT_TRUE(client.comes_up());
}

}  // namespace
