/// @file
/// Triggers: timers, queue levels, polled conditions and hand-fired events that wake a task or run a callback.
///
/// A trigger waits (armed), becomes ready when its condition holds, and is actioned once: a snoozing task is
/// woken or a callback is run. To hear of the next occurrence its owner arms it again with Clear().
///
///                  Wait()/    condition true    dispatcher: action        Cancel()     SetTimer()
///                  Clear()    or Fire()         possible     not possible
///   INACTIVE       -> WAIT    no effect         -            -             stays        -> WAIT
///   WAIT           stays      -> READY, or at   -            -             -> INACTIVE  -> WAIT, from now
///                             once -> ACTIONED
///                             (async 0)
///   READY          -> WAIT    no effect         -> ACTIONED  stays READY   -> INACTIVE  -> WAIT
///   ACTIONED       -> WAIT    no effect         -            -             -> INACTIVE  -> WAIT
///
/// Clear tests the condition after arming, so the trigger may be READY again before Clear returns.
#ifndef OSKERNEL_TRIGGER_H
#define OSKERNEL_TRIGGER_H

#include <pthread.h>

#include "link_indirect.h"
#include "link_list.h"
#include "posixkernel.h"
#include "task.h"
#include "types.h"

/// Where a trigger stands; the table above says what moves it on.
enum OSTrState {
  OS_T_INACTIVE = 0,  ///< not armed
  OS_T_WAIT = 1,      ///< armed
  OS_T_READY = 2,     ///< active; its action is still to come
  OS_T_ACTIONED = 3   ///< its action has been taken; to be armed again
};

/// What is done when a trigger becomes active.
enum OSTrAction {
  OS_TA_NONE = 0,  ///< nothing is done; the trigger stays ready until somebody clears or cancels it
  OS_TA_WAKE = 1,  ///< wakes `task`
  OS_TA_FUNC = 2   ///< runs `callback`
};

class OSTriggerDispatch;
class OSTriggerTLS;

/// What all kinds of trigger have in common. One trigger sits in at most one list at a time: its kind's watch
/// list while it waits, a ready list while it is ready.
///
/// Threads: every public operation may be called from any thread, inside no section that is ordered behind
/// OS_CRITICAL_TRIGGER, and never waits but for that section. A trigger may be deleted from any thread, from its
/// own callback too: a dispatch that has not begun the callback by then never runs it; a callback that has
/// begun on another thread goes on, and what it uses besides the trigger is the program's to keep alive.
class OSKERNEL_API OSTrigger : public OSLinkListObj {
 public:
  /// Not armed; delivered to the constructing thread's own ready list when it has one, else globally; wakes,
  /// unless told otherwise, the task that constructs it. obj, addr and value are left unset.
  explicit OSTrigger(OSTrAction action);
  ~OSTrigger() override;  ///< leaves every list; a firing that is still to be dispatched is withdrawn

  /// Tests the condition and activates the trigger when it holds.
  ///   threads   any: the trigger task, a thread that changes a watched queue, the caller of Clear. All of them
  ///             call it inside OS_CRITICAL_TRIGGER. An override may cancel or delete triggers, this one
  ///             included, and must not wait.
  virtual void Check() = 0;

  BOOL IsActive();    ///< ready or actioned
  OSTrState State();  ///< the present state, a snapshot

  /// From now on wakes `task` (shares), whatever it did before. Null wakes nobody: the trigger stays ready.
  /// A trigger that is ready already and that its dispatcher could not action as it was is looked at again.
  void SetTask(OSTask* task);
  /// From now on runs callback(obj, addr, value), whatever it did before; null runs nothing. A trigger that is
  /// ready already and that its dispatcher could not action as it was is looked at again: one that becomes
  /// active while it is constructed may meet its dispatcher before it has its callback.
  void SetCallback(OSCallbackFunction callback, OSObj* obj, ADDR addr, ULONG value);

  /// Activates the trigger when it is armed, with reason 1; otherwise its state stays.
  /// Deliberate: `reason` becomes 1 in any case, so that a task for which a trigger stands ready learns that it
  /// was fired meanwhile. Pinned by trigger_test.cpp, FireGivesReasonOneEvenWhereItIsIgnored.
  void Fire();
  void Clear();   ///< arms again and tests the condition at once
  void Cancel();  ///< disarms; leaves every list

