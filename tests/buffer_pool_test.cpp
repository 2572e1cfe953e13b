// The pools of message buffers: where the storage lies, which class serves a request, what an allocation resets,
// what happens when a pool is empty, and how the pools stop and start.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_pool_fixture.h"
#include "support/link_drought.h"
#include "support/section_watch.h"
#include "support/seed.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ------------------------------------------------------------------------------------------------- layout

TEST_F(BufferPools, FieldsStandInTheirOrder) {
  OSBuf buf;
  const std::vector<const void*> fields = {&buf.home_q,
                                           &buf.payload,
                                           &buf.size,
                                           &buf.data_free_callback,
                                           &buf.buffer_free_callback,
                                           &buf.data,
                                           &buf.length,
                                           &buf.trace,
                                           &buf.flags,
                                           &buf.id,
                                           &buf.timeStamp,
                                           &buf.destPtr,
                                           &buf.local_ipaddr,
                                           &buf.remote_ipaddr,
                                           &buf.remote_port,
                                           &buf.local_port};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
  static_assert(sizeof(buf.size) == 2 && sizeof(buf.length) == 2 && sizeof(buf.trace) == 1);
  static_assert(sizeof(buf.flags) == 1 && sizeof(buf.id) == 4 && sizeof(buf.timeStamp) == 4);
  static_assert(sizeof(buf.local_ipaddr) == 4 && sizeof(buf.local_port) == 2);
}

TEST_F(BufferPools, VirtualOperationsStandInTheirSlots) {
  EXPECT_EQ(vtable_slot(&OSBuf::Free), 3);
  EXPECT_EQ(vtable_slot(&OSBuf::Flush), 2);
}

TEST_F(BufferPools, ANewBufferIsMarkedAndEmpty) {
  OSBuf buf;
  EXPECT_EQ(buf.home_q, nullptr);
  EXPECT_EQ(buf.payload, nullptr);
  EXPECT_EQ(buf.size, 0);
  EXPECT_EQ(buf.data, nullptr);
  EXPECT_EQ(buf.length, 0);
  EXPECT_EQ(buf.trace, 0);
  EXPECT_EQ(buf.flags, 3);
  EXPECT_EQ(buf.id, 0x44556677u);
  EXPECT_EQ(buf.timeStamp, 0u);
  EXPECT_EQ(buf.destPtr, nullptr);
  EXPECT_EQ(buf.local_ipaddr, 0u);
  EXPECT_EQ(buf.remote_ipaddr, 0u);
  EXPECT_EQ(buf.local_port, 0);
  EXPECT_EQ(buf.remote_port, 0);
  EXPECT_TRUE(buf.data_free_callback.IsEmpty());
  EXPECT_TRUE(buf.buffer_free_callback.IsEmpty());
}

TEST_F(BufferPools, TheStartMakesTheConfiguredBuffers) {
  StartQuiet();
  const int quantities[] = {100, 25, 25, 55};
  const int sizes[] = {0, 100, 600, 1740};
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(OSBuf::PoolSize(i), quantities[i]);
    EXPECT_EQ(OSBuf::min_count[i], quantities[i]);
    const std::vector<OSBuf*> buffers = all_pooled(i);
    EXPECT_EQ(static_cast<int>(buffers.size()), quantities[i]);
    for (OSBuf* buf : buffers) {
      EXPECT_EQ(buf->home_q, &OSBuf::buffer_pool[i]);
      EXPECT_EQ(buf->size, sizes[i]);
      EXPECT_EQ(buf->payload == nullptr, sizes[i] == 0);
      EXPECT_EQ(buf->data, buf->payload + buf->size);
      EXPECT_EQ(buf->length, kNeverUsed);
      EXPECT_EQ(buf->trace, 0);
      EXPECT_EQ(buf->flags, 3);
      EXPECT_EQ(buf->id, 0x44556677u);
      EXPECT_TRUE(buf->data_free_callback.IsEmpty());
      EXPECT_TRUE(buf->buffer_free_callback.IsEmpty());
      if (sizes[i] == 0) continue;
      for (int g = 0; g < kGuardBytes; ++g) ASSERT_EQ(buf->payload[sizes[i] + g], kGuard) << g;
    }
  }
  ASSERT_NE(OSBuf::allocated_list, nullptr);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OSBuf::allocated_list->delete_contents_on_destroy, 0);
  ExpectPoolsSound();
}

/// Where a buffer and its storage lie.
struct Extent {
  std::uintptr_t start, end;
};

