// Lists of references through pool links, and the protected list: which link goes where, that every link goes
// home, and that a list shared by threads stays sound.

#include <algorithm>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/link.h"
#include "support/link_objects.h"
#include "support/ring_check.h"
#include "support/section_wait.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class IndirectList : public PoolTest {
 protected:
  IndirectList() { cfg.link_qty = 100; }

  Thing a{"a"}, b{"b"}, c{"c"}, d{"d"};
};

TEST_F(IndirectList, RefersToObjectsThroughPoolLinks) {
  OSIndirectList list;
  EXPECT_EQ(list.delete_contents_on_destroy, 0);
  list.Append(&a);
  list.Append(&b);
  list.Insert(&c);
  EXPECT_EQ(names(list), "cab");
  EXPECT_EQ(links_in_use(), 3);
  EXPECT_EQ(list.Size(), 3);
  EXPECT_EQ(list.Signature(), 3u);
  EXPECT_EQ(list.FirstObject(), &c);
  EXPECT_EQ(list.LastObject(), &b);
  EXPECT_EQ(list.PosInList(&a), 1);
  EXPECT_EQ(list[2], &b);
  char key[] = "b";
  EXPECT_EQ(list.Find(key), &b);
  EXPECT_EQ(list.Search(key), 2);
  for (OSLink* node : ring_nodes(list)) {
    EXPECT_TRUE(node->Validate());
    EXPECT_FALSE(node->isFree);
  }
}

TEST_F(IndirectList, OneObjectCanBeInManyListsAndInOneListTwice) {
  OSIndirectList first, second;
  first.Append(&a);
  first.Append(&b);
  first.Append(&a);
  second.Append(&a);
  EXPECT_EQ(names(first), "aba");
  EXPECT_EQ(names(second), "a");
  first.Remove(&a);
  EXPECT_EQ(names(first), "ba") << "the first reference goes";
  EXPECT_EQ(names(second), "a");
}

TEST_F(IndirectList, NullIsNeverPutIn) {
  OSIndirectList list;
  list.Append(&a);
  list.Append(nullptr);
  list.Insert(nullptr);
  list.InsertBefore(&a, nullptr);
  list.InsertBefore(nullptr, &b);
  list.InsertBefore(nullptr, nullptr);
  list.InsertAt(&a, nullptr);
  list.InsertAt(nullptr, &b);
  list.InsertAt(nullptr, nullptr);
  EXPECT_EQ(list.AppendLink(nullptr), nullptr);
  EXPECT_EQ(names(list), "a");
  EXPECT_EQ(list.Signature(), 1u);
  EXPECT_EQ(links_in_use(), 1);
}

TEST_F(IndirectList, InsertBeforeAndInsertAtPlaceTheObjectBesideThePosition) {
  struct Row {
    bool at;
    OSListObj* position;
    const char* result;
  };
  const Row rows[] = {
      {false, &a, "dabc"}, {false, &b, "adbc"}, {false, &c, "abdc"},
      {true, &a, "adbc"},  {true, &b, "abdc"},  {true, &c, "abcd"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.result);
    OSIndirectList list;
    for (Thing* thing : {&a, &b, &c}) list.Append(thing);
    if (row.at) {
      list.InsertAt(row.position, &d);
    } else {
      list.InsertBefore(row.position, &d);
    }
    EXPECT_EQ(names(list), row.result);
    EXPECT_EQ(list.Size(), 4);
    EXPECT_EQ(list.Signature(), 4u);
    EXPECT_TRUE(ListIsSound(list));
    EXPECT_EQ(links_in_use(), 4);
  }
}

TEST_F(IndirectList, AnUnknownPositionMeansTheFrontForInsertBeforeAndTheBackForInsertAt) {
  OSIndirectList list;
  list.Append(&a);
  list.Append(&b);
  Thing stranger("x");
  list.InsertBefore(&stranger, &c);
  EXPECT_EQ(names(list), "cab");
  EXPECT_EQ(list.Signature(), 3u);
  list.InsertAt(&stranger, &d);
  EXPECT_EQ(names(list), "cabd");
  EXPECT_EQ(list.Signature(), 4u);
  EXPECT_EQ(list.Size(), 4);

  OSIndirectList empty;
  empty.InsertBefore(&stranger, &a);
  empty.InsertAt(&stranger, &b);
  EXPECT_EQ(names(empty), "ab");
}

