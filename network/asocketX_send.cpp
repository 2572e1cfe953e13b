/// The send path: at once on the caller's thread, or queued until the connection is up.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <mutex>

#include "kernel/buffer_priv.h"
#include "kernel/kernel.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"

namespace {

/// What is given before the connection is up is merged into buffers of this size, about what a segment carries.
constexpr UWORD kMerged_bytes = 1400;
/// A stream that takes nothing for so long is disconnected.
constexpr ULONG kSendTimeout_ms = 5000;
/// How often a wait for room looks whether the socket has been closed.
constexpr int kRoomWait_ms = 100;
/// So many datagrams are held while their destination is being resolved: a question and its like, not a stream.
constexpr int kHeld_datagrams = 8;

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

/// Both ends of a socket. The thread that connects it, or that has found its name's address, may be storing them.
struct Ends {
  explicit Ends(AsyncSocket* socket) {
    const SectionLock lock(&socket->local_cs);
    remote = socket->rem_sin;
    local = socket->loc_sin;
  }
  SockAddr remote;
  SockAddr local;
};

void trace_sending(AsyncSocket* socket, OSBuf* buf) {
  const Ends ends(socket);
  diagnostics().Print("%d AsyncSocket::DataIndication - Sending %d bytes to %s:%u from %s:%u",
                      seen(socket->s), buf->length, AddressText(ends.remote).c_str(), ends.remote.Port(),
                      AddressText(ends.local).c_str(), ends.local.Port());
  buf->Print();
}

/// One sendto(2). Like send_some it never reaches a descriptor that Close has closed and another socket been given:
/// `closing` is held over it, but over no wait. Where the socket waits for room, which only a blocking descriptor
/// does, the wait is the system's.
///   descriptor  where the socket keeps it
ssize_t send_to(std::mutex& closing, int& descriptor, const OSBuf* buf, SockAddr& to) {
  {
    const std::lock_guard<std::mutex> lock(closing);
    const ssize_t sent = sendto(seen(descriptor), buf->data, buf->length, MSG_NOSIGNAL | MSG_DONTWAIT, to,
                                sizeof(sockaddr_in));
    if (sent != -1 || errno != EAGAIN) return sent;
  }
  return sendto(seen(descriptor), buf->data, buf->length, MSG_NOSIGNAL, to, sizeof(sockaddr_in));
}

}  // namespace

OSIORetCode AsyncSocket::DataIndication(OSBuf* buf) {
  if (seen(state) == SSDisconnected) {
    buf->Free();
    return NoConnection;
  }
  if (is_to_be_secure()) return send_secured(buf);
  if (seen(type) == SOCK_DGRAM) {
    OSIORetCode result = Success;
    if (seen(awaits_address_) && hold_datagram(buf, &result)) return result;
    // The name may have been found wanting since the caller looked.
    if (seen(state) == SSDisconnected) {
      buf->Free();
      return NoConnection;
    }
  }
  if (seen(trace) >= 2) trace_sending(this, buf);
  if (seen(type) == SOCK_DGRAM) {
    const OSIORetCode result = send_datagram(buf);
    buf->Free();
    return result;
  }
  if (seen(state) != SSConnected) {
    switch (queue_until_connected(buf)) {
      case Queued::kQueued:
        return Success;
      case Queued::kDisconnected:
        buf->Free();
        return NoConnection;
      case Queued::kConnected:
        break;
    }
  }
  return send_stream(buf);
}

OSIORetCode AsyncSocket::DataExpeditedIndication(OSBuf* buf) { return DataIndication(buf); }

// ---- Streams -----------------------------------------------------------------------------------------------

/// Whether the calling thread is the one that sends what is queued: it must not wait for itself.
bool AsyncSocket::sends_early_data() {
  if (indirect_socket) return SocketMonitor::is_current_thread();
  const ClassLock lock;
  return is_own_thread();
}

