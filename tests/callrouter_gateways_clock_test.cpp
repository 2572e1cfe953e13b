// The gateways of a domain: what is made of answers, and when they are asked for again; on a clock that stands still
// until the test moves it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "examples/callrouter/gateways.h"
#include "tests/support/dns_messages.h"
#include "tests/support/fake_clock.h"
#include "tests/support/net_namespace.h"
#include "tests/support/network_fixture.h"
#include "tests/support/scripted_name_server.h"

namespace callrouter {
namespace {

using namespace oskernel_test;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using Texts = std::vector<std::string>;

[[maybe_unused]] const bool kFakeClock = FakeClock::use();

constexpr ULONG kNow = 0xFFFFFF00;  // shortly before the tick wraps
constexpr ULONG kTimeoutMs = 5000;
constexpr ULONG kAddress = 0xC0000201;  // 192.0.2.1
constexpr const char* kName = "_sip._udp.example.net";

/// Each test's body begins with OSKERNEL_IN_NETWORK_NAMESPACE(). Without trigger task; the test's own thread has the
/// ready list.
class GatewaysTest : public QuietNetworkTest {
 protected:
  void SetUp() override {
    if (!inside_network_namespace()) return;
    FakeClock::set(kNow);
    QuietNetworkTest::SetUp();
    OSTrigger::TLSInitialise();
  }
  void TearDown() override {
    if (!inside_network_namespace()) return;
    gateways_.reset();
    OSTrigger::TLSUninitialise();
    QuietNetworkTest::TearDown();
  }

  Gateways& start(const dnsq::NameServer& server = {"127.0.0.1"}) {
    gateways_ = std::make_unique<Gateways>(GatewaySource{kName, server});
    return *gateways_;
  }
  void end() { gateways_.reset(); }

  static void dispatch() {
    os_check_triggers();
    OSTrigger::TLSPoll();
  }
  static void pass(ULONG ms) {
    FakeClock::advance(ms);
    dispatch();
  }
  bool waiting() {
    return wait_until(
        [this] {
          dispatch();
          return !gateways_->view().looking_up;
        },
        kPatienceMs);
  }
  /// Made and answered, or not.
  Gateways::View first_view(const dnsq::NameServer& server = {"127.0.0.1"}) {
    start(server);
    EXPECT_TRUE(waiting());
    return gateways_->view();
  }

