// dnsq: the example that asks a name server one question.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "examples/dnsq/answer.h"
#include "examples/dnsq/name_server.h"
#include "tests/callrouter_child.h"
#include "tests/support/dns_messages.h"
#include "tests/support/net_namespace.h"
#include "tests/support/scripted_name_server.h"

namespace callrouter_test {
namespace {

using oskernel_test::answer_to;
using oskernel_test::Datagrams;
using oskernel_test::dns_labels;
using oskernel_test::dns_name;
using oskernel_test::dns_pointer;
using oskernel_test::dns_question;
using oskernel_test::DnsWire;
using oskernel_test::long_dns_text;
using oskernel_test::Namespace;
using oskernel_test::rdata_a;
using oskernel_test::rdata_mx;
using oskernel_test::rdata_srv;
using oskernel_test::rdata_txt;
using oskernel_test::replace_file;
using oskernel_test::ScriptedNameServer;
using oskernel_test::use_resolv_conf;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

constexpr ULONG kAddress = 0xC0000201;  // 192.0.2.1

Outcome dnsq(Texts arguments) { return run_program(std::move(arguments), "", DNSQ_PROGRAM); }

/// What it prints, without how long the answer took.
std::string timeless(const std::string& text) {
  return std::regex_replace(text, std::regex(" in [0-9.]+ ms"), " in N ms");
}

Datagrams one_address(const std::string& question) {
  return {answer_to(question).answer(dns_pointer(12), T_A, 300, rdata_a(kAddress)).bytes()};
}

/// Two servers of which the additional section tells one address.
Datagrams two_servers(const std::string& question) {
  DnsWire wire = answer_to(question, 0x8580);
  wire.answer(dns_pointer(12), T_SRV, 3600, rdata_srv(10, 60, 5060, dns_name("gw1.example.net")));
  wire.answer(dns_pointer(12), T_SRV, 3600, rdata_srv(20, 0, 15060, dns_name("gw2.example.net")));
  wire.authority(dns_name("example.net"), T_NS, 86400, dns_name("ns.example.net"));
  wire.additional(dns_name("gw1.example.net"), T_A, 60, rdata_a(kAddress));
  return {wire.bytes()};
}

// ---- what is asked

TEST(Dnsq, AsksForWhatTheCommandLineSays) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(one_address);
  const std::string longest = long_dns_text(253);
  const struct {
    Texts arguments;
    std::string name;
    unsigned type;
  } kRows[] = {
      {{"example.net"}, "example.net", T_A},
      {{"example.net."}, "example.net", T_A},
      {{"example.net", "SRV"}, "example.net", T_SRV},
      {{"example.net", "mX"}, "example.net", T_MX},
      {{"example.net", "any"}, "example.net", T_ALL},
      {{"example.net", "*"}, "example.net", T_ALL},
      {{"example.net", "28"}, "example.net", 28},
      {{"example.net", "type257"}, "example.net", 257},
      {{"example.net", "TYPE65535"}, "example.net", 65535},
      {{longest, "1"}, longest, T_A},
  };
  std::size_t asked = 0;
  for (const auto& row : kRows) {
    Texts arguments = row.arguments;
    arguments.emplace_back("@127.0.0.1");
    const Outcome run = dnsq(arguments);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    ASSERT_TRUE(server.wait_for_questions(++asked));
    EXPECT_EQ(server.questions().back().substr(12), dns_question(dns_name(row.name), row.type));
  }
}

TEST(Dnsq, ServerMayStandAnywhereAndBeAName) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/hosts", "127.0.0.9 ns.example.test\n");
  ScriptedNameServer server(one_address);
  for (const Texts& arguments : {Texts{"@127.0.0.1", "a.test", "A"}, Texts{"a.test", "@127.0.0.1", "A"},
                                 Texts{"a.test", "A", "@ns.example.test"}}) {
    const Outcome run = dnsq(arguments);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(run.out, EndsWith("address: 192.0.2.1\n"));
  }
}

