// Where message buffers come from and go back to.
#include <cstring>
#include <new>

#include "buffer.h"
#include "buffer_priv.h"
#include "console.h"
#include "kernel.h"
#include "posixkernel_priv.h"

OSKERNEL_SECTION(OS_CRITICAL_BUFFERS);

// Threads that still run while the process ends may come for a buffer.
OSLinkList OSBuf::buffer_pool[4] = {OSLinkList(OSStaticList()), OSLinkList(OSStaticList()),
                                    OSLinkList(OSStaticList()), OSLinkList(OSStaticList())};
int OSBuf::min_count[4] = {0, 0, 0, 0};
OSIndirectList* OSBuf::allocated_list = nullptr;

namespace {

constexpr int kClasses = 4;

// Objects and storage alternate in the block. Each starts where the strictest object may stand.
constexpr std::size_t kAlignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
static_assert(alignof(OSBuf) <= kAlignment, "buffers are carved at this alignment");

constexpr std::size_t round_up(std::size_t bytes) { return (bytes + kAlignment - 1) & ~(kAlignment - 1); }

UBYTE* buffer_mem = nullptr;        // the one block that holds all pooled buffers
UBYTE* buffer_mem_end = nullptr;    // the end of it
UBYTE* buffer_mem_alloc = nullptr;  // the next free byte in it
char buffer_use_mem = 0;            // true once the block exists: then buffers are carved from it

bool in_block(const void* storage) {
  return buffer_address(storage) >= buffer_address(buffer_mem) &&
         buffer_address(storage) < buffer_address(buffer_mem_end);
}

// The next bytes of the block, null when it has no more.
UBYTE* carve(std::size_t bytes) {
  const std::size_t stride = round_up(bytes);
  if (stride > static_cast<std::size_t>(buffer_mem_end - buffer_mem_alloc)) return nullptr;
  UBYTE* storage = buffer_mem_alloc;
  buffer_mem_alloc += stride;
  return storage;
}

// Takes every buffer of the block out of the list that this one is in. A queue may outlive the pools; it must then
// be empty and know it, not refer to memory that is gone. A list that is destroyed lets go of its links, so the
// links that are left lead to a head that is alive, or, when that was a bare link, only to each other.
void empty_list_of(OSLink* buf) {
  OSLink* head = buf;
  do {
    head = head->next;
  } while (head != buf && head->object != nullptr);
  auto* list = dynamic_cast<OSLinkList*>(head);
  OSLink* following = nullptr;
  for (OSLink* link = head->next; link != head; link = following) {
    following = link->next;
    if (!in_block(link)) continue;
    if (list != nullptr) {
      list->Remove(link);
    } else {
      link->Remove();
    }
  }
}

}  // namespace

// ---- The state of the pools --------------------------------------------------------------------------------

struct OSBuf::Pool {
  static UWORD class_size[kClasses];  // bytes of storage, constant between Initialise and UnInitialise
  static OSBuf* newest;               // the end of the chain of all buffers made
  static ULONG build;  // counts the stops, to tell buffers that have outlived one; 0 stands for none
  static std::uint64_t allocations;  // inside OS_CRITICAL_BUFFERS

  static const KernelCfg& config() { return KERNELCFG != nullptr ? *KERNELCFG : default_cfg; }

  static std::size_t quantity(int i) {
    return config().buf_qty[i] > 0 ? static_cast<std::size_t>(config().buf_qty[i]) : 0;
  }

  static void next_build() {
    if (++build == 0) ++build;
  }

  static bool make_block();
  static OSBuf* make_buffer(int i);
  static void chain_locked(OSBuf* buf);
  static void unchain_locked(OSBuf* buf);
  static bool links_at_hand() {
    return std::atomic_ref<ULONG>(OSLink::link_pool_size).load(std::memory_order_relaxed) != 0;
  }
  static int find_locked(int size);
  static bool lies_well(const void* buf);
  static void forget_locked(OSLinkList* pool);
  static OSBuf* take_damaged_locked(OSLinkList* pool);
  static void list_locked(OSBuf* buf, OSLink* link);
  static void hand_out_locked(int i, OSBuf* buf, OSLink* link, ULONG now);
  static OSLink* take_back_locked(OSBuf* buf);

