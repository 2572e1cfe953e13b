// RecWait of a blocking socket when the system's calls fail or answer strangely.

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"
#include "support/buffer_drought.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::SizeIs;

class BlockingSocketReceiveFailure : public BlockingTest {
 protected:
  void TearDown() override {
    blocking_calls.system.restore();
    calls().restore_all();
    BlockingTest::TearDown();
  }
  static void deliver(Wrapped<>& wrapped, const std::string& bytes) {
    ASSERT_TRUE(wrapped.peer.send_all(bytes));
    ASSERT_TRUE(
        wait_until([&] { return bytes_waiting(wrapped->s) == static_cast<int>(bytes.size()); }, kPatienceMs));
  }
};

TEST_F(BlockingSocketReceiveFailure, TheWaitLastsAsLongAsItIsAskedTo) {
  Wrapped<> wrapped;
  for (const int ms : {0, 1, 999, 1000, 1001, 12345, 600000}) {
    ScriptedWaits waits(wrapped->s, {{Wait::kNothing}});
    EXPECT_EQ(wrapped->RecWait(ms), nullptr);
    const std::vector<int> times = waits.times_ms();
    ASSERT_EQ(times.size(), 1U);
    EXPECT_THAT(times[0], AllOf(Ge(ms - 50), Le(ms))) << "what is left of it";
  }
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

/// What a wait of the buffer form finds, and what comes of it.
struct BufferRow {
  const char* name;
  Wait wait;
  bool is_invalid;
  std::vector<std::string> lines;
};

TEST_F(BlockingSocketReceiveFailure, EveryAnswerOfTheWaitHasItsOutcome) {
  const BufferRow kRows[] = {
      {"time is over", {Wait::kNothing}, false, {}},
      {"bad descriptor", {Wait::kFails, EBADF}, false, {line("Socket::RecWait: select() %d", EBADF)}},
      {"no memory", {Wait::kFails, ENOMEM}, false, {line("Socket::RecWait: select() %d", ENOMEM)}},
      {"interrupted", {Wait::kFails, EINTR}, false, {line("Socket::RecWait: select() %d", EINTR)}},
      {"exception", {Wait::kException}, true, {"Socket::RecWait: exception condition on socket"}},
      {"neither", {Wait::kNeither}, true, {"Socket::RecWait: socket not ready"}},
  };
  for (const BufferRow& row : kRows) {
    SCOPED_TRACE(row.name);
    Wrapped<> wrapped;
    deliver(wrapped, "there");
    {
      ScriptedWaits waits(wrapped->s, {row.wait});
      EXPECT_EQ(wrapped->RecWait(1000), nullptr);
    }
    EXPECT_EQ(wrapped->state, row.is_invalid ? Socket::INVALID : Socket::CONNECTED);
    EXPECT_EQ(said(), row.lines);
    EXPECT_EQ(taken(wrapped->RecWait(0)), "there") << "the data is still there";
    wrapped.peer.close();
  }
}

TEST_F(BlockingSocketReceiveFailure, AnUnknownNumberOfBytesIsReported) {
  Wrapped<> wrapped;
  deliver(wrapped, "there");
  const FailingIoctl failing(FIONREAD, EIO);
  EXPECT_EQ(wrapped->RecWait(0), nullptr);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: ioctlsocket(FIONREAD) %d", EIO)));
  UBYTE bytes[3];
  wrapped->state = Socket::CONNECTED;
  EXPECT_EQ(wrapped->RecWait(bytes, 3), -1);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: ioctlsocket(FIONREAD) %d", EIO)));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, ANumberThatIsNoDescriptorIsAWaitThatFails) {
  Wrapped<> wrapped;
  const int descriptor = std::exchange(wrapped->s, 987);  // as if somebody else had closed it
  ASSERT_EQ(fcntl(wrapped->s, F_GETFD), -1);
  errno = 0;
  EXPECT_EQ(wrapped->RecWait(0), nullptr);
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: select() %d", EBADF)));
  UBYTE bytes[3];
  EXPECT_EQ(wrapped->RecWait(bytes, 3), 1) << "both sets stay as they were";
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre("Socket::RecWait: exception condition on socket"));
  wrapped->s = descriptor;
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, ADatagramThatComesBehindTheQuestionIsNotDropped) {
  PeerUdp peer;
  Socket socket(Socket::UDP, 0, false, kLoopback);
  ASSERT_TRUE(peer.send_to(socket.LocalPort(), "kept"));
  ASSERT_TRUE(wait_readable(socket.s));
  // Nothing waited when the system was asked how much.
  blocking_calls.system.replace(
      [](auto real, long number, long fd, long request, long argument, long d, long e, long f) -> long {
        if (number != SYS_ioctl || request != FIONREAD) {
          return real(number, fd, request, argument, d, e, f);
        }
        *reinterpret_cast<int*>(argument) = 0;
        return 0;
      });
  EXPECT_EQ(socket.RecWait(0), nullptr);
  EXPECT_EQ(socket.state, Socket::INVALID);
  blocking_calls.system.restore();
  EXPECT_EQ(taken(socket.RecWait(0)), "kept");
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(BlockingSocketReceiveFailure, AReceiveThatFailsIsReportedAndItsBufferFreed) {
  Wrapped<> wrapped;
  for (const int size : {5, 30000, 60000}) {  // the larger have storage of their own
    deliver(wrapped, std::string(static_cast<std::size_t>(size), 'x'));
    wrapped->state = Socket::CONNECTED;
    {
      ScriptedReads reads(wrapped->s, [](int, void*, size_t) -> ssize_t {
        errno = ECONNRESET;
        return -1;
      });
      EXPECT_EQ(wrapped->RecWait(0), nullptr);
      EXPECT_EQ(reads.count(), 1);
    }
    EXPECT_EQ(wrapped->state, Socket::INVALID);
    EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: recv %d", ECONNRESET)));
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    taken(wrapped->RecWait(0));
  }
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, AShortReadIsReportedAndDelivered) {
  Wrapped<> wrapped;
  deliver(wrapped, "abcdef");
  {
    ScriptedReads reads(wrapped->s, [](int, void* bytes, size_t) -> ssize_t {
      std::memcpy(bytes, "abcd", 4);
      return 4;
    });
    EXPECT_EQ(taken(wrapped->RecWait(0)), "abcd");
  }
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), ElementsAre("Socket::RecWait: expected 6, got 4"));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, OneReadTakesExactlyWhatIsThere) {
  Wrapped<> wrapped;
  deliver(wrapped, "abcdef");
  std::vector<size_t> asked;
  ScriptedReads reads(wrapped->s, [&asked](int, void*, size_t count) {
    asked.push_back(count);
    return ScriptedReads::kReal;
  });
  EXPECT_EQ(taken(wrapped->RecWait(0)), "abcdef");
  EXPECT_THAT(asked, ElementsAre(6U));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, WithoutABufferTheStateStaysAndTheDataToo) {
  Wrapped<> wrapped;
  deliver(wrapped, "there");
  {
    BufferDrought drought(cfg);
    EXPECT_EQ(wrapped->RecWait(0), nullptr);
    EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  }
  expected_fatals = console.fatals();  // the pools' own report
  EXPECT_THAT(expected_fatals, ElementsAre("OSBuffer::Alloc Out Of Buffers 5")) << "what waits and no more";
  EXPECT_EQ(taken(wrapped->RecWait(0)), "there");
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, ABurstAboveEveryClassDoesNotExhaustThePools) {
  Wrapped<> wrapped;
  const int room = 1 << 20;
  ASSERT_EQ(setsockopt(wrapped->s, SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
  const std::string sent(60000, 'b');
  deliver(wrapped, sent);
  // Buffers without storage are enough: the storage is its own.
  BufferDrought drought(cfg);
  EXPECT_EQ(taken(wrapped->RecWait(0)), sent);
  EXPECT_THAT(console.fatals(), IsEmpty());
  wrapped.peer.close();
}

// ---- The byte form ---------------------------------------------------------------------------------------------

struct ByteRow {
  const char* name;
  Wait wait;
  int result;
  bool is_invalid;
  std::vector<std::string> lines;
};

TEST_F(BlockingSocketReceiveFailure, EveryAnswerOfTheByteFormsWaitHasItsOutcome) {
  const std::string exception = "Socket::RecWait: exception condition on socket";
  const ByteRow kRows[] = {
      {"ten seconds of silence", {Wait::kNothing}, 3, false, {}},
      {"exception", {Wait::kException}, 1, true, {exception}},
      {"both", {Wait::kBoth}, 1, true, {exception}},
      {"neither", {Wait::kNeither}, 2, true, {"Socket::RecWait: socket not ready"}},
      // Sets stay as they were when a wait fails, and the exception is looked at first.
      {"bad descriptor", {Wait::kFails, EBADF}, 1, true, {exception}},
  };
  for (const ByteRow& row : kRows) {
    SCOPED_TRACE(row.name);
    Wrapped<> wrapped;
    deliver(wrapped, "abcdef");
    UBYTE bytes[6] = {};
    {
      ScriptedWaits waits(wrapped->s, {row.wait});
      EXPECT_EQ(wrapped->RecWait(bytes, 6), row.result);
      EXPECT_THAT(waits.times_ms(), SizeIs(1));
      EXPECT_THAT(waits.times_ms(), Each(AllOf(Ge(9900), Le(10000))));
    }
    EXPECT_EQ(wrapped->state, row.is_invalid ? Socket::INVALID : Socket::CONNECTED);
    EXPECT_EQ(said(), row.lines);
    wrapped.peer.close();
  }
}

TEST_F(BlockingSocketReceiveFailure, AnInterruptedWaitOfTheByteFormCountsAsAnException) {
  Wrapped<> wrapped;
  deliver(wrapped, "abcdef");
  UBYTE bytes[6] = {};
  ScriptedWaits waits(wrapped->s, {{Wait::kFails, EINTR}});
  EXPECT_EQ(wrapped->RecWait(bytes, 6), 1);
  EXPECT_EQ(wrapped->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre("Socket::RecWait: exception condition on socket"));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, EveryRoundWaitsTenSecondsAnew) {
  Wrapped<> wrapped;
  UBYTE bytes[6] = {};
  ScriptedWaits waits(wrapped->s, {{Wait::kReal}, {Wait::kReal}, {Wait::kNothing}});
  deliver(wrapped, "abc");
  std::atomic<int> reads_so_far{0};
  ScriptedReads reads(wrapped->s, [&](int, void*, size_t count) {
    EXPECT_LE(count, 6U);
    if (++reads_so_far == 1) wrapped.peer.send_all("d");
    return ScriptedReads::kReal;
  });
  EXPECT_EQ(wrapped->RecWait(bytes, 6), 3);
  EXPECT_EQ(std::string(bytes, bytes + 4), "abcd") << "what has come is in the caller's bytes";
  EXPECT_THAT(waits.times_ms(), SizeIs(3));
  EXPECT_THAT(waits.times_ms(), Each(AllOf(Ge(9900), Le(10000))));
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, TheByteFormReadsNoMoreThanIsMissing) {
  Wrapped<> wrapped;
  deliver(wrapped, "abcdefgh");
  std::vector<size_t> asked;
  ScriptedReads reads(wrapped->s, [&asked](int, void*, size_t count) {
    asked.push_back(count);
    return ScriptedReads::kReal;
  });
  UBYTE bytes[8];
  EXPECT_EQ(wrapped->RecWait(bytes, 3), 0);
  EXPECT_EQ(wrapped->RecWait(bytes, 5), 0);
  EXPECT_THAT(asked, ElementsAre(3U, 5U));
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, AShortReadOfTheByteFormGoesOn) {
  Wrapped<> wrapped;
  deliver(wrapped, "abcdef");
  const int fd = wrapped->s;
  ScriptedReads reads(fd, [fd](int call, void* bytes, size_t) {
    return call == 0 ? read(fd, bytes, 2) : ScriptedReads::kReal;
  });
  UBYTE bytes[6];
  EXPECT_EQ(wrapped->RecWait(bytes, 6), 0);
  EXPECT_EQ(std::string(bytes, bytes + 6), "abcdef");
  EXPECT_EQ(reads.count(), 2);
  EXPECT_THAT(said(), IsEmpty());
  wrapped.peer.close();
}

TEST_F(BlockingSocketReceiveFailure, ReadsOfTheByteFormThatFailAreMinusOne) {
  for (const int error : {0, ECONNRESET, ETIMEDOUT}) {
    SCOPED_TRACE(error);
    Wrapped<> wrapped;
    deliver(wrapped, "abcdef");
    ScriptedReads reads(wrapped->s, [error](int, void*, size_t) -> ssize_t {
      if (error == 0) return 0;
      errno = error;
      return -1;
    });
    UBYTE bytes[6];
    EXPECT_EQ(wrapped->RecWait(bytes, 6), -1);
    EXPECT_EQ(wrapped->state, Socket::INVALID);
    if (error == 0) {
      EXPECT_THAT(said(), IsEmpty());
    } else {
      EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: recv %d", error)));
    }
    wrapped.peer.close();
  }
}

// ---- Signals ---------------------------------------------------------------------------------------------------

TEST_F(BlockingSocketReceiveFailure, ASignalEndsTheWaitWithALine) {
  Wrapped<> wrapped;
  const InterruptingHandler handler(SIGUSR1);
  std::atomic<bool> done{false};
  OSBuf* got = nullptr;
  WatchedThread waiting([&] {
    got = wrapped->RecWait(kPatienceMs);
    done = true;
  });
  ASSERT_TRUE(waiting.blocked());
  EXPECT_TRUE(waiting.interrupt_until(SIGUSR1, [&] { return done.load(); }));
  EXPECT_EQ(got, nullptr);
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), ElementsAre(line("Socket::RecWait: select() %d", EINTR)));
  wrapped.peer.close();
}

}  // namespace
}  // namespace oskernel_test
