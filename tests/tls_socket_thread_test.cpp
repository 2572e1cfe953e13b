// Secure sockets used from many threads at once, and ended meanwhile.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;

namespace {

class TlsSocketThreads : public TlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    TlsSocketTest::SetUp();
    SSLInfo::ssl_debug = 0;
  }
  static bool indirect() { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketThreads, testing::Bool(), way_name);

constexpr std::size_t kSize = 64;
std::string message(int sender, int number) {
  char head[16];
  snprintf(head, sizeof head, "s%d:%05d", sender, number);
  return head + std::string(kSize - 8, '.');
}

TEST_P(TlsSocketThreads, SendersKeepTheirOrderWhileTheSocketComesUp) {
  constexpr int kSenders = 3, kMessages = 60;
  SecureClient client(indirect());
  std::vector<std::thread> senders;
  for (int sender = 0; sender < kSenders; ++sender) {
    senders.emplace_back([&client, sender] {
      for (int i = 0; i < kMessages; ++i)
        EXPECT_EQ(client.socket->DataIndication(buffer_of(message(sender, i))), Success);
    });
  }
  EXPECT_TRUE(client.peer->handshake());
  const std::string got = client.peer->read(kSenders * kMessages * kSize);
  for (std::thread& sender : senders) sender.join();
  ASSERT_EQ(got.size(), kSenders * kMessages * kSize);
  std::map<char, int> next;
  for (std::size_t at = 0; at < got.size(); at += kSize) {
    const char sender = got[at + 1];
    ASSERT_EQ(got.substr(at, kSize), message(sender - '0', next[sender]++));
  }
}

/// Threads that send until they are told to stop, whatever the socket says.
class Senders {
 public:
  Senders(AsyncSocket* socket, int count) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, socket] {
        while (!stop_) {
          // What is given during a handshake is queued without a limit.
          if (OSBuf::PoolSize(3) > 20) socket->DataIndication(buffer_of(std::string(900, 'x')));
          ++sent_;
          std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
      });
    }
  }
  ~Senders() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  /// So many more have been sent.
  bool go_on(long count = 20) {
    const long wanted = sent_ + count;
    return wait_until([this, wanted] { return sent_ >= wanted; }, kPatienceMs);
  }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<long> sent_{0};
  std::vector<std::thread> threads_;
};

TEST_P(TlsSocketThreads, CloseWhileOthersSendAndARetryRuns) {
  for (int round = 0; round < 4; ++round) {
    SecureClient client(indirect());
    ASSERT_TRUE(client.comes_up());
    int small = 4096;
    ::setsockopt(client.socket->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    {
      Senders senders(client.socket.get(), 2);
      ASSERT_TRUE(senders.go_on());
      if (round % 2 == 0) {
        client.peer->read_now();
        ASSERT_TRUE(senders.go_on());
      }
      client.socket->Close();
      ASSERT_TRUE(senders.go_on());
    }
    EXPECT_EQ(client.socket->ssl_info, nullptr);
  }
}

TEST_P(TlsSocketThreads, StartedAnewWhileOthersSend) {
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  Senders senders(client.socket.get(), 2);
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(senders.go_on(5));
    client.socket->StartSSL(false, 0, nullptr);
  }
  ASSERT_TRUE(senders.go_on());
  client.socket->StopSSL();
  ASSERT_TRUE(senders.go_on());
}

TEST_P(TlsSocketThreads, ClosedAndConnectedAnewWhileOthersSend) {
  SecureClient client(indirect());
  Senders senders(client.socket.get(), 2);
  for (int i = 0; i < 4; ++i) {
    client.peer->handshake(200);
    ASSERT_TRUE(senders.go_on(10));
    client.socket->Close();
    ASSERT_EQ(client.socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    client.socket->Connect(INADDR_LOOPBACK, client.listener.port());
    client.peer = std::make_unique<TlsEnd>(good_server(), Descriptor(client.listener.accept().release()));
  }
}

TEST_P(TlsSocketThreads, ManyConnectionsAtOnceDoNotDisturbEachOther) {
  constexpr int kMany = 8;
  RecordingLayer layers[kMany];
  Acceptor acceptor;
  OwnedSocket listener = indirect_socket();
  listener->secure = true;
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  std::vector<std::thread> peers;
  std::atomic<int> good{0};
  for (int i = 0; i < kMany; ++i) {
    peers.emplace_back([&, i] {
      PeerStream stream = PeerStream::connect_to(listener->LocalPort());
      TlsEnd peer(good_client(i % 2 == 0 ? TLS1_2_VERSION : TLS1_3_VERSION), Descriptor(stream.release()));
      if (!peer.handshake()) return;
      const std::string bytes = numbered_bytes(6000, static_cast<unsigned>(i));
      peer.write(bytes);
      if (peer.read(bytes.size()) == bytes) ++good;
    });
  }
  std::vector<OwnedSocket> sockets;
  for (RecordingLayer& layer : layers) {
    sockets.push_back(acceptor.take());
    AsyncSocket* const socket = sockets.back().get();
    ASSERT_NE(socket, nullptr);
    layer.set_hook([socket](const Indication& indication) {
      if (indication.kind == Indication::kData) socket->DataIndication(buffer_of(indication.data));
    });
    socket->Bind(&layer);
    socket->ConnectAck();
  }
  for (std::thread& peer : peers) peer.join();
  EXPECT_EQ(good, kMany);
  for (OwnedSocket& socket : sockets) socket.reset();
}

}  // namespace
