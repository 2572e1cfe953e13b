// The ordered index: searches of every kind, duplicates, the balance after each change, and what removal and
// destruction leave behind.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/btree.h"
#include "support/kernel_fixture.h"
#include "support/seed.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// An object with a number for a key.
class Num : public OSBTreeObj {
 public:
  explicit Num(int key, int* alive = nullptr) : key_(key), alive_(alive) {
    if (alive_ != nullptr) ++*alive_;
  }
  ~Num() override {
    if (alive_ != nullptr) --*alive_;
  }
  int Compare(OSBTreeObj* node) override {
    const int other = static_cast<Num*>(node)->key_;
    return key_ < other ? -7 : key_ > other ? 7 : 0;
  }
  int CompareLeft(OSBTreeObj* node) override {
    // Two numbers match on the left when they agree but for the last digit.
    const int mine = key_ / 10, other = static_cast<Num*>(node)->key_ / 10;
    return mine < other ? -1 : mine > other ? 1 : 0;
  }
  int key() const { return key_; }

 private:
  int key_;
  int* alive_;
};

/// An object with a text for a key; matches on the left when it is the beginning of the other's text.
class Text : public OSBTreeObj {
 public:
  explicit Text(std::string key) : key_(std::move(key)) {}
  int Compare(OSBTreeObj* node) override { return key_.compare(of(node)); }
  int CompareLeft(OSBTreeObj* node) override { return key_.compare(of(node).substr(0, key_.size())); }
  int CompareAmbiguous(OSBTreeObj* node, int len) override {
    return key_.substr(0, static_cast<std::size_t>(len)).compare(of(node));
  }
  int CompareMaxLen() override { return static_cast<int>(key_.size()); }
  const std::string& key() const { return key_; }

 private:
  static const std::string& of(OSBTreeObj* node) { return static_cast<Text*>(node)->key_; }
  std::string key_;
};

OSBTreeObj* real_root(const OSBTree& tree) { return tree.root.link[0]; }

/// Checks one subtree; returns its height and adds its objects in key order.
int check_subtree(OSBTreeObj* node, OSBTreeObj* parent, std::vector<OSBTreeObj*>& order) {
  if (node == nullptr) return 0;
  EXPECT_EQ(node->link[2], parent) << "parent link";
  EXPECT_EQ(node->dupprev, nullptr);
  const int left = check_subtree(node->link[0], node, order);
  order.push_back(node);
  OSBTreeObj* before = node;
  for (OSBTreeObj* dup = node->dupnext; dup != nullptr; dup = dup->dupnext) {
    EXPECT_EQ(dup->dupprev, before);
    for (OSBTreeObj* link : dup->link) EXPECT_EQ(link, nullptr);
    EXPECT_EQ(dup->Compare(node), 0);
    order.push_back(dup);
    before = dup;
  }
  const int right = check_subtree(node->link[1], node, order);
  EXPECT_EQ(node->balance, right - left);
  EXPECT_LE(std::abs(right - left), 1);
  return std::max(left, right) + 1;
}

/// All objects in order, after every balance, parent link and chain has been checked.
std::vector<OSBTreeObj*> checked(OSBTree& tree) {
  std::vector<OSBTreeObj*> order;
  check_subtree(real_root(tree), nullptr, order);
  EXPECT_EQ(tree.size, static_cast<int>(order.size()));
  EXPECT_EQ(tree.Size(), tree.size);
  for (std::size_t i = 1; i < order.size(); ++i) {
    EXPECT_GE(order[i]->Compare(order[i - 1]), 0) << "order";
    if (order[i]->dupprev == nullptr) {
      EXPECT_GT(order[i]->Compare(order[i - 1]), 0) << "an equal key has a chain";
    }
  }
  return order;
}

int height(OSBTreeObj* node) {
  return node == nullptr ? 0 : 1 + std::max(height(node->link[0]), height(node->link[1]));
}

void ExpectOutOfTree(OSBTreeObj* obj) {
  for (OSBTreeObj* link : obj->link) EXPECT_EQ(link, nullptr);
  EXPECT_EQ(obj->dupprev, nullptr);
  EXPECT_EQ(obj->dupnext, nullptr);
}

/// Takes everything out, so that the tree does not destroy objects that it does not own.
void drain(OSBTree& tree) {
  while (OSBTreeObj* first = tree.First()) tree.Remove(first);
  EXPECT_EQ(tree.Size(), 0);
}

