// A sender between its look at the socket and the session that it then uses: others close the socket there, start TLS
// anew, or connect it to somebody else.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// What this thread does in front of the library's lock that comes so many locks later. A plain object: the locks of
/// the whole program pass by here, also before anything is constructed.
struct AtALock {
  int locks_before;  ///< below 0: none
  std::function<void()>* act;
};
thread_local AtALock at_a_lock = {-1, nullptr};

bool is_library(void* address) {
  Dl_info info = {};
  return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "liboskernel") != nullptr;
}

void pass_a_lock(void* caller) {
  if (at_a_lock.act == nullptr || !is_library(caller) || at_a_lock.locks_before-- > 0) return;
  (*std::exchange(at_a_lock.act, nullptr))();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  using Lock = int (*)(pthread_mutex_t*);
  static std::atomic<Lock> found{nullptr};
  Lock real = found.load(std::memory_order_relaxed);
  if (real == nullptr) {
    real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    found.store(real, std::memory_order_relaxed);
  }
  if (at_a_lock.act != nullptr) pass_a_lock(__builtin_return_address(0));
  return real(mutex);
}

namespace {

/// A send, and what has become of it. Outlives the buffer, which may wait in the socket.
struct Send {
  OSIORetCode result = Success;
  bool acted = false;
  int freed = 0;

  /// `act` comes in front of the lock that has `locks_before` before it.
  void run(AsyncSocket& socket, const std::string& text, int locks_before, const std::function<void()>& act) {
    OSBuf* const buf = buffer_of(text);
    buf->AddBufferCallback(OSCallback::Alloc(
        nullptr, [](OSObj* obj, ADDR, ULONG) { ++*reinterpret_cast<int*>(obj); },
        reinterpret_cast<OSObj*>(&freed), nullptr, 0));
    std::function<void()> noted = [&] {
      acted = true;
      act();
    };
    at_a_lock = {locks_before, &noted};
    result = socket.DataIndication(buf);
    at_a_lock = {-1, nullptr};
  }
};
constexpr int kAtTheSocket = 0;   ///< the sender has seen an established session and is about to take it
constexpr int kAtTheSession = 1;  ///< it has taken it and is about to write

class TlsSocketBeside : public TlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  static void connect_anew(SecureClient& client) {
    client.socket->Close();
    ASSERT_EQ(client.socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    client.socket->Connect(INADDR_LOOPBACK, client.listener.port());
    client.peer = std::make_unique<TlsEnd>(good_server(), Descriptor(client.listener.accept().release()));
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketBeside, testing::Bool(), way_name);

TEST_P(TlsSocketBeside, WhatIsGivenToASocketThatIsClosedMeanwhileIsFreed) {
  for (const int place : {kAtTheSocket, kAtTheSession}) {
    SecureClient client(indirect());
    ASSERT_TRUE(client.comes_up());
    ASSERT_TRUE(client.layer.wait_for_connect());
    Send sent;
    sent.run(*client.socket, "never sent", place, [&] { client.socket->Close(); });
    ASSERT_TRUE(sent.acted);
    EXPECT_EQ(sent.result, place == kAtTheSocket ? NoConnection : Blocked);
    EXPECT_EQ(sent.freed, 1);
    EXPECT_THAT(early_data(client.socket.get()), IsEmpty());
    EXPECT_EQ(client.peer->read_to_end(), "");
    EXPECT_EQ(client.layer.count(Indication::kDisconnect), 0U);
  }
}

TEST_P(TlsSocketBeside, WhatIsGivenToASessionThatIsStartedAnewMeanwhileWaitsForIt) {
  Send sent;
  SecureClient client(indirect(), good_server(TLS1_2_VERSION));  // no tickets are on their way
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  sent.run(*client.socket, "for the next", kAtTheSocket,
           [&] { EXPECT_EQ(client.socket->StartSSL(false, 0, nullptr), -1); });
  ASSERT_TRUE(sent.acted);
  EXPECT_EQ(sent.result, Success);
  EXPECT_EQ(sent.freed, 0);
  EXPECT_THAT(early_data(client.socket.get()), ElementsAre("for the next"));
  EXPECT_TRUE(client.socket->Connected());
  EXPECT_EQ(client.layer.count(Indication::kDisconnect), 0U);
  client.socket->Close();
}

TEST_P(TlsSocketBeside, TheNextConnectionOfTheSocketIsNotEndedByASendOfTheOneBefore) {
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  Send sent;
  sent.run(*client.socket, "for the one before", kAtTheSession, [&] { connect_anew(client); });
  ASSERT_TRUE(sent.acted);
  EXPECT_EQ(sent.result, Blocked);
  EXPECT_EQ(sent.freed, 1);
  EXPECT_NE(now_of(client.socket->state), SSDisconnected);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_kind(Indication::kConnect, 2));
  EXPECT_EQ(client.layer.count(Indication::kDisconnect), 0U);
  EXPECT_EQ(client.socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(client.peer->read(5), "hello");
}

}  // namespace
