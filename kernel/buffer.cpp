// What a holder does with a message buffer: push, pull, compact, callbacks, storage.
#include "buffer.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "buffer_priv.h"
#include "console.h"
#include "kernel.h"

namespace {

constexpr std::size_t kMaxLength = 0xFFFF;

// What to ask Alloc for so that a copy of `count` bytes leaves the headroom free. Alloc looks at the low 15 bits.
int request_for(std::size_t count) {
  return static_cast<int>((count + static_cast<std::size_t>(buffer_headroom())) & INT_MAX);
}

}  // namespace

int buffer_headroom() {
  const KernelCfg& config = KERNELCFG != nullptr ? *KERNELCFG : default_cfg;
  return std::max(config.buf_min_space, 0);
}

OSBuf::OSBuf()
    : home_q(nullptr),
      payload(nullptr),
      size(0),
      data(nullptr),
      length(0),
      trace(0),
      flags(3),
      id(kId),
      timeStamp(0),
      destPtr(nullptr),
      local_ipaddr(0),
      remote_ipaddr(0),
      remote_port(0),
      local_port(0),
      own_payload_(nullptr),
      own_size_(0),
      guarded_(false),
      pool_storage_(false),
      build_(0),
      made_before_(nullptr),
      made_after_(nullptr),
      place_(Place::kOut),
      allocated_link_(nullptr),
      allocated_(0) {}

// ---- Where the data stands ---------------------------------------------------------------------------------

// Empty, with all room in front.
void OSBuf::make_empty() {
  data = payload == nullptr ? nullptr : payload + size;
  length = 0;
}

// Whether the valid data lies in the storage. Of storage that is not the buffer's own only its start is known.
bool OSBuf::is_sound() const {
  if (data == nullptr || buffer_address(data) < buffer_address(payload)) return false;
  if (!owns_storage()) return true;
  const std::uintptr_t offset = buffer_address(data) - buffer_address(payload);
  return offset <= own_size_ && length <= own_size_ - offset;
}

// How many of the valid bytes can be read. A pull or push that went too far leaves data and length pointing past
// the storage.
std::size_t OSBuf::readable_bytes() const {
  if (data == nullptr) return 0;
  if (!owns_storage()) return length;
  const std::uintptr_t offset = buffer_address(data) - buffer_address(payload);
  if (offset > own_size_) return 0;
  return std::min<std::size_t>(length, own_size_ - offset);
}

// Moves data and length for a push. The result says whether the new bytes may be written: they lie at or above
// the start of the storage and do not run past the guard bytes behind it, where Free finds them. A buffer without
// storage stays at null, so that a later push does not take a position far below null for real.
bool OSBuf::move_down(std::size_t count) {
  length = static_cast<UWORD>(length + count);
  if (data == nullptr) return count == 0;

  const std::uintptr_t position = buffer_address(data);
  const std::uintptr_t start = buffer_address(payload);
  const std::uintptr_t room = position - start;
  if (position < start || count > room || count > kMaxLength) {
    data = reinterpret_cast<UBYTE*>(position - count);  // NOLINT(performance-no-int-to-ptr)
    return false;
  }
  data -= count;
  if (!owns_storage()) return true;
  return room <= std::size_t{own_size_} + (guarded_ ? kGuardBytes : 0);
}

// ---- Pushing -----------------------------------------------------------------------------------------------

// A number, without check.
void OSBuf::push(const void* bytes, std::size_t count) {
  if (move_down(count)) std::memcpy(data, bytes, count);
}

// A copy into a buffer that has just been emptied: refused as a whole when it does not fit, and then the buffer
// stays empty.
void OSBuf::push_copy(const UBYTE* bytes, std::size_t count) {
  if (count > size) {
    if (Console != nullptr) Console->Fatal("OSBuf::PushData Too far");
    return;
  }
  if (bytes != nullptr && count != 0 && move_down(count)) std::memmove(data, bytes, count);
}

OSBuf* OSBuf::Alloc(const UBYTE* bytes, int len) {
  // A negative length has always been taken as a huge one: no buffer holds it.
  const auto count = static_cast<std::size_t>(static_cast<unsigned>(len));
  OSBuf* buf = Alloc(request_for(count));
  if (buf != nullptr) buf->push_copy(bytes, count);
  return buf;
}

OSBuf* OSBuf::Alloc(const char* text) {
  const std::size_t count = text == nullptr ? 0 : std::strlen(text);
  return Alloc(reinterpret_cast<const UBYTE*>(text), static_cast<int>(std::min<std::size_t>(count, INT_MAX)));
}

OSBuf* OSBuf::Duplicate() {
  OSBuf* copy = Alloc(request_for(length));
  if (copy == nullptr) return nullptr;
  copy->push_copy(data, readable_bytes());
  copy->trace = trace;
  return copy;
}

OSBuf* OSBuf::CopyData(const UBYTE* bytes, UWORD len) {
  if (static_cast<long long>(size) <= static_cast<long long>(len) + buffer_headroom()) {
    if (buffer_address(bytes) - buffer_address(payload) >= size) {
      Free();  // first, so that the new buffer may come from the pool that this one returns to
      return Alloc(bytes, len);
    }
    // The bytes are this buffer's own, and its callbacks may release them: copied before it is freed.
    OSBuf* copy = Alloc(bytes, len);
    Free();
    return copy;
  }
  make_empty();
  push_copy(bytes, len);
  return this;
}

void OSBuf::PushData(UBYTE b) { push(&b, sizeof b); }

