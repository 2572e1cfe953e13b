// The records that keep track of callbacks, and what callbacks may do while they are being run.

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "support/callback_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::IsEmpty;

class CallbackRecords : public Callback {};
class RunningCallbacks : public Callback {};

TEST_F(CallbackRecords, ARecordListsItsCallbacks) {
  Begin();
  const ULONG links = OSLink::link_pool_size;
  OSCallbackRecord record;
  OSCallback* a = plain(&record);
  OSCallback* b = plain(&record);
  OSCallback* other = plain();
  EXPECT_EQ(record.Size(), 2);
  EXPECT_EQ(OSLink::link_pool_size, links - 2);
  EXPECT_EQ(a->callback_record, &record);
  EXPECT_EQ(as<OSCallback>(record.FirstObject()), a);
  EXPECT_EQ(as<OSCallback>(record.LastObject()), b);
  a->Free();
  EXPECT_EQ(record.Size(), 1);
  EXPECT_EQ(a->callback_record, nullptr);
  EXPECT_EQ(OSLink::link_pool_size, links - 1);
  b->Free();
  other->Free();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSLink::link_pool_size, links);
  EXPECT_TRUE(ListIsSound(record));
}

TEST_F(CallbackRecords, AReusedCallbackForgetsItsRecord) {
  Begin();
  OSCallbackRecord record;
  OSCallback* callback = plain(&record);
  callback->Free();
  OSCallback* again = plain();
  ASSERT_EQ(again, callback);
  EXPECT_EQ(again->callback_record, nullptr);
  again->Free();
  again = plain(&record);
  EXPECT_EQ(record.Size(), 1);
  again->Free();
}

TEST_F(CallbackRecords, CancelCallbacksReleasesThemWithoutRunningThem) {
  Begin();
  const ULONG links = OSLink::link_pool_size;
  OSCallbackRecord record;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(plain(&record));
  buf->AddBufferCallback(plain(&record));
  plain(&record);  // detached
  OSCallback* kept = plain();
  buf->AddDataCallback(kept);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 4);
  record.CancelCallbacks();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 1);
  EXPECT_EQ(OSLink::link_pool_size, links - 1) << "the allocated buffer has one";
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(buf->data_free_callback.ListLength(), 1);
  EXPECT_TRUE(buf->buffer_free_callback.IsEmpty());
  record.CancelCallbacks();
  buf->Free();
  EXPECT_EQ(runs, 1) << "only the one that no record cancelled";
}

TEST_F(CallbackRecords, DestroyingTheRecordCancels) {
  Begin();
  OSBuf* buf = OSBuf::Alloc(10);
  {
    OSCallbackRecord record;
    for (int i = 0; i < 5; ++i) buf->AddBufferCallback(plain(&record));
    EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 5);
  }
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  buf->Free();
  EXPECT_EQ(runs, 0);
}

TEST_F(CallbackRecords, FreeingTheBufferEmptiesTheRecord) {
  Begin();
  OSCallbackRecord record;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(plain(&record));
  buf->AddBufferCallback(plain(&record));
  buf->Free();
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(CallbackRecords, FlushingARingReturnsItsCallbacksWithoutRunningThem) {
  Begin();
  OSLinkHead ring;
  for (int i = 0; i < 4; ++i) {
    OSCallback* callback = plain();
    ring.Insert(callback, callback);
  }
  ring.Flush();
  EXPECT_TRUE(ring.IsEmpty());
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  EXPECT_EQ(runs, 0);
}

TEST_F(CallbackRecords, ManyRecordsKeepTheirOwn) {
  Begin();
  OSCallbackRecord records[3];
  std::vector<OSCallback*> callbacks;
  for (int i = 0; i < 9; ++i) callbacks.push_back(plain(&records[i % 3]));
  records[1].CancelCallbacks();
  EXPECT_EQ(records[0].Size(), 3);
  EXPECT_EQ(records[1].Size(), 0);
  EXPECT_EQ(records[2].Size(), 3);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 6);
}

TEST_F(CallbackRecords, ARecordMayOutliveThePool) {
  OSCallbackRecord record;
  for (int round = 0; round < 3; ++round) {
    StartQuiet();
    const ULONG links = OSLink::link_pool_size;
    OSBuf* buf = OSBuf::Alloc(10);
    buf->AddBufferCallback(plain(&record));
    plain(&record);
    EXPECT_EQ(record.Size(), 2);
    Stop();
    EXPECT_EQ(record.Size(), 0) << "it refers to nothing that is gone";
    EXPECT_TRUE(ListIsSound(record));
    EXPECT_EQ(OSLink::link_pool_size, links);
  }
  StartQuiet();
  record.CancelCallbacks();
  OSCallback* callback = plain(&record);
  EXPECT_EQ(record.Size(), 1);
  callback->Free();
  EXPECT_EQ(runs, 0);
}

