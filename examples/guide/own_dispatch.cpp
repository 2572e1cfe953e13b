#include <cstdio>

#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;

// [own]
int ticks = 0;  // one thread uses it: no lock, no atomic

void tick(OSObj*, ADDR timer, ULONG) {
  if (++ticks < 5) static_cast<OSTimerTrigger*>(timer)->Clear();
}

void run() {
  OSTrigger::TLSInitialise();  // first: what this thread constructs from now on comes back to it
  {
    OSTimerTrigger timer(10, 1);
    timer.SetCallback(tick, nullptr, &timer, 0);
    timer.SetTimer(10);
    while (ticks < 5) {
      WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
      OSTrigger::TLSPoll();  // calls tick, on this thread
    }
  }  // the triggers go before the list that they stand on
  OSTrigger::TLSUninitialise();
  std::printf("%d ticks\n", ticks);
}
// [/own]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  run();
  os_cleanup();
}
