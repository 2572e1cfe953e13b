// Decoding and asking with real name servers: each serves the same zone, and what dig prints of its answers is what
// DnsMessage must say, record by record.

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/dns.h"
#include "support/dig.h"
#include "support/dns_messages.h"
#include "support/dns_zone.h"
#include "support/name_server.h"
#include "support/net_namespace.h"
#include "support/network_fixture.h"

using namespace oskernel_test;

namespace {

constexpr int kRecursionDesired = 0x0100;
constexpr int kCutShort = 0x0200;
constexpr int kErrorBits = 0x000F;
constexpr int kNameError = 3;
constexpr int kRefused = 5;
constexpr std::size_t kDatagram_bytes = 512;
constexpr std::size_t kLongestText = 253;

constexpr ULONG ip(ULONG a, ULONG b, ULONG c, ULONG d) { return a << 24 | b << 16 | c << 8 | d; }

std::string asked(const ZoneQuestion& question) {
  return question.name + " " + question.clas + " " + question.type;
}

/// One question through DnsLookup, answered or given up.
class Lookup {
 public:
  Lookup(const std::string& name, int type)
      : name_(name),
        lookup_(std::make_unique<DnsLookup>(name_.data(), static_cast<Type>(type), "127.0.0.1", told,
                                            reinterpret_cast<OSObj*>(this))) {}
  /// The value of the callback; -1 when it does not come.
  int value() { return told_.wait() ? value_.load() : -1; }
  DnsLookup* operator->() const { return lookup_.get(); }

 private:
  static void told(OSObj* self, ADDR, ULONG value) {
    auto* const lookup = reinterpret_cast<Lookup*>(self);
    lookup->value_ = static_cast<int>(value);
    lookup->told_.open();
  }

  std::string name_;
  Gate told_;
  std::atomic<int> value_{-1};
  std::unique_ptr<DnsLookup> lookup_;  // its end waits for the callback, which uses the others
};

class RealNameServers : public NetworkTest, public testing::WithParamInterface<const char*> {
 protected:
  /// Everything that the message says, compared with what dig printed of the same answer.
  static void expect_same(const DnsMessage& message, const DigAnswer& dug) {
    EXPECT_EQ(message.opts, dug.opts) << dug.text;
    EXPECT_EQ(message.qdcount, dug.counts[0]) << dug.text;
    EXPECT_EQ(message.ancount, dug.counts[1]) << dug.text;
    EXPECT_EQ(message.nscount, dug.counts[2]) << dug.text;
    EXPECT_EQ(message.arcount, dug.counts[3]) << dug.text;
    EXPECT_EQ(shown(message), dug.entries) << dug.text;
  }

  /// Every beginning of an answer decodes to a beginning of its entries, and all of them but the whole to fewer.
  static void expect_beginnings(const std::string& answer, const std::vector<std::string>& entries) {
    std::size_t complete = 0;
    for (std::size_t length = 0; length < answer.size(); ++length) {
      const ExactBuffer buf(answer.substr(0, length));
      DnsMessage message;
      EXPECT_EQ(message.Decode(buf.get()), 0);
      const std::vector<std::string> found = shown(message);
      ASSERT_LT(found.size(), entries.size()) << "of the first " << length << " bytes";
      ASSERT_GE(found.size(), complete) << "of the first " << length << " bytes";
      complete = found.size();
      ASSERT_TRUE(std::equal(found.begin(), found.end(), entries.begin()))
          << "of the first " << length << " bytes";
    }
  }
};

TEST_P(RealNameServers, AnswersSayWhatDigPrints) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const NameServer server(GetParam(), kZone, zone_text());
  ASSERT_TRUE(server.answers());
  const std::vector<ZoneQuestion> questions = zone_questions();
  const std::vector<DigAnswer> dug = dig(server, questions);
  ASSERT_EQ(dug.size(), questions.size());

