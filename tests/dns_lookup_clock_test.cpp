// How long a DnsLookup waits, on a clock that stands still until the test moves it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/dns_lookup_fixture.h"
#include "support/failing_new.h"
#include "support/fake_clock.h"
#include "support/graveyard.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const bool kFakeClock = FakeClock::use();

constexpr ULONG kNow = 1000000;
constexpr ULONG kAddr = ip(192, 168, 0, 1);

class DnsTime : public QuietLookups {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kFakeClock);
    FakeClock::set(kNow);
    QuietLookups::SetUp();
  }
  static void pass(ULONG ms) {
    FakeClock::advance(ms);
    os_check_triggers();
  }
  bool answered(const DnsLookup& lookup, ULONG addr = kAddr) {
    const std::size_t calls = asker_.finished();
    return server_.send_to(lookup, address_answer("host.test", addr)) && told(calls + 1);
  }

  NameServer server_;
};

// ---- The time-out ------------------------------------------------------------------------------------------------

TEST_F(DnsTime, WithoutAnAnswerTheCallbackComesOnceAfterFiveSeconds) {
  for (const ULONG start : {kNow, 0U, 0xFFFFFFFFU, 0xFFFFFFFFU - 4999U, 0xFFFFFFFFU - 5000U, 0x7FFFFFFFU}) {
    SCOPED_TRACE(start);
    FakeClock::set(start);
    asker_.clear();
    const OwnedLookup lookup = ask(asker_, "host.test");
    pass(0);
    pass(4999);
    EXPECT_EQ(asker_.count(), 0u) << "too early";
    pass(1);
    ASSERT_EQ(asker_.count(), 1u);
    EXPECT_EQ(asker_.all()[0].value, 1u);
    EXPECT_EQ(asker_.all()[0].lookup, lookup.get());
    EXPECT_EQ(lookup->response, nullptr);
    EXPECT_EQ(lookup->GetAddress(), nullptr);
    for (int i = 0; i < 10; ++i) pass(5000);
    EXPECT_EQ(asker_.count(), 1u) << "exactly one";
  }
  EXPECT_EQ(server_.sent().size(), 6u) << "there is no second attempt";
}

TEST_F(DnsTime, ATimeOutThatIsNoticedLateComesOnce) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  pass(60000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u));
  pass(60000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u));
}

TEST_F(DnsTime, EachLookupHasItsOwnFiveSeconds) {
  const OwnedLookup first = ask(asker_, "first.test");
  pass(1000);
  const OwnedLookup second = ask(asker_, "second.test");
  pass(1000);
  const OwnedLookup third = ask(asker_, "third.test");
  pass(2999);
  EXPECT_EQ(asker_.count(), 0u);
  pass(1);
  ASSERT_EQ(asker_.count(), 1u);
  EXPECT_EQ(asker_.all()[0].lookup, first.get());
  pass(1000);
  ASSERT_EQ(asker_.count(), 2u);
  EXPECT_EQ(asker_.all()[1].lookup, second.get());
  pass(1000);
  ASSERT_EQ(asker_.count(), 3u);
  EXPECT_EQ(asker_.all()[2].lookup, third.get());
}

TEST_F(DnsTime, ATimeOutNeedsNoCallback) {
  char name[] = "host.test";
  const OwnedLookup lookup(new DnsLookup(name, T_A, "10.53.53.53", nullptr, nullptr));
  pass(5000);
  pass(5000);
  ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
  settle();
  EXPECT_EQ(first_address(*lookup), kAddr);
}

// ---- Answers and the time ----------------------------------------------------------------------------------------

TEST_F(DnsTime, AnAnswerInTimeIsTheOnlyCallback) {
  for (const ULONG after : {0U, 1U, 2500U, 4999U}) {
    SCOPED_TRACE(after);
    asker_.clear();
    const OwnedLookup lookup = ask(asker_, "host.test");
    pass(after);
    ASSERT_TRUE(answered(*lookup));
    for (int i = 0; i < 5; ++i) pass(2500);
    EXPECT_THAT(asker_.values(), ElementsAre(0u));
    EXPECT_EQ(first_address(*lookup), kAddr);
  }
}

TEST_F(DnsTime, ALateAnswerIsToldAllTheSame) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  pass(5000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u));
  pass(100000);
  ASSERT_TRUE(answered(*lookup));
  EXPECT_THAT(asker_.values(), ElementsAre(1u, 0u));
  EXPECT_EQ(first_address(*lookup), kAddr);
  ASSERT_TRUE(answered(*lookup, kAddr + 1));
  pass(100000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u, 0u, 0u));
  EXPECT_EQ(first_address(*lookup), kAddr + 1);
}

