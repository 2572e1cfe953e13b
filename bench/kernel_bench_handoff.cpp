/// Handing messages to another thread: a protected queue with a queue trigger beside a condition variable
/// queue.
#include <semaphore.h>

#include <boost/intrusive/list.hpp>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "kernel/buffer.h"
#include "kernel/trigger.h"
#include "kernel_bench.h"

namespace oskernel_bench {
namespace {

/// Lets the producer wait until its messages have been consumed, so that both ways hand over the same number
/// at a time and neither can fill memory.
class Batch {
 public:
  Batch() { sem_init(&consumed_all_, 0, 0); }
  ~Batch() { sem_destroy(&consumed_all_); }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  /// Before the first message; the queue orders it before the consumer's count.
  void begin(std::size_t messages) { left_ = messages; }
  void consumed() {
    if (--left_ == 0) sem_post(&consumed_all_);
  }
  void wait() {
    while (sem_wait(&consumed_all_) != 0) {
    }
  }

 private:
  std::size_t left_ = 0;
  sem_t consumed_all_;
};

/// The consumer is a callback on the trigger task.
struct TriggerConsumer {
  TriggerConsumer() : trigger(&queue, 1, 0, 0) {
    sem_init(&stopped, 0, 0);
    trigger.SetCallback(consume, nullptr, this, 0);
  }
  ~TriggerConsumer() { sem_destroy(&stopped); }
  TriggerConsumer(const TriggerConsumer&) = delete;
  TriggerConsumer& operator=(const TriggerConsumer&) = delete;

  static void consume(OSObj*, ADDR addr, ULONG) {
    auto* const self = static_cast<TriggerConsumer*>(addr);
    while (OSBuf* const message = self->queue.FirstBufAndRemove()) {
      if (message == self->last) {
        sem_post(&self->stopped);  // from here on the consumer may be gone
        return;
      }
      self->batch.consumed();
    }
    self->trigger.Clear();
  }

  OSProtectedQueue queue;
  OSQTrigger trigger;
  Batch batch;
  OSBuf* last = nullptr;  // tells the callback to stop; set before it is queued
  sem_t stopped;
};

void queue_trigger(benchmark::State& state) {
  const auto batch_size = static_cast<std::size_t>(state.range(0));
  const RunningKernel kernel(Dispatch::kThreads);
  std::vector<OSBuf*> messages;
  while (messages.size() < batch_size) messages.push_back(OSBuf::Alloc(0));

  TriggerConsumer consumer;
  for (auto _ : state) {
    consumer.batch.begin(batch_size);
    for (OSBuf* const message : messages) consumer.queue.Append(message);
    consumer.batch.wait();
  }
  consumer.last = messages.front();
  consumer.queue.Append(consumer.last);
  while (sem_wait(&consumer.stopped) != 0) {
  }
  for (OSBuf* const message : messages) message->Free();
  count_items(state, static_cast<std::int64_t>(batch_size));
}

void condition_variable(benchmark::State& state) {
  struct Message : boost::intrusive::list_base_hook<> {};
  std::vector<Message> messages(static_cast<std::size_t>(state.range(0)));

  std::mutex mutex;
  std::condition_variable arrived;
  boost::intrusive::list<Message> queue;
  bool done = false;
  Batch batch;
  std::thread consumer([&] {
    for (;;) {
      std::unique_lock<std::mutex> lock(mutex);
      arrived.wait(lock, [&] { return done || !queue.empty(); });
      if (queue.empty()) return;
      queue.pop_front();
      lock.unlock();
      batch.consumed();
    }
  });

  for (auto _ : state) {
    batch.begin(messages.size());
    for (Message& message : messages) {
      {
        const std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(message);
      }
      arrived.notify_one();
    }
    batch.wait();
  }
  {
    const std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  arrived.notify_one();
  consumer.join();
  count_items(state, static_cast<std::int64_t>(messages.size()));
}

void one_and_many(benchmark::internal::Benchmark* handoff) {
  handoff->ArgName("batch")->Arg(1)->Arg(64)->UseRealTime();
}

}  // namespace

void register_handoff() {
  benchmark::RegisterBenchmark("queue_handoff/oskernel", queue_trigger)->Apply(one_and_many);
  benchmark::RegisterBenchmark("queue_handoff/condition_variable", condition_variable)->Apply(one_and_many);
}

}  // namespace oskernel_bench
