// The secure blocking socket's own TLS set-up: its files, its ciphers, what a context is given, and what fails how.

#include <openssl/bn.h>
#include <openssl/dh.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

std::string chain_line(const char* name) {
  return std::string("SecureSocket::StartSSL - SSL_CTX_use_certificate_chain_file error for ") + name;
}
std::string key_line(const char* name) {
  return std::string("SecureSocket::StartSSL - SSL_CTX_use_PrivateKey_file error for ") + name;
}
std::string ca_line(const char* name) {
  return std::string("SecureSocket::StartSSL - SSL_CTX_load_verify_locations error for ") + name;
}

std::vector<std::string> cipher_names(const STACK_OF(SSL_CIPHER) * ciphers) {
  std::vector<std::string> names;
  for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
    names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, i)));
  }
  return names;
}

class SecureSocketSetup : public SecureTest {
 protected:
  /// A set-up that comes as far as the handshake, whose first wait ends at once.
  static int start(SecureSocket& socket, bool server = true) {
    ScriptedWaits waits(socket.s, {{Wait::kNothing}});
    return socket.StartSSL(server);
  }
};

TEST_F(SecureSocketSetup, ASocketBeginsWithoutTls) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  SecureSocket bound(Socket::TCP_SERVER, 0, true, kLoopback);
  WirePair wire;
  sockaddr_in remote = loopback_address(wire.peer.local_port());
  SecureSocket wrapped(Socket::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  const auto nowhere = secure_client(7, "3com.example");
  EXPECT_EQ(bound.state, Socket::READY);
  EXPECT_EQ(wrapped.state, Socket::CONNECTED);
  EXPECT_EQ(wrapped.RemotePort(), wire.peer.local_port());
  EXPECT_EQ(nowhere->state, Socket::INVALID);
  EXPECT_EQ(nowhere->s, -1);
  for (SecureSocket* socket : {&bound, &wrapped, nowhere.get()}) {
    EXPECT_EQ(socket->ssl_ctx, nullptr);
    EXPECT_EQ(socket->ssl, nullptr);
    EXPECT_FALSE(socket->ssl_connected);
    EXPECT_FALSE(socket->Secure());
    EXPECT_FALSE(socket->read_blocked || socket->read_blocked_on_write || socket->write_blocked_on_read);
  }
  EXPECT_THAT(said(), ElementsAre("Socket: couldn't resolve host 3com.example"));
  wire.peer.close();
}

TEST_F(SecureSocketSetup, WithoutAConnectionNoTlsIsTried) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const RefusingPort port;
  const auto refused = secure_client(port.port());
  EXPECT_EQ(refused->s, -1);
  EXPECT_EQ(refused->ssl_ctx, nullptr);
  PeerUdp peer;
  const auto datagram = secure_client(peer.port(), "127.0.0.1", Socket::UDP);
  EXPECT_EQ(datagram->state, Socket::INVALID);
  EXPECT_EQ(datagram->ssl_ctx, nullptr);
  EXPECT_THAT(said_with("TLSSetup"), IsEmpty());
  SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  listener.ConnectAck();
  EXPECT_EQ(listener.ssl_ctx, nullptr) << "ready, but not connected";
  EXPECT_EQ(listener.state, Socket::READY);
  EXPECT_GE(listener.s, 0);
}

// ---- Files -----------------------------------------------------------------------------------------------------

TEST_F(SecureSocketSetup, ThePrimaryFilesComeFirst) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  EXPECT_EQ(served.peer->peer_subject(), files.subject(TlsFiles::kServer));
  EXPECT_THAT(said_with("error for"), IsEmpty());
}

TEST_F(SecureSocketSetup, WithoutThePrimaryCertificateTheFallbackSetIsUsed) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  root().remove(ApplianceRoot::kPrimaryCert);  // its key is still there
  Served served = served_connection({.ca = files.ca()});
  EXPECT_EQ(served.peer->peer_subject(), files.subject(TlsFiles::kClient));
  EXPECT_THAT(said_with("error for"), ElementsAre(chain_line(ApplianceRoot::kPrimaryCert)));
}