TEST_F(IndirectList, InsertingBesideAnObjectThatIsInTwiceTakesTheFirst) {
  OSIndirectList list;
  for (Thing* thing : {&a, &b, &a}) list.Append(thing);
  list.InsertAt(&a, &c);
  EXPECT_EQ(names(list), "acba");
  list.InsertBefore(&a, &d);
  EXPECT_EQ(names(list), "dacba");
}

TEST_F(IndirectList, RemoveGivesExactlyOneLinkBack) {
  OSIndirectList list;
  for (Thing* thing : {&a, &b, &c}) list.Append(thing);
  list.Remove(&b);
  EXPECT_EQ(names(list), "ac");
  EXPECT_EQ(links_in_use(), 2);
  EXPECT_EQ(list.Size(), 2);
  EXPECT_EQ(list.Signature(), 4u);
}

TEST_F(IndirectList, RemoveOfAStrangerChangesNothing) {
  OSIndirectList list;
  list.Append(&a);
  list.Remove(&b);
  list.Remove(nullptr);
  EXPECT_EQ(names(list), "a");
  EXPECT_EQ(list.Size(), 1);
  EXPECT_EQ(list.Signature(), 1u);
  EXPECT_EQ(links_in_use(), 1);
}

TEST_F(IndirectList, ARememberedLinkIsTakenOutWithoutAWalk) {
  OSIndirectList list;
  list.Append(&a);
  OSLink* link = list.AppendLink(&b);
  list.Append(&c);
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->object, static_cast<void*>(static_cast<OSListObj*>(&b)));
  EXPECT_EQ(names(list), "abc");
  EXPECT_EQ(list.Signature(), 3u);
  list.RemoveLink(link);
  EXPECT_EQ(names(list), "ac");
  EXPECT_EQ(list.Size(), 2);
  EXPECT_EQ(list.Signature(), 4u);
  EXPECT_EQ(links_in_use(), 2);
}

TEST_F(IndirectList, ALinkIsTakenOutOnce) {
  OSIndirectList list;
  list.Append(&a);
  OSLink* link = list.AppendLink(&b);
  list.RemoveLink(nullptr);
  EXPECT_EQ(list.Signature(), 2u);
  list.RemoveLink(link);
  EXPECT_THAT(console.fatals(), IsEmpty());
  list.RemoveLink(link);  // it lies in the pool by now
  EXPECT_THAT(console.fatals(), ElementsAre("OSLink::Free already free"));
  EXPECT_EQ(names(list), "a");
  EXPECT_EQ(list.Size(), 1);
  EXPECT_EQ(list.Signature(), 3u);
  EXPECT_TRUE(LinkPoolIsSound());
  EXPECT_EQ(links_in_use(), 1);
}

TEST_F(IndirectList, FlushGivesBackALinkThatRefersToNothing) {
  std::vector<std::string> destroyed;
  OSIndirectList owner(1);
  owner.Append(new Thing("x", &destroyed));
  owner.OSLinkList::Append(OSLink::Alloc(), nullptr);
  owner.Append(new Thing("y", &destroyed));
  EXPECT_EQ(owner.Size(), 3);
  owner.Flush();
  EXPECT_THAT(destroyed, ElementsAre("x", "y"));
  EXPECT_EQ(owner.Size(), 0);
  EXPECT_EQ(links_in_use(), 0);
}

TEST_F(IndirectList, RemoveOfNothingLeavesALinkThatRefersToNothing) {
  OSIndirectList list;
  list.Append(&a);
  list.OSLinkList::Append(OSLink::Alloc(), nullptr);
  list.Remove(nullptr);
  EXPECT_EQ(list.ListLength(), 2);
  EXPECT_EQ(list.Size(), 2);
  EXPECT_EQ(links_in_use(), 2);
}

/// Looks at the link that its list had for it when it is destroyed.
class LinkKeeper : public OSListObj {
 public:
  ~LinkKeeper() override {
    EXPECT_EQ(link->object, nullptr);
    EXPECT_EQ(link->next, link);
    EXPECT_FALSE(link->isFree);
  }
  OSLink* link = nullptr;
};

TEST_F(IndirectList, FlushUnlinksBeforeItDestroysAndGivesTheLinkBackAfterwards) {
  OSIndirectList owner(1);
  for (int i = 0; i < 3; ++i) {
    LinkKeeper* keeper = new LinkKeeper;
    keeper->link = owner.AppendLink(keeper);
  }
  owner.Flush();
  EXPECT_EQ(links_in_use(), 0);
}

