// The pool of spare links: what Alloc and Free hand over, how the pool grows, and what a corrupt link or an
// exhausted heap leaves behind.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "support/failing_new.h"
#include "support/link_drought.h"
#include "support/link_pool_fixture.h"
#include "support/ring_check.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
  std::reverse(addresses.begin(), addresses.end());  // each new link went in at the front
  EXPECT_TRUE(std::is_sorted(addresses.begin(), addresses.end()));
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
  const std::vector<OSLink*> before = ring_nodes(*OSLink::link_pool);
  EnterCriticalSection(&OS_CRITICAL_LINK);
  OSLink::GrowLinks();
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  EXPECT_EQ(free_links(), 2 * kLinks);
  EXPECT_TRUE(LinkPoolIsSound());
  const std::vector<OSLink*> after = ring_nodes(*OSLink::link_pool);
  ASSERT_EQ(after.size(), 2u * kLinks);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin() + kLinks));
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
  WatchedThread([] { OSLink::Alloc()->Free(); });
}

TEST_F(LinkPool, ALinkThatIsFreedInAListLeavesItsRing) {
  StartQuiet();
  OSLinkListObj before, after;
  OSLinkList list;
  OSLink* link = OSLink::Alloc();
  list.Append(&before);
  list.Append(link, &before);
  list.Append(&after);
  link->Free();
  EXPECT_THAT(ring_nodes(list), ElementsAre(&before, &after));
  EXPECT_TRUE(LinkPoolIsSound());
  EXPECT_EQ(free_links(), kLinks);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(LinkPool, APoolLinkMadeWhenTheBlockIsUsedUpComesFromTheHeap) {
  StartQuiet();
  // Destroying such a link gives no memory back, so it stays reachable from here.
  static OSLink2* made = nullptr;
  made = new OSLink2;
  ASSERT_NE(made, nullptr);
  EXPECT_FALSE(made->Validate());
  EXPECT_EQ(made->object, nullptr);
  made->Free();
  EXPECT_THAT(console.fatals(), ElementsAre("OSLink::Free corrupt link"));

  const auto storage = reinterpret_cast<std::uintptr_t>(made);
  delete made;
  std::vector<std::unique_ptr<char[]>> others;
  for (int i = 0; i < 100; ++i) {
    others.emplace_back(new char[sizeof(OSLink2)]);
    ASSERT_NE(reinterpret_cast<std::uintptr_t>(others.back().get()), storage) << "the heap has it back";
  }
}

TEST_F(LinkPool, DestroyingAPoolLinkGivesNoMemoryBack) {
  StartQuiet();
  OSLink* link = OSLink::Alloc();
  delete link;
  EXPECT_EQ(free_links(), kLinks - 1);
  std::vector<OSLink*> links = take_all();
  links.push_back(OSLink::Alloc());
  EXPECT_EQ(std::count(links.begin(), links.end(), link), 0) << "its storage is not used again";
  give_back(links);
  EXPECT_EQ(free_links(), 2 * kLinks - 1);
  // Its block goes as a whole; a pool that waited for the missing link would never be rebuilt.
  Stop();
  forget_pool();
  StartQuiet();
  EXPECT_EQ(free_links(), kLinks);
}

TEST_F(LinkPool, APoolWhosePointersHaveBeenWipedStartsAnew) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  OSLink::link_pool->next = nullptr;
  links.push_back(OSLink::Alloc());
  ASSERT_NE(links.back(), nullptr);
  EXPECT_EQ(free_links(), kLinks - 1);
  EXPECT_TRUE(LinkPoolIsSound());
  give_back(links);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(LinkPool, WithoutAConsoleEveryRefusalIsSilentAndHarmless) {
  StartQuiet();
  Console = nullptr;
  OSLink* link = OSLink::Alloc();
  link->Free();
  link->Free();
  OSLink stranger;
  stranger.Free();
  OSLink* const first = OSLink::link_pool->First();
  first->isFree = false;
  EXPECT_EQ(OSLink::Alloc(), nullptr);
  first->isFree = true;
  stranger.isFree = true;
  OSLink::link_pool->Insert(&stranger, &stranger);
  EXPECT_EQ(OSLink::Alloc(), nullptr);
  stranger.Remove();
  EXPECT_TRUE(LinkPoolIsSound());
  {
    const LinkDrought drought;
    EXPECT_EQ(OSLink::Alloc(), nullptr);
  }
  Console = &console;
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
}

TEST_F(LinkPool, AnExhaustedHeapIsReportedOutsideTheSection) {
  StartQuiet();
  std::vector<OSLink*> links = take_all();

  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  OSLink* none = OSLink::Alloc();
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
  EXPECT_EQ(none, nullptr) << "above all it is not the pool's head";
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
  EXPECT_EQ(free_links(), 0);
  EXPECT_TRUE(LinkPoolIsSound());
  for (OSLink* link : links) EXPECT_TRUE(link->Validate()) << "the blocks are still known";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(OSLink::Alloc(), nullptr);
  EXPECT_EQ(console.fatals().size(), 4u);

  FailingNew::reset();
  OSLink* link = OSLink::Alloc();
  ASSERT_NE(link, nullptr) << "the next attempt may succeed";
  EXPECT_EQ(free_links(), kLinks - 1);
  links.push_back(link);
  give_back(links);
  WatchedThread([] { OSLink::Alloc()->Free(); });
  EXPECT_EQ(console.fatals().size(), 4u) << "no leave was reported as unowned";
}

TEST_F(LinkPool, GrowLinksLeavesItsCallersSectionForTheReportAndTakesItAgain) {
  StartQuiet();
  FailingNew::fail_at_least(kLinks * sizeof(OSLink));
  EnterCriticalSection(&OS_CRITICAL_LINK);
  OSLink::GrowLinks();
  EXPECT_EQ(OS_CRITICAL_LINK.owner_count, 1) << "the caller holds it as before";
  LeaveCriticalSection(&OS_CRITICAL_LINK);
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);

  console.clear();
  OSLink::GrowLinks();  // and by a caller that does not hold it
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
  EXPECT_EQ(OS_CRITICAL_LINK.owner_count, 0);
  EXPECT_EQ(free_links(), kLinks);
}

