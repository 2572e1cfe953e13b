// The name cache used by everybody at once: sockets that ask and go, names that are cleared, deliveries.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/name_cache_fixture.h"
#include "support/seed.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

/// With the kernel's own trigger task, which delivers beside everything else.
class NameCacheRaces : public NetworkTest {
 protected:
  void SetUp() override {
    FakeResolver::reset();
    NetworkTest::SetUp();
    threads_without_layer_ = running_threads();
    for (int i = 0; i < kNames; i += 2) FakeResolver::know(name(i), address(i));
    FakeResolver::know("good", ip(10, 9, 8, 7));
    AsyncSocket::Init();
  }
  void TearDown() override {
    NetworkTest::TearDown();
    EXPECT_LE(FakeResolver::most_at_once(), 1);
    EXPECT_EQ(DNSEntry::entries.Size(), 0);
    EXPECT_EQ(DNSEntry::pending.Size(), 0);
  }
  int threads_without_layer_ = 0;
  static constexpr int kNames = 8;  ///< those with an even number are known
  static std::string name(int number) { return "host" + std::to_string(number); }
  static ULONG address(int number) { return ip(10, 0, 0, static_cast<ULONG>(number) + 1); }

  /// For so long, or so many rounds, whichever is over first.
  class Rounds {
   public:
    explicit Rounds(int most) : left_(most) {}
    bool next() { return left_-- > 0 && Clock::now() < begin_ + std::chrono::seconds(3); }
    /// The same, but not before there has been enough, for which there is patience.
    bool next_until(bool enough) {
      return next() || (!enough && Clock::now() < begin_ + std::chrono::milliseconds(kPatienceMs));
    }

   private:
    using Clock = std::chrono::steady_clock;
    int left_;
    const Clock::time_point begin_ = Clock::now();
  };
};

TEST_F(NameCacheRaces, LookUpsAreRightWhileNamesAreCleared) {
  const unsigned seed = test_seed();
  std::atomic<int> known{0};
  constexpr int kEnough = 1000;
  const auto look_up = [&](unsigned n) {
    std::mt19937 random(seed + n);
    for (Rounds rounds(20000); rounds.next_until(known >= kEnough);) {
      const int number = pick(random, 0, kNames - 1);
      const ULONG found = DNSEntry::Lookup(name(number).c_str(), nullptr);
      if (found == 0) continue;
      ++known;
      ASSERT_EQ(found, address(number));
      ASSERT_EQ(number % 2, 0);
    }
  };
  const auto clear = [&](unsigned n) {
    std::mt19937 random(seed + n);
    for (Rounds rounds(5000); rounds.next();) {
      DNSEntry::Clear(name(pick(random, 0, kNames - 1)).c_str());
      std::this_thread::yield();
    }
  };
  {
    WatchedThread one([&] { look_up(1); });
    WatchedThread two([&] { look_up(2); });
    WatchedThread three([&] { clear(3); });
  }
  EXPECT_GE(known, kEnough) << "names were known in between";
  EXPECT_TRUE(wait_until([] { return DNSEntry::Lookup("good", nullptr) == ip(10, 9, 8, 7); }));
}

TEST_F(NameCacheRaces, SocketsComeAndGoWhileTheyWait) {
  const unsigned seed = test_seed();
  const auto come_and_go = [&](unsigned n) {
    std::mt19937 random(seed + n);
    std::vector<OwnedSocket> sockets;
    for (Rounds rounds(400); rounds.next();) {
      OwnedSocket socket(new AsyncSocket(pick(random, 0, 1) == 0));
      ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
      ASSERT_EQ(socket->Connect(name(pick(random, 0, kNames - 1)).c_str(), 4711), 0);
      sockets.push_back(std::move(socket));
      if (pick(random, 0, 3) == 0) DNSEntry::Clear(name(pick(random, 0, kNames - 1)).c_str());
      if (sockets.size() > 3) sockets.erase(sockets.begin() + pick(random, 0, 3));
    }
  };
  WatchedThread one([&] { come_and_go(1); });
  WatchedThread two([&] { come_and_go(2); });
}

