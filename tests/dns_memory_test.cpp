// Whose the entries of a message are: how they are deleted, and what is left when memory ends in the middle of one.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "network/dns.h"
#include "support/dns_fixture.h"
#include "support/failing_heap.h"
#include "support/link_drought.h"
#include "support/section_wait.h"

namespace oskernel_test {
namespace {

class DnsMemory : public DnsTest {};

// ---- The end of a message ----------------------------------------------------------------------------------

class MortalRecord : public DnsResource {
 public:
  MortalRecord(std::string name_of_it, std::vector<std::string>* deaths, OSIndirectList* list)
      : name_of_it_(std::move(name_of_it)), deaths_(deaths), list_(list) {}
  ~MortalRecord() override {
    bool listed_still = false;
    for (const OSLink* link = list_ != nullptr ? list_->next : nullptr; link != list_; link = link->next) {
      if (link->object == static_cast<OSListObj*>(this)) listed_still = true;
    }
    deaths_->push_back(name_of_it_ + (listed_still ? " while listed" : ""));
  }
  void outlive_list() { list_ = nullptr; }

 private:
  std::string name_of_it_;
  std::vector<std::string>* deaths_;
  OSIndirectList* list_;
};

TEST_F(DnsMemory, AMessageDeletesWhatIsOnItsListsInTheirOrder) {
  std::vector<std::string> deaths;
  auto* message = new DnsMessage;
  struct Row {
    OSIndirectList* list;
    const char* names[2];
  };
  // Put in in another order than that of the lists.
  for (const Row& row : {Row{&message->additionals, {"additional 1", "additional 2"}},
                         Row{&message->answers, {"answer 1", "answer 2"}},
                         Row{&message->questions, {"question 1", "question 2"}},
                         Row{&message->authorities, {"authority 1", "authority 2"}}}) {
    for (const char* name : row.names) row.list->Append(new MortalRecord(name, &deaths, row.list));
  }
  // Through the base, as a list of messages would.
  delete static_cast<OSListObj*>(message);
  EXPECT_EQ(deaths, (std::vector<std::string>{"question 1", "question 2", "answer 1", "answer 2",
                                              "authority 1", "authority 2", "additional 1", "additional 2"}));
}

/// Takes another entry out of its list, or puts one in, when it is deleted.
class MeddlingRecord : public DnsResource {
 public:
  explicit MeddlingRecord(std::function<void()> meddle) : meddle_(std::move(meddle)) {}
  ~MeddlingRecord() override { meddle_(); }

