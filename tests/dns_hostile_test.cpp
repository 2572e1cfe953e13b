// Messages that nobody well-meaning sends. Anyone who can send a datagram decides what is decoded here: nothing outside
// of it is read, no field is written beyond its end, and none costs more than a moment.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "network/dns.h"
#include "support/dns_fixture.h"
#include "support/launcher.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using Lines = std::vector<std::string>;

/// What a test may take, and how much of a long one is done: under the thread sanitizer or an emulator every read costs
/// ten times as much.
#if defined(__SANITIZE_THREAD__)
const int kAlarm_s = 30;
constexpr int kRandomMessages = 500;
#else
const int kAlarm_s = emulated() ? 60 : 5;
constexpr int kRandomMessages = 3000;
#endif

/// Storage between two pages that nobody may touch.
class GuardedStorage {
 public:
  explicit GuardedStorage(std::size_t room) : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    room_ = (room + page_ - 1) / page_ * page_;
    void* const all =
        mmap(nullptr, room_ + 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (all == MAP_FAILED) std::abort();
    all_ = static_cast<UBYTE*>(all);
    if (mprotect(all_, page_, PROT_NONE) != 0 || mprotect(all_ + page_ + room_, page_, PROT_NONE) != 0)
      std::abort();
  }
  ~GuardedStorage() { munmap(all_, room_ + 2 * page_); }
  GuardedStorage(const GuardedStorage&) = delete;
  GuardedStorage& operator=(const GuardedStorage&) = delete;

  /// The bytes, the last of which is the last that may be read.
  UBYTE* at_end(const std::string& bytes) { return put(all_ + page_ + room_ - bytes.size(), bytes); }
  /// The bytes, the first of which is the first that may be read.
  UBYTE* at_start(const std::string& bytes) { return put(all_ + page_, bytes); }

 private:
  static UBYTE* put(UBYTE* to, const std::string& bytes) {
    std::copy(bytes.begin(), bytes.end(), to);
    return to;
  }
  std::size_t page_;
  std::size_t room_;
  UBYTE* all_;
};

class DnsHostile : public DnsTest {
 protected:
  void SetUp() override {
    DnsTest::SetUp();
    // So much of this process's own time, or SIGPROF ends it: a decoder that spins never comes back, and a machine
    // that is busy elsewhere does not count.
    set_alarm(kAlarm_s);
  }
  void TearDown() override {
    set_alarm(0);
    DnsTest::TearDown();
  }

  /// Decodes bytes wherever a read outside of them would be seen: on the heap, at the end and at the start of what
  /// may be read at all. Returns the entries, which are the same each time and keep what a message promises.
  Lines decoded(const std::string& bytes) {
    DnsMessage on_heap;
    decode(&on_heap, bytes);
    const Lines lines = shown(on_heap);
    expect_sound(on_heap, bytes);
    for (const bool ends_where_storage_does : {true, false}) {
      UBYTE* const storage = ends_where_storage_does ? guarded_.at_end(bytes) : guarded_.at_start(bytes);
      OSBuf* const buf = OSBuf::Alloc(0);
      buf->SetPayload(storage, static_cast<UWORD>(bytes.size()));
      buf->data = storage;
      buf->length = static_cast<UWORD>(bytes.size());
      DnsMessage message;
      EXPECT_EQ(message.Decode(buf), 0);
      EXPECT_EQ(shown(message), lines);
      EXPECT_EQ(header_of(message), header_of(on_heap));
      buf->Free();
    }
    return lines;
  }

