// The rings of large receive buffers: what they lend, how buffers come home, and what freeing threads may do at once.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/network_fixture.h"
#include "support/ring_fixture.h"
#include "support/vtable_slot.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

static_assert(std::is_base_of_v<OSListObj, RingBuffer>);
static_assert(std::is_base_of_v<OSBuf, SocketBuffer>);
static_assert(std::is_base_of_v<OSLinkListObj, SocketLink>);
static_assert(std::is_same_v<decltype(RingBuffer::bufs), SocketBuffer**>);
static_assert(std::is_same_v<decltype(RingBuffer::ring), OSBuf**>);
static_assert(std::is_same_v<decltype(RingBuffer::size), int>);
static_assert(std::is_same_v<decltype(RingBuffer::rp), int>);
static_assert(std::is_same_v<decltype(RingBuffer::wp), int>);
static_assert(std::is_same_v<decltype(RingBuffer::traceCount), int>);
static_assert(std::is_same_v<decltype(SocketBuffer::parent), RingBuffer*>);
static_assert(std::is_same_v<decltype(SocketLink::s), int>);
static_assert(std::is_same_v<decltype(SocketLink::rem_sin), SockAddr>);

constexpr char kFreedTwice[] = "SocketBuffer::Free = buffer freed twice!";

class Ring : public RingTest {};

// ---- A new ring --------------------------------------------------------------------------------------------------

TEST_F(Ring, LendsOneBufferLessThanItHas) {
  for (const int size : {2, 3, 7, 32, 100}) {
    SCOPED_TRACE(size);
    const auto ring = std::make_unique<RingBuffer>(size);
    EXPECT_EQ(ring->size, size);
    EXPECT_EQ(ring->rp, 0);
    EXPECT_EQ(ring->wp, size - 1);
    EXPECT_EQ(ring->traceCount, 0);
    EXPECT_EQ(ring->Size(), size - 1);
    std::vector<OSBuf*> lent;
    for (int i = 0; i < size - 1; ++i) {
      OSBuf* buf = ring->Get();
      ASSERT_NE(buf, nullptr);
      EXPECT_EQ(buf, ring->bufs[i]) << "in the order in which they were put in";
      lent.push_back(buf);
      EXPECT_EQ(ring->rp, (i + 1) % size);
    }
    EXPECT_EQ(ring->Get(), nullptr);
    EXPECT_EQ(ring->Size(), 0);
    EXPECT_EQ(ring->rp, ring->wp) << "empty";
    for (OSBuf* buf : lent) buf->Free();
    EXPECT_EQ(ring->rp, (ring->wp + 1) % size) << "full";
  }
}

TEST_F(Ring, KeepsTheLastBufferOutsideForGood) {
  const auto ring = std::make_unique<RingBuffer>(32);
  std::set<OSBuf*> seen;
  for (int i = 0; i < 200; ++i) {
    OSBuf* buf = ring->Get();
    ASSERT_NE(buf, nullptr);
    seen.insert(buf);
    buf->Free();
  }
  EXPECT_EQ(seen.size(), 31u);
  EXPECT_EQ(seen.count(ring->bufs[31]), 0u);
  EXPECT_EQ(ring->bufs[31]->length, 0x5555);
}

TEST_F(Ring, LeavesNullBehindWhenItIsEmptyAndNothingElse) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* buf = ring->Get();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ring->Get(), nullptr);
  EXPECT_EQ(ring->rp, 1);
  EXPECT_EQ(ring->wp, 1);
  buf->Free();
  EXPECT_EQ(ring->Get(), buf);
  buf->Free();
}

