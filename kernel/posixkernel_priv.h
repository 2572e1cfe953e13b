/// What the kernel's sources share about sections; not installed.
#ifndef OSKERNEL_POSIXKERNEL_PRIV_H
#define OSKERNEL_POSIXKERNEL_PRIV_H

#include <time.h>

#include <atomic>

#include "posixkernel.h"

/// Storage whose contents are never destroyed. A process may end by exit() while kernel threads still run; a
/// section destroyed under them would turn a clean exit into a crash.
union NeverDestroyedSection {
  constexpr NeverDestroyedSection() : section() {}
  // Trivial on purpose; `= default` would be deleted because the member has a destructor.
  ~NeverDestroyedSection() {}  // NOLINT(modernize-use-equals-default)
  CRITICAL_SECTION section;
};

/// Defines one of the kernel's global sections, declared `extern CRITICAL_SECTION name` in a public header.
/// The public name is a second symbol for storage that outlives every thread.
#define OSKERNEL_SECTION(name)                                          \
  extern "C" {                                                          \
  __attribute__((used)) constinit NeverDestroyedSection name##_storage; \
  }                                                                     \
  extern CRITICAL_SECTION name __attribute__((alias(#name "_storage")))

/// Creates the section's semaphore unless it has one: a start after a stop finds the section as it left it.
inline void init_section(CRITICAL_SECTION* section) {
  if (section->sem == nullptr) InitializeCriticalSection(section);
}

/// What Debug and sanitizer builds look at: a thread that enters the kernel's sections in an order that could
/// deadlock ends the program with a line on standard error, whether or not another thread is in the way today.
#if defined(OSKERNEL_CHECK_LOCK_ORDER)
void check_section_order(const CRITICAL_SECTION* section);   // before a first entry waits
void note_section_entered(const CRITICAL_SECTION* section);  // after it
void note_section_left(const CRITICAL_SECTION* section);     // before the last leave
/// Gives a section of an outer layer its place, from 0, in front of the kernel's own. While the library is loaded.
void rank_outer_section(std::size_t place, const CRITICAL_SECTION* section, const char* name);
#else
inline void check_section_order(const CRITICAL_SECTION* /*section*/) {}
inline void note_section_entered(const CRITICAL_SECTION* /*section*/) {}
inline void note_section_left(const CRITICAL_SECTION* /*section*/) {}
inline void rank_outer_section(std::size_t /*place*/, const CRITICAL_SECTION* /*section*/,
                               const char* /*name*/) {}
#endif

/// The moment so many milliseconds from now on the monotonic clock, which nobody sets.
timespec monotonic_deadline(ULONG ms);

/// Where the calling thread counts its waits for ever: odd while it is inside one. Null when nobody asks.
extern thread_local std::atomic<unsigned>* endless_waits __attribute__((tls_model("initial-exec")));

/// Holds a section for a scope. leave() and enter() open a window inside the scope.
class SectionLock {
 public:
  explicit SectionLock(CRITICAL_SECTION* section) : section_(section) { enter(); }
  ~SectionLock() {
    if (held_) LeaveCriticalSection(section_);
  }
  SectionLock(const SectionLock&) = delete;
  SectionLock& operator=(const SectionLock&) = delete;

  void enter() {
    EnterCriticalSection(section_);
    held_ = true;
  }
  void leave() {
    held_ = false;
    LeaveCriticalSection(section_);
  }

 private:
  CRITICAL_SECTION* section_;
  bool held_ = false;
};

#endif
