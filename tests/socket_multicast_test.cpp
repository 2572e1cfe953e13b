// Multicast sockets between two machines that are joined by interfaces: what each way of use sets up, who receives what,
// and by which interface.

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

// ---- What each way of use sets up --------------------------------------------------------------------------------

TEST_F(SocketMulticast, SendOnlyHasTheGroupAsDestinationAndJoinsNothing) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    const OwnedSocket socket = indirect_socket();
    SocketCalls calls;
    ASSERT_EQ(create(form, *socket, McSendOnly), 0) << form.name;
    EXPECT_EQ(socket->type, SOCK_DGRAM);
    EXPECT_EQ(state_of(*socket), SSConnected);
    EXPECT_EQ(socket->rem_sin.Address(), kGroup);
    EXPECT_EQ(socket->rem_sin.Port(), kPort);
    EXPECT_EQ(socket->loc_sin.Address(), 0u);
    EXPECT_EQ(socket->loc_sin.Port(), 0);
    EXPECT_EQ(calls.count(SystemCall::kBind), 1u) << "the search for the interface alone";
    EXPECT_NE(calls.calls(SystemCall::kBind).front().fd, socket->s);
    EXPECT_EQ(system_name(socket->s).Port(), 0) << "not bound";
    EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_FALSE(joined("left", kGroup));
    EXPECT_FALSE(running(*socket));
    EXPECT_EQ(multicast_ttl(socket->s), 64);
    EXPECT_EQ(multicast_interface(socket->s), kOwnLeft);
    EXPECT_EQ(said(), Texts{});
  }
}

TEST_F(SocketMulticast, SendOnlyNotesThePrimaryAddressAsItsOwn) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  AsyncSocket::SetPrimaryAddress(kOwnRight);
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(create(*socket, McSendOnly), 0);
  EXPECT_EQ(socket->loc_sin.Address(), kOwnRight);
  EXPECT_EQ(socket->loc_sin.Port(), 0);
  EXPECT_EQ(multicast_interface(socket->s), kOwnRight) << "the primary address is the way out, too";
}

TEST_F(SocketMulticast, ReceiveOnlyIsBoundToTheGroupAndHasNoDestination) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    const OwnedSocket socket = indirect_socket();
    ASSERT_EQ(create(form, *socket, McReceiveOnly), 0) << form.name;
    EXPECT_EQ(socket->type, SOCK_DGRAM);
    EXPECT_EQ(state_of(*socket), SSConnected);
    EXPECT_EQ(socket->rem_sin.Address(), 0u);
    EXPECT_EQ(socket->rem_sin.Port(), 0);
    EXPECT_EQ(socket->loc_sin.Address(), kGroup);
    EXPECT_EQ(socket->loc_sin.Port(), kPort);
    EXPECT_EQ(system_name(socket->s).Address(), kGroup);
    EXPECT_EQ(system_name(socket->s).Port(), kPort);
    EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_TRUE(joined("left", kGroup));
    EXPECT_FALSE(joined("right", kGroup));
    EXPECT_EQ(running(*socket), form.starts);
    EXPECT_EQ(receive_started(*socket), form.starts);
    EXPECT_EQ(multicast_ttl(socket->s), 1) << "it sends nothing, so nothing is set for it";
  }
}

TEST_F(SocketMulticast, SendAndReceiveIsBothAtOnce) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    const OwnedSocket socket = indirect_socket();
    ASSERT_EQ(create(form, *socket, McSendAndReceive), 0) << form.name;
    EXPECT_EQ(state_of(*socket), SSConnected);
    for (const SockAddr* address : {&socket->rem_sin, &socket->loc_sin}) {
      EXPECT_EQ(address->Address(), kGroup);
      EXPECT_EQ(address->Port(), kPort);
    }
    EXPECT_EQ(system_name(socket->s).Address(), kGroup);
    EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_TRUE(joined("left", kGroup));
    EXPECT_EQ(multicast_ttl(socket->s), 64);
    EXPECT_EQ(multicast_interface(socket->s), kOwnLeft);
    EXPECT_EQ(running(*socket), form.starts);
  }
}

