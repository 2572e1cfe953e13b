/// @file
/// A heap over one block of memory.
///
/// A pool hands out pieces of a block that somebody else owns. It cuts them from the block's high end downward,
/// keeps its free areas in address order and merges neighbours as they are freed, so no two free areas ever
/// touch. Everything it stores inside the block is 32 bits wide and relative to where it stands: a pool takes the
/// same bytes on every platform, and a block of up to 4 GiB - 1 works on 64-bit systems too.
///
/// A pool takes no lock: callers serialise their use of a pool and of the pools chained to it.
#ifndef OSKERNEL_KERN_MEMORY_H
#define OSKERNEL_KERN_MEMORY_H

#include "types.h"

class OSMemPool;

/// Header of a free area, at the area's start. Distances are in bytes; 0 stands for none.
struct __attribute__((may_alias)) OSMemArea {
  ULONG next;  ///< from this area up to the next free one
  ULONG last;  ///< from this area down to the previous free one; 0 in the head area only
  ULONG size;  ///< bytes of the area, this header included
};

/// Header of an allocated block, in front of the caller's memory. When the block is freed its size moves to the
/// word behind the header (the caller's first word), where the free area keeps it.
struct __attribute__((may_alias)) OSMemBlock {
  ULONG pool;  ///< bytes from this header down to the pool that the block belongs to
  ULONG size;  ///< bytes of the block, this header included
};

/// The pool itself: three words at the start of the block it manages. The first free area, the head area, begins
/// right behind them; it anchors the list of free areas and is never handed out whole.
class OSKERNEL_API OSMemPool {
 public:
  /// Constructs a pool in place: returns `where`, which is 4-aligned and starts the block. null makes no pool.
  static void* operator new(std::size_t size, ADDR where) noexcept;
  /// Does nothing: the block belongs to whoever provided it.
  static void operator delete(void* storage, ADDR where);

  /// A pool without memory: size 0, running out is fatal, and every allocation runs out.
  OSMemPool();

  /// A pool over the block that starts at this object.
  ///   pool_size   bytes of the whole block, these three words included. Below 24 bytes there is no room for a
  ///               head area: such a pool is always out of memory. Up to 3 bytes behind the last multiple of 4
  ///               stay unused.
  ///   fatal       kept as NoMemIsFatal; non-zero: a failed Allocate on this pool is reported with Fatal
  OSMemPool(ULONG pool_size, int fatal);

  /// Leaves the block as it is.
  ~OSMemPool();

  OSMemPool(const OSMemPool&) = delete;
  OSMemPool& operator=(const OSMemPool&) = delete;

  /// Sets secondary_pool, the pool to try when this one cannot serve a request; null ends the chain. In a chain
  /// that leads back into itself every pool is asked, and then it ends.
  ///   lends     pool, which outlives this one or is unchained first
  void Chain(OSMemPool* pool);

  /// Takes n bytes, 4-aligned, from the first pool of the chain that has them.
  ///   n         any number, 0 included; with its 8-byte header rounded up to a multiple of 4, at least 12 bytes
  ///   returns   the memory, or null when no pool of the chain has it, after Fatal
  ///             "OSMemPool::Allocate Out of Memory" when this pool's NoMemIsFatal is set
  /// Deliberate: a request that only the whole head area could serve fails although FreeSpace() is large enough.
  /// The head area anchors the list of free areas, and Free relies on finding it there. Pinned by
  /// kern_memory_test.cpp, HeadAreaIsNeverHandedOutWhole.
  ADDR Allocate(ULONG n);

  /// Gives memory back to the pool it came from. null is ignored.
  static void Free(ADDR memory);

  /// The bytes of all free areas, the head area included. 0 without head area.
  ULONG FreeSpace();

  /// Checks that every free area starts within [lo, hi] and ends at or below hi. The first that does not is
  /// printed as "OSMemPool::Bad Area %p %p %d\r\n" (start, end, size) and ends the check.
  void Validate(ADDR lo, ADDR hi);

  /// A pool pointer that takes no more than four bytes on any platform; reads and is assigned as an OSMemPool*. The
  /// bytes themselves say nothing: the pointer stands in a table, under their address.
  ///   threads   any; each access takes a private lock, a leaf
  class OSKERNEL_API Secondary {
   public:
    Secondary() noexcept;  ///< null
    ~Secondary();          ///< takes its entry out of the table
    Secondary(const Secondary&) = delete;
    Secondary& operator=(const Secondary&) = delete;

    operator OSMemPool*() const;                     ///< the pool, or null
    OSMemPool* operator->() const { return *this; }  ///< the pool, which must not be null
    /// Points to `pool`, null for none. Without memory for the table's entry it stays null.
    Secondary& operator=(OSMemPool* pool);
  };

  alignas(ULONG) Secondary secondary_pool;  ///< the next pool to try, null at the end of the chain
  ULONG size;                               ///< bytes of the whole block, these fields included
  int NoMemIsFatal;                         ///< non-zero: running out of memory is fatal

 private:
  ADDR _Allocate(ULONG n);
  void _Free(OSMemArea* area);
  static void brkfree(OSMemArea* area);
  OSMemArea* head();
};

static_assert(sizeof(OSMemPool) == 12 && alignof(OSMemPool) == 4, "a pool is three words");
static_assert(sizeof(OSMemArea) == 12 && sizeof(OSMemBlock) == 8, "byte figures of the pool");

#endif
