// The packet socket: what it puts on the wire, which headers it refuses and how, and what it does where a plain
// socket does something else. Streams in pieces are tpkt_stream_test.cpp's.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "network/asocket.h"
#include "support/socket_watch.h"
#include "support/tpkt_packets.h"

namespace oskernel_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Story = std::vector<std::string>;
using PacketSocket = Owned<TPKTSocket>;

PacketSocket packet_socket() { return PacketSocket(new TPKTSocket); }

class Tpkt : public NetworkTest {};
class QuietTpkt : public QuietNetworkTest {};

/// A packet socket, a layer above it, and the peer that it is connected to.
class ConnectedTpkt : public Tpkt {
 protected:
  void SetUp() override {
    Tpkt::SetUp();
    socket_ = packet_socket();
    peer_ = connect_to_peer(*socket_, layer_, listener_);
    ASSERT_TRUE(layer_.wait_for_connect());
  }
  void TearDown() override {
    socket_.reset();
    peer_.close();
    Tpkt::TearDown();
  }
  PeerListener listener_;
  RecordingLayer layer_;
  PacketSocket socket_;
  PeerStream peer_;
};

// ---- The object ----------------------------------------------------------------------------------------------------

TEST_F(Tpkt, ANewSocketIsIndirectAndBetweenPackets) {
  const PacketSocket socket = packet_socket();
  EXPECT_TRUE(socket->indirect_socket);
  EXPECT_EQ(socket->tpktBuf, nullptr);
  EXPECT_EQ(socket->lastBuf, nullptr);
  EXPECT_EQ(state_of(*socket), SSInitial);
  EXPECT_FALSE(socket->ProcessTPKT()) << "there is nothing to cut";
}

TEST_F(Tpkt, TheSocketsOfItsListenerArePacketSockets) {
  Acceptor acceptor;
  const PacketSocket listener = packet_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  RecordingLayer layer;
  PeerStream peer = PeerStream::connect_to(listener->LocalPort());
  const OwnedSocket socket = acceptor.take();
  ASSERT_NE(socket, nullptr);
  EXPECT_NE(dynamic_cast<TPKTSocket*>(socket.get()), nullptr);
  EXPECT_EQ(socket->type, SOCK_STREAM);
  EXPECT_EQ(socket->RemotePort(), peer.local_port());
  socket->Bind(&layer);
  EXPECT_EQ(socket->ConnectAck(), 0);
  ASSERT_TRUE(peer.send_all(tpkt("one") + tpkt("two")));
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_EQ(layer.at(0).data, "one");
  EXPECT_EQ(layer.at(1).data, "two");
  EXPECT_EQ(socket->DataIndication(buffer_of("three")), Success);
  EXPECT_EQ(peer.receive(9), tpkt("three"));
}

TEST_F(Tpkt, GetNewSocketAdoptsTheDescriptor) {
  PeerListener listener;
  PeerStream peer = PeerStream::connect_to(listener.port());
  PeerStream own = listener.accept();
  const PacketSocket maker = packet_socket();
  ASSERT_EQ(maker->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  const int fd = own.release();
  const OwnedSocket made(maker->GetNewSocket(fd));
  EXPECT_NE(dynamic_cast<TPKTSocket*>(made.get()), nullptr);
  EXPECT_EQ(made->s, fd);
  EXPECT_EQ(made->type, SOCK_STREAM);
  EXPECT_EQ(made->LocalPort(), listener.port());
  maker->type = SOCK_DGRAM;
  const OwnedSocket other(maker->GetNewSocket(socket(AF_INET, SOCK_DGRAM, 0)));
  EXPECT_EQ(other->type, SOCK_DGRAM) << "it has the type of its maker";
}

TEST_F(QuietTpkt, PollReadsNothingBeforeReceptionHasStarted) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  PeerStream peer = adopt_connection(*socket, layer, listener);
  ASSERT_TRUE(peer.send_all(tpkt("early")));
  ASSERT_TRUE(wait_readable(socket->s));
  EnterCriticalSection(&AsyncSocket::cs);
  socket->Poll();
  LeaveCriticalSection(&AsyncSocket::cs);
  EXPECT_EQ(queued(*socket), 0);
  EXPECT_GT(bytes_waiting(socket->s), 0);
  EXPECT_EQ(socket->ConnectAck(), 0);
  EXPECT_TRUE(dispatch_until([&] { return layer.count() == 1; }));
  EXPECT_EQ(layer.at(0).data, "early");
}

