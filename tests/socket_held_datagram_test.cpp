// Datagrams that are given to a socket while it waits for the name of its peer: held, and sent when the name is found.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/held_datagram_fixture.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

INSTANTIATE_TEST_SUITE_P(Ways, SocketHeldDatagram, testing::Bool(), way_name);

// ---- Held and sent -----------------------------------------------------------------------------------------------

TEST_P(SocketHeldDatagram, GoesOutOnceWhenTheNameIsFound) {
  const Destinations sent;
  OwnedSocket socket = waiting();
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_THAT(sent.all(), IsEmpty());
  EXPECT_THAT(early_data(socket.get()), ElementsAre("hello"));
  EXPECT_EQ(buffers_out(), 1);
  EXPECT_EQ(state_of(*socket), SSInitial);
  find();
  EXPECT_EQ(state_of(*socket), SSConnected);
  UWORD from = 0;
  std::string text;
  ASSERT_TRUE(peer_.receive(&text, &from));
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(from, socket->LocalPort());
  EXPECT_THAT(sent.all(), ElementsAre(peers_address()));
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(early_data(socket.get()), IsEmpty());
  os_check_triggers();
  EXPECT_THAT(received_by(peer_), IsEmpty());
  EXPECT_EQ(layer_.count(), 0u);
}

TEST_P(SocketHeldDatagram, UpToEightGoOutInOrderEachForItself) {
  for (int count = 1; count <= kMostHeld; ++count) {
    const Destinations sent;
    DNSEntry::Clear("peer.test");
    FakeResolver::hold();
    OwnedSocket socket = waiting();
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) {
      texts.push_back(std::string(static_cast<std::size_t>(i) * 100, static_cast<char>('a' + i)));
      EXPECT_EQ(socket->DataIndication(buffer_of(texts.back())), Success) << i;
    }
    EXPECT_EQ(buffers_out(), count) << "nothing is merged";
    find(static_cast<std::size_t>(count));
    EXPECT_EQ(received_by(peer_), texts) << "an empty one, too";
    EXPECT_THAT(sent.all(), SizeIs(static_cast<std::size_t>(count)));
    EXPECT_THAT(sent.all(), Each(peers_address()));
    EXPECT_EQ(buffers_out(), 0);
  }
}

TEST_P(SocketHeldDatagram, TheNinthIsRefused) {
  OwnedSocket socket = waiting();
  std::vector<std::string> texts;
  for (int i = 0; i < kMostHeld; ++i) {
    texts.push_back("held " + std::to_string(i));
    EXPECT_EQ(socket->DataIndication(buffer_of(texts.back())), Success);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(socket->DataIndication(buffer_of("too many")), NoConnection);
    EXPECT_EQ(buffers_out(), kMostHeld);
  }
  EXPECT_EQ(socket->DataExpeditedIndication(buffer_of("too many")), NoConnection);
  EXPECT_EQ(buffers_out(), kMostHeld);
  find();
  EXPECT_EQ(received_by(peer_), texts);
  EXPECT_EQ(socket->DataIndication(buffer_of("now there is room")), Success);
  EXPECT_THAT(received_by(peer_), ElementsAre("now there is room"));
  EXPECT_EQ(buffers_out(), 0);
}

TEST_P(SocketHeldDatagram, ExpeditedDataWaitsToo) {
  OwnedSocket socket = waiting();
  EXPECT_EQ(socket->DataIndication(buffer_of("one")), Success);
  EXPECT_EQ(socket->DataExpeditedIndication(buffer_of("two")), Success);
  EXPECT_EQ(buffers_out(), 2);
  find();
  EXPECT_THAT(received_by(peer_), ElementsAre("one", "two"));
}

TEST_P(SocketHeldDatagram, WhatComesLaterGoesAtOnceBehindIt) {
  OwnedSocket socket = waiting();
  socket->DataIndication(buffer_of("held"));
  find();
  EXPECT_EQ(socket->DataIndication(buffer_of("direct")), Success);
  EXPECT_THAT(received_by(peer_), ElementsAre("held", "direct"));
  EXPECT_EQ(buffers_out(), 0);
}

