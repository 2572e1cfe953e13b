/// What the sources of the blocking sockets share; not installed.
#ifndef OSKERNEL_SOCKETX_PRIV_H
#define OSKERNEL_SOCKETX_PRIV_H

#include "buffer.h"
#include "types.h"

/// What select(2) would say of one descriptor.
struct Readiness {
  int count;  ///< how many of the three are true, at least 1; 0 when the time is over; -1 when the wait failed, errno
              ///< says why
  bool readable;
  bool writable;
  bool exceptional;
};

/// Waits as select(2) does, for any descriptor.
///   events      POLLIN for reading, POLLOUT for writing, POLLPRI for exceptions
///   timeout_ms  0 asks only; negative fails with EINVAL
///   returns     when the wait fails, what was asked for counts as ready: sets stay as they were given
Readiness wait_ready(int fd, short events, int timeout_ms);

/// What is left of timeout_ms since the tick start_ms; 0 when it is over.
int time_left(ULONG start_ms, int timeout_ms);

/// A buffer whose data is `bytes` bytes to be written, up to 65535, and whose length is 0: from the pools when they
/// have a class for it, otherwise with storage of its own.
///   returns   null when there is none
OSBuf* alloc_for_reading(int bytes);

#endif
