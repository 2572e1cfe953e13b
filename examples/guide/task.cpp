#include <atomic>
#include <cstdio>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;

// [worker]
class Worker : public OSTask {
 public:
  Worker() : OSTask(4, 64 * 1024, nullptr, nullptr), job(0, 1) {
    thread_event = CreateEvent(nullptr, false, false, nullptr);  // what a wake signals; ~OSTask closes it
    job.SetTask(this);                                           // wakes this task instead of calling back
    _LockDelete();              // the object is its maker's to delete, not the thread's when Main returns
    LeaveCriticalSection(&cs);  // the last act of the constructor: now the thread calls Main
  }
  ~Worker() override {
    stopping_ = true;
    SetEvent(thread_event);
    Kill();  // waits until Main has returned
    CloseHandle(idle);
  }

  void Main() override {
    for (int jobs = 1;; ++jobs) {
      Snooze();     // from now on a trigger can wake this task; Snooze itself does not wait
      job.Clear();  // arms the trigger
      SetEvent(idle);
      WaitForSingleObject(thread_event, kForEver);
      if (stopping_) return;
      std::printf("job %d, wake code %d\n", jobs, WakeCode());
    }
  }

  const HANDLE idle = CreateEvent(nullptr, false, false, nullptr);
  OSTimerTrigger job;

 private:
  std::atomic<bool> stopping_{false};
};
// [/worker]

// [use]
void use_worker() {
  Worker worker;
  for (int jobs = 0; jobs < 3; ++jobs) {
    WaitForSingleObject(worker.idle, kForEver);
    worker.job.Fire();
  }
  WaitForSingleObject(worker.idle, kForEver);  // the third job is done
}
// [/use]

// [events]
void use_events() {
  const HANDLE event = CreateEvent(nullptr, false, false, nullptr);
  SetEvent(event);
  SetEvent(event);
  for (int wait = 1; wait <= 3; ++wait) {
    std::printf("wait %d: %u\n", wait, static_cast<unsigned>(WaitForSingleObject(event, 10)));
  }
  CloseHandle(event);
}
// [/events]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  use_worker();
  use_events();
  os_cleanup();
}
