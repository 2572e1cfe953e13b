// Start-up and shutdown, configuration, globals, the priority scan tables and the string helpers.

#include "kernel/kernel.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kernel/buffer.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/failing_new.h"
#include "support/kernel_fixture.h"
#include "support/watched_thread.h"
#include "trigger_probes.h"

/// Present in sanitizer builds, where mallinfo2 knows nothing.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {
std::function<void()>* at_vectors = nullptr;
}

/// Takes the place of the library's, which does nothing.
void os_init_vectors() {
  if (at_vectors != nullptr) (*at_vectors)();
}

namespace oskernel_test {
namespace {

static_assert(std::is_standard_layout_v<KernelCfg>);
static_assert(sizeof(KernelCfg) == 48);
static_assert(offsetof(KernelCfg, buf_size) == 0);
static_assert(offsetof(KernelCfg, buf_qty) == 16);
static_assert(offsetof(KernelCfg, buf_min_space) == 32);
static_assert(offsetof(KernelCfg, callback_qty) == 36);
static_assert(offsetof(KernelCfg, link_qty) == 40);
static_assert(offsetof(KernelCfg, trigger_stack) == 44);

static_assert(std::is_standard_layout_v<OSLevel>);
static_assert(offsetof(OSLevel, tcbp) == 0);
static_assert(offsetof(OSLevel, ntsks) == sizeof(void*));
static_assert(std::is_standard_layout_v<OSScanTableEntry>);
static_assert(offsetof(OSScanTableEntry, plev) == 0);
static_assert(offsetof(OSScanTableEntry, nscte) == sizeof(void*));
static_assert(std::is_standard_layout_v<OSProgram>);
static_assert(offsetof(OSProgram, sctep) == 0);
static_assert(offsetof(OSProgram, nswaps) == sizeof(void*));
static_assert(offsetof(OSProgram, nswaps) < offsetof(OSProgram, lev));
static_assert(offsetof(OSProgram, lev) < offsetof(OSProgram, scantab));
static_assert(sizeof(OSProgram::lev) == 8 * sizeof(OSLevel));
static_assert(sizeof(OSProgram::scantab) == 40 * sizeof(OSScanTableEntry));
static_assert(std::is_same_v<decltype(OSProgram::nswaps), UWORD>);
static_assert(std::is_same_v<decltype(OSLevel::ntsks), UWORD>);

static_assert(std::is_same_v<decltype(OS_BTIME), ULONG>);
static_assert(std::is_same_v<decltype(OS_USEDTIME), UWORD>);
static_assert(std::is_same_v<decltype(std_stksize), std::size_t>);
static_assert(std::is_same_v<decltype(std_thread_attr), pthread_attr_t>);
static_assert(std::is_same_v<decltype(std_mutex_attr), pthread_mutexattr_t>);
static_assert(std::is_same_v<decltype(OS_TIMER_LIST), OSLinkList>);
static_assert(std::is_same_v<decltype(OS_NOTIFY_LIST), OSLink>);
static_assert(sizeof os_stdscan == 33);

using testing::Test;

constexpr UBYTE kScan[33] = {1, 2, 1, 3, 1, 2, 1, 4, 1, 2, 1, 3, 1, 2, 1, 2, 1,
                             2, 1, 3, 1, 2, 1, 4, 1, 2, 1, 3, 1, 2, 1, 5, 0};

/// What the library's globals hold when it has been loaded and nothing has been called.
struct AtLoad {
  KernelCfg cfg = default_cfg;
  KernelCfg* active_cfg = KERNELCFG;
  OSMemPool* memory = OS_MEMORY;
  ULONG empty_size = OS_EMPTYPOOL.size;
  int empty_is_fatal = OS_EMPTYPOOL.NoMemIsFatal;
  OSMemPool* empty_secondary = OS_EMPTYPOOL.secondary_pool;
  bool lists_empty = OS_TIMER_LIST.IsEmpty() && OS_POLL_LIST.IsEmpty() && OS_READY_LIST.IsEmpty() &&
                     OS_NOTIFY_LIST.IsEmpty() && KernelEvent::eventList.IsEmpty();
  int list_sizes =
      OS_TIMER_LIST.Size() + OS_POLL_LIST.Size() + OS_READY_LIST.Size() + KernelEvent::eventList.Size();
  OSTask* task = OS_TASK;
  OSTriggerTask* trigger_task = OS_TRIG_TASK;
  OSAxeTask* axe_task = OS_AXE_TASK;
  OSProgram* program = OS_PROGRAM;
  OSConsole* console = Console;
  ULONG btime = OS_BTIME;
  UWORD usedtime = OS_USEDTIME;
  bool posix_ok = OS_POSIX_OK;
  HANDLE next_handle = KernelEvent::nextHandle;
  bool sections_bare = bare(OS_CRITICAL_TASK) && bare(OS_CRITICAL_TRIGGER) && bare(OS_CRITICAL_TIME) &&
                       bare(OS_CRITICAL_LINK) && bare(OS_CRITICAL_BUFFERS) && bare(OS_CRITICAL_CALLBACKS);

