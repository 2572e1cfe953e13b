// The ordered index between threads: every operation is done inside the tree's section.

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/btree.h"
#include "support/kernel_fixture.h"
#include "support/section_wait.h"
#include "support/seed.h"
#include "support/tree_check.h"

namespace oskernel_test {
namespace {

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
    if (!is_inside(tree_->cs)) ++unlocked;
  }
  static inline int looks = 0;
  static inline int unlocked = 0;

 private:
  OSBTree* tree_;
};

TEST_F(Tree, EveryOperationComparesInsideTheSection) {
  Watcher a(10, &tree), b(20, &tree), key(15, &tree);
  const GuardedOperation rows[] = {
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
  for (const GuardedOperation& row : rows) {
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
  ExpectOthersWait(tree.cs, {
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
                                {"Size", [&] { tree.Size(); }},
                            });
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

}  // namespace
}  // namespace oskernel_test