void ExpectApart(std::vector<Extent> extents) {
  std::sort(extents.begin(), extents.end(),
            [](const Extent& l, const Extent& r) { return l.start < r.start; });
  for (std::size_t i = 1; i < extents.size(); ++i) ASSERT_LE(extents[i - 1].end, extents[i].start) << i;
}

TEST_F(BufferPools, ObjectStorageAndGuardAlternateInOneBlock) {
  StartQuiet();
  std::vector<Extent> extents;
  std::uintptr_t low = UINTPTR_MAX, high = 0;
  std::size_t used = 0;
  for (int i = 0; i < 4; ++i) {
    for (OSBuf* buf : all_pooled(i)) {
      const std::uintptr_t object = reinterpret_cast<std::uintptr_t>(buf);
      EXPECT_EQ(object % alignof(OSBuf), 0u);
      std::uintptr_t end = object + sizeof(OSBuf);
      if (buf->payload != nullptr) {
        const std::uintptr_t storage = reinterpret_cast<std::uintptr_t>(buf->payload);
        EXPECT_GE(storage, end) << "the storage follows the object";
        EXPECT_LT(storage, end + alignof(std::max_align_t));
        end = storage + buf->size + kGuardBytes;
      }
      extents.push_back({object, end});
      low = std::min(low, object);
      high = std::max(high, end);
      used += end - object;
    }
  }
  ExpectApart(extents);
  EXPECT_LE(high - low, used + extents.size() * (alignof(std::max_align_t) + kGuardBytes)) << "one block";
}

TEST_F(BufferPools, TheBufferThatWasMadeLastIsHandedOutFirst) {
  StartQuiet();
  const OSBuf* end_of_class_before = nullptr;
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    const std::vector<OSBuf*> buffers = all_pooled(i);
    EXPECT_TRUE(std::is_sorted(buffers.rbegin(), buffers.rend(), std::less<>())) << "from the block's end";
    EXPECT_TRUE(std::less<>()(end_of_class_before, buffers.back())) << "class after class";
    end_of_class_before = buffers.front();
  }
  OSBuf* buf = OSBuf::Alloc(10);
  EXPECT_LT(reinterpret_cast<std::uintptr_t>(pooled(1)), reinterpret_cast<std::uintptr_t>(buf));
  buf->Free();
}

TEST_F(BufferPools, OddSizesAndQuantitiesStillGiveAlignedBuffersThatLieApart) {
  struct Row {
    int size[4];
    int quantity[4];
  };
  const Row rows[] = {
      {{0, 1, 3, 5}, {3, 3, 3, 3}},          {{7, 33, 601, 1741}, {2, 3, 5, 7}},
      {{0, 99, 601, 999}, {1, 1, 1, 1}},     {{0, 100, 600, 1740}, {0, 0, 0, 1}},
      {{0, 100, 600, 1740}, {-1, -7, 3, 2}}, {{0, 0, 0, 0}, {2, 2, 2, 2}},
      {{0, 100, 600, 65535}, {1, 2, 2, 3}},  {{13, 13, 13, 13}, {4, 4, 4, 4}},
      {{0, -5, 600, 1740}, {1, 2, 2, 2}},    {{0, 100, 600, 1740}, {0, 0, 0, 0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.size[0]) + "," + std::to_string(row.size[1]) + "," +
                 std::to_string(row.size[2]) + "," + std::to_string(row.size[3]));
    std::copy_n(row.size, 4, cfg.buf_size);
    std::copy_n(row.quantity, 4, cfg.buf_qty);
    StartQuiet();
    EXPECT_THAT(console.fatals(), IsEmpty());
    std::vector<Extent> extents;
    std::vector<OSBuf*> held;
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(OSBuf::PoolSize(i), std::max(row.quantity[i], 0));
      for (OSBuf* buf : all_pooled(i)) {
        const std::uintptr_t object = reinterpret_cast<std::uintptr_t>(buf);
        EXPECT_EQ(object % alignof(OSBuf), 0u);
        extents.push_back({object, object + sizeof(OSBuf)});
        EXPECT_EQ(buf->size, std::max(row.size[i], 0));
        if (buf->size == 0) continue;
        const std::uintptr_t storage = reinterpret_cast<std::uintptr_t>(buf->payload);
        extents.push_back({storage, storage + buf->size + kGuardBytes});
      }
    }
    ExpectApart(extents);
    // Every buffer can be filled to the brim and returned without a complaint.
    for (int i = 1; i < 4; ++i) {
      if (cfg.buf_size[i] < 2 || cfg.buf_size[i] > 0x7FFF) continue;
      while (OSBuf::PoolSize(i) > 0) {
        OSBuf* buf = OSBuf::Alloc(cfg.buf_size[i] - 1);
        if (buf == nullptr) break;
        held.push_back(buf);
      }
    }
    for (OSBuf* buf : held) {
      const UWORD size = buf->size;
      buf->PushDown(size);
      std::memset(buf->data, 0x5A, size);
    }
    give_back(held);
    EXPECT_THAT(console.fatals(), IsEmpty());
    ExpectPoolsSound();
    Stop();
  }
}

