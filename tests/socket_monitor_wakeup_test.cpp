// How often threads are woken and asked: one signal to the dispatcher serves many sockets, one event many datagrams.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <string>

#include "kernel/posixkernel.h"
#include "kernel/trigger.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;

namespace {

/// Posts of the semaphore that stands behind the dispatcher's event.
std::atomic<const sem_t*> counted{nullptr};
std::atomic<int> posts{0};

std::atomic<int> batches{0};  ///< what epoll_wait has reported something in

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" __attribute__((visibility("default"))) int sem_post(sem_t* sem) noexcept {
  static const auto next = reinterpret_cast<int (*)(sem_t*)>(dlsym(RTLD_NEXT, "sem_post"));
  if (counted == sem) ++posts;
  return next(sem);
}

extern "C" __attribute__((visibility("default"))) int epoll_wait(int fd, struct epoll_event* events, int most,
                                                                 int timeout) {
  static const auto next =
      reinterpret_cast<int (*)(int, struct epoll_event*, int, int)>(dlsym(RTLD_NEXT, "epoll_wait"));
  const int count = next(fd, events, most, timeout);
  if (count > 0) ++batches;
  return count;
}

namespace {

/// Keeps the monitor thread from looking at its sockets.
class MonitorHeld {
 public:
  MonitorHeld() { EnterCriticalSection(&AsyncSocket::cs); }
  ~MonitorHeld() { LeaveCriticalSection(&AsyncSocket::cs); }
  MonitorHeld(const MonitorHeld&) = delete;
  MonitorHeld& operator=(const MonitorHeld&) = delete;
};

class SocketWakeUps : public NetworkTest {
 protected:
  void TearDown() override {
    counted = nullptr;
    NetworkTest::TearDown();
  }
};

TEST_F(SocketWakeUps, ManyReadableSocketsSignalTheDispatcherOnce) {
  constexpr std::size_t kSockets = 20;
  std::array<RecordingLayer, kSockets> layers;
  std::array<PeerStream, kSockets> peers;
  std::array<OwnedSocket, kSockets> sockets;
  for (std::size_t i = 0; i < kSockets; ++i) {
    sockets[i] = established_stream(&layers[i], &peers[i]);
    // Then the monitor thread waits for all of them.
    ASSERT_TRUE(peers[i].send_all("a"));
    ASSERT_TRUE(layers[i].wait_for_bytes(1));
  }
  counted = KernelEvent::Find(os_trig_event)->sem;
  posts = 0;
  {
    const MonitorHeld held;
    for (PeerStream& peer : peers) ASSERT_TRUE(peer.send_all("b"));
  }
  for (RecordingLayer& layer : layers) ASSERT_TRUE(layer.wait_for_bytes(2));
  // The first of them may have been found before the section was entered.
  EXPECT_GE(posts, 1);
  EXPECT_LE(posts, 3);
}

TEST_F(SocketWakeUps, OneEventServesManyDatagrams) {
  constexpr int kDatagrams = 9;  // more of them, and the socket is not read on
  RecordingLayer layer;
  PeerUdp peer;
  const OwnedSocket socket = datagram_socket(&layer);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "first"));
  ASSERT_TRUE(layer.wait_for(1));
  batches = 0;
  {
    const MonitorHeld held;
    for (int i = 0; i < kDatagrams; ++i) ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
  }
  ASSERT_TRUE(layer.wait_for(1 + kDatagrams));
  EXPECT_GE(batches, 1);
  EXPECT_LE(batches, 3);
  for (int i = 0; i < kDatagrams; ++i) {
    EXPECT_EQ(layer.story()[static_cast<std::size_t>(i) + 1], "datagram:" + std::to_string(i));
  }
}

// An empty datagram is not seen by asking how many bytes wait: it has an event of its own.
TEST_F(SocketWakeUps, AnEmptyDatagramAmongOthersHidesNone) {
  RecordingLayer layer;
  PeerUdp peer;
  const OwnedSocket socket = datagram_socket(&layer);
  {
    const MonitorHeld held;
    for (const char* text : {"a", "", "b", "", "", "c"}) ASSERT_TRUE(peer.send_to(socket->LocalPort(), text));
  }
  ASSERT_TRUE(layer.wait_for(3));
  EXPECT_EQ(layer.story()[0], "datagram:a");
  EXPECT_EQ(layer.story()[1], "datagram:b");
  EXPECT_EQ(layer.story()[2], "datagram:c");
}

}  // namespace
