// A long run of everything at once: connections over both framings that come and go, timers, and messages that each
// carry a number. OSKERNEL_SOAK_SECONDS says how long, 15 when it does not.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "network/asocket.h"
#include "support/echo_service.h"
#include "support/network_fixture.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kPlainBuild = false;
constexpr int kConnections = 60;
#else
constexpr bool kPlainBuild = true;
constexpr int kConnections = 500;
#endif
constexpr unsigned kWindow = 4;  ///< messages on their way that a connection keeps up
constexpr unsigned kChain = 6;   ///< so many messages on the average for each that a timer sends
constexpr unsigned kWidest = 8;  ///< messages on their way that timers may make of it
/// Slow enough that all connections together leave the one dispatcher time for new ones.
constexpr int kShortestTimerMs = 20, kLongestTimerMs = 300;
constexpr int kStallMs = 30000;        ///< without a message for so long, the run has failed
constexpr std::size_t kAtTheDoor = 4;  ///< connections that are not served yet
constexpr int kProgressMs = 3000;
/// What the heap may differ by between two states that are the same to the library: the allocator's own caches of each
/// thread.
constexpr std::size_t kHeapNoise = 256 * 1024;

int soak_seconds() {
  const char* given = std::getenv("OSKERNEL_SOAK_SECONDS");
  return given != nullptr ? std::max(1, std::atoi(given)) : 15;
}

/// What every connection adds to.
struct Tally {
  std::atomic<long> sent{0}, answered{0}, abandoned{0};
  std::atomic<long> connections{0}, ended{0};

  void complain(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (complaints_.size() < 20) complaints_.push_back(text);
  }
  std::vector<std::string> complaints() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return complaints_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> complaints_;
};

/// The text of a message. Nothing of it can be taken for another one's.
std::string numbered_message(ULONG connection, unsigned number) {
  constexpr std::size_t kLengths[] = {0, 5, 40, 200, 640, 1300, 30, 90};
  std::string text = std::to_string(connection) + "/" + std::to_string(number) + "/";
  text.resize(text.size() + kLengths[(connection + number) % std::size(kLengths)],
              static_cast<char>('a' + number % 26));
  return text;
}

/// One connection: sends numbered messages to a service that sends them back, and checks that every one returns, once
/// and in order. Its socket's indications and its timer run on the dispatcher; the run starts and ends it.
class SoakClient : public std::enable_shared_from_this<SoakClient> {
 public:
  enum class End { kWhenAnswered, kAtOnce };

  SoakClient(ULONG id, Tally& tally, ULONG timer_ms, bool ends_itself)
      : id_(id), tally_(tally), ends_itself_(ends_itself), timer_(timer_ms, 1) {}
  virtual ~SoakClient() = default;
  SoakClient(const SoakClient&) = delete;
  SoakClient& operator=(const SoakClient&) = delete;

