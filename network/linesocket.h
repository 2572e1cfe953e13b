/// @file
/// Text lines over TCP.
#ifndef OSKERNEL_LINESOCKET_H
#define OSKERNEL_LINESOCKET_H

#include <atomic>

#include "asocketX.h"
#include "io.h"

/// A layer above a TCP socket of its own that receives text lines and sends strings. Programs derive from it,
/// override Receive, and connect.
///
/// A line ends with a carriage return. Line feeds are dropped wherever they stand, and so are bytes of 128 and more.
/// Deliberate: a line that ends with a line feed alone goes on with the next one. Protocols for appliances end theirs
/// with a carriage return, and some put line feeds inside. Pinned by linesocket_test.cpp,
/// IsWhatStandsBeforeACarriageReturn.
/// What has been collected stays, across connections too, until its carriage return comes; a program that does not
/// want it sets linelen to 0 when it connects.
///
/// A program that destroys one while its dispatcher may be inside Receive frees `socket`, and sets it to null, in the
/// destructor of its own class, or destroys it on the dispatching thread (`done`): what a derived class has is gone
/// before the base waits.
///
/// Threads: Receive and the indications run on the thread that dispatches the socket's queue trigger; the sends on
/// their caller's.
class OSKERNEL_API LineSocket : public OSIO {
 public:
  /// Makes the socket, bound to the primary local address and any port.
  ///   max_line  bytes of storage that a line begins with, its terminating zero included; below 1 counts as 1
  explicit LineSocket(int max_line);
  /// Frees the socket, unless `socket` is null, and the line.
  ~LineSocket() override;

  /// The received stream.
  /// Deliberate: the length of a line is not compared with maxlinelen; a longer one is collected and delivered whole,
  /// and `line` moves to larger storage. Programs size the line for their protocol and see what a peer really sent.
  /// A line longer than max_line_bytes shuts the connection down with a console message. Pinned by
  /// linesocket_test.cpp, LongerThanAnnouncedIsDeliveredWhole.
  ///   takes     buf
  ///   returns   Success. When `done` is set the object is gone.
  ///   threads   the dispatcher of the socket's queue trigger, inside no section; Receive is called from here
  OSIORetCode DataIndication(OSBuf* buf) override;
  OSIORetCode ConnectIndication(OSIOAddress* address) override;            ///< Success; for subclasses
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override;  ///< Success; for subclasses

  void Connect(SockAddr server);                 ///< socket->Connect
  void Connect(ULONG server, UWORD port);        ///< both host order
  void Connect(const char* server, UWORD port);  ///< dotted text or host name; port host order

  /// Sends a buffer.
  ///   takes     buf
  ///   returns   as AsyncSocket::DataIndication
  virtual OSIORetCode Send(OSBuf* buf);
  /// Sends a text as it is, in buffers of up to 1600 bytes. No line end is added. When the buffers run out, which is
  /// fatal, the rest is not sent.
  ///   text      lent for the call, only read
  virtual void Send(char* text);
  /// Formats as printf, any length, and passes the text to Send(char*).
  virtual void SendF(char* format, ...) OSKERNEL_PRINTF(2, 3);
  /// A line without its end.
  ///   text      lent for the call; `line` itself, so it may be changed
  virtual void Receive(char* text);

  /// The longest line, with its terminating zero, that is collected; bytes. Programs set it at start-up.
  static int max_line_bytes;

  AsyncSocket* socket;  ///< owned
  char* line;           ///< what has been collected; owned
  int maxlinelen;       ///< as given to the constructor
  int linelen;          ///< characters collected so far
  bool done;            ///< set (inside Receive, say): the object deletes itself after the present buffer

 private:
  bool append(char c, int ceiling);
  bool grow(int needed, int ceiling);
  void refuse_line();

  int room_bytes_;  ///< of `line`; receiving thread only
  /// A line was too long: what still comes is dropped until the next Connect, which may be made on another thread
  /// and publishes nothing with it.
  std::atomic<bool> overlong_;
};

#endif
