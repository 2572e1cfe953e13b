/// Servers that nobody here wrote, started by a test on a port that is free.
#ifndef OSKERNEL_TESTS_REAL_SERVER_H
#define OSKERNEL_TESTS_REAL_SERVER_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "kernel_fixture.h"
#include "net_namespace.h"
#include "socket_peer.h"

namespace oskernel_test {

/// Whether this process has a socket, by its number in the system's tables.
inline bool has_socket(pid_t pid, const std::string& inode) {
  std::error_code error;
  std::filesystem::directory_iterator entry("/proc/" + std::to_string(pid) + "/fd", error), end;
  for (; !error && entry != end; entry.increment(error)) {
    std::error_code gone;  // closed meanwhile
    if (std::filesystem::read_symlink(entry->path(), gone) == "socket:[" + inode + "]") return true;
  }
  return false;
}

/// The same for any process of a group; a shell's pipe has several.
inline bool group_has_socket(pid_t group, const std::string& inode) {
  std::error_code error;
  std::filesystem::directory_iterator entry("/proc", error), end;
  for (; !error && entry != end; entry.increment(error)) {
    const pid_t pid = std::atoi(entry->path().filename().c_str());
    if (pid > 0 && getpgid(pid) == group && has_socket(pid, inode)) return true;
  }
  return false;
}

/// Whether a process of this group listens on the port, over IPv4; what was free a moment ago may be another's. Makes
/// no connection: some servers take one only.
inline bool listens_on(pid_t group, UWORD port) {
  std::ifstream table("/proc/self/net/tcp");
  char wanted[8];
  snprintf(wanted, sizeof wanted, ":%04X", port);
  for (std::string line; std::getline(table, line);) {
    // "  0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 643 ..."
    std::istringstream words(line);
    std::string number, local, remote, state, word, inode;
    words >> number >> local >> remote >> state;
    for (int skipped = 0; skipped < 5; ++skipped) words >> word;
    words >> inode;
    if (state == "0A" && local.ends_with(wanted) && group_has_socket(group, inode)) return true;
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
            return ended || listens_on(program_->pid(), port);
          },
          kHelperLimitMs);
      if (!ended && listens_on(program_->pid(), port)) port_ = port;
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
