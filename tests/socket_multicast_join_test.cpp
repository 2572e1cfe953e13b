// How groups are joined on the appliance's own hardware, and what is said when a multicast socket cannot be made.

#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "support/launcher.h"
#include "support/multicast_site.h"
#include "support/socket_calls.h"

namespace oskernel_test {
namespace {

using Form = MulticastForm;
using Site = MulticastSite;
constexpr auto& kForms = kMulticastForms;

// ---- On the appliance's hardware ---------------------------------------------------------------------------------

class SocketMulticastHardware : public SocketMulticast {
 protected:
  /// From here on the machine counts as the appliance's own. Its first interface is the left one.
  static OwnedSocket socket_on_hardware() {
    OwnedSocket socket = indirect_socket();  // the layer's start decides what machine it is
    AsyncSocket::real_hardware = true;
    static char first[] = "left";
    AsyncSocket::SetPrimaryInterfaces(first);
    return socket;
  }
  void TearDown() override {
    AsyncSocket::real_hardware = false;
    AsyncSocket::SetPrimaryInterfaces(nullptr);
    SocketMulticast::TearDown();
  }
};

TEST_F(SocketMulticastHardware, JoinsByTheInterfacesIndex) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    console.clear();
    RecordingLayer layer;
    const OwnedSocket socket = socket_on_hardware();
    socket->Bind(&layer);
    SocketCalls calls;
    ASSERT_EQ(create(form, *socket, McReceiveOnly, kOwnRight), 0);
    EXPECT_TRUE(joined("right", kGroup));
    EXPECT_FALSE(joined("left", kGroup));
    const unsigned index = if_nametoindex("right");
    EXPECT_EQ(said(), Texts{text_of("%d AsyncSocket::%s MCAST_JOIN_GROUP %08x, iface %d", socket->s,
                                    form.name, htonl(kGroup), static_cast<int>(index))});
    EXPECT_EQ(calls.option(IPPROTO_IP, IP_ADD_MEMBERSHIP).result, -2);
    const SystemCall join_call = calls.option(IPPROTO_IP, MCAST_JOIN_GROUP);
    ASSERT_EQ(join_call.value.size(), sizeof(group_req));
    group_req request;
    std::memcpy(&request, join_call.value.data(), sizeof request);
    EXPECT_EQ(request.gr_interface, index);
    sockaddr_in group;
    std::memcpy(&group, &request.gr_group, sizeof group);
    EXPECT_EQ(group.sin_family, AF_INET);
    EXPECT_EQ(group.sin_addr.s_addr, htonl(kGroup));
    EXPECT_EQ(group.sin_port, kPort) << "in host order, which the system does not look at";
    if (!form.starts) continue;
    GroupPeer peer(site.there, kPeerRight);
    ASSERT_TRUE(peer.send("by index"));
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_EQ(layer.story(), Texts{"datagram:by index"});
  }
}

TEST_F(SocketMulticastHardware, TakesTheFirstOfSeveralInterfacesWithTheAddress) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = socket_on_hardware();
  SocketCalls calls;
  calls.answer([](const SystemCall& call, int*) {
    if (call.name != SystemCall::kIoctl || call.request != SIOCGIFADDR) return false;
    SockAddr address(kOwnRight, 0);
    std::memcpy(&static_cast<ifreq*>(call.argument)->ifr_addr, &address.sin, sizeof address.sin);
    return true;
  });
  create(*socket, McReceiveOnly, kOwnRight);
  struct if_nameindex* const all = if_nameindex();
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(said().front(), text_of("%d AsyncSocket::CreateMulticast MCAST_JOIN_GROUP %08x, iface %d",
                                    socket->s, htonl(kGroup), static_cast<int>(all[0].if_index)));
  if_freenameindex(all);
}

