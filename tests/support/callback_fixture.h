/// What the tests of callbacks share: callbacks that count how often they run, and a fixture with a small pool.
#ifndef OSKERNEL_TESTS_CALLBACK_FIXTURE_H
#define OSKERNEL_TESTS_CALLBACK_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "failing_new.h"
#include "kernel/buffer.h"
#include "kernel_fixture.h"
#include "ring_check.h"

namespace oskernel_test {

inline constexpr char kOutOfCallbacks[] = "OSCallback::Alloc Out Of Callbacks";
inline constexpr ULONG kQuantity = 12;

inline std::atomic<int> runs{0};
inline void count_run(OSObj*, ADDR, ULONG) { ++runs; }

/// A callback of the program's own making that tells when it is destroyed.
struct CountedCallback : OSCallback {
  CountedCallback() = default;
  ~CountedCallback() override { ++destroyed; }
  inline static int destroyed = 0;
};

class Callback : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FailingNew::reset();
    cfg.callback_qty = static_cast<int>(kQuantity);
    runs = 0;
    CountedCallback::destroyed = 0;
  }
  void TearDown() override {
    FailingNew::reset();
    if (started_here_) ExpectPoolSound();
    KernelTest::TearDown();
  }
  void Begin() {
    StartQuiet();
    started_here_ = true;
  }
  void ExpectPoolSound() {
    const std::vector<OSLink*> nodes = ring_nodes(OSCallback::callback_pool);
    EXPECT_EQ(nodes.size(), OSCallback::callback_pool_size);
    for (OSLink* node : nodes) EXPECT_EQ(node->object, node);
    EXPECT_EQ(OS_CRITICAL_CALLBACKS.owner_count, 0);
  }
  static OSCallback* plain(OSCallbackRecord* record = nullptr) {
    return OSCallback::Alloc(record, count_run, nullptr, nullptr, 0);
  }
  /// Takes every free callback.
  static std::vector<OSCallback*> take_all() {
    std::vector<OSCallback*> taken;
    while (OSCallback::callback_pool_size > 0) taken.push_back(plain());
    return taken;
  }
  static void give_back(std::vector<OSCallback*>& callbacks) {
    for (OSCallback* callback : callbacks) callback->Free();
    callbacks.clear();
  }

 private:
  bool started_here_ = false;
};

}  // namespace oskernel_test

#endif
