// What a message buffer does with its bytes: pushing in front, appending, pulling and copying.

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_fixture.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kPushTooFar[] = "OSBuf::PushData Too far";

// ------------------------------------------------------------------------------------------------ pushing

TEST_F(Buffer, NumbersArePushedAndPulledInTheProcessorsOwnOrder) {
  OSBuf* buf = OSBuf::Alloc(50);
  UBYTE* end = buf->data;
  buf->PushData(ULONG{0x01020304});
  EXPECT_EQ(buf->length, 4);
  EXPECT_EQ(buf->data, end - 4);
  const ULONG value = 0x01020304;
  EXPECT_EQ(std::memcmp(buf->data, &value, 4), 0);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  EXPECT_EQ(buf->data[0], 0x04);
#endif
  buf->PushData(UWORD{0xBEEF});
  buf->PushData(UBYTE{0x7F});
  buf->PushData(-5);
  EXPECT_EQ(buf->length, 11);
  EXPECT_EQ(buf->data, end - 11);
  EXPECT_EQ(buf->PullInt(), -5);
  EXPECT_EQ(buf->length, 7);
  EXPECT_EQ(buf->PullByte(), 0x7F);
  EXPECT_EQ(buf->PullWord(), 0xBEEF);
  EXPECT_EQ(buf->PullLong(), 0x01020304u);
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(buf->data, end);
  buf->Free();
}

TEST_F(Buffer, EveryBitOfANumberSurvives) {
  OSBuf* buf = OSBuf::Alloc(50);
  for (ULONG value : {0u, 1u, 0x80000000u, 0xFFFFFFFFu, 0xDEADBEEFu}) {
    buf->PushData(value);
    EXPECT_EQ(buf->PullLong(), value);
    buf->PushData(static_cast<int>(value));
    EXPECT_EQ(buf->PullInt(), static_cast<int>(value));
    buf->PushData(static_cast<UWORD>(value));
    EXPECT_EQ(buf->PullWord(), static_cast<UWORD>(value));
    buf->PushData(static_cast<UBYTE>(value));
    EXPECT_EQ(buf->PullByte(), static_cast<UBYTE>(value));
  }
  EXPECT_EQ(buf->length, 0);
  buf->Free();
}

TEST_F(Buffer, OddPositionsAreSafe) {
  OSBuf* buf = OSBuf::Alloc(50);
  for (int i = 0; i < 5; ++i) {
    buf->PushData(UBYTE{1});
    buf->PushData(ULONG{0x11223344});
    buf->PushData(UWORD{0x5566});
    EXPECT_EQ(buf->PullWord(), 0x5566);
    EXPECT_EQ(buf->PullLong(), 0x11223344u);
  }
  EXPECT_EQ(buf->length, 5);
  buf->Free();
}

TEST_F(Buffer, CopiesArePushedInFrontOfTheData) {
  OSBuf* buf = OSBuf::Alloc(50);
  buf->PushData("world");
  EXPECT_EQ(buf->length, 5) << "without the terminating zero";
  const UBYTE space[] = {'o', ' '};
  buf->PushData(space, UWORD{2});
  const std::string hell = "hell";
  buf->PushData(bytes_of(hell), bytes_of(hell) + 4);
  EXPECT_EQ(content(buf), "hello world");
  EXPECT_EQ(buf->data + buf->length, buf->payload + buf->size);
  buf->PushData("");
  buf->PushData(bytes_of(hell), UWORD{0});
  buf->PushData(bytes_of(hell), bytes_of(hell));
  EXPECT_EQ(content(buf), "hello world");
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Buffer, OneByteIsCopiedToo) {
  const std::string text = "abc";
  OSBuf* buf = OSBuf::Alloc("");
  buf->PushData("c");
  buf->PushData(bytes_of(text) + 1, UWORD{1});
  buf->PushData(bytes_of(text), bytes_of(text) + 1);
  EXPECT_EQ(content(buf), text);
  *buf->Put(1) = 'd';
  UBYTE out = 0;
  buf->PullData(&out, UWORD{1});
  EXPECT_EQ(out, 'a');
  EXPECT_EQ(content(buf), "bcd");
  buf->Free();
}

TEST_F(Buffer, BytesOfTheBufferItselfCanBePushed) {
  OSBuf* buf = OSBuf::Alloc("0123456789");
  buf->PushData(buf->data, UWORD{4});
  EXPECT_EQ(content(buf), "01230123456789");
  UBYTE* overlapping = buf->data - 3;
  std::memcpy(overlapping, "xyz", 3);
  buf->PushData(overlapping, UWORD{6});
  EXPECT_EQ(content(buf), "xyz01201230123456789");
  buf->Free();
}

