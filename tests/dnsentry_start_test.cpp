// Starting the resolver thread when the system has no thread to give.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/name_cache_fixture.h"

namespace {

std::atomic<int> failures_to_come{0};
std::atomic<int> error_to_report{0};
std::atomic<int> attempts{0};
std::atomic<const pthread_attr_t*> last_attributes{nullptr};

}  // namespace

// The executable's symbol comes before the C library's, for the shared library under test too.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*start)(void*),
                                                                     void* argument) noexcept {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  ++attempts;
  last_attributes = attributes;
  if (failures_to_come > 0) {
    --failures_to_come;
    return error_to_report;
  }
  return real(thread, attributes, start, argument);
}

using namespace oskernel_test;

namespace {

class ResolverStart : public NameCache {
 protected:
  void TearDown() override {
    failures_to_come = 0;
    NameCache::TearDown();
  }
  /// Starts the thread while the system refuses so many times.
  void start(int refusals, int error) {
    DNSEntry::StopThread();
    console.clear();
    error_to_report = error;
    failures_to_come = refusals;
    attempts = 0;
    DNSEntry::StartThread();
    attempts_made_ = attempts;
    failures_to_come = 0;
  }
  static std::string line(int error) { return "DNSEntry::StartThread failed " + std::to_string(error); }

  int attempts_made_ = 0;
};

TEST_F(ResolverStart, IsTriedAgainWhenThatMayHelp) {
  for (const int error : {EAGAIN, EINTR}) {
    SCOPED_TRACE(error);
    start(3, error);
    EXPECT_EQ(attempts_made_, 4);
    EXPECT_EQ(last_attributes, &std_thread_attr);
    EXPECT_EQ(console.count(line(error)), 3) << "a message for each attempt";
    EXPECT_EQ(console.count("DNSEntry::StartThread"), 3);
    EXPECT_NE(DNSEntry::thread, 0u);
  }
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
}

TEST_F(ResolverStart, IsGivenUpWhenItCannotHelp) {
  for (const int error : {EPERM, EINVAL, ENOMEM}) {
    SCOPED_TRACE(error);
    start(1, error);
    EXPECT_EQ(attempts_made_, 1);
    EXPECT_EQ(console.count(line(error)), 1);
    EXPECT_EQ(DNSEntry::thread, 0u);
  }
}

TEST_F(ResolverStart, IsGivenUpAtTheFirstErrorThatCannotPass) {
  start(2, EAGAIN);
  EXPECT_EQ(console.count(line(EAGAIN)), 2);
  start(1, EPERM);
  EXPECT_EQ(console.count(line(EPERM)), 1);
  EXPECT_EQ(console.count(line(EAGAIN)), 0);
  EXPECT_EQ(DNSEntry::thread, 0u);
}

TEST_F(ResolverStart, NamesWaitUntilThereIsAThread) {
  start(1, EPERM);
  ASSERT_EQ(DNSEntry::thread, 0u);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  const OwnedSocket socket = datagram_socket();
  EXPECT_EQ(socket->Connect("host", 4711), 0);
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), 0u);
  EXPECT_EQ(pending(), Names{"host"});
  DNSEntry::StopThread();  // there is none: nothing happens
  EXPECT_EQ(pending(), Names{"host"});
  DNSEntry::StartThread();
  ASSERT_NE(DNSEntry::thread, 0u);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(console.count(found_line(socket.get(), "host", "10.9.8.7")), 1);
}

TEST_F(ResolverStart, ALayerWithoutAThreadStopsAndStarts) {
  start(1, EPERM);
  AsyncSocket::Cleanup();
  console.clear();
  DNSEntry::Callback(nullptr, nullptr, 0);  // it may have been under way
  ProbeEntry::_TimerCallback(nullptr, nullptr, 0);
  EXPECT_EQ(console.text(), "");
  AsyncSocket::Init();
  EXPECT_NE(DNSEntry::thread, 0u);
  FakeResolver::know("host", ip(10, 9, 8, 7));
  DNSEntry::Lookup("host", nullptr);
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(DNSEntry::Lookup("host", nullptr), ip(10, 9, 8, 7));
}

}  // namespace
