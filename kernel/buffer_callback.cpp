// The pool of callbacks, the rings that hold them and the records that list them.
#include "buffer_callback.h"

#include <atomic>
#include <new>

#include "console.h"
#include "kernel.h"
#include "posixkernel_priv.h"

OSKERNEL_SECTION(OS_CRITICAL_CALLBACKS);

// Threads that still run while the process ends may free a callback.
constinit OSLinkHead OSCallback::callback_pool{OSStaticList()};
ULONG OSCallback::callback_pool_size = 0;

namespace {

UBYTE* callback_mem = nullptr;        // the block that holds all pooled callbacks
UBYTE* callback_mem_end = nullptr;    // the end of it
UBYTE* callback_mem_alloc = nullptr;  // the next free byte in it
char callback_use_mem = 0;            // true only while Initialise carves callbacks from the block

bool in_block(const void* storage) {
  const auto where = reinterpret_cast<std::uintptr_t>(storage);
  return where >= reinterpret_cast<std::uintptr_t>(callback_mem) &&
         where < reinterpret_cast<std::uintptr_t>(callback_mem_end);
}

// A ring holds callbacks as themselves; null at its end.
OSCallback* first_of(OSLink* ring) { return static_cast<OSCallback*>(ring->FirstObject()); }

}  // namespace

// ---- The pool ----------------------------------------------------------------------------------------------

struct OSCallback::Pool {
  static OSCallback* newest;  // the end of the chain of all callbacks of the block

  static void count(ULONG size) {
    std::atomic_ref<ULONG>(callback_pool_size).store(size, std::memory_order_relaxed);
  }

  static void put_locked(OSCallback* callback) {
    callback_pool.Insert(callback, callback);
    callback->free_ = true;
    count(callback_pool_size + 1);
  }

  static void chain_locked(OSCallback* callback) {
    callback->made_before_ = newest;
    if (newest != nullptr) newest->made_after_ = callback;
    newest = callback;
  }

  static void unchain_locked(OSCallback* callback) {
    if (callback->made_before_ != nullptr) callback->made_before_->made_after_ = callback->made_after_;
    if (callback->made_after_ != nullptr) callback->made_after_->made_before_ = callback->made_before_;
    if (newest == callback) newest = callback->made_before_;
  }

  static OSCallback* take_locked() {
    OSCallback* callback = first_of(&callback_pool);
    if (callback == nullptr) return nullptr;
    callback->OSLink::Remove();
    callback->free_ = false;
    count(callback_pool_size - 1);
    return callback;
  }
};

OSCallback* OSCallback::Pool::newest = nullptr;

void OSCallback::Initialise() {
  // A second start without a stop would lose the first block.
  if (callback_mem != nullptr) UnInitialise();

  init_section(&OS_CRITICAL_CALLBACKS);
  const KernelCfg& config = KERNELCFG != nullptr ? *KERNELCFG : default_cfg;
  const std::size_t quantity = config.callback_qty > 0 ? static_cast<std::size_t>(config.callback_qty) : 0;
  if (quantity == 0) return;
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(quantity, sizeof(OSCallback), &bytes)) return;
  callback_mem = static_cast<UBYTE*>(::operator new(bytes, std::nothrow));
  if (callback_mem == nullptr) return;

  callback_mem_alloc = callback_mem;
  callback_mem_end = callback_mem + bytes;
  callback_use_mem = 1;
  const SectionLock lock(&OS_CRITICAL_CALLBACKS);
  for (std::size_t i = 0; i < quantity; ++i) {
    auto* callback = new OSCallback;
    if (callback == nullptr) break;
    Pool::chain_locked(callback);
    Pool::put_locked(callback);
  }
  callback_use_mem = 0;
}

void OSCallback::UnInitialise() {
  if (callback_mem == nullptr) {
    // No block was made: what is in the pool was given to it by Free.
    while (OSCallback* callback = first_of(&callback_pool)) delete callback;
    return;
  }

  // Records, and rings of streams, may outlive the pool; they must not refer to callbacks that are gone.
  for (OSCallback* callback = Pool::newest; callback != nullptr; callback = callback->made_before_) {
    OSLink* link = nullptr;
    {
      const SectionLock lock(&OS_CRITICAL_CALLBACKS);
      link = callback->leave_record_locked();
      if (!callback->free_) callback->OSLink::Remove();
    }
    if (link != nullptr) link->Free();
  }

  UBYTE* block = callback_mem;
  {
    const SectionLock lock(&OS_CRITICAL_CALLBACKS);
    while (Pool::take_locked() != nullptr) {
    }
    Pool::newest = nullptr;
    callback_mem = callback_mem_end = callback_mem_alloc = nullptr;
  }
  ::operator delete(block);
}

void* OSCallback::operator new(std::size_t size) noexcept {
  if (callback_use_mem == 0) return ::operator new(size, std::nothrow);
  if (size > static_cast<std::size_t>(callback_mem_end - callback_mem_alloc)) return nullptr;
  UBYTE* storage = callback_mem_alloc;
  callback_mem_alloc += size;
  return storage;
}