// ---- Sending -------------------------------------------------------------------------------------------------------

TEST_F(ConnectedTpkt, PutsTheHeaderInFrontOfEveryPacket) {
  EXPECT_EQ(socket_->DataIndication(buffer_of(std::string(100, 'x'))), Success);
  EXPECT_EQ(peer_.receive(104), std::string("\x03\x00\x00\x68", 4) + std::string(100, 'x'));
  EXPECT_EQ(socket_->DataIndication(OSBuf::Alloc(10)), Success) << "an empty packet is one too";
  EXPECT_EQ(peer_.receive(4), std::string("\x03\x00\x00\x04", 4));
  EXPECT_THAT(layer_.story(), ElementsAre("connect"));
}

TEST_F(ConnectedTpkt, SendsEveryLengthThatTheHeaderCanSay) {
  unsigned number = 0;
  for (const std::size_t length :
       {5, 6, 259, 260, 261, 1599, 1679, 1680, 1681, 21845, 21849, 43690, 43694, 65535}) {
    SCOPED_TRACE(length);
    const std::string payload = numbered_payload(length - kTpktHeader, ++number);
    std::string storage;
    OSBuf* buf = packet_buffer(payload, &storage);
    std::string sent;
    std::atomic<int> result{-1};
    std::thread sending([&] { result = socket_->DataIndication(buf); });
    sent = peer_.receive(length);
    sending.join();
    EXPECT_EQ(result, Success);
    EXPECT_TRUE(sent == tpkt(payload));
  }
}

TEST_F(ConnectedTpkt, ABufferWithoutRoomForTheHeaderIsReportedAndNotSent) {
  const int out = PoolState::now().buffers_out;
  for (const bool expedited : {false, true}) {
    for (const int room : {0, 1, 3, 4, 7, 8}) {
      SCOPED_TRACE(text_of("expedited %d, room %d", expedited, room));
      console.clear();
      OSBuf* buf = OSBuf::Alloc(599);
      const auto length = static_cast<UWORD>(buf->size - room);
      const std::string payload = numbered_payload(length, static_cast<unsigned>(room));
      buf->PushDown(length);
      std::memcpy(buf->data, payload.data(), payload.size());
      ASSERT_EQ(buf->data - buf->payload, room);
      const std::string packet = expedited ? tpkt(tpkt(payload)) : tpkt(payload);
      const bool has_room = packet.size() - payload.size() <= static_cast<std::size_t>(room);
      EXPECT_EQ(expedited ? socket_->DataExpeditedIndication(buf) : socket_->DataIndication(buf),
                has_room ? Success : Blocked);
      if (has_room) {
        EXPECT_TRUE(peer_.receive(packet.size()) == packet) << "nothing else has been sent before it";
        EXPECT_THAT(console.fatals(), IsEmpty());
      } else {
        EXPECT_THAT(console.fatals(), Contains("OSBuf::Pushdown Too far"));
      }
      EXPECT_EQ(PoolState::now().buffers_out, out);
    }
  }
  console.clear();
  EXPECT_TRUE(socket_->Connected()) << "the connection stays";
  EXPECT_THAT(layer_.story(), ElementsAre("connect"));
}

// A program may have made the buffer itself, with more in it than the header can say.
TEST_F(ConnectedTpkt, APacketOfMoreThanTheHeaderCanSayIsFreedAndNotSent) {
  const int out = PoolState::now().buffers_out;
  std::vector<UBYTE> storage(50 + 65535);
  const auto buffer_with = [&storage](int length) {
    OSBuf* buf = OSBuf::Alloc(0);
    buf->SetPayload(storage.data(), 65535);
    buf->data = buf->payload + 50;
    buf->length = static_cast<UWORD>(length);
    return buf;
  };
  for (const int length : {65532, 65533, 65534, 65535}) {
    SCOPED_TRACE(length);
    EXPECT_EQ(socket_->DataIndication(buffer_with(length)), Blocked);
    EXPECT_EQ(socket_->DataExpeditedIndication(buffer_with(length)), Blocked);
    EXPECT_EQ(socket_->DataExpeditedIndication(buffer_with(length - 4)), Blocked)
        << "the outer header is too much";
    EXPECT_EQ(PoolState::now().buffers_out, out);
  }
  EXPECT_EQ(socket_->DataIndication(buffer_of("next")), Success);
  EXPECT_EQ(peer_.receive(8), tpkt("next")) << "it is the first thing that was sent";
  EXPECT_THAT(layer_.story(), ElementsAre("connect"));
}

