/// @file
/// The asynchronous TCP and UDP socket.
///
/// A socket is a layer: the layer above binds to it as its partner, hands it buffers to send through the indications
/// and receives data, connections and disconnections the same way. It is served in one of two ways, fixed when it is
/// constructed:
///
///   indirect  one monitor thread watches all of them; what is received waits in the socket's queue, and the thread
///             that dispatches the socket's queue trigger hands it to the partner
///   direct    a receive thread of its own reads and calls the partner itself
///
/// Include asocket.h; it brings the whole family.
#ifndef OSKERNEL_ASOCKETX_H
#define OSKERNEL_ASOCKETX_H

#include <pthread.h>

#include <atomic>
#include <mutex>

#include "buffer.h"
#include "io.h"
#include "link.h"
#include "posixkernel.h"
#include "sockaddr.h"
#include "trigger.h"
#include "types.h"

class DNSEntry;
class RingBuffer;
class SSLInfo;
class SocketMonitor;
class SocketRegistry;
class SocketVisit;

/// Where a socket stands; the table of AsyncSocket says what moves it on.
enum SocketState {
  SSInitial = 0,      ///< no connection: new, closed, listening, or a datagram socket without destination
  SSConnecting = 1,   ///< a stream on its way
  SSConnected = 2,    ///< a stream that is up, or a datagram socket with a destination
  SSDisconnected = 3  ///< a stream that has ended or failed, or a peer's name that was not found
};

/// Where the TLS session of a stream stands.
enum SecureState {
  SecClear = 0,      ///< none
  SecHandshake = 1,  ///< the handshake is going on
  SecSecure = 2      ///< established
};

/// What a multicast socket is for, see AsyncSocket::CreateMulticast.
enum MulticastFlags {
  McSendOnly = 1,       ///< sends to the group
  McReceiveOnly = 2,    ///< receives what is sent to the group
  McSendAndReceive = 3  ///< both
};

/// A socket. Life: construct, Create, Connect or Listen (or ConnectAck when Listen handed it over), traffic, Free.
///
/// States of a stream (`state`); what is indicated goes to the partner:
///
///                Connect()             connected       refused, failed,      Close()
///                                                      peer closed
///   Initial      -> Connecting         cannot happen   cannot happen         stays
///                direct: -> Connected
///                or Disconnected
///   Connecting   cannot happen         -> Connected,   -> Disconnected,      -> Initial, nothing
///                                      Connect         Disconnect            indicated
///   Connected    do not                cannot happen   -> Disconnected,      -> Initial, nothing
///                                                      Disconnect            indicated
///   Disconnected do not                cannot happen   stays                 -> Initial
///
/// A datagram socket is Initial until it is given a destination, by Connect or a multicast creation, then Connected.
///
/// Connections and disconnections travel in the data stream as control buffers of length 0 whose first bytes say
/// what they are: 0 for connected; 1, reason for disconnected, and behind the reason Failed (4) a 32-bit code,
/// most significant byte first: an errno value, or 0 for none. So they keep their place among the data.
///
/// Threads: every operation may be called from any thread unless it says otherwise, inside none of the sections
/// named here. Different sockets are independent. Fields that threads share without a lock are accessed atomically.
/// Sections: DNSEntry::cs, then AsyncSocket::cs, then a socket's local_cs, then OS_CRITICAL_TRIGGER and the pools'.
class OSKERNEL_API AsyncSocket : public OSIO {
 public:
  /// In state SSInitial without a descriptor, unbound; starts the networking layer (Init) when it is not running.
  ///   indirect  see above
  explicit AsyncSocket(bool indirect);

  /// Only Free deletes a socket. An indirect one that is deleted otherwise is
  /// Fatal "%d AsyncSocket::~AsyncSocket - %p, socket not Free'd first!".
  ~AsyncSocket() override;

  // ---- Sending: what the layer above calls -------------------------------------------------------------------

