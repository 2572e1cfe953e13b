// The networking layer as a whole: who starts it, what stopping it leaves, that it starts again, and that a program
// may end while it runs.

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "network/asocket.h"
#include "support/socket_watch.h"
#include "support/tpkt_packets.h"
#include "support/watched_thread.h"

// ---- Threads that the system refuses -------------------------------------------------------------------------------

namespace {
std::atomic<int> refused_threads{0};  ///< so many threads are not started
/// The next thread that is started waits in front of it; called once.
std::atomic<void (*)()> before_next_thread{nullptr};
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) noexcept {
  using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pthread_create"));
  if (auto* const wait = before_next_thread.exchange(nullptr)) wait();
  if (refused_threads > 0) {
    --refused_threads;
    return EPERM;
  }
  return next(thread, attributes, start, argument);
}

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kLayerThreads = 2;  // the monitor thread and the resolver's

class SocketLayer : public NetworkTest {
 protected:
  void TearDown() override {
    refused_threads = 0;
    NetworkTest::TearDown();
  }
};

/// What a layer that does not run looks like.
void expect_stopped() {
  EXPECT_FALSE(now_of(AsyncSocket::AsyncInitDone));
  EXPECT_EQ(AsyncSocket::monitor_thread, 0u);
  EXPECT_EQ(now_of(AsyncSocket::sigfd), -1);
  EXPECT_EQ(now_of(AsyncSocket::sigpipefd), -1);
  EXPECT_EQ(AsyncSocket::cs.sem, nullptr);
  EXPECT_EQ(now_of(DNSEntry::csinit), 0);
  EXPECT_EQ(DNSEntry::thread, 0u);
}

void expect_running() {
  EXPECT_TRUE(now_of(AsyncSocket::AsyncInitDone));
  EXPECT_NE(AsyncSocket::monitor_thread, 0u);
  EXPECT_FALSE(now_of(AsyncSocket::monitor_stop));
  EXPECT_NE(AsyncSocket::cs.sem, nullptr);
  EXPECT_NE(AsyncSocket::sockets, nullptr);
  EXPECT_NE(AsyncSocket::dnstrigger, nullptr);
  EXPECT_EQ(now_of(DNSEntry::csinit), 1);
  EXPECT_NE(DNSEntry::thread, 0u);
  // The monitor thread makes its pipe itself.
  EXPECT_TRUE(wait_until([] { return now_of(AsyncSocket::sigpipefd) != -1; }, kPatienceMs));
}

/// Data goes both ways over the monitor thread and the dispatcher.
void expect_service() {
  PeerListener listener;
  RecordingLayer layer;
  const OwnedSocket socket = indirect_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(peer.send_all("hello"));
  ASSERT_TRUE(layer.wait_for_bytes(5));
  EXPECT_EQ(layer.story(), (std::vector<std::string>{"connect", "data:hello"}));
  EXPECT_EQ(socket->DataIndication(buffer_of("hello back")), Success);
  EXPECT_EQ(peer.receive(10), "hello back");
}

// ---- Starting ------------------------------------------------------------------------------------------------------

TEST_F(SocketLayer, IsNotThereBeforeTheFirstSocket) {
  IN_FRESH_PROCESS({
    expect_stopped();
    EXPECT_TRUE(AsyncSocket::monitor_stop);
    EXPECT_EQ(AsyncSocket::trace, 0);
    AsyncSocket::WakeMonitorThread();  // there is nobody to wake
    AsyncSocket::Cleanup();            // nor to stop
    expect_stopped();
  });
}

TEST_F(SocketLayer, TheFirstSocketStartsItAndTheOthersFindIt) {
  const int threads = running_threads();
  const OwnedSocket first = indirect_socket();
  expect_running();
  EXPECT_TRUE(wait_until([&] { return running_threads() == threads + kLayerThreads; }, kPatienceMs));
  const pthread_t monitor = AsyncSocket::monitor_thread;
  const OwnedSocket second = direct_socket();
  EXPECT_EQ(AsyncSocket::Init(), TRUE);
  EXPECT_EQ(AsyncSocket::Init(), TRUE);
  EXPECT_EQ(AsyncSocket::monitor_thread, monitor);
  EXPECT_EQ(running_threads(), threads + kLayerThreads);
  EXPECT_THAT(live_sockets(), ElementsAre(first.get(), second.get())) << "in order of construction";
}

