/// What makes triggers happen: dispatch passes, the trigger task, the timer thread and threads' own lists.
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>

#include "kernel/buffer_callback.h"
#include "kernel/kernel.h"
#include "kernel/trigger_priv.h"

HANDLE os_trig_event = 0;
HANDLE os_trig_timer_event = 0;
pthread_t os_trig_timer_thread = 0;
bool os_trig_timer_done = false;

pthread_key_t OSTriggerTLS::tls_key = 0;

OSTriggerDispatch::Watch* OSTriggerDispatch::watches_ = nullptr;
OSTriggerDispatch::Walk* OSTriggerDispatch::walks_ = nullptr;
OSTriggerDispatch::Act* OSTriggerDispatch::acts_ = nullptr;
std::uint64_t OSTriggerDispatch::pass_ = 0;
bool* OSTriggerDispatch::owed_ = nullptr;

namespace {

constexpr unsigned int kForever = 0xFFFFFFFF;
constexpr UWORD kTriggerTaskPriority = 5;
constexpr int kTimerSlice_ms = 30;
constexpr int kPollSlice_ms = 10;
constexpr int kSignalsOfOnePass = 64;  // bounded, so that those who signal all the time do not hold a pass up
constexpr ULONG kSlowAction_ms = 500;

/// Whether os_trig_timer_thread names a thread to join; start and stop only.
bool timer_thread_exists = false;

/// Ends the timer thread's sleep when it is to stop, so that a stop does not wait for the slice to pass.
class StopSignal {
 public:
  StopSignal() { sem_init(&sem_, 0, 0); }
  void give() { sem_post(&sem_); }
  void take_back() { sem_trywait(&sem_); }
  /// Sleeps; true when the signal has been given.
  bool comes_within(int ms);