  static bool bare(const CRITICAL_SECTION& section) {
    return section.sem == nullptr && section.owner_thread_id == 0 && section.owner_count == 0;
  }
};
const AtLoad at_load __attribute__((init_priority(101)));  // before any other object of this program

[[maybe_unused]] const int kIdleThreads = idle_thread_count();

int entries(const char* directory) {
  DIR* dir = opendir(directory);
  if (dir == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return count;
}
int descriptors() { return entries("/proc/self/fd"); }

std::size_t heap_bytes() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class KernelStart : public KernelTest {
 protected:
  void TearDown() override {
    FailingNew::reset();
    KernelTest::TearDown();
  }
};

// ---- Loaded ------------------------------------------------------------------------------------------------

TEST(KernelLoaded, DefaultsOfTheConfiguration) {
  for (const KernelCfg& cfg : {at_load.cfg, default_cfg, KernelCfg()}) {
    EXPECT_EQ(std::vector<int>(std::begin(cfg.buf_size), std::end(cfg.buf_size)),
              (std::vector<int>{0, 100, 600, 1740}));
    EXPECT_EQ(std::vector<int>(std::begin(cfg.buf_qty), std::end(cfg.buf_qty)),
              (std::vector<int>{100, 25, 25, 55}));
    EXPECT_EQ(cfg.buf_min_space, 50);
    EXPECT_EQ(cfg.callback_qty, 400);
    EXPECT_EQ(cfg.link_qty, 4000);
    EXPECT_EQ(cfg.trigger_stack, 8000);
  }
}

TEST(KernelLoaded, GlobalsAreZeroAndListsEmpty) {
  EXPECT_EQ(at_load.active_cfg, nullptr);
  EXPECT_EQ(at_load.memory, nullptr);
  EXPECT_TRUE(at_load.lists_empty);
  EXPECT_EQ(at_load.list_sizes, 0);
  EXPECT_EQ(at_load.task, nullptr);
  EXPECT_EQ(at_load.trigger_task, nullptr);
  EXPECT_EQ(at_load.axe_task, nullptr);
  EXPECT_EQ(at_load.program, nullptr);
  EXPECT_EQ(at_load.console, nullptr);
  EXPECT_EQ(at_load.btime, 0u);
  EXPECT_EQ(at_load.usedtime, 0u);
  EXPECT_EQ(std_stksize, 0u) << "nobody uses it";
  EXPECT_FALSE(at_load.posix_ok);
}

TEST(KernelLoaded, EmptyPoolHasNoMemoryAndIsFatal) {
  EXPECT_EQ(at_load.empty_size, 0u);
  EXPECT_EQ(at_load.empty_is_fatal, 1);
  EXPECT_EQ(at_load.empty_secondary, nullptr);
}

TEST(KernelLoaded, SectionsAreNotInitialisedAndHandlesStartAtOne) {
  EXPECT_TRUE(at_load.sections_bare);
  EXPECT_EQ(at_load.next_handle, 1);
}

TEST(KernelLoaded, StartAndStopHavePlainSymbolNames) {
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "os_startup"), reinterpret_cast<void*>(&os_startup));
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "os_cleanup"), reinterpret_cast<void*>(&os_cleanup));
}

// ---- Started -----------------------------------------------------------------------------------------------

