/// @file
/// Intrusive circular lists and the pool of spare links.
///
/// Every list is a ring of links whose head is itself a link. An object that sits in one list at a time
/// carries its own link by deriving from OSLinkListObj; an object that sits in many at once is referred to by
/// spare links from the pool (OSLink::Alloc). A link's `object` says where it stands:
///
///                               object        next, previous   isFree
///   detached                    null          itself           false
///   in a list                   not null      its neighbours   false
///   in the pool (pool link)     itself        its neighbours   true
///   head of a list              null          last and first   false
///
/// The rings take no lock. Who shares one between threads serialises the access; OSProtectedQueue and
/// OSProtectedList do that for their users. The pool locks itself.
#ifndef OSKERNEL_LINK_LIST_H
#define OSKERNEL_LINK_LIST_H

#include "types.h"

class OSListObj;

/// Chooses the constructor for a list of static storage that other threads may still walk while the process
/// ends: its destructor touches nothing, neither the ring nor what is in it.
struct OSStaticList {
  /// Only a tag: it holds nothing.
  explicit OSStaticList() = default;
};

/// A node of a ring, and the head of one. The operations that do not say otherwise take constant time.
///   threads   whoever owns the ring; Alloc, Free, Validate and GrowLinks: any
class OSKERNEL_API OSLink {
 public:
  /// Detached: alone in its ring, without object.
  constexpr OSLink() : next(this), previous(this), object(nullptr), isFree(false) {}
  OSLink(const OSLink&) = delete;
  OSLink& operator=(const OSLink&) = delete;
  /// Takes the link out of the ring it is in. The destructor of a head that is no OSLinkHead leaves the other
  /// nodes as a ring among themselves.
  virtual ~OSLink();
  /// Unlinks every node from the first on and calls its Free(): buffers, callbacks and pool links return to
  /// their pools. Looks at the first node anew each time, so a Free that unlinks or destroys others is safe.
  virtual void Flush();
  /// Gives a pool link back; the last link given back is the next one handed out. A link that is still in a
  /// list is taken out of the ring (the list's counters do not notice). Derived classes return themselves to
  /// their own pools instead.
  /// On a link that is free already ("OSLink::Free already free") or lies in no block of the pool
  /// ("OSLink::Free corrupt link"): Fatal; when that returns, link and pool are unchanged.
  ///   threads   any; waits for OS_CRITICAL_LINK only
  virtual void Free();

  /// Makes the pool: OS_CRITICAL_LINK, the pool's head and the first KERNELCFG->link_qty links (0 or less: an
  /// empty pool). Called again, it keeps the links as they are while any of them is in use; otherwise the
  /// pool is made anew for the link_qty of now. Reports as GrowLinks does.
  ///   threads   the starting thread; os_startup calls it
  static void Initialise();
  /// Gives all blocks and the pool's head back to the heap, links in use included.
  ///   threads   the stopping thread, when no list holds pool links any more. os_cleanup does not call it
  static void UnInitialise();
  /// Adds one block of KERNELCFG->link_qty links; nothing when that is 0 or less. Allocates from the heap.
  /// Without memory: Fatal "OSLink::Alloc Out Of links" outside OS_CRITICAL_LINK; when that returns, the pool
  /// is as it was and the caller holds OS_CRITICAL_LINK as before.
  ///   threads   any, inside OS_CRITICAL_LINK or not
  static void GrowLinks();
  /// Takes a link out of the pool, which grows by a block when it is empty.
  ///   returns   a detached link, the caller's until it calls Free. Null only after a Fatal that returned:
  ///             "OSLink::Alloc Out Of links", "OSLink::Alloc link already allocated" (the pool's first link
  ///             is not marked free) or "OSLink::Alloc corrupt link" (it lies in no block). The pool is left
  ///             as it was, so every later call reports the same fault again and hands out nothing doubtful.
  ///   threads   any, inside no section that comes after OS_CRITICAL_LINK
  static OSLink* Alloc();
  /// True when this link lies inside a block of the pool, in use or not. False while there is no block. Looks
  /// at the address only. Takes logarithmic time in the number of blocks, less for neighbours.
  ///   threads   any
  bool Validate();

