// Moving the bytes of one message buffer behind those of another.

#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST_F(Compacting, NothingAndItselfAreNotMoved) {
  OSBuf* buf = holding(1700, 100);
  EXPECT_EQ(buf->Compact(nullptr, 0), nullptr);
  EXPECT_EQ(buf->Compact(buf, 0), buf);
  EXPECT_EQ(buf->Compact(buf, 1400), buf);
  EXPECT_EQ(content(buf), pattern(100));
  buf->Free();
}

TEST_F(Compacting, LentStorageIsFilledLikeAnyOther) {
  OSBuf* buf = framed(180);
  buf->PushData(bytes_of(pattern(20)), UWORD{20});
  OSBuf* other = holding(700, 200, 20);
  EXPECT_EQ(buf->Compact(other, 0), other);
  EXPECT_EQ(content(buf), pattern(130));
  EXPECT_EQ(buf->data, frame_ + kMargin + 50);
  ExpectFrameUntouched(180);
  buf->Free();

  buf = holding(1700, 10);
  other->Free();
  other = framed(180);
  other->PushData(bytes_of(pattern(100, 10)), UWORD{100});
  EXPECT_EQ(buf->Compact(other, 0), nullptr);
  EXPECT_EQ(content(buf), pattern(110));
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

/// Pulls and small pushes do not check, so the data of a buffer may reach outside its storage. Moving it would read
/// or write there.
TEST_F(Compacting, DataOutsideItsStorageIsNotMoved) {
  struct Row {
    const char* name;
    bool lent;
    void (*damage)(OSBuf* buf);
  };
  const Row rows[] = {
      {"below its own", false, [](OSBuf* b) { b->data = b->payload - 1; }},
      {"behind its own", false, [](OSBuf* b) { b->data = b->payload + b->size + 1; }},
      {"far behind its own", false, [](OSBuf* b) { b->PullUp(65535); }},
      {"reaching over its own", false, [](OSBuf* b) { b->data = b->payload + b->size - b->length + 1; }},
      {"below lent", true, [](OSBuf* b) { b->data = b->payload - 1; }},
  };
  for (const Row& row : rows) {
    for (const bool target : {false, true}) {
      SCOPED_TRACE(row.name + std::string(target ? ", to" : ", from"));
      OSBuf* damaged = row.lent ? framed(180) : OSBuf::Alloc(1700);
      damaged->PushData(bytes_of(pattern(30)), UWORD{30});
      row.damage(damaged);
      UBYTE* data = damaged->data;
      const UWORD length = damaged->length;
      OSBuf* sound = holding(1700, 40);
      OSBuf* const other = target ? sound : damaged;
      EXPECT_EQ((target ? damaged : sound)->Compact(other, 0), other);
      EXPECT_EQ(damaged->data, data);
      EXPECT_EQ(damaged->length, length);
      EXPECT_EQ(content(sound), pattern(40));
      EXPECT_EQ(sound->data + 40, sound->payload + sound->size);
      if (row.lent) ExpectFrameUntouched(180);
      reset_and_free(damaged);
      sound->Free();
    }
  }
  // Without storage a refused push leaves a length and no data.
  OSBuf* none = OSBuf::Alloc(0);
  none->PushData(ULONG{1});
  OSBuf* buf = holding(1700, 40);
  EXPECT_EQ(buf->Compact(none, 0), none);
  EXPECT_EQ(none->length, 4);
  EXPECT_EQ(content(buf), pattern(40));
  none->Free();
  buf->Free();
  EXPECT_THAT(console.fatals(), IsEmpty());
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

}  // namespace
}  // namespace oskernel_test
