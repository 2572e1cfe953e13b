// The first use of TLS by a secure blocking socket in a process, and OpenSSL without memory.

#include <openssl/dh.h>
#include <openssl/rand.h>
#include <sys/utsname.h>
#include <time.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

struct SetUpCalls {
  InterposedCall<int(std::uint64_t, const OPENSSL_INIT_SETTINGS*)> init{"OPENSSL_init_ssl"};
  InterposedCall<DH*()> new_dh{"DH_new"};
  InterposedCall<SSL_CTX*(const SSL_METHOD*)> new_context{"SSL_CTX_new"};
  InterposedCall<SSL*(SSL_CTX*)> new_session{"SSL_new"};
  InterposedCall<int(X509_STORE_CTX*)> verify{"X509_verify_cert"};
  InterposedCall<BIO*(const BIO_METHOD*)> new_bio{"BIO_new"};
  InterposedCall<int(BIO*)> free_bio{"BIO_free"};
};
SetUpCalls set_up_calls;

/// What the generator has been seeded with.
std::vector<std::string> seeds;

/// What the last context asks about a certificate.
using VerifyCallback = int (*)(X509_STORE_CTX*, void*);
VerifyCallback verify_callback = nullptr;
void* verify_argument = nullptr;

}  // namespace
}  // namespace oskernel_test

extern "C" {

__attribute__((visibility("default"))) int OPENSSL_init_ssl(std::uint64_t options,
                                                            const OPENSSL_INIT_SETTINGS* settings) {
  return oskernel_test::set_up_calls.init.call(options, settings);
}
__attribute__((visibility("default"))) void RAND_seed(const void* bytes, int count) {
  static auto* const real = reinterpret_cast<void (*)(const void*, int)>(dlsym(RTLD_NEXT, "RAND_seed"));
  real(bytes, count);
  oskernel_test::seeds.emplace_back(static_cast<const char*>(bytes), static_cast<std::size_t>(count));
}
__attribute__((visibility("default"))) DH* DH_new() { return oskernel_test::set_up_calls.new_dh.call(); }
__attribute__((visibility("default"))) SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
  return oskernel_test::set_up_calls.new_context.call(method);
}
__attribute__((visibility("default"))) SSL* SSL_new(SSL_CTX* context) {
  return oskernel_test::set_up_calls.new_session.call(context);
}
__attribute__((visibility("default"))) void SSL_CTX_set_cert_verify_callback(
    SSL_CTX* context, oskernel_test::VerifyCallback callback, void* argument) {
  static auto* const real = reinterpret_cast<void (*)(SSL_CTX*, oskernel_test::VerifyCallback, void*)>(
      dlsym(RTLD_NEXT, "SSL_CTX_set_cert_verify_callback"));
  oskernel_test::verify_callback = callback;
  oskernel_test::verify_argument = argument;
  real(context, callback, argument);
}
__attribute__((visibility("default"))) BIO* BIO_new(const BIO_METHOD* method) {
  return oskernel_test::set_up_calls.new_bio.call(method);
}
__attribute__((visibility("default"))) int BIO_free(BIO* bio) {
  return oskernel_test::set_up_calls.free_bio.call(bio);
}
__attribute__((visibility("default"))) int X509_verify_cert(X509_STORE_CTX* context) {
  return oskernel_test::set_up_calls.verify.call(context);
}

}  // extern "C"

namespace oskernel_test {
namespace {

class SecureSocketStart : public SecureTest {
 protected:
  static int start(SecureSocket& socket) {
    ScriptedWaits waits(socket.s, {{Wait::kNothing}});
    return socket.StartSSL(true);
  }
};

TEST_F(SecureSocketStart, WithoutOpensslNothingIsStarted) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  EXPECT_FALSE(SecureSocket::initialized_ssl);
  Accepted accepted = accepted_connection();
  set_up_calls.init.replace([](auto, std::uint64_t, const OPENSSL_INIT_SETTINGS*) { return 0; });
  EXPECT_EQ(start(*accepted.socket), -1);
  set_up_calls.init.restore();
  EXPECT_FALSE(SecureSocket::initialized_ssl);
  EXPECT_EQ(accepted->ssl_ctx, nullptr);
  EXPECT_EQ(accepted->ssl, nullptr);
  EXPECT_EQ(start(*accepted.socket), 1) << "the next one tries again";
  EXPECT_TRUE(SecureSocket::initialized_ssl);
  accepted.peer.close();
}

TEST_F(SecureSocketStart, WithoutTheGroupNothingIsStarted) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  set_up_calls.new_dh.replace([](auto) { return static_cast<DH*>(nullptr); });
  EXPECT_EQ(start(*accepted.socket), -2);
  set_up_calls.new_dh.restore();
  EXPECT_FALSE(SecureSocket::initialized_ssl);
  EXPECT_EQ(accepted->ssl_ctx, nullptr);
  EXPECT_EQ(start(*accepted.socket), 1);
  EXPECT_TRUE(SecureSocket::initialized_ssl);
  accepted.peer.close();
}

