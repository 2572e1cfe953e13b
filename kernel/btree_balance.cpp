/// Insertion and removal of the tree index: the AVL algorithms with parent links.
///
/// Removal goes back up by the parent links, so it needs no record of the way down and works at any height.
#include "kernel/btree.h"

namespace {

constexpr int kLeft = 0;
constexpr int kRight = 1;
constexpr int kParent = 2;

/// What a subtree leans by when it is heavier on `side`.
constexpr signed char lean(int side) { return side == kRight ? 1 : -1; }

int side_of(const OSBTreeObj* parent, const OSBTreeObj* child) {
  return parent->link[kRight] == child ? kRight : kLeft;
}

void set_child(OSBTreeObj* parent, int side, OSBTreeObj* child) {
  parent->link[side] = child;
  if (child != nullptr) child->link[kParent] = parent;
}

/// Lifts node's child on `side` into node's place. Its new parent link is the caller's to set. Returns the
/// child.
OSBTreeObj* rotate(OSBTreeObj* node, int side) {
  OSBTreeObj* const child = node->link[side];
  set_child(node, side, child->link[1 - side]);
  set_child(child, 1 - side, node);
  return child;
}

/// Levels `node`, which is two levels heavier on `side`. Returns what stands in its place, its parent link to
/// be set by the caller. The subtree is one level lower than it was, unless the child was balanced, which
/// only a removal meets: then the new top is not balanced.
OSBTreeObj* level(OSBTreeObj* node, int side) {
  OSBTreeObj* const child = node->link[side];
  const signed char heavy = lean(side);
  const signed char light = lean(1 - side);
  if (child->balance != light) {
    const bool lower = child->balance != 0;
    node->balance = lower ? static_cast<signed char>(0) : heavy;
    child->balance = lower ? static_cast<signed char>(0) : light;
    return rotate(node, side);
  }
  OSBTreeObj* const grandchild = child->link[1 - side];
  node->balance = grandchild->balance == heavy ? light : static_cast<signed char>(0);
  child->balance = grandchild->balance == light ? heavy : static_cast<signed char>(0);
  grandchild->balance = 0;
  set_child(node, side, rotate(child, 1 - side));
  return rotate(node, side);
}

/// Whether `obj` is a later object of node's chain. Objects that are in no chain answer at once.
bool is_in_chain(const OSBTreeObj* node, const OSBTreeObj* obj) {
  if (obj->dupprev == nullptr) return false;
  while (node != nullptr && node != obj) node = node->dupnext;
  return node != nullptr;
}

void clear_links(OSBTreeObj* obj) {
  obj->link[kLeft] = nullptr;
  obj->link[kRight] = nullptr;
  obj->link[kParent] = nullptr;
  obj->dupprev = nullptr;
  obj->dupnext = nullptr;
}

}  // namespace

BOOL OSBTree::_Add(OSBTreeObj* obj) {
  if (obj == nullptr) return FALSE;
  OSBTreeObj* node = root.link[kLeft];
  if (node == nullptr) {
    clear_links(obj);
    obj->balance = 0;
    root.link[kLeft] = obj;
    ++size;
    return TRUE;
  }

  // The deepest unbalanced node on the way down is the only one that the new object can overload: everything
  // below it is level and just leans afterwards, everything above it keeps its height.
  OSBTreeObj* pivot = node;
  for (;;) {
    __builtin_prefetch(node->link[kLeft]);
    __builtin_prefetch(node->link[kRight]);
    const int result = obj->Compare(node);
    if (result == 0) {
      if (node == obj || is_in_chain(node, obj)) return TRUE;
      clear_links(obj);
      obj->dupprev = node;
      obj->dupnext = node->dupnext;
      if (obj->dupnext != nullptr) obj->dupnext->dupprev = obj;
      node->dupnext = obj;
      ++size;
      return TRUE;
    }
    const int side = result > 0 ? kRight : kLeft;
    node->cache = static_cast<unsigned char>(side);
    if (node->balance != 0) pivot = node;
    if (node->link[side] == nullptr) break;
    node = node->link[side];
  }
  clear_links(obj);
  obj->balance = 0;
  set_child(node, node->cache, obj);
  ++size;
  rebalance_after_add(pivot, obj);
  return TRUE;
}