  /// Sends on the caller's thread. A stream that is not connected yet queues the data and sends it, in order and
  /// merged into buffers of up to 1400 bytes, as soon as it is; a connected one waits for room, up to 5 s, and for
  /// its turn behind what is queued. A datagram goes to rem_sin, and once more through rtps when that is set; the
  /// first 8 that are given while the socket waits for its peer's name to be resolved are kept until it is.
  ///   takes     buf, whatever the result
  ///   returns   Success; NoConnection when the stream is disconnected or the datagram could not be sent or kept; Blocked
  ///             when the send failed and disconnected the stream: DisconnectIndication(Failed, errno or 0) follows
  ///   threads   any; on the monitor thread nothing is waited for. A direct socket indicates that failure before
  ///             this returns, and the partner may Free the socket then.
  OSIORetCode DataIndication(OSBuf* buf) override;
  /// The same as the (virtual) DataIndication.
  OSIORetCode DataExpeditedIndication(OSBuf* buf) override;
  /// Sends a datagram to rem_sin when the socket is connected, otherwise to dest; and through rtps, when that is set,
  /// to rem_sin. Never disconnects.
  ///   takes     buf
  ///   source    not used
  ///   dest      a sockaddr of 16 bytes; lent. Not looked at when the socket is connected.
  ///   returns   Success; Blocked when there is no destination; NoConnection when sending failed
  OSIORetCode DatagramIndication(OSBuf* buf, void* source, void* dest) override;
  OSIORetCode ConnectIndication(OSIOAddress* address) override;  ///< no effect, Success
  OSIORetCode DisconnectIndication(OSIOReason reason,
                                   int code) override;  ///< shutdown(2) of both ways, Success

  void Bind(OSIO* to) override;  ///< OSIO::Bind inside local_cs
  void UnBind() override;        ///< OSIO::UnBind inside local_cs

  // ---- What subclasses override ------------------------------------------------------------------------------

  /// The socket object for an accepted connection: a new indirect AsyncSocket. Subclasses return their own kind.
  ///   skt       the accepted descriptor; taken
  ///   returns   null to refuse the connection, which is then closed
  ///   threads   the dispatcher of listenqtrigger
  virtual AsyncSocket* GetNewSocket(int skt);
  /// A received or a control buffer: queues it (indirect) or passes it to Receive (direct).
  ///   takes     buf
  ///   threads   indirect: monitor thread, inside cs, and senders that fail. Direct: the receive thread
  virtual void ProcessData(OSBuf* buf);
  /// Turns a buffer into an indication on the partner. The socket may be gone when it returns: the partner may
  /// Free it.
  ///   takes     buf
  ///   threads   indirect: the dispatcher of qtrigger. Direct: the receive thread
  virtual void Receive(OSBuf* buf);
  /// Reads, or accepts, once. A direct socket waits up to 1 s for something to read.
  ///   threads   indirect: monitor thread, inside cs. Direct: the receive thread
  virtual void Poll();

  // ---- Making the descriptor ---------------------------------------------------------------------------------

  /// Adopts an open descriptor of type SOCK_STREAM or SOCK_DGRAM. Reception is not started.
  ///   takes     skt
  ///   returns   0
  int Create(int Atype, int skt);
  /// Makes a socket and binds it. A datagram socket receives from now on.
  ///   port           host order, 0 for any
  ///   addr           host order, 0 for local_ipaddr, which when 0 itself means any
  ///   reuse_allowed  SO_REUSEADDR for a datagram socket; a stream socket always has it
  ///   returns        0 or errno. When bind(2) failed, the descriptor stays open in s: Close it.
  /// A descriptor that is open in s already is used, and `type` stays.
  int Create(int Atype, UWORD port, ULONG addr, bool reuse_allowed);
  /// The same without the send time-out of 2 s.
  int CreateRealTime(int Atype, UWORD port, ULONG addr, bool reuse_allowed);
  /// Makes a datagram socket for a multicast group. Receivers are bound to the group's address and port, so that
  /// nothing else reaches them.
  ///   addr      group and port
  ///   flags     McSendOnly: rem_sin is the group, nothing is bound or joined. McReceiveOnly: joined, rem_sin is
  ///             0.0.0.0:0. McSendAndReceive: both.
  ///   pifaddr   the interface by its address; null for LookupIface(255.255.255.255)
  ///   returns   0, errno when the group cannot be joined, -1 without a descriptor
  int CreateMulticast(SockAddr& addr, MulticastFlags flags, SockAddr* pifaddr);
  /// The same without starting reception: the caller reads the socket itself.
  int CreateMulticastRealTime(SockAddr& addr, MulticastFlags flags, SockAddr* pifaddr);

