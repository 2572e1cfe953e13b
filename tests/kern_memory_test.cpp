// Memory pools: byte figures, placement, coalescing, chains, exhaustion, and a random life beside a shadow heap.

#include "kernel/kern_memory.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "support/failing_new.h"
#include "support/kernel_fixture.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

constexpr ULONG kPoolHeader = 12;
constexpr ULONG kBlockHeader = 8;
constexpr ULONG kAreaHeader = 12;
constexpr char kOutOfMemory[] = "OSMemPool::Allocate Out of Memory";

static_assert(sizeof(OSMemPool) == kPoolHeader);
static_assert(std::is_standard_layout_v<OSMemPool>);
static_assert(offsetof(OSMemPool, secondary_pool) == 0);
static_assert(offsetof(OSMemPool, size) == 4);
static_assert(offsetof(OSMemPool, NoMemIsFatal) == 8);
static_assert(std::is_same_v<decltype(OSMemPool::size), ULONG>);
static_assert(std::is_same_v<decltype(OSMemPool::NoMemIsFatal), int>);

/// A pool in a block of its own, with guard bytes behind it.
class Pool {
 public:
  explicit Pool(ULONG size, int no_mem_is_fatal = 0)
      : size_(size), block_(size + kGuard + kPoolHeader, kMark) {
    pool_ = new (start()) OSMemPool(size, no_mem_is_fatal);
  }
  ~Pool() {
    pool_->~OSMemPool();
    const std::size_t behind = std::max(size_, kPoolHeader);
    EXPECT_TRUE(std::all_of(block_.begin() + static_cast<std::ptrdiff_t>(behind), block_.end(),
                            [](unsigned char byte) { return byte == kMark; }))
        << "written behind a pool of " << size_ << " bytes";
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  OSMemPool* operator->() { return pool_; }
  OSMemPool* get() { return pool_; }
  unsigned char* start() { return block_.data(); }
  unsigned char* end() { return start() + size_; }
  bool contains(const void* memory) {
    return memory >= start() + kPoolHeader + kBlockHeader && memory < end();
  }

 private:
  static constexpr std::size_t kGuard = 64;
  static constexpr unsigned char kMark = 0x5C;

  ULONG size_;
  std::vector<unsigned char> block_;
  OSMemPool* pool_;
};

ULONG word_at(const void* address) {
  ULONG word;
  std::memcpy(&word, address, sizeof word);
  return word;
}

ULONG block_size(const void* memory) { return word_at(static_cast<const unsigned char*>(memory) - 4); }

std::string bad_area_line(const void* area, ULONG size) {
  char line[200];
  std::snprintf(line, sizeof line, "OSMemPool::Bad Area %p %p %d\r\n", area,
                static_cast<const void*>(static_cast<const unsigned char*>(area) + size),
                static_cast<int>(size));
  return line;
}

class MemPool : public KernelTest {
 protected:
  void TearDown() override {
    FailingNew::reset();
    KernelTest::TearDown();
  }
  /// The memory of two free areas above the head area, each between blocks in use.
  struct Holes {
    ADDR high;
    ADDR low;
  };
  static Holes make_holes(Pool& pool, ULONG high_bytes, ULONG low_bytes) {
    pool->Allocate(4);
    const Holes holes = {pool->Allocate(high_bytes), (pool->Allocate(4), pool->Allocate(low_bytes))};
    pool->Allocate(4);
    OSMemPool::Free(holes.high);
    OSMemPool::Free(holes.low);
    return holes;
  }
  static ADDR make_hole(Pool& pool, ULONG bytes) {
    pool->Allocate(4);
    ADDR hole = pool->Allocate(bytes);
    pool->Allocate(4);
    OSMemPool::Free(hole);
    return hole;
  }
  /// The highest address there is.
  static ADDR at_most() {
    const std::uintptr_t highest = UINTPTR_MAX;
    ADDR address = nullptr;
    std::memcpy(&address, &highest, sizeof address);
    return address;
  }
  int fatal_count() const { return static_cast<int>(console.fatals().size()); }
};

// ---- Figures -----------------------------------------------------------------------------------------------

TEST_F(MemPool, StandsAtTheStartOfItsBlock) {
  alignas(8) unsigned char block[100];
  auto* pool = new (block) OSMemPool(sizeof block, 1);
  EXPECT_EQ(static_cast<void*>(pool), static_cast<void*>(block));
  EXPECT_EQ(pool->size, sizeof block);
  EXPECT_EQ(pool->NoMemIsFatal, 1);
  EXPECT_EQ(pool->secondary_pool, nullptr);
  void* volatile where = pool;  // the compiler takes every operator delete for one that releases
  OSMemPool::operator delete(where, block);
  EXPECT_EQ(pool->size, sizeof block) << "operator delete does nothing";
  pool->~OSMemPool();
}

TEST_F(MemPool, PlacementNewReturnsTheGivenAddress) {
  unsigned char block[32];
  EXPECT_EQ(OSMemPool::operator new(sizeof(OSMemPool), block), static_cast<void*>(block));
}

TEST_F(MemPool, PoolOfAThousandBytesHasNineHundredEightyEightFree) {
  Pool pool(1000);
  EXPECT_EQ(pool->FreeSpace(), 988u);
  EXPECT_EQ(pool->size, 1000u);
  EXPECT_EQ(pool->NoMemIsFatal, 0);
}

struct RequestRow {
  ULONG request;
  ULONG taken;
};

constexpr RequestRow kRequests[] = {
    {1, 12},
    {2, 12},
    {3, 12},
    {4, 12},
    {5, 16},
    {8, 16},
    {9, 20},
    {12, 20},
    {100, 108},
    {101, 112},
    {961, 972},
    // Freeing writes an area's header over the block, so no block is smaller than that.
    {0, 12},
};

TEST_F(MemPool, RequestTakesItsHeaderAndIsRoundedToFour) {
  for (const RequestRow& row : kRequests) {
    SCOPED_TRACE(row.request);
    Pool pool(1000);
    ADDR memory = pool->Allocate(row.request);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(pool->FreeSpace(), 988 - row.taken);
    EXPECT_EQ(memory, pool.end() - row.taken + kBlockHeader) << "cut from the top of the head area";
    EXPECT_EQ(block_size(memory), row.taken);
    std::memset(memory, 0xEE, row.taken - kBlockHeader);
    OSMemPool::Free(memory);
    EXPECT_EQ(pool->FreeSpace(), 988u);
    EXPECT_EQ(console.text(), "");
  }
}

TEST_F(MemPool, BlocksFollowEachOtherDownward) {
  Pool pool(1000);
  auto* first = static_cast<unsigned char*>(pool->Allocate(20));
  auto* second = static_cast<unsigned char*>(pool->Allocate(20));
  auto* third = static_cast<unsigned char*>(pool->Allocate(1));
  EXPECT_EQ(first, pool.end() - 20);
  EXPECT_EQ(second, first - 28);
  EXPECT_EQ(third, second - 12);
}

TEST_F(MemPool, MemoryIsAlignedToFourBytes) {
  Pool pool(4000);
  for (ULONG n = 0; n < 60; ++n) {
    ADDR memory = pool->Allocate(n);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % 4, 0u);
  }
}

