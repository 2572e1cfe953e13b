// Blocking sockets from several threads: each socket is one thread's, the registry is everybody's.

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/blocking_fixture.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::IsEmpty;

class BlockingSocketThreads : public BlockingTest {};

TEST_F(BlockingSocketThreads, SocketsComeAndGoOnManyThreads) {
  constexpr int kThreads = 6, kRounds = 40;
  std::atomic<int> good{0};
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<WatchedThread>([t, &good] {
        for (int i = 0; i < kRounds; ++i) {
          Socket::Init(t % 2 == 0 ? kLoopback : 0);
          // Of datagram sockets that reuse addresses the system gives two the same port now and then.
          const ULONG addr = 0x7F000100 + static_cast<ULONG>(2 * t);
          Socket first(Socket::UDP, 0, false, addr);
          Socket second(Socket::UDP, 0, false, addr + 1);
          second.SendTo(buffer_of("x"), addr, first.LocalPort());
          if (taken(first.RecWait(kPatienceMs)) == "x") ++good;
          EXPECT_FALSE(registered_sockets().empty());
        }
      }));
    }
  }
  EXPECT_EQ(good, kThreads * kRounds);
  EXPECT_THAT(registered_sockets(), IsEmpty());
}

TEST_F(BlockingSocketThreads, AServerAndItsClientsTalkOnTheirThreads) {
  constexpr int kClients = 4, kMessages = 25;
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  const UWORD port = listener.LocalPort();
  std::atomic<int> answered{0};
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int c = 0; c < kClients; ++c) {
      threads.push_back(std::make_unique<WatchedThread>([c, port, &answered] {
        std::string host = "127.0.0.1";
        Socket client(Socket::TCP_CLIENT, host.data(), port);
        EXPECT_EQ(client.state, Socket::CONNECTED);
        for (int i = 0; i < kMessages; ++i) {
          const std::string text = line("client %d message %3d", c, i);
          client.Queue(buffer_of(text));
          client.FlushQueue(false);
          std::string back(text.size(), '\0');
          if (client.RecWait(reinterpret_cast<UBYTE*>(back.data()), static_cast<int>(back.size())) == 0 &&
              back == text) {
            ++answered;
          }
        }
      }));
    }
    for (int c = 0; c < kClients; ++c) {
      std::shared_ptr<Socket> accepted(listener.Accept());
      ASSERT_NE(accepted, nullptr);
      threads.push_back(std::make_unique<WatchedThread>([accepted] {
        while (OSBuf* const buf = accepted->RecWait(kPatienceMs)) accepted->DataIndication(buf);
        EXPECT_EQ(accepted->state, Socket::INVALID);
      }));
    }
  }
  EXPECT_EQ(answered, kClients * kMessages);
  EXPECT_THAT(lines_of(console), IsEmpty());
}

TEST_F(BlockingSocketThreads, TheKernelStopsAndStartsAgainBetweenSockets) {
  for (int round = 0; round < 3; ++round) {
    {
      Wrapped<> wrapped;
      wrapped->Queue(buffer_of("queued"));
      wrapped.peer.send_all("hello");
      EXPECT_EQ(taken(wrapped->RecWait(kPatienceMs)), "hello");
      wrapped->FlushQueue(false);
      EXPECT_EQ(wrapped.peer.receive(6), "queued");
      wrapped.peer.close();
    }
    StopNetwork();
    StartNetwork();
    EXPECT_EQ(Socket::Init(0), TRUE);
  }
}

TEST_F(BlockingSocketThreads, ASocketThatOutlivesTheKernelClosesCleanly) {
  WirePair wire;
  sockaddr_in remote = loopback_address(wire.peer.local_port());
  auto socket =
      std::make_unique<Socket>(Socket::TCP_SERVER, wire.fd, &remote, static_cast<int>(sizeof remote));
  Stop();
  wire.peer.close();
  socket.reset();
  Start();
}

/// One that is there before main and goes behind it: the registry outlives it.
TEST(BlockingSocketAtTheEnd, AGlobalSocketGoesBehindMain) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static RecordingConsole console;
        static KernelCfg cfg;
        cfg.trigger_stack = 0;
        Console = &console;
        os_startup(nullptr, 0, &cfg);
        static Socket socket(Socket::UDP, 0, false, kLoopback);
        if (socket.state != Socket::READY) std::_Exit(1);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace oskernel_test
