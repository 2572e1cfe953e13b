/// The echo server on boost asio: one io_context on one thread, a session object for each connection.
#include <utility>  // boost asio 1.74 does not include all that it uses

#include <boost/asio.hpp>
#include <memory>
#include <string>

#include "network_bench.h"
#include "network_bench_tls.h"

namespace oskernel_bench {
namespace {

using boost::asio::ip::tcp;
using boost::asio::ip::udp;

Protocol served;

class Session : public std::enable_shared_from_this<Session> {
 public:
  explicit Session(tcp::socket socket) : socket_(std::move(socket)) {}

  void receive() {
    socket_.async_read_some(boost::asio::buffer(buffer_),
                            [self = shared_from_this()](boost::system::error_code error, std::size_t count) {
                              if (!error) self->received(count);
                            });
  }

 private:
  void received(std::size_t count) {
    if (served == Protocol::kStream) return send(buffer_, count);
    out_.clear();
    if (!packets_.take(buffer_, count, &out_)) return;
    if (out_.empty()) return receive();
    send(out_.data(), out_.size());
  }

  void send(const void* bytes, std::size_t count) {
    boost::asio::async_write(socket_, boost::asio::buffer(bytes, count),
                             [self = shared_from_this()](boost::system::error_code error, std::size_t) {
                               if (!error) self->receive();
                             });
  }

  tcp::socket socket_;
  PacketEcho packets_;
  std::string out_;
  std::uint8_t buffer_[4096];
};

void accept_next(tcp::acceptor& listener) {
  listener.async_accept([&listener](boost::system::error_code error, tcp::socket socket) {
    if (!error) std::make_shared<Session>(std::move(socket))->receive();
    accept_next(listener);
  });
}

void receive_datagram(udp::socket& socket) {
  static std::uint8_t buffer[kReadBytes];
  static udp::endpoint from;
  socket.async_receive_from(
      boost::asio::buffer(buffer), from, [&socket](boost::system::error_code error, std::size_t count) {
        if (error) return receive_datagram(socket);
        socket.async_send_to(boost::asio::buffer(buffer, count), from,
                             [&socket](boost::system::error_code, std::size_t) { receive_datagram(socket); });
      });
}

}  // namespace

void serve_asio(Protocol protocol, int) {
  if (protocol == Protocol::kTls) return serve_tls_asio();
  served = protocol;
  boost::asio::io_context context(1);  // one thread: the library leaves its locks out
  const int s = open_server_socket(protocol);
  if (protocol == Protocol::kDatagrams) {
    udp::socket socket(context, udp::v4(), s);
    receive_datagram(socket);
    context.run();
  } else {
    tcp::acceptor listener(context, tcp::v4(), s);
    accept_next(listener);
    context.run();
  }
}

}  // namespace oskernel_bench
