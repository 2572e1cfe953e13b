// Compressible streams: merging, splitting, and the release callbacks that run slot by slot.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/stream_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(StreamTest, SmallBuffersAreMergedIntoTheLast) {
  OSStream stream(1, 0);
  std::string all;
  for (int i = 0; i < 8; ++i) {
    stream.Add(pattern(6, i).c_str());
    all += pattern(6, i);
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
    const std::string text = pattern(static_cast<int>(row.len));
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

TEST_F(StreamTest, AFragmentThatCannotBeFilledLeavesTheRestWhole) {
  // A length of more than 15 bits loses its highest bit on the way to the pools: the buffer is too small.
  Stop();
  cfg.buf_size[3] = 8000;
  StartQuiet();
  std::vector<UBYTE> storage(60000);
  const std::string text = pattern(50000);
  OSBuf* buf = OSBuf::Alloc(0);
  buf->SetPayload(storage.data(), 60000);
  buf->PushData(bytes_of(text), UWORD{50000});
  {
    Stream stream(1);
    stream.SetMaxFragment(40000);
    stream.Add(buf);
    EXPECT_FALSE(console.fatals().empty());
    EXPECT_EQ(stream.Size(), 1);
    EXPECT_EQ(stream.Length(), 50000u);
    EXPECT_EQ(held(stream), text);
    EXPECT_EQ(OSBuf::allocated_list->Size(), 1) << "the buffer that was too small went home";
  }
  Stop();
  cfg = KernelCfg();
  StartQuiet();
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

TEST_F(StreamTest, DiscardLenRetiresASlotForASingleByteAndNoneForFewer) {
  Stream stream(1);
  stream.Add(guarded("0123456789", 1));
  stream.Add(guarded("0123456789", 2));
  stream.DiscardLen(-4);
  EXPECT_THAT(ran_, IsEmpty());
  EXPECT_EQ(stream.comp_r, 0);
  EXPECT_EQ(stream.comp_lengths[0], 10);
  EXPECT_EQ(stream.Length(), 24u);
  stream.DiscardLen(1);
  EXPECT_THAT(ran_, ElementsAre(1u));
  EXPECT_EQ(stream.comp_lengths[0], 9);
  EXPECT_EQ(stream.Length(), 23u);
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

TEST_F(StreamTest, AFlushLeavesWhatAFullRingCollectedToTheNextBuffer) {
  Stream stream(1);
  for (ULONG i = 0; i < 34; ++i) stream.Add(guarded("xy", i));
  EXPECT_EQ(stream.comp_callbacks[31].ListLength(), 3);
  EXPECT_EQ(stream.comp_lengths[31], 6);
  stream.Flush();
  std::vector<ULONG> expected;
  for (ULONG i = 0; i < 31; ++i) expected.push_back(i);
  EXPECT_EQ(taken_runs(), expected);
  EXPECT_EQ(stream.comp_r, stream.comp_w);
  EXPECT_EQ(stream.comp_callbacks[31].ListLength(), 3);
  stream.Flush();
  EXPECT_THAT(taken_runs(), IsEmpty()) << "no slot is pending";
  stream.Add(guarded("next", 50));
  EXPECT_EQ(stream.comp_lengths[31], 4);
  stream.Getc();
  EXPECT_THAT(taken_runs(), ElementsAre(31u, 32u, 33u, 50u));
}

TEST_F(StreamTest, NoCallbackIsLostWithAStreamWhoseRingWasFull) {
  {
    Stream stream(1);
    for (ULONG i = 0; i < 40; ++i) stream.Add(guarded("x", i));
  }
  // The owners of all forty wait for their call; TearDown checks that the pool has every callback back.
  std::vector<ULONG> expected;
  for (ULONG i = 0; i < 40; ++i) expected.push_back(i);
  EXPECT_EQ(ran_, expected);
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

// ------------------------------------------------------------------- callbacks that come back into the stream

/// What the callback of a buffer does; set by the test that is running.
std::function<void()> comes_back;

class ReentrantStream : public StreamTest {
 protected:
  void TearDown() override {
    comes_back = nullptr;
    StreamTest::TearDown();
  }
  static OSCallback* returning() {
    return OSCallback::Alloc(
        nullptr, [](OSObj*, ADDR, ULONG) { comes_back(); }, nullptr, nullptr, 0);
  }
  /// A buffer whose data release comes back into the stream.
  static OSBuf* returning(const char* text) {
    OSBuf* buf = OSBuf::Alloc(text);
    buf->AddDataCallback(returning());
    return buf;
  }
  static std::string taken(OSBuf* buf) {
    if (buf == nullptr) return "none";
    const std::string text = content(buf);
    buf->Free();
    return text;
  }
};

TEST_F(ReentrantStream, ACallbackSeesTheBufferThatIsGotAndNotTheOneThatIsDiscarded) {
  Stream stream(1);
  int buffers = -1;
  ULONG bytes = 0;
  comes_back = [&] {
    buffers = stream.Size();
    bytes = stream.Length();
  };
  stream.Add(returning("first"));
  EXPECT_EQ(taken(stream.Get()), "first");
  EXPECT_EQ(buffers, 1) << "the slots come before the removal";
  EXPECT_EQ(bytes, 5u) << "the bytes are counted off last";
  stream.Add(returning("first"));
  stream.Discard(5);
  EXPECT_EQ(buffers, 0) << "here they come after it";
  EXPECT_EQ(bytes, 5u);
}

TEST_F(ReentrantStream, BytesAddedDuringADiscardStay) {
  Stream stream(1);
  comes_back = [&] { stream.Add("next"); };
  stream.Add(returning("first"));
  EXPECT_EQ(stream.Discard(5), 5u);
  EXPECT_EQ(held(stream), "next");
  EXPECT_EQ(stream.Length(), 4u);
  EXPECT_EQ(stream.comp_w, 2);
  EXPECT_EQ(stream.comp_r, 1);
}

TEST_F(ReentrantStream, BytesMergedDuringAGetGoWithTheBuffer) {
  Stream stream(1);
  comes_back = [&] { stream.Add(guarded("next", 7)); };
  stream.Add(returning("first"));
  EXPECT_EQ(taken(stream.Get()), "firstnext");
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_THAT(ran_, ElementsAre(7u)) << "they are consumed as well";
  EXPECT_EQ(stream.comp_r, stream.comp_w);
}

TEST_F(ReentrantStream, BytesMergedDuringAGetAreChargedToTheirSlotAlone) {
  Stream stream(1);
  stream.SetMaxFragment(9);
  comes_back = [&] {
    stream.Add("more");
    stream.Add(guarded("xyz", 7));
  };
  stream.Add(returning("first"));
  EXPECT_EQ(taken(stream.Get()), "firstmore");
  EXPECT_THAT(ran_, IsEmpty()) << "the next buffer's bytes are still there";
  EXPECT_EQ(held(stream), "xyz");
  EXPECT_EQ(stream.Length(), 3u);
}

TEST_F(ReentrantStream, BytesQueuedDuringAGetStay) {
  Stream stream(1);
  stream.SetMaxFragment(5);
  comes_back = [&] { stream.Add(guarded("abc", 7)); };
  stream.Add(returning("01234"));  // as full as it may be
  EXPECT_EQ(taken(stream.Get()), "01234");
  EXPECT_EQ(held(stream), "abc");
  EXPECT_EQ(stream.Length(), 3u);
  EXPECT_THAT(ran_, IsEmpty());
}

TEST_F(ReentrantStream, BytesConsumedDuringAGetAreNotHandedOutAgain) {
  Stream stream(1);
  int c = 0;
  comes_back = [&] { c = stream.Getc(); };
  stream.Add(returning("0123456789"));
  stream.Add(guarded("abc", 5));
  EXPECT_EQ(taken(stream.Get()), "123456789abc");
  EXPECT_EQ(c, '0');
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_THAT(ran_, ElementsAre(5u));
}

TEST_F(ReentrantStream, BytesConsumedDuringAGetAreChargedToTheirOwnSlot) {
  Stream stream(1);
  stream.SetMaxFragment(10);
  int c = 0;
  comes_back = [&] { c = stream.Getc(); };
  stream.Add(returning("0123456789"));
  stream.Add(guarded("abc", 5));
  stream.Add(guarded("def", 6));
  EXPECT_EQ(taken(stream.Get()), "123456789");
  EXPECT_EQ(c, '0');
  EXPECT_THAT(taken_runs(), IsEmpty()) << "the other buffers' bytes are still there";
  EXPECT_EQ(stream.Length(), 6u);

  comes_back = [&] {
    EXPECT_EQ(stream.Discard(12), 12u);  // the whole first buffer and two of the next
  };
  stream.Flush();
  taken_runs();
  stream.Add(returning("0123456789"));
  stream.Add(guarded("0123456789", 7));
  stream.Add(guarded("def", 8));
  EXPECT_EQ(taken(stream.Get()), "23456789");
  EXPECT_THAT(taken_runs(), ElementsAre(7u, 8u)) << "two bytes for one slot, the rest for the next";
  EXPECT_EQ(held(stream), "def");
  EXPECT_EQ(stream.Length(), 3u);
}

TEST_F(ReentrantStream, AGetWithinAGetTakesTheFirstBufferAndTheOuterOneTheNext) {
  Stream stream(1);
  stream.SetMaxFragment(5);
  std::string inner;
  comes_back = [&] { inner = taken(stream.Get()); };
  stream.Add(returning("01234"));
  stream.Add("abcde");
  stream.Add("ABCDE");
  EXPECT_EQ(taken(stream.Get()), "abcde");
  EXPECT_EQ(inner, "01234");
  EXPECT_EQ(stream.Length(), 5u);
  EXPECT_EQ(held(stream), "ABCDE");
}

TEST_F(ReentrantStream, AFlushDuringAGetLeavesNothingToTake) {
  Stream stream(1);
  comes_back = [&] { stream.Flush(); };
  stream.Add(returning("0123456789"));
  stream.Add(guarded("abc", 5));
  EXPECT_EQ(stream.Get(), nullptr);
  EXPECT_THAT(taken_runs(), ElementsAre(5u));
  EXPECT_EQ(stream.Length(), 0u);

  comes_back = [&] {
    stream.Flush();
    stream.Add("new");
  };
  stream.Add(returning("0123456789"));
  EXPECT_EQ(taken(stream.Get()), "new") << "what has come since is taken instead";
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(ReentrantStream, WhatHappensAfterBytesWereMergedDuringAGetIsSeenToo) {
  struct Row {
    const char* name;
    std::function<void(Stream&)> then;
    const char* got;
  };
  const Row rows[] = {
      {"nothing", [](Stream&) {}, "firstmore"},
      {"a byte is consumed", [](Stream& s) { EXPECT_EQ(s.Getc(), 'f'); }, "irstmore"},
      {"more is merged", [](Stream& s) { s.Add("!"); }, "firstmore!"},
      {"the stream is flushed", [](Stream& s) { s.Flush(); }, "none"},
      {"the stream is flushed and filled again",
       [](Stream& s) {
         s.Flush();
         s.Add("new");
       },
       "new"},
      {"the buffer is taken",
       [](Stream& s) {
         EXPECT_EQ(taken(s.Get()), "firstmore");
         s.Add("new");
       },
       "new"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Stream stream(1);
    bool first = true;
    comes_back = [&] {
      if (std::exchange(first, false)) {
        stream.Add(returning("more"));
      } else {
        row.then(stream);
      }
    };
    stream.Add(returning("first"));
    EXPECT_EQ(taken(stream.Get()), row.got);
    EXPECT_EQ(stream.Size(), 0);
    EXPECT_EQ(stream.Length(), 0u);
  }
}

TEST_F(ReentrantStream, ADiscardOfNothingDuringAGetCountsForNothing) {
  Stream stream(1);
  stream.SetMaxFragment(2);
  comes_back = [&] { EXPECT_EQ(stream.Discard(0), 0u); };
  stream.Add(returning("01"));
  stream.Add(guarded("ab", 7));
  EXPECT_EQ(taken(stream.Get()), "01");
  EXPECT_THAT(ran_, IsEmpty()) << "the other buffer's bytes are still there";
  EXPECT_EQ(stream.Length(), 2u);
}

TEST_F(ReentrantStream, AFlushDuringADiscardAccountsForEverything) {
  Stream stream(1);
  comes_back = [&] {
    stream.Flush();
    stream.Add(guarded("new", 9));
  };
  stream.Add(returning("0123456789"));
  stream.Add(guarded("abc", 5));
  EXPECT_EQ(stream.Discard(12), 12u);
  EXPECT_THAT(taken_runs(), ElementsAre(5u)) << "what has come since is not charged for it";
  EXPECT_EQ(held(stream), "new");
  EXPECT_EQ(stream.Length(), 3u);
  EXPECT_EQ(stream.Getc(), 'n');
  EXPECT_THAT(taken_runs(), ElementsAre(9u));
}

TEST_F(ReentrantStream, AFlushWhenADiscardedBufferIsFreedEndsTheDiscard) {
  for (int compress : {0, 1}) {
    SCOPED_TRACE(compress);
    Stream stream(compress);
    comes_back = [&] {
      stream.Flush();
      stream.Add("new");
    };
    OSBuf* buf = OSBuf::Alloc("0123456789");
    buf->AddBufferCallback(returning());
    stream.Add(buf);
    stream.Add("later");
    const ULONG discarded = stream.Discard(1000);
    EXPECT_EQ(discarded, compress != 0 ? 15u : 10u);
    EXPECT_EQ(held(stream), "new");
    EXPECT_EQ(stream.Length(), 3u);
  }
}

TEST_F(ReentrantStream, ADiscardWhenADiscardedBufferIsFreedIsCountedOnce) {
  Stream stream(0);
  comes_back = [&] { EXPECT_EQ(stream.Discard(2), 2u); };
  stream.Add(returning("0123"));
  stream.Add("4567");
  stream.Add("89ab");
  EXPECT_EQ(stream.Discard(6), 6u);
  EXPECT_EQ(held(stream), "89ab");
  EXPECT_EQ(stream.Length(), 4u);
}

TEST_F(ReentrantStream, BytesAddedDuringAFlushStay) {
  Stream stream(1);
  bool once = true;
  comes_back = [&] {
    if (std::exchange(once, false)) stream.Add(guarded("next", 7));
  };
  stream.Add(returning("first"));
  stream.Add(guarded("second", 5));
  stream.Flush();
  EXPECT_THAT(taken_runs(), ElementsAre(5u)) << "the slot that came meanwhile is pending";
  EXPECT_EQ(held(stream), "next");
  EXPECT_EQ(stream.Length(), 4u);
  EXPECT_EQ(stream.Getc(), 'n');
  EXPECT_THAT(taken_runs(), ElementsAre(7u));
}

TEST_F(ReentrantStream, AFlushWithinAFlushCountsTheBytesOnce) {
  Stream stream(1);
  comes_back = [&] {
    stream.Add("meanwhile");
    stream.Flush();
  };
  stream.Add(returning("first"));
  stream.Add(guarded("second", 5));
  stream.Flush();
  EXPECT_EQ(stream.Length(), 0u);
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_THAT(ran_, ElementsAre(5u));
  EXPECT_EQ(stream.comp_r, stream.comp_w);
}

TEST_F(ReentrantStream, ADroppedBufferMayFlushTheStreamThatDropsIt) {
  Stream stream(1);
  stream.SetMaxFragment(5);
  stream.SetMaxLength(1000, 2);
  comes_back = [&] { stream.Flush(); };
  stream.Add(returning("01234"));
  stream.Add("abcde");
  stream.Add("ABCDE");
  EXPECT_EQ(stream.Size(), 0);
  EXPECT_EQ(stream.Length(), 0u);
}

TEST_F(ReentrantStream, ACallbackThatFreesItselfAndIsUsedAgainIsLeftAlone) {
  Stream stream(1), other(1);
  OSCallback* running = nullptr;
  OSCallback* reused = nullptr;
  comes_back = [&] {
    running->Free();
    reused = callback(9);  // the pool hands out what was freed last
    OSBuf* buf = OSBuf::Alloc("other");
    buf->AddDataCallback(reused);
    other.Add(buf);
  };
  running = returning();
  OSBuf* buf = OSBuf::Alloc("text");
  buf->AddDataCallback(callback(1));
  buf->AddDataCallback(running);
  stream.Add(buf);
  EXPECT_EQ(stream.Discard(4), 4u);
  EXPECT_EQ(reused, running);
  EXPECT_THAT(taken_runs(), ElementsAre(1u)) << "the rest of the ring is run";
  EXPECT_EQ(other.comp_callbacks[0].ListLength(), 1);
  other.Flush();
  EXPECT_THAT(ran_, ElementsAre(9u));
}

TEST_F(StreamTest, ANodeWithoutACallbackIsTakenOutOfItsSlot) {
  OSLink nobody;
  Stream stream(1);
  OSBuf* buf = guarded("text", 4);
  buf->data_free_callback.Insert(&nobody);
  stream.Add(buf);
  stream.Getc();
  EXPECT_THAT(ran_, ElementsAre(4u));
  EXPECT_EQ(nobody.next, &nobody);
  stream.Flush();
}

TEST_F(ReentrantStream, ACallbackOfAFlushedStreamMayCancelTheOthers) {
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

}  // namespace
}  // namespace oskernel_test
