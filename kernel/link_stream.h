/// @file
/// A queue of message buffers read and written as a byte stream.
#ifndef OSKERNEL_LINK_STREAM_H
#define OSKERNEL_LINK_STREAM_H

#include "link_indirect.h"
#include "types.h"

/// Producers add buffers, bytes or text; consumers read, peek at and discard bytes without caring where one
/// buffer ends. The stream is a queue, so queue triggers fire as it fills and drains.
///
/// A compressible stream merges small buffers into fuller ones and splits large ones. A buffer that is merged
/// disappears, so its data callbacks wait in a ring of 32 slots, of which 31 can be pending, and run when the
/// bytes they belong to are consumed. Callbacks may use the stream: add to it, consume from it, flush it.
/// They must not destroy it.
///   threads   whoever owns the stream. The operations that change it check the queue's triggers and free
///             buffers: inside no section that comes after OS_CRITICAL_TRIGGER
class OSKERNEL_API OSStream : public OSQueue {
 public:
  /// An empty stream with fragments of up to 10000 bytes and at most 1000000 buffers. The byte limit is 0, so
  /// IsFull says TRUE until SetMaxLength is called.
  OSStream(int compress, char delete_contents);
  /// Flushes the stream, then runs and frees the callbacks that a flush leaves waiting.
  ~OSStream() override;
  /// Frees every buffer, runs and frees the callbacks of every pending slot, and is empty. The callbacks of
  /// buffers that came while all 31 slots were pending stay: they go with the next buffer that gets a slot.
  void Flush() override;
  /// Sets the limits.
  ///   max_total    bytes from which on IsFull says TRUE; more can still be added
  ///   max_buffers  buffers from which on IsFull says TRUE and above which Add drops the oldest one
  void SetMaxLength(ULONG max_total, ULONG max_buffers);
  /// The largest buffer, in bytes, that a compressible stream builds or keeps whole; 0: buffers are not
  /// split, and merged as far as there is room. A fragment and the configuration's headroom must fit the
  /// largest buffer class (the default does not): making a larger one exhausts the pools, which is fatal.
  void SetMaxFragment(UWORD max);
  /// Whether buffers are merged and split from now on; what the stream holds stays as it is.
  void SetCompressible(BOOL on);
  /// Adds buf's bytes at the end. A compressible stream copies what exceeds the largest fragment into buffers
  /// of that size, then merges what remains into the last buffer as far as it fits. When there are more
  /// buffers than allowed, the oldest one is dropped: one a call (and one a fragment), whatever the limit.
  /// When a fragment cannot be had and the pools' Fatal returns, the rest of buf is added whole. A buffer
  /// that is in a list already is refused as OSQueue::Append refuses it.
  ///   takes     buf. Null is ignored
  void Add(OSBuf* buf);
  /// Adds a copy of len bytes.
  void Add(const UBYTE* bytes, UWORD len);
  /// Adds a copy of the text without its zero byte.
  void Add(const TEXT* text);
  /// Copies up to len bytes, from offset bytes into the stream on, to dest; the stream stays as it is.
  ///   returns   the number of bytes copied
  ULONG Read(ULONG offset, ULONG len, UBYTE* dest);
  /// Consumes up to len bytes from the front.
  ///   returns   the number of bytes consumed
  ULONG Discard(ULONG len);
  /// Takes the first buffer out whole.
  ///   returns   the buffer, the caller's from now on; null when the stream is empty
  OSBuf* Get();
  /// Consumes one byte.
  ///   returns   TRUE and the byte in *c; FALSE, and *c as it was, when the stream is empty
  BOOL Get(UBYTE* c);
  /// Consumes one byte.
  ///   returns   the byte, 0 to 255; -1 when the stream is empty
  int Getc();
  /// The number of bytes in the stream.
  ULONG Length() const { return total_length; }
  /// TRUE when the stream holds max_total_length bytes or max_num_buffers buffers, or more.
  /// Deliberate: a new stream is full, since its byte limit is 0. Producers that ask give nothing to a stream whose
  /// owner has not said how much it may hold. Pinned by stream_test.cpp, IsFullUntilALimitIsSet.
  BOOL IsFull();

  ULONG total_length;         ///< bytes in the stream
  UWORD max_buffer_size;      ///< see SetMaxFragment
  ULONG max_total_length;     ///< see SetMaxLength
  ULONG max_num_buffers;      ///< see SetMaxLength
  int compressible;           ///< whether buffers are merged and split
  OSLink comp_callbacks[32];  ///< per slot: the data callbacks of the bytes added with it
  UWORD comp_lengths[32];     ///< per slot: how many bytes it stands for
  int comp_w;                 ///< the next slot to write
  int comp_r;                 ///< the oldest pending slot; equal to comp_w when none is pending

 protected:
  /// Accounts for len bytes that have been or are about to be taken out: retires slots, then reduces
  /// total_length.
  /// Deliberate: a slot is retired, and its callbacks run, as soon as any of its bytes is consumed, and what
  /// is left of its length is not carried over to the next slot. Producers rely on hearing of the first byte.
  /// Pinned by stream_compress_test.cpp, ConsumingOneByteRetiresTheOldestSlot.
  void DiscardLen(int len);

 private:
  void take_slot_(OSBuf* buf);
  void drop_excess_();
  void consume_(ULONG len);
  void charge_slots_(ULONG left);
  void take_oldest_(OSLink* ring);
  static void run_callbacks_(OSLink* ring);

  // Callbacks may come back into the stream; these two tell each operation what the others have done.
  ULONG charged_ahead_ = 0;  ///< bytes of the first buffer whose slots a Get in progress has retired already
  ULONG flushes_ = 0;        ///< how often the stream has been emptied
};

#endif
