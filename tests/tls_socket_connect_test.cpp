// Sockets that are secure by themselves: clients that connect, servers that are accepted, and what their layers hear.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The way the socket is served, and the version.
class TlsSocketConnect : public TlsSocketTest, public testing::WithParamInterface<std::tuple<bool, int>> {
 protected:
  static bool indirect() { return std::get<0>(GetParam()); }
  static int version() { return std::get<1>(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketConnect,
                         testing::Combine(testing::Bool(), testing::Values(TLS1_2_VERSION, TLS1_3_VERSION)),
                         [](const auto& kind) {
                           return std::string(std::get<0>(kind.param) ? "Indirect" : "Direct") +
                                  version_name(std::get<1>(kind.param));
                         });

// ---- Clients -------------------------------------------------------------------------------------------------

TEST_P(TlsSocketConnect, AClientIsConnectedWhenTheHandshakeIsDone) {
  SecureClient client(indirect(), good_server(version()));
  ASSERT_TRUE(wait_until([&] { return console.count("StartSSL - Handshake") > 0; }, kPatienceMs));
  EXPECT_EQ(now_of(client.socket->state), SSConnected);
  EXPECT_EQ(client.layer.count(), 0U);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  const int s = client.socket->s;
  EXPECT_TRUE(printed(console, indirect() ? text_of("%d AsyncSocket::MonitorThread - start SSL", s)
                                          : text_of("%d AsyncSocket::Main - start SSL", s)));
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::StartSSL - Handshake", s)));
  EXPECT_TRUE(printed(console, "TLSSetup: srv 0 options = 0"));
  EXPECT_TRUE(printed(console, std::string("TLS connect: version ") + version_text(version())));
  EXPECT_TRUE(client.layer.at(0).null_address);
}

TEST_P(TlsSocketConnect, DataGoesBothWays) {
  SecureClient client(indirect(), good_server(version()));
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  for (int i = 0; i < 3; ++i) {
    const std::string bytes = numbered_bytes(3000, static_cast<unsigned>(i));
    client.peer->write(bytes);
    ASSERT_TRUE(client.layer.wait_for_bytes(bytes.size()));
    EXPECT_TRUE(same_bytes(client.layer.data(), bytes));
    client.layer.clear();
    EXPECT_EQ(client.socket->DataIndication(buffer_of(bytes)), Success);
    EXPECT_TRUE(same_bytes(client.peer->read(bytes.size()), bytes));
    EXPECT_EQ(client.socket->DataExpeditedIndication(buffer_of("!")), Success);
    EXPECT_EQ(client.peer->read(1), "!");
  }
}

TEST_P(TlsSocketConnect, ReceivedBuffersCarryTheAddresses) {
  SecureClient client(indirect(), good_server(version()));
  ASSERT_TRUE(client.comes_up());
  client.peer->write("x");
  ASSERT_TRUE(client.layer.wait_for_bytes(1));
  const Indication data = client.layer.all().back();
  EXPECT_EQ(data.remote_ipaddr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ntohs(data.remote_port), client.listener.port());
}

TEST_P(TlsSocketConnect, WhatIsGivenBeforeItIsSecureFollowsInOrder) {
  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket = secure_socket(layer, indirect());
  std::string given;
  const auto give = [&](unsigned i) {
    const std::string bytes = numbered_bytes(900, i);
    EXPECT_EQ(socket->DataIndication(buffer_of(bytes)), Success);
    given += bytes;
  };
  for (unsigned i = 0; i < 3; ++i) give(i);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  PeerStream stream = listener.accept();
  ASSERT_TRUE(stream.is_open());
  for (unsigned i = 3; i < 6; ++i) give(i);
  ASSERT_TRUE(wait_until([&] { return now_of(socket->secure_state) == SecHandshake; }, kPatienceMs));
  for (unsigned i = 6; i < 9; ++i) give(i);
  TlsEnd peer(good_server(version()), Descriptor(stream.release()));
  ASSERT_TRUE(peer.handshake());
  for (unsigned i = 9; i < 12; ++i) give(i);
  EXPECT_TRUE(same_bytes(peer.read(given.size()), given));
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
  EXPECT_EQ(early(*socket), 0);
}

TEST_P(TlsSocketConnect, NothingLeavesInTheClear) {
  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket = secure_socket(layer, indirect());
  const std::string secret(200, 'S');
  EXPECT_EQ(socket->DataIndication(buffer_of(secret)), Success);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  PeerStream stream = listener.accept();
  ASSERT_TRUE(wait_until([&] { return now_of(socket->secure_state) == SecHandshake; }, kPatienceMs));
  EXPECT_EQ(socket->DataIndication(buffer_of(secret)), Success);
  ASSERT_TRUE(stream.send_all("not TLS at all"));
  ASSERT_TRUE(layer.wait_for_disconnect());
  socket->Close();
  const std::string wire = stream.receive_to_end();
  EXPECT_EQ(wire.substr(0, 1), "\x16");
  EXPECT_EQ(wire.find("SSSS"), std::string::npos);
}

TEST_P(TlsSocketConnect, ThePeersGoodbyeIsAFailureOfSix) {
  SecureClient client(indirect(), good_server(version()));
  ASSERT_TRUE(client.comes_up());
  client.peer->write("last words");
  client.peer->say_goodbye();
  ASSERT_TRUE(client.layer.wait_for_disconnect());
  EXPECT_THAT(client.layer.story(), ElementsAre("connect", "data:last words", "disconnect(4,6)"));
  EXPECT_EQ(now_of(client.socket->state), SSDisconnected);
  EXPECT_FALSE(now_of(client.socket->running));
  EXPECT_EQ(client.socket->DataIndication(buffer_of("too late")), NoConnection);
}

TEST_P(TlsSocketConnect, APeerThatVanishesIsAFailureOfFive) {
  SecureClient client(indirect(), good_server(version()));
  ASSERT_TRUE(client.comes_up());
  client.peer->write("last words");
  client.peer->close();
  ASSERT_TRUE(client.layer.wait_for_disconnect());
  EXPECT_THAT(client.layer.story(), ElementsAre("connect", "data:last words", "disconnect(4,5)"));
  EXPECT_EQ(console.count("SSL_read ERROR_SYSCALL EOF"), 1);
}

TEST_P(TlsSocketConnect, RubbishIsAFailureOfOne) {
  SecureClient client(indirect(), good_server(version()));
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  const std::string rubbish(100, 'R');
  ::send(client.peer->fd(), rubbish.data(), rubbish.size(), MSG_NOSIGNAL);
  ASSERT_TRUE(client.layer.wait_for_disconnect());
  EXPECT_THAT(client.layer.story(), ElementsAre("connect", "disconnect(4,1)"));
}

TEST_P(TlsSocketConnect, ASelfSignedServerIsTaken) {
  SecureClient client(indirect(), server_with(TlsFiles::kSelfSigned, version()));
  ASSERT_TRUE(client.comes_up());
  EXPECT_EQ(console.count("TLSHandshake: peer self-signed certificate verified"), 1);
}

TEST_P(TlsSocketConnect, APeerOfOneByteAtATimeIsServed) {
  SecureClient client(indirect(), good_server(version()));
  client.peer->hold(true);
  ASSERT_TRUE(client.peer->wait(kPeerPatienceMs, [&] {
    client.peer->step();
    for (int i = 0; i < 20; ++i) client.peer->release(1);
    return now_of(client.socket->secure_state) == SecSecure;
  }));
  client.peer->step();
  client.peer->write("by the byte");
  while (!client.peer->held().empty()) ASSERT_TRUE(client.peer->release(1));
  ASSERT_TRUE(client.layer.wait_for_bytes(11));
  EXPECT_EQ(client.layer.data(), "by the byte");
}

// ---- Servers -------------------------------------------------------------------------------------------------

TEST_P(TlsSocketConnect, AServerIsConnectedWhenTheHandshakeIsDone) {
  SecureServer server(indirect(), good_client(version()));
  EXPECT_EQ(server.socket->ConnectAck(), 0);
  const int s = server.socket->s;
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::ConnectAck - start SSL", s)));
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::StartSSL - Handshake", s)));
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::ConnectAck - StartSSL returned -1", s)));
  EXPECT_TRUE(printed(console, "TLSSetup: srv 1 options = 0"));
  EXPECT_EQ(now_of(server.socket->state), SSConnected);
  EXPECT_EQ(server.layer.count(), 0U);
  EXPECT_EQ(server.socket->DataIndication(buffer_of("welcome")), Success);
  ASSERT_TRUE(server.comes_up());
  EXPECT_EQ(server.peer->read(7), "welcome");
  server.peer->write("thanks");
  ASSERT_TRUE(server.layer.wait_for_bytes(6));
  EXPECT_THAT(server.layer.story(), ElementsAre("connect", "data:thanks"));
  EXPECT_TRUE(printed(console, std::string("TLS accept: version ") + version_text(version())));
}

TEST_P(TlsSocketConnect, AServerWhosePeerSpeaksSomethingElseFailsWithoutReceptionWhenThatIsKnownAtOnce) {
  SecureServer server(indirect(), good_client(version()));
  const std::string rubbish(100, 'R');
  ::send(server.peer->fd(), rubbish.data(), rubbish.size(), MSG_NOSIGNAL);
  ASSERT_TRUE(wait_readable(server.socket->s));
  EXPECT_EQ(server.socket->ConnectAck(), 0);
  ASSERT_TRUE(server.layer.wait_for_disconnect());
  EXPECT_THAT(server.layer.story(), ElementsAre("disconnect(4,0)"));
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::ConnectAck - StartSSL error 1", server.socket->s)));
  EXPECT_EQ(now_of(server.socket->state), SSDisconnected);
  EXPECT_FALSE(now_of(server.socket->running));
  EXPECT_FALSE(now_of(server.socket->receive_started));
}

TEST_P(TlsSocketConnect, AServerWhosePeerSpeaksSomethingElseLaterFailsWithOne) {
  SecureServer server(indirect(), good_client(version()));
  EXPECT_EQ(server.socket->ConnectAck(), 0);
  const std::string rubbish(100, 'R');
  ::send(server.peer->fd(), rubbish.data(), rubbish.size(), MSG_NOSIGNAL);
  ASSERT_TRUE(server.layer.wait_for_disconnect());
  EXPECT_THAT(server.layer.story(), ElementsAre("disconnect(4,1)"));
  EXPECT_EQ(now_of(server.socket->state), SSDisconnected);
  EXPECT_FALSE(now_of(server.socket->running));
}

TEST_P(TlsSocketConnect, AServerWhosePeerVanishesDuringTheHandshakeFailsWithOne) {
  for (const std::size_t count : {std::size_t{0}, std::size_t{3}, std::size_t{60}}) {
    SecureServer server(indirect(), good_client(version()));
    EXPECT_EQ(server.socket->ConnectAck(), 0);
    server.peer->hold(true);
    server.peer->step();
    server.peer->release(count);
    server.peer->close();
    ASSERT_TRUE(server.layer.wait_for_disconnect());
    EXPECT_THAT(server.layer.story(), ElementsAre("disconnect(4,1)"));
  }
}

TEST_P(TlsSocketConnect, AServerWithoutACertificateEndsAtTheFirstChance) {
  SecureServer server(indirect(), good_client(version()));
  server.socket->SetCertificates(tls_files().missing().c_str(), nullptr, nullptr);
  EXPECT_EQ(server.socket->DataIndication(buffer_of("secret")), Success);
  EXPECT_EQ(server.socket->ConnectAck(), 0);
  EXPECT_TRUE(
      printed(console, text_of("%d AsyncSocket::ConnectAck - StartSSL returned -1", server.socket->s)));
  ::send(server.peer->fd(), "hello", 5, MSG_NOSIGNAL);
  ASSERT_TRUE(server.layer.wait_for_disconnect());
  EXPECT_THAT(server.layer.story(), ElementsAre("disconnect(4,1)"));
  EXPECT_FALSE(wait_readable(server.peer->fd(), 20));
}

TEST_P(TlsSocketConnect, AClientWithoutACaEndsAtTheFirstChance) {
  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket = secure_socket(layer, indirect());
  socket->SetCertificates(nullptr, nullptr, tls_files().missing().c_str());
  EXPECT_EQ(socket->DataIndication(buffer_of("secret")), Success);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  PeerStream stream = listener.accept();
  ASSERT_TRUE(stream.send_all("hello"));
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.story().back(), "disconnect(4,1)");
  EXPECT_EQ(layer.count(Indication::kData), 0U);
  EXPECT_EQ(stream.receive_now(), "");
}

TEST_P(TlsSocketConnect, WithoutInitialiseASecureSocketEndsAtTheFirstChance) {
  SSLInfo::initialised = false;
  {
    SecureServer server(indirect(), good_client(version()));
    EXPECT_EQ(server.socket->ConnectAck(), 0);
    EXPECT_TRUE(printed(console, "SSL/TLS not initialised"));
    EXPECT_THAT(server.socket->DataIndication(buffer_of("secret")), AnyOf(Success, NoConnection));
    ::send(server.peer->fd(), "hello", 5, MSG_NOSIGNAL);
    EXPECT_TRUE(server.layer.wait_for_disconnect());
    EXPECT_THAT(server.layer.story(), ElementsAre("disconnect(4,1)"));
    EXPECT_FALSE(wait_readable(server.peer->fd(), 20));
  }
  SSLInfo::initialised = true;
}

// ---- Listeners -----------------------------------------------------------------------------------------------

TEST_P(TlsSocketConnect, AListenerHandsItsSecurityOn) {
  for (const bool secure : {true, false}) {
    RecordingLayer layer;
    Acceptor acceptor;
    OwnedSocket listener(new AsyncSocket(indirect()));
    listener->secure = secure;
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    PeerStream stream = PeerStream::connect_to(listener->LocalPort());
    OwnedSocket socket = acceptor.take();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->secure, secure);
    EXPECT_EQ(socket->ssl_info, nullptr);
    socket->Bind(&layer);
    socket->ConnectAck();
    if (secure) {
      TlsEnd peer(good_client(version()), Descriptor(stream.release()));
      ASSERT_TRUE(peer.handshake());
      peer.write("hello");
      ASSERT_TRUE(layer.wait_for_bytes(5));
      EXPECT_THAT(layer.story(), ElementsAre("connect", "data:hello"));
    } else {
      ASSERT_TRUE(stream.send_all("hello"));
      ASSERT_TRUE(layer.wait_for_bytes(5));
      EXPECT_THAT(layer.story(), ElementsAre("data:hello"));
    }
  }
}

// ---- Both ends of the library --------------------------------------------------------------------------------

TEST_P(TlsSocketConnect, TwoSocketsOfTheLibrarySpeakToEachOther) {
  RecordingLayer here, there;
  Acceptor acceptor;
  OwnedSocket listener = indirect_socket();
  listener->secure = true;
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  OwnedSocket client = secure_socket(here, indirect());
  client->Connect(INADDR_LOOPBACK, listener->LocalPort());
  OwnedSocket server = acceptor.take();
  ASSERT_NE(server, nullptr);
  server->Bind(&there);
  server->ConnectAck();
  ASSERT_TRUE(here.wait_for_connect());
  ASSERT_TRUE(there.wait_for_connect());
  EXPECT_EQ(client->DataIndication(buffer_of("question")), Success);
  ASSERT_TRUE(there.wait_for_bytes(8));
  EXPECT_EQ(server->DataIndication(buffer_of("answer")), Success);
  ASSERT_TRUE(here.wait_for_bytes(6));
  EXPECT_THAT(here.story(), ElementsAre("connect", "data:answer"));
  EXPECT_THAT(there.story(), ElementsAre("connect", "data:question"));
}

}  // namespace
