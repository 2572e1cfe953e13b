// What blocking sockets send: a buffer at a time, datagrams, and what has been queued.

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BlockingSocketSend : public BlockingTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    BlockingTest::TearDown();
  }
  static std::string send_line(const Socket& socket, int error) {
    return line("Socket::DataIndication: send() error %d to %08x:%u from %08x:%u", error,
                ntohl(socket.remote_sin.sin_addr.s_addr), ntohs(socket.remote_sin.sin_port),
                ntohl(socket.local_sin.sin_addr.s_addr), ntohs(socket.local_sin.sin_port));
  }
  static int buffers_out() { return PoolState::now().buffers_out; }
};

TEST_F(BlockingSocketSend, ABufferGoesOutAndIsFreed) {
  Wrapped<> wrapped;
  EXPECT_EQ(wrapped->DataIndication(buffer_of("hello ")), Success);
  EXPECT_EQ(wrapped->DataIndication(buffer_of("there")), Success);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(wrapped.peer.receive(11), "hello there");
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, ALayerSendsThroughIt) {
  RecordingLayer above;
  Wrapped<> wrapped;
  wrapped->Bind(&above);
  EXPECT_EQ(above.Partner(), wrapped.socket.get());
  EXPECT_EQ(above.Partner()->DataIndication(buffer_of("from above")), Success);
  EXPECT_EQ(wrapped.peer.receive(10), "from above");
  wrapped.peer.send_all("for nobody");
  ASSERT_TRUE(wait_readable(wrapped->s));
  EXPECT_EQ(above.count(), 0U) << "it indicates nothing by itself";
  wrapped.peer.close();
  wrapped.socket.reset();
  EXPECT_FALSE(above.IsBound());
}

TEST_F(BlockingSocketSend, AnEmptyBufferIsSentAsNothing) {
  Wrapped<> wrapped;
  EXPECT_EQ(wrapped->DataIndication(buffer_of("")), Success);
  EXPECT_EQ(buffers_out(), 0);
  wrapped->DataIndication(buffer_of("x"));
  EXPECT_EQ(wrapped.peer.receive(1), "x");
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, OneSendIsMadeOfTheWholeBuffer) {
  Wrapped<> wrapped;
  std::vector<size_t> counts;
  calls().send.replace([&](auto real, int fd, const void* bytes, size_t count, int flags) {
    if (fd == wrapped->s) counts.push_back(count);
    return real(fd, bytes, count, flags);
  });
  wrapped->DataIndication(buffer_of("twelve bytes"));
  EXPECT_THAT(counts, ElementsAre(12U));
  EXPECT_EQ(wrapped.peer.receive(12), "twelve bytes");
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, APartialSendIsNotContinued) {
  Wrapped<> wrapped;
  int sends = 0;
  calls().send.replace([&](auto real, int fd, const void* bytes, size_t count, int flags) {
    if (fd != wrapped->s) return real(fd, bytes, count, flags);
    ++sends;
    return real(fd, bytes, std::min<size_t>(count, 4), flags);
  });
  EXPECT_EQ(wrapped->DataIndication(buffer_of("partial")), Success);
  calls().send.restore();
  EXPECT_EQ(sends, 1);
  EXPECT_EQ(buffers_out(), 0);
  wrapped->Close();
  EXPECT_EQ(wrapped.peer.receive_to_end(), "part");
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketSend, EveryFailureOfTheSystemIsReported) {
  for (const int error : {EPIPE, ECONNRESET, EAGAIN, EINTR, ENOBUFS}) {
    SCOPED_TRACE(error);
    Wrapped<> wrapped;
    wrapped->LocalIP_n();
    wrapped->LocalPort();
    {
      const FailingSends failing(wrapped->s, error);
      EXPECT_EQ(wrapped->DataIndication(buffer_of("lost")), NoConnection);
    }
    EXPECT_EQ(wrapped->state, Socket::INVALID);
    EXPECT_EQ(buffers_out(), 0);
    EXPECT_THAT(said(), ElementsAre(send_line(*wrapped.socket, error)));
    EXPECT_GE(wrapped->s, 0);
    wrapped.peer.close();
  }
}

