/// @file
/// The large receive buffers of direct sockets, and the record of an accepted connection.
///
/// A direct socket reads into a private ring of buffers instead of the shared pools, so that a busy socket neither
/// exhausts them nor waits on them. The layers above may hold such buffers for a while: a ring whose socket is gone
/// is parked until the last one has come home.
#ifndef OSKERNEL_RINGBUFFER_H
#define OSKERNEL_RINGBUFFER_H

#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <mutex>

#include "buffer.h"
#include "link_list.h"
#include "sockaddr.h"
#include "types.h"

class SocketBuffer;

/// A fixed set of buffers and the queue of those that are at home.
///
///                 Get        Put of a lent buffer   Free()
///   all home      -> lending  cannot happen         deleted at once
///   lending       lends on   -> all home or stays   -> parked
///   parked        cannot     stays; deleted by the next Cleanup when all are home
///                 happen
///
/// Deliberate: the queue holds one buffer less than there are, so a ring of 32 lends 31 and the last one to find
/// it full stays outside; "all buffers are home" is "the queue is full". Programs count on the 31. Pinned by
/// ringbuffer_test.cpp, LendsOneBufferLessThanItHas.
class OSKERNEL_API RingBuffer : public OSListObj {
 public:
  /// Makes `buffers` buffers and puts them in. When memory runs short it has fewer, as `size` says.
  ///   buffers   from 2; a ring of less lends nothing
  explicit RingBuffer(int buffers);
  /// Destroys all buffers, lent ones too: the caller knows that none is. Their parent becomes the poison value
  /// first.
  ~RingBuffer() override;

  /// Puts a buffer in and sets its timeStamp to 0, which it does when there is no room either.
  ///   takes     buf, only on success
  ///   returns   0; -1 when the ring is full, or for null
  ///   threads   any, several at once and beside Get; enters no section of the kernel, never waits for Get
  int Put(OSBuf* buf);
  /// Takes out the buffer that has been at home longest: empty, with all its room in front, timeStamp os_clock().
  ///   returns   the buffer; null when none is at home. Any thread may Free it.
  ///   threads   one, the socket's receive thread; takes no lock, never allocates
  OSBuf* Get();
  /// How many buffers are at home; any thread, as a hint.
  /// Deliberate: the difference of the indices is taken as an unsigned 32-bit number before its remainder by `size`,
  /// so after a wrap it is right only for sizes that are a power of two, as the sockets' 32. Programs print it.
  /// Pinned by ringbuffer_test.cpp, SizeIsTheUnsignedDifferenceModuloItsSize.
  int Size();

  /// Gives the ring up: deletes it when all buffers are at home, otherwise parks it on a list that a timer looks at
  /// every 100 ms. Says on the console which of the two. The ring is not the caller's any more.
  ///   threads   the socket's destructor; inside no section behind AsyncSocket::cs, which it enters
  void Free();
  /// The timer's callback: deletes the parked rings whose buffers have come home. For the others it prints, every
  /// 50th time, where the ring stands and every buffer that was lent more than 30 s ago.
  static void Cleanup(OSObj* unused_obj, ADDR unused_addr, ULONG unused_value);

  /// Waits until a buffer is at home or the time is over.
  ///   timeout_ms  0 only looks
  ///   threads     the one that calls Get
  void WaitForBuffer(ULONG timeout_ms);

  SocketBuffer** bufs;  ///< `size` buffers, all that belong to the ring; constant after construction
  OSBuf** ring;         ///< `size` + 1 slots
  int size;             ///< constant after construction; the modulus of rp and wp
  /// Next buffer to hand out. Written by Get alone, atomically: its release store gives the slot back to Put.
  int rp;
  /// Next free slot. Written by Put alone, atomically, one Put at a time: its release store publishes the buffer in
  /// the slot to Get.
  int wp;
  int traceCount;  ///< passes until Cleanup reports again; under AsyncSocket::cs

 private:
  bool all_home();
  bool look_after(ULONG now);

  /// Puts come one at a time. A leaf, held over nothing but the indices and the semaphore's post: who has it after
  /// a Put knows that this Put touches the ring no more.
  std::mutex put_mutex_;
  std::atomic<bool> awaited_;  ///< WaitForBuffer wants to hear of the next Put
  sem_t came_home_;            ///< that it has come; only while awaited_
};

/// A buffer of a ring: 1760 bytes and 64 guard bytes of its own; Free puts it back into its ring.
///
/// Its length is 21845 (0x5555) while it is at home.
class OSKERNEL_API SocketBuffer : public OSBuf {
 public:
  explicit SocketBuffer(RingBuffer* ring_of_it);  ///< shares the ring
  ~SocketBuffer() override;                       ///< releases its storage
  /// Runs the callbacks attached to the buffer and puts it back into its ring. A buffer that is at home already is
  /// reported, "SocketBuffer::Free = buffer freed twice!", and nothing else is done. One whose ring is being
  /// destroyed is Fatal "SocketBuffer::Free"; when that returns, the buffer is in no ring.
  ///   threads   any, the holder
  void Free() override;

  static void* operator new(std::size_t bytes) noexcept;  ///< malloc; null when there is no memory
  static void operator delete(void* storage);             ///< free

  RingBuffer* parent;  ///< 0xFEFEFEFE once the ring is being destroyed

 private:
  friend class RingBuffer;

  UBYTE* storage_;
  /// Not made by its ring, which never hands it out: it is in use as soon as its maker has given it a length.
  bool made_alone_;
};

/// One accepted connection on its way from the accepting thread to the listener's callback. It does not own the
/// descriptor.
class OSKERNEL_API SocketLink : public OSLinkListObj {
 public:
  /// Keeps both; `remote` is copied.
  SocketLink(int descriptor, SockAddr& remote) : s(descriptor), rem_sin(remote) {}
  ~SocketLink() override;  ///< leaves the descriptor open

  int s;             ///< the accepted descriptor
  SockAddr rem_sin;  ///< the peer
};

#endif
