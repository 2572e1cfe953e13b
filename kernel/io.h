/// @file
/// The interface through which protocol layers are stacked.
///
/// Every layer derives from OSIO and is bound to one partner. Data travels as message buffers: a layer calls its
/// partner's indications, and the buffer belongs to the callee from the call on. A layer that nobody is bound to
/// has OSNullIO as partner, which declines everything, so no layer ever tests for a missing partner.
#ifndef OSKERNEL_IO_H
#define OSKERNEL_IO_H

#include "link_list.h"
#include "types.h"

class OSBuf;
class OSIO;

/// The layer that declines: every operation is OSIO's default, so a buffer sent to it is freed and refused with
/// NotSupported. It is there before the first constructor of the program runs and after the last destructor, and
/// it is nobody's partner but its own.
extern OSKERNEL_API OSIO OSNullIO;

/// What a layer answers.
enum OSIORetCode {
  Success = 0,              ///< done, or on its way
  Blocked = 1,              ///< not done; a socket says in its operations why it answers so
  NoConnection = 2,         ///< there is no connection to send on
  NoRoute = 3,              ///< for layers of programs: no way leads to the peer
  NotSupported = 4,         ///< the layer has no such operation: the answer of OSIO itself
  BufferContainsResult = 5  ///< for layers of programs: the answer stands in the buffer
};

/// Why a connection ended or failed. Those for layers of programs are never indicated by the sockets.
enum OSIOReason {
  Busy = 0,         ///< for layers of programs: the peer is busy
  Congestion = 1,   ///< for layers of programs: the way to the peer is congested
  UnReachable = 2,  ///< for layers of programs: the peer cannot be reached
  Timeout = 3,      ///< a direct socket could not connect
  Failed = 4,       ///< the connection failed; the code says with what
  Normal = 5,       ///< the peer ended the connection
  Gone = 6          ///< for layers of programs: the peer does not exist any more
};

/// Line signals, a bit mask.
enum OSIOModem {
  DTR = 1,   ///< data terminal ready
  RTS = 2,   ///< request to send
  DRS = 4,   ///< for layers of programs, kept at its bit
  RI = 8,    ///< ring indicator
  DSR = 16,  ///< data set ready
  DCD = 32,  ///< data carrier detect
  CTS = 64,  ///< clear to send
  BO = 128   ///< for layers of programs, kept at its bit
};

/// Base of what Configure and Service take.
class OSKERNEL_API OSIOParam {
 public:
  /// Nothing to set up.
  OSIOParam() = default;
  /// The kind of parameter; 0 is OSIOAddress.
  virtual int Type() = 0;
  virtual ~OSIOParam();  ///< behind Type in the order of the slots
};

/// An address as text.
class OSKERNEL_API OSIOAddress : public OSIOParam {
 public:
  /// Copies up to 131 characters of text; null gives an empty address.
  explicit OSIOAddress(const char* text);
  int Type() override;      ///< 0
  ~OSIOAddress() override;  ///< nothing to release

  char destination[132];  ///< always ends with a zero byte
};

/// One layer. The virtual operations stand in the order of their slots; programs override what they support and
/// inherit the refusal of the rest.
///
/// Threads: a layer is called by the thread that has something for it, under no lock of the library; but a direct
/// socket whose name cannot be resolved says so inside DNSEntry::cs and AsyncSocket::cs. `partner` is not locked,
/// but changes as a whole: a thread that is passing data sees the old partner or the new one. Who destroys a layer
/// makes sure that no thread is in it.
class OSKERNEL_API OSIO : public OSListObj {
 public:
  /// An unbound layer: the partner is OSNullIO.
  constexpr OSIO() : partner(&OSNullIO) {}

  /// Calls UnBind() of this class, so the partner is left with OSNullIO. A layer whose partner may still call it
  /// from another thread unbinds before it is destroyed.
  ~OSIO() override;

  /// Data for this layer.
  ///   takes     buf, whatever the result. The default frees it.
  ///   returns   NotSupported by default; a layer states when it answers otherwise
  virtual OSIORetCode DataIndication(OSBuf* buf);

  /// Urgent data for this layer. The default passes it to this layer's own DataIndication.
  ///   takes     buf
  virtual OSIORetCode DataExpeditedIndication(OSBuf* buf);

  /// A datagram for this layer. The default ignores the addresses and passes it to this layer's DataIndication.
  ///   takes     buf
  ///   lends     remote and local, the peer's and the own socket address, for the call
  virtual OSIORetCode DatagramIndication(OSBuf* buf, void* remote, void* local);

  /// A connection came up. The default does nothing and returns NotSupported.
  ///   lends     address for the call
  virtual OSIORetCode ConnectIndication(OSIOAddress* address);

  /// A connection ended or could not be made. The default does nothing and returns NotSupported.
  virtual OSIORetCode DisconnectIndication(OSIOReason reason, int code);

  /// Sets a parameter. The default does nothing and returns NotSupported.
  ///   lends     param for the call
  virtual OSIORetCode Configure(OSIOParam* param);

  /// Sets line signals. The default does nothing and returns NotSupported.
  virtual OSIORetCode SetModem(OSIOModem modem);

  /// Reads line signals. The default reports DTR, RTS, DSR, DCD and CTS (115) and returns NotSupported.
  virtual OSIORetCode GetModem(OSIOModem& modem);

  /// Hands back a buffer that the layer has not sent. The default stores null and returns NotSupported.
  ///   buf       where to store it; a null pointer is ignored
  virtual OSIORetCode RecoverBuffer(OSBuf** buf);

  /// Asks for a service of the layer. The default does nothing and returns NotSupported.
  ///   lends     param for the call
  virtual OSIORetCode Service(OSIOParam* param);

  /// Makes the two layers each other's partners: Attach(other) here, then other->Attach(this). Bind(nullptr) and
  /// Bind(&OSNullIO) are UnBind().
  /// Deliberate: partners that either had before are not told and go on pointing here; layers that hand a
  /// connection over bind it anew while the old partner still finishes. UnBind first to let go of both sides.
  /// Pinned by io_test.cpp, BindTakesNoNoticeOfAnEarlierPartner.
  ///   shares    other: each layer keeps a pointer to the other until one of them unbinds or is destroyed
  virtual void Bind(OSIO* other);

  /// Detaches the partner, unless that is OSNullIO, then this layer. OSNullIO itself is never touched.
  virtual void UnBind();

  /// Sets the partner of this layer only; null means OSNullIO.
  virtual void Attach(OSIO* other);

  /// Makes OSNullIO the partner of this layer only.
  virtual void Detach();

  /// The layer bound to this one; OSNullIO when there is none, never null.
  OSIO* Partner() const { return __atomic_load_n(&partner, __ATOMIC_ACQUIRE); }

  /// Whether a layer other than OSNullIO is bound to this one.
  BOOL IsBound() const { return Partner() != &OSNullIO; }

  /// Never null after construction. Accessed atomically: the release store of Attach publishes the layer that is
  /// attached, the acquire load of Partner meets it.
  OSIO* partner;
};

#endif
