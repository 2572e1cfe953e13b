/// Sockets of the library that run TLS, with a peer made of OpenSSL alone.
#ifndef OSKERNEL_TESTS_TLS_SOCKET_H
#define OSKERNEL_TESTS_TLS_SOCKET_H

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "network_fixture.h"
#include "socket_watch.h"
#include "tls_session.h"

namespace oskernel_test {

/// Sockets with the kernel's own dispatcher.
class TlsSocketTest : public NetworkTest {
 protected:
  void SetUp() override {
    initialise_tls();
    NetworkTest::SetUp();
  }
  void TearDown() override {
    if (HasFailure()) tell();
    NetworkTest::TearDown();
    SSLInfo::ssl_debug = 1;
    SSLInfo::security_level = 1;
  }

 private:
  /// What the library said, for whoever reads the failure.
  void tell() const {
    for (const std::string& text : console.calls()) std::fprintf(stderr, "    %s\n", text.c_str());
  }
};

/// Sockets whose received buffers wait until the test dispatches.
class QuietTlsSocketTest : public QuietNetworkTest {
 protected:
  void SetUp() override {
    initialise_tls();
    QuietNetworkTest::SetUp();
  }
  void TearDown() override {
    QuietNetworkTest::TearDown();
    SSLInfo::ssl_debug = 1;
    SSLInfo::security_level = 1;
  }
};

/// A stream socket that is to be secure, bound to a layer; not connected yet.
inline OwnedSocket secure_socket(RecordingLayer& layer, bool indirect = true) {
  OwnedSocket socket(new AsyncSocket(indirect));
  socket->Bind(&layer);
  socket->secure = true;
  EXPECT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  return socket;
}

/// A socket of the library as a TLS client, and its server.
struct SecureClient {
  explicit SecureClient(bool indirect = true, const TlsEnd::Wish& wish = good_server())
      : socket(secure_socket(layer, indirect)) {
    socket->Connect(INADDR_LOOPBACK, listener.port());
    PeerStream stream = listener.accept();
    EXPECT_TRUE(stream.is_open());
    peer = std::make_unique<TlsEnd>(wish, Descriptor(stream.release()));
  }
  /// The peer's part of the handshake, and the socket's.
  bool comes_up() {
    return peer->handshake() &&
           wait_until([this] { return now_of(socket->secure_state) == SecSecure; }, kPatienceMs);
  }

  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket;
  std::unique_ptr<TlsEnd> peer;
};

/// A socket of the library that has adopted a connection and is to be the TLS server; ConnectAck is the test's.
struct SecureServer {
  explicit SecureServer(bool indirect = true, const TlsEnd::Wish& wish = good_client())
      : socket(new AsyncSocket(indirect)) {
    PeerStream stream = adopt_connection(*socket, layer, listener);
    EXPECT_TRUE(stream.is_open());
    socket->secure = true;
    peer = std::make_unique<TlsEnd>(wish, Descriptor(stream.release()));
  }
  bool comes_up() {
    return peer->handshake() &&
           wait_until([this] { return now_of(socket->secure_state) == SecSecure; }, kPatienceMs);
  }

  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket;
  std::unique_ptr<TlsEnd> peer;
};

/// Bytes that the system has yet to bring to the peer.
inline int unsent_bytes(int fd) {
  int count = 0;
  ::ioctl(fd, SIOCOUTQ, &count);
  return count;
}

}  // namespace oskernel_test

#endif
