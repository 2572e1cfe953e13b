// What a session reads and writes, how it ends, and what each result of OpenSSL is reported as.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/buffer_drought.h"
#include "support/tls_session.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

/// Established sessions of both roles and versions: bit 0 for a server, bit 1 for TLS 1.3.
class TlsData : public TlsSessionTest, public testing::WithParamInterface<int> {
 protected:
  static bool server() { return (GetParam() & 1) != 0; }
  static int version() { return (GetParam() & 2) != 0 ? TLS1_3_VERSION : TLS1_2_VERSION; }
  static TlsEnd::Wish peer() { return server() ? good_client(version()) : good_server(version()); }

  void establish(TlsLink& link) {
    ASSERT_EQ(link.handshake(), 0);
    link.receive();  // tickets
    console.clear();
  }
  static std::string ssl_line(TlsLink& link, const char* what) {
    return line("SSL %p %s", static_cast<void*>(link.session().ssl), what);
  }
  /// One read, as text; "(none)" without a buffer.
  static std::string read_once(TlsLink& link, int* result) {
    OSBuf* buf = nullptr;
    *result = link.session().Recv(&buf);
    if (buf == nullptr) return "(none)";
    std::string bytes(reinterpret_cast<const char*>(buf->data), buf->length);
    buf->Free();
    return bytes;
  }
};

INSTANTIATE_TEST_SUITE_P(, TlsData, testing::Range(0, 4), [](const auto& kind) {
  return std::string((kind.param & 1) != 0 ? "Server" : "Client") +
         ((kind.param & 2) != 0 ? "Tls13" : "Tls12");
});

// ---- Reading -------------------------------------------------------------------------------------------------

TEST_P(TlsData, WithNothingThereNothingIsRead) {
  TlsLink link(peer());
  establish(link);
  auto* buf = reinterpret_cast<OSBuf*>(1);
  EXPECT_EQ(link.session().Recv(&buf), 0);
  EXPECT_EQ(buf, nullptr);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(TlsData, ABufferHoldsAtMost1600Bytes) {
  TlsLink link(peer());
  establish(link);
  const std::string bytes = numbered_bytes(4000);
  link.peer().write(bytes);
  int result = -1;
  EXPECT_EQ(read_once(link, &result), bytes.substr(0, 1600));
  EXPECT_EQ(read_once(link, &result), bytes.substr(1600, 1600));
  EXPECT_EQ(read_once(link, &result), bytes.substr(3200));
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, 0);
}

TEST_P(TlsData, RecordsAreNotMerged) {
  TlsLink link(peer());
  establish(link);
  link.peer().write("one");
  link.peer().write("two");
  int result = -1;
  EXPECT_EQ(read_once(link, &result), "one");
  EXPECT_EQ(read_once(link, &result), "two");
}

TEST_P(TlsData, ARecordThatComesByteByByteIsReadWhenItIsComplete) {
  TlsLink link(peer());
  establish(link);
  link.peer().hold(true);
  link.peer().write("complete");
  int result = -1;
  while (link.peer().held().size() > 1) {
    link.peer().release(1);
    ASSERT_EQ(read_once(link, &result), "(none)");
    ASSERT_EQ(result, 0);
  }
  link.peer().release(1);
  EXPECT_EQ(read_once(link, &result), "complete");
}

TEST_P(TlsData, ABufferIsFilledFromItsFrontToItsEnd) {
  TlsLink link(peer());
  establish(link);
  link.peer().write(std::string(1600, 'x'));
  OSBuf* buf = nullptr;
  ASSERT_EQ(link.session().Recv(&buf), 0);
  ASSERT_NE(buf, nullptr);
  EXPECT_EQ(buf->length, 1600);
  EXPECT_GE(buf->data, buf->payload);
  EXPECT_LE(buf->data + buf->length, buf->payload + buf->size);
  buf->Free();
}

TEST_P(TlsData, WithoutABufferNothingIsReadAndNothingIsLost) {
  TlsLink link(peer());
  establish(link);
  link.peer().write("later");
  {
    BufferDrought drought(cfg);
    auto* buf = reinterpret_cast<OSBuf*>(1);
    EXPECT_EQ(link.session().Recv(&buf), 0);
    EXPECT_EQ(buf, nullptr);
  }
  expected_fatals = console.fatals();
  EXPECT_THAT(expected_fatals, ElementsAre("OSBuffer::Alloc Out Of Buffers 1600"));
  int result = -1;
  EXPECT_EQ(read_once(link, &result), "later");
}

