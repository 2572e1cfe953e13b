// What a message buffer does with its bytes: pushing in front, appending, pulling, copying, compacting, the
// callbacks that run when it is freed, and how it is printed.

#include <arpa/inet.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/io.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

std::string content(const OSBuf* buf) {
  return std::string(reinterpret_cast<const char*>(buf->data), buf->length);
}

const UBYTE* bytes_of(const std::string& text) { return reinterpret_cast<const UBYTE*>(text.data()); }

std::string pattern(int len, int first = 0) {
  std::string text;
  for (int i = 0; i < len; ++i) text += static_cast<char>('a' + (first + i) % 26);
  return text;
}

/// Writes down which callbacks ran, through OSObj* and ADDR as a program would.
std::vector<std::string>* ran = nullptr;
void note(OSObj*, ADDR name, ULONG value) {
  ran->push_back(std::string(static_cast<const char*>(name)) + std::to_string(value));
}

class Buffer : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ran = &ran_;
    callbacks_ = OSCallback::callback_pool_size;
  }
  void TearDown() override {
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "every buffer goes home";
    EXPECT_EQ(OSCallback::callback_pool_size, callbacks_) << "every callback goes home";
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i]));
    ran = nullptr;
    KernelTest::TearDown();
  }
  OSCallback* callback(const char* name, ULONG value = 0, OSCallbackRecord* record = nullptr) {
    return OSCallback::Alloc(record, note, nullptr, const_cast<char*>(name), value);
  }
  /// A buffer whose storage lies in the middle of an array, so that a stray byte is seen.
  OSBuf* framed(UWORD storage) {
    std::memset(frame_, 0xEE, sizeof frame_);
    OSBuf* buf = OSBuf::Alloc(0);
    buf->SetPayload(frame_ + kMargin, storage);
    return buf;
  }
  void ExpectFrameUntouched(UWORD storage) {
    for (std::size_t i = 0; i < sizeof frame_; ++i) {
      if (i >= kMargin && i < kMargin + storage) continue;
      ASSERT_EQ(frame_[i], 0xEE) << "byte " << static_cast<long>(i) - static_cast<long>(kMargin);
    }
  }
  /// Frees a buffer after a refused operation, whatever the refusal did to data and length.
  static void reset_and_free(OSBuf* buf) {
    buf->data = buf->payload + buf->size;
    buf->length = 0;
    buf->Free();
  }

  static constexpr std::size_t kMargin = 70000;
  std::vector<std::string> ran_;
  UBYTE frame_[kMargin + 200];

 private:
  ULONG callbacks_ = 0;
};

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

TEST_F(Buffer, APushThatDoesNotFitIsReportedBeforeAByteIsWritten) {
  struct Row {
    const char* name;
    const char* message;
    void (*push)(OSBuf* buf, const std::string& text);
  };
  const Row rows[] = {
      {"PushDown", "OSBuf::Pushdown Too far",
       [](OSBuf* b, const std::string& t) { b->PushDown(static_cast<UWORD>(t.size())); }},
      {"PushData bytes", "OSBuf::PushData Too far",
       [](OSBuf* b, const std::string& t) { b->PushData(bytes_of(t), static_cast<UWORD>(t.size())); }},
      {"PushData range", "OSBuf::PushData Too far",
       [](OSBuf* b, const std::string& t) { b->PushData(bytes_of(t), bytes_of(t) + t.size()); }},
      {"PushData text", "OSBuf::PushData Too far",
       [](OSBuf* b, const std::string& t) { b->PushData(t.c_str()); }},
      {"Put", "OSBuf::Put Too far",
       [](OSBuf* b, const std::string& t) { b->Put(static_cast<UWORD>(t.size())); }},
  };
  for (const Row& row : rows) {
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
      reset_and_free(buf);
      EXPECT_EQ(console.fatals().size(), 1u);
    }
  }
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
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::PushData Too far"));
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
      if (OSBuf::allocated_list->PosInList(buf) >= 0) reset_and_free(buf);
      EXPECT_EQ(console.fatals().size(), 1u);
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
    EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::PushData Too far"));
    EXPECT_EQ(buf->payload[buf->size], 0xA5);
    EXPECT_EQ(buf->id, 0x44556677u);
    reset_and_free(buf);
    EXPECT_EQ(console.fatals().size(), 1u);
  }
  console.clear();
  OSBuf* none = OSBuf::Alloc(bytes_of(text), -50);  // asks for a buffer without storage
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->payload, nullptr);
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::PushData Too far"));
  none->data = nullptr;
  none->length = 0;
  none->Free();
}

