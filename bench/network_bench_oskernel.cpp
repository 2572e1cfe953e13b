/// The echo server on this library: a layer for each connection that sends back each buffer it receives. Monitor thread
/// and trigger task are the library's; the main thread sleeps.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "network_bench.h"

namespace oskernel_bench {
namespace {

/// Prints what the library reports. After a fatal error nothing is worth measuring: the server ends.
class ServerConsole : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
  }
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

 private:
  AsyncSocket* socket_;
};

void accepted(OSObj*, ADDR socket, ULONG) {
  auto* const connection = static_cast<AsyncSocket*>(socket);
  new Echo(connection);
  connection->ConnectAck();
}

/// Pools for `connections` at a time, each with one message outstanding. A message is in one buffer from its reception
/// to its return; a packet is in one more while it is assembled. At the end each connection may have a control buffer
/// in its queue. Every socket has its link in the list of sockets.
KernelCfg pools_for(int connections) {
  constexpr int kSpare = 500;
  KernelCfg cfg;
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
  static KernelCfg cfg = pools_for(connections);
  os_startup(nullptr, 0, &cfg);

  AsyncSocket* const socket = protocol == Protocol::kPackets ? new TPKTSocket : new AsyncSocket(true);
  constexpr ULONG kLoopback = 0x7F000001;
  if (protocol == Protocol::kDatagrams) {
    new Echo(socket);
    require(socket->Create(SOCK_DGRAM, 0, kLoopback, false) == 0, "Create");
  } else {
    require(socket->Create(SOCK_STREAM, 0, kLoopback, true) == 0, "Create");
    require(socket->Listen(accepted, nullptr) == 0, "Listen");
  }
  announce(socket->LocalPort());
  for (;;) pause();
}

}  // namespace oskernel_bench
