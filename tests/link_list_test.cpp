// Rings, intrusive lists and their iterators: what each operation leaves behind, the quirks that callers rely
// on, and that a refused operation changes nothing.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/link.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// An object with a key that writes down when it is freed.
class Item : public OSLinkListObj {
 public:
  explicit Item(std::string key = "", std::vector<std::string>* freed = nullptr)
      : key_(std::move(key)), freed_(freed) {}
  BOOL IsKey(char* key) override {
    ++comparisons;
    return key_ == key ? TRUE : FALSE;
  }
  void Free() override {
    ++frees;
    object_when_freed = object;
    alone_when_freed = next == this && previous == this;
    if (freed_ != nullptr) freed_->push_back(key_);
  }
  const std::string& key() const { return key_; }

  int comparisons = 0;
  int frees = 0;
  void* object_when_freed = nullptr;
  bool alone_when_freed = false;

 private:
  std::string key_;
  std::vector<std::string>* freed_;
};

/// A heap node that counts its destructions.
class HeapNode : public OSLinkListObj {
 public:
  explicit HeapNode(std::vector<int>* destroyed, int number) : destroyed_(destroyed), number_(number) {}
  ~HeapNode() override { destroyed_->push_back(number_); }

 private:
  std::vector<int>* destroyed_;
  int number_;
};

OSListObj* obj_of(Item& item) { return &item; }

std::string keys(const OSLinkList& list) {
  std::string text;
  for (OSLink* node : ring_nodes(list)) text += as<Item>(node->object)->key();
  return text;
}

char* key_text(const char* text) {
  static char buffer[32];
  std::strncpy(buffer, text, sizeof buffer - 1);
  return buffer;
}

// ------------------------------------------------------------------------------------------ the bare ring

TEST(LinkRing, ANewLinkStandsAlone) {
  OSLink link;
  EXPECT_EQ(link.next, &link);
  EXPECT_EQ(link.previous, &link);
  EXPECT_EQ(link.object, nullptr);
  EXPECT_FALSE(link.isFree);
  EXPECT_TRUE(link.IsEmpty());
  EXPECT_EQ(link.Object(), nullptr);
}

TEST(LinkRing, FieldsStandInTheirOrder) {
  OSLinkList list;
  const std::vector<const void*> fields = {
      &list.next,           &list.previous, &list.object, &list.isFree, &list.delete_contents_on_destroy,
      &list.number_in_list, &list.signature};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
  static_assert(sizeof(list.number_in_list) == 4 && sizeof(list.signature) == 4);
  static_assert(sizeof(OSLink::link_pool_size) == 4);
  static_assert(sizeof(OSLink2) == sizeof(OSLink), "a pool link adds no data");
}

TEST(LinkRing, VirtualOperationsStandInTheirSlots) {
  EXPECT_EQ(vtable_slot(&OSLink::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSLink::Free), 3);
  EXPECT_EQ(vtable_slot(&OSListObj::IsKey), 2);
  EXPECT_EQ(vtable_slot(&OSLinkList::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSLinkList::Lookup), 4);
}

TEST(LinkRing, ALinkListObjectStartsWithItsLink) {
  Item item;
  OSLinkListObj* both = &item;
  EXPECT_EQ(static_cast<void*>(static_cast<OSLink*>(both)), static_cast<void*>(both));
  EXPECT_NE(static_cast<void*>(static_cast<OSListObj*>(both)), static_cast<void*>(both));
}

TEST(LinkRing, AnEmptyRingHasNoFirstAndNoLast) {
  OSLink head;
  EXPECT_EQ(head.First(), nullptr);
  EXPECT_EQ(head.Last(), nullptr);
  EXPECT_EQ(head.FirstObject(), nullptr);
  EXPECT_EQ(head.LastObject(), nullptr);
  EXPECT_EQ(head.ListLength(), 0);
  EXPECT_EQ(head[0], nullptr);
}

TEST(LinkRing, AppendPutsAtTheBackAndInsertAtTheFront) {
  int x = 0, y = 0, z = 0;
  OSLink head, a, b, c;
  head.Append(&a, &x);
  head.Append(&b, &y);
  head.Insert(&c, &z);
  EXPECT_THAT(ring_nodes(head), ElementsAre(&c, &a, &b));
  EXPECT_EQ(head.First(), &c);
  EXPECT_EQ(head.Last(), &b);
  EXPECT_EQ(head.FirstObject(), &z);
  EXPECT_EQ(head.LastObject(), &y);
  EXPECT_EQ(a.Object(), &x);
  EXPECT_FALSE(head.IsEmpty());
  EXPECT_EQ(head.ListLength(), 3);
  EXPECT_EQ(head.object, nullptr);
}

TEST(LinkRing, TheFormsWithoutAnObjectPlaceTheLinkTheSameWay) {
  OSLink head, a, b, c;
  head.Append(&a);
  head.Append(&b);
  head.Insert(&c);
  EXPECT_THAT(ring_nodes(head), ElementsAre(&c, &a, &b));
  EXPECT_EQ(head.ListLength(), 3);
  for (OSLink* link : {&a, &b, &c}) link->object = link;
  for (OSLink* link : {&a, &b, &c}) link->Remove();
  EXPECT_TRUE(head.IsEmpty());
}