 private:
  static void set_alarm(int seconds) {
    itimerval alarm = {};
    alarm.it_value.tv_sec = seconds;
    ASSERT_EQ(setitimer(ITIMER_PROF, &alarm, nullptr), 0);
  }
  static void expect_text(const char (&field)[256]) {
    ASSERT_NE(std::find(std::begin(field), std::end(field), '\0'), std::end(field)) << "a text has no end";
  }
  static void expect_sound(const DnsMessage& message, const std::string& bytes) {
    const std::vector<int> header = header_of(message);
    for (std::size_t i = 0; i < header.size(); ++i) {
      const bool whole = bytes.size() >= 2 * i + 2;
      ASSERT_EQ(header[i],
                whole ? static_cast<UBYTE>(bytes[2 * i]) << 8U | static_cast<UBYTE>(bytes[2 * i + 1]) : 0);
    }
    const OSIndirectList* const lists[] = {&message.questions, &message.answers, &message.authorities,
                                           &message.additionals};
    for (std::size_t i = 0; i < 4; ++i) {
      ASSERT_TRUE(ListIsSound(*lists[i]));
      ASSERT_LE(lists[i]->number_in_list, header[2 + i]) << "no list is longer than announced";
      // What does not fit ends all: a list that is shorter than announced is the last one.
      if (lists[i]->number_in_list == header[2 + i]) continue;
      for (std::size_t later = i + 1; later < 4; ++later) ASSERT_EQ(lists[later]->number_in_list, 0);
    }
    for (const DnsQuestion* question : listed<DnsQuestion>(message.questions)) expect_text(question->qname);
    for (std::size_t i = 1; i < 4; ++i) {
      for (const DnsResource* record : listed<DnsResource>(*lists[i])) {
        expect_text(record->name);
        expect_text(record->target);
      }
    }
  }

  GuardedStorage guarded_{65535};
};

/// What name servers have answered, by the name of the file.
std::map<std::string, std::string> real_answers() {
  std::map<std::string, std::string> answers;
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(FUZZ_CORPUS) / "dns")) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with("answer-")) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    answers[name] = {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  return answers;
}

Lines first_lines(const Lines& lines, std::size_t count) {
  return {lines.begin(), lines.begin() + static_cast<long>(std::min(count, lines.size()))};
}

std::string an(const std::string& name, int ttl, const std::string& rest) {
  return "answer " + name + " type 1 class 1 ttl " + std::to_string(ttl) + " addr " + rest +
         " priority 0 weight 0 port 0 target ''";
}

// ---- Truncation --------------------------------------------------------------------------------------------

/// Where each entry of a message ends, found one entry after the other.
std::vector<std::size_t> ends_of_entries(std::string wire) {
  UBYTE* const msg = bytes_in(wire);
  const auto count = [&](std::size_t at) { return msg[at] << 8U | msg[at + 1]; };
  std::vector<std::size_t> ends;
  std::size_t at = DnsWire::kHeader_bytes;
  for (int i = 0; i < count(4); ++i) {
    DnsQuestion question;
    ends.push_back(at += static_cast<std::size_t>(question.Decode(msg + at, msg)));
  }
  for (int i = 0; i < count(6) + count(8) + count(10); ++i) {
    DnsResource record;
    ends.push_back(at += static_cast<std::size_t>(record.Decode(msg + at, msg)));
  }
  return ends;
}

TEST_F(DnsHostile, EveryTruncationOfRealAnswersKeepsTheCompleteEntries) {
  const auto answers = real_answers();
  ASSERT_GE(answers.size(), 20U);
  for (const auto& [name, wire] : answers) {
    SCOPED_TRACE(name);
    const Lines all = decoded(wire);
    const std::vector<std::size_t> ends = ends_of_entries(wire);
    ASSERT_EQ(all.size(), ends.size());
    ASSERT_EQ(ends.back(), wire.size());
    for (std::size_t length = 0; length < wire.size(); ++length) {
      const auto complete = std::upper_bound(ends.begin(), ends.end(), length) - ends.begin();
      ASSERT_EQ(decoded(wire.substr(0, length)), first_lines(all, static_cast<std::size_t>(complete)))
          << "cut at " << length;
    }
  }
}