/// A tree that owns nothing: each test ends with drain(tree), before its objects go.
class Tree : public KernelTest {
 protected:
  OSBTree tree;
};

// -------------------------------------------------------------------------------------------------- layout

TEST_F(Tree, FieldsStandInTheirOrder) {
  OSBTreeObj obj;
  std::vector<const void*> fields = {&obj.link, &obj.balance, &obj.cache, &obj.dupprev, &obj.dupnext};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
  fields = {&tree.count, &tree.size, &tree.root, &tree.cs};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
  static_assert(std::is_same_v<decltype(obj.balance), signed char>);
  static_assert(std::is_same_v<decltype(obj.cache), unsigned char>);
  static_assert(std::extent_v<decltype(obj.link)> == 3);
  drain(tree);
}

TEST_F(Tree, VirtualOperationsStandInTheirSlots) {
  EXPECT_EQ(vtable_slot(&OSBTreeObj::Compare), 2);
  EXPECT_EQ(vtable_slot(&OSBTreeObj::CompareLeft), 3);
  EXPECT_EQ(vtable_slot(&OSBTreeObj::CompareAmbiguous), 4);
  EXPECT_EQ(vtable_slot(&OSBTreeObj::CompareMaxLen), 5);
  EXPECT_EQ(vtable_slot(&OSBTree::FindLE), 2);
  EXPECT_EQ(vtable_slot(&OSBTree::FindGE), -1);
  EXPECT_EQ(vtable_slot(&OSBTree::Find), -1);
}

TEST_F(Tree, ANewObjectStandsAlone) {
  OSBTreeObj obj;
  ExpectOutOfTree(&obj);
  EXPECT_EQ(obj.balance, 0);
  EXPECT_EQ(obj.cache, 0);
}

TEST_F(Tree, ABaseObjectComparesAddressesOneWay) {
  OSBTreeObj objects[2];
  EXPECT_EQ(objects[0].Compare(&objects[1]), 1) << "the node's address is the greater";
  EXPECT_EQ(objects[1].Compare(&objects[0]), 0);
  EXPECT_EQ(objects[0].Compare(&objects[0]), 0);
  EXPECT_EQ(objects[0].CompareLeft(&objects[1]), 1);
  EXPECT_EQ(objects[1].CompareLeft(&objects[0]), 0);
  EXPECT_EQ(objects[0].CompareAmbiguous(&objects[1], 3), 1);
  EXPECT_EQ(objects[1].CompareAmbiguous(&objects[0], 3), 0);
  EXPECT_EQ(objects[0].CompareMaxLen(), 0);
}

// -------------------------------------------------------------------------------------------------- basics

TEST_F(Tree, AnEmptyTreeFindsNothing) {
  Num key(1);
  EXPECT_EQ(tree.Size(), 0);
  EXPECT_EQ(tree.count, 0);
  EXPECT_EQ(real_root(tree), nullptr);
  EXPECT_EQ(tree.Find(&key), nullptr);
  EXPECT_EQ(tree.FindLE(&key), nullptr);
  EXPECT_EQ(tree.FindGE(&key), nullptr);
  EXPECT_EQ(tree.FindLeft(&key), nullptr);
  EXPECT_EQ(tree.First(), nullptr);
  EXPECT_EQ(tree.Last(), nullptr);
  Text text("abc");
  EXPECT_EQ(tree.FindAmbiguous(&text), nullptr);
  tree.Remove(&key);
  EXPECT_EQ(tree.Size(), 0);
  drain(tree);
}

TEST_F(Tree, AddTakesEverythingButNull) {
  EXPECT_EQ(tree.Add(nullptr), FALSE);
  EXPECT_EQ(tree._Add(nullptr), FALSE);
  EXPECT_EQ(tree.Size(), 0);
  Num a(1), b(1), c(2);
  EXPECT_EQ(tree.Add(&a), TRUE);
  EXPECT_EQ(tree.Add(&b), TRUE) << "an equal key too";
  EXPECT_EQ(tree.Add(&c), TRUE);
  EXPECT_EQ(tree.Size(), 3);
  drain(tree);
}

