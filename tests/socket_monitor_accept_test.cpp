// Accepting: by the monitor thread for indirect listeners, by a thread of their own for direct ones, and what they do
// when the system has no descriptor left.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/failing_new.h"
#include "support/interposed_calls.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A listener and the sockets that it has made. Each of them gets a layer of its own.
class Server {
 public:
  explicit Server(bool indirect) : listener_(new AsyncSocket(indirect)) {
    EXPECT_EQ(listener_->Create(SOCK_STREAM, 0, kLoopback, false), 0);
    EXPECT_EQ(listener_->Listen(take, this), 0);
  }
  ~Server() { stop(); }

  AsyncSocket* listener() { return listener_.get(); }
  UWORD port() { return listener_->LocalPort(); }
  /// Without reception, connections stay as the listener has handed them over.
  void acknowledge(bool acknowledge) { acknowledge_ = acknowledge; }
  bool wait_for(std::size_t n) {
    return wait_until([this, n] { return count() >= n; }, kPatienceMs);
  }
  std::size_t count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sockets_.size();
  }
  AsyncSocket* socket(std::size_t i) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sockets_[i].get();
  }
  RecordingLayer& layer(std::size_t i) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return *layers_[i];
  }
  pid_t thread() const { return thread_; }
  /// The listener goes first: after that nothing is added.
  void stop() {
    listener_.reset();
    sockets_.clear();
    layers_.clear();
  }

 private:
  static void take(OSObj* self, ADDR socket, ULONG value) {
    EXPECT_EQ(value, 0U);
    reinterpret_cast<Server*>(self)->add(static_cast<AsyncSocket*>(socket));
  }
  void add(AsyncSocket* socket) {
    auto layer = std::make_unique<RecordingLayer>();
    socket->Bind(layer.get());
    thread_ = gettid();
    if (acknowledge_) socket->ConnectAck();
    const std::lock_guard<std::mutex> lock(mutex_);
    layers_.push_back(std::move(layer));
    sockets_.emplace_back(socket);
  }

  std::mutex mutex_;
  std::vector<std::unique_ptr<RecordingLayer>> layers_;
  std::vector<OwnedSocket> sockets_;
  std::atomic<bool> acknowledge_{true};
  std::atomic<pid_t> thread_{0};
  OwnedSocket listener_;
};

class SocketAccept : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  bool indirect() const { return GetParam(); }
  /// What a failed accept prints.
  std::string failure(int s, int error) const {
    return line("%d AsyncSocket::%s - accept error %d", s, indirect() ? "Poll" : "ListenMain", error);
  }
};

TEST_P(SocketAccept, HandsOverEachConnectionWithItsPeersAddress) {
  Server server(indirect());
  std::vector<PeerStream> peers;
  for (std::size_t i = 0; i < 10; ++i) {
    peers.push_back(PeerStream::connect_to(server.port()));
    ASSERT_TRUE(peers.back().is_open());
    ASSERT_TRUE(server.wait_for(i + 1));
    AsyncSocket* const socket = server.socket(i);
    EXPECT_EQ(socket->RemoteIP_h(), kLoopback);
    EXPECT_EQ(socket->RemotePort(), peers.back().local_port());
    EXPECT_EQ(socket->LocalPort(), server.port());
    EXPECT_TRUE(socket->indirect_socket);
    EXPECT_EQ(socket->type, SOCK_STREAM);
    EXPECT_EQ(look_at(socket->state), SSConnected);
  }
  for (std::size_t i = 0; i < 10; ++i) {
    ASSERT_TRUE(peers[i].send_all("number " + std::to_string(i)));
    ASSERT_TRUE(server.layer(i).wait_for_bytes(8));
    EXPECT_THAT(server.layer(i).story(), ElementsAre("data:number " + std::to_string(i)));
    EXPECT_EQ(server.socket(i)->DataIndication(buffer_of("answer")), Success);
    EXPECT_EQ(peers[i].receive(6), "answer");
  }
}

TEST_P(SocketAccept, AnAcceptedConnectionReceivesNothingBeforeItIsAcknowledged) {
  Server server(indirect());
  server.acknowledge(false);
  PeerStream peer = PeerStream::connect_to(server.port());
  ASSERT_TRUE(peer.send_all("early"));
  ASSERT_TRUE(server.wait_for(1));
  AsyncSocket* const socket = server.socket(0);
  ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket->s) == 5; }, kPatienceMs));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(bytes_waiting(socket->s), 5);
  socket->ConnectAck();
  ASSERT_TRUE(server.layer(0).wait_for_bytes(5));
}

