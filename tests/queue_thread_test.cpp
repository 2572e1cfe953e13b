// The protected queue between threads: nothing is lost, shared or torn, and triggers come and go meanwhile.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/buffer_fixture.h"
#include "support/kernel_fixture.h"
#include "support/link_objects.h"

namespace oskernel_test {
namespace {

using ::testing::IsEmpty;

constexpr int kPatienceMs = 60000;  ///< the longest any thread waits for another

bool took_one(std::counting_semaphore<>& tokens) {
  return tokens.try_acquire_for(std::chrono::milliseconds(kPatienceMs));
}

class QueueThreads : public PoolTest {};

TEST_F(QueueThreads, OneProducersBuffersArriveInTheirOrder) {
  OSProtectedQueue queue;
  constexpr int kProducers = 3;
  constexpr ULONG kPerProducer = 2000;
  std::counting_semaphore<> available(0);
  std::counting_semaphore<> room(60);  // fewer than there are buffers
  std::vector<std::thread> producers;
  for (ULONG p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (ULONG i = 0; i < kPerProducer; ++i) {
        if (!took_one(room)) return;
        OSBuf* buf = OSBuf::Alloc(0);
        buf->local_ipaddr = p;
        buf->remote_ipaddr = i;
        queue.Append(buf);
        available.release();
      }
    });
  }
  ULONG next[kProducers] = {};
  int wrong = 0;
  ULONG taken = 0;
  for (ULONG i = 0; i < kProducers * kPerProducer; ++i) {
    if (!took_one(available)) break;
    OSBuf* buf = queue.FirstBufAndRemove();
    if (buf == nullptr) {
      ++wrong;
      continue;
    }
    ++taken;
    if (buf->local_ipaddr >= kProducers || buf->remote_ipaddr != next[buf->local_ipaddr]++) ++wrong;
    buf->Free();
    room.release();
  }
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(taken, kProducers * kPerProducer);
  EXPECT_EQ(queue.FirstBufAndRemove(), nullptr);
  EXPECT_EQ(queue.Signature(), 2u * kProducers * kPerProducer);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(QueueThreads, ProducersAndConsumersLoseNothingAndShareNothing) {
  OSProtectedQueue queue;
  constexpr int kConsumers = 3;
  constexpr int kTotal = 3000;
  std::counting_semaphore<> available(0);
  std::counting_semaphore<> room(60);
  std::vector<std::atomic<int>> seen(kTotal);
  std::atomic<int> next{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < 2; ++p) {
    threads.emplace_back([&, p] {
      for (;;) {
        const int number = next++;
        if (number >= kTotal) break;
        if (!took_one(room)) return;
        OSBuf* buf = OSBuf::Alloc(0);
        buf->remote_ipaddr = static_cast<ULONG>(number);
        if (p == 0) {
          queue.Append(buf);
        } else {
          queue.Insert(buf);
        }
        available.release();
      }
    });
  }
  std::atomic<int> to_take{kTotal};
  for (int t = 0; t < kConsumers; ++t) {
    threads.emplace_back([&] {
      while (to_take-- > 0) {
        if (!took_one(available)) {
          ++failures;
          break;
        }
        OSBuf* buf = queue.FirstBufAndRemove();
        if (buf == nullptr) {
          ++failures;
          continue;
        }
        ++seen[buf->remote_ipaddr];
        buf->Free();
        room.release();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  for (int i = 0; i < kTotal; ++i) ASSERT_EQ(seen[static_cast<std::size_t>(i)], 1) << i;
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(QueueThreads, BytesFromManyThreadsStayWholeThroughCompaction) {
  OSProtectedQueue queue;
  constexpr int kThreads = 3;
  constexpr int kWrites = 500;
  constexpr std::size_t kWriteBytes = 8;
  // A token stands for one write that has not been read yet: fewer than there are buffers, whoever is slow.
  std::counting_semaphore<> room(20);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kWrites; ++i) {
        // Eight bytes that belong together: who wrote them, and the count.
        if (!took_one(room)) return;
        char text[kWriteBytes + 1];
        snprintf(text, sizeof text, "%c%05d;\n", 'A' + t, i);
        queue.AppendBufAndCompact(OSBuf::Alloc(text));
      }
    });
  }
  std::string all;
  constexpr std::size_t kTotal = kWriteBytes * kThreads * kWrites;
  const bool complete = wait_until(
      [&] {
        while (OSBuf* buf = queue.FirstBufAndRemove()) {
          const std::size_t writes_before = all.size() / kWriteBytes;
          all += content(buf);
          buf->Free();
          const std::size_t writes = all.size() / kWriteBytes - writes_before;
          if (writes > 0) room.release(static_cast<std::ptrdiff_t>(writes));
        }
        return all.size() >= kTotal;
      },
      kPatienceMs);
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(complete);
  ASSERT_EQ(all.size(), kTotal);
  int next[kThreads] = {};
  for (std::size_t at = 0; at < all.size(); at += kWriteBytes) {
    const int who = all[at] - 'A';
    ASSERT_GE(who, 0);
    ASSERT_LT(who, kThreads);
    ASSERT_EQ(std::stoi(all.substr(at + 1, 5)), next[who]++);
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(QueueThreads, TriggersComeAndGoWhileTheQueueIsInUse) {
  OSProtectedQueue queue;
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::thread user([&] {
    while (!stop) {
      queue.Append(OSBuf::Alloc(0));
      queue.FirstBufAndRemove()->Free();
      ++rounds;
    }
  });
  EXPECT_TRUE(wait_until([&] { return rounds > 0; }, kPatienceMs));
  for (int i = 0; i < 200; ++i) {
    OSQTrigger full(&queue, 1, 0, 0);
    OSQTrigger never(&queue, 1000, 0, 0);
    std::this_thread::yield();
  }
  const int so_far = rounds;
  EXPECT_TRUE(wait_until([&] { return rounds > so_far; }, kPatienceMs));
  stop = true;
  user.join();
  EXPECT_EQ(queue.triggers.Size(), 0);
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
