// Queues that let their triggers look at every change, and the protected queue between threads.

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/buffer_fixture.h"
#include "support/link_objects.h"
#include "support/queue_probe.h"
#include "support/ring_check.h"
#include "support/section_wait.h"
#include "support/seed.h"
#include "support/vtable_slot.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class QueueTest : public PoolTest {
 protected:
  Item a, b, c;
};

class Queue : public QueueTest {};

TEST_F(Queue, StartsEmptyWithoutTriggers) {
  OSQueue queue;
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_EQ(queue.delete_contents_on_destroy, 0);
  EXPECT_EQ(queue.TriggerList(), &queue.triggers);
  EXPECT_EQ(queue.triggers.Size(), 0);
  EXPECT_EQ(queue.triggers.delete_contents_on_destroy, 0);
  OSQueue owner(1);
  EXPECT_EQ(owner.delete_contents_on_destroy, 1);
  EXPECT_EQ(owner.triggers.delete_contents_on_destroy, 0);
}

TEST_F(Queue, KeepsItsObjectsInOrder) {
  OSQueue queue;
  queue.Append(&a);
  queue.Append(&b);
  queue.Insert(&c);
  EXPECT_THAT(ring_nodes(queue), ElementsAre(&c, &a, &b));
  EXPECT_EQ(queue.FirstObject(), static_cast<OSListObj*>(&c));
  EXPECT_EQ(queue.LastObject(), static_cast<OSListObj*>(&b));
  queue.Remove(&a);
  EXPECT_EQ(queue.Size(), 2);
  EXPECT_EQ(queue.Signature(), 4u);
  queue.Flush();
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_EQ(b.frees, 1);
  EXPECT_EQ(c.frees, 1);
  EXPECT_EQ(a.frees, 0);
}

