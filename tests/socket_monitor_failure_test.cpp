// The monitor thread's own troubles: a wait that fails, a pipe that cannot be made, and its texts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/interposed_calls.h"
#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// What was last written into the wake-up pipe: one byte, or 1000 and more for another number of them.
std::atomic<int> wake_up_written{-1};
std::atomic<int> wake_ups_written{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t write(int fd, const void* bytes, size_t count) {
  static const auto real = reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(dlsym(RTLD_NEXT, "write"));
  if (fd >= 0 && fd == std::atomic_ref<int>(AsyncSocket::sigpipefd).load()) {
    ++wake_ups_written;
    wake_up_written = count == 1 ? *static_cast<const unsigned char*>(bytes) : 1000 + static_cast<int>(count);
  }
  return real(fd, bytes, count);
}

namespace {

class SocketMonitorThread : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  /// Lets the monitor thread's next waits fail.
  void fail_waits(int error, int times) {
    left_ = times;
    calls().select.replace([this, error](auto real, int count, fd_set* reads, fd_set* writes, fd_set* excepts,
                                         timeval* timeout) {
      if (pthread_equal(pthread_self(), std::atomic_ref<pthread_t>(AsyncSocket::monitor_thread).load()) &&
          left_.fetch_sub(1) > 0) {
        errno = error;
        return -1;
      }
      return real(count, reads, writes, excepts, timeout);
    });
  }

  std::atomic<int> left_{0};
};

TEST_F(SocketMonitorThread, AFailedWaitIsPrintedAndTheServiceGoesOn) {
  for (const int error : {EINVAL, ENOMEM}) {
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = established_stream(&layer, &peer);
    fail_waits(error, 3);
    AsyncSocket::WakeMonitorThread();
    const std::string text = line("AsyncSocket::MonitorThread - select error %d", error);
    ASSERT_TRUE(wait_until([&] { return left_ <= 0; }, kPatienceMs));
    ASSERT_TRUE(peer.send_all("still there"));
    ASSERT_TRUE(layer.wait_for_bytes(11));
    EXPECT_EQ(console.count(text), 3);
    calls().select.restore();
  }
}

TEST_F(SocketMonitorThread, ADescriptorThatIsGoneMeanwhileIsNoNews) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  fail_waits(EBADF, 3);
  AsyncSocket::WakeMonitorThread();
  ASSERT_TRUE(wait_until([&] { return left_ <= 0; }, kPatienceMs));
  ASSERT_TRUE(peer.send_all("still there"));
  ASSERT_TRUE(layer.wait_for_bytes(11));
  EXPECT_EQ(console.count("select error"), 0);
}

TEST_F(SocketMonitorThread, LooksAtAllSocketsWhenAProgramThatHasChangedOneWakesIt) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  MonitorBeat monitor;
  put_into(socket->running, false);
  AsyncSocket::WakeMonitorThread();
  ASSERT_TRUE(monitor.passes());
  ASSERT_TRUE(peer.send_all("later"));
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(layer.count(), 0U);
  put_into(socket->running, true);
  AsyncSocket::WakeMonitorThread();
  ASSERT_TRUE(layer.wait_for_bytes(5));
}

TEST_F(SocketMonitorThread, SaysWhatItDoesWhenTraced) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const void* const address = socket.get();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  AsyncSocket::WakeMonitorThread();
  ASSERT_TRUE(wait_until(
      [&] { return console.count("AsyncSocket::MonitorThread - select woken by signal pipe") > 0; },
      kPatienceMs));
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(console.count(line("%d AsyncSocket::MonitorThread - read, calling Poll, running 1", socket->s)),
            1);
  socket.reset();
  EXPECT_EQ(console.count(line("AsyncSocket::MonitorThread - delayed deletion of %p", address)), 1);
  EXPECT_EQ(console.count("AsyncSocket::MonitorThread - exiting"), 0);
  AsyncSocket::Cleanup();
  EXPECT_EQ(console.count("AsyncSocket::MonitorThread - started"), 1);
  EXPECT_EQ(console.count("AsyncSocket::MonitorThread - exiting"), 1);
}

