/// The task object, its thread's start and exit, and the task system's start; its stop is in task_stop.cpp.
#include "kernel/task.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <new>

#include "kernel/kern_memory.h"
#include "kernel/posixkernel_priv.h"
#include "kernel/task_priv.h"
#include "kernel/trigger_priv.h"

OSKERNEL_SECTION(OS_CRITICAL_TASK);

pthread_key_t threadTaskKey = 0;
int os_task_count = 0;
OSIndirectList* OSTask::all_tasks = nullptr;

namespace {

constexpr ULONG kSmallestStack_bytes = 800;
constexpr UWORD kLowestPriority = 8;

/// Added to every stack size that the system accepts: sizes were chosen for a small embedded C library, and
/// this one's printf and thread start take more than those stacks had to spare.
constexpr std::size_t kStackMargin_bytes = 64UL * 1024;

/// At least the smallest stack, rounded up to a multiple of 4 (down where that would pass 32 bits).
ULONG recorded_stack_size(ULONG bytes) {
  constexpr ULONG kLargest_bytes = 0xFFFFFFFC;
  return (std::min(std::max(bytes, kSmallestStack_bytes), kLargest_bytes) + 3) & ~ULONG{3};
}

/// Threads that are deleting their own task; os_cleanup waits until there are none. Atomic because it waits
/// on the value itself.
std::atomic<int> self_deleting{0};

std::atomic_ref<pthread_key_t> task_key() { return std::atomic_ref(threadTaskKey); }

}  // namespace

// ---- The task system ---------------------------------------------------------------------------------------

void OSTask::Initialise() {
  init_section(&OS_CRITICAL_TASK);
  // Inside the section: a task made while the kernel was stopped may just be going.
  const SectionLock lock(&OS_CRITICAL_TASK);
  all_tasks = new OSIndirectList(1);
  task_key().store(make_thread_key());
  OSTaskTag::all_tags = new OSIndirectList(1);
}

void wait_for_self_deleting_tasks() {
  for (int busy = self_deleting.load(); busy != 0; busy = self_deleting.load()) self_deleting.wait(busy);
}

void delete_task_key() {
  const pthread_key_t key = task_key().exchange(0);
  if (key != 0) pthread_key_delete(key);
}

// ---- The task's thread -------------------------------------------------------------------------------------

int OSTask::start_thread(ULONG stack_bytes) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (pthread_attr_setstacksize(&attributes, stack_bytes) == 0) {  // refuses 0, too
    pthread_attr_setstacksize(&attributes, std::size_t{stack_bytes} + kStackMargin_bytes);
  }
  int error = pthread_create(&thread_id, &attributes, OSThreadFunc, this);
  pthread_attr_destroy(&attributes);
  if (error != 0 && stack_bytes != 0) error = pthread_create(&thread_id, nullptr, OSThreadFunc, this);
  return error;
}

void* OSThreadFunc(void* arg) {
  auto* const task = static_cast<OSTask*>(arg);
  std::atomic_ref(OS_TASK).store(task);
  std::atomic_ref(task->thread_pid).store(getpid(), std::memory_order_relaxed);
  const pthread_key_t key = task_key().load();
  if (key != 0) pthread_setspecific(key, task);

  // Read now: once Main runs, the object may be deleted by whoever detaches the record.
  SharedRecord* const record = shared(task->start_record_);
  record->tid.store(gettid(), std::memory_order_relaxed);
  endless_waits = &record->endless_waits;
  const OSFunction start_func = task->start_func;

  // Runs on a forced unwinding (pthread_exit, pthread_cancel) too, which then goes on.
  struct AtExit {
    OSTaskRecord* record;
    ~AtExit() {
      if (endless_waits != nullptr) OSThreadCleanup(record);  // unless Main has called it
    }
  };
  const AtExit at_exit{record};
  try {
    if (start_func == os_task_startup) {
      EnterCriticalSection(&task->cs);
      LeaveCriticalSection(&task->cs);
      task->Main();
    } else {
      start_func();
    }
  } catch (...) {
    // Only a C++ exception can be held. pthread_exit and pthread_cancel are none and must go on unwinding.
    if (std::current_exception() == nullptr) throw;
    // The task ends here; the process goes on.
    if (Console != nullptr) Console->Print("OSThreadFunc: task %p ended by an exception\r\n", arg);
  }
  return nullptr;
}

