/// The load over TLS: one thread, one epoll set, sessions on non-blocking sockets.
#include "network_bench_tls.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "network_bench_server.h"

namespace oskernel_bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPatience_ms = 10'000;
constexpr double kWarmUp = 0.25;
constexpr std::size_t kUnanswered = 4;
constexpr std::size_t kStampBytes = 8;
constexpr unsigned kSourceAddresses = 16;  // see network_bench_driver.cpp

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

[[noreturn]] void fail_tls(const std::string& what) {
  char text[256] = "the connection ended";
  const unsigned long code = ERR_get_error();
  if (code != 0) ERR_error_string_n(code, text, sizeof text);
  fail(what + ": " + text);
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class Driver {
 public:
  Driver(const Load& load, int port)
      : load_(load),
        size_(static_cast<std::size_t>(load.size)),
        message_(size_),
        answer_(size_),
        connections_(static_cast<std::size_t>(load.busy)),
        context_(SSL_CTX_new(TLS_client_method())),
        epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_ < 0 || context_ == nullptr || size_ < kStampBytes) fail("the load cannot be set up");
    SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION);
    SSL_CTX_set_ciphersuites(context_, "TLS_AES_128_GCM_SHA256");
    SSL_CTX_set1_groups_list(context_, "X25519");
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(context_, SSL_MODE_ENABLE_PARTIAL_WRITE);
    server_.sin_family = AF_INET;
    server_.sin_port = htons(static_cast<std::uint16_t>(port));
    server_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::uint32_t random = 1;
    for (unsigned char& byte : message_) {
      random = random * 1664525 + 1013904223;
      byte = static_cast<unsigned char>(random >> 24);
    }
    // This library's listener has a backlog of four, see network_bench_driver.cpp.
    for (std::size_t i = 0; i < connections_.size(); ++i) {
      open(i);
      if (i % kUnanswered == kUnanswered - 1 || i + 1 == connections_.size()) await_first_answers(i + 1);
    }
  }
  ~Driver() {
    for (Connection& connection : connections_) end(connection);
    close(epoll_);
    SSL_CTX_free(context_);
  }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  /// Goes on for so long.
  ///   returns   how many messages came back, or with kChurn how many connections were served
  std::uint64_t run(double seconds) {
    std::uint64_t completed = 0;
    const Clock::time_point start = Clock::now();
    while (seconds_since(start) < seconds) {
      epoll_event events[256];
      const int count = epoll_wait(epoll_, events, 256, kPatience_ms);
      if (count == 0) fail("nothing came back for 10 s");
      for (int i = 0; i < count; ++i) {
        if (advance(static_cast<std::size_t>(events[i].data.u64))) ++completed;
      }
    }
    return completed;
  }

 private:
  struct Connection {
    int s = -1;
    SSL* ssl = nullptr;
    std::uint32_t number = 0;  // of the message that is outstanding
    std::size_t sent = 0;
    std::size_t received = 0;
    bool answered = false;  // once at least, on this or an earlier connection
    unsigned watched = 0;
  };

  void await_first_answers(std::size_t count) {
    const auto waited = [&] {
      return std::any_of(connections_.begin(), connections_.begin() + static_cast<std::ptrdiff_t>(count),
                         [](const Connection& connection) { return !connection.answered; });
    };
    while (waited()) run(0.001);
  }

  void open(std::size_t i) {
    Connection& connection = connections_[i];
    connection = {};
    connection.s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(connection.s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(connection.s, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(0x7F000101 + next_source_++ % kSourceAddresses);
    if (bind(connection.s, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0 ||
        (connect(connection.s, reinterpret_cast<sockaddr*>(&server_), sizeof server_) != 0 &&
         errno != EINPROGRESS)) {
      fail(std::string("connecting: ") + std::strerror(errno));
    }
    connection.ssl = SSL_new(context_);
    SSL_set_fd(connection.ssl, connection.s);
    SSL_set_connect_state(connection.ssl);
    // The handshake begins with the first write.
    watch(i, EPOLL_CTL_ADD, EPOLLOUT);
  }

  static void end(Connection& connection) {
    if (connection.ssl != nullptr) SSL_free(connection.ssl);
    if (connection.s >= 0) close(connection.s);
    connection = {};
  }

  // Told apart by connection and number in front.
  const unsigned char* message(std::size_t i) {
    const auto index = static_cast<std::uint32_t>(i);
    std::memcpy(message_.data(), &index, 4);
    std::memcpy(message_.data() + 4, &connections_[i].number, 4);
    return message_.data();
  }

  /// Writes what is left of the message, then reads what there is of the answer. An echo that begins before the
  /// message has left is not waited for meanwhile: both fit what the system holds.
  ///   returns   whether the answer is complete
  bool advance(std::size_t i) {
    Connection& connection = connections_[i];
    while (connection.sent < size_) {
      const int n =
          SSL_write(connection.ssl, message(i) + connection.sent, static_cast<int>(size_ - connection.sent));
      if (n <= 0) return wait(i, n);
      connection.sent += static_cast<std::size_t>(n);
    }
    while (connection.received < size_) {
      const int n = SSL_read(connection.ssl, answer_.data(), static_cast<int>(size_ - connection.received));
      if (n <= 0) return wait(i, n);
      const auto count = static_cast<std::size_t>(n);
      if (std::memcmp(answer_.data(), message(i) + connection.received, count) != 0) {
        fail("an answer differs from what was sent");
      }
      connection.received += count;
    }
    if (load_.kind == Load::Kind::kChurn) {
      end(connection);
      open(i);
      connection.answered = true;
      return true;
    }
    connection.answered = true;
    ++connection.number;
    connection.sent = connection.received = 0;
    watch(i, EPOLL_CTL_MOD, EPOLLOUT);  // the others first
    return true;
  }

  bool wait(std::size_t i, int result) {
    switch (SSL_get_error(connections_[i].ssl, result)) {
      case SSL_ERROR_WANT_READ:
        watch(i, EPOLL_CTL_MOD, EPOLLIN);
        return false;
      case SSL_ERROR_WANT_WRITE:
        watch(i, EPOLL_CTL_MOD, EPOLLOUT);
        return false;
      default:
        fail_tls("a session broke");
    }
  }

  void watch(std::size_t i, int operation, unsigned events) {
    if (operation == EPOLL_CTL_MOD && connections_[i].watched == events) return;
    connections_[i].watched = events;
    epoll_event event{};
    event.events = events;
    event.data.u64 = i;
    if (epoll_ctl(epoll_, operation, connections_[i].s, &event) != 0) fail("epoll_ctl");
  }

  const Load load_;
  const std::size_t size_;
  std::vector<unsigned char> message_;
  std::vector<unsigned char> answer_;
  std::vector<Connection> connections_;
  SSL_CTX* context_;
  int epoll_;
  sockaddr_in server_{};
  unsigned next_source_ = 0;
};

}  // namespace

Figures measure_tls(const Implementation& implementation, const Load& load, double seconds) {
  ServerProcess server(implementation, load.protocol, load.connections());
  try {
    Driver driver(load, server.port());
    driver.run(seconds * kWarmUp);
    const Usage before(server);
    const Clock::time_point start = Clock::now();
    const std::uint64_t completed = driver.run(seconds);
    const double took = seconds_since(start);
    if (completed == 0) fail("nothing came back in the time measured");
    return before.figures(server, completed, took);
  } catch (const std::exception& error) {
    usleep(50'000);  // a server that has crashed is not gone before its descriptors are closed
    throw std::runtime_error(std::string(error.what()) + "; " + server.condition());
  }
}

}  // namespace oskernel_bench
