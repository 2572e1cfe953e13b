/// Closing and deleting sockets.
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "kernel/kernel.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/assl.h"
#include "network/dnsentry.h"
#include "network/ringbuffer.h"

// Close and Free ask whether they have an object.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wnonnull-compare"
#endif

namespace {

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }
SocketLink* connection_of(OSListObj* queued) {
  return static_cast<SocketLink*>(static_cast<OSLinkListObj*>(queued));
}

}  // namespace

void AsyncSocket::Shutdown() {
  // While the descriptor is closed its number may already be another socket's.
  const std::lock_guard<std::mutex> lock(send_mutex_);
  const int fd = seen(s);
  if (fd != -1) shutdown(fd, SHUT_RDWR);
}

// ---- Closing -----------------------------------------------------------------------------------------------

/// Joins the socket's own thread, unless that is the caller: then it stays to be joined by a later Close, or is let go
/// by the destructor.
void AsyncSocket::join_own_thread() {
  pthread_t ending = 0;
  {
    const ClassLock lock;
    if (thread == 0 || thread_abandoned_ || is_own_thread()) return;
    ending = thread;
  }
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::Close - Waiting for thread %p to join...", seen(s),
                        printable(ending));
  }
  pthread_join(ending, nullptr);
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::Close - thread %p terminated", seen(s), printable(ending));
  }
  const ClassLock lock;
  thread = 0;
}

void AsyncSocket::close_descriptors() {
  const ClassLock lock;
  SocketMonitor::unwatch_locked(this);
  const int fd = seen(s);
  if (fd != -1) {
    if (seen(trace) != 0) diagnostics().Print("%d AsyncSocket::Close - closing socket", fd);
    const std::lock_guard<std::mutex> sends(send_mutex_);
    publish(s, -1);
    publish(connection_, connection_ + 1);
    if (ssl_info != nullptr) ssl_info->detach();
    close(fd);
  }
  {
    const std::lock_guard<std::mutex> sends(send_mutex_);
    const int second = seen(rtps);
    publish(rtps, -1);
    if (second != -1) close(second);
  }
  connect_error_ = 0;
  input_held_ = false;
  session_holds_ = false;
}

/// Frees what waits in both directions, outside the section: the buffers' callbacks are the application's.
void AsyncSocket::drop_queued() {
  for (;;) {
    OSBuf* buf = nullptr;
    {
      const SectionLock lock(&local_cs);
      buf = buffer_of(q.FirstObject());
      if (buf != nullptr) {
        q.Remove(buf);
      } else {
        buf = buffer_of(earlyData.FirstObject());
        if (buf != nullptr) earlyData.Remove(buf);
      }
      if (buf == nullptr) {
        publish(dont_read, false);
        publish(early_waiting_, false);
        publish(awaits_address_, false);
      }
    }
    if (buf == nullptr) return;
    buf->Free();
  }
}

void AsyncSocket::Close() {
  if (this == nullptr) return;  // as in Free
  {
    const ClassLock lock;
    if (seen(trace) != 0) {
      diagnostics().Print("%d AsyncSocket::Close - thread %p, running %d", seen(s), printable(thread),
                          seen(running) ? 1 : 0);
    }
    publish(running, false);
    const SectionLock states(&local_cs);
    publish(state, int{SSDisconnected});
  }
  int fd = -1;
  int error = 0;
  {
    // Another thread may be closing it, too; outside this lock its number could be somebody else's by now.
    const std::lock_guard<std::mutex> lock(send_mutex_);
    fd = seen(s);
    if (fd != -1 && shutdown(fd, SHUT_RDWR) == -1) error = errno;
  }
  if (error != 0 && seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::Close - shutdown returned %d", fd, error);
  }
  join_own_thread();
  close_descriptors();
  publish(secure_state, int{SecClear});
  if (SSLInfo* const session = take_session()) {
    if (seen(trace) != 0) {
      diagnostics().Print("%d AsyncSocket::Close - ssl_info %p", seen(s), static_cast<void*>(session));
    }
    SSLInfo::release(session);
  }
  drop_queued();
  publish(listener, false);
  publish(state, int{SSInitial});
}