TEST_F(SocketMulticast, AnyOtherWayOfUseOnlyNotesTheAddress) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    for (const int flags : {0, 4, -1}) {
      const OwnedSocket socket = indirect_socket();
      SocketCalls calls;
      EXPECT_EQ(create(form, *socket, static_cast<MulticastFlags>(flags)), 0);
      EXPECT_EQ(state_of(*socket), SSConnected);
      EXPECT_EQ(socket->loc_sin.Address(), kGroup);
      EXPECT_EQ(socket->rem_sin.Address(), kGroup);
      EXPECT_EQ(calls.count(SystemCall::kBind), 0u);
      EXPECT_EQ(calls.count(SystemCall::kSetsockopt), 0u);
      EXPECT_TRUE(non_blocking(socket->s));
      EXPECT_FALSE(running(*socket));
      EXPECT_FALSE(joined("left", kGroup));
      EXPECT_EQ(said(), Texts{});
    }
  }
}

TEST_F(SocketMulticast, MakesOnlyAnIndirectDescriptorNonBlocking) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    for (const MulticastFlags flags : kEveryWay) {
      for (const bool indirect : {true, false}) {
        const OwnedSocket socket(new AsyncSocket(indirect));
        ASSERT_EQ(create(form, *socket, flags), 0);
        EXPECT_EQ(non_blocking(socket->s), indirect) << form.name << " " << flags;
        EXPECT_EQ(socket->thread != pthread_t{}, !indirect && form.starts && flags != McSendOnly);
      }
    }
  }
}

// ---- What arrives ------------------------------------------------------------------------------------------------

TEST_F(SocketMulticast, WhatIsSentReachesTheOtherMachineWithATimeToLiveOf64) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  GroupPeer peer(site.there, kPeerLeft);
  for (const Form& form : kForms) {
    for (const MulticastFlags flags : {McSendOnly, McSendAndReceive}) {
      const OwnedSocket socket = indirect_socket();
      ASSERT_EQ(create(form, *socket, flags), 0);
      EXPECT_EQ(socket->DataIndication(buffer_of("to the group")), Success);
      EXPECT_EQ(peer.receive(), "to the group");
      EXPECT_EQ(peer.ttl, 64);
      EXPECT_EQ(peer.from.Address(), kOwnLeft);
      // The destination is the group, whatever address comes with the datagram.
      SockAddr elsewhere(kPeerRight, kPort);
      EXPECT_EQ(socket->DatagramIndication(buffer_of("again"), nullptr, static_cast<sockaddr*>(elsewhere)),
                Success);
      EXPECT_EQ(peer.receive(), "again");
    }
  }
}

TEST_F(SocketMulticast, ReceiversGetTheGroupsDatagramsAndNothingElse) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const bool indirect : {true, false}) {
    for (const MulticastFlags flags : {McReceiveOnly, McSendAndReceive}) {
      RecordingLayer layer, unicast_layer, other_layer;
      const OwnedSocket socket(new AsyncSocket(indirect));
      const OwnedSocket other = indirect_socket(), unicast = indirect_socket();
      socket->Bind(&layer);
      other->Bind(&other_layer);
      unicast->Bind(&unicast_layer);
      ASSERT_EQ(create(*socket, flags), 0);
      ASSERT_EQ(create(kForms[0], *other, McReceiveOnly, 0, kOtherGroup), 0);
      ASSERT_EQ(unicast->Create(SOCK_DGRAM, kPort, kOwnLeft, true), 0);
      GroupPeer peer(site.there, kPeerLeft);
      // What must not come is seen by the ones that it is for, before what must.
      ASSERT_TRUE(peer.send("to the machine", kOwnLeft));
      ASSERT_TRUE(peer.send("to another group", kOtherGroup));
      ASSERT_TRUE(unicast_layer.wait_for(1));
      ASSERT_TRUE(other_layer.wait_for(1));
      ASSERT_TRUE(peer.send("to the group"));
      ASSERT_TRUE(layer.wait_for(1));
      EXPECT_EQ(layer.story(), Texts{"datagram:to the group"});
      EXPECT_EQ(unicast_layer.story(), Texts{"datagram:to the machine"});
      EXPECT_EQ(other_layer.story(), Texts{"datagram:to another group"});
      const Indication heard = layer.at(0);
      EXPECT_EQ(heard.remote.Address(), kPeerLeft);
      EXPECT_EQ(heard.remote.Port(), kPort);
      EXPECT_EQ(heard.local.Address(), kGroup);
      EXPECT_EQ(heard.local.Port(), kPort);
      EXPECT_EQ(heard.remote_ipaddr, htonl(kPeerLeft));
      EXPECT_EQ(heard.local_ipaddr, htonl(kGroup));
      EXPECT_EQ(socket->rem_sin.Address(), flags == McReceiveOnly ? 0 : kGroup) << "a sender changes nothing";
    }
  }
}