TEST_F(Tree, AddForgetsWhereTheObjectWasBefore) {
  Num a(1), elsewhere(9);
  for (OSBTreeObj*& link : a.link) link = &elsewhere;
  a.dupnext = a.dupprev = &elsewhere;
  a.balance = 1;
  tree.Add(&a);
  ExpectOutOfTree(&a);
  EXPECT_EQ(a.balance, 0);
  EXPECT_EQ(tree.First(), &a);
  drain(tree);
}

TEST_F(Tree, ObjectsComeInTheOrderOfTheirKeys) {
  Num n[] = {Num(5), Num(2), Num(8), Num(1), Num(9), Num(3)};
  for (Num& num : n) tree.Add(&num);
  std::vector<int> forward, backward;
  for (OSBTreeObj* o = tree.First(); o != nullptr; o = tree.Next(o, nullptr)) {
    forward.push_back(static_cast<Num*>(o)->key());
  }
  for (OSBTreeObj* o = tree.Last(); o != nullptr; o = tree.Previous(o)) {
    backward.push_back(static_cast<Num*>(o)->key());
  }
  EXPECT_THAT(forward, ElementsAre(1, 2, 3, 5, 8, 9));
  EXPECT_THAT(backward, ElementsAre(9, 8, 5, 3, 2, 1));
  checked(tree);
  drain(tree);
}

TEST_F(Tree, SearchesFindTheExactOrTheNearestNode) {
  std::vector<std::unique_ptr<Num>> nums;
  for (int key = 10; key <= 90; key += 10) tree.Add(nums.emplace_back(std::make_unique<Num>(key)).get());
  struct Row {
    int key, find, le, ge;  // 0: null
  };
  const Row rows[] = {{5, 0, 0, 10},    {10, 10, 10, 10}, {11, 0, 10, 20},  {19, 0, 10, 20},
                      {50, 50, 50, 50}, {55, 0, 50, 60},  {90, 90, 90, 90}, {91, 0, 90, 0}};
  const auto key_of = [](OSBTreeObj* obj) { return obj == nullptr ? 0 : static_cast<Num*>(obj)->key(); };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    Num key(row.key);
    EXPECT_EQ(key_of(tree.Find(&key)), row.find);
    EXPECT_EQ(key_of(tree.FindLE(&key)), row.le);
    EXPECT_EQ(key_of(tree.FindGE(&key)), row.ge);
  }
  drain(tree);
}

TEST_F(Tree, SearchesCountTheirComparisons) {
  std::vector<std::unique_ptr<Num>> nums;
  for (int key = 0; key < 200; key += 2) tree.Add(nums.emplace_back(std::make_unique<Num>(key)).get());
  for (int k = -1; k <= 200; ++k) {
    Num key(k);
    int steps = 0;
    for (OSBTreeObj* node = real_root(tree); node != nullptr;) {
      ++steps;
      const int way = key.Compare(node);
      if (way == 0) break;
      node = node->link[way > 0 ? 1 : 0];
    }
    tree.Find(&key);
    EXPECT_EQ(tree.count, steps);
    tree.count = 1000;
    tree.FindLE(&key);
    EXPECT_EQ(tree.count, steps) << "each search counts from nothing";
    tree.FindGE(&key);
    EXPECT_EQ(tree.count, steps);
    EXPECT_LE(steps, 9);
  }
  drain(tree);
}

// ------------------------------------------------------------------------------------------------ duplicates

TEST_F(Tree, EqualKeysHangInAChainBehindTheFirst) {
  Num first(5), second(5), third(5), less(1), more(9);
  for (Num* num : {&first, &less, &more, &second, &third}) tree.Add(num);
  EXPECT_EQ(tree.Size(), 5);
  Num key(5);
  EXPECT_EQ(tree.Find(&key), &first);
  EXPECT_EQ(tree.FindLE(&key), &first);
  EXPECT_EQ(tree.FindGE(&key), &first);
  EXPECT_EQ(tree.Next(&first, nullptr), &third) << "the latest stands right behind the first";
  EXPECT_EQ(tree.Next(&third, nullptr), &second);
  EXPECT_EQ(tree.Next(&second, nullptr), &more);
  EXPECT_EQ(tree.Previous(&more), &second);
  EXPECT_EQ(tree.Previous(&second), &third);
  EXPECT_EQ(tree.Previous(&third), &first);
  EXPECT_EQ(tree.Previous(&first), &less);
  EXPECT_EQ(tree.Previous(&less), nullptr);
  EXPECT_EQ(tree.Next(&more, nullptr), nullptr);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &first, &third, &second, &more));
  EXPECT_EQ(height(real_root(tree)), 2) << "three nodes only";
  drain(tree);
}

