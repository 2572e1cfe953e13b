// How much a secure socket takes in and gives out: a queue that is full, records that are larger than what is read at
// once, and a lot of data both ways.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/tls_socket.h"

using namespace oskernel_test;
using testing::ElementsAre;

namespace {

// ---- A queue that nobody empties -----------------------------------------------------------------------------

class TlsSocketFlow : public QuietTlsSocketTest, public testing::WithParamInterface<int> {
 protected:
  /// A client whose connected indication has been dispatched.
  void bring_up(SecureClient& client) {
    ASSERT_TRUE(client.comes_up());
    ASSERT_TRUE(dispatch_until([&] { return client.layer.count() == 1; }));
  }
  /// The monitor thread has done what there was to do.
  void settle() {
    MonitorBeat monitor;
    ASSERT_TRUE(monitor.passes());
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsSocketFlow, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& kind) { return version_name(kind.param); });

TEST_P(TlsSocketFlow, ManySmallRecordsDoNotDrainThePools) {
  SecureClient client(true, good_server(GetParam()));
  bring_up(client);
  const int before = PoolState::now().buffers_out;
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    const std::string bytes = std::to_string(i) + ";";
    client.peer->write(bytes);
    expected += bytes;
  }
  ASSERT_TRUE(wait_until([&] { return look_at(client.socket->dont_read); }, kPatienceMs));
  settle();
  EXPECT_EQ(queued(client.socket.get()), 10);
  EXPECT_LE(PoolState::now().buffers_out, before + 12);
  EXPECT_THAT(console.fatals(), ElementsAre());
  ASSERT_TRUE(dispatch_until([&] {
    client.peer->release();
    return client.layer.data().size() >= expected.size();
  }));
  EXPECT_TRUE(same_bytes(client.layer.data(), expected));
}

TEST_P(TlsSocketFlow, WhatIsInsideTheSessionIsReadWhenTheQueueHasBeenTakenDown) {
  SecureClient client(true, good_server(GetParam()));
  bring_up(client);
  // One record, of which the session has everything as soon as the first bytes have been read: the wire is silent then.
  for (const std::size_t size : {std::size_t{16000}, std::size_t{16384}, std::size_t{48000}}) {
    const std::string bytes = numbered_bytes(size);
    client.layer.clear();
    client.peer->write(bytes);
    ASSERT_TRUE(client.peer->written());
    ASSERT_TRUE(wait_until([&] { return queued(client.socket.get()) == 10; }, kPatienceMs));
    settle();
    EXPECT_EQ(queued(client.socket.get()), 10);
    EXPECT_TRUE(look_at(client.socket->dont_read));
    ASSERT_TRUE(dispatch_until([&] { return client.layer.data().size() >= size; }));
    EXPECT_TRUE(same_bytes(client.layer.data(), bytes));
    EXPECT_FALSE(look_at(client.socket->dont_read));
  }
}

TEST_P(TlsSocketFlow, TheEndComesBehindWhatIsInsideTheSession) {
  SecureClient client(true, good_server(GetParam()));
  bring_up(client);
  const std::string bytes = numbered_bytes(16384);
  client.peer->write(bytes);
  client.peer->say_goodbye();
  client.peer->close();
  ASSERT_TRUE(wait_until([&] { return queued(client.socket.get()) == 10; }, kPatienceMs));
  ASSERT_TRUE(dispatch_until([&] { return client.layer.count(Indication::kDisconnect) == 1; }));
  EXPECT_TRUE(same_bytes(client.layer.data(), bytes));
  EXPECT_EQ(client.layer.all().back().text(), "disconnect(4,6)");
}

TEST_P(TlsSocketFlow, TheMonitorThreadRestsWhileTheQueueIsFull) {
  SecureClient client(true, good_server(GetParam()));
  bring_up(client);
  client.peer->write(numbered_bytes(16384));
  ASSERT_TRUE(wait_until([&] { return queued(client.socket.get()) == 10; }, kPatienceMs));
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  ASSERT_TRUE(dispatch_until([&] { return client.layer.data().size() >= 16384; }));
}

TEST_P(TlsSocketFlow, TheMonitorThreadRestsDuringAHandshakeAndAfterIt) {
  SecureClient client(true, good_server(GetParam()));
  ASSERT_TRUE(wait_until([&] { return look_at(client.socket->secure_state) == SecHandshake; }, kPatienceMs));
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
  ASSERT_TRUE(client.comes_up());
  EXPECT_TRUE(is_calm(AsyncSocket::monitor_thread));
}

// ---- Before the session is there -----------------------------------------------------------------------------

class TlsSocketEarly : public TlsSocketTest, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, TlsSocketEarly, testing::Bool(), way_name);

