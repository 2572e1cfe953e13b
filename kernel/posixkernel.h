/// @file
/// Win32-style critical sections, counting events and sleeps on POSIX threads and semaphores.
///
/// The names and results are Win32's, the behaviour differs where the comments say so: events count their
/// signals, TryEnterCriticalSection records no owner, a wait on a handle that does not exist returns 128.
#ifndef OSKERNEL_POSIXKERNEL_H
#define OSKERNEL_POSIXKERNEL_H

#include <pthread.h>
#include <semaphore.h>

#include "link_list.h"
#include "types.h"

/// Initialises std_thread_attr (stack size 1 MiB) and std_mutex_attr (recursive) and sets OS_POSIX_OK.
///   threads   the starting thread, before any other uses the kernel; os_startup calls it
OSKERNEL_API void os_posix_init();

/// Clears OS_POSIX_OK, deletes every event still registered and destroys the shared attributes.
///   threads   the stopping thread, when no other uses the kernel any more; os_cleanup calls it
OSKERNEL_API void os_posix_cleanup();

// ---- Critical sections -------------------------------------------------------------------------------------

/// A lock that its holder may take again; it is free again after as many leaves as enters.
///
///                          Initialize        Enter, free   Enter, own  Enter, other's  Leave        Delete
///   not initialised (sem   -> free           Fatal, not    cannot      cannot happen   no effect    no effect
///   null, as constructed)                    taken         happen
///   free                   do not: leaks     -> held,      cannot      cannot happen   Fatal, no    -> not
///                                            depth 1       happen                      effect       initialised
///   held                   do not            cannot        depth + 1   waits           depth - 1,   do not
///                                            happen                                    at 0 -> free
struct OSKERNEL_API CRITICAL_SECTION {
  /// Not initialised: all fields zero.
  constexpr CRITICAL_SECTION() : sem(nullptr), owner_thread_id(0), owner_count(0) {}
  /// Calls DeleteCriticalSection when the section has a semaphore.
  ~CRITICAL_SECTION();
  CRITICAL_SECTION(const CRITICAL_SECTION&) = delete;
  CRITICAL_SECTION& operator=(const CRITICAL_SECTION&) = delete;

  sem_t* sem;  ///< null until initialised; from malloc, owned by the section
  /// The holder, 0 when free. Accessed atomically (relaxed): every thread compares it with itself, and only
  /// the holder can find itself here, so no order beyond its own program order is needed.
  pthread_t owner_thread_id;
  int owner_count;  ///< the holder's depth; the holder only
};

/// Gives the section a semaphore (sem_init, process-private) and makes it free. The owner fields stay.
///   threads   any; not while another thread uses the section
OSKERNEL_API void InitializeCriticalSection(CRITICAL_SECTION* section);

/// Takes the section, waiting for its holder to leave; the holder itself only counts one deeper.
/// On a section without semaphore: nothing is taken; Fatal "EnterCriticalSection Not Initialized" when there is
/// a Console.
/// Deliberate: without a Console this is quiet. Static objects of programs use the kernel's lists before the start and
/// behind the stop, when nobody else runs. Pinned by critical_section_test.cpp,
/// EnterOfAnUninitialisedOneWithoutConsoleReturnsQuietly.
/// A failed wait is printed; after EINTR it is tried again, after any other error the section
/// counts as taken.
///   threads   any
OSKERNEL_API void EnterCriticalSection(CRITICAL_SECTION* section);

/// Gives back one level; the last one frees the section. After that nothing of the section is touched, so
/// whoever enters next may delete it. Without semaphore: no effect. By another than the holder: Fatal
/// "LeaveCriticalSection on one we dont own", nothing is released.
///   threads   the holder
OSKERNEL_API void LeaveCriticalSection(CRITICAL_SECTION* section);

/// Takes the section when that needs no wait.
/// Deliberate: taking a free section this way records no owner and no depth, so the taker's later
/// LeaveCriticalSection reports "on one we dont own" and releases nothing. Programs that only probe a section
/// rely on the owner fields staying as they are. Pinned by critical_section_test.cpp, TryEnterRecordsNoOwner and
/// LeaveAfterTryEnterIsFatalAndReleasesNothing.
///   returns   1 when taken or already the caller's (then one level deeper), 0 when another holds it
///   threads   any
OSKERNEL_API BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);

/// Destroys the semaphore (sem_destroy); the section is not initialised again. The owner fields stay.
///   threads   any; not while another thread uses the section
OSKERNEL_API void DeleteCriticalSection(CRITICAL_SECTION* section);

// ---- Events ------------------------------------------------------------------------------------------------