TEST_F(DnsHostile, EveryTruncationOfEveryKindOfRecordKeepsWhatIsBefore) {
  const Lines first = {an("first", 1, "16909060")};
  const std::vector<std::string> records = {
      dns_record(dns_name("a.b"), T_A, 2, rdata_a(5)),
      dns_record(dns_name("a.b"), T_NS, 2, dns_name("c.d")),
      dns_record(dns_name("a.b"), T_MX, 2, rdata_mx(5, dns_name("c.d"))),
      dns_record(dns_name("a.b"), T_SRV, 2, rdata_srv(5, 6, 7, dns_name("c.d"))),
      dns_record(dns_pointer(12), T_SRV, 2, rdata_srv(5, 6, 7, dns_pointer(12))),
      dns_record(dns_name("a.b"), T_TXT, 2, rdata_txt("some text")),
      dns_record(dns_name("a.b"), T_TXT, 2, ""),
      dns_record(dns_name(""), T_NS, 2, dns_name("")),
  };
  for (const std::string& record : records) {
    const DnsWire wire = DnsWire().answer(dns_name("first"), T_A, 1, rdata_a(0x01020304)).put(1, record);
    const std::string bytes = wire.bytes();
    ASSERT_EQ(decoded(bytes).size(), 2U);
    for (std::size_t cut = 1; cut <= record.size(); ++cut) {
      ASSERT_EQ(decoded(bytes.substr(0, bytes.size() - cut)), first) << "without the last " << cut;
    }
  }
}

// ---- Names -------------------------------------------------------------------------------------------------

struct BadName {
  const char* what;
  std::string name;  // stands at offset `at`
};

std::vector<BadName> bad_names(std::size_t at) {
  return {
      {"a pointer to itself", dns_pointer(at)},
      {"a label and back to it", dns_name("a", at)},
      {"many labels and back", dns_name("www.example.test", at)},
      {"a label with a top bit and back", dns_name(std::string(191, 'x'), at)},
      {"a pointer to the first byte behind", dns_pointer(0x3FFF)},
      {"256 characters", dns_name(long_dns_text(256))},
      {"20000 characters", dns_name(long_dns_text(20000))},
      {"labels of 191 bytes", dns_name(std::string(191, 'x') + "." + std::string(191, 'y'))},
  };
}

TEST_F(DnsHostile, AnEntryWithoutANameEndsTheDecoding) {
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  const std::size_t at = 12 + good.size();
  for (const BadName& bad : bad_names(at)) {
    SCOPED_TRACE(bad.what);
    EXPECT_EQ(decoded(DnsWire()
                          .put(1, good)
                          .put(1, dns_record(bad.name, T_A, 1, rdata_a(2)))
                          .answer(dns_name("behind"), T_A, 1, rdata_a(3))
                          .additional(dns_name("far behind"), T_A, 1, rdata_a(3))
                          .bytes()),
              (Lines{an("good", 1, "1")}));
  }
  for (const BadName& bad : bad_names(12)) {
    SCOPED_TRACE(bad.what);
    EXPECT_EQ(decoded(DnsWire()
                          .put(0, dns_question(bad.name, T_A))
                          .question(dns_name("behind"), T_A)
                          .put(1, good)
                          .bytes()),
              Lines{});
  }
}

TEST_F(DnsHostile, ARecordWhoseTargetHasNoNameEndsTheDecoding) {
  struct Row {
    unsigned type;
    std::string before;
  };
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  for (const Row& row : {Row{T_NS, ""}, Row{T_MX, dns_word(1)}, Row{T_SRV, std::string(6, '\1')}}) {
    const std::size_t at = 12 + good.size() + 3 + 10 + row.before.size();
    for (const BadName& bad : bad_names(at)) {
      SCOPED_TRACE(bad.what);
      EXPECT_EQ(decoded(DnsWire()
                            .put(1, good)
                            .answer(dns_name("b"), row.type, 1, row.before + bad.name)
                            .answer(dns_name("behind"), T_A, 1, rdata_a(3))
                            .bytes()),
                (Lines{an("good", 1, "1")}));
    }
  }
}