TEST_F(IndirectList, FlushKeepsTheObjectsUnlessTheListOwnsThem) {
  std::vector<std::string> destroyed;
  {
    Thing x("x", &destroyed), y("y", &destroyed);
    OSIndirectList list;
    list.Append(&x);
    list.Append(&y);
    list.Flush();
    EXPECT_THAT(destroyed, IsEmpty());
    EXPECT_EQ(list.Size(), 0);
    EXPECT_EQ(list.Signature(), 2u) << "the signature is left alone";
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(links_in_use(), 0);
  }
  destroyed.clear();

  OSIndirectList owner(1);
  EXPECT_EQ(owner.delete_contents_on_destroy, 1);
  for (const char* name : {"x", "y", "z"}) owner.Append(new Thing(name, &destroyed));
  owner.Flush();
  EXPECT_THAT(destroyed, ElementsAre("x", "y", "z"));
  EXPECT_EQ(owner.Size(), 0);
  EXPECT_EQ(owner.Signature(), 3u);
  EXPECT_EQ(links_in_use(), 0);
}

TEST_F(IndirectList, TheDestructorFlushes) {
  std::vector<std::string> destroyed;
  {
    OSIndirectList keeper, owner(1);
    keeper.Append(&a);
    owner.Append(new Thing("x", &destroyed));
    owner.Append(new Thing("y", &destroyed));
  }
  EXPECT_THAT(destroyed, ElementsAre("x", "y"));
  EXPECT_EQ(links_in_use(), 0);
}

TEST_F(IndirectList, TheDestructorIsReachedThroughTheBaseClass) {
  std::vector<std::string> destroyed;
  OSLink* list = new OSIndirectList(1);
  static_cast<OSIndirectList*>(list)->Append(new Thing("x", &destroyed));
  list->Flush();
  EXPECT_THAT(destroyed, ElementsAre("x"));
  static_cast<OSIndirectList*>(list)->Append(new Thing("y", &destroyed));
  delete list;
  EXPECT_THAT(destroyed, ElementsAre("x", "y"));
  EXPECT_EQ(links_in_use(), 0);
}

/// Leaves the lists it was told about when it is destroyed, as triggers and tasks do.
class Leaver : public OSListObj {
 public:
  ~Leaver() override {
    for (const auto& [list, object] : leaves) list->Remove(object);
  }
  std::vector<std::pair<OSIndirectList*, OSListObj*>> leaves;
};

TEST_F(IndirectList, FlushSurvivesDestructorsThatUnlinkThemselvesAndOthers) {
  OSIndirectList owner(1), elsewhere;
  std::vector<Leaver*> leavers;
  for (int i = 0; i < 6; ++i) {
    Leaver* leaver = new Leaver;
    leavers.push_back(leaver);
    owner.Append(leaver);
    elsewhere.Append(leaver);
    leaver->leaves.emplace_back(&owner, leaver);
    leaver->leaves.emplace_back(&elsewhere, leaver);
  }
  Leaver* spared = leavers[1];
  leavers[0]->leaves.emplace_back(&owner, spared);  // the node that the walk would come to next
  Leaver* last = leavers[5];
  leavers[2]->leaves.emplace_back(&owner, last);
  owner.Flush();
  EXPECT_EQ(owner.Size(), 0);
  EXPECT_TRUE(ListIsSound(owner));
  EXPECT_TRUE(ListIsSound(elsewhere));
  EXPECT_EQ(elsewhere.Size(), 2) << "the two that were taken out still live";
  delete spared;
  delete last;
  EXPECT_EQ(elsewhere.Size(), 0);
  EXPECT_EQ(links_in_use(), 0);
}

TEST_F(IndirectList, FlushOfAnObjectThatIsInTwiceDestroysItOnceWhenItUnlinksItself) {
  OSIndirectList owner(1);
  Leaver* leaver = new Leaver;
  owner.Append(leaver);
  owner.Append(&*leaver);
  leaver->leaves = {{&owner, leaver}};
  owner.Flush();
  EXPECT_EQ(owner.Size(), 0);
  EXPECT_EQ(links_in_use(), 0);
}

// --------------------------------------------------------------------------------------------- Validate