  // ---- Connecting, listening, ending -------------------------------------------------------------------------

  /// Gives the socket its peer. A stream connects in the background: ConnectIndication or DisconnectIndication tells
  /// the outcome. A datagram socket is connected at once; for a multicast address the outgoing interface and a TTL of
  /// 64 are set.
  /// Deliberate: a direct stream tries twice and then indicates Timeout, whatever the system's error was, which only
  /// the console is told; an indirect one tries once and indicates Failed with the errno. Programs tell the two kinds
  /// of socket apart by it. Pinned by socket_connect_test.cpp, ADirectStreamThatIsRefusedTriesTwiceAndTimesOut and
  /// AnIndirectStreamThatIsRefusedIsToldOnceWithTheError.
  ///   addr, port  host order
  ///   returns     0
  int Connect(ULONG addr, UWORD port);
  /// The same for an address and its port.
  ///   returns   0
  int Connect(SockAddr& sa);
  /// The same by text: an address, or a host name that is resolved in the background (dnsentry.h). A name that cannot
  /// be resolved is reported as DisconnectIndication(Failed, 0).
  ///   returns   0; -1 for an empty or null text and for 0.0.0.0, after closing the descriptor
  int Connect(const char* addr, UWORD port);
  /// Starts an accepted connection; call it when a layer is bound.
  ///   returns   0
  int ConnectAck();
  bool Connected();  ///< state is SSConnected

  /// Waits for connections, with a backlog of 4 in the system. fn(obj, socket, 0) is called for each: it takes the
  /// socket, binds a layer and calls ConnectAck, or refuses with Free.
  ///   returns   0 or errno
  ///   threads   fn: the dispatcher of listenqtrigger, inside no section
  /// Deliberate: when fn deletes the listener itself, the dispatching thread keeps AsyncSocket::cs for good, and with
  /// it the networking of the process stands still: programs that end that way rely on nothing more being accepted
  /// or indicated. To retire a listener safely, Free it outside fn, from a timer's callback for instance. Pinned by
  /// socket_listen_test.cpp, TheThreadThatDispatchedKeepsTheClassSectionWhenTheCallbackDeletesItsListener.
  int Listen(OSCallbackFunction fn, void* obj);
  /// Accepts one connection now, for programs that wait for the listener themselves.
  ///   skt         adopts the connection
  ///   addr, port  the peer, host order; each may be null
  ///   returns     0 or errno. rem_sin of this socket becomes the peer's address.
  int Accept(AsyncSocket* skt, ULONG* addr, UWORD* port);
  void Shutdown();  ///< shutdown(2) of both ways
  /// Closes the descriptors, stops the socket's own thread, frees what is queued. The socket can be created anew.
  ///   threads   any but the socket's own
  void Close();
  /// Closes and deletes the socket; nothing is indicated to its partner after that. Waits for the monitor thread to
  /// let go of it, and for a callback of it that another thread is in. Ignored for a null socket.
  ///   threads   any but the monitor thread, inside no section; from the socket's own indications too
  void Free();

