// Searches of the ordered index: walks with a limit, ranges of a leading part, longest matches and their
// record.

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/btree.h"
#include "support/kernel_fixture.h"
#include "support/section_watch.h"
#include "support/tree_check.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// -------------------------------------------------------------------------------------------- next and limit

TEST_F(Tree, NextStopsWhereTheKeyLeavesTheLimit) {
  Num a(1), b(2), b2(2), c(3);
  for (Num* num : {&a, &b, &b2, &c}) tree.Add(num);
  Num two(2), three(3);
  EXPECT_EQ(tree.Next(&a, &two), &b);
  EXPECT_EQ(tree.Next(&b, &two), &b2);
  EXPECT_EQ(tree.Next(&b2, &two), nullptr) << "3 is not 2";
  EXPECT_EQ(tree.Next(&b2, &three), &c);
  EXPECT_EQ(tree.Next(&c, &three), nullptr);
  EXPECT_EQ(tree.Next(&a, &three), nullptr);
  drain(tree);
}

TEST_F(Tree, ADuplicateIsNotHeldAgainstTheLimit) {
  Num a(1), a2(1), other(7);
  tree.Add(&a);
  tree.Add(&a2);
  EXPECT_EQ(tree.Next(&a, &other), &a2);
  EXPECT_EQ(tree.NextLeft(&a, &other), &a2);
  drain(tree);
}

TEST_F(Tree, FindLeftAndNextLeftWalkARange) {
  const char* names[] = {"ab", "abc", "abd", "b", "a", "ac", "abc", "aba", "", "ba"};
  std::vector<std::unique_ptr<Text>> texts;
  for (const char* name : names) tree.Add(texts.emplace_back(std::make_unique<Text>(name)).get());
  const auto range = [&](const char* prefix) {
    std::vector<std::string> found;
    Text key(prefix);
    for (OSBTreeObj* o = tree.FindLeft(&key); o != nullptr; o = tree.NextLeft(o, &key)) {
      found.push_back(static_cast<Text*>(o)->key());
    }
    return found;
  };
  EXPECT_THAT(range("ab"), ElementsAre("ab", "aba", "abc", "abc", "abd"));
  EXPECT_THAT(range("abc"), ElementsAre("abc", "abc"));
  EXPECT_THAT(range("a"), ElementsAre("a", "ab", "aba", "abc", "abc", "abd", "ac"));
  EXPECT_THAT(range("b"), ElementsAre("b", "ba"));
  EXPECT_THAT(range("abcd"), IsEmpty());
  EXPECT_THAT(range("c"), IsEmpty());
  EXPECT_EQ(range("").size(), 10u);
  Text key("ab");
  OSBTreeObj* first = tree.FindLeft(&key);
  EXPECT_EQ(tree.NextLeft(first, nullptr), tree.Next(first, nullptr)) << "without a limit all that follow";
  drain(tree);
}

/// Answers CompareLeft from a table of node keys; any other node sorts before it.
class LeftScript : public Num {
 public:
  explicit LeftScript(std::map<int, int> answers) : Num(0), answers_(std::move(answers)) {}
  int CompareLeft(OSBTreeObj* node) override {
    const int key = static_cast<Num*>(node)->key();
    asked.push_back(key);
    const auto at = answers_.find(key);
    return at == answers_.end() ? 1 : at->second;
  }
  std::vector<int> asked;

 private:
  std::map<int, int> answers_;
};