  struct Overhang {
    bool found = false;
    int size = 0;
    int offset = 0;
    int length = 0;
  };
  static bool is_below(const OSBuf* buf);
  static bool overhangs(const OSBuf* buf);
  static Overhang take_overhang(OSBuf* buf);
  static void report_below();
  static void report(const Overhang& overhang);
  static void report_second_free(OSBuf* buf);
};

UWORD OSBuf::Pool::class_size[kClasses];
OSBuf* OSBuf::Pool::newest = nullptr;
ULONG OSBuf::Pool::build = 1;
std::uint64_t OSBuf::Pool::allocations = 0;

// ---- Building and releasing --------------------------------------------------------------------------------

bool OSBuf::Pool::make_block() {
  std::size_t total = 0;
  for (int i = 0; i < kClasses; ++i) {
    std::size_t one = round_up(sizeof(OSBuf));
    if (class_size[i] != 0) one += round_up(std::size_t{class_size[i]} + kGuardBytes);
    std::size_t all = 0;
    if (__builtin_mul_overflow(one, quantity(i), &all) || __builtin_add_overflow(total, all, &total)) {
      return false;
    }
  }
  buffer_mem = static_cast<UBYTE*>(::operator new(total, std::nothrow));
  if (buffer_mem == nullptr) return false;
  buffer_mem_alloc = buffer_mem;
  buffer_mem_end = buffer_mem + total;
  return true;
}

// A buffer of class i with its storage, or null when memory has run out.
OSBuf* OSBuf::Pool::make_buffer(int i) {
  auto* buf = new OSBuf;
  if (buf == nullptr) return nullptr;
  const UWORD bytes = class_size[i];
  if (bytes != 0 && buffer_use_mem != 0) {
    buf->own_payload_ = carve(std::size_t{bytes} + kGuardBytes);
    std::memset(buf->own_payload_ + bytes, kGuard, kGuardBytes);
    buf->guarded_ = true;
  } else if (bytes != 0) {
    buf->own_payload_ = OS_MEMORY == nullptr ? nullptr : static_cast<UBYTE*>(OS_MEMORY->Allocate(bytes));
    if (buf->own_payload_ == nullptr) {
      delete buf;
      return nullptr;
    }
    buf->pool_storage_ = true;
  }
  buf->own_size_ = bytes;
  buf->home_q = &buffer_pool[i];
  buf->payload = buf->own_payload_;
  buf->size = bytes;
  buf->make_empty();
  buf->length = kNeverUsed;
  buf->place_.store(Place::kHome, std::memory_order_relaxed);
  buf->build_ = build;
  return buf;
}

void OSBuf::Pool::chain_locked(OSBuf* buf) {
  buf->made_before_ = newest;
  if (newest != nullptr) newest->made_after_ = buf;
  newest = buf;
}

void OSBuf::Pool::unchain_locked(OSBuf* buf) {
  if (buf->made_before_ != nullptr) buf->made_before_->made_after_ = buf->made_after_;
  if (buf->made_after_ != nullptr) buf->made_after_->made_before_ = buf->made_before_;
  if (newest == buf) newest = buf->made_before_;
  buf->made_before_ = buf->made_after_ = nullptr;
}

void OSBuf::Initialise() {
  // A second start without a stop would lose the first block.
  if (allocated_list != nullptr) UnInitialise();

  init_section(&OS_CRITICAL_BUFFERS);
  for (int i = 0; i < kClasses; ++i) {
    const int bytes = Pool::config().buf_size[i];
    Pool::class_size[i] = bytes <= 0 ? 0 : bytes > 0xFFFF ? 0xFFFF : static_cast<UWORD>(bytes);
    // Not what can be made: a class that memory cuts short shows in the first Alloc from it.
    const auto configured = static_cast<int>(Pool::quantity(i));
    std::atomic_ref<int>(min_count[i]).store(configured, std::memory_order_relaxed);
  }
  allocated_list = new (std::nothrow) OSIndirectList;
  if (allocated_list == nullptr) return;
  buffer_use_mem = Pool::make_block() ? 1 : 0;

  for (int i = 0; i < kClasses; ++i) {
    for (std::size_t n = Pool::quantity(i); n > 0; --n) {
      OSBuf* buf = Pool::make_buffer(i);
      if (buf == nullptr) break;
      const SectionLock lock(&OS_CRITICAL_BUFFERS);
      Pool::chain_locked(buf);
      buffer_pool[i].Insert(buf);
    }
  }
}

