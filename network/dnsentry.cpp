// The cache of host names.
#include "network/dnsentry.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>

#include "kernel/kernel.h"
#include "network/asocketX_priv.h"
#include "network/resolve_priv.h"

// Constructed before any code runs and never destroyed: the resolver thread may be at work while the process exits.
constinit NeverDestroyed<CRITICAL_SECTION> cache_section OSKERNEL_NEVER_DESTROYED("_ZN8DNSEntry2csE");
constinit NeverDestroyed<OSIndirectList> all_entries OSKERNEL_NEVER_DESTROYED("_ZN8DNSEntry7entriesE");
constinit NeverDestroyed<OSIndirectList> pending_entries OSKERNEL_NEVER_DESTROYED("_ZN8DNSEntry7pendingE");

int DNSEntry::csinit = 0;
int DNSEntry::trace = 0;
HANDLE DNSEntry::event = 0;
bool DNSEntry::stop = false;
bool DNSEntry::stopped = false;
pthread_t DNSEntry::thread = 0;

namespace {

constexpr ULONG kLifetimeMs = 300000;
constexpr int kTryAgainMs = 10;
constexpr unsigned kForever = 0xFFFFFFFF;

// How many callbacks of the cache are under way, which StopThread waits for.
std::atomic<int> callbacks_under_way{0};

// The number of the next entry. Under DNSEntry::cs.
ULONG next_serial_locked() {
  static ULONG last = 0;
  if (++last == 0) ++last;
  return last;
}

struct Octets {
  explicit Octets(ULONG addr) : a(addr >> 24), b(addr >> 16 & 0xFF), c(addr >> 8 & 0xFF), d(addr & 0xFF) {}
  unsigned a, b, c, d;
};

DNSEntry* entry_of(void* object) { return static_cast<DNSEntry*>(static_cast<OSListObj*>(object)); }

}  // namespace

/// A callback's stay in the cache, which the stopping thread waits for before the section goes. One that comes when
/// the cache is being stopped finds nothing to do.
class DNSEntry::CallbackStay {
 public:
  // With StopThread's store to stop and its look at the count: one of the two threads sees what the other has done.
  CallbackStay() {
    callbacks_under_way.fetch_add(1, std::memory_order_seq_cst);
    allowed_ = !seen(DNSEntry::stop) && seen(DNSEntry::csinit) != 0;
  }
  ~CallbackStay() { callbacks_under_way.fetch_sub(1, std::memory_order_release); }
  CallbackStay(const CallbackStay&) = delete;
  CallbackStay& operator=(const CallbackStay&) = delete;
  bool allowed() const { return allowed_; }

 private:
  bool allowed_;
};

/// Constructed and destroyed inside cs.
class DNSEntry::Hold {
 public:
  explicit Hold(DNSEntry* entry) : entry_(entry) { ++entry_->holds_; }
  ~Hold() {
    if (--entry_->holds_ == 0 && entry_->dropped_) delete entry_;
  }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  DNSEntry* entry_;
};

// ---- One entry ---------------------------------------------------------------------------------------------

DNSEntry::DNSEntry(const char* name, ULONG addr)
    : dnsname(nullptr),
      dnsaddr(addr),
      result(false),
      timer(0, 1),
      usageCount(0),
      idleCount(0),
      holds_(0),
      dropped_(false),
      serial_(next_serial_locked()) {
  const std::size_t bytes = std::strlen(name) + 1;
  dnsname = new (std::nothrow) char[bytes];
  if (dnsname == nullptr) return;
  std::memcpy(dnsname, name, bytes);
  timer.SetCallback(_TimerCallback, reinterpret_cast<OSObj*>(this), nullptr, serial_);
  if (seen(trace) != 0) {
    diagnostics().Print("DNSEntry::DNSEntry %p - %s / %x", static_cast<void*>(this), dnsname,
                        unsigned{dnsaddr});
  }
}

DNSEntry::~DNSEntry() {
  if (seen(trace) != 0) {
    diagnostics().Print("DNSEntry::~DNSEntry %p - %s / %x", static_cast<void*>(this),
                        dnsname != nullptr ? dnsname : "", unsigned{dnsaddr});
  }
  timer.Cancel();
  delete[] dnsname;
}

DNSEntry* DNSEntry::find_locked(const char* name) {
  for (OSLink* link = entries.First(); link != nullptr && link->object != nullptr; link = link->next) {
    DNSEntry* entry = entry_of(link->object);
    if (strcasecmp(entry->dnsname, name) == 0) return entry;
  }
  return nullptr;
}

// A new entry; null when memory or links have run out.
DNSEntry* DNSEntry::add_locked(const char* name) {
  auto* entry = new (std::nothrow) DNSEntry(name, 0);
  if (entry == nullptr) return nullptr;
  if (entry->dnsname != nullptr && entries.AppendLink(entry) != nullptr) return entry;
  delete entry;
  return nullptr;
}

DNSEntry* DNSEntry::first_pending_locked() {
  OSLink* first = pending.First();
  return first == nullptr ? nullptr : entry_of(first->object);
}

