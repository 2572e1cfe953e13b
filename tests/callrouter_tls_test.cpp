// callrouter --serve --tls: text lines over TLS, whom it serves, and what it says of files that it cannot use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/callrouter_served.h"
#include "tests/support/tls_files.h"
#include "tests/support/tls_peer.h"

namespace callrouter_test {
namespace {

using oskernel_test::TlsFiles;
using oskernel_test::TlsPeer;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

constexpr const char* kLondonAnswer =
    "+442079460123      44       United Kingdom                          gw-eu-1\r\n";

class CallrouterTls : public ::testing::Test {
 protected:
  Texts with_tls(Texts more = {}) {
    Texts arguments{
        "--tls", "0", "--cert", files_.cert(TlsFiles::kServer), "--key", files_.key(TlsFiles::kServer)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  Texts verifying() { return with_tls({"--ca", files_.ca(), "--verify-clients"}); }

  TlsPeer::Settings client(int version = 0) { return {.ca = files_.ca(), .version = version}; }
  TlsPeer::Settings client(TlsFiles::Kind kind, int version) {
    return {.cert = files_.cert(kind), .key = files_.key(kind), .ca = files_.ca(), .version = version};
  }
  static std::unique_ptr<TlsPeer> connect(const Served& served, const TlsPeer::Settings& settings) {
    return std::make_unique<TlsPeer>(PeerStream::connect_to(served.tls), TlsPeer::kClient, settings);
  }
  static std::string ask(TlsPeer& peer, const std::string& request) {
    if (!peer.send(request)) return "(not sent)";
    return peer.receive_until("\r\n");
  }
  std::string file_of(const char* name, const std::string& content) { return files_.write(name, content); }

  TlsFiles files_;
};

class CallrouterTlsVersions : public CallrouterTls, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Versions, CallrouterTlsVersions, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& row) { return row.param == TLS1_2_VERSION ? "Tls12" : "Tls13"; });

TEST_P(CallrouterTlsVersions, AnswersTheProgramOfOpenssl) {
  const Served served(with_tls());
  PipedChild program(
      {"s_client", "-connect", "127.0.0.1:" + std::to_string(served.tls), "-quiet", "-no_ign_eof",
       GetParam() == TLS1_2_VERSION ? "-tls1_2" : "-tls1_3", "-CAfile", files_.ca(), "-verify_return_error"},
      "openssl");
  Collector out(std::move(program.out)), err(std::move(program.err));
  write_all(program.in.get(), "+44 20 7946 0123\n");
  EXPECT_TRUE(out.wait_for(kLondonAnswer)) << err.so_far();
  write_all(program.in.get(), "x\n");
  EXPECT_TRUE(out.wait_for("x                  malformed: unexpected 'x' at column 1\r\n"));
  program.in.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0) << err.so_far();
}

TEST_P(CallrouterTlsVersions, AnswersTheProgramOfGnutls) {
  const Served served(with_tls());
  oskernel_test::RealClient program(oskernel_test::gnutls_client(files_, served.tls, GetParam()));
  EXPECT_TRUE(program.say("+44 20 7946 0123\n"));
  EXPECT_TRUE(program.wait_for_output(kLondonAnswer));
}

TEST_P(CallrouterTlsVersions, ServesOnlyVerifiedClientsWhenAskedTo) {
  Served served(verifying());
  const auto asked_by = [&](const TlsPeer::Settings& settings) {
    const auto peer = connect(served, settings);
    // Over TLS 1.3 the client is through before the server has seen its certificate.
    if (!peer->handshake()) return std::string("(refused)");
    const std::string answer = ask(*peer, "+44 20 7946 0123\n");
    return answer.empty() || answer == "(not sent)" ? "(refused)" : answer;
  };
  EXPECT_EQ(asked_by(client(TlsFiles::kClient, GetParam())), kLondonAnswer);
  EXPECT_EQ(asked_by(client(GetParam())), "(refused)");
  for (const TlsFiles::Kind kind :
       {TlsFiles::kSelfSigned, TlsFiles::kExpired, TlsFiles::kNotYetValid, TlsFiles::kOtherCa}) {
    EXPECT_EQ(asked_by(client(kind, GetParam())), "(refused)") << kind;
  }
  EXPECT_EQ(asked_by(client(TlsFiles::kClientRsa, GetParam())), kLondonAnswer);
  EXPECT_THAT(served.stops_cleanly(), HasSubstr("\nTLS: 2 sessions, 5 handshakes failed\n"));
}

TEST_P(CallrouterTlsVersions, WhoeverClosesTheSessionStillGetsTheAnswers) {
  const Served served(with_tls());
  const auto peer = connect(served, client(GetParam()));
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  // The last line has no end.
  ASSERT_TRUE(peer->send("x\n+44 20 7946 0123"));
  ASSERT_TRUE(peer->send_close_notify());
  EXPECT_EQ(peer->receive_to_end(),
            std::string("x                  malformed: unexpected 'x' at column 1\r\n") + kLondonAnswer);
  EXPECT_EQ(peer->end(), TlsPeer::kCloseNotify);
}

TEST_P(CallrouterTlsVersions, AnswersThatAreNotReadAreHeldAndNoneIsLost) {
  const Served served(with_tls());
  const auto peer = connect(served, client(GetParam()));
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  constexpr int kRounds = kPlainBuild ? 60 : 15;
  constexpr int kEach = 100;
  int answered = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::string requests;
    for (int i = 0; i < kEach; ++i) requests += "+44" + std::to_string(10000000 + round * kEach + i) + "\n";
    ASSERT_TRUE(peer->send(requests));
  }
  for (; answered < kRounds * kEach; ++answered) {
    const std::string answer = peer->receive_until("\r\n");
    if (answer.rfind("+44" + std::to_string(10000000 + answered) + " ", 0) != 0) {
      FAIL() << answered << ": " << answer << peer->trouble();
    }
  }
}

