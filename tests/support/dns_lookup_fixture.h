/// What the tests of DnsLookup share: a name server to which everything goes that the library sends to port 53, and the
/// networking layer with a resolver that the test holds.
///
/// Include it in one source of a program: it takes the place of gethostbyname and of system calls.
#ifndef OSKERNEL_TESTS_DNS_LOOKUP_FIXTURE_H
#define OSKERNEL_TESTS_DNS_LOOKUP_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dns_lookup_probe.h"
#include "interposed_calls.h"
#include "name_cache_fixture.h"
#include "socket_pairs.h"

namespace oskernel_test {

/// A datagram that the library has given to sendto(2).
struct SentDatagram {
  std::string bytes;
  SockAddr to;
  int fd = -1;
  pid_t thread = 0;
  int class_levels = 0;  ///< of AsyncSocket::cs, on the sending thread
  int cache_levels = 0;  ///< of DNSEntry::cs
};

/// Everything that is sent to a port comes here while the object lives, whatever address it was meant for.
class NameServer {
 public:
  /// Sees a datagram on the thread that sends it, before it goes or afterwards.
  using Watch = std::function<void(const SentDatagram&)>;
  /// What a question is answered with; nothing for silence.
  using Script = std::function<std::optional<std::string>(const std::string& question)>;

  explicit NameServer(UWORD instead_of = kDnsPort) : seen_(std::make_shared<Seen>()) {
    const std::shared_ptr<Seen> seen = seen_;
    const sockaddr_in own = loopback_address(peer_.port());
    calls().sendto.replace([seen, own, instead_of](auto real, int fd, const void* bytes, size_t count,
                                                   int flags, const sockaddr* to,
                                                   socklen_t length) -> ssize_t {
      sockaddr_in meant = {};
      if (to == nullptr || length < sizeof meant) return real(fd, bytes, count, flags, to, length);
      std::memcpy(&meant, to, sizeof meant);
      if (meant.sin_port != htons(instead_of)) return real(fd, bytes, count, flags, to, length);
      SentDatagram sent;
      sent.bytes.assign(static_cast<const char*>(bytes), count);
      sent.to = reinterpret_cast<sockaddr*>(&meant);
      sent.fd = fd;
      sent.thread = gettid();
      sent.class_levels = levels_inside(AsyncSocket::cs);
      sent.cache_levels = levels_inside(DNSEntry::cs);
      Watch before, after;
      {
        const std::lock_guard<std::mutex> lock(seen->mutex);
        before = seen->before;
        after = seen->after;
      }
      if (before) before(sent);
      const ssize_t result =
          real(fd, bytes, count, flags, reinterpret_cast<const sockaddr*>(&own), sizeof own);
      const int error = errno;
      if (result >= 0) {
        const std::lock_guard<std::mutex> lock(seen->mutex);
        seen->sent.push_back(sent);
      }
      if (after) after(sent);
      errno = error;
      return result;
    });
  }
  ~NameServer() {
    stop();
    calls().sendto.restore();
  }
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;

  void watch_before(Watch watch) {
    const std::lock_guard<std::mutex> lock(seen_->mutex);
    seen_->before = std::move(watch);
  }
  void watch_after(Watch watch) {
    const std::lock_guard<std::mutex> lock(seen_->mutex);
    seen_->after = std::move(watch);
  }

  /// What has been sent so far, in order; what the system refused is not among it.
  std::vector<SentDatagram> sent() const {
    const std::lock_guard<std::mutex> lock(seen_->mutex);
    return seen_->sent;
  }
  std::vector<std::string> sent_bytes() const {
    std::vector<std::string> found;
    for (const SentDatagram& datagram : sent()) found.push_back(datagram.bytes);
    return found;
  }
  /// The last one; one without bytes when there is none.
  SentDatagram last() const {
    const std::vector<SentDatagram> all = sent();
    return all.empty() ? SentDatagram() : all.back();
  }

  /// Sends a datagram to a port of this machine.
  bool send_to(UWORD port, const std::string& bytes) { return peer_.send_to(port, bytes); }
  bool send_to(const DnsLookup& lookup, const std::string& bytes) {
    return send_to(local_port_of(now_of(lookup.socket->s)), bytes);
  }
  UWORD port() const { return peer_.port(); }

  /// Answers from now on, on a thread of its own, until stop().
  void answer_by(Script script) {
    thread_ = std::thread([this, answer = std::move(script)] {
      std::string question;
      UWORD from = 0;
      while (!stopping_) {
        if (!peer_.receive(&question, &from) || question.empty()) continue;
        if (const std::optional<std::string> bytes = answer(question)) peer_.send_to(from, *bytes);
      }
    });
  }
  void stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    PeerUdp().send_to(peer_.port(), "");
    thread_.join();
    stopping_ = false;
  }

 private:
  struct Seen {
    std::mutex mutex;
    std::vector<SentDatagram> sent;
    Watch before, after;
  };

  PeerUdp peer_;
  const std::shared_ptr<Seen> seen_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

/// The name of a question as text; empty when it is none.
inline std::string asked_name(const std::string& question) {
  std::string text;
  for (std::size_t at = DnsWire::kHeader_bytes; at < question.size() && question[at] != 0;) {
    const auto length = static_cast<unsigned char>(question[at]);
    text += (text.empty() ? "" : ".") + question.substr(at + 1, length);
    at += length + 1U;
  }
  return text;
}

/// Callbacks, answers and results of the name cache come when the test dispatches.
class QuietLookups : public NameCache {
 protected:
  void TearDown() override {
    calls().restore_all();
    NameCache::TearDown();
  }
  /// Dispatches until the asker has been told so often in all.
  bool told(std::size_t calls) {
    return dispatch_until([this, calls] { return asker_.finished() >= calls; });
  }
  /// What has been sent to a socket of the library by now has been handed on. With nothing on the way, nothing happens.
  static void settle() {
    MonitorBeat beat;
    EXPECT_TRUE(beat.passes());
    os_check_triggers();
  }
  static int buffers_out() { return PoolState::now().buffers_out; }

  Asker asker_;
};

/// The same with the kernel's own trigger task.
class RunningLookups : public NetworkTest {
 protected:
  void SetUp() override {
    FakeResolver::reset();
    NetworkTest::SetUp();
  }
  void TearDown() override {
    FakeResolver::release();
    calls().restore_all();
    NetworkTest::TearDown();
  }

  Asker asker_;
};

}  // namespace oskernel_test

#endif