// ------------------------------------------------------------------------------------------- class choice

TEST_F(BufferPools, TheSmallestClassThatIsStrictlyLargerServesARequest) {
  StartQuiet();
  struct Row {
    int request, size;
  };
  const Row rows[] = {{0, 0},
                      {1, 100},
                      {10, 100},
                      {99, 100},
                      {100, 600},
                      {101, 600},
                      {599, 600},
                      {600, 1740},
                      {1739, 1740},
                      {0x8000, 100},
                      {0x8001, 100},
                      {0x8000 + 99, 100},
                      {0x8000 + 100, 600},
                      {0x10000 + 600, 1740},
                      {INT32_MIN, 100},
                      {INT32_MIN + 700, 1740}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.request);
    OSBuf* buf = OSBuf::Alloc(row.request);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf->size, row.size);
    EXPECT_EQ(buf->payload == nullptr, row.size == 0);
    EXPECT_EQ(buf->length, 0);
    buf->Free();
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferPools, ClassesAreTriedInTheirOrderWhateverTheirSizes) {
  const int sizes[] = {50, 900, 200, 400};
  std::copy_n(sizes, 4, cfg.buf_size);
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(100);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(buf->size, 900) << "the first class that is big enough";
  OSBuf* other = OSBuf::Alloc(0);
  EXPECT_EQ(other->size, 50) << "class 0 may have storage";
  buf->Free();
  other->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferPools, AnEmptyClassIsPassedOver) {
  StartQuiet();
  std::vector<OSBuf*> held = take_class(1);
  EXPECT_EQ(held.size(), 25u);
  OSBuf* buf = OSBuf::Alloc(10);
  EXPECT_EQ(buf->size, 600);
  buf->Free();
  std::vector<OSBuf*> more = take_class(2);
  held.insert(held.end(), more.begin(), more.end());
  buf = OSBuf::Alloc(10);
  EXPECT_EQ(buf->size, 1740);
  buf->Free();
  give_back(held);
  EXPECT_EQ(OSBuf::Alloc(10)->size, 100);
  as<OSBuf>(OSBuf::allocated_list->FirstObject())->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferPools, AnAllocationStartsTheBufferAnew) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->PushData(UBYTE{1});
  buf->flags = 0;
  buf->destPtr = &cfg;
  buf->local_ipaddr = buf->remote_ipaddr = 1;
  buf->local_port = buf->remote_port = 2;
  buf->trace = 9;
  const UBYTE* data = buf->data;
  buf->Free();
  EXPECT_EQ(buf->length, kFreed);
  EXPECT_EQ(buf->data, data);
  EXPECT_EQ(buf->trace, 0);
  OSBuf* again = OSBuf::Alloc(10);
  ASSERT_EQ(again, buf) << "the buffer freed last is handed out first";
  EXPECT_EQ(buf->data, buf->payload + buf->size);
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(buf->flags, 3);
  EXPECT_EQ(buf->destPtr, nullptr);
  EXPECT_EQ(buf->local_ipaddr, 0u);
  EXPECT_EQ(buf->remote_ipaddr, 0u);
  EXPECT_EQ(buf->local_port, 0);
  EXPECT_EQ(buf->remote_port, 0);
  EXPECT_EQ(buf->object, nullptr) << "it stands in no list of its own link";
  buf->Free();
}

TEST_F(BufferPools, AllocatedBuffersAreListedByReference) {
  StartQuiet();
  const ULONG links = OSLink::link_pool_size;
  OSBuf* a = OSBuf::Alloc(10);
  OSBuf* b = OSBuf::Alloc(0);
  OSBuf* c = OSBuf::Alloc(700);
  EXPECT_EQ(OSLink::link_pool_size, links - 3) << "one link each";
  EXPECT_EQ(OSBuf::allocated_list->Size(), 3);
  EXPECT_EQ(as<OSBuf>((*OSBuf::allocated_list)[0]), a);
  EXPECT_EQ(as<OSBuf>((*OSBuf::allocated_list)[1]), b);
  EXPECT_EQ(as<OSBuf>((*OSBuf::allocated_list)[2]), c);
  b->Free();
  EXPECT_EQ(OSLink::link_pool_size, links - 2);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(b), -1);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(c), 1);
  a->Free();
  c->Free();
  EXPECT_EQ(OSLink::link_pool_size, links);
  ExpectPoolsSound();
}