TEST_F(Buffer, ALengthBeyondSixteenBitsNeverWritesOutsideTheStorage) {
  const std::string text = pattern(140000);
  for (int len : {65536, 65536 + 10, 65536 + 60, 2 * 65536 + 3}) {
    SCOPED_TRACE(len);
    console.clear();
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), len);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf->payload[buf->size], 0xA5);
    EXPECT_EQ(buf->id, 0x44556677u);
    EXPECT_LE(buf->data + buf->length, buf->payload + buf->size);
    reset_and_free(buf);
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

TEST_F(Buffer, CopyDataTooLongForAnyRequestIsRefused) {
  const std::string text = pattern(65535);
  OSBuf* buf = OSBuf::Alloc(10);
  OSBuf* other = buf->CopyData(bytes_of(text), 65535);  // 65585 & 0x7FFF is 49
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->size, 100);
  EXPECT_THAT(console.fatals(), ElementsAre("OSBuf::PushData Too far"));
  EXPECT_EQ(other->payload[100], 0xA5);
  reset_and_free(other);
}

TEST_F(Buffer, TheHeadroomIsConfigurable) {
  Stop();
  cfg.buf_min_space = 0;
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc("");
  EXPECT_EQ(buf->payload, nullptr) << "nothing at all asks for class 0";
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

// ---------------------------------------------------------------------------------------------- compacting

class Compacting : public Buffer {
 protected:
  /// A buffer of the class that serves `request`, with `len` bytes `gap` bytes before the end of its storage.
  static OSBuf* holding(int request, int len, int first = 0, int gap = 0) {
    OSBuf* buf = OSBuf::Alloc(request);
    const std::string text = pattern(len, first);
    buf->data -= gap;
    buf->PushData(bytes_of(text), static_cast<UWORD>(len));
    return buf;
  }
};

TEST_F(Compacting, MovesAsManyBytesAsFit) {
  struct Row {
    const char* name;
    int length, other, max;
    int moved;
    bool gone;
  };
  const Row rows[] = {
      {"all", 100, 50, 0, 50, true},
      {"as many as there is room for", 1000, 800, 0, 690, false},
      {"exactly all the room", 1000, 690, 0, 690, true},
      {"one more than the room", 1000, 691, 0, 690, false},
      {"up to max", 1000, 800, 1400, 400, false},
      {"exactly max", 1000, 400, 1400, 400, true},
      {"max beyond the room", 1000, 800, 1700, 690, false},
      {"into an empty buffer", 0, 300, 0, 300, true},
      {"into an empty buffer up to max", 0, 300, 100, 100, false},
      {"no room left", 1690, 10, 0, 0, false},
      {"less than no room", 1740, 10, 0, 0, false},
      {"one byte of room", 1689, 10, 0, 1, false},
      {"full up to max", 1400, 10, 1400, 0, false},
      {"longer than max", 1500, 10, 1400, 0, false},
      {"much longer than max", 1600, 10, 1, 0, false},
      {"nothing to move", 100, 0, 0, 0, false},
      {"nothing to move and no room", 1740, 0, 0, 0, false},
  };
  for (const Row& row : rows) {
    for (int gap : {0, 1, 40, 100}) {
      if (row.length + gap > 1740) continue;
      SCOPED_TRACE(row.name + std::string(" gap ") + std::to_string(gap));
      OSBuf* buf = holding(1700, row.length, 0, gap);
      OSBuf* other = holding(1700, row.other, row.length);
      UBYTE* data_before = buf->data;
      UBYTE* other_data = other->data;
      OSBuf* rest = buf->Compact(other, static_cast<UWORD>(row.max));
      EXPECT_EQ(rest, row.gone ? nullptr : other);
      EXPECT_EQ(content(buf), pattern(row.length + row.moved));
      EXPECT_GE(buf->data, buf->payload);
      EXPECT_LE(buf->data + buf->length, buf->payload + buf->size);
      EXPECT_EQ(buf->payload[buf->size], 0xA5);
      if (row.moved == 0) {
        EXPECT_EQ(buf->data, data_before) << "untouched";
      } else if (data_before > buf->payload + 50) {
        EXPECT_EQ(buf->data, buf->payload + 50) << "moved down to the headroom";
      } else {
        EXPECT_EQ(buf->data, data_before);
      }
      if (row.gone) {
        EXPECT_EQ(other->length, 0xAAAA);
      } else {
        EXPECT_EQ(content(other), pattern(row.other - row.moved, row.length + row.moved));
        EXPECT_EQ(other->data, other_data + row.moved);
        other->Free();
      }
      buf->Free();
      EXPECT_THAT(console.fatals(), IsEmpty());
      EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
    }
  }
}

TEST_F(Compacting, DataThatStartsInsideTheHeadroomStaysWhereItIs) {
  OSBuf* buf = OSBuf::Alloc(1700);
  buf->data = buf->payload + 20;
  buf->length = 100;
  std::memcpy(buf->data, pattern(100).data(), 100);
  OSBuf* other = holding(1700, 1600, 100);
  OSBuf* rest = buf->Compact(other, 0);
  EXPECT_EQ(rest, other);
  EXPECT_EQ(buf->data, buf->payload + 20);
  EXPECT_EQ(buf->length, 1690);
  EXPECT_EQ(content(buf), pattern(1690));
  EXPECT_EQ(buf->payload[buf->size], 0xA5);
  buf->Free();
  other->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Compacting, ABufferWithoutStorageHasNoRoom) {
  OSBuf* buf = OSBuf::Alloc(0);
  OSBuf* other = OSBuf::Alloc("text");
  EXPECT_EQ(buf->Compact(other, 0), other);
  EXPECT_EQ(buf->Compact(other, 1400), other);
  EXPECT_EQ(content(other), "text");
  buf->Free();
  other->Free();
}

TEST_F(Compacting, LargeLengthsDoNotWrap) {
  Stop();
  cfg.buf_size[3] = 65535;
  cfg.buf_qty[3] = 2;
  StartQuiet();
  OSBuf* buf = OSBuf::Alloc(30000);
  OSBuf* other = OSBuf::Alloc(30000);
  std::memset(buf->Put(65000), 'a', 65000);
  std::memset(other->Put(65000), 'b', 65000);
  EXPECT_EQ(buf->Compact(other, 1400), other);
  EXPECT_EQ(buf->length, 65000);
  EXPECT_EQ(buf->Compact(other, 0), other);
  EXPECT_EQ(buf->length, 65485);
  EXPECT_EQ(other->length, 65000 - 485);
  EXPECT_EQ(content(buf), std::string(65000, 'a') + std::string(485, 'b'));
  buf->Free();
  other->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Compacting, TheDataCallbacksOfAnEmptiedBufferGoOntoTheEndOfTheFirst) {
  OSBuf* buf = OSBuf::Alloc(700);
  OSBuf* other = OSBuf::Alloc("text");
  buf->AddDataCallback(callback("b", 2));
  buf->AddDataCallback(callback("b", 1));
  other->AddDataCallback(callback("o", 2));
  other->AddDataCallback(callback("o", 1));
  other->AddBufferCallback(callback("buffer"));
  EXPECT_EQ(buf->Compact(other, 0), nullptr);
  EXPECT_THAT(ran_, ElementsAre("buffer0")) << "the buffer is gone, its data is not";
  EXPECT_TRUE(other->data_free_callback.IsEmpty());
  EXPECT_EQ(buf->data_free_callback.ListLength(), 4);
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("buffer0", "b1", "b2", "o1", "o2"));
}

