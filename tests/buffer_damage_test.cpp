// Damaged message buffers, and buffers that are freed twice: what Alloc and Free check, in which order, and what they
// leave behind.

#include <atomic>
#include <barrier>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_pool_fixture.h"
#include "support/link_drought.h"
#include "support/section_watch.h"

namespace oskernel_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// No buffer lies at an odd address, so the language does not let one be named there; damaged pointers do.
OSBuf* one_byte_behind(void* address) { return reinterpret_cast<OSBuf*>(static_cast<char*>(address) + 1); }
__attribute__((no_sanitize("undefined"))) void free_it_there(OSBuf* buf) { buf->OSBuf::Free(); }

/// Aligned, not null, and no memory.
OSLink* nowhere() {
  const std::uintptr_t address = alignof(OSBuf);
  OSLink* link = nullptr;
  std::memcpy(static_cast<void*>(&link), &address, sizeof link);
  return link;
}

class BufferDamage : public BufferPools {
 protected:
  /// What Free reports about a guard byte that was overwritten.
  static std::string overhang(int size, int data, int length, int overrun) {
    char message[120];
    snprintf(message, sizeof message,
             "OSBuf::Free - Corrupted Overhang (size %d, data %d, length %d, overrun %d)", size, data, length,
             overrun);
    return message;
  }
  /// The buffer lies in its pool, freed, with its guard bytes as new.
  static void ExpectHome(const OSBuf* buf) {
    EXPECT_EQ(buf->length, kFreed);
    EXPECT_EQ(as<OSBuf>(buf->home_q->FirstObject()), buf);
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
    if (buf->payload == nullptr) return;
    for (int i = 0; i < kGuardBytes; ++i) ASSERT_EQ(buf->payload[buf->size + i], kGuard) << i;
  }
};

// ------------------------------------------------------------------------------------------------- the mark

TEST_F(BufferDamage, ADamagedMarkIsReportedOnAlloc) {
  StartQuiet();
  OSBuf* damaged = pooled(1);
  damaged->id = 0x44556676;
  OSBuf* got = OSBuf::Alloc(10);
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc));
  ASSERT_NE(got, nullptr);
  EXPECT_NE(got, damaged);
  EXPECT_EQ(got->size, 100) << "the next one of the class";
  EXPECT_EQ(OSBuf::PoolSize(1), 23);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(damaged), 0) << "out of circulation, where it can be seen";
  EXPECT_EQ(OSBuf::allocated_list->PosInList(got), 1);
  ExpectPoolsSound();
  got->Free();

  damaged->id = 0x44556677;
  damaged->length = 0;
  damaged->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectHome(damaged);
  ExpectPoolsSound();
}

TEST_F(BufferDamage, EveryDamagedMarkIsReportedUntilASoundBufferIsFound) {
  StartQuiet();
  for (OSBuf* buf : all_pooled(1)) buf->id = 0;
  for (OSBuf* buf : all_pooled(2)) buf->id = 0xFFFFFFFF;
  OSBuf* got = OSBuf::Alloc(10);
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->size, 1740);
  EXPECT_EQ(console.fatals().size(), 50u);
  EXPECT_THAT(console.fatals(), Each(std::string(kCorruptAlloc)));
  EXPECT_EQ(OSBuf::allocated_list->Size(), 51);
  ExpectPoolsSound();
  got->Free();
}

TEST_F(BufferDamage, TheLinkOfADamagedBufferStaysWithIt) {
  cfg.buf_qty[0] = 1;
  StartQuiet();
  const ULONG links = OSLink::link_pool_size;
  pooled(0)->id = 0;
  {
    const LinkDrought drought(1);
    EXPECT_EQ(OSBuf::Alloc(0), nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc, "OSBuffer::Alloc Out Of Buffers 0"));
    EXPECT_EQ(OSLink::link_pool_size, 0u);
    EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
    ExpectPoolsSound();
  }
  EXPECT_EQ(OSLink::link_pool_size, links - 1);
}

