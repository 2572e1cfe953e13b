// The IPv4 socket address: byte order, text, classification.
#include "network/sockaddr.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstring>

#include "network/asocketX_priv.h"
#include "network/dnsentry.h"
#include "network/sockaddr_priv.h"

static_assert(sizeof(sockaddr_in) == sizeof(sockaddr), "a sockaddr is copied as it stands");

ULONG SockAddr::privateAddress = 0;
ULONG SockAddr::privateMask = 0;

namespace {

// The address that a text stands for, in host order; false for an empty text. INADDR_NONE is how inet_addr reports
// a failure, so the text of that very address counts as a name.
bool address_of(const char* text, ULONG* addr) {
  if (text == nullptr || *text == '\0') return false;
  const in_addr_t parsed = inet_addr(text);
  *addr = parsed != INADDR_NONE ? ntohl(parsed) : DNSEntry::Lookup(text, nullptr);
  return true;
}

}  // namespace

SockAddr::SockAddr() : sin{}, addr_str{} { sin.sin_family = AF_INET; }

SockAddr::SockAddr(sockaddr* address) : sin{}, addr_str{} { std::memcpy(&sin, address, sizeof sin); }

SockAddr::SockAddr(ULONG addr, UWORD port) : SockAddr() { Set(addr, port); }

SockAddr::SockAddr(const char* name_or_addr, UWORD port) : SockAddr() {
  ULONG addr = 0;
  address_of(name_or_addr, &addr);
  Set(addr, port);
}

void SockAddr::Set(ULONG addr, UWORD port) {
  std::memset(sin.sin_zero, 0, sizeof sin.sin_zero);
  sin.sin_family = AF_INET;
  SetAddress(addr);
  SPort(port);
}

void SockAddr::Set(const char* name_or_addr, UWORD port) {
  SetAddress(name_or_addr);
  SPort(port);
}

void SockAddr::SetAddress(const char* name_or_addr) {
  if (name_or_addr == nullptr) return;
  while (std::isspace(static_cast<unsigned char>(*name_or_addr)) != 0) ++name_or_addr;
  ULONG addr = 0;
  if (address_of(name_or_addr, &addr)) SetAddress(addr);
}

void SockAddr::SetAddress(ULONG addr) { sin.sin_addr.s_addr = htonl(addr); }

void SockAddr::SPort(UWORD port) { sin.sin_port = htons(port); }

SockAddr& SockAddr::operator=(sockaddr* address) {
  std::memmove(&sin, address, sizeof sin);
  return *this;
}

SockAddr& SockAddr::operator=(const SockAddr& other) {
  if (this != &other) sin = other.sin;
  return *this;
}

ULONG SockAddr::Address() const { return ntohl(sin.sin_addr.s_addr); }

UWORD SockAddr::Port() const { return ntohs(sin.sin_port); }

char* SockAddr::AddressStr(char* s) {
  static_assert(sizeof addr_str >= INET_ADDRSTRLEN, "any address fits");
  // The section keeps two threads apart that print the same object into its own text.
  const ClassLock lock;
  char text[INET_ADDRSTRLEN];
  if (inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text) == nullptr) text[0] = '\0';
  if (s == nullptr) {
    s = addr_str;
    addr_str[sizeof addr_str - 1] = '\0';
  }
  std::memcpy(s, text, std::strlen(text) + 1);
  return s;
}

bool SockAddr::IsMulticast() const { return Address() >> 28 == 0xE; }

bool SockAddr::IsBroadcast() const {
  const ULONG addr = Address();
  if (addr == 0 || addr == 0xFFFFFFFF) return true;
  if (addr >> 31 == 0) return (addr & 0xFFFFFF) == 0xFFFFFF;
  if (addr >> 30 == 2) return (addr & 0xFFFF) == 0xFFFF;
  if (addr >> 29 == 6) return (addr & 0xFF) == 0xFF;
  return false;
}

bool SockAddr::IsPrivate() const {
  const ULONG addr = Address();
  if (privateAddress != 0 && privateMask != 0) return (addr & privateMask) == privateAddress;
  return is_rfc1918(addr);
}

void SockAddr::SetPrivateNetwork(ULONG addr, ULONG mask) {
  privateAddress = addr;
  privateMask = mask;
}
