/// The task object, its thread's start and exit, and the task system's start and stop.
#include "kernel/task.h"

#include <cxxabi.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <semaphore>

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

/// os_cleanup tells a task to stop and waits for its Main. A Main that has not come out of one and the same wait
/// for ever by then waits for something that only the task's own destructor does.
constexpr std::chrono::seconds kStuckAfter{2};
/// A Main that neither ends nor waits for ever may be polling a flag of its own; it gets so long.
constexpr std::chrono::seconds kStopLimit{30};
constexpr std::chrono::milliseconds kStopSlice{50};

/// The record that object and thread share, with what only this file knows of it.
struct SharedRecord : OSTaskRecord {
  int owners = 2;                          // the object and the thread; under OS_CRITICAL_TASK
  std::binary_semaphore ended{0};          // released once the thread needs its object no more
  std::atomic<unsigned> endless_waits{0};  // counted by the thread, see posixkernel_priv.h

  // What os_cleanup found when it told the task to stop; under OS_CRITICAL_TASK.
  bool told = false;
  OSTState state_found = OS_ST_OK;
  unsigned waits_found = 0;

  void release_locked() {
    if (--owners == 0) delete this;
  }
};

/// At least the smallest stack, rounded up to a multiple of 4 (down where that would pass 32 bits).
ULONG recorded_stack_size(ULONG bytes) {
  constexpr ULONG kLargest_bytes = 0xFFFFFFFC;
  return (std::min(std::max(bytes, kSmallestStack_bytes), kLargest_bytes) + 3) & ~ULONG{3};
}

/// Whether the thread, told to stop at that time, comes to its end without help from its task's destructor.
bool ends_by_itself(SharedRecord* record, std::chrono::steady_clock::time_point told_at) {
  auto moved_at = told_at;
  unsigned waits = record->waits_found;
  for (;;) {
    if (record->ended.try_acquire()) return true;
    const auto now = std::chrono::steady_clock::now();
    const unsigned waits_now = record->endless_waits.load(std::memory_order_relaxed);
    if (waits_now != waits || waits_now % 2 == 0) moved_at = now;
    waits = waits_now;
    if (now - moved_at >= kStuckAfter || now - told_at >= kStopLimit) return false;
    if (record->ended.try_acquire_for(kStopSlice)) return true;
  }
}

SharedRecord* shared(OSTaskRecord* record) { return static_cast<SharedRecord*>(record); }

/// Threads that are deleting their own task; os_cleanup waits until there are none. Atomic because it waits
/// on the value itself.
std::atomic<int> self_deleting{0};

std::atomic_ref<pthread_key_t> task_key() { return std::atomic_ref(threadTaskKey); }

}  // namespace

// ---- The task system ---------------------------------------------------------------------------------------

void OSTask::Initialise() {
  init_section(&OS_CRITICAL_TASK);
  all_tasks = new OSIndirectList(1);
  task_key().store(make_thread_key());
  OSTaskTag::all_tags = new OSIndirectList(1);
}

void OSTask::tell_to_stop_locked() {
  if (!has_thread_ || task_record == nullptr || is_own_thread_locked()) return;
  SharedRecord* const record = shared(task_record);
  record->task = nullptr;  // from here on the thread does not delete its task
  if (record->told) return;
  record->told = true;
  record->waits_found = record->endless_waits.load(std::memory_order_relaxed);
  record->state_found = std::atomic_ref(state).load(std::memory_order_relaxed);
  set_state(OS_ST_KILL);
  const HANDLE wake = std::atomic_ref(thread_event).load();
  if (wake != 0) SetEvent(wake);  // for a Main that waits to be woken
}

/// Waits for the end of the task's thread before the derived part of the object is destroyed under it. A Main
/// that ends only on what its own destructor does is left to that destructor, in the state in which it was found.
void OSTask::wait_until_stopped(std::chrono::steady_clock::time_point told_at) {
  SectionLock lock(&OS_CRITICAL_TASK);
  if (!has_thread_ || task_record == nullptr || is_own_thread_locked()) return;
  SharedRecord* const record = shared(task_record);
  lock.leave();
  const bool ended = ends_by_itself(record, told_at);
  lock.enter();
  if (ended) {
    detach_record_locked();
    join_locked();
  } else {
    set_state(record->state_found);
  }
}