TEST_F(Compacting, TheDataCallbacksStayWhileBytesRemain) {
  OSBuf* buf = holding(99, 40);
  OSBuf* other = holding(700, 30);
  other->AddDataCallback(callback("o"));
  EXPECT_EQ(buf->Compact(other, 0), other);
  EXPECT_EQ(other->length, 20);
  EXPECT_TRUE(buf->data_free_callback.IsEmpty());
  EXPECT_EQ(other->data_free_callback.ListLength(), 1);
  buf->Free();
  EXPECT_THAT(ran_, IsEmpty());
  other->Free();
  EXPECT_THAT(ran_, ElementsAre("o0"));
}

// ----------------------------------------------------------------------------------------------- callbacks

TEST_F(Buffer, CallbacksRunDataFirstAndTheLatestFirst) {
  OSBuf* buf = OSBuf::Alloc(10);
  OSCallback* first = callback("data", 1);
  buf->AddDataCallback(first);
  EXPECT_EQ(static_cast<OSLink*>(first)->object, static_cast<void*>(first));
  buf->AddBufferCallback(callback("buffer", 1));
  buf->AddDataCallback(callback("data", 2));
  buf->AddBufferCallback(callback("buffer", 2));
  EXPECT_EQ(buf->data_free_callback.LastObject(), static_cast<void*>(first));
  EXPECT_EQ(buf->data_free_callback.ListLength(), 2);
  const ULONG pool = OSCallback::callback_pool_size;
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("data2", "data1", "buffer2", "buffer1"));
  EXPECT_EQ(OSCallback::callback_pool_size, pool + 4);
  EXPECT_TRUE(buf->data_free_callback.IsEmpty());
  EXPECT_TRUE(buf->buffer_free_callback.IsEmpty());
}

