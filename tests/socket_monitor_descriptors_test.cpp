// Descriptors above 1023: everything works with any number.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <string>
#include <vector>

#include "support/launcher.h"
#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// Opens descriptors until the next ones have numbers above 1100.
class ManyDescriptors {
 public:
  ManyDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit raised = before_;
    if (raised.rlim_cur < kWanted) raised.rlim_cur = kWanted;
    if (raised.rlim_max < kWanted) raised.rlim_max = kWanted;
    setrlimit(RLIMIT_NOFILE, &raised);
    while (fillers_.empty() || fillers_.back().get() < 1100) {
      fillers_.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
      if (!fillers_.back().is_open()) break;
    }
  }
  ~ManyDescriptors() {
    fillers_.clear();
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  bool enough() const { return fillers_.back().get() >= 1100; }

 private:
  static constexpr rlim_t kWanted = 3000;
  rlimit before_ = {};
  std::vector<Descriptor> fillers_;
};

class SocketManyDescriptors : public NetworkTest {
 protected:
  void SetUp() override {
    NetworkTest::SetUp();
    many_ = std::make_unique<ManyDescriptors>();
    ASSERT_TRUE(many_->enough()) << "this test needs a limit of at least 1200 descriptors";
  }
  void TearDown() override {
    many_.reset();
    NetworkTest::TearDown();
  }

  std::unique_ptr<ManyDescriptors> many_;
};

TEST_F(SocketManyDescriptors, StreamsAreServed) {
  SKIP_WHERE_EMULATED("select() above 1023");
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = established_stream(&layer, &peer, indirect);
    ASSERT_GT(socket->s, 1100);
    ASSERT_TRUE(peer.send_all("hello"));
    ASSERT_TRUE(layer.wait_for_bytes(5));
    EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
    EXPECT_EQ(peer.receive(6), "answer");
    peer.close();
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_THAT(layer.story(), ElementsAre("data:hello", "disconnect(5,0)"));
  }
}

TEST_F(SocketManyDescriptors, DatagramsAreServed) {
  SKIP_WHERE_EMULATED("select() above 1023");
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    RecordingLayer layer;
    PeerUdp peer;
    OwnedSocket socket = datagram_socket(&layer, indirect);
    ASSERT_GT(socket->s, 1100);
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), "hello"));
    ASSERT_TRUE(layer.wait_for(1));
    ASSERT_EQ(socket->Connect(kLoopback, peer.port()), 0);
    EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
    EXPECT_EQ(peer.receive_text(), "answer");
  }
}

TEST_F(SocketManyDescriptors, ConnectingWithEarlyDataWorks) {
  SKIP_WHERE_EMULATED("select() above 1023");
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket(new AsyncSocket(indirect));
    socket->Bind(&layer);
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    ASSERT_GT(socket->s, 1100);
    ASSERT_EQ(socket->DataIndication(buffer_of("early")), Success);
    ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
    PeerStream peer = listener.accept();
    EXPECT_EQ(peer.receive(5), "early");
    ASSERT_TRUE(layer.wait_for_connect());
  }
}

TEST_F(SocketManyDescriptors, ARefusalIsReported) {
  SKIP_WHERE_EMULATED("select() above 1023");
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,111)"));
}

TEST_F(SocketManyDescriptors, ListenersAccept) {
  SKIP_WHERE_EMULATED("select() above 1023");
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    OwnedSocket listener(new AsyncSocket(indirect));
    ASSERT_EQ(listener->Create(SOCK_STREAM, 0, kLoopback, false), 0);
    ASSERT_GT(listener->s, 1100);
    std::atomic<AsyncSocket*> accepted{nullptr};
    ASSERT_EQ(listener->Listen(
                  [](OSObj* where, ADDR socket, ULONG) {
                    *reinterpret_cast<std::atomic<AsyncSocket*>*>(where) = static_cast<AsyncSocket*>(socket);
                  },
                  &accepted),
              0);
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    ASSERT_TRUE(wait_until([&] { return accepted != nullptr; }, kPatienceMs));
    OwnedSocket socket(accepted);
    EXPECT_GT(socket->s, 1100);
  }
}