TEST_F(BlockingSocketSend, AFullConnectionFailsAfterTheSendTimeOut) {
  PeerListener listener;
  listener.set_receive_buffer(4096);
  std::string host = "127.0.0.1";
  Socket socket(Socket::TCP_CLIENT, host.data(), listener.port());
  PeerStream peer = listener.accept();
  const int small = 4096;
  setsockopt(socket.s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  const timeval short_time = {0, 100000};  // the five seconds are checked where sockets are made
  setsockopt(socket.s, SOL_SOCKET, SO_SNDTIMEO, &short_time, sizeof short_time);
  const std::string block(1500, 'f');
  OSIORetCode answer = Success;
  for (int i = 0; i < 100000 && answer == Success; ++i) answer = socket.DataIndication(buffer_of(block));
  EXPECT_EQ(answer, NoConnection);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(send_line(socket, EAGAIN)));
  peer.reset();
}

TEST_F(BlockingSocketSend, APeerThatHasGoneRaisesNoSignal) {
  const PipeSignalWatch signals;
  Wrapped<> wrapped;
  wrapped.peer.reset();
  ASSERT_TRUE(wait_readable(wrapped->s));
  OSIORetCode answer = Success;
  for (int i = 0; i < 3; ++i) answer = wrapped->DataIndication(buffer_of("into the void"));
  EXPECT_EQ(answer, NoConnection);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  shutdown(wrapped->s, SHUT_WR);
  EXPECT_EQ(wrapped->DataIndication(buffer_of("into the void")), NoConnection);
  Wrapped<> half;
  shutdown(half->s, SHUT_WR);
  EXPECT_EQ(half->DataIndication(buffer_of("nothing")), NoConnection);
  EXPECT_EQ(half->SendTo(buffer_of("nothing"), kLoopback, 7), NoConnection);
  EXPECT_EQ(signals.caught(), 0);
  half.peer.close();
}

TEST_F(BlockingSocketSend, WithoutADescriptorSendingFails) {
  Wrapped<> wrapped;
  wrapped.peer.close();
  wrapped->Close();
  EXPECT_EQ(wrapped->DataIndication(buffer_of("lost")), NoConnection);
  EXPECT_THAT(said(), ElementsAre(send_line(*wrapped.socket, EBADF)));
  EXPECT_EQ(wrapped->SendTo(buffer_of("lost"), kLoopback, 7), NoConnection);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(said().size(), 1U);
}

TEST_F(BlockingSocketSend, ASocketThatIsNotConnectedCannotSend) {
  Socket socket(Socket::TCP_CLIENT, 0, false, kLoopback);
  EXPECT_EQ(socket.DataIndication(buffer_of("lost")), NoConnection);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_EQ(buffers_out(), 0);
  ASSERT_EQ(lines_of(console).size(), 1U);
  EXPECT_THAT(said()[0], ::testing::StartsWith("Socket::DataIndication: send() error "));
}

TEST_F(BlockingSocketSend, ExpeditedDataAndDatagramsAreLeftWithTheCaller) {
  Wrapped<> wrapped;
  OSBuf* const buf = buffer_of("kept");
  EXPECT_EQ(wrapped->DataExpeditedIndication(buf), Success);
  EXPECT_EQ(wrapped->DatagramIndication(buf, nullptr, nullptr), Success);
  EXPECT_EQ(taken(buf), "kept");
  wrapped->Close();
  EXPECT_EQ(wrapped.peer.receive_to_end(), "");
}

// ---- Datagrams -------------------------------------------------------------------------------------------------

TEST_F(BlockingSocketSend, SendToReachesTheDestination) {
  PeerUdp peer, other;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  EXPECT_EQ(socket.SendTo(buffer_of("one"), kLoopback, peer.port()), Success);
  EXPECT_EQ(socket.SendTo(buffer_of("two"), kLoopback, other.port()), Success);
  EXPECT_EQ(socket.SendTo(buffer_of(""), kLoopback, peer.port()), Success);
  std::string text;
  UWORD from = 0;
  ASSERT_TRUE(peer.receive(&text, &from));
  EXPECT_EQ(text, "one");
  EXPECT_EQ(from, socket.LocalPort());
  EXPECT_EQ(other.receive_text(), "two");
  EXPECT_EQ(peer.receive_text(), "");
  EXPECT_EQ(socket.state, Socket::READY);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(socket.RemotePort(), 0) << "the destination is not kept";
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketSend, ADatagramThatFailsIsReportedWithItsDestination) {
  Socket socket(Socket::UDP, 0, false, kLoopback);
  calls().sendto.replace([](auto, int, const void*, size_t, int, const sockaddr*, socklen_t) -> ssize_t {
    errno = ENETUNREACH;
    return -1;
  });
  EXPECT_EQ(socket.SendTo(buffer_of("lost"), 0xC0000201, 4711), NoConnection);
  calls().sendto.restore();
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(said(),
              ElementsAre(line("Socket::SendTo: sendto() error %d to %08x:%u from %08x:%u", ENETUNREACH,
                               0xC0000201U, 4711, kLoopback, ntohs(socket.local_sin.sin_port))));
}