TEST_F(BufferDamage, ADamagedMarkIsReportedOnFree) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  for (ULONG mark : {0u, 0x44556676u, 0x44556678u, 0xC4556677u}) {
    SCOPED_TRACE(mark);
    console.clear();
    buf->id = mark;
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(kCorruptFree));
    EXPECT_EQ(OSBuf::allocated_list->PosInList(buf), 0) << "nothing is done";
    EXPECT_EQ(buf->length, 0);
    ExpectPoolsSound();
  }
  console.clear();
  buf->id = 0x44556677;
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  ExpectHome(buf);
}

TEST_F(BufferDamage, TheMarkIsCheckedBeforeTheData) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->id = 1;
  buf->data = buf->payload - 1;
  buf->payload[buf->size] = 0;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptFree));
  EXPECT_EQ(buf->payload[buf->size], 0) << "nothing is done";
  console.clear();
  buf->id = 0x44556677;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kPushedTooFar, overhang(100, -1, 0, -101)));
  ExpectHome(buf);
  ExpectPoolsSound();
}

TEST_F(BufferDamage, TheMarkOfAFreedBufferIsCheckedToo) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->Free();
  buf->id = 0;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptFree));
  buf->id = 0x44556677;
  ExpectPoolsSound();
}

// ---------------------------------------------------------------------------------------------- the address

TEST_F(BufferDamage, AnOddAddressIsReportedOnFree) {
  StartQuiet();
  // All that could be read there says that this is a sound buffer.
  alignas(OSBuf) unsigned char around[sizeof(OSBuf) + 1];
  OSBuf* buf = OSBuf::Alloc(10);
  OSBuf* odd = one_byte_behind(around);
  std::memcpy(static_cast<void*>(odd), static_cast<const void*>(buf), sizeof *buf);
  free_it_there(odd);
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptFree));
  EXPECT_EQ(std::memcmp(static_cast<const void*>(odd), static_cast<const void*>(buf), sizeof *buf), 0);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
  buf->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectPoolsSound();
}

TEST_F(BufferDamage, AnOddAddressIsReportedOnAlloc) {
  StartQuiet();
  OSBuf::buffer_pool[1].next = one_byte_behind(OSBuf::buffer_pool[1].next);
  OSBuf* got = OSBuf::Alloc(10);
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc));
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->size, 600) << "the rest of the class cannot be reached any more";
  EXPECT_EQ(OSBuf::PoolSize(1), 0);
  EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[1]));
  got->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  Stop();
  StartQuiet();
  ExpectPoolsSound();
}

/// A buffer that is damaged in its link, too: what leads on from there must not be followed.
TEST_F(BufferDamage, ADamagedLinkIsNotFollowed) {
  static OSLink elsewhere;
  struct Row {
    const char* name;
    void (*damage)(OSBuf* first);
  };
  const Row rows[] = {
      {"next is null", [](OSBuf* b) { static_cast<OSLink*>(b)->next = nullptr; }},
      {"next is odd", [](OSBuf* b) { static_cast<OSLink*>(b)->next = one_byte_behind(b); }},
      {"next lies elsewhere", [](OSBuf* b) { static_cast<OSLink*>(b)->next = &elsewhere; }},
      {"next leads nowhere", [](OSBuf* b) { static_cast<OSLink*>(b)->next = nowhere(); }},
      {"next is another's", [](OSBuf* b) { static_cast<OSLink*>(b)->next = pooled(2); }},
      {"previous is null", [](OSBuf* b) { static_cast<OSLink*>(b)->previous = nullptr; }},
      {"previous lies elsewhere", [](OSBuf* b) { static_cast<OSLink*>(b)->previous = &elsewhere; }},
      {"no object", [](OSBuf* b) { static_cast<OSLink*>(b)->object = nullptr; }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    console.clear();
    StartQuiet();
    OSBuf* damaged = pooled(1);
    damaged->id = 0;
    OSLink* next = static_cast<OSLink*>(damaged)->next;
    OSLink* previous = static_cast<OSLink*>(damaged)->previous;
    void* object = static_cast<OSLink*>(damaged)->object;
    row.damage(damaged);
    OSBuf* got = OSBuf::Alloc(10);
    EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc));
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->size, 600);
    EXPECT_EQ(OSBuf::PoolSize(1), 0);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i]));
    EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
    got->Free();
    static_cast<OSLink*>(damaged)->next = next;
    static_cast<OSLink*>(damaged)->previous = previous;
    static_cast<OSLink*>(damaged)->object = object;
    Stop();
  }
}

