// The pool of spare links: what Alloc and Free hand over, how the pool grows, what a corrupt link or an
// exhausted heap leaves behind, and how the pool outlives a stop.

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "support/failing_new.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kOutOfLinks[] = "OSLink::Alloc Out Of links";

class LinkPool : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FailingNew::reset();
    cfg.link_qty = kLinks;
  }
  void TearDown() override {
    FailingNew::reset();
    KernelTest::TearDown();
    EXPECT_TRUE(LinkPoolIsSound());
  }

  /// Releases the pool that earlier tests left, so that the next start has to build one.
  static void forget_pool() {
    if (OSLink::link_pool != nullptr) OSLink::UnInitialise();
  }

  static int free_links() { return static_cast<int>(OSLink::link_pool_size); }

  /// Takes every free link.
  static std::vector<OSLink*> take_all() {
    std::vector<OSLink*> taken;
    while (OSLink::link_pool_size != 0) taken.push_back(OSLink::Alloc());
    return taken;
  }
  static void give_back(std::vector<OSLink*>& links) {
    for (OSLink* link : links) link->Free();
    links.clear();
  }

  static constexpr int kLinks = 24;
};

TEST_F(LinkPool, StartsWithTheConfiguredNumberOfLinks) {
  StartQuiet();
  EXPECT_EQ(free_links(), kLinks);
  ASSERT_NE(OSLink::link_pool, nullptr);
  EXPECT_TRUE(LinkPoolIsSound());
  EXPECT_EQ(OSLink::link_pool->object, nullptr);
  EXPECT_FALSE(OSLink::link_pool->isFree);
}

TEST_F(LinkPool, HandsOutDetachedLinks) {
  StartQuiet();
  OSLink* link = OSLink::Alloc();
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->object, nullptr);
  EXPECT_FALSE(link->isFree);
  EXPECT_EQ(link->next, link);
  EXPECT_EQ(link->previous, link);
  EXPECT_EQ(free_links(), kLinks - 1);
  link->Free();
  EXPECT_EQ(free_links(), kLinks);
}

TEST_F(LinkPool, AFreedLinkIsMarkedAndStandsAtTheFront) {
  StartQuiet();
  OSLink* a = OSLink::Alloc();
  OSLink* b = OSLink::Alloc();
  a->Free();
  b->Free();
  EXPECT_TRUE(b->isFree);
  EXPECT_EQ(b->object, b);
  EXPECT_EQ(OSLink::link_pool->next, b);
  EXPECT_EQ(OSLink::Alloc(), b) << "the link freed last is handed out first";
  EXPECT_EQ(OSLink::Alloc(), a);
  a->Free();
  b->Free();
}

TEST_F(LinkPool, LinksLieApartAndAligned) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  ASSERT_EQ(links.size(), static_cast<std::size_t>(kLinks));
  std::vector<std::uintptr_t> addresses;
  for (OSLink* link : links) addresses.push_back(reinterpret_cast<std::uintptr_t>(link));
  std::sort(addresses.begin(), addresses.end());
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    EXPECT_EQ(addresses[i] % alignof(OSLink2), 0u);
    if (i > 0) {
      EXPECT_GE(addresses[i] - addresses[i - 1], sizeof(OSLink2));
    }
  }
  give_back(links);
}

TEST_F(LinkPool, EveryLinkOfThePoolIsValidAndAStrangerIsNot) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  for (OSLink* link : links) EXPECT_TRUE(link->Validate());
  OSLink on_the_stack;
  EXPECT_FALSE(on_the_stack.Validate());
  const auto on_the_heap = std::make_unique<OSLink>();
  EXPECT_FALSE(on_the_heap->Validate());
  EXPECT_FALSE(OSLink::link_pool->Validate()) << "the head is no link of the pool";
  give_back(links);
  EXPECT_TRUE(OSLink::link_pool->First()->Validate()) << "lying in the pool makes no difference";
}

TEST_F(LinkPool, AnEmptyPoolGrowsByItsQuantity) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  OSLink* extra = OSLink::Alloc();
  ASSERT_NE(extra, nullptr);
  EXPECT_EQ(free_links(), kLinks - 1);
  EXPECT_TRUE(extra->Validate());
  EXPECT_EQ(extra->object, nullptr);
  EXPECT_FALSE(extra->isFree);
  EXPECT_EQ(extra->next, extra);
  for (OSLink* link : links) EXPECT_TRUE(link->Validate()) << "older blocks count as well";
  links.push_back(extra);
  give_back(links);
  EXPECT_EQ(free_links(), 2 * kLinks);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(LinkPool, GrowsAgainAndAgain) {
  cfg.link_qty = 3;
  StartQuiet();
  std::vector<OSLink*> links;
  for (int i = 0; i < 50; ++i) links.push_back(OSLink::Alloc());
  EXPECT_EQ(free_links(), 1);
  EXPECT_EQ(std::set<OSLink*>(links.begin(), links.end()).size(), 50u);
  for (OSLink* link : links) EXPECT_TRUE(link->Validate());
  give_back(links);
  EXPECT_EQ(free_links(), 51);
}

