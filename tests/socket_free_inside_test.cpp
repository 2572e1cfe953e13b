// Giving sockets up from inside callbacks: their own, those of other sockets, and each other's on several threads.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "support/socket_watch.h"
#include "support/watched_thread.h"

// ---- System calls that the tests answer themselves ---------------------------------------------------------------

namespace {
std::atomic<int> failing_send_fd{-1};
}  // namespace

/// Knows no name.
extern "C" hostent* gethostbyname(const char*) {
  h_errno = HOST_NOT_FOUND;
  return nullptr;
}

extern "C" ssize_t send(int fd, const void* bytes, size_t count, int flags) {
  if (fd >= 0 && fd == failing_send_fd) {
    errno = ENOBUFS;
    return -1;
  }
  static const auto next =
      reinterpret_cast<ssize_t (*)(int, const void*, size_t, int)>(dlsym(RTLD_NEXT, "send"));
  return next(fd, bytes, count, flags);
}

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;

using Story = std::vector<std::string>;

class SocketFreeInside : public NetworkTest {
 protected:
  void TearDown() override {
    failing_send_fd = -1;
    NetworkTest::TearDown();
  }
};
class QuietSocketFreeInside : public QuietNetworkTest {};

class SocketFreeInsideEitherWay : public SocketFreeInside, public ::testing::WithParamInterface<bool> {
 protected:
  static bool indirect() { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(Served, SocketFreeInsideEitherWay, ::testing::Bool(), way_name);

TEST_P(SocketFreeInsideEitherWay, IsAllowedInsideEveryIndicationOfTheSocket) {
  struct Row {
    const char* name;
    Indication::Kind where;
    std::function<void(AsyncSocket&, RecordingLayer&, PeerStream&)> reach;
    Story told;
  };
  PeerListener listener;
  RefusingPort refusing;
  const std::vector<Row> rows = {
      {"connected",
       Indication::kConnect,
       [&](AsyncSocket& socket, RecordingLayer& layer, PeerStream& peer) {
         peer = connect_to_peer(socket, layer, listener);
         peer.send_all("for nobody");
       },
       {"connect"}},
      {"data",
       Indication::kData,
       [&](AsyncSocket& socket, RecordingLayer& layer, PeerStream& peer) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
         peer.send_all("!");
       },
       {"connect", "data:!"}},
      {"closed by the peer",
       Indication::kDisconnect,
       [&](AsyncSocket& socket, RecordingLayer& layer, PeerStream& peer) {
         peer = connect_to_peer(socket, layer, listener);
         EXPECT_TRUE(layer.wait_for_connect());
         peer.close();
       },
       {"connect", "disconnect(5,0)"}},
      {"refused",
       Indication::kDisconnect,
       [&](AsyncSocket& socket, RecordingLayer& layer, PeerStream&) {
         socket.Bind(&layer);
         socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
         socket.Connect(INADDR_LOOPBACK, refusing.port());
       },
       {indirect() ? text_of("disconnect(4,%d)", ECONNREFUSED) : "disconnect(3,0)"}},
      {"a datagram",
       Indication::kDatagram,
       [](AsyncSocket& socket, RecordingLayer& layer, PeerStream&) {
         socket.Bind(&layer);
         socket.Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false);
         PeerUdp().send_to(socket.LocalPort(), "only one");
       },
       {"datagram:only one"}},
      {"a name that is not known",
       Indication::kDisconnect,
       [](AsyncSocket& socket, RecordingLayer& layer, PeerStream&) {
         socket.Bind(&layer);
         socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
         socket.Connect("nowhere.test", 80);
       },
       {"disconnect(4,0)"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    RecordingLayer layer;
    Fate fate;
    AsyncSocket* socket = new FatedSocket(fate, indirect());
    ComeRound come_round;
    // The scenario's last touch of the socket comes before the hook may free it.
    Gate reached;
    layer.set_hook([&](const Indication& indication) {
      if (indication.kind != row.where) return;
      EXPECT_TRUE(reached.wait(60000));
      socket->Free();
    });
    PeerStream peer;
    row.reach(*socket, layer, peer);
    reached.open();
    ASSERT_TRUE(fate.comes());
    ASSERT_TRUE(layer.wait_for(row.told.size())) << "the hook is on its way out";
    EXPECT_TRUE(!peer.is_open() || peer.ended());
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(fate.destroyed, 1);
    EXPECT_FALSE(is_live(socket));
    EXPECT_EQ(layer.story(), row.told) << "and nothing after it";
  }
}

TEST_P(SocketFreeInsideEitherWay, IsAllowedInsideTheReportOfASendThatFailed) {
  // A direct socket makes that report on the sender's thread, before the send returns.
  PeerListener listener;
  RecordingLayer layer;
  Fate fate;
  AsyncSocket* socket = new FatedSocket(fate, indirect());
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind == Indication::kDisconnect) socket->Free();
  });
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  failing_send_fd = socket->s;
  EXPECT_EQ(socket->DataIndication(buffer_of("lost")), Blocked);
  ASSERT_TRUE(fate.comes());
  ASSERT_TRUE(layer.wait_for(2));
  failing_send_fd = -1;
  EXPECT_TRUE(peer.ended());
  EXPECT_EQ(fate.destroyed, 1);
  EXPECT_EQ(layer.story(), (Story{"connect", text_of("disconnect(4,%d)", ENOBUFS)}));
}