TEST_F(SocketMonitorThread, AnUrgentByteHasTextsOfItsOwn) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const int s = socket->s;
  ASSERT_TRUE(peer.send_urgent('!'));
  EXPECT_TRUE(wait_until(
      [&] {
        return console.count(line("%d AsyncSocket::MonitorThread - except, calling Poll, running 1", s)) > 0;
      },
      kPatienceMs));
  EXPECT_TRUE(wait_until(
      [&] {
        const std::string text = console.text();
        return text.find(line("%d AsyncSocket::Poll select() errno=", s)) != std::string::npos &&
               text.find(line("(exception) for 127.0.0.1:%u on 127.0.0.1:%u", peer.local_port(),
                              socket->LocalPort())) != std::string::npos;
      },
      kPatienceMs));
  EXPECT_EQ(layer.count(), 0U);
}

TEST_F(SocketMonitorThread, OneWakeUpServesManyBytesInThePipe) {
  OwnedSocket socket = indirect_socket();
  // More than the pipe holds: writing never waits.
  for (int i = 0; i < 100000; ++i) AsyncSocket::WakeMonitorThread();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  ASSERT_TRUE(wait_until([] { return bytes_waiting(AsyncSocket::sigfd) == 0; }, kPatienceMs));
  // Bytes that a program writes itself, in whole pieces of 100 and not.
  for (const std::size_t count : {1U, 99U, 100U, 101U, 200U, 1234U}) {
    const std::string bytes(count, '\0');
    ASSERT_EQ(write(look_at(AsyncSocket::sigpipefd), bytes.data(), count), static_cast<ssize_t>(count));
    ASSERT_TRUE(wait_until([] { return bytes_waiting(AsyncSocket::sigfd) == 0; }, kPatienceMs)) << count;
  }
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
}

TEST_F(SocketMonitorThread, IsWokenByOneByteOfZero) {
  OwnedSocket socket = indirect_socket();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  wake_up_written = -1;
  AsyncSocket::WakeMonitorThread();
  ASSERT_TRUE(wait_until([] { return wake_up_written != -1; }, kPatienceMs));
  EXPECT_EQ(wake_up_written, 0);
}

TEST_F(SocketMonitorThread, WakeUpsThatItHasYetToComeToAreOneByte) {
  OwnedSocket socket = indirect_socket();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EnterCriticalSection(&AsyncSocket::cs);
  wake_ups_written = 0;
  for (int i = 0; i < 1000; ++i) AsyncSocket::WakeMonitorThread();
  // It may have taken one or two before it stands at its section.
  EXPECT_LE(wake_ups_written, 3);
  LeaveCriticalSection(&AsyncSocket::cs);
  ASSERT_TRUE(monitor.passes());
}

/// Keeps the monitor thread inside the first datagram that it reads.
class HeldReader : public AsyncSocket {
 public:
  HeldReader() : AsyncSocket(true) {}
  void ProcessData(OSBuf* buf) override {
    buf->Free();
    inside.open();
    door.wait();
  }
  Gate inside, door;
};

TEST_F(SocketMonitorThread, AWakeUpThatAnEarlierOneLeftIsNotTakenForItsOwn) {
  {
    PeerUdp peer;
    const Owned<HeldReader> socket(new HeldReader);
    ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), "x"));
    ASSERT_TRUE(socket->inside.wait());
    wake_up_written = -1;
    WatchedThread stopping([] { AsyncSocket::Cleanup(); });
    // The thread ends without coming to the pipe again.
    ASSERT_TRUE(wait_until([] { return wake_up_written != -1; }, kPatienceMs));
    socket->door.open();
    ASSERT_TRUE(stopping.finished_within(kPatienceMs));
  }
  for (int i = 0; i < 2; ++i) {
    MonitorBeat monitor;
    ASSERT_TRUE(monitor.passes()) << i;
  }
}

TEST_F(SocketMonitorThread, ThePipeIsNonBlockingAndClosedOnExec) {
  OwnedSocket socket = indirect_socket();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  for (const int fd : {AsyncSocket::sigfd, std::atomic_ref<int>(AsyncSocket::sigpipefd).load()}) {
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  }
}

