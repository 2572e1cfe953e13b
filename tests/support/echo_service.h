/// A service of the library that sends back what it receives, over either framing, and clients that count on it.
#ifndef OSKERNEL_TESTS_ECHO_SERVICE_H
#define OSKERNEL_TESTS_ECHO_SERVICE_H

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "network_fixture.h"
#include "tpkt_packets.h"

namespace oskernel_test {

enum class Framing { kPlain, kTpkt };
inline const char* name_of(Framing framing) { return framing == Framing::kPlain ? "Plain" : "Tpkt"; }

inline AsyncSocket* new_socket(Framing framing) {
  return framing == Framing::kTpkt ? new TPKTSocket : new AsyncSocket(true);
}
/// A message as it stands on the wire.
inline std::string framed(Framing framing, std::string_view text) {
  return framing == Framing::kTpkt ? tpkt(text) : std::string(text);
}

/// Listens on the loopback interface. Each connection sends back what it receives and is freed, inside the indication,
/// when it ends; what is left is freed with the service.
class EchoService {
 public:
  explicit EchoService(Framing framing) : listener_(new_socket(framing)) {
    EXPECT_EQ(listener_->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    EXPECT_EQ(listener_->Listen(accepted, this), 0);
    port_ = listener_->LocalPort();
  }
  ~EchoService() {
    listener_->Free();
    std::set<Connection*> left;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      left.swap(live_);
    }
    for (Connection* connection : left) connection->end();
    EXPECT_TRUE(wait_until([this] { return accepted_ == ended_; }, kPatienceMs));
  }
  EchoService(const EchoService&) = delete;
  EchoService& operator=(const EchoService&) = delete;

  UWORD port() const { return port_; }
  /// Connections that have not ended, or whose socket is not gone yet.
  std::size_t live() const {
    const long ended = ended_;  // first, so that the difference is never negative
    return static_cast<std::size_t>(accepted_ - ended);
  }
  bool comes_down_to(std::size_t connections, int timeout_ms = kPatienceMs) {
    return wait_until([&] { return live() == connections; }, timeout_ms);
  }
  long accepted_count() const { return accepted_; }
  long ended_count() const { return ended_; }

 private:
  class Connection : public OSIO {
   public:
    Connection(EchoService* service, AsyncSocket* socket) : service_(service), socket_(socket) {}
    void start() {
      socket_->Bind(this);
      socket_->ConnectAck();
    }
    /// Frees the socket, and waits for the dispatcher to leave it, then this.
    void end() {
      EchoService* const service = service_;
      socket_->Free();
      delete this;
      ++service->ended_;
    }
    OSIORetCode DataIndication(OSBuf* buf) override { return socket_->DataIndication(buf); }
    OSIORetCode DisconnectIndication(OSIOReason, int) override {
      if (service_->forget(this)) end();
      return Success;
    }

   private:
    EchoService* service_;
    AsyncSocket* socket_;
  };

  static void accepted(OSObj* self, ADDR socket, ULONG) {
    auto* service = reinterpret_cast<EchoService*>(self);
    auto* connection = new Connection(service, static_cast<AsyncSocket*>(socket));
    ++service->accepted_;
    {
      const std::lock_guard<std::mutex> lock(service->mutex_);
      service->live_.insert(connection);
    }
    connection->start();
  }
  /// True for the one that may end the connection.
  bool forget(Connection* connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return live_.erase(connection) != 0;
  }

  AsyncSocket* listener_;
  UWORD port_ = 0;
  std::atomic<long> accepted_{0}, ended_{0};
  std::mutex mutex_;
  std::set<Connection*> live_;
};

/// Well-behaved peers of a service. All the time, on a thread of their own, each sends numbered messages of many
/// lengths and expects every one back, once, in order.
class Witnesses {
 public:
  Witnesses(Framing framing, UWORD port, int count) : framing_(framing) {
    for (int i = 0; i < count; ++i) {
      // One after the other: a listener's queue is short, and whom it turns away the system makes wait for a second.
      const std::string hello = framed(framing, "hello");
      peers_.push_back(PeerStream::connect_to(port));
      EXPECT_TRUE(peers_.back().is_open() && peers_.back().send_all(hello));
      EXPECT_EQ(peers_.back().receive(hello.size()), hello);
    }
    thread_ = std::thread([this] { run(); });
  }
  ~Witnesses() { stop(); }
  Witnesses(const Witnesses&) = delete;
  Witnesses& operator=(const Witnesses&) = delete;

  std::size_t count() const { return peers_.size(); }
  /// Waits until every one of them has been served so many more times.
  [[nodiscard]] bool are_served(int times = 3) {
    std::unique_lock<std::mutex> lock(mutex_);
    const long wanted = rounds_ + times;
    changed_.wait_for(lock, std::chrono::milliseconds(2 * kPatienceMs),
                      [&] { return rounds_ >= wanted || !complaint_.empty(); });
    EXPECT_EQ(complaint_, "");
    return rounds_ >= wanted;
  }
  /// Ends them; what they missed is the test's failure.
  void stop() {
    if (!thread_.joinable()) return;
    stop_ = true;
    thread_.join();
    EXPECT_EQ(complaint_, "");
    peers_.clear();
  }

 private:
  /// The lengths go round through short and long ones. One message at a time: what comes back in several pieces waits
  /// for the system's delayed acknowledgement, 40 ms a time.
  static std::string message(std::size_t peer, long number) {
    constexpr std::size_t kLengths[] = {1, 13, 200, 700, 1395};
    const std::string head = std::to_string(peer) + ":" + std::to_string(number) + ";";
    return head + numbered_payload(kLengths[static_cast<std::size_t>(number) % std::size(kLengths)],
                                   static_cast<unsigned>(number));
  }
  void run() {
    for (long round = 0; !stop_; ++round) {
      for (std::size_t i = 0; i < peers_.size(); ++i) {
        std::string bytes = framed(framing_, message(i, round));
        if (!peers_[i].send_all(bytes)) return complain("cannot send", i, round);
        expected_.push_back(std::move(bytes));
      }
      for (std::size_t i = 0; i < peers_.size(); ++i) {
        const std::string got = peers_[i].receive(expected_[i].size());
        if (got.size() != expected_[i].size()) return complain("does not get everything back", i, round);
        if (got != expected_[i]) return complain("gets something else back", i, round);
      }
      expected_.clear();
      const std::lock_guard<std::mutex> lock(mutex_);
      ++rounds_;
      changed_.notify_all();
    }
  }
  void complain(const char* what, std::size_t peer, long round) {
    const std::lock_guard<std::mutex> lock(mutex_);
    complaint_ = "witness " + std::to_string(peer) + " " + what + " in round " + std::to_string(round);
    changed_.notify_all();
  }

  Framing framing_;
  std::vector<PeerStream> peers_;
  std::vector<std::string> expected_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  long rounds_ = 0;
  std::string complaint_;
  std::thread thread_;
};

}  // namespace oskernel_test

#endif