TEST(LinkRing, RemoveUnlinksAndForgetsTheObject) {
  int x = 0;
  OSLink head, a, b, c;
  for (OSLink* link : {&a, &b, &c}) head.Append(link, &x);
  b.Remove();
  EXPECT_THAT(ring_nodes(head), ElementsAre(&a, &c));
  EXPECT_EQ(b.object, nullptr);
  EXPECT_EQ(b.next, &b);
  EXPECT_EQ(b.previous, &b);
}

TEST(LinkRing, RemoveOfADetachedLinkChangesNothing) {
  OSLink link;
  link.Remove();
  EXPECT_EQ(link.next, &link);
  EXPECT_EQ(link.object, nullptr);
}

TEST(LinkRing, RemoveOfALoneLinkKeepsItsObject) {
  int x = 0;
  OSLink link;
  link.object = &x;
  link.Remove();
  EXPECT_EQ(link.object, &x);
  EXPECT_EQ(link.next, &link);
  link.object = nullptr;
}

TEST(LinkRing, CompactMovesTheOtherRingOntoTheEnd) {
  int x = 0, y = 0;
  OSLink head, other, a, b, c, d;
  head.Append(&a, &x);
  head.Append(&b, &x);
  other.Append(&c, &y);
  other.Append(&d, &y);
  head.Compact(&other);
  EXPECT_THAT(ring_nodes(head), ElementsAre(&a, &b, &c, &d));
  EXPECT_EQ(c.object, &y);
  EXPECT_EQ(a.object, &x);
  EXPECT_TRUE(other.IsEmpty());
  EXPECT_EQ(other.next, &other);
  EXPECT_EQ(other.previous, &other);
  EXPECT_EQ(other.object, nullptr);
}

TEST(LinkRing, CompactOntoAnEmptyRingTakesTheOthersOrder) {
  int x = 0;
  OSLink head, other, a, b;
  other.Append(&a, &x);
  other.Append(&b, &x);
  head.Compact(&other);
  EXPECT_THAT(ring_nodes(head), ElementsAre(&a, &b));
  EXPECT_TRUE(other.IsEmpty());
}

TEST(LinkRing, CompactOfAnEmptyRingChangesNothing) {
  int x = 0;
  OSLink head, other, a;
  head.Append(&a, &x);
  head.Compact(&other);
  EXPECT_THAT(ring_nodes(head), ElementsAre(&a));
  EXPECT_TRUE(other.IsEmpty());
  other.Compact(&other);  // a ring is empty after it was compacted onto itself, or as it was
  EXPECT_TRUE(other.IsEmpty());
}

TEST(LinkRing, CompactClearsTheOtherHeadsObject) {
  int x = 0;
  OSLink head, other, a;
  other.Append(&a, &x);
  other.object = &x;
  head.Compact(&other);
  EXPECT_EQ(other.object, nullptr);
  EXPECT_THAT(ring_nodes(head), ElementsAre(&a));
}

TEST(LinkRing, PositionsCountFromZero) {
  int x[3] = {};
  OSLink head, a, b, c;
  head.Append(&a, &x[0]);
  EXPECT_EQ(head.PosInList(&x[1]), -1);
  head.Append(&b, &x[1]);
  head.Append(&c, &x[2]);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(head.PosInList(&x[i]), i);
    EXPECT_EQ(head[i], &x[i]);
  }
  EXPECT_EQ(head[3], nullptr);
  EXPECT_EQ(head[1000], nullptr);
  EXPECT_EQ(head[-1], nullptr);
  EXPECT_EQ(head.PosInList(&head), -1);
}

TEST(LinkRing, TheFirstOfTwoEqualObjectsGivesThePosition) {
  int x = 0, y = 0;
  OSLink head, a, b, c;
  head.Append(&a, &y);
  head.Append(&b, &x);
  head.Append(&c, &x);
  EXPECT_EQ(head.PosInList(&x), 1);
}

TEST(LinkRing, FlushUnlinksEachNodeAndFreesItFromTheFirstOn) {
  std::vector<std::string> freed;
  Item a("a", &freed), b("b", &freed), c("c", &freed);
  OSLink head;
  for (Item* item : {&a, &b, &c}) head.Append(item, item);
  head.Flush();
  EXPECT_THAT(freed, ElementsAre("a", "b", "c"));
  EXPECT_TRUE(head.IsEmpty());
  for (Item* item : {&a, &b, &c}) {
    EXPECT_EQ(item->object_when_freed, nullptr);
    EXPECT_TRUE(item->alone_when_freed);
  }
  head.Flush();
  EXPECT_THAT(freed, ElementsAre("a", "b", "c"));
}

TEST(LinkRing, FlushEndsWhenNodesStandForNoObject) {
  std::vector<std::string> freed;
  Item a("a", &freed), b("b", &freed);
  OSLink head;
  head.Append(&a);
  head.Append(&b);
  a.object = b.object = nullptr;
  head.Flush();
  EXPECT_TRUE(head.IsEmpty());
  EXPECT_THAT(freed, ElementsAre("a", "b"));
}

