/// Events and critical sections, beside raw semaphores and a recursive mutex.
#include <semaphore.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "kernel_bench.h"

namespace oskernel_bench {
namespace {

constexpr unsigned int kForever = 0xFFFFFFFF;
constexpr unsigned int kPatience_ms = 60000;

// ---- Events ------------------------------------------------------------------------------------------------

class KernelEventPeer {
 public:
  KernelEventPeer() : handle_(CreateEvent(nullptr, false, false, nullptr)) {}
  ~KernelEventPeer() { CloseHandle(handle_); }
  KernelEventPeer(const KernelEventPeer&) = delete;
  KernelEventPeer& operator=(const KernelEventPeer&) = delete;
  void signal() { SetEvent(handle_); }
  void wait() { WaitForSingleObject(handle_, kForever); }
  void wait_with_timeout() { WaitForSingleObject(handle_, kPatience_ms); }

 private:
  HANDLE handle_;
};

class Semaphore {
 public:
  Semaphore() { sem_init(&sem_, 0, 0); }
  ~Semaphore() { sem_destroy(&sem_); }
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;
  void signal() { sem_post(&sem_); }
  void wait() { sem_wait(&sem_); }
  void wait_with_timeout() {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += kPatience_ms / 1000;
    sem_timedwait(&sem_, &until);
  }

 private:
  sem_t sem_;
};

/// Signals an event and takes the signal at once, on one thread, with others alive beside it.
template <class Event>
void signal_and_wait(benchmark::State& state) {
  const RunningKernel kernel(Dispatch::kByHand);
  std::vector<Event> events(static_cast<std::size_t>(state.range(0)));
  Event& newest = events.back();
  for (auto _ : state) {
    newest.signal();
    newest.wait();
  }
  count_items(state);
}

/// A signal to another thread and one back.
template <class Event>
void ping_pong(benchmark::State& state, bool with_timeout) {
  const RunningKernel kernel(Dispatch::kByHand);
  Event ping;
  Event pong;
  bool done = false;  // ordered by the signals
  const auto wait = [with_timeout](Event& event) { with_timeout ? event.wait_with_timeout() : event.wait(); };
  std::thread partner([&] {
    for (;;) {
      wait(ping);
      if (done) return;
      pong.signal();
    }
  });
  for (auto _ : state) {
    ping.signal();
    wait(pong);
  }
  done = true;
  ping.signal();
  partner.join();
  count_items(state);
}

// ---- Sections ----------------------------------------------------------------------------------------------

class KernelSection {
 public:
  KernelSection() { InitializeCriticalSection(&section_); }
  void enter() { EnterCriticalSection(&section_); }
  void leave() { LeaveCriticalSection(&section_); }

 private:
  CRITICAL_SECTION section_;
};

class RecursiveMutex {
 public:
  RecursiveMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  ~RecursiveMutex() { pthread_mutex_destroy(&mutex_); }
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;
  void enter() { pthread_mutex_lock(&mutex_); }
  void leave() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_;
};

template <class Section>
void enter_and_leave(benchmark::State& state) {
  static Section section;
  static int guarded = 0;
  for (auto _ : state) {
    section.enter();
    benchmark::DoNotOptimize(++guarded);
    section.leave();
  }
  count_items(state);
}

template <class Section>
void enter_again(benchmark::State& state) {
  Section section;
  section.enter();
  for (auto _ : state) {
    section.enter();
    section.leave();
  }
  section.leave();
  count_items(state);
}

template <class Event>
void register_event(const std::string& implementation) {
  benchmark::RegisterBenchmark(("event_set_wait/" + implementation).c_str(), signal_and_wait<Event>)
      ->ArgName("live")
      ->RangeMultiplier(10)
      ->Range(10, 10000);
  benchmark::RegisterBenchmark(("event_ping_pong/" + implementation).c_str(), ping_pong<Event>, false)
      ->UseRealTime();
  benchmark::RegisterBenchmark(("event_ping_pong_timed/" + implementation).c_str(), ping_pong<Event>, true)
      ->UseRealTime();
}

template <class Section>
void register_section(const std::string& implementation) {
  const std::string name = "section_enter_leave/" + implementation;
  benchmark::RegisterBenchmark(name.c_str(), enter_and_leave<Section>);
  benchmark::RegisterBenchmark(name.c_str(), enter_and_leave<Section>)->Threads(2)->UseRealTime();
  benchmark::RegisterBenchmark(("section_enter_again/" + implementation).c_str(), enter_again<Section>);
}

}  // namespace

void register_locks() {
  register_event<KernelEventPeer>("oskernel");
  register_event<Semaphore>("sem_t");
  register_section<KernelSection>("oskernel");
  register_section<RecursiveMutex>("pthread_mutex");
}

}  // namespace oskernel_bench
