// Rings whose socket is gone: parked until their buffers have come home, looked at every 100 ms, on a clock that
// stands still until the test moves it.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "support/fake_clock.h"
#include "support/network_fixture.h"
#include "support/ring_fixture.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

constexpr ULONG kNow = 1000000;

class ParkedRing : public RingTest {
 protected:
  void SetUp() override {
    FakeClock::set(kNow);
    RingTest::SetUp();
    ASSERT_EQ(os_clock(), kNow);
    timers_ = timers();
  }

  /// Timers that are armed; a ring's among them while any is parked.
  static int timers() {
    EnterCriticalSection(&OS_CRITICAL_TRIGGER);
    const int armed = OS_TIMER_LIST.Size();
    LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
    return armed;
  }
  bool timer_runs() const { return timers() > timers_; }

  static void pass(ULONG ms) {
    FakeClock::advance(ms);
    os_check_triggers();
  }
  /// A ring of which `lent` buffers are out, given up.
  WatchedRing* parked(int size, int lent, std::vector<OSBuf*>* out) {
    auto* ring = new WatchedRing(size, &deleted_);
    for (int i = 0; i < lent; ++i) out->push_back(ring->Get());
    ring->Free();
    return ring;
  }
  static void send_home(std::vector<OSBuf*>& out) {
    for (OSBuf* buf : out) buf->Free();
    out.clear();
  }
  static std::string where(const RingBuffer* ring, int rp, int wp, int nwp) {
    char numbers[60];
    snprintf(numbers, sizeof numbers, "rp=%d wp=%d nwp=%d", rp, wp, nwp);
    return ring_line("RingBuffer::Cleanup - %p ", ring) + numbers;
  }
  static std::string home(const RingBuffer* ring) {
    return ring_line("RingBuffer::Cleanup - %p ...all buffers are home", ring);
  }
  /// How often a buffer was dumped.
  int dumps(const OSBuf* buf) const {
    char begin[40];
    snprintf(begin, sizeof begin, "buf %p,", static_cast<const void*>(buf));
    return console.count(begin);
  }
  int deleted() const { return deleted_; }

  std::atomic<int> deleted_{0};

 private:
  int timers_ = 0;
};

TEST_F(ParkedRing, WaitsUntilItsBuffersHaveComeHome) {
  std::vector<OSBuf*> out;
  WatchedRing* ring = parked(32, 3, &out);
  EXPECT_EQ(console.count(ring_line("RingBuffer::Free - %p waiting for buffers to come home...", ring)), 1);
  EXPECT_EQ(console.count("deleting..."), 0);
  EXPECT_EQ(deleted(), 0);
  EXPECT_TRUE(timer_runs());

  pass(100);
  EXPECT_EQ(deleted(), 0);
  out[0]->Free();
  out[1]->Free();
  pass(100);
  EXPECT_EQ(deleted(), 0);
  out[2]->Free();
  EXPECT_EQ(deleted(), 0)
      << "the thread that frees the last buffer does not delete the ring under its own feet";
  EXPECT_EQ(console.count("all buffers are home"), 0);
  const std::string line = home(ring);
  pass(100);
  EXPECT_EQ(deleted(), 1);
  EXPECT_EQ(console.count(line), 1);
  EXPECT_FALSE(timer_runs());
}

TEST_F(ParkedRing, IsLookedAtEveryHundredMilliseconds) {
  std::vector<OSBuf*> out;
  WatchedRing* ring = parked(32, 1, &out);
  send_home(out);
  pass(99);
  EXPECT_EQ(deleted(), 0);
  const std::string line = home(ring);
  pass(1);
  EXPECT_EQ(deleted(), 1);
  EXPECT_EQ(console.count(line), 1);
}