TEST_F(DnsHostile, PointersInRingsOfAnyLengthEndTheDecoding) {
  for (const std::size_t ring : {2, 3, 17, 1000, 8000}) {
    std::string chain;
    for (std::size_t i = 0; i < ring; ++i) chain += dns_pointer(12 + 2 * ((i + 1) % ring));
    EXPECT_EQ(decoded(DnsWire().counts(1, 0, 0, 0).raw(chain).bytes() + std::string(8, '\0')), Lines{});
  }
}

TEST_F(DnsHostile, LongChainsOfPointersThatEndAreFollowed) {
  for (const std::size_t links : {1, 2, 100, 8000}) {
    // The record's name is the first of the pointers; the chain itself lies in the data of a record that is skipped.
    const std::size_t chain_at = 12 + 3 + 10;
    std::string chain;
    for (std::size_t i = 1; i <= links; ++i) chain += dns_pointer(chain_at + 2 * i);
    chain += dns_name("end");
    const Lines lines = decoded(DnsWire()
                                    .answer(dns_name("t"), T_NULL, 1, chain)
                                    .answer(dns_pointer(chain_at), T_A, 2, rdata_a(7))
                                    .bytes());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1], an("end", 2, "7"));
  }
}

TEST_F(DnsHostile, APointerCutInTwoEndsTheDecoding) {
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  EXPECT_EQ(decoded(DnsWire().put(1, good).counts(0, 2, 0, 0).bytes() + "\xC0"), (Lines{an("good", 1, "1")}));
}

TEST_F(DnsHostile, PointersBehindTheMessageEndTheDecoding) {
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  const std::string tail = dns_word(T_A) + dns_word(1) + dns_long(1) + dns_word(4) + rdata_a(2);
  const std::size_t size = 12 + good.size() + 2 + tail.size();
  for (const std::size_t target : {size, size + 1, size + 255, std::size_t{0x3FFF}}) {
    EXPECT_EQ(decoded(DnsWire().put(1, good).put(1, dns_pointer(target) + tail).bytes()),
              (Lines{an("good", 1, "1")}))
        << target;
  }
  // The last byte is inside: it is 2 there, a label whose bytes are not.
  EXPECT_EQ(decoded(DnsWire().put(1, good).put(1, dns_pointer(size - 1) + tail).bytes()),
            (Lines{an("good", 1, "1")}));
}

TEST_F(DnsHostile, APointerMayLeadToTheHeaderAndToTheLastByte) {
  // The ID is 01 'i', and the flags' first byte ends the name. The record's last byte is 0: the root.
  const std::string wire = DnsWire(0x0169, 0x0000)
                               .answer(dns_pointer(0), T_A, 1, rdata_a(0x01020300))
                               .answer(dns_pointer(27), T_TXT, 2, "")
                               .bytes();
  EXPECT_EQ(static_cast<int>(wire[27]), 0);
  EXPECT_EQ(decoded(wire),
            (Lines{an("i", 1, "16909056"),
                   "answer  type 16 class 1 ttl 2 addr 0 priority 0 weight 0 port 0 target ''"}));
}

TEST_F(DnsHostile, ANameThatHasNoEndEndsTheDecoding) {
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  for (const std::string& open : {std::string("\x01"), std::string("\x03xy"), std::string("\x03xyz"),
                                  std::string("\xBF"), std::string("\x3F") + std::string(62, 'x'),
                                  dns_labels("abc.def.ghi"), dns_labels(long_dns_text(255))}) {
    EXPECT_EQ(decoded(DnsWire().put(1, good).put(1, open).bytes()), (Lines{an("good", 1, "1")}));
    EXPECT_EQ(decoded(DnsWire().put(0, open).bytes()), Lines{});
  }
}

