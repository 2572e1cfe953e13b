// Handshakes whose own messages do not go out at once, because the peer does not read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// A certificate with so much behind it that two small socket buffers do not hold it, and less than peers refuse.
std::string long_chain(TlsFiles::Kind kind) {
  TlsFiles& files = tls_files();
  std::string text = TlsFiles::read(files.cert(kind));
  const std::string authority = TlsFiles::read(files.ca());
  for (int i = 0; i < 100; ++i) text += authority;
  return files.write("long-" + std::to_string(kind) + ".pem", text);
}

void make_small(int fd) {
  int small = 4096;
  ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
}

class TlsSocketStall : public TlsSocketTest, public testing::WithParamInterface<std::tuple<bool, int>> {
 protected:
  static bool indirect() { return std::get<0>(GetParam()); }
  static int version() { return std::get<1>(GetParam()); }
  /// The socket has written as much as goes, and waits.
  bool stalls(const char* call) {
    const std::string wanted = std::string(call) + " error 3 WANT_WRITE";
    return wait_until([&] { return console.count(wanted) > 0; }, kPatienceMs);
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketStall,
                         testing::Combine(testing::Bool(), testing::Values(TLS1_2_VERSION, TLS1_3_VERSION)),
                         [](const auto& kind) {
                           return std::string(std::get<0>(kind.param) ? "Indirect" : "Direct") +
                                  version_name(std::get<1>(kind.param));
                         });

TEST_P(TlsSocketStall, AServersHandshakeGoesOnWhenThereIsRoomAndThePeerSaysNothing) {
  RecordingLayer layer;
  PeerListener listener;
  listener.set_receive_buffer(4096);
  OwnedSocket socket(new AsyncSocket(indirect()));
  socket->Bind(&layer);
  PeerStream own = PeerStream::connect_to(listener.port());
  TlsEnd peer(good_client(version()), Descriptor(listener.accept().release()));
  make_small(own.fd());
  ASSERT_EQ(socket->Create(SOCK_STREAM, own.release()), 0);
  socket->rem_sin.Set(INADDR_LOOPBACK, local_port_of(peer.fd()));
  socket->secure = true;
  socket->SetCertificates(long_chain(TlsFiles::kServer).c_str(), nullptr, nullptr);
  peer.step();
  socket->ConnectAck();
  ASSERT_TRUE(stalls("SSL_accept"));
  ASSERT_EQ(now_of(socket->secure_state), SecHandshake);
  EXPECT_EQ(layer.count(), 0U);
  // A client has nothing to say before it has seen all of it.
  ASSERT_TRUE(peer.handshake());
  EXPECT_EQ(SSL_version(peer.ssl()), version());
  peer.write("hello");
  ASSERT_TRUE(layer.wait_for_bytes(5));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:hello"));
  EXPECT_EQ(socket->DataIndication(buffer_of("welcome")), Success);
  EXPECT_EQ(peer.read(7), "welcome");
}

TEST_P(TlsSocketStall, AClientsHandshakeGoesOnWhenThereIsRoomAndThePeerSaysNothing) {
  RecordingLayer layer;
  PeerListener listener;
  listener.set_receive_buffer(4096);
  OwnedSocket socket = secure_socket(layer, indirect());
  make_small(socket->s);
  socket->SetCertificates(long_chain(TlsFiles::kClient).c_str(), tls_files().key(TlsFiles::kClient).c_str(),
                          nullptr);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  TlsEnd::Wish wish = good_server(version());
  wish.ask = true;
  TlsEnd peer(wish, Descriptor(listener.accept().release()));
  // As far as the server's hello and what goes with it; it reads nothing of the answer.
  ASSERT_TRUE(wait_until(
      [&] {
        peer.step();
        return SSL_get_state(peer.ssl()) != TLS_ST_BEFORE;
      },
      kPatienceMs));
  ASSERT_TRUE(stalls("SSL_connect"));
  ASSERT_EQ(now_of(socket->secure_state), SecHandshake);
  EXPECT_EQ(layer.count(), 0U);
  ASSERT_TRUE(peer.handshake());
  peer.write("hello");
  ASSERT_TRUE(layer.wait_for_bytes(5));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:hello"));
  EXPECT_EQ(socket->DataIndication(buffer_of("thanks")), Success);
  EXPECT_EQ(peer.read(6), "thanks");
}

TEST_P(TlsSocketStall, ItsThreadRestsMeanwhile) {
  RecordingLayer layer;
  PeerListener listener;
  listener.set_receive_buffer(4096);
  OwnedSocket socket(new AsyncSocket(indirect()));
  socket->Bind(&layer);
  PeerStream own = PeerStream::connect_to(listener.port());
  TlsEnd peer(good_client(version()), Descriptor(listener.accept().release()));
  make_small(own.fd());
  ASSERT_EQ(socket->Create(SOCK_STREAM, own.release()), 0);
  socket->secure = true;
  socket->SetCertificates(long_chain(TlsFiles::kServer).c_str(), nullptr, nullptr);
  peer.step();
  socket->ConnectAck();
  ASSERT_TRUE(stalls("SSL_accept"));
  EXPECT_TRUE(is_calm(indirect() ? AsyncSocket::monitor_thread : socket->thread));
  // The end finds it there.
  socket->Close();
  EXPECT_EQ(socket->ssl_info, nullptr);
  EXPECT_EQ(layer.count(), 0U);
}

// ---- A peer that says nothing at all -------------------------------------------------------------------------

using TlsSocketSilent = TlsSocketTest;

TEST_F(TlsSocketSilent, ADirectServersThreadRestsAndCloseEndsItWithoutAWord) {
  SecureServer server(false);
  server.socket->ConnectAck();
  ASSERT_EQ(now_of(server.socket->secure_state), SecHandshake);
  EXPECT_TRUE(is_calm(server.socket->thread));
  server.socket->Close();
  EXPECT_EQ(server.socket->ssl_info, nullptr);
  EXPECT_EQ(server.layer.count(), 0U);
  EXPECT_EQ(console.count("handshake failed"), 0);
}

}  // namespace
