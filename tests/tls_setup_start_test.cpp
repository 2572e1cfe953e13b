// What is made once: the Diffie-Hellman group, the seed of the generator, the defaults.

// OpenSSL 3 calls the interface of the group deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/dh.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "support/tls_session.h"
#include "support/tls_session_calls.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::IsEmpty;

namespace {

// ---- The Diffie-Hellman group --------------------------------------------------------------------------------

TEST(TlsGroup, IsThePublishedOneOf1024BitsWithGeneratorTwo) {
  DH* const group = get_dh1024();
  ASSERT_NE(group, nullptr);
  const BIGNUM *prime = nullptr, *generator = nullptr;
  DH_get0_pqg(group, &prime, nullptr, &generator);
  ASSERT_NE(prime, nullptr);
  ASSERT_NE(generator, nullptr);
  char* const digits = BN_bn2hex(prime);
  EXPECT_STREQ(
      digits,
      "F488FD584E49DBCD20B49DE49107366B336C380D451D0F7C88B31C7C5B2D8EF6F3C923C043F0A55B188D8EBB558CB85D"
      "38D334FD7C175743A31D186CDE33212CB52AFF3CE1B1294018118D7C84A70A72D686C40319C807297ACA950CD9969FAB"
      "D00A509B0246D3083D66A45D419F9C7CBD894B221926BAABA25EC355E92F78C7");
  OPENSSL_free(digits);
  EXPECT_EQ(BN_num_bits(prime), 1024);
  EXPECT_TRUE(BN_is_word(generator, 2));
  DH_free(group);
}

TEST(TlsGroup, IsMadeAnewForEachCaller) {
  DH* const first = get_dh1024();
  DH* const second = get_dh1024();
  EXPECT_NE(first, second);
  DH_free(first);
  DH_free(second);
}

// ---- Initialise ----------------------------------------------------------------------------------------------

TEST(TlsInitialise, BeforeItTheClassHasItsFirstValues) {
  IN_FRESH_PROCESS({
    EXPECT_EQ(SSLInfo::ssl_debug, 1);
    EXPECT_EQ(SSLInfo::ssl_dhe1024, nullptr);
    EXPECT_EQ(SSLInfo::context_num, 0);
    EXPECT_EQ(SSLInfo::cert_file, nullptr);
    EXPECT_EQ(SSLInfo::key_file, nullptr);
    EXPECT_EQ(SSLInfo::ca_file, nullptr);
    EXPECT_FALSE(SSLInfo::initialised);
    EXPECT_EQ(SSLInfo::security_level, 1);
  });
}

TEST(TlsInitialise, KeepsTheNamesItselfMakesTheGroupAndIsDone) {
  IN_FRESH_PROCESS({
    char cert[] = "c.pem", key[] = "k.pem", ca[] = "a.pem";
    EXPECT_EQ(SSLInfo::Initialise(cert, key, ca), 0);
    EXPECT_EQ(static_cast<void*>(SSLInfo::cert_file), cert);
    EXPECT_EQ(static_cast<void*>(SSLInfo::key_file), key);
    EXPECT_EQ(static_cast<void*>(SSLInfo::ca_file), ca);
    EXPECT_NE(SSLInfo::ssl_dhe1024, nullptr);
    EXPECT_TRUE(SSLInfo::initialised);
    EXPECT_EQ(SSLInfo::context_num, 0);
  });
}

TEST(TlsInitialise, AgainReplacesTheNamesAndNothingElse) {
  initialise_tls();
  DH* const group = SSLInfo::ssl_dhe1024;
  char cert[] = "c.pem", key[] = "k.pem";
  EXPECT_EQ(SSLInfo::Initialise(cert, key, nullptr), 0);
  EXPECT_EQ(static_cast<void*>(SSLInfo::cert_file), cert);
  EXPECT_EQ(static_cast<void*>(SSLInfo::key_file), key);
  EXPECT_EQ(SSLInfo::ca_file, nullptr);
  EXPECT_EQ(SSLInfo::ssl_dhe1024, group);
  EXPECT_TRUE(SSLInfo::initialised);
  initialise_tls();
}

// ---- Its calls -----------------------------------------------------------------------------------------------

/// Each of these runs in a process of its own: what Initialise installs stays to the end of the process.
class TlsInitialiseCalls : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0); }
  /// As if nothing had been initialised yet.
  static void begin() {
    SSLInfo::initialised = false;
    watched().start();
  }
  static inline char cert_[] = "c.pem", key_[] = "k.pem", ca_[] = "a.pem";
};

