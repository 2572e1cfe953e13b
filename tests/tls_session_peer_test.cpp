// Whom a session takes for its peer: verification results, the self-signed, names, and those without a certificate.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/tls_session.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Certificates by what OpenSSL says of them.
struct Judged {
  const char* what;
  TlsFiles::Kind kind;
  long result;
};
const Judged kJudged[] = {
    {"good", TlsFiles::kServer, X509_V_OK},
    {"good, of RSA", TlsFiles::kServerRsa, X509_V_OK},
    {"by an intermediate CA", TlsFiles::kChain, X509_V_OK},
    {"self-signed", TlsFiles::kSelfSigned, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
    {"expired", TlsFiles::kExpired, X509_V_ERR_CERT_HAS_EXPIRED},
    {"not yet valid", TlsFiles::kNotYetValid, X509_V_ERR_CERT_NOT_YET_VALID},
    {"by a CA that is not known", TlsFiles::kOtherCa, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
};

class TlsVerify : public TlsSessionTest, public testing::WithParamInterface<int> {
 protected:
  static int version() { return GetParam(); }
  static std::string connected() { return std::string("TLS connect: version ") + version_text(version()); }

  /// The lines of a client's handshake, and its result, with such a server.
  int connect(const TlsFiles::Set& server, const TlsLink::Given& given) {
    TlsEnd::Wish wish = good_server(version());
    wish.cert = server.cert;
    wish.key = server.key;
    TlsLink link(wish, given);
    EXPECT_EQ(link.setup(), 0);
    console.clear();
    const int result = link.handshake();
    EXPECT_EQ(link.session().ssl == nullptr, result != 0);
    name_ = link.session().x509_peer_name_string;
    lines_ = console.calls();
    return result;
  }
  /// The same with a certificate whose file holds what stands behind it, too.
  TlsFiles::Set with_self_signed_issuer() {
    TlsFiles::Set set = tls_files().of(TlsFiles::kOtherCa);
    set.cert = tls_files().write("issuer-inside.pem",
                                 TlsFiles::read(set.cert) + TlsFiles::read(tls_files().other_ca()));
    return set;
  }
  static std::vector<std::string> refused(const std::string& why) {
    return {why, "TLS connect handshake failed"};
  }

  std::string name_;                ///< the peer's, as the last session recorded it
  std::vector<std::string> lines_;  ///< of the last handshake
};

INSTANTIATE_TEST_SUITE_P(, TlsVerify, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& kind) { return version_name(kind.param); });

// ---- Results of the verification -----------------------------------------------------------------------------

TEST_P(TlsVerify, GoodOnesAreTakenBadOnesRefusedAndTheSelfSignedAsTheOptionsSay) {
  for (const Judged& row : kJudged) {
    for (const ULONG options : {0U, 1U, 2U, 3U}) {
      for (const int debug : {1, 0}) {
        SCOPED_TRACE(testing::Message() << row.what << ", options " << options << ", debug " << debug);
        SSLInfo::ssl_debug = debug;
        const TlsFiles::Set& server = tls_files().of(row.kind);
        const bool self_signed = row.result == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT;
        const bool taken = row.result == X509_V_OK || (self_signed && (options & 2) == 0);
        EXPECT_EQ(connect(server, {.options = options}), taken ? 0 : 1);
        EXPECT_EQ(name_, server.subject);
        std::vector<std::string> expected;
        if (taken && debug != 0) {
          expected = {self_signed ? "TLSHandshake: peer self-signed certificate verified"
                                  : "TLSHandshake: peer certificate verified",
                      "TLSHandshake: peer: " + server.subject};
        }
        if (taken) {
          expected.push_back(connected());
        } else {
          expected.push_back(self_signed ? std::string("TLSHandshake: peer certificate is self-signed")
                                         : std::string("TLSHandshake: peer verification error: ") +
                                               X509_verify_cert_error_string(row.result));
          if (debug != 0) expected.emplace_back("TLS connect handshake failed");
        }
        EXPECT_EQ(lines_, expected);
      }
    }
  }
}

TEST_P(TlsVerify, ASelfSignedIssuerInTheChainCountsAsSelfSigned) {
  const TlsFiles::Set server = with_self_signed_issuer();
  EXPECT_EQ(connect(server, {}), 0);
  EXPECT_THAT(lines_, ElementsAre("TLSHandshake: peer self-signed certificate verified",
                                  "TLSHandshake: peer: " + server.subject, connected()));
  EXPECT_EQ(connect(server, {.options = 2}), 1);
  EXPECT_EQ(lines_, refused("TLSHandshake: peer certificate is self-signed"));
}

TEST_P(TlsVerify, ASelfSignedServerIsAcceptedUnlessOptionTwoIsSet) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kSelfSigned);
  EXPECT_EQ(connect(server, {}), 0);
  EXPECT_THAT(lines_, ElementsAre("TLSHandshake: peer self-signed certificate verified",
                                  "TLSHandshake: peer: " + server.subject, connected()));
  EXPECT_EQ(connect(server, {.options = 2}), 1);
  EXPECT_EQ(lines_, refused("TLSHandshake: peer certificate is self-signed"));
}

