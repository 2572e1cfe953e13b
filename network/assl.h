/// @file
/// TLS over asynchronous sockets, by OpenSSL.
///
/// A program calls SSLInfo::Initialise once with its default certificate, key and CA files. After that a socket whose
/// `secure` is set runs TLS as soon as it is connected (asocketX.h), or StartSSL starts it by hand. SSLInfo is the
/// session behind it; programs seldom touch one themselves.
#ifndef OSKERNEL_ASSL_H
#define OSKERNEL_ASSL_H

#include <openssl/ssl.h>

#include <atomic>
#include <mutex>

#include "buffer.h"
#include "io.h"
#include "link.h"
#include "posixkernel.h"
#include "trigger.h"
#include "types.h"

/// One TLS session over a connected stream descriptor, with a context of its own.
///
/// Nothing here waits for the network, whatever the descriptor's mode: what would block comes back, and whoever
/// watches the descriptor calls again. Nothing raises SIGPIPE.
///
/// Life: construct, Setup, Handshake until it is not negative, then Recv and DataIndication, Stop, destroy. A
/// handshake that fails frees `ssl`; every operation copes with that.
///
/// Beware: a client verifies its server against the CA file and a server whose `options` bit 0 is set its clients, but
/// a certificate that its owner has signed himself is accepted unless bit 1 is set, and whoever stands in the middle
/// can present such a one. Set bit 1 and name the peer where that matters.
///
/// Threads: any number of them may use one session at once; a section of its own, the innermost of all, is held over
/// each OpenSSL call and over no callback, wait or console line. Setup comes before the others and the destructor
/// after them; only a retry of the send queue that is running is waited for.
class OSKERNEL_API SSLInfo {
 public:
  ///   fd         a connected stream descriptor; shares, and never closes it
  ///   is_server  the accepting side
  SSLInfo(int fd, bool is_server);
  /// Stops the session, frees what waits to be sent.
  ~SSLInfo();
  SSLInfo(const SSLInfo&) = delete;
  SSLInfo& operator=(const SSLInfo&) = delete;

  /// Prepares OpenSSL and stores the files that are used where a socket names none of its own.
  ///   cert      certificate chain, PEM; lends for good, as the others. May be null when every socket has its own.
  ///   key       private key, PEM, not encrypted
  ///   ca        CA certificates, PEM
  ///   returns   0, also when it has been called before: then only the names are replaced; -1 without OpenSSL, -2
  ///             without the Diffie-Hellman group
  ///   threads   the starting thread, before any socket starts TLS
  static int Initialise(char* cert, char* key, char* ca);

  /// Makes the context and the connection.
  ///   options    bit 0: a server asks its clients for a certificate and verifies it, as clients always do. bit 1:
  ///              Handshake refuses a peer whose certificate is self-signed.
  ///   peer_name  the subject that the peer's certificate must have, whole and to the letter, as X509_NAME_oneline(3)
  ///              writes it: "/C=SE/O=Works/CN=gate". Null for any. Copied.
  ///   cert, key, ca  files as for Initialise; null for the default. The CA file is read only where the peer is
  ///              verified.
  ///   returns    0; 1 when a step failed, with nothing left behind; -1 when SSL_new(3) did, the context stays then.
  ///              OpenSSL's errors are printed as "SSL/TLS (0x%08lx): %s: %s".
  int Setup(ULONG options, char* peer_name, const char* cert, const char* key, const char* ca);

