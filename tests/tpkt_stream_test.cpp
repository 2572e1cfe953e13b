// Streams of packets in pieces: cut everywhere, pipelined at random, of every length, with a slow consumer and with
// pools that run dry. However the bytes come, the packets go up whole, in order, once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "network/asocket.h"
#include "support/buffer_drought.h"
#include "support/seed.h"
#include "support/socket_pairs.h"
#include "support/socket_watch.h"
#include "support/tpkt_packets.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Story = std::vector<std::string>;
using PacketSocket = Owned<TPKTSocket>;

PacketSocket packet_socket() { return PacketSocket(new TPKTSocket); }

/// The payloads that a layer has been given, one for each indication.
std::vector<std::string> payloads_of(const RecordingLayer& layer) {
  std::vector<std::string> payloads;
  for (Indication& indication : layer.all()) {
    if (indication.kind == Indication::kData) payloads.push_back(std::move(indication.data));
  }
  return payloads;
}

/// Compares without printing megabytes.
void expect_packets(const std::vector<std::string>& found, const std::vector<std::string>& expected) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    ASSERT_EQ(found[i].size(), expected[i].size()) << "packet " << i;
    ASSERT_TRUE(found[i] == expected[i]) << "packet " << i << " has other bytes";
  }
}

// ---- Reassembly, segment by segment --------------------------------------------------------------------------------

class TpktReassembly : public QuietNetworkTest {
 protected:
  /// After each segment exactly those packets have been delivered that are complete.
  static void expect_step(const TakingSocket& socket, const TpktStream& stream, std::size_t arrived) {
    const std::size_t expected = stream.delivered_after(arrived);
    ASSERT_EQ(socket.packets.size(), expected) << "after " << arrived << " bytes";
    ASSERT_EQ(socket.lastBuf, nullptr);
  }
  static void expect_all(const TakingSocket& socket, const TpktStream& stream) {
    ASSERT_NO_FATAL_FAILURE(expect_packets(socket.packets, stream.payloads));
    ASSERT_EQ(socket.tpktBuf, nullptr);
    ASSERT_EQ(Segment::alive(), 0);
  }
};

TEST_F(TpktReassembly, AStreamIsCutAtEveryByte) {
  TpktStream stream;
  unsigned number = 0;
  for (const std::size_t bytes : {1, 0, 96, 0, 0, 255, 256, 2, 1675, 1676, 3, 0, 50}) {
    stream.add(numbered_payload(bytes, ++number));
  }
  const Owned<TakingSocket> socket(new TakingSocket);
  for (std::size_t cut = 1; cut < stream.bytes.size(); ++cut) {
    SCOPED_TRACE(cut);
    socket->packets.clear();
    feed(*socket, stream.bytes.substr(0, cut));
    ASSERT_NO_FATAL_FAILURE(expect_step(*socket, stream, cut));
    feed(*socket, stream.bytes.substr(cut));
    ASSERT_NO_FATAL_FAILURE(expect_all(*socket, stream));
  }
}

TEST_F(TpktReassembly, AStreamIsCutAtEveryTwoBytes) {
  TpktStream stream;
  for (const char* payload : {"a", "", "packet", "", "", "xy", "0123456789"}) stream.add(payload);
  const Owned<TakingSocket> socket(new TakingSocket);
  for (std::size_t first = 1; first < stream.bytes.size(); ++first) {
    for (std::size_t second = first + 1; second < stream.bytes.size(); ++second) {
      SCOPED_TRACE(text_of("%zu and %zu", first, second));
      socket->packets.clear();
      feed(*socket, stream.bytes.substr(0, first));
      ASSERT_NO_FATAL_FAILURE(expect_step(*socket, stream, first));
      feed(*socket, stream.bytes.substr(first, second - first));
      ASSERT_NO_FATAL_FAILURE(expect_step(*socket, stream, second));
      feed(*socket, stream.bytes.substr(second));
      ASSERT_NO_FATAL_FAILURE(expect_all(*socket, stream));
    }
  }
}

TEST_F(TpktReassembly, AStreamComesByteByByte) {
  TpktStream stream;
  unsigned number = 0;
  for (const std::size_t bytes : {0, 1, 5, 0, 300, 1675, 1676, 4})
    stream.add(numbered_payload(bytes, ++number));
  const Owned<TakingSocket> socket(new TakingSocket);
  for (std::size_t i = 0; i < stream.bytes.size(); ++i) {
    feed(*socket, stream.bytes.substr(i, 1));
    ASSERT_NO_FATAL_FAILURE(expect_step(*socket, stream, i + 1));
  }
  ASSERT_NO_FATAL_FAILURE(expect_all(*socket, stream));
}