  /// The first node, null when the ring is empty.
  OSLink* First() { return next == this ? nullptr : next; }
  /// The last node, null when the ring is empty.
  OSLink* Last() { return previous == this ? nullptr : previous; }
  /// The first node's object, null when the ring is empty.
  void* FirstObject() { return next == this ? nullptr : next->object; }
  /// The last node's object, null when the ring is empty.
  void* LastObject() { return previous == this ? nullptr : previous->object; }
  /// Whether the ring has no node but this one.
  bool IsEmpty() { return next == this; }
  /// Puts a detached link at the front. Its object stays as it is: the caller sets it, before or after.
  void Insert(OSLink* link) { link_before_(next, link); }
  /// Puts a detached link at the front; it stands for obj.
  void Insert(OSLink* link, void* obj) {
    link->object = obj;
    link_before_(next, link);
  }
  /// Puts a detached link at the back. Its object stays as it is: the caller sets it, before or after.
  void Append(OSLink* link) { link_before_(this, link); }
  /// Puts a detached link at the back; it stands for obj.
  void Append(OSLink* link, void* obj) {
    link->object = obj;
    link_before_(this, link);
  }
  /// Takes this node out of its ring and clears its object. Nothing happens to a node without object or
  /// alone.
  void Remove() {
    if (object == nullptr || next == this) return;
    unlink_(this);
    object = nullptr;
  }
  /// Moves every node of other's ring, in order, to the end of this one. The nodes keep their objects; other
  /// is left empty and without object. No counters are kept: not for OSLinkLists.
  void Compact(OSLink* other) {
    if (other == this) return;
    other->object = nullptr;
    if (other->next == other) return;
    other->next->previous = previous;
    previous->next = other->next;
    other->previous->next = this;
    previous = other->previous;
    other->next = other->previous = other;
  }
  /// What this node stands for.
  void* Object() { return object; }
  /// The number of nodes, counted along the ring.
  int ListLength();
  /// The position, from 0, of the first node that stands for obj; -1 without one. Walks the ring.
  int PosInList(void* obj);
  /// The object of node n, counted from 0; null when the ring has no such node. Walks the ring.
  void* operator[](int n);

  OSLink* next;      ///< the next node; the first one when this is a head; itself when alone
  OSLink* previous;  ///< the node before; the last one when this is a head; itself when alone
  void* object;      ///< what the node stands for while it is in a list; null when detached and in heads
  bool isFree;       ///< lies in the pool. Under OS_CRITICAL_LINK

  static OSLink* link_pool;  ///< head of the ring of free links. Under OS_CRITICAL_LINK
  /// The number of free links. Changed under OS_CRITICAL_LINK and with relaxed atomic stores, so that
  /// diagnostics may load it atomically without the section: the count alone publishes nothing.
  static ULONG link_pool_size;

 protected:
  /// Takes link out of its ring, whatever its object; no effect on one that is alone.
  static void unlink_(OSLink* link) {
    link->next->previous = link->previous;
    link->previous->next = link->next;
    link->next = link->previous = link;
  }
  /// Puts link between position and the node before it.
  static void link_before_(OSLink* position, OSLink* link) {
    link->next = position;
    link->previous = position->previous;
    position->previous->next = link;
    position->previous = link;
  }

  bool left_alone_ = false;  ///< an OSStaticList: the destructor touches nothing. Constant after construction
};

/// The head of a list, which may destroy what is still in the list when it is destroyed itself.
class OSKERNEL_API OSLinkHead : public OSLink {
 public:
  /// Keeps its contents when it is destroyed.
  constexpr OSLinkHead() : delete_contents_on_destroy(0) {}
  /// 1: takes what is put into the list, as far as it is still there when the head is destroyed.
  constexpr explicit OSLinkHead(char delete_contents) : delete_contents_on_destroy(delete_contents) {}
  /// Keeps its contents and leaves the ring as it is when it is destroyed.
  constexpr explicit OSLinkHead(OSStaticList) : OSLinkHead() { left_alone_ = true; }
  /// With delete_contents_on_destroy: deletes the first node until the ring is empty; each destructor unlinks
  /// its node and may unlink or destroy others. Without: detaches every node, so that none refers to the head
  /// that is gone; walks the ring.
  ~OSLinkHead() override;
  /// Changes what the constructor set, for what is in the list as well.
  void SetDeleteContents(char delete_contents) { delete_contents_on_destroy = delete_contents; }

  char delete_contents_on_destroy;  ///< 0 or 1
};

/// The base of everything that can be found in a list by key.
class OSKERNEL_API OSListObj {
 public:
  /// In no list.
  OSListObj() = default;
  virtual ~OSListObj();  ///< takes the object out of no list: its owner does
  /// Whether key is this object's key; what it points to is between the caller of Find and the object. Called
  /// by the list's walker, inside whatever serialises the list; must not change the list. The base says
  /// FALSE.
  virtual BOOL IsKey(char* key);
};

/// An object that carries its own link, so that a list holds it without help from the pool.
/// In an OSLinkList the link's object is the address of the OSListObj base, not of the whole object: go back
/// with static_cast<Derived*>(static_cast<OSLinkListObj*>(static_cast<OSListObj*>(object))).
class OSKERNEL_API OSLinkListObj : public OSLink, public OSListObj {
 public:
  /// Its link is detached.
  OSLinkListObj() = default;
  /// Takes the object out of the ring it is in. A list's counters do not notice: remove it first.
  ~OSLinkListObj() override;
};

