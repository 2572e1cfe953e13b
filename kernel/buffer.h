/// @file
/// The message buffer, and the pooled callbacks that go with it.
///
/// Every layer receives, builds, queues and hands on data in OSBufs. A buffer is filled from its end towards its
/// start, so that each layer can put its header in front of what the layer above has built (push), and a receiver
/// strips headers from the front (pull):
///
///     payload           data                    data + length     payload + size
///     | room in front   | valid data            | room behind     | 64 guard bytes, 0xA5
///
/// All buffers are made at start-up, in four size classes; nothing is allocated per message. A buffer belongs to
/// whoever holds its pointer: the holder passes it on or calls Free. Different buffers may be used by different
/// threads at once; one buffer has one user at a time.
#ifndef OSKERNEL_BUFFER_H
#define OSKERNEL_BUFFER_H

#include <atomic>

#include "buffer_callback.h"
#include "link_indirect.h"
#include "link_list.h"
#include "types.h"

class OSBuf;

/// Prints every allocated buffer as Print does, then "OSBuffer: L=%04d CB=%04d B=%02d,%02d,%02d,%02d" with the
/// free links, the free callbacks and the free buffers of each class. Bytes that a holder is changing meanwhile
/// may be shown half changed.
///   threads   any; the caller must not be in a pool section
OSKERNEL_API void dump_allocated();

/// A message buffer.
///
///                Alloc          Free                              destroyed by UnInitialise
///   never used   -> allocated   "freed twice", stays as it was    yes
///   allocated    cannot happen  callbacks run, -> freed           only with the block
///   freed        -> allocated   "freed twice", stays as it was    yes
///
/// Fatal reports end the program with the ordinary console. With a console whose Fatal returns, what each
/// operation leaves behind is said below; none corrupts memory.
class OSKERNEL_API OSBuf : public OSLinkListObj {
 public:
  /// A buffer outside the pools, empty and without storage or home: Free runs its callbacks and leaves it to
  /// its maker. For classes that bring their own storage and override Free.
  OSBuf();
  /// Gives callbacks that are still armed back to their pool without running them, and the storage only when it
  /// came from the kernel memory pool with this buffer. A buffer of the pools that is deleted (by a list that
  /// owns its contents, say) is missing until the next start.
  ~OSBuf() override;

  // ---- The pools ----

  /// Gives the buffer back to its pool, where it is the next of its class to be handed out.
  /// In this order: checks the buffer (below, in their order); runs and releases the callbacks of
  /// data_free_callback and then of buffer_free_callback, first to last, outside every section; restores the
  /// storage of its class if SetPayload has replaced it; clears trace. Storage set by SetPayload is not looked at.
  ///   Fatal     "OSBuf::Free - Corrupt": the address is not one of a buffer or the id is wrong; nothing is done,
  ///             the buffer stays out of circulation
  ///             "OSBuf::Free - Corrupted buffer - pushed down too far": goes on
  ///             "OSBuf::Free - Corrupted Overhang (size %d, data %d, length %d, overrun %d)": renews the guard
  ///             bytes and goes on
  ///             "OSBuffer::Free freed twice %p %d": nothing more is done. Exactly one of two threads that free
  ///             the same buffer gets this; a length of 43690 in an allocated buffer does not provoke it. The two
  ///             checks before it are made of a buffer that is in its pool, not of one that another thread is
  ///             still freeing or has been given since.
  ///             "OSLinkList::Insert Obj of link that is already in a list": the buffer is still in a queue and
  ///             stays there, empty and allocated
  ///   threads   any, the holder; the caller must not be in a pool section
  void Free() override;

  /// Builds the pools from KERNELCFG: buf_qty[i] buffers of buf_size[i] bytes, in one block. A quantity below 0
  /// counts as 0, a size below 0 as 0 and above 65535 as 65535. When the heap has no such block, each buffer is
  /// made on the heap with storage from OS_MEMORY and without guard bytes; a class ends where memory does.
  /// min_count starts at the quantities, whatever memory was there for.
  ///   threads   start-up, after OSLink::Initialise and OSCallback::Initialise
  static void Initialise();

