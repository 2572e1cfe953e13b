/// What the benchmarks share.
///
/// A benchmark is named SUBJECT/IMPLEMENTATION/ARGUMENTS. bench/compare puts the implementations of one
/// subject and the same arguments side by side, "oskernel" first, so peers use the same subject and argument
/// names. The time of one operation is taken from the items that a benchmark counts.
#ifndef OSKERNEL_BENCH_KERNEL_BENCH_H
#define OSKERNEL_BENCH_KERNEL_BENCH_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "kernel/kernel.h"

namespace oskernel_bench {

/// Prints what the kernel reports. A benchmark that runs into a fatal error measures nothing: it ends.
class BenchConsole : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    std::vfprintf(stderr, format, arguments);
  }
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::abort();
  }
};

enum class Dispatch { kThreads, kByHand };

/// The configuration of a benchmark that needs few of everything.
inline KernelCfg small_config(Dispatch dispatch) {
  KernelCfg cfg;
  if (dispatch == Dispatch::kByHand) cfg.trigger_stack = 0;
  return cfg;
}

/// A started kernel for a scope. Links are the kernel's only pool that outlives it; they go too, so that no
/// benchmark finds what another has left.
class RunningKernel {
 public:
  explicit RunningKernel(const KernelCfg& cfg) : cfg_(cfg) { os_startup(nullptr, 0, &cfg_); }
  explicit RunningKernel(Dispatch dispatch) : RunningKernel(small_config(dispatch)) {}
  ~RunningKernel() {
    os_cleanup();
    OSLink::UnInitialise();
  }
  RunningKernel(const RunningKernel&) = delete;
  RunningKernel& operator=(const RunningKernel&) = delete;

 private:
  KernelCfg cfg_;
};

/// Processor time of this thread, in seconds. Other programs on the machine do not count, as they would by
/// the wall clock.
inline double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Runs `work` and returns the processor time that it took, for SetIterationTime. What reading the clock
/// takes is taken off, because ten timers are armed in little more.
template <class Work>
double seconds_of(Work work) {
  static const double reading = [] {
    double least = 1;
    for (int i = 0; i < 1000; ++i) {
      const double start = thread_seconds();
      least = std::min(least, thread_seconds() - start);
    }
    return least;
  }();
  const double start = thread_seconds();
  work();
  return std::max(thread_seconds() - start - reading, 1e-9);
}

/// Counts `per_iteration` operations for each iteration of this thread.
inline void count_items(benchmark::State& state, std::int64_t per_iteration = 1) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * per_iteration);
}

// Each source registers its benchmarks in the order in which they are to be printed.
void register_buffers();
void register_locks();
void register_lists();
void register_handoff();
void register_timers();
void register_trees();

}  // namespace oskernel_bench

#endif