void OSBuf::UnInitialise() {
  if (allocated_list == nullptr) return;

  OSIndirectList* list = nullptr;
  OSBuf* newest = nullptr;
  {
    const SectionLock lock(&OS_CRITICAL_BUFFERS);
    list = allocated_list;
    allocated_list = nullptr;
    newest = Pool::newest;
    Pool::newest = nullptr;
    Pool::next_build();
    for (OSLinkList& pool : buffer_pool) {
      while (OSLink* first = pool.First()) {
        if (first->object == nullptr) break;  // damaged
        pool.Remove(first);
      }
    }
  }

  // Buffers that are still out leave their callbacks to the pool, which is released after this one, and those that
  // go with the block leave the queues they are in.
  OSBuf* before = nullptr;
  for (OSBuf* buf = newest; buf != nullptr; buf = before) {
    before = buf->made_before_;
    buf->allocated_link_ = nullptr;
    OSCallback::drop_ring(&buf->data_free_callback);
    OSCallback::drop_ring(&buf->buffer_free_callback);
    const bool is_home = buf->place_.load(std::memory_order_relaxed) == Place::kHome;
    if (buffer_use_mem != 0) {
      if (!is_home && buf->object != nullptr) empty_list_of(buf);
    } else if (is_home) {
      delete buf;
    } else {
      buf->pool_storage_ = false;  // the memory pool may be another one by the time the buffer is freed
    }
  }
  delete list;
  {
    const SectionLock lock(&OS_CRITICAL_BUFFERS);
    for (OSLinkList& pool : buffer_pool) Pool::forget_locked(&pool);
  }

  UBYTE* block = buffer_mem;
  buffer_mem = buffer_mem_end = buffer_mem_alloc = nullptr;
  buffer_use_mem = 0;
  ::operator delete(block);
}

void* OSBuf::operator new(std::size_t size) noexcept {
  if (buffer_use_mem != 0) {
    // Once the pools are built the block is used up, and what a program makes for itself comes from the heap.
    if (UBYTE* storage = carve(size)) return storage;
  }
  return ::operator new(size, std::nothrow);
}

void OSBuf::operator delete(void* storage) {
  if (!in_block(storage)) ::operator delete(storage);
}

OSBuf::~OSBuf() {
  OSCallback::drop_ring(&data_free_callback);
  OSCallback::drop_ring(&buffer_free_callback);
  if (build_ != 0) {
    OSLink* link = nullptr;
    {
      const SectionLock lock(&OS_CRITICAL_BUFFERS);
      link = Pool::take_back_locked(this);
      if (build_ == Pool::build) Pool::unchain_locked(this);
      // Only a pool has this buffer in a list while it is at home.
      if (place_.load(std::memory_order_relaxed) == Place::kHome && home_q != nullptr) home_q->Remove(this);
    }
    if (link != nullptr) link->Free();
  }
  if (pool_storage_) OSMemPool::Free(own_payload_);
}

// ---- Taking a buffer ---------------------------------------------------------------------------------------

// The class that serves a request, -1 for none.
int OSBuf::Pool::find_locked(int size) {
  if (size == 0) return buffer_pool[0].IsEmpty() ? -1 : 0;
  const int bytes = size & 0x7FFF;
  for (int i = 1; i < kClasses; ++i) {
    if (class_size[i] > bytes && !buffer_pool[i].IsEmpty()) return i;
  }
  return -1;
}

// Whether a buffer can lie there. A compiler may take it that whatever is called a buffer does; a damaged pointer
// does not.
bool OSBuf::Pool::lies_well(const void* buf) {
  std::uintptr_t where = buffer_address(buf);
  asm("" : "+r"(where));
  return where % alignof(OSBuf) == 0;
}

// Empties a pool without a look at what is in it.
void OSBuf::Pool::forget_locked(OSLinkList* pool) {
  pool->next = pool;
  pool->previous = pool;
  __atomic_store_n(&pool->number_in_list, 0, __ATOMIC_RELAXED);
}

