/// TLS on a socket: starting and stopping it, the handshake, and the data on its way through the session.
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "kernel/kernel.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/assl.h"
#include "network/assl_priv.h"

namespace {

/// The client role waits so long for its connection.
constexpr int kConnectLooks = 500;
constexpr int kConnectLook_ms = 10;
/// How often the socket's own thread looks whether the socket has been closed, while a handshake waits.
constexpr int kHandshakeWait_ms = 1000;
/// What is taken out of one session before others have their turn.
constexpr int kMostReads = 64;

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

char* copy_of(const char* name) { return name != nullptr ? strdup(name) : nullptr; }

}  // namespace

// ---- The session's life ------------------------------------------------------------------------------------

SessionUse::SessionUse(AsyncSocket* socket) : session_(nullptr), state_(SecClear) {
  // Whoever replaces the session or takes it away does that inside this lock.
  const std::lock_guard<std::mutex> lock(socket->send_mutex_);
  session_ = socket->ssl_info;
  state_ = static_cast<SecureState>(seen(socket->secure_state));
  if (session_ != nullptr) session_->share();
}

SessionUse::SessionUse(SSLInfo* session) : session_(session), state_(SecHandshake) { session_->share(); }

SessionUse::~SessionUse() {
  if (session_ != nullptr) SSLInfo::release(session_);
}

/// Takes the session from the socket, whose it was.
///   returns   what is to be released, null without one
SSLInfo* AsyncSocket::take_session() {
  const std::lock_guard<std::mutex> lock(send_mutex_);
  SSLInfo* const session = ssl_info;
  publish(ssl_info, static_cast<SSLInfo*>(nullptr));
  return session;
}

// ---- States ------------------------------------------------------------------------------------------------

/// Whether what is sent goes through a session, once there is one.
bool AsyncSocket::is_to_be_secure() {
  return seen(type) == SOCK_STREAM && (seen(secure) || seen(ssl_info) != nullptr);
}

/// Whether a connection that is to be secure has no session to become so: TLS could not even be started. It must not
/// be taken for a clear one.
bool AsyncSocket::was_never_secured() {
  if (!seen(secure) || seen(type) != SOCK_STREAM || seen(listener) || seen(state) != SSConnected)
    return false;
  if (seen(secure_state) == SecSecure) return false;
  const SessionUse session(this);
  return session.get() == nullptr || (session.state() == SecHandshake && !session->has_session());
}

/// Whether what was queued may leave as it is.
bool AsyncSocket::sends_in_the_clear() { return !seen(secure) && seen(secure_state) == SecClear; }

/// Ends the handshake well, unless it is another session's by now, or somebody has done it already.
bool AsyncSocket::become_secure(const SSLInfo* session) {
  // Against a sender that has just found the session not established and is about to queue.
  const SectionLock states(&local_cs);
  const std::lock_guard<std::mutex> lock(send_mutex_);
  if (ssl_info != session || seen(secure_state) != SecHandshake) return false;
  publish(secure_state, int{SecSecure});
  return true;
}

/// The session is over: nothing more is received, and the partner hears why.
void AsyncSocket::end_secured(int code) {
  publish(state, int{SSDisconnected});
  publish(running, false);
  indicate_failure(code);  // a direct socket's partner may free it
}

// ---- Starting and stopping ---------------------------------------------------------------------------------

int AsyncSocket::SetCertificates(const char* cert_name, const char* key_name, const char* ca_name) {
  std::free(cert);
  std::free(key);
  std::free(ca);
  cert = copy_of(cert_name);
  key = copy_of(key_name);
  ca = copy_of(ca_name);
  return 0;
}