TEST_F(SecureSocketSetup, APrimaryCertificateThatIsNoneFallsBackToo) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const char* content :
       {"", "no certificate", "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n"}) {
    root().put(files.write("broken.pem", content), ApplianceRoot::kPrimaryCert);
    Served served = served_connection();
    EXPECT_EQ(served.peer->peer_subject(), files.subject(TlsFiles::kClient));
    EXPECT_THAT(said_with("error for"), ElementsAre(chain_line(ApplianceRoot::kPrimaryCert)));
  }
}

TEST_F(SecureSocketSetup, AWholeChainIsShown) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kChain);
  Served served = served_connection({.ca = files.ca()});
  EXPECT_EQ(served.peer->peer_subject(), files.subject(TlsFiles::kChain));
  EXPECT_EQ(served.peer->verify_result(), X509_V_OK) << "the certificate between came along";
}

/// Which files stand there, and what StartSSL answers.
struct FilesRow {
  const char* name;
  std::function<void(const ApplianceRoot&, TlsFiles&)> prepare;
  int result;
  std::vector<std::string> lines;
};

TEST_F(SecureSocketSetup, EveryMissingOrWrongFileHasItsResultAndLines) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const FilesRow kRows[] = {
      {"nothing",
       [](const ApplianceRoot&, TlsFiles&) {},
       -1,
       {chain_line(ApplianceRoot::kPrimaryCert), chain_line(ApplianceRoot::kFallbackCert)}},
      {"keys and CA alone",
       [](const ApplianceRoot& to, TlsFiles&) {
         to.remove(ApplianceRoot::kPrimaryCert);
         to.remove(ApplianceRoot::kFallbackCert);
       },
       -1,
       {chain_line(ApplianceRoot::kPrimaryCert), chain_line(ApplianceRoot::kFallbackCert)}},
      {"no primary key",
       [](const ApplianceRoot& to, TlsFiles&) { to.remove(ApplianceRoot::kPrimaryKey); },
       -2,
       {key_line(ApplianceRoot::kPrimaryKey)}},
      {"an encrypted primary key",
       [](const ApplianceRoot& to, TlsFiles& from) { to.put_primary(from.of(TlsFiles::kEncryptedKey)); },
       -2,
       {key_line(ApplianceRoot::kPrimaryKey)}},
      {"a primary key that is none",
       [](const ApplianceRoot& to, TlsFiles& from) {
         to.put(from.cert(TlsFiles::kServer), ApplianceRoot::kPrimaryKey);
       },
       -2,
       {key_line(ApplianceRoot::kPrimaryKey)}},
      {"no fallback key",
       [](const ApplianceRoot& to, TlsFiles&) {
         to.remove(ApplianceRoot::kPrimaryCert);
         to.remove(ApplianceRoot::kFallbackKey);
       },
       -2,
       {chain_line(ApplianceRoot::kPrimaryCert), key_line(ApplianceRoot::kFallbackKey)}},
      {"no fallback CA",
       [](const ApplianceRoot& to, TlsFiles&) {
         to.remove(ApplianceRoot::kPrimaryCert);
         to.remove(ApplianceRoot::kFallbackCa);
       },
       -3,
       {chain_line(ApplianceRoot::kPrimaryCert), ca_line(ApplianceRoot::kFallbackCa)}},
      {"a fallback CA that is none",
       [](const ApplianceRoot& to, TlsFiles& from) {
         to.remove(ApplianceRoot::kPrimaryCert);
         to.put(from.write("not-a-ca.pem", "nothing"), ApplianceRoot::kFallbackCa);
       },
       -3,
       {chain_line(ApplianceRoot::kPrimaryCert), ca_line(ApplianceRoot::kFallbackCa)}},
      {"no fallback CA, which the primary set does not need",
       [](const ApplianceRoot& to, TlsFiles&) { to.remove(ApplianceRoot::kFallbackCa); },
       1,
       {}},
      {"all", [](const ApplianceRoot&, TlsFiles&) {}, 1, {}},
  };
  for (const FilesRow& row : kRows) {
    for (const bool server : {false, true}) {
      SCOPED_TRACE(std::string(row.name) + (server ? ", server" : ", client"));
      if (std::string(row.name) == "nothing") {
        for (const char* path :
             {ApplianceRoot::kPrimaryCert, ApplianceRoot::kPrimaryKey, ApplianceRoot::kFallbackCert,
              ApplianceRoot::kFallbackKey, ApplianceRoot::kFallbackCa}) {
          root().remove(path);
        }
      } else {
        put_files();
      }
      row.prepare(root(), files);
      Accepted accepted = accepted_connection();
      EXPECT_EQ(start(*accepted.socket, server), row.result);
      const Lines lines = said();
      Lines about_files;
      for (const std::string& each : lines) {
        if (each.find("error for") != std::string::npos) about_files.push_back(each);
      }
      EXPECT_EQ(about_files, row.lines);
      ASSERT_FALSE(lines.empty());
      EXPECT_EQ(lines[0], kCipherLine) << "the ciphers stand before the files";
      EXPECT_NE(accepted->ssl_ctx, nullptr) << "what has been made stays until the end";
      EXPECT_EQ(accepted->ssl == nullptr, row.result < 0);
      EXPECT_FALSE(accepted->Secure());
      EXPECT_EQ(accepted->state, Socket::CONNECTED) << "StartSSL closes nothing";
      accepted.peer.close();
    }
  }
}

