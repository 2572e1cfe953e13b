/// Critical sections, events and sleeps on POSIX semaphores.
#include "kernel/posixkernel.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <unordered_map>

#include "kernel/kernel.h"
#include "kernel/posixkernel_priv.h"

#if defined(__SANITIZE_THREAD__)
#define OSKERNEL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OSKERNEL_TSAN 1
#endif
#endif
#if defined(OSKERNEL_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

constexpr unsigned int kForever = 0xFFFFFFFF;
constexpr DWORD kTaken = 0;
constexpr DWORD kTimedOut = 110;
constexpr DWORD kFailed = 128;

/// A finite wait looks at os_clock this often: the tick may be a device's and run differently from the
/// clocks that a timed semaphore wait knows.
constexpr ULONG kWaitSlice_ms = 10;
constexpr std::size_t kThreadStack_bytes = 0x100000;

std::atomic_ref<pthread_t> owner_of(CRITICAL_SECTION* section) {
  return std::atomic_ref<pthread_t>(section->owner_thread_id);
}

/// Looks at a section's semaphore so many times before going to sleep on it. Most sections of the kernel are held
/// for tens of nanoseconds, and a sleep with its wake-up takes microseconds.
constexpr int kSpins = 100;

void pause_briefly() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  __asm__ volatile("yield");
#endif
}

/// Takes the semaphore of a section that is about to be left.
bool take_soon(sem_t* sem) {
  for (int spin = 0; spin < kSpins; ++spin) {
    if (sem_trywait(sem) == 0) return true;
    pause_briefly();
  }
  return false;
}

/// How a failed wait is reported to the caller.
DWORD wait_result(int error) {
  if (error == 0) return kTaken;
  return error == ETIMEDOUT ? kTimedOut : kFailed;
}

int wait_slice(sem_t* sem, ULONG ms) {
  const timespec until = monotonic_deadline(ms);
  const int result = sem_clockwait(sem, CLOCK_MONOTONIC, &until);
#if defined(OSKERNEL_TSAN)
  // The sanitizer knows sem_post but not sem_clockwait: tell it what a taken token orders.
  if (result == 0) __tsan_acquire(sem);
#endif
  return result;
}

/// sem_wait, counted for whoever wants to know whether the thread is stuck in it.
int wait_for_ever(sem_t* sem) {
  std::atomic<unsigned>* const count = endless_waits;
  if (count != nullptr) count->fetch_add(1, std::memory_order_relaxed);
  const int result = sem_wait(sem);
  if (count != nullptr) count->fetch_add(1, std::memory_order_relaxed);  // leaves errno alone
  return result;
}

/// The live events by number: a handle is looked up for every signal and every wait, and a walk along
/// KernelEvent::eventList would make each of them as slow as there are events. Under OS_CRITICAL_LINK.
std::unordered_map<HANDLE, KernelEvent*>& events_by_handle() {
  static auto* const index = new std::unordered_map<HANDLE, KernelEvent*>;  // outlives every thread
  return *index;
}

}  // namespace

thread_local std::atomic<unsigned>* endless_waits = nullptr;

timespec monotonic_deadline(ULONG ms) {
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += static_cast<time_t>(ms / 1000);
  until.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_nsec -= 1000000000L;
    ++until.tv_sec;
  }
  return until;
}

// ---- Start and stop ----------------------------------------------------------------------------------------

void os_posix_init() {
  pthread_attr_init(&std_thread_attr);
  pthread_attr_setstacksize(&std_thread_attr, kThreadStack_bytes);
  pthread_mutexattr_init(&std_mutex_attr);
  pthread_mutexattr_settype(&std_mutex_attr, PTHREAD_MUTEX_RECURSIVE);
  std::atomic_ref(OS_POSIX_OK).store(true, std::memory_order_relaxed);
}

void os_posix_cleanup() {
  std::atomic_ref(OS_POSIX_OK).store(false, std::memory_order_relaxed);
  while (OSLink* const first = KernelEvent::eventList.First()) {
    if (first->object == nullptr) break;
    delete static_cast<KernelEvent*>(first);
  }
  pthread_mutexattr_destroy(&std_mutex_attr);
  pthread_attr_destroy(&std_thread_attr);
}