TEST_F(BufferPools, TheLowWaterMarkOnlyFalls) {
  StartQuiet();
  OSBuf* a = OSBuf::Alloc(10);
  EXPECT_EQ(OSBuf::min_count[1], 24);
  OSBuf* b = OSBuf::Alloc(10);
  EXPECT_EQ(OSBuf::min_count[1], 23);
  a->Free();
  b->Free();
  EXPECT_EQ(OSBuf::PoolSize(1), 25);
  EXPECT_EQ(OSBuf::min_count[1], 23);
  a = OSBuf::Alloc(10);
  EXPECT_EQ(OSBuf::min_count[1], 23);
  a->Free();
  EXPECT_EQ(OSBuf::min_count[0], 100);
  EXPECT_EQ(OSBuf::min_count[2], 25);
  EXPECT_EQ(OSBuf::min_count[3], 55);
  std::vector<OSBuf*> held = take_class(1);
  EXPECT_EQ(OSBuf::min_count[1], 0);
  OSBuf* other = OSBuf::Alloc(10);
  EXPECT_EQ(OSBuf::min_count[1], 0);
  EXPECT_EQ(OSBuf::min_count[2], 24) << "the class that served counts";
  other->Free();
  give_back(held);
  Stop();
  StartQuiet();
  EXPECT_EQ(OSBuf::min_count[1], 25);
}

TEST_F(BufferPools, BuffersComeBackInTheReverseOrderOfTheirReturn) {
  StartQuiet();
  OSBuf* a = OSBuf::Alloc(700);
  OSBuf* b = OSBuf::Alloc(700);
  OSBuf* c = OSBuf::Alloc(700);
  b->Free();
  c->Free();
  a->Free();
  EXPECT_EQ(OSBuf::Alloc(700), a);
  EXPECT_EQ(OSBuf::Alloc(700), c);
  EXPECT_EQ(OSBuf::Alloc(700), b);
  a->Free();
  b->Free();
  c->Free();
}

// --------------------------------------------------------------------------------------------- exhaustion

TEST_F(BufferPools, ARequestThatNoClassCanServeIsFatal) {
  StartQuiet();
  struct Row {
    int request;
    const char* message;
  };
  const Row rows[] = {
      {1740, "OSBuffer::Alloc Out Of Buffers 1740"},
      {32767, "OSBuffer::Alloc Out Of Buffers 32767"},
      {-1, "OSBuffer::Alloc Out Of Buffers -1"},
      {65535, "OSBuffer::Alloc Out Of Buffers 65535"},
  };
  for (const Row& row : rows) {
    console.clear();
    EXPECT_EQ(OSBuf::Alloc(row.request), nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre(row.message));
    EXPECT_THAT(console.calls(), ElementsAre(row.message)) << "printed once, with nothing allocated to list";
    ExpectPoolsSound();
  }
}

TEST_F(BufferPools, EveryAllocatedBufferIsPrintedBeforeTheEnd) {
  StartQuiet();
  std::vector<OSBuf*> held = take_storage();
  EXPECT_EQ(held.size(), 105u);
  EXPECT_EQ(OSBuf::Alloc(10), nullptr);
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuffer::Alloc Out Of Buffers 10"));
  const std::vector<std::string> calls = console.calls();
  ASSERT_EQ(calls.size(), 106u);
  EXPECT_EQ(calls.front(), "OSBuffer::Alloc Out Of Buffers 10");
  EXPECT_EQ(console.count("Buf: buf "), 105);
  for (std::size_t i = 0; i < held.size(); ++i) {
    char start[40];
    snprintf(start, sizeof start, "Buf: buf %p,", static_cast<void*>(held[i]));
    EXPECT_EQ(calls[i + 1].substr(0, std::strlen(start)), start) << "in the order of allocation";
  }
  EXPECT_EQ(OSBuf::PoolSize(0), 100) << "class 0 never serves a request for storage";
  ExpectPoolsSound();
  give_back(held);
  ExpectPoolsSound();
  OSBuf* buf = OSBuf::Alloc(10);
  ASSERT_NE(buf, nullptr);
  buf->Free();
}

