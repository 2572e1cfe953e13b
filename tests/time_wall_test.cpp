// Calendar calls at chosen moments, and the tick while somebody sets the wall clock.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/posixkernel_time.h"
#include "support/kernel_fixture.h"
#include "support/watched_thread.h"

namespace {

/// What the wall clock shows: the moment below if there is one, else the real one plus the offset.
struct WallClock {
  std::atomic<bool> stopped{false};
  std::atomic<long long> stopped_at_us{0};
  std::atomic<long long> offset_us{0};

  long long microseconds(const timespec& real) const {
    if (stopped) return stopped_at_us;
    return static_cast<long long>(real.tv_sec) * 1000000 + real.tv_nsec / 1000 + offset_us;
  }
};
WallClock wall;

int real_clock(clockid_t id, timespec* now) {
  using Call = int (*)(clockid_t, timespec*);
  static std::atomic<Call> call{nullptr};
  if (call == nullptr) call = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "clock_gettime"));
  return call.load()(id, now);
}

long long wall_microseconds() {
  timespec real;
  real_clock(CLOCK_REALTIME, &real);
  return wall.microseconds(real);
}

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t id, timespec* now) {
  if (id != CLOCK_REALTIME && id != CLOCK_REALTIME_COARSE) return real_clock(id, now);
  const long long us = wall_microseconds();
  now->tv_sec = static_cast<time_t>(us / 1000000);
  now->tv_nsec = static_cast<long>(us % 1000000 * 1000);
  return 0;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* __restrict now, void* __restrict) {
  const long long us = wall_microseconds();
  now->tv_sec = static_cast<time_t>(us / 1000000);
  now->tv_usec = static_cast<suseconds_t>(us % 1000000);
  return 0;
}

__attribute__((visibility("default"))) time_t time(time_t* now) {
  const time_t seconds = static_cast<time_t>(wall_microseconds() / 1000000);
  if (now != nullptr) *now = seconds;
  return seconds;
}

__attribute__((visibility("default"))) int timespec_get(timespec* now, int base) {
  clock_gettime(CLOCK_REALTIME, now);
  return base;
}

}  // extern "C"

bool operator==(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  const auto fields = [](const SYSTEMTIME& t) {
    return std::tuple(t.wYear, t.wMonth, t.wDayOfWeek, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds,
                      t.isDst > 0);
  };
  return fields(a) == fields(b);
}

void PrintTo(const SYSTEMTIME& t, std::ostream* out) {
  *out << t.wYear << '-' << t.wMonth << '-' << t.wDay << " (weekday " << t.wDayOfWeek << ") " << t.wHour
       << ':' << t.wMinute << ':' << t.wSecond << '.' << t.wMilliseconds << " dst " << t.isDst;
}

namespace oskernel_test {
namespace {

constexpr char kNewYork[] = "EST5EDT,M3.2.0,M11.1.0";
constexpr char kAuckland[] = "NZST-12NZDT,M9.5.0,M4.1.0/3";
constexpr char kKolkata[] = "<+0530>-5:30";
constexpr char kTokyo[] = "JST-9";

class WallTime : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (const char* zone = std::getenv("TZ")) zone_before_ = zone;
    set_zone("UTC0");
  }
  void TearDown() override {
    wall.stopped = false;
    wall.offset_us = 0;
    if (zone_before_) {
      set_zone(zone_before_->c_str());
    } else {
      unsetenv("TZ");
      tzset();
    }
    KernelTest::TearDown();
  }

  static void set_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  static void stop_wall_at(long long seconds, int microseconds) {
    wall.stopped_at_us = seconds * 1000000 + microseconds;
    wall.stopped = true;
  }

 private:
  std::optional<std::string> zone_before_;
};

struct UniversalRow {
  long long seconds;
  int microseconds;
  SYSTEMTIME time;
};

const UniversalRow kUniversal[] = {
    {0, 0, {1970, 1, 4, 1, 0, 0, 0, 0, 0}},
    {951782400, 999, {2000, 2, 2, 29, 0, 0, 0, 0, 0}},            // a leap day
    {1293839999, 999999, {2010, 12, 5, 31, 23, 59, 59, 999, 0}},  // the last moment of a year
    {1293840000, 1000, {2011, 1, 6, 1, 0, 0, 0, 1, 0}},
    {1310733296, 789000, {2011, 7, 5, 15, 12, 34, 56, 789, 0}},
    {1310860800, 500, {2011, 7, 0, 17, 0, 0, 0, 0, 0}},  // a Sunday
    {2147483647, 0, {2038, 1, 2, 19, 3, 14, 7, 0, 0}},
};

