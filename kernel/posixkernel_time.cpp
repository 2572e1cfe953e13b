/// The millisecond tick and calendar time.
#include "kernel/posixkernel_time.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <mutex>

#include "kernel/console.h"
#include "kernel/posixkernel_priv.h"

bool use_osclockdev = true;
bool time_init_done = false;
OSKERNEL_SECTION(OS_CRITICAL_TIME);

namespace {

constexpr char kClockDevice[] = "/dev/os_clock";
constexpr unsigned long kTickRequest = 1;
constexpr std::int64_t kNanosPerSecond = 1000000000;
constexpr std::int64_t kNanosPerMilli = 1000000;

/// Calendar calls that found no section run for less than this.
constexpr int kFirstCallPause_ms = 5;
constexpr ULONG kSlowZoneChange_ms = 50;

/// Makes one of several first callers of GetTZTime create the section. Held over no call upward.
constinit std::mutex time_init_mutex;

std::atomic_ref<bool> clock_device_wanted() { return std::atomic_ref<bool>(use_osclockdev); }
std::atomic_ref<bool> time_section_made() { return std::atomic_ref<bool>(time_init_done); }

std::int64_t nanos_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * kNanosPerSecond + now.tv_nsec;
}

/// Opens the clock device. Returns its descriptor, or a negative value without a device.
int open_clock_device() {
  const int saved_errno = errno;
  // Programs take descriptor 0 for their standard input, and close or replace it. Where there is none,
  // something else holds the number until the device has another.
  const int placeholder = fcntl(0, F_GETFD) < 0 ? eventfd(0, EFD_CLOEXEC) : -1;
  const int device = open(kClockDevice, O_RDONLY | O_CLOEXEC);
  if (placeholder >= 0) close(placeholder);
  if (device < 0) clock_device_wanted().store(false, std::memory_order_relaxed);
  errno = saved_errno;
  return device;
}

/// Asks the device. Drivers are not agreed on what the request returns, so only the tick counts: one that the
/// driver does not write keeps the last value. Relaxed, because the tick publishes nothing else.
ULONG device_tick(int device) {
  static constinit std::atomic<std::uint32_t> last_tick{0};
  const int saved_errno = errno;
  const std::uint32_t known = last_tick.load(std::memory_order_relaxed);
  std::uint32_t tick = known;
  ioctl(device, kTickRequest, &tick);
  // A request that delivered nothing must not put an old tick in the place of another thread's newer one.
  if (tick != known) last_tick.store(tick, std::memory_order_relaxed);
  errno = saved_errno;
  return tick;
}

/// How far the time of day is ahead of the monotonic clock. The thread may lose the processor between the two
/// readings; of a few tries the one with the least time between counts.
std::int64_t time_of_day_offset() {
  constexpr int kTries = 8;
  std::int64_t offset = 0;
  std::int64_t least = std::numeric_limits<std::int64_t>::max();
  for (int i = 0; i < kTries; ++i) {
    const std::int64_t before = nanos_of(CLOCK_MONOTONIC);
    const std::int64_t time_of_day = nanos_of(CLOCK_REALTIME);
    const std::int64_t taken = nanos_of(CLOCK_MONOTONIC) - before;
    if (taken >= least) continue;
    least = taken;
    offset = time_of_day - (before + taken / 2);
  }
  return offset;
}

WORD as_word(int value) { return static_cast<WORD>(value); }

/// Everything but the milliseconds.
void fill_calendar(_SYSTEMTIME* time, const tm& calendar) {
  time->wYear = as_word(calendar.tm_year + 1900);
  time->wMonth = as_word(calendar.tm_mon + 1);
  time->wDayOfWeek = as_word(calendar.tm_wday);
  time->wDay = as_word(calendar.tm_mday);
  time->wHour = as_word(calendar.tm_hour);
  time->wMinute = as_word(calendar.tm_min);
  time->wSecond = as_word(calendar.tm_sec);
  time->isDst = as_word(calendar.tm_isdst);
}

/// Fills `time` with the time of day, converted by gmtime_r or localtime_r.
void fill_now(_SYSTEMTIME* time, tm* (*convert)(const time_t*, tm*)) {
  timeval now{};
  gettimeofday(&now, nullptr);
  const time_t seconds = now.tv_sec;
  tm calendar{};
  convert(&seconds, &calendar);
  fill_calendar(time, calendar);
  time->wMilliseconds = as_word(static_cast<int>(now.tv_usec / 1000));
}