  std::unique_ptr<Gateways> gateways_;
};

ScriptedNameServer::Script answering(std::function<void(DnsWire&)> fill, unsigned opts = 0x8180) {
  return [fill = std::move(fill), opts](const std::string& question) {
    DnsWire wire = answer_to(question, opts);
    fill(wire);
    return Datagrams{wire.bytes()};
  };
}

std::string srv(int priority, int weight, int port, const std::string& target) {
  return rdata_srv(static_cast<unsigned>(priority), static_cast<unsigned>(weight),
                   static_cast<unsigned>(port), dns_name(target));
}

void one_gateway(DnsWire& wire) {
  wire.answer(dns_pointer(12), T_SRV, 60, srv(1, 0, 5060, "gw.example.net"));
}
void no_record(DnsWire&) {}

Texts targets(const Gateways::View& view) {
  Texts all;
  for (const auto& one : view.gateways) all.push_back(one.target);
  return all;
}

// ---- answers

TEST_F(GatewaysTest, StandInTheOrderOfTheirUseWithTheirAddresses) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(answering([](DnsWire& wire) {
    wire.answer(dns_pointer(12), T_SRV, 60, srv(20, 0, 5060, "last.example.net"));
    wire.answer(dns_pointer(12), T_SRV, 60, srv(10, 5, 5060, "light.example.net"));
    wire.answer(dns_pointer(12), T_SRV, 60, srv(10, 60, 15060, "heavy.example.net"));
    wire.additional(dns_name("heavy.example.net"), 28, 60, std::string(16, '\1'));
    wire.additional(dns_name("HEAVY.example.NET"), T_A, 60, rdata_a(kAddress));
    wire.additional(dns_name("last.example.net"), T_A, 60, rdata_a(kAddress + 1));
    wire.additional(dns_name("last.example.net"), T_A, 60, rdata_a(kAddress + 2));
  }));
  first_view();
  FakeClock::advance(12'000);
  EXPECT_EQ(gateways_->text(),
            "_sip._udp.example.net, asked of 127.0.0.1\n"
            "priority weight  gateway                  address\n"
            "      10     60  heavy.example.net:15060  192.0.2.1\n"
            "      10      5  light.example.net:5060   none came with the answer\n"
            "      20      0  last.example.net:5060    192.0.2.2\n"
            "found 12 s ago, looked up again in 48 s\n");
  ASSERT_EQ(server.questions().size(), 1U);
  EXPECT_EQ(server.questions()[0].substr(12), dns_question(dns_name(kName), T_SRV));
}

TEST_F(GatewaysTest, AreLookedUpAgainAfterTheSmallestTimeToLiveWithinBounds) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const struct {
    ULONG srv_ttl_s, other_srv_ttl_s, address_ttl_s;
    ULONG period_s;
  } kRows[] = {{60, 90, 90, 60},          {90, 60, 90, 60},        {90, 90, 60, 60},
               {30, 90, 90, 30},          {29, 90, 90, 30},        {0, 90, 90, 30},
               {300, 300, 300, 300},      {301, 3600, 86400, 300}, {0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, 300},
               {0x80000000, 90, 90, 30},  // RFC 2181: no time at all
               {0xFFFFFFFF, 300, 300, 30}};
  ScriptedNameServer server;
  for (const auto& row : kRows) {
    server.answer_by(answering([row](DnsWire& wire) {
      wire.answer(dns_pointer(12), T_SRV, row.srv_ttl_s, srv(1, 0, 5060, "a.test"));
      wire.answer(dns_pointer(12), T_SRV, row.other_srv_ttl_s, srv(2, 0, 5060, "b.test"));
      wire.additional(dns_name("b.test"), T_A, row.address_ttl_s, rdata_a(kAddress));
      wire.additional(dns_name("c.test"), T_A, 1, rdata_a(kAddress));  // nobody's
    }));
    const auto view = first_view();
    EXPECT_EQ(view.next_at - os_clock(), row.period_s * 1000);
    end();
  }
}

TEST_F(GatewaysTest, NewAnswerTakesTheOldOnesPlace) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(answering(one_gateway));
  EXPECT_THAT(targets(first_view()), testing::ElementsAre("gw.example.net"));
  server.answer_by(answering(
      [](DnsWire& wire) { wire.answer(dns_pointer(12), T_SRV, 60, srv(1, 0, 5061, "new.example.net")); }));
  pass(59'999);
  EXPECT_FALSE(gateways_->view().looking_up);
  pass(1);
  EXPECT_TRUE(waiting());
  EXPECT_EQ(server.questions().size(), 2U);
  EXPECT_THAT(targets(gateways_->view()), testing::ElementsAre("new.example.net"));
  EXPECT_THAT(gateways_->text(), EndsWith("\nfound 0 s ago, looked up again in 60 s\n"));
}

TEST_F(GatewaysTest, NoneIsAnAnswerToo) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const struct {
    ScriptedNameServer::Script script;
    const char* state;
  } kRows[] = {
      {answering(no_record, 0x8583), "none: NXDOMAIN, there is no such name; looked up again in 30 s\n"},
      {answering(no_record), "none: the answer holds no SRV record; looked up again in 30 s\n"},
      {answering([](DnsWire& wire) { wire.answer(dns_pointer(12), T_A, 60, rdata_a(kAddress)); }),
       "none: the answer holds no SRV record; looked up again in 30 s\n"},
      {answering([](DnsWire& wire) { wire.answer(dns_pointer(12), T_SRV, 3600, srv(0, 0, 0, ".")); }),
       "none: the domain says that it has none; looked up again in 30 s\n"},
  };
  ScriptedNameServer server;
  for (const auto& row : kRows) {
    server.answer_by(answering(one_gateway));
    EXPECT_EQ(first_view().gateways.size(), 1U);
    server.answer_by(row.script);
    pass(60'000);
    EXPECT_TRUE(waiting());
    EXPECT_EQ(gateways_->text(), std::string("_sip._udp.example.net, asked of 127.0.0.1\n") + row.state);
    end();
  }
}

TEST_F(GatewaysTest, AnswerThatIsCutShortIsUsedAndSaysSo) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(answering(one_gateway, 0x8380));
  first_view();
  EXPECT_THAT(gateways_->text(), HasSubstr(" gw.example.net:5060  none came with the answer\n"
                                           "the answer is not whole: there may be more\nfound "));
  end();
  server.answer_by([](const std::string& question) {
    DnsWire wire = answer_to(question);
    one_gateway(wire);
    return Datagrams{wire.counts(1, 2, 0, 0).bytes()};
  });
  EXPECT_TRUE(first_view().partial);
}

TEST_F(GatewaysTest, NamesAreShownAsOneWordOfPrintableCharacters) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(answering(
      [](DnsWire& wire) { wire.answer(dns_pointer(12), T_SRV, 60, srv(1, 0, 5060, "gw\x1B[2J x")); }));
  EXPECT_THAT(targets(first_view()), testing::ElementsAre("gw\\027[2J\\032x"));
}

// ---- failures