TEST_F(WallTime, SystemTimeIsUniversal) {
  set_zone(kNewYork);
  for (const UniversalRow& row : kUniversal) {
    stop_wall_at(row.seconds, row.microseconds);
    SYSTEMTIME time = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
    GetSystemTime(&time);
    EXPECT_EQ(time, row.time);
    EXPECT_EQ(time.isDst, 0);
  }
}

struct ZoneRow {
  const char* zone;
  long long seconds;
  SYSTEMTIME time;
};

const ZoneRow kZones[] = {
    {"UTC0", 1310733296, {2011, 7, 5, 15, 12, 34, 56, 789, 0}},
    {kNewYork, 1310733296, {2011, 7, 5, 15, 8, 34, 56, 789, 1}},
    {kNewYork, 1295094896, {2011, 1, 6, 15, 7, 34, 56, 789, 0}},
    {kNewYork, 1299999599, {2011, 3, 0, 13, 1, 59, 59, 789, 0}},  // the second before daylight saving
    {kNewYork, 1299999600, {2011, 3, 0, 13, 3, 0, 0, 789, 1}},
    {kAuckland, 1310733296, {2011, 7, 6, 16, 0, 34, 56, 789, 0}},
    {kAuckland, 1325370600, {2012, 1, 0, 1, 11, 30, 0, 789, 1}},  // already next year
    {kKolkata, 1310733296, {2011, 7, 5, 15, 18, 4, 56, 789, 0}},
    {kTokyo, 1325374200, {2012, 1, 0, 1, 8, 30, 0, 789, 0}},
};

TEST_F(WallTime, LocalTimeFollowsTheProcessesZone) {
  for (const ZoneRow& row : kZones) {
    SCOPED_TRACE(row.zone);
    set_zone(row.zone);
    stop_wall_at(row.seconds, 789123);
    SYSTEMTIME time = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
    GetLocalTime(&time);
    EXPECT_EQ(time, row.time);
  }
}

TEST_F(WallTime, ZoneTimeFollowsTheGivenZone) {
  for (const char* own : {"UTC0", kAuckland, ""}) {
    set_zone(own);
    for (const ZoneRow& row : kZones) {
      SCOPED_TRACE(row.zone);
      stop_wall_at(row.seconds, 789123);
      SYSTEMTIME time = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
      GetTZTime(&time, row.zone);
      EXPECT_EQ(time, row.time);
      EXPECT_STREQ(std::getenv("TZ"), own);
    }
  }
}

TEST_F(WallTime, LocalTimeAfterAZoneChangeIsTheProcessesAgain) {
  stop_wall_at(1310733296, 0);
  set_zone(kNewYork);
  SYSTEMTIME time;
  GetTZTime(&time, kTokyo);
  EXPECT_EQ(time.wHour, 21);
  GetLocalTime(&time);
  EXPECT_EQ(time.wHour, 8);
  GetSystemTime(&time);
  EXPECT_EQ(time.wHour, 12);
}

TEST_F(WallTime, ConversionFollowsTheProcessesZone) {
  for (const ZoneRow& row : kZones) {
    SCOPED_TRACE(row.zone);
    set_zone(row.zone);
    stop_wall_at(row.seconds, 789123);
    SYSTEMTIME utc;
    GetSystemTime(&utc);
    SYSTEMTIME local = {-1, -1, -1, -1, -1, -1, -1, 123, -1};
    SystemTimeToLocalTime(&utc, &local);
    EXPECT_EQ(local.wMilliseconds, 123) << "neither copied nor cleared";
    local.wMilliseconds = row.time.wMilliseconds;
    EXPECT_EQ(local, row.time);
  }
}

TEST_F(WallTime, ConversionReadsOnlyDateAndTime) {
  set_zone(kNewYork);
  SYSTEMTIME utc = {2011, 7, 1, 15, 12, 34, 56, 789, 1};  // a wrong day of the week, a daylight flag
  SYSTEMTIME local = {};
  SystemTimeToLocalTime(&utc, &local);
  EXPECT_EQ(local, (SYSTEMTIME{2011, 7, 5, 15, 8, 34, 56, 0, 1}));
}

TEST_F(WallTime, ConversionCarriesFieldsThatAreOutOfRange) {
  SYSTEMTIME utc = {2011, 12, 0, 32, 25, 61, 60, 0, 0};
  SYSTEMTIME local = {};
  SystemTimeToLocalTime(&utc, &local);
  EXPECT_EQ(local, (SYSTEMTIME{2012, 1, 1, 2, 2, 2, 0, 0, 0}));
}