TEST_F(TlsInitialiseCalls, WithoutTheLibraryItIsMinusOneAndTheNextCallTriesAgain) {
  IN_FRESH_PROCESS({
    begin();
    SSLInfo::cert_file = SSLInfo::key_file = SSLInfo::ca_file = nullptr;
    watched().fail("OPENSSL_init_ssl");
    EXPECT_EQ(SSLInfo::Initialise(cert_, key_, ca_), -1);
    EXPECT_FALSE(SSLInfo::initialised);
    EXPECT_EQ(static_cast<void*>(SSLInfo::cert_file), cert_);
    EXPECT_EQ(static_cast<void*>(SSLInfo::key_file), key_);
    EXPECT_EQ(static_cast<void*>(SSLInfo::ca_file), ca_);
    EXPECT_EQ(watched().count("RAND_seed"), 0);
    watched().stop();
    watched().start();
    char other[] = "o.pem";
    EXPECT_EQ(SSLInfo::Initialise(other, other, other), 0);
    EXPECT_TRUE(SSLInfo::initialised);
    EXPECT_EQ(static_cast<void*>(SSLInfo::cert_file), other);
    EXPECT_EQ(watched().count("RAND_seed"), 2);
  });
}

TEST_F(TlsInitialiseCalls, WithoutTheGroupItIsMinusTwoAndTheNextCallTriesAgain) {
  IN_FRESH_PROCESS({
    begin();
    DH_free(std::exchange(SSLInfo::ssl_dhe1024, nullptr));
    watched().fail("DH_new");
    EXPECT_EQ(SSLInfo::Initialise(cert_, key_, ca_), -2);
    EXPECT_FALSE(SSLInfo::initialised);
    EXPECT_EQ(SSLInfo::ssl_dhe1024, nullptr);
    EXPECT_EQ(static_cast<void*>(SSLInfo::cert_file), cert_);
    watched().stop();
    EXPECT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0);
    EXPECT_NE(SSLInfo::ssl_dhe1024, nullptr);
    EXPECT_TRUE(SSLInfo::initialised);
  });
}

TEST_F(TlsInitialiseCalls, AGroupThatIsThereIsKept) {
  IN_FRESH_PROCESS({
    begin();
    DH* const group = SSLInfo::ssl_dhe1024;
    EXPECT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0);
    EXPECT_EQ(SSLInfo::ssl_dhe1024, group);
    EXPECT_EQ(watched().count("DH_new"), 0);
  });
}

TEST_F(TlsInitialiseCalls, AgainItDoesNothingButKeepTheNames) {
  IN_FRESH_PROCESS({
    begin();
    ASSERT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0);
    watched().start();
    EXPECT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0);
    EXPECT_THAT(watched().log(), IsEmpty());
  });
}

TEST_F(TlsInitialiseCalls, TheGroupIsNullWhenAnyStepOfItFails) {
  IN_FRESH_PROCESS({
    begin();
    for (const auto& [call, after] : {std::pair{"DH_new", 0}, {"BN_bin2bn", 0}, {"BN_bin2bn", 1}}) {
      watched().start();
      watched().fail(call, after);
      EXPECT_EQ(get_dh1024(), nullptr) << call;
      watched().stop();
    }
  });
}

TEST_F(TlsInitialiseCalls, TheGeneratorIsSeededWithTheMachineAndTheMoment) {
  IN_FRESH_PROCESS({
    begin();
    seeds().clear();
    utsname machine = {};
    const int result = uname(&machine);
    const auto before = static_cast<std::uint32_t>(time(nullptr));
    ASSERT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0);
    const auto after = static_cast<std::uint32_t>(time(nullptr));
    ASSERT_EQ(seeds().size(), 2U);

    const std::string& block = seeds()[0].bytes;
    ASSERT_EQ(block.size(), 416U);
    ASSERT_EQ(sizeof machine, 390U);
    utsname given = {};
    std::memcpy(&given, block.data(), sizeof given);
    EXPECT_STREQ(given.sysname, machine.sysname);
    EXPECT_STREQ(given.nodename, machine.nodename);
    EXPECT_STREQ(given.release, machine.release);
    EXPECT_STREQ(given.version, machine.version);
    EXPECT_STREQ(given.machine, machine.machine);
    std::uint32_t numbers[6];
    std::memcpy(numbers, block.data() + 392, sizeof numbers);
    EXPECT_EQ(static_cast<int>(numbers[0]), result);
    EXPECT_EQ(numbers[2], getuid());
    EXPECT_EQ(numbers[3], geteuid());
    EXPECT_EQ(numbers[4], getgid());
    EXPECT_EQ(numbers[5], getegid());

    const Seed& moment = seeds()[1];
    ASSERT_EQ(moment.bytes.size(), 12U);
    std::uint32_t words[3];
    std::memcpy(words, moment.bytes.data(), sizeof words);
    EXPECT_GE(words[1], before);
    EXPECT_LE(words[1], after);
    EXPECT_EQ(words[2], static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(moment.address)));
  });
}

TEST_F(TlsInitialiseCalls, TheProcessIdIsAskedForAndNotPartOfTheSeed) {
  IN_FRESH_PROCESS({
    begin();
    seeds().clear();
    ASSERT_EQ(SSLInfo::Initialise(cert_, key_, ca_), 0);
    EXPECT_EQ(watched().count("getpid"), 1);
    ASSERT_EQ(seeds().size(), 2U);
    std::uint32_t first = 0;
    std::memcpy(&first, seeds()[1].bytes.data(), sizeof first);
    EXPECT_NE(first, static_cast<std::uint32_t>(getpid()));
  });
}

}  // namespace
