// callroute --tls: whom it trusts, what it says of the others, and that it never waits for ever.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/callrouter_served.h"
#include "tests/support/tls_files.h"
#include "tests/support/tls_peer.h"

namespace callrouter_test {
namespace {

using oskernel_test::PeerListener;
using oskernel_test::TlsFiles;
using oskernel_test::TlsPeer;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

Outcome callroute(Texts arguments, std::string_view input = "") {
  return run_program(std::move(arguments), input, CALLROUTE_PROGRAM);
}

class CallrouteTls : public ::testing::Test {
 protected:
  Texts router(Texts more = {}) {
    Texts arguments{
        "--tls", "0", "--cert", files_.cert(TlsFiles::kServer), "--key", files_.key(TlsFiles::kServer)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  Texts to(UWORD port, Texts more = {}) {
    Texts arguments{"--tls", "--ca", files_.ca(), "127.0.0.1", std::to_string(port)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  static std::string target(UWORD port) { return "callroute: 127.0.0.1:" + std::to_string(port); }

  TlsFiles files_;
};

/// `openssl s_server`, which answers a request of HTTP and nothing else.
class WebServer {
 public:
  WebServer(TlsFiles& files, TlsFiles::Kind kind, int version)
      : program_({"openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", files.cert(kind), "-key",
                  files.key(kind), "-www", oskernel_test::openssl_version_option(version)}) {
    const std::string label = "ACCEPT 127.0.0.1:";
    if (!program_.wait_for_output(label)) return;
    // The port stands there whole when the line has ended.
    wait_until([&] { return said(label).find('\n') != std::string::npos; }, kLimitMs);
    port_ = static_cast<UWORD>(std::atoi(said(label).c_str()));
  }
  UWORD port() const { return port_; }

 private:
  std::string said(const std::string& label) const {
    const std::string text = program_.output();
    const std::size_t at = text.find(label);
    return at == std::string::npos ? "" : text.substr(at + label.size());
  }

  oskernel_test::Process program_;
  UWORD port_ = 0;
};

/// A peer by the test's own rules, for one connection.
class FakeRouter {
 public:
  template <class Behaviour>
  explicit FakeRouter(Behaviour behaviour)
      : thread_([this, behaviour] {
          PeerStream peer = listener_.accept();
          EXPECT_TRUE(peer.is_open());
          behaviour(std::move(peer));
        }) {}
  ~FakeRouter() { thread_.join(); }
  UWORD port() const { return listener_.port(); }

 private:
  PeerListener listener_;
  std::thread thread_;
};

TEST_F(CallrouteTls, AsksARouterThatItTrusts) {
  const Served served(router());
  for (const Texts& more :
       {Texts{}, Texts{"--peer-name", files_.subject(TlsFiles::kServer)},
        Texts{"--cert", files_.cert(TlsFiles::kClient), "--key", files_.key(TlsFiles::kClient)}}) {
    Texts arguments = to(served.tls, {"+44 20 7946 0123", "x"});
    arguments.insert(arguments.begin(), more.begin(), more.end());
    const Outcome run = callroute(arguments);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out, std::string(kLondon) + "\nx                  malformed: unexpected 'x' at column 1\n");
    EXPECT_EQ(run.err, "");
  }
}

TEST_F(CallrouteTls, LoadIsAnsweredRightOverManySessions) {
  Served served(router());
  const Outcome run =
      callroute(to(served.tls, {"--load", "2000", "--connections", "10", "--pipeline", "5", "--json"}));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["framing"], "tls lines");
  EXPECT_EQ(json["wrong"], 0);
  EXPECT_EQ(json["calls"], 2000);
  EXPECT_THAT(served.stops_cleanly(), HasSubstr("\nTLS: 10 sessions, 0 handshakes failed\n"));
}

TEST_F(CallrouteTls, RouterThatVerifiesItsClientsWantsACertificateOfItsCa) {
  const Served served(router({"--ca", files_.ca(), "--verify-clients"}));
  const Outcome with = callroute(to(served.tls, {"--cert", files_.cert(TlsFiles::kClient), "--key",
                                                 files_.key(TlsFiles::kClient), "+44 20 7946 0123"}));
  EXPECT_EQ(with.exit_code, 0) << with.err;
  EXPECT_EQ(with.out, std::string(kLondon) + "\n");
  // The pair that the program makes for itself is nobody's, and so is the other CA's.
  for (const Texts& own :
       {Texts{}, Texts{"--cert", files_.cert(TlsFiles::kOtherCa), "--key", files_.key(TlsFiles::kOtherCa)}}) {
    Texts arguments = to(served.tls, {"+44 20 7946 0123"});
    arguments.insert(arguments.begin(), own.begin(), own.end());
    const Outcome run = callroute(arguments);
    EXPECT_EQ(run.exit_code, 5);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, StartsWith(target(served.tls) + ": "));
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
}

class CallrouteTlsVersions : public CallrouteTls, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Versions, CallrouteTlsVersions, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& row) { return row.param == TLS1_2_VERSION ? "Tls12" : "Tls13"; });

TEST_P(CallrouteTlsVersions, AsksTheServerOfOpenssl) {
  const WebServer chosen(files_, TlsFiles::kServer, GetParam());
  // It answers a request of HTTP and closes; the first line of that is no answer to a number.
  const Outcome run = callroute(to(chosen.port(), {"GET / HTTP/1.0"}));
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_EQ(run.err, target(chosen.port()) + " sent what it was not asked for: HTTP/1.0 200 ok\n");
}

TEST_P(CallrouteTlsVersions, AsksARouterThatClosesTheSession) {
  const FakeRouter fake([&](PeerStream stream) {
    TlsPeer peer(std::move(stream), TlsPeer::kServer,
                 {.cert = files_.cert(TlsFiles::kServer),
                  .key = files_.key(TlsFiles::kServer),
                  .version = GetParam()});
    EXPECT_TRUE(peer.handshake()) << peer.trouble();
    EXPECT_EQ(peer.receive_until("\r\n"), "44\r\n");
    EXPECT_TRUE(peer.send_close_notify());
    peer.receive_to_end();
  });
  const Outcome run = callroute(to(fake.port(), {"44"}));
  EXPECT_EQ(run.exit_code, 5);
  EXPECT_EQ(run.err, target(fake.port()) + " has closed the connection\n");
}

TEST_P(CallrouteTlsVersions, RouterIsToldOfTheEndOfTheSession) {
  TlsPeer::End end = TlsPeer::kOpen;
  {
    const FakeRouter fake([&](PeerStream stream) {
      TlsPeer peer(std::move(stream), TlsPeer::kServer,
                   {.cert = files_.cert(TlsFiles::kServer),
                    .key = files_.key(TlsFiles::kServer),
                    .version = GetParam()});
      EXPECT_TRUE(peer.handshake()) << peer.trouble();
      EXPECT_EQ(peer.receive_until("\r\n"), "44\r\n");
      EXPECT_TRUE(
          peer.send("+44                44       United Kingdom                          gw-eu-1\r\n"));
      peer.receive_to_end();
      end = peer.end();
    });
    EXPECT_EQ(callroute(to(fake.port(), {"44"})).exit_code, 0);
  }
  EXPECT_EQ(end, TlsPeer::kCloseNotify);
}

TEST_P(CallrouteTlsVersions, RoutersThatAreNotTrustedAreRefused) {
  const struct {
    TlsFiles::Kind kind;
    const char* peer_name;
    std::string message;
  } kRows[] = {
      {TlsFiles::kSelfSigned, nullptr, "the router's certificate is not trusted: it is self-signed"},
      {TlsFiles::kExpired, nullptr, "the router's certificate is not trusted: certificate has expired"},
      {TlsFiles::kNotYetValid, nullptr,
       "the router's certificate is not trusted: certificate is not yet valid"},
      {TlsFiles::kOtherCa, nullptr,
       "the router's certificate is not trusted: unable to get local issuer certificate"},
      {TlsFiles::kServer, "/C=SE/O=Works/CN=other",
       "the router is /C=SE/O=Works/CN=gate, not /C=SE/O=Works/CN=other"},
      {TlsFiles::kServer, "/C=SE/O=Works/CN=gat",
       "the router is /C=SE/O=Works/CN=gate, not /C=SE/O=Works/CN=gat"},
      {TlsFiles::kServer, "gate", "the router is /C=SE/O=Works/CN=gate, not gate"},
  };
  for (const auto& row : kRows) {
    const WebServer server(files_, row.kind, GetParam());
    Texts arguments = to(server.port(), {"44"});
    if (row.peer_name != nullptr) arguments.insert(arguments.begin(), {"--peer-name", row.peer_name});
    const Outcome run = callroute(arguments);
    EXPECT_EQ(run.exit_code, 7) << row.message;
    EXPECT_EQ(run.out, "") << row.message;
    EXPECT_EQ(run.err, target(server.port()) + ": no TLS: " + row.message + "\n");
  }
}

TEST_F(CallrouteTls, SelfSignedRouterThatIsItsOwnCaIsTrusted) {
  const Served served({"--tls", "0", "--cert", files_.cert(TlsFiles::kSelfSigned), "--key",
                       files_.key(TlsFiles::kSelfSigned)});
  const Outcome run = callroute({"--tls", "--ca", files_.cert(TlsFiles::kSelfSigned), "127.0.0.1",
                                 std::to_string(served.tls), "+44 20 7946 0123"});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, std::string(kLondon) + "\n");
}

TEST_F(CallrouteTls, PeersWithoutTlsAreTold) {
  const auto until_closed = [](PeerStream peer) { peer.receive_to_end(); };
  {
    const FakeRouter plain([&](PeerStream peer) {
      peer.receive(1);
      peer.send_all("malformed: that was no number\r\n");
      until_closed(std::move(peer));
    });
    const Outcome run = callroute(to(plain.port(), {"44"}));
    EXPECT_EQ(run.exit_code, 7);
    EXPECT_EQ(run.err, target(plain.port()) + ": no TLS: wrong version number; does the port serve TLS?\n");
  }
  // What stands there before TLS has begun is no answer, whichever comes first.
  for (const char* greeting : {"220 ready when you are\r\n", "+44 "}) {
    const FakeRouter greeter([&](PeerStream peer) {
      peer.send_all(greeting);
      until_closed(std::move(peer));
    });
    const Outcome run = callroute(to(greeter.port(), {"44", "--timeout", "0.5"}));
    EXPECT_THAT(run.exit_code, AnyOf(6, 7)) << greeting;
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, HasSubstr("does the port serve "));
  }
  {
    const FakeRouter silent(until_closed);
    const Outcome run = callroute(to(silent.port(), {"44", "--timeout", "0.2"}));
    EXPECT_EQ(run.exit_code, 6);
    EXPECT_EQ(run.err, target(silent.port()) + ": no TLS within 0.2 s; does the port serve it?\n");
  }
  {
    const FakeRouter leaver([](PeerStream peer) { peer.receive(1); });
    const Outcome run = callroute(to(leaver.port(), {"44"}));
    EXPECT_EQ(run.exit_code, 7);
    EXPECT_THAT(run.err, StartsWith(target(leaver.port()) + ": no TLS"));
  }
}

