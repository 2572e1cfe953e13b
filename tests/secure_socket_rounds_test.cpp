// Round by round through the handshake of a secure blocking socket, and what becomes of what it has made for one.

#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/blocking_calls.h"
#include "support/secure_fixture.h"
#include "support/session_calls.h"

namespace oskernel_test {
namespace {

struct HandshakeCalls {
  InterposedCall<int(SSL*)> accept{"SSL_accept"};
  InterposedCall<int(SSL*)> connect{"SSL_connect"};
};
HandshakeCalls handshake_calls;

}  // namespace
}  // namespace oskernel_test

extern "C" {

__attribute__((visibility("default"))) int SSL_accept(SSL* ssl) {
  return oskernel_test::handshake_calls.accept.call(ssl);
}
__attribute__((visibility("default"))) int SSL_connect(SSL* ssl) {
  return oskernel_test::handshake_calls.connect.call(ssl);
}

}  // extern "C"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kReason = SSL_R_BAD_LENGTH;

/// The handshake's calls answer as the test says, one after the other; the descriptor is always readable.
class ScriptedHandshake {
 public:
  ScriptedHandshake(const SecureSocket& socket, std::deque<Outcome> outcomes)
      : waits_(socket.s, {{Wait::kReadable}}, ScriptedWaits::kThenTheLastAgain),
        fd_(socket.s),
        outcomes_(std::move(outcomes)) {
    handshake_calls.accept.replace([this](auto, SSL*) { return answer("accept"); });
    handshake_calls.connect.replace([this](auto, SSL*) { return answer("connect"); });
    session_calls.get_error.replace([this](auto, const SSL*, int) { return code_; });
  }
  ~ScriptedHandshake() {
    handshake_calls.accept.restore();
    handshake_calls.connect.restore();
    session_calls.get_error.restore();
  }
  ScriptedHandshake(const ScriptedHandshake&) = delete;
  ScriptedHandshake& operator=(const ScriptedHandshake&) = delete;

  std::vector<std::string> calls_made() const { return calls_; }
  int waits_to_write() const { return waits_.waits_to_write(); }

 private:
  int answer(const char* call) {
    calls_.emplace_back(call);
    EXPECT_TRUE(is_nonblocking(fd_));
    EXPECT_EQ(ERR_peek_error(), 0U) << "an error of another call";
    Outcome outcome = {-1, SSL_ERROR_SSL};
    if (!outcomes_.empty()) {
      outcome = outcomes_.front();
      outcomes_.pop_front();
    }
    if (outcome.reason != 0) ERR_raise(ERR_LIB_SSL, outcome.reason);
    code_ = outcome.code;
    return outcome.result;
  }

  ScriptedWaits waits_;
  const int fd_;
  std::deque<Outcome> outcomes_;
  std::vector<std::string> calls_;
  int code_ = 0;
};

/// Counts the sessions and contexts that are marked and go.
class Graves {
 public:
  static void mark(const SecureSocket& socket) {
    static const int session_index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, bury);
    static const int context_index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, bury);
    ASSERT_NE(socket.ssl, nullptr);
    ASSERT_NE(socket.ssl_ctx, nullptr);
    sessions = contexts = 0;
    SSL_set_ex_data(socket.ssl, session_index, &sessions);
    SSL_CTX_set_ex_data(socket.ssl_ctx, context_index, &contexts);
  }
  static inline int sessions = 0;
  static inline int contexts = 0;

 private:
  static void bury(void*, void* count, CRYPTO_EX_DATA*, int, long, void*) {
    if (count != nullptr) ++*static_cast<int*>(count);
  }
};

class SecureSocketRounds : public SecureTest {
 protected:
  static int start_in_silence(SecureSocket& socket) {
    ScriptedWaits waits(socket.s, {{Wait::kNothing}});
    return socket.StartSSL(true);
  }
};

