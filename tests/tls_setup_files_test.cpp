// What is kept of key and certificate files: parsed once while they stay the same, and never longer.

#define OPENSSL_SUPPRESS_DEPRECATED

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/tls_session.h"
#include "support/tls_session_calls.h"

using namespace oskernel_test;
using testing::Contains;
using testing::HasSubstr;

namespace {

constexpr ULONG kVerifyClients = 1;
/// Long enough for a file not to count as just changed.
constexpr time_t kWhile_s = 60;

class TlsKeptFiles : public TlsSessionTest {
 protected:
  void SetUp() override {
    TlsSessionTest::SetUp();
    for (const TlsFiles::Kind kind : {TlsFiles::kServer, TlsFiles::kClient}) tls_files().of(kind);
    cert_ = copy("kept-cert.pem", tls_files().cert(TlsFiles::kServer));
    key_ = copy("kept-key.pem", tls_files().key(TlsFiles::kServer));
    ca_ = copy("kept-ca.pem", tls_files().ca());
    time_of_day() = real_time_of_day() + kWhile_s;
    watched().start();
  }
  void TearDown() override {
    watched().stop();
    TlsSessionTest::TearDown();
  }

  static std::string copy(const std::string& name, const std::string& from) {
    return tls_files().write(name, TlsFiles::read(from));
  }
  /// As an installer does it: a new file takes the place of the old one.
  static void replace(const std::string& path, const std::string& from) {
    const std::string fresh = copy("fresh.pem", from);
    ASSERT_EQ(std::rename(fresh.c_str(), path.c_str()), 0);
  }
  /// Into the same file, at a time that is another one for the file system: its clock is coarse.
  static void write_over(const std::string& path, const std::string& from) {
    const auto changed = [&path] {
      struct stat now = {};
      stat(path.c_str(), &now);
      return std::make_pair(now.st_ctim.tv_sec, now.st_ctim.tv_nsec);
    };
    const auto before = changed();
    EXPECT_TRUE(wait_until(
        [&] {
          std::ofstream(path, std::ios::binary) << TlsFiles::read(from);
          return changed() != before;
        },
        kPatienceMs));
  }
  int set_up(SSLInfo& session) const {
    return session.Setup(kVerifyClients, nullptr, cert_.c_str(), key_.c_str(), ca_.c_str());
  }
  int set_up_another() const {
    SSLInfo session(-1, true);
    return set_up(session);
  }
  /// How often files have been parsed since the last look: key, chain, CA and the CA's names.
  static std::vector<long> parsed() {
    std::vector<long> counts;
    for (const char* const call : {"SSL_CTX_use_PrivateKey_file", "SSL_CTX_use_certificate_chain_file",
                                   "SSL_CTX_load_verify_locations", "SSL_load_client_CA_file"}) {
      counts.push_back(watched().count(call));
    }
    watched().start();
    return counts;
  }
  static std::string subject_of(const SSLInfo& session) {
    char* const line =
        X509_NAME_oneline(X509_get_subject_name(SSL_CTX_get0_certificate(session.ssl_ctx)), nullptr, 0);
    std::string subject = line;
    OPENSSL_free(line);
    return subject;
  }

