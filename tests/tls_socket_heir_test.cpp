// Sessions that somebody still uses when the socket gives them up: they neither write nor read any more.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "support/thread_states.h"
#include "support/tls_socket.h"

using namespace oskernel_test;

namespace {

using TlsSocketHeir = TlsSocketTest;

/// What is freed inside an indication of its own thread is still in that thread's read.
TEST_F(TlsSocketHeir, OfTheNumberOfADirectSocketThatIsFreedInAnIndicationHearsNothing) {
  SecureClient client(false);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  const int threads = running_threads();
  Wire heir = Wire::local();
  const int number = client.socket->s;
  std::atomic<bool> freed{false};
  client.layer.set_hook([&](const Indication& indication) {
    if (indication.kind != Indication::kData) return;
    client.socket.release()->Free();
    ASSERT_EQ(::dup2(heir.near_end.get(), number), number);
    freed = true;
  });
  client.peer->write("x");
  ASSERT_TRUE(wait_until([&] { return freed.load(); }, kPatienceMs));
  ASSERT_TRUE(wait_until([&] { return console.count("~SSLInfo") == 1; }, kPatienceMs));
  ASSERT_TRUE(wait_until([&] { return console.count("calling SSL_shutdown") == 1; }, kPatienceMs));
  client.peer->read_to_end();
  EXPECT_TRUE(wait_until([&] { return running_threads() < threads; }, kPatienceMs));
  Descriptor inherited(number);
  EXPECT_EQ(bytes_waiting(heir.far_end.get()), 0);
}

/// What comes when a handshake has been stopped is in the clear, also for the thread that waits for the peer.
TEST_F(TlsSocketHeir, OfAHandshakeThatIsStoppedGetsTheFirstByte) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, false);
  put_into(socket->state, static_cast<int>(SSConnected));
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  socket->StartTask();
  ASSERT_TRUE(wait_until([] { return other_threads_sleep(); }, kPatienceMs));
  socket->StopSSL();
  ASSERT_TRUE(peer.send_all("x"));
  EXPECT_TRUE(layer.wait_for_bytes(1, 3000));
}

/// Takes its data on the monitor thread.
class Taker : public AsyncSocket {
 public:
  explicit Taker(std::function<void()> take) : AsyncSocket(true), take_(std::move(take)) {}
  void ProcessData(OSBuf* buf) override {
    if (!armed.exchange(false)) {
      AsyncSocket::ProcessData(buf);
      return;
    }
    buf->Free();
    take_();
  }
  std::atomic<bool> armed{false};

 private:
  std::function<void()> take_;
};

TEST_F(TlsSocketHeir, OfTheConnectionGetsAllOfItsBytesWhenTlsIsStartedAnewWhereDataIsTaken) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    Gate entered, door;
    AsyncSocket* own = nullptr;
    RecordingLayer layer;
    PeerListener listener;
    Owned<Taker> socket(new Taker([&] {
      EXPECT_EQ(own->StartSSL(true, 0, nullptr), -1);
      entered.open();
      door.wait();
    }));
    own = socket.get();
    PeerStream stream = adopt_connection(*socket, layer, listener);
    TlsEnd peer(good_client(version), Descriptor(stream.release()));
    socket->secure = true;
    socket->ConnectAck();
    ASSERT_TRUE(peer.handshake());
    ASSERT_TRUE(layer.wait_for_connect());
    socket->armed = true;
    peer.write("anew");
    ASSERT_TRUE(entered.wait());
    peer.read_to_end(2000);
    EXPECT_TRUE(peer.closed()) << "the session before says goodbye before the next one says anything";
    TlsEnd next(good_client(version), Descriptor(::dup(peer.fd())));
    next.step();
    door.open();
    ASSERT_TRUE(next.handshake(3000));
    EXPECT_TRUE(layer.wait_for_kind(Indication::kConnect, 2));
    next.write("and on");
    EXPECT_TRUE(layer.wait_for_bytes(6));
    EXPECT_EQ(layer.count(Indication::kDisconnect), 0U);
  }
}

}  // namespace