void OSTask::UnInitialise() {
  if (all_tasks == nullptr) return;
  const auto as_task = [](OSListObj* object) {
    return static_cast<OSTask*>(static_cast<OSLinkListObj*>(object));
  };
  // All are told before the first is waited for, so that they stop side by side.
  const auto told_at = std::chrono::steady_clock::now();
  {
    const SectionLock lock(&OS_CRITICAL_TASK);
    OSListIterator tasks(all_tasks);
    while (OSListObj* const object = tasks++) as_task(object)->tell_to_stop_locked();
  }
  for (;;) {
    OSTask* task = nullptr;
    {
      const SectionLock lock(&OS_CRITICAL_TASK);
      OSListObj* const first = all_tasks->FirstObject();
      if (first == nullptr) break;
      // From here on the task is ours: unregistered and, whatever its thread does, not deleted by it.
      task = as_task(first);
      all_tasks->Remove(first);
      if (task->task_record != nullptr) task->task_record->task = nullptr;
      task->tell_to_stop_locked();  // one that was made meanwhile
    }
    task->wait_until_stopped(told_at);
    delete task;
  }
  for (int busy = self_deleting.load(); busy != 0; busy = self_deleting.load()) self_deleting.wait(busy);

  delete all_tasks;
  all_tasks = nullptr;
  const pthread_key_t key = task_key().exchange(0);
  if (key != 0) pthread_key_delete(key);
  delete OSTaskTag::all_tags;
  OSTaskTag::all_tags = nullptr;
  delete_program_objects();
}

// ---- The task's thread -------------------------------------------------------------------------------------

int OSTask::start_thread(ULONG stack_bytes) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stack_bytes != 0 && pthread_attr_setstacksize(&attributes, stack_bytes) == 0) {
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
  OSTaskRecord* const record = task->start_record_;
  endless_waits = &shared(record)->endless_waits;
  const OSFunction start_func = task->start_func;

  // Runs on a forced unwinding (pthread_exit, pthread_cancel) too, which then goes on.
  struct AtExit {
    OSTaskRecord* record;
    ~AtExit() { OSThreadCleanup(record); }
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
    // Only a C++ exception has a type. pthread_exit and pthread_cancel have none and must go on unwinding.
    if (abi::__cxa_current_exception_type() == nullptr) throw;
    // The task ends here; the process goes on.
    if (Console != nullptr) Console->Print("OSThreadFunc: task %p ended by an exception\r\n", arg);
  }
  return nullptr;
}

void OSThreadCleanup(void* arg) {
  SharedRecord* const record = shared(static_cast<OSTaskRecord*>(arg));
  endless_waits = nullptr;  // the record may go before the thread does
  SectionLock lock(&OS_CRITICAL_TASK);
  OSTask* const task = record->task;
  if (task != nullptr) {
    record->task = nullptr;
    task->set_state(OS_ST_KILL);
    if (task->has_thread_) pthread_detach(task->thread_id);
    task->has_thread_ = false;
    if (OSTask::all_tasks != nullptr) OSTask::all_tasks->Remove(task);
    self_deleting.fetch_add(1);
    // Deleted outside the section: the derived destructor may join other tasks, whose exit needs it.
    lock.leave();
    delete task;
    lock.enter();
  }
  record->ended.release();
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
  thread_id = 0;
  record->owners = 1;  // no thread shares it
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
    // Deleted by its own code: nobody will join the thread.
    if (has_thread_) pthread_detach(thread_id);
    has_thread_ = false;
  } else {
    set_state(OS_ST_KILL);
  }
  detach_record_locked();
  join_locked();

  const HANDLE event = std::atomic_ref(thread_event).load();
  if (event != 0) CloseHandle(event);
  // A thread that has ended may have passed its id on to a new one, whose tag is not ours.
  OSTaskTag* const tag = thread_id != 0 ? OSTaskTag::FindTag(thread_id) : nullptr;
  if (tag != nullptr && (tag->task == this || tag->task == nullptr)) delete tag;
  OSTask* self = this;
  std::atomic_ref(OS_TASK).compare_exchange_strong(self, nullptr);
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
  shared(task_record)->release_locked();
  task_record = nullptr;
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
  if (has_thread_) pthread_detach(thread_id);
  has_thread_ = false;
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
  // Deliberate: the old value is checked, the new one is not; see the header.
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
  const char here = 0;
  const auto at = reinterpret_cast<std::uintptr_t>(&here);
  const auto bottom = reinterpret_cast<std::uintptr_t>(task->stkbot);
  Console->Print("Stack space = %d usage = %d\r\n", static_cast<int>(at - bottom),
                 static_cast<int>(bottom + task->stksize - at));
}