TEST_F(BufferPools, TheEndIsReportedAfterEverythingIsPrinted) {
  class Ending : public RecordingConsole {
   public:
    void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
      RecordingConsole::Fatal("%s", format);
      printed_before = calls().size();
    }
    std::size_t printed_before = 0;
  };
  StartQuiet();
  std::vector<OSBuf*> held = take_class(0);
  Ending ending;
  Console = &ending;
  EXPECT_EQ(OSBuf::Alloc(0), nullptr);
  Console = &console;
  EXPECT_THAT(ending.fatals(), ElementsAre("OSBuffer::Alloc Out Of Buffers %d"));
  EXPECT_EQ(ending.printed_before, 101u);
  EXPECT_EQ(ending.calls().size(), 101u);
  give_back(held);
}

TEST_F(BufferPools, NothingIsAllocatedFromTheHeapForAMessage) {
  StartQuiet();
  OSCallbackRecord record;
  FailingNew::fail_at_least(0);
  for (int round = 0; round < 3; ++round) {
    std::vector<OSBuf*> held = take_storage();
    for (OSBuf* buf : held) {
      buf->PushData("message");
      buf->AddDataCallback(OSCallback::Alloc(
          &record, [](OSObj*, ADDR, ULONG) {}, nullptr, nullptr, 0));
    }
    EXPECT_EQ(held.size(), 105u);
    EXPECT_EQ(record.Size(), 105);
    give_back(held);
    EXPECT_EQ(record.Size(), 0);
  }
  FailingNew::reset();
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferPools, ClassZeroIsNotHelpedOutByTheOthers) {
  StartQuiet();
  std::vector<OSBuf*> held = take_class(0);
  EXPECT_EQ(held.size(), 100u);
  EXPECT_EQ(OSBuf::Alloc(0), nullptr);
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuffer::Alloc Out Of Buffers 0"));
  give_back(held);
  ExpectPoolsSound();
}

TEST_F(BufferPools, ExhaustionWithoutAConsoleReturnsNull) {
  StartQuiet();
  Console = nullptr;
  EXPECT_EQ(OSBuf::Alloc(5000), nullptr);
  Console = &console;
  ExpectPoolsSound();
}

TEST_F(BufferPools, ExhaustionLeavesTheSectionFree) {
  StartQuiet();
  EXPECT_EQ(OSBuf::Alloc(5000), nullptr);
  std::thread([] { OSBuf::Alloc(10)->Free(); }).join();
  EXPECT_EQ(console.fatals().size(), 1u);
}

TEST_F(BufferPools, NothingIsPrintedWhileTheSectionIsHeld) {
  StartQuiet();
  const SectionWatch watch(&OS_CRITICAL_BUFFERS);
  OSBuf* buf = OSBuf::Alloc("text");
  EXPECT_EQ(OSBuf::Alloc(5000), nullptr);
  dump_allocated();
  buf->Print();
  EXPECT_EQ(watch.fatals().size(), 1u);
  EXPECT_GT(watch.calls().size(), 4u);
  EXPECT_EQ(watch.calls_inside(), 0);
  buf->Free();
}

TEST_F(BufferPools, EachClassRunsOutForTheRequestsThatNeedIt) {
  struct Row {
    int emptied;    // this class and the larger ones
    int refused;    // the least request that needs them
    int served_by;  // the size of the buffer that a smaller request still gets
  };
  for (const Row& row : {Row{3, 600, 600}, Row{2, 100, 100}, Row{1, 1, 0}}) {
    SCOPED_TRACE(row.emptied);
    console.clear();
    StartQuiet();
    std::vector<OSBuf*> held;
    for (int i = row.emptied; i < 4; ++i) {
      for (OSBuf* buf : take_class(i)) held.push_back(buf);
    }
    EXPECT_EQ(OSBuf::Alloc(row.refused), nullptr);
    EXPECT_THAT(console.fatals(),
                ElementsAre("OSBuffer::Alloc Out Of Buffers " + std::to_string(row.refused)));
    for (int i = 0; i < row.emptied; ++i) {
      EXPECT_EQ(OSBuf::PoolSize(i), cfg.buf_qty[i]) << "the smaller ones are no help";
      EXPECT_EQ(OSBuf::min_count[i], cfg.buf_qty[i]);
    }
    for (int i = row.emptied; i < 4; ++i) EXPECT_EQ(OSBuf::min_count[i], 0);
    OSBuf* smaller = OSBuf::Alloc(row.refused - 1);
    ASSERT_NE(smaller, nullptr);
    EXPECT_EQ(smaller->size, row.served_by);
    smaller->Free();
    OSBuf* returned = held.back();
    held.pop_back();
    returned->Free();
    EXPECT_EQ(OSBuf::Alloc(row.refused), returned) << "one that comes back serves at once";
    held.push_back(returned);
    give_back(held);
    EXPECT_EQ(console.fatals().size(), 1u);
    ExpectPoolsSound();
    Stop();
  }
}

