// Reception and time: how long one callback hands on what is queued, when a thread is tried again, and how often a
// listener without descriptors complains.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/interposed_calls.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;

namespace {

const bool kFakeClock = FakeClock::use();

class SocketTime : public QuietNetworkTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kFakeClock);
    FakeClock::set(1000000);
    QuietNetworkTest::SetUp();
  }
};

TEST_F(SocketTime, OneCallbackHandsOnForAHundredMilliseconds) {
  const struct {
    ULONG start;            // the tick
    ULONG each_takes;       // ms
    std::size_t handed_on;  // of ten
  } rows[] = {
      {1000, 0, 10},   {1000, 10, 10},      {1000, 11, 10},      {1000, 12, 9},        {1000, 33, 4},
      {1000, 34, 3},   {1000, 50, 2},       {1000, 99, 2},       {1000, 100, 1},       {1000, 101, 1},
      {1000, 5000, 1}, {0xFFFFFFFF, 50, 2}, {0xFFFFFFCE, 50, 2}, {0xFFFFFF9C, 100, 1}, {0xFFFFFF9D, 99, 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.start << " " << row.each_takes);
    FakeClock::set(row.start);
    RecordingLayer layer;
    layer.set_hook([&row](const Indication&) { FakeClock::advance(row.each_takes); });
    OwnedSocket socket = indirect_socket();
    socket->Bind(&layer);
    socket->type = SOCK_STREAM;
    for (int i = 0; i < 10; ++i) socket->ProcessData(buffer_of("x"));
    const OSQTrigger& trigger = socket->qtrigger;
    trigger.callback(trigger.obj, trigger.addr, trigger.value);
    EXPECT_EQ(layer.count(), row.handed_on);
    EXPECT_EQ(queued(socket.get()), 10 - static_cast<int>(row.handed_on));
    ASSERT_TRUE(dispatch_until([&] { return layer.count() == 10; }))
        << "what is left fires the trigger again";
  }
}

class SocketTimeRunning : public NetworkTest {
 protected:
  void SetUp() override {
    FakeClock::set(1000000);
    NetworkTest::SetUp();
  }
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  /// Advances the clock and waits until the timers that are due then have been actioned.
  void pass_time(ULONG ms) {
    std::atomic<bool> fired{false};
    OSTimerTrigger marker(ms, 1);
    marker.SetCallback([](OSObj*, ADDR flag, ULONG) { *static_cast<std::atomic<bool>*>(flag) = true; },
                       nullptr, &fired, 0);
    marker.SetTimer(ms);
    FakeClock::advance(ms);
    ASSERT_TRUE(wait_until([&] { return fired.load(); }, kPatienceMs));
  }
};

TEST_F(SocketTimeRunning, AThreadIsTriedAgainEveryFiveHundredMilliseconds) {
  OwnedSocket bare = direct_socket();
  std::atomic<int> attempts{0};
  std::atomic<bool> refused{true};
  calls().pthread_create.replace([&](auto real, pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*start)(void*), void* argument) {
    ++attempts;
    return refused ? EAGAIN : real(thread, attributes, start, argument);
  });
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer, false);
  for (int round = 1; round <= 4; ++round) {
    EXPECT_EQ(attempts, round);
    pass_time(499);
    EXPECT_EQ(attempts, round) << "too early";
    FakeClock::advance(1);
    ASSERT_TRUE(wait_until([&] { return attempts == round + 1; }, kPatienceMs));
    // The timer runs again before the next period is measured.
    const std::string text =
        line("%d AsyncSocket::StartTask failed, errno 11 - retrying in 500ms...", socket->s);
    ASSERT_TRUE(wait_until([&] { return console.count(text) == round + 1; }, kPatienceMs));
    StalledDispatcher settled;
    ASSERT_TRUE(settled.stalled());
  }
  refused = false;
  FakeClock::advance(500);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "at last"));
  ASSERT_TRUE(layer.wait_for(1));
}

TEST_F(SocketTimeRunning, AShortIntervalIsDoubledForTheTimeAfterTheNext) {
  OwnedSocket bare = direct_socket();
  std::atomic<int> attempts{0};
  calls().pthread_create.replace([&](auto, auto...) {
    ++attempts;
    return EAGAIN;
  });
  OwnedSocket socket = direct_socket();
  socket->retryTimeout = 8;
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  int expected = 1;
  for (const ULONG interval : {8, 16, 16, 16}) {
    EXPECT_EQ(attempts, expected);
    pass_time(interval - 1);
    EXPECT_EQ(attempts, expected) << "too early";
    FakeClock::advance(1);
    ++expected;
    ASSERT_TRUE(wait_until([&] { return attempts == expected; }, kPatienceMs)) << interval;
    StalledDispatcher settled;
    ASSERT_TRUE(settled.stalled());
  }
  calls().pthread_create.restore();
}

TEST_F(SocketTimeRunning, AThreadThatWasToBeTriedAgainIsNotStartedForAClosedSocket) {
  OwnedSocket bare = direct_socket();
  std::atomic<int> attempts{0};
  calls().pthread_create.replace([&](auto, auto...) {
    ++attempts;
    return EAGAIN;
  });
  RecordingLayer layer;
  OwnedSocket closed = datagram_socket(&layer, false);
  OwnedSocket freed = datagram_socket(&layer, false);
  EXPECT_EQ(attempts, 2);
  closed->Close();
  freed.reset();
  pass_time(500);
  EXPECT_EQ(attempts, 2);
  EXPECT_FALSE(look_at(closed->running));
  EXPECT_EQ(closed->thread, 0U);
  calls().pthread_create.restore();
  PeerUdp peer;
  ASSERT_EQ(closed->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  ASSERT_TRUE(peer.send_to(closed->LocalPort(), "again"));
  ASSERT_TRUE(layer.wait_for(1)) << "it can be used again";
}

TEST_F(SocketTimeRunning, AListenerWithoutDescriptorsComplainsOnceASecond) {
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    OwnedSocket listener(new AsyncSocket(indirect));
    ASSERT_EQ(listener->Create(SOCK_STREAM, 0, kLoopback, false), 0);
    const int s = listener->s;
    std::atomic<int> attempts{0};
    replace_accept([&, s](int fd) {
      if (fd != s) return 0;
      ++attempts;
      return EMFILE;
    });
    ASSERT_EQ(listener->Listen([](OSObj*, ADDR socket, ULONG) { static_cast<AsyncSocket*>(socket)->Free(); },
                               nullptr),
              0);
    const std::string text =
        line("%d AsyncSocket::%s - accept error %d", s, indirect ? "Poll" : "ListenMain", EMFILE);
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    ASSERT_TRUE(wait_until([&] { return console.count(text) == 1; }, kPatienceMs));
    for (int second = 2; second <= 4; ++second) {
      for (int i = 0; i < 9; ++i) FakeClock::advance(111);
      MonitorBeat monitor;
      ASSERT_TRUE(monitor.passes());
      EXPECT_EQ(console.count(text), second - 1) << "999 ms have passed";
      FakeClock::advance(1);
      ASSERT_TRUE(wait_until(
          [&] {
            if (console.count(text) == second) return true;
            FakeClock::advance(10);  // its next attempt need not come at the very millisecond
            return false;
          },
          kPatienceMs));
    }
    listener.reset();
    calls().restore_all();
    console.clear();
  }
}

}  // namespace
