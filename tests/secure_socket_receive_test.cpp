// What the secure blocking socket receives: what the session holds, in time, and how a session ends.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/buffer_drought.h"
#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class SecureSocketReceive : public SecureTest {
 protected:
  /// Data so far, until `count` bytes or an end.
  static std::string received(SecureSocket& socket, std::size_t count) {
    std::string got;
    while (got.size() < count) {
      OSBuf* const buf = socket.RecWait(kPatienceMs);
      if (buf == nullptr || buf->length == 0) {
        if (buf != nullptr) buf->Free();
        break;
      }
      got += taken(buf);
    }
    return got;
  }
};

TEST_F(SecureSocketReceive, WhatComesIsGivenBackDecrypted) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    served.peer->send("hello");
    OSBuf* const buf = served->RecWait(kPatienceMs);
    ASSERT_NE(buf, nullptr);
    EXPECT_GE(buf->size, 1600);
    EXPECT_GE(buf->data, buf->payload);
    EXPECT_LE(buf->data + buf->length, buf->payload + buf->size);
    EXPECT_EQ(taken(buf), "hello");
    EXPECT_EQ(served->state, Socket::CONNECTED);
    EXPECT_THAT(said(), IsEmpty());
  }
}

TEST_F(SecureSocketReceive, AskingOnlyReturnsAtOnce) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  EXPECT_EQ(served->RecWait(0), nullptr);
  served.peer->send("there");
  ASSERT_TRUE(wait_readable(served->s));
  EXPECT_EQ(taken(served->RecWait(0)), "there");
  EXPECT_EQ(served->RecWait(0), nullptr);
  EXPECT_EQ(served->state, Socket::CONNECTED);
  EXPECT_EQ(PoolState::now().buffers_out, 0);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketReceive, ALargeRecordComesInBuffersOfSixteenHundredBytes) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    Served served = served_connection({.version = version});
    const std::string sent = numbered_bytes(16384);
    ASSERT_TRUE(served.peer->send(sent));
    std::string got;
    while (got.size() < sent.size()) {
      const std::string piece = taken(served->RecWait(kPatienceMs));
      ASSERT_EQ(piece.size(), std::min<std::size_t>(1600, sent.size() - got.size()));
      got += piece;
    }
    EXPECT_EQ(got, sent);
    EXPECT_EQ(served->RecWait(0), nullptr);
    EXPECT_THAT(console.fatals(), IsEmpty());
  }
}

TEST_F(SecureSocketReceive, APartOfARecordIsNothingYet) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    ASSERT_TRUE(served.peer->write("whole or not at all"));
    const std::string record = served.peer->take_flight();
    served.peer->stream().send_all(record.substr(0, record.size() - 1));
    ASSERT_TRUE(wait_readable(served->s));
    const auto begin = steady_clock::now();
    EXPECT_EQ(served->RecWait(150), nullptr);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(140)) << "the time that is asked for";
    EXPECT_LT(steady_clock::now() - begin, milliseconds(15000)) << "and not for ever";
    EXPECT_EQ(served->RecWait(0), nullptr);
    EXPECT_EQ(served->state, Socket::CONNECTED);
    served.peer->stream().send_all(record.substr(record.size() - 1));
    EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "whole or not at all");
    EXPECT_THAT(said(), IsEmpty());
  }
}

TEST_F(SecureSocketReceive, TicketsAreNoData) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  TlsPeer::Settings settings = server_settings(TlsFiles::kServer, TLS1_3_VERSION);
  settings.tickets = 4;
  SpeakingServer server(settings);
  const auto client = secure_client(server.port());
  ASSERT_TRUE(client->Secure());
  TlsPeer& peer = server.peer();
  said();
  const auto begin = steady_clock::now();
  EXPECT_EQ(client->RecWait(150), nullptr);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(140));
  EXPECT_LT(steady_clock::now() - begin, milliseconds(15000)) << "a ticket does not make it wait for data";
  EXPECT_EQ(client->state, Socket::CONNECTED);
  peer.send("data");
  EXPECT_EQ(taken(client->RecWait(kPatienceMs)), "data");
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_FALSE(is_nonblocking(client->s));
  peer.close();
}

TEST_F(SecureSocketReceive, TheByteFormTakesWhatItWasAskedFor) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    ASSERT_TRUE(served.peer->send("abcdefgh"));
    UBYTE bytes[6] = {'.', '.', '.', '.', '.', '.'};
    EXPECT_EQ(served->RecWait(bytes, 5), 0);
    EXPECT_EQ(std::string(bytes, bytes + 6), "abcde.");
    EXPECT_EQ(served->RecWait(bytes, 3), 0);
    EXPECT_EQ(std::string(bytes, bytes + 6), "fghde.");
    EXPECT_EQ(served->RecWait(bytes, 0), 0);
    EXPECT_EQ(served->state, Socket::CONNECTED);
    const std::string sent = numbered_bytes(50000);
    std::thread sender([&] {
      for (std::size_t at = 0; at < sent.size(); at += 5000) served.peer->send(sent.substr(at, 5000));
    });
    std::string got(sent.size(), '\0');
    EXPECT_EQ(served->RecWait(reinterpret_cast<UBYTE*>(got.data()), static_cast<int>(got.size())), 0);
    sender.join();
    EXPECT_TRUE(got == sent);
    EXPECT_THAT(said(), IsEmpty());
  }
}