TEST_F(Buffer, ARangeCountsModulo65536) {
  const std::string text = pattern(65536 + 5);
  OSBuf* buf = OSBuf::Alloc(50);
  buf->PushData(bytes_of(text), bytes_of(text) + 65536 + 5);
  EXPECT_EQ(content(buf), pattern(5));
  std::vector<UBYTE> out(65536 + 3, 0);
  buf->PullData(out.data(), out.data() + out.size());
  EXPECT_EQ(buf->length, 2);
  EXPECT_EQ(std::string(out.begin(), out.begin() + 4), std::string("abc") + '\0');
  buf->Free();
}

TEST_F(Buffer, PushDownMakesRoomWithoutWriting) {
  OSBuf* buf = framed(20);
  buf->PushData("xy");
  buf->PushDown(5);
  EXPECT_EQ(buf->length, 7);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(buf->data[i], 0xEE);
  EXPECT_EQ(buf->data[5], 'x');
  buf->PushDown(0);
  EXPECT_EQ(buf->length, 7);
  buf->PushDown(13);
  EXPECT_EQ(buf->data, buf->payload) << "to the very start";
  EXPECT_THAT(console.fatals(), IsEmpty());
  buf->Free();
}

TEST_F(Buffer, PutAppendsAtTheEnd) {
  OSBuf* buf = OSBuf::Alloc(50);
  buf->PushData("abc");
  UBYTE* end = buf->payload + buf->size;
  UBYTE* room = buf->Put(4);
  EXPECT_EQ(buf->length, 7);
  EXPECT_EQ(buf->data, end - 7);
  EXPECT_EQ(room, end - 4);
  EXPECT_EQ(room, buf->data + 3);
  std::memcpy(room, "defg", 4);
  EXPECT_EQ(content(buf), "abcdefg");
  EXPECT_EQ(buf->Put(0), end);
  EXPECT_EQ(content(buf), "abcdefg");
  // Not only at the end of the storage: after a pull and a Put in the middle the bytes move the same way.
  buf->length = 5;
  room = buf->Put(2);
  std::memcpy(room, "YZ", 2);
  EXPECT_EQ(content(buf), "abcdeYZ");
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Buffer, PutIntoAnEmptyBufferGivesTheWholeStorage) {
  OSBuf* buf = framed(20);
  UBYTE* room = buf->Put(20);
  EXPECT_EQ(room, buf->payload);
  std::memset(room, 1, 20);
  EXPECT_THAT(console.fatals(), IsEmpty());
  ExpectFrameUntouched(20);
  buf->Free();
}

/// The pushes that check for room, each with the text of its size.
struct CheckedPush {
  const char* name;
  const char* message;
  void (*push)(OSBuf* buf, const std::string& text);
};

constexpr CheckedPush kCheckedPushes[] = {
    {"PushDown", "OSBuf::Pushdown Too far",
     [](OSBuf* b, const std::string& t) { b->PushDown(static_cast<UWORD>(t.size())); }},
    {"PushData bytes", kPushTooFar,
     [](OSBuf* b, const std::string& t) { b->PushData(bytes_of(t), static_cast<UWORD>(t.size())); }},
    {"PushData range", kPushTooFar,
     [](OSBuf* b, const std::string& t) { b->PushData(bytes_of(t), bytes_of(t) + t.size()); }},
    {"PushData text", kPushTooFar, [](OSBuf* b, const std::string& t) { b->PushData(t.c_str()); }},
    {"Put", "OSBuf::Put Too far",
     [](OSBuf* b, const std::string& t) { EXPECT_EQ(b->Put(static_cast<UWORD>(t.size())), nullptr); }},
};

TEST_F(Buffer, APushThatDoesNotFitIsReportedBeforeAByteIsWritten) {
  for (const CheckedPush& row : kCheckedPushes) {
    for (int excess : {1, 2, 100, 30000, 65535 - 20}) {
      SCOPED_TRACE(row.name + std::string(" ") + std::to_string(excess));
      console.clear();
      OSBuf* buf = framed(24);
      buf->PushData("data");
      row.push(buf, pattern(20 + excess));
      EXPECT_THAT(console.fatals(), ElementsAre(row.message));
      ExpectFrameUntouched(24);
      for (std::size_t i = 0; i < 20; ++i) ASSERT_EQ(frame_[kMargin + i], 0xEE) << "inside the storage too";
      EXPECT_EQ(std::memcmp(frame_ + kMargin + 20, "data", 4), 0);
      // Both have moved by then, which is how it was found.
      EXPECT_EQ(buf->data, buf->payload - excess);
      EXPECT_EQ(buf->length, static_cast<UWORD>(24 + excess));
      reset_and_free(buf);
      EXPECT_EQ(console.fatals().size(), 1u);
    }
  }
}