TEST_F(SocketLayer, StartsWithoutASocketToo) {
  EXPECT_EQ(AsyncSocket::Init(), TRUE);
  expect_running();
  EXPECT_THAT(live_sockets(), IsEmpty());
  expect_service();
}

TEST_F(SocketLayer, TheWakeUpPipeNeverBlocksAndIsNotInherited) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_TRUE(wait_until([] { return now_of(AsyncSocket::sigpipefd) != -1; }, kPatienceMs));
  for (const int fd : {now_of(AsyncSocket::sigfd), now_of(AsyncSocket::sigpipefd)}) {
    EXPECT_TRUE(wait_until([fd] { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }, kPatienceMs));
    EXPECT_TRUE(wait_until([fd] { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }, kPatienceMs));
  }
  // More wake-ups than the pipe holds, while nobody takes them out.
  EnterCriticalSection(&AsyncSocket::cs);
  for (int i = 0; i < 200000; ++i) AsyncSocket::WakeMonitorThread();
  LeaveCriticalSection(&AsyncSocket::cs);
  expect_service();
}

TEST_F(SocketLayer, ThreadsThatMakeTheFirstSocketsAtOnceStartItOnce) {
  constexpr int kThreads = 6;
  const int threads = running_threads();
  for (int round = 0; round < 15; ++round) {
    OwnedSocket sockets[kThreads];
    std::atomic<int> ready{0};
    std::atomic<int> initialised{0};
    {
      std::vector<std::unique_ptr<WatchedThread>> first;
      for (int i = 0; i < kThreads; ++i) {
        first.push_back(std::make_unique<WatchedThread>([&, i] {
          ++ready;
          while (ready < kThreads) std::this_thread::yield();
          sockets[i].reset(new AsyncSocket(i % 2 == 0));
          initialised += now_of(AsyncSocket::AsyncInitDone) ? 1 : 0;
        }));
      }
    }
    EXPECT_EQ(initialised, kThreads);
    EXPECT_EQ(live_sockets().size(), static_cast<std::size_t>(kThreads));
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads + kLayerThreads; }, kPatienceMs))
        << running_threads() - threads << " threads";
    expect_running();
    for (OwnedSocket& socket : sockets) socket.reset();
    AsyncSocket::Cleanup();
    expect_stopped();
  }
}

TEST_F(SocketLayer, ASecondThreadWaitsUntilTheFirstHasStartedIt) {
  static Gate starting, door;
  OwnedSocket sockets[2];
  WatchedThread first([&] {
    before_next_thread = [] {
      starting.open();
      door.wait(60000);
    };
    sockets[0] = indirect_socket();
  });
  ASSERT_TRUE(starting.wait());
  WatchedThread second([&] {
    EXPECT_EQ(AsyncSocket::Init(), TRUE);
    expect_running();
    sockets[1] = indirect_socket();
  });
  EXPECT_TRUE(second.blocked());
  door.open();
  EXPECT_TRUE(first.finished_within(kPatienceMs));
  EXPECT_TRUE(second.finished_within(kPatienceMs));
}

// ---- Stopping ------------------------------------------------------------------------------------------------------

TEST_F(SocketLayer, StoppingLeavesNoThreadAndNoDescriptor) {
  const int threads = running_threads();
  const int descriptors = open_descriptors();
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    expect_service();
    AsyncSocket::Cleanup();
    expect_stopped();
    AsyncSocket::Cleanup();
    expect_stopped();
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads; }, kPatienceMs));
    EXPECT_EQ(open_descriptors(), descriptors);
  }
}