  // ---- TLS (assl.h) ------------------------------------------------------------------------------------------
  //
  // A socket whose `secure` is set before it is connected, or before ConnectAck, starts TLS by itself, in the role that
  // fits, with options 0 and no peer name. Until the handshake is done nothing is sent or received in the clear, what is
  // given to send is queued, and ConnectIndication waits. A handshake that fails is DisconnectIndication(Failed, 1), or
  // (Failed, 0) when its first step, inside ConnectAck, fails already; a connection that ends later is
  // DisconnectIndication(Failed, code) with the SSL_get_error(3) code: 6 when the peer closed the session, 5 when the
  // connection broke off.

  /// Names the files for the socket's sessions, see SSLInfo::Initialise. Each may be null for the default. Copied.
  ///   returns   0
  ///   threads   one that starts no session of this socket meanwhile
  int SetCertificates(const char* cert_name, const char* key_name, const char* ca_name);
  /// Starts TLS on a connected stream, by hand. Beware: what has been received before is delivered as data all the same,
  /// in front of the session's own, and whoever stands in the middle may have put it there. A program that starts TLS
  /// in the middle of a connection looks that nothing waits in q.
  ///   server     the accepting role. The client role waits up to 5 s for the connection to come up.
  ///   options, peer_name  as for SSLInfo::Setup
  ///   returns    0 established, and nothing is indicated for it; -1 refused, not set up, or the handshake goes on (then
  ///              it is led by the thread that receives, which indicates its outcome); 1 the handshake has failed
  ///   threads    any, inside no section
  int StartSSL(bool server, ULONG options, char* peer_name);
  /// Sends the close notification and goes back to the clear. 0.
  int StopSSL();

  // ---- Options and information -------------------------------------------------------------------------------

  void SetDiffServ(UBYTE diffserv);  ///< the whole type-of-service byte (IP_TOS) as it is
  /// Lets reads of 1680 bytes and more take a buffer of their size: one of class 0 with storage on the heap.
  /// Deliberate: without it a read takes 1600 bytes, and what a datagram has behind them is lost without a word. The
  /// pools' largest class bounds what a peer can make the socket hold; programs whose peers send longer ones set
  /// this. Pinned by socket_receive_datagram_test.cpp, WithoutLargeBuffersIsCutTo1600.
  void SetBigBuffers(bool allowed);
  ULONG LocalIP_n();     ///< local address, network order; asks the system while it is 0
  ULONG LocalIP_h();     ///< the same in host order
  UWORD LocalPort();     ///< local port, host order; asks the system while it is 0
  char* RemoteIPText();  ///< rem_sin as text, in rem_sin.addr_str
  ULONG RemoteIP_n();    ///< rem_sin's address, network order
  ULONG RemoteIP_h();    ///< host order
  UWORD RemotePort();    ///< host order

  /// Starts the networking layer: monitor thread, name cache. The constructor calls it.
  ///   returns   TRUE
  ///   threads   any, several at once
  static BOOL Init();
  /// Stops it: joins the threads, closes the wake-up pipe, forgets the sockets, which are not deleted. Init starts it
  /// again.
  ///   threads   the stopping thread, before os_cleanup, when no socket is used any more
  static void Cleanup();

  static void SetPrimaryAddress(ULONG ipaddr);  ///< local_ipaddr, host order; start-up
  static void SetPrimaryInterfaces(char* i0);   ///< local_ifname[0]; lent for good; start-up
  /// The local address from which a destination is reached.
  /// Deliberate: once modulePublicIPAddress is set, what is private is judged by RFC 1918 alone. The network that
  /// SockAddr::SetPrivateNetwork names may itself lie behind the public address. Pinned by
  /// socket_interface_test.cpp, TheSitesOwnPrivateNetworkDoesNotCountHere.
  ///   dest      host order; 255.255.255.255 means any
  ///   returns   host order; 0 when there is none
  static ULONG LookupIface(ULONG dest);
  /// Writes the machine's MAC address, 6 bytes, to mac. The first call decides real_hardware.
  ///   skipeth1  on the appliance's hardware, do not take eth1's
  ///   returns   whether there is one
  static bool LookupInterfaceMac(UBYTE* mac, bool skipeth1);
  static BOOL CheckForLocalIP(ULONG ipaddr);  ///< whether ipaddr, host order, is an address of this machine