TEST(LinkRing, DestroyingALinkTakesItOutOfItsRing) {
  int x = 0;
  OSLink head, a, c;
  head.Append(&a, &x);
  {
    OSLink b;
    head.Append(&b, &x);
    head.Append(&c, &x);
  }
  EXPECT_THAT(ring_nodes(head), ElementsAre(&a, &c));
}

TEST(LinkRing, DestroyingAnObjectTakesItsLinkOutOfItsList) {
  OSLinkList list;
  Item a("a"), c("c");
  list.Append(&a);
  {
    Item b("b");
    list.Append(&b);
    list.Append(&c);
  }
  EXPECT_THAT(ring_nodes(list), ElementsAre(&a, &c));
}

// ------------------------------------------------------------------------------------------------- heads

TEST(LinkHead, DestroysWhatItHoldsOnlyWhenAskedTo) {
  std::vector<int> destroyed;
  HeapNode* kept = new HeapNode(&destroyed, 1);
  {
    OSLinkHead head;
    EXPECT_EQ(head.delete_contents_on_destroy, 0);
    head.Append(kept, kept);
    kept->Remove();
    head.Append(kept, kept);
    kept->Remove();
  }
  EXPECT_THAT(destroyed, IsEmpty());
  delete kept;

  destroyed.clear();
  {
    OSLinkHead head(1);
    EXPECT_EQ(head.delete_contents_on_destroy, 1);
    for (int i = 0; i < 4; ++i) {
      HeapNode* node = new HeapNode(&destroyed, i);
      head.Append(node, node);
    }
  }
  EXPECT_THAT(destroyed, ElementsAre(0, 1, 2, 3));
}

TEST(LinkHead, TheFlagCanBeChangedUntilTheEnd) {
  std::vector<int> destroyed;
  {
    OSLinkHead head;
    HeapNode* node = new HeapNode(&destroyed, 7);
    head.Append(node, node);
    head.SetDeleteContents(1);
    EXPECT_EQ(head.delete_contents_on_destroy, 1);
  }
  EXPECT_THAT(destroyed, ElementsAre(7));

  auto node = std::make_unique<HeapNode>(&destroyed, 8);
  {
    OSLinkHead head(1);
    head.SetDeleteContents(0);
    EXPECT_EQ(head.delete_contents_on_destroy, 0);
    head.Append(node.get(), node.get());
    node->Remove();
  }
  EXPECT_THAT(destroyed, ElementsAre(7));
}

TEST(LinkHead, AListDestroysItsObjectsWhenAskedTo) {
  std::vector<int> destroyed;
  {
    OSLinkList list(1);
    EXPECT_EQ(list.delete_contents_on_destroy, 1);
    for (int i = 0; i < 3; ++i) list.Append(new HeapNode(&destroyed, i));
  }
  EXPECT_THAT(destroyed, ElementsAre(0, 1, 2));
}

TEST(LinkHead, AListThatKeepsItsObjectsLetsThemGoWhenItIsDestroyed) {
  Item a("a"), b("b"), c("c");
  {
    OSLinkList list;
    for (Item* item : {&a, &b, &c}) list.Append(item);
  }
  OSLinkList other;
  for (Item* item : {&c, &a}) {
    EXPECT_EQ(item->object, nullptr);
    other.Append(item);
  }
  EXPECT_EQ(keys(other), "ca");
  EXPECT_EQ(b.next, static_cast<OSLink*>(&b)) << "nothing refers to the head that is gone";
  EXPECT_EQ(a.frees, 0);
}

/// Takes a companion with it when it goes.
class Couple : public OSLinkListObj {
 public:
  explicit Couple(int* alive) : alive_(alive) { ++*alive_; }
  ~Couple() override {
    --*alive_;
    if (companion == nullptr) return;
    companion->companion = nullptr;
    delete companion;
  }
  Couple* companion = nullptr;

 private:
  int* alive_;
};

TEST(LinkHead, DestroyingTheContentsSurvivesADestructorThatDestroysAnotherNode) {
  int alive = 0;
  {
    OSLinkList list(1);
    std::vector<Couple*> nodes;
    for (int i = 0; i < 6; ++i) list.Append(nodes.emplace_back(new Couple(&alive)));
    nodes[0]->companion = nodes[1];  // the next one
    nodes[1]->companion = nodes[0];
    nodes[2]->companion = nodes[5];  // the last one
    nodes[5]->companion = nodes[2];
    EXPECT_EQ(alive, 6);
  }
  EXPECT_EQ(alive, 0);
}

// ------------------------------------------------------------------------------------------------- lists

TEST(LinkList, StartsEmptyWithBothCountersAtZero) {
  OSLinkList list;
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(list.Signature(), 0u);
  EXPECT_EQ(list.delete_contents_on_destroy, 0);
  EXPECT_EQ(list.FirstObject(), nullptr);
  EXPECT_EQ(list.LastObject(), nullptr);
  EXPECT_EQ(list.PosInList(nullptr), -1);
  EXPECT_EQ(list[0], nullptr);
  EXPECT_EQ(list.Search(key_text("a")), -1);
  EXPECT_EQ(list.Find(key_text("a")), nullptr);
}

