/// The stop of the task system: tells every task, waits for each Main, deletes the objects.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/posixkernel_priv.h"
#include "kernel/task.h"
#include "kernel/task_priv.h"

namespace {

/// A Main that sleeps in a wait for ever, with nothing having happened in any task for so long, waits for
/// something that only its task's own destructor does. Threads that are no tasks have so long to end the wait.
constexpr std::chrono::seconds kStuckAfter{2};
/// A Main that neither ends nor waits for ever may be polling a flag of its own; it gets so long.
constexpr std::chrono::seconds kStopLimit{30};
constexpr std::chrono::milliseconds kFirstSlice{1};
constexpr std::chrono::milliseconds kLongestSlice{50};

/// The scheduler's letter for a thread of this process, 0 when the system does not say.
char thread_state(pid_t tid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(tid));
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return '\0';
  char text[256];  // number, name in brackets, state; more follows
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  if (length <= 0) return '\0';
  text[length] = '\0';
  const char* const name_end = std::strrchr(text, ')');  // a name may hold brackets of its own
  return name_end != nullptr && name_end[1] == ' ' ? name_end[2] : '\0';
}

/// Whether the thread sleeps in the wait for ever with this number. Whoever posts what it waits for makes it
/// runnable with that, so one that sleeps has nothing waiting for it.
bool sleeps_in_wait(const SharedRecord* record, unsigned wait, bool when_unknown) {
  if (wait % 2 == 0) return false;
  const char state = thread_state(record->tid.load(std::memory_order_relaxed));
  const bool sleeps = state == '\0' ? when_unknown : state == 'S';
  // Read after the state: the wait has not ended in between.
  return sleeps && record->endless_waits.load(std::memory_order_relaxed) == wait;
}

bool has_ended(SharedRecord* record) {
  record->over = record->over || record->ended.try_acquire();
  return record->over;
}

}  // namespace

// ---- Who comes to an end ----------------------------------------------------------------------------------

TaskStop::~TaskStop() {
  const SectionLock lock(&OS_CRITICAL_TASK);
  while (SharedRecord* const record = told_) {
    told_ = record->told_before;
    record->release_locked();
  }
}

void TaskStop::follow_locked(SharedRecord* record) {
  record->followed = true;
  ++record->owners;
  record->told_before = told_;
  record->waits_seen = record->endless_waits.load(std::memory_order_relaxed);
  told_ = record;
}

/// Whether any task that may still end by itself has done anything but wait for ever since the last look.
bool TaskStop::somebody_moved() {
  bool moved = false;
  for (SharedRecord* record = told_; record != nullptr; record = record->told_before) {
    if (record->left || record->over) continue;
    const unsigned waits = record->endless_waits.load(std::memory_order_relaxed);
    moved = moved || has_ended(record) || waits != record->waits_seen || waits % 2 == 0;
    record->waits_seen = waits;
  }
  return moved;
}

/// Whether every thread of the process but this one runs a task that sleeps in the wait for ever in which it was
/// last seen. Then it stays so: none of them does anything, and there is no other.
bool TaskStop::nobody_can_wake_anybody() const {
  DIR* const threads = opendir("/proc/self/task");
  if (threads == nullptr) return false;
  const pid_t self = gettid();
  bool all_sleep = true;
  // The stream is this call's own, so that readdir is safe.
  while (const dirent* const entry = readdir(threads)) {  // NOLINT(concurrency-mt-unsafe)
    const auto tid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
    if (tid == self || tid == 0) continue;  // 0: "." and ".."
    const SharedRecord* const record = followed(tid);
    all_sleep = all_sleep && record != nullptr && sleeps_in_wait(record, record->waits_seen, false);
  }
  closedir(threads);
  if (!all_sleep) return false;
  // One that was looked at early may have been woken by another before that was looked at.
  for (const SharedRecord* record = told_; record != nullptr; record = record->told_before) {
    const unsigned waits = record->endless_waits.load(std::memory_order_relaxed);
    if (!record->left && !record->over && waits != record->waits_seen) return false;
  }
  return true;
}