TEST_F(KernelStart, WithoutArgumentsRunsOnTheDefaults) {
  os_startup(nullptr, 0, nullptr);
  EXPECT_EQ(KERNELCFG, &default_cfg);
  EXPECT_EQ(KERNELCFG->trigger_stack, 8000);
  EXPECT_EQ(OS_MEMORY, &OS_EMPTYPOOL);
  ASSERT_NE(OS_TRIG_TASK, nullptr);
  EXPECT_EQ(OSTask::FindTask(OS_TRIG_TASK->thread_id), OS_TRIG_TASK);
  EXPECT_EQ(OS_TRIG_TASK->priority, 5);
  EXPECT_TRUE(OS_POSIX_OK);
  EXPECT_TRUE(threads_come_to(2)) << "the trigger task and the timer thread";
  EXPECT_EQ(OSCallback::callback_pool_size, 400u);
  os_cleanup();
  EXPECT_TRUE(threads_come_to(0));
  EXPECT_EQ(console.text(), "");
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(KernelStart, LastTaskThreadToStartIsTheTriggerTasks) {
  Start();
  EXPECT_TRUE(wait_until([] { return std::atomic_ref<OSTask*>(OS_TASK).load() == OS_TRIG_TASK; }));
}

TEST_F(KernelStart, WithoutTriggerStackStartsNoThread) {
  cfg.trigger_stack = 0;
  Start();
  EXPECT_EQ(OS_TRIG_TASK, nullptr);
  EXPECT_TRUE(threads_come_to(0));
  Stop();
  EXPECT_TRUE(threads_come_to(0));
}

TEST_F(KernelStart, RefersToTheCallersConfiguration) {
  cfg.link_qty = 17;
  cfg.callback_qty = 5;
  StartQuiet();
  EXPECT_EQ(KERNELCFG, &cfg);
  EXPECT_EQ(OSLink::link_pool_size, 17u);
  EXPECT_EQ(OSCallback::callback_pool_size, 5u);
  cfg.buf_min_space = 99;
  EXPECT_EQ(KERNELCFG->buf_min_space, 99) << "the record is not copied";
  Stop();
  EXPECT_EQ(KERNELCFG, &cfg);
}

TEST_F(KernelStart, PutsThePoolAtTheStartOfTheBlock) {
  alignas(8) UBYTE block[4096];
  cfg.trigger_stack = 0;
  os_startup(block, sizeof block, &cfg);
  EXPECT_EQ(static_cast<void*>(OS_MEMORY), static_cast<void*>(block));
  EXPECT_EQ(OS_MEMORY->size, sizeof block);
  EXPECT_EQ(OS_MEMORY->NoMemIsFatal, 1);
  EXPECT_EQ(static_cast<OSMemPool*>(OS_MEMORY->secondary_pool), nullptr);
  EXPECT_EQ(OS_MEMORY->FreeSpace(), sizeof block - 12) << "buffers stand in a block of their own";
  ADDR memory = OS_MEMORY->Allocate(100);
  EXPECT_EQ(memory, block + sizeof block - 100);
  EXPECT_EQ(OS_MEMORY->Allocate(sizeof block), nullptr);
  EXPECT_EQ(console.fatals(), (std::vector<std::string>{"OSMemPool::Allocate Out of Memory"}));
  os_cleanup();
  EXPECT_EQ(static_cast<void*>(OS_MEMORY), static_cast<void*>(block)) << "shutdown leaves the pool alone";
  EXPECT_EQ(OS_MEMORY->FreeSpace(), sizeof block - 12 - 108);
  OSMemPool::Free(memory);
  EXPECT_EQ(OS_MEMORY->FreeSpace(), sizeof block - 12);

  os_startup(nullptr, 0, &cfg);
  EXPECT_EQ(OS_MEMORY, &OS_EMPTYPOOL) << "the next start without a block forgets it";
  os_cleanup();
}

TEST_F(KernelStart, BlockAtAnyAddressHoldsItsPoolAndNothingElse) {
  cfg.trigger_stack = 0;
  for (std::size_t offset = 0; offset < 8; ++offset) {
    SCOPED_TRACE(offset);
    std::vector<UBYTE> memory(300, 0x5C);
    UBYTE* block = memory.data() + offset;
    os_startup(block, 200, &cfg);
    EXPECT_GE(static_cast<void*>(OS_MEMORY), static_cast<void*>(block));
    EXPECT_LT(static_cast<void*>(OS_MEMORY), static_cast<void*>(block + 4));
    while (ADDR piece = OS_MEMORY->Allocate(10)) std::memset(piece, 0xEE, 10);
    os_cleanup();
    EXPECT_TRUE(std::all_of(memory.data(), block, [](UBYTE byte) { return byte == 0x5C; }));
    EXPECT_TRUE(std::all_of(block + 200, memory.data() + 300, [](UBYTE byte) { return byte == 0x5C; }));
  }
}

TEST_F(KernelStart, BlockThatIsTooSmallIsOutOfMemory) {
  cfg.trigger_stack = 0;
  for (ULONG size = 0; size < 24; ++size) {
    SCOPED_TRACE(size);
    alignas(8) UBYTE block[64];
    std::memset(block, 0x5C, sizeof block);
    console.clear();
    os_startup(block, size, &cfg);
    EXPECT_EQ(OS_MEMORY->FreeSpace(), 0u);
    EXPECT_EQ(OS_MEMORY->Allocate(1), nullptr);
    EXPECT_EQ(OS_MEMORY == &OS_EMPTYPOOL, size < 12) << "a header of 12 bytes that fits is there";
    EXPECT_EQ(console.fatals(), (std::vector<std::string>{"OSMemPool::Allocate Out of Memory"}));
    os_cleanup();
    EXPECT_TRUE(std::all_of(block + size, std::end(block), [](UBYTE byte) { return byte == 0x5C; }));
  }
}

TEST_F(KernelStart, IgnoresTheSizeWithoutABlock) {
  cfg.trigger_stack = 0;
  os_startup(nullptr, 4096, &cfg);
  EXPECT_EQ(OS_MEMORY, &OS_EMPTYPOOL);
  EXPECT_EQ(OS_EMPTYPOOL.size, 0u);
  os_cleanup();
}

TEST_F(KernelStart, SetsTheSharedAttributes) {
  StartQuiet();
  EXPECT_TRUE(OS_POSIX_OK);
  std::size_t stack = 0;
  ASSERT_EQ(pthread_attr_getstacksize(&std_thread_attr, &stack), 0);
  EXPECT_EQ(stack, 0x100000u);
  int type = -1;
  ASSERT_EQ(pthread_mutexattr_gettype(&std_mutex_attr, &type), 0);
  EXPECT_EQ(type, PTHREAD_MUTEX_RECURSIVE);
  EXPECT_EQ(type, 1);
  Stop();
  EXPECT_FALSE(OS_POSIX_OK);
}

TEST_F(KernelStart, SharedAttributesMakeThreadsAndRecursiveMutexes) {
  StartQuiet();
  pthread_mutex_t mutex;
  ASSERT_EQ(pthread_mutex_init(&mutex, &std_mutex_attr), 0);
  EXPECT_EQ(pthread_mutex_lock(&mutex), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &std_thread_attr, [](void* argument) { return argument; }, &mutex),
            0);
  void* result = nullptr;
  EXPECT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, &mutex);
}

