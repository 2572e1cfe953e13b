// What an indirect stream socket reads from its peer: sizes, order, large buffers, and the end of the stream.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/buffer_drought.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The peer's bytes lie in the socket before the first read, so that one read meets them all.
bool arrive(PeerStream* peer, AsyncSocket* socket, const std::string& text) {
  return peer->send_all(text) &&
         wait_until(
             [socket, &text] { return bytes_waiting(look_at(socket->s)) == static_cast<int>(text.size()); },
             kPatienceMs);
}

std::vector<std::size_t> lengths(const RecordingLayer& layer) {
  std::vector<std::size_t> all;
  for (const Indication& indication : layer.all()) {
    if (indication.kind == Indication::kData) all.push_back(indication.data.size());
  }
  return all;
}

using SocketStream = NetworkTest;

TEST_F(SocketStream, DeliversALongStreamWholeAndInOrder) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  const std::string sent = numbered_bytes(300000);
  ASSERT_TRUE(peer.send_all(sent));
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  EXPECT_TRUE(layer.data() == sent);
  for (const Indication& indication : layer.all()) {
    ASSERT_GE(indication.headroom, 50);
    ASSERT_LE(indication.data.size(), 1600U);
  }
}

TEST_F(SocketStream, IndicatesFromTheDispatchingThread) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("a"));
  ASSERT_TRUE(layer.wait_for(1));
  ASSERT_TRUE(peer.send_all("b"));
  ASSERT_TRUE(layer.wait_for(2));
  EXPECT_NE(layer.at(0).thread, gettid());
  EXPECT_EQ(layer.at(0).thread, layer.at(1).thread);
}

TEST_F(SocketStream, CarriesBothAddressesInEveryBuffer) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("a"));
  ASSERT_TRUE(layer.wait_for(1));
  const Indication got = layer.at(0);
  EXPECT_EQ(got.local_ipaddr, htonl(kLoopback));
  EXPECT_EQ(ntohs(got.local_port), socket->LocalPort());
  EXPECT_EQ(got.remote_ipaddr, htonl(kLoopback));
  EXPECT_EQ(ntohs(got.remote_port), peer.local_port());
}

TEST_F(SocketStream, ReceivesNothingBeforeItIsAcknowledged) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  ASSERT_TRUE(arrive(&peer, socket.get(), "early"));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(bytes_waiting(socket->s), 5);
  socket->Poll();
  EXPECT_EQ(bytes_waiting(socket->s), 5) << "Poll reads nothing before reception has been started";
  EXPECT_EQ(layer.count(), 0U);
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_bytes(5));
  EXPECT_THAT(layer.story(), ElementsAre("data:early"));
}

TEST_F(SocketStream, OneReadTakesWhatIsThereUpTo1600) {
  const struct {
    std::size_t sent;
    std::vector<std::size_t> read;
  } rows[] = {
      {1, {1}},
      {100, {100}},
      {1550, {1550}},
      {1599, {1599}},
      {1600, {1600}},
      {1601, {1600, 1}},
      {1679, {1600, 79}},
      {1680, {1600, 80}},
      {3200, {1600, 1600}},
      {5000, {1600, 1600, 1600, 200}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sent);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = adopted_stream(&layer, &peer);
    const std::string sent = numbered_bytes(row.sent);
    ASSERT_TRUE(arrive(&peer, socket.get(), sent));
    socket->ConnectAck();
    ASSERT_TRUE(layer.wait_for_bytes(row.sent));
    EXPECT_EQ(lengths(layer), row.read);
    EXPECT_TRUE(layer.data() == sent);
  }
}

TEST_F(SocketStream, LargeBuffersTakeEverythingThatWaitsInOneRead) {
  const struct {
    std::size_t sent;
    bool pool_buffer;
  } rows[] = {
      {1, true},      {100, true},    {580, true},    {1600, true},   {1601, true},
      {1679, true},   {1680, false},  {1681, false},  {5000, false},  {21844, false},
      {21845, false}, {21846, false}, {43689, false}, {43690, false}, {43691, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sent);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = adopted_stream(&layer, &peer);
    socket->SetBigBuffers(true);
    const std::string sent = numbered_bytes(row.sent);
    ASSERT_TRUE(arrive(&peer, socket.get(), sent));
    socket->ConnectAck();
    ASSERT_TRUE(layer.wait_for_bytes(row.sent));
    EXPECT_THAT(lengths(layer), ElementsAre(row.sent));
    EXPECT_TRUE(layer.data() == sent);
    if (row.pool_buffer) {
      EXPECT_GT(layer.at(0).size, static_cast<int>(row.sent))
          << "the bytes stand in the buffer's own storage";
      EXPECT_GE(layer.at(0).headroom, 50);
    }
  }
}