TEST_F(BufferDamage, AFreeBufferWithoutObjectIsReportedOnAlloc) {
  StartQuiet();
  OSBuf* damaged = pooled(1);
  void* object = static_cast<OSLink*>(damaged)->object;
  static_cast<OSLink*>(damaged)->object = nullptr;
  OSBuf* got = OSBuf::Alloc(10);
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc));
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->size, 600);
  got->Free();
  static_cast<OSLink*>(damaged)->object = object;
}

TEST_F(BufferDamage, ADamagedPoolCanBeStoppedAndStartedAgain) {
  for (int position : {0, 1, 12, 24}) {
    SCOPED_TRACE(position);
    StartQuiet();
    OSBuf* damaged = all_pooled(1)[static_cast<std::size_t>(position)];
    damaged->id = 0;
    static_cast<OSLink*>(damaged)->object = nullptr;
    Stop();
    ExpectPoolsEmpty();
  }
  StartQuiet();
  ExpectPoolsSound();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferDamage, TheLastBufferOfAClassMayBeTheDamagedOne) {
  cfg.buf_qty[1] = 1;
  StartQuiet();
  OSBuf* damaged = pooled(1);
  damaged->id = 0;
  OSBuf* got = OSBuf::Alloc(10);
  EXPECT_THAT(console.fatals(), ElementsAre(kCorruptAlloc));
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->size, 600);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(damaged), 0);
  ExpectPoolsSound();
  got->Free();
}

// ----------------------------------------------------------------------------------------------- the contents

TEST_F(BufferDamage, DataBelowTheStorageIsReportedOnFree) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->data = buf->payload - 1;
  buf->length = 1;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kPushedTooFar));
  ExpectHome(buf);
  ExpectPoolsSound();
  OSBuf* again = OSBuf::Alloc(10);
  ASSERT_EQ(again, buf);
  EXPECT_EQ(again->data, again->payload + again->size);
  again->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
}

TEST_F(BufferDamage, DataAtTheVeryStartIsNot) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->PushDown(100);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(BufferDamage, AByteWrittenPastTheStorageIsReportedOnFree) {
  StartQuiet();
  struct Row {
    int request;
    UWORD pushed;
    int extra;  // how far length reaches over the end
    std::string message;
  };
  const Row rows[] = {
      {10, 10, 1, overhang(100, 90, 11, 1)},
      {10, 100, 5, overhang(100, 0, 105, 5)},
      {700, 0, 0, overhang(1740, 1740, 0, 0)},
      {700, 40, -30, overhang(1740, 1700, 10, -30)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(row.request);
    buf->PushDown(row.pushed);
    buf->length = static_cast<UWORD>(buf->length + row.extra);
    std::memset(buf->payload + buf->size, 0, kGuardBytes);
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(row.message));
    ExpectHome(buf);
    ExpectPoolsSound();
    OSBuf::Alloc(row.request)->Free();
    EXPECT_EQ(console.fatals().size(), 1u) << "the next holder is not to blame";
  }
}

