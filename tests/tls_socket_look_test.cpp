// What happens to a socket in the middle of starting TLS: the monitor thread looks at it, it is closed, stopped or
// started anew by somebody else.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

/// Does something on the thread that prints a certain line.
class ActsAtALine : public RecordingConsole {
 public:
  ActsAtALine(std::string line, std::function<void()> act)
      : line_(std::move(line)), act_(std::move(act)), before_(Console) {
    Console = this;
  }
  ~ActsAtALine() override { Console = before_; }
  ActsAtALine(const ActsAtALine&) = delete;
  ActsAtALine& operator=(const ActsAtALine&) = delete;

  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    char text[1024];
    va_list again;
    va_copy(again, arguments);
    vsnprintf(text, sizeof text, format, again);
    va_end(again);
    RecordingConsole::vPrint(format, arguments);
    if (std::string(text).find(line_) != std::string::npos) act_();
  }

 private:
  std::string line_;
  std::function<void()> act_;
  OSConsole* before_;
};

/// The monitor thread looks at all sockets before it lets this one go.
void let_the_monitor_look() {
  AsyncSocket::WakeMonitorThread();
  (new AsyncSocket(true))->Free();
}

class TlsSocketLook : public TlsSocketTest {};

TEST_F(TlsSocketLook, ADirectClientThatHasNoSessionYetIsLeftToItsThread) {
  const ActsAtALine acts("AsyncSocket::Main - start SSL", let_the_monitor_look);
  SecureClient client(false);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  client.peer->write("x");
  ASSERT_TRUE(client.layer.wait_for_bytes(1));
  EXPECT_THAT(client.layer.story(), ElementsAre("connect", "data:x"));
}

TEST_F(TlsSocketLook, ADirectClientInItsHandshakeIsLeftToItsThread) {
  const ActsAtALine acts("AsyncSocket::StartSSL - Handshake", let_the_monitor_look);
  SecureClient client(false);
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  client.peer->write("x");
  ASSERT_TRUE(client.layer.wait_for_bytes(1));
  EXPECT_THAT(client.layer.story(), ElementsAre("connect", "data:x"));
}

// ---- Somebody else comes first -------------------------------------------------------------------------------

class TlsSocketMeanwhile : public TlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketMeanwhile, testing::Bool(), way_name);

TEST_P(TlsSocketMeanwhile, AnotherConnectionBehindTheSetUpGetsNoSession) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer, indirect());
  put_into(socket->state, static_cast<int>(SSConnected));
  const ActsAtALine acts("TLSSetup: setting cipher list", [&] {
    socket->Close();
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  });
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  EXPECT_EQ(now_of(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
  EXPECT_TRUE(printed(acts, "StartSSL: underlying transport not connected"));
  EXPECT_EQ(acts.count("AsyncSocket::StartSSL - Handshake"), 0);
}

TEST_P(TlsSocketMeanwhile, ASessionThatIsStartedAnewIsNotSecureByTheOldOnesHandshake) {
  RecordingLayer layer;
  PeerStream stream;
  OwnedSocket socket = adopted_stream(&layer, &stream, indirect());
  put_into(socket->state, static_cast<int>(SSConnected));
  TlsEnd peer(good_client(TLS1_3_VERSION), Descriptor(stream.release()));
  std::atomic<int> started{0};
  const ActsAtALine acts("TLS accept: version", [&] {
    if (started != 0) return;
    EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
    started = 1;
  });
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  socket->StartTask();
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return started == 1; }, kPatienceMs));
  peer.write("not a greeting");
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,1)"));
}

TEST_P(TlsSocketMeanwhile, AHandshakeThatIsStoppedAtItsEndLeavesTheSocketClear) {
  RecordingLayer layer;
  PeerStream stream;
  OwnedSocket socket = adopted_stream(&layer, &stream, indirect());
  put_into(socket->state, static_cast<int>(SSConnected));
  TlsEnd peer(good_client(TLS1_3_VERSION), Descriptor(stream.release()));
  std::atomic<int> stopped{0};
  const ActsAtALine acts("TLS accept: version", [&] {
    socket->StopSSL();
    ++stopped;
  });
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  socket->StartTask();
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return stopped == 1; }, kPatienceMs));
  peer.write("x");
  ASSERT_TRUE(layer.wait_for_bytes(1));
  EXPECT_EQ(now_of(socket->secure_state), SecClear);
  EXPECT_EQ(layer.at(0).kind, Indication::kData);
}

TEST_P(TlsSocketMeanwhile, AClientThatCannotStartDoesNotWaitForItsSilentPeer) {
  RecordingLayer layer;
  PeerListener listener;
  OwnedSocket socket = secure_socket(layer, indirect());
  socket->SetCertificates(nullptr, nullptr, tls_files().missing().c_str());
  socket->Connect(INADDR_LOOPBACK, listener.port());
  PeerStream stream = listener.accept();
  ASSERT_TRUE(stream.is_open());
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.story().back(), "disconnect(4,1)");
  socket->Close();
  EXPECT_EQ(stream.receive_to_end(), "");
}

}  // namespace
