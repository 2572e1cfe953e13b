/// The system resolver, one call at a time; not installed.
#ifndef OSKERNEL_RESOLVE_PRIV_H
#define OSKERNEL_RESOLVE_PRIV_H

#include <netdb.h>

#include <functional>

#include "types.h"

/// Calls gethostbyname, which keeps its answer in storage that the next call overwrites: calls of all threads of the
/// process, from asynchronous and blocking sockets, come one after the other.
///   name      lent for the call
///   take      called with the answer before the next call may begin; copies what it needs, and enters nothing
///   returns   false when there is no such host or it has no IPv4 address
///   threads   any, inside no section: may take as long as the resolver does
bool look_up_host(const char* name, const std::function<void(const hostent& found)>& take);

/// The same for the first address alone.
///   address   host order; written on success only
bool resolve_host(const char* name, ULONG* address);

#endif
