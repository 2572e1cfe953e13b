// What is given to send before a socket is secure, while such data still waits, and when TLS has been stopped again.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/freed_inside.h"
#include "support/link_drought.h"
#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Two buffers of this size are not merged.
constexpr std::size_t kWhole = 1400;

/// A buffer that counts up when it is freed.
OSBuf* counted(const std::string& text, std::atomic<int>& count) {
  OSBuf* const buf = buffer_of(text);
  buf->AddBufferCallback(OSCallback::Alloc(
      nullptr, [](OSObj* obj, ADDR, ULONG) { ++*reinterpret_cast<std::atomic<int>*>(obj); },
      reinterpret_cast<OSObj*>(&count), nullptr, 0));
  return buf;
}

std::vector<std::size_t> sizes_of(AsyncSocket* socket) {
  std::vector<std::size_t> sizes;
  for (const std::string& text : early_data(socket)) sizes.push_back(text.size());
  return sizes;
}

/// Bytes as they stand on the wire.
std::string receive_plainly(int fd, std::size_t count) {
  std::string bytes;
  while (bytes.size() < count && wait_for_events(fd, POLLIN, kPatienceMs)) {
    char piece[256];
    const ssize_t got = ::recv(fd, piece, std::min(sizeof piece, count - bytes.size()), MSG_DONTWAIT);
    if (got <= 0) break;
    bytes.append(piece, static_cast<std::size_t>(got));
  }
  return bytes;
}

class TlsSocketGiven : public TlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  void TearDown() override {
    FailingNew::reset();
    TlsSocketTest::TearDown();
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketGiven, testing::Bool(), way_name);

// ---- During the handshake ------------------------------------------------------------------------------------

TEST_P(TlsSocketGiven, IsMergedIntoBuffersOf1400) {
  using Sizes = std::vector<std::size_t>;
  const struct {
    Sizes given, kept;
  } rows[] = {
      {{1000, 400}, {1400}},  {{1000, 401}, {1400, 1}}, {{1399, 1}, {1400}},    {{1399, 2}, {1400, 1}},
      {{1400, 1}, {1400, 1}}, {{1, 1, 1}, {3}},         {{1401, 1}, {1401, 1}}, {{700, 1400}, {1400, 700}},
  };
  for (const auto& row : rows) {
    SecureServer server(indirect());
    server.socket->ConnectAck();
    std::string all;
    for (const std::size_t size : row.given) {
      const std::string bytes = numbered_bytes(size, static_cast<unsigned>(all.size() + 1));
      ASSERT_EQ(server.socket->DataIndication(buffer_of(bytes)), Success);
      all += bytes;
    }
    EXPECT_EQ(sizes_of(server.socket.get()), row.kept);
    ASSERT_TRUE(server.comes_up());
    EXPECT_TRUE(same_bytes(server.peer->read(all.size()), all));
  }
}

TEST_P(TlsSocketGiven, IsFreedOutsideTheSocketsSectionWhenItIsMerged) {
  SecureServer server(indirect());
  server.socket->ConnectAck();
  ASSERT_EQ(server.socket->DataIndication(buffer_of("first")), Success);
  OSBuf* const second = buffer_of("second");
  FreedInside freed{&server.socket->local_cs};
  second->AddBufferCallback(OSCallback::Alloc(nullptr, FreedInside::note, nullptr, &freed, 0));
  ASSERT_EQ(server.socket->DataIndication(second), Success);
  EXPECT_EQ(freed.calls, 1);
  EXPECT_EQ(freed.inside, 0)
      << "its callbacks are the program's, and may enter what comes before the section";
  ASSERT_TRUE(server.comes_up());
  EXPECT_EQ(server.peer->read(11), "firstsecond");
}

TEST_P(TlsSocketGiven, IsMentionedAtTraceTwoOnly) {
  SecureServer server(indirect());
  server.socket->ConnectAck();
  for (const int level : {0, 1}) {
    const Tracing tracing(level);
    ASSERT_EQ(server.socket->DataIndication(buffer_of("one")), Success);
    EXPECT_EQ(console.count("DataIndication"), 0);
  }
  const Tracing tracing(2);
  ASSERT_EQ(server.socket->DataIndication(buffer_of("two")), Success);
  EXPECT_EQ(lines_with(console, "DataIndication"),
            std::vector<std::string>{"AsyncSocket::DataIndication - Queuing buffer"});
}