void OSCallback::operator delete(void* storage) {
  if (!in_block(storage)) ::operator delete(storage);
}

// ---- One callback ------------------------------------------------------------------------------------------

OSCallback::OSCallback()
    : callback_function(nullptr),
      callback_record(nullptr),
      object(nullptr),
      addr(nullptr),
      value(0),
      record_link_(nullptr),
      made_before_(nullptr),
      made_after_(nullptr),
      uses_(0),
      free_(false) {}

OSCallback::~OSCallback() {
  if (!free_ && callback_record == nullptr && !in_block(this)) return;
  OSLink* link = nullptr;
  {
    const SectionLock lock(&OS_CRITICAL_CALLBACKS);
    link = leave_record_locked();
    Pool::unchain_locked(this);
    if (free_) {
      OSLink::Remove();
      Pool::count(callback_pool_size - 1);
    }
  }
  if (link != nullptr) link->Free();
}

OSCallback* OSCallback::Alloc(OSCallbackRecord* record, OSCallbackFunction function, OSObj* first,
                              ADDR second, ULONG third) {
  OSCallback* callback = nullptr;
  {
    const SectionLock lock(&OS_CRITICAL_CALLBACKS);
    callback = Pool::take_locked();
  }
  if (callback == nullptr) {
    if (Console != nullptr) Console->Warning("OSCallback::Alloc Out Of Callbacks");
    return nullptr;
  }
  callback->callback_function = function;
  callback->object = first;
  callback->addr = second;
  callback->value = third;
  if (record == nullptr) return callback;

  // The section is left for the link: a link pool that runs dry reports it on the console. The link is fetched
  // after the callback, so that of two empty pools the callbacks' is the one that is reported.
  OSLink* link = OSLink::Alloc();
  if (link == nullptr) {
    callback->Free();
    return nullptr;
  }
  const SectionLock lock(&OS_CRITICAL_CALLBACKS);
  callback->callback_record = record;
  callback->record_link_ = link;
  record->OSLinkList::Append(link, callback);
  return callback;
}

void OSCallback::Free() {
  OSLink* link = nullptr;
  {
    const SectionLock lock(&OS_CRITICAL_CALLBACKS);
    if (free_) return;
    link = leave_record_locked();
    // A ring that kept a free callback would run it later and then take it out of the pool.
    OSLink::Remove();
    ++uses_;
    Pool::put_locked(this);
  }
  if (link != nullptr) link->Free();
}

void OSCallback::Execute() {
  if (callback_function != nullptr) callback_function(object, addr, value);
}

// Takes the callback out of its record. Returns the record's link, which is freed outside the section.
OSLink* OSCallback::leave_record_locked() {
  OSCallbackRecord* record = callback_record;
  OSLink* link = record_link_;
  callback_record = nullptr;
  record_link_ = nullptr;
  if (record == nullptr) return nullptr;
  if (link != nullptr && link->object == static_cast<OSListObj*>(this)) {
    record->OSLinkList::Remove(link);
    return link;
  }
  // The program has flushed the record or has listed the callback itself.
  record->OSIndirectList::Remove(this);
  return nullptr;
}

// ---- Rings -------------------------------------------------------------------------------------------------

void OSCallback::run_ring(OSLink* ring) {
  while (OSCallback* callback = first_of(ring)) {
    const ULONG uses = callback->uses_;
    callback->Execute();
    // The function may have freed this callback, directly or by cancelling its record, or given it to another
    // ring; then it is no longer ours to touch. While it is still in this ring it is, though perhaps no longer
    // first, and an unchanged count of uses says that it has not come back for another purpose.
    if (ring->PosInList(callback) < 0 || callback->uses_ != uses) continue;
    callback->OSLink::Remove();
    callback->Free();
  }
}

void OSCallback::drop_ring(OSLink* ring) {
  while (OSCallback* callback = first_of(ring)) {
    callback->OSLink::Remove();
    callback->Free();
  }
}

// ---- Records -----------------------------------------------------------------------------------------------

OSCallbackRecord::~OSCallbackRecord() { CancelCallbacks(); }

void OSCallbackRecord::CancelCallbacks() {
  for (;;) {
    OSCallback* callback = nullptr;
    OSLink* link = nullptr;
    {
      const SectionLock lock(&OS_CRITICAL_CALLBACKS);
      OSListObj* first = FirstObject();
      if (first == nullptr) return;
      callback = static_cast<OSCallback*>(first);
      if (callback->callback_record == this) {
        link = callback->leave_record_locked();
      } else {
        OSIndirectList::Remove(first);  // listed here by the program itself
      }
      if (!callback->free_) callback->OSLink::Remove();
    }
    if (link != nullptr) link->Free();
    callback->Free();
  }
}
