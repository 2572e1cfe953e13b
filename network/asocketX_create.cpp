// Making a socket's descriptor, its options, and what it knows of its two ends.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "network/asocketX_priv.h"

namespace {

constexpr ULONG kAnyDestination = 0xFFFFFFFF;
constexpr UBYTE kMulticastTtl = 64;
constexpr timeval kSendTimeout = {2, 0};

// Options whose failure leaves a socket that works all the same.
void set_on(int fd, int option) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, option, &on, sizeof on);
}

void set_nonblocking(int fd) {
  int on = 1;
  ioctl(fd, FIONBIO, &on);
}

bool local_name(int fd, SockAddr* address) {
  socklen_t length = sizeof address->sin;
  return getsockname(fd, *address, &length) == 0;
}

// The index of the interface that has this address and port; 0 when none has.
unsigned interface_index(int fd, const SockAddr& interface_addr) {
  struct if_nameindex* all = if_nameindex();
  unsigned index = 0;
  for (const auto* one = all; one != nullptr && one->if_index != 0; ++one) {
    ifreq request{};
    std::strncpy(request.ifr_name, one->if_name, IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFADDR, &request) != 0 || SockAddr(&request.ifr_addr) != interface_addr) continue;
    index = one->if_index;
    break;
  }
  if (all != nullptr) if_freenameindex(all);
  return index;
}

}  // namespace

/// Where the texts of the ordinary and the real-time variants differ.
struct AsyncSocket::Texts {
  const char* operation;
  const char* verdict;      // of getsockname
  const char* socket_call;  // of the multicast variants
};

// ---- Making and binding ------------------------------------------------------------------------------------

int AsyncSocket::Create(int Atype, int skt) {
  publish(type, Atype);
  publish(s, skt);
  SockAddr local;
  if (local_name(skt, &local)) {
    const SectionLock lock(&local_cs);
    loc_sin = local;
  } else {
    diagnostics().Print("%d AsyncSocket::Create(skt) - getsockname() error %d", skt, errno);
  }
  if (indirect_socket) set_nonblocking(skt);
  return 0;
}

int AsyncSocket::Create(int Atype, UWORD port, ULONG addr, bool reuse_allowed) {
  return create({"Create", "error", nullptr}, Atype, port, addr, reuse_allowed, true);
}

int AsyncSocket::CreateRealTime(int Atype, UWORD port, ULONG addr, bool reuse_allowed) {
  return create({"CreateRealTime", "failed", nullptr}, Atype, port, addr, reuse_allowed, false);
}

// Deliberate: two blanks before "type=", and "resuse". These lines are searched for in the logs of appliances in the
// field as they have always been. Pinned by socket_create_test.cpp, SaysWhenThereIsNoDescriptor and
// SaysWhenThePortIsInUseAndKeepsTheDescriptor.
int AsyncSocket::create(const Texts& texts, int Atype, UWORD port, ULONG addr, bool reuse_allowed,
                        bool send_timeout) {
  if (addr == 0) addr = seen(local_ipaddr);
  int fd = seen(s);
  if (fd == -1) {
    publish(type, Atype);
    fd = socket(AF_INET, Atype, 0);
    if (fd == -1) {
      const int error = errno;
      diagnostics().Print("%d AsyncSocket::%s  type=%d port=%d addr=%08x resuse=%d - SOCKET failed %d", -1,
                          texts.operation, type, int{port}, unsigned{addr}, int{reuse_allowed}, error);
      return error;
    }
    publish(s, fd);
  }

  SockAddr local(addr, port);
  {
    const SectionLock lock(&local_cs);
    loc_sin = local;
  }
  set_on(fd, SO_BROADCAST);
  // Deliberate: a stream always may take a port that an ended connection still holds, whatever the caller says: a server
  // that is started again gets its port at once. Pinned by socket_create_test.cpp, SetsTheOptionsOfTheForm.
  if (seen(type) == SOCK_STREAM || (seen(type) == SOCK_DGRAM && reuse_allowed)) set_on(fd, SO_REUSEADDR);
  if (indirect_socket) set_nonblocking(fd);
  if (send_timeout) setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
  if (bind(fd, local, sizeof local.sin) != 0) {
    const int error = errno;
    diagnostics().Print("%d AsyncSocket::%s  type=%d port=%d addr=%08x resuse=%d - BIND failed %d", fd,
                        texts.operation, type, int{port}, unsigned{addr}, int{reuse_allowed}, error);
    return error;
  }
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::%s(%d,%d,%08x,%d)", fd, texts.operation, Atype, int{port},
                        unsigned{addr}, int{reuse_allowed});
  }
  if (local_name(fd, &local)) {
    const SectionLock lock(&local_cs);
    loc_sin = local;
  } else {
    const int error = errno;
    diagnostics().Print("%d AsyncSocket::%s  type=%d port=%d addr=%08x resuse=%d - getsockname() %s %d", fd,
                        texts.operation, type, int{port}, unsigned{addr}, int{reuse_allowed}, texts.verdict,
                        error);
  }
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::%s() local_sin %d %08x", fd, texts.operation, int{local.Port()},
                        unsigned{local.Address()});
  }
  if (seen(type) == SOCK_DGRAM) StartTask();
  return 0;
}

