// How long a blocking socket waits for its connection and drains what its peer still sends, on a clock that the test
// drives.

#include <cerrno>
#include <cstring>
#include <vector>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"
#include "support/fake_clock.h"
#include "support/interposed_calls.h"

namespace oskernel_test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;

const bool kFakeClock = FakeClock::use();

class BlockingSocketClock : public BlockingTest {
 protected:
  void TearDown() override {
    calls().restore_all();
    FakeClock::set(1000);
    BlockingTest::TearDown();
  }
};

TEST_F(BlockingSocketClock, AnInterruptedWaitForAConnectionGoesOnForWhatIsLeft) {
  for (const ULONG start : {ULONG{1000}, ULONG{0xFFFFFF00}}) {
    SCOPED_TRACE(start);
    FakeClock::set(start);
    PeerListener listener;
    std::vector<int> waits_ms;
    calls().poll.replace([&waits_ms](auto, pollfd*, nfds_t, int timeout_ms) -> int {
      waits_ms.push_back(timeout_ms);
      FakeClock::advance(900);
      if (timeout_ms == 0) return 0;
      errno = EINTR;
      return -1;
    });
    char host[] = "127.0.0.1";
    const Socket socket(Socket::TCP_CLIENT, host, listener.port());
    calls().restore_all();
    EXPECT_THAT(waits_ms, ElementsAre(2000, 1100, 200, 0));
    EXPECT_EQ(socket.s, -1);
  }
}

TEST_F(BlockingSocketClock, APeerThatSendsForEverIsGivenUpAfterFiveSeconds) {
  for (const ULONG start : {ULONG{1000}, ULONG{0xFFFFF000}}) {
    SCOPED_TRACE(start);
    FakeClock::set(start);
    Wrapped<> wrapped;
    wrapped.peer.close();
    const ScriptedReads reads(wrapped->s, [](int, void* bytes, size_t count) -> ssize_t {
      FakeClock::advance(100);
      std::memset(bytes, 'x', count);
      return static_cast<ssize_t>(count);
    });
    wrapped->Close();
    EXPECT_EQ(wrapped->s, -1);
    EXPECT_EQ(wrapped->state, Socket::INVALID);
    EXPECT_THAT(reads.count(), AllOf(Ge(49), Le(52)));
    EXPECT_THAT(said(), ::testing::IsEmpty());
  }
}

TEST_F(BlockingSocketClock, AnErrorThatDoesNotPassIsGivenUpAfterFiveSeconds) {
  FakeClock::set(1000);
  Wrapped<> wrapped;
  wrapped.peer.close();
  const ScriptedReads reads(wrapped->s, [](int, void*, size_t) -> ssize_t {
    FakeClock::advance(100);
    errno = EINTR;
    return -1;
  });
  wrapped->Close();
  EXPECT_EQ(wrapped->s, -1);
  EXPECT_THAT(reads.count(), AllOf(Ge(49), Le(52)));
}

TEST_F(BlockingSocketClock, ADrainThatFindsTheEndInTimeGoesOnTillThen) {
  FakeClock::set(1000);
  Wrapped<> wrapped;
  wrapped.peer.close();
  const ScriptedReads reads(wrapped->s, [](int call, void*, size_t count) -> ssize_t {
    FakeClock::advance(1000);
    return call < 4 ? static_cast<ssize_t>(count) : 0;
  });
  wrapped->Close();
  EXPECT_EQ(reads.count(), 5);
}

TEST_F(BlockingSocketClock, APeerThatIsSilentForWhatIsLeftIsGivenUp) {
  FakeClock::set(1000);
  Wrapped<> wrapped;
  wrapped.peer.close();
  ScriptedWaits waits(wrapped->s, {{Wait::kReadable}, {Wait::kNothing}}, ScriptedWaits::kThenTheLastAgain);
  const ScriptedReads reads(wrapped->s, [](int, void*, size_t) -> ssize_t {
    FakeClock::advance(700);
    errno = EAGAIN;
    return -1;
  });
  wrapped->Close();
  EXPECT_EQ(wrapped->s, -1);
  EXPECT_EQ(reads.count(), 2) << "nothing has come, so nothing is read";
  EXPECT_THAT(waits.times_ms(), ElementsAre(4300, 3600));
  EXPECT_THAT(said(), ::testing::IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
