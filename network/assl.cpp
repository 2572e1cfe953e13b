/// The TLS session: handshake and peer checks, reading, writing with its queue, the end.
#include "network/assl.h"

#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "network/asocketX_priv.h"
#include "network/assl_priv.h"
#include "network/openssl_priv.h"

namespace {

constexpr int kRead_bytes = 1600;
/// With so many and more behind the one that stalled, the next is refused.
constexpr int kMostWaiting_buffers = 10;
constexpr ULONG kRetry_ms = 10;

constexpr ULONG kVerifyClients = 1;
constexpr ULONG kRefuseSelfSigned = 2;

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

/// Before a call whose result is classified: what earlier ones have left is not its own. Clearing an empty queue, as it
/// mostly is, costs more than the look.
void forget_errors() {
  if (ERR_peek_error() != 0) ERR_clear_error();
  errno = 0;
}

// ---- Who is alive ------------------------------------------------------------------------------------------

/// The sessions that a retry may still find. A leaf lock; it is held over nothing but looks at `known`.
std::mutex known_mutex;
std::condition_variable& left = *new std::condition_variable;                           // never destroyed
std::unordered_map<SSLInfo*, ULONG>& known = *new std::unordered_map<SSLInfo*, ULONG>;  // with its generation
ULONG last_generation = 0;

ULONG add_session(SSLInfo* session) {
  const std::lock_guard<std::mutex> lock(known_mutex);
  if (++last_generation == 0) ++last_generation;
  known[session] = last_generation;
  return last_generation;
}

}  // namespace

// ---- Lines -------------------------------------------------------------------------------------------------

void SSLInfo::Lines::add(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string line(static_cast<std::size_t>(std::max(length, 0)), '\0');
  vsnprintf(line.data(), line.size() + 1, format, again);
  va_end(again);
  lines_.push_back(std::move(line));
}

void SSLInfo::Lines::add_openssl_errors(const char* what) {
  while (const unsigned long code = ERR_get_error()) {
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    add("SSL/TLS (0x%08lx): %s: %s", code, what, text);
  }
}

void SSLInfo::Lines::print() const {
  for (const std::string& line : lines_) diagnostics().Print("%s", line.c_str());
}

void SSLInfo::Outcome::describe(Lines* lines) const {
  const auto* const session = static_cast<const void*>(ssl);
  const char* name = "UNKNOWN";
  switch (code) {
    case SSL_ERROR_NONE:
      name = "NONE";
      break;
    case SSL_ERROR_SSL:
      lines->add_openssl_errors(what);
      return;
    case SSL_ERROR_WANT_READ:
      return;
    case SSL_ERROR_WANT_WRITE:
      name = "WANT_WRITE";
      break;
    case SSL_ERROR_WANT_X509_LOOKUP:
      name = "WANT_X509_LOOKUP";
      break;
    case SSL_ERROR_SYSCALL: {
      constexpr unsigned long kBioError = ~0UL;
      const unsigned long queued = ERR_get_error();
      if (queued == 0) {
        lines->add("SSL %p %s ERROR_SYSCALL EOF", session, what);
      } else if (queued != kBioError) {
        lines->add("SSL %p %s ERROR_SYSCALL ERR %d", session, what, static_cast<int>(queued));
      } else {
        lines->add("SSL %p %s ERROR_SYSCALL ERR -1 BIO errno %d", session, what, error);
      }
      return;
    }
    case SSL_ERROR_ZERO_RETURN:
      name = "ZERO_RETURN";
      break;
    case SSL_ERROR_WANT_CONNECT:
      name = "WANT_CONNECT";
      break;
    case SSL_ERROR_WANT_ACCEPT:
      name = "WANT_ACCEPT";
      break;
    default:
      break;
  }
  lines->add("SSL %p %s error %d %s", session, what, code, name);
}

SSLInfo::Outcome SSLInfo::outcome_locked(const char* what, int ret) const {
  const int error = errno;
  return {what, ssl, ssl != nullptr ? SSL_get_error(ssl, ret) : SSL_ERROR_SSL, error};
}

int SSLInfo::Error(const char* what, int ret) {
  Outcome outcome{};
  {
    const std::lock_guard<std::mutex> lock(session_mutex_);
    outcome = outcome_locked(what, ret);
  }
  Lines lines;
  outcome.describe(&lines);
  lines.print();
  return outcome.code;
}

// ---- Life --------------------------------------------------------------------------------------------------

