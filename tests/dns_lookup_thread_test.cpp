// DnsLookup with the kernel's own threads: answers beside construction and deletion, many lookups, several threads, and
// the networking layer stopped and started in between.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/dns_lookup_fixture.h"
#include "support/seed.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// "h.N.test" has the address 10.0.0.0 + N.
std::string numbered_name(ULONG number) { return "h." + std::to_string(number) + ".test"; }
ULONG numbered_address(ULONG number) { return ip(10, 0, 0, 0) + number; }
std::optional<std::string> numbered_answer(const std::string& question) {
  const std::string name = asked_name(question);
  if (name.rfind("h.", 0) != 0) return std::nullopt;
  return address_answer(name, numbered_address(static_cast<ULONG>(std::stoul(name.substr(2)))));
}

class DnsThreads : public RunningLookups {
 protected:
  void TearDown() override {
    server_.stop();
    RunningLookups::TearDown();
  }

  NameServer server_;
};

TEST_F(DnsThreads, ManyLookupsThatDeleteThemselvesAreAllAnswered) {
  constexpr ULONG kLookups = 400, kAtOnce = 20;
  std::atomic<int> wrong{0};
  std::atomic<ULONG> sum{0};
  asker_.set_hook([&](DnsLookup* lookup, ULONG value) {
    const DnsResource* record = lookup->GetAddress();
    if (value != 0 || record == nullptr) {
      ++wrong;
    } else {
      sum += record->addr - ip(10, 0, 0, 0);
    }
    delete lookup;
  });
  server_.answer_by(numbered_answer);
  ULONG expected = 0;
  for (ULONG i = 0; i < kLookups; ++i) {
    ask_and_let_go(asker_, numbered_name(i), T_A, "10.53.53.53");
    expected += i;
    // Not more at a time than the name server's socket holds.
    if (i >= kAtOnce) {
      ASSERT_TRUE(asker_.wait_for(i - kAtOnce + 1));
    }
  }
  ASSERT_TRUE(asker_.wait_for(kLookups));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(sum, expected);
  EXPECT_EQ(asker_.count(), kLookups);
  EXPECT_TRUE(wait_until([] { return PoolState::now().buffers_out == 0; }));
}

TEST_F(DnsThreads, SeveralThreadsHaveTheirOwnLookups) {
  constexpr ULONG kThreads = 4, kEach = 40;
  server_.answer_by(numbered_answer);
  std::atomic<int> wrong{0};
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (ULONG t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<WatchedThread>([t, &wrong] {
        for (ULONG i = 0; i < kEach; ++i) {
          Asker asker;
          const ULONG number = t * kEach + i;
          const OwnedLookup lookup = ask(asker, numbered_name(number));
          if (!asker.wait_for(1)) ++wrong;
          if (first_address(*lookup) != numbered_address(number)) ++wrong;
          if (asker.values() != std::vector<ULONG>{0}) ++wrong;
        }
      }));
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(server_.sent().size(), kThreads * kEach);
}

TEST_F(DnsThreads, AThreadWithAReadyListOfItsOwnIsToldThere) {
  server_.answer_by(numbered_answer);
  WatchedThread owner([] {
    OSTrigger::TLSInitialise();
    {
      Asker asker;
      const OwnedLookup lookup = ask(asker, numbered_name(7));
      EXPECT_TRUE(wait_until(
          [&asker] {
            OSTrigger::TLSPoll();
            return asker.finished() == 1;
          },
          kPatienceMs));
      EXPECT_EQ(asker.all().at(0).thread, gettid());
      EXPECT_EQ(first_address(*lookup), numbered_address(7));
    }
    OSTrigger::TLSUninitialise();
  });
  EXPECT_TRUE(owner.finished_within(kPatienceMs));
}

TEST_F(DnsThreads, TheTriggerTaskTellsTheOthers) {
  server_.answer_by(numbered_answer);
  const OwnedLookup lookup = ask(asker_, numbered_name(1));
  ASSERT_TRUE(asker_.wait_for(1));
  EXPECT_NE(asker_.all()[0].thread, gettid());
}

