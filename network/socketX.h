/// @file
/// The blocking TCP and UDP socket.
///
/// For service programs, provisioning and diagnostics: code that prefers to wait for its data. Everything happens on
/// the caller's thread; no thread of the library watches these sockets. Programs that serve many connections use
/// the asynchronous sockets of asocket.h.
///
/// Include socket.h; it brings the whole family.
#ifndef OSKERNEL_SOCKETX_H
#define OSKERNEL_SOCKETX_H

#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>

#include <memory>

#include "buffer.h"
#include "io.h"
#include "link.h"
#include "link_stream.h"
#include "posixkernel.h"
#include "types.h"

/// A socket over one IPv4 descriptor.
///
/// States (`state`):
///
///               construct        Connect()    failed receive  Close()
///                                             or send
///   INVALID     nothing usable;  CONNECTED,   stays           stays
///               UDP to a host    or stays
///   READY       bound or         CONNECTED,   -> INVALID      -> INVALID
///               listening        or stays
///   CONNECTED   to a host, or    CONNECTED,   -> INVALID      -> INVALID
///               accepted         or stays
///
/// A constructor that fails leaves `s` at -1 and the state INVALID. A receive or send that fails leaves the descriptor
/// open: Close ends it.
///
/// The class is a layer: whoever is bound to it hands it buffers with DataIndication. It never indicates anything
/// itself; what arrives is fetched with RecWait.
///
/// Threads: one at a time for each socket; different sockets are independent. Nothing raises SIGPIPE, descriptors
/// above 1023 work. Addresses in console lines are in host order.
class OSKERNEL_API Socket : public OSIO {
 public:
  /// The kind of socket. Any value but UDP makes a stream socket.
  enum Type {
    UDP = 0,         ///< datagrams
    TCP_CLIENT = 1,  ///< a stream that connects
    TCP_SERVER = 2   ///< a stream that listens, or has been accepted
  };

  /// A bound socket. SO_REUSEADDR is on, the send time-out is 5 s.
  ///   port      host order; 0 for any
  ///   waits     listens for connections, with a backlog of 4 in the system
  ///   addr      host order; 0 for local_ipaddr, which when 0 itself means any
  ///   Failures  "Socket: socket() error %d", "Socket: bind() error %d for port %d", "Socket: listen() error %d"
  Socket(Type kind, UWORD port, bool waits, ULONG addr);
  /// Wraps a connected descriptor; CONNECTED. Its options stay as they are.
  ///   takes     descriptor
  ///   lends     remote, the peer's address, of which at most `len` bytes are copied; null for none
  Socket(Type kind, int descriptor, sockaddr_in* remote, int len);
  /// A client, bound to local_ipaddr. A TCP_CLIENT is connected, for which it waits up to 2 s; any other type has its
  /// peer's address only, and stays INVALID with an open descriptor.
  ///   host      an address in dotted form when it begins with a digit, otherwise a name, for which the system's
  ///             resolver is waited for. Lent.
  ///   port      host order
  ///   Failures  "Socket: socket() error %d", "Socket: bind() error %d for %08x", "Socket: couldn't resolve host %s",
  ///             "Socket::Socket() connect() error %d to %08x:%u from %08x:%u", error 110 (ETIMEDOUT) after 2 s
  /// Deliberate: a text that begins with a digit is never looked up, so "3com.example" is no host. Programs rely on
  /// an address that somebody has mistyped failing at once. Pinned by blocking_socket_client_test.cpp,
  /// ATextThatBeginsWithADigitIsNeverLookedUp.
  Socket(Type kind, char* host, UWORD port);
  /// Closes the socket and frees what is queued.
  ~Socket() override;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // ---- Sending: what the layer above calls -------------------------------------------------------------------

  /// Sends a buffer's data with one send(2), which waits up to the send time-out.
  /// Deliberate: what the system does not take at once is not sent later, and Success is returned. Programs rely on no
  /// call taking longer than one send time-out. Pinned by blocking_socket_send_test.cpp, APartialSendIsNotContinued.
  ///   takes     buf
  ///   returns   Success; NoConnection when sending failed: "Socket::DataIndication: send() error %d to %08x:%u from
  ///             %08x:%u", INVALID
  OSIORetCode DataIndication(OSBuf* buf) override;
  /// Deliberate: does nothing. The buffer stays the caller's though Success is returned; callers of these two free
  /// it. Pinned by blocking_socket_send_test.cpp, ExpeditedDataAndDatagramsAreLeftWithTheCaller.
  OSIORetCode DataExpeditedIndication(OSBuf* buf) override;
  OSIORetCode DatagramIndication(OSBuf* buf, void* remote,
                                 void* local) override;  ///< does nothing, as the last

  // ---- The socket's own operations, in the order of their slots ----------------------------------------------

