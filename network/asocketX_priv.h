/// What the sources of the networking layer share; not installed.
#ifndef OSKERNEL_ASOCKETX_PRIV_H
#define OSKERNEL_ASOCKETX_PRIV_H

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kernel/console.h"
#include "kernel/posixkernel_priv.h"
#include "network/asocketX.h"

// ---- Fields that threads share without a lock --------------------------------------------------------------

/// Reads a public field that other threads write. Sequentially consistent, which costs nothing to read here: what
/// the writer did before is seen after.
template <class Field>
Field seen(Field& field) {
  return std::atomic_ref<Field>(field).load();
}
template <class Field>
void publish(Field& field, Field value) {
  std::atomic_ref<Field>(field).store(value);
}

// ---- Diagnostics -------------------------------------------------------------------------------------------

/// The application's console, or one that discards everything when it has none.
OSConsole& diagnostics();

/// An address as text on the stack, for a console line. Takes no section: a line may be printed inside local_cs.
class AddressText {
 public:
  explicit AddressText(const SockAddr& address);
  const char* c_str() const { return text_; }

 private:
  char text_[INET_ADDRSTRLEN];
};

// ---- Sections ----------------------------------------------------------------------------------------------

/// Defines a static member that outlives every thread: the process may end while the monitor thread runs, and what it
/// uses must not be destroyed under it. The member is declared in its class and gets its symbol here.
template <class Object>
union NeverDestroyed {
  constexpr NeverDestroyed() : object() {}
  // Trivial on purpose; `= default` would be deleted because the member has a destructor.
  ~NeverDestroyed() {}  // NOLINT(modernize-use-equals-default)
  Object object;
};
#define OSKERNEL_NEVER_DESTROYED(symbol) __asm__(symbol) __attribute__((used, visibility("default")))

/// Holds AsyncSocket::cs for a scope, if the networking layer runs; before and after, there is nobody to exclude.
class ClassLock {
 public:
  ClassLock();
  ~ClassLock();
  ClassLock(const ClassLock&) = delete;
  ClassLock& operator=(const ClassLock&) = delete;

 private:
  bool held_;
};

// ---- Liveness ----------------------------------------------------------------------------------------------

/// A callback's stay in its socket, or that of a direct socket's own thread, on its thread's stack. The socket is not
/// deleted by another thread meanwhile.
class SocketVisit {
 public:
  /// Generation 0 stands for any socket at that address.
  SocketVisit(AsyncSocket* socket, ULONG generation);
  ~SocketVisit();
  SocketVisit(const SocketVisit&) = delete;
  SocketVisit& operator=(const SocketVisit&) = delete;
  /// The socket is gone: it was not there, or what this thread called has deleted it.
  bool gone() const { return gone_.load(std::memory_order_relaxed); }

 private:
  friend class SocketRegistry;

  AsyncSocket* socket_;
  pthread_t thread_;
  /// Written by this thread; by another one only while this one waits for it, see wait_for_visitors. Either way what
  /// is read next is read behind the registry's lock.
  std::atomic<bool> gone_;
  SocketVisit* next_;
};

/// Knows which sockets are alive, and which thread is inside a callback of which socket. Under a lock of its own, a
/// leaf, so that a callback finds its socket alive without waiting for the monitor thread's section.
class SocketRegistry {
 public:
  /// Registers a socket and gives it its generation, which is never 0 and tells it from others at its address.
  static ULONG add(AsyncSocket* socket);
  static void remove(AsyncSocket* socket);
  /// Whether this very socket is alive. Generation 0 stands for any socket at that address.
  static bool is_alive(AsyncSocket* socket, ULONG generation);

  /// Waits until no other thread is inside a callback of the socket. Threads that wait for each other this way are
  /// let go: each of them finds its socket gone when it comes back to it.
  ///   returns   whether somebody is inside all the same: this thread itself, or such a one
  static bool wait_for_visitors(AsyncSocket* socket);

 private:
  friend class SocketVisit;
  struct Waiter;
  struct Known;

  static Known& known();
  static bool waits_for_locked(pthread_t thread, pthread_t self, int depth);
};

