// What a DnsLookup asks, byte by byte, whom, and what it prints while it is constructed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/buffer_drought.h"
#include "support/dns_lookup_fixture.h"
#include "support/failing_new.h"
#include "support/socket_probe.h"
#include "support/vtable_slot.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

static_assert(std::is_base_of_v<OSIO, DnsLookup>);
static_assert(std::has_virtual_destructor_v<DnsLookup>);
static_assert(std::is_same_v<decltype(DnsLookup::socket), AsyncSocket*>);
static_assert(std::is_same_v<decltype(DnsLookup::callback), OSCallbackFunction>);
static_assert(std::is_same_v<decltype(DnsLookup::obj), OSObj*>);
static_assert(std::is_same_v<decltype(DnsLookup::response), DnsMessage*>);
static_assert(std::is_same_v<decltype(DnsLookup::timer), OSTimerTrigger>);
static_assert(std::is_constructible_v<DnsLookup, char*, Type, const char*, OSCallbackFunction, OSObj*>);

class DnsQuery : public QuietLookups {
 protected:
  /// What a name and a type are asked with; "(not sent)" when nothing was.
  std::string asked(const std::string& name, Type type = T_A) {
    const std::size_t before = server_.sent().size();
    const OwnedLookup lookup = ask(asker_, name, type);
    return server_.sent().size() == before + 1 ? server_.last().bytes : "(not sent)";
  }
  /// The lines that a lookup has printed about itself, in order.
  std::vector<std::string> lines_of(const DnsLookup* lookup) const {
    return lines_with(console, lookup_line(lookup, ""));
  }

  NameServer server_;
};

// ---- The datagram ------------------------------------------------------------------------------------------------

TEST_F(DnsQuery, AnAddressIsAskedForIn33Bytes) {
  const OwnedLookup lookup = ask(asker_, "abc.defghij.klm", T_A);
  ASSERT_EQ(server_.sent().size(), 1u) << "at once, inside the constructor";
  EXPECT_EQ(server_.last().bytes, from_hex("00 01 01 80 00 01 00 00 00 00 00 00"
                                           "03 61 62 63 07 64 65 66 67 68 69 6a 03 6b 6c 6d 00"
                                           "00 01 00 01"));
  EXPECT_EQ(server_.last().bytes.size(), 33u);
  EXPECT_EQ(buffers_out(), 0) << "the buffer goes home when it has been sent";
  settle();
  EXPECT_EQ(server_.sent().size(), 1u) << "there is no second attempt";
}

TEST_F(DnsQuery, TheHeaderAsksWithBothRecursionBits) {
  const std::string header = from_hex("00 01 01 80 00 01 00 00 00 00 00 00");
  for (const char* name : {"abc.defghij.klm", "a", "_sip._udp.example.test"}) {
    EXPECT_EQ(asked(name).substr(0, 12), header) << name;
  }
  EXPECT_EQ(asked("abc.defghij.klm", T_SRV).substr(0, 12), header);
  EXPECT_EQ(asked("second.lookup").substr(0, 2), from_hex("0001")) << "the ID is always the same";
}