  /// Waits for data and returns all that has come as one buffer, up to 65535 bytes; of a datagram socket, one
  /// datagram.
  ///   timeout_ms  0 asks only; negative is an error
  ///   returns     the buffer, the caller's. Null when nothing has come, at the end of the stream (INVALID, no line),
  ///               when the wait has failed or was interrupted ("Socket::RecWait: select() %d"), when urgent data is
  ///               there ("Socket::RecWait: exception condition on socket", INVALID; together with ordinary data it
  ///               counts as a failed wait and the state stays), when the receive failed (a line, INVALID), or when
  ///               the buffer pools are empty (the state stays).
  /// Deliberate: an empty datagram ends the socket's READY or CONNECTED state like the end of a stream; programs
  /// treat null with INVALID alike for both. Pinned by blocking_socket_receive_test.cpp, AnEmptyDatagramCountsAsTheEnd.
  virtual OSBuf* RecWait(int timeout_ms);
  /// Waits until exactly len bytes have come.
  ///   buf       room for len bytes; lent
  ///   len       0 or less returns 0 at once
  ///   returns   0; 3 after 10 s of silence (what has come till then is in buf); 1 when urgent data is there; 2 when
  ///             the wait ended with nothing to read; -1 on failures and at the end of the stream. INVALID after 1, 2
  ///             and -1.
  /// Deliberate: a wait that fails or is interrupted by a signal counts as urgent data. Programs close the socket
  /// then. Pinned by blocking_socket_receive_failure_test.cpp, AnInterruptedWaitOfTheByteFormCountsAsAnException.
  virtual int RecWait(UBYTE* buf, int len);
  /// Waits for a connection, without limit.
  ///   returns   a new Socket of type TCP_SERVER, the caller's to delete; null after "Socket::Accept: accept() %d"
  virtual Socket* Accept();
  /// Ends the connection, takes in what the peer has still sent until its end, for 5 s at most, and closes the
  /// descriptor; INVALID. No effect but the state when there is none.
  virtual void Close();
  /// Puts a buffer at the end of `queue`.
  ///   takes     buf
  ///   returns   0
  virtual int Queue(OSBuf* buf);
  /// Passes every queued buffer to the (virtual) DataIndication, first to last, whatever that answers.
  ///   verbose   prints "Socket::FlushQueue() size=%d to %s" first
  ///   returns   0
  virtual int FlushQueue(bool verbose);
  /// Connects; waits without limit. Failures print "Socket::Connect(addr,port) connect() error %d to %08x:%u from
  /// %08x:%u" and leave the state as it was; remote_sin is the new peer all the same.
  ///   addr, port  host order
  virtual void Connect(ULONG addr, UWORD port);
  virtual void ConnectAck();  ///< does nothing
  /// Sends one datagram.
  ///   takes       buf
  ///   addr, port  the destination, host order
  ///   returns     Success; NoConnection when sending failed: "Socket::SendTo: sendto() error %d to %08x:%u from
  ///               %08x:%u", INVALID
  virtual OSIORetCode SendTo(OSBuf* buf, ULONG addr, UWORD port);
  virtual bool Secure();  ///< false

  // ---- Information -------------------------------------------------------------------------------------------

  char* RemoteIPText();    ///< the peer's address in dotted form; the socket's, until the next call
  ULONG RemoteIP_n();      ///< the peer's address, network order
  ULONG RemoteIP_h();      ///< the same in host order
  char* RemoteHostname();  ///< the official name of the host that was looked up; null when none was
  UWORD RemotePort();      ///< host order
  /// The local address, network order; asks the system while it is 0, and prints "Socket::LocalIP_n: getsockname()
  /// error %d" when that fails.
  ULONG LocalIP_n();
  ULONG LocalIP_h();  ///< the same in host order
  UWORD LocalPort();  ///< host order; asks the system while it is 0

  /// Prepares `cs`, the first time, and sets the default local address. Every constructor calls Init(0).
  ///   addr      becomes local_ipaddr unless it is 0; host order
  ///   returns   TRUE
  ///   threads   any
  static BOOL Init(ULONG addr);

  Type type;  ///< as constructed
  /// Where the socket stands; the table above says what moves it on.
  enum {
    INVALID,               ///< not usable, or failed, or closed
    READY,                 ///< bound or listening
    CONNECTED              ///< has its peer
  } state;                 ///< see above
  sockaddr_in local_sin;   ///< local address
  sockaddr_in remote_sin;  ///< peer
  int s;                   ///< the descriptor; -1 when there is none
  OSStream queue;          ///< buffers that wait for FlushQueue
  hostent* phostent;       ///< the entry of the host that was looked up: rmthostent; or null
  hostent rmthostent;      ///< a copy of that entry, the socket's own; zero when none was
  fd_set readfds;          ///< read set of the last wait; empty for descriptors above 1023
  fd_set exceptfds;        ///< exception set of the last wait, likewise

  /// Guards socket_list. A leaf but for the link pool's section.
  static CRITICAL_SECTION cs;
  static OSIndirectList socket_list;  ///< every socket, in order of construction; under cs. Lends.
  /// Default local address of new sockets, host order; 0 for any. Accessed atomically.
  static ULONG local_ipaddr;

 private:
  friend class SecureSocket;

  void enlist();
  bool open_descriptor(int stream_protocol, int datagram_protocol);
  void drop_descriptor();
  bool bind_to(ULONG addr, UWORD port);
  bool refresh_local(const char* who);
  bool resolve(const char* host);
  int connect_within_limit();
  int connect_without_limit();
  void report_failure(const char* what, int error, const sockaddr_in& to);
  int wait_for_input(int timeout_ms, bool* readable, bool* exceptional);
  int check_input(const char* who, bool readable, bool exceptional);
  int waiting_bytes();
  void drop_empty_datagram();
  int accept_one(sockaddr_in* peer, int* length);
  bool is_datagram_descriptor();
  void drain();

  std::unique_ptr<char[]> host_storage_;  ///< what rmthostent points to
  char remote_text_[INET_ADDRSTRLEN];     ///< RemoteIPText's
};

#endif
