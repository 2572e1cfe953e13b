/// The echo server over TLS on boost asio's ssl streams: one io_context on one thread.
#include <utility>  // boost asio 1.74 does not include all that it uses

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <memory>

#include "network_bench_tls.h"

namespace oskernel_bench {
namespace {

using boost::asio::ip::tcp;
using Stream = boost::asio::ssl::stream<tcp::socket>;

class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(tcp::socket socket, boost::asio::ssl::context& context) : stream_(std::move(socket), context) {}

  void start() {
    send_without_delay(stream_.next_layer().native_handle());
    stream_.async_handshake(boost::asio::ssl::stream_base::server,
                            [self = shared_from_this()](boost::system::error_code error) {
                              if (!error) self->receive();
                            });
  }

 private:
  void receive() {
    stream_.async_read_some(boost::asio::buffer(buffer_),
                            [self = shared_from_this()](boost::system::error_code error, std::size_t count) {
                              if (!error) self->send(count);
                            });
  }

  void send(std::size_t count) {
    boost::asio::async_write(stream_, boost::asio::buffer(buffer_, count),
                             [self = shared_from_this()](boost::system::error_code error, std::size_t) {
                               if (!error) self->receive();
                             });
  }

  Stream stream_;
  unsigned char buffer_[SSL3_RT_MAX_PLAIN_LENGTH];
};

void accept_next(tcp::acceptor& listener, boost::asio::ssl::context& context) {
  listener.async_accept([&listener, &context](boost::system::error_code error, tcp::socket socket) {
    if (!error) std::make_shared<Session>(std::move(socket), context)->start();
    accept_next(listener, context);
  });
}

}  // namespace

void serve_tls_asio() {
  boost::asio::ssl::context tls(new_server_context());
  boost::asio::io_context context(1);  // one thread: the library leaves its locks out
  tcp::acceptor listener(context, tcp::v4(), open_server_socket(Protocol::kTls));
  accept_next(listener, tls);
  context.run();
}

}  // namespace oskernel_bench