TEST_F(Buffer, ABufferThatARefusedPushHasMovedIsReportedByFree) {
  for (const CheckedPush& row : kCheckedPushes) {
    SCOPED_TRACE(row.name);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(10);
    row.push(buf, pattern(101));
    buf->Free();
    EXPECT_THAT(console.fatals(),
                ElementsAre(row.message, "OSBuf::Free - Corrupted buffer - pushed down too far"));
  }
}

TEST_F(Buffer, ARefusedPushWithoutAConsoleIsRefusedToo) {
  Console = nullptr;
  for (const CheckedPush& row : kCheckedPushes) {
    SCOPED_TRACE(row.name);
    OSBuf* buf = framed(24);
    row.push(buf, pattern(25));
    ExpectFrameUntouched(24);
    EXPECT_EQ(buf->data, buf->payload - 1);
    reset_and_free(buf);
  }
  const std::string text = pattern(33000);
  OSBuf* copy = OSBuf::Alloc(bytes_of(text), 33000);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->length, 0);
  copy->Free();
  Console = &console;
}

TEST_F(Buffer, NothingIsPushedFromNull) {
  OSBuf* buf = OSBuf::Alloc("text");
  buf->PushData(static_cast<const UBYTE*>(nullptr), UWORD{5});
  buf->PushData(static_cast<const char*>(nullptr));
  buf->PushData(static_cast<const UBYTE*>(nullptr), static_cast<const UBYTE*>(nullptr));
  EXPECT_EQ(content(buf), "text");
  EXPECT_EQ(buf->data + 4, buf->payload + buf->size);
  EXPECT_THAT(console.fatals(), IsEmpty());
  buf->Free();
}

TEST_F(Buffer, APushThatJustFitsIsNot) {
  OSBuf* buf = framed(24);
  buf->PushData("data");
  const std::string text = pattern(20);
  buf->PushData(bytes_of(text), UWORD{20});
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_EQ(content(buf), text + "data");
  ExpectFrameUntouched(24);
  buf->Free();
}

TEST_F(Buffer, ABufferWithoutStorageTakesNoCopy) {
  OSBuf* buf = OSBuf::Alloc(0);
  ASSERT_EQ(buf->payload, nullptr);
  const UBYTE bytes[] = {1, 2, 3, 4};
  buf->PushData(bytes, UWORD{4});
  EXPECT_THAT(console.fatals(), ElementsAre(kPushTooFar));
  console.clear();
  buf->data = nullptr;
  buf->length = 0;
  buf->PushDown(4);
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Pushdown Too far"));
  console.clear();
  buf->data = nullptr;
  buf->length = 0;
  buf->Put(4);
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Put Too far"));
  console.clear();
  buf->data = nullptr;
  buf->length = 0;
  buf->PushData(bytes, UWORD{0});
  buf->PushDown(0);
  buf->Put(0);
  EXPECT_THAT(console.fatals(), IsEmpty());
  buf->Free();
}

TEST_F(Buffer, ABufferWithoutStorageStaysWithoutData) {
  OSBuf* buf = OSBuf::Alloc(0);
  buf->PushData(ULONG{0x11223344});
  EXPECT_EQ(buf->data, nullptr);
  EXPECT_EQ(buf->length, 4);
  EXPECT_EQ(buf->Put(0), nullptr);
  EXPECT_EQ(buf->length, 4);
  OSBuf* copy = buf->Duplicate();
  EXPECT_EQ(copy->length, 0);
  copy->Free();
  EXPECT_EQ(buf->PullLong(), 0u);
  EXPECT_EQ(buf->PullInt(), 0);
  EXPECT_EQ(buf->PullWord(), 0);
  EXPECT_EQ(buf->PullByte(), 0);
  EXPECT_EQ(buf->length, static_cast<UWORD>(4 - 4 - 4 - 2 - 1));
  UBYTE out[4] = {9, 9, 9, 9};
  buf->PullData(out, UWORD{4});
  EXPECT_THAT(out, Each(9));
  buf->PullUp(3);
  EXPECT_EQ(buf->data, nullptr);
  EXPECT_THAT(console.fatals(), IsEmpty());
  buf->Free();
}

