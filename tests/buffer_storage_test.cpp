// Storage that is not of the one block: what a program lends a buffer, and what the kernel memory pool gives when the
// heap has no block.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_pool_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BufferStorage : public BufferPools {};

// ------------------------------------------------------------------------------------- storage elsewhere

TEST_F(BufferStorage, ForeignStorageIsNeitherInspectedNorKept) {
  StartQuiet();
  for (int request : {0, 10, 700}) {
    SCOPED_TRACE(request);
    OSBuf* buf = OSBuf::Alloc(request);
    UBYTE* own_payload = buf->payload;
    const UWORD own_size = buf->size;
    auto foreign = std::make_unique<UBYTE[]>(40);  // exactly: a look behind it is found by the sanitizer
    buf->SetPayload(foreign.get(), 40);
    EXPECT_EQ(buf->payload, foreign.get());
    EXPECT_EQ(buf->size, 40);
    EXPECT_EQ(buf->data, foreign.get() + 40);
    EXPECT_EQ(buf->length, 0);
    buf->PushDown(40);
    std::memset(buf->data, 'x', 40);
    buf->Free();
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_EQ(foreign[39], 'x');
    EXPECT_EQ(buf->payload, own_payload);
    EXPECT_EQ(buf->size, own_size);
    EXPECT_EQ(buf->data, own_payload + own_size);
    OSBuf* again = OSBuf::Alloc(request);
    ASSERT_EQ(again, buf);
    EXPECT_EQ(again->data, own_payload + own_size);
    again->Free();
    EXPECT_THAT(console.fatals(), IsEmpty());
    ExpectPoolsSound();
  }
}

TEST_F(BufferStorage, ForeignStorageMayBeReleasedBeforeTheBufferIs) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(0);
  {
    auto first = std::make_unique<UBYTE[]>(16);
    buf->SetPayload(first.get(), 16);
  }
  auto second = std::make_unique<UBYTE[]>(2000);
  buf->SetPayload(second.get(), 2000);
  EXPECT_EQ(buf->size, 2000);
  second.reset();
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_EQ(buf->payload, nullptr);
  EXPECT_EQ(buf->size, 0);
}

TEST_F(BufferStorage, NoForeignStorageAtAllIsPossibleToo) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  UBYTE* own = buf->payload;
  buf->SetPayload(nullptr, 0);
  EXPECT_EQ(buf->payload, nullptr);
  EXPECT_EQ(buf->size, 0);
  EXPECT_EQ(buf->data, nullptr);
  EXPECT_EQ(buf->length, 0);
  buf->Free();
  EXPECT_EQ(buf->payload, own);
  EXPECT_EQ(buf->size, 100);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferStorage, DataBelowForeignStorageIsReportedToo) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(0);
  UBYTE foreign[80] = {};
  buf->SetPayload(foreign + 40, 20);
  buf->data = foreign + 39;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kPushedTooFar));
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(buf->payload, nullptr);
  ExpectPoolsSound();
}

TEST_F(BufferStorage, ForeignStorageOfNothingLeavesNothingToCheck) {
  StartQuiet();
  UBYTE foreign[2] = {};
  OSBuf* buf = OSBuf::Alloc(10);
  buf->SetPayload(foreign + 1, 0);
  buf->PushData(UBYTE{1});  // goes down to below the storage, and nothing is written
  EXPECT_EQ(foreign[0], 0);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_EQ(buf->size, 100);
}

TEST_F(BufferStorage, TheWholeOfTheLargestStorageCanBePushed) {
  StartQuiet();
  auto foreign = std::make_unique<UBYTE[]>(65535);
  OSBuf* buf = OSBuf::Alloc(0);
  buf->SetPayload(foreign.get(), 65535);
  buf->PushDown(65535);
  EXPECT_EQ(buf->data, foreign.get());
  EXPECT_EQ(buf->length, 65535);
  EXPECT_THAT(console.fatals(), IsEmpty());
  buf->Free();
}

TEST_F(BufferStorage, ABufferOfTheCallersOwnFreesNoForeignStorage) {
  StartQuiet();
  UBYTE foreign[64];
  std::memset(foreign, 7, sizeof foreign);
  {
    OSBuf own;
    own.SetPayload(foreign, sizeof foreign);
    own.PushData(UBYTE{9});
    EXPECT_EQ(foreign[63], 9);
  }
  EXPECT_EQ(foreign[0], 7);
  EXPECT_THAT(console.fatals(), IsEmpty());
  ExpectPoolsSound();
}

// ------------------------------------------------------------------------- a heap that cannot give a block

class BufferFallback : public BufferPools {
 protected:
  static constexpr int kQuantity[4] = {3, 4, 5, 6};
  static constexpr ULONG kMemory = 64 * 1024;

