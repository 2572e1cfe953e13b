// The blocking secure socket: reading and writing through its session.
#include <openssl/err.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "kernel/posixkernel_time.h"
#include "network/asocketX_priv.h"
#include "network/socketX_priv.h"
#include "network/socketX_secure.h"
#include "network/socketX_secure_priv.h"

namespace {

/// What the buffer form reads at most.
constexpr int kRead_bytes = 1600;
/// The byte form gives up when a piece has not come after so long.
constexpr int kSilence_ms = 10000;
/// A peer that sends something without ever sending data keeps a read for no more than so many rounds behind its
/// time-out. Some are needed: what waits in front of the data, session tickets first of all, must not make a read that
/// does not wait miss it.
constexpr int kLateRounds = 16;

// What the outcomes of the byte form are called.
constexpr int kDone = 0;
constexpr int kSilent = 3;
constexpr int kFailed = -1;

constexpr std::size_t kErrorText_bytes = 256;

class ErrorText {
 public:
  explicit ErrorText(unsigned long code) : text_{} { ERR_error_string_n(code, text_, sizeof text_); }
  const char* c_str() const { return text_; }

 private:
  char text_[kErrorText_bytes];
};

/// The line of a read that has failed in a way that no outcome of its own belongs to, and the first queued error.
void print_read_failure(int code) {
  const char* kind = "";
  switch (code) {
    case SSL_ERROR_SSL:
      kind = " SSL";
      break;
    case SSL_ERROR_WANT_X509_LOOKUP:
      kind = " WANT_X509_LOOKUP";
      break;
    case SSL_ERROR_WANT_CONNECT:
      kind = " WANT_CONNECT";
      break;
    case SSL_ERROR_WANT_ACCEPT:
      kind = " WANT_ACCEPT";
      break;
    default:
      break;
  }
  diagnostics().Print("SecureSocket::RecWait: SSL_read error%s", kind);
  if (const unsigned long queued = ERR_get_error(); queued != 0)
    diagnostics().Print("SecureSocket::RecWait: SSL_read error - %s", ErrorText(queued).c_str());
}

}  // namespace

void print_openssl_errors(const char* what) {
  while (const unsigned long queued = ERR_get_error()) {
    diagnostics().Print("%s error %x (%s)", what, static_cast<unsigned>(queued), ErrorText(queued).c_str());
  }
}

/// What has become of a call on the session; its errors are still in the thread's queue.
struct SecureSocket::Result {
  int ret;    ///< what it returned
  int code;   ///< SSL_get_error(3)
  int error;  ///< errno behind it
};

/// What waits to be read.
struct SecureSocket::Look {
  enum What { kData, kNothing, kBadWait, kBroken } what;
  int value;  ///< kData: how many bytes, as far as they were looked for. kBadWait: 1 or 2, as the byte form says
  Result result;  ///< kBroken: the call that failed
};

/// The ways in which the connection under a read can break.
enum class SecureSocket::Break : UBYTE {
  kQueued,  ///< OpenSSL has said why
  kEnd,     ///< the peer has gone without closing the session
  kAgain,   ///< nothing was there after all
  kOther    ///< the system has said why
};

// ---- Reading -----------------------------------------------------------------------------------------------

SecureSocket::Result SecureSocket::result_of(int ret) {
  const int error = errno;
  return {ret, ret > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl, ret), error};
}

/// Waits until the session has data. `bytes`, of `room` bytes, is overwritten.
SecureSocket::Look SecureSocket::look(UBYTE* bytes, int room, int timeout_ms) {
  const int pending = SSL_pending(ssl);
  if (pending > 0) return {Look::kData, std::min(pending, room), {}};
  const ULONG start = os_clock();
  int left = timeout_ms;
  for (int late = 0; late <= kLateRounds;) {
    bool readable = false;
    bool exceptional = false;
    if (wait_for_input(left, &readable, &exceptional) == 0) break;
    const int verdict = check_input("SecureSocket", readable, exceptional);
    if (verdict != kDone) return {Look::kBadWait, verdict, {}};

    ERR_clear_error();
    errno = 0;
    const Result result = result_of(SSL_peek(ssl, bytes, room));
    if (result.ret > 0) return {Look::kData, result.ret, {}};
    if (result.code != SSL_ERROR_WANT_READ && result.code != SSL_ERROR_WANT_WRITE)
      return {Look::kBroken, 0, result};
    left = time_left(start, timeout_ms);
    if (left == 0) ++late;
    // The peer takes nothing while the session has to answer it first.
    if (result.code == SSL_ERROR_WANT_WRITE) wait_ready(s, POLLOUT, left);
    left = time_left(start, timeout_ms);
  }
  return {Look::kNothing, 0, {}};
}

SecureSocket::Result SecureSocket::read(UBYTE* bytes, int count) {
  ERR_clear_error();
  errno = 0;
  return result_of(SSL_read(ssl, bytes, count));
}

void SecureSocket::note_blocked_read(int code) {
  const bool for_reading = code == SSL_ERROR_WANT_READ;
  diagnostics().Print("SecureSocket::RecWait: SSL_read %s", for_reading ? "WANT_READ" : "WANT_WRITE");
  (for_reading ? read_blocked : read_blocked_on_write) = true;
}

