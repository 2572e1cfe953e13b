/// Packets over TCP, RFC 1006 section 6.
#include "network/tpkt.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "kernel/kernel.h"
#include "network/asocketX_priv.h"

namespace {

constexpr UBYTE kVersion = 3;
constexpr int kHeader_bytes = 4;
/// The length field has 16 bits and counts the header.
constexpr int kMostPayload_bytes = 65535 - kHeader_bytes;
/// The pools have run out: look again after so long.
constexpr ULONG kDrought_ms = 10;

/// Moves up to `wanted` bytes from the front of one buffer behind the data of another, which has room for them.
void move_bytes(OSBuf* to, OSBuf* from, int wanted) {
  const auto count = static_cast<UWORD>(std::min<int>(wanted, from->length));
  std::memcpy(to->data + to->length, from->data, count);
  to->length = static_cast<UWORD>(to->length + count);
  from->PullUp(count);
}

/// An empty buffer of the pool with `length` bytes reserved behind its data.
OSBuf* alloc_reserved(int size, int length) {
  OSBuf* const buf = OSBuf::Alloc(size);
  if (buf == nullptr) return nullptr;
  buf->PushDown(static_cast<UWORD>(length));
  buf->length = 0;
  return buf;
}

/// Puts the header in front (RFC 1006 section 6).
///   takes     buf when it returns false
bool push_header(OSBuf* buf) {
  const bool fits = buf->length <= kMostPayload_bytes && buf->data - buf->payload >= kHeader_bytes;
  buf->PushDown(kHeader_bytes);  // reports that there is no room
  if (!fits) {
    buf->Free();
    return false;
  }
  buf->data[0] = kVersion;
  buf->data[1] = 0;
  buf->data[2] = static_cast<UBYTE>(buf->length >> 8U);
  buf->data[3] = static_cast<UBYTE>(buf->length);
  return true;
}

}  // namespace

TPKTSocket::TPKTSocket()
    : AsyncSocket(true), tpktBuf(nullptr), lastBuf(nullptr), assembled_of_(0), in_header_(false) {}

TPKTSocket::~TPKTSocket() {
  if (tpktBuf != nullptr) tpktBuf->Free();
  if (lastBuf != nullptr) lastBuf->Free();
}

AsyncSocket* TPKTSocket::GetNewSocket(int skt) {
  auto* const fresh = new (std::nothrow) TPKTSocket;
  if (fresh != nullptr) fresh->Create(type, skt);
  return fresh;
}

// ---- Sending -----------------------------------------------------------------------------------------------

OSIORetCode TPKTSocket::DataIndication(OSBuf* buf) {
  if (seen(trace) >= 2)
    diagnostics().Print("%d TPKTSocket::DataIndication - Sending %d bytes", seen(s), buf->length);
  return push_header(buf) ? AsyncSocket::DataIndication(buf) : Blocked;
}

OSIORetCode TPKTSocket::DataExpeditedIndication(OSBuf* buf) {
  if (seen(trace) >= 2) {
    diagnostics().Print("%d TPKTSocket::DataExpeditedIndication - Sending %d bytes", seen(s), buf->length);
  }
  // Deliberate: goes on to this class's DataIndication, which frames once more, see the header. Pinned by
  // tpkt_test.cpp, ExpeditedDataLeavesWithTwoHeaders.
  return push_header(buf) ? AsyncSocket::DataExpeditedIndication(buf) : Blocked;
}

OSIORetCode TPKTSocket::DatagramIndication(OSBuf* /*buf*/, void* /*source*/, void* /*dest*/) {
  return NotSupported;
}

// ---- Receiving ---------------------------------------------------------------------------------------------

void TPKTSocket::Poll() {
  // An urgent byte is not among the bytes that are held, and the socket is ready until it is drained.
  if (input_held_ && !urgent_) {
    process_held();
  } else {
    AsyncSocket::Poll();
  }
}

