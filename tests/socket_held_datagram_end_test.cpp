// What becomes of datagrams that are held when the name of the peer is not found, or the socket ends.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/held_datagram_fixture.h"
#include "support/link_drought.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

INSTANTIATE_TEST_SUITE_P(Ways, SocketHeldDatagram, testing::Bool(), way_name);

// ---- Given up ----------------------------------------------------------------------------------------------------

TEST_P(SocketHeldDatagram, IsFreedWhenTheNameIsNotFound) {
  FakeResolver::forget("peer.test");
  const Destinations sent;
  OwnedSocket socket = waiting();
  for (int i = 0; i < kMostHeld; ++i) EXPECT_EQ(socket->DataIndication(buffer_of("x")), Success);
  EXPECT_EQ(buffers_out(), kMostHeld);
  find();
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(early_data(socket.get()), IsEmpty());
  EXPECT_EQ(state_of(*socket), SSDisconnected);
  EXPECT_TRUE(printed(console, lost_line(socket.get(), "peer.test")));
  EXPECT_EQ(socket->DataIndication(buffer_of("x")), NoConnection);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(sent.all(), IsEmpty());
}

TEST_P(SocketHeldDatagram, TheFailureIsIndicatedAsBefore) {
  FakeResolver::forget("peer.test");
  const Owned<ControlProbe> socket(new ControlProbe(GetParam()));
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  EXPECT_EQ(socket->Connect("peer.test", peer_.port()), 0);
  socket->DataIndication(buffer_of("hello"));
  find();
  EXPECT_EQ(socket->calls, 1);
  EXPECT_EQ(socket->length, 0);
  EXPECT_EQ(socket->bytes, std::string("\x01\x04\0\0\0\0", 6)) << "DisconnectIndication(Failed, 0)";
  EXPECT_EQ(socket->held, 0) << "who is told may free the socket";
  EXPECT_EQ(buffers_out(), 0);
}

/// Takes local_cs for a while: until the failure is indicated.
class StandstillProbe : public ControlProbe {
 public:
  using ControlProbe::ControlProbe;
  void stand_still() {
    EnterCriticalSection(&local_cs);
    standing_ = true;
  }
  void ProcessData(OSBuf* buf) override {
    if (standing_) LeaveCriticalSection(&local_cs);
    standing_ = false;
    ControlProbe::ProcessData(buf);
  }

 private:
  bool standing_ = false;  // of the dispatching thread
};

TEST_P(SocketHeldDatagram, WhoGivesOneWhileTheNameIsFoundWantingIsRefused) {
  FakeResolver::forget("peer.test");
  AsyncSocket::Cleanup();  // its threads print
  {
    const Destinations sent;
    Owned<StandstillProbe> socket(new StandstillProbe(GetParam()));
    std::atomic<OSIORetCode> result{Success};
    std::unique_ptr<WatchedThread> sender;
    // The socket waits for the name still; when the sender goes on, it does not any more.
    ActsOnceAtALine console_line("couldn't resolve host peer.test", [&] {
      socket->stand_still();
      sender =
          std::make_unique<WatchedThread>([&] { result = socket->DataIndication(buffer_of("too late")); });
      EXPECT_TRUE(sender->blocked());
    });
    ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
    EXPECT_EQ(socket->Connect("peer.test", peer_.port()), 0);
    find();
    ASSERT_TRUE(console_line.has_acted());
    EXPECT_TRUE(sender->finished_within(kPatienceMs));
    EXPECT_EQ(result, NoConnection);
    EXPECT_THAT(sent.all(), IsEmpty());
    EXPECT_EQ(buffers_out(), 0);
    sender.reset();
    socket.reset();
    AsyncSocket::Cleanup();
  }
}

TEST_P(SocketHeldDatagram, WithoutALinkItIsRefused) {
  OwnedSocket socket = waiting();
  OSBuf* const buf = buffer_of("hello");
  {
    const LinkDrought drought;
    EXPECT_EQ(socket->DataIndication(buf), NoConnection);
  }
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(early_data(socket.get()), IsEmpty());
  expected_fatals = console.fatals();
  EXPECT_EQ(expected_fatals, std::vector<std::string>{kOutOfLinks});
}

/// A buffer of the application's own that notes where it is freed.
class NotingBuffer : public OSBuf {
 public:
  explicit NotingBuffer(AsyncSocket* socket) : socket_(socket) {
    SetPayload(bytes_, UWORD{sizeof bytes_});
    data = payload;
    length = UWORD{sizeof bytes_};
  }
  void Free() override {
    ++freed;
    levels += levels_inside(socket_->local_cs);
    if (next != nullptr) next_result = socket_->DataIndication(std::exchange(next, nullptr));
  }
  OSBuf* next = nullptr;  ///< given to the socket then
  OSIORetCode next_result = NotSupported;
  int freed = 0;
  int levels = 0;  // of the socket's section