TEST_F(IndirectList, ValidateSaysNothingAboutASoundList) {
  OSIndirectList list;
  list.Validate("here");
  for (Thing* thing : {&a, &b, &c}) list.Append(thing);
  list.Validate("here");
  EXPECT_THAT(console.fatals(), IsEmpty());
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_F(IndirectList, ValidateReportsANodeThatIsNoPoolLink) {
  OSIndirectList list;
  OSLink stranger;
  list.Append(&a);
  list.OSLinkList::Append(&stranger, &b);
  list.Append(&c);
  list.Validate("Queue::Check");
  char expected[200];
  snprintf(expected, sizeof expected, "OSIndirectList %p corrupted @%p size=%d count=%d in %s",
           static_cast<void*>(&list), static_cast<void*>(&stranger), 3, 1, "Queue::Check");
  EXPECT_THAT(console.fatals(), ElementsAre(expected));
  list.OSLinkList::Remove(&stranger);
  EXPECT_TRUE(ListIsSound(list));
  console.clear();
  list.Validate("again");
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(IndirectList, ValidateReportsEveryStrangeNode) {
  OSIndirectList list;
  OSLink first, second;
  list.OSLinkList::Append(&first, &a);
  list.OSLinkList::Append(&second, &b);
  list.Validate("x");
  char expected[2][200];
  snprintf(expected[0], 200, "OSIndirectList %p corrupted @%p size=2 count=0 in x", static_cast<void*>(&list),
           static_cast<void*>(&first));
  snprintf(expected[1], 200, "OSIndirectList %p corrupted @%p size=2 count=1 in x", static_cast<void*>(&list),
           static_cast<void*>(&second));
  EXPECT_THAT(console.fatals(), ElementsAre(expected[0], expected[1]));
  list.OSLinkList::Remove(&first);
  list.OSLinkList::Remove(&second);
}

TEST_F(IndirectList, ValidateReportsACountThatDoesNotMatch) {
  OSIndirectList list;
  list.Append(&a);
  list.Append(&b);
  for (int wrong : {0, 1, 3, -1}) {
    console.clear();
    list.number_in_list = wrong;
    list.Validate("there");
    char expected[200];
    snprintf(expected, sizeof expected, "OSIndirectList %p incorrect length size=%d count=%d in %s",
             static_cast<void*>(&list), wrong, 2, "there");
    EXPECT_THAT(console.fatals(), ElementsAre(expected));
  }
  list.number_in_list = 2;
}

TEST_F(IndirectList, ValidateEndsInARingThatNeverComesBack) {
  // What a link that went home while it was listed leads into: the pool's ring, of any length.
  for (int nodes = 1; nodes < 20; ++nodes) {
    SCOPED_TRACE(nodes);
    OSIndirectList list;
    for (int i = 0; i < nodes; ++i) list.Append(&a);
    OSLink* const last = list.Last();
    console.clear();
    last->next = OSLink::link_pool->First();
    list.Validate("there");
    last->next = &list;
    ASSERT_FALSE(console.fatals().empty());
    EXPECT_NE(console.fatals().back().find(" incorrect length "), std::string::npos);
    EXPECT_TRUE(ListIsSound(list));
  }
}

TEST_F(IndirectList, ValidateWithoutAConsoleIsHarmless) {
  OSIndirectList list;
  OSLink stranger;
  list.OSLinkList::Append(&stranger, &a);
  list.number_in_list = 5;
  Console = nullptr;
  list.Validate("x");
  Console = &console;
  list.number_in_list = 1;
  list.OSLinkList::Remove(&stranger);
}

// --------------------------------------------------------------------------------------- protected list

class ProtectedList : public IndirectList {};

TEST_F(ProtectedList, WorksLikeAnIndirectList) {
  OSProtectedList list;
  EXPECT_NE(list.cs.sem, nullptr);
  EXPECT_EQ(list.delete_contents_on_destroy, 0);
  EXPECT_EQ(list.FirstObject(), nullptr);
  EXPECT_EQ(list.LastObject(), nullptr);
  list.Append(&a);
  list.Append(&b);
  list.Insert(&c);
  EXPECT_EQ(names(list), "cab");
  EXPECT_EQ(list.FirstObject(), &c);
  EXPECT_EQ(list.LastObject(), &b);
  list.Remove(&a);
  list.Remove(&d);
  EXPECT_EQ(names(list), "cb");
  EXPECT_EQ(list.Size(), 2);
  list.Flush();
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(list.Signature(), 4u);
  EXPECT_EQ(links_in_use(), 0);
}

TEST_F(ProtectedList, CanOwnItsObjectsOnceToldTo) {
  std::vector<std::string> destroyed;
  {
    OSProtectedList list;
    list.SetDeleteContents(1);
    list.Append(new Thing("x", &destroyed));
    list.Append(new Thing("y", &destroyed));
  }
  EXPECT_THAT(destroyed, ElementsAre("x", "y"));
}

TEST_F(ProtectedList, EveryOperationTakesItsSection) {
  OSProtectedList list;
  list.Append(&a);
  ExpectOthersWait(list.cs, {
                                {"Append", [&] { list.Append(&b); }},
                                {"Insert", [&] { list.Insert(&b); }},
                                {"Remove", [&] { list.Remove(&b); }},
                                {"FirstObject", [&] { list.FirstObject(); }},
                                {"LastObject", [&] { list.LastObject(); }},
                                {"Flush", [&] { list.Flush(); }},
                            });
}

TEST_F(ProtectedList, AThreadThatHoldsTheSectionCanUseTheList) {
  OSProtectedList list;
  EnterCriticalSection(&list.cs);
  list.Append(&a);
  list.Insert(&b);
  EXPECT_EQ(list.LastObject(), &a);
  list.Remove(&b);
  list.Flush();
  LeaveCriticalSection(&list.cs);
  EXPECT_EQ(list.cs.owner_count, 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(ProtectedList, StaysSoundUnderThreads) {
  OSProtectedList list;
  constexpr int kThreads = 4;
  std::vector<std::thread> threads;
  std::vector<std::vector<std::unique_ptr<Thing>>> things(kThreads);
  for (auto& mine : things) {
    for (int i = 0; i < 10; ++i) mine.push_back(std::make_unique<Thing>("t"));
  }
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto& mine = things[static_cast<std::size_t>(t)];
      for (int round = 0; round < 300; ++round) {
        for (auto& thing : mine) {
          if (round % 2 == 0) {
            list.Append(thing.get());
          } else {
            list.Insert(thing.get());
          }
        }
        list.FirstObject();
        list.LastObject();
        for (auto& thing : mine) list.Remove(thing.get());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(list.Size(), 0);
  EXPECT_EQ(list.Signature(), static_cast<ULONG>(kThreads) * 300 * 10 * 2);
  EXPECT_TRUE(ListIsSound(list));
  EXPECT_THAT(console.fatals(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------ random

TEST_F(IndirectList, RandomUseBehavesLikeAStandardList) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  constexpr int kThings = 12;
  std::vector<std::unique_ptr<Thing>> things;
  for (int i = 0; i < kThings; ++i) things.push_back(std::make_unique<Thing>(std::string(1, char('a' + i))));
  OSIndirectList list;
  std::list<Thing*> model;
  ULONG signature = 0;
  const auto any = [&] { return things[static_cast<std::size_t>(pick(random, 0, kThings - 1))].get(); };
  for (int round = 0; round < 20000; ++round) {
    Thing* thing = any();
    Thing* position = any();
    const auto at = std::find(model.begin(), model.end(), position);
    const int operation = pick(random, 0, model.size() > 30 ? 12 : 9);
    switch (operation) {
      case 0:
        list.Append(thing);
        model.push_back(thing);
        ++signature;
        break;
      case 1:
        list.Insert(thing);
        model.push_front(thing);
        ++signature;
        break;
      case 2:
        list.InsertBefore(position, thing);
        model.insert(at == model.end() ? model.begin() : at, thing);
        ++signature;
        break;
      case 3:
        list.InsertAt(position, thing);
        model.insert(at == model.end() ? at : std::next(at), thing);
        ++signature;
        break;
      case 4:
        if (pick(random, 0, 200) == 0) {
          list.Flush();
          model.clear();
        }
        break;
      default: {
        list.Remove(thing);
        const auto found = std::find(model.begin(), model.end(), thing);
        if (found == model.end()) break;
        model.erase(found);
        ++signature;
        break;
      }
    }
    ASSERT_TRUE(ListIsSound(list));
    ASSERT_EQ(list.Signature(), signature);
    ASSERT_EQ(links_in_use(), static_cast<int>(model.size()));
    std::string expected;
    for (Thing* one : model) expected += one->name();
    ASSERT_EQ(names(list), expected);
  }
  list.Validate("the end");
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
