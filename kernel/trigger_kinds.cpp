/// Timer, queue and poll triggers: their conditions and their watch lists.
#include <atomic>

#include "kernel/kernel.h"
#include "kernel/trigger_priv.h"

namespace {

constexpr UBYTE kReasonPolled = 2;
constexpr UBYTE kReasonQueue = 3;
constexpr UBYTE kReasonTimer = 4;

}  // namespace

// ---- Timer -------------------------------------------------------------------------------------------------

OSTimerTrigger::OSTimerTrigger(ULONG period, int inactive)
    : OSTrigger(OS_TA_WAKE), start_time(os_clock()), duration(period), node_{} {
  if (inactive == 0) OSTimerTrigger::Wait();
}

OSTimerTrigger::~OSTimerTrigger() { OSTimerTrigger::Inactive(); }

void OSTimerTrigger::SetTimer(ULONG new_duration) {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  Cancel();
  duration = new_duration;
  start_time = os_clock();
  Wait();
}

void OSTimerTrigger::Check() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (duration == 0 || os_expired(start_time, duration) == FALSE) return;
  reason = kReasonTimer;
  // Deliberate: the next period begins at the scheduled expiry even when the trigger is not armed and
  // Activate refuses; periodic users count on ticks that do not drift. Pinned by
  // trigger_timer_clock_test.cpp, AnExpiredTimerThatIsNotArmedStillMovesItsPeriodOn.
  start_time += duration;
  Activate();
}

void OSTimerTrigger::Wait() {
  SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_WAIT) return;
  OSTrigger::Wait();
  if (duration == 0) return;
  const bool first = OSTimerIndex::insert_locked(this);
  lock.leave();
  if (first) SetEvent(std::atomic_ref(os_trig_event).load());
}

void OSTimerTrigger::unlist_locked() {
  // By membership, not by `duration`: a program may have changed that meanwhile.
  if (node_.listed) OSTimerIndex::remove_locked(this);
}

void OSTimerTrigger::Inactive() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  unlist_locked();
  OSTrigger::Inactive();
}

void OSTimerTrigger::Ready() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  unlist_locked();
  OSTrigger::Ready();
}

void OSTimerTrigger::Actioned() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  unlist_locked();
  OSTrigger::Actioned();
}

// ---- Queue -------------------------------------------------------------------------------------------------

OSQTrigger::OSQTrigger(OSQueue* queue, ULONG high_mark, ULONG low_mark, ULONG period)
    : OSTimerTrigger(period, 1),
      q(queue),
      minqlen(static_cast<int>(low_mark)),
      maxqlen(static_cast<int>(high_mark)) {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  OSQTrigger::Wait();
  OSQTrigger::Check();
}

OSQTrigger::~OSQTrigger() { OSQTrigger::Inactive(); }

void OSQTrigger::Check() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  // Atomic because the trigger task looks too, outside the queue's own section. A length that is out of date
  // does no harm: the change is followed by a check of its own.
  const int length = std::atomic_ref(q->number_in_list).load(std::memory_order_relaxed);
  if ((maxqlen != 0 && length >= maxqlen) || (minqlen != 0 && length <= minqlen)) {
    reason = kReasonQueue;
    Activate();
    return;
  }
  OSTimerTrigger::Check();
}

void OSQTrigger::Wait() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_WAIT) return;
  OSTimerTrigger::Wait();
  q->TriggerList()->Append(this);
}

void OSQTrigger::unwatch_locked() {
  if (state == OS_T_WAIT) q->TriggerList()->Remove(this);
}

void OSQTrigger::Inactive() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  unwatch_locked();
  OSTimerTrigger::Inactive();
}

void OSQTrigger::Ready() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  unwatch_locked();
  OSTimerTrigger::Ready();
}

void OSQTrigger::Actioned() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  unwatch_locked();
  OSTimerTrigger::Actioned();
}

// ---- Poll --------------------------------------------------------------------------------------------------

OSPollTrigger::OSPollTrigger(OSPollFunction function, OSObj* poll_obj, ADDR poll_addr, ULONG poll_value)
    : OSTrigger(OS_TA_WAKE), pollfunc(function), pobj(poll_obj), paddr(poll_addr), pvalue(poll_value) {
  OSPollTrigger::Wait();
}

OSPollTrigger::~OSPollTrigger() { OSPollTrigger::Inactive(); }

void OSPollTrigger::Check() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  OSTriggerDispatch::Watch watch(this);
  if (pollfunc(this, pobj, paddr, pvalue) == FALSE || watch.gone()) return;
  reason = kReasonPolled;
  Activate();
}

void OSPollTrigger::Wait() {
  SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_WAIT) return;
  OSTrigger::Wait();
  OS_POLL_LIST.Append(this);
  lock.leave();
  SetEvent(std::atomic_ref(os_trig_event).load());
}

void OSPollTrigger::Inactive() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_WAIT) OSTriggerDispatch::unlist_locked(&OS_POLL_LIST, this);
  OSTrigger::Inactive();
}
