// Streams that are to be secured: what is held back until they are, and a handshake that has nobody to lead it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SocketHandshake : public QuietNetworkTest, public testing::WithParamInterface<bool> {
 protected:
  bool indirect() const { return GetParam(); }
};

TEST_P(SocketHandshake, WithoutASessionItEndsTheConnectionWithCodeOne) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  put_into(socket->secure_state, static_cast<int>(SecHandshake));
  socket->ConnectAck();
  ASSERT_TRUE(peer.send_all("hello"));
  ASSERT_TRUE(dispatch_until([&] { return layer.count() > 0; }));
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,1)"));
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_FALSE(look_at(socket->running));
}

TEST_P(SocketHandshake, NothingHappensBeforeReceptionHasBeenStarted) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  put_into(socket->secure_state, static_cast<int>(SecHandshake));
  socket->Poll();
  os_check_triggers();
  EXPECT_THAT(layer.story(), IsEmpty());
  EXPECT_EQ(look_at(socket->state), SSInitial);
}

INSTANTIATE_TEST_SUITE_P(, SocketHandshake, testing::Values(true, false),
                         [](const auto& kind) { return std::string(kind.param ? "Indirect" : "Direct"); });

using SocketHandshakeMonitored = QuietNetworkTest;

TEST_F(SocketHandshakeMonitored, IsReadForWhateverWaitsInTheQueue) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  const int s = socket->s;
  for (int i = 0; i < 10; ++i) socket->ProcessData(buffer_of("x"));
  ASSERT_TRUE(look_at(socket->dont_read));
  put_into(socket->secure_state, static_cast<int>(SecHandshake));
  socket->ConnectAck();
  ASSERT_TRUE(
      wait_until([&] { return console.count(line("%d AsyncSocket::MonitorThread - SSL Handshake", s)) > 0; },
                 kPatienceMs));
  EXPECT_EQ(console.count("dont_read set"), 0);
  ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kData) == 10; }));
}

TEST_F(SocketHandshakeMonitored, NothingIsIndicatedNorSentInTheClearBeforeIt) {
  PeerListener listener;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  socket->secure = true;
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  ASSERT_EQ(socket->DataIndication(buffer_of("secret")), Success);
  ASSERT_EQ(socket->Connect(kLoopback, listener.port()), 0);
  PeerStream peer = listener.accept();
  ASSERT_TRUE(wait_until([&] { return look_at(socket->state) != SSConnecting; }, kPatienceMs));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  os_check_triggers();
  EXPECT_EQ(layer.count(Indication::kConnect), 0U);
  EXPECT_EQ(peer.receive_now().find("secret"), std::string::npos);
}

}  // namespace
