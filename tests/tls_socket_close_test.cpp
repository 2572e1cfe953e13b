// The end of a secure socket: closing, freeing, starting anew, and never a byte into somebody else's descriptor.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Somebody who gets the number of a descriptor as soon as it is closed.
std::atomic<int> awaited_fd{-1};
std::atomic<int> heir_fd{-1};

}  // namespace

extern "C" __attribute__((visibility("default"))) int close(int fd) {
  static auto* const real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  const int result = real(fd);
  int expected = fd;
  if (fd >= 0 && awaited_fd.load() == fd && awaited_fd.compare_exchange_strong(expected, -1)) {
    ::dup3(heir_fd, fd, O_CLOEXEC);
  }
  return result;
}

namespace {

class TlsSocketClose : public TlsSocketTest, public testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketClose, testing::Bool(), way_name);

TEST_P(TlsSocketClose, TheSessionGoesWithTheDescriptor) {
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  const Tracing tracing(1);
  SSLInfo* const session = client.socket->ssl_info;
  client.socket->Close();
  EXPECT_TRUE(
      printed(console, text_of("%d AsyncSocket::Close - ssl_info %p", -1, static_cast<void*>(session))));
  EXPECT_TRUE(printed(console, text_of("~SSLInfo %p", static_cast<void*>(session))));
  EXPECT_EQ(client.socket->ssl_info, nullptr);
  EXPECT_EQ(now_of(client.socket->secure_state), SecClear);
  EXPECT_EQ(now_of(client.socket->state), SSInitial);
  EXPECT_EQ(client.socket->s, -1);
  EXPECT_TRUE(client.socket->secure);
  client.peer->read_to_end();
  EXPECT_TRUE(client.peer->ended());
  EXPECT_THAT(client.layer.story(), ElementsAre("connect"));
}

TEST_P(TlsSocketClose, AClosedSocketConnectsAgain) {
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  for (int i = 0; i < 3; ++i) {
    client.socket->Close();
    client.layer.clear();
    ASSERT_EQ(client.socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    EXPECT_EQ(client.socket->DataIndication(buffer_of("again")), Success);
    client.socket->Connect(INADDR_LOOPBACK, client.listener.port());
    client.peer = std::make_unique<TlsEnd>(good_server(), Descriptor(client.listener.accept().release()));
    ASSERT_TRUE(client.comes_up());
    EXPECT_EQ(client.peer->read(5), "again");
    ASSERT_TRUE(client.layer.wait_for_connect());
  }
}

TEST_P(TlsSocketClose, AClosedSocketCanBeClearTheNextTime) {
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  client.socket->Close();
  client.socket->secure = false;
  client.layer.clear();
  ASSERT_EQ(client.socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  client.socket->Connect(INADDR_LOOPBACK, client.listener.port());
  PeerStream peer = client.listener.accept();
  ASSERT_TRUE(client.layer.wait_for_connect());
  EXPECT_EQ(client.socket->DataIndication(buffer_of("in the clear")), Success);
  EXPECT_EQ(peer.receive(12), "in the clear");
}

TEST_P(TlsSocketClose, TheNextOwnerOfTheNumberHearsNothing) {
  for (const bool freed : {false, true}) {
    SecureClient client(indirect());
    ASSERT_TRUE(client.comes_up());
    ASSERT_TRUE(client.layer.wait_for_connect());
    Wire heir = Wire::local();
    const int number = client.socket->s;
    heir_fd = heir.near_end.get();
    awaited_fd = number;
    if (freed) {
      client.socket.reset();
    } else {
      client.socket->Close();
    }
    EXPECT_EQ(awaited_fd, -1);
    EXPECT_EQ(console.count("~SSLInfo"), freed ? 2 : 1);
    Descriptor inherited(number);
    heir.near_end.reset();
    EXPECT_EQ(bytes_waiting(heir.far_end.get()), 0);
  }
}

TEST_P(TlsSocketClose, NeitherDoesItFromAStalledSession) {
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  int small = 4096;
  ::setsockopt(client.socket->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  ::setsockopt(client.peer->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  for (int i = 0; i < 5000 && console.count("SSL_write: WANT_WRITE") == 0; ++i) {
    ASSERT_EQ(client.socket->DataIndication(buffer_of(std::string(1500, 'x'))), Success);
  }
  Wire heir = Wire::local();
  const int number = client.socket->s;
  heir_fd = heir.near_end.get();
  awaited_fd = number;
  client.socket->Close();
  Descriptor inherited(number);
  heir.near_end.reset();
  EXPECT_EQ(bytes_waiting(heir.far_end.get()), 0);
}

TEST_P(TlsSocketClose, AnEndDuringTheHandshakeLeavesNothing) {
  for (const bool freed : {false, true}) {
    SecureClient client(indirect());
    ASSERT_TRUE(wait_until([&] { return now_of(client.socket->secure_state) == SecHandshake; }, kPatienceMs));
    EXPECT_EQ(client.socket->DataIndication(buffer_of("never sent")), Success);
    if (freed) {
      client.socket.reset();
    } else {
      client.socket->Close();
      EXPECT_EQ(client.socket->ssl_info, nullptr);
      EXPECT_EQ(now_of(client.socket->secure_state), SecClear);
    }
    client.peer->handshake();
    EXPECT_TRUE(client.peer->ended());
    EXPECT_EQ(client.layer.count(Indication::kData), 0U);
  }
}

TEST_P(TlsSocketClose, FreeInsideAnIndicationIsSafe) {
  for (const bool at_connect : {true, false}) {
    SecureClient client(indirect());
    std::atomic<bool> freed{false};
    client.layer.set_hook([&](const Indication& indication) {
      if (at_connect ? indication.kind == Indication::kConnect : indication.kind == Indication::kData) {
        client.socket.release()->Free();
        freed = true;
      }
    });
    ASSERT_TRUE(client.peer->handshake());
    client.peer->write(std::string(5000, 'x'));
    ASSERT_TRUE(wait_until([&] { return freed.load(); }, kPatienceMs));
    client.peer->read_to_end();
    EXPECT_TRUE(client.peer->ended());
  }
}

TEST_P(TlsSocketClose, SendingToAPeerThatIsGoneRaisesNoSignal) {
  struct sigaction action = {};
  sigaction(SIGPIPE, nullptr, &action);
  ASSERT_EQ(action.sa_handler, SIG_DFL);
  SecureClient client(indirect());
  ASSERT_TRUE(client.comes_up());
  ASSERT_TRUE(client.layer.wait_for_connect());
  client.peer->reset();
  OSIORetCode result = Success;
  for (int i = 0; i < 1000 && result == Success; ++i)
    result = client.socket->DataIndication(buffer_of("anybody?"));
  EXPECT_NE(result, Success);
  ASSERT_TRUE(client.layer.wait_for_disconnect());
  client.socket->StopSSL();
  client.socket->Close();
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST_P(TlsSocketClose, AListenerThatIsSecureHasNothingToEnd) {
  OwnedSocket listener(new AsyncSocket(indirect()));
  listener->secure = true;
  Acceptor acceptor;
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  OwnedSocket refused = acceptor.take();
  ASSERT_NE(refused, nullptr);
  refused.reset();
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(peer.receive_now(), "");
}

}  // namespace