TEST_F(QuietSocketFreeInside, WhatIsStillQueuedIsForgottenWhenTheFirstBufferFreesTheSocket) {
  const int out_before = PoolState::now().buffers_out;
  PeerListener listener;
  RecordingLayer layer;
  Fate fate;
  AsyncSocket* socket = new FatedSocket(fate, true);
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind == Indication::kData) socket->Free();
  });
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  for (int n = 1; n <= 5; ++n) {
    ASSERT_TRUE(wait_until([&] { return queued(*socket) == n; }, kPatienceMs));
    ASSERT_TRUE(peer.send_all("x"));
  }
  os_check_triggers();
  EXPECT_EQ(fate.destroyed, 1);
  EXPECT_EQ(layer.story(), (Story{"connect", "data:x"}));
  EXPECT_EQ(PoolState::now().buffers_out, out_before);
  os_check_triggers();
  EXPECT_EQ(layer.count(), 2u);
}

TEST_P(SocketFreeInsideEitherWay, IsAllowedInsideAnIndicationOfAnotherSocket) {
  PeerListener listener;
  RecordingLayer layer;
  RecordingLayer other_layer;
  Fate fate;
  AsyncSocket* other = new FatedSocket(fate, indirect());
  PeerStream other_peer = connect_to_peer(*other, other_layer, listener);
  ASSERT_TRUE(other_layer.wait_for_connect());
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind == Indication::kData) other->Free();
  });
  OwnedSocket socket(new AsyncSocket(indirect()));
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(peer.send_all("free the other"));
  ASSERT_TRUE(fate.comes());
  EXPECT_TRUE(other_peer.ended());
  EXPECT_TRUE(layer.wait_for_bytes(14));
  EXPECT_TRUE(now_of(socket->running));
}

TEST_F(QuietSocketFreeInside, ThreadsThatFreeEachOthersSocketsInsideTheirCallbacksDoNotWaitForEver) {
  // Each thread dispatches one socket, and all are inside when the first frees the next one's socket: every one of
  // them would wait for the next.
  for (const int parties : {2, 3}) {
    for (int round = 0; round < 10; ++round) {
      SCOPED_TRACE(text_of("%d threads, round %d", parties, round));
      PeerListener listener;
      std::vector<RecordingLayer> layers(static_cast<std::size_t>(parties));
      std::vector<Fate> fates(static_cast<std::size_t>(parties));
      std::vector<AsyncSocket*> sockets;
      std::vector<PeerStream> peers;
      std::atomic<int> inside{0};
      for (std::size_t i = 0; i < layers.size(); ++i) {
        sockets.push_back(new FatedSocket(fates[i], true));
        layers[i].set_hook([&, i](const Indication&) {
          ++inside;
          EXPECT_TRUE(wait_until([&] { return inside == parties; }, kPatienceMs));
          sockets[(i + 1) % sockets.size()]->Free();
        });
      }
      for (std::size_t i = 0; i < layers.size(); ++i) {
        peers.push_back(connect_to_peer(*sockets[i], layers[i], listener));
        ASSERT_TRUE(wait_until([&] { return queued(*sockets[i]) == 1; }, kPatienceMs));
      }
      {
        std::vector<std::unique_ptr<WatchedThread>> threads;
        for (int i = 0; i < parties; ++i)
          threads.push_back(std::make_unique<WatchedThread>([&] {
            // One pass may find nothing because another thread holds what there is in its hands.
            EXPECT_TRUE(wait_until(
                [&] {
                  os_check_triggers();
                  return inside == parties;
                },
                kPatienceMs));
          }));
      }
      for (std::size_t i = 0; i < layers.size(); ++i) {
        EXPECT_EQ(fates[i].destroyed, 1);
        EXPECT_THAT(layers[i].story(), ElementsAre("connect"));
        EXPECT_TRUE(peers[i].ended());
      }
    }
  }
}

