// The handshake of a session, in both roles and versions: its steps, its lines, and the ways in which it breaks off.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "support/tls_session.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

/// The session's role and the version.
class TlsHandshake : public TlsSessionTest, public testing::WithParamInterface<std::tuple<bool, int>> {
 protected:
  static bool server() { return std::get<0>(GetParam()); }
  static int version() { return std::get<1>(GetParam()); }
  static const char* role() { return server() ? "accept" : "connect"; }
  static std::string call() { return server() ? "SSL_accept" : "SSL_connect"; }
  static TlsEnd::Wish peer() { return server() ? good_client(version()) : good_server(version()); }
  static std::string done_line() {
    return std::string("TLS ") + role() + ": version " + version_text(version());
  }
  static std::string failed_line() { return std::string("TLS ") + role() + " handshake failed"; }
};

TEST_P(TlsHandshake, IsInProgressUntilThePeerHasAnswered) {
  TlsLink link(peer());
  ASSERT_EQ(link.setup(), 0);
  console.clear();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(link.session().Handshake(), -1);
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_EQ(link.handshake(), 0);
  EXPECT_STREQ(SSL_get_version(link.session().ssl), version_text(version()));
  EXPECT_EQ(console.calls().back(), done_line());
}

TEST_P(TlsHandshake, SaysWhoThePeerIsAndWhatWasAgreed) {
  TlsLink link(peer());
  console.clear();
  ASSERT_EQ(link.handshake(), 0);
  std::vector<std::string> expected;
  if (!server()) {
    expected = {"TLSHandshake: peer certificate verified",
                "TLSHandshake: peer: " + tls_files().subject(TlsFiles::kServer)};
    EXPECT_EQ(link.session().x509_peer_name_string, tls_files().subject(TlsFiles::kServer));
  }
  expected.push_back(done_line());
  EXPECT_EQ(console.calls(), expected);
}

TEST_P(TlsHandshake, SaysOnlyWhatWasAgreedWithoutDebug) {
  SSLInfo::ssl_debug = 0;
  TlsLink link(peer());
  console.clear();
  ASSERT_EQ(link.handshake(), 0);
  EXPECT_THAT(console.calls(), ElementsAre(done_line()));
}

TEST_P(TlsHandshake, WorksWithAPeerOfOneByteAtATime) {
  TlsLink link(peer());
  link.peer().hold(true);
  int result = -1;
  for (int i = 0; i < 20000 && result < 0; ++i) {
    result = link.session().Handshake();
    link.peer().step();
    link.peer().release(1);
  }
  EXPECT_EQ(result, 0);
  link.peer().hold(false);
  EXPECT_TRUE(link.peer().handshake());
  EXPECT_EQ(link.send("over the wire"), Success);
  EXPECT_EQ(link.peer().read(13), "over the wire");
}

TEST_P(TlsHandshake, NeverWaitsWhateverTheModeOfTheDescriptor) {
  TlsLink link(peer());
  ::fcntl(link.fd(), F_SETFL, ::fcntl(link.fd(), F_GETFL) & ~O_NONBLOCK);
  EXPECT_EQ(link.session().Handshake(), -1);
  EXPECT_EQ(link.handshake(), 0);
  EXPECT_EQ(link.receive(), "");
}

TEST_P(TlsHandshake, CarriesDataBothWaysAfterwards) {
  TlsLink link(peer());
  ASSERT_EQ(link.handshake(), 0);
  EXPECT_EQ(link.send("there"), Success);
  EXPECT_EQ(link.peer().read(5), "there");
  link.peer().write("and back");
  EXPECT_EQ(link.receive(), "and back");
}

TEST_P(TlsHandshake, APeerThatVanishesEndsItWhereverItStands) {
  // First the whole flight of a peer, to know how long it is.
  std::size_t flight = 0;
  {
    TlsLink link(peer());
    link.peer().hold(true);
    if (server()) link.peer().step();
    link.session().Handshake();
    link.peer().step();
    flight = link.peer().held().size();
    ASSERT_GT(flight, 100U);
  }
  for (const std::size_t cut : {std::size_t{0}, std::size_t{1}, std::size_t{4}, std::size_t{5},
                                std::size_t{6}, flight / 2, flight - 1}) {
    SCOPED_TRACE(cut);
    TlsLink link(peer());
    link.peer().hold(true);
    if (server()) link.peer().step();
    EXPECT_EQ(link.session().Handshake(), -1);
    link.peer().step();
    link.peer().release(cut);
    link.peer().close();
    console.clear();
    int result = -1;
    for (int i = 0; i < 10 && result < 0; ++i) result = link.session().Handshake();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(link.session().ssl, nullptr);
    EXPECT_NE(link.session().ssl_ctx, nullptr);
    const std::vector<std::string> lines = console.calls();
    ASSERT_EQ(lines.size(), 2U) << console.text();
    EXPECT_THAT(lines[0], testing::MatchesRegex("SSL 0x[0-9a-f]+ " + call() + " ERROR_SYSCALL EOF"));
    EXPECT_EQ(lines[1], failed_line());
  }
}

