// The handshake of the secure blocking socket: it waits for the peer before every step, in both roles.

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

class SecureSocketHandshake : public SecureTest {
 protected:
  /// The lines of a whole handshake, each step in its order.
  static void expect_story(const Lines& lines, const char* role, bool established) {
    std::string story;
    for (const std::string& each : lines) story += each + "\n";
    const std::string prefix = "SecureSocket::StartSSL - ";
    const std::string step = "SSL_" + std::string(role) + " returned ";
    const std::string round = prefix + "select returned 1\n(ssl-info-callback - renegotiations 1\n)?" +
                              prefix + step + "(-1|0)\n" + prefix + "SSL_get_error returned 2\n";
    const std::string last =
        prefix + "select returned 1\n(ssl-info-callback - renegotiations 1\n)?" + prefix + step + "1\n";
    std::string cipher_line = std::regex_replace(std::string(kCipherLine), std::regex("[+!]"), "\\$&");
    const std::regex wanted(cipher_line + "\n(" + round + ")*" + (established ? last : ""));
    EXPECT_TRUE(std::regex_match(story, wanted)) << story;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "ssl-info-callback - renegotiations 1"), 1);
  }
  /// The number that the next descriptor gets.
  static int next_descriptor() {
    const Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return probe.get();
  }
};

// ---- The server's role -----------------------------------------------------------------------------------------

TEST_F(SecureSocketHandshake, AServerTellsEveryStep) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    EXPECT_EQ(served.peer->version(), version);
    expect_story(said(), "accept", true);
    EXPECT_TRUE(served->Secure());
    EXPECT_TRUE(served->ssl_connected);
    EXPECT_EQ(served->state, Socket::CONNECTED);
    EXPECT_FALSE(is_nonblocking(served->s));
    EXPECT_NE(SSL_get_options(served->ssl) & SSL_OP_NO_RENEGOTIATION, 0U)
        << "from then on nobody starts over";
  }
}

TEST_F(SecureSocketHandshake, AServerSaysNothingBeforeItsClientDoes) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  std::vector<int> times;
  {
    ScriptedWaits waits(accepted->s, {{Wait::kNothing}});
    EXPECT_EQ(accepted->StartSSL(true), 1);
    times = waits.times_ms();
    EXPECT_EQ(waits.waits_to_write(), 0);
  }
  EXPECT_THAT(times, ElementsAre(10000));
  EXPECT_THAT(said(), ElementsAre(kCipherLine, "SecureSocket::StartSSL - select returned 0"));
  EXPECT_FALSE(is_nonblocking(accepted->s));
  EXPECT_EQ(accepted.peer.receive_now(), "");
  accepted.peer.close();
}

TEST_F(SecureSocketHandshake, EveryRoundWaitsTenSecondsToRead) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  TlsPeer peer(std::move(accepted.peer), TlsPeer::kClient, {.version = TLS1_2_VERSION});
  bool done = false;
  ScriptedWaits waits(accepted->s, {});
  {
    WatchedThread shaking([&] { done = peer.handshake(); });
    EXPECT_EQ(accepted->StartSSL(true), 0);
  }
  EXPECT_TRUE(done);
  EXPECT_THAT(waits.times_ms(), Not(IsEmpty()));
  EXPECT_THAT(waits.times_ms(), Each(10000));
  EXPECT_EQ(waits.waits_to_write(), 0) << "also when OpenSSL wants to write";
}

TEST_F(SecureSocketHandshake, AWaitThatFailsEndsIt) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int error : {EBADF, ENOMEM, EINTR}) {
    Accepted accepted = accepted_connection();
    ScriptedWaits waits(accepted->s, {{Wait::kFails, error}});
    EXPECT_EQ(accepted->StartSSL(true), 1);
    EXPECT_THAT(said(), ElementsAre(kCipherLine, "SecureSocket::StartSSL - select returned -1"));
    EXPECT_FALSE(is_nonblocking(accepted->s));
    accepted.peer.close();
  }
}