TEST_F(BufferDamage, OnlyTheFirstGuardByteIsLookedAt) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  std::memset(buf->payload + buf->size + 1, 0, kGuardBytes - 1);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_EQ(buf->payload[buf->size + 1], 0) << "and nothing is renewed";
}

TEST_F(BufferDamage, ASizeOfNothingLeavesNothingToCheck) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->payload[buf->size] = 0;
  buf->data = buf->payload - 1;
  buf->size = 0;
  buf->payload[0] = 0;
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_EQ(buf->size, 100) << "what the class had";
  buf->payload[100] = kGuard;
  ExpectHome(buf);
}

TEST_F(BufferDamage, ASizeThatBecomesNothingMeanwhileIsNotLookedUp) {
  static OSBuf* buf;
  class Shrinking : public RecordingConsole {
   public:
    void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
      RecordingConsole::Fatal("%s", format);
      buf->size = 0;
    }
  };
  StartQuiet();
  Shrinking shrinking;
  Console = &shrinking;
  buf = OSBuf::Alloc(10);
  buf->data = buf->payload - 1;
  buf->payload[100] = 0;
  buf->Free();
  Console = &console;
  EXPECT_THAT(shrinking.fatals(), ElementsAre(kPushedTooFar));
  buf->payload[100] = kGuard;
  ExpectHome(buf);
}

TEST_F(BufferDamage, TheGuardIsLookedUpWhereTheSizeSays) {
  StartQuiet();
  struct Row {
    UWORD size;
    bool found;
  };
  // Inside the guard bytes all is as it should be; behind them nothing may be read.
  for (const Row& row : {Row{99, true}, Row{101, false}, Row{163, false}, Row{164, true}, Row{65535, true}}) {
    SCOPED_TRACE(row.size);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(10);
    std::memset(buf->payload, 0, 100);
    buf->payload[164] = kGuard;  // by chance, where nothing stands before the next buffer
    buf->size = row.size;
    buf->Free();
    if (row.found) {
      EXPECT_THAT(console.fatals(), ElementsAre(overhang(row.size, 100, 0, 100 - row.size)));
    } else {
      EXPECT_THAT(console.fatals(), IsEmpty());
    }
    EXPECT_EQ(buf->size, 100);
    ExpectHome(buf);
  }
}

TEST_F(BufferDamage, DamageWithoutAConsoleIsPassedOver) {
  StartQuiet();
  Console = nullptr;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->id = 0;
  buf->Free();
  buf->id = 0x44556677;
  buf->data = buf->payload - 1;
  buf->payload[100] = 0;
  buf->Free();
  ExpectHome(buf);
  buf->Free();
  pooled(2)->id = 0;
  OSBuf* got = OSBuf::Alloc(110);
  ASSERT_NE(got, nullptr);
  OSLinkList list;
  list.Append(got);
  got->Free();
  list.Remove(got);
  got->Free();
  Console = &console;
  ExpectPoolsSound();
}

TEST_F(BufferDamage, NothingIsReportedWhileTheSectionIsHeld) {
  StartQuiet();
  {
    const SectionWatch watch(&OS_CRITICAL_BUFFERS);
    OSBuf* buf = OSBuf::Alloc(10);
    buf->data = buf->payload - 1;
    buf->payload[100] = 0;
    buf->Free();
    buf->data = buf->payload - 1;
    buf->payload[100] = 0;
    buf->Free();
    pooled(2)->id = 0;
    OSBuf::Alloc(110)->Free();
    OSLinkList list;
    OSBuf* queued = OSBuf::Alloc(10);
    list.Append(queued);
    queued->Free();
    EXPECT_EQ(watch.fatals().size(), 7u);
    EXPECT_EQ(watch.calls_inside(), 0);
    list.Remove(queued);
    queued->Free();
  }
  ExpectPoolsSound();
}

// ------------------------------------------------------------------------------------------------ freed twice