TEST_F(SocketMulticast, SendOnlyReceivesNothing) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  RecordingLayer sender_layer, witness_layer;
  const OwnedSocket sender = indirect_socket(), witness = indirect_socket();
  sender->Bind(&sender_layer);
  witness->Bind(&witness_layer);
  ASSERT_EQ(create(*sender, McSendOnly), 0);
  ASSERT_EQ(create(*witness, McReceiveOnly), 0);
  ASSERT_EQ(sender->DataIndication(buffer_of("own")), Success);  // binds it, to any address
  ASSERT_TRUE(witness_layer.wait_for(1));
  GroupPeer peer(site.there, kPeerLeft);
  ASSERT_TRUE(peer.send("group"));
  ASSERT_TRUE(peer.send("answer", kOwnLeft, system_name(sender->s).Port()));
  ASSERT_TRUE(peer.send("group again"));
  ASSERT_TRUE(witness_layer.wait_for(3));
  EXPECT_EQ(sender_layer.story(), Texts{});
  EXPECT_EQ(witness_layer.story(), (Texts{"datagram:own", "datagram:group", "datagram:group again"}));
}

TEST_F(SocketMulticast, SendAndReceiveHearsItself) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  RecordingLayer layer;
  const OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  ASSERT_EQ(create(*socket, McSendAndReceive), 0);
  ASSERT_EQ(socket->DataIndication(buffer_of("echo")), Success);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(layer.story(), Texts{"datagram:echo"});
  EXPECT_EQ(layer.at(0).remote.Address(), kOwnLeft);
}

TEST_F(SocketMulticast, SeveralReceiversOfOneGroupAllHearIt) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  RecordingLayer layers[3];
  OwnedSocket sockets[3];
  for (int i = 0; i < 3; ++i) {
    sockets[i] = OwnedSocket(new AsyncSocket(i != 2));
    sockets[i]->Bind(&layers[i]);
    ASSERT_EQ(create(*sockets[i], i == 0 ? McSendAndReceive : McReceiveOnly), 0);
  }
  GroupPeer peer(site.there, kPeerLeft);
  ASSERT_TRUE(peer.send("all"));
  for (RecordingLayer& layer : layers) {
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_EQ(layer.story(), Texts{"datagram:all"});
  }
}

TEST_F(SocketMulticast, TheRealTimeFormLeavesReadingToTheCaller) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const bool indirect : {true, false}) {
    RecordingLayer layer;
    const OwnedSocket socket(new AsyncSocket(indirect));
    socket->Bind(&layer);
    ASSERT_EQ(create(kForms[1], *socket, McReceiveOnly), 0);
    GroupPeer peer(site.there, kPeerLeft);
    ASSERT_TRUE(peer.send("for the caller"));
    ASSERT_TRUE(wait_readable(socket->s));
    char text[64];
    const ssize_t got = recv(socket->s, text, sizeof text, 0);
    ASSERT_GT(got, 0);
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(got)), "for the caller");
    EXPECT_EQ(layer.count(), 0u);
  }
}

// ---- By which interface ------------------------------------------------------------------------------------------

TEST_F(SocketMulticast, JoinsOnTheInterfaceThatItIsGiven) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  RecordingLayer layer, left_layer;
  const OwnedSocket socket = indirect_socket(), left = indirect_socket();
  socket->Bind(&layer);
  left->Bind(&left_layer);
  ASSERT_EQ(create(*socket, McReceiveOnly, kOwnRight), 0);
  EXPECT_TRUE(joined("right", kGroup));
  EXPECT_FALSE(joined("left", kGroup));
  ASSERT_EQ(left->Create(SOCK_DGRAM, kPort, kOwnLeft, true), 0);

  GroupPeer by_left(site.there, kPeerLeft), by_right(site.there, kPeerRight);
  ASSERT_TRUE(by_left.send("by the wrong one"));
  ASSERT_TRUE(by_left.send("left is through", kOwnLeft));
  ASSERT_TRUE(left_layer.wait_for(1));
  ASSERT_TRUE(by_right.send("by the right one"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(layer.story(), Texts{"datagram:by the right one"});
}

TEST_F(SocketMulticast, TheInterfaceGivenIsForJoiningAlone) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  // What is sent goes where broadcasts go, whatever interface the group is joined on.
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(create(*socket, McSendAndReceive, kOwnRight), 0);
  EXPECT_TRUE(joined("right", kGroup));
  EXPECT_FALSE(joined("left", kGroup));
  EXPECT_EQ(multicast_interface(socket->s), kOwnLeft);
  GroupPeer peer(site.there, kPeerLeft);
  ASSERT_EQ(socket->DataIndication(buffer_of("out")), Success);
  EXPECT_EQ(peer.receive(), "out");
}