TEST_F(Buffer, ACallbackGetsItsThreeArguments) {
  static OSObj* got_object;
  static ADDR got_addr;
  static ULONG got_value;
  int place = 0;
  OSObj* object = reinterpret_cast<OSObj*>(&place);
  OSCallback* one = OSCallback::Alloc(
      nullptr,
      [](OSObj* o, ADDR a, ULONG v) {
        got_object = o;
        got_addr = a;
        got_value = v;
      },
      object, &place, 0xFFFFFFFF);
  OSBuf* buf = OSBuf::Alloc(0);
  buf->AddBufferCallback(one);
  buf->Free();
  EXPECT_EQ(got_object, object);
  EXPECT_EQ(got_addr, &place);
  EXPECT_EQ(got_value, 0xFFFFFFFFu);
}

TEST_F(Buffer, CallbacksRunOutsideTheBufferSectionAndMayUseBuffers) {
  static bool section_free;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(OSCallback::Alloc(
      nullptr,
      [](OSObj*, ADDR, ULONG) {
        section_free = OS_CRITICAL_BUFFERS.owner_count == 0;
        OSBuf::Alloc("mine")->Free();
        std::thread([] { OSBuf::Alloc("another's")->Free(); }).join();
      },
      nullptr, nullptr, 0));
  buf->Free();
  EXPECT_TRUE(section_free);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Buffer, ACallbackMayReleaseTheStorageTheBufferRefersTo) {
  OSBuf* buf = OSBuf::Alloc(0);
  auto* area = new std::vector<UBYTE>(5000);
  buf->SetPayload(area->data(), 5000);
  buf->AddBufferCallback(OSCallback::Alloc(
      nullptr, [](OSObj*, ADDR at, ULONG) { delete static_cast<std::vector<UBYTE>*>(at); }, nullptr, area,
      0));
  buf->PushData("received");
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_EQ(buf->payload, nullptr);
}