TEST(Dnsq, AsksTheResolversServerUnlessToldOtherwise) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_resolv_conf("search example.net\nnameserver ::1\nnameserver 127.0.0.7\nnameserver 127.0.0.1\n");
  ScriptedNameServer server(one_address);
  const Outcome run = dnsq({"a.test"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.out, HasSubstr("NOERROR from 127.0.0.7 in "));
}

TEST(Dnsq, SaysWhenTheResolverHasNoServer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_resolv_conf("nameserver ::1\n");
  const Outcome run = dnsq({"a.test"});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_THAT(run.err,
              StartsWith("dnsq: @SERVER: is needed, because /etc/resolv.conf names no IPv4 name server"));
}

TEST(Dnsq, BroadcastAsksTheLocalNetwork) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  Namespace here = Namespace::own(), there = Namespace::fresh();
  join(here, "left", there, "right");
  here.add_address("left", "10.9.0.1/24");
  there.add_address("right", "10.9.0.2/24");
  here.add_route("default via 10.9.0.2");
  std::unique_ptr<ScriptedNameServer> server;
  there.in([&] { server = std::make_unique<ScriptedNameServer>(one_address); });
  const Outcome run = dnsq({"a.test", "@broadcast"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, StartsWith("NOERROR from the local network in "));
  EXPECT_THAT(run.out, EndsWith("address: 192.0.2.1\n"));
}

// ---- what is printed