  DnsPeer peer;
  std::multiset<std::string> seen;
  std::set<int> types;
  for (std::size_t i = 0; i < questions.size(); ++i) {
    SCOPED_TRACE(asked(questions[i]));
    const int type = type_number(questions[i].type);
    const int clas = class_number(questions[i].clas);
    const int id = 0x1234 + static_cast<int>(i);
    DnsWire query(static_cast<unsigned>(id), kRecursionDesired);
    query.question(wire_name_of(questions[i].name), static_cast<unsigned>(type), static_cast<unsigned>(clas));
    const std::string answer = peer.ask(query.bytes());
    ASSERT_GE(answer.size(), DnsWire::kHeader_bytes) << server.output();
    ASSERT_LE(answer.size(), kDatagram_bytes);

    const ExactBuffer buf(answer);
    DnsMessage message;
    EXPECT_EQ(message.Decode(buf.get()), 0);
    EXPECT_EQ(message.id, id);
    expect_same(message, dug[i]);
    expect_beginnings(answer, dug[i].entries);

    // What the answers are there for, so that it is seen when a zone does not bring it about.
    if (answer.size() == kDatagram_bytes) seen.insert("a full datagram");
    if ((message.opts & kCutShort) != 0) seen.insert("cut short");
    if ((message.opts & kErrorBits) == kNameError) seen.insert("no such name");
    if ((message.opts & kErrorBits) == kRefused) seen.insert("refused");
    if (message.ancount == 0 && message.nscount > 0 && message.arcount > 0) seen.insert("referral");
    for (const DnsResource* record : listed<DnsResource>(message.answers)) {
      const std::string name = record->name, target = record->target;
      types.insert(record->type);
      if (name.size() == kLongestText) seen.insert("longest name");
      if (target.size() == kLongestText) seen.insert("longest target");
      if ((record->type == T_MX || record->type == T_SRV) && target.empty()) seen.insert("root as target");
      if (record->ttl == 0x7FFFFFFF) seen.insert("longest time to live");
      if (record->clas == 3) seen.insert("another class");
    }
  }
  const std::set<std::string> kinds(seen.begin(), seen.end());
  EXPECT_EQ(kinds, (std::set<std::string>{"a full datagram", "another class", "cut short", "longest name",
                                          "longest target", "longest time to live", "no such name",
                                          "referral", "refused", "root as target"}));
  EXPECT_GE(seen.count("cut short"), 3u);
  EXPECT_GE(seen.count("longest name"), 3u);
  for (const int type :
       {1, 2, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 28, 33, 35, 39, 257, 65280, 65281}) {
    EXPECT_TRUE(types.contains(type)) << "no answer has a record of type " << type;
  }
}

