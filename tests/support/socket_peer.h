/// Plain peers on the loopback interface for the tests of the networking layer: what stands at the other end of the
/// wire. Every wait is bounded; ports are the system's choice.
///
/// Operations that could wait give up after kPeerPatienceMs and tell it by their result (false, an empty text, no
/// descriptor), so that a test fails at the line that expected more. Any thread, one at a time per object.
#ifndef OSKERNEL_TESTS_SOCKET_PEER_H
#define OSKERNEL_TESTS_SOCKET_PEER_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "kernel/types.h"

namespace oskernel_test {

inline constexpr int kPeerPatienceMs = 20000;

/// Owns a descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

/// Waits until one of `events` is reported, or an error or the end of the connection. False when the time is over.
inline bool wait_for_events(int fd, short events, int timeout_ms = kPeerPatienceMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
            .count();
    pollfd waiting = {fd, events, 0};
    const int ready = ::poll(&waiting, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

inline bool wait_readable(int fd, int timeout_ms = kPeerPatienceMs) {
  return wait_for_events(fd, POLLIN, timeout_ms);
}

inline sockaddr_in loopback_address(UWORD port, const char* address = "127.0.0.1") {
  sockaddr_in sin = {};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(port);
  sin.sin_addr.s_addr = inet_addr(address);
  return sin;
}

inline UWORD local_port_of(int fd) {
  sockaddr_in sin = {};
  socklen_t length = sizeof sin;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &length) != 0) return 0;
  return ntohs(sin.sin_port);
}

/// A socket bound to a port of 127.0.0.1 that was free, or to `port`.
inline Descriptor bound_socket(int type, UWORD port = 0) {
  Descriptor fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in sin = loopback_address(port);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&sin), sizeof sin) != 0) fd.reset();
  return fd;
}

/// One end of a TCP connection, without Nagle's delay.
class PeerStream {
 public:
  PeerStream() = default;
  explicit PeerStream(Descriptor fd) : fd_(std::move(fd)) {
    const int on = 1;
    ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::fcntl(fd_.get(), F_SETFL, ::fcntl(fd_.get(), F_GETFL) | O_NONBLOCK);
  }

  /// Connects to 127.0.0.1. Not open when that fails.
  static PeerStream connect_to(UWORD port) {
    Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in sin = loopback_address(port);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sin), sizeof sin) != 0) {
      int error = errno;
      socklen_t length = sizeof error;
      if (error != EINPROGRESS || !wait_for_events(fd.get(), POLLOUT) ||
          ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        return {};
      }
    }
    return PeerStream(std::move(fd));
  }

  bool is_open() const { return fd_.is_open(); }
  int fd() const { return fd_.get(); }
  UWORD local_port() const { return local_port_of(fd_.get()); }
  /// A small window makes an unread stream stop its sender soon. Before there is traffic.
  void set_receive_buffer(int bytes) { ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes); }

  bool send_all(std::string_view bytes, int timeout_ms = kPeerPatienceMs) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        bytes.remove_prefix(static_cast<std::size_t>(sent));
      } else if (sent < 0 && errno == EAGAIN) {
        if (!wait_for_events(fd_.get(), POLLOUT, timeout_ms)) return false;
      } else if (sent == 0 || errno != EINTR) {
        return false;
      }
    }
    return true;
  }
  /// Sends one byte of urgent data.
  bool send_urgent(char byte) { return ::send(fd_.get(), &byte, 1, MSG_OOB | MSG_NOSIGNAL) == 1; }

  /// Exactly `count` bytes; fewer when the stream ends or time runs out before.
  std::string receive(std::size_t count, int timeout_ms = kPeerPatienceMs) {
    std::string bytes;
    while (bytes.size() < count && receive_some(&bytes, count - bytes.size(), timeout_ms)) {
    }
    return bytes;
  }
  /// Everything up to the end of the stream.
  std::string receive_to_end(int timeout_ms = kPeerPatienceMs) {
    std::string bytes;
    while (receive_some(&bytes, 65536, timeout_ms)) {
    }
    return bytes;
  }
  /// What is there now, without waiting for more.
  std::string receive_now() {
    std::string bytes;
    while (receive_some(&bytes, 65536, 0)) {
    }
    return bytes;
  }
  /// Appends up to `count` bytes, at least one. False at the end, after an error, and when time runs out.
  bool receive_some(std::string* bytes, std::size_t count, int timeout_ms = kPeerPatienceMs) {
    char piece[16384];
    for (;;) {
      const ssize_t got = ::recv(fd_.get(), piece, count < sizeof piece ? count : sizeof piece, MSG_DONTWAIT);
      if (got > 0) {
        bytes->append(piece, static_cast<std::size_t>(got));
        return true;
      }
      if (got == 0 || (errno != EAGAIN && errno != EINTR)) return false;
      if (!wait_readable(fd_.get(), timeout_ms)) return false;
    }
  }
  /// Waits until the other end has closed or reset the connection; unread bytes are thrown away.
  bool ended(int timeout_ms = kPeerPatienceMs) {
    char piece[16384];
    for (;;) {
      if (!wait_readable(fd_.get(), timeout_ms)) return false;
      const ssize_t got = ::recv(fd_.get(), piece, sizeof piece, MSG_DONTWAIT);
      if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
  }

  /// Says that nothing more is sent; still receives.
  void half_close() { ::shutdown(fd_.get(), SHUT_WR); }
  void close() { fd_.reset(); }
  /// Ends the connection with a reset.
  void reset() {
    const linger now = {1, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    fd_.reset();
  }
  /// The bare descriptor, for a socket of the library that adopts it. It blocks, as a new one does.
  int release() {
    ::fcntl(fd_.get(), F_SETFL, ::fcntl(fd_.get(), F_GETFL) & ~O_NONBLOCK);
    return fd_.release();
  }

 private:
  Descriptor fd_;
};

/// Waits for connections on a port of 127.0.0.1.
class PeerListener {
 public:
  explicit PeerListener(int backlog = 64) : fd_(bound_socket(SOCK_STREAM)) { ::listen(fd_.get(), backlog); }

  UWORD port() const { return local_port_of(fd_.get()); }
  int fd() const { return fd_.get(); }
  /// A connection inherits this. Before there is one.
  void set_receive_buffer(int bytes) { ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes); }
  /// Not open when nobody comes.
  PeerStream accept(int timeout_ms = kPeerPatienceMs) {
    ::fcntl(fd_.get(), F_SETFL, ::fcntl(fd_.get(), F_GETFL) | O_NONBLOCK);
    for (;;) {
      if (!wait_readable(fd_.get(), timeout_ms)) return {};
      const int accepted = ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (accepted >= 0) return PeerStream(Descriptor(accepted));
      if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) return {};
    }
  }
  void close() { fd_.reset(); }

 private:
  Descriptor fd_;
};