TEST_F(DnsQuery, EveryTypeStandsBehindTheNameAndTheClassIsTheInternet) {
  const struct {
    Type type;
    const char* bytes;  // type and class
  } rows[] = {
      {T_A, "0001 0001"},
      {T_NS, "0002 0001"},
      {T_MD, "0003 0001"},
      {T_MF, "0004 0001"},
      {T_CNAME, "0005 0001"},
      {T_SOA, "0006 0001"},
      {T_MB, "0007 0001"},
      {T_MG, "0008 0001"},
      {T_MR, "0009 0001"},
      {T_NULL, "000a 0001"},
      {T_WKS, "000b 0001"},
      {T_PTR, "000c 0001"},
      {T_HINFO, "000d 0001"},
      {T_MINFO, "000e 0001"},
      {T_MX, "000f 0001"},
      {T_TXT, "0010 0001"},
      {T_SRV, "0021 0001"},
      {T_NAPTR, "0023 0001"},
      {T_AXFR, "00fc 0001"},
      {T_MAILB, "00fd 0001"},
      {T_MAILA, "00fe 0001"},
      {T_ALL, "00ff 0001"},
      {static_cast<Type>(28), "001c 0001"},
      {static_cast<Type>(0), "0000 0001"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(asked("host.test", row.type),
              from_hex("0001 0180 0001 0000 0000 0000") + dns_name("host.test") + from_hex(row.bytes))
        << row.type;
  }
}

TEST_F(DnsQuery, NamesAreLabelsBehindTheirLengths) {
  const struct {
    std::string name;
    std::string bytes;
  } rows[] = {
      {"a", from_hex("01 61 00")},
      {"a.b", from_hex("01 61 01 62 00")},
      {"Mixed.CASE", from_hex("05 4d 69 78 65 64 04 43 41 53 45 00")},
      {"_sip._udp.x", from_hex("04 5f 73 69 70 04 5f 75 64 70 01 78 00")},
      {"with blank.\xE4\xFF", from_hex("0a 77 69 74 68 20 62 6c 61 6e 6b 02 e4 ff 00")},
      {"1.0.0.127", from_hex("01 31 01 30 01 30 03 31 32 37 00")},
      {std::string(63, 'l') + ".test", from_hex("3f") + std::string(63, 'l') + from_hex("04 74 65 73 74 00")},
      {std::string(63, 'l'), from_hex("3f") + std::string(63, 'l') + from_hex("00")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string bytes = asked(row.name);
    EXPECT_EQ(bytes, from_hex("0001 0180 0001 0000 0000 0000") + row.bytes + from_hex("0001 0001"));
    EXPECT_EQ(bytes.size(), 12 + row.name.size() + 2 + 4);
  }
}

TEST_F(DnsQuery, TheLongestNamesAreSentWhole) {
  for (const std::size_t length : {64, 127, 128, 200, 251, 252, 253}) {
    for (const std::size_t label : {2, 7, 62, 63}) {
      const std::string name = long_dns_text(length, label);
      ASSERT_EQ(name.size(), length);
      const std::string bytes = asked(name);
      EXPECT_EQ(bytes, question_bytes(name, T_A)) << length << " " << label;
      EXPECT_EQ(bytes.size(), 12 + length + 2 + 4);
    }
  }
}

TEST_F(DnsQuery, ADotAtTheEndIsAnEmptyLabel) {
  const std::string header = from_hex("0001 0180 0001 0000 0000 0000");
  EXPECT_EQ(asked("a.b."), header + from_hex("01 61 01 62 00 00") + from_hex("0001 0001"));
  EXPECT_EQ(asked("a."), header + from_hex("01 61 00 00") + from_hex("0001 0001"));
  EXPECT_EQ(asked("."), header + from_hex("00 00 00") + from_hex("0001 0001")) << "the root, twice empty";
  const std::string longest = long_dns_text(252) + ".";
  EXPECT_EQ(asked(longest), header + dns_name(long_dns_text(252)) + from_hex("00 0001 0001"));
  const std::string label = std::string(63, 'l') + ".";
  EXPECT_EQ(asked(label), header + dns_name(std::string(63, 'l')) + from_hex("00 0001 0001"));
}

TEST_F(DnsQuery, TheEmptyNameIsOneEmptyLabel) {
  EXPECT_EQ(asked(""), from_hex("0001 0180 0001 0000 0000 0000 00 00 0001 0001"));
}

TEST_F(DnsQuery, NoNameIsTheEmptyName) {
  const OwnedLookup lookup(new DnsLookup(nullptr, T_A, "10.53.53.53", Asker::told, asker_.obj()));
  EXPECT_EQ(server_.last().bytes, from_hex("0001 0180 0001 0000 0000 0000 00 00 0001 0001"));
  EXPECT_THAT(lines_of(lookup.get()), ElementsAre(lookup_line(lookup.get(), "DnsLookup - ")));
}

// ---- Names that are not sent -------------------------------------------------------------------------------------

TEST_F(DnsQuery, NamesThatNoMessageCanCarryAreNotSent) {
  const char* const kLabel = "a label of more than 63 characters";
  const char* const kEmpty = "an empty label";
  const char* const kName = "a name of more than 253 characters";
  const struct {
    std::string name;
    const char* reason;
  } rows[] = {
      {std::string(64, 'l'), kLabel},
      {std::string(64, 'l') + ".", kLabel},
      {std::string(64, 'l') + ".test", kLabel},
      {"host." + std::string(64, 'l') + ".test", kLabel},
      {"host." + std::string(65, 'l'), kLabel},
      {std::string(191, 'l'), kLabel},
      {std::string(192, 'l'), kLabel},
      {std::string(253, 'l'), kLabel},
      {"a..b", kEmpty},
      {".a", kEmpty},
      {".a.", kEmpty},
      {"a.b..c.d", kEmpty},
      {"a..", kEmpty},
      {"a.b..", kEmpty},
      {"..", kEmpty},
      {"...", kEmpty},
      {long_dns_text(254), kName},
      {long_dns_text(253) + ".", kName},
      {long_dns_text(255, 1), kName},
      {long_dns_text(255), kName},
      {long_dns_text(256), kName},
      {long_dns_text(300), kName},
      {long_dns_text(70000), kName},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name.substr(0, 300));
    console.clear();
    const OwnedLookup lookup = ask(asker_, row.name);
    EXPECT_THAT(
        lines_of(lookup.get()),
        ElementsAre(lookup_line(lookup.get(), "DnsLookup - " + row.name),
                    lookup_line(lookup.get(), "DnsLookup - " + row.name + " not sent: " + row.reason)));
    EXPECT_EQ(lookup->timer.State(), OS_T_WAIT) << "the time-out is all that follows";
    EXPECT_EQ(lookup->timer.duration, kAnswerWaitMs);
    EXPECT_EQ(lookup->response, nullptr);
    EXPECT_EQ(buffers_out(), 0);
  }
  settle();
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
  EXPECT_EQ(asker_.count(0), 0u);
}

TEST_F(DnsQuery, ANameThatBreaksEveryRuleIsNotSentEither) {
  for (const std::string& name : {"." + std::string(64, 'l') + ".." + std::string(300, 'm'),
                                  std::string(1000, '.'), std::string(1000, 'l'), std::string(66000, 'l')}) {
    console.clear();
    const OwnedLookup lookup = ask(asker_, name);
    const std::vector<std::string> lines = lines_of(lookup.get());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[1],
                testing::StartsWith(lookup_line(lookup.get(), "DnsLookup - " + name + " not sent: ")));
  }
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
}