// Deliberate: the difference is taken in 32 bits without sign before the remainder, so a ring whose size is no power
// of two reports another number once the write index has wrapped.
TEST_F(Ring, SizeIsTheUnsignedDifferenceModuloItsSize) {
  for (const int size : {2, 3, 5, 7, 8, 32, 33}) {
    const auto ring = std::make_unique<RingBuffer>(size);
    for (int step = 0; step < 3 * size; ++step) {
      const auto expected = static_cast<int>((static_cast<ULONG>(ring->wp) - static_cast<ULONG>(ring->rp)) %
                                             static_cast<ULONG>(size));
      EXPECT_EQ(ring->Size(), expected) << size << ": " << ring->wp << " " << ring->rp;
      OSBuf* buf = ring->Get();
      ASSERT_NE(buf, nullptr);
      buf->Free();
    }
  }
  const auto ring = std::make_unique<RingBuffer>(3);
  OSBuf* first = ring->Get();
  OSBuf* second = ring->Get();
  first->Free();
  EXPECT_EQ(ring->rp, 2);
  EXPECT_EQ(ring->wp, 0);
  EXPECT_EQ(ring->Size(), 2) << "(2^32 - 2) modulo 3";
  second->Free();
}

TEST_F(Ring, FieldsStandInTheirOrder) {
  const auto ring = std::make_unique<RingBuffer>(2);
  const auto at = [&](const void* field) {
    return reinterpret_cast<const char*>(field) - reinterpret_cast<const char*>(ring.get());
  };
  EXPECT_EQ(at(&ring->bufs), static_cast<long>(sizeof(OSListObj)));
  EXPECT_LT(at(&ring->bufs), at(&ring->ring));
  EXPECT_LT(at(&ring->ring), at(&ring->size));
  EXPECT_LT(at(&ring->size), at(&ring->rp));
  EXPECT_LT(at(&ring->rp), at(&ring->wp));
  EXPECT_LT(at(&ring->wp), at(&ring->traceCount));
}

// ---- Buffers at home and lent ------------------------------------------------------------------------------------

TEST_F(Ring, BuffersAtHomeBearTheirMark) {
  const auto ring = std::make_unique<RingBuffer>(4);
  for (int i = 0; i < ring->size; ++i) {
    const SocketBuffer* buf = ring->bufs[i];
    EXPECT_EQ(buf->parent, ring.get());
    EXPECT_EQ(buf->length, 0x5555);
    EXPECT_EQ(buf->size, 1760);
    EXPECT_EQ(buf->data, buf->payload + 1760);
    EXPECT_EQ(buf->flags, 3);
    EXPECT_EQ(buf->trace, 0);
    EXPECT_EQ(buf->home_q, nullptr);
    EXPECT_EQ(buf->timeStamp, 0u);
    EXPECT_EQ(buf->id, 0x44556677u);
    for (int guard = 0; guard < 64; ++guard) EXPECT_EQ(buf->payload[1760 + guard], 0xA5) << guard;
  }
}

TEST_F(Ring, HasStorageOfItsOwnForEachBuffer) {
  const auto ring = std::make_unique<RingBuffer>(32);
  std::vector<UBYTE*> starts;
  for (int i = 0; i < 32; ++i) {
    starts.push_back(ring->bufs[i]->payload);
    std::memset(ring->bufs[i]->payload, i, 1760);
  }
  for (int i = 0; i < 32; ++i) {
    for (int k = 0; k < 1760; ++k) ASSERT_EQ(ring->bufs[i]->payload[k], i);
    for (int k = 1760; k < 1824; ++k) ASSERT_EQ(ring->bufs[i]->payload[k], 0xA5);
  }
  std::sort(starts.begin(), starts.end());
  for (std::size_t i = 1; i < starts.size(); ++i) EXPECT_GE(starts[i] - starts[i - 1], 1824);
}

TEST_F(Ring, ALentBufferIsEmptyWithAllItsRoomInFront) {
  const auto ring = std::make_unique<RingBuffer>(2);
  const ULONG before = os_clock();
  OSBuf* buf = ring->Get();
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(buf->data, buf->payload + 1760);
  EXPECT_LE(buf->timeStamp - before, os_clock() - before);

  // Whatever its holder did with it, it is lent the same way again.
  buf->PushData(reinterpret_cast<const UBYTE*>("0123456789"), 10);
  buf->PullUp(4);
  buf->trace = 7;
  buf->Free();
  EXPECT_EQ(buf->length, 0x5555);
  EXPECT_EQ(buf->trace, 0);
  EXPECT_EQ(buf->timeStamp, 0u);
  EXPECT_EQ(ring->Get(), buf);
  EXPECT_EQ(buf->length, 0);
  EXPECT_EQ(buf->data, buf->payload + 1760);
  EXPECT_EQ(buf->trace, 0);
  buf->Free();
}