// The answer may come while the name is still being asked for, and so may what somebody else sends.
TEST_P(SocketHeldDatagram, WaitsBeforeTheNameIsAskedFor) {
  AsyncSocket::Cleanup();  // its threads print
  {
    const Destinations sent;
    OwnedSocket socket;
    ActsOnceAtALine console_line("DNSEntry::Lookup - 'peer.test'", [&socket] {
      EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
    });
    std::atomic_ref<int>(DNSEntry::trace).store(2);
    socket = make();
    EXPECT_EQ(socket->Connect("peer.test", peer_.port()), 0);
    std::atomic_ref<int>(DNSEntry::trace).store(0);
    EXPECT_TRUE(console_line.has_acted());
    EXPECT_THAT(sent.all(), IsEmpty());
    find();
    EXPECT_THAT(received_by(peer_), ElementsAre("hello"));
    socket.reset();
    AsyncSocket::Cleanup();
  }
}

TEST_P(SocketHeldDatagram, TheLargestDatagramIsHeld) {
  const std::string largest = numbered_bytes(65507);
  OwnedSocket socket = waiting();
  EXPECT_EQ(socket->DataIndication(buffer_of(largest)), Success);
  find();
  std::string text;
  ASSERT_TRUE(peer_.receive(&text));
  EXPECT_TRUE(text == largest);
}

TEST_P(SocketHeldDatagram, TheSecondDescriptorSendsItAsWell) {
  PeerUdp other;
  const Destinations sent;
  OwnedSocket socket = waiting();
  put_into(socket->rtps, bound_socket(SOCK_DGRAM).release());
  const UWORD second_port = local_port_of(socket->rtps);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_THAT(sent.all(), IsEmpty());
  find();
  std::string text;
  UWORD first_from = 0, second_from = 0;
  ASSERT_TRUE(peer_.receive(&text, &first_from));
  ASSERT_TRUE(peer_.receive(&text, &second_from));
  EXPECT_EQ(first_from, socket->LocalPort());
  EXPECT_EQ(second_from, second_port);
  EXPECT_THAT(sent.all(), ElementsAre(peers_address(), peers_address()));
}

TEST_P(SocketHeldDatagram, IsTracedWhenItGoesOut) {
  for (const int level : {0, 1, 2}) {
    SCOPED_TRACE(level);
    DNSEntry::Clear("peer.test");
    FakeResolver::hold();
    OwnedSocket socket = waiting();
    const Tracing tracing(level);
    console.clear();
    socket->DataIndication(buffer_of("hello"));
    EXPECT_EQ(console.count("AsyncSocket::DataIndication"), 0);
    find(static_cast<std::size_t>(level) + 1);
    EXPECT_EQ(console.count(text_of("AsyncSocket::DataIndication - Sending 5 bytes to %s from ",
                                    peers_address().c_str())),
              level >= 2 ? 1 : 0);
    EXPECT_EQ(console.count(" len 5, "), level >= 2 ? 1 : 0);
  }
}

TEST_P(SocketHeldDatagram, ANameThatIsKnownHoldsNothing) {
  FakeResolver::release();
  DNSEntry::Lookup("peer.test", nullptr);
  ASSERT_TRUE(delivered(1));
  OwnedSocket socket = waiting();
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(received_by(peer_), ElementsAre("hello"));
}

TEST_P(SocketHeldDatagram, EachSocketHoldsItsOwn) {
  PeerUdp second_peer;
  OwnedSocket first = waiting(), second = make();
  EXPECT_EQ(second->Connect("peer.test", second_peer.port()), 0);
  first->DataIndication(buffer_of("first"));
  second->DataIndication(buffer_of("second"));
  find();
  EXPECT_THAT(received_by(peer_), ElementsAre("first"));
  EXPECT_THAT(received_by(second_peer), ElementsAre("second"));
}