// Takes a damaged buffer out of its pool. Its link may be damaged too: then the rest of the pool cannot be reached
// through it any more and is given up with it.
//   returns   the buffer; null when its memory is not to be touched
OSBuf* OSBuf::Pool::take_damaged_locked(OSLinkList* pool) {
  const auto plausible = [pool](const OSLink* link) {
    return link == pool || (link != nullptr && buffer_address(link) % alignof(OSBuf) == 0 &&
                            (buffer_use_mem == 0 || in_block(link)));
  };
  OSLink* first = pool->next;
  if (plausible(first) && first->object != nullptr && first->previous == pool && plausible(first->next) &&
      first->next->previous == first) {
    pool->Remove(first);
    return static_cast<OSBuf*>(first);
  }
  forget_locked(pool);
  return nullptr;
}

// From here on the buffer is allocated. link is null when the link pool has none: then it is not listed.
void OSBuf::Pool::list_locked(OSBuf* buf, OSLink* link) {
  allocated_list->OSLinkList::Append(link, buf);
  buf->allocated_link_ = link;
  buf->allocated_ = ++allocations;
  buf->place_.store(Place::kOut, std::memory_order_relaxed);
}

void OSBuf::Pool::hand_out_locked(int i, OSBuf* buf, OSLink* link, ULONG now) {
  OSLinkList* pool = &buffer_pool[i];
  pool->Remove(buf);
  buf->make_empty();
  buf->flags = 3;
  list_locked(buf, link);
  buf->timeStamp = now;
  buf->destPtr = nullptr;
  buf->remote_port = 0;
  buf->local_port = 0;
  buf->remote_ipaddr = 0;
  buf->local_ipaddr = 0;
  if (pool->number_in_list < min_count[i]) {
    std::atomic_ref<int>(min_count[i]).store(pool->number_in_list, std::memory_order_relaxed);
  }
}

OSBuf* OSBuf::Alloc(int size) {
  // The clock and the link are fetched outside the section: it is held for a few stores only, and a link pool
  // that runs dry reports it on the console. When that pool is empty, a buffer is looked for first: who gets none
  // needs no link, and has the missing buffer reported, not the missing link. Without a link the buffer works, but
  // is not listed.
  const ULONG now = os_clock();
  OSLink* link = nullptr;
  bool link_fetched = false;
  bool buffer_seen = false;
  // A turn that is not the last has seen that a link is needed, or takes a damaged buffer out of its pool.
  for (;;) {
    if (!link_fetched && (buffer_seen || Pool::links_at_hand())) {
      link = OSLink::Alloc();
      link_fetched = true;
    }
    SectionLock lock(&OS_CRITICAL_BUFFERS);
    const int i = Pool::find_locked(size);
    if (i < 0) break;
    OSLink* first = buffer_pool[i].First();
    if (Pool::lies_well(first) && static_cast<OSBuf*>(first)->id == kId && first->object != nullptr) {
      if (link_fetched) {
        auto* buf = static_cast<OSBuf*>(first);
        Pool::hand_out_locked(i, buf, link, now);
        return buf;
      }
      buffer_seen = true;
      continue;
    }
    // The damaged buffer stays out of circulation, on the list of allocated ones, where it can be seen.
    if (OSBuf* damaged = Pool::take_damaged_locked(&buffer_pool[i])) {
      Pool::list_locked(damaged, link);
      link = nullptr;
      link_fetched = false;
    }
    lock.leave();
    if (Console != nullptr) Console->Fatal("OSBuf::Alloc - Corrupt");
  }

  if (link != nullptr) link->Free();
  if (Console != nullptr) Console->Print("OSBuffer::Alloc Out Of Buffers %d", size);
  Snapshot::print_allocated();
  if (Console != nullptr) Console->Fatal("OSBuffer::Alloc Out Of Buffers %d", size);
  return nullptr;
}

int OSBuf::PoolSize(int buf_class) {
  return buf_class < 0 || buf_class >= kClasses ? 0 : buffer_pool[buf_class].Size();
}

// ---- Giving it back ----------------------------------------------------------------------------------------

// Whether the data has been pushed down to below the storage. Storage of no bytes cannot have been left.
bool OSBuf::Pool::is_below(const OSBuf* buf) {
  return buf->size != 0 && buffer_address(buf->data) < buffer_address(buf->payload);
}

