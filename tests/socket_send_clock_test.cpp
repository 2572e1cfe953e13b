// How long a sender waits for room or for its turn: five seconds of the kernel's clock.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/interposed_calls.h"
#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::Contains;
using testing::ElementsAre;

namespace {

const bool kFakeClock = FakeClock::use();

struct Kind {
  bool indirect;
  ULONG start;  ///< tick
};

class SocketSendTime : public NetworkTest, public testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kFakeClock);
    FakeClock::set(GetParam().start);
    NetworkTest::SetUp();
  }
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  bool indirect() const { return GetParam().indirect; }

  /// How often exactly this line has been printed.
  long said(const std::string& text) const {
    const std::vector<std::string> lines = console.calls();
    return std::count(lines.begin(), lines.end(), text);
  }
  /// Counts a sender's waits for this descriptor.
  void count_waits(int s) {
    calls().poll.replace([this, s](auto real, pollfd* fds, nfds_t count, int timeout_ms) {
      note_timeout(timeout_ms, count == 1 && fds[0].fd == s && (fds[0].events & POLLOUT) != 0);
      return real(fds, count, timeout_ms);
    });
    calls().select.replace(
        [this, s](auto real, int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
          note_timeout(
              timeout != nullptr ? static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000) : -1,
              writes != nullptr && s < count && FD_ISSET(s, writes));
          return real(count, reads, writes, excepts, timeout);
        });
  }
  void note_timeout(int timeout_ms, bool for_room) {
    if (!for_room) return;
    longest_ = std::max(longest_.load(), timeout_ms);
    ++waits_;
  }
  /// Waits until the sender has looked at the clock again.
  bool looks_again() {
    const int before = waits_;
    return wait_until([this, before] { return waits_ >= before + 2; }, kPatienceMs);
  }

  std::atomic<int> waits_{0};
  std::atomic<int> longest_{0};
};

TEST_P(SocketSendTime, APeerThatDoesNotReadEndsTheStreamAfterFiveSeconds) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, indirect());
  const int s = socket->s;
  count_waits(s);
  const std::string piece = numbered_bytes(60000);
  std::atomic<OSIORetCode> answer{Success};
  WatchedThread sender([&] {
    while (answer == Success) answer = socket->DataIndication(buffer_of(piece));
  });
  ASSERT_TRUE(wait_until([&] { return waits_ > 0; }, kPatienceMs));
  ASSERT_TRUE(looks_again());
  ASSERT_TRUE(looks_again()) << "the system's buffers are full by now";
  FakeClock::advance(4999);
  ASSERT_TRUE(looks_again());
  EXPECT_FALSE(sender.finished());
  EXPECT_EQ(look_at(socket->state), SSConnected);
  FakeClock::advance(1);
  ASSERT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_EQ(answer, Blocked);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: select() timeout, disconnecting", s)), 1);
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
  EXPECT_LE(longest_, 100) << "it looks at the clock every 100 ms";
}

TEST_P(SocketSendTime, ASystemThatSaysReadyAndHasNoRoomIsWaitedForNoLonger) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, indirect());
  const int s = socket->s;
  std::atomic<int> sends{0};
  calls().send.replace([&sends, s](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
    if (fd != s) return real(fd, bytes, count, flags);
    ++sends;
    errno = EAGAIN;
    return -1;
  });
  std::atomic<OSIORetCode> answer{Success};
  WatchedThread sender([&] { answer = socket->DataIndication(buffer_of("hello")); });
  ASSERT_TRUE(wait_until([&] { return sends >= 3; }, kPatienceMs));
  FakeClock::advance(4999);
  const int before = sends;
  ASSERT_TRUE(wait_until([&] { return sends >= before + 2; }, kPatienceMs));
  EXPECT_FALSE(sender.finished());
  FakeClock::advance(1);
  ASSERT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_EQ(answer, Blocked);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
}

TEST_P(SocketSendTime, RoomThatComesInTimeIsUsed) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, indirect());
  count_waits(socket->s);
  const std::string piece = numbered_bytes(60000);
  std::string expected;
  for (int i = 0; i < 120; ++i) expected += piece;
  std::atomic<int> failed{0};
  WatchedThread sender([&] {
    for (int i = 0; i < 120; ++i) failed += socket->DataIndication(buffer_of(piece)) == Success ? 0 : 1;
  });
  ASSERT_TRUE(wait_until([&] { return waits_ > 0; }, kPatienceMs));
  ASSERT_TRUE(looks_again());
  FakeClock::advance(4000);
  ASSERT_TRUE(looks_again());
  EXPECT_TRUE(peer.receive(expected.size()) == expected);
  ASSERT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_EQ(failed, 0);
}

INSTANTIATE_TEST_SUITE_P(, SocketSendTime,
                         testing::Values(Kind{true, 1000000}, Kind{false, 1000000}, Kind{true, 0xFFFFFC00}),
                         [](const auto& kind) {
                           return std::string(kind.param.indirect ? "Indirect" : "Direct") +
                                  (kind.param.start > 0xF0000000 ? "AcrossTheWrap" : "");
                         });

class SocketTurnTime : public NetworkTest {
 protected:
  void SetUp() override {
    FakeClock::set(1000000);
    NetworkTest::SetUp();
  }
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
};

TEST_F(SocketTurnTime, BehindEarlyDataThatDoesNotMoveASenderWaitsFiveSeconds) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  const int s = socket->s;
  std::atomic<int> sends{0};
  calls().send.replace([&sends, s](auto real, int fd, const void* bytes, size_t count, int flags) -> ssize_t {
    if (fd != s) return real(fd, bytes, count, flags);
    ++sends;
    errno = EAGAIN;
    return -1;
  });
  ASSERT_EQ(socket->DataIndication(buffer_of("first")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_connect());
  std::atomic<OSIORetCode> answer{Success};
  WatchedThread sender([&] { answer = socket->DataIndication(buffer_of("second")); });
  ASSERT_TRUE(sender.blocked());
  FakeClock::advance(4999);
  EXPECT_TRUE(sender.blocked());
  EXPECT_FALSE(sender.finished());
  FakeClock::advance(1);
  ASSERT_TRUE(sender.finished_within(kPatienceMs));
  EXPECT_EQ(answer, Blocked);
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("connect", "disconnect(4,0)"));
  EXPECT_THAT(console.calls(),
              Contains(line("%d AsyncSocket::DataIndication: select() timeout, disconnecting", s)));
}

}  // namespace