TEST_F(SecureSocketHandshake, ASilentClientIsClosedByConnectAck) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  accepted.peer.half_close();
  const int fd = accepted->s;
  {
    ScriptedWaits waits(fd, {{Wait::kNothing}});
    accepted->ConnectAck();
  }
  EXPECT_EQ(accepted->s, -1);
  EXPECT_EQ(accepted->state, Socket::INVALID);
  EXPECT_EQ(accepted->ssl, nullptr);
  EXPECT_FALSE(accepted->Secure());
  EXPECT_TRUE(accepted.peer.ended());
}

/// Tells whether ConnectAck closes through the virtual operation.
class CloseProbe : public SecureSocket {
 public:
  using SecureSocket::SecureSocket;
  void Close() override {
    ++closes;
    SecureSocket::Close();
  }
  int closes = 0;
};

TEST_F(SecureSocketHandshake, AFailedHandshakeGoesThroughTheVirtualClose) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  WirePair wire;
  sockaddr_in remote = loopback_address(wire.peer.local_port());
  CloseProbe socket(Socket::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  wire.peer.close();
  socket.ConnectAck();
  EXPECT_EQ(socket.closes, 1);
  socket.ConnectAck();
  EXPECT_EQ(socket.closes, 1) << "it is not connected any more";
}

TEST_F(SecureSocketHandshake, WhatIsNoTlsIsReportedWithOpensslsErrors) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const std::string kWords[] = {"GET / HTTP/1.0\r\n\r\n", std::string(64, '\0'), std::string(400, '\xFF'),
                                numbered_bytes(5000), "\x16\x03\x01\xFF\xFF" + std::string(300, 'x')};
  for (const std::string& word : kWords) {
    Accepted accepted = accepted_connection();
    accepted.peer.send_all(word);
    accepted.peer.half_close();
    EXPECT_EQ(accepted->StartSSL(true), 1);
    const Lines lines = said();
    EXPECT_THAT(lines, Contains(StartsWith("SecureSocket::StartSSL - SSL_accept returned ")));
    EXPECT_THAT(lines, Contains("SecureSocket::StartSSL - SSL_get_error returned 1"));
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(std::regex_match(lines.back(), std::regex("SSL error [0-9a-f]+ \\(error:.*\\)")))
        << lines.back();
    unsigned code = 0;
    ASSERT_EQ(std::sscanf(lines.back().c_str(), "SSL error %x", &code), 1);
    EXPECT_EQ(lines.back(), line("SSL error %x (%s)", code, error_text(code).c_str()));
    EXPECT_FALSE(is_nonblocking(accepted->s));
    EXPECT_EQ(ERR_peek_error(), 0U) << "nothing stays queued";
    EXPECT_FALSE(accepted->Secure());
  }
}

TEST_F(SecureSocketHandshake, APeerThatGoesInTheMiddleIsAnErrorOfTheSystem) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const std::size_t sent : {std::size_t{0}, std::size_t{1}, std::size_t{5}, std::size_t{60}}) {
    SCOPED_TRACE(sent);
    Accepted accepted = accepted_connection();
    TlsPeer peer(std::move(accepted.peer), TlsPeer::kClient, {});
    peer.handshake_step();
    peer.stream().send_all(peer.take_flight().substr(0, sent));
    peer.stream().half_close();
    EXPECT_EQ(accepted->StartSSL(true), 1);
    const Lines lines = said();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "SecureSocket::StartSSL - SSL_get_error returned 5")
        << "no protocol error, and nothing queued";
    accepted->ConnectAck();
    EXPECT_EQ(accepted->s, -1);
  }
}

TEST_F(SecureSocketHandshake, ABrokenConnectionAfterAnyNumberOfBytesEndsIt) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  TlsPeer probe(PeerStream(), TlsPeer::kClient, {.version = TLS1_2_VERSION});
  probe.handshake_step();
  const std::size_t hello = probe.take_flight().size();
  for (const bool by_reset : {false, true}) {
    for (const std::size_t cut : {std::size_t{3}, hello / 2, hello, hello + 30}) {
      SCOPED_TRACE(cut);
      SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
      ByteRelay relay(listener.LocalPort(), {.portion = 7, .cut_forward = cut, .cut_by_reset = by_reset});
      TlsPeer peer(PeerStream::connect_to(relay.port()), TlsPeer::kClient, {.version = TLS1_2_VERSION});
      {
        WatchedThread shaking([&] { peer.handshake(); });
        const std::unique_ptr<Socket> accepted(listener.Accept());
        ASSERT_NE(accepted, nullptr);
        accepted->ConnectAck();
        EXPECT_EQ(accepted->s, -1);
        EXPECT_FALSE(accepted->Secure());
      }
    }
  }
}

