// Writes that the connection does not take at once: the queue, its limit, its order, its retries.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/tls_session.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// Lets the peer read until it has so many bytes, with the retries in between.
std::string drain(TlsLink& link, std::size_t count) {
  std::string got;
  wait_until(
      [&] {
        link.session().SendQTrigger();
        got += link.peer().read_now();
        return got.size() >= count;
      },
      kPatienceMs);
  return got;
}

class TlsQueue : public TlsSessionTest, public testing::WithParamInterface<int> {
 protected:
  static bool server() { return (GetParam() & 1) != 0; }
  static int version() { return (GetParam() & 2) != 0 ? TLS1_3_VERSION : TLS1_2_VERSION; }
  static TlsEnd::Wish peer() { return server() ? good_client(version()) : good_server(version()); }
  void establish(TlsLink& link) {
    ASSERT_EQ(link.handshake(), 0);
    link.receive();
    console.clear();
  }
  static std::string ssl_line(TlsLink& link, const char* what) {
    return line("SSL %p %s", static_cast<void*>(link.session().ssl), what);
  }
};

INSTANTIATE_TEST_SUITE_P(, TlsQueue, testing::Range(0, 4), [](const auto& kind) {
  return std::string((kind.param & 1) != 0 ? "Server" : "Client") +
         ((kind.param & 2) != 0 ? "Tls13" : "Tls12");
});

TEST_P(TlsQueue, AWriteThatStallsIsReportedQueuedAndSetsTheTimer) {
  TlsLink link(peer());
  establish(link);
  link.stall();
  EXPECT_EQ(link.waiting(), 1);
  EXPECT_THAT(console.calls(),
              ElementsAre(ssl_line(link, "SSL_write error 3 WANT_WRITE"), "SSL_write: WANT_WRITE"));
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_WAIT);
  EXPECT_EQ(link.session().sendqtrigger.duration, 10U);
}

TEST_P(TlsQueue, TenMoreWaitBehindItAndTheNextIsRefused) {
  TlsLink link(peer());
  establish(link);
  std::string given = link.stall();
  console.clear();
  for (unsigned i = 0; i < 10; ++i) {
    const std::string bytes = numbered_bytes(100 + i, 500 + i);
    EXPECT_EQ(link.send(bytes), Success);
    given += bytes;
  }
  EXPECT_EQ(link.waiting(), 11);
  const int buffers = PoolState::now().buffers_out;
  EXPECT_EQ(link.send("too many"), NoConnection);
  EXPECT_EQ(link.send("too many"), NoConnection);
  EXPECT_EQ(link.waiting(), 11);
  EXPECT_EQ(PoolState::now().buffers_out, buffers);
  EXPECT_THAT(console.calls(), IsEmpty());  // nothing has been tried
  EXPECT_TRUE(same_bytes(drain(link, given.size()), given));
  EXPECT_EQ(link.waiting(), 0);
}

TEST_P(TlsQueue, WhileSomethingWaitsEverythingIsQueuedEvenIfThereIsRoom) {
  TlsLink link(peer());
  establish(link);
  std::string given = link.stall();
  std::string got = link.peer().read_now();
  EXPECT_EQ(link.send("behind"), Success);
  EXPECT_EQ(link.waiting(), 2);
  given += "behind";
  got += drain(link, given.size() - got.size());
  EXPECT_TRUE(same_bytes(got, given));
}

TEST_P(TlsQueue, WhenTheQueueIsEmptyAgainWritesGoOutAtOnce) {
  TlsLink link(peer());
  establish(link);
  const std::string given = link.stall();
  EXPECT_TRUE(same_bytes(drain(link, given.size()), given));
  EXPECT_EQ(link.waiting(), 0);
  EXPECT_EQ(link.send("at once"), Success);
  EXPECT_EQ(link.waiting(), 0);
  EXPECT_EQ(link.peer().read(7), "at once");
}

TEST_P(TlsQueue, ARetryThatStallsAgainSaysSoAndKeepsItsPlace) {
  TlsLink link(peer());
  establish(link);
  link.stall();
  link.send("behind");
  console.clear();
  for (int i = 1; i <= 3; ++i) {
    link.session().SendQTrigger();
    EXPECT_EQ(console.count(ssl_line(link, "SSL_write error 3 WANT_WRITE")), i);
    EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), i);
    EXPECT_EQ(link.waiting(), 2);
    EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_WAIT);
  }
}