// Lists the socket with its generation, or, without memory, not at all.
bool DNSEntry::add_socket_locked(AsyncSocket* socket) {
  OSLink* link = sockets.AppendLink(socket);
  if (link == nullptr) return false;
  try {
    waiting_.push_back({link, socket, socket->generation_});
  } catch (const std::bad_alloc&) {
    sockets.RemoveLink(link);
    return false;
  }
  return true;
}

// The socket that has waited longest, null when none waits. Returns its generation; 0, which any socket at that
// address has, when the program has put it into the list itself.
ULONG DNSEntry::take_socket_locked(AsyncSocket** socket) {
  *socket = nullptr;
  OSLink* link = sockets.First();
  if (link == nullptr) return 0;
  ULONG generation = 0;
  // The first one, unless the program has changed the list: what stands before is of sockets that it has taken out,
  // whose links may be in use again.
  const auto found = std::find_if(waiting_.begin(), waiting_.end(), [link](const Waiting& waiting) {
    return waiting.link == link && static_cast<OSListObj*>(waiting.socket) == link->object;
  });
  if (found == waiting_.end()) {
    *socket = static_cast<AsyncSocket*>(static_cast<OSListObj*>(link->object));
  } else {
    // Not by way of the list's object, which cannot be looked at when the socket is gone.
    *socket = found->socket;
    generation = found->generation;
    waiting_.erase(waiting_.begin(), std::next(found));
  }
  sockets.RemoveLink(link);
  return generation;
}

// Lists are walked to find an entry, as in find_locked, which comes before most of this: they may have been changed by
// the program.
bool DNSEntry::is_pending_locked() { return pending.PosInList(this) >= 0; }

void DNSEntry::queue_locked() {
  pending.AppendLink(this);
  SetEvent(event);
}

// The entry is gone for everybody. Sockets that wait for it are not told, but none goes on pointing at it.
void DNSEntry::drop_locked(DNSEntry* entry) {
  entries.Remove(entry);
  pending.Remove(entry);
  {
    const ClassLock lock;  // keeps a socket that is alive from being deleted
    while (!entry->sockets.IsEmpty()) {
      AsyncSocket* socket = nullptr;
      const ULONG generation = entry->take_socket_locked(&socket);
      if (socket != nullptr && SocketRegistry::is_alive(socket, generation) && socket->dnsentry == entry)
        socket->dnsentry = nullptr;
    }
  }
  entry->dropped_ = true;
  if (entry->holds_ == 0) delete entry;
}

// ---- Asking ------------------------------------------------------------------------------------------------

ULONG DNSEntry::Lookup(const char* name, AsyncSocket* socket) {
  if (seen(trace) >= 2) diagnostics().Print("DNSEntry::Lookup - '%s'", name);
  if (seen(csinit) == 0) AsyncSocket::Init();

  ULONG addr = 0;
  {
    const SectionLock lock(&cs);
    DNSEntry* entry = find_locked(name);
    if (entry == nullptr) entry = add_locked(name);
    if (entry == nullptr) return 0;
    if (entry->dnsaddr == 0) {
      if (socket != nullptr && entry->add_socket_locked(socket)) {
        socket->dnsentry = entry;
        if (seen(trace) != 0) {
          diagnostics().Print("DNSEntry::Lookup - added socket %p to dent %p", static_cast<void*>(socket),
                              static_cast<void*>(entry));
        }
      }
      if (!entry->is_pending_locked()) {
        if (seen(trace) != 0) diagnostics().Print("DNSEntry::Lookup - '%s' adding to pending list...", name);
        entry->queue_locked();
      }
    }
    ++entry->usageCount;
    addr = entry->dnsaddr;
  }

  if (seen(trace) >= 2) {
    const Octets o(addr);
    diagnostics().Print("DNSEntry::Lookup - '%s' returning %u.%u.%u.%u", name, o.a, o.b, o.c, o.d);
  }
  return addr;
}

void DNSEntry::Clear(const char* name) {
  if (seen(csinit) == 0) return;
  const SectionLock lock(&cs);
  DNSEntry* entry = find_locked(name);
  if (entry != nullptr) drop_locked(entry);
}

void DNSEntry::Cancel(AsyncSocket* /*socket*/) {
  const SectionLock lock(&cs);
  sockets.Remove(this);
}

// ---- The resolver thread -----------------------------------------------------------------------------------

// One name, with the section entered only before and after the system's call.
void DNSEntry::resolve() {
  if (seen(trace) != 0) diagnostics().Print("DNSEntry::Thread - '%s' requesting...", dnsname);
  ULONG addr = 0;
  const bool found = resolve_host(dnsname, &addr);

  // Of an entry that has been dropped meanwhile nobody sees what follows.
  const SectionLock lock(&cs);
  pending.Remove(this);
  if (found) dnsaddr = addr;
  result = true;
  if (found && seen(trace) != 0) {
    const Octets o(addr);
    diagnostics().Print("DNSEntry::Thread - '%s' address %u.%u.%u.%u found", dnsname, o.a, o.b, o.c, o.d);
  }
  // Inside the section: who sees that the name waits no more finds its delivery under way.
  AsyncSocket::dnstrigger->Fire();
}

