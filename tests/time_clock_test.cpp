// The clock device: how it is opened and asked, the tick's wrap, time-outs and the report of slow zone changes.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kernel/kernel.h"
#include "support/fake_clock.h"
#include "support/kernel_fixture.h"
#include "support/watched_thread.h"

namespace {

/// How far the tick moves when TZ is set the next time: a zone change that takes so long.
std::atomic<ULONG> next_zone_change_ms{0};

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" __attribute__((visibility("default"))) int setenv(const char* name, const char* value,
                                                             int overwrite) {
  using Call = int (*)(const char*, const char*, int);
  static std::atomic<Call> call{nullptr};
  if (call == nullptr) call = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "setenv"));
  if (std::strcmp(name, "TZ") == 0) oskernel_test::FakeClock::advance(next_zone_change_ms.exchange(0));
  return call.load()(name, value, overwrite);
}

namespace oskernel_test {
namespace {

constexpr DWORD kTaken = 0;
constexpr DWORD kTimedOut = 110;
constexpr DWORD kFailed = 128;

const bool kFakeClock = FakeClock::use();

class ClockDevice : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    FakeClock::set(1000);
    FakeClock::fail_requests(false);
  }
  void TearDown() override {
    FakeClock::fail_requests(false);
    KernelTest::TearDown();
  }
};

TEST_F(ClockDevice, TickIsWhatTheDeviceSays) {
  ASSERT_TRUE(kFakeClock);
  for (const ULONG tick : {0u, 1u, 15u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    FakeClock::set(tick);
    EXPECT_EQ(os_clock(), tick);
  }
  EXPECT_TRUE(use_osclockdev);
}

TEST_F(ClockDevice, IsOpenedOnceAndAskedOnceACall) {
  os_clock();
  const int requests = FakeClock::requests();
  for (int i = 0; i < 100; ++i) os_clock();
  EXPECT_EQ(FakeClock::requests(), requests + 100);
  EXPECT_EQ(FakeClock::opens(), 1);
}

TEST_F(ClockDevice, IsOpenedByTheFirstCall) {
  IN_FRESH_PROCESS({
    EXPECT_EQ(FakeClock::opens(), 0);
    FakeClock::set(4711);
    EXPECT_EQ(os_clock(), 4711u);
    EXPECT_EQ(FakeClock::opens(), 1);
    EXPECT_EQ(FakeClock::requests(), 1);
  });
}

TEST_F(ClockDevice, IsOpenedOnceHoweverManyThreadsAskFirst) {
  for (int round = 0; round < 10; ++round) {  // the threads rarely meet in one try
    IN_FRESH_PROCESS({
      FakeClock::set(4711);
      std::atomic<int> ready{0};
      std::vector<std::unique_ptr<WatchedThread>> threads;
      for (int t = 0; t < 8; ++t) {
        threads.push_back(std::make_unique<WatchedThread>([&] {
          ++ready;
          while (ready < 8) std::this_thread::yield();
          EXPECT_EQ(os_clock(), 4711u);
        }));
      }
      threads.clear();
      EXPECT_EQ(FakeClock::opens(), 1);
    });
  }
}

TEST_F(ClockDevice, IsNotOpenedWhenTheProgramRenouncedIt) {
  IN_FRESH_PROCESS({
    use_osclockdev = false;
    FakeClock::set(4711);
    timeval now;
    gettimeofday(&now, nullptr);
    const auto time_of_day = static_cast<ULONG>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                                static_cast<std::uint64_t>(now.tv_usec) / 1000);
    EXPECT_LT(os_clock() - (time_of_day - 20), 10000u);
    EXPECT_EQ(FakeClock::opens(), 0);
    EXPECT_EQ(FakeClock::requests(), 0);
  });
}

// A process without standard input gets descriptor 0 for the device.
TEST_F(ClockDevice, IsOpenedOnceWhereItsDescriptorIsZero) {
  IN_FRESH_PROCESS({
    close(0);
    FakeClock::set(4711);
    EXPECT_EQ(os_clock(), 4711u);
    FakeClock::set(4712);
    EXPECT_EQ(os_clock(), 4712u);
    EXPECT_EQ(os_clock(), 4712u);
    EXPECT_EQ(FakeClock::opens(), 1);
    EXPECT_TRUE(use_osclockdev);
  });
}

