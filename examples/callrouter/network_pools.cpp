#include "examples/callrouter/network_pools.h"

#include <sys/resource.h>

#include <algorithm>

#include "network/asocket.h"

namespace callrouter {
namespace {

// A socket stops reading when 10 received buffers wait. Beside those, one is being filled, one is being cut into
// packets, one is the packet being put together, one may tell of the connection's end, and one is being sent.
constexpr int kBuffersEach = 15;

// Most messages are short; those that find no small buffer take a large one, of which there are enough.
constexpr int kSmallEach = 2;

constexpr int kSlack = 64;

}  // namespace

void add_connections(KernelCfg& cfg, int connections) {
  // A packet that no buffer's own storage holds comes in a buffer without, whose storage a callback gives back.
  cfg.buf_qty[0] += kBuffersEach * connections + kSlack;
  cfg.callback_qty += kBuffersEach * connections + kSlack;
  cfg.buf_qty[1] += kSmallEach * connections + kSlack;
  cfg.buf_qty[3] += kBuffersEach * connections + kSlack;
  cfg.link_qty += (kSmallEach + kBuffersEach) * connections + kSlack;
}

int allow_descriptors(int connections) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return connections;
  const auto needed = static_cast<rlim_t>(connections) + kOtherDescriptors;
  if (limit.rlim_cur < needed) {
    limit.rlim_cur = std::min(needed, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur >= needed) return connections;
  return std::max(1, static_cast<int>(limit.rlim_cur) - kOtherDescriptors);
}

NetworkRun::NetworkRun() { AsyncSocket::Init(); }

NetworkRun::~NetworkRun() { AsyncSocket::Cleanup(); }

}  // namespace callrouter