TEST_F(SecureSocketHandshake, ByteForByteItComesToItsEnd) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version, .piece = 1});
    expect_story(said(), "accept", true);
    served.peer->send("hello");
    std::string got;
    while (got.size() < 5) got += taken(served->RecWait(kPatienceMs));
    EXPECT_EQ(got, "hello");
  }
}

TEST_F(SecureSocketHandshake, AnyClientIsTaken) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    for (const TlsFiles::Kind kind :
         {TlsFiles::kClient, TlsFiles::kSelfSigned, TlsFiles::kExpired, TlsFiles::kOtherCa}) {
      Served served =
          served_connection({.cert = files.cert(kind), .key = files.key(kind), .version = version});
      EXPECT_EQ(SSL_get0_peer_certificate(served->ssl), nullptr) << "nobody is asked for one";
    }
  }
}

TEST_F(SecureSocketHandshake, AClientThatRefusesTheCertificateIsClosed) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  // TLS 1.3 servers are done before the client has looked.
  Served served = served_connection({.ca = files.other_ca(), .version = TLS1_2_VERSION}, false);
  EXPECT_EQ(served->s, -1);
  EXPECT_THAT(said_with("SSL error"), Not(IsEmpty()));
}

TEST_F(SecureSocketHandshake, OldVersionsAreRefused) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection({.version = TLS1_1_VERSION, .security_level = 0}, false);
  EXPECT_EQ(served->s, -1);
}

TEST_F(SecureSocketHandshake, NobodyStartsOverOnAnEstablishedConnection) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection({.version = TLS1_2_VERSION});
  said();
  SSL_renegotiate(served.peer->ssl());
  served.peer->handshake_step();
  served.peer->flush();
  ASSERT_TRUE(wait_readable(served->s));
  EXPECT_EQ(served->RecWait(50), nullptr);
  EXPECT_THAT(said_with("renegotiations"), ElementsAre("ssl-info-callback - renegotiations 2"))
      << "the attempt is counted";
  served.peer->receive(1);
  EXPECT_EQ(served.peer->end(), TlsPeer::kFailed);
  EXPECT_THAT(served.peer->trouble(), HasSubstr("no renegotiation"));
}

TEST_F(SecureSocketHandshake, AConnectionThatIsServedTwiceBeginsAnew) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  expect_story(said(), "accept", true);
  Served next = served_connection();
  expect_story(said(), "accept", true);  // counted from 1 again
}

// ---- The client's role -----------------------------------------------------------------------------------------

TEST_F(SecureSocketHandshake, AClientWaitsForItsPeerToSpeakFirst) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  PeerListener listener;
  const int fd = next_descriptor();
  ScriptedWaits waits(
      fd, {{Wait::kReal}, {Wait::kNothing}, {Wait::kNothing}});  // the first is for the connection
  const auto client = secure_client(listener.port());
  PeerStream peer = listener.accept();
  ASSERT_EQ(client->s, fd);
  EXPECT_EQ(client->state, Socket::CONNECTED) << "only Secure tells";
  EXPECT_FALSE(client->Secure());
  ASSERT_THAT(waits.times_ms(), SizeIs(2));
  EXPECT_EQ(waits.times_ms()[1], 10000);
  EXPECT_THAT(said(), ElementsAre(kCipherLine, "SecureSocket::StartSSL - select returned 0"));
  EXPECT_EQ(peer.receive_now(), "") << "it has said nothing";
  EXPECT_FALSE(is_nonblocking(client->s));
  EXPECT_EQ(client->StartSSL(false), 1) << "and that is the answer";
  peer.close();
}

