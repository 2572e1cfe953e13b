#include <atomic>
#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;

// Each part below waits on an event of its own until its callback has done its work.
void wait_and_close(HANDLE event) {
  WaitForSingleObject(event, kForEver);
  CloseHandle(event);
}

// [queue]
struct Desk {
  Desk() : arrival(&calls, 1, 0, 0) { arrival.SetCallback(answer, nullptr, this, 0); }

  static void answer(OSObj*, ADDR desk, ULONG) { static_cast<Desk*>(desk)->take_all(); }
  void take_all() {
    while (OSBuf* call = calls.FirstBufAndRemove()) {
      std::printf("queue: %.*s\n", call->length, reinterpret_cast<char*>(call->data));
      call->Free();
      ++taken;
    }
    arrival.Clear();                 // arms it again, and looks at the queue at once
    if (taken == 3) SetEvent(done);  // the last act: whoever waits may destroy the desk now
  }

  int taken = 0;
  HANDLE done = CreateEvent(nullptr, false, false, nullptr);
  OSProtectedQueue calls;
  OSQTrigger arrival;  // behind the queue: it is destroyed first
};

void show_queue() {
  Desk desk;
  for (const char* text : {"first", "second", "third"}) desk.calls.Append(OSBuf::Alloc(text));
  wait_and_close(desk.done);
}
// [/queue]

// [timer]
struct Clockwork {
  Clockwork() : timer(20, 1) {  // 20 ms, not armed yet
    timer.SetCallback(tick, nullptr, this, 0);
    timer.SetTimer(20);
  }
  static void tick(OSObj*, ADDR addr, ULONG) {
    auto* self = static_cast<Clockwork*>(addr);
    std::printf("timer: tick %d\n", ++self->ticks);
    if (self->ticks < 3) {
      self->timer.Clear();  // the next period starts where this one was due to end
    } else {
      SetEvent(self->done);
    }
  }

  int ticks = 0;
  HANDLE done = CreateEvent(nullptr, false, false, nullptr);
  OSTimerTrigger timer;
};

void show_timer() {
  Clockwork clockwork;
  wait_and_close(clockwork.done);
}
// [/timer]

// [poll]
std::atomic<int> level{0};

BOOL is_high(OSTrigger*, OSObj*, ADDR, ULONG mark) { return level >= static_cast<int>(mark); }

void rise(OSObj*, ADDR timer, ULONG) {
  ++level;
  static_cast<OSTimerTrigger*>(timer)->Clear();
}

void was_high(OSObj*, ADDR timer, ULONG done) {
  static_cast<OSTimerTrigger*>(timer)->Cancel();  // here, where rise is not running
  std::printf("poll: the level is high\n");
  SetEvent(static_cast<HANDLE>(done));
}

void show_poll() {
  const HANDLE done = CreateEvent(nullptr, false, false, nullptr);
  OSTimerTrigger timer(5, 1);  // polls are asked while a timer is armed
  timer.SetCallback(rise, nullptr, &timer, 0);
  OSPollTrigger high(is_high, nullptr, nullptr, 3);  // armed from the start
  high.SetCallback(was_high, nullptr, &timer, static_cast<ULONG>(done));
  timer.SetTimer(5);
  wait_and_close(done);
}
// [/poll]

// [fire]
void asked_for(OSObj*, ADDR, ULONG done) {
  std::printf("by hand: fired\n");
  SetEvent(static_cast<HANDLE>(done));
}

void show_fire() {
  const HANDLE done = CreateEvent(nullptr, false, false, nullptr);
  OSTimerTrigger by_hand(0, 0);  // armed, and a period of 0 never expires
  by_hand.SetCallback(asked_for, nullptr, nullptr, static_cast<ULONG>(done));
  by_hand.Fire();
  by_hand.Fire();  // no effect: it acts once each time it is armed
  wait_and_close(done);
}
// [/fire]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  show_queue();
  show_timer();
  show_poll();
  show_fire();
  os_cleanup();
}
