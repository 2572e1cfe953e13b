// The decoder beside the C library's: generated messages with compressed names, and what name servers have answered,
// compared record by record with what ns_initparse, ns_parserr and ns_name_uncompress make of them.

#include <arpa/nameser.h>
#include <gtest/gtest.h>
#include <resolv.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "network/dns.h"
#include "support/dns_fixture.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using Lines = std::vector<std::string>;

/// The thread sanitizer makes every message cost ten times as much.
#if defined(__SANITIZE_THREAD__)
constexpr int kMessages = 200;
#else
constexpr int kMessages = 1500;
#endif

class DnsRoundTrip : public DnsTest {
 protected:
  void expect_the_same(const std::string& wire);
};

// ---- The C library's view ----------------------------------------------------------------------------------

/// The text of a name; "-" for one that the C library does not accept.
std::string system_name(const ns_msg& msg, const unsigned char* at) {
  char text[NS_MAXDNAME];
  if (ns_name_uncompress(ns_msg_base(msg), ns_msg_end(msg), at, text, sizeof text) < 0) return "-";
  return std::strcmp(text, ".") == 0 ? "" : text;
}

std::string system_record(const ns_msg& msg, const ns_rr& rr) {
  const int type = ns_rr_type(rr);
  const unsigned char* data = ns_rr_rdata(rr);
  ULONG addr = 0;
  int numbers[3] = {0, 0, 0};
  std::string target;
  if (type == ns_t_a) addr = static_cast<ULONG>(ns_get32(data));
  const int words = type == ns_t_srv ? 3 : type == ns_t_mx ? 1 : 0;
  for (int i = 0; i < words; ++i, data += 2) numbers[i] = static_cast<int>(ns_get16(data));
  if (type == ns_t_ns || words != 0) target = system_name(msg, data);
  const char* const name = ns_rr_name(rr);
  return std::string(std::strcmp(name, ".") == 0 ? "" : name) + " type " + std::to_string(type) + " class " +
         std::to_string(ns_rr_class(rr)) + " ttl " + std::to_string(ns_rr_ttl(rr)) + " addr " +
         std::to_string(addr) + " priority " + std::to_string(numbers[0]) + " weight " +
         std::to_string(numbers[1]) + " port " + std::to_string(numbers[2]) + " target '" + target + "'";
}

/// The entries of all sections; the last line says so when the C library does not accept the message.
Lines system_view(const std::string& wire) {
  ns_msg msg;
  if (ns_initparse(reinterpret_cast<const unsigned char*>(wire.data()), static_cast<int>(wire.size()),
                   &msg) != 0) {
    return {"not accepted"};
  }
  Lines lines;
  const std::array<const char*, 4> sections = {"question ", "answer ", "authority ", "additional "};
  for (std::size_t section = 0; section < sections.size(); ++section) {
    const auto which = static_cast<ns_sect>(section);
    for (int i = 0; i < ns_msg_count(msg, which); ++i) {
      ns_rr rr;
      if (ns_parserr(&msg, which, i, &rr) != 0) {
        lines.emplace_back("not accepted");
        return lines;
      }
      if (section == 0) {
        lines.push_back("question " +
                        std::string(std::strcmp(ns_rr_name(rr), ".") == 0 ? "" : ns_rr_name(rr)) + " type " +
                        std::to_string(ns_rr_type(rr)) + " class " + std::to_string(ns_rr_class(rr)));
      } else {
        lines.push_back(sections[section] + system_record(msg, rr));
      }
    }
  }
  return lines;
}

void DnsRoundTrip::expect_the_same(const std::string& wire) {
  const Lines expected = system_view(wire);
  ASSERT_TRUE(expected.empty() || expected.back() != "not accepted")
      << "the message is not what it should be";
  DnsMessage message;
  decode(&message, wire);
  const auto number = [&](std::size_t at) {
    return static_cast<UBYTE>(wire[at]) << 8U | static_cast<UBYTE>(wire[at + 1]);
  };
  EXPECT_EQ(header_of(message),
            (std::vector<int>{number(0), number(2), number(4), number(6), number(8), number(10)}));
  ASSERT_EQ(shown(message), expected);
}

// ---- Generated messages ------------------------------------------------------------------------------------

/// Builds messages whose names share their ends, as those of a zone do.
class Generator {
 public:
  explicit Generator(std::mt19937* random) : random_(*random) {}

  /// How many bytes the names have taken, and how many they would have taken without compression.
  std::size_t written_bytes() const { return written_bytes_; }
  std::size_t plain_bytes() const { return plain_bytes_; }

  /// Names compressed by the C library, so every pointer leads backward.
  std::string compressed() {
    start();
    return build([this](const std::string& text) { append_compressed(text); });
  }

