/// Walks rings and lists the hard way: every pointer is checked against its neighbour's.
#ifndef OSKERNEL_TESTS_RING_CHECK_H
#define OSKERNEL_TESTS_RING_CHECK_H

#include <gtest/gtest.h>

#include <vector>

#include "kernel/link.h"

namespace oskernel_test {

/// More nodes than any test puts into a ring: a longer walk has left the ring.
inline constexpr int kLongestRing = 4'000'000;

/// The nodes after `head`, in order. Reports a failure and stops at the first pointer that does not match.
inline std::vector<OSLink*> ring_nodes(const OSLink& head) {
  std::vector<OSLink*> nodes;
  const OSLink* before = &head;
  OSLink* node = head.next;
  for (;;) {
    if (node == nullptr || node->previous != before) {
      ADD_FAILURE() << "ring is broken after node " << nodes.size();
      return nodes;
    }
    if (node == &head) return nodes;
    if (nodes.size() >= static_cast<std::size_t>(kLongestRing)) {
      ADD_FAILURE() << "ring does not come back to its head";
      return nodes;
    }
    nodes.push_back(node);
    before = node;
    node = node->next;
  }
}

inline int ring_length(const OSLink& head) { return static_cast<int>(ring_nodes(head).size()); }

/// The ring is closed, every node stands for an object, and the list's count is the number of nodes.
inline ::testing::AssertionResult ListIsSound(const OSLinkList& list) {
  const std::vector<OSLink*> nodes = ring_nodes(list);
  if (list.object != nullptr) return ::testing::AssertionFailure() << "the head stands for an object";
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i]->object == nullptr) return ::testing::AssertionFailure() << "node " << i << " has no object";
  }
  if (list.number_in_list != static_cast<int>(nodes.size())) {
    return ::testing::AssertionFailure()
           << "number_in_list is " << list.number_in_list << ", the ring holds " << nodes.size();
  }
  return ::testing::AssertionSuccess();
}

/// The link pool's ring is closed, holds link_pool_size links, and all of them are marked free.
inline ::testing::AssertionResult LinkPoolIsSound() {
  if (OSLink::link_pool == nullptr) return ::testing::AssertionFailure() << "there is no link pool";
  const std::vector<OSLink*> nodes = ring_nodes(*OSLink::link_pool);
  if (nodes.size() != OSLink::link_pool_size) {
    return ::testing::AssertionFailure()
           << "link_pool_size is " << OSLink::link_pool_size << ", the ring holds " << nodes.size();
  }
  for (OSLink* node : nodes) {
    if (!node->isFree || node->object != node)
      return ::testing::AssertionFailure() << "a link is not marked free";
  }
  return ::testing::AssertionSuccess();
}

/// The object that a list's void* or OSListObj* stands for.
template <class T>
T* as(void* object) {
  if (object == nullptr) return nullptr;
  return static_cast<T*>(static_cast<OSLinkListObj*>(static_cast<OSListObj*>(object)));
}

}  // namespace oskernel_test

#endif