TEST_F(TpktReassembly, SegmentsAndPacketsOfAnyLengthFollowEachOther) {
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  const PoolState before = PoolState::now();
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(text_of("seed %u round %d", seed, round));
    TpktStream stream;
    for (int n = pick(random, 1, 40); n > 0; --n) {
      const int kind = pick(random, 0, 9);
      const int bytes = kind == 0  ? 0
                        : kind < 7 ? pick(random, 1, 60)
                        : kind < 9 ? pick(random, 1500, 1800)
                                   : pick(random, 2000, 65531);
      stream.add(numbered_payload(static_cast<std::size_t>(bytes), static_cast<unsigned>(n)));
    }
    stream.add("the last one is not empty");
    const Owned<TakingSocket> socket(new TakingSocket);
    for (std::size_t arrived = 0; arrived < stream.bytes.size();) {
      const int most = pick(random, 0, 3) == 0 ? 5 : pick(random, 0, 1) == 0 ? 1600 : 40000;
      const auto piece = static_cast<std::size_t>(pick(random, 1, most));
      const std::string segment = stream.bytes.substr(arrived, piece);
      feed(*socket, segment);
      arrived += segment.size();
      ASSERT_NO_FATAL_FAILURE(expect_step(*socket, stream, arrived));
    }
    ASSERT_NO_FATAL_FAILURE(expect_all(*socket, stream));
  }
  EXPECT_EQ(PoolState::now().buffers_out, before.buffers_out);
  EXPECT_EQ(PoolState::now().callbacks, before.callbacks);
}

TEST_F(TpktReassembly, PacketsOfTheLengthsThatAreMarksElsewhereAreWholeToo) {
  // 21845 and 43690 are the lengths of buffers that are not in use, so are those of their payloads; from 1680 on
  // packets have an array of their own.
  const PoolState before = PoolState::now();
  for (const std::size_t length : {4u, 5u, 1678u, 1679u, 1680u, 1681u, 21844u, 21845u, 21846u, 21849u, 43689u,
                                   43690u, 43691u, 43694u, 65534u, 65535u}) {
    TpktStream stream;
    stream.add(numbered_payload(length - kTpktHeader, 1));
    stream.add("behind it");
    // Cut where what has come so far, with and without the header, is one of those lengths.
    for (const std::size_t cut : {0u, 1u, 4u, 5u, 1680u, 21845u, 21849u, 43690u, 43694u, 65530u}) {
      if (cut >= length) continue;
      SCOPED_TRACE(text_of("length %zu cut at %zu", length, cut));
      const Owned<TakingSocket> socket(new TakingSocket);
      if (cut > 0) feed(*socket, stream.bytes.substr(0, cut));
      ASSERT_NO_FATAL_FAILURE(expect_step(*socket, stream, cut));
      // A segment is at most 65535 bytes.
      feed(*socket, stream.bytes.substr(cut, 65535));
      if (stream.bytes.size() > cut + 65535) feed(*socket, stream.bytes.substr(cut + 65535));
      ASSERT_NO_FATAL_FAILURE(expect_all(*socket, stream));
    }
  }
  EXPECT_EQ(PoolState::now().buffers_out, before.buffers_out);
  EXPECT_EQ(PoolState::now().callbacks, before.callbacks);
}

// ---- Over the wire -------------------------------------------------------------------------------------------------

class TpktWire : public NetworkTest {};
class QuietTpktWire : public QuietNetworkTest {};

TEST_F(TpktWire, PacketsOfEveryKindOfLengthArriveWhole) {
  for (const bool big_buffers : {false, true}) {
    SCOPED_TRACE(big_buffers);
    PeerListener listener;
    RecordingLayer layer;
    const PacketSocket socket = packet_socket();
    socket->SetBigBuffers(big_buffers);
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    TpktStream stream;
    unsigned number = 0;
    for (const std::size_t length : {5, 4, 1679, 1680, 21845, 4, 21849, 43690, 43694, 65535, 5}) {
      stream.add(numbered_payload(length - kTpktHeader, ++number));
    }
    ASSERT_TRUE(peer.send_all(stream.bytes));
    std::vector<std::string> expected;
    std::copy_if(stream.payloads.begin(), stream.payloads.end(), std::back_inserter(expected),
                 [](const std::string& payload) { return !payload.empty(); });
    EXPECT_TRUE(layer.wait_for_kind(Indication::kData, expected.size()));
    expect_packets(payloads_of(layer), expected);
    EXPECT_EQ(layer.count(Indication::kDisconnect), 0u);
  }
}

