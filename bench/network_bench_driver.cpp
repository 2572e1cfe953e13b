/// The load: one thread with one epoll set, the same for every server. It builds and checks every byte.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "network_bench.h"
#include "network_bench_server.h"
#include "network_bench_tls.h"

namespace oskernel_bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPatienceSeconds = 10;     // before a server that says nothing counts as stuck
constexpr int kResendMs = 200;           // before a datagram counts as lost
constexpr double kWarmUp = 0.25;         // of the time that is measured
constexpr std::size_t kHeaderBytes = 4;  // of a packet
constexpr std::size_t kStampBytes = 8;   // at the front of each message: which connection, which message
constexpr std::size_t kBiggest = 4096;   // of a message with its header
constexpr unsigned kEvents = 512;        // that are taken at a time

// This library's listener has a backlog of 4 in the system; beyond that a connection attempt is dropped and repeated
// a second later. So no more than these are open at a time without having been answered, with any server.
constexpr int kUnanswered = 4;

// Connections come from these many addresses, 127.0.1.1 and up, each with ports of its own: closed connections keep
// theirs for a minute.
constexpr unsigned kSourceAddresses = 16;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }
[[noreturn]] void fail_errno(const std::string& what) { fail(what + ": " + std::strerror(errno)); }

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Builds and checks messages. Their bytes depend on the connection and on the message's number, so that an answer
/// that belongs elsewhere or comes twice is noticed.
class Messages {
 public:
  Messages(Protocol protocol, int size)
      : payload_(static_cast<std::size_t>(size)), header_(protocol == Protocol::kPackets ? kHeaderBytes : 0) {
    std::uint32_t random = 1;
    for (std::uint8_t& byte : noise_) {
      random = random * 1664525 + 1013904223;
      byte = static_cast<std::uint8_t>(random >> 24);
    }
    message_[0] = 3;
    message_[1] = 0;
    message_[2] = static_cast<std::uint8_t>((payload_ + kHeaderBytes) >> 8);
    message_[3] = static_cast<std::uint8_t>((payload_ + kHeaderBytes) & 0xFF);
    if (payload_ < kStampBytes || payload_ + kHeaderBytes > kBiggest)
      fail("a message of that size cannot be built");
  }

  std::size_t bytes() const { return header_ + payload_; }

  const std::uint8_t* build(std::uint32_t connection, std::uint32_t number) {
    std::uint8_t* const stamp = message_ + header_;
    std::memcpy(stamp, &connection, 4);
    std::memcpy(stamp + 4, &number, 4);
    std::memcpy(stamp + kStampBytes, noise_ + (connection * 31 + number * 7) % (sizeof noise_ - kBiggest),
                payload_ - kStampBytes);
    return message_;
  }

 private:
  std::size_t payload_;
  std::size_t header_;
  std::uint8_t message_[kBiggest];
  std::uint8_t noise_[2 * kBiggest];
};

/// A descriptor that is closed with its owner.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int s) : s_(s) {}
  Descriptor(Descriptor&& other) noexcept : s_(std::exchange(other.s_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(s_, other.s_);
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return s_; }
  void reset() {
    if (s_ >= 0) close(s_);
    s_ = -1;
  }

 private:
  int s_ = -1;
};

struct Connection {
  Descriptor s;
  std::uint32_t number = 0;  // of the message that is outstanding
  std::size_t received = 0;  // of its answer
  bool connecting = false;
  Clock::time_point sent_at{};  // datagrams only
};

