// Subclasses that take what a session has deciphered: how much of it one turn brings, and what they may do meanwhile.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "support/acts_at_a_line.h"
#include "support/tls_socket.h"

using namespace oskernel_test;

namespace {

/// Takes its data on the monitor thread.
class Taker : public AsyncSocket {
 public:
  /// Gets the bytes and how many buffers there have been.
  using Take = std::function<void(const std::string& bytes, int number)>;

  explicit Taker(Take take) : AsyncSocket(true), take_(std::move(take)) {}

  void ProcessData(OSBuf* buf) override {
    if (buf->data[0] == 0 || now_of(secure_state) != SecSecure || !armed) {
      AsyncSocket::ProcessData(buf);  // what is about the connection, not from it
      return;
    }
    const std::string bytes(reinterpret_cast<const char*>(buf->data), buf->length);
    buf->Free();
    take_(bytes, ++taken);
    most_in_a_turn = std::max(most_in_a_turn.load(), ++in_this_turn_);
  }
  void Poll() override {
    in_this_turn_ = 0;
    ++turns;
    AsyncSocket::Poll();
  }

  std::atomic<bool> armed{false};
  std::atomic<int> taken{0}, turns{0}, most_in_a_turn{0};

 private:
  Take take_;
  int in_this_turn_ = 0;
};

/// A taker as a server, with its peer.
struct Server {
  explicit Server(Taker::Take take, int version = 0) : socket(new Taker(std::move(take))) {
    PeerStream stream = adopt_connection(*socket, layer, listener);
    peer = std::make_unique<TlsEnd>(good_client(version), Descriptor(stream.release()));
    socket->secure = true;
    socket->ConnectAck();
  }
  bool comes_up() {
    const bool up = peer->handshake() && layer.wait_for_connect();
    peer->read_now();
    socket->armed = true;
    return up;
  }
  /// All that the peer has sent is here.
  bool has_arrived() {
    return wait_until([this] { return peer->held().empty() && unsent_bytes(peer->fd()) == 0; }, kPatienceMs);
  }

  RecordingLayer layer;
  PeerListener listener;
  Owned<Taker> socket;
  std::unique_ptr<TlsEnd> peer;
};

class TlsSocketTurns : public TlsSocketTest, public testing::WithParamInterface<int> {
 protected:
  static int version() { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketTurns, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& kind) { return version_name(kind.param); });

TEST_P(TlsSocketTurns, BringAtMost64RecordsEachSoThatNoPeerKeepsTheMonitorThread) {
  constexpr int kRecords = 300;
  Gate entered, door;
  std::atomic<int> wrong{0};
  Server server(
      [&](const std::string& bytes, int number) {
        if (number == 1) {
          entered.open();
          door.wait();
        }
        if (bytes != std::to_string(number)) ++wrong;
      },
      version());
  ASSERT_TRUE(server.comes_up());
  for (int i = 1; i <= kRecords; ++i) {
    server.peer->write(std::to_string(i));
    if (i == 1) {
      ASSERT_TRUE(entered.wait());
    }
  }
  EXPECT_TRUE(server.has_arrived());
  door.open();
  EXPECT_TRUE(wait_until([&] { return server.socket->taken == kRecords; }, kPatienceMs));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(server.socket->most_in_a_turn, 64);
  EXPECT_EQ(server.layer.count(Indication::kDisconnect), 0U);
}

TEST_P(TlsSocketTurns, EndWhenTheReceptionIsStopped) {
  Gate entered, door;
  AsyncSocket* stopped = nullptr;
  Server server(
      [&](const std::string&, int number) {
        if (number != 1) return;
        entered.open();
        door.wait();
        put_into(stopped->running, false);
      },
      version());
  stopped = server.socket.get();
  ASSERT_TRUE(server.comes_up());
  server.peer->write("one");
  ASSERT_TRUE(entered.wait());
  server.peer->write("two");
  EXPECT_TRUE(server.has_arrived());
  door.open();
  ASSERT_TRUE(ComeRound().pass());
  EXPECT_EQ(server.socket->taken, 1);
  EXPECT_EQ(server.layer.count(Indication::kDisconnect), 0U);
}

TEST_P(TlsSocketTurns, EndWhenTheSocketIsClosed) {
  Gate entered, door;
  AsyncSocket* closed = nullptr;
  Server server(
      [&](const std::string&, int number) {
        if (number != 1) return;
        entered.open();
        door.wait();
        closed->Close();
      },
      version());
  closed = server.socket.get();
  ASSERT_TRUE(server.comes_up());
  server.peer->write("one");
  ASSERT_TRUE(entered.wait());
  server.peer->write("two");
  EXPECT_TRUE(server.has_arrived());
  door.open();
  ASSERT_TRUE(ComeRound().pass());
  EXPECT_EQ(server.socket->taken, 1);
  EXPECT_EQ(server.socket->ssl_info, nullptr);
  EXPECT_EQ(server.layer.count(Indication::kDisconnect), 0U);
}

TEST_P(TlsSocketTurns, EndWhenTheSessionIsAnotherOne) {
  Gate entered, door;
  AsyncSocket* own = nullptr;
  std::atomic<int> result{99};
  Server server(
      [&](const std::string&, int number) {
        if (number != 1) return;
        result = own->StartSSL(true, 0, nullptr);
        entered.open();
        door.wait();
      },
      version());
  own = server.socket.get();
  ASSERT_TRUE(server.comes_up());
  server.peer->write("anew");
  ASSERT_TRUE(entered.wait());
  EXPECT_EQ(result, -1);
  server.peer->write("for the one before");
  EXPECT_TRUE(server.has_arrived());
  door.open();
  ASSERT_TRUE(ComeRound().pass());
  EXPECT_EQ(server.socket->taken, 1);
  EXPECT_EQ(server.layer.count(Indication::kData), 0U);
}

// ---- The descriptor that a session has lost ------------------------------------------------------------------

class TlsSocketLost : public TlsSocketTest, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, TlsSocketLost, testing::Bool(), way_name);

TEST_P(TlsSocketLost, ASessionKnowsNoDescriptorOnceTheSocketHasClosedIt) {
  SSLInfo* session = nullptr;
  int seen_then = 99;
  const ActsOnceAtALine acts("AsyncSocket::Close - ssl_info", [&] { seen_then = session->s; });
  SecureClient client(GetParam());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  session = client.socket->ssl_info;
  EXPECT_EQ(session->s, client.socket->s);
  {
    const Tracing tracing;
    client.socket->Close();
  }
  EXPECT_TRUE(acts.has_acted());
  EXPECT_EQ(seen_then, -1);
}

}  // namespace