TEST_F(BufferDamage, FreeingTwiceIsReportedWithAddressAndSize) {
  StartQuiet();
  for (int request : {0, 10, 700}) {
    console.clear();
    OSBuf* buf = OSBuf::Alloc(request);
    buf->Free();
    EXPECT_THAT(console.fatals(), IsEmpty());
    buf->Free();
    const std::string message = freed_twice(buf, request == 0 ? 0 : request == 10 ? 100 : 1740);
    EXPECT_THAT(console.fatals(), ElementsAre(message));
    ExpectPoolsSound();
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(message, message)) << "and again";
    ExpectPoolsSound();
  }
}

TEST_F(BufferDamage, FreeingTwiceIsFoundWhateverTheLengthSays) {
  StartQuiet();
  for (UWORD length : {UWORD{0}, UWORD{1}, UWORD{100}, kNeverUsed}) {
    SCOPED_TRACE(length);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(10);
    buf->Free();
    buf->length = length;  // a stale owner went on writing
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(freed_twice(buf, 100)));
    ExpectPoolsSound();
  }
}

// The first report is the one that a program ends with, and it tells more: the stale holder has not only freed the
// buffer again but has gone on writing into it.
TEST_F(BufferDamage, WhatAStaleHolderHasDoneIsReportedBeforeTheSecondFree) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->Free();
  buf->data = buf->payload - 1;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kPushedTooFar, freed_twice(buf, 100)));

  console.clear();
  buf->data = buf->payload + 10;
  buf->payload[100] = 0;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(overhang(100, 10, 43690, 43600), freed_twice(buf, 100)));
  ExpectHome(buf);

  console.clear();
  buf->data = buf->payload - 3;
  buf->payload[100] = 0;
  buf->length = 7;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kPushedTooFar, overhang(100, -3, 7, -96), freed_twice(buf, 100)));
  EXPECT_EQ(OSBuf::PoolSize(1), 25);
  ExpectPoolsSound();
  OSBuf::Alloc(10)->Free();
  EXPECT_EQ(console.fatals().size(), 3u);
}

TEST_F(BufferDamage, TheSizeOfAFreedBufferIsShownAsItIs) {
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(10);
  buf->Free();
  buf->size = 0;
  buf->payload[100] = 0;
  buf->data = buf->payload - 1;
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(freed_twice(buf, 0))) << "without size nothing else is checked";
  buf->size = 100;
  buf->payload[100] = kGuard;
  ExpectPoolsSound();
}

// A callback of the first Free is still using what the buffer refers to; the second one must keep its hands off it.
TEST_F(BufferDamage, ASecondFreeLooksAtNothingWhileTheFirstIsUnderWay) {
  StartQuiet();
  static OSBuf* buf;
  static UBYTE foreign[80];
  buf = OSBuf::Alloc(10);
  buf->SetPayload(foreign + 40, 40);
  buf->AddBufferCallback(OSCallback::Alloc(
      nullptr,
      [](OSObj*, ADDR, ULONG) {
        buf->data = foreign;
        std::thread([] { buf->Free(); }).join();
        buf->data = foreign + 40;
      },
      nullptr, nullptr, 0));
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre(freed_twice(buf, 100)));
  ExpectHome(buf);
  ExpectPoolsSound();
}

TEST_F(BufferDamage, FreeingABufferThatWasNeverAllocatedDoesNoHarm) {
  StartQuiet();
  for (int i = 0; i < 4; ++i) {
    console.clear();
    OSBuf* buf = pooled(i);
    buf->Free();
    EXPECT_THAT(console.fatals(), ElementsAre(freed_twice(buf, cfg.buf_size[i])));
    EXPECT_EQ(buf->length, kNeverUsed) << "it stays as it was";
    ExpectPoolsSound();
    EXPECT_EQ(OSBuf::PoolSize(i), cfg.buf_qty[i]);
  }
}