// ---- Deleting ----------------------------------------------------------------------------------------------

/// Makes the socket's own thread, if it has one, come to its end.
void AsyncSocket::stop_receiving() {
  {
    const ClassLock lock;
    publish(running, false);
  }
  Shutdown();
}

/// From here on no callback begins in this socket; one that another thread is in is waited for.
void AsyncSocket::leave_registry() {
  {
    // The name cache looks sockets up, and calls them, inside cs.
    const ClassLock lock;
    SocketRegistry::remove(this);
  }
  if (SocketRegistry::wait_for_visitors(this)) thread_abandoned_ = true;
}

void AsyncSocket::leave_name_cache() {
  if (seen(DNSEntry::csinit) == 0) return;
  const SectionLock lock(&DNSEntry::cs);
  if (dnsentry != nullptr) dnsentry->Cancel(this);
  dnsentry = nullptr;
}

void AsyncSocket::Free() {
  // Deliberate: programs free sockets that they may never have made. This file is compiled with
  // -fno-delete-null-pointer-checks, without which compilers drop the test. Pinned by socket_free_test.cpp,
  // IgnoresANullSocket.
  if (this == nullptr) return;
  leave_name_cache();
  if (indirect_socket) {
    if (seen(trace) != 0) {
      diagnostics().Print("AsyncSocket::Free - delete of %p delayed...", static_cast<void*>(this));
    }
    Close();
    publish(deleted, true);
    if (seen(trace) != 0) diagnostics().Print("AsyncSocket::Free - waking monitor thread");
    SocketMonitor::look_at(this);
    SocketMonitor::wait_for_release(this);
  } else {
    // Before the destructor of a derived class takes away what its thread uses.
    stop_receiving();
  }
  leave_registry();
  if (seen(trace) != 0) diagnostics().Print("AsyncSocket::Free - deleting %p", static_cast<void*>(this));
  delete this;
}

AsyncSocket::~AsyncSocket() {
  std::free(cert);
  std::free(key);
  std::free(ca);
  if (indirect_socket && !seen(deleted)) {
    diagnostics().Fatal("%d AsyncSocket::~AsyncSocket - %p, socket not Free'd first!", seen(s),
                        static_cast<void*>(this));
  }
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::~AsyncSocket - %p, thread %p", seen(s), static_cast<void*>(this),
                        printable(thread));
  }
  stop_receiving();
  leave_registry();
  if (SSLInfo* const session = take_session()) {
    // Its own thread may still be inside it, beneath whoever has freed the socket: nothing is written any more.
    session->detach();
    SSLInfo::release(session);
  }
  delete startRetry;
  listenqtrigger.Cancel();
  qtrigger.Cancel();
  {
    const ClassLock lock;
    SocketMonitor::forget_locked(this);
    if (listed_ != nullptr) sockets->RemoveLink(listed_);
    listed_ = nullptr;
  }
  Close();
  for (;;) {
    SocketLink* connection = nullptr;
    {
      const SectionLock lock(&local_cs);
      connection = connection_of(listenq.FirstObject());
      if (connection != nullptr) listenq.Remove(connection);
    }
    if (connection == nullptr) break;
    close(connection->s);
    delete connection;
  }
  drop_queued();
  if (alloc_buf != nullptr) alloc_buf->Free();
  if (ring != nullptr) ring->Free();
  ring = nullptr;
  if (thread != 0) {
    // Freed inside an indication on its own thread, or by one that it waits for: it has been told, and ends by itself.
    pthread_detach(thread);
  }
  DeleteCriticalSection(&local_cs);
  if (seen(trace) != 0) diagnostics().Print("%d AsyncSocket::~AsyncSocket Done", seen(s));
}
