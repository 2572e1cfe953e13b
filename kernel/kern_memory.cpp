// The heap over one block of memory: free areas in address order, blocks cut from the top.
#include "kern_memory.h"

#include <mutex>
#include <new>

#include "console.h"

namespace {

constexpr ULONG kPoolBytes = sizeof(OSMemPool);
constexpr ULONG kAreaBytes = sizeof(OSMemArea);
constexpr ULONG kBlockBytes = sizeof(OSMemBlock);

std::uintptr_t address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

// Everything inside the block is reached by distances, so pointers are made from numbers, here and only here.
template <typename T>
T* at(std::uintptr_t where) {
  return reinterpret_cast<T*>(where);  // NOLINT(performance-no-int-to-ptr)
}

std::uintptr_t end_of(const OSMemArea* area) { return address(area) + area->size; }

OSMemArea* next_of(const OSMemArea* area) {
  return area->next == 0 ? nullptr : at<OSMemArea>(address(area) + area->next);
}

OSMemArea* last_of(const OSMemArea* area) {
  return area->last == 0 ? nullptr : at<OSMemArea>(address(area) - area->last);
}

ULONG distance(const OSMemArea* low, const OSMemArea* high) {
  return static_cast<ULONG>(address(high) - address(low));
}

// Makes `high` the neighbour of `low` in the list; null ends the list at `low`.
void join(OSMemArea* low, OSMemArea* high) {
  low->next = high == nullptr ? 0 : distance(low, high);
  if (high != nullptr) high->last = low->next;
}

// The bytes that a request takes from the pool, 0 when they cannot be counted in 32 bits. Freeing writes an area
// header over the block, so no block is smaller than one.
ULONG bytes_needed(ULONG n) {
  if (n > UINT32_MAX - kBlockBytes - 3) return 0;
  const ULONG need = (n + kBlockBytes + 3) & ~ULONG{3};
  return need < kAreaBytes ? kAreaBytes : need;
}

// The chained pools. A pool has four bytes for its successor, which on a 64-bit system is not enough for a
// pointer, and the successor may lie anywhere. Chains are made by hand and few, so a plain list is enough. The
// list is never torn down: pools with static storage are used and destroyed in any order. The mutex is a leaf,
// held over a few instructions.
struct ChainedPool {
  const OSMemPool::Secondary* key;
  OSMemPool* pool;
  ChainedPool* next;
};

constinit std::mutex chain_mutex;
constinit ChainedPool* chains = nullptr;

ChainedPool** find_chain_locked(const OSMemPool::Secondary* key) {
  ChainedPool** entry = &chains;
  while (*entry != nullptr && (*entry)->key != key) entry = &(*entry)->next;
  return entry;
}

void forget_chain(const OSMemPool::Secondary* key) {
  const std::lock_guard<std::mutex> lock(chain_mutex);
  ChainedPool** entry = find_chain_locked(key);
  if (*entry == nullptr) return;
  ChainedPool* found = *entry;
  *entry = found->next;
  delete found;
}

// Without memory for the entry the pool stays unchained.
void remember_chain(const OSMemPool::Secondary* key, OSMemPool* pool) {
  const std::lock_guard<std::mutex> lock(chain_mutex);
  ChainedPool** entry = find_chain_locked(key);
  if (*entry == nullptr) *entry = new (std::nothrow) ChainedPool{key, nullptr, nullptr};
  if (*entry != nullptr) (*entry)->pool = pool;
}

}  // namespace

// ---- The chain ---------------------------------------------------------------------------------------------

// A block may be reused for a new pool without the old one having been destroyed; an entry that it left must not
// chain the new one.
OSMemPool::Secondary::Secondary() noexcept { forget_chain(this); }

OSMemPool::Secondary::~Secondary() { forget_chain(this); }

OSMemPool::Secondary::operator OSMemPool*() const {
  const std::lock_guard<std::mutex> lock(chain_mutex);
  const ChainedPool* entry = *find_chain_locked(this);
  return entry == nullptr ? nullptr : entry->pool;
}

OSMemPool::Secondary& OSMemPool::Secondary::operator=(OSMemPool* pool) {
  if (pool != nullptr) {
    remember_chain(this, pool);
  } else {
    forget_chain(this);
  }
  return *this;
}

void OSMemPool::Chain(OSMemPool* pool) { secondary_pool = pool; }

// ---- Construction ------------------------------------------------------------------------------------------

void* OSMemPool::operator new(std::size_t, ADDR where) noexcept { return where; }

void OSMemPool::operator delete(void*, ADDR) {}

OSMemPool::OSMemPool() : size(0), NoMemIsFatal(1) {}

