/// Starting reception, and the threads of direct sockets.
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>

#include "kernel/kernel.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/ringbuffer.h"

namespace {

constexpr int kRingBuffers = 32;
/// Only an interval up to this is doubled.
/// Deliberate: with the default of 500 ms it stays as it is. Programs that set
/// a short one get a growing one. Pinned by socket_receive_direct_test.cpp,
/// OnlyAShortRetryIntervalIsDoubled.
constexpr ULONG kDoubledUpTo_ms = 15;
constexpr ULONG kAcceptBackOff_ms = 100;
/// How often the socket's own thread looks whether a session whose writes have stalled takes more.
constexpr int kRoomWait_ms = 10;

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

}  // namespace

bool AsyncSocket::is_own_thread() { return thread != 0 && pthread_equal(thread, pthread_self()) != 0; }

// ---- Starting ----------------------------------------------------------------------------------------------

void AsyncSocket::StartTask() {
  if (!indirect_socket && !seen(running)) join_own_thread();  // one that has ended by itself
  {
    const ClassLock lock;
    if (!indirect_socket) {
      start_thread_locked();
      return;
    }
    if (!seen(listener)) publish(receive_started, true);
    publish(running, true);
    if (seen(trace) != 0) diagnostics().Print("AsyncSocket::StartTask - waking monitor thread");
  }
  SocketMonitor::look_at(this);
}

void AsyncSocket::start_thread_locked() {
  if (thread != 0) return;  // it is receiving
  if (!seen(listener)) publish(receive_started, true);
  publish(running, true);
  pthread_t started = 0;
  const int error = pthread_create(&started, &std_thread_attr, seen(listener) ? ListenMain : Main,
                                   static_cast<LPVOID>(this));
  if (error == 0) {
    thread = started;
  } else {
    diagnostics().Print("%d AsyncSocket::StartTask failed, errno %d - retrying in %lums...", seen(s), error,
                        static_cast<unsigned long>(retryTimeout));
    if (startRetry == nullptr) {
      startRetry = new OSTimerTrigger(0, 1);
      startRetry->SetCallback(StartRetry, reinterpret_cast<OSObj*>(this), nullptr, generation_);
    }
    startRetry->SetTimer(retryTimeout);
    if (retryTimeout <= kDoubledUpTo_ms) retryTimeout *= 2;
  }
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::StartTask - thread %p", seen(s), printable(thread));
  }
}

void AsyncSocket::StartRetry(OSObj* obj, ADDR /*unused_addr*/, ULONG generation) {
  auto* const socket = reinterpret_cast<AsyncSocket*>(obj);
  const SocketVisit visit(socket, generation);
  // Closed meanwhile: nothing is to be received any more.
  if (!visit.gone() && seen(socket->running)) socket->retry_start();
}

void AsyncSocket::retry_start() {
  const ClassLock lock;
  start_thread_locked();
}

// ---- The threads -------------------------------------------------------------------------------------------

void* AsyncSocket::Main(LPVOID p) {
  auto* const socket = static_cast<AsyncSocket*>(p);
  // The partner may free the socket on this thread, inside an indication: the visit says so then.
  const SocketVisit visit(socket, 0);
  if (!visit.gone()) socket->receive_until_stopped(visit);
  return nullptr;
}

void AsyncSocket::receive_until_stopped(const SocketVisit& visit) {
  if (seen(trace) != 0) diagnostics().Print("%d AsyncSocket::Main - Started receive thread", seen(s));
  if (seen(type) == SOCK_STREAM && seen(state) == SSInitial) {
    if (!connect_blocking() || visit.gone()) return;
    send_early_data_blocking(visit);
    if (visit.gone()) return;
  } else if (seen(type) == SOCK_STREAM && seen(early_waiting_)) {
    // An accepted connection was given it before ConnectAck.
    send_early_data_blocking(visit);
    if (visit.gone()) return;
  }
  if (ring == nullptr) ring = new RingBuffer(kRingBuffers);
  while (!visit.gone() && seen(running)) {
    Poll();
    // Given during the handshake, or while what was given then still waited.
    if (!visit.gone() && seen(early_waiting_)) send_early_data_blocking(visit);
  }
  // Deliberate: "thead", here and in ListenMain, as the logs have it. Pinned by socket_receive_direct_test.cpp,
  // ConnectsAndSendsWhatWasQueued, and socket_monitor_accept_test.cpp, SaysWhomItAccepts.
  if (!visit.gone() && seen(trace) != 0)
    diagnostics().Print("%d AsyncSocket::Main - Stopped receive thead", seen(s));
}