 private:
  sem_t sem_;  // not destroyed at the end of the process, when the thread may still sleep on it
} timer_thread_stop;

bool StopSignal::comes_within(int ms) {
  const timespec until = monotonic_deadline(static_cast<ULONG>(ms));
  while (sem_clockwait(&sem_, CLOCK_MONOTONIC, &until) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

// The events are replaced by start and stop while other threads may still signal; a stale handle is harmless,
// since numbers are not used again.
HANDLE load(HANDLE& event) { return std::atomic_ref(event).load(std::memory_order_relaxed); }
void store(HANDLE& event, HANDLE value) { std::atomic_ref(event).store(value, std::memory_order_relaxed); }

// Told before an event is signalled, read after it has been taken: the event orders them.
bool told(bool& flag) { return std::atomic_ref(flag).load(std::memory_order_relaxed); }
void tell(bool& flag, bool value) { std::atomic_ref(flag).store(value, std::memory_order_relaxed); }

void report_if_slow(OSTrigger* trigger, OSCallbackFunction callback, ULONG took_ms) {
  if (took_ms <= kSlowAction_ms || Console == nullptr) return;
  const auto took = static_cast<unsigned long>(took_ms);
  // The trigger may be gone; only its address is printed.
  void* const address = trigger;
  if (callback == nullptr) {
    Console->Print("OSTriggerTLS::Poll - trigger %p took %lums", address, took);
    return;
  }
  void* const code = reinterpret_cast<void*>(callback);
  Dl_info info{};
  dlerror();  // NOLINT(concurrency-mt-unsafe): the error state is the thread's own
  if (dladdr(code, &info) != 0 && info.dli_sname != nullptr) {
    Console->Print("OSTriggerTLS::Poll - trigger %p (%s) took %lums", address, info.dli_sname, took);
  } else {
    Console->Print("OSTriggerTLS::Poll - trigger %p (callback %p) took %lums", address, code, took);
  }
}

}  // namespace

pthread_key_t make_thread_key() {
  pthread_key_t key = 0;
  if (pthread_key_create(&key, nullptr) != 0) return 0;
  if (key != 0) return key;
  pthread_key_t other = 0;
  if (pthread_key_create(&other, nullptr) != 0) other = 0;
  pthread_key_delete(key);
  return other;
}

// ---- Walks, watches and acts -------------------------------------------------------------------------------

OSTriggerDispatch::Watch::Watch(OSTrigger* trigger) : trigger_(trigger), outer_(watches_) { watches_ = this; }

OSTriggerDispatch::Watch::~Watch() { watches_ = outer_; }

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
// A walk lives on its dispatcher's stack and takes itself off the list in its destructor, which the compiler
// overlooks.
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
OSTriggerDispatch::Walk::Walk(OSLinkList* list) : list_(list), at_(list), older_(walks_), newer_(nullptr) {
  if (older_ != nullptr) older_->newer_ = this;
  walks_ = this;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

OSTriggerDispatch::Walk::~Walk() {
  (newer_ != nullptr ? newer_->older_ : walks_) = older_;
  if (older_ != nullptr) older_->newer_ = newer_;
}

OSTriggerDispatch::Act::~Act() {
  if (!listed_) return;
  (newer_ != nullptr ? newer_->older_ : acts_) = older_;
  if (older_ != nullptr) older_->newer_ = newer_;
}

bool OSTriggerDispatch::Act::take_locked(OSTrigger* trigger) {
  if (trigger->state != OS_T_INACTIVE && trigger->state != OS_T_READY) return false;
  switch (trigger->action) {
    case OS_TA_WAKE:
      // The wake is claimed here, so that of two triggers for one task only one takes it.
      if (trigger->task == nullptr || !trigger->task->claim_wake(trigger->reason, &wake_event_)) return false;
      break;
    case OS_TA_FUNC:
      callback_ = trigger->callback;
      obj_ = trigger->obj;
      addr_ = trigger->addr;
      value_ = trigger->value;
      listed_ = true;
      older_ = acts_;
      if (older_ != nullptr) older_->newer_ = this;
      acts_ = this;
      break;
    case OS_TA_NONE:
    default:
      return false;
  }
  trigger_ = trigger;
  trigger->Actioned();
  return true;
}

void OSTriggerDispatch::Act::run() {
  if (wake_event_ != 0) SetEvent(wake_event_);
  if (callback_ == nullptr) return;
  Phase pending = kPending;
  // Against forget_locked: whoever changes the phase first decides whether the callback runs.
  if (phase_.compare_exchange_strong(pending, kRunning)) callback_(obj_, addr_, value_);
}

void OSTriggerDispatch::forget_locked(OSTrigger* trigger) {
  for (Watch* watch = watches_; watch != nullptr; watch = watch->outer_) {
    if (watch->trigger_ == trigger) watch->trigger_ = nullptr;
  }
  for (Act* act = acts_; act != nullptr; act = act->older_) {
    if (act->trigger_ != trigger) continue;
    Act::Phase pending = Act::kPending;
    act->phase_.compare_exchange_strong(pending, Act::kWithdrawn);
  }
}

void OSTriggerDispatch::unlist_locked(OSLinkList* list, OSTrigger* trigger) {
  OSLink* const link = trigger;
  for (Walk* walk = walks_; walk != nullptr; walk = walk->older_) {
    if (walk->at_ == link) walk->at_ = link->previous;
  }
  list->Remove(link);
}

// ---- One signal for many -------------------------------------------------------------------------------------

OSTriggerDispatch::LateSignal::LateSignal(bool* owed) : lock_(&OS_CRITICAL_TRIGGER), outer_(owed_) {
  owed_ = owed;
}

OSTriggerDispatch::LateSignal::~LateSignal() { owed_ = outer_; }

bool OSTriggerDispatch::is_signalled_later_locked() {
  if (owed_ == nullptr) return false;
  *owed_ = true;
  return true;
}

void OSTriggerDispatch::signal_task() { SetEvent(load(os_trig_event)); }

// ---- Dispatch ----------------------------------------------------------------------------------------------

void OSTriggerDispatch::check_timers_locked() {
  // The list is ordered: when its head is not due, nothing behind it is.
  while (OSLink* const head = OS_TIMER_LIST.First()) {
    OSTrigger* const trigger = trigger_of(head);
    const int fired = trigger->fired;
    Watch watch(trigger);
    trigger->Check();
    if (!watch.gone() && trigger->fired == fired) return;
  }
}

void OSTriggerDispatch::check_polls_locked() {
  const std::uint64_t pass = ++pass_;
  Walk walk(&OS_POLL_LIST);
  while (OSTrigger* const trigger = walk.next()) {
    // One that its own function cancelled and armed again stands at the end now and has been asked already.
    if (trigger->poll_pass_ == pass) {
      walk.keep();
      continue;
    }
    trigger->poll_pass_ = pass;
    Watch watch(trigger);
    trigger->Check();
    if (!watch.gone() && walk.next() == trigger) walk.keep();
  }
}

void OSTriggerDispatch::run_ready(SectionLock* lock, OSLinkList* list, bool timed, bool* ending) {
  Walk walk(list);
  int left = -1;
  while (OSTrigger* const trigger = walk.next()) {
    if (ending != nullptr && told(*ending)) {
      if (left < 0) left = list->Size();
      if (left-- == 0) return;
    }
    const OSCallbackFunction callback = trigger->callback;
    const ULONG start = timed ? os_clock() : 0;
    Act act;
    if (!act.take_locked(trigger)) {
      trigger->passed_over_ = true;  // until the next pass
      walk.keep();
      continue;
    }
    // A kind whose Actioned leaves it listed must not be taken for ever.
    if (walk.next() == trigger) walk.keep();
    lock->leave();
    act.run();  // from here on the trigger may be gone
    if (timed) report_if_slow(trigger, callback, os_clock() - start);
    lock->enter();
  }
}

int OSTriggerDispatch::next_delay_ms_locked() {
  OSLink* const head = OS_TIMER_LIST.First();
  if (head == nullptr) return 0;
  const auto* const timer = static_cast<OSTimerTrigger*>(trigger_of(head));
  const auto left_ms = static_cast<std::int32_t>(timer->start_time + timer->duration - os_clock());
  const int delay_ms = std::max<int>(left_ms, 1);
  return OS_POLL_LIST.First() == nullptr ? delay_ms : std::min(delay_ms, kPollSlice_ms);
}

void OSTriggerDispatch::pass(bool* ending) {
  SectionLock lock(&OS_CRITICAL_TRIGGER);
  check_timers_locked();
  check_polls_locked();
  run_ready(&lock, &OS_READY_LIST, false, ending);
}

void os_check_triggers() { OSTriggerDispatch::pass(nullptr); }

void os_notify_now() {
  while (OSLink* const first = OS_NOTIFY_LIST.First()) {
    auto* const callback = static_cast<OSCallback*>(first);
    os_intdis();
    first->previous->next = first->next;
    first->next->previous = first->previous;
    first->next = first;
    first->previous = first;
    first->object = nullptr;
    os_intenb();
    callback->Execute();
    callback->Free();
  }
}

// ---- Trigger task and timer thread -------------------------------------------------------------------------

OSTriggerTask::OSTriggerTask()
    : OSTask(kTriggerTaskPriority, static_cast<ULONG>(KERNELCFG->trigger_stack), nullptr, nullptr),
      done(false) {
  LeaveCriticalSection(&cs);
}

OSTriggerTask::~OSTriggerTask() {
  if (told(done)) return;
  _LockDelete();
  tell(done, true);
  SetEvent(load(os_trig_event));
  Kill();
}

void OSTriggerTask::Main() {
  while (!told(done)) {
    OSTriggerDispatch::pass(&done);
    int delay_ms = 0;
    bool polls = false;
    {
      const SectionLock lock(&OS_CRITICAL_TRIGGER);
      delay_ms = OSTriggerDispatch::next_delay_ms_locked();
      polls = OS_POLL_LIST.First() != nullptr;
    }
    if (delay_ms != 0) SetEvent(load(os_trig_timer_event));
    const HANDLE event = load(os_trig_event);
    WaitForSingleObject(event, kForever);
    // One pass finds all that is ready, however many signals have come. Poll triggers are asked as often as
    // somebody signals.
    for (int more = 0; more < kSignalsOfOnePass && !polls && !told(done); ++more) {
      if (WaitForSingleObject(event, 0) != 0) break;
    }
  }
}

void* OSTriggerTimerThread(void* /*unused*/) {
  while (!told(os_trig_timer_done)) {
    WaitForSingleObject(load(os_trig_timer_event), kForever);
    int delay_ms = 0;
    {
      const SectionLock lock(&OS_CRITICAL_TRIGGER);
      delay_ms = OSTriggerDispatch::next_delay_ms_locked();
    }
    if (delay_ms == 0) continue;
    if (timer_thread_stop.comes_within(std::min(delay_ms, kTimerSlice_ms))) break;
    SetEvent(load(os_trig_event));
  }
  return nullptr;
}

void OSTrigger::Initialise() {
  init_section(&OS_CRITICAL_TRIGGER);
  store(os_trig_event, CreateEvent(nullptr, false, false, nullptr));
  store(os_trig_timer_event, CreateEvent(nullptr, false, false, nullptr));
  tell(os_trig_timer_done, false);
  if (KERNELCFG->trigger_stack == 0) return;
  OS_TRIG_TASK = new (std::nothrow) OSTriggerTask;
  timer_thread_exists =
      pthread_create(&os_trig_timer_thread, &std_thread_attr, OSTriggerTimerThread, nullptr) == 0;
}

void OSTrigger::UnInitialise() {
  delete OS_TRIG_TASK;
  OS_TRIG_TASK = nullptr;
  SetEvent(load(os_trig_event));
  CloseHandle(load(os_trig_event));
  store(os_trig_event, 0);
  tell(os_trig_timer_done, true);
  SetEvent(load(os_trig_timer_event));
  if (timer_thread_exists) {
    timer_thread_stop.give();
    pthread_join(os_trig_timer_thread, nullptr);
    timer_thread_stop.take_back();  // not taken by a thread that was not asleep
  }
  timer_thread_exists = false;
  CloseHandle(load(os_trig_timer_event));
}

// ---- Threads' own lists ------------------------------------------------------------------------------------

OSTriggerTLS::OSTriggerTLS() : event(CreateEvent(nullptr, false, false, nullptr)), owners_(1) {
  const pthread_key_t key = std::atomic_ref(tls_key).load();
  if (key != 0) pthread_setspecific(key, this);
}

OSTriggerTLS::~OSTriggerTLS() {
  close();
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  while (OSLink* const left = OS_READY_LIST.First()) {
    OSTrigger* const trigger = trigger_of(left);
    OSTriggerDispatch::unlist_locked(&OS_READY_LIST, trigger);
    OSTriggerDispatch::ready_list_gone_locked(trigger);
  }
}

OSTriggerTLS* OSTriggerTLS::current() {
  const pthread_key_t key = std::atomic_ref(tls_key).load();
  return key == 0 ? nullptr : static_cast<OSTriggerTLS*>(pthread_getspecific(key));
}

void OSTriggerTLS::close() {
  if (current() == this) pthread_setspecific(std::atomic_ref(tls_key).load(), nullptr);
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  CloseHandle(event);
  event = 0;
}

void OSTriggerTLS::release_locked() {
  if (--owners_ == 0) delete this;
}

void OSTriggerTLS::Poll() {
  SectionLock lock(&OS_CRITICAL_TRIGGER);
  ++owners_;  // a callback may give the list up
  OSTriggerDispatch::run_ready(&lock, &OS_READY_LIST, true, nullptr);
  release_locked();
}

void OSTrigger::TLSInitialise() {
  static std::mutex key_mutex;  // a leaf: two threads may be the first at once
  {
    const std::lock_guard<std::mutex> lock(key_mutex);
    if (OSTriggerTLS::tls_key == 0) std::atomic_ref(OSTriggerTLS::tls_key).store(make_thread_key());
    if (OSTriggerTLS::tls_key == 0) return;  // no key to be had: the thread's triggers go to the global list
  }
  TLSUninitialise();  // a thread that calls this again starts with an empty list
  // Owned by the thread, found through its key. Without memory the thread has no list.
  static_cast<void>(new (std::nothrow) OSTriggerTLS);
}

void OSTrigger::TLSUninitialise() {
  OSTriggerTLS* const own = OSTriggerTLS::current();
  if (own == nullptr) return;
  own->close();
  const SectionLock lock(&OS_CRITICAL_TRIGGER);
  own->release_locked();
}

HANDLE OSTrigger::TLSGetEvent() {
  const OSTriggerTLS* const own = OSTriggerTLS::current();
  return own == nullptr ? 0 : own->event;
}

void OSTrigger::TLSPoll() {
  OSTriggerTLS* const own = OSTriggerTLS::current();
  if (own != nullptr) own->Poll();
}