TEST_F(CallrouterTls, ThreePortsAreServedAtOnce) {
  Served served(with_tls({"--line", "0", "--tpkt", "0"}));
  EXPECT_THAT(served.shown(), MatchesRegex("serving tpkt on 127.0.0.1:[0-9]+\n"
                                           "serving lines on 127.0.0.1:[0-9]+\n"
                                           "serving tls lines on 127.0.0.1:[0-9]+\n"));
  PeerStream lines = served.lines();
  EXPECT_EQ(answer(lines, "+44 20 7946 0123\n"), kLondon);
  const auto peer = connect(served, client());
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  EXPECT_EQ(ask(*peer, "+44 20 7946 0123\n"), kLondonAnswer);
  served.type("sockets\n");
  EXPECT_TRUE(
      served.shows("serving tls lines on port " + std::to_string(served.tls) + "\n2 of 1,000 connections"));
  EXPECT_TRUE(served.shows("2  tls    127.0.0.1:"));
  EXPECT_THAT(served.stops_cleanly(), HasSubstr("\nTLS: 1 session, 0 handshakes failed\n"));
}

TEST_F(CallrouterTls, OnlyTheTlsPortIsServedWhenNoOtherIsNamed) {
  const Served served(with_tls());
  EXPECT_NE(served.tls, 0);
  EXPECT_EQ(served.line + served.tpkt, 0);
}

TEST_F(CallrouterTls, StopsCleanlyWhileClientsAreConnected) {
  Served served(with_tls());
  std::vector<std::unique_ptr<TlsPeer>> peers;
  for (int i = 0; i < 5; ++i) {
    peers.push_back(connect(served, client()));
    ASSERT_TRUE(peers.back()->handshake()) << peers.back()->trouble();
    EXPECT_EQ(ask(*peers.back(), "+44 20 7946 0123\n"), kLondonAnswer);
  }
  // One that has said nothing, one in the middle of its handshake.
  const PeerStream silent = PeerStream::connect_to(served.tls);
  const auto half = connect(served, client());
  half->handshake_step();
  EXPECT_TRUE(half->flush());
  served.stops_cleanly();
  for (const auto& peer : peers) {
    EXPECT_EQ(peer->receive_to_end(), "");
    EXPECT_EQ(peer->end(), TlsPeer::kCloseNotify);
  }
}

