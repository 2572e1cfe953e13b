// A socket as it is constructed, and the networking layer before and when it starts. Stop and start of the layer are
// socket_layer_test.cpp's.

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <atomic>
#include <vector>

#include "kernel/task.h"
#include "network/asocket.h"
#include "support/network_fixture.h"
#include "support/socket_probe.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

// ---- Construction ------------------------------------------------------------------------------------------------

class SocketConstruction : public NetworkTest, public testing::WithParamInterface<bool> {
 protected:
  OwnedSocket made() { return OwnedSocket(new AsyncSocket(GetParam())); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, SocketConstruction, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Indirect" : "Direct"; });

TEST_P(SocketConstruction, SetsEveryField) {
  const OwnedSocket socket = made();
  EXPECT_EQ(socket->s, -1);
  EXPECT_EQ(socket->rtps, -1);
  EXPECT_EQ(socket->indirect_socket, GetParam());
  EXPECT_EQ(socket->state, SSInitial);
  EXPECT_FALSE(socket->deleted);
  EXPECT_FALSE(socket->deletedAck);
  EXPECT_FALSE(socket->receive_started);
  EXPECT_FALSE(socket->big_buffers_allowed);
  EXPECT_EQ(socket->type, 0);
  EXPECT_FALSE(socket->listener);
  EXPECT_EQ(socket->listenObj, nullptr);
  EXPECT_EQ(socket->thread, pthread_t{});
  EXPECT_FALSE(socket->running);
  EXPECT_EQ(socket->rem_sin_len, 16);
  EXPECT_EQ(socket->alloc_buf, nullptr);
  EXPECT_EQ(socket->ring, nullptr);
  EXPECT_EQ(socket->oob_count, 0u);
  EXPECT_FALSE(socket->dont_read);
  EXPECT_EQ(socket->startRetry, nullptr);
  EXPECT_EQ(socket->retryTimeout, 500u);
  EXPECT_EQ(socket->dnsentry, nullptr);
  EXPECT_FALSE(socket->secure);
  EXPECT_EQ(socket->secure_state, SecClear);
  EXPECT_EQ(socket->ssl_info, nullptr);
  EXPECT_EQ(socket->cert, nullptr);
  EXPECT_EQ(socket->key, nullptr);
  EXPECT_EQ(socket->ca, nullptr);
}

TEST_P(SocketConstruction, LeavesTheSocketUnboundUnconnectedAndEmpty) {
  const OwnedSocket socket = made();
  EXPECT_FALSE(socket->IsBound());
  EXPECT_EQ(socket->Partner(), &OSNullIO);
  EXPECT_FALSE(socket->Connected());
  EXPECT_EQ(socket->earlyData.Size(), 0);
  EXPECT_EQ(socket->listenq.Size(), 0);
  EXPECT_EQ(socket->q.Size(), 0);
  for (const SockAddr* address : {&socket->loc_sin, &socket->rem_sin}) {
    EXPECT_EQ(address->Address(), 0u);
    EXPECT_EQ(address->Port(), 0);
    EXPECT_EQ(address->sin.sin_family, AF_INET);
  }
}

TEST_P(SocketConstruction, ArmsAQueueTriggerOnEachQueueForNoTask) {
  const OwnedSocket socket = made();
  OSQueue queue;
  OSQTrigger example(&queue, 1, 0, 0);
  for (const OSQTrigger* trigger : {&socket->qtrigger, &socket->listenqtrigger}) {
    EXPECT_EQ(trigger->minqlen, example.minqlen);
    EXPECT_EQ(trigger->maxqlen, example.maxqlen);
    EXPECT_EQ(trigger->duration, example.duration);
    EXPECT_EQ(trigger->task, nullptr);
    EXPECT_EQ(trigger->fired, 0);
  }
  example.Cancel();
  EXPECT_EQ(socket->qtrigger.q, &socket->q);
  EXPECT_EQ(socket->listenqtrigger.q, &socket->listenq);
  EXPECT_EQ(socket->qtrigger.callback, &AsyncSocket::_QCallback);
  EXPECT_EQ(socket->qtrigger.obj, reinterpret_cast<OSObj*>(socket.get()));
  EXPECT_EQ(socket->qtrigger.action, OS_TA_FUNC);
}

/// Makes a socket. Deletes itself.
class MakingTask : public OSTask {
 public:
  MakingTask(bool indirect, OwnedSocket* socket, Gate* made)
      : OSTask(3, 0, nullptr, nullptr), indirect_(indirect), socket_(socket), made_(made) {
    LeaveCriticalSection(&cs);
  }
  void Main() override {
    socket_->reset(new AsyncSocket(indirect_));
    made_->open();
  }

 private:
  const bool indirect_;
  OwnedSocket* const socket_;
  Gate* const made_;
};

TEST_P(SocketConstruction, LeavesTheTriggersToNoTaskEvenWhenOneMakesTheSocket) {
  const int threads = running_threads();
  OwnedSocket socket;
  Gate made;
  new MakingTask(GetParam(), &socket, &made);
  ASSERT_TRUE(made.wait());
  EXPECT_EQ(socket->qtrigger.task, nullptr);
  EXPECT_EQ(socket->listenqtrigger.task, nullptr);
  EXPECT_TRUE(wait_until([&] { return running_threads() == threads + 2; })) << "the networking layer's";
}

TEST_P(SocketConstruction, MakesTheSocketsOwnSectionUsable) {
  const OwnedSocket socket = made();
  EnterCriticalSection(&socket->local_cs);
  EnterCriticalSection(&socket->local_cs);
  LeaveCriticalSection(&socket->local_cs);
  LeaveCriticalSection(&socket->local_cs);
  EXPECT_EQ(console.text().find("dont own"), std::string::npos);
}

TEST_P(SocketConstruction, MakesNoDescriptor) {
  let_the_layer_start();
  const int before = open_descriptors();
  const OwnedSocket socket = made();
  EXPECT_EQ(open_descriptors(), before);
}

class NetworkLayer : public NetworkTest {};

TEST_F(NetworkLayer, ListsTheSocketsInTheOrderOfTheirConstruction) {
  const OwnedSocket a = indirect_socket(), b = direct_socket(), c = indirect_socket();
  EXPECT_EQ(live_sockets(), (std::vector<AsyncSocket*>{a.get(), b.get(), c.get()}));
}

TEST_F(NetworkLayer, ForgetsASocketThatIsFreed) {
  OwnedSocket a = indirect_socket(), b = direct_socket();
  const OwnedSocket c = indirect_socket();
  a.reset();
  EXPECT_EQ(live_sockets(), (std::vector<AsyncSocket*>{b.get(), c.get()}));
  b.reset();
  EXPECT_EQ(live_sockets(), (std::vector<AsyncSocket*>{c.get()}));
}

TEST_F(NetworkLayer, StandsStillUntilSomethingNeedsIt) {
  IN_FRESH_PROCESS({
    EXPECT_FALSE(AsyncSocket::AsyncInitDone);
    EXPECT_FALSE(AsyncSocket::real_hardware);
    EXPECT_EQ(AsyncSocket::trace, 0);
    EXPECT_EQ(AsyncSocket::local_ipaddr, 0u);
    EXPECT_EQ(AsyncSocket::moduleIPAddress.Address(), 0u);
    EXPECT_EQ(AsyncSocket::modulePublicIPAddress.Address(), 0u);
    EXPECT_EQ(AsyncSocket::monitor_thread, pthread_t{});
    EXPECT_TRUE(AsyncSocket::monitor_stop);
    EXPECT_EQ(AsyncSocket::sigfd, -1);
    EXPECT_EQ(AsyncSocket::sigpipefd, -1);
    const char* const names[] = {nullptr, "ppp1", "ppp0", "bond0", "eth1", "eth0", nullptr};
    for (int i = 0; i < 7; ++i) EXPECT_STREQ(AsyncSocket::local_ifname[i], names[i]) << i;
  });
}

TEST_F(NetworkLayer, StartsWithTheFirstSocket) {
  IN_FRESH_PROCESS({
    const int threads = running_threads();
    OwnedSocket socket = indirect_socket();
    EXPECT_TRUE(AsyncSocket::AsyncInitDone);
    EXPECT_NE(AsyncSocket::sockets, nullptr);
    EXPECT_NE(AsyncSocket::monitor_thread, pthread_t{});
    EXPECT_FALSE(std::atomic_ref<bool>(AsyncSocket::monitor_stop).load());
    EXPECT_NE(AsyncSocket::dnstrigger, nullptr);
    EXPECT_EQ(running_threads(), threads + 2) << "the monitor thread and the resolver's";
    EXPECT_FALSE(AsyncSocket::real_hardware) << "no maker's number is configured";
    EXPECT_TRUE(wait_until([] { return std::atomic_ref<int>(AsyncSocket::sigpipefd).load() >= 0; }));
  });
}

}  // namespace
}  // namespace oskernel_test