OSBuf* SecureSocket::RecWait(int timeout_ms) {
  OSBuf* const buf = ssl != nullptr ? alloc_for_reading(kRead_bytes) : nullptr;
  if (buf == nullptr) return nullptr;
  const Look found = look(buf->data, kRead_bytes, timeout_ms);
  const bool closed = found.what == Look::kBroken && found.result.code == SSL_ERROR_ZERO_RETURN;
  if (closed) state = INVALID;
  if (closed || found.what == Look::kNothing || found.what == Look::kBadWait) {
    buf->Free();
    return nullptr;
  }
  return deliver(buf, found.what == Look::kData ? read(buf->data, found.value) : found.result);
}

/// What the buffer form answers.
OSBuf* SecureSocket::deliver(OSBuf* buf, const Result& result) {
  bool nothing = false;
  switch (result.code) {
    case SSL_ERROR_NONE:
      buf->length = static_cast<UWORD>(result.ret);
      break;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      note_blocked_read(result.code);
      nothing = true;
      break;
    case SSL_ERROR_ZERO_RETURN:
      diagnostics().Print("SecureSocket::RecWait: SSL_read EOF");
      break;
    case SSL_ERROR_SYSCALL:
      switch (report_broken_read(result)) {
        case Break::kEnd:
        case Break::kAgain:
          nothing = true;
          break;
        case Break::kQueued:
        case Break::kOther:
          break;
      }
      break;
    default:
      print_read_failure(result.code);
      break;
  }
  if (!nothing) return buf;
  buf->Free();
  return nullptr;
}

SecureSocket::Break SecureSocket::report_broken_read(const Result& result) {
  if (ERR_get_error() != 0) {
    // Deliberate: the text is that of the number 5, not of the queued error; whoever reads the logs looks for it.
    // Pinned by secure_socket_outcome_test.cpp, EveryReadOfTheBufferFormHasItsResult.
    diagnostics().Print("SecureSocket::RecWait: SSL_read error - ret %d, err '%s'", result.ret,
                        ErrorText(SSL_ERROR_SYSCALL).c_str());
    return Break::kQueued;
  }
  if (result.ret == 0) {
    diagnostics().Print("SecureSocket::RecWait: SSL_read error SYSCALL - EOF");
    state = INVALID;
    return Break::kEnd;
  }
  if (result.ret != -1) return Break::kOther;
  diagnostics().Print("SecureSocket::RecWait: SSL_read error SYSCALL - ret %d, errno %d", result.ret,
                      result.error);
  if (result.error != EAGAIN) return Break::kOther;
  read_blocked = true;
  return Break::kAgain;
}

int SecureSocket::RecWait(UBYTE* buf, int len) {
  if (len > 0 && ssl == nullptr) return kFailed;
  for (int missing = len; missing > 0;) {
    const Look found = look(buf, missing, kSilence_ms);
    if (found.what == Look::kNothing) return kSilent;
    if (found.what == Look::kBadWait) return found.value;
    const bool broken = found.what == Look::kBroken;
    if (broken && (found.result.code == SSL_ERROR_ZERO_RETURN || found.result.code == SSL_ERROR_SYSCALL))
      return report_broken_look(found.result);
    const int read_bytes = advance(broken ? found.result : read(buf, found.value));
    if (read_bytes < 0) return kFailed;
    buf += read_bytes;
    missing -= read_bytes;
  }
  return kDone;
}

int SecureSocket::report_broken_look(const Result& result) {
  const auto queued = static_cast<unsigned>(ERR_get_error());
  state = INVALID;
  if (result.code == SSL_ERROR_SYSCALL && (queued != 0 || result.error != 0)) {
    diagnostics().Print("SecureSocket::RecWait - SSL_ERROR_SYSCALL  ret %d, err %u, errno %d", result.ret,
                        queued, result.error);
  }
  return kFailed;
}

/// How many bytes the byte form has got; -1 when it ends.
int SecureSocket::advance(const Result& result) {
  switch (result.code) {
    case SSL_ERROR_NONE:
      return result.ret;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      note_blocked_read(result.code);
      return 0;
    case SSL_ERROR_ZERO_RETURN:
      break;
    case SSL_ERROR_SYSCALL: {
      const Break how = report_broken_read(result);
      if (how == Break::kAgain || how == Break::kOther) return 0;
      break;
    }
    default:
      print_read_failure(result.code);
      break;
  }
  state = INVALID;
  return -1;
}

// ---- Writing -----------------------------------------------------------------------------------------------

OSIORetCode SecureSocket::DataIndication(OSBuf* buf) {
  int code = SSL_ERROR_SSL;
  ERR_clear_error();
  if (ssl != nullptr) code = result_of(SSL_write(ssl, buf->data, buf->length)).code;
  buf->Free();
  switch (code) {
    case SSL_ERROR_NONE:
      break;
    case SSL_ERROR_WANT_READ:
      diagnostics().Print("SSL_write WANT_READ");
      write_blocked_on_read = true;
      break;
    case SSL_ERROR_WANT_WRITE:
      diagnostics().Print("SSL_write WANT_WRITE");
      break;
    default:
      diagnostics().Print("SSL_write error");
      print_openssl_errors("SSL_write");
      break;
  }
  return Success;
}

OSIORetCode SecureSocket::SendTo(OSBuf* /*buf*/, ULONG /*addr*/, UWORD /*port*/) { return Blocked; }

int SecureSocket::Queue(OSBuf* buf) { return Socket::Queue(buf); }

int SecureSocket::FlushQueue(bool verbose) { return Socket::FlushQueue(verbose); }
