// Sending datagrams: to the connected peer or to a given address, once more through the second descriptor, and failures
// that disconnect nothing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/interposed_calls.h"
#include "support/section_wait.h"
#include "support/socket_pairs.h"
#include "support/socket_probe.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SocketSendDatagram : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  void TearDown() override {
    calls().restore_all();
    NetworkTest::TearDown();
  }
  OwnedSocket make(RecordingLayer* layer) { return datagram_socket(layer, GetParam()); }
  /// How often exactly this line has been printed.
  long said(const std::string& text) const {
    const std::vector<std::string> lines = console.calls();
    return std::count(lines.begin(), lines.end(), text);
  }
  /// Connected to the peer, without reception.
  OwnedSocket connected(RecordingLayer* layer, PeerUdp* peer) {
    OwnedSocket socket = make(layer);
    EXPECT_EQ(socket->Connect(kLoopback, peer->port()), 0);
    return socket;
  }
  /// Answers sendto of one descriptor: so many bytes, or a negative errno.
  static void answer_sends(int s, std::function<long(size_t)> answer) {
    calls().sendto.replace([s, answer](auto real, int fd, const void* bytes, size_t count, int flags,
                                       const sockaddr* to, socklen_t length) -> ssize_t {
      if (fd != s) return real(fd, bytes, count, flags, to, length);
      const long result = answer(count);
      if (result >= 0) return result;
      errno = static_cast<int>(-result);
      return -1;
    });
  }
  static SockAddr address_of(PeerUdp& peer) { return SockAddr(kLoopback, peer.port()); }

  RecordingLayer layer_;
};

TEST_P(SocketSendDatagram, DataGoesToTheConnectedPeer) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  EXPECT_TRUE(socket->Connected());
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  std::string text;
  UWORD from = 0;
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(from, socket->LocalPort());
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSendDatagram, ExpeditedDataToo) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  EXPECT_EQ(socket->DataExpeditedIndication(buffer_of("hello")), Success);
  EXPECT_EQ(peer.receive_text(), "hello");
}

TEST_P(SocketSendDatagram, AnEmptyDatagramIsSent) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  EXPECT_EQ(socket->DataIndication(buffer_of("")), Success);
  EXPECT_EQ(peer.receive_text(), "");
}

TEST_P(SocketSendDatagram, TheLargestDatagramIsSentWhole) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  const std::string sent = numbered_bytes(65507);
  EXPECT_EQ(socket->DataIndication(buffer_of(sent)), Success);
  EXPECT_TRUE(peer.receive_text() == sent);
}

TEST_P(SocketSendDatagram, AnAddressIsGivenWhileThereIsNoPeer) {
  PeerUdp first, second;
  OwnedSocket socket = make(&layer_);
  SockAddr to_first = address_of(first), to_second = address_of(second);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("one"), nullptr, static_cast<sockaddr*>(to_first)), Success);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("two"), nullptr, static_cast<sockaddr*>(to_second)),
            Success);
  EXPECT_EQ(first.receive_text(), "one");
  EXPECT_EQ(second.receive_text(), "two");
  EXPECT_EQ(look_at(socket->state), SSInitial);
}

TEST_P(SocketSendDatagram, WithoutAPeerAndWithoutAnAddressItIsBlocked) {
  OwnedSocket socket = make(&layer_);
  int sends = 0;
  answer_sends(socket->s, [&sends](size_t count) {
    ++sends;
    return static_cast<long>(count);
  });
  EXPECT_EQ(socket->DatagramIndication(buffer_of("where to"), nullptr, nullptr), Blocked);
  EXPECT_EQ(sends, 0);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(SocketSendDatagram, WithAPeerTheAddressIsNotLookedAt) {
  PeerUdp peer, stranger;
  OwnedSocket socket = connected(&layer_, &peer);
  SockAddr elsewhere = address_of(stranger);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("one"), nullptr, static_cast<sockaddr*>(elsewhere)),
            Success);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("two"), nullptr, nullptr), Success);
  EXPECT_EQ(peer.receive_text(), "one");
  EXPECT_EQ(peer.receive_text(), "two");
  EXPECT_EQ(stranger.receive_text(0), "(none)");
}

TEST_P(SocketSendDatagram, TheSourceIsNotUsed) {
  PeerUdp peer;
  OwnedSocket socket = make(&layer_);
  SockAddr to = address_of(peer), source(0x01020304, 5);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("one"), static_cast<sockaddr*>(source),
                                       static_cast<sockaddr*>(to)),
            Success);
  std::string text;
  UWORD from = 0;
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(from, socket->LocalPort());
}