TEST_F(TpktWire, SmallSegmentsOfOneConnectionArePutTogether) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  ComeRound come_round;
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  // One byte, then the rest of the header, then the body: each has been read before the next is sent.
  const std::string packet = tpkt("in three pieces");
  for (const auto& [from, count] : {std::pair<std::size_t, std::size_t>{0, 1}, {1, 3}, {4, 100}}) {
    ASSERT_TRUE(peer.send_all(packet.substr(from, count)));
    ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket->s) == 0; }, kPatienceMs));
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.count(), from == 4 ? 2u : 1u);
  }
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_EQ(layer.story(), (Story{"connect", "data:in three pieces"}));
}

TEST_F(TpktWire, PacketsArePipelinedAtRandomInBothDirections) {
  const unsigned seed = test_seed();
  std::mt19937 random(seed);
  Acceptor acceptor;
  const PacketSocket listener = packet_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  RecordingLayer layer;
  const OwnedSocket socket = acceptor.take();
  ASSERT_NE(socket, nullptr);
  socket->SetBigBuffers(pick(random, 0, 1) == 1);
  layer.set_hook([&](const Indication& indication) {
    // An echo: every packet comes back as it went.
    if (indication.kind != Indication::kData) return;
    std::string storage;
    socket->DataIndication(packet_buffer(indication.data, &storage));
  });
  socket->Bind(&layer);
  socket->ConnectAck();
  TpktStream stream;
  for (unsigned n = 0; n < 400; ++n) {
    const int bytes = pick(random, 0, 19) == 0 ? pick(random, 1600, 20000) : pick(random, 1, 300);
    stream.add(numbered_payload(static_cast<std::size_t>(bytes), n));
  }
  std::string back;
  {
    WatchedThread reading([&] { back = peer.receive(stream.bytes.size()); });
    std::size_t sent = 0;
    while (sent < stream.bytes.size()) {
      const auto piece =
          static_cast<std::size_t>(pick(random, 0, 2) == 0 ? pick(random, 1, 5) : pick(random, 1, 4000));
      const std::string segment = stream.bytes.substr(sent, piece);
      if (!peer.send_all(segment)) break;
      sent += segment.size();
    }
    EXPECT_EQ(sent, stream.bytes.size());
    EXPECT_TRUE(reading.finished_within(60000));
  }
  ASSERT_EQ(back.size(), stream.bytes.size()) << "seed " << seed;
  EXPECT_TRUE(back == stream.bytes) << "seed " << seed;
  expect_packets(payloads_of(layer), stream.payloads);
}

// ---- Tiny packets, small pools and a slow consumer -----------------------------------------------------------------

/// Pools that would be empty after a few dozen packets, and no dispatcher but the test.
class TpktSmallPools : public QuietNetworkTest {
 protected:
  static constexpr int kBuffers = 40;

  void SetUp() override {
    cfg.buf_qty[0] = 10;
    cfg.buf_qty[1] = kBuffers;
    cfg.buf_qty[2] = 5;
    cfg.buf_qty[3] = 10;
    cfg.callback_qty = 10;
    QuietNetworkTest::SetUp();
  }
  /// The buffers that are out now, and most that ever were out.
  static int out() { return PoolState::now().buffers_out; }
};

