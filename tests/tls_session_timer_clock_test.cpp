// What the timer of the send queue is set by, and what becomes of it when the session goes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <new>
#include <string>

#include "support/fake_clock.h"
#include "support/tls_session.h"

using namespace oskernel_test;

namespace {

const bool kFakeClock = FakeClock::use();

class TlsTimer : public TlsSessionTest {
 protected:
  void SetUp() override {
    FakeClock::set(1000);
    TlsSessionTest::SetUp();
  }
  void pass(ULONG ms) {
    FakeClock::advance(ms);
    os_check_triggers();
  }
};

TEST_F(TlsTimer, WhatIsQueuedBehindAStalledWriteDoesNotPutTheRetryOff) {
  TlsLink link(good_server());
  ASSERT_EQ(link.handshake(), 0);
  link.receive();
  link.stall();
  console.clear();
  for (int i = 0; i < 3; ++i) {
    pass(3);
    ASSERT_EQ(link.send("behind"), Success);
  }
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 0);
  pass(1);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 1);
}

TEST_F(TlsTimer, WhatIsRefusedDoesNotPutTheRetryOff) {
  TlsLink link(good_server());
  ASSERT_EQ(link.handshake(), 0);
  link.receive();
  link.stall();
  for (int i = 0; i < 10; ++i) ASSERT_EQ(link.send("behind"), Success);
  console.clear();
  pass(9);
  ASSERT_EQ(link.send("too many"), NoConnection);
  pass(1);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 1);
}

/// Where sessions live and die in these tests; full of dust when they are gone.
constexpr unsigned char kDust = 0x5A;
alignas(SSLInfo) unsigned char grave[sizeof(SSLInfo)];
bool rests_in_peace() {
  return std::all_of(std::begin(grave), std::end(grave), [](unsigned char byte) { return byte == kDust; });
}

TEST_F(TlsTimer, OfASessionThatIsGoneDoesNotReachIntoIt) {
  Wire wire = Wire::local();
  TlsEnd peer(good_server(), std::move(wire.far_end));
  auto* const session = new (grave) SSLInfo(wire.near_end.get(), false);
  ASSERT_EQ(session->Setup(0, nullptr, nullptr, nullptr, nullptr), 0);
  ASSERT_TRUE(wait_until(
      [&] {
        peer.step();
        return session->Handshake() == 0;
      },
      kPatienceMs));
  int small = 4096;
  ::setsockopt(wire.near_end.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  for (int i = 0; i < 20000 && session->sendq.IsEmpty(); ++i)
    ASSERT_EQ(session->DataIndication(buffer_of(std::string(1000, 'x'))), Success);
  ASSERT_EQ(session->sendqtrigger.State(), OS_T_WAIT);
  const ULONG generation = session->sendqtrigger.value;
  session->~SSLInfo();
  std::memset(grave, kDust, sizeof grave);
  console.clear();
  for (const ULONG ms : {9U, 1U, 10U, 1000U}) pass(ms);
  for (const ULONG value : {generation, ULONG{0}})
    SSLInfo::_SendQTrigger(reinterpret_cast<OSObj*>(session), nullptr, value);
  EXPECT_TRUE(rests_in_peace());
  EXPECT_EQ(console.count("SSL"), 0);
}

TEST_F(TlsTimer, OfASessionThatIsGoneDoesNotReachTheNextAtItsPlace) {
  Wire wire = Wire::local();
  auto* session = new (grave) SSLInfo(wire.near_end.get(), false);
  const ULONG first = session->sendqtrigger.value;
  session->~SSLInfo();
  session = new (grave) SSLInfo(wire.near_end.get(), false);
  EXPECT_NE(session->sendqtrigger.value, first);
  ASSERT_NE(session->sendq.AppendLink(buffer_of("waits")), nullptr);
  SSLInfo::_SendQTrigger(reinterpret_cast<OSObj*>(session), nullptr, first);
  EXPECT_NE(session->sendqtrigger.State(), OS_T_WAIT);
  SSLInfo::_SendQTrigger(reinterpret_cast<OSObj*>(session), nullptr, session->sendqtrigger.value);
  EXPECT_EQ(session->sendqtrigger.State(), OS_T_WAIT) << "its own does";
  session->~SSLInfo();
}

}  // namespace