TEST_F(BlockingSocketSend, ADatagramThatIsTooLongFails) {
  PeerUdp peer;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  const std::string longest(65507, 'd'), longer(65508, 'd');
  EXPECT_EQ(socket.SendTo(buffer_of(longest), kLoopback, peer.port()), Success);
  EXPECT_EQ(peer.receive_text().size(), 65507U);
  EXPECT_EQ(socket.SendTo(buffer_of(longer), kLoopback, peer.port()), NoConnection);
  EXPECT_EQ(socket.state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket::SendTo: sendto() error %d to %08x:%u from %08x:%u", EMSGSIZE,
                                       kLoopback, peer.port(), kLoopback, ntohs(socket.local_sin.sin_port))));
}

// ---- The queue -------------------------------------------------------------------------------------------------

TEST_F(BlockingSocketSend, WhatIsQueuedGoesOutInOrder) {
  Wrapped<> wrapped;
  for (const char* text : {"one ", "two ", "three"}) EXPECT_EQ(wrapped->Queue(buffer_of(text)), 0);
  EXPECT_EQ(wrapped.peer.receive_now(), "") << "nothing leaves before";
  EXPECT_EQ(wrapped->FlushQueue(false), 0);
  EXPECT_EQ(wrapped.peer.receive(13), "one two three");
  EXPECT_EQ(wrapped->queue.Size(), 0);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(wrapped->FlushQueue(false), 0) << "nothing is left";
  EXPECT_THAT(said(), IsEmpty());
  wrapped->DataIndication(buffer_of("."));
  EXPECT_EQ(wrapped.peer.receive(1), ".");
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, AVerboseFlushTellsHowMuchGoesWhere) {
  Wrapped<> wrapped;
  EXPECT_EQ(wrapped->FlushQueue(true), 0);
  EXPECT_THAT(said(), ElementsAre("Socket::FlushQueue() size=0 to 127.0.0.1"));
  EXPECT_EQ(wrapped.peer.receive_now(), "");
  wrapped->Queue(buffer_of("data"));
  EXPECT_EQ(wrapped->FlushQueue(true), 0);
  EXPECT_THAT(said(), ElementsAre("Socket::FlushQueue() size=1 to 127.0.0.1"));
  EXPECT_EQ(wrapped.peer.receive(4), "data");
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, TheReportedSizeIsTheNumberOfBuffersInTheQueue) {
  Wrapped<> wrapped;
  for (int i = 0; i < 5; ++i) wrapped->Queue(buffer_of("x"));
  const int size = static_cast<int>(wrapped->queue.Size());
  EXPECT_GE(size, 1);
  wrapped->FlushQueue(true);
  EXPECT_THAT(said(), ElementsAre(line("Socket::FlushQueue() size=%d to 127.0.0.1", size)));
  EXPECT_EQ(wrapped.peer.receive(5), "xxxxx");
  wrapped.peer.close();
}

/// Tells what is flushed through the virtual operation.
class FlushProbe : public Socket {
 public:
  using Socket::Socket;
  OSIORetCode DataIndication(OSBuf* buf) override {
    flushed.push_back(taken(buf));
    if (hook) hook();
    return NoConnection;
  }
  std::vector<std::string> flushed;
  std::function<void()> hook;
};