AsyncSocket::Queued AsyncSocket::queue_until_connected(OSBuf* buf) {
  if (seen(trace) >= 2) diagnostics().Print("AsyncSocket::DataIndication - Queuing buffer");
  bool emptied = false;
  {
    const SectionLock lock(&local_cs);
    // The connection may have come up, or failed, since the caller looked: its state changes inside this section.
    switch (seen(state)) {
      case SSConnected:
        return Queued::kConnected;
      case SSDisconnected:
        return Queued::kDisconnected;
      default:
        break;
    }
    if (!merge_early_locked(buf, &emptied)) return Queued::kDisconnected;
  }
  if (emptied) buf->Free();
  return Queued::kQueued;
}

/// Merges buf into the last buffer that waits, as far as it fits, and appends what is left of it.
///   emptied   whether nothing was left; the caller then frees it, outside the section
///   returns   false without a link; buf is the caller's then
bool AsyncSocket::merge_early_locked(OSBuf* buf, bool* emptied) {
  OSBuf* const last = buffer_of(earlyData.LastObject());
  *emptied = last != nullptr && BufferMerge::take(last, buf, kMerged_bytes);
  return *emptied || append_early_locked(buf);
}

bool AsyncSocket::append_early_locked(OSBuf* buf) {
  if (earlyData.AppendLink(buf) == nullptr) return false;
  publish(early_waiting_, true);
  return true;
}

void AsyncSocket::remove_early(OSBuf* buf) {
  const SectionLock lock(&local_cs);
  earlyData.Remove(buf);
  if (earlyData.IsEmpty()) publish(early_waiting_, false);
}

/// One send(2) without waiting. It is never made into a descriptor that Close has closed and another socket been given.
///   connection  what the bytes are for; they do not go into a later one
///   returns     the bytes sent, or -1 with errno; EBADF when the connection is closed
int AsyncSocket::send_some(const UBYTE* bytes, int count, ULONG connection) {
  const std::lock_guard<std::mutex> lock(send_mutex_);
  const int fd = seen(s);
  if (fd == -1 || connection_ != connection) {
    errno = EBADF;
    return -1;
  }
  return static_cast<int>(send(fd, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL | MSG_DONTWAIT));
}

OSIORetCode AsyncSocket::send_stream(OSBuf* buf) {
  const ULONG connection = seen(connection_);
  const auto queue_rest = [this, connection](OSBuf* rest) {
    bool queued = false;
    {
      // Close drops what is queued, inside local_cs, when the connection has become another one.
      const SectionLock lock(&local_cs);
      queued = seen(connection_) == connection && append_early_locked(rest);
    }
    if (!queued) return fail_stream(rest, ENOBUFS, connection);
    if (indirect_socket) SocketMonitor::look_at(this);
    return Success;
  };
  ULONG start = 0;  // of the wait, if there is one: the clock is not asked for what goes at once
  bool waited = false;
  const auto note_wait = [&start, &waited] {
    if (!waited) start = os_clock();
    waited = true;
  };
  while (buf->length != 0) {
    if (seen(s) == -1 || seen(connection_) != connection || seen(secure_state) != SecClear) {
      return fail_stream(buf, 0, connection);
    }
    if (seen(early_waiting_)) {
      // What was queued goes first; nothing overtakes it.
      if (sends_early_data()) return queue_rest(buf);
      if (seen(state) != SSConnected) {
        buf->Free();
        return NoConnection;
      }
      note_wait();
      if (os_expired(start, kSendTimeout_ms) != FALSE) {
        diagnostics().Print("%d AsyncSocket::DataIndication: select() timeout, disconnecting", seen(s));
        return fail_stream(buf, 0, connection);
      }
      Sleep(1);
      continue;
    }
    const int sent = send_some(buf->data, buf->length, connection);
    if (sent >= 0) {
      buf->PullUp(static_cast<UWORD>(sent));
      continue;
    }
    const int error = errno;
    if (error == EAGAIN) {
      // The monitor thread is everybody's: what this peer does not take yet is sent when it does.
      if (indirect_socket && SocketMonitor::is_current_thread()) return queue_rest(buf);
      int code = 0;
      note_wait();
      if (!wait_for_room(start, &code)) return fail_stream(buf, code, connection);
      continue;
    }
    if (seen(s) == -1 || seen(connection_) != connection) return fail_stream(buf, 0, connection);
    const Ends ends(this);
    diagnostics().Print("%d AsyncSocket::DataIndication: send() errno=%d to %s:%u from %s:%u", seen(s), error,
                        AddressText(ends.remote).c_str(), ends.remote.Port(), AddressText(ends.local).c_str(),
                        ends.local.Port());
    return fail_stream(buf, error, connection);
  }
  buf->Free();
  return Success;
}