SSLInfo::SSLInfo(int fd, bool is_server)
    : s(fd),
      server(is_server),
      method(nullptr),
      ssl_ctx(nullptr),
      ssl(nullptr),
      rbio(nullptr),
      wbio(nullptr),
      x509_peer_name_string{},
      options(0),
      peer_name(nullptr),
      sendqtrigger(0, 1),
      generation_(add_session(this)),
      users_(1) {
  // A task that starts a session does not become its retry's.
  sendqtrigger.SetTask(nullptr);
  sendqtrigger.SetCallback(_SendQTrigger, reinterpret_cast<OSObj*>(this), nullptr, generation_);
}

SSLInfo::~SSLInfo() {
  {
    // From here on no retry begins; one that is running has yet to leave.
    std::unique_lock<std::mutex> lock(known_mutex);
    known.erase(this);
    left.wait(lock, [this] { return users_.load() <= 1; });
  }
  if (seen(ssl_debug) != 0) diagnostics().Print("~SSLInfo %p", static_cast<void*>(this));
  sendqtrigger.Cancel();
  Stop();
  SSL_CTX_free(ssl_ctx);
  SSL_free(ssl);
  std::free(peer_name);
  while (OSBuf* const buf = buffer_of(sendq.FirstObject())) {
    sendq.Remove(buf);
    buf->Free();
  }
}

void SSLInfo::share() { users_.fetch_add(1); }

void SSLInfo::release(SSLInfo* session) {
  if (session->users_.fetch_sub(1) == 1) delete session;
}

/// Gives a session up whose descriptor the next one uses. Whoever is still inside it takes none of the next one's bytes,
/// and its goodbye does not come in between.
void SSLInfo::retire(SSLInfo* session) {
  if (session->users_.load() > 1) {
    session->Stop();
    session->detach();
  }
  release(session);
}

/// The descriptor is about to be closed: what the session still writes goes nowhere, least of all to the next owner of
/// the number.
void SSLInfo::detach() {
  const std::lock_guard<std::mutex> lock(session_mutex_);
  s = -1;
  if (wbio != nullptr) BIO_set_fd(wbio, -1, BIO_NOCLOSE);
}

bool SSLInfo::has_session() {
  const std::lock_guard<std::mutex> lock(session_mutex_);
  return ssl != nullptr;
}

/// Whether something can be read that has left the descriptor already.
bool SSLInfo::has_pending() {
  const std::lock_guard<std::mutex> lock(session_mutex_);
  return ssl != nullptr && SSL_pending(ssl) > 0;
}

/// Whether the last call came back because the descriptor takes no more.
bool SSLInfo::wants_write() {
  const std::lock_guard<std::mutex> lock(session_mutex_);
  return ssl != nullptr && SSL_want_write(ssl);
}

// ---- Handshake ---------------------------------------------------------------------------------------------

bool SSLInfo::peer_is_accepted_locked(Lines* lines) {
  // A server that asks for no certificate examines none.
  if (server && (options & kVerifyClients) == 0) return true;
  const long verified = SSL_get_verify_result(ssl);
  X509* const certificate = peer_certificate(ssl);
  if (certificate == nullptr) {
    lines->add_openssl_errors("SSL_get_peer_certificate");
    return false;
  }
  X509_NAME* const subject = X509_get_subject_name(certificate);
  // The whole line, whatever its length: x509_peer_name_string may be cut, and a peer whose name only begins like the
  // expected one is another peer.
  std::string line = "?";
  std::snprintf(x509_peer_name_string, sizeof x509_peer_name_string, "?");
  if (X509_NAME_entry_count(subject) > 0) {
    char* const whole = X509_NAME_oneline(subject, nullptr, 0);
    line = whole != nullptr ? whole : "";
    OPENSSL_free(whole);
    x509_peer_name_string[0] = '\0';
    X509_NAME_oneline(subject, x509_peer_name_string, sizeof x509_peer_name_string);
    constexpr std::size_t kFull = sizeof x509_peer_name_string - 1;
    constexpr char kCut[] = "...";
    if (std::strlen(x509_peer_name_string) == kFull) {
      std::memcpy(x509_peer_name_string + kFull - std::strlen(kCut), kCut, sizeof kCut);
    }
  }
  X509_free(certificate);
  if (line.empty()) {
    lines->add("TLSHandshake: null peer name");
    return false;
  }
  line.resize(std::min(line.find('\n'), line.size()));
  x509_peer_name_string[std::strcspn(x509_peer_name_string, "\n")] = '\0';
  switch (verified) {
    case X509_V_OK:
      if (seen(ssl_debug) != 0) {
        lines->add("TLSHandshake: peer certificate verified");
        lines->add("TLSHandshake: peer: %s", x509_peer_name_string);
      }
      break;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      if ((options & kRefuseSelfSigned) != 0) {
        lines->add("TLSHandshake: peer certificate is self-signed");
        return false;
      }
      // Deliberate: accepted unless the program says otherwise. Appliances in the field know each other by certificates
      // that they have made themselves. Pinned by tls_session_peer_test.cpp,
      // ASelfSignedServerIsAcceptedUnlessOptionTwoIsSet.
      if (seen(ssl_debug) != 0) {
        lines->add("TLSHandshake: peer self-signed certificate verified");
        lines->add("TLSHandshake: peer: %s", x509_peer_name_string);
      }
      break;
    default:
      lines->add("TLSHandshake: peer verification error: %s", X509_verify_cert_error_string(verified));
      return false;
  }
  if (peer_name != nullptr && line != peer_name) {
    lines->add("TLSHandshake: peer name mismatch\n\texpected: %s\n\tgot:      %s", peer_name, line.c_str());
    return false;
  }
  return true;
}