TEST_F(KernelStart, InitialisesTheSectionsOfItsOwners) {
  StartQuiet();
  EXPECT_NE(OS_CRITICAL_LINK.sem, nullptr);
  EXPECT_NE(OS_CRITICAL_CALLBACKS.sem, nullptr);
  EXPECT_NE(OS_CRITICAL_BUFFERS.sem, nullptr);
  EXPECT_NE(OS_CRITICAL_TASK.sem, nullptr);
  EXPECT_NE(OS_CRITICAL_TRIGGER.sem, nullptr);
  for (CRITICAL_SECTION* section : {&OS_CRITICAL_LINK, &OS_CRITICAL_CALLBACKS, &OS_CRITICAL_BUFFERS,
                                    &OS_CRITICAL_TASK, &OS_CRITICAL_TRIGGER}) {
    EXPECT_EQ(section->owner_count, 0);
    EXPECT_EQ(section->owner_thread_id, pthread_t{0});
    EnterCriticalSection(section);
    LeaveCriticalSection(section);
  }
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(KernelStart, LeavesTheCalendarLockToTheFirstZoneChange) {
  IN_FRESH_PROCESS({
    StartQuiet();
    EXPECT_EQ(OS_CRITICAL_TIME.sem, nullptr);
    EXPECT_FALSE(time_init_done);
    Stop();
  });
}

TEST_F(KernelStart, NeverTouchesTheReservedCounters) {
  OS_BTIME = 0x12345678;
  OS_USEDTIME = 0x1234;
  Start();
  EXPECT_TRUE(wait_until([] { return std::atomic_ref<OSTask*>(OS_TASK).load() == OS_TRIG_TASK; }));
  Stop();
  EXPECT_EQ(OS_BTIME, 0x12345678u);
  EXPECT_EQ(OS_USEDTIME, 0x1234u);
  OS_BTIME = 0;
  OS_USEDTIME = 0;
}

// ---- Order -------------------------------------------------------------------------------------------------

/// Notes how far the start has come when something is fatal for the first time.
class StartWatcher : public RecordingConsole {
 public:
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    if (!first.empty()) return;
    char text[200];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    first = text;
    posix_ok = OS_POSIX_OK;
    active_cfg = KERNELCFG;
    memory = OS_MEMORY;
    links = OSLink::link_pool_size;
    callbacks = OSCallback::callback_pool_size;
    buffers = OSBuf::allocated_list != nullptr;
    tasks = OSTask::all_tasks != nullptr;
    trigger_task = OS_TRIG_TASK != nullptr;
  }

  std::string first;
  bool posix_ok = false;
  KernelCfg* active_cfg = nullptr;
  OSMemPool* memory = nullptr;
  ULONG links = 0;
  ULONG callbacks = 0;
  bool buffers = false;
  bool tasks = false;
  bool trigger_task = false;
};