/// Pulls do not check, so a pull too many leaves data behind the storage. What is written from there must not get
/// past the guard bytes, where Free finds it.
TEST_F(Buffer, AfterAPullTooManyNothingIsWrittenBehindTheGuard) {
  struct Row {
    UWORD behind;  // how far data lies behind the storage
    bool written;
  };
  for (const Row& row :
       {Row{1, true}, Row{2, true}, Row{64, true}, Row{65, false}, Row{66, false}, Row{5000, false}}) {
    SCOPED_TRACE(row.behind);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(10);
    UBYTE* target = buf->payload + buf->size + row.behind - 1;
    const UBYTE before = *target;
    const auto value = static_cast<UBYTE>(~before);
    buf->PullUp(row.behind);
    buf->PushData(value);
    EXPECT_EQ(buf->data, target);
    EXPECT_EQ(buf->length, static_cast<UWORD>(1 - row.behind));
    EXPECT_EQ(*target, row.written ? value : before);
    *target = before;
    buf->PullUp(1);
    buf->PushData(&value, UWORD{1});
    EXPECT_EQ(*target, row.written ? value : before);
    EXPECT_EQ(console.fatals().size(), row.written ? 0u : 1u);
    console.clear();
    if (row.behind != 1) *target = before;
    buf->Free();
    EXPECT_EQ(console.fatals().size(), row.behind == 1 ? 1u : 0u);
  }
}

TEST_F(Buffer, AfterAPullTooManyNothingIsReadBehindTheStorage) {
  OSBuf* buf = OSBuf::Alloc("0123456789");
  buf->length = 20;  // ten more than there are
  OSBuf* copy = buf->Duplicate();
  EXPECT_EQ(content(copy), "0123456789");
  copy->Free();
  UBYTE* room = buf->Put(2);
  ASSERT_NE(room, nullptr);
  EXPECT_EQ(room, buf->data + 10) << "behind what was there";
  EXPECT_EQ(std::memcmp(buf->data, "0123456789", 10), 0);
  EXPECT_EQ(buf->length, 22);
  buf->Free();

  buf = OSBuf::Alloc("");
  buf->PullUp(1);
  EXPECT_EQ(buf->length, 65535);
  copy = buf->Duplicate();
  EXPECT_EQ(copy->length, 0);
  EXPECT_EQ(copy->data, copy->payload + copy->size);
  copy->Free();
  room = buf->Put(4);
  EXPECT_EQ(room, buf->data);
  EXPECT_EQ(room, buf->payload + buf->size - 3);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Buffer, LentStorageIsUsedAsTheBuffersOwn) {
  OSBuf* buf = framed(64);
  buf->PushData("0123456789");
  OSBuf* copy = buf->Duplicate();
  EXPECT_EQ(content(copy), "0123456789");
  copy->Free();
  std::memcpy(buf->Put(3), "abc", 3);
  EXPECT_EQ(content(buf), "0123456789abc");
  EXPECT_EQ(buf->PullByte(), '0');
  OSBuf* same = buf->CopyData(bytes_of("new"), 3);
  EXPECT_EQ(same, buf) << "64 bytes are more than 3 and the headroom";
  EXPECT_EQ(content(same), "new");
  EXPECT_EQ(same->data + 3, frame_ + kMargin + 64);
  ExpectFrameUntouched(64);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Buffer, SmallPushesAreUncheckedButNeverWriteBelowTheStorage) {
  struct Row {
    const char* name;
    int size;
    void (*push)(OSBuf* buf);
  };
  const Row rows[] = {
      {"UBYTE", 1, [](OSBuf* b) { b->PushData(UBYTE{0x55}); }},
      {"UWORD", 2, [](OSBuf* b) { b->PushData(UWORD{0x5555}); }},
      {"ULONG", 4, [](OSBuf* b) { b->PushData(ULONG{0x55555555}); }},
      {"int", 4, [](OSBuf* b) { b->PushData(int{0x55555555}); }},
  };
  for (const Row& row : rows) {
    for (int room = 0; room < row.size; ++room) {
      SCOPED_TRACE(row.name + std::string(" with room for ") + std::to_string(room));
      console.clear();
      OSBuf* buf = framed(static_cast<UWORD>(16));
      buf->PushDown(static_cast<UWORD>(16 - room));
      UBYTE* before = buf->data;
      row.push(buf);
      EXPECT_THAT(console.fatals(), IsEmpty()) << "these do not check";
      EXPECT_EQ(buf->data, before - row.size);
      EXPECT_EQ(buf->length, 16 - room + row.size);
      ExpectFrameUntouched(16);
      row.push(buf);  // and further down
      EXPECT_EQ(buf->length, 16 - room + 2 * row.size);
      ExpectFrameUntouched(16);
      buf->Free();
      EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::Free - Corrupted buffer - pushed down too far"));
      EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
    }
  }
}

