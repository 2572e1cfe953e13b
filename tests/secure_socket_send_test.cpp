// What the secure blocking socket sends, one attempt for each buffer.

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

class SecureSocketSend : public SecureTest {};

TEST_F(SecureSocketSend, ABufferGoesOutEncryptedAndIsFreed) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    const std::size_t before = served.peer->bytes_received();
    EXPECT_EQ(served->DataIndication(buffer_of("hello ")), Success);
    EXPECT_EQ(served->DataIndication(buffer_of("there")), Success);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    EXPECT_EQ(served.peer->receive(11), "hello there");
    EXPECT_GE(served.peer->bytes_received() - before, 11U + 2 * 21) << "two records";
    EXPECT_THAT(said(), IsEmpty());
  }
}

TEST_F(SecureSocketSend, WhatIsQueuedGoesOutEncryptedInOrder) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  EXPECT_EQ(served->FlushQueue(true), 0);
  EXPECT_THAT(said(), ElementsAre("Socket::FlushQueue() size=0 to 127.0.0.1"));
  for (const char* text : {"one ", "two ", "three"}) EXPECT_EQ(served->Queue(buffer_of(text)), 0);
  const int size = static_cast<int>(served->queue.Size());
  EXPECT_EQ(served->FlushQueue(true), 0);
  EXPECT_THAT(said(), ElementsAre(line("Socket::FlushQueue() size=%d to 127.0.0.1", size)));
  EXPECT_EQ(served.peer->receive(13), "one two three");
  EXPECT_EQ(served->queue.Size(), 0);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

TEST_F(SecureSocketSend, WhatIsLongerThanARecordIsCutThere) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  const std::string sent = numbered_bytes(40000);
  std::string bytes = sent;
  EXPECT_EQ(served->DataIndication(buffer_of(bytes)), Success);
  served->DataIndication(buffer_of("|"));
  EXPECT_EQ(served.peer->receive(16385), sent.substr(0, 16384) + "|");
}

TEST_F(SecureSocketSend, AnEmptyBufferDoesNoHarm) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    Served served = served_connection({.version = version});
    EXPECT_EQ(served->DataIndication(buffer_of("")), Success);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    served->DataIndication(buffer_of("x"));
    EXPECT_EQ(served.peer->receive(1), "x");
  }
}

TEST_F(SecureSocketSend, AWriteThatFailsIsReportedAsSuccess) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    const PipeSignalWatch signals;
    Served served = served_connection({.version = version});
    said();
    served.peer->reset();
    ASSERT_TRUE(wait_readable(served->s));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(served->DataIndication(buffer_of("lost")), Success);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    const Lines lines = said();
    EXPECT_THAT(lines, Not(IsEmpty()));
    for (const std::string& each : lines) EXPECT_EQ(each.substr(0, 15), "SSL_write error");
    EXPECT_EQ(served->state, Socket::CONNECTED) << "the state is the receiver's";
    EXPECT_EQ(signals.caught(), 0);
  }
}

TEST_F(SecureSocketSend, APeerThatHasClosedRaisesNoSignal) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const PipeSignalWatch signals;
  Served served = served_connection();
  shutdown(served->s, SHUT_WR);
  EXPECT_EQ(served->DataIndication(buffer_of("lost")), Success);
  served->Queue(buffer_of("lost too"));
  served->FlushQueue(false);
  served->Close();
  EXPECT_EQ(signals.caught(), 0);
  // Nor does a handshake with somebody who has gone.
  Accepted accepted = accepted_connection();
  TlsPeer peer(std::move(accepted.peer), TlsPeer::kClient, {});
  peer.handshake_step();
  peer.flush();
  ASSERT_TRUE(wait_readable(accepted->s));
  shutdown(accepted->s, SHUT_WR);
  accepted->ConnectAck();
  EXPECT_EQ(accepted->s, -1);
  EXPECT_EQ(signals.caught(), 0);
}

