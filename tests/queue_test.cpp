// Queues that let their triggers look at every change, and the protected queue between threads.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "support/seed.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

bool holds(const CRITICAL_SECTION& section) {
  return section.owner_count > 0 && pthread_equal(section.owner_thread_id, pthread_self()) != 0;
}

/// Counts how often a queue asks it to look, and what was locked then.
class Probe : public OSTrigger {
 public:
  Probe() : OSTrigger(OS_TA_NONE) {}
  void Check() override {
    ++checks;
    trigger_section_held = holds(OS_CRITICAL_TRIGGER);
    if (watched_section != nullptr) queue_section_held = holds(*watched_section);
    if (watched != nullptr) size_at_check = watched->Size();
    if (on_check) on_check();
  }
  int taken_checks() { return std::exchange(checks, 0); }

  int checks = 0;
  bool trigger_section_held = false;
  bool queue_section_held = false;
  CRITICAL_SECTION* watched_section = nullptr;
  OSLinkList* watched = nullptr;
  int size_at_check = -1;
  std::function<void()> on_check;
};

class Item : public OSLinkListObj {
 public:
  void Free() override { ++frees; }
  int frees = 0;
};

class QueueTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    links_at_start_ = OSLink::link_pool_size;
  }
  void TearDown() override {
    EXPECT_EQ(OSLink::link_pool_size, links_at_start_);
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "every buffer goes home";
    KernelTest::TearDown();
  }
  Item a, b, c;

 private:
  ULONG links_at_start_ = 0;
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