TEST_P(TlsSocketGiven, ThatCannotBeQueuedIsRefusedAndFreed) {
  std::atomic<int> freed{0};
  SecureServer server(indirect());
  server.socket->ConnectAck();
  OSBuf* const buf = counted("refused", freed);
  {
    const LinkDrought drought;
    EXPECT_EQ(server.socket->DataIndication(buf), NoConnection);
  }
  expected_fatals = {kOutOfLinks};
  EXPECT_EQ(freed, 1);
  EXPECT_THAT(early_data(server.socket.get()), IsEmpty());
  // Nothing else has come of it.
  ASSERT_TRUE(server.comes_up());
  EXPECT_EQ(server.socket->DataIndication(buffer_of("taken")), Success);
  EXPECT_EQ(server.peer->read(5), "taken");
  EXPECT_EQ(server.layer.count(Indication::kDisconnect), 0U);
}

// ---- While it waits ------------------------------------------------------------------------------------------

TEST_P(TlsSocketGiven, IsNotOvertakenByWhatIsGivenToTheSessionThatIsThere) {
  RecordingLayer layer;
  PeerListener listener;
  listener.set_receive_buffer(4096);
  OwnedSocket socket = secure_socket(layer, indirect());
  int small = 4096;
  ::setsockopt(socket->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string given;
  for (unsigned i = 0; i < 30; ++i) {
    const std::string bytes = numbered_bytes(kWhole, i);
    ASSERT_EQ(socket->DataIndication(buffer_of(bytes)), Success);
    given += bytes;
  }
  socket->Connect(INADDR_LOOPBACK, listener.port());
  TlsEnd peer(good_server(), Descriptor(listener.accept().release()));
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return console.count("SSL_write: WANT_WRITE") > 0; }, kPatienceMs));
  ASSERT_EQ(now_of(socket->secure_state), SecSecure);
  for (const char* const text : {"behind all that,", "as this is"}) {
    EXPECT_EQ(socket->DataIndication(buffer_of(text)), Success);
    const std::vector<std::string> waiting = early_data(socket.get());
    ASSERT_FALSE(waiting.empty());
    EXPECT_TRUE(waiting.back().ends_with(text));
    given += text;
  }
  EXPECT_TRUE(same_bytes(peer.read(given.size()), given));
  EXPECT_EQ(layer.count(Indication::kDisconnect), 0U);
}

TEST_P(TlsSocketGiven, IsFreedAndReportedOnceWhenTheConnectionIsGoneBeforeItCouldLeave) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    Gate done, reset;
    ActsOnceAtALine acts("TLS connect: version", [&] {
      done.open();
      reset.wait();
    });
    std::atomic<int> freed{0};
    RecordingLayer layer;
    PeerListener listener;
    OwnedSocket socket = secure_socket(layer, indirect());
    for (int i = 0; i < 5; ++i)
      ASSERT_EQ(socket->DataIndication(counted(std::string(kWhole, 'x'), freed)), Success);
    socket->Connect(INADDR_LOOPBACK, listener.port());
    {
      TlsEnd peer(good_server(version), Descriptor(listener.accept().release()));
      peer.hold(version == TLS1_3_VERSION);  // its tickets, which would be in the way of a reset
      peer.step();
      peer.hold(false);
      EXPECT_TRUE(peer.release());
      peer.handshake();
      EXPECT_TRUE(done.wait());
      peer.reset();
    }
    reset.open();
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_TRUE(wait_until([&] { return freed == 5; }, kPatienceMs));
    EXPECT_EQ(early(*socket), 0);
    EXPECT_FALSE(now_of(socket->running));
    EXPECT_EQ(state_of(*socket), SSDisconnected);
    socket->Close();
    EXPECT_THAT(layer.story(), ElementsAre("connect", "disconnect(4,0)"));
  }
}

// ---- A direct socket that goes meanwhile ---------------------------------------------------------------------

/// A direct socket whose storage stays behind, full of dust.
class BuriedSocket : public AsyncSocket {
 public:
  BuriedSocket() : AsyncSocket(false) {}
  static void* operator new(std::size_t) { return grave_; }
  static void operator delete(void* at) noexcept {
    std::memset(at, kDust, sizeof grave_);
    is_dead = true;
  }
  static bool rests_in_peace() {
    return std::all_of(std::begin(grave_), std::end(grave_), [](unsigned char b) { return b == kDust; });
  }
  static inline std::atomic<bool> is_dead{false};