TEST_F(DnsHostile, NamesGrowTo255CharactersThroughPointersAndNoFurther) {
  DnsWire wire;
  Lines expected;
  std::string text;
  std::size_t at = 0;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    const std::string label(63, letter);
    const std::size_t next = wire.at();
    wire.answer(text.empty() ? dns_name(label) : dns_name(label, at), T_A, 1, rdata_a(1));
    text = text.empty() ? label : label + "." + text;
    at = next;
    expected.push_back(an(text, 1, "1"));
  }
  ASSERT_EQ(text.size(), 255U);
  wire.answer(dns_pointer(at), T_A, 2, rdata_a(2));
  expected.push_back(an(text, 2, "2"));
  EXPECT_EQ(decoded(wire.bytes()), expected);
  // In both fields of a record at once.
  DnsWire both = wire;
  both.answer(dns_pointer(at), T_SRV, 3, rdata_srv(1, 2, 3, dns_pointer(at)));
  expected.push_back("answer " + text + " type 33 class 1 ttl 3 addr 0 priority 1 weight 2 port 3 target '" +
                     text + "'");
  EXPECT_EQ(decoded(both.bytes()), expected);
  expected.pop_back();
  // One label more.
  wire.answer(dns_name("e", at), T_A, 3, rdata_a(3)).answer(dns_name("behind"), T_A, 4, rdata_a(4));
  EXPECT_EQ(decoded(wire.bytes()), expected);
}

TEST_F(DnsHostile, ANameOf255CharactersStandsInEveryField) {
  const std::string text = std::string(191, 'u') + "." + std::string(63, 'v');
  const std::string name = dns_name(text);
  const std::string rest = " class 1 ttl 1 addr 0 priority ";
  EXPECT_EQ(decoded(DnsWire()
                        .question(name, T_SRV)
                        .answer(name, T_SRV, 1, rdata_srv(1, 2, 3, name))
                        .authority(name, T_NS, 1, name)
                        .additional(name, T_MX, 1, rdata_mx(4, name))
                        .bytes()),
            (Lines{"question " + text + " type 33 class 1",
                   "answer " + text + " type 33" + rest + "1 weight 2 port 3 target '" + text + "'",
                   "authority " + text + " type 2" + rest + "0 weight 0 port 0 target '" + text + "'",
                   "additional " + text + " type 15" + rest + "4 weight 0 port 0 target '" + text + "'"}));
}

// ---- Counts ------------------------------------------------------------------------------------------------

TEST_F(DnsHostile, CountsOf65535FindWhatIsThere) {
  const std::string question = dns_question(dns_name("q"), T_A);
  const std::string record = dns_record(dns_name("a"), T_A, 1, rdata_a(1));
  EXPECT_EQ(decoded(DnsWire().counts(65535, 65535, 65535, 65535).bytes()), Lines{});
  const Lines lines = decoded(DnsWire().raw(question).counts(65535, 65535, 65535, 65535).bytes());
  EXPECT_EQ(lines, (Lines{"question q type 1 class 1"}));
  EXPECT_EQ(decoded(DnsWire().raw(question + record).counts(1, 65535, 65535, 65535).bytes()),
            (Lines{"question q type 1 class 1", an("a", 1, "1")}));
  EXPECT_EQ(decoded(DnsWire().raw(question + record).counts(1, 1, 65535, 65535).bytes()),
            (Lines{"question q type 1 class 1", an("a", 1, "1")}));
  EXPECT_EQ(decoded(DnsWire().raw(question + record).counts(1, 1, 0, 65535).bytes()),
            (Lines{"question q type 1 class 1", an("a", 1, "1")}));
}

TEST_F(DnsHostile, AsManyEntriesAsADatagramHolds) {
  // The smallest question takes 5 bytes, the smallest record 11.
  std::string questions;
  while (questions.size() + 5 <= 65535 - 12) questions += dns_question(dns_name(""), T_A);
  DnsMessage message;
  decode(&message, DnsWire().raw(questions).counts(65535, 0, 0, 0).bytes());
  EXPECT_EQ(message.questions.Size(), static_cast<int>(questions.size() / 5));
  std::string records;
  while (records.size() + 11 <= 65535 - 12) records += dns_record(dns_name(""), T_TXT, 1, "");
  DnsMessage second;
  decode(&second, DnsWire().raw(records).counts(0, 65535, 0, 0).bytes());
  EXPECT_EQ(second.answers.Size(), static_cast<int>(records.size() / 11));
}