TEST_F(Buffer, ACallbackMayFreeAnotherBuffer) {
  OSBuf* other = OSBuf::Alloc("other");
  OSBuf* buf = OSBuf::Alloc("buf");
  buf->AddDataCallback(OSCallback::Alloc(
      nullptr, [](OSObj*, ADDR at, ULONG) { static_cast<OSBuf*>(at)->Free(); }, nullptr, other, 0));
  other->AddDataCallback(callback("other"));
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("other0"));
}

TEST_F(Buffer, ACallbackMayCancelTheCallbacksThatFollow) {
  OSCallbackRecord record;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddBufferCallback(callback("cancelled", 3, &record));
  buf->AddDataCallback(callback("cancelled", 2, &record));
  buf->AddDataCallback(callback("kept", 1));
  buf->AddDataCallback(callback("cancelled", 1, &record));
  buf->AddDataCallback(OSCallback::Alloc(
      nullptr, [](OSObj*, ADDR at, ULONG) { static_cast<OSCallbackRecord*>(at)->CancelCallbacks(); }, nullptr,
      &record, 0));
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("kept1"));
  EXPECT_EQ(record.Size(), 0);
}

TEST_F(Buffer, ACallbackMayCancelItself) {
  const ULONG before = OSCallback::callback_pool_size;
  {
    OSCallbackRecord record;
    OSBuf* buf = OSBuf::Alloc(10);
    buf->AddDataCallback(callback("after"));
    buf->AddDataCallback(OSCallback::Alloc(
        &record, [](OSObj*, ADDR at, ULONG) { static_cast<OSCallbackRecord*>(at)->CancelCallbacks(); },
        nullptr, &record, 0));
    buf->Free();
    EXPECT_THAT(ran_, ElementsAre("after0"));
    EXPECT_EQ(record.Size(), 0);
  }
  EXPECT_EQ(OSCallback::callback_pool_size, before);
  EXPECT_EQ(ring_length(OSCallback::callback_pool), static_cast<int>(before))
      << "each stands in the pool once";
}

TEST_F(Buffer, AddDataCallbackOfABufferMovesItsCallbacksToTheEnd) {
  OSBuf* buf = OSBuf::Alloc(10);
  OSBuf* other = OSBuf::Alloc(10);
  buf->AddDataCallback(callback("b", 1));
  other->AddDataCallback(callback("o", 2));
  other->AddDataCallback(callback("o", 1));
  other->AddBufferCallback(callback("buffer"));
  buf->AddDataCallback(other);
  EXPECT_TRUE(other->data_free_callback.IsEmpty());
  EXPECT_EQ(other->data_free_callback.object, nullptr);
  EXPECT_EQ(buf->data_free_callback.ListLength(), 3);
  other->Free();
  EXPECT_THAT(ran_, ElementsAre("buffer0"));
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("buffer0", "b1", "o1", "o2"));
}

TEST_F(Buffer, AddDataCallbackOfABufferWithoutCallbacksChangesNothing) {
  OSBuf* buf = OSBuf::Alloc(10);
  OSBuf* other = OSBuf::Alloc(10);
  buf->AddDataCallback(callback("b"));
  buf->AddDataCallback(other);
  EXPECT_EQ(buf->data_free_callback.ListLength(), 1);
  other->AddDataCallback(buf);
  EXPECT_TRUE(buf->data_free_callback.IsEmpty());
  buf->Free();
  EXPECT_THAT(ran_, IsEmpty());
  other->Free();
  EXPECT_THAT(ran_, ElementsAre("b0"));
}

TEST_F(Buffer, FreeingTwiceRunsNoCallbackAgain) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(callback("once"));
  buf->Free();
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("once0"));
  EXPECT_EQ(console.fatals().size(), 1u);
}