void OSBuf::PushData(UWORD w) { push(&w, sizeof w); }

void OSBuf::PushData(ULONG l) { push(&l, sizeof l); }

void OSBuf::PushData(int i) { push(&i, sizeof i); }

void OSBuf::push_checked(const void* bytes, std::size_t count) {
  if (bytes == nullptr) return;
  if (!move_down(count)) {
    if (Console != nullptr) Console->Fatal("OSBuf::PushData Too far");
  } else if (count != 0) {
    std::memmove(data, bytes, count);
  }
}

void OSBuf::PushData(const UBYTE* bytes, UWORD len) { push_checked(bytes, len); }

void OSBuf::PushData(const UBYTE* from, const UBYTE* to) {
  PushData(from, static_cast<UWORD>(buffer_address(to) - buffer_address(from)));
}

void OSBuf::PushData(const char* text) {
  if (text != nullptr) push_checked(text, std::strlen(text));
}

void OSBuf::PushDown(UWORD n) {
  if (!move_down(n) && Console != nullptr) Console->Fatal("OSBuf::Pushdown Too far");
}

UBYTE* OSBuf::Put(UWORD n) {
  const UBYTE* old = data;
  const std::size_t count = readable_bytes();
  if (!move_down(n)) {
    if (Console != nullptr) Console->Fatal("OSBuf::Put Too far");
    return nullptr;
  }
  if (count != 0) std::memmove(data, old, count);
  return data + count;
}

// ---- Pulling -----------------------------------------------------------------------------------------------

void OSBuf::pull(void* dest, std::size_t count) {
  if (data != nullptr && count != 0) std::memmove(dest, data, count);
  PullUp(static_cast<UWORD>(count));
}

UBYTE OSBuf::PullByte() {
  UBYTE b = 0;
  pull(&b, sizeof b);
  return b;
}

UWORD OSBuf::PullWord() {
  UWORD w = 0;
  pull(&w, sizeof w);
  return w;
}

ULONG OSBuf::PullLong() {
  ULONG l = 0;
  pull(&l, sizeof l);
  return l;
}

int OSBuf::PullInt() { return static_cast<int>(PullLong()); }

void OSBuf::PullData(UBYTE* dest, UWORD len) { pull(dest, len); }

void OSBuf::PullData(UBYTE* dest, UBYTE* end) {
  PullData(dest, static_cast<UWORD>(buffer_address(end) - buffer_address(dest)));
}

void OSBuf::PullUp(UWORD n) {
  if (data != nullptr) data += n;
  length = static_cast<UWORD>(length - n);
}

// ---- Compacting --------------------------------------------------------------------------------------------

OSBuf* OSBuf::Compact(OSBuf* other, UWORD max) {
  if (!BufferMerge::take(this, other, max)) return other;
  other->Free();
  return nullptr;
}

bool BufferMerge::take(OSBuf* into, OSBuf* from, UWORD max) {
  if (from == nullptr || from == into) return false;

  const long long headroom = buffer_headroom();
  // Negative in a buffer whose data reaches into the headroom, and in one that is longer than max already.
  long long room = static_cast<long long>(into->size) - into->length - headroom;
  if (max != 0 && room + into->length > max) room = static_cast<long long>(max) - into->length;
  const long long wanted = std::min<long long>(room, from->length);
  if (wanted <= 0 || !into->is_sound() || !from->is_sound()) return false;
  const auto count = static_cast<UWORD>(wanted);

  UBYTE* front = into->payload + headroom;
  if (front < into->data) {
    std::memmove(front, into->data, into->length);
    into->data = front;
  }
  std::memcpy(into->data + into->length, from->data, count);
  into->length = static_cast<UWORD>(into->length + count);
  from->PullUp(count);
  if (from->length != 0) return false;

  into->AddDataCallback(from);
  return true;
}

// ---- Callbacks and storage ---------------------------------------------------------------------------------

void OSBuf::AddDataCallback(OSCallback* callback) {
  if (callback == nullptr) return;
  callback->OSLink::Remove();
  data_free_callback.Insert(callback, callback);
}

void OSBuf::AddDataCallback(OSBuf* other) {
  if (other != nullptr) data_free_callback.Compact(&other->data_free_callback);
}

void OSBuf::AddBufferCallback(OSCallback* callback) {
  if (callback == nullptr) return;
  callback->OSLink::Remove();
  buffer_free_callback.Insert(callback, callback);
}

void OSBuf::SetPayload(UBYTE* storage, UWORD storage_size) {
  payload = storage;
  size = storage_size;
  make_empty();
}

// ---- Classes with storage of their own ---------------------------------------------------------------------

void OSBuf::adopt_storage(UBYTE* storage, UWORD bytes) {
  std::memset(storage + bytes, kGuard, kGuardBytes);
  own_payload_ = storage;
  own_size_ = bytes;
  guarded_ = true;
  SetPayload(storage, bytes);
}

bool OSBuf::begin_return() {
  Place place = Place::kOut;
  return place_.compare_exchange_strong(place, Place::kReturning, std::memory_order_relaxed);
}

void OSBuf::release_contents() {
  OSCallback::run_ring(&data_free_callback);
  OSCallback::run_ring(&buffer_free_callback);
  if (payload != own_payload_ || size != own_size_) SetPayload(own_payload_, own_size_);
  trace = 0;
  place_.store(Place::kHome, std::memory_order_relaxed);
}

void OSBuf::hand_out(OSBuf* buf) {
  buf->make_empty();
  buf->place_.store(Place::kOut, std::memory_order_relaxed);
}
