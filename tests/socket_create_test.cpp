// How a socket gets its descriptor: adopted, made and bound, with which options, and what is said when the system
// refuses.

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
#include "support/socket_calls.h"
#include "support/socket_probe.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

// ---- Adopting a descriptor ---------------------------------------------------------------------------------------

class SocketAdoption : public NetworkTest {};

TEST_F(SocketAdoption, TakesTheDescriptorAndLearnsItsName) {
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    Descriptor bound = bound_socket(type);
    const int fd = bound.release();
    const OwnedSocket socket = indirect_socket();
    EXPECT_EQ(socket->Create(type, fd), 0);
    EXPECT_EQ(socket->s, fd);
    EXPECT_EQ(socket->type, type);
    EXPECT_TRUE(socket->loc_sin == system_name(fd));
    EXPECT_EQ(socket->loc_sin.Address(), INADDR_LOOPBACK);
    EXPECT_EQ(socket->state, SSInitial);
  }
}

TEST_F(SocketAdoption, MakesOnlyAnIndirectDescriptorNonBlocking) {
  for (const bool indirect : {true, false}) {
    const OwnedSocket socket(new AsyncSocket(indirect));
    socket->Create(SOCK_STREAM, bound_socket(SOCK_STREAM).release());
    EXPECT_EQ(non_blocking(socket->s), indirect);
  }
}

TEST_F(SocketAdoption, DoesNotStartReception) {
  for (const bool indirect : {true, false}) {
    const OwnedSocket socket(new AsyncSocket(indirect));
    socket->Create(SOCK_DGRAM, bound_socket(SOCK_DGRAM).release());
    EXPECT_FALSE(running(*socket));
    EXPECT_FALSE(receive_started(*socket));
    EXPECT_EQ(socket->thread, pthread_t{});
  }
}

TEST_F(SocketAdoption, ChangesNoOptionOfTheDescriptor) {
  SocketCalls calls;
  const OwnedSocket socket = indirect_socket();
  socket->Create(SOCK_STREAM, bound_socket(SOCK_STREAM).release());
  EXPECT_TRUE(calls.option(SOL_SOCKET, SO_BROADCAST).result == -2);
  EXPECT_TRUE(calls.option(SOL_SOCKET, SO_SNDTIMEO).result == -2);
}

TEST_F(SocketAdoption, GoesOnWhenTheNameCannotBeHad) {
  const OwnedSocket socket = indirect_socket();
  const int fd = bound_socket(SOCK_STREAM).release();
  SocketCalls calls;
  calls.fail(SystemCall::kGetsockname, ENOBUFS);
  EXPECT_EQ(socket->Create(SOCK_STREAM, fd), 0);
  EXPECT_EQ(socket->s, fd);
  EXPECT_TRUE(non_blocking(fd));
  EXPECT_TRUE(printed(console, text_of("%d AsyncSocket::Create(skt) - getsockname() error %d", fd, ENOBUFS)));
}

TEST_F(SocketAdoption, OfANewSocketForAConnectionIsIndirectAndOfTheListenersType) {
  for (const bool indirect : {true, false}) {
    const OwnedSocket listener(new AsyncSocket(indirect));
    ASSERT_EQ(listener->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    const int fd = bound_socket(SOCK_STREAM).release();
    const OwnedSocket accepted(listener->GetNewSocket(fd));
    EXPECT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->s, fd);
    EXPECT_EQ(accepted->type, SOCK_STREAM);
    EXPECT_TRUE(accepted->indirect_socket);
    EXPECT_TRUE(non_blocking(fd));
    EXPECT_FALSE(running(*accepted));
    EXPECT_EQ(accepted->state, SSInitial);
    EXPECT_EQ(live_sockets().back(), accepted.get());
  }
}

// ---- Making and binding ------------------------------------------------------------------------------------------

enum class Form { kOrdinary, kRealTime };

struct Case {
  Form form;
  bool indirect;
  int type;
  bool reuse_allowed;

  const char* operation() const { return form == Form::kOrdinary ? "Create" : "CreateRealTime"; }
  int create(AsyncSocket& socket, UWORD port, ULONG addr) const {
    return form == Form::kOrdinary ? socket.Create(type, port, addr, reuse_allowed)
                                   : socket.CreateRealTime(type, port, addr, reuse_allowed);
  }
};