// ---- The head area -----------------------------------------------------------------------------------------

// 988 bytes stand in the head area; what is left of it after a request must be more than an area's header.
TEST_F(MemPool, HeadAreaIsNeverHandedOutWhole) {
  for (ULONG request = 965; request <= 980; ++request) {
    SCOPED_TRACE(request);
    Pool pool(1000);
    EXPECT_EQ(pool->Allocate(request), nullptr);
    EXPECT_EQ(pool->FreeSpace(), 988u);
  }
  Pool pool(1000);
  ADDR memory = pool->Allocate(964);  // 972 with its header: 16 are left
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(pool->FreeSpace(), 16u);
  EXPECT_EQ(pool->Allocate(1), nullptr) << "12 of the 16 would leave too little";
  EXPECT_EQ(pool->FreeSpace(), 16u);
  OSMemPool::Free(memory);
  EXPECT_EQ(pool->FreeSpace(), 988u);
}

TEST_F(MemPool, OtherAreasAreHandedOutWhole) {
  // A hole of 40 bytes between two blocks: needs of 28 to 40 take it whole, 24 cuts its top off.
  for (const ULONG request : {20u, 21u, 24u, 28u, 32u}) {
    SCOPED_TRACE(request);
    Pool pool(1000);
    ADDR hole = make_hole(pool, 32);
    const ULONG before = pool->FreeSpace();
    ADDR memory = pool->Allocate(request);
    EXPECT_EQ(memory, hole);
    EXPECT_EQ(block_size(memory), 40u);
    EXPECT_EQ(pool->FreeSpace(), before - 40);
    OSMemPool::Free(memory);
    EXPECT_EQ(pool->FreeSpace(), before);
  }
  Pool pool(1000);
  ADDR hole = make_hole(pool, 32);
  const ULONG before = pool->FreeSpace();
  ADDR memory = pool->Allocate(16);
  EXPECT_EQ(memory, static_cast<unsigned char*>(hole) + 16);
  EXPECT_EQ(block_size(memory), 24u);
  EXPECT_EQ(pool->FreeSpace(), before - 24);
}