  /// One step of the handshake, and the examination of the peer behind the last one.
  ///   returns   0 established; -1 not yet, call again when the descriptor is ready; 1 failed, `ssl` is freed
  int Handshake();
  /// Reads up to 1600 bytes of what the peer has sent.
  ///   out       *returns* a buffer; null when there is nothing now, or no buffer
  ///   returns   0, or the SSL_get_error(3) code that ended the session: 6 when the peer has closed it, 5 when the
  ///             connection broke off
  int Recv(OSBuf** out);
  /// Writes a buffer. What the connection does not take now is queued and tried again every 10 ms, up to 11 buffers.
  /// Deliberate: each try writes the first queued buffer once, so that a queue drains at one write in 10 ms, however
  /// much the connection would take. A session that has stalled does not push the others aside when it goes on.
  /// Pinned by tls_session_retry_clock_test.cpp, IsMadeOnceHoweverLateItComes.
  ///   takes     buf
  ///   returns   Success; NoConnection when the session is not established, the queue is full or writing failed
  OSIORetCode DataIndication(OSBuf* buf);
  void SendQTrigger();  ///< the retry: writes the first queued buffer once
  /// The callback of sendqtrigger: SendQTrigger on the session obj, unless it is gone.
  ///   generation  which session at that address; 0 for any
  static void _SendQTrigger(OSObj* obj, ADDR unused_addr, ULONG generation);
  int Stop();  ///< sends the close notification of an established session; 0
  /// Says what the result `ret` of the OpenSSL call `what` means, and prints it.
  ///   returns   the SSL_get_error(3) code. A connection that breaks off without a close notification is
  ///             SSL_ERROR_SYSCALL (5).
  int Error(const char* what, int ret);

  int s;                            ///< the descriptor; -1 from when the socket closes it
  bool server;                      ///< constant after construction
  const SSL_METHOD* method;         ///< chosen by Setup
  SSL_CTX* ssl_ctx;                 ///< owned
  SSL* ssl;                         ///< owned; null before Setup and after a failed handshake
  BIO* rbio;                        ///< the BIO on s, for both ways; ssl's
  BIO* wbio;                        ///< the same
  char x509_peer_name_string[256];  ///< the peer's subject on one line, cut when it is longer
  ULONG options;                    ///< Setup's
  char* peer_name;                  ///< Setup's; owned, from malloc
  OSIndirectList sendq;             ///< buffers that wait to be written
  OSTimerTrigger sendqtrigger;      ///< retries sendq

  static int ssl_debug;     ///< not 0: tells more about set-up, verification and ends; 1 at first
  static DH* ssl_dhe1024;   ///< the group of get_dh1024, made once
  static long context_num;  ///< contexts made so far; its first 4 bytes are a context's session id context
  static char* cert_file;   ///< Initialise's
  static char* key_file;    ///< Initialise's
  static char* ca_file;     ///< Initialise's
  static bool initialised;  ///< Initialise has succeeded
  /// OpenSSL's security level of every context made from now on, secure blocking sockets included. 1 admits the
  /// 1024-bit group. 0 is needed for peers with SHA-1 certificates and for TLS 1.0 and 1.1, which it also admits; at
  /// 2, the usual default, the group is refused and with it every client and every server that verifies its clients.
  static int security_level;

 private:
  friend class AsyncSocket;
  friend class SessionUse;
  friend class SocketMonitor;
  class __attribute__((visibility("hidden"))) Lines;
  struct __attribute__((visibility("hidden"))) Outcome;
  struct __attribute__((visibility("hidden"))) Read;
  struct __attribute__((visibility("hidden"))) Retry;

  // Setting up (assl_setup.cpp).
  bool make_context(const char* cert, const char* key, const char* ca);
  bool choose_verification(const char* ca);
  static bool fail(const char* what);

  // What has become of calls (assl.cpp).
  Outcome outcome_locked(const char* what, int ret) const;
  bool peer_is_accepted_locked(Lines* lines);
  Read read_some();
  bool has_session();
  bool has_pending();
  bool wants_write();
  Retry retry_once();
  static void finish(const Retry& retry);
  bool flush();

  // The socket's: whoever uses its session shares it meanwhile, and the last one deletes it.
  void detach();
  void share();
  static void release(SSLInfo* session);
  static void retire(SSLInfo* session);

  /// Held over each call on `ssl` with its SSL_get_error, and over "queue empty, write, append". The innermost of all
  /// but the link pool's; nothing is called upward, waited for or printed inside it.
  std::mutex session_mutex_;
  ULONG generation_;  ///< tells this session from an earlier one at the same address; never 0
  std::atomic<int>
      users_;  ///< the owner, and those who use it at the moment; the last one of a socket's deletes it
};

/// The published 1024-bit SKIP group, generator 2: what OpenSSL's sample file dh1024.pem holds.
///   returns   a new DH, the caller's to DH_free(3); null without memory
OSKERNEL_API DH* get_dh1024();

#endif
