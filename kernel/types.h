/// Basic types of the library, with the widths that callers rely on.
///
/// Every integer here has the same width on every platform: ULONG is 32 bits wide on 64-bit systems too, so
/// a value printed with %lu or %lx is cast.
#ifndef OSKERNEL_TYPES_H
#define OSKERNEL_TYPES_H

#include <cstddef>
#include <cstdint>

/// Marks what the shared library exports; everything else stays hidden.
#define OSKERNEL_API __attribute__((visibility("default")))

/// Lets the compiler check printf-style arguments. Positions count from 1; a member function counts `this`.
#define OSKERNEL_PRINTF(format_position, first_argument) \
  __attribute__((format(printf, format_position, first_argument)))

typedef std::uint8_t UBYTE;
typedef std::uint16_t UWORD;
typedef std::int16_t WORD;
typedef std::uint32_t ULONG;
typedef std::uint32_t DWORD;
typedef int BOOL;  ///< 1 or 0
typedef char TBOOL;
typedef char BYTE;
typedef char TEXT;
typedef void* ADDR;
typedef void* LPVOID;

/// An event handle: a positive number, 0 is never a valid one.
typedef std::int32_t HANDLE;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/// Opaque: only passes through callbacks to the function that knows what it points to.
class OSObj;
class OSTrigger;

typedef void (*OSFunction)();
typedef void (*OSCallbackFunction)(OSObj*, ADDR, ULONG);
typedef BOOL (*OSPollFunction)(OSTrigger*, OSObj*, ADDR, ULONG);

#endif
