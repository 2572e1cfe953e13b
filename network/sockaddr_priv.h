/// What the networking sources share about addresses; not installed.
#ifndef OSKERNEL_SOCKADDR_PRIV_H
#define OSKERNEL_SOCKADDR_PRIV_H

#include "types.h"

/// Whether an address, host order, is in 192.168.0.0/16, 172.16.0.0/12 or 10.0.0.0/8 (RFC 1918 section 3).
inline bool is_rfc1918(ULONG addr) {
  return addr >> 16 == 0xC0A8 || addr >> 20 == 0xAC1 || addr >> 24 == 0x0A;
}

#endif
