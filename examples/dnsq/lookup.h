// What a DnsLookup needs, and how it ends.
#ifndef DNSQ_LOOKUP_H
#define DNSQ_LOOKUP_H

#include "kernel/kernel.h"
#include "network/dns.h"

namespace dnsq {

// What the value of its callback says.
inline constexpr ULONG kAnswer = 0;
inline constexpr ULONG kNoAnswer = 1;

inline constexpr int kTimeoutSeconds = 5;

/// Whether the name of its name server has turned out to have no address. The lookup waits for its time-out all the
/// same.
///   threads   any, while the lookup lives
bool server_is_unknown(const DnsLookup& lookup);

/// Adds what one lookup at a time holds at the most, whatever is sent to it. The configuration's largest buffers are of
/// 1740 bytes.
void add_lookup(KernelCfg& cfg);

}  // namespace dnsq

#endif