/// Waits until the stream takes data again, until `start` + 5 s.
///   returns   false when the send has failed, with its code
bool AsyncSocket::wait_for_room(ULONG start, int* code) {
  *code = 0;
  for (;;) {
    if (os_expired(start, kSendTimeout_ms) != FALSE) {
      diagnostics().Print("%d AsyncSocket::DataIndication: select() timeout, disconnecting", seen(s));
      return false;
    }
    const int fd = seen(s);
    if (fd == -1) return false;
    pollfd waited{fd, POLLOUT | POLLPRI, 0};
    const int ready = poll(&waited, 1, kRoomWait_ms);
    if (ready < 0) {
      *code = errno;
      diagnostics().Print("%d AsyncSocket::DataIndication: select() error %d", fd, *code);
      return false;
    }
    if (ready == 0) continue;
    if (seen(s) == -1) {
      diagnostics().Print("%d AsyncSocket::DataIndication: socket closed while waiting to send", fd);
      return false;
    }
    if ((waited.revents & POLLPRI) != 0) {
      diagnostics().Print("%d AsyncSocket::DataIndication: select() error on socket", fd);
      return false;
    }
    return true;
  }
}

/// Ends the stream after a failed send.
///   takes       buf
///   connection  what it was for; nothing happens to a later one
OSIORetCode AsyncSocket::fail_stream(OSBuf* buf, int code, ULONG connection) {
  const bool reused = seen(s) != -1 && seen(connection_) != connection;
  if (!reused) publish(state, int{SSDisconnected});
  buf->Free();
  if (reused) return Blocked;
  indicate_failure(code);  // a direct socket's partner may free it
  return Blocked;
}

// ---- Datagrams ---------------------------------------------------------------------------------------------

/// Does not free it.
OSIORetCode AsyncSocket::send_datagram(OSBuf* buf) {
  OSIORetCode result = Success;
  const int count = buf->length;
  Ends ends(this);
  ssize_t sent = send_to(send_mutex_, s, buf, ends.remote);
  if (sent == -1) {
    const int error = errno;
    diagnostics().Print("%d AsyncSocket::DataIndication: sendto() errno=%d to %s:%u from %s:%u", seen(s),
                        error, AddressText(ends.remote).c_str(), ends.remote.Port(),
                        AddressText(ends.local).c_str(), ends.local.Port());
    result = NoConnection;
  } else if (sent < count) {
    diagnostics().Print("%d AsyncSocket::DataIndication: sent %d bytes of %d", seen(s),
                        static_cast<int>(sent), count);
  }
  if (seen(rtps) != -1) {
    sent = send_to(send_mutex_, rtps, buf, ends.remote);
    if (sent == -1) {
      const int error = errno;
      diagnostics().Print("%d AsyncSocket::DataIndication: rtps sendto() errno=%d to %s:%u from %s:%u",
                          seen(s), error, AddressText(ends.remote).c_str(), ends.remote.Port(),
                          AddressText(ends.local).c_str(), ends.local.Port());
      result = NoConnection;
    } else if (sent < count) {
      diagnostics().Print("%d AsyncSocket::DataIndication: rtps sent %d bytes of %d", seen(s),
                          static_cast<int>(sent), count);
    }
  }
  return result;
}