 private:
  std::function<void()> meddle_;
};

TEST_F(DnsMemory, AnEntryMayChangeItsListWhenItIsDeleted) {
  std::vector<std::string> deaths;
  auto* message = new DnsMessage;
  OSIndirectList* const list = &message->answers;
  auto* const taken_out = new MortalRecord("taken out", &deaths, list);
  list->Append(new MeddlingRecord([&] {
    list->Remove(taken_out);
    list->Append(new MortalRecord("put in", &deaths, list));
  }));
  list->Append(taken_out);
  list->Append(new MortalRecord("last", &deaths, list));
  delete message;
  EXPECT_EQ(deaths, (std::vector<std::string>{"last", "put in"}));
  taken_out->outlive_list();
  delete taken_out;
}

TEST_F(DnsMemory, AMessageGivesItsLinksBack) {
  const ULONG links = links_free();
  {
    DnsMessage message;
    decode(&message, DnsWire()
                         .question(dns_name("q"), T_A)
                         .answer(dns_name("a"), T_A, 1, rdata_a(1))
                         .authority(dns_name("b"), T_A, 1, rdata_a(1))
                         .additional(dns_name("c"), T_A, 1, rdata_a(1))
                         .bytes());
    EXPECT_EQ(links_free(), links - 4);
  }
  EXPECT_EQ(links_free(), links);
}

TEST_F(DnsMemory, EntriesMayBeTakenOutAndKept) {
  auto* message = new DnsMessage;
  decode(
      message,
      DnsWire().answer(dns_name("a"), T_A, 1, rdata_a(1)).answer(dns_name("b"), T_A, 1, rdata_a(2)).bytes());
  DnsResource* const kept = listed<DnsResource>(message->answers)[1];
  message->answers.Remove(kept);
  delete message;
  EXPECT_STREQ(kept->name, "b");
  delete kept;
}

// ---- Shortage ----------------------------------------------------------------------------------------------

DnsWire message_of_eight() {
  DnsWire wire(9, 9);
  wire.question(dns_name("q1"), T_A).question(dns_name("q2"), T_A);
  wire.answer(dns_name("a1"), T_A, 1, rdata_a(1)).answer(dns_name("a2"), T_A, 1, rdata_a(1));
  wire.authority(dns_name("b1"), T_A, 1, rdata_a(1)).authority(dns_name("b2"), T_A, 1, rdata_a(1));
  wire.additional(dns_name("c1"), T_A, 1, rdata_a(1)).additional(dns_name("c2"), T_A, 1, rdata_a(1));
  return wire;
}

std::vector<std::string> first_lines(const std::vector<std::string>& lines, std::size_t count) {
  return {lines.begin(), lines.begin() + static_cast<long>(count)};
}

TEST_F(DnsMemory, DecodingEndsWhereMemoryDoes) {
  const std::string wire = message_of_eight().bytes();
  DnsMessage whole;
  decode(&whole, wire);
  const std::vector<std::string> lines = shown(whole);
  ASSERT_EQ(lines.size(), 8U);
  const ExactBuffer buf(wire);
  for (int good = 0; good <= 8; ++good) {
    SCOPED_TRACE(good);
    DnsMessage message;
    {
      // A question is the smallest object that decoding makes; all others are larger.
      const FailingHeap drought(sizeof(DnsQuestion), good);
      EXPECT_EQ(message.Decode(buf.get()), 0);
    }
    EXPECT_EQ(header_of(message), (std::vector<int>{9, 9, 2, 2, 2, 2}));
    EXPECT_EQ(shown(message), first_lines(lines, static_cast<std::size_t>(good)));
  }
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(DnsMemory, DecodingGoesOnWhenMemoryIsBackInTheNextMessage) {
  const ExactBuffer buf(message_of_eight().bytes());
  DnsMessage message;
  {
    const FailingHeap drought(sizeof(DnsQuestion), 3);
    message.Decode(buf.get());
  }
  EXPECT_EQ(shown(message).size(), 3U);
  message.Decode(buf.get());
  EXPECT_EQ(shown(message).size(), 11U);
}

// One failure in the middle ends the decoding too: the entries behind it would seem to follow the ones before.
TEST_F(DnsMemory, AnEntryThatFindsNoMemoryIsTheLast) {
  const ExactBuffer buf(message_of_eight().bytes());
  for (int good = 0; good < 8; ++good) {
    DnsMessage message;
    {
      const FailingHeap drought(sizeof(DnsQuestion), good, 1);
      message.Decode(buf.get());
    }
    EXPECT_EQ(shown(message).size(), static_cast<std::size_t>(good));
  }
}

TEST_F(DnsMemory, DecodingEndsWhereLinksDo) {
  const std::string wire = message_of_eight().bytes();
  DnsMessage whole;
  decode(&whole, wire);
  const std::vector<std::string> lines = shown(whole);
  const ExactBuffer buf(wire);
  for (ULONG left = 0; left <= 8; ++left) {
    SCOPED_TRACE(left);
    console.clear();
    DnsMessage message;
    {
      const LinkDrought drought(left);
      // The entries find memory; a new block of links, which is larger, does not.
      const std::size_t block = static_cast<std::size_t>(cfg.link_qty) * sizeof(OSLink);
      ASSERT_GT(block, sizeof(DnsResource));
      FailingNew::fail_at_least(sizeof(DnsResource) + 1);
      EXPECT_EQ(message.Decode(buf.get()), 0);
    }
    EXPECT_EQ(header_of(message), (std::vector<int>{9, 9, 2, 2, 2, 2}));
    EXPECT_EQ(shown(message), first_lines(lines, left));
    for (OSIndirectList* list :
         {&message.questions, &message.answers, &message.authorities, &message.additionals}) {
      EXPECT_TRUE(ListIsSound(*list));
    }
    // The pool says it, once.
    EXPECT_EQ(console.fatals(),
              left == 8 ? std::vector<std::string>{} : std::vector<std::string>{kOutOfLinks});
  }
}

TEST_F(DnsMemory, ThePoolGrowsWhenItsLinksEndInTheMiddle) {
  const ExactBuffer buf(message_of_eight().bytes());
  for (ULONG left = 0; left <= 8; ++left) {
    SCOPED_TRACE(left);
    DnsMessage message;
    {
      const LinkDrought drought(left);
      FailingNew::reset();
      message.Decode(buf.get());
      EXPECT_EQ(links_free(), left == 8 ? 0U : left + static_cast<ULONG>(cfg.link_qty) - 8);
    }
    EXPECT_EQ(shown(message).size(), 8U);
  }
  EXPECT_TRUE(console.fatals().empty());
}

// ---- Damage ------------------------------------------------------------------------------------------------

TEST_F(DnsMemory, ADamagedLinkInThePoolIsReportedAndEndsTheDecoding) {
  const ExactBuffer buf(message_of_eight().bytes());
  for (const int place : {0, 3}) {
    SCOPED_TRACE(place);
    OSLink* link = OSLink::link_pool->First();
    for (int i = 0; i < place; ++i) link = link->next;
    link->isFree = false;
    console.clear();
    {
      DnsMessage message;
      EXPECT_EQ(message.Decode(buf.get()), 0);
      EXPECT_EQ(shown(message).size(), static_cast<std::size_t>(place));
      EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSLink::Alloc link already allocated"});
      link->isFree = true;
    }
  }
}

TEST_F(DnsMemory, AStrangerInThePoolIsReportedAndEndsTheDecoding) {
  const ExactBuffer buf(message_of_eight().bytes());
  OSLink stranger;
  stranger.isFree = true;
  OSLink::link_pool->Insert(&stranger, &stranger);
  ++OSLink::link_pool_size;
  {
    DnsMessage message;
    EXPECT_EQ(message.Decode(buf.get()), 0);
    EXPECT_EQ(shown(message).size(), 0U);
    EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSLink::Alloc corrupt link"});
  }
  stranger.Remove();
  --OSLink::link_pool_size;
}

TEST_F(DnsMemory, WithoutAPoolNothingIsDecoded) {
  const ExactBuffer buf(message_of_eight().bytes());
  OSLink* const pool = OSLink::link_pool;
  OSLink::link_pool = nullptr;
  {
    DnsMessage message;
    EXPECT_EQ(message.Decode(buf.get()), 0);
    EXPECT_EQ(header_of(message), (std::vector<int>{9, 9, 2, 2, 2, 2}));
    EXPECT_EQ(shown(message).size(), 0U);
  }
  OSLink::link_pool = pool;
  EXPECT_EQ(console.fatals(), std::vector<std::string>{kOutOfLinks});
}

TEST_F(DnsMemory, ALinkThatIsNotThePoolsIsReportedAndTheOthersGoHome) {
  const ULONG links = links_free();
  for (const bool marked : {true, false}) {
    SCOPED_TRACE(marked);
    console.clear();
    OSLink stranger;
    {
      DnsMessage message;
      decode(&message, DnsWire().answer(dns_name("a"), T_A, 1, rdata_a(1)).bytes());
      message.answers.OSLinkList::Append(&stranger, new DnsResource);
      message.answers.Append(new DnsResource);
      stranger.isFree = marked;
    }
    EXPECT_EQ(console.fatals(),
              std::vector<std::string>{marked ? "OSLink::Free already free" : "OSLink::Free corrupt link"});
    EXPECT_EQ(links_free(), links);
    EXPECT_TRUE(LinkPoolIsSound());
  }
}

TEST_F(DnsMemory, ALinkThatIsMarkedFreeInAListIsReportedAndTheOthersGoHome) {
  const ULONG links = links_free();
  OSLink* marked = nullptr;
  {
    DnsMessage message;
    decode(&message, message_of_eight().bytes());
    marked = message.answers.First();
    marked->isFree = true;
  }
  EXPECT_EQ(console.fatals(), std::vector<std::string>{"OSLink::Free already free"});
  EXPECT_EQ(links_free(), links - 1);
  marked->isFree = false;
  marked->Free();
  EXPECT_EQ(links_free(), links);
}

TEST_F(DnsMemory, LinksAreTakenAndGivenBackInsideThePoolsSection) {
  DnsMessage message;
  auto* const other = new DnsMessage;
  const std::string wire = DnsWire().question(dns_name("q"), T_A).bytes();
  decode(other, wire);
  const ExactBuffer buf(wire);
  ExpectOthersWait(OS_CRITICAL_LINK, {
                                         {"Decode", [&] { message.Decode(buf.get()); }},
                                         {"~DnsMessage", [other] { delete other; }},
                                     });
  EXPECT_EQ(shown(message).size(), 1U);
}

}  // namespace
}  // namespace oskernel_test
