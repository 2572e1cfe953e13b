// What a layer may do inside the indication of a failed name. A direct socket is told of it inside the delivery itself,
// in both sections.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/name_cache_fixture.h"

using namespace oskernel_test;

namespace {

/// A direct socket is told of a failure inside the delivery itself, in both sections.
class NameCacheInside : public NameCache {
 protected:
  void tell_failure() {
    FakeResolver::release();
    ASSERT_TRUE(resolved(1));
    os_check_triggers();
  }
};

TEST_F(NameCacheInside, BothSectionsAreHeld) {
  RecordingLayer layer;
  int cache = -1, all = -1;
  layer.set_hook([&](const Indication&) {
    cache = is_in(DNSEntry::cs) ? 1 : 0;
    all = is_in(AsyncSocket::cs) ? 1 : 0;
  });
  const OwnedSocket socket = stream_socket(false);
  socket->Bind(&layer);
  FakeResolver::hold();
  socket->Connect("nobody", 1);
  tell_failure();
  EXPECT_EQ(cache, 1);
  EXPECT_EQ(all, 1);
  EXPECT_FALSE(is_in(DNSEntry::cs));
  EXPECT_FALSE(is_in(AsyncSocket::cs));
}

TEST_F(NameCacheInside, ASocketMayBeFreed) {
  RecordingLayer layers[3];
  AsyncSocket* sockets[3];
  FakeResolver::hold();
  for (int i = 0; i < 3; ++i) {
    sockets[i] = stream_socket(false).release();
    sockets[i]->Bind(&layers[i]);
    layers[i].set_hook([&, i](const Indication&) { sockets[i]->Free(); });
    sockets[i]->Connect("nobody", 1);
  }
  tell_failure();
  for (RecordingLayer& layer : layers) {
    EXPECT_EQ(layer.story(), std::vector<std::string>{"disconnect(4,0)"});
  }
  EXPECT_EQ(entries(), Names{});
}

// The new one asks for the same name, and is told of the next attempt.
TEST_F(NameCacheInside, ASocketMayBeReplacedByOneAtItsAddress) {
  constexpr std::size_t kAttempts = 4;
  RecordingLayer layer;
  OwnedSlot socket;
  const auto replace = [&] {
    socket.reset();
    socket.reset(new SlotSocket(false));
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    socket->Bind(&layer);
    socket->Connect("nobody", 1);
  };
  layer.set_hook([&](const Indication&) { replace(); });
  FakeResolver::hold();
  replace();
  for (std::size_t attempt = 1; attempt <= kAttempts; ++attempt) {
    FakeResolver::let_go();
    ASSERT_TRUE(dispatch_until([&] { return layer.count() >= attempt; })) << attempt;
    EXPECT_EQ(layer.count(), attempt);
    EXPECT_EQ(waits_on(socket.get()), entry("nobody"));
  }
  layer.set_hook(nullptr);
  FakeResolver::release();
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == kAttempts + 1; }));
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameCacheInside, AnotherSocketMayBeFreed) {
  RecordingLayer layers[3];
  OwnedSocket sockets[3];
  FakeResolver::hold();
  for (int i = 0; i < 3; ++i) {
    sockets[i] = stream_socket(false);
    sockets[i]->Bind(&layers[i]);
    sockets[i]->Connect("nobody", 1);
  }
  layers[1].set_hook([&](const Indication&) {
    sockets[0].reset();
    sockets[2].reset();
  });
  tell_failure();
  EXPECT_EQ(layers[0].count(), 1u);
  EXPECT_EQ(layers[1].count(), 1u);
  EXPECT_EQ(layers[2].count(), 0u) << "gone before its turn";
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameCacheInside, TheNameMayBeCleared) {
  RecordingLayer layers[2];
  OwnedSocket sockets[2];
  FakeResolver::hold();
  for (int i = 0; i < 2; ++i) {
    sockets[i] = stream_socket(false);
    sockets[i]->Bind(&layers[i]);
    layers[i].set_hook([](const Indication&) { DNSEntry::Clear("nobody"); });
    sockets[i]->Connect("nobody", 1);
  }
  DNSEntry::Lookup("next", nullptr);
  FakeResolver::release();
  ASSERT_TRUE(resolved(2));
  set_trace(1);
  os_check_triggers();
  set_trace(0);
  EXPECT_EQ(console.count("'nobody' address not found"), 0) << "it was gone before";
  EXPECT_EQ(console.count("'next' address not found"), 1);
  EXPECT_EQ(layers[0].count(), 1u);
  EXPECT_LE(layers[1].count(), 1u);
  EXPECT_EQ(entries(), Names{});
  sockets[0].reset();
  sockets[1].reset();
}

