// oskernel-size and the networking layer: a load as large as it was told of empties the pools to the last buffer and no
// further; with one buffer less something runs dry.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "examples/oskernel-size/sizes.h"
#include "kernel/link_stream.h"
#include "kernel/task.h"
#include "network/dns.h"
#include "network/dnsentry.h"
#include "network/socket.h"
#include "support/fake_resolver.h"
#include "support/socket_pairs.h"
#include "support/tls_socket.h"
#include "support/tpkt_packets.h"

namespace oskernel_test {
namespace {

using namespace oskernel_size;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int kConnections = 4;
constexpr std::size_t kRead = 1600;

Load connections_of(Number message) {
  Load load;
  load.connections = kConnections;
  load.listeners = 0;
  load.message_size = message;
  load.reserve_percent = 0;
  load.trigger_stack = 0;
  return load;
}

/// Inside the pool's section: other threads take links, too.
int links_at_home() { return static_cast<int>(PoolState::now().links); }

/// A started kernel with the pools that were calculated, and the networking layer; dispatching is the test's.
class SizedLoad : public KernelTest {
 protected:
  void TearDown() override {
    if (started_) AsyncSocket::Cleanup();
    KernelTest::TearDown();
    SSLInfo::ssl_debug = 1;
  }
  void start(const Load& load, int missing_class = -1) {
    sizes_ = calculate(load);
    for (int i = 0; i < kClasses; ++i) {
      cfg.buf_size[i] = static_cast<int>(sizes_.buffers[i].size);
      cfg.buf_qty[i] = static_cast<int>(sizes_.buffers[i].quantity.count) - (i == missing_class ? 1 : 0);
    }
    cfg.buf_min_space = static_cast<int>(sizes_.load.headroom);
    cfg.callback_qty = static_cast<int>(sizes_.callbacks.count);
    cfg.link_qty = static_cast<int>(sizes_.links.count);
    StartQuiet();
    started_ = true;
  }
  int free_buffers() const {
    int count = 0;
    for (int i = 0; i < kClasses; ++i) count += OSBuf::PoolSize(i);
    return count;
  }
  /// The class that serves a full read.
  int read_class() const {
    int i = 1;
    while (sizes_.buffers[i].size < 1740) ++i;
    return i;
  }
  static bool dispatch_until(const std::function<bool()>& done) {
    return wait_until(
        [&done] {
          os_check_triggers();
          return done();
        },
        kPatienceMs);
  }
  bool out_of_buffers() const {
    for (const std::string& fatal : console.fatals()) {
      if (fatal.starts_with("OSBuffer::Alloc Out Of Buffers")) return true;
    }
    return false;
  }

  Sizes sizes_;

 private:
  bool started_ = false;
};

/// A connection with a peer, and the layer above it, which outlives it.
struct Connected {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket;

  Connected() : socket(established_stream(&layer, &peer)) {}
  bool sends(const std::string& bytes) { return peer.send_all(bytes); }
};

/// Fills the receive queue with ten full reads.
bool fill(Connected& connected) {
  for (int i = 1; i <= 10; ++i) {
    if (!connected.sends(numbered_bytes(kRead))) return false;
    if (!wait_until([&] { return queued(connected.socket.get()) == i; }, kPatienceMs)) return false;
  }
  return true;
}

// ---- Receiving ---------------------------------------------------------------------------------------------------

/// Ten reads wait in each connection; while the eighth of one is being delivered, its queue fills up again.
class Receiving : public SizedLoad {
 protected:
  void receive_all_that_can_wait() {
    std::vector<std::unique_ptr<Connected>> all;
    for (int i = 0; i < kConnections; ++i) {
      all.push_back(std::make_unique<Connected>());
      ASSERT_TRUE(fill(*all.back())) << i;
    }
    EXPECT_EQ(OSBuf::PoolSize(read_class()), cfg.buf_qty[read_class()] - 10 * kConnections);
    Connected& first = *all.front();
    ASSERT_TRUE(first.sends(numbered_bytes(8 * kRead)));
    first.layer.hold_buffers(true);
    std::size_t delivered = 0;
    first.layer.set_hook([&](const Indication&) {
      if (++delivered < 8) {
        first.layer.release_held();
        return;
      }
      if (delivered > 8) return;
      wait_until([&] { return queued(first.socket.get()) == 10 || out_of_buffers(); }, kPatienceMs);
      free_at_the_peak = OSBuf::PoolSize(read_class());
      queued_at_the_peak = queued(first.socket.get());
      first.layer.hold_buffers(false);
      first.layer.release_held();
    });
    ASSERT_TRUE(dispatch_until([&] { return first.layer.data().size() == 18 * kRead; }));
    first.layer.set_hook(nullptr);
  }

