// The answers of a DnsLookup: what is taken for one, what the callback is told and may do, and what is left of a lookup
// that is deleted.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/dns_lookup_fixture.h"
#include "support/graveyard.h"
#include "support/socket_probe.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr ULONG kAddr = ip(192, 168, 0, 1);

/// Says when it is deleted.
class MarkedMessage : public DnsMessage {
 public:
  explicit MarkedMessage(int* deleted) : deleted_(deleted) {}
  ~MarkedMessage() override { ++*deleted_; }

 private:
  int* deleted_;
};

/// A buffer outside the pools that knows whether it is freed, as layers have that bring their own.
class WatchedBuffer : public OSBuf {
 public:
  explicit WatchedBuffer(std::string bytes) : bytes_(std::move(bytes)) {
    SetPayload(reinterpret_cast<UBYTE*>(bytes_.data()), static_cast<UWORD>(bytes_.size()));
    data = payload;
    length = static_cast<UWORD>(bytes_.size());
  }
  void Free() override { ++freed; }
  int freed = 0;

 private:
  std::string bytes_;
};

class DnsAnswer : public QuietLookups {
 protected:
  /// A datagram comes to the lookup and is handed on.
  bool answered(const DnsLookup& lookup, const std::string& bytes) {
    const std::size_t calls = asker_.finished();
    return server_.send_to(lookup, bytes) && told(calls + 1);
  }
  /// Hands a buffer on as the socket does.
  static OSIORetCode give(DnsLookup& lookup, OSBuf* buf) {
    SockAddr from(kLoopback, kDnsPort), to(kLoopback, 1);
    return lookup.DatagramIndication(buf, &from, &to);
  }

  NameServer server_;
};

// ---- What is an answer -------------------------------------------------------------------------------------------

TEST_F(DnsAnswer, AnyDatagramIsTheAnswer) {
  const std::string question = dns_name("host.test");
  const auto answer = [&question](unsigned id, unsigned opts) {
    return DnsWire(id, opts)
        .question(question, T_A)
        .answer(dns_pointer(12), T_A, 300, rdata_a(kAddr))
        .bytes();
  };
  const struct {
    const char* what;
    std::string bytes;
    int id, opts;
    std::size_t answers;
  } rows[] = {
      {"as asked", answer(1, 0x8180), 1, 0x8180, 1},
      {"another ID", answer(0xBEEF, 0x8180), 0xBEEF, 0x8180, 1},
      {"a question itself", answer(1, 0x0180), 1, 0x0180, 1},
      {"another operation", answer(1, 0xA980), 1, 0xA980, 1},
      {"cut short", answer(1, 0x8380), 1, 0x8380, 1},
      {"every flag", answer(0xFFFF, 0xFFFF), 0xFFFF, 0xFFFF, 1},
      {"no such name", DnsWire(1, 0x8183).question(question, T_A).bytes(), 1, 0x8183, 0},
      {"the server failed", DnsWire(1, 0x8182).bytes(), 1, 0x8182, 0},
      {"another question",
       DnsWire().question(dns_name("other.test"), T_MX).answer(question, T_A, 1, rdata_a(kAddr)).bytes(), 1,
       0x8180, 1},
      {"no question", DnsWire().answer(question, T_A, 1, rdata_a(kAddr)).bytes(), 1, 0x8180, 1},
      {"nothing but a header", DnsWire(7, 0x8180).bytes(), 7, 0x8180, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const OwnedLookup lookup = ask(asker_, "host.test");
    ASSERT_TRUE(answered(*lookup, row.bytes));
    EXPECT_EQ(asker_.all().back().value, 0u);
    ASSERT_NE(lookup->response, nullptr);
    EXPECT_EQ(lookup->response->id, row.id);
    EXPECT_EQ(lookup->response->opts, row.opts);
    EXPECT_EQ(listed<DnsResource>(lookup->response->answers).size(), row.answers);
    EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE);
    EXPECT_EQ(lookup->GetAddress() != nullptr, row.answers == 1);
  }
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsAnswer, AnybodyMayAnswer) {
  PeerUdp stranger;
  const OwnedLookup lookup = ask(asker_, "host.test");
  const UWORD port = local_port_of(lookup->socket->s);
  ASSERT_TRUE(stranger.send_to(port, address_answer("host.test", kAddr)));
  ASSERT_TRUE(told(1));
  EXPECT_EQ(first_address(*lookup), kAddr);
}