AsyncSocket* AsyncSocket::GetNewSocket(int skt) {
  auto* accepted = new AsyncSocket(true);
  accepted->Create(type, skt);
  return accepted;
}

// ---- Multicast ---------------------------------------------------------------------------------------------

int AsyncSocket::CreateMulticast(SockAddr& addr, MulticastFlags flags, SockAddr* pifaddr) {
  return create_multicast({"CreateMulticast", nullptr, "SOCKET"}, addr, flags, pifaddr, true);
}

// Deliberate: "WSASocket" is what the line says that reports a missing descriptor, where the other form says "SOCKET";
// it tells the two apart in the logs. Pinned by socket_multicast_join_test.cpp, ReportsWhenThereIsNoDescriptor.
int AsyncSocket::CreateMulticastRealTime(SockAddr& addr, MulticastFlags flags, SockAddr* pifaddr) {
  return create_multicast({"CreateMulticastRealTime", nullptr, "WSASocket"}, addr, flags, pifaddr, false);
}

int AsyncSocket::create_multicast(const Texts& texts, SockAddr& addr, MulticastFlags flags, SockAddr* pifaddr,
                                  bool start) {
  SockAddr group(addr);        // addr may be an end of this socket
  if (seen(s) != -1) Close();  // the descriptor of an earlier creation would be lost
  publish(type, int{SOCK_DGRAM});
  const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  const int error = errno;
  if (seen(trace) != 0) {
    diagnostics().Print("%d AsyncSocket::%s(%d,%08x,%d)", fd, texts.operation, int{group.Port()},
                        unsigned{group.Address()}, static_cast<int>(flags));
  }
  if (fd == -1) {
    diagnostics().Print("%d AsyncSocket::%s - %s error %d", -1, texts.operation, texts.socket_call, error);
    return -1;
  }
  publish(s, fd);

  const bool receives = flags == McReceiveOnly || flags == McSendAndReceive;
  {
    const SectionLock lock(&local_cs);
    loc_sin = flags == McSendOnly ? SockAddr(seen(local_ipaddr), 0) : group;
    rem_sin = flags == McReceiveOnly ? SockAddr() : group;
  }
  if (flags == McSendOnly || flags == McSendAndReceive) Connect(group);
  if (receives) {
    const int failure =
        join_group(texts, pifaddr != nullptr ? *pifaddr : SockAddr(LookupIface(kAnyDestination), 0));
    if (failure != 0) return failure;
  }
  if (indirect_socket) set_nonblocking(fd);
  publish(state, static_cast<int>(SSConnected));
  if (receives && start) StartTask();
  return 0;
}

