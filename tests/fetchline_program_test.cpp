// fetchline: the example of the blocking sockets, as a client and as the accepting side, plain and over TLS.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/callrouter_child.h"
#include "tests/support/appliance_root.h"
#include "tests/support/socket_peer.h"
#include "tests/support/tls_files.h"
#include "tests/support/tls_peer.h"

namespace callrouter_test {
namespace {

using oskernel_test::ApplianceRoot;
using oskernel_test::PeerListener;
using oskernel_test::PeerStream;
using oskernel_test::TlsFiles;
using oskernel_test::TlsPeer;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

Outcome fetchline(Texts arguments) { return run_program(std::move(arguments), "", FETCHLINE_PROGRAM); }

/// `fetchline --serve`, which goes on until it is killed.
class Serving {
 public:
  explicit Serving(Texts arguments)
      : program_(std::move(arguments), FETCHLINE_PROGRAM),
        out_(std::move(program_.out)),
        err_(std::move(program_.err)) {
    const std::string label = "serving on 127.0.0.1:";
    EXPECT_TRUE(out_.wait_for("\n")) << err_.so_far();
    EXPECT_THAT(out_.so_far(), StartsWith(label));
    port = static_cast<UWORD>(std::atoi(out_.so_far().c_str() + label.size()));
  }
  ~Serving() { program_.child.send(SIGKILL); }

  bool shows(std::string_view text) { return out_.wait_for(text); }
  bool complains(std::string_view text) { return err_.wait_for(text); }

  UWORD port = 0;

 private:
  PipedChild program_;
  Collector out_, err_;
};

TEST(Fetchline, SendsALineAndPrintsWhatComesUntilThePeerCloses) {
  PeerListener listener;
  std::thread peer([&] {
    PeerStream stream = listener.accept();
    EXPECT_EQ(stream.receive(7), "hello\r\n");
    stream.send_all("first\r\nsecond\r\n");
    stream.send_all("no end");
  });
  const Outcome run = fetchline({"127.0.0.1", std::to_string(listener.port()), "hello"});
  peer.join();
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "first\r\nsecond\r\nno end");
  EXPECT_EQ(run.err, "");
}

TEST(Fetchline, StopsWhenTheTimeIsOver) {
  PeerListener listener;
  std::thread peer([&] {
    PeerStream stream = listener.accept();
    stream.send_all("early\n");
    EXPECT_EQ(stream.receive_to_end(), "hello\r\n");
  });
  const Outcome run = fetchline({"127.0.0.1", std::to_string(listener.port()), "hello", "--timeout", "200"});
  peer.join();
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "early\n");
}

TEST(Fetchline, SaysWhenNothingComes) {
  PeerListener listener;
  std::thread peer([&] { listener.accept().receive_to_end(); });
  const std::string port = std::to_string(listener.port());
  const Outcome run = fetchline({"127.0.0.1", port, "hello", "--timeout", "100"});
  peer.join();
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "fetchline: nothing has come from 127.0.0.1:" + port + "\n");
}

TEST(Fetchline, SaysWhyThereIsNoConnection) {
  const oskernel_test::RefusingPort nobody;
  const std::string port = std::to_string(nobody.port());
  const Outcome refused = fetchline({"127.0.0.1", port, "hello"});
  EXPECT_EQ(refused.exit_code, 4);
  EXPECT_THAT(refused.err, StartsWith("fetchline: no connection to 127.0.0.1:" + port +
                                      ": Socket::Socket() connect() error 111 to 7f000001:"));
  const Outcome unknown = fetchline({"nowhere.invalid", port, "hello"});
  EXPECT_EQ(unknown.exit_code, 4);
  EXPECT_EQ(unknown.err, "fetchline: no connection to nowhere.invalid:" + port +
                             ": Socket: couldn't resolve host nowhere.invalid\n");
}

TEST(Fetchline, BadCommandLinesAreRefused) {
  const std::string long_line(1501, 'x');
  const struct {
    Texts arguments;
    const char* message;
  } kRows[] = {
      {{}, "fetchline: WORD is required"},
      {{"127.0.0.1", "1"}, "fetchline: arguments: HOST PORT LINE are needed"},
      {{"127.0.0.1", "0", "x"}, "fetchline: PORT: '0' is no port"},
      {{"127.0.0.1", "65536", "x"}, "fetchline: PORT: '65536' is no port"},
      {{"127.0.0.1", "1x", "x"}, "fetchline: PORT: '1x' is no port"},
      {{"", "1", "x"}, "fetchline: HOST: is empty"},
      {{"127.0.0.1", "1", long_line}, "fetchline: LINE: is too long"},
      {{"127.0.0.1", "1", "x", "--timeout", "-1"}, "fetchline: --timeout"},
      {{"--serve"}, "fetchline: WORD is required"},
      {{"--serve", "1", "2"}, "fetchline: --serve: takes PORT"},
      {{"--serve", "70000"}, "fetchline: PORT: '70000' is no port"},
  };
  for (const auto& row : kRows) {
    const Outcome run = fetchline(row.arguments);
    EXPECT_EQ(run.exit_code, 2) << row.message;
    EXPECT_THAT(run.err, StartsWith(row.message));
  }
}

