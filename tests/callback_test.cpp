// Pooled callbacks and the records that keep track of them.

#include <algorithm>
#include <atomic>
#include <cstdint>
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

constexpr char kOutOfCallbacks[] = "OSCallback::Alloc Out Of Callbacks";
constexpr ULONG kQuantity = 12;

std::atomic<int> runs{0};
void count_run(OSObj*, ADDR, ULONG) { ++runs; }

class Callback : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FailingNew::reset();
    cfg.callback_qty = static_cast<int>(kQuantity);
    runs = 0;
  }
  void TearDown() override {
    FailingNew::reset();
    if (started_here_) ExpectPoolSound();
    KernelTest::TearDown();
  }
  void Begin() {
    StartQuiet();
    started_here_ = true;
  }
  void ExpectPoolSound() {
    const std::vector<OSLink*> nodes = ring_nodes(OSCallback::callback_pool);
    EXPECT_EQ(nodes.size(), OSCallback::callback_pool_size);
    for (OSLink* node : nodes) EXPECT_EQ(node->object, node);
    EXPECT_EQ(OS_CRITICAL_CALLBACKS.owner_count, 0);
  }
  static OSCallback* plain(OSCallbackRecord* record = nullptr) {
    return OSCallback::Alloc(record, count_run, nullptr, nullptr, 0);
  }
  /// Takes every free callback.
  static std::vector<OSCallback*> take_all() {
    std::vector<OSCallback*> taken;
    while (OSCallback::callback_pool_size > 0) taken.push_back(plain());
    return taken;
  }
  static void give_back(std::vector<OSCallback*>& callbacks) {
    for (OSCallback* callback : callbacks) callback->Free();
    callbacks.clear();
  }

 private:
  bool started_here_ = false;
};

// -------------------------------------------------------------------------------------------------- layout

TEST_F(Callback, FieldsStandInTheirOrder) {
  OSCallback callback;
  const std::vector<const void*> fields = {&callback.callback_function, &callback.callback_record,
                                           &callback.object, &callback.addr, &callback.value};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
  static_assert(sizeof(callback.value) == 4 && sizeof(OSCallback::callback_pool_size) == 4);
  static_assert(sizeof(OSCallbackRecord) == sizeof(OSIndirectList), "a record adds no data");
}

TEST_F(Callback, VirtualOperationsStandInTheirSlots) {
  EXPECT_EQ(vtable_slot(&OSCallback::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSCallback::Free), 3);
}

TEST_F(Callback, TheArgumentDoesNotHideTheLinksObject) {
  OSCallback callback;
  EXPECT_EQ(static_cast<OSLink&>(callback).object, nullptr);
  EXPECT_NE(static_cast<void*>(&static_cast<OSLink&>(callback).object), static_cast<void*>(&callback.object));
}

// ---------------------------------------------------------------------------------------------------- pool

TEST_F(Callback, TheStartMakesTheConfiguredCallbacks) {
  cfg = KernelCfg();
  Begin();
  EXPECT_EQ(OSCallback::callback_pool_size, 400u);
  Stop();
  cfg.callback_qty = 7;
  StartQuiet();
  EXPECT_EQ(OSCallback::callback_pool_size, 7u);
}

TEST_F(Callback, CallbacksLieApartAndAligned) {
  Begin();
  std::vector<std::uintptr_t> addresses;
  for (OSLink* node : ring_nodes(OSCallback::callback_pool)) {
    addresses.push_back(reinterpret_cast<std::uintptr_t>(static_cast<OSCallback*>(node->object)));
  }
  std::sort(addresses.begin(), addresses.end());
  ASSERT_EQ(addresses.size(), kQuantity);
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    EXPECT_EQ(addresses[i] % alignof(OSCallback), 0u);
    if (i > 0) {
      EXPECT_GE(addresses[i] - addresses[i - 1], sizeof(OSCallback));
    }
  }
}

TEST_F(Callback, AllocStoresWhatToCallAndDetachesTheCallback) {
  Begin();
  int place = 0;
  OSObj* object = reinterpret_cast<OSObj*>(&place);
  OSCallback* callback = OSCallback::Alloc(nullptr, count_run, object, &place, 99);
  ASSERT_NE(callback, nullptr);
  EXPECT_EQ(callback->callback_function, count_run);
  EXPECT_EQ(callback->callback_record, nullptr);
  EXPECT_EQ(callback->object, object);
  EXPECT_EQ(callback->addr, &place);
  EXPECT_EQ(callback->value, 99u);
  OSLink* link = callback;
  EXPECT_EQ(link->next, link);
  EXPECT_EQ(link->previous, link);
  EXPECT_EQ(link->object, nullptr);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 1);
  EXPECT_EQ(runs, 0);
  callback->Free();
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  EXPECT_EQ(link->object, static_cast<void*>(callback));
  EXPECT_EQ(runs, 0) << "a return does not run it";
}

