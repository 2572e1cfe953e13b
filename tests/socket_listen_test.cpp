// Listening: what a listener hands over and when, what becomes of connections that nobody takes, accepting by hand,
// and what happens when the system has no descriptor for a connection.

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "support/section_wait.h"
#include "support/socket_watch.h"
#include "support/watched_thread.h"

// ---- System calls that the tests look at or answer themselves ----------------------------------------------------

namespace {

std::atomic<int> last_backlog{-1};
std::atomic<int> failing_accepts{
    0};  ///< so many calls of accept on failing_fd fail before one is let through
std::atomic<int> failing_fd{-1};
std::atomic<int> accept_errno{0};
std::atomic<int> failed_accepts{0};

bool accept_fails(int fd) {
  if (fd != failing_fd || failing_accepts <= 0) return false;
  --failing_accepts;
  ++failed_accepts;
  errno = accept_errno;
  return true;
}

template <class Function>
Function* next_definition(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int listen(int fd, int backlog) noexcept {
  static const auto next = next_definition<int(int, int)>("listen");
  last_backlog = backlog;
  return next(fd, backlog);
}

extern "C" int accept(int fd, sockaddr* address, socklen_t* length) {
  static const auto next = next_definition<int(int, sockaddr*, socklen_t*)>("accept");
  return accept_fails(fd) ? -1 : next(fd, address, length);
}

extern "C" int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  static const auto next = next_definition<int(int, sockaddr*, socklen_t*, int)>("accept4");
  return accept_fails(fd) ? -1 : next(fd, address, length, flags);
}

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Story = std::vector<std::string>;

class SocketListen : public NetworkTest {
 protected:
  void SetUp() override {
    failing_accepts = 0;
    failed_accepts = 0;
    failing_fd = -1;
    NetworkTest::SetUp();
  }
};

class SocketListenEitherWay : public SocketListen, public ::testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
  static OwnedSocket new_listener() { return OwnedSocket(new AsyncSocket(indirect())); }
};
INSTANTIATE_TEST_SUITE_P(Served, SocketListenEitherWay, ::testing::Bool(), way_name);

// ---- Starting ------------------------------------------------------------------------------------------------------

TEST_P(SocketListenEitherWay, MakesTheSocketAListenerWithABacklogOfFour) {
  Acceptor acceptor;
  OwnedSocket listener = new_listener();
  EXPECT_FALSE(now_of(listener->listener));
  EXPECT_EQ(listener->listenObj, nullptr);
  last_backlog = -1;
  EXPECT_EQ(acceptor.listen_with(*listener), 0);
  EXPECT_EQ(last_backlog, 4);
  EXPECT_TRUE(now_of(listener->listener));
  EXPECT_EQ(listener->listenFn, &Acceptor::accepted);
  EXPECT_EQ(listener->listenObj, &acceptor);
  EXPECT_TRUE(now_of(listener->running));
  EXPECT_FALSE(now_of(listener->receive_started)) << "a listener receives nothing itself";
  EXPECT_FALSE(listener->Connected());
}