TEST_F(MemPool, HighestAreaThatFitsIsUsedFirst) {
  Pool pool(1000);
  const Holes holes = make_holes(pool, 50, 50);
  EXPECT_EQ(pool->Allocate(50), holes.high);
  EXPECT_EQ(pool->Allocate(50), holes.low);
}

TEST_F(MemPool, AreasThatAreTooSmallArePassedOver) {
  Pool pool(1000);
  const Holes holes = make_holes(pool, 20, 60);
  EXPECT_EQ(pool->Allocate(60), holes.low);
  EXPECT_EQ(pool->Allocate(20), holes.high);
}

// ---- Coalescing --------------------------------------------------------------------------------------------

TEST_F(MemPool, AdjacentBlocksMergeInEitherOrder) {
  for (const bool lower_first : {true, false}) {
    SCOPED_TRACE(lower_first);
    Pool pool(1000);
    pool->Allocate(4);
    ADDR upper = pool->Allocate(40);
    ADDR lower = pool->Allocate(40);
    pool->Allocate(4);
    OSMemPool::Free(lower_first ? lower : upper);
    OSMemPool::Free(lower_first ? upper : lower);
    // Only one merged area of 96 bytes can serve this at the lower block's place.
    ADDR merged = pool->Allocate(88);
    EXPECT_EQ(merged, lower);
    EXPECT_EQ(block_size(merged), 96u);
  }
}

TEST_F(MemPool, BlockBetweenTwoAreasMergesWithBoth) {
  Pool pool(1000);
  pool->Allocate(4);
  ADDR upper = pool->Allocate(40);
  ADDR middle = pool->Allocate(40);
  ADDR lower = pool->Allocate(40);
  pool->Allocate(4);
  OSMemPool::Free(upper);
  OSMemPool::Free(lower);
  OSMemPool::Free(middle);
  ADDR merged = pool->Allocate(136);
  EXPECT_EQ(merged, lower);
  EXPECT_EQ(block_size(merged), 144u);
}

TEST_F(MemPool, BlockNextToTheHeadAreaJoinsIt) {
  Pool pool(1000);
  ADDR last = nullptr;
  ADDR memory = nullptr;
  while ((memory = pool->Allocate(100)) != nullptr) last = memory;
  const ULONG left = pool->FreeSpace();
  OSMemPool::Free(last);
  EXPECT_EQ(pool->FreeSpace(), left + 108);
  EXPECT_EQ(pool->Allocate(left + 108 - kAreaHeader - kBlockHeader), nullptr);
  EXPECT_NE(pool->Allocate(left + 108 - kAreaHeader - kBlockHeader - 4), nullptr);
}

TEST_F(MemPool, FreeingEveryBlockRestoresTheHeadArea) {
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  for (int round = 0; round < 100; ++round) {
    Pool pool(1000);
    std::vector<ADDR> blocks;
    while (ADDR memory = pool->Allocate(static_cast<ULONG>(pick(random, 0, 90)))) blocks.push_back(memory);
    std::shuffle(blocks.begin(), blocks.end(), random);
    for (ADDR memory : blocks) OSMemPool::Free(memory);
    EXPECT_EQ(pool->FreeSpace(), 988u);
    ADDR whole = pool->Allocate(964);
    EXPECT_EQ(whole, pool.end() - 964) << "one area, not several of the same sum";
  }
}

TEST_F(MemPool, FreeOfNothingIsIgnored) {
  OSMemPool::Free(nullptr);
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(console.fatals().empty());
}

// ---- Exhaustion --------------------------------------------------------------------------------------------

TEST_F(MemPool, ExhaustionIsSilentWhereItIsNotFatal) {
  Pool pool(100, 0);
  EXPECT_EQ(pool->Allocate(1000), nullptr);
  EXPECT_EQ(fatal_count(), 0);
  EXPECT_EQ(console.text(), "");
}

TEST_F(MemPool, ExhaustionIsFatalWhereItSaysSo) {
  for (const int fatal : {1, 2, -1}) {
    console.clear();
    Pool pool(100, fatal);
    EXPECT_EQ(pool->Allocate(1000), nullptr);
    EXPECT_EQ(console.fatals(), (std::vector<std::string>{kOutOfMemory}));
    EXPECT_EQ(pool->FreeSpace(), 88u);
  }
}