TEST_F(CallrouteTls, TextBeforeTheSessionIsNoPartOfAnAnswer) {
  const FakeRouter fake([&](PeerStream stream) {
    stream.send_all("+1 ");  // somebody in between puts this in front
    TlsPeer peer(std::move(stream), TlsPeer::kServer,
                 {.cert = files_.cert(TlsFiles::kServer), .key = files_.key(TlsFiles::kServer)});
    if (!peer.handshake()) return;
    peer.send("2                 1        United States and Canada                gw-na-1\r\n");
    peer.receive_to_end();
  });
  const Outcome run = callroute(to(fake.port(), {"12"}));
  EXPECT_EQ(run.exit_code, 7);
  EXPECT_EQ(run.out, "");
}

TEST_F(CallrouteTls, FailuresToConnectAreToldAsWithoutTls) {
  const oskernel_test::RefusingPort nobody;
  const Outcome run = callroute(to(nobody.port(), {"44"}));
  EXPECT_EQ(run.exit_code, 4);
  EXPECT_EQ(run.err, target(nobody.port()) + ": Connection refused\n");
}

TEST_F(CallrouteTls, BadFilesAndOptionsAreNamedBeforeAnythingIsConnected) {
  const std::string garbage = files_.write("garbage", "this is no certificate\n");
  const std::string cert = files_.cert(TlsFiles::kClient);
  const std::string key = files_.key(TlsFiles::kClient);
  const std::string locked = files_.key(TlsFiles::kEncryptedKey);
  const std::string other_key = files_.key(TlsFiles::kServer);
  const struct {
    Texts arguments;
    std::string message;
  } kRows[] = {
      {{"--tls", "--ca", files_.missing()}, "--ca " + files_.missing() + ": No such file or directory"},
      {{"--tls", "--ca", garbage}, "--ca " + garbage + ": holds no certificate in PEM form"},
      {{"--tls", "--ca", files_.ca(), "--cert", cert, "--key", other_key},
       "--key " + other_key + ": does not belong to the certificate in " + cert},
      {{"--tls", "--ca", files_.ca(), "--cert", files_.cert(TlsFiles::kEncryptedKey), "--key", locked},
       "--key " + locked + ": is encrypted; the key must stand there without a pass phrase"},
      {{"--tls", "--ca", files_.ca(), "--cert", cert}, "--cert requires --key"},
      {{"--tls", "--ca", files_.ca(), "--key", key}, "--key requires --cert"},
      {{"--tls", "--tpkt", "--ca", files_.ca()}, "--tpkt excludes --tls"},
      {{"--ca", files_.ca()}, "--ca requires --tls"},
      {{"--peer-name", "x"}, "--peer-name requires --tls"},
      {{"--cert", cert, "--key", key}, "--cert requires --tls"},
      {{"--tls", "--ca", files_.ca(), "--peer-name", ""}, "--peer-name: is empty"},
      {{"--tls"},
       "--tls: needs --ca or --peer-name: a certificate of the system's CAs proves nothing without the name"},
  };
  for (const auto& row : kRows) {
    Texts arguments = row.arguments;
    arguments.insert(arguments.end(), {"127.0.0.1", "1", "44"});
    const Outcome run = callroute(arguments);
    EXPECT_EQ(run.exit_code, 2) << row.message;
    EXPECT_EQ(run.out, "") << row.message;
    EXPECT_THAT(run.err, StartsWith("callroute: " + row.message)) << row.message;
  }
}

