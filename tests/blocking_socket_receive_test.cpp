// What a blocking socket's RecWait gives back: everything that is there, or exactly what was asked for.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/blocking_fixture.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BlockingSocketReceive : public BlockingTest {
 protected:
  /// Sends and waits until all of it lies at the socket, so that one RecWait can have it.
  static void deliver(Wrapped<>& wrapped, const std::string& bytes) {
    const int before = bytes_waiting(wrapped->s);
    ASSERT_TRUE(wrapped.peer.send_all(bytes));
    ASSERT_TRUE(wait_until(
        [&] { return bytes_waiting(wrapped->s) - before == static_cast<int>(bytes.size()); }, kPatienceMs))
        << bytes_waiting(wrapped->s);
  }
};

TEST_F(BlockingSocketReceive, EverythingThatIsThereComesAsOneBuffer) {
  Wrapped<> wrapped;
  deliver(wrapped, "one ");
  deliver(wrapped, "two");
  EXPECT_EQ(taken(wrapped->RecWait(kPatienceMs)), "one two");
  EXPECT_EQ(wrapped->RecWait(0), nullptr);
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, AskingOnlyReturnsAtOnce) {
  Wrapped<> wrapped;
  EXPECT_EQ(wrapped->RecWait(0), nullptr);
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  deliver(wrapped, "there");
  EXPECT_EQ(taken(wrapped->RecWait(0)), "there");
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, NothingInTimeIsNullWithoutALine) {
  Wrapped<> wrapped;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(wrapped->RecWait(120), nullptr);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(119));
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, ItWaitsForWhatComesLater) {
  Wrapped<> wrapped;
  std::string got;
  WatchedThread waiting([&] { got = taken(wrapped->RecWait(kPatienceMs)); });
  EXPECT_TRUE(waiting.blocked());
  wrapped.peer.send_all("late");
  ASSERT_TRUE(waiting.finished_within(kPatienceMs));
  EXPECT_EQ(got, "late");
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, ABufferOfThePoolIsFilledToItsEnd) {
  Wrapped<> wrapped;
  deliver(wrapped, "data");
  OSBuf* const buf = wrapped->RecWait(0);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(buf->length, 4);
  EXPECT_EQ(buf->data + 4, buf->payload + buf->size) << "the data pointer goes back by what is there";
  EXPECT_NE(buf->home_q, nullptr);
  buf->Free();
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, TheSetsSayWhatTheLastWaitFound) {
  Wrapped<> wrapped;
  EXPECT_EQ(wrapped->RecWait(0), nullptr);
  EXPECT_FALSE(FD_ISSET(wrapped->s, &wrapped->readfds));
  EXPECT_FALSE(FD_ISSET(wrapped->s, &wrapped->exceptfds));
  deliver(wrapped, "there");
  taken(wrapped->RecWait(0));
  EXPECT_TRUE(FD_ISSET(wrapped->s, &wrapped->readfds));
  EXPECT_FALSE(FD_ISSET(wrapped->s, &wrapped->exceptfds));
  ASSERT_TRUE(wrapped.peer.send_urgent('!'));
  EXPECT_EQ(wrapped->RecWait(kPatienceMs), nullptr);
  EXPECT_FALSE(FD_ISSET(wrapped->s, &wrapped->readfds));
  EXPECT_TRUE(FD_ISSET(wrapped->s, &wrapped->exceptfds));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, EverySizeComesInOneBufferWhateverThePoolsClassesAre) {
  // The classes' edges, the 15 bits that Alloc looks at, and the most a buffer's length can say.
  std::vector<int> sizes{1, 2, 32766, 32767, 32768, 32769, 49152, 65534, 65535};
  for (int i = 1; i < 4; ++i) {
    for (const int near : {-1, 0, 1}) sizes.push_back(cfg.buf_size[i] + near);
  }
  Wrapped<> wrapped;
  const int room = 1 << 20;
  ASSERT_EQ(setsockopt(wrapped->s, SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
  for (const int size : sizes) {
    SCOPED_TRACE(size);
    const std::string sent = numbered_bytes(static_cast<std::size_t>(size));
    deliver(wrapped, sent);
    const PoolState before = PoolState::now();
    OSBuf* const buf = wrapped->RecWait(kPatienceMs);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf->length, size);
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), reinterpret_cast<const char*>(buf->data)));
    buf->Free();
    EXPECT_EQ(PoolState::now().buffers_out, before.buffers_out);
    EXPECT_EQ(PoolState::now().callbacks, before.callbacks) << "storage of its own is released by a callback";
    EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  }
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_THAT(console.fatals(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, MoreThanABufferCanSayComesInSeveral) {
  Wrapped<> wrapped;
  const int room = 1 << 20;
  ASSERT_EQ(setsockopt(wrapped->s, SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
  const std::string sent = numbered_bytes(150000);
  deliver(wrapped, sent);
  std::string got;
  std::vector<std::size_t> pieces;
  while (got.size() < sent.size()) {
    const std::string piece = taken(wrapped->RecWait(kPatienceMs));
    pieces.push_back(piece.size());
    ASSERT_LE(piece.size(), 65535U);
    got += piece;
    ASSERT_LE(pieces.size(), 3U);
  }
  EXPECT_EQ(got, sent);
  EXPECT_THAT(pieces, ElementsAre(65535U, 65535U, 150000U - 2 * 65535U));
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, AStreamOfAnySizeArrivesWhole) {
  Wrapped<> wrapped;
  const std::string sent = numbered_bytes(3 << 20);
  std::thread sender([&] {
    wrapped.peer.send_all(sent);
    wrapped.peer.half_close();
  });
  std::string got;
  while (OSBuf* const buf = wrapped->RecWait(kPatienceMs)) got += taken(buf);
  sender.join();
  EXPECT_TRUE(got == sent);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketReceive, APeerThatClosesIsTheEndWithoutALine) {
  Wrapped<> wrapped;
  wrapped.peer.send_all("last");
  wrapped.peer.half_close();
  EXPECT_EQ(taken(wrapped->RecWait(kPatienceMs)), "last");
  EXPECT_EQ(wrapped->state, Socket::CONNECTED) << "the data comes before the end";
  EXPECT_EQ(wrapped->RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_GE(wrapped->s, 0) << "the descriptor is Close's";
  UBYTE bytes[4];
  EXPECT_EQ(wrapped->RecWait(bytes, 4), -1);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), IsEmpty());
  // An invalid socket still sends: the state is the owner's to look at.
  EXPECT_EQ(wrapped->DataIndication(buffer_of("answer")), Success);
  EXPECT_EQ(wrapped.peer.receive(6), "answer");
}

TEST_F(BlockingSocketReceive, AResetEndsTheConnection) {
  Wrapped<> wrapped;
  wrapped.peer.reset();
  EXPECT_EQ(wrapped->RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
}

// ---- Datagrams -------------------------------------------------------------------------------------------------

TEST_F(BlockingSocketReceive, ADatagramSocketGivesOneDatagramAtATime) {
  PeerUdp peer;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  for (const char* text : {"first", "second one", "3"}) ASSERT_TRUE(peer.send_to(socket.LocalPort(), text));
  EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "first");
  EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "second one");
  EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "3");
  EXPECT_EQ(socket.RecWait(0), nullptr);
  EXPECT_EQ(socket.state, Socket::READY);
  const std::string large = numbered_bytes(65000);
  ASSERT_TRUE(peer.send_to(socket.LocalPort(), large));
  EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), large);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketReceive, AnEmptyDatagramCountsAsTheEnd) {
  PeerUdp peer;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  ASSERT_TRUE(peer.send_to(socket.LocalPort(), ""));
  EXPECT_EQ(socket.RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_THAT(said(), IsEmpty());
  // It does not stand in the way of what comes behind it.
  ASSERT_TRUE(peer.send_to(socket.LocalPort(), "next"));
  EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "next");
}