/// A stay in the socket's TLS session, which is not deleted meanwhile. When another thread closes the socket, the session
/// writes nowhere any more.
class SessionUse {
 public:
  explicit SessionUse(AsyncSocket* socket);
  /// Shares a session that the caller knows to be there.
  explicit SessionUse(SSLInfo* session);
  ~SessionUse();
  SessionUse(const SessionUse&) = delete;
  SessionUse& operator=(const SessionUse&) = delete;
  /// null without one
  SSLInfo* get() const { return session_; }
  SSLInfo* operator->() const { return session_; }
  /// What the socket's secure_state was when the stay began.
  SecureState state() const { return state_; }

 private:
  SSLInfo* session_;
  SecureState state_;
};

// ---- The monitor thread ------------------------------------------------------------------------------------

/// Watches the indirect sockets. It waits in select() for two descriptors: its wake-up pipe, and an epoll descriptor
/// with which all sockets are registered, so that a pass costs what is ready and not what is open. What a socket is
/// to be watched for is looked at again only when something has changed it, in update_locked.
class SocketMonitor {
 public:
  /// The thread's body.
  static void run();
  /// Has the monitor thread look at a socket again; wakes it, unless it is the caller.
  ///   threads   any, inside any section of the networking layer
  static void look_at(AsyncSocket* socket);
  /// Has it look at all of them.
  static void look_at_all();
  /// Takes the socket out of all that the monitor knows. Inside AsyncSocket::cs.
  static void forget_locked(AsyncSocket* socket);
  /// Takes the socket's descriptor out before it is closed. Inside AsyncSocket::cs.
  static void unwatch_locked(AsyncSocket* socket);
  /// Looks at the socket again when so many milliseconds have passed; it is not read from before. Inside cs.
  static void retry_later_locked(AsyncSocket* socket, ULONG delay_ms);
  /// Waits until the monitor thread has let go of a socket whose `deleted` is set; not when there is no such thread.
  static void wait_for_release(AsyncSocket* socket);
  static bool is_current_thread();
  /// Where to note a signal to the dispatcher that the monitor thread gives when it has dealt with several events, so
  /// that one wake-up serves them all; null when the caller is not dealing with any.
  static bool* signal_owed();
  /// Gives such a signal now, when what comes next takes long.
  static void signal_what_is_owed();
  /// Closes the wake-up pipe; when the thread has been joined.
  static void close_pipe();

 private:
  struct Events;

  static void open_pipe();
  static void wake_locked();
  static void drain_pipe();
  static bool open_epoll();
  static void take_wake_up();
  static int wait(Events* events, timeval* until);
  static void handle_some(const Events& events, int first, int end);
  static void pass(Events* events);
  static void release_locked(AsyncSocket* socket);
  static void update_changed_locked();
  static void update_locked(AsyncSocket* socket);
  static void start_connect_locked(AsyncSocket* socket);
  static void finish_connect_locked(AsyncSocket* socket);
  static void send_early_data_locked(AsyncSocket* socket);
  static unsigned interest_locked(AsyncSocket* socket);
  static void watch_locked(AsyncSocket* socket, unsigned events);
  static bool has_more_datagrams(AsyncSocket* socket);
  static void handle_locked(AsyncSocket* socket, unsigned events);
  static void end_retries_locked();
};

/// A thread as "%p" shows it.
inline void* printable(pthread_t thread) {
  return reinterpret_cast<void*>(thread);  // NOLINT(performance-no-int-to-ptr): never followed
}

// ---- Buffers with an array of their own --------------------------------------------------------------------

/// A buffer for `length` bytes on the heap, up to 65535, behind 50 bytes of room: an empty buffer of the pool whose
/// storage is an array that free_array deletes when the buffer is freed. Its data stands where the bytes belong.
///   returns   null when a pool or the heap has run out; nothing is left behind then
OSBuf* alloc_array_buffer(int length, OSCallbackFunction free_array);

/// Room in front of received bytes, for the layers above and for the sender's address of a datagram.
inline constexpr int kHeadroom_bytes = 50;
/// From this size on, reads and packets get an array of their own.
inline constexpr int kLargeRead_bytes = 1680;

#endif
