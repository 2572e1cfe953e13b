/// Message buffers: allocating and freeing one while others are outstanding, beside malloc and boost::pool.
#include <boost/pool/pool.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/buffer.h"
#include "kernel_bench.h"

namespace oskernel_bench {
namespace {

/// The kernel's buffers: one class of the wanted size, with as many as are outstanding and a few to spare.
class KernelBuffers {
 public:
  KernelBuffers(int size_bytes, int outstanding)
      : kernel_(config(size_bytes, outstanding)), size_(size_bytes) {}
  // A request goes to the smallest class that is larger.
  void* take() { return OSBuf::Alloc(size_ - 1); }
  void give_back(void* buffer) { static_cast<OSBuf*>(buffer)->Free(); }

 private:
  static KernelCfg config(int size_bytes, int outstanding) {
    KernelCfg cfg = small_config(Dispatch::kByHand);
    for (int i = 0; i < 4; ++i) cfg.buf_qty[i] = cfg.buf_size[i] == size_bytes ? outstanding + 16 : 0;
    cfg.link_qty = 2 * outstanding + 1000;
    return cfg;
  }

  RunningKernel kernel_;
  int size_;
};

class Malloc {
 public:
  Malloc(int size_bytes, int /*outstanding*/) : size_(static_cast<std::size_t>(size_bytes)) {}
  void* take() { return std::malloc(size_); }
  void give_back(void* block) { std::free(block); }

 private:
  std::size_t size_;
};

/// Under a mutex, because the kernel's buffers may be used by any thread too.
class BoostPool {
 public:
  BoostPool(int size_bytes, int /*outstanding*/) : pool_(static_cast<std::size_t>(size_bytes)) {}
  void* take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return pool_.malloc();
  }
  void give_back(void* block) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pool_.free(block);
  }

 private:
  std::mutex mutex_;
  boost::pool<> pool_;
};

/// Takes and gives back one block at a time while `outstanding` others stay out.
template <class Pool>
void take_and_give_back(benchmark::State& state, int size_bytes) {
  static std::unique_ptr<Pool> pool;
  static std::vector<void*> held;
  const auto outstanding = static_cast<int>(state.range(0));
  if (state.thread_index() == 0) {
    pool = std::make_unique<Pool>(size_bytes, outstanding);
    for (int i = 0; i < outstanding; ++i) held.push_back(pool->take());
  }
  for (auto _ : state) {
    void* const block = pool->take();
    benchmark::DoNotOptimize(block);
    pool->give_back(block);
  }
  if (state.thread_index() == 0) {
    for (void* const block : held) pool->give_back(block);
    held.clear();
    pool.reset();
  }
  count_items(state);
}

/// Replaces the oldest of the outstanding blocks by a new one: what a queue of this length does to the pool.
/// The blocks themselves leave the caches as their number grows, whatever the pool does.
template <class Pool>
void replace_oldest(benchmark::State& state, int size_bytes) {
  const auto outstanding = static_cast<std::size_t>(state.range(0));
  Pool pool(size_bytes, static_cast<int>(outstanding));
  std::vector<void*> held;
  for (std::size_t i = 0; i < outstanding; ++i) held.push_back(pool.take());
  std::size_t oldest = 0;
  for (auto _ : state) {
    pool.give_back(held[oldest]);
    held[oldest] = pool.take();
    benchmark::DoNotOptimize(held[oldest]);
    oldest = oldest + 1 == outstanding ? 0 : oldest + 1;
  }
  for (void* const block : held) pool.give_back(block);
  count_items(state);
}

template <class Pool>
void register_pool(const std::string& implementation, int size_bytes) {
  const std::string suffix = std::to_string(size_bytes) + "/" + implementation;
  const auto add = [&](const char* subject, void (*function)(benchmark::State&, int)) {
    return benchmark::RegisterBenchmark((subject + suffix).c_str(), function, size_bytes)
        ->ArgName("outstanding")
        ->RangeMultiplier(10)
        ->Range(10, 10000);
  };
  add("buffer_", take_and_give_back<Pool>);
  add("buffer_", take_and_give_back<Pool>)->Threads(2)->UseRealTime();
  if (size_bytes != 100) return;
  benchmark::RegisterBenchmark(("buffer_fifo_" + suffix).c_str(), replace_oldest<Pool>, size_bytes)
      ->ArgName("outstanding")
      ->Arg(10)
      ->Arg(10000);
}

}  // namespace

void register_buffers() {
  for (const int size_bytes : {100, 600, 1740}) {
    register_pool<KernelBuffers>("oskernel", size_bytes);
    register_pool<Malloc>("malloc", size_bytes);
    register_pool<BoostPool>("boost::pool", size_bytes);
  }
}

}  // namespace oskernel_bench