std::vector<Case> all_cases() {
  std::vector<Case> cases;
  for (const Form form : {Form::kOrdinary, Form::kRealTime}) {
    for (const bool indirect : {true, false}) {
      for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        for (const bool reuse : {false, true}) cases.push_back({form, indirect, type, reuse});
      }
    }
  }
  return cases;
}

std::string case_name(const testing::TestParamInfo<Case>& info) {
  const Case& c = info.param;
  return std::string(c.operation()) + (c.indirect ? "Indirect" : "Direct") +
         (c.type == SOCK_STREAM ? "Stream" : "Datagram") + (c.reuse_allowed ? "Reuse" : "");
}

class SocketCreate : public NetworkTest, public testing::WithParamInterface<Case> {
 protected:
  OwnedSocket made() { return OwnedSocket(new AsyncSocket(GetParam().indirect)); }
  int create(AsyncSocket& socket, UWORD port = 0, ULONG addr = INADDR_LOOPBACK) {
    return GetParam().create(socket, port, addr);
  }
  /// "%d AsyncSocket::Create  type=... resuse=%d", with this case's operation and arguments.
  std::string failure(int s, int type, UWORD port, ULONG addr, const char* what, int error) {
    return text_of("%d AsyncSocket::%s  type=%d port=%d addr=%08x resuse=%d - %s %d", s,
                   GetParam().operation(), type, port, addr, GetParam().reuse_allowed ? 1 : 0, what, error);
  }
};
INSTANTIATE_TEST_SUITE_P(Forms, SocketCreate, testing::ValuesIn(all_cases()), case_name);

TEST_P(SocketCreate, MakesADescriptorOfTheType) {
  const OwnedSocket socket = made();
  SocketCalls calls;
  ASSERT_EQ(create(*socket), 0);
  ASSERT_EQ(calls.count(SystemCall::kSocket), 1u);
  const SystemCall call = calls.calls(SystemCall::kSocket).front();
  EXPECT_EQ(call.family, AF_INET);
  EXPECT_EQ(call.type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK), GetParam().type);
  EXPECT_EQ(call.protocol, 0);
  EXPECT_EQ(socket->s, call.result);
  EXPECT_EQ(socket->type, GetParam().type);
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_TYPE), GetParam().type);
  EXPECT_EQ(console.text(), "");
}

TEST_P(SocketCreate, SetsTheOptionsOfTheForm) {
  const OwnedSocket socket = made();
  ASSERT_EQ(create(*socket), 0);
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_BROADCAST), 1);
  const bool reuse = GetParam().type == SOCK_STREAM || GetParam().reuse_allowed;
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_REUSEADDR), reuse ? 1 : 0);
  EXPECT_EQ(send_timeout(socket->s).tv_sec, GetParam().form == Form::kOrdinary ? 2 : 0);
  EXPECT_EQ(send_timeout(socket->s).tv_usec, 0);
  EXPECT_EQ(non_blocking(socket->s), GetParam().indirect);
}

TEST_P(SocketCreate, SetsTheOptionsBeforeItBinds) {
  const OwnedSocket socket = made();
  SocketCalls calls;
  bool broadcast = false, reuse = false, blocking = true;
  calls.answer([&](const SystemCall& call, int*) {
    if (call.name != SystemCall::kBind) return false;
    broadcast = int_option(call.fd, SOL_SOCKET, SO_BROADCAST) == 1;
    reuse = int_option(call.fd, SOL_SOCKET, SO_REUSEADDR) == 1;
    blocking = !non_blocking(call.fd);
    return false;
  });
  ASSERT_EQ(create(*socket), 0);
  EXPECT_TRUE(broadcast);
  EXPECT_EQ(reuse, GetParam().type == SOCK_STREAM || GetParam().reuse_allowed);
  EXPECT_EQ(blocking, !GetParam().indirect);
}

TEST_P(SocketCreate, LearnsThePortThatTheSystemChose) {
  const OwnedSocket socket = made();
  SocketCalls calls;
  ASSERT_EQ(create(*socket), 0);
  EXPECT_EQ(calls.count(SystemCall::kBind), 1u);
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 1u);
  const UWORD port = socket->LocalPort();
  EXPECT_NE(port, 0);
  EXPECT_EQ(socket->LocalIP_h(), INADDR_LOOPBACK);
  EXPECT_EQ(socket->LocalIP_n(), htonl(INADDR_LOOPBACK));
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 1u) << "the answer is known";
  EXPECT_EQ(system_name(socket->s).Port(), port);
}

