// One include brings an application everything that belongs to the kernel itself.

#include "kernel/kernel.h"

// Nothing of the library may be named below this line that kernel.h does not bring.

#include <gtest/gtest.h>

#include <cstdlib>
#include <type_traits>

namespace {

static_assert(sizeof(UBYTE) == 1 && std::is_unsigned_v<UBYTE>);
static_assert(sizeof(UWORD) == 2 && std::is_unsigned_v<UWORD>);
static_assert(sizeof(WORD) == 2 && std::is_signed_v<WORD>);
static_assert(sizeof(ULONG) == 4 && std::is_unsigned_v<ULONG>);
static_assert(sizeof(DWORD) == 4 && std::is_unsigned_v<DWORD>);
static_assert(sizeof(HANDLE) == 4 && std::is_signed_v<HANDLE>);
static_assert(std::is_same_v<BOOL, int> && TRUE == 1 && FALSE == 0);
static_assert(std::is_same_v<TBOOL, char> && std::is_same_v<BYTE, char> && std::is_same_v<TEXT, char>);
static_assert(std::is_same_v<ADDR, void*> && std::is_same_v<LPVOID, void*>);
static_assert(std::is_same_v<OSFunction, void (*)()>);
static_assert(std::is_same_v<OSCallbackFunction, void (*)(OSObj*, ADDR, ULONG)>);
static_assert(std::is_same_v<OSPollFunction, BOOL (*)(OSTrigger*, OSObj*, ADDR, ULONG)>);

static_assert(std::is_same_v<decltype(&os_startup), void (*)(UBYTE*, ULONG, KernelCfg*)>);
static_assert(std::is_same_v<decltype(&os_cleanup), void (*)()>);
static_assert(std::is_same_v<decltype(&os_posix_init), void (*)()>);
static_assert(std::is_same_v<decltype(&os_posix_cleanup), void (*)()>);
static_assert(std::is_same_v<decltype(&wcstostr), unsigned int (*)(char*, const wchar_t*, unsigned int)>);
static_assert(std::is_same_v<decltype(&strtowcs), unsigned int (*)(wchar_t*, const char*, unsigned int)>);
static_assert(std::is_same_v<decltype(&EnterCriticalSection), void (*)(CRITICAL_SECTION*)>);
static_assert(std::is_same_v<decltype(&LeaveCriticalSection), void (*)(CRITICAL_SECTION*)>);
static_assert(std::is_same_v<decltype(&TryEnterCriticalSection), BOOL (*)(CRITICAL_SECTION*)>);
static_assert(std::is_same_v<decltype(&SetEvent), BOOL (*)(HANDLE)>);
static_assert(std::is_same_v<decltype(&CloseHandle), BOOL (*)(HANDLE)>);
static_assert(std::is_same_v<decltype(&WaitForSingleObject), DWORD (*)(HANDLE, unsigned int)>);
static_assert(std::is_same_v<decltype(&Sleep), void (*)(int)>);
static_assert(std::is_same_v<decltype(&os_clock), ULONG (*)()>);
static_assert(std::is_same_v<decltype(&os_expired), BOOL (*)(ULONG, ULONG)>);
static_assert(std::is_same_v<decltype(&LockTime), bool (*)()>);
static_assert(std::is_same_v<decltype(&UnlockTime), void (*)(bool)>);

class QuietConsole : public OSConsole {
 public:
  void Fatal(const char*, ...) override OSKERNEL_PRINTF(2, 3) { ++fatals; }
  int fatals = 0;
};

TEST(KernelHeader, AlonePutsTheKernelIntoAProgramsHands) {
  QuietConsole console;
  Console = &console;
  KernelCfg cfg;
  cfg.trigger_stack = 0;
  os_startup(nullptr, 0, &cfg);

  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  EnterCriticalSection(&section);
  LeaveCriticalSection(&section);
  DeleteCriticalSection(&section);

  char name[] = "name";
  const HANDLE event = CreateEvent(nullptr, false, false, name);
  EXPECT_EQ(SetEvent(event), 1);
  EXPECT_EQ(WaitForSingleObject(event, 0xFFFFFFFF), 0u);
  EXPECT_EQ(CloseHandle(event), 1);

  const ULONG start = os_clock();
  Sleep(1);
  EXPECT_TRUE(os_expired(start, 1));
  SYSTEMTIME time;
  GetLocalTime(&time);
  EXPECT_GE(time.wYear, 2020);

  alignas(8) static UBYTE block[1000];
  auto* pool = new (block) OSMemPool(sizeof block, 0);
  EXPECT_EQ(pool->FreeSpace(), 988u);

  EXPECT_EQ(OS_TIMER_LIST.Size() + OS_POLL_LIST.Size() + OS_READY_LIST.Size(), 0);
  EXPECT_TRUE(OS_NOTIFY_LIST.IsEmpty());

  os_cleanup();
  Console = nullptr;
  EXPECT_EQ(console.fatals, 0);
}

}  // namespace
