// Message buffers between threads.

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_pool_fixture.h"
#include "support/seed.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BufferThreads : public BufferPools {};

TEST_F(BufferThreads, ThreadsNeverShareABuffer) {
  StartQuiet();
  constexpr int kThreads = 4;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      std::vector<OSBuf*> held;
      for (int round = 0; round < 1500; ++round) {
        const int request = pick(random, 0, 3) == 0 ? 0 : pick(random, 1, 1700);
        OSBuf* buf = OSBuf::Alloc(request);
        if (buf == nullptr) {
          ++wrong;
          continue;
        }
        buf->local_ipaddr = static_cast<ULONG>(t);
        buf->remote_ipaddr = static_cast<ULONG>(round);
        if (buf->size > 0) {
          buf->PushDown(buf->size);
          std::memset(buf->data, t, buf->length);
        }
        held.push_back(buf);
        if (held.size() < 6) continue;
        for (OSBuf* mine : held) {
          if (mine->local_ipaddr != static_cast<ULONG>(t)) ++wrong;
          for (int i = 0; i < mine->length; ++i) {
            if (mine->data[i] != t) ++wrong;
          }
          mine->Free();
        }
        held.clear();
      }
      for (OSBuf* mine : held) mine->Free();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(OSBuf::PoolSize(i), cfg.buf_qty[i]);
  ExpectPoolsSound();
}

TEST_F(BufferThreads, ABufferMayBeFreedByAnotherThread) {
  StartQuiet();
  for (int round = 0; round < 200; ++round) {
    OSBuf* buf = OSBuf::Alloc("across");
    std::thread([buf] {
      EXPECT_EQ(buf->length, 6);
      buf->Free();
    }).join();
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
  ExpectPoolsSound();
}

TEST_F(BufferThreads, ThePoolsAreLockedWhileABufferMoves) {
  StartQuiet();
  OSBuf* mine = OSBuf::Alloc(10);
  OSBuf* freed = OSBuf::Alloc(10);
  freed->Free();
  EnterCriticalSection(&OS_CRITICAL_BUFFERS);
  {
    WatchedThread alloc([] { OSBuf::Alloc(700)->Free(); });
    WatchedThread free([&] { mine->Free(); });
    WatchedThread free_again([&] { freed->Free(); });
    WatchedThread dump([] { dump_allocated(); });
    EXPECT_TRUE(alloc.blocked());
    EXPECT_TRUE(free.blocked());
    EXPECT_TRUE(free_again.blocked());
    EXPECT_TRUE(dump.blocked());
    EXPECT_EQ(OSBuf::PoolSize(1), 24);
    EXPECT_EQ(OSBuf::PoolSize(3), 55);
    EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
    LeaveCriticalSection(&OS_CRITICAL_BUFFERS);
  }
  EXPECT_EQ(OSBuf::PoolSize(1), 25);
  EXPECT_THAT(console.fatals(), ElementsAre(freed_twice(freed, 100)));
  ExpectPoolsSound();
}

TEST_F(BufferThreads, AllocatedBuffersCanBeListedWhileOthersComeAndGo) {
  StartQuiet();
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&stop, t] {
      while (!stop) {
        OSBuf* buf = OSBuf::Alloc(t == 0 ? 0 : 10);
        if (t != 0) buf->PushData("in use");
        buf->Free();
      }
    });
  }
  OSBuf* mine = OSBuf::Alloc("mine");
  for (int i = 0; i < 100; ++i) dump_allocated();
  stop = true;
  for (std::thread& thread : threads) thread.join();
  mine->Free();
  EXPECT_GE(console.count("OSBuffer: L="), 100);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
