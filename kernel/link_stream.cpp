/// Byte streams over message buffers.
#include "kernel/link_stream.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "kernel/buffer.h"

namespace {

constexpr UWORD kMaxFragment_bytes = 10000;
constexpr ULONG kMaxBuffers = 1000000;
constexpr int kSlots = 32;

int after(int slot) { return (slot + 1) % kSlots; }

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }

}  // namespace

OSStream::OSStream(int compress, char delete_contents)
    : OSQueue(delete_contents),
      total_length(0),
      max_buffer_size(kMaxFragment_bytes),
      max_total_length(0),
      max_num_buffers(kMaxBuffers),
      compressible(compress),
      comp_lengths{},
      comp_w(0),
      comp_r(0) {
  static_assert(std::size(decltype(comp_lengths){}) == kSlots);
  OSStream::Flush();
}

OSStream::~OSStream() {
  OSStream::Flush();
  // No buffer will take along what has been gathered while all slots were pending; its owners wait for it.
  OSLink ring;
  ring.Compact(&comp_callbacks[comp_w]);
  run_callbacks_(&ring);
}

void OSStream::SetMaxLength(ULONG max_total, ULONG max_buffers) {
  max_total_length = max_total;
  max_num_buffers = max_buffers;
}

void OSStream::SetMaxFragment(UWORD max) { max_buffer_size = max; }

void OSStream::SetCompressible(BOOL on) { compressible = on; }

BOOL OSStream::IsFull() {
  const bool full = total_length >= max_total_length || static_cast<ULONG>(Size()) >= max_num_buffers;
  return full ? TRUE : FALSE;
}

// Adding.

void OSStream::Add(const UBYTE* bytes, UWORD len) { Add(OSBuf::Alloc(bytes, len)); }

void OSStream::Add(const TEXT* text) { Add(OSBuf::Alloc(text)); }

void OSStream::Add(OSBuf* buf) {
  if (buf == nullptr) return;
  if (buf->object != nullptr) {
    OSQueue::Append(buf);  // reports it, before anything has been counted
    return;
  }
  if (compressible != 0) {
    while (max_buffer_size != 0 && buf->length > max_buffer_size) {
      const UWORD size_bytes = max_buffer_size;
      OSBuf* const fragment = OSBuf::Alloc(buf->data, size_bytes);
      if (fragment == nullptr || fragment->length != size_bytes) {
        // The pools are exhausted or have no buffer that large, and have said so. No byte is lost this way.
        if (fragment != nullptr) fragment->Free();
        break;
      }
      Add(fragment);
      buf->PullUp(size_bytes);
    }
    take_slot_(buf);
  }
  total_length += buf->length;
  if (compressible != 0) {
    if (OSBuf* const last = buffer_of(LastObject())) buf = last->Compact(buf, max_buffer_size);
  }
  if (buf != nullptr) OSQueue::Append(buf);
  drop_excess_();
}

/// Moves buf's data callbacks to the slot that will stand for its bytes.
/// Deliberate: while the ring is full the slot gathers callbacks and lengths without becoming pending; the
/// next buffer that finds room takes it with all callbacks, but its own length replaces the lengths gathered.
/// The callbacks then run when that buffer's bytes are reached, a flush in between or not: late, never early.
/// Pinned by stream_compress_test.cpp, AFullRingCollectsInItsLastSlotAndAnAssignmentReplacesWhatWasCollected.
void OSStream::take_slot_(OSBuf* buf) {
  const int slot = comp_w;
  comp_callbacks[slot].Compact(&buf->data_free_callback);
  if (after(slot) == comp_r) {
    comp_lengths[slot] = static_cast<UWORD>(comp_lengths[slot] + buf->length);
  } else {
    comp_lengths[slot] = buf->length;
    comp_w = after(slot);
  }
}

// Deliberate: one buffer at a time, however far the stream is above its limit. A limit that is lowered takes effect
// little by little, and no Add loses more than it brings. Pinned by stream_test.cpp,
// TheOldestBufferIsDroppedBeyondTheLimit.
void OSStream::drop_excess_() {
  if (static_cast<ULONG>(Size()) <= max_num_buffers) return;
  if (OSBuf* const oldest = Get()) oldest->Free();
}

// Reading.

