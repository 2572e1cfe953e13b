/// What the trigger sources share; not installed.
#ifndef OSKERNEL_TRIGGER_PRIV_H
#define OSKERNEL_TRIGGER_PRIV_H

#include <atomic>

#include "posixkernel_priv.h"
#include "trigger.h"

/// The kernel's lists hold triggers by their own link, so a node of theirs is the trigger.
inline OSTrigger* trigger_of(OSLink* link) { return static_cast<OSTrigger*>(link); }

/// How dispatchers walk lists and act on triggers that anybody may cancel or delete at any moment.
class OSTriggerDispatch {
 public:
  /// Tells whether a trigger was destroyed while its Check ran. Lives inside OS_CRITICAL_TRIGGER only.
  class Watch {
   public:
    explicit Watch(OSTrigger* trigger);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    bool gone() const { return trigger_ == nullptr; }

   private:
    friend class OSTriggerDispatch;
    OSTrigger* trigger_;
    Watch* outer_;
  };

  /// A position in a trigger list: the last trigger that has been looked at and stays, or the list's head.
  /// What is looked at next is the one behind it, so triggers appended meanwhile are seen too. Survives the
  /// section being left; made and destroyed inside OS_CRITICAL_TRIGGER.
  class Walk {
   public:
    explicit Walk(OSLinkList* list);
    ~Walk();
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    /// The next trigger, null at the end. It stays the next one until it leaves the list or keep() is called.
    OSTrigger* next() const { return at_->next == list_ ? nullptr : trigger_of(at_->next); }
    /// Leaves the next trigger where it is and goes on behind it.
    void keep() { at_ = at_->next; }

   private:
    friend class OSTriggerDispatch;
    OSLinkList* list_;
    OSLink* at_;
    Walk* older_;
    Walk* newer_;
  };

  /// What actioning a trigger takes, copied from it: once the section is left the trigger may be gone. Made
  /// and destroyed inside OS_CRITICAL_TRIGGER, run outside.
  class Act {
   public:
    Act() = default;
    ~Act();
    Act(const Act&) = delete;
    Act& operator=(const Act&) = delete;

    /// Takes the action and makes the trigger actioned; false when there is nothing to do now.
    bool take_locked(OSTrigger* trigger);
    /// Wakes the task or runs the callback, unless the trigger has been destroyed before it could begin.
    void run();

   private:
    friend class OSTriggerDispatch;
    enum Phase { kPending, kRunning, kWithdrawn };

    OSTrigger* trigger_ = nullptr;
    OSCallbackFunction callback_ = nullptr;
    OSObj* obj_ = nullptr;
    ADDR addr_ = nullptr;
    ULONG value_ = 0;
    HANDLE wake_event_ = 0;
    std::atomic<Phase> phase_{kPending};
    bool listed_ = false;
    Act* older_ = nullptr;
    Act* newer_ = nullptr;
  };

  /// A trigger is being destroyed: its checks learn of it and an action that has not begun is withdrawn.
  static void forget_locked(OSTrigger* trigger);
  /// Takes a trigger out of the list that it is in, past every walk that stands on it.
  static void unlist_locked(OSLinkList* list, OSTrigger* trigger);
  /// A ready trigger's list is being destroyed: the trigger stays ready, in no list.
  static void ready_list_gone_locked(OSTrigger* trigger) { trigger->ready_list_ = nullptr; }

  /// While it lives, triggers that become ready on the global list do not wake the trigger task: whoever makes many
  /// of them ready in a row signals once, at the end. Holds OS_CRITICAL_TRIGGER for its life.
  class LateSignal {
   public:
    ///   owed      set when a signal has been left out; signal_task makes up for it
    explicit LateSignal(bool* owed);
    ~LateSignal();
    LateSignal(const LateSignal&) = delete;
    LateSignal& operator=(const LateSignal&) = delete;

   private:
    SectionLock lock_;
    bool* outer_;
  };
  /// Whether a LateSignal takes note of a signal to the trigger task.
  static bool is_signalled_later_locked();
  static void signal_task();

  static void check_timers_locked();
  static void check_polls_locked();
  /// Actions what is ready on the list, and what becomes ready meanwhile; leaves the section around every action.
  ///   timed    reports each that took longer than a thread's own list may wait
  ///   ending   null, or becomes true when the dispatcher is to end, which then actions as many more as are ready by
  ///            that time: triggers that become ready as fast as they are run would keep it from its end for ever
  static void run_ready(SectionLock* lock, OSLinkList* list, bool timed, bool* ending);
  /// One dispatch pass over the global lists; `ending` as above.
  static void pass(bool* ending);
  /// Milliseconds until the trigger task must look again; 0 when no timer is armed.
  static int next_delay_ms_locked();

 private:
  static Watch* watches_;
  static Walk* walks_;
  static Act* acts_;
  static std::uint64_t pass_;
  static bool* owed_;  ///< of the innermost LateSignal; inside OS_CRITICAL_TRIGGER
};

/// OS_TIMER_LIST with an index that finds a new timer's place without walking the list. All inside
/// OS_CRITICAL_TRIGGER.
class OSTimerIndex {
 public:
  /// Puts the timer in front of the first listed one that has not expired and has more time left than the new
  /// one's whole duration, else at the end.
  ///   returns   true when it is the first now
  static bool insert_locked(OSTimerTrigger* timer);
  static void remove_locked(OSTimerTrigger* timer);

 private:
  using Node = OSTimerTrigger::IndexNode;

  static std::uint64_t latest(const OSTimerTrigger* timer);
  static OSTimerTrigger* first_due_after(std::uint64_t tick);
  static void link_before(OSTimerTrigger* timer, OSTimerTrigger* position);
  static void rotate_up(OSTimerTrigger* timer);
  static void set_left(OSTimerTrigger* parent, OSTimerTrigger* child);
  static void set_right(OSTimerTrigger* parent, OSTimerTrigger* child);
  static void replace_child(OSTimerTrigger* parent, const OSTimerTrigger* child, OSTimerTrigger* by);
  static void refresh_upwards(OSTimerTrigger* timer);

  static OSTimerTrigger* root_;
};

/// Creates a thread-specific key that is not 0, since 0 means that there is none; no destructor.
pthread_key_t make_thread_key();

#endif