TEST_F(BlockingSocketReceive, AnErrorThatWaitsAtADatagramSocketCountsAsTheEnd) {
  PeerUdp peer;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  {
    // The peer's port stays taken, by a socket that hears nobody but itself: what comes from others is refused.
    PeerUdp deaf;
    const sockaddr_in itself = loopback_address(deaf.port());
    ASSERT_EQ(connect(deaf.fd(), reinterpret_cast<const sockaddr*>(&itself), sizeof itself), 0);
    socket.Connect(kLoopback, deaf.port());
    EXPECT_EQ(socket.state, Socket::CONNECTED);
    for (const bool byte_form : {false, true}) {
      SCOPED_TRACE(byte_form);
      socket.state = Socket::CONNECTED;
      EXPECT_EQ(socket.DataIndication(buffer_of("refused")), Success);
      ASSERT_TRUE(wait_for_events(socket.s, POLLERR));
      UBYTE bytes[4];
      if (byte_form) {
        EXPECT_EQ(socket.RecWait(bytes, 4), -1);
      } else {
        EXPECT_EQ(socket.RecWait(kPatienceMs), nullptr);
      }
      EXPECT_EQ(socket.state, Socket::INVALID);
      EXPECT_THAT(said(), IsEmpty());
    }
  }
  socket.Connect(kLoopback, peer.port());
  ASSERT_TRUE(peer.send_to(socket.LocalPort(), "next"));
  EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "next");
}