TEST_F(Tree, FirstAndLastAreTreeNodes) {
  Num a(1), a2(1), b(2), b2(2);
  for (Num* num : {&a, &a2, &b, &b2}) tree.Add(num);
  EXPECT_EQ(tree.First(), &a);
  EXPECT_EQ(tree.Last(), &b);
  EXPECT_EQ(tree.Next(&b, nullptr), &b2);
  EXPECT_EQ(tree.Next(&b2, nullptr), nullptr);
  drain(tree);
}

TEST_F(Tree, RemovingTheNodeOfAChainPromotesTheNextWithoutRebalancing) {
  Num first(5), second(5), third(5), less(1), more(9), most(10);
  for (Num* num : {&first, &less, &more, &most, &second, &third}) tree.Add(num);
  const signed char balance = first.balance;
  OSBTreeObj* const links[] = {first.link[0], first.link[1], first.link[2]};
  tree.Remove(&first);
  ExpectOutOfTree(&first);
  Num key(5);
  EXPECT_EQ(tree.Find(&key), &third);
  EXPECT_EQ(third.balance, balance);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(third.link[i], links[i]);
  EXPECT_EQ(third.dupprev, nullptr);
  EXPECT_EQ(third.dupnext, &second);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &third, &second, &more, &most));
  tree.Remove(&third);
  EXPECT_EQ(tree.Find(&key), &second);
  tree.Remove(&second);
  EXPECT_EQ(tree.Find(&key), nullptr);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &more, &most));
  drain(tree);
}

TEST_F(Tree, RemovingALaterObjectOfAChainUnlinksIt) {
  Num n[] = {Num(5), Num(5), Num(5), Num(5)};
  for (Num& num : n) tree.Add(&num);  // 0, 3, 2, 1
  tree.Remove(&n[2]);
  ExpectOutOfTree(&n[2]);
  EXPECT_THAT(checked(tree), ElementsAre(&n[0], &n[3], &n[1]));
  tree.Remove(&n[1]);
  EXPECT_THAT(checked(tree), ElementsAre(&n[0], &n[3]));
  tree.Remove(&n[3]);
  EXPECT_THAT(checked(tree), ElementsAre(&n[0]));
  tree.Remove(&n[0]);
  EXPECT_EQ(real_root(tree), nullptr);
  drain(tree);
}

// --------------------------------------------------------------------------------------------------- removal

TEST_F(Tree, RemovingAnUnknownKeyChangesNothing) {
  Num a(1), b(3), stranger(2);
  tree.Add(&a);
  tree.Add(&b);
  tree.Remove(&stranger);
  EXPECT_EQ(tree.Size(), 2);
  EXPECT_THAT(checked(tree), ElementsAre(&a, &b));
  ExpectOutOfTree(&stranger);
  drain(tree);
}

TEST_F(Tree, ARemovedObjectIsClearedAndCanComeBack) {
  std::vector<std::unique_ptr<Num>> nums;
  for (int i = 0; i < 50; ++i) tree.Add(nums.emplace_back(std::make_unique<Num>(i)).get());
  for (auto& num : nums) {
    tree.Remove(num.get());
    ExpectOutOfTree(num.get());
    checked(tree);
    tree.Add(num.get());
    checked(tree);
  }
  EXPECT_EQ(tree.Size(), 50);
  drain(tree);
}

TEST_F(Tree, AStrangerWithAKnownKeyTakesOutTheNodeOfThatKey) {
  Num less(1), node(5), more(9), stranger(5);
  for (Num* num : {&less, &node, &more}) tree.Add(num);
  tree.Remove(&stranger);
  EXPECT_EQ(tree.Size(), 2);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &more));
  ExpectOutOfTree(&node);
  ExpectOutOfTree(&stranger);
  drain(tree);
}