// The dearest message: each of its records follows the longest chain of pointers twice, for its name and for its
// target.
TEST_F(DnsHostile, TheDearestMessageCostsAMoment) {
  // The chain lies in the first record's data: a pointer to the next two bytes again and again, and the root.
  constexpr std::size_t kChainAt = DnsWire::kHeader_bytes + 1 + 10;
  constexpr std::size_t kPointers = (0x3FFF - kChainAt) / 2;
  std::string chain;
  for (std::size_t i = 1; i <= kPointers; ++i) chain += dns_pointer(kChainAt + 2 * i);
  std::string records = dns_record(dns_name(""), T_NULL, 1, chain + dns_name(""));
  // Without data of its own a record finds its target in the next one's name; the last one finds none.
  const std::string dear = dns_record(dns_pointer(kChainAt), T_NS, 1, "");
  int announced = 1;
  for (; records.size() + dear.size() <= 65535 - DnsWire::kHeader_bytes; ++announced) records += dear;
  DnsMessage message;
  decode(&message, DnsWire().raw(records).counts(0, 65535, 0, 0).bytes());
  EXPECT_EQ(message.answers.Size(), announced - 1);
  EXPECT_GT(announced, 4000);
}

// ---- Lengths of data ---------------------------------------------------------------------------------------

TEST_F(DnsHostile, DataThatReachBehindTheMessageDoNotFit) {
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  const std::string behind = dns_record(dns_name("behind"), T_A, 1, rdata_a(3));
  struct Row {
    unsigned type;
    std::string rdata;
  };
  for (const Row& row :
       {Row{T_A, rdata_a(2)}, Row{T_NS, dns_name("n")}, Row{T_MX, rdata_mx(1, dns_name("n"))},
        Row{T_SRV, rdata_srv(1, 2, 3, dns_name("n"))}, Row{T_TXT, rdata_txt("text")}}) {
    SCOPED_TRACE(row.type);
    const auto fits = static_cast<unsigned>(row.rdata.size() + behind.size());
    for (const unsigned length : {fits + 1, fits + 255, 0x7FFFU, 0x8000U, 0xFFFFU}) {
      EXPECT_EQ(decoded(DnsWire()
                            .put(1, good)
                            .put(1, dns_record_of_length(dns_name("b"), row.type, 1, row.rdata, length))
                            .put(1, behind)
                            .bytes()),
                (Lines{an("good", 1, "1")}))
          << length;
    }
    // Up to the last byte it swallows what is behind.
    EXPECT_EQ(decoded(DnsWire()
                          .put(1, good)
                          .put(1, dns_record_of_length(dns_name("b"), row.type, 1, row.rdata, fits))
                          .put(1, behind)
                          .bytes())
                  .size(),
              2U);
  }
}

TEST_F(DnsHostile, AnAddressThatReachesBehindTheMessageDoesNotFit) {
  const std::string good = dns_record(dns_name("good"), T_A, 1, rdata_a(1));
  for (unsigned length = 0; length <= 3; ++length) {
    // The length is honest about the bytes, which are no address.
    EXPECT_EQ(
        decoded(DnsWire().put(1, good).answer(dns_name("b"), T_A, 1, std::string(length, '\1')).bytes()),
        (Lines{an("good", 1, "1")}))
        << length;
  }
  struct Row {
    unsigned type;
    unsigned bytes;  // one fewer than the shortest data
  };
  for (const Row& row : {Row{T_NS, 0}, Row{T_MX, 2}, Row{T_MX, 1}, Row{T_MX, 0}, Row{T_SRV, 6}, Row{T_SRV, 5},
                         Row{T_SRV, 1}, Row{T_SRV, 0}}) {
    EXPECT_EQ(
        decoded(
            DnsWire().put(1, good).answer(dns_name("b"), row.type, 1, std::string(row.bytes, '\1')).bytes()),
        (Lines{an("good", 1, "1")}))
        << row.type << " with " << row.bytes;
  }
}

