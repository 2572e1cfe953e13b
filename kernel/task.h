/// @file
/// Tasks: objects bound to one thread each, snoozed and woken; name tags for threads; deferred deletion.
#ifndef OSKERNEL_TASK_H
#define OSKERNEL_TASK_H

#include <pthread.h>

#include <mutex>

#include "kernel.h"
#include "link_indirect.h"
#include "link_list.h"
#include "types.h"

class OSTask;
class OSTrigger;
class OSTriggerDispatch;
class TaskStop;

/// What a task does; the table of OSTask says what changes it.
enum OSTState {
  OS_ST_HOLD = 0,  ///< snoozing: waits to be woken
  OS_ST_OK = 1,    ///< running
  OS_ST_KILL = 2   ///< being stopped, or stopped
};

/// Decides who deletes a task object: while `task` is set the exiting thread does, afterwards whoever cleared
/// it. Shared by the object and its thread, freed by the last of them. Under OS_CRITICAL_TASK.
struct OSTaskRecord {
  OSTask* task;  ///< the object, null once it is detached
};

OSKERNEL_API void* OSThreadFunc(void* task);  ///< the entry of every task's thread

/// What every task's thread does last, also when an exception, pthread_exit or pthread_cancel ends it: if the
/// record still names the task, sets KILL, detaches the thread and deletes the object, without joining. Then
/// gives up the thread's share of the record.
///   record    the task's OSTaskRecord
///   threads   the task's own, which must not use the object afterwards; its end does not repeat the clean-up.
///             Called by another thread, it deletes the object under a Main that still runs
OSKERNEL_API void OSThreadCleanup(void* record);

/// One object, one thread. A program derives from it, overrides Main, and ends the constructor of its most
/// derived class with LeaveCriticalSection(&cs): only then does the thread call Main.
///
///             Snooze()   Wake()           Kill(), _StopThread(),    _StopThread(),  Main returns,
///                                         destructor, other thread  own thread      record attached
///   OK        -> HOLD    FALSE            -> KILL, joined           -> KILL         -> KILL, thread deletes it
///   HOLD      stays      -> OK, signalled -> KILL, joined           -> KILL         -> KILL, thread deletes it
///   KILL      stays      FALSE            no effect                 no effect       record is detached then
///
/// Snoozing does not block. How a task waits until it is woken is its own business: on thread_event, or on a
/// thread-local trigger event. A Main loop tests `state` and returns once it is OS_ST_KILL, since Kill waits for
/// that.
class OSKERNEL_API OSTask : public OSLinkListObj {
 public:
  /// Starts the thread; its Main is held back until `cs` is left.
  ///   task_priority  1 to 8, recorded only; anything else becomes 8
  ///   stack_bytes    stack; 0, or a size that the system refuses, means the system's default. Recorded as
  ///                  at least 800 and a multiple of 4. The thread gets some more, for the C library's own use.
  ///   task_userdata  shares
  ///   function       an OSFunction that the thread runs instead of Main, without waiting for `cs`; null for Main.
  ///                  The thread may delete the object as soon as that function has returned
  /// When no thread can be had, the failure is printed and the object stays registered without one.
  OSTask(UWORD task_priority, ULONG stack_bytes, ADDR task_userdata, ADDR function);

  /// Stops and joins the thread unless it is the caller, closes the event, deletes the thread's name tag.
  /// A derived class whose Main uses its members stops the thread in its own destructor (Kill), or is deleted
  /// after Kill, or by its exiting thread, or by os_cleanup, which stops the thread first. Deleting a derived
  /// task before its thread has reached Main ends in "No Program Main", since only the base's Main is left by
  /// then: Kill it first. With `cs` still entered the join would last for ever.
  ~OSTask() override;

  /// What the thread runs; must be overridden. The base version is a fatal error.
  ///   threads   the task's own. An exception that leaves it ends the task.
  virtual void Main();

  static void Initialise();  ///< os_startup calls it
  /// os_cleanup calls it: tells every task that is still registered to stop (KILL, and thread_event signalled if
  /// there is one), waits for its Main, deletes it. Some tasks end only through their own destructor. A task is
  /// left to it, in the state in which it was found, while its Main sleeps in a wait for ever: at once when no
  /// thread is left in the process that could end that wait, otherwise when no task has done anything else for
  /// 2 s; and after 30 s whatever it does.
  static void UnInitialise();

