#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "network/assl.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr ULONG kLoopback = 0x7F000001;

// [layers]
class Gate : public OSIO {  // the server's side
 public:
  explicit Gate(AsyncSocket* socket) : socket_(socket) {
    Bind(socket_);
    socket_->ConnectAck();  // starts TLS, as the socket is secure
  }
  ~Gate() override { socket_->Free(); }
  OSIORetCode DataIndication(OSBuf* buf) override {
    std::printf("gate: %.*s\n", buf->length, reinterpret_cast<char*>(buf->data));
    return Partner()->DataIndication(buf);
  }

 private:
  AsyncSocket* socket_;
};

class Desk : public OSIO {  // the client's
 public:
  explicit Desk(UWORD port) {
    Bind(socket_);
    socket_->secure = true;  // before Connect
    socket_->Create(SOCK_STREAM, 0, kLoopback, false);
    socket_->Connect(kLoopback, port);
  }
  ~Desk() override {
    socket_->StopSSL();  // says good-bye; Free alone would break off
    socket_->Free();
  }
  OSIORetCode ConnectIndication(OSIOAddress*) override {  // when the handshake is done
    std::printf("desk: connected to %s\n", socket_->ssl_info->x509_peer_name_string);
    return Partner()->DataIndication(OSBuf::Alloc("open"));
  }
  OSIORetCode DataIndication(OSBuf* buf) override {
    std::printf("desk: %.*s\n", buf->length, reinterpret_cast<char*>(buf->data));
    buf->Free();
    done = true;
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    std::printf("desk: ended, reason %d, code %d\n", reason, code);
    done = true;
    return Success;
  }
  bool done = false;

 private:
  AsyncSocket* socket_ = new AsyncSocket(true);
};
// [/layers]

void accepted(OSObj* gate, ADDR socket, ULONG) {
  *reinterpret_cast<Gate**>(gate) = new Gate(static_cast<AsyncSocket*>(socket));
}

// [main]
int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: tls CERTIFICATE KEY\n"), 2;
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  OSTrigger::TLSInitialise();
  AsyncSocket::Init();
  SSLInfo::Initialise(argv[1], argv[2],
                      argv[1]);  // certificate, its key, and the certificates that are trusted
  Gate* gate = nullptr;
  auto* listener = new AsyncSocket(true);
  listener->secure = true;  // and so are the connections that it accepts
  listener->Create(SOCK_STREAM, 0, kLoopback, false);
  listener->Listen(accepted, &gate);
  {
    Desk desk(listener->LocalPort());
    while (!desk.done) {
      WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
      OSTrigger::TLSPoll();
    }
  }
  delete gate;
  listener->Free();
  AsyncSocket::Cleanup();
  OSTrigger::TLSUninitialise();
  os_cleanup();
}
// [/main]
