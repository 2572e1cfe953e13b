/// @file
/// Pooled callback records: "when this happens, call this function with these three values".
///
/// Message buffers run them when their data or they themselves are released, byte streams when their bytes have
/// been consumed. All callbacks are made at start-up; taking and returning one is constant-time.
#ifndef OSKERNEL_BUFFER_CALLBACK_H
#define OSKERNEL_BUFFER_CALLBACK_H

#include "link_indirect.h"
#include "link_list.h"
#include "posixkernel.h"
#include "types.h"

class OSCallbackRecord;

/// One callback. Its own link puts it into the free pool or into the ring of a buffer or stream, where the
/// link's object is the callback itself.
///
///              Alloc      insert into a ring   Free               CancelCallbacks of its record
///   free       detached   do not               no effect          cannot happen
///   detached   do not     armed                -> free            -> free
///   armed      do not     do not               leaves the ring,   leaves the ring, -> free, not run
///                                              -> free
class OSKERNEL_API OSCallback : public OSLinkListObj {
 public:
  /// A detached callback outside the pool, with all fields zero. Free gives it to the pool.
  OSCallback();
  /// Leaves record, ring and pool. One of the pool that is deleted (by a ring that owns its contents, say) is
  /// missing until the next start.
  ~OSCallback() override;

  /// Returns the callback to the front of the pool without running it, and takes it out of its record. Whoever
  /// runs a callback takes it out of its ring first and frees it afterwards. A callback that is free already
  /// stays as it is.
  ///   threads   any, one that owns the callback; never waits for anything but the pool
  void Free() override;

  /// Builds the pool of KERNELCFG->callback_qty callbacks; 0 or less makes an empty one, and so does a heap that
  /// cannot provide the block.
  ///   threads   start-up, after OSLink::Initialise and before OSBuf::Initialise
  static void Initialise();

  /// Releases the pool. Callbacks that are still out leave their records and rings and are gone with it.
  ///   threads   shut-down, after OSBuf::UnInitialise
  static void UnInitialise();

  /// Takes the most recently freed callback and stores the values in it.
  ///   record    shares the callback: lists it until it is freed; null for none
  ///   function  called with first, second and third, kept as object, addr and value; null does nothing
  ///   returns   a detached callback, or null after the warning "OSCallback::Alloc Out Of Callbacks" when the
  ///             pool is empty; otherwise null too when the link pool cannot provide the record's link
  ///   threads   any; the caller must not be in a pool section
  static OSCallback* Alloc(OSCallbackRecord* record, OSCallbackFunction function, OSObj* first, ADDR second,
                           ULONG third);

  /// Calls the function with object, addr and value. The callback stays as it is, unless the function frees it.
  void Execute();

  /// While Initialise builds the pool: the next bytes of its block, null when they are used up. Otherwise the
  /// heap; null when it has none.
  static void* operator new(std::size_t size) noexcept;
  /// Gives storage back to the heap unless it lies in the pool's block.
  static void operator delete(void* storage);

  OSCallbackFunction callback_function;  ///< what Execute calls; null for nothing
  OSCallbackRecord* callback_record;     ///< the record that lists this callback, or null
  /// The function's first argument. Deliberate: hides the object of the link, which is OSLink::object; programs
  /// name both. Pinned by callback_test.cpp, TheArgumentDoesNotHideTheLinksObject.
  OSObj* object;
  ADDR addr;    ///< the function's second argument
  ULONG value;  ///< the function's third argument

  static OSLinkHead callback_pool;  ///< free callbacks; inside OS_CRITICAL_CALLBACKS
  /// Number of free callbacks. Changed inside OS_CRITICAL_CALLBACKS; stored atomically, so that a program may
  /// load it (relaxed) at any time as a figure.
  static ULONG callback_pool_size;

 private:
  friend class OSBuf;
  friend class OSCallbackRecord;
  struct __attribute__((visibility("hidden"))) Pool;

  /// Runs, unlinks and frees the callbacks of a ring, first to last, outside every section. A function may free
  /// or cancel any callback, those of this ring and the one that is being run included, and may add others.
  static void run_ring(OSLink* ring);
  /// Unlinks and frees the callbacks of a ring without running them.
  static void drop_ring(OSLink* ring);

  OSLink* leave_record_locked();

  OSLink* record_link_;      ///< this callback's link in callback_record, null without one
  OSCallback* made_before_;  ///< with made_after_: the chain of all callbacks of the block that still exist
  OSCallback* made_after_;   ///< inside OS_CRITICAL_CALLBACKS
  ULONG uses_;  ///< how often it has been freed: tells a later use from the one a caller remembers
  bool free_;   ///< in the pool; inside OS_CRITICAL_CALLBACKS
};

/// The callbacks that an owner has handed out, so that it can withdraw them before it goes away.
///
/// Alloc and Free change the list inside OS_CRITICAL_CALLBACKS.
class OSKERNEL_API OSCallbackRecord : public OSIndirectList {
 public:
  /// Without callbacks.
  OSCallbackRecord() = default;
  /// Calls CancelCallbacks().
  ~OSCallbackRecord() override;

  /// Returns every callback still listed to the pool without running it; a buffer or stream that holds one will
  /// no longer run it.
  ///   threads   the owner, when no other thread can be running or freeing callbacks of this record
  void CancelCallbacks();
};

/// Guards the callback pool and the records' lists. A pool section: inside it only OS_CRITICAL_LINK may be
/// entered, and nothing is called.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_CALLBACKS;

#endif