TEST_F(MemPool, ExhaustionWithoutConsoleReturnsNull) {
  Console = nullptr;
  Pool pool(100, 1);
  EXPECT_EQ(pool->Allocate(1000), nullptr);
}

TEST_F(MemPool, RequestsThatWrapFail) {
  Pool pool(1000);
  for (const ULONG request :
       {0xFFFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFCu, 0xFFFFFFF9u, 0xFFFFFFF8u, 0xFFFFFFF7u, 0xFFFFFFF5u,
        0xFFFFFFF4u, 0xFFFFFFF0u, 0xFFFFFFECu, 0xFFFFFFE8u, 0xFFFFFF00u, 0x80000000u, 0x7FFFFFFFu}) {
    SCOPED_TRACE(request);
    EXPECT_EQ(pool->Allocate(request), nullptr);
    EXPECT_EQ(pool->FreeSpace(), 988u);
  }
  Pool fatal_pool(1000, 1);
  EXPECT_EQ(fatal_pool->Allocate(0xFFFFFFFF), nullptr);
  EXPECT_EQ(console.fatals(), (std::vector<std::string>{kOutOfMemory}));
}

TEST_F(MemPool, SizeTooSmallForItsHeaderHasNoFreeArea) {
  for (ULONG size = 0; size < kPoolHeader + kAreaHeader; ++size) {
    SCOPED_TRACE(size);
    Pool pool(size, 1);
    EXPECT_EQ(pool->size, size);
    EXPECT_EQ(pool->FreeSpace(), 0u);
    console.clear();
    EXPECT_EQ(pool->Allocate(0), nullptr);
    EXPECT_EQ(pool->Allocate(1), nullptr);
    EXPECT_EQ(console.fatals(), (std::vector<std::string>{kOutOfMemory, kOutOfMemory}));
    pool->Validate(pool.start(), pool.end());
    EXPECT_EQ(console.text(), "");
  }
}

TEST_F(MemPool, SmallestPoolHasAHeadAreaThatServesNothing) {
  for (const ULONG size : {24u, 28u, 32u, 36u}) {
    SCOPED_TRACE(size);
    Pool pool(size);
    EXPECT_EQ(pool->FreeSpace(), size - kPoolHeader);
    EXPECT_EQ(pool->Allocate(1), nullptr);
  }
  Pool pool(40);
  EXPECT_NE(pool->Allocate(1), nullptr);
  EXPECT_EQ(pool->FreeSpace(), 16u);
}

TEST_F(MemPool, PoolsOfOddSizesStayInsideTheirBlock) {
  for (ULONG size = 24; size < 140; ++size) {
    SCOPED_TRACE(size);
    Pool pool(size);
    const ULONG free_space = pool->FreeSpace();
    EXPECT_LE(free_space, size - kPoolHeader);
    EXPECT_GE(free_space + 3, size - kPoolHeader);
    std::vector<ADDR> blocks;
    while (ADDR memory = pool->Allocate(7)) {
      EXPECT_TRUE(pool.contains(memory));
      EXPECT_TRUE(pool.contains(static_cast<unsigned char*>(memory) + 6));
      std::memset(memory, 0xEE, 7);
      blocks.push_back(memory);
    }
    for (ADDR memory : blocks) OSMemPool::Free(memory);
    EXPECT_EQ(pool->FreeSpace(), free_space);
  }
}

TEST_F(MemPool, EmptyPoolIsOutOfMemory) {
  OSMemPool empty;
  EXPECT_EQ(empty.secondary_pool, nullptr);
  EXPECT_EQ(empty.size, 0u);
  EXPECT_EQ(empty.NoMemIsFatal, 1);
  EXPECT_EQ(empty.FreeSpace(), 0u);
  for (const ULONG request : {0u, 1u, 1000u, 0xFFFFFFFFu}) {
    console.clear();
    EXPECT_EQ(empty.Allocate(request), nullptr);
    EXPECT_EQ(console.fatals(), (std::vector<std::string>{kOutOfMemory}));
  }
  int somewhere = 0;
  empty.Validate(&somewhere, &somewhere + 1);
  EXPECT_EQ(console.text(), "");
}

TEST_F(MemPool, KernelsEmptyPoolIsOutOfMemory) {
  EXPECT_EQ(OS_EMPTYPOOL.size, 0u);
  EXPECT_EQ(OS_EMPTYPOOL.NoMemIsFatal, 1);
  EXPECT_EQ(OS_EMPTYPOOL.FreeSpace(), 0u);
  EXPECT_EQ(OS_EMPTYPOOL.Allocate(1), nullptr);
  EXPECT_EQ(console.fatals(), (std::vector<std::string>{kOutOfMemory}));
}