TEST_F(DnsAnswer, WhatIsNoMessageAtAllIsAnAnswerToo) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  for (const std::string& bytes :
       {std::string("x"), std::string("hello, world: this is no message"), std::string(1400, '\xC0'),
        std::string(1400, '\0'), from_hex("0001 8180 ffff ffff ffff ffff"), from_hex("0001 8180 00")}) {
    ASSERT_TRUE(answered(*lookup, bytes));
    ASSERT_NE(lookup->response, nullptr);
    EXPECT_EQ(asker_.all().back().value, 0u);
    EXPECT_EQ(lookup->GetAddress(), nullptr);
  }
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsAnswer, AnEmptyDatagramIsNone) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(server_.send_to(*lookup, ""));
  settle();
  EXPECT_EQ(asker_.count(), 0u);
  EXPECT_EQ(lookup->response, nullptr);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
}

TEST_F(DnsAnswer, OfALongAnswerTheRecordsThatTheSocketHasReadAreThere) {
  DnsWire wire;
  wire.question(dns_name("host.test"), T_A);
  for (ULONG i = 0; i < 200; ++i) wire.answer(dns_pointer(12), T_A, 300, rdata_a(kAddr + i));
  ASSERT_GT(wire.bytes().size(), 1600u);
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(answered(*lookup, wire.bytes()));
  EXPECT_EQ(lookup->response->ancount, 200);
  const std::vector<DnsResource*> records = listed<DnsResource>(lookup->response->answers);
  EXPECT_EQ(records.size(), (1600 - 12 - 15) / 16u) << "of 16 bytes each, behind a question of 15";
  for (std::size_t i = 0; i < records.size(); ++i) EXPECT_EQ(records[i]->addr, kAddr + i);
}

// ---- What it is told ---------------------------------------------------------------------------------------------

TEST_F(DnsAnswer, TheCallbackFindsTheAnswerInTheLookup) {
  ULONG found = 0;
  OSTrState timer = OS_T_READY;
  asker_.set_hook([&](DnsLookup* lookup, ULONG) {
    const DnsResource* record = lookup->GetAddress();
    found = record != nullptr ? record->addr : 1;
    timer = lookup->timer.State();
  });
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
  ASSERT_EQ(asker_.count(), 1u);
  EXPECT_EQ(asker_.all()[0].lookup, lookup.get());
  EXPECT_EQ(asker_.all()[0].value, 0u);
  EXPECT_EQ(asker_.all()[0].thread, gettid()) << "where the queue is dispatched";
  EXPECT_EQ(found, kAddr);
  EXPECT_EQ(timer, OS_T_INACTIVE) << "the time is over for the time-out";
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsAnswer, AFurtherAnswerTakesThePlaceOfTheOneBefore) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
  EXPECT_EQ(first_address(*lookup), kAddr);
  int deleted = 0;
  delete lookup->response;
  lookup->response = new MarkedMessage(&deleted);
  for (ULONG i = 1; i <= 3; ++i) {
    ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr + i)));
    EXPECT_EQ(first_address(*lookup), kAddr + i);
    EXPECT_EQ(listed<DnsResource>(lookup->response->answers).size(), 1u) << "not added to it";
    EXPECT_EQ(deleted, 1);
  }
  EXPECT_THAT(asker_.values(), ElementsAre(0u, 0u, 0u, 0u));
  EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE);
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsAnswer, TheAnswerBeforeIsThereUntilTheNextHasBeenPrinted) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
  DnsMessage* const before = lookup->response;
  DnsMessage* seen = nullptr;
  {
    ActsOnceAtALine console_line("next.test", [&] { seen = lookup->response; });
    EXPECT_EQ(give(*lookup, dns_buffer(address_answer("next.test", kAddr + 1))), Success);
    EXPECT_TRUE(console_line.has_acted());
  }
  EXPECT_EQ(seen, before);
  EXPECT_NE(lookup->response, before);
}

TEST_F(DnsAnswer, AnswersThatCameTogetherAreToldOneByOneInOrder) {
  std::vector<ULONG> found;
  asker_.set_hook([&found](DnsLookup* lookup, ULONG) { found.push_back(first_address(*lookup)); });
  const OwnedLookup lookup = ask(asker_, "host.test");
  for (ULONG i = 0; i < 5; ++i) {
    ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr + i)));
  }
  ASSERT_TRUE(told(5));
  EXPECT_THAT(found, ElementsAre(kAddr, kAddr + 1, kAddr + 2, kAddr + 3, kAddr + 4));
}