void OSThreadCleanup(void* arg) {
  SharedRecord* const record = shared(static_cast<OSTaskRecord*>(arg));
  const bool own_thread = endless_waits == &record->endless_waits;
  if (own_thread) endless_waits = nullptr;  // the record may go before the thread does
  SectionLock lock(&OS_CRITICAL_TASK);
  if (!own_thread) ++record->owners;  // the thread, if there is one, keeps its share
  OSTask* const task = record->task;
  if (task != nullptr) {
    task->set_state(OS_ST_KILL);
    task->detach_thread_locked();
    if (OSTask::all_tasks != nullptr) OSTask::all_tasks->Remove(task);
    self_deleting.fetch_add(1);
    // Deleted outside the section: the derived destructor may join other tasks, whose exit needs it.
    lock.leave();
    delete task;
    lock.enter();
  }
  if (own_thread) record->ended.release();
  record->release_locked();
  if (task != nullptr) {
    self_deleting.fetch_sub(1);
    self_deleting.notify_all();
  }
}

void os_task_startup() {
  OSTask* const task = std::atomic_ref(OS_TASK).load();
  if (task == nullptr) return;
  task->Main();
  task->Kill();
}

void OSTask::Main() {
  if (Console != nullptr) Console->Fatal("OSTask::Main No Program Main");
  Kill();
}

// ---- The task object ---------------------------------------------------------------------------------------

OSTask::OSTask(UWORD task_priority, ULONG stack_bytes, ADDR task_userdata, ADDR function)
    : curstk(nullptr),
      pntcb(nullptr),
      pltcb(nullptr),
      stkbot(nullptr),
      stksize(recorded_stack_size(stack_bytes)),
      proc_time(0),
      max_time(0),
      rcode(0),
      priority(task_priority == 0 || task_priority > kLowestPriority ? kLowestPriority : task_priority),
      state(OS_ST_OK),
      userdata(task_userdata),
      thread_id(0),
      thread_pid(0),
      thread_event(0),
      start_func(function != nullptr ? reinterpret_cast<OSFunction>(function) : os_task_startup),
      task_record(nullptr),
      start_record_(nullptr),
      has_thread_(false) {
  InitializeCriticalSection(&cs);
  EnterCriticalSection(&cs);  // the gate: the most derived constructor opens it
  SectionLock lock(&OS_CRITICAL_TASK);
  auto* const record = new SharedRecord;
  record->task = this;
  task_record = record;
  start_record_ = record;
  if (all_tasks != nullptr) all_tasks->Append(this);
  lnktsk();
  const int error = start_thread(stack_bytes);
  has_thread_ = error == 0;
  if (has_thread_) {
    ++os_task_count;
    return;
  }
  // Deliberate: the object stays registered, OK and without a thread. Its constructor has no result, and programs find
  // it and delete it like any other. Pinned by task_create_test.cpp,
  // ARefusedThreadIsReportedAndLeavesARegisteredTaskWithoutOne.
  thread_id = 0;
  record->owners = 1;  // no thread shares it
  record->ended.release();
  const int total = os_task_count;
  lock.leave();
  if (Console == nullptr) return;
  Console->Print("OSTask::OSTask Thread Create Failed %d (total so far %d)", error, total);
}

OSTask::~OSTask() {
  OSMemPool::Free(stkbot);
  SectionLock lock(&OS_CRITICAL_TASK);
  brktsk();
  if (all_tasks != nullptr) all_tasks->Remove(this);
  if (is_own_thread_locked()) {
    detach_thread_locked();  // deleted by its own code: nobody will join
    shared(start_record_)->object_gone = true;
  } else {
    set_state(OS_ST_KILL);
  }
  detach_record_locked();
  join_locked();

  CloseHandle(std::atomic_ref(thread_event).load());  // 0 is no event
  // A thread that has ended may have passed its id on to a new one, whose tag is not ours.
  OSTaskTag* const tag = thread_id != 0 ? OSTaskTag::FindTag(thread_id) : nullptr;
  if (tag != nullptr && (tag->task == this || tag->task == nullptr)) delete tag;
  OSTask* self = this;
  std::atomic_ref(OS_TASK).compare_exchange_strong(self, nullptr);
  shared(start_record_)->release_locked();
  lock.leave();
  // A waker that has just made the task run may still be leaving the mutex.
  const std::lock_guard<std::mutex> wake_lock(wake_mutex_);
}

bool OSTask::is_own_thread_locked() {
  return thread_id != 0 && pthread_equal(thread_id, pthread_self()) != 0;
}

/// Whether somebody has stopped the task, or told it to stop and answers for the rest. What os_cleanup has told
/// a task does not count: a destructor that stops other tasks relies on Kill joining them.
bool OSTask::is_stopped_locked() {
  if (std::atomic_ref(state).load() != OS_ST_KILL) return false;
  return task_record == nullptr || !shared(task_record)->told;
}

