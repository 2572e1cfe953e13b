#include <arpa/inet.h>

#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "network/asocket.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr ULONG kLoopback = 0x7F000001;  // addresses are in host order

// [sequence]
// Numbers what is sent and checks the numbers of what comes: 4 bytes in front of each message, the most significant
// first.
class Sequence : public OSIO {
 public:
  Sequence() : above_(this) {}
  OSIO* Above() {
    return &above_;
  }  // what the layer above binds to; the layer below binds to the Sequence itself

  // From below.
  OSIORetCode DataIndication(OSBuf* buf) override {
    if (buf->length < sizeof(ULONG) || ntohl(buf->PullLong()) != received_++) {
      buf->Free();
      return above_.Partner()->DisconnectIndication(Failed, 0);
    }
    return above_.Partner()->DataIndication(buf);
  }
  OSIORetCode ConnectIndication(OSIOAddress* address) override {
    return above_.Partner()->ConnectIndication(address);
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    return above_.Partner()->DisconnectIndication(reason, code);
  }

 private:
  // From above.
  class Side : public OSIO {
   public:
    explicit Side(Sequence* layer) : layer_(layer) {}
    OSIORetCode DataIndication(OSBuf* buf) override {
      buf->PushData(
          static_cast<ULONG>(htonl(layer_->sent_++)));  // in front of the data, which stay where they are
      return layer_->Partner()->DataIndication(buf);
    }

   private:
    Sequence* layer_;
  };

  Side above_;
  ULONG sent_ = 0;
  ULONG received_ = 0;
};
// [/sequence]

// [caller]
class Caller : public OSIO {
 public:
  OSIORetCode ConnectIndication(OSIOAddress*) override {
    std::printf("caller: connected\n");
    return ask();
  }
  OSIORetCode DataIndication(OSBuf* buf) override {
    std::printf("caller: %.*s\n", buf->length, reinterpret_cast<char*>(buf->data));
    buf->Free();
    return ask();
  }

  const HANDLE done = CreateEvent(nullptr, false, false, nullptr);

 private:
  OSIORetCode ask() {
    static const char* const questions[] = {"one", "two", "three"};
    if (asked_ < 3) return Partner()->DataIndication(OSBuf::Alloc(questions[asked_++]));
    SetEvent(done);
    return Success;
  }

  int asked_ = 0;
};
// [/caller]

// [answerer]
// Whoever calls gets back what it says. The answer goes out in the buffer that brought the question.
class Answerer : public OSIO {
 public:
  OSIORetCode DataIndication(OSBuf* buf) override {
    buf->PushData("heard ");
    return Partner()->DataIndication(buf);
  }
};

struct Server {
  Server() {
    listener->Create(SOCK_STREAM, 0, kLoopback, false);  // port 0: the system chooses
    listener->Listen(accepted, this);
  }
  ~Server() {
    listener->Free();
    connection->Free();  // null when nobody has called: nothing happens then
  }
  static void accepted(OSObj* server, ADDR socket, ULONG) {
    reinterpret_cast<Server*>(server)->take(static_cast<AsyncSocket*>(socket));
  }
  void take(AsyncSocket* socket) {
    if (connection != nullptr) return socket->Free();  // one call at a time
    connection = socket;
    answerer.Bind(sequence.Above());
    sequence.Bind(connection);
    connection->ConnectAck();  // the layers are there: now it may receive
  }

  AsyncSocket* listener = new TPKTSocket;
  AsyncSocket* connection = nullptr;
  Sequence sequence;
  Answerer answerer;
};
// [/answerer]

// [main]
int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  AsyncSocket::Init();
  {
    Server server;
    Caller caller;
    Sequence sequence;
    AsyncSocket* socket = new TPKTSocket;
    caller.Bind(sequence.Above());
    sequence.Bind(socket);
    socket->Create(SOCK_STREAM, 0, kLoopback, false);
    socket->Connect(kLoopback, server.listener->LocalPort());
    WaitForSingleObject(caller.done, kForEver);
    socket->Free();  // nothing is indicated any more
    CloseHandle(caller.done);
  }
  AsyncSocket::Cleanup();
  os_cleanup();
}
// [/main]