TEST_F(SecureSocketSend, AFullConnectionLosesWhatItCannotTake) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    const int small = 4096;
    setsockopt(served->s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const timeval short_time = {0, 50000};
    setsockopt(served->s, SOL_SOCKET, SO_SNDTIMEO, &short_time, sizeof short_time);
    Lines lines;
    for (int i = 0; i < 100000 && lines.empty(); ++i) {
      EXPECT_EQ(served->DataIndication(buffer_of(std::string(1500, 'f'))), Success);
      lines = said();
    }
    EXPECT_THAT(lines, ElementsAre("SSL_write WANT_WRITE"));
    EXPECT_FALSE(served->write_blocked_on_read);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    EXPECT_EQ(served->state, Socket::CONNECTED);
    // What follows is the owner's trouble, not a crash.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(served->DataIndication(buffer_of("more")), Success);
    std::thread reading([&] { served.peer->receive_to_end(); });
    served->Close();
    reading.join();
  }
}

TEST_F(SecureSocketSend, AWriteWaitsForAPeerThatIsSlowToRead) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  const int room = 65536;
  setsockopt(served->s, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  setsockopt(served.peer->stream().fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  const timeval long_time = {60, 0};
  setsockopt(served->s, SOL_SOCKET, SO_SNDTIMEO, &long_time, sizeof long_time);
  constexpr std::size_t kPieces = 1000;
  const std::string piece = numbered_bytes(1500);
  WatchedThread writing([&] {
    for (std::size_t i = 0; i < kPieces; ++i) served->DataIndication(buffer_of(piece));
  });
  EXPECT_TRUE(writing.blocked());
  std::string expected;
  for (std::size_t i = 0; i < kPieces; ++i) expected += piece;
  EXPECT_TRUE(served.peer->receive(expected.size()) == expected) << "nothing is lost meanwhile";
  EXPECT_TRUE(writing.finished_within(kPatienceMs));
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketSend, AnEchoOfTwentyMebibytesComesBackWhole) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    constexpr std::size_t kTotal = 20U << 20, kPiece = 16000;
    const std::string block = numbered_bytes(kPiece);
    const auto hash_of = [](EVP_MD_CTX* context) {
      unsigned char digest[EVP_MAX_MD_SIZE];
      unsigned length = 0;
      EVP_DigestFinal_ex(context, digest, &length);
      return std::string(reinterpret_cast<char*>(digest), length);
    };
    std::string sent_hash, got_hash;
    std::size_t echoed = 0;
    {
      WatchedThread echo([&] {
        OSBuf* buf = nullptr;
        while ((buf = served->RecWait(kPatienceMs)) != nullptr && buf->length > 0) {
          echoed += buf->length;
          served->DataIndication(buf);
          if (echoed == kTotal) return;
        }
        if (buf != nullptr) buf->Free();
      });
      EVP_MD_CTX* const sent = EVP_MD_CTX_new();
      EVP_MD_CTX* const got = EVP_MD_CTX_new();
      EVP_DigestInit_ex(sent, EVP_sha256(), nullptr);
      EVP_DigestInit_ex(got, EVP_sha256(), nullptr);
      std::size_t received = 0;
      for (std::size_t at = 0; at < kTotal;) {
        const std::string piece = block.substr(0, std::min(kPiece, kTotal - at));
        ASSERT_TRUE(served.peer->send(piece));
        EVP_DigestUpdate(sent, piece.data(), piece.size());
        at += piece.size();
        // Both ways at once, a few pieces apart: nobody's window fills up.
        while (received + 4 * kPiece < at || (at == kTotal && received < kTotal)) {
          const std::string back = served.peer->receive(std::min(kPiece, kTotal - received));
          ASSERT_FALSE(back.empty());
          EVP_DigestUpdate(got, back.data(), back.size());
          received += back.size();
        }
      }
      sent_hash = hash_of(sent);
      got_hash = hash_of(got);
      EVP_MD_CTX_free(sent);
      EVP_MD_CTX_free(got);
    }
    EXPECT_EQ(echoed, kTotal);
    EXPECT_EQ(sent_hash, got_hash);
  }
}

}  // namespace
}  // namespace oskernel_test
