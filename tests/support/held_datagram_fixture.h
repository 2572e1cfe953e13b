/// A datagram socket that waits for the name of its peer, and what it sends.
///
/// Include it in one source of a program: it interposes sendto.
#ifndef OSKERNEL_TESTS_HELD_DATAGRAM_FIXTURE_H
#define OSKERNEL_TESTS_HELD_DATAGRAM_FIXTURE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "interposed_calls.h"
#include "name_cache_fixture.h"
#include "socket_pairs.h"
#include "socket_watch.h"

namespace oskernel_test {

inline constexpr int kMostHeld = 8;

/// The destinations of everything that the library gives to sendto(2) while the object lives, "address:port" each.
class Destinations {
 public:
  Destinations() : seen_(std::make_shared<Seen>()) {
    calls().sendto.replace([seen = seen_](auto real, int fd, const void* bytes, size_t count, int flags,
                                          const sockaddr* to, socklen_t length) -> ssize_t {
      if (to != nullptr && (flags & MSG_DONTWAIT) != 0) {
        const SockAddr address(const_cast<sockaddr*>(to));
        const std::lock_guard<std::mutex> lock(seen->mutex);
        seen->all.push_back(text_of("%s:%u", inet_ntoa(address.sin.sin_addr), ntohs(address.sin.sin_port)));
        if (seen->error != 0) {
          errno = seen->error;
          return -1;
        }
      }
      return real(fd, bytes, count, flags, to, length);
    });
  }
  ~Destinations() { calls().sendto.restore(); }
  Destinations(const Destinations&) = delete;
  Destinations& operator=(const Destinations&) = delete;

  std::vector<std::string> all() const {
    const std::lock_guard<std::mutex> lock(seen_->mutex);
    return seen_->all;
  }
  /// Every datagram is refused from now on; 0 for none.
  void refuse(int error) {
    const std::lock_guard<std::mutex> lock(seen_->mutex);
    seen_->error = error;
  }

 private:
  struct Seen {
    std::mutex mutex;
    std::vector<std::string> all;
    int error = 0;
  };
  const std::shared_ptr<Seen> seen_;
};

/// Keeps the control buffers that would go up.
class ControlProbe : public AsyncSocket {
 public:
  explicit ControlProbe(bool indirect) : AsyncSocket(indirect) {}
  void ProcessData(OSBuf* buf) override {
    ++calls;
    length = buf->length;
    bytes.assign(reinterpret_cast<const char*>(buf->data), 6);
    held = early(*this);
    buf->Free();
  }
  std::atomic<int> calls{0};
  int held = -1;
  int length = -1;
  std::string bytes;
};

class SocketHeldDatagram : public NameCache, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    NameCache::SetUp();
    FakeResolver::know("peer.test", kLoopback);
    FakeResolver::hold();
  }
  void TearDown() override {
    calls().restore_all();
    NameCache::TearDown();
  }
  OwnedSocket make() { return datagram_socket(&layer_, GetParam()); }
  using NameCache::datagram_socket;
  static OwnedSocket datagram_socket(RecordingLayer* layer, bool indirect) {
    return oskernel_test::datagram_socket(layer, indirect);
  }
  /// A socket that waits for the peer's name.
  OwnedSocket waiting() {
    OwnedSocket socket = make();
    EXPECT_EQ(socket->Connect("peer.test", peer_.port()), 0);
    return socket;
  }
  /// The name is found and told.
  static void find(std::size_t calls = 1) {
    FakeResolver::release();
    ASSERT_TRUE(delivered(calls));
  }
  static int buffers_out() { return PoolState::now().buffers_out; }
  std::string peers_address() { return text_of("127.0.0.1:%u", peer_.port()); }
  /// What has come to the peer by now, in order.
  static std::vector<std::string> received_by(PeerUdp& peer) {
    std::vector<std::string> texts;
    std::string bytes;
    while (peer.receive(&bytes, nullptr, 0)) texts.push_back(bytes);
    return texts;
  }

  PeerUdp peer_;
  RecordingLayer layer_;
};

}  // namespace oskernel_test

#endif
