/// Arming, cancelling and expiring timers, beside libuv and libevent.
#include <event2/event.h>
#include <uv.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kernel/trigger.h"
#include "kernel_bench.h"

namespace oskernel_bench {
namespace {

/// Counts what has expired, for all three.
std::size_t expired_count = 0;

class KernelTimers {
 public:
  explicit KernelTimers(std::size_t count) : kernel_(Dispatch::kByHand) {
    for (std::size_t i = 0; i < count; ++i) {
      timers_.push_back(std::make_unique<OSTimerTrigger>(1, 1));
      timers_.back()->SetCallback([](OSObj*, ADDR, ULONG) { ++expired_count; }, nullptr, nullptr, 0);
    }
  }
  void arm(std::size_t i, unsigned int ms) { timers_[i]->SetTimer(ms); }
  void cancel(std::size_t i) { timers_[i]->Cancel(); }
  void dispatch() { os_check_triggers(); }

 private:
  RunningKernel kernel_;
  std::vector<std::unique_ptr<OSTimerTrigger>> timers_;
};

class UvTimers {
 public:
  explicit UvTimers(std::size_t count) : timers_(count) {
    uv_loop_init(&loop_);
    for (uv_timer_t& timer : timers_) uv_timer_init(&loop_, &timer);
  }
  ~UvTimers() {
    for (uv_timer_t& timer : timers_) uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }
  UvTimers(const UvTimers&) = delete;
  UvTimers& operator=(const UvTimers&) = delete;
  void arm(std::size_t i, unsigned int ms) {
    uv_timer_start(
        &timers_[i], [](uv_timer_t*) { ++expired_count; }, ms, 0);
  }
  void cancel(std::size_t i) { uv_timer_stop(&timers_[i]); }
  void dispatch() { uv_run(&loop_, UV_RUN_NOWAIT); }

 private:
  uv_loop_t loop_;
  std::vector<uv_timer_t> timers_;
};

class EventTimers {
 public:
  explicit EventTimers(std::size_t count) : base_(event_base_new()) {
    while (timers_.size() < count) {
      timers_.push_back(evtimer_new(
          base_, [](evutil_socket_t, short, void*) { ++expired_count; }, nullptr));
    }
  }
  ~EventTimers() {
    for (event* const timer : timers_) event_free(timer);
    event_base_free(base_);
  }
  EventTimers(const EventTimers&) = delete;
  EventTimers& operator=(const EventTimers&) = delete;
  void arm(std::size_t i, unsigned int ms) {
    const timeval after{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    event_add(timers_[i], &after);
  }
  void cancel(std::size_t i) { event_del(timers_[i]); }
  void dispatch() { event_base_loop(base_, EVLOOP_NONBLOCK); }

 private:
  event_base* base_;
  std::vector<event*> timers_;
};

/// Durations between 10 and 100 s, in no order, which nothing in a benchmark outlasts.
std::vector<unsigned int> long_durations(std::size_t count) {
  std::mt19937 random(1);
  std::uniform_int_distribution<unsigned int> ms(10000, 100000);
  std::vector<unsigned int> durations(count);
  for (unsigned int& duration : durations) duration = ms(random);
  return durations;
}

enum class Measured { kArming, kCancelling };

/// Arms all timers, then cancels them in the order in which they were armed.
template <class Timers>
void arm_and_cancel(benchmark::State& state, Measured measured) {
  const auto count = static_cast<std::size_t>(state.range(0));
  Timers timers(count);
  const std::vector<unsigned int> durations = long_durations(count);
  for (auto _ : state) {
    const double arming = seconds_of([&] {
      for (std::size_t i = 0; i < count; ++i) timers.arm(i, durations[i]);
    });
    const double cancelling = seconds_of([&] {
      for (std::size_t i = 0; i < count; ++i) timers.cancel(i);
    });
    state.SetIterationTime(measured == Measured::kArming ? arming : cancelling);
  }
  count_items(state, static_cast<std::int64_t>(count));
}

/// Arms one timer again and again, as a connection does with its time-out, while the others stay armed.
template <class Timers>
void rearm_one(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  Timers timers(count);
  const std::vector<unsigned int> durations = long_durations(count);
  for (std::size_t i = 0; i < count; ++i) timers.arm(i, durations[i]);
  std::size_t next = 0;
  for (auto _ : state) {
    timers.cancel(next);
    timers.arm(next, durations[count - 1 - next]);
    next = next + 1 == count ? 0 : next + 1;
  }
  for (std::size_t i = 0; i < count; ++i) timers.cancel(i);
  count_items(state);
}

/// Arms all timers for 1 to 4 ms, lets the time pass, and measures the passes that run all callbacks.
template <class Timers>
void expire(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  Timers timers(count);
  for (auto _ : state) {
    expired_count = 0;
    timers.dispatch();  // the loops of libuv and libevent take their time when they run
    for (std::size_t i = 0; i < count; ++i) timers.arm(i, 1 + i % 4);
    const ULONG armed_at = os_clock();
    while (os_expired(armed_at, 6) == FALSE) {
    }
    state.SetIterationTime(seconds_of([&] {
      while (expired_count < count) timers.dispatch();
    }));
  }
  count_items(state, static_cast<std::int64_t>(count));
}

template <class Timers>
void register_implementation(const std::string& implementation) {
  const auto add = [&](const char* subject, auto... function) {
    return benchmark::RegisterBenchmark((std::string(subject) + "/" + implementation).c_str(), function...)
        ->ArgName("timers");
  };
  for (const int count : {10, 1000, 100000}) {
    add("timer_arm", arm_and_cancel<Timers>, Measured::kArming)->Arg(count)->UseManualTime();
    add("timer_cancel", arm_and_cancel<Timers>, Measured::kCancelling)->Arg(count)->UseManualTime();
    add("timer_rearm_one", rearm_one<Timers>)->Arg(count);
    // Most of an iteration is waiting for the time to pass, which no benchmark sees; so the number is set.
    const int iterations = count == 100000 ? 1 : 20;
    add("timer_expire", expire<Timers>)->Arg(count)->UseManualTime()->Iterations(iterations);
  }
}

}  // namespace

void register_timers() {
  register_implementation<KernelTimers>("oskernel");
  register_implementation<UvTimers>("libuv");
  register_implementation<EventTimers>("libevent");
}

}  // namespace oskernel_bench