  /// Carries the action out when the trigger is inactive or ready; dispatchers call it.
  ///   returns   FALSE when nothing was done: another state, no task, a task that is not snoozing, action NONE.
  ///             The trigger then stays as it is. After TRUE the trigger may be gone.
  BOOL Action();

  // Start, stop and dispatch.
  /// Makes section, events, trigger task and timer thread; the last two not when KERNELCFG->trigger_stack is 0.
  /// Reports nothing: without the timer thread, which the system may refuse, timers expire when something else
  /// wakes the trigger task.
  ///   threads   the starting thread; os_startup calls it
  static void Initialise();
  /// Ends and joins trigger task and timer thread and closes the events. Triggers keep their states and lists.
  ///   threads   the stopping thread; os_cleanup calls it
  static void UnInitialise();
  /// Gives the calling thread a ready list and an event of its own; triggers that it constructs from now on
  /// are delivered there. The thread waits on TLSGetEvent() and calls TLSPoll() when it is signalled. Called
  /// again, it gives the old list up as TLSUninitialise does and makes a new one. Without memory or a
  /// thread-specific key the thread stays without: TLSGetEvent() is 0, its triggers are delivered globally.
  static void TLSInitialise();
  /// Closes the event and gives the list up.
  /// Deliberate: triggers on it are not moved; they stay ready and nobody dispatches them until they are
  /// cancelled. A thread that ends does not want its callbacks run on another. Pinned by
  /// trigger_own_list_test.cpp, TriggersOnAListThatIsTornDownStayUsable.
  static void TLSUninitialise();
  static HANDLE TLSGetEvent();  ///< the calling thread's event, 0 when it has none
  static void TLSPoll();        ///< runs the calling thread's ready triggers; no effect without a list

  OSTrState state;    ///< under OS_CRITICAL_TRIGGER, written atomically for readers without it
  OSTrAction action;  ///< set by the constructor, SetTask and SetCallback
  UBYTE reason;       ///< why it last became active: 1 fired, 2 polled, 3 queue length, 4 timer; 0 before
  /// 0: a trigger that does not run a callback is actioned in the activating thread when that is possible;
  /// 2: the constructing thread's ready list when it has one; anything else: the global ready list.
  /// Deliberate: 0 never runs a callback inside Fire or Check; a dispatcher does, outside every section. Callbacks
  /// take sections of their own and rely on holding none before. Pinned by trigger_test.cpp,
  /// ASynchronousCallbackIsNeverRunInsideFire.
  UBYTE async;
  OSTriggerTLS* tls;  ///< the constructing thread's ready list or null
  OSTask* task;       ///< the task to wake; at first the constructing one, null on a thread that is none
  OSCallbackFunction callback;  ///< null at first; called as callback(obj, addr, value)
  OSObj* obj;                   ///< the callback's first argument; unset until SetCallback
  ADDR addr;                    ///< its second
  ULONG value;                  ///< its third
  int fired;                    ///< number of activations; under OS_CRITICAL_TRIGGER

 protected:
  // The transitions. Kinds override them to enter and leave their watch list around the base version, which
  // must be called. All run inside OS_CRITICAL_TRIGGER.
  virtual void Inactive();  ///< disarms: leaves the ready list, state INACTIVE
  virtual void Wait();      ///< arms: leaves the ready list, state WAIT; tests nothing
  /// Makes ready: state READY, then ReadyAppend.
  /// Deliberate: on a trigger that is ready already this returns without giving back the level of
  /// OS_CRITICAL_TRIGGER that it took. No path of the kernel calls it so; derived triggers that do are
  /// balanced against it. Pinned by trigger_test.cpp, ReadyOnAReadyTriggerKeepsOneLevelOfTheSection.
  virtual void Ready();
  virtual void Actioned();  ///< notes that the action is taken: leaves the ready list, state ACTIONED

  void Activate();     ///< the step from WAIT: `fired` + 1, then actioned at once or made ready
  void ReadyAppend();  ///< appends to the ready list that `async` chooses and signals its event
  void ReadyRemove();  ///< leaves the ready list that ReadyAppend chose, whatever `async` is now

 private:
  friend class OSTriggerDispatch;

  void set_state_locked(OSTrState new_state);
  void signal_if_passed_over_locked();