TEST_F(BlockingSocketReceive, AStreamThatIsNotConnectedIsAtItsEnd) {
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  EXPECT_EQ(socket.RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(socket.state, Socket::INVALID);
  UBYTE bytes[4];
  EXPECT_EQ(socket.RecWait(bytes, 4), -1);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketReceive, AListenerThatHasAConnectionCannotBeReadFrom) {
  Socket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  EXPECT_EQ(listener.RecWait(0), nullptr);
  EXPECT_EQ(listener.state, Socket::READY);
  EXPECT_THAT(said(), IsEmpty());
  PeerStream peer = PeerStream::connect_to(listener.LocalPort());
  EXPECT_EQ(listener.RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(listener.state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: ioctlsocket(FIONREAD) %d", EINVAL)));
  UBYTE bytes[4];
  EXPECT_EQ(listener.RecWait(bytes, 4), -1);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: ioctlsocket(FIONREAD) %d", EINVAL)));
  const std::unique_ptr<Socket> accepted(listener.Accept());
  ASSERT_NE(accepted, nullptr) << "the connection waits still";
  peer.close();
}

// ---- Urgent data -----------------------------------------------------------------------------------------------

TEST_F(BlockingSocketReceive, UrgentDataIsAnExceptionalCondition) {
  Wrapped<> wrapped;
  ASSERT_TRUE(wrapped.peer.send_urgent('!'));
  EXPECT_EQ(wrapped->RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre("Socket::RecWait: exception condition on socket"));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, UrgentDataEndsTheByteFormWithOne) {
  Wrapped<> wrapped;
  ASSERT_TRUE(wrapped.peer.send_urgent('!'));
  UBYTE bytes[8] = {};
  EXPECT_EQ(wrapped->RecWait(bytes, 8), 1);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre("Socket::RecWait: exception condition on socket"));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, UrgentDataBesideOrdinaryDataCountsTwiceAndTheWaitAsFailed) {
  Wrapped<> wrapped;
  deliver(wrapped, "ordinary");
  ASSERT_TRUE(wrapped.peer.send_urgent('!'));
  ASSERT_TRUE(wait_for_events(wrapped->s, POLLPRI));
  errno = 0;
  EXPECT_EQ(wrapped->RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  const Lines lines = said();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0], ::testing::StartsWith("Socket::RecWait: select() "));
  // The byte form looks at the exception first.
  UBYTE bytes[8];
  EXPECT_EQ(wrapped->RecWait(bytes, 8), 1);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre("Socket::RecWait: exception condition on socket"));
  wrapped.peer.close();
}

// ---- Exactly so many bytes -------------------------------------------------------------------------------------

TEST_F(BlockingSocketReceive, NoBytesAreThereAtOnce) {
  Wrapped<> wrapped;
  wrapped.peer.close();
  UBYTE byte = 0x5A;
  EXPECT_EQ(wrapped->RecWait(&byte, 0), 0) << "the socket is not touched";
  EXPECT_EQ(wrapped->RecWait(nullptr, 0), 0);
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_EQ(byte, 0x5A);
  Socket unusable(Socket::UDP, 0, true, kLoopback);
  said();
  EXPECT_EQ(unusable.RecWait(&byte, 0), 0);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketReceive, TheByteFormTakesWhatItWasAskedForAndLeavesTheRest) {
  Wrapped<> wrapped;
  deliver(wrapped, "abcdefgh");
  UBYTE bytes[6] = {'.', '.', '.', '.', '.', '.'};
  EXPECT_EQ(wrapped->RecWait(bytes, 5), 0);
  EXPECT_EQ(std::string(bytes, bytes + 6), "abcde.");
  EXPECT_EQ(bytes_waiting(wrapped->s), 3);
  EXPECT_EQ(wrapped->RecWait(bytes, 3), 0);
  EXPECT_EQ(std::string(bytes, bytes + 6), "fghde.");
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, TheByteFormGoesOnUntilAllHasCome) {
  Wrapped<> wrapped;
  const std::string sent = numbered_bytes(400000);
  std::thread sender([&] {
    for (std::size_t at = 0; at < 20; ++at) wrapped.peer.send_all(sent.substr(at, 1));
    wrapped.peer.send_all(sent.substr(20));
  });
  std::string got(sent.size(), '\0');
  EXPECT_EQ(wrapped->RecWait(reinterpret_cast<UBYTE*>(got.data()), static_cast<int>(got.size())), 0);
  sender.join();
  EXPECT_TRUE(got == sent);
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceive, AnEndInTheMiddleOfTheBytesIsMinusOne) {
  Wrapped<> wrapped;
  wrapped.peer.send_all("abc");
  wrapped.peer.half_close();
  UBYTE bytes[6] = {'.', '.', '.', '.', '.', '.'};
  EXPECT_EQ(wrapped->RecWait(bytes, 6), -1);
  EXPECT_EQ(std::string(bytes, bytes + 6), "abc...") << "what has come is there";
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), IsEmpty());
}

