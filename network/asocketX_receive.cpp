/// The receive path: reading, accepting, control buffers, the receive queue and its delivery to the partner.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "kernel/kernel.h"
#include "kernel/trigger_priv.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/ringbuffer.h"

namespace {

/// Above this many waiting buffers a socket is no longer read, and below the other it is again.
constexpr int kStopReading_buffers = 9;
constexpr int kReadAgain_buffers = 2;
/// What one dispatch of a socket may take.
constexpr ULONG kDeliveryBudget_ms = 100;
/// The most that is read into a buffer of the pool or of a ring.
constexpr int kSmallRead_bytes = 1600;
/// `length` of a buffer has 16 bits.
constexpr int kMostRead_bytes = 65535;
/// A pool or the descriptors have run out: look again after so long.
constexpr ULONG kDrought_ms = 10;
constexpr ULONG kAcceptBackOff_ms = 100;
constexpr ULONG kAcceptTextEvery_ms = 1000;

/// Instead of a number of bytes.
constexpr int kEnded = -1;
constexpr int kNothing = -2;

constexpr int kControl_bytes = 6;
constexpr int kSender_bytes = sizeof(sockaddr_in);

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

/// Makes a buffer of whatever length a control buffer: of length 0, with room for the six bytes at its data.
void make_control(OSBuf* buf, UBYTE what, int reason, int code) {
  UBYTE* const end = buf->payload + buf->size;
  if (buf->data < buf->payload || end - buf->data < kControl_bytes) buf->data = end - kControl_bytes;
  const auto bits = static_cast<ULONG>(code);
  const UBYTE bytes[kControl_bytes] = {what,
                                       static_cast<UBYTE>(reason),
                                       static_cast<UBYTE>(bits >> 24U),
                                       static_cast<UBYTE>(bits >> 16U),
                                       static_cast<UBYTE>(bits >> 8U),
                                       static_cast<UBYTE>(bits)};
  std::memcpy(buf->data, bytes, sizeof bytes);
  buf->length = 0;
}

/// The bytes of a control buffer that lie in its storage. The empty packet of a framing socket ends where its storage
/// ends, and says nothing.
int control_bytes_of(const OSBuf* buf) {
  const UBYTE* const end = buf->payload + buf->size;
  if (buf->data < buf->payload || buf->data >= end) return 0;
  return static_cast<int>(std::min<std::ptrdiff_t>(end - buf->data, kControl_bytes));
}

}  // namespace

// ---- Buffers -----------------------------------------------------------------------------------------------

OSBuf* AsyncSocket::AllocBuffer(int size) {
  if (indirect_socket) return OSBuf::Alloc(size + kHeadroom_bytes);
  OSBuf* const buf = ring != nullptr ? ring->Get() : nullptr;
  if (buf == nullptr) std::atomic_ref(oob_count).fetch_add(1);
  return buf;
}

OSBuf* alloc_array_buffer(int length, OSCallbackFunction free_array) {
  auto* const array = new (std::nothrow) UBYTE[static_cast<std::size_t>(length + kHeadroom_bytes)];
  OSBuf* const buf = array != nullptr ? OSBuf::Alloc(0) : nullptr;
  OSCallback* const callback =
      buf != nullptr ? OSCallback::Alloc(nullptr, free_array, reinterpret_cast<OSObj*>(array), nullptr, 0)
                     : nullptr;
  if (callback == nullptr) {
    if (buf != nullptr) buf->Free();
    delete[] array;
    return nullptr;
  }
  // A buffer's size has 16 bits; what does not fit is taken from the room in front.
  const int lost = std::max(length + kHeadroom_bytes - kMostRead_bytes, 0);
  buf->SetPayload(array + lost, static_cast<UWORD>(length + kHeadroom_bytes - lost));
  buf->data = array + kHeadroom_bytes;
  buf->AddBufferCallback(callback);
  return buf;
}

void AsyncSocket::LargeBufferCallback(OSObj* array, ADDR /*unused*/, ULONG /*unused*/) {
  delete[] reinterpret_cast<UBYTE*>(array);
}

// ---- Indications in the stream -----------------------------------------------------------------------------