TEST_P(SocketHeldDatagram, OneThatTheSystemRefusesIsDropped) {
  Destinations sent;
  OwnedSocket socket = waiting();
  for (const char* text : {"one", "two", "three"})
    EXPECT_EQ(socket->DataIndication(buffer_of(text)), Success);
  sent.refuse(ENETUNREACH);
  find();
  EXPECT_THAT(sent.all(), SizeIs(3));
  EXPECT_EQ(console.count("AsyncSocket::DataIndication: sendto() errno="), 3);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(state_of(*socket), SSConnected) << "a datagram's failure disconnects nothing";
  sent.refuse(0);
  EXPECT_EQ(socket->DataIndication(buffer_of("four")), Success);
  EXPECT_THAT(received_by(peer_), ElementsAre("four"));
}

// ---- Given another destination meanwhile -------------------------------------------------------------------------

TEST_P(SocketHeldDatagram, AConnectToAnAddressSendsItThere) {
  for (int way = 0; way < 3; ++way) {
    SCOPED_TRACE(way);
    DNSEntry::Clear("peer.test");
    FakeResolver::hold();
    PeerUdp other;
    OwnedSocket socket = waiting();
    socket->DataIndication(buffer_of("one"));
    socket->DataIndication(buffer_of("two"));
    SockAddr address(kLoopback, other.port());
    switch (way) {
      case 0:
        EXPECT_EQ(socket->Connect(kLoopback, other.port()), 0);
        break;
      case 1:
        EXPECT_EQ(socket->Connect(address), 0);
        break;
      default:
        EXPECT_EQ(socket->Connect("127.0.0.1", other.port()), 0);
        break;
    }
    EXPECT_THAT(received_by(other), ElementsAre("one", "two"));
    EXPECT_EQ(buffers_out(), 0);
    find(static_cast<std::size_t>(way) + 1);
    EXPECT_THAT(received_by(other), IsEmpty()) << "once";
    EXPECT_THAT(received_by(peer_), IsEmpty()) << "once";
  }
}

TEST_P(SocketHeldDatagram, OfTwoNamesTheFirstThatIsFoundGetsIt) {
  FakeResolver::know("other.test", kLoopback);
  OwnedSocket socket = waiting();
  EXPECT_EQ(socket->Connect("other.test", peer_.port()), 0);
  socket->DataIndication(buffer_of("hello"));
  find(2);
  EXPECT_THAT(received_by(peer_), ElementsAre("hello")) << "once";
  EXPECT_EQ(buffers_out(), 0);
}

// ---- Sockets that wait for nothing -------------------------------------------------------------------------------

TEST_P(SocketHeldDatagram, ASocketThatWasNeverConnectedSendsToItsRemoteAddressAsEver) {
  const Destinations sent;
  OwnedSocket socket = make();
  socket->DataIndication(buffer_of("nowhere"));
  EXPECT_THAT(sent.all(), ElementsAre("0.0.0.0:0"));
  socket->rem_sin.Set(kLoopback, peer_.port());
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_THAT(received_by(peer_), ElementsAre("hello"));
  EXPECT_EQ(buffers_out(), 0);
}

TEST_P(SocketHeldDatagram, ADatagramForAGivenAddressDoesNotWait) {
  PeerUdp other;
  SockAddr to(kLoopback, other.port());
  OwnedSocket socket = waiting();
  EXPECT_EQ(socket->DatagramIndication(buffer_of("given"), nullptr, static_cast<sockaddr*>(to)), Success);
  EXPECT_THAT(received_by(other), ElementsAre("given"));
  EXPECT_EQ(socket->DatagramIndication(buffer_of("none"), nullptr, nullptr), Blocked);
  EXPECT_EQ(buffers_out(), 0);
  find();
  EXPECT_THAT(received_by(peer_), IsEmpty());
}