int SSLInfo::Handshake() {
  const char* const role = server ? "accept" : "connect";
  Lines lines;
  const auto step = [&] {
    const std::lock_guard<std::mutex> lock(session_mutex_);
    if (ssl == nullptr) {
      lines.add("SSLInfo::Handshake - ssl=0");
      return 1;
    }
    forget_errors();
    const int r = server ? SSL_accept(ssl) : SSL_connect(ssl);
    if (r < 1) {
      const Outcome outcome = outcome_locked(server ? "SSL_accept" : "SSL_connect", r);
      outcome.describe(&lines);
      if (outcome.in_progress()) return -1;
    } else if (peer_is_accepted_locked(&lines)) {
      lines.add("TLS %s: version %s", role, SSL_get_version(ssl));
      return 0;
    }
    if (seen(ssl_debug) != 0) lines.add("TLS %s handshake failed", role);
    SSL_free(ssl);
    ssl = nullptr;
    rbio = wbio = nullptr;
    return 1;
  };
  const int result = step();
  lines.print();
  return result;
}

// ---- Reading -----------------------------------------------------------------------------------------------

int SSLInfo::Recv(OSBuf** out) {
  const Read got = read_some();
  *out = got.buf;
  return got.code;
}

SSLInfo::Read SSLInfo::read_some() {
  Read got;
  OSBuf* const buf = OSBuf::Alloc(kRead_bytes);
  if (buf == nullptr) {
    got.no_buffer = true;
    got.pending = has_pending();
    return got;
  }
  buf->PushDown(kRead_bytes);
  Lines lines;
  int n = 0;
  Outcome outcome{};
  {
    const std::lock_guard<std::mutex> lock(session_mutex_);
    if (ssl == nullptr) {
      outcome.code = SSL_ERROR_SSL;
    } else {
      const auto read = [&] {
        forget_errors();
        n = SSL_read(ssl, buf->data, kRead_bytes);
        if (n > 0) return;
        outcome = outcome_locked("SSL_read", n);
        outcome.describe(&lines);
      };
      read();
      if (n <= 0 && outcome.code == SSL_ERROR_WANT_WRITE) {
        lines.add("SSL_read: WANT_WRITE");
        // Behind a stalled write an empty one would break the session. Once is enough: with a peer that does not read,
        // the descriptor takes nothing now, and the caller comes again.
        if (sendq.IsEmpty()) {
          forget_errors();
          static_cast<void>(SSL_write(ssl, buf->data, 0));
          read();
        }
      }
      got.pending = SSL_pending(ssl) > 0;
      got.wants_write = n <= 0 && outcome.code == SSL_ERROR_WANT_WRITE;
    }
  }
  lines.print();
  if (n > 0) {
    buf->length = static_cast<UWORD>(n);
    got.buf = buf;
    return got;
  }
  buf->Free();
  if (outcome.in_progress()) return got;
  if (outcome.code == SSL_ERROR_SYSCALL) {
    if (outcome.error == EAGAIN) return got;
    diagnostics().Print("SSLInfo::Recv SSL_read: SSL_ERROR_SYSCALL errno %d", outcome.error);
  }
  got.code = outcome.code;
  return got;
}

// ---- Writing -----------------------------------------------------------------------------------------------