TEST_P(RealNameServers, LookupsGetTheAnswersThatDigPrints) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const NameServer server(GetParam(), kZone, zone_text());
  ASSERT_TRUE(server.answers());
  std::vector<ZoneQuestion> questions;
  for (const ZoneQuestion& question : zone_questions()) {
    // A lookup asks about the Internet and takes its name as plain text.
    const bool plain = question.name != "." && question.name.find(R"(\.)") == std::string::npos &&
                       question.name.find(R"(\000)") == std::string::npos;
    if (plain && question.clas == "IN" && type_number(question.type) <= T_ALL) questions.push_back(question);
  }
  const std::vector<DigAnswer> dug = dig(server, questions);
  ASSERT_EQ(dug.size(), questions.size());

  for (std::size_t i = 0; i < questions.size(); ++i) {
    SCOPED_TRACE(asked(questions[i]));
    Lookup lookup(plain_text_of(questions[i].name), type_number(questions[i].type));
    ASSERT_EQ(lookup.value(), 0) << server.output();
    ASSERT_NE(lookup->response, nullptr);
    EXPECT_EQ(lookup->response->id, 1);
    expect_same(*lookup->response, dug[i]);
  }

  // What a program does with the answer.
  struct Row {
    const char* name;
    Type type;
    bool found;
    const char* owner = "";
    ULONG addr = 0;
    const char* target = "";
    int priority = 0;
    int weight = 0;
    int port = 0;
  };
  const std::string longest = longest_name('a');
  const std::string longest_owner = longest_name_of_short_labels();
  const Row rows[] = {
      {"www.zone.example", T_A, true, "www.zone.example", ip(203, 0, 113, 7)},
      {"alias.zone.example", T_A, true, "www.zone.example", ip(203, 0, 113, 7)},
      {"www.tree.zone.example", T_A, true, "www.zone.example", ip(203, 0, 113, 7)},
      {"x.wild.zone.example", T_A, true, "x.wild.zone.example", ip(192, 0, 2, 60)},
      {"ones.zone.example", T_A, true, "ones.zone.example", 0xFFFFFFFF},
      {"zero.zone.example", T_A, false},
      {longest.c_str(), T_A, true, longest.c_str(), ip(192, 0, 2, 70)},
      {"longalias.zone.example", T_A, true, longest.c_str(), ip(192, 0, 2, 70)},
      {longest_owner.c_str(), T_A, true, longest_owner.c_str(), ip(192, 0, 2, 72)},
      {"f.zone.example", T_A, true, "f.zone.example", ip(10, 0, 0, 1)},
      {"_sip._tcp.zone.example", T_SRV, true, "_sip._tcp.zone.example", ip(198, 51, 100, 1),
       "gw1.zone.example", 1, 2, 5070},
      {"_sip._udp.zone.example", T_SRV, true, "_sip._udp.zone.example", ip(198, 51, 100, 1),
       "gw1.zone.example", 10, 60, 5060},
      {"_far._udp.zone.example", T_SRV, true, "_far._udp.zone.example", 0, "gw.elsewhere.example", 0, 1,
       5060},
      {"_top._udp.zone.example", T_SRV, true, "_top._udp.zone.example", ip(198, 51, 100, 3),
       "gw3.zone.example", 65535, 65535, 65535},
      {"_none._udp.zone.example", T_SRV, false},
      {"mail.zone.example", T_MX, true, "mail.zone.example", ip(192, 0, 2, 13), "mx2.zone.example", 5},
      {"longmail.zone.example", T_MX, true, "longmail.zone.example", ip(192, 0, 2, 70), longest.c_str(), 1},
      {"nomail.zone.example", T_MX, false},
      {"zone.example", T_NS, true, "zone.example", ip(192, 0, 2, 1), "ns1.zone.example"},
      {"dangling.zone.example", T_A, false},
      {"host.sub.zone.example", T_A, false},
      {"www.zone.example", T_TXT, false},
      {"text.zone.example", T_TXT, false},
      {"bigtext.zone.example", T_TXT, false},
      {"nobody.zone.example", T_A, false},
      {"nobody.zone.example", T_SRV, false},
      {"elsewhere.example", T_A, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " " + GetTypeStr(row.type));
    Lookup lookup(row.name, row.type);
    ASSERT_EQ(lookup.value(), 0);
    const DnsResource* const record = lookup->GetAddress();
    ASSERT_EQ(record != nullptr, row.found);
    if (record == nullptr) continue;
    EXPECT_STREQ(record->name, row.owner);
    EXPECT_EQ(record->addr, row.addr);
    EXPECT_STREQ(record->target, row.target);
    EXPECT_EQ(record->priority, row.priority);
    EXPECT_EQ(record->weight, row.weight);
    EXPECT_EQ(record->port, row.port);
  }
}

TEST_P(RealNameServers, ADotAtTheEndOfANameIsRefused) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const NameServer server(GetParam(), kZone, zone_text());
  ASSERT_TRUE(server.answers());
  for (const char* name : {"www.zone.example.", "zone.example.", "."}) {
    SCOPED_TRACE(name);
    Lookup lookup(name, T_A);
    ASSERT_EQ(lookup.value(), 0) << server.output();
    // One says that it refuses, the other that it has not implemented such a class.
    EXPECT_NE(lookup->response->opts & kErrorBits, 0);
    EXPECT_EQ(lookup->response->ancount, 0);
    EXPECT_EQ(lookup->GetAddress(), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(Servers, RealNameServers, testing::Values("nsd", "named"),
                         [](const auto& server) { return std::string(server.param); });

}  // namespace
