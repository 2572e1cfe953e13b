// Names of threads.

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/task.h"
#include "support/kernel_fixture.h"
#include "support/ring_check.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

static_assert(std::is_base_of_v<OSListObj, OSTaskTag>);
static_assert(!std::is_convertible_v<OSTaskTag*, OSListObj*>, "a tag is a list object for the kernel only");
static_assert(sizeof(OSTaskTag::name) == 128);

class TaskTag : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ASSERT_EQ(tags(), 0);
  }
  static int tags() {
    EnterCriticalSection(&OS_CRITICAL_TASK);
    const int size = OSTaskTag::all_tags->Size();
    EXPECT_TRUE(ListIsSound(*OSTaskTag::all_tags));
    LeaveCriticalSection(&OS_CRITICAL_TASK);
    return size;
  }
  static std::string pointer_form(pthread_t thread) {
    char text[64];
    std::snprintf(text, sizeof text, "%p", reinterpret_cast<void*>(thread));
    return text;
  }
  static std::string letters(std::size_t n) {
    std::string text;
    for (std::size_t i = 0; i < n; ++i) text += static_cast<char>('a' + i % 26);
    return text;
  }
};

TEST_F(TaskTag, ANewTagIsEmptyAndListedUntilItIsDestroyed) {
  {
    OSTaskTag tag;
    EXPECT_STREQ(tag.name, "");
    EXPECT_EQ(tag.task, nullptr);
    EXPECT_EQ(tag.thread_id, pthread_t{0});
    EXPECT_EQ(tags(), 1);
    OSTaskTag another;
    EXPECT_EQ(tags(), 2);
  }
  EXPECT_EQ(tags(), 0);
}

TEST_F(TaskTag, FieldsStandInTheOrderThatProgramsWereBuiltAgainst) {
  OSTaskTag tag;
  EXPECT_LT(static_cast<void*>(&tag.name), static_cast<void*>(&tag.task));
  EXPECT_LT(static_cast<void*>(&tag.task), static_cast<void*>(&tag.thread_id));
}

TEST_F(TaskTag, ZeroMeansTheCallingThread) {
  OSTaskTag::SetName("main thread", 0);
  OSTaskTag* tag = OSTaskTag::FindTag(pthread_self());
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->thread_id, pthread_self());
  EXPECT_EQ(tag->task, nullptr) << "this thread is no task";
  EXPECT_STREQ(tag->name, "main thread");
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "main thread");
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, pthread_self()), "main thread");
}

TEST_F(TaskTag, AThreadHasOneTagThatTakesEachNewName) {
  OSTaskTag::SetName("first", 0);
  OSTaskTag* tag = OSTaskTag::FindTag(pthread_self());
  OSTaskTag::SetName("second name", pthread_self());
  OSTaskTag::SetName("3", 0);
  EXPECT_EQ(OSTaskTag::FindTag(pthread_self()), tag);
  EXPECT_EQ(tags(), 1);
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "3");
}

TEST_F(TaskTag, ATasksTagKnowsItsTask) {
  Owned<> task;
  OSTaskTag::SetName("worker", task->thread_id);
  OSTaskTag* tag = OSTaskTag::FindTag(task->thread_id);
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->task, task.get());
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, task->thread_id), "worker");
  EXPECT_EQ(OSTaskTag::FindTag(pthread_self()), nullptr);
}

TEST_F(TaskTag, ATaskNamesItself) {
  Gate named;
  Owned<FunctionTask> task([&named](FunctionTask& self) {
    OSTaskTag::SetName("named by itself", 0);
    named.open();
    while (state_of(self) != OS_ST_KILL) Sleep(1);
  });
  ASSERT_TRUE(named.wait());
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, task->thread_id), "named by itself");
  EXPECT_EQ(OSTaskTag::FindTag(task->thread_id)->task, task.get());
}

