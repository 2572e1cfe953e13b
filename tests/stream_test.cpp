// Byte streams over queues of buffers: the bytes come out as they went in, whatever the buffers look like.

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/stream_fixture.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
  EXPECT_EQ(vtable_slot(&OSStream::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSStream::Discard), -1);
  EXPECT_EQ(vtable_slot(&OSStream::Getc), -1);
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

TEST_F(StreamTest, DiscardStopsBeforeAnEmptyBuffer) {
  OSStream stream(0, 0);
  stream.Add("abc");
  stream.Add(OSBuf::Alloc(0));
  stream.Add("def");
  EXPECT_EQ(stream.Discard(3), 3u);
  EXPECT_THAT(lengths(stream), ElementsAre(0, 3)) << "no byte was left to discard";
  EXPECT_EQ(stream.Discard(1), 1u);
  EXPECT_THAT(lengths(stream), ElementsAre(2));
}

TEST_F(StreamTest, ABufferThatIsInAListAlreadyIsRefused) {
  for (int compress : {0, 1}) {
    SCOPED_TRACE(compress);
    Stream stream(compress);
    OSQueue elsewhere;
    stream.Add("first");
    OSBuf* listed = guarded("listed", 3);
    elsewhere.Append(listed);
    console.clear();
    stream.Add(listed);
    EXPECT_THAT(console.fatals(), ElementsAre("OSLinkList::Append Obj of link that is already in a list"));
    EXPECT_EQ(held(stream), "first");
    EXPECT_EQ(stream.Length(), 5u);
    EXPECT_EQ(stream.comp_w, compress) << "no slot was taken";
    EXPECT_EQ(listed->length, 6);
    EXPECT_THAT(ring_nodes(elsewhere), ElementsAre(listed));
    elsewhere.Flush();
    EXPECT_THAT(taken_runs(), ElementsAre(3u));
  }
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
  EXPECT_EQ(stream.Length(), 25000u);
  EXPECT_EQ(held(stream), text) << "the rest is added whole";
  EXPECT_EQ(stream.Size(), 1);
  stream.Flush();
  EXPECT_EQ(stream.Length(), 0u);
}

}  // namespace
}  // namespace oskernel_test
