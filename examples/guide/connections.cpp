#include <cstdio>
#include <cstring>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr ULONG kLoopback = 0x7F000001;

// [dispatch]
template <class Condition>
void dispatch_until(Condition condition) {
  while (!condition()) {
    WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
    OSTrigger::TLSPoll();
  }
}
// [/dispatch]

// [client]
class Client : public OSIO {
 public:
  Client() { socket_->Bind(this); }
  ~Client() override { socket_->Free(); }

  void call(UWORD port) {
    ended_ = false;
    socket_->Create(SOCK_STREAM, 0, kLoopback, false);
    socket_->Connect("127.0.0.1", port);  // a host name would do as well
  }
  void hang_up() { socket_->Close(); }  // nothing is indicated; the socket can be created anew
  bool connected() const { return connected_; }
  bool ended() const { return ended_; }

  OSIORetCode ConnectIndication(OSIOAddress*) override {
    std::printf("connected\n");
    connected_ = true;
    return Success;
  }
  OSIORetCode DataIndication(OSBuf* buf) override {
    std::printf("received: %.*s\n", buf->length, reinterpret_cast<char*>(buf->data));
    buf->Free();
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    std::printf("ended: %s\n", reason == Normal ? "the peer has closed" : std::strerror(code));
    connected_ = false;
    ended_ = true;
    return Success;
  }

 private:
  AsyncSocket* socket_ = new AsyncSocket(true);  // true: the monitor thread watches it
  bool connected_ = false;
  bool ended_ = false;
};
// [/client]

// [greeter]
void greet(OSObj*, ADDR accepted, ULONG) {  // the callback of Listen
  auto* socket = static_cast<AsyncSocket*>(accepted);
  socket->ConnectAck();
  socket->DataIndication(OSBuf::Alloc("call back later"));
  socket->Free();
}
// [/greeter]

void keep(OSObj* place, ADDR accepted, ULONG) {
  auto* socket = static_cast<AsyncSocket*>(accepted);
  *reinterpret_cast<AsyncSocket**>(place) = socket;
  socket->ConnectAck();
}

AsyncSocket* make_listener(OSCallbackFunction accepted, void* object) {
  auto* listener = new AsyncSocket(true);
  listener->Create(SOCK_STREAM, 0, kLoopback, false);
  if (accepted != nullptr) listener->Listen(accepted, object);
  return listener;
}

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  OSTrigger::TLSInitialise();
  AsyncSocket::Init();
  AsyncSocket* nobody = make_listener(nullptr, nullptr);  // a port at which nobody listens
  AsyncSocket* greeter = make_listener(greet, nullptr);
  AsyncSocket* kept = nullptr;
  AsyncSocket* keeper = make_listener(keep, &kept);
  {
    // [calls]
    Client client;
    client.call(nobody->LocalPort());
    dispatch_until([&] { return client.ended(); });

    client.hang_up();  // after an end, too, before the socket is used again
    client.call(greeter->LocalPort());
    dispatch_until([&] { return client.ended(); });

    client.hang_up();
    client.call(keeper->LocalPort());
    dispatch_until([&] { return client.connected() && kept != nullptr; });
    client.hang_up();
    // [/calls]
  }
  kept->Free();
  for (AsyncSocket* listener : {nobody, greeter, keeper}) listener->Free();
  AsyncSocket::Cleanup();
  OSTrigger::TLSUninitialise();
  os_cleanup();
}
