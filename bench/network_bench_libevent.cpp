/// The echo server on libevent: one base, a bufferevent for each connection.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "network_bench.h"

namespace oskernel_bench {
namespace {

event_base* base;
Protocol served;
std::string out;
std::uint8_t buffer[kReadBytes];

void end(bufferevent* connection, PacketEcho* packets) {
  bufferevent_free(connection);
  delete packets;
}

void received(bufferevent* connection, void* argument) {
  evbuffer* const input = bufferevent_get_input(connection);
  if (served == Protocol::kStream) {
    evbuffer_add_buffer(bufferevent_get_output(connection), input);  // moves, copies nothing
    return;
  }
  auto* const packets = static_cast<PacketEcho*>(argument);
  out.clear();
  int got;
  while ((got = evbuffer_remove(input, buffer, sizeof buffer)) > 0) {
    if (!packets->take(buffer, static_cast<std::size_t>(got), &out)) return end(connection, packets);
  }
  bufferevent_write(connection, out.data(), out.size());
}

void ended(bufferevent* connection, short, void* argument) {
  end(connection, static_cast<PacketEcho*>(argument));
}

void accept_all(evutil_socket_t listener, short, void*) {
  for (;;) {
    const int s = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (s < 0) return;
    bufferevent* const connection = bufferevent_socket_new(base, s, BEV_OPT_CLOSE_ON_FREE);
    PacketEcho* const packets = served == Protocol::kPackets ? new PacketEcho : nullptr;
    bufferevent_setcb(connection, received, nullptr, ended, packets);
    bufferevent_enable(connection, EV_READ | EV_WRITE);
  }
}

void echo_datagrams(evutil_socket_t s, short, void*) {
  for (;;) {
    sockaddr_in from;
    socklen_t length = sizeof from;
    const ssize_t got = recvfrom(s, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (got < 0) return;
    sendto(s, buffer, static_cast<std::size_t>(got), 0, reinterpret_cast<sockaddr*>(&from), length);
  }
}

}  // namespace

void serve_libevent(Protocol protocol, int) {
  served = protocol;
  base = event_base_new();
  require(base != nullptr, "event_base_new");
  const int s = open_server_socket(protocol);
  event* const readable = event_new(base, s, EV_READ | EV_PERSIST,
                                    protocol == Protocol::kDatagrams ? echo_datagrams : accept_all, nullptr);
  event_add(readable, nullptr);
  event_base_dispatch(base);
}

}  // namespace oskernel_bench