TEST_F(DnsQuery, ANameThatIsNotSentLeavesNothingWaitingForItsServer) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedLookup lookup = ask(asker_, "a..b", T_A, "ns.test");
  EXPECT_EQ(buffers_out(), 0);
  FakeResolver::release();
  const bool asked_for = !FakeResolver::calls().empty() || !pending().empty();
  if (asked_for) {
    ASSERT_TRUE(delivered(1));
  }
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
}

TEST_F(DnsQuery, ANameThatIsNotSentCanStillBeAnswered) {
  // Whatever reaches the socket is an answer.
  const OwnedLookup lookup = ask(asker_, "a..b");
  ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", ip(1, 2, 3, 4))));
  ASSERT_TRUE(told(1));
  EXPECT_THAT(asker_.values(), ElementsAre(0u));
  EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE);
}

// ---- Whom it asks ------------------------------------------------------------------------------------------------

TEST_F(DnsQuery, AServerGivenAsAnAddressIsAskedAtOnceOnPort53) {
  for (const ULONG addr :
       {ip(10, 53, 53, 53), ip(127, 0, 0, 1), ip(192, 168, 0, 1), ip(255, 255, 255, 254)}) {
    SockAddr shown(addr, 0);
    const OwnedLookup lookup = ask(asker_, "host.test", T_A, shown.AddressStr(nullptr));
    EXPECT_TRUE(server_.last().to == SockAddr(addr, 53)) << shown.AddressStr(nullptr);
    EXPECT_EQ(server_.last().thread, gettid());
    EXPECT_EQ(lookup->socket->state, SSConnected);
  }
  EXPECT_EQ(server_.sent().size(), 4u);
  EXPECT_THAT(FakeResolver::calls(), IsEmpty());
}