TEST_F(DnsAnswer, WhatIsReceivedIsPrinted) {
  const OwnedLookup lookup = ask(asker_, "host.test", T_SRV);
  console.clear();
  const std::string bytes = DnsWire(0x0102, 0x8580)
                                .question(dns_name("host.test"), T_SRV)
                                .answer(dns_pointer(12), T_SRV, 60, rdata_srv(1, 2, 5060, dns_name("gw", 12)))
                                .authority(dns_name("test"), T_NS, 60, dns_name("ns.test"))
                                .additional(dns_name("gw", 12), T_A, 60, rdata_a(kAddr))
                                .bytes();
  ASSERT_TRUE(answered(*lookup, bytes));
  const std::vector<std::string> lines = console.calls();
  const auto own = [&lookup](const std::string& text) {
    return text_of("DNS: %p ", static_cast<void*>(lookup->response)) + text;
  };
  const auto record = [&lookup](OSIndirectList DnsMessage::*list, const std::string& text) {
    return text_of("DNS: %p  ", static_cast<void*>(listed<DnsResource>(lookup->response->*list).at(0))) +
           text;
  };
  const std::string question =
      text_of("DNS: %p  host.test, type SRV, class IN",
              static_cast<void*>(listed<DnsQuestion>(lookup->response->questions).at(0)));
  std::vector<std::string> expected{lookup_line(lookup.get(), "DnsLookup - receive")};
  ASSERT_GT(lines.size(), 2u);
  EXPECT_THAT(lines[1], StartsWith("Buf: buf "));
  EXPECT_THAT(lines[1], testing::HasSubstr(text_of(" len %d, ", static_cast<int>(bytes.size()))));
  expected.push_back(lines[1]);
  for (std::size_t i = 2; i < 6 && i < lines.size(); ++i) {
    EXPECT_THAT(lines[i], StartsWith(text_of("%04x ", static_cast<unsigned>(i - 2) * 16)));
    expected.push_back(lines[i]);
  }
  for (const std::string& text :
       {own("Question:"), question, own("Answer:"),
        record(&DnsMessage::answers, text_of("%-20s %7u IN SRV   1   2 5060 gw.host.test", "host.test", 60U)),
        own("Authority:"), record(&DnsMessage::authorities, text_of("%-20s %7u IN NS ns.test", "test", 60U)),
        own("Additional:"),
        record(&DnsMessage::additionals, text_of("%-20s %7u IN A 192.168.0.1", "gw.host.test", 60U))}) {
    expected.push_back(text);
  }
  EXPECT_EQ(lines, expected);
}

TEST_F(DnsAnswer, EachLookupHasItsOwnAnswers) {
  const OwnedLookup first = ask(asker_, "first.test"), second = ask(asker_, "second.test");
  ASSERT_TRUE(answered(*second, address_answer("second.test", kAddr + 2)));
  EXPECT_EQ(first->response, nullptr);
  EXPECT_EQ(first->timer.State(), OS_T_WAIT);
  ASSERT_TRUE(answered(*first, address_answer("first.test", kAddr + 1)));
  EXPECT_EQ(first_address(*first), kAddr + 1);
  EXPECT_EQ(first_address(*second), kAddr + 2);
  EXPECT_EQ(asker_.all()[0].lookup, second.get());
  EXPECT_EQ(asker_.all()[1].lookup, first.get());
}

TEST_F(DnsAnswer, ACallbackIsNotNeeded) {
  char name[] = "host.test";
  const OwnedLookup lookup(new DnsLookup(name, T_A, "10.53.53.53", nullptr, nullptr));
  ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
  settle();
  EXPECT_EQ(first_address(*lookup), kAddr);
  EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE);
  EXPECT_EQ(buffers_out(), 0);
}

// ---- The indications ---------------------------------------------------------------------------------------------

TEST_F(DnsAnswer, TheAddressesAreNotLookedAt) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  OSIO* const layer = lookup.get();
  auto* const nowhere = reinterpret_cast<void*>(8);
  EXPECT_EQ(layer->DatagramIndication(dns_buffer(address_answer("host.test", kAddr)), nullptr, nullptr),
            Success);
  EXPECT_EQ(first_address(*lookup), kAddr);
  EXPECT_EQ(layer->DatagramIndication(dns_buffer(address_answer("host.test", kAddr + 1)), nowhere, nowhere),
            Success);
  EXPECT_EQ(first_address(*lookup), kAddr + 1);
  EXPECT_THAT(asker_.values(), ElementsAre(0u, 0u));
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsAnswer, TheBufferIsFreedBehindTheCallback) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  WatchedBuffer buf(address_answer("host.test", kAddr));
  int freed_then = -1;
  asker_.set_hook([&](DnsLookup*, ULONG) { freed_then = buf.freed; });
  EXPECT_EQ(give(*lookup, &buf), Success);
  EXPECT_EQ(freed_then, 0);
  EXPECT_EQ(buf.freed, 1);
}