TEST_F(QuietSocketFreeInside, WaitsForOneThatWaitsForNobodyThoughAnotherWaitsForTheCaller) {
  PeerListener listener;
  RecordingLayer freed_layer, layer;
  Fate freed_fate, fate;
  AsyncSocket* const freed = new FatedSocket(freed_fate, true);
  AsyncSocket* const own = new FatedSocket(fate, true);
  Gate visitor_leaves, caller_goes_on, caller_inside;
  freed_layer.set_hook([&](const Indication&) { EXPECT_TRUE(visitor_leaves.wait(60000)); });
  layer.set_hook([&](const Indication&) {
    caller_inside.open();
    EXPECT_TRUE(caller_goes_on.wait(60000));
    freed->Free();
  });
  PeerStream freed_peer = connect_to_peer(*freed, freed_layer, listener);
  PeerStream peer = connect_to_peer(*own, layer, listener);
  ASSERT_TRUE(wait_until([&] { return queued(*freed) == 1 && queued(*own) == 1; }, kPatienceMs));

  WatchedThread visitor([&] { AsyncSocket::_QCallback(as_obj(freed), nullptr, 0); });
  ASSERT_TRUE(freed_layer.wait_entered(1));
  WatchedThread caller([&] { AsyncSocket::_QCallback(as_obj(own), nullptr, 0); });
  ASSERT_TRUE(caller_inside.wait());
  WatchedThread waits_for_caller([&] { own->Free(); });
  ASSERT_TRUE(waits_for_caller.blocked());
  caller_goes_on.open();
  EXPECT_TRUE(caller.blocked());
  EXPECT_EQ(freed_fate.destroyed, 0) << "somebody is inside who will come back";
  visitor_leaves.open();
  for (WatchedThread* thread : {&visitor, &caller, &waits_for_caller}) {
    EXPECT_TRUE(thread->finished_within(kPatienceMs));
  }
  EXPECT_EQ(freed_fate.destroyed, 1);
  EXPECT_EQ(fate.destroyed, 1);
}

/// Two sockets that free each other inside their indications, each way of serving with each. In a process of its
/// own: threads that waited for each other would never end.
TEST_F(SocketFreeInside, SocketsOfBothWaysFreeEachOtherInsideTheirIndications) {
  IN_FRESH_PROCESS({
    alarm(60);
    for (const bool second_indirect : {false, true}) {
      for (int round = 0; round < 5; ++round) {
        PeerListener listener;
        RecordingLayer layers[2];
        Fate fates[2];
        std::atomic<int> inside{0};
        AsyncSocket* sockets[2] = {new FatedSocket(fates[0], false),
                                   new FatedSocket(fates[1], second_indirect)};
        for (int i = 0; i < 2; ++i) {
          layers[i].set_hook([&, i](const Indication& indication) {
            if (indication.kind != Indication::kData) return;
            ++inside;
            EXPECT_TRUE(wait_until([&] { return inside == 2; }, kPatienceMs));
            sockets[1 - i]->Free();
          });
        }
        PeerStream peers[2];
        for (int i = 0; i < 2; ++i) {
          peers[i] = connect_to_peer(*sockets[i], layers[i], listener);
          ASSERT_TRUE(layers[i].wait_for_connect());
        }
        for (PeerStream& peer : peers) ASSERT_TRUE(peer.send_all("x"));
        for (int i = 0; i < 2; ++i) {
          ASSERT_TRUE(fates[i].comes());
          EXPECT_TRUE(peers[i].ended());
        }
        for (RecordingLayer& layer : layers) EXPECT_TRUE(layer.wait_for(2));
        for (Fate& fate : fates) EXPECT_EQ(fate.destroyed, 1);
      }
    }
  });
}

}  // namespace
}  // namespace oskernel_test