TEST_F(DnsQuery, WithoutAServerItAsksTheLocalNetworkThroughTheNameCache) {
  FakeResolver::know("255.255.255.255", 0xFFFFFFFF);
  std::size_t calls = 0, datagrams = 0;
  for (const char* server : {static_cast<const char*>(nullptr), "", "255.255.255.255"}) {
    SCOPED_TRACE(server != nullptr ? server : "(null)");
    DNSEntry::Clear("255.255.255.255");
    FakeResolver::hold();
    const OwnedLookup lookup = ask(asker_, "abc.defghij.klm", T_A, server);
    EXPECT_EQ(server_.sent().size(), datagrams) << "its address is not known yet";
    EXPECT_EQ(buffers_out(), 1) << "the question waits";
    EXPECT_EQ(lookup->timer.State(), OS_T_WAIT) << "the time runs all the same";
    FakeResolver::release();
    ASSERT_TRUE(delivered(++calls));
    ASSERT_EQ(server_.sent().size(), ++datagrams);
    EXPECT_TRUE(server_.last().to == SockAddr(0xFFFFFFFF, 53));
    EXPECT_EQ(server_.last().bytes, question_bytes("abc.defghij.klm", T_A));
    EXPECT_EQ(buffers_out(), 0);
    settle();
    EXPECT_EQ(server_.sent().size(), datagrams) << "once";
    ASSERT_TRUE(server_.send_to(*lookup, address_answer("abc.defghij.klm", ip(1, 2, 3, 4))));
    ASSERT_TRUE(told(datagrams));
    EXPECT_EQ(first_address(*lookup), ip(1, 2, 3, 4));
  }
  EXPECT_THAT(FakeResolver::calls(), ElementsAre("255.255.255.255", "255.255.255.255", "255.255.255.255"));
  const OwnedLookup known = ask(asker_, "host.test", T_A, nullptr);
  EXPECT_EQ(server_.sent().size(), ++datagrams) << "it is known by now";
}

TEST_F(DnsQuery, AServerGivenByNameIsAskedWhenItsAddressIsFound) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const OwnedLookup first = ask(asker_, "first.test", T_A, "ns.test");
  const OwnedLookup second = ask(asker_, "second.test", T_SRV, "NS.test");
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
  EXPECT_EQ(buffers_out(), 2);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_THAT(server_.sent_bytes(),
              ElementsAre(question_bytes("first.test", T_A), question_bytes("second.test", T_SRV)));
  for (const SentDatagram& sent : server_.sent()) EXPECT_TRUE(sent.to == SockAddr(ip(10, 9, 8, 7), 53));
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_THAT(FakeResolver::calls(), ElementsAre("ns.test"));

  const OwnedLookup third = ask(asker_, "third.test", T_A, "ns.test");
  EXPECT_EQ(server_.last().bytes, question_bytes("third.test", T_A)) << "inside the constructor";
  EXPECT_EQ(server_.last().thread, gettid());
}

TEST_F(DnsQuery, AServerWhoseNameIsNotFoundIsNotAsked) {
  const OwnedLookup lookup = ask(asker_, "host.test", T_A, "nobody.test");
  ASSERT_TRUE(delivered(1));
  settle();
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
  EXPECT_EQ(buffers_out(), 0) << "the question has been given up";
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT) << "the time-out tells it";
  EXPECT_EQ(asker_.count(0), 0u);
  EXPECT_TRUE(printed(console, lost_line(lookup->socket, "nobody.test")));
}

TEST_F(DnsQuery, AServerOfAllZerosCannotBeAsked) {
  const OwnedLookup lookup = ask(asker_, "host.test", T_A, "0.0.0.0");
  EXPECT_EQ(lookup->socket->s, -1);
  EXPECT_EQ(console.count("AsyncSocket: couldn't resolve host 0.0.0.0"), 1);
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
}

TEST_F(DnsQuery, NameAndServerAreOnlyLent) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  char name[] = "host.test", server[] = "ns.test";
  const OwnedLookup lookup(new DnsLookup(name, T_A, server, Asker::told, asker_.obj()));
  std::memset(name, 'X', sizeof name - 1);
  std::memset(server, 'X', sizeof server - 1);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_THAT(server_.sent_bytes(), ElementsAre(question_bytes("host.test", T_A)));
}

// ---- How it is constructed ---------------------------------------------------------------------------------------