int AsyncSocket::StartSSL(bool server, ULONG options, char* peer_name) {
  if (seen(type) != SOCK_STREAM) {
    diagnostics().Print("StartSSL: not a stream socket");
    return -1;
  }
  if (!seen(SSLInfo::initialised)) {
    diagnostics().Print("SSL/TLS not initialised");
    return -1;
  }
  if (seen(trace) > 1) {
    diagnostics().Print("starting TLS, AsyncSocket state = %d opts = %lu", seen(state),
                        static_cast<unsigned long>(options));
  }
  if (!server) {
    for (int looks = 0; looks < kConnectLooks && !Connected(); ++looks) Sleep(kConnectLook_ms);
  }
  if (!Connected()) {
    diagnostics().Print("StartSSL: underlying transport not connected");
    return -1;
  }
  const ULONG connection = seen(connection_);
  const int fd = seen(s);
  auto* const made = new (std::nothrow) SSLInfo(fd, server);
  if (made == nullptr) return -1;
  const SessionUse session(made);
  // Reads files: before the monitor thread is kept out, not while it is.
  const int unready = made->Setup(options, peer_name, cert, key, ca);
  SSLInfo* before = made;
  {
    // Nobody finds the socket in its handshake and without the session.
    const ClassLock lock;
    const SectionLock states(&local_cs);
    const std::lock_guard<std::mutex> sends(send_mutex_);
    if (fd != -1 && seen(s) == fd && seen(connection_) == connection) {
      before = ssl_info;
      publish(secure_state, int{SecHandshake});
      publish(ssl_info, made);
    }
  }
  if (before != nullptr) SSLInfo::retire(before);
  if (before == made) {
    diagnostics().Print("StartSSL: underlying transport not connected");  // any more
    return -1;
  }
  if (indirect_socket) SocketMonitor::look_at(this);
  // Deliberate: after a set-up that failed the socket stays in its handshake, with a session that cannot make one. So
  // nothing that it is given goes out in the clear; the thread that receives finds the handshake failed and indicates
  // it. Pinned by tls_socket_start_test.cpp, ASetUpThatFailsLeavesTheSessionAndTheState.
  if (unready != 0) return -1;
  diagnostics().Print("%d AsyncSocket::StartSSL - Handshake", fd);
  int result = session->Handshake();
  // The thread that receives may have taken the last step in between: then it indicates the outcome, and not the caller.
  if (result == 0 && !become_secure(made)) result = -1;
  if (indirect_socket) SocketMonitor::look_at(this);
  return result;
}

int AsyncSocket::StopSSL() {
  diagnostics().Print("AsyncSocket::StopSSL");
  {
    const SessionUse session(this);
    if (session.get() != nullptr) session->Stop();
  }
  {
    const SectionLock states(&local_cs);
    const std::lock_guard<std::mutex> lock(send_mutex_);
    publish(secure_state, int{SecClear});
  }
  if (indirect_socket) SocketMonitor::look_at(this);
  return 0;
}

// ---- Handshake ---------------------------------------------------------------------------------------------

/// One step of the handshake, on the thread that receives. The socket may be gone when it returns, if it is a direct
/// one.
void AsyncSocket::lead_handshake() {
  constexpr int kNoSession = 1;
  int result = kNoSession;
  bool first = false;
  {
    const SessionUse session(this);
    if (session.get() != nullptr && session.state() == SecHandshake) {
      if (!indirect_socket && session->has_session() && !wait_for_peer(session->wants_write())) return;
      // Stopped, or started anew, while this waited: what has come is not for this session.
      if (seen(secure_state) != SecHandshake || seen(ssl_info) != session.get()) return;
      SocketMonitor::signal_what_is_owed();
      result = session->Handshake();
      if (result > 0 && seen(ssl_info) != session.get()) return;  // given up meanwhile; the next one goes on
      first = result == 0 && become_secure(session.get());
    }
  }
  if (result > 0) {
    end_secured(result);
    return;
  }
  if (indirect_socket) SocketMonitor::look_at(this);  // what to wait for may be another thing now
  if (first) indicate(0, 0, 0);
}

/// Waits until the handshake can go on, up to a second.
bool AsyncSocket::wait_for_peer(bool to_write) {
  pollfd waited{seen(s), static_cast<short>(to_write ? POLLIN | POLLOUT : POLLIN), 0};
  return poll(&waited, 1, kHandshakeWait_ms) > 0 && seen(running);
}

/// Leads the client's handshake on the socket's own thread until it has an outcome.
void AsyncSocket::finish_handshake_blocking() {
  const SessionUse session(this);
  if (session.get() == nullptr) return;
  while (seen(running) && seen(secure_state) == SecHandshake && session->has_session()) {
    if (wait_for_peer(session->wants_write()) && session->Handshake() == 0) become_secure(session.get());
  }
}

// ---- Receiving ---------------------------------------------------------------------------------------------