TEST_F(SecureSocketSetup, AKeyOfAnotherCertificateIsNotLookedAtHere) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  // An EC key fits every EC certificate as far as the type goes; OpenSSL refuses it when it is loaded behind the
  // certificate, and nobody else does.
  root().put(files.key(TlsFiles::kClient), ApplianceRoot::kPrimaryKey);
  Accepted accepted = accepted_connection();
  EXPECT_EQ(start(*accepted.socket), -2);
  EXPECT_THAT(said_with("error for"), ElementsAre(key_line(ApplianceRoot::kPrimaryKey)));
  accepted.peer.close();
}

TEST_F(SecureSocketSetup, ASetUpThatFailsClosesAnAcceptedConnection) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  Accepted accepted = accepted_connection();
  accepted.peer.half_close();
  accepted->ConnectAck();
  EXPECT_EQ(accepted->s, -1);
  EXPECT_EQ(accepted->state, Socket::INVALID);
  EXPECT_FALSE(accepted->Secure());
}

TEST_F(SecureSocketSetup, AClientWhoseSetUpFailsStaysConnectedInClear) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  PeerListener listener;
  const auto client = secure_client(listener.port());
  PeerStream peer = listener.accept();
  EXPECT_EQ(client->state, Socket::CONNECTED);
  EXPECT_GE(client->s, 0);
  EXPECT_FALSE(client->Secure());
  EXPECT_EQ(peer.receive_now(), "");
  EXPECT_THAT(said(), ElementsAre(kCipherLine, chain_line(ApplianceRoot::kPrimaryCert),
                                  chain_line(ApplianceRoot::kFallbackCert)));
  peer.close();
}

// ---- The context -----------------------------------------------------------------------------------------------

