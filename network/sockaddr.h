/// @file
/// The IPv4 socket address of the networking layer.
///
/// Host-order values are 32-bit addresses with the first dotted octet in the top byte, and ports as plain numbers;
/// network-order values are as they stand in sockaddr_in.
#ifndef OSKERNEL_SOCKADDR_H
#define OSKERNEL_SOCKADDR_H

#include <netinet/in.h>
#include <sys/socket.h>

#include "types.h"

/// An address and a port. A plain value: whoever holds it owns it, and it has no lock.
///
/// A text is an address in dotted form (inet_addr) or a host name. Names are looked up in the cache of dnsentry.h,
/// which never waits: a name that is not known yet gives 0.0.0.0, and is resolved in the background for the next
/// time. That starts the networking layer when it is not running.
/// Deliberate: the text 255.255.255.255 is looked up as a name, since its value is the one by which inet_addr
/// reports a failure; programs that mean it give the number. Pinned by sockaddr_test.cpp,
/// TheTextOfAllOnesIsLookedUpAsAName.
class OSKERNEL_API SockAddr {
 public:
  SockAddr();                        ///< 0.0.0.0, port 0
  SockAddr(sockaddr* address);       ///< a copy of its 16 bytes
  SockAddr(ULONG addr, UWORD port);  ///< both in host order
  /// From a text and a port in host order. An empty text, or null, gives 0.0.0.0.
  /// Deliberate: white space in front is not skipped, so " 10.0.0.1" is a host name here; SetAddress skips it.
  /// Programs rely on SetAddress for what people type. Pinned by sockaddr_test.cpp,
  /// TheConstructorTakesWhiteSpaceAsPartOfAName.
  SockAddr(const char* name_or_addr, UWORD port);
  SockAddr(const SockAddr&) = default;  ///< copies addr_str, too

  void Set(ULONG addr, UWORD port);  ///< both in host order; sets family and sin_zero as well
  /// SetAddress(name_or_addr), then SPort(port); family and sin_zero stay.
  void Set(const char* name_or_addr, UWORD port);
  /// Takes the address from a text, behind any white space. An empty text, or null, leaves it as it is. The port
  /// stays.
  void SetAddress(const char* name_or_addr);
  void SetAddress(ULONG addr);  ///< host order; the port stays
  void SPort(UWORD port);       ///< host order; the address stays

  operator sockaddr*() { return reinterpret_cast<sockaddr*>(&sin); }  ///< for the socket calls
  operator sockaddr_in*() { return &sin; }                            ///< the same as its own type

  SockAddr& operator=(sockaddr* address);      ///< copies 16 bytes into sin
  SockAddr& operator=(const SockAddr& other);  ///< copies sin, not addr_str
  /// Whether address and port are equal; the family is not looked at.
  bool operator==(const SockAddr& other) const {
    return sin.sin_addr.s_addr == other.sin.sin_addr.s_addr && sin.sin_port == other.sin.sin_port;
  }
  /// Whether address or port differ.
  bool operator!=(const SockAddr& other) const { return !(*this == other); }

  ULONG Address() const;                                    ///< host order
  ULONG AddressNet() const { return sin.sin_addr.s_addr; }  ///< network order
  UWORD Port() const;                                       ///< host order
  UWORD PortNet() const { return sin.sin_port; }            ///< network order

  /// The address, without port, as dotted text.
  ///   s         room for 16 bytes; null for this object's own addr_str
  ///   returns   s, or addr_str
  ///   threads   any; takes AsyncSocket::cs while the networking layer runs. The caller is in no socket's local_cs.
  char* AddressStr(char* s);

  // What kind of address it is. These know no subnet masks.
  bool IsMulticast() const;  ///< 224.0.0.0 to 239.255.255.255
  /// 0.0.0.0, 255.255.255.255, or all host bits set by the classes of RFC 791: A (24 bits), B (16) and C (8).
  /// Deliberate: no subnet mask is consulted, so 10.255.255.255 is a broadcast and 10.1.255.255 is not. Pinned by
  /// sockaddr_test.cpp, FollowsTheOldAddressClasses.
  bool IsBroadcast() const;
  /// Within the site's private network when that is set (both values not 0), which then alone counts; otherwise in
  /// 192.168.0.0/16, 172.16.0.0/12 or 10.0.0.0/8 (RFC 1918). Loopback and link-local addresses are not private.
  bool IsPrivate() const;
  /// Whether it is not private: loopback and multicast addresses and 0.0.0.0 are public.
  bool IsPublic() const { return !IsPrivate(); }

  /// Sets the site's private network, both in host order. With either 0 the built-in ranges count.
  ///   threads   start-up; read without a lock
  static void SetPrivateNetwork(ULONG addr, ULONG mask);

  sockaddr_in sin;    ///< family AF_INET; port and address in network order
  char addr_str[32];  ///< the text of the last AddressStr(nullptr); always ends with a zero byte

  static ULONG privateAddress;  ///< network number, host order; 0 for none
  static ULONG privateMask;     ///< its mask, host order; 0 for none
};

#endif
