// How long a blocking socket drains what its peer still sends, on a clock that the test drives.

#include <cstring>

#include "support/blocking_calls.h"
#include "support/blocking_fixture.h"
#include "support/fake_clock.h"

namespace oskernel_test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;

const bool kFakeClock = FakeClock::use();

class BlockingSocketCloseClock : public BlockingTest {
 protected:
  void TearDown() override {
    FakeClock::set(1000);
    BlockingTest::TearDown();
  }
};

TEST_F(BlockingSocketCloseClock, APeerThatSendsForEverIsGivenUpAfterFiveSeconds) {
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

TEST_F(BlockingSocketCloseClock, AnErrorThatDoesNotPassIsGivenUpAfterFiveSeconds) {
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

TEST_F(BlockingSocketCloseClock, ADrainThatFindsTheEndInTimeGoesOnTillThen) {
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

TEST_F(BlockingSocketCloseClock, APeerThatIsSilentForWhatIsLeftIsGivenUp) {
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
