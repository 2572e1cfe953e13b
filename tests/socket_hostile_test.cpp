// Peers that mean harm or are broken: slow, deaf, rude, urgent, too many. Each of them is dealt with on its own
// connection; the others keep their service meanwhile, with every message once and in order.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "network/asocket.h"
#include "support/echo_service.h"
#include "support/network_fixture.h"
#include "support/socket_pairs.h"

namespace oskernel_test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kFlood = 60;
#else
constexpr int kFlood = 300;
#endif
/// The system itself makes a peer wait for seconds when a listener's queue has been full.
constexpr int kFloodPatienceMs = 60000;

class SocketHostile : public NetworkTest, public testing::WithParamInterface<Framing> {
 protected:
  void SetUp() override {
    for (int& quantity : cfg.buf_qty) quantity = 4000;
    cfg.callback_qty = 4000;
    NetworkTest::SetUp();
  }
  static std::string packet(std::string_view text) { return framed(GetParam(), text); }
  /// Three messages as one stream.
  static std::string conversation() { return packet("first") + packet("the second one") + packet("3rd"); }

  EchoService& service() {
    if (!service_) service_ = std::make_unique<EchoService>(GetParam());
    return *service_;
  }
  Witnesses& witnesses() {
    if (!witnesses_) witnesses_ = std::make_unique<Witnesses>(GetParam(), service().port(), 6);
    return *witnesses_;
  }
  /// A new connection that the service has taken in. The listener's queue is short, and whom it turns away the system
  /// makes wait for a second.
  PeerStream peer() {
    const long before = service().accepted_count();
    PeerStream stream = PeerStream::connect_to(service().port());
    EXPECT_TRUE(wait_until([&] { return service().accepted_count() > before; }, kPatienceMs));
    return stream;
  }
  /// While the system still has to do with a flood, it may reset a new connection or let it wait.
  void expect_service_for_newcomers() {
    EXPECT_TRUE(wait_until(
        [this] {
          PeerStream newcomer = PeerStream::connect_to(service().port());
          return newcomer.is_open() && newcomer.send_all(packet("new")) &&
                 newcomer.receive(packet("new").size()) == packet("new");
        },
        kFloodPatienceMs));
  }
  void TearDown() override {
    witnesses_.reset();
    service_.reset();
    NetworkTest::TearDown();
  }

 private:
  std::unique_ptr<EchoService> service_;
  std::unique_ptr<Witnesses> witnesses_;
};
INSTANTIATE_TEST_SUITE_P(Framings, SocketHostile, testing::Values(Framing::kPlain, Framing::kTpkt),
                         [](const auto& kind) { return name_of(kind.param); });

// ---- Slow --------------------------------------------------------------------------------------------------------

TEST_P(SocketHostile, BytesThatComeOneByOneWithPausesMakeWholeMessages) {
  witnesses();
  PeerStream slow = peer();
  ASSERT_TRUE(slow.is_open());
  const std::string stream = conversation();
  for (const char byte : stream) {
    ASSERT_TRUE(slow.send_all({&byte, 1}));
    ASSERT_TRUE(witnesses().are_served(1));  // meanwhile everyone else is served
  }
  EXPECT_EQ(slow.receive(stream.size()), stream);
}

TEST_P(SocketHostile, PeersThatFallSilentInTheMiddleOfAMessageHoldNobodyUp) {
  witnesses();
  const std::string stream = conversation();
  std::vector<PeerStream> silent;
  for (std::size_t length = 0; length <= stream.size(); ++length) {
    silent.push_back(peer());
    ASSERT_TRUE(silent.back().send_all(stream.substr(0, length)));
  }
  ASSERT_TRUE(witnesses().are_served(10));
  // They are not forgotten either: each of them goes on where it stopped.
  for (std::size_t length = 0; length <= stream.size(); ++length) {
    ASSERT_TRUE(silent[length].send_all(stream.substr(length)));
    EXPECT_EQ(silent[length].receive(stream.size()), stream) << "after " << length << " bytes";
  }
}

// ---- Deaf --------------------------------------------------------------------------------------------------------