/// A list of OSListObj that knows its length and counts its changes.
///   threads   whoever owns the list. Size and Signature: any, as a hint of what was so a moment ago
class OSKERNEL_API OSLinkList : public OSLinkHead {
 public:
  /// Keeps its contents when it is destroyed.
  constexpr OSLinkList() : OSLinkList(static_cast<char>(0)) {}
  /// 1: takes the objects put in, as far as they are still in the list when it is destroyed.
  constexpr explicit OSLinkList(char delete_contents)
      : OSLinkHead(delete_contents), number_in_list(0), signature(0) {}
  /// As OSLinkHead(OSStaticList).
  constexpr explicit OSLinkList(OSStaticList tag) : OSLinkHead(tag), number_in_list(0), signature(0) {}
  ~OSLinkList() override;  ///< as OSLinkHead's
  /// As OSLink::Flush; then the length is 0. The signature stays.
  void Flush() override;
  /// Finds the first object whose IsKey(key) is true, walking from the front to the first node without
  /// object. Any of the three pointers may be null. Deliberate: *link becomes the node after the one that was
  /// found (the head after the last), because the walk has stepped on when it looks at the object. Callers
  /// that need the node itself take it from the object. Pinned by link_list_test.cpp,
  /// LookupHandsBackTheNodeAfterTheMatch.
  ///   returns   in *obj the object, in *link the node after it, in *pos its position from 0; null, null
  ///             and -1 when nothing matches
  virtual void Lookup(char* key, OSListObj** obj, OSLink** link, int* pos);

  // Append, Insert and InsertAt refuse a link that is in a list already: Fatal "OSLinkList::<which> of link
  // that is already in a list"; when that returns, nothing has changed. A null link is ignored.

  /// Puts link at the back; it stands for obj.
  void Append(OSLink* link, OSListObj* obj) {
    if (may_join_(link, kAppend)) splice_(this, link, obj);
  }
  /// Puts the object's own link at the back.
  void Append(OSLinkListObj* obj) {
    if (may_join_(obj, kAppendObj)) splice_(this, obj, obj);
  }
  /// Puts link at the front; it stands for obj.
  void Insert(OSLink* link, OSListObj* obj) {
    if (may_join_(link, kInsert)) splice_(next, link, obj);
  }
  /// Puts the object's own link at the front.
  void Insert(OSLinkListObj* obj) {
    if (may_join_(obj, kInsertObj)) splice_(next, obj, obj);
  }
  /// Puts link immediately before position, a node of this list or its head; it stands for obj.
  void InsertAt(OSLink* position, OSLink* link, OSLinkListObj* obj) {
    if (may_join_(link, kInsertAt)) splice_(position, link, obj);
  }
  /// Takes link out. A detached link, or null, changes nothing and counts nothing. Whether the link is in
  /// this list is not checked: the caller knows.
  void Remove(OSLink* link) {
    if (link == nullptr || link->object == nullptr) return;
    count_(number_in_list - 1);
    link->Remove();
  }
  /// The number of objects in the list.
  int Size() const { return __atomic_load_n(&number_in_list, __ATOMIC_RELAXED); }
  /// Changes with every Append, Insert, InsertAt and Remove: a walker compares it to find out whether the list
  /// changed under it. Wraps.
  /// Deliberate: Flush leaves it as it is. Whoever flushes a list while others walk it tells them himself. Pinned by
  /// link_list_test.cpp, FlushFreesEveryObjectAndKeepsTheSignature.
  ULONG Signature() const { return __atomic_load_n(&signature, __ATOMIC_RELAXED); }
  /// The first object, null when the list is empty.
  OSListObj* FirstObject() { return static_cast<OSListObj*>(OSLink::FirstObject()); }
  /// The last object, null when the list is empty.
  OSListObj* LastObject() { return static_cast<OSListObj*>(OSLink::LastObject()); }
  /// The position of obj, from 0; -1 when it is not in the list. Walks the list.
  int PosInList(OSListObj* obj) { return OSLink::PosInList(obj); }
  /// The object at position n, from 0; null when there is none. Walks the list.
  OSListObj* operator[](int n) { return static_cast<OSListObj*>(OSLink::operator[](n)); }
  /// The position of the first object with that key, -1 without one: the virtual Lookup asked for that alone.
  int Search(char* key);
  /// The first object with that key, null without one: the virtual Lookup asked for that alone.
  OSListObj* Find(char* key);

