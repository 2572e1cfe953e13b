// The context and connection that a TLS session is made of: files, verification, ciphers, options, lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/tls_session.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char kCipherLine[] =
    "TLSSetup: setting cipher list to "
    "ECDH+AESGCM:DH+AESGCM:ECDH+AES256:DH+AES256:ECDH+AES128:DH+AES:ECDH+3DES:DH+3DES:RSA+AESGCM:RSA+AES:RSA+"
    "3DES:"
    "!aNULL:!MD5";

class TlsSetup : public TlsSessionTest {
 protected:
  static std::string files_line(const std::string& key, const std::string& cert) {
    return "TLSSetup: using private key " + key + " and certificate file " + cert;
  }
  static std::string default_files_line() {
    return files_line(tls_files().key(TlsFiles::kServer), tls_files().cert(TlsFiles::kServer));
  }

  /// What must be left of a session whose set-up failed.
  static void expect_nothing_left(const SSLInfo& session) {
    EXPECT_EQ(session.ssl_ctx, nullptr);
    EXPECT_EQ(session.ssl, nullptr);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }

  /// Every line of OpenSSL's errors names the call, gives the code in 8 digits and what OpenSSL says about it.
  void expect_errors_of(const std::string& call) {
    const std::vector<std::string> lines = lines_with(console, "SSL/TLS");
    EXPECT_FALSE(lines.empty());
    for (const std::string& text : lines) {
      unsigned long code = 0;
      ASSERT_EQ(sscanf(text.c_str(), "SSL/TLS (0x%8lx): ", &code), 1) << text;
      EXPECT_NE(code, 0UL);
      EXPECT_EQ(text, line("SSL/TLS (0x%08lx): %s: %s", code, call.c_str(), ERR_error_string(code, nullptr)));
    }
  }

  static std::vector<std::string> lines_with(const RecordingConsole& from, const std::string& text) {
    std::vector<std::string> found;
    for (std::string& each : from.calls()) {
      if (each.find(text) != std::string::npos) found.push_back(std::move(each));
    }
    return found;
  }

  Wire wire_ = Wire::local();
};

// ---- A new session -------------------------------------------------------------------------------------------

TEST_F(TlsSetup, BeforeItASessionHasNothing) {
  for (const bool server : {true, false}) {
    SSLInfo session(wire_.near_end.get(), server);
    EXPECT_EQ(session.s, wire_.near_end.get());
    EXPECT_EQ(session.server, server);
    EXPECT_EQ(session.ssl_ctx, nullptr);
    EXPECT_EQ(session.ssl, nullptr);
    EXPECT_EQ(session.peer_name, nullptr);
    EXPECT_EQ(session.sendq.Size(), 0U);
    EXPECT_EQ(session.sendqtrigger.State(), OS_T_INACTIVE);
    EXPECT_EQ(session.sendqtrigger.callback, SSLInfo::_SendQTrigger);
    EXPECT_EQ(static_cast<void*>(session.sendqtrigger.obj), static_cast<void*>(&session));
  }
}

TEST_F(TlsSetup, MakesContextAndConnectionOnTheDescriptorForEachRole) {
  for (const bool server : {true, false}) {
    SSLInfo session(wire_.near_end.get(), server);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(session.method, server ? TLS_server_method() : TLS_client_method());
    ASSERT_NE(session.ssl_ctx, nullptr);
    ASSERT_NE(session.ssl, nullptr);
    EXPECT_EQ(SSL_get_SSL_CTX(session.ssl), session.ssl_ctx);
    ASSERT_NE(session.rbio, nullptr);
    EXPECT_EQ(session.rbio, session.wbio);
    EXPECT_EQ(SSL_get_rbio(session.ssl), session.rbio);
    EXPECT_EQ(SSL_get_wbio(session.ssl), session.wbio);
    EXPECT_EQ(SSL_get_fd(session.ssl), wire_.near_end.get());
    EXPECT_EQ(BIO_get_close(session.rbio), BIO_NOCLOSE);
    EXPECT_EQ(session.options, 0U);
    EXPECT_EQ(session.peer_name, nullptr);
  }
}

TEST_F(TlsSetup, TheDescriptorOutlivesTheSession) {
  {
    SSLInfo session(wire_.near_end.get(), true);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
  }
  EXPECT_NE(::fcntl(wire_.near_end.get(), F_GETFD), -1);
}