ULONG OSStream::Read(ULONG offset, ULONG len, UBYTE* dest) {
  ULONG copied = 0;
  for (OSLink* link = next; link != this && copied < len; link = link->next) {
    const OSBuf* const buf = buffer_of(static_cast<OSListObj*>(link->object));
    if (offset >= buf->length) {
      offset -= buf->length;
      continue;
    }
    const ULONG here = std::min<ULONG>(buf->length - offset, len - copied);
    std::memcpy(dest + copied, buf->data + offset, here);
    copied += here;
    offset = 0;
  }
  return copied;
}

// Consuming.

ULONG OSStream::Discard(ULONG len) {
  if (len == 0) return 0;
  const ULONG flushes_before = flushes_;
  ULONG discarded = 0;
  while (discarded < len && flushes_ == flushes_before) {
    OSBuf* const first = buffer_of(FirstObject());
    if (first == nullptr) break;
    const ULONG wanted = len - discarded;
    if (wanted < first->length) {
      first->PullUp(static_cast<UWORD>(wanted));
      discarded = len;
      break;
    }
    discarded += first->length;
    OSQueue::Remove(first);
    first->Free();
  }
  if (flushes_ == flushes_before) consume_(discarded);  // a flush has accounted for everything
  return discarded;
}

OSBuf* OSStream::Get() {
  while (OSBuf* const first = buffer_of(FirstObject())) {
    if (first->length > charged_ahead_) {
      const ULONG more = first->length - charged_ahead_;
      charged_ahead_ = first->length;
      charge_slots_(more);
      continue;  // the callbacks may have done anything to the stream: look again
    }
    charged_ahead_ -= first->length;
    total_length -= first->length;
    OSQueue::Remove(first);
    return first;
  }
  return nullptr;
}

BOOL OSStream::Get(UBYTE* c) {
  UBYTE first = 0;
  if (total_length == 0 || Read(0, 1, &first) == 0) return FALSE;
  *c = first;
  Discard(1);
  return TRUE;
}

int OSStream::Getc() {
  UBYTE first = 0;
  return Get(&first) != FALSE ? first : -1;
}

void OSStream::DiscardLen(int len) {
  if (len > 0) {
    consume_(static_cast<ULONG>(len));
  } else {
    total_length -= static_cast<ULONG>(len);
  }
}

/// Accounts for len bytes that have left the stream. What a Get further up has charged is not charged again.
void OSStream::consume_(ULONG len) {
  const ULONG ahead = std::min(len, charged_ahead_);
  charged_ahead_ -= ahead;
  const ULONG flushes_before = flushes_;
  charge_slots_(len - ahead);
  if (flushes_ == flushes_before) total_length -= len;  // a flush has accounted for everything
}

/// Retires the slots of the next `left` bytes.
void OSStream::charge_slots_(ULONG left) {
  const ULONG flushes_before = flushes_;
  while (left > 0 && comp_r != comp_w) {
    UWORD& slot_length = comp_lengths[comp_r];
    const ULONG here = std::min<ULONG>(left, slot_length);
    left -= here;
    slot_length = static_cast<UWORD>(slot_length - here);
    OSLink ring;
    take_oldest_(&ring);
    run_callbacks_(&ring);
    if (flushes_ != flushes_before) return;  // the slots that are pending now belong to other bytes
  }
}

/// Moves the callbacks of the oldest pending slot to the end of ring. The slot is free before they run: they
/// may add to the stream, and what they add must not be taken for theirs.
void OSStream::take_oldest_(OSLink* ring) {
  ring->Compact(&comp_callbacks[comp_r]);
  comp_r = after(comp_r);
}

/// Runs and frees every callback of the ring, in order.
void OSStream::run_callbacks_(OSLink* ring) {
  while (OSLink* const link = ring->First()) {
    auto* const callback = static_cast<OSCallback*>(link->object);
    if (callback != nullptr) callback->Execute();
    if (ring->First() != link) continue;  // its owner cancelled it meanwhile, and it has been freed
    unlink_(link);
    if (callback != nullptr) callback->Free();
  }
}

void OSStream::Flush() {
  while (OSBuf* const first = buffer_of(FirstObject())) {
    OSQueue::Remove(first);
    first->Free();
  }
  OSQueue::Flush();
  const ULONG flushes_before = ++flushes_;
  charged_ahead_ = 0;
  const ULONG flushed_bytes = total_length;
  OSLink ring;
  while (comp_r != comp_w) take_oldest_(&ring);
  run_callbacks_(&ring);
  if (flushes_ == flushes_before) total_length -= flushed_bytes;  // 0, or what the callbacks have added
}