TEST_F(DnsTime, FurtherAnswersAreToldAndNoTimeOutFollows) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  for (ULONG i = 0; i < 5; ++i) {
    ASSERT_TRUE(answered(*lookup, kAddr + i));
    EXPECT_EQ(first_address(*lookup), kAddr + i);
    pass(3000);
  }
  EXPECT_THAT(asker_.values(), ElementsAre(0u, 0u, 0u, 0u, 0u));
}

TEST_F(DnsTime, AnAnswerThatIsHandedOnWithTheTimeOutIsTheLastWord) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  EXPECT_EQ(queued(lookup->socket), 1);
  pass(5000);
  ASSERT_TRUE(dispatch_until([this] { return asker_.count(0) == 1; }));
  pass(5000);
  EXPECT_THAT(asker_.values(), AnyOf(ElementsAre(0u), ElementsAre(1u, 0u))) << "no time-out behind an answer";
}

TEST_F(DnsTime, AnAnswerThatFindsNoMemoryIsNone) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  const auto in_vain = [&lookup] {
    OSIO* const layer = lookup.get();
    OSBuf* const buf = dns_buffer(address_answer("host.test", kAddr));
    FailingNew::fail_at_least(sizeof(DnsMessage));
    EXPECT_EQ(layer->DatagramIndication(buf, nullptr, nullptr), Success);
    FailingNew::reset();
    EXPECT_EQ(buffers_out(), 0);
  };
  pass(3000);
  in_vain();
  EXPECT_EQ(lookup->response, nullptr);
  pass(1999);
  EXPECT_EQ(asker_.count(), 0u);
  pass(1);
  EXPECT_THAT(asker_.values(), ElementsAre(1u)) << "five seconds from the beginning";
  in_vain();
  pass(5000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u)) << "and no second time";
  ASSERT_TRUE(answered(*lookup));
  DnsMessage* const before = lookup->response;
  in_vain();
  pass(5000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u, 0u));
  EXPECT_EQ(lookup->response, before) << "the last answer stays";
}

// ---- Questions that are not sent ---------------------------------------------------------------------------------

TEST_F(DnsTime, ANameThatIsNotSentTimesOut) {
  for (const std::string& name : {std::string("a..b"), std::string(64, 'l'), std::string(300, 'l'),
                                  long_dns_text(254), std::string(".a")}) {
    SCOPED_TRACE(name);
    asker_.clear();
    const OwnedLookup lookup = ask(asker_, name);
    pass(4999);
    EXPECT_EQ(asker_.count(), 0u);
    pass(1);
    EXPECT_THAT(asker_.values(), ElementsAre(1u));
    pass(5000);
    EXPECT_THAT(asker_.values(), ElementsAre(1u));
  }
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
}

TEST_F(DnsTime, AServerThatCannotBeAskedTimesOut) {
  std::size_t calls = 0;
  for (const char* server :
       {"0.0.0.0", "nobody.test", "255.255.255.255", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(server != nullptr ? server : "(null)");
    asker_.clear();
    const OwnedLookup lookup = ask(asker_, "host.test", T_A, server);
    if (server == nullptr || std::string(server) != "0.0.0.0") {
      ASSERT_TRUE(delivered(++calls));
    }
    EXPECT_EQ(asker_.count(), 0u) << "the name cache's answer is not told";
    pass(4999);
    EXPECT_EQ(asker_.count(), 0u);
    EXPECT_EQ(buffers_out(), 0);
    pass(1);
    EXPECT_THAT(asker_.values(), ElementsAre(1u));
    pass(5000);
    EXPECT_THAT(asker_.values(), ElementsAre(1u));
  }
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
}

TEST_F(DnsTime, TheTimeRunsWhileTheServersNameIsLookedUp) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedLookup lookup = ask(asker_, "host.test", T_A, "ns.test");
  pass(3000);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_EQ(server_.sent().size(), 1u);
  pass(1999);
  EXPECT_EQ(asker_.count(), 0u);
  pass(1);
  EXPECT_THAT(asker_.values(), ElementsAre(1u)) << "five seconds from the beginning";
}