  int free_at_the_peak = -1;
  int queued_at_the_peak = -1;
};

TEST_F(Receiving, TheCalculatedBuffersAreAllNeededAndEnough) {
  start(connections_of(100));
  receive_all_that_can_wait();
  EXPECT_EQ(queued_at_the_peak, 10);
  EXPECT_EQ(free_at_the_peak, 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Receiving, OneBufferLessRunsDry) {
  start(connections_of(100), 2);
  receive_all_that_can_wait();
  EXPECT_EQ(queued_at_the_peak, 9);
  EXPECT_THAT(console.fatals(), Not(IsEmpty()));
  EXPECT_THAT(console.fatals(), Each(StartsWith("OSBuffer::Alloc Out Of Buffers 16")));
}

TEST_F(SizedLoad, DatagramsOfAStrangerFillTheQueueAndNoMore) {
  Load load;
  load.datagram_sockets = 2;
  load.message_size = 40;
  load.reserve_percent = 0;
  load.trigger_stack = 0;
  start(load);
  RecordingLayer layer;
  PeerUdp stranger;
  std::vector<OwnedSocket> sockets;
  for (int i = 0; i < 2; ++i) {
    sockets.push_back(datagram_socket(&layer));
    AsyncSocket* const socket = sockets.back().get();
    for (int n = 1; n <= 10; ++n) {
      ASSERT_TRUE(stranger.send_to(socket->LocalPort(), numbered_bytes(5000)));
      ASSERT_TRUE(wait_until([&] { return queued(socket) == n; }, kPatienceMs));
    }
    ASSERT_TRUE(stranger.send_to(socket->LocalPort(), numbered_bytes(5000)));
  }
  EXPECT_EQ(OSBuf::PoolSize(read_class()), 1) << "for the one that is being delivered";
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(SizedLoad, APeerThatSendsOneAtATimeFindsBuffersOfItsMessages) {
  Load load = connections_of(100);
  load.peers = Peers::kOneAtATime;
  start(load);
  std::vector<std::unique_ptr<Connected>> all;
  for (int i = 0; i < kConnections; ++i) {
    all.push_back(std::make_unique<Connected>());
    ASSERT_TRUE(all.back()->sends(numbered_bytes(100)));
    ASSERT_TRUE(wait_until([&] { return queued(all.back()->socket.get()) == 1; }, kPatienceMs));
  }
  EXPECT_EQ(OSBuf::PoolSize(1), cfg.buf_qty[1] - kConnections);
  EXPECT_EQ(OSBuf::PoolSize(read_class()), cfg.buf_qty[read_class()]);
  EXPECT_EQ(OSBuf::buffer_pool[2].Size(), 10) << "for reads of more than one message";
}

// ---- Sending -----------------------------------------------------------------------------------------------------

/// Three messages wait in each socket for its connection, and then all of them fail.
class Sending : public SizedLoad {
 protected:
  static constexpr int kQueued = 3;

  static Load load() {
    Load load = connections_of(100);
    load.queued = kQueued;
    return load;
  }
  /// All that can wait to be sent, and what tells each socket of an end: in its queue, where its trigger has fired, or
  /// still on its way there.
  void queue_and_end(bool told) {
    std::vector<OwnedSocket> sockets;
    for (int i = 0; i < kConnections; ++i) {
      sockets.push_back(indirect_socket());
      ASSERT_EQ(sockets.back()->Create(SOCK_STREAM, 0, kLoopback, false), 0);
      for (int n = 0; n < kQueued; ++n) {
        ASSERT_EQ(sockets.back()->DataIndication(buffer_of(numbered_bytes(100))), Success);
      }
    }
    std::vector<OSBuf*> ends;
    for (const OwnedSocket& socket : sockets) {
      if (told) {
        socket->DNSResult("nobody", 0);
      } else {
        ends.push_back(OSBuf::Alloc(6));
      }
    }
    free_messages = OSBuf::PoolSize(1);
    free_reads = OSBuf::PoolSize(2);
    free_links = links_at_home();
    for (OSBuf* end : ends) end->Free();
  }

  int free_messages = -1;
  int free_reads = -1;
  int free_links = -1;
};

TEST_F(Sending, WhatWaitsTakesTheCalculatedBuffersAndLinks) {
  start(load());
  queue_and_end(false);
  EXPECT_EQ(free_messages, 0);
  EXPECT_EQ(free_reads, cfg.buf_qty[2]);
  EXPECT_EQ(free_links, free_reads) << "one for each buffer that this load leaves alone";
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Sending, ASocketWhoseQueueHasFiredHasALinkLess) {
  start(load());
  queue_and_end(true);
  EXPECT_EQ(free_messages, 0);
  EXPECT_EQ(free_links, free_reads + kConnections);
}

TEST_F(Sending, OneBufferLessMakesTheLastTakeALargerOne) {
  start(load(), 1);
  queue_and_end(true);
  EXPECT_EQ(free_messages, 0);
  EXPECT_EQ(free_reads, cfg.buf_qty[2] - 1);
}

TEST_F(Sending, OneLinkLessLetsThePoolGrow) {
  start(load());
  // Those of the reads that this load does not make, and one more.
  std::vector<OSLink*> taken;
  for (int i = 0; i <= cfg.buf_qty[2]; ++i) taken.push_back(OSLink::Alloc());
  queue_and_end(false);
  EXPECT_EQ(free_links, cfg.link_qty - 1) << "a whole block has been added";
  EXPECT_THAT(console.fatals(), IsEmpty());
  for (OSLink* link : taken) link->Free();
}

// ---- Packets -----------------------------------------------------------------------------------------------------

/// Ten packets wait in each socket, and a segment of the eleventh.
class Packets : public SizedLoad {
 protected:
  static Load load() {
    Load load = connections_of(100);
    load.tpkt = true;
    return load;
  }
  static std::string segment_of(std::size_t packet, int count) {
    TpktStream stream;
    for (int i = 0; i < count; ++i)
      stream.add(numbered_payload(packet - kTpktHeader, static_cast<unsigned>(i)));
    return stream.bytes;
  }
  void fill_all() {
    for (int i = 0; i < kConnections; ++i) {
      layers_.push_back(std::make_unique<RecordingLayer>());
      peers_.emplace_back();
      sockets_.push_back(Owned<TPKTSocket>(new TPKTSocket));
      TPKTSocket* const socket = sockets_.back().get();
      adopt_stream(socket, layers_.back().get(), &peers_.back());
      // All of it waits before the first read.
      ASSERT_TRUE(peers_.back().send_all(segment_of(1679, 12)));
      socket->ConnectAck();
      ASSERT_TRUE(wait_until([&] { return queued(socket) == 10 || out_of_buffers(); }, kPatienceMs)) << i;
    }
  }
  void TearDown() override {
    sockets_.clear();
    layers_.clear();
    SizedLoad::TearDown();
  }

  std::vector<std::unique_ptr<RecordingLayer>> layers_;
  std::vector<PeerStream> peers_;
  std::vector<Owned<TPKTSocket>> sockets_;
};

TEST_F(Packets, WaitingAndBeingCutTheyTakeTheCalculatedBuffers) {
  start(load());
  OSBuf* const being_delivered = OSBuf::Alloc(1700);
  fill_all();
  EXPECT_EQ(OSBuf::PoolSize(read_class()), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
  being_delivered->Free();
}

TEST_F(Packets, OneBufferLessRunsDry) {
  start(load(), 2);
  OSBuf* const being_delivered = OSBuf::Alloc(1700);
  fill_all();
  EXPECT_TRUE(out_of_buffers());
  being_delivered->Free();
}

/// Two large packets, each with an array of its own, where the pools have room for one.
class LargePackets : public Packets {
 protected:
  void send_two(int missing_class) {
    Load one = load();
    one.large_messages = 1;
    start(one, missing_class);
    for (int i = 0; i < 2; ++i) {
      layers_.push_back(std::make_unique<RecordingLayer>());
      peers_.emplace_back();
      sockets_.push_back(Owned<TPKTSocket>(new TPKTSocket));
      adopt_stream(sockets_.back().get(), layers_.back().get(), &peers_.back());
      ASSERT_TRUE(peers_.back().send_all(segment_of(3000, 1)));
    }
    sockets_[0]->ConnectAck();
    ASSERT_TRUE(wait_until([&] { return queued(sockets_[0].get()) == 1; }, kPatienceMs));
    sockets_[1]->ConnectAck();
    ASSERT_TRUE(wait_until([&] { return console.count("Out Of") > 0; }, kPatienceMs));
  }
};

TEST_F(LargePackets, WithoutACallbackOneWaits) {
  send_two(-1);
  EXPECT_GT(console.count("OSCallback::Alloc Out Of Callbacks"), 0);
  EXPECT_THAT(console.fatals(), IsEmpty());
  ASSERT_TRUE(dispatch_until([&] { return layers_[0]->count() == 1 && layers_[1]->count() == 1; }));
  EXPECT_EQ(layers_[1]->data().size(), 2996U) << "it has come as soon as there was one";
}

TEST_F(LargePackets, WithoutABufferOfClassZeroTheProgramEnds) {
  send_two(0);
  EXPECT_TRUE(wait_until([&] { return out_of_buffers(); }, kPatienceMs));
}

// ---- What one object takes ----------------------------------------------------------------------------------------

/// What an object takes of the link pool while it lives.
struct Taken {
  const char* what;
  int links;
  std::function<std::shared_ptr<void>()> make;
};

template <class Object, class... Arguments>
std::shared_ptr<void> made(Arguments... arguments) {
  return std::make_shared<Object>(arguments...);
}
template <class Socket, class... Arguments>
std::shared_ptr<void> socket_made(Arguments... arguments) {
  return std::shared_ptr<Socket>(new Socket(arguments...), SocketFreer());
}
std::shared_ptr<void> freed_later(OSLink* object) {
  return std::shared_ptr<void>(object, [](void* taken) { static_cast<OSLink*>(taken)->Free(); });
}
void nothing(OSObj*, ADDR, ULONG) {}

/// A task that waits for its end.
class Idle : public OSTask {
 public:
  Idle() : OSTask(3, 65536, nullptr, nullptr) {
    _LockDelete();  // Main may return before the destructor says that it joins
    LeaveCriticalSection(&cs);
  }
  ~Idle() override {
    end_.open();
    _StopThread();
  }
  void Main() override { end_.wait(); }

 private:
  Gate end_;
};

class Objects : public SizedLoad {
 protected:
  void SetUp() override {
    SizedLoad::SetUp();
    Load load = connections_of(100);
    load.own_callbacks = 3;
    load.own_arrays = 1;
    start(load);
    AsyncSocket::Init();
  }
};

TEST_F(Objects, TakeTheLinksOfTheTable) {
  OSQueue queue;
  OSIndirectList list;
  OSProtectedList guarded;
  OSCallbackRecord record;
  OSListObj entry;
  OSBuf* const queued_buffer = OSBuf::Alloc(10);
  const auto listed = [&entry](auto& in) {
    in.Append(&entry);
    return std::shared_ptr<void>(&in, [&entry](void* of) { static_cast<decltype(&in)>(of)->Remove(&entry); });
  };
  const Taken rows[] = {
      {"indirect socket", 3, [] { return socket_made<AsyncSocket>(true); }},
      {"direct socket", 3, [] { return socket_made<AsyncSocket>(false); }},
      {"packet socket", 3, [] { return socket_made<TPKTSocket>(); }},
      {"line socket", 3, [] { return made<LineSocket>(80); }},
      {"blocking socket", 1, [] { return made<Socket>(Socket::UDP, UWORD{0}, false, ULONG{0}); }},
      {"armed queue trigger", 1, [&queue] { return made<OSQTrigger>(&queue, 1U, 0U, 0U); }},
      {"timer trigger", 0, [] { return made<OSTimerTrigger>(1000U, char{1}); }},
      {"queue", 0, [] { return made<OSProtectedQueue>(); }},
      {"stream", 0, [] { return made<OSStream>(1, char{0}); }},
      {"task", 1, [] { return made<Idle>(); }},
      {"buffer", 1, [] { return freed_later(OSBuf::Alloc(10)); }},
      {"buffer without storage", 1, [] { return freed_later(OSBuf::Alloc(0)); }},
      {"callback", 0, [] { return freed_later(OSCallback::Alloc(nullptr, nothing, nullptr, nullptr, 0)); }},
      {"callback in a record", 1,
       [&record] { return freed_later(OSCallback::Alloc(&record, nothing, nullptr, nullptr, 0)); }},
      {"entry of an indirect list", 1, [&] { return listed(list); }},
      {"entry of a protected list", 1, [&] { return listed(guarded); }},
      {"buffer in a queue", 0,
       [&queue, queued_buffer] {
         queue.Append(queued_buffer);
         return std::shared_ptr<void>(queued_buffer,
                                      [&queue](void* buf) { queue.Remove(static_cast<OSBuf*>(buf)); });
       }},
      {"event", 0,
       [] {
         const HANDLE event = CreateEvent(nullptr, false, false, nullptr);
         return std::shared_ptr<void>(&OS_POSIX_OK, [event](void*) { CloseHandle(event); });
       }},
  };
  for (const Taken& row : rows) {
    const int before = links_at_home();
    std::shared_ptr<void> object = row.make();
    EXPECT_EQ(before - links_at_home(), row.links) << row.what;
    object.reset();
    EXPECT_EQ(links_at_home(), before) << row.what;
  }
  queued_buffer->Free();
}

TEST_F(Objects, AThreadWithANameTakesALinkUntilTheKernelStops) {
  const int before = links_at_home();
  OSTaskTag::SetName("named", 0);
  EXPECT_EQ(links_at_home(), before - 1);
  OSTaskTag::SetName("named again", 0);
  EXPECT_EQ(links_at_home(), before - 1);
}

TEST_F(Objects, AListenerHoldsConnectionsWithoutLinksOrBuffers) {
  OwnedSocket listener = indirect_socket();
  ASSERT_EQ(listener->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  ASSERT_EQ(listener->Listen(nothing, nullptr), 0);
  const int links = links_at_home();
  const int buffers = free_buffers();
  const PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  AsyncSocket* const raw = listener.get();
  ASSERT_TRUE(wait_until(
      [raw] {
        EnterCriticalSection(&raw->local_cs);
        const int waiting = raw->listenq.Size();
        LeaveCriticalSection(&raw->local_cs);
        return waiting == 1;
      },
      kPatienceMs));
  // Its trigger has fired, and an armed one is what has taken the link.
  EXPECT_EQ(links_at_home(), links + 1);
  EXPECT_EQ(free_buffers(), buffers);
}

TEST_F(Objects, ANameTakesTwoLinksWhileItIsLookedUpAndOneAfterwards) {
  FakeResolver::reset();
  FakeResolver::know("gate.example.net", kLoopback);
  FakeResolver::hold();
  const int before = links_at_home();
  OwnedSocket socket = datagram_socket(nullptr);
  const int with_socket = links_at_home();
  EXPECT_EQ(with_socket, before - 3);
  EXPECT_EQ(socket->Connect("gate.example.net", 9), 0);
  EXPECT_EQ(links_at_home(), with_socket - 3) << "entry, question and the socket that waits";
  FakeResolver::release();
  ASSERT_TRUE(dispatch_until([&] { return socket->Connected(); }));
  EXPECT_EQ(links_at_home(), with_socket - 1) << "the entry";
}

/// How many links are left of so many when the datagram with the most entries has been decoded; more when the pool has
/// grown.
int links_left_of(int links) {
  std::string datagram("\0\1\201\200\377\377\0\0\0\0\0\0", 12);
  while (datagram.size() + 5 <= kRead) datagram += std::string("\0\0\1\0\1", 5);
  OSBuf* const buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(datagram.data()), static_cast<int>(kRead));
  std::vector<OSLink*> others;
  while (links_at_home() > links) others.push_back(OSLink::Alloc());
  int left = -1;
  {
    DnsMessage message;
    message.Decode(buf);
    EXPECT_EQ(message.questions.Size(), 317);
    left = links_at_home();
  }
  for (OSLink* link : others) link->Free();
  buf->Free();
  return left;
}

TEST_F(SizedLoad, TheAnswerWithTheMostEntriesFindsTheLinksOfALookup) {
  Load load;
  load.lookups = 1;
  load.message_size = 100;
  load.trigger_stack = 0;
  start(load);
  EXPECT_EQ(links_left_of(320), 3);
  EXPECT_GT(links_left_of(316), 3) << "the pool has grown";
}

TEST_F(SizedLoad, TheTriggerTaskTakesOneLink) {
  Load load = connections_of(100);
  load.trigger_stack = 65536;
  sizes_ = calculate(load);
  cfg.trigger_stack = 65536;
  cfg.link_qty = static_cast<int>(sizes_.links.count);
  Start();
  EXPECT_EQ(links_at_home(), cfg.link_qty - 1);
}

TEST_F(SizedLoad, WithoutCallbacksTheWarningComesAndNull) {
  start(connections_of(100));
  EXPECT_EQ(OSCallback::Alloc(nullptr, nothing, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(console.count("OSCallback::Alloc Out Of Callbacks"), 1);
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(SizedLoad, ADirectSocketReadsIntoItsRing) {
  Load load = connections_of(100);
  load.direct = true;
  start(load);
  const int before = free_buffers();
  RecordingLayer layer;
  layer.hold_buffers(true);
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer, false);
  ASSERT_TRUE(peer.send_all(numbered_bytes(20 * kRead)));
  ASSERT_TRUE(layer.wait_for_bytes(20 * kRead));
  EXPECT_EQ(free_buffers(), before);
  layer.release_held();
}

// ---- TLS ---------------------------------------------------------------------------------------------------------

TEST_F(SizedLoad, SessionsTakeTheCalculatedBuffersInBothDirections) {
  initialise_tls();
  Load load;
  load.connections = 2;
  load.listeners = 0;
  load.message_size = 16000;
  load.tls = true;
  load.reserve_percent = 0;
  load.trigger_stack = 0;
  start(load);
  ASSERT_EQ(sizes_.buffers[1].size, 1740) << "the reads'";
  std::vector<std::unique_ptr<SecureClient>> clients;
  for (int i = 0; i < 2; ++i) {
    clients.push_back(std::make_unique<SecureClient>());
    SecureClient& client = *clients.back();
    ASSERT_TRUE(client.comes_up());
    ASSERT_TRUE(dispatch_until([&] { return client.layer.count() == 1; }));
  }
  for (const auto& client : clients) {
    client->peer->write(numbered_bytes(48000));
    ASSERT_TRUE(wait_until([&] { return queued(client->socket.get()) == 10; }, kPatienceMs));
  }
  EXPECT_EQ(OSBuf::PoolSize(1), cfg.buf_qty[1] - 20);
  for (const auto& client : clients) {
    AsyncSocket* const socket = client->socket.get();
    const std::string bytes = numbered_bytes(16000);
    OSIORetCode result = Success;
    for (int n = 0; n < 100000 && result == Success && socket->ssl_info->sendq.Size() < 11; ++n) {
      OSBuf* const buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(bytes.data()), 16000);
      ASSERT_NE(buf, nullptr);
      result = socket->DataIndication(buf);
    }
    EXPECT_EQ(socket->ssl_info->sendq.Size(), 11);
  }
  EXPECT_EQ(OSBuf::PoolSize(2), 0);
  for (const auto& client : clients) {
    EXPECT_EQ(client->socket->DataIndication(OSBuf::Alloc("one too many")), Blocked);
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