OSIORetCode SSLInfo::DataIndication(OSBuf* buf) {
  Lines lines;
  bool queued = false;
  bool stalled = false;
  bool wants_read = false;
  const auto write = [&] {
    const std::lock_guard<std::mutex> lock(session_mutex_);
    if (ssl == nullptr || SSL_is_init_finished(ssl) == 0) return NoConnection;
    if (sendq.Size() > kMostWaiting_buffers) return NoConnection;
    if (!sendq.IsEmpty()) {
      queued = sendq.AppendLink(buf) != nullptr;
      return queued ? Success : NoConnection;
    }
    while (buf->length != 0) {
      forget_errors();
      const int n = SSL_write(ssl, buf->data, buf->length);
      if (n > 0) {
        buf->PullUp(static_cast<UWORD>(n));
        continue;
      }
      const Outcome outcome = outcome_locked("SSL_write", n);
      outcome.describe(&lines);
      if (!outcome.in_progress()) return NoConnection;
      wants_read = outcome.code == SSL_ERROR_WANT_READ;
      lines.add(wants_read ? "SSL_write: WANT_READ" : "SSL_write: WANT_WRITE");
      // OpenSSL wants the same bytes again, at the same place: from here on nobody touches the buffer but the retry.
      queued = stalled = sendq.AppendLink(buf) != nullptr;
      return queued ? Success : NoConnection;
    }
    return Success;
  };
  const OSIORetCode result = write();
  if (stalled) sendqtrigger.SetTimer(kRetry_ms);
  lines.print();
  if (wants_read) AsyncSocket::WakeMonitorThread();
  if (!queued) buf->Free();
  return result;
}

SSLInfo::Retry SSLInfo::retry_once() {
  Retry retry;
  const std::lock_guard<std::mutex> lock(session_mutex_);
  OSBuf* const buf = buffer_of(sendq.FirstObject());
  if (buf == nullptr) return retry;
  if (ssl != nullptr) {
    forget_errors();
    const int n = SSL_write(ssl, buf->data, buf->length);
    if (n <= 0) {
      const Outcome outcome = outcome_locked("SSL_write", n);
      outcome.describe(&retry.lines);
      retry.wants_read = outcome.code == SSL_ERROR_WANT_READ;
      if (outcome.in_progress()) {
        retry.lines.add(retry.wants_read ? "SSL_write: WANT_READ" : "SSL_write: WANT_WRITE");
      }
    } else {
      retry.moved = true;
      buf->PullUp(static_cast<UWORD>(n));
      if (buf->length == 0) {
        sendq.Remove(buf);
        retry.written = buf;
      }
    }
  }
  retry.waiting = !sendq.IsEmpty();
  return retry;
}

/// Does what a retry has left to do, for which the session need not be there any more.
void SSLInfo::finish(const Retry& retry) {
  retry.lines.print();
  if (retry.wants_read) AsyncSocket::WakeMonitorThread();
  if (retry.written != nullptr) retry.written->Free();
}

void SSLInfo::SendQTrigger() {
  const Retry retry = retry_once();
  if (retry.waiting) sendqtrigger.SetTimer(kRetry_ms);
  finish(retry);
}

void SSLInfo::_SendQTrigger(OSObj* obj, ADDR /*unused*/, ULONG generation) {
  auto* const session = reinterpret_cast<SSLInfo*>(obj);
  {
    const std::lock_guard<std::mutex> lock(known_mutex);
    const auto found = known.find(session);
    if (found == known.end() || (generation != 0 && found->second != generation)) return;
    // Not when its last user has let it go and is about to take it out of here.
    int users = session->users_.load();
    do {
      if (users == 0) return;
    } while (!session->users_.compare_exchange_weak(users, users + 1));
  }
  const Retry retry = session->retry_once();
  if (retry.waiting) session->sendqtrigger.SetTimer(kRetry_ms);
  // Before the buffer is freed, whose callbacks are the program's: nobody waits for those.
  release(session);
  {
    const std::lock_guard<std::mutex> lock(known_mutex);
    left.notify_all();
  }
  finish(retry);
}

/// Writes what is queued, as far as it goes now.
///   returns   whether the queue is empty
bool SSLInfo::flush() {
  for (;;) {
    const Retry retry = retry_once();
    finish(retry);
    if (!retry.waiting) return true;
    if (!retry.moved) return false;
  }
}

// ---- The end -----------------------------------------------------------------------------------------------

int SSLInfo::Stop() {
  {
    const std::lock_guard<std::mutex> lock(session_mutex_);
    if (ssl == nullptr || SSL_is_init_finished(ssl) == 0) return 0;
  }
  if (seen(ssl_debug) != 0) diagnostics().Print("SSLInfo::Stop calling SSL_shutdown");
  const std::lock_guard<std::mutex> lock(session_mutex_);
  if (ssl == nullptr) return 0;
  forget_errors();
  if (SSL_shutdown(ssl) == 0) static_cast<void>(SSL_shutdown(ssl));
  forget_errors();
  return 0;
}