  // ---- The machinery: called by the library, public for programs that extend it ------------------------------

  /// The monitor thread's entry; Init starts it. Runs until monitor_stop. null.
  static void* MonitorThread(void* unused);
  /// Makes the monitor thread look at all sockets again, after a program has changed a socket's fields itself.
  static void WakeMonitorThread();
  void StartTask();  ///< starts reception: Create, Connect, Listen and ConnectAck call it
  /// The entry of a direct socket's receive thread: connects if that is still to be done, then calls Poll for as
  /// long as `running` says so. null.
  ///   p         the socket
  static void* Main(LPVOID p);
  /// The entry of a direct listener's thread: accepts and queues connections while `running` says so. null.
  ///   p         the socket
  static void* ListenMain(LPVOID p);
  /// A receive buffer for `size` bytes, from the pools (indirect) or the ring (direct); null when there is none.
  OSBuf* AllocBuffer(int size);
  /// The callback of qtrigger: passes what waits in q to Receive, for about 100 ms, and arms qtrigger again.
  ///   obj         the socket; nothing happens when it is gone
  ///   addr        not used
  ///   generation  which socket at that address; 0 for any
  static void _QCallback(OSObj* obj, ADDR addr, ULONG generation);
  /// The callback of listenqtrigger: makes a socket of each connection in listenq (GetNewSocket), gives it the peer's
  /// address and the listener's `secure`, and hands it to the function given to Listen. Arms listenqtrigger again.
  ///   obj, addr, generation  as for _QCallback
  static void _ListenQCallback(OSObj* obj, ADDR addr, ULONG generation);
  /// The callback of startRetry: tries once more to start the thread, unless the socket has been closed.
  ///   obj, unused_addr, generation  as for _QCallback
  static void StartRetry(OSObj* obj, ADDR unused_addr, ULONG generation);
  /// Buffer-free callback of a large read: deletes its array.
  static void LargeBufferCallback(OSObj* array, ADDR unused_addr, ULONG unused_value);
  /// What the name cache answers: connects to addr (host order), or reports the failure when it is 0.
  void DNSResult(const char* name, ULONG addr);

  int s;     ///< the descriptor; -1 without one. Accessed atomically.
  int rtps;  ///< a second datagram descriptor for sends, -1 without; owned once set. Accessed atomically.
  bool indirect_socket;  ///< constant after construction
  int state;             ///< a SocketState. Accessed atomically.
  bool deleted;  ///< Free has been called. Accessed atomically; set before the monitor thread is woken
  bool
      deletedAck;  ///< the monitor thread has let go. Accessed atomically; what it did before is seen after it
  bool receive_started;         ///< accessed atomically
  bool big_buffers_allowed;     ///< see SetBigBuffers. Accessed atomically.
  int type;                     ///< SOCK_STREAM or SOCK_DGRAM; 0 until Create
  bool listener;                ///< accessed atomically
  OSCallbackFunction listenFn;  ///< Listen's fn
  void* listenObj;              ///< Listen's obj
  OSIndirectList earlyData;   ///< given to send before there was a connection or destination; under local_cs
  OSQueue listenq;            ///< accepted connections, SocketLinks; under local_cs
  OSQTrigger listenqtrigger;  ///< runs _ListenQCallback
  OSQueue q;                  ///< received buffers of an indirect socket; under local_cs
  OSQTrigger qtrigger;        ///< runs _QCallback
  pthread_t thread;           ///< the own thread of a direct socket; 0 without one
  bool running;               ///< reception is running. Accessed atomically.
  SockAddr loc_sin;           ///< local address
  SockAddr rem_sin;           ///< peer, or destination of datagrams
  int rem_sin_len;            ///< 16
  OSBuf* alloc_buf;           ///< the receive buffer being filled
  CRITICAL_SECTION local_cs;  ///< after AsyncSocket::cs; held over queue operations, never over an indication
  RingBuffer* ring;           ///< receive buffers of a direct socket; null without
  ULONG oob_count;            ///< how often the ring had none. Written by the receive thread, atomically
  bool dont_read;             ///< too much is waiting in q; written under local_cs, read atomically
  OSTimerTrigger* startRetry;  ///< tries again to start the thread; made when needed; under cs
  ULONG retryTimeout;          ///< ms before that
  DNSEntry* dnsentry;          ///< the name this socket waits for; under DNSEntry::cs
  bool secure;                 ///< the connection is to run TLS
  int secure_state;            ///< a SecureState. Accessed atomically.
  SSLInfo* ssl_info;           ///< its session; owned; null before TLS has been started. Accessed atomically.
  char* cert;                  ///< certificate file; owned, from malloc
  char* key;                   ///< private-key file; owned, from malloc
  char* ca;                    ///< CA file; owned, from malloc

