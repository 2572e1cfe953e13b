/// The server under test as a process of its own.
#ifndef OSKERNEL_BENCH_NETWORK_BENCH_SERVER_H
#define OSKERNEL_BENCH_NETWORK_BENCH_SERVER_H

#include <sys/types.h>

#include <ctime>
#include <string>

#include "network_bench.h"

namespace oskernel_bench {

/// A server for a scope. Its process is ended and waited for however the scope is left, and ends with this process
/// should that be killed.
class ServerProcess {
 public:
  /// Starts this program again as `--serve`, and waits until the server can be reached. Throws when it cannot.
  ServerProcess(const Implementation& implementation, Protocol protocol, int connections);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  int port() const { return port_; }
  double processor_seconds() const;  // of all its threads so far
  double private_bytes() const;      // memory that no file stands behind
  /// How it ended, or that it has not.
  std::string condition();

 private:
  void end();

  pid_t pid_ = -1;
  int port_ = 0;
  int status_ = 0;
};

/// Processor time at a moment: this process's, the server's, and everybody's.
class Usage {
 public:
  explicit Usage(const ServerProcess& server);
  /// What `completed` messages or connections have taken since then, in so many seconds.
  Figures figures(const ServerProcess& server, std::uint64_t completed, double seconds) const;

 private:
  double processor_;
  double machine_;
  double own_;
};

/// Allows this process and its servers as many descriptors as the system grants, at best `wanted`.
///   returns   how many that are
std::size_t allow_descriptors(std::size_t wanted);

/// From now on this process runs on one processor; servers started by it run where it was allowed to run before.
///   returns   the number of the processor, -1 when the system does not let it
int pin_load();

}  // namespace oskernel_bench

#endif