TEST_P(TlsQueue, EachRetryWritesOneBuffer) {
  TlsLink link(peer());
  establish(link);
  std::string given = link.stall();
  for (unsigned i = 0; i < 5; ++i) {
    const std::string bytes = numbered_bytes(40, 700 + i);
    link.send(bytes);
    given += bytes;
  }
  ASSERT_EQ(link.waiting(), 6);
  std::string got = link.peer().read_now();
  for (int left = 5; left >= 0; --left) {
    link.session().SendQTrigger();
    got += link.peer().read_now();
    EXPECT_EQ(link.waiting(), left);
  }
  link.session().SendQTrigger();  // nothing is left to do
  EXPECT_EQ(link.waiting(), 0);
  got += link.peer().read(given.size() - got.size());
  EXPECT_TRUE(same_bytes(got, given));
}

TEST_P(TlsQueue, TheTimerRestsWhenTheQueueIsEmpty) {
  TlsLink link(peer());
  establish(link);
  link.session().SendQTrigger();
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_INACTIVE);
}

TEST_P(TlsQueue, TheTimerEmptiesTheQueueByItself) {
  TlsLink link(peer());
  establish(link);
  std::string given = link.stall();
  for (unsigned i = 0; i < 10; ++i) {
    const std::string bytes = numbered_bytes(1500, 900 + i);
    EXPECT_EQ(link.send(bytes), Success);
    given += bytes;
  }
  std::string got;
  EXPECT_TRUE(dispatch_until([&] {
    got += link.peer().read_now();
    return got.size() >= given.size() && link.waiting() == 0;
  }));
  EXPECT_TRUE(same_bytes(got, given));
}

TEST_P(TlsQueue, ALongBufferGoesOnWhereItStopped) {
  TlsLink link(peer());
  establish(link);
  int small = 4096;
  ::setsockopt(link.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string given;
  std::vector<std::string> texts;  // the buffers of long texts do not own them
  for (unsigned i = 0; i < 3; ++i) texts.push_back(numbered_bytes(60000, 40 + i));
  for (const std::string& text : texts) {
    EXPECT_EQ(link.send(text), Success);
    given += text;
  }
  EXPECT_GE(link.waiting(), 1);
  EXPECT_TRUE(same_bytes(drain(link, given.size()), given));
  EXPECT_EQ(link.waiting(), 0);
}

TEST_P(TlsQueue, WhileItWaitsReadingGoesOn) {
  TlsLink link(peer());
  establish(link);
  const std::string given = link.stall();
  const std::string bytes = numbered_bytes(3000, 77);
  link.peer().write(bytes);
  EXPECT_EQ(link.receive(), bytes);
  EXPECT_EQ(link.waiting(), 1);
  EXPECT_TRUE(same_bytes(drain(link, given.size()), given));
}

TEST_P(TlsQueue, ARetryToAPeerThatIsGoneIsOnlyReported) {
  TlsLink link(peer(), {}, Wire::tcp());
  establish(link);
  link.stall();
  ASSERT_EQ(link.waiting(), 1);
  link.peer().reset();
  ASSERT_TRUE(wait_for_events(link.fd(), POLLIN));
  console.clear();
  link.session().SendQTrigger();
  EXPECT_GE(console.count("SSL_write"), 1);
  EXPECT_EQ(link.waiting(), 1);
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_WAIT);
}

TEST_P(TlsQueue, TheCallbackRetriesTheSessionOfItsGenerationAlone) {
  TlsLink link(peer());
  establish(link);
  const std::string given = link.stall();
  auto* const obj = reinterpret_cast<OSObj*>(&link.session());
  const ULONG generation = link.session().sendqtrigger.value;
  EXPECT_NE(generation, 0U);
  console.clear();
  SSLInfo::_SendQTrigger(obj, nullptr, generation + 1);
  EXPECT_THAT(console.calls(), IsEmpty());
  SSLInfo::_SendQTrigger(obj, nullptr, 0);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 1);
  SSLInfo::_SendQTrigger(obj, nullptr, generation);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 2);
}