void AsyncSocket::indicate(UBYTE what, int reason, int code) {
  OSBuf* const buf = OSBuf::Alloc(kControl_bytes);
  if (buf == nullptr) return;
  make_control(buf, what, reason, code);
  ProcessData(buf);
}

void AsyncSocket::indicate_failure(int code) { indicate(1, Failed, code); }

void AsyncSocket::ProcessData(OSBuf* buf) {
  if (!indirect_socket) {
    Receive(buf);
    return;
  }
  const SectionLock lock(&local_cs);
  if (bool* const owed = SocketMonitor::signal_owed(); owed != nullptr) {
    const OSTriggerDispatch::LateSignal signal(owed);
    q.Append(buf);
  } else {
    q.Append(buf);
  }
  // The monitor thread finds out when there is more to read, and not at all when the queue is taken down before.
  if (q.Size() > kStopReading_buffers && !dont_read) publish(dont_read, true);
}

void AsyncSocket::Receive(OSBuf* buf) {
  // The partner may free this socket: nothing of it is touched behind an indication.
  OSIO* const partner_now = Partner();
  OSIO* const above = partner_now != nullptr ? partner_now : &OSNullIO;
  const bool datagram = seen(type) == SOCK_DGRAM;
  if (buf->length != 0) {
    SockAddr local;
    SockAddr remote;
    {
      const SectionLock lock(&local_cs);
      local = loc_sin;
      remote = rem_sin;
    }
    if (datagram) std::memcpy(&remote.sin, buf->data - kSender_bytes, kSender_bytes);
    buf->destPtr = *reinterpret_cast<ADDR*>(above);  // the class of the partner: its table of operations
    buf->local_ipaddr = local.AddressNet();
    buf->local_port = local.PortNet();
    buf->remote_ipaddr = remote.AddressNet();
    buf->remote_port = remote.PortNet();
    if (datagram) {
      above->DatagramIndication(buf, &remote, &local);
    } else {
      above->DataIndication(buf);
    }
    return;
  }
  const int bytes = datagram ? 0 : control_bytes_of(buf);
  UBYTE control[kControl_bytes] = {};
  if (bytes > 0) std::memcpy(control, buf->data, static_cast<std::size_t>(bytes));
  buf->Free();
  if (bytes > 0 && control[0] == 0) {
    above->ConnectIndication(nullptr);
  } else if (bytes > 1 && control[0] == 1) {
    const ULONG code =
        bytes < kControl_bytes || control[1] != Failed
            ? 0
            : ULONG{control[2]} << 24U | ULONG{control[3]} << 16U | ULONG{control[4]} << 8U | control[5];
    above->DisconnectIndication(static_cast<OSIOReason>(control[1]), static_cast<int>(code));
  }
}

/// Whether too much waits in the queue to read more. The monitor thread then stops, and take_received wakes it. Each of
/// the two threads writes one flag and then reads the other: one of them at least sees what the other has done.
///   threads   monitor thread, inside cs
bool AsyncSocket::stop_reading() {
  publish(reading_stopped_, true);
  if (seen(dont_read)) return true;
  publish(reading_stopped_, false);
  return false;
}

/// Takes the first buffer out of the receive queue, and lets the monitor thread read again when few are left.
///   left      receives how many there were, when the trigger is armed; null otherwise
OSBuf* AsyncSocket::take_received(int* left) {
  bool drained = false;
  OSBuf* buf = nullptr;
  {
    const SectionLock lock(&local_cs);
    if (left != nullptr) *left = q.Size();
    buf = buffer_of(q.FirstObject());
    if (buf != nullptr) q.Remove(buf);
    if (dont_read && q.Size() <= kReadAgain_buffers) {
      publish(dont_read, false);
      drained = true;
    }
    // With the first buffer taken out: a queue that held one only does not fire for what is being delivered.
    if (left != nullptr) qtrigger.Clear();
  }
  if (drained) {
    if (seen(trace) != 0) diagnostics().Print("AsyncSocket::_QCallback - waking monitor thread");
    // Not when it has not noticed: see stop_reading.
    if (seen(reading_stopped_)) SocketMonitor::look_at(this);
  }
  return buf;
}

