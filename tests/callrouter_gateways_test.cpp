// The router while it looks gateways up: what its operator sees, the command line, and the end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/callrouter_served.h"
#include "tests/support/dns_messages.h"
#include "tests/support/net_namespace.h"
#include "tests/support/scripted_name_server.h"

namespace callrouter_test {
namespace {

using oskernel_test::answer_to;
using oskernel_test::Datagrams;
using oskernel_test::dns_name;
using oskernel_test::dns_pointer;
using oskernel_test::dns_question;
using oskernel_test::DnsWire;
using oskernel_test::long_dns_text;
using oskernel_test::rdata_a;
using oskernel_test::rdata_srv;
using oskernel_test::replace_file;
using oskernel_test::ScriptedNameServer;
using oskernel_test::use_resolv_conf;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

Datagrams one_gateway(const std::string& question) {
  DnsWire wire = answer_to(question);
  wire.answer(dns_pointer(12), T_SRV, 3600, rdata_srv(10, 60, 5060, dns_name("gw1.example.net")));
  wire.additional(dns_name("gw1.example.net"), T_A, 3600, rdata_a(0xC0000201));
  return {wire.bytes()};
}

Datagrams no_such_name(const std::string& question) { return {answer_to(question, 0x8583).bytes()}; }

/// A router, asked until its gateways are looked up or not to be had.
class Router : public Served {
 public:
  explicit Router(Texts arguments) : Served(with_domain(std::move(arguments))) {}

  /// Types the command until its answer ends so.
  bool comes_to_show(const std::string& text) {
    return wait_until(
        [&] {
          const std::size_t before = shown().size();
          type("gateways\n");
          EXPECT_TRUE(shows("asked of "));
          EXPECT_TRUE(shows("\n> "));
          return shown().find(text, before) != std::string::npos;
        },
        kLimitMs);
  }

 private:
  static Texts with_domain(Texts arguments) {
    if (std::count(arguments.begin(), arguments.end(), "--gateways-from") == 0) {
      arguments.insert(arguments.end(), {"--gateways-from", "example.net"});
    }
    return arguments;
  }
};

TEST(CallrouterGateways, AreShownToTheOperator) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(one_gateway);
  Router router({"--dns", "127.0.0.1"});
  EXPECT_TRUE(
      router.comes_to_show("_sip._udp.example.net, asked of 127.0.0.1\n"
                           "priority weight  gateway               address\n"
                           "      10     60  gw1.example.net:5060  192.0.2.1\n"
                           "found "));
  ASSERT_EQ(server.questions().size(), 1U);
  EXPECT_EQ(server.questions()[0].substr(12), dns_question(dns_name("_sip._udp.example.net"), T_SRV));
  // Everything else is as ever.
  PeerStream peer = router.lines();
  EXPECT_EQ(answer(peer, "+44 20 7946 0123\n"), kLondon);
}

TEST(CallrouterGateways, AbsenceIsExplained) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(no_such_name);
  Router router({"--dns", "127.0.0.1"});
  EXPECT_TRUE(router.comes_to_show("none: NXDOMAIN, there is no such name; looked up again in "));
}

TEST(CallrouterGateways, AreAskedForUnderAServiceAndOfAServerAsTold) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/hosts", "127.0.0.1 localhost\n127.0.0.9 ns.example.test\n");
  use_resolv_conf("nameserver 127.0.0.7\n");
  const struct {
    Texts arguments;
    const char* shown;
    const char* asked;
  } kRows[] = {
      {{}, "_sip._udp.example.net, asked of 127.0.0.7\n", "_sip._udp.example.net"},
      {{"--gateways-from", "example.net.", "--dns", "ns.example.test"},
       "_sip._udp.example.net, asked of ns.example.test\n",
       "_sip._udp.example.net"},
      {{"--gateways-from", "_sips._tcp.example.net", "--dns", "127.0.0.1"},
       "_sips._tcp.example.net, asked of 127.0.0.1\n",
       "_sips._tcp.example.net"},
  };
  std::size_t asked = 0;
  ScriptedNameServer server(one_gateway);
  for (const auto& row : kRows) {
    Router router(row.arguments);
    EXPECT_TRUE(router.comes_to_show(std::string(row.shown) + "priority "));
    ASSERT_EQ(server.questions().size(), ++asked);
    EXPECT_EQ(server.questions().back().substr(12), dns_question(dns_name(row.asked), T_SRV));
  }
}

