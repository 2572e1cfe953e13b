// Starting and stopping TLS on a socket by hand: what refuses it, what it says, what it leaves behind.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

class TlsSocketStart : public QuietTlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  /// A connected socket that is not received from yet, and its peer's descriptor.
  OwnedSocket connected(RecordingLayer& layer, PeerStream* peer) {
    OwnedSocket socket = adopted_stream(&layer, peer, indirect());
    put_into(socket->state, static_cast<int>(SSConnected));
    return socket;
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketStart, testing::Bool(), way_name);

// ---- Names ---------------------------------------------------------------------------------------------------

TEST_P(TlsSocketStart, ANewSocketHasNoNamesAndNoTls) {
  OwnedSocket socket(new AsyncSocket(indirect()));
  EXPECT_FALSE(socket->secure);
  EXPECT_EQ(socket->secure_state, SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
  EXPECT_EQ(socket->cert, nullptr);
  EXPECT_EQ(socket->key, nullptr);
  EXPECT_EQ(socket->ca, nullptr);
}

TEST_P(TlsSocketStart, NamesAreCopiedReplacedAndTakenAway) {
  OwnedSocket socket(new AsyncSocket(indirect()));
  char cert[] = "one.pem";
  EXPECT_EQ(socket->SetCertificates(cert, "one.key", "one-ca.pem"), 0);
  cert[0] = 'x';
  EXPECT_STREQ(socket->cert, "one.pem");
  EXPECT_STREQ(socket->key, "one.key");
  EXPECT_STREQ(socket->ca, "one-ca.pem");
  EXPECT_EQ(socket->SetCertificates(nullptr, "two.key", nullptr), 0);
  EXPECT_EQ(socket->cert, nullptr);
  EXPECT_STREQ(socket->key, "two.key");
  EXPECT_EQ(socket->ca, nullptr);
  EXPECT_EQ(socket->SetCertificates(nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(socket->key, nullptr);
  socket->SetCertificates("a", "b", "c");  // the socket's to free
}

// ---- Refusals ------------------------------------------------------------------------------------------------

TEST_P(TlsSocketStart, ADatagramSocketIsRefused) {
  RecordingLayer layer;
  OwnedSocket socket = datagram_socket(&layer, indirect());
  for (const bool server : {true, false}) {
    console.clear();
    EXPECT_EQ(socket->StartSSL(server, 0, nullptr), -1);
    EXPECT_TRUE(printed(console, "StartSSL: not a stream socket"));
  }
  EXPECT_EQ(look_at(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
}

TEST_P(TlsSocketStart, WithoutInitialiseItIsRefused) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  SSLInfo::initialised = false;
  for (const bool server : {true, false}) {
    console.clear();
    EXPECT_EQ(socket->StartSSL(server, 0, nullptr), -1);
    EXPECT_TRUE(printed(console, "SSL/TLS not initialised"));
  }
  EXPECT_EQ(look_at(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
  // The kind of socket is looked at first.
  OwnedSocket datagrams = datagram_socket(&layer, indirect());
  console.clear();
  datagrams->StartSSL(true, 0, nullptr);
  EXPECT_TRUE(printed(console, "StartSSL: not a stream socket"));
  SSLInfo::initialised = true;
}

TEST_P(TlsSocketStart, AServerIsRefusedAtOnceWithoutAConnection) {
  RecordingLayer layer;
  OwnedSocket socket(new AsyncSocket(indirect()));
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  EXPECT_TRUE(printed(console, "StartSSL: underlying transport not connected"));
  EXPECT_EQ(look_at(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
}

// ---- What it says and does -----------------------------------------------------------------------------------

TEST_P(TlsSocketStart, TraceTwoSaysWhatItStartsFrom) {
  RecordingLayer layer;
  PeerStream peer;
  for (const int level : {0, 1, 2}) {
    OwnedSocket socket = connected(layer, &peer);
    const Tracing tracing(level);
    console.clear();
    EXPECT_EQ(socket->StartSSL(true, 2, nullptr), -1);
    EXPECT_EQ(printed(console, "starting TLS, AsyncSocket state = 2 opts = 2"), level > 1);
  }
}

TEST_P(TlsSocketStart, ItMakesTheSessionAndTakesTheFirstStep) {
  for (const bool server : {true, false}) {
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = connected(layer, &peer);
    char name[] = "/CN=somebody";
    console.clear();
    EXPECT_EQ(socket->StartSSL(server, 3, name), -1);
    EXPECT_TRUE(printed(console, line("%d AsyncSocket::StartSSL - Handshake", socket->s)));
    EXPECT_TRUE(printed(console, line("TLSSetup: srv %d options = 3", server ? 1 : 0)));
    EXPECT_EQ(look_at(socket->secure_state), SecHandshake);
    ASSERT_NE(socket->ssl_info, nullptr);
    EXPECT_EQ(socket->ssl_info->s, socket->s);
    EXPECT_EQ(socket->ssl_info->server, server);
    EXPECT_EQ(socket->ssl_info->options, 3U);
    EXPECT_STREQ(socket->ssl_info->peer_name, "/CN=somebody");
    // A client speaks first.
    if (server) {
      EXPECT_EQ(peer.receive_now(), "");
    } else {
      EXPECT_EQ(peer.receive(1), "\x16");
    }
  }
}

TEST_P(TlsSocketStart, TheSocketsOwnNamesAreUsed) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  const TlsFiles::Set& own = tls_files().of(TlsFiles::kClient);
  socket->SetCertificates(own.cert.c_str(), own.key.c_str(), nullptr);
  EXPECT_EQ(socket->StartSSL(false, 0, nullptr), -1);
  EXPECT_TRUE(
      printed(console, "TLSSetup: using private key " + own.key + " and certificate file " + own.cert));
}

TEST_P(TlsSocketStart, ASetUpThatFailsLeavesTheSessionAndTheState) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  socket->SetCertificates(nullptr, nullptr, tls_files().missing().c_str());
  EXPECT_EQ(socket->StartSSL(false, 0, nullptr), -1);
  EXPECT_EQ(look_at(socket->secure_state), SecHandshake);
  ASSERT_NE(socket->ssl_info, nullptr);
  EXPECT_EQ(socket->ssl_info->ssl, nullptr);
  EXPECT_EQ(console.count("StartSSL - Handshake"), 0);
  EXPECT_GE(console.count("SSL_CTX_load_verify_locations: error:"), 1);
}

TEST_P(TlsSocketStart, AHandshakeThatFailsAtOnceIsOne) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  ASSERT_TRUE(peer.send_all("GET / HTTP/1.0\r\n\r\n"));
  ASSERT_TRUE(wait_readable(socket->s));
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), 1);
  EXPECT_EQ(look_at(socket->secure_state), SecHandshake);
  ASSERT_NE(socket->ssl_info, nullptr);
  EXPECT_EQ(socket->ssl_info->ssl, nullptr);
}

TEST_P(TlsSocketStart, StartingAgainReplacesTheSession) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  SSLInfo* const first = socket->ssl_info;
  console.clear();
  EXPECT_EQ(socket->StartSSL(true, 1, nullptr), -1);
  EXPECT_TRUE(printed(console, line("~SSLInfo %p", static_cast<void*>(first))));
  ASSERT_NE(socket->ssl_info, nullptr);
  EXPECT_EQ(socket->ssl_info->options, 1U);
  EXPECT_EQ(look_at(socket->secure_state), SecHandshake);
}

// ---- Stopping ------------------------------------------------------------------------------------------------

TEST_P(TlsSocketStart, StoppingWithoutASessionOnlySaysSo) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  console.clear();
  EXPECT_EQ(socket->StopSSL(), 0);
  EXPECT_THAT(console.calls(), Contains("AsyncSocket::StopSSL"));
  EXPECT_EQ(console.count("SSL_shutdown"), 0);
  EXPECT_EQ(look_at(socket->secure_state), SecClear);
}

TEST_P(TlsSocketStart, StoppingSaysGoodbyeAndKeepsTheSession) {
  RecordingLayer layer;
  PeerStream stream;
  OwnedSocket socket = connected(layer, &stream);
  TlsEnd peer(good_client(), Descriptor(stream.release()));
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  SSLInfo* const session = socket->ssl_info;
  socket->StartTask();
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return look_at(socket->secure_state) == SecSecure; }, kPatienceMs));
  console.clear();
  EXPECT_EQ(socket->StopSSL(), 0);
  EXPECT_TRUE(printed(console, "AsyncSocket::StopSSL"));
  EXPECT_TRUE(printed(console, "SSLInfo::Stop calling SSL_shutdown"));
  EXPECT_EQ(look_at(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, session);
  EXPECT_TRUE(peer.wait(kPeerPatienceMs, [&] {
    peer.read_now();
    return peer.closed();
  }));
}

