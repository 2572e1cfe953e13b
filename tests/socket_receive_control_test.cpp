// What a socket makes of one buffer: control buffers, data and datagrams as indications on the layer above.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/socket_pairs.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string bytes(std::initializer_list<int> values) {
  std::string text;
  for (const int value : values) text += static_cast<char>(value);
  return text;
}

/// An empty buffer whose first bytes, behind its end, say what it is.
OSBuf* control_buffer(const std::string& content) {
  OSBuf* buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(content.data()), static_cast<int>(content.size()));
  buf->length = 0;
  return buf;
}

/// A datagram with its sender in front.
OSBuf* datagram_buffer(const std::string& content, const SockAddr& sender) {
  OSBuf* buf = buffer_of(content);
  std::memcpy(buf->data - 16, &sender.sin, 16);
  return buf;
}

class SocketReceive : public QuietNetworkTest {
 protected:
  OwnedSocket stream(bool indirect = true) {
    OwnedSocket socket(new AsyncSocket(indirect));
    socket->Bind(&layer_);
    socket->type = SOCK_STREAM;
    socket->loc_sin.Set(0x0A010203, 4711);
    socket->rem_sin.Set(0x0A040506, 815);
    return socket;
  }
  OwnedSocket datagram(bool indirect = true) {
    OwnedSocket socket = stream(indirect);
    socket->type = SOCK_DGRAM;
    return socket;
  }

  RecordingLayer layer_;
};

TEST_F(SocketReceive, DecodesEveryControlBuffer) {
  const struct {
    std::string content;
    std::vector<std::string> indicated;
  } rows[] = {
      {bytes({0}), {"connect"}},
      {bytes({0, 4, 0, 0, 0, 9}), {"connect"}},
      {bytes({1, 0}), {"disconnect(0,0)"}},
      {bytes({1, 1}), {"disconnect(1,0)"}},
      {bytes({1, 2}), {"disconnect(2,0)"}},
      {bytes({1, 3}), {"disconnect(3,0)"}},
      {bytes({1, 3, 1, 2, 3, 4}), {"disconnect(3,0)"}},
      {bytes({1, 4, 0, 0, 0, 0}), {"disconnect(4,0)"}},
      {bytes({1, 4, 0, 0, 0, 111}), {"disconnect(4,111)"}},
      {bytes({1, 4, 1, 2, 3, 4}), {"disconnect(4,16909060)"}},
      {bytes({1, 4, 0x7F, 0xFF, 0xFF, 0xFF}), {"disconnect(4,2147483647)"}},
      {bytes({1, 4, 0xFF, 0xFF, 0xFF, 0xFF}), {"disconnect(4,-1)"}},
      {bytes({1, 5}), {"disconnect(5,0)"}},
      {bytes({1, 5, 9, 9, 9, 9}), {"disconnect(5,0)"}},
      {bytes({1, 6}), {"disconnect(6,0)"}},
      // Where the storage ends too early, nothing behind it is read.
      {bytes({1}), {}},
      {bytes({1, 4}), {"disconnect(4,0)"}},
      {bytes({1, 4, 9, 9, 9}), {"disconnect(4,0)"}},
      {bytes({2}), {}},
      {bytes({4, 1}), {}},
      {bytes({0xFF, 0, 0, 0, 0, 0}), {}},
  };
  for (const bool indirect : {true, false}) {
    OwnedSocket socket = stream(indirect);
    for (const auto& row : rows) {
      SCOPED_TRACE(testing::PrintToString(row.content));
      layer_.clear();
      socket->Receive(control_buffer(row.content));
      EXPECT_EQ(layer_.story(), row.indicated);
      EXPECT_EQ(PoolState::now().buffers_out, 0) << "the buffer is freed in every case";
    }
  }
}

TEST_F(SocketReceive, AConnectionIsIndicatedWithoutAnAddress) {
  OwnedSocket socket = stream();
  socket->Receive(control_buffer(bytes({0})));
  ASSERT_EQ(layer_.count(), 1U);
  EXPECT_TRUE(layer_.at(0).null_address);
}