TEST_F(SocketStream, ALargeReadLeavesRoomForAHeaderAndGoesHomeWithItsArray) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  socket->SetBigBuffers(true);
  const std::string sent = numbered_bytes(30000);
  ASSERT_TRUE(arrive(&peer, socket.get(), sent));
  layer.hold_buffers(true);
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for(1));
  ASSERT_EQ(layer.held(), 1U);
  OSBuf* buf = layer.held_buffers()[0];
  // A layer puts its header into the 50 bytes in front of the data.
  for (int i = 1; i <= 50; ++i) buf->data[-i] = static_cast<UBYTE>(i);
  EXPECT_TRUE(std::equal(sent.begin(), sent.end(), reinterpret_cast<char*>(buf->data)));
  EXPECT_LT(PoolState::now().callbacks, static_cast<ULONG>(cfg.callback_qty));
  layer.release_held();
  EXPECT_EQ(PoolState::now().callbacks, static_cast<ULONG>(cfg.callback_qty));
}

TEST_F(SocketStream, ALargeBufferOutlivesItsSocket) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  socket->SetBigBuffers(true);
  const std::string sent = numbered_bytes(20000);
  ASSERT_TRUE(arrive(&peer, socket.get(), sent));
  layer.hold_buffers(true);
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for(1));
  socket.reset();
  OSBuf* buf = layer.held_buffers()[0];
  EXPECT_TRUE(std::equal(sent.begin(), sent.end(), reinterpret_cast<char*>(buf->data)));
  layer.release_held();
}

TEST_F(SocketStream, MoreThanALengthCanSayIsReadInPieces) {
  RecordingLayer layer;
  PeerListener listener;
  listener.set_receive_buffer(300000);
  PeerStream peer = PeerStream::connect_to(listener.port());
  PeerStream near_end = listener.accept();
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  socket->Create(SOCK_STREAM, near_end.release());
  socket->SetBigBuffers(true);
  const std::string sent = numbered_bytes(150000);
  ASSERT_TRUE(peer.send_all(sent));
  ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket->s) > 70000; }, kPatienceMs));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  EXPECT_TRUE(layer.data() == sent);
  const std::vector<std::size_t> read = lengths(layer);
  EXPECT_GT(read.front(), 32767U) << "a read is as large as a length can say, not much smaller";
  for (const Indication& indication : layer.all()) EXPECT_GE(indication.headroom, 50);
}

TEST_F(SocketStream, LargeBuffersCanBeForbiddenAgain) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  socket->SetBigBuffers(true);
  EXPECT_TRUE(socket->big_buffers_allowed);
  socket->SetBigBuffers(false);
  EXPECT_FALSE(socket->big_buffers_allowed);
  ASSERT_TRUE(arrive(&peer, socket.get(), numbered_bytes(2000)));
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_bytes(2000));
  EXPECT_THAT(lengths(layer), ElementsAre(1600, 400));
}

TEST_F(SocketStream, APeerThatClosesIsANormalEndBehindItsData) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("last words"));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("data:last words", "disconnect(5,0)"));
  EXPECT_EQ(look_at(socket->state), SSDisconnected);
  EXPECT_FALSE(look_at(socket->running));
  EXPECT_FALSE(socket->Connected());
  EXPECT_GE(look_at(socket->s), 0) << "the descriptor stays until Close";
}

TEST_F(SocketStream, APeerThatEndsItsSideOnlyIsANormalEndToo) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  peer.half_close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(5,0)"));
  EXPECT_EQ(socket->DataIndication(buffer_of("too late")), NoConnection);
}

TEST_F(SocketStream, AResetWithNothingWaitingIsANormalEnd) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  peer.reset();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(5,0)"));
}

TEST_F(SocketStream, AResetBehindDataDeliversTheDataFirst) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  ASSERT_TRUE(arrive(&peer, socket.get(), "last words"));
  peer.reset();
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("data:last words", "disconnect(5,0)"));
}

TEST_F(SocketStream, TheEndIsIndicatedOnce) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread)) << "an ended stream is watched no longer";
  EXPECT_EQ(layer.count(), 1U);
}

TEST_F(SocketStream, ClosingItselfIndicatesNothing) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  socket->Close();
  EXPECT_TRUE(peer.ended());
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_EQ(layer.count(), 0U);
  EXPECT_EQ(look_at(socket->state), SSInitial);
}

TEST_F(SocketStream, AnUrgentByteIsDrainedAndTheStreamGoesOn) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("before"));
  ASSERT_TRUE(layer.wait_for_bytes(6));
  ASSERT_TRUE(peer.send_urgent('!'));
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread)) << "the byte does not keep the thread busy";
  ASSERT_TRUE(peer.send_all("after"));
  ASSERT_TRUE(layer.wait_for_bytes(11));
  EXPECT_THAT(layer.story(), ElementsAre("data:beforeafter"));
}

