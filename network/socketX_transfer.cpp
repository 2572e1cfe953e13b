// The blocking socket: waiting, receiving, sending, and the queue of what is to be sent.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "kernel/kernel.h"
#include "kernel/posixkernel_time.h"
#include "network/asocketX_priv.h"
#include "network/socketX.h"
#include "network/socketX_priv.h"

namespace {

/// The byte form gives up after so long without a byte.
constexpr int kSilence_ms = 10000;
/// `length` of a buffer has 16 bits.
constexpr int kMostRead_bytes = 65535;
/// What OSBuf::Alloc looks at of a size.
constexpr int kMostPooled_bytes = 0x7FFF;

// What the outcomes of the byte form are called.
constexpr int kDone = 0;
constexpr int kException = 1;
constexpr int kNotReadable = 2;
constexpr int kSilent = 3;
constexpr int kFailed = -1;

void free_array(OSObj* array, ADDR /*unused*/, ULONG /*unused*/) { delete[] reinterpret_cast<UBYTE*>(array); }

bool pools_have_class_for(int bytes) {
  if (bytes > kMostPooled_bytes) return false;
  for (int i = 1; i < 4; ++i) {
    if (KERNELCFG->buf_qty[i] > 0 && KERNELCFG->buf_size[i] > bytes) return true;
  }
  return false;
}

void fill(fd_set* set, int fd, bool member) {
  FD_ZERO(set);
  if (member && fd >= 0 && fd < FD_SETSIZE) FD_SET(fd, set);
}

}  // namespace

// ---- Waiting -----------------------------------------------------------------------------------------------

Readiness wait_ready(int fd, short events, int timeout_ms) {
  constexpr unsigned kReadable = POLLIN | POLLRDNORM | POLLRDBAND | POLLHUP | POLLERR;
  constexpr unsigned kWritable = POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR;
  const auto asked = static_cast<unsigned>(events);
  Readiness ready = {-1, (asked & POLLIN) != 0, (asked & POLLOUT) != 0, (asked & POLLPRI) != 0};
  if (fd < 0 || timeout_ms < 0) {
    errno = fd < 0 ? EBADF : EINVAL;
    return ready;
  }
  pollfd one = {fd, events, 0};
  const int woken = poll(&one, 1, timeout_ms);
  if (woken == -1) return ready;
  const auto found = static_cast<unsigned>(one.revents);
  if ((found & POLLNVAL) != 0) {
    errno = EBADF;
    return ready;
  }
  ready.readable = ready.readable && (found & kReadable) != 0;
  ready.writable = ready.writable && (found & kWritable) != 0;
  ready.exceptional = ready.exceptional && (found & POLLPRI) != 0;
  ready.count = std::max(int{ready.readable} + int{ready.writable} + int{ready.exceptional}, woken);
  return ready;
}

int time_left(ULONG start_ms, int timeout_ms) {
  const ULONG passed = os_clock() - start_ms;
  const auto allowed = static_cast<ULONG>(std::max(timeout_ms, 0));
  return passed >= allowed ? 0 : static_cast<int>(allowed - passed);
}

/// Waits until the descriptor is readable or urgent data is there, and leaves in readfds and exceptfds what select(2)
/// would.
///   returns   how many of both are; -1 when the wait failed: then both count as there, see wait_ready
int Socket::wait_for_input(int timeout_ms, bool* readable, bool* exceptional) {
  const Readiness ready = wait_ready(s, POLLIN | POLLPRI, timeout_ms);
  *readable = ready.readable;
  *exceptional = ready.exceptional;
  fill(&readfds, s, ready.readable);
  fill(&exceptfds, s, ready.exceptional);
  return ready.count;
}

/// What a wait that has not run out of time says: 0 when there is something to read.
int Socket::check_input(const char* who, bool readable, bool exceptional) {
  if (readable && !exceptional) return kDone;
  state = INVALID;
  if (exceptional) {
    diagnostics().Print("%s::RecWait: exception condition on socket", who);
    return kException;
  }
  diagnostics().Print("%s::RecWait: socket not ready", who);
  return kNotReadable;
}

// ---- Receiving ---------------------------------------------------------------------------------------------

OSBuf* alloc_for_reading(int bytes) {
  if (!pools_have_class_for(bytes)) return alloc_array_buffer(bytes, free_array);
  OSBuf* const buf = OSBuf::Alloc(bytes);
  if (buf != nullptr) buf->data -= bytes;
  return buf;
}

