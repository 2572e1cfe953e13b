// Byte streams over queues of buffers: the bytes come out as they went in, whatever the buffers look like, and
// the release callbacks of merged buffers run slot by slot.

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kSlots = 32;

/// Makes the accounting reachable.
class Stream : public OSStream {
 public:
  explicit Stream(int compress, char delete_contents = 0) : OSStream(compress, delete_contents) {}
  using OSStream::DiscardLen;
};

class Probe : public OSTrigger {
 public:
  Probe() : OSTrigger(OS_TA_NONE) {}
  void Check() override { ++checks; }
  int taken_checks() { return std::exchange(checks, 0); }
  int checks = 0;
};

const UBYTE* bytes_of(const std::string& text) { return reinterpret_cast<const UBYTE*>(text.data()); }

std::string pattern(std::size_t len, std::size_t first = 0) {
  std::string text;
  for (std::size_t i = 0; i < len; ++i) text += static_cast<char>('a' + (first + i) % 26);
  return text;
}

std::vector<ULONG>* ran = nullptr;

class StreamTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ran = &ran_;
    callbacks_ = OSCallback::callback_pool_size;
    links_ = OSLink::link_pool_size;
  }
  void TearDown() override {
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "every buffer goes home";
    EXPECT_EQ(OSCallback::callback_pool_size, callbacks_) << "every callback goes home";
    EXPECT_EQ(OSLink::link_pool_size, links_);
    ran = nullptr;
    KernelTest::TearDown();
  }

  static OSCallback* callback(ULONG number) {
    return OSCallback::Alloc(
        nullptr, [](OSObj*, ADDR, ULONG value) { ran->push_back(value); }, nullptr, nullptr, number);
  }
  /// A buffer with `text` whose data release is reported as `number`.
  static OSBuf* guarded(const std::string& text, ULONG number) {
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), static_cast<int>(text.size()));
    buf->AddDataCallback(callback(number));
    return buf;
  }
  static std::vector<int> lengths(const OSStream& stream) {
    std::vector<int> found;
    for (OSLink* node : ring_nodes(stream)) found.push_back(as<OSBuf>(node->object)->length);
    return found;
  }
  /// All bytes, taken from the buffers themselves.
  static std::string held(const OSStream& stream) {
    std::string text;
    for (OSLink* node : ring_nodes(stream)) {
      OSBuf* buf = as<OSBuf>(node->object);
      text.append(reinterpret_cast<char*>(buf->data), buf->length);
    }
    return text;
  }
  std::vector<ULONG> taken_runs() { return std::exchange(ran_, {}); }

  std::vector<ULONG> ran_;

 private:
  ULONG callbacks_ = 0, links_ = 0;
};

// ------------------------------------------------------------------------------------------- construction

TEST_F(StreamTest, StartsEmptyWithItsDefaults) {
  for (int compress : {0, 1}) {
    Stream stream(compress, 0);
    EXPECT_EQ(stream.total_length, 0u);
    EXPECT_EQ(stream.Length(), 0u);
    EXPECT_EQ(stream.max_buffer_size, 10000);
    EXPECT_EQ(stream.max_total_length, 0u);
    EXPECT_EQ(stream.max_num_buffers, 1000000u);
    EXPECT_EQ(stream.compressible, compress);
    EXPECT_EQ(stream.comp_w, 0);
    EXPECT_EQ(stream.comp_r, 0);
    EXPECT_EQ(stream.Size(), 0);
    EXPECT_EQ(stream.delete_contents_on_destroy, 0);
    for (OSLink& ring : stream.comp_callbacks) EXPECT_TRUE(ring.IsEmpty());
  }
  OSStream owner(1, 1);
  EXPECT_EQ(owner.delete_contents_on_destroy, 1);
}

TEST_F(StreamTest, FieldsStandInTheirOrder) {
  OSStream stream(0, 0);
  const std::vector<const void*> fields = {
      &stream.triggers,        &stream.total_length, &stream.max_buffer_size, &stream.max_total_length,
      &stream.max_num_buffers, &stream.compressible, &stream.comp_callbacks,  &stream.comp_lengths,
      &stream.comp_w,          &stream.comp_r};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
  static_assert(std::extent_v<decltype(stream.comp_callbacks)> == kSlots);
  static_assert(sizeof(stream.comp_lengths) == kSlots * 2 && sizeof(stream.total_length) == 4);
}

TEST_F(StreamTest, SettersStoreTheirValues) {
  OSStream stream(0, 0);
  stream.SetMaxLength(123, 45);
  stream.SetMaxFragment(678);
  stream.SetCompressible(TRUE);
  EXPECT_EQ(stream.max_total_length, 123u);
  EXPECT_EQ(stream.max_num_buffers, 45u);
  EXPECT_EQ(stream.max_buffer_size, 678);
  EXPECT_EQ(stream.compressible, TRUE);
  stream.SetCompressible(FALSE);
  EXPECT_EQ(stream.compressible, FALSE);
}

TEST_F(StreamTest, IsFullUntilALimitIsSet) {
  OSStream stream(0, 0);
  EXPECT_EQ(stream.IsFull(), TRUE);
  stream.SetMaxLength(10, 3);
  EXPECT_EQ(stream.IsFull(), FALSE);
  stream.Add("123456789");
  EXPECT_EQ(stream.IsFull(), FALSE);
  stream.Add("0");
  EXPECT_EQ(stream.IsFull(), TRUE) << "at the byte limit";
  stream.Discard(9);
  EXPECT_EQ(stream.IsFull(), FALSE);
  stream.Add("a");
  stream.Add("b");
  EXPECT_EQ(stream.Size(), 3);
  EXPECT_EQ(stream.IsFull(), TRUE) << "at the buffer limit";
  stream.SetMaxLength(10, 4);
  EXPECT_EQ(stream.IsFull(), FALSE);
}