  /// Releases the pools and allocated_list. With a block, buffers that are still out leave the queues they are in
  /// and are gone with it; without one they live until they are freed. Their callbacks return to the pool without
  /// being run.
  ///   threads   shut-down, before OSCallback::UnInitialise
  static void UnInitialise();

  /// Takes an empty buffer, with all its room in front.
  /// Deliberate: only the low 15 bits of size count, and a request of exactly buf_size[i] bytes goes to class
  /// i + 1. Programs size their classes for this. Pinned by buffer_pool_test.cpp,
  /// TheSmallestClassThatIsStrictlyLargerServesARequest.
  ///   size      bytes it must hold. 0 asks for class 0. Otherwise the first of the classes 1 to 3 serves that is
  ///             larger than size and has a free buffer.
  ///   returns   the buffer, which the caller owns. Null only after Fatal "OSBuffer::Alloc Out Of Buffers %d",
  ///             which is preceded by the same line and every allocated buffer through Print. A free buffer that
  ///             is damaged is reported with Fatal "OSBuf::Alloc - Corrupt"; it stays out of circulation, on
  ///             allocated_list when a link is at hand, and the next one is tried.
  ///   threads   any; the caller must not be in a pool section. Allocates no heap, unless the link pool grows;
  ///             when that cannot, the buffer works but stands on no allocated_list.
  static OSBuf* Alloc(int size);

  /// Takes a buffer with Alloc(len + buf_min_space) and pushes a copy of the bytes, so that they end at the end of
  /// the storage. When they do not fit (len above 15 bits finds a small buffer), Fatal "OSBuf::PushData Too far"
  /// is reported and the buffer returned stays empty.
  static OSBuf* Alloc(const UBYTE* bytes, int len);

  /// The same for a text, without its terminating zero. null is an empty text.
  static OSBuf* Alloc(const char* text);

  /// The number of free buffers of class 0 to 3; 0 for any other.
  ///   threads   any
  static int PoolSize(int buf_class);

  /// A new buffer from Alloc(length + buf_min_space) with a copy of the data and the same trace. Callbacks and
  /// addresses are not copied. What does not fit is reported as Alloc(bytes, len) does.
  ///   returns   the copy, which the caller owns
  OSBuf* Duplicate();

  // ---- Pushing: in front of the data ----

  /// Replaces the contents by a copy of bytes (which may lie in this buffer): in this buffer when its size is more
  /// than len + buf_min_space, otherwise in a new one from Alloc(bytes, len), and this one is freed before.
  ///   returns   the buffer to use from now on; null when a new one was needed and none was there
  OSBuf* CopyData(const UBYTE* bytes, UWORD len);

  /// Puts a number, here 1 byte, in front, in the processor's byte order.
  /// Deliberate: not in network order, so that what one layer pushes for another on the same machine is pulled as it
  /// was; a layer that writes to the wire converts first. Pinned by buffer_test.cpp,
  /// NumbersArePushedAndPulledInTheProcessorsOwnOrder.
  /// Deliberate: these four report nothing when there is no room. data and length move all the same, nothing is
  /// written, and Free reports the buffer as pushed down too far; layers that push a header into a buffer of
  /// unknown origin count on finding out there. Pinned by buffer_test.cpp,
  /// SmallPushesAreUncheckedButNeverWriteBelowTheStorage.
  void PushData(UBYTE b);
  void PushData(UWORD w);  ///< the same, 2 bytes
  void PushData(ULONG l);  ///< the same, 4 bytes
  void PushData(int i);    ///< the same, 4 bytes

  /// Puts bytes in front, which may lie in this buffer. Without room data and length move, nothing is written,
  /// and Fatal "OSBuf::PushData Too far" is reported. null pushes nothing.
  void PushData(const UBYTE* bytes, UWORD len);
  /// The same for the bytes from `from` up to, not including, `to`; the count is taken modulo 65536.
  void PushData(const UBYTE* from, const UBYTE* to);
  /// The same for a text without its terminating zero.
  void PushData(const char* text);

