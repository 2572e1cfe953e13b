// The receive buffers of direct sockets.
#include "network/ringbuffer.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "kernel/kernel.h"
#include "network/asocketX_priv.h"
#include "network/ringbuffer_priv.h"

OSIndirectList* ringBufferCleanupList = nullptr;
OSTimerTrigger* ringBufferCleanupTrigger = nullptr;

namespace {

constexpr ULONG kCleanupMs = 100;
constexpr ULONG kLongLentMs = 30000;
constexpr int kReportPasses = 50;
constexpr UWORD kUsableBytes = 1760;
constexpr UWORD kAtHome = 0x5555;

// Both sides of timeStamp while a report looks at a buffer that its holder may be freeing: a figure, nothing more.
ULONG stamp_of(OSBuf* buf) { return std::atomic_ref<ULONG>(buf->timeStamp).load(std::memory_order_relaxed); }

void set_stamp(OSBuf* buf, ULONG tick) {
  std::atomic_ref<ULONG>(buf->timeStamp).store(tick, std::memory_order_relaxed);
}

// No address of an object: the low bits are even where pointers have 32 bits, too, but the value lies in no heap.
RingBuffer* poison() { return reinterpret_cast<RingBuffer*>(std::uintptr_t{0xFEFEFEFE}); }  // NOLINT

// Excludes others from the parked rings also while the networking layer is stopped and there is no AsyncSocket::cs.
class ParkedLock {
 public:
  ParkedLock() : lock_(mutex_) {}

 private:
  // Behind AsyncSocket::cs, before OS_CRITICAL_TRIGGER and the pools' sections; nothing waits inside it.
  static std::mutex mutex_;
  ClassLock class_lock_;
  std::lock_guard<std::mutex> lock_;
};
std::mutex ParkedLock::mutex_;

void start_ring_cleanup_locked() {
  if (ringBufferCleanupList == nullptr) ringBufferCleanupList = new OSIndirectList;
  if (ringBufferCleanupTrigger != nullptr) return;
  ringBufferCleanupTrigger = new OSTimerTrigger(0, 1);
  ringBufferCleanupTrigger->SetTask(nullptr);
  ringBufferCleanupTrigger->SetCallback(RingBuffer::Cleanup, nullptr, nullptr, 0);
}

}  // namespace

void start_ring_cleanup() {
  const ParkedLock lock;
  start_ring_cleanup_locked();
}

void stop_ring_cleanup() {
  const ParkedLock lock;
  if (ringBufferCleanupList == nullptr || !ringBufferCleanupList->IsEmpty()) return;
  delete ringBufferCleanupTrigger;
  delete ringBufferCleanupList;
  ringBufferCleanupTrigger = nullptr;
  ringBufferCleanupList = nullptr;
}

// ---- The ring ----------------------------------------------------------------------------------------------

RingBuffer::RingBuffer(int buffers)
    : bufs(nullptr),
      ring(nullptr),
      size(buffers > 1 ? buffers : 1),
      rp(0),
      wp(0),
      traceCount(0),
      awaited_(false) {
  sem_init(&came_home_, 0, 0);
  bufs = new (std::nothrow) SocketBuffer*[static_cast<std::size_t>(size)]();
  ring = new (std::nothrow) OSBuf*[static_cast<std::size_t>(size) + 1]();
  int made = 0;
  while (bufs != nullptr && ring != nullptr && made < size) {
    auto* buf = new SocketBuffer(this);
    if (buf == nullptr) break;
    if (buf->storage_ == nullptr) {
      delete buf;
      break;
    }
    buf->made_alone_ = false;
    bufs[made++] = buf;
  }
  // A ring that memory cuts short works with what it has. A ring of one slot is empty and full at once.
  size = made > 1 ? made : 1;
  for (int i = 0; i < made; ++i) Put(bufs[i]);
}

RingBuffer::~RingBuffer() {
  for (int i = 0; bufs != nullptr && i < size; ++i) {
    if (bufs[i] == nullptr) continue;
    bufs[i]->parent = poison();
    delete bufs[i];
  }
  delete[] ring;
  delete[] bufs;
  sem_destroy(&came_home_);
}

int RingBuffer::Put(OSBuf* buf) {
  if (buf == nullptr) return -1;
  set_stamp(buf, 0);
  const std::lock_guard<std::mutex> lock(put_mutex_);
  std::atomic_ref<int> read(rp);
  std::atomic_ref<int> write(wp);
  const int at = write.load(std::memory_order_relaxed);
  const int behind = (at + 1) % size;
  // Acquire: the slot is written again only after Get has read it.
  if (read.load(std::memory_order_acquire) == behind) return -1;
  ring[at] = buf;
  // With the waiter's store to awaited_ and its look at wp: one of the two threads sees what the other has done.
  write.store(behind, std::memory_order_seq_cst);
  if (awaited_.load(std::memory_order_seq_cst) && awaited_.exchange(false)) sem_post(&came_home_);
  return 0;
}

