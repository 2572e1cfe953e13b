/// A clock device that tests drive by hand.
#ifndef OSKERNEL_TESTS_FAKE_CLOCK_H
#define OSKERNEL_TESTS_FAKE_CLOCK_H

#include "kernel/types.h"

namespace oskernel_test {

/// Stands in for "/dev/os_clock" by interposing open and ioctl. The kernel probes the device once in a
/// process, so use() belongs into the initialiser of a namespace-scope object of the test file:
///   const bool kFakeClock = FakeClock::use();
/// All operations: any thread.
class FakeClock {
 public:
  static bool use();                        ///< from now on the device opens; returns true
  static void set(ULONG tick);              ///< the tick that requests deliver
  static void advance(ULONG ms);            ///< adds to the tick
  static ULONG now();                       ///< the tick that the next request delivers
  static void fail_requests(bool failing);  ///< requests fail and deliver nothing
  static int opens();                       ///< how often the device was opened
  static int requests();                    ///< how often it was asked
};

}  // namespace oskernel_test

#endif