TEST_F(SecureSocketHandshake, AClientOfAServerThatSpeaksFirstIsSecure) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    SpeakingServer server(server_settings(TlsFiles::kServer, version));
    const auto client = secure_client(server.port());
    EXPECT_TRUE(client->Secure());
    EXPECT_EQ(client->state, Socket::CONNECTED);
    expect_story(said(), "connect", true);
    EXPECT_FALSE(is_nonblocking(client->s));
    TlsPeer& peer = server.peer();
    EXPECT_EQ(peer.version(), version);
    peer.send("hello\n");
    EXPECT_EQ(taken(client->RecWait(kPatienceMs)), "hello\n");
    client->DataIndication(buffer_of("hello yourself\n"));
    EXPECT_EQ(peer.receive_until("\n"), "hello yourself\n");
    peer.close();
  }
}

TEST_F(SecureSocketHandshake, AClientIsSecureAsSoonAsItsWaitSaysSo) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    SpeakingServer server(server_settings(TlsFiles::kServer, version), "");
    ScriptedWaits waits(next_descriptor(), {{Wait::kReal}, {Wait::kReadable}});
    const auto client = secure_client(server.port());
    EXPECT_TRUE(client->Secure());
    server.peer().close();
  }
}

TEST_F(SecureSocketHandshake, AClientShowsItsCertificateWhenItIsAsked) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kClient);
  for (const int version : kVersions) {
    TlsPeer::Settings settings = server_settings(TlsFiles::kServer, version);
    settings.ca = files.ca();
    settings.demand_certificate = true;
    SpeakingServer server(settings);
    const auto client = secure_client(server.port());
    EXPECT_TRUE(client->Secure());
    TlsPeer& peer = server.peer();
    EXPECT_EQ(peer.peer_subject(), files.subject(TlsFiles::kClient));
    EXPECT_EQ(peer.verify_result(), X509_V_OK);
    peer.close();
  }
}

/// A server's certificate, and what its verification says that nobody acts upon.
struct VerifyRow {
  TlsFiles::Kind kind;
  long result;
};

TEST_F(SecureSocketHandshake, AnyServerIsTakenThoughItsCertificateIsLookedAt) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  root().put_fallback(files.of(TlsFiles::kClient), files.ca());  // the fallback set has a CA of its own
  const VerifyRow kRows[] = {
      {TlsFiles::kServer, X509_V_OK},
      {TlsFiles::kChain, X509_V_OK},
      {TlsFiles::kServerRsa, X509_V_OK},
      {TlsFiles::kNoSubject, X509_V_OK},
      {TlsFiles::kSelfSigned, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
      {TlsFiles::kExpired, X509_V_ERR_CERT_HAS_EXPIRED},
      {TlsFiles::kNotYetValid, X509_V_ERR_CERT_NOT_YET_VALID},
      {TlsFiles::kOtherCa, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
  };
  for (const VerifyRow& row : kRows) {
    for (const int version : kVersions) {
      SCOPED_TRACE(files.cert(row.kind) + ", " + name_of_version(version));
      SpeakingServer server(server_settings(row.kind, version));
      const auto client = secure_client(server.port());
      EXPECT_TRUE(client->Secure());
      ASSERT_NE(client->ssl, nullptr);
      EXPECT_EQ(SSL_get_verify_result(client->ssl), row.result);
      server.peer().close();
    }
  }
}

TEST_F(SecureSocketHandshake, ThePrimaryCertificateIsItsOwnCa) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kSelfSigned);
  SpeakingServer server(server_settings(TlsFiles::kSelfSigned));
  const auto client = secure_client(server.port());
  EXPECT_TRUE(client->Secure());
  EXPECT_EQ(SSL_get_verify_result(client->ssl), X509_V_OK) << "the service trusts itself";
  server.peer().close();
}

TEST_F(SecureSocketHandshake, AServerThatAnswersInClearIsReported) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  PeerListener listener;
  WatchedThread serving([&] {
    PeerStream peer = listener.accept();
    peer.send_all("220 ready, and not in TLS\r\n");
    peer.receive(1);
    peer.half_close();
  });
  const auto client = secure_client(listener.port());
  EXPECT_FALSE(client->Secure());
  EXPECT_EQ(client->state, Socket::CONNECTED);
  const Lines lines = said();
  EXPECT_THAT(lines, Contains("SecureSocket::StartSSL - SSL_get_error returned 1"));
  EXPECT_THAT(lines.back(), StartsWith("SSL error "));
  EXPECT_FALSE(is_nonblocking(client->s));
}