TEST_F(Ring, ALentBufferHoldsWhatItIsSaidToHold) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* buf = ring->Get();
  const std::string bytes = numbered_bytes(1760);
  buf->PushData(reinterpret_cast<const UBYTE*>(bytes.data()), 1760);
  EXPECT_EQ(buf->length, 1760);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf->data), buf->length), bytes);
  buf->Free();
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
  for (int guard = 0; guard < 64; ++guard) EXPECT_EQ(buf->payload[1760 + guard], 0xA5);
}

TEST_F(Ring, BuffersComeBackInTheOrderInWhichTheyWereFreed) {
  const auto ring = std::make_unique<RingBuffer>(5);
  std::vector<OSBuf*> lent;
  while (OSBuf* buf = ring->Get()) lent.push_back(buf);
  ASSERT_EQ(lent.size(), 4u);
  for (const int i : {2, 0, 3, 1}) lent[static_cast<std::size_t>(i)]->Free();
  for (const int i : {2, 0, 3, 1}) EXPECT_EQ(ring->Get(), lent[static_cast<std::size_t>(i)]);
  for (OSBuf* buf : lent) buf->Free();
}

TEST_F(Ring, DoesNotTouchTheSharedPools) {
  const PoolState before = PoolState::now();
  const auto ring = std::make_unique<RingBuffer>(32);
  std::vector<OSBuf*> lent;
  while (OSBuf* buf = ring->Get()) lent.push_back(buf);
  const PoolState lending = PoolState::now();
  EXPECT_EQ(lending.buffers_out, before.buffers_out);
  EXPECT_EQ(lending.links, before.links);
  for (OSBuf* buf : lent) buf->Free();
}

TEST_F(Ring, CallbacksRunWhenABufferGoesHome) {
  const auto ring = std::make_unique<RingBuffer>(2);
  std::string ran;
  const auto note = [](OSObj* obj, ADDR, ULONG letter) {
    *reinterpret_cast<std::string*>(obj) += static_cast<char>(letter);
  };
  for (int round = 0; round < 2; ++round) {
    ran.clear();
    OSBuf* buf = ring->Get();
    buf->AddBufferCallback(OSCallback::Alloc(nullptr, note, reinterpret_cast<OSObj*>(&ran), nullptr, 'b'));
    buf->AddDataCallback(OSCallback::Alloc(nullptr, note, reinterpret_cast<OSObj*>(&ran), nullptr, 'd'));
    buf->Free();
    EXPECT_EQ(ran, "db");
    EXPECT_EQ(ring->Size(), 1);
  }
}

// ---- Freeing twice, putting too many -----------------------------------------------------------------------------

