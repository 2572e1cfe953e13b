// The machine's own interfaces: local addresses, the MAC address, and whether this is the appliance's hardware.
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>

#include "network/asocketX_priv.h"
#include "network/sockaddr_priv.h"

// The first three bytes of the MAC addresses of the appliance's maker, as "00:11:22"; empty when no hardware counts
// as the appliance's.
#ifndef OSKERNEL_MAKER_OUI
#define OSKERNEL_MAKER_OUI ""
#endif

bool AsyncSocket::real_hardware = false;
char* AsyncSocket::local_ifname[7] = {nullptr,
                                      const_cast<char*>("ppp1"),
                                      const_cast<char*>("ppp0"),
                                      const_cast<char*>("bond0"),
                                      const_cast<char*>("eth1"),
                                      const_cast<char*>("eth0"),
                                      nullptr};
ULONG AsyncSocket::local_ipaddr = 0;
SockAddr AsyncSocket::moduleIPAddress;
SockAddr AsyncSocket::modulePublicIPAddress;

namespace {

constexpr ULONG kAnyDestination = 0xFFFFFFFF;
constexpr ULONG kLoopback = 0x7F000001;
constexpr UWORD kProbePort = 4000;  // nothing is sent there
constexpr std::size_t kMacBytes = 6;
constexpr std::size_t kOuiBytes = 3;

// A datagram socket for one question, closed on every path.
class Probe {
 public:
  Probe() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~Probe() {
    if (fd_ != -1) close(fd_);
  }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  int fd() const { return fd_; }

  // The address of an interface, host order; false when it has none.
  bool address_of(const char* interface, ULONG* addr) const {
    ifreq request = request_for(interface);
    if (ioctl(fd_, SIOCGIFADDR, &request) != 0) return false;
    *addr = SockAddr(&request.ifr_addr).Address();
    return true;
  }

  // Writes the MAC address of an interface when it has one that is not all zero.
  bool mac_of(const char* interface, UBYTE* mac) const {
    static constexpr UBYTE kZeroMac[kMacBytes] = {};
    ifreq request = request_for(interface);
    if (ioctl(fd_, SIOCGIFHWADDR, &request) != 0) return false;
    if (std::memcmp(request.ifr_hwaddr.sa_data, kZeroMac, kMacBytes) == 0) return false;
    std::memcpy(mac, request.ifr_hwaddr.sa_data, kMacBytes);
    return true;
  }

  bool first_listed_mac(UBYTE* mac) const;

 private:
  static ifreq request_for(const char* interface) {
    ifreq request{};
    std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    return request;
  }