TEST_F(SocketReceive, FreesAControlBufferBeforeItIndicatesAnything) {
  OwnedSocket socket = stream();
  std::vector<int> out;
  layer_.set_hook([&out](const Indication&) { out.push_back(PoolState::now().buffers_out); });
  socket->Receive(control_buffer(bytes({0})));
  socket->Receive(control_buffer(bytes({1, 4, 0, 0, 0, 9})));
  EXPECT_THAT(out, ElementsAre(0, 0));
}

TEST_F(SocketReceive, StreamDataCarriesBothAddresses) {
  OwnedSocket socket = stream();
  socket->Receive(buffer_of("hello"));
  ASSERT_EQ(layer_.count(), 1U);
  const Indication got = layer_.at(0);
  EXPECT_EQ(got.text(), "data:hello");
  EXPECT_EQ(got.local_ipaddr, htonl(0x0A010203));
  EXPECT_EQ(got.local_port, htons(4711));
  EXPECT_EQ(got.remote_ipaddr, htonl(0x0A040506));
  EXPECT_EQ(got.remote_port, htons(815));
  EXPECT_NE(got.dest_ptr, nullptr);
}

TEST_F(SocketReceive, ADatagramCarriesItsSenderWhateverTheSocketsPeerIs) {
  OwnedSocket socket = datagram();
  socket->Receive(datagram_buffer("hello", SockAddr(0xC0A80102, 99)));
  ASSERT_EQ(layer_.count(), 1U);
  const Indication got = layer_.at(0);
  EXPECT_EQ(got.text(), "datagram:hello");
  EXPECT_EQ(got.remote.Address(), 0xC0A80102U);
  EXPECT_EQ(got.remote.Port(), 99);
  EXPECT_EQ(got.local.Address(), 0x0A010203U);
  EXPECT_EQ(got.local.Port(), 4711);
  EXPECT_EQ(got.remote_ipaddr, htonl(0xC0A80102));
  EXPECT_EQ(got.remote_port, htons(99));
  EXPECT_EQ(got.local_ipaddr, htonl(0x0A010203));
  EXPECT_EQ(got.local_port, htons(4711));
  EXPECT_NE(got.dest_ptr, nullptr);
  EXPECT_EQ(socket->rem_sin.Address(), 0x0A040506U) << "the destination stays what it was";
}