TEST_F(DnsQuery, TheSocketIsAnIndirectDatagramSocketBelow) {
  const Tracing tracing;
  const OwnedLookup lookup = ask(asker_, "host.test");
  AsyncSocket* const socket = lookup->socket;
  ASSERT_NE(socket, nullptr);
  EXPECT_TRUE(is_live(socket));
  EXPECT_TRUE(socket->indirect_socket);
  EXPECT_EQ(socket->type, SOCK_DGRAM);
  EXPECT_EQ(socket->Partner(), lookup.get());
  EXPECT_EQ(lookup->Partner(), socket);
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::Create(2,0,00000000,0)", socket->s)));
  EXPECT_NE(system_name(socket->s).Port(), 0);
  EXPECT_EQ(system_name(socket->s).Address(), 0u);
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_BROADCAST), 1);
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_REUSEADDR), 0);
  EXPECT_TRUE(non_blocking(socket->s));
  EXPECT_TRUE(running(*socket));
}

// A datagram may come as soon as the socket has a port.
TEST_F(DnsQuery, TheSocketIsBoundBeforeItIsCreated) {
  AsyncSocket::Cleanup();  // its threads print
  {
    OSIO* above = nullptr;
    ActsOnceAtALine console_line("AsyncSocket::Create(2,0,",
                                 [&] { above = live_sockets().back()->Partner(); });
    const Tracing tracing;
    const OwnedLookup lookup = ask(asker_, "host.test");
    EXPECT_TRUE(console_line.has_acted());
    EXPECT_EQ(above, lookup.get());
  }
  AsyncSocket::Cleanup();
}

TEST_F(DnsQuery, ItAsksFromThePrimaryAddressWhenThereIsOne) {
  AsyncSocket::SetPrimaryAddress(kLoopback2);
  const OwnedLookup lookup = ask(asker_, "host.test");
  EXPECT_EQ(system_name(lookup->socket->s).Address(), kLoopback2);
  AsyncSocket::SetPrimaryAddress(0);
}

TEST_F(DnsQuery, TheFieldsHoldWhatWasGiven) {
  const ULONG before = os_clock();
  const OwnedLookup lookup = ask(asker_, "host.test");
  EXPECT_EQ(lookup->callback, &Asker::told);
  EXPECT_EQ(lookup->obj, asker_.obj());
  EXPECT_EQ(lookup->response, nullptr);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
  EXPECT_EQ(lookup->timer.duration, kAnswerWaitMs);
  EXPECT_GE(lookup->timer.start_time, before);
  EXPECT_EQ(asker_.count(), 0u);
}

TEST_F(DnsQuery, FieldsAndOperationsStandInTheirOrder) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  const auto at = [](const void* field) { return reinterpret_cast<std::uintptr_t>(field); };
  EXPECT_EQ(at(&lookup->socket), at(lookup.get()) + sizeof(OSIO));
  EXPECT_EQ(at(&lookup->callback), at(&lookup->socket) + sizeof(void*));
  EXPECT_EQ(at(&lookup->obj), at(&lookup->callback) + sizeof(void*));
  EXPECT_EQ(at(&lookup->response), at(&lookup->obj) + sizeof(void*));
  EXPECT_EQ(at(&lookup->timer), at(&lookup->response) + sizeof(void*));
  EXPECT_EQ(vtable_slot(&DnsLookup::DatagramIndication), vtable_slot(&OSIO::DatagramIndication));
}

/// The index of the first line that contains the text; a large one when there is none.
std::size_t position(const std::vector<std::string>& lines, const std::string& text) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find(text) != std::string::npos) return i;
  }
  ADD_FAILURE() << "not printed: " << text;
  return lines.size();
}

TEST_F(DnsQuery, ItPrintsThenMakesTheSocketConnectsDumpsAndSends) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  DNSEntry::Lookup("ns.test", nullptr);
  ASSERT_TRUE(delivered(1));
  set_trace(2);
  const Tracing tracing(2);
  console.clear();
  const OwnedLookup lookup = ask(asker_, "host.test", T_A, "ns.test");
  const std::vector<std::string> lines = console.calls();
  const std::vector<std::size_t> steps = {
      position(lines, lookup_line(lookup.get(), "DnsLookup - host.test")),
      position(lines, text_of("%d AsyncSocket::Create(2,0,", lookup->socket->s)),
      position(lines, "DNSEntry::Lookup - 'ns.test'"),
      position(lines, found_line(lookup->socket, "ns.test", "10.9.8.7")),
      position(lines, "Buf: buf "),
      position(lines, text_of("%d AsyncSocket::DataIndication - Sending 27 bytes to 10.9.8.7:53 from ",
                              lookup->socket->s)),
  };
  for (std::size_t i = 1; i < steps.size(); ++i) EXPECT_LT(steps[i - 1], steps[i]) << "step " << i;
  EXPECT_EQ(steps[0], 0u);
}