TEST_F(SocketManyDescriptors, ASenderWaitsForRoom) {
  SKIP_WHERE_EMULATED("select() above 1023");
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = established_stream(&layer, &peer, indirect);
    const std::string sent = numbered_bytes(60000);
    std::string expected;
    for (int i = 0; i < 100; ++i) expected += sent;
    std::atomic<int> failed{0};
    WatchedThread sender([&] {
      for (int i = 0; i < 100; ++i) failed += socket->DataIndication(buffer_of(sent)) == Success ? 0 : 1;
    });
    EXPECT_TRUE(sender.blocked());
    EXPECT_TRUE(peer.receive(expected.size()) == expected);
    EXPECT_TRUE(sender.finished_within(kPatienceMs));
    EXPECT_EQ(failed, 0);
  }
}

TEST_F(SocketManyDescriptors, AThousandSocketsOfTheLibraryAreServedTogether) {
  SKIP_WHERE_EMULATED("select() above 1023");
  constexpr int kCount = 1000;
  PeerUdp peer;
  RecordingLayer layer;
  std::vector<OwnedSocket> sockets;
  for (int i = 0; i < kCount; ++i) sockets.push_back(datagram_socket(&layer));
  for (int i = 0; i < kCount; ++i) {
    ASSERT_TRUE(peer.send_to(sockets[static_cast<std::size_t>(i)]->LocalPort(), "hello"));
    // The buffers of the pool suffice for those that are under way.
    ASSERT_TRUE(layer.wait_for(static_cast<std::size_t>(i / 16 * 16)));
  }
  ASSERT_TRUE(layer.wait_for(kCount));
}

// ---- Descriptors that the program moves ----------------------------------------------------------------------------

class SocketDescriptors : public NetworkTest {
 protected:
  /// Makes the monitor thread work out anew what it watches the socket for.
  static void stop_and_read_again(AsyncSocket& socket) {
    MonitorBeat monitor;
    for (const bool stop : {true, false}) {
      put_into(socket.dont_read, stop);
      AsyncSocket::WakeMonitorThread();
      EXPECT_TRUE(monitor.passes());
    }
  }
};

TEST_F(SocketDescriptors, AnotherOnePutInTheSamePlaceIsServedInItsStead) {
  RecordingLayer layer;
  PeerStream peer, spare_peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(layer.wait_for_bytes(1));
  PeerListener listener;
  PeerStream spare = PeerStream::connect_to(listener.port());
  spare_peer = listener.accept();
  ASSERT_EQ(dup2(spare.fd(), socket->s), socket->s);
  spare.close();
  stop_and_read_again(*socket);
  ASSERT_TRUE(spare_peer.send_all("y"));
  ASSERT_TRUE(layer.wait_for_bytes(2));
  EXPECT_EQ(layer.data(), "xy");
  EXPECT_EQ(console.count("select error"), 0);
}

TEST_F(SocketDescriptors, OneThatIsHandedToAnotherSocketIsServedThere) {
  RecordingLayer first_layer, second_layer;
  PeerStream peer;
  OwnedSocket first = established_stream(&first_layer, &peer);
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(first_layer.wait_for_bytes(1));
  OwnedSocket second = indirect_socket();
  second->Bind(&second_layer);
  ASSERT_EQ(second->Create(SOCK_STREAM, first->s), 0);
  second->ConnectAck();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  ASSERT_TRUE(peer.send_all("y"));
  ASSERT_TRUE(second_layer.wait_for_bytes(1));
  EXPECT_EQ(console.count("select error"), 0);
  // The one that has lost it does not take it along.
  put_into(first->s, -1);
  first.reset();
  ASSERT_TRUE(peer.send_all("z"));
  ASSERT_TRUE(second_layer.wait_for_bytes(2));
  EXPECT_THAT(first_layer.story(), ElementsAre("data:x"));
}

}  // namespace