TEST(Dnsq, PrintsTheWholeAnswer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(two_servers);
  const Outcome run = dnsq({"_sip._udp.example.net", "SRV", "@127.0.0.1"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(timeless(run.out),
            "NOERROR from 127.0.0.1 in N ms\n"
            "id 1, flags QR AA RD RA\n"
            "\n"
            "question:\n"
            "  _sip._udp.example.net         IN  SRV\n"
            "\n"
            "answer:\n"
            "  _sip._udp.example.net   3600  IN  SRV     10    60  5060 gw1.example.net\n"
            "  _sip._udp.example.net   3600  IN  SRV     20     0 15060 gw2.example.net\n"
            "\n"
            "authority:\n"
            "  example.net            86400  IN  NS   ns.example.net\n"
            "\n"
            "additional:\n"
            "  gw1.example.net           60  IN  A    192.0.2.1\n"
            "\n"
            "address: 192.0.2.1 (gw1.example.net port 5060)\n");
}

TEST(Dnsq, AnErrorAnswerIsAnAnswerAndIsSaid) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const struct {
    unsigned opts;
    const char* line;
  } kRows[] = {
      {0x8583, "NXDOMAIN (there is no such name) from 127.0.0.1 in N ms\n"},
      {0x8182, "SERVFAIL (the server has failed to answer) from 127.0.0.1 in N ms\n"},
      {0x8185, "REFUSED (the server refuses to answer) from 127.0.0.1 in N ms\n"},
      {0x818C, "RCODE12 from 127.0.0.1 in N ms\n"},
  };
  ScriptedNameServer server;
  for (const auto& row : kRows) {
    server.answer_by([opts = row.opts](const std::string& question) {
      return Datagrams{answer_to(question, opts).bytes()};
    });
    const Outcome run = dnsq({"nowhere.test", "@127.0.0.1"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_THAT(timeless(run.out), StartsWith(row.line));
    EXPECT_THAT(run.out, EndsWith("\n\naddress: none\n"));
  }
}

TEST(Dnsq, NamesEveryFlagAndWhatIsOdd) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const struct {
    unsigned opts;
    const char* flags;
    const char* note;
  } kRows[] = {
      {0x87F0, "flags QR AA TC RD RA Z AD CD\n",
       "note: the server has cut its answer short (TC), records are missing\n"},
      {0x0000, "flags none\n", "note: this is no response, the QR flag is missing\n"},
      {0xA000, "flags QR, opcode NOTIFY\n", ""},
      {0xF800, "flags QR, opcode OPCODE15\n", ""},
  };
  ScriptedNameServer server;
  for (const auto& row : kRows) {
    server.answer_by([opts = row.opts](const std::string& question) {
      return Datagrams{answer_to(question, opts).bytes()};
    });
    const Outcome run = dnsq({"a.test", "@127.0.0.1"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.out, AllOf(HasSubstr(row.flags), HasSubstr(row.note)));
  }
}

TEST(Dnsq, AddressIsTheOneToUse) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const struct {
    const char* type;
    std::function<void(DnsWire&)> answer;
    const char* end;
  } kRows[] = {
      {"A",
       [](DnsWire& wire) {
         wire.answer(dns_pointer(12), T_CNAME, 60, dns_name("b.test"));
         wire.answer(dns_name("b.test"), T_A, 60, rdata_a(kAddress));
       },
       "\n\naddress: 192.0.2.1\nnote: data are decoded of A, NS, MX and SRV records only\n"},
      {"NS",
       [](DnsWire& wire) {
         wire.answer(dns_pointer(12), T_NS, 60, dns_name("ns.test"));
         wire.additional(dns_name("ns.test"), T_A, 60, rdata_a(kAddress));
       },
       "\n\naddress: 192.0.2.1 (ns.test)\n"},
      {"MX",
       [](DnsWire& wire) {
         wire.answer(dns_pointer(12), T_MX, 60, rdata_mx(10, dns_name("mail.test")));
         wire.additional(dns_name("mail.test"), T_A, 60, rdata_a(kAddress));
       },
       "\n\naddress: 192.0.2.1 (mail.test)\n"},
      {"SRV",
       [](DnsWire& wire) {
         wire.answer(dns_pointer(12), T_SRV, 60, rdata_srv(1, 2, 5060, dns_name("gw.test")));
       },
       "\n\naddress: none came with the answer (gw.test port 5060)\n"},
      {"SRV",
       [](DnsWire& wire) { wire.answer(dns_pointer(12), T_SRV, 60, rdata_srv(0, 0, 0, dns_name("."))); },
       "     0     0     0 .\n\naddress: none\n"},
      {"TXT", [](DnsWire& wire) { wire.answer(dns_pointer(12), T_TXT, 60, rdata_txt("hello")); },
       "  60  IN  TXT\n\nnote: data are decoded of A, NS, MX and SRV records only\n"},
      {"28", [](DnsWire&) {},
       "  a.test    IN  TYPE28\n\nnote: the answer holds no records of this name and type\n"},
  };
  ScriptedNameServer server;
  for (const auto& row : kRows) {
    server.answer_by([fill = row.answer](const std::string& question) {
      DnsWire wire = answer_to(question);
      fill(wire);
      return Datagrams{wire.bytes()};
    });
    const Outcome run = dnsq({"a.test", row.type, "@127.0.0.1"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_THAT(run.out, EndsWith(row.end)) << row.type;
  }
}

TEST(Dnsq, SaysWhatWasAnnouncedAndNotDecoded) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server([](const std::string& question) {
    DnsWire wire = answer_to(question);
    wire.answer(dns_pointer(12), T_A, 300, rdata_a(kAddress));
    return Datagrams{wire.counts(1, 3, 0, 65535).bytes()};
  });
  const Outcome run = dnsq({"a.test", "@127.0.0.1"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(
      run.out,
      EndsWith("\naddress: 192.0.2.1\n"
               "note: answer: 3 announced, 1 decoded; what follows does not fit the datagram or cannot be "
               "read\n"
               "note: additional: 65535 announced, 0 decoded; what follows does not fit the datagram or "
               "cannot be read\n"));
}

// What a terminal would take for its own commands, and what would look like two names.
TEST(Dnsq, NamesAreShownAsOneWordOfPrintableCharacters) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server([](const std::string& question) {
    DnsWire wire = answer_to(question);
    wire.answer(dns_name("a\x1B[2J b\\\xFF"), T_A, 300, rdata_a(kAddress));
    wire.answer(dns_name("."), 65, 300, "", 5);
    return Datagrams{wire.bytes()};
  });
  const Outcome run = dnsq({"a.test", "@127.0.0.1"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.out, HasSubstr("\n  a\\027[2J\\032b\\\\\\255  300  IN      A       192.0.2.1\n"));
  EXPECT_THAT(run.out, HasSubstr("\n  .                    300  CLASS5  TYPE65\n"));
}

TEST(Dnsq, DatagramsThatAreNoAnswersAreSurvived) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const std::string looped = DnsWire().question(dns_pointer(12), T_A).bytes();
  ScriptedNameServer server;
  for (const std::string& bytes :
       {std::string("x"), std::string(12, '\xFF'), std::string(60000, '\xC0'), looped}) {
    server.answer_by([bytes](const std::string&) { return Datagrams(30, bytes); });
    const Outcome run = dnsq({"a.test", "@127.0.0.1"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
  }
}

TEST(Dnsq, JsonHasEverything) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(two_servers);
  const Outcome run = dnsq({"--json", "_sip._udp.example.net", "SRV", "@127.0.0.1"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1);
  nlohmann::json json = nlohmann::json::parse(run.out);
  EXPECT_GE(json["ms"].get<double>(), 0);
  json.erase("ms");
  EXPECT_EQ(json, nlohmann::json::parse(R"({
    "name": "_sip._udp.example.net", "type": "SRV", "server": "127.0.0.1",
    "id": 1, "opcode": "QUERY", "rcode": "NOERROR", "flags": ["QR", "AA", "RD", "RA"], "complete": true,
    "announced": {"question": 1, "answer": 2, "authority": 1, "additional": 1},
    "question": [{"name": "_sip._udp.example.net", "class": "IN", "type": "SRV"}],
    "answer": [
      {"name": "_sip._udp.example.net", "ttl": 3600, "class": "IN", "type": "SRV",
       "priority": 10, "weight": 60, "port": 5060, "target": "gw1.example.net"},
      {"name": "_sip._udp.example.net", "ttl": 3600, "class": "IN", "type": "SRV",
       "priority": 20, "weight": 0, "port": 15060, "target": "gw2.example.net"}],
    "authority": [{"name": "example.net", "ttl": 86400, "class": "IN", "type": "NS", "target": "ns.example.net"}],
    "additional": [{"name": "gw1.example.net", "ttl": 60, "class": "IN", "type": "A", "address": "192.0.2.1"}],
    "picked": {"address": "192.0.2.1", "target": "gw1.example.net", "port": 5060}
  })"));
}

TEST(Dnsq, JsonTellsIncompleteAnswersAndErrors) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server([](const std::string& question) {
    return Datagrams{answer_to(question, 0x8183).counts(1, 1, 0, 0).bytes()};
  });
  const Outcome run = dnsq({"--json", "a\xFF.test", "MX", "@127.0.0.1"});
  EXPECT_EQ(run.exit_code, 0);
  const nlohmann::json json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["rcode"], "NXDOMAIN");
  EXPECT_EQ(json["complete"], false);
  EXPECT_EQ(json["answer"], nlohmann::json::array());
  EXPECT_EQ(json["picked"], nullptr);
  EXPECT_EQ(json["question"][0]["name"], "a\\255.test");
}

TEST(Dnsq, TraceShowsTheLibrarysWords) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(one_address);
  const Outcome run = dnsq({"--trace", "a.test", "@127.0.0.1"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.err, HasSubstr("DnsLookup - a.test\n"));
  EXPECT_THAT(run.err, HasSubstr(" Answer:\ndnsq: DNS: "));
  EXPECT_THAT(run.err, HasSubstr(" IN A 192.0.2.1\n"));
}

// ---- when there is no answer

TEST(Dnsq, SaysWhenNobodyAnswers) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server;
  const auto started = std::chrono::steady_clock::now();
  const Outcome run = dnsq({"a.test", "@127.0.0.1"});
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(4900));
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dnsq: no answer from 127.0.0.1 within 5 s\n");
  EXPECT_EQ(server.questions().size(), 1U);
}

TEST(Dnsq, SaysAtOnceWhenTheQuestionCannotBeSent) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  for (const char* server : {"@192.0.2.53", "@broadcast"}) {
    const Outcome run = dnsq({"a.test", server});
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_THAT(run.err, EndsWith(" cannot be asked: Network is unreachable\n"));
  }
}

TEST(Dnsq, SaysWhenTheServersNameHasNoAddress) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/nsswitch.conf", "hosts: files\n");
  const Outcome run = dnsq({"a.test", "@nowhere.example.test"});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "dnsq: @SERVER: no address is known for the host nowhere.example.test\n");
}

