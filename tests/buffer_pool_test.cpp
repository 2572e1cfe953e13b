// The pools of message buffers: which class serves a request, what an allocation resets and a return checks,
// what happens when a pool is empty or a buffer damaged, and where the storage lies.

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/failing_new.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr UWORD kNeverUsed = 0x5555;
constexpr UWORD kFreed = 0xAAAA;
constexpr int kGuardBytes = 64;
constexpr UBYTE kGuard = 0xA5;

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
  static void give_back(std::vector<OSBuf*>& buffers) {
    for (OSBuf* buf : buffers) buf->Free();
    buffers.clear();
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
  buf->Free();
  EXPECT_EQ(buf->length, kFreed);
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
  std::vector<OSBuf*> held;
  for (int i = 1; i < 4; ++i) {
    std::vector<OSBuf*> more = take_class(i);
    held.insert(held.end(), more.begin(), more.end());
  }
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
  class Watching : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      if (OS_CRITICAL_BUFFERS.owner_count != 0) ++held;
      RecordingConsole::vPrint(format, arguments);
    }
    int held = 0;
  };
  StartQuiet();
  Watching watching;
  Console = &watching;
  OSBuf* buf = OSBuf::Alloc("text");
  EXPECT_EQ(OSBuf::Alloc(5000), nullptr);
  dump_allocated();
  EXPECT_GT(watching.calls().size(), 4u);
  EXPECT_EQ(watching.held, 0);
  buf->Free();
  Console = &console;
}

TEST_F(BufferPools, EveryRefusedCopyOutlivesExhaustion) {
  StartQuiet();
  std::vector<OSBuf*> held;
  for (int i = 1; i < 4; ++i) {
    std::vector<OSBuf*> more = take_class(i);
    held.insert(held.end(), more.begin(), more.end());
  }
  const UBYTE bytes[] = {1, 2, 3};
  EXPECT_EQ(OSBuf::Alloc(bytes, 3), nullptr);
  EXPECT_EQ(OSBuf::Alloc("abc"), nullptr);
  EXPECT_EQ(held.front()->Duplicate(), nullptr);
  EXPECT_EQ(console.fatals().size(), 3u);
  give_back(held);
  ExpectPoolsSound();
}

// --------------------------------------------------------------------------------------- damaged buffers

TEST_F(BufferPools, ADamagedMarkIsReportedOnAlloc) {
  StartQuiet();
  OSBuf* damaged = pooled(1);
  damaged->id = 0x44556676;
  OSBuf* got = OSBuf::Alloc(10);
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSBuf::Alloc - Corrupt");
  damaged->id = 0x44556677;
  if (got != nullptr) got->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectPoolsSound();
}

TEST_F(BufferPools, ADamagedMarkIsReportedOnFree) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->id = 0;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Free - Corrupt"));
  buf->id = 0x44556677;
  ExpectPoolsSound();
  if (OSBuf::allocated_list->PosInList(buf) >= 0) buf->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectPoolsSound();
}

TEST_F(BufferPools, DataBelowTheStorageIsReportedOnFree) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->data = buf->payload - 1;
  buf->length = 1;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Free - Corrupted buffer - pushed down too far"));
  ExpectPoolsSound();
  if (OSBuf::allocated_list->PosInList(buf) >= 0) {
    buf->data = buf->payload + buf->size;
    buf->length = 0;
    buf->Free();
  }
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectPoolsSound();
}

TEST_F(BufferPools, AByteWrittenPastTheStorageIsReportedOnFree) {
  StartQuiet();
  struct Row {
    int request;
    UWORD pushed;
    int extra;  // how far length reaches over the end
    const char* message;
  };
  const Row rows[] = {
      {10, 10, 1, "OSBuf::Free - Corrupted Overhang (size 100, data 90, length 11, overrun 1)"},
      {10, 100, 5, "OSBuf::Free - Corrupted Overhang (size 100, data 0, length 105, overrun 5)"},
      {700, 0, 0, "OSBuf::Free - Corrupted Overhang (size 1740, data 1740, length 0, overrun 0)"},
      {700, 40, -30, "OSBuf::Free - Corrupted Overhang (size 1740, data 1700, length 10, overrun -30)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(row.request);
    buf->PushDown(row.pushed);
    buf->length = static_cast<UWORD>(buf->length + row.extra);
    buf->payload[buf->size] = 0;
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(row.message));
    buf->payload[buf->size] = kGuard;
    if (OSBuf::allocated_list->PosInList(buf) >= 0) buf->Free();
    EXPECT_EQ(console.fatals().size(), 1u);
    ExpectPoolsSound();
  }
}

