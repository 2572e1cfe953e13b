// A socket's options, what it knows of its two ends, and its part as a layer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "network/asocket.h"
#include "support/network_fixture.h"
#include "support/section_wait.h"
#include "support/socket_calls.h"
#include "support/socket_probe.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

// ---- Options and information -------------------------------------------------------------------------------------

class SocketOptions : public NetworkTest {};

TEST_F(SocketOptions, DiffServIsTheWholeTypeOfServiceByte) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  for (const UBYTE value : {UBYTE{0x00}, UBYTE{0x2e}, UBYTE{0xb8}, UBYTE{0xff}, UBYTE{0x01}}) {
    SocketCalls calls;
    socket->SetDiffServ(value);
    EXPECT_EQ(int_option(socket->s, IPPROTO_IP, IP_TOS), value);
    EXPECT_EQ(calls.option(IPPROTO_IP, IP_TOS).number(), value) << "given as an int";
  }
  EXPECT_EQ(console.text(), "");
}

TEST_F(SocketOptions, DiffServThatIsRefusedIsReported) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  SocketCalls calls;
  calls.fail_option(IP_TOS, EPERM);
  socket->SetDiffServ(0xb8);
  EXPECT_EQ(console.calls(), (Texts{text_of("AsyncSocket::SetDiffServ - setsockopt error %d", EPERM)}));
}

TEST_F(SocketOptions, DiffServOfNoDescriptorIsReported) {
  const OwnedSocket socket = indirect_socket();
  socket->SetDiffServ(1);
  EXPECT_EQ(console.calls(), (Texts{text_of("AsyncSocket::SetDiffServ - setsockopt error %d", EBADF)}));
}

TEST_F(SocketOptions, BigBuffersAreAllowedAndForbidden) {
  const OwnedSocket socket = indirect_socket();
  socket->SetBigBuffers(true);
  EXPECT_TRUE(socket->big_buffers_allowed);
  socket->SetBigBuffers(false);
  EXPECT_FALSE(socket->big_buffers_allowed);
}

TEST_F(SocketOptions, PrimaryAddressAndInterfaceAreKept) {
  AsyncSocket::SetPrimaryAddress(0x0A010203);
  EXPECT_EQ(AsyncSocket::local_ipaddr, 0x0A010203u);
  char name[] = "wan0";
  AsyncSocket::SetPrimaryInterfaces(name);
  EXPECT_EQ(AsyncSocket::local_ifname[0], name) << "kept, not copied";
  AsyncSocket::SetPrimaryInterfaces(nullptr);
  EXPECT_EQ(AsyncSocket::local_ifname[0], nullptr);
}

TEST_F(SocketOptions, LocalAddressIsAskedForWhileItIsUnknown) {
  PeerListener peer;
  const OwnedSocket socket = indirect_socket();
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(socket->Create(SOCK_STREAM, fd), 0);
  EXPECT_EQ(socket->LocalIP_h(), 0u);
  EXPECT_EQ(socket->LocalIP_n(), 0u);
  EXPECT_EQ(socket->LocalPort(), 0);
  const sockaddr_in to = loopback_address(peer.port());
  ::connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  ASSERT_TRUE(wait_for_events(fd, POLLOUT));
  SocketCalls calls;
  EXPECT_EQ(socket->LocalIP_h(), INADDR_LOOPBACK);
  EXPECT_EQ(socket->LocalIP_n(), htonl(INADDR_LOOPBACK));
  EXPECT_EQ(socket->LocalPort(), local_port_of(fd));
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 2u)
      << "once for the socket, once for this test's own question";
}

TEST_F(SocketOptions, LocalPortIsAskedForWhileItIsUnknown) {
  const OwnedSocket socket = indirect_socket();
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(socket->Create(SOCK_DGRAM, fd), 0);
  EXPECT_EQ(socket->LocalPort(), 0);
  const sockaddr_in any = loopback_address(0);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
  EXPECT_EQ(socket->LocalPort(), local_port_of(fd));
  EXPECT_EQ(socket->loc_sin.Address(), INADDR_LOOPBACK) << "the whole name is refreshed";
}

TEST_F(SocketOptions, LocalAddressOfASocketForAllAddressesIsAskedForEveryTime) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, 0, false), 0);
  SocketCalls calls;
  for (unsigned i = 1; i <= 3; ++i) {
    EXPECT_EQ(socket->LocalIP_h(), 0u);
    EXPECT_EQ(calls.count(SystemCall::kGetsockname), i);
  }
}

TEST_F(SocketOptions, AddressAndPortAreAskedForEachOnItsOwnAccount) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, 0, false), 0);
  const UWORD port = system_name(socket->s).Port();
  SocketCalls calls;
  EXPECT_EQ(socket->LocalPort(), port) << "known, though the address is not";
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 0u);
  socket->loc_sin.Set(INADDR_LOOPBACK, 0);
  EXPECT_EQ(socket->LocalIP_h(), INADDR_LOOPBACK) << "known, though the port is not";
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 0u);
  EXPECT_EQ(socket->LocalPort(), port);
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 1u);
}