TEST_F(SocketMonitorThread, ItsOtherDescriptorIsClosedOnExecToo) {
  std::atomic<int> given{-1};
  calls().epoll_create1.replace([&given](auto real, int flags) {
    given = flags;
    return real(flags);
  });
  OwnedSocket socket = indirect_socket();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(given, EPOLL_CLOEXEC);
}

TEST_F(SocketMonitorThread, WithoutADescriptorForItsWaitsItTriesAgain) {
  std::atomic<int> failures{0};
  std::atomic<bool> fails{true};
  calls().epoll_create1.replace([&](auto real, int flags) {
    if (!fails) return real(flags);
    ++failures;
    errno = EMFILE;
    return -1;
  });
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "patient"));
  ASSERT_TRUE(wait_until([&] { return failures >= 2; }, kPatienceMs));
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  EXPECT_GE(console.count("AsyncSocket::MonitorThread - select error 24"), 2);
  fails = false;
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:patient"));
}

TEST_F(SocketMonitorThread, WaitsWhenThereIsNothingToDo) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket stream = established_stream(&layer, &peer);
  OwnedSocket datagram = datagram_socket(&layer);
  OwnedSocket bare = indirect_socket();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
}

TEST_F(SocketMonitorThread, APassIsNotMadeForASocketWithoutReception) {
  // Adopted but not acknowledged, its peer gone: there is something to read for ever, and nobody looks.
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("unread"));
  peer.close();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  EXPECT_EQ(layer.count(), 0U);
}

TEST_F(SocketMonitorThread, WithoutAPipeItIsStoppedAllTheSame) {
  const auto fail = [](int*, auto...) {
    errno = EMFILE;
    return -1;
  };
  calls().pipe.replace([fail](auto, int* fds) { return fail(fds); });
  calls().pipe2.replace([fail](auto, int* fds, int) { return fail(fds); });
  {
    OwnedSocket socket = indirect_socket();
    EXPECT_TRUE(wait_until(
        [this] { return console.count("AsyncSocket::MonitorThread - pipe failed (errno 24)") == 1; },
        kPatienceMs));
    EXPECT_EQ(look_at(AsyncSocket::sigfd), -1);
    EXPECT_EQ(look_at(AsyncSocket::sigpipefd), -1);
    AsyncSocket::WakeMonitorThread();
    WatchedThread freeing([&] { socket.reset(); });
    EXPECT_TRUE(freeing.finished_within(kPatienceMs));
  }
  WatchedThread stopping([] { AsyncSocket::Cleanup(); });
  EXPECT_TRUE(stopping.finished_within(kPatienceMs));
}

TEST_F(SocketMonitorThread, WithoutAPipeItServesWhatBecomesReady) {
  calls().pipe.replace([](auto, int*) {
    errno = EMFILE;
    return -1;
  });
  calls().pipe2.replace([](auto, int*, int) {
    errno = EMFILE;
    return -1;
  });
  RecordingLayer layer;
  PeerUdp peer;
  OwnedSocket socket = datagram_socket(&layer);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "one"));
  ASSERT_TRUE(layer.wait_for(1));
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "two"));
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_THAT(layer.story(), ElementsAre("datagram:one", "datagram:two"));
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread)) << "it looks by itself, ten times a second";
}

TEST_F(SocketMonitorThread, SocketsComeAndGoWhileOthersHaveTraffic) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  std::atomic<bool> stop{false};
  std::vector<std::thread> churners;
  for (int i = 0; i < 3; ++i) {
    churners.emplace_back([&stop] {
      while (!stop) {
        RecordingLayer own_layer;
        PeerStream own_peer;
        OwnedSocket own = established_stream(&own_layer, &own_peer);
        if (!own_peer.send_all("hello")) break;
        if (!own_layer.wait_for_bytes(5)) ADD_FAILURE() << "a short-lived connection hears nothing";
      }
    });
  }
  const std::string sent = numbered_bytes(200000);
  for (std::size_t at = 0; at < sent.size(); at += 1000) {
    EXPECT_TRUE(peer.send_all(std::string_view(sent).substr(at, 1000)));
    EXPECT_TRUE(layer.wait_for_bytes(at + 1000));
  }
  stop = true;
  for (std::thread& churner : churners) churner.join();
  EXPECT_TRUE(layer.data() == sent);
}

}  // namespace
