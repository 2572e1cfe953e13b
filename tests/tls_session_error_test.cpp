// How each result of an OpenSSL call is reported, and the calls that a test answers itself.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/tls_session.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// What the test answers in OpenSSL's place, for calls that the library makes.
struct Answers {
  std::atomic<int> error{-1};                    ///< of SSL_get_error; -1 for OpenSSL's own
  std::atomic<bool> all_ones{false};             ///< ERR_get_error's
  std::atomic<bool> no_certificate{false};       ///< the peer has shown none
  std::atomic<bool> shutdown_done{false};        ///< SSL_shutdown is complete the first time
  std::atomic<int> shutdowns{0}, writes{0};      ///< calls
  std::atomic<int> reads_that_want_to_write{0};  ///< SSL_read fails so often, with WANT_WRITE
  std::atomic<int> empty_writes{0};              ///< SSL_write calls without data
};
Answers& answers() {
  static auto* const kept = new Answers;
  return *kept;
}
bool is_library(void* address) {
  Dl_info info = {};
  return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "liboskernel") != nullptr;
}
template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
thread_local bool read_wants_to_write = false;

}  // namespace

extern "C" {
__attribute__((visibility("default"))) int SSL_get_error(const SSL* ssl, int result) {
  static auto* const real = next<int(const SSL*, int)>("SSL_get_error");
  if (is_library(__builtin_return_address(0))) {
    if (read_wants_to_write) return SSL_ERROR_WANT_WRITE;
    if (answers().error >= 0) return answers().error;
  }
  return real(ssl, result);
}
__attribute__((visibility("default"))) unsigned long ERR_get_error() {
  static auto* const real = next<unsigned long()>("ERR_get_error");
  if (answers().all_ones && is_library(__builtin_return_address(0))) return ~0UL;
  return real();
}
__attribute__((visibility("default"))) X509* SSL_get1_peer_certificate(const SSL* ssl) {
  static auto* const real = next<X509*(const SSL*)>("SSL_get1_peer_certificate");
  if (answers().no_certificate && is_library(__builtin_return_address(0))) return nullptr;
  return real(ssl);
}
__attribute__((visibility("default"))) int SSL_shutdown(SSL* ssl) {
  static auto* const real = next<int(SSL*)>("SSL_shutdown");
  if (!is_library(__builtin_return_address(0))) return real(ssl);
  ++answers().shutdowns;
  const int result = real(ssl);
  return answers().shutdown_done ? 1 : result;
}
__attribute__((visibility("default"))) int SSL_write(SSL* ssl, const void* bytes, int count) {
  static auto* const real = next<int(SSL*, const void*, int)>("SSL_write");
  if (is_library(__builtin_return_address(0))) {
    ++answers().writes;
    if (count == 0) ++answers().empty_writes;
    read_wants_to_write = false;
  }
  return real(ssl, bytes, count);
}
__attribute__((visibility("default"))) int SSL_read(SSL* ssl, void* bytes, int count) {
  static auto* const real = next<int(SSL*, void*, int)>("SSL_read");
  if (is_library(__builtin_return_address(0))) {
    read_wants_to_write = answers().reads_that_want_to_write > 0 && answers().reads_that_want_to_write-- > 0;
    if (read_wants_to_write) return -1;
  }
  return real(ssl, bytes, count);
}
}  // extern "C"

namespace {

class TlsError : public TlsSessionTest {
 protected:
  void SetUp() override {
    TlsSessionTest::SetUp();
    link_ = std::make_unique<TlsLink>(good_server());
    ASSERT_EQ(link_->handshake(), 0);
    link_->receive();
    console.clear();
    restore();
  }
  void TearDown() override {
    restore();
    link_.reset();
    TlsSessionTest::TearDown();
  }
  static void restore() {
    answers().error = -1;
    answers().all_ones = false;
    answers().no_certificate = false;
    answers().shutdown_done = false;
    answers().shutdowns = answers().writes = answers().empty_writes = 0;
    answers().reads_that_want_to_write = 0;
    read_wants_to_write = false;
    ERR_clear_error();
  }
  std::string ssl_line(const std::string& what) {
    return line("SSL %p %s", static_cast<void*>(link_->session().ssl), what.c_str());
  }