TEST_P(TlsQueue, TheCallbackOfASessionThatIsGoneDoesNothing) {
  auto link = std::make_unique<TlsLink>(peer());
  establish(*link);
  link->stall();
  auto* const obj = reinterpret_cast<OSObj*>(&link->session());
  const ULONG generation = link->session().sendqtrigger.value;
  link.reset();
  console.clear();
  SSLInfo::_SendQTrigger(obj, nullptr, generation);
  EXPECT_THAT(console.calls(), IsEmpty());
}

TEST_P(TlsQueue, EndingASessionThatIsStalledWaitsForNobody) {
  const int buffers = PoolState::now().buffers_out;
  TlsLink link(peer());
  establish(link);
  link.stall();
  for (int i = 0; i < 10; ++i) link.send("behind");
  link.end_session();
  EXPECT_EQ(PoolState::now().buffers_out, buffers);
}

// ---- Handshake messages in between ---------------------------------------------------------------------------

class TlsQueueAgain : public TlsSessionTest {
 protected:
  void establish(TlsLink& link) {
    ASSERT_EQ(link.handshake(), 0);
    link.receive();
    console.clear();
  }
};

TEST_F(TlsQueueAgain, NewKeysThatThePeerWantsWhileAWriteStallsBreakNothing) {
  for (const bool server : {true, false}) {
    TlsLink link(server ? good_client(TLS1_3_VERSION) : good_server(TLS1_3_VERSION));
    establish(link);
    std::string given = link.stall();
    link.peer().ask_for_new_keys();
    link.peer().write("under new keys");
    int end = 0;
    std::string got_here, got_there;
    for (int i = 0; i < 5; ++i) {
      got_here += link.receive(&end);
      EXPECT_EQ(end, 0);
      link.session().SendQTrigger();
    }
    EXPECT_EQ(got_here, "under new keys");
    EXPECT_TRUE(same_bytes(drain(link, given.size()), given));
    EXPECT_EQ(link.send("behind"), Success);
    EXPECT_EQ(link.peer().read(6), "behind");
  }
}

TEST_F(TlsQueueAgain, APeerThatWantsNewKeysAgainAndAgainWithoutReadingHarmsItselfAlone) {
  // OpenSSL cannot answer the second time before the write has gone out, and gives up.
  for (const bool server : {true, false}) {
    TlsLink link(server ? good_client(TLS1_3_VERSION) : good_server(TLS1_3_VERSION));
    establish(link);
    const std::string given = link.stall();
    std::string expected;
    for (int i = 0; i < 3; ++i) {
      link.peer().ask_for_new_keys();
      link.peer().write("under new keys");
      expected += "under new keys";
    }
    int end = 0;
    std::string got_here, got_there;
    for (int i = 0; i < 50 && end == 0; ++i) {
      got_here += link.receive(&end);
      link.session().SendQTrigger();
      got_there += link.peer().read_now();
    }
    EXPECT_TRUE(expected.starts_with(got_here));
    EXPECT_TRUE(given.starts_with(got_there));
    if (end == 0) {
      EXPECT_EQ(got_here, expected);
    } else {
      EXPECT_EQ(end, SSL_ERROR_SSL);
    }
    link.send("whatever becomes of it");
  }
}

TEST_F(TlsQueueAgain, AWriteThatNeedsAReadFirstWakesTheMonitorThread) {
  TlsEnd::Wish wish = good_server(TLS1_2_VERSION);
  wish.renegotiates = true;
  TlsLink link(wish);
  establish(link);
  AsyncSocket::Init();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  put_into(AsyncSocket::trace, 1);
  ASSERT_EQ(SSL_renegotiate(link.session().ssl), 1);
  ASSERT_TRUE(monitor.passes());
  const int woken = console.count("select woken by signal pipe");
  EXPECT_EQ(link.send("once it is done"), Success);
  EXPECT_EQ(console.count("SSL_write: WANT_READ"), 1);
  EXPECT_EQ(link.waiting(), 1);
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_WAIT);
  EXPECT_TRUE(wait_until([&] { return console.count("select woken by signal pipe") > woken; }, kPatienceMs));
  put_into(AsyncSocket::trace, 0);
  std::string got;
  EXPECT_TRUE(wait_until(
      [&] {
        got += link.peer().read_now();
        link.receive();
        link.session().SendQTrigger();
        return got == "once it is done";
      },
      kPatienceMs));
  EXPECT_EQ(link.waiting(), 0);
}

}  // namespace