// ---- Critical sections -------------------------------------------------------------------------------------

CRITICAL_SECTION::~CRITICAL_SECTION() {
  if (sem != nullptr) DeleteCriticalSection(this);
}

void InitializeCriticalSection(CRITICAL_SECTION* section) {
  auto* const storage = static_cast<sem_t*>(std::malloc(sizeof(sem_t)));
  section->sem = storage;
  if (storage == nullptr) return;  // stays not initialised, and EnterCriticalSection says so
  sem_init(storage, 0, 0);
  sem_post(storage);
}

void EnterCriticalSection(CRITICAL_SECTION* section) {
  const pthread_t self = pthread_self();
  const pthread_t owner = owner_of(section).load(std::memory_order_relaxed);
  if (owner == self) {
    ++section->owner_count;
    return;
  }
  sem_t* const sem = section->sem;
  if (sem == nullptr) {
    if (Console != nullptr) Console->Fatal("EnterCriticalSection Not Initialized");
    return;
  }
  check_section_order(section);
  const bool held = owner != 0;  // by another thread, a moment ago
  while (!(held && take_soon(sem)) && sem_wait(sem) != 0) {
    const int error = errno;
    if (Console != nullptr) Console->Print("EnterCriticalSection - sem_wait error %d", error);
    // Deliberate: after any other error the section counts as taken. No caller could do anything about it, and leaving
    // must find an owner. Pinned by semaphore_failure_test.cpp, EnterTakesTheSectionAnywayAfterAnyOtherError.
    if (error != EINTR) break;
  }
  owner_of(section).store(self, std::memory_order_relaxed);
  ++section->owner_count;
  note_section_entered(section);
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
  sem_t* const sem = section->sem;
  if (sem == nullptr) return;
  if (owner_of(section).load(std::memory_order_relaxed) != pthread_self()) {
    if (Console != nullptr) Console->Fatal("LeaveCriticalSection on one we dont own");
    return;
  }
  if (--section->owner_count > 0) return;
  note_section_left(section);
  owner_of(section).store(0, std::memory_order_relaxed);
  sem_post(sem);  // from here on the section may be gone
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) {
  if (owner_of(section).load(std::memory_order_relaxed) == pthread_self()) {
    ++section->owner_count;
    return TRUE;
  }
  if (section->sem == nullptr) return FALSE;
  // Deliberate: the owner fields stay as they are, see the header. Pinned by critical_section_test.cpp,
  // TryEnterRecordsNoOwner.
  return sem_trywait(section->sem) == 0 ? TRUE : FALSE;
}

void DeleteCriticalSection(CRITICAL_SECTION* section) {
  if (section->sem == nullptr) return;
  sem_destroy(section->sem);
  std::free(section->sem);
  section->sem = nullptr;
}

// ---- Events ------------------------------------------------------------------------------------------------

