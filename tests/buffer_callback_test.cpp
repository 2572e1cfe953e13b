// The callbacks that a message buffer carries: who runs, in which order, and what they may do.

#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/buffer_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BufferCallbacks : public Buffer {};

TEST_F(BufferCallbacks, CallbacksRunDataFirstAndTheLatestFirst) {
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

TEST_F(BufferCallbacks, ACallbackGetsItsThreeArguments) {
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

TEST_F(BufferCallbacks, CallbacksRunOutsideTheBufferSectionAndMayUseBuffers) {
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

TEST_F(BufferCallbacks, ACallbackMayReleaseTheStorageTheBufferRefersTo) {
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

TEST_F(BufferCallbacks, ACallbackMayFreeAnotherBuffer) {
  OSBuf* other = OSBuf::Alloc("other");
  OSBuf* buf = OSBuf::Alloc("buf");
  buf->AddDataCallback(OSCallback::Alloc(
      nullptr, [](OSObj*, ADDR at, ULONG) { static_cast<OSBuf*>(at)->Free(); }, nullptr, other, 0));
  other->AddDataCallback(callback("other"));
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("other0"));
}

TEST_F(BufferCallbacks, ACallbackMayCancelTheCallbacksThatFollow) {
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

TEST_F(BufferCallbacks, ACallbackMayCancelItself) {
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

TEST_F(BufferCallbacks, AddDataCallbackOfABufferMovesItsCallbacksToTheEnd) {
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

TEST_F(BufferCallbacks, NothingIsAddedForNull) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(static_cast<OSCallback*>(nullptr));
  buf->AddBufferCallback(nullptr);
  buf->AddDataCallback(static_cast<OSBuf*>(nullptr));
  EXPECT_TRUE(buf->data_free_callback.IsEmpty());
  EXPECT_TRUE(buf->buffer_free_callback.IsEmpty());
  buf->Free();
}

TEST_F(BufferCallbacks, AddDataCallbackOfTheBufferItselfChangesNothing) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(callback("b", 2));
  buf->AddDataCallback(callback("b", 1));
  buf->AddDataCallback(buf);
  EXPECT_EQ(ring_length(buf->data_free_callback), 2);
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("b1", "b2"));
}

TEST_F(BufferCallbacks, ACallbackThatIsAddedElsewhereLeavesItsRing) {
  OSBuf* first = OSBuf::Alloc(10);
  OSBuf* second = OSBuf::Alloc(10);
  OSCallback* moving = callback("moved");
  first->AddDataCallback(callback("stays", 1));
  first->AddDataCallback(moving);
  first->AddDataCallback(callback("stays", 2));
  second->AddBufferCallback(moving);
  EXPECT_EQ(ring_length(first->data_free_callback), 2);
  EXPECT_EQ(ring_length(second->buffer_free_callback), 1);
  second->AddDataCallback(moving);
  EXPECT_TRUE(second->buffer_free_callback.IsEmpty());
  EXPECT_EQ(ring_length(second->data_free_callback), 1);
  first->Free();
  EXPECT_THAT(ran_, ElementsAre("stays2", "stays1"));
  second->Free();
  EXPECT_THAT(ran_, ElementsAre("stays2", "stays1", "moved0"));
}

TEST_F(BufferCallbacks, AddDataCallbackOfABufferWithoutCallbacksChangesNothing) {
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

TEST_F(BufferCallbacks, FreeingTwiceRunsNoCallbackAgain) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(callback("once"));
  buf->Free();
  buf->Free();
  EXPECT_THAT(ran_, ElementsAre("once0"));
  EXPECT_EQ(console.fatals().size(), 1u);
}

}  // namespace
}  // namespace oskernel_test