TEST_F(ParkedRing, IsLookedAtAgainAHundredMillisecondsLater) {
  std::vector<OSBuf*> out;
  parked(32, 1, &out);
  pass(100);
  send_home(out);
  pass(99);
  EXPECT_EQ(deleted(), 0);
  pass(1);
  EXPECT_EQ(deleted(), 1);
  console.clear();
  for (int i = 0; i < 10; ++i) pass(100);
  EXPECT_EQ(console.text(), "") << "nothing runs any more";
}

TEST_F(ParkedRing, IsReportedAtTheFirstPassAndThenEveryFiftiethOne) {
  std::vector<OSBuf*> out;
  WatchedRing* ring = parked(32, 3, &out);
  const std::string line = where(ring, 3, 31, 0);
  EXPECT_EQ(console.count("rp="), 0);
  for (int n = 1; n <= 151; ++n) {
    pass(100);
    const int reports = (n + 49) / 50;  // passes 1, 51, 101, 151
    ASSERT_EQ(console.count(line), reports) << "pass " << n;
    ASSERT_EQ(console.count("nwp="), reports) << "pass " << n;
  }
  EXPECT_EQ(ring->traceCount, 49);
  send_home(out);
  pass(100);
  EXPECT_EQ(deleted(), 1);
}

TEST_F(ParkedRing, IsReportedWhereItStands) {
  std::vector<OSBuf*> out;
  auto* ring = new WatchedRing(4, &deleted_);
  for (int i = 0; i < 6; ++i) ring->Get()->Free();
  out.push_back(ring->Get());
  EXPECT_EQ(ring->rp, 3);
  EXPECT_EQ(ring->wp, 1);
  ring->Free();
  pass(100);
  EXPECT_EQ(console.calls().back(), where(ring, 3, 1, 2));
  send_home(out);
  pass(100);
  EXPECT_EQ(deleted(), 1);
}

TEST_F(ParkedRing, BuffersOutForMoreThanThirtySecondsAreDumped) {
  std::vector<OSBuf*> out;
  auto* ring = new WatchedRing(8, &deleted_);
  OSBuf* old = ring->Get();
  old->PushData("held too long");
  FakeClock::advance(20000);
  OSBuf* fresh = ring->Get();
  OSBuf* came_home = ring->Get();
  came_home->Free();
  ring->Free();
  FakeClock::advance(9899);
  os_check_triggers();  // 29899 ms after `old` was lent
  EXPECT_EQ(console.count("nwp="), 1);
  EXPECT_EQ(dumps(old), 0);
  for (int i = 0; i < 49; ++i) pass(100);
  EXPECT_EQ(console.count("nwp="), 1);
  EXPECT_EQ(dumps(old), 0) << "buffers are dumped with the report, not in between";
  pass(100);  // 34899 ms
  EXPECT_EQ(console.count("nwp="), 2);
  EXPECT_EQ(dumps(old), 1);
  EXPECT_GE(console.count("held"), 1) << "with what is in it";
  for (int i = 0; i < ring->size; ++i) {
    if (ring->bufs[i] != old) {
      EXPECT_EQ(dumps(ring->bufs[i]), 0) << "buffer " << i;
    }
  }
  for (int i = 0; i < 400; ++i) pass(100);
  EXPECT_EQ(dumps(old), 9);
  EXPECT_EQ(dumps(fresh), 5);
  EXPECT_EQ(dumps(came_home), 0);
  old->Free();
  fresh->Free();
  pass(100);
  EXPECT_EQ(deleted(), 1);
}

TEST_F(ParkedRing, ABufferIsDumpedAfterThirtySecondsAndNotBefore) {
  struct Row {
    ULONG out_for;
    int dumped;
  };
  for (const Row& row : {Row{29999, 0}, Row{30000, 0}, Row{30001, 1}, Row{0x7FFFFFFF, 1}}) {
    SCOPED_TRACE(row.out_for);
    std::vector<OSBuf*> out;
    parked(4, 1, &out);
    pass(row.out_for);
    EXPECT_EQ(dumps(out[0]), row.dumped);
    console.clear();
    send_home(out);
    pass(100);
  }
  EXPECT_EQ(deleted(), 4);
}