const SharedRecord* TaskStop::followed(pid_t tid) const {
  const SharedRecord* record = told_;
  while (record != nullptr && (record->over || record->tid.load(std::memory_order_relaxed) != tid)) {
    record = record->told_before;
  }
  return record;
}

bool TaskStop::ends_by_itself(SharedRecord* record) {
  auto slice = kFirstSlice;
  for (;;) {
    if (has_ended(record)) return true;
    const bool moved = somebody_moved();
    if (moved) still_for_ = {};
    const bool stuck = still_for_ >= kStuckAfter && sleeps_in_wait(record, record->waits_seen, true);
    if (stuck || waited_for_ >= kStopLimit || (!moved && nobody_can_wake_anybody())) {
      record->left = true;
      return false;
    }
    record->over = record->over || record->ended.try_acquire_for(slice);
    still_for_ += slice;
    waited_for_ += slice;
    slice = std::min(2 * slice, kLongestSlice);
  }
}

// ---- The stop ---------------------------------------------------------------------------------------------

/// Returns the record to wait on, null for the caller's own task.
OSTaskRecord* OSTask::tell_to_stop_locked(TaskStop* stop) {
  if (is_own_thread_locked()) return nullptr;
  SharedRecord* const record = shared(start_record_);
  if (record->followed) return record;
  stop->follow_locked(record);
  if (task_record == nullptr) return record;  // stopped; by itself perhaps, and then it may still be running
  record->task = nullptr;                     // from here on the thread does not delete its task
  record->told = true;
  record->state_found = std::atomic_ref(state).load(std::memory_order_relaxed);
  set_state(OS_ST_KILL);
  SetEvent(std::atomic_ref(thread_event).load());  // for a Main that waits to be woken; 0 is no event
  return record;
}

/// Waits for the end of the task's thread, so that the derived part of the object is not destroyed under it,
/// and deletes the object. A Main that ends only on what its own destructor does is left to that one, in the
/// state in which it was found.
void OSTask::delete_when_stopped(OSTask* task, OSTaskRecord* waited_on, TaskStop* stop) {
  if (waited_on != nullptr) {
    SharedRecord* const record = shared(waited_on);
    const bool ended = stop->ends_by_itself(record);
    const SectionLock lock(&OS_CRITICAL_TASK);
    if (record->object_gone) return;  // deleted by its own thread meanwhile
    if (!ended && record->told) task->set_state(record->state_found);
  }
  delete task;
}

void OSTask::UnInitialise() {
  if (all_tasks == nullptr) return;
  const auto as_task = [](OSListObj* object) {
    return static_cast<OSTask*>(static_cast<OSLinkListObj*>(object));
  };
  {
    TaskStop stop;
    {
      // All are told before the first is waited for, so that they stop side by side.
      const SectionLock lock(&OS_CRITICAL_TASK);
      OSListIterator tasks(all_tasks);
      while (OSListObj* const object = tasks++) as_task(object)->tell_to_stop_locked(&stop);
    }
    for (;;) {
      OSTask* task = nullptr;
      OSTaskRecord* record = nullptr;
      {
        const SectionLock lock(&OS_CRITICAL_TASK);
        OSListObj* const first = all_tasks->FirstObject();
        if (first == nullptr) break;
        task = as_task(first);
        record = task->tell_to_stop_locked(&stop);  // again, for it may have been made meanwhile
      }
      delete_when_stopped(task, record, &stop);
    }
  }
  wait_for_self_deleting_tasks();

  SectionLock lock(&OS_CRITICAL_TASK);
  delete all_tasks;
  all_tasks = nullptr;
  delete_task_key();
  delete OSTaskTag::all_tags;  // with its tags, which take themselves out
  OSTaskTag::all_tags = nullptr;
  lock.leave();
  delete_program_objects();
}