TEST_F(CallrouterTls, WhoeverSpeaksNoTlsIsTurnedAwayAndTheOthersStay) {
  Served served(with_tls());
  const auto peer = connect(served, client());
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  PeerStream plain = PeerStream::connect_to(served.tls);
  ASSERT_TRUE(plain.send_all("+44 20 7946 0123 in the clear\r\n"));
  EXPECT_THAT(plain.receive_to_end(), Not(HasSubstr("gw-eu-1")));
  EXPECT_EQ(ask(*peer, "+44 20 7946 0123\n"), kLondonAnswer);
  // A diagnosis is for who asks for it.
  const std::string said = served.stops_cleanly();
  EXPECT_THAT(said, Not(HasSubstr("SSL")));
  EXPECT_THAT(said, HasSubstr("\nTLS: 1 session, 1 handshake failed\n"));
}

TEST_F(CallrouterTls, HandshakeThatDoesNotGoOnEndsWithTheIdleTime) {
  const Served served(with_tls({"--idle", "0.2"}));
  PeerStream silent = PeerStream::connect_to(served.tls);
  EXPECT_EQ(silent.receive_to_end(), "");
}

TEST_F(CallrouterTls, IdleSessionIsToldWhyItEnds) {
  // Counted from the connection on, and the handshake needs its time.
  const Served served(with_tls({"--idle", "2"}));
  const auto peer = connect(served, client());
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  EXPECT_EQ(peer->receive_to_end(), "error: no request for 2 s, closing\r\n");
  EXPECT_EQ(peer->end(), TlsPeer::kCloseNotify);
}

TEST_F(CallrouterTls, ConnectionsBeyondTheLimitAreClosed) {
  const Served served(with_tls({"--connections", "1"}));
  const auto peer = connect(served, client());
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  EXPECT_EQ(ask(*peer, "+44 20 7946 0123\n"), kLondonAnswer);
  PeerStream second = PeerStream::connect_to(served.tls);
  EXPECT_EQ(second.receive_to_end(), "");
  EXPECT_EQ(ask(*peer, "+44 20 7946 0123\n"), kLondonAnswer);
}

TEST_F(CallrouterTls, RenewedFilesHoldForTheNextConnection) {
  const std::string cert = file_of("live.pem", TlsFiles::read(files_.cert(TlsFiles::kServer)));
  const std::string key = file_of("live.key", TlsFiles::read(files_.key(TlsFiles::kServer)));
  const Served served({"--tls", "0", "--cert", cert, "--key", key});
  const auto subject = [&] {
    const auto peer = connect(served, client());
    EXPECT_TRUE(peer->handshake()) << peer->trouble();
    return peer->peer_subject();
  };
  EXPECT_EQ(subject(), files_.subject(TlsFiles::kServer));
  file_of("live.pem", TlsFiles::read(files_.cert(TlsFiles::kClient)));
  file_of("live.key", TlsFiles::read(files_.key(TlsFiles::kClient)));
  EXPECT_EQ(subject(), files_.subject(TlsFiles::kClient));
}

TEST_F(CallrouterTls, ExpiredCertificateIsRemarkedAndServed) {
  Served served(
      {"--tls", "0", "--cert", files_.cert(TlsFiles::kExpired), "--key", files_.key(TlsFiles::kExpired)});
  const auto peer = connect(served, {});
  ASSERT_TRUE(peer->handshake()) << peer->trouble();
  EXPECT_EQ(ask(*peer, "+44 20 7946 0123\n"), kLondonAnswer);
  EXPECT_THAT(served.stops_cleanly(), StartsWith("callrouter: --cert " + files_.cert(TlsFiles::kExpired) +
                                                 ": the certificate has expired ("));
}