  /// Connects, and has something to send before that has happened. The run's thread.
  void start(UWORD port, OSCallbackFunction on_timer, void* run) {
    ++tally_.connections;
    connect(port);
    const std::lock_guard<std::mutex> lock(mutex_);
    for (unsigned i = 0; i < kWindow; ++i) send_next_locked();
    timer_.SetCallback(on_timer, nullptr, run, id_);
    timer_.Clear();
  }
  /// Asks for the end. The run's thread.
  void finish(End how) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      finishing_ = true;
      if (how != End::kAtOnce || closed_) return;
      closed_ = true;
      tally_.abandoned += sent_ - answered_;
    }
    let_go_from_outside();
  }
  /// Called now and then: gives the socket up when everything has been answered. The run's thread.
  void tend() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!finishing_ || closed_ || ends_itself_ || sent_ != answered_) return;
      closed_ = true;
    }
    let_go_from_outside();
  }
  bool ended() const { return ended_; }
  /// The service has taken the connection out of its listener's queue.
  bool is_served() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return answered_ > 0 || closed_;
  }

  /// The dispatcher.
  void timer_fired() {
    bool let_go = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!closed_ && !finishing_ && sent_ - answered_ < kWidest) send_next_locked();
      // A connection that has nothing more to come is not told by a message that it may end.
      let_go = !closed_ && finishing_ && ends_itself_ && sent_ == answered_;
      if (let_go) closed_ = true;
      if (!closed_) timer_.Clear();
    }
    if (let_go || wants_timer_to_let_go()) let_go_from_timer();
  }

 protected:
  virtual void connect(UWORD port) = 0;
  virtual bool transmit(const std::string& text) = 0;
  virtual void let_go_from_outside() = 0;
  virtual void let_go_from_indication() = 0;
  virtual void let_go_from_timer() = 0;
  virtual bool wants_timer_to_let_go() { return false; }

  /// A message has come back. The dispatcher.
  void received(std::string_view text) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (closed_) return;
      const std::string expected = numbered_message(id_, answered_);
      if (text != expected) {
        tally_.complain("connection " + std::to_string(id_) + " got \"" + std::string(text.substr(0, 40)) +
                        "\" instead of \"" + expected.substr(0, 40) + "\"");
      }
      ++answered_;
      ++tally_.answered;
      // Answers keep the conversation going, but not for ever: then a timer has to.
      if (!finishing_ && sent_ - answered_ < kWindow && answered_ % kChain != 0) send_next_locked();
      if (!finishing_ || !ends_itself_ || sent_ != answered_) return;
      closed_ = true;
    }
    let_go_from_indication();
  }
  /// The dispatcher.
  void disconnected(OSIOReason reason, int code) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    tally_.complain("connection " + std::to_string(id_) + " has been ended, reason " +
                    std::to_string(reason) + ", code " + std::to_string(code));
  }
  void set_ended() {
    ++tally_.ended;
    ended_ = true;
  }

 private:
  void send_next_locked() {
    if (!transmit(numbered_message(id_, sent_))) {
      tally_.complain("connection " + std::to_string(id_) + " cannot send");
    }
    ++sent_;
    ++tally_.sent;
  }

  const ULONG id_;
  Tally& tally_;
  const bool ends_itself_;
  std::mutex mutex_;
  bool closed_ = false;     ///< whoever sets it lets go of the socket
  bool finishing_ = false;  ///< nothing new is sent
  unsigned sent_ = 0, answered_ = 0;
  std::atomic<bool> ended_{false};
  OSTimerTrigger timer_;
};

/// Over RFC 1006.
class SoakPackets : public SoakClient {
 public:
  using SoakClient::SoakClient;

 private:
  struct Layer : OSIO {
    explicit Layer(SoakPackets* to) : owner(to) {}
    // The owner may give the last reference to itself up inside.
    OSIORetCode DataIndication(OSBuf* buf) override {
      const auto kept = owner->shared_from_this();
      owner->received({reinterpret_cast<const char*>(buf->data), buf->length});
      buf->Free();
      return Success;
    }
    OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
      const auto kept = owner->shared_from_this();
      owner->disconnected(reason, code);
      return Success;
    }
    SoakPackets* owner;
  };

  void connect(UWORD port) override {
    socket_ = new TPKTSocket;
    socket_->Bind(&layer_);
    socket_->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
    socket_->Connect(INADDR_LOOPBACK, port);
  }
  bool transmit(const std::string& text) override {
    return socket_->DataIndication(buffer_of(text)) == Success;
  }
  void let_go() {
    socket_->Free();
    set_ended();
  }
  void let_go_from_outside() override { let_go(); }
  void let_go_from_indication() override { let_go(); }
  void let_go_from_timer() override { let_go(); }

  Layer layer_{this};
  TPKTSocket* socket_ = nullptr;
};

/// Text lines. The line socket deletes itself, or is deleted by the timer: both on the dispatcher, so that it is not in
/// use then.
class SoakLines : public SoakClient {
 public:
  using SoakClient::SoakClient;