TEST_F(SecureSocketReceive, AnEmptyRecordIsNoDataAndNoEnd) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection({.version = TLS1_3_VERSION});
  said();
  // A change of keys is a record of the session and none of its data.
  ASSERT_EQ(SSL_key_update(served.peer->ssl(), SSL_KEY_UPDATE_REQUESTED), 1);
  served.peer->handshake_step();
  served.peer->flush();
  ASSERT_TRUE(wait_readable(served->s));
  EXPECT_EQ(served->RecWait(100), nullptr);
  EXPECT_EQ(served->state, Socket::CONNECTED);
  served.peer->send("behind the change");
  EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "behind the change");
  served->DataIndication(buffer_of("and back"));
  EXPECT_EQ(served.peer->receive(8), "and back");
  EXPECT_THAT(said(), IsEmpty());
}

// ---- Ends ------------------------------------------------------------------------------------------------------

TEST_F(SecureSocketReceive, ACloseNotificationIsTheEndOfTheSession) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    served.peer->send("last");
    served.peer->send_close_notify();
    EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "last");
    EXPECT_EQ(served->state, Socket::CONNECTED);
    EXPECT_EQ(served->RecWait(kPatienceMs), nullptr) << "found while it looks whether there is data";
    EXPECT_EQ(served->state, Socket::INVALID);
    EXPECT_TRUE(served->Secure()) << "until it is closed";
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_EQ(served->RecWait(0), nullptr) << "it stays the end";
  }
}

TEST_F(SecureSocketReceive, ACloseNotificationEndsTheByteForm) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    Served served = served_connection({.version = version});
    said();
    served.peer->send("abc");
    served.peer->send_close_notify();
    UBYTE bytes[5] = {'.', '.', '.', '.', '.'};
    EXPECT_EQ(served->RecWait(bytes, 5), -1);
    EXPECT_EQ(std::string(bytes, bytes + 5), "abc..");
    EXPECT_EQ(served->state, Socket::INVALID);
    EXPECT_THAT(said(), IsEmpty());
  }
}

TEST_F(SecureSocketReceive, AnEndWithoutNotificationIsToldAsOne) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    served.peer->send("last");
    served.peer->stream().half_close();
    EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "last");
    EXPECT_EQ(served->RecWait(kPatienceMs), nullptr);
    EXPECT_EQ(served->state, Socket::INVALID);
    EXPECT_THAT(said(), ElementsAre("SecureSocket::RecWait: SSL_read error SYSCALL - EOF"));
  }
}

TEST_F(SecureSocketReceive, AnEndWithoutNotificationEndsTheByteForm) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    Served served = served_connection({.version = version});
    said();
    served.peer->send("ab");
    served.peer->stream().half_close();
    UBYTE bytes[4] = {};
    errno = 0;
    EXPECT_EQ(served->RecWait(bytes, 4), -1);
    EXPECT_EQ(served->state, Socket::INVALID);
    EXPECT_THAT(said(), IsEmpty()) << "no error is queued and errno is 0";
  }
}

TEST_F(SecureSocketReceive, AResetEndsBothForms) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  {
    Served served = served_connection();
    said();
    served.peer->reset();
    EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "") << "an empty buffer";
    EXPECT_THAT(said(), ElementsAre(line("SecureSocket::RecWait: SSL_read error SYSCALL - ret -1, errno %d",
                                         ECONNRESET)));
  }
  Served served = served_connection();
  said();
  served.peer->reset();
  UBYTE bytes[4];
  EXPECT_EQ(served->RecWait(bytes, 4), -1);
  EXPECT_EQ(served->state, Socket::INVALID);
  EXPECT_THAT(said(), ElementsAre(line("SecureSocket::RecWait - SSL_ERROR_SYSCALL  ret -1, err 0, errno %d",
                                       ECONNRESET)));
}

TEST_F(SecureSocketReceive, ADamagedRecordIsReportedWithAnEmptyBuffer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (const int version : kVersions) {
    SCOPED_TRACE(name_of_version(version));
    for (const bool byte_form : {false, true}) {
      Served served = served_connection({.version = version});
      said();
      ASSERT_TRUE(served.peer->write("to be damaged"));
      std::string record = served.peer->take_flight();
      record.back() = static_cast<char>(record.back() ^ 1);
      served.peer->stream().send_all(record);
      if (byte_form) {
        UBYTE bytes[8];
        EXPECT_EQ(served->RecWait(bytes, 8), -1);
        EXPECT_EQ(served->state, Socket::INVALID);
      } else {
        EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "");
      }
      const Lines lines = said();
      EXPECT_THAT(lines, Contains("SecureSocket::RecWait: SSL_read error SSL"));
    }
  }
}