// Binds to the group, so that nothing else reaches the socket, and joins it.
int AsyncSocket::join_group(const Texts& texts, const SockAddr& interface_addr) {
  const int fd = seen(s);
  SockAddr group;
  {
    const SectionLock lock(&local_cs);
    group = loc_sin;
  }
  set_on(fd, SO_REUSEADDR);
  if (bind(fd, group, sizeof group.sin) != 0) {
    diagnostics().Print("%d AsyncSocket::%s Bind failed with %d", fd, texts.operation, errno);
  }

  if (!seen(real_hardware)) {
    ip_mreq request{};
    request.imr_multiaddr.s_addr = group.AddressNet();
    request.imr_interface.s_addr = interface_addr.AddressNet();
    diagnostics().Print("%d AsyncSocket::%s IP_ADD_MEMBERSHIP %08x %08x", fd, texts.operation,
                        unsigned{group.AddressNet()}, unsigned{interface_addr.AddressNet()});
    if (seen(trace) != 0) {
      diagnostics().Print("%d AsyncSocket::%s ADD_MEMBERSHIP on %08x", fd, texts.operation,
                          unsigned{group.AddressNet()});
    }
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0) return 0;
    const int error = errno;
    diagnostics().Print("%d AsyncSocket::%s ADD_MEMBERSHIP failed with %d", fd, texts.operation, error);
    return error;
  }

  // On the appliance several interfaces may have routes to the group: it is joined by the interface's index.
  // Deliberate: an interface address with a port fits no interface, since addresses are compared whole, and the index
  // is 0 then: the system chooses. Pinned by socket_multicast_join_test.cpp,
  // FindsNoInterfaceWhenTheAddressGivenHasAPort.
  group_req request{};
  request.gr_interface = interface_index(fd, interface_addr);
  sockaddr_in member{};
  member.sin_family = AF_INET;
  member.sin_addr.s_addr = group.AddressNet();
  member.sin_port = group.Port();  // the system does not look at it
  std::memcpy(&request.gr_group, &member, sizeof member);
  diagnostics().Print("%d AsyncSocket::%s MCAST_JOIN_GROUP %08x, iface %d", fd, texts.operation,
                      unsigned{group.AddressNet()}, static_cast<int>(request.gr_interface));
  if (setsockopt(fd, IPPROTO_IP, MCAST_JOIN_GROUP, &request, sizeof request) == 0) return 0;
  const int error = errno;
  diagnostics().Print("%d AsyncSocket::%s MCAST_JOIN_GROUP failed with %d", fd, texts.operation, error);
  return error;
}

void AsyncSocket::set_multicast_options() {
  const int fd = seen(s);
  in_addr interface_addr{};
  interface_addr.s_addr = htonl(LookupIface(kAnyDestination));
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface_addr, sizeof interface_addr) != 0) {
    diagnostics().Print("%d AsyncSocket::Connect MULTICAST_IF failed with error %d", fd, errno);
  }
  const UBYTE ttl = kMulticastTtl;
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0) {
    diagnostics().Print("%d AsyncSocket::Connect MULTICAST_TTL failed with error %d", fd, errno);
  }
}

// ---- The layer ---------------------------------------------------------------------------------------------

OSIORetCode AsyncSocket::ConnectIndication(OSIOAddress* /*address*/) { return Success; }

OSIORetCode AsyncSocket::DisconnectIndication(OSIOReason /*reason*/, int /*code*/) {
  // While the descriptor is closed its number may already be another socket's.
  const std::lock_guard<std::mutex> lock(send_mutex_);
  shutdown(seen(s), SHUT_RDWR);
  return Success;
}

void AsyncSocket::Bind(OSIO* to) {
  const SectionLock lock(&local_cs);
  OSIO::Bind(to);
}

void AsyncSocket::UnBind() {
  const SectionLock lock(&local_cs);
  OSIO::UnBind();
}

// ---- Options and addresses ---------------------------------------------------------------------------------

void AsyncSocket::SetDiffServ(UBYTE diffserv) {
  const int service = diffserv;
  if (setsockopt(seen(s), IPPROTO_IP, IP_TOS, &service, sizeof service) != 0) {
    diagnostics().Print("AsyncSocket::SetDiffServ - setsockopt error %d", errno);
  }
}

void AsyncSocket::SetBigBuffers(bool allowed) { publish(big_buffers_allowed, allowed); }

// One end of the socket, which another thread may be storing.
SockAddr AsyncSocket::end_of(const SockAddr& end) {
  const SectionLock lock(&local_cs);
  return end;
}

void AsyncSocket::refresh_local_address() {
  SockAddr local;
  if (local_name(seen(s), &local)) {
    const SectionLock lock(&local_cs);
    loc_sin = local;
  } else {
    diagnostics().Print("%d AsyncSocket::LocalIP_n: getsockname() error %d", seen(s), errno);
  }
}

ULONG AsyncSocket::LocalIP_n() {
  if (end_of(loc_sin).AddressNet() == 0) refresh_local_address();
  return end_of(loc_sin).AddressNet();
}

ULONG AsyncSocket::LocalIP_h() { return ntohl(LocalIP_n()); }

UWORD AsyncSocket::LocalPort() {
  if (end_of(loc_sin).PortNet() == 0) refresh_local_address();
  return end_of(loc_sin).Port();
}

char* AsyncSocket::RemoteIPText() { return end_of(rem_sin).AddressStr(rem_sin.addr_str); }

ULONG AsyncSocket::RemoteIP_n() { return end_of(rem_sin).AddressNet(); }

ULONG AsyncSocket::RemoteIP_h() { return end_of(rem_sin).Address(); }

UWORD AsyncSocket::RemotePort() { return end_of(rem_sin).Port(); }