TEST_F(KernelStart, LinksComeAfterConfigurationAndMemoryAndBeforeTheRest) {
  StartWatcher watcher;
  Console = &watcher;
  alignas(8) UBYTE block[4096];
  cfg.link_qty = 300000;
  FailingNew::fail_at_least(5000000);
  os_startup(block, sizeof block, &cfg);
  FailingNew::reset();
  os_cleanup();
  Console = &console;
  EXPECT_EQ(watcher.first, "OSLink::Alloc Out Of links");
  EXPECT_TRUE(watcher.posix_ok);
  EXPECT_EQ(watcher.active_cfg, &cfg);
  EXPECT_EQ(static_cast<void*>(watcher.memory), static_cast<void*>(block));
  EXPECT_EQ(watcher.callbacks, 0u);
  EXPECT_FALSE(watcher.buffers);
  EXPECT_FALSE(watcher.tasks);
  EXPECT_FALSE(watcher.trigger_task);
}

TEST_F(KernelStart, BuffersComeAfterLinksAndCallbacksAndBeforeTasks) {
  StartWatcher watcher;
  Console = &watcher;
  alignas(8) UBYTE block[4096];
  cfg.link_qty = 50;
  cfg.callback_qty = 60;
  const int sizes[] = {0, 100, 600, 30000};
  std::copy(std::begin(sizes), std::end(sizes), cfg.buf_size);
  cfg.buf_qty[3] = 200;
  FailingNew::fail_at_least(1000000);
  os_startup(block, sizeof block, &cfg);  // no block for the buffers, so their memory comes from the pool
  FailingNew::reset();
  os_cleanup();
  Console = &console;
  EXPECT_EQ(watcher.first, "OSMemPool::Allocate Out of Memory");
  EXPECT_EQ(watcher.links, 50u);
  EXPECT_EQ(watcher.callbacks, 60u);
  EXPECT_TRUE(watcher.buffers);
  EXPECT_FALSE(watcher.tasks);
  EXPECT_FALSE(watcher.trigger_task);
}

TEST_F(KernelStart, InterruptVectorsComeLast) {
  int calls = 0;
  std::function<void()> look = [&calls] {
    ++calls;
    EXPECT_TRUE(OS_POSIX_OK);
    EXPECT_NE(OSTask::all_tasks, nullptr);
    EXPECT_NE(OSBuf::allocated_list, nullptr);
    EXPECT_NE(os_trig_event, 0);
    EXPECT_NE(OS_TRIG_TASK, nullptr);
  };
  at_vectors = &look;
  Start();
  at_vectors = nullptr;
  EXPECT_EQ(calls, 1);
}

/// Ends when it is told to, and notes what is still there when it is deleted.
class WatchingTask : public OSTask {
 public:
  explicit WatchingTask(std::vector<std::string>* seen) : OSTask(3, 0, nullptr, nullptr), seen_(seen) {
    LeaveCriticalSection(&cs);
  }
  ~WatchingTask() override {
    seen_->push_back("task");
    if (OS_TRIG_TASK != nullptr) seen_->push_back("while the trigger task is there");
    if (!OS_POSIX_OK) seen_->push_back("after the shared attributes");
    if (OSBuf::allocated_list == nullptr) seen_->push_back("after the buffers");
    if (OSCallback::callback_pool_size == 0) seen_->push_back("after the callbacks");
  }
  void Main() override {
    while (std::atomic_ref<OSTState>(state).load() != OS_ST_KILL) Sleep(1);
  }

 private:
  std::vector<std::string>* seen_;
};

class WatchingEvent : public KernelEvent {
 public:
  explicit WatchingEvent(std::vector<std::string>* seen) : seen_(seen) {}
  ~WatchingEvent() override {
    seen_->push_back("event");
    if (OS_POSIX_OK) seen_->push_back("while the shared attributes are there");
    if (OSTask::all_tasks != nullptr) seen_->push_back("before the tasks");
    if (OSBuf::allocated_list != nullptr) seen_->push_back("before the buffers");
    if (OSCallback::callback_pool_size != 0) seen_->push_back("before the callbacks");
  }

 private:
  std::vector<std::string>* seen_;
};

