/// Lists of references, queues that check triggers, and their protected variants.
#include "kernel/link_indirect.h"

#include <atomic>

#include "kernel/buffer.h"
#include "kernel/console.h"
#include "kernel/posixkernel_priv.h"
#include "kernel/trigger.h"

namespace {

/// A send queue's last buffer is filled up to this many bytes, about what one Ethernet frame carries.
constexpr UWORD kCompactedLength_bytes = 1400;

/// A walk along a queue's triggers. It lives on the stack of the thread that holds OS_CRITICAL_TRIGGER for
/// it, so whatever changes the trigger list meanwhile is called from the walk and finds it here.
class TriggerWalk {
 public:
  explicit TriggerWalk(OSLink* triggers)
      : next_(triggers->First()), last_(triggers->Last()), outer_(innermost) {
    innermost = this;
  }
  ~TriggerWalk() { innermost = outer_; }
  TriggerWalk(const TriggerWalk&) = delete;
  TriggerWalk& operator=(const TriggerWalk&) = delete;

  /// The next registered trigger, null at the end and for a node without one. What registers after the walk
  /// began is not visited: it has been checked when it was armed, and one that is armed anew at every check
  /// would keep the walk going.
  OSTrigger* next() {
    OSLink* const link = next_;
    if (link == nullptr || link->isFree) return nullptr;
    step_over(link);
    return static_cast<OSTrigger*>(static_cast<OSLinkListObj*>(static_cast<OSListObj*>(link->object)));
  }

  /// Tells this thread's walks that link is about to leave its list.
  static void leaving(const OSLink* link) {
    for (TriggerWalk* walk = innermost; walk != nullptr; walk = walk->outer_) {
      if (walk->next_ == link) {
        walk->step_over(link);
      } else if (walk->last_ == link) {
        walk->last_ = link->previous;
      }
    }
  }

 private:
  void step_over(const OSLink* link) { next_ = link == last_ ? nullptr : link->next; }

  OSLink* next_;  // not visited yet; null at the end
  OSLink* last_;  // the last one to visit; without meaning at the end
  TriggerWalk* outer_;

  static thread_local TriggerWalk* innermost;
};

constinit thread_local TriggerWalk* TriggerWalk::innermost = nullptr;

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

}  // namespace

// Lists of references.

OSIndirectList::~OSIndirectList() {
  if (!IsEmpty()) OSIndirectList::Flush();
}

void OSIndirectList::Flush() {
  while (OSLink* const link = First()) {
    auto* const listed = static_cast<OSListObj*>(link->object);
    TriggerWalk::leaving(link);
    unlink_(link);
    link->object = nullptr;
    if (delete_contents_on_destroy != 0) delete listed;
    link->Free();
  }
  std::atomic_ref(number_in_list).store(0, std::memory_order_relaxed);
}

OSLink* OSIndirectList::find_(OSListObj* obj) {
  for (OSLink* link = next; link != this; link = link->next) {
    if (link->object == obj) return link;
  }
  return nullptr;
}

OSLink* OSIndirectList::put_(OSLink* position, OSListObj* obj) {
  OSLink* const link = OSLink::Alloc();
  if (link != nullptr) splice_(position, link, obj);
  return link;
}

void OSIndirectList::Insert(OSListObj* obj) {
  if (obj != nullptr) put_(next, obj);
}

void OSIndirectList::Append(OSListObj* obj) {
  if (obj != nullptr) put_(this, obj);
}

void OSIndirectList::InsertBefore(OSListObj* position, OSListObj* obj) {
  if (position == nullptr || obj == nullptr) return;
  OSLink* const found = find_(position);
  put_(found != nullptr ? found : next, obj);
}

// Deliberate: puts obj behind the position, where OSLinkList::InsertAt puts a link in front of it. Programs have written
// InsertBefore and InsertAt as a pair. Pinned by link_indirect_test.cpp,
// InsertBeforeAndInsertAtPlaceTheObjectBesideThePosition.
void OSIndirectList::InsertAt(OSListObj* position, OSListObj* obj) {
  if (position == nullptr || obj == nullptr) return;
  OSLink* const found = find_(position);
  put_(found != nullptr ? found->next : this, obj);
}

void OSIndirectList::Remove(OSListObj* obj) {
  if (obj != nullptr) RemoveLink(find_(obj));
}

OSLink* OSIndirectList::AppendLink(OSListObj* obj) { return obj != nullptr ? put_(this, obj) : nullptr; }

void OSIndirectList::RemoveLink(OSLink* link) {
  if (link == nullptr) return;
  // A free link's neighbours are the pool's: leave the complaint to Free.
  if (!link->isFree) {
    TriggerWalk::leaving(link);
    OSLinkList::Remove(link);
  }
  link->Free();
}