TEST_F(SecureSocketHandshake, AServerThatGoesInTheMiddleLeavesAClientInsecure) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const std::size_t cut : {std::size_t{20}, std::size_t{300}}) {
    PeerListener listener;
    WatchedThread serving([&] {
      TlsPeer peer(listener.accept(), TlsPeer::kServer, server_settings());
      peer.handshake();
    });
    ByteRelay relay(listener.port(),
                    {.portion = 50, .cut_backward = cut, .greeting = std::string(kHelloRequest)});
    const auto client = secure_client(relay.port());
    EXPECT_FALSE(client->Secure());
    EXPECT_THAT(said(), Contains("SecureSocket::StartSSL - SSL_get_error returned 5"));
  }
}

// ---- The end of it ---------------------------------------------------------------------------------------------

TEST_F(SecureSocketHandshake, CloseTellsThePeerNothingInTls) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  SSL_CTX* const context = served->ssl_ctx;
  WatchedThread reading([&] {
    served.peer->receive_to_end();
    served.peer->close();
  });
  served->Close();
  EXPECT_TRUE(reading.finished_within(kPatienceMs));
  EXPECT_EQ(served.peer->end(), TlsPeer::kBrokenOff) << "no close notification";
  EXPECT_EQ(served->ssl, nullptr);
  EXPECT_EQ(served->ssl_ctx, context) << "the destructor's";
  EXPECT_FALSE(served->Secure());
  EXPECT_EQ(served->s, -1);
  EXPECT_EQ(served->state, Socket::INVALID);
  served->Close();
}

TEST_F(SecureSocketHandshake, TheDestructorEndsTheConnection) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  WatchedThread reading([&] {
    served.peer->receive_to_end();
    served.peer->close();
  });
  served.socket.reset();
  EXPECT_TRUE(reading.finished_within(kPatienceMs));
  EXPECT_EQ(served.peer->end(), TlsPeer::kBrokenOff);
}

// ---- What it shares with the plain socket ----------------------------------------------------------------------

TEST_F(SecureSocketHandshake, AcceptMakesASecureSocketWithoutTls) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  EXPECT_EQ(listener.state, Socket::READY);
  PeerStream peer = PeerStream::connect_to(listener.LocalPort());
  const std::unique_ptr<Socket> accepted(listener.Accept());
  auto* const secure = dynamic_cast<SecureSocket*>(accepted.get());
  ASSERT_NE(secure, nullptr);
  EXPECT_EQ(secure->type, Socket::TCP_SERVER);
  EXPECT_EQ(secure->state, Socket::CONNECTED);
  EXPECT_EQ(secure->RemotePort(), peer.local_port());
  EXPECT_EQ(secure->ssl, nullptr);
  EXPECT_EQ(secure->ssl_ctx, nullptr);
  EXPECT_FALSE(secure->Secure());
  EXPECT_THAT(said(), IsEmpty());
  replace_accept([](int) { return EMFILE; });
  EXPECT_EQ(listener.Accept(), nullptr);
  calls().restore_all();
  EXPECT_THAT(said(), ElementsAre(line("Socket::Accept: accept() %d", EMFILE)));
  peer.close();
}

TEST_F(SecureSocketHandshake, ConnectDoesNothing) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  PeerListener listener;
  SecureSocket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  socket.Connect(kLoopback, listener.port());
  EXPECT_EQ(socket.state, Socket::READY);
  EXPECT_EQ(socket.RemotePort(), 0);
  EXPECT_FALSE(wait_readable(listener.fd(), 0));
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketHandshake, ADatagramIsRefusedAndItsBufferStaysTheCallers) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  PeerUdp peer;
  SecureSocket socket(Socket::UDP, 0, false, kLoopback);
  OSBuf* const buf = buffer_of("mine");
  EXPECT_EQ(socket.SendTo(buf, kLoopback, peer.port()), Blocked);
  EXPECT_EQ(taken(buf), "mine");
  EXPECT_FALSE(wait_readable(peer.fd(), 0));
  EXPECT_EQ(socket.state, Socket::READY);
  EXPECT_THAT(said(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
