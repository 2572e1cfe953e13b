// One session used by a reader, several senders and its retry at once, as sockets do.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/tls_session.h"

using namespace oskernel_test;

namespace {

/// With the trigger task, which makes the retries.
class TlsThreads : public NetworkTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    initialise_tls();
    SSLInfo::ssl_debug = 0;
    NetworkTest::SetUp();
  }
  void TearDown() override {
    NetworkTest::TearDown();
    SSLInfo::ssl_debug = 1;
  }
  static bool server() { return (GetParam() & 1) != 0; }
  static int version() { return (GetParam() & 2) != 0 ? TLS1_3_VERSION : TLS1_2_VERSION; }
  static TlsEnd::Wish peer() { return server() ? good_client(version()) : good_server(version()); }
};

INSTANTIATE_TEST_SUITE_P(, TlsThreads, testing::Range(0, 4), [](const auto& kind) {
  return std::string((kind.param & 1) != 0 ? "Server" : "Client") +
         ((kind.param & 2) != 0 ? "Tls13" : "Tls12");
});

constexpr int kSenders = 3;
constexpr int kMessages = 50;  // the queue is emptied by one buffer every 10 ms
constexpr std::size_t kHead = 8;

/// "s0:00012" and then filling, `size` bytes.
std::string message(int sender, int number, std::size_t size) {
  char head[16];
  snprintf(head, sizeof head, "s%d:%05d", sender, number);
  return head + std::string(size - kHead, static_cast<char>('a' + sender));
}
constexpr std::size_t kSize = 400;

TEST_P(TlsThreads, ReaderSendersAndRetryDoNotDisturbEachOther) {
  TlsLink link(peer(), {}, Wire::tcp());
  ASSERT_EQ(link.handshake(), 0);
  link.receive();
  int small = 8192;
  ::setsockopt(link.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

  std::atomic<bool> stop{false}, broken{false};
  std::atomic<std::size_t> read{0};
  const std::string to_here = numbered_bytes(300000, 5);
  std::string got_here, got_there;
  std::thread reader([&] {
    while (!stop && got_here.size() < to_here.size()) {
      OSBuf* buf = nullptr;
      if (link.session().Recv(&buf) != 0) broken = true;
      if (buf == nullptr) {
        wait_readable(link.fd(), 5);
        continue;
      }
      got_here.append(reinterpret_cast<const char*>(buf->data), buf->length);
      buf->Free();
      read = got_here.size();
    }
  });
  std::vector<std::thread> senders;
  for (int sender = 0; sender < kSenders; ++sender) {
    senders.emplace_back([&, sender] {
      for (int i = 0; i < kMessages && !stop;) {
        // What is refused has not been sent: the queue is full, and it comes again.
        if (link.send(message(sender, i, kSize)) == Success) {
          ++i;
        } else {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
    });
  }
  std::thread far([&] {
    const std::size_t wanted = static_cast<std::size_t>(kSenders) * kMessages * kSize;
    std::size_t written = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(3 * kPatienceMs);
    while (std::chrono::steady_clock::now() < until && !link.peer().failed() && !link.peer().ended() &&
           (got_there.size() < wanted || written < to_here.size() || !link.peer().held().empty())) {
      if (written < to_here.size() && link.peer().held().size() < 4096) {
        link.peer().write(to_here.substr(written, 700));
        written = std::min(written + 700, to_here.size());
      }
      link.peer().release();
      const std::string piece = link.peer().read_now();
      got_there += piece;
      if (piece.empty())
        wait_for_events(link.peer().fd(),
                        static_cast<short>(POLLIN | (written < to_here.size() ? POLLOUT : 0)), 5);
    }
  });
  far.join();
  for (std::thread& sender : senders) sender.join();
  EXPECT_TRUE(wait_until([&] { return broken || read >= to_here.size(); }, kPatienceMs));
  stop = true;
  reader.join();

  EXPECT_FALSE(broken);
  EXPECT_EQ(got_here, to_here);
  ASSERT_EQ(got_there.size(), static_cast<std::size_t>(kSenders) * kMessages * kSize);
  std::map<char, int> next;
  for (std::size_t at = 0; at < got_there.size(); at += kSize) {
    const int sender = got_there[at + 1] - '0';
    ASSERT_EQ(got_there.substr(at, kSize), message(sender, next[got_there[at + 1]]++, kSize));
  }
}

TEST_P(TlsThreads, TheDestructorWaitsForARetryThatIsRunning) {
  for (int round = 0; round < 20; ++round) {
    TlsLink link(peer());
    ASSERT_EQ(link.handshake(), 0);
    link.receive();
    link.stall();
    std::atomic<bool> stop{false};
    auto* const obj = reinterpret_cast<OSObj*>(&link.session());
    const ULONG generation = link.session().sendqtrigger.value;
    std::thread retries([&] {
      while (!stop) SSLInfo::_SendQTrigger(obj, nullptr, generation);
    });
    if (round % 2 == 0) std::this_thread::yield();
    link.end_session();
    stop = true;
    retries.join();
  }
}

TEST_P(TlsThreads, SessionsBesideEachOtherAreSetUpAndUsedAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 3; ++k) {
        TlsLink link(peer());
        if (link.handshake() != 0) continue;
        if (link.send("hello") == Success && link.peer().read(5) == "hello") ++good;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 12);
}

}  // namespace