TEST_F(SocketMulticastHardware, LooksForItsOwnInterfaceAmongTheKnownNames) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = socket_on_hardware();
  ASSERT_EQ(create(*socket, McSendAndReceive), 0);
  EXPECT_TRUE(joined("left", kGroup));
  EXPECT_EQ(multicast_interface(socket->s), kOwnLeft);
  EXPECT_EQ(said(), Texts{text_of("%d AsyncSocket::CreateMulticast MCAST_JOIN_GROUP %08x, iface %d",
                                  socket->s, htonl(kGroup), static_cast<int>(if_nametoindex("left")))});
}

TEST_F(SocketMulticastHardware, FindsNoInterfaceWhenTheAddressGivenHasAPort) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  // The addresses of interfaces have no port, so nothing matches and the system chooses the interface.
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = socket_on_hardware();
  ASSERT_EQ(create(kForms[0], *socket, McReceiveOnly, kOwnRight, kGroup, 1), 0);
  EXPECT_EQ(said(), Texts{text_of("%d AsyncSocket::CreateMulticast MCAST_JOIN_GROUP %08x, iface 0", socket->s,
                                  htonl(kGroup))});
  EXPECT_TRUE(joined("left", kGroup)) << "where the route leads";
}

TEST_F(SocketMulticastHardware, FindsNoInterfaceForAnAddressThatNoneHas) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = socket_on_hardware();
  let_the_layer_start();
  const int before = open_descriptors();
  ASSERT_EQ(create(*socket, McReceiveOnly, 0x0A090009), 0);
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::CreateMulticast MCAST_JOIN_GROUP %08x, iface 0",
                                       socket->s, htonl(kGroup))));
  EXPECT_EQ(open_descriptors(), before + 1) << "the socket itself";
}

TEST_F(SocketMulticastHardware, ReportsAGroupThatCannotBeJoined) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    console.clear();
    const OwnedSocket socket = socket_on_hardware();
    SocketCalls calls;
    calls.fail_option(MCAST_JOIN_GROUP, ENOBUFS);
    EXPECT_EQ(create(form, *socket, McReceiveOnly, kOwnRight), ENOBUFS);
    EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::%s MCAST_JOIN_GROUP failed with %d", socket->s,
                                         form.name, ENOBUFS)));
    EXPECT_GE(socket->s, 0);
    EXPECT_FALSE(running(*socket));
    EXPECT_EQ(state_of(*socket), SSInitial);
  }
}

// ---- What the system is given ------------------------------------------------------------------------------------

/// The bytes of an option's value as numbers.
std::vector<int> bytes_of(const SystemCall& call) {
  std::vector<int> bytes;
  for (const char byte : call.value) bytes.push_back(static_cast<UBYTE>(byte));
  return bytes;
}

// Nothing of it reaches the system, so that it is the same in an emulator.
TEST_F(SocketMulticastHardware, EveryOptionHasItsBytesAndItsLength) {
  const OwnedSocket socket = socket_on_hardware();
  AsyncSocket::SetPrimaryAddress(INADDR_LOOPBACK);
  for (const bool hardware : {false, true}) {
    SCOPED_TRACE(hardware);
    AsyncSocket::real_hardware = hardware;
    SocketCalls calls;
    calls.answer([](const SystemCall& call, int* result) {
      *result = 0;
      return call.name == SystemCall::kSetsockopt || call.name == SystemCall::kBind;
    });
    ASSERT_EQ(create(kForms[1], *socket, McSendAndReceive, INADDR_LOOPBACK), 0);
    EXPECT_EQ(bytes_of(calls.option(IPPROTO_IP, IP_MULTICAST_IF)), (std::vector<int>{127, 0, 0, 1}));
    EXPECT_EQ(bytes_of(calls.option(IPPROTO_IP, IP_MULTICAST_TTL)), (std::vector<int>{64}));
    const SystemCall by_address = calls.option(IPPROTO_IP, IP_ADD_MEMBERSHIP);
    const SystemCall by_index = calls.option(IPPROTO_IP, MCAST_JOIN_GROUP);
    if (!hardware) {
      EXPECT_EQ(bytes_of(by_address), (std::vector<int>{225, 2, 3, 4, 127, 0, 0, 1}));
      EXPECT_EQ(by_index.result, -2) << "there is none";
      continue;
    }
    EXPECT_EQ(by_address.result, -2) << "there is none";
    ASSERT_EQ(by_index.value.size(), sizeof(group_req));
    group_req request;
    std::memcpy(&request, by_index.value.data(), sizeof request);
    sockaddr_in group;
    std::memcpy(&group, &request.gr_group, sizeof group);
    EXPECT_EQ(group.sin_family, AF_INET);
    EXPECT_EQ(group.sin_addr.s_addr, htonl(kGroup));
    EXPECT_EQ(group.sin_port, kPort) << "in host order, which the system does not look at";
    const std::size_t behind = offsetof(group_req, gr_group) + sizeof group;
    EXPECT_EQ(by_index.value.substr(behind), std::string(sizeof request - behind, '\0'));
  }
}