TEST_P(TlsVerify, ASelfSignedCertificateThatTheFileHoldsIsAGoodOne) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kSelfSigned);
  EXPECT_EQ(connect(server, {.options = 2, .ca = server.cert}), 0);
  EXPECT_EQ(lines_.at(0), "TLSHandshake: peer certificate verified");
}

TEST_P(TlsVerify, APeerThatIsRefusedGetsNoAlert) {
  TlsLink link(server_with(TlsFiles::kExpired, version()));
  ASSERT_EQ(link.handshake(), 1);
  link.end_session();
  while (link.peer().take()) {
  }
  link.peer().step();
  link.peer().read_now();
  EXPECT_THAT(link.peer().alerts(), IsEmpty());
  EXPECT_FALSE(link.peer().failed());
}

// ---- The peer's name -----------------------------------------------------------------------------------------

TEST_P(TlsVerify, ThePeersNameMustBeTheWholeSubjectToTheLetter) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kServer);
  ASSERT_EQ(server.subject, "/C=SE/O=Works/CN=gate");
  EXPECT_EQ(connect(server, {.peer_name = "/C=SE/O=Works/CN=gate"}), 0);
  for (const char* const name :
       {"/C=SE/O=Works/CN=Gate", "/c=SE/O=Works/CN=gate", "/C=SE/O=Works", "/C=SE/O=Works/CN=gat", "gate",
        "/C=SE/O=Works/CN=gate ", "/C=SE/O=Works/CN=gate/OU=more", "/CN=gate/O=Works/C=SE",
        "CN=gate,O=Works,C=SE", "/"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(connect(server, {.peer_name = name}), 1);
    EXPECT_EQ(lines_, (std::vector<std::string>{
                          "TLSHandshake: peer certificate verified", "TLSHandshake: peer: " + server.subject,
                          std::string("TLSHandshake: peer name mismatch\n\texpected: ") + name +
                              "\n\tgot:      " + server.subject,
                          "TLS connect handshake failed"}));
  }
}

TEST_P(TlsVerify, AnEmptyNameIsANameThatNobodyHas) {
  EXPECT_EQ(connect(tls_files().of(TlsFiles::kServer), {.peer_name = ""}), 1);
  EXPECT_EQ(
      console.count("TLSHandshake: peer name mismatch\n\texpected: \n\tgot:      /C=SE/O=Works/CN=gate"), 1);
}

TEST_P(TlsVerify, ANameDoesNotHelpWhoeverDoesNotVerify) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kExpired);
  EXPECT_EQ(connect(server, {.peer_name = server.subject.c_str()}), 1);
  EXPECT_EQ(console.count("name mismatch"), 0);
}

TEST_P(TlsVerify, ASelfSignedPeersNameIsCompared) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kSelfSigned);
  EXPECT_EQ(connect(server, {.peer_name = server.subject.c_str()}), 0);
  EXPECT_EQ(connect(server, {.peer_name = "/CN=else"}), 1);
}

TEST_P(TlsVerify, ALongNameIsCutInTheRecordAndComparedWhole) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kLongSubject);
  ASSERT_GT(server.subject.size(), 256U);
  EXPECT_EQ(connect(server, {.peer_name = server.subject.c_str()}), 0);
  EXPECT_LE(name_.size(), 255U);
  EXPECT_TRUE(server.subject.starts_with(name_.substr(0, name_.size() - 3)));
  const std::string cut = name_;
  EXPECT_EQ(console.count("TLSHandshake: peer: " + cut), 1);
  EXPECT_EQ(connect(server, {.peer_name = cut.c_str()}), 1);
  const std::string prefix = server.subject.substr(0, server.subject.rfind('/'));
  EXPECT_EQ(connect(server, {.peer_name = prefix.c_str()}), 1);
  EXPECT_EQ(connect(server, {.peer_name = (server.subject + "x").c_str()}), 1);
}

TEST_P(TlsVerify, ANameThatFillsTheRecordEndsWithDots) {
  TlsFiles::Order order;
  for (const char letter : {'a', 'b', 'c'}) order.subject.emplace_back("OU", std::string(60, letter));
  order.subject.emplace_back("CN", std::string(59, 'd'));
  const TlsFiles::Set& server = tls_files().issue("of-255", order);
  ASSERT_EQ(server.subject.size(), 255U);
  EXPECT_EQ(connect(server, {}), 0);
  EXPECT_EQ(name_, server.subject.substr(0, 252) + "...");
  EXPECT_EQ(console.count("TLSHandshake: peer: " + name_), 1);
  EXPECT_EQ(connect(server, {.peer_name = server.subject.c_str()}), 0);
  EXPECT_EQ(connect(server, {.peer_name = name_.c_str()}), 1);
}