TEST(LinkList, EveryWayInCountsOnceAndStandsForTheObjectBase) {
  OSLinkList list;
  Item a("a"), b("b"), c("c"), d("d"), e("e");
  OSLink link_b, link_d, link_e;
  list.Append(&a);
  EXPECT_EQ(list.Size(), 1);
  EXPECT_EQ(list.Signature(), 1u);
  EXPECT_EQ(a.object, static_cast<void*>(obj_of(a)));
  EXPECT_NE(a.object, static_cast<void*>(&a));

  list.Append(&link_b, &b);
  EXPECT_EQ(list.Size(), 2);
  EXPECT_EQ(list.Signature(), 2u);
  EXPECT_EQ(link_b.object, static_cast<void*>(obj_of(b)));
  EXPECT_EQ(b.object, nullptr);

  list.Insert(&c);
  EXPECT_EQ(list.Signature(), 3u);
  EXPECT_EQ(c.object, static_cast<void*>(obj_of(c)));
  list.Insert(&link_d, &d);
  EXPECT_EQ(list.Signature(), 4u);
  EXPECT_EQ(link_d.object, static_cast<void*>(obj_of(d)));
  list.InsertAt(&a, &link_e, &e);
  EXPECT_EQ(list.Signature(), 5u);
  EXPECT_EQ(list.Size(), 5);
  EXPECT_EQ(link_e.object, static_cast<void*>(obj_of(e)));

  EXPECT_THAT(ring_nodes(list), ElementsAre(&link_d, &c, &link_e, &a, &link_b));
  EXPECT_EQ(keys(list), "dceab");
  EXPECT_EQ(list.FirstObject(), obj_of(d));
  EXPECT_EQ(list.LastObject(), obj_of(b));
  EXPECT_TRUE(ListIsSound(list));
}

TEST(LinkList, InsertAtPutsTheLinkImmediatelyBeforeThePosition) {
  OSLinkList list;
  Item a("a"), b("b"), c("c"), d("d");
  list.Append(&a);
  list.InsertAt(&a, &b, &b);
  EXPECT_EQ(keys(list), "ba");
  list.InsertAt(&a, &c, &c);
  EXPECT_EQ(keys(list), "bca");
  list.InsertAt(&list, &d, &d);  // before the head: at the back
  EXPECT_EQ(keys(list), "bcad");
  EXPECT_TRUE(ListIsSound(list));
}

TEST(LinkList, OneObjectCanStandInManyListsThroughOtherLinks) {
  OSLinkList first, second;
  Item a("a");
  OSLink link;
  first.Append(&a);
  second.Append(&link, &a);
  EXPECT_EQ(keys(first), "a");
  EXPECT_EQ(keys(second), "a");
  second.Remove(&link);
  EXPECT_EQ(first.Size(), 1);
}

TEST(LinkList, RemoveCountsDownAndChangesTheSignature) {
  OSLinkList list;
  Item a("a"), b("b");
  list.Append(&a);
  list.Append(&b);
  list.Remove(&a);
  EXPECT_EQ(list.Size(), 1);
  EXPECT_EQ(list.Signature(), 3u);
  EXPECT_EQ(a.object, nullptr);
  EXPECT_EQ(a.next, static_cast<OSLink*>(&a));
  EXPECT_EQ(keys(list), "b");
}

TEST(LinkList, RemoveOfADetachedLinkTouchesNoCounter) {
  OSLinkList list;
  Item a("a"), b("b");
  list.Append(&a);
  list.Remove(&b);
  EXPECT_EQ(list.Size(), 1);
  EXPECT_EQ(list.Signature(), 1u);
  list.Remove(&a);
  list.Remove(&a);
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(list.Signature(), 2u);
}

TEST(LinkList, ARemovedObjectCanBePutInAgain) {
  OSLinkList list;
  Item a("a"), b("b");
  list.Append(&a);
  list.Append(&b);
  list.Remove(&a);
  list.Append(&a);
  EXPECT_EQ(keys(list), "ba");
  EXPECT_TRUE(ListIsSound(list));
}

TEST(LinkList, PositionsCountFromZeroAndAreMinusOneForAStranger) {
  OSLinkList list;
  Item a("a"), b("b"), c("c"), stranger("x");
  EXPECT_EQ(list.PosInList(&a), -1);
  for (Item* item : {&a, &b, &c}) list.Append(item);
  EXPECT_EQ(list.PosInList(&a), 0);
  EXPECT_EQ(list.PosInList(&b), 1);
  EXPECT_EQ(list.PosInList(&c), 2);
  EXPECT_EQ(list.PosInList(&stranger), -1);
  EXPECT_EQ(list[0], obj_of(a));
  EXPECT_EQ(list[2], obj_of(c));
  EXPECT_EQ(list[3], nullptr);
  EXPECT_EQ(list[-1], nullptr);
  EXPECT_EQ(list.ListLength(), 3);
}

TEST(LinkList, ListLengthWalksInsteadOfTrustingTheCount) {
  OSLinkList list;
  Item a("a"), b("b");
  list.Append(&a);
  list.Append(&b);
  list.number_in_list = 17;
  EXPECT_EQ(list.ListLength(), 2);
  EXPECT_EQ(list.Size(), 17);
}

