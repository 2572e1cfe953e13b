/// Multicast sockets of the library and two machines to try them between.
#ifndef OSKERNEL_TESTS_MULTICAST_SITE_H
#define OSKERNEL_TESTS_MULTICAST_SITE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "net_namespace.h"
#include "network/asocket.h"
#include "network_fixture.h"
#include "socket_probe.h"

namespace oskernel_test {

inline constexpr ULONG kGroup = 0xE1020304;       // 225.2.3.4
inline constexpr ULONG kOtherGroup = 0xE1020305;  // 225.2.3.5
inline constexpr UWORD kPort = 4711;              // in a namespace of its own, every port is free
inline constexpr ULONG kOwnLeft = 0x0A090001;     // 10.9.0.1
inline constexpr ULONG kOwnRight = 0x0A090101;    // 10.9.1.1
inline constexpr ULONG kPeerLeft = 0x0A090002;    // 10.9.0.2
inline constexpr ULONG kPeerRight = 0x0A090102;   // 10.9.1.2
inline constexpr MulticastFlags kEveryWay[] = {McSendOnly, McReceiveOnly, McSendAndReceive};

/// A plain socket of the other machine that sends to and receives from groups.
class GroupPeer {
 public:
  /// Sends by the interface with this address and receives what comes in there.
  GroupPeer(const Namespace& machine, ULONG interface_addr, ULONG group = kGroup, UWORD port = kPort) {
    machine.in([&] { fd_ = Descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
    const int on = 1;
    setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd_.get(), IPPROTO_IP, IP_RECVTTL, &on, sizeof on);
    SockAddr name(ULONG{INADDR_ANY}, port);
    EXPECT_EQ(::bind(fd_.get(), name, sizeof name.sin), 0) << std::strerror(errno);
    ip_mreq membership = {};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(interface_addr);
    EXPECT_EQ(setsockopt(fd_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0)
        << std::strerror(errno);
    EXPECT_EQ(setsockopt(fd_.get(), IPPROTO_IP, IP_MULTICAST_IF, &membership.imr_interface,
                         sizeof membership.imr_interface),
              0);
  }

  bool send(std::string_view text, ULONG to = kGroup, UWORD port = kPort) {
    SockAddr address(to, port);
    return sendto(fd_.get(), text.data(), text.size(), 0, address, sizeof address.sin) ==
           static_cast<ssize_t>(text.size());
  }
  /// The next datagram; "(none)" when none comes.
  std::string receive(int timeout_ms = kPeerPatienceMs) {
    char text[2048], control[256];
    iovec bytes = {text, sizeof text};
    msghdr message = {};
    message.msg_name = &from.sin;
    message.msg_namelen = sizeof from.sin;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (!wait_readable(fd_.get(), timeout_ms)) return "(none)";
    const ssize_t got = recvmsg(fd_.get(), &message, MSG_DONTWAIT);
    if (got < 0) return "(none)";
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
      if (part->cmsg_type == IP_TTL) std::memcpy(&ttl, CMSG_DATA(part), sizeof ttl);
    }
    return std::string(text, static_cast<std::size_t>(got));
  }
  int fd() const { return fd_.get(); }

  SockAddr from;  ///< of the last datagram
  int ttl = -1;   ///< of the last datagram

 private:
  Descriptor fd_;
};

/// This machine and another one, joined twice: left to left in 10.9.0.0/24, right to right in 10.9.1.0/24. Broadcasts
/// go by the left interface, and so do groups for which nobody names an interface.
struct MulticastSite {
  Namespace here = Namespace::own();
  Namespace there = Namespace::fresh();

  MulticastSite() {
    join(here, "left", there, "left");
    join(here, "right", there, "right");
    here.add_address("left", "10.9.0.1/24");
    here.add_address("right", "10.9.1.1/24");
    there.add_address("left", "10.9.0.2/24");
    there.add_address("right", "10.9.1.2/24");
    here.add_route("default via 10.9.0.2");
    there.add_route("default via 10.9.0.1");
  }
};

/// Whether this machine has joined the group on the interface.
inline bool joined(const std::string& link, ULONG group) {
  char wanted[16];
  std::snprintf(wanted, sizeof wanted, "%08X", htonl(group));
  std::ifstream file("/proc/self/net/igmp");
  bool on_link = false;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] != '\t') {
      std::istringstream words(line);
      std::string index, name;
      words >> index >> name;
      on_link = name == link;
    } else if (on_link && line.find(wanted) != std::string::npos) {
      return true;
    }
  }
  return false;
}

inline int multicast_ttl(int fd) { return int_option(fd, IPPROTO_IP, IP_MULTICAST_TTL); }
inline ULONG multicast_interface(int fd) {
  in_addr address = {};
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address, &length), 0);
  return ntohl(address.s_addr);
}

/// Both forms: the ordinary one and the one whose caller reads the socket itself.
struct MulticastForm {
  const char* name;
  int (AsyncSocket::*create)(SockAddr&, MulticastFlags, SockAddr*);
  const char* socket_failure;
  bool starts;
};
inline constexpr MulticastForm kMulticastForms[] = {
    {"CreateMulticast", &AsyncSocket::CreateMulticast, "SOCKET error", true},
    {"CreateMulticastRealTime", &AsyncSocket::CreateMulticastRealTime, "WSASocket error", false},
};

class SocketMulticast : public NetworkTest {
 protected:
  static int create(const MulticastForm& form, AsyncSocket& socket, MulticastFlags flags,
                    ULONG interface_addr = 0, ULONG group = kGroup, UWORD interface_port = 0) {
    SockAddr to(group, kPort), pifaddr(interface_addr, interface_port);
    return (socket.*form.create)(to, flags, interface_addr == 0 ? nullptr : &pifaddr);
  }
  static int create(AsyncSocket& socket, MulticastFlags flags, ULONG interface_addr = 0) {
    return create(kMulticastForms[0], socket, flags, interface_addr);
  }
  Texts said() { return lines_with(console, "CreateMulticast"); }
};

}  // namespace oskernel_test

#endif