TEST_P(TlsSocketStart, StoppingDuringTheHandshakeSaysNothingToThePeer) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = connected(layer, &peer);
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  EXPECT_EQ(socket->StopSSL(), 0);
  EXPECT_EQ(look_at(socket->secure_state), SecClear);
  EXPECT_EQ(console.count("SSL_shutdown"), 0);
  EXPECT_EQ(peer.receive_now(), "");
}

// ---- By hand on a connection that is in use ------------------------------------------------------------------

TEST_P(TlsSocketStart, AConnectionThatIsClearCanBecomeSecureInsideAnIndication) {
  RecordingLayer layer;
  PeerStream stream;
  OwnedSocket socket = established_stream(&layer, &stream, indirect());
  ASSERT_EQ(socket->DataIndication(buffer_of("ready")), Success);
  EXPECT_EQ(stream.receive(5), "ready");
  std::atomic<int> started{-9};
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind != Indication::kData || indication.data != "start") return;
    const int result = socket->StartSSL(true, 0, nullptr);
    EXPECT_EQ(socket->DataIndication(buffer_of("queued meanwhile")), Success);
    started = result;
  });
  ASSERT_TRUE(stream.send_all("start"));
  ASSERT_TRUE(dispatch_until([&] { return started != -9; }));
  EXPECT_EQ(started, -1);
  TlsEnd peer(good_client(), Descriptor(stream.release()));
  ASSERT_TRUE(peer.handshake());
  EXPECT_EQ(peer.read(16), "queued meanwhile");
  peer.write("secret");
  ASSERT_TRUE(dispatch_until([&] { return layer.data() == "startsecret"; }));
  EXPECT_THAT(layer.story(), ElementsAre("data:start", "connect", "data:secret"));
  EXPECT_EQ(look_at(socket->secure_state), SecSecure);
}

}  // namespace
