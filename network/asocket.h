/// @file
/// The networking layer: addresses, asynchronous sockets, packet and line framing, receive rings, the name cache.
#ifndef OSKERNEL_ASOCKET_H
#define OSKERNEL_ASOCKET_H

#include "asocketX.h"
#include "dnsentry.h"
#include "linesocket.h"
#include "ringbuffer.h"
#include "sockaddr.h"
#include "tpkt.h"

#endif