// ------------------------------------------------------------------------------------------------ printing

/// The line that Print begins with, as if the buffer had just been allocated.
std::string formatted_line(const OSBuf* buf) {
  char text[200];
  snprintf(text, sizeof text, "Buf: buf %p, data=%p, size %d, len %d, age %us, ptr %p",
           static_cast<const void*>(buf), static_cast<void*>(buf->data), buf->size, buf->length, 0u,
           buf->destPtr);
  return text;
}

/// What was printed, call by call. On a loaded machine a buffer grows a second old in a test: every age becomes 0.
class BufferPrint : public Buffer {
 protected:
  std::vector<std::string> printed() const {
    std::vector<std::string> calls = console.calls();
    for (std::string& call : calls) call = std::regex_replace(call, std::regex(", age \\d+s"), ", age 0s");
    return calls;
  }
};

TEST_F(BufferPrint, PrintsOneLineForAnEmptyBuffer) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf)));
  console.clear();
  OSBuf* none = OSBuf::Alloc(0);
  none->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(none)));
  buf->Free();
  none->Free();
}

TEST_F(BufferPrint, PrintsAHexDumpOfSixteenBytesALine) {
  OSBuf* buf = OSBuf::Alloc("ABCDEFGHIJKLMNOPqrs");
  buf->Print();
  EXPECT_THAT(printed(),
              ElementsAre(formatted_line(buf),
                          "0000  41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGHIJKLMNOP",
                          "0010  71 72 73                                         qrs"));
  buf->Free();
}

/// The dump as it is described: offset, bytes, blanks for missing ones, two blanks, characters.
std::vector<std::string> dump_lines(const std::string& data) {
  std::vector<std::string> lines;
  const std::size_t shown = std::min<std::size_t>(data.size(), 64);
  for (std::size_t line = 0; line < shown; line += 16) {
    char part[16];
    snprintf(part, sizeof part, "%04x ", static_cast<unsigned>(line));
    std::string text = part, characters;
    for (std::size_t i = line; i < line + 16; ++i) {
      if (i < shown) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        snprintf(part, sizeof part, " %02x", c);
        text += part;
        characters += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
      } else {
        text += "   ";
      }
    }
    lines.push_back(text + "  " + characters);
  }
  return lines;
}

TEST_F(BufferPrint, DumpsTheFirst64BytesOfAnyLength) {
  for (int len : {0, 1, 2, 15, 16, 17, 31, 32, 33, 47, 48, 49, 63, 64, 65, 200, 1000}) {
    SCOPED_TRACE(len);
    console.clear();
    std::string text;
    for (int i = 0; i < len; ++i) text += static_cast<char>(i * 7 + len);
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), len);
    buf->Print();
    std::vector<std::string> expected = {formatted_line(buf)};
    for (const std::string& line : dump_lines(text)) expected.push_back(line);
    EXPECT_THAT(printed(), ElementsAreArray(expected));
    buf->Free();
  }
}

TEST_F(BufferPrint, DumpsEveryByteValueAsItselfOrAsADot) {
  for (int start = 0; start < 256; start += 64) {
    console.clear();
    std::string text;
    for (int i = 0; i < 64; ++i) text += static_cast<char>(start + i);
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), 64);
    buf->Print();
    std::vector<std::string> expected = {formatted_line(buf)};
    for (const std::string& line : dump_lines(text)) expected.push_back(line);
    EXPECT_THAT(printed(), ElementsAreArray(expected));
    buf->Free();
  }
}

TEST_F(BufferPrint, PercentSignsInTheDataAreData) {
  OSBuf* buf = OSBuf::Alloc("%s%n%d%%");
  buf->Print();
  EXPECT_EQ(console.calls().back(), "0000  25 73 25 6e 25 64 25 25                          %s%n%d%%");
  buf->Free();
}

