/// @file
/// An ordered index of intrusive objects: a height-balanced tree with chains of equal keys.
#ifndef OSKERNEL_BTREE_H
#define OSKERNEL_BTREE_H

#include "posixkernel.h"
#include "types.h"

/// Base of what an OSBTree indexes. The key is the derived class's; the tree knows it only through the
/// comparisons. While the object is in a tree its key must not change, and the fields below are the tree's.
///
/// Comparisons are called on the key (what is looked for, added or removed) with an object of the tree as the
/// argument, inside the tree's section and any number of times: they are short and wait for nobody. Less than
/// 0: the key sorts before the node; 0: they match; greater than 0: after it. The three kinds must order the
/// same way: what matches a leading part of a key is a contiguous range of the order by whole keys.
///
/// The base orders by address, the higher one first, and knows no ambiguous matching; a keyed object
/// overrides all four operations.
class OSKERNEL_API OSBTreeObj {
 public:
  /// In no tree: every pointer null, balance and cache 0.
  OSBTreeObj();

  /// Does not take the object out of its tree: remove it before it is deleted.
  virtual ~OSBTreeObj();

  /// Compares whole keys. The base: 1 when `node` stands at the higher address, else 0.
  virtual int Compare(OSBTreeObj* node);

  /// Matches when `node` starts with this key. The base: as Compare.
  virtual int CompareLeft(OSBTreeObj* node);

  /// Matches when `node` equals the first `len` units of this key; `len` is 1 to CompareMaxLen(). The base:
  /// as Compare.
  virtual int CompareAmbiguous(OSBTreeObj* node, int len);

  /// The largest `len` that CompareAmbiguous can use, 0 when ambiguous matching is not supported, as in the
  /// base.
  virtual int CompareMaxLen();

  OSBTreeObj* link[3];  ///< smaller keys, greater keys, parent (null at the root); all null in a chain
  signed char balance;  ///< height of the right subtree less that of the left: -1, 0 or +1
  unsigned char cache;  ///< the side (0 left, 1 right) on which the latest insertion passed
  OSBTreeObj* dupprev;  ///< the object before this one in its chain of equal keys; null for the tree's node
  OSBTreeObj* dupnext;  ///< the object after this one in the chain; null for the last
};

/// An AVL tree with parent links. The first object with a key stands in the tree; later ones with an equal
/// key hang in a chain from it, the newest directly behind it. Searches return the object in the tree, and
/// Next visits the rest of the chain.
///
///   threads   any, for every operation: each holds the tree's section for its whole duration. Next and
///             Previous hold it for one step, so a walk that needs an unchanging tree keeps writers away
///             itself.
///   objects   shared: the tree uses an object from Add to Remove. It allocates nothing.
///   cost      searches, Add, Remove and one step of a walk follow the height of the tree, which is at most
///             1.44 times the logarithm (base 2) of the number of different keys. Chains may have any length.
class OSKERNEL_API OSBTree {
 public:
  OSBTree();  ///< empty

  /// Takes every object out of the tree and deletes it, the root first: what is still indexed when the tree
  /// goes belongs to the tree. The destructor of an object may call Remove for itself, without effect, and
  /// may remove and delete other objects of the tree. No section is held meanwhile.
  virtual ~OSBTree();

  /// The object with the greatest key that is not after `key`, an equal one if there is one; else null.
  virtual OSBTreeObj* FindLE(OSBTreeObj* key);

  OSBTree(const OSBTree&) = delete;
  OSBTree& operator=(const OSBTree&) = delete;

  /// Indexes `obj`, which must be in no tree; one that is found to be in this tree already stays as it is.
  ///   returns   TRUE, or FALSE for null
  BOOL Add(OSBTreeObj* obj);

  /// Takes `obj` out and clears its links; null or a key that is not in the tree changes nothing. When the
  /// object in the tree goes, the next of its chain takes its place.
  ///
  /// Deliberate: objects are removed by key. An `obj` that is not in the tree takes out the object in the
  /// tree that has its key, so that a program may remove by a key object; the one taken out stays the
  /// caller's, and the others of its chain stay in the tree. Pinned by btree_test.cpp,
  /// AStrangerTakesOutTheNodeOfAChainAndTheChainMovesUp.
  void Remove(OSBTreeObj* obj);

  /// The object with a key equal to `key`, or null.
  OSBTreeObj* Find(OSBTreeObj* key);

  /// The object with the smallest key that is not before `key`, an equal one if there is one; else null.
  OSBTreeObj* FindGE(OSBTreeObj* key);

  /// The first object in key order that matches `key` by CompareLeft, or null; NextLeft walks on from it.
  OSBTreeObj* FindLeft(OSBTreeObj* key);

  /// The object that matches the longest leading part of `key`, from CompareMaxLen() units down to 1, by
  /// CompareAmbiguous; else null. Of several that match the same part, the one nearest the root.
  /// Prints a line when a search of the process takes more comparisons than any before it, after the section
  /// has been left.
  OSBTreeObj* FindAmbiguous(OSBTreeObj* key);

  OSBTreeObj* First();  ///< the object in the tree with the smallest key, or null
  OSBTreeObj* Last();   ///< the object in the tree with the greatest key, or null

  /// The object after `obj` in key order, the rest of its chain first; null at the end. With a `limit`, null
  /// too when the next key does not match `limit` by Compare. The rest of a chain is not tested.
  OSBTreeObj* Next(OSBTreeObj* obj, OSBTreeObj* limit);

  /// As Next, with CompareLeft for the limit.
  OSBTreeObj* NextLeft(OSBTreeObj* obj, OSBTreeObj* limit);

  /// The object before `obj`: Next backwards, chains included; null at the start.
  OSBTreeObj* Previous(OSBTreeObj* obj);

  /// The number of objects, chains included.
  int Size();

  BOOL _Add(OSBTreeObj* obj);     ///< Add for a caller that holds `cs`
  void _Remove(OSBTreeObj* obj);  ///< Remove for a caller that holds `cs`

  int count;        ///< comparisons that the latest search made; under cs
  int size;         ///< objects in the index, chains included; under cs
  OSBTreeObj root;  ///< its link[0] is the root of the tree; under cs
  /// Guards the tree. Nothing is entered while it is held, and nothing called but comparisons.
  CRITICAL_SECTION cs;

 private:
  using Comparison = int (OSBTreeObj::*)(OSBTreeObj*);

  OSBTreeObj* next_within(OSBTreeObj* obj, OSBTreeObj* limit, Comparison comparison);
  void replace_child(OSBTreeObj* parent, const OSBTreeObj* old_child, OSBTreeObj* new_child);
  void rebalance_after_add(OSBTreeObj* pivot, OSBTreeObj* added);
  void rebalance_after_removal(OSBTreeObj* node, int side);
  void promote_duplicate(OSBTreeObj* node);
  void unlink_node(OSBTreeObj* node);
  bool is_node(const OSBTreeObj* obj) const;
  void take_out(OSBTreeObj* obj);

  const OSBTreeObj* deleting_ = nullptr;  // the object that the destructor deletes at the moment
};

#endif