TEST_F(SecureSocketSetup, TheContextHasWhatIsStated) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const bool server : {false, true}) {
    Accepted accepted = accepted_connection();
    EXPECT_EQ(start(*accepted.socket, server), 1);
    SSL_CTX* const context = accepted->ssl_ctx;
    ASSERT_NE(context, nullptr);
    const std::uint64_t wanted = SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                 SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION | SSL_OP_SINGLE_DH_USE;
    EXPECT_EQ(SSL_CTX_get_options(context) & wanted, wanted);
    EXPECT_EQ(SSL_CTX_get_options(context) & SSL_OP_IGNORE_UNEXPECTED_EOF, 0U);
    EXPECT_EQ(SSL_CTX_get_options(context) & (SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3), 0U);
    EXPECT_NE(SSL_get_mode(accepted->ssl) & SSL_MODE_ENABLE_PARTIAL_WRITE, 0);
    EXPECT_EQ(SSL_get_mode(accepted->ssl) & SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER, 0);
    EXPECT_EQ(SSL_get_mode(accepted->ssl) & SSL_MODE_AUTO_RETRY, 0) << "reads come back to be timed";
    EXPECT_EQ(SSL_CTX_get_verify_mode(context), SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_get_verify_mode(accepted->ssl), SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_CTX_get_ex_data(context, 0), accepted.socket.get());
    EXPECT_NE(SSL_CTX_get_info_callback(context), nullptr);
    EXPECT_EQ(SSL_CTX_get_security_level(context), 1);
    const pem_password_cb* const password = SSL_CTX_get_default_passwd_cb(context);
    ASSERT_NE(password, nullptr);
    char room[16];
    EXPECT_EQ(SSL_CTX_get_default_passwd_cb(context)(room, sizeof room, 0, nullptr), -1);
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> same(SSL_CTX_new(TLS_method()), SSL_CTX_free);
    SSL_CTX_set_security_level(same.get(), 1);
    ASSERT_EQ(SSL_CTX_set_cipher_list(same.get(), kSecureCiphers), 1);
    EXPECT_EQ(cipher_names(SSL_CTX_get_ciphers(context)), cipher_names(SSL_CTX_get_ciphers(same.get())));
    ASSERT_NE(accepted->ssl, nullptr);
    EXPECT_EQ(SSL_get_SSL_CTX(accepted->ssl), context);
    BIO* const bio = SSL_get_rbio(accepted->ssl);
    ASSERT_NE(bio, nullptr);
    EXPECT_EQ(SSL_get_wbio(accepted->ssl), bio) << "one BIO for both ways";
    EXPECT_EQ(BIO_get_fd(bio, nullptr), accepted->s);
    EXPECT_EQ(BIO_get_close(bio), BIO_NOCLOSE);
    EXPECT_TRUE(SecureSocket::initialized_ssl);
    accepted.peer.close();
  }
}

TEST_F(SecureSocketSetup, TheSecurityLevelIsTheProgramsChoice) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int level : {0, 1, 2}) {
    SSLInfo::security_level = level;
    Accepted accepted = accepted_connection();
    EXPECT_EQ(start(*accepted.socket), 1);
    ASSERT_NE(accepted->ssl_ctx, nullptr);
    EXPECT_EQ(SSL_CTX_get_security_level(accepted->ssl_ctx), level);
    accepted.peer.close();
  }
}

TEST_F(SecureSocketSetup, LevelZeroAdmitsOldVersionsAndOldSignatures) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kSha1);
  {
    Served served = served_connection({.security_level = 0});
    EXPECT_EQ(served.peer->peer_subject(), files.subject(TlsFiles::kClient)) << "the fallback set's";
  }
  SSLInfo::security_level = 0;
  {
    Served served = served_connection({.security_level = 0});
    EXPECT_EQ(served.peer->peer_subject(), files.subject(TlsFiles::kSha1));
  }
  put_files(TlsFiles::kServerRsa);
  Served served = served_connection({.version = TLS1_1_VERSION, .security_level = 0});
  EXPECT_EQ(SSL_version(served->ssl), TLS1_1_VERSION);
}

