/// What the tests of the secure blocking sockets share: the appliance's certificate files in a root of the test's own, and
/// connections with a scripted peer at the other end.
#ifndef OSKERNEL_TESTS_SECURE_FIXTURE_H
#define OSKERNEL_TESTS_SECURE_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appliance_root.h"
#include "blocking_fixture.h"
#include "network/assl.h"
#include "tls_files.h"
#include "tls_peer.h"
#include "watched_thread.h"

namespace oskernel_test {

inline constexpr int kVersions[] = {TLS1_2_VERSION, TLS1_3_VERSION};
inline const char* name_of_version(int version) { return version == TLS1_2_VERSION ? "TLS 1.2" : "TLS 1.3"; }

inline constexpr char kSecureCiphers[] =
    "RSA+AESGCM:RSA+AES:ECDH+AESGCM:DH+AESGCM:ECDH+AES256:DH+AES256:ECDH+AES128:DH+AES:!aNULL:!MD5";
inline constexpr char kCipherLine[] =
    "TLSSetup: setting cipher list to "
    "RSA+AESGCM:RSA+AES:ECDH+AESGCM:DH+AESGCM:ECDH+AES256:DH+AES256:ECDH+AES128:DH+AES:!aNULL:!MD5";

/// A secure socket that has accepted a connection, and the peer.
struct Accepted {
  std::unique_ptr<SecureSocket> socket;
  PeerStream peer;

  SecureSocket* operator->() const { return socket.get(); }
};

/// A connection without TLS so far; `port` of the listener when somebody else connects to it.
inline Accepted accepted_connection() {
  SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  Accepted connection;
  connection.peer = PeerStream::connect_to(listener.LocalPort());
  EXPECT_TRUE(connection.peer.is_open());
  connection.socket.reset(dynamic_cast<SecureSocket*>(listener.Accept()));
  EXPECT_NE(connection.socket, nullptr);
  return connection;
}

/// A secure socket in the server's role and its client.
struct Served {
  std::unique_ptr<SecureSocket> socket;
  std::unique_ptr<TlsPeer> peer;

  SecureSocket* operator->() const { return socket.get(); }
};

/// An established connection, accepted by the library. `expected` false: one that is not to be established.
inline Served served_connection(const TlsPeer::Settings& settings = {}, bool expected = true) {
  Accepted accepted = accepted_connection();
  Served served;
  served.socket = std::move(accepted.socket);
  served.peer = std::make_unique<TlsPeer>(std::move(accepted.peer), TlsPeer::kClient, settings);
  bool done = false;
  {
    WatchedThread shaking([&] { done = served.peer->handshake(); });
    served.socket->ConnectAck();
    if (!served.socket->Secure()) served.peer->stream().half_close();
  }
  EXPECT_EQ(served.socket->Secure(), expected);
  EXPECT_TRUE(done || !expected) << served.peer->trouble();
  return served;
}

/// A server that speaks first, for one client of the library.
class SpeakingServer {
 public:
  explicit SpeakingServer(TlsPeer::Settings settings, std::string_view first_word = kHelloRequest)
      : settings_(std::move(settings)), first_word_(first_word) {
    thread_ = std::make_unique<WatchedThread>([this] {
      PeerStream stream = listener_.accept();
      stream.send_all(first_word_);
      peer_ = std::make_unique<TlsPeer>(std::move(stream), TlsPeer::kServer, settings_);
      done_ = peer_->handshake();
    });
  }
  UWORD port() const { return listener_.port(); }
  /// The peer, when its handshake is over; `expected` is how it ends.
  TlsPeer& peer(bool expected = true) {
    thread_.reset();
    EXPECT_EQ(done_, expected) << peer_->trouble();
    return *peer_;
  }

 private:
  const TlsPeer::Settings settings_;
  const std::string first_word_;
  PeerListener listener_;
  std::unique_ptr<TlsPeer> peer_;
  bool done_ = false;
  std::unique_ptr<WatchedThread> thread_;
};

inline std::unique_ptr<SecureSocket> secure_client(UWORD port, std::string host = "127.0.0.1",
                                                   Socket::Type type = Socket::TCP_CLIENT) {
  return std::make_unique<SecureSocket>(type, host.data(), port);
}

/// The whole OpenSSL error queue of this thread is thrown away, and `code` stands in it.
inline void queue_openssl_error(int library, int reason) {
  ERR_clear_error();
  ERR_raise(library, reason);
}
inline std::string error_text(unsigned long code) {
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

/// Each test's body begins with OSKERNEL_IN_NETWORK_NAMESPACE(): the fixture works in the process inside alone, where
/// "/Korvantel" stands and is empty.
class SecureTest : public BlockingTest {
 protected:
  void SetUp() override {
    if (!inside_network_namespace()) return;
    BlockingTest::SetUp();
    root_.emplace();
    SSLInfo::security_level = 1;
  }
  void TearDown() override {
    if (!inside_network_namespace()) return;
    SSLInfo::security_level = 1;
    BlockingTest::TearDown();
  }
  const ApplianceRoot& root() const { return *root_; }
  /// The ordinary case: both sets stand where they belong.
  void put_files(TlsFiles::Kind kind = TlsFiles::kServer) {
    root().put_primary(files.of(kind));
    root().put_fallback(files.of(TlsFiles::kClient), files.ca());
  }
  TlsPeer::Settings server_settings(TlsFiles::Kind kind = TlsFiles::kServer, int version = 0) {
    return {.cert = files.cert(kind), .key = files.key(kind), .version = version};
  }
  /// The lines that have been printed and contain `part`; the others are forgotten.
  Lines said_with(std::string_view part) {
    Lines found;
    for (std::string& line : said()) {
      if (line.find(part) != std::string::npos) found.push_back(std::move(line));
    }
    return found;
  }

  TlsFiles files;

 private:
  std::optional<ApplianceRoot> root_;
};

}  // namespace oskernel_test

#endif
