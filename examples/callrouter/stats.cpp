#include "examples/callrouter/stats.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace callrouter {

std::uint64_t Summary::per_second() const {
  return seconds > 0 ? static_cast<std::uint64_t>(static_cast<double>(numbers()) / seconds) : 0;
}

std::string Summary::text() const {
  std::string out =
      fmt::format("routed {}, unroutable {}, malformed {}: {} number{} in {:.3f} s, {} a second\n",
                  grouped(routed), grouped(unroutable), grouped(malformed), grouped(numbers()),
                  numbers() == 1 ? "" : "s", seconds, grouped(per_second()));
  out += "lowest free buffers:";
  const char* separator = " ";
  for (const Pool& pool : pools) {
    if (pool.quantity <= 0 || pool.size <= 0) continue;
    out += fmt::format("{}{} of {} ({} bytes)", separator, grouped(static_cast<std::uint64_t>(pool.lowest)),
                       grouped(static_cast<std::uint64_t>(pool.quantity)), pool.size);
    separator = ", ";
  }
  out += "\n";
  if (tls_sessions + tls_failures > 0) {
    out += fmt::format("TLS: {} session{}, {} handshake{} failed\n", grouped(tls_sessions),
                       tls_sessions == 1 ? "" : "s", grouped(tls_failures), tls_failures == 1 ? "" : "s");
  }
  return out;
}

std::string Summary::json() const {
  nlohmann::ordered_json free = nlohmann::ordered_json::array();
  for (const Pool& pool : pools) {
    if (pool.quantity <= 0 || pool.size <= 0) continue;
    free.push_back({{"bytes", pool.size}, {"quantity", pool.quantity}, {"lowest_free", pool.lowest}});
  }
  const nlohmann::ordered_json summary = {{"routed", routed},
                                          {"unroutable", unroutable},
                                          {"malformed", malformed},
                                          {"numbers", numbers()},
                                          {"seconds", std::round(seconds * 1e6) / 1e6},
                                          {"numbers_per_second", per_second()},
                                          {"buffers", std::move(free)}};
  return summary.dump() + "\n";
}

Summary summarize(const Stats& stats) {
  Summary summary{};
  summary.routed = stats.routed.load(std::memory_order_relaxed);
  summary.unroutable = stats.unroutable.load(std::memory_order_relaxed);
  summary.malformed = stats.malformed.load(std::memory_order_relaxed);
  summary.tls_sessions = stats.tls_sessions.load(std::memory_order_relaxed);
  summary.tls_failures = stats.tls_failures.load(std::memory_order_relaxed);
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - stats.started).count();
  EnterCriticalSection(&OS_CRITICAL_BUFFERS);
  for (std::size_t i = 0; i < summary.pools.size(); ++i) {
    summary.pools[i] = {KERNELCFG->buf_size[i], KERNELCFG->buf_qty[i], OSBuf::min_count[i]};
  }
  LeaveCriticalSection(&OS_CRITICAL_BUFFERS);
  return summary;
}

std::string grouped(std::uint64_t n) {
  std::string digits = std::to_string(n);
  for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, 1, ',');
  return digits;
}

}  // namespace callrouter