TEST_F(TpktSmallPools, ASegmentOfTinyPacketsIsHeldBackUntilTheConsumerHasTakenTheQueueDown) {
  for (const bool big_buffers : {false, true}) {
    SCOPED_TRACE(big_buffers);
    PeerListener listener;
    RecordingLayer layer;
    const PacketSocket socket = packet_socket();
    socket->SetBigBuffers(big_buffers);
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
    TpktStream stream;
    for (unsigned n = 0; n < 3000; ++n) stream.add(numbered_payload(1 + n % 3, n));
    {
      // The monitor thread waits while everything arrives, so that it comes in as large segments as may be.
      EnterCriticalSection(&AsyncSocket::cs);
      const bool sent = peer.send_all(stream.bytes);
      const bool arrived = wait_until(
          [&] { return bytes_waiting(socket->s) == static_cast<int>(stream.bytes.size()); }, kPatienceMs);
      LeaveCriticalSection(&AsyncSocket::cs);
      ASSERT_TRUE(sent);
      ASSERT_TRUE(arrived);
    }
    // Nobody consumes: the queue fills up, and no further.
    ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
    ASSERT_TRUE(wait_until([&] { return queued(*socket) >= 10; }, kPatienceMs));
    for (int i = 0; i < 5; ++i) AsyncSocket::WakeMonitorThread();
    EXPECT_LE(queued(*socket), 11);
    EXPECT_LE(out(), 15) << "the queue, the segment and the packet that is being assembled";
    EnterCriticalSection(&AsyncSocket::cs);
    EXPECT_NE(socket->lastBuf, nullptr) << "the rest of the segment is kept";
    LeaveCriticalSection(&AsyncSocket::cs);

    // A slow consumer: it looks at the pools each time.
    int most_out = 0;
    int most_queued = 0;
    layer.set_hook([&](const Indication&) {
      most_out = std::max(most_out, out());
      most_queued = std::max(most_queued, queued(*socket));
    });
    ASSERT_TRUE(
        dispatch_until([&] { return layer.count(Indication::kData) == stream.payloads.size(); }, 60000));
    EXPECT_LE(most_out, 20);
    EXPECT_LE(most_queued, 12);
    expect_packets(payloads_of(layer), stream.payloads);
    EXPECT_EQ(queued(*socket), 0);
    EXPECT_THAT(console.fatals(), IsEmpty());

    // And the connection goes on.
    ASSERT_TRUE(peer.send_all(tpkt("go on")));
    ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kData) == stream.payloads.size() + 1; }));
  }
}

TEST_F(TpktSmallPools, ThousandsOfEmptyPacketsDrainNothingEither) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  socket->SetBigBuffers(true);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  std::string bytes;
  for (int n = 0; n < 5000; ++n) bytes += tpkt("");
  bytes += tpkt("the end");
  ASSERT_TRUE(peer.send_all(bytes));
  ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
  EXPECT_LE(out(), 15);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 2; }, 60000));
  EXPECT_EQ(layer.story(), (Story{"connect", "data:the end"}));
}

TEST_F(TpktSmallPools, TheEndOfTheConnectionComesBehindThePacketsThatAreHeldBack) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  TpktStream stream;
  for (unsigned n = 0; n < 300; ++n) stream.add(numbered_payload(2, n));
  ASSERT_TRUE(peer.send_all(stream.bytes));
  peer.close();
  ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
  ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kDisconnect) == 1; }));
  expect_packets(payloads_of(layer), stream.payloads);
  EXPECT_EQ(layer.at(layer.count() - 1).text(), "disconnect(5,0)");
}

// The socket stays ready for as long as the byte is there, which would keep the monitor thread busy.
TEST_F(TpktSmallPools, AnUrgentByteIsDrainedWhilePacketsAreHeldBack) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  TpktStream stream;
  for (unsigned n = 0; n < 300; ++n) stream.add(numbered_payload(2, n));
  ASSERT_TRUE(peer.send_all(stream.bytes));
  ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
  {
    const Tracing tracing;
    ASSERT_TRUE(peer.send_urgent('!'));
    EXPECT_TRUE(wait_until([&] { return console.count("(exception)") > 0; }, kPatienceMs));
  }
  EXPECT_EQ(layer.count(), 1u) << "the consumer has not moved";
  ASSERT_TRUE(peer.send_all(tpkt("behind it")));
  stream.payloads.emplace_back("behind it");
  ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kData) == stream.payloads.size(); }));
  expect_packets(payloads_of(layer), stream.payloads);
}

TEST_F(TpktSmallPools, WhatIsHeldBackGoesWithItsSocket) {
  for (const bool close_first : {false, true}) {
    SCOPED_TRACE(close_first);
    const int before = out();
    PeerListener listener;
    RecordingLayer layer;
    PacketSocket socket = packet_socket();
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
    std::string bytes;
    for (int n = 0; n < 200; ++n) bytes += tpkt("x");
    ASSERT_TRUE(peer.send_all(bytes));
    ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
    if (close_first) socket->Close();
    socket.reset();
    EXPECT_EQ(out(), before);
    EXPECT_TRUE(peer.ended());
  }
}