TEST_F(SocketMulticast, WithoutOneItTakesThePrimaryAddressOrTheBroadcastRoutes) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  {
    const OwnedSocket socket = indirect_socket();
    ASSERT_EQ(create(*socket, McReceiveOnly), 0);
    EXPECT_TRUE(joined("left", kGroup));
  }
  EXPECT_FALSE(joined("left", kGroup)) << "left with its socket";
  AsyncSocket::SetPrimaryAddress(kOwnRight);
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(create(*socket, McSendAndReceive), 0);
  EXPECT_TRUE(joined("right", kGroup));
  EXPECT_FALSE(joined("left", kGroup));
  EXPECT_EQ(multicast_interface(socket->s), kOwnRight);
}

TEST_F(SocketMulticast, NamesGroupAndInterfaceInNetworkOrder) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    console.clear();
    const OwnedSocket socket = indirect_socket();
    ASSERT_EQ(create(form, *socket, McReceiveOnly, kOwnRight), 0);
    EXPECT_EQ(said(), Texts{text_of("%d AsyncSocket::%s IP_ADD_MEMBERSHIP %08x %08x", socket->s, form.name,
                                    htonl(kGroup), htonl(kOwnRight))});
  }
}

TEST_F(SocketMulticast, TellsMoreWhenItIsTraced) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  for (const Form& form : kForms) {
    for (const MulticastFlags flags : kEveryWay) {
      console.clear();
      const OwnedSocket socket = indirect_socket();
      {
        const Tracing traced;
        ASSERT_EQ(create(form, *socket, flags), 0);
      }
      Texts expected{text_of("%d AsyncSocket::%s(%d,%08x,%d)", socket->s, form.name, kPort, kGroup, flags)};
      if (flags != McSendOnly) {
        expected.push_back(text_of("%d AsyncSocket::%s IP_ADD_MEMBERSHIP %08x %08x", socket->s, form.name,
                                   htonl(kGroup), htonl(kOwnLeft)));
        expected.push_back(
            text_of("%d AsyncSocket::%s ADD_MEMBERSHIP on %08x", socket->s, form.name, htonl(kGroup)));
      }
      EXPECT_EQ(said(), expected);
    }
  }
}

// ---- An ordinary datagram socket ---------------------------------------------------------------------------------

TEST_F(SocketMulticast, ADatagramSocketThatIsConnectedToAGroupGetsTheSendOptions) {
  SKIP_WHERE_EMULATED("setsockopt(IP_MULTICAST_IF)");
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  GroupPeer peer(site.there, kPeerLeft);
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, 0, false), 0);
  EXPECT_EQ(socket->Connect(kGroup, kPort), 0);
  EXPECT_EQ(state_of(*socket), SSConnected);
  EXPECT_EQ(multicast_ttl(socket->s), 64);
  EXPECT_EQ(multicast_interface(socket->s), kOwnLeft);
  EXPECT_EQ(socket->DataIndication(buffer_of("plain")), Success);
  EXPECT_EQ(peer.receive(), "plain");
  EXPECT_EQ(peer.ttl, 64);
  EXPECT_EQ(peer.from.Port(), socket->LocalPort());
}

TEST_F(SocketMulticast, ADatagramSocketThatIsConnectedToAMachineDoesNot) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, 0, false), 0);
  SocketCalls calls;
  EXPECT_EQ(socket->Connect(INADDR_LOOPBACK, 9), 0);
  EXPECT_EQ(calls.count(SystemCall::kSetsockopt), 0u);
  EXPECT_EQ(multicast_ttl(socket->s), 1);
}

}  // namespace
}  // namespace oskernel_test