// The process has one TZ, and this file's purpose is to change it under a section.
// NOLINTBEGIN(concurrency-mt-unsafe)

/// Replaces the environment variable TZ for a scope. Inside OS_CRITICAL_TIME.
class ZoneChange {
 public:
  explicit ZoneChange(const char* tz) {
    if (tz == nullptr) return;
    if (const char* const present = std::getenv("TZ")) {
      saved_ = strdup(present);
      if (saved_ == nullptr) return;  // what cannot be restored is not replaced
    }
    changed_ = setenv("TZ", tz, 1) == 0;
  }
  ~ZoneChange() {
    if (changed_) {
      if (saved_ != nullptr) {
        setenv("TZ", saved_, 1);
      } else {
        unsetenv("TZ");
      }
      tzset();
    }
    std::free(saved_);
  }
  ZoneChange(const ZoneChange&) = delete;
  ZoneChange& operator=(const ZoneChange&) = delete;

 private:
  char* saved_ = nullptr;
  bool changed_ = false;
};

// NOLINTEND(concurrency-mt-unsafe)

/// localtime_r need not look at TZ again, and with the C library it does not.
void fill_local_now(_SYSTEMTIME* time) {
  tzset();
  fill_now(time, localtime_r);
}

/// Makes OS_CRITICAL_TIME. Returns whether this call was the one.
bool make_time_section() {
  const std::lock_guard<std::mutex> lock(time_init_mutex);
  if (time_section_made().load(std::memory_order_relaxed)) return false;
  init_section(&OS_CRITICAL_TIME);
  time_section_made().store(true, std::memory_order_release);
  return true;
}

}  // namespace

ULONG os_clock() {
  if (clock_device_wanted().load(std::memory_order_relaxed)) {
    static const int device = open_clock_device();
    // Once it has failed to open, the device stays out of use, even when somebody sets the flag again.
    if (device >= 0) return device_tick(device);
  }
  static const std::int64_t offset = time_of_day_offset();
  return static_cast<ULONG>((nanos_of(CLOCK_MONOTONIC) + offset) / kNanosPerMilli);
}

BOOL os_expired(ULONG stime, ULONG duration) { return os_clock() - stime >= duration ? TRUE : FALSE; }

bool LockTime() {
  if (!time_section_made().load(std::memory_order_acquire)) return false;
  EnterCriticalSection(&OS_CRITICAL_TIME);
  return true;
}

void UnlockTime(bool locked) {
  if (locked) LeaveCriticalSection(&OS_CRITICAL_TIME);
}

void GetSystemTime(_SYSTEMTIME* time) {
  const bool locked = LockTime();
  fill_now(time, gmtime_r);
  UnlockTime(locked);
}

void GetLocalTime(_SYSTEMTIME* time) {
  const bool locked = LockTime();
  fill_local_now(time);
  UnlockTime(locked);
}

void SystemTimeToLocalTime(_SYSTEMTIME* utc, _SYSTEMTIME* loc) {
  tm calendar{};
  calendar.tm_year = utc->wYear - 1900;
  calendar.tm_mon = utc->wMonth - 1;
  calendar.tm_wday = utc->wDayOfWeek;
  calendar.tm_mday = utc->wDay;
  calendar.tm_hour = utc->wHour;
  calendar.tm_min = utc->wMinute;
  calendar.tm_sec = utc->wSecond;
  const time_t seconds = timegm(&calendar);
  tm local{};
  localtime_r(&seconds, &local);
  // Deliberate: the milliseconds stay as they are, see the header. Pinned by time_wall_test.cpp,
  // ConversionFollowsTheProcessesZone.
  fill_calendar(loc, local);
}

void GetTZTime(_SYSTEMTIME* time, const char* tz) {
  if (!time_section_made().load(std::memory_order_acquire) && make_time_section()) {
    // The console may itself ask for the time.
    if (Console != nullptr) Console->Print("GetTZTime init time zone changing\n");
    Sleep(kFirstCallPause_ms);
  }
  LockTime();
  const ULONG t0 = os_clock();
  {
    const ZoneChange zone(tz);
    fill_local_now(time);
  }
  const ULONG t1 = os_clock();
  UnlockTime(true);
  if (Console != nullptr && t1 - t0 > kSlowZoneChange_ms) {
    Console->Print("GetTZTime processing time %d for %s\n", static_cast<int>(t1 - t0),
                   tz != nullptr ? tz : "");
  }
}