TEST(Dnsq, SaysWhenTheAnswerCannotBeWritten) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ScriptedNameServer server(one_address);
  Pipe err;
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC)),
      null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Child child({"a.test", "@127.0.0.1"}, null.get(), full.get(), err.write.get(), false, DNSQ_PROGRAM);
  err.write.reset();
  Collector text(std::move(err.read));
  EXPECT_EQ(child.wait().exit_code, 1);
  EXPECT_EQ(text.all(), "dnsq: the answer cannot be written\n");
}

// ---- the command line

TEST(Dnsq, BadCommandLinesAreRefused) {
  const std::string long_label(64, 'a');
  const struct {
    Texts arguments;
    std::string message;
  } kRows[] = {
      {{}, "dnsq: NAME: is required\n"},
      {{"@127.0.0.1"}, "dnsq: NAME: is required\n"},
      {{""}, "dnsq: NAME: is empty\n"},
      {{"."}, "dnsq: NAME: cannot be sent: the root cannot be asked for\n"},
      {{"a..b"}, "dnsq: NAME: cannot be sent: label 2 is empty, at character 3\n"},
      {{".a"}, "dnsq: NAME: cannot be sent: label 1 is empty, at character 1\n"},
      {{"a.."}, "dnsq: NAME: cannot be sent: label 2 is empty, at character 3\n"},
      {{"b." + long_label + ".c"},
       "dnsq: NAME: cannot be sent: label 2 (aaaaaaaaaaaaaaaaaaaa...) has 64 characters, the most is 63\n"},
      {{long_dns_text(254)}, "dnsq: NAME: cannot be sent: it has 254 characters, the most is 253\n"},
      {{"a", "FOO"},
       "dnsq: TYPE: 'FOO' is no type of records: a name such as SRV, or a number from 1 to 65535\n"},
      {{"a", "0"}, "dnsq: TYPE: '0' is no type"},
      {{"a", "65536"}, "dnsq: TYPE: '65536' is no type"},
      {{"a", "99999999999"}, "dnsq: TYPE: '99999999999' is no type"},
      {{"a", "TYPE"}, "dnsq: TYPE: 'TYPE' is no type"},
      {{"a", "TYPE-1"}, "dnsq: TYPE: 'TYPE-1' is no type"},
      {{"a", ""}, "dnsq: TYPE: '' is no type"},
      {{"a", "A", "IN", "@127.0.0.1"}, "dnsq: arguments: NAME and TYPE are enough; what is 'IN'?\n"},
      {{"a", "@127.0.0.1", "@127.0.0.2"}, "dnsq: @SERVER: stands there more than once\n"},
      {{"a", "@"}, "dnsq: @SERVER: a name server's address or name is missing\n"},
      {{"a", "@0.0.0.0"}, "dnsq: @SERVER: 0.0.0.0 is no address of a name server\n"},
      {{"a", "@1.2.3"}, "dnsq: @SERVER: '1.2.3' is neither an IPv4 address nor a host name\n"},
      {{"a", "@1.2.3.256"}, "dnsq: @SERVER: '1.2.3.256' is neither"},
      {{"a", "@::1"}, "dnsq: @SERVER: '::1' is neither"},
      {{"a", "@127.0.0.1:5353"}, "dnsq: @SERVER: '127.0.0.1:5353' is neither"},
      {{"a", "@a..b"}, "dnsq: @SERVER: 'a..b' is neither"},
      {{"a", "--frob"}, "dnsq: The following argument was not expected: --frob\n"},
  };
  for (const auto& row : kRows) {
    const Outcome run = dnsq(row.arguments);
    EXPECT_EQ(run.exit_code, 2) << row.message;
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, AllOf(StartsWith(row.message), EndsWith("\nTry dnsq --help\n")));
  }
}