TEST_F(TaskTag, ANameIsStoredUpToItsLength) {
  for (const std::size_t length : {0, 1, 126, 127, 128, 129, 200, 5000}) {
    SCOPED_TRACE(length);
    const std::string name = letters(length);
    OSTaskTag::SetName(name.c_str(), 0);
    const OSTaskTag* tag = OSTaskTag::FindTag(pthread_self());
    ASSERT_NE(tag, nullptr);
    const std::size_t stored = std::min<std::size_t>(length, 128);
    EXPECT_EQ(std::memcmp(tag->name, name.c_str(), stored), 0);
    if (stored < 128) {
      EXPECT_EQ(tag->name[stored], '\0');
    } else {
      // 128 characters fill the name; whoever reads it as a string still finds
      // its end.
      EXPECT_EQ(tag->name[127], name[127]);
    }
    if (length == 0) continue;
    const std::string found = OSTaskTag::FindName(nullptr, 0);
    EXPECT_EQ(found, name.substr(0, 128));
  }
}

TEST_F(TaskTag, AShortNameReplacesALongOneCompletely) {
  OSTaskTag::SetName(letters(300).c_str(), 0);
  OSTaskTag::SetName("short", 0);
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "short");
}

TEST_F(TaskTag, WithoutATagTheThreadIdIsFormattedOnlyIntoTheCallersBuffer) {
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "");
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, pthread_self()), "");
  char buffer[64] = "untouched";
  const char* name = OSTaskTag::FindName(buffer, 0);
  EXPECT_EQ(name, buffer);
  EXPECT_EQ(std::string(buffer), pointer_form(pthread_self()));
  Owned<> task;
  EXPECT_EQ(OSTaskTag::FindName(buffer, task->thread_id), buffer);
  EXPECT_EQ(std::string(buffer), pointer_form(task->thread_id));
  EXPECT_EQ(tags(), 0) << "asking makes no tag";
}

TEST_F(TaskTag, AnUnnamedTagTakesTheThreadIdAndKeepsIt) {
  for (const bool with_buffer : {false, true}) {
    OSTaskTag tag;
    tag.thread_id = pthread_self();
    char buffer[64] = "untouched";
    const char* name = OSTaskTag::FindName(with_buffer ? buffer : nullptr, 0);
    EXPECT_EQ(name, tag.name);
    EXPECT_EQ(std::string(name), pointer_form(pthread_self()));
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(std::string(tag.name), pointer_form(pthread_self()));
  }
}

TEST_F(TaskTag, AnEmptyNameIsNoName) {
  OSTaskTag::SetName("", 0);
  ASSERT_NE(OSTaskTag::FindTag(pthread_self()), nullptr);
  EXPECT_EQ(std::string(OSTaskTag::FindName(nullptr, 0)), pointer_form(pthread_self()));
}

TEST_F(TaskTag, ANamedTagLeavesTheCallersBufferAlone) {
  OSTaskTag::SetName("named", 0);
  char buffer[64] = "untouched";
  EXPECT_EQ(OSTaskTag::FindName(buffer, 0), OSTaskTag::FindTag(pthread_self())->name);
  EXPECT_STREQ(buffer, "untouched");
}

TEST_F(TaskTag, TheFirstTagOfAThreadIsFound) {
  OSTaskTag first;
  OSTaskTag second;
  first.thread_id = pthread_self();
  second.thread_id = pthread_self();
  EXPECT_EQ(OSTaskTag::FindTag(pthread_self()), &first);
  Owned<> task;
  EXPECT_EQ(OSTaskTag::FindTag(task->thread_id), nullptr);
}