  std::string cert_, key_, ca_;
};

TEST_F(TlsKeptFiles, AreParsedOnceWhileTheyStayTheSame) {
  EXPECT_EQ(set_up_another(), 0);
  EXPECT_EQ(parsed(), (std::vector<long>{1, 1, 1, 1}));
  for (int again = 0; again < 3; ++again) EXPECT_EQ(set_up_another(), 0);
  EXPECT_EQ(parsed(), (std::vector<long>{0, 0, 0, 0}));
}

TEST_F(TlsKeptFiles, ThatHaveJustChangedAreParsedEachTime) {
  time_of_day() = real_time_of_day();
  EXPECT_EQ(set_up_another(), 0);
  EXPECT_EQ(set_up_another(), 0);
  EXPECT_EQ(parsed(), (std::vector<long>{2, 2, 2, 2}));
}

TEST_F(TlsKeptFiles, ThatAreRenewedHoldForTheNextSession) {
  EXPECT_EQ(set_up_another(), 0);
  replace(cert_, tls_files().cert(TlsFiles::kClient));
  replace(key_, tls_files().key(TlsFiles::kClient));
  SSLInfo session(-1, true);
  ASSERT_EQ(set_up(session), 0);
  EXPECT_EQ(subject_of(session), tls_files().subject(TlsFiles::kClient));
}

TEST_F(TlsKeptFiles, ThatAreWrittenOverHoldForTheNextSession) {
  EXPECT_EQ(set_up_another(), 0);
  write_over(cert_, tls_files().cert(TlsFiles::kClient));
  write_over(key_, tls_files().key(TlsFiles::kClient));
  SSLInfo session(-1, true);
  ASSERT_EQ(set_up(session), 0);
  EXPECT_EQ(subject_of(session), tls_files().subject(TlsFiles::kClient));
}

TEST_F(TlsKeptFiles, OfWhichOneIsRenewedAreCheckedAgainstEachOther) {
  EXPECT_EQ(set_up_another(), 0);
  replace(cert_, tls_files().cert(TlsFiles::kClient));
  EXPECT_EQ(set_up_another(), 1);
  EXPECT_THAT(console.calls(), Contains(HasSubstr("SSL_CTX_check_private_key")));
}

TEST_F(TlsKeptFiles, ThatHaveGoneAreMissed) {
  const std::pair<std::string, const char*> files[] = {{key_, "SSL_CTX_use_PrivateKey_file"},
                                                       {cert_, "SSL_CTX_use_certificate_chain_file"},
                                                       {ca_, "SSL_CTX_load_verify_locations"}};
  EXPECT_EQ(set_up_another(), 0);
  for (const auto& [path, call] : files) {
    SCOPED_TRACE(call);
    const std::string aside = path + ".aside";
    ASSERT_EQ(std::rename(path.c_str(), aside.c_str()), 0);
    console.clear();
    EXPECT_EQ(set_up_another(), 1);
    EXPECT_THAT(console.calls(), Contains(HasSubstr(call)));
    ASSERT_EQ(std::rename(aside.c_str(), path.c_str()), 0);
    EXPECT_EQ(set_up_another(), 0);
  }
}

TEST_F(TlsKeptFiles, ThatCannotBeParsedAreTriedEachTime) {
  const std::string rubbish = tls_files().write("rubbish.pem", "no key");
  time_of_day() += kWhile_s;
  for (int attempt = 1; attempt <= 2; ++attempt) {
    SSLInfo session(-1, true);
    console.clear();
    EXPECT_EQ(session.Setup(0, nullptr, cert_.c_str(), rubbish.c_str(), nullptr), 1);
    EXPECT_THAT(console.calls(), Contains(HasSubstr("SSL_CTX_use_PrivateKey_file")));
  }
  EXPECT_EQ(watched().count("SSL_CTX_use_PrivateKey_file"), 2);
}

TEST_F(TlsKeptFiles, BringTheWholeChain) {
  const TlsFiles::Set& chain = tls_files().of(TlsFiles::kChain);
  time_of_day() += kWhile_s;
  for (int attempt = 1; attempt <= 2; ++attempt) {
    SSLInfo session(-1, true);
    ASSERT_EQ(session.Setup(0, nullptr, chain.cert.c_str(), chain.key.c_str(), nullptr), 0);
    STACK_OF(X509)* behind = nullptr;
    SSL_CTX_get0_chain_certs(session.ssl_ctx, &behind);
    EXPECT_EQ(sk_X509_num(behind), 1);
  }
  EXPECT_EQ(watched().count("SSL_CTX_use_certificate_chain_file"), 1);
}

// A chain of one behind a chain of two: nothing of the other stays.
TEST_F(TlsKeptFiles, WithoutAChainLeaveNone) {
  for (int attempt = 1; attempt <= 2; ++attempt) {
    SSLInfo session(-1, true);
    ASSERT_EQ(set_up(session), 0);
    STACK_OF(X509)* behind = nullptr;
    SSL_CTX_get0_chain_certs(session.ssl_ctx, &behind);
    EXPECT_LE(sk_X509_num(behind), 0);
  }
}

TEST_F(TlsKeptFiles, JudgeThePeerAsTheyDidTheFirstTime) {
  for (int attempt = 1; attempt <= 2; ++attempt) {
    for (const TlsFiles::Kind kind : {TlsFiles::kClient, TlsFiles::kOtherCa}) {
      Wire wire = Wire::local();
      SSLInfo session(wire.near_end.get(), true);
      ASSERT_EQ(set_up(session), 0);
      EXPECT_EQ(sk_X509_NAME_num(SSL_CTX_get_client_CA_list(session.ssl_ctx)), 1);
      TlsEnd peer({.server = false, .cert = tls_files().cert(kind), .key = tls_files().key(kind)},
                  std::move(wire.far_end));
      int result = -1;
      EXPECT_TRUE(wait_until(
          [&] {
            peer.step();
            result = session.Handshake();
            return result >= 0;
          },
          kPatienceMs));
      EXPECT_EQ(result, kind == TlsFiles::kClient ? 0 : 1);
    }
  }
  EXPECT_EQ(watched().count("SSL_CTX_load_verify_locations"), 1);
}

TEST_F(TlsKeptFiles, AreNotKeptInAnyNumber) {
  for (int file = 0; file < 200; ++file) {
    const std::string path = copy("many-" + std::to_string(file) + ".pem", key_);
    time_of_day() += kWhile_s;
    SSLInfo session(-1, true);
    EXPECT_EQ(session.Setup(0, nullptr, cert_.c_str(), path.c_str(), nullptr), 0);
  }
  EXPECT_EQ(set_up_another(), 0);
}

}  // namespace
