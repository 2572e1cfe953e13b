// Names in messages (RFC 1035 4.1.4) and the mnemonics of types and classes.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "network/dns.h"
#include "support/dns_fixture.h"

namespace oskernel_test {
namespace {

// ---- Mnemonics ---------------------------------------------------------------------------------------------

/// Every number from below 0 to beyond 16 bits: those in the table have their text, all others none.
void expect_table(const char* (*text_of)(int), const std::map<int, std::string>& table) {
  for (int number = -70000; number <= 70000; ++number) {
    const char* const text = text_of(number);
    const auto entry = table.find(number);
    if (entry == table.end()) {
      ASSERT_EQ(text, nullptr) << number;
    } else {
      ASSERT_STREQ(text, entry->second.c_str()) << number;
    }
  }
  for (const int number : {INT32_MIN, INT32_MIN + 1, INT32_MAX - 1, INT32_MAX, 1 << 24, (1 << 24) + 1}) {
    EXPECT_EQ(text_of(number), nullptr) << number;
  }
}

TEST(DnsName, TypesHaveTheirMnemonicsAndOtherNumbersNone) {
  expect_table(GetTypeStr, {
                               {T_A, "A"},         {T_NS, "NS"},       {T_MD, "MD"},     {T_MF, "MF"},
                               {T_CNAME, "CNAME"}, {T_SOA, "SOA"},     {T_MB, "MB"},     {T_MG, "MG"},
                               {T_MR, "MR"},       {T_NULL, "NULL"},   {T_WKS, "WKS"},   {T_PTR, "PTR"},
                               {T_HINFO, "HINFO"}, {T_MINFO, "MINFO"}, {T_MX, "MX"},     {T_TXT, "TXT"},
                               {T_SRV, "SRV"},     {T_NAPTR, "NAPTR"}, {T_AXFR, "AXFR"}, {T_MAILB, "MAILB"},
                               {T_MAILA, "MAILA"}, {T_ALL, "*"},
                           });
}

TEST(DnsName, ClassesHaveTheirMnemonicsAndOtherNumbersNone) {
  expect_table(GetClassStr, {{1, "IN"}, {2, "CS"}, {3, "CH"}, {4, "HS"}, {255, "*"}});
}

TEST(DnsName, MnemonicsCanBeKept) {
  const char* const kept = GetTypeStr(T_A);
  (void)GetTypeStr(T_NS);
  EXPECT_EQ(GetTypeStr(T_A), kept);
  EXPECT_STREQ(kept, "A");
}

// ---- Names -------------------------------------------------------------------------------------------------

/// 256 bytes for a name, with a margin on either side and a pattern all over.
class Output {
 public:
  Output() { bytes_.fill(kUntouched); }
  char* text() { return bytes_.data() + kMargin; }
  /// Whether nothing was written but `count` bytes from the first one on.
  ::testing::AssertionResult only(std::size_t count) const {
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
      if (i >= kMargin && i < kMargin + count) continue;
      if (bytes_[i] != kUntouched) {
        return ::testing::AssertionFailure()
               << "byte " << static_cast<long>(i) - static_cast<long>(kMargin) << " was written";
      }
    }
    return ::testing::AssertionSuccess();
  }