 private:
  struct Line : LineSocket {
    explicit Line(SoakLines* to) : LineSocket(4096), owner(to->shared_from_this()) {}
    ~Line() override { static_cast<SoakLines&>(*owner).set_ended(); }
    void Receive(char* text) override { static_cast<SoakLines&>(*owner).received(text); }
    OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
      static_cast<SoakLines&>(*owner).disconnected(reason, code);
      return Success;
    }
    std::shared_ptr<SoakClient> owner;
  };

  void connect(UWORD port) override {
    line_ = new Line(this);
    line_->Connect(ULONG{INADDR_LOOPBACK}, port);
  }
  bool transmit(const std::string& text) override {
    std::string with_end = text + "\r\n";
    line_->Send(with_end.data());
    return true;
  }
  void let_go_from_outside() override { timer_lets_go_ = true; }
  void let_go_from_indication() override { line_->done = true; }
  void let_go_from_timer() override { delete line_; }
  bool wants_timer_to_let_go() override { return timer_lets_go_.exchange(false); }

  Line* line_ = nullptr;
  std::atomic<bool> timer_lets_go_{false};
};

/// All connections of a run.
class Soak {
 public:
  explicit Soak(unsigned seed) : random_(seed) {}

  /// Keeps the connections up, replaced by new ones as they end, for so long; then ends them all.
  void run(int seconds, const char* what) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::seconds(seconds);
    auto progress_at = begin + std::chrono::milliseconds(kProgressMs);
    auto moved_at = begin;
    long answered = -1;
    std::vector<std::shared_ptr<SoakClient>> open, waiting;
    while (Clock::now() < end && tally.complaints().empty()) {
      // A listener's queue is short, and whom it has no room for the system may turn away.
      std::erase_if(waiting, [](const auto& client) { return client->is_served(); });
      while (open.size() < static_cast<std::size_t>(kConnections) && waiting.size() < kAtTheDoor) {
        open.push_back(start_one());
        waiting.push_back(open.back());
      }
      const bool full = open.size() + 2 * kAtTheDoor >= static_cast<std::size_t>(kConnections);
      for (int i = full ? pick(random_, 0, 4) : 0; i > 0; --i) {
        const auto& chosen =
            open[static_cast<std::size_t>(pick(random_, 0, static_cast<int>(open.size()) - 1))];
        if (!chosen->is_served()) continue;
        chosen->finish(pick(random_, 0, 3) == 0 ? SoakClient::End::kAtOnce : SoakClient::End::kWhenAnswered);
      }
      tend(open);
      Sleep(1);
      const auto now = Clock::now();
      if (tally.answered != answered) {
        answered = tally.answered;
        moved_at = now;
      }
      if (now - moved_at > std::chrono::milliseconds(kStallMs)) {
        tally.complain("nothing moves any more");
        break;
      }
      if (now >= progress_at) {
        progress_at += std::chrono::milliseconds(kProgressMs);
        report(what, static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(now - begin).count()));
      }
    }
    waiting.clear();
    for (const auto& client : open) client->finish(SoakClient::End::kWhenAnswered);
    const bool all_ended = wait_until(
        [&] {
          tend(open);
          return open.empty();
        },
        2 * kStallMs);
    if (!all_ended) tally.complain(std::to_string(open.size()) + " connections have not got all answers");
    for (const auto& client : open) client->finish(SoakClient::End::kAtOnce);
    wait_until([&] {
      tend(open);
      return open.empty();
    });
    report(what, seconds);
  }
  bool services_are_empty() { return packets_.comes_down_to(0) && lines_.comes_down_to(0); }

  Tally tally;

 private:
  std::shared_ptr<SoakClient> start_one() {
    const ULONG id = ++last_id_;
    const bool packets = id % 2 == 0;
    const auto timer_ms = static_cast<ULONG>(pick(random_, kShortestTimerMs, kLongestTimerMs));
    const bool ends_itself = !packets || pick(random_, 0, 1) == 0;
    std::shared_ptr<SoakClient> client;
    if (packets) {
      client = std::make_shared<SoakPackets>(id, tally, timer_ms, ends_itself);
    } else {
      client = std::make_shared<SoakLines>(id, tally, timer_ms, ends_itself);
    }
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      clients_[id] = client;
    }
    client->start(packets ? packets_.port() : lines_.port(), timer_fired, this);
    return client;
  }
  void tend(std::vector<std::shared_ptr<SoakClient>>& open) {
    for (const auto& client : open) client->tend();
    const std::lock_guard<std::mutex> lock(mutex_);
    std::erase_if(open, [](const auto& client) { return client->ended(); });
    std::erase_if(clients_, [](const auto& entry) { return entry.second->ended(); });
  }
  /// A timer's callback may begin when its connection ends: it finds it by number, or not at all.
  static void timer_fired(OSObj*, ADDR run, ULONG id) {
    auto* self = static_cast<Soak*>(run);
    std::shared_ptr<SoakClient> client;
    {
      const std::lock_guard<std::mutex> lock(self->mutex_);
      const auto found = self->clients_.find(id);
      if (found == self->clients_.end()) return;
      client = found->second;
    }
    client->timer_fired();
  }
  void report(const char* what, int seconds) {
    std::printf("%s %3d s: %ld messages, %ld connections, %ld of them open, %ld messages given up\n", what,
                seconds, tally.answered.load(), tally.connections.load(), tally.connections - tally.ended,
                tally.abandoned.load());
    std::fflush(stdout);
  }

  std::mt19937 random_;
  ULONG last_id_ = 0;
  std::mutex mutex_;
  std::map<ULONG, std::shared_ptr<SoakClient>> clients_;
  EchoService packets_{Framing::kTpkt};
  EchoService lines_{Framing::kPlain};
};