/// From the pivot down to `added`, the nodes' caches tell the way.
void OSBTree::rebalance_after_add(OSBTreeObj* pivot, OSBTreeObj* added) {
  const int side = pivot->cache;
  for (OSBTreeObj* node = pivot->link[side]; node != added; node = node->link[node->cache]) {
    node->balance = lean(node->cache);
  }
  if (pivot->balance != lean(side)) {
    pivot->balance = static_cast<signed char>(pivot->balance + lean(side));
    return;
  }
  OSBTreeObj* const parent = pivot->link[kParent];
  replace_child(parent, pivot, level(pivot, side));
}

void OSBTree::_Remove(OSBTreeObj* obj) {
  if (obj == nullptr || obj == deleting_) return;
  OSBTreeObj* node = root.link[kLeft];
  for (;;) {
    if (node == nullptr) return;
    __builtin_prefetch(node->link[kLeft]);
    __builtin_prefetch(node->link[kRight]);
    const int result = obj->Compare(node);
    if (result == 0) break;
    node = node->link[result > 0 ? kRight : kLeft];
  }
  // An object that is itself in the tree is the one that goes, even if its comparisons, which are the
  // program's, lead to another: its owner is about to delete it.
  const bool indexed = node == obj || obj->dupprev != nullptr || is_node(obj);
  take_out(indexed ? obj : node);
}

/// Takes out an object that is in the tree or in a chain.
void OSBTree::take_out(OSBTreeObj* obj) {
  --size;
  if (obj->dupprev != nullptr) {
    obj->dupprev->dupnext = obj->dupnext;
    if (obj->dupnext != nullptr) obj->dupnext->dupprev = obj->dupprev;
  } else if (obj->dupnext != nullptr) {
    promote_duplicate(obj);
  } else {
    unlink_node(obj);
  }
  clear_links(obj);
}

/// Whether `obj` is a node of this tree, and not of another or of none.
bool OSBTree::is_node(const OSBTreeObj* obj) const {
  while (obj->link[kParent] != nullptr) obj = obj->link[kParent];
  return obj == root.link[kLeft];
}

/// Makes `new_child`, which may be null, the child of `parent` (null: the root) where `old_child` was.
void OSBTree::replace_child(OSBTreeObj* parent, const OSBTreeObj* old_child, OSBTreeObj* new_child) {
  if (parent == nullptr) {
    root.link[kLeft] = new_child;
  } else {
    parent->link[side_of(parent, old_child)] = new_child;
  }
  if (new_child != nullptr) new_child->link[kParent] = parent;
}

/// Puts the next object of node's chain in its place. The shape of the tree does not change.
void OSBTree::promote_duplicate(OSBTreeObj* node) {
  OSBTreeObj* const successor = node->dupnext;
  successor->balance = node->balance;
  successor->dupprev = nullptr;
  set_child(successor, kLeft, node->link[kLeft]);
  set_child(successor, kRight, node->link[kRight]);
  replace_child(node->link[kParent], node, successor);
}

/// Takes a node without duplicates out of the tree.
void OSBTree::unlink_node(OSBTreeObj* node) {
  OSBTreeObj* const parent = node->link[kParent];
  OSBTreeObj* const right = node->link[kRight];
  if (right == nullptr) {
    const int side = parent != nullptr ? side_of(parent, node) : kLeft;
    replace_child(parent, node, node->link[kLeft]);
    rebalance_after_removal(parent, side);
    return;
  }

  // The next key in order, the leftmost of the right subtree, takes node's place.
  OSBTreeObj* successor = right;
  while (successor->link[kLeft] != nullptr) successor = successor->link[kLeft];
  OSBTreeObj* shortened = successor;
  int side = kRight;
  if (successor != right) {
    shortened = successor->link[kParent];
    side = kLeft;
    set_child(shortened, kLeft, successor->link[kRight]);
    set_child(successor, kRight, right);
  }
  set_child(successor, kLeft, node->link[kLeft]);
  successor->balance = node->balance;
  replace_child(parent, node, successor);
  rebalance_after_removal(shortened, side);
}

/// Goes up from `node` (null: above the root), whose subtree on `side` has become one level lower, until a
/// subtree keeps its height.
void OSBTree::rebalance_after_removal(OSBTreeObj* node, int side) {
  while (node != nullptr) {
    OSBTreeObj* const parent = node->link[kParent];
    const int side_of_parent = parent != nullptr ? side_of(parent, node) : kLeft;
    const signed char away = lean(1 - side);
    if (node->balance != away) {
      node->balance = static_cast<signed char>(node->balance + away);
      if (node->balance != 0) return;
    } else {
      OSBTreeObj* const top = level(node, 1 - side);
      replace_child(parent, node, top);
      if (top->balance != 0) return;
    }
    node = parent;
    side = side_of_parent;
  }
}