TEST(CallrouterGateways, TimerIsShownUntilTheNextLookUp) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(one_gateway);
  Router router({"--dns", "127.0.0.1"});
  EXPECT_TRUE(router.comes_to_show("looked up again in "));
  router.type("timers\n");
  EXPECT_TRUE(router.shows("callrouter::Gateways::on_timer"));
  EXPECT_TRUE(router.shows(" every 300000 ms, "));
}

TEST(CallrouterGateways, NothingIsLeftBehindWithALookUpOnItsWay) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  for (const int signal_number : {SIGTERM, 0}) {
    ScriptedNameServer server;
    Router router({"--dns", "127.0.0.1"});
    EXPECT_TRUE(server.wait_for_questions(1));
    EXPECT_TRUE(router.comes_to_show("being looked up now\n"));
    if (signal_number == 0) router.type("quit\n");
    router.stops_cleanly(signal_number);
  }
}

// A question that nobody can be sent to, and floods of answers that nobody has asked for.
TEST(CallrouterGateways, NothingIsLeftBehindAfterTrouble) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  {
    Router router({"--dns", "192.0.2.53"});
    EXPECT_TRUE(router.comes_to_show("being looked up now\n"));
  }
  ScriptedNameServer server([](const std::string& question) {
    Datagrams flood(100, one_gateway(question)[0]);
    flood.insert(flood.begin() + 50, std::string(60000, '\xFF'));
    return flood;
  });
  Router router({"--dns", "127.0.0.1"});
  EXPECT_TRUE(router.comes_to_show("\nfound "));
}

TEST(CallrouterGateways, CommandSaysWhatItTakes) {
  Served router;
  router.type("gateways\n");
  EXPECT_TRUE(router.shows("no gateways are looked up; that takes --gateways-from\n"));
  const Outcome run = run_program({"--console"}, "gateways\nquit\n");
  EXPECT_THAT(run.out, HasSubstr("the network is not served; that takes --serve\n"));
}

TEST(CallrouterGateways, BadCommandLinesAreRefused) {
  const struct {
    Texts arguments;
    std::string message;
  } kRows[] = {
      {{"--gateways-from", "example.net"}, "callrouter: --gateways-from requires --serve\n"},
      {{"--serve", "--dns", "127.0.0.1"}, "callrouter: --dns requires --gateways-from\n"},
      {{"--serve", "--gateways-from", ""},
       "callrouter: --gateways-from: '_sip._udp.' cannot be asked for: label 3 is empty, at character 11\n"},
      {{"--serve", "--gateways-from", "a..b", "--dns", "127.0.0.1"},
       "callrouter: --gateways-from: '_sip._udp.a..b' cannot be asked for: label 4 is empty, at character "
       "13\n"},
      {{"--serve", "--gateways-from", long_dns_text(244), "--dns", "127.0.0.1"},
       "callrouter: --gateways-from: '_sip._udp." + long_dns_text(244) +
           "' cannot be asked for: it has 254 characters, the most is 253\n"},
      {{"--serve", "--gateways-from", "example.net", "--dns", ""},
       "callrouter: --dns: a name server's address or name is missing\n"},
      {{"--serve", "--gateways-from", "example.net", "--dns", "::1"},
       "callrouter: --dns: '::1' is neither an IPv4 address nor a host name\n"},
  };
  for (const auto& row : kRows) {
    const Outcome run = run_program(row.arguments);
    EXPECT_EQ(run.exit_code, 2) << row.message;
    EXPECT_THAT(run.err, AllOf(StartsWith(row.message), EndsWith("\nTry callrouter --help\n")));
  }
}

TEST(CallrouterGateways, SaysWhenTheResolverHasNoServer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_resolv_conf("nameserver ::1\n");
  const Outcome run = run_program({"--serve", "--gateways-from", "example.net"});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_THAT(
      run.err,
      StartsWith(
          "callrouter: --gateways-from: needs --dns, because /etc/resolv.conf names no IPv4 name server"));
}

TEST(CallrouterGateways, HelpTellsTheService) {
  const Outcome help = run_program({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* word : {"--gateways-from", "_sip._udp.DOMAIN", "--dns"})
    EXPECT_THAT(help.out, HasSubstr(word));
}

}  // namespace
}  // namespace callrouter_test