// ------------------------------------------------------------------------------------------- plain streams

TEST_F(StreamTest, BytesComeOutInTheOrderTheyWentIn) {
  OSStream stream(0, 0);
  stream.Add("text");
  const UBYTE raw[] = {0, 255, 'x'};
  stream.Add(raw, UWORD{3});
  OSBuf* buf = OSBuf::Alloc("buffer");
  stream.Add(buf);
  EXPECT_EQ(stream.Length(), 13u);
  EXPECT_EQ(stream.Size(), 3);
  EXPECT_EQ(held(stream), std::string("text\0\xFFx", 7) + "buffer");
  EXPECT_EQ(stream.LastObject(), static_cast<OSListObj*>(buf)) << "the buffer itself is in the stream";
}

TEST_F(StreamTest, ReadPeeksAcrossBuffersWithoutConsuming) {
  OSStream stream(0, 0);
  stream.Add("0123");
  stream.Add("4567");
  stream.Add("89ab");
  struct Row {
    ULONG offset, len;
    const char* result;
  };
  const Row rows[] = {
      {5, 10, "56789ab"},
      {0, 12, "0123456789ab"},
      {0, 4, "0123"},
      {0, 5, "01234"},
      {3, 1, "3"},
      {3, 2, "34"},
      {4, 4, "4567"},
      {4, 5, "45678"},
      {0, 0, ""},
      {11, 1, "b"},
      {11, 100, "b"},
      {12, 1, ""},
      {13, 5, ""},
      {0, 0xFFFFFFFF, "0123456789ab"},
      {1, 0xFFFFFFFF, "123456789ab"},
      {5, 0xFFFFFFFE, "56789ab"},
      {11, 0xFFFFFFFB, "b"},
      {0xFFFFFFFF, 1, ""},
      {0xFFFFFFFF, 0xFFFFFFFF, ""},
      {0xFFFFFFF4, 0x20, ""},
      {0x80000000, 0x80000000, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.offset) + "," + std::to_string(row.len));
    UBYTE dest[16];
    std::memset(dest, '#', sizeof dest);
    const std::string expected = row.result;
    EXPECT_EQ(stream.Read(row.offset, row.len, dest), expected.size());
    EXPECT_EQ(std::string(dest, dest + expected.size()), expected);
    for (std::size_t i = expected.size(); i < sizeof dest; ++i) EXPECT_EQ(dest[i], '#');
    EXPECT_EQ(stream.Length(), 12u);
    EXPECT_EQ(stream.Size(), 3);
  }
}

TEST_F(StreamTest, ReadOfAnEmptyStreamCopiesNothing) {
  OSStream stream(0, 0);
  UBYTE dest = 7;
  EXPECT_EQ(stream.Read(0, 1, &dest), 0u);
  EXPECT_EQ(stream.Read(0, 0xFFFFFFFF, &dest), 0u);
  EXPECT_EQ(dest, 7);
}

TEST_F(StreamTest, EmptyBuffersDoNotGetInTheWay) {
  for (int compress : {0, 1}) {
    SCOPED_TRACE(compress);
    OSStream stream(compress, 0);
    stream.Add(OSBuf::Alloc(0));
    stream.Add("");
    EXPECT_EQ(stream.Length(), 0u);
    EXPECT_EQ(stream.Getc(), -1);
    stream.Add("abc");
    stream.Add(OSBuf::Alloc(0));
    stream.Add("def");
    EXPECT_EQ(stream.Length(), 6u);
    UBYTE dest[6];
    EXPECT_EQ(stream.Read(1, 5, dest), 5u);
    EXPECT_EQ(std::string(dest, dest + 5), "bcdef");
    EXPECT_EQ(stream.Getc(), 'a');
    UBYTE c = 0;
    EXPECT_EQ(stream.Get(&c), TRUE);
    EXPECT_EQ(c, 'b');
    EXPECT_EQ(stream.Discard(3), 3u);
    EXPECT_EQ(stream.Getc(), 'f');
    EXPECT_EQ(stream.Length(), 0u);
  }
}