TEST_F(TpktSmallPools, WhatIsHeldBackOfAClosedConnectionIsNotMixedWithTheNext) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  PeerStream first = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  std::string bytes;
  for (int n = 0; n < 200; ++n) bytes += tpkt("old");
  ASSERT_TRUE(first.send_all(bytes));
  ASSERT_TRUE(wait_until([&] { return now_of(socket->dont_read); }, kPatienceMs));
  socket->Close();
  EXPECT_NE(socket->lastBuf, nullptr);
  layer.clear();
  PeerStream second = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  ASSERT_TRUE(second.send_all(tpkt("new")));
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 2; }));
  EXPECT_EQ(layer.story(), (Story{"connect", "data:new"}));
}

TEST_F(TpktSmallPools, APartnerMayFreeTheSocketWhilePacketsAreHeldBack) {
  const int before = out();
  PeerListener listener;
  RecordingLayer layer;
  TPKTSocket* socket = new TPKTSocket;
  layer.set_hook([&](const Indication&) {
    if (layer.count(Indication::kData) == 20) socket->Free();
  });
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  std::string bytes;
  for (int n = 0; n < 200; ++n) bytes += tpkt("x");
  ASSERT_TRUE(peer.send_all(bytes));
  ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kData) == 20; }));
  EXPECT_TRUE(peer.ended());
  os_check_triggers();
  EXPECT_EQ(layer.count(Indication::kData), 20u);
  EXPECT_EQ(out(), before);
}

TEST_F(TpktSmallPools, ManyConnectionsShareThePoolsWithoutDrainingThem) {
  constexpr unsigned kConnections = 3;  // each may have a full queue
  PeerListener listener;
  RecordingLayer layers[kConnections];
  PacketSocket sockets[kConnections];
  PeerStream peers[kConnections];
  TpktStream streams[kConnections];
  for (unsigned i = 0; i < kConnections; ++i) {
    sockets[i] = packet_socket();
    peers[i] = connect_to_peer(*sockets[i], layers[i], listener);
    ASSERT_TRUE(peers[i].is_open());
    for (unsigned n = 0; n < 300; ++n) streams[i].add(numbered_payload(1 + n % 2, i * 1000 + n));
    ASSERT_TRUE(peers[i].send_all(streams[i].bytes));
  }
  for (unsigned i = 0; i < kConnections; ++i) {
    ASSERT_TRUE(wait_until([&] { return now_of(sockets[i]->dont_read); }, kPatienceMs));
  }
  EXPECT_LE(out(), kConnections * 14);
  for (unsigned i = 0; i < kConnections; ++i) {
    ASSERT_TRUE(
        dispatch_until([&] { return layers[i].count(Indication::kData) == streams[i].payloads.size(); }));
    expect_packets(payloads_of(layers[i]), streams[i].payloads);
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

// ---- Pools that are empty ------------------------------------------------------------------------------------------

/// Takes every callback, until end() or the destructor gives them back.
class CallbackDrought {
 public:
  CallbackDrought() {
    const auto nothing = [](OSObj*, ADDR, ULONG) {};
    while (OSCallback* callback = OSCallback::Alloc(nullptr, nothing, nullptr, nullptr, 0))
      taken_.push_back(callback);
  }
  ~CallbackDrought() { end(); }
  CallbackDrought(const CallbackDrought&) = delete;
  CallbackDrought& operator=(const CallbackDrought&) = delete;

  void end() {
    for (OSCallback* callback : taken_) callback->Free();
    taken_.clear();
  }

 private:
  std::vector<OSCallback*> taken_;
};

TEST_F(TpktWire, ALargePacketIsNotLostWhenTheCallbackPoolIsEmpty) {
  for (const bool big_buffers : {false, true}) {
    SCOPED_TRACE(big_buffers);
    PeerListener listener;
    RecordingLayer layer;
    const PacketSocket socket = packet_socket();
    socket->SetBigBuffers(big_buffers);
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    CallbackDrought drought;
    console.clear();
    TpktStream stream;
    unsigned number = 0;
    for (const std::size_t bytes : {1, 5000, 2, 1676, 30000, 3})
      stream.add(numbered_payload(bytes, ++number));
    ASSERT_TRUE(peer.send_all(stream.bytes));
    // It may go up without one, or wait for one.
    const auto complete = [&] { return layer.count(Indication::kData) == stream.payloads.size(); };
    EXPECT_TRUE(wait_until([&] { return complete() || console.count("Out Of Callbacks") > 0; }, kPatienceMs));
    drought.end();
    EXPECT_TRUE(wait_until(complete, kPatienceMs)) << layer.count(Indication::kData) << " packets have come";
    expect_packets(payloads_of(layer), stream.payloads);
    EXPECT_EQ(layer.count(Indication::kDisconnect), 0u);
    EXPECT_TRUE(socket->Connected());
  }
}

// Everything has been read when the pool is found empty: no further byte makes the socket ready. What is held goes on
// by itself all the same, and until then the socket asks now and then, not all the time.
TEST_F(TpktSmallPools, WhatWaitsForAPoolGoesOnWithoutFurtherBytes) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  const auto held = [&] {
    EnterCriticalSection(&AsyncSocket::cs);
    const bool is_held = socket->lastBuf != nullptr;
    LeaveCriticalSection(&AsyncSocket::cs);
    return is_held;
  };
  {
    SCOPED_TRACE("no buffer for the header");
    OSBuf* const spare = OSBuf::Alloc(cfg.buf_size[3] - 1);
    BufferDrought drought(cfg);
    spare->Free();  // for the segment
    ASSERT_TRUE(peer.send_all(tpkt(numbered_payload(1000, 1))));
    ASSERT_TRUE(wait_until([&] { return held(); }, kPatienceMs));
    EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
    drought.end();
    ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kData) == 1; }));
    EXPECT_TRUE(layer.at(1).data == numbered_payload(1000, 1));
  }
  {
    SCOPED_TRACE("no callback for a large packet");
    const std::string packet = tpkt(numbered_payload(5000, 2));
    CallbackDrought drought;
    ASSERT_TRUE(peer.send_all(packet.substr(0, 14)));
    ASSERT_TRUE(wait_until([&] { return held(); }, kPatienceMs));
    EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
    drought.end();
    ASSERT_TRUE(wait_until([&] { return !held(); }, kPatienceMs));
    ASSERT_TRUE(peer.send_all(packet.substr(14)));
    ASSERT_TRUE(dispatch_until([&] { return layer.count(Indication::kData) == 2; }));
    EXPECT_TRUE(layer.at(2).data == numbered_payload(5000, 2));
  }
  EXPECT_FALSE(console.fatals().empty());
  console.clear();
}