TEST_F(Tpkt, PacketsGivenBeforeTheConnectionLeaveInOrder) {
  FullPort port;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, port.port());
  ASSERT_TRUE(comes_to_state(*socket, SSConnecting));
  std::string expected;
  for (unsigned n = 0; n < 20; ++n) {
    const std::string payload = numbered_payload(1 + n * 37, n);
    expected += tpkt(payload);
    EXPECT_EQ(socket->DataIndication(buffer_of(payload)), Success);
  }
  port.admit();
  PeerStream peer = port.accept_from(socket->LocalPort());
  ASSERT_TRUE(peer.is_open());
  EXPECT_EQ(peer.receive(expected.size()), expected);
}

TEST_F(ConnectedTpkt, ADisconnectedSocketFreesWhatItIsGiven) {
  peer_.close();
  ASSERT_TRUE(layer_.wait_for_disconnect());
  const int out = PoolState::now().buffers_out;
  EXPECT_EQ(socket_->DataIndication(buffer_of("too late")), NoConnection);
  EXPECT_EQ(socket_->DataExpeditedIndication(buffer_of("too late")), NoConnection);
  EXPECT_EQ(PoolState::now().buffers_out, out);
}

TEST_F(ConnectedTpkt, ExpeditedDataLeavesWithTwoHeaders) {
  EXPECT_EQ(socket_->DataExpeditedIndication(buffer_of("hurry")), Success);
  EXPECT_EQ(peer_.receive(13), std::string("\x03\x00\x00\x0D\x03\x00\x00\x09hurry", 13));
  EXPECT_EQ(socket_->DataExpeditedIndication(buffer_of(std::string(300, 'e'))), Success);
  EXPECT_EQ(peer_.receive(308), tpkt(tpkt(std::string(300, 'e'))));
  // Through the interface of layers too, as its partner calls it.
  OSIO* const lower = layer_.Partner();
  EXPECT_EQ(lower->DataExpeditedIndication(buffer_of("x")), Success);
  EXPECT_EQ(peer_.receive(9), tpkt(tpkt("x")));
}

TEST_F(ConnectedTpkt, ADatagramIsRefusedAndStaysTheCallers) {
  OSBuf* buf = buffer_of("mine");
  const UBYTE* const data = buf->data;
  sockaddr_in dest = loopback_address(9);
  EXPECT_EQ(socket_->DatagramIndication(buf, nullptr, nullptr), NotSupported);
  EXPECT_EQ(socket_->DatagramIndication(buf, &dest, &dest), NotSupported);
  EXPECT_EQ(buf->data, data);
  EXPECT_EQ(buf->length, 4);
  buf->Free();
  EXPECT_EQ(socket_->DataIndication(buffer_of("next")), Success);
  EXPECT_EQ(peer_.receive(8), tpkt("next")) << "nothing of the datagram was sent";
}

TEST_F(ConnectedTpkt, TracesItsTrafficFromLevelTwoOn) {
  {
    const Tracing tracing(1);
    EXPECT_EQ(socket_->DataIndication(buffer_of("quiet")), Success);
    EXPECT_EQ(socket_->DataExpeditedIndication(buffer_of("hurry")), Success);
    EXPECT_EQ(peer_.receive(22), tpkt("quiet") + tpkt(tpkt("hurry")));
    ASSERT_TRUE(peer_.send_all(tpkt("back")));
    ASSERT_TRUE(layer_.wait_for_bytes(4));
  }
  EXPECT_EQ(console.count("TPKTSocket::"), 0);
  {
    const Tracing tracing(2);
    EXPECT_EQ(socket_->DataIndication(buffer_of("seven!!")), Success);
    EXPECT_EQ(socket_->DataExpeditedIndication(buffer_of("urgent")), Success);
    ASSERT_TRUE(peer_.send_all(tpkt("received")));
    ASSERT_TRUE(layer_.wait_for_bytes(12));
  }
  EXPECT_THAT(lines_with(console, "TPKTSocket::"),
              ElementsAre(text_of("%d TPKTSocket::DataIndication - Sending 7 bytes", socket_->s),
                          text_of("%d TPKTSocket::DataExpeditedIndication - Sending 6 bytes", socket_->s),
                          text_of("%d TPKTSocket::DataIndication - Sending 10 bytes", socket_->s),
                          text_of("%d TPKTSocket::TPKTReceive - Received 8 bytes", socket_->s)));
}