/// Makes an event. All four arguments are ignored: events have no security, never reset by hand, start without
/// a signal and have no name.
/// Deliberate: an event counts. Every SetEvent lets one wait through, however many come before the first wait, and
/// none resets it; programs give a task as many signals as it has work. Pinned by event_test.cpp, CountsItsSignals and
/// IgnoresEveryArgumentOfCreateEvent.
///   returns   the handle, from 1 upward, or 0 when memory runs out. The number of a closed event is not handed
///             out again until the numbers have run through all 2^31 - 1.
///   threads   any; takes OS_CRITICAL_LINK
OSKERNEL_API HANDLE CreateEvent(void* security, bool manual_reset, bool initial_state, const char* name);

/// Adds one signal.
///   returns   1, or 0 when there is no such event
///   threads   any, also while others wait on the event or close it; never waits but for OS_CRITICAL_LINK
OSKERNEL_API BOOL SetEvent(HANDLE handle);

/// Destroys the event. Threads that wait on it return: 0 while signals are left, then 128.
///   returns   1, or 0 when there is no such event
///   threads   any
OSKERNEL_API BOOL CloseHandle(HANDLE handle);

/// Waits for one signal and takes it.
///   timeout_ms  0 tests once; 0xFFFFFFFF waits for ever. The deadline follows os_clock, which is looked at
///               every 10 ms at the latest; a signal ends the wait as soon as it comes.
///   returns   0 taken; 110 timed out; 128 no such handle, closed while waiting, or the wait failed. A wait for
///             ever that a signal handler interrupts returns 128. Handle 0: Fatal, then 128.
///   threads   any; several may wait on one event, each signal releases one
/// Deliberate: the interrupted wait for ever is not taken up again. Programs that signal their threads get them out of
/// it so. Pinned by event_test.cpp, WaitForEverThatASignalHandlerInterruptsFails.
OSKERNEL_API DWORD WaitForSingleObject(HANDLE handle, unsigned int timeout_ms);

/// An event: a counting semaphore that starts at 0, found by its number. Every SetEvent adds one signal, every
/// wait that succeeds takes one; signals accumulate and are never lost. There is no manual reset.
///
/// An event registers itself when it is constructed and takes itself out when it is destroyed. Programs
/// normally use CreateEvent and CloseHandle.
class OSKERNEL_API KernelEvent : public OSLink {
 public:
  /// Registered under the next free number, without a signal.
  KernelEvent();
  /// Threads that still wait on the event return 128, after as many as there were signals left returned 0.
  ~KernelEvent() override;

  /// Returns the live event with this number, or null. The registry is left again before the return: the
  /// caller must know that nobody closes the event meanwhile.
  ///   threads   any
  static KernelEvent* Find(HANDLE handle);

  HANDLE handle;  ///< constant after construction
  sem_t* sem;     ///< constant after construction

  static HANDLE nextHandle;  ///< under OS_CRITICAL_LINK; after the largest number it starts again at 1
  static OSLinkList
      eventList;  ///< all live events, each link's object the event itself; under OS_CRITICAL_LINK

 private:
  /// The semaphore and what its waiters share; outlives the event until the last waiter has returned.
  struct State;
  friend BOOL SetEvent(HANDLE handle);
  friend BOOL CloseHandle(HANDLE handle);
  friend DWORD WaitForSingleObject(HANDLE handle, unsigned int timeout_ms);

  static KernelEvent* find_locked(HANDLE handle);

  State* state_;
};

// ---- Other calls -------------------------------------------------------------------------------------------

/// Sleeps for ms milliseconds, whatever signals arrive; 0 or less returns at once.
OSKERNEL_API void Sleep(int ms);

/// Does nothing: the first of five hooks of an interrupt-driven kernel, this one for rescheduling.
/// Deliberate: all five are empty, and those around list surgery exclude nobody. Code written for such a kernel links
/// and runs with them. Pinned by event_test.cpp, DoNothing and DisablingInterruptsExcludesNobody.
OSKERNEL_API void os_schedule();
OSKERNEL_API void os_intdis();        ///< does nothing; a hook for disabling interrupts around list surgery
OSKERNEL_API void os_intenb();        ///< does nothing; a hook for enabling them again
OSKERNEL_API void os_init_vectors();  ///< does nothing; a hook for installing interrupt vectors
OSKERNEL_API void SysStrokeDog();     ///< does nothing; a hook for feeding a watchdog

/// Copies a string.
///   returns   storage from malloc; the caller releases it with free
OSKERNEL_API char* sp_strdup(const char* text);

/// Guards the link pool and the event registry. A leaf, except that it may be entered from inside every other
/// kernel section; nothing is entered or called while it is held.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_LINK;

#endif
