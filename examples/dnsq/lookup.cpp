#include "examples/dnsq/lookup.h"

#include <atomic>

#include "network/asocket.h"

namespace dnsq {
namespace {

// The question; then a socket stops reading when 10 datagrams wait, and beside those one is being read and one decoded.
constexpr int kLargeBuffers = 16;
// Short datagrams, and what the socket says of its server's name.
constexpr int kSmallBuffers = 4;

// The records of an answer: a datagram holds some 150, and then the pool of links grows.
constexpr int kLinks = 64;

}  // namespace

// A datagram socket is connected or still to be; only a name without address makes it anything else.
bool server_is_unknown(const DnsLookup& lookup) {
  return lookup.socket != nullptr && std::atomic_ref(lookup.socket->state).load() == SSDisconnected;
}

void add_lookup(KernelCfg& cfg) {
  cfg.buf_qty[1] += kSmallBuffers;
  cfg.buf_qty[3] += kLargeBuffers;
  cfg.link_qty += kLinks;
}

}  // namespace dnsq
