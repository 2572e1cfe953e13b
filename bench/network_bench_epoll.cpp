/// The echo server on epoll itself: one thread, level-triggered, a read and a write for each message.
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "network_bench.h"
#include "network_bench_tls.h"

namespace oskernel_bench {
namespace {

struct Connection {
  int s;
  std::string unsent;
  PacketEcho packets;
};

class Server {
 public:
  explicit Server(Protocol protocol)
      : protocol_(protocol), listener_(open_server_socket(protocol)), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    require(epoll_ >= 0, "epoll_create1");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;
    require(epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event) == 0, "epoll_ctl");
  }

  void run() {
    for (;;) {
      epoll_event events[256];
      const int count = epoll_wait(epoll_, events, 256, -1);
      for (int i = 0; i < count; ++i) {
        auto* const connection = static_cast<Connection*>(events[i].data.ptr);
        if (connection == nullptr) {
          protocol_ == Protocol::kDatagrams ? echo_datagrams() : accept_all();
        } else if (!serve(connection, events[i].events)) {
          close(connection->s);
          delete connection;
        }
      }
    }
  }

 private:
  void accept_all() {
    for (;;) {
      const int s = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (s < 0) return;
      auto* const connection = new Connection{s, {}, {}};
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.ptr = connection;
      require(epoll_ctl(epoll_, EPOLL_CTL_ADD, s, &event) == 0, "epoll_ctl");
    }
  }

  void echo_datagrams() {
    for (;;) {
      sockaddr_in from;
      socklen_t length = sizeof from;
      const ssize_t got =
          recvfrom(listener_, buffer_, sizeof buffer_, 0, reinterpret_cast<sockaddr*>(&from), &length);
      if (got < 0) return;
      sendto(listener_, buffer_, static_cast<std::size_t>(got), 0, reinterpret_cast<sockaddr*>(&from),
             length);
    }
  }

  bool serve(Connection* connection, unsigned events) {
    if ((events & EPOLLOUT) != 0) return flush(connection);
    const ssize_t got = read(connection->s, buffer_, sizeof buffer_);
    if (got <= 0) return got < 0 && errno == EAGAIN;
    const auto count = static_cast<std::size_t>(got);
    if (protocol_ == Protocol::kStream)
      return send(connection, reinterpret_cast<const char*>(buffer_), count);
    out_.clear();
    return connection->packets.take(buffer_, count, &out_) && send(connection, out_.data(), out_.size());
  }

  bool send(Connection* connection, const char* bytes, std::size_t count) {
    ssize_t sent = write(connection->s, bytes, count);
    if (sent < 0) {
      if (errno != EAGAIN) return false;
      sent = 0;
    }
    if (static_cast<std::size_t>(sent) == count) return true;
    connection->unsent.assign(bytes + sent, count - static_cast<std::size_t>(sent));
    return watch(connection, EPOLLOUT);
  }

  // Nothing more is read before what is left has gone.
  bool flush(Connection* connection) {
    const ssize_t sent = write(connection->s, connection->unsent.data(), connection->unsent.size());
    if (sent < 0) return errno == EAGAIN;
    connection->unsent.erase(0, static_cast<std::size_t>(sent));
    return !connection->unsent.empty() || watch(connection, EPOLLIN);
  }

  bool watch(Connection* connection, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = connection;
    return epoll_ctl(epoll_, EPOLL_CTL_MOD, connection->s, &event) == 0;
  }

  Protocol protocol_;
  int listener_;
  int epoll_;
  std::string out_;
  std::uint8_t buffer_[kReadBytes];
};

}  // namespace

void serve_epoll(Protocol protocol, int) {
  if (protocol == Protocol::kTls) serve_tls_epoll();
  auto* const server = new Server(protocol);
  server->run();
}

}  // namespace oskernel_bench