TEST_F(CallrouteTls, SystemsCasAreUsedWithANameAlone) {
  const Served served(router());
  // The one certificate that this system trusts, as far as the program can tell.
  setenv("SSL_CERT_FILE", files_.ca().c_str(), 1);
  const std::string port = std::to_string(served.tls);
  const Outcome right = callroute(
      {"--tls", "--peer-name", files_.subject(TlsFiles::kServer), "127.0.0.1", port, "+44 20 7946 0123"});
  EXPECT_EQ(right.exit_code, 0) << right.err;
  setenv("SSL_CERT_FILE", files_.missing().c_str(), 1);
  const Outcome none = callroute({"--tls", "--peer-name", "x", "127.0.0.1", port, "44"});
  EXPECT_EQ(none.exit_code, 2);
  EXPECT_EQ(none.err, "callroute: --ca " + files_.missing() + ": No such file or directory\n");
  unsetenv("SSL_CERT_FILE");
}

TEST_F(CallrouteTls, LeavesNoFileBehind) {
  const std::string directory = files_.path("temporary");
  std::filesystem::create_directory(directory);
  const Served served(router());
  setenv("TMPDIR", directory.c_str(), 1);
  EXPECT_EQ(callroute(to(served.tls, {"44"})).exit_code, 0);
  unsetenv("TMPDIR");
  EXPECT_TRUE(std::filesystem::is_empty(directory));
}

}  // namespace
}  // namespace callrouter_test