  /// Makes room for n bytes in front of the data without writing them. Without it data and length move all the
  /// same and Fatal "OSBuf::Pushdown Too far" is reported.
  void PushDown(UWORD n);

  /// Makes room for n bytes behind the data by moving the data down.
  ///   returns   the n new bytes, for the caller to fill; null after Fatal "OSBuf::Put Too far", with data and
  ///             length moved and nothing written
  UBYTE* Put(UWORD n);

  // ---- Pulling: from the front of the data ----

  /// Takes a number, here 1 byte, from the front, in the processor's byte order. No pull checks length: callers do.
  UBYTE PullByte();
  UWORD PullWord();  ///< the same, 2 bytes
  ULONG PullLong();  ///< the same, 4 bytes
  int PullInt();     ///< the same, 4 bytes
  /// Takes len bytes from the front.
  void PullData(UBYTE* dest, UWORD len);
  /// Takes as many bytes as lie from dest up to, not including, end, modulo 65536.
  void PullData(UBYTE* dest, UBYTE* end);
  /// Drops n bytes from the front.
  void PullUp(UWORD n);

  /// Moves as many bytes of other as fit behind this buffer's data, leaving buf_min_space bytes in front of it.
  ///   max       the most bytes this buffer may hold afterwards; 0 for no limit
  ///   takes     other when it is emptied: its data callbacks move to the end of this buffer's, then it is freed
  ///   returns   null when other has been emptied, else other, which the caller still owns. Untouched when nothing
  ///             fits, and when the data of one of the two reaches outside its storage.
  OSBuf* Compact(OSBuf* other, UWORD max);

  // ---- Callbacks and storage ----

  /// Puts a callback in front of those that run when this buffer's data is released. null is ignored. One that is
  /// in a ring already leaves it.
  ///   takes     callback
  void AddDataCallback(OSCallback* callback);
  /// Moves the data callbacks of another buffer to the end of this buffer's, for data that now lives on here. null
  /// is ignored.
  void AddDataCallback(OSBuf* other);
  /// Puts a callback in front of those that run when this buffer is freed. null is ignored. One that is in a ring
  /// already leaves it.
  ///   takes     callback
  void AddBufferCallback(OSCallback* callback);

  /// Points the buffer at storage that it does not own: payload is storage, size is storage_size, the buffer is
  /// empty and data stands at storage + storage_size. Free restores the storage of the buffer's class.
  ///   lends     storage until the buffer is freed; a buffer callback may release it
  void SetPayload(UBYTE* storage, UWORD storage_size);

  /// Prints a line and a hex dump of the first 64 bytes of data on the console. Bytes outside the buffer's own
  /// storage are not shown. The line names the class whose identity is in destPtr when the dynamic linker knows
  /// it, and then the addresses if there are any.
  ///   threads   the holder
  void Print();

  /// While Initialise builds the pools: the next bytes of the block. Otherwise the heap; null when it has none.
  static void* operator new(std::size_t size) noexcept;
  /// Gives storage back to the heap unless it lies in the block.
  static void operator delete(void* storage);

  OSLinkList* home_q;           ///< the pool that Free returns the buffer to; null for none
  UBYTE* payload;               ///< start of the storage; null in a class of size 0
  UWORD size;                   ///< bytes of storage
  OSLink data_free_callback;    ///< ring of callbacks that run when the data is released
  OSLink buffer_free_callback;  ///< ring of callbacks that run when the buffer is freed
  UBYTE* data;                  ///< first valid byte
  UWORD length;                 ///< number of valid bytes; 21845 in a never used and 43690 in a freed buffer
  UBYTE trace;                  ///< for the layers' diagnostics; copied by Duplicate, cleared by Free
  UBYTE flags;                  ///< 3 from construction and from Alloc
  ULONG id;                     ///< 0x44556677 while the object is sound
  ULONG timeStamp;              ///< os_clock() at the last Alloc, in milliseconds
  ADDR destPtr;                 ///< identity of the class that the buffer is for, an address with a symbol
  ULONG local_ipaddr;           ///< network byte order
  ULONG remote_ipaddr;          ///< network byte order
  UWORD remote_port;            ///< network byte order
  UWORD local_port;             ///< network byte order