TEST_F(KernelStart, StopTakesTheServicesDownInOrder) {
  Start();
  std::vector<std::string> seen;
  new WatchingEvent(&seen);
  new WatchingTask(&seen);
  new WatchingEvent(&seen);
  Stop();
  EXPECT_EQ(seen, (std::vector<std::string>{"task", "event", "event"}));
}

// ---- Stopped -----------------------------------------------------------------------------------------------

TEST_F(KernelStart, StopLeavesTheLinkPoolUsable) {
  cfg.link_qty = 20;
  StartQuiet();
  Stop();
  ASSERT_NE(OSLink::link_pool, nullptr);
  EXPECT_EQ(OSLink::link_pool_size, 20u);
  std::vector<OSLink*> links;
  for (int i = 0; i < 25; ++i) links.push_back(OSLink::Alloc());
  for (OSLink* link : links) {
    ASSERT_NE(link, nullptr);
    link->Free();
  }
  EXPECT_EQ(OSLink::link_pool_size, 40u);
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(KernelStart, StopForgetsTasksTriggersAndEvents) {
  Start();
  CreateEvent(nullptr, false, false, nullptr);
  Stop();
  EXPECT_EQ(OS_TRIG_TASK, nullptr);
  EXPECT_EQ(OSTask::all_tasks, nullptr);
  EXPECT_EQ(OSTaskTag::all_tags, nullptr);
  EXPECT_EQ(os_trig_event, 0);
  EXPECT_EQ(KernelEvent::eventList.Size(), 0);
  EXPECT_TRUE(KernelEvent::eventList.IsEmpty());
  EXPECT_FALSE(OS_POSIX_OK);
}

TEST_F(KernelStart, StopReleasesTheProgramAndKeepsThePointer) {
  StartQuiet();
  auto* program = new OSProgram(os_stdscan);
  OS_PROGRAM = program;
  Stop();
  EXPECT_EQ(OS_PROGRAM, program);
  OS_PROGRAM = nullptr;
}

TEST_F(KernelStart, PosixLayerStartsAndStopsAlone) {
  IN_FRESH_PROCESS({
    os_posix_init();
    EXPECT_TRUE(OS_POSIX_OK);
    os_posix_cleanup();
    EXPECT_FALSE(OS_POSIX_OK);
    EXPECT_TRUE(console.fatals().empty());
    EXPECT_EQ(console.text(), "");
  });
}

TEST_F(KernelStart, ProgramMayEndWithoutEverStarting) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(0), testing::ExitedWithCode(0), "");
}

