/// @file
/// TCP with packet framing, RFC 1006 section 6.
#ifndef OSKERNEL_TPKT_H
#define OSKERNEL_TPKT_H

#include "asocketX.h"

/// A socket whose stream carries packets. Every packet has a header of 4 bytes (RFC 1006 section 6):
///
///   offset 0   1 byte    version, 3
///   offset 1   1 byte    reserved: 0 when sent, ignored when received
///   offset 2   2 bytes   length of the packet with this header, big-endian, at least 4
///
/// Sends put the header in front; received packets go up without it, whole, in order, whatever the segments were.
/// A version other than 3, or a length below 4, closes the connection: DisconnectIndication(Failed, 0).
///
///             byte that begins a packet        4th byte of the header      last byte of the packet
///   idle      3: -> header, other: closed      cannot happen               cannot happen
///   header    stays until it has 4             length >= 4: -> body,       cannot happen
///                                              less: closed
///   body      cannot happen                    cannot happen               -> idle, TPKTReceive
///
/// Deliberate: a packet of nothing but its header is completed when the next segment arrives, if it stands at the
/// end of one, and goes up as an empty buffer, which the receive path decodes as a control buffer: nothing is
/// indicated. Peers use such packets as keep-alives. Pinned by tpkt_test.cpp,
/// AnEmptyPacketAtTheEndOfASegmentIsCompletedByTheNextOne.
///
/// A received packet takes a buffer of the pools, and one of 1680 bytes or more a buffer of class 0, a callback and heap
/// storage of its own; so does the header for a moment (class 1). Size KernelCfg for the connections that may be in the
/// middle of a packet and for 10 packets that wait in each.
///
/// Always indirect. What is half received survives Close; the destructor frees it.
class OSKERNEL_API TPKTSocket : public AsyncSocket {
 public:
  TPKTSocket();            ///< between packets; otherwise as AsyncSocket(true)
  ~TPKTSocket() override;  ///< frees what is half received; reached through Free, as every socket's

  /// Sends buf as one packet.
  ///   takes     buf
  ///   buf       up to 65531 bytes, with 4 bytes of room in front, as every buffer has that was not filled to its start.
  ///             Without the room Fatal "OSBuf::Pushdown Too far" is reported.
  ///   returns   as AsyncSocket::DataIndication; Blocked, and nothing is sent, when it is too long or has no room
  OSIORetCode DataIndication(OSBuf* buf) override;
  /// Deliberate: sends buf with two headers, the inner one around the data, the outer one around both: the
  /// expedited path frames and then goes through this class's DataIndication. Peers expect it so. Pinned by
  /// tpkt_test.cpp, ExpeditedDataLeavesWithTwoHeaders.
  OSIORetCode DataExpeditedIndication(OSBuf* buf) override;
  /// NotSupported.
  /// Deliberate: the buffer stays the caller's, unlike with every other send, since there is no address that a packet
  /// could go to; callers free it. Pinned by tpkt_test.cpp, ADatagramIsRefusedAndStaysTheCallers.
  OSIORetCode DatagramIndication(OSBuf* buf, void* source, void* dest) override;
  /// A new TPKTSocket for an accepted connection.
  AsyncSocket* GetNewSocket(int skt) override;
  /// Cuts received data into packets; control buffers pass unchanged. Stops while the receive queue is full and goes
  /// on when it has been taken down, so that a segment of tiny packets does not drain the pools. What an earlier
  /// connection has left of a packet is dropped.
  ///   threads   monitor thread, inside AsyncSocket::cs
  void ProcessData(OSBuf* buf) override;
  /// As AsyncSocket::Poll; bytes that ProcessData holds back go before there is more to read.
  void Poll() override;
  /// A whole packet without its header. The base queues it for the partner; a subclass may take it.
  ///   takes     buf
  ///   threads   monitor thread, inside AsyncSocket::cs
  virtual void TPKTReceive(OSBuf* buf);

  /// One step of the reassembly; true when a packet was completed.
  ///   threads   monitor thread
  bool ProcessTPKT();
  /// Buffer-free callback of a packet with an array of its own: deletes the array.
  static void BufferCallback(OSObj* array, ADDR unused_addr, ULONG unused_value);

  OSBuf* tpktBuf;  ///< what is being assembled: first the header, then the packet; null between packets
  OSBuf* lastBuf;  ///< the received buffer whose bytes are being consumed; null when used up

 private:
  void process_held();
  bool hold();
  void drop_last();
  void fail();

  ULONG assembled_of_;  ///< the connection whose bytes tpktBuf holds; the monitor thread's
  bool in_header_;      ///< tpktBuf holds the header alone, all of it when there was no buffer for the packet
};

#endif
