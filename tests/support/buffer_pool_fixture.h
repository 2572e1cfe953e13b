/// What the tests of the buffer pools share: the marks, what lies in a pool, and taking classes empty.
#ifndef OSKERNEL_TESTS_BUFFER_POOL_FIXTURE_H
#define OSKERNEL_TESTS_BUFFER_POOL_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "failing_new.h"
#include "kernel/buffer.h"
#include "kernel_fixture.h"
#include "ring_check.h"

namespace oskernel_test {

inline constexpr UWORD kNeverUsed = 0x5555;
inline constexpr UWORD kFreed = 0xAAAA;
inline constexpr int kGuardBytes = 64;
inline constexpr UBYTE kGuard = 0xA5;

inline constexpr char kCorruptAlloc[] = "OSBuf::Alloc - Corrupt";
inline constexpr char kCorruptFree[] = "OSBuf::Free - Corrupt";
inline constexpr char kPushedTooFar[] = "OSBuf::Free - Corrupted buffer - pushed down too far";

/// The report of a buffer that is freed a second time.
inline std::string freed_twice(const OSBuf* buf, int size) {
  char message[80];
  snprintf(message, sizeof message, "OSBuffer::Free freed twice %p %d", static_cast<const void*>(buf), size);
  return message;
}

class BufferPools : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FailingNew::reset();
  }
  void TearDown() override {
    FailingNew::reset();
    KernelTest::TearDown();
  }

  static OSBuf* pooled(int buf_class) { return as<OSBuf>(OSBuf::buffer_pool[buf_class].FirstObject()); }
  static std::vector<OSBuf*> all_pooled(int buf_class) {
    std::vector<OSBuf*> buffers;
    for (OSLink* node : ring_nodes(OSBuf::buffer_pool[buf_class])) buffers.push_back(as<OSBuf>(node->object));
    return buffers;
  }
  static int class_of(const OSBuf* buf) {
    for (int i = 0; i < 4; ++i) {
      if (buf->home_q == &OSBuf::buffer_pool[i]) return i;
    }
    return -1;
  }
  /// Takes every buffer of a class through the class's own pool.
  std::vector<OSBuf*> take_class(int buf_class) {
    std::vector<OSBuf*> taken;
    const int request = buf_class == 0 ? 0 : std::max(cfg.buf_size[buf_class] - 1, 1);
    while (OSBuf::PoolSize(buf_class) > 0) taken.push_back(OSBuf::Alloc(request));
    return taken;
  }
  /// Takes every buffer that has storage, in the order of the classes.
  std::vector<OSBuf*> take_storage() {
    std::vector<OSBuf*> taken;
    for (int i = 1; i < 4; ++i) {
      for (OSBuf* buf : take_class(i)) taken.push_back(buf);
    }
    return taken;
  }
  static void give_back(std::vector<OSBuf*>& buffers) {
    for (OSBuf* buf : buffers) buf->Free();
    buffers.clear();
  }
  static void ExpectPoolsEmpty() {
    for (int i = 0; i < 4; ++i) {
      EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i])) << i;
      EXPECT_EQ(OSBuf::PoolSize(i), 0) << i;
    }
  }
  /// Every pool is a sound list, and together with what is allocated nothing is missing.
  void ExpectPoolsSound() {
    int total = 0, made = 0;
    for (int i = 0; i < 4; ++i) {
      EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i])) << i;
      EXPECT_EQ(OSBuf::PoolSize(i), OSBuf::buffer_pool[i].Size());
      total += OSBuf::PoolSize(i);
      made += std::max(cfg.buf_qty[i], 0);
    }
    EXPECT_TRUE(ListIsSound(*OSBuf::allocated_list));
    EXPECT_EQ(total + OSBuf::allocated_list->Size(), made);
    EXPECT_EQ(OS_CRITICAL_BUFFERS.owner_count, 0);
  }
};

}  // namespace oskernel_test

#endif