TEST_F(MemPool, DestructionLeavesTheMemoryAlone) {
  alignas(8) std::array<unsigned char, 200> block;
  auto* pool = new (block.data()) OSMemPool(block.size(), 0);
  ADDR memory = pool->Allocate(50);
  std::memset(memory, 0xEE, 50);
  const std::array<unsigned char, 200> before = block;
  pool->~OSMemPool();
  EXPECT_EQ(block, before);
}

// ---- Chains ------------------------------------------------------------------------------------------------

TEST_F(MemPool, ChainedPoolServesWhatDoesNotFit) {
  Pool first(100);
  Pool second(1000);
  first->Chain(second.get());
  EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), second.get());
  ADDR small = first->Allocate(20);
  ADDR large = first->Allocate(500);
  EXPECT_TRUE(first.contains(small));
  EXPECT_TRUE(second.contains(large));
  EXPECT_EQ(first->FreeSpace(), 88u - 28);
  EXPECT_EQ(second->FreeSpace(), 988u - 508);
  OSMemPool::Free(large);
  OSMemPool::Free(small);
  EXPECT_EQ(first->FreeSpace(), 88u) << "each block goes back to the pool it came from";
  EXPECT_EQ(second->FreeSpace(), 988u);
}

TEST_F(MemPool, ChainIsWalkedToItsEnd) {
  Pool first(100);
  Pool second(200);
  Pool third(1000);
  first->Chain(second.get());
  second->Chain(third.get());
  EXPECT_TRUE(second.contains(first->Allocate(100)));
  EXPECT_TRUE(third.contains(first->Allocate(100)));
  EXPECT_TRUE(third.contains(second->Allocate(300)));
  EXPECT_EQ(first->Allocate(900), nullptr);
  EXPECT_EQ(third->Allocate(900), nullptr);
  EXPECT_TRUE(first.contains(first->Allocate(20)));
}

TEST_F(MemPool, OnlyTheFirstPoolDecidesWhetherExhaustionIsFatal) {
  Pool quiet(100, 0);
  Pool loud(100, 1);
  quiet->Chain(loud.get());
  EXPECT_EQ(quiet->Allocate(1000), nullptr);
  EXPECT_EQ(fatal_count(), 0);
  quiet->Chain(nullptr);
  loud->Chain(quiet.get());
  EXPECT_EQ(loud->Allocate(1000), nullptr);
  EXPECT_EQ(console.fatals(), (std::vector<std::string>{kOutOfMemory}));
}

TEST_F(MemPool, ChainCanBeChangedAndTakenAway) {
  Pool first(100);
  Pool second(1000);
  Pool third(1000);
  first->Chain(second.get());
  first->Chain(third.get());
  EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), third.get());
  EXPECT_TRUE(third.contains(first->Allocate(500)));
  first->Chain(nullptr);
  EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), nullptr);
  EXPECT_EQ(first->Allocate(200), nullptr);
  EXPECT_EQ(second->FreeSpace(), 988u);
}

TEST_F(MemPool, EmptyPoolWithAChainServesFromIt) {
  OSMemPool empty;
  Pool second(1000);
  empty.Chain(second.get());
  ADDR memory = empty.Allocate(100);
  EXPECT_TRUE(second.contains(memory));
  OSMemPool::Free(memory);
  EXPECT_EQ(second->FreeSpace(), 988u);
}

TEST_F(MemPool, ChainReachesPoolsAnywhereInMemory) {
  alignas(8) static unsigned char global_block[400];
  alignas(8) unsigned char stack_block[400];
  const auto heap_block = std::make_unique<std::array<std::uint64_t, 50>>();
  void* mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  void* blocks[] = {global_block, stack_block, heap_block->data(), mapped};
  for (void* from : blocks) {
    for (void* to : blocks) {
      if (from == to) continue;
      auto* first = new (from) OSMemPool(400, 0);
      EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), nullptr)
          << "a new pool is chained to nothing";
      auto* second = new (to) OSMemPool(400, 0);
      first->Chain(second);
      EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), second);
      ADDR own = first->Allocate(300);
      ADDR chained = first->Allocate(300);
      ASSERT_NE(own, nullptr);
      ASSERT_NE(chained, nullptr);
      EXPECT_GT(chained, to);
      EXPECT_LT(chained, static_cast<unsigned char*>(to) + 400);
      OSMemPool::Free(own);
      OSMemPool::Free(chained);
      EXPECT_EQ(second->FreeSpace(), 388u);
      EXPECT_EQ(first->FreeSpace(), 388u);
    }
  }
  munmap(mapped, 4096);
}

