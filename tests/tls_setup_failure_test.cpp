// OpenSSL's calls one by one: in which order the set-up makes them, and what is left when one of them fails.

// OpenSSL 3 calls the interface of the group deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/tls_session.h"
#include "support/tls_session_calls.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class TlsSetupCalls : public TlsSessionTest {
 protected:
  void SetUp() override {
    TlsSessionTest::SetUp();
    watched().start();
  }
  void TearDown() override {
    watched().stop();
    TlsSessionTest::TearDown();
  }
  int set_up(SSLInfo& session, ULONG options) {
    return session.Setup(options, nullptr, nullptr, nullptr, nullptr);
  }

  /// The watched calls that are part of the set-up, in their order. How often options are set is not asked.
  static std::vector<std::string> steps() {
    std::vector<std::string> found;
    for (std::string& name : watched().log()) {
      if (name != "SSL_CTX_ctrl" && name != "OPENSSL_init_ssl" && name != "BN_bin2bn")
        found.push_back(std::move(name));
    }
    return found;
  }

  Wire wire_ = Wire::local();
};

// ---- Order ---------------------------------------------------------------------------------------------------

TEST_F(TlsSetupCalls, AServerThatVerifiesNobodyMakesThem) {
  SSLInfo session(wire_.near_end.get(), true);
  ASSERT_EQ(set_up(session, 0), 0);
  EXPECT_THAT(
      steps(),
      ElementsAre("SSL_CTX_new", "SSL_CTX_set_security_level", "SSL_CTX_set_default_passwd_cb",
                  "SSL_CTX_set_mode", "SSL_CTX_use_PrivateKey_file", "SSL_CTX_use_certificate_chain_file",
                  "SSL_CTX_check_private_key", "SSL_CTX_set_session_id_context", "SSL_CTX_set_verify",
                  "SSL_CTX_set_cert_verify_callback", "SSL_CTX_set_cipher_list", "SSL_new"));
}

TEST_F(TlsSetupCalls, AServerThatVerifiesMakesThem) {
  SSLInfo session(wire_.near_end.get(), true);
  ASSERT_EQ(set_up(session, 1), 0);
  EXPECT_THAT(
      steps(),
      ElementsAre("SSL_CTX_new", "SSL_CTX_set_security_level", "SSL_CTX_set_default_passwd_cb",
                  "SSL_CTX_set_mode", "SSL_CTX_use_PrivateKey_file", "SSL_CTX_use_certificate_chain_file",
                  "SSL_CTX_check_private_key", "SSL_CTX_set_session_id_context", "SSL_CTX_set_verify",
                  "SSL_CTX_set_cert_verify_callback", "SSL_CTX_load_verify_locations",
                  "SSL_load_client_CA_file", "SSL_CTX_get_client_CA_list", "SSL_CTX_set_tmp_dh",
                  "SSL_CTX_set_cipher_list", "SSL_new"));
}

TEST_F(TlsSetupCalls, AClientMakesThem) {
  SSLInfo session(wire_.near_end.get(), false);
  ASSERT_EQ(set_up(session, 0), 0);
  EXPECT_THAT(
      steps(),
      ElementsAre("SSL_CTX_new", "SSL_CTX_set_security_level", "SSL_CTX_set_default_passwd_cb",
                  "SSL_CTX_set_mode", "SSL_CTX_use_PrivateKey_file", "SSL_CTX_use_certificate_chain_file",
                  "SSL_CTX_check_private_key", "SSL_CTX_set_session_id_context", "SSL_CTX_set_verify",
                  "SSL_CTX_set_cert_verify_callback", "SSL_CTX_load_verify_locations", "SSL_CTX_set_tmp_dh",
                  "SSL_CTX_set_cipher_list", "SSL_new"));
}

// ---- Failures ------------------------------------------------------------------------------------------------

