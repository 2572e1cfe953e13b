// The kernel's pools for programs with connections.
#ifndef CALLROUTER_NETWORK_POOLS_H
#define CALLROUTER_NETWORK_POOLS_H

#include "kernel/kernel.h"

namespace callrouter {

/// Adds to `cfg`, which has the buffer sizes of road_config(), what so many connections can hold at the same time
/// at the most, whatever their peers send: a message that arrives always finds a buffer.
void add_connections(KernelCfg& cfg, int connections);

/// Descriptors that a program needs beside those of its connections.
inline constexpr int kOtherDescriptors = 32;

/// Raises the process's limit of descriptors for so many connections, as far as it is allowed to.
///   returns   how many connections fit, `connections` at the most
int allow_descriptors(int connections);

/// Starts the networking layer and stops it again. The kernel runs longer.
class NetworkRun {
 public:
  NetworkRun();
  ~NetworkRun();
  NetworkRun(const NetworkRun&) = delete;
  NetworkRun& operator=(const NetworkRun&) = delete;
};

}  // namespace callrouter

#endif