TEST_F(Tree, AStrangerTakesOutTheNodeOfAChainAndTheChainMovesUp) {
  Num less(1), first(5), second(5), third(5), more(9), stranger(5);
  for (Num* num : {&less, &first, &more, &second, &third}) tree.Add(num);
  tree.Remove(&stranger);
  EXPECT_EQ(tree.Size(), 4);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &third, &second, &more)) << "none of the chain is lost";
  ExpectOutOfTree(&first);
  ExpectOutOfTree(&stranger);
  tree.Remove(&stranger);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &second, &more));
  tree.Remove(&stranger);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &more));
  tree.Remove(&stranger);
  EXPECT_THAT(checked(tree), ElementsAre(&less, &more));
  EXPECT_EQ(tree.Size(), 2);
  drain(tree);
}

TEST_F(Tree, RemovingAnObjectTwiceTakesOutAnotherOfItsKey) {
  Num a(1), b(1);
  tree.Add(&a);
  tree.Add(&b);
  tree.Remove(&a);
  EXPECT_THAT(checked(tree), ElementsAre(&b));
  tree.Remove(&a);  // no longer in the tree, but its key is
  EXPECT_EQ(tree.Size(), 0);
  ExpectOutOfTree(&b);
  drain(tree);
}

TEST_F(Tree, EveryShapeOfRemovalKeepsTheBalance) {
  // All orders of insertion of seven keys, and the removal of each: every rotation occurs.
  std::vector<int> order(7);
  std::iota(order.begin(), order.end(), 0);
  std::vector<std::unique_ptr<Num>> nums;
  for (int i = 0; i < 7; ++i) nums.push_back(std::make_unique<Num>(i));
  do {
    for (int gone = 0; gone < 7; ++gone) {
      OSBTree small;
      for (int i : order) small._Add(nums[static_cast<std::size_t>(i)].get());
      small._Remove(nums[static_cast<std::size_t>(gone)].get());
      ASSERT_EQ(checked(small).size(), 6u);
      ExpectOutOfTree(nums[static_cast<std::size_t>(gone)].get());
      if (HasFailure()) return;
      // Emptied by hand, so that the tree destroys nothing.
      for (int i : order) small._Remove(nums[static_cast<std::size_t>(i)].get());
      ASSERT_EQ(small.size, 0);
    }
  } while (std::next_permutation(order.begin(), order.end()) && order[0] < 3);
  drain(tree);
}

TEST_F(Tree, AscendingKeysKeepEveryBalance) {
  std::vector<std::unique_ptr<Num>> nums;
  for (int key = 1; key <= 1000; ++key) {
    tree.Add(nums.emplace_back(std::make_unique<Num>(key)).get());
    if (key % 50 == 0) checked(tree);
  }
  EXPECT_EQ(checked(tree).size(), 1000u);
  EXPECT_LE(height(real_root(tree)), 14);
  EXPECT_EQ(static_cast<Num*>(tree.First())->key(), 1);
  EXPECT_EQ(static_cast<Num*>(tree.Last())->key(), 1000);
  for (auto& num : nums) {
    tree.Remove(num.get());
    if (num->key() % 50 == 0) checked(tree);
  }
  EXPECT_EQ(tree.Size(), 0);
  drain(tree);
}

TEST_F(Tree, DescendingKeysKeepEveryBalance) {
  std::vector<std::unique_ptr<Num>> nums;
  for (int key = 1000; key >= 1; --key) tree.Add(nums.emplace_back(std::make_unique<Num>(key)).get());
  EXPECT_EQ(checked(tree).size(), 1000u);
  for (int i = 0; i < 1000; ++i) {
    tree.Remove(tree.Last());
    if (i % 50 == 0) checked(tree);
  }
  drain(tree);
}

TEST_F(Tree, AHundredThousandKeysStayShallow) {
  constexpr int kKeys = 100000;
  std::vector<Num> nums;
  nums.reserve(kKeys);
  for (int i = 0; i < kKeys; ++i)
    nums.emplace_back(static_cast<int>((static_cast<long long>(i) * 7919) % kKeys));
  for (Num& num : nums) tree.Add(&num);
  EXPECT_EQ(tree.Size(), kKeys);
  EXPECT_LE(height(real_root(tree)), static_cast<int>(1.4405 * std::log2(kKeys + 2)) + 1);
  checked(tree);
  for (Num& num : nums) tree.Remove(&num);
  EXPECT_EQ(tree.Size(), 0);
  EXPECT_EQ(real_root(tree), nullptr);
  drain(tree);
}

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