TEST_F(BlockingSocketSend, FlushingGoesThroughTheVirtualOperationAndFailuresDoNotStopIt) {
  Wrapped<FlushProbe> wrapped;
  for (const char* text : {"a", "b", "c"}) wrapped->Queue(buffer_of(text));
  EXPECT_EQ(wrapped->FlushQueue(false), 0);
  std::string all;
  for (const std::string& text : wrapped->flushed) all += text;
  EXPECT_EQ(all, "abc");
  EXPECT_EQ(buffers_out(), 0);
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, WhatIsQueuedWhileFlushingGoesAsWell) {
  Wrapped<FlushProbe> wrapped;
  int left = 3;
  wrapped->hook = [&] {
    if (left-- > 0) wrapped->Queue(buffer_of("more"));
  };
  wrapped->Queue(buffer_of("first"));
  EXPECT_EQ(wrapped->FlushQueue(false), 0);
  EXPECT_THAT(wrapped->flushed, ElementsAre("first", "more", "more", "more"));
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, AFlushOnABrokenConnectionConsumesEveryBuffer) {
  Wrapped<> wrapped;
  std::string sent;
  for (int i = 0; i < 10; ++i) {
    wrapped->Queue(buffer_of("lost"));
  }
  {
    const FailingSends failing(wrapped->s, ECONNRESET);
    EXPECT_EQ(wrapped->FlushQueue(false), 0);
  }
  EXPECT_EQ(wrapped->queue.Size(), 0);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_FALSE(said().empty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, LargeBuffersCanBeQueued) {
  Wrapped<> wrapped;
  std::string all;
  for (unsigned i = 0; i < 6; ++i) {
    const std::string block = numbered_bytes(1500, i + 1);
    all += block;
    wrapped->Queue(buffer_of(block));
  }
  EXPECT_EQ(wrapped->FlushQueue(false), 0);
  EXPECT_EQ(wrapped.peer.receive(all.size()), all);
  EXPECT_THAT(console.fatals(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, AQueuedBufferLargerThanAFragmentGoesWhole) {
  Wrapped<> wrapped;
  const std::string block = numbered_bytes(24000);
  std::string first = block;
  wrapped->Queue(buffer_of(first));
  EXPECT_EQ(wrapped->FlushQueue(false), 0);
  EXPECT_EQ(wrapped.peer.receive(block.size()), block);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, WhatIsQueuedStaysAtCloseAndGoesWithTheSocket) {
  Wrapped<> wrapped;
  wrapped->Queue(buffer_of("never sent"));
  wrapped.peer.close();
  wrapped->Close();
  EXPECT_EQ(wrapped->queue.Size(), 1);
  wrapped.socket.reset();
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(BlockingSocketSend, TheQueueCountsTheBytesThatItHolds) {
  Wrapped<FlushProbe> wrapped;
  std::vector<ULONG> left;
  wrapped->hook = [&] { left.push_back(wrapped->queue.Length()); };
  for (const char* text : {"one", "", "three"}) wrapped->Queue(buffer_of(text));
  EXPECT_EQ(wrapped->queue.Length(), 8U);
  EXPECT_EQ(wrapped->queue.Size(), 3);
  wrapped->FlushQueue(false);
  EXPECT_THAT(left, ElementsAre(5U, 5U, 0U));
  EXPECT_THAT(wrapped->flushed, ElementsAre("one", "", "three"));
  wrapped.peer.close();
}

TEST_F(BlockingSocketSend, ABufferThatIsQueuedElsewhereStaysThereAndIsNotCounted) {
  Wrapped<> first, second;
  OSBuf* const buf = buffer_of("once");
  first->Queue(buf);
  EXPECT_EQ(second->Queue(buf), 0);
  EXPECT_EQ(second->queue.Size(), 0);
  EXPECT_EQ(second->queue.Length(), 0U);
  EXPECT_EQ(first->queue.Length(), 4U);
  EXPECT_EQ(console.fatals().size(), 1U) << "the list's own report";
  console.clear();
  EXPECT_EQ(second->FlushQueue(false), 0);
  EXPECT_EQ(second.peer.receive_now(), "");
  first->FlushQueue(false);
  EXPECT_EQ(first.peer.receive(4), "once");
  EXPECT_EQ(buffers_out(), 0);
  first.peer.close();
  second.peer.close();
}

TEST_F(BlockingSocketSend, TheQueueIsACompressibleStreamThatDoesNotOwn) {
  Wrapped<> wrapped;
  EXPECT_EQ(wrapped->queue.compressible, 1);
  EXPECT_EQ(wrapped->queue.Length(), 0U);
  wrapped.peer.close();
}

}  // namespace
}  // namespace oskernel_test