TEST(LinkList, CompactMovesNodesButNoCounts) {
  OSLinkList list, other;
  Item a("a"), b("b");
  list.Append(&a);
  other.Append(&b);
  list.Compact(&other);
  EXPECT_EQ(keys(list), "ab");
  EXPECT_EQ(list.ListLength(), 2);
  EXPECT_EQ(other.ListLength(), 0);
  EXPECT_EQ(b.object, static_cast<void*>(obj_of(b)));
}

TEST(LinkList, AnObjectIsFoundByItsKey) {
  OSLinkList list;
  Item a("a"), b("b"), b2("b"), c("c");
  for (Item* item : {&a, &b, &b2, &c}) list.Append(item);
  EXPECT_EQ(list.Find(key_text("b")), obj_of(b));
  EXPECT_EQ(list.Search(key_text("b")), 1);
  EXPECT_EQ(b2.comparisons, 0) << "the walk stops at the first match";
  EXPECT_EQ(list.Search(key_text("c")), 3);
  EXPECT_EQ(list.Find(key_text("z")), nullptr);
  EXPECT_EQ(list.Search(key_text("z")), -1);
  EXPECT_EQ(b2.comparisons, 3);
}

TEST(LinkList, ObjectsHaveNoKeyUnlessTheySaySo) {
  class Plain : public OSLinkListObj {};
  OSLinkList list;
  Plain plain;
  list.Append(&plain);
  EXPECT_EQ(plain.IsKey(key_text("")), FALSE);
  EXPECT_EQ(list.Search(key_text("")), -1);
}