TEST_P(SocketCreate, BindsToThePortAndAddressThatItIsGiven) {
  const UWORD port = local_port_of(bound_socket(GetParam().type).get());
  const OwnedSocket socket = made();
  SocketCalls calls;
  AsyncSocket::SetPrimaryAddress(INADDR_LOOPBACK);
  const int result = create(*socket, port, kLoopback2);
  ASSERT_EQ(calls.count(SystemCall::kBind), 1u);
  const sockaddr_in bound = calls.calls(SystemCall::kBind).front().address;
  EXPECT_EQ(bound.sin_family, AF_INET);
  EXPECT_EQ(ntohl(bound.sin_addr.s_addr), kLoopback2);
  EXPECT_EQ(ntohs(bound.sin_port), port);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(socket->loc_sin.Address(), kLoopback2);
  EXPECT_EQ(socket->LocalPort(), port);
}

TEST_P(SocketCreate, TakesThePrimaryAddressForNone) {
  AsyncSocket::SetPrimaryAddress(kLoopback2);
  const OwnedSocket socket = made();
  ASSERT_EQ(create(*socket, 0, 0), 0);
  EXPECT_EQ(system_name(socket->s).Address(), kLoopback2);
  EXPECT_EQ(socket->loc_sin.Address(), kLoopback2);
}

TEST_P(SocketCreate, TakesAnyAddressWhenThereIsNoPrimaryOne) {
  const OwnedSocket socket = made();
  ASSERT_EQ(create(*socket, 0, 0), 0);
  EXPECT_EQ(system_name(socket->s).Address(), 0u);
  EXPECT_EQ(socket->loc_sin.Address(), 0u);
  EXPECT_NE(socket->LocalPort(), 0);
}

TEST_P(SocketCreate, StartsReceptionOfADatagramSocketAlone) {
  const bool datagram = GetParam().type == SOCK_DGRAM;
  const OwnedSocket socket = made();
  ASSERT_EQ(create(*socket), 0);
  EXPECT_EQ(running(*socket), datagram);
  EXPECT_EQ(receive_started(*socket), datagram);
  EXPECT_EQ(socket->thread != pthread_t{}, datagram && !GetParam().indirect);
  EXPECT_EQ(state_of(*socket), SSInitial) << "it has no destination yet";
}

TEST_P(SocketCreate, ReceivesDatagramsFromTheMomentItIsMade) {
  if (GetParam().type != SOCK_DGRAM) return;
  RecordingLayer layer;
  PeerUdp peer;
  const OwnedSocket socket = made();
  socket->Bind(&layer);
  ASSERT_EQ(create(*socket), 0);
  ASSERT_TRUE(peer.send_to(socket->LocalPort(), "first"));
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(layer.story(), (Texts{"datagram:first"}));
}

TEST_P(SocketCreate, SaysWhenThereIsNoDescriptor) {
  AsyncSocket::SetPrimaryAddress(kLoopback2);
  const OwnedSocket socket = made();
  SocketCalls calls;
  calls.fail(SystemCall::kSocket, EMFILE);
  EXPECT_EQ(create(*socket, 4711, 0), EMFILE);
  EXPECT_EQ(socket->s, -1);
  EXPECT_EQ(socket->type, GetParam().type);
  EXPECT_FALSE(running(*socket));
  EXPECT_EQ(calls.count(SystemCall::kBind), 0u);
  EXPECT_EQ(console.calls(),
            (Texts{failure(-1, GetParam().type, 4711, kLoopback2, "SOCKET failed", EMFILE)}));
}