TEST_F(NameCacheRaces, EverySocketThatStaysIsToldOnce) {
  for (Rounds rounds(30); rounds.next();) {
    DNSEntry::Clear("good");
    console.clear();
    constexpr int kThreads = 3, kEach = 4;
    std::vector<OwnedSocket> sockets(kThreads * kEach);
    for (OwnedSocket& socket : sockets) {
      socket = indirect_socket();
      ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
    }
    {
      std::vector<std::unique_ptr<WatchedThread>> threads;
      for (int n = 0; n < kThreads; ++n) {
        threads.push_back(std::make_unique<WatchedThread>([&, n] {
          for (int i = 0; i < kEach; ++i)
            sockets[static_cast<std::size_t>(n * kEach + i)]->Connect("good", 4711);
        }));
      }
    }
    ASSERT_TRUE(wait_until([&] { return console.count("AsyncSocket::DNSResult") >= kThreads * kEach; }));
    EXPECT_EQ(console.count("AsyncSocket::DNSResult - address for good is 10.9.8.7"), kThreads * kEach);
    for (const OwnedSocket& socket : sockets) {
      const std::string begin = std::to_string(socket->s) + " AsyncSocket::DNSResult";
      int told = 0;
      for (const std::string& call : console.calls()) told += call.starts_with(begin) ? 1 : 0;
      EXPECT_EQ(told, 1);
    }
  }
}

TEST_F(NameCacheRaces, DirectSocketsFreeThemselvesInsideTheirFailure) {
  for (Rounds rounds(100); rounds.next();) {
    constexpr int kSockets = 4;
    RecordingLayer layers[kSockets];
    std::atomic<int> freed{0};
    for (RecordingLayer& layer : layers) {
      AsyncSocket* socket = direct_socket().release();
      ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
      layer.set_hook([&freed, socket](const Indication&) {
        socket->Free();
        ++freed;
      });
      socket->Bind(&layer);
      socket->Connect("nobody", 1);
    }
    for (RecordingLayer& layer : layers) ASSERT_TRUE(layer.wait_for(1));
    ASSERT_EQ(freed, kSockets);
    for (RecordingLayer& layer : layers)
      EXPECT_EQ(layer.story(), std::vector<std::string>{"disconnect(4,0)"});
  }
}

TEST_F(NameCacheRaces, LookUpsThatComeFirstStartTheLayerOnce) {
  for (Rounds rounds(30); rounds.next();) {
    AsyncSocket::Cleanup();
    {
      Gate gate;
      const auto look_up = [&gate](const char* asked) {
        gate.wait();
        EXPECT_EQ(DNSEntry::Lookup(asked, nullptr), 0u);
      };
      WatchedThread one([&] { look_up("host1"); });
      WatchedThread two([&] { look_up("nobody"); });
      WatchedThread three([&] { look_up("host3"); });
      gate.open();
    }
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_without_layer_ + 2; }))
        << "one monitor, one resolver";
  }
}

TEST_F(NameCacheRaces, TheLayerStopsAndStartsWhileNamesAreResolved) {
  {
    WatchedThread stopper([] {  // which must not meet a delivery in a section that is gone
      for (Rounds rounds(50); rounds.next();) {
        for (int i = 0; i < kNames; ++i) DNSEntry::Lookup(name(i).c_str(), nullptr);
        AsyncSocket::Cleanup();
        EXPECT_EQ(DNSEntry::entries.Size(), 0);
        EXPECT_EQ(DNSEntry::pending.Size(), 0);
        AsyncSocket::Init();
      }
    });
  }
  EXPECT_TRUE(wait_until([] { return DNSEntry::Lookup("good", nullptr) == ip(10, 9, 8, 7); }));
}

}  // namespace