TEST_F(LinkPool, GrowLinksAddsOneBlockInFront) {
  StartQuiet();
  EnterCriticalSection(&OS_CRITICAL_LINK);
  OSLink::GrowLinks();
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  EXPECT_EQ(free_links(), 2 * kLinks);
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(LinkPool, APoolLinkCarriesAnObjectThroughAListAndHome) {
  StartQuiet();
  OSLinkListObj object;
  OSLinkList list;
  OSLink* link = OSLink::Alloc();
  list.Append(link, &object);
  EXPECT_EQ(list.FirstObject(), static_cast<OSListObj*>(&object));
  list.Flush();
  EXPECT_EQ(free_links(), kLinks);
  EXPECT_TRUE(link->isFree);
}

// ----------------------------------------------------------------------------------------------- refusals

TEST_F(LinkPool, FreeingALinkTwiceIsReportedAndChangesNothing) {
  StartQuiet();
  OSLink* link = OSLink::Alloc();
  link->Free();
  link->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSLink::Free already free"));
  EXPECT_EQ(free_links(), kLinks);
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(LinkPool, FreeingALinkFromElsewhereIsReportedAndChangesNothing) {
  StartQuiet();
  {
    OSLink stranger;
    stranger.Free();
    EXPECT_THAT(console.fatals(), ElementsAre("OSLink::Free corrupt link"));
    EXPECT_EQ(free_links(), kLinks);
    EXPECT_TRUE(LinkPoolIsSound());
  }
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(LinkPool, TheMarkIsLookedAtBeforeTheAddress) {
  StartQuiet();
  OSLink stranger;
  stranger.isFree = true;
  stranger.Free();
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSLink::Free already free");
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(LinkPool, ALinkThatIsNotMarkedFreeIsReportedOnAlloc) {
  StartQuiet();
  OSLink* first = OSLink::link_pool->First();
  first->isFree = false;
  OSLink* got = OSLink::Alloc();
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSLink::Alloc link already allocated");
  if (got == nullptr) {
    first->isFree = true;
  } else {
    got->Free();
  }
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(LinkPool, AStrangerInThePoolIsReportedOnAlloc) {
  StartQuiet();
  OSLink stranger;
  stranger.isFree = true;
  OSLink::link_pool->Insert(&stranger, &stranger);
  ++OSLink::link_pool_size;
  OSLink* got = OSLink::Alloc();
  ASSERT_FALSE(console.fatals().empty());
  EXPECT_EQ(console.fatals().front(), "OSLink::Alloc corrupt link");
  if (stranger.object != nullptr && stranger.next != &stranger) {  // still in the pool
    stranger.Remove();
    --OSLink::link_pool_size;
  }
  if (got != nullptr && got != &stranger) got->Free();
  EXPECT_TRUE(LinkPoolIsSound());
}

TEST_F(LinkPool, NoReportLeavesTheSectionHeld) {
  StartQuiet();
  OSLink stranger;
  stranger.Free();
  OSLink* link = OSLink::Alloc();
  link->Free();
  link->Free();
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
  std::thread([] {
    OSLink* other = OSLink::Alloc();
    other->Free();
  }).join();
}

/// Looks at the link section at the moment of the report.
class WatchingConsole : public RecordingConsole {
 public:
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    held_at_report = OS_CRITICAL_LINK.owner_count != 0;
    va_list arguments;
    va_start(arguments, format);
    char text[200];
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    RecordingConsole::Fatal("%s", text);
  }
  bool held_at_report = false;
};

TEST_F(LinkPool, AnExhaustedHeapIsReportedOutsideTheSection) {
  StartQuiet();
  WatchingConsole watching;
  Console = &watching;
  std::vector<OSLink*> links = take_all();

  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  OSLink* none = OSLink::Alloc();
  EXPECT_THAT(watching.fatals(), ElementsAre(kOutOfLinks));
  EXPECT_FALSE(watching.held_at_report);
  EXPECT_EQ(none, nullptr) << "above all it is not the pool's head";
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
  EXPECT_EQ(free_links(), 0);
  EXPECT_TRUE(LinkPoolIsSound());
  for (OSLink* link : links) EXPECT_TRUE(link->Validate()) << "the blocks are still known";

  FailingNew::reset();
  OSLink* link = OSLink::Alloc();
  ASSERT_NE(link, nullptr) << "the next attempt may succeed";
  EXPECT_EQ(free_links(), kLinks - 1);
  links.push_back(link);
  give_back(links);
  Console = &console;
}

TEST_F(LinkPool, AnExhaustedHeapLeavesAnEnteredSectionConsistentForItsHolder) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(OSLink::Alloc(), nullptr);
  EXPECT_EQ(console.fatals().size(), 3u);
  FailingNew::reset();
  give_back(links);
  std::thread([] { OSLink::Alloc()->Free(); }).join();
  EXPECT_EQ(console.fatals().size(), 3u) << "no leave was reported as unowned";
}

TEST_F(LinkPool, AnExhaustedHeapIsReportedAtTheStartToo) {
  forget_pool();
  cfg.link_qty = 50000;
  FailingNew::fail_at_least(50000 * sizeof(OSLink));
  StartQuiet();
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
  EXPECT_EQ(free_links(), 0);
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
  FailingNew::reset();
  OSLink* link = OSLink::Alloc();
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(free_links(), 49999);
  link->Free();
}

TEST_F(LinkPool, ListsSurviveAPoolThatIsOutOfLinks) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  OSListObj object, other;
  {
    OSIndirectList list;
    list.Append(&object);
    list.Insert(&object);
    list.InsertBefore(&object, &other);
    list.InsertAt(&object, &other);
    EXPECT_EQ(list.Size(), 0);
    EXPECT_TRUE(ListIsSound(list));
    list.Remove(&object);
    list.Flush();
  }
  EXPECT_FALSE(console.fatals().empty());
  for (const std::string& message : console.fatals()) EXPECT_EQ(message, kOutOfLinks);
  FailingNew::reset();
  give_back(links);
}

TEST_F(LinkPool, ABufferSurvivesAPoolThatIsOutOfLinks) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  const int before = OSBuf::PoolSize(1);
  OSBuf* buf = OSBuf::Alloc(10);
  EXPECT_FALSE(console.fatals().empty());
  if (buf != nullptr) buf->Free();
  FailingNew::reset();
  EXPECT_EQ(OSBuf::PoolSize(1), before);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OS_CRITICAL_BUFFERS.owner_thread_id, 0u);
  give_back(links);
  OSBuf* again = OSBuf::Alloc(10);
  ASSERT_NE(again, nullptr);
  again->Free();
}