TEST_P(SocketSendDatagram, TheSecondDescriptorSendsEveryDatagramOnceMore) {
  PeerUdp peer, other;
  OwnedSocket socket = connected(&layer_, &peer);
  Descriptor second = bound_socket(SOCK_DGRAM);
  const UWORD second_port = local_port_of(second.get());
  socket->rtps = second.release();
  EXPECT_EQ(socket->DataIndication(buffer_of("twice")), Success);
  std::string text;
  UWORD from = 0;
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(text, "twice");
  EXPECT_EQ(from, socket->LocalPort());
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(text, "twice");
  EXPECT_EQ(from, second_port);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("again"), nullptr, nullptr), Success);
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(from, socket->LocalPort());
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(from, second_port);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(SocketSendDatagram, TheSecondOneGoesToTheSocketsPeerWhereverTheFirstGoes) {
  PeerUdp peer, other;
  OwnedSocket socket = make(&layer_);
  socket->rem_sin.Set(kLoopback, peer.port());
  socket->rtps = bound_socket(SOCK_DGRAM).release();
  SockAddr elsewhere = address_of(other);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("both"), nullptr, static_cast<sockaddr*>(elsewhere)),
            Success);
  EXPECT_EQ(other.receive_text(), "both");
  EXPECT_EQ(peer.receive_text(), "both");
}

TEST_P(SocketSendDatagram, CloseClosesTheSecondDescriptorToo) {
  OwnedSocket socket = make(&layer_);
  const int second = bound_socket(SOCK_DGRAM).release();
  socket->rtps = second;
  socket->Close();
  EXPECT_EQ(socket->rtps, -1);
  EXPECT_FALSE(is_open(second));
}

TEST_P(SocketSendDatagram, AFailureOfDataIsPrintedAndDisconnectsNothing) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  answer_sends(socket->s, [](size_t) { return -ENOBUFS; });
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), NoConnection);
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: sendto() errno=%d to 127.0.0.1:%u from 127.0.0.1:%u",
                      socket->s, ENOBUFS, peer.port(), socket->LocalPort())),
            1);
  EXPECT_EQ(look_at(socket->state), SSConnected);
  calls().restore_all();
  EXPECT_EQ(socket->DataIndication(buffer_of("next")), Success);
  EXPECT_EQ(peer.receive_text(), "next");
  EXPECT_EQ(layer_.count(), 0U);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSendDatagram, TooLongADatagramIsAFailureLikeAnyOther) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  const std::string text = numbered_bytes(65530);
  EXPECT_EQ(socket->DataIndication(buffer_of(text)), NoConnection);
  EXPECT_EQ(console.count(line("%d AsyncSocket::DataIndication: sendto() errno=%d to ", socket->s, EMSGSIZE)),
            1);
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

TEST_P(SocketSendDatagram, DataWithoutAPeerFailsInTheSystem) {
  OwnedSocket socket = make(&layer_);
  EXPECT_EQ(socket->DataIndication(buffer_of("where to")), NoConnection);
  EXPECT_EQ(console.count("AsyncSocket::DataIndication: sendto() errno="), 1);
  EXPECT_EQ(look_at(socket->state), SSInitial);
}

TEST_P(SocketSendDatagram, AShortSendIsPrintedAndCountsAsSent) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  answer_sends(socket->s, [](size_t) { return 2L; });
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: sent 2 bytes of 5", socket->s)), 1);
}

TEST_P(SocketSendDatagram, FailuresOfTheSecondDescriptorHaveTheirOwnTexts) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  socket->rtps = bound_socket(SOCK_DGRAM).release();
  answer_sends(socket->rtps, [](size_t) { return -ENOBUFS; });
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), NoConnection);
  EXPECT_EQ(peer.receive_text(), "hello") << "the first one has gone";
  EXPECT_EQ(
      said(line("%d AsyncSocket::DataIndication: rtps sendto() errno=%d to 127.0.0.1:%u from 127.0.0.1:%u",
                socket->s, ENOBUFS, peer.port(), socket->LocalPort())),
      1);
  answer_sends(socket->rtps, [](size_t) { return 2L; });
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication: rtps sent 2 bytes of 5", socket->s)), 1);
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

TEST_P(SocketSendDatagram, TheSecondDescriptorSendsEvenWhenTheFirstFails) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  socket->rtps = bound_socket(SOCK_DGRAM).release();
  answer_sends(socket->s, [](size_t) { return -ENOBUFS; });
  EXPECT_EQ(socket->DataIndication(buffer_of("one")), NoConnection);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("two"), nullptr, nullptr), NoConnection);
  EXPECT_EQ(peer.receive_text(), "one");
  EXPECT_EQ(peer.receive_text(), "two");
}