TEST_F(DnsQuery, TheQuestionIsDumped) {
  const OwnedLookup lookup = ask(asker_, "abc.defghij.klm");
  const std::vector<std::string> lines = console.calls();
  ASSERT_EQ(lines.size(), 5u) << testing::PrintToString(lines);
  EXPECT_EQ(lines[0], lookup_line(lookup.get(), "DnsLookup - abc.defghij.klm"));
  EXPECT_THAT(lines[1], testing::StartsWith("Buf: buf "));
  ASSERT_TRUE(cfg.buf_size[2] < 1024 && 1024 <= cfg.buf_size[3]) << "its buffer is asked for with 1024 bytes";
  EXPECT_THAT(lines[1], testing::HasSubstr(text_of(" size %d, len 33, ", cfg.buf_size[3])));
  EXPECT_EQ(lines[2], "0000  00 01 01 80 00 01 00 00 00 00 00 00 03 61 62 63  .............abc");
  EXPECT_EQ(lines[3], "0010  07 64 65 66 67 68 69 6a 03 6b 6c 6d 00 00 01 00  .defghij.klm....");
  EXPECT_EQ(lines[4], "0020  01                                               .");
}

TEST_F(DnsQuery, APercentSignInANameIsPrintedAsItIs) {
  const OwnedLookup lookup = ask(asker_, "%s%n%d.test");
  EXPECT_TRUE(printed(console, lookup_line(lookup.get(), "DnsLookup - %s%n%d.test")));
  EXPECT_EQ(server_.last().bytes, question_bytes("%s%n%d.test", T_A));
  const OwnedLookup refused = ask(asker_, "%s..%n");
  EXPECT_TRUE(printed(console, lookup_line(refused.get(), "DnsLookup - %s..%n not sent: an empty label")));
}

// ---- Without resources -------------------------------------------------------------------------------------------

TEST_F(DnsQuery, WithoutABufferNothingIsSentAndTheTimeOutStays) {
  {
    BufferDrought drought(cfg);
    const OwnedLookup lookup = ask(asker_, "host.test");
    EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
    EXPECT_THAT(server_.sent_bytes(), IsEmpty());
    drought.end();
  }
  expected_fatals = console.fatals();
  EXPECT_THAT(expected_fatals, ElementsAre("OSBuffer::Alloc Out Of Buffers 1024"));
}

TEST_F(DnsQuery, WithoutMemoryForASocketNothingIsSentAndTheTimeOutStays) {
  FailingNew::fail_at_least(sizeof(AsyncSocket));
  OwnedLookup lookup = ask(asker_, "host.test");
  FailingNew::reset();
  EXPECT_EQ(lookup->socket, nullptr);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
  EXPECT_EQ(lookup->timer.duration, kAnswerWaitMs);
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
  EXPECT_EQ(buffers_out(), 0);
  lookup.reset();
  EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
}

TEST_F(DnsQuery, WithoutADescriptorNothingIsSentAndTheTimeOutStays) {
  // The monitor thread has all that it opens then, and a sanitizer, which looks at objects through a pipe, has looked.
  ask(asker_, "host.test").reset();
  settle();
  const std::size_t sent = server_.sent_bytes().size();
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(lookup->socket->s, -1);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
  EXPECT_THAT(server_.sent_bytes(), SizeIs(sent));
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsQuery, AQuestionThatTheSystemRefusesIsNotRepeated) {
  calls().sendto.replace([](auto, auto...) -> ssize_t {
    errno = ENETUNREACH;
    return -1;
  });
  const OwnedLookup lookup = ask(asker_, "host.test");
  EXPECT_EQ(console.count("AsyncSocket::DataIndication: sendto() errno="), 1);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
  EXPECT_EQ(buffers_out(), 0);
  calls().sendto.restore();
  settle();
  EXPECT_EQ(console.count("AsyncSocket::DataIndication: sendto() errno="), 1);
}

}  // namespace
