/// @file
/// Start-up, configuration and globals of the kernel; includes locks, events, time, memory pools and console.
///
/// A program sets Console, calls os_startup once, uses the kernel, and calls os_cleanup once at the end. It may
/// then start again, with another configuration if it likes.
#ifndef OSKERNEL_KERNEL_H
#define OSKERNEL_KERNEL_H

#include "console.h"
#include "kern_memory.h"
#include "link_list.h"
#include "posixkernel.h"
#include "posixkernel_time.h"
#include "types.h"

class OSTask;
class OSTriggerTask;
class OSAxeTask;

// ---- Configuration, start and stop -------------------------------------------------------------------------

/// The sizes of the kernel's pools. The constructor sets the defaults, which callers may rely on.
struct OSKERNEL_API KernelCfg {
  KernelCfg();  ///< the defaults

  int buf_size[4];    ///< bytes of storage of the four buffer classes, ascending: 0, 100, 600, 1740
  int buf_qty[4];     ///< buffers of each class: 100, 25, 25, 55
  int buf_min_space;  ///< bytes of headroom in front of data copied into a buffer: 50
  int callback_qty;   ///< callback records: 400
  int link_qty;       ///< links made at start-up and again each time the pool runs dry: 4000
  int trigger_stack;  ///< bytes of stack of the trigger task: 8000; 0 starts neither it nor the timer thread
};

extern "C" {
/// Starts the kernel: POSIX attributes, configuration, memory pool, links, callbacks, buffers, tasks, triggers,
/// in this order.
///   membase   lends a block for the kernel memory pool until the program ends; null for none. The pool's own
///             header stands at its start; a block that does not start at a multiple of 4 loses up to 3 bytes.
///   memsize   bytes at membase
///   cfg       lends the configuration until the kernel has stopped (it is referenced, not copied); null for
///             default_cfg
///   threads   one thread, before any other uses the kernel. A second start without a stop is not detected.
/// Failures inside the steps are reported by the step through Console. From the first start on the library stays
/// loaded until the process ends, whatever dlclose says: its threads run in it.
OSKERNEL_API void os_startup(UBYTE* membase, ULONG memsize, KernelCfg* cfg);

/// Stops triggers, tasks, buffers, callbacks and the POSIX layer, in this order. The memory pool is not touched.
/// Deliberate: the link pool stays. Lists of the program outlive the kernel, static ones to the end of the
/// process, and give their links back whenever they are destroyed. Pinned by kernel_test.cpp,
/// StopLeavesTheLinkPoolUsable.
///   threads   one thread, when no other needs the kernel any more; not a task and not a trigger's callback
OSKERNEL_API void os_cleanup();
}

// ---- Strings -----------------------------------------------------------------------------------------------

/// Copies wide characters to bytes, each reduced to its low 8 bits, up to a zero or until nbytes are written.
/// Deliberate: the result is terminated only when fewer than nbytes characters were written; callers fill fields
/// of fixed width with it. Pinned by kernel_test.cpp, AreNarrowedToTheirLowEightBits.
///   returns   the number of characters copied, without the terminator
OSKERNEL_API unsigned int wcstostr(char* mbstring, const wchar_t* wcstring, unsigned int nbytes);

/// The other direction: each byte, taken as unsigned, becomes a wide character; nwchars counts wide characters.
/// Terminated by the same rule.
///   returns   the number of wide characters copied, without the terminator
OSKERNEL_API unsigned int strtowcs(wchar_t* wcstring, const char* mbstring, unsigned int nwchars);

// ---- Priority scan tables ----------------------------------------------------------------------------------
// For programs that schedule by priority level; the kernel itself never walks them.

/// One priority level and its tasks.
struct OSLevel {
  OSTask* tcbp;  ///< first task of the level
  UWORD ntsks;   ///< tasks at the level
};

/// One step of a scan.
struct OSScanTableEntry {
  OSLevel* plev;            ///< the level whose turn it is
  OSScanTableEntry* nscte;  ///< next entry; the last points back to the first
};

