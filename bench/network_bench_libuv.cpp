/// The echo server on libuv: one loop. A write is tried at once and only what is left of it is queued.
#include <uv.h>

#include <cstdlib>
#include <string>

#include "network_bench.h"

namespace oskernel_bench {
namespace {

struct Connection {
  uv_tcp_t handle;
  PacketEcho packets;
};

struct Write {
  uv_write_t request;
  std::string bytes;
};

Protocol served;
std::string out;
char buffer[kReadBytes];

void lend_buffer(uv_handle_t*, std::size_t, uv_buf_t* lent) { *lent = uv_buf_init(buffer, sizeof buffer); }

void end(Connection* connection) {
  uv_close(reinterpret_cast<uv_handle_t*>(&connection->handle),
           [](uv_handle_t* handle) { delete static_cast<Connection*>(handle->data); });
}

void send(Connection* connection, const char* bytes, std::size_t count) {
  auto* const stream = reinterpret_cast<uv_stream_t*>(&connection->handle);
  // uv_buf_t serves reading, too; a write does not change the bytes.
  uv_buf_t lent = uv_buf_init(const_cast<char*>(bytes), static_cast<unsigned>(count));
  const int sent = uv_try_write(stream, &lent, 1);
  if (sent < 0 && sent != UV_EAGAIN) return end(connection);
  const std::size_t gone = sent < 0 ? 0 : static_cast<std::size_t>(sent);
  if (gone == count) return;
  auto* const write = new Write{{}, std::string(bytes + gone, count - gone)};
  write->request.data = write;
  lent = uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
  uv_write(&write->request, stream, &lent, 1,
           [](uv_write_t* request, int) { delete static_cast<Write*>(request->data); });
}

void received(uv_stream_t* stream, ssize_t got, const uv_buf_t* lent) {
  auto* const connection = static_cast<Connection*>(stream->data);
  if (got < 0) return end(connection);
  const auto count = static_cast<std::size_t>(got);
  if (served == Protocol::kStream) return send(connection, lent->base, count);
  out.clear();
  if (!connection->packets.take(reinterpret_cast<std::uint8_t*>(lent->base), count, &out))
    return end(connection);
  send(connection, out.data(), out.size());
}

void accepted(uv_stream_t* listener, int status) {
  if (status < 0) return;
  auto* const connection = new Connection;
  uv_tcp_init(listener->loop, &connection->handle);
  connection->handle.data = connection;
  auto* const stream = reinterpret_cast<uv_stream_t*>(&connection->handle);
  require(uv_accept(listener, stream) == 0, "uv_accept");
  uv_read_start(stream, lend_buffer, received);
}

void received_datagram(uv_udp_t* handle, ssize_t got, const uv_buf_t* lent, const sockaddr* from, unsigned) {
  if (got < 0 || from == nullptr) return;
  const uv_buf_t answer = uv_buf_init(lent->base, static_cast<unsigned>(got));
  uv_udp_try_send(handle, &answer, 1, from);
}

}  // namespace

void serve_libuv(Protocol protocol, int) {
  served = protocol;
  uv_loop_t* const loop = uv_default_loop();
  const int s = open_server_socket(protocol);
  if (protocol == Protocol::kDatagrams) {
    static uv_udp_t handle;
    uv_udp_init(loop, &handle);
    require(uv_udp_open(&handle, s) == 0, "uv_udp_open");
    uv_udp_recv_start(&handle, lend_buffer, received_datagram);
  } else {
    static uv_tcp_t listener;
    uv_tcp_init(loop, &listener);
    require(uv_tcp_open(&listener, s) == 0, "uv_tcp_open");
    require(uv_listen(reinterpret_cast<uv_stream_t*>(&listener), SOMAXCONN, accepted) == 0, "uv_listen");
  }
  uv_run(loop, UV_RUN_DEFAULT);
}

}  // namespace oskernel_bench