TEST_F(CallrouterTls, FilesThatCannotBeUsedAreNamedBeforeAnythingIsServed) {
  const std::string cert = files_.cert(TlsFiles::kServer);
  const std::string key = files_.key(TlsFiles::kServer);
  const std::string garbage = file_of("garbage", "this is no certificate\n");
  const std::string cut = file_of("cut.pem", TlsFiles::read(cert).substr(0, 200));
  const std::string directory = files_.path("");
  const std::string locked = files_.key(TlsFiles::kEncryptedKey);
  const std::string other_key = files_.key(TlsFiles::kClient);
  const std::string rsa_key = files_.key(TlsFiles::kServerRsa);
  const std::string missing = files_.missing();
  const std::string inside_file = garbage + "/key.pem";
  const struct {
    std::string cert, key, ca, message;
  } kRows[] = {
      {missing, key, "", "--cert " + missing + ": No such file or directory"},
      {directory, key, "", "--cert " + directory + ": Is a directory"},
      {"/dev/null", key, "", "--cert /dev/null: is no regular file, and is read for every connection"},
      {garbage, key, "", "--cert " + garbage + ": holds no certificate in PEM form"},
      {key, key, "", "--cert " + key + ": holds no certificate in PEM form"},
      {cut, key, "", "--cert " + cut + ": cannot be used: "},
      {cert, missing, "", "--key " + missing + ": No such file or directory"},
      {cert, inside_file, "", "--key " + inside_file + ": Not a directory"},
      {cert, garbage, "", "--key " + garbage + ": "},
      {cert, cert, "", "--key " + cert + ": "},
      {files_.cert(TlsFiles::kEncryptedKey), locked, "",
       "--key " + locked + ": is encrypted; the key must stand there without a pass phrase"},
      {cert, other_key, "", "--key " + other_key + ": does not belong to the certificate in " + cert},
      {cert, rsa_key, "", "--key " + rsa_key + ": does not belong to the certificate in " + cert},
      {cert, key, missing, "--ca " + missing + ": No such file or directory"},
      {cert, key, garbage, "--ca " + garbage + ": holds no certificate in PEM form"},
      {cert, key, directory, "--ca " + directory + ": Is a directory"},
  };
  for (const auto& row : kRows) {
    Texts arguments{"--serve", "--tls", "0", "--cert", row.cert, "--key", row.key};
    if (!row.ca.empty()) arguments.insert(arguments.end(), {"--ca", row.ca});
    const Outcome run = run_program(arguments);
    EXPECT_EQ(run.exit_code, 2) << row.message;
    EXPECT_EQ(run.out, "") << row.message;
    EXPECT_THAT(run.err, StartsWith("callrouter: " + row.message));
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
}

TEST_F(CallrouterTls, OptionsThatDoNotGoTogetherAreRefused) {
  const struct {
    Texts arguments;
    const char* message;
  } kRows[] = {
      {{"--tls", "0", "--cert", "c", "--key", "k"}, "--tls requires --serve"},
      {{"--serve", "--tls", "0"}, "--tls requires --cert"},
      {{"--serve", "--tls", "0", "--key", "k"}, "--tls requires --cert"},
      {{"--serve", "--tls", "0", "--cert", "c"}, "--tls requires --key"},
      {{"--serve", "--cert", "c"}, "--cert requires --tls"},
      {{"--serve", "--key", "k"}, "--key requires --tls"},
      {{"--serve", "--ca", "a"}, "--ca requires --tls"},
      {{"--serve", "--verify-clients"}, "--verify-clients requires --tls"},
      {{"--serve", "--tls", "0", "--cert", "c", "--key", "k", "--verify-clients"},
       "--verify-clients requires --ca"},
      {{"--serve", "--tls", "70000", "--cert", "c", "--key", "k"}, "--tls: "},
      {{"--serve", "--tls", "0", "--cert", "", "--key", "k"}, "--cert"},
  };
  for (const auto& row : kRows) {
    const Outcome run = run_program(row.arguments);
    EXPECT_EQ(run.exit_code, 2) << row.message;
    EXPECT_EQ(run.out, "") << row.message;
    EXPECT_THAT(run.err, StartsWith(std::string("callrouter: ") + row.message));
  }
}

TEST_F(CallrouterTls, PortInUseIsNamed) {
  const Served served(with_tls());
  Texts arguments = with_tls();
  arguments[1] = std::to_string(served.tls);
  arguments.insert(arguments.begin(), "--serve");
  const Outcome run = run_program(arguments);
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err,
            "callrouter: cannot serve tls lines on 127.0.0.1:" + arguments[2] + ": Address already in use\n");
}

TEST_F(CallrouterTls, TracingShowsWhyAHandshakeFails) {
  Served served(verifying());
  served.type("trace\n");
  EXPECT_TRUE(served.shows("> "));
  const auto peer = connect(served, client(TlsFiles::kOtherCa, TLS1_2_VERSION));
  peer->handshake();
  peer->receive_to_end();
  EXPECT_THAT(served.stops_cleanly(), HasSubstr("TLSHandshake: peer verification error: "));
}

}  // namespace
}  // namespace callrouter_test