TEST_F(LinkPool, APoolOfManyBlocksNeedsRoomForItsTableOfBlocks) {
  // The first 16 blocks fit the table as it begins; the next ones need a larger one, which a full heap
  // refuses.
  cfg.link_qty = 1;
  forget_pool();
  StartQuiet();
  for (int blocks = 1; blocks < 16; ++blocks) OSLink::GrowLinks();
  EXPECT_EQ(free_links(), 16);
  FailingNew::fail_at_least(4 * sizeof(OSLink));  // a block of one link is smaller than that
  OSLink::GrowLinks();
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks));
  EXPECT_EQ(free_links(), 16);
  FailingNew::reset();
  for (int blocks = 16; blocks < 100; ++blocks) OSLink::GrowLinks();
  EXPECT_EQ(free_links(), 100);
  std::vector<OSLink*> links = take_all();
  for (OSLink* link : links) EXPECT_TRUE(link->Validate());
  give_back(links);
  EXPECT_EQ(console.fatals().size(), 1u);
}

TEST_F(LinkPool, GrowingByNothingTakesNothing) {
  StartQuiet();
  for (int quantity : {0, -1, INT32_MIN}) {
    SCOPED_TRACE(quantity);
    KERNELCFG->link_qty = quantity;
    FailingNew::fail_at_least(1);
    OSLink::GrowLinks();
    FailingNew::reset();
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_EQ(free_links(), kLinks);
  }
  KERNELCFG->link_qty = kLinks;
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
  const LinkDrought drought;
  OSListObj object, other;
  {
    OSIndirectList list;
    list.Append(&object);
    list.Insert(&object);
    list.InsertBefore(&object, &other);
    list.InsertAt(&object, &other);
    EXPECT_EQ(list.AppendLink(&object), nullptr);
    EXPECT_EQ(list.Size(), 0);
    EXPECT_EQ(list.Signature(), 0u);
    EXPECT_TRUE(ListIsSound(list));
    list.Remove(&object);
    list.Flush();
  }
  EXPECT_EQ(console.fatals().size(), 5u);
  for (const std::string& message : console.fatals()) EXPECT_EQ(message, kOutOfLinks);
}

TEST_F(LinkPool, ABufferSurvivesAPoolThatIsOutOfLinks) {
  StartQuiet();
  const int before = OSBuf::PoolSize(1);
  {
    const LinkDrought drought;
    OSBuf* buf = OSBuf::Alloc(10);
    EXPECT_FALSE(console.fatals().empty());
    if (buf != nullptr) buf->Free();
  }
  EXPECT_EQ(OSBuf::PoolSize(1), before);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OS_CRITICAL_BUFFERS.owner_thread_id, 0u);
  OSBuf* again = OSBuf::Alloc(10);
  ASSERT_NE(again, nullptr);
  again->Free();
}

TEST_F(LinkPool, ARecordedCallbackSurvivesAPoolThatIsOutOfLinks) {
  StartQuiet();
  const LinkDrought drought;
  const ULONG before = OSCallback::callback_pool_size;
  OSCallbackRecord record;
  OSCallback* callback = OSCallback::Alloc(
      &record, [](OSObj*, ADDR, ULONG) {}, nullptr, nullptr, 0);
  EXPECT_FALSE(console.fatals().empty());
  if (callback != nullptr) callback->Free();
  EXPECT_EQ(record.Size(), 0);
  EXPECT_EQ(OSCallback::callback_pool_size, before);
  EXPECT_EQ(OS_CRITICAL_CALLBACKS.owner_thread_id, 0u);
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

}  // namespace
}  // namespace oskernel_test