void AsyncSocket::_QCallback(OSObj* obj, ADDR /*unused*/, ULONG generation) {
  auto* const socket = reinterpret_cast<AsyncSocket*>(obj);
  const SocketVisit visit(socket, generation);
  if (visit.gone()) return;
  int left = 0;
  OSBuf* buf = socket->take_received(&left);
  const ULONG start = left > 1 ? os_clock() : 0;
  while (buf != nullptr) {
    socket->Receive(buf);
    // Only this thread may have deleted the socket: others wait in Free until the visit is over.
    if (visit.gone() || --left <= 0 || os_expired(start, kDeliveryBudget_ms) != FALSE) return;
    buf = socket->take_received(nullptr);
  }
}

// ---- Reading -----------------------------------------------------------------------------------------------

void AsyncSocket::Poll() {
  if (seen(listener)) {
    accept_one();
    return;
  }
  if (!seen(receive_started)) return;
  if (connect_error_ != 0) {
    OSBuf* const buf = OSBuf::Alloc(kControl_bytes);
    if (buf == nullptr) {
      hold_back(false);  // the descriptor stays ready: it is told as soon as there is a buffer
      return;
    }
    make_control(buf, 1, Failed, std::exchange(connect_error_, 0));
    publish(running, false);
    ProcessData(buf);
    return;
  }
  // The monitor thread polls what is ready; a thread of the socket's own waits further down.
  if (urgent_ && seen(s) != -1) {
    urgent_ = false;
    drop_urgent_byte();
    return;
  }
  if (seen(secure_state) == SecHandshake || was_never_secured()) {
    lead_handshake();
    return;
  }
  if (seen(s) == -1) return;
  if (seen(secure_state) == SecSecure) {
    receive_secured();
    return;
  }
  if (!indirect_socket && (!wait_until_readable() || !seen(running))) return;
  if (seen(secure_state) != SecClear)
    return;  // TLS has been started meanwhile: what waits belongs to its session
  int waiting = waiting_bytes();
  if (waiting == kNothing) return;
  OSBuf* const buf = waiting == kEnded ? OSBuf::Alloc(kControl_bytes) : receive_buffer(&waiting);
  if (buf == nullptr) {
    hold_back(waiting != kEnded && !seen(big_buffers_allowed));
    return;
  }
  OSBuf* const received = read_once(buf, waiting);
  if (received != nullptr) ProcessData(received);
}