TEST_P(SocketCreate, SaysWhenThePortIsInUseAndKeepsTheDescriptor) {
  const Descriptor taken = bound_socket(GetParam().type);
  if (GetParam().type == SOCK_STREAM) {
    ASSERT_EQ(listen(taken.get(), 1), 0);  // SO_REUSEADDR allows the rest
  } else {
    const int off = 0;  // both must want to share a datagram port
    ASSERT_EQ(setsockopt(taken.get(), SOL_SOCKET, SO_REUSEADDR, &off, sizeof off), 0);
  }
  const UWORD port = local_port_of(taken.get());
  const OwnedSocket socket = made();
  EXPECT_EQ(create(*socket, port), EADDRINUSE);
  const int fd = socket->s;
  EXPECT_GE(fd, 0);
  EXPECT_TRUE(is_open(fd));
  EXPECT_FALSE(running(*socket));
  EXPECT_EQ(console.calls(),
            (Texts{failure(fd, GetParam().type, port, INADDR_LOOPBACK, "BIND failed", EADDRINUSE)}));
  socket->Close();
  EXPECT_EQ(socket->s, -1);
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(create(*socket), 0);
}

TEST_P(SocketCreate, ReturnsTheErrorOfTheBindItself) {
  const OwnedSocket socket = made();
  SocketCalls calls;
  calls.fail(SystemCall::kBind, EACCES);
  EXPECT_EQ(create(*socket, 80), EACCES);
  EXPECT_EQ(console.calls(),
            (Texts{failure(socket->s, GetParam().type, 80, INADDR_LOOPBACK, "BIND failed", EACCES)}));
  EXPECT_EQ(calls.count(SystemCall::kGetsockname), 0u);
}

TEST_P(SocketCreate, TriesAgainWithTheDescriptorThatAFailedBindLeft) {
  const OwnedSocket socket = made();
  {
    SocketCalls calls;
    calls.fail(SystemCall::kBind, EADDRINUSE);
    ASSERT_EQ(create(*socket), EADDRINUSE);
  }
  const int fd = socket->s;
  SocketCalls calls;
  EXPECT_EQ(create(*socket), 0);
  EXPECT_EQ(socket->s, fd);
  EXPECT_EQ(calls.count(SystemCall::kSocket), 0u);
  EXPECT_EQ(running(*socket), GetParam().type == SOCK_DGRAM);
}

TEST_P(SocketCreate, UsesADescriptorThatIsOpenAndKeepsItsType) {
  // What the program has made stays as it is: options and reception follow the type the socket had before.
  const int other = GetParam().type == SOCK_STREAM ? SOCK_DGRAM : SOCK_STREAM;
  const OwnedSocket socket = made();
  const int fd = ::socket(AF_INET, other, 0);
  socket->s = fd;
  socket->type = other;
  SocketCalls calls;
  EXPECT_EQ(create(*socket), 0);
  EXPECT_EQ(socket->s, fd);
  EXPECT_EQ(socket->type, other);
  EXPECT_EQ(calls.count(SystemCall::kSocket), 0u);
  EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_REUSEADDR),
            other == SOCK_STREAM || GetParam().reuse_allowed ? 1 : 0);
  EXPECT_EQ(running(*socket), other == SOCK_DGRAM);
}

TEST_P(SocketCreate, GoesByNoTypeForADescriptorThatWasPutInBare) {
  const OwnedSocket socket = made();
  socket->s = ::socket(AF_INET, GetParam().type, 0);
  EXPECT_EQ(create(*socket), 0);
  EXPECT_EQ(socket->type, 0);
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_REUSEADDR), 0);
  EXPECT_FALSE(running(*socket));
}

TEST_P(SocketCreate, GoesOnWithWhatItAskedForWhenTheNameCannotBeHad) {
  const UWORD port = local_port_of(bound_socket(GetParam().type).get());
  const OwnedSocket socket = made();
  SocketCalls calls;
  calls.fail(SystemCall::kGetsockname, ENOBUFS);
  const int result = create(*socket, port);
  EXPECT_EQ(result, 0);
  const char* what = GetParam().form == Form::kOrdinary ? "getsockname() error" : "getsockname() failed";
  EXPECT_EQ(console.calls(),
            (Texts{failure(socket->s, GetParam().type, port, INADDR_LOOPBACK, what, ENOBUFS)}));
  EXPECT_EQ(socket->loc_sin.Address(), INADDR_LOOPBACK);
  EXPECT_EQ(socket->loc_sin.Port(), port);
  EXPECT_EQ(running(*socket), GetParam().type == SOCK_DGRAM);
}

