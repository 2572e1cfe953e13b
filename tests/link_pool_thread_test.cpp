// The pool of spare links between threads and in random use: no link twice, none lost.

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstddef>
#include <random>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/link.h"
#include "support/link_pool_fixture.h"
#include "support/ring_check.h"
#include "support/section_wait.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::IsEmpty;

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
  OSLink* link = nullptr;
  ExpectOthersWait(OS_CRITICAL_LINK, {
                                         {"Alloc", [&] { link = OSLink::Alloc(); }},
                                         {"Validate", [&] { EXPECT_TRUE(link->Validate()); }},
                                         {"GrowLinks", [] { OSLink::GrowLinks(); }},
                                         {"Initialise", [] { OSLink::Initialise(); }},
                                         {"Free", [&] { link->Free(); }},
                                     });
  EXPECT_EQ(free_links(), 2 * kLinks);
}

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