/// An urgent byte means nothing to the layers above; left where it is, the socket would stay ready.
void AsyncSocket::drop_urgent_byte() {
  if (seen(trace) != 0) {
    const AddressText remote(rem_sin);
    const AddressText local(loc_sin);
    diagnostics().Print("%d AsyncSocket::Poll select() errno=%d(exception) for %s:%u on %s:%u", seen(s),
                        errno, remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
  }
  char byte = 0;
  static_cast<void>(recv(seen(s), &byte, 1, MSG_OOB | MSG_DONTWAIT));
}

bool AsyncSocket::wait_until_readable() {
  constexpr int kWait_ms = 1000;
  pollfd waited{seen(s), POLLIN | POLLPRI, 0};
  const int ready = poll(&waited, 1, kWait_ms);
  if (ready <= 0) return false;
  if ((waited.revents & POLLPRI) != 0) {
    drop_urgent_byte();
    return false;
  }
  if ((waited.revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
    if (seen(trace) != 0) {
      const AddressText remote(rem_sin);
      const AddressText local(loc_sin);
      diagnostics().Print("%d AsyncSocket::Poll select() errno=%d(not ready) for %s:%u on %s:%u", seen(s),
                          errno, remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
    }
    return false;
  }
  return true;
}

/// What FIONREAD says of the socket, put right for streams.
///   returns   the bytes to read, 0 for an empty datagram; kEnded when the peer has closed the stream; kNothing when
///             there is nothing to do now
int AsyncSocket::waiting_bytes() {
  const int fd = seen(s);
  int bytes = 0;
  if (ioctl(fd, FIONREAD, &bytes) == -1) {
    if (seen(trace) != 0) {
      const AddressText remote(rem_sin);
      const AddressText local(loc_sin);
      diagnostics().Print("%d AsyncSocket::Poll ioctl() errno=%d(read bytes available) for %s:%u on %s:%u",
                          fd, errno, remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
    }
    return kNothing;
  }
  // What a stream does not get now it gets next time, with all the room in front.
  if (seen(type) == SOCK_DGRAM) return std::clamp(bytes, 0, kMostRead_bytes);
  if (bytes != 0) return std::clamp(bytes, 0, kMostRead_bytes - kHeadroom_bytes);
  // Nothing waits: the peer has closed, unless the report of readiness was out of date, or the stream stands where an
  // urgent byte has been, which FIONREAD does not look across.
  // Deliberate: a reset that finds nothing to read is such an end, too, and not a failure. Many peers end so, and
  // programs count failures. Pinned by socket_receive_stream_test.cpp, AResetWithNothingWaitingIsANormalEnd.
  char byte = 0;
  const ssize_t peeked = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (peeked > 0) return kSmallRead_bytes;
  if (peeked == -1 && (errno == EAGAIN || errno == EINTR)) return kNothing;
  if (seen(trace) != 0) {
    const AddressText remote(rem_sin);
    const AddressText local(loc_sin);
    diagnostics().Print("%d AsyncSocket::Poll ioctl() no bytes available for %s:%u on %s:%u", fd,
                        remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
  }
  return kEnded;
}

/// A buffer for a read, as large as this socket may have it.
///   waiting   what waits; receives how much of it fits
///   returns   null when there is none
OSBuf* AsyncSocket::receive_buffer(int* waiting) {
  if (seen(big_buffers_allowed) && *waiting >= kLargeRead_bytes) {
    OSBuf* const large = alloc_array_buffer(*waiting, LargeBufferCallback);
    if (large != nullptr) {
      if (seen(trace) != 0) {
        const AddressText remote(rem_sin);
        const AddressText local(loc_sin);
        diagnostics().Print("%d AsyncSocket::Poll recvfrom() LargeBuffer Used %d for %s:%u on %s:%u", seen(s),
                            *waiting, remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
      }
      return large;
    }
    // The callbacks have run out: what fits a buffer of the pool is read, the rest stays in the socket.
    *waiting = kSmallRead_bytes;
  }
  OSBuf* buf = nullptr;
  if (seen(big_buffers_allowed)) {
    buf = OSBuf::Alloc(*waiting + kHeadroom_bytes);
  } else {
    *waiting = std::min(*waiting, kSmallRead_bytes);
    buf = AllocBuffer(*waiting);
  }
  if (buf != nullptr) buf->PushDown(static_cast<UWORD>(*waiting));
  return buf;
}

/// There is no buffer: what waits stays in the socket for a while.
///   from_ring   a direct socket has looked for it in its ring, not in a pool
void AsyncSocket::hold_back(bool from_ring) {
  if (indirect_socket) {
    SocketMonitor::retry_later_locked(this, kDrought_ms);
  } else if (from_ring && ring != nullptr) {
    constexpr ULONG kRingWait_ms = 100;
    ring->WaitForBuffer(kRingWait_ms);
  } else {
    Sleep(static_cast<int>(kDrought_ms));
  }
}

/// Reads into the buffer that receive_buffer has found.
///   waiting   its bytes, or kEnded
///   returns   what is to be passed to ProcessData; null for nothing
OSBuf* AsyncSocket::read_once(OSBuf* buf, int waiting) {
  const int fd = seen(s);
  SockAddr from;
  socklen_t from_length = sizeof(sockaddr_in);
  ssize_t received = 0;
  int error = 0;
  if (waiting != kEnded) {
    alloc_buf = buf;
    const auto read = [&] {
      received = recvfrom(fd, buf->data, static_cast<std::size_t>(waiting), MSG_DONTWAIT, from, &from_length);
      error = received == -1 ? errno : 0;
    };
    // Never behind the shutdown of Close, which goes through this section in between: when the last bytes are taken
    // out of a descriptor that is shut down, the system does not say that there is room again, and a peer that waits
    // for room would hear of the end a minute later. (The monitor thread reads inside cs, through which Close goes as
    // well.)
    if (indirect_socket) {
      read();
    } else {
      const SectionLock lock(&local_cs);
      if (seen(running)) read();
    }
  }
  alloc_buf = nullptr;
  buf->length = 0;
  if (!indirect_socket && received <= 0 && !seen(running)) {
    // Close has shut the descriptor down, which looks like an end from the other side.
    buf->Free();
    return nullptr;
  }
  if (error == EAGAIN || error == EINTR) {
    if (error == EINTR) {
      // Deliberate: reception of this socket ends here. Programs that interrupt their threads on purpose rely on it.
      // Pinned by socket_receive_failure_test.cpp, AnInterruptedReadStopsReceptionAndNothingElse.
      diagnostics().Print("%d AsyncSocket::Poll - EINTR", fd);
      publish(running, false);
    } else if (seen(trace) != 0) {
      const AddressText remote(rem_sin);
      const AddressText local(loc_sin);
      diagnostics().Print("%d AsyncSocket::Poll recvfrom() errno=%d(EAGAIN %s) for %s:%u on %s:%u", fd, error,
                          seen(type) == SOCK_DGRAM ? "UDP cksum err?" : "recoverable", remote.c_str(),
                          rem_sin.Port(), local.c_str(), loc_sin.Port());
    }
    buf->Free();
    return nullptr;
  }
  if (error != 0) {
    publish(running, false);
    if (seen(s) == -1) {
      buf->Free();
      return nullptr;
    }
    if (seen(trace) != 0) {
      const AddressText remote(rem_sin);
      const AddressText local(loc_sin);
      diagnostics().Print("%d AsyncSocket::Poll recvfrom() errno=%d for %s:%u on %s:%u", fd, error,
                          remote.c_str(), rem_sin.Port(), local.c_str(), loc_sin.Port());
    }
    publish(state, int{SSDisconnected});
    make_control(buf, 1, Failed, error);
  } else if (received == 0) {
    if (seen(type) == SOCK_DGRAM) {
      buf->Free();
      return nullptr;
    }
    if (seen(trace) != 0)
      diagnostics().Print("%d AsyncSocket::Poll - recvfrom returned zero - normal close", fd);
    publish(state, int{SSDisconnected});
    make_control(buf, 1, Normal, 0);
    publish(running, false);
  } else {
    buf->length = static_cast<UWORD>(received);
    if (seen(type) == SOCK_DGRAM) std::memcpy(buf->data - kSender_bytes, &from.sin, kSender_bytes);
  }
  if (seen(trace) >= 2) {
    const SockAddr& sender = seen(type) == SOCK_DGRAM ? from : rem_sin;
    const AddressText remote(sender);
    diagnostics().Print("%d AsyncSocket::Poll - Received %d bytes from %s:%u", fd, buf->length,
                        remote.c_str(), sender.Port());
    buf->Print();
  }
  return buf;
}

// ---- Accepting ---------------------------------------------------------------------------------------------

void AsyncSocket::queue_connection(int descriptor, SockAddr& peer) {
  auto* const link = new (std::nothrow) SocketLink(descriptor, peer);
  if (link == nullptr) {
    close(descriptor);
    return;
  }
  const SectionLock lock(&local_cs);
  listenq.Append(link);
}

void AsyncSocket::accept_one() {
  SockAddr peer;
  socklen_t length = sizeof(sockaddr_in);
  const int fd = accept(seen(s), peer, &length);
  if (fd == -1) {
    const int error = errno;
    if (error == EAGAIN) return;  // the report of readiness was out of date
    const bool exhausted = error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
    if (!exhausted || may_report_exhaustion())
      diagnostics().Print("%d AsyncSocket::Poll - accept error %d", seen(s), error);
    // The connection stays in the backlog and the descriptor readable until descriptors return.
    if (exhausted || (error != ECONNABORTED && error != EINTR)) {
      SocketMonitor::retry_later_locked(this, kAcceptBackOff_ms);
    }
    return;
  }
  if (seen(trace) != 0) {
    const AddressText remote(peer);
    diagnostics().Print("%d AsyncSocket::Poll - new connection %d from %s, %u", seen(s), fd, remote.c_str(),
                        peer.Port());
  }
  queue_connection(fd, peer);
}

/// A listener without descriptors left says so at most once a second.
bool AsyncSocket::may_report_exhaustion() {
  const ULONG now = os_clock();
  if (exhaustion_reported_ && os_expired(exhaustion_at_, kAcceptTextEvery_ms) == FALSE) return false;
  exhaustion_reported_ = true;
  exhaustion_at_ = now;
  return true;
}