TEST_F(SocketStream, UrgentBytesAmongDataAndBeforeTheEndLoseNothing) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  std::string sent;
  for (int i = 0; i < 50; ++i) {
    const std::string piece = numbered_bytes(100, static_cast<unsigned>(i));
    ASSERT_TRUE(peer.send_all(piece));
    ASSERT_TRUE(peer.send_urgent('!'));
    sent += piece;
    // An urgent byte that a second one overtakes becomes a byte of the stream: that is the system's way.
    ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
    ASSERT_TRUE(wait_until([&] { return bytes_waiting(look_at(socket->s)) == 0; }, kPatienceMs));
  }
  ASSERT_TRUE(peer.send_urgent('!'));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_EQ(layer.data().size(), sent.size());
  EXPECT_EQ(layer.all().back().text(), "disconnect(5,0)");
}

TEST_F(SocketStream, TwoSocketsDoNotDisturbEachOther) {
  RecordingLayer layers[2];
  PeerStream peers[2];
  OwnedSocket first = established_stream(&layers[0], &peers[0]);
  OwnedSocket second = established_stream(&layers[1], &peers[1]);
  const std::string texts[2] = {numbered_bytes(50000, 1), numbered_bytes(50000, 2)};
  for (std::size_t at = 0; at < 50000; at += 1000) {
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(peers[i].send_all(std::string_view(texts[i]).substr(at, 1000)));
  }
  peers[0].close();
  ASSERT_TRUE(layers[0].wait_for_disconnect());
  ASSERT_TRUE(layers[1].wait_for_bytes(50000));
  EXPECT_TRUE(layers[0].data() == texts[0]);
  EXPECT_TRUE(layers[1].data() == texts[1]);
  EXPECT_EQ(layers[1].count(Indication::kDisconnect), 0U);
}

TEST_F(SocketStream, ASocketIsUsedAgainAfterClose) {
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  for (int round = 0; round < 5; ++round) {
    PeerListener listener;
    PeerStream near_end = PeerStream::connect_to(listener.port());
    PeerStream peer = listener.accept();
    layer.clear();
    socket->Create(SOCK_STREAM, near_end.release());
    socket->ConnectAck();
    ASSERT_TRUE(peer.send_all("round"));
    ASSERT_TRUE(layer.wait_for_bytes(5)) << round;
    EXPECT_THAT(layer.story(), ElementsAre("data:round"));
    socket->Close();
    EXPECT_TRUE(peer.ended());
  }
}

TEST_F(SocketStream, SaysWhatItReads) {
  put_into(AsyncSocket::trace, 2);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  socket->SetBigBuffers(true);
  const std::string sent = numbered_bytes(2000);
  ASSERT_TRUE(arrive(&peer, socket.get(), sent));
  const int s = socket->s;
  const UWORD remote = peer.local_port();
  const UWORD local = socket->LocalPort();
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_bytes(2000));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  for (const std::string& text : {
           line("%d AsyncSocket::Poll recvfrom() LargeBuffer Used 2000 for 127.0.0.1:%u on 127.0.0.1:%u", s,
                remote, local),
           line("%d AsyncSocket::Poll - Received 2000 bytes from 127.0.0.1:%u", s, remote),
           line("%d AsyncSocket::Poll ioctl() no bytes available for 127.0.0.1:%u on 127.0.0.1:%u", s, remote,
                local),
           std::string("AsyncSocket::Poll - recvfrom returned zero - normal close"),
       }) {
    EXPECT_EQ(console.count(text), 1) << text;
  }
  EXPECT_GE(console.count(line("%d AsyncSocket::MonitorThread - read, calling Poll, running 1", s)), 2);
  EXPECT_NE(console.text().find("len 2000"), std::string::npos) << "the buffer is dumped";
}

TEST_F(SocketStream, SaysNothingWithoutTrace) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  console.clear();
  ASSERT_TRUE(peer.send_all(numbered_bytes(5000)));
  ASSERT_TRUE(layer.wait_for_bytes(5000));
  ASSERT_TRUE(peer.send_urgent('!'));
  peer.close();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_F(SocketStream, TraceOneDoesNotDumpData) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  ASSERT_TRUE(peer.send_all("hello"));
  ASSERT_TRUE(layer.wait_for_bytes(5));
  EXPECT_EQ(console.count("Received 5 bytes"), 0);
}