TEST_F(LinkPool, ARecordedCallbackSurvivesAPoolThatIsOutOfLinks) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  const ULONG before = OSCallback::callback_pool_size;
  {
    OSCallbackRecord record;
    OSCallback* callback = OSCallback::Alloc(
        &record, [](OSObj*, ADDR, ULONG) {}, nullptr, nullptr, 0);
    EXPECT_FALSE(console.fatals().empty());
    if (callback != nullptr) callback->Free();
    EXPECT_EQ(record.Size(), 0);
  }
  FailingNew::reset();
  EXPECT_EQ(OSCallback::callback_pool_size, before);
  EXPECT_EQ(OS_CRITICAL_CALLBACKS.owner_thread_id, 0u);
  give_back(links);
}

TEST_F(LinkPool, AQuantityOfNothingMakesAnEmptyPool) {
  for (int quantity : {0, -1, -4000, INT32_MIN}) {
    SCOPED_TRACE(quantity);
    forget_pool();
    console.clear();
    cfg.link_qty = quantity;
    StartQuiet();
    EXPECT_EQ(free_links(), 0);
    OSLink* link = OSLink::Alloc();
    EXPECT_EQ(link, nullptr) << "there is nothing to grow by";
    ASSERT_FALSE(console.fatals().empty());
    EXPECT_EQ(console.fatals().back(), kOutOfLinks);
    EXPECT_TRUE(LinkPoolIsSound());
    EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
    Stop();
  }
  OSLink::UnInitialise();
  cfg.link_qty = kLinks;
  StartQuiet();
}

// ------------------------------------------------------------------------------------- stop and start again

