/// @file
/// Lists of references, queues that check triggers, and their protected variants.
#ifndef OSKERNEL_LINK_INDIRECT_H
#define OSKERNEL_LINK_INDIRECT_H

#include "link_list.h"
#include "posixkernel.h"
#include "types.h"

class OSBuf;

/// A list that refers to its objects through links from the link pool, so that an object can be in any number
/// of such lists, and in one of them more than once. Insertions do nothing when obj is null, and nothing when
/// the link pool is out of links (it has reported that).
///   threads   whoever owns the list. Inside no section that comes after OS_CRITICAL_LINK; never waits for
///             anything else; allocates only when the link pool grows
class OSKERNEL_API OSIndirectList : public OSLinkList {
 public:
  /// Keeps the objects put in.
  constexpr OSIndirectList() = default;
  /// 1: takes the objects put in, as far as they are still in the list when it is flushed or destroyed.
  constexpr explicit OSIndirectList(char delete_contents) : OSLinkList(delete_contents) {}
  /// Flushes the list.
  ~OSIndirectList() override;
  /// Takes out every object from the first on and gives its link back; with the delete flag, deletes the
  /// object. Looks at the first node anew each time, so a destructor that takes out others, or itself, is
  /// safe. An object that is deleted this way must be in the list once. The signature stays.
  void Flush() override;
  /// Puts obj at the front.
  void Insert(OSListObj* obj);
  /// Puts obj at the back.
  void Append(OSListObj* obj);
  /// Puts obj immediately before the first reference to position; at the front when there is none. Nothing
  /// when either is null. Walks the list.
  void InsertBefore(OSListObj* position, OSListObj* obj);
  /// Puts obj immediately after the first reference to position; at the back when there is none. Nothing when
  /// either is null. Walks the list.
  void InsertAt(OSListObj* position, OSListObj* obj);
  /// Takes out the first reference to obj and gives its link back. Nothing when there is none. Walks the list
  /// from the front: owners that take out in any order remember AppendLink's result.
  void Remove(OSListObj* obj);
  /// Reports with Fatal what is wrong with the list; where names the caller in the message:
  /// "OSIndirectList %p corrupted @%p size=%d count=%d in %s" for each node outside the link pool, then
  /// "OSIndirectList %p incorrect length size=%d count=%d in %s" when the nodes are not as many as the list
  /// counted. Changes nothing. A ring that does not come back to the list ends the walk.
  void Validate(const char* where);

  /// Puts obj at the back and hands out its link, with which the owner takes it out again at once, without a
  /// walk.
  ///   returns   the link, the list's until RemoveLink, Remove or Flush; null when obj is null or the link
  ///             pool is out of links
  OSLink* AppendLink(OSListObj* obj);
  /// Takes out a link that AppendLink returned and gives it back to the pool. Nothing for null. Must not be
  /// used on a link that has left the list by Remove or Flush; if the pool still has it, it reports
  /// "OSLink::Free already free".
  void RemoveLink(OSLink* link);

 private:
  OSLink* find_(OSListObj* obj);
  OSLink* put_(OSLink* position, OSListObj* obj);
};

/// A list of objects with links of their own, buffers mostly, that makes the triggers registered with it
/// check whether to fire whenever it changes.
///   threads   whoever owns the queue; the triggers' side of it is under OS_CRITICAL_TRIGGER. The caller must
///             not be inside a section that comes after OS_CRITICAL_TRIGGER
class OSKERNEL_API OSQueue : public OSLinkList {
 public:
  /// Lets go of its contents when it is destroyed.
  OSQueue() : OSQueue(0) {}
  /// 1: takes the objects put in, as far as they are still in the queue when it is destroyed.
  explicit OSQueue(char delete_contents) : OSLinkList(delete_contents), triggers(0) {}
  /// Gives the trigger list's links back, without a check and without touching the triggers, which must not
  /// be armed any more. The queued objects are deleted with the delete flag and let go of without it; they
  /// are not freed.
  ~OSQueue() override;
  /// As OSLinkList::Flush, then checks the triggers once.
  void Flush() override;
  /// Puts obj at the back, then checks the triggers. Refuses as OSLinkList does.
  void Append(OSLinkListObj* obj);
  /// Puts obj at the front, then checks the triggers. Refuses as OSLinkList does.
  void Insert(OSLinkListObj* obj);
  /// Takes obj out, then checks the triggers, even when obj was not in the queue.
  void Remove(OSLinkListObj* obj);
  /// The list `triggers`; the queue's. Under OS_CRITICAL_TRIGGER.
  OSIndirectList* TriggerList() { return &triggers; }

  OSIndirectList triggers;  ///< the armed queue triggers. Under OS_CRITICAL_TRIGGER; lends

 private:
  void CheckTrigger();
};

/// A queue that several threads use. Every operation is done inside cs, the triggers' checks and the freeing
/// of flushed objects included. What OSLinkList offers besides these operations is not protected.
///   threads   any. Lock order: cs, then OS_CRITICAL_TRIGGER or a pool's section
class OSKERNEL_API OSProtectedQueue : public OSQueue {
 public:
  OSProtectedQueue();               ///< lets go of its contents when it is destroyed
  ~OSProtectedQueue() override;     ///< as OSQueue's; no thread may be in an operation any more
  void Flush() override;            ///< OSQueue::Flush inside cs
  void Append(OSLinkListObj* obj);  ///< OSQueue::Append inside cs
  void Insert(OSLinkListObj* obj);  ///< OSQueue::Insert inside cs
  void Remove(OSLinkListObj* obj);  ///< OSQueue::Remove inside cs
  /// The first object, null when the queue is empty. It stays in the queue: only a sole consumer can use it.
  OSListObj* FirstObject();
  /// The last object, null when the queue is empty. It stays in the queue.
  OSListObj* LastObject();
  /// Moves as much of buf into the last buffer as makes that one 1400 bytes at most, and appends what
  /// remains. The triggers are checked only when something is appended. For a queue that holds nothing but
  /// buffers.
  ///   takes     buf; it is freed when it has been emptied. Null is ignored
  void AppendBufAndCompact(OSBuf* buf);
  /// Takes out the first buffer and checks the triggers. For a queue that holds nothing but buffers.
  ///   returns   the buffer, the caller's from now on; null, and no check, when the queue is empty
  OSBuf* FirstBufAndRemove();

  CRITICAL_SECTION cs;  ///< before OS_CRITICAL_TRIGGER in the lock order; held while triggers are checked
};

/// An indirect list that several threads use. Every operation named here is done inside cs; what
/// OSIndirectList and OSLinkList offer besides is not protected.
///   threads   any. Lock order: cs, then a pool's section
class OSKERNEL_API OSProtectedList : public OSIndirectList {
 public:
  OSProtectedList();            ///< keeps the objects put in
  ~OSProtectedList() override;  ///< as OSIndirectList's; no thread may be in an operation any more
  void Flush() override;        ///< OSIndirectList::Flush inside cs
  void Append(OSListObj* obj);  ///< OSIndirectList::Append inside cs
  void Insert(OSListObj* obj);  ///< OSIndirectList::Insert inside cs
  void Remove(OSListObj* obj);  ///< OSIndirectList::Remove inside cs
  /// The first object, null when the list is empty. It stays in the list: only a sole consumer can use it.
  OSListObj* FirstObject();
  /// The last object, null when the list is empty. It stays in the list.
  OSListObj* LastObject();

  CRITICAL_SECTION cs;  ///< before the pools' sections in the lock order
};

#endif