 private:
  AsyncSocket* const socket_;
  UBYTE bytes_[2] = {'h', 'i'};
};

TEST_P(SocketHeldDatagram, IsFreedOutsideTheSocketsSection) {
  const struct {
    const char* what;
    bool known;
    bool closed;
  } rows[] = {{"found", true, false}, {"not found", false, false}, {"closed", true, true}};
  std::size_t calls = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    DNSEntry::Clear("peer.test");
    FakeResolver::hold();
    if (row.known) {
      FakeResolver::know("peer.test", kLoopback);
    } else {
      FakeResolver::forget("peer.test");
    }
    OwnedSocket socket = waiting();
    NotingBuffer first(socket.get()), second(socket.get());
    EXPECT_EQ(socket->DataIndication(&first), Success);
    EXPECT_EQ(socket->DataIndication(&second), Success);
    if (row.closed) {
      socket->Close();
    }
    find(++calls);
    EXPECT_EQ(first.freed, 1);
    EXPECT_EQ(second.freed, 1);
    EXPECT_EQ(first.levels + second.levels, 0) << "what happens then is the application's";
  }
}

TEST_P(SocketHeldDatagram, AnotherMayBeGivenWhenItIsFreed) {
  for (const bool known : {true, false}) {
    SCOPED_TRACE(known);
    const Destinations sent;
    DNSEntry::Clear("peer.test");
    FakeResolver::hold();
    if (!known) FakeResolver::forget("peer.test");
    OwnedSocket socket = waiting();
    NotingBuffer buf(socket.get());
    buf.next = buffer_of("next");
    EXPECT_EQ(socket->DataIndication(&buf), Success);
    find(known ? 1 : 2);
    EXPECT_EQ(buf.freed, 1);
    EXPECT_EQ(buf.next_result, known ? Success : NoConnection);
    EXPECT_THAT(sent.all(), SizeIs(known ? 2 : 0));
    EXPECT_THAT(sent.all(), Each(peers_address()));
    EXPECT_EQ(buffers_out(), 0);
  }
}

TEST_P(SocketHeldDatagram, ANameThatIsFoundAtTheSecondAttemptSendsNothingOld) {
  FakeResolver::forget("peer.test");
  OwnedSocket socket = waiting();
  socket->DataIndication(buffer_of("old"));
  find();
  FakeResolver::know("peer.test", kLoopback);
  EXPECT_EQ(socket->Connect("peer.test", peer_.port()), 0);
  ASSERT_TRUE(delivered(2));
  EXPECT_THAT(received_by(peer_), IsEmpty());
  EXPECT_EQ(socket->DataIndication(buffer_of("new")), Success);
  EXPECT_THAT(received_by(peer_), ElementsAre("new"));
}

TEST_P(SocketHeldDatagram, CloseFreesIt) {
  const Destinations sent;
  OwnedSocket socket = waiting();
  for (int i = 0; i < kMostHeld; ++i) socket->DataIndication(buffer_of("x"));
  socket->Close();
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(early_data(socket.get()), IsEmpty());
  find();
  EXPECT_THAT(sent.all(), IsEmpty());
}

TEST_P(SocketHeldDatagram, ADescriptorMadeAnewSendsNothingOld) {
  OwnedSocket socket = waiting();
  socket->DataIndication(buffer_of("old"));
  socket->Close();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  find();
  EXPECT_THAT(received_by(peer_), IsEmpty());
  EXPECT_EQ(socket->Connect(kLoopback, peer_.port()), 0);
  EXPECT_EQ(socket->DataIndication(buffer_of("new")), Success);
  EXPECT_THAT(received_by(peer_), ElementsAre("new"));
  EXPECT_EQ(buffers_out(), 0);
}

TEST_P(SocketHeldDatagram, ADescriptorMadeAnewWaitsForNothing) {
  OwnedSocket socket = waiting();
  socket->Close();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  socket->rem_sin.Set(kLoopback, peer_.port());
  EXPECT_EQ(socket->DataIndication(buffer_of("hello")), Success);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(received_by(peer_), ElementsAre("hello"));
}

TEST_P(SocketHeldDatagram, FreeFreesIt) {
  OwnedSocket socket = waiting();
  for (int i = 0; i < kMostHeld; ++i) socket->DataIndication(buffer_of("x"));
  socket.reset();
  EXPECT_EQ(buffers_out(), 0);
  find();
  EXPECT_THAT(received_by(peer_), IsEmpty());
}

TEST_P(SocketHeldDatagram, ANameThatIsClearedSendsNothingAndLeavesNothing) {
  OwnedSocket socket = waiting();
  socket->DataIndication(buffer_of("x"));
  DNSEntry::Clear("peer.test");
  FakeResolver::release();
  os_check_triggers();
  EXPECT_THAT(received_by(peer_), IsEmpty());
  socket.reset();
  EXPECT_EQ(buffers_out(), 0);
}

}  // namespace