TEST_F(BufferPools, OnlyTheFirstGuardByteIsLookedAt) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  std::memset(buf->payload + buf->size + 1, 0, kGuardBytes - 1);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  std::memset(buf->payload + buf->size + 1, kGuard, kGuardBytes - 1);
}

TEST_F(BufferPools, TheMarkIsCheckedBeforeTheData) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->id = 1;
  buf->data = buf->payload - 1;
  buf->payload[buf->size] = 0;
  buf->Free();
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSBuf::Free - Corrupt");
  buf->id = 0x44556677;
  console.clear();
  if (OSBuf::allocated_list->PosInList(buf) >= 0) {
    buf->Free();
    ASSERT_FALSE(console.fatals().empty());
    EXPECT_EQ(console.fatals().front(), "OSBuf::Free - Corrupted buffer - pushed down too far");
  }
  buf->payload[buf->size] = kGuard;
  buf->data = buf->payload + buf->size;
  if (OSBuf::allocated_list->PosInList(buf) >= 0) buf->Free();
  ExpectPoolsSound();
}

TEST_F(BufferPools, FreeingTwiceIsReportedWithAddressAndSize) {
  StartQuiet();
  for (int request : {0, 10, 700}) {
    console.clear();
    OSBuf* buf = OSBuf::Alloc(request);
    buf->Free();
    EXPECT_THAT(console.fatals(), IsEmpty());
    buf->Free();
    char message[80];
    snprintf(message, sizeof message, "OSBuffer::Free freed twice %p %d", static_cast<void*>(buf), buf->size);
    EXPECT_THAT(console.fatals(), ElementsAre(message));
    ExpectPoolsSound();
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(message, message)) << "and again";
    ExpectPoolsSound();
  }
}

TEST_F(BufferPools, FreeingTwiceIsFoundWhateverTheLengthSays) {
  StartQuiet();
  for (UWORD length : {UWORD{0}, UWORD{1}, UWORD{100}, kNeverUsed}) {
    SCOPED_TRACE(length);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(10);
    buf->Free();
    buf->length = length;  // a stale owner went on writing
    buf->Free();
    char message[80];
    snprintf(message, sizeof message, "OSBuffer::Free freed twice %p %d", static_cast<void*>(buf), 100);
    EXPECT_THAT(console.fatals(), ElementsAre(message));
    ExpectPoolsSound();
  }
}

TEST_F(BufferPools, FreeingABufferThatWasNeverAllocatedDoesNoHarm) {
  StartQuiet();
  for (int i = 0; i < 4; ++i) {
    console.clear();
    OSBuf* buf = pooled(i);
    buf->Free();
    EXPECT_FALSE(console.fatals().empty());
    ExpectPoolsSound();
    EXPECT_EQ(OSBuf::PoolSize(i), cfg.buf_qty[i]);
  }
}

TEST_F(BufferPools, TheMarksAreLegalLengthsOfALargePacket) {
  cfg.buf_size[3] = 60000;
  cfg.buf_qty[3] = 2;
  StartQuiet();
  for (UWORD length : {kNeverUsed, kFreed}) {
    SCOPED_TRACE(length);
    OSBuf* buf = OSBuf::Alloc(30000);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf->size, 60000);
    std::memset(buf->Put(length), 'x', length);
    EXPECT_EQ(buf->length, length);
    OSBuf* other = OSBuf::Alloc(30000);
    buf->Free();
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_EQ(OSBuf::PoolSize(3), 1);
    buf->Free();
    EXPECT_EQ(console.fatals().size(), 1u);
    console.clear();
    other->Free();
    ExpectPoolsSound();
  }
}