class SocketSoak : public NetworkTest {
 protected:
  void SetUp() override {
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    // Every message on its way may sit in a buffer.
    for (int& quantity : cfg.buf_qty) quantity = 2 * kConnections * static_cast<int>(kWidest);
    cfg.callback_qty = 4000;
    NetworkTest::SetUp();
  }
};

/// What the process uses.
struct Usage {
  int descriptors = open_descriptors();
  int threads = running_threads();
  PoolState pools = PoolState::now();
  std::size_t heap = mallinfo2().uordblks + mallinfo2().hblkhd;
};

TEST_F(SocketSoak, NothingIsLostDoubledOrOutOfOrderAndNothingIsLeftBehind) {
  const unsigned seed = test_seed();
  Soak soak(seed);
  // The first connections fill what the process keeps for good: pools, caches, tables.
  soak.run(2, "warm-up");
  ASSERT_TRUE(soak.services_are_empty());
  const Usage before;

  soak.run(soak_seconds(), "soak");
  EXPECT_EQ(soak.tally.complaints(), std::vector<std::string>{});
  EXPECT_EQ(soak.tally.sent, soak.tally.answered + soak.tally.abandoned);
  EXPECT_EQ(soak.tally.connections, soak.tally.ended);
  EXPECT_GT(soak.tally.answered, soak.tally.connections);
  EXPECT_TRUE(soak.services_are_empty());

  EXPECT_TRUE(wait_until([&] { return open_descriptors() == before.descriptors; }))
      << open_descriptors() << " descriptors, they were " << before.descriptors;
  EXPECT_TRUE(wait_until([&] { return running_threads() == before.threads; }))
      << running_threads() << " threads, they were " << before.threads;
  EXPECT_TRUE(wait_until([&] { return PoolState::now().buffers_out == before.pools.buffers_out; }))
      << PoolState::now().buffers_out << " buffers in use, they were " << before.pools.buffers_out;
  EXPECT_TRUE(wait_until([&] { return PoolState::now().callbacks == before.pools.callbacks; }))
      << PoolState::now().callbacks << " callbacks, they were " << before.pools.callbacks;
  const auto block = static_cast<ULONG>(cfg.link_qty);
  EXPECT_TRUE(wait_until([&] { return (PoolState::now().links - before.pools.links) % block == 0; }))
      << PoolState::now().links << " links, they were " << before.pools.links;
  // The service writes to connections that are given up; nothing else is worth a line.
  for (const std::string& line : console.calls()) {
    EXPECT_TRUE(line.find("send() errno=32 ") != std::string::npos ||
                line.find("send() errno=104 ") != std::string::npos)
        << line;
  }
  console.clear();
  const Usage after;
  std::printf("heap: %zu bytes before, %zu after\n", before.heap, after.heap);
  if (kPlainBuild) {
    EXPECT_LT(after.heap, before.heap + kHeapNoise);
  }
}

}  // namespace
}  // namespace oskernel_test
