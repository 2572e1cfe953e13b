/// A name server on port 53 of a network namespace of the test's own that answers what the test makes up.
///
///     OSKERNEL_IN_NETWORK_NAMESPACE();
///     ScriptedNameServer server([](const std::string& question) {
///       DnsWire wire = answer_to(question);
///       wire.answer(dns_pointer(12), T_A, 300, rdata_a(0xC0000201));
///       return Datagrams{wire.bytes()};
///     });
#ifndef OSKERNEL_TESTS_SCRIPTED_NAME_SERVER_H
#define OSKERNEL_TESTS_SCRIPTED_NAME_SERVER_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dns_messages.h"
#include "socket_peer.h"

namespace oskernel_test {

using Datagrams = std::vector<std::string>;

/// An answer without records to a message that DnsLookup has sent: its ID, and its question, whose name stands at
/// offset 12.
inline DnsWire answer_to(const std::string& question, unsigned opts = 0x8180) {
  const auto byte = [&](std::size_t i) { return i < question.size() ? static_cast<UBYTE>(question[i]) : 0U; };
  DnsWire wire(byte(0) << 8U | byte(1), opts);
  if (question.size() > DnsWire::kHeader_bytes) wire.put(0, question.substr(DnsWire::kHeader_bytes));
  return wire;
}

/// Hears every address of its namespace. Answers on a thread of its own.
class ScriptedNameServer {
 public:
  /// The datagrams that go back for one that has come; none for silence.
  using Script = std::function<Datagrams(const std::string& question)>;

  static Datagrams silence(const std::string& /*question*/) { return {}; }

  explicit ScriptedNameServer(Script script = silence)
      : script_(std::move(script)),
        fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
        stop_(::eventfd(0, EFD_CLOEXEC)) {
    constexpr UWORD kPort = 53;
    sockaddr_in own = loopback_address(kPort);
    own.sin_addr.s_addr = htonl(INADDR_ANY);
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0)
        << std::strerror(errno);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedNameServer() {
    const std::uint64_t one = 1;
    EXPECT_EQ(::write(stop_.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
    thread_.join();
  }
  ScriptedNameServer(const ScriptedNameServer&) = delete;
  ScriptedNameServer& operator=(const ScriptedNameServer&) = delete;

  /// From the next question on.
  void answer_by(Script script) {
    const std::lock_guard<std::mutex> lock(mutex_);
    script_ = std::move(script);
  }

  /// What has come so far.
  std::vector<std::string> questions() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return questions_;
  }
  /// Waits until so many questions have come and been answered, or not.
  bool wait_for_questions(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return done_.wait_for(lock, std::chrono::milliseconds(kPeerPatienceMs),
                          [&] { return answered_ >= count; });
  }

 private:
  void serve() {
    for (;;) {
      pollfd wait[2] = {{fd_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
      if (::poll(wait, 2, -1) < 0) continue;
      if (wait[1].revents != 0) return;
      char bytes[65536];
      sockaddr_in from = {};
      socklen_t length = sizeof from;
      const ssize_t got = ::recvfrom(fd_.get(), bytes, sizeof bytes, MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&from), &length);
      if (got < 0) continue;
      const std::string question(bytes, static_cast<std::size_t>(got));
      Script script;
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        script = script_;
        questions_.push_back(question);  // before whoever has the answer looks
      }
      for (const std::string& answer : script(question)) {
        ::sendto(fd_.get(), answer.data(), answer.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&from), length);
      }
      const std::lock_guard<std::mutex> lock(mutex_);
      ++answered_;
      done_.notify_all();
    }
  }

  mutable std::mutex mutex_;
  std::condition_variable done_;
  Script script_;
  std::vector<std::string> questions_;
  std::size_t answered_ = 0;
  const Descriptor fd_, stop_;
  std::thread thread_;
};

}  // namespace oskernel_test

#endif