// ---- Receiving -----------------------------------------------------------------------------------------------------

TEST_F(Tpkt, ConnectionAndDisconnectionPassUnchanged) {
  PeerListener listener;
  RefusingPort refusing;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  ASSERT_TRUE(peer.send_all(tpkt("packet")));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.story(), (Story{"connect", "data:packet", "disconnect(5,0)"}));

  layer.clear();
  socket->Close();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Connect(INADDR_LOOPBACK, refusing.port());
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre(text_of("disconnect(4,%d)", ECONNREFUSED)));
}

TEST_F(ConnectedTpkt, APacketGoesUpWithRoomInFrontAndTheAddresses) {
  for (const std::size_t length : {5, 60, 100, 580, 1679, 1680, 30000}) {
    SCOPED_TRACE(length);
    layer_.clear();
    const std::string payload = numbered_payload(length - kTpktHeader, 3);
    ASSERT_TRUE(peer_.send_all(tpkt(payload)));
    ASSERT_TRUE(layer_.wait_for(1));
    const Indication packet = layer_.at(0);
    EXPECT_EQ(packet.data, payload);
    // Storage for the packet and 50 bytes in front of it: from 1680 bytes on exactly so much, otherwise a pool buffer.
    int size = static_cast<int>(length) + 50;
    if (length < 1680) {
      OSBuf* const like_it = OSBuf::Alloc(size);
      size = like_it->size;
      like_it->Free();
    }
    EXPECT_EQ(packet.size, size);
    EXPECT_EQ(packet.headroom, size - static_cast<long>(payload.size()));
    EXPECT_EQ(packet.remote_ipaddr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(packet.remote_port, htons(listener_.port()));
    EXPECT_EQ(packet.local_port, htons(socket_->LocalPort()));
  }
}

TEST_F(ConnectedTpkt, TheReservedByteIsNotLookedAt) {
  std::string bytes;
  for (int reserved = 0; reserved < 256; ++reserved) bytes += tpkt("x", static_cast<char>(reserved));
  ASSERT_TRUE(peer_.send_all(bytes));
  EXPECT_TRUE(layer_.wait_for_bytes(256));
  EXPECT_EQ(layer_.count(Indication::kData), 256u);
  EXPECT_EQ(layer_.count(Indication::kDisconnect), 0u);
}

TEST_F(Tpkt, ASubclassMayTakeThePacketsItself) {
  PeerListener listener;
  RecordingLayer layer;
  struct Counting : TPKTSocket {
    void TPKTReceive(OSBuf* buf) override {
      inside_class_section = levels_inside(AsyncSocket::cs);
      last_length = buf->length;
      buf->Free();
      ++packets;
    }
    std::atomic<int> packets{0};
    std::atomic<int> last_length{-1};
    std::atomic<int> inside_class_section{0};
  };
  const Owned<Counting> socket(new Counting);
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  ASSERT_TRUE(peer.send_all(tpkt("one") + tpkt("second")));
  EXPECT_TRUE(wait_until([&] { return socket->packets == 2; }, kPatienceMs));
  EXPECT_EQ(socket->last_length, 6);
  EXPECT_GT(socket->inside_class_section, 0) << "on the monitor thread";
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.story(), (Story{"connect", "disconnect(5,0)"})) << "only packets are taken";
}

TEST_F(Tpkt, TheCallbackOfALargePacketDeletesItsArray) {
  OSBuf* buf = OSBuf::Alloc(0);
  auto* array = new UBYTE[5000];
  buf->SetPayload(array, 5000);
  buf->AddBufferCallback(OSCallback::Alloc(nullptr, TPKTSocket::BufferCallback, as_obj(array), nullptr, 0));
  buf->Free();
  TPKTSocket::BufferCallback(as_obj(new UBYTE[10]), nullptr, 0);  // and when it is called by hand
}

// ---- Empty packets -------------------------------------------------------------------------------------------------