/// A descriptor that is no socket becomes readable but cannot tell how much: the text says so, and nothing breaks.
TEST_F(SocketStream, AFailedLookAtTheWaitingBytesIsPrintedAndPassedOver) {
  put_into(AsyncSocket::trace, 1);
  RecordingLayer layer;
  const int event = eventfd(0, EFD_CLOEXEC);
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  socket->Create(SOCK_STREAM, event);
  EXPECT_EQ(console.count(line("%d AsyncSocket::Create(skt) - getsockname() error %d", event, ENOTSOCK)), 1);
  socket->ConnectAck();
  eventfd_write(event, 1);
  EXPECT_TRUE(wait_until(
      [&] {
        return console.count(line("%d AsyncSocket::Poll ioctl() errno=%d(read bytes available) for", event,
                                  ENOTTY)) > 0;
      },
      kPatienceMs));
  eventfd_t value = 0;
  eventfd_read(event, &value);
  EXPECT_EQ(layer.count(), 0U);
  EXPECT_EQ(look_at(socket->state), SSConnected);
}

// ---- A pool of callbacks that is too small ----

class SocketFewCallbacks : public NetworkTest {
 protected:
  void SetUp() override {
    cfg.callback_qty = 2;
    NetworkTest::SetUp();
  }
};

TEST_F(SocketFewCallbacks, LargeReadsLoseNothingWhenNoCallbackIsLeft) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  socket->SetBigBuffers(true);
  std::vector<OSCallback*> taken;
  while (OSCallback* callback = OSCallback::Alloc(nullptr, nullptr, nullptr, nullptr, 0)) {
    taken.push_back(callback);
    if (PoolState::now().callbacks == 0) break;
  }
  const std::string sent = numbered_bytes(40000);
  ASSERT_TRUE(peer.send_all(sent));
  // It may come in pool buffers or wait; it must come when a callback is back.
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  for (OSCallback* callback : taken) callback->Free();
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  EXPECT_TRUE(layer.data() == sent);
  EXPECT_EQ(layer.count(Indication::kDisconnect), 0U);
}

TEST_F(SocketFewCallbacks, ALayerThatKeepsEveryLargeBufferStillGetsTheRest) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = adopted_stream(&layer, &peer);
  socket->SetBigBuffers(true);
  layer.hold_buffers(true);
  std::string sent;
  const std::string first = numbered_bytes(5000, 1);
  ASSERT_TRUE(arrive(&peer, socket.get(), first));
  sent += first;
  socket->ConnectAck();
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  for (unsigned i = 2; i < 6; ++i) {
    const std::string next = numbered_bytes(5000, i);
    ASSERT_TRUE(peer.send_all(next));
    sent += next;
    ASSERT_TRUE(layer.wait_for_bytes(sent.size())) << i;
  }
  EXPECT_TRUE(layer.data() == sent);
  layer.release_held();
}

// ---- A pool of buffers that is empty ----

TEST_F(SocketStream, WithoutABufferTheDataStaysInTheSocket) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  BufferDrought drought(cfg);
  const std::string sent = numbered_bytes(4000);
  ASSERT_TRUE(peer.send_all(sent));
  ASSERT_TRUE(wait_until([this] { return !console.fatals().empty(); }, kPatienceMs));
  EXPECT_EQ(console.fatals().front().rfind("OSBuffer::Alloc Out Of Buffers", 0), 0U);
  EXPECT_EQ(layer.count(), 0U);
  drought.end();
  ASSERT_TRUE(layer.wait_for_bytes(sent.size()));
  EXPECT_TRUE(layer.data() == sent);
  EXPECT_EQ(layer.count(Indication::kDisconnect), 0U);
  socket.reset();
  console.clear();
}

TEST_F(SocketStream, WithoutABufferARefusalIsNotLost) {
  RefusingPort port;
  RecordingLayer layer;
  OwnedSocket socket = indirect_socket();
  socket->Bind(&layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
  BufferDrought drought(cfg);
  ASSERT_EQ(socket->Connect(kLoopback, port.port()), 0);
  ASSERT_TRUE(wait_until([this] { return !console.fatals().empty(); }, kPatienceMs));
  EXPECT_EQ(layer.count(), 0U);
  drought.end();
  ASSERT_TRUE(layer.wait_for_disconnect());
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(4,111)"));
  socket.reset();
  console.clear();
}

TEST_F(SocketStream, WithoutABufferTheEndIsNotLost) {
  RecordingLayer layer;
  PeerStream peer;
  OwnedSocket socket = established_stream(&layer, &peer);
  BufferDrought drought(cfg);
  peer.close();
  ASSERT_TRUE(wait_until([this] { return !console.fatals().empty(); }, kPatienceMs));
  drought.end();
  ASSERT_TRUE(layer.wait_for_disconnect());
  EXPECT_THAT(layer.story(), ElementsAre("disconnect(5,0)"));
  socket.reset();
  console.clear();
}

}  // namespace
