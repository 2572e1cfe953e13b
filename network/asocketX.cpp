/// The asynchronous socket: construction, the start and stop of the networking layer, and who is alive.
#include "network/asocketX.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <new>

#include "kernel/kernel.h"
#include "network/asocketX_priv.h"
#include "network/dnsentry.h"
#include "network/ringbuffer_priv.h"

constinit NeverDestroyed<CRITICAL_SECTION> async_socket_cs OSKERNEL_NEVER_DESTROYED("_ZN11AsyncSocket2csE");

bool AsyncSocket::AsyncInitDone = false;
OSIndirectList* AsyncSocket::sockets = nullptr;
int AsyncSocket::trace = 0;
pthread_t AsyncSocket::monitor_thread = 0;
bool AsyncSocket::monitor_stop = true;
int AsyncSocket::sigfd = -1;
int AsyncSocket::sigpipefd = -1;
OSTrigger* AsyncSocket::dnstrigger = nullptr;

namespace {

[[maybe_unused]] const bool sections_ranked = [] {
  rank_outer_section(0, &DNSEntry::cs, "DNSEntry::cs");
  rank_outer_section(1, &AsyncSocket::cs, "AsyncSocket::cs");
  return true;
}();

/// One start or stop at a time. Held over the start of the threads and the join of them, which enter other sections
/// but never come back here.
constinit std::mutex init_mutex;

/// cs is initialised: tells who may enter it. Its store publishes the section, its load is what ClassLock begins with.
constinit std::atomic<bool> class_lock_ready{false};

/// How many ClassLocks hold cs or wait for it.
constinit std::atomic<int> class_lock_users{0};

/// All of it is there: Init has nothing to do. Published last, read first.
constinit std::atomic<bool> layer_ready{false};

}  // namespace

// ---- Diagnostics and sections ------------------------------------------------------------------------------

namespace {

/// A base console discards what it is given, but does not come back from a fatal report.
class SilentConsole : public OSConsole {
 public:
  void Fatal(const char* /*format*/, ...) override OSKERNEL_PRINTF(2, 3) {}
};

}  // namespace

OSConsole& diagnostics() {
  static SilentConsole silent;
  OSConsole* const console = Console;
  return console != nullptr ? *console : silent;
}

AddressText::AddressText(const SockAddr& address) : text_{} {
  const in_addr raw = address.sin.sin_addr;
  inet_ntop(AF_INET, &raw, text_, sizeof text_);
}

// With Cleanup's store to class_lock_ready and its look at the count: one of the two threads sees what the other has
// done, and cs is deleted when nobody is in it or on the way.
ClassLock::ClassLock() {
  class_lock_users.fetch_add(1);
  held_ = class_lock_ready.load();
  if (held_) {
    EnterCriticalSection(&AsyncSocket::cs);
  } else {
    class_lock_users.fetch_sub(1);
  }
}

ClassLock::~ClassLock() {
  if (!held_) return;
  LeaveCriticalSection(&AsyncSocket::cs);
  class_lock_users.fetch_sub(1);
}

// ---- Construction ------------------------------------------------------------------------------------------

AsyncSocket::AsyncSocket(bool indirect)
    : s(-1),
      rtps(-1),
      indirect_socket(indirect),
      state(SSInitial),
      deleted(false),
      deletedAck(false),
      receive_started(false),
      big_buffers_allowed(false),
      type(0),
      listener(false),
      listenFn(nullptr),
      listenObj(nullptr),
      listenqtrigger(&listenq, 1, 0, 0),
      qtrigger(&q, 1, 0, 0),
      thread(0),
      running(false),
      rem_sin_len(sizeof(sockaddr_in)),
      alloc_buf(nullptr),
      ring(nullptr),
      oob_count(0),
      dont_read(false),
      startRetry(nullptr),
      retryTimeout(500),
      dnsentry(nullptr),
      secure(false),
      secure_state(SecClear),
      ssl_info(nullptr),
      cert(nullptr),
      key(nullptr),
      ca(nullptr),
      generation_(SocketRegistry::add(this)),
      listed_(nullptr),
      watched_fd_(-1),
      watched_events_(0),
      next_changed_(nullptr),
      changed_(false),
      retry_at_(0),
      retrying_(false),
      urgent_(false),
      early_waiting_(false),
      connect_error_(0),
      reading_stopped_(false),
      input_held_(false),
      session_holds_(false),
      awaits_address_(false),
      exhaustion_at_(0),
      exhaustion_reported_(false),
      connection_(0),
      thread_abandoned_(false) {
  Init();
  // A task that makes a socket does not become its triggers'.
  listenqtrigger.SetTask(nullptr);
  qtrigger.SetTask(nullptr);
  qtrigger.SetCallback(_QCallback, reinterpret_cast<OSObj*>(this), nullptr, generation_);
  InitializeCriticalSection(&local_cs);
  const ClassLock lock;
  listed_ = sockets->AppendLink(this);
}