TEST_P(SocketHeldDatagram, ASocketThatIsConnectedSendsWhileAnotherNameIsLookedUp) {
  PeerUdp other;
  OwnedSocket socket = make();
  EXPECT_EQ(socket->Connect(kLoopback, peer_.port()), 0);
  EXPECT_EQ(socket->Connect("peer.test", other.port()), 0);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(received_by(other), ElementsAre("hello")) << "its port is the new one already";
  find();
  EXPECT_THAT(received_by(other), IsEmpty());
}

TEST_P(SocketHeldDatagram, WhatAStreamHasQueuedStaysWhenTheNameIsNotFound) {
  FakeResolver::forget("peer.test");
  const Owned<ControlProbe> socket(new ControlProbe(GetParam()));
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  EXPECT_EQ(socket->Connect("peer.test", peer_.port()), 0);
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  find();
  EXPECT_EQ(state_of(*socket), SSDisconnected);
  EXPECT_THAT(early_data(socket.get()), ElementsAre("hello")) << "until Close, as ever";
  socket->Close();
  EXPECT_EQ(buffers_out(), 0);
}

TEST_P(SocketHeldDatagram, ATextWithoutAnAddressHoldsNothing) {
  OwnedSocket socket = make();
  EXPECT_EQ(socket->Connect("0.0.0.0", peer_.port()), -1);
  EXPECT_EQ(socket->DataIndication(buffer_of("x")), NoConnection);
  EXPECT_EQ(buffers_out(), 0);
}

TEST_P(SocketHeldDatagram, ReceptionGoesOnWhileItWaits) {
  OwnedSocket socket = waiting();
  socket->DataIndication(buffer_of("held"));
  ASSERT_TRUE(peer_.send_to(socket->LocalPort(), "incoming"));
  ASSERT_TRUE(dispatch_until([this] { return layer_.count() == 1; }));
  EXPECT_THAT(layer_.story(), ElementsAre("datagram:incoming"));
  EXPECT_EQ(buffers_out(), 1);
}

// ---- Several threads ---------------------------------------------------------------------------------------------

class SocketHeldDatagramThreads : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    FakeResolver::reset();
    NetworkTest::SetUp();
    FakeResolver::know("peer.test", kLoopback);
  }
  void TearDown() override {
    FakeResolver::release();
    NetworkTest::TearDown();
  }
};

INSTANTIATE_TEST_SUITE_P(Ways, SocketHeldDatagramThreads, testing::Bool(), way_name);

TEST_P(SocketHeldDatagramThreads, NothingOvertakesWhatIsHeld) {
  FakeResolver::hold();
  RecordingLayer layer;
  PeerUdp peer;
  {
    const Tracing tracing(2);
    std::unique_ptr<WatchedThread> late;
    OwnedSocket socket;
    // Somebody sends while the first one is about to go out.
    ActsOnceAtALine console_line("AsyncSocket::DataIndication - Sending 3 bytes", [&] {
      late = std::make_unique<WatchedThread>([&socket] { socket->DataIndication(buffer_of("late")); });
      late->finished_within(100);
    });
    socket = datagram_socket(&layer, GetParam());
    ASSERT_EQ(socket->Connect("peer.test", peer.port()), 0);
    ASSERT_EQ(socket->DataIndication(buffer_of("one")), Success);
    ASSERT_EQ(socket->DataIndication(buffer_of("two")), Success);
    FakeResolver::release();
    EXPECT_EQ(peer.receive_text(), "one");
    EXPECT_EQ(peer.receive_text(), "two");
    EXPECT_EQ(peer.receive_text(), "late");
    EXPECT_TRUE(console_line.has_acted());
    ComeRound round;
    EXPECT_TRUE(round.pass()) << "the dispatcher has left the socket";
    late.reset();
    socket.reset();
    AsyncSocket::Cleanup();  // its threads print
  }
}

/// "thread number": compares the numbers.
bool is_earlier(const std::string& left, const std::string& right) {
  return std::stoul(left.substr(2)) < std::stoul(right.substr(2));
}