OSBuf* RingBuffer::Get() {
  std::atomic_ref<int> read(rp);
  const int at = read.load(std::memory_order_relaxed);
  if (at == std::atomic_ref<int>(wp).load(std::memory_order_acquire)) return nullptr;
  OSBuf* buf = ring[at];
  read.store((at + 1) % size, std::memory_order_release);
  SocketBuffer::hand_out(buf);
  set_stamp(buf, os_clock());
  return buf;
}

int RingBuffer::Size() {
  const int write = std::atomic_ref<int>(wp).load(std::memory_order_relaxed);
  const int read = std::atomic_ref<int>(rp).load(std::memory_order_relaxed);
  return static_cast<int>((static_cast<ULONG>(write) - static_cast<ULONG>(read)) % static_cast<ULONG>(size));
}

void RingBuffer::WaitForBuffer(ULONG timeout_ms) {
  const timespec deadline = monotonic_deadline(timeout_ms);
  const int at = std::atomic_ref<int>(rp).load(std::memory_order_relaxed);
  const auto is_empty = [this, at] { return std::atomic_ref<int>(wp).load(std::memory_order_seq_cst) == at; };
  awaited_.store(true, std::memory_order_seq_cst);
  while (is_empty()) {
    // It may return for the post of an earlier wait, which ended without it. No Put has come then: awaited_
    // stands, and the wait goes on.
    if (sem_clockwait(&came_home_, CLOCK_MONOTONIC, &deadline) != 0 && errno != EINTR) break;
  }
  awaited_.store(false, std::memory_order_relaxed);
}

// ---- Giving it up ------------------------------------------------------------------------------------------

bool RingBuffer::all_home() {
  const std::lock_guard<std::mutex> lock(put_mutex_);
  return std::atomic_ref<int>(rp).load(std::memory_order_acquire) ==
         (std::atomic_ref<int>(wp).load(std::memory_order_relaxed) + 1) % size;
}

void RingBuffer::Free() {
  if (all_home()) {
    diagnostics().Print("RingBuffer::Free - %p deleting...", static_cast<void*>(this));
    delete this;
    return;
  }
  diagnostics().Print("RingBuffer::Free - %p waiting for buffers to come home...", static_cast<void*>(this));
  const ParkedLock lock;
  start_ring_cleanup_locked();
  ringBufferCleanupList->Append(this);
  ringBufferCleanupTrigger->SetTimer(kCleanupMs);
}

// One pass over a parked ring. The result says whether it can go.
bool RingBuffer::look_after(ULONG now) {
  if (all_home()) {
    diagnostics().Print("RingBuffer::Cleanup - %p ...all buffers are home", static_cast<void*>(this));
    return true;
  }
  if (traceCount == 0) {
    const int write = std::atomic_ref<int>(wp).load(std::memory_order_relaxed);
    diagnostics().Print("RingBuffer::Cleanup - %p rp=%d wp=%d nwp=%d", static_cast<void*>(this),
                        std::atomic_ref<int>(rp).load(std::memory_order_relaxed), write, (write + 1) % size);
    for (int i = 0; i < size; ++i) {
      if (bufs[i]->is_out() && now - stamp_of(bufs[i]) > kLongLentMs) bufs[i]->Print();
    }
    traceCount = kReportPasses;
  }
  --traceCount;
  return false;
}

void RingBuffer::Cleanup(OSObj* /*unused_obj*/, ADDR /*unused_addr*/, ULONG /*unused_value*/) {
  const ParkedLock lock;
  if (ringBufferCleanupList == nullptr) return;
  const ULONG now = os_clock();
  OSLink* link = ringBufferCleanupList->First();
  while (link != nullptr && link->object != nullptr) {
    OSLink* following = link->next;
    auto* parked = static_cast<RingBuffer*>(static_cast<OSListObj*>(link->object));
    if (parked->look_after(now)) {
      ringBufferCleanupList->Remove(parked);
      delete parked;
    }
    link = following;
  }
  if (!ringBufferCleanupList->IsEmpty()) ringBufferCleanupTrigger->SetTimer(kCleanupMs);
}

// ---- A buffer of a ring ------------------------------------------------------------------------------------

SocketBuffer::SocketBuffer(RingBuffer* ring_of_it)
    : parent(ring_of_it), storage_(nullptr), made_alone_(true) {
  storage_ = new (std::nothrow) UBYTE[std::size_t{kUsableBytes} + kGuardBytes];
  if (storage_ != nullptr) adopt_storage(storage_, kUsableBytes);
  // At home from the start: the one that finds the ring full is nobody's to free.
  begin_return();
  release_contents();
  length = kAtHome;
}

SocketBuffer::~SocketBuffer() { delete[] storage_; }

void SocketBuffer::Free() {
  if (made_alone_ && length != kAtHome) hand_out(this);
  if (!begin_return()) {
    diagnostics().Print("SocketBuffer::Free = buffer freed twice!");
    return;
  }
  release_contents();
  length = kAtHome;
  if (parent == poison()) {
    diagnostics().Fatal("SocketBuffer::Free");
    return;
  }
  parent->Put(this);
}

void* SocketBuffer::operator new(std::size_t bytes) noexcept { return std::malloc(bytes); }

void SocketBuffer::operator delete(void* storage) { std::free(storage); }

SocketLink::~SocketLink() = default;