TEST_F(Buffer, SmallPushesOnABufferWithoutStorageWriteNothing) {
  OSBuf* buf = OSBuf::Alloc(0);
  buf->PushData(UBYTE{1});
  buf->PushData(UWORD{1});
  buf->PushData(ULONG{1});
  buf->PushData(1);
  EXPECT_EQ(buf->length, 11);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty()) << "without storage there is nothing that could have been damaged";
}

// ------------------------------------------------------------------------------------------------ pulling

TEST_F(Buffer, DataIsPulledFromTheFront) {
  OSBuf* buf = OSBuf::Alloc("0123456789");
  UBYTE out[8] = {};
  buf->PullData(out, UWORD{3});
  EXPECT_EQ(std::string(out, out + 3), "012");
  EXPECT_EQ(out[3], 0);
  EXPECT_EQ(content(buf), "3456789");
  buf->PullData(out, out + 2);
  EXPECT_EQ(std::string(out, out + 2), "34");
  EXPECT_EQ(content(buf), "56789");
  buf->PullUp(2);
  EXPECT_EQ(content(buf), "789");
  buf->PullUp(0);
  buf->PullData(out, UWORD{0});
  buf->PullData(out, out);
  EXPECT_EQ(content(buf), "789");
  EXPECT_EQ(buf->PullByte(), '7');
  buf->PullUp(2);
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(buf->data, buf->payload + buf->size);
  buf->Free();
}

// --------------------------------------------------------------------------------- copies and allocations

TEST_F(Buffer, ACopyEndsAtTheEndOfTheStorageAndLeavesHeadroom) {
  for (int len : {0, 1, 49, 50, 100, 549, 550, 1000, 1689}) {
    SCOPED_TRACE(len);
    const std::string text = pattern(len);
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), len);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(content(buf), text);
    EXPECT_EQ(buf->data + buf->length, buf->payload + buf->size);
    EXPECT_GE(buf->data - buf->payload, cfg.buf_min_space);
    EXPECT_EQ(buf->size, len + 50 < 100 ? 100 : len + 50 < 600 ? 600 : 1740);
    buf->Free();
  }
}

TEST_F(Buffer, ATextIsCopiedWithoutItsZero) {
  OSBuf* buf = OSBuf::Alloc("text");
  EXPECT_EQ(content(buf), "text");
  EXPECT_EQ(buf->size, 100);
  buf->Free();
  buf = OSBuf::Alloc("");
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(buf->size, 100);
  buf->Free();
  const std::string long_text = pattern(1200);
  buf = OSBuf::Alloc(long_text.c_str());
  EXPECT_EQ(content(buf), long_text);
  buf->Free();
}

TEST_F(Buffer, ACopyLongerThanItsStorageIsRefused) {
  // Only 15 bits of a size count, so a great length finds a small buffer.
  const std::string text = pattern(65600);
  struct Row {
    int len;
    int size;
  };
  const Row rows[] = {{32768 - 50, 100}, {32768 + 10, 100}, {33000, 600},
                      {65535, 100},      {-1, 100},         {-49, 100}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.len);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), row.len);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf->size, row.size);
    EXPECT_THAT(console.fatals(), ElementsAre(kPushTooFar));
    EXPECT_EQ(buf->payload[buf->size], 0xA5);
    EXPECT_EQ(buf->id, 0x44556677u);
    EXPECT_EQ(buf->length, 0) << "it stays empty";
    EXPECT_EQ(buf->data, buf->payload + buf->size);
    buf->Free();
    EXPECT_EQ(console.fatals().size(), 1u);
  }
  console.clear();
  OSBuf* none = OSBuf::Alloc(bytes_of(text), -50);  // asks for a buffer without storage
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->payload, nullptr);
  EXPECT_THAT(console.fatals(), ElementsAre(kPushTooFar));
  EXPECT_EQ(none->data, nullptr);
  EXPECT_EQ(none->length, 0);
  none->Free();
}

TEST_F(Buffer, ALengthBeyondSixteenBitsNeverWritesOutsideTheStorage) {
  const std::string text = pattern(140000);
  for (int len : {65536, 65536 + 10, 65536 + 60, 2 * 65536 + 3}) {
    SCOPED_TRACE(len);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), len);
    ASSERT_NE(buf, nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre(kPushTooFar));
    EXPECT_EQ(buf->payload[buf->size], 0xA5);
    EXPECT_EQ(buf->length, 0);
    EXPECT_EQ(buf->data, buf->payload + buf->size);
    buf->Free();
  }
}