  void SetUp() override {
    BufferPools::SetUp();
    std::copy_n(kQuantity, 4, cfg.buf_qty);
    cfg.trigger_stack = 0;
    cfg.callback_qty = 5;
    cfg.link_qty = 30;
  }
  void TearDown() override {
    if (up_) stop();
    BufferPools::TearDown();
  }
  /// Starts with `memory` for the kernel's pool and no heap for the block of buffers.
  void start(ULONG memory) {
    memory_.assign(memory / sizeof(std::max_align_t) + 1, {});
    UBYTE* base = memory == 0 ? nullptr : reinterpret_cast<UBYTE*>(memory_.data());
    FailingNew::fail_at_least(8000);
    os_startup(base, memory, &cfg);
    FailingNew::reset();
    up_ = true;
  }
  void stop() {
    os_cleanup();
    up_ = false;
  }
  bool inside_memory(const UBYTE* at) const {
    const UBYTE* start = reinterpret_cast<const UBYTE*>(memory_.data());
    return at >= start && at < start + kMemory;
  }

 private:
  std::vector<std::max_align_t> memory_;
  bool up_ = false;
};

TEST_F(BufferFallback, StorageComesFromTheKernelsMemoryPool) {
  start(kMemory);
  EXPECT_THAT(console.fatals(), IsEmpty());
  const ULONG storage = 4 * (100 + 8) + 5 * (600 + 8) + 6 * (1740 + 8);
  EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12 - storage) << "no guard bytes";
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(OSBuf::PoolSize(i), kQuantity[i]);
    for (OSBuf* buf : all_pooled(i)) {
      EXPECT_EQ(buf->size, cfg.buf_size[i]);
      EXPECT_EQ(buf->length, kNeverUsed);
      EXPECT_FALSE(inside_memory(reinterpret_cast<UBYTE*>(buf))) << "the object lies on the heap";
      if (i > 0) {
        EXPECT_TRUE(inside_memory(buf->payload));
      }
    }
  }
  ExpectPoolsSound();
  stop();
  EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12) << "the storage is given back";
}

TEST_F(BufferFallback, BuffersWorkWithoutGuardBytes) {
  start(kMemory);
  std::vector<OSBuf*> held = take_storage();
  EXPECT_EQ(held.size(), 15u);
  for (OSBuf* buf : held) {
    const UWORD size = buf->size;
    buf->PushDown(size);
    std::memset(buf->data, 0xFF, size);
  }
  give_back(held);
  EXPECT_THAT(console.fatals(), IsEmpty()) << "what follows the storage is not looked at";
  OSBuf* text = OSBuf::Alloc("hello");
  EXPECT_EQ(text->length, 5);
  text->PushData(ULONG{0x01020304});
  OSBuf* copy = text->Duplicate();
  EXPECT_EQ(copy->PullLong(), 0x01020304u);
  copy->Free();
  text->Free();
  OSBuf* foreign = OSBuf::Alloc(10);
  UBYTE bytes[30];
  foreign->SetPayload(bytes, 30);
  foreign->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  stop();
  EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12);
}

TEST_F(BufferFallback, ThePushThatGoesTooFarIsStillFound) {
  start(kMemory);
  OSBuf* buf = OSBuf::Alloc(10);
  buf->data = buf->payload - 1;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kPushedTooFar));
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  ExpectPoolsSound();
  stop();
  EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12);
}

TEST_F(BufferFallback, ADamagedBufferGivesWayToTheNext) {
  start(kMemory);
  OSBuf* damaged = pooled(1);
  damaged->id = 0;
  OSBuf* got = OSBuf::Alloc(10);
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc));
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->size, 100);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(damaged), 0);
  ExpectPoolsSound();
  got->Free();
  damaged->id = 0x44556677;
  damaged->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectPoolsSound();
}

TEST_F(BufferFallback, AStartAfterwardsUsesTheHeapAgain) {
  start(kMemory);
  stop();
  StartQuiet();
  EXPECT_THAT(console.fatals(), IsEmpty());
  for (OSBuf* buf : all_pooled(1)) {
    EXPECT_FALSE(inside_memory(buf->payload));
    EXPECT_EQ(buf->payload[buf->size], kGuard);
  }
  ExpectPoolsSound();
}

TEST_F(BufferFallback, AMemoryPoolThatIsTooSmallIsReportedAndNothingIsUnsafe) {
  for (ULONG memory : {ULONG{0}, ULONG{500}, ULONG{3000}, ULONG{12000}}) {
    SCOPED_TRACE(memory);
    console.clear();
    start(memory);
    ASSERT_FALSE(console.fatals().empty());
    for (const std::string& message : console.fatals()) {
      EXPECT_EQ(message, "OSMemPool::Allocate Out of Memory");
    }
    for (int i = 0; i < 4; ++i) {
      EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i]));
      for (OSBuf* buf : all_pooled(i)) {
        if (buf->size != 0) {
          EXPECT_NE(buf->payload, nullptr) << "no buffer promises storage that it has not";
        }
      }
    }
    console.clear();
    std::vector<OSBuf*> held;
    for (int n = 0; n < 15; ++n) {
      OSBuf* buf = OSBuf::Alloc(90);
      if (buf == nullptr) break;
      ASSERT_GT(buf->size, 90);
      ASSERT_NE(buf->payload, nullptr);
      buf->PushDown(90);
      std::memset(buf->data, 1, 90);
      held.push_back(buf);
    }
    give_back(held);
    stop();
  }
}