/// Takes what the session has for us. The socket may be gone when it returns, if it is a direct one.
void AsyncSocket::receive_secured() {
  const SessionUse session(this);
  if (session.get() == nullptr) return;
  if (!indirect_socket && !session->has_pending() && (!wait_until_readable() || !seen(running))) return;
  // Stopped, or started anew, while this waited.
  if (seen(secure_state) != SecSecure || seen(ssl_info) != session.get()) return;
  bool pending = session_holds_;
  for (int reads = 0; reads < kMostReads; ++reads) {
    // A queue that is full, or a subclass that has enough: the rest stays where it is.
    if (indirect_socket && (stop_reading() || input_held_)) {
      pending = session->has_pending();
      break;
    }
    const SSLInfo::Read got = session->read_some();
    if (got.code != 0) {
      // Otherwise Close has shut the descriptor down, or StartSSL has put another session in this one's place.
      if (seen(running) && seen(ssl_info) == session.get()) end_secured(got.code);
      return;
    }
    if (got.buf == nullptr) {
      if (indirect_socket) session_holds_ = got.pending;
      if (got.no_buffer || got.wants_write) hold_back(false);
      return;
    }
    const bool direct = !indirect_socket;
    ProcessData(got.buf);
    if (direct) return;  // the partner may have freed it
    if (!seen(running) || seen(ssl_info) != session.get()) return;
    // The end of a record that came in several pieces is mostly that of what the peer has sent. Whatever else there is
    // makes the descriptor ready again.
    const bool end_of_long_record = pending && !got.pending;
    pending = got.pending;
    if (end_of_long_record) break;
  }
  session_holds_ = pending;
  if (pending && !seen(dont_read)) SocketMonitor::look_at(this);
}

// ---- Sending -----------------------------------------------------------------------------------------------

/// Queues data that cannot go through the session yet: it is not established, or something waits in front.
///   takes     buf when it returns true
///   returns   false when it is to go through the session now
bool AsyncSocket::queue_behind_early(OSBuf* buf, OSIORetCode* result) {
  *result = Success;
  bool emptied = false;
  {
    const SectionLock lock(&local_cs);
    if (seen(state) == SSDisconnected) {
      *result = NoConnection;
    } else if (seen(secure_state) == SecSecure && !early_waiting_) {
      return false;
    } else {
      if (seen(trace) >= 2) diagnostics().Print("AsyncSocket::DataIndication - Queuing buffer");
      if (!merge_early_locked(buf, &emptied)) *result = NoConnection;
    }
  }
  if (*result == Success && indirect_socket) SocketMonitor::look_at(this);
  if (*result == NoConnection || emptied)
    buf->Free();  // its callbacks are the program's: outside the section
  return true;
}

OSIORetCode AsyncSocket::send_secured(OSBuf* buf) {
  OSIORetCode result = Success;
  const ULONG connection = seen(connection_);
  for (;;) {
    if ((seen(secure_state) != SecSecure || seen(early_waiting_)) && queue_behind_early(buf, &result))
      return result;
    const SessionUse session(this);
    if (session.get() == nullptr) {
      buf->Free();  // closed meanwhile
      return NoConnection;
    }
    if (session.state() != SecSecure) continue;  // started anew meanwhile
    result = session->DataIndication(buf);
    // Started anew meanwhile: what this was for is over, and the connection is not.
    if (result == NoConnection && seen(ssl_info) != session.get()) return Blocked;
    break;
  }
  if (result != NoConnection) return result;
  // A connection that is another one by now is left alone.
  if (seen(connection_) != connection) return Blocked;
  publish(state, int{SSDisconnected});
  indicate_failure(0);  // a direct socket's partner may free it
  return Blocked;
}

/// Gives what was queued to the session, in order, as long as that takes it without queueing itself.
///   returns   whether all of it has gone, or the socket has; false when it is to be tried again
bool AsyncSocket::send_early_data_secured() {
  // The buffers' callbacks are the application's; on the socket's own thread one may free it.
  const SocketVisit visit(this, generation_);
  const SessionUse session(this);
  if (session.get() == nullptr || session.state() != SecSecure) return false;
  bool failed = false;
  for (;;) {
    if (!failed && !session->flush()) return visit.gone();
    if (visit.gone()) return true;
    OSBuf* buf = nullptr;
    {
      const SectionLock lock(&local_cs);
      buf = buffer_of(earlyData.FirstObject());
      if (buf == nullptr) {
        publish(early_waiting_, false);
      } else {
        earlyData.Remove(buf);
      }
    }
    if (buf == nullptr) break;
    if (failed) {
      buf->Free();
    } else {
      failed = session->DataIndication(buf) == NoConnection;
    }
  }
  if (failed && seen(ssl_info) == session.get()) end_secured(0);
  return true;
}