// ---- Descriptors -----------------------------------------------------------------------------------------------

TEST_F(BlockingSocketReceive, DescriptorsAboveTheSizeOfASetWork) {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit raised = limit;
  raised.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 3000);
  raised.rlim_max = std::max(raised.rlim_max, raised.rlim_cur);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0) << "the limit of open files is below 3000";
  for (const int low : {1023, 1024, 2500}) {
    SCOPED_TRACE(low);
    WirePair wire;
    const int high = fcntl(wire.fd, F_DUPFD_CLOEXEC, low);
    ASSERT_GE(high, low);
    close(wire.fd);
    sockaddr_in remote = loopback_address(wire.peer.local_port());
    Socket socket(Socket::TCP_SERVER, high, &remote, static_cast<int>(sizeof remote));
    EXPECT_EQ(socket.RecWait(0), nullptr);
    EXPECT_EQ(socket.s, high);
    EXPECT_EQ(socket.state, Socket::CONNECTED);
    wire.peer.send_all("high");
    EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "high");
    wire.peer.send_all("bytes");
    UBYTE bytes[5];
    EXPECT_EQ(socket.RecWait(bytes, 5), 0);
    EXPECT_EQ(std::string(bytes, bytes + 5), "bytes");
    socket.DataIndication(buffer_of("back"));
    EXPECT_EQ(wire.peer.receive(4), "back");
    wire.peer.send_urgent('!');
    EXPECT_EQ(socket.RecWait(kPatienceMs), nullptr);
    EXPECT_THAT(said(), ElementsAre("Socket::RecWait: exception condition on socket"));
    wire.peer.close();
  }
  // A client whose connection is waited for.
  std::vector<Descriptor> fill;
  while (fill.empty() || fill.back().get() < 1100) {
    fill.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    ASSERT_TRUE(fill.back().is_open());
  }
  {
    PeerListener listener;
    std::string host = "127.0.0.1";
    Socket client(Socket::TCP_CLIENT, host.data(), listener.port());
    EXPECT_GT(client.s, 1023);
    EXPECT_EQ(client.state, Socket::CONNECTED);
    PeerStream peer = listener.accept();
    peer.send_all("hello");
    EXPECT_EQ(taken(client.RecWait(kPatienceMs)), "hello");
    peer.close();
    const RefusingPort refusing;
    Socket refused(Socket::TCP_CLIENT, host.data(), refusing.port());
    EXPECT_EQ(refused.s, -1);
  }
  fill.clear();
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(BlockingSocketReceive, ASocketWithoutDescriptorReceivesNothingAndDoesNotWait) {
  Socket socket(Socket::UDP, 0, true, kLoopback);  // cannot listen
  ASSERT_EQ(socket.s, -1);
  said();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.RecWait(5000), nullptr);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: select() %d", EBADF)));
  UBYTE bytes[4];
  EXPECT_GT(socket.RecWait(bytes, 4), -2);
  EXPECT_NE(socket.RecWait(bytes, 4), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4500));
  EXPECT_EQ(socket.state, Socket::INVALID);
}

TEST_F(BlockingSocketReceive, ANegativeTimeIsAWaitThatFails) {
  Wrapped<> wrapped;
  wrapped.peer.send_all("there");
  ASSERT_TRUE(wait_readable(wrapped->s));
  EXPECT_EQ(wrapped->RecWait(-1000), nullptr);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: select() %d", EINVAL)));
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_EQ(taken(wrapped->RecWait(0)), "there");
  wrapped.peer.close();
}

}  // namespace
}  // namespace oskernel_test