TEST_F(Buffer, DuplicateCopiesDataAndTraceOnly) {
  OSBuf* buf = OSBuf::Alloc("original");
  buf->trace = 5;
  buf->local_ipaddr = 1;
  buf->destPtr = &cfg;
  buf->AddDataCallback(callback("data"));
  OSBuf* copy = buf->Duplicate();
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, buf);
  EXPECT_EQ(content(copy), "original");
  EXPECT_EQ(copy->trace, 5);
  EXPECT_EQ(copy->local_ipaddr, 0u);
  EXPECT_EQ(copy->destPtr, nullptr);
  EXPECT_TRUE(copy->data_free_callback.IsEmpty());
  EXPECT_GE(copy->data - copy->payload, 50);
  EXPECT_EQ(copy->data + copy->length, copy->payload + copy->size);
  copy->PushData(UBYTE{'x'});
  EXPECT_EQ(content(buf), "original");
  copy->Free();
  EXPECT_THAT(ran_, IsEmpty());
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("data0"));
}

TEST_F(Buffer, DuplicateFindsAClassForTheDataAndTheHeadroom) {
  struct Row {
    int length, size;
  };
  for (const Row& row : {Row{0, 100}, Row{49, 100}, Row{50, 600}, Row{549, 600}, Row{550, 1740}}) {
    OSBuf* buf = OSBuf::Alloc(1700);
    buf->PushDown(static_cast<UWORD>(row.length));
    std::memset(buf->data, 'q', static_cast<std::size_t>(row.length));
    OSBuf* copy = buf->Duplicate();
    EXPECT_EQ(copy->size, row.size);
    EXPECT_EQ(content(copy), content(buf));
    copy->Free();
    buf->Free();
  }
}

TEST_F(Buffer, CopyDataStaysInABufferThatIsLargeEnough) {
  OSBuf* buf = OSBuf::Alloc("something older");
  buf->trace = 3;
  buf->AddDataCallback(callback("data"));
  const std::string text = pattern(49);
  OSBuf* same = buf->CopyData(bytes_of(text), 49);
  EXPECT_EQ(same, buf);
  EXPECT_EQ(content(same), text);
  EXPECT_EQ(same->data + same->length, same->payload + same->size);
  EXPECT_THAT(ran_, IsEmpty());
  same->Free();
  EXPECT_THAT(ran_, ElementsAre("data0"));
}

TEST_F(Buffer, CopyDataTakesANewBufferWhenTheHeadroomWouldNotBeLeft) {
  OSBuf* buf = OSBuf::Alloc("something older");
  buf->AddBufferCallback(callback("freed"));
  const std::string text = pattern(50);  // 100 bytes hold it, but not with 50 bytes of headroom to spare
  OSBuf* other = buf->CopyData(bytes_of(text), 50);
  EXPECT_NE(other, buf);
  EXPECT_EQ(other->size, 600);
  EXPECT_EQ(content(other), text);
  EXPECT_THAT(ran_, ElementsAre("freed0"));
  EXPECT_EQ(buf->length, 0xAAAA);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
  other->Free();
}

TEST_F(Buffer, CopyDataMayCopyABuffersOwnBytes) {
  OSBuf* buf = OSBuf::Alloc("0123456789");
  OSBuf* same = buf->CopyData(buf->data + 2, 7);
  EXPECT_EQ(same, buf);
  EXPECT_EQ(content(same), "2345678");
  same->Free();

  buf = OSBuf::Alloc(90);
  const std::string text = pattern(90);
  buf->PushData(bytes_of(text), UWORD{90});
  OSBuf* other = buf->CopyData(buf->data + 1, 80);
  EXPECT_EQ(other->size, 600);
  EXPECT_EQ(content(other), text.substr(1, 80));
  EXPECT_EQ(OSBuf::allocated_list->Size(), 1);
  other->Free();
}