  bool passed_over_;                    ///< a dispatcher found it ready and could do nothing
  OSLinkList* ready_list_;              ///< the list it was put on while it is ready, else null
  OSTriggerTLS* tls_owner_;             ///< keeps `tls` alive as long as the trigger
  alignas(8) std::uint64_t poll_pass_;  ///< the last dispatch pass that checked it on OS_POLL_LIST
};

/// Becomes active when `duration` milliseconds have passed. Periodic when cleared: the next period is measured
/// from the scheduled expiry, so that lateness does not add up.
///
/// Deliberate: OS_TIMER_LIST is ordered as timers were armed, each before the first that has more time left than
/// the new one's whole duration. A timer armed late into its period may so stand behind one that expires later,
/// and only the list's head is tested: it then expires with that one. Programs count on the order of their
/// timers. Pinned by trigger_timer_clock_test.cpp, ARearmedTimerIsPlacedByItsWholeDurationNotByWhatIsLeft.
class OSKERNEL_API OSTimerTrigger : public OSTrigger {
 public:
  /// Wakes the constructing task unless changed.
  ///   period    ms; 0 never expires (Fire still works) and is in no timer list
  ///   inactive  0 arms it at once
  OSTimerTrigger(ULONG period, int inactive);
  ~OSTimerTrigger() override;  ///< leaves every list
  void Check()
      override;  ///< when `duration` ms have passed: start_time moves on by it, and the trigger is activated

  /// Starts the timer again from now, whatever its state is.
  void SetTimer(ULONG duration);

  ULONG start_time;   ///< tick from which the current period is measured
  ULONG duration;     ///< ms; set it through SetTimer while the timer is armed
  TBOOL single_shot;  ///< for programs; the kernel neither sets nor reads it

 protected:
  void Inactive() override;  ///< leaves OS_TIMER_LIST, too
  void Wait() override;      ///< joins OS_TIMER_LIST, too, unless it is armed already or `duration` is 0
  void Ready() override;     ///< leaves OS_TIMER_LIST, too
  void Actioned() override;  ///< leaves OS_TIMER_LIST, too

 private:
  friend class OSTimerIndex;

  void unlist_locked();

  /// Where the timer stands in the index over OS_TIMER_LIST; under OS_CRITICAL_TRIGGER.
  struct IndexNode {
    OSTimerTrigger* left;
    OSTimerTrigger* right;
    OSTimerTrigger* parent;
    alignas(8) std::uint64_t due;  ///< tick at which it expires, counted without wrap
    std::uint64_t left_max;   ///< the latest due below `left`, 0 without one; kept here to spare a look there
    std::uint64_t right_max;  ///< the same for `right`
    std::uint32_t priority;
    bool listed;
  };
  IndexNode node_;
};

/// Becomes active when its queue is long or short enough, or when its timer expires. Armed when constructed; a
/// queue that already meets a mark activates it during construction.
class OSKERNEL_API OSQTrigger : public OSTimerTrigger {
 public:
  /// Armed, and tested at once; wakes the constructing task unless changed.
  ///   queue      shares; an armed trigger must be cancelled or destroyed before its queue is, and once the
  ///              queue is gone, the trigger must be neither armed nor checked, only destroyed
  ///   high_mark  active when the queue holds at least so many; 0 for no high mark
  ///   low_mark   active when it holds at most so many; 0 for no low mark
  ///   period     ms until it becomes active anyway; 0 for no timer
  OSQTrigger(OSQueue* queue, ULONG high_mark, ULONG low_mark, ULONG period);
  ~OSQTrigger() override;  ///< leaves every list; the queue is touched only while the trigger is armed
  void Check() override;   ///< looks at the queue's length, and when that meets no mark, at the timer

  OSQueue* q;   ///< the queue that is watched; shares
  int minqlen;  ///< the low mark; 0 for none
  int maxqlen;  ///< the high mark; 0 for none

 protected:
  void Inactive() override;  ///< leaves the queue's trigger list and OS_TIMER_LIST, too
  void Wait() override;      ///< joins the queue's trigger list, and OS_TIMER_LIST with a period, too
  void Ready() override;     ///< leaves the queue's trigger list and OS_TIMER_LIST, too
  void Actioned() override;  ///< leaves the queue's trigger list and OS_TIMER_LIST, too

 private:
  void unwatch_locked();
};

