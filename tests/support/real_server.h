/// Servers that nobody here wrote, started by a test on a port that is free.
#ifndef OSKERNEL_TESTS_REAL_SERVER_H
#define OSKERNEL_TESTS_REAL_SERVER_H

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kernel_fixture.h"
#include "net_namespace.h"
#include "socket_peer.h"

namespace oskernel_test {

/// Whether somebody listens on the port, over IPv4. Makes no connection: some servers take one only.
inline bool is_listened_on(UWORD port) {
  std::ifstream table("/proc/self/net/tcp");
  char wanted[8];
  snprintf(wanted, sizeof wanted, ":%04X", port);
  for (std::string line; std::getline(table, line);) {
    // "  0: 0100007F:1F90 00000000:0000 0A ..."
    const std::size_t local = line.find(": ");
    if (local == std::string::npos || line.size() < local + 34) continue;
    if (line.compare(local + 10, 5, wanted) == 0 && line.compare(local + 30, 2, "0A") == 0) return true;
  }
  return false;
}

/// A program that listens on a port. It is killed when the object goes.
class RealServer {
 public:
  using Command = std::function<std::vector<std::string>(const std::string& port)>;

  /// Tries ports that are free until the program listens on one; somebody else may be quicker. Fails the test when
  /// the program does not start.
  explicit RealServer(const Command& command) {
    std::string said;
    for (int attempt = 0; attempt < 5 && port_ == 0; ++attempt) {
      const UWORD port = free_port();
      program_ = std::make_unique<Process>(command(std::to_string(port)));
      bool ended = false;
      wait_until(
          [&] {
            ended = program_->wait(0) >= 0;
            return ended || is_listened_on(port);
          },
          kHelperLimitMs);
      if (!ended && is_listened_on(port)) port_ = port;
      if (port_ == 0) said = program_->output();
    }
    EXPECT_NE(port_, 0) << "the server does not start: " << said;
  }
  UWORD port() const { return port_; }
  Process& program() { return *program_; }

 private:
  static UWORD free_port() {
    const Descriptor fd = bound_socket(SOCK_STREAM);
    return local_port_of(fd.get());
  }

  std::unique_ptr<Process> program_;
  UWORD port_ = 0;
};

}  // namespace oskernel_test

#endif