  /// The free buffers of each class. Inside OS_CRITICAL_BUFFERS.
  static OSLinkList buffer_pool[4];
  /// The lowest number of free buffers that each class has had; buf_qty until an Alloc finds fewer. Changed inside
  /// OS_CRITICAL_BUFFERS; stored atomically, so that a program may load it (relaxed) at any time as a figure.
  static int min_count[4];
  /// Every buffer that is allocated, oldest first; null while the pools are not there. Inside OS_CRITICAL_BUFFERS.
  static OSIndirectList* allocated_list;

 protected:
  // For classes that bring their own storage and override Free.

  /// Gives a buffer from the default constructor its storage, which is its maker's: `bytes` usable bytes with the
  /// guard bytes behind them, which are filled here. It is empty then, with all its room in front.
  void adopt_storage(UBYTE* storage, UWORD bytes);
  static constexpr UWORD kGuardBytes = 64;  ///< how many guard bytes stand behind a buffer's storage

  /// Whether this Free is the one that counts: the first since the buffer was constructed or handed out. Whoever
  /// gets false touches nothing of the buffer.
  ///   threads   any, several at once
  bool begin_return();
  /// What Free does for the holder's sake: runs and releases the callbacks, restores the storage if SetPayload has
  /// replaced it and clears trace. After that the buffer counts as free.
  void release_contents();
  /// Makes a buffer that was free empty, with all its room in front, and the caller's to free.
  static void hand_out(OSBuf* buf);
  /// Whether the buffer is somebody's, neither free nor being freed. Any thread, as a hint.
  bool is_out() const { return place_.load(std::memory_order_relaxed) == Place::kOut; }

 private:
  friend void dump_allocated();
  friend struct BufferMerge;
  struct __attribute__((visibility("hidden"))) Pool;
  struct __attribute__((visibility("hidden"))) Snapshot;

  static constexpr ULONG kId = 0x44556677;
  static constexpr UWORD kNeverUsed = 0x5555;
  static constexpr UWORD kFreed = 0xAAAA;
  static constexpr UBYTE kGuard = 0xA5;

  enum class Place : UBYTE { kOut, kReturning, kHome };

  bool owns_storage() const { return own_payload_ != nullptr && payload == own_payload_; }
  bool is_sound() const;
  std::size_t readable_bytes() const;
  bool move_down(std::size_t count);
  void push(const void* bytes, std::size_t count);
  void push_copy(const UBYTE* bytes, std::size_t count);
  void push_checked(const void* bytes, std::size_t count);
  void pull(void* dest, std::size_t count);
  void make_empty();

  // Constant once the buffer is in its pool.
  UBYTE* own_payload_;  ///< the storage of the class, null without
  UWORD own_size_;      ///< bytes of it
  bool guarded_;        ///< guard bytes stand behind it
  bool pool_storage_;   ///< it came from the kernel memory pool and goes back there with the buffer
  ULONG build_;         ///< tells the pools that it was made for from later ones; 0 for none

  // All buffers that Initialise has made and that have not been destroyed. Inside OS_CRITICAL_BUFFERS.
  OSBuf* made_before_;
  OSBuf* made_after_;

  /// Where the buffer is. The one Free that succeeds moves it from kOut to kReturning, and inside
  /// OS_CRITICAL_BUFFERS to kHome; Alloc moves it back, inside the section too. Two threads that free at once are
  /// told apart by the exchange, which needs no order beyond its own: the buffer's contents pass from Free to
  /// Alloc, and to a Free that comes too late, through the section.
  std::atomic<Place> place_;

  OSLink* allocated_link_;  ///< this buffer's link in allocated_list. Inside OS_CRITICAL_BUFFERS.
  alignas(8) std::uint64_t
      allocated_;  ///< number of this allocation; ascends along allocated_list. As above.
};

/// Guards the pools, min_count and allocated_list. A pool section: inside it only OS_CRITICAL_LINK may be
/// entered, and nothing is called.
extern OSKERNEL_API CRITICAL_SECTION OS_CRITICAL_BUFFERS;

#endif