TEST_F(ClockDevice, FailedRequestGivesTheLastGoodTick) {
  FakeClock::set(1234);
  EXPECT_EQ(os_clock(), 1234u);
  FakeClock::fail_requests(true);
  FakeClock::set(5000);
  EXPECT_EQ(os_clock(), 1234u);
  EXPECT_EQ(os_clock(), 1234u);
  EXPECT_TRUE(use_osclockdev) << "only a device that cannot be opened is given up";
  FakeClock::fail_requests(false);
  EXPECT_EQ(os_clock(), 5000u);
}

TEST_F(ClockDevice, FailedRequestLeavesErrnoAlone) {
  FakeClock::fail_requests(true);
  errno = EDOM;
  os_clock();
  EXPECT_EQ(errno, EDOM);
}

TEST_F(ClockDevice, FailedRequestGivesTheLastGoodTickOfAnyThread) {
  FakeClock::set(1000);
  EXPECT_EQ(os_clock(), 1000u);
  FakeClock::set(2000);
  std::thread([] { EXPECT_EQ(os_clock(), 2000u); }).join();
  FakeClock::fail_requests(true);
  EXPECT_EQ(os_clock(), 2000u);
}

TEST_F(ClockDevice, RequestThatFailsFromTheFirstGivesADefinedTick) {
  IN_FRESH_PROCESS({
    FakeClock::fail_requests(true);
    FakeClock::set(5000);
    const ULONG first = os_clock();
    EXPECT_EQ(os_clock(), first);
    std::thread([first] { EXPECT_EQ(os_clock(), first); }).join();
    EXPECT_EQ(FakeClock::opens(), 1);
    EXPECT_TRUE(use_osclockdev);
  });
}

// ---- Deadlines ---------------------------------------------------------------------------------------------

struct ExpiryRow {
  ULONG start;
  ULONG duration;
  ULONG now;
  BOOL expired;
};

constexpr ExpiryRow kExpiry[] = {
    {0xFFFFFFF0, 32, 15, 0},
    {0xFFFFFFF0, 32, 16, 1},
    {0xFFFFFFF0, 32, 17, 1},
    {0xFFFFFFF0, 32, 0xFFFFFFF0, 0},
    {0xFFFFFFF0, 15, 0xFFFFFFFF, 1},
    {0xFFFFFFF0, 16, 0xFFFFFFFF, 0},
    {0xFFFFFFF0, 16, 0, 1},
    {1000, 0, 1000, 1},
    {1000, 1, 1000, 0},
    {1000, 1, 1001, 1},
    {1000, 100, 1099, 0},
    {1000, 100, 1100, 1},
    {1000, 100, 999, 1},  // a start that is still to come counts as long past
    {0, 0xFFFFFFFF, 0xFFFFFFFE, 0},
    {0, 0xFFFFFFFF, 0xFFFFFFFF, 1},
    {1000, 0x80000000, 0x800003E7, 0},
    {1000, 0x80000000, 0x800003E8, 1},
};

TEST_F(ClockDevice, DeadlinesSurviveTheWrapOfTheTick) {
  for (const ExpiryRow& row : kExpiry) {
    SCOPED_TRACE(testing::Message() << row.start << " + " << row.duration << " at " << row.now);
    FakeClock::set(row.now);
    EXPECT_EQ(os_expired(row.start, row.duration), row.expired);
  }
}

// ---- Waits follow the tick ---------------------------------------------------------------------------------

class WaitAtTick : public ClockDevice {
 protected:
  void SetUp() override {
    ClockDevice::SetUp();
    StartQuiet();
    event = CreateEvent(nullptr, false, false, nullptr);
  }

  HANDLE event = 0;
};

