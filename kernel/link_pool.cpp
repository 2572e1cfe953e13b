/// The pool of links: blocks from the heap, carved into links that wait in a ring for their next use.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

#include "kernel/console.h"
#include "kernel/kernel.h"
#include "kernel/link_list.h"
#include "kernel/link_priv.h"
#include "kernel/posixkernel_priv.h"

// Place in the lock order: last. Nothing is called while it is held but list operations; reports leave it
// first.
OSKERNEL_SECTION(OS_CRITICAL_LINK);

OSLink* OSLink::link_pool = nullptr;
ULONG OSLink::link_pool_size = 0;

namespace {

/// What a block begins with; the links follow it.
struct Block {
  Block* previous;
};

/// The addresses of one block.
struct Range {
  std::uintptr_t begin;
  std::uintptr_t end;
  bool holds(std::uintptr_t address) const { return address >= begin && address < end; }
};

constexpr std::size_t round_up(std::size_t size, std::size_t alignment) {
  return (size + alignment - 1) / alignment * alignment;
}

constexpr std::size_t kLinksOffset = round_up(sizeof(Block), alignof(OSLink2));
constexpr std::size_t kStride = round_up(sizeof(OSLink2), alignof(OSLink2));
constexpr std::size_t kFirstRanges = 16;

// Everything below is under OS_CRITICAL_LINK.
Block* link_mem = nullptr;            // the newest block
std::size_t link_mem_block_size = 0;  // its size
std::byte* link_mem_alloc = nullptr;  // its next free byte
std::size_t link_mem_size = 0;        // bytes left in it
std::size_t links_made = 0;           // in all blocks together

// The blocks again, sorted by address. Alloc and Free ask of every link whether it lies in a block, and along
// the chain of blocks a pool that has grown a hundred times would be a hundred times slower.
Range* ranges = nullptr;
std::size_t range_count = 0;
std::size_t range_capacity = 0;
Range last_hit{0, 0};  // most links lie in the same block as the one before

void set_pool_size_locked(ULONG size) {
  std::atomic_ref(OSLink::link_pool_size).store(size, std::memory_order_relaxed);
}

bool lies_in_block_locked(const OSLink* link) {
  const auto address = reinterpret_cast<std::uintptr_t>(link);
  if (last_hit.holds(address)) return true;
  const Range* const after =
      std::upper_bound(ranges, ranges + range_count, address,
                       [](std::uintptr_t wanted, const Range& range) { return wanted < range.begin; });
  if (after == ranges || !after[-1].holds(address)) return false;
  last_hit = after[-1];
  return true;
}

/// Makes room for one more range. False without memory, and nothing has changed.
bool reserve_range_locked() {
  if (range_count < range_capacity) return true;
  const std::size_t capacity = range_capacity == 0 ? kFirstRanges : range_capacity * 2;
  auto* const larger = static_cast<Range*>(::operator new(capacity * sizeof(Range), std::nothrow));
  if (larger == nullptr) return false;
  std::copy(ranges, ranges + range_count, larger);
  ::operator delete(ranges);
  ranges = larger;
  range_capacity = capacity;
  return true;
}

/// Enters a block into the table, which has room for it.
void add_range_locked(const Range& block) {
  Range* const place = std::upper_bound(ranges, ranges + range_count, block,
                                        [](const Range& a, const Range& b) { return a.begin < b.begin; });
  std::copy_backward(place, ranges + range_count, ranges + range_count + 1);
  *place = block;
  ++range_count;
}

void* carve_locked(std::size_t size) {
  const std::size_t stride = round_up(size, alignof(OSLink2));
  if (stride > link_mem_size) return nullptr;
  void* const storage = link_mem_alloc;
  link_mem_alloc += stride;
  link_mem_size -= stride;
  return storage;
}

void put_into_pool_locked(OSLink* link) {
  link->isFree = true;
  OSLink::link_pool->Insert(link, link);
  set_pool_size_locked(OSLink::link_pool_size + 1);
}

/// Adds one block of links. False without memory, and nothing has changed.
bool grow_locked() {
  const KernelCfg* const cfg = KERNELCFG != nullptr ? KERNELCFG : &default_cfg;
  if (cfg->link_qty <= 0) return true;
  const auto quantity = static_cast<std::size_t>(cfg->link_qty);
  if (quantity > (std::numeric_limits<std::size_t>::max() - kLinksOffset) / kStride) return false;
  if (!reserve_range_locked()) return false;
  const std::size_t block_size = kLinksOffset + quantity * kStride;
  void* const storage = ::operator new(block_size, std::nothrow);
  if (storage == nullptr) return false;

  link_mem = new (storage) Block{link_mem};
  link_mem_block_size = block_size;
  link_mem_alloc = static_cast<std::byte*>(storage) + kLinksOffset;
  link_mem_size = quantity * kStride;
  const auto begin = reinterpret_cast<std::uintptr_t>(storage);
  add_range_locked({begin, begin + link_mem_block_size});
  for (std::size_t i = 0; i < quantity; ++i) {
    OSLink* const link = new OSLink2;
    if (link == nullptr) break;
    ++links_made;
    put_into_pool_locked(link);
  }
  return true;
}

/// Gives all blocks back. The pool's ring, which is there, is emptied without a look at its links: they go
/// with their blocks.
void release_blocks_locked() {
  OSLink::link_pool->next = OSLink::link_pool->previous = OSLink::link_pool;
  set_pool_size_locked(0);
  while (link_mem != nullptr) {
    Block* const block = link_mem;
    link_mem = block->previous;
    ::operator delete(block);
  }
  ::operator delete(ranges);
  ranges = nullptr;
  range_count = range_capacity = 0;
  last_hit = {0, 0};
  link_mem_block_size = link_mem_size = links_made = 0;
}

bool pool_section_exists() { return OS_CRITICAL_LINK.sem != nullptr; }

/// Whether the calling thread holds OS_CRITICAL_LINK. Only a thread's own identity matters, so relaxed is
/// enough.
bool pool_section_held() {
  const std::atomic_ref<pthread_t> owner(OS_CRITICAL_LINK.owner_thread_id);
  return owner.load(std::memory_order_relaxed) == pthread_self();
}

void report_out_of_links() {
  if (Console != nullptr) Console->Fatal("OSLink::Alloc Out Of links");
}

/// What is every link's own, for functions of the pool that are not.
struct Ring : OSLink {
  using OSLink::unlink_;
};

}  // namespace