TEST_F(Callback, TheCallbackFreedLastIsHandedOutFirst) {
  Begin();
  OSCallback* a = plain();
  OSCallback* b = plain();
  a->Free();
  b->Free();
  EXPECT_EQ(plain(), b);
  EXPECT_EQ(plain(), a);
  a->Free();
  b->Free();
}

TEST_F(Callback, ExecuteCallsTheFunctionAsOftenAsItIsAsked) {
  Begin();
  OSCallback* callback = plain();
  callback->Execute();
  callback->Execute();
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 1) << "running does not free it";
  callback->Free();
}

TEST_F(Callback, AnEmptyPoolWarnsAndReturnsNull) {
  Begin();
  std::vector<OSCallback*> held = take_all();
  EXPECT_EQ(held.size(), kQuantity);
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_EQ(plain(), nullptr);
  EXPECT_THAT(console.calls(), ElementsAre("WARNING:\r\n", kOutOfCallbacks, "\r\n"));
  EXPECT_THAT(console.fatals(), IsEmpty());
  {
    OSCallbackRecord record;
    EXPECT_EQ(plain(&record), nullptr);
    EXPECT_EQ(record.Size(), 0);
  }
  EXPECT_EQ(console.count(kOutOfCallbacks), 2);
  EXPECT_EQ(OSCallback::callback_pool_size, 0u);
  ExpectPoolSound();
  std::thread([] { EXPECT_EQ(plain(), nullptr); }).join();

  held.back()->Free();
  held.pop_back();
  OSCallback* again = plain();
  EXPECT_NE(again, nullptr) << "the system carries on";
  held.push_back(again);
  give_back(held);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(Callback, AnEmptyPoolWithoutAConsoleReturnsNull) {
  Begin();
  std::vector<OSCallback*> held = take_all();
  Console = nullptr;
  EXPECT_EQ(plain(), nullptr);
  Console = &console;
  give_back(held);
}

TEST_F(Callback, ThePoolNeverGrows) {
  Begin();
  std::vector<OSCallback*> held = take_all();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(plain(), nullptr);
  give_back(held);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(Callback, TheWarningComesOutsideTheSection) {
  class Watching : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      held = held || OS_CRITICAL_CALLBACKS.owner_count != 0;
      RecordingConsole::vPrint(format, arguments);
    }
    bool held = false;
  };
  Begin();
  std::vector<OSCallback*> taken = take_all();
  Watching watching;
  Console = &watching;
  EXPECT_EQ(plain(), nullptr);
  EXPECT_EQ(watching.count(kOutOfCallbacks), 1);
  EXPECT_FALSE(watching.held);
  Console = &console;
  give_back(taken);
}

TEST_F(Callback, AQuantityOfNothingMakesAnEmptyPool) {
  for (int quantity : {0, -1, INT32_MIN}) {
    SCOPED_TRACE(quantity);
    cfg.callback_qty = quantity;
    console.clear();
    StartQuiet();
    EXPECT_EQ(OSCallback::callback_pool_size, 0u);
    EXPECT_EQ(plain(), nullptr);
    EXPECT_EQ(console.count(kOutOfCallbacks), 1);
    EXPECT_THAT(console.fatals(), IsEmpty());
    OSBuf::Alloc("still works")->Free();
    Stop();
  }
}

TEST_F(Callback, AHeapThatCannotGiveABlockLeavesAUsablePool) {
  cfg.callback_qty = 50000;
  FailingNew::fail_at_least(50000 * sizeof(OSCallback));
  Begin();
  FailingNew::reset();
  ExpectPoolSound();
  OSCallback* callback = plain();
  if (callback == nullptr) {
    EXPECT_EQ(console.count(kOutOfCallbacks), 1);
  } else {
    callback->Execute();
    EXPECT_EQ(runs, 1);
    callback->Free();
  }
  ExpectPoolSound();
}