TEST_P(TlsHandshake, AFlightThatHasBeenDamagedIsNeverTaken) {
  for (std::size_t at = 0;; at += 29) {
    SCOPED_TRACE(at);
    TlsLink link(peer());
    link.peer().hold(true);
    if (server()) link.peer().step();
    EXPECT_EQ(link.session().Handshake(), -1);
    link.peer().step();
    std::string flight = link.peer().held();
    if (at >= flight.size()) break;
    flight[at] = static_cast<char>(flight[at] ^ 0x41);
    link.peer().set_held(flight);
    link.peer().hold(false);
    int result = -1;
    for (int i = 0; i < 5 && result < 0; ++i) {
      link.peer().release();
      result = link.session().Handshake();
      link.peer().step();
    }
    EXPECT_NE(result, 0);
    OSBuf* buf = nullptr;
    if (link.session().ssl != nullptr) link.session().Recv(&buf);
    EXPECT_EQ(buf, nullptr);
  }
}

TEST_P(TlsHandshake, APeerThatResetsEndsIt) {
  TlsLink link(peer(), {}, Wire::tcp());
  EXPECT_EQ(link.session().Handshake(), -1);
  link.peer().reset();
  ASSERT_TRUE(wait_for_events(link.fd(), POLLIN));
  int result = -1;
  for (int i = 0; i < 1000 && result < 0; ++i) result = link.session().Handshake();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(link.session().ssl, nullptr);
  EXPECT_EQ(console.calls().back(), failed_line());
}

TEST_P(TlsHandshake, APeerThatTalksSomethingElseIsReportedWithTheCallsName) {
  TlsLink link(peer());
  const std::string rubbish(300, 'G');
  ASSERT_EQ(::send(link.peer().fd(), rubbish.data(), rubbish.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(rubbish.size()));
  console.clear();
  EXPECT_EQ(link.session().Handshake(), 1);
  const std::vector<std::string> lines = console.calls();
  ASSERT_GE(lines.size(), 2U);
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    EXPECT_THAT(lines[i], testing::MatchesRegex("SSL/TLS \\(0x[0-9a-f]{8}\\): " + call() + ": error:.*"));
  }
  EXPECT_EQ(lines.back(), failed_line());
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST_P(TlsHandshake, AFailureSaysNothingMoreWithoutDebugThanItsErrors) {
  SSLInfo::ssl_debug = 0;
  TlsLink link(peer());
  link.peer().close();
  console.clear();
  int result = -1;
  for (int i = 0; i < 10 && result < 0; ++i) result = link.session().Handshake();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(console.count("handshake failed"), 0);
}

TEST_P(TlsHandshake, AfterAFailureNothingWorksAndNothingBreaks) {
  TlsLink link(peer());
  link.peer().close();
  int result = -1;
  for (int i = 0; i < 10 && result < 0; ++i) result = link.session().Handshake();
  ASSERT_EQ(result, 1);
  console.clear();
  EXPECT_EQ(link.session().Handshake(), 1);
  EXPECT_THAT(console.calls(), ElementsAre("SSLInfo::Handshake - ssl=0"));
  EXPECT_EQ(link.send("lost"), NoConnection);
  link.session().SendQTrigger();
  EXPECT_EQ(link.session().Stop(), 0);
  OSBuf* buf = nullptr;
  EXPECT_NE(link.session().Recv(&buf), 0);
  EXPECT_EQ(buf, nullptr);
}

TEST_P(TlsHandshake, AnotherErrorOnTheThreadDoesNotHurtIt) {
  TlsLink link(peer());
  int result = -1;
  for (int i = 0; i < 1000 && result < 0; ++i) {
    ERR_raise(ERR_LIB_USER, 5);
    errno = ECONNRESET;
    result = link.session().Handshake();
    ERR_clear_error();
    link.peer().step();
  }
  EXPECT_EQ(result, 0);
  ERR_clear_error();
}

TEST_P(TlsHandshake, IsNotMadeWithoutASetUp) {
  Wire wire = Wire::local();
  SSLInfo session(wire.near_end.get(), server());
  EXPECT_EQ(session.Handshake(), 1);
  EXPECT_THAT(console.calls(), ElementsAre("SSLInfo::Handshake - ssl=0"));
}

INSTANTIATE_TEST_SUITE_P(, TlsHandshake,
                         testing::Combine(testing::Bool(), testing::Values(TLS1_2_VERSION, TLS1_3_VERSION)),
                         [](const auto& kind) {
                           return std::string(std::get<0>(kind.param) ? "Server" : "Client") +
                                  version_name(std::get<1>(kind.param));
                         });

// ---- Versions ------------------------------------------------------------------------------------------------

using TlsVersions = TlsSessionTest;

TEST_F(TlsVersions, TheNewestThatBothKnowIsTaken) {
  for (const bool server : {true, false}) {
    TlsLink link(server ? good_client() : good_server());
    ASSERT_EQ(link.handshake(), 0);
    EXPECT_STREQ(SSL_get_version(link.session().ssl), "TLSv1.3");
  }
}

TEST_F(TlsVersions, TheOldOnesNeedSecurityLevelZero) {
  for (const int version : {TLS1_VERSION, TLS1_1_VERSION}) {
    for (const bool server : {true, false}) {
      for (const auto& [level, result] : {std::pair{0, 0}, {1, 1}}) {
        SCOPED_TRACE(testing::Message() << std::hex << version << " level " << level << " server " << server);
        SSLInfo::security_level = level;
        TlsLink link(server ? good_client(version) : good_server(version));
        ASSERT_EQ(link.setup(), 0);
        EXPECT_EQ(link.handshake(), result);
        if (result == 0) {
          EXPECT_STREQ(SSL_get_version(link.session().ssl), version == TLS1_VERSION ? "TLSv1" : "TLSv1.1");
        }
      }
    }
  }
}

}  // namespace