TEST_F(SocketOptions, TheEndsAreReadAndStoredInsideTheSocketsSection) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  const OwnedSocket fresh = indirect_socket();
  ExpectOthersWait(socket->local_cs, {
                                         {"LocalIP_n", [&] { socket->LocalIP_n(); }},
                                         {"LocalIP_h", [&] { socket->LocalIP_h(); }},
                                         {"LocalPort", [&] { socket->LocalPort(); }},
                                         {"RemoteIP_n", [&] { socket->RemoteIP_n(); }},
                                         {"RemoteIP_h", [&] { socket->RemoteIP_h(); }},
                                         {"RemotePort", [&] { socket->RemotePort(); }},
                                         {"RemoteIPText", [&] { socket->RemoteIPText(); }},
                                         {"Connect", [&] { socket->Connect(INADDR_LOOPBACK, 9); }},
                                     });
  ExpectOthersWait(fresh->local_cs,
                   {{"Create", [&] { fresh->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false); }}});
  fresh->Close();
  ExpectOthersWait(
      fresh->local_cs,
      {{"Create of a descriptor", [&] { fresh->Create(SOCK_STREAM, bound_socket(SOCK_STREAM).release()); }}});
}

TEST_F(SocketOptions, AllThreeReportTheSameFailure) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, ::socket(AF_INET, SOCK_STREAM, 0)), 0);
  SocketCalls calls;
  calls.fail(SystemCall::kGetsockname, ENOBUFS);
  EXPECT_EQ(socket->LocalIP_n(), 0u);
  EXPECT_EQ(socket->LocalIP_h(), 0u);
  EXPECT_EQ(socket->LocalPort(), 0);
  const std::string text = text_of("%d AsyncSocket::LocalIP_n: getsockname() error %d", socket->s, ENOBUFS);
  EXPECT_EQ(console.calls(), (Texts{text, text, text}));
}

TEST_F(SocketOptions, WithoutADescriptorTheLocalEndIsReportedAsAFailure) {
  const OwnedSocket socket = indirect_socket();
  EXPECT_EQ(socket->LocalPort(), 0);
  EXPECT_EQ(console.calls(), (Texts{text_of("-1 AsyncSocket::LocalIP_n: getsockname() error %d", EBADF)}));
}

TEST_F(SocketOptions, TheRemoteEndIsReadFromItsAddress) {
  const OwnedSocket socket = indirect_socket();
  socket->rem_sin.Set(0x0A010203, 5060);
  EXPECT_EQ(socket->RemoteIP_h(), 0x0A010203u);
  EXPECT_EQ(socket->RemoteIP_n(), htonl(0x0A010203));
  EXPECT_EQ(socket->RemotePort(), 5060);
  EXPECT_STREQ(socket->RemoteIPText(), "10.1.2.3");
  EXPECT_EQ(socket->RemoteIPText(), socket->rem_sin.addr_str);
}

// ---- As a layer --------------------------------------------------------------------------------------------------

class SocketLayer : public NetworkTest {};

TEST_F(SocketLayer, ConnectIndicationDoesNothing) {
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  OSIOAddress address("10.0.0.1");
  EXPECT_EQ(socket->ConnectIndication(&address), Success);
  EXPECT_EQ(socket->ConnectIndication(nullptr), Success);
  EXPECT_EQ(state_of(*socket), SSInitial);
  EXPECT_EQ(console.text(), "");
}

TEST_F(SocketLayer, DisconnectIndicationShutsBothWaysDown) {
  RecordingLayer layer;
  PeerListener listener;
  const OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, listener.port());
  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(layer.wait_for_connect());
  EXPECT_EQ(socket->DisconnectIndication(Normal, 0), Success);
  EXPECT_TRUE(peer.ended());
  EXPECT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.story(), (Texts{"connect", "disconnect(5,0)"}));
  EXPECT_GE(socket->s, 0) << "the descriptor stays";
}

TEST_F(SocketLayer, DisconnectIndicationWithoutADescriptorSucceeds) {
  const OwnedSocket socket = indirect_socket();
  EXPECT_EQ(socket->DisconnectIndication(Failed, 7), Success);
  EXPECT_EQ(console.text(), "");
}

TEST_F(SocketLayer, BindAndUnBindConnectAndPartTheLayers) {
  RecordingLayer layer;
  const OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  EXPECT_EQ(socket->Partner(), &layer);
  EXPECT_EQ(layer.Partner(), socket.get());
  socket->UnBind();
  EXPECT_EQ(socket->Partner(), &OSNullIO);
  EXPECT_EQ(layer.Partner(), &OSNullIO);
}

TEST_F(SocketLayer, BindAndUnBindWaitForTheSocketsSection) {
  RecordingLayer layer;
  const OwnedSocket socket = indirect_socket();
  EnterCriticalSection(&socket->local_cs);
  WatchedThread binding([&] { socket->Bind(&layer); });
  EXPECT_TRUE(binding.blocked());
  EXPECT_FALSE(socket->IsBound());
  LeaveCriticalSection(&socket->local_cs);
  EXPECT_TRUE(binding.finished_within(kPatienceMs));
  EXPECT_EQ(socket->Partner(), &layer);

  EnterCriticalSection(&socket->local_cs);
  WatchedThread parting([&] { socket->UnBind(); });
  EXPECT_TRUE(parting.blocked());
  EXPECT_TRUE(socket->IsBound());
  LeaveCriticalSection(&socket->local_cs);
  EXPECT_TRUE(parting.finished_within(kPatienceMs));
  EXPECT_FALSE(socket->IsBound());
}

}  // namespace
}  // namespace oskernel_test