  /// Names of one or two labels and a pointer to one of the names in the message's last record, all forward.
  std::string forward() {
    // Built twice, of the same size: the second time it is known where the last record's data stand.
    const std::mt19937 again = random_;
    std::size_t pool_at = 0;
    std::string wire;
    for (int round = 0; round < 2; ++round) {
      random_ = again;
      start();
      std::string pool;
      std::vector<std::size_t> offsets;
      for (int i = 0; i < 8; ++i) {
        offsets.push_back(pool.size());
        pool += dns_name(pick_name(253 - 64));
      }
      wire = build(
          [&](const std::string&) {
            if (pick(random_, 0, 2) == 0) bytes_ += dns_label(pick_label());
            bytes_ += dns_pointer(pool_at + offsets[static_cast<std::size_t>(pick(random_, 0, 7))]);
          },
          0);
      // One more additional record, which the decoder skips.
      wire += dns_record(dns_name("pool"), T_NULL, 1, "");
      pool_at = wire.size();
      wire.replace(wire.size() - 2, 2, dns_word(static_cast<unsigned>(pool.size())));
      wire += pool;
      const unsigned additionals = static_cast<UBYTE>(wire[11]) + 1U;
      wire.replace(10, 2, dns_word(additionals));
    }
    return wire;
  }

 private:
  static constexpr std::size_t kMost_bytes = 12000;  // within a pointer's reach, and so is what is put behind

  void start() {
    bytes_.clear();
    known_.clear();
    texts_.clear();
  }

  std::string pick_label() {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    const int length = pick(random_, 0, 9) == 0 ? pick(random_, 1, 63) : pick(random_, 1, 5);
    std::string label;
    for (int i = 0; i < length; ++i) label += kLetters[static_cast<std::size_t>(pick(random_, 0, 63))];
    return label;
  }

  /// Often one that was there before, or one below it; the root now and then.
  std::string pick_name(std::size_t most_characters = 253) {
    if (pick(random_, 0, 30) == 0) return "";
    std::string name;
    if (!texts_.empty() && pick(random_, 0, 3) != 0) {
      name = texts_[static_cast<std::size_t>(pick(random_, 0, static_cast<int>(texts_.size()) - 1))];
    } else {
      name = pick_label() + "." + pick_label();
    }
    for (int more = pick(random_, 0, 3); more > 0; --more) {
      std::string longer = pick_label();
      if (!name.empty()) longer += "." + name;
      if (longer.size() <= most_characters) name = longer;
    }
    texts_.push_back(name);
    return name;
  }

  void append_compressed(const std::string& text) {
    bytes_.resize(bytes_.size() + NS_MAXCDNAME);
    auto* const base = reinterpret_cast<unsigned char*>(bytes_.data());
    // The list begins with the message and ends with a null; the C library adds the names that it finds room for.
    if (known_.empty()) known_ = {std::size_t{0}};
    std::array<const unsigned char*, 200> pointers = {};
    for (std::size_t i = 0; i < known_.size(); ++i) pointers[i] = base + known_[i];
    const std::size_t at = bytes_.size() - NS_MAXCDNAME;
    const int length = ns_name_compress(text.c_str(), base + at, NS_MAXCDNAME, pointers.data(),
                                        pointers.data() + pointers.size());
    ASSERT_GT(length, 0) << text;
    known_.clear();
    for (const unsigned char* pointer : pointers) {
      if (pointer == nullptr) break;
      known_.push_back(static_cast<std::size_t>(pointer - base));
    }
    bytes_.resize(at + static_cast<std::size_t>(length));
    written_bytes_ += static_cast<std::size_t>(length);
    plain_bytes_ += text.empty() ? 1 : text.size() + 2;
  }

  std::string build(const std::function<void(const std::string&)>& append_name, int most_questions = 2) {
    unsigned counts[4] = {static_cast<unsigned>(pick(random_, most_questions == 0 ? 0 : 1, most_questions)),
                          0, 0, 0};
    const int most = pick(random_, 0, 19) == 0 ? 60 : 8;
    for (unsigned i = 1; i < 4; ++i) counts[i] = static_cast<unsigned>(pick(random_, 0, most));
    bytes_ = dns_word(static_cast<unsigned>(random_())) + dns_word(static_cast<unsigned>(random_()));
    for (const unsigned count : counts) bytes_ += dns_word(count);
    for (unsigned i = 0; i < counts[0]; ++i) {
      append_name(pick_name());
      bytes_ += dns_word(pick_type()) + dns_word(pick_class());
    }
    for (std::size_t section = 1; section < 4; ++section) {
      unsigned appended = 0;
      for (; appended < counts[section] && bytes_.size() < kMost_bytes; ++appended)
        append_record(append_name);
      bytes_.replace(4 + 2 * section, 2, dns_word(appended));
    }
    return bytes_;
  }