  // Written by the list's owner with relaxed atomic stores, so that another thread may load them atomically
  // without the owner's section: a queue trigger's timer check reads the length of a queue that is being
  // filled. A value read so publishes nothing and may be old; a change is followed by a check inside a
  // section.
  int number_in_list;  ///< the number of objects in the list
  ULONG signature;     ///< see Signature

 protected:
  /// Puts link, detached, before position and counts it.
  void splice_(OSLink* position, OSLink* link, OSListObj* obj) {
    count_(number_in_list + 1);
    link->object = obj;
    link_before_(position, link);
  }

 private:
  enum Way_ { kAppend, kAppendObj, kInsert, kInsertObj, kInsertAt };

  void count_(int number) {
    __atomic_store_n(&number_in_list, number, __ATOMIC_RELAXED);
    __atomic_store_n(&signature, signature + 1, __ATOMIC_RELAXED);
  }
  /// A node may stand for no object and yet have neighbours, hence the second look.
  static bool may_join_(OSLink* link, Way_ way) {
    if (link == nullptr) return false;
    if (link->object == nullptr && link->next == link) return true;
    report_already_in_list_(way);
    return false;
  }
  static void report_already_in_list_(Way_ way);
};

/// A link of the pool. Only the pool makes them.
class OSKERNEL_API OSLink2 : public OSLink {
 public:
  ~OSLink2() override;  ///< as OSLink's
  /// The next free bytes of the newest pool block; from the heap when too few are left. Null without memory.
  ///   threads   any
  static void* operator new(std::size_t size) noexcept;
  /// Deliberate: gives nothing back. A link's storage belongs to its block, which returns to the heap as a
  /// whole in UnInitialise; the price is that one that came from the heap is never released. Pinned by
  /// link_pool_test.cpp, APoolLinkMadeWhenTheBlockIsUsedUpComesFromTheHeap.
  static void operator delete(void* storage);
};

/// Walks a ring. `while (void* object = it++)` visits every object; the one just returned may leave the list.
///   threads   whoever owns the ring
class OSKERNEL_API OSLinkIterator {
 public:
  /// Begins at head's first node.
  explicit OSLinkIterator(OSLink* head) { Init(head); }
  /// Begins again, at the first node of another head.
  void Init(OSLink* head) {
    start = head;
    current = head->next;
  }
  /// Begins again, at the first node.
  void Restart() { Init(start); }
  /// Whether the ring is empty.
  bool IsEmpty() { return start->next == start; }
  /// Whether the walk has come to the head.
  bool IsEndOfList() { return current == start; }
  /// Returns the current node's object and steps to the next node. At the end: null, and it stays there.
  void* Object() { return step_(current->next); }
  /// The same.
  void* operator++(int) { return step_(current->next); }
  /// Returns the current node's object and steps to the node before. On the head: null, and it stays there.
  void* operator--(int) { return step_(current->previous); }
  /// The same: the object returned is the one before the step.
  void* operator--() { return step_(current->previous); }
  /// The current node: after a step, the one beside the object just returned.
  OSLink* Link() { return current; }
  /// The object of node n from the front, the first for n of 0 or less; null when there is none. Does not
  /// move.
  void* operator[](int n) { return start->OSLink::operator[](n < 0 ? 0 : n); }
  /// Moves to node n from the front, the first for n of 0 or less; to the head when there are fewer nodes.
  void Goto(int n);

  OSLink* start;    ///< the list's head
  OSLink* current;  ///< the next node to visit

 private:
  void* step_(OSLink* to) {
    void* const found = current->object;
    if (current != start) current = to;
    return found;
  }
};

/// Walks an OSLinkList; otherwise as OSLinkIterator.
class OSKERNEL_API OSListIterator : public OSLinkIterator {
 public:
  /// Begins at the list's first node.
  explicit OSListIterator(OSLinkList* list) : OSLinkIterator(list) {}
  /// As OSLinkIterator::Object.
  OSListObj* Object() { return static_cast<OSListObj*>(OSLinkIterator::Object()); }
  /// Returns the current node's object and steps to the next node. At the end: null, and it stays there.
  OSListObj* operator++(int) { return static_cast<OSListObj*>(OSLinkIterator::operator++(0)); }
  /// Returns the current node's object and steps to the node before. On the head: null, and it stays there.
  OSListObj* operator--(int) { return static_cast<OSListObj*>(OSLinkIterator::operator--(0)); }
  /// The same: the object returned is the one before the step.
  OSListObj* operator--() { return static_cast<OSListObj*>(OSLinkIterator::operator--()); }
  /// The object of node n from the front, the first for n of 0 or less; null when there is none. Does not move.
  OSListObj* operator[](int n) { return static_cast<OSListObj*>(OSLinkIterator::operator[](n)); }
};

#endif