TEST_F(TaskTag, ATagGoesWithItsTask) {
  for (const char* end : {"kill", "return"}) {
    Gate named;
    Gate go_on;
    std::atomic<int> destroyed{0};
    auto* task = new FunctionTask(
        [&](FunctionTask& self) {
          OSTaskTag::SetName("passing", 0);
          named.open();
          while (state_of(self) != OS_ST_KILL && !go_on.wait(1)) {
          }
        },
        0, &destroyed);
    const pthread_t thread = task->thread_id;
    ASSERT_TRUE(named.wait());
    EXPECT_EQ(tags(), 1);
    if (std::string(end) == "kill") {
      task->Kill();
      EXPECT_EQ(tags(), 1) << "the tag goes with the object, not with the thread";
      delete task;
    } else {
      go_on.open();
      EXPECT_TRUE(wait_until([&] { return OSTask::FindTask(thread) == nullptr; }, kPatienceMs));
    }
    EXPECT_TRUE(wait_until([] { return tags() == 0; }, kPatienceMs));
    EXPECT_EQ(destroyed, 1);
  }
}

TEST_F(TaskTag, ATagWithoutATaskGoesWithTheTaskOfItsThread) {
  auto* task = new IdleTask;
  (new OSTaskTag)->thread_id = task->thread_id;
  task->Kill();
  EXPECT_EQ(tags(), 1);
  delete task;
  EXPECT_EQ(tags(), 0);
}

TEST_F(TaskTag, ATagOfATaskThatHasTheSameThreadIdByNowStays) {
  // A thread that has been joined may have passed its id on.
  Owned<> later;
  auto* task = new IdleTask;
  OSTaskTag tag;
  tag.thread_id = task->thread_id;
  tag.task = later.get();
  task->Kill();
  delete task;
  EXPECT_EQ(tags(), 1);
}

TEST_F(TaskTag, StopDeletesAllTags) {
  OSTaskTag::SetName("main", 0);
  new FunctionTask([](FunctionTask& self) {
    OSTaskTag::SetName("task", 0);
    while (state_of(self) != OS_ST_KILL) Sleep(1);
  });
  EXPECT_TRUE(wait_until([] { return tags() == 2; }, kPatienceMs));
  Stop();
  EXPECT_EQ(OSTaskTag::all_tags, nullptr);
  StartQuiet();
  EXPECT_EQ(tags(), 0);
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "");
}

TEST_F(TaskTag, AfterAStopThereAreNoTags) {
  Stop();
  OSTaskTag::SetName("too late", 0);
  EXPECT_EQ(OSTaskTag::FindTag(pthread_self()), nullptr);
  EXPECT_STREQ(OSTaskTag::FindName(nullptr, 0), "");
  char buffer[64] = "untouched";
  EXPECT_EQ(std::string(OSTaskTag::FindName(buffer, 0)), pointer_form(pthread_self()));
  { const OSTaskTag unlisted; }
  EXPECT_EQ(console.fatals(), std::vector<std::string>{});
}

TEST_F(TaskTag, ManyThreadsNameThemselvesAtOnce) {
  constexpr int kThreads = 4;
  Rendezvous all(kThreads);
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&all, n] {
      all.meet();
      for (int round = 0; round < 200; ++round) {
        const std::string name = "thread " + std::to_string(n) + " round " + std::to_string(round);
        OSTaskTag::SetName(name.c_str(), 0);
        EXPECT_EQ(std::string(OSTaskTag::FindName(nullptr, 0)), name);
      }
      all.meet();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(tags(), kThreads) << "threads that are no tasks keep their tags until the kernel stops";
}

TEST_F(TaskTag, TwoThreadsThatNameAThirdMakeOneTag) {
  for (int round = 0; round < 200; ++round) {
    Owned<> task;
    const pthread_t thread = task->thread_id;
    Rendezvous start(2);
    std::thread other([&] {
      start.meet();
      OSTaskTag::SetName("one", thread);
    });
    start.meet();
    OSTaskTag::SetName("two", thread);
    other.join();
    EXPECT_EQ(tags(), 1);
    const std::string name = OSTaskTag::FindName(nullptr, thread);
    EXPECT_TRUE(name == "one" || name == "two") << name;
  }
}

}  // namespace