TEST_F(DnsAnswer, OtherIndicationsAreNotForIt) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  OSIO* const layer = lookup.get();
  EXPECT_EQ(layer->DataIndication(dns_buffer(address_answer("host.test", kAddr))), NotSupported);
  EXPECT_EQ(layer->DataExpeditedIndication(dns_buffer(address_answer("host.test", kAddr))), NotSupported);
  EXPECT_EQ(buffers_out(), 0) << "they free what they get";
  EXPECT_EQ(layer->ConnectIndication(nullptr), NotSupported);
  EXPECT_EQ(layer->DisconnectIndication(Failed, 111), NotSupported);
  EXPECT_EQ(layer->Configure(nullptr), NotSupported);
  EXPECT_EQ(layer->Service(nullptr), NotSupported);
  OSIOModem modem = {};
  EXPECT_EQ(layer->GetModem(modem), NotSupported);
  EXPECT_EQ(static_cast<int>(modem), 115);
  OSBuf* recovered = reinterpret_cast<OSBuf*>(8);
  EXPECT_EQ(layer->RecoverBuffer(&recovered), NotSupported);
  EXPECT_EQ(recovered, nullptr);
  EXPECT_EQ(asker_.count(), 0u);
  EXPECT_EQ(lookup->response, nullptr);
  EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
}

// ---- Deleting ----------------------------------------------------------------------------------------------------

using MortalLookup = Mortal<DnsLookup>;

MortalLookup* mortal(Asker& asker, const char* server = "10.53.53.53") {
  static char name[] = "host.test";
  return new MortalLookup(name, T_A, server, Asker::told, asker.obj());
}

TEST_F(DnsAnswer, TheCallbackMayDeleteTheLookup) {
  asker_.set_hook([](DnsLookup* lookup, ULONG) { delete lookup; });
  const DnsLookup* const lookup = mortal(asker_);
  AsyncSocket* const socket = lookup->socket;
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
  EXPECT_TRUE(MortalLookup::rests_in_peace());
  EXPECT_EQ(buffers_out(), 0) << "the buffer is freed all the same";
  EXPECT_FALSE(is_live(socket));
  EXPECT_TRUE(printed(console, lookup_line(lookup, "~DnsLookup")));
  settle();
  EXPECT_EQ(asker_.count(), 1u);
  EXPECT_TRUE(MortalLookup::rests_in_peace());
}

TEST_F(DnsAnswer, TheBufferOfADeletedLookupIsFreedThroughItsOwnFree) {
  asker_.set_hook([](DnsLookup* lookup, ULONG) { delete lookup; });
  DnsLookup* const lookup = mortal(asker_);
  WatchedBuffer buf(address_answer("host.test", kAddr));
  EXPECT_EQ(give(*lookup, &buf), Success);
  EXPECT_EQ(buf.freed, 1);
  EXPECT_TRUE(MortalLookup::rests_in_peace());
}

TEST_F(DnsAnswer, FurtherAnswersToADeletedLookupAreDropped) {
  asker_.set_hook([](DnsLookup* lookup, ULONG) { delete lookup; });
  const DnsLookup* const lookup = mortal(asker_);
  for (ULONG i = 0; i < 5; ++i) {
    ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr + i)));
  }
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  ASSERT_TRUE(told(1));
  os_check_triggers();
  EXPECT_EQ(asker_.count(), 1u);
  EXPECT_EQ(buffers_out(), 0);
  EXPECT_TRUE(MortalLookup::rests_in_peace());
}

TEST_F(DnsAnswer, TheCallbackMayAskAgain) {
  OwnedLookup next;
  asker_.set_hook([&](DnsLookup* lookup, ULONG) {
    if (asker_.count() > 1) return;
    delete lookup;
    next = ask(asker_, "next.test");
  });
  const DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "10.53.53.53");
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(server_.last().bytes, question_bytes("next.test", T_A));
  ASSERT_TRUE(answered(*next, address_answer("next.test", kAddr + 1)));
  EXPECT_EQ(first_address(*next), kAddr + 1);
}