TEST_F(ConnectedTpkt, EmptyPacketsIndicateNothing) {
  std::string bytes;
  for (int i = 0; i < 100; ++i) bytes += tpkt("") + (i % 10 == 0 ? tpkt("real") : "") + tpkt("");
  ASSERT_TRUE(peer_.send_all(bytes));
  ASSERT_TRUE(layer_.wait_for_bytes(40));
  // One that stands alone in its segment is completed by the next.
  ASSERT_TRUE(peer_.send_all(tpkt("")));
  ComeRound come_round;
  ASSERT_TRUE(come_round.pass());
  ASSERT_TRUE(peer_.send_all(tpkt("last")));
  ASSERT_TRUE(layer_.wait_for_bytes(44));
  ASSERT_TRUE(come_round.pass());
  EXPECT_EQ(layer_.count(), 12u) << "the connection and the eleven packets that hold something";
  EXPECT_EQ(layer_.count(Indication::kData), 11u);
  EXPECT_TRUE(socket_->Connected());
}

TEST_F(QuietTpkt, AnEmptyPacketAtTheEndOfASegmentIsCompletedByTheNextOne) {
  const Owned<TakingSocket> socket(new TakingSocket);
  feed(*socket, tpkt(""));
  EXPECT_THAT(socket->packets, IsEmpty());
  EXPECT_NE(socket->tpktBuf, nullptr);
  feed(*socket, "\x03");
  EXPECT_THAT(socket->packets, ElementsAre(""));
  EXPECT_NE(socket->tpktBuf, nullptr) << "the next header has begun";
  feed(*socket, tpkt("").substr(1));
  EXPECT_THAT(socket->packets, ElementsAre(""));
  feed(*socket, tpkt("data") + tpkt("") + tpkt("more") + tpkt(""));
  EXPECT_THAT(socket->packets, ElementsAre("", "", "data", "", "more"));
  feed(*socket, "\x03");
  EXPECT_THAT(socket->packets, ElementsAre("", "", "data", "", "more", ""));
  EXPECT_EQ(Segment::alive(), 0);
}

TEST_F(QuietTpkt, AStepSaysWhetherItHasCompletedAPacket) {
  const Owned<TakingSocket> socket(new TakingSocket);
  socket->lastBuf = new Segment(tpkt("one") + tpkt("two") + tpkt("half").substr(0, 6));
  EXPECT_TRUE(socket->ProcessTPKT());
  EXPECT_THAT(socket->packets, ElementsAre("one"));
  EXPECT_TRUE(socket->ProcessTPKT());
  EXPECT_THAT(socket->packets, ElementsAre("one", "two"));
  EXPECT_FALSE(socket->ProcessTPKT());
  EXPECT_FALSE(socket->ProcessTPKT()) << "there is nothing left to cut";
  socket->lastBuf = new Segment("lf");
  EXPECT_TRUE(socket->ProcessTPKT());
  EXPECT_THAT(socket->packets, ElementsAre("one", "two", "half"));
  for (const std::string& begins_nothing : {std::string(), std::string("no packet"), tpkt_header(3)}) {
    socket->lastBuf = new Segment(begins_nothing);
    EXPECT_FALSE(socket->ProcessTPKT()) << begins_nothing;
    EXPECT_EQ(socket->lastBuf, nullptr);
    EXPECT_EQ(socket->tpktBuf, nullptr);
  }
  EXPECT_EQ(Segment::alive(), 0);
}

// ---- Malformed headers ---------------------------------------------------------------------------------------------

/// What a malformed header leaves of a socket without a connection.
void expect_failed(TPKTSocket& socket) {
  EXPECT_EQ(socket.tpktBuf, nullptr);
  EXPECT_EQ(socket.lastBuf, nullptr);
  EXPECT_EQ(Segment::alive(), 0);
  EXPECT_EQ(now_of(socket.s), -1);
  EXPECT_FALSE(now_of(socket.running));
  EXPECT_EQ(state_of(socket), SSInitial) << "Close ends there";
  EXPECT_EQ(queued(socket), 1) << "the report";
}

TEST_F(QuietTpkt, EveryVersionButThreeEndsTheConnection) {
  for (int version = 0; version < 256; ++version) {
    if (version == 3) continue;
    // As the first byte of all, behind a packet, and behind one in the same segment.
    for (const int before : {0, 1, 2}) {
      SCOPED_TRACE(text_of("version %d after %d", version, before));
      RecordingLayer layer;
      const Owned<TakingSocket> socket(new TakingSocket);
      socket->Bind(&layer);
      console.clear();
      std::string bytes = before > 0 ? tpkt("good") : "";
      if (before == 1) {
        feed(*socket, bytes);
        bytes.clear();
      }
      bytes += static_cast<char>(version);
      feed(*socket, bytes + std::string("\x00\x00\x08more", 7));
      EXPECT_EQ(socket->packets.size(), before > 0 ? 1u : 0u);
      EXPECT_THAT(lines_with(console, "TPKT"), ElementsAre(text_of("-1 TPKT HEADER FAILURE !3!!!! 0x%02x",
                                                                   static_cast<unsigned>(version))));
      expect_failed(*socket);
      os_check_triggers();
      EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
    }
  }
}