TEST_F(DnsHostile, ATooShortLengthReadsWhatTheMessageHolds) {
  // Two of the address's bytes are counted: the record has all four, and the next begins at the third.
  const std::string wire = DnsWire()
                               .put(1, dns_record_of_length(dns_name("a"), T_A, 1, rdata_a(0x01020000), 2))
                               .raw(from_hex("01 0001 00000002 0004 7F000001"))
                               .counts(0, 2, 0, 0)
                               .bytes();
  // The zero bytes are the root's name and half of a type.
  EXPECT_EQ(decoded(wire), (Lines{an("a", 1, "16908288"), an("", 2, "2130706433")}));
}

// ---- Chance ------------------------------------------------------------------------------------------------

std::string random_bytes(std::mt19937& random, int low, int high) {
  std::string bytes(static_cast<std::size_t>(pick(random, low, high)), '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

TEST_F(DnsHostile, RandomBytes) {
  std::mt19937 random(test_seed());
  for (int i = 0; i < kRandomMessages; ++i) ASSERT_NO_FATAL_FAILURE(decoded(random_bytes(random, 0, 600)));
}

TEST_F(DnsHostile, RandomBytesBehindAHeaderThatAnnouncesThem) {
  std::mt19937 random(test_seed());
  for (int i = 0; i < kRandomMessages; ++i) {
    std::string bytes = random_bytes(random, 12, 600);
    bytes.replace(0, 12, from_hex("0001 8180 0001 0003 0002 FFFF"));
    // Few different bytes make many pointers and short labels.
    for (std::size_t at = 12; at < bytes.size() && i % 2 == 0; ++at) {
      const char few[] = {'\xC0', '\x0C', '\0', '\1', '\2', '\x21', '\x0F', 'x'};
      bytes[at] = few[static_cast<UBYTE>(bytes[at]) % sizeof few];
    }
    ASSERT_NO_FATAL_FAILURE(decoded(bytes));
  }
}

TEST_F(DnsHostile, RealAnswersWithDamage) {
  std::mt19937 random(test_seed());
  const auto answers = real_answers();
  for (int i = 0; i < kRandomMessages; ++i) {
    std::string bytes =
        std::next(answers.begin(), pick(random, 0, static_cast<int>(answers.size()) - 1))->second;
    for (int damage = pick(random, 1, 8); damage > 0; --damage) {
      const auto at = static_cast<std::size_t>(pick(random, 4, static_cast<int>(bytes.size()) - 2));
      switch (pick(random, 0, 3)) {
        case 0:
          bytes[at] = static_cast<char>(random());
          break;
        case 1:
          bytes.replace(
              at, 2, dns_pointer(static_cast<std::size_t>(pick(random, 0, static_cast<int>(bytes.size())))));
          break;
        case 2:
          bytes.erase(at, static_cast<std::size_t>(pick(random, 1, 4)));
          break;
        default:
          bytes.insert(at, random_bytes(random, 1, 4));
          break;
      }
      if (bytes.size() < 8) break;
    }
    ASSERT_NO_FATAL_FAILURE(decoded(bytes));
  }
}

// What has been decoded from anything can be printed.
TEST_F(DnsHostile, WhateverWasDecodedIsPrinted) {
  std::mt19937 random(test_seed());
  const auto answers = real_answers();
  for (int i = 0; i < 300; ++i) {
    std::string bytes =
        std::next(answers.begin(), pick(random, 0, static_cast<int>(answers.size()) - 1))->second;
    for (int damage = pick(random, 1, 20); damage > 0; --damage) {
      bytes[static_cast<std::size_t>(pick(random, 12, static_cast<int>(bytes.size()) - 1))] =
          static_cast<char>(random());
    }
    DnsMessage message;
    decode(&message, bytes);
    std::size_t lines = shown(message).size();
    for (OSIndirectList* list :
         {&message.questions, &message.answers, &message.authorities, &message.additionals}) {
      if (!list->IsEmpty()) ++lines;
    }
    console.clear();
    message.Print();
    ASSERT_EQ(console.calls().size(), lines);
  }
}

}  // namespace
}  // namespace oskernel_test
