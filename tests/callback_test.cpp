// The pool of callbacks: taking, returning, exhaustion, stop and start, threads.

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
#include "support/callback_fixture.h"
#include "support/link_drought.h"
#include "support/section_watch.h"
#include "support/seed.h"
#include "support/vtable_slot.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// -------------------------------------------------------------------------------------------------- layout

TEST_F(Callback, ACallbackCanBeMadeBeforeTheStart) {
  const auto own = std::make_unique<OSCallback>();
  EXPECT_EQ(own->callback_function, nullptr);
  EXPECT_EQ(own->callback_record, nullptr);
  EXPECT_EQ(own->object, nullptr);
  EXPECT_EQ(own->addr, nullptr);
  EXPECT_EQ(own->value, 0u);
  EXPECT_EQ(static_cast<OSLink&>(*own).object, nullptr);
  own->Execute();  // calls nothing
}

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
  EXPECT_TRUE(std::is_sorted(addresses.rbegin(), addresses.rend())) << "the one made last comes first";
  std::sort(addresses.begin(), addresses.end());
  ASSERT_EQ(addresses.size(), kQuantity);
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    EXPECT_EQ(addresses[i] % alignof(OSCallback), 0u);
    if (i > 0) {
      EXPECT_EQ(addresses[i] - addresses[i - 1], sizeof(OSCallback)) << "one block";
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
  Begin();
  std::vector<OSCallback*> taken = take_all();
  {
    const SectionWatch watch(&OS_CRITICAL_CALLBACKS);
    EXPECT_EQ(plain(), nullptr);
    EXPECT_EQ(watch.count(kOutOfCallbacks), 1);
    EXPECT_EQ(watch.calls_inside(), 0);
    give_back(taken);
    OSCallbackRecord record;
    const LinkDrought drought;
    EXPECT_EQ(plain(&record), nullptr);
    EXPECT_THAT(watch.fatals(), ElementsAre(kOutOfLinks));
    EXPECT_EQ(watch.calls_inside(), 0);
  }
}

// A program reacts to the warning by giving up what it wanted to do; the end that a lack of links brings would be
// the answer to another question.
TEST_F(Callback, OfTwoEmptyPoolsTheCallbacksAreReported) {
  Begin();
  std::vector<OSCallback*> held = take_all();
  {
    OSCallbackRecord record;
    const LinkDrought drought;
    EXPECT_EQ(plain(&record), nullptr);
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_THAT(console.calls(), ElementsAre("WARNING:\r\n", kOutOfCallbacks, "\r\n"));
    EXPECT_EQ(record.Size(), 0);
  }
  give_back(held);
}

TEST_F(Callback, WithoutALinkForTheRecordNoneIsHandedOut) {
  Begin();
  OSCallbackRecord record;
  {
    const LinkDrought drought;
    EXPECT_EQ(plain(&record), nullptr);
    EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
    EXPECT_EQ(console.count(kOutOfCallbacks), 0);
    EXPECT_EQ(record.Size(), 0);
    EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
    ExpectPoolSound();
    OSCallback* unrecorded = plain();
    ASSERT_NE(unrecorded, nullptr) << "which needs no link";
    EXPECT_EQ(unrecorded->callback_record, nullptr);
    unrecorded->Free();
  }
  OSCallback* callback = plain(&record);
  ASSERT_NE(callback, nullptr);
  EXPECT_EQ(record.Size(), 1);
  callback->Free();
}

TEST_F(Callback, AnEmptyLinkPoolGrowsForARecord) {
  Begin();
  OSCallbackRecord record;
  const LinkDrought drought;
  FailingNew::reset();
  OSCallback* callback = plain(&record);
  ASSERT_NE(callback, nullptr);
  EXPECT_EQ(record.Size(), 1);
  EXPECT_THAT(console.calls(), IsEmpty());
  callback->Free();
}

TEST_F(Callback, FreeingTwiceHasNoEffect) {
  Begin();
  OSCallback* a = plain();
  OSCallback* b = plain();
  a->Free();
  a->Free();
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 1);
  ExpectPoolSound();
  b->Free();
  a->Free();
  EXPECT_EQ(plain(), b) << "nor does it change the order";
  b->Free();
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_F(Callback, FreeingAnArmedCallbackTakesItOutOfItsRing) {
  Begin();
  OSBuf* buf = OSBuf::Alloc(10);
  OSCallback* armed = plain();
  buf->AddDataCallback(plain());
  buf->AddDataCallback(armed);
  buf->AddDataCallback(plain());
  armed->Free();
  EXPECT_EQ(ring_length(buf->data_free_callback), 2);
  ExpectPoolSound();
  buf->Free();
  EXPECT_EQ(runs, 2);
}