void OSTask::set_state(OSTState new_state) {
  const std::lock_guard<std::mutex> lock(wake_mutex_);
  std::atomic_ref(state).store(new_state);
}

void OSTask::detach_record_locked() {
  if (task_record == nullptr) return;
  task_record->task = nullptr;
  task_record = nullptr;
}

void OSTask::detach_thread_locked() {
  if (has_thread_) pthread_detach(thread_id);
  has_thread_ = false;
}

/// Waits for the thread's end with the section left, since the thread's exit needs it.
void OSTask::join_locked() {
  if (!has_thread_) return;
  has_thread_ = false;
  const pthread_t thread = thread_id;
  LeaveCriticalSection(&OS_CRITICAL_TASK);
  pthread_join(thread, nullptr);
  EnterCriticalSection(&OS_CRITICAL_TASK);
}

void OSTask::Kill() {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (is_stopped_locked() || is_own_thread_locked()) return;
  set_state(OS_ST_KILL);
  detach_record_locked();
  join_locked();
}

void OSTask::_StopThread() {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (is_stopped_locked()) return;
  set_state(OS_ST_KILL);
  detach_record_locked();
  if (!is_own_thread_locked()) {
    join_locked();
    return;
  }
  detach_thread_locked();
}

void OSTask::_LockDelete() {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (task_record != nullptr) task_record->task = nullptr;
}

void OSTask::Snooze() {
  {
    const std::lock_guard<std::mutex> lock(wake_mutex_);
    if (state == OS_ST_OK) std::atomic_ref(state).store(OS_ST_HOLD);
  }
  if (std::atomic_ref(OS_TASK).load() == this) os_schedule();
}

/// Everything of a wake but the signal, whose handle is handed out: once the state has changed the task may
/// run, end and be deleted.
bool OSTask::claim_wake(UWORD code, HANDLE* event) {
  if (std::atomic_ref(state).load() != OS_ST_HOLD) return false;
  // Made before the lock is taken, which is a leaf.
  const HANDLE spare =
      std::atomic_ref(thread_event).load() == 0 ? CreateEvent(nullptr, false, false, nullptr) : 0;
  bool claimed = false;
  bool spare_used = false;
  {
    const std::lock_guard<std::mutex> lock(wake_mutex_);
    if (state == OS_ST_HOLD) {
      if (thread_event == 0) {
        std::atomic_ref(thread_event).store(spare);
        spare_used = true;
      }
      *event = thread_event;
      std::atomic_ref(rcode).store(code, std::memory_order_relaxed);  // published by the state
      std::atomic_ref(state).store(OS_ST_OK);
      claimed = true;
    }
  }
  if (spare != 0 && !spare_used) CloseHandle(spare);
  return claimed;
}

BOOL OSTask::Wake(UWORD code) {
  HANDLE event = 0;
  if (!claim_wake(code, &event)) return FALSE;
  SetEvent(event);
  return TRUE;
}

UWORD OSTask::WakeCode() { return std::atomic_ref(rcode).load(std::memory_order_relaxed); }

void OSTask::SetPriority(UWORD new_priority) {
  // Deliberate: the old value is checked, the new one is not; see the header. Pinned by task_test.cpp,
  // SetPriorityLooksAtTheOldValueOnly.
  if (priority >= 1 && priority <= kLowestPriority) priority = new_priority;
}

void OSTask::lnktsk() {}
void OSTask::brktsk() {}

OSTask* OSTask::GetCurrentTask() {
  const pthread_key_t key = task_key().load();
  return key == 0 ? nullptr : static_cast<OSTask*>(pthread_getspecific(key));
}

HANDLE OSTask::GetCurrentHandle() { return static_cast<HANDLE>(pthread_self()); }

OSTask* OSTask::FindTask(pthread_t thread) {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (all_tasks == nullptr) return nullptr;
  OSListIterator tasks(all_tasks);
  while (OSListObj* const object = tasks++) {
    auto* const task = static_cast<OSTask*>(static_cast<OSLinkListObj*>(object));
    if (task->thread_id == thread) return task;
  }
  return nullptr;
}

void OSCheckStack() {
  const OSTask* const task = std::atomic_ref(OS_TASK).load();
  if (task == nullptr || Console == nullptr) return;
  // Not the address of a local variable, which a sanitizer may keep elsewhere.
  const auto at = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  const auto bottom = reinterpret_cast<std::uintptr_t>(task->stkbot);
  Console->Print("Stack space = %d usage = %d\r\n", static_cast<int>(at - bottom),
                 static_cast<int>(bottom + task->stksize - at));
}