TEST_F(QuietTpkt, EveryLengthBelowFourEndsTheConnection) {
  for (int length = 0; length < 4; ++length) {
    for (const int reserved : {0, 1, 255}) {
      // Where the header is cut, with and without bytes behind it.
      for (std::size_t cut = 0; cut < 4; ++cut) {
        for (const char* behind : {"", "bytes behind it"}) {
          SCOPED_TRACE(text_of("length %d reserved %d cut at %zu, then '%s'", length, reserved, cut, behind));
          RecordingLayer layer;
          const Owned<TakingSocket> socket(new TakingSocket);
          socket->Bind(&layer);
          console.clear();
          const std::string bytes =
              tpkt_header(static_cast<std::size_t>(length), static_cast<char>(reserved)) + behind;
          if (cut > 0) feed(*socket, bytes.substr(0, cut));
          EXPECT_EQ(queued(*socket), 0);
          feed(*socket, bytes.substr(cut));
          EXPECT_THAT(socket->packets, IsEmpty());
          EXPECT_THAT(lines_with(console, "TPKT"),
                      ElementsAre(text_of("-1 TPKT HEADER FAILURE - LENGTH TOO SHORT!!!! %d", length),
                                  text_of("-1 TPKT Header 03 %02x 00 %02x", static_cast<unsigned>(reserved),
                                          static_cast<unsigned>(length))));
          expect_failed(*socket);
          os_check_triggers();
          EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,0)"));
        }
      }
    }
  }
}