TEST_F(StreamTest, DiscardTrimsInPlaceAndFreesWholeBuffers) {
  OSStream stream(0, 0);
  OSBuf* first = OSBuf::Alloc("0123");
  OSBuf* second = OSBuf::Alloc("4567");
  stream.Add(first);
  stream.Add(second);
  UBYTE* data = first->data;
  EXPECT_EQ(stream.Discard(0), 0u);
  EXPECT_EQ(stream.Discard(3), 3u);
  EXPECT_EQ(first->data, data + 3);
  EXPECT_EQ(first->length, 1);
  EXPECT_EQ(stream.Size(), 2);
  EXPECT_EQ(stream.Length(), 5u);
  EXPECT_EQ(stream.Discard(1), 1u);
  EXPECT_EQ(stream.Size(), 1);
  EXPECT_EQ(first->length, 0xAAAA) << "freed";
  EXPECT_EQ(stream.Discard(4), 4u);
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(stream.Discard(1), 0u);
  EXPECT_EQ(stream.Discard(0xFFFFFFFF), 0u);
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(StreamTest, DiscardCrossesBuffersAndStopsAtTheEnd) {
  OSStream stream(0, 0);
  for (const char* text : {"0123", "4567", "89ab"}) stream.Add(text);
  EXPECT_EQ(stream.Discard(6), 6u);
  EXPECT_EQ(held(stream), "6789ab");
  EXPECT_EQ(stream.Discard(0xFFFFFFFF), 6u);
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(StreamTest, GetHandsOverTheFirstBuffer) {
  OSStream stream(0, 0);
  EXPECT_EQ(stream.Get(), nullptr);
  OSBuf* first = OSBuf::Alloc("one");
  stream.Add(first);
  stream.Add("three");
  EXPECT_EQ(stream.Get(), first);
  EXPECT_EQ(first->object, nullptr);
  EXPECT_EQ(stream.Length(), 5u);
  first->Free();
  OSBuf* second = stream.Get();
  EXPECT_EQ(second->length, 5);
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(stream.Get(), nullptr);
  second->Free();
}

TEST_F(StreamTest, SingleBytesAreGotUntilNoneIsLeft) {
  OSStream stream(0, 0);
  UBYTE c = '#';
  EXPECT_EQ(stream.Getc(), -1);
  EXPECT_EQ(stream.Get(&c), FALSE);
  EXPECT_EQ(c, '#');
  const UBYTE raw[] = {0, 127, 128, 255};
  stream.Add(raw, UWORD{4});
  EXPECT_EQ(stream.Getc(), 0);
  EXPECT_EQ(stream.Getc(), 127);
  EXPECT_EQ(stream.Getc(), 128);
  EXPECT_EQ(stream.Get(&c), TRUE);
  EXPECT_EQ(c, 255);
  EXPECT_EQ(stream.Getc(), -1);
  stream.Add(raw + 3, UWORD{1});
  EXPECT_EQ(stream.Getc(), 255) << "not -1";
  EXPECT_EQ(stream.Size(), 0);
}

TEST_F(StreamTest, TheOldestBufferIsDroppedBeyondTheLimit) {
  OSStream stream(0, 0);
  stream.SetMaxLength(1000, 3);
  for (const char* text : {"aaa", "bb", "c"}) stream.Add(text);
  EXPECT_EQ(stream.Length(), 6u);
  stream.Add("dddd");
  EXPECT_EQ(held(stream), "bbcdddd");
  EXPECT_EQ(stream.Length(), 7u);
  EXPECT_EQ(stream.Size(), 3);

  stream.SetMaxLength(1000, 1);
  stream.Add("e");
  EXPECT_EQ(stream.Size(), 3) << "at most one buffer is dropped at a time";
  EXPECT_EQ(held(stream), "cdddde");
  EXPECT_EQ(stream.Length(), 6u);

  stream.SetMaxLength(1000, 0);
  stream.Flush();
  stream.Add("nothing stays");
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(StreamTest, TheByteLimitDropsNothing) {
  OSStream stream(0, 0);
  stream.SetMaxLength(5, 100);
  stream.Add("1234567890");
  stream.Add("x");
  EXPECT_EQ(stream.Length(), 11u);
  EXPECT_EQ(stream.IsFull(), TRUE);
}

TEST_F(StreamTest, APlainStreamLeavesTheCallbacksToItsBuffers) {
  OSStream stream(0, 0);
  stream.Add(guarded("one", 1));
  stream.Add(guarded("two", 2));
  stream.Add(guarded("six", 3));
  EXPECT_EQ(stream.comp_r, stream.comp_w);
  stream.Discard(2);
  EXPECT_THAT(ran_, IsEmpty());
  stream.Discard(1);
  EXPECT_THAT(ran_, ElementsAre(1u));
  OSBuf* buf = stream.Get();
  EXPECT_THAT(ran_, ElementsAre(1u));
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre(1u, 2u));
  stream.Flush();
  EXPECT_THAT(ran_, ElementsAre(1u, 2u, 3u));
  EXPECT_EQ(stream.comp_r, 0);
}

TEST_F(StreamTest, DiscardLenOnAPlainStreamOnlyCounts) {
  Stream stream(0);
  stream.Add("0123456789");
  stream.DiscardLen(4);
  EXPECT_EQ(stream.Length(), 6u);
  EXPECT_EQ(held(stream), "0123456789");
  stream.DiscardLen(-4);
  EXPECT_EQ(stream.Length(), 10u);
}

TEST_F(StreamTest, TheDestructorFreesTheBuffers) {
  for (int compress : {0, 1}) {
    OSStream stream(compress, 0);
    stream.Add("left behind");
    stream.Add(guarded("and this", 9));
  }
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_THAT(ran_, ElementsAre(9u, 9u));
}

TEST_F(StreamTest, AStreamThatOwnsItsContentsFreesItsBuffersToo) {
  {
    OSStream stream(0, 1);
    stream.Add("owned");
  }
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OSBuf::PoolSize(1), 25);
}

// ------------------------------------------------------------------------------------------------- triggers

TEST_F(StreamTest, TriggersSeeEveryChangeOfTheQueue) {
  OSStream stream(0, 0);
  Probe probe;
  stream.TriggerList()->Append(&probe);
  stream.Add("abc");
  EXPECT_EQ(probe.taken_checks(), 1);
  stream.Add("def");
  EXPECT_EQ(probe.taken_checks(), 1);
  stream.Discard(2);
  EXPECT_EQ(probe.taken_checks(), 0) << "trimming changes no membership";
  stream.Discard(2);
  EXPECT_EQ(probe.taken_checks(), 1);
  stream.Get()->Free();
  EXPECT_EQ(probe.taken_checks(), 1);
  stream.Get();
  stream.Discard(5);
  stream.Getc();
  EXPECT_EQ(probe.taken_checks(), 0);
  for (int i = 0; i < 4; ++i) stream.Add("x");
  probe.taken_checks();
  stream.Flush();
  EXPECT_EQ(probe.taken_checks(), 5) << "each removal, and once more";
  stream.Flush();
  EXPECT_EQ(probe.taken_checks(), 1);
  stream.SetMaxLength(1, 1);
  stream.Add("x");
  probe.taken_checks();
  stream.Add("y");
  EXPECT_EQ(probe.taken_checks(), 2) << "one in, one dropped";
  stream.triggers.Flush();
}

TEST_F(StreamTest, MergedBytesAreNoChangeOfTheQueue) {
  OSStream stream(1, 0);
  Probe probe;
  stream.TriggerList()->Append(&probe);
  stream.Add("abc");
  EXPECT_EQ(probe.taken_checks(), 1);
  stream.Add("def");
  EXPECT_EQ(stream.Size(), 1);
  EXPECT_EQ(probe.taken_checks(), 0);
  stream.triggers.Flush();
}

TEST_F(StreamTest, AQueueTriggerWatchesAStream) {
  OSStream stream(0, 0);
  OSQTrigger two(&stream, 2, 0, 0);
  stream.Add("a");
  EXPECT_EQ(two.State(), OS_T_WAIT);
  stream.Add("b");
  EXPECT_EQ(two.State(), OS_T_READY);
  OSQTrigger low(&stream, 0, 1, 0);
  EXPECT_EQ(low.State(), OS_T_WAIT);
  stream.Discard(1);
  EXPECT_EQ(low.State(), OS_T_READY);
}

// ----------------------------------------------------------------------------------- compressible streams

TEST_F(StreamTest, SmallBuffersAreMergedIntoTheLast) {
  OSStream stream(1, 0);
  std::string all;
  for (int i = 0; i < 8; ++i) {
    stream.Add(pattern(6, static_cast<std::size_t>(i)).c_str());
    all += pattern(6, static_cast<std::size_t>(i));
  }
  EXPECT_THAT(lengths(stream), ElementsAre(48)) << "the first buffer has room for 50 bytes";
  stream.Add("12345");
  EXPECT_THAT(lengths(stream), ElementsAre(50, 3)) << "what does not fit is queued";
  EXPECT_EQ(held(stream), all + "12345");
  EXPECT_EQ(stream.Length(), 53u);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 2);
}