/// Becomes active when a function says so. The trigger task asks on each of its passes; with nothing but poll
/// triggers armed a pass comes only when something else wakes it (arming a poll trigger does).
class OSKERNEL_API OSPollTrigger : public OSTrigger {
 public:
  /// Armed; wakes the constructing task unless changed.
  ///   function  called as function(trigger, poll_obj, poll_addr, poll_value) inside OS_CRITICAL_TRIGGER: it
  ///             must be short and must not wait for a thread that needs triggers. It may cancel or delete
  ///             triggers, its own too.
  OSPollTrigger(OSPollFunction function, OSObj* poll_obj, ADDR poll_addr, ULONG poll_value);
  ~OSPollTrigger() override;  ///< leaves every list
  void Check() override;      ///< asks pollfunc

  OSPollFunction pollfunc;  ///< what is asked
  OSObj* pobj;              ///< its second argument
  ADDR paddr;               ///< its third
  ULONG pvalue;             ///< its fourth

 protected:
  void Inactive() override;  ///< leaves OS_POLL_LIST, too
  void Wait() override;  ///< joins OS_POLL_LIST, too, unless it is armed already, and wakes the trigger task
};

/// One thread's own ready list. TLSInitialise makes it, TLSUninitialise gives it up; it stays allocated until
/// the last trigger that was constructed with it is gone.
class OSKERNEL_API OSTriggerTLS {
 public:
  OSTriggerTLS();   ///< the calling thread's list from now on, when there is a tls_key
  ~OSTriggerTLS();  ///< closes the event; triggers still on the list stay ready and are on none
  /// Runs the ready triggers of this list and reports each action that took more than 500 ms.
  ///   threads   the owning thread
  void Poll();

  HANDLE event;              ///< signalled for each trigger that joins the list; 0 once it is given up
  OSLinkList OS_READY_LIST;  ///< the triggers to run; under OS_CRITICAL_TRIGGER

  static pthread_key_t tls_key;  ///< 0 until the first TLSInitialise

 private:
  friend class OSTrigger;
  friend class OSTriggerDispatch;

  static OSTriggerTLS* current();
  void close();
  void release_locked();

  int owners_;  ///< the thread and every trigger constructed with it; under OS_CRITICAL_TRIGGER
};

/// The task that tests timers and poll triggers and runs what is ready on the global list. A pass goes on for as long
/// as something is ready; once the task is to end, it runs only as many triggers as are ready by then.
class OSKERNEL_API OSTriggerTask : public OSTask {
 public:
  OSTriggerTask();            ///< starts the thread: priority 5, KERNELCFG->trigger_stack bytes of stack
  ~OSTriggerTask() override;  ///< ends Main and joins the thread
  void Main() override;       ///< a dispatch pass each time os_trig_event is signalled, until `done`

  bool done;  ///< tells Main to end; accessed atomically, published by the signal that follows
};

/// Sleeps until the earliest timer is due, in slices of at most 30 ms (10 ms while poll triggers exist), and
/// wakes the trigger task. The body of os_trig_timer_thread.
/// Deliberate: while no timer is armed it stays asleep, poll triggers or not; those are then asked only when
/// something else wakes the trigger task. Programs that poll keep a timer. Pinned by trigger_task_clock_test.cpp,
/// SleepsOnItsEventWhenNoTimerIsPendingEvenWithPollTriggers.
OSKERNEL_API void* OSTriggerTimerThread(void*);

/// One dispatch pass: tests the timers that are due and every poll trigger, and runs what is ready on
/// OS_READY_LIST. The trigger task calls it; a program without trigger task (trigger_stack 0) calls it itself.
///   threads   any, inside no section
OSKERNEL_API void os_check_triggers();

/// Runs, unlinks and frees every callback that the program has put on OS_NOTIFY_LIST.
///   threads   the program's; not while another thread changes OS_NOTIFY_LIST
OSKERNEL_API void os_notify_now();

extern OSKERNEL_API HANDLE os_trig_event;        ///< wakes the trigger task
extern OSKERNEL_API HANDLE os_trig_timer_event;  ///< wakes the timer thread
extern OSKERNEL_API pthread_t
    os_trig_timer_thread;                     ///< the timer thread as started last; 0 before the first start
extern OSKERNEL_API bool os_trig_timer_done;  ///< tells the timer thread to end

/// Guards every trigger's state and every trigger list. Entered after a protected queue's own section, before
/// OS_CRITICAL_LINK. Poll functions and Check run inside it; callbacks and woken tasks never do.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_TRIGGER;

#endif
