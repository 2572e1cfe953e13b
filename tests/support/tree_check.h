/// Keyed objects for the ordered index, and a look at every pointer and balance of a tree.
#ifndef OSKERNEL_TESTS_TREE_CHECK_H
#define OSKERNEL_TESTS_TREE_CHECK_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "kernel/btree.h"
#include "kernel_fixture.h"

namespace oskernel_test {

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

inline OSBTreeObj* real_root(const OSBTree& tree) { return tree.root.link[0]; }

/// Checks one subtree; returns its height and adds its objects in key order.
inline int check_subtree(OSBTreeObj* node, OSBTreeObj* parent, std::vector<OSBTreeObj*>& order) {
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
inline std::vector<OSBTreeObj*> checked(OSBTree& tree) {
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

inline int height(OSBTreeObj* node) {
  return node == nullptr ? 0 : 1 + std::max(height(node->link[0]), height(node->link[1]));
}

inline void ExpectOutOfTree(OSBTreeObj* obj) {
  for (OSBTreeObj* link : obj->link) EXPECT_EQ(link, nullptr);
  EXPECT_EQ(obj->dupprev, nullptr);
  EXPECT_EQ(obj->dupnext, nullptr);
}

/// Takes everything out, so that the tree does not destroy objects that it does not own.
inline void drain(OSBTree& tree) {
  while (OSBTreeObj* first = tree.First()) tree.Remove(first);
  EXPECT_EQ(tree.Size(), 0);
}

/// A tree that owns nothing: each test ends with drain(tree), before its objects go.
class Tree : public KernelTest {
 protected:
  OSBTree tree;
};

}  // namespace oskernel_test

#endif
