/// @file
/// TLS over the blocking socket, with a set-up of its own: fixed certificate files, no verification of the peer.
///
/// Include socket.h; it brings the whole family.
#ifndef OSKERNEL_SOCKETX_SECURE_H
#define OSKERNEL_SOCKETX_SECURE_H

#include <openssl/ssl.h>

#include "socketX.h"

/// A blocking socket that runs TLS, for the appliance's own service connections.
///
/// A server accepts (Accept), then starts TLS (ConnectAck). A client's constructor does it, but beware:
/// Deliberate: the handshake waits for the peer's first byte before it says anything itself, in both roles. Against an
/// ordinary server, which waits for the client, it ends after 10 s with 1. The appliance's service peers speak first.
/// Programs that are clients of other servers use the asynchronous sockets. Pinned by secure_socket_handshake_test.cpp,
/// AClientWaitsForItsPeerToSpeakFirst.
///
/// Both roles show the certificate of /Korvantel/Web/prov/ldaps.cer and .key, or, when that chain does not load, that
/// of /Korvantel/certs/RN4400.cer and .key with KorvantelCA.cer. Any peer is accepted, with any certificate or none:
/// whoever stands in the middle is too. SSLInfo::security_level (assl.h) holds here as well.
///
/// Threads: one at a time for each socket. The waits are those of Socket, and up to 10 s for each round of a handshake.
class OSKERNEL_API SecureSocket : public Socket {
 public:
  SecureSocket(Type kind, UWORD port, bool waits, ULONG addr);  ///< as Socket's; no TLS yet
  SecureSocket(Type kind, int descriptor, sockaddr_in* remote,
               int len);  ///< as Socket's; TLS begins with ConnectAck
  /// As Socket's, and then StartSSL(false) when the connection is up. `state` stays CONNECTED when that fails: ask
  /// Secure().
  SecureSocket(Type kind, char* host, UWORD port);
  ~SecureSocket() override;  ///< closes the socket, frees session and context

  /// Makes context and session and runs the handshake, with lines that begin with "SecureSocket::StartSSL". What an
  /// earlier call has made is freed first. The descriptor is in blocking mode afterwards. Success is left to the caller
  /// to note: the constructor and ConnectAck set ssl_connected.
  ///   server    the accepting side
  ///   returns   0 done; 1 the handshake failed; -1 no OpenSSL, or neither certificate chain loads; -2 the
  ///             Diffie-Hellman group cannot be made or the private key does not load; -3 the CA file does not load.
  ///             What has been made stays until the next call or the destructor; the session, until Close.
  int StartSSL(bool server);

  /// Writes a buffer with one SSL_write(3), which waits up to the send time-out.
  /// Deliberate: nothing is tried again and Success is returned whatever happens, a line tells of failures; what has
  /// not been written, all behind the first 16384 bytes included, is lost. Programs rely on one buffer being one
  /// attempt. Pinned by secure_socket_send_test.cpp, AWriteThatFailsIsReportedAsSuccess.
  /// Behind "SSL_write WANT_WRITE", a peer that has taken nothing for so long, the session may refuse all that follows,
  /// "SSL_write error": close it.
  ///   takes     buf
  OSIORetCode DataIndication(OSBuf* buf) override;
  /// Waits for data of the session and returns up to 1600 bytes.
  ///   timeout_ms  0 asks only; negative is an error
  ///   returns     the buffer, the caller's. One of length 0 stands for an end of the session that is found while
  ///               reading, "SecureSocket::RecWait: SSL_read EOF", and for most failures, each with its line. Null
  ///               when nothing has come in time, or no buffer is free, or there is no session; null and INVALID when
  ///               the peer has closed the session or the connection and nothing is left to read, and for urgent data.
  OSBuf* RecWait(int timeout_ms) override;
  /// Waits until exactly len bytes of the session have come.
  ///   returns   as Socket's: 0; 3 when a piece has not come within 10 s; 1, 2 or -1 with INVALID; -1 without a session
  int RecWait(UBYTE* buf, int len) override;
  /// Waits for a connection, without limit.
  ///   returns   a new SecureSocket of type TCP_SERVER, on which ConnectAck starts TLS; null after
  ///             "Socket::Accept: accept() %d"
  Socket* Accept() override;
  /// Frees the session and closes the socket as Socket does.
  /// Deliberate: no close notification is sent. Closing never waits for a peer that reads nothing, and the service
  /// peers take the end of the connection for the end of the session. Pinned by secure_socket_handshake_test.cpp,
  /// CloseTellsThePeerNothingInTls.
  void Close() override;
  int Queue(OSBuf* buf) override;         ///< as Socket's
  int FlushQueue(bool verbose) override;  ///< as Socket's; the buffers go through this class's DataIndication
  void Connect(ULONG addr, UWORD port) override;  ///< does nothing: a client connects when it is constructed
  /// Starts TLS as the server on an accepted connection; closes the socket when the handshake fails. No effect unless
  /// CONNECTED.
  void ConnectAck() override;
  /// Deliberate: refuses, Blocked, and the buffer stays the caller's, unlike with every other send: datagrams would
  /// leave in clear. Pinned by secure_socket_handshake_test.cpp, ADatagramIsRefusedAndItsBufferStaysTheCallers.
  OSIORetCode SendTo(OSBuf* buf, ULONG addr, UWORD port) override;
  bool Secure() override;  ///< the handshake is done

  SSL_CTX* ssl_ctx;   ///< owned; null before StartSSL
  SSL* ssl;           ///< owned; null before StartSSL and after Close
  bool read_blocked;  ///< a read found nothing. These three are set and never cleared here: the owner's
  bool read_blocked_on_write;  ///< a read had to write first and could not
  bool write_blocked_on_read;  ///< a write had to read first and could not
  bool ssl_connected;          ///< what Secure returns

  static bool initialized_ssl;  ///< OpenSSL has been prepared for these sockets. Accessed atomically.

 private:
  struct __attribute__((visibility("hidden"))) Result;
  struct __attribute__((visibility("hidden"))) Look;
  enum class Break : UBYTE;

  void free_session();
  void free_context();
  int make_context();
  bool make_session();
  int start(bool server);
  bool shake_hands(bool server);
  Result result_of(int ret);
  Look look(UBYTE* bytes, int room, int timeout_ms);
  Result read(UBYTE* bytes, int count);
  void note_blocked_read(int code);
  OSBuf* deliver(OSBuf* buf, const Result& result);
  int advance(const Result& result);
  int report_broken_look(const Result& result);
  Break report_broken_read(const Result& result);
};

#endif
