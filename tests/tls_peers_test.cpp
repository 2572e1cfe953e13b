// Sockets of the library against the TLS programs of OpenSSL and GnuTLS, as their clients and as their servers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "support/tls_peer.h"
#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

enum Maker { kOpenSsl, kGnuTls };

/// Whose program, which version, and how the socket is served.
class TlsPeers : public TlsSocketTest, public testing::WithParamInterface<std::tuple<Maker, int, bool>> {
 protected:
  static bool openssl() { return std::get<0>(GetParam()) == kOpenSsl; }
  static int version() { return std::get<1>(GetParam()); }
  static bool indirect() { return std::get<2>(GetParam()); }

  static RealServer::Command server_program(TlsFiles::Kind kind) {
    return openssl() ? openssl_server(tls_files(), kind, version())
                     : gnutls_server(tls_files(), kind, version());
  }
  static std::vector<std::string> client_program(UWORD port, std::vector<std::string> extra = {}) {
    return openssl() ? openssl_client(tls_files(), port, version(), std::move(extra))
                     : gnutls_client(tls_files(), port, version(), std::move(extra));
  }
  /// What the server answers to a line.
  static std::string answer(const std::string& text) {
    return openssl() ? std::string(text.rbegin(), text.rend()) + "\n" : text + "\n";
  }
  static std::string connected(const char* role) {
    return std::string("TLS ") + role + ": version " + version_text(version());
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsPeers,
                         testing::Combine(testing::Values(kOpenSsl, kGnuTls),
                                          testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), testing::Bool()),
                         [](const auto& kind) {
                           return std::string(std::get<0>(kind.param) == kOpenSsl ? "OpenSsl" : "GnuTls") +
                                  version_name(std::get<1>(kind.param)) +
                                  (std::get<2>(kind.param) ? "Indirect" : "Direct");
                         });

// ---- Their servers -------------------------------------------------------------------------------------------

TEST_P(TlsPeers, AServerIsVerifiedAndAnswers) {
  RealServer server(server_program(TlsFiles::kServer));
  RecordingLayer layer;
  OwnedSocket socket = secure_socket(layer, indirect());
  socket->DataIndication(buffer_of("first\n"));
  socket->Connect(INADDR_LOOPBACK, server.port());
  ASSERT_TRUE(layer.wait_for_bytes(6)) << server.program().output();
  EXPECT_EQ(layer.data(), answer("first"));
  EXPECT_TRUE(printed(console, "TLSHandshake: peer certificate verified"));
  EXPECT_TRUE(printed(console, "TLSHandshake: peer: " + tls_files().subject(TlsFiles::kServer)));
  EXPECT_TRUE(printed(console, connected("connect")));
  std::string expected = answer("first");
  for (int i = 0; i < 20; ++i) {
    const std::string text = "line " + std::to_string(i);
    ASSERT_EQ(socket->DataIndication(buffer_of(text + "\n")), Success);
    expected += answer(text);
    ASSERT_TRUE(layer.wait_for_bytes(expected.size()));
  }
  EXPECT_EQ(layer.data(), expected);
  EXPECT_EQ(layer.count(Indication::kDisconnect), 0U);
}

TEST_P(TlsPeers, AServerThatMayNotBeTrustedIsRefused) {
  struct Row {
    TlsFiles::Kind kind;
    const char* why;
  };
  for (const Row& row : {Row{TlsFiles::kExpired, "certificate has expired"},
                         Row{TlsFiles::kOtherCa, "unable to get local issuer certificate"}}) {
    SCOPED_TRACE(row.why);
    RealServer server(server_program(row.kind));
    RecordingLayer layer;
    OwnedSocket socket = secure_socket(layer, indirect());
    socket->DataIndication(buffer_of("secret\n"));
    socket->Connect(INADDR_LOOPBACK, server.port());
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_EQ(layer.story().back(), "disconnect(4,1)");
    EXPECT_TRUE(printed(console, std::string("TLSHandshake: peer verification error: ") + row.why));
    EXPECT_EQ(layer.count(Indication::kData), 0U);
  }
}

TEST_P(TlsPeers, AServerThatSignedItselfIsTaken) {
  RealServer server(server_program(TlsFiles::kSelfSigned));
  RecordingLayer layer;
  OwnedSocket socket = secure_socket(layer, indirect());
  socket->DataIndication(buffer_of("first\n"));
  socket->Connect(INADDR_LOOPBACK, server.port());
  ASSERT_TRUE(layer.wait_for_bytes(6)) << server.program().output();
  EXPECT_TRUE(printed(console, "TLSHandshake: peer self-signed certificate verified"));
}

TEST_P(TlsPeers, AServerThatDiesIsNoticed) {
  RealServer server(server_program(TlsFiles::kServer));
  RecordingLayer layer;
  OwnedSocket socket = secure_socket(layer, indirect());
  socket->Connect(INADDR_LOOPBACK, server.port());
  ASSERT_TRUE(layer.wait_for_connect());
  server.program().stop();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("connect", "disconnect(4,5)"));
}

// ---- Their clients -------------------------------------------------------------------------------------------