 private:
  static constexpr char kUntouched = '\x5A';
  static constexpr std::size_t kMargin = 300;
  std::array<char, kMargin + 256 + kMargin> bytes_;
};

/// Expands the name at an offset of a message and checks everything that can be seen.
void expect_name(std::string wire, std::size_t at, const std::string& text, int consumed) {
  UBYTE* const msg = bytes_in(wire);
  const std::string before = wire;
  Output output;
  EXPECT_EQ(GetDomain(msg + at, msg, output.text()), consumed);
  EXPECT_EQ(std::string(output.text(), text.size()), text);
  EXPECT_EQ(output.text()[text.size()], '\0');
  EXPECT_TRUE(output.only(text.size() + 1)) << "only the text and its zero byte are written";
  EXPECT_EQ(GetDomainLength(msg + at, msg), static_cast<int>(text.size()));
  EXPECT_EQ(wire, before);
}

/// The same for one that has no text.
void expect_no_name(std::string wire, std::size_t at) {
  UBYTE* const msg = bytes_in(wire);
  Output output;
  EXPECT_EQ(GetDomain(msg + at, msg, output.text()), 0);
  EXPECT_EQ(output.text()[0], '\0');
  EXPECT_TRUE(output.only(256));
  EXPECT_EQ(GetDomainLength(msg + at, msg), 0);
}

/// A header whose bytes are no name, so that a walk that begins too early is seen.
std::string header() { return std::string(12, '\x3F'); }

TEST(DnsName, LabelsAreJoinedByDots) {
  expect_name(header() + from_hex("03616263 07 64656667 68696a 03 6b6c6d 00"), 12, "abc.defghij.klm", 17);
  expect_name(header() + dns_name("a"), 12, "a", 3);
  expect_name(header() + dns_name("a.b.c.d.e.f"), 12, "a.b.c.d.e.f", 13);
  expect_name(header() + dns_name(std::string(63, 'x')), 12, std::string(63, 'x'), 65);
}

TEST(DnsName, TheLengthOfAnEncodedNameIsThatOfItsText) {
  std::string wire = dns_name("abc.defghij.klm");
  EXPECT_EQ(GetDomainLength(bytes_in(wire), bytes_in(wire)), 15);
}

TEST(DnsName, WhatStandsBehindTheNameDoesNotCount) {
  expect_name(header() + dns_name("abc") + dns_name("def"), 12, "abc", 5);
  expect_name(header() + dns_pointer(14) + dns_name("abc") + "\x03zzz", 12, "abc", 2);
}

TEST(DnsName, ANameMayBeginAtTheMessagesFirstByte) { expect_name(dns_name("abc.de"), 0, "abc.de", 8); }

TEST(DnsName, TheRootIsTheEmptyTextAndTakesOneByte) {
  expect_name(header() + dns_name(""), 12, "", 1);
  expect_name(dns_byte(0), 0, "", 1);
}

TEST(DnsName, APointerToTheRootIsTheEmptyTextAndTakesTwoBytes) {
  expect_name(header() + dns_pointer(14) + dns_name(""), 12, "", 2);
  expect_name(header() + dns_pointer(14) + dns_pointer(16) + dns_name(""), 12, "", 2);
}

TEST(DnsName, APointerAtTheStartTakesTwoBytes) {
  const std::string wire = header() + dns_name("abc.defghij.klm") + dns_pointer(12);
  expect_name(wire, 12 + 17, "abc.defghij.klm", 2);
}

TEST(DnsName, LabelsInFrontOfAPointerTakeTheirBytesAndTwo) {
  const std::string wire = header() + dns_name("example.test") + dns_name("www.gw", 12);
  expect_name(wire, 12 + 14, "www.gw.example.test", 4 + 3 + 2);
}

TEST(DnsName, APointerLeadsIntoTheMiddleOfAName) {
  const std::string wire = header() + dns_name("www.example.test") + dns_name("ftp", 12 + 4);
  expect_name(wire, 12 + 18, "ftp.example.test", 4 + 2);
}

TEST(DnsName, ALabelInFrontOfAPointerToTheRootEndsWithoutDot) {
  expect_name(header() + dns_name("") + dns_name("abc", 12), 13, "abc", 6);
}

TEST(DnsName, PointersLeadToPointers) {
  const std::string first = dns_name("test");
  std::string wire = header() + first;
  const std::size_t second_at = wire.size();
  wire += dns_name("example", 12);
  const std::size_t third_at = wire.size();
  wire += dns_pointer(second_at);
  const std::size_t fourth_at = wire.size();
  wire += dns_name("a.bc", third_at);
  expect_name(wire, second_at, "example.test", 8 + 2);
  expect_name(wire, third_at, "example.test", 2);
  expect_name(wire, fourth_at, "a.bc.example.test", 2 + 3 + 2);
}

TEST(DnsName, OnlyTheFirstPointerEndsWhatTheNameTakes) {
  // Behind the first pointer come two more, with labels in between.
  std::string wire = header() + dns_name("c", 40) + std::string(12, '#');
  ASSERT_EQ(wire.size(), 28U);
  wire += dns_name("b", 12) + std::string(8, '#');
  ASSERT_EQ(wire.size(), 40U);
  wire += dns_name("d");
  const std::size_t at = wire.size();
  wire += dns_name("aaaa", 28);
  expect_name(wire, at, "aaaa.b.c.d", 5 + 2);
}

TEST(DnsName, PointersMayLeadForward) {
  const std::string wire = header() + dns_name("a", 20) + "####" + dns_name("bc.def");
  expect_name(wire, 12, "a.bc.def", 4);
  // Forward, and back again.
  const std::string there_and_back =
      header() + dns_name("mid", 12 + 6 + 6 + 4) + dns_name("end") + "#" + "####" + dns_name("far", 12 + 6);
  expect_name(there_and_back, 12, "mid.far.end", 6);
}

TEST(DnsName, APointerHasFourteenBits) {
  for (const std::size_t target :
       {std::size_t{0x3FFF}, std::size_t{0x3F00}, std::size_t{0x0100}, std::size_t{0x2FFE}}) {
    std::string wire(0x4100, '#');
    wire.replace(target, 5, dns_name("far"));
    wire.replace(12, 2, dns_pointer(target));
    expect_name(wire, 12, "far", 2);
  }
  // From behind that reach back into it.
  std::string wire(0x9000, '#');
  wire.replace(0x3FFF, 5, dns_name("far"));
  wire.replace(0x8000, 6, dns_name("way", 0x3FFF));
  expect_name(wire, 0x8000, "way.far", 6);
}

TEST(DnsName, LengthsWithOneTopBitAreLengths) {
  for (const std::size_t length : {0x40, 0x41, 0x7F, 0x80, 0x81, 0xBE, 0xBF}) {
    const std::string label(length, 'q');
    expect_name(header() + dns_name(label), 12, label, static_cast<int>(length) + 2);
    expect_name(header() + dns_name("ab." + label + ".c"), 12, "ab." + label + ".c",
                static_cast<int>(length) + 7);
  }
  // One more is a pointer.
  std::string wire = header() + dns_name("end") + dns_byte(0xC0) + dns_byte(12);
  expect_name(wire, 17, "end", 2);
}

TEST(DnsName, BytesOfALabelAreCopiedAsTheyAre) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  for (std::size_t at = 0; at < all.size(); at += 32) {
    const std::string label = all.substr(at, 32);
    expect_name(header() + dns_label(label) + dns_label("x") + dns_byte(0), 12, label + ".x", 36);
  }
  expect_name(header() + dns_label("a.b") + dns_label("..") + dns_byte(0), 12, "a.b...", 8);
  expect_name(header() + dns_label(std::string(1, '\0')) + dns_byte(0), 12, std::string(1, '\0'), 3);
}