 private:
  static constexpr unsigned char kDust = 0x5A;
  alignas(std::max_align_t) static inline unsigned char grave_[4096];
};
static_assert(sizeof(BuriedSocket) <= 4096);

using TlsSocketGivenDirect = TlsSocketTest;

TEST_F(TlsSocketGivenDirect, FreedByTheFirstBufferThatLeavesItIsNotTouchedAgain) {
  BuriedSocket::is_dead = false;
  RecordingLayer layer;
  PeerListener listener;
  std::atomic<int> freed{0};
  const std::string first = numbered_bytes(kWhole);
  auto* const socket = new BuriedSocket;
  const int threads =
      running_threads();  // with those of the networking layer, which begin with its first socket
  socket->Bind(&layer);
  socket->secure = true;
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  OSBuf* const buf = buffer_of(first);
  buf->AddBufferCallback(OSCallback::Alloc(
      nullptr, [](OSObj* obj, ADDR, ULONG) { reinterpret_cast<AsyncSocket*>(obj)->Free(); },
      reinterpret_cast<OSObj*>(socket), nullptr, 0));
  ASSERT_EQ(socket->DataIndication(buf), Success);
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(socket->DataIndication(counted(std::string(kWhole, 'x'), freed)), Success);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  TlsEnd peer(good_server(), Descriptor(listener.accept().release()));
  EXPECT_TRUE(peer.handshake());
  EXPECT_TRUE(same_bytes(peer.read_to_end(), first));
  ASSERT_TRUE(wait_until([] { return BuriedSocket::is_dead.load(); }, kPatienceMs));
  EXPECT_TRUE(wait_until([&] { return freed == 3; }, kPatienceMs));
  EXPECT_TRUE(wait_until([&] { return running_threads() <= threads; }, kPatienceMs));
  EXPECT_TRUE(BuriedSocket::rests_in_peace());
  EXPECT_THAT(layer.story(), ElementsAre("connect"));
}

// ---- When TLS has been stopped -------------------------------------------------------------------------------

TEST_P(TlsSocketGiven, AfterTheSessionHasBeenStoppedLeavesAsItIs) {
  RecordingLayer layer;
  PeerStream stream;
  OwnedSocket socket = established_stream(&layer, &stream, indirect());
  TlsEnd peer(good_client(), Descriptor(stream.release()));
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return now_of(socket->secure_state) == SecSecure; }, kPatienceMs));
  socket->StopSSL();
  EXPECT_EQ(peer.read_to_end(), "");
  ASSERT_TRUE(peer.closed());
  if (indirect()) {
    ASSERT_TRUE(ComeRound().pass());
  }
  EXPECT_EQ(socket->DataIndication(buffer_of("in the clear")), Success);
  EXPECT_EQ(receive_plainly(peer.fd(), 12), "in the clear");
}

TEST_P(TlsSocketGiven, BeforeAHandshakeIsStoppedLeavesAsItIs) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, indirect());
  EXPECT_EQ(socket->StartSSL(true, 0, nullptr), -1);
  EXPECT_EQ(socket->DataIndication(buffer_of("given early")), Success);
  EXPECT_THAT(early_data(socket.get()), ElementsAre("given early"));
  if (indirect()) {
    ASSERT_TRUE(ComeRound().pass());
  }
  EXPECT_THAT(early_data(socket.get()), ElementsAre("given early"));
  socket->StopSSL();
  EXPECT_EQ(peer.receive(11), "given early");
}

TEST_P(TlsSocketGiven, StaysWhereItIsWhenASocketThatIsToBeSecureIsStopped) {
  SecureServer server(indirect());
  server.socket->ConnectAck();
  EXPECT_EQ(server.socket->DataIndication(buffer_of("secret")), Success);
  server.socket->StopSSL();
  // What comes in the clear shows that its thread has looked at the socket again. The first may still go to a step of
  // the handshake that has begun.
  for (const char* const text : {"x", "y", "z"}) {
    ASSERT_EQ(::send(server.peer->fd(), text, 1, MSG_NOSIGNAL), 1);
    ASSERT_TRUE(wait_until(
        [&] {
          return *text == 'x' ? bytes_waiting(server.socket->s) == 0 : server.layer.data().ends_with(text);
        },
        kPatienceMs));
  }
  EXPECT_THAT(early_data(server.socket.get()), ElementsAre("secret"));
  EXPECT_EQ(bytes_waiting(server.peer->fd()), 0);
}

}  // namespace