TEST_F(SecureSocketReceive, RubbishNeverDoesHarm) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (unsigned seed = 1; seed <= 12; ++seed) {
    Served served = served_connection({.version = kVersions[seed % 2]});
    std::string rubbish = numbered_bytes(seed * 97, seed);
    if (seed % 3 != 0) rubbish = "\x17\x03\x03" + rubbish;  // looks like a record of data
    served.peer->stream().send_all(rubbish);
    served.peer->stream().half_close();
    for (int i = 0; i < 50 && served->state == Socket::CONNECTED; ++i) {
      OSBuf* const buf = served->RecWait(kPatienceMs);
      if (buf == nullptr) break;
      EXPECT_EQ(buf->length, 0);
      buf->Free();
    }
    EXPECT_EQ(PoolState::now().buffers_out, 0);
  }
}

TEST_F(SecureSocketReceive, UrgentDataEndsBothForms) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  served.peer->stream().send_urgent('!');
  ASSERT_TRUE(wait_for_events(served->s, POLLPRI));
  EXPECT_EQ(served->RecWait(kPatienceMs), nullptr);
  EXPECT_EQ(served->state, Socket::INVALID);
  UBYTE bytes[2];
  EXPECT_EQ(served->RecWait(bytes, 2), 1);
  EXPECT_THAT(said(), ElementsAre("SecureSocket::RecWait: exception condition on socket",
                                  "SecureSocket::RecWait: exception condition on socket"));
}

// ---- Without a session -----------------------------------------------------------------------------------------

TEST_F(SecureSocketReceive, WithoutASessionNothingIsReceivedOrSent) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Accepted accepted = accepted_connection();
  accepted.peer.send_all("in clear");
  UBYTE bytes[4] = {'.', '.', '.', '.'};
  const auto begin = steady_clock::now();
  const auto try_all = [&] {
    OSBuf* const buf = accepted->RecWait(100);
    if (buf != nullptr) {
      EXPECT_EQ(buf->length, 0) << "nothing in clear passes for the session's data";
      buf->Free();
    }
    EXPECT_NE(accepted->RecWait(bytes, 4), 0);
    EXPECT_EQ(std::string(bytes, bytes + 4), "....");
    EXPECT_EQ(accepted->DataIndication(buffer_of("not in clear")), Success);
    accepted->Queue(buffer_of("nor this"));
    EXPECT_EQ(accepted->FlushQueue(false), 0);
  };
  try_all();
  EXPECT_EQ(accepted.peer.receive_now(), "");
  accepted.peer.half_close();
  accepted->Close();
  try_all();
  EXPECT_LT(steady_clock::now() - begin, milliseconds(9000)) << "it does not wait for what cannot come";
}

TEST_F(SecureSocketReceive, WithoutABufferNothingIsLost) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  served.peer->send("kept");
  ASSERT_TRUE(wait_readable(served->s));
  {
    BufferDrought drought(cfg);
    EXPECT_EQ(served->RecWait(0), nullptr);
  }
  expected_fatals = console.fatals();  // the pools' own report
  EXPECT_THAT(expected_fatals, ElementsAre("OSBuffer::Alloc Out Of Buffers 1600"));
  EXPECT_EQ(served->state, Socket::CONNECTED);
  EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "kept");
}

TEST_F(SecureSocketReceive, DescriptorsAboveTheSizeOfASetWork) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit raised = limit;
  raised.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2000);
  raised.rlim_max = std::max(raised.rlim_max, raised.rlim_cur);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  for (const int version : kVersions) {
    WirePair wire;
    const int high = fcntl(wire.fd, F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(high, 1500);
    close(wire.fd);
    sockaddr_in remote = loopback_address(wire.peer.local_port());
    SecureSocket socket(Socket::TCP_SERVER, high, &remote, static_cast<int>(sizeof remote));
    TlsPeer peer(std::move(wire.peer), TlsPeer::kClient, {.version = version});
    {
      WatchedThread shaking([&] { EXPECT_TRUE(peer.handshake()) << peer.trouble(); });
      socket.ConnectAck();
    }
    ASSERT_TRUE(socket.Secure());
    EXPECT_EQ(socket.RecWait(0), nullptr);
    peer.send("high");
    EXPECT_EQ(taken(socket.RecWait(kPatienceMs)), "high");
    socket.DataIndication(buffer_of("back"));
    EXPECT_EQ(peer.receive(4), "back");
    peer.send("bytes");
    UBYTE bytes[5];
    EXPECT_EQ(socket.RecWait(bytes, 5), 0);
  }
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(SecureSocketReceive, TheKernelStopsAndStartsAgainBetweenSessions) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  for (int round = 0; round < 3; ++round) {
    {
      Served served = served_connection();
      served.peer->send("hello");
      EXPECT_EQ(received(*served.socket, 5), "hello");
    }
    StopNetwork();
    StartNetwork();
  }
}

}  // namespace
}  // namespace oskernel_test
