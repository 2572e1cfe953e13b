// What has been counted, and the summary of it.
#ifndef CALLROUTER_STATS_H
#define CALLROUTER_STATS_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace callrouter {

/// Counters that one thread each writes and any thread reads, for display. They publish nothing else, so
/// relaxed access is enough; the final figures are read after those threads have been joined.
struct Stats {
  std::atomic<std::uint64_t> routed{0};
  std::atomic<std::uint64_t> unroutable{0};
  std::atomic<std::uint64_t> malformed{0};
  std::atomic<std::uint64_t> bytes_read{0};
  std::atomic<std::uint64_t> tls_sessions{0};
  std::atomic<std::uint64_t> tls_failures{0};  ///< connections that were not to become sessions
  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();

  std::uint64_t answered() const {
    return routed.load(std::memory_order_relaxed) + unroutable.load(std::memory_order_relaxed) +
           malformed.load(std::memory_order_relaxed);
  }
  static void count(std::atomic<std::uint64_t>& counter, std::uint64_t n = 1) {
    counter.fetch_add(n, std::memory_order_relaxed);
  }
};

/// The figures at one moment.
struct Summary {
  struct Pool {
    int size;      ///< bytes of a buffer
    int quantity;  ///< buffers of this size
    int lowest;    ///< fewest that have been free at once
  };

  std::uint64_t routed, unroutable, malformed;
  double seconds;
  std::array<Pool, 4> pools;
  std::uint64_t tls_sessions = 0, tls_failures = 0;

  std::uint64_t numbers() const { return routed + unroutable + malformed; }
  std::uint64_t per_second() const;
  std::string text() const;  ///< two lines, one more with TLS
  std::string json() const;  ///< one line
};

/// The kernel must be running. Any thread.
Summary summarize(const Stats& stats);

/// 1234567 as 1,234,567.
std::string grouped(std::uint64_t n);

}  // namespace callrouter

#endif