TEST_P(TlsData, ThePeersGoodbyeIsSix) {
  TlsLink link(peer());
  establish(link);
  link.peer().write("last words");
  link.peer().say_goodbye();
  int result = -1;
  EXPECT_EQ(read_once(link, &result), "last words");
  EXPECT_EQ(result, 0);
  const int buffers = PoolState::now().buffers_out;
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, SSL_ERROR_ZERO_RETURN);
  EXPECT_EQ(PoolState::now().buffers_out, buffers);
  EXPECT_THAT(console.calls(), ElementsAre(ssl_line(link, "SSL_read error 6 ZERO_RETURN")));
}

TEST_P(TlsData, APeerThatVanishesIsFive) {
  for (const int stale : {0, EAGAIN, ECONNRESET}) {
    TlsLink link(peer());
    establish(link);
    link.peer().write("last words");
    link.peer().close();
    int result = -1;
    EXPECT_EQ(read_once(link, &result), "last words");
    console.clear();
    errno = stale;
    EXPECT_EQ(read_once(link, &result), "(none)");
    EXPECT_EQ(result, SSL_ERROR_SYSCALL);
    const std::vector<std::string> lines = console.calls();
    ASSERT_EQ(lines.size(), 2U) << console.text();
    EXPECT_EQ(lines[0], ssl_line(link, "SSL_read ERROR_SYSCALL EOF"));
    EXPECT_THAT(lines[1], MatchesRegex("SSLInfo::Recv SSL_read: SSL_ERROR_SYSCALL errno [0-9]+"));
  }
}

TEST_P(TlsData, APeerThatVanishesAfterAnEmptyReadIsFive) {
  TlsLink link(peer());
  establish(link);
  int result = -1;
  EXPECT_EQ(read_once(link, &result), "(none)");  // leaves EAGAIN behind
  EXPECT_EQ(result, 0);
  link.peer().close();
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, SSL_ERROR_SYSCALL);
}

TEST_P(TlsData, APeerThatVanishesInsideARecordIsFive) {
  TlsLink link(peer());
  establish(link);
  link.peer().hold(true);
  link.peer().write("cut short");
  for (const std::size_t count : {std::size_t{3}, std::size_t{7}}) link.peer().release(count);
  link.peer().close();
  int result = 0;
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, SSL_ERROR_SYSCALL);
  EXPECT_EQ(console.calls().at(0), ssl_line(link, "SSL_read ERROR_SYSCALL EOF"));
}

TEST_P(TlsData, AResetIsFiveWithItsErrno) {
  TlsLink link(peer(), {}, Wire::tcp());
  establish(link);
  link.peer().reset();
  ASSERT_TRUE(wait_for_events(link.fd(), POLLIN));
  int result = 0;
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, SSL_ERROR_SYSCALL);
  EXPECT_EQ(console.calls().back(), line("SSLInfo::Recv SSL_read: SSL_ERROR_SYSCALL errno %d", ECONNRESET));
}

TEST_P(TlsData, ARecordThatHasBeenChangedIsOne) {
  TlsLink link(peer());
  establish(link);
  link.peer().hold(true);
  link.peer().write("untouched");
  std::string record = link.peer().held();
  record.back() = static_cast<char>(record.back() ^ 1);
  link.peer().set_held(record);
  link.peer().release();
  int result = 0;
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, SSL_ERROR_SSL);
  for (const std::string& text : console.calls()) {
    EXPECT_THAT(text, MatchesRegex("SSL/TLS \\(0x[0-9a-f]{8}\\): SSL_read: error:.*"));
  }
  EXPECT_FALSE(console.calls().empty());
  // The session is over, but nothing breaks.
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_NE(result, 0);
  link.send("into nothing");
  EXPECT_EQ(link.session().Stop(), 0);
}