TEST_P(SocketAccept, IsCalledByTheDispatcher) {
  Server server(indirect());
  PeerStream peer = PeerStream::connect_to(server.port());
  ASSERT_TRUE(server.wait_for(1));
  ASSERT_TRUE(peer.send_all("x"));
  ASSERT_TRUE(server.layer(0).wait_for(1));
  EXPECT_EQ(server.thread(), server.layer(0).at(0).thread);
}

TEST_P(SocketAccept, AListenerReceivesNothingItself) {
  Server server(indirect());
  EXPECT_FALSE(look_at(server.listener()->receive_started));
  EXPECT_TRUE(look_at(server.listener()->running));
  EXPECT_TRUE(look_at(server.listener()->listener));
}

TEST_P(SocketAccept, SaysWhomItAccepts) {
  put_into(AsyncSocket::trace, 1);
  std::string new_connection;
  int s = -1;
  {
    Server server(indirect());
    PeerStream peer = PeerStream::connect_to(server.port());
    ASSERT_TRUE(server.wait_for(1));
    s = server.listener()->s;
    new_connection = line("%d AsyncSocket::%s - new connection %d from 127.0.0.1, %u", s,
                          indirect() ? "Poll" : "ListenMain", server.socket(0)->s, peer.local_port());
    EXPECT_EQ(console.count(new_connection), 1);
  }
  const int own_thread = indirect() ? 0 : 1;
  EXPECT_EQ(console.count(line("%d AsyncSocket::ListenMain - Started listen thead", s)), own_thread);
  EXPECT_EQ(console.count("AsyncSocket::ListenMain - Stopped listen thead"), own_thread);
}

TEST_P(SocketAccept, ALostConnectionIsPassedOver) {
  for (const int error : {ECONNABORTED, EINTR}) {
    SCOPED_TRACE(error);
    std::atomic<int> failures{2};
    replace_accept([&](int) { return failures.fetch_sub(1) > 0 ? error : 0; });
    Server server(indirect());
    PeerStream first = PeerStream::connect_to(server.port());
    PeerStream second = PeerStream::connect_to(server.port());
    ASSERT_TRUE(server.wait_for(2));
    EXPECT_LE(failures, 0);
    EXPECT_EQ(console.count(failure(server.listener()->s, error)), 2);
    EXPECT_TRUE(look_at(server.listener()->running));
    server.stop();
    calls().restore_all();
  }
}

TEST_P(SocketAccept, WithoutADescriptorItSaysSoSeldomAndComesBack) {
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
    SCOPED_TRACE(error);
    console.clear();
    std::atomic<bool> none_left{true};
    std::atomic<int> attempts{0};
    replace_accept([&](int) {
      if (!none_left) return 0;
      ++attempts;
      return error;
    });
    Server server(indirect());
    const int s = server.listener()->s;
    const auto began = std::chrono::steady_clock::now();
    PeerStream peer = PeerStream::connect_to(server.port());
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(wait_until([&] { return console.count(failure(s, error)) > 0; }, kPatienceMs));
    EXPECT_TRUE(is_calm(indirect() ? AsyncSocket::monitor_thread : server.listener()->thread));
    // Others are served meanwhile.
    MonitorBeat monitor;
    ASSERT_TRUE(monitor.passes());
    ASSERT_TRUE(wait_until([&] { return attempts >= 3; }, kPatienceMs)) << "it tries again by itself";
    const int printed = console.count(failure(s, error));
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - began).count();
    EXPECT_LE(printed, seconds + 1) << "at most once a second";
    EXPECT_EQ(server.count(), 0U);
    none_left = false;
    ASSERT_TRUE(server.wait_for(1)) << "and accepts when there are descriptors again";
    ASSERT_TRUE(peer.send_all("at last"));
    ASSERT_TRUE(server.layer(0).wait_for_bytes(7));
    server.stop();
    calls().restore_all();
  }
}

TEST_P(SocketAccept, AConnectionThatMemoryDoesNotSufficeForIsClosed) {
  Server server(indirect());
  PeerStream first = PeerStream::connect_to(server.port());
  ASSERT_TRUE(server.wait_for(1));
  const int descriptors = open_descriptors();
  FailingNew::fail_at_least(sizeof(SocketLink));
  {
    PeerStream refused = PeerStream::connect_to(server.port());
    EXPECT_TRUE(refused.ended());
  }
  FailingNew::reset();
  EXPECT_TRUE(wait_until([&] { return open_descriptors() == descriptors; }, kPatienceMs));
  PeerStream second = PeerStream::connect_to(server.port());
  ASSERT_TRUE(server.wait_for(2));
  EXPECT_EQ(server.socket(1)->RemotePort(), second.local_port());
}