/// The callbacks of the buffer that is replaced may release what it refers to: bytes of its own are copied before it
/// is freed. Other bytes are copied afterwards, so that the buffer itself may come to be used again.
TEST_F(Buffer, CopyDataCopiesABuffersOwnBytesBeforeItIsFreed) {
  static int allocated_then;
  struct Row {
    const char* name;
    int from;  // from payload on; -1 for bytes that lie elsewhere
    int allocated;
  };
  const Row rows[] = {{"elsewhere", -1, 1}, {"the first", 0, 2}, {"the last", 99, 2}, {"the next", 100, 1}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    OSBuf* buf = OSBuf::Alloc(90);
    std::memset(buf->payload, 'o', 100);
    buf->AddBufferCallback(OSCallback::Alloc(
        nullptr,
        [](OSObj*, ADDR payload, ULONG) {
          allocated_then = OSBuf::allocated_list->Size();
          std::memset(payload, 'X', 100);
        },
        nullptr, buf->payload, 0));
    const std::string text = pattern(60);
    OSBuf* other = buf->CopyData(row.from < 0 ? bytes_of(text) : buf->payload + row.from, 60);
    ASSERT_NE(other, nullptr);
    EXPECT_NE(other, buf);
    EXPECT_EQ(other->length, 60);
    EXPECT_EQ(allocated_then, row.allocated);
    if (row.from == 0) {
      EXPECT_EQ(content(other), std::string(60, 'o'));
    }
    if (row.from == 99) {
      EXPECT_EQ(content(other), "o" + std::string(59, '\xA5'));
    }
    if (row.from < 0) {
      EXPECT_EQ(content(other), text);
    }
    other->Free();
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Buffer, CopyDataWithoutABufferLeftReturnsNone) {
  Stop();
  cfg.buf_qty[2] = cfg.buf_qty[3] = 0;
  StartQuiet();
  const std::string text = pattern(90);
  for (const bool own : {false, true}) {
    SCOPED_TRACE(own);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(99);
    buf->PushDown(99);
    EXPECT_EQ(buf->CopyData(own ? buf->data : bytes_of(text), 90), nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre("OSBuffer::Alloc Out Of Buffers 140"));
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "the old one is freed all the same";
  }
}

TEST_F(Buffer, CopyDataTooLongForAnyRequestIsRefused) {
  const std::string text = pattern(65535);
  OSBuf* buf = OSBuf::Alloc(10);
  OSBuf* other = buf->CopyData(bytes_of(text), 65535);  // 65585 & 0x7FFF is 49
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->size, 100);
  EXPECT_THAT(console.fatals(), ElementsAre(kPushTooFar));
  EXPECT_EQ(other->payload[100], 0xA5);
  EXPECT_EQ(other->length, 0);
  other->Free();
}