// Whether something was written past the end of the storage. A size that the program has enlarged past the guard
// bytes cannot be looked up and counts as such.
bool OSBuf::Pool::overhangs(const OSBuf* buf) {
  if (buf->size == 0 || !buf->guarded_ || !buf->owns_storage()) return false;
  if (buf->size >= buf->own_size_ + kGuardBytes) return true;
  return buf->payload[buf->size] != kGuard;
}

// What there is to report of that. The guard bytes are renewed: the next holder is not to blame.
OSBuf::Pool::Overhang OSBuf::Pool::take_overhang(OSBuf* buf) {
  if (!overhangs(buf)) return {};
  std::memset(buf->own_payload_ + buf->own_size_, kGuard, kGuardBytes);
  const auto offset = static_cast<int>(buffer_address(buf->data) - buffer_address(buf->payload));
  return {true, buf->size, offset, buf->length};
}

void OSBuf::Pool::report_below() {
  if (Console != nullptr) Console->Fatal("OSBuf::Free - Corrupted buffer - pushed down too far");
}

void OSBuf::Pool::report(const Overhang& overhang) {
  if (!overhang.found || Console == nullptr) return;
  Console->Fatal("OSBuf::Free - Corrupted Overhang (size %d, data %d, length %d, overrun %d)", overhang.size,
                 overhang.offset, overhang.length, overhang.offset + overhang.length - overhang.size);
}

// Of a buffer that is not the caller's to free any more. While it lies in its pool it can be looked at inside the
// section. While another thread is still returning it, or has been given it since, nothing but what never changes
// may be read.
void OSBuf::Pool::report_second_free(OSBuf* buf) {
  int bytes = buf->own_size_;
  bool below = false;
  Overhang overhang;
  {
    const SectionLock lock(&OS_CRITICAL_BUFFERS);
    if (buf->place_.load(std::memory_order_relaxed) == Place::kHome) {
      bytes = buf->size;
      below = is_below(buf);
      overhang = take_overhang(buf);
    }
  }
  if (below) report_below();
  report(overhang);
  if (Console != nullptr) Console->Fatal("OSBuffer::Free freed twice %p %d", static_cast<void*>(buf), bytes);
}

// Takes the buffer off allocated_list. Returns its link, which is freed outside the section.
OSLink* OSBuf::Pool::take_back_locked(OSBuf* buf) {
  OSLink* link = buf->allocated_link_;
  buf->allocated_link_ = nullptr;
  if (link == nullptr || allocated_list == nullptr) return nullptr;
  if (link->object != static_cast<OSListObj*>(buf)) {
    allocated_list->Remove(buf);  // the program has changed the list itself
    return nullptr;
  }
  allocated_list->OSLinkList::Remove(link);
  return link;
}

void OSBuf::Free() {
  if (!Pool::lies_well(this) || id != kId) {
    if (Console != nullptr) Console->Fatal("OSBuf::Free - Corrupt");
    return;
  }
  // Decided before the contents are looked at: to the second of two threads they are no longer there to be checked.
  Place place = Place::kOut;
  if (!place_.compare_exchange_strong(place, Place::kReturning, std::memory_order_relaxed)) {
    Pool::report_second_free(this);
    return;
  }
  if (Pool::is_below(this)) Pool::report_below();
  Pool::report(Pool::take_overhang(this));
  OSCallback::run_ring(&data_free_callback);
  OSCallback::run_ring(&buffer_free_callback);

  if (payload != own_payload_ || size != own_size_) {
    payload = own_payload_;
    size = own_size_;
    make_empty();
  }
  if (object != nullptr || OSLink::next != this) {
    // Still in a queue, whose holder will come across it. It stays allocated, so that it can be freed then.
    make_empty();
    place_.store(Place::kOut, std::memory_order_relaxed);
    if (Console != nullptr) Console->Fatal("OSLinkList::Insert Obj of link that is already in a list");
    return;
  }

  OSLink* link = nullptr;
  bool orphan = false;
  {
    const SectionLock lock(&OS_CRITICAL_BUFFERS);
    link = Pool::take_back_locked(this);
    length = kFreed;
    trace = 0;
    orphan = build_ != 0 && build_ != Pool::build;
    if (!orphan) {
      if (home_q != nullptr) home_q->Insert(this);
      place_.store(Place::kHome, std::memory_order_relaxed);
    }
  }
  if (link != nullptr) link->Free();
  if (orphan) delete this;  // its pool was released while it was out
}