TEST_F(Queue, TheChecksEndWhenATriggerRegistersAgainAndAgain) {
  // A queue trigger that fires and is cleared at once leaves the list and comes back at its end.
  OSQueue queue;
  Probe first, second;
  queue.TriggerList()->Append(&first);
  queue.TriggerList()->Append(&second);
  int moves = 0;
  first.on_check = [&] {
    if (++moves > 50) return;
    queue.TriggerList()->Remove(&first);
    queue.TriggerList()->Append(&first);
  };
  queue.Append(&a);
  EXPECT_GE(first.checks, 1);
  EXPECT_GE(second.checks, 1);
  EXPECT_LE(moves, 51);
  EXPECT_EQ(queue.triggers.Size(), 2);
  queue.Remove(&a);
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

TEST_F(Queue, TheDestructorLeavesTheObjectsUnlessTheQueueOwnsThem) {
  int alive = 0;
  class Counted : public OSLinkListObj {
   public:
    explicit Counted(int* count) : count_(count) { ++*count_; }
    ~Counted() override { --*count_; }

   private:
    int* count_;
  };
  {
    OSQueue owner(1);
    for (int i = 0; i < 3; ++i) owner.Append(new Counted(&alive));
    EXPECT_EQ(alive, 3);
  }
  EXPECT_EQ(alive, 0);
}

// ---------------------------------------------------------------------------------------- protected queue

class ProtectedQueue : public QueueTest {
 protected:
  static std::string content(OSListObj* object) {
    OSBuf* buf = as<OSBuf>(object);
    return std::string(reinterpret_cast<const char*>(buf->data), buf->length);
  }
  static OSBuf* filled(int len, char first) {
    std::string text;
    for (int i = 0; i < len; ++i) text += static_cast<char>(first + i % 26);
    return OSBuf::Alloc(reinterpret_cast<const UBYTE*>(text.data()), len);
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
    std::string all(reinterpret_cast<char*>(last->data), last->length);
    queue.Append(last);
    queue.TriggerList()->Append(&probe);
    OSBuf* added = filled(row.added, 'a');
    all.append(reinterpret_cast<char*>(added->data), added->length);
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
  struct Row {
    const char* name;
    std::function<void()> operation;
  };
  const Row rows[] = {
      {"Append", [&] { queue.Append(&a); }},
      {"Insert", [&] { queue.Insert(&b); }},
      {"FirstObject", [&] { queue.FirstObject(); }},
      {"LastObject", [&] { queue.LastObject(); }},
      {"Remove", [&] { queue.Remove(&a); }},
      {"Flush", [&] { queue.Flush(); }},
      {"AppendBufAndCompact", [&] { queue.AppendBufAndCompact(buf); }},
      {"FirstBufAndRemove", [&] { queue.FirstBufAndRemove(); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::atomic<bool> done{false};
    EnterCriticalSection(&queue.cs);
    std::thread other([&] {
      row.operation();
      done = true;
    });
    EXPECT_FALSE(wait_until([&] { return done.load(); }, 30));
    LeaveCriticalSection(&queue.cs);
    other.join();
  }
  EXPECT_EQ(queue.Size(), 0);
  buf->Free();
}

TEST_F(ProtectedQueue, OneProducersBuffersArriveInTheirOrder) {
  OSProtectedQueue queue;
  constexpr int kProducers = 3;
  constexpr ULONG kPerProducer = 2000;
  std::counting_semaphore<> available(0);
  std::counting_semaphore<> room(60);  // fewer than there are buffers
  std::vector<std::thread> producers;
  for (ULONG p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (ULONG i = 0; i < kPerProducer; ++i) {
        room.acquire();
        OSBuf* buf = OSBuf::Alloc(0);
        buf->local_ipaddr = p;
        buf->remote_ipaddr = i;
        queue.Append(buf);
        available.release();
      }
    });
  }
  ULONG next[kProducers] = {};
  int wrong = 0;
  for (ULONG i = 0; i < kProducers * kPerProducer; ++i) {
    available.acquire();
    OSBuf* buf = queue.FirstBufAndRemove();
    if (buf == nullptr) {
      ++wrong;
      continue;
    }
    if (buf->local_ipaddr >= kProducers || buf->remote_ipaddr != next[buf->local_ipaddr]++) ++wrong;
    buf->Free();
    room.release();
  }
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(queue.FirstBufAndRemove(), nullptr);
  EXPECT_EQ(queue.Signature(), 2u * kProducers * kPerProducer);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(ProtectedQueue, ProducersAndConsumersLoseNothingAndShareNothing) {
  OSProtectedQueue queue;
  constexpr int kConsumers = 3;
  constexpr int kTotal = 3000;
  std::counting_semaphore<> available(0);
  std::counting_semaphore<> room(60);
  std::vector<std::atomic<int>> seen(kTotal);
  std::atomic<int> next{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < 2; ++p) {
    threads.emplace_back([&, p] {
      for (;;) {
        const int number = next++;
        if (number >= kTotal) break;
        room.acquire();
        OSBuf* buf = OSBuf::Alloc(0);
        buf->remote_ipaddr = static_cast<ULONG>(number);
        if (p == 0) {
          queue.Append(buf);
        } else {
          queue.Insert(buf);
        }
        available.release();
      }
    });
  }
  std::atomic<int> to_take{kTotal};
  for (int t = 0; t < kConsumers; ++t) {
    threads.emplace_back([&] {
      while (to_take-- > 0) {
        available.acquire();
        OSBuf* buf = queue.FirstBufAndRemove();
        if (buf == nullptr) {
          ++failures;
          continue;
        }
        ++seen[buf->remote_ipaddr];
        buf->Free();
        room.release();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  for (int i = 0; i < kTotal; ++i) ASSERT_EQ(seen[static_cast<std::size_t>(i)], 1) << i;
  EXPECT_EQ(queue.Size(), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(ProtectedQueue, BytesFromManyThreadsStayWholeThroughCompaction) {
  OSProtectedQueue queue;
  constexpr int kThreads = 3;
  constexpr int kWrites = 500;
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  std::counting_semaphore<> room(20);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kWrites; ++i) {
        // Eight bytes that belong together: who wrote them, and the count.
        room.acquire();
        char text[9];
        snprintf(text, sizeof text, "%c%05d;\n", 'A' + t, i);
        queue.AppendBufAndCompact(OSBuf::Alloc(text));
        room.release();
      }
      --running;
    });
  }
  std::string all;
  for (;;) {
    const bool over = running == 0;
    OSBuf* buf = queue.FirstBufAndRemove();
    if (buf != nullptr) {
      all.append(reinterpret_cast<char*>(buf->data), buf->length);
      buf->Free();
    } else if (over) {
      break;
    } else {
      std::this_thread::yield();
    }
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(all.size(), static_cast<std::size_t>(8 * kThreads * kWrites));
  int next[kThreads] = {};
  for (std::size_t at = 0; at < all.size(); at += 8) {
    const int who = all[at] - 'A';
    ASSERT_GE(who, 0);
    ASSERT_LT(who, kThreads);
    ASSERT_EQ(std::stoi(all.substr(at + 1, 5)), next[who]++);
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(ProtectedQueue, TriggersComeAndGoWhileTheQueueIsInUse) {
  OSProtectedQueue queue;
  std::atomic<bool> stop{false};
  std::thread user([&] {
    while (!stop) {
      OSBuf* buf = OSBuf::Alloc(0);
      queue.Append(buf);
      queue.FirstBufAndRemove()->Free();
    }
  });
  for (int i = 0; i < 200; ++i) {
    OSQTrigger full(&queue, 1, 0, 0);
    OSQTrigger never(&queue, 1000, 0, 0);
    std::this_thread::yield();
  }
  stop = true;
  user.join();
  EXPECT_EQ(queue.triggers.Size(), 0);
  EXPECT_EQ(OS_READY_LIST.Size(), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
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
      queue.AppendBufAndCompact(OSBuf::Alloc(reinterpret_cast<const UBYTE*>(text.data()), len));
      model += text;
    } else if (OSBuf* buf = queue.FirstBufAndRemove()) {
      const std::string text(reinterpret_cast<char*>(buf->data), buf->length);
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