/// Connects, in two attempts, and indicates the outcome.
///   returns   false when the thread is to end
bool AsyncSocket::connect_blocking() {
  const auto report = [this](bool last) {
    const int error = errno;
    const AddressText remote(rem_sin);
    const AddressText local(loc_sin);
    if (last) {
      diagnostics().Print("%d AsyncSocket::Main connect() errno=%d to %s:%u from %s:%u FAILED", seen(s),
                          error, remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
    } else {
      diagnostics().Print("%d AsyncSocket::Main connect() errno=%d to %s:%u from %s:%u RETRYING", seen(s),
                          error, remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
    }
  };
  if (connect(seen(s), rem_sin, sizeof(sockaddr_in)) == -1) {
    if (!seen(running)) return false;  // given up by Close
    report(false);
    if (connect(seen(s), rem_sin, sizeof(sockaddr_in)) == -1) {
      if (!seen(running)) return false;
      report(true);
      publish(state, int{SSDisconnected});
      publish(running, false);
      indicate(1, Timeout, 0);  // the partner may free the socket
      return false;
    }
  }
  SockAddr local;
  socklen_t length = sizeof(sockaddr_in);
  if (getsockname(seen(s), local, &length) == -1) {
    const int error = errno;
    const AddressText remote(rem_sin);
    diagnostics().Print("%d AsyncSocket::Main getsockname() errno=%d to %s:%u", seen(s), error,
                        remote.c_str(), rem_sin.Port());
  } else {
    const SectionLock lock(&local_cs);
    loc_sin = local;
  }
  {
    const SectionLock lock(&local_cs);
    // Close may have come first: then there is no connection to speak of.
    if (!seen(running)) return false;
    publish(state, int{SSConnected});
  }
  if (seen(secure)) {
    diagnostics().Print("%d AsyncSocket::Main - start SSL", seen(s));
    StartSSL(false, 0, nullptr);
    finish_handshake_blocking();
    if (!seen(running)) return false;
  }
  // Deliberate: indicated whatever has become of the handshake; Poll reports one that failed behind it. Programs with a
  // thread for each socket tell "no such peer" from "not the right peer" by it. Nothing leaves in the clear meanwhile.
  // Pinned by tls_socket_direct_test.cpp, AClientWhoseHandshakeFailsIsIndicatedConnectedFirst.
  indicate(0, 0, 0);
  return true;
}

void AsyncSocket::send_early_data_blocking(const SocketVisit& visit) {
  const bool secured = seen(secure_state) == SecSecure;
  if (!secured && !sends_in_the_clear()) return;
  if (seen(trace) != 0) diagnostics().Print("AsyncSocket::Main - Forwarding queued data");
  if (secured) {
    while (seen(running) && seen(secure_state) == SecSecure && !send_early_data_secured())
      Sleep(kRoomWait_ms);
    return;
  }
  for (;;) {
    OSBuf* buf = nullptr;
    {
      const SectionLock lock(&local_cs);
      buf = buffer_of(earlyData.FirstObject());
    }
    if (buf == nullptr) return;
    while (buf->length != 0) {
      const ssize_t sent = send(seen(s), buf->data, buf->length, MSG_NOSIGNAL);
      if (sent == -1 && errno == EINTR) continue;
      if (sent <= 0) {
        const int error = errno;
        const AddressText remote(rem_sin);
        const AddressText local(loc_sin);
        diagnostics().Print("%d AsyncSocket::Main send() errno=%d to %s:%u from %s:%u", seen(s), error,
                            remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
        break;
      }
      buf->PullUp(static_cast<UWORD>(sent));
    }
    remove_early(buf);
    buf->Free();  // its callbacks are the application's
    if (visit.gone()) return;
  }
}

void* AsyncSocket::ListenMain(LPVOID p) {
  auto* const socket = static_cast<AsyncSocket*>(p);
  if (seen(trace) != 0)
    diagnostics().Print("%d AsyncSocket::ListenMain - Started listen thead", seen(socket->s));
  while (seen(socket->running)) {
    SockAddr peer;
    socklen_t length = sizeof(sockaddr_in);
    const int fd = accept(seen(socket->s), peer, &length);
    if (fd == -1) {
      const int error = errno;
      const bool exhausted = error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
      if (!exhausted || socket->may_report_exhaustion()) {
        diagnostics().Print("%d AsyncSocket::ListenMain - accept error %d", seen(socket->s), error);
      }
      if (error == EINTR || error == ECONNABORTED) continue;
      if (!exhausted) break;
      Sleep(kAcceptBackOff_ms);
      continue;
    }
    if (seen(trace) != 0) {
      const AddressText remote(peer);
      diagnostics().Print("%d AsyncSocket::ListenMain - new connection %d from %s, %u", seen(socket->s), fd,
                          remote.c_str(), peer.Port());
    }
    socket->queue_connection(fd, peer);
  }
  if (seen(trace) != 0)
    diagnostics().Print("%d AsyncSocket::ListenMain - Stopped listen thead", seen(socket->s));
  return nullptr;
}