TEST_F(Tree, FindAmbiguousReturnsTheFirstOfAChain) {
  Text first("44"), second("44");
  tree.Add(&first);
  tree.Add(&second);
  Text key("4420");
  EXPECT_EQ(tree.FindAmbiguous(&key), &first);
  drain(tree);
}

/// The greatest count that a search has had. The library keeps one for the whole process, which may repeat its
/// tests; searches elsewhere in this file compare far less.
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

TEST_F(Tree, TheRecordIsPrintedOutsideTheSection) {
  class Watching : public RecordingConsole {
   public:
    explicit Watching(CRITICAL_SECTION* section) : section_(section) {}
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      held = held || section_->owner_count != 0;
      RecordingConsole::vPrint(format, arguments);
    }
    bool held = false;

   private:
    CRITICAL_SECTION* section_;
  };
  record += 10;
  Watching watching(&tree.cs);
  Console = &watching;
  Text node("5");
  tree.Add(&node);
  Long key(record);
  tree.FindAmbiguous(&key);
  EXPECT_EQ(watching.calls().size(), 1u);
  EXPECT_FALSE(watching.held);
  Console = &console;
  drain(tree);
}

// ------------------------------------------------------------------------------------------------ destruction

TEST_F(Tree, TheTreeDestroysWhatIsInIt) {
  int alive = 0;
  {
    OSBTree owner;
    for (int i = 0; i < 100; ++i) owner.Add(new Num(i * 37 % 50, &alive));  // each key twice
    EXPECT_EQ(alive, 100);
    Num* out = new Num(1000, &alive);
    owner.Add(out);
    owner.Remove(out);
    delete out;
    EXPECT_EQ(owner.Size(), 100);
  }
  EXPECT_EQ(alive, 0);
}

TEST_F(Tree, TheTreeIsDestroyedThroughItsBase) {
  class Special : public OSBTree {
   public:
    explicit Special(bool* gone) : gone_(gone) {}
    ~Special() override { *gone_ = true; }
    OSBTreeObj* FindLE(OSBTreeObj*) override { return &answer; }
    Num answer{42};

   private:
    bool* gone_;
  };
  bool gone = false;
  int alive = 0;
  Special* special = new Special(&gone);
  OSBTree* base = special;
  base->Add(new Num(1, &alive));
  EXPECT_EQ(base->FindLE(nullptr), &special->answer);
  delete base;
  EXPECT_TRUE(gone);
  EXPECT_EQ(alive, 0);
}

// ---------------------------------------------------------------------------------------------------- threads

/// Looks whether its tree is locked whenever it is compared.
class Watcher : public Num {
 public:
  Watcher(int key, OSBTree* tree) : Num(key), tree_(tree) {}
  int Compare(OSBTreeObj* node) override {
    look();
    return Num::Compare(node);
  }
  int CompareLeft(OSBTreeObj* node) override {
    look();
    return Num::CompareLeft(node);
  }
  int CompareAmbiguous(OSBTreeObj* node, int) override {
    look();
    return Num::Compare(node);
  }
  int CompareMaxLen() override { return 1; }
  void look() {
    ++looks;
    if (tree_->cs.owner_count == 0 || pthread_equal(tree_->cs.owner_thread_id, pthread_self()) == 0)
      ++unlocked;
  }
  static inline int looks = 0;
  static inline int unlocked = 0;

 private:
  OSBTree* tree_;
};

TEST_F(Tree, EveryOperationComparesInsideTheSection) {
  Watcher a(10, &tree), b(20, &tree), key(15, &tree);
  struct Row {
    const char* name;
    std::function<void()> operation;
  };
  const Row rows[] = {
      {"Add", [&] { tree.Add(&b); }},
      {"Find", [&] { tree.Find(&key); }},
      {"FindLE", [&] { tree.FindLE(&key); }},
      {"FindGE", [&] { tree.FindGE(&key); }},
      {"FindLeft", [&] { tree.FindLeft(&key); }},
      {"FindAmbiguous", [&] { tree.FindAmbiguous(&key); }},
      {"Next", [&] { tree.Next(&a, &key); }},
      {"NextLeft", [&] { tree.NextLeft(&a, &key); }},
      {"Remove", [&] { tree.Remove(&b); }},
  };
  tree.Add(&a);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Watcher::looks = Watcher::unlocked = 0;
    row.operation();
    EXPECT_GT(Watcher::looks, 0);
    EXPECT_EQ(Watcher::unlocked, 0);
    EXPECT_EQ(tree.cs.owner_count, 0);
  }
  Watcher::unlocked = 0;
  tree._Add(&b);
  EXPECT_GT(Watcher::unlocked, 0) << "the caller guards these";
  tree._Remove(&b);
  drain(tree);
}