  /// Stops the task: KILL, detached from its record, joined. Afterwards the object is the caller's to delete.
  /// No effect on a task that is stopped already.
  ///   threads   any, inside no section that Main needs to return; from the task's own thread no effect
  /// Deliberate: on the own thread not even the state changes. Main of a program may call Kill on whatever task it is
  /// given and goes on when that is itself. Pinned by task_end_test.cpp, KillFromTheOwnThreadDoesNothing.
  void Kill();
  /// Like Kill, but acts on the own thread too, which is then detached instead of joined.
  void _StopThread();
  /// The exiting thread no longer deletes the object, which is the caller's to delete from now on. The task runs
  /// on, its state unchanged. No effect on a task that is detached already. A class whose objects are local variables
  /// or members calls it in its constructor: its Main may return at any time.
  ///   threads   any
  void _LockDelete();

  /// Declares that the task now waits for a wake: OK becomes HOLD, other states stay. Does not block.
  /// Deliberate: a trigger that is ready for this task already is actioned with the next dispatch pass, whatever that
  /// comes from; Snooze asks for none. Programs that snooze look at their work once more first. Pinned by
  /// oddities_trigger_test.cpp, SnoozeAsksForNoPassThoughATriggerIsReadyForTheTask.
  ///   threads   any
  void Snooze();
  /// Ends the snooze, delivers `code` as WakeCode and signals thread_event. Triggers wake with their reason:
  /// 1 fired, 2 polled, 3 queue length, 4 timer.
  ///   returns   FALSE when the task is not snoozing; nothing changes then. Of two wakes at once one succeeds.
  ///   threads   any
  BOOL Wake(UWORD code);
  UWORD WakeCode();  ///< what the last wake delivered

  /// Deliberate: sets a new priority only while the present one lies in 1 to 8, and does not check the new one;
  /// once an out-of-range value has been stored, later calls have no effect. Programs park a task's priority
  /// this way. Pinned by task_test.cpp, SetPriorityLooksAtTheOldValueOnly.
  void SetPriority(UWORD new_priority);
  UWORD Priority() { return priority; }                             ///< as recorded
  void SetUserdata(ADDR new_userdata) { userdata = new_userdata; }  ///< shares it; no lock
  ADDR Userdata() { return userdata; }                              ///< as given last; no lock

  static OSTask* GetCurrentTask();   ///< the calling thread's task, null when it is none
  static HANDLE GetCurrentHandle();  ///< the low 32 bits of pthread_self()
  /// The first registered task with this thread; null when there is none. A task that has been stopped keeps its
  /// thread's id, which a new thread may have been given. The caller knows that the task stays alive.
  static OSTask* FindTask(pthread_t thread);

  UBYTE* curstk;    ///< reserved, null
  OSTask* pntcb;    ///< reserved, null
  OSTask* pltcb;    ///< reserved, null
  UBYTE* stkbot;    ///< a stack from the memory pool, released by the destructor; null for tasks with threads
  ULONG stksize;    ///< bytes, as adjusted
  ULONG proc_time;  ///< reserved, 0
  UWORD max_time;   ///< reserved, 0
  UWORD rcode;      ///< written before `state` leaves HOLD
  UWORD priority;   ///< recorded for the program; the thread's scheduling does not follow it
  /// Written atomically under a lock of the task's own. Main reads it in its loop; another thread's reading is
  /// a snapshot.
  OSTState state;
  ADDR userdata;              ///< the program's own; shares
  pthread_t thread_id;        ///< under OS_CRITICAL_TASK; 0 without a thread
  int thread_pid;             ///< process id as the thread sees it
  HANDLE thread_event;        ///< signalled by Wake; 0 until the first one makes it
  OSFunction start_func;      ///< what the thread runs
  OSTaskRecord* task_record;  ///< null once the object is detached from its thread; under OS_CRITICAL_TASK
  CRITICAL_SECTION cs;        ///< the start gate

  static OSIndirectList* all_tasks;  ///< under OS_CRITICAL_TASK

 private:
  friend void* OSThreadFunc(void* task);
  friend void OSThreadCleanup(void* record);
  friend class OSTriggerDispatch;

