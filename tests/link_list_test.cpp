// Intrusive lists: their counters, their searches, the quirks that callers rely on, and that a refused
// operation changes nothing.

#include <algorithm>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/link.h"
#include "support/kernel_fixture.h"
#include "support/link_objects.h"
#include "support/ring_check.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;

OSListObj* obj_of(Item& item) { return &item; }

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
  EXPECT_EQ(names(list), "dceab");
  EXPECT_EQ(list.FirstObject(), obj_of(d));
  EXPECT_EQ(list.LastObject(), obj_of(b));
  EXPECT_TRUE(ListIsSound(list));
}

TEST(LinkList, InsertAtPutsTheLinkImmediatelyBeforeThePosition) {
  OSLinkList list;
  Item a("a"), b("b"), c("c"), d("d");
  list.Append(&a);
  list.InsertAt(&a, &b, &b);
  EXPECT_EQ(names(list), "ba");
  list.InsertAt(&a, &c, &c);
  EXPECT_EQ(names(list), "bca");
  list.InsertAt(&list, &d, &d);  // before the head: at the back
  EXPECT_EQ(names(list), "bcad");
  EXPECT_TRUE(ListIsSound(list));
}

TEST(LinkList, ANullLinkIsIgnored) {
  OSLinkList list;
  Item a("a");
  OSLink* const no_link = nullptr;
  OSLinkListObj* const no_object = nullptr;
  list.Append(&a);
  list.Append(no_link, &a);
  list.Append(no_object);
  list.Insert(no_link, &a);
  list.Insert(no_object);
  list.InsertAt(&a, no_link, &a);
  list.Remove(no_link);
  EXPECT_EQ(names(list), "a");
  EXPECT_EQ(list.Size(), 1);
  EXPECT_EQ(list.Signature(), 1u);
}

TEST(LinkList, ALinkMayStandForNoObject) {
  OSLinkList list;
  Item a("a"), b("b");
  OSLink link, before;
  list.Append(&a);
  list.Append(&link, nullptr);
  list.InsertAt(&link, &before, nullptr);
  list.Append(&b);
  EXPECT_EQ(list.Size(), 4);
  EXPECT_EQ(list.Signature(), 4u);
  EXPECT_THAT(ring_nodes(list), ElementsAre(&a, &before, &link, &b));
  EXPECT_EQ(list[2], nullptr);
  EXPECT_EQ(list.PosInList(&b), 3);
  list.Remove(&link);
  EXPECT_EQ(list.Size(), 4) << "a link without object counts as detached";
  EXPECT_EQ(list.Signature(), 4u);
  EXPECT_EQ(list.ListLength(), 4);
}

TEST(LinkList, OneObjectCanStandInManyListsThroughOtherLinks) {
  OSLinkList first, second;
  Item a("a");
  OSLink link;
  first.Append(&a);
  second.Append(&link, &a);
  EXPECT_EQ(names(first), "a");
  EXPECT_EQ(names(second), "a");
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
  EXPECT_EQ(names(list), "b");
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
  EXPECT_EQ(names(list), "ba");
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
  EXPECT_EQ(names(list), "ab");
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

  class NoAnswer : public OSLinkList {
   public:
    void Lookup(char*, OSListObj**, OSLink**, int*) override {}
  };
  NoAnswer silent;
  EXPECT_EQ(silent.Search(key_text("x")), -1);
  EXPECT_EQ(silent.Find(key_text("x")), nullptr);
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
  class OnTheHeap : public Counted<Item> {
   public:
    using Counted::Counted;
    void Free() override { delete this; }
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

TEST_F(ListRefusal, ALinkThatStandsForNoObjectInARingIsRefusedToo) {
  OSLinkList home, list;
  Item a("a");
  OSLink link;
  home.Append(&link, nullptr);
  home.Append(&a);
  list.Append(&link, &a);
  EXPECT_THAT(console.fatals(), ElementsAre("OSLinkList::Append of link that is already in a list"));
  EXPECT_THAT(ring_nodes(home), ElementsAre(&link, &a));
  EXPECT_TRUE(list.IsEmpty());
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(list.Signature(), 0u);
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
        for (Item* gone : model) ASSERT_EQ(freed[i++], gone->name());
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
    const auto match =
        std::find_if(model.begin(), model.end(), [&](Item* one) { return one->name() == key; });
    ASSERT_EQ(list.Search(key_text(key.c_str())),
              match == model.end() ? -1 : static_cast<int>(std::distance(model.begin(), match)));
    ASSERT_EQ(list.Find(key_text(key.c_str())), match == model.end() ? nullptr : obj_of(**match));
  }
  while (!model.empty()) {
    list.Remove(model.front());
    model.pop_front();
  }
}

}  // namespace
}  // namespace oskernel_test
