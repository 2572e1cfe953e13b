/// What the task sources share; not installed.
#ifndef OSKERNEL_TASK_PRIV_H
#define OSKERNEL_TASK_PRIV_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <semaphore>

#include "task.h"

class OSProgram;

/// The record that object and thread share, with what only these sources know of it.
struct SharedRecord : OSTaskRecord {
  void release_locked() {
    if (--owners == 0) delete this;
  }

  // Under OS_CRITICAL_TASK.
  int owners = 2;            // the object and the thread, and a stop while it lasts
  bool object_gone = false;  // deleted by the thread itself

  // Written by the thread.
  std::atomic<pid_t> tid{0};               // 0 until it runs
  std::atomic<unsigned> endless_waits{0};  // see posixkernel_priv.h
  std::binary_semaphore ended{0};          // released once the thread needs its object no more

  // Of a stop; under OS_CRITICAL_TASK.
  bool followed = false;
  bool told = false;                // to stop
  OSTState state_found = OS_ST_OK;  // when it was told

  // The stopping thread's own.
  SharedRecord* told_before = nullptr;
  unsigned waits_seen = 0;
  bool over = false;  // the thread has ended
  bool left = false;  // to the task's own destructor
};

inline SharedRecord* shared(OSTaskRecord* record) { return static_cast<SharedRecord*>(record); }

/// One stop of all tasks: whom it has told, and whether they come to their end without help. A Main may wait for
/// something that only its own task's destructor does. Nothing about a task says so, and to destroy the derived
/// part of any other task under its Main is not safe. So a task is left to its destructor only while it sleeps
/// in a wait for ever, when nobody is left who could end that wait, or nobody has for a long while.
class TaskStop {
 public:
  TaskStop() = default;
  ~TaskStop();
  TaskStop(const TaskStop&) = delete;
  TaskStop& operator=(const TaskStop&) = delete;

  /// Follows the record from now on; keeps it alive.
  void follow_locked(SharedRecord* record);
  /// Waits for the thread, which has been told to stop, outside every section.
  ///   returns   false when it is to be left to its task's destructor
  bool ends_by_itself(SharedRecord* record);

 private:
  bool somebody_moved();
  bool nobody_can_wake_anybody() const;
  const SharedRecord* followed(pid_t tid) const;

  SharedRecord* told_ = nullptr;  // the last one followed
  // Slices of waiting, not the clock: when the whole process stands still for a while, so do these.
  std::chrono::milliseconds waited_for_{0};
  std::chrono::milliseconds still_for_{0};  // since somebody moved
};

/// Deletes OS_AXE_TASK and releases the storage of OS_PROGRAM. The pointers stay, so each address is
/// remembered: the next stop leaves it alone unless an object has been constructed there since.
void delete_program_objects();

/// A program has made an OSProgram here.
void program_constructed(const OSProgram* program);

/// Waits until no thread is deleting its own task any more.
void wait_for_self_deleting_tasks();

/// Gives back the key under which task threads find their task.
void delete_task_key();

#endif