  std::unique_ptr<TlsLink> link_;
};

// ---- The table -----------------------------------------------------------------------------------------------

TEST_F(TlsError, EachCodeHasItsLine) {
  struct Row {
    int code;
    const char* text;  ///< behind "SSL %p SSL_call "; null for no line
  };
  for (const Row& row :
       {Row{0, "error 0 NONE"}, Row{2, nullptr}, Row{3, "error 3 WANT_WRITE"},
        Row{4, "error 4 WANT_X509_LOOKUP"}, Row{6, "error 6 ZERO_RETURN"}, Row{7, "error 7 WANT_CONNECT"},
        Row{8, "error 8 WANT_ACCEPT"}, Row{9, "error 9 UNKNOWN"}, Row{12, "error 12 UNKNOWN"},
        Row{99, "error 99 UNKNOWN"}}) {
    for (const int debug : {1, 0}) {
      SSLInfo::ssl_debug = debug;
      console.clear();
      answers().error = row.code;
      EXPECT_EQ(link_->session().Error("SSL_call", -1), row.code);
      if (row.text == nullptr) {
        EXPECT_THAT(console.calls(), IsEmpty());
      } else {
        EXPECT_THAT(console.calls(), ElementsAre(ssl_line(std::string("SSL_call ") + row.text)));
      }
    }
  }
}

TEST_F(TlsError, AProtocolErrorPrintsTheWholeQueue) {
  answers().error = SSL_ERROR_SSL;
  ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
  const unsigned long first = ERR_peek_last_error();
  ERR_raise(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR);
  const unsigned long second = ERR_peek_last_error();
  EXPECT_EQ(link_->session().Error("SSL_call", -1), SSL_ERROR_SSL);
  std::vector<std::string> expected;
  for (const unsigned long code : {first, second}) {
    expected.push_back(line("SSL/TLS (0x%08lx): SSL_call: %s", code, ERR_error_string(code, nullptr)));
  }
  EXPECT_EQ(console.calls(), expected);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_F(TlsError, AProtocolErrorWithoutAQueuePrintsNothing) {
  answers().error = SSL_ERROR_SSL;
  EXPECT_EQ(link_->session().Error("SSL_call", -1), SSL_ERROR_SSL);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_F(TlsError, ASystemErrorWithoutAQueueIsAnEnd) {
  answers().error = SSL_ERROR_SYSCALL;
  errno = ECONNRESET;
  EXPECT_EQ(link_->session().Error("SSL_call", -1), SSL_ERROR_SYSCALL);
  EXPECT_THAT(console.calls(), ElementsAre(ssl_line("SSL_call ERROR_SYSCALL EOF")));
}

TEST_F(TlsError, ASystemErrorWithAQueuePrintsItsFirstCode) {
  answers().error = SSL_ERROR_SYSCALL;
  ERR_raise(ERR_LIB_USER, 5);
  const auto code = static_cast<int>(ERR_peek_error());
  EXPECT_EQ(link_->session().Error("SSL_call", -1), SSL_ERROR_SYSCALL);
  EXPECT_THAT(console.calls(), ElementsAre(ssl_line("SSL_call ERROR_SYSCALL ERR " + std::to_string(code))));
}

TEST_F(TlsError, ASystemErrorOfAllOnesPrintsTheErrnoOfTheCall) {
  answers().error = SSL_ERROR_SYSCALL;
  answers().all_ones = true;
  errno = EHOSTUNREACH;
  EXPECT_EQ(link_->session().Error("SSL_call", -1), SSL_ERROR_SYSCALL);
  EXPECT_THAT(console.calls(),
              ElementsAre(ssl_line(line("SSL_call ERROR_SYSCALL ERR -1 BIO errno %d", EHOSTUNREACH))));
}

// ---- Calls that go otherwise than usual ----------------------------------------------------------------------

TEST_F(TlsError, AReadThatFindsNothingAfterAllIsNothing) {
  answers().error = SSL_ERROR_WANT_READ;
  auto* buf = reinterpret_cast<OSBuf*>(1);
  EXPECT_EQ(link_->session().Recv(&buf), 0);
  EXPECT_EQ(buf, nullptr);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_F(TlsError, AnyOtherResultOfAReadIsHandedOn) {
  for (const int code : {1, 4, 6, 7, 8, 99}) {
    answers().error = code;
    auto* buf = reinterpret_cast<OSBuf*>(1);
    const int buffers = PoolState::now().buffers_out;
    EXPECT_EQ(link_->session().Recv(&buf), code);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(PoolState::now().buffers_out, buffers);
  }
}

TEST_F(TlsError, AReadThatWantsToWriteWritesNothingAndReadsAgain) {
  link_->peer().write("behind it");
  answers().reads_that_want_to_write = 1;
  OSBuf* buf = nullptr;
  EXPECT_EQ(link_->session().Recv(&buf), 0);
  EXPECT_EQ(console.count("SSL_read: WANT_WRITE"), 1);
  EXPECT_EQ(console.count(ssl_line("SSL_read error 3 WANT_WRITE")), 1);
  EXPECT_EQ(answers().empty_writes, 1);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf->data), buf->length), "behind it");
  buf->Free();
}

TEST_F(TlsError, AReadThatWantsToWriteForEverIsNothingNow) {
  link_->peer().write("behind it");
  answers().reads_that_want_to_write = 1 << 30;
  auto* buf = reinterpret_cast<OSBuf*>(1);
  EXPECT_EQ(link_->session().Recv(&buf), 0);
  EXPECT_EQ(buf, nullptr);
  EXPECT_GE(console.count("SSL_read: WANT_WRITE"), 1);
  EXPECT_LE(answers().empty_writes, 2);
  answers().reads_that_want_to_write = 0;
  EXPECT_EQ(link_->receive(), "behind it");
}

TEST_F(TlsError, AReadThatWantsToWriteBehindAStalledWriteLeavesItAlone) {
  link_->stall();
  ASSERT_EQ(link_->waiting(), 1);
  answers().empty_writes = 0;
  answers().reads_that_want_to_write = 1;
  auto* buf = reinterpret_cast<OSBuf*>(1);
  EXPECT_EQ(link_->session().Recv(&buf), 0);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(answers().empty_writes, 0);
  EXPECT_EQ(console.count("SSL_read: WANT_WRITE"), 1);
}

TEST_F(TlsError, AWriteThatFailsInAnyOtherWayIsNoConnection) {
  for (const int code : {1, 4, 5, 6, 7, 8, 99}) {
    const int buffers = PoolState::now().buffers_out;
    TlsLink link(good_server());
    ASSERT_EQ(link.handshake(), 0);
    link.peer().close();
    answers().error = code;
    OSIORetCode result = Success;
    for (int i = 0; i < 3 && result == Success; ++i) result = link.send("x");
    EXPECT_EQ(result, NoConnection);
    EXPECT_EQ(link.waiting(), 0);
    answers().error = -1;
    EXPECT_EQ(PoolState::now().buffers_out, buffers);
  }
}

TEST_F(TlsError, GoodbyeIsSaidASecondTimeWhenThePeersIsMissing) {
  EXPECT_EQ(link_->session().Stop(), 0);
  EXPECT_EQ(answers().shutdowns, 2);
}

TEST_F(TlsError, GoodbyeIsSaidOnceWhenThePeerHasSaidItToo) {
  answers().shutdown_done = true;
  EXPECT_EQ(link_->session().Stop(), 0);
  EXPECT_EQ(answers().shutdowns, 1);
}

TEST_F(TlsError, APeerWithoutACertificateIsRefused) {
  answers().no_certificate = true;
  TlsLink link(good_server());
  console.clear();
  EXPECT_EQ(link.handshake(), 1);
  EXPECT_EQ(link.session().ssl, nullptr);
  EXPECT_EQ(console.calls().back(), "TLS connect handshake failed");
  EXPECT_EQ(console.count("peer: "), 0);
}

TEST_F(TlsError, AServerThatVerifiesNobodyAsksForNoCertificate) {
  answers().no_certificate = true;
  TlsLink link(good_client());
  EXPECT_EQ(link.handshake(), 0);
}

}  // namespace