TEST_F(SecureSocketStart, TheFirstUseSeedsWithTheMachineAndTheProcess) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  seeds.clear();
  const time_t before = time(nullptr);
  EXPECT_EQ(start(*accepted.socket), 1);
  const time_t behind = time(nullptr);
  const std::vector<std::string> given = seeds;
  ASSERT_EQ(given.size(), 2U);
  ASSERT_EQ(given[0].size(), 416U);
  utsname system = {};
  uname(&system);
  EXPECT_EQ(std::memcmp(given[0].data(), &system, sizeof system), 0);
  ASSERT_EQ(given[1].size(), 12U);
  ULONG words[3];
  std::memcpy(words, given[1].data(), sizeof words);
  EXPECT_EQ(words[0], static_cast<ULONG>(getpid()));
  EXPECT_GE(words[1], static_cast<ULONG>(before));
  EXPECT_LE(words[1], static_cast<ULONG>(behind));
  EXPECT_NE(words[2], 0U);
  EXPECT_EQ(start(*accepted.socket), 1);
  EXPECT_EQ(seeds.size(), 2U) << "once in the process";
  accepted.peer.close();
}

TEST_F(SecureSocketStart, CertificatesAreVerifiedAndOnlyAnErrorInsideCounts) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  EXPECT_EQ(start(*accepted.socket), 1);
  ASSERT_NE(verify_callback, nullptr);
  X509_STORE_CTX* const context = X509_STORE_CTX_new();
  ASSERT_NE(context, nullptr);
  struct Row {
    int verified;
    int result;
  };
  for (const Row& row : {Row{1, 1}, Row{0, 1}, Row{-1, -1}, Row{-2, -2}}) {
    int runs = 0;
    set_up_calls.verify.replace([&runs, context, row](auto, X509_STORE_CTX* given) {
      ++runs;
      EXPECT_EQ(given, context);
      return row.verified;
    });
    EXPECT_EQ(verify_callback(context, verify_argument), row.result);
    EXPECT_EQ(runs, 1);
  }
  set_up_calls.verify.restore();
  X509_STORE_CTX_free(context);
  accepted.peer.close();
}

TEST_F(SecureSocketStart, WithoutMemoryForTheContextOrTheSessionItFails) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  set_up_calls.new_context.replace([](auto, const SSL_METHOD*) { return static_cast<SSL_CTX*>(nullptr); });
  EXPECT_NE(start(*accepted.socket), 0);
  set_up_calls.new_context.restore();
  EXPECT_EQ(accepted->ssl_ctx, nullptr);
  set_up_calls.new_session.replace([](auto, SSL_CTX*) { return static_cast<SSL*>(nullptr); });
  EXPECT_NE(start(*accepted.socket), 0);
  EXPECT_EQ(accepted->ssl, nullptr);
  EXPECT_FALSE(is_nonblocking(accepted->s));
  accepted.peer.half_close();
  accepted->ConnectAck();
  set_up_calls.new_session.restore();
  EXPECT_EQ(accepted->s, -1);
  EXPECT_FALSE(accepted->Secure());
}

TEST_F(SecureSocketStart, HalfASessionIsNotKept) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  const auto is_socket = [](BIO* bio) { return bio != nullptr && BIO_method_type(bio) == BIO_TYPE_SOCKET; };
  set_up_calls.new_bio.replace([is_socket](auto real, const BIO_METHOD* method) {
    BIO* const bio = real(method);
    if (!is_socket(bio)) return bio;
    BIO_free(bio);
    return static_cast<BIO*>(nullptr);
  });
  EXPECT_EQ(accepted->StartSSL(true), 1) << "without a wait";
  EXPECT_EQ(accepted->ssl, nullptr) << "a session that cannot reach its peer";
  int open_bios = 0;
  set_up_calls.new_bio.replace([is_socket, &open_bios](auto real, const BIO_METHOD* method) {
    BIO* const bio = real(method);
    if (is_socket(bio)) ++open_bios;
    return bio;
  });
  set_up_calls.free_bio.replace([is_socket, &open_bios](auto real, BIO* bio) {
    if (is_socket(bio)) --open_bios;
    return real(bio);
  });
  set_up_calls.new_session.replace([&open_bios](auto, SSL_CTX*) {
    EXPECT_EQ(open_bios, 1);
    return static_cast<SSL*>(nullptr);
  });
  EXPECT_EQ(accepted->StartSSL(true), 1);
  EXPECT_EQ(open_bios, 0);
  set_up_calls.new_bio.restore();
  set_up_calls.free_bio.restore();
  set_up_calls.new_session.restore();
  EXPECT_EQ(start(*accepted.socket), 1);
  EXPECT_NE(accepted->ssl, nullptr) << "and the next one has all it needs";
  accepted.peer.close();
}

}  // namespace
}  // namespace oskernel_test