TEST_P(SocketSendDatagram, AFailureOfADatagramIsPrintedWithItsDetails) {
  PeerUdp peer;
  OwnedSocket socket = make(&layer_);
  const int s = socket->s;
  const void* given = nullptr;
  calls().sendto.replace([s, &given](auto real, int fd, const void* bytes, size_t count, int flags,
                                     const sockaddr* to, socklen_t length) -> ssize_t {
    if (fd != s) return real(fd, bytes, count, flags, to, length);
    given = to;
    errno = ENOBUFS;
    return -1;
  });
  SockAddr to = address_of(peer);
  OSBuf* buf = buffer_of("hello");
  const void* const data = buf->data;
  EXPECT_EQ(socket->DatagramIndication(buf, nullptr, static_cast<sockaddr*>(to)), NoConnection);
  const std::string text =
      line("%d AsyncSocket::DatagramIndication: sendto() errno=%d, to 127.0.0.1:%u from 127.0.0.1:%u", s,
           ENOBUFS, peer.port(), socket->LocalPort());
  const std::string detail =
      line("    sendto(socket=%d, buffer=%p, length=5, flags=0, dest_addr=%p (127.0.0.1:%u), dest_len=16", s,
           data, given, peer.port());
  EXPECT_EQ(said(text), 1) << console.text();
  EXPECT_EQ(said(detail), 1) << console.text();
  EXPECT_LT(console.text().find(text), console.text().find(detail));
  EXPECT_EQ(look_at(socket->state), SSInitial);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSendDatagram, OnTheSecondDescriptorTheTextHasNoComma) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  socket->rtps = bound_socket(SOCK_DGRAM).release();
  const int second = socket->rtps;
  answer_sends(second, [](size_t) { return -ENOBUFS; });
  EXPECT_EQ(socket->DatagramIndication(buffer_of("hello"), nullptr, nullptr), NoConnection);
  EXPECT_EQ(
      said(line("%d AsyncSocket::DatagramIndication: sendto() errno=%d to 127.0.0.1:%u from 127.0.0.1:%u",
                socket->s, ENOBUFS, peer.port(), socket->LocalPort())),
      1)
      << console.text();
  EXPECT_EQ(console.count(line("    sendto(socket=%d, buffer=", second)), 1);
  EXPECT_EQ(console.count(line("(127.0.0.1:%u), dest_len=16", peer.port())), 1);
  EXPECT_EQ(peer.receive_text(), "hello");
}

TEST_P(SocketSendDatagram, AFailureOfTheSecondDescriptorNamesTheSocketsPeer) {
  PeerUdp peer, other;
  OwnedSocket socket = make(&layer_);
  socket->rem_sin.Set(kLoopback, peer.port());
  socket->rtps = bound_socket(SOCK_DGRAM).release();
  answer_sends(socket->rtps, [](size_t) { return -ENOBUFS; });
  SockAddr elsewhere = address_of(other);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("hello"), nullptr, static_cast<sockaddr*>(elsewhere)),
            NoConnection);
  EXPECT_EQ(console.count(line("sendto() errno=%d to 127.0.0.1:%u from", ENOBUFS, peer.port())), 1);
  EXPECT_EQ(console.count(line("(127.0.0.1:%u), dest_len=16", peer.port())), 1) << console.text();
  EXPECT_EQ(other.receive_text(), "hello");
}

TEST_P(SocketSendDatagram, ASystemWithoutRoomIsWaitedForByADirectSocketAlone) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  const int s = socket->s;
  std::vector<std::string> asked;
  const auto answer_with = [&](int error) {
    calls().sendto.replace([&asked, s, error](auto real, int fd, const void* bytes, size_t count, int flags,
                                              const sockaddr* to, socklen_t length) -> ssize_t {
      if (fd != s) return real(fd, bytes, count, flags, to, length);
      const bool may_wait = (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0 && (flags & MSG_DONTWAIT) == 0;
      asked.emplace_back(may_wait ? "waits" : "tries");
      if (may_wait) return real(fd, bytes, count, flags, to, length);
      errno = error;
      return -1;
    });
  };
  const bool indirect = GetParam();
  answer_with(EAGAIN);
  EXPECT_EQ(socket->DataIndication(buffer_of("one")), indirect ? NoConnection : Success);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("two"), nullptr, nullptr),
            indirect ? NoConnection : Success);
  EXPECT_THAT(asked,
              ElementsAre("tries", indirect ? "tries" : "waits", "tries", indirect ? "tries" : "waits"));
  EXPECT_EQ(console.count(line("sendto() errno=%d", EAGAIN)), indirect ? 2 : 0);
  EXPECT_EQ(look_at(socket->state), SSConnected);
  EXPECT_EQ(peer.receive_text(indirect ? 0 : kPeerPatienceMs), indirect ? "(none)" : "one");
  EXPECT_EQ(peer.receive_text(indirect ? 0 : kPeerPatienceMs), indirect ? "(none)" : "two");

  asked.clear();
  answer_with(ENOBUFS);
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), NoConnection);
  EXPECT_THAT(asked, ElementsAre("tries")) << "other failures are final";
}