TEST_F(WaitAtTick, TimesOutWhenTheTickReachesTheDeadline) {
  struct Row {
    ULONG start;
    unsigned int timeout;
  };
  for (const Row& row : {Row{1000, 100}, Row{0xFFFFFFF0, 32}, Row{0xFFFFFFFF, 1}, Row{5, 0x7FFFFFFF}}) {
    SCOPED_TRACE(testing::Message() << row.start << " + " << row.timeout);
    FakeClock::set(row.start);
    std::atomic<DWORD> result{kFailed};
    WatchedThread waiter([&] { result = WaitForSingleObject(event, row.timeout); });
    ASSERT_TRUE(waiter.blocked());
    FakeClock::set(row.start + row.timeout - 1);
    EXPECT_FALSE(waiter.finished_within(60));
    FakeClock::advance(1);
    EXPECT_TRUE(waiter.finished_within(10000));
    EXPECT_EQ(result, kTimedOut);
  }
}

TEST_F(WaitAtTick, DoesNotTimeOutWhileTheTickStands) {
  std::atomic<DWORD> result{kFailed};
  WatchedThread waiter([&] { result = WaitForSingleObject(event, 5); });
  EXPECT_FALSE(waiter.finished_within(200));
  SetEvent(event);
  EXPECT_TRUE(waiter.finished_within(10000));
  EXPECT_EQ(result, kTaken);
}

TEST_F(WaitAtTick, NoticesATickThatRunsAhead) {
  std::atomic<DWORD> result{kFailed};
  WatchedThread waiter([&] { result = WaitForSingleObject(event, 3600000); });
  ASSERT_TRUE(waiter.blocked());
  FakeClock::advance(3600000);
  EXPECT_TRUE(waiter.finished_within(10000));
  EXPECT_EQ(result, kTimedOut);
}

TEST_F(WaitAtTick, TimeOutOfZeroDoesNotWaitForTheTick) {
  EXPECT_EQ(WaitForSingleObject(event, 0), kTimedOut);
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 0), kTaken);
}

TEST_F(WaitAtTick, SignalBeatsADeadlineThatHasPassed) {
  FakeClock::set(0xFFFFFFFF);
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 1), kTaken);
}

// ---- Slow zone changes -------------------------------------------------------------------------------------

class SlowZoneChange : public ClockDevice {
 protected:
  void SetUp() override {
    ClockDevice::SetUp();
    change("UTC0", 0);
    console.clear();
  }

  static void change(const char* zone, ULONG ms) {
    next_zone_change_ms = ms;
    SYSTEMTIME time;
    GetTZTime(&time, zone);
    EXPECT_EQ(next_zone_change_ms, 0u);
  }
};

TEST_F(SlowZoneChange, IsReportedAboveFiftyMilliseconds) {
  change("EST5EDT,M3.2.0,M11.1.0", 51);
  EXPECT_EQ(console.calls(),
            (std::vector<std::string>{"GetTZTime processing time 51 for EST5EDT,M3.2.0,M11.1.0\n"}));
  console.clear();
  change("", 123456);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{"GetTZTime processing time 123456 for \n"}));
  console.clear();
  change("100%s%n", 60);
  EXPECT_EQ(console.calls(), (std::vector<std::string>{"GetTZTime processing time 60 for 100%s%n\n"}));
}

TEST_F(SlowZoneChange, IsNotReportedUpToFiftyMilliseconds) {
  for (const ULONG ms : {0u, 1u, 49u, 50u}) change("JST-9", ms);
  EXPECT_TRUE(console.calls().empty()) << console.text();
}

TEST_F(SlowZoneChange, IsMeasuredAcrossTheWrapOfTheTick) {
  FakeClock::set(0xFFFFFFF0);
  change("JST-9", 80);
  EXPECT_EQ(console.text(), "GetTZTime processing time 80 for JST-9\n");
}

TEST_F(SlowZoneChange, IsNotReportedWithoutConsole) {
  Console = nullptr;
  change("JST-9", 80);
  EXPECT_EQ(console.text(), "");
}

TEST_F(SlowZoneChange, IsReportedAfterTheLockIsLeft) {
  class LockWatcher : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      owned = OS_CRITICAL_TIME.owner_count != 0;
      RecordingConsole::vPrint(format, arguments);
    }
    bool owned = true;
  } watcher;
  Console = &watcher;
  change("JST-9", 80);
  EXPECT_EQ(watcher.text(), "GetTZTime processing time 80 for JST-9\n");
  EXPECT_FALSE(watcher.owned);
}

}  // namespace
}  // namespace oskernel_test