TEST_P(SocketCreate, IgnoresOptionsThatTheSystemRefuses) {
  const OwnedSocket socket = made();
  SocketCalls calls;
  calls.fail(SystemCall::kSetsockopt, ENOPROTOOPT);
  calls.fail_request(FIONBIO, EIO);
  EXPECT_EQ(create(*socket), 0);
  EXPECT_EQ(console.text(), "");
  EXPECT_NE(socket->LocalPort(), 0);
  EXPECT_EQ(int_option(socket->s, SOL_SOCKET, SO_BROADCAST), 0) << "it has been asked for and refused";
}

TEST_P(SocketCreate, TellsWhatItDoesWhenItIsTraced) {
  AsyncSocket::SetPrimaryAddress(kLoopback2);
  const OwnedSocket socket = made();
  {
    const Tracing traced;
    ASSERT_EQ(create(*socket, 0, 0), 0);
  }
  const Texts calls = lines_with(console, "AsyncSocket::Create");
  ASSERT_EQ(calls.size(), 2u);
  const Case& c = GetParam();
  EXPECT_EQ(calls[0], text_of("%d AsyncSocket::%s(%d,%d,%08x,%d)", socket->s, c.operation(), c.type, 0,
                              kLoopback2, c.reuse_allowed ? 1 : 0));
  EXPECT_EQ(calls[1], text_of("%d AsyncSocket::%s() local_sin %d %08x", socket->s, c.operation(),
                              socket->LocalPort(), kLoopback2));
}

TEST_P(SocketCreate, TracesTheTypeItWasAskedForEvenWhenAnOpenDescriptorHasAnother) {
  const int other = GetParam().type == SOCK_STREAM ? SOCK_DGRAM : SOCK_STREAM;
  const OwnedSocket socket = made();
  socket->s = ::socket(AF_INET, other, 0);
  socket->type = other;
  {
    const Tracing traced;
    ASSERT_EQ(create(*socket), 0);
  }
  EXPECT_EQ(lines_with(console, "AsyncSocket::Create").front(),
            text_of("%d AsyncSocket::%s(%d,%d,%08x,%d)", socket->s, GetParam().operation(), GetParam().type,
                    0, INADDR_LOOPBACK, GetParam().reuse_allowed ? 1 : 0));
}

TEST_P(SocketCreate, TracesTheSocketsOwnTypeWhenItFails) {
  const int other = GetParam().type == SOCK_STREAM ? SOCK_DGRAM : SOCK_STREAM;
  const OwnedSocket socket = made();
  socket->s = ::socket(AF_INET, other, 0);
  socket->type = other;
  SocketCalls calls;
  calls.fail(SystemCall::kBind, EADDRNOTAVAIL);
  EXPECT_EQ(create(*socket, 9), EADDRNOTAVAIL);
  EXPECT_EQ(console.calls(),
            (Texts{failure(socket->s, other, 9, INADDR_LOOPBACK, "BIND failed", EADDRNOTAVAIL)}));
}

class SocketPorts : public NetworkTest {};

TEST_F(SocketPorts, DatagramSocketsShareOneWhenBothAllowIt) {
  const OwnedSocket first = indirect_socket(), second = indirect_socket(), third = indirect_socket();
  ASSERT_EQ(first->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, true), 0);
  EXPECT_EQ(second->Create(SOCK_DGRAM, first->LocalPort(), INADDR_LOOPBACK, true), 0);
  EXPECT_EQ(third->Create(SOCK_DGRAM, first->LocalPort(), INADDR_LOOPBACK, false), EADDRINUSE);
}

TEST_F(SocketPorts, OfAStreamAreTakenAgainWhileOldConnectionsLinger) {
  // Restarted programs find their port although the system still remembers the last run's connections.
  UWORD port = 0;
  {
    const OwnedSocket listener = indirect_socket();
    ASSERT_EQ(listener->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    ASSERT_EQ(listen(listener->s, 1), 0);
    port = listener->LocalPort();
    PeerStream peer = PeerStream::connect_to(port);
    ASSERT_TRUE(peer.is_open());
    const int accepted = accept(listener->s, nullptr, nullptr);
    ASSERT_GE(accepted, 0);
    close(accepted);  // this side closes first and keeps the port in TIME_WAIT
    EXPECT_TRUE(peer.ended());
  }
  const OwnedSocket again = indirect_socket();
  EXPECT_EQ(again->Create(SOCK_STREAM, port, INADDR_LOOPBACK, false), 0);
}

}  // namespace
}  // namespace oskernel_test