TEST_F(BufferPools, TwoThreadsThatFreeOneBufferAreReportedOnce) {
  StartQuiet();
  constexpr int kRounds = 500;
  std::barrier meet(2);
  OSBuf* buf = nullptr;
  std::atomic<int> wrong{0};
  const auto free_it = [&](bool first) {
    for (int round = 0; round < kRounds; ++round) {
      if (first) buf = OSBuf::Alloc(round % 2 == 0 ? 10 : 0);
      meet.arrive_and_wait();
      buf->Free();
      meet.arrive_and_wait();
      if (first && static_cast<int>(console.fatals().size()) != round + 1) ++wrong;
    }
  };
  std::thread other(free_it, false);
  free_it(true);
  other.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(console.fatals().size(), static_cast<std::size_t>(kRounds));
  for (const std::string& message : console.fatals()) {
    EXPECT_EQ(message.substr(0, 26), "OSBuffer::Free freed twice");
  }
  ExpectPoolsSound();
}

// ------------------------------------------------------------------------------------- storage elsewhere

TEST_F(BufferPools, ForeignStorageIsNeitherInspectedNorKept) {
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
    OSBuf* again = OSBuf::Alloc(request);
    ASSERT_EQ(again, buf);
    EXPECT_EQ(again->data, own_payload + own_size);
    again->Free();
    EXPECT_THAT(console.fatals(), IsEmpty());
    ExpectPoolsSound();
  }
}

TEST_F(BufferPools, ForeignStorageMayBeReleasedBeforeTheBufferIs) {
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

TEST_F(BufferPools, NoForeignStorageAtAllIsPossibleToo) {
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

TEST_F(BufferPools, DataBelowForeignStorageIsReportedToo) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(0);
  UBYTE foreign[80] = {};
  buf->SetPayload(foreign + 40, 20);
  buf->data = foreign + 39;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Free - Corrupted buffer - pushed down too far"));
  ExpectPoolsSound();
  if (OSBuf::allocated_list->PosInList(buf) >= 0) {
    buf->data = foreign + 40;
    buf->Free();
  }
  EXPECT_EQ(console.fatals().size(), 1u);
}

TEST_F(BufferPools, ABufferOfTheCallersOwnFreesNoForeignStorage) {
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
  std::vector<OSBuf*> held;
  for (int i = 1; i < 4; ++i) {
    std::vector<OSBuf*> more = take_class(i);
    held.insert(held.end(), more.begin(), more.end());
  }
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
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Free - Corrupted buffer - pushed down too far"));
  if (OSBuf::allocated_list->PosInList(buf) >= 0) {
    buf->data = buf->payload + buf->size;
    buf->Free();
  }
  ExpectPoolsSound();
  stop();
  EXPECT_EQ(OS_MEMORY->FreeSpace(), kMemory - 12);
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

TEST_F(BufferPools, SizesBeyondSixteenBitsNeverPromiseMoreThanThereIs) {
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

TEST_F(BufferPools, ABlockOfMoreThanFourGigabytesIsNotComputedInThirtyTwoBits) {
  if (sizeof(std::size_t) < 8) GTEST_SKIP() << "needs a 64-bit size_t for a block over 4 GiB";
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

// ----------------------------------------------------------------------------------------------- threads

TEST_F(BufferPools, ThreadsNeverShareABuffer) {
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

TEST_F(BufferPools, ABufferMayBeFreedByAnotherThread) {
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

TEST_F(BufferPools, ThePoolsAreLockedWhileABufferMoves) {
  StartQuiet();
  OSBuf* mine = OSBuf::Alloc(10);
  EnterCriticalSection(&OS_CRITICAL_BUFFERS);
  std::atomic<int> done{0};
  std::thread alloc([&] {
    OSBuf* buf = OSBuf::Alloc(10);
    ++done;
    buf->Free();
  });
  std::thread free([&] {
    mine->Free();
    ++done;
  });
  EXPECT_FALSE(wait_until([&] { return done != 0; }, 50));
  LeaveCriticalSection(&OS_CRITICAL_BUFFERS);
  alloc.join();
  free.join();
  EXPECT_EQ(done, 2);
}

TEST_F(BufferPools, AllocatedBuffersCanBeListedWhileOthersComeAndGo) {
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