// Programs that list a callback themselves, or empty a record by other means, are on their own; but neither the
// record nor the pools may suffer.
TEST_F(CallbackRecords, ARingMayOutliveThePoolToo) {
  StartQuiet();
  OSLinkHead ring;
  for (int i = 0; i < 3; ++i) {
    OSCallback* callback = plain();
    ring.Insert(callback, callback);
  }
  Stop();
  EXPECT_TRUE(ring.IsEmpty());
  EXPECT_EQ(OSCallback::callback_pool_size, 0u);
  StartQuiet();
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(CallbackRecords, ARecordThatWasFlushedIsLeftAlone) {
  Begin();
  const ULONG links = OSLink::link_pool_size;
  OSCallbackRecord record;
  OSIndirectList other;
  OSBuf objects[2];
  OSCallback* a = plain(&record);
  OSCallback* b = plain(&record);
  record.Flush();
  EXPECT_EQ(OSLink::link_pool_size, links);
  a->Free();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSLink::link_pool_size, links);
  // Somebody else has the links by now.
  for (OSBuf& object : objects) other.Append(&object);
  b->Free();
  EXPECT_EQ(other.Size(), 2);
  EXPECT_TRUE(ListIsSound(other));
  EXPECT_EQ(OSLink::link_pool_size, links - 2);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(CallbackRecords, ACallbackThatTheProgramListsItselfIsTakenOutAndFreed) {
  Begin();
  const ULONG links = OSLink::link_pool_size;
  OSCallbackRecord record;
  OSCallbackRecord other;
  OSCallback* none = plain();
  record.Append(none);
  none->callback_record = &record;
  none->Free();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSLink::link_pool_size, links);

  OSBuf* buf = OSBuf::Alloc(0);
  OSCallback* others = plain(&other);
  none = plain();
  buf->AddBufferCallback(none);
  record.Append(others);
  record.Append(none);
  OSCallback* twice = plain(&record);
  record.Append(twice);
  EXPECT_EQ(record.Size(), 4);
  record.CancelCallbacks();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(other.Size(), 0);
  EXPECT_TRUE(buf->buffer_free_callback.IsEmpty());
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  ExpectPoolSound();
  buf->Free();
  EXPECT_EQ(OSLink::link_pool_size, links);
  EXPECT_EQ(runs, 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

// -------------------------------------------------------------------------------- while a callback is being run

/// A callback of the program's own kind, which does not go to the pool.
struct Kept : OSCallback {
  void Free() override { ++freed; }
  int freed = 0;
};

TEST_F(RunningCallbacks, AKindThatReturnsElsewhereLeavesItsRingFirst) {
  Begin();
  Kept kept;
  kept.callback_function = count_run;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(&kept);
  buf->Free();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(kept.freed, 1);
  EXPECT_EQ(static_cast<OSLink&>(kept).object, nullptr);
  {
    OSBuf own;
    own.AddBufferCallback(&kept);
  }
  EXPECT_EQ(kept.freed, 2);
  OSCallbackRecord record;
  buf = OSBuf::Alloc(10);
  buf->AddDataCallback(&kept);
  record.Append(&kept);
  record.CancelCallbacks();
  EXPECT_EQ(kept.freed, 3);
  EXPECT_TRUE(buf->data_free_callback.IsEmpty());
  buf->Free();
  EXPECT_EQ(runs, 1);
}

OSBuf* running_buf = nullptr;
OSBuf* other_buf = nullptr;
OSCallback* running = nullptr;

/// Frees a buffer with a callback that counts, one that does `what`, and another that counts.
void run_between_two(OSCallbackFunction what) {
  running_buf = OSBuf::Alloc(10);
  running = OSCallback::Alloc(nullptr, what, nullptr, nullptr, 0);
  running_buf->AddDataCallback(OSCallback::Alloc(nullptr, count_run, nullptr, nullptr, 0));
  running_buf->AddDataCallback(running);
  running_buf->AddDataCallback(OSCallback::Alloc(nullptr, count_run, nullptr, nullptr, 0));
  running_buf->Free();
}

TEST_F(RunningCallbacks, ACallbackThatAddsAnotherRunsOnce) {
  Begin();
  static int added;
  added = 0;
  run_between_two([](OSObj*, ADDR, ULONG) {
    ++added;
    running_buf->AddDataCallback(OSCallback::Alloc(nullptr, count_run, nullptr, nullptr, 0));
    running_buf->AddBufferCallback(OSCallback::Alloc(nullptr, count_run, nullptr, nullptr, 0));
  });
  EXPECT_EQ(added, 1);
  EXPECT_EQ(runs, 4) << "the two that it added run as well";
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(RunningCallbacks, ACallbackThatFreesItselfAndIsTakenAgainRunsAsWhatItIsThen) {
  Begin();
  run_between_two([](OSObj*, ADDR, ULONG) {
    running->Free();
    OSCallback* again = OSCallback::Alloc(nullptr, count_run, nullptr, nullptr, 0);
    EXPECT_EQ(again, running);
    running_buf->AddDataCallback(again);
  });
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(RunningCallbacks, ACallbackThatMovesToAnotherBufferRunsThereToo) {
  Begin();
  other_buf = OSBuf::Alloc(10);
  run_between_two([](OSObj*, ADDR, ULONG) {
    running->callback_function = count_run;
    other_buf->AddBufferCallback(running);
  });
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(ring_length(other_buf->buffer_free_callback), 1);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 1);
  other_buf->Free();
  EXPECT_EQ(runs, 3);
}

TEST_F(RunningCallbacks, ACallbackFromTheHeapMayDeleteItself) {
  Begin();
  auto* own = new CountedCallback;
  own->callback_function = [](OSObj*, ADDR at, ULONG) { delete static_cast<CountedCallback*>(at); };
  own->addr = own;
  OSBuf* buf = OSBuf::Alloc(10);
  buf->AddDataCallback(plain());
  buf->AddDataCallback(own);
  buf->Free();
  EXPECT_EQ(CountedCallback::destroyed, 1);
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace oskernel_test