TEST_F(KernelStart, ProgramMayEndAfterAStop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        os_startup(nullptr, 0, nullptr);
        SYSTEMTIME time;
        GetTZTime(&time, "UTC0");
        os_cleanup();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(KernelStart, RunsWithoutConsole) {
  Console = nullptr;
  Start();
  const HANDLE event = CreateEvent(nullptr, false, false, nullptr);
  SetEvent(event);
  EXPECT_EQ(WaitForSingleObject(event, 1000), 0u);
  Stop();
}

// Three configurations in turn, each with something left behind that the stop has to clear away.
TEST_F(KernelStart, AThousandRoundsLeaveNothingBehind) {
  // Both are multiples of three: the link pool outlives a stop, so the configuration that ran last counts.
  constexpr int kRounds = 1002;
  constexpr int kWarmUp = 30;
  KernelCfg large;
  KernelCfg small;
  small.link_qty = 50;
  small.callback_qty = 10;
  small.trigger_stack = 60000;
  KernelCfg quiet;
  quiet.trigger_stack = 0;
  quiet.link_qty = 100;
  KernelCfg* configurations[] = {&large, &small, &quiet};

  int descriptors_before = 0;
  std::size_t bytes_before = 0;
  const auto settle = [&] {
    console.clear();
    EXPECT_TRUE(threads_come_to(0));
  };
  for (int round = 0; round < kRounds; ++round) {
    if (round == kWarmUp) {
      settle();
      descriptors_before = descriptors();
      bytes_before = heap_bytes();
    }
    os_startup(nullptr, 0, configurations[round % 3]);
    ASSERT_EQ(KERNELCFG, configurations[round % 3]);
    ASSERT_EQ(OS_TRIG_TASK != nullptr, KERNELCFG->trigger_stack != 0);
    const HANDLE event = CreateEvent(nullptr, false, false, nullptr);
    SetEvent(event);
    ASSERT_EQ(WaitForSingleObject(event, 0xFFFFFFFF), 0u);
    os_cleanup();
    ASSERT_TRUE(console.fatals().empty()) << console.fatals().front() << " in round " << round;
    ASSERT_EQ(console.text(), "");
  }
  settle();
  EXPECT_EQ(descriptors(), descriptors_before);
  // A leak of one byte a round would already show; the slack is for the C library's own caches.
  const std::size_t bytes_after = heap_bytes();
  EXPECT_LE(bytes_after, bytes_before + 900) << "from " << bytes_before;
}

// ---- Priority scan tables ----------------------------------------------------------------------------------

TEST(ScanTable, StandardSequenceIsAsItIs) {
  EXPECT_TRUE(std::equal(std::begin(kScan), std::end(kScan), std::begin(os_stdscan)));
  const auto visits = [](int level) {
    return std::count(std::begin(os_stdscan), std::end(os_stdscan), level);
  };
  EXPECT_EQ(visits(1), 16);
  EXPECT_EQ(visits(2), 9);
  EXPECT_EQ(visits(3), 4);
  EXPECT_EQ(visits(4), 2);
  EXPECT_EQ(visits(5), 1);
  EXPECT_EQ(os_stdscan[15], 2) << "the sixteenth entry breaks the pattern and stays";
  EXPECT_EQ(os_stdscan[32], 0);
}

/// A program made in storage that holds anything but zeros.
class DirtyProgram {
 public:
  explicit DirtyProgram(UBYTE* scan) {
    std::memset(storage_, 0xEE, sizeof storage_);
    program_ = new (storage_) OSProgram(scan);
  }
  OSProgram* operator->() { return program_; }

 private:
  alignas(OSProgram) unsigned char storage_[sizeof(OSProgram)];
  OSProgram* program_;
};

TEST(ScanTable, ProgramStartsWithEmptyLevels) {
  DirtyProgram program(os_stdscan);
  EXPECT_EQ(program->nswaps, 0);
  for (const OSLevel& level : program->lev) {
    EXPECT_EQ(level.tcbp, nullptr);
    EXPECT_EQ(level.ntsks, 0);
  }
  EXPECT_EQ(program->sctep, &program->scantab[0]);
}

TEST(ScanTable, StandardProgramIsARingOfThirtyTwo) {
  DirtyProgram program(os_stdscan);
  OSScanTableEntry* entry = program->sctep;
  for (int cycle = 0; cycle < 2; ++cycle) {
    for (int i = 0; i < 32; ++i) {
      ASSERT_EQ(entry, &program->scantab[i]);
      EXPECT_EQ(entry->plev, &program->lev[kScan[i] - 1]) << "entry " << i;
      entry = entry->nscte;
    }
  }
  EXPECT_EQ(program->scantab[31].nscte, &program->scantab[0]);
}

TEST(ScanTable, ScanOfOneLevelPointsToItself) {
  UBYTE scan[] = {8, 0};
  DirtyProgram program(scan);
  EXPECT_EQ(program->scantab[0].plev, &program->lev[7]);
  EXPECT_EQ(program->scantab[0].nscte, &program->scantab[0]);
}

TEST(ScanTable, EmptyScanIsNoRingAndTouchesNothingElse) {
  UBYTE scan[] = {0};
  DirtyProgram program(scan);
  for (const OSLevel& level : program->lev) {
    EXPECT_EQ(level.tcbp, nullptr);
    EXPECT_EQ(level.ntsks, 0);
  }
  for (const OSScanTableEntry& entry : program->scantab) {
    EXPECT_EQ(entry.plev, nullptr);
    EXPECT_EQ(entry.nscte, nullptr);
  }
}

TEST(ScanTable, LevelAboveEightCountsAsEight) {
  UBYTE scan[] = {8, 9, 255, 1, 0};
  DirtyProgram program(scan);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(program->scantab[i].plev, &program->lev[7]);
  EXPECT_EQ(program->scantab[3].plev, &program->lev[0]);
}

TEST(ScanTable, ScanIsCutAtForty) {
  UBYTE scan[60];
  for (int i = 0; i < 60; ++i) scan[i] = static_cast<UBYTE>(1 + i % 8);
  DirtyProgram program(scan);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(program->scantab[i].plev, &program->lev[i % 8]);
    EXPECT_EQ(program->scantab[i].nscte, &program->scantab[(i + 1) % 40]);
  }
  EXPECT_EQ(program->nswaps, 0);
}