TEST_F(LinkPool, TheStopLeavesThePoolAlone) {
  StartQuiet();
  OSLink* link = OSLink::Alloc();
  Stop();
  EXPECT_TRUE(link->Validate());
  EXPECT_EQ(free_links(), kLinks - 1);
  OSLink* other = OSLink::Alloc();
  ASSERT_NE(other, nullptr);
  other->Free();
  link->Free();
  EXPECT_EQ(free_links(), kLinks);
}

TEST_F(LinkPool, AStartRebuildsThePoolWhenAllLinksAreHome) {
  for (int quantity : {24, 100, 1, 7}) {
    SCOPED_TRACE(quantity);
    cfg.link_qty = quantity;
    StartQuiet();
    EXPECT_EQ(free_links(), quantity);
    std::vector<OSLink*> links = take_all();
    links.push_back(OSLink::Alloc());
    EXPECT_EQ(free_links(), quantity - 1);
    give_back(links);
    EXPECT_EQ(free_links(), 2 * quantity);
    Stop();
  }
}

TEST_F(LinkPool, AStartKeepsThePoolWhileALinkIsOut) {
  for (int other_quantity : {kLinks, 5, 100}) {
    SCOPED_TRACE(other_quantity);
    cfg.link_qty = kLinks;
    StartQuiet();
    EXPECT_EQ(free_links(), kLinks);
    OSLink* out = OSLink::Alloc();
    Stop();

    cfg.link_qty = other_quantity;
    StartQuiet();
    EXPECT_EQ(free_links(), kLinks - 1);
    EXPECT_TRUE(out->Validate());
    EXPECT_TRUE(LinkPoolIsSound());

    // The pool grows by the quantity of today; blocks of both sizes know their links and no others.
    std::vector<OSLink*> links = take_all();
    links.push_back(OSLink::Alloc());
    EXPECT_EQ(free_links(), other_quantity - 1);
    std::vector<OSLink*> rest = take_all();
    links.insert(links.end(), rest.begin(), rest.end());
    links.push_back(out);
    EXPECT_EQ(links.size(), static_cast<std::size_t>(kLinks + other_quantity));
    for (OSLink* link : links) EXPECT_TRUE(link->Validate());
    give_back(links);
    EXPECT_THAT(console.fatals(), IsEmpty());
    Stop();
  }
}

TEST_F(LinkPool, BlocksOfDifferentSizesDoNotReachBeyondTheirEnd) {
  // A small block measured with a later, larger quantity would take what lies behind it for its own.
  forget_pool();
  cfg.link_qty = 2;
  StartQuiet();
  OSLink* out = OSLink::Alloc();
  OSLink* other = OSLink::Alloc();
  std::vector<std::unique_ptr<OSLink>> strangers;
  for (int i = 0; i < 2000; ++i) strangers.push_back(std::make_unique<OSLink>());
  Stop();
  cfg.link_qty = 3000;
  StartQuiet();
  OSLink* grown = OSLink::Alloc();
  ASSERT_NE(grown, nullptr);
  for (OSLink* link : {out, other, grown}) EXPECT_TRUE(link->Validate());
  for (const auto& stranger : strangers) ASSERT_FALSE(stranger->Validate());
  for (OSLink* link : {out, other, grown}) link->Free();
  EXPECT_EQ(free_links(), 3002);
}

TEST_F(LinkPool, InitialisingTwiceInARowLosesNothing) {
  StartQuiet();
  OSLink* out = OSLink::Alloc();
  OSLink::Initialise();
  EXPECT_TRUE(out->Validate());
  EXPECT_EQ(free_links(), kLinks - 1);
  out->Free();
  EXPECT_EQ(free_links(), kLinks);
}

TEST_F(LinkPool, StartAndStopDoNotGrowThePool) {
  for (int round = 0; round < 100; ++round) {
    StartQuiet();
    OSBuf* forgotten = OSBuf::Alloc(10);  // its link goes home with the list of allocated buffers
    ASSERT_NE(forgotten, nullptr);
    ASSERT_EQ(free_links(), kLinks - 1);
    Stop();
    ASSERT_EQ(free_links(), kLinks);
    ASSERT_TRUE(LinkPoolIsSound());
  }
}

TEST_F(LinkPool, UnInitialiseReleasesTheBlocks) {
  StartQuiet();
  OSLink stranger;
  Stop();
  OSLink::UnInitialise();
  EXPECT_FALSE(stranger.Validate());
  StartQuiet();
  EXPECT_EQ(free_links(), kLinks);
}

/// Counts its destructions; lies on the ordinary heap.
class CountedLink : public OSLink {
 public:
  explicit CountedLink(int* alive) : alive_(alive) { ++*alive_; }
  ~CountedLink() override { --*alive_; }

