/// Searches and walks of the tree index. How it stays balanced: btree_balance.cpp.
#include "kernel/btree.h"

#include <atomic>
#include <functional>

#include "kernel/console.h"
#include "kernel/posixkernel_priv.h"

namespace {

constexpr int kLeft = 0;
constexpr int kRight = 1;
constexpr int kParent = 2;

int compare_addresses(const OSBTreeObj* key, const OSBTreeObj* node) {
  return std::greater<const OSBTreeObj*>()(node, key) ? 1 : 0;
}

/// The last node of a subtree on one side: its smallest or its greatest.
OSBTreeObj* outermost(OSBTreeObj* node, int side) {
  while (node->link[side] != nullptr) node = node->link[side];
  return node;
}

/// The node next to `node` on one side of it in key order, or null.
OSBTreeObj* neighbour(OSBTreeObj* node, int side) {
  const int other_side = 1 - side;
  if (node->link[side] != nullptr) return outermost(node->link[side], other_side);
  OSBTreeObj* parent = node->link[kParent];
  while (parent != nullptr && parent->link[side] == node) {
    node = parent;
    parent = node->link[kParent];
  }
  return parent;
}

/// A search by whole keys from the root. Reports the exact match and, without one, the neighbours of the
/// place where it would be.
struct Search {
  Search(OSBTreeObj* from, OSBTreeObj* key) {
    for (OSBTreeObj* node = from; node != nullptr;) {
      // One of the two is visited next: in a large tree most of a search is waiting for memory.
      __builtin_prefetch(node->link[kLeft]);
      __builtin_prefetch(node->link[kRight]);
      const int result = key->Compare(node);
      ++comparisons;
      if (result == 0) {
        match = node;
        return;
      }
      (result < 0 ? after : before) = node;
      node = node->link[result < 0 ? kLeft : kRight];
    }
  }

  OSBTreeObj* match = nullptr;
  OSBTreeObj* before = nullptr;  // the greatest key before the one searched
  OSBTreeObj* after = nullptr;   // the smallest key after it
  int comparisons = 0;
};

}  // namespace

OSBTreeObj::OSBTreeObj() : link{}, balance(0), cache(0), dupprev(nullptr), dupnext(nullptr) {}
OSBTreeObj::~OSBTreeObj() = default;
int OSBTreeObj::Compare(OSBTreeObj* node) { return compare_addresses(this, node); }
int OSBTreeObj::CompareLeft(OSBTreeObj* node) { return compare_addresses(this, node); }
int OSBTreeObj::CompareAmbiguous(OSBTreeObj* node, int /*len*/) { return compare_addresses(this, node); }
int OSBTreeObj::CompareMaxLen() { return 0; }

OSBTree::OSBTree() : count(0), size(0) { InitializeCriticalSection(&cs); }

OSBTree::~OSBTree() {
  while (OSBTreeObj* const node = root.link[kLeft]) {
    take_out(node);
    deleting_ = node;
    delete node;
  }
}

BOOL OSBTree::Add(OSBTreeObj* obj) {
  const SectionLock lock(&cs);
  return _Add(obj);
}

void OSBTree::Remove(OSBTreeObj* obj) {
  const SectionLock lock(&cs);
  _Remove(obj);
}

OSBTreeObj* OSBTree::Find(OSBTreeObj* key) {
  const SectionLock lock(&cs);
  const Search search(root.link[kLeft], key);
  count = search.comparisons;
  return search.match;
}

OSBTreeObj* OSBTree::FindLE(OSBTreeObj* key) {
  const SectionLock lock(&cs);
  const Search search(root.link[kLeft], key);
  count = search.comparisons;
  return search.match != nullptr ? search.match : search.before;
}

OSBTreeObj* OSBTree::FindGE(OSBTreeObj* key) {
  const SectionLock lock(&cs);
  const Search search(root.link[kLeft], key);
  count = search.comparisons;
  return search.match != nullptr ? search.match : search.after;
}

