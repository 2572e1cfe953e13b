// A client that starts TLS before it is connected, and a server whose handshake is done at once: with sleeps and
// OpenSSL's calls in the test's hands.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

bool is_library(void* address) {
  Dl_info info = {};
  return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "liboskernel") != nullptr;
}

/// On a thread that has this, sleeps are over at once and noted: for how long from the moment at which the library looked
/// at the clock.
thread_local std::vector<long>* noted_sleeps = nullptr;
thread_local timespec looked_at_clock = {};
thread_local std::function<void()>* at_sleep = nullptr;
std::atomic<bool> accept_waits{false};

}  // namespace

extern "C" {
__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) {
  static auto* const real =
      reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(clock, now);
  if (noted_sleeps != nullptr && is_library(__builtin_return_address(0))) looked_at_clock = *now;
  return result;
}
__attribute__((visibility("default"))) int clock_nanosleep(clockid_t clock, int flags, const timespec* until,
                                                           timespec* left) {
  static auto* const real = reinterpret_cast<int (*)(clockid_t, int, const timespec*, timespec*)>(
      dlsym(RTLD_NEXT, "clock_nanosleep"));
  if (noted_sleeps == nullptr || !is_library(__builtin_return_address(0)))
    return real(clock, flags, until, left);
  const timespec now = (flags & TIMER_ABSTIME) != 0 ? looked_at_clock : timespec{};
  const long long ns = (until->tv_sec - now.tv_sec) * 1000000000LL + until->tv_nsec - now.tv_nsec;
  noted_sleeps->push_back(static_cast<long>(ns / 1000000));
  if (at_sleep != nullptr) (*at_sleep)();
  return 0;
}
__attribute__((visibility("default"))) int SSL_accept(SSL* ssl) {
  static auto* const real = reinterpret_cast<int (*)(SSL*)>(dlsym(RTLD_NEXT, "SSL_accept"));
  int result = real(ssl);
  if (!accept_waits || !is_library(__builtin_return_address(0))) return result;
  for (int i = 0; i < 2000 && result < 0 && SSL_want_read(ssl); ++i) {
    wait_readable(SSL_get_fd(ssl), 10);
    ERR_clear_error();
    result = real(ssl);
  }
  return result;
}
}  // extern "C"

namespace {

class TlsSocketWait : public TlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  void TearDown() override {
    noted_sleeps = nullptr;
    at_sleep = nullptr;
    accept_waits = false;
    TlsSocketTest::TearDown();
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketWait, testing::Bool(), way_name);

TEST_P(TlsSocketWait, AClientWaitsFiveSecondsForItsConnection) {
  RecordingLayer layer;
  OwnedSocket socket(new AsyncSocket(indirect()));
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  std::vector<long> sleeps;
  noted_sleeps = &sleeps;
  EXPECT_EQ(socket->StartSSL(false, 0, nullptr), -1);
  noted_sleeps = nullptr;
  // Checked up to 500 times.
  EXPECT_GE(sleeps.size(), 499U);
  EXPECT_LE(sleeps.size(), 500U);
  for (const long ms : sleeps) ASSERT_EQ(ms, 10);
  EXPECT_TRUE(printed(console, "StartSSL: underlying transport not connected"));
  EXPECT_EQ(now_of(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
}

TEST_P(TlsSocketWait, AClientGoesOnAsSoonAsItIsConnected) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket(new AsyncSocket(indirect()));
  PeerStream peer = adopt_connection(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  std::vector<long> sleeps;
  std::function<void()> connect_at_third = [&] {
    if (sleeps.size() == 3) std::atomic_ref<int>(socket->state).store(SSConnected);
  };
  noted_sleeps = &sleeps;
  at_sleep = &connect_at_third;
  EXPECT_EQ(socket->StartSSL(false, 0, nullptr), -1);
  noted_sleeps = nullptr;
  EXPECT_EQ(sleeps.size(), 3U);
  EXPECT_EQ(now_of(socket->secure_state), SecHandshake);
  EXPECT_EQ(peer.receive(1), "\x16");
}

TEST_P(TlsSocketWait, AClientThatIsConnectedDoesNotWait) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket(new AsyncSocket(indirect()));
  PeerStream peer = adopt_connection(*socket, layer, listener);
  std::atomic_ref<int>(socket->state).store(SSConnected);
  std::vector<long> sleeps;
  noted_sleeps = &sleeps;
  EXPECT_EQ(socket->StartSSL(false, 0, nullptr), -1);
  noted_sleeps = nullptr;
  EXPECT_TRUE(sleeps.empty());
}

TEST_P(TlsSocketWait, AServerWhoseHandshakeIsDoneAtOnceIsIndicatedConnected) {
  accept_waits = true;
  SecureServer server(indirect());
  std::thread peer([&server] { EXPECT_TRUE(server.peer->handshake()); });
  EXPECT_EQ(server.socket->ConnectAck(), 0);
  peer.join();
  EXPECT_EQ(now_of(server.socket->secure_state), SecSecure);
  EXPECT_EQ(console.count("ConnectAck - StartSSL"), 0);
  ASSERT_TRUE(server.layer.wait_for_connect());
  server.peer->write("hello");
  ASSERT_TRUE(server.layer.wait_for_bytes(5));
  EXPECT_THAT(server.layer.story(), ElementsAre("connect", "data:hello"));
  EXPECT_EQ(server.socket->DataIndication(buffer_of("welcome")), Success);
  EXPECT_EQ(server.peer->read(7), "welcome");
}

}  // namespace
