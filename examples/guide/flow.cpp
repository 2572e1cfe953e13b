#include <atomic>
#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr ULONG kLoopback = 0x7F000001;
constexpr UWORD kMessage_bytes = 1000;
constexpr int kMessages = 200;
constexpr int kCredit = 4;

// [sender]
// Sends from a thread of its own, and never has more than kCredit messages under way.
class Sender : public OSTask {
 public:
  explicit Sender(UWORD port) : OSTask(4, 64 * 1024, nullptr, nullptr), port_(port) {
    for (int i = 0; i < kCredit; ++i) SetEvent(credit_);  // events count
    _LockDelete();
    LeaveCriticalSection(&cs);
  }
  ~Sender() override {
    Kill();
    CloseHandle(credit_);
  }
  void Main() override {
    auto* socket = new AsyncSocket(true);
    socket->Create(SOCK_STREAM, 0, kLoopback, false);
    socket->Connect(kLoopback, port_);
    for (int sent = 0; sent < kMessages; ++sent) {
      WaitForSingleObject(credit_, kForEver);
      OSBuf* buf = OSBuf::Alloc(kMessage_bytes);
      buf->PushDown(kMessage_bytes);
      // Runs when the data have left, on whichever thread and in whichever buffer they are by then.
      buf->AddDataCallback(OSCallback::Alloc(nullptr, left, nullptr, nullptr, static_cast<ULONG>(credit_)));
      if (socket->DataIndication(buf) != Success) break;  // waits while the peer takes nothing, 5 s at most
    }
    for (int i = 0; i < kCredit; ++i) WaitForSingleObject(credit_, kForEver);
    socket->Free();
  }

 private:
  static void left(OSObj*, ADDR, ULONG credit) { SetEvent(static_cast<HANDLE>(credit)); }

  const UWORD port_;
  const HANDLE credit_ = CreateEvent(nullptr, false, false, nullptr);
};
// [/sender]

// [receiver]
class Receiver : public OSIO {
 public:
  OSIORetCode DataIndication(OSBuf* buf) override {
    bytes += buf->length;
    buf->Free();
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason, int) override {
    ended = true;
    return Success;
  }
  int bytes = 0;
  bool ended = false;
  AsyncSocket* socket = nullptr;
};

void accepted(OSObj* receiver, ADDR socket, ULONG) {
  auto* self = reinterpret_cast<Receiver*>(receiver);
  self->socket = static_cast<AsyncSocket*>(socket);
  self->socket->Bind(self);
  self->socket->ConnectAck();
}

void dispatch() {
  WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
  OSTrigger::TLSPoll();
}

void receive_slowly(Receiver& receiver) {
  while (receiver.socket == nullptr) dispatch();
  // This thread has something else to do. The socket is read until 10 buffers wait in it, and then no more.
  while (receiver.socket->q.Size() < 10) Sleep(1);
  Sleep(20);
  std::printf("%d buffers wait\n", receiver.socket->q.Size());
  while (!receiver.ended) dispatch();
  std::printf("%d bytes have come\n", receiver.bytes);
}
// [/receiver]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  OSTrigger::TLSInitialise();
  AsyncSocket::Init();
  auto* listener = new AsyncSocket(true);
  Receiver receiver;
  listener->Create(SOCK_STREAM, 0, kLoopback, false);
  listener->Listen(accepted, reinterpret_cast<OSObj*>(&receiver));
  {
    Sender sender(listener->LocalPort());
    receive_slowly(receiver);
  }
  receiver.socket->Free();
  listener->Free();
  AsyncSocket::Cleanup();
  OSTrigger::TLSUninitialise();
  os_cleanup();
}
