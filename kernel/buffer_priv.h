/// What the sources of the message buffer share; not installed.
#ifndef OSKERNEL_BUFFER_PRIV_H
#define OSKERNEL_BUFFER_PRIV_H

#include "buffer.h"

/// What Print shows of a buffer, copied so that it can be printed outside the section.
struct OSBuf::Snapshot {
  static constexpr std::size_t kDumpBytes = 64;

  const OSBuf* buf;
  const UBYTE* data;
  ADDR destPtr;
  std::uint64_t allocated;
  ULONG timeStamp;
  ULONG local_ipaddr;
  ULONG remote_ipaddr;
  UWORD size;
  UWORD length;
  UWORD remote_port;
  UWORD local_port;
  bool foreign;          ///< the data lies in storage that the buffer does not own; bytes is not filled
  std::size_t readable;  ///< how many of the first kDumpBytes bytes of data can be shown
  UBYTE bytes[kDumpBytes];

  /// Fills the snapshot. Reads a buffer that another thread may be using: the figures may not belong together,
  /// but no byte outside the buffer's storage is read.
  void take(const OSBuf& from);
  void print();

  /// Prints every buffer of allocated_list, oldest first.
  ///   threads   any; the caller must not be in a pool section
  static void print_allocated();
};

/// OSBuf::Compact in halves, for those who merge inside a section: a buffer's callbacks are the program's, so the buffer
/// is freed when the section has been left.
struct BufferMerge {
  /// As into->Compact(from, max), but frees nothing.
  ///   returns   whether `from` has been emptied; then the caller frees it
  static bool take(OSBuf* into, OSBuf* from, UWORD max);
};

inline std::uintptr_t buffer_address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

/// The room that is kept in front of data copied into a buffer, in bytes.
int buffer_headroom();

#endif