TEST_F(ParkedRing, TheAgeOfABufferIsRightAcrossTheTicksWrap) {
  FakeClock::set(0xFFFFFFFF - 1000);
  std::vector<OSBuf*> out;
  parked(4, 2, &out);
  pass(100);
  EXPECT_EQ(console.count("nwp="), 1);
  EXPECT_EQ(dumps(out[0]), 0) << "before the wrap";
  pass(20900);
  for (int i = 0; i < 99; ++i) pass(100);
  EXPECT_EQ(console.count("nwp="), 3) << "the third report comes 30900 ms after they were lent";
  EXPECT_EQ(dumps(out[0]), 1);
  EXPECT_EQ(dumps(out[1]), 1);
  send_home(out);
  pass(100);
  EXPECT_EQ(deleted(), 1);
}

TEST_F(ParkedRing, LendsWithTheTickOfNow) {
  const auto ring = std::make_unique<RingBuffer>(4);
  OSBuf* first = ring->Get();
  FakeClock::advance(77);
  OSBuf* second = ring->Get();
  EXPECT_EQ(first->timeStamp, kNow);
  EXPECT_EQ(second->timeStamp, kNow + 77);
  first->Free();
  EXPECT_EQ(first->timeStamp, 0u);
  second->Free();
}

TEST_F(ParkedRing, SeveralAreLookedAtInTheirOrderEachByItself) {
  std::vector<OSBuf*> out[4];
  WatchedRing* rings[4];
  std::string lines[4];
  for (int i = 0; i < 4; ++i) {
    rings[i] = parked(4 + i, 1 + i % 2, &out[i]);
    lines[i] = home(rings[i]);
  }
  pass(100);
  EXPECT_EQ(console.count("nwp="), 4);
  EXPECT_LT(console.text().find(where(rings[0], 1, 3, 0)), console.text().find(where(rings[1], 2, 4, 0)));
  EXPECT_LT(console.text().find(where(rings[2], 1, 5, 0)), console.text().find(where(rings[3], 2, 6, 0)));

  send_home(out[2]);
  send_home(out[0]);
  out[1].back()->Free();
  out[1].pop_back();
  pass(100);
  EXPECT_EQ(deleted(), 2);
  const std::string text = console.text();
  ASSERT_NE(text.find(lines[0]), std::string::npos);
  ASSERT_NE(text.find(lines[2]), std::string::npos);
  EXPECT_LT(text.find(lines[0]), text.find(lines[2])) << "the order of parking, not of coming home";
  EXPECT_EQ(console.count(lines[1]), 0);
  EXPECT_EQ(console.count(lines[3]), 0);
  EXPECT_TRUE(timer_runs());

  send_home(out[1]);
  send_home(out[3]);
  pass(100);
  EXPECT_EQ(deleted(), 4);
  EXPECT_FALSE(timer_runs());
}

TEST_F(ParkedRing, OneThatIsParkedLaterStartsTheHundredMillisecondsAgain) {
  std::vector<OSBuf*> first, second;
  parked(4, 1, &first);
  send_home(first);
  pass(60);
  parked(4, 1, &second);
  pass(60);
  EXPECT_EQ(deleted(), 0);
  pass(40);
  EXPECT_EQ(deleted(), 1);
  EXPECT_TRUE(timer_runs());
  send_home(second);
  pass(100);
  EXPECT_EQ(deleted(), 2);
}

TEST_F(ParkedRing, OnlyTheUsualReportCounterIsKeptByTheRing) {
  std::vector<OSBuf*> out;
  WatchedRing* ring = parked(4, 1, &out);
  EXPECT_EQ(ring->traceCount, 0);
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(ring->traceCount, 49);
  EXPECT_EQ(console.count("nwp="), 1);
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(ring->traceCount, 48);
  EXPECT_EQ(console.count("nwp="), 1);
  send_home(out);
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(deleted(), 1);
}

