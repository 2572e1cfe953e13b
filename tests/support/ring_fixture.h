/// What the tests of receive rings share.
#ifndef OSKERNEL_TESTS_RING_FIXTURE_H
#define OSKERNEL_TESTS_RING_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "network/asocket.h"
#include "network_fixture.h"

namespace oskernel_test {

/// The networking layer runs, and callbacks run when the test dispatches.
class RingTest : public QuietNetworkTest {
 protected:
  void SetUp() override {
    QuietNetworkTest::SetUp();
    AsyncSocket::Init();
  }
};

/// A ring that tells when it is deleted.
class WatchedRing : public RingBuffer {
 public:
  WatchedRing(int buffers, std::atomic<int>* deleted) : RingBuffer(buffers), deleted_(deleted) {}
  ~WatchedRing() override { ++*deleted_; }

 private:
  std::atomic<int>* deleted_;
};

/// A message about a ring: `format` with its address.
inline std::string ring_line(const std::string& format, const RingBuffer* ring) {
  char address[40];
  snprintf(address, sizeof address, "%p", static_cast<const void*>(ring));
  std::string line = format;
  line.replace(line.find("%p"), 2, address);
  return line;
}

}  // namespace oskernel_test

#endif