// ---- Start and stop ----------------------------------------------------------------------------------------

BOOL AsyncSocket::Init() {
  if (layer_ready.load()) return TRUE;
  const std::lock_guard<std::mutex> once(init_mutex);
  if (!seen(AsyncInitDone)) {
    publish(AsyncInitDone, true);
    init_section(&cs);
    sockets = new OSIndirectList;
    start_ring_cleanup();
    class_lock_ready.store(true);
    publish(monitor_stop, false);
    pthread_t monitor = 0;
    const int error = pthread_create(&monitor, &std_thread_attr, MonitorThread, nullptr);
    publish(monitor_thread, error == 0 ? monitor : pthread_t{0});
    if (error != 0) diagnostics().Print("AsyncSocket::Init - monitor thread failed, errno %d", error);
    UBYTE mac[6];
    LookupInterfaceMac(mac, true);
  }
  if (seen(DNSEntry::csinit) == 0) {
    init_section(&DNSEntry::cs);
    delete dnstrigger;  // of an earlier start
    dnstrigger = new OSTimerTrigger(0, 0);
    dnstrigger->SetCallback(DNSEntry::Callback, nullptr, nullptr, 0);
    publish(DNSEntry::csinit, 1);
    DNSEntry::StartThread();
  }
  layer_ready.store(true);
  return seen(AsyncInitDone) ? TRUE : FALSE;
}

void AsyncSocket::Cleanup() {
  const std::lock_guard<std::mutex> once(init_mutex);
  layer_ready.store(false);
  if (seen(AsyncInitDone)) {
    publish(monitor_stop, true);
    WakeMonitorThread();
    if (monitor_thread != 0) pthread_join(monitor_thread, nullptr);
    {
      const ClassLock lock;
      publish(monitor_thread, pthread_t{0});
      SocketMonitor::close_pipe();
      // The sockets are the application's; each forgets its place here.
      OSListIterator walk(sockets);
      while (OSListObj* const listed = walk++)
        static_cast<AsyncSocket*>(static_cast<OSIO*>(listed))->listed_ = nullptr;
      sockets->Flush();
      delete sockets;
      sockets = nullptr;
      stop_ring_cleanup();
    }
    class_lock_ready.store(false);
    while (class_lock_users.load() != 0) Sleep(1);
    DeleteCriticalSection(&cs);
    publish(AsyncInitDone, false);
  }
  if (seen(DNSEntry::csinit) != 0) {
    DNSEntry::StopThread();
    publish(DNSEntry::csinit, 0);
    DeleteCriticalSection(&DNSEntry::cs);
  }
}

void AsyncSocket::WakeMonitorThread() { SocketMonitor::look_at_all(); }

// ---- Who is alive ------------------------------------------------------------------------------------------

/// Never destroyed: callbacks may run while the process ends.
struct SocketRegistry::Known {
  std::mutex mutex;  ///< a leaf
  std::unordered_map<AsyncSocket*, ULONG> alive;
  SocketVisit* visits = nullptr;
  ULONG last_generation = 0;
};

SocketRegistry::Known& SocketRegistry::known() {
  static Known* const the = new Known;
  return *the;
}