/// How many bytes wait; -1 after a line. At the end of the stream and on failure the socket is INVALID.
int Socket::waiting_bytes() {
  int waiting = 0;
  if (ioctl(s, FIONREAD, &waiting) != 0) {
    diagnostics().Print("Socket::RecWait: ioctlsocket(FIONREAD) %d", errno);
    waiting = -1;
  }
  if (waiting == 0 && is_datagram_descriptor()) drop_empty_datagram();
  if (waiting <= 0) state = INVALID;
  return waiting;
}

// An empty datagram has no bytes that could be read; left where it is, it would hide all that come behind it.
void Socket::drop_empty_datagram() {
  UBYTE none = 0;
  if (recv(s, &none, sizeof none, MSG_DONTWAIT | MSG_PEEK) == 0) recv(s, &none, sizeof none, MSG_DONTWAIT);
}

OSBuf* Socket::RecWait(int timeout_ms) {
  bool readable = false;
  bool exceptional = false;
  const int ready = wait_for_input(timeout_ms, &readable, &exceptional);
  if (ready == 0) return nullptr;
  if (ready != 1) {
    diagnostics().Print("Socket::RecWait: select() %d", errno);
    return nullptr;
  }
  if (check_input("Socket", readable, exceptional) != kDone) return nullptr;

  const int waiting = std::min(waiting_bytes(), kMostRead_bytes);
  if (waiting <= 0) return nullptr;
  OSBuf* const buf = alloc_for_reading(waiting);
  if (buf == nullptr) return nullptr;
  const auto received = static_cast<int>(recv(s, buf->data, static_cast<std::size_t>(waiting), 0));
  if (received == -1) {
    diagnostics().Print("Socket::RecWait: recv %d", errno);
    buf->Free();
    state = INVALID;
    return nullptr;
  }
  if (received != waiting) diagnostics().Print("Socket::RecWait: expected %d, got %d", waiting, received);
  buf->length = static_cast<UWORD>(received);
  return buf;
}

int Socket::RecWait(UBYTE* buf, int len) {
  for (int missing = len; missing > 0;) {
    bool readable = false;
    bool exceptional = false;
    if (wait_for_input(kSilence_ms, &readable, &exceptional) == 0) return kSilent;
    const int verdict = check_input("Socket", readable, exceptional);
    if (verdict != kDone) return verdict;
    const int waiting = waiting_bytes();
    if (waiting <= 0) return kFailed;
    const auto received =
        static_cast<int>(recv(s, buf, static_cast<std::size_t>(std::min(waiting, missing)), 0));
    if (received <= 0) {
      if (received == -1) diagnostics().Print("Socket::RecWait: recv %d", errno);
      state = INVALID;
      return kFailed;
    }
    buf += received;
    missing -= received;
  }
  return kDone;
}

// ---- Sending -----------------------------------------------------------------------------------------------

OSIORetCode Socket::DataIndication(OSBuf* buf) {
  const bool failed = send(s, buf->data, buf->length, MSG_NOSIGNAL) == -1;
  const int error = errno;
  buf->Free();
  if (!failed) return Success;
  report_failure("Socket::DataIndication: send()", error, remote_sin);
  state = INVALID;
  return NoConnection;
}

OSIORetCode Socket::DataExpeditedIndication(OSBuf* /*buf*/) { return Success; }

OSIORetCode Socket::DatagramIndication(OSBuf* /*buf*/, void* /*remote*/, void* /*local*/) { return Success; }

OSIORetCode Socket::SendTo(OSBuf* buf, ULONG addr, UWORD port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(addr);
  to.sin_port = htons(port);
  const auto* const name = reinterpret_cast<const sockaddr*>(&to);
  const bool failed = sendto(s, buf->data, buf->length, MSG_NOSIGNAL, name, sizeof to) == -1;
  const int error = errno;
  buf->Free();
  if (!failed) return Success;
  report_failure("Socket::SendTo: sendto()", error, to);
  state = INVALID;
  return NoConnection;
}

// Not by OSStream::Add, which merges small buffers: the buffers of a datagram socket must go out one by one. The
// stream's byte count is kept as Add keeps it.
int Socket::Queue(OSBuf* buf) {
  const int before = queue.Size();
  const UWORD bytes = buf->length;
  queue.Append(buf);
  if (queue.Size() != before) queue.total_length += bytes;
  return 0;
}

int Socket::FlushQueue(bool verbose) {
  if (verbose) diagnostics().Print("Socket::FlushQueue() size=%d to %s", queue.Size(), RemoteIPText());
  while (OSBuf* const buf = queue.Get()) DataIndication(buf);
  return 0;
}