TEST_P(SocketHostile, APeerThatNeverReadsIsDisconnectedAndNobodyElse) {
  // The send waits 5 s for room on the thread that serves everyone; the others wait with it and lose nothing.
  witnesses();
  ASSERT_TRUE(witnesses().are_served());
  const std::size_t others = service().live();
  // Its small window is agreed on from the beginning; one that shrinks later makes the system drop acknowledgements.
  Descriptor small(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int bytes = 4096;
  ASSERT_EQ(setsockopt(small.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes), 0);
  const sockaddr_in to = loopback_address(service().port());
  ASSERT_EQ(::connect(small.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  PeerStream deaf(std::move(small));
  ASSERT_TRUE(wait_until([&] { return service().live() == others + 1; }));
  // It sends on and on, as far as it is let: the service cannot get rid of the answers and does not read any more.
  const std::string block = packet(numbered_payload(1500, 1));
  std::size_t at = 0;
  EXPECT_TRUE(wait_until(
      [&] {
        for (ssize_t sent = 1; sent > 0;) {
          sent = send(deaf.fd(), block.data() + at, block.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
          if (sent > 0) at = (at + static_cast<std::size_t>(sent)) % block.size();
        }
        return service().live() == others;
      },
      kFloodPatienceMs));
  EXPECT_TRUE(witnesses().are_served());
  EXPECT_TRUE(deaf.ended());
  EXPECT_EQ(console.count("AsyncSocket::DataIndication: select() timeout, disconnecting"), 1);
}

// ---- Rude --------------------------------------------------------------------------------------------------------

enum class Leaving { kClose, kReset, kHalfClose };

void leave(PeerStream& peer, Leaving how) {
  if (how == Leaving::kClose) peer.close();
  if (how == Leaving::kReset) peer.reset();
  if (how == Leaving::kHalfClose) peer.half_close();
}

TEST_P(SocketHostile, PeersMayLeaveAtEveryPointOfAConversation) {
  witnesses();
  ASSERT_TRUE(witnesses().are_served(1));
  const std::size_t others = service().live();
  const std::string stream = conversation();
  for (const Leaving how : {Leaving::kClose, Leaving::kReset, Leaving::kHalfClose}) {
    for (const bool reads : {false, true}) {
      std::vector<PeerStream> half_closed;
      for (std::size_t sent = 0; sent <= stream.size(); ++sent) {
        PeerStream rude = peer();
        ASSERT_TRUE(rude.is_open());
        ASSERT_TRUE(rude.send_all(stream.substr(0, sent)));
        // One that reads has seen its first answer before it goes.
        const std::string first = packet("first");
        if (reads && sent >= first.size()) {
          EXPECT_EQ(rude.receive(first.size()), first);
        }
        leave(rude, how);
        if (how == Leaving::kHalfClose) half_closed.push_back(std::move(rude));
      }
      for (PeerStream& rude : half_closed) EXPECT_TRUE(rude.ended());
      ASSERT_TRUE(service().comes_down_to(others)) << service().live() << " instead of " << others;
      ASSERT_TRUE(witnesses().are_served(1));
    }
  }
  EXPECT_EQ(service().accepted_count(), service().ended_count() + static_cast<long>(others));
}

/// What a layer sees when its server leaves in some way after each number of bytes of the stream.
void expect_one_end_for_each_leaving(const std::function<AsyncSocket*()>& make, const std::string& stream,
                                     const std::string& whole, bool as_it_comes) {
  PeerListener server;
  for (const Leaving how : {Leaving::kClose, Leaving::kReset, Leaving::kHalfClose}) {
    for (std::size_t sent = 0; sent <= stream.size(); ++sent) {
      RecordingLayer layer;
      const OwnedSocket socket(make());
      socket->Bind(&layer);
      ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
      socket->Connect(INADDR_LOOPBACK, server.port());
      PeerStream far_end = server.accept();
      ASSERT_TRUE(far_end.is_open());
      // A direct socket that is reset before it knows of its connection tries once more, and gets another one.
      if (!socket->indirect_socket) {
        ASSERT_TRUE(layer.wait_for_connect());
      }
      ASSERT_TRUE(far_end.send_all(stream.substr(0, sent)));
      leave(far_end, how);
      ASSERT_TRUE(layer.wait_for_disconnect());
      const std::vector<Indication> all = layer.all();
      EXPECT_EQ(layer.count(Indication::kDisconnect), 1u);
      EXPECT_EQ(all.back().kind, Indication::kDisconnect) << "nothing comes behind the end";
      EXPECT_LE(layer.count(Indication::kConnect), 1u);
      const std::string arrived = layer.data();
      EXPECT_EQ(arrived, whole.substr(0, arrived.size()));
      // A reset may overtake what it was sent behind; a close may not.
      if (how == Leaving::kReset) continue;
      EXPECT_EQ(all.front().kind, Indication::kConnect);
      EXPECT_EQ(all.back().text(), "disconnect(5,0)");
      if (as_it_comes) {
        EXPECT_EQ(arrived, stream.substr(0, sent));
      }
      if (sent == stream.size()) {
        EXPECT_EQ(arrived, whole);
      }
    }
  }
}

TEST_P(SocketHostile, ServersMayLeaveAtEveryPointOfAConversation) {
  witnesses();
  const bool plain = GetParam() == Framing::kPlain;
  expect_one_end_for_each_leaving([] { return new_socket(GetParam()); }, conversation(),
                                  plain ? conversation() : "firstthe second one3rd", plain);
  EXPECT_TRUE(witnesses().are_served(1));
}

class SocketHostileDirect : public NetworkTest {};

TEST_F(SocketHostileDirect, ServersMayLeaveAtEveryPointOfAConversation) {
  const std::string stream = "some bytes";
  expect_one_end_for_each_leaving([] { return new AsyncSocket(false); }, stream, stream, true);
}

TEST_P(SocketHostile, AServerThatStopsListeningBeforeItAcceptsEndsTheConnectionOnce) {
  for (int i = 0; i < 20; ++i) {
    PeerListener server;
    RecordingLayer layer;
    Owned<AsyncSocket> socket(new_socket(GetParam()));
    socket->Bind(&layer);
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    socket->Connect(INADDR_LOOPBACK, server.port());
    if (i % 2 == 0) {
      ASSERT_TRUE(wait_readable(server.fd()));
    }
    server.close();
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_EQ(layer.count(Indication::kDisconnect), 1u);
    EXPECT_EQ(layer.all().back().kind, Indication::kDisconnect);
  }
}

// ---- Urgent ------------------------------------------------------------------------------------------------------

TEST_P(SocketHostile, UrgentBytesStayOutOfTheMessages) {
  witnesses();
  PeerStream urgent = peer();
  ASSERT_TRUE(urgent.is_open());
  for (int i = 0; i < 50; ++i) {
    const std::string message = packet("message " + std::to_string(i));
    const std::size_t cut = static_cast<std::size_t>(i) % message.size();
    ASSERT_TRUE(urgent.send_all(message.substr(0, cut)));
    ASSERT_TRUE(urgent.send_urgent('!'));
    ASSERT_TRUE(urgent.send_all(message.substr(cut)));
    ASSERT_EQ(urgent.receive(message.size()), message) << "urgent byte at " << cut;
  }
  EXPECT_TRUE(witnesses().are_served(1));
}

TEST_P(SocketHostile, AnUrgentByteThatNothingFollowsKeepsNoThreadBusy) {
  PeerStream urgent = peer();
  const std::string message = packet("before");
  ASSERT_TRUE(urgent.send_all(message));
  ASSERT_EQ(urgent.receive(message.size()), message);
  ASSERT_TRUE(urgent.send_urgent('!'));
  ASSERT_TRUE(witnesses().are_served(3));
  witnesses().stop();
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  ASSERT_TRUE(urgent.send_all(message));
  EXPECT_EQ(urgent.receive(message.size()), message);
}

TEST_F(SocketHostileDirect, UrgentBytesStayOutOfTheMessages) {
  PeerListener server;
  RecordingLayer layer;
  const OwnedSocket socket = direct_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, server.port());
  PeerStream urgent = server.accept();
  ASSERT_TRUE(urgent.is_open());
  std::string expected;
  for (int i = 0; i < 20; ++i) {
    const std::string message = "message " + std::to_string(i) + ";";
    const std::size_t cut = static_cast<std::size_t>(i) % message.size();
    ASSERT_TRUE(urgent.send_all(message.substr(0, cut)));
    ASSERT_TRUE(urgent.send_urgent('!'));
    ASSERT_TRUE(urgent.send_all(message.substr(cut)));
    expected += message;
    ASSERT_TRUE(layer.wait_for_bytes(expected.size())) << "urgent byte at " << cut;
  }
  EXPECT_EQ(layer.data(), expected);
}

TEST_P(SocketHostile, AFloodOfUrgentBytesHoldsNobodyUp) {
  witnesses();
  for (int i = 0; i < 10; ++i) {
    PeerStream urgent = peer();
    // The system makes ordinary bytes of those that another one overtakes; what the connection does with them is its
    // own business.
    for (int k = 0; k < 100; ++k) {
      if (!urgent.send_urgent('!') || (k % 7 == 0 && !urgent.send_all("x"))) break;
    }
    ASSERT_TRUE(witnesses().are_served(1));
    if (i % 2 == 0) urgent.reset();
  }
}

// ---- Too many ----------------------------------------------------------------------------------------------------

/// One connection of a flood: asks once, and is answered, or turned away by the system when the listener's queue is
/// full (it may even reset what it has taken for established).
struct Drop {
  Descriptor fd;
  std::string question, answer;
  bool asked = false, decided = false;

  /// Goes on as far as it can without waiting.
  void go_on() {
    pollfd now = {fd.get(), POLLIN | POLLOUT, 0};
    if (decided || poll(&now, 1, 0) <= 0) return;
    if (!asked && (now.revents & POLLOUT) != 0) {
      asked = send(fd.get(), question.data(), question.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
      decided = !asked;
    } else if ((now.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      char bytes[256];
      const ssize_t got = recv(fd.get(), bytes, sizeof bytes, MSG_DONTWAIT);
      if (got > 0) answer.append(bytes, static_cast<std::size_t>(got));
      decided = got <= 0 || answer.size() >= question.size();
    }
  }
};

TEST_P(SocketHostile, AFloodOfConnectionsIsServedAsFarAsTheSystemLetsItIn) {
  witnesses();
  ASSERT_TRUE(witnesses().are_served(1));
  const std::size_t others = service().live();
  std::vector<Drop> flood(kFlood);
  const sockaddr_in to = loopback_address(service().port());
  for (int i = 0; i < kFlood; ++i) {
    flood[i].fd.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    flood[i].question = packet("number " + std::to_string(i));
    ::connect(flood[i].fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  // Those that the system keeps waiting for its next attempt are left to it.
  wait_until(
      [&] {
        for (Drop& drop : flood) drop.go_on();
        return std::all_of(flood.begin(), flood.end(), [](const Drop& drop) { return drop.decided; });
      },
      3000);
  int served = 0;
  for (const Drop& drop : flood) {
    EXPECT_EQ(drop.answer, drop.question.substr(0, drop.answer.size()));
    served += drop.answer == drop.question ? 1 : 0;
  }
  EXPECT_GE(served, 5) << "as many as fit into the listener's queue at once";
  ASSERT_TRUE(witnesses().are_served());
  flood.clear();
  EXPECT_TRUE(service().comes_down_to(others, kFloodPatienceMs))
      << service().live() << " instead of " << others;
  EXPECT_TRUE(witnesses().are_served());
  expect_service_for_newcomers();
}

TEST_P(SocketHostile, AFloodOfConnectionsThatVanishAtOnceLeavesNothing) {
  witnesses();
  ASSERT_TRUE(witnesses().are_served(1));
  const std::size_t others = service().live();
  const sockaddr_in to = loopback_address(service().port());
  for (int i = 0; i < 3 * kFlood; ++i) {
    PeerStream passing(Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));  // does not block
    ::connect(passing.fd(), reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (i % 3 == 0) passing.send_all("x", 0);
    if (i % 3 != 1) passing.reset();
  }
  EXPECT_TRUE(witnesses().are_served());
  expect_service_for_newcomers();
  EXPECT_TRUE(service().comes_down_to(others, kFloodPatienceMs))
      << service().live() << " instead of " << others;
  EXPECT_EQ(service().accepted_count(), service().ended_count() + static_cast<long>(others));
}

// ---- Nonsense ----------------------------------------------------------------------------------------------------

TEST_P(SocketHostile, NonsenseEndsAtMostItsOwnConnection) {
  witnesses();
  ASSERT_TRUE(witnesses().are_served(1));
  const std::size_t others = service().live();
  const std::string nonsense[] = {
      "\x16\x03\x01\x02",                              // the beginning of a TLS handshake
      std::string("\x03\x00\x00\x03", 4),              // a packet shorter than its header
      std::string("\x03\x00\x00\x00", 4),              //
      std::string("\x03\xff\xff\xff", 4) + "never",    // the longest packet, of which little comes
      "GET / HTTP/1.1\r\n\r\n",                        //
      std::string(100000, '\0'),                       //
      std::string(100000, '\xff'),                     //
      packet("good") + std::string("\x03\x00\x00", 3)  // a good one, then half a header
  };
  for (const std::string& bytes : nonsense) {
    PeerStream mad = peer();
    ASSERT_TRUE(mad.is_open());
    mad.send_all(bytes.substr(0, 60000), 1000);  // may be cut off
    ASSERT_TRUE(witnesses().are_served(1));
    mad.reset();
  }
  for (unsigned seed = 1; seed <= 60; ++seed) {
    PeerStream mad = peer();
    ASSERT_TRUE(mad.is_open());
    mad.send_all((seed % 2 == 0 ? packet("good") : "") + numbered_bytes(1 + seed * 37, seed), 1000);
    if (seed % 3 == 0) mad.reset();
  }
  EXPECT_TRUE(service().comes_down_to(others)) << service().live() << " instead of " << others;
  EXPECT_TRUE(witnesses().are_served());
}

}  // namespace
}  // namespace oskernel_test