TEST_F(StreamTest, LargeBuffersAreSplitIntoFragments) {
  struct Row {
    UWORD fragment;
    std::size_t len;
    std::vector<int> lengths;
  };
  const Row rows[] = {
      {600, 1500, {600, 600, 300}},      {600, 600, {600}}, {600, 601, {600, 1}}, {600, 1200, {600, 600}},
      {500, 1689, {500, 500, 500, 189}}, {1, 3, {1, 1, 1}}, {600, 10, {10}},      {600, 0, {0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.fragment) + " " + std::to_string(row.len));
    OSStream stream(1, 0);
    stream.SetMaxFragment(row.fragment);
    const std::string text = pattern(row.len);
    stream.Add(OSBuf::Alloc(bytes_of(text), static_cast<int>(row.len)));
    EXPECT_EQ(lengths(stream), row.lengths);
    EXPECT_EQ(held(stream), text);
    EXPECT_EQ(stream.Length(), row.len);
    EXPECT_EQ(stream.comp_w, static_cast<int>(row.lengths.size())) << "each fragment takes a slot";
    for (std::size_t i = 0; i < row.lengths.size(); ++i) EXPECT_EQ(stream.comp_lengths[i], row.lengths[i]);
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(StreamTest, FragmentsAreMergedLikeOtherBuffers) {
  OSStream stream(1, 0);
  stream.SetMaxFragment(600);
  stream.Add(pattern(500).c_str());
  stream.Add(pattern(1300, 500).c_str());
  EXPECT_EQ(held(stream), pattern(1800));
  EXPECT_EQ(stream.Length(), 1800u);
  for (int length : lengths(stream)) EXPECT_LE(length, 600);
  EXPECT_EQ(stream.comp_w, 4);
  EXPECT_EQ(stream.comp_lengths[0], 500);
  EXPECT_EQ(stream.comp_lengths[1], 600);
  EXPECT_EQ(stream.comp_lengths[2], 600);
  EXPECT_EQ(stream.comp_lengths[3], 100);
}

TEST_F(StreamTest, AMaximumFragmentOfNothingDoesNotSplit) {
  OSStream stream(1, 0);
  stream.SetMaxFragment(0);
  stream.Add(pattern(1500).c_str());
  EXPECT_THAT(lengths(stream), ElementsAre(1500));
  stream.Add(pattern(500, 1500).c_str());
  EXPECT_EQ(held(stream), pattern(2000));
  EXPECT_EQ(stream.Length(), 2000u);
}

TEST_F(StreamTest, TheOldestBufferIsDroppedFromACompressibleStreamToo) {
  OSStream stream(1, 0);
  stream.SetMaxFragment(10);
  stream.SetMaxLength(1000, 2);
  stream.Add("0123456789");
  stream.Add("abcdefghij");
  stream.Add("k");
  EXPECT_EQ(held(stream), "abcdefghijk");
  EXPECT_EQ(stream.Length(), 11u);
  stream.SetMaxLength(1000, 1);
  stream.Add("l");  // merged away, and the check comes all the same
  EXPECT_EQ(held(stream), "kl");
  EXPECT_EQ(stream.Length(), 2u);
}

TEST_F(StreamTest, ASplitBufferMayPushItsOwnFragmentsOut) {
  OSStream stream(1, 0);
  stream.SetMaxFragment(10);
  stream.SetMaxLength(1000, 2);
  stream.Add(pattern(45).c_str());
  EXPECT_EQ(stream.Size(), 2);
  EXPECT_EQ(held(stream), pattern(15, 30)) << "the oldest data is what is lost";
  EXPECT_EQ(stream.Length(), 15u);
}

TEST_F(StreamTest, EachBufferTakesASlotWithItsCallbacks) {
  Stream stream(1);
  OSBuf* buf = guarded("four", 2);
  buf->AddDataCallback(callback(1));
  stream.Add(buf);
  stream.Add(guarded("fiver", 3));
  EXPECT_EQ(stream.comp_r, 0);
  EXPECT_EQ(stream.comp_w, 2);
  EXPECT_EQ(stream.comp_lengths[0], 4);
  EXPECT_EQ(stream.comp_lengths[1], 5);
  EXPECT_EQ(stream.comp_callbacks[0].ListLength(), 2);
  EXPECT_EQ(stream.comp_callbacks[1].ListLength(), 1);
  EXPECT_TRUE(buf->data_free_callback.IsEmpty());
  EXPECT_EQ(stream.Size(), 1) << "merged";
  EXPECT_THAT(ran_, IsEmpty());
  stream.Discard(4);
  EXPECT_THAT(ran_, ElementsAre(1u, 2u)) << "in the order of the ring";
  EXPECT_EQ(stream.comp_r, 1);
  EXPECT_EQ(stream.comp_lengths[0], 0);
  stream.Flush();
  EXPECT_THAT(ran_, ElementsAre(1u, 2u, 3u));
}

TEST_F(StreamTest, ConsumingOneByteRetiresTheOldestSlot) {
  // Deliberate: the rest of the slot is not carried over, so the next byte retires the next slot.
  Stream stream(1);
  for (ULONG i = 0; i < 4; ++i) stream.Add(guarded("0123456789", i));
  EXPECT_EQ(stream.comp_w, 4);
  stream.Getc();
  EXPECT_THAT(taken_runs(), ElementsAre(0u));
  EXPECT_EQ(stream.comp_r, 1);
  EXPECT_EQ(stream.comp_lengths[0], 9) << "reduced, then left";
  EXPECT_EQ(stream.comp_lengths[1], 10);
  stream.Discard(1);
  EXPECT_THAT(taken_runs(), ElementsAre(1u));
  stream.Discard(11);
  EXPECT_THAT(taken_runs(), ElementsAre(2u, 3u)) << "ten for one slot, the eleventh for the next";
  EXPECT_EQ(stream.comp_r, 4);
  EXPECT_EQ(stream.comp_lengths[2], 0);
  EXPECT_EQ(stream.comp_lengths[3], 9);
  EXPECT_EQ(stream.Length(), 27u);
  stream.Discard(27);
  EXPECT_THAT(taken_runs(), IsEmpty());
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(stream.comp_r, stream.comp_w);
}

TEST_F(StreamTest, ConsumingExactlyASlotLeavesTheNextAlone) {
  Stream stream(1);
  stream.Add(guarded("0123456789", 1));
  stream.Add(guarded("0123456789", 2));
  stream.Discard(10);
  EXPECT_THAT(ran_, ElementsAre(1u));
  EXPECT_EQ(stream.comp_r, 1);
  EXPECT_EQ(stream.comp_lengths[1], 10);
  stream.Flush();
}

TEST_F(StreamTest, DiscardLenAccountsForTheWholeAmountAsked) {
  Stream stream(1);
  stream.Add(guarded("0123456789", 1));
  stream.DiscardLen(0);
  EXPECT_THAT(ran_, IsEmpty());
  EXPECT_EQ(stream.Length(), 10u);
  stream.DiscardLen(4);
  EXPECT_THAT(ran_, ElementsAre(1u));
  EXPECT_EQ(stream.Length(), 6u);
  stream.DiscardLen(6);
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(held(stream), "0123456789") << "the bytes are the caller's business";
  stream.Flush();
}

TEST_F(StreamTest, GetAccountsForTheWholeBuffer) {
  Stream stream(1);
  stream.Add(guarded("0123", 1));
  stream.Add(guarded("45", 2));
  EXPECT_EQ(stream.Size(), 1);
  OSBuf* buf = stream.Get();
  EXPECT_EQ(buf->length, 6);
  EXPECT_THAT(ran_, ElementsAre(1u, 2u));
  EXPECT_EQ(stream.Length(), 0u);
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre(1u, 2u)) << "the callbacks had gone to the slots";
}

TEST_F(StreamTest, BufferCallbacksRunWhenTheMergedBufferIsFreed) {
  OSStream stream(1, 0);
  stream.Add("first");
  OSBuf* buf = guarded("second", 1);
  buf->AddBufferCallback(callback(2));
  stream.Add(buf);
  EXPECT_THAT(ran_, ElementsAre(2u));
  stream.Flush();
  EXPECT_THAT(ran_, ElementsAre(2u, 1u));
}

TEST_F(StreamTest, TheCallbacksOfASplitBufferGoWithItsRemainder) {
  Stream stream(1);
  stream.SetMaxFragment(10);
  stream.Add(guarded(pattern(25), 7));
  EXPECT_EQ(stream.comp_w, 3);
  EXPECT_TRUE(stream.comp_callbacks[0].IsEmpty());
  EXPECT_TRUE(stream.comp_callbacks[1].IsEmpty());
  EXPECT_EQ(stream.comp_callbacks[2].ListLength(), 1);
  stream.Discard(20);
  EXPECT_THAT(ran_, IsEmpty());
  stream.Discard(1);
  EXPECT_THAT(ran_, ElementsAre(7u));
  stream.Flush();
}

TEST_F(StreamTest, AFullRingCollectsInItsLastSlotAndAnAssignmentReplacesWhatWasCollected) {
  // Deliberate: the amount collected while the ring was full is replaced, not added to. Owners count on a
  // callback coming no later than the bytes of the buffer that was added last into its slot.
  Stream stream(1);
  for (ULONG i = 0; i < 31; ++i) stream.Add(guarded("x", i));
  EXPECT_EQ(stream.comp_w, 31);
  EXPECT_EQ(stream.comp_r, 0);
  stream.Add(guarded("abc", 100));
  EXPECT_EQ(stream.comp_w, 31) << "no free slot to advance to";
  EXPECT_EQ(stream.comp_lengths[31], 3);
  stream.Add(guarded("defg", 101));
  EXPECT_EQ(stream.comp_lengths[31], 7);
  EXPECT_EQ(stream.comp_callbacks[31].ListLength(), 2);
  EXPECT_EQ(stream.Length(), 38u);

  stream.Discard(1);
  EXPECT_THAT(taken_runs(), ElementsAre(0u));
  EXPECT_EQ(stream.comp_r, 1);
  stream.Add(guarded("hijkl", 102));
  EXPECT_EQ(stream.comp_lengths[31], 5);
  EXPECT_EQ(stream.comp_callbacks[31].ListLength(), 3);
  EXPECT_EQ(stream.comp_w, 0);

  stream.Discard(30);  // slots 1 to 30
  std::vector<ULONG> expected;
  for (ULONG i = 1; i < 31; ++i) expected.push_back(i);
  EXPECT_EQ(taken_runs(), expected);
  EXPECT_EQ(stream.comp_r, 31);
  stream.Discard(1);
  EXPECT_THAT(taken_runs(), ElementsAre(100u, 101u, 102u));
  EXPECT_EQ(stream.comp_r, 0);
  EXPECT_EQ(stream.comp_r, stream.comp_w);
  EXPECT_EQ(held(stream), "bcdefghijkl");
  stream.Discard(100);
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(StreamTest, TheSlotsRunRoundTheRing) {
  Stream stream(1);
  for (ULONG i = 0; i < 100; ++i) {
    stream.Add(guarded("xy", i));
    EXPECT_EQ(stream.comp_w, static_cast<int>((i + 1) % 32));
    stream.Discard(2);
    EXPECT_EQ(stream.comp_r, stream.comp_w);
    ASSERT_EQ(taken_runs(), std::vector<ULONG>{i});
  }
}

TEST_F(StreamTest, FlushRunsEveryPendingSlot) {
  Stream stream(1);
  for (ULONG i = 0; i < 20; ++i) stream.Add(guarded("some bytes", i));
  stream.Discard(15);
  taken_runs();
  stream.Flush();
  std::vector<ULONG> expected;
  for (ULONG i = 2; i < 20; ++i) expected.push_back(i);
  EXPECT_EQ(taken_runs(), expected);
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_EQ(stream.comp_r, stream.comp_w);
  EXPECT_EQ(stream.comp_w, 20) << "the position stays where it was";
  stream.Add(guarded("again", 50));
  EXPECT_EQ(stream.comp_w, 21);
  EXPECT_EQ(stream.Getc(), 'a');
  EXPECT_THAT(taken_runs(), ElementsAre(50u));
}

TEST_F(StreamTest, NoCallbackIsLostWithAStreamWhoseRingWasFull) {
  {
    Stream stream(1);
    for (ULONG i = 0; i < 40; ++i) stream.Add(guarded("x", i));
    stream.Flush();
    EXPECT_EQ(stream.comp_r, stream.comp_w);
    ASSERT_GE(ran_.size(), 31u);
    for (ULONG i = 0; i < 31; ++i) ASSERT_EQ(ran_[i], i);
  }
  // The owners of all forty wait for their call; TearDown checks that the pool has every callback back.
  EXPECT_EQ(ran_.size(), 40u);
}

TEST_F(StreamTest, TheAmountCollectedInASlotWrapsAt16Bits) {
  Stop();
  cfg.buf_qty[0] = 0;
  cfg.buf_qty[3] = 60;
  cfg.buf_size[3] = 8000;
  StartQuiet();
  {
    Stream stream(1);
    stream.SetMaxFragment(7000);
    for (ULONG i = 0; i < 31; ++i) stream.Add("x");
    for (int i = 0; i < 10; ++i) stream.Add(pattern(7000).c_str());
    EXPECT_EQ(stream.comp_lengths[31], static_cast<UWORD>(70000));
    EXPECT_EQ(stream.Length(), 70031u);
    EXPECT_EQ(stream.Discard(70031), 70031u);
    EXPECT_EQ(stream.Length(), 0u);
  }
  Stop();
  cfg = KernelCfg();
  StartQuiet();
}

TEST_F(StreamTest, ACallbackMayAddToTheStream) {
  static Stream* target;
  Stream stream(1);
  target = &stream;
  OSBuf* buf = OSBuf::Alloc("first");
  buf->AddDataCallback(OSCallback::Alloc(
      nullptr, [](OSObj*, ADDR, ULONG) { target->Add("next"); }, nullptr, nullptr, 0));
  stream.Add(buf);
  EXPECT_EQ(stream.Discard(5), 5u);
  EXPECT_EQ(held(stream), "next");
  EXPECT_EQ(stream.Length(), 4u);
}

TEST_F(StreamTest, ACallbackOfAFlushedStreamMayCancelTheOthers) {
  OSCallbackRecord record;
  Stream stream(1);
  for (ULONG i = 0; i < 4; ++i) {
    OSBuf* buf = OSBuf::Alloc("data");
    buf->AddDataCallback(OSCallback::Alloc(
        &record,
        [](OSObj*, ADDR at, ULONG value) {
          ran->push_back(value);
          static_cast<OSCallbackRecord*>(at)->CancelCallbacks();
        },
        nullptr, &record, i));
    stream.Add(buf);
  }
  stream.Flush();
  EXPECT_THAT(ran_, ElementsAre(0u));
  EXPECT_EQ(record.Size(), 0);
  for (OSLink& ring : stream.comp_callbacks) EXPECT_TRUE(ring.IsEmpty());
}

TEST_F(StreamTest, ACompressibleStreamCanBecomePlain) {
  Stream stream(1);
  stream.Add(guarded("0123", 1));
  stream.SetCompressible(FALSE);
  stream.Add(guarded("4567", 2));
  EXPECT_THAT(lengths(stream), ElementsAre(4, 4));
  EXPECT_EQ(stream.comp_w, 1);
  stream.Discard(1);
  EXPECT_THAT(ran_, ElementsAre(1u)) << "pending slots are still retired";
  EXPECT_EQ(held(stream), "1234567");
  stream.Discard(7);
  EXPECT_THAT(ran_, ElementsAre(1u, 2u));
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(StreamTest, AStreamMayOutliveThePools) {
  for (int compress : {0, 1}) {
    OSStream stream(compress, 0);
    stream.Add(guarded(pattern(40), 1));
    stream.Add(guarded(pattern(40), 2));
    Stop();
    StartQuiet();
    stream.Flush();
    EXPECT_EQ(stream.Size(), 0);
    EXPECT_EQ(stream.Length(), 0u);
    stream.Add(guarded("again", 3));
    EXPECT_EQ(stream.Getc(), 'a');
    stream.Flush();
    EXPECT_THAT(taken_runs(), ElementsAre(3u)) << "what went with the pools is not run";
  }
}

// --------------------------------------------------------------------------------------------- exhaustion

TEST_F(StreamTest, AddingWithoutBuffersIsReportedAndAddsNothing) {
  std::vector<OSBuf*> taken;
  for (int request : {99, 599, 1739}) {
    const int buf_class = request == 99 ? 1 : request == 599 ? 2 : 3;
    while (OSBuf::PoolSize(buf_class) > 0) taken.push_back(OSBuf::Alloc(request));
  }
  for (int compress : {0, 1}) {
    console.clear();
    OSStream stream(compress, 0);
    stream.Add("text");
    const UBYTE raw[] = {1, 2};
    stream.Add(raw, UWORD{2});
    EXPECT_EQ(console.fatals().size(), 2u);
    EXPECT_EQ(stream.Length(), 0u);
    EXPECT_EQ(stream.Size(), 0);
    EXPECT_EQ(stream.Getc(), -1);
  }
  for (OSBuf* buf : taken) buf->Free();
}

TEST_F(StreamTest, AFragmentThatNoClassHoldsIsReportedAndEnds) {
  // The default fragment of 10000 bytes does not fit the default classes.
  const std::string text = pattern(25000);
  std::vector<UBYTE> storage(26000);
  OSBuf* buf = OSBuf::Alloc(0);
  buf->SetPayload(storage.data(), 26000);
  buf->PushData(bytes_of(text), UWORD{25000});
  OSStream stream(1, 0);
  stream.Add(buf);
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSBuffer::Alloc Out Of Buffers 10050");
  EXPECT_EQ(stream.Length(), held(stream).size());
  UBYTE dest[10];
  stream.Read(0, 10, dest);
  stream.Flush();
  EXPECT_EQ(stream.Length(), 0u);
}

// --------------------------------------------------------------------------------------------------- random

TEST_F(StreamTest, APlainStreamBehavesLikeAString) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  OSStream stream(0, 0);
  ULONG limit = 1000000;
  std::string model;
  std::deque<std::size_t> parts;  // the buffers' lengths
  std::size_t written = 0;
  const auto consume = [&](std::size_t len) {
    model.erase(0, len);
    while (len > 0 && len >= parts.front()) {
      len -= parts.front();
      parts.pop_front();
    }
    if (len > 0) parts.front() -= len;
  };
  for (int round = 0; round < 20000; ++round) {
    switch (pick(random, 0, 9)) {
      case 0:
      case 1:
      case 2:
      case 3: {
        if (parts.size() > 20) break;
        const std::size_t len =
            static_cast<std::size_t>(pick(random, 1, pick(random, 0, 4) == 0 ? 1600 : 40));
        const std::string text = pattern(len, written);
        written += len;
        stream.Add(bytes_of(text), static_cast<UWORD>(len));
        model += text;
        parts.push_back(len);
        if (parts.size() > limit) {
          model.erase(0, parts.front());
          parts.pop_front();
        }
        break;
      }
      case 4: {
        const ULONG len = static_cast<ULONG>(pick(random, 0, 200));
        const std::size_t expected = std::min<std::size_t>(len, model.size());
        ASSERT_EQ(stream.Discard(len), expected);
        consume(expected);
        break;
      }
      case 5: {
        OSBuf* buf = stream.Get();
        ASSERT_EQ(buf == nullptr, parts.empty());
        if (buf == nullptr) break;
        ASSERT_EQ(buf->length, parts.front());
        ASSERT_EQ(std::memcmp(buf->data, model.data(), buf->length), 0);
        consume(parts.front());
        buf->Free();
        break;
      }
      case 6: {
        const int c = stream.Getc();
        ASSERT_EQ(c, model.empty() ? -1 : static_cast<unsigned char>(model.front()));
        if (!model.empty()) consume(1);
        break;
      }
      case 7: {
        UBYTE c = 0;
        ASSERT_EQ(stream.Get(&c), model.empty() ? FALSE : TRUE);
        if (model.empty()) break;
        ASSERT_EQ(c, static_cast<UBYTE>(model.front()));
        consume(1);
        break;
      }
      case 8:
        if (pick(random, 0, 20) == 0) {
          limit = pick(random, 0, 1) == 0 ? 1000000 : static_cast<ULONG>(pick(random, 1, 8));
          stream.SetMaxLength(static_cast<ULONG>(pick(random, 0, 3000)), limit);
        } else if (pick(random, 0, 50) == 0) {
          stream.Flush();
          model.clear();
          parts.clear();
        }
        break;
      default: {
        const ULONG offset = static_cast<ULONG>(pick(random, 0, static_cast<int>(model.size()) + 5));
        const ULONG len =
            pick(random, 0, 9) == 0 ? 0xFFFFFFFF - offset / 2 : static_cast<ULONG>(pick(random, 0, 3000));
        const std::string expected = offset < model.size() ? model.substr(offset, len) : "";
        std::vector<UBYTE> dest(model.size() + 1, '#');
        ASSERT_EQ(stream.Read(offset, len, dest.data()), expected.size());
        ASSERT_EQ(std::string(dest.begin(), dest.begin() + static_cast<std::ptrdiff_t>(expected.size())),
                  expected);
        ASSERT_EQ(dest[expected.size()], '#');
        break;
      }
    }
    ASSERT_EQ(stream.Length(), model.size());
    ASSERT_EQ(stream.Size(), static_cast<int>(parts.size()));
    ASSERT_EQ(stream.IsFull() != 0, stream.Length() >= stream.max_total_length || parts.size() >= limit);
    ASSERT_EQ(OSBuf::allocated_list->Size(), static_cast<int>(parts.size()));
  }
  ASSERT_EQ(held(stream), model);
}

/// The accounting of a compressible stream, as plain as it can be said.
struct SlotModel {
  UWORD length[kSlots] = {};
  std::vector<ULONG> callbacks[kSlots];
  int w = 0, r = 0;
  std::vector<ULONG> due;

  void add(std::size_t len, const std::vector<ULONG>& numbers) {
    const std::size_t at = static_cast<std::size_t>(w);
    if ((w + 1) % kSlots == r) {
      length[at] = static_cast<UWORD>(length[at] + len);
    } else {
      length[at] = static_cast<UWORD>(len);
      w = (w + 1) % kSlots;
    }
    callbacks[at].insert(callbacks[at].end(), numbers.begin(), numbers.end());
  }
  void retire() {
    const std::size_t at = static_cast<std::size_t>(r);
    due.insert(due.end(), callbacks[at].begin(), callbacks[at].end());
    callbacks[at].clear();
    r = (r + 1) % kSlots;
  }
  void consume(std::size_t len) {
    while (len > 0 && r != w) {
      const std::size_t at = static_cast<std::size_t>(r);
      if (len > length[at]) {
        len -= length[at];
        length[at] = 0;
      } else {
        length[at] = static_cast<UWORD>(length[at] - len);
        len = 0;
      }
      retire();
    }
  }
};

TEST_F(StreamTest, ACompressibleStreamKeepsItsBytesAndItsSlots) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  Stop();
  cfg.buf_qty[1] = cfg.buf_qty[2] = 200;  // enough for a long buffer in short fragments
  StartQuiet();
  Stream stream(1);
  UWORD fragment = 600;
  stream.SetMaxFragment(fragment);
  std::string model;
  SlotModel slots;
  std::size_t written = 0;
  ULONG number = 0;
  for (int round = 0; round < 10000; ++round) {
    switch (pick(random, 0, 9)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4: {
        if (model.size() > 6000 || stream.Size() > 15) break;
        std::size_t len = static_cast<std::size_t>(pick(random, 0, pick(random, 0, 6) == 0 ? 1600 : 12));
        const std::string text = pattern(len, written);
        written += len;
        OSBuf* buf = OSBuf::Alloc(bytes_of(text), static_cast<int>(len));
        std::vector<ULONG> numbers;
        for (int i = pick(random, 0, 2); i > 0 && OSCallback::callback_pool_size > 10; --i) {
          buf->AddDataCallback(callback(number));
          numbers.insert(numbers.begin(), number++);
        }
        stream.Add(buf);
        model += text;
        while (len > fragment) {
          slots.add(fragment, {});
          len -= fragment;
        }
        slots.add(len, numbers);
        break;
      }
      case 5:
      case 6: {
        const std::size_t len =
            static_cast<std::size_t>(pick(random, 0, pick(random, 0, 3) == 0 ? 1000 : 20));
        const std::size_t expected = std::min(len, model.size());
        ASSERT_EQ(stream.Discard(static_cast<ULONG>(len)), expected);
        slots.consume(expected);
        model.erase(0, expected);
        break;
      }
      case 7:
        ASSERT_EQ(stream.Getc(), model.empty() ? -1 : static_cast<unsigned char>(model.front()));
        if (model.empty()) break;
        slots.consume(1);
        model.erase(0, 1);
        break;
      case 8: {
        if (pick(random, 0, 5) != 0) break;
        OSBuf* buf = stream.Get();
        if (buf == nullptr) break;
        ASSERT_EQ(std::string(reinterpret_cast<char*>(buf->data), buf->length), model.substr(0, buf->length));
        slots.consume(buf->length);
        model.erase(0, buf->length);
        buf->Free();
        break;
      }
      default:
        if (pick(random, 0, 100) == 0) {
          fragment = static_cast<UWORD>(pick(random, 30, 600));
          stream.SetMaxFragment(fragment);
        }
        // A flush leaves what the slot at comp_w collected while the ring was full; not flushed then.
        if (pick(random, 0, 100) == 0 && slots.callbacks[static_cast<std::size_t>(slots.w)].empty()) {
          stream.Flush();
          while (slots.r != slots.w) slots.retire();
          model.clear();
        }
        break;
    }
    ASSERT_EQ(stream.Length(), model.size());
    ASSERT_EQ(held(stream), model);
    ASSERT_EQ(ran_, slots.due);
    ASSERT_EQ(stream.comp_w, slots.w);
    ASSERT_EQ(stream.comp_r, slots.r);
    for (int i = slots.r; i != slots.w; i = (i + 1) % kSlots) {
      ASSERT_EQ(stream.comp_lengths[i], slots.length[i]);
    }
    ran_.clear();
    slots.due.clear();
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