TEST_P(SocketAccept, AListenerThatHasNoDescriptorsCanBeFreed) {
  replace_accept([](int) { return EMFILE; });
  auto server = std::make_unique<Server>(indirect());
  const int s = server->listener()->s;
  PeerStream peer = PeerStream::connect_to(server->port());
  ASSERT_TRUE(wait_until([&] { return console.count(failure(s, EMFILE)) > 0; }, kPatienceMs));
  server.reset();
  EXPECT_TRUE(peer.ended());
}

TEST_P(SocketAccept, ConnectionsThatNobodyTookAreClosedWithTheListener) {
  PeerStream peers[3];
  StalledDispatcher dispatcher;
  ASSERT_TRUE(dispatcher.stalled());
  {
    Server server(indirect());
    for (PeerStream& peer : peers) peer = PeerStream::connect_to(server.port());
    AsyncSocket* const listener = server.listener();
    ASSERT_TRUE(wait_until(
        [&] {
          EnterCriticalSection(&listener->local_cs);
          const auto waiting = listener->listenq.Size();
          LeaveCriticalSection(&listener->local_cs);
          return waiting == 3;
        },
        kPatienceMs));
    server.stop();
    EXPECT_EQ(server.count(), 0U);
  }
  for (PeerStream& peer : peers) EXPECT_TRUE(peer.ended());
}

TEST_P(SocketAccept, AFloodOfConnectionsIsTakenWhole) {
  Server server(indirect());
  std::vector<PeerStream> peers;
  for (std::size_t i = 0; i < 200; ++i) {
    peers.push_back(PeerStream::connect_to(server.port()));
    ASSERT_TRUE(peers.back().is_open()) << i;
    // More than the backlog at once would wait for the system to try again.
    ASSERT_TRUE(server.wait_for(i / 4 * 4));
  }
  ASSERT_TRUE(server.wait_for(200));
  server.stop();
  for (PeerStream& peer : peers) EXPECT_TRUE(peer.ended());
}

INSTANTIATE_TEST_SUITE_P(, SocketAccept, testing::Values(true, false),
                         [](const auto& kind) { return std::string(kind.param ? "Indirect" : "Direct"); });

class SocketListenMonitored : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
};

TEST_F(SocketListenMonitored, SaysThatItFailsForAnyOtherReasonAndTriesAgainInAWhile) {
  std::atomic<bool> fails{true};
  replace_accept([&](int) { return fails ? EPERM : 0; });
  Server server(true);
  const std::string said = line("%d AsyncSocket::Poll - accept error %d", server.listener()->s, EPERM);
  PeerStream peer = PeerStream::connect_to(server.port());
  ASSERT_TRUE(wait_until([&] { return console.count(said) >= 3; }, kPatienceMs));
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  fails = false;
  ASSERT_TRUE(server.wait_for(1));
}

TEST_F(SocketListenMonitored, AReportThatIsOutOfDateIsNoFailure) {
  std::atomic<int> failures{1};
  replace_accept([&](int) { return failures.fetch_sub(1) > 0 ? EAGAIN : 0; });
  Server server(true);
  PeerStream peer = PeerStream::connect_to(server.port());
  ASSERT_TRUE(server.wait_for(1));
  EXPECT_LE(failures, 0);
  EXPECT_EQ(console.text(), "");
}

class SocketListenThread : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
};

TEST_F(SocketListenThread, EndsWithAnErrorThatIsNoneOfTheseInAName) {
  put_into(AsyncSocket::trace, 1);
  replace_accept([](int) { return EPERM; });
  Server server(false);
  const int s = server.listener()->s;
  PeerStream first = PeerStream::connect_to(server.port());
  ASSERT_TRUE(wait_until(
      [&] { return console.count(line("%d AsyncSocket::ListenMain - accept error %d", s, EPERM)) == 1; },
      kPatienceMs));
  EXPECT_TRUE(wait_until(
      [&] { return console.count(line("%d AsyncSocket::ListenMain - Stopped listen thead", s)) == 1; },
      kPatienceMs));
  PeerStream second = PeerStream::connect_to(server.port());
  EXPECT_EQ(server.count(), 0U);
}

TEST_F(SocketListenThread, OfADatagramSocketDoesNotExistAndListenTellsWhy) {
  OwnedSocket socket = direct_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  const int s = socket->s;
  socket->Close();
  EXPECT_NE(socket->Listen(nullptr, nullptr), 0);
  EXPECT_FALSE(look_at(socket->listener));
  EXPECT_EQ(console.count(line("%d AsyncSocket::ListenMain", s)), 0);
}

}  // namespace
