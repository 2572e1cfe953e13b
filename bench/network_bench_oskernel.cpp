/// The echo server on this library: a layer for each connection that sends back each buffer it receives. Monitor thread
/// and trigger task are the library's; the main thread sleeps.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "network/assl.h"
#include "network_bench.h"
#include "network_bench_tls.h"

namespace oskernel_bench {
namespace {

/// Prints what the library reports. After a fatal error nothing is worth measuring: the server ends.
class ServerConsole : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    if (quiet) return;
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
  }

  bool quiet = false;  // several lines are printed for each handshake
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    std::abort();
  }
};

/// The layer above a connection, which both go when the peer has closed.
class Echo : public OSIO {
 public:
  explicit Echo(AsyncSocket* socket) : socket_(socket) { Bind(socket); }

  OSIORetCode DataIndication(OSBuf* buf) override { return partner->DataIndication(buf); }
  OSIORetCode DatagramIndication(OSBuf* buf, void* remote, void*) override {
    return partner->DatagramIndication(buf, nullptr, remote);
  }
  OSIORetCode DisconnectIndication(OSIOReason, int) override {
    socket_->Free();
    delete this;
    return Success;
  }

 protected:
  ~Echo() override = default;

 private:
  AsyncSocket* socket_;
};

/// The same over TLS, where a message comes in pieces: it is put together and goes back as one, a record for its peer. A
/// piece that is shorter than the session makes them ends the message; no row's size is a multiple of that.
class MessageEcho : public Echo {
 public:
  using Echo::Echo;

  OSIORetCode DataIndication(OSBuf* piece) override {
    const bool last = piece->length < kPiece_bytes;
    if (last && message_ == nullptr) return partner->DataIndication(piece);
    if (message_ == nullptr) {
      message_ = OSBuf::Alloc(SSL3_RT_MAX_PLAIN_LENGTH);
      message_->PushDown(SSL3_RT_MAX_PLAIN_LENGTH);
      message_->length = 0;
    }
    std::memcpy(message_->data + message_->length, piece->data, piece->length);
    message_->length = static_cast<UWORD>(message_->length + piece->length);
    piece->Free();
    return last ? partner->DataIndication(std::exchange(message_, nullptr)) : Success;
  }

 private:
  static constexpr UWORD kPiece_bytes = 1600;

  ~MessageEcho() override {
    if (message_ != nullptr) message_->Free();
  }

  OSBuf* message_ = nullptr;
};

/// What the listener accepts starts TLS by itself.
void secure(AsyncSocket* listener) {
  static std::string identity = server_identity();
  require(SSLInfo::Initialise(identity.data(), identity.data(), nullptr) == 0, "Initialise");
  // What a file holds is kept once it has not changed for two seconds; a server's is older than that.
  constexpr unsigned kSettled_s = 3;
  sleep(kSettled_s);
  SSLInfo::ssl_debug = 0;
  listener->secure = true;
}

void accepted(OSObj*, ADDR socket, ULONG) {
  auto* const connection = static_cast<AsyncSocket*>(socket);
  if (connection->secure) {
    send_without_delay(connection->s);
    new MessageEcho(connection);
  } else {
    new Echo(connection);
  }
  connection->ConnectAck();
}

/// Pools for `connections` at a time, each with one message outstanding. A message is in one buffer from its reception
/// to its return; a packet is in one more while it is assembled. At the end each connection may have a control buffer
/// in its queue. Every socket has its link in the list of sockets.
/// Over TLS a long message comes in pieces of 1600 bytes, a dozen of which may wait or be under way on a connection, and
/// is put together in a buffer of the largest class.
KernelCfg pools_for(Protocol protocol, int connections) {
  constexpr int kSpare = 500;
  constexpr int kPieces = 12;
  KernelCfg cfg;
  if (protocol == Protocol::kTls) {
    connections *= kPieces;
    cfg.buf_size[2] = cfg.buf_size[3];
    cfg.buf_size[3] = SSL3_RT_MAX_PLAIN_LENGTH + 100;
  }
  cfg.buf_qty[0] = kSpare;
  for (int size_class = 1; size_class < 4; ++size_class) cfg.buf_qty[size_class] = 2 * connections + kSpare;
  cfg.callback_qty = connections + kSpare;
  cfg.link_qty = 4 * connections + 10 * kSpare;
  return cfg;
}

}  // namespace

void serve_oskernel(Protocol protocol, int connections) {
  static ServerConsole console;
  Console = &console;
  console.quiet = protocol == Protocol::kTls;
  static KernelCfg cfg = pools_for(protocol, connections);
  os_startup(nullptr, 0, &cfg);

  AsyncSocket* const socket = protocol == Protocol::kPackets ? new TPKTSocket : new AsyncSocket(true);
  constexpr ULONG kLoopback = 0x7F000001;
  if (protocol == Protocol::kDatagrams) {
    new Echo(socket);
    require(socket->Create(SOCK_DGRAM, 0, kLoopback, false) == 0, "Create");
  } else {
    require(socket->Create(SOCK_STREAM, 0, kLoopback, true) == 0, "Create");
    if (protocol == Protocol::kTls) secure(socket);
    require(socket->Listen(accepted, nullptr) == 0, "Listen");
  }
  announce(socket->LocalPort());
  for (;;) pause();
}

}  // namespace oskernel_bench