TEST_F(BufferPools, AnEmptyLinkPoolGrowsForABuffer) {
  StartQuiet();
  const LinkDrought drought;
  FailingNew::reset();
  OSBuf* buf = OSBuf::Alloc(10);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(buf), 0);
  EXPECT_THAT(console.calls(), IsEmpty());
  buf->Free();
  ExpectPoolsSound();
}

TEST_F(BufferPools, WithoutALinkABufferWorksButIsNotListed) {
  StartQuiet();
  const LinkDrought drought;
  OSBuf* buf = OSBuf::Alloc(10);
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(buf->size, 100);
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OSBuf::PoolSize(1), 24);
  EXPECT_EQ(OSBuf::min_count[1], 24);
  buf->PushData("works");
  buf->Free();
  EXPECT_EQ(OSBuf::PoolSize(1), 25);
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks, freed_twice(buf, 100)));
  ExpectPoolsSound();
}

TEST_F(BufferPools, OfTwoEmptyPoolsTheBuffersAreReported) {
  StartQuiet();
  std::vector<OSBuf*> held = take_storage();
  {
    const LinkDrought drought;
    EXPECT_EQ(OSBuf::Alloc(10), nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre("OSBuffer::Alloc Out Of Buffers 10"));
    console.clear();
    pooled(0)->id = 0;
    OSBuf* got = OSBuf::Alloc(0);
    EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Alloc - Corrupt", kOutOfLinks));
    ASSERT_NE(got, nullptr);
    got->Free();
  }
  give_back(held);
  EXPECT_EQ(OSBuf::PoolSize(0), 99);
}

TEST_F(BufferPools, ARefusedRequestKeepsNoLink) {
  StartQuiet();
  const ULONG links = OSLink::link_pool_size;
  for (int i = 0; i < 10; ++i) EXPECT_EQ(OSBuf::Alloc(5000), nullptr);
  EXPECT_EQ(OSLink::link_pool_size, links);
}

TEST_F(BufferPools, ThereIsNoClassBeyondTheFour) {
  StartQuiet();
  for (int buf_class : {-1, 4, 5, INT32_MIN, INT32_MAX})
    EXPECT_EQ(OSBuf::PoolSize(buf_class), 0) << buf_class;
}

TEST_F(BufferPools, EveryRefusedCopyOutlivesExhaustion) {
  StartQuiet();
  std::vector<OSBuf*> held = take_storage();
  const UBYTE bytes[] = {1, 2, 3};
  EXPECT_EQ(OSBuf::Alloc(bytes, 3), nullptr);
  EXPECT_EQ(OSBuf::Alloc("abc"), nullptr);
  EXPECT_EQ(held.front()->Duplicate(), nullptr);
  EXPECT_EQ(console.fatals().size(), 3u);
  give_back(held);
  ExpectPoolsSound();
}

// --------------------------------------------------------------------------------------- stop and start

TEST_F(BufferPools, TheStopReleasesTheListOfAllocatedBuffers) {
  StartQuiet();
  const ULONG links = OSLink::link_pool_size;
  OSBuf::Alloc(10);
  OSBuf::Alloc(0);
  Stop();
  EXPECT_EQ(OSBuf::allocated_list, nullptr);
  EXPECT_EQ(OSLink::link_pool_size, links);
}

TEST_F(BufferPools, CallbacksOfBuffersThatAreOutReturnWithoutBeingRun) {
  StartQuiet();
  static int runs;
  runs = 0;
  OSCallbackRecord record;
  const auto callback = [&record] {
    return OSCallback::Alloc(
        &record, [](OSObj*, ADDR, ULONG) { ++runs; }, nullptr, nullptr, 0);
  };
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(callback());
  buf->AddBufferCallback(callback());
  buf->AddBufferCallback(callback());
  EXPECT_EQ(OSCallback::callback_pool_size, 397u);
  OSBuf::UnInitialise();
  EXPECT_EQ(OSCallback::callback_pool_size, 400u);
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(runs, 0);
}

TEST_F(BufferPools, ASecondStopChangesNothing) {
  StartQuiet();
  OSBuf::UnInitialise();
  OSBuf::UnInitialise();
  ExpectPoolsEmpty();
  EXPECT_EQ(OSBuf::allocated_list, nullptr);
  EXPECT_EQ(OSBuf::Alloc(10), nullptr);
  dump_allocated();
  OSBuf::Initialise();
  ExpectPoolsSound();
}