/// A port of 127.0.0.1 that nobody listens on, and nobody can take meanwhile: every connection is refused.
class RefusingPort {
 public:
  RefusingPort() : fd_(bound_socket(SOCK_STREAM)) {}
  UWORD port() const { return local_port_of(fd_.get()); }

 private:
  Descriptor fd_;
};

/// A port of 127.0.0.1 whose connections stay half made: the queue of the listener is full and nobody takes from
/// it, until admit() or refuse().
class FullPort {
 public:
  FullPort() : held_(bound_socket(SOCK_STREAM)), fd_(bound_socket(SOCK_STREAM, port())) {
    ::listen(fd_.get(), 0);
    for (Descriptor& filler : fillers_) {
      filler.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      const sockaddr_in sin = loopback_address(port());
      ::connect(filler.get(), reinterpret_cast<const sockaddr*>(&sin), sizeof sin);
      wait_for_events(filler.get(), POLLOUT, 50);
    }
  }
  UWORD port() const { return local_port_of(held_.get()); }
  /// Refuses the waiting connections from now on, when the system tries again. Nobody else gets the port meanwhile.
  void refuse() {
    for (Descriptor& filler : fillers_) filler.reset();
    fd_.reset();
  }
  /// Lets the waiting connections in; the system tries again about a second after the first attempt.
  void admit() {
    for (Descriptor& filler : fillers_) filler.reset();
    ::listen(fd_.get(), 16);
  }
  /// The first connection that sends something or comes from `from_port`; the fillers' ends are dropped.
  PeerStream accept_from(UWORD from_port, int timeout_ms = kPeerPatienceMs) {
    for (;;) {
      if (!wait_readable(fd_.get(), timeout_ms)) return {};
      sockaddr_in from = {};
      socklen_t length = sizeof from;
      Descriptor accepted(::accept4(fd_.get(), reinterpret_cast<sockaddr*>(&from), &length, SOCK_CLOEXEC));
      if (accepted.is_open() && ntohs(from.sin_port) == from_port) return PeerStream(std::move(accepted));
    }
  }

 private:
  Descriptor held_;
  Descriptor fd_;
  Descriptor fillers_[4];
};

/// A UDP socket on 127.0.0.1.
class PeerUdp {
 public:
  PeerUdp() : fd_(bound_socket(SOCK_DGRAM)) {}

  UWORD port() const { return local_port_of(fd_.get()); }
  int fd() const { return fd_.get(); }
  bool send_to(UWORD port, std::string_view bytes) {
    const sockaddr_in sin = loopback_address(port);
    return ::sendto(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&sin),
                    sizeof sin) == static_cast<ssize_t>(bytes.size());
  }
  /// The next datagram, and the port it came from. False when none comes.
  bool receive(std::string* bytes, UWORD* from_port = nullptr, int timeout_ms = kPeerPatienceMs) {
    if (!wait_readable(fd_.get(), timeout_ms)) return false;
    bytes->resize(65536);
    sockaddr_in from = {};
    socklen_t length = sizeof from;
    const ssize_t got = ::recvfrom(fd_.get(), bytes->data(), bytes->size(), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&from), &length);
    bytes->resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    if (from_port != nullptr) *from_port = ntohs(from.sin_port);
    return got >= 0;
  }
  /// The text of the next datagram; "(none)" when none comes.
  std::string receive_text(int timeout_ms = kPeerPatienceMs) {
    std::string bytes;
    return receive(&bytes, nullptr, timeout_ms) ? bytes : "(none)";
  }

 private:
  Descriptor fd_;
};

/// How many bytes wait to be read from a descriptor.
inline int bytes_waiting(int fd) {
  int count = -1;
  ::ioctl(fd, FIONREAD, &count);
  return count;
}

}  // namespace oskernel_test

#endif