struct Failing {
  const char* call;
  const char* named;  ///< in the console line
  bool server;
  ULONG options;
};
const Failing kFailing[] = {
    {"SSL_CTX_new", "SSL_CTX_new", true, 0},
    {"SSL_CTX_new", "SSL_CTX_new", false, 0},
    {"SSL_CTX_use_PrivateKey_file", "SSL_CTX_use_PrivateKey_file", true, 0},
    {"SSL_CTX_use_certificate_chain_file", "SSL_CTX_use_certificate_chain_file", true, 0},
    {"SSL_CTX_check_private_key", "SSL_CTX_check_private_key", true, 0},
    {"SSL_CTX_set_session_id_context", "SSL_CTX_set_session_id_context", true, 0},
    {"SSL_CTX_load_verify_locations", "SSL_CTX_load_verify_locations", true, 1},
    {"SSL_CTX_load_verify_locations", "SSL_CTX_load_verify_locations", false, 0},
    {"SSL_load_client_CA_file", "SSL_CTX_get_client_CA_list", true, 1},
    {"SSL_CTX_get_client_CA_list", "SSL_CTX_get_client_CA_list", true, 1},
    {"SSL_CTX_set_tmp_dh", "SSL_CTX_set_tmp_dh", true, 1},
    {"SSL_CTX_set_tmp_dh", "SSL_CTX_set_tmp_dh", false, 0},
};

TEST_F(TlsSetupCalls, AFailedStepIsNamedLeavesNothingAndIsTheLast) {
  for (const Failing& row : kFailing) {
    SCOPED_TRACE(row.call);
    SSLInfo session(wire_.near_end.get(), row.server);
    console.clear();
    watched().start();
    watched().fail(row.call);
    EXPECT_EQ(set_up(session, row.options), 1);
    EXPECT_EQ(session.ssl_ctx, nullptr);
    EXPECT_EQ(session.ssl, nullptr);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(steps().back(), std::strcmp(row.call, "SSL_load_client_CA_file") == 0
                                  ? "SSL_CTX_get_client_CA_list"
                                  : row.call);
    int errors = 0;
    for (const std::string& text : console.calls()) {
      if (!text.starts_with("SSL/TLS")) continue;
      ++errors;
      EXPECT_NE(text.find(std::string("): ") + row.named + ": error:"), std::string::npos) << text;
    }
    EXPECT_GE(errors, 1);
    EXPECT_EQ(console.count("setting cipher list"), 0);
    watched().stop();
  }
}

TEST_F(TlsSetupCalls, WithoutAConnectionTheContextStaysForTheDestructor) {
  SSLInfo session(wire_.near_end.get(), true);
  watched().fail("SSL_new");
  EXPECT_EQ(set_up(session, 0), -1);
  EXPECT_NE(session.ssl_ctx, nullptr);
  EXPECT_EQ(session.ssl, nullptr);
  EXPECT_EQ(console.count("SSL_new: error:"), 1);
  EXPECT_EQ(session.Handshake(), 1);
}

TEST_F(TlsSetupCalls, ACipherListThatIsRefusedChangesNothing) {
  for (const bool server : {true, false}) {
    SSLInfo session(wire_.near_end.get(), server);
    console.clear();
    watched().fail("SSL_CTX_set_cipher_list");
    EXPECT_EQ(set_up(session, 0), 0);
    EXPECT_NE(session.ssl, nullptr);
    EXPECT_EQ(console.count("SSL/TLS"), 0);
  }
  ERR_clear_error();
}

TEST_F(TlsSetupCalls, EveryErrorInTheQueueIsPrinted) {
  SSLInfo session(wire_.near_end.get(), true);
  ERR_raise(ERR_LIB_USER, 77);  // somebody else's, from before
  watched().fail("SSL_CTX_set_session_id_context");
  EXPECT_EQ(set_up(session, 0), 1);
  EXPECT_EQ(ERR_peek_error(), 0UL);
  EXPECT_GE(console.count("SSL_CTX_set_session_id_context: error:"), 1);
}

}  // namespace