TEST_F(Tree, FindLeftNarrowsTheRangeFromItsFirstMatch) {
  std::vector<std::unique_ptr<Num>> nums;
  for (int key : {40, 20, 60, 10, 30, 50, 70, 5, 15, 25, 35}) {
    tree.Add(nums.emplace_back(std::make_unique<Num>(key)).get());
  }
  struct Row {
    const char* name;
    std::map<int, int> answers;
    int found;  // 0: null
    std::vector<int> asked;
  };
  const Row rows[] = {
      {"before everything", {{40, -1}, {20, -1}, {10, -1}, {5, -1}}, 0, {40, 20, 10, 5}},
      {"after everything", {}, 0, {40, 60, 70}},
      {"the root alone", {{40, 0}}, 40, {40, 20, 30, 35}},
      {"a match left of a match", {{40, 0}, {20, 0}, {10, 1}, {15, 0}}, 15, {40, 20, 10, 15}},
      {"to the right of the first", {{40, 0}, {20, 1}, {30, 0}, {25, 0}}, 25, {40, 20, 30, 25}},
      {"below on the way", {{40, -1}, {20, 1}, {30, 0}}, 30, {40, 20, 30, 25}},
      {"a node after the range ends the walk", {{40, 0}, {20, -1}, {10, 0}}, 40, {40, 20}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    LeftScript key(row.answers);
    tree.count = 1000;
    OSBTreeObj* found = tree.FindLeft(&key);
    EXPECT_EQ(found == nullptr ? 0 : static_cast<Num*>(found)->key(), row.found);
    EXPECT_EQ(key.asked, row.asked);
    EXPECT_EQ(tree.count, static_cast<int>(row.asked.size())) << "each search counts from nothing";
  }
  drain(tree);
}

TEST_F(Tree, NextLeftUsesTheLeftComparisonOnly) {
  Num a(11), b(12), c(19), d(20);
  for (Num* num : {&a, &b, &c, &d}) tree.Add(num);
  Num key(15);
  EXPECT_EQ(tree.Find(&key), nullptr);
  EXPECT_EQ(tree.FindLeft(&key), &a);
  EXPECT_EQ(tree.NextLeft(&a, &key), &b);
  EXPECT_EQ(tree.NextLeft(&b, &key), &c);
  EXPECT_EQ(tree.NextLeft(&c, &key), nullptr);
  EXPECT_EQ(tree.Next(&a, &key), nullptr);
  drain(tree);
}

// ------------------------------------------------------------------------------------------- longest matches

TEST_F(Tree, FindAmbiguousFindsTheLongestBeginning) {
  std::vector<std::unique_ptr<Text>> texts;
  for (const char* name : {"1", "44", "441", "4416", "49", "7", "882"}) {
    tree.Add(texts.emplace_back(std::make_unique<Text>(name)).get());
  }
  struct Row {
    const char* dialled;
    const char* found;
  };
  for (const Row& row :
       {Row{"441632960001", "4416"}, Row{"4415", "441"}, Row{"4420", "44"}, Row{"44", "44"}, Row{"4", ""},
        Row{"12125550100", "1"}, Row{"8821", "882"}, Row{"88", ""}, Row{"999", ""}, Row{"7", "7"}}) {
    SCOPED_TRACE(row.dialled);
    Text key(row.dialled);
    OSBTreeObj* found = tree.FindAmbiguous(&key);
    EXPECT_EQ(found == nullptr ? "" : static_cast<Text*>(found)->key(), row.found);
  }
  drain(tree);
}

TEST_F(Tree, FindAmbiguousWithoutALengthFindsNothing) {
  Num a(1), key(1);
  tree.Add(&a);
  tree.count = 77;
  EXPECT_EQ(key.CompareMaxLen(), 0);
  EXPECT_EQ(tree.FindAmbiguous(&key), nullptr);
  EXPECT_EQ(tree.count, 0) << "nothing was compared";
  drain(tree);
}

TEST_F(Tree, FindAmbiguousCountsOverAllLengths) {
  Text node("5");
  tree.Add(&node);
  Text key("1234");
  EXPECT_EQ(tree.FindAmbiguous(&key), nullptr);
  EXPECT_EQ(tree.count, 4) << "one comparison for each of four lengths";
  Text match("5678");
  EXPECT_EQ(tree.FindAmbiguous(&match), &node);
  EXPECT_EQ(tree.count, 4) << "the shortest length is tried last";
  Text exact("5");
  EXPECT_EQ(tree.FindAmbiguous(&exact), &node);
  EXPECT_EQ(tree.count, 1);
  drain(tree);
}

TEST_F(Tree, FindAmbiguousEndsAtItsFirstMatch) {
  Text less("3"), node("5"), more("7");
  for (Text* text : {&node, &less, &more}) tree.Add(text);
  Text key("56");
  EXPECT_EQ(tree.FindAmbiguous(&key), &node);
  EXPECT_EQ(tree.count, 3) << "two for the first length, one for the second";
  Text low("3");
  EXPECT_EQ(tree.FindAmbiguous(&low), &less);
  EXPECT_EQ(tree.count, 2);
  drain(tree);
}

TEST_F(Tree, FindAmbiguousReturnsTheFirstOfAChain) {
  Text first("44"), second("44");
  tree.Add(&first);
  tree.Add(&second);
  Text key("4420");
  EXPECT_EQ(tree.FindAmbiguous(&key), &first);
  drain(tree);
}

/// The greatest count that a search has had. The library keeps one for the whole process, which may repeat
/// its tests; searches elsewhere in this file compare far less.
int record = 10000;

/// Never matches; as many comparisons as it says on a tree of one node.
class Long : public OSBTreeObj {
 public:
  explicit Long(int len) : len_(len) {}
  int Compare(OSBTreeObj*) override { return 1; }
  int CompareAmbiguous(OSBTreeObj*, int) override { return 1; }
  int CompareMaxLen() override { return len_; }

 private:
  int len_;
};

TEST_F(Tree, FindAmbiguousPrintsEachNewRecord) {
  record += 100;
  Text node("5");
  tree.Add(&node);
  const auto search = [&](int len) {
    console.clear();
    Long key(len);
    EXPECT_EQ(tree.FindAmbiguous(&key), nullptr);
    EXPECT_EQ(tree.count, len);
    return console.calls();
  };
  EXPECT_THAT(search(record), ElementsAre("OSBTree::FindAmbiguous maxcount=" + std::to_string(record)));
  EXPECT_THAT(search(record), IsEmpty()) << "as many again is no record";
  EXPECT_THAT(search(record - 1), IsEmpty());
  EXPECT_THAT(search(record + 1),
              ElementsAre("OSBTree::FindAmbiguous maxcount=" + std::to_string(record + 1)));
  EXPECT_THAT(search(record), IsEmpty());

  // The record is one for all trees.
  OSBTree other;
  Text other_node("5");
  other.Add(&other_node);
  console.clear();
  Long key(record + 1);
  other.FindAmbiguous(&key);
  EXPECT_THAT(console.calls(), IsEmpty());
  other.Remove(&other_node);

  Console = nullptr;
  Long silent(record + 2);
  EXPECT_EQ(tree.FindAmbiguous(&silent), nullptr);
  Console = &console;
  record += 2;
  drain(tree);
}

TEST_F(Tree, TheFirstComparisonOfTheProcessIsARecord) {
  IN_FRESH_PROCESS({
    Text node("5"), key("5");
    tree.Add(&node);
    EXPECT_EQ(tree.FindAmbiguous(&key), &node);
    EXPECT_THAT(console.calls(), ElementsAre("OSBTree::FindAmbiguous maxcount=1"));
    drain(tree);
  });
}

TEST_F(Tree, TheRecordIsPrintedOutsideTheSection) {
  record += 10;
  Text node("5");
  tree.Add(&node);
  Long key(record);
  SectionWatch watch(&tree.cs);
  tree.FindAmbiguous(&key);
  EXPECT_EQ(watch.calls().size(), 1u);
  EXPECT_EQ(watch.calls_inside(), 0);
  drain(tree);
}

}  // namespace
}  // namespace oskernel_test