TEST_F(Callback, OutsideTheBlockCallbacksLieOnTheHeap) {
  Begin();
  OSCallback* own = new OSCallback;
  ASSERT_NE(own, nullptr);
  OSLinkHead ring;
  ring.Insert(own, own);
  delete own;
  EXPECT_TRUE(ring.IsEmpty()) << "it leaves the ring it is in";
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(Callback, EachStartBuildsThePoolAnew) {
  for (int round = 0; round < 50; ++round) {
    cfg.callback_qty = 1 + round % 5;
    StartQuiet();
    ASSERT_EQ(OSCallback::callback_pool_size, static_cast<ULONG>(cfg.callback_qty));
    ASSERT_EQ(ring_length(OSCallback::callback_pool), cfg.callback_qty);
    OSCallback* callback = plain();
    ASSERT_NE(callback, nullptr);
    if (round % 2 == 0) callback->Free();  // otherwise it is forgotten
    Stop();
  }
}

// -------------------------------------------------------------------------------------------------- records

TEST_F(Callback, ARecordListsItsCallbacks) {
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

TEST_F(Callback, AReusedCallbackForgetsItsRecord) {
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

TEST_F(Callback, CancelCallbacksReleasesThemWithoutRunningThem) {
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

TEST_F(Callback, DestroyingTheRecordCancels) {
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

TEST_F(Callback, FreeingTheBufferEmptiesTheRecord) {
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

TEST_F(Callback, FlushingARingReturnsItsCallbacksWithoutRunningThem) {
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

TEST_F(Callback, ManyRecordsKeepTheirOwn) {
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

TEST_F(Callback, ARecordMayOutliveThePool) {
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

// -------------------------------------------------------------------------------------------------- threads

TEST_F(Callback, ThreadsNeverShareACallback) {
  cfg.callback_qty = 40;
  Begin();
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  OSCallbackRecord shared;
  for (ULONG t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::vector<OSCallback*> held;
      for (int round = 0; round < 2000; ++round) {
        OSCallback* callback =
            OSCallback::Alloc(round % 3 == 0 ? &shared : nullptr, count_run, nullptr, &held, t);
        if (callback == nullptr) {
          ++wrong;
          continue;
        }
        held.push_back(callback);
        if (held.size() < 9) continue;
        for (OSCallback* mine : held) {
          if (mine->addr != &held || mine->value != t) ++wrong;
          mine->Free();
        }
        held.clear();
      }
      for (OSCallback* mine : held) mine->Free();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(shared.Size(), 0) << "one record may serve many threads";
  EXPECT_TRUE(ListIsSound(shared));
  EXPECT_EQ(OSCallback::callback_pool_size, 40u);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_F(Callback, ThePoolIsLockedWhileACallbackMoves) {
  Begin();
  OSCallback* mine = plain();
  EnterCriticalSection(&OS_CRITICAL_CALLBACKS);
  std::atomic<int> done{0};
  std::thread alloc([&] {
    OSCallback* callback = plain();
    ++done;
    callback->Free();
  });
  std::thread free([&] {
    mine->Free();
    ++done;
  });
  EXPECT_FALSE(wait_until([&] { return done != 0; }, 50));
  LeaveCriticalSection(&OS_CRITICAL_CALLBACKS);
  alloc.join();
  free.join();
}

// --------------------------------------------------------------------------------------------------- random

TEST_F(Callback, RandomUseRunsEachCallbackOnceOrCancelsIt) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  cfg.callback_qty = 60;
  Begin();
  static std::vector<int> executed;
  executed.clear();
  struct Planned {
    bool cancelled = false;
    bool due = false;
    int record = -1;
    std::size_t buffer = 0;
  };
  std::vector<Planned> planned;
  constexpr std::size_t kBuffers = 5;
  std::vector<OSBuf*> buffers;
  for (std::size_t i = 0; i < kBuffers; ++i) buffers.push_back(OSBuf::Alloc(10));
  auto records = std::make_unique<OSCallbackRecord[]>(3);
  int out = 0;
  for (int round = 0; round < 5000; ++round) {
    const std::size_t b = static_cast<std::size_t>(pick(random, 0, kBuffers - 1));
    switch (pick(random, 0, 9)) {
      case 0: {  // free a buffer: what it holds runs
        buffers[b]->Free();
        for (std::size_t i = 0; i < planned.size(); ++i) {
          if (planned[i].buffer == b && !planned[i].cancelled && !planned[i].due) {
            planned[i].due = true;
            --out;
          }
        }
        buffers[b] = OSBuf::Alloc(10);
        break;
      }
      case 1: {
        const int r = pick(random, 0, 2);
        records[static_cast<std::size_t>(r)].CancelCallbacks();
        for (Planned& one : planned) {
          if (one.record == r && !one.due && !one.cancelled) {
            one.cancelled = true;
            --out;
          }
        }
        break;
      }
      default: {
        const int r = pick(random, -1, 2);
        OSCallback* callback = OSCallback::Alloc(
            r < 0 ? nullptr : &records[static_cast<std::size_t>(r)],
            [](OSObj*, ADDR, ULONG number) { ++executed[number]; }, nullptr, nullptr,
            static_cast<ULONG>(planned.size()));
        ASSERT_EQ(callback == nullptr, out == 60);
        if (callback == nullptr) break;
        executed.push_back(0);
        planned.push_back({false, false, r, b});
        ++out;
        if (pick(random, 0, 1) == 0) {
          buffers[b]->AddDataCallback(callback);
        } else {
          buffers[b]->AddBufferCallback(callback);
        }
        break;
      }
    }
    ASSERT_EQ(OSCallback::callback_pool_size, static_cast<ULONG>(60 - out));
    int recorded = 0, listed = 0;
    for (std::size_t r = 0; r < 3; ++r) listed += records[r].Size();
    for (const Planned& one : planned) recorded += one.record >= 0 && !one.due && !one.cancelled ? 1 : 0;
    ASSERT_EQ(listed, recorded);
  }
  for (OSBuf* buf : buffers) buf->Free();
  for (std::size_t i = 0; i < planned.size(); ++i) ASSERT_EQ(executed[i], planned[i].cancelled ? 0 : 1) << i;
  EXPECT_EQ(OSCallback::callback_pool_size, 60u);
}

}  // namespace
}  // namespace oskernel_test
