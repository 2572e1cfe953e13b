/// What the tests of the sockets ask a descriptor.
#ifndef OSKERNEL_TESTS_SOCKET_PROBE_H
#define OSKERNEL_TESTS_SOCKET_PROBE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <string>
#include <vector>

#include "network/asocket.h"
#include "socket_watch.h"

namespace oskernel_test {

inline constexpr ULONG kLoopback2 = 0x7F000002;  ///< 127.0.0.2

/// A list of console texts, for comparisons.
using Texts = std::vector<std::string>;

inline int int_option(int fd, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, option, &value, &length), 0);
  return value;
}

inline timeval send_timeout(int fd) {
  timeval value = {-1, -1};
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, &length), 0);
  return value;
}

inline SockAddr system_name(int fd) {
  SockAddr name;
  socklen_t length = sizeof name.sin;
  EXPECT_EQ(getsockname(fd, name, &length), 0);
  return name;
}

inline bool non_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }
/// Of a socket: the monitor thread, which is starting, may have got a closed one's number for something else.
inline bool is_open(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
}

/// Returns when the monitor thread has everything that it opens.
inline void let_the_layer_start() {
  ComeRound round;
  EXPECT_TRUE(round.pass());
}

inline bool running(AsyncSocket& socket) { return now_of(socket.running); }
inline bool receive_started(AsyncSocket& socket) { return now_of(socket.receive_started); }

}  // namespace oskernel_test

#endif