TEST(LinkList, LookupHandsBackTheNodeAfterTheMatch) {
  OSLinkList list;
  Item a("a"), b("b"), c("c");
  for (Item* item : {&a, &b, &c}) list.Append(item);
  struct Row {
    const char* key;
    OSListObj* object;
    OSLink* link;
    int position;
  };
  const Row rows[] = {
      {"a", obj_of(a), &b, 0},
      {"b", obj_of(b), &c, 1},
      {"c", obj_of(c), &list, 2},  // the head after the last
      {"z", nullptr, nullptr, -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    OSListObj* object = &a;
    OSLink* link = &a;
    int position = 99;
    list.Lookup(key_text(row.key), &object, &link, &position);
    EXPECT_EQ(object, row.object);
    EXPECT_EQ(link, row.link);
    EXPECT_EQ(position, row.position);
  }
}

TEST(LinkList, LookupAcceptsNullForWhatTheCallerDoesNotWant) {
  OSLinkList list;
  Item a("a"), b("b");
  list.Append(&a);
  list.Append(&b);
  for (const char* key : {"a", "b", "z"}) {
    OSListObj* object = nullptr;
    OSLink* link = nullptr;
    int position = 99;
    list.Lookup(key_text(key), nullptr, nullptr, nullptr);
    list.Lookup(key_text(key), &object, nullptr, nullptr);
    list.Lookup(key_text(key), nullptr, &link, nullptr);
    list.Lookup(key_text(key), nullptr, nullptr, &position);
    EXPECT_EQ(object, list.Find(key_text(key)));
    EXPECT_EQ(position, list.Search(key_text(key)));
  }
}

TEST(LinkList, LookupEndsAtTheFirstNodeWithoutAnObject) {
  OSLinkList list;
  Item a("a"), b("b"), c("c");
  for (Item* item : {&a, &b, &c}) list.Append(item);
  b.object = nullptr;
  EXPECT_EQ(list.Search(key_text("c")), -1);
  EXPECT_EQ(list.Search(key_text("a")), 0);
  b.object = static_cast<OSListObj*>(&b);
}

TEST(LinkList, SearchAndFindGoThroughTheVirtualLookup) {
  class OneAnswer : public OSLinkList {
   public:
    void Lookup(char*, OSListObj** obj, OSLink** link, int* pos) override {
      if (obj != nullptr) *obj = answer;
      if (link != nullptr) *link = nullptr;
      if (pos != nullptr) *pos = 42;
    }
    OSListObj* answer = nullptr;
  };
  Item a("a");
  OneAnswer list;
  list.answer = &a;
  OSLinkList& base = list;
  EXPECT_EQ(base.Search(key_text("x")), 42);
  EXPECT_EQ(base.Find(key_text("x")), obj_of(a));
}

TEST(LinkList, FlushFreesEveryObjectAndKeepsTheSignature) {
  std::vector<std::string> freed;
  OSLinkList list;
  Item a("a", &freed), b("b", &freed), c("c", &freed);
  for (Item* item : {&a, &b, &c}) list.Append(item);
  EXPECT_EQ(list.Signature(), 3u);
  list.Flush();
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(list.Signature(), 3u);
  EXPECT_TRUE(list.IsEmpty());
  EXPECT_THAT(freed, ElementsAre("a", "b", "c"));
  EXPECT_EQ(a.object, nullptr);
}

TEST(LinkList, FlushThroughTheBaseClassIsTheListsOwn) {
  OSLinkList list;
  Item a("a");
  list.Append(&a);
  OSLink* base = &list;
  base->Flush();
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(a.frees, 1);
}

/// Takes other objects out of the list while it is being freed itself.
class Meddler : public OSLinkListObj {
 public:
  void Free() override {
    ++frees;
    for (OSLinkListObj* other : takes_out) list->Remove(other);
  }
  int frees = 0;
  OSLinkList* list = nullptr;
  std::vector<OSLinkListObj*> takes_out;
};

TEST(LinkList, FlushSurvivesAnObjectThatTakesOutOthers) {
  OSLinkList list;
  std::vector<Meddler> objects(6);
  for (Meddler& object : objects) {
    object.list = &list;
    list.Append(&object);
  }
  objects[0].takes_out = {&objects[0], &objects[1]};  // itself and the next
  objects[2].takes_out = {&objects[5]};               // the last
  list.Flush();
  EXPECT_TRUE(list.IsEmpty());
  EXPECT_EQ(list.Size(), 0);
  const int expected[] = {1, 0, 1, 1, 1, 0};
  for (std::size_t i = 0; i < objects.size(); ++i) EXPECT_EQ(objects[i].frees, expected[i]) << i;
}

TEST(LinkList, FlushSurvivesObjectsThatDestroyThemselves) {
  class OnTheHeap : public OSLinkListObj {
   public:
    explicit OnTheHeap(int* alive) : alive_(alive) { ++*alive_; }
    ~OnTheHeap() override { --*alive_; }
    void Free() override { delete this; }

   private:
    int* alive_;
  };
  int alive = 0;
  OSLinkList list;
  for (int i = 0; i < 10; ++i) list.Append(new OnTheHeap(&alive));
  list.Flush();
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(list.Size(), 0);
}

// ------------------------------------------------------------------- a link that is already in a list

class ListRefusal : public KernelTest {};

TEST_F(ListRefusal, ALinkThatIsInAListIsReportedAndBothListsStaySound) {
  struct Row {
    const char* message;
    void (*put_in)(OSLinkList& list, Item& item, Item& other);
  };
  const Row rows[] = {
      {"OSLinkList::Append of link that is already in a list",
       [](OSLinkList& list, Item& item, Item& other) { list.Append(&item, &other); }},
      {"OSLinkList::Append Obj of link that is already in a list",
       [](OSLinkList& list, Item& item, Item&) { list.Append(&item); }},
      {"OSLinkList::Insert of link that is already in a list",
       [](OSLinkList& list, Item& item, Item& other) { list.Insert(&item, &other); }},
      {"OSLinkList::Insert Obj of link that is already in a list",
       [](OSLinkList& list, Item& item, Item&) { list.Insert(&item); }},
      {"OSLinkList::InsertAt of link that is already in a list",
       [](OSLinkList& list, Item& item, Item& other) { list.InsertAt(list.First(), &item, &other); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    OSLinkList home, list;
    Item a("a"), b("b"), c("c"), d("d");
    home.Append(&a);
    home.Append(&b);
    list.Append(&c);
    console.clear();

    row.put_in(list, a, d);  // into another list
    EXPECT_THAT(console.fatals(), ElementsAre(row.message));
    EXPECT_TRUE(ListIsSound(home));
    EXPECT_TRUE(ListIsSound(list));
    EXPECT_EQ(home.Size() + list.Size(), 3);

    console.clear();
    row.put_in(list, c, d);  // into its own list a second time
    EXPECT_THAT(console.fatals(), ElementsAre(row.message));
    EXPECT_TRUE(ListIsSound(home));
    EXPECT_TRUE(ListIsSound(list));
    EXPECT_EQ(home.Size() + list.Size(), 3);
  }
}

TEST_F(ListRefusal, WithoutAConsoleNothingIsReportedAndNothingBreaks) {
  Console = nullptr;
  OSLinkList home, list;
  Item a("a");
  home.Append(&a);
  list.Append(&a);
  list.Insert(&a);
  list.Append(&a, &a);
  list.Insert(&a, &a);
  list.InsertAt(&list, &a, &a);
  EXPECT_TRUE(ListIsSound(home));
  EXPECT_TRUE(ListIsSound(list));
  EXPECT_EQ(home.Size() + list.Size(), 1);
}

// --------------------------------------------------------------------------------------------- iterators

class ListIterator : public ::testing::Test {
 protected:
  void SetUp() override {
    for (Item* item : {&a_, &b_, &c_}) list_.Append(item);
  }
  Item a_{"a"}, b_{"b"}, c_{"c"};
  OSLinkList list_;
  OSLinkList empty_;
};

TEST_F(ListIterator, StartsAtTheFirstNode) {
  OSListIterator it(&list_);
  EXPECT_EQ(it.start, &list_);
  EXPECT_EQ(it.current, &a_);
  EXPECT_EQ(it.Link(), &a_);
  EXPECT_FALSE(it.IsEmpty());
  EXPECT_FALSE(it.IsEndOfList());
}

TEST_F(ListIterator, StepsOverEveryObjectAndThenStaysOnTheHead) {
  OSListIterator it(&list_);
  EXPECT_EQ(it++, obj_of(a_));
  EXPECT_EQ(it.Link(), &b_) << "after a step the link is the one after the object returned";
  EXPECT_EQ(it++, obj_of(b_));
  EXPECT_EQ(it++, obj_of(c_));
  EXPECT_TRUE(it.IsEndOfList());
  EXPECT_FALSE(it.IsEmpty());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(it++, nullptr);
    EXPECT_EQ(it.Link(), &list_);
  }
}

TEST_F(ListIterator, ObjectReturnsTheCurrentObjectAndStepsOn) {
  OSListIterator it(&list_);
  std::vector<OSListObj*> seen;
  while (OSListObj* object = it.Object()) {
    seen.push_back(object);
    if (seen.size() > 3) break;
  }
  EXPECT_THAT(seen, ElementsAre(obj_of(a_), obj_of(b_), obj_of(c_)));
  EXPECT_EQ(it.Link(), &list_);
  EXPECT_EQ(it.Object(), nullptr);
}

TEST_F(ListIterator, OverAnEmptyListIsAtTheEndAtOnce) {
  OSListIterator it(&empty_);
  EXPECT_TRUE(it.IsEmpty());
  EXPECT_TRUE(it.IsEndOfList());
  EXPECT_EQ(it++, nullptr);
  EXPECT_EQ(it--, nullptr);
  EXPECT_EQ(--it, nullptr);
  EXPECT_EQ(it[0], nullptr);
  EXPECT_EQ(it[-1], nullptr);
  EXPECT_EQ(it[1], nullptr);
  it.Goto(5);
  EXPECT_TRUE(it.IsEndOfList());
}

TEST_F(ListIterator, RestartAndInitBeginAgain) {
  OSListIterator it(&list_);
  it++;
  it++;
  it.Restart();
  EXPECT_EQ(it.Link(), &a_);
  it.Init(&empty_);
  EXPECT_TRUE(it.IsEmpty());
  it.Init(&list_);
  EXPECT_EQ(it++, obj_of(a_));
}

TEST_F(ListIterator, PostDecrementReturnsTheCurrentObjectAndStepsBack) {
  OSListIterator it(&list_);
  it.Goto(2);
  EXPECT_EQ(it--, obj_of(c_));
  EXPECT_EQ(it.Link(), &b_);
  EXPECT_EQ(it--, obj_of(b_));
  EXPECT_EQ(it--, obj_of(a_));
  EXPECT_TRUE(it.IsEndOfList());
  EXPECT_EQ(it--, nullptr);
  EXPECT_TRUE(it.IsEndOfList()) << "the iterator stays on the head";
}

TEST_F(ListIterator, BothDecrementsWalkBackwardsToTheEnd) {
  OSListIterator it(&list_);
  it.Goto(2);
  std::vector<OSListObj*> seen;
  while (OSListObj* object = --it) {
    seen.push_back(object);
    if (seen.size() > 3) break;
  }
  // Whether the first result is the object before or the one it stood on, the order is backwards to the first.
  ASSERT_GE(seen.size(), 2u);
  EXPECT_EQ(seen.back(), obj_of(a_));
  EXPECT_EQ(seen[seen.size() - 2], obj_of(b_));
  EXPECT_TRUE(it.IsEndOfList());
}

TEST_F(ListIterator, IndexGivesTheFirstObjectForZeroAndBelow) {
  OSListIterator it(&list_);
  EXPECT_EQ(it[0], obj_of(a_));
  EXPECT_EQ(it[-1], obj_of(a_));
  EXPECT_EQ(it[-1000], obj_of(a_));
  EXPECT_EQ(it[1], obj_of(b_));
  EXPECT_EQ(it[2], obj_of(c_));
  EXPECT_EQ(it[3], nullptr);
  EXPECT_EQ(it[1000], nullptr);
}

TEST_F(ListIterator, GotoStopsEarlyAtTheHead) {
  OSListIterator it(&list_);
  it.Goto(1);
  EXPECT_EQ(it.Link(), &b_);
  it.Goto(2);
  EXPECT_EQ(it.Link(), &c_);
  it.Goto(0);
  EXPECT_EQ(it.Link(), &a_);
  it.Goto(-3);
  EXPECT_EQ(it.Link(), &a_);
  it.Goto(3);
  EXPECT_TRUE(it.IsEndOfList());
  it.Goto(1000);
  EXPECT_TRUE(it.IsEndOfList());
}

TEST_F(ListIterator, TheObjectJustReturnedMayLeaveTheList) {
  OSListIterator it(&list_);
  while (OSListObj* object = it++) list_.Remove(as<Item>(object));
  EXPECT_EQ(list_.Size(), 0);
  EXPECT_TRUE(ListIsSound(list_));
}

TEST_F(ListIterator, ABareIteratorReturnsWhatTheLinksStandFor) {
  int x = 0, y = 0;
  OSLink head, a, b;
  head.Append(&a, &x);
  head.Append(&b, &y);
  OSLinkIterator it(&head);
  EXPECT_EQ(it[1], &y);
  EXPECT_EQ(it++, &x);
  EXPECT_EQ(it++, &y);
  EXPECT_EQ(it++, nullptr);
  it.Goto(1);
  EXPECT_EQ(it--, &y);
  EXPECT_EQ(it--, &x);
  EXPECT_EQ(it--, nullptr);
}

TEST_F(ListIterator, FieldsStandInTheirOrder) {
  OSLinkIterator it(&list_);
  EXPECT_LT(static_cast<void*>(&it.start), static_cast<void*>(&it.current));
}

// -------------------------------------------------------------------------------------- against std::list

TEST(LinkListRandom, BehavesLikeAStandardList) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);

  constexpr int kObjects = 40;
  std::vector<std::unique_ptr<Item>> items;
  std::vector<std::string> freed;
  for (int i = 0; i < kObjects; ++i) items.push_back(std::make_unique<Item>(std::to_string(i % 25), &freed));

  OSLinkList list;
  std::list<Item*> model;
  ULONG signature = 0;
  for (int round = 0; round < 20000; ++round) {
    Item* item = items[static_cast<std::size_t>(pick(random, 0, kObjects - 1))].get();
    const bool inside = std::find(model.begin(), model.end(), item) != model.end();
    switch (pick(random, 0, 20)) {
      case 0: {  // flush, rarely
        if (pick(random, 0, 30) != 0) break;
        freed.clear();
        list.Flush();
        ASSERT_EQ(freed.size(), model.size());
        std::size_t i = 0;
        for (Item* gone : model) ASSERT_EQ(freed[i++], gone->key());
        model.clear();
        break;
      }
      case 1:
      case 2:
      case 3: {
        if (inside || model.empty()) break;
        auto at = std::next(model.begin(), pick(random, 0, static_cast<int>(model.size()) - 1));
        list.InsertAt(*at, item, item);
        model.insert(at, item);
        ++signature;
        break;
      }
      case 4:
      case 5:
      case 6:
        if (inside) break;
        list.Insert(item);
        model.push_front(item);
        ++signature;
        break;
      case 7:
      case 8:
      case 9:
      case 10:
        if (inside) break;
        list.Append(item);
        model.push_back(item);
        ++signature;
        break;
      default:
        list.Remove(item);
        if (!inside) break;
        model.remove(item);
        ++signature;
        break;
    }

    ASSERT_TRUE(ListIsSound(list));
    ASSERT_EQ(list.Signature(), signature);
    const std::vector<OSLink*> nodes = ring_nodes(list);
    ASSERT_TRUE(std::equal(nodes.begin(), nodes.end(), model.begin(), model.end(),
                           [](OSLink* node, Item* expected) { return node == expected; }));
    const int n = pick(random, -2, kObjects + 2);
    OSListObj* at_n = nullptr;
    if (n >= 0 && n < static_cast<int>(model.size())) at_n = *std::next(model.begin(), n);
    ASSERT_EQ(list[n], at_n);
    const auto where = std::find(model.begin(), model.end(), item);
    const int position = where == model.end() ? -1 : static_cast<int>(std::distance(model.begin(), where));
    ASSERT_EQ(list.PosInList(item), position);
    const std::string key = std::to_string(pick(random, 0, 30));
    const auto match = std::find_if(model.begin(), model.end(), [&](Item* one) { return one->key() == key; });
    ASSERT_EQ(list.Search(key_text(key.c_str())),
              match == model.end() ? -1 : static_cast<int>(std::distance(model.begin(), match)));
    ASSERT_EQ(list.Find(key_text(key.c_str())), match == model.end() ? nullptr : obj_of(**match));
  }
  while (!model.empty()) {
    list.Remove(model.front());
    model.pop_front();
  }
}