void* DNSEntry::Thread(void* /*unused*/) {
  SectionLock lock(&cs);
  while (!seen(stop)) {
    DNSEntry* entry = first_pending_locked();
    if (entry == nullptr) {
      const HANDLE wake_up = event;
      lock.leave();
      WaitForSingleObject(wake_up, kForever);
      lock.enter();
      continue;
    }
    const Hold hold(entry);
    lock.leave();
    entry->resolve();
    lock.enter();
  }
  lock.leave();
  publish(stopped, true);
  return nullptr;
}

void DNSEntry::StartThread() {
  if (thread != 0) return;
  publish(stop, false);
  publish(stopped, false);
  {
    // The event of an earlier start is still there: StopThread leaves it to those that may be signalling it.
    const SectionLock lock(&cs);
    if (event != 0) CloseHandle(event);
    event = CreateEvent(nullptr, false, false, nullptr);
    if (event == 0) {
      diagnostics().Print("DNSEntry::StartThread failed %d", ENOMEM);
      return;
    }
  }
  // A callback that came while the cache was stopped has left it unarmed.
  if (AsyncSocket::dnstrigger != nullptr) AsyncSocket::dnstrigger->Clear();

  for (;;) {
    pthread_t created = 0;
    const int error = pthread_create(&created, &std_thread_attr, Thread, nullptr);
    if (error == 0) {
      thread = created;
      return;
    }
    diagnostics().Print("DNSEntry::StartThread failed %d", error);
    if (error != EAGAIN && error != EINTR) return;
    Sleep(kTryAgainMs);
  }
}

void DNSEntry::StopThread() {
  if (thread == 0) return;
  publish(stop, true);
  SetEvent(event);
  pthread_join(thread, nullptr);
  thread = 0;
  while (callbacks_under_way.load(std::memory_order_seq_cst) != 0) Sleep(1);

  const SectionLock lock(&cs);
  while (OSLink* first = entries.First()) drop_locked(entry_of(first->object));
}

// ---- Delivering --------------------------------------------------------------------------------------------

// The sockets that waited when it began. One that asks again inside its DNSResult waits for the next attempt.
// DNSResult may delete the socket, clear this name and look up others.
void DNSEntry::deliver_locked() {
  const Hold hold(this);
  result = false;
  bool queued_again = false;
  {
    const ClassLock lock;
    for (int left = sockets.Size(); left > 0 && !dropped_; --left) {
      AsyncSocket* socket = nullptr;
      const ULONG generation = take_socket_locked(&socket);
      if (socket == nullptr) break;
      if (SocketRegistry::is_alive(socket, generation)) socket->DNSResult(dnsname, dnsaddr);
      if (seen(trace) != 0) {
        diagnostics().Print("DNSEntry::Callback - clearing dnsentry %p from socket %p",
                            static_cast<void*>(this), static_cast<void*>(socket));
      }
      if (SocketRegistry::is_alive(socket, generation)) socket->dnsentry = nullptr;
    }
    queued_again = is_pending_locked();
  }
  if (dropped_) return;
  if (dnsaddr != 0 || queued_again) {
    timer.SetTimer(kLifetimeMs);
    return;
  }
  if (seen(trace) != 0) {
    diagnostics().Print("DNSEntry::Callback - '%s' address not found, deleting entry", dnsname);
  }
  drop_locked(this);
}

void DNSEntry::Callback(OSObj* /*unused_obj*/, ADDR /*unused_addr*/, ULONG /*unused_value*/) {
  const CallbackStay stay;
  if (!stay.allowed()) return;
  const SectionLock lock(&cs);
  AsyncSocket::dnstrigger->Clear();
  // What is delivered changes the list in any way: the walk begins anew after each. It ends, because only the
  // resolver thread sets `result`, and inside cs.
  OSLink* link = entries.First();
  while (link != nullptr && link->object != nullptr) {
    DNSEntry* entry = entry_of(link->object);
    link = link->next;
    if (!entry->result) continue;
    entry->deliver_locked();
    link = entries.First();
  }
}

void DNSEntry::_TimerCallback(OSObj* entry, ADDR /*unused_addr*/, ULONG serial) {
  const CallbackStay stay;
  if (!stay.allowed()) return;
  const SectionLock lock(&cs);
  auto* expired = reinterpret_cast<DNSEntry*>(entry);
  if (entries.PosInList(expired) < 0) return;
  if (serial == 0 || serial == expired->serial_) drop_locked(expired);
}

// ---- What a socket does with the answer --------------------------------------------------------------------

void AsyncSocket::DNSResult(const char* name, ULONG addr) {
  if (addr == 0) {
    diagnostics().Print("%d AsyncSocket::DNSResult - couldn't resolve host %s", seen(s), name);
    publish(state, static_cast<int>(SSDisconnected));
    release_held_datagrams(false);
    indicate(1, Failed, 0);
    return;
  }
  const Octets o(addr);
  diagnostics().Print("%d AsyncSocket::DNSResult - address for %s is %u.%u.%u.%u", seen(s), name, o.a, o.b,
                      o.c, o.d);
  Connect(addr, rem_sin.Port());
}