TEST_F(SocketReceive, AnEmptyDatagramIsFreedWhateverItsFirstBytesSay) {
  OwnedSocket socket = datagram();
  for (const auto& content : {bytes({0}), bytes({1, 5}), bytes({1, 4, 0, 0, 0, 9})}) {
    socket->Receive(control_buffer(content));
  }
  EXPECT_THAT(layer_.story(), IsEmpty());
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_F(SocketReceive, WithoutALayerEverythingIsFreed) {
  OwnedSocket socket(new AsyncSocket(true));
  socket->type = SOCK_STREAM;
  socket->Receive(buffer_of("nobody"));
  socket->Receive(control_buffer(bytes({0})));
  socket->Receive(control_buffer(bytes({1, 5})));
  socket->type = SOCK_DGRAM;
  socket->Receive(datagram_buffer("nobody", SockAddr(kLoopback, 1)));
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_F(SocketReceive, TheLayersAnswerIsNobodysConcern) {
  OwnedSocket socket = stream();
  for (const OSIORetCode answer : {Blocked, NoConnection, NotSupported, BufferContainsResult}) {
    layer_.set_answer(answer);
    socket->Receive(buffer_of("x"));
  }
  EXPECT_EQ(layer_.data(), "xxxx");
}

using SocketProcessData = SocketReceive;

TEST_F(SocketProcessData, QueuesOnAnIndirectSocketAndTheDispatcherIndicates) {
  OwnedSocket socket = stream();
  socket->ProcessData(control_buffer(bytes({0})));
  socket->ProcessData(buffer_of("one"));
  socket->ProcessData(buffer_of("two"));
  socket->ProcessData(control_buffer(bytes({1, 5})));
  EXPECT_EQ(layer_.count(), 0U);
  EXPECT_EQ(queued(socket.get()), 4);
  EXPECT_TRUE(dispatch_until([this] { return layer_.count() == 4; }));
  EXPECT_THAT(layer_.story(), ElementsAre("connect", "data:onetwo", "disconnect(5,0)"));
  EXPECT_EQ(queued(socket.get()), 0);
}

TEST_F(SocketProcessData, IndicatesOnADirectSocketWithinTheCall) {
  OwnedSocket socket = stream(false);
  socket->ProcessData(control_buffer(bytes({0})));
  socket->ProcessData(buffer_of("one"));
  EXPECT_THAT(layer_.story(), ElementsAre("connect", "data:one"));
  EXPECT_EQ(layer_.at(0).thread, gettid());
  EXPECT_EQ(layer_.at(1).thread, gettid());
  EXPECT_EQ(queued(socket.get()), 0);
  EXPECT_FALSE(look_at(socket->dont_read));
}

TEST_F(SocketProcessData, TheTenthBufferStopsReading) {
  OwnedSocket socket = stream();
  for (int i = 0; i < 9; ++i) socket->ProcessData(buffer_of("x"));
  EXPECT_FALSE(look_at(socket->dont_read));
  socket->ProcessData(buffer_of("x"));
  EXPECT_TRUE(look_at(socket->dont_read));
}

TEST_F(SocketProcessData, AControlBufferCountsLikeAnyOther) {
  OwnedSocket socket = stream();
  for (int i = 0; i < 9; ++i) socket->ProcessData(buffer_of("x"));
  socket->ProcessData(control_buffer(bytes({1, 5})));
  EXPECT_TRUE(look_at(socket->dont_read));
}

TEST_F(SocketProcessData, WhatIsQueuedWhenTheSocketGoesIsFreed) {
  OwnedSocket socket = stream();
  for (int i = 0; i < 12; ++i) socket->ProcessData(buffer_of("x"));
  socket.reset();
  EXPECT_EQ(PoolState::now().buffers_out, 0);
  EXPECT_EQ(layer_.count(), 0U);
}

/// Runs the callback that the socket has given its queue trigger.
void run_queue_callback(AsyncSocket* socket) {
  const OSQTrigger& trigger = socket->qtrigger;
  trigger.callback(trigger.obj, trigger.addr, trigger.value);
}

using SocketQCallback = SocketReceive;

TEST_F(SocketQCallback, ReadingGoesOnAsSoonAsTwoBuffersAreLeft) {
  OwnedSocket socket = stream();
  std::vector<bool> held_back;
  AsyncSocket* const raw = socket.get();
  layer_.set_hook([&](const Indication&) { held_back.push_back(look_at(raw->dont_read)); });
  for (int i = 0; i < 12; ++i) socket->ProcessData(buffer_of("x"));
  run_queue_callback(raw);
  EXPECT_THAT(held_back,
              ElementsAre(true, true, true, true, true, true, true, true, true, false, false, false))
      << "the tenth of twelve leaves two";
}

TEST_F(SocketQCallback, HandsOnWhatWasThereWhenItBegan) {
  OwnedSocket socket = stream();
  AsyncSocket* const raw = socket.get();
  int fed = 0;
  layer_.set_hook([&fed, raw](const Indication&) {
    if (fed++ < 3) raw->ProcessData(buffer_of("later"));
  });
  for (int i = 0; i < 3; ++i) socket->ProcessData(buffer_of("first"));
  run_queue_callback(raw);
  EXPECT_EQ(layer_.count(), 3U);
  EXPECT_EQ(queued(raw), 3);
  EXPECT_TRUE(dispatch_until([this] { return layer_.count() == 6; }))
      << "the rest has fired the trigger again";
}

TEST_F(SocketQCallback, SaysWhenItLetsTheMonitorReadAgain) {
  put_into(AsyncSocket::trace, 1);
  OwnedSocket socket = stream();
  for (int i = 0; i < 10; ++i) socket->ProcessData(buffer_of("x"));
  EXPECT_EQ(console.count("AsyncSocket::_QCallback - waking monitor thread"), 0);
  run_queue_callback(socket.get());
  EXPECT_EQ(console.count("AsyncSocket::_QCallback - waking monitor thread"), 1);
}

TEST_F(SocketQCallback, StopsAtOnceWhenTheLayerFreesTheSocket) {
  OwnedSocket socket = stream();
  AsyncSocket* const raw = socket.release();
  layer_.set_hook([this, raw](const Indication&) {
    if (layer_.count() == 2) raw->Free();
  });
  for (int i = 0; i < 8; ++i) raw->ProcessData(buffer_of("x"));
  run_queue_callback(raw);
  EXPECT_EQ(layer_.count(), 2U);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

using SocketAllocBuffer = SocketReceive;

TEST_F(SocketAllocBuffer, LeavesRoomForAHeaderOnAnIndirectSocket) {
  OwnedSocket socket = stream();
  for (const int size : {1, 40, 60, 500, 1600}) {
    OSBuf* buf = socket->AllocBuffer(size);
    ASSERT_NE(buf, nullptr);
    EXPECT_GE(buf->size, size + 50);
    EXPECT_EQ(buf->length, 0);
    buf->Free();
  }
}

TEST_F(SocketAllocBuffer, ADirectSocketWithoutRingHasNoneAndCountsThat) {
  OwnedSocket socket = stream(false);
  EXPECT_EQ(socket->AllocBuffer(10), nullptr);
  EXPECT_EQ(socket->AllocBuffer(10), nullptr);
  EXPECT_EQ(look_at(socket->oob_count), 2U);
}

TEST_F(SocketAllocBuffer, ADirectSocketTakesFromItsRingAndCountsTheMisses) {
  OwnedSocket socket = stream(false);
  socket->ring = new RingBuffer(3);
  OSBuf* first = socket->AllocBuffer(1600);
  OSBuf* second = socket->AllocBuffer(1);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(first->size, 1760);
  EXPECT_EQ(second->size, 1760);
  EXPECT_EQ(look_at(socket->oob_count), 0U);
  EXPECT_EQ(socket->AllocBuffer(1), nullptr) << "a ring of three lends two";
  EXPECT_EQ(look_at(socket->oob_count), 1U);
  first->Free();
  OSBuf* again = socket->AllocBuffer(1);
  EXPECT_EQ(again, first);
  again->Free();
  second->Free();
}

TEST_F(SocketReceive, APollWithoutADescriptorDoesNothing) {
  put_into(AsyncSocket::trace, 1);
  for (const bool indirect : {true, false}) {
    OwnedSocket socket = stream(indirect);
    put_into(socket->receive_started, true);
    console.clear();
    socket->Poll();
    EXPECT_EQ(console.count("AsyncSocket::Poll"), 0);
    EXPECT_THAT(layer_.story(), IsEmpty());
  }
}

using SocketStartTask = SocketReceive;

TEST_F(SocketStartTask, OfAnIndirectSocketMarksItAndWakesTheMonitor) {
  put_into(AsyncSocket::trace, 1);
  OwnedSocket socket = stream();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes()) << "the thread waits by now";
  console.clear();
  EXPECT_FALSE(look_at(socket->receive_started));
  EXPECT_FALSE(look_at(socket->running));
  socket->StartTask();
  EXPECT_TRUE(look_at(socket->receive_started));
  EXPECT_TRUE(look_at(socket->running));
  EXPECT_EQ(socket->thread, 0U);
  EXPECT_EQ(console.count("AsyncSocket::StartTask - waking monitor thread"), 1);
  EXPECT_TRUE(wait_until(
      [this] { return console.count("AsyncSocket::MonitorThread - select woken by signal pipe") > 0; }));
}

TEST_F(SocketStartTask, OfAListenerDoesNotStartReceiving) {
  OwnedSocket socket = stream();
  socket->listener = true;
  socket->StartTask();
  EXPECT_FALSE(look_at(socket->receive_started));
  EXPECT_TRUE(look_at(socket->running));
}

TEST_F(SocketStartTask, RunsInsideTheSectionOfAllSockets) {
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    OwnedSocket socket = datagram(indirect);
    EnterCriticalSection(&AsyncSocket::cs);
    {
      WatchedThread other([&] { socket->StartTask(); });
      EXPECT_TRUE(other.blocked());
      EXPECT_FALSE(look_at(socket->running));
      LeaveCriticalSection(&AsyncSocket::cs);
      EXPECT_TRUE(other.finished_within(kPatienceMs));
    }
    EXPECT_TRUE(look_at(socket->running));
    socket->Close();
  }
}

TEST_F(SocketReceive, ThreadsOfTheLibraryAreNotNeededToWakeNobody) {
  AsyncSocket::WakeMonitorThread();
  OwnedSocket socket = stream();
  socket.reset();
  AsyncSocket::Cleanup();
  AsyncSocket::WakeMonitorThread();
}

}  // namespace