  static bool AsyncInitDone;       ///< Init has run. Accessed atomically.
  static bool real_hardware;       ///< on the appliance's own hardware; set by the first LookupInterfaceMac
  static OSIndirectList* sockets;  ///< every live socket, in order of construction; under cs
  /// The class-wide lock: guards `sockets` and thread starts. The monitor thread holds it while it handles ready
  /// sockets. Between DNSEntry::cs and a socket's local_cs.
  static CRITICAL_SECTION cs;
  static int trace;  ///< 0 silent, 1 normal, 2 adds data; start-up, or any time as a hint
  static char*
      local_ifname[7];  ///< interfaces searched for the own address, null at the end; [0] is the primary one
  static ULONG local_ipaddr;              ///< primary local address, host order; 0 when not set
  static SockAddr moduleIPAddress;        ///< for the application
  static SockAddr modulePublicIPAddress;  ///< the outside address; used by LookupIface
  static pthread_t monitor_thread;        ///< 0 when it is not running
  static bool monitor_stop;               ///< asks the monitor thread to stop. Accessed atomically.
  static int sigfd;                       ///< read end of the monitor thread's wake-up pipe
  static int sigpipefd;                   ///< write end. Accessed atomically.
  static OSTrigger* dnstrigger;           ///< delivers the name cache's results

 private:
  friend class DNSEntry;
  friend class RingBuffer;
  friend class SessionUse;
  friend class SocketMonitor;
  friend class SocketRegistry;
  friend class TPKTSocket;

  struct __attribute__((visibility("hidden"))) Texts;

  // Creation (asocketX_create.cpp).
  int create(const Texts& texts, int Atype, UWORD port, ULONG addr, bool reuse_allowed, bool send_timeout);
  int create_multicast(const Texts& texts, SockAddr& addr, MulticastFlags flags, SockAddr* pifaddr,
                       bool start);
  int join_group(const Texts& texts, const SockAddr& interface_addr);
  void set_multicast_options();
  void refresh_local_address();
  SockAddr end_of(const SockAddr& end);

  // Reception (asocketX_receive.cpp, asocketX_thread.cpp).
  void accept_one();
  bool wait_until_readable();
  void drop_urgent_byte();
  OSBuf* take_received(int* left);
  bool stop_reading();
  int waiting_bytes();
  OSBuf* receive_buffer(int* waiting);
  OSBuf* read_once(OSBuf* buf, int waiting);
  void hold_back(bool from_ring);
  bool may_report_exhaustion();
  void indicate_failure(int code);
  void indicate(UBYTE what, int reason, int code);
  void queue_connection(int descriptor, SockAddr& peer);
  void start_thread_locked();
  bool connect_blocking();
  void retry_start();
  void receive_until_stopped(const SocketVisit& visit);
  void send_early_data_blocking(const SocketVisit& visit);
  bool is_own_thread();