TEST_F(SecureSocketSetup, EveryContextHasTheNextNumberAsItsSessionId) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  std::vector<std::uint32_t> numbers;
  for (int i = 0; i < 3; ++i) {
    Served served = served_connection({.version = TLS1_2_VERSION});
    unsigned length = 0;
    const unsigned char* id = SSL_SESSION_get0_id_context(SSL_get_session(served->ssl), &length);
    ASSERT_EQ(length, 4U);
    std::uint32_t number = 0;
    std::memcpy(&number, id, sizeof number);
    numbers.push_back(number);
  }
  EXPECT_THAT(numbers, ElementsAre(1U, 2U, 3U));
}

TEST_F(SecureSocketSetup, KeyExchangeWithRsaComesFirst) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kServerRsa);
  Served served = served_connection(
      {.version = TLS1_2_VERSION, .ciphers = "ECDHE-RSA-AES256-GCM-SHA384:AES128-SHA:AES256-GCM-SHA384"});
  EXPECT_EQ(served.peer->cipher(), "AES256-GCM-SHA384") << "the server's order counts";
}

TEST_F(SecureSocketSetup, ACertificateOnACurveIsServedByExchangeOnCurves) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection({.version = TLS1_2_VERSION});
  EXPECT_EQ(served.peer->cipher(), "ECDHE-ECDSA-AES256-GCM-SHA384");
}

TEST_F(SecureSocketSetup, TheOldGroupServesDiffieHellman) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kServerRsa);
  Served served = served_connection({.version = TLS1_2_VERSION, .ciphers = "DHE-RSA-AES256-GCM-SHA384"});
  EXPECT_EQ(served.peer->cipher(), "DHE-RSA-AES256-GCM-SHA384");
  EVP_PKEY* temporary = nullptr;
  ASSERT_EQ(SSL_get_peer_tmp_key(served.peer->ssl(), &temporary), 1);
  EXPECT_EQ(EVP_PKEY_get_bits(temporary), 1024);
  EVP_PKEY_free(temporary);
}

TEST_F(SecureSocketSetup, CiphersThatAreNotInTheListAreRefused) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files(TlsFiles::kServerRsa);
  for (const char* ciphers :
       {"ECDHE-RSA-CHACHA20-POLY1305", "CAMELLIA256-SHA:ECDHE-RSA-CAMELLIA256-SHA384"}) {
    Served served =
        served_connection({.version = TLS1_2_VERSION, .security_level = 0, .ciphers = ciphers}, false);
    EXPECT_EQ(served->s, -1);
  }
}

TEST_F(SecureSocketSetup, StartedAgainItGivesUpWhatItHadMade) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  EXPECT_EQ(start(*accepted.socket), 1);
  EXPECT_EQ(start(*accepted.socket), 1);
  root().remove(ApplianceRoot::kPrimaryKey);
  EXPECT_EQ(start(*accepted.socket), -2);
  EXPECT_EQ(accepted->ssl, nullptr);
  EXPECT_NE(accepted->ssl_ctx, nullptr);
  put_files();
  TlsPeer peer(std::move(accepted.peer), TlsPeer::kClient, {});
  bool done = false;
  {
    WatchedThread shaking([&] { done = peer.handshake(); });
    EXPECT_EQ(accepted->StartSSL(true), 0);
  }
  EXPECT_TRUE(done) << peer.trouble();
  EXPECT_FALSE(accepted->Secure()) << "that is said by whoever calls it";
}

TEST_F(SecureSocketSetup, WithoutAConsoleItIsSilent) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Console = nullptr;
  {
    Served served = served_connection();
    served.peer->send("hello");
    EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "hello");
    served.peer->stream().half_close();
    EXPECT_EQ(served->RecWait(kPatienceMs), nullptr);
  }
  {
    Accepted accepted = accepted_connection();
    accepted.peer.send_all("GET / HTTP/1.0\r\n\r\n");
    accepted.peer.half_close();
    accepted->ConnectAck();
    EXPECT_EQ(accepted->s, -1);
  }
  Console = &console;
}

}  // namespace
}  // namespace oskernel_test