TEST_F(MemPool, ChangingOneChainLeavesTheOthers) {
  Pool pools[] = {Pool(100), Pool(100), Pool(100), Pool(100)};
  for (int i = 0; i < 3; ++i) pools[i]->Chain(pools[i + 1].get());
  pools[0]->Chain(pools[2].get());
  pools[1]->Chain(pools[0].get());
  EXPECT_EQ(static_cast<OSMemPool*>(pools[0]->secondary_pool), pools[2].get());
  EXPECT_EQ(static_cast<OSMemPool*>(pools[1]->secondary_pool), pools[0].get());
  EXPECT_EQ(static_cast<OSMemPool*>(pools[2]->secondary_pool), pools[3].get());
  pools[1]->Chain(nullptr);
  EXPECT_EQ(static_cast<OSMemPool*>(pools[0]->secondary_pool), pools[2].get());
  EXPECT_EQ(static_cast<OSMemPool*>(pools[1]->secondary_pool), nullptr);
  EXPECT_EQ(static_cast<OSMemPool*>(pools[2]->secondary_pool), pools[3].get());
  EXPECT_EQ(static_cast<OSMemPool*>(pools[3]->secondary_pool), nullptr);
}

TEST_F(MemPool, SecondaryPoolCanBeReadAndSetLikeAPointer) {
  Pool first(100);
  Pool second(1000);
  first->secondary_pool = second.get();
  EXPECT_TRUE(second.contains(first->Allocate(500)));
  EXPECT_EQ(first->secondary_pool->size, 1000u);
  first->secondary_pool = nullptr;
  EXPECT_FALSE(first->secondary_pool);
  EXPECT_EQ(first->Allocate(200), nullptr);
}

TEST_F(MemPool, WithoutMemoryForTheChainThePoolStaysAlone) {
  Pool first(100);
  Pool second(1000);
  FailingNew::fail_at_least(0);
  first->Chain(second.get());
  FailingNew::reset();
  EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), nullptr);
  EXPECT_EQ(first->Allocate(500), nullptr);
  first->Chain(second.get());
  FailingNew::fail_at_least(0);
  first->Chain(first.get());  // its entry is there already
  FailingNew::reset();
  EXPECT_EQ(static_cast<OSMemPool*>(first->secondary_pool), first.get());
}

// A chain of `tail` pools leads into a ring of `ring` pools.
TEST_F(MemPool, ChainThatRunsIntoItselfEnds) {
  for (std::size_t tail = 0; tail < 6; ++tail) {
    for (std::size_t ring = 1; ring < 10; ++ring) {
      SCOPED_TRACE(testing::Message() << tail << " pools before a ring of " << ring);
      std::vector<std::unique_ptr<Pool>> pools;
      for (std::size_t i = 0; i < tail + ring; ++i) pools.push_back(std::make_unique<Pool>(100));
      for (std::size_t i = 0; i < tail + ring; ++i) {
        (*pools[i])->Chain(pools[i + 1 < tail + ring ? i + 1 : tail]->get());
      }
      for (std::size_t i = 0; i < tail + ring; ++i) {
        EXPECT_TRUE(pools[i]->contains((*pools[0])->Allocate(40))) << "every pool is asked, " << i;
      }
      EXPECT_EQ((*pools[0])->Allocate(40), nullptr);
      EXPECT_EQ((*pools[0])->Allocate(1000), nullptr);
    }
  }
}

TEST_F(MemPool, ChainsOfPoolsThatAreGoneLeaveNothing) {
  constexpr std::size_t kPools = 2000;
  std::vector<std::array<ULONG, 3>> blocks(kPools);
  Pool end(100);
  const auto chain_all = [&] {
    for (auto& block : blocks) (new (block.data()) OSMemPool(sizeof block, 0))->Chain(end.get());
    for (auto& block : blocks) std::launder(reinterpret_cast<OSMemPool*>(block.data()))->~OSMemPool();
  };
  chain_all();
  // What a sanitizer allocates is not counted there, and the comparison holds as well.
  const std::size_t before = mallinfo2().uordblks;
  chain_all();
  EXPECT_LT(mallinfo2().uordblks, before + kPools);
  for (auto& block : blocks) {
    auto* pool = new (block.data()) OSMemPool(sizeof block, 0);
    ASSERT_EQ(static_cast<OSMemPool*>(pool->secondary_pool), nullptr);
  }
}