TEST_F(DnsAnswer, ADeletedLookupLeavesNothing) {
  int deleted = 0;
  OwnedLookup lookup = ask(asker_, "host.test");
  const DnsLookup* const address = lookup.get();
  AsyncSocket* const socket = lookup->socket;
  const int fd = socket->s;
  ASSERT_TRUE(answered(*lookup, address_answer("host.test", kAddr)));
  delete lookup->response;
  lookup->response = new MarkedMessage(&deleted);
  console.clear();
  lookup.reset();
  EXPECT_EQ(deleted, 1);
  EXPECT_FALSE(is_live(socket));
  EXPECT_FALSE(is_open(fd));
  EXPECT_THAT(console.calls(), ElementsAre(lookup_line(address, "~DnsLookup")));
  EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
}

TEST_F(DnsAnswer, ItIsDeletedInItsOrder) {
  const Tracing tracing;
  int deleted = 0;
  OwnedLookup lookup = ask(asker_, "host.test");
  const std::string free_line =
      text_of("AsyncSocket::Free - delete of %p delayed...", static_cast<void*>(lookup->socket));
  const std::string end_line = lookup_line(lookup.get(), "~DnsLookup");
  lookup->response = new MarkedMessage(&deleted);
  lookup.reset();
  const std::vector<std::string> lines = console.calls();
  const auto said = std::find(lines.begin(), lines.end(), end_line);
  EXPECT_NE(said, lines.end());
  EXPECT_NE(std::find(said, lines.end(), free_line), lines.end()) << "the socket goes after that";
  EXPECT_EQ(deleted, 1);
}

TEST_F(DnsAnswer, OneThatWaitsCanBeDeleted) {
  OwnedLookup lookup = ask(asker_, "host.test");
  EXPECT_EQ(OS_TIMER_LIST.Size(), 1);
  const UWORD port = local_port_of(lookup->socket->s);
  lookup.reset();
  EXPECT_EQ(OS_TIMER_LIST.Size(), 0);
  server_.send_to(port, address_answer("host.test", kAddr));
  settle();
  EXPECT_EQ(asker_.count(), 0u);
}

TEST_F(DnsAnswer, OneWhoseAnswerIsUnderWayCanBeDeleted) {
  OwnedLookup lookup = ask(asker_, "host.test");
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
  }
  MonitorBeat beat;
  ASSERT_TRUE(beat.passes());
  EXPECT_EQ(queued(lookup->socket), 3) << "they wait for the dispatcher";
  lookup.reset();
  os_check_triggers();
  EXPECT_EQ(asker_.count(), 0u);
  EXPECT_EQ(buffers_out(), 0);
}

TEST_F(DnsAnswer, NoAnswerComesWhileALookupIsBeingDeleted) {
  AsyncSocket::Cleanup();  // its threads print
  ActsOnceAtALine console_line("AsyncSocket::Free - delete of", [] { os_check_triggers(); });
  {
    const Tracing tracing;
    MonitorBeat beat;
    OwnedLookup lookup = ask(asker_, "host.test");
    ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
    ASSERT_TRUE(beat.passes());
    EXPECT_EQ(queued(lookup->socket), 1);
    lookup.reset();
    EXPECT_TRUE(console_line.has_acted());
    EXPECT_EQ(asker_.count(), 0u) << "its callback may delete it, too";
    EXPECT_EQ(buffers_out(), 0);
  }
  AsyncSocket::Cleanup();
}

TEST_F(DnsAnswer, WhatIsHandedOnWhileALookupIsBeingDeletedIsFreed) {
  AsyncSocket::Cleanup();
  WatchedBuffer buf(address_answer("host.test", kAddr));
  OSIORetCode result = Blocked;
  OwnedLookup lookup;
  OSIO* layer = nullptr;
  ActsOnceAtALine console_line("AsyncSocket::Free - delete of",
                               [&] { result = layer->DatagramIndication(&buf, nullptr, nullptr); });
  {
    const Tracing tracing;
    lookup = ask(asker_, "host.test");
    layer = lookup.get();
    lookup.reset();
  }
  EXPECT_TRUE(console_line.has_acted());
  EXPECT_EQ(result, Success);
  EXPECT_EQ(buf.freed, 1);
  EXPECT_EQ(asker_.count(), 0u);
  AsyncSocket::Cleanup();
}

TEST_F(DnsAnswer, OneThatWaitsForItsServersNameCanBeDeleted) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  FakeResolver::hold();
  OwnedLookup lookup = ask(asker_, "host.test", T_A, "ns.test");
  EXPECT_EQ(buffers_out(), 1);
  lookup.reset();
  EXPECT_EQ(buffers_out(), 0);
  FakeResolver::release();
  ASSERT_TRUE(delivered(1));
  EXPECT_THAT(server_.sent_bytes(), IsEmpty());
  EXPECT_EQ(asker_.count(), 0u);
}

}  // namespace