TEST_F(GatewaysTest, KnownOnesStayAndAreStaleWhenNobodyAnswers) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(answering(one_gateway));
  first_view();
  server.answer_by(ScriptedNameServer::silence);
  pass(60'000);
  EXPECT_THAT(gateways_->text(), EndsWith("\nfound 60 s ago, being looked up now\n"));
  pass(kTimeoutMs - 1);
  EXPECT_TRUE(gateways_->view().looking_up);
  pass(1);
  EXPECT_EQ(gateways_->text(),
            "_sip._udp.example.net, asked of 127.0.0.1\n"
            "priority weight  gateway              address\n"
            "       1      0  gw.example.net:5060  none came with the answer\n"
            "stale: no answer within 5 s; found 65 s ago, looked up again in 30 s\n");
  // Again 30 s later, and so on.
  pass(30'000);
  EXPECT_THAT(gateways_->text(),
              EndsWith("\nstale: no answer within 5 s; found 95 s ago, being looked up now\n"));
  pass(kTimeoutMs);
  EXPECT_TRUE(gateways_->view().stale);
  server.answer_by(answering(one_gateway));
  pass(30'000);
  EXPECT_TRUE(waiting());
  EXPECT_FALSE(gateways_->view().stale);
  EXPECT_THAT(gateways_->text(), EndsWith("\nfound 0 s ago, looked up again in 60 s\n"));
}

TEST_F(GatewaysTest, ErrorAnswersAndStrangeOnesAreFailures) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const struct {
    ScriptedNameServer::Script script;
    const char* trouble;
  } kRows[] = {
      {answering(no_record, 0x8182), "SERVFAIL, the server has failed to answer"},
      {answering(one_gateway, 0x8185), "REFUSED, the server refuses to answer"},
      {answering(no_record, 0x818F), "RCODE15"},
      {answering(no_record, 0x8380), "the answer was cut short before the first gateway"},
      {answering(one_gateway, 0x0180), "what came was no answer to the question"},
      {[](const std::string&) { return Datagrams{"x"}; }, "what came was no answer to the question"},
      {[](const std::string&) {
         DnsWire wire(1);
         wire.question(dns_name("_sip._udp.elsewhere.test"), T_SRV);
         one_gateway(wire);
         return Datagrams{wire.bytes()};
       },
       "what came was no answer to the question"},
  };
  ScriptedNameServer server;
  for (const auto& row : kRows) {
    server.answer_by(row.script);
    EXPECT_EQ(first_view().trouble, row.trouble);
    EXPECT_THAT(gateways_->text(),
                EndsWith("\nnone: " + std::string(row.trouble) + "; looked up again in 30 s\n"));
    EXPECT_FALSE(gateways_->view().stale);
    server.answer_by(answering(one_gateway));
    pass(30'000);
    EXPECT_TRUE(waiting());
    server.answer_by(row.script);
    pass(60'000);
    EXPECT_TRUE(waiting());
    EXPECT_THAT(targets(gateways_->view()), testing::ElementsAre("gw.example.net"));
    EXPECT_THAT(gateways_->text(), HasSubstr("\nstale: " + std::string(row.trouble) + "; found 60 s ago, "));
    end();
  }
}

TEST_F(GatewaysTest, QuestionIsKeptUntilTheServersNameIsFound) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/nsswitch.conf", "hosts: files\n");
  replace_file("/etc/hosts", "127.0.0.9 ns.example.test\n");
  ScriptedNameServer server(answering(one_gateway));
  EXPECT_EQ(first_view({"ns.example.test"}).gateways.size(), 1U);
  EXPECT_THAT(gateways_->text(), testing::StartsWith("_sip._udp.example.net, asked of ns.example.test\n"));
}

TEST_F(GatewaysTest, SaysWhenTheServersNameHasNoAddress) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/nsswitch.conf", "hosts: files\n");
  start({"nowhere.example.test"});
  EXPECT_TRUE(wait_until(
      [this] {
        dispatch();
        return console.count("couldn't resolve host nowhere.example.test") == 1;
      },
      kPatienceMs));
  pass(kTimeoutMs);
  EXPECT_THAT(
      gateways_->text(),
      EndsWith("\nnone: no address is known for the host nowhere.example.test; looked up again in 30 s\n"));
}

// ---- the end

TEST_F(GatewaysTest, LookUpOnItsWayIsGivenUp) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server;
  start();
  EXPECT_THAT(gateways_->text(), EndsWith("\nnone yet; being looked up now\n"));
  EXPECT_TRUE(server.wait_for_questions(1));
  end();
  // Again while the answer waits to be delivered.
  server.answer_by(answering(one_gateway));
  start();
  EXPECT_TRUE(server.wait_for_questions(2));
  end();
  pass(kTimeoutMs);
  EXPECT_EQ(console.fatals(), Texts());
}

TEST_F(GatewaysTest, NoFurtherLookUpFollows) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(answering(one_gateway));
  first_view();
  end();
  pass(60'000);
  pass(kTimeoutMs);
  EXPECT_EQ(server.questions().size(), 1U);
}

TEST(GatewaysName, ServiceStandsInFrontOfADomain) {
  EXPECT_EQ(Gateways::service_name("example.net"), "_sip._udp.example.net");
  EXPECT_EQ(Gateways::service_name("_sips._tcp.example.net"), "_sips._tcp.example.net");
}

}  // namespace
}  // namespace callrouter
