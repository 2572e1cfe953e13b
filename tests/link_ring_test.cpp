// The bare ring and the heads of rings: what each operation leaves behind, and what becomes of the nodes when
// a head goes.

#include <algorithm>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/link.h"
#include "support/link_objects.h"
#include "support/ring_check.h"
#include "support/seed.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST(LinkRing, FlushEndsAtARingWhosePointersHaveBeenWiped) {
  OSLinkList list;
  list.next = nullptr;
  list.number_in_list = 3;
  list.Flush();
  EXPECT_EQ(list.Size(), 0);
  list.next = &list;
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

/// A heap node that counts its destructions.
class HeapNode : public OSLinkListObj {
 public:
  explicit HeapNode(std::vector<int>* destroyed, int number) : destroyed_(destroyed), number_(number) {}
  ~HeapNode() override { destroyed_->push_back(number_); }

 private:
  std::vector<int>* destroyed_;
  int number_;
};

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
  EXPECT_EQ(names(other), "ca");
  EXPECT_EQ(b.next, static_cast<OSLink*>(&b)) << "nothing refers to the head that is gone";
  EXPECT_EQ(a.frees, 0);
}

TEST(LinkHead, AListOfStaticStorageIsLeftAsItIsWhenItIsDestroyed) {
  Item a("a"), b("b");
  alignas(OSLinkList) std::byte storage[sizeof(OSLinkList)];
  OSLinkList* list = new (storage) OSLinkList(OSStaticList{});
  EXPECT_EQ(list->delete_contents_on_destroy, 0);
  EXPECT_EQ(list->Size(), 0);
  EXPECT_EQ(list->Signature(), 0u);
  list->Append(&a);
  list->Append(&b);
  OSLink* const head = list;
  list->~OSLinkList();
  EXPECT_EQ(a.previous, head);
  EXPECT_EQ(a.next, &b);
  EXPECT_EQ(b.previous, &a);
  EXPECT_EQ(b.next, head);
  for (Item* item : {&a, &b}) {
    EXPECT_EQ(item->object, static_cast<void*>(static_cast<OSListObj*>(item)));
    EXPECT_EQ(item->frees, 0);
    item->next = item->previous = item;
  }
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

// -------------------------------------------------------------------------------------- against std::list

TEST(LinkRingRandom, CompactedRingsBehaveLikeSplicedLists) {
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