void OSIndirectList::Validate(const char* where) {
  int count = 0;
  // A node given back while it was listed may lead into a ring that never comes back to this head. Such a
  // walk meets the node it stood on at the last power of two again.
  const OSLink* stood_on = this;
  for (OSLink* link = next; link != this && link != stood_on; link = link->next, ++count) {
    if (!link->Validate() && Console != nullptr) {
      Console->Fatal("OSIndirectList %p corrupted @%p size=%d count=%d in %s", static_cast<void*>(this),
                     static_cast<void*>(link), number_in_list, count, where);
    }
    if ((count & (count - 1)) == 0) stood_on = link;
  }
  if (count != number_in_list && Console != nullptr) {
    Console->Fatal("OSIndirectList %p incorrect length size=%d count=%d in %s", static_cast<void*>(this),
                   number_in_list, count, where);
  }
}

// Queues.

OSQueue::~OSQueue() {
  // A queue without triggers may outlive the trigger system, or be there before it.
  if (OS_CRITICAL_TRIGGER.sem == nullptr) return;
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  triggers.Flush();
}

void OSQueue::Flush() {
  OSLinkList::Flush();
  CheckTrigger();
}

void OSQueue::Append(OSLinkListObj* obj) {
  OSLinkList::Append(obj);
  CheckTrigger();
}

void OSQueue::Insert(OSLinkListObj* obj) {
  OSLinkList::Insert(obj);
  CheckTrigger();
}

void OSQueue::Remove(OSLinkListObj* obj) {
  OSLinkList::Remove(obj);
  CheckTrigger();
}

/// Checks every registered trigger once, with OS_CRITICAL_TRIGGER held. A Check may take this or any other
/// trigger off the list, delete it, arm more of them, or change this queue and so begin a walk within the
/// walk; the queue itself must survive.
void OSQueue::CheckTrigger() {
  // Before the trigger system starts there is no section; then a queue works as long as it has no triggers.
  if (OS_CRITICAL_TRIGGER.sem == nullptr && triggers.IsEmpty()) return;
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  TriggerWalk walk(&triggers);
  while (OSTrigger* const trigger = walk.next()) trigger->Check();
}

// Protected queues.

OSProtectedQueue::OSProtectedQueue() : OSQueue(0) { InitializeCriticalSection(&cs); }

OSProtectedQueue::~OSProtectedQueue() = default;

void OSProtectedQueue::Flush() {
  const SectionLock lock(&cs);
  OSQueue::Flush();
}

void OSProtectedQueue::Append(OSLinkListObj* obj) {
  const SectionLock lock(&cs);
  OSQueue::Append(obj);
}

void OSProtectedQueue::Insert(OSLinkListObj* obj) {
  const SectionLock lock(&cs);
  OSQueue::Insert(obj);
}

void OSProtectedQueue::Remove(OSLinkListObj* obj) {
  const SectionLock lock(&cs);
  OSQueue::Remove(obj);
}

OSListObj* OSProtectedQueue::FirstObject() {
  const SectionLock lock(&cs);
  return OSQueue::FirstObject();
}

OSListObj* OSProtectedQueue::LastObject() {
  const SectionLock lock(&cs);
  return OSQueue::LastObject();
}

void OSProtectedQueue::AppendBufAndCompact(OSBuf* buf) {
  if (buf == nullptr) return;
  const SectionLock lock(&cs);
  // A buffer that is in a list already must not be emptied or freed; Append refuses it.
  OSBuf* const last = buf->object == nullptr ? buffer_of(OSQueue::LastObject()) : nullptr;
  if (last != nullptr) buf = last->Compact(buf, kCompactedLength_bytes);
  if (buf != nullptr) OSQueue::Append(buf);
}

OSBuf* OSProtectedQueue::FirstBufAndRemove() {
  const SectionLock lock(&cs);
  OSBuf* const first = buffer_of(OSQueue::FirstObject());
  if (first != nullptr) OSQueue::Remove(first);
  return first;
}

// Protected lists.

OSProtectedList::OSProtectedList() : OSIndirectList(0) { InitializeCriticalSection(&cs); }

OSProtectedList::~OSProtectedList() = default;

void OSProtectedList::Flush() {
  const SectionLock lock(&cs);
  OSIndirectList::Flush();
}

void OSProtectedList::Append(OSListObj* obj) {
  const SectionLock lock(&cs);
  OSIndirectList::Append(obj);
}

void OSProtectedList::Insert(OSListObj* obj) {
  const SectionLock lock(&cs);
  OSIndirectList::Insert(obj);
}

void OSProtectedList::Remove(OSListObj* obj) {
  const SectionLock lock(&cs);
  OSIndirectList::Remove(obj);
}

OSListObj* OSProtectedList::FirstObject() {
  const SectionLock lock(&cs);
  return OSIndirectList::FirstObject();
}

OSListObj* OSProtectedList::LastObject() {
  const SectionLock lock(&cs);
  return OSIndirectList::LastObject();
}