OSBTreeObj* OSBTree::FindLeft(OSBTreeObj* key) {
  const SectionLock lock(&cs);
  count = 0;
  OSBTreeObj* match = nullptr;
  for (OSBTreeObj* node = root.link[kLeft]; node != nullptr;) {
    const int result = key->CompareLeft(node);
    ++count;
    if (result == 0) {
      match = node;
      node = node->link[kLeft];
    } else if (result > 0) {
      node = node->link[kRight];
    } else {
      // Left of a match every key is a match or before the range, so none can be after it.
      if (match != nullptr) break;
      node = node->link[kLeft];
    }
  }
  return match;
}

OSBTreeObj* OSBTree::FindAmbiguous(OSBTreeObj* key) {
  // The largest count of the process, shared by all trees and threads. Relaxed: it orders nothing, and the
  // exchange lets each new record be printed by exactly one thread.
  static constinit std::atomic<int> max_ambig_count{0};

  SectionLock lock(&cs);
  count = 0;
  OSBTreeObj* match = nullptr;
  for (int len = key->CompareMaxLen(); len >= 1 && match == nullptr; --len) {
    for (OSBTreeObj* node = root.link[kLeft]; node != nullptr;) {
      const int result = key->CompareAmbiguous(node, len);
      ++count;
      if (result == 0) {
        match = node;
        break;
      }
      node = node->link[result < 0 ? kLeft : kRight];
    }
  }
  const int comparisons = count;
  lock.leave();

  int record = max_ambig_count.load(std::memory_order_relaxed);
  while (comparisons > record &&
         !max_ambig_count.compare_exchange_weak(record, comparisons, std::memory_order_relaxed)) {
  }
  if (comparisons > record && Console != nullptr) {
    Console->Print("OSBTree::FindAmbiguous maxcount=%d", comparisons);
  }
  return match;
}

OSBTreeObj* OSBTree::First() {
  const SectionLock lock(&cs);
  OSBTreeObj* const top = root.link[kLeft];
  return top != nullptr ? outermost(top, kLeft) : nullptr;
}

OSBTreeObj* OSBTree::Last() {
  const SectionLock lock(&cs);
  OSBTreeObj* const top = root.link[kLeft];
  return top != nullptr ? outermost(top, kRight) : nullptr;
}

OSBTreeObj* OSBTree::Next(OSBTreeObj* obj, OSBTreeObj* limit) {
  return next_within(obj, limit, &OSBTreeObj::Compare);
}

OSBTreeObj* OSBTree::NextLeft(OSBTreeObj* obj, OSBTreeObj* limit) {
  return next_within(obj, limit, &OSBTreeObj::CompareLeft);
}

OSBTreeObj* OSBTree::Previous(OSBTreeObj* obj) {
  const SectionLock lock(&cs);
  if (obj->dupprev != nullptr) return obj->dupprev;
  OSBTreeObj* node = neighbour(obj, kLeft);
  if (node == nullptr) return nullptr;
  while (node->dupnext != nullptr) node = node->dupnext;
  return node;
}

int OSBTree::Size() {
  const SectionLock lock(&cs);
  return size;
}

OSBTreeObj* OSBTree::next_within(OSBTreeObj* obj, OSBTreeObj* limit, Comparison comparison) {
  const SectionLock lock(&cs);
  // Deliberate: the rest of a chain is not held against the limit. Its key is that of the object which the caller has in
  // hand and was content with. Pinned by btree_search_test.cpp, ADuplicateIsNotHeldAgainstTheLimit.
  if (obj->dupnext != nullptr) return obj->dupnext;
  while (obj->dupprev != nullptr) obj = obj->dupprev;
  OSBTreeObj* const node = neighbour(obj, kRight);
  if (node != nullptr && limit != nullptr && (limit->*comparison)(node) != 0) return nullptr;
  return node;
}