TEST_F(TpktWire, ASocketThatWaitsForACallbackCanBeFreed) {
  PeerListener listener;
  RecordingLayer layer;
  PacketSocket socket = packet_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  const CallbackDrought drought;
  console.clear();
  ASSERT_TRUE(peer.send_all(tpkt(std::string(5000, 'x'))));
  ASSERT_TRUE(
      wait_until([&] { return layer.count(Indication::kData) > 0 || console.count("Out Of Callbacks") > 0; },
                 kPatienceMs));
  socket.reset();
  EXPECT_TRUE(peer.ended());
}

TEST_F(TpktReassembly, EmptyBufferPoolsAreReportedAndSurvived) {
  // Fatal in programs; with a console whose Fatal returns the packet waits until there are buffers again.
  for (const std::size_t bytes : {20, 5000}) {
    for (const std::size_t cut : {0, 1, 3}) {
      SCOPED_TRACE(text_of("%zu bytes, the pools are empty after %zu of them", bytes, cut));
      Owned<TakingSocket> socket(new TakingSocket);
      const std::string packet = tpkt(numbered_payload(bytes, 1));
      if (cut > 0) feed(*socket, packet.substr(0, cut));
      std::vector<OSBuf*> without_storage;
      while (OSBuf::PoolSize(0) > 0) without_storage.push_back(OSBuf::Alloc(0));
      BufferDrought drought(cfg);
      feed(*socket, packet.substr(cut));
      EXPECT_THAT(socket->packets, IsEmpty());
      EXPECT_EQ(Segment::alive(), 1) << "it is kept";
      for (OSBuf* buf : without_storage) buf->Free();
      drought.end();
      EnterCriticalSection(&AsyncSocket::cs);
      socket->Poll();
      LeaveCriticalSection(&AsyncSocket::cs);
      expect_packets(socket->packets, {numbered_payload(bytes, 1)});
      EXPECT_EQ(Segment::alive(), 0);
    }
  }
  EXPECT_THAT(console.fatals(), Each(StartsWith("OSBuffer::Alloc Out Of Buffers")));
  EXPECT_FALSE(console.fatals().empty());
  console.clear();
}

}  // namespace
}  // namespace oskernel_test