TEST(DnsName, LettersKeepTheirCase) {
  expect_name(header() + dns_name("WwW.eXample"), 12, "WwW.eXample", 13);
}

// ---- Names of the greatest length --------------------------------------------------------------------------

TEST(DnsName, NamesOfUpTo255CharactersHaveAText) {
  for (const std::size_t length : {250, 251, 252, 253, 254, 255}) {
    const std::string text = long_dns_text(length);
    ASSERT_EQ(text.size(), length);
    expect_name(header() + dns_name(text), 12, text, static_cast<int>(length) + 2);
  }
}

TEST(DnsName, LongerNamesHaveNone) {
  for (const std::size_t length : {256, 257, 258, 300, 319, 320, 511, 512, 513, 1000, 20000}) {
    expect_no_name(header() + dns_name(long_dns_text(length)), 12);
  }
}

TEST(DnsName, TheLastLabelDecides) {
  // 127 labels of one character are 253 of text, and a label of 1 or 2 behind them 255 or 256.
  std::string many = "a";
  for (int i = 1; i < 127; ++i) many += ".a";
  ASSERT_EQ(many.size(), 253U);
  expect_name(header() + dns_name(many + ".b"), 12, many + ".b", 257);
  expect_no_name(header() + dns_name(many + ".bb"), 12);
  expect_no_name(header() + dns_name(many + ".b.b"), 12);
}