TEST_F(Ring, FreeingABufferTwiceIsReportedAndDoesNothing) {
  const auto ring = std::make_unique<RingBuffer>(32);
  OSBuf* first = ring->Get();
  OSBuf* second = ring->Get();
  first->Free();
  EXPECT_EQ(console.count(kFreedTwice), 0);
  const int rp = ring->rp, wp = ring->wp;
  first->Free();
  EXPECT_EQ(console.count(kFreedTwice), 1);
  EXPECT_EQ(ring->rp, rp);
  EXPECT_EQ(ring->wp, wp);
  EXPECT_EQ(ring->Size(), 30);
  second->Free();
  EXPECT_EQ(ring->Size(), 31);
  EXPECT_EQ(console.count(kFreedTwice), 1);
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(Ring, ABufferThatWasNeverLentIsReportedToo) {
  const auto ring = std::make_unique<RingBuffer>(4);
  for (int i = 0; i < 4; ++i) ring->bufs[i]->Free();
  EXPECT_EQ(console.count(kFreedTwice), 4);
  EXPECT_EQ(ring->Size(), 3);
}

TEST_F(Ring, ABufferThatItsHolderChangesAfterTheFreeIsFreedTwiceAllTheSame) {
  const auto ring = std::make_unique<RingBuffer>(4);
  OSBuf* buf = ring->Get();
  buf->Free();
  buf->length = 5;
  buf->Free();
  EXPECT_EQ(console.count(kFreedTwice), 1);
  EXPECT_EQ(ring->Size(), 3) << "it stands in the ring once";
  ring->Get()->Free();
  ring->Get()->Free();
  EXPECT_EQ(ring->Get(), buf);
  EXPECT_EQ(buf->length, 0);
  buf->Free();
}

TEST_F(Ring, ALentBufferGoesHomeWhateverItsLength) {
  const auto ring = std::make_unique<RingBuffer>(2);
  std::vector<UBYTE> bytes(50000);
  for (const int length : {0, 1, 1760, 0x5555, 0xAAAA}) {
    OSBuf* buf = ring->Get();
    ASSERT_NE(buf, nullptr) << length;
    if (length > buf->size) buf->SetPayload(bytes.data(), static_cast<UWORD>(bytes.size()));
    buf->PushDown(static_cast<UWORD>(length));
    ASSERT_EQ(buf->length, length);
    buf->Free();
    EXPECT_EQ(buf->size, 1760) << "with its own storage";
  }
  EXPECT_EQ(console.text(), "");
}

TEST_F(Ring, ABufferThatAProgramMakesIsAtHomeUntilItIsGivenALength) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* lent = ring->Get();
  SocketBuffer own(ring.get());
  EXPECT_EQ(own.length, 0x5555);
  own.Free();
  EXPECT_EQ(console.count(kFreedTwice), 1);
  EXPECT_EQ(ring->Size(), 0);
  own.length = 3;
  own.Free();
  EXPECT_EQ(console.count(kFreedTwice), 1);
  EXPECT_EQ(ring->Get(), &own);
  lent->Free();
}

TEST_F(Ring, RefusesABufferWhenItIsFull) {
  const auto ring = std::make_unique<RingBuffer>(4);
  auto stranger = std::make_unique<SocketBuffer>(ring.get());
  stranger->timeStamp = 99;
  EXPECT_EQ(ring->Put(stranger.get()), -1);
  EXPECT_EQ(stranger->timeStamp, 0u) << "cleared before the ring is looked at";
  EXPECT_EQ(ring->Size(), 3);
  EXPECT_EQ(ring->wp, 3);
  std::set<OSBuf*> seen;
  for (int i = 0; i < 8; ++i) {
    OSBuf* buf = ring->Get();
    seen.insert(buf);
    buf->Free();
  }
  EXPECT_EQ(seen.count(stranger.get()), 0u);
}

TEST_F(Ring, TakesABufferWhenThereIsRoom) {
  const auto ring = std::make_unique<RingBuffer>(4);
  OSBuf* first = ring->Get();
  first->length = 5;
  first->timeStamp = 99;
  EXPECT_EQ(ring->Put(first), 0);
  EXPECT_EQ(first->timeStamp, 0u);
  EXPECT_EQ(ring->Size(), 3);
  for (int i = 1; i < 3; ++i) ring->Get()->Free();
  EXPECT_EQ(ring->Get(), first);
  first->Free();
}

TEST_F(Ring, TheReportOfASecondFreeDoesNotRunCallbacks) {
  const auto ring = std::make_unique<RingBuffer>(4);
  OSBuf* buf = ring->Get();
  buf->Free();
  int runs = 0;
  const auto count = [](OSObj* obj, ADDR, ULONG) { ++*reinterpret_cast<int*>(obj); };
  buf->AddBufferCallback(OSCallback::Alloc(nullptr, count, reinterpret_cast<OSObj*>(&runs), nullptr, 0));
  buf->Free();
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(console.count(kFreedTwice), 1);
  ring->Get()->Free();
  ring->Get()->Free();
  EXPECT_EQ(ring->Get(), buf);
  buf->Free();
  EXPECT_EQ(runs, 1);
}

// ---- The end of a ring -------------------------------------------------------------------------------------------

TEST_F(Ring, IsDeletedAtOnceWhenAllBuffersAreHome) {
  std::atomic<int> deleted{0};
  auto* ring = new WatchedRing(32, &deleted);
  ring->Get()->Free();
  const std::string line = ring_line("RingBuffer::Free - %p deleting...", ring);
  ring->Free();
  EXPECT_EQ(deleted, 1);
  EXPECT_EQ(console.count(line), 1);
  EXPECT_EQ(console.count("waiting for buffers"), 0);
}