// ---- A socket that has been used before --------------------------------------------------------------------------

TEST_F(SocketMulticast, ClosesTheDescriptorOfAnEarlierCreation) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    const OwnedSocket socket = indirect_socket();
    let_the_layer_start();
    ASSERT_EQ(create(form, *socket, McReceiveOnly), 0);
    const int before = open_descriptors();
    ASSERT_EQ(create(form, *socket, McReceiveOnly, 0, kOtherGroup), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(joined("left", kGroup)) << "left with its descriptor";
    EXPECT_TRUE(joined("left", kOtherGroup));
  }
}

TEST_F(SocketMulticast, ForgetsTheDestinationOfAnEarlierUse) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = indirect_socket();
  socket->rem_sin.Set(kPeerLeft, 99);
  ASSERT_EQ(create(*socket, McReceiveOnly), 0);
  EXPECT_TRUE(socket->rem_sin == SockAddr());
}

TEST_F(SocketMulticast, TheGroupMayBeTheSocketsOwnAddress) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    const OwnedSocket socket = indirect_socket();
    socket->loc_sin.Set(kGroup, kPort);
    ASSERT_EQ(((*socket).*form.create)(socket->loc_sin, McSendOnly, nullptr), 0);
    EXPECT_TRUE(socket->rem_sin == SockAddr(kGroup, kPort));
    ASSERT_EQ(((*socket).*form.create)(socket->rem_sin, McReceiveOnly, nullptr), 0);
    EXPECT_TRUE(socket->loc_sin == SockAddr(kGroup, kPort));
  }
}

TEST_F(SocketMulticast, ThePublicAddressIsNotTheWayToAGroup) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  AsyncSocket::modulePublicIPAddress.Set(kOwnRight, 0);
  {
    const OwnedSocket socket = indirect_socket();
    ASSERT_EQ(create(*socket, McSendAndReceive), 0);
    EXPECT_EQ(multicast_interface(socket->s), kOwnLeft);
    EXPECT_TRUE(joined("left", kGroup));
  }
  AsyncSocket::modulePublicIPAddress.Set(ULONG{0}, 0);
}

// ---- Refusals ----------------------------------------------------------------------------------------------------

TEST_F(SocketMulticast, ReportsWhenThereIsNoDescriptor) {
  for (const Form& form : kForms) {
    for (const bool traced : {false, true}) {
      const OwnedSocket socket = indirect_socket();
      console.clear();
      SocketCalls calls;
      calls.fail(SystemCall::kSocket, ENFILE);
      {
        const Tracing level(traced ? 1 : 0);
        EXPECT_EQ(create(form, *socket, McSendAndReceive), -1);
      }
      EXPECT_EQ(socket->s, -1);
      EXPECT_EQ(socket->type, SOCK_DGRAM);
      EXPECT_EQ(state_of(*socket), SSInitial);
      Texts expected;
      if (traced) {
        expected.push_back(
            text_of("-1 AsyncSocket::%s(%d,%08x,%d)", form.name, kPort, kGroup, McSendAndReceive));
      }
      expected.push_back(text_of("-1 AsyncSocket::%s - %s %d", form.name, form.socket_failure, ENFILE));
      EXPECT_EQ(said(), expected);
      const SystemCall call = calls.calls(SystemCall::kSocket).front();
      EXPECT_EQ(call.family, AF_INET);
      EXPECT_EQ(call.type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK), SOCK_DGRAM);
      EXPECT_EQ(call.protocol, IPPROTO_UDP);
    }
  }
}

