/// @file
/// The millisecond tick and calendar time.
///
/// Intervals are measured with os_clock and tested with os_expired; calendar time is for people. A deadline
/// is a start tick and a duration, never a tick to come, because the tick wraps every 49.7 days.
#ifndef OSKERNEL_POSIXKERNEL_TIME_H
#define OSKERNEL_POSIXKERNEL_TIME_H

#include "posixkernel.h"
#include "types.h"

/// A moment in some zone, broken down.
struct _SYSTEMTIME {
  WORD wYear;          ///< full year
  WORD wMonth;         ///< 1 to 12
  WORD wDayOfWeek;     ///< 0 (Sunday) to 6
  WORD wDay;           ///< day of the month, 1 to 31
  WORD wHour;          ///< 0 to 23
  WORD wMinute;        ///< 0 to 59
  WORD wSecond;        ///< 0 to 60
  WORD wMilliseconds;  ///< 0 to 999
  WORD isDst;          ///< daylight saving: positive yes, 0 no, negative unknown
};
typedef _SYSTEMTIME SYSTEMTIME;  ///< the name that programs use

/// The tick: milliseconds, wrapping at 2^32. It comes from the clock device "/dev/os_clock" when there is
/// one. The device is looked for once, by the first call, and opened once however many threads make it.
/// Otherwise the tick is the time of day in milliseconds as it was at the first call, carried on by the
/// monotonic clock: setting the wall clock moves no deadline.
///   returns   the tick; when a request to the device fails, the last tick that it gave (0 before its first)
///   threads   any, no lock. Leaves errno alone.
OSKERNEL_API ULONG os_clock();

/// Whether at least `duration` ms have passed since the tick was `stime`. Right across the tick's wrap, for
/// durations below 2^32 ms.
///   threads   any, no lock
OSKERNEL_API BOOL os_expired(ULONG stime, ULONG duration);

/// Enters OS_CRITICAL_TIME, so that no GetTZTime changes the process's time zone meanwhile.
///   returns   what UnlockTime needs: false when the section does not exist yet, because no GetTZTime has
///             been called; nothing is held then
///   threads   any
OSKERNEL_API bool LockTime();

/// Leaves OS_CRITICAL_TIME if `locked`.
OSKERNEL_API void UnlockTime(bool locked);

/// Fills `time` with the current universal time.
///   threads   any; takes OS_CRITICAL_TIME if it exists
OSKERNEL_API void GetSystemTime(_SYSTEMTIME* time);

/// Fills `time` with the current time in the zone that TZ names now.
///   threads   any; takes OS_CRITICAL_TIME if it exists
OSKERNEL_API void GetLocalTime(_SYSTEMTIME* time);

/// Converts universal to local time, by the zone rules read last. Of `utc` year, month, day, hour, minute and
/// second count; values outside their ranges carry over. `utc` and `loc` may be the same record.
///
/// Deliberate: loc->wMilliseconds is neither copied nor cleared. Callers that convert a record in place keep
/// its milliseconds, and those that put their own there beforehand find them again. Pinned by
/// time_wall_test.cpp, ConversionFollowsTheProcessesZone.
///   threads   any, no lock: while a GetTZTime runs, the zone may be that call's
OSKERNEL_API void SystemTimeToLocalTime(_SYSTEMTIME* utc, _SYSTEMTIME* loc);

/// Fills `time` with the current time in the zone that `tz` describes, in the form of the environment
/// variable TZ. For that the process's TZ is replaced for a moment and then restored, whatever its length, or
/// removed again. Calendar calls of the kernel do not see the other zone (SystemTimeToLocalTime excepted);
/// other code of the process may. A null `tz`, or no memory to keep the present TZ: the current zone.
///
/// The first call makes OS_CRITICAL_TIME, prints one line and sleeps 5 ms, in which calendar calls that found
/// no section finish. A call that takes more than 50 ms prints a line.
///   threads   any, not inside a section that a console override needs; takes OS_CRITICAL_TIME. Prints
///             outside of it.
OSKERNEL_API void GetTZTime(_SYSTEMTIME* time, const char* tz);

/// Whether os_clock tries the clock device; cleared when the device cannot be opened. Accessed atomically
/// (relaxed): it only chooses where the tick comes from and publishes nothing.
extern OSKERNEL_API bool use_osclockdev;

/// Whether OS_CRITICAL_TIME exists. Accessed atomically: its release store publishes the section's semaphore
/// to the acquire load in LockTime.
extern OSKERNEL_API bool time_init_done;

/// Guards the process's time zone. A leaf: nothing is entered or called while it is held.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_TIME;

#endif