TEST(DnsName, LengthsWithOneTopBitCountTowardsTheSame) {
  const std::string text = std::string(191, 'u') + "." + std::string(63, 'v');
  ASSERT_EQ(text.size(), 255U);
  expect_name(header() + dns_name(text), 12, text, 257);
  expect_no_name(header() + dns_name(text + "v"), 12);
  expect_no_name(header() + dns_name(std::string(191, 'u') + "." + std::string(191, 'v')), 12);
}

TEST(DnsName, NamesThatGrowThroughPointersEndAtTheSameLength) {
  std::string wire = header();
  std::size_t at = wire.size();
  std::string text(63, 'a');
  wire += dns_name(text);
  for (const char letter : {'b', 'c', 'd'}) {
    const std::size_t next = wire.size();
    wire += dns_name(std::string(63, letter), at);
    text = std::string(63, letter) + "." + text;
    at = next;
    expect_name(wire, at, text, 66);
  }
  ASSERT_EQ(text.size(), 255U);
  const std::size_t pointer_at = wire.size();
  wire += dns_pointer(at);
  expect_name(wire, pointer_at, text, 2);
  const std::size_t too_long_at = wire.size();
  wire += dns_name("e", at);
  expect_no_name(wire, too_long_at);
}

// ---- Circles -----------------------------------------------------------------------------------------------

struct Circle {
  const char* what;
  std::string bytes;  // from offset 12 on
};

TEST(DnsName, NamesWhosePointersLeadRoundInCirclesHaveNoText) {
  const std::vector<Circle> circles = {
      {"a pointer to itself", dns_pointer(12)},
      {"two pointers to each other", dns_pointer(14) + dns_pointer(12)},
      {"three in a ring", dns_pointer(14) + dns_pointer(16) + dns_pointer(12)},
      {"a way into a ring", dns_pointer(14) + dns_pointer(16) + dns_pointer(14)},
      {"a label, and back to it", dns_name("a", 12)},
      {"labels, and back into the middle", dns_name("www.example.test", 16)},
      {"the longest label, and back to it", dns_name(std::string(63, 'x'), 12)},
      {"a label with a top bit, and back to it", dns_name(std::string(191, 'x'), 12)},
      {"two names that continue each other", dns_name("a", 16) + dns_name("b", 12)},
  };
  for (const Circle& circle : circles) {
    SCOPED_TRACE(circle.what);
    // Zero bytes behind: a walk that leaves the circle finds an end.
    std::string wire = header() + circle.bytes + std::string(300, '\0');
    expect_no_name(wire, 12);
  }
}

TEST(DnsName, APointerIntoAPointersSecondByteIsNoCircle) {
  // The byte at 13 is the low half of the pointer at 12 and, where that leads, the length of a label.
  expect_name(header() + from_hex("C00D") + "thirteenchars" + dns_byte(0), 12, "thirteenchars", 2);
}

TEST(DnsName, TheLongestChainsOfPointersThatEndAreFollowed) {
  // Each of the pointers leads two bytes on; all offsets that a pointer can name are in use.
  std::string wire;
  while (wire.size() < 0x3FFE) wire += dns_pointer(wire.size() + 2);
  wire += dns_name("end");
  expect_name(wire, 0, "end", 2);
  // Backwards, from the far end.
  wire = dns_name("end") + "#";
  while (wire.size() < 0x4000) wire += dns_pointer(wire.size() == 6 ? 0 : wire.size() - 2);
  expect_name(wire, wire.size() - 2, "end", 2);
}

TEST(DnsName, ALongChainThatEndsInACircleHasNoText) {
  std::string wire;
  while (wire.size() < 0x3FFE) wire += dns_pointer(wire.size() + 2);
  wire += dns_pointer(0) + std::string(300, '\0');
  expect_no_name(wire, 0);
}

}  // namespace
}  // namespace oskernel_test
