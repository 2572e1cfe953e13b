/// Start-up, shutdown, the kernel's globals and the two string conversions.
#include "kernel/kernel.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>

#include "kernel/buffer.h"
#include "kernel/task.h"
#include "kernel/task_priv.h"
#include "kernel/trigger.h"

/// Storage whose contents are never destroyed. The trigger task still walks the lists while the process exits, and
/// triggers of static storage take themselves out as late as that.
template <class List>
union LastingList {
  constexpr LastingList() : list() {}
  // Trivial on purpose; `= default` would be deleted because the member has a destructor.
  ~LastingList() {}  // NOLINT(modernize-use-equals-default)
  List list;
};

// Constructed in this order; programs' own static objects may use them as soon as the library is loaded. The lists
// carry their public names in the object file only: an empty list points at itself, and only a reference to the
// public symbol follows it into a program that has a copy of the variable.
#define OSKERNEL_LASTING(name) __asm__(#name) __attribute__((used, visibility("default")))
constinit LastingList<OSLinkList> timer_list OSKERNEL_LASTING(OS_TIMER_LIST);
constinit LastingList<OSLinkList> poll_list OSKERNEL_LASTING(OS_POLL_LIST);
constinit LastingList<OSLinkList> ready_list OSKERNEL_LASTING(OS_READY_LIST);
constinit LastingList<OSLink> notify_list OSKERNEL_LASTING(OS_NOTIFY_LIST);
KernelCfg default_cfg;
OSMemPool OS_EMPTYPOOL;

KernelCfg* KERNELCFG = nullptr;
OSMemPool* OS_MEMORY = nullptr;
OSTask* OS_TASK = nullptr;
OSTriggerTask* OS_TRIG_TASK = nullptr;
OSAxeTask* OS_AXE_TASK = nullptr;
OSProgram* OS_PROGRAM = nullptr;
OSConsole* Console = nullptr;
ULONG OS_BTIME = 0;
UWORD OS_USEDTIME = 0;
UBYTE os_stdscan[33] = {1, 2, 1, 3, 1, 2, 1, 4, 1, 2, 1, 3, 1, 2, 1, 2, 1,
                        2, 1, 3, 1, 2, 1, 4, 1, 2, 1, 3, 1, 2, 1, 5, 0};
pthread_attr_t std_thread_attr;
pthread_mutexattr_t std_mutex_attr;
std::size_t std_stksize = 0;
bool OS_POSIX_OK = false;

KernelCfg::KernelCfg()
    : buf_size{0, 100, 600, 1740},
      buf_qty{100, 25, 25, 55},
      buf_min_space(50),
      callback_qty(400),
      link_qty(4000),
      trigger_stack(8000) {}

namespace {

/// Makes the kernel memory pool in place at the start of the program's block.
OSMemPool* make_memory_pool(UBYTE* membase, ULONG memsize) {
  if (membase == nullptr) return &OS_EMPTYPOOL;
  // Every word of a pool is 32 bits wide and stands at a multiple of 4.
  const auto misaligned = static_cast<ULONG>(reinterpret_cast<std::uintptr_t>(membase) % alignof(OSMemPool));
  const ULONG lost = misaligned == 0 ? 0 : ULONG{alignof(OSMemPool)} - misaligned;
  if (memsize < lost + sizeof(OSMemPool)) return &OS_EMPTYPOOL;  // not even the header fits
  return new (static_cast<ADDR>(membase + lost)) OSMemPool(memsize - lost, 1);
}

/// Keeps the library loaded to the end of the process. A dlclose while threads run in it would take their code
/// away, and even after a stop a thread that its task has detached may still be on its way out.
bool keep_loaded() {
  Dl_info own{};
  if (dladdr(&default_cfg, &own) == 0 || own.dli_fname == nullptr) return false;
  return dlopen(own.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

}  // namespace

void os_startup(UBYTE* membase, ULONG memsize, KernelCfg* cfg) {
  [[maybe_unused]] static const bool stays_loaded = keep_loaded();
  os_posix_init();
  KERNELCFG = cfg != nullptr ? cfg : &default_cfg;
  OS_MEMORY = make_memory_pool(membase, memsize);
  OSLink::Initialise();
  OSCallback::Initialise();
  OSBuf::Initialise();
  OSTask::Initialise();
  OSTrigger::Initialise();
  os_init_vectors();
}

void os_cleanup() {
  OSTrigger::UnInitialise();
  OSTask::UnInitialise();
  OSBuf::UnInitialise();
  OSCallback::UnInitialise();
  os_posix_cleanup();
}

unsigned int wcstostr(char* mbstring, const wchar_t* wcstring, unsigned int nbytes) {
  unsigned int copied = 0;
  for (; copied < nbytes && wcstring[copied] != 0; ++copied) {
    mbstring[copied] = static_cast<char>(static_cast<std::uint32_t>(wcstring[copied]) & 0xFFU);
  }
  if (copied < nbytes) mbstring[copied] = '\0';
  return copied;
}

unsigned int strtowcs(wchar_t* wcstring, const char* mbstring, unsigned int nwchars) {
  unsigned int copied = 0;
  for (; copied < nwchars && mbstring[copied] != '\0'; ++copied) {
    wcstring[copied] = static_cast<wchar_t>(static_cast<unsigned char>(mbstring[copied]));
  }
  if (copied < nwchars) wcstring[copied] = 0;
  return copied;
}

OSProgram::OSProgram(const UBYTE* scan) : sctep(scantab), nswaps(0), lev{}, scantab{} {
  constexpr std::size_t kEntries = std::size(decltype(scantab){});
  constexpr UBYTE kLowestLevel = static_cast<UBYTE>(std::size(decltype(lev){}));
  std::size_t filled = 0;
  for (; filled < kEntries && scan[filled] != 0; ++filled) {
    OSScanTableEntry& entry = scantab[filled];
    entry.plev = &lev[std::min(scan[filled], kLowestLevel) - 1];
    entry.nscte = &entry + 1;
  }
  if (filled > 0) scantab[filled - 1].nscte = scantab;
  program_constructed(this);
}
