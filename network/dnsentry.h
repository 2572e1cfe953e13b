/// @file
/// The cache of host names: resolves names without blocking any task.
///
/// One resolver thread calls gethostbyname for the names that wait; results are kept for five minutes. Sockets that
/// asked are told through AsyncSocket::DNSResult; callers that only want an address ask again later.
#ifndef OSKERNEL_DNSENTRY_H
#define OSKERNEL_DNSENTRY_H

#include <pthread.h>

#include <list>

#include "link_indirect.h"
#include "posixkernel.h"
#include "trigger.h"
#include "types.h"

class AsyncSocket;

/// One name.
///
///                      resolved          not found         Clear(name)/five minutes   Lookup of the name
///   pending            -> delivering     -> delivering     gone, nobody is told       0, socket is added
///   delivering         cannot happen     cannot happen     gone, nobody is told       address, or 0 and pending
///   cached             cannot happen     cannot happen     gone                       address
///
/// "delivering" ends when Callback runs: with an address the entry is cached, otherwise it is deleted.
///
/// Deliberate: the five minutes run from the delivery, and no Lookup prolongs them; a name without an address is not
/// kept at all. Programs that go on asking for the same host follow it when it moves, and a host that comes back is
/// found at once. Pinned by dnsentry_clock_test.cpp, LookUpsDoNotProlongIt, and dnsentry_test.cpp,
/// AFailedNameIsForgottenAndAskedForAgain.
class OSKERNEL_API DNSEntry : public OSListObj {
 public:
  /// Asks the cache. Names are matched ignoring case.
  ///   socket    shares; told the result through DNSResult when the address is not known yet. Null when nobody is to
  ///             be told.
  ///   returns   the address in host order; 0 when it is not known yet, and then the name is being resolved. When
  ///             memory or links have run out it is 0, too, and nobody is told: the next Lookup tries again.
  ///   threads   any, inside no AsyncSocket::cs unless inside DNSEntry::cs before; never waits for the network. Works
  ///             before the first socket exists.
  static ULONG Lookup(const char* name, AsyncSocket* socket);
  /// Forgets a name, resolved or not; nothing happens when it is not there. Sockets that wait for it are not told.
  ///   threads   any
  static void Clear(const char* name);
  /// AsyncSocket::Free calls it for the entry its socket waits on.
  /// Deliberate: takes this entry, not the socket, off the list of waiting sockets, where it never is. The socket
  /// stays listed, and delivery skips it because it is found not alive. Pinned by
  /// dnsentry_socket_test.cpp, CancelTakesTheEntryOffItsOwnList.
  ///   socket    not used
  ///   threads   any, as Lookup
  void Cancel(AsyncSocket* socket);
  /// Delivers finished names: the callback of AsyncSocket::dnstrigger. DNSResult of each waiting socket that is
  /// still alive runs here, inside cs and AsyncSocket::cs; it may free sockets, clear names and look others up.
  ///   threads   the dispatcher of dnstrigger
  static void Callback(OSObj* unused_obj, ADDR unused_addr, ULONG unused_value);

  /// Starts the resolver thread, unless it runs. AsyncSocket::Init calls it. When the system has no thread to give, a
  /// line says so; it tries again for as long as that can help (EAGAIN, EINTR). Without a thread names wait for the
  /// next StartThread.
  ///   threads   one at a time, not beside StopThread
  static void StartThread();
  /// Ends the resolver thread and empties the cache; sockets that wait are not told. AsyncSocket::Cleanup calls it.
  /// Waits, without limit, for a gethostbyname in progress and for a delivery that another thread is in.
  ///   threads   as StartThread; inside no section, and no callback of this class or indication from it
  static void StopThread();

  char* dnsname;           ///< as first looked up; owned
  ULONG dnsaddr;           ///< host order; 0 while it is not known
  bool result;             ///< an attempt has finished and is not delivered yet
  OSTimerTrigger timer;    ///< expiry, 300000 ms after delivery
  int usageCount;          ///< counts Lookups; never read
  int idleCount;           ///< unused
  OSIndirectList sockets;  ///< AsyncSockets that wait; shares

  /// Guards all entries, `entries` and `pending`. Entered before AsyncSocket::cs, never inside it. DNSResult runs
  /// while it is held.
  static CRITICAL_SECTION cs;
  static int csinit;              ///< 1 while the cache is running
  static int trace;               ///< 0 silent, 1 normal, 2 adds a line for each lookup
  static OSIndirectList entries;  ///< all entries; owns them
  static OSIndirectList
      pending;              ///< those that wait for the resolver thread, oldest first; a part of entries
  static HANDLE event;      ///< wakes the resolver thread
  static bool stop;         ///< asks the resolver thread to end; accessed atomically
  static bool stopped;      ///< the resolver thread's last act; accessed atomically
  static pthread_t thread;  ///< 0 when it is not running

 protected:
  /// An entry that is in no list yet; `dnsname` is null when there is no memory for it.
  ///   name      copied
  ///   addr      host order; 0 while it is not known
  ///   threads   any, inside cs
  DNSEntry(const char* name, ULONG addr);
  /// Frees the name.
  ~DNSEntry() override;
  /// The callback of `timer`: forgets the entry when it is still in the cache.
  ///   serial    which entry at that address; 0 for any
  static void _TimerCallback(OSObj* entry, ADDR unused_addr, ULONG serial);
  /// The resolver thread's entry; StartThread starts it. Resolves what is pending until `stop`. null.
  static void* Thread(void* unused);

 private:
  friend class AsyncSocket;

  /// An entry as the resolver thread or a delivery works on it: it stays allocated that long, whatever Clear, expiry
  /// and StopThread do meanwhile.
  class __attribute__((visibility("hidden"))) Hold;
  class __attribute__((visibility("hidden"))) CallbackStay;

  static DNSEntry* find_locked(const char* name);
  static DNSEntry* add_locked(const char* name);
  static DNSEntry* first_pending_locked();
  static void drop_locked(DNSEntry* entry);
  bool add_socket_locked(AsyncSocket* socket);
  ULONG take_socket_locked(AsyncSocket** socket);
  bool is_pending_locked();
  void queue_locked();
  void resolve();
  void deliver_locked();

  // All under cs.
  /// One of `sockets`, by its link there, and what tells it from a later one at the same address. The socket may be
  /// gone.
  struct Waiting {
    OSLink* link;
    AsyncSocket* socket;
    ULONG generation;
  };
  std::list<Waiting> waiting_;  ///< in the order of `sockets`
  int holds_;                   ///< how many work on it
  bool dropped_;                ///< gone for everybody else; the last to work on it deletes it
  ULONG serial_;  ///< tells it from an earlier entry at its address, for a timer that is under way; never 0
};

#endif