TEST_F(DnsTime, AServerWhoseNameIsFoundTooLateIsAskedAllTheSame) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedLookup lookup = ask(asker_, "host.test", T_A, "ns.test");
  pass(5000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u));
  EXPECT_EQ(buffers_out(), 1) << "the question waits on";
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_THAT(server_.sent_bytes(), ElementsAre(question_bytes("host.test", T_A)));
  ASSERT_TRUE(answered(*lookup));
  pass(100000);
  EXPECT_THAT(asker_.values(), ElementsAre(1u, 0u));
}

// ---- Deleting ----------------------------------------------------------------------------------------------------

using MortalLookup = Mortal<DnsLookup>;

MortalLookup* mortal(Asker& asker, const char* server) {
  static char name[] = "host.test";
  return new MortalLookup(name, T_A, server, Asker::told, asker.obj());
}

TEST_F(DnsTime, TheCallbackOfATimeOutMayDeleteTheLookup) {
  asker_.set_hook([](DnsLookup* lookup, ULONG) { delete lookup; });
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  std::size_t calls = 0;
  for (const char* server : {"10.53.53.53", "ns.test", "0.0.0.0"}) {
    SCOPED_TRACE(server);
    const DnsLookup* const lookup = mortal(asker_, server);
    pass(5000);
    EXPECT_EQ(asker_.count(), ++calls);
    EXPECT_TRUE(MortalLookup::rests_in_peace());
    EXPECT_EQ(console.count(lookup_line(lookup, "~DnsLookup")), static_cast<int>(calls));
    EXPECT_EQ(buffers_out(), 0);
    pass(5000);
    EXPECT_EQ(asker_.count(), calls);
    EXPECT_TRUE(MortalLookup::rests_in_peace());
  }
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_TRUE(MortalLookup::rests_in_peace());
}

TEST_F(DnsTime, ALateAnswerToADeletedLookupIsNobodys) {
  asker_.set_hook([](DnsLookup* lookup, ULONG) { delete lookup; });
  const DnsLookup* const lookup = mortal(asker_, "10.53.53.53");
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
  }
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  pass(5000);
  pass(5000);
  EXPECT_EQ(asker_.count(), 1u) << "whichever came first has deleted it";
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_TRUE(MortalLookup::rests_in_peace());
}

TEST_F(DnsTime, ADeletedLookupDoesNotTimeOut) {
  OwnedLookup lookup = ask(asker_, "host.test");
  pass(4999);
  lookup.reset();
  pass(5000);
  EXPECT_EQ(asker_.count(), 0u);
}

TEST_F(DnsTime, NoTimeOutComesWhileALookupIsBeingDeleted) {
  AsyncSocket::Cleanup();  // its threads print
  ActsOnceAtALine console_line("AsyncSocket::Free - delete of", [] { pass(5000); });
  const Tracing tracing;
  OwnedLookup lookup = ask(asker_, "host.test");
  lookup.reset();
  EXPECT_TRUE(console_line.has_acted());
  EXPECT_EQ(asker_.count(), 0u) << "its callback may delete it, too";
  AsyncSocket::Cleanup();
}

TEST_F(DnsTime, OneThatHasTimedOutButHasNotBeenToldIsDeletedWithoutACallback) {
  OwnedLookup lookup = ask(asker_, "host.test");
  FakeClock::advance(5000);
  lookup.reset();
  os_check_triggers();
  EXPECT_EQ(asker_.count(), 0u);
}

TEST_F(DnsTime, TheCallbackOfATimeOutMayAskAgain) {
  std::vector<OwnedLookup> lookups;
  asker_.set_hook([&](DnsLookup*, ULONG) {
    if (lookups.size() < 4) lookups.push_back(ask(asker_, "again.test"));
  });
  lookups.push_back(ask(asker_, "host.test"));
  for (std::size_t i = 1; i <= 4; ++i) {
    pass(4999);
    EXPECT_EQ(asker_.count(), i - 1);
    pass(1);
    EXPECT_EQ(asker_.count(), i);
  }
  pass(100000);
  EXPECT_EQ(asker_.count(), 4u);
  EXPECT_EQ(server_.sent().size(), 4u);
}

// ---- With the kernel's own dispatcher ----------------------------------------------------------------------------

class DnsTimeRunning : public RunningLookups {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kFakeClock);
    FakeClock::set(kNow);
    RunningLookups::SetUp();
  }

  NameServer server_;
};

TEST_F(DnsTimeRunning, TheTriggerTaskTellsTheTimeOut) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  FakeClock::advance(5000);
  ASSERT_TRUE(asker_.wait_for(1));
  EXPECT_THAT(asker_.values(), ElementsAre(1u));
  EXPECT_NE(asker_.all()[0].thread, gettid());
}

}  // namespace