TEST_F(BufferPools, ASecondStartWithoutAStopBuildsThePoolsAnew) {
  StartQuiet();
  OSLinkList list;
  list.Append(OSBuf::Alloc(10));
  OSBuf::Initialise();
  EXPECT_EQ(list.Size(), 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(OSBuf::PoolSize(i), cfg.buf_qty[i]);
  ExpectPoolsSound();
}

TEST_F(BufferPools, AHeapThatGivesNothingLeavesEmptyPools) {
  StartQuiet();
  static_assert(sizeof(OSIndirectList) < sizeof(OSBuf), "the list is there when the buffers are not");
  for (const std::size_t limit : {std::size_t{0}, sizeof(OSBuf)}) {
    SCOPED_TRACE(limit);
    console.clear();
    OSBuf::UnInitialise();
    FailingNew::fail_at_least(limit);
    OSBuf::Initialise();
    FailingNew::reset();
    EXPECT_EQ(OSBuf::allocated_list == nullptr, limit == 0);
    ExpectPoolsEmpty();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(OSBuf::min_count[i], cfg.buf_qty[i]);
    EXPECT_EQ(OSBuf::Alloc(10), nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre("OSBuffer::Alloc Out Of Buffers 10"));
  }
  OSBuf::UnInitialise();
  OSBuf::Initialise();
  ExpectPoolsSound();
}

TEST_F(BufferPools, BuffersThatAreDeletedAreMissingUntilTheNextStart) {
  StartQuiet();
  const ULONG links = OSLink::link_pool_size;
  {
    OSLinkList owning(1);
    owning.Append(OSBuf::Alloc(10));
    owning.Append(OSBuf::Alloc(0));
    EXPECT_EQ(OSBuf::allocated_list->Size(), 2);
  }
  UBYTE* storage = pooled(3)->payload;
  std::memset(storage, 7, 1740);
  delete pooled(3);  // in its pool, even
  for (int i = 0; i < 1740; ++i) ASSERT_EQ(storage[i], 7) << "its storage stays with the block";
  delete all_pooled(2).back();
  delete all_pooled(0).back();  // at the very start of the block
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OSLink::link_pool_size, links);
  EXPECT_EQ(OSBuf::PoolSize(0), 98);
  EXPECT_EQ(OSBuf::PoolSize(1), 24);
  EXPECT_EQ(OSBuf::PoolSize(2), 24);
  EXPECT_EQ(OSBuf::PoolSize(3), 54);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i]));
  std::vector<OSBuf*> held = take_storage();
  EXPECT_EQ(held.size(), 24u + 24 + 54);
  give_back(held);
  Stop();
  StartQuiet();
  ExpectPoolsSound();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferPools, BuffersThatAProgramMakesItselfComeFromTheHeap) {
  int runs = 0;
  for (int round = 0; round < 2; ++round) {
    StartQuiet();
    OSBuf* own = new OSBuf;
    ASSERT_NE(own, nullptr);
    OSCallback* callback = OSCallback::Alloc(
        nullptr, [](OSObj*, ADDR count, ULONG) { ++*static_cast<int*>(count); }, nullptr, &runs, 0);
    own->AddBufferCallback(callback);
    UBYTE foreign[20];
    own->SetPayload(foreign, sizeof foreign);
    own->PushData("data");
    own->Free();
    EXPECT_EQ(runs, round + 1);
    EXPECT_EQ(own->payload, nullptr) << "left to its maker, empty and without storage";
    EXPECT_EQ(own->size, 0);
    EXPECT_EQ(own->length, kFreed);
    delete own;
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_EQ(OSCallback::callback_pool_size, 400u);
    ExpectPoolsSound();
    Stop();
  }
}

TEST_F(BufferPools, ABufferThatIsDestroyedGivesItsCallbacksBack) {
  StartQuiet();
  {
    OSBuf own;
    own.AddDataCallback(OSCallback::Alloc(
        nullptr, [](OSObj*, ADDR, ULONG) { FAIL(); }, nullptr, nullptr, 0));
    own.AddBufferCallback(OSCallback::Alloc(
        nullptr, [](OSObj*, ADDR, ULONG) { FAIL(); }, nullptr, nullptr, 0));
  }
  EXPECT_EQ(OSCallback::callback_pool_size, 400u);
}