  int fd_;
};

// The MAC address of the first listed interface that is up and no loopback.
bool Probe::first_listed_mac(UBYTE* mac) const {
  // The system fills what it is given and does not say that there was more: a list that leaves no entry free is
  // asked for again with twice the room. The bound is beyond what a machine has, and keeps the room an int.
  constexpr std::size_t kFirst = 1024 / sizeof(ifreq);
  constexpr std::size_t kMost = std::size_t{1} << 20;
  std::unique_ptr<ifreq[]> list;
  std::size_t listed = 0;
  for (std::size_t room = kFirst; room < kMost; room *= 2) {
    list.reset(new (std::nothrow) ifreq[room]());
    if (list == nullptr) return false;
    ifconf query{};
    query.ifc_len = static_cast<int>(room * sizeof(ifreq));
    query.ifc_req = list.get();
    if (ioctl(fd_, SIOCGIFCONF, &query) != 0) {
      diagnostics().Print("ioctl SIOCGIFCONF error %d", errno);
      return false;
    }
    listed = std::min(static_cast<std::size_t>(std::max(query.ifc_len, 0)) / sizeof(ifreq), room);
    if (listed < room) break;
  }

  for (std::size_t i = 0; i < listed; ++i) {
    ifreq request = request_for(list[i].ifr_name);
    if (ioctl(fd_, SIOCGIFFLAGS, &request) != 0) {
      diagnostics().Print("ioctl SIOCGIFFLAGS error %d", errno);
      continue;
    }
    if ((request.ifr_flags & IFF_UP) == 0 || (request.ifr_flags & IFF_LOOPBACK) != 0) continue;
    if (ioctl(fd_, SIOCGIFHWADDR, &request) != 0) continue;
    std::memcpy(mac, request.ifr_hwaddr.sa_data, kMacBytes);
    return true;
  }
  return false;
}

// The names in local_ifname that are set, in order.
template <class Function>
bool any_local_interface(Function&& fits) {
  for (std::size_t i = 0; i + 1 < std::size(AsyncSocket::local_ifname); ++i) {
    const char* interface = seen(AsyncSocket::local_ifname[i]);
    if (interface != nullptr && fits(interface)) return true;
  }
  return false;
}

bool is_makers(const UBYTE* mac) {
  constexpr std::size_t kTextBytes = 3 * kOuiBytes;  // "00:11:22" and its terminating zero
  char text[kTextBytes];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x", unsigned{mac[0]}, unsigned{mac[1]}, unsigned{mac[2]});
  return strcasecmp(text, OSKERNEL_MAKER_OUI) == 0;
}

// Lets the system choose the address from which it would send.
/// Deliberate: failures go to standard error, "conect" and all, and not to the console: programs ask for the address
/// before they have one. Pinned by socket_interface_test.cpp,
/// ElsewhereAFailureIsWrittenToStandardErrorAndLeavesNoDescriptor.
ULONG address_towards(ULONG dest) {
  const Probe probe;
  const int on = 1;
  setsockopt(probe.fd(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  SockAddr any;
  if (bind(probe.fd(), any, sizeof any.sin) != 0) {
    std::fprintf(stderr, "AsyncSocket::LookupIface - bind error %d\n", errno);
    return 0;
  }
  SockAddr destination(dest, kProbePort);
  if (connect(probe.fd(), destination, sizeof destination.sin) != 0) {
    std::fprintf(stderr, "AsyncSocket::LookupIface - conect error %d\n", errno);
    return 0;
  }
  SockAddr local;
  socklen_t length = sizeof local.sin;
  if (getsockname(probe.fd(), local, &length) != 0) {
    std::fprintf(stderr, "AsyncSocket::LookupIface - getsockname error %d\n", errno);
    return 0;
  }
  return local.Address();
}

}  // namespace

void AsyncSocket::SetPrimaryAddress(ULONG ipaddr) { publish(local_ipaddr, ipaddr); }

void AsyncSocket::SetPrimaryInterfaces(char* i0) { publish(local_ifname[0], i0); }

ULONG AsyncSocket::LookupIface(ULONG dest) {
  Init();
  if (const ULONG primary = seen(local_ipaddr)) return primary;
  const ULONG outside = modulePublicIPAddress.Address();
  if (outside != 0 && dest != kAnyDestination && !is_rfc1918(dest)) return outside;
  if (!seen(real_hardware)) return address_towards(dest == 0 || dest == kLoopback ? kAnyDestination : dest);

  const Probe probe;
  ULONG addr = 0;
  any_local_interface([&](const char* interface) { return probe.address_of(interface, &addr); });
  return addr;
}

BOOL AsyncSocket::CheckForLocalIP(ULONG ipaddr) {
  if (const ULONG primary = seen(local_ipaddr)) return primary == ipaddr ? TRUE : FALSE;
  const Probe probe;
  const bool found = any_local_interface([&](const char* interface) {
    ULONG addr = 0;
    return probe.address_of(interface, &addr) && addr == ipaddr;
  });
  return found ? TRUE : FALSE;
}

bool AsyncSocket::LookupInterfaceMac(UBYTE* mac, bool skipeth1) {
  static std::mutex deciding;  // a leaf, held over the first question alone
  static bool decided = false;

  const Probe probe;
  if (probe.fd() == -1) return false;  // and nothing is decided yet
  bool found = false;
  {
    const std::lock_guard<std::mutex> lock(deciding);
    if (!decided) {
      found = probe.mac_of("eth0", mac);
      if (found && is_makers(mac)) publish(real_hardware, true);
      decided = true;
    }
  }
  if (!seen(real_hardware)) return probe.first_listed_mac(mac) || found;
  if (!skipeth1 && probe.mac_of("eth1", mac)) return true;
  return probe.mac_of("eth0", mac) || found;
}
