/// @file
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

typedef std::uint8_t UBYTE;   ///< unsigned, 8 bits
typedef std::uint16_t UWORD;  ///< unsigned, 16 bits
typedef std::int16_t WORD;    ///< signed, 16 bits
typedef std::uint32_t ULONG;  ///< unsigned, 32 bits
typedef std::uint32_t DWORD;  ///< unsigned, 32 bits: what a wait returns
typedef int BOOL;             ///< 1 or 0
typedef char TBOOL;           ///< 1 or 0 in one byte
typedef char BYTE;            ///< one byte; signed or not as the platform's char is
typedef char TEXT;            ///< one character of a text
typedef void* ADDR;           ///< an untyped address
typedef void* LPVOID;         ///< an untyped address: what a thread's entry takes

/// An event handle: a positive number, 0 is never a valid one.
typedef std::int32_t HANDLE;

#ifndef TRUE
#define TRUE 1  ///< the BOOL for yes
#endif
#ifndef FALSE
#define FALSE 0  ///< the BOOL for no
#endif

/// Opaque: only passes through callbacks to the function that knows what it points to.
class OSObj;
class OSTrigger;

/// A function that takes and gives nothing: what a task runs instead of Main, say.
typedef void (*OSFunction)();
/// What triggers, buffers, listeners and lookups call; where it is registered, it is said with which values. An OSObj is
/// opaque: the function knows what it points to.
typedef void (*OSCallbackFunction)(OSObj*, ADDR, ULONG);
/// What an OSPollTrigger asks: itself and its three values. TRUE activates it.
typedef BOOL (*OSPollFunction)(OSTrigger*, OSObj*, ADDR, ULONG);

#endif