/// A scan: a ring of steps in which each level comes as often as its share of the time says. The program that makes
/// one fills the levels and walks the ring.
class OSKERNEL_API OSProgram {
 public:
  /// Builds the ring of scan entries.
  ///   scan      level numbers 1 to 8, ended by a 0, at least one and at most 40 of them; normally os_stdscan.
  ///             A number above 8 counts as 8, the lowest priority, as it does for a task.
  explicit OSProgram(const UBYTE* scan);

  OSScanTableEntry* sctep;       ///< current entry
  UWORD nswaps;                  ///< the program's, 0 at first
  OSLevel lev[8];                ///< the levels 1 to 8, empty at first
  OSScanTableEntry scantab[40];  ///< the ring, from the first entry on
};

// ---- Globals -----------------------------------------------------------------------------------------------

extern OSKERNEL_API KernelCfg default_cfg;   ///< what a start without a configuration of its own uses
extern OSKERNEL_API KernelCfg* KERNELCFG;    ///< the active configuration, set by os_startup
extern OSKERNEL_API OSMemPool* OS_MEMORY;    ///< the kernel memory pool, set by os_startup
extern OSKERNEL_API OSMemPool OS_EMPTYPOOL;  ///< a pool without memory, for a start without a block

extern OSKERNEL_API OSLinkList OS_TIMER_LIST;  ///< the armed timers, under OS_CRITICAL_TRIGGER (trigger.h)
extern OSKERNEL_API OSLinkList OS_POLL_LIST;   ///< the armed poll triggers, under OS_CRITICAL_TRIGGER
extern OSKERNEL_API OSLinkList OS_READY_LIST;  ///< what the trigger task is to run, under OS_CRITICAL_TRIGGER
/// Head of the callbacks that os_notify_now runs; no lock guards it.
extern OSKERNEL_API OSLink OS_NOTIFY_LIST;

/// The task whose thread started most recently; null when that task is gone. Written without a lock, so it means
/// something only while one thread starts at a time.
extern OSKERNEL_API OSTask* OS_TASK;
extern OSKERNEL_API OSTriggerTask* OS_TRIG_TASK;  ///< the kernel trigger task, null without one
/// Set by a program that makes one; os_cleanup deletes it.
/// Deliberate: the pointer is not reset; programs recognise by it that they have made one. The next stop leaves it
/// alone unless a new one stands there. Pinned by axe_task_test.cpp,
/// StopDeletesTheAxeTaskOfTheProgramAndLeavesThePointer.
extern OSKERNEL_API OSAxeTask* OS_AXE_TASK;
/// Set by a program that makes one; os_cleanup releases its storage with the global operator delete, without
/// running a destructor.
/// Deliberate: the pointer is not reset, as that of OS_AXE_TASK. Pinned by kernel_test.cpp,
/// StopReleasesTheProgramAndKeepsThePointer.
extern OSKERNEL_API OSProgram* OS_PROGRAM;

extern OSKERNEL_API ULONG OS_BTIME;     ///< reserved; never touched
extern OSKERNEL_API UWORD OS_USEDTIME;  ///< reserved; never touched

/// The standard scan: 32 level numbers and a 0. In one round level 1 comes 16 times, level 2 nine times, level 3
/// four times, level 4 twice and level 5 once.
/// Deliberate: the sixteenth number is 2 where the pattern would have 5; programs count on the sequence as it
/// is. Pinned by kernel_test.cpp, StandardSequenceIsAsItIs.
extern OSKERNEL_API UBYTE os_stdscan[33];

extern OSKERNEL_API pthread_attr_t std_thread_attr;      ///< stack size 1 MiB; valid while OS_POSIX_OK
extern OSKERNEL_API pthread_mutexattr_t std_mutex_attr;  ///< recursive; valid while OS_POSIX_OK
extern OSKERNEL_API std::size_t std_stksize;             ///< never used
extern OSKERNEL_API bool OS_POSIX_OK;                    ///< true from os_posix_init to os_posix_cleanup

#endif