OSMemPool::OSMemPool(ULONG pool_size, int fatal) : size(pool_size), NoMemIsFatal(fatal) {
  OSMemArea* area = head();
  if (area == nullptr) return;
  area->next = 0;
  area->last = 0;
  // Blocks are cut from the top of an area, so every area ends at a multiple of 4.
  area->size = (size - kPoolBytes) & ~ULONG{3};
}

OSMemPool::~OSMemPool() = default;

OSMemArea* OSMemPool::head() {
  return size < kPoolBytes + kAreaBytes ? nullptr : at<OSMemArea>(address(this) + kPoolBytes);
}

// ---- Allocation --------------------------------------------------------------------------------------------

ADDR OSMemPool::Allocate(ULONG n) {
  // A chain that runs into itself must not hold the caller for ever. Each time the number of steps doubles, the
  // pool reached then becomes the landmark; a ring leads back to the last landmark.
  OSMemPool* landmark = nullptr;
  ULONG steps = 0;
  ULONG next_landmark = 1;
  for (OSMemPool* pool = this; pool != nullptr && pool != landmark; pool = pool->secondary_pool) {
    if (ADDR memory = pool->_Allocate(n)) return memory;
    if (++steps == next_landmark) {
      landmark = pool;
      next_landmark *= 2;
    }
  }
  if (NoMemIsFatal != 0 && Console != nullptr) Console->Fatal("OSMemPool::Allocate Out of Memory");
  return nullptr;
}

ADDR OSMemPool::_Allocate(ULONG n) {
  const ULONG need = bytes_needed(n);
  OSMemArea* area = head();
  if (need == 0 || area == nullptr) return nullptr;

  while (OSMemArea* higher = next_of(area)) area = higher;
  while (area != nullptr && area->size < need) area = last_of(area);
  if (area == nullptr) return nullptr;

  OSMemBlock* block = nullptr;
  if (area->size - need > kAreaBytes) {
    area->size -= need;
    block = at<OSMemBlock>(end_of(area));
    block->size = need;
  } else {
    if (area->last == 0) return nullptr;
    brkfree(area);
    const ULONG whole = area->size;
    block = at<OSMemBlock>(address(area));
    block->size = whole;
  }
  block->pool = static_cast<ULONG>(address(block) - address(this));
  return block + 1;
}

void OSMemPool::Free(ADDR memory) {
  if (memory == nullptr) return;
  const std::uintptr_t start = address(memory) - kBlockBytes;
  const OSMemBlock block = *at<OSMemBlock>(start);

  OSMemArea* area = at<OSMemArea>(start);
  area->size = block.size;
  at<OSMemPool>(start - block.pool)->_Free(area);
}

void OSMemPool::_Free(OSMemArea* area) {
  for (OSMemArea* h = head(); h != nullptr; h = next_of(h)) {
    OSMemArea* above = next_of(h);
    if (above != nullptr && address(above) == end_of(area)) {
      brkfree(above);
      area->size += above->size;
    }
    if (end_of(h) == address(area)) {
      h->size += area->size;
      return;
    }
    if (address(h) > address(area)) {
      // The head area lies below every block of its pool, so h has a previous area.
      if (OSMemArea* below = last_of(h)) join(below, area);
      join(area, h);
      return;
    }
    if (h->next == 0) {
      join(h, area);
      join(area, nullptr);
      return;
    }
  }
}

void OSMemPool::brkfree(OSMemArea* area) {
  OSMemArea* below = last_of(area);
  OSMemArea* above = next_of(area);
  join(below, above);
}

// ---- Inspection --------------------------------------------------------------------------------------------

ULONG OSMemPool::FreeSpace() {
  ULONG total = 0;
  for (const OSMemArea* area = head(); area != nullptr; area = next_of(area)) total += area->size;
  return total;
}

void OSMemPool::Validate(ADDR lo, ADDR hi) {
  const std::uintptr_t low = address(lo);
  const std::uintptr_t high = address(hi);
  const std::uintptr_t block_end = address(this) + size;

  std::uintptr_t start = address(head());
  while (start != 0) {
    // A corrupt distance may lead anywhere; a header is read only where this pool has memory for one.
    const bool readable = start % alignof(OSMemArea) == 0 && start >= address(this) + kPoolBytes &&
                          start <= block_end - kAreaBytes;
    const ULONG bytes = readable ? at<OSMemArea>(start)->size : 0;
    const bool sound = readable && start >= low && start <= high && bytes <= high - start;
    if (!sound) {
      if (Console != nullptr) {
        Console->Print("OSMemPool::Bad Area %p %p %d\r\n", at<void>(start), at<void>(start + bytes),
                       static_cast<int>(bytes));
      }
      return;
    }
    const ULONG distance_up = at<OSMemArea>(start)->next;
    start = distance_up == 0 ? 0 : start + distance_up;
  }
}
