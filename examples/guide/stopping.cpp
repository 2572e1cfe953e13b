#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "terminal.h"

constexpr ULONG kLoopback = 0x7F000001;

void refuse(OSObj*, ADDR socket, ULONG) { static_cast<AsyncSocket*>(socket)->Free(); }

void end_soon(OSObj*, ADDR, ULONG) { kill(getpid(), SIGTERM); }  // what an operator does

// [stopping]
int main() {
  // Blocked before there is any thread: every thread inherits it, and sigwait below is the only one to take it.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  AsyncSocket::Init();
  const int buffers = OSBuf::PoolSize(1);

  auto* listener = new AsyncSocket(true);
  listener->Create(SOCK_STREAM, 0, kLoopback, false);
  listener->Listen(refuse, nullptr);
  {
    OSTimerTrigger operator_asks(50, 1);
    operator_asks.SetCallback(end_soon, nullptr, nullptr, 0);
    operator_asks.SetTimer(50);
    std::printf("serving\n");
    int signal = 0;
    sigwait(&ends, &signal);
    std::printf("stopping\n");
  }                        // 1. what the application has made
  listener->Free();        // 2. its sockets
  AsyncSocket::Cleanup();  // 3. the threads of the networking layer
  std::printf("%d buffers missing\n", buffers - OSBuf::PoolSize(1));
  os_cleanup();  // 4. the kernel
}
// [/stopping]