  // Sending (asocketX_send.cpp).
  enum class Queued { kQueued, kConnected, kDisconnected };
  Queued queue_until_connected(OSBuf* buf);
  bool merge_early_locked(OSBuf* buf, bool* emptied);
  bool append_early_locked(OSBuf* buf);
  void remove_early(OSBuf* buf);
  bool sends_early_data();
  OSIORetCode send_stream(OSBuf* buf);
  OSIORetCode fail_stream(OSBuf* buf, int code, ULONG connection);
  bool wait_for_room(ULONG start, int* code);
  OSIORetCode send_datagram(OSBuf* buf);
  bool hold_datagram(OSBuf* buf, OSIORetCode* result);
  void release_held_datagrams(bool send);
  int send_some(const UBYTE* bytes, int count, ULONG connection);

  // TLS (asocketX_secure.cpp).
  bool is_to_be_secure();
  bool was_never_secured();
  bool sends_in_the_clear();
  bool become_secure(const SSLInfo* session);
  void lead_handshake();
  bool wait_for_peer(bool to_write);
  void finish_handshake_blocking();
  void receive_secured();
  OSIORetCode send_secured(OSBuf* buf);
  bool queue_behind_early(OSBuf* buf, OSIORetCode* result);
  bool send_early_data_secured();
  void end_secured(int code);
  SSLInfo* take_session();

  // Ending (asocketX_end.cpp).
  void close_descriptors();
  void join_own_thread();
  void drop_queued();
  void stop_receiving();
  void leave_registry();
  void leave_name_cache();

  /// Tells this socket from an earlier one at the same address; never 0. Constant after construction.
  ULONG generation_;
  OSLink* listed_;  ///< this socket's link in `sockets`; under cs

  // What the monitor thread knows of the socket; under cs unless it says otherwise.
  int watched_fd_;             ///< registered with the monitor, -1 when none
  unsigned watched_events_;    ///< what for
  AsyncSocket* next_changed_;  ///< in the monitor's list of sockets to look at again; under its own lock
  bool changed_;               ///< is in that list; under the same lock
  ULONG retry_at_;             ///< tick at which reading or accepting is tried again
  bool retrying_;              ///< is held back until then
  bool urgent_;                ///< an urgent byte is what the present Poll is for
  bool early_waiting_;         ///< earlyData is not empty; written under local_cs, read atomically
  int connect_error_;          ///< of the connection attempt that Poll has yet to report; 0 for none
  /// The monitor thread reads no more because of dont_read, and wants to be told when it may. Accessed atomically; see
  /// stop_reading.
  bool reading_stopped_;
  bool input_held_;     ///< a subclass holds received bytes back until the queue has been taken down
  bool session_holds_;  ///< the TLS session does, which the descriptor does not show
  /// A datagram socket's peer has been named, and what is sent waits in earlyData until it is found. Written under
  /// local_cs, read atomically.
  bool awaits_address_;

  ULONG exhaustion_at_;  ///< when a listener last said that there are no descriptors; the accepting thread
  bool exhaustion_reported_;  ///< it has

  /// Held over each send(2), never over a wait, and while the descriptor is closed: a sender never writes into a
  /// descriptor whose number has been given to another socket. Behind cs and local_cs; only the
  /// lock of the TLS session is taken inside it.
  std::mutex send_mutex_;
  /// How many descriptors have been closed, which tells a connection from the next one of the same socket. Written
  /// under send_mutex_, read atomically.
  ULONG connection_;
  /// Whoever destroys the socket could not wait for its thread to leave it: the thread is let go, not joined.
  bool thread_abandoned_;
};

#endif