TEST_F(MemPool, ManyPoolsCanBeChained) {
  constexpr std::size_t kPools = 200;
  std::vector<std::unique_ptr<Pool>> pools;
  for (std::size_t i = 0; i < kPools; ++i) {
    pools.push_back(std::make_unique<Pool>(100));
    if (i > 0) (*pools[i - 1])->Chain(pools[i]->get());
  }
  for (std::size_t i = 0; i < kPools; ++i) EXPECT_TRUE(pools[i]->contains((*pools[0])->Allocate(40))) << i;
  EXPECT_EQ((*pools[0])->Allocate(40), nullptr);
}

// ---- Validate ----------------------------------------------------------------------------------------------

TEST_F(MemPool, ValidatePrintsNothingForASoundList) {
  Pool pool(1000);
  pool->Validate(pool.start(), pool.end());
  pool->Validate(pool.start() + kPoolHeader, pool.end());  // the head area fills this exactly
  ADDR first = pool->Allocate(50);
  pool->Allocate(50);
  OSMemPool::Free(first);
  pool->Validate(pool.start() + kPoolHeader, pool.end());
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(MemPool, ValidatePrintsAnAreaThatReachesTooHigh) {
  Pool pool(1000);
  pool->Validate(pool.start(), pool.end() - 1);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(pool.start() + kPoolHeader, 988)}));
}

TEST_F(MemPool, ValidatePrintsAnAreaThatStartsTooLow) {
  Pool pool(1000);
  pool->Validate(pool.start() + kPoolHeader + 1, pool.end());
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(pool.start() + kPoolHeader, 988)}));
}

TEST_F(MemPool, ValidatePrintsAnAreaThatStartsTooHigh) {
  Pool pool(1000);
  pool->Validate(pool.start(), pool.start() + 4);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(pool.start() + kPoolHeader, 988)}));
}

TEST_F(MemPool, ValidateStopsAtTheFirstBadArea) {
  Pool pool(1000);
  const Holes holes = make_holes(pool, 50, 50);
  auto* high = static_cast<unsigned char*>(holes.high);
  auto* low = static_cast<unsigned char*>(holes.low);
  pool->Validate(pool.start(), low);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(low - kBlockHeader, 60)}));
  console.clear();
  pool->Validate(pool.start(), high - kBlockHeader + 59);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(high - kBlockHeader, 60)}));
}

// A freed block keeps its length in the first word of what was the caller's memory. Writing there after the
// free is what Validate is for.
TEST_F(MemPool, ValidateFindsAnOverwrittenArea) {
  Pool pool(1000);
  auto* memory = static_cast<unsigned char*>(make_hole(pool, 50));
  EXPECT_EQ(word_at(memory), 60u);
  const ULONG wrong = 0x12345678;
  std::memcpy(memory, &wrong, sizeof wrong);
  pool->Validate(pool.start(), pool.end());
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(memory - kBlockHeader, wrong)}));
}

// The head area's first word leads to the next free area. What it leads to is looked at only where this pool has
// memory for a header.
TEST_F(MemPool, ValidateReadsNothingWhereNoAreaCanStart) {
  Pool pool(1000);
  unsigned char* head = pool.start() + kPoolHeader;
  for (const ULONG distance :
       {1u, 2u, 3u, 5u, 977u, 980u, 984u, 988u, 992u, 1000u, 0x7FFFFFFCu, 0xFFFFFFFCu}) {
    SCOPED_TRACE(distance);
    console.clear();
    std::memcpy(head, &distance, sizeof distance);
    pool->Validate(nullptr, at_most());
    EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(head + distance, 0)}));
  }
  // The last place where one fits, and what stands there.
  console.clear();
  const ULONG distance = 976;
  std::memcpy(head, &distance, sizeof distance);
  const ULONG area[] = {0, distance, 13};
  std::memcpy(head + distance, area, sizeof area);
  pool->Validate(pool.start(), pool.end());
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(head + distance, 13)}));
  const ULONG none = 0;
  std::memcpy(head, &none, sizeof none);
}

TEST_F(MemPool, AnAreaOfNothingMayStandAtTheVeryEnd) {
  Pool pool(1000);
  const Holes holes = make_holes(pool, 50, 50);
  unsigned char* low = static_cast<unsigned char*>(holes.low) - kBlockHeader;
  unsigned char* high = static_cast<unsigned char*>(holes.high) - kBlockHeader;
  const ULONG none = 0;
  std::memcpy(low + 8, &none, sizeof none);
  pool->Validate(pool.start(), low);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{bad_area_line(high, 60)}))
      << "the bounds belong to it";
}

