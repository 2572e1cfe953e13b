// Iterators over rings and lists: where they stand after each step, and that they stay at the end.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/link.h"
#include "support/link_objects.h"
#include "support/ring_check.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;

OSListObj* obj_of(Item& item) { return &item; }

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

TEST_F(ListIterator, PreDecrementReturnsTheObjectThatItStoodOnToo) {
  OSListIterator it(&list_);
  it.Goto(2);
  EXPECT_EQ(--it, obj_of(c_));
  EXPECT_EQ(it.Link(), &b_);
  EXPECT_EQ(--it, obj_of(b_));
  EXPECT_EQ(--it, obj_of(a_));
  EXPECT_TRUE(it.IsEndOfList());
  EXPECT_EQ(--it, nullptr);
  EXPECT_TRUE(it.IsEndOfList());
}

TEST_F(ListIterator, IndexAndGotoCountFromTheFrontWhereverItStands) {
  OSListIterator it(&list_);
  it.Goto(2);
  EXPECT_EQ(it[1], obj_of(b_));
  EXPECT_EQ(it.Link(), &c_) << "looking does not move it";
  it.Goto(1);
  EXPECT_EQ(it.Link(), &b_);
  it.Goto(3);
  EXPECT_EQ(it[0], obj_of(a_));
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

}  // namespace
}  // namespace oskernel_test