  void lnktsk();  ///< empty, kept for the priority-level tables
  void brktsk();

  int start_thread(ULONG stack_bytes);
  bool is_own_thread_locked();
  bool is_stopped_locked();
  void set_state(OSTState new_state);
  void detach_record_locked();
  void detach_thread_locked();
  void join_locked();
  bool claim_wake(UWORD code, HANDLE* event);
  OSTaskRecord* tell_to_stop_locked(TaskStop* stop);
  static void delete_when_stopped(OSTask* task, OSTaskRecord* waited_on, TaskStop* stop);

  /// Orders Snooze, Wake and the writing of KILL; a leaf, held over no call.
  std::mutex wake_mutex_;
  OSTaskRecord* start_record_;  ///< the record for the starting thread; constant after construction
  bool has_thread_;             ///< a thread that can be joined; under OS_CRITICAL_TASK
};

/// A name for a thread, task or not.
class OSKERNEL_API OSTaskTag : protected OSListObj {
 public:
  OSTaskTag();            ///< registered, unnamed, for no thread yet
  ~OSTaskTag() override;  ///< leaves the registry

  /// Names a thread.
  ///   name      copied; at most 128 characters count
  ///   thread    0 for the calling thread
  ///   threads   any, while the kernel runs; no effect after a stop
  static void SetName(const char* name, pthread_t thread);
  /// The thread's name.
  /// Deliberate: a tagged thread without a name gets its id in "%p" form as its name, for good; programs keep the
  /// pointer. Pinned by task_tag_test.cpp, AnUnnamedTagTakesTheThreadIdAndKeepsIt.
  ///   buf       room for a pointer in "%p" form (20 bytes), used when the thread has no tag; null gives "" then
  ///   thread    0 for the calling thread
  ///   returns   the tag's own storage, valid until the tag is deleted; or buf; or ""
  static const char* FindName(char* buf, pthread_t thread);
  static OSTaskTag* FindTag(pthread_t thread);  ///< null when there is none

  char name[128];  ///< not terminated when all 128 are used, but followed by a zero byte
 private:
  [[maybe_unused]] char name_end_;

 public:
  OSTask* task;         ///< the task that ran on the thread when it was first named; null when none did
  pthread_t thread_id;  ///< the thread; 0 for none yet

  static OSIndirectList* all_tags;  ///< under OS_CRITICAL_TASK
};

/// Moves the deletion of tasks, and the joins that it takes, to the thread that dispatches a trigger. A program
/// makes one and stores it in OS_AXE_TASK; os_cleanup deletes it.
class OSKERNEL_API OSAxeTask {
 public:
  /// Makes queue and trigger; the trigger runs Trigger as soon as a task is in the queue.
  OSAxeTask();
  /// Tasks still in the queue stay their owner's. Not while Trigger runs on another thread.
  ~OSAxeTask();
  /// Has the task deleted soon, in the order of the calls.
  ///   task      takes; detached from its record before (_LockDelete, Kill or _StopThread)
  ///   threads   any
  void Axe(OSTask* task);
  /// The callback of `trig`: deletes every task in the queue, first come first, and arms `trig` again.
  ///   threads   the dispatcher of `trig`, inside no section that those tasks' Mains need
  static void Trigger(OSObj* axe_task, ADDR addr, ULONG value);

  OSQueue* axeq;    ///< owned; protected by a section of its own
  OSTrigger* trig;  ///< owned
};

/// Marks, as a task's start_func, that its thread runs Main. A call runs OS_TASK's Main on the calling thread and
/// then OS_TASK's Kill; no thread of a task calls it.
OSKERNEL_API void os_task_startup();
/// Prints space and usage of OS_TASK's stack, as its stkbot and stksize have it.
OSKERNEL_API void OSCheckStack();

extern OSKERNEL_API pthread_key_t threadTaskKey;  ///< holds each task thread's OSTask*; 0 while there is none
extern OSKERNEL_API int os_task_count;            ///< threads created so far; under OS_CRITICAL_TASK

/// Guards the registry, the tags, every record and the kill protocol. Left around every join and before a
/// task is deleted. OS_CRITICAL_LINK may be entered from inside.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_TASK;

#endif