TEST_F(Buffer, TheHeadroomIsConfigurable) {
  Stop();
  cfg.buf_min_space = 0;
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc("");
  EXPECT_EQ(buf->payload, nullptr) << "nothing at all asks for class 0";
  buf->Free();
  buf = OSBuf::Alloc(static_cast<const char*>(nullptr));
  EXPECT_EQ(buf->payload, nullptr) << "no text is an empty text";
  buf->Free();
  buf = OSBuf::Alloc(bytes_of(pattern(99)), 99);
  EXPECT_EQ(buf->size, 100);
  OSBuf* same = buf->CopyData(bytes_of("xyz"), 3);
  EXPECT_EQ(same, buf);
  same->Free();
  Stop();
  cfg.buf_min_space = 200;
  StartQuiet();
  buf = OSBuf::Alloc("a");
  EXPECT_EQ(buf->size, 600);
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------- random

TEST_F(Buffer, RandomEditingMatchesAByteVector) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  using Bytes = std::vector<UBYTE>;
  const auto random_bytes = [&](int len) {
    Bytes bytes;
    for (int i = 0; i < len; ++i) bytes.push_back(static_cast<UBYTE>(pick(random, 0, 255)));
    return bytes;
  };
  const auto prepend = [](Bytes& model, const void* from, std::size_t len) {
    const UBYTE* bytes = static_cast<const UBYTE*>(from);
    model.insert(model.begin(), bytes, bytes + len);
  };
  OSBuf* buf = OSBuf::Alloc(1700);
  Bytes model;
  for (int round = 0; round < 30000; ++round) {
    const int room = static_cast<int>(buf->data - buf->payload);
    const int held = buf->length;
    switch (pick(random, 0, 15)) {
      case 0:
        if (room >= 1) {
          const UBYTE value = static_cast<UBYTE>(random());
          buf->PushData(value);
          prepend(model, &value, 1);
        }
        break;
      case 1:
        if (room >= 2) {
          const UWORD value = static_cast<UWORD>(random());
          buf->PushData(value);
          prepend(model, &value, 2);
        }
        break;
      case 2:
        if (room >= 4) {
          const ULONG value = static_cast<ULONG>(random());
          if (pick(random, 0, 1) == 0) {
            buf->PushData(value);
          } else {
            buf->PushData(static_cast<int>(value));
          }
          prepend(model, &value, 4);
        }
        break;
      case 3: {
        const Bytes bytes = random_bytes(pick(random, 0, std::min(room, 200)));
        if (pick(random, 0, 1) == 0) {
          buf->PushData(bytes.data(), static_cast<UWORD>(bytes.size()));
        } else {
          buf->PushData(bytes.data(), bytes.data() + bytes.size());
        }
        prepend(model, bytes.data(), bytes.size());
        break;
      }
      case 4: {
        const Bytes bytes = random_bytes(pick(random, 0, std::min(room, 100)));
        buf->PushDown(static_cast<UWORD>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), buf->data);
        prepend(model, bytes.data(), bytes.size());
        break;
      }
      case 5: {
        const Bytes bytes = random_bytes(pick(random, 0, std::min(room, 100)));
        UBYTE* at = buf->Put(static_cast<UWORD>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), at);
        model.insert(model.end(), bytes.begin(), bytes.end());
        break;
      }
      case 6:
        if (held >= 1) {
          ASSERT_EQ(buf->PullByte(), model.front());
          model.erase(model.begin());
        }
        break;
      case 7:
        if (held >= 2) {
          UWORD value;
          std::memcpy(&value, model.data(), 2);
          ASSERT_EQ(buf->PullWord(), value);
          model.erase(model.begin(), model.begin() + 2);
        }
        break;
      case 8:
        if (held >= 4) {
          ULONG value;
          std::memcpy(&value, model.data(), 4);
          if (pick(random, 0, 1) == 0) {
            ASSERT_EQ(buf->PullLong(), value);
          } else {
            ASSERT_EQ(buf->PullInt(), static_cast<int>(value));
          }
          model.erase(model.begin(), model.begin() + 4);
        }
        break;
      case 9:
      case 10: {
        const int len = pick(random, 0, std::min(held, 150));
        Bytes out(static_cast<std::size_t>(len));
        if (pick(random, 0, 1) == 0) {
          buf->PullData(out.data(), static_cast<UWORD>(len));
        } else {
          buf->PullData(out.data(), out.data() + len);
        }
        ASSERT_TRUE(std::equal(out.begin(), out.end(), model.begin()));
        model.erase(model.begin(), model.begin() + len);
        break;
      }
      case 11: {
        const int len = pick(random, 0, std::min(held, 150));
        buf->PullUp(static_cast<UWORD>(len));
        model.erase(model.begin(), model.begin() + len);
        break;
      }
      case 12: {
        if (held > 1600) break;
        OSBuf* copy = buf->Duplicate();
        if (pick(random, 0, 1) == 0) std::swap(copy, buf);
        copy->Free();
        break;
      }
      case 13: {
        const Bytes bytes = random_bytes(pick(random, 0, 400));
        buf = buf->CopyData(bytes.data(), static_cast<UWORD>(bytes.size()));
        model = bytes;
        break;
      }
      default: {  // another buffer's bytes come behind ours
        const Bytes bytes = random_bytes(pick(random, 0, 700));
        OSBuf* other = OSBuf::Alloc(bytes.data(), static_cast<int>(bytes.size()));
        const int max = pick(random, 0, 1) == 0 ? 0 : pick(random, 1, 1700);
        int space = buf->size - held - 50;
        if (max != 0 && space + held > max) space = max - held;
        int moved = std::min(space, static_cast<int>(bytes.size()));
        if (buf->size - held - 50 <= 0 || moved < 0) moved = 0;
        OSBuf* rest = buf->Compact(other, static_cast<UWORD>(max));
        model.insert(model.end(), bytes.begin(), bytes.begin() + moved);
        if (moved == static_cast<int>(bytes.size()) && moved > 0) {
          ASSERT_EQ(rest, nullptr);
        } else {
          ASSERT_EQ(rest, other);
          ASSERT_TRUE(
              std::equal(bytes.begin() + moved, bytes.end(), other->data, other->data + other->length));
          other->Free();
        }
        break;
      }
    }
    ASSERT_EQ(buf->length, model.size());
    ASSERT_TRUE(std::equal(model.begin(), model.end(), buf->data));
    ASSERT_GE(buf->data, buf->payload);
    ASSERT_LE(buf->data + buf->length, buf->payload + buf->size);
    ASSERT_EQ(buf->payload[buf->size], 0xA5);
    ASSERT_EQ(OSBuf::allocated_list->Size(), 1);
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
  buf->Free();
}

}  // namespace
}  // namespace oskernel_test