TEST_F(MemPool, ValidateWithoutConsoleReturns) {
  Console = nullptr;
  Pool pool(1000);
  pool->Validate(pool.start(), pool.end() - 1);
}

// ---- The shadow heap ---------------------------------------------------------------------------------------

/// The same heap on plain vectors: areas in ascending order of their offset from the block's start, the head
/// area first. Says where a block will stand before the pool is asked.
class ShadowHeap {
 public:
  explicit ShadowHeap(ULONG size) : areas_{{kPoolHeader, size - kPoolHeader}} {}

  struct Area {
    ULONG start;
    ULONG size;
  };

  /// The block that a request gets, size 0 when there is none.
  Area allocate(ULONG request) {
    const ULONG need = std::max((request + kBlockHeader + 3) / 4 * 4, kAreaHeader);
    for (std::size_t i = areas_.size(); i-- > 0;) {
      Area& area = areas_[i];
      if (area.size < need) continue;
      if (area.size > need + kAreaHeader) {
        area.size -= need;
        return {area.start + area.size, need};
      }
      if (i == 0) return {0, 0};
      const Area whole = area;
      areas_.erase(areas_.begin() + static_cast<std::ptrdiff_t>(i));
      return whole;
    }
    return {0, 0};
  }

  void free(Area block) {
    auto after =
        std::find_if(areas_.begin(), areas_.end(), [&](const Area& a) { return a.start > block.start; });
    if (after != areas_.end() && block.start + block.size == after->start) {
      block.size += after->size;
      after = areas_.erase(after);
    }
    const auto before = after - 1;  // the head area is always below
    if (before->start + before->size == block.start) {
      before->size += block.size;
    } else {
      areas_.insert(after, block);
    }
  }

  ULONG free_space() const {
    ULONG sum = 0;
    for (const Area& area : areas_) sum += area.size;
    return sum;
  }

 private:
  std::vector<Area> areas_;
};

TEST_F(MemPool, BehavesLikeAShadowHeap) {
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  struct Block {
    ShadowHeap::Area area;
    unsigned char fill;
  };
  for (const ULONG size : {64u, 200u, 1000u, 5000u, 40000u}) {
    SCOPED_TRACE(testing::Message() << "pool of " << size << ", OSKERNEL_SEED=" << seed);
    Pool pool(size);
    ShadowHeap shadow(size);
    std::vector<Block> blocks;
    const auto check_fill = [&](const Block& block) {
      const unsigned char* memory = pool.start() + block.area.start + kBlockHeader;
      return std::all_of(memory, memory + block.area.size - kBlockHeader,
                         [&](unsigned char byte) { return byte == block.fill; });
    };
    for (int operation = 0; operation < 6000; ++operation) {
      const bool growing = operation / 500 % 2 == 0;
      if (pick(random, 0, 9) < (growing ? 7 : 3)) {
        const int most = pick(random, 0, 9) == 0 ? static_cast<int>(size) : 200;
        const auto request = static_cast<ULONG>(pick(random, 0, most));
        const ShadowHeap::Area expected = shadow.allocate(request);
        ADDR memory = pool->Allocate(request);
        if (expected.size == 0) {
          ASSERT_EQ(memory, nullptr) << "request " << request << " in operation " << operation;
        } else {
          ASSERT_EQ(memory, pool.start() + expected.start + kBlockHeader)
              << "request " << request << " in operation " << operation;
          ASSERT_EQ(block_size(memory), expected.size);
          const auto fill = static_cast<unsigned char>(pick(random, 0, 255));
          std::memset(memory, fill, expected.size - kBlockHeader);
          blocks.push_back({expected, fill});
        }
      } else if (!blocks.empty()) {
        const auto at = static_cast<std::size_t>(pick(random, 0, static_cast<int>(blocks.size()) - 1));
        const Block block = blocks[at];
        blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(at));
        ASSERT_TRUE(check_fill(block));
        OSMemPool::Free(pool.start() + block.area.start + kBlockHeader);
        shadow.free(block.area);
      }
      ASSERT_EQ(pool->FreeSpace(), shadow.free_space()) << "after operation " << operation;
      if (operation % 100 == 0) pool->Validate(pool.start() + kPoolHeader, pool.end());
    }
    for (const Block& block : blocks) {
      ASSERT_TRUE(check_fill(block));
      OSMemPool::Free(pool.start() + block.area.start + kBlockHeader);
    }
    EXPECT_EQ(pool->FreeSpace(), size - kPoolHeader);
  }
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(console.fatals().empty());
}

}  // namespace
}  // namespace oskernel_test