TEST_F(BufferDamage, TheMarksAreLegalLengthsOfALargePacket) {
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
    EXPECT_THAT(console.fatals(), ElementsAre(freed_twice(buf, 60000)));
    console.clear();
    other->Free();
    ExpectPoolsSound();
  }
}

TEST_F(BufferDamage, TwoThreadsThatFreeOneBufferAreReportedOnce) {
  StartQuiet();
  constexpr int kRounds = 100;
  std::barrier meet(2);
  OSBuf* buf = nullptr;
  std::atomic<int> wrong{0};
  UBYTE foreign[40];
  const auto free_it = [&](bool first) {
    for (int round = 0; round < kRounds; ++round) {
      if (first) {
        buf = OSBuf::Alloc(round % 2 == 0 ? 10 : 0);
        if (round % 3 == 0) buf->SetPayload(foreign, sizeof foreign);
      }
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
  EXPECT_THAT(console.fatals(), Each(StartsWith("OSBuffer::Free freed twice")));
  ExpectPoolsSound();
}

// ------------------------------------------------------------------------------- a list that the program changes

TEST_F(BufferDamage, ABufferThatTheProgramTookOffTheListIsFreedAllTheSame) {
  StartQuiet();
  const ULONG links = OSLink::link_pool_size;
  OSBuf* removed = OSBuf::Alloc(10);
  OSBuf* moved = OSBuf::Alloc(10);
  OSBuf* flushed = OSBuf::Alloc(10);
  OSBuf::allocated_list->Remove(removed);
  removed->Free();
  OSBuf::allocated_list->Remove(moved);
  OSBuf::allocated_list->Append(moved);
  moved->Free();
  EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
  OSBuf::allocated_list->Flush();
  OSBuf own;
  OSIndirectList other;
  other.Append(&own);  // with the link that the buffer remembers
  flushed->Free();
  EXPECT_EQ(other.Size(), 1) << "the program's own list is its own affair";
  EXPECT_TRUE(ListIsSound(other));
  other.Flush();
  EXPECT_EQ(OSLink::link_pool_size, links);
  EXPECT_THAT(console.fatals(), IsEmpty());
  ExpectPoolsSound();
}

// ------------------------------------------------------------------------------------------- freed in a queue

TEST_F(BufferDamage, ABufferFreedWhileItIsQueuedStaysWhereItIs) {
  StartQuiet();
  OSLinkList queue;
  OSBuf* buf = OSBuf::Alloc("text");
  OSBuf* other = OSBuf::Alloc("other");
  queue.Append(buf);
  queue.Append(other);
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSLinkList::Insert Obj of link that is already in a list"));
  EXPECT_EQ(queue.Size(), 2);
  EXPECT_TRUE(ListIsSound(queue));
  EXPECT_EQ(as<OSBuf>(queue.FirstObject()), buf);
  EXPECT_EQ(buf->length, 0) << "empty";
  EXPECT_EQ(buf->data, buf->payload + buf->size);
  EXPECT_EQ(OSBuf::allocated_list->PosInList(buf), 0) << "and allocated";
  EXPECT_EQ(OSBuf::PoolSize(1), 23);
  ExpectPoolsSound();
  queue.Remove(buf);
  buf->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  queue.Remove(other);
  other->Free();
  ExpectPoolsSound();
}

TEST_F(BufferDamage, ABufferFreedInABareRingStaysThereToo) {
  StartQuiet();
  OSLinkHead ring;
  OSBuf* buf = OSBuf::Alloc(10);
  ring.Insert(buf);  // stands for nothing, but has neighbours
  buf->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSLinkList::Insert Obj of link that is already in a list"));
  EXPECT_EQ(ring_length(ring), 1);
  static_cast<OSLink*>(buf)->object = buf;
  static_cast<OSLink*>(buf)->Remove();
  buf->Free();
  EXPECT_EQ(console.fatals().size(), 1u);
  ExpectPoolsSound();
}

}  // namespace
}  // namespace oskernel_test