TEST_F(SocketMulticast, GoesOnWhenItCannotBeBound) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    for (const MulticastFlags flags : {McReceiveOnly, McSendAndReceive}) {
      console.clear();
      const OwnedSocket socket = indirect_socket();
      SocketCalls calls;
      calls.fail(SystemCall::kBind, EADDRINUSE,
                 [](const SystemCall& call) { return ntohl(call.address.sin_addr.s_addr) == kGroup; });
      EXPECT_EQ(create(form, *socket, flags), 0);
      EXPECT_EQ(said().front(),
                text_of("%d AsyncSocket::%s Bind failed with %d", socket->s, form.name, EADDRINUSE));
      EXPECT_TRUE(joined("left", kGroup));
      EXPECT_EQ(state_of(*socket), SSConnected);
      EXPECT_EQ(running(*socket), form.starts);
    }
  }
}

TEST_F(SocketMulticast, ReportsAGroupThatCannotBeJoined) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    console.clear();
    const OwnedSocket socket = indirect_socket();
    SocketCalls calls;
    calls.fail_option(IP_ADD_MEMBERSHIP, ENOBUFS);
    EXPECT_EQ(create(form, *socket, McReceiveOnly), ENOBUFS);
    EXPECT_EQ(
        said(),
        (Texts{text_of("%d AsyncSocket::%s IP_ADD_MEMBERSHIP %08x %08x", socket->s, form.name, htonl(kGroup),
                       htonl(kOwnLeft)),
               text_of("%d AsyncSocket::%s ADD_MEMBERSHIP failed with %d", socket->s, form.name, ENOBUFS)}));
    EXPECT_GE(socket->s, 0) << "for the caller to close";
    EXPECT_EQ(state_of(*socket), SSInitial);
    EXPECT_FALSE(running(*socket));
  }
}

TEST_F(SocketMulticast, ReportsAnAddressThatIsNoGroup) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = indirect_socket();
  EXPECT_EQ(create(kForms[0], *socket, McReceiveOnly, 0, kOwnLeft), EINVAL);
  EXPECT_TRUE(printed(
      console, text_of("%d AsyncSocket::CreateMulticast ADD_MEMBERSHIP failed with %d", socket->s, EINVAL)));
}

TEST_F(SocketMulticast, OnlyReportsSendOptionsThatAreRefused) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const MulticastFlags flags : {McSendOnly, McSendAndReceive}) {
    console.clear();
    const OwnedSocket socket = indirect_socket();
    SocketCalls calls;
    calls.fail_option(IP_MULTICAST_IF, EADDRNOTAVAIL);
    calls.fail_option(IP_MULTICAST_TTL, EINVAL);
    calls.fail_option(SO_REUSEADDR, EPERM);
    calls.fail_request(FIONBIO, EIO);
    EXPECT_EQ(create(*socket, flags), 0);
    EXPECT_EQ(
        lines_with(console, "Connect"),
        (Texts{text_of("%d AsyncSocket::Connect MULTICAST_IF failed with error %d", socket->s, EADDRNOTAVAIL),
               text_of("%d AsyncSocket::Connect MULTICAST_TTL failed with error %d", socket->s, EINVAL)}));
    EXPECT_EQ(calls.option(IPPROTO_IP, IP_MULTICAST_TTL).value, std::string(1, '\x40')) << "one byte";
    EXPECT_EQ(state_of(*socket), SSConnected);
  }
}

}  // namespace
}  // namespace oskernel_test