void TPKTSocket::ProcessData(OSBuf* buf) {
  if (buf->length == 0) {
    AsyncSocket::ProcessData(buf);
    return;
  }
  // Nothing is read while bytes are held: these are of a connection that has been closed.
  if (lastBuf != nullptr) lastBuf->Free();
  if (tpktBuf != nullptr && assembled_of_ != seen(connection_)) {
    tpktBuf->Free();
    tpktBuf = nullptr;
  }
  assembled_of_ = seen(connection_);
  lastBuf = buf;
  process_held();
}

/// Cuts packets until the bytes are used up, or the receive queue is full, or a pool is empty: then the rest is held,
/// and the monitor thread polls the socket again when it may go on.
void TPKTSocket::process_held() {
  while (!stop_reading() && ProcessTPKT()) {
  }
  input_held_ = lastBuf != nullptr;
}

/// There is no buffer: what has been received is held for a while.
bool TPKTSocket::hold() {
  SocketMonitor::retry_later_locked(this, kDrought_ms);
  return false;
}

bool TPKTSocket::ProcessTPKT() {
  if (lastBuf == nullptr) return false;
  if (tpktBuf == nullptr) {
    if (lastBuf->length == 0) {
      drop_last();
      return false;
    }
    if (lastBuf->data[0] != kVersion) {
      diagnostics().Print("%d TPKT HEADER FAILURE !3!!!! 0x%02x", seen(s), lastBuf->data[0]);
      fail();
      return false;
    }
    tpktBuf = alloc_reserved(kHeader_bytes, kHeader_bytes);
    if (tpktBuf == nullptr) return hold();
    in_header_ = true;
  }
  if (in_header_) {
    move_bytes(tpktBuf, lastBuf, kHeader_bytes - tpktBuf->length);
    if (tpktBuf->length < kHeader_bytes) {
      drop_last();
      return false;
    }
    const UBYTE* const header = tpktBuf->data;
    const int length = header[2] << 8 | header[3];
    if (length < kHeader_bytes) {
      const int fd = seen(s);
      diagnostics().Print("%d TPKT HEADER FAILURE - LENGTH TOO SHORT!!!! %u", fd,
                          static_cast<unsigned>(length));
      diagnostics().Print("%d TPKT Header %02x %02x %02x %02x", fd, header[0], header[1], header[2],
                          header[3]);
      tpktBuf->Free();
      tpktBuf = nullptr;
      fail();
      return false;
    }
    OSBuf* const packet = length >= kLargeRead_bytes ? alloc_array_buffer(length, BufferCallback)
                                                     : alloc_reserved(length + kHeadroom_bytes, length);
    if (packet == nullptr) return hold();
    move_bytes(packet, tpktBuf, kHeader_bytes);
    tpktBuf->Free();
    tpktBuf = packet;
    in_header_ = false;
    if (lastBuf->length == 0) drop_last();
  }
  if (lastBuf == nullptr) return false;
  const int length = tpktBuf->data[2] << 8 | tpktBuf->data[3];
  move_bytes(tpktBuf, lastBuf, length - tpktBuf->length);
  if (lastBuf->length == 0) drop_last();
  if (tpktBuf->length < length) return false;
  OSBuf* const packet = tpktBuf;
  tpktBuf = nullptr;
  packet->PullUp(kHeader_bytes);
  TPKTReceive(packet);
  return true;
}

void TPKTSocket::drop_last() {
  lastBuf->Free();
  lastBuf = nullptr;
}

/// Ends a connection whose framing is broken.
void TPKTSocket::fail() {
  drop_last();
  Close();
  indicate_failure(0);
}

void TPKTSocket::TPKTReceive(OSBuf* buf) {
  if (seen(trace) >= 2)
    diagnostics().Print("%d TPKTSocket::TPKTReceive - Received %d bytes", seen(s), buf->length);
  AsyncSocket::ProcessData(buf);
}

void TPKTSocket::BufferCallback(OSObj* array, ADDR /*unused*/, ULONG /*unused*/) {
  delete[] reinterpret_cast<UBYTE*>(array);
}