TEST_F(NameCacheInside, EveryNameMayBeCleared) {
  RecordingLayer layer;
  const OwnedSocket socket = stream_socket(false);
  socket->Bind(&layer);
  const Names names = {"a", "b", "nobody", "c", "d"};
  layer.set_hook([&](const Indication&) {
    for (const std::string& name : names) DNSEntry::Clear(name.c_str());
  });
  FakeResolver::hold();
  for (const std::string& name : names)
    DNSEntry::Lookup(name.c_str(), name == "nobody" ? socket.get() : nullptr);
  FakeResolver::release();
  ASSERT_TRUE(resolved(names.size()));
  os_check_triggers();
  EXPECT_EQ(layer.count(), 1u);
  EXPECT_EQ(entries(), Names{});
}

TEST_F(NameCacheInside, OtherNamesMayBeAskedFor) {
  RecordingLayer layer;
  FakeResolver::know("other", ip(10, 9, 8, 7));
  layer.set_hook([&](const Indication&) { DNSEntry::Lookup("other", nullptr); });
  const OwnedSocket socket = stream_socket(false);
  socket->Bind(&layer);
  FakeResolver::hold();
  socket->Connect("nobody", 1);
  tell_failure();
  ASSERT_TRUE(delivered(2));
  EXPECT_EQ(entries(), Names{"other"});
}

// A layer that tries again at once must not be told of the same failure again, and must not keep the dispatcher.
TEST_F(NameCacheInside, TheSameNameMayBeAskedForAgain) {
  RecordingLayer layer;
  AsyncSocket* socket = nullptr;
  layer.set_hook([&](const Indication&) {
    if (layer.count() < 50) socket->Connect("nobody", 1);
  });
  const OwnedSocket owner = stream_socket(false);
  socket = owner.get();
  socket->Bind(&layer);
  FakeResolver::hold();
  socket->Connect("nobody", 1);
  FakeResolver::let_go();
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  ASSERT_TRUE(dispatch_until([&] { return layer.count() >= 1; }));
  EXPECT_EQ(layer.count(), 1u) << "one answer, one indication";
  ASSERT_TRUE(FakeResolver::wait_for_calls(2)) << "and the name is asked for again";
  for (std::size_t attempt = 2; attempt <= 4; ++attempt) {
    FakeResolver::let_go();
    ASSERT_TRUE(dispatch_until([&] { return layer.count() >= attempt; }));
    EXPECT_EQ(layer.count(), attempt);
    ASSERT_TRUE(FakeResolver::wait_for_calls(attempt + 1));
  }
  layer.set_hook(nullptr);
  FakeResolver::release();
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 5; }));
  EXPECT_EQ(entries(), Names{});
}

// Each of them is told once of each attempt, in the order in which they asked, however often they ask again. Here each
// asks for the next one, whose place in the list is then its own old one.
TEST_F(NameCacheInside, ManyMayAskAgainAgainAndAgain) {
  constexpr std::size_t kSockets = 12, kAttempts = 5;
  RecordingLayer layers[kSockets];
  std::vector<OwnedSocket> sockets;
  std::vector<std::size_t> order;
  FakeResolver::hold();
  for (std::size_t i = 0; i < kSockets; ++i) {
    sockets.push_back(stream_socket(false));
    sockets[i]->Bind(&layers[i]);
    layers[i].set_hook([&, i](const Indication&) {
      order.push_back(i);
      sockets[(i + 1) % kSockets]->Connect("nobody", 1);
    });
    sockets[i]->Connect("nobody", 1);
  }
  for (std::size_t attempt = 0; attempt < kAttempts; ++attempt) {
    SCOPED_TRACE(attempt);
    std::vector<std::size_t> expected;
    for (std::size_t i = 0; i < kSockets; ++i) expected.push_back((attempt + i) % kSockets);
    order.clear();
    FakeResolver::let_go();
    ASSERT_TRUE(dispatch_until([&] { return !order.empty(); }));
    EXPECT_EQ(order, expected);
  }
  for (RecordingLayer& layer : layers) layer.set_hook(nullptr);
  FakeResolver::release();
  ASSERT_TRUE(dispatch_until([] { return entries().empty(); }));
}

}  // namespace