// Programs size their pools by the low-water mark. One that never left the quantity it was given says that the class
// was not used; a class that memory has cut short shows as soon as it is.
TEST_F(BufferFallback, TheLowWaterMarkStartsAtTheQuantitiesEvenSo) {
  start(3000);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(OSBuf::min_count[i], kQuantity[i]) << i;
  EXPECT_EQ(OSBuf::PoolSize(1), 4);
  EXPECT_EQ(OSBuf::PoolSize(2), 4) << "memory for the fifth is lacking";
  EXPECT_EQ(OSBuf::PoolSize(3), 0);
  OSBuf* buf = OSBuf::Alloc(500);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(OSBuf::min_count[2], 3);
  buf->Free();
  EXPECT_EQ(OSBuf::min_count[2], 3);
  EXPECT_EQ(OSBuf::min_count[3], kQuantity[3]);
}

TEST_F(BufferFallback, WhatAPullHasLeftBehindIsNotWrittenTo) {
  start(kMemory);
  OSBuf* buf = OSBuf::Alloc(10);
  UBYTE* end = buf->payload + buf->size;
  const UBYTE behind = *end;  // the memory pool's
  buf->PullUp(1);
  buf->PushData(static_cast<UBYTE>(~behind));
  EXPECT_EQ(*end, behind);
  EXPECT_EQ(buf->data, end);
  EXPECT_EQ(buf->length, 0);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferFallback, ABufferThatIsOutWhenThePoolsStopLivesUntilItIsFreed) {
  start(kMemory);
  OSBuf* buf = OSBuf::Alloc(10);
  OSBuf* late = OSBuf::Alloc(10);
  OSBuf* queued = OSBuf::Alloc(10);
  OSLinkList queue;
  queue.Append(queued);
  stop();
  buf->PushData("still there");
  EXPECT_EQ(buf->PullByte(), 's');
  const ULONG free_space = OS_MEMORY->FreeSpace();
  buf->Free();
  EXPECT_EQ(OS_MEMORY->FreeSpace(), free_space) << "this may be another pool by now";
  EXPECT_EQ(queue.Size(), 1);
  queue.Remove(queued);
  queued->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  StartQuiet();
  late->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  ExpectPoolsSound();
}

TEST_F(BufferFallback, ADamagedPoolCanBeStoppedAndStartedAgain) {
  for (std::size_t position : {0u, 1u, 3u}) {
    SCOPED_TRACE(position);
    start(kMemory);
    static_cast<OSLink*>(all_pooled(1)[position])->object = nullptr;
    stop();
    ExpectPoolsEmpty();
    EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12);
  }
}

TEST_F(BufferFallback, ABufferThatIsDeletedGivesItsStorageBack) {
  start(kMemory);
  const ULONG free_space = OS_MEMORY->FreeSpace();
  delete pooled(1);
  EXPECT_EQ(OS_MEMORY->FreeSpace(), free_space + 108);
  OSBuf* buf = OSBuf::Alloc(10);
  delete buf;
  EXPECT_EQ(OS_MEMORY->FreeSpace(), free_space + 2 * 108);
  EXPECT_EQ(OSBuf::PoolSize(1), 2);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  stop();
  EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12);
}

TEST_F(BufferFallback, StartAndStopLeakNothing) {
  for (int round = 0; round < 20; ++round) {
    start(kMemory);
    OSBuf* buf = OSBuf::Alloc(10);
    ASSERT_NE(buf, nullptr);
    buf->Free();
    stop();
    ASSERT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12);
  }
}

TEST_F(BufferStorage, SizesBeyondSixteenBitsNeverPromiseMoreThanThereIs) {
  for (int size : {65535, 65536, 65536 + 100, 70000, 200000}) {
    SCOPED_TRACE(size);
    cfg.buf_size[3] = size;
    cfg.buf_qty[3] = 3;
    StartQuiet();
    OSBuf* buf = OSBuf::Alloc(20000);
    if (buf != nullptr) {
      EXPECT_GT(buf->size, 20000);
      ASSERT_NE(buf->payload, nullptr);
      const UWORD len = std::min<UWORD>(buf->size, 30000);
      buf->PushDown(len);
      std::memset(buf->data, 'y', len);
      buf->Free();
    }
    OSBuf* small = OSBuf::Alloc("small");
    small->Free();
    for (const std::string& message : console.fatals()) ADD_FAILURE() << message;
    ExpectPoolsSound();
    Stop();
  }
}

TEST_F(BufferStorage, ABlockOfMoreThanFourGigabytesIsNotComputedInThirtyTwoBits) {
  cfg.buf_size[3] = 60000;
  cfg.buf_qty[3] = 72000;  // 4.3e9 bytes; in 32 bits a few megabytes would seem enough
  cfg.buf_qty[0] = cfg.buf_qty[1] = cfg.buf_qty[2] = 1;
  FailingNew::fail_at_least(std::size_t{4'000'000'000});
  StartQuiet();
  FailingNew::reset();
  // The heap refused, and the fallback has no memory: reported, and no buffer hands out storage it lacks.
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSMemPool::Allocate Out of Memory");
}

}  // namespace
}  // namespace oskernel_test
