// What decoded messages look like on the console.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "network/dns.h"
#include "support/dns_fixture.h"

namespace oskernel_test {
namespace {

using Lines = std::vector<std::string>;

/// Records and questions can be printed before the kernel has been started.
class DnsPrint : public KernelTest {};
class DnsMessagePrint : public DnsTest {};

/// An address as %p shows it.
std::string address_of(const void* object) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", object);
  return text;
}

/// A line of an entry: two blanks behind the address.
std::string line(const void* object, const std::string& rest) {
  return "DNS: " + address_of(object) + "  " + rest;
}
/// A line of a message: one.
std::string heading(const void* object, const std::string& rest) {
  return "DNS: " + address_of(object) + " " + rest;
}

DnsQuestion* fill(DnsQuestion* question, const char* name, int type, int clas) {
  std::snprintf(question->qname, sizeof question->qname, "%s", name);
  question->qtype = type;
  question->qclass = clas;
  return question;
}

DnsResource* fill(DnsResource* record, const char* name, int type, int clas, int ttl) {
  std::snprintf(record->name, sizeof record->name, "%s", name);
  record->type = type;
  record->clas = clas;
  record->ttl = ttl;
  return record;
}

void set_target(DnsResource* record, const std::string& target) {
  std::snprintf(record->target, sizeof record->target, "%s", target.c_str());
}

// ---- Questions ---------------------------------------------------------------------------------------------

TEST_F(DnsPrint, AQuestionIsNameTypeAndClass) {
  struct Row {
    const char* name;
    int type;
    int clas;
    const char* rest;
  };
  for (const Row& row :
       {Row{"abc.defghij.klm", T_A, 1, "abc.defghij.klm, type A, class IN"},
        Row{"_sip._tcp.example.test", T_SRV, 255, "_sip._tcp.example.test, type SRV, class *"},
        Row{"", T_ALL, 4, ", type *, class HS"}, Row{"x", T_NAPTR, 3, "x, type NAPTR, class CH"},
        Row{"x", 28, 1, "x, type (null), class IN"}, Row{"x", T_MX, 5, "x, type MX, class (null)"},
        Row{"x", 0, 0, "x, type (null), class (null)"},
        Row{"x", -1, 65535, "x, type (null), class (null)"}}) {
    console.clear();
    DnsQuestion question;
    fill(&question, row.name, row.type, row.clas)->Print();
    EXPECT_EQ(console.calls(), Lines{line(&question, row.rest)});
  }
}

// ---- Records -----------------------------------------------------------------------------------------------

TEST_F(DnsPrint, AnARecordShowsItsAddress) {
  struct Row {
    ULONG addr;
    const char* text;
  };
  for (const Row& row :
       {Row{0xC0A80001, "192.168.0.1"}, Row{0, "0.0.0.0"}, Row{0xFFFFFFFF, "255.255.255.255"},
        Row{0x01020304, "1.2.3.4"}, Row{0x7F000001, "127.0.0.1"}}) {
    console.clear();
    DnsResource record;
    fill(&record, "gw.test", T_A, 1, 300)->addr = row.addr;
    record.Print();
    EXPECT_EQ(console.calls(),
              Lines{line(&record, std::string("gw.test                  300 IN A ") + row.text)});
  }
}

TEST_F(DnsPrint, AnNsRecordShowsItsNameServer) {
  DnsResource record;
  fill(&record, "example.test", T_NS, 1, 86400);
  set_target(&record, "ns1.example.test");
  record.Print();
  EXPECT_EQ(console.calls(), Lines{line(&record, "example.test           86400 IN NS ns1.example.test")});
}

TEST_F(DnsPrint, AnMxRecordShowsPreferenceAndExchange) {
  struct Row {
    int priority;
    const char* text;
  };
  for (const Row& row : {Row{0, "  0"}, Row{10, " 10"}, Row{100, "100"}, Row{65535, "65535"}}) {
    console.clear();
    DnsResource record;
    fill(&record, "example.test", T_MX, 1, 60)->priority = row.priority;
    set_target(&record, "mail.example.test");
    record.Print();
    EXPECT_EQ(console.calls(), Lines{line(&record, std::string("example.test              60 IN MX ") +
                                                       row.text + " mail.example.test")});
  }
}

TEST_F(DnsPrint, AnSrvRecordShowsPriorityWeightPortAndTarget) {
  struct Row {
    int priority;
    int weight;
    int port;
    const char* text;
  };
  for (const Row& row : {Row{10, 60, 5060, " 10  60 5060"}, Row{0, 0, 0, "  0   0   0"},
                         Row{1, 22, 333, "  1  22 333"}, Row{65535, 65534, 65533, "65535 65534 65533"}}) {
    console.clear();
    DnsResource record;
    fill(&record, "_sip._tcp.test", T_SRV, 1, 3600);
    record.priority = row.priority;
    record.weight = row.weight;
    record.port = row.port;
    set_target(&record, "gw1.test");
    record.Print();
    EXPECT_EQ(console.calls(), Lines{line(&record, std::string("_sip._tcp.test          3600 IN SRV ") +
                                                       row.text + " gw1.test")});
  }
}

// Numbers that no message has but a program may set are printed as the formats say: unsigned.
TEST_F(DnsPrint, NumbersAreUnsigned) {
  DnsResource record;
  fill(&record, "n", T_SRV, 1, -1);
  record.priority = -2;
  record.weight = -3;
  record.port = -4;
  set_target(&record, "t");
  record.Print();
  EXPECT_EQ(
      console.calls(),
      Lines{line(&record, "n                    4294967295 IN SRV 4294967294 4294967293 4294967292 t")});
}

TEST_F(DnsPrint, ATtlIsUnsignedInSevenColumns) {
  struct Row {
    int ttl;
    const char* text;
  };
  for (const Row& row : {Row{0, "      0"}, Row{9999999, "9999999"}, Row{10000000, "10000000"},
                         Row{static_cast<int>(0x80000000), "2147483648"}, Row{-1, "4294967295"}}) {
    console.clear();
    DnsResource record;
    fill(&record, "n", T_TXT, 1, row.ttl)->Print();
    EXPECT_EQ(console.calls(),
              Lines{line(&record, std::string("n                    ") + row.text + " IN TXT")});
  }
}

TEST_F(DnsPrint, OtherTypesShowNothingFurther) {
  for (const int type : {T_MD, T_MF, T_CNAME, T_SOA, T_MB, T_MG, T_MR, T_NULL, T_WKS, T_PTR, T_HINFO, T_MINFO,
                         T_TXT, T_NAPTR, T_AXFR, T_MAILB, T_MAILA, T_ALL}) {
    console.clear();
    DnsResource record;
    fill(&record, "n", type, 1, 5);
    record.addr = 1;
    record.priority = 2;
    record.weight = 3;
    record.port = 4;
    set_target(&record, "target");
    record.Print();
    EXPECT_EQ(console.calls(),
              Lines{line(&record, std::string("n                          5 IN ") + GetTypeStr(type))});
  }
}

TEST_F(DnsPrint, UnknownTypesAndClassesAreNull) {
  struct Row {
    int type;
    int clas;
    const char* text;
  };
  for (const Row& row : {Row{28, 1, "IN (null)"}, Row{41, 4096, "(null) (null)"}, Row{0, 0, "(null) (null)"},
                         Row{-5, -5, "(null) (null)"}, Row{T_CNAME, 0, "(null) CNAME"},
                         Row{17, 254, "(null) (null)"}, Row{65535, 255, "* (null)"}}) {
    console.clear();
    DnsResource record;
    fill(&record, "n", row.type, row.clas, 5)->Print();
    EXPECT_EQ(console.calls(), Lines{line(&record, std::string("n                          5 ") + row.text)});
  }
  // A class without a name in front of what a type shows.
  console.clear();
  DnsResource record;
  fill(&record, "n", T_A, 9, 5)->addr = 0x01020304;
  record.Print();
  EXPECT_EQ(console.calls(), Lines{line(&record, "n                          5 (null) A 1.2.3.4")});
}

TEST_F(DnsPrint, ANameFillsTwentyColumnsAndMayBeLonger) {
  for (const std::size_t length : {0, 1, 19, 20, 21, 100, 255}) {
    console.clear();
    const std::string name = long_dns_text(length);
    DnsResource record;
    fill(&record, name.c_str(), T_TXT, 1, 5)->Print();
    const std::string filled = name + std::string(length < 20 ? 20 - length : 0, ' ');
    EXPECT_EQ(console.calls(), Lines{line(&record, filled + "       5 IN TXT")});
  }
}

TEST_F(DnsPrint, TheLongestNamesArePrintedWhole) {
  const std::string name = long_dns_text(255, 63, 'a');
  const std::string target = long_dns_text(255, 63, 'k');
  DnsQuestion question;
  fill(&question, name.c_str(), T_A, 1)->Print();
  EXPECT_EQ(console.calls(), Lines{line(&question, name + ", type A, class IN")});
  console.clear();
  DnsResource record;
  fill(&record, name.c_str(), T_SRV, 1, 1);
  set_target(&record, target);
  record.Print();
  EXPECT_EQ(console.calls(), Lines{line(&record, name + "       1 IN SRV   0   0   0 " + target)});
}

TEST_F(DnsPrint, PercentSignsInNamesAreText) {
  DnsQuestion question;
  fill(&question, "%s%n%p", T_A, 1)->Print();
  EXPECT_EQ(console.calls(), Lines{line(&question, "%s%n%p, type A, class IN")});
  console.clear();
  DnsResource record;
  fill(&record, "%n%n%n%n", T_NS, 1, 1);
  set_target(&record, "%s%d");
  record.Print();
  EXPECT_EQ(console.calls(), Lines{line(&record, "%n%n%n%n                   1 IN NS %s%d")});
}

TEST_F(DnsPrint, PrintingChangesNothing) {
  DnsResource record;
  fill(&record, "n", T_A, 1, 1)->addr = 0x01020304;
  const std::string before = shown(record);
  record.Print();
  record.Print();
  EXPECT_EQ(shown(record), before);
  EXPECT_EQ(console.calls().size(), 2U);
}

// ---- Messages ----------------------------------------------------------------------------------------------

TEST_F(DnsMessagePrint, EachListThatIsNotEmptyHasAHeading) {
  DnsWire wire;
  wire.question(dns_name("example.test"), T_MX);
  wire.answer(dns_pointer(12), T_MX, 300, rdata_mx(10, dns_name("mail", 12)));
  wire.answer(dns_pointer(12), T_MX, 300, rdata_mx(20, dns_name("mx2", 12)));
  wire.authority(dns_pointer(12), T_NS, 60, dns_name("ns", 12));
  wire.additional(dns_name("mail", 12), T_A, 60, rdata_a(0xC0A80001));
  wire.additional(dns_name("mail", 12), 28, 60, std::string(16, '\x20'));
  DnsMessage message;
  decode(&message, wire.bytes());
  console.clear();
  message.Print();
  const auto questions = listed<DnsQuestion>(message.questions);
  const auto answers = listed<DnsResource>(message.answers);
  const auto authorities = listed<DnsResource>(message.authorities);
  const auto additionals = listed<DnsResource>(message.additionals);
  ASSERT_EQ(shown(message).size(), 6U);
  EXPECT_EQ(console.calls(), (Lines{
                                 heading(&message, "Question:"),
                                 line(questions[0], "example.test, type MX, class IN"),
                                 heading(&message, "Answer:"),
                                 line(answers[0], "example.test             300 IN MX  10 mail.example.test"),
                                 line(answers[1], "example.test             300 IN MX  20 mx2.example.test"),
                                 heading(&message, "Authority:"),
                                 line(authorities[0], "example.test              60 IN NS ns.example.test"),
                                 heading(&message, "Additional:"),
                                 line(additionals[0], "mail.example.test         60 IN A 192.168.0.1"),
                                 line(additionals[1], "mail.example.test         60 IN (null)"),
                             }));
}

TEST_F(DnsMessagePrint, AnEmptyListHasNoHeading) {
  struct Row {
    bool filled[4];
  };
  const char* const headings[] = {"Question:", "Answer:", "Authority:", "Additional:"};
  for (int combination = 0; combination < 16; ++combination) {
    SCOPED_TRACE(combination);
    DnsWire wire;
    Lines expected;
    DnsMessage message;
    for (unsigned section = 0; section < 4; ++section) {
      if ((combination >> section & 1) == 0) continue;
      wire.put(section,
               section == 0 ? dns_question(dns_name("n"), T_TXT) : dns_record(dns_name("n"), T_TXT, 1, ""));
    }
    decode(&message, wire.bytes());
    OSIndirectList* const lists[] = {&message.questions, &message.answers, &message.authorities,
                                     &message.additionals};
    for (unsigned section = 0; section < 4; ++section) {
      if ((combination >> section & 1) == 0) continue;
      ASSERT_EQ(lists[section]->Size(), 1);
      expected.push_back(heading(&message, headings[section]));
      expected.push_back(
          line(listed<OSListObj>(*lists[section])[0],
               section == 0 ? "n, type TXT, class IN" : "n                          1 IN TXT"));
    }
    console.clear();
    message.Print();
    EXPECT_EQ(console.calls(), expected);
  }
}

// The counts say what was announced, the lists what is there.
TEST_F(DnsMessagePrint, HeadingsFollowTheListsAndNotTheCounts) {
  DnsMessage message;
  decode(&message, DnsWire().question(dns_name("q"), T_A).counts(1, 5, 5, 5).bytes());
  console.clear();
  message.Print();
  EXPECT_EQ(console.count("Answer:"), 0);
  EXPECT_EQ(console.calls().size(), 2U);
}

TEST_F(DnsMessagePrint, EntriesThatAProgramPutInArePrinted) {
  DnsMessage message;
  auto* const record = new DnsResource;
  message.additionals.Append(fill(record, "own", T_CNAME, 1, 1));
  message.Print();
  EXPECT_EQ(console.calls(),
            (Lines{heading(&message, "Additional:"), line(record, "own                        1 IN CNAME")}));
}

// ---- Where it is printed -----------------------------------------------------------------------------------

/// Sees which of the console's operations is called.
class PrintConsole : public OSConsole {
 public:
  void Print(const char* /*format*/, ...) override OSKERNEL_PRINTF(2, 3) { ++prints; }
  int prints = 0;
};

TEST_F(DnsMessagePrint, EveryLineIsOnePrint) {
  DnsMessage message;
  decode(&message, DnsWire()
                       .question(dns_name("q"), T_A)
                       .answer(dns_name("a"), T_A, 1, rdata_a(1))
                       .answer(dns_name("b"), 99, 1, "", 99)
                       .bytes());
  PrintConsole prints;
  Console = &prints;
  message.Print();
  Console = &console;
  EXPECT_EQ(prints.prints, 5);
}

TEST_F(DnsMessagePrint, WithoutAConsoleNothingIsPrinted) {
  DnsMessage message;
  decode(&message, DnsWire()
                       .question(dns_name("q"), T_A)
                       .answer(dns_name("a"), T_A, 1, rdata_a(1))
                       .authority(dns_name("a"), T_NS, 1, dns_name("b"))
                       .additional(dns_name("a"), T_SRV, 1, rdata_srv(1, 2, 3, dns_name("b")))
                       .additional(dns_name("a"), T_MX, 1, rdata_mx(1, dns_name("b")))
                       .additional(dns_name("a"), 99, 1, "")
                       .bytes());
  Console = nullptr;
  message.Print();
  Console = &console;
  EXPECT_TRUE(console.calls().empty());
}

// The class-wide section of the sockets does not exist in a program that makes none.
TEST_F(DnsMessagePrint, AnAddressIsPrintedBeforeWhileAndAfterTheNetworkingLayerRuns) {
  DnsResource record;
  fill(&record, "n", T_A, 1, 1)->addr = 0x0A010203;
  const std::string expected = line(&record, "n                          1 IN A 10.1.2.3");
  record.Print();
  AsyncSocket::Init();
  record.Print();
  // A printing thread waits for no socket.
  EnterCriticalSection(&AsyncSocket::cs);
  record.Print();
  LeaveCriticalSection(&AsyncSocket::cs);
  AsyncSocket::Cleanup();
  record.Print();
  EXPECT_EQ(console.count(expected), 4);
}

}  // namespace
}  // namespace oskernel_test