TEST_P(TlsSocketEarly, MoreThanASessionQueuesArrivesInOrderWhenThePeerReadsLate) {
  RecordingLayer layer;
  PeerListener listener;
  listener.set_receive_buffer(4096);
  OwnedSocket socket = secure_socket(layer, GetParam());
  int small = 4096;
  ::setsockopt(socket->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string given;
  for (unsigned i = 0; i < 25; ++i) {
    const std::string bytes = numbered_bytes(1400, i);
    ASSERT_EQ(socket->DataIndication(buffer_of(bytes)), Success);
    given += bytes;
  }
  socket->Connect(INADDR_LOOPBACK, listener.port());
  TlsEnd peer(good_server(), Descriptor(listener.accept().release()));
  ASSERT_TRUE(peer.handshake());
  ASSERT_TRUE(wait_until([&] { return console.count("SSL_write: WANT_WRITE") > 0; }, kPatienceMs));
  EXPECT_TRUE(same_bytes(peer.read(given.size()), given));
  EXPECT_EQ(layer.count(Indication::kDisconnect), 0U);
  EXPECT_EQ(socket->DataIndication(buffer_of("and this")), Success);
  EXPECT_EQ(peer.read(8), "and this");
}

// ---- Much ----------------------------------------------------------------------------------------------------

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kMuch = 4U << 20;
#else
constexpr std::size_t kMuch = 20U << 20;
#endif

/// SHA-256, piece by piece.
class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(context_, EVP_sha256(), nullptr); }
  ~Digest() { EVP_MD_CTX_free(context_); }
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;
  void add(const void* bytes, std::size_t count) { EVP_DigestUpdate(context_, bytes, count); }
  std::string end() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context_, bytes, &length);
    return std::string(reinterpret_cast<const char*>(bytes), length);
  }

 private:
  EVP_MD_CTX* context_;
};

/// A layer that keeps nothing but the digest of what it gets.
class DigestLayer : public OSIO {
 public:
  OSIORetCode DataIndication(OSBuf* buf) override {
    digest.add(buf->data, buf->length);
    bytes += buf->length;
    buf->Free();
    return Success;
  }
  OSIORetCode ConnectIndication(OSIOAddress*) override {
    connected = true;
    return Success;
  }
  OSIORetCode DisconnectIndication(OSIOReason, int) override {
    disconnected = true;
    return Success;
  }
  Digest digest;  ///< read when `bytes` says that all is there
  std::atomic<std::size_t> bytes{0};
  std::atomic<bool> connected{false}, disconnected{false};
};

class TlsSocketMuch : public TlsSocketTest, public testing::WithParamInterface<std::tuple<bool, int>> {};
INSTANTIATE_TEST_SUITE_P(, TlsSocketMuch,
                         testing::Combine(testing::Bool(), testing::Values(TLS1_2_VERSION, TLS1_3_VERSION)),
                         [](const auto& kind) {
                           return std::string(std::get<0>(kind.param) ? "Indirect" : "Direct") +
                                  version_name(std::get<1>(kind.param));
                         });

TEST_P(TlsSocketMuch, TwentyMebibytesEachWayArriveAsTheyWere) {
  SSLInfo::ssl_debug = 0;
  DigestLayer layer;
  PeerListener listener;
  const std::string block = numbered_bytes(65536);
  {
    OwnedSocket socket(new AsyncSocket(std::get<0>(GetParam())));
    socket->Bind(&layer);
    socket->secure = true;
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    int room = 1 << 20;
    ::setsockopt(socket->s, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    socket->Connect(INADDR_LOOPBACK, listener.port());
    TlsEnd peer(good_server(std::get<1>(GetParam())), Descriptor(listener.accept().release()));
    ASSERT_TRUE(peer.handshake());
    ASSERT_TRUE(wait_until([&] { return layer.connected.load(); }, kPatienceMs));

    Digest sent_here, sent_there, got_there;
    std::atomic<bool> failed{false};
    std::thread sender([&] {
      // What the connection does not take waits in a short queue; so nothing is given that it does not take.
      for (std::size_t sent = 0; sent < kMuch && !failed;) {
        if (unsent_bytes(socket->s) > 60000) {
          std::this_thread::sleep_for(std::chrono::microseconds(200));
          continue;
        }
        const std::size_t offset = sent % 8192;
        OSBuf* const buf = OSBuf::Alloc(0);
        buf->SetPayload(reinterpret_cast<UBYTE*>(const_cast<char*>(block.data() + offset)), 16384);
        buf->data = buf->payload;
        buf->length = 16384;
        if (socket->DataIndication(buf) != Success) failed = true;
        sent_here.add(block.data() + offset, 16384);
        sent += 16384;
      }
    });
    std::size_t written = 0, read = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(80);
    while ((read < kMuch || layer.bytes < kMuch) && !failed && !peer.failed() && !peer.ended() &&
           std::chrono::steady_clock::now() < until) {
      if (written < kMuch && peer.release()) {
        peer.write(std::string_view(block).substr(written % 4096, 16384));
        sent_there.add(block.data() + written % 4096, 16384);
        written += 16384;
      }
      const std::string piece = peer.read_now();
      got_there.add(piece.data(), piece.size());
      read += piece.size();
      if (piece.empty()) {
        wait_for_events(peer.fd(),
                        static_cast<short>(POLLIN | (written < kMuch || !peer.held().empty() ? POLLOUT : 0)),
                        5);
      }
    }
    failed = failed || read < kMuch || layer.bytes < kMuch;
    sender.join();
    EXPECT_FALSE(layer.disconnected);
    ASSERT_EQ(read, kMuch);
    ASSERT_EQ(layer.bytes, kMuch);
    EXPECT_TRUE(got_there.end() == sent_here.end());
    EXPECT_TRUE(layer.digest.end() == sent_there.end());
  }
}

}  // namespace