TEST_P(TlsVerify, ANameOfOneLessIsWhole) {
  TlsFiles::Order order;
  for (const char letter : {'a', 'b', 'c'}) order.subject.emplace_back("OU", std::string(60, letter));
  order.subject.emplace_back("CN", std::string(58, 'd'));
  const TlsFiles::Set& server = tls_files().issue("of-254", order);
  ASSERT_EQ(server.subject.size(), 254U);
  EXPECT_EQ(connect(server, {}), 0);
  EXPECT_EQ(name_, server.subject);
}

TEST_P(TlsVerify, ASlashInAValueDoesNotMakeAnotherPeerOfIt) {
  TlsFiles::Order order;
  order.subject = {{"C", "SE"}, {"O", "Works/CN=gate"}};
  const TlsFiles::Set& server = tls_files().issue("slash", order);
  EXPECT_EQ(connect(server, {.peer_name = server.subject.c_str()}), 0);
  EXPECT_EQ(connect(server, {.peer_name = "/C=SE/O=Works"}), 1);
  // Where OpenSSL escapes the slash, the other one's name is another name.
  if (server.subject != "/C=SE/O=Works/CN=gate") {
    EXPECT_EQ(connect(server, {.peer_name = "/C=SE/O=Works/CN=gate"}), 1);
  }
}

TEST_P(TlsVerify, WithoutASubjectThePeerIsAQuestionMark) {
  const TlsFiles::Set& server = tls_files().of(TlsFiles::kNoSubject);
  EXPECT_EQ(connect(server, {}), 0);
  EXPECT_EQ(name_, "?");
  EXPECT_THAT(lines_,
              ElementsAre("TLSHandshake: peer certificate verified", "TLSHandshake: peer: ?", connected()));
  EXPECT_EQ(connect(server, {.peer_name = "/CN=gate"}), 1);
  EXPECT_EQ(console.count("TLSHandshake: peer name mismatch\n\texpected: /CN=gate\n\tgot:      ?"), 1);
}

// ---- Servers -------------------------------------------------------------------------------------------------

class TlsVerifyClients : public TlsVerify {
 protected:
  static std::string accepted() { return std::string("TLS accept: version ") + version_text(version()); }
  int accept(const TlsEnd::Wish& client, const TlsLink::Given& given) {
    TlsLink link(client, given);
    EXPECT_EQ(link.setup(), 0);
    console.clear();
    const int result = link.handshake();
    name_ = link.session().x509_peer_name_string;
    lines_ = console.calls();
    return result;
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsVerifyClients, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& kind) { return version_name(kind.param); });

TEST_P(TlsVerifyClients, WithoutTheOptionAServerAsksNobodyAndChecksNothing) {
  for (const ULONG options : {0U, 2U}) {
    for (const TlsFiles::Kind kind : {TlsFiles::kClient, TlsFiles::kExpired, TlsFiles::kSelfSigned}) {
      TlsEnd::Wish client = good_client(version());
      client.cert = tls_files().cert(kind);
      client.key = tls_files().key(kind);
      EXPECT_EQ(accept(client, {.options = options, .peer_name = "/CN=nobody"}), 0);
      EXPECT_THAT(lines_, ElementsAre(accepted()));
    }
  }
}

TEST_P(TlsVerifyClients, WithItClientsAreJudgedAsServersAre) {
  for (const Judged& row : kJudged) {
    SCOPED_TRACE(row.what);
    TlsEnd::Wish client = good_client(version());
    client.cert = tls_files().cert(row.kind);
    client.key = tls_files().key(row.kind);
    const bool self_signed = row.result == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT;
    EXPECT_EQ(accept(client, {.options = 1}), row.result == X509_V_OK || self_signed ? 0 : 1);
    EXPECT_EQ(name_, tls_files().subject(row.kind));
    EXPECT_EQ(accept(client, {.options = 3}), row.result == X509_V_OK ? 0 : 1);
    if (self_signed) {
      EXPECT_THAT(lines_, ElementsAre("TLSHandshake: peer certificate is self-signed",
                                      "TLS accept handshake failed"));
    }
  }
}

TEST_P(TlsVerifyClients, WithItTheNameIsCompared) {
  const std::string subject = tls_files().subject(TlsFiles::kClient);
  EXPECT_EQ(accept(good_client(version()), {.options = 1, .peer_name = subject.c_str()}), 0);
  EXPECT_THAT(lines_, ElementsAre("TLSHandshake: peer certificate verified", "TLSHandshake: peer: " + subject,
                                  accepted()));
  EXPECT_EQ(accept(good_client(version()), {.options = 1, .peer_name = "/C=SE/O=Works/CN=Desk"}), 1);
}

TEST_P(TlsVerifyClients, WithItAClientWithoutCertificateIsRefusedByOpenSsl) {
  TlsEnd::Wish client = good_client(version());
  client.cert.clear();
  EXPECT_EQ(accept(client, {.options = 1}), 1);
  const std::vector<std::string> lines = lines_;
  ASSERT_GE(lines.size(), 2U);
  EXPECT_THAT(lines.front(), testing::HasSubstr("SSL_accept: error:"));
  EXPECT_THAT(lines.front(), testing::HasSubstr("peer did not return a certificate"));
  EXPECT_EQ(lines.back(), "TLS accept handshake failed");
}

}  // namespace