TEST_P(TlsData, RubbishInPlaceOfARecordIsOne) {
  for (const char byte : {'\0', '\x17', '\x16', '\x15', '\xff'}) {
    TlsLink link(peer());
    establish(link);
    const std::string rubbish(600, byte);
    ASSERT_EQ(::send(link.peer().fd(), rubbish.data(), rubbish.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(rubbish.size()));
    int result = 0;
    EXPECT_EQ(read_once(link, &result), "(none)");
    EXPECT_EQ(result, SSL_ERROR_SSL);
  }
}

TEST_P(TlsData, AnAlertThatKillsIsOne) {
  TlsLink link(peer());
  establish(link);
  // A record that the peer cannot decrypt makes it send one.
  const std::string rubbish("\x17\x03\x03\x00\x40" + std::string(64, 'x'));
  ASSERT_EQ(::send(link.fd(), rubbish.data(), rubbish.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(rubbish.size()));
  link.peer().read_now();
  ASSERT_TRUE(link.peer().failed());
  int result = 0;
  EXPECT_EQ(read_once(link, &result), "(none)");
  EXPECT_EQ(result, SSL_ERROR_SSL);
  EXPECT_THAT(console.calls().at(0), HasSubstr("SSL_read: error:"));
  EXPECT_THAT(console.calls().at(0), HasSubstr(" alert "));
}

// ---- Writing -------------------------------------------------------------------------------------------------

TEST_P(TlsData, ABufferIsWrittenAtOnceAndFreed) {
  TlsLink link(peer());
  establish(link);
  const int buffers = PoolState::now().buffers_out;
  for (const std::size_t size : {std::size_t{1}, std::size_t{50}, std::size_t{1500}}) {
    const std::string bytes = numbered_bytes(size);
    EXPECT_EQ(link.send(bytes), Success);
    EXPECT_EQ(link.waiting(), 0);
    EXPECT_EQ(link.peer().read(size), bytes);
  }
  EXPECT_EQ(PoolState::now().buffers_out, buffers);
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_INACTIVE);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(TlsData, ABufferLongerThanARecordIsWrittenInRecords) {
  TlsLink link(peer());
  establish(link);
  const std::string bytes = numbered_bytes(65000);
  EXPECT_EQ(link.send(bytes), Success);
  EXPECT_EQ(link.waiting(), 0);
  EXPECT_EQ(link.peer().read(bytes.size()), bytes);
}

TEST_P(TlsData, AnEmptyBufferIsDoneBeforeItIsBegun) {
  TlsLink link(peer());
  establish(link);
  EXPECT_EQ(link.session().DataIndication(OSBuf::Alloc(100)), Success);
  EXPECT_EQ(link.waiting(), 0);
  EXPECT_EQ(link.send("next"), Success);
  EXPECT_EQ(link.peer().read(4), "next");
}

TEST_P(TlsData, BeforeTheHandshakeIsDoneNothingIsTaken) {
  TlsLink link(peer());
  const int buffers = PoolState::now().buffers_out;
  EXPECT_EQ(link.send("early"), NoConnection);
  EXPECT_EQ(link.session().Handshake(), -1);
  EXPECT_EQ(link.send("early"), NoConnection);
  EXPECT_EQ(link.waiting(), 0);
  EXPECT_EQ(PoolState::now().buffers_out, buffers);
}

TEST_P(TlsData, WritingToAPeerThatIsGoneIsNoConnectionAndNoSignal) {
  sigset_t pending_before, pending_after;
  sigpending(&pending_before);
  struct sigaction before = {}, after = {};
  sigaction(SIGPIPE, nullptr, &before);
  ASSERT_EQ(before.sa_handler, SIG_DFL);
  for (const bool tcp : {false, true}) {
    TlsLink link(peer(), {}, tcp ? Wire::tcp() : Wire::local());
    establish(link);
    const int buffers = PoolState::now().buffers_out;
    link.peer().reset();
    ASSERT_TRUE(wait_for_events(link.fd(), POLLIN));
    OSIORetCode result = Success;
    for (int i = 0; i < 100 && result == Success; ++i) result = link.send("anybody?");
    EXPECT_EQ(result, NoConnection);
    EXPECT_EQ(link.send("anybody?"), NoConnection);
    EXPECT_EQ(link.waiting(), 0);
    EXPECT_EQ(PoolState::now().buffers_out, buffers);
    EXPECT_GE(console.count(ssl_line(link, "SSL_write ERROR_SYSCALL")), 1);
    EXPECT_EQ(link.session().Stop(), 0);
  }
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  sigpending(&pending_after);
  EXPECT_EQ(sigismember(&pending_after, SIGPIPE), sigismember(&pending_before, SIGPIPE));
}

TEST_P(TlsData, AfterThePeersGoodbyeItStillReadsWhatIsWritten) {
  TlsLink link(peer());
  establish(link);
  link.peer().say_goodbye();
  int end = 0;
  link.receive(&end);
  EXPECT_EQ(end, SSL_ERROR_ZERO_RETURN);
  EXPECT_EQ(link.send("still here"), Success);
  EXPECT_EQ(link.peer().read(10), "still here");
}

// ---- The end -------------------------------------------------------------------------------------------------

TEST_P(TlsData, StopSaysGoodbyeOnceToAnEstablishedPeer) {
  TlsLink link(peer());
  establish(link);
  EXPECT_EQ(link.session().Stop(), 0);
  EXPECT_EQ(console.calls().at(0), "SSLInfo::Stop calling SSL_shutdown");
  link.peer().read_now();
  EXPECT_TRUE(link.peer().closed());
  EXPECT_THAT(link.peer().alerts(), ElementsAre("warning close notify"));
  EXPECT_EQ(link.session().Stop(), 0);
  link.peer().read_now();
  EXPECT_THAT(link.peer().alerts(), ElementsAre("warning close notify"));
}

TEST_P(TlsData, StopSaysNothingWithoutDebug) {
  SSLInfo::ssl_debug = 0;
  TlsLink link(peer());
  establish(link);
  EXPECT_EQ(link.session().Stop(), 0);
  EXPECT_THAT(console.calls(), IsEmpty());
  link.peer().read_now();
  EXPECT_TRUE(link.peer().closed());
}

TEST_P(TlsData, StopDoesNothingBeforeTheSessionIsEstablished) {
  TlsLink link(peer());
  console.clear();
  EXPECT_EQ(link.session().Stop(), 0);
  link.session().Handshake();
  EXPECT_EQ(link.session().Stop(), 0);
  EXPECT_THAT(console.calls(), IsEmpty());
  Wire wire = Wire::local();
  SSLInfo bare(wire.near_end.get(), server());
  EXPECT_EQ(bare.Stop(), 0);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(TlsData, TheDestructorSaysGoodbyeAndFreesWhatWaits) {
  const int buffers = PoolState::now().buffers_out;
  TlsLink link(peer(), {}, Wire::tcp());
  establish(link);
  link.session().sendq.Append(buffer_of("waiting"));
  link.session().sendq.Append(buffer_of("too"));
  const std::string gone = line("~SSLInfo %p", static_cast<void*>(&link.session()));
  link.end_session();
  EXPECT_EQ(console.calls().at(0), gone);
  EXPECT_EQ(console.calls().at(1), "SSLInfo::Stop calling SSL_shutdown");
  EXPECT_EQ(PoolState::now().buffers_out, buffers);
  EXPECT_TRUE(link.peer().wait(kPeerPatienceMs, [&] {
    link.peer().read_now();
    return link.peer().closed();
  }));
  EXPECT_NE(::fcntl(link.fd(), F_GETFD), -1);
}

TEST_P(TlsData, TheDestructorSaysNothingWithoutDebug) {
  SSLInfo::ssl_debug = 0;
  TlsLink link(peer());
  establish(link);
  link.end_session();
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(TlsData, TheDestructorSpeaksToNobodyWhoHasGone) {
  TlsLink link(peer(), {}, Wire::tcp());
  establish(link);
  link.peer().reset();
  ASSERT_TRUE(wait_for_events(link.fd(), POLLIN));
  link.end_session();  // no signal
}

// ---- A handshake that is started over, and new keys ----------------------------------------------------------

class TlsAgain : public TlsSessionTest {
 protected:
  void establish(TlsLink& link) {
    ASSERT_EQ(link.handshake(), 0);
    link.receive();
    console.clear();
  }
};

TEST_F(TlsAgain, NewKeysThatThePeerWantsAreChangedUnderTheData) {
  for (const bool server : {true, false}) {
    TlsLink link(server ? good_client(TLS1_3_VERSION) : good_server(TLS1_3_VERSION));
    establish(link);
    for (int i = 0; i < 5; ++i) {
      link.peer().ask_for_new_keys();
      link.peer().write("to you");
      EXPECT_EQ(link.receive(), "to you");
      EXPECT_EQ(link.send("to them"), Success);
      EXPECT_EQ(link.peer().read(7), "to them");
    }
    EXPECT_THAT(console.calls(), IsEmpty());
  }
}

TEST_F(TlsAgain, AServerThatStartsTheHandshakeOverIsFollowed) {
  TlsLink link(good_server(TLS1_2_VERSION));
  establish(link);
  link.peer().start_over();
  EXPECT_EQ(link.receive(), "");
  // Until it is complete the session counts as not established.
  ASSERT_EQ(SSL_is_init_finished(link.session().ssl), 0);
  EXPECT_EQ(link.send("in between"), NoConnection);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(link.peer().read_now(), "");
    EXPECT_EQ(link.receive(), "");
  }
  ASSERT_EQ(SSL_is_init_finished(link.session().ssl), 1);
  EXPECT_EQ(link.send("as before"), Success);
  EXPECT_EQ(link.peer().read(9), "as before");
  link.peer().write("to you");
  EXPECT_EQ(link.receive(), "to you");
}

TEST_F(TlsAgain, AClientThatStartsTheHandshakeOverIsTurnedDownAndServedOn) {
  TlsLink link(good_client(TLS1_2_VERSION));
  establish(link);
  link.peer().start_over();
  int end = -1;
  EXPECT_EQ(link.receive(&end), "");
  EXPECT_EQ(end, 0);
  link.peer().read_now();
  EXPECT_THAT(link.peer().alerts(), ElementsAre("warning no renegotiation"));
  EXPECT_EQ(link.send("as before"), Success);
}

// ---- Error ---------------------------------------------------------------------------------------------------

TEST_P(TlsData, AResultThatIsNoErrorIsNone) {
  TlsLink link(peer());
  establish(link);
  EXPECT_EQ(link.session().Error("SSL_anything", 1), SSL_ERROR_NONE);
  EXPECT_THAT(console.calls(), ElementsAre(ssl_line(link, "SSL_anything error 0 NONE")));
}

}  // namespace