TEST(Dnsq, HelpAndVersion) {
  const Outcome help = dnsq({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* word :
       {"NAME [TYPE] [@SERVER]", "--json", "--trace", "@broadcast", "/etc/resolv.conf", "Exit codes:"}) {
    EXPECT_THAT(help.out, HasSubstr(word));
  }
  EXPECT_EQ(help.err, "");
  const Outcome version = dnsq({"--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_THAT(version.out, StartsWith("dnsq "));
}

// ---- the library

TEST(DnsqNameServer, FirstIPv4ServerOfTheConfigurationIsTaken) {
  const struct {
    const char* text;
    const char* address;  // null for none
  } kRows[] = {
      {"nameserver 192.0.2.1\n", "192.0.2.1"},
      {"nameserver\t192.0.2.1 # comment\nnameserver 192.0.2.2", "192.0.2.1"},
      {"# nameserver 192.0.2.1\n; nameserver 192.0.2.2\nnameserver 192.0.2.3", "192.0.2.3"},
      {"nameserver 2001:db8::1\nnameserver fe80::1%eth0\nnameserver 192.0.2.1\n", "192.0.2.1"},
      {"nameservers 192.0.2.1\n nameserver 192.0.2.2\nNAMESERVER 192.0.2.3\n", nullptr},
      {"nameserver\nnameserver 192.0.2\nnameserver example.net\n", nullptr},
      {"nameserver 0.0.0.0\n", "127.0.0.1"},
      {"search example.net\noptions rotate\n", nullptr},
      {"", nullptr},
  };
  const std::string file =
      (std::filesystem::temp_directory_path() / ("resolv_" + std::to_string(getpid()))).string();
  for (const auto& row : kRows) {
    std::ofstream(file) << row.text;
    const auto found = dnsq::configured_name_server(file.c_str());
    EXPECT_EQ(found.has_value(), row.address != nullptr) << row.text;
    EXPECT_EQ(found ? found->text : "", row.address != nullptr ? row.address : "");
  }
  std::filesystem::remove(file);
  EXPECT_FALSE(dnsq::configured_name_server(file.c_str()));
}

TEST(DnsqNameServer, NamesAndAddressesAreToldApart) {
  EXPECT_FALSE(dnsq::read_name_server("192.0.2.1").is_name());
  EXPECT_TRUE(dnsq::read_name_server("ns1.example.net.").is_name());
  EXPECT_TRUE(dnsq::read_name_server("1and1.test").is_name());
  EXPECT_FALSE(dnsq::read_name_server("broadcast").is_name());
  EXPECT_EQ(dnsq::read_name_server("broadcast").text, "");
}

TEST(DnsqAnswer, NamesAreEqualWhateverTheirCase) {
  EXPECT_TRUE(dnsq::same_name("GW.Example.NET", "gw.example.net"));
  EXPECT_FALSE(dnsq::same_name("gw.example.net", "gw.example.ne"));
  EXPECT_TRUE(dnsq::same_name("", ""));
}

}  // namespace
}  // namespace callrouter_test
