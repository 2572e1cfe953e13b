#include <cstdio>
#include <memory>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/task.h"
#include "network/socket.h"
#include "terminal.h"

constexpr ULONG kLoopback = 0x7F000001;
constexpr int kPatience_ms = 10000;

// [server]
class Server : public OSTask {
 public:
  Server() : OSTask(4, 64 * 1024, nullptr, nullptr), listener_(Socket::TCP_SERVER, 0, true, kLoopback) {
    _LockDelete();
    LeaveCriticalSection(&cs);
  }
  ~Server() override { Kill(); }  // waits for Main
  UWORD Port() { return listener_.LocalPort(); }

  void Main() override {
    const std::unique_ptr<Socket> peer(listener_.Accept());  // waits
    if (peer == nullptr) return;
    while (OSBuf* buf = peer->RecWait(kPatience_ms)) {
      buf->PushData("heard ");
      peer->DataIndication(buf);
    }
  }  // the end of the stream, or nothing has come for so long

 private:
  Socket listener_;
};
// [/server]

// [client]
void ask(UWORD port) {
  char host[] = "127.0.0.1";
  Socket socket(Socket::TCP_CLIENT, host, port);  // connects, and waits for it
  if (socket.state != Socket::CONNECTED) {
    std::printf("no connection\n");
    return;
  }
  for (const char* question : {"one", "two"}) {
    socket.DataIndication(OSBuf::Alloc(question));
    OSBuf* answer = socket.RecWait(kPatience_ms);
    if (answer == nullptr) return;
    std::printf("%.*s\n", answer->length, reinterpret_cast<char*>(answer->data));
    answer->Free();
  }
}
// [/client]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  {
    Server server;
    ask(server.Port());
  }
  os_cleanup();
}