struct KernelEvent::State {
  State() { sem_init(&sem, 0, 0); }
  ~State() { sem_destroy(&sem); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  /// Drops one owner; the last one frees the state. Acquire-release, so that the last owner's delete comes
  /// after everything that the others did.
  void release() {
    if (owners.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  /// The result of a wait whose token has been taken. On a closed event some tokens only wake waiters;
  /// as many of them as there were signals left count as signals.
  DWORD taken() {
    const int signals_left = signals.fetch_sub(1, std::memory_order_relaxed);
    return closed.load(std::memory_order_relaxed) && signals_left <= 0 ? kFailed : kTaken;
  }

  sem_t sem;                        // first, so that nothing but its address is needed to post it
  std::atomic<int> owners{1};       // the event and every thread inside a wait
  std::atomic<int> signals{0};      // signals posted and not yet taken
  std::atomic<bool> closed{false};  // published by the posts that follow it, so relaxed is enough
};

HANDLE KernelEvent::nextHandle = 1;
OSLinkList KernelEvent::eventList{OSStaticList{}};

KernelEvent::KernelEvent() : handle(0), sem(nullptr), state_(new State) {
  sem = &state_->sem;
  const SectionLock lock(&OS_CRITICAL_LINK);
  auto& events = events_by_handle();
  HANDLE number = std::max(nextHandle, 1);
  const auto after = [](HANDLE n) { return n == INT_MAX ? 1 : n + 1; };
  while (events.count(number) != 0) number = after(number);
  handle = number;
  nextHandle = after(number);
  try {
    events.emplace(number, this);
  } catch (...) {
    state_->release();
    throw;
  }
  // The list's nodes are events, which are no OSListObj: the object only marks the link as listed and is
  // never used as an OSListObj.
  eventList.Append(this, static_cast<OSListObj*>(static_cast<void*>(this)));
}

KernelEvent::~KernelEvent() {
  SectionLock lock(&OS_CRITICAL_LINK);
  events_by_handle().erase(handle);
  eventList.Remove(this);
  lock.leave();
  // No waiter can join any more; those inside take a token each and find the event closed.
  state_->closed.store(true, std::memory_order_relaxed);
  for (int waiters = state_->owners.load(std::memory_order_acquire) - 1; waiters > 0; --waiters) {
    sem_post(&state_->sem);
  }
  state_->release();
}

KernelEvent* KernelEvent::find_locked(HANDLE handle) {
  const auto& events = events_by_handle();
  const auto found = events.find(handle);
  return found == events.end() ? nullptr : found->second;
}

KernelEvent* KernelEvent::Find(HANDLE handle) {
  const SectionLock lock(&OS_CRITICAL_LINK);
  return find_locked(handle);
}

HANDLE CreateEvent(void* /*security*/, bool /*manual_reset*/, bool /*initial_state*/, const char* /*name*/) {
  try {
    return (new KernelEvent)->handle;
  } catch (const std::bad_alloc&) {
    return 0;  // never a valid handle
  }
}

BOOL SetEvent(HANDLE handle) {
  // Posted inside the registry's section, so that the event cannot be closed between look-up and post.
  const SectionLock lock(&OS_CRITICAL_LINK);
  KernelEvent* const event = KernelEvent::find_locked(handle);
  if (event == nullptr) return FALSE;
  event->state_->signals.fetch_add(1, std::memory_order_relaxed);
  sem_post(event->sem);
  return TRUE;
}

BOOL CloseHandle(HANDLE handle) {
  SectionLock lock(&OS_CRITICAL_LINK);
  // Deleted inside the section (which the destructor enters again): of two closers only one finds the event.
  KernelEvent* const event = KernelEvent::find_locked(handle);
  if (event == nullptr) return FALSE;
  delete event;
  return TRUE;
}

DWORD WaitForSingleObject(HANDLE handle, unsigned int timeout_ms) {
  if (handle == 0 && Console != nullptr) Console->Fatal("WaitForSingleObject Bad Handle");
  SectionLock lock(&OS_CRITICAL_LINK);
  KernelEvent* const event = KernelEvent::find_locked(handle);
  if (event == nullptr) return kFailed;
  KernelEvent::State* const state = event->state_;
  state->owners.fetch_add(1, std::memory_order_relaxed);
  lock.leave();

  const auto wait = [&]() -> DWORD {
    if (timeout_ms == kForever) return wait_for_ever(&state->sem) == 0 ? state->taken() : wait_result(errno);
    const ULONG start = os_clock();
    const ULONG deadline = start + timeout_ms;
    for (;;) {
      if (sem_trywait(&state->sem) == 0) return state->taken();
      if (errno != EAGAIN) return wait_result(errno);
      if (os_expired(start, timeout_ms) != FALSE) return kTimedOut;
      // A slice that ends without a token, by time or by a signal handler, is followed by another look.
      if (wait_slice(&state->sem, std::min(deadline - os_clock(), kWaitSlice_ms)) == 0) return state->taken();
    }
  };
  const DWORD result = wait();
  state->release();
  return result;
}

// ---- Other calls -------------------------------------------------------------------------------------------

void Sleep(int ms) {
  if (ms <= 0) return;
  const timespec until = monotonic_deadline(static_cast<ULONG>(ms));
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

void os_schedule() {}
void os_intdis() {}
void os_intenb() {}
void os_init_vectors() {}
void SysStrokeDog() {}

char* sp_strdup(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  auto* const copy = static_cast<char*>(std::malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}