TEST_F(Tree, OthersWaitForTheHolderOfTheSection) {
  Num a(1), b(2), key(1);
  tree.Add(&a);
  struct Row {
    const char* name;
    std::function<void()> operation;
  };
  const Row rows[] = {
      {"Add", [&] { tree.Add(&b); }},
      {"Remove", [&] { tree.Remove(&b); }},
      {"Find", [&] { tree.Find(&key); }},
      {"FindLE", [&] { tree.FindLE(&key); }},
      {"FindGE", [&] { tree.FindGE(&key); }},
      {"FindLeft", [&] { tree.FindLeft(&key); }},
      {"FindAmbiguous", [&] { tree.FindAmbiguous(&key); }},
      {"First", [&] { tree.First(); }},
      {"Last", [&] { tree.Last(); }},
      {"Next", [&] { tree.Next(&a, nullptr); }},
      {"NextLeft", [&] { tree.NextLeft(&a, nullptr); }},
      {"Previous", [&] { tree.Previous(&a); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::atomic<bool> done{false};
    EnterCriticalSection(&tree.cs);
    std::thread other([&] {
      row.operation();
      done = true;
    });
    EXPECT_FALSE(wait_until([&] { return done.load(); }, 20));
    LeaveCriticalSection(&tree.cs);
    other.join();
  }
  EXPECT_EQ(tree.Size(), 1);
  drain(tree);
}

TEST_F(Tree, AHolderOfTheSectionCanWalkAStableTree) {
  Num a(1), b(2), c(3);
  for (Num* num : {&a, &b, &c}) tree.Add(num);
  EnterCriticalSection(&tree.cs);
  int seen = 0;
  for (OSBTreeObj* o = tree.First(); o != nullptr; o = tree.Next(o, nullptr)) ++seen;
  tree._Remove(&b);
  tree._Add(&b);
  LeaveCriticalSection(&tree.cs);
  EXPECT_EQ(seen, 3);
  EXPECT_EQ(tree.cs.owner_count, 0);
  drain(tree);
}

TEST_F(Tree, StaysSoundUnderThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 60;
  std::vector<std::unique_ptr<Num>> fixed;
  for (int i = 0; i < 50; ++i) tree.Add(fixed.emplace_back(std::make_unique<Num>(i * 10)).get());
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      std::vector<std::unique_ptr<Num>> mine;
      for (int i = 0; i < kEach; ++i) mine.push_back(std::make_unique<Num>(pick(random, 0, 100) * 5 + 1));
      for (int round = 0; round < 40; ++round) {
        for (auto& num : mine) tree.Add(num.get());
        for (int i = 0; i < 50; ++i) {
          Num key(i * 10);
          OSBTreeObj* found = tree.Find(&key);
          if (found == nullptr || static_cast<Num*>(found)->key() != i * 10) ++wrong;
          if (tree.FindLE(&key) != found || tree.FindGE(&key) != found) ++wrong;
        }
        tree.First();
        tree.Last();
        if (tree.Size() < 50 + kEach) ++wrong;
        for (auto& num : mine) tree.Remove(num.get());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(checked(tree).size(), 50u);
  drain(tree);
}

// ----------------------------------------------------------------------------------------------------- random

TEST_F(Tree, RandomUseMatchesASortedMap) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  constexpr int kObjects = 150;
  for (int span : {20, 60, 400}) {  // many duplicates, some, few
    std::vector<std::unique_ptr<Num>> objects;
    for (int i = 0; i < kObjects; ++i) objects.push_back(std::make_unique<Num>(pick(random, 0, span)));
    std::map<int, std::vector<OSBTreeObj*>> model;  // each chain in its order
    std::vector<bool> inside(kObjects, false);
    int size = 0;
    for (int round = 0; round < 4000; ++round) {
      const std::size_t i = static_cast<std::size_t>(pick(random, 0, kObjects - 1));
      Num* obj = objects[i].get();
      if (inside[i]) {
        tree.Remove(obj);
        auto& chain = model[obj->key()];
        chain.erase(std::find(chain.begin(), chain.end(), obj));
        if (chain.empty()) model.erase(obj->key());
        inside[i] = false;
        --size;
        ExpectOutOfTree(obj);
      } else if (round % 10 != 0 || model.count(obj->key()) != 0) {
        ASSERT_EQ(tree.Add(obj), TRUE);
        auto& chain = model[obj->key()];
        chain.insert(chain.empty() ? chain.end() : chain.begin() + 1, obj);
        inside[i] = true;
        ++size;
      } else {
        tree.Remove(obj);  // unknown object, unknown key
      }
      std::vector<OSBTreeObj*> expected;
      for (const auto& [key, chain] : model) expected.insert(expected.end(), chain.begin(), chain.end());
      ASSERT_EQ(checked(tree), expected) << "round " << round;
      ASSERT_EQ(tree.Size(), size);
      ASSERT_FALSE(HasFailure()) << "round " << round;

      const int k = pick(random, -2, span + 2);
      Num key(k);
      const auto at = model.find(k);
      ASSERT_EQ(tree.Find(&key), at == model.end() ? nullptr : at->second.front());
      const auto ge = model.lower_bound(k);
      ASSERT_EQ(tree.FindGE(&key), ge == model.end() ? nullptr : ge->second.front());
      const auto gt = model.upper_bound(k);
      ASSERT_EQ(tree.FindLE(&key), gt == model.begin() ? nullptr : std::prev(gt)->second.front());
      ASSERT_EQ(tree.First(), model.empty() ? nullptr : model.begin()->second.front());
      ASSERT_EQ(tree.Last(), model.empty() ? nullptr : model.rbegin()->second.front());
      if (round % 20 != 0) continue;
      for (std::size_t n = 0; n < expected.size(); ++n) {
        ASSERT_EQ(tree.Next(expected[n], nullptr), n + 1 < expected.size() ? expected[n + 1] : nullptr);
        ASSERT_EQ(tree.Previous(expected[n]), n > 0 ? expected[n - 1] : nullptr);
      }
    }
    drain(tree);
  }
  drain(tree);
}

TEST_F(Tree, RandomTextsMatchAPlainSearch) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto random_text = [&](int longest) {
    std::string text;
    for (int i = pick(random, 0, longest); i > 0; --i) text += static_cast<char>('0' + pick(random, 0, 2));
    return text;
  };
  for (int round = 0; round < 60; ++round) {
    std::vector<std::unique_ptr<Text>> texts;
    std::multimap<std::string, Text*> model;
    for (int i = pick(random, 0, 60); i > 0; --i) {
      Text* text = texts.emplace_back(std::make_unique<Text>(random_text(6))).get();
      tree.Add(text);
      model.emplace(text->key(), text);
    }
    for (int i = 0; i < 60; ++i) {
      Text key(random_text(8));
      SCOPED_TRACE(key.key());
      // The longest beginning of the key that stands in the tree; a length of 0 is never tried.
      std::string longest;
      for (std::size_t len = key.key().size(); len >= 1; --len) {
        if (model.count(key.key().substr(0, len)) == 0) continue;
        longest = key.key().substr(0, len);
        break;
      }
      OSBTreeObj* found = tree.FindAmbiguous(&key);
      ASSERT_EQ(found == nullptr, longest.empty());
      if (found != nullptr) {
        ASSERT_EQ(static_cast<Text*>(found)->key(), longest);
        ASSERT_EQ(found->dupprev, nullptr);
      }

      std::vector<std::string> expected, walked;
      for (const auto& [text, obj] : model) {
        if (text.compare(0, key.key().size(), key.key()) == 0) expected.push_back(text);
      }
      for (OSBTreeObj* o = tree.FindLeft(&key); o != nullptr; o = tree.NextLeft(o, &key)) {
        walked.push_back(static_cast<Text*>(o)->key());
      }
      ASSERT_EQ(walked, expected);

      std::size_t equal = 0;
      for (OSBTreeObj* o = tree.Find(&key); o != nullptr; o = tree.Next(o, &key)) ++equal;
      ASSERT_EQ(equal, model.count(key.key()));
    }
    drain(tree);
  }
  drain(tree);
}

}  // namespace
}  // namespace oskernel_test
