// How the pool of spare links outlives a stop, what a start makes of it, and how it is given back.

#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "support/failing_new.h"
#include "support/link_objects.h"
#include "support/link_pool_fixture.h"
#include "support/ring_check.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST_F(LinkPool, UnInitialiseForgetsWhereItsLinksLay) {
  forget_pool();
  cfg.link_qty = 1000;
  StartQuiet();
  std::vector<OSLink*> links = take_all();
  for (OSLink* link : links) EXPECT_TRUE(link->Validate());
  give_back(links);
  Stop();
  OSLink::UnInitialise();
  // Some of these take the storage that the pool has given back, unless the heap keeps it apart.
  std::vector<std::unique_ptr<OSLink>> strangers;
  for (int i = 0; i < 2000; ++i) strangers.push_back(std::make_unique<OSLink>());
  for (const auto& stranger : strangers) ASSERT_FALSE(stranger->Validate());
  StartQuiet();
}

TEST_F(LinkPool, WithoutAPoolNothingIsHandedOut) {
  StartQuiet();
  Stop();
  OSLink::UnInitialise();
  OSLink::UnInitialise();
  EXPECT_EQ(OSLink::link_pool, nullptr);
  EXPECT_EQ(OSLink::Alloc(), nullptr);
  OSLink::GrowLinks();
  OSLink stranger;
  stranger.Free();
  EXPECT_THAT(console.fatals(), ElementsAre(kOutOfLinks, kOutOfLinks, "OSLink::Free corrupt link"));
  EXPECT_EQ(OS_CRITICAL_LINK.owner_thread_id, 0u);
  console.clear();
  StartQuiet();
  EXPECT_EQ(free_links(), kLinks);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST(LinkPoolAlone, IsAskedInVainBeforeTheFirstStart) {
  IN_FRESH_PROCESS({
    RecordingConsole console;
    Console = &console;
    EXPECT_EQ(OS_CRITICAL_LINK.sem, nullptr);
    OSLink link;
    EXPECT_FALSE(link.Validate());
    OSLink::UnInitialise();
    static OSLink2* const made = new OSLink2;  // from the heap, to which it never returns
    EXPECT_NE(made, nullptr);
    EXPECT_FALSE(made->Validate());
    EXPECT_THAT(console.fatals(), IsEmpty());
    Console = nullptr;
  });
}

TEST_F(LinkPool, UnInitialiseDestroysTheLinksOfAPoolWithoutBlocks) {
  forget_pool();
  cfg.link_qty = 50000;
  FailingNew::fail_at_least(50000 * sizeof(OSLink));
  StartQuiet();  // a head and no block
  FailingNew::reset();
  ASSERT_NE(OSLink::link_pool, nullptr);
  int alive = 0;
  for (int i = 0; i < 3; ++i) {
    OSLink* link = new Counted<OSLink>(&alive);
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

}  // namespace
}  // namespace oskernel_test