TEST_F(SecureSocketRounds, EveryResultOfARoundGoesOnOrEndsTheHandshake) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  for (const bool server : {true, false}) {
    const std::string name = server ? "SSL_accept" : "SSL_connect";
    for (const int result : {-1, 0}) {
      for (int code = 0; code <= 12; ++code) {
        SCOPED_TRACE(line("%s %d, %d", name.c_str(), result, code));
        const bool goes_on = code == SSL_ERROR_NONE || code == SSL_ERROR_WANT_READ ||
                             code == SSL_ERROR_WANT_WRITE || code == SSL_ERROR_WANT_CONNECT;
        const ScriptedHandshake handshake(*accepted.socket, {{result, code}, {1, SSL_ERROR_NONE}});
        said();
        EXPECT_EQ(accepted->StartSSL(server), goes_on ? 0 : 1);
        EXPECT_EQ(handshake.calls_made(),
                  std::vector<std::string>(goes_on ? 2 : 1, server ? "accept" : "connect"));
        Lines expected = {kCipherLine, "SecureSocket::StartSSL - select returned 1",
                          line("SecureSocket::StartSSL - %s returned %d", name.c_str(), result),
                          line("SecureSocket::StartSSL - SSL_get_error returned %d", code)};
        if (goes_on) {
          expected.emplace_back("SecureSocket::StartSSL - select returned 1");
          expected.push_back(line("SecureSocket::StartSSL - %s returned 1", name.c_str()));
        }
        EXPECT_EQ(said(), expected);
        EXPECT_EQ(handshake.waits_to_write(), 0) << "whatever OpenSSL wants";
        EXPECT_FALSE(is_nonblocking(accepted->s));
        EXPECT_FALSE(accepted->Secure()) << "that is said by whoever calls it";
      }
    }
  }
  accepted.peer.close();
}

TEST_F(SecureSocketRounds, EveryRoundBeginsWithoutTheErrorsOfOthers) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  const ScriptedHandshake handshake(
      *accepted.socket,
      {{-1, SSL_ERROR_WANT_READ, 0, kReason}, {-1, SSL_ERROR_WANT_READ}, {-1, SSL_ERROR_SSL, 0, kReason}});
  queue_openssl_error(ERR_LIB_SSL, SSL_R_BAD_DATA);
  EXPECT_EQ(accepted->StartSSL(true), 1);
  EXPECT_EQ(handshake.calls_made().size(), 3U);
  const unsigned long code = ERR_PACK(ERR_LIB_SSL, 0, kReason);
  EXPECT_THAT(said_with("SSL error"),
              ElementsAre(line("SSL error %x (%s)", static_cast<unsigned>(code), error_text(code).c_str())))
      << "the last round's";
  EXPECT_EQ(ERR_peek_error(), 0U);
  accepted.peer.close();
}

TEST_F(SecureSocketRounds, ErrorsOfTheSetUpAreNotToldAsTheHandshakes) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  // A key of another type loads, and the check behind it, whose result nobody looks at, leaves an error.
  root().put(files.key(TlsFiles::kServerRsa), ApplianceRoot::kPrimaryKey);
  Accepted accepted = accepted_connection();
  EXPECT_EQ(start_in_silence(*accepted.socket), 1);
  EXPECT_THAT(said_with("SSL error"), IsEmpty());
  accepted.peer.close();
}

// ---- What has been made ----------------------------------------------------------------------------------------

TEST_F(SecureSocketRounds, AStartThatFailsLeavesASecureSocketInsecure) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  ASSERT_TRUE(served->Secure());
  EXPECT_EQ(start_in_silence(*served.socket), 1);
  EXPECT_FALSE(served->Secure());
  EXPECT_FALSE(served->ssl_connected);
  EXPECT_EQ(served->state, Socket::CONNECTED) << "the connection is the owner's to close";
}

TEST_F(SecureSocketRounds, SessionAndContextAreFreedInTheirTime) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  EXPECT_EQ(start_in_silence(*accepted.socket), 1);
  Graves::mark(*accepted.socket);
  EXPECT_EQ(start_in_silence(*accepted.socket), 1);
  EXPECT_EQ(Graves::sessions, 1) << "by the next start";
  EXPECT_EQ(Graves::contexts, 1);
  Graves::mark(*accepted.socket);
  accepted.peer.half_close();
  accepted->Close();
  EXPECT_EQ(Graves::sessions, 1) << "by Close";
  EXPECT_EQ(Graves::contexts, 0) << "by the destructor";
  EXPECT_EQ(accepted->ssl, nullptr);
  EXPECT_NE(accepted->ssl_ctx, nullptr);
  accepted.socket.reset();
  EXPECT_EQ(Graves::sessions, 1);
  EXPECT_EQ(Graves::contexts, 1);
}

TEST_F(SecureSocketRounds, TheDestructorOfAnOpenSocketFreesBoth) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  Graves::mark(*served.socket);
  served.peer->stream().half_close();
  served.socket.reset();
  EXPECT_EQ(Graves::sessions, 1);
  EXPECT_EQ(Graves::contexts, 1);
}

}  // namespace
}  // namespace oskernel_test
