// How the monitor thread connects: the outcome is indicated once, with the connection's own error.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/interposed_calls.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SocketConnect : public NetworkTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  static OwnedSocket stream_for(RecordingLayer* layer) {
    OwnedSocket socket = indirect_socket();
    socket->Bind(layer);
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    return socket;
  }
};

TEST_F(SocketConnect, IndicatesTheConnectionBeforeAnyData) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  EXPECT_EQ(look_at(socket->state), SSInitial);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.send_all("welcome"));
  ASSERT_TRUE(layer.wait_for_bytes(7));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:welcome"));
  EXPECT_TRUE(layer.at(0).null_address);
  EXPECT_EQ(look_at(socket->state), SSConnected);
  EXPECT_TRUE(socket->Connected());
}

TEST_F(SocketConnect, KnowsItsOwnAddressAfterwards) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(socket->loc_sin.Address(), kLoopback);
  EXPECT_EQ(socket->loc_sin.Port(), local_port_of(socket->s));
  EXPECT_EQ(socket->RemoteIP_h(), kLoopback);
  EXPECT_EQ(socket->RemotePort(), listener.port());
}

TEST_F(SocketConnect, SaysHowItGoesWhenTraced) {
  put_into(AsyncSocket::trace, 1);
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(
      console.count(line("%d AsyncSocket::MonitorThread - connecting to 127.0.0.1:%u", s, listener.port())),
      1);
  EXPECT_EQ(
      console.count(line("%d AsyncSocket::MonitorThread - connected to 127.0.0.1:%u", s, listener.port())),
      1);
  EXPECT_EQ(console.count("AsyncSocket::MonitorThread - started"), 1);
  EXPECT_GE(console.count("AsyncSocket::StartTask - waking monitor thread"), 1);
}

TEST_F(SocketConnect, ARefusedConnectionIsIndicatedOnceWithItsError) {
  for (int round = 0; round < 20; ++round) {
    RefusingPort port;
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    console.clear();
    ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
    ASSERT_TRUE(layer.wait_for_disconnect());
    MonitorBeat monitor;
    ASSERT_TRUE(monitor.passes());
    EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,111)"));
    EXPECT_EQ(look_at(socket->state), SSDisconnected);
    EXPECT_FALSE(look_at(socket->running));
    EXPECT_EQ(console.count(line("%d AsyncSocket::MonitorThread - connect() errno=111 to 127.0.0.1:%u",
                                 socket->s, port.port())),
              1);
  }
}

TEST_F(SocketConnect, ARefusedSocketConnectsAfterCloseAndCreate) {
  PeerListener listener;
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(layer.wait_for_disconnect());
  socket->Close();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,111)", "connect"));
}

TEST_F(SocketConnect, AnErrorOfTheFirstCallIsIndicatedOnce) {
  for (const int error : {ENETUNREACH, EADDRNOTAVAIL, EACCES}) {
    SCOPED_TRACE(error);
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    const int s = socket->s;
    calls().connect.replace([s, error](auto real, int fd, const sockaddr* to, socklen_t length) {
      if (fd != s) return real(fd, to, length);
      errno = error;
      return -1;
    });
    ASSERT_EQ(socket->Connect(kLoopback, 7), 0);
    ASSERT_TRUE(layer.wait_for_disconnect());
    MonitorBeat monitor;
    ASSERT_TRUE(monitor.passes());
    EXPECT_THAT(layer.story(), ElementsAre("disconnect(4," + std::to_string(error) + ")"));
    EXPECT_EQ(
        console.count(line("%d AsyncSocket::MonitorThread - connect() errno=%d to 127.0.0.1:7", s, error)),
        1);
    EXPECT_EQ(look_at(socket->state), SSDisconnected);
    EXPECT_FALSE(look_at(socket->running));
    calls().connect.restore();
    console.clear();
  }
}

TEST_F(SocketConnect, AnErrorOfTheSecondCallIsIndicatedOnce) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  std::atomic<int> attempts{0};
  calls().connect.replace([s, &attempts](auto real, int fd, const sockaddr* to, socklen_t length) {
    if (fd != s || attempts++ == 0) return real(fd, to, length);
    errno = ETIMEDOUT;
    return -1;
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_disconnect());
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,110)"));
  EXPECT_EQ(console.count(line("%d AsyncSocket::MonitorThread - connect() errno=110 to 127.0.0.1:%u", s,
                               listener.port())),
            1);
  EXPECT_FALSE(look_at(socket->running));
}

TEST_F(SocketConnect, SomeErrorsMeanStillConnecting) {
  for (const int error : {EALREADY, EINPROGRESS, EINTR}) {
    SCOPED_TRACE(error);
    put_into(AsyncSocket::trace, 1);
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    const int s = socket->s;
    std::atomic<int> attempts{0};
    calls().connect.replace([s, error, &attempts](auto real, int fd, const sockaddr* to, socklen_t length) {
      if (fd != s) return real(fd, to, length);
      const int attempt = attempts++;
      if (attempt > 3) return real(fd, to, length);
      // The first call begins the connection whatever it says.
      if (attempt == 0) real(fd, to, length);
      errno = error;
      return -1;
    });
    ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
    ASSERT_TRUE(layer.wait_for_connect());
    EXPECT_THAT(layer.story(), ElementsAre("connect"));
    EXPECT_GE(attempts, 5);
    EXPECT_EQ(console.count("connect() errno="), 0);
    EXPECT_EQ(
        console.count(line("%d AsyncSocket::MonitorThread - connecting to 127.0.0.1:%u", s, listener.port())),
        1);
    calls().connect.restore();
    console.clear();
  }
}