TEST(ScanTable, ScanOfExactlyFortyNeedsNoTerminator) {
  const auto scan = std::make_unique<UBYTE[]>(40);
  for (int i = 0; i < 40; ++i) scan[static_cast<std::size_t>(i)] = 3;
  DirtyProgram program(scan.get());
  EXPECT_EQ(program->scantab[39].plev, &program->lev[2]);
  EXPECT_EQ(program->scantab[39].nscte, &program->scantab[0]);
}

// ---- Strings -----------------------------------------------------------------------------------------------

constexpr char kUntouched = 0x5C;
constexpr wchar_t kUntouchedWide = 0x5C5C5C5C;

struct NarrowRow {
  std::wstring from;
  unsigned int limit;
  std::string written;  // what stands in the output, terminator included where there is one
  unsigned int result;
};

const NarrowRow kNarrow[] = {
    {L"abc", 10, std::string("abc\0", 4), 3},
    {L"abc", 4, std::string("abc\0", 4), 3},
    {L"abc", 3, "abc", 3},  // the limit is the length: no terminator
    {L"abc", 2, "ab", 2},
    {L"abc", 1, "a", 1},
    {L"abc", 0, "", 0},
    {L"", 0, "", 0},
    {L"", 1, std::string("\0", 1), 0},
    {L"\u00E9\u00FF\u0080", 10, std::string("\xE9\xFF\x80\0", 4), 3},
    {L"\u0141\u20AC\U0001F600z", 10, std::string("\x41\xAC\0z\0", 5), 4},  // only the low eight bits count
};

TEST(WideStrings, AreNarrowedToTheirLowEightBits) {
  for (const NarrowRow& row : kNarrow) {
    SCOPED_TRACE(testing::Message() << row.result << " of " << row.from.size() << ", limit " << row.limit);
    char text[20];
    std::fill(std::begin(text), std::end(text), kUntouched);
    EXPECT_EQ(wcstostr(text, row.from.c_str(), row.limit), row.result);
    EXPECT_EQ(std::string(text, row.written.size()), row.written);
    EXPECT_EQ(text[row.written.size()], kUntouched);
  }
}

struct WideRow {
  std::string from;
  unsigned int limit;
  std::wstring written;
  unsigned int result;
};

const WideRow kWide[] = {
    {"abc", 10, std::wstring(L"abc\0", 4), 3},
    {"abc", 4, std::wstring(L"abc\0", 4), 3},
    {"abc", 3, L"abc", 3},
    {"abc", 2, L"ab", 2},
    {"abc", 0, L"", 0},
    {"", 0, L"", 0},
    {"", 1, std::wstring(L"\0", 1), 0},
    {"\xE9", 10, std::wstring(L"\u00E9\0", 2), 1},  // zero extension, whatever char's sign is
    {"\x80\xFF\x7F", 10, std::wstring(L"\u0080\u00FF\u007F\0", 4), 3},
};

TEST(WideStrings, AreWidenedByZeroExtension) {
  for (const WideRow& row : kWide) {
    SCOPED_TRACE(testing::Message() << row.result << " of " << row.from.size() << ", limit " << row.limit);
    wchar_t text[20];
    std::fill(std::begin(text), std::end(text), kUntouchedWide);
    EXPECT_EQ(strtowcs(text, row.from.c_str(), row.limit), row.result);
    EXPECT_TRUE(std::wstring(text, row.written.size()) == row.written);
    EXPECT_TRUE(text[row.written.size()] == kUntouchedWide);
  }
}

// Nothing behind the limit is looked at: the text need not end there.
TEST(WideStrings, AreReadUpToTheLimitOnly) {
  const auto wide = std::make_unique<wchar_t[]>(4);
  const auto narrow = std::make_unique<char[]>(4);
  for (std::size_t i = 0; i < 4; ++i) {
    wide[i] = L'w';
    narrow[i] = 'n';
  }
  char narrowed[4];
  wchar_t widened[4];
  EXPECT_EQ(wcstostr(narrowed, wide.get(), 4), 4u);
  EXPECT_EQ(strtowcs(widened, narrow.get(), 4), 4u);
  EXPECT_EQ(std::string(narrowed, 4), "wwww");
  EXPECT_TRUE(std::wstring(widened, 4) == L"nnnn");
}

TEST(WideStrings, EveryByteSurvivesTheWayThereAndBack) {
  std::string all;
  for (int c = 1; c < 256; ++c) all.push_back(static_cast<char>(c));
  wchar_t wide[300];
  char back[300];
  EXPECT_EQ(strtowcs(wide, all.c_str(), 300), 255u);
  EXPECT_EQ(wcstostr(back, wide, 300), 255u);
  EXPECT_EQ(all, back);
}

}  // namespace
}  // namespace oskernel_test