TEST_F(BufferPrint, PrintsTheClassItsDestinationNames) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->destPtr = &OSNullIO;
  Dl_info info;
  ASSERT_NE(dladdr(buf->destPtr, &info), 0);
  ASSERT_NE(info.dli_sname, nullptr);
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf) + " (" + info.dli_sname + ") "));

  console.clear();
  buf->local_ipaddr = inet_addr("192.168.1.2");
  buf->local_port = htons(5060);
  buf->remote_ipaddr = inet_addr("10.0.0.255");
  buf->remote_port = htons(65535);
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf) + " (" + info.dli_sname +
                                     ") [192.168.1.2:5060,10.0.0.255:65535]"));
  buf->Free();
}

TEST_F(BufferPrint, OneAddressIsEnoughForBothToBeShown) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->destPtr = &OSNullIO;
  buf->local_ipaddr = inet_addr("127.0.0.1");
  buf->Print();
  EXPECT_NE(console.text().find(") [127.0.0.1:0,0.0.0.0:0]"), std::string::npos) << console.text();
  console.clear();
  buf->local_ipaddr = 0;
  buf->remote_ipaddr = inet_addr("1.2.3.4");
  buf->remote_port = htons(1);
  buf->Print();
  EXPECT_NE(console.text().find(") [0.0.0.0:0,1.2.3.4:1]"), std::string::npos) << console.text();
  console.clear();
  buf->remote_ipaddr = 0;  // ports alone are no address
  buf->Print();
  EXPECT_EQ(console.text().find('['), std::string::npos);
  buf->Free();
}

TEST_F(BufferPrint, WithoutANameTheShortLineIsPrintedAndShowsNoAddress) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->local_ipaddr = inet_addr("192.168.1.2");
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf))) << "no destination";

  const auto on_the_heap = std::make_unique<int>(0);
  static int in_the_program = 0;
  for (void* destination : {static_cast<void*>(on_the_heap.get()), static_cast<void*>(&in_the_program)}) {
    Dl_info info{};
    const bool named = dladdr(destination, &info) != 0 && info.dli_sname != nullptr;
    if (named) continue;
    console.clear();
    buf->destPtr = destination;
    buf->Print();
    EXPECT_THAT(printed(), ElementsAre(formatted_line(buf)));
  }
  buf->Free();
}

TEST_F(BufferPrint, PrintingWithoutAConsoleIsHarmless) {
  OSBuf* buf = OSBuf::Alloc("text");
  Console = nullptr;
  buf->Print();
  dump_allocated();
  Console = &console;
  buf->Free();
}

TEST_F(BufferPrint, DumpAllocatedPrintsEveryBufferAndThenTheCounts) {
  OSBuf* a = OSBuf::Alloc("first");
  OSBuf* b = OSBuf::Alloc(0);
  OSBuf* c = OSBuf::Alloc(700);
  OSCallback* out = callback("x");
  dump_allocated();
  char summary[100];
  snprintf(summary, sizeof summary, "OSBuffer: L=%04d CB=%04d B=%02d,%02d,%02d,%02d",
           ring_length(*OSLink::link_pool), ring_length(OSCallback::callback_pool), 99, 24, 25, 54);
  EXPECT_EQ(ring_length(OSCallback::callback_pool), 399);
  EXPECT_THAT(printed(), ElementsAre(formatted_line(a), dump_lines("first").front(), formatted_line(b),
                                     formatted_line(c), summary));
  out->Free();
  a->Free();
  b->Free();
  c->Free();
}

TEST_F(BufferPrint, DumpAllocatedWithNothingAllocatedPrintsTheCountsAlone) {
  Stop();
  for (int i = 0; i < 4; ++i) cfg.buf_qty[i] = i;
  cfg.callback_qty = 7;
  cfg.link_qty = 5;
  StartQuiet();
  dump_allocated();
  EXPECT_THAT(printed(), ElementsAre("OSBuffer: L=0005 CB=0007 B=00,01,02,03"));
  Stop();
  cfg = KernelCfg();
  StartQuiet();
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