 private:
  int* alive_;
};

TEST_F(LinkPool, UnInitialiseDestroysTheLinksOfAPoolWithoutBlocks) {
  forget_pool();
  cfg.link_qty = 50000;
  FailingNew::fail_at_least(50000 * sizeof(OSLink));
  StartQuiet();  // a head and no block
  FailingNew::reset();
  ASSERT_NE(OSLink::link_pool, nullptr);
  int alive = 0;
  for (int i = 0; i < 3; ++i) {
    CountedLink* link = new CountedLink(&alive);
    link->isFree = true;
    OSLink::link_pool->Insert(link, link);
    ++OSLink::link_pool_size;
  }
  Stop();
  OSLink::UnInitialise();
  EXPECT_EQ(alive, 0);
  cfg.link_qty = kLinks;
  console.clear();
  StartQuiet();
  EXPECT_EQ(free_links(), kLinks);
}

TEST_F(LinkPool, APoolLinkMadeWhenTheBlockIsUsedUpComesFromTheHeap) {
  StartQuiet();
  // Destroying such a link gives no memory back, so it stays reachable from here.
  static std::vector<std::unique_ptr<OSLink2>>* made = new std::vector<std::unique_ptr<OSLink2>>;
  made->emplace_back(new OSLink2);
  ASSERT_NE(made->back(), nullptr);
  EXPECT_FALSE(made->back()->Validate());
  EXPECT_EQ(made->back()->object, nullptr);
  made->back()->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSLink::Free corrupt link"));
}

// ---------------------------------------------------------------------------------------------- threads

TEST_F(LinkPool, ThreadsNeverGetTheSameLink) {
  cfg.link_qty = 8;  // so that the pool grows under the threads as well
  StartQuiet();
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::vector<OSLink*> held;
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        OSLink* link = OSLink::Alloc();
        if (link == nullptr || link->isFree || link->object != nullptr) {
          ++failures;
          continue;
        }
        link->object = &held;  // a second owner would see this, or change it
        held.push_back(link);
        if (held.size() < 12 && (round + t) % 3 != 0) continue;
        for (OSLink* mine : held) {
          if (mine->object != &held) ++failures;
          mine->object = nullptr;
          mine->Free();
        }
        held.clear();
      }
      for (OSLink* mine : held) {
        mine->object = nullptr;
        mine->Free();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(free_links() % 8, 0);
  EXPECT_LE(free_links(), 8 * 7) << "the pool never grows while it has a free link";
  EXPECT_TRUE(LinkPoolIsSound());
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(LinkPool, TheSectionGuardsThePool) {
  StartQuiet();
  EnterCriticalSection(&OS_CRITICAL_LINK);
  std::atomic<bool> got{false};
  std::thread other([&] {
    OSLink* link = OSLink::Alloc();
    got = true;
    link->Free();
  });
  EXPECT_FALSE(wait_until([&] { return got.load(); }, 50)) << "another thread got in";
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  other.join();
  EXPECT_TRUE(got);
}

// ---------------------------------------------------------------------------------------------- random

TEST_F(LinkPool, RandomUseLeavesEveryLinkAccountedFor) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  cfg.link_qty = 10;
  StartQuiet();
  std::vector<OSLink*> out;
  std::vector<OSLink*> stack;  // the free links freed since the last growth, in their order of return
  std::size_t total = 10;
  for (int round = 0; round < 5000; ++round) {
    if (pick(random, 0, 1) == 0 || out.empty()) {
      const bool dry = OSLink::link_pool_size == 0;
      OSLink* link = OSLink::Alloc();
      ASSERT_NE(link, nullptr);
      ASSERT_TRUE(std::find(out.begin(), out.end(), link) == out.end());
      if (dry) {
        total += 10;
        stack.clear();
      } else if (!stack.empty()) {
        ASSERT_EQ(link, stack.back());
        stack.pop_back();
      }
      out.push_back(link);
    } else {
      const std::size_t i = static_cast<std::size_t>(pick(random, 0, static_cast<int>(out.size()) - 1));
      out[i]->Free();
      stack.push_back(out[i]);
      out.erase(out.begin() + static_cast<std::ptrdiff_t>(i));
    }
    ASSERT_EQ(static_cast<std::size_t>(OSLink::link_pool_size) + out.size(), total);
  }
  give_back(out);
  EXPECT_TRUE(LinkPoolIsSound());
}

}  // namespace
}  // namespace oskernel_test
