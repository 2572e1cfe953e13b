/// OpenSSL's calls on a session that a test answers itself. Included by one source of a test program; calls on other
/// sessions, a scripted peer's among them, go to OpenSSL.
#ifndef OSKERNEL_TESTS_SESSION_CALLS_H
#define OSKERNEL_TESTS_SESSION_CALLS_H

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "interposed_calls.h"

namespace oskernel_test {

struct SessionCalls {
  InterposedCall<int(const SSL*)> pending{"SSL_pending"};
  InterposedCall<int(SSL*, void*, int)> peek{"SSL_peek"};
  InterposedCall<int(SSL*, void*, int)> read{"SSL_read"};
  InterposedCall<int(SSL*, const void*, int)> write{"SSL_write"};
  InterposedCall<int(const SSL*, int)> get_error{"SSL_get_error"};
};
inline SessionCalls session_calls;

/// What one call finds.
struct Outcome {
  int result = -1;         ///< what it returns
  int code = 0;            ///< what SSL_get_error makes of it
  int error = 0;           ///< errno behind it
  int reason = 0;          ///< not 0: an error with this reason is queued
  std::string bytes = {};  ///< what it reads
};

/// Answers SSL_peek, SSL_read or SSL_write of one session, call by call; calls behind the last answer go to OpenSSL.
class ScriptedSession {
 public:
  explicit ScriptedSession(SSL* ssl) : ssl_(ssl) {
    session_calls.peek.replace([this](auto real, SSL* s, void* bytes, int count) {
      return answer(&peeks_, s, bytes, count, [&] { return real(s, bytes, count); });
    });
    session_calls.read.replace([this](auto real, SSL* s, void* bytes, int count) {
      return answer(&reads_, s, bytes, count, [&] { return real(s, bytes, count); });
    });
    session_calls.write.replace([this](auto real, SSL* s, const void* bytes, int count) {
      return answer(&writes_, s, nullptr, count, [&] { return real(s, bytes, count); });
    });
    session_calls.get_error.replace([this](auto real, const SSL* s, int result) {
      if (s != ssl_ || !scripted_) return real(s, result);
      return code_;
    });
  }
  ~ScriptedSession() {
    session_calls.pending.restore();
    session_calls.peek.restore();
    session_calls.read.restore();
    session_calls.write.restore();
    session_calls.get_error.restore();
  }
  ScriptedSession(const ScriptedSession&) = delete;
  ScriptedSession& operator=(const ScriptedSession&) = delete;

  void peek(Outcome outcome) { peeks_.push_back(std::move(outcome)); }
  void read(Outcome outcome) { reads_.push_back(std::move(outcome)); }
  void write(Outcome outcome) { writes_.push_back(std::move(outcome)); }
  /// SSL_pending answers this from now on.
  void pending(int count) {
    session_calls.pending.replace(
        [this, count](auto real, const SSL* s) { return s == ssl_ ? count : real(s); });
  }
  /// The lengths that the session's calls were given.
  std::vector<int> asked;

 private:
  template <class Real>
  int answer(std::deque<Outcome>* outcomes, SSL* s, void* bytes, int count, Real real) {
    if (s != ssl_) return real();
    asked.push_back(count);
    scripted_ = !outcomes->empty();
    if (!scripted_) return real();
    const Outcome outcome = outcomes->front();
    outcomes->pop_front();
    code_ = outcome.code;
    if (bytes != nullptr && !outcome.bytes.empty())
      std::memcpy(bytes, outcome.bytes.data(), outcome.bytes.size());
    if (outcome.reason != 0) ERR_raise(ERR_LIB_SSL, outcome.reason);
    errno = outcome.error;
    return outcome.result;
  }

  SSL* const ssl_;
  std::deque<Outcome> peeks_, reads_, writes_;
  bool scripted_ = false;
  int code_ = 0;
};

}  // namespace oskernel_test

extern "C" {

__attribute__((visibility("default"))) int SSL_pending(const SSL* ssl) {
  return oskernel_test::session_calls.pending.call(ssl);
}
__attribute__((visibility("default"))) int SSL_peek(SSL* ssl, void* bytes, int count) {
  return oskernel_test::session_calls.peek.call(ssl, bytes, count);
}
__attribute__((visibility("default"))) int SSL_read(SSL* ssl, void* bytes, int count) {
  return oskernel_test::session_calls.read.call(ssl, bytes, count);
}
__attribute__((visibility("default"))) int SSL_write(SSL* ssl, const void* bytes, int count) {
  return oskernel_test::session_calls.write.call(ssl, bytes, count);
}
__attribute__((visibility("default"))) int SSL_get_error(const SSL* ssl, int result) {
  return oskernel_test::session_calls.get_error.call(ssl, result);
}

}  // extern "C"

#endif
