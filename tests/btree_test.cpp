// The ordered index: its layout, its order, duplicates, the balance after each change, and what removal and
// destruction leave behind.

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <numeric>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/btree.h"
#include "support/kernel_fixture.h"
#include "support/tree_check.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;

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

TEST_F(Tree, AnObjectThatIsFoundInTheTreeStaysAsItIs) {
  Num a(1), b(2), c(3);
  for (Num* num : {&a, &b, &c, &a, &b, &c}) EXPECT_EQ(tree.Add(num), TRUE);
  EXPECT_EQ(tree.Size(), 3);
  EXPECT_THAT(checked(tree), ElementsAre(&a, &b, &c));
  Num b2(2), b3(2);
  for (Num* num : {&b2, &b3, &b2, &b3, &b}) EXPECT_EQ(tree.Add(num), TRUE);
  EXPECT_EQ(tree.Size(), 5);
  EXPECT_THAT(checked(tree), ElementsAre(&a, &b, &b3, &b2, &c));
  drain(tree);
}

TEST_F(Tree, AnInsertionLeavesItsWayInTheCaches) {
  Num n[] = {Num(4), Num(2), Num(6), Num(1), Num(3), Num(5), Num(7)};
  for (Num& num : n) tree.Add(&num);  // a full tree: no rotation disturbs the way
  Num &n4 = n[0], &n2 = n[1], &n6 = n[2], &n1 = n[3], &n3 = n[4];
  EXPECT_EQ(n4.cache, 1);
  EXPECT_EQ(n6.cache, 1);
  EXPECT_EQ(n2.cache, 1);
  EXPECT_EQ(n1.cache, 0) << "nothing has passed here";
  Num low(0), middle(3);
  tree.Add(&low);
  EXPECT_EQ(n4.cache, 0);
  EXPECT_EQ(n2.cache, 0);
  EXPECT_EQ(n1.cache, 0);
  EXPECT_EQ(n6.cache, 1) << "as the insertion before left it";
  tree.Add(&middle);
  EXPECT_EQ(middle.dupprev, &n3);
  EXPECT_EQ(n4.cache, 0);
  EXPECT_EQ(n2.cache, 1) << "the way to an equal key counts too";
  EXPECT_EQ(n3.cache, 0);
  drain(tree);
}

TEST_F(Tree, AddForgetsWhereTheObjectWasBefore) {
  Num elsewhere(9);
  Num root(5), less(3), more(7), chained(5);
  for (Num* num : {&root, &less, &more, &chained}) {
    for (OSBTreeObj*& link : num->link) link = &elsewhere;
    num->dupnext = num->dupprev = &elsewhere;
    num->balance = 1;
    EXPECT_EQ(tree.Add(num), TRUE);
  }
  EXPECT_THAT(checked(tree), ElementsAre(&less, &root, &chained, &more));
  ExpectOutOfTree(&elsewhere);
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
    tree.count = 1000;
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

TEST_F(Tree, AStrangerFromAnotherTreeStaysThere) {
  Num less(1), node(5), more(9), twin(5);
  for (Num* num : {&less, &node, &more}) tree.Add(num);
  for (bool chained : {false, true}) {
    SCOPED_TRACE(chained);
    OSBTree other;
    Num its_less(2), its_node(5), its_second(5), its_more(7);
    for (Num* num : {&its_less, &its_node, &its_more}) other.Add(num);
    if (chained) other.Add(&its_second);
    const std::vector<OSBTreeObj*> before = checked(other);
    tree.Remove(&its_node);
    EXPECT_THAT(checked(tree), ElementsAre(&less, &more)) << "its own node of that key went";
    ExpectOutOfTree(&node);
    EXPECT_EQ(checked(other), before);
    tree.Add(&node);
    drain(other);
  }
  drain(tree);
}

TEST_F(Tree, AnObjectInTheTreeIsRemovedWhateverItsComparisonsFind) {
  // Objects of the base class compare one way only: after a rotation their own comparisons lead elsewhere.
  for (std::size_t gone = 0; gone < 12; ++gone) {
    SCOPED_TRACE(gone);
    OSBTreeObj objects[12];
    for (std::size_t i = 12; i > 0; --i) tree.Add(&objects[i - 1]);
    EXPECT_EQ(tree.Size(), 12);
    tree.Remove(&objects[gone]);
    EXPECT_EQ(tree.Size(), 11);
    ExpectOutOfTree(&objects[gone]);
    std::vector<OSBTreeObj*> left;
    for (OSBTreeObj* o = tree.First(); o != nullptr; o = tree.Next(o, nullptr)) left.push_back(o);
    EXPECT_EQ(left.size(), 11u);
    EXPECT_EQ(std::count(left.begin(), left.end(), &objects[gone]), 0);
    drain(tree);
  }
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

// ---------------------------------------------------------------------------------------------- destruction

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

/// Takes itself out of the tree when it goes, and may destroy another object of the tree.
class Leaver : public Num {
 public:
  Leaver(int key, int* alive, OSBTree* tree) : Num(key, alive), tree_(tree) {}
  ~Leaver() override {
    tree_->Remove(this);
    delete companion;
  }
  Leaver* companion = nullptr;

 private:
  OSBTree* tree_;
};

TEST_F(Tree, DestructionSurvivesObjectsThatRemoveThemselvesAndDestroyOthers) {
  int alive = 0;
  {
    OSBTree owner;
    std::vector<Leaver*> objects;
    for (int i = 0; i < 30; ++i) {
      objects.push_back(new Leaver(i % 10, &alive, &owner));  // each key three times
      owner.Add(objects.back());
    }
    objects[3]->companion = objects[13];  // of the same chain
    objects[4]->companion = objects[5];   // another node
    EXPECT_EQ(alive, 30);
  }
  EXPECT_EQ(alive, 0) << "none was left out of the tree without being destroyed";
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

}  // namespace
}  // namespace oskernel_test