/// Tells what its parent was when it was destroyed.
class ObservedBuffer : public SocketBuffer {
 public:
  ObservedBuffer(RingBuffer* ring, std::vector<std::uintptr_t>* parents)
      : SocketBuffer(ring), parents_(parents) {}
  ~ObservedBuffer() override { parents_->push_back(reinterpret_cast<std::uintptr_t>(parent)); }

 private:
  std::vector<std::uintptr_t>* parents_;
};

TEST_F(Ring, PoisonsTheParentOfItsBuffersBeforeItDestroysThem) {
  std::vector<std::uintptr_t> parents;
  {
    const auto ring = std::make_unique<RingBuffer>(4);
    // In place of a lent one and of the one that stays outside.
    OSBuf* lent = ring->Get();
    ASSERT_EQ(lent, ring->bufs[0]);
    for (const int i : {0, 3}) {
      delete ring->bufs[i];
      ring->bufs[i] = new ObservedBuffer(ring.get(), &parents);
    }
  }
  EXPECT_EQ(parents, (std::vector<std::uintptr_t>{0xFEFEFEFE, 0xFEFEFEFE}));
}

TEST_F(Ring, ABufferFreedAfterItsRingIsFatal) {
  const auto ring = std::make_unique<RingBuffer>(4);
  const auto orphan = std::make_unique<SocketBuffer>(ring.get());
  orphan->length = 10;
  orphan->trace = 5;
  orphan->parent = reinterpret_cast<RingBuffer*>(static_cast<std::uintptr_t>(0xFEFEFEFE));
  orphan->Free();  // this console's Fatal returns: nothing at that address may be touched
  EXPECT_EQ(console.fatals(), std::vector<std::string>{"SocketBuffer::Free"});
  EXPECT_EQ(orphan->length, 0x5555);
  EXPECT_EQ(orphan->trace, 0);
  EXPECT_EQ(ring->Size(), 3);
  expected_fatals = {"SocketBuffer::Free"};
}

TEST_F(Ring, BuffersComeFromThePlainHeap) {
  // Through pointers: the compiler would object to the mixture.
  void* (*volatile allocate)(std::size_t) = &SocketBuffer::operator new;
  void (*volatile release)(void*) = &SocketBuffer::operator delete;
  void* storage = allocate(sizeof(SocketBuffer));
  ASSERT_NE(storage, nullptr);
  free(storage);
  release(malloc(100));
  release(nullptr);
}

// ---- Threads -----------------------------------------------------------------------------------------------------

/// Buffers on their way from the thread that takes them out to those that free them.
class Conveyor {
 public:
  void put(OSBuf* buf) {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push_back(buf);
    changed_.notify_one();
  }
  void finish() {
    const std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
    changed_.notify_all();
  }
  /// Null when nothing comes any more.
  OSBuf* take() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !waiting_.empty() || finished_; });
    if (waiting_.empty()) return nullptr;
    OSBuf* buf = waiting_.front();
    waiting_.pop_front();
    return buf;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<OSBuf*> waiting_;
  bool finished_ = false;
};

void many_free_while_one_takes(RingBuffer& ring, int freers, ULONG rounds, bool wait_for_buffers) {
  Conveyor conveyor;
  std::atomic<ULONG> sum{0};
  std::vector<std::unique_ptr<WatchedThread>> threads;
  for (int i = 0; i < freers; ++i) {
    threads.push_back(std::make_unique<WatchedThread>([&] {
      while (OSBuf* buf = conveyor.take()) {
        // What the taker has written is whole, and nobody else has this buffer.
        ASSERT_EQ(buf->length, 8);
        const ULONG number = buf->PullLong();
        ASSERT_EQ(buf->PullLong(), ~number);
        sum += number;
        buf->Free();
      }
    }));
  }
  ULONG taken = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (taken < rounds && std::chrono::steady_clock::now() < deadline) {
    OSBuf* buf = ring.Get();
    if (buf == nullptr) {
      if (wait_for_buffers) {
        ring.WaitForBuffer(1000);
      } else {
        std::this_thread::yield();
      }
      continue;
    }
    ASSERT_EQ(buf->length, 0);
    ASSERT_EQ(buf->data, buf->payload + buf->size);
    buf->PushData(~taken);
    buf->PushData(taken);
    conveyor.put(buf);
    ++taken;
  }
  conveyor.finish();
  threads.clear();
  EXPECT_EQ(taken, rounds) << "buffers were lost";
  ULONG expected = 0;
  for (ULONG i = 0; i < rounds; ++i) expected += i;
  EXPECT_EQ(sum, expected);
  EXPECT_EQ(ring.rp, (ring.wp + 1) % ring.size) << "all are home";
  std::set<OSBuf*> seen;
  while (OSBuf* buf = ring.Get()) seen.insert(buf);
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(ring.size) - 1);
  for (OSBuf* buf : seen) buf->Free();
}