/// Keeps a datagram whose destination is being resolved, unless it has been found meanwhile. Beyond the most that is
/// kept it is freed.
///   takes     buf, when it returns true; then there is a result
bool AsyncSocket::hold_datagram(OSBuf* buf, OSIORetCode* result) {
  {
    const SectionLock lock(&local_cs);
    if (!seen(awaits_address_)) return false;
    if (earlyData.Size() < kHeld_datagrams && earlyData.AppendLink(buf) != nullptr) {
      *result = Success;
      return true;
    }
  }
  buf->Free();
  *result = NoConnection;
  return true;
}

/// From now on nothing is held any more. What was is sent, or dropped.
void AsyncSocket::release_held_datagrams(bool send) {
  if (!seen(awaits_address_)) return;
  OSBuf* released[kHeld_datagrams];
  int count = 0;
  {
    // Whoever sends next waits here, so that nothing overtakes.
    const SectionLock lock(&local_cs);
    if (!seen(awaits_address_)) return;
    while (OSBuf* const buf = count < kHeld_datagrams ? buffer_of(earlyData.FirstObject()) : nullptr) {
      earlyData.Remove(buf);
      released[count++] = buf;
      if (!send) continue;
      if (seen(trace) >= 2) trace_sending(this, buf);
      send_datagram(buf);
    }
    publish(awaits_address_, false);
  }
  // Outside the section: their callbacks are the application's.
  for (int i = 0; i < count; ++i) released[i]->Free();
}

OSIORetCode AsyncSocket::DatagramIndication(OSBuf* buf, void* /*source*/, void* dest) {
  const bool connected = seen(state) == SSConnected;
  if (dest == nullptr && !connected) {
    buf->Free();
    return Blocked;
  }
  Ends ends(this);
  SockAddr to(ends.remote);
  // Deliberate: a socket with a peer sends to that alone, whatever address it is given. Layers above pass on the address
  // that a datagram came from and count on the socket knowing better. Pinned by socket_send_datagram_test.cpp,
  // WithAPeerTheAddressIsNotLookedAt.
  if (!connected) to = static_cast<sockaddr*>(dest);
  if (seen(trace) >= 2) {
    diagnostics().Print("%d AsyncSocket::DatagramIndication - Sending %d bytes to %s:%u from %s:%u", seen(s),
                        buf->length, AddressText(to).c_str(), to.Port(), AddressText(ends.local).c_str(),
                        ends.local.Port());
    buf->Print();
  }
  const auto detail = [buf](int fd, SockAddr& destination) {
    diagnostics().Print(
        "    sendto(socket=%d, buffer=%p, length=%d, flags=%d, dest_addr=%p (%s:%u), dest_len=%d", fd,
        static_cast<void*>(buf->data), buf->length, 0,
        static_cast<void*>(static_cast<sockaddr*>(destination)), AddressText(destination).c_str(),
        destination.Port(), static_cast<int>(sizeof(sockaddr_in)));
  };
  OSIORetCode result = Success;
  if (send_to(send_mutex_, s, buf, to) == -1) {
    const int error = errno;
    diagnostics().Print("%d AsyncSocket::DatagramIndication: sendto() errno=%d, to %s:%u from %s:%u", seen(s),
                        error, AddressText(to).c_str(), to.Port(), AddressText(ends.local).c_str(),
                        ends.local.Port());
    detail(seen(s), to);
    result = NoConnection;
  }
  if (seen(rtps) != -1 && send_to(send_mutex_, rtps, buf, ends.remote) == -1) {
    const int error = errno;
    diagnostics().Print("%d AsyncSocket::DatagramIndication: sendto() errno=%d to %s:%u from %s:%u", seen(s),
                        error, AddressText(ends.remote).c_str(), ends.remote.Port(),
                        AddressText(ends.local).c_str(), ends.local.Port());
    detail(seen(rtps), ends.remote);
    result = NoConnection;
  }
  buf->Free();
  return result;
}