/// A thread that waits in Free for others to leave the socket's callbacks.
struct SocketRegistry::Waiter {
  pthread_t thread;
  AsyncSocket* socket;
  Waiter* next;
  static Waiter* first;  // under the registry's mutex
};
constinit SocketRegistry::Waiter* SocketRegistry::Waiter::first = nullptr;

ULONG SocketRegistry::add(AsyncSocket* socket) {
  Known& all = known();
  const std::lock_guard<std::mutex> lock(all.mutex);
  if (++all.last_generation == 0) ++all.last_generation;
  all.alive[socket] = all.last_generation;
  return all.last_generation;
}

void SocketRegistry::remove(AsyncSocket* socket) {
  Known& all = known();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.alive.erase(socket);
}

bool SocketRegistry::is_alive(AsyncSocket* socket, ULONG generation) {
  Known& all = known();
  const std::lock_guard<std::mutex> lock(all.mutex);
  const auto found = all.alive.find(socket);
  return found != all.alive.end() && (generation == 0 || found->second == generation);
}

SocketVisit::SocketVisit(AsyncSocket* socket, ULONG generation)
    : socket_(nullptr), thread_(pthread_self()), gone_(true), next_(nullptr) {
  SocketRegistry::Known& all = SocketRegistry::known();
  const std::lock_guard<std::mutex> lock(all.mutex);
  const auto found = all.alive.find(socket);
  if (found == all.alive.end() || (generation != 0 && found->second != generation)) return;
  socket_ = socket;
  gone_.store(false, std::memory_order_relaxed);
  next_ = all.visits;
  all.visits = this;
}

SocketVisit::~SocketVisit() {
  SocketRegistry::Known& all = SocketRegistry::known();
  const std::lock_guard<std::mutex> lock(all.mutex);
  for (SocketVisit** at = &all.visits; *at != nullptr; at = &(*at)->next_) {
    if (*at != this) continue;
    *at = next_;
    return;
  }
}

/// Whether `thread` waits, through others or at once, for `self` to leave a callback. Each step follows one thread
/// that waits; more steps than there are waiting threads cannot find anything new.
bool SocketRegistry::waits_for_locked(pthread_t thread, pthread_t self, int depth) {
  constexpr int kMostWaiters = 64;
  if (depth == kMostWaiters) return true;
  for (const Waiter* waiter = Waiter::first; waiter != nullptr; waiter = waiter->next) {
    if (pthread_equal(waiter->thread, thread) == 0) continue;
    for (const SocketVisit* visit = known().visits; visit != nullptr; visit = visit->next_) {
      if (visit->socket_ != waiter->socket || pthread_equal(visit->thread_, thread) != 0) continue;
      if (pthread_equal(visit->thread_, self) != 0 || waits_for_locked(visit->thread_, self, depth + 1))
        return true;
    }
  }
  return false;
}

bool SocketRegistry::wait_for_visitors(AsyncSocket* socket) {
  Known& all = known();
  const pthread_t self = pthread_self();
  Waiter waiter{self, socket, nullptr};
  {
    const std::lock_guard<std::mutex> lock(all.mutex);
    waiter.next = Waiter::first;
    Waiter::first = &waiter;
  }
  bool inside = false;
  for (bool wait = true; wait;) {
    wait = false;
    {
      const std::lock_guard<std::mutex> lock(all.mutex);
      for (SocketVisit* visit = all.visits; visit != nullptr; visit = visit->next_) {
        if (visit->socket_ != socket || pthread_equal(visit->thread_, self) != 0) continue;
        if (!waits_for_locked(visit->thread_, self, 0)) wait = true;
      }
      if (!wait) {
        // Who is still inside is this thread itself, or waits for it and will find the socket gone.
        for (SocketVisit* visit = all.visits; visit != nullptr; visit = visit->next_) {
          if (visit->socket_ != socket) continue;
          inside = true;
          visit->socket_ = nullptr;
          visit->gone_.store(true, std::memory_order_relaxed);
        }
        Waiter** at = &Waiter::first;
        while (*at != &waiter) at = &(*at)->next;
        *at = waiter.next;
      }
    }
    if (wait) Sleep(1);
  }
  return inside;
}
