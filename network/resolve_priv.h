/// The system resolver, one call at a time; not installed.
#ifndef OSKERNEL_RESOLVE_PRIV_H
#define OSKERNEL_RESOLVE_PRIV_H

#include "types.h"

/// Calls gethostbyname, which keeps its answer in storage that the next call overwrites: calls of all threads of the
/// process, from asynchronous and blocking sockets, come one after the other.
///   name      lent for the call
///   address   the first address of the host, host order; written on success only
///   returns   false when there is no such host or it has no IPv4 address
///   threads   any, inside no section: may take as long as the resolver does
bool resolve_host(const char* name, ULONG* address);

#endif