  unsigned pick_type() {
    static constexpr unsigned kTypes[] = {T_A,   T_A,   T_NS,    T_NS,  T_MX,    T_MX, T_SRV, T_SRV,
                                          T_SOA, T_PTR, T_CNAME, T_TXT, T_NAPTR, 28,   41,    65535};
    return kTypes[static_cast<std::size_t>(pick(random_, 0, static_cast<int>(std::size(kTypes)) - 1))];
  }
  unsigned pick_class() {
    return pick(random_, 0, 5) == 0 ? static_cast<unsigned>(pick(random_, 0, 65535)) : 1;
  }

  void append_record(const std::function<void(const std::string&)>& append_name) {
    append_name(pick_name());
    const unsigned type = pick_type();
    // The C library takes a TTL with the top bit as it is, too.
    bytes_ += dns_word(type) + dns_word(pick_class()) + dns_long(static_cast<ULONG>(random_())) + dns_word(0);
    const std::size_t data_at = bytes_.size();
    switch (type) {
      case T_A:
        bytes_ += dns_long(static_cast<ULONG>(random_()));
        break;
      case T_NS:
      case T_PTR:
      case T_CNAME:
        append_name(pick_name());
        break;
      case T_MX:
        bytes_ += dns_word(static_cast<unsigned>(random_()));
        append_name(pick_name());
        break;
      case T_SRV:
        for (int i = 0; i < 3; ++i) bytes_ += dns_word(static_cast<unsigned>(random_()));
        append_name(pick_name());
        break;
      case T_SOA:
        append_name(pick_name());
        append_name(pick_name());
        bytes_ += std::string(20, '\x11');
        break;
      default:
        for (int i = pick(random_, 0, 40); i > 0; --i) bytes_ += dns_byte(static_cast<unsigned>(random_()));
        break;
    }
    bytes_.replace(data_at - 2, 2, dns_word(static_cast<unsigned>(bytes_.size() - data_at)));
  }

  std::mt19937& random_;
  std::string bytes_;
  std::vector<std::size_t> known_;  // offsets that a compressed name may point to, the message's own first
  std::vector<std::string> texts_;
  std::size_t written_bytes_ = 0;
  std::size_t plain_bytes_ = 0;
};

TEST_F(DnsRoundTrip, MessagesWithCompressedNames) {
  std::mt19937 random(test_seed());
  Generator generator(&random);
  for (int i = 0; i < kMessages; ++i) {
    ASSERT_NO_FATAL_FAILURE(expect_the_same(generator.compressed())) << i;
  }
  EXPECT_LT(generator.written_bytes(), generator.plain_bytes() * 2 / 3) << "the names are compressed";
}

TEST_F(DnsRoundTrip, MessagesWhosePointersLeadForward) {
  std::mt19937 random(test_seed());
  Generator generator(&random);
  for (int i = 0; i < kMessages; ++i) ASSERT_NO_FATAL_FAILURE(expect_the_same(generator.forward())) << i;
}

TEST_F(DnsRoundTrip, WhatNameServersHaveAnswered) {
  int answers = 0;
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(FUZZ_CORPUS) / "dns")) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with("answer-")) continue;
    SCOPED_TRACE(name);
    std::ifstream file(entry.path(), std::ios::binary);
    expect_the_same({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
    ++answers;
  }
  EXPECT_GE(answers, 20);
}

// A name as long as names may be: 253 characters, 255 bytes.
TEST_F(DnsRoundTrip, NamesOf253Characters) {
  for (const std::size_t label : {63, 30, 2}) {
    const std::string text = long_dns_text(253, label);
    std::string second = text;
    second.front() = 'z';
    const std::size_t rest_at = 12 + text.find('.') + 1;
    expect_the_same(DnsWire()
                        .question(dns_name(text), T_SRV)
                        .answer(dns_pointer(12), T_SRV, 1, rdata_srv(1, 2, 3, dns_name(second)))
                        .answer(dns_name(second.substr(0, text.find('.')), rest_at), T_NS, 1, dns_pointer(12))
                        .bytes());
  }
}

// The builder of these tests writes names as the C library does.
TEST_F(DnsRoundTrip, NamesAsTheCLibraryWritesThem) {
  for (const char* text : {"6.0.168.192.in-addr.arpa", "_sip._tcp.example.test", "a.b", "."}) {
    unsigned char name[NS_MAXCDNAME];
    const int length = ns_name_compress(text, name, sizeof name, nullptr, nullptr);
    ASSERT_GT(length, 0);
    const std::string encoded(name, name + length);
    EXPECT_EQ(encoded, dns_name(text));
    expect_the_same(DnsWire().question(encoded, T_PTR).answer(dns_pointer(12), T_NS, 1, encoded).bytes());
  }
}

}  // namespace
}  // namespace oskernel_test
