// Questions, records and messages: what their fields say, and in which order they are listed.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "network/dns.h"
#include "support/dns_fixture.h"

namespace oskernel_test {
namespace {

class DnsDecode : public DnsTest {};

// ---- Constructors ------------------------------------------------------------------------------------------

/// An object in storage that held something else before.
template <class Object>
class InUsedStorage {
 public:
  InUsedStorage() {
    std::fill(std::begin(storage_), std::end(storage_), static_cast<unsigned char>(0xE7));
    object_ = ::new (static_cast<void*>(storage_)) Object;
  }
  ~InUsedStorage() { object_->~Object(); }
  InUsedStorage(const InUsedStorage&) = delete;
  InUsedStorage& operator=(const InUsedStorage&) = delete;
  Object* operator->() { return object_; }
  Object& operator*() { return *object_; }

 private:
  alignas(Object) unsigned char storage_[sizeof(Object)];
  Object* object_;
};

TEST_F(DnsDecode, ANewRecordIsEmpty) {
  InUsedStorage<DnsResource> record;
  EXPECT_STREQ(record->name, "");
  EXPECT_STREQ(record->target, "");
  EXPECT_EQ(shown(*record), " type 0 class 0 ttl 0 addr 0 priority 0 weight 0 port 0 target ''");
}

TEST_F(DnsDecode, ANewMessageIsEmpty) {
  InUsedStorage<DnsMessage> message;
  EXPECT_EQ(header_of(*message), (std::vector<int>{0, 0, 0, 0, 0, 0}));
  for (OSIndirectList* list :
       {&message->questions, &message->answers, &message->authorities, &message->additionals}) {
    EXPECT_TRUE(list->IsEmpty());
    EXPECT_TRUE(ListIsSound(*list));
  }
}

TEST_F(DnsDecode, ObjectsCanBeListed) {
  OSIndirectList list;
  DnsQuestion question;
  DnsResource record;
  DnsMessage message;
  for (OSListObj* object : {static_cast<OSListObj*>(&question), static_cast<OSListObj*>(&record),
                            static_cast<OSListObj*>(&message)}) {
    list.Append(object);
    EXPECT_FALSE(object->IsKey(nullptr));
  }
  EXPECT_EQ(list.Size(), 3);
  list.Flush();
}

// ---- Questions ---------------------------------------------------------------------------------------------

TEST_F(DnsDecode, AQuestionIsItsNameTypeAndClass) {
  std::string wire = from_hex("03616263 07 64656667 68696a 03 6b6c6d 00 0001 0001");
  DnsQuestion question;
  EXPECT_EQ(question.Decode(bytes_in(wire), bytes_in(wire)), 21);
  EXPECT_STREQ(question.qname, "abc.defghij.klm");
  EXPECT_EQ(question.qtype, T_A);
  EXPECT_EQ(question.qclass, 1);
}

TEST_F(DnsDecode, AQuestionsNumbersAreUnsigned16Bits) {
  std::string wire = dns_name("") + from_hex("FFFE 8001");
  DnsQuestion question;
  EXPECT_EQ(question.Decode(bytes_in(wire), bytes_in(wire)), 5);
  EXPECT_STREQ(question.qname, "");
  EXPECT_EQ(question.qtype, 0xFFFE);
  EXPECT_EQ(question.qclass, 0x8001);
}

TEST_F(DnsDecode, AQuestionsNameMayBeAPointer) {
  std::string wire =
      DnsWire().question(dns_name("abc.de"), T_A).bytes() + dns_question(dns_pointer(12), T_MX, 4);
  DnsQuestion question;
  const std::size_t at = 12 + 8 + 4;
  EXPECT_EQ(question.Decode(bytes_in(wire) + at, bytes_in(wire)), 6);
  EXPECT_EQ(shown(question), "abc.de type 15 class 4");
}

TEST_F(DnsDecode, AQuestionDecodedAgainTakesTheNewValues) {
  DnsQuestion question;
  std::string wire = dns_question(dns_name("a.long.name.test"), T_SRV, 255);
  question.Decode(bytes_in(wire), bytes_in(wire));
  wire = dns_question(dns_name("b"), T_A, 1);
  EXPECT_EQ(question.Decode(bytes_in(wire), bytes_in(wire)), 7);
  EXPECT_EQ(shown(question), "b type 1 class 1");
}

TEST_F(DnsDecode, AQuestionWhoseNameCannotBeExpandedTakesNoBytes) {
  for (const std::string& name : {dns_pointer(0), dns_name("a", 0), dns_name(long_dns_text(256))}) {
    std::string wire = dns_question(name, T_A);
    DnsQuestion question;
    EXPECT_EQ(question.Decode(bytes_in(wire), bytes_in(wire)), 0);
    EXPECT_STREQ(question.qname, "");
  }
}

// ---- Records -----------------------------------------------------------------------------------------------

struct RecordCase {
  const char* what;
  std::string bytes;  // at offset 12; the name example.test stands at offset 200
  int consumed;
  const char* shown;
};

std::vector<RecordCase> record_cases() {
  const std::size_t kName = 200;
  const std::string ptr = dns_pointer(kName);
  return {
      {"A", dns_record(ptr, T_A, 300, from_hex("C0A80001")), 16,
       "example.test type 1 class 1 ttl 300 addr 3232235521 priority 0 weight 0 port 0 target ''"},
      {"A with the top bit", dns_record(ptr, T_A, 1, from_hex("FFFEFDFC")), 16,
       "example.test type 1 class 1 ttl 1 addr 4294901244 priority 0 weight 0 port 0 target ''"},
      {"A of 0.0.0.0", dns_record(ptr, T_A, 0, from_hex("00000000")), 16,
       "example.test type 1 class 1 ttl 0 addr 0 priority 0 weight 0 port 0 target ''"},
      {"NS", dns_record(ptr, T_NS, 300, dns_name("ns1", kName)), 18,
       "example.test type 2 class 1 ttl 300 addr 0 priority 0 weight 0 port 0 target 'ns1.example.test'"},
      {"MX", dns_record(ptr, T_MX, 300, rdata_mx(0xFFFE, dns_name("mail", kName))), 21,
       "example.test type 15 class 1 ttl 300 addr 0 priority 65534 weight 0 port 0 target "
       "'mail.example.test'"},
      {"SRV", dns_record(ptr, T_SRV, 300, rdata_srv(0xFFFD, 0x8000, 5060, dns_name("gw", kName))), 23,
       "example.test type 33 class 1 ttl 300 addr 0 priority 65533 weight 32768 port 5060 target "
       "'gw.example.test'"},
      {"SRV, uncompressed", dns_record(dns_name("a.b"), T_SRV, 300, rdata_srv(1, 2, 3, dns_name("c.d"))), 26,
       "a.b type 33 class 1 ttl 300 addr 0 priority 1 weight 2 port 3 target 'c.d'"},
      {"SRV of nothing, whose target is the root",
       dns_record(ptr, T_SRV, 7, rdata_srv(1, 2, 3, dns_name(""))), 19,
       "example.test type 33 class 1 ttl 7 addr 0 priority 1 weight 2 port 3 target ''"},
      {"the root's NS", dns_record(dns_name(""), T_NS, 7, dns_name("a.b")), 16,
       " type 2 class 1 ttl 7 addr 0 priority 0 weight 0 port 0 target 'a.b'"},
      {"A of another class", dns_record(ptr, T_A, 300, from_hex("01020304"), 0xFFFF), 16,
       "example.test type 1 class 65535 ttl 300 addr 16909060 priority 0 weight 0 port 0 target ''"},
      {"a TTL of all ones", dns_record(ptr, T_A, 0xFFFFFFFF, from_hex("01020304")), 16,
       "example.test type 1 class 1 ttl 4294967295 addr 16909060 priority 0 weight 0 port 0 target ''"},
      {"a TTL of the top bit", dns_record(ptr, T_A, 0x80000000, from_hex("01020304")), 16,
       "example.test type 1 class 1 ttl 2147483648 addr 16909060 priority 0 weight 0 port 0 target ''"},
  };
}

std::string record_message(const std::string& record) {
  std::string wire = std::string(12, '\0') + record;
  wire.resize(200, '#');
  return wire + dns_name("example.test") + std::string(300, '#');
}

TEST_F(DnsDecode, RecordsOfFourTypesHaveTheirData) {
  for (const RecordCase& record_case : record_cases()) {
    SCOPED_TRACE(record_case.what);
    std::string wire = record_message(record_case.bytes);
    InUsedStorage<DnsResource> record;
    EXPECT_EQ(record->Decode(bytes_in(wire) + 12, bytes_in(wire)), record_case.consumed);
    EXPECT_EQ(shown(*record), record_case.shown);
  }
}

TEST_F(DnsDecode, TheTtlsTopBitMakesTheFieldNegative) {
  std::string wire = dns_record(dns_name("a"), T_A, 0x80000001, from_hex("01020304"));
  DnsResource record;
  record.Decode(bytes_in(wire), bytes_in(wire));
  EXPECT_EQ(record.ttl, static_cast<int>(0x80000001));
  EXPECT_LT(record.ttl, 0);
  EXPECT_EQ(static_cast<ULONG>(record.ttl), 0x80000001U);
}

// Data that would give every one of the other types an address, numbers and a name.
TEST_F(DnsDecode, OtherTypesKeepNameTypeClassAndTtlOnly) {
  const std::string rdata = rdata_srv(0x0102, 0x0304, 0x0506, dns_name("target.test"));
  for (unsigned type = 0; type <= 0xFFFF; ++type) {
    if (type == T_A || type == T_NS || type == T_MX || type == T_SRV) continue;
    if (type > 300 && type % 251 != 0 && type != 0xFFFF) continue;
    std::string wire = dns_record(dns_name("owner.test"), type, 77, rdata, 3);
    DnsResource record;
    ASSERT_EQ(record.Decode(bytes_in(wire), bytes_in(wire)), static_cast<int>(wire.size())) << type;
    ASSERT_EQ(shown(record), "owner.test type " + std::to_string(type) +
                                 " class 3 ttl 77 addr 0 priority 0 weight 0 port 0 target ''");
  }
}

// Type 0x0101 is no A, and 0x0121 no SRV: all 16 bits count.
TEST_F(DnsDecode, TypesAreToldApartByAllTheirBits) {
  for (const unsigned type : {0x0101U, 0x0102U, 0x010FU, 0x0121U, 0x8001U, 0x0100U}) {
    std::string wire = dns_record(dns_name("a"), type, 1, rdata_srv(1, 2, 3, dns_name("c")));
    DnsResource record;
    record.Decode(bytes_in(wire), bytes_in(wire));
    EXPECT_EQ(record.type, static_cast<int>(type));
    EXPECT_EQ(record.addr, 0U);
    EXPECT_EQ(record.priority, 0);
    EXPECT_STREQ(record.target, "");
  }
}

TEST_F(DnsDecode, SkippedDataAreNotLookedAt) {
  // A pointer to itself and a label that has no end, where an NS record would have its name.
  for (const std::string& rdata : {dns_pointer(12 + 2 + 10), std::string("\x3Fxyz"), std::string()}) {
    DnsMessage message;
    decode(&message, DnsWire()
                         .answer(dns_name("a"), T_CNAME, 1, rdata)
                         .answer(dns_name("b"), T_A, 2, rdata_a(0x01020304))
                         .bytes());
    EXPECT_EQ(shown(message),
              (std::vector<std::string>{
                  "answer a type 5 class 1 ttl 1 addr 0 priority 0 weight 0 port 0 target ''",
                  "answer b type 1 class 1 ttl 2 addr 16909060 priority 0 weight 0 port 0 target ''"}));
  }
}

struct LengthCase {
  const char* what;
  unsigned type;
  std::string rdata;
  unsigned rdlength;
};

TEST_F(DnsDecode, TheNextRecordIsWhereTheLengthSays) {
  const std::vector<LengthCase> cases = {
      {"A, none", T_A, from_hex("C0A80001"), 0},
      {"A, too short", T_A, from_hex("C0A80001"), 2},
      {"A, too long", T_A, from_hex("C0A80001"), 9},
      {"NS, none", T_NS, dns_name("ns.test"), 0},
      {"NS, too short", T_NS, dns_name("ns.test"), 3},
      {"NS, too long", T_NS, dns_name("ns.test"), 40},
      {"MX, none", T_MX, rdata_mx(7, dns_name("mx.test")), 0},
      {"MX, the number only", T_MX, rdata_mx(7, dns_name("mx.test")), 2},
      {"MX, too long", T_MX, rdata_mx(7, dns_name("mx.test")), 12},
      {"SRV, none", T_SRV, rdata_srv(7, 8, 9, dns_name("srv.test")), 0},
      {"SRV, the numbers only", T_SRV, rdata_srv(7, 8, 9, dns_name("srv.test")), 6},
      {"SRV, too long", T_SRV, rdata_srv(7, 8, 9, dns_name("srv.test")), 60},
      {"CNAME, too short", T_CNAME, dns_name("cname.test"), 4},
      {"CNAME, too long", T_CNAME, dns_name("cname.test"), 50},
  };
  for (const LengthCase& length_case : cases) {
    SCOPED_TRACE(length_case.what);
    const std::string name = dns_name("owner.test");
    std::string wire =
        dns_record_of_length(name, length_case.type, 5, length_case.rdata, length_case.rdlength) +
        std::string(80, '#');
    // The record itself has its data all the same.
    DnsResource record;
    EXPECT_EQ(record.Decode(bytes_in(wire), bytes_in(wire)),
              static_cast<int>(name.size() + 10 + length_case.rdlength));
    std::string right_wire = dns_record(name, length_case.type, 5, length_case.rdata);
    DnsResource right;
    right.Decode(bytes_in(right_wire), bytes_in(right_wire));
    EXPECT_EQ(shown(record), shown(right));

    // In a message, what follows is read from there: the second record is put over what it finds.
    std::string record_bytes = wire;
    record_bytes.resize(name.size() + 10 + length_case.rdlength, '#');
    if (length_case.rdlength >= length_case.rdata.size()) {
      DnsMessage message;
      decode(&message,
             DnsWire().put(1, record_bytes).answer(dns_name("next"), T_A, 6, rdata_a(0x7F000001)).bytes());
      ASSERT_EQ(listed<DnsResource>(message.answers).size(), 2U);
      EXPECT_EQ(shown(*listed<DnsResource>(message.answers)[0]), shown(right));
      EXPECT_EQ(shown(*listed<DnsResource>(message.answers)[1]),
                "next type 1 class 1 ttl 6 addr 2130706433 priority 0 weight 0 port 0 target ''");
    }
  }
}

TEST_F(DnsDecode, ATooShortLengthLetsTheNextRecordBeginInsideTheData) {
  // The address's last two bytes are the next record's name: a label of one letter, ended by the zero byte behind.
  const std::string next = from_hex("00 0001 0001 00000006") + dns_word(4) + rdata_a(0x7F000001);
  DnsMessage message;
  decode(&message, DnsWire()
                       .put(1, dns_record_of_length(dns_name("owner"), T_A, 5, from_hex("0102 0178"), 2))
                       .put(1, next)
                       .bytes());
  EXPECT_EQ(shown(message),
            (std::vector<std::string>{
                "answer owner type 1 class 1 ttl 5 addr 16908664 priority 0 weight 0 port 0 target ''",
                "answer x type 1 class 1 ttl 6 addr 2130706433 priority 0 weight 0 port 0 target ''"}));
}

TEST_F(DnsDecode, ARecordDecodedAgainTakesTheNewValues) {
  DnsResource record;
  std::string wire = dns_record(dns_name("a.long.owner"), T_A, 9, rdata_a(0x01020304), 3);
  record.Decode(bytes_in(wire), bytes_in(wire));
  wire = dns_record(dns_name("b"), T_A, 8, rdata_a(0x05060708), 1);
  EXPECT_EQ(record.Decode(bytes_in(wire), bytes_in(wire)), 17);
  EXPECT_EQ(shown(record), "b type 1 class 1 ttl 8 addr 84281096 priority 0 weight 0 port 0 target ''");
}

TEST_F(DnsDecode, ARecordWhoseNameCannotBeExpandedTakesNoBytes) {
  const std::string circle = dns_pointer(0);
  const std::vector<std::string> records = {
      dns_record(circle, T_A, 1, rdata_a(1)),
      dns_record(dns_name(long_dns_text(256)), T_A, 1, rdata_a(1)),
      dns_record(circle, T_TXT, 1, rdata_txt("text")),
      dns_record(dns_name("a"), T_NS, 1, dns_pointer(13)),
      dns_record(dns_name("a"), T_MX, 1, rdata_mx(1, dns_pointer(15))),
      dns_record(dns_name("a"), T_SRV, 1, rdata_srv(1, 2, 3, dns_pointer(19))),
      dns_record(dns_name("a"), T_SRV, 1, rdata_srv(1, 2, 3, dns_name(long_dns_text(256)))),
  };
  for (std::size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(i);
    std::string wire = records[i];
    DnsResource record;
    std::string before = dns_record(dns_name("x"), T_NS, 1, dns_name("ns.x"));
    EXPECT_GT(record.Decode(bytes_in(before), bytes_in(before)), 0);
    EXPECT_EQ(record.Decode(bytes_in(wire), bytes_in(wire)), 0);
    EXPECT_STREQ(record.name, "");
    EXPECT_STREQ(record.target, "");
  }
}

// ---- Messages ----------------------------------------------------------------------------------------------

TEST_F(DnsDecode, AHeaderIsSixNumbers) {
  DnsMessage message;
  decode(&message, from_hex("1234 8580 0000 0000 0000 0000"));
  EXPECT_EQ(header_of(message), (std::vector<int>{0x1234, 0x8580, 0, 0, 0, 0}));
}

TEST_F(DnsDecode, TheHeadersNumbersAreUnsignedAndKeptWhole) {
  DnsMessage message;
  decode(&message, from_hex("FFFE FFFD FFFC FFFB FFFA FFF9"));
  EXPECT_EQ(header_of(message), (std::vector<int>{0xFFFE, 0xFFFD, 0xFFFC, 0xFFFB, 0xFFFA, 0xFFF9}));
  EXPECT_TRUE(shown(message).empty());
}

TEST_F(DnsDecode, CountsStayAsSent) {
  DnsMessage message;
  decode(&message, DnsWire(7, 0)
                       .question(dns_name("q"), T_A)
                       .answer(dns_name("a"), T_A, 1, rdata_a(1))
                       .counts(1, 700, 8, 9)
                       .bytes());
  EXPECT_EQ(header_of(message), (std::vector<int>{7, 0, 1, 700, 8, 9}));
  EXPECT_EQ(message.questions.Size(), 1);
  EXPECT_EQ(message.answers.Size(), 1);
}

TEST_F(DnsDecode, WhatIsNotCountedIsNotDecoded) {
  DnsMessage message;
  decode(&message, DnsWire()
                       .question(dns_name("q"), T_A)
                       .answer(dns_name("a"), T_A, 1, rdata_a(1))
                       .answer(dns_name("b"), T_A, 1, rdata_a(2))
                       .counts(1, 1, 0, 0)
                       .bytes());
  EXPECT_EQ(shown(message),
            (std::vector<std::string>{
                "question q type 1 class 1",
                "answer a type 1 class 1 ttl 1 addr 1 priority 0 weight 0 port 0 target ''"}));
}

TEST_F(DnsDecode, EverySectionIsInTheMessagesOrder) {
  DnsWire wire(0x1234, 0x8583);
  wire.question(dns_name("q1.test"), T_SRV).question(dns_name("q2", 12 + 3), T_MX, 255);
  for (unsigned i = 0; i < 4; ++i)
    wire.answer(dns_name("an" + std::to_string(i), 15), T_A, i, rdata_a(i + 1));
  for (unsigned i = 0; i < 3; ++i)
    wire.authority(dns_pointer(15), T_NS, i, dns_name("ns" + std::to_string(i), 15));
  for (unsigned i = 0; i < 5; ++i)
    wire.additional(dns_name("ad" + std::to_string(i)), T_TXT, i, rdata_txt("x"));
  DnsMessage message;
  decode(&message, wire.bytes());
  EXPECT_EQ(header_of(message), (std::vector<int>{0x1234, 0x8583, 2, 4, 3, 5}));
  std::vector<std::string> expected = {"question q1.test type 33 class 1",
                                       "question q2.test type 15 class 255"};
  const std::string rest = " priority 0 weight 0 port 0 target '";
  for (int i = 0; i < 4; ++i) {
    const std::string n = std::to_string(i);
    expected.push_back("answer an" + n + ".test type 1 class 1 ttl " + n + " addr " + std::to_string(i + 1) +
                       rest + "'");
  }
  for (int i = 0; i < 3; ++i) {
    const std::string n = std::to_string(i);
    expected.push_back("authority test type 2 class 1 ttl " + n + " addr 0" + rest + "ns" + n + ".test'");
  }
  for (int i = 0; i < 5; ++i) {
    const std::string n = std::to_string(i);
    expected.push_back("additional ad" + n + " type 16 class 1 ttl " + n + " addr 0" + rest + "'");
  }
  EXPECT_EQ(shown(message), expected);
  for (OSIndirectList* list :
       {&message.questions, &message.answers, &message.authorities, &message.additionals}) {
    EXPECT_TRUE(ListIsSound(*list));
  }
}

TEST_F(DnsDecode, AnAnswersNameMayPointToTheQuestion) {
  DnsMessage message;
  decode(&message, DnsWire()
                       .question(dns_name("abc.defghij.klm"), T_A)
                       .answer(dns_pointer(12), T_A, 60, from_hex("C0A80001"))
                       .bytes());
  EXPECT_EQ(shown(message), (std::vector<std::string>{"question abc.defghij.klm type 1 class 1",
                                                      "answer abc.defghij.klm type 1 class 1 ttl 60 addr "
                                                      "3232235521 priority 0 weight 0 port 0 target ''"}));
}

TEST_F(DnsDecode, ANameMayPointToWhatFollows) {
  DnsWire wire;
  // The answer's target stands in the additional record's name, behind it.
  wire.answer(dns_name("www.abc"), T_NS, 1, dns_pointer(12 + 9 + 10 + 2));
  ASSERT_EQ(wire.at(), 12U + 9 + 10 + 2);
  wire.additional(dns_name("ns.abc"), T_A, 2, rdata_a(9));
  DnsMessage message;
  decode(&message, wire.bytes());
  EXPECT_EQ(shown(message),
            (std::vector<std::string>{
                "answer www.abc type 2 class 1 ttl 1 addr 0 priority 0 weight 0 port 0 target 'ns.abc'",
                "additional ns.abc type 1 class 1 ttl 2 addr 9 priority 0 weight 0 port 0 target ''"}));
}

/// A message of two records, which are their names alone, and what follows them.
std::string two_names(const std::string& first, const std::string& second, const std::string& rest) {
  const std::string nothing_else(10, '\0');
  return from_hex("0000 8180 0000 0002 0000 0000") + first + nothing_else + second + nothing_else + rest;
}

std::vector<std::string> names_of(const std::string& wire) {
  DnsMessage message;
  const ExactBuffer buf(wire);
  message.Decode(buf.get());
  std::vector<std::string> names;
  for (const DnsResource* record : listed<DnsResource>(message.answers)) {
    names.emplace_back(record->name);
    EXPECT_EQ(record->type, 0) << "the record begins behind its name";
  }
  return names;
}

TEST_F(DnsDecode, TheSameNameIsFoundAgainThroughAPointerOrAtItsPlace) {
  using Names = std::vector<std::string>;
  // The first name stands at 12.
  EXPECT_EQ(names_of(two_names(dns_name("a.bc"), dns_pointer(12), "")), (Names{"a.bc", "a.bc"}));
  EXPECT_EQ(names_of(two_names(dns_name("a.bc"), dns_pointer(14), "")), (Names{"a.bc", "bc"}));
  EXPECT_EQ(names_of(two_names(dns_pointer(36), dns_pointer(36), dns_name("a"))), (Names{"a", "a"}));
  EXPECT_EQ(names_of(two_names(dns_pointer(36), dns_pointer(12), dns_name("a"))), (Names{"a", "a"}));
  // The name that the first points to is the second's own, which takes all its bytes.
  EXPECT_EQ(names_of(two_names(dns_pointer(24), dns_name("ab.c"), "")), (Names{"ab.c", "ab.c"}));
  // The header read as a name is that of the root, whose place is 0.
  EXPECT_EQ(names_of(two_names(dns_name("a"), dns_pointer(0), "")), (Names{"a", ""}));
  EXPECT_EQ(names_of(two_names(dns_pointer(36), dns_pointer(0), dns_name("a"))), (Names{"a", ""}));
  EXPECT_EQ(names_of(two_names(dns_pointer(0), dns_pointer(36), dns_name("a"))), (Names{"", "a"}));
}

TEST_F(DnsDecode, PointersToPlacesThatDifferInOneBitAreTwoNames) {
  constexpr std::size_t kPlace = 0x100;
  for (std::size_t bit = 4; bit < 0x4000; bit *= 2) {
    SCOPED_TRACE(bit);
    std::string wire = two_names(dns_pointer(kPlace), dns_pointer(kPlace ^ bit), "");
    wire.resize(0x4000, '\0');
    wire.replace(kPlace, 3, dns_name("a"));
    wire.replace(kPlace ^ bit, 3, dns_name("b"));
    EXPECT_EQ(names_of(wire), (std::vector<std::string>{"a", "b"}));
  }
}

TEST_F(DnsDecode, OffsetsCountFromTheBuffersDataWhereverThatLies) {
  const std::string wire =
      DnsWire().question(dns_name("abc.test"), T_A).answer(dns_pointer(12), T_A, 60, rdata_a(5)).bytes();
  OSBuf* buf = dns_buffer("12345" + wire);
  buf->PullUp(5);
  DnsMessage message;
  EXPECT_EQ(message.Decode(buf), 0);
  EXPECT_EQ(buf->length, wire.size());
  ASSERT_EQ(message.answers.Size(), 1);
  EXPECT_STREQ(listed<DnsResource>(message.answers)[0]->name, "abc.test");
  buf->Free();
}

TEST_F(DnsDecode, ABufferWithoutStorageIsAnEmptyMessage) {
  OSBuf* buf = OSBuf::Alloc(0);
  DnsMessage message;
  EXPECT_EQ(message.Decode(buf), 0);
  EXPECT_EQ(header_of(message), (std::vector<int>{0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(shown(message).empty());
  buf->Free();
}

TEST_F(DnsDecode, AnErrorAnswerIsDecodedLikeAnyOther) {
  for (const unsigned opts : {0x8183U, 0x8182U, 0x8385U, 0x0000U, 0xFFFFU}) {
    DnsMessage message;
    decode(&message,
           DnsWire(1, opts).question(dns_name("q"), T_A).answer(dns_pointer(12), T_A, 1, rdata_a(1)).bytes());
    EXPECT_EQ(message.opts, static_cast<int>(opts));
    EXPECT_EQ(shown(message).size(), 2U);
  }
}

TEST_F(DnsDecode, OfACutHeaderTheWholeNumbersAreTaken) {
  const std::string header = from_hex("0102 0304 0506 0708 090A 0B0C");
  const std::vector<int> numbers = {0x0102, 0x0304, 0x0506, 0x0708, 0x090A, 0x0B0C};
  for (std::size_t length = 0; length <= header.size(); ++length) {
    SCOPED_TRACE(length);
    DnsMessage message;
    decode(&message, header.substr(0, length));
    std::vector<int> expected(6, 0);
    for (std::size_t i = 0; i < length / 2; ++i) expected[i] = numbers[i];
    EXPECT_EQ(header_of(message), expected);
    EXPECT_TRUE(shown(message).empty());
  }
}

TEST_F(DnsDecode, ASecondDecodeAppends) {
  const DnsWire first = DnsWire(1, 2)
                            .question(dns_name("q1"), T_A)
                            .answer(dns_name("a1"), T_A, 1, rdata_a(1))
                            .additional(dns_name("x1"), T_A, 1, rdata_a(1));
  const DnsWire second = DnsWire(3, 4)
                             .question(dns_name("q2"), T_A)
                             .answer(dns_name("a2"), T_A, 2, rdata_a(2))
                             .answer(dns_name("a3"), T_A, 3, rdata_a(3))
                             .authority(dns_name("n2"), T_A, 2, rdata_a(2));
  DnsMessage message;
  decode(&message, first.bytes());
  decode(&message, second.bytes());
  EXPECT_EQ(header_of(message), (std::vector<int>{3, 4, 1, 2, 1, 0}));
  const auto line = [](const std::string& name, int n) {
    const std::string number = std::to_string(n);
    return name + " type 1 class 1 ttl " + number + " addr " + number +
           " priority 0 weight 0 port 0 target ''";
  };
  EXPECT_EQ(shown(message),
            (std::vector<std::string>{"question q1 type 1 class 1", "question q2 type 1 class 1",
                                      line("answer a1", 1), line("answer a2", 2), line("answer a3", 3),
                                      line("authority n2", 2), line("additional x1", 1)}));
}

// What does not fit in the second message takes nothing from the first.
TEST_F(DnsDecode, ASecondDecodeOfNothingLeavesTheEntries) {
  DnsMessage message;
  decode(&message,
         DnsWire(1, 2).question(dns_name("q1"), T_A).answer(dns_name("a1"), T_A, 1, rdata_a(1)).bytes());
  const std::vector<std::string> before = shown(message);
  decode(&message, "");
  EXPECT_EQ(shown(message), before);
  EXPECT_EQ(header_of(message), (std::vector<int>{1, 2, 1, 1, 0, 0}));
  // Of these seven bytes three numbers are whole.
  decode(&message, from_hex("0005 0006 0007 00"));
  EXPECT_EQ(shown(message), before);
  EXPECT_EQ(header_of(message), (std::vector<int>{5, 6, 7, 1, 0, 0}));
  decode(&message, DnsWire().counts(5, 5, 5, 5).bytes() + dns_pointer(12));
  EXPECT_EQ(shown(message), before);
}

// ---- Threads -----------------------------------------------------------------------------------------------

TEST_F(DnsDecode, ThreadsDecodeAndPrintAtTheSameTime) {
  const std::string wire = DnsWire()
                               .question(dns_name("example.test"), T_SRV)
                               .answer(dns_pointer(12), T_SRV, 1, rdata_srv(1, 2, 3, dns_name("gw", 12)))
                               .additional(dns_name("gw", 12), T_A, 1, rdata_a(0xC0A80001))
                               .bytes();
  DnsMessage shared;
  decode(&shared, wire);
  const std::vector<std::string> expected = shown(shared);
  std::atomic<int> right = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        DnsMessage own;
        decode(&own, wire);
        own.Print();
        shared.Print();
        if (shown(own) == expected) ++right;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 200);
  EXPECT_EQ(console.calls().size(), 2U * 200U * 6U);
}

}  // namespace
}  // namespace oskernel_test
