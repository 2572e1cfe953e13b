/// Tasks: objects bound to one thread each, snoozed and woken; name tags for threads; deferred deletion.
#ifndef OSKERNEL_TASK_H
#define OSKERNEL_TASK_H

#include <pthread.h>

#include <chrono>
#include <mutex>

#include "kernel.h"
#include "link_indirect.h"
#include "link_list.h"
#include "types.h"

class OSTask;
class OSTrigger;
class OSTriggerDispatch;

enum OSTState {
  OS_ST_HOLD = 0,  ///< snoozing: waits to be woken
  OS_ST_OK = 1,    ///< running
  OS_ST_KILL = 2   ///< being stopped, or stopped
};

/// Decides who deletes a task object: while `task` is set the exiting thread does, afterwards whoever cleared
/// it. Shared by the object and its thread, freed by the last of them. Under OS_CRITICAL_TASK.
struct OSTaskRecord {
  OSTask* task;
};

OSKERNEL_API void* OSThreadFunc(void* task);      ///< the entry of every task's thread
OSKERNEL_API void OSThreadCleanup(void* record);  ///< what every task's thread does last

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
  ///   function       an OSFunction that the thread runs instead of Main, without waiting for `cs`; null for Main
  /// When no thread can be had, the failure is printed and the object stays registered without one.
  OSTask(UWORD task_priority, ULONG stack_bytes, ADDR task_userdata, ADDR function);

  /// Stops and joins the thread unless it is the caller, closes the event, deletes the thread's name tag.
  /// A derived class whose Main uses its members stops the thread in its own destructor (Kill), or is deleted
  /// after Kill, or by its exiting thread, or by os_cleanup, which stops the thread first.
  ~OSTask() override;

  /// What the thread runs; must be overridden. The base version is a fatal error.
  ///   threads   the task's own. An exception that leaves it ends the task.
  virtual void Main();

  static void Initialise();  ///< os_startup calls it
  /// os_cleanup calls it: tells every task that is still registered to stop, waits for its Main, deletes it. A
  /// Main that has not come out of one wait for ever after 2 s, or not ended after 30 s, is left to the task's
  /// own destructor.
  static void UnInitialise();

  /// Stops the task: KILL, detached from its record, joined. Afterwards the object is the caller's to delete.
  ///   threads   any, inside no section that Main needs to return; from the task's own thread no effect
  void Kill();
  /// Like Kill, but acts on the own thread too, which is then detached instead of joined.
  void _StopThread();
  /// The exiting thread no longer deletes the object.
  void _LockDelete();

  /// Declares that the task now waits for a wake.
  void Snooze();
  /// Ends the snooze, delivers `code` as WakeCode and signals thread_event. Triggers wake with their reason:
  /// 1 fired, 2 polled, 3 queue length, 4 timer.
  ///   returns   FALSE when the task is not snoozing; nothing changes then. Of two wakes at once one succeeds.
  ///   threads   any
  BOOL Wake(UWORD code);
  UWORD WakeCode();  ///< what the last wake delivered

  /// Deliberate: sets a new priority only while the present one lies in 1 to 8, and does not check the new one;
  /// once an out-of-range value has been stored, later calls have no effect. Programs park a task's priority
  /// this way. Pinned by task_test.cpp.
  void SetPriority(UWORD new_priority);
  UWORD Priority() { return priority; }
  void SetUserdata(ADDR new_userdata) { userdata = new_userdata; }
  ADDR Userdata() { return userdata; }

  static OSTask* GetCurrentTask();   ///< the calling thread's task, null when it is none
  static HANDLE GetCurrentHandle();  ///< the low 32 bits of pthread_self()
  static OSTask* FindTask(
      pthread_t thread);  ///< null when there is none; the caller knows that it stays alive

  UBYTE* curstk;    ///< reserved, null
  OSTask* pntcb;    ///< reserved, null
  OSTask* pltcb;    ///< reserved, null
  UBYTE* stkbot;    ///< a stack from the memory pool, released by the destructor; null for tasks with threads
  ULONG stksize;    ///< bytes, as adjusted
  ULONG proc_time;  ///< reserved, 0
  UWORD max_time;   ///< reserved, 0
  UWORD rcode;      ///< written before `state` leaves HOLD
  UWORD priority;
  /// Written atomically under a lock of the task's own. Main reads it in its loop; another thread's reading is
  /// a snapshot.
  OSTState state;
  ADDR userdata;
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
  void join_locked();
  bool claim_wake(UWORD code, HANDLE* event);
  void tell_to_stop_locked();
  void wait_until_stopped(std::chrono::steady_clock::time_point told_at);

  /// Orders Snooze, Wake and the writing of KILL; a leaf, held over no call.
  std::mutex wake_mutex_;
  OSTaskRecord* start_record_;  ///< the record for the starting thread; constant after construction
  bool has_thread_;             ///< a thread that can be joined; under OS_CRITICAL_TASK
};

/// A name for a thread, task or not.
class OSKERNEL_API OSTaskTag : protected OSListObj {
 public:
  OSTaskTag();  ///< registered, unnamed, for no thread yet
  ~OSTaskTag() override;

  /// Names a thread.
  ///   name    at most 128 characters count
  ///   thread  0 for the calling thread
  static void SetName(const char* name, pthread_t thread);
  /// The thread's name. A tagged thread without a name gets its id in "%p" form as its name, for good.
  ///   buf     room for a pointer in "%p" form, used when the thread has no tag; null gives "" then
  ///   thread  0 for the calling thread
  static const char* FindName(char* buf, pthread_t thread);
  static OSTaskTag* FindTag(pthread_t thread);  ///< null when there is none

  char name[128];  ///< not terminated when all 128 are used, but followed by a zero byte
 private:
  char name_end_;

 public:
  OSTask* task;
  pthread_t thread_id;

  static OSIndirectList* all_tags;  ///< under OS_CRITICAL_TASK
};

/// Moves the deletion of tasks, and the joins that it takes, to the thread that dispatches a trigger. A program
/// makes one and stores it in OS_AXE_TASK; os_cleanup deletes it.
class OSKERNEL_API OSAxeTask {
 public:
  OSAxeTask();
  ~OSAxeTask();
  /// Has the task deleted soon, in the order of the calls.
  ///   task      takes; detached from its record before (_LockDelete, Kill or _StopThread)
  ///   threads   any
  void Axe(OSTask* task);
  static void Trigger(OSObj* axe_task, ADDR addr, ULONG value);

  OSQueue* axeq;    ///< owned; protected by a section of its own
  OSTrigger* trig;  ///< owned
};

/// Marks that a thread runs Main; a call runs OS_TASK's Main and then its Kill.
OSKERNEL_API void os_task_startup();
/// Prints space and usage of OS_TASK's stack, as its stkbot and stksize have it.
OSKERNEL_API void OSCheckStack();

extern OSKERNEL_API pthread_key_t threadTaskKey;  ///< holds each task thread's OSTask*; 0 while there is none
extern OSKERNEL_API int os_task_count;            ///< threads created so far; under OS_CRITICAL_TASK

/// Guards the registry, the tags, every record and the kill protocol. Left around every join and before a
/// task is deleted. OS_CRITICAL_LINK may be entered from inside.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_TASK;

#endif