TEST_F(Ring, SeveralThreadsFreeWhileOneTakes) {
  for (const int size : {2, 3, 32}) {
    const auto ring = std::make_unique<RingBuffer>(size);
    many_free_while_one_takes(*ring, 4, 10000, false);
  }
  EXPECT_EQ(console.count(kFreedTwice), 0);
}

TEST_F(Ring, AWaitMissesNoBufferThatComesHome) {
  for (const int size : {2, 4}) {
    const auto ring = std::make_unique<RingBuffer>(size);
    many_free_while_one_takes(*ring, 3, 4000, true);
  }
}

TEST_F(Ring, EntersNoSectionOfTheKernel) {
  const auto ring = std::make_unique<RingBuffer>(4);
  for (CRITICAL_SECTION* section : {&DNSEntry::cs, &AsyncSocket::cs, &OS_CRITICAL_TRIGGER,
                                    &OS_CRITICAL_BUFFERS, &OS_CRITICAL_CALLBACKS, &OS_CRITICAL_LINK}) {
    EnterCriticalSection(section);
    {
      WatchedThread other([&] {
        OSBuf* first = ring->Get();
        OSBuf* second = ring->Get();
        first->Free();
        second->Free();
        EXPECT_EQ(ring->rp, (ring->wp + 1) % ring->size);
      });
      EXPECT_TRUE(other.finished_within(kPatienceMs)) << "it waits for a section";
      LeaveCriticalSection(section);
    }
  }
}

TEST_F(Ring, AWaitEndsAtOnceWhenABufferIsHome) {
  const auto ring = std::make_unique<RingBuffer>(2);
  WatchedThread waiter([&] { ring->WaitForBuffer(0x7FFFFFFF); });
  EXPECT_TRUE(waiter.finished_within(kPatienceMs));
}

TEST_F(Ring, AWaitEndsWhenABufferComesHome) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* buf = ring->Get();
  WatchedThread waiter([&] { ring->WaitForBuffer(0x7FFFFFFF); });
  EXPECT_TRUE(waiter.blocked());
  buf->Free();
  EXPECT_TRUE(waiter.finished_within(kPatienceMs));
  EXPECT_EQ(ring->Size(), 1);
}

TEST_F(Ring, AWaitEndsWhenItsTimeIsOver) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* buf = ring->Get();
  WatchedThread waiter([&] {
    ring->WaitForBuffer(0);
    ring->WaitForBuffer(20);
  });
  EXPECT_TRUE(waiter.finished_within(kPatienceMs));
  EXPECT_EQ(ring->Size(), 0);
  buf->Free();
}

// ---- Accepted connections ----------------------------------------------------------------------------------------

TEST_F(Ring, TheRecordOfAConnectionLeavesTheDescriptorAlone) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  SockAddr peer(0x0A000001, 4711);
  {
    OSLinkList waiting;
    auto* link = new SocketLink(ends[0], peer);
    EXPECT_EQ(link->s, ends[0]);
    EXPECT_TRUE(link->rem_sin == peer);
    EXPECT_LT(reinterpret_cast<char*>(&link->s), reinterpret_cast<char*>(&link->rem_sin));
    waiting.Append(link);
    EXPECT_EQ(waiting.Size(), 1);
    waiting.Remove(link);
    delete link;
  }
  char byte = 'x';
  EXPECT_EQ(write(ends[0], &byte, 1), 1);
  EXPECT_EQ(read(ends[1], &byte, 1), 1);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