TEST_F(Queue, EveryChangeChecksEveryTriggerOnceWithTheTriggerSectionHeld) {
  OSQueue queue;
  Probe probes[3];
  for (Probe& probe : probes) {
    probe.watched = &queue;
    queue.TriggerList()->Append(&probe);
  }
  struct Row {
    const char* name;
    void (*change)(OSQueue& queue, Item& item);
    int size_after;
  };
  const Row rows[] = {
      {"Append", [](OSQueue& q, Item& i) { q.Append(&i); }, 1},
      {"Remove", [](OSQueue& q, Item& i) { q.Remove(&i); }, 0},
      {"Insert", [](OSQueue& q, Item& i) { q.Insert(&i); }, 1},
      {"Flush", [](OSQueue& q, Item&) { q.Flush(); }, 0},
      {"Flush of an empty queue", [](OSQueue& q, Item&) { q.Flush(); }, 0},
      {"Remove of an object that is not in", [](OSQueue& q, Item& i) { q.Remove(&i); }, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.change(queue, a);
    for (Probe& probe : probes) {
      EXPECT_EQ(probe.taken_checks(), 1);
      EXPECT_TRUE(probe.trigger_section_held);
      EXPECT_EQ(probe.size_at_check, row.size_after) << "the check comes after the change";
    }
    EXPECT_EQ(OS_CRITICAL_TRIGGER.owner_count, 0);
  }
  queue.triggers.Flush();
}

TEST_F(Queue, FlushOfManyObjectsChecksOnce) {
  OSQueue queue;
  queue.Append(&a);
  queue.Append(&b);
  queue.Append(&c);
  Probe probe;
  queue.TriggerList()->Append(&probe);
  queue.Flush();
  EXPECT_EQ(probe.checks, 1);
  queue.TriggerList()->Remove(&probe);
}

TEST_F(Queue, ATriggerThatIsRegisteredTwiceIsCheckedTwice) {
  OSQueue queue;
  Probe probe;
  queue.TriggerList()->Append(&probe);
  queue.TriggerList()->Append(&probe);
  queue.Append(&a);
  EXPECT_EQ(probe.checks, 2);
  queue.triggers.Flush();
  queue.Remove(&a);
}

TEST_F(Queue, RegisteredTriggersAreReferredToOnly) {
  Probe probe;
  const ULONG links = OSLink::link_pool_size;
  {
    OSQueue queue;
    queue.TriggerList()->Append(&probe);
    EXPECT_EQ(OSLink::link_pool_size, links - 1);
  }
  EXPECT_EQ(OSLink::link_pool_size, links) << "the links go home with the queue";
  EXPECT_EQ(probe.checks, 0);
  EXPECT_EQ(probe.State(), OS_T_INACTIVE);
}

TEST_F(Queue, TheChecksSurviveATriggerThatTakesTriggersOut) {
  // Which of the others are still checked: all that stand in the list when their turn comes.
  struct Row {
    const char* name;
    std::size_t acts;
    std::vector<std::size_t> takes_out;
    std::vector<int> checks;
  };
  const Row rows[] = {
      {"itself", 1, {1}, {1, 1, 1, 1}},
      {"the next one", 1, {2}, {1, 1, 0, 1}},
      {"the previous one", 1, {0}, {1, 1, 1, 1}},
      {"itself and the next one", 1, {1, 2}, {1, 1, 0, 1}},
      {"all", 0, {0, 1, 2, 3}, {1, 0, 0, 0}},
      {"all others", 0, {3, 2, 1}, {1, 0, 0, 0}},
      {"the last one from the last but one", 2, {3}, {1, 1, 1, 0}},
      {"itself as the last one", 3, {3}, {1, 1, 1, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    OSQueue queue;
    Probe probes[4];
    for (Probe& probe : probes) queue.TriggerList()->Append(&probe);
    probes[row.acts].on_check = [&] {
      for (std::size_t i : row.takes_out) queue.TriggerList()->Remove(&probes[i]);
    };
    queue.Append(&a);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(probes[i].taken_checks(), row.checks[i]) << i;
    EXPECT_EQ(queue.triggers.Size(), 4 - static_cast<int>(row.takes_out.size()));
    EXPECT_TRUE(ListIsSound(queue.triggers));
    EXPECT_EQ(OS_CRITICAL_TRIGGER.owner_count, 0);
    probes[row.acts].on_check = nullptr;
    queue.Remove(&a);
    queue.triggers.Flush();
  }
}

TEST_F(Queue, TheChecksSurviveATriggerThatDestroysAnother) {
  OSQueue queue;
  Probe first, last;
  auto middle = std::make_unique<Probe>();
  queue.TriggerList()->Append(&first);
  queue.TriggerList()->Append(middle.get());
  queue.TriggerList()->Append(&last);
  first.on_check = [&] {
    if (middle == nullptr) return;
    queue.TriggerList()->Remove(middle.get());
    middle.reset();
  };
  queue.Append(&a);
  EXPECT_EQ(first.checks, 1);
  EXPECT_EQ(last.checks, 1);
  queue.Remove(&a);
  queue.triggers.Flush();
}

TEST_F(Queue, ATriggerThatRegistersAgainDuringTheChecksIsNotAskedTwice) {
  // A queue trigger that fires and is cleared at once leaves the list and comes back at its end.
  OSQueue queue;
  Probe probes[3];
  for (Probe& probe : probes) {
    queue.TriggerList()->Append(&probe);
    probe.on_check = [&] {
      queue.TriggerList()->Remove(&probe);
      queue.TriggerList()->Append(&probe);
    };
  }
  queue.Append(&a);
  for (Probe& probe : probes) {
    EXPECT_EQ(probe.taken_checks(), 1);
    probe.on_check = nullptr;
  }
  EXPECT_EQ(queue.triggers.Size(), 3);
  queue.Remove(&a);
  for (Probe& probe : probes) EXPECT_EQ(probe.checks, 1);
  queue.triggers.Flush();
}

TEST_F(Queue, ATriggerThatRegistersDuringTheChecksIsAskedAtTheNextChange) {
  // Whoever takes out the last one must not lead the walk on to what has come after it.
  struct Row {
    const char* name;
    std::size_t acts;
    std::vector<std::size_t> takes_out;
    std::vector<int> checks;
  };
  const Row rows[] = {
      {"nobody leaves", 0, {}, {1, 1, 1}},
      {"the last one leaves", 0, {2}, {1, 1, 0}},
      {"the last two leave", 0, {2, 1}, {1, 0, 0}},
      {"the last two leave, the other way round", 0, {1, 2}, {1, 0, 0}},
      {"the last one leaves when it is next", 1, {2}, {1, 1, 0}},
      {"the first one leaves from the last one's check", 2, {0}, {1, 1, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    OSQueue queue;
    Probe probes[3], newcomer;
    for (Probe& probe : probes) queue.TriggerList()->Append(&probe);
    probes[row.acts].on_check = [&] {
      for (std::size_t i : row.takes_out) queue.TriggerList()->Remove(&probes[i]);
      queue.TriggerList()->Append(&newcomer);
    };
    queue.Append(&a);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(probes[i].checks, row.checks[i]) << i;
    EXPECT_EQ(newcomer.checks, 0);
    probes[row.acts].on_check = nullptr;
    queue.Remove(&a);
    EXPECT_EQ(newcomer.checks, 1);
    queue.triggers.Flush();
  }
}

TEST_F(Queue, TheChecksSurviveATriggerThatFlushesTheList) {
  OSQueue queue;
  Probe probes[3];
  for (Probe& probe : probes) queue.TriggerList()->Append(&probe);
  bool once = true;
  probes[0].on_check = [&] {
    if (!std::exchange(once, false)) return;
    queue.triggers.Flush();
    for (Probe& probe : probes) queue.TriggerList()->Append(&probe);  // with the same links
  };
  queue.Append(&a);
  EXPECT_EQ(probes[0].taken_checks(), 1);
  for (Probe& probe : probes) EXPECT_EQ(probe.checks, 0);
  queue.Remove(&a);
  for (Probe& probe : probes) EXPECT_EQ(probe.checks, 1);
  queue.triggers.Flush();
}

TEST_F(Queue, TheChecksEndAtALinkThatWentHomeUnnoticed) {
  OSQueue queue;
  Probe probes[3];
  for (Probe& probe : probes) queue.TriggerList()->Append(&probe);
  bool once = true;
  probes[0].on_check = [&] {
    if (!std::exchange(once, false)) return;
    OSLink* const link = queue.triggers.First()->next;
    queue.triggers.OSLinkList::Remove(link);  // not the list's own way out
    link->Free();
  };
  queue.Append(&a);
  EXPECT_EQ(probes[0].checks, 1);
  EXPECT_EQ(probes[1].checks, 0);
  EXPECT_EQ(queue.triggers.Size(), 2);
  queue.Remove(&a);
  EXPECT_EQ(probes[1].checks, 0);
  EXPECT_EQ(probes[2].checks, 1);
  queue.triggers.Flush();
}

TEST_F(Queue, ACheckWithinACheckMayTakeOutWhatBothWouldComeTo) {
  OSQueue queue;
  Probe probes[4];
  for (Probe& probe : probes) queue.TriggerList()->Append(&probe);
  probes[0].on_check = [&] {
    if (queue.Size() == 1) queue.Append(&b);  // a walk within the walk
  };
  probes[1].on_check = [&] {
    queue.TriggerList()->Remove(&probes[1]);  // the outer walk stands before this one
    queue.TriggerList()->Remove(&probes[2]);  // the inner one before this
  };
  queue.Append(&a);
  EXPECT_EQ(probes[0].checks, 2);
  EXPECT_EQ(probes[1].checks, 1) << "it had left before the outer walk came to it";
  EXPECT_EQ(probes[2].checks, 0);
  EXPECT_EQ(probes[3].checks, 2);
  queue.Flush();
  queue.triggers.Flush();
}

TEST_F(Queue, TheChecksStopAtANodeWithoutATrigger) {
  OSQueue queue;
  Probe first, last;
  OSLink nobody;
  queue.TriggerList()->Append(&first);
  queue.triggers.OSLinkList::Append(&nobody, nullptr);
  queue.TriggerList()->Append(&last);
  queue.Append(&a);
  EXPECT_EQ(first.checks, 1);
  EXPECT_EQ(last.checks, 0);
  nobody.object = &nobody;
  queue.triggers.OSLinkList::Remove(&nobody);
  queue.Remove(&a);
  EXPECT_EQ(last.checks, 1);
  queue.triggers.Flush();
}

TEST_F(Queue, ARefusedObjectIsReportedAndTheTriggersLookAllTheSame) {
  OSQueue queue, other;
  Probe probe;
  queue.TriggerList()->Append(&probe);
  other.Append(&a);
  queue.Append(&a);
  queue.Insert(&a);
  EXPECT_THAT(console.fatals(), ElementsAre("OSLinkList::Append Obj of link that is already in a list",
                                            "OSLinkList::Insert Obj of link that is already in a list"));
  EXPECT_EQ(probe.checks, 2);
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_THAT(ring_nodes(other), ElementsAre(&a));
  other.Remove(&a);
  queue.triggers.Flush();
}

TEST(QueueAlone, WorksBeforeTheTriggerSystemIsThere) {
  IN_FRESH_PROCESS({
    RecordingConsole console;
    Console = &console;
    EXPECT_EQ(OS_CRITICAL_TRIGGER.sem, nullptr);
    {
      OSQueue queue;
      Item a("a"), b("b");
      queue.Append(&a);
      queue.Insert(&b);
      EXPECT_EQ(names(queue), "ba");
      queue.Remove(&a);
      queue.Flush();
      EXPECT_EQ(b.frees, 1);
    }
    EXPECT_THAT(console.fatals(), IsEmpty());
    Console = nullptr;
  });
}

TEST_F(Queue, FieldsStandInTheirOrderAndVirtualOperationsInTheirSlots) {
  OSProtectedQueue queue;
  OSProtectedList list;
  const std::vector<const void*> of_queue = {&queue.signature, &queue.triggers, &queue.cs};
  EXPECT_TRUE(std::is_sorted(of_queue.begin(), of_queue.end(), std::less<>()));
  const std::vector<const void*> of_list = {&list.signature, &list.cs};
  EXPECT_TRUE(std::is_sorted(of_list.begin(), of_list.end(), std::less<>()));
  EXPECT_EQ(vtable_slot(&OSIndirectList::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSQueue::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSProtectedQueue::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSProtectedList::Flush), 2);
  EXPECT_EQ(vtable_slot(&OSIndirectList::InsertBefore), -1);
  EXPECT_EQ(vtable_slot(&OSIndirectList::Validate), -1);
  EXPECT_EQ(vtable_slot(&OSQueue::TriggerList), -1);
  EXPECT_EQ(vtable_slot(&OSProtectedQueue::AppendBufAndCompact), -1);
  EXPECT_EQ(vtable_slot(&OSProtectedQueue::FirstBufAndRemove), -1);
  EXPECT_EQ(vtable_slot(&OSProtectedList::FirstObject), -1);
}

TEST_F(Queue, FlushThroughTheBaseClassIsTheQueuesOwn) {
  OSProtectedQueue queue;
  Probe probe;
  probe.watched_section = &queue.cs;
  queue.TriggerList()->Append(&probe);
  queue.Append(&a);
  probe.taken_checks();
  static_cast<OSLink&>(queue).Flush();
  EXPECT_EQ(a.frees, 1);
  EXPECT_EQ(probe.checks, 1);
  EXPECT_TRUE(probe.queue_section_held);
  queue.triggers.Flush();
}

TEST_F(Queue, AChangeFromWithinACheckIsSeenToo) {
  OSQueue queue;
  Probe probe;
  queue.TriggerList()->Append(&probe);
  probe.on_check = [&] {
    if (queue.Size() == 1) queue.Append(&b);
  };
  queue.Append(&a);
  EXPECT_EQ(queue.Size(), 2);
  EXPECT_EQ(probe.checks, 2);
  EXPECT_EQ(OS_CRITICAL_TRIGGER.owner_count, 0);
  probe.on_check = nullptr;
  queue.Flush();
  queue.triggers.Flush();
}

TEST_F(Queue, ARealQueueTriggerFiresAtItsMarkAndLeavesTheList) {
  OSQueue queue;
  OSQTrigger high(&queue, 2, 0, 0);
  EXPECT_EQ(queue.triggers.Size(), 1);
  queue.Append(&a);
  EXPECT_EQ(high.State(), OS_T_WAIT);
  queue.Append(&b);
  EXPECT_EQ(high.State(), OS_T_READY);
  EXPECT_EQ(high.reason, 3);
  EXPECT_EQ(queue.triggers.Size(), 0);
  queue.Append(&c);
  EXPECT_EQ(high.fired, 1);

  OSQTrigger low(&queue, 0, 1, 0);
  queue.Remove(&a);
  EXPECT_EQ(low.State(), OS_T_WAIT);
  queue.Remove(&b);
  EXPECT_EQ(low.State(), OS_T_READY);
  queue.Remove(&c);
}

TEST_F(Queue, TheTriggerListIsUsedInsideTheTriggerSectionToItsEnd) {
  OSQueue unwatched;
  auto queue = std::make_unique<OSQueue>();
  Probe probe;
  queue->TriggerList()->Append(&probe);
  ExpectOthersWait(OS_CRITICAL_TRIGGER, {
                                            {"Append", [&] { queue->Append(&a); }},
                                            {"Insert", [&] { queue->Insert(&b); }},
                                            {"Remove", [&] { queue->Remove(&b); }},
                                            {"Flush", [&] { queue->Flush(); }},
                                            {"without triggers", [&] { unwatched.Append(&c); }},
                                        });
  EXPECT_EQ(probe.checks, 4);

  // The destructor gives the links back inside the section: held up at the pool, it has it.
  EnterCriticalSection(&OS_CRITICAL_LINK);
  {
    WatchedThread other([&] { queue.reset(); });
    EXPECT_TRUE(other.blocked());
    EXPECT_EQ(TryEnterCriticalSection(&OS_CRITICAL_TRIGGER), 0);
    LeaveCriticalSection(&OS_CRITICAL_LINK);
  }
  EXPECT_EQ(OS_CRITICAL_TRIGGER.owner_count, 0);
  unwatched.Remove(&c);
}

TEST_F(Queue, TheDestructorLeavesTheObjectsUnlessTheQueueOwnsThem) {
  int alive = 0;
  {
    OSQueue owner(1);
    for (int i = 0; i < 3; ++i) owner.Append(new Counted<Item>(&alive));
    EXPECT_EQ(alive, 3);
  }
  EXPECT_EQ(alive, 0);
  {
    OSQueue queue;
    queue.Append(&a);
  }
  EXPECT_EQ(a.frees, 0) << "let go of, not freed";
  EXPECT_EQ(a.object, nullptr);
}

// ---------------------------------------------------------------------------------------- protected queue

class ProtectedQueue : public QueueTest {
 protected:
  static OSBuf* filled(int len, char first) {
    std::string text;
    for (int i = 0; i < len; ++i) text += static_cast<char>(first + i % 26);
    return OSBuf::Alloc(bytes_of(text), len);
  }
};

TEST_F(ProtectedQueue, StartsEmptyWithItsSectionReady) {
  OSProtectedQueue queue;
  EXPECT_NE(queue.cs.sem, nullptr);
  EXPECT_EQ(queue.cs.owner_count, 0);
  EXPECT_EQ(queue.delete_contents_on_destroy, 0);
  EXPECT_EQ(queue.FirstObject(), nullptr);
  EXPECT_EQ(queue.LastObject(), nullptr);
  EXPECT_EQ(queue.FirstBufAndRemove(), nullptr);
}

TEST_F(ProtectedQueue, WorksLikeAQueueInsideItsSection) {
  OSProtectedQueue queue;
  Probe probe;
  probe.watched_section = &queue.cs;
  probe.watched = &queue;
  queue.TriggerList()->Append(&probe);

  queue.Append(&a);
  EXPECT_EQ(probe.taken_checks(), 1);
  EXPECT_TRUE(probe.queue_section_held);
  EXPECT_TRUE(probe.trigger_section_held);
  EXPECT_EQ(probe.size_at_check, 1);
  queue.Insert(&b);
  EXPECT_EQ(probe.taken_checks(), 1);
  EXPECT_EQ(queue.FirstObject(), static_cast<OSListObj*>(&b));
  EXPECT_EQ(queue.LastObject(), static_cast<OSListObj*>(&a));
  EXPECT_EQ(probe.checks, 0);
  queue.Remove(&b);
  EXPECT_EQ(probe.taken_checks(), 1);
  EXPECT_TRUE(probe.queue_section_held);
  queue.Append(&b);
  probe.taken_checks();
  queue.Flush();
  EXPECT_EQ(probe.taken_checks(), 1);
  EXPECT_TRUE(probe.queue_section_held);
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_EQ(a.frees, 1);
  EXPECT_EQ(b.frees, 1);
  EXPECT_EQ(queue.cs.owner_count, 0);
  queue.triggers.Flush();
}

TEST_F(ProtectedQueue, FirstBufAndRemoveTakesTheOldestBuffer) {
  OSProtectedQueue queue;
  Probe probe;
  probe.watched_section = &queue.cs;
  queue.TriggerList()->Append(&probe);
  OSBuf* first = filled(10, 'a');
  OSBuf* second = filled(10, 'b');
  queue.Append(first);
  queue.Append(second);
  probe.taken_checks();
  EXPECT_EQ(queue.FirstBufAndRemove(), first);
  EXPECT_EQ(probe.taken_checks(), 1);
  EXPECT_TRUE(probe.queue_section_held);
  EXPECT_EQ(first->object, nullptr);
  EXPECT_EQ(queue.FirstBufAndRemove(), second);
  EXPECT_EQ(probe.taken_checks(), 1);
  EXPECT_EQ(queue.FirstBufAndRemove(), nullptr);
  EXPECT_EQ(probe.taken_checks(), 0) << "an empty queue checks no trigger";
  EXPECT_EQ(queue.cs.owner_count, 0);
  first->Free();
  second->Free();
  queue.triggers.Flush();
}

TEST_F(ProtectedQueue, AppendBufAndCompactFillsTheLastBufferUpTo1400Bytes) {
  struct Row {
    int last, added;
    std::vector<int> lengths;
  };
  const Row rows[] = {
      {1350, 100, {1400, 50}}, {1350, 50, {1400}},     {1350, 51, {1400, 1}},
      {1350, 49, {1399}},      {1400, 10, {1400, 10}}, {1401, 10, {1401, 10}},
      {1600, 10, {1600, 10}},  {1000, 400, {1400}},    {1000, 401, {1400, 1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.last) + "+" + std::to_string(row.added));
    OSProtectedQueue queue;
    Probe probe;
    probe.watched_section = &queue.cs;
    OSBuf* last = OSBuf::Alloc(1700);
    for (int i = 0; i < row.last; ++i) last->PushData(static_cast<UBYTE>('A' + (row.last - 1 - i) % 26));
    std::string all = content(last);
    queue.Append(last);
    queue.TriggerList()->Append(&probe);
    OSBuf* added = filled(row.added, 'a');
    all += content(added);
    const int allocated = OSBuf::allocated_list->Size();
    queue.AppendBufAndCompact(added);
    const bool queued = row.lengths.size() == 2;
    EXPECT_EQ(queue.Size(), static_cast<int>(row.lengths.size()));
    EXPECT_EQ(probe.checks, queued ? 1 : 0) << "only an append checks the triggers";
    if (queued) {
      EXPECT_TRUE(probe.queue_section_held);
      EXPECT_EQ(queue.LastObject(), static_cast<OSListObj*>(added));
    }
    EXPECT_EQ(OSBuf::allocated_list->Size(), queued ? allocated : allocated - 1);
    std::string held;
    for (std::size_t i = 0; i < row.lengths.size(); ++i) {
      OSBuf* buf = as<OSBuf>(queue[static_cast<int>(i)]);
      EXPECT_EQ(buf->length, row.lengths[i]);
      held += content(buf);
    }
    EXPECT_EQ(held, all);
    EXPECT_EQ(queue.cs.owner_count, 0);
    queue.triggers.Flush();
    queue.Flush();
  }
}

TEST_F(ProtectedQueue, AppendBufAndCompactOnAnEmptyQueueAppends) {
  OSProtectedQueue queue;
  Probe probe;
  queue.TriggerList()->Append(&probe);
  OSBuf* buf = filled(10, 'x');
  queue.AppendBufAndCompact(buf);
  EXPECT_EQ(queue.FirstObject(), static_cast<OSListObj*>(buf));
  EXPECT_EQ(probe.checks, 1);
  queue.triggers.Flush();
  queue.Flush();
}

TEST_F(ProtectedQueue, AppendBufAndCompactIgnoresNullAndRefusesWhatIsInAList) {
  OSProtectedQueue queue, other;
  Probe probe;
  queue.TriggerList()->Append(&probe);
  queue.AppendBufAndCompact(nullptr);
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_EQ(probe.checks, 0);
  OSBuf* last = filled(10, 'a');
  OSBuf* listed = filled(10, 'k');
  queue.Append(last);
  other.Append(listed);
  queue.AppendBufAndCompact(listed);
  EXPECT_THAT(console.fatals(), ElementsAre("OSLinkList::Append Obj of link that is already in a list"));
  EXPECT_EQ(content(last), "abcdefghij");
  EXPECT_EQ(content(listed), "klmnopqrst");
  EXPECT_TRUE(ListIsSound(queue));
  EXPECT_TRUE(ListIsSound(other));
  EXPECT_EQ(queue.cs.owner_count, 0);
  queue.triggers.Flush();
  queue.Flush();
  other.Flush();
}

TEST_F(ProtectedQueue, BuffersAreFreedInsideItsSection) {
  OSProtectedQueue queue;
  struct Record {
    CRITICAL_SECTION* section;
    int inside = 0;
    int outside = 0;
  } record{&queue.cs};
  const auto watched = [&](int len) {
    OSBuf* buf = filled(len, 'a');
    buf->AddBufferCallback(OSCallback::Alloc(
        nullptr,
        [](OSObj*, ADDR at, ULONG) {
          Record& seen = *static_cast<Record*>(at);
          ++(is_inside(*seen.section) ? seen.inside : seen.outside);
        },
        nullptr, &record, 0));
    return buf;
  };
  queue.AppendBufAndCompact(watched(10));
  EXPECT_EQ(record.inside, 0);
  queue.AppendBufAndCompact(watched(10));
  EXPECT_EQ(record.inside, 1) << "the emptied buffer";
  queue.Flush();
  EXPECT_EQ(record.inside, 2);
  EXPECT_EQ(record.outside, 0);
}

TEST_F(ProtectedQueue, SmallWritesCoalesce) {
  OSProtectedQueue queue;
  std::string all;
  for (int i = 0; i < 300; ++i) {
    OSBuf* buf = filled(20, static_cast<char>('a' + i % 5));
    all += content(buf);
    queue.AppendBufAndCompact(buf);
  }
  std::string held;
  while (OSBuf* buf = queue.FirstBufAndRemove()) {
    EXPECT_LE(buf->length, 1400);
    held += content(buf);
    buf->Free();
  }
  EXPECT_EQ(held, all);
}

TEST_F(ProtectedQueue, EveryOperationTakesTheSection) {
  OSProtectedQueue queue;
  OSBuf* buf = filled(10, 'x');
  ExpectOthersWait(queue.cs, {
                                 {"Append", [&] { queue.Append(&a); }},
                                 {"Insert", [&] { queue.Insert(&b); }},
                                 {"FirstObject", [&] { queue.FirstObject(); }},
                                 {"LastObject", [&] { queue.LastObject(); }},
                                 {"Remove", [&] { queue.Remove(&a); }},
                                 {"Flush", [&] { queue.Flush(); }},
                                 {"AppendBufAndCompact", [&] { queue.AppendBufAndCompact(buf); }},
                                 {"FirstBufAndRemove", [&] { queue.FirstBufAndRemove(); }},
                             });
  EXPECT_EQ(queue.Size(), 0);
  buf->Free();
}

TEST_F(ProtectedQueue, RandomCompactionKeepsTheBytesInOrder) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  OSProtectedQueue queue;
  std::string model;
  char next = 'a';
  for (int round = 0; round < 5000; ++round) {
    if (queue.Size() < 8 && pick(random, 0, 2) != 0) {
      const int len = pick(random, 0, pick(random, 0, 3) == 0 ? 1500 : 120);
      std::string text;
      for (int i = 0; i < len; ++i) text += next = static_cast<char>(next == 'z' ? 'a' : next + 1);
      queue.AppendBufAndCompact(OSBuf::Alloc(bytes_of(text), len));
      model += text;
    } else if (OSBuf* buf = queue.FirstBufAndRemove()) {
      const std::string text = content(buf);
      ASSERT_EQ(text, model.substr(0, text.size()));
      model.erase(0, text.size());
      buf->Free();
    }
    ASSERT_TRUE(ListIsSound(queue));
  }
  queue.Flush();
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