TEST_F(WallTime, ConversionMayOverwriteItsSource) {
  set_zone(kTokyo);
  SYSTEMTIME time = {2011, 12, 6, 31, 23, 30, 5, 123, 0};
  SystemTimeToLocalTime(&time, &time);
  EXPECT_EQ(time, (SYSTEMTIME{2012, 1, 0, 1, 8, 30, 5, 123, 0}));
}

// ---- The tick ----------------------------------------------------------------------------------------------

TEST_F(WallTime, TickDoesNotJumpWhenTheWallClockIsSet) {
  const ULONG start = os_clock();
  for (const long long seconds : {3600LL, -3600LL, 86400LL * 365, -86400LL * 365 * 10, 1LL}) {
    SCOPED_TRACE(seconds);
    wall.offset_us = seconds * 1000000;
    EXPECT_LT(os_clock() - start, 60000u);
  }
}

TEST_F(WallTime, TimeOutIsNotChangedWhenTheWallClockIsSet) {
  StartQuiet();
  const HANDLE event = CreateEvent(nullptr, false, false, nullptr);
  DWORD result = 0;
  {
    WatchedThread waiter([&] { result = WaitForSingleObject(event, 600000); });
    EXPECT_TRUE(waiter.blocked());
    wall.offset_us = 3600LL * 1000000;
    EXPECT_FALSE(waiter.finished_within(100));
    wall.offset_us = -3600LL * 1000000;
    SetEvent(event);
    EXPECT_TRUE(waiter.finished_within(10000));
  }
  EXPECT_EQ(result, 0u);
  wall.offset_us = -7200LL * 1000000;
  EXPECT_EQ(WaitForSingleObject(event, 30), 110u);
  CloseHandle(event);
}

TEST_F(WallTime, FirstTickIsTheTimeOfDayModuloItsWidth) {
  IN_FRESH_PROCESS({
    // Whatever the wall clock shows when the first thread asks; here a moment whose milliseconds have wrapped
    // more than 300 times, 50 ms before the next wrap.
    wall.offset_us = (0x100000000LL * 400 - 50) * 1000 - wall_microseconds();
    const long long before = wall_microseconds() / 1000;
    const ULONG tick = os_clock();
    const long long after = wall_microseconds() / 1000;
    EXPECT_LE(tick - static_cast<ULONG>(before), static_cast<ULONG>(after - before) + 1);
    Sleep(120);
    EXPECT_LT(os_clock(), 60000u);
    EXPECT_TRUE(os_expired(tick, 120));
    EXPECT_FALSE(os_expired(tick, 600000));
  });
}

// ---- Threads -----------------------------------------------------------------------------------------------

TEST_F(WallTime, OtherConversionsNeverSeeTheTemporaryZone) {
  set_zone(kNewYork);
  stop_wall_at(1310733296, 789123);
  SYSTEMTIME first;
  GetTZTime(&first, kTokyo);
  const SYSTEMTIME new_york = {2011, 7, 5, 15, 8, 34, 56, 789, 1};
  const SYSTEMTIME universal = {2011, 7, 5, 15, 12, 34, 56, 789, 0};
  const SYSTEMTIME tokyo = {2011, 7, 5, 15, 21, 34, 56, 789, 0};
  const SYSTEMTIME kolkata = {2011, 7, 5, 15, 18, 4, 56, 789, 0};
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    const auto checked = [&threads](auto call, const SYSTEMTIME& expected) {
      threads.push_back(std::make_unique<WatchedThread>([call, expected] {
        for (int i = 0; i < 1000; ++i) {
          SYSTEMTIME time = {};
          call(&time);
          ASSERT_EQ(time, expected);
        }
      }));
    };
    checked([](SYSTEMTIME* time) { GetLocalTime(time); }, new_york);
    checked([](SYSTEMTIME* time) { GetSystemTime(time); }, universal);
    checked([](SYSTEMTIME* time) { GetTZTime(time, kTokyo); }, tokyo);
    checked([](SYSTEMTIME* time) { GetTZTime(time, kKolkata); }, kolkata);
  }
  EXPECT_STREQ(std::getenv("TZ"), kNewYork);
  EXPECT_EQ(OS_CRITICAL_TIME.owner_count, 0);
  EXPECT_TRUE(console.fatals().empty());
}

}  // namespace
}  // namespace oskernel_test