/// A listener of the library whose connections send back what they receive.
class EchoingListener {
 public:
  explicit EchoingListener(bool indirect) : acceptor_([this](AsyncSocket* socket) { accepted(socket); }) {
    listener_.reset(new AsyncSocket(indirect));
    listener_->secure = true;
    EXPECT_EQ(acceptor_.listen_with(*listener_), 0);
  }
  ~EchoingListener() {
    listener_.reset();
    socket_.reset();
  }
  UWORD port() { return listener_->LocalPort(); }
  RecordingLayer layer;

 private:
  void accepted(AsyncSocket* socket) {
    if (socket_ != nullptr) return socket->Free();
    socket_.reset(socket);
    layer.set_hook([socket](const Indication& indication) {
      if (indication.kind == Indication::kData) socket->DataIndication(buffer_of(indication.data));
    });
    socket->Bind(&layer);
    socket->ConnectAck();
  }

  Acceptor acceptor_;
  OwnedSocket listener_, socket_;
};

TEST_P(TlsPeers, AClientVerifiesUsAndIsServed) {
  EchoingListener listener(indirect());
  RealClient client(client_program(listener.port()));
  ASSERT_TRUE(client.say("first line\n"));
  ASSERT_TRUE(listener.layer.wait_for_bytes(11)) << client.program().output();
  EXPECT_EQ(listener.layer.data(), "first line\n");
  EXPECT_TRUE(client.wait_for_output("first line"));
  EXPECT_TRUE(client.wait_for_output(openssl() ? "Verify return code: 0 (ok)" : "certificate is trusted"));
  EXPECT_TRUE(printed(console, connected("accept")));
  client.end_input();
  ASSERT_TRUE(listener.layer.wait_for_disconnect());
  EXPECT_THAT(listener.layer.story(), ElementsAre("connect", "data:first line\n", "disconnect(4,6)"));
}

TEST_P(TlsPeers, AClientThatIsKilledIsNoticed) {
  EchoingListener listener(indirect());
  RealClient client(client_program(listener.port()));
  ASSERT_TRUE(client.say("first line\n"));
  ASSERT_TRUE(listener.layer.wait_for_bytes(11)) << client.program().output();
  ASSERT_TRUE(client.wait_for_output("first line"));
  client.program().stop();
  ASSERT_TRUE(listener.layer.wait_for_disconnect());
  EXPECT_EQ(listener.layer.story().back(), "disconnect(4,5)");
}

// ---- Certificates of clients ---------------------------------------------------------------------------------

/// A server started by hand that asks for the client's certificate.
TEST_P(TlsPeers, AClientsCertificateIsJudgedWhereItIsAskedFor) {
  struct Row {
    const char* what;
    TlsFiles::Kind kind;
    bool shown;
    int result;  ///< of the handshake
  };
  for (const Row& row : {Row{"good", TlsFiles::kClient, true, 0}, Row{"none", TlsFiles::kClient, false, 1},
                         Row{"expired", TlsFiles::kExpired, true, 1}}) {
    SCOPED_TRACE(row.what);
    RecordingLayer layer;
    Acceptor acceptor;
    OwnedSocket listener(new AsyncSocket(indirect()));
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    std::vector<std::string> extra;
    if (row.shown) {
      extra = openssl() ? std::vector<std::string>{"-cert", tls_files().cert(row.kind), "-key",
                                                   tls_files().key(row.kind)}
                        : std::vector<std::string>{"--x509certfile", tls_files().cert(row.kind),
                                                   "--x509keyfile", tls_files().key(row.kind)};
    }
    RealClient client(client_program(listener->LocalPort(), extra));
    client.say("hello\n");
    OwnedSocket socket = acceptor.take();
    ASSERT_NE(socket, nullptr);
    socket->Bind(&layer);
    std::atomic_ref<int>(socket->state).store(SSConnected);
    // A quick peer may have said everything before the first step is over.
    EXPECT_THAT(socket->StartSSL(true, 1, nullptr), testing::AnyOf(-1, row.result));
    socket->StartTask();
    if (row.result == 0) {
      ASSERT_TRUE(layer.wait_for_bytes(6)) << client.program().output();
      EXPECT_EQ(layer.data(), "hello\n");
      EXPECT_TRUE(printed(console, "TLSHandshake: peer: " + tls_files().subject(row.kind)));
    } else {
      ASSERT_TRUE(layer.wait_for_disconnect());
      EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,1)"));
    }
  }
}

// ---- Clients that do not trust us ------------------------------------------------------------------------------

using TlsPeersMistrust = TlsSocketTest;

TEST_F(TlsPeersMistrust, AClientThatDoesNotTrustUsIsNoticed) {
  for (const bool indirect : {true, false}) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
      TlsFiles& files = tls_files();
      SSLInfo::Initialise(files.text(files.cert(TlsFiles::kExpired)),
                          files.text(files.key(TlsFiles::kExpired)), files.text(files.ca()));
      EchoingListener listener(indirect);
      RealClient client(gnutls_client(tls_files(), listener.port(), version));
      ASSERT_TRUE(listener.layer.wait_for_disconnect());
      EXPECT_EQ(listener.layer.story().back().substr(0, 13), "disconnect(4,");
      EXPECT_EQ(listener.layer.count(Indication::kData), 0U);
    }
  }
}

}  // namespace
