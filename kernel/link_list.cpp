/// Rings, lists and their iterators, as far as they are not inline. The pool of links is in link_pool.cpp.
#include "kernel/link_list.h"

#include <atomic>

#include "kernel/console.h"

// Rings.

OSLink::~OSLink() {
  // Whatever the object says: a node that stays between its neighbours would be written to after its end.
  if (!left_alone_) unlink_(this);
}

void OSLink::Flush() {
  while (OSLink* const first = First()) {
    unlink_(first);
    first->object = nullptr;
    first->Free();
  }
}

int OSLink::ListLength() {
  int length = 0;
  for (const OSLink* node = next; node != this; node = node->next) ++length;
  return length;
}

int OSLink::PosInList(void* obj) {
  int position = 0;
  for (const OSLink* node = next; node != this; node = node->next, ++position) {
    if (node->object == obj) return position;
  }
  return -1;
}

void* OSLink::operator[](int n) {
  if (n < 0) return nullptr;
  const OSLink* node = next;
  for (; n > 0 && node != this; --n) node = node->next;
  return node == this ? nullptr : node->object;
}

// Heads.

OSLinkHead::~OSLinkHead() {
  if (left_alone_) return;
  while (next != this) {
    OSLink* const first = next;
    if (delete_contents_on_destroy != 0) {
      delete first;  // unlinks itself
    } else {
      unlink_(first);
      first->object = nullptr;
    }
  }
}

// List objects.

OSListObj::~OSListObj() = default;
BOOL OSListObj::IsKey(char* /*key*/) { return FALSE; }
OSLinkListObj::~OSLinkListObj() = default;

// Lists.

OSLinkList::~OSLinkList() = default;

void OSLinkList::Flush() {
  OSLink::Flush();
  std::atomic_ref(number_in_list).store(0, std::memory_order_relaxed);
}

void OSLinkList::Lookup(char* key, OSListObj** obj, OSLink** link, int* pos) {
  OSListIterator walk(this);
  OSListObj* found = nullptr;
  OSLink* after = nullptr;
  int position = 0;
  for (OSListObj* candidate = walk++; candidate != nullptr; candidate = walk++, ++position) {
    if (candidate->IsKey(key) == FALSE) continue;
    found = candidate;
    after = walk.Link();
    break;
  }
  if (pos != nullptr) *pos = found != nullptr ? position : -1;
  if (link != nullptr) *link = after;
  if (obj != nullptr) *obj = found;
}

int OSLinkList::Search(char* key) {
  int position = -1;
  Lookup(key, nullptr, nullptr, &position);
  return position;
}

OSListObj* OSLinkList::Find(char* key) {
  OSListObj* found = nullptr;
  Lookup(key, &found, nullptr, nullptr);
  return found;
}

void OSLinkList::report_already_in_list_(Way_ way) {
  if (Console == nullptr) return;
  switch (way) {
    case kAppend:
      Console->Fatal("OSLinkList::Append of link that is already in a list");
      break;
    case kAppendObj:
      Console->Fatal("OSLinkList::Append Obj of link that is already in a list");
      break;
    case kInsert:
      Console->Fatal("OSLinkList::Insert of link that is already in a list");
      break;
    case kInsertObj:
      Console->Fatal("OSLinkList::Insert Obj of link that is already in a list");
      break;
    case kInsertAt:
      Console->Fatal("OSLinkList::InsertAt of link that is already in a list");
      break;
  }
}

// Iterators.

void OSLinkIterator::Goto(int n) {
  current = start->next;
  for (; n > 0 && current != start; --n) current = current->next;
}