TEST_F(SocketLayer, TracesItsThread) {
  const int threads = running_threads();
  {
    const Tracing tracing;
    OwnedSocket socket = indirect_socket();
    ASSERT_TRUE(
        wait_until([&] { return printed(console, "AsyncSocket::MonitorThread - started"); }, kPatienceMs));
    ASSERT_TRUE(wait_until([] { return now_of(AsyncSocket::sigpipefd) != -1; }, kPatienceMs));
    AsyncSocket::WakeMonitorThread();
    EXPECT_TRUE(wait_until(
        [&] { return printed(console, "AsyncSocket::MonitorThread - select woken by signal pipe"); },
        kPatienceMs));
    socket.reset();
    AsyncSocket::Cleanup();
  }
  EXPECT_EQ(lines_with(console, "MonitorThread - exiting"),
            std::vector<std::string>{"AsyncSocket::MonitorThread - exiting"});
  EXPECT_TRUE(wait_until([&] { return running_threads() == threads; }, kPatienceMs));
}

TEST_F(SocketLayer, ForgetsTheSocketsWithoutDeletingThem) {
  PeerListener listener;
  RecordingLayer layer;
  AsyncSocket* connected = new AsyncSocket(true);
  PeerStream peer = connect_to_peer(*connected, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  AsyncSocket::Cleanup();
  ASSERT_TRUE(peer.send_all("unheard"));
  EXPECT_TRUE(now_of(connected->s) >= 0) << "the object and its descriptor stay the program's";
  EXPECT_EQ(connected->DataIndication(buffer_of("still sends")), Success);
  EXPECT_EQ(peer.receive(11), "still sends");
  connected->Free();
  EXPECT_TRUE(peer.ended());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
}

TEST_F(SocketLayer, SocketsOfAnEarlierRunAreFreedInALaterOne) {
  IN_FRESH_PROCESS({
    alarm(60);
    PeerListener listener;
    RecordingLayer layer;
    AsyncSocket* connected = new AsyncSocket(true);
    AsyncSocket* fresh = new AsyncSocket(true);
    AsyncSocket* direct = new AsyncSocket(false);
    PeerStream peer = connect_to_peer(*connected, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    AsyncSocket::Cleanup();
    const OwnedSocket later = indirect_socket();
    EXPECT_THAT(live_sockets(), ElementsAre(later.get()));
    connected->Free();
    fresh->Free();
    direct->Free();
    EXPECT_TRUE(peer.ended());
    EXPECT_THAT(live_sockets(), ElementsAre(later.get()));
    expect_service();
  });
}

// ---- Without the monitor thread ------------------------------------------------------------------------------------

TEST_F(SocketLayer, SocketsAreFreedThoughTheSystemRefusedTheMonitorThread) {
  refused_threads = 1;
  AsyncSocket* socket = new AsyncSocket(true);
  EXPECT_TRUE(now_of(AsyncSocket::AsyncInitDone));
  EXPECT_EQ(AsyncSocket::monitor_thread, 0u);
  EXPECT_EQ(refused_threads, 0);
  EXPECT_TRUE(printed(console, text_of("AsyncSocket::Init - monitor thread failed, errno %d", EPERM)));
  EXPECT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  AsyncSocket::WakeMonitorThread();
  socket->Free();
  EXPECT_THAT(live_sockets(), IsEmpty());
  AsyncSocket::Cleanup();
  expect_stopped();
  expect_service();  // the next start has its thread
}

// ---- Stop and start ------------------------------------------------------------------------------------------------

/// Connections of every kind, and peers that talk on all of them without end.
class Traffic {
 public:
  Traffic() {
    for (int i = 0; i < 2; ++i) {
      add(new AsyncSocket(true));
      add(new TPKTSocket);
      add(new AsyncSocket(false));
    }
    acceptor_.listen_with(*listening_);
    caller_ = PeerStream::connect_to(listening_->LocalPort());
    accepted_ = acceptor_.take();
    if (accepted_ != nullptr) {
      accepted_->Bind(&accepted_layer_);
      accepted_->ConnectAck();
    }
    for (std::unique_ptr<End>& end : ends_) end->talk();
  }
  /// All of them have received something since it was asked last.
  [[nodiscard]] bool flows() {
    for (const std::unique_ptr<End>& end : ends_) {
      if (!end->layer.wait_for_bytes(end->heard + 2000)) return false;
      end->heard = end->layer.data().size();
    }
    return caller_.send_all("x") && accepted_layer_.wait_for_bytes(++accepted_bytes_);
  }
  /// Direct sockets have threads of their own, which a stop of the layer does not end.
  void free_direct() {
    for (const std::unique_ptr<End>& end : ends_) {
      if (!end->socket->indirect_socket) end->socket.reset();
    }
  }

 private:
  struct End {
    RecordingLayer layer;
    OwnedSocket socket;
    PeerStream peer;
    std::size_t heard = 0;
    bool packets = false;
    std::unique_ptr<WatchedThread> talking;

    ~End() {
      socket.reset();
      talking.reset();
    }
    void talk() {
      talking = std::make_unique<WatchedThread>([this] {
        const std::string bytes = packets ? tpkt(std::string(200, 't')) : std::string(200, 't');
        while (peer.send_all(bytes)) std::this_thread::yield();
      });
    }
  };
  void add(AsyncSocket* socket) {
    ends_.push_back(std::make_unique<End>());
    End& end = *ends_.back();
    end.packets = dynamic_cast<TPKTSocket*>(socket) != nullptr;
    end.socket.reset(socket);
    end.peer = connect_to_peer(*socket, end.layer, listener_);
  }

  PeerListener listener_;
  std::vector<std::unique_ptr<End>> ends_;
  Acceptor acceptor_;
  OwnedSocket listening_ = indirect_socket();
  PeerStream caller_;
  RecordingLayer accepted_layer_;
  OwnedSocket accepted_;
  std::size_t accepted_bytes_ = 0;
};

TEST_F(SocketLayer, StopsAndStartsWhileTrafficFlowsWithoutGrowing) {
  // Blocks that threads keep for themselves count as used, and they keep more of them with every run.
  setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
  IN_FRESH_PROCESS({
    const int threads = running_threads();
    const int descriptors = open_descriptors();
    const PoolState pools = PoolState::now();
    std::size_t heap_bytes_after_warm_up = 0;
    for (int round = 0; round < 10; ++round) {
      SCOPED_TRACE(round);
      {
        Traffic traffic;
        ASSERT_TRUE(traffic.flows());
        traffic.free_direct();
        AsyncSocket::Cleanup();
        expect_stopped();
      }
      EXPECT_TRUE(wait_until([&] { return running_threads() == threads; }, kPatienceMs)) << running_threads();
      EXPECT_TRUE(wait_until([&] { return open_descriptors() == descriptors; }, kPatienceMs))
          << open_descriptors();
      EXPECT_TRUE(wait_until([&] { return PoolState::now().buffers_out == pools.buffers_out; }, kPatienceMs));
      EXPECT_TRUE(wait_until([&] { return PoolState::now().callbacks == pools.callbacks; }, kPatienceMs));
      malloc_trim(0);
      const std::size_t heap_bytes = mallinfo2().uordblks;
      if (round == 2) heap_bytes_after_warm_up = heap_bytes;
      EXPECT_TRUE(round <= 2 || heap_bytes <= heap_bytes_after_warm_up + 16 * 1024)
          << heap_bytes << " bytes on the heap, they were " << heap_bytes_after_warm_up;
    }
  });
  unsetenv("GLIBC_TUNABLES");
}

TEST_F(SocketLayer, StopsAndStartsWithTheKernel) {
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    expect_service();
    StopNetwork();
    StartNetwork();
  }
  expect_service();
}

TEST_F(SocketLayer, AConnectionSurvivesNothingButItsSocketCanBeUsedInTheNextRun) {
  PeerListener listener;
  for (int round = 0; round < 3; ++round) {
    RecordingLayer layer;
    const OwnedSocket socket = indirect_socket();
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    WatchedThread talking([&] {
      while (peer.send_all(std::string(500, 'x'))) {
      }
    });
    ASSERT_TRUE(layer.wait_for_bytes(5000));
    AsyncSocket::Cleanup();
    socket->Close();
    EXPECT_TRUE(talking.finished_within(kPatienceMs));
    EXPECT_EQ(state_of(*socket), SSInitial);
    EXPECT_EQ(queued(*socket), 0);
  }
}

// ---- The end of the program ----------------------------------------------------------------------------------------

TEST_F(SocketLayer, AProgramMayEndWhileItRuns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        alarm(60);
        // Never destroyed: the program just ends.
        static Traffic& traffic = *new Traffic;
        if (!traffic.flows()) _exit(98);
        std::exit(7);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace oskernel_test