TEST_F(BufferPools, AQueueMayOutliveThePools) {
  OSLinkList list;
  OSProtectedQueue queue;
  for (int round = 0; round < 3; ++round) {
    StartQuiet();
    for (int i = 0; i < 4; ++i) {
      list.Append(OSBuf::Alloc(10));
      queue.Append(OSBuf::Alloc(700));
    }
    Stop();
    EXPECT_EQ(list.Size(), 0) << "it refers to nothing that is gone";
    EXPECT_TRUE(ListIsSound(list));
    EXPECT_TRUE(ListIsSound(queue));
    EXPECT_EQ(queue.Size(), 0);
  }
  StartQuiet();
  ExpectPoolsSound();
  queue.Append(OSBuf::Alloc("again"));
  queue.FirstBufAndRemove()->Free();
}

TEST_F(BufferPools, AStopTakesNothingFromAQueueButItsBuffers) {
  StartQuiet();
  OSBuf own;
  OSLinkList list;
  OSLinkHead ring;
  OSBuf* const pooled_ones[] = {OSBuf::Alloc(0), OSBuf::Alloc(10), OSBuf::Alloc(10), OSBuf::Alloc(10)};
  list.Append(pooled_ones[0]);
  list.Append(&own);
  list.Append(pooled_ones[1]);
  ring.Insert(pooled_ones[2], pooled_ones[2]);
  ring.Insert(pooled_ones[3], pooled_ones[3]);
  Stop();
  EXPECT_EQ(list.Size(), 1);
  EXPECT_TRUE(ListIsSound(list));
  EXPECT_EQ(as<OSBuf>(list.FirstObject()), &own);
  EXPECT_TRUE(ring.IsEmpty());
  list.Remove(&own);
}

TEST_F(BufferPools, EachStartBuildsThePoolsOfItsConfiguration) {
  for (int round = 0; round < 30; ++round) {
    cfg.buf_qty[0] = 1 + round % 3;
    cfg.buf_qty[1] = 5 * (round % 4);
    cfg.buf_size[1] = 64 + round;
    cfg.buf_qty[3] = 2;
    StartQuiet();
    EXPECT_EQ(OSBuf::PoolSize(0), 1 + round % 3);
    EXPECT_EQ(OSBuf::PoolSize(1), 5 * (round % 4));
    EXPECT_EQ(OSBuf::min_count[1], 5 * (round % 4));
    for (OSBuf* buf : all_pooled(1)) EXPECT_EQ(buf->size, 64 + round);
    OSBuf* buf = OSBuf::Alloc(700);
    ASSERT_NE(buf, nullptr);
    if (round % 2 == 0) buf->Free();  // otherwise it is forgotten
    ExpectPoolsSound();
    Stop();
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------ random

TEST_F(BufferPools, RandomUseFollowsTheRuleOfTheClasses) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const int quantities[] = {3, 4, 5, 6};
  std::copy_n(quantities, 4, cfg.buf_qty);
  StartQuiet();
  int free_model[4], low_model[4];
  std::copy_n(quantities, 4, free_model);
  std::copy_n(quantities, 4, low_model);
  std::vector<OSBuf*> held;
  for (int round = 0; round < 20000; ++round) {
    if (pick(random, 0, 1) == 0) {
      const int kind = pick(random, 0, 5);
      const int request = kind == 0 ? 0 : kind == 1 ? pick(random, 90, 110) : pick(random, 1, 1800);
      int expected = -1;
      if (request == 0) {
        if (free_model[0] > 0) expected = 0;
      } else {
        for (int i = 1; i < 4 && expected < 0; ++i) {
          if (cfg.buf_size[i] > request && free_model[i] > 0) expected = i;
        }
      }
      OSBuf* buf = OSBuf::Alloc(request);
      if (expected < 0) {
        ASSERT_EQ(buf, nullptr);
        console.clear();
        continue;
      }
      ASSERT_NE(buf, nullptr);
      ASSERT_EQ(class_of(buf), expected);
      --free_model[expected];
      low_model[expected] = std::min(low_model[expected], free_model[expected]);
      held.push_back(buf);
    } else if (!held.empty()) {
      const std::size_t i = static_cast<std::size_t>(pick(random, 0, static_cast<int>(held.size()) - 1));
      ++free_model[class_of(held[i])];
      held[i]->Free();
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
    }
    for (int i = 0; i < 4; ++i) {
      ASSERT_EQ(OSBuf::PoolSize(i), free_model[i]);
      ASSERT_EQ(OSBuf::min_count[i], low_model[i]);
    }
    ASSERT_EQ(OSBuf::allocated_list->Size(), static_cast<int>(held.size()));
    for (std::size_t i = 0; i < held.size(); ++i) {
      ASSERT_EQ(as<OSBuf>((*OSBuf::allocated_list)[static_cast<int>(i)]), held[i]);
    }
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
  give_back(held);
  ExpectPoolsSound();
}

}  // namespace
}  // namespace oskernel_test