TEST_F(DnsThreads, DeletingWaitsForACallbackThatAnotherThreadIsIn) {
  Gate inside, door;
  std::atomic<bool> left{false};
  asker_.set_hook([&](DnsLookup* lookup, ULONG) {
    inside.open();
    door.wait();
    // It is still there.
    EXPECT_EQ(first_address(*lookup), numbered_address(1));
    left = true;
  });
  server_.answer_by(numbered_answer);
  OwnedLookup lookup = ask(asker_, numbered_name(1));
  ASSERT_TRUE(inside.wait());
  {
    DnsLookup* const doomed = lookup.release();
    WatchedThread deleter([doomed, &left] {
      delete doomed;
      EXPECT_TRUE(left);
    });
    EXPECT_TRUE(deleter.blocked());
    door.open();
    EXPECT_TRUE(deleter.finished_within(kPatienceMs));
  }
  EXPECT_EQ(asker_.count(), 1u);
}

TEST_F(DnsThreads, NoCallbackComesAfterDeleting) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  server_.answer_by([](const std::string& question) { return numbered_answer(question); });
  for (ULONG i = 0; i < 300; ++i) {
    auto asker = std::make_unique<Asker>();
    OwnedLookup lookup = ask(*asker, numbered_name(i));
    // Anywhere between at once and behind the answer.
    const auto pause = std::chrono::microseconds(random() % 300);
    const auto until = std::chrono::steady_clock::now() + pause;
    while (std::chrono::steady_clock::now() < until && asker->count() == 0) {
    }
    lookup.reset();
    EXPECT_EQ(asker->count(), asker->finished());
    asker.reset();  // who calls back now meets nothing
  }
  EXPECT_TRUE(wait_until([] { return PoolState::now().buffers_out == 0; }));
}

TEST_F(DnsThreads, ADispatcherAndAnOwnerMayBothWantToDeleteDifferentLookups) {
  // The callback of one deletes itself and asks the next; the owner's thread deletes others meanwhile.
  constexpr ULONG kChain = 100;
  std::atomic<ULONG> next{1};
  Asker chain;
  chain.set_hook([&](DnsLookup* lookup, ULONG) {
    delete lookup;
    const ULONG number = next++;
    if (number < kChain) ask_and_let_go(chain, numbered_name(number), T_A, "10.53.53.53");
  });
  server_.answer_by(numbered_answer);
  ask_and_let_go(chain, numbered_name(0), T_A, "10.53.53.53");
  while (chain.finished() < kChain) {
    Asker own;
    const OwnedLookup lookup = ask(own, numbered_name(kChain + 1));
    ASSERT_TRUE(own.wait_for(1));
  }
  EXPECT_EQ(chain.count(0), kChain);
  EXPECT_EQ(chain.count(), kChain);
}

// ---- Stop and start ----------------------------------------------------------------------------------------------

TEST_F(DnsThreads, TheNetworkingLayerMayBeStoppedAndStartedBetweenLookups) {
  server_.answer_by(numbered_answer);
  for (ULONG i = 0; i < 5; ++i) {
    asker_.clear();
    {
      const OwnedLookup lookup = ask(asker_, numbered_name(i));
      ASSERT_TRUE(asker_.wait_for(1));
      EXPECT_EQ(first_address(*lookup), numbered_address(i));
    }
    AsyncSocket::Cleanup();
  }
}

TEST_F(DnsThreads, TheKernelMayBeStoppedAndStartedBetweenLookups) {
  // The server stays: its descriptor and thread are not the kernel's.
  for (ULONG i = 0; i < 3; ++i) {
    asker_.clear();
    {
      const OwnedLookup lookup = ask(asker_, numbered_name(i));
      ASSERT_TRUE(server_.send_to(*lookup, address_answer("x", numbered_address(i))));
      ASSERT_TRUE(asker_.wait_for(1));
      EXPECT_EQ(first_address(*lookup), numbered_address(i));
    }
    StopNetwork();
    StartNetwork();
  }
}

TEST_F(DnsThreads, ALookupThatIsTheFirstSocketOfTheProgramStartsTheLayer) {
  EXPECT_FALSE(now_of(AsyncSocket::AsyncInitDone));
  const OwnedLookup lookup = ask(asker_, numbered_name(1));
  EXPECT_TRUE(now_of(AsyncSocket::AsyncInitDone));
  ASSERT_TRUE(server_.send_to(*lookup, address_answer("x", numbered_address(1))));
  ASSERT_TRUE(asker_.wait_for(1));
}

}  // namespace