TEST(LinkListRandom, CompactedRingsBehaveLikeSplicedLists) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  constexpr int kLinks = 24;
  std::vector<std::unique_ptr<OSLink>> links;
  for (int i = 0; i < kLinks; ++i) links.push_back(std::make_unique<OSLink>());
  OSLink heads[2];
  std::list<OSLink*> models[2];
  for (int round = 0; round < 5000; ++round) {
    const std::size_t which = static_cast<std::size_t>(pick(random, 0, 1));
    OSLink* link = links[static_cast<std::size_t>(pick(random, 0, kLinks - 1))].get();
    if (pick(random, 0, 9) == 0) {
      heads[which].Compact(&heads[1 - which]);
      models[which].splice(models[which].end(), models[1 - which]);
    } else if (link->object != nullptr) {
      link->Remove();
      for (auto& model : models) model.remove(link);
    } else if (pick(random, 0, 1) == 0) {
      heads[which].Append(link, link);
      models[which].push_back(link);
    } else {
      heads[which].Insert(link, link);
      models[which].push_front(link);
    }
    for (int i = 0; i < 2; ++i) {
      const std::vector<OSLink*> nodes = ring_nodes(heads[i]);
      ASSERT_TRUE(std::equal(nodes.begin(), nodes.end(), models[i].begin(), models[i].end()));
      ASSERT_EQ(heads[i].ListLength(), static_cast<int>(models[i].size()));
      for (OSLink* node : nodes) ASSERT_EQ(node->object, node);
    }
  }
  for (auto& link : links) link->Remove();
}

}  // namespace
}  // namespace oskernel_test