TEST_F(ParkedRing, CleanupWithNothingParkedDoesNothing) {
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(console.text(), "");
  EXPECT_FALSE(timer_runs());
}

TEST_F(ParkedRing, IsParkedAndLookedAtUnderTheSectionOfAllSockets) {
  std::vector<OSBuf*> out;
  auto* ring = new WatchedRing(4, &deleted_);
  out.push_back(ring->Get());
  EnterCriticalSection(&AsyncSocket::cs);
  {
    WatchedThread other([&] { ring->Free(); });
    EXPECT_TRUE(other.blocked());
    LeaveCriticalSection(&AsyncSocket::cs);
    EXPECT_TRUE(other.finished_within(kPatienceMs));
  }
  send_home(out);
  EnterCriticalSection(&AsyncSocket::cs);
  {
    WatchedThread other([] { RingBuffer::Cleanup(nullptr, nullptr, 0); });
    EXPECT_TRUE(other.blocked());
    EXPECT_EQ(deleted(), 0);
    LeaveCriticalSection(&AsyncSocket::cs);
    EXPECT_TRUE(other.finished_within(kPatienceMs));
  }
  EXPECT_EQ(deleted(), 1);
}

// Somebody may hold a buffer while the networking layer is stopped, and free it at any time after.
TEST_F(ParkedRing, OutlivesAStopOfTheLayerAndIsDeletedAfterAll) {
  std::vector<OSBuf*> out;
  parked(4, 1, &out);
  AsyncSocket::Cleanup();
  EXPECT_EQ(deleted(), 0) << "a buffer of it is still out";
  send_home(out);
  AsyncSocket::Init();
  for (int i = 0; i < 3 && deleted() == 0; ++i) pass(100);
  EXPECT_EQ(deleted(), 1);
}

TEST_F(ParkedRing, CanBeGivenUpWhileTheLayerIsStopped) {
  AsyncSocket::Cleanup();
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(console.text(), "") << "there is no list yet";
  std::vector<OSBuf*> out;
  parked(4, 1, &out);
  pass(100);
  EXPECT_EQ(deleted(), 0);
  send_home(out);
  pass(100);
  EXPECT_EQ(deleted(), 1);
}

// Without the section of all sockets, which there is not then.
TEST_F(ParkedRing, IsParkedAndLookedAtByOneThreadAtATimeWhileTheLayerIsStopped) {
  AsyncSocket::Cleanup();
  std::vector<OSBuf*> first, second;
  parked(4, 1, &first);
  send_home(first);
  auto* ring = new WatchedRing(4, &deleted_);
  second.push_back(ring->Get());
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  {
    WatchedThread parking([ring] { ring->Free(); });
    EXPECT_TRUE(parking.blocked()) << "before it sets the timer";
    WatchedThread looking([] { RingBuffer::Cleanup(nullptr, nullptr, 0); });
    EXPECT_TRUE(looking.blocked());
    EXPECT_EQ(deleted(), 0);
    LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
    EXPECT_TRUE(parking.finished_within(kPatienceMs));
    EXPECT_TRUE(looking.finished_within(kPatienceMs));
  }
  EXPECT_EQ(deleted(), 1);
  send_home(second);
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(deleted(), 2);
}

TEST_F(ParkedRing, BuffersComeHomeWhileTheCleanupRuns) {
  constexpr int kRings = 200;
  std::vector<std::vector<OSBuf*>> out(kRings);
  for (int i = 0; i < kRings; ++i) {
    parked(4, 1 + i % 3, &out[static_cast<std::size_t>(i)]);
  }
  {
    WatchedThread freer([&] {
      for (auto& buffers : out) {
        for (OSBuf* buf : buffers) buf->Free();
      }
    });
    while (!freer.finished()) pass(100);
  }
  pass(100);
  EXPECT_EQ(deleted(), kRings);
  EXPECT_FALSE(timer_runs());
}

}  // namespace