TEST_F(SocketConnect, ASuccessOfTheFirstCallIsAConnectionToo) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  // Completes within the call, as a connection inside the machine may.
  calls().connect.replace([s](auto real, int fd, const sockaddr* to, socklen_t length) {
    const int result = real(fd, to, length);
    if (fd != s || result == 0 || errno != EINPROGRESS) return result;
    wait_for_events(fd, POLLOUT);
    return 0;
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.send_all("welcome"));
  ASSERT_TRUE(layer.wait_for_bytes(7));
  EXPECT_THAT(layer.story(), ElementsAre("connect", "data:welcome"));
}

TEST_F(SocketConnect, TheSecondAttemptMayFindItConnected) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  std::atomic<int> attempts{0};
  calls().connect.replace([s, &attempts](auto real, int fd, const sockaddr* to, socklen_t length) {
    const int result = real(fd, to, length);
    if (fd != s || ++attempts == 1) return result;
    errno = EISCONN;
    return -1;
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
  EXPECT_EQ(attempts, 2);
}

/// Starts another socket's reception on the monitor thread, when its own connection has failed.
class StartsAnother : public AsyncSocket {
 public:
  explicit StartsAnother(AsyncSocket* other) : AsyncSocket(true), other_(other) {}
  void ProcessData(OSBuf* buf) override {
    buf->Free();
    other_->ConnectAck();
  }

 private:
  AsyncSocket* other_;
};

TEST_F(SocketConnect, WhatChangesAnotherSocketOnTheMonitorThreadIsSeen) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket other = adopted_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("waits"));
  const Owned<StartsAnother> socket(new StartsAnother(other.get()));
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  const int s = socket->s;
  calls().connect.replace([s](auto real, int fd, const sockaddr* to, socklen_t length) {
    if (fd != s) return real(fd, to, length);
    errno = ENETUNREACH;
    return -1;
  });
  ASSERT_EQ(socket->Connect(kLoopback, 4711), 0);
  EXPECT_TRUE(layer.wait_for_bytes(5));
}

TEST_F(SocketConnect, AnUnknownOwnAddressIsPrintedAndTheConnectionStands) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  const int s = socket->s;
  calls().getsockname.replace([s](auto real, int fd, sockaddr* name, socklen_t* length) {
    if (fd != s) return real(fd, name, length);
    errno = ENOBUFS;
    return -1;
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(console.count(line("%d AsyncSocket::MonitorThread - getsockname() errno=%d to 127.0.0.1:%u", s,
                               ENOBUFS, listener.port())),
            1);
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

TEST_F(SocketConnect, APendingConnectionKeepsNobodyBusy) {
  FullPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(wait_until([&] { return look_at(socket->state) == SSConnecting; }, kPatienceMs));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  EXPECT_EQ(layer.count(), 0U);
}

TEST_F(SocketConnect, APendingConnectionCanBeClosedAndFreed) {
  FullPort port;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(wait_until([&] { return look_at(socket->state) == SSConnecting; }, kPatienceMs));
  socket->Close();
  EXPECT_EQ(look_at(socket->state), SSInitial);
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_THAT(layer.story(), IsEmpty());
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  socket.reset();
  EXPECT_THAT(layer.story(), IsEmpty());
}

TEST_F(SocketConnect, ManyConnectAtOnce) {
  PeerListener listener(128);
  constexpr int kCount = 60;
  std::vector<std::unique_ptr<RecordingLayer>> layers;
  std::vector<OwnedSocket> sockets;
  for (int i = 0; i < kCount; ++i) {
    layers.push_back(std::make_unique<RecordingLayer>());
    sockets.push_back(stream_for(layers.back().get()));
  }
  for (const OwnedSocket& socket : sockets) ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  for (const auto& layer : layers) ASSERT_TRUE(layer->wait_for_connect());
  for (const auto& layer : layers) EXPECT_EQ(layer->count(), 1U);
}

TEST_F(SocketConnect, TheLayerAnswersInsideItsConnectIndication) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = stream_for(&layer);
  AsyncSocket* const raw = socket.get();
  OSIORetCode answer = Blocked;
  layer.set_hook([raw, &answer](const Indication& indication) {
    if (indication.kind == Indication::kConnect) answer = raw->DataIndication(buffer_of("hello"));
  });
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  EXPECT_EQ(peer.receive(5), "hello");
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(answer, Success);
}

TEST_F(SocketConnect, APeerThatLeavesAtOnceIsFirstAConnectionThenItsEnd) {
  for (const bool reset : {false, true}) {
    PeerListener listener;
    RecordingLayer layer;
    OwnedSocket socket = stream_for(&layer);
    ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
    PeerStream peer = listener.accept();
    ASSERT_TRUE(layer.wait_for_connect());
    if (reset) {
      peer.reset();
    } else {
      peer.close();
    }
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_THAT(layer.story(), ElementsAre("connect", "disconnect(5,0)"));
  }
}

}  // namespace