// The pool.

void OSLink::Initialise() {
  init_section(&OS_CRITICAL_LINK);
  SectionLock lock(&OS_CRITICAL_LINK);
  if (link_pool == nullptr) {
    link_pool = new (std::nothrow) OSLink;
  } else if (links_made == link_pool_size) {
    release_blocks_locked();
  } else {
    return;  // lists that outlived the last stop refer to some of the links
  }
  const bool made = link_pool != nullptr && grow_locked();
  lock.leave();
  if (!made) report_out_of_links();
}

void OSLink::UnInitialise() {
  if (!pool_section_exists()) return;
  const SectionLock lock(&OS_CRITICAL_LINK);
  if (link_mem != nullptr) {
    release_blocks_locked();
  } else if (link_pool != nullptr) {
    while (OSLink* const first = link_pool->First()) delete first;
    set_pool_size_locked(0);
  }
  delete link_pool;
  link_pool = nullptr;
}

void OSLink::GrowLinks() {
  SectionLock lock(&OS_CRITICAL_LINK);
  if (link_pool != nullptr && grow_locked()) return;
  lock.leave();
  // The report may never return, so the section must not stay taken for the others.
  const bool held_by_caller = pool_section_held();
  if (held_by_caller) LeaveCriticalSection(&OS_CRITICAL_LINK);
  report_out_of_links();
  if (held_by_caller) EnterCriticalSection(&OS_CRITICAL_LINK);
}

OSLink* OSLink::Alloc() {
  SectionLock lock(&OS_CRITICAL_LINK);
  OSLink* link = link_pool != nullptr ? link_pool->First() : nullptr;
  if (link == nullptr) {
    if (link_pool != nullptr) {
      link_pool->next = link_pool->previous = link_pool;  // as it is, unless its pointers have been wiped
      if (grow_locked()) link = link_pool->First();
    }
    if (link == nullptr) {
      lock.leave();
      report_out_of_links();
      return nullptr;
    }
  } else if (!link->isFree) {
    lock.leave();
    if (Console != nullptr) Console->Fatal("OSLink::Alloc link already allocated");
    return nullptr;
  } else if (!lies_in_block_locked(link)) {
    lock.leave();
    if (Console != nullptr) Console->Fatal("OSLink::Alloc corrupt link");
    return nullptr;
  }
  unlink_(link);
  set_pool_size_locked(link_pool_size - 1);
  link->object = nullptr;
  link->isFree = false;
  return link;
}

void OSLink::Free() {
  SectionLock lock(&OS_CRITICAL_LINK);
  if (isFree) {
    lock.leave();
    if (Console != nullptr) Console->Fatal("OSLink::Free already free");
    return;
  }
  if (!lies_in_block_locked(this)) {
    lock.leave();
    if (Console != nullptr) Console->Fatal("OSLink::Free corrupt link");
    return;
  }
  unlink_(this);
  put_into_pool_locked(this);
}

std::size_t take_links(OSLink** links, std::size_t wanted) {
  std::size_t taken = 0;
  {
    const SectionLock lock(&OS_CRITICAL_LINK);
    while (taken < wanted) {
      OSLink* const link = OSLink::link_pool != nullptr ? OSLink::link_pool->First() : nullptr;
      if (link == nullptr || !link->isFree || !lies_in_block_locked(link)) break;
      Ring::unlink_(link);
      link->object = nullptr;
      link->isFree = false;
      links[taken++] = link;
    }
    set_pool_size_locked(OSLink::link_pool_size - static_cast<ULONG>(taken));
  }
  // What is wrong with an empty pool, or with its first link, Alloc knows.
  if (taken == 0 && wanted != 0) {
    links[0] = OSLink::Alloc();
    if (links[0] != nullptr) taken = 1;
  }
  return taken;
}

void give_links(OSLink* const* links, std::size_t count) {
  if (count == 0) return;
  std::size_t given = 0;
  {
    const SectionLock lock(&OS_CRITICAL_LINK);
    while (given < count && !links[given]->isFree && lies_in_block_locked(links[given])) {
      put_into_pool_locked(links[given++]);
    }
  }
  // What is wrong with a link, Free knows.
  for (; given < count; ++given) links[given]->Free();
}

bool OSLink::Validate() {
  if (!pool_section_exists()) return false;
  const SectionLock lock(&OS_CRITICAL_LINK);
  return lies_in_block_locked(this);
}

// Pool links.

OSLink2::~OSLink2() = default;

void* OSLink2::operator new(std::size_t size) noexcept {
  if (pool_section_exists()) {
    const SectionLock lock(&OS_CRITICAL_LINK);
    if (void* const storage = carve_locked(size)) return storage;
  }
  return ::operator new(size, std::nothrow);
}

void OSLink2::operator delete(void* /*storage*/) {}
