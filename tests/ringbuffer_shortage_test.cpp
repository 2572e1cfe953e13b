// Receive rings where memory is short or their maker asks for too little: what they lend then.

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <memory>
#include <new>
#include <vector>

#include "support/ring_fixture.h"

using namespace oskernel_test;

namespace {

/// Arrays that this thread gets until one is refused; after that one it gets them again. Negative: no end.
thread_local int arrays_left = -1;

}  // namespace

// Replaces the nothrow form for the process, the shared library under test included.
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  if (arrays_left >= 0 && arrays_left-- == 0) return nullptr;
  try {
    return ::operator new[](bytes);
  } catch (...) {
    return nullptr;
  }
}

namespace {

class RingShortage : public RingTest {
 protected:
  static std::unique_ptr<RingBuffer> made_with_arrays(int size, int arrays) {
    arrays_left = arrays;
    auto ring = std::make_unique<RingBuffer>(size);
    arrays_left = -1;
    return ring;
  }
  /// Takes out what there is and sends it home again.
  static int lends(RingBuffer* ring) {
    std::vector<OSBuf*> lent;
    while (OSBuf* buf = ring->Get()) lent.push_back(buf);
    for (OSBuf* buf : lent) {
      EXPECT_EQ(buf->size, 1760);
      buf->Free();
    }
    return static_cast<int>(lent.size());
  }
};

TEST_F(RingShortage, ARingLendsFromWhatMemoryGaveIt) {
  // Its own two arrays come first, then one for each buffer.
  const struct {
    int arrays, size, lends;
  } rows[] = {{0, 1, 0}, {1, 1, 0}, {2, 1, 0},    {3, 1, 0},   {4, 2, 1},
              {5, 3, 2}, {9, 7, 6}, {33, 31, 30}, {34, 32, 31}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arrays);
    const auto ring = made_with_arrays(32, row.arrays);
    EXPECT_EQ(ring->size, row.size);
    EXPECT_EQ(ring->Size(), row.lends);
    for (int round = 0; round < 3; ++round) EXPECT_EQ(lends(ring.get()), row.lends);
  }
}

TEST_F(RingShortage, ARingWithoutBuffersIsGivenUpAtOnce) {
  for (const int arrays : {0, 1, 2, 3}) {
    console.clear();
    made_with_arrays(32, arrays).release()->Free();
    EXPECT_EQ(console.count("deleting..."), 1) << arrays;
  }
}

TEST_F(RingShortage, LessThanTwoBuffersAreTakenAsOneThatIsNeverLent) {
  for (const int size : {1, 0, -1, -32}) {
    SCOPED_TRACE(size);
    const auto ring = std::make_unique<RingBuffer>(size);
    EXPECT_EQ(ring->size, 1);
    EXPECT_EQ(ring->Size(), 0);
    EXPECT_EQ(ring->Get(), nullptr);
  }
}

TEST_F(RingShortage, TheQueueHasOneSlotMoreThanThereAreBuffers) {
  // A size whose array the heap does not round up by a pointer.
  const auto ring = std::make_unique<RingBuffer>(3);
  EXPECT_GE(malloc_usable_size(ring->ring), 4 * sizeof(OSBuf*));
}

}  // namespace