TEST_F(TlsSetup, TwoSessionsShareNothing) {
  SSLInfo one(wire_.near_end.get(), true), other(wire_.far_end.get(), true);
  ASSERT_EQ(one.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
  ASSERT_EQ(other.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_NE(one.ssl_ctx, other.ssl_ctx);
  EXPECT_NE(one.ssl, other.ssl);
}

TEST_F(TlsSetup, KeepsTheOptionsAndACopyOfThePeersName) {
  char name[] = "/CN=gate";
  SSLInfo session(wire_.near_end.get(), false);
  ASSERT_EQ(session.Setup(3, name, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(session.options, 3U);
  ASSERT_NE(session.peer_name, nullptr);
  EXPECT_NE(static_cast<void*>(session.peer_name), static_cast<void*>(name));
  name[0] = 'x';
  EXPECT_STREQ(session.peer_name, "/CN=gate");
}

TEST_F(TlsSetup, OptionsAndNameAreKeptWhenItFails) {
  char name[] = "/CN=gate";
  SSLInfo session(wire_.near_end.get(), false);
  ASSERT_EQ(session.Setup(2, name, tls_files().missing().c_str(), nullptr, nullptr), 1);
  EXPECT_EQ(session.options, 2U);
  EXPECT_STREQ(session.peer_name, "/CN=gate");
}

// ---- What is printed, and how peers are verified -------------------------------------------------------------

struct Verification {
  bool server;
  ULONG options;
  const char* settings;  ///< the line with role and options
  const char* mode;      ///< the line with the mode
  bool verifies;
};
const Verification kVerifications[] = {
    {true, 0, "TLSSetup: srv 1 options = 0", "TLSSetup: verify =   VERIFY_NONE", false},
    {true, 1, "TLSSetup: srv 1 options = 1", "TLSSetup: verify = VERIFY_PEER VERIFY_FAIL_IF_NO_PEER_CERT ",
     true},
    {true, 2, "TLSSetup: srv 1 options = 2", "TLSSetup: verify =   VERIFY_NONE", false},
    {true, 3, "TLSSetup: srv 1 options = 3", "TLSSetup: verify = VERIFY_PEER VERIFY_FAIL_IF_NO_PEER_CERT ",
     true},
    {false, 0, "TLSSetup: srv 0 options = 0", "TLSSetup: verify = VERIFY_PEER VERIFY_FAIL_IF_NO_PEER_CERT ",
     true},
    {false, 1, "TLSSetup: srv 0 options = 1", "TLSSetup: verify = VERIFY_PEER VERIFY_FAIL_IF_NO_PEER_CERT ",
     true},
    {false, 2, "TLSSetup: srv 0 options = 2", "TLSSetup: verify = VERIFY_PEER VERIFY_FAIL_IF_NO_PEER_CERT ",
     true},
};

TEST_F(TlsSetup, SaysWhatItDoesInOrder) {
  for (const Verification& row : kVerifications) {
    SCOPED_TRACE(row.settings);
    SSLInfo session(wire_.near_end.get(), row.server);
    console.clear();
    ASSERT_EQ(session.Setup(row.options, nullptr, nullptr, nullptr, nullptr), 0);
    std::vector<std::string> expected{default_files_line(), row.settings, row.mode};
    if (row.server && row.verifies) expected.emplace_back("TLSSetup: calling SSL_CTX_set_client_CA_list");
    expected.emplace_back(kCipherLine);
    EXPECT_EQ(console.calls(), expected);
  }
}

TEST_F(TlsSetup, SaysOnlyTheCiphersWithoutDebug) {
  SSLInfo::ssl_debug = 0;
  for (const Verification& row : kVerifications) {
    SSLInfo session(wire_.near_end.get(), row.server);
    console.clear();
    ASSERT_EQ(session.Setup(row.options, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_THAT(console.calls(), ElementsAre(kCipherLine));
  }
}

TEST_F(TlsSetup, VerifiesServersAlwaysAndClientsWhenAsked) {
  for (const Verification& row : kVerifications) {
    SCOPED_TRACE(row.settings);
    SSLInfo session(wire_.near_end.get(), row.server);
    ASSERT_EQ(session.Setup(row.options, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(SSL_get_verify_mode(session.ssl),
              row.verifies ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_CTX_get_verify_callback(session.ssl_ctx), nullptr);
  }
}

TEST_F(TlsSetup, AVerifyingServerNamesTheCasOfTheFile) {
  const std::string two = tls_files().write(
      "two-cas.pem", TlsFiles::read(tls_files().ca()) + TlsFiles::read(tls_files().other_ca()));
  for (const auto& [options, count] : {std::pair{0U, 0}, {1U, 2}}) {
    SSLInfo session(wire_.near_end.get(), true);
    ASSERT_EQ(session.Setup(options, nullptr, nullptr, nullptr, two.c_str()), 0);
    const STACK_OF(X509_NAME)* const names = SSL_CTX_get_client_CA_list(session.ssl_ctx);
    ASSERT_EQ(names == nullptr ? 0 : sk_X509_NAME_num(names), count);
    if (count == 0) continue;
    char text[256];
    X509_NAME_oneline(sk_X509_NAME_value(names, 0), text, sizeof text);
    EXPECT_EQ(text, tls_files().ca_subject());
  }
}

TEST_F(TlsSetup, AClientNamesNoCas) {
  SSLInfo session(wire_.near_end.get(), false);
  ASSERT_EQ(session.Setup(1, nullptr, nullptr, nullptr, nullptr), 0);
  const STACK_OF(X509_NAME)* const names = SSL_CTX_get_client_CA_list(session.ssl_ctx);
  EXPECT_EQ(names == nullptr ? 0 : sk_X509_NAME_num(names), 0);
}

// ---- Ciphers, options, modes ---------------------------------------------------------------------------------

std::vector<std::string> cipher_names(SSL_CTX* context) {
  std::vector<std::string> names;
  STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context);
  for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
    names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, i)));
  }
  return names;
}

TEST_F(TlsSetup, TheCiphersAreThoseOfTheListForBothRoles) {
  SSL_CTX* const reference = SSL_CTX_new(TLS_method());
  SSL_CTX_set_security_level(reference, 1);
  ASSERT_EQ(SSL_CTX_set_cipher_list(reference, std::strstr(kCipherLine, "ECDH+AESGCM")), 1);
  const std::vector<std::string> expected = cipher_names(reference);
  SSL_CTX_free(reference);
  ASSERT_GT(expected.size(), 10U);
  for (const bool server : {true, false}) {
    SSLInfo session(wire_.near_end.get(), server);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(cipher_names(session.ssl_ctx), expected);
  }
}

TEST_F(TlsSetup, OldProtocolsAreOffAndTheServerChoosesTheCipher) {
  for (const bool server : {true, false}) {
    SSLInfo session(wire_.near_end.get(), server);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
    const auto options = SSL_CTX_get_options(session.ssl_ctx);
    EXPECT_NE(options & SSL_OP_NO_SSLv3, 0U);
    EXPECT_NE(options & SSL_OP_CIPHER_SERVER_PREFERENCE, 0U);
    EXPECT_EQ(options & (SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3), 0U);
  }
}

TEST_F(TlsSetup, ATruncationIsNotDisguisedAsAnOrderlyEnd) {
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
  SSLInfo session(wire_.near_end.get(), true);
  ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(SSL_get_options(session.ssl) & SSL_OP_IGNORE_UNEXPECTED_EOF, 0U);
#endif
}

TEST_F(TlsSetup, PartialWritesAreAllowedAndMovedBuffersAreNot) {
  for (const bool server : {true, false}) {
    SSLInfo session(wire_.near_end.get(), server);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
    const long mode = SSL_get_mode(session.ssl);
    EXPECT_NE(mode & SSL_MODE_ENABLE_PARTIAL_WRITE, 0);
    EXPECT_EQ(mode & SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER, 0);
  }
}

// ---- Security levels -----------------------------------------------------------------------------------------

TEST_F(TlsSetup, TheSecurityLevelIsTheClasss) {
  for (const int level : {0, 1}) {
    SSLInfo::security_level = level;
    for (const Verification& row : kVerifications) {
      SSLInfo session(wire_.near_end.get(), row.server);
      ASSERT_EQ(session.Setup(row.options, nullptr, nullptr, nullptr, nullptr), 0);
      EXPECT_EQ(SSL_CTX_get_security_level(session.ssl_ctx), level);
    }
  }
}

TEST_F(TlsSetup, AtLevelTwoTheGroupIsRefusedWhereverItIsNeeded) {
  SSLInfo::security_level = 2;
  for (const Verification& row : kVerifications) {
    SCOPED_TRACE(row.settings);
    SSLInfo session(wire_.near_end.get(), row.server);
    console.clear();
    EXPECT_EQ(session.Setup(row.options, nullptr, nullptr, nullptr, nullptr), row.verifies ? 1 : 0);
    if (!row.verifies) {
      EXPECT_EQ(SSL_CTX_get_security_level(session.ssl_ctx), 2);
      continue;
    }
    expect_nothing_left(session);
    expect_errors_of("SSL_CTX_set_tmp_dh");
    EXPECT_GT(console.count("dh key too small"), 0);
    EXPECT_EQ(console.count(kCipherLine), 0);
  }
}

TEST_F(TlsSetup, ACertificateSignedWithSha1IsTakenAtLevelZeroOnly) {
  const TlsFiles::Set& old = tls_files().of(TlsFiles::kSha1);
  for (const auto& [level, result] : {std::pair{0, 0}, {1, 1}}) {
    SSLInfo::security_level = level;
    SSLInfo session(wire_.near_end.get(), true);
    console.clear();
    EXPECT_EQ(session.Setup(0, nullptr, old.cert.c_str(), old.key.c_str(), nullptr), result);
    if (result != 0) {
      expect_nothing_left(session);
      expect_errors_of("SSL_CTX_use_certificate_chain_file");
    }
  }
}

// ---- Files ---------------------------------------------------------------------------------------------------

TEST_F(TlsSetup, OwnNamesWinOverTheDefaultsFileByFile) {
  TlsFiles& files = tls_files();
  const std::string missing = files.missing();
  const TlsFiles::Set own = files.of(TlsFiles::kClient), usual = files.of(TlsFiles::kServer);
  char nowhere[] = "/nowhere/at/all.pem";
  struct Row {
    const char* what;
    bool own_cert, own_key, own_ca;
  };
  // What is not given comes from the defaults; the default of what is given does not exist.
  for (const Row& row :
       {Row{"all defaults", false, false, false}, Row{"certificate and key", true, true, false},
        Row{"CA", false, false, true}, Row{"everything", true, true, true}}) {
    SCOPED_TRACE(row.what);
    SSLInfo::Initialise(row.own_cert ? nowhere : files.text(usual.cert),
                        row.own_key ? nowhere : files.text(usual.key),
                        row.own_ca ? nowhere : files.text(files.ca()));
    SSLInfo session(wire_.near_end.get(), false);
    console.clear();
    EXPECT_EQ(
        session.Setup(0, nullptr, row.own_cert ? own.cert.c_str() : nullptr,
                      row.own_key ? own.key.c_str() : nullptr, row.own_ca ? files.ca().c_str() : nullptr),
        0);
    EXPECT_EQ(console.calls().at(0),
              files_line(row.own_key ? own.key : usual.key, row.own_cert ? own.cert : usual.cert));
  }
}

TEST_F(TlsSetup, AMixOfOwnAndDefaultThatDoesNotMatchIsFound) {
  const std::string cert = tls_files().cert(TlsFiles::kClient);
  SSLInfo session(wire_.near_end.get(), true);
  EXPECT_EQ(session.Setup(0, nullptr, cert.c_str(), nullptr, nullptr), 1);
  expect_nothing_left(session);
  EXPECT_EQ(console.calls().at(0), files_line(tls_files().key(TlsFiles::kServer), cert));
}

TEST_F(TlsSetup, TheWholeChainOfTheFileIsTaken) {
  const TlsFiles::Set& chain = tls_files().of(TlsFiles::kChain);
  SSLInfo session(wire_.near_end.get(), true);
  ASSERT_EQ(session.Setup(0, nullptr, chain.cert.c_str(), chain.key.c_str(), nullptr), 0);
  STACK_OF(X509)* extra = nullptr;
  SSL_CTX_get0_chain_certs(session.ssl_ctx, &extra);
  EXPECT_EQ(sk_X509_num(extra), 1);
}

struct BadFile {
  const char* what;
  bool server;
  ULONG options;
  const char* cert;  ///< one of the names below; null for the default
  const char* key;
  const char* ca;
  const char* call;  ///< that fails; null when nothing does
};
const BadFile kBadFiles[] = {
    {"no key", true, 0, nullptr, "missing", nullptr, "SSL_CTX_use_PrivateKey_file"},
    {"a key that is none", true, 0, nullptr, "rubbish", nullptr, "SSL_CTX_use_PrivateKey_file"},
    {"a certificate for a key", false, 0, nullptr, "server.pem", nullptr, "SSL_CTX_use_PrivateKey_file"},
    {"an encrypted key", true, 0, "encrypted.pem", "encrypted.key", nullptr, "SSL_CTX_use_PrivateKey_file"},
    {"an encrypted key of a client", false, 0, "encrypted.pem", "encrypted.key", nullptr,
     "SSL_CTX_use_PrivateKey_file"},
    {"no certificate", true, 0, "missing", nullptr, nullptr, "SSL_CTX_use_certificate_chain_file"},
    {"a certificate that is none", false, 0, "rubbish", nullptr, nullptr,
     "SSL_CTX_use_certificate_chain_file"},
    {"neither key nor certificate", true, 0, "missing", "missing", nullptr, "SSL_CTX_use_PrivateKey_file"},
    {"somebody else's key", true, 0, nullptr, "client.key", nullptr, "SSL_CTX_check_private_key"},
    {"nothing at all", true, 0, "missing", "missing", "missing", "SSL_CTX_use_PrivateKey_file"},
    {"a client without CA", false, 0, nullptr, nullptr, "missing", "SSL_CTX_load_verify_locations"},
    {"a client whose CA is none", false, 2, nullptr, nullptr, "rubbish", "SSL_CTX_load_verify_locations"},
    {"a verifying server without CA", true, 1, nullptr, nullptr, "missing", "SSL_CTX_load_verify_locations"},
    {"a server without CA", true, 0, nullptr, nullptr, "missing", nullptr},
    {"a server that refuses self-signed peers, without CA", true, 2, nullptr, nullptr, "missing", nullptr},
};

TEST_F(TlsSetup, AFileThatWillNotDoIsReportedByTheCallThatReadIt) {
  TlsFiles& files = tls_files();
  files.write("rubbish", "-----BEGIN NOTHING-----\n");
  for (const TlsFiles::Kind kind : {TlsFiles::kServer, TlsFiles::kClient, TlsFiles::kEncryptedKey})
    files.of(kind);
  const auto path = [&files](const char* name) -> std::string {
    if (name == nullptr) return {};
    return std::strcmp(name, "missing") == 0 ? files.missing() : files.path(name);
  };
  const auto text = [](const std::string& each) { return each.empty() ? nullptr : each.c_str(); };
  for (const BadFile& row : kBadFiles) {
    for (const int debug : {1, 0}) {
      SCOPED_TRACE(row.what);
      SSLInfo::ssl_debug = debug;
      const std::string cert = path(row.cert), key = path(row.key), ca = path(row.ca);
      SSLInfo session(wire_.near_end.get(), row.server);
      console.clear();
      EXPECT_EQ(session.Setup(row.options, nullptr, text(cert), text(key), text(ca)),
                row.call == nullptr ? 0 : 1);
      if (row.call == nullptr) {
        EXPECT_EQ(console.count("SSL/TLS"), 0);
        continue;
      }
      expect_nothing_left(session);
      expect_errors_of(row.call);
      EXPECT_EQ(console.count(kCipherLine), 0);
    }
  }
}

TEST_F(TlsSetup, WhatHasFailedCanBeDestroyedAndAsked) {
  SSLInfo session(wire_.near_end.get(), true);
  ASSERT_EQ(session.Setup(0, nullptr, tls_files().missing().c_str(), nullptr, nullptr), 1);
  console.clear();
  EXPECT_EQ(session.Handshake(), 1);
  EXPECT_THAT(console.calls(), ElementsAre("SSLInfo::Handshake - ssl=0"));
  EXPECT_EQ(session.Stop(), 0);
  EXPECT_EQ(session.DataIndication(buffer_of("x")), NoConnection);
  session.SendQTrigger();
}

// ---- Session id contexts -------------------------------------------------------------------------------------

TEST_F(TlsSetup, EachContextHasTheNextNumber) {
  SSLInfo::context_num = 41;
  for (const long expected : {42L, 43L}) {
    SSLInfo session(wire_.near_end.get(), expected == 42);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(SSLInfo::context_num, expected);
  }
}

TEST_F(TlsSetup, ANumberIsUsedUpOnceKeyAndCertificateAreRight) {
  SSLInfo::context_num = 10;
  const std::string missing = tls_files().missing();
  {
    SSLInfo session(wire_.near_end.get(), false);
    ASSERT_EQ(session.Setup(0, nullptr, nullptr, missing.c_str(), nullptr), 1);
    EXPECT_EQ(SSLInfo::context_num, 10);
  }
  SSLInfo session(wire_.near_end.get(), false);
  ASSERT_EQ(session.Setup(0, nullptr, nullptr, nullptr, missing.c_str()), 1);
  EXPECT_EQ(SSLInfo::context_num, 11);
}

TEST_F(TlsSetup, SuccessiveSessionsCarryTheCountersBytesInMemoryOrder) {
  SSLInfo::context_num = 0;
  for (const int expected : {1, 2}) {
    TlsLink link(good_client(TLS1_2_VERSION));
    ASSERT_EQ(link.handshake(), 0);
    unsigned length = 0;
    const unsigned char* const bytes =
        SSL_SESSION_get0_id_context(SSL_get_session(link.session().ssl), &length);
    ASSERT_EQ(length, 4U);
    EXPECT_EQ(std::memcmp(bytes, &expected, 4), 0);
  }
}

// ---- Key exchanges -------------------------------------------------------------------------------------------

using TlsKeyExchange = TlsSessionTest;

TEST_F(TlsKeyExchange, OnlyAServerThatVerifiesOffersTheGroup) {
  const TlsFiles::Set& rsa = tls_files().of(TlsFiles::kServerRsa);
  for (const auto& [options, result] : {std::pair{0U, 1}, {1U, 0}}) {
    TlsEnd::Wish client = good_client(TLS1_2_VERSION);
    client.ciphers = "DHE-RSA-AES256-GCM-SHA384:DHE-RSA-AES128-GCM-SHA256";
    TlsLink link(client, {.options = options, .cert = rsa.cert, .key = rsa.key});
    ASSERT_EQ(link.setup(), 0);
    EXPECT_EQ(link.handshake(), result);
    if (result == 0) {
      EVP_PKEY* key = nullptr;
      ASSERT_EQ(SSL_get_server_tmp_key(link.peer().ssl(), &key), 1);
      EXPECT_EQ(EVP_PKEY_bits(key), 1024);
      EVP_PKEY_free(key);
    } else {
      EXPECT_GT(console.count("no shared cipher"), 0);
    }
  }
}

TEST_F(TlsKeyExchange, AClientTakesAGroupOf1024Bits) {
  // The peer has the same group: a server of the library that verifies.
  const TlsFiles::Set& rsa = tls_files().of(TlsFiles::kServerRsa);
  TlsEnd::Wish server = good_server(TLS1_2_VERSION);
  server.cert = rsa.cert;
  server.key = rsa.key;
  server.ciphers = "DHE-RSA-AES128-GCM-SHA256";
  TlsLink link(server);
  ASSERT_EQ(SSL_set_dh_auto(link.peer().ssl(), 2), 1);
  EXPECT_EQ(link.handshake(), 0);
  EXPECT_STREQ(SSL_get_cipher_name(link.session().ssl), "DHE-RSA-AES128-GCM-SHA256");
}

TEST_F(TlsKeyExchange, TheServersOrderOfCiphersDecides) {
  TlsEnd::Wish client = good_client(TLS1_2_VERSION);
  client.ciphers = "ECDHE-ECDSA-AES128-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384";
  TlsLink link(client);
  ASSERT_EQ(link.handshake(), 0);
  EXPECT_STREQ(SSL_get_cipher_name(link.session().ssl), "ECDHE-ECDSA-AES256-GCM-SHA384");
}

TEST_F(TlsKeyExchange, WithoutACommonCipherItFails) {
  for (const bool server : {true, false}) {
    TlsEnd::Wish wish = server ? good_client(TLS1_2_VERSION) : good_server(TLS1_2_VERSION);
    wish.ciphers = "ECDHE-ECDSA-CHACHA20-POLY1305";
    TlsLink link(wish);
    EXPECT_EQ(link.handshake(), 1);
  }
}

}  // namespace