TEST_F(Callback, ACallbackWithoutFunctionDoesNothing) {
  Begin();
  OSBuf* buf = OSBuf::Alloc(10);
  OSCallback* callback = OSCallback::Alloc(nullptr, nullptr, nullptr, nullptr, 5);
  ASSERT_NE(callback, nullptr);
  EXPECT_EQ(callback->callback_function, nullptr);
  callback->Execute();
  buf->AddDataCallback(callback);
  buf->Free();
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
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
  EXPECT_EQ(OSCallback::callback_pool_size, 0u);
  EXPECT_EQ(plain(), nullptr);
  EXPECT_EQ(console.count(kOutOfCallbacks), 1);
  ExpectPoolSound();
}

TEST_F(Callback, WithoutABlockTheStopDestroysWhatIsInThePool) {
  cfg.callback_qty = 0;
  StartQuiet();
  for (int i = 0; i < 3; ++i) (new CountedCallback)->Free();
  EXPECT_EQ(OSCallback::callback_pool_size, 3u);
  OSCallback* callback = plain();
  ASSERT_NE(callback, nullptr) << "the pool lives on what it is given";
  callback->Execute();
  EXPECT_EQ(runs, 1);
  callback->Free();
  ExpectPoolSound();
  Stop();
  EXPECT_EQ(CountedCallback::destroyed, 3);
  EXPECT_EQ(OSCallback::callback_pool_size, 0u);
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

TEST_F(Callback, CallbacksThatAreDeletedAreMissingUntilTheNextStart) {
  Begin();
  const ULONG links = OSLink::link_pool_size;
  OSCallbackRecord record;
  std::vector<OSCallback*> held;
  for (ULONG i = 0; i < kQuantity; ++i) held.push_back(plain(&record));
  std::sort(held.begin(), held.end());
  // The first and the last of the block, neighbours in the middle, in their record and in a ring.
  {
    OSLinkHead owning(1);
    for (std::size_t i : {5u, 6u, 0u, 11u, 4u}) owning.Insert(held[i], held[i]);
  }
  EXPECT_EQ(record.Size(), 7);
  EXPECT_TRUE(ListIsSound(record));
  EXPECT_EQ(OSLink::link_pool_size, links - 7);
  EXPECT_EQ(OSCallback::callback_pool_size, 0u);
  held[1]->Free();
  held[2]->Free();
  held[3]->Free();
  EXPECT_EQ(OSCallback::callback_pool_size, 3u);
  delete held[2];  // in the pool, even
  EXPECT_EQ(OSCallback::callback_pool_size, 2u);
  ExpectPoolSound();
  OSCallback* again = plain();
  EXPECT_EQ(again, held[3]);
  EXPECT_EQ(record.Size(), 4);
  Stop();
  EXPECT_EQ(record.Size(), 0) << "those that were left";
  EXPECT_EQ(OSLink::link_pool_size, links);
  StartQuiet();
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
}

TEST_F(Callback, ACallbackFromTheHeapMayServeThePool) {
  Begin();
  OSCallbackRecord record;
  const ULONG links = OSLink::link_pool_size;
  auto* own = new OSCallback;
  own->Free();
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity + 1);
  OSCallback* callback = plain(&record);
  ASSERT_EQ(callback, own);
  EXPECT_EQ(record.Size(), 1);
  delete own;
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSLink::link_pool_size, links);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  own = new OSCallback;
  own->Free();
  delete own;
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  ExpectPoolSound();
}

TEST_F(Callback, ASecondStartWithoutAStopBuildsThePoolAnew) {
  Begin();
  OSCallbackRecord record;
  plain(&record);
  plain(&record);
  OSCallback::Initialise();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity);
  ExpectPoolSound();
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
  OSCallbackRecord record;
  OSCallback* moving[] = {plain(), plain(&record), plain(&record)};
  EnterCriticalSection(&OS_CRITICAL_CALLBACKS);
  {
    WatchedThread alloc([] { plain()->Free(); });
    WatchedThread free([&] { moving[0]->Free(); });
    WatchedThread free_recorded([&] { moving[1]->Free(); });
    EXPECT_TRUE(alloc.blocked());
    EXPECT_TRUE(free.blocked());
    EXPECT_TRUE(free_recorded.blocked());
    EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 3);
    EXPECT_EQ(record.Size(), 2);
    LeaveCriticalSection(&OS_CRITICAL_CALLBACKS);
  }
  EXPECT_EQ(OSCallback::callback_pool_size, kQuantity - 1);
  EXPECT_EQ(record.Size(), 1);
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
