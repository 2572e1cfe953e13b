/// The rings whose sockets are gone, for start and stop of the networking layer; not installed.
#ifndef OSKERNEL_RINGBUFFER_PRIV_H
#define OSKERNEL_RINGBUFFER_PRIV_H

#include "network/ringbuffer.h"
#include "trigger.h"

/// Rings that wait for their buffers, and the timer that looks at them. Null before the first start. Under
/// AsyncSocket::cs.
extern OSIndirectList* ringBufferCleanupList;
extern OSTimerTrigger* ringBufferCleanupTrigger;

/// Makes both unless they are there. AsyncSocket::Init calls it; a ring that is given up without a running
/// networking layer does, too.
void start_ring_cleanup();

/// Releases both when no ring is parked; otherwise they go on until the process ends, and the next start finds them.
///   threads   the stopping thread
void stop_ring_cleanup();

#endif
