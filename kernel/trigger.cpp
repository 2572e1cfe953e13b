/// The state machine that all triggers share.
#include "kernel/trigger.h"

#include <atomic>

#include "kernel/kernel.h"
#include "kernel/trigger_priv.h"

OSKERNEL_SECTION(OS_CRITICAL_TRIGGER);

OSTrigger::OSTrigger(OSTrAction initial_action)
    : state(OS_T_INACTIVE),
      action(initial_action),
      reason(0),
      async(2),
      tls(OSTriggerTLS::current()),
      task(OSTask::GetCurrentTask()),
      callback(nullptr),
      fired(0),
      passed_over_(false),
      ready_list_(nullptr),
      tls_owner_(tls),
      poll_pass_(0) {
  if (tls_owner_ == nullptr) return;
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  ++tls_owner_->owners_;
}

OSTrigger::~OSTrigger() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  OSTrigger::Inactive();
  OSTriggerDispatch::forget_locked(this);
  if (tls_owner_ != nullptr) tls_owner_->release_locked();
}

BOOL OSTrigger::IsActive() {
  const OSTrState now = State();
  return now == OS_T_READY || now == OS_T_ACTIONED ? TRUE : FALSE;
}

// Acquire pairs with the release in set_state_locked: who sees a trigger ready or actioned sees what led to it.
OSTrState OSTrigger::State() { return std::atomic_ref(state).load(std::memory_order_acquire); }

void OSTrigger::set_state_locked(OSTrState new_state) {
  std::atomic_ref(state).store(new_state, std::memory_order_release);
}

/// A ready trigger that gets another action may have been passed over with the old one: have it looked at
/// again. A trigger that becomes active while it is constructed can meet this before SetCallback.
void OSTrigger::signal_if_passed_over_locked() {
  if (state != OS_T_READY || !passed_over_) return;
  passed_over_ = false;
  SetEvent(ready_list_ == &OS_READY_LIST ? std::atomic_ref(os_trig_event).load() : tls->event);
}

void OSTrigger::SetTask(OSTask* new_task) {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  task = new_task;
  action = OS_TA_WAKE;
  signal_if_passed_over_locked();
}

void OSTrigger::SetCallback(OSCallbackFunction new_callback, OSObj* new_obj, ADDR new_addr, ULONG new_value) {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  callback = new_callback;
  obj = new_obj;
  addr = new_addr;
  value = new_value;
  action = OS_TA_FUNC;
  signal_if_passed_over_locked();
}

void OSTrigger::Fire() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  reason = 1;
  Activate();
}

void OSTrigger::Clear() {
  // One region, so that no dispatcher tests the condition in between and a period is counted twice.
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  Wait();
  Check();
}

void OSTrigger::Cancel() { Inactive(); }

BOOL OSTrigger::Action() {
  SectionLock lock(&OS_CRITICAL_TRIGGER);
  OSTriggerDispatch::Act act;
  if (!act.take_locked(this)) return FALSE;
  lock.leave();
  act.run();  // from here on the trigger may be gone
  lock.enter();
  return TRUE;
}

void OSTrigger::Activate() {
  // One region as far as Ready: of two activations at once the second finds the trigger no longer waiting.
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state != OS_T_WAIT) return;
  Inactive();
  ++fired;
  if (async == 0 && action != OS_TA_FUNC && Action() != FALSE) return;
  Ready();
}

void OSTrigger::Inactive() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_READY) ReadyRemove();
  set_state_locked(OS_T_INACTIVE);
}

void OSTrigger::Wait() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_READY) ReadyRemove();
  set_state_locked(OS_T_WAIT);
}

void OSTrigger::Actioned() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (state == OS_T_READY) ReadyRemove();
  set_state_locked(OS_T_ACTIONED);
}

void OSTrigger::Ready() {
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  // Deliberate: the level just taken is kept, see the header. Pinned by trigger_test.cpp,
  // ReadyOnAReadyTriggerKeepsOneLevelOfTheSection.
  if (state == OS_T_READY) return;
  set_state_locked(OS_T_READY);
  ReadyAppend();
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
}

void OSTrigger::ReadyAppend() {
  SectionLock lock(&OS_CRITICAL_TRIGGER);
  const bool own_list = async == 2 && tls != nullptr;
  // The handle is copied: once the section is left, a dispatcher may run and delete the trigger.
  const HANDLE event = own_list ? tls->event : std::atomic_ref(os_trig_event).load();
  ready_list_ = own_list ? &tls->OS_READY_LIST : &OS_READY_LIST;
  passed_over_ = false;
  ready_list_->Append(this);
  const bool later = !own_list && OSTriggerDispatch::is_signalled_later_locked();
  lock.leave();
  if (!later) SetEvent(event);
}

void OSTrigger::ReadyRemove() {
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  if (ready_list_ == nullptr) return;
  OSTriggerDispatch::unlist_locked(ready_list_, this);
  ready_list_ = nullptr;
}
