// The secure blocking socket and peers that nobody here wrote: OpenSSL's and GnuTLS's programs, in both roles.

#include <memory>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::HasSubstr;

class SecureSocketReal : public SecureTest {
 protected:
  /// Serves the next connection until its end: every line comes back with "you said " in front.
  static void serve_lines(SecureSocket& socket) {
    std::string text;
    while (OSBuf* const buf = socket.RecWait(kPatienceMs)) {
      if (buf->length == 0) {
        buf->Free();
        break;
      }
      text += taken(buf);
      for (std::size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
        socket.DataIndication(buffer_of("you said " + text.substr(0, end + 1)));
      }
    }
  }
  std::vector<std::string> client_command(bool gnutls, UWORD port, int version,
                                          std::vector<std::string> extra = {}) {
    return gnutls ? gnutls_client(files, port, version, std::move(extra))
                  : openssl_client(files, port, version, std::move(extra));
  }
};

TEST_F(SecureSocketReal, TheirClientsTalkToItsServer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const bool gnutls : {false, true}) {
    for (const int version : kVersions) {
      SCOPED_TRACE(std::string(gnutls ? "GnuTLS, " : "OpenSSL, ") + name_of_version(version));
      SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
      RealClient client(client_command(gnutls, listener.LocalPort(), version));
      const std::unique_ptr<Socket> accepted(listener.Accept());
      ASSERT_NE(accepted, nullptr);
      accepted->ConnectAck();
      ASSERT_TRUE(accepted->Secure()) << console.text() << client.program().output();
      EXPECT_EQ(SSL_version(static_cast<SecureSocket*>(accepted.get())->ssl), version);
      WatchedThread serving([&] { serve_lines(*static_cast<SecureSocket*>(accepted.get())); });
      client.say("hello\n");
      EXPECT_TRUE(client.wait_for_output("you said hello"));
      client.say("goodbye\n");
      EXPECT_TRUE(client.wait_for_output("you said goodbye"));
      client.end_input();
      EXPECT_TRUE(serving.finished_within(kPatienceMs));
      EXPECT_EQ(accepted->state, Socket::INVALID) << "they say goodbye";
      accepted->Close();
      EXPECT_GE(client.program().wait(), 0);
      EXPECT_THAT(client.program().output(),
                  HasSubstr(gnutls ? "Status: The certificate is trusted" : "Verify return code: 0 (ok)"));
    }
  }
}

TEST_F(SecureSocketReal, TheirClientsCertificatesAreNotAskedFor) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const struct {
    bool gnutls;
    TlsFiles::Kind kind;
  } kRows[] = {{false, TlsFiles::kExpired}, {true, TlsFiles::kSelfSigned}};
  for (const auto& row : kRows) {
    const std::string cert = files.cert(row.kind), key = files.key(row.kind);
    SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
    RealClient client(row.gnutls ? gnutls_client(files, listener.LocalPort(), TLS1_3_VERSION,
                                                 {"--x509certfile", cert, "--x509keyfile", key})
                                 : openssl_client(files, listener.LocalPort(), TLS1_3_VERSION,
                                                  {"-cert", cert, "-key", key}));
    const std::unique_ptr<Socket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    accepted->ConnectAck();
    EXPECT_TRUE(accepted->Secure()) << client.program().output();
    client.end_input();
    client.program().stop();
  }
}

TEST_F(SecureSocketReal, AClientThatDoesNotTrustTheCertificateIsClosed) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  for (const TlsFiles::Kind kind : {TlsFiles::kSelfSigned, TlsFiles::kExpired, TlsFiles::kOtherCa}) {
    SCOPED_TRACE(files.cert(kind));
    put_files(kind);
    SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
    RealClient client(openssl_client(files, listener.LocalPort(), TLS1_2_VERSION, {"-verify_return_error"}));
    const std::unique_ptr<Socket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    accepted->ConnectAck();
    EXPECT_FALSE(accepted->Secure());
    EXPECT_EQ(accepted->s, -1);
    EXPECT_GT(client.program().wait(), 0) << client.program().output();
  }
}

TEST_F(SecureSocketReal, ByteForByteTheirClientsComeThrough) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const bool gnutls : {false, true}) {
    SCOPED_TRACE(gnutls ? "GnuTLS" : "OpenSSL");
    SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
    ByteRelay relay(listener.LocalPort(), {.portion = 1});
    RealClient client(client_command(gnutls, relay.port(), TLS1_3_VERSION));
    const std::unique_ptr<Socket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    accepted->ConnectAck();
    ASSERT_TRUE(accepted->Secure()) << client.program().output();
    WatchedThread serving([&] { serve_lines(*static_cast<SecureSocket*>(accepted.get())); });
    client.say("slowly\n");
    EXPECT_TRUE(client.wait_for_output("you said slowly"));
    client.end_input();
    EXPECT_TRUE(serving.finished_within(kPatienceMs));
  }
}

TEST_F(SecureSocketReal, ItsClientTalksToTheirServersBehindOneThatSpeaksFirst) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const bool gnutls : {false, true}) {
    for (const int version : kVersions) {
      SCOPED_TRACE(std::string(gnutls ? "GnuTLS, " : "OpenSSL, ") + name_of_version(version));
      RealServer server(gnutls ? gnutls_server(files, TlsFiles::kServer, version)
                               : openssl_server(files, TlsFiles::kServer, version));
      ByteRelay relay(server.port(),
                      {.portion = version == TLS1_2_VERSION ? std::size_t{1} : std::size_t{1000},
                       .greeting = std::string(kHelloRequest)});
      const auto client = secure_client(relay.port());
      ASSERT_TRUE(client->Secure()) << console.text() << server.program().output();
      EXPECT_EQ(SSL_version(client->ssl), version);
      client->Queue(buffer_of("hello\n"));
      client->FlushQueue(false);
      UBYTE bytes[6] = {};
      EXPECT_EQ(client->RecWait(bytes, 6), 0);
      EXPECT_EQ(std::string(bytes, bytes + 6), gnutls ? "hello\n" : "olleh\n");
    }
  }
}

TEST_F(SecureSocketReal, AnyOfTheirServersIsTaken) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const TlsFiles::Kind kind : {TlsFiles::kSelfSigned, TlsFiles::kExpired, TlsFiles::kOtherCa}) {
    SCOPED_TRACE(files.cert(kind));
    RealServer server(openssl_server(files, kind, TLS1_3_VERSION));
    ByteRelay relay(server.port(), {.portion = 4096, .greeting = std::string(kHelloRequest)});
    const auto client = secure_client(relay.port());
    EXPECT_TRUE(client->Secure()) << console.text() << server.program().output();
  }
}

TEST_F(SecureSocketReal, AnOrdinaryServerIsWaitedForInVain) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  RealServer server(openssl_server(files, TlsFiles::kServer, TLS1_3_VERSION));
  int fd = -1;
  {
    const Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    fd = probe.get();
  }
  // The ten seconds are over at once.
  ScriptedWaits waits(fd, {{Wait::kReal}, {Wait::kNothing}});
  const auto client = secure_client(server.port());
  ASSERT_EQ(client->s, fd);
  EXPECT_EQ(client->state, Socket::CONNECTED);
  EXPECT_FALSE(client->Secure());
  EXPECT_EQ(waits.times_ms().back(), 10000);
  EXPECT_EQ(said().back(), "SecureSocket::StartSSL - select returned 0");
}

}  // namespace
}  // namespace oskernel_test