TEST_P(SocketListenEitherWay, ReturnsTheErrorOfTheSystemAndStartsNothing) {
  Acceptor acceptor;
  OwnedSocket without = new_listener();
  EXPECT_EQ(without->Listen(Acceptor::accepted, &acceptor), EBADF);
  EXPECT_FALSE(now_of(without->listener));
  EXPECT_FALSE(now_of(without->running));

  OwnedSocket datagram(new AsyncSocket(true));
  ASSERT_EQ(datagram->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(datagram->Listen(Acceptor::accepted, &acceptor), EOPNOTSUPP);
  EXPECT_FALSE(now_of(datagram->listener));
}

// ---- What is handed over -------------------------------------------------------------------------------------------

TEST_P(SocketListenEitherWay, EachConnectionComesAsANewIndirectSocketThatKnowsItsPeer) {
  Acceptor acceptor;
  OwnedSocket listener = new_listener();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  const UWORD port = listener->LocalPort();
  for (int i = 0; i < 3; ++i) {
    PeerStream peer = PeerStream::connect_to(port);
    ASSERT_TRUE(peer.is_open());
    OwnedSocket socket = acceptor.take();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(acceptor.last_value(), 0u);
    EXPECT_TRUE(socket->indirect_socket) << "whatever the listener is";
    EXPECT_EQ(socket->type, SOCK_STREAM);
    EXPECT_GE(socket->s, 0);
    EXPECT_NE(fcntl(socket->s, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(state_of(*socket), SSInitial);
    EXPECT_FALSE(socket->Connected());
    EXPECT_FALSE(now_of(socket->running));
    EXPECT_FALSE(now_of(socket->receive_started));
    EXPECT_FALSE(now_of(socket->listener));
    EXPECT_FALSE(socket->secure);
    EXPECT_FALSE(socket->IsBound());
    EXPECT_EQ(socket->RemoteIP_h(), INADDR_LOOPBACK);
    EXPECT_EQ(socket->RemotePort(), peer.local_port());
    EXPECT_EQ(socket->LocalIP_h(), INADDR_LOOPBACK);
    EXPECT_EQ(socket->LocalPort(), port);
    EXPECT_TRUE(is_live(socket.get()));
  }
  EXPECT_EQ(listener->rem_sin.Port(), 0) << "only Accept leaves the peer there";
}

TEST_P(SocketListenEitherWay, AnAcceptedSocketReceivesNothingUntilItIsAcknowledged) {
  Acceptor acceptor;
  OwnedSocket listener = new_listener();
  ComeRound come_round;
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  RecordingLayer layer;
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  ASSERT_TRUE(peer.send_all("before"));
  OwnedSocket socket = acceptor.take();
  ASSERT_NE(socket, nullptr);
  socket->Bind(&layer);
  ASSERT_TRUE(come_round.pass());
  EXPECT_THAT(layer.story(), IsEmpty());
  EXPECT_EQ(queued(*socket), 0);

  EXPECT_EQ(socket->ConnectAck(), 0);
  ASSERT_TRUE(layer.wait_for_bytes(6));
  ASSERT_TRUE(peer.send_all(", after"));
  ASSERT_TRUE(layer.wait_for_bytes(13));
  EXPECT_THAT(layer.story(), ElementsAre("data:before, after")) << "no connection is indicated";
  EXPECT_EQ(socket->DataIndication(buffer_of("answer")), Success);
  EXPECT_EQ(peer.receive(6), "answer");
}

TEST_P(SocketListenEitherWay, TheCallbackMayBindAndAcknowledgeItself) {
  RecordingLayer layer;
  OwnedSocket taken;
  Acceptor acceptor([&](AsyncSocket* socket) {
    taken.reset(socket);
    socket->Bind(&layer);
    EXPECT_EQ(socket->ConnectAck(), 0);
  });
  OwnedSocket listener = new_listener();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  ASSERT_TRUE(peer.send_all("at once"));
  EXPECT_TRUE(layer.wait_for_bytes(7));
  EXPECT_TRUE(wait_until([&] { return acceptor.calls() == 1; }, kPatienceMs));
}

TEST_P(SocketListenEitherWay, TheCallbackRunsInsideNoSection) {
  std::atomic<int> inside{0};
  AsyncSocket* watched = nullptr;
  Acceptor acceptor([&](AsyncSocket* socket) {
    inside += levels_inside(AsyncSocket::cs) + levels_inside(socket->local_cs) +
              levels_inside(watched->local_cs) + levels_inside(DNSEntry::cs);
    socket->Free();
  });
  OwnedSocket listener = new_listener();
  watched = listener.get();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  EXPECT_TRUE(wait_until([&] { return acceptor.calls() == 1; }, kPatienceMs));
  EXPECT_EQ(inside, 0);
}

TEST_P(SocketListenEitherWay, RefusingIsFreeingTheSocket) {
  Acceptor acceptor([](AsyncSocket* socket) { socket->Free(); });
  OwnedSocket listener = new_listener();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  for (int i = 0; i < 5; ++i) {
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    ASSERT_TRUE(peer.is_open());
    EXPECT_TRUE(peer.ended());
  }
  EXPECT_TRUE(wait_until([&] { return acceptor.calls() == 5; }, kPatienceMs));
  EXPECT_EQ(live_sockets().size(), 1u) << "only the listener is left";
}

TEST_P(SocketListenEitherWay, AnAcknowledgedSocketMayBeFreedInsideTheCallback) {
  Acceptor acceptor([](AsyncSocket* socket) {
    socket->ConnectAck();
    socket->Free();
  });
  OwnedSocket listener = new_listener();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  peer.send_all("for nobody");
  EXPECT_TRUE(peer.ended());
  EXPECT_TRUE(wait_until([&] { return acceptor.calls() == 1; }, kPatienceMs));
}

TEST_P(SocketListenEitherWay, AFloodOfConnectionsIsHandedOverCompletely) {
  // More at once than the backlog holds: those that find it full come again by themselves a moment later. Each says
  // something, because the system may have forgotten a connection that it had no room for until more comes of it.
  constexpr int kPeers = 12;
  Acceptor acceptor;
  OwnedSocket listener = new_listener();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  const sockaddr_in address = loopback_address(listener->LocalPort());
  std::vector<Descriptor> peers(kPeers);
  for (Descriptor& peer : peers) {
    peer.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ::connect(peer.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  for (Descriptor& peer : peers) {
    ASSERT_TRUE(wait_for_events(peer.get(), POLLOUT));
    ASSERT_EQ(::send(peer.get(), "x", 1, MSG_NOSIGNAL), 1);
  }
  std::vector<OwnedSocket> sockets;
  std::vector<UWORD> seen;
  for (int i = 0; i < kPeers; ++i) {
    sockets.push_back(acceptor.take());
    ASSERT_NE(sockets.back(), nullptr);
    seen.push_back(sockets.back()->RemotePort());
  }
  std::vector<UWORD> ports;
  for (const Descriptor& peer : peers) ports.push_back(local_port_of(peer.get()));
  EXPECT_THAT(seen, ::testing::UnorderedElementsAreArray(ports));
}

TEST_P(SocketListenEitherWay, TheConnectionsOfASecureListenerAreMarkedSecure) {
  Acceptor acceptor;
  OwnedSocket listener = new_listener();
  listener->secure = true;
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  OwnedSocket socket = acceptor.take();
  ASSERT_NE(socket, nullptr);
  EXPECT_TRUE(socket->secure);
  EXPECT_EQ(now_of(socket->secure_state), SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
}

/// Hands out sockets of a kind of its own.
class OwnKind : public AsyncSocket {
 public:
  explicit OwnKind(bool indirect) : AsyncSocket(indirect) {}
  AsyncSocket* GetNewSocket(int descriptor) override {
    asked = descriptor;
    auto* made = new OwnKind(true);
    made->Create(type, descriptor);
    return made;
  }
  std::atomic<int> asked{-1};
};

TEST_P(SocketListenEitherWay, ASubclassMakesItsOwnKindOfSocket) {
  Acceptor acceptor;
  Owned<OwnKind> listener(new OwnKind(indirect()));
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  OwnedSocket socket = acceptor.take();
  ASSERT_NE(socket, nullptr);
  EXPECT_NE(dynamic_cast<OwnKind*>(socket.get()), nullptr);
  EXPECT_EQ(listener->asked, socket->s);
  EXPECT_EQ(socket->RemotePort(), peer.local_port()) << "the peer is set by the listener";
}

/// Has no socket for anybody.
class NoKind : public AsyncSocket {
 public:
  explicit NoKind(bool indirect) : AsyncSocket(indirect) {}
  AsyncSocket* GetNewSocket(int) override { return nullptr; }
};

TEST_P(SocketListenEitherWay, ASubclassThatMakesNoSocketRefusesTheConnection) {
  Acceptor acceptor;
  Owned<NoKind> listener(new NoKind(indirect()));
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  ASSERT_TRUE(peer.is_open());
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(acceptor.calls(), 0);
}

TEST_F(SocketListen, GetNewSocketAdoptsTheDescriptorWithTheListenersType) {
  OwnedSocket maker = indirect_socket();
  ASSERT_EQ(maker->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
  Descriptor datagram = bound_socket(SOCK_DGRAM);
  const UWORD port = local_port_of(datagram.get());
  const int fd = datagram.release();
  OwnedSocket made(maker->GetNewSocket(fd));
  EXPECT_EQ(made->s, fd);
  EXPECT_EQ(made->type, SOCK_DGRAM);
  EXPECT_TRUE(made->indirect_socket);
  EXPECT_EQ(made->LocalPort(), port);
  EXPECT_EQ(state_of(*made), SSInitial);
  EXPECT_FALSE(now_of(made->running));
}

// ---- Connections that nobody takes ---------------------------------------------------------------------------------

class QuietSocketListen : public QuietNetworkTest {};

TEST_F(QuietSocketListen, ConnectionsWaitForTheDispatcherAndCloseWithTheirListener) {
  Acceptor acceptor;
  PeerStream peers[3];
  {
    OwnedSocket listener = indirect_socket();
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    for (PeerStream& peer : peers) {
      peer = PeerStream::connect_to(listener->LocalPort());
      ASSERT_TRUE(peer.is_open());
    }
    EXPECT_TRUE(wait_until([&] { return accepted_waiting(*listener) == 3; }, kPatienceMs));
    EXPECT_EQ(acceptor.calls(), 0);
  }
  for (PeerStream& peer : peers) EXPECT_TRUE(peer.ended());
  os_check_triggers();
  EXPECT_EQ(acceptor.calls(), 0);
}

TEST_F(QuietSocketListen, OneDispatchHandsOverEverythingThatWaits) {
  Acceptor acceptor;
  OwnedSocket listener = indirect_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peers[3];
  for (PeerStream& peer : peers) {
    peer = PeerStream::connect_to(listener->LocalPort());
    ASSERT_TRUE(peer.is_open());
  }
  ASSERT_TRUE(wait_until([&] { return accepted_waiting(*listener) == 3; }, kPatienceMs));
  os_check_triggers();
  EXPECT_EQ(acceptor.calls(), 3);
  EXPECT_EQ(accepted_waiting(*listener), 0);
  for (PeerStream& peer : peers) {
    OwnedSocket socket = acceptor.take(0);
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->RemotePort(), peer.local_port());
  }
}

TEST_F(QuietSocketListen, ConnectionsAreTakenOutInsideTheListenersSection) {
  Acceptor acceptor;
  OwnedSocket listener = indirect_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  ASSERT_TRUE(wait_until([&] { return accepted_waiting(*listener) == 1; }, kPatienceMs));
  ExpectOthersWait(listener->local_cs, {{"dispatch", [&] {
                                           EXPECT_EQ(acceptor.calls(), 0);
                                           AsyncSocket::_ListenQCallback(
                                               reinterpret_cast<OSObj*>(listener.get()), nullptr, 0);
                                         }}});
  EXPECT_EQ(acceptor.calls(), 1);
}

TEST_F(QuietSocketListen, ACallbackForAListenerThatIsGoneDoesNothing) {
  Acceptor acceptor;
  OwnedSocket listener = indirect_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  ASSERT_TRUE(wait_until([&] { return accepted_waiting(*listener) == 1; }, kPatienceMs));
  // What a dispatcher holds in its hands when it has taken the trigger and has not called yet.
  const OSCallbackFunction callback = listener->listenqtrigger.callback;
  OSObj* const obj = listener->listenqtrigger.obj;
  const ADDR addr = listener->listenqtrigger.addr;
  const ULONG value = listener->listenqtrigger.value;
  EXPECT_EQ(callback, &AsyncSocket::_ListenQCallback);
  listener.reset();
  callback(obj, addr, value);
  AsyncSocket::_ListenQCallback(obj, addr, value);
  EXPECT_EQ(acceptor.calls(), 0);
  EXPECT_EQ(levels_inside(AsyncSocket::cs), 0);
}

// ---- A listener that is deleted inside its callback ----------------------------------------------------------------

TEST_F(QuietSocketListen, TheThreadThatDispatchedKeepsTheClassSectionWhenTheCallbackDeletesItsListener) {
  IN_FRESH_PROCESS({
    auto* listener = new AsyncSocket(true);
    std::atomic<int> inside{-1};
    Acceptor acceptor([&](AsyncSocket* socket) {
      inside = levels_inside(AsyncSocket::cs);
      socket->Free();
      listener->Free();
    });
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    const UWORD port = listener->LocalPort();
    PeerStream first = PeerStream::connect_to(port);
    PeerStream second = PeerStream::connect_to(port);
    ASSERT_TRUE(wait_until([&] { return accepted_waiting(*listener) == 2; }, kPatienceMs));
    os_check_triggers();
    EXPECT_EQ(acceptor.calls(), 1) << "the second connection went with the listener";
    EXPECT_EQ(inside, 0);
    EXPECT_EQ(levels_inside(AsyncSocket::cs), 1);
    EXPECT_TRUE(first.ended());
    EXPECT_TRUE(second.ended());
    // From now on the networking of the process stands still.
    auto* other = new WatchedThread([] {
      EnterCriticalSection(&AsyncSocket::cs);
      LeaveCriticalSection(&AsyncSocket::cs);
    });
    EXPECT_TRUE(other->blocked());
    // It goes on only when that thread leaves the section itself.
    LeaveCriticalSection(&AsyncSocket::cs);
    EXPECT_TRUE(other->finished_within(kPatienceMs));
    delete other;
  });
}

TEST_F(SocketListen, TheNetworkingStandsStillOnceACallbackOfTheTriggerTaskHasDeletedItsListener) {
  IN_FRESH_PROCESS({
    auto* listener = new AsyncSocket(true);
    std::atomic<pthread_t> dispatcher{0};
    Acceptor acceptor([&](AsyncSocket* socket) {
      socket->Free();
      listener->Free();
      dispatcher = pthread_self();
    });
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    ASSERT_TRUE(wait_until([&] { return acceptor.calls() == 1; }, kPatienceMs));
    std::atomic_ref<pthread_t> holder(AsyncSocket::cs.owner_thread_id);
    ASSERT_TRUE(wait_until([&] { return holder.load() == dispatcher; }, kPatienceMs));
    auto* other = new WatchedThread([] { new AsyncSocket(true); });
    EXPECT_TRUE(other->blocked()) << "nothing more of the networking layer goes on";
    EXPECT_FALSE(other->finished());
  });
}

TEST_F(SocketListen, AListenerIsRetiredSafelyByATimerThatTheCallbackSets) {
  struct Retiring {
    AsyncSocket* listener = nullptr;
    std::atomic<bool> gone{false};
  } retiring;
  OSTimerTrigger timer(0, 1);
  timer.SetCallback(
      [](OSObj*, ADDR addr, ULONG) {
        auto* self = static_cast<Retiring*>(addr);
        self->listener->Free();
        self->gone = true;
      },
      nullptr, &retiring, 0);
  Acceptor acceptor([&](AsyncSocket* socket) {
    socket->Free();
    timer.SetTimer(1);
  });
  retiring.listener = new AsyncSocket(true);
  ASSERT_EQ(acceptor.listen_with(*retiring.listener), 0);
  const UWORD port = retiring.listener->LocalPort();
  PeerStream peer = PeerStream::connect_to(port);
  EXPECT_TRUE(wait_until([&] { return retiring.gone.load(); }, kPatienceMs));
  ComeRound come_round;
  EXPECT_TRUE(come_round.pass()) << "the networking of the process goes on";
  EXPECT_FALSE(PeerStream::connect_to(port).is_open());
  EXPECT_EQ(live_sockets().size(), 1u);
}

TEST_F(SocketListen, TheCallbackMayFreeAnotherListener) {
  Acceptor other_acceptor;
  AsyncSocket* other = new AsyncSocket(true);
  ASSERT_EQ(other_acceptor.listen_with(*other), 0);
  Acceptor acceptor([&](AsyncSocket* socket) {
    socket->Free();
    other->Free();
  });
  OwnedSocket listener = indirect_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  EXPECT_TRUE(wait_until([&] { return acceptor.calls() == 1; }, kPatienceMs));
  ComeRound come_round;
  EXPECT_TRUE(come_round.pass());
}

// ---- Accepting by hand ---------------------------------------------------------------------------------------------

TEST_P(SocketListenEitherWay, AcceptAdoptsTheNextConnectionAndTellsThePeer) {
  OwnedSocket listener = new_listener();
  ASSERT_EQ(listener->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  ASSERT_EQ(::listen(listener->s, 8), 0);
  for (const bool accepted_indirect : {true, false}) {
    for (const int outputs : {0, 1, 2, 3}) {
      SCOPED_TRACE(text_of("indirect %d outputs %d", accepted_indirect, outputs));
      PeerStream peer = PeerStream::connect_to(listener->LocalPort());
      ASSERT_TRUE(wait_readable(listener->s));
      RecordingLayer layer;
      OwnedSocket socket(new AsyncSocket(accepted_indirect));
      socket->Bind(&layer);
      ULONG addr = 99;
      UWORD port = 99;
      EXPECT_EQ(listener->Accept(socket.get(), (outputs & 1) != 0 ? &addr : nullptr,
                                 (outputs & 2) != 0 ? &port : nullptr),
                0);
      EXPECT_EQ(addr, (outputs & 1) != 0 ? INADDR_LOOPBACK : 99u);
      EXPECT_EQ(port, (outputs & 2) != 0 ? peer.local_port() : 99u);
      EXPECT_EQ(socket->type, SOCK_STREAM);
      EXPECT_EQ(socket->rem_sin.Address(), INADDR_LOOPBACK);
      EXPECT_EQ(socket->rem_sin.Port(), peer.local_port());
      EXPECT_EQ(listener->rem_sin.Address(), INADDR_LOOPBACK);
      EXPECT_EQ(listener->rem_sin.Port(), peer.local_port()) << "left behind";
      EXPECT_EQ(socket->LocalPort(), listener->LocalPort());
      EXPECT_EQ((fcntl(socket->s, F_GETFL) & O_NONBLOCK) != 0, accepted_indirect);
      EXPECT_EQ(state_of(*socket), SSInitial);
      EXPECT_FALSE(now_of(socket->running));
      EXPECT_EQ(socket->ConnectAck(), 0);
      ASSERT_TRUE(peer.send_all("in"));
      EXPECT_TRUE(layer.wait_for_bytes(2));
      EXPECT_EQ(socket->DataIndication(buffer_of("out")), Success);
      EXPECT_EQ(peer.receive(3), "out");
    }
  }
}

TEST_P(SocketListenEitherWay, AcceptReturnsTheErrorOfTheSystem) {
  OwnedSocket socket = indirect_socket();
  OwnedSocket listener = new_listener();
  EXPECT_EQ(listener->Accept(socket.get(), nullptr, nullptr), EBADF) << "without a descriptor";
  ASSERT_EQ(listener->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  EXPECT_EQ(listener->Accept(socket.get(), nullptr, nullptr), EINVAL) << "not listening";
  ASSERT_EQ(::listen(listener->s, 1), 0);
  if (indirect()) {
    ULONG addr = 99;
    UWORD port = 99;
    EXPECT_EQ(listener->Accept(socket.get(), &addr, &port), EAGAIN) << "nobody is there";
    EXPECT_EQ(addr, 99u);
    EXPECT_EQ(port, 99u);
  }
  EXPECT_EQ(now_of(socket->s), -1);
  EXPECT_EQ(socket->type, 0);
}

// ---- A system without descriptors ----------------------------------------------------------------------------------

TEST_F(SocketListen, AListenerWithoutADescriptorForItsConnectionBacksOffAndAcceptsLater) {
  for (const int error : {EMFILE, ENFILE}) {
    SCOPED_TRACE(error);
    Acceptor acceptor;
    OwnedSocket listener = indirect_socket();
    ComeRound come_round;
    ASSERT_EQ(acceptor.listen_with(*listener), 0);
    console.clear();
    failed_accepts = 0;
    accept_errno = error;
    failing_fd = listener->s;
    failing_accepts = 1000000;
    const auto begin = std::chrono::steady_clock::now();
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    ASSERT_TRUE(peer.is_open()) << "the system's backlog has taken it";
    ASSERT_TRUE(wait_until([&] { return failed_accepts >= 3; }, kPatienceMs)) << "it tries again";
    EXPECT_TRUE(come_round.pass()) << "other sockets keep their service";
    EXPECT_EQ(acceptor.calls(), 0);
    failing_accepts = 0;
    OwnedSocket socket = acceptor.take();
    ASSERT_NE(socket, nullptr) << "descriptors have come back";
    EXPECT_EQ(socket->RemotePort(), peer.local_port());
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    const std::vector<std::string> lines = lines_with(console, "accept error");
    ASSERT_FALSE(lines.empty());
    EXPECT_LE(lines.size(), static_cast<std::size_t>(seconds) + 2) << "at most once a second";
    EXPECT_EQ(lines[0], text_of("%d AsyncSocket::Poll - accept error %d", listener->s, error));
    EXPECT_LT(failed_accepts, (seconds + 1) * 1000) << "it does not spin";
    failing_fd = -1;
  }
}

TEST_P(SocketListenEitherWay, AConnectionThatIsGoneBeforeItIsAcceptedIsSkipped) {
  for (const int error : {ECONNABORTED, EINTR}) {
    SCOPED_TRACE(error);
    Acceptor acceptor;
    OwnedSocket listener = new_listener();
    ASSERT_EQ(listener->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    accept_errno = error;
    failed_accepts = 0;
    failing_accepts = 3;
    failing_fd = listener->s;
    ASSERT_EQ(listener->Listen(Acceptor::accepted, &acceptor), 0);
    PeerStream peer = PeerStream::connect_to(listener->LocalPort());
    OwnedSocket socket = acceptor.take();
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(failed_accepts, 3);
    failing_fd = -1;
  }
}

}  // namespace
}  // namespace oskernel_test