TEST_P(SocketSendDatagram, NothingClosesTheDescriptorThatASenderIsWritingTo) {
  // Its number could be another socket's before the datagram is on its way.
  for (const bool data : {true, false}) {
    for (const bool second : {false, true}) {
      SCOPED_TRACE(line("data %d, second descriptor %d", data, second));
      PeerUdp peer;
      OwnedSocket socket = connected(&layer_, &peer);
      socket->rtps = bound_socket(SOCK_DGRAM).release();
      Gate inside, door;
      const int fd = second ? socket->rtps : socket->s;
      std::atomic<bool> still_open{false};
      answer_sends(fd, [&](size_t count) {
        inside.open();
        door.wait();
        still_open = is_open(fd);
        return static_cast<long>(count);
      });
      WatchedThread sender([&] {
        OSBuf* buf = buffer_of("hello");
        data ? socket->DataIndication(buf) : socket->DatagramIndication(buf, nullptr, nullptr);
      });
      ASSERT_TRUE(inside.wait());
      WatchedThread closing([&] { socket->Close(); });
      EXPECT_TRUE(closing.blocked());
      door.open();
      EXPECT_TRUE(closing.finished_within(kPatienceMs));
      EXPECT_TRUE(sender.finished_within(kPatienceMs));
      EXPECT_TRUE(still_open);
    }
  }
}

TEST_P(SocketSendDatagram, ThePeerIsReadInsideTheSocketsSection) {
  // A name's address is stored by the thread that has found it.
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  ExpectOthersWait(socket->local_cs,
                   {{"data", [&] { EXPECT_EQ(socket->DataIndication(buffer_of("one")), Success); }},
                    {"datagram", [&] {
                       EXPECT_EQ(socket->DatagramIndication(buffer_of("two"), nullptr, nullptr), Success);
                     }}});
}

TEST_P(SocketSendDatagram, AfterCloseNothingIsSent) {
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  put_into(socket->state, static_cast<int>(SSDisconnected));
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketSendDatagram, SaysWhatItSends) {
  put_into(AsyncSocket::trace, 2);
  PeerUdp peer;
  OwnedSocket socket = connected(&layer_, &peer);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("hello"), nullptr, nullptr), Success);
  EXPECT_EQ(said(line("%d AsyncSocket::DataIndication - Sending 5 bytes to 127.0.0.1:%u from 127.0.0.1:%u",
                      socket->s, peer.port(), socket->LocalPort())),
            1);
  EXPECT_EQ(
      said(line("%d AsyncSocket::DatagramIndication - Sending 5 bytes to 127.0.0.1:%u from 127.0.0.1:%u",
                socket->s, peer.port(), socket->LocalPort())),
      1);
  EXPECT_EQ(console.count("68 65 6c 6c 6f"), 2) << "the bytes follow";
  put_into(AsyncSocket::trace, 1);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(socket->DatagramIndication(buffer_of("hello"), nullptr, nullptr), Success);
  EXPECT_EQ(console.count("Sending 5 bytes"), 2) << "only at level 2";
}

TEST_P(SocketSendDatagram, AnAnswerGoesOutInsideTheIndication) {
  PeerUdp peer;
  OwnedSocket socket = make(&layer_);
  AsyncSocket* const raw = socket.get();
  layer_.set_hook([raw](const Indication& indication) {
    SockAddr to = indication.remote;
    EXPECT_EQ(
        raw->DatagramIndication(buffer_of("re: " + indication.data), nullptr, static_cast<sockaddr*>(to)),
        Success);
  });
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), std::to_string(i)));
    EXPECT_EQ(peer.receive_text(), "re: " + std::to_string(i));
  }
  ASSERT_TRUE(layer_.wait_for(20));
}

INSTANTIATE_TEST_SUITE_P(, SocketSendDatagram, testing::Values(true, false),
                         [](const auto& kind) { return std::string(kind.param ? "Indirect" : "Direct"); });

}  // namespace