class Driver {
 public:
  Driver(const Load& load, int port)
      : load_(load), messages_(load.protocol, load.size), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_.get() < 0) fail_errno("epoll_create1");
    server_.sin_family = AF_INET;
    server_.sin_port = htons(static_cast<std::uint16_t>(port));
    server_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connections_.resize(static_cast<std::size_t>(load.connections()));
  }

  /// Opens connections `from` up to, not including, `to`. Each has had one answer when this returns.
  void open(std::size_t from, std::size_t to) {
    for (std::size_t first = from; first < to; first += kUnanswered) {
      const std::size_t last = std::min<std::size_t>(first + kUnanswered, to);
      for (std::size_t i = first; i < last; ++i) {
        connections_[i].s = Descriptor(make_socket(0));
        connect_to_server(i);
        send(i);
      }
      for (std::size_t i = first; i < last; ++i) await_answer(i);
    }
  }

  /// Sends the first message on each busy connection.
  void begin_exchange() {
    for (std::size_t i = 0; i < busy(); ++i) watch(i, EPOLLIN);
    for (std::size_t i = 0; i < busy(); ++i) send(i);
  }
  /// The busy connections exchange messages until the time is over, when one is outstanding on each of them.
  ///   returns   how many came back
  std::uint64_t exchange(double seconds) {
    return run(seconds, [this](std::size_t i, unsigned) {
      if (!receive(i)) return false;
      send(i);
      return true;
    });
  }

  /// Connects, exchanges one message and closes, over and over.
  ///   returns   how many connections were served
  std::uint64_t churn(double seconds) {
    for (std::size_t i = 0; i < busy(); ++i) {
      if (connections_[i].s.get() < 0) begin_connection(i);
    }
    return run(seconds, [this](std::size_t i, unsigned events) {
      Connection& connection = connections_[i];
      if (connection.connecting) {
        int error = 0;
        socklen_t length = sizeof error;
        getsockopt(connection.s.get(), SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) fail(std::string("a connection failed: ") + std::strerror(error));
        if ((events & EPOLLOUT) == 0) return false;
        connection.connecting = false;
        send(i);
        watch_again(i, EPOLLIN);
        return false;
      }
      if (!receive(i)) return false;
      connection.s.reset();
      begin_connection(i);
      return true;
    });
  }

  /// Looks whether the idle connections are still there.
  void check_idle() {
    for (std::size_t i = busy(); i < connections_.size(); ++i) {
      std::uint8_t byte;
      if (recv(connections_[i].s.get(), &byte, 1, MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
        fail("an idle connection was closed, or was sent something");
      }
    }
  }

  std::uint64_t resent() const { return resent_; }

 private:
  std::size_t busy() const { return static_cast<std::size_t>(load_.busy); }
  bool datagrams() const { return load_.protocol == Protocol::kDatagrams; }

  int make_socket(int flags) {
    const int s = socket(AF_INET, (datagrams() ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC | flags, 0);
    if (s < 0) fail_errno("socket");
    const int on = 1;
    const timeval patience{kPatienceSeconds, 0};
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (!datagrams()) {
      setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      // The system chooses the port when it knows the peer: one that is taken towards another peer will do.
      setsockopt(s, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    }
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(0x7F000101 + next_source_++ % kSourceAddresses);
    if (bind(s, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0) {
      close(s);
      fail_errno("bind");
    }
    return s;
  }

  void connect_to_server(std::size_t i) {
    const int result =
        connect(connections_[i].s.get(), reinterpret_cast<const sockaddr*>(&server_), sizeof server_);
    if (result != 0 && errno != EINPROGRESS) fail_errno("connect");
  }

  void begin_connection(std::size_t i) {
    connections_[i].s = Descriptor(make_socket(SOCK_NONBLOCK));
    connections_[i].connecting = true;
    connect_to_server(i);
    watch(i, EPOLLOUT);
  }

  void watch(std::size_t i, unsigned events) { control(EPOLL_CTL_ADD, i, events); }
  void watch_again(std::size_t i, unsigned events) { control(EPOLL_CTL_MOD, i, events); }
  void control(int operation, std::size_t i, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = i;
    if (epoll_ctl(epoll_.get(), operation, connections_[i].s.get(), &event) != 0) fail_errno("epoll_ctl");
  }

  void send(std::size_t i) {
    Connection& connection = connections_[i];
    ++connection.number;
    connection.received = 0;
    send_message(i);
  }

  void send_message(std::size_t i) {
    Connection& connection = connections_[i];
    const std::uint8_t* const message = messages_.build(static_cast<std::uint32_t>(i), connection.number);
    const ssize_t sent = ::send(connection.s.get(), message, messages_.bytes(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) fail_errno("sending");
    if (static_cast<std::size_t>(sent) != messages_.bytes()) fail("a message was not taken whole");
    if (datagrams()) connection.sent_at = Clock::now();
  }

  void await_answer(std::size_t i) {
    while (!receive(i, 0)) {
    }
  }

  /// Reads what there is of the answer and checks it.
  ///   returns   whether the answer is complete
  bool receive(std::size_t i, int flags = MSG_DONTWAIT) {
    Connection& connection = connections_[i];
    const ssize_t got = recv(connection.s.get(), buffer_, sizeof buffer_, flags);
    if (got < 0) {
      if (errno == EAGAIN && flags != 0) return false;
      if (errno == EAGAIN) fail("no answer within " + std::to_string(kPatienceSeconds) + " s");
      fail_errno("receiving");
    }
    if (got == 0) fail("the server closed a connection");
    const auto count = static_cast<std::size_t>(got);
    const std::uint8_t* const expected = messages_.build(static_cast<std::uint32_t>(i), connection.number);
    if (count > messages_.bytes() - connection.received) return unexpected(connection, count);
    if (std::memcmp(buffer_, expected + connection.received, count) != 0)
      return unexpected(connection, count);
    connection.received += count;
    return connection.received == messages_.bytes();
  }

  /// A datagram that was given up may still come, the answer to the message before it. Nothing else is excused.
  bool unexpected(const Connection& connection, std::size_t count) {
    std::uint32_t number = 0;
    if (datagrams() && count == messages_.bytes()) std::memcpy(&number, buffer_ + 4, 4);
    if (datagrams() && resent_ > 0 && number != 0 && number <= connection.number) return false;
    fail("an answer differs from what was sent");
  }

  /// Handles what is ready until the time is over; `handle` says whether something was completed.
  template <class Handle>
  std::uint64_t run(double seconds, Handle handle) {
    std::uint64_t completed = 0;
    const Clock::time_point start = Clock::now();
    Clock::time_point last = start;
    for (;;) {
      epoll_event events[kEvents];
      const int count =
          epoll_wait(epoll_.get(), events, kEvents, datagrams() ? kResendMs : kPatienceSeconds * 1000);
      if (count < 0 && errno != EINTR) fail_errno("epoll_wait");
      const std::uint64_t before = completed;
      for (int i = 0; i < count; ++i) {
        if (handle(static_cast<std::size_t>(events[i].data.u64), events[i].events)) ++completed;
      }
      if (completed != before) last = Clock::now();
      if (count == 0 && seconds_since(last) > kPatienceSeconds) {
        fail("nothing came back for " + std::to_string(kPatienceSeconds) + " s");
      }
      if (datagrams() && seconds_since(swept_at_) * 1000 > kResendMs) resend_lost();
      if (seconds_since(start) >= seconds) return completed;
    }
  }

  void resend_lost() {
    swept_at_ = Clock::now();
    for (std::size_t i = 0; i < busy(); ++i) {
      if (seconds_since(connections_[i].sent_at) * 1000 < kResendMs) continue;
      ++resent_;
      send_message(i);
    }
  }

  const Load load_;
  Messages messages_;
  Descriptor epoll_;
  sockaddr_in server_{};
  std::vector<Connection> connections_;
  unsigned next_source_ = 0;
  std::uint64_t resent_ = 0;
  Clock::time_point swept_at_ = Clock::now();
  std::uint8_t buffer_[64 * 1024];
};

/// How much a server grows by with each connection, when it has had some already.
Figures measure_memory(const ServerProcess& server, Driver& driver, std::size_t connections) {
  const std::size_t first = connections / 10;
  driver.open(0, first);
  const double before = server.private_bytes();
  driver.open(first, connections);
  usleep(100'000);  // what the server still does after its last answer
  const double after = server.private_bytes();
  driver.check_idle();
  return {(after - before) / static_cast<double>(connections - first), 0, 0, 0, 0};
}

}  // namespace

Figures measure(const Implementation& implementation, const Load& load, double seconds) {
  if (load.protocol == Protocol::kTls) return measure_tls(implementation, load, seconds);
  ServerProcess server(implementation, load.protocol, load.connections());
  try {
    Driver driver(load, server.port());
    if (load.kind == Load::Kind::kMemory) {
      return measure_memory(server, driver, static_cast<std::size_t>(load.idle));
    }
    const bool churn = load.kind == Load::Kind::kChurn;
    if (churn) {
      driver.churn(seconds * kWarmUp);
    } else {
      driver.open(0, static_cast<std::size_t>(load.connections()));
      driver.begin_exchange();
      driver.exchange(seconds * kWarmUp);
    }

    const Usage before(server);
    const Clock::time_point start = Clock::now();
    const std::uint64_t completed = churn ? driver.churn(seconds) : driver.exchange(seconds);
    const double took = seconds_since(start);
    Figures figures = before.figures(server, completed, took);
    driver.check_idle();
    if (completed == 0) fail("nothing came back in the time measured");
    figures.resent = driver.resent();
    return figures;
  } catch (const std::exception& error) {
    usleep(50'000);  // a server that has crashed is not gone before its descriptors are closed
    throw std::runtime_error(std::string(error.what()) + "; " + server.condition());
  }
}

}  // namespace oskernel_bench