TEST_P(SocketHeldDatagramThreads, SendersBesideTheDeliveryLoseNothingThatWasTakenAndKeepTheirOrder) {
  constexpr int kThreads = 4, kEach = 20, kRounds = 15;
  RecordingLayer layer;
  for (int round = 0; round < kRounds; ++round) {
    PeerUdp peer;
    DNSEntry::Clear("peer.test");
    FakeResolver::hold();
    const std::size_t calls = FakeResolver::calls().size();
    OwnedSocket socket = datagram_socket(&layer, GetParam());
    ASSERT_EQ(socket->Connect("peer.test", peer.port()), 0);
    std::vector<std::vector<std::string>> taken(kThreads);
    std::atomic<int> other_results{0}, sent{0};
    {
      std::vector<std::unique_ptr<WatchedThread>> senders;
      for (int t = 0; t < kThreads; ++t) {
        senders.push_back(std::make_unique<WatchedThread>([&, t] {
          std::size_t number = 1000;
          // Until the name has been found, and then some more.
          for (int left = kEach; left > 0; left -= state_of(*socket) == SSConnected ? 1 : 0) {
            const std::string text = std::to_string(t) + " " + std::to_string(number++);
            const OSIORetCode result = socket->DataIndication(buffer_of(text));
            if (result == Success) {
              taken[static_cast<std::size_t>(t)].push_back(text);
            } else if (result != NoConnection) {
              ++other_results;
            }
            ++sent;
          }
        }));
      }
      // Some are held, and the others meet the delivery.
      EXPECT_TRUE(FakeResolver::wait_for_calls(calls + 1));
      EXPECT_TRUE(wait_until([&] { return sent > round * 2; }, kPatienceMs));
      FakeResolver::release();
    }
    ASSERT_TRUE(comes_to_state(*socket, SSConnected));
    ASSERT_TRUE(wait_until([&] { return early(*socket) == 0; }, kPatienceMs));
    EXPECT_EQ(socket->DataIndication(buffer_of("end")), Success);
    std::vector<std::vector<std::string>> received(kThreads);
    for (;;) {
      const std::string text = peer.receive_text();
      ASSERT_NE(text, "(none)");
      if (text == "end") break;
      received.at(static_cast<std::size_t>(text[0] - '0')).push_back(text);
    }
    for (std::size_t t = 0; t < kThreads; ++t) {
      EXPECT_TRUE(
          std::is_permutation(received[t].begin(), received[t].end(), taken[t].begin(), taken[t].end()))
          << "each datagram that was taken goes out once";
      EXPECT_TRUE(std::is_sorted(received[t].begin(), received[t].end(), is_earlier))
          << "what a thread has sent comes in its order";
    }
    EXPECT_EQ(other_results, 0);
  }
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_P(SocketHeldDatagramThreads, SocketsThatGoBesideTheDeliveryLeaveNothing) {
  constexpr int kRounds = 60;
  RecordingLayer layer;
  PeerUdp peer;
  for (int round = 0; round < kRounds; ++round) {
    DNSEntry::Clear("peer.test");
    if (round % 3 == 0) {
      FakeResolver::forget("peer.test");
    } else {
      FakeResolver::know("peer.test", kLoopback);
    }
    OwnedSocket socket = datagram_socket(&layer, GetParam());
    ASSERT_EQ(socket->Connect("peer.test", peer.port()), 0);
    WatchedThread sender([&socket] {
      for (int i = 0; i < 12; ++i) socket->DataIndication(buffer_of("x"));
    });
    if (round % 2 == 0) {
      socket->Close();
    } else {
      socket->DataIndication(buffer_of("y"));
    }
    ASSERT_TRUE(sender.finished_within(kPatienceMs));
    socket.reset();
    EXPECT_EQ(PoolState::now().buffers_out, 0) << round;
    std::string bytes;
    while (peer.receive(&bytes, nullptr, 0)) {
    }
  }
}

}  // namespace