TEST(Fetchline, HelpSaysWhatTlsTakes) {
  const Outcome run = fetchline({"--help"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.out, HasSubstr("waits for its peer to speak first"));
  EXPECT_THAT(run.out, HasSubstr("/Korvantel"));
}

TEST(Fetchline, AcceptingSideSendsLinesBackToOneAfterTheOther) {
  Serving serving({"--serve", "0"});
  const std::string port = std::to_string(serving.port);
  for (const char* line : {"one", "two"}) {
    const Outcome run = fetchline({"127.0.0.1", port, line, "--timeout", "200"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out, std::string(line) + "\r\n");
    EXPECT_TRUE(serving.shows(std::string(line) + "\r\n"));
  }
  PeerStream peer = PeerStream::connect_to(serving.port);
  EXPECT_TRUE(peer.send_all("in "));
  EXPECT_TRUE(peer.send_all("pieces\nand more\n"));
  EXPECT_EQ(peer.receive(19), "in pieces\nand more\n");
}

TEST(Fetchline, PortInUseIsTold) {
  Serving serving({"--serve", "0"});
  const Outcome run = fetchline({"--serve", std::to_string(serving.port)});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_THAT(run.err, StartsWith("fetchline: cannot serve on port " + std::to_string(serving.port) +
                                  ": Socket: bind() error 98"));
}

TEST(Fetchline, TlsWithoutCertificatesIsTold) {
  Serving serving({"--serve", "--tls", "0"});
  TlsPeer peer(PeerStream::connect_to(serving.port), TlsPeer::kClient, {});
  EXPECT_FALSE(peer.handshake());
  EXPECT_TRUE(serving.complains("fetchline: no TLS with 127.0.0.1: SecureSocket::StartSSL"));
}

TEST(Fetchline, AcceptingSideServesTlsClients) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ASSERT_EQ(system("ip link set lo up"), 0);
  TlsFiles files;
  const ApplianceRoot root;
  root.put_primary(files.of(TlsFiles::kServer));
  Serving serving({"--serve", "--tls", "0"});
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsPeer peer(PeerStream::connect_to(serving.port), TlsPeer::kClient,
                 {.ca = files.ca(), .version = version});
    ASSERT_TRUE(peer.handshake()) << peer.trouble();
    EXPECT_TRUE(peer.send("hello\r\n"));
    EXPECT_EQ(peer.receive_until("\n"), "hello\r\n");
    EXPECT_TRUE(serving.shows("hello\r\n"));
    EXPECT_TRUE(peer.send_close_notify());
  }
}

// HelloRequest, which a client passes over in its handshake: a peer may so begin to speak.
TEST(Fetchline, TlsClientTalksToAPeerThatSpeaksFirst) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  ASSERT_EQ(system("ip link set lo up"), 0);
  TlsFiles files;
  const ApplianceRoot root;
  root.put_primary(files.of(TlsFiles::kClient));
  PeerListener listener;
  std::thread service([&] {
    PeerStream stream = listener.accept();
    EXPECT_TRUE(stream.send_all(std::string("\x16\x03\x01\x00\x04\x00\x00\x00\x00", 9)));
    TlsPeer peer(std::move(stream), TlsPeer::kServer,
                 {.cert = files.cert(TlsFiles::kServer),
                  .key = files.key(TlsFiles::kServer),
                  .version = TLS1_2_VERSION});
    EXPECT_TRUE(peer.handshake()) << peer.trouble();
    EXPECT_EQ(peer.receive_until("\n"), "hello\r\n");
    EXPECT_TRUE(peer.send("and to you\n"));
    peer.send_close_notify();
    peer.receive_to_end();
  });
  const Outcome run = fetchline({"--tls", "127.0.0.1", std::to_string(listener.port()), "hello"});
  service.join();
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, "and to you\n");
}

}  // namespace
}  // namespace callrouter_test
