// When a stalled write is tried again: every 10 ms, one buffer each time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/fake_clock.h"
#include "support/tls_session.h"

using namespace oskernel_test;

namespace {

const bool kFakeClock = FakeClock::use();

class TlsRetry : public TlsSessionTest, public testing::WithParamInterface<ULONG> {
 protected:
  void SetUp() override {
    FakeClock::set(GetParam());
    TlsSessionTest::SetUp();
  }
  void pass(ULONG ms) {
    FakeClock::advance(ms);
    os_check_triggers();
  }
};

INSTANTIATE_TEST_SUITE_P(, TlsRetry, testing::Values(1000U, 0xFFFFFFFFU - 14U), [](const auto& start) {
  return std::string(start.param < 0x80000000U ? "Early" : "AcrossTheWrap");
});

TEST_P(TlsRetry, ComesTenMillisecondsAfterTheWriteAndAfterEachRetry) {
  TlsLink link(good_server());
  ASSERT_EQ(link.handshake(), 0);
  link.receive();
  std::string given = link.stall();
  for (unsigned i = 0; i < 3; ++i) {
    const std::string bytes = numbered_bytes(20, 60 + i);
    ASSERT_EQ(link.send(bytes), Success);
    given += bytes;
  }
  ASSERT_EQ(link.waiting(), 4);
  console.clear();
  pass(9);
  EXPECT_EQ(console.count("WANT_WRITE"), 0);
  pass(1);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 1);
  EXPECT_EQ(link.waiting(), 4);
  pass(9);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 1);
  pass(1);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 2);

  std::string got = link.peer().read_now();
  for (int left = 3; left >= 0; --left) {
    pass(9);
    EXPECT_EQ(link.waiting(), left + 1);
    pass(1);
    EXPECT_EQ(link.waiting(), left);
    got += link.peer().read_now();
  }
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_ACTIONED);
  pass(1000);
  got += link.peer().read(given.size() - got.size());
  EXPECT_EQ(got, given);
}

TEST_P(TlsRetry, IsMadeOnceHoweverLateItComes) {
  TlsLink link(good_server());
  ASSERT_EQ(link.handshake(), 0);
  link.receive();
  link.stall();
  ASSERT_EQ(link.send("behind"), Success);
  link.peer().read_now();
  pass(1000);
  EXPECT_EQ(link.waiting(), 1);
  pass(10);
  EXPECT_EQ(link.waiting(), 0);
}

}  // namespace
