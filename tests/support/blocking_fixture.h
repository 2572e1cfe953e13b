/// What the tests of the blocking sockets share: sockets with a plain peer at the other end, and a fixture that sees
/// every buffer, descriptor and registration gone.
#ifndef OSKERNEL_TESTS_BLOCKING_FIXTURE_H
#define OSKERNEL_TESTS_BLOCKING_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "network/socket.h"
#include "network_fixture.h"
#include "ring_check.h"
#include "socket_peer.h"

namespace oskernel_test {

inline constexpr ULONG kLoopback = 0x7F000001;  ///< 127.0.0.1

/// What printf makes of it.
__attribute__((format(printf, 1, 2))) inline std::string line(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

/// The bytes of a buffer, which is freed; "(null)" for none.
inline std::string taken(OSBuf* buf) {
  if (buf == nullptr) return "(null)";
  std::string text(reinterpret_cast<const char*>(buf->data), buf->length);
  buf->Free();
  return text;
}

/// The IPv4 addresses of a host entry, host order.
inline std::vector<ULONG> addresses_of(const hostent& entry) {
  std::vector<ULONG> found;
  for (char** at = entry.h_addr_list; at != nullptr && *at != nullptr; ++at) {
    in_addr address = {};
    std::memcpy(&address, *at, sizeof address);
    found.push_back(ntohl(address.s_addr));
  }
  return found;
}

inline bool is_nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

/// Counts SIGPIPE while it lives. One at a time.
class PipeSignalWatch {
 public:
  PipeSignalWatch() {
    caught_ = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++caught_; };
    sigaction(SIGPIPE, &action, &before_);
  }
  ~PipeSignalWatch() { sigaction(SIGPIPE, &before_, nullptr); }
  PipeSignalWatch(const PipeSignalWatch&) = delete;
  PipeSignalWatch& operator=(const PipeSignalWatch&) = delete;

  int caught() const { return caught_; }

 private:
  static inline std::atomic<int> caught_{0};
  struct sigaction before_ = {};
};

/// The sockets on the registry, in order.
inline std::vector<Socket*> registered_sockets() {
  std::vector<Socket*> found;
  EnterCriticalSection(&Socket::cs);
  EXPECT_TRUE(ListIsSound(Socket::socket_list));
  for (OSLink* node : ring_nodes(Socket::socket_list)) {
    found.push_back(static_cast<Socket*>(static_cast<OSListObj*>(node->object)));
  }
  LeaveCriticalSection(&Socket::cs);
  return found;
}

/// A client descriptor and the peer that it is connected to.
struct WirePair {
  int fd = -1;  ///< the near end, in blocking mode; whoever uses it closes it
  PeerStream peer;

  WirePair() {
    PeerListener listener;
    PeerStream near = PeerStream::connect_to(listener.port());
    peer = listener.accept();
    EXPECT_TRUE(near.is_open() && peer.is_open());
    fd = near.release();
  }
};

/// A blocking socket that wraps one end of a connection, and the plain peer at the other.
template <class Kind = Socket>
struct Wrapped {
  PeerStream peer;
  std::unique_ptr<Kind> socket;

  Wrapped() {
    WirePair wire;
    peer = std::move(wire.peer);
    sockaddr_in remote = loopback_address(peer.local_port());
    socket = std::make_unique<Kind>(Kind::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  }
  Kind* operator->() const { return socket.get(); }
};

/// What has been printed, one text for each call, without the ends of lines.
inline std::vector<std::string> lines_of(const RecordingConsole& console) {
  std::vector<std::string> lines = console.calls();
  for (std::string& line : lines) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  }
  return lines;
}

/// The kernel without threads of its own; at the end everything is home again.
class BlockingTest : public QuietNetworkTest {
 protected:
  using Lines = std::vector<std::string>;

  void SetUp() override {
    QuietNetworkTest::SetUp();
    Socket::Init(0);
    Socket::local_ipaddr = 0;
  }
  void TearDown() override {
    EXPECT_TRUE(registered_sockets().empty()) << "every socket has taken itself off the registry";
    Socket::local_ipaddr = 0;
    QuietNetworkTest::TearDown();
  }

  /// Everything that has been printed since the last call, line by line.
  Lines said() {
    Lines lines = lines_of(console);
    console.clear();
    return lines;
  }
};

}  // namespace oskernel_test

#endif