TEST_F(Tpkt, AMalformedHeaderClosesTheConnectionAndTellsBothSides) {
  struct Row {
    const char* name;
    std::string bytes;
    std::vector<std::string> lines;
  };
  const std::vector<Row> rows = {
      {"a record of the secure transport",
       std::string("\x16\x03\x01\x02\x00\x01", 6),
       {"%d TPKT HEADER FAILURE !3!!!! 0x16"}},
      {"a text", "GET / HTTP/1.0\r\n\r\n", {"%d TPKT HEADER FAILURE !3!!!! 0x47"}},
      {"length 3",
       std::string("\x03\x00\x00\x03", 4),
       {"%d TPKT HEADER FAILURE - LENGTH TOO SHORT!!!! 3", "%d TPKT Header 03 00 00 03"}},
      {"length 0",
       std::string("\x03\x7F\x00\x00 and more", 13),
       {"%d TPKT HEADER FAILURE - LENGTH TOO SHORT!!!! 0", "%d TPKT Header 03 7f 00 00"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    PeerListener listener;
    RecordingLayer layer;
    const PacketSocket socket = packet_socket();
    ComeRound come_round;
    PeerStream peer = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    const int fd = socket->s;
    console.clear();
    ASSERT_TRUE(peer.send_all(row.bytes));
    ASSERT_TRUE(layer.wait_for_disconnect());
    EXPECT_TRUE(peer.ended());
    ASSERT_TRUE(come_round.pass());
    EXPECT_EQ(layer.story(), (Story{"connect", "disconnect(4,0)"}));
    std::vector<std::string> expected;
    for (const std::string& line : row.lines) expected.push_back(std::to_string(fd) + line.substr(2));
    EXPECT_EQ(lines_with(console, "TPKT"), expected);
    EXPECT_EQ(now_of(socket->s), -1);
    EXPECT_FALSE(now_of(socket->running));
    EXPECT_FALSE(socket->Connected());

    // The socket starts over with a clean stream.
    layer.clear();
    PeerStream again = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    ASSERT_TRUE(again.send_all(tpkt("clean")));
    ASSERT_TRUE(layer.wait_for_bytes(5));
    EXPECT_EQ(layer.story(), (Story{"connect", "data:clean"}));
  }
}

TEST_F(Tpkt, ABrokenFrameEndsItsConnectionAlone) {
  Acceptor acceptor;
  const PacketSocket listener = packet_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  RecordingLayer good_layer;
  RecordingLayer bad_layer;
  PeerStream good = PeerStream::connect_to(listener->LocalPort());
  const OwnedSocket good_socket = acceptor.take();
  PeerStream bad = PeerStream::connect_to(listener->LocalPort());
  const OwnedSocket bad_socket = acceptor.take();
  ASSERT_NE(good_socket, nullptr);
  ASSERT_NE(bad_socket, nullptr);
  good_socket->Bind(&good_layer);
  bad_socket->Bind(&bad_layer);
  good_socket->ConnectAck();
  bad_socket->ConnectAck();
  ASSERT_TRUE(bad.send_all("rubbish"));
  ASSERT_TRUE(bad_layer.wait_for_disconnect());
  ASSERT_TRUE(good.send_all(tpkt("still here")));
  EXPECT_TRUE(good_layer.wait_for_bytes(10));
  PeerStream another = PeerStream::connect_to(listener->LocalPort());
  EXPECT_NE(acceptor.take(), nullptr);
}

TEST_F(Tpkt, ThePartnerMayFreeTheSocketInsideTheReportOfAMalformedHeader) {
  PeerListener listener;
  RecordingLayer layer;
  TPKTSocket* socket = new TPKTSocket;
  layer.set_hook([&](const Indication& indication) {
    if (indication.kind == Indication::kDisconnect) socket->Free();
  });
  PeerStream peer = connect_to_peer(*socket, layer, listener);
  ASSERT_TRUE(layer.wait_for_connect());
  ASSERT_TRUE(peer.send_all("rubbish"));
  EXPECT_TRUE(layer.wait_for_disconnect());
  EXPECT_TRUE(peer.ended());
  EXPECT_THAT(live_sockets(), IsEmpty());
}

// ---- What does not survive -----------------------------------------------------------------------------------------

TEST_F(Tpkt, WhatIsHalfReceivedIsNotMixedWithTheNextConnection) {
  PeerListener listener;
  RecordingLayer layer;
  const PacketSocket socket = packet_socket();
  ComeRound come_round;
  const std::string packet = tpkt("never complete");
  for (const std::size_t cut : {1, 3, 4, 9}) {
    SCOPED_TRACE(cut);
    layer.clear();
    PeerStream first = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    ASSERT_TRUE(first.send_all(packet.substr(0, cut)));
    ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket->s) == 0; }, kPatienceMs));
    ASSERT_TRUE(come_round.pass());
    socket->Close();
    EXPECT_NE(socket->tpktBuf, nullptr);
    layer.clear();
    PeerStream second = connect_to_peer(*socket, layer, listener);
    ASSERT_TRUE(layer.wait_for_connect());
    ASSERT_TRUE(second.send_all(tpkt("begun anew")));
    ASSERT_TRUE(layer.wait_for_bytes(10));
    EXPECT_EQ(layer.story(), (Story{"connect", "data:begun anew"}));
    socket->Close();
  }
}

TEST_F(QuietTpkt, TheDestructorFreesWhatIsHalfReceived) {
  const PoolState before = PoolState::now();
  struct Row {
    std::size_t length;
    std::size_t arrived;
  };
  // Also where the bytes of the packet so far are as many as the marks in never used and in freed buffers.
  const std::vector<Row> rows = {{5, 1},         {5, 3},         {5, 4},         {1679, 4},
                                 {1679, 1000},   {1680, 4},      {21845, 21844}, {21846, 21845},
                                 {43690, 21845}, {43691, 43690}, {65535, 43690}, {65535, 65534}};
  for (const Row& row : rows) {
    SCOPED_TRACE(text_of("%zu of %zu", row.arrived, row.length));
    PacketSocket socket = packet_socket();
    const std::string packet = tpkt(numbered_payload(row.length - kTpktHeader, 1));
    feed(*socket, packet.substr(0, row.arrived));
    ASSERT_NE(socket->tpktBuf, nullptr);
    EXPECT_EQ(socket->tpktBuf->length, row.arrived);
    EXPECT_EQ(socket->lastBuf, nullptr);
    socket.reset();
    EXPECT_EQ(PoolState::now().buffers_out, before.buffers_out);
    EXPECT_EQ(PoolState::now().callbacks, before.callbacks);
    EXPECT_EQ(Segment::alive(), 0);
  }
}

}  // namespace
}  // namespace oskernel_test
